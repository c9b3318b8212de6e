#pragma once

#include "Qx.HostCuda/Runtime/Handle.h"
#include "Qx.HostCuda/Runtime/Thread.h"

#include <atomic>

namespace Qx::HostCuda
{

/// The fault of a device. It lies below the devices, since every failing call asks for it.
class CFault
{
public:
    /// The fault's code, cudaSuccess if there is none.
    [[nodiscard]] cudaError_t Get() const noexcept { return m_eError.load(std::memory_order_relaxed); }
    /// Sets the fault unless there is one.
    void Raise(cudaError_t eError) noexcept
    {
        cudaError_t eExpected = cudaSuccess;
        m_eError.compare_exchange_strong(eExpected, eError, std::memory_order_relaxed);
    }
    void Clear() noexcept { m_eError.store(cudaSuccess, std::memory_order_relaxed); }

private:
    std::atomic<cudaError_t> m_eError{cudaSuccess};
};

/// The faults by the numbers of the devices.
inline constinit CFault g_vFaults[c_uMaxDevices];

/// The fault of the calling thread's current device, cudaSuccess if there is none or no device.
[[nodiscard]] inline cudaError_t GetCurrentFault() noexcept
{
    return g_vFaults[ThisThread().iDevice].Get();
}

} // namespace Qx::HostCuda
