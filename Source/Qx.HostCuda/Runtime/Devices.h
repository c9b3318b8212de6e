#pragma once

#include "Qx.HostCuda/Runtime/Errors.h"
#include "Qx.HostCuda/Runtime/Fault.h"

#include <atomic>
#include <cstddef>
#include <utility>

namespace Qx::HostCuda
{

/// One simulated device: its fault and its memory budget. Devices live until the process ends and are never destroyed:
/// threads of streams may still run, and clients may still call, while the process exits.
class CDevice
{
public:
    CDevice(int iID, std::size_t nMemory) : m_iID(iID), m_nTotal(nMemory) {}
    CDevice(const CDevice&) = delete;
    CDevice& operator=(const CDevice&) = delete;

    [[nodiscard]] int GetID() const noexcept { return m_iID; }

    /// The fault's code, cudaSuccess if there is none.
    [[nodiscard]] cudaError_t GetFault() const noexcept { return g_vFaults[m_iID].Get(); }
    /// Sets the fault unless there is one.
    void RaiseFault(cudaError_t eError) noexcept { g_vFaults[m_iID].Raise(eError); }
    /// Refuses the call with the fault's code if there is one.
    CDevice& RequireHealthy()
    {
        Require(GetFault() == cudaSuccess, GetFault());
        return *this;
    }
    void ClearFault() noexcept { g_vFaults[m_iID].Clear(); }

    [[nodiscard]] bool IsIntegrated() const noexcept { return m_bIntegrated.load(std::memory_order_relaxed); }
    void SetIntegrated(bool bIntegrated) noexcept { m_bIntegrated.store(bIntegrated, std::memory_order_relaxed); }

    [[nodiscard]] std::size_t GetTotalMemory() const noexcept { return m_nTotal.load(std::memory_order_relaxed); }
    void SetTotalMemory(std::size_t nTotal) noexcept { m_nTotal.store(nTotal, std::memory_order_relaxed); }
    [[nodiscard]] std::size_t GetFreeMemory() const noexcept;
    /// Takes bytes from the budget; false, and nothing taken, if there are not as many.
    [[nodiscard]] bool Reserve(std::size_t nByteCount) noexcept;
    void Unreserve(std::size_t nByteCount) noexcept { m_nUsed.fetch_sub(nByteCount, std::memory_order_relaxed); }

private:
    const int m_iID;
    std::atomic<bool> m_bIntegrated{false};
    std::atomic<std::size_t> m_nTotal;
    std::atomic<std::size_t> m_nUsed{0};
};

/// A device; null if there is none of that number.
[[nodiscard]] CDevice* FindDevice(int iDevice) noexcept;
/// The calling thread's current device. There must be devices, as there are inside every guarded call.
[[nodiscard]] CDevice& CurrentDevice() noexcept;

/// The frame of a CUDA call that concerns the current device: `Function(device)`, unless the device has a fault.
template <class F>
cudaError_t OnDevice(F&& Function) noexcept
{
    return Call([&] { std::forward<F>(Function)(CurrentDevice().RequireHealthy()); });
}

} // namespace Qx::HostCuda
