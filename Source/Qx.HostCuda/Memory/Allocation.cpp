#include "Qx.HostCuda/Memory/Arrays.h"
#include "Qx.HostCuda/Memory/Blocks.h"
#include "Qx.HostCuda/Streams/Schedule.h"

#include <climits>

namespace Qx::HostCuda
{
namespace
{

/// The linear allocation calls.
cudaError_t _Allocate(void** ppMemory, EMemoryKind eKind, std::size_t nSize, bool bArgumentsValid)
{
    return OnDevice(
        [&](CDevice& xDevice)
        {
            Require(ppMemory != nullptr && bArgumentsValid, cudaErrorInvalidValue);
            *ppMemory = nSize == 0 ? nullptr : CMemory::Get().Allocate(xDevice, eKind, nSize, nSize, 1);
        });
}

/// The calls that free blocks.
cudaError_t _Free(void* pMemory, bool bHost)
{
    return OnDevice(
        [&](const CDevice&)
        {
            if (pMemory != nullptr)
            {
                CMemory::Get().Free(pMemory, bHost);
            }
        });
}

cudaMemoryType _GetType(EMemoryKind eKind) noexcept
{
    switch (eKind)
    {
    case EMemoryKind::Managed:
        return cudaMemoryTypeManaged;
    case EMemoryKind::PageLocked:
        return cudaMemoryTypeHost;
    default:
        return cudaMemoryTypeDevice;
    }
}

} // namespace

cudaError_t GetStatistics(int iDevice, SStatistics& xStatistics) noexcept
{
    const CDevice* const pDevice = FindDevice(iDevice);
    if (pDevice == nullptr)
    {
        return cudaErrorInvalidDevice;
    }
    xStatistics = {};
    CMemory::Get().Count(iDevice, xStatistics);
    CArrays::All().Count(iDevice, xStatistics);
    CSchedule::Of(*pDevice).CountHandles(xStatistics.nStreamCount, xStatistics.nEventCount);
    return cudaSuccess;
}

} // namespace Qx::HostCuda

using namespace Qx::HostCuda;

cudaError_t cudaDeviceReset()
{
    return Call([] { CMemory::Get().Reset(CurrentDevice()); });
}

cudaError_t cudaMalloc(void** devPtr, size_t size)
{
    return _Allocate(devPtr, EMemoryKind::Device, size, true);
}

cudaError_t cudaMallocManaged(void** devPtr, size_t size, unsigned int flags)
{
    const bool bValid = size != 0 && (flags == cudaMemAttachGlobal || flags == cudaMemAttachHost);
    return _Allocate(devPtr, EMemoryKind::Managed, size, bValid);
}

cudaError_t cudaHostAlloc(void** pHost, size_t size, unsigned int flags)
{
    constexpr unsigned c_uKnown = cudaHostAllocPortable | cudaHostAllocMapped | cudaHostAllocWriteCombined;
    return _Allocate(pHost, EMemoryKind::PageLocked, size, (flags & ~c_uKnown) == 0);
}

cudaError_t cudaMallocHost(void** ptr, size_t size)
{
    return cudaHostAlloc(ptr, size, cudaHostAllocDefault);
}

cudaError_t cudaMallocPitch(void** devPtr, size_t* pitch, size_t width, size_t height)
{
    return OnDevice(
        [&](CDevice& xDevice)
        {
            Require(devPtr != nullptr && pitch != nullptr, cudaErrorInvalidValue);
            void* pMemory = nullptr;
            std::size_t nPitch = 0;
            if (width != 0 && height != 0)
            {
                // A row beyond the whole memory is out of memory, whatever its pitch would be.
                Require(width <= xDevice.GetTotalMemory(), cudaErrorMemoryAllocation);
                Require(width <= INT_MAX - c_nAlignment, cudaErrorInvalidValue);
                nPitch = (width + c_nAlignment - 1) / c_nAlignment * c_nAlignment;
                pMemory = CMemory::Get().Allocate(xDevice, EMemoryKind::Pitched, nPitch, width, height);
            }
            *devPtr = pMemory;
            *pitch = nPitch;
        });
}

cudaError_t cudaFree(void* devPtr)
{
    return _Free(devPtr, false);
}

cudaError_t cudaFreeHost(void* ptr)
{
    return _Free(ptr, true);
}

cudaError_t cudaHostGetDevicePointer(void** pDevice, void* pHost, unsigned int flags)
{
    return OnDevice(
        [&](const CDevice&)
        {
            const auto xLock = CMemory::Get().Read();
            const SBlock* const pBlock = CMemory::Get().Find(reinterpret_cast<std::uintptr_t>(pHost));
            Require(flags == 0 && pBlock != nullptr && pBlock->eKind == EMemoryKind::PageLocked, cudaErrorInvalidValue);
            Answer(pDevice, pHost);
        });
}

cudaError_t cudaPointerGetAttributes(cudaPointerAttributes* attributes, const void* ptr)
{
    return OnDevice(
        [&](const CDevice&)
        {
            Require(attributes != nullptr, cudaErrorInvalidValue);
            auto* const pMemory = const_cast<void*>(ptr);
            const auto xLock = CMemory::Get().Read();
            const SBlock* const pBlock = CMemory::Get().Find(reinterpret_cast<std::uintptr_t>(ptr));
            *attributes = {cudaMemoryTypeUnregistered, cudaInvalidDeviceId, nullptr, pMemory, {}};
            if (pBlock != nullptr)
            {
                void* const pHost = pBlock->IsForHost() ? pMemory : nullptr;
                *attributes = {_GetType(pBlock->eKind), pBlock->iDevice, pMemory, pHost, {}};
            }
        });
}
