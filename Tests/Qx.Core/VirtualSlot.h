#pragma once

#include <cstddef>
#include <cstring>
#include <vector>

namespace Qx::Test
{

constexpr std::size_t c_nNotVirtual = static_cast<std::size_t>(-1);

/// The place of a virtual operation in the virtual table, the first being 0, read from a pointer to it as the C++ ABI
/// of this platform lays it out. A destructor takes two places.
template <typename TOperation>
std::size_t VirtualSlot(TOperation pOperation)
{
    std::ptrdiff_t aiWords[2];
    static_assert(sizeof(pOperation) == sizeof(aiWords));
    std::memcpy(aiWords, &pOperation, sizeof(aiWords));
#if defined(__aarch64__) || defined(__arm__)
    // The first word is the offset in the table; the lowest bit of the second one tells virtual operations.
    const bool bVirtual = aiWords[1] == 1;
    const std::ptrdiff_t iOffset = aiWords[0];
#else
    // The first word is the offset in the table plus 1; addresses of functions are even. The second one adjusts `this`.
    const bool bVirtual = aiWords[0] % 2 == 1 && aiWords[1] == 0;
    const std::ptrdiff_t iOffset = aiWords[0] - 1;
#endif
    return bVirtual ? static_cast<std::size_t>(iOffset) / sizeof(void*) : c_nNotVirtual;
}

/// The places of several.
template <typename... TOperations>
std::vector<std::size_t> VirtualSlots(TOperations... pOperations)
{
    return {VirtualSlot(pOperations)...};
}

} // namespace Qx::Test
