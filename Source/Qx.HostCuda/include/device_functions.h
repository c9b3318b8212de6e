#pragma once

// The functions of kernels, as far as the host offers them, and errors for what it does not.
//
// Offered: atomicAdd, atomicSub, atomicMin, atomicMax, atomicExch, atomicCAS, atomicAnd and atomicOr, without suffix;
// min and max of scalars; rsqrt, rsqrtf, __saturatef, __ldg, __trap; and the functions of <math.h>, which are those of
// the host: their last digit may differ from a GPU's.
//
// Refused at compile time: everything that threads of a block do together, because here they run one after the other.

#include "vector_functions.h"

#if defined(__cplusplus)

#include <atomic>
#include <concepts>
#include <limits.h>
#include <math.h>
#include <stdlib.h>
#include <type_traits>

#define __launch_bounds__(...)
#define __grid_constant__
#define __align__(n) __attribute__((aligned(n)))

// A pragma is an error with a reason wherever the word stands, also behind "extern".
#define QX_REFUSED _Pragma("GCC error \"the host runs the threads of a block in turn: no __shared__ and no barriers\"")
#define __shared__ QX_REFUSED
#define __syncthreads() QX_REFUSED
#define __syncthreads_count(predicate) QX_REFUSED(predicate)
#define __syncthreads_and(predicate) QX_REFUSED(predicate)
#define __syncthreads_or(predicate) QX_REFUSED(predicate)
#define __syncwarp(...) QX_REFUSED

namespace Qx::HostCuda
{

/// Ends the running kernel with a fault of its device; see __trap.
[[noreturn]] QX_HOSTCUDA_API void Trap();

template <class T, class... TAllowed>
concept COneOf = (std::same_as<T, TAllowed> || ...);

/// Replaces a value by `Function(value)` and returns it as it was.
template <class T, class F>
T AtomicUpdate(T* pValue, F&& Function) noexcept
{
    const std::atomic_ref<T> xValue(*pValue);
    T xOld = xValue.load(std::memory_order_relaxed);
    while (!xValue.compare_exchange_weak(xOld, Function(xOld), std::memory_order_relaxed))
    {
    }
    return xOld;
}

} // namespace Qx::HostCuda

/// Ends the kernel: cudaErrorLaunchFailure becomes the fault of the device, blocks that have not begun are left out.
/// Leaves the kernel as an exception, so it ends the process when a function that is noexcept is in between, and
/// outside of kernels.
[[noreturn]] inline void __trap()
{
    Qx::HostCuda::Trap();
}

// Atomic over all threads of all launches and the host; they return the old value and, as in CUDA, order no other
// memory access. The second operand is not deduced, so that it is converted as in a call of CUDA's overloads.

template <class T>
requires Qx::HostCuda::COneOf<T, int, unsigned int, unsigned long long, float, double>
inline T atomicAdd(T* address, std::type_identity_t<T> val) noexcept
{
    return std::atomic_ref<T>(*address).fetch_add(val, std::memory_order_relaxed);
}

template <class T>
requires Qx::HostCuda::COneOf<T, int, unsigned int>
inline T atomicSub(T* address, std::type_identity_t<T> val) noexcept
{
    return std::atomic_ref<T>(*address).fetch_sub(val, std::memory_order_relaxed);
}

template <class T>
requires Qx::HostCuda::COneOf<T, int, unsigned int, unsigned long long, float>
inline T atomicExch(T* address, std::type_identity_t<T> val) noexcept
{
    return std::atomic_ref<T>(*address).exchange(val, std::memory_order_relaxed);
}

/// Writes `val` where the value equals `compare`.
template <class T>
requires Qx::HostCuda::COneOf<T, int, unsigned int, unsigned long long>
inline T atomicCAS(T* address, std::type_identity_t<T> compare, std::type_identity_t<T> val) noexcept
{
    std::atomic_ref<T>(*address).compare_exchange_strong(compare, val, std::memory_order_relaxed);
    return compare;
}

