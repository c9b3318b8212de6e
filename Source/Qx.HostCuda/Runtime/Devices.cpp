#include "Qx.HostCuda/Runtime/Devices.h"

#include "Qx.HostCuda/HostCuda.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <span>

namespace Qx::HostCuda
{
namespace
{

/// The devices of the process; never destroyed. They take no memory, so that there are some also when there is none
/// left.
std::span<CDevice> _GetDevices() noexcept
{
    alignas(CDevice) static std::byte s_vPlaces[c_uMaxDevices][sizeof(CDevice)];
    static const std::span<CDevice> s_vDevices = []
    {
        auto* const pFirst = reinterpret_cast<CDevice*>(s_vPlaces);
        const int iCount = GetDeviceCount();
        for (int iDevice = 0; iDevice < iCount; ++iDevice)
        {
            std::construct_at(pFirst + iDevice, iDevice, GetEnvironment().nMemory);
        }
        return std::span(pFirst, static_cast<std::size_t>(iCount));
    }();
    return s_vDevices;
}

/// Calls `Function(device)` if there is such a device.
template <class F>
cudaError_t _With(int iDevice, F&& Function) noexcept
{
    CDevice* const pDevice = FindDevice(iDevice);
    if (pDevice == nullptr)
    {
        return cudaErrorInvalidDevice;
    }
    Function(*pDevice);
    return cudaSuccess;
}

/// The device of a number that a call was given.
CDevice& _Require(int iDevice)
{
    CDevice* const pDevice = FindDevice(iDevice);
    Require(pDevice != nullptr, cudaErrorInvalidDevice);
    return *pDevice;
}

/// An attribute and the member of cudaDeviceProp that says the same.
struct SAttribute
{
    cudaDeviceAttr eAttribute;
    int iValue; ///< for all devices, unless _GetValue knows better
    std::size_t nMember = 0;
    std::size_t nMemberSize = 0; ///< 0: there is no such member
};

#define QX_ATTRIBUTE(attribute, value, member)                                                                         \
    {                                                                                                                  \
        cudaDevAttr##attribute, value, offsetof(cudaDeviceProp, member), sizeof(cudaDeviceProp::member)                \
    }

constexpr SAttribute c_vAttributes[] = {
    QX_ATTRIBUTE(MaxThreadsPerBlock, 1024, maxThreadsPerBlock),
    QX_ATTRIBUTE(MaxBlockDimX, 1024, maxThreadsDim[0]),
    QX_ATTRIBUTE(MaxBlockDimY, 1024, maxThreadsDim[1]),
    QX_ATTRIBUTE(MaxBlockDimZ, 64, maxThreadsDim[2]),
    QX_ATTRIBUTE(MaxGridDimX, INT_MAX, maxGridSize[0]),
    QX_ATTRIBUTE(MaxGridDimY, 65535, maxGridSize[1]),
    QX_ATTRIBUTE(MaxGridDimZ, 65535, maxGridSize[2]),
    QX_ATTRIBUTE(MaxSharedMemoryPerBlock, 0, sharedMemPerBlock),
    QX_ATTRIBUTE(TotalConstantMemory, 65536, totalConstMem),
    QX_ATTRIBUTE(WarpSize, 32, warpSize),
    QX_ATTRIBUTE(MaxPitch, INT_MAX, memPitch),
    QX_ATTRIBUTE(MaxRegistersPerBlock, 65536, regsPerBlock),
    QX_ATTRIBUTE(TextureAlignment, 512, textureAlignment),
    {cudaDevAttrKernelExecTimeout, 0},
    QX_ATTRIBUTE(CanMapHostMemory, 1, canMapHostMemory),
    {cudaDevAttrComputeMode, 0},
    QX_ATTRIBUTE(ConcurrentKernels, 1, concurrentKernels),
    QX_ATTRIBUTE(EccEnabled, 0, ECCEnabled),
    QX_ATTRIBUTE(PciBusId, 0, pciBusID),
    QX_ATTRIBUTE(MaxThreadsPerMultiProcessor, 1024, maxThreadsPerMultiProcessor),
    QX_ATTRIBUTE(AsyncEngineCount, 1, asyncEngineCount),
    QX_ATTRIBUTE(UnifiedAddressing, 1, unifiedAddressing),
    QX_ATTRIBUTE(PciDomainId, 0, pciDomainID),
    QX_ATTRIBUTE(TexturePitchAlignment, 32, texturePitchAlignment),
    QX_ATTRIBUTE(ComputeCapabilityMajor, 9, major),
    QX_ATTRIBUTE(ComputeCapabilityMinor, 0, minor),
    QX_ATTRIBUTE(StreamPrioritiesSupported, 0, streamPrioritiesSupported),
    QX_ATTRIBUTE(ManagedMemory, 1, managedMemory),
    QX_ATTRIBUTE(HostNativeAtomicSupported, 1, hostNativeAtomicSupported),
    QX_ATTRIBUTE(PageableMemoryAccess, 0, pageableMemoryAccess),
    QX_ATTRIBUTE(CanUseHostPointerForRegisteredMem, 1, canUseHostPointerForRegisteredMem),
    QX_ATTRIBUTE(CooperativeLaunch, 0, cooperativeLaunch),
    QX_ATTRIBUTE(HostRegisterSupported, 0, hostRegisterSupported),
    QX_ATTRIBUTE(MemoryPoolsSupported, 0, memoryPoolsSupported),
    QX_ATTRIBUTE(Integrated, 0, integrated),
    QX_ATTRIBUTE(ConcurrentManagedAccess, 0, concurrentManagedAccess),
    QX_ATTRIBUTE(MultiProcessorCount, 0, multiProcessorCount),
    QX_ATTRIBUTE(PciDeviceId, 0, pciDeviceID),
};

#undef QX_ATTRIBUTE

int _GetValue(const CDevice& xDevice, const SAttribute& xAttribute) noexcept
{
    switch (xAttribute.eAttribute)
    {
    case cudaDevAttrIntegrated:
        return xDevice.IsIntegrated() ? 1 : 0;
    case cudaDevAttrConcurrentManagedAccess:
        return xDevice.IsIntegrated() ? 0 : 1;
    case cudaDevAttrMultiProcessorCount:
        return GetProcessorCount();
    case cudaDevAttrPciDeviceId:
        return xDevice.GetID();
    default:
        return xAttribute.iValue;
    }
}

/// Writes the members of the properties that are attributes too.
void _Fill(const CDevice& xDevice, cudaDeviceProp& xProperties) noexcept
{
    for (const SAttribute& xAttribute : c_vAttributes)
    {
        const int iValue = _GetValue(xDevice, xAttribute);
        const auto nValue = static_cast<std::size_t>(iValue);
        const bool bSize = xAttribute.nMemberSize == sizeof(nValue);
        std::memcpy(reinterpret_cast<unsigned char*>(&xProperties) + xAttribute.nMember,
            bSize ? static_cast<const void*>(&nValue) : &iValue, xAttribute.nMemberSize);
    }
}

} // namespace

std::size_t CDevice::GetFreeMemory() const noexcept
{
    const std::size_t nTotal = GetTotalMemory();
    const std::size_t nUsed = m_nUsed.load(std::memory_order_relaxed);
    return nUsed < nTotal ? nTotal - nUsed : 0;
}

bool CDevice::Reserve(std::size_t nByteCount) noexcept
{
    std::size_t nUsed = m_nUsed.load(std::memory_order_relaxed);
    do
    {
        const std::size_t nTotal = GetTotalMemory();
        if (nUsed > nTotal || nByteCount > nTotal - nUsed)
        {
            return false;
        }
    } while (!m_nUsed.compare_exchange_weak(nUsed, nUsed + nByteCount, std::memory_order_relaxed));
    return true;
}

CDevice* FindDevice(int iDevice) noexcept
{
    const bool bKnown = iDevice >= 0 && iDevice < GetDeviceCount();
    return bKnown ? &_GetDevices()[static_cast<std::size_t>(iDevice)] : nullptr;
}

CDevice& CurrentDevice() noexcept
{
    return _GetDevices()[static_cast<std::size_t>(ThisThread().iDevice)];
}

cudaError_t SetMemoryBudget(int iDevice, std::size_t nByteCount) noexcept
{
    return _With(iDevice, [&](CDevice& xDevice) { xDevice.SetTotalMemory(nByteCount); });
}

cudaError_t GetMemoryBudget(int iDevice, std::size_t& nByteCount) noexcept
{
    return _With(iDevice, [&](const CDevice& xDevice) { nByteCount = xDevice.GetTotalMemory(); });
}

cudaError_t SetIntegrated(int iDevice, bool bIntegrated) noexcept
{
    return _With(iDevice, [&](CDevice& xDevice) { xDevice.SetIntegrated(bIntegrated); });
}

cudaError_t RaiseFault(int iDevice, cudaError_t eError) noexcept
{
    return eError == cudaSuccess ? cudaErrorInvalidValue
                                 : _With(iDevice, [&](CDevice& xDevice) { xDevice.RaiseFault(eError); });
}

} // namespace Qx::HostCuda

