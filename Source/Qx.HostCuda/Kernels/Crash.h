#pragma once

#include "Qx.HostCuda/Runtime/Devices.h"

#include <cuda_runtime.h>

namespace Qx::HostCuda
{

/// What the calling thread runs.
struct SRunning
{
    CDevice* pDevice = nullptr; ///< null outside of kernels
    const CKernel* pKernel = nullptr;
    bool bReported = false; ///< that the kernel crashed
};

/// The calling thread's record, in its static block.
inline SRunning& Running() noexcept
{
    [[gnu::tls_model("initial-exec")]] static thread_local constinit SRunning xRunning;
    return xRunning;
}

/// From now on, SIGSEGV, SIGBUS, SIGFPE and SIGILL in a kernel write to standard error what ran, before what would have
/// happened happens: a handler that was installed before is called, and the default action takes the process at the
/// faulting instruction. Handlers that are installed later take the place of this.
void ReportCrashes() noexcept;

} // namespace Qx::HostCuda