template <class T>
requires Qx::HostCuda::COneOf<T, int, unsigned int, long long, unsigned long long>
inline T atomicMin(T* address, std::type_identity_t<T> val) noexcept
{
    return Qx::HostCuda::AtomicUpdate(address, [val](T xOld) { return val < xOld ? val : xOld; });
}

template <class T>
requires Qx::HostCuda::COneOf<T, int, unsigned int, long long, unsigned long long>
inline T atomicMax(T* address, std::type_identity_t<T> val) noexcept
{
    return Qx::HostCuda::AtomicUpdate(address, [val](T xOld) { return xOld < val ? val : xOld; });
}

template <class T>
requires Qx::HostCuda::COneOf<T, int, unsigned int, unsigned long long>
inline T atomicAnd(T* address, std::type_identity_t<T> val) noexcept
{
    return std::atomic_ref<T>(*address).fetch_and(val, std::memory_order_relaxed);
}

template <class T>
requires Qx::HostCuda::COneOf<T, int, unsigned int, unsigned long long>
inline T atomicOr(T* address, std::type_identity_t<T> val) noexcept
{
    return std::atomic_ref<T>(*address).fetch_or(val, std::memory_order_relaxed);
}

// As in CUDA, a signed and an unsigned operand are compared as unsigned, and a float with a double as double; where one
// floating-point operand is no number the result is the other.

#define QX_MIN_MAX(result, first, second)                                                                              \
    constexpr result min(first a, second b) noexcept                                                                   \
    {                                                                                                                  \
        const auto xA = static_cast<result>(a);                                                                        \
        const auto xB = static_cast<result>(b);                                                                        \
        return xA < xB || xB != xB ? xA : xB;                                                                          \
    }                                                                                                                  \
    constexpr result max(first a, second b) noexcept                                                                   \
    {                                                                                                                  \
        const auto xA = static_cast<result>(a);                                                                        \
        const auto xB = static_cast<result>(b);                                                                        \
        return xA > xB || xB != xB ? xA : xB;                                                                          \
    }

QX_MIN_MAX(int, int, int)
QX_MIN_MAX(unsigned int, unsigned int, unsigned int)
QX_MIN_MAX(unsigned int, int, unsigned int)
QX_MIN_MAX(unsigned int, unsigned int, int)
QX_MIN_MAX(long, long, long)
QX_MIN_MAX(unsigned long, unsigned long, unsigned long)
QX_MIN_MAX(unsigned long, long, unsigned long)
QX_MIN_MAX(unsigned long, unsigned long, long)
QX_MIN_MAX(long long, long long, long long)
QX_MIN_MAX(unsigned long long, unsigned long long, unsigned long long)
QX_MIN_MAX(unsigned long long, long long, unsigned long long)
QX_MIN_MAX(unsigned long long, unsigned long long, long long)
QX_MIN_MAX(float, float, float)
QX_MIN_MAX(double, double, double)
QX_MIN_MAX(double, float, double)
QX_MIN_MAX(double, double, float)

#undef QX_MIN_MAX

/// Clamps to [0, 1]; what is no number becomes 0.
constexpr float __saturatef(float x) noexcept
{
    return x > 0.0F ? (x < 1.0F ? x : 1.0F) : 0.0F;
}

// The C library has these from version 2.42 on.
#if !defined(__GLIBC__) || !__GLIBC_PREREQ(2, 42)
/// 1 / sqrt(x).
inline float rsqrtf(float x) noexcept
{
    return 1.0F / sqrtf(x);
}

/// 1 / sqrt(x).
inline double rsqrt(double x) noexcept
{
    return 1.0 / sqrt(x);
}
#endif

/// Reads a value that no thread writes while the kernel runs.
template <class T>
inline T __ldg(const T* ptr)
{
    return *ptr;
}

#endif
