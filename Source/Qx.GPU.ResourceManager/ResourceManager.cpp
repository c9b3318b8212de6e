#include "Qx.GPU.ResourceManager/ResourceManager.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <type_traits>

#include <cuda_runtime_api.h>
#include <unistd.h>

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

// Held while blocks are taken out of the pool and freed; the pool is not locked meanwhile, so that lending goes on. Who
// runs out of memory waits here, because what is being freed may be what is missing.
static_assert(std::is_trivially_destructible_v<std::mutex>);
constinit std::mutex g_xFreeing;

constexpr SThrowSite _Site(const char* pcFunction)
{
    return {"Source/Qx.GPU.ResourceManager/ResourceManager", pcFunction};
}

int _PoolOf(int iDevice, EPool ePool)
{
    return ePool == EPool::Device ? iDevice : HostPoolOf(iDevice);
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

// Bytes of the host's memory.
std::size_t _HostMemory()
{
    const long iPages = sysconf(_SC_PHYS_PAGES);
    const long iPageBytes = sysconf(_SC_PAGESIZE);
    return iPages > 0 && iPageBytes > 0 ? static_cast<std::size_t>(iPages) * static_cast<std::size_t>(iPageBytes) : 0;
}

// Returns whether blocks of the key are page-locked host memory. Asks the device once; when that fails the next request
// asks again.
bool _NeedsHostMemory(const SBlockKey& xKey, const SThrowSite& xSite)
{
    bool bHostMemory = false;
    if (!g_xPool.IsDeviceKnown(xKey.iDevice, bHostMemory))
    {
        constexpr const char* c_pcMessage = "Error querying CUDA device";
        auto pDevice = std::make_unique<SDevice>();
        std::size_t nFree = 0;
        std::size_t nTotal = 0;
        CheckCuda(cudaMemGetInfo(&nFree, &nTotal), xSite, c_pcMessage);
        std::size_t nIdleLimit = nTotal / 2;
        if (xKey.eKind == EBlockKind::PageLocked)
        {
            bHostMemory = true;
            nIdleLimit = _HostMemory() / 8;
        }
        else
        {
            int iConcurrent = 0;
            int iIntegrated = 0;
            CheckCuda(cudaDeviceGetAttribute(&iConcurrent, cudaDevAttrConcurrentManagedAccess, xKey.iDevice), xSite,
                c_pcMessage);
            CheckCuda(cudaDeviceGetAttribute(&iIntegrated, cudaDevAttrIntegrated, xKey.iDevice), xSite, c_pcMessage);
            bHostMemory = iConcurrent == 0 && iIntegrated != 0;
        }
        _WatchForExit();
        g_xPool.SetDevice(xKey.iDevice, bHostMemory, nIdleLimit, pDevice);
    }
    return bHostMemory && xKey.eKind != EBlockKind::Pitched;
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
    if (xKey.eKind != EBlockKind::Pitched)
    {
        xBlock.nBytes = nWidth;
        // With unified addressing, which every 64-bit platform has, mapped memory's host and device address agree.
        return xBlock.bHostMemory
            ? cudaHostAlloc(&xBlock.pMemory, nWidth,
                  xKey.eKind == EBlockKind::PageLocked ? cudaHostAllocPortable : cudaHostAllocMapped)
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
    const bool bPageLocked = xKey.eKind == EBlockKind::PageLocked;
    const CQxString sRows = xKey.eKind == EBlockKind::Pitched ? MakeText(xKey.nRows, " rows of ") : CQxString();
    const SPoolStatistics xStatistics = g_xPool.GetStatistics(xKey.iDevice);
    ThrowOutOfMemory(xSite, "Error allocating ", bPageLocked ? "page-locked" : "GPU",
        " memory. Out of memory: requested ", sRows, xKey.nWidth, " bytes", ", in use ", xStatistics.nBytesInUse,
        " bytes in ", xStatistics.nBlocksInUse, " blocks, idle ", xStatistics.nBytesIdle, " bytes in ",
        xStatistics.nBlocksIdle, " blocks, Device ID: ", bPageLocked ? HostPoolOf(xKey.iDevice) : xKey.iDevice);
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
    const std::lock_guard xLock(g_xFreeing);
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
    pBlock->bHostMemory = _NeedsHostMemory(xKey, xSite);

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
    CheckCuda(eResult, xSite,
        xKey.eKind == EBlockKind::PageLocked ? "Error allocating page-locked memory" : "Error allocating GPU memory");
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
    Throw(xSite, "Error releasing GPU memory. Block ", pDevice, " ", pcWhy);
}

[[gnu::noinline]] void _ReleaseOrFree(CResource& xResource, bool bFree, const SThrowSite& xSite)
{
    const std::lock_guard xLock(g_xFreeing);
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

CCudaMemoryResource& CResourceManager::GetPageLockedMemory(std::size_t nSize)
{
    static constexpr SThrowSite c_xSite = _Site("GetPageLockedMemory");
    return _Lend({HostPoolOf(_CurrentDevice(c_xSite)), EBlockKind::PageLocked, nSize, 1}, c_xSite).xLinear;
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

SPoolStatistics CResourceManager::GetStatistics(int iDevice, EPool ePool)
{
    return iDevice >= 0 ? g_xPool.GetStatistics(_PoolOf(iDevice, ePool)) : SPoolStatistics{};
}

SPoolStatistics CResourceManager::GetStatistics()
{
    return g_xPool.GetStatistics(_CurrentDevice(_Site("GetStatistics")));
}

void CResourceManager::Trim(std::size_t nBytesToKeep, EPool ePool)
{
    static constexpr SThrowSite c_xSite = _Site("Trim");
    _FreeIdleAbove(_PoolOf(_CurrentDevice(c_xSite), ePool), nBytesToKeep, c_xSite);
}

void CResourceManager::SetIdleLimit(std::size_t nBytes, EPool ePool)
{
    static constexpr SThrowSite c_xSite = _Site("SetIdleLimit");
    const int iPool = _PoolOf(_CurrentDevice(c_xSite), ePool);
    auto pDevice = std::make_unique<SDevice>();
    g_xPool.SetIdleLimit(iPool, nBytes, pDevice);
    _FreeIdleAbove(iPool, nBytes, c_xSite);
}

void CResourceManager::ForgetDevice(int iDevice)
{
    if (iDevice < 0)
    {
        return;
    }
    CDroppedRecords xDropped;
    g_xPool.Forget(iDevice, xDropped);
    g_xPool.Forget(HostPoolOf(iDevice), xDropped);
}

} // namespace Qx::GPU
