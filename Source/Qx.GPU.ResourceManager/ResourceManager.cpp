#include "Qx.GPU.ResourceManager/ResourceManager.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>
#include <type_traits>

#include <cuda_runtime_api.h>

#include "Qx.Core/QxFormat.h"
#include "Qx.Cuda.Core/QxCudaException.h"
#include "Qx.GPU.ResourceManager/BlockPool.h"

namespace Qx::GPU
{

namespace
{

// Objects with static storage may give blocks back after any destructor of this library would have run, and the CUDA
// runtime may be gone by then. So the pool is never destroyed, and from the moment that the exit begins (see
// _WatchForExit) it keeps what it is given without a CUDA call.
static_assert(std::is_trivially_destructible_v<CBlockPool>);
constinit CBlockPool g_xPool;

constexpr SThrowSite _Site(const char* pcFunction)
{
    return {"Source/Qx.GPU.ResourceManager/ResourceManager", pcFunction};
}

int _CurrentDevice(const SThrowSite& xSite)
{
    if (g_xPool.IsClosed()) [[unlikely]]
    {
        Throw(xSite, "Error accessing GPU memory pool. The process is exiting");
    }
    int iDevice = 0;
    CheckCuda(cudaGetDevice(&iDevice), xSite, "Error getting CUDA device ID");
    return iDevice;
}

// Handlers run in the reverse order of their registration. This one is registered when the CUDA runtime has
// initialised itself on a device and before the first block exists: so it runs before the runtime tears itself down,
// and before the destructors of all static objects but those that were made after it, which still find a working
// runtime.
void _WatchForExit()
{
    [[maybe_unused]] static const bool s_bRegistered = []
    {
        if (std::atexit([] { g_xPool.Close(); }) != 0)
        {
            throw std::bad_alloc();
        }
        return true;
    }();
}

// Returns whether linear blocks of the current device are page-locked host memory. Asks the device once; when that
// fails the next request asks again.
bool _NeedsHostMemory(int iDevice, const SThrowSite& xSite)
{
    bool bHostMemory = false;
    if (g_xPool.IsDeviceKnown(iDevice, bHostMemory))
    {
        return bHostMemory;
    }
    constexpr const char* c_pcMessage = "Error querying CUDA device";
    auto pDevice = std::make_unique<SDevice>();
    int iConcurrent = 0;
    int iIntegrated = 0;
    std::size_t nFree = 0;
    std::size_t nTotal = 0;
    CheckCuda(cudaDeviceGetAttribute(&iConcurrent, cudaDevAttrConcurrentManagedAccess, iDevice), xSite, c_pcMessage);
    CheckCuda(cudaDeviceGetAttribute(&iIntegrated, cudaDevAttrIntegrated, iDevice), xSite, c_pcMessage);
    CheckCuda(cudaMemGetInfo(&nFree, &nTotal), xSite, c_pcMessage);
    _WatchForExit();
    bHostMemory = iConcurrent == 0 && iIntegrated != 0;
    g_xPool.SetDevice(iDevice, bHostMemory, nTotal / 2, pDevice);
    return bHostMemory;
}

cudaError _FreeMemory(const SBlock& xBlock)
{
    return xBlock.bHostMemory ? cudaFreeHost(xBlock.pMemory) : cudaFree(xBlock.pMemory);
}

// Fills in the memory of xBlock. A width or row count of 0 is served like 1, because a block needs an address.
cudaError _AllocateMemory(const SBlockKey& xKey, SBlock& xBlock)
{
    const std::size_t nWidth = std::max<std::size_t>(xKey.nWidth, 1);
    const std::size_t nRows = std::max<std::size_t>(xKey.nRows, 1);
    if (xKey.eKind == EBlockKind::Linear)
    {
        xBlock.nBytes = nWidth;
        // With unified addressing, which every 64-bit platform has, the mapped memory's host and device address agree.
        return xBlock.bHostMemory ? cudaHostAlloc(&xBlock.pMemory, nWidth, cudaHostAllocMapped)
                                  : cudaMallocManaged(&xBlock.pMemory, nWidth, cudaMemAttachGlobal);
    }
    cudaError eResult = cudaMallocPitch(&xBlock.pMemory, &xBlock.nPitch, nWidth, nRows);
    if (eResult == cudaSuccess && __builtin_mul_overflow(xBlock.nPitch, nRows, &xBlock.nBytes))
    {
        // No device holds that much: whatever came back is smaller than what was asked for.
        eResult = cudaFree(xBlock.pMemory);
        return eResult == cudaSuccess ? cudaErrorMemoryAllocation : eResult;
    }
    return eResult;
}

[[noreturn]] void _ThrowPoolOutOfMemory(const SBlockKey& xKey, const SThrowSite& xSite)
{
    char acRequest[80];
    if (xKey.eKind == EBlockKind::Linear)
    {
        sprintf_s(acRequest, "%zu bytes", xKey.nWidth);
    }
    else
    {
        sprintf_s(acRequest, "%zu rows of %zu bytes", xKey.nRows, xKey.nWidth);
    }
    const SPoolStatistics xStatistics = g_xPool.GetStatistics(xKey.iDevice);
    char acText[320];
    sprintf_s(acText,
              "Error allocating GPU memory. Out of memory: requested %s, in use %zu bytes in %zu blocks, idle %zu "
              "bytes in %zu blocks, Device ID: %d",
              acRequest, xStatistics.nBytesInUse, xStatistics.nBlocksInUse, xStatistics.nBytesIdle,
              xStatistics.nBlocksIdle, xKey.iDevice);
    ThrowOutOfMemory(xSite, acText);
}

// Frees blocks that were taken out of the pool, first to last. When one cannot be freed, it and those after it return
// to the pool.
cudaError _FreeTaken(CTakenBlocks& xTaken, CDroppedRecords& xDropped)
{
    CTakenBlocks xFreed;
    cudaError eResult = cudaSuccess;
    while (SBlock* const pBlock = xTaken.First())
    {
        eResult = _FreeMemory(*pBlock);
        if (eResult != cudaSuccess)
        {
            break;
        }
        xTaken.Remove(*pBlock);
        xFreed.PushBack(*pBlock);
    }
    g_xPool.Settle(xFreed, xTaken, xDropped);
    return eResult;
}

void _FreeTakenIdle(CTakenBlocks& xTaken, const SThrowSite& xSite)
{
    if (!xTaken.IsEmpty())
    {
        CDroppedRecords xDropped;
        CheckCuda(_FreeTaken(xTaken, xDropped), xSite, "Error freeing idle GPU memory");
    }
}

void _FreeIdleAbove(int iDevice, std::size_t nBytesToKeep, const SThrowSite& xSite)
{
    CTakenBlocks xTaken;
    g_xPool.TakeIdleAbove(iDevice, nBytesToKeep, xTaken);
    _FreeTakenIdle(xTaken, xSite);
}

[[gnu::noinline]] SBlock& _LendNew(const SBlockKey& xKey, const SThrowSite& xSite)
{
    std::size_t nBytes = 0;
    if (__builtin_mul_overflow(xKey.nWidth, xKey.nRows, &nBytes))
    {
        _ThrowPoolOutOfMemory(xKey, xSite);
    }
    // Everything that the host must provide comes before the device's block, which then cannot be lost.
    auto pBlock = std::make_unique<SBlock>();
    auto pBucket = std::make_unique<SBucket>();
    pBlock->bHostMemory = _NeedsHostMemory(xKey.iDevice, xSite) && xKey.eKind == EBlockKind::Linear;

    cudaError eResult = _AllocateMemory(xKey, *pBlock);
    if (eResult == cudaErrorMemoryAllocation)
    {
        static_cast<void>(cudaGetLastError());
        _FreeIdleAbove(xKey.iDevice, 0, xSite);
        eResult = _AllocateMemory(xKey, *pBlock);
    }
    if (eResult == cudaErrorMemoryAllocation)
    {
        static_cast<void>(cudaGetLastError());
        _ThrowPoolOutOfMemory(xKey, xSite);
    }
    CheckCuda(eResult, xSite, "Error allocating GPU memory");
    CDroppedRecords xDropped;
    return g_xPool.AddLent(xKey, std::move(pBlock), pBucket, xDropped);
}

SBlock& _Lend(const SBlockKey& xKey, const SThrowSite& xSite)
{
    SBlock* const pBlock = g_xPool.Lend(xKey);
    return pBlock != nullptr ? *pBlock : _LendNew(xKey, xSite);
}

[[noreturn, gnu::cold]] void _ThrowNotLent(const void* pDevice, const char* pcWhy, const SThrowSite& xSite)
{
    char acText[120];
    sprintf_s(acText, "Error releasing GPU memory. Block %p %s", pDevice, pcWhy);
    Throw(xSite, acText);
}

[[gnu::noinline]] void _ReleaseOrFree(CResource& xResource, bool bFree, const SThrowSite& xSite)
{
    for (;;)
    {
        // Deletes records last: the resource may be inside one.
        CDroppedRecords xDropped;
        CTakenBlocks xTaken;
        switch (g_xPool.Release(xResource, bFree, xTaken, xDropped))
        {
        case ERelease::Done:
            return;
        case ERelease::Unknown:
            _ThrowNotLent(xResource.m_pDevice, "is not from the pool or was freed already", xSite);
        case ERelease::IsIdle:
            _ThrowNotLent(xResource.m_pDevice, "was given back already", xSite);
        case ERelease::FreeBlock:
            CheckCuda(_FreeTaken(xTaken, xDropped), xSite, "Error freeing GPU memory");
            xResource.m_pDevice = nullptr;
            return;
        case ERelease::FreeIdleFirst:
            _FreeTakenIdle(xTaken, xSite);
            break;
        }
    }
}

} // namespace

CCudaMemoryPitchResource& CResourceManager::GetCudaMemoryPitch(std::size_t nWidth, std::size_t nRows)
{
    static constexpr SThrowSite c_xSite = _Site("GetCudaMemoryPitch");
    return _Lend({_CurrentDevice(c_xSite), EBlockKind::Pitched, nWidth, nRows}, c_xSite).xPitched;
}

CCudaMemoryResource& CResourceManager::GetCudaMemory(std::size_t nSize)
{
    static constexpr SThrowSite c_xSite = _Site("GetCudaMemory");
    return _Lend({_CurrentDevice(c_xSite), EBlockKind::Linear, nSize, 1}, c_xSite).xLinear;
}

void CResourceManager::ReleaseResource(CResource& xResource, bool bFree)
{
    static constexpr SThrowSite c_xSite = _Site("ReleaseResource");
    if (xResource.m_pDevice == nullptr || (!bFree && g_xPool.ReleaseToIdle(xResource)))
    {
        return;
    }
    _ReleaseOrFree(xResource, bFree, c_xSite);
}

SPoolStatistics CResourceManager::GetStatistics(int iDevice)
{
    return g_xPool.GetStatistics(iDevice);
}

SPoolStatistics CResourceManager::GetStatistics()
{
    return g_xPool.GetStatistics(_CurrentDevice(_Site("GetStatistics")));
}

void CResourceManager::Trim(std::size_t nBytesToKeep)
{
    static constexpr SThrowSite c_xSite = _Site("Trim");
    _FreeIdleAbove(_CurrentDevice(c_xSite), nBytesToKeep, c_xSite);
}

void CResourceManager::SetIdleLimit(std::size_t nBytes)
{
    static constexpr SThrowSite c_xSite = _Site("SetIdleLimit");
    const int iDevice = _CurrentDevice(c_xSite);
    auto pDevice = std::make_unique<SDevice>();
    g_xPool.SetIdleLimit(iDevice, nBytes, pDevice);
    _FreeIdleAbove(iDevice, nBytes, c_xSite);
}

void CResourceManager::ForgetDevice(int iDevice)
{
    CDroppedRecords xDropped;
    g_xPool.Forget(iDevice, xDropped);
}

} // namespace Qx::GPU
