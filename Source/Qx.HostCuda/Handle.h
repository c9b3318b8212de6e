#pragma once

#include <bit>
#include <cstdint>

namespace Qx::HostCuda
{

/// What a handle stands for. The value makes the handle an odd number, which no object has as its address.
enum class EHandle : std::uintptr_t
{
    Blas = 1,
    Stream = 3,
    Event = 5,
    Array = 7
};

/// Contents of a handle. The generation tells the successive users of a slot apart, so that a stale handle never
/// names another object.
struct SHandle
{
    std::uint64_t uDevice = 0;
    std::uint64_t uSlot = 0;
    std::uint64_t uGeneration = 0; ///< from 1 on, so that a handle is never a small number such as cudaStreamLegacy
};

inline constexpr unsigned c_uDeviceBits = 6;
inline constexpr unsigned c_uSlotBits = 20;
inline constexpr std::uint64_t c_uSlotLimit = std::uint64_t{1} << c_uSlotBits;

static_assert(sizeof(std::uintptr_t) == 8, "handles need 64 bits");

/// Packs a handle into the runtime's handle type T.
template <class T>
T EncodeHandle(EHandle eHandle, const SHandle& xHandle) noexcept
{
    const std::uintptr_t uValue = static_cast<std::uintptr_t>(eHandle) | (xHandle.uDevice << 3) |
        (xHandle.uSlot << (3 + c_uDeviceBits)) | (xHandle.uGeneration << (3 + c_uDeviceBits + c_uSlotBits));
    return std::bit_cast<T>(uValue);
}

/// Unpacks a handle of the runtime's handle type T; false if it is no such handle.
template <class T>
bool DecodeHandle(EHandle eHandle, T hHandle, SHandle& xHandle) noexcept
{
    const auto uValue = std::bit_cast<std::uintptr_t>(hHandle);
    xHandle.uDevice = (uValue >> 3) & ((std::uint64_t{1} << c_uDeviceBits) - 1);
    xHandle.uSlot = (uValue >> (3 + c_uDeviceBits)) & (c_uSlotLimit - 1);
    xHandle.uGeneration = uValue >> (3 + c_uDeviceBits + c_uSlotBits);
    return (uValue & 7) == static_cast<std::uintptr_t>(eHandle) && xHandle.uGeneration != 0;
}

} // namespace Qx::HostCuda
