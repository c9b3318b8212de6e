#include "Qx.HostCuda/Devices.h"

#include "Qx.HostCuda/Memory.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <thread>
#include <unistd.h>

namespace Qx::HostCuda
{
namespace
{

constexpr std::uint64_t c_uMaxDevices = std::uint64_t{1} << c_uDeviceBits;

/// An environment variable that is a decimal number of a range; otherwise the default.
std::uint64_t _ReadEnvironment(
    const char* pcName, std::uint64_t uMin, std::uint64_t uMax, std::uint64_t uDefault) noexcept
{
    const char* const pcText = std::getenv(pcName); // NOLINT(concurrency-mt-unsafe): read once, at the first call
    if (pcText == nullptr)
    {
        return uDefault;
    }
    const char* const pcEnd = pcText + std::strlen(pcText);
    std::uint64_t uValue = 0;
    const auto [pcStop, eError] = std::from_chars(pcText, pcEnd, uValue);
    return eError == std::errc{} && pcStop == pcEnd && uValue >= uMin && uValue <= uMax ? uValue : uDefault;
}

/// The devices of the process; never destroyed.
const std::vector<CDevice*>& _GetDevices()
{
    static const std::vector<CDevice*>& s_vDevices = *[]
    {
        auto* const pDevices = new std::vector<CDevice*>;
        const auto nMachine =
            static_cast<std::uint64_t>(sysconf(_SC_PHYS_PAGES)) * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
        const std::size_t nMemory = _ReadEnvironment("QX_HOSTCUDA_MEMORY", 1, PTRDIFF_MAX, nMachine / 2);
        const std::uint64_t uCount = _ReadEnvironment("QX_HOSTCUDA_DEVICES", 0, c_uMaxDevices, 1);
        for (std::uint64_t uDevice = 0; uDevice < uCount; ++uDevice)
        {
            pDevices->push_back(new CDevice(static_cast<int>(uDevice), nMemory));
        }
        return pDevices;
    }();
    return s_vDevices;
}

/// Number of processors: what a host has in place of multiprocessors.
int _GetProcessorCount() noexcept
{
    static const int s_iCount = static_cast<int>(std::max(1U, std::thread::hardware_concurrency()));
    return s_iCount;
}

/// What SetLaunchThreads or, at first, the environment says.
std::atomic<int>& _GetThreadLimit() noexcept
{
    static std::atomic<int> s_iLimit{static_cast<int>(_ReadEnvironment("QX_HOSTCUDA_THREADS", 1, INT_MAX, INT_MAX))};
    return s_iLimit;
}

struct SAttribute
{
    cudaDeviceAttr eAttribute;
    int iValue;
};

// What is the same for all devices and all machines.
constexpr SAttribute c_vAttributes[] = {
    {cudaDevAttrMaxThreadsPerBlock, 1024},
    {cudaDevAttrMaxBlockDimX, 1024},
    {cudaDevAttrMaxBlockDimY, 1024},
    {cudaDevAttrMaxBlockDimZ, 64},
    {cudaDevAttrMaxGridDimX, INT_MAX},
    {cudaDevAttrMaxGridDimY, 65535},
    {cudaDevAttrMaxGridDimZ, 65535},
    {cudaDevAttrMaxSharedMemoryPerBlock, 0},
    {cudaDevAttrTotalConstantMemory, 65536},
    {cudaDevAttrWarpSize, 32},
    {cudaDevAttrMaxPitch, INT_MAX},
    {cudaDevAttrMaxRegistersPerBlock, 65536},
    {cudaDevAttrTextureAlignment, 512},
    {cudaDevAttrKernelExecTimeout, 0},
    {cudaDevAttrCanMapHostMemory, 1},
    {cudaDevAttrComputeMode, 0},
    {cudaDevAttrConcurrentKernels, 1},
    {cudaDevAttrEccEnabled, 0},
    {cudaDevAttrPciBusId, 0},
    {cudaDevAttrMaxThreadsPerMultiProcessor, 1024},
    {cudaDevAttrAsyncEngineCount, 1},
    {cudaDevAttrUnifiedAddressing, 1},
    {cudaDevAttrPciDomainId, 0},
    {cudaDevAttrTexturePitchAlignment, 32},
    {cudaDevAttrComputeCapabilityMajor, 9},
    {cudaDevAttrComputeCapabilityMinor, 0},
    {cudaDevAttrStreamPrioritiesSupported, 0},
    {cudaDevAttrManagedMemory, 1},
    {cudaDevAttrHostNativeAtomicSupported, 1},
    {cudaDevAttrPageableMemoryAccess, 0},
    {cudaDevAttrCanUseHostPointerForRegisteredMem, 1},
    {cudaDevAttrCooperativeLaunch, 0},
    {cudaDevAttrHostRegisterSupported, 0},
    {cudaDevAttrMemoryPoolsSupported, 0},
};

/// The value of an attribute; false if it is unknown.
bool _GetAttribute(const CDevice& xDevice, cudaDeviceAttr eAttribute, int& iValue) noexcept
{
    switch (eAttribute)
    {
    case cudaDevAttrIntegrated:
        iValue = xDevice.IsIntegrated() ? 1 : 0;
        return true;
    case cudaDevAttrConcurrentManagedAccess:
        iValue = xDevice.IsIntegrated() ? 0 : 1;
        return true;
    case cudaDevAttrMultiProcessorCount:
        iValue = _GetProcessorCount();
        return true;
    case cudaDevAttrPciDeviceId:
        iValue = xDevice.GetID();
        return true;
    default:
        break;
    }
    const auto* const pAttribute = std::ranges::find(c_vAttributes, eAttribute, &SAttribute::eAttribute);
    if (pAttribute == std::end(c_vAttributes))
    {
        return false;
    }
    iValue = pAttribute->iValue;
    return true;
}

} // namespace

CDevice::CDevice(int iID, std::size_t nMemory) : m_iID(iID), m_nTotal(nMemory) {}

void CDevice::RaiseFault(cudaError_t eError) noexcept
{
    cudaError_t eExpected = cudaSuccess;
    m_eFault.compare_exchange_strong(eExpected, eError, std::memory_order_relaxed);
}

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

void CDevice::CountHandles(std::size_t& nStreamCount, std::size_t& nEventCount)
{
    const std::lock_guard xLock(m_xMutex);
    nStreamCount =
        static_cast<std::size_t>(std::ranges::count_if(m_vStreams, [](const CStream& x) { return x.m_bLive; }));
    nEventCount = m_vEvents.size() - m_vFreeEvents.size();
}

int GetDeviceCount() noexcept
{
    return static_cast<int>(_GetDevices().size());
}

CDevice* FindDevice(int iDevice) noexcept
{
    const auto& vDevices = _GetDevices();
    return iDevice >= 0 && static_cast<std::size_t>(iDevice) < vDevices.size()
        ? vDevices[static_cast<std::size_t>(iDevice)]
        : nullptr;
}

CDevice& CurrentDevice() noexcept
{
    return *_GetDevices()[static_cast<std::size_t>(ThisThread().iDevice)];
}

cudaError_t GetCurrentFault() noexcept
{
    return GetDeviceCount() != 0 ? CurrentDevice().GetFault() : cudaSuccess;
}

cudaError_t SetLaunchThreads(int iThreads) noexcept
{
    if (iThreads < 1)
    {
        return cudaErrorInvalidValue;
    }
    _GetThreadLimit().store(iThreads, std::memory_order_relaxed);
    return cudaSuccess;
}

int GetLaunchThreads() noexcept
{
    return std::min(_GetProcessorCount(), _GetThreadLimit().load(std::memory_order_relaxed));
}

} // namespace Qx::HostCuda

