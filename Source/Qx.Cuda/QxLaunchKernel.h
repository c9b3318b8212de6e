#pragma once

#include "Qx.Core/QxExport.h" // first, because it refuses what the runtime's header does not compile with

#include <type_traits>
#include <utility>

#include <cuda_runtime.h>

#include "Qx.Cuda.Core/QxCudaException.h"
#include "Qx.Cuda/QxCudaComp.h"

namespace Qx
{

/// A kernel as a type, so that a runtime that executes kernels itself can compile it into its loops. Stands for the
/// kernel's address wherever that is wanted.
template <auto Kernel>
struct SKernel
{
    /// The kernel's address.
    constexpr operator decltype(Kernel)() const noexcept { return Kernel; }

    /// Calls the kernel for one thread.
    template <typename... TArguments>
    void operator()(TArguments&&... xArguments) const
    {
        Kernel(std::forward<TArguments>(xArguments)...);
    }
};

/// A text with the kernel's name in it, of the compiler's making.
template <auto Kernel>
constexpr const char* _KernelSignature() noexcept
{
    return __PRETTY_FUNCTION__;
}

/// Queues a kernel as `LaunchKernel` does, and returns what the runtime says.
template <auto Kernel, typename... TArguments>
cudaError _QueueKernel(const dim3& xGrid, const dim3& xBlock, cudaStream_t pStream, TArguments&&... xArguments)
{
    static_assert(
        std::is_invocable_v<decltype(Kernel), TArguments...>, "the arguments do not fit the kernel's parameters");
    cudaLaunchConfig_t xConfig{};
    xConfig.gridDim = xGrid;
    xConfig.blockDim = xBlock;
    xConfig.stream = pStream;
    if constexpr (requires {
                      cudaLaunchKernelEx(&xConfig, SKernel<Kernel>{}, std::forward<TArguments>(xArguments)...);
                  })
    {
        return cudaLaunchKernelEx(&xConfig, SKernel<Kernel>{}, std::forward<TArguments>(xArguments)...);
    }
    else
    {
        return cudaLaunchKernelEx(&xConfig, Kernel, std::forward<TArguments>(xArguments)...);
    }
}

/// Launches a client's kernel, from one source for every platform: `LaunchKernel<Sharpen>(xGrid, xBlock, pStream,
/// xImage.GetDesc(), 0.5F)`.
///
/// The kernel is a `__global__` function of plain parameters, declared in a file that nvcc compiles on the CUDA
/// platform. It is queued on the stream; the call does not wait. Arguments are converted to the kernel's parameter
/// types, which is checked when the call is compiled, and copied before the call returns.
///
/// Throws a `CQxCudaException` "Error launching kernel with grid [x, y, z] and block [x, y, z]" when the runtime
/// refuses the launch: a dimension of 0 or beyond the device's limits, a stream that does not exist, a fault that an
/// earlier kernel left. A fault of this kernel shows when its stream is waited for (`CQxCudaComp::End`).
/// @param xGrid blocks of the launch
/// @param xBlock threads of a block
/// @param pStream null for the default stream
template <auto Kernel, typename... TArguments>
void LaunchKernel(const dim3& xGrid, const dim3& xBlock, cudaStream_t pStream, TArguments&&... xArguments)
{
    const cudaError eResult = _QueueKernel<Kernel>(xGrid, xBlock, pStream, std::forward<TArguments>(xArguments)...);
    if (eResult != cudaSuccess) [[unlikely]]
    {
        ThrowCuda({"Source/Qx.Cuda/QxLaunchKernel", "LaunchKernel"}, "Error launching kernel with grid [", xGrid.x,
            ", ", xGrid.y, ", ", xGrid.z, "] and block [", xBlock.x, ", ", xBlock.y, ", ", xBlock.z, "]");
    }
}

/// The same with the grid and block of a launch context, between its `Begin` and `End`.
///
/// Throws a `CQxCudaException` with the context's launch report "Launch: Error launching kernel ...", in which the
/// kernel is called by its own name, when the runtime refuses the launch; the exception records the refusal as its CUDA
/// error, which is reset.
template <auto Kernel, typename... TArguments>
void LaunchKernel(const CQxCudaComp& xComp, cudaStream_t pStream, TArguments&&... xArguments)
{
    const cudaError eResult =
        _QueueKernel<Kernel>(xComp.GetGrid(), xComp.GetBlock(), pStream, std::forward<TArguments>(xArguments)...);
    if (eResult != cudaSuccess) [[unlikely]]
    {
        xComp._ThrowLaunch(eResult, _KernelSignature<Kernel>());
    }
}

} // namespace Qx
