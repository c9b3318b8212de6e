#pragma once

#include <cuda_runtime_api.h>

#include "Qx.Core.Ex/QxImageFormat.h"
#include "Qx.Cuda/QxCudaCompDebug.h"

namespace Qx
{

/// Runs one of the client's kernels: works out grid and block, waits for the kernel, and reports a failure in detail.
///
///     CQxCudaComp xComp;
///     xComp.EvalKernelDim_2D_1D(xImage.GetFormat(), 32, 8);
///     xComp.Begin("Sharpen", pStream);
///     LaunchKernel<Sharpen>(xComp, pStream, xImage.GetDesc());
///     xComp.End("Sharpen", pStream);
///
/// The configuration stays set for further launches. One thread uses an object at a time, with the device current on
/// which its first `Begin` ran: the object's event belongs to that device.
class QX_EXPORT_TYPE CQxCudaComp : public CudaDebug::CQxCudaCompDebug
{
public:
    /// Grid and block (0, 0, 1), no event, the default stream; makes no CUDA call.
    QX_CUDA_API CQxCudaComp() noexcept;

    /// Destroys the events that exist; results are ignored.
    QX_CUDA_API ~CQxCudaComp() override;

    // A copy would destroy the same events again, and a moved-from object would be indistinguishable from a new one
    // whose Begin was forgotten.
    CQxCudaComp(const CQxCudaComp&) = delete;
    CQxCudaComp& operator=(const CQxCudaComp&) = delete;

    /// Keeps a stream for the client's use (`GetStream`); no operation of this class reads it.
    void SetStream(const cudaStream_t& pStream) noexcept { m_pStream = pStream; }

    /// Covers an image with one-dimensional blocks along the rows and one grid row per image row.
    ///
    /// A block has 32 x @p iWarps threads, halved until threads x @p iResources is at most 65536, the registers of a
    /// multiprocessor; the grid is (ceil(width / threads), height, 1), of which devices launch up to 65535 rows. Values
    /// that yield no positive 32-bit thread count leave a configuration with grid and block x of 0, which `Begin`
    /// refuses.
    ///
    /// Throws a `CQxException` "Invalid array size <width> x <height>" when one of the two is 0 or negative; the
    /// configuration is unchanged then.
    /// @param iResources registers that one thread needs
    /// @param iWarps warps of 32 threads wanted in a block
    QX_CUDA_API void EvalKernelDim_2D_1D(const CQxImageFormat& xFormat, int iResources, int iWarps);

    /// Covers @p uThreads threads with blocks of @p uThreadsPerBlock. From 65536 blocks on the grid has several rows,
    /// so a thread's number is (blockIdx.y x gridDim.x + blockIdx.x) x blockDim.x + threadIdx.x. The grid may have more
    /// threads than asked for, so a kernel tests that number.
    ///
    /// Throws a `CQxException` "Error setting kernel configuration" with, as inner exception, "Number of threads is 0"
    /// or "Number of threads in a block is 0" (the configuration is unchanged), or "Too many threads for given
    /// configuration algorithm" when the grid's thread count, which wraps at 32 bits, is below @p uThreads (the new
    /// configuration is stored all the same).
    QX_CUDA_API void SetKernelConfiguration(unsigned int uThreads, unsigned int uThreadsPerBlock);

    /// Prepares a launch: checks the configuration and creates the event that `End` waits for, once per object. Queues
    /// nothing.
    ///
    /// Throws a `CQxException` "Kernel launch configuration isn't initialized. Block or Grid is zero. Call
    /// EvalKernelDim_2D_1D() before" when the x or y of grid or block is 0, before any CUDA call; a `CQxCudaException`
    /// with the launch report "Start: Error creating stop event ..." when the event cannot be created (the next call
    /// tries again).
    /// @param pcKernel the kernel's name for the report; null counts as empty
    /// @param pStream not used
    QX_CUDA_API void Begin(const char* pcKernel, cudaStream_t pStream);
    /// The same.
    QX_CUDA_API void Begin(CQxString sKernel, cudaStream_t pStream);

    /// Waits on the calling thread for all work queued on @p pStream so far, the kernel included.
    ///
    /// Throws a `CQxCudaException` with the launch report: "End: Error putting end event on main stream ..." when the
    /// event cannot be recorded, also without a `Begin`, and "End: Error during Kernel execution ..." when the wait
    /// fails, as it does when the kernel faulted. Making the report resets the thread's last CUDA error, so the
    /// exception itself records `cudaSuccess` unless the runtime keeps the error for the device; the report always
    /// names it. A launch that the runtime refused is not noticed here: `LaunchKernel` throws for
    /// it, and the error of one that was made by other means stays pending.
    /// @param pStream the stream of the launch
    QX_CUDA_API void End(const char* pcKernel, cudaStream_t pStream);
    /// The same.
    QX_CUDA_API void End(CQxString sKernel, cudaStream_t pStream);

    /// Makes the launch report: the message, the kernel's name, the description of the error, the configuration and the
    /// device's free and total memory in bytes. Displays nothing. Resets the thread's last CUDA error.
    ///
    /// The report has at most 1999 characters. What is too long is cut from the end of the kernel's name, and then from
    /// the message, so that configuration and memory are always there.
    QX_CUDA_API CQxString _ShowDebugErrorWindow(cudaError eError, const char* pcKernel, const char* pcMessage) const;

    /// Throws what `LaunchKernel` throws for a refused launch.
    /// @param pcSignature a text of `_KernelSignature`
    [[noreturn]] QX_CUDA_API void _ThrowLaunch(cudaError eError, const char* pcSignature) const;

    /// The blocks of a launch.
    const dim3& GetGrid() const noexcept { return m_xGrid; }

    /// The threads of a block.
    const dim3& GetBlock() const noexcept { return m_xBlock; }

    /// What `SetStream` was given; null for the default stream.
    cudaStream_t GetStream() const noexcept { return m_pStream; }

private:
    [[noreturn]] void _ThrowReport(cudaError eError, const char* pcKernel, const char* pcMessage,
        const char* pcFunction, int iLine = __builtin_LINE()) const;

    dim3 m_xGrid{0, 0, 1};
    dim3 m_xBlock{0, 0, 1};
    cudaEvent_t m_pStartEvent = nullptr; // never made: it has its place in the layout that clients know
    cudaEvent_t m_pStopEvent = nullptr;
    cudaStream_t m_pStream = nullptr;
};

} // namespace Qx