using namespace Qx::HostCuda;

cudaError_t cudaGetDeviceCount(int* count)
{
    return Call([&] { Answer(count, GetDeviceCount()); });
}

cudaError_t cudaGetDevice(int* device)
{
    return Call([&] { Answer(device, ThisThread().iDevice); });
}

cudaError_t cudaSetDevice(int device)
{
    return Call([&] { ThisThread().iDevice = _Require(device).GetID(); });
}

cudaError_t cudaDeviceGetAttribute(int* value, cudaDeviceAttr attr, int device)
{
    return Call(
        [&]
        {
            Require(value != nullptr, cudaErrorInvalidValue);
            const CDevice& xDevice = _Require(device);
            const auto* const pAttribute = std::ranges::find(c_vAttributes, attr, &SAttribute::eAttribute);
            Require(pAttribute != std::end(c_vAttributes), cudaErrorInvalidValue);
            *value = _GetValue(xDevice, *pAttribute);
        });
}

cudaError_t cudaGetDeviceProperties(cudaDeviceProp* prop, int device)
{
    return Call(
        [&]
        {
            Require(prop != nullptr, cudaErrorInvalidValue);
            const CDevice& xDevice = _Require(device);
            *prop = {};
            static_cast<void>(std::snprintf(prop->name, sizeof(prop->name), "Host stand-in device %d", device));
            prop->totalGlobalMem = xDevice.GetTotalMemory();
            _Fill(xDevice, *prop);
        });
}

cudaError_t cudaRuntimeGetVersion(int* runtimeVersion)
{
    if (runtimeVersion == nullptr)
    {
        return Refuse(cudaErrorInvalidValue); // the versions are known without a device too
    }
    *runtimeVersion = CUDART_VERSION;
    return cudaSuccess;
}

cudaError_t cudaDriverGetVersion(int* driverVersion)
{
    return cudaRuntimeGetVersion(driverVersion);
}

cudaError_t cudaMemGetInfo(size_t* free, size_t* total)
{
    return OnDevice(
        [&](const CDevice& xDevice)
        {
            Require(free != nullptr && total != nullptr, cudaErrorInvalidValue);
            *free = xDevice.GetFreeMemory();
            *total = xDevice.GetTotalMemory();
        });
}
