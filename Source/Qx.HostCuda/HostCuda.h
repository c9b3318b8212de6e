#pragma once

#include <cuda_runtime_api.h>

#include <array>
#include <cstddef>

/// Control of the host stand-in for the CUDA runtime: what a GPU decides by its hardware and a test wants to decide
/// itself. The functions are no CUDA calls: they leave the thread's last error and the device's fault alone (except
/// RaiseFault) and answer while a device has a fault. All are thread-safe and none throws.
///
/// Read once, at the first call of the process; anything but a decimal number in range means the default, and a line on
/// standard error:
/// - `QX_HOSTCUDA_DEVICES`: number of devices, 0 to 64; default 1. With 0, calls return cudaErrorNoDevice
/// - `QX_HOSTCUDA_MEMORY`: memory of each device in bytes, or K, M, G or T (2^10 to 2^40) of them; default half of
///   the machine's memory
/// - `QX_HOSTCUDA_THREADS`: threads that one launch of a kernel runs on at most, 1 or more; default all processors.
///   With 1 the blocks of a launch run in order on the stream's thread, which suits a debugger
namespace Qx::HostCuda
{

/// Kinds of allocation.
enum class EMemoryKind
{
    Device,     ///< cudaMalloc
    Pitched,    ///< cudaMallocPitch
    Managed,    ///< cudaMallocManaged
    PageLocked, ///< cudaHostAlloc, cudaMallocHost; does not count against the device's memory
    Array       ///< cudaMallocArray
};

/// Number of enumerators of EMemoryKind.
inline constexpr std::size_t c_nMemoryKindCount = 5;

/// Live allocations of one kind.
struct SMemoryUse
{
    std::size_t nBlockCount = 0; ///< blocks
    std::size_t nByteCount = 0;  ///< their bytes; pitched blocks with their padding

    /// True when both counts agree.
    bool operator==(const SMemoryUse&) const = default;
};

/// What is alive on a device. Default streams are not counted, given-up streams and events neither.
struct SStatistics
{
    std::array<SMemoryUse, c_nMemoryKindCount> vMemory; ///< indexed by EMemoryKind
    SMemoryUse xTotal;                                  ///< sum over the kinds
    std::size_t nStreamCount = 0;                       ///< streams
    std::size_t nEventCount = 0;                        ///< events

    /// The entry of one kind.
    const SMemoryUse& operator[](EMemoryKind eKind) const { return vMemory[static_cast<std::size_t>(eKind)]; }

    /// True when all counts agree.
    bool operator==(const SStatistics&) const = default;
};

/// Writes what is alive on a device. cudaErrorInvalidDevice: no such device, nothing is written.
QX_HOSTCUDA_API cudaError_t GetStatistics(int iDevice, SStatistics& xStatistics) noexcept;

/// Sets the total memory of a device in bytes. Blocks stay when they exceed the new total; nothing is then free.
/// cudaErrorInvalidDevice: no such device.
QX_HOSTCUDA_API cudaError_t SetMemoryBudget(int iDevice, std::size_t nByteCount) noexcept;

/// Writes the total memory of a device in bytes. cudaErrorInvalidDevice: no such device.
QX_HOSTCUDA_API cudaError_t GetMemoryBudget(int iDevice, std::size_t& nByteCount) noexcept;

/// Makes a device report itself as integrated without concurrent managed access, as small systems on a chip do, or
/// (the default) as discrete with it. cudaErrorInvalidDevice: no such device.
QX_HOSTCUDA_API cudaError_t SetIntegrated(int iDevice, bool bIntegrated) noexcept;

/// Gives a device a fault, as a failing kernel does: from then on every call that concerns the device returns the
/// code, and its queued work is dropped, until cudaDeviceReset. A device keeps its first fault.
/// cudaErrorInvalidDevice: no such device; cudaErrorInvalidValue: cudaSuccess is no fault.
QX_HOSTCUDA_API cudaError_t RaiseFault(int iDevice, cudaError_t eError) noexcept;

/// Marks a block as idle, after which nobody may touch it, or takes the mark back: poisons it for AddressSanitizer,
/// unless work is still queued, which may use it. It may be called under a lock; memory that is gone is left alone.
using IdleMarker = void (*)(void* pMemory, bool bIdle) noexcept;

/// For a pool of device memory, whose blocks outlive their users; null where the process has no AddressSanitizer. It is
/// found by a weak reference, so that the pool works with a runtime that has nothing of the kind.
[[nodiscard]] QX_HOSTCUDA_API IdleMarker GetIdleMarker() noexcept;

/// Limits the threads that one launch runs on, the stream's own included, in place of QX_HOSTCUDA_THREADS; holds for
/// launches that begin later. cudaErrorInvalidValue: less than 1.
QX_HOSTCUDA_API cudaError_t SetLaunchThreads(int iThreads) noexcept;

/// The threads that one launch may run on: the limit, or all processors where there are fewer.
[[nodiscard]] QX_HOSTCUDA_API int GetLaunchThreads() noexcept;

} // namespace Qx::HostCuda
