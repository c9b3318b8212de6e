#pragma once

#include <cstddef>

#if defined(__has_feature)
#define QX_HOSTCUDA_HAS(feature) __has_feature(feature)
#else
#define QX_HOSTCUDA_HAS(feature) 0
#endif

#if defined(__SANITIZE_ADDRESS__) || QX_HOSTCUDA_HAS(address_sanitizer)
#define QX_HOSTCUDA_ASAN 1
#include <sanitizer/asan_interface.h>
#endif

#if defined(__SANITIZE_THREAD__) || QX_HOSTCUDA_HAS(thread_sanitizer)
#define QX_HOSTCUDA_TSAN 1
#include <sanitizer/tsan_interface.h>
#endif

namespace Qx::HostCuda
{

/// Makes AddressSanitizer report any access to the bytes.
inline void Poison([[maybe_unused]] const void* pMemory, [[maybe_unused]] std::size_t nByteCount) noexcept
{
#if defined(QX_HOSTCUDA_ASAN)
    __asan_poison_memory_region(pMemory, nByteCount);
#endif
}

/// Takes a poisoning back.
inline void Unpoison([[maybe_unused]] const void* pMemory, [[maybe_unused]] std::size_t nByteCount) noexcept
{
#if defined(QX_HOSTCUDA_ASAN)
    __asan_unpoison_memory_region(pMemory, nByteCount);
#endif
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
