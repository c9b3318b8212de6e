#pragma once

#include <cstddef>

#if defined(__has_feature)
#define QX_HOSTCUDA_HAS(feature) __has_feature(feature)
#else
#define QX_HOSTCUDA_HAS(feature) 0
#endif

#if defined(__SANITIZE_ADDRESS__) || QX_HOSTCUDA_HAS(address_sanitizer)
#define QX_HOSTCUDA_ASAN 1
#endif

#if defined(__SANITIZE_THREAD__) || QX_HOSTCUDA_HAS(thread_sanitizer)
#define QX_HOSTCUDA_TSAN 1
#include <sanitizer/tsan_interface.h>
#endif

// AddressSanitizer is asked for while the program runs: one that was built with it finds what touches device memory
// also where this library was built without it.
extern "C"
{
    // NOLINTBEGIN(bugprone-reserved-identifier): the names are AddressSanitizer's
    [[gnu::weak]] void __asan_poison_memory_region(const volatile void* pMemory, std::size_t nByteCount);
    [[gnu::weak]] void __asan_unpoison_memory_region(const volatile void* pMemory, std::size_t nByteCount);
    [[gnu::weak]] void* __asan_region_is_poisoned(void* pMemory, std::size_t nByteCount);
    [[gnu::weak]] void __asan_report_error(
        void* pCode, void* pFrame, void* pStack, void* pMemory, int iIsWrite, std::size_t nByteCount);
    // NOLINTEND(bugprone-reserved-identifier)
}

namespace Qx::HostCuda
{

/// True if the process has AddressSanitizer.
inline bool HasAddressSanitizer() noexcept
{
    return __asan_poison_memory_region != nullptr;
}

/// Makes AddressSanitizer report any access to the bytes.
inline void Poison(const void* pMemory, std::size_t nByteCount) noexcept
{
    if (HasAddressSanitizer())
    {
        __asan_poison_memory_region(pMemory, nByteCount);
    }
}

/// Takes a poisoning back.
inline void Unpoison(const void* pMemory, std::size_t nByteCount) noexcept
{
    if (HasAddressSanitizer())
    {
        __asan_unpoison_memory_region(pMemory, nByteCount);
    }
}

/// Poisons what rows of `nWidth` bytes leave of their pitch.
inline void PoisonPadding(const void* pMemory, std::size_t nPitch, std::size_t nWidth, std::size_t nRowCount) noexcept
{
    for (std::size_t nRow = 0; HasAddressSanitizer() && nPitch > nWidth && nRow < nRowCount; ++nRow)
    {
        Poison(static_cast<const char*>(pMemory) + nRow * nPitch + nWidth, nPitch - nWidth);
    }
}

/// The first of the bytes that is poisoned; null when none is.
inline const void* FindPoisoned(const void* pMemory, std::size_t nByteCount) noexcept
{
    return HasAddressSanitizer() ? __asan_region_is_poisoned(const_cast<void*>(pMemory), nByteCount) : nullptr;
}

/// Ends the process with AddressSanitizer's report of an access to a poisoned byte.
inline void ReportPoisoned(const void* pMemory) noexcept
{
    void* const pFrame = __builtin_frame_address(0);
    __asan_report_error(__builtin_return_address(0), pFrame, pFrame, const_cast<void*>(pMemory), 0, 1);
}

/// Tells ThreadSanitizer that what comes before this happens before what follows a TsanAcquire of the same address.
inline void TsanRelease([[maybe_unused]] void* pAddress) noexcept
{
#if defined(QX_HOSTCUDA_TSAN)
    __tsan_release(pAddress);
#endif
}

/// The other end of TsanRelease.
inline void TsanAcquire([[maybe_unused]] void* pAddress) noexcept
{
#if defined(QX_HOSTCUDA_TSAN)
    __tsan_acquire(pAddress);
#endif
}

} // namespace Qx::HostCuda
