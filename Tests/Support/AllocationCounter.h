#pragma once

#include <cstdint>

namespace Qx::Test
{

/// Heap allocations of the whole process so far: `malloc`, `calloc`, `realloc`, the aligned forms and everything that
/// is built on them, such as `operator new`. May be called from any thread.
std::uint64_t CountAllocations() noexcept;

/// Makes `malloc` answer the calling thread @p iCalls times more and then fail; below 0, never fail.
void LimitAllocations(int iCalls) noexcept;

} // namespace Qx::Test