using namespace Qx::HostCuda;

cudaError_t cudaGetDeviceCount(int* count)
{
    return Call(
        [&]
        {
            if (count == nullptr)
            {
                return cudaErrorInvalidValue;
            }
            *count = GetDeviceCount();
            return cudaSuccess;
        });
}

cudaError_t cudaGetDevice(int* device)
{
    return Call(
        [&]
        {
            if (device == nullptr)
            {
                return cudaErrorInvalidValue;
            }
            *device = ThisThread().iDevice;
            return cudaSuccess;
        });
}

cudaError_t cudaSetDevice(int device)
{
    return Call(
        [&]
        {
            if (FindDevice(device) == nullptr)
            {
                return cudaErrorInvalidDevice;
            }
            ThisThread().iDevice = device;
            return cudaSuccess;
        });
}

cudaError_t cudaDeviceSynchronize()
{
    return Call(
        [&]
        {
            CDevice& xDevice = CurrentDevice();
            xDevice.Synchronize();
            return xDevice.GetFault();
        });
}

cudaError_t cudaDeviceReset()
{
    return Call(
        [&]
        {
            CMemory::Get().Reset(CurrentDevice());
            return cudaSuccess;
        });
}

cudaError_t cudaDeviceGetAttribute(int* value, cudaDeviceAttr attr, int device)
{
    return Call(
        [&]
        {
            const CDevice* const pDevice = FindDevice(device);
            int iValue = 0;
            if (value == nullptr)
            {
                return cudaErrorInvalidValue;
            }
            if (pDevice == nullptr)
            {
                return cudaErrorInvalidDevice;
            }
            if (!_GetAttribute(*pDevice, attr, iValue))
            {
                return cudaErrorInvalidValue;
            }
            *value = iValue;
            return cudaSuccess;
        });
}

