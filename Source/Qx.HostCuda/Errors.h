#pragma once

#include <cuda_runtime_api.h>

#include <new>
#include <system_error>
#include <utility>

namespace Qx::HostCuda
{

/// What the runtime keeps for each thread.
struct SThread
{
    int iDevice = 0;
    cudaError_t eLastError = cudaSuccess;
    bool bInHostFunction = false;
};

/// The calling thread's record. It lies in the thread's static block, where it needs neither call nor allocation.
inline SThread& ThisThread() noexcept
{
    [[gnu::tls_model("initial-exec")]] static thread_local constinit SThread xThread;
    return xThread;
}

/// Number of devices.
[[nodiscard]] int GetDeviceCount() noexcept;

/// Makes a code the calling thread's last error, unless it is success or the current device's fault, and returns it.
QX_HOSTCUDA_API cudaError_t Refuse(cudaError_t eError) noexcept;

/// Result of `Function()` with what may be thrown on the way turned into a code: the frame of every CUDA call.
template <class F>
cudaError_t Guarded(F&& Function) noexcept
{
    if (ThisThread().bInHostFunction)
    {
        return cudaErrorNotPermitted;
    }
    if (GetDeviceCount() == 0)
    {
        return cudaErrorNoDevice;
    }
    try
    {
        return std::forward<F>(Function)();
    }
    catch (const std::bad_alloc&)
    {
        return cudaErrorMemoryAllocation;
    }
    catch (const std::system_error&)
    {
        // The one system call that can fail is the start of a thread.
        return cudaErrorOperatingSystem;
    }
    catch (...)
    {
        return cudaErrorUnknown;
    }
}

/// Runs a CUDA call; a failure becomes the calling thread's last error.
template <class F>
cudaError_t Call(F&& Function) noexcept
{
    return Refuse(Guarded(std::forward<F>(Function)));
}

/// Runs a call that asks whether work is done: "not yet" is an answer, not an error.
template <class F>
cudaError_t Query(F&& Function) noexcept
{
    const cudaError_t eError = Guarded(std::forward<F>(Function));
    return eError == cudaErrorNotReady ? eError : Refuse(eError);
}

} // namespace Qx::HostCuda
