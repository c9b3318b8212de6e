#pragma once

// The built-in variables of kernels.

#include "vector_types.h"

#if defined(__cplusplus)

namespace Qx::HostCuda
{

/// A built-in variable of kernels: three values that every thread of a launch reads and that cannot be assigned. The
/// runner puts a new object in the place of the old one. Aligned, so that none lies across two lines of the cache: a
/// value that is read as soon as it was written would come late.
template <class TValue>
struct alignas(16) SBuiltIn
{
    constexpr SBuiltIn() noexcept : x(0), y(0), z(0) {}
    constexpr SBuiltIn(unsigned int uX, unsigned int uY, unsigned int uZ) noexcept : x(uX), y(uY), z(uZ) {}
    constexpr operator TValue() const noexcept { return {x, y, z}; }

    const unsigned int x;
    const unsigned int y;
    const unsigned int z;
};

} // namespace Qx::HostCuda

// Defined once for the process, so that a kernel may live in another module than the code that launches it. They lie in
// the thread's static block and need no initialisation, so that reading them costs a load. Outside of kernels they mean
// nothing.
#define QX_BUILT_IN extern QX_HOSTCUDA_API thread_local constinit
QX_BUILT_IN Qx::HostCuda::SBuiltIn<uint3> threadIdx [[gnu::tls_model("initial-exec")]];
QX_BUILT_IN Qx::HostCuda::SBuiltIn<uint3> blockIdx [[gnu::tls_model("initial-exec")]];
QX_BUILT_IN Qx::HostCuda::SBuiltIn<dim3> blockDim [[gnu::tls_model("initial-exec")]];
QX_BUILT_IN Qx::HostCuda::SBuiltIn<dim3> gridDim [[gnu::tls_model("initial-exec")]];
#undef QX_BUILT_IN

/// Threads of a warp. The host has no warps: the number is for index arithmetic only.
constexpr int warpSize = 32; // not inline: a plug-in with a unique symbol cannot be unloaded

#endif
