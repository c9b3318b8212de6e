#pragma once

#include <cuda_runtime_api.h>

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

} // namespace Qx::HostCuda
