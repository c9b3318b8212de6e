#include "Qx.HostCuda/HostCuda.h"

#include "Qx.HostCuda/Devices.h"
#include "Qx.HostCuda/Memory.h"

namespace Qx::HostCuda
{
namespace
{

/// Calls `Function(device)` if there is such a device.
template <class F>
cudaError_t _WithDevice(int iDevice, F&& Function) noexcept
{
    CDevice* const pDevice = FindDevice(iDevice);
    if (pDevice == nullptr)
    {
        return cudaErrorInvalidDevice;
    }
    Function(*pDevice);
    return cudaSuccess;
}

} // namespace

cudaError_t GetStatistics(int iDevice, SStatistics& xStatistics) noexcept
{
    return _WithDevice(iDevice,
        [&](CDevice& xDevice)
        {
            xStatistics = {};
            CMemory::Get().Count(iDevice, xStatistics);
            xDevice.CountHandles(xStatistics.nStreamCount, xStatistics.nEventCount);
        });
}

cudaError_t SetMemoryBudget(int iDevice, std::size_t nByteCount) noexcept
{
    return _WithDevice(iDevice, [&](CDevice& xDevice) { xDevice.SetTotalMemory(nByteCount); });
}

cudaError_t GetMemoryBudget(int iDevice, std::size_t& nByteCount) noexcept
{
    return _WithDevice(iDevice, [&](const CDevice& xDevice) { nByteCount = xDevice.GetTotalMemory(); });
}

cudaError_t SetIntegrated(int iDevice, bool bIntegrated) noexcept
{
    return _WithDevice(iDevice, [&](CDevice& xDevice) { xDevice.SetIntegrated(bIntegrated); });
}

cudaError_t RaiseFault(int iDevice, cudaError_t eError) noexcept
{
    if (eError == cudaSuccess)
    {
        return cudaErrorInvalidValue;
    }
    return _WithDevice(iDevice, [&](CDevice& xDevice) { xDevice.RaiseFault(eError); });
}

} // namespace Qx::HostCuda