cudaError_t cudaGetDeviceProperties(cudaDeviceProp* prop, int device)
{
    return Call(
        [&]
        {
            const CDevice* const pDevice = FindDevice(device);
            if (prop == nullptr)
            {
                return cudaErrorInvalidValue;
            }
            if (pDevice == nullptr)
            {
                return cudaErrorInvalidDevice;
            }
            const auto Get = [pDevice](cudaDeviceAttr eAttribute)
            {
                int iValue = 0;
                _GetAttribute(*pDevice, eAttribute, iValue);
                return iValue;
            };
            const auto GetSize = [&](cudaDeviceAttr eAttribute) { return static_cast<std::size_t>(Get(eAttribute)); };
            cudaDeviceProp xProperties{};
            static_cast<void>(
                std::snprintf(xProperties.name, sizeof(xProperties.name), "Host stand-in device %d", device));
            xProperties.totalGlobalMem = pDevice->GetTotalMemory();
            xProperties.sharedMemPerBlock = GetSize(cudaDevAttrMaxSharedMemoryPerBlock);
            xProperties.regsPerBlock = Get(cudaDevAttrMaxRegistersPerBlock);
            xProperties.warpSize = Get(cudaDevAttrWarpSize);
            xProperties.memPitch = GetSize(cudaDevAttrMaxPitch);
            xProperties.maxThreadsPerBlock = Get(cudaDevAttrMaxThreadsPerBlock);
            xProperties.maxThreadsDim[0] = Get(cudaDevAttrMaxBlockDimX);
            xProperties.maxThreadsDim[1] = Get(cudaDevAttrMaxBlockDimY);
            xProperties.maxThreadsDim[2] = Get(cudaDevAttrMaxBlockDimZ);
            xProperties.maxGridSize[0] = Get(cudaDevAttrMaxGridDimX);
            xProperties.maxGridSize[1] = Get(cudaDevAttrMaxGridDimY);
            xProperties.maxGridSize[2] = Get(cudaDevAttrMaxGridDimZ);
            xProperties.totalConstMem = GetSize(cudaDevAttrTotalConstantMemory);
            xProperties.major = Get(cudaDevAttrComputeCapabilityMajor);
            xProperties.minor = Get(cudaDevAttrComputeCapabilityMinor);
            xProperties.textureAlignment = GetSize(cudaDevAttrTextureAlignment);
            xProperties.texturePitchAlignment = GetSize(cudaDevAttrTexturePitchAlignment);
            xProperties.multiProcessorCount = Get(cudaDevAttrMultiProcessorCount);
            xProperties.integrated = Get(cudaDevAttrIntegrated);
            xProperties.canMapHostMemory = Get(cudaDevAttrCanMapHostMemory);
            xProperties.concurrentKernels = Get(cudaDevAttrConcurrentKernels);
            xProperties.ECCEnabled = Get(cudaDevAttrEccEnabled);
            xProperties.pciBusID = Get(cudaDevAttrPciBusId);
            xProperties.pciDeviceID = Get(cudaDevAttrPciDeviceId);
            xProperties.pciDomainID = Get(cudaDevAttrPciDomainId);
            xProperties.asyncEngineCount = Get(cudaDevAttrAsyncEngineCount);
            xProperties.unifiedAddressing = Get(cudaDevAttrUnifiedAddressing);
            xProperties.maxThreadsPerMultiProcessor = Get(cudaDevAttrMaxThreadsPerMultiProcessor);
            xProperties.streamPrioritiesSupported = Get(cudaDevAttrStreamPrioritiesSupported);
            xProperties.managedMemory = Get(cudaDevAttrManagedMemory);
            xProperties.hostNativeAtomicSupported = Get(cudaDevAttrHostNativeAtomicSupported);
            xProperties.pageableMemoryAccess = Get(cudaDevAttrPageableMemoryAccess);
            xProperties.concurrentManagedAccess = Get(cudaDevAttrConcurrentManagedAccess);
            xProperties.canUseHostPointerForRegisteredMem = Get(cudaDevAttrCanUseHostPointerForRegisteredMem);
            xProperties.cooperativeLaunch = Get(cudaDevAttrCooperativeLaunch);
            xProperties.hostRegisterSupported = Get(cudaDevAttrHostRegisterSupported);
            xProperties.memoryPoolsSupported = Get(cudaDevAttrMemoryPoolsSupported);
            *prop = xProperties;
            return cudaSuccess;
        });
}

cudaError_t cudaRuntimeGetVersion(int* runtimeVersion)
{
    if (runtimeVersion == nullptr)
    {
        return Refuse(cudaErrorInvalidValue);
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
    return Call(
        [&]
        {
            const CDevice& xDevice = CurrentDevice();
            if (const cudaError_t eFault = xDevice.GetFault(); eFault != cudaSuccess)
            {
                return eFault;
            }
            if (free == nullptr || total == nullptr)
            {
                return cudaErrorInvalidValue;
            }
            *free = xDevice.GetFreeMemory();
            *total = xDevice.GetTotalMemory();
            return cudaSuccess;
        });
}
