#include "Qx.GPU.ResourceManager/ResourceManager.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <type_traits>

#include <cuda_runtime_api.h>
#include <pthread.h>

#include "Qx.Cuda.Core/QxCudaException.h"
#include "Qx.GPU.ResourceManager/BlockPool.h"
#include "Qx.GPU.ResourceManager/HostMemory.h"

namespace Qx::HostCuda
{

// Offered by a runtime whose device memory is host memory, which AddressSanitizer can watch; null with any other.
[[gnu::weak, gnu::visibility("default")]] GPU::IdleMarker GetIdleMarker() noexcept;

} // namespace Qx::HostCuda

namespace Qx::GPU
{

namespace
{

// Objects with static storage may give blocks back after any destructor of this library would have run, and the CUDA
// runtime may be gone by then. So the pool is never destroyed, and from the moment that the exit begins (see
// _WatchProcess) it keeps what it is given without a CUDA call.
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
//
// The child of a fork has one thread only. It gets whole records and, since a thread that was freeing is not there to
// go on, a new lock in its place.
void _WatchProcess()
{
    [[maybe_unused]] static const bool s_bRegistered = []
    {
        const auto Child = []
        {
            g_xPool.UnlockAfterFork(true);
            new (&g_xFreeing) std::mutex;
        };
        if (std::atexit([] { g_xPool.Close(); }) != 0 ||
            pthread_atfork([] { g_xPool.LockForFork(); }, [] { g_xPool.UnlockAfterFork(false); }, Child) != 0)
        {
            throw std::bad_alloc();
        }
        g_xPool.TellOfIdle(HostCuda::GetIdleMarker != nullptr ? HostCuda::GetIdleMarker() : nullptr);
        return true;
    }();
}

// Records what is to be known of a pool of the current device. When the device cannot be asked the next request tries
// again.
SPoolProperties _Learn(const SPoolName& xName, const SThrowSite& xSite)
{
    constexpr const char* c_pcMessage = "Error querying CUDA device";
    std::size_t nFree = 0;
    std::size_t nTotal = 0;
    CheckCuda(cudaMemGetInfo(&nFree, &nTotal), xSite, c_pcMessage);
    SPoolProperties xProperties;
    if (xName.ePool == EPool::PageLocked)
    {
        xProperties = {true, true, HostMemory() / 8};
    }
    else
    {
        int iConcurrent = 0;
        int iIntegrated = 0;
        CheckCuda(cudaDeviceGetAttribute(&iConcurrent, cudaDevAttrConcurrentManagedAccess, xName.iDevice), xSite,
            c_pcMessage);
        CheckCuda(cudaDeviceGetAttribute(&iIntegrated, cudaDevAttrIntegrated, xName.iDevice), xSite, c_pcMessage);
        xProperties = {iConcurrent == 0 && iIntegrated != 0, iIntegrated != 0, nTotal / 2};
    }
    _WatchProcess();
    g_xPool.Learn(xName, xProperties);
    return xProperties;
}

// Fills in the memory of xBlock, which has its key. A width or row count of 0 is served like 1, because a block needs
// an address.
cudaError _AllocateMemory(SBlock& xBlock)
{
    const std::size_t nWidth = std::max<std::size_t>(xBlock.xKey.nWidth, 1);
    const std::size_t nRows = std::max<std::size_t>(xBlock.xKey.nRows, 1);
    if (!xBlock.xKey.bPitched)
    {
        xBlock.nBytes = nWidth;
        // With unified addressing, which every 64-bit platform has, mapped memory's host and device address agree.
        return xBlock.bHostMemory
            ? cudaHostAlloc(&xBlock.pMemory, nWidth,
                  xBlock.xKey.xPool.ePool == EPool::PageLocked ? cudaHostAllocPortable : cudaHostAllocMapped)
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

const char* _KindOf(const SPoolName& xName)
{
    return xName.ePool == EPool::PageLocked ? "page-locked" : "GPU";
}

// sFreed: what was idle and has been freed in vain, a pool after the other.
[[noreturn]] void _ThrowPoolOutOfMemory(const SBlockKey& xKey, const CQxString& sFreed, const SThrowSite& xSite)
{
    const CQxString sRows = xKey.bPitched ? MakeText(xKey.nRows, " rows of ") : CQxString();
    const SPoolStatistics xStatistics = g_xPool.GetStatistics(xKey.xPool);
    CQxString sDevice;
    std::size_t nFree = 0;
    std::size_t nTotal = 0;
    if (cudaMemGetInfo(&nFree, &nTotal) == cudaSuccess)
    {
        sDevice = MakeText(", free ", nFree, " of ", nTotal, " bytes");
    }
    static_cast<void>(cudaGetLastError());
    ThrowOutOfMemory(xSite, "Error allocating ", _KindOf(xKey.xPool), " memory. Out of memory: requested ", sRows,
        xKey.nWidth, " bytes", ", in use ", xStatistics.nBytesInUse, " bytes in ", xStatistics.nBlocksInUse,
        " blocks, idle ", xStatistics.nBytesIdle, " bytes in ", xStatistics.nBlocksIdle,
        " blocks, Device ID: ", xKey.xPool.iDevice, sDevice, sFreed);
}

// Frees the memory of a block. A current device with a fault refuses every call, whichever device it is about; so what
// fails is tried again with the block's own device current.
cudaError _FreeMemory(const SBlock& xBlock)
{
    const auto Free = [&] { return xBlock.bHostMemory ? cudaFreeHost(xBlock.pMemory) : cudaFree(xBlock.pMemory); };
    const cudaError eResult = Free();
    int iCurrent = 0;
    const int iOwn = xBlock.xKey.xPool.iDevice;
    if (eResult == cudaSuccess || eResult == cudaErrorNotPermitted || cudaGetDevice(&iCurrent) != cudaSuccess ||
        iCurrent == iOwn || cudaSetDevice(iOwn) != cudaSuccess)
    {
        return eResult;
    }
    static_cast<void>(cudaGetLastError());
    const cudaError eOwnResult = Free();
    static_cast<void>(cudaSetDevice(iCurrent));
    return eOwnResult;
}

// Frees a block that was taken out of the pool; when that fails it returns to the pool. The block's own resource is
// emptied before the record, in which it may be, goes.
cudaError _FreeTaken(SBlock& xTaken, CResource* pEmptied = nullptr)
{
    const cudaError eResult = _FreeMemory(xTaken);
    if (eResult == cudaSuccess && pEmptied != nullptr)
    {
        pEmptied->m_pDevice = nullptr;
    }
    g_xPool.Settle(xTaken, eResult == cudaSuccess);
    return eResult;
}

// Frees what releases have left to others. What cannot be freed is left to the next one.
void _FreeDeferred() noexcept
{
    while (g_xPool.HasDeferred())
    {
        const std::unique_lock xLock(g_xFreeing, std::try_to_lock);
        if (!xLock)
        {
            return; // who has it comes here afterwards
        }
        SBlock* const pTaken = g_xPool.TakeDeferred();
        if (pTaken != nullptr && _FreeTaken(*pTaken) != cudaSuccess)
        {
            static_cast<void>(cudaGetLastError());
            return;
        }
    }
}

// The right to take blocks out of the pool and to free them.
class CFreeing
{
public:
    CFreeing() : m_xLock(g_xFreeing) {}
    explicit CFreeing(std::try_to_lock_t xTry) : m_xLock(g_xFreeing, xTry) {}
    CFreeing(const CFreeing&) = delete;
    CFreeing& operator=(const CFreeing&) = delete;
    ~CFreeing()
    {
        if (IsGranted())
        {
            m_xLock.unlock();
        }
        _FreeDeferred();
    }

    bool IsGranted() const noexcept { return m_xLock.owns_lock(); }

private:
    std::unique_lock<std::mutex> m_xLock;
};

constexpr const char* c_pcFreeingIdle = "Error freeing idle GPU memory";

// Frees at most as many blocks as were idle at first: others may go on giving some back. nFreed: bytes of them.
cudaError _FreeIdleAbove(const CFreeing&, const SPoolName& xName, std::size_t nBytesToKeep, std::size_t& nFreed)
{
    cudaError eResult = cudaSuccess;
    for (std::size_t nIdle = g_xPool.GetStatistics(xName).nBlocksIdle; nIdle > 0 && eResult == cudaSuccess; --nIdle)
    {
        SBlock* const pTaken = g_xPool.TakeIdleAbove(xName, nBytesToKeep);
        if (pTaken == nullptr)
        {
            break;
        }
        const std::size_t nBytes = pTaken->nBytes;
        eResult = _FreeTaken(*pTaken);
        nFreed += eResult == cudaSuccess ? nBytes : 0;
    }
    return eResult;
}

void _Trim(const SPoolName& xName, std::size_t nBytesToKeep, const SThrowSite& xSite)
{
    const CFreeing xFreeing;
    std::size_t nFreed = 0;
    CheckCuda(_FreeIdleAbove(xFreeing, xName, nBytesToKeep, nFreed), xSite, c_pcFreeingIdle);
}

// Tries again after a refusal, with what lies idle freed: in the block's own pool and, when that is not enough, in
// those on the same memory; what of these cannot be freed is no failure of this request. sFreed gets what was freed
// where.
cudaError _AllocateInstead(SBlock& xBlock, CQxString& sFreed, const SThrowSite& xSite)
{
    const CFreeing xFreeing;
    const SPoolName& xOwn = xBlock.xKey.xPool;
    bool bHasFreed = false;
    const auto FreeIdle = [&](const SPoolName& xName)
    {
        std::size_t nFreed = 0;
        const cudaError eResult = _FreeIdleAbove(xFreeing, xName, 0, nFreed);
        if (nFreed != 0)
        {
            bHasFreed = true;
            sFreed << MakeText(
                ", freed in vain ", nFreed, " idle bytes of ", _KindOf(xName), " memory of device ", xName.iDevice);
        }
        return eResult;
    };
    static_cast<void>(cudaGetLastError());
    CheckCuda(FreeIdle(xOwn), xSite, c_pcFreeingIdle);
    const cudaError eResult = _AllocateMemory(xBlock);
    if (eResult != cudaErrorMemoryAllocation)
    {
        return eResult;
    }
    static_cast<void>(cudaGetLastError());
    bHasFreed = false;
    const SPool* pPool = nullptr;
    while ((pPool = g_xPool.NextNeighbour(xOwn, pPool)) != nullptr)
    {
        if (FreeIdle(pPool->xName) != cudaSuccess)
        {
            static_cast<void>(cudaGetLastError());
        }
    }
    return bHasFreed ? _AllocateMemory(xBlock) : eResult;
}

[[gnu::noinline]] SBlock& _LendNew(const SBlockKey& xKey, const SThrowSite& xSite)
{
    CQxString sFreed;
    std::size_t nBytes = 0;
    if (__builtin_mul_overflow(xKey.nWidth, xKey.nRows, &nBytes))
    {
        _ThrowPoolOutOfMemory(xKey, sFreed, xSite);
    }
    _FreeDeferred();
    SPoolProperties xProperties;
    if (!g_xPool.IsKnown(xKey.xPool, xProperties))
    {
        xProperties = _Learn(xKey.xPool, xSite);
    }
    // The record comes before the memory, which then cannot be lost.
    auto pBlock = std::make_unique<SBlock>();
    pBlock->xKey = xKey;
    pBlock->bHostMemory = xProperties.bHostMemory && !xKey.bPitched;

    cudaError eResult = _AllocateMemory(*pBlock);
    if (eResult == cudaErrorMemoryAllocation)
    {
        eResult = _AllocateInstead(*pBlock, sFreed, xSite);
    }
    if (eResult == cudaErrorMemoryAllocation)
    {
        static_cast<void>(cudaGetLastError());
        _ThrowPoolOutOfMemory(xKey, sFreed, xSite);
    }
    CheckCuda(eResult, xSite,
        xKey.xPool.ePool == EPool::PageLocked ? "Error allocating page-locked memory" : "Error allocating GPU memory");
    return g_xPool.AddLent(std::move(pBlock));
}

SBlock& _Lend(const SBlockKey& xKey, const SThrowSite& xSite)
{
    SBlock* const pBlock = g_xPool.Lend(xKey);
    return pBlock != nullptr ? *pBlock : _LendNew(xKey, xSite);
}

// Never waits for another thread that frees: that one may wait for the device, and the device for a host function which
// is giving this block back; and an exit has no time for it. Where it cannot free now, this leaves it to others.
[[gnu::noinline]] void _ReleaseOrFree(CResource& xResource, bool bFree, const SThrowSite& xSite)
{
    const CFreeing xFreeing(std::try_to_lock);
    bool bMayTake = xFreeing.IsGranted();
    for (;;)
    {
        SBlock* pTaken = nullptr;
        const ERelease eRelease = g_xPool.Release(xResource, bFree, bMayTake, pTaken);
        if (eRelease == ERelease::Done)
        {
            return;
        }
        if (pTaken == nullptr)
        {
            Throw(xSite, "Error releasing GPU memory. Block ", xResource.m_pDevice,
                eRelease == ERelease::IsIdle ? " was given back already"
                                             : " is not from the pool or was freed already");
        }
        const bool bIsThisBlock = eRelease == ERelease::FreeBlock;
        const cudaError eResult = _FreeTaken(*pTaken, bIsThisBlock ? &xResource : nullptr);
        if (eResult == cudaErrorNotPermitted && !bFree)
        {
            // This is a host function, which may not free.
            static_cast<void>(cudaGetLastError());
            bMayTake = false;
            continue;
        }
        CheckCuda(eResult, xSite, bIsThisBlock ? "Error freeing GPU memory" : c_pcFreeingIdle);
        if (bIsThisBlock)
        {
            return;
        }
    }
}

} // namespace

CCudaMemoryPitchResource& CResourceManager::GetCudaMemoryPitch(std::size_t nWidth, std::size_t nRows)
{
    static constexpr SThrowSite c_xSite = _Site("GetCudaMemoryPitch");
    return _Lend({{_CurrentDevice(c_xSite), EPool::Device}, true, nWidth, nRows}, c_xSite).xPitched;
}

CCudaMemoryResource& CResourceManager::GetCudaMemory(std::size_t nSize)
{
    static constexpr SThrowSite c_xSite = _Site("GetCudaMemory");
    return _Lend({{_CurrentDevice(c_xSite), EPool::Device}, false, nSize, 1}, c_xSite).xLinear;
}

CCudaMemoryResource& CResourceManager::GetPageLockedMemory(std::size_t nSize)
{
    static constexpr SThrowSite c_xSite = _Site("GetPageLockedMemory");
    return _Lend({{_CurrentDevice(c_xSite), EPool::PageLocked}, false, nSize, 1}, c_xSite).xLinear;
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
    return g_xPool.GetStatistics({iDevice, ePool});
}

SPoolStatistics CResourceManager::GetStatistics()
{
    return g_xPool.GetStatistics({_CurrentDevice(_Site("GetStatistics")), EPool::Device});
}

void CResourceManager::Trim(std::size_t nBytesToKeep, EPool ePool)
{
    static constexpr SThrowSite c_xSite = _Site("Trim");
    _Trim({_CurrentDevice(c_xSite), ePool}, nBytesToKeep, c_xSite);
}

void CResourceManager::SetIdleLimit(std::size_t nBytes, EPool ePool)
{
    static constexpr SThrowSite c_xSite = _Site("SetIdleLimit");
    const SPoolName xName{_CurrentDevice(c_xSite), ePool};
    g_xPool.SetIdleLimit(xName, nBytes);
    _Trim(xName, nBytes, c_xSite);
}

void CResourceManager::ForgetDevice(int iDevice)
{
    g_xPool.Forget({iDevice, EPool::Device});
    g_xPool.Forget({iDevice, EPool::PageLocked});
}

} // namespace Qx::GPU
