#include "Qx.GPU.ResourceManager/BlockPool.h"

#include <utility>

namespace Qx::GPU
{

SBlock& CBlockPool::AddLent(std::unique_ptr<SBlock> pBlock) noexcept
{
    const std::lock_guard xLock(m_xMutex);
    std::size_t nHolders = 1;
    if (SBlock* const pGone = m_xBlocks.Find(pBlock->pMemory))
    {
        nHolders += pGone->nHolders;
        _Drop(*pGone);
    }
    SBlock& xBlock = *pBlock.release();
    ++m_nBlocks;
    m_xBlocks.Reserve(m_nBlocks);
    m_xIdle.Reserve(m_nBlocks);
    m_xBlocks.InsertFirst(xBlock);
    SPool& xPool = *_Find(xBlock.xKey.xPool);
    xBlock.pPool = &xPool;
    ++xPool.nBlocks;
    xPool.nBytes += xBlock.nBytes;
    ++xPool.xStatistics.uMisses;
    _MakeLent(xBlock, nHolders);
    return xBlock;
}

ERelease CBlockPool::Release(CResource& xResource, bool bFree, bool bMayTake, SBlock*& pTaken) noexcept
{
    std::unique_lock xLock(m_xMutex, std::defer_lock);
    const bool bClosed = IsClosed();
    if (!bClosed)
    {
        xLock.lock();
    }
    else if (!xLock.try_lock())
    {
        xResource.m_pDevice = nullptr;
        return ERelease::Done;
    }
    SBlock* const pBlock = m_xBlocks.Find(xResource.m_pDevice);
    if (pBlock == nullptr)
    {
        return ERelease::Unknown;
    }
    if (pBlock->nHolders == 0)
    {
        return ERelease::IsIdle;
    }
    if (pBlock->pPool == nullptr || pBlock->nHolders > 1)
    {
        xResource.m_pDevice = nullptr;
        if (--pBlock->nHolders == 0)
        {
            _Drop(*pBlock);
        }
        return ERelease::Done;
    }
    SPool& xPool = *pBlock->pPool;
    const bool bFreeIt = bFree || pBlock->nBytes > xPool.pBound->nLimit;
    if (!bClosed && !m_bIsChild && (bFreeIt || pBlock->nBytes > _IdleRoom(xPool)))
    {
        if (bMayTake)
        {
            pTaken = &_Take(bFreeIt ? *pBlock : _OldestUnderBound(xPool));
            return bFreeIt ? ERelease::FreeBlock : ERelease::FreeIdleFirst;
        }
        pBlock->bIsDoomed = bFree;
        m_bHasDeferred = true;
    }
    _MakeIdle(*pBlock, xResource);
    return ERelease::Done;
}

SBlock* CBlockPool::TakeIdleAbove(const SPoolName& xName, std::size_t nBytesToKeep) noexcept
{
    const std::lock_guard xLock(m_xMutex);
    SPool* const pPool = _Find(xName);
    // What another thread frees just now still counts; in the child of a fork it does for ever.
    const bool bHasOne = pPool != nullptr && pPool->xStatistics.nBytesIdle > nBytesToKeep && !pPool->xIdle.IsAlone();
    return bHasOne ? &_Take(_Oldest(*pPool)) : nullptr;
}

SBlock* CBlockPool::TakeDeferred() noexcept
{
    const std::lock_guard xLock(m_xMutex);
    for (SPool* pPool = m_pPools; pPool != nullptr && m_bHasDeferred; pPool = pPool->pNext)
    {
        if (!pPool->xIdle.IsAlone() && (pPool->pBound->nBytes > pPool->pBound->nLimit || _Oldest(*pPool).bIsDoomed))
        {
            return &_Take(_Oldest(*pPool));
        }
    }
    m_bHasDeferred = false;
    return nullptr;
}

void CBlockPool::Settle(SBlock& xTaken, bool bFreed) noexcept
{
    const std::lock_guard xLock(m_xMutex);
    SPoolStatistics& xStatistics = xTaken.pPool->xStatistics;
    const bool bIdle = xTaken.nHolders == 0;
    if (bFreed)
    {
        xStatistics.uTrimmedBlocks += bIdle ? 1 : 0;
        xStatistics.uTrimmedBytes += bIdle ? xTaken.nBytes : 0;
        _Drop(xTaken);
        return;
    }
    m_xBlocks.InsertFirst(xTaken);
    if (bIdle)
    {
        xTaken.bIsDoomed = false;
        m_xIdle.InsertLast(xTaken);
        xTaken.SLink<SByUse>::InsertAfter(*xTaken.pPool->xIdle.pPrevious);
    }
}

bool CBlockPool::IsKnown(const SPoolName& xName, SPoolProperties& xProperties) noexcept
{
    const std::lock_guard xLock(m_xMutex);
    const SPool* const pPool = _Find(xName);
    if (pPool == nullptr || !pPool->bIsKnown)
    {
        return false;
    }
    xProperties = pPool->xProperties;
    return true;
}

void CBlockPool::Learn(const SPoolName& xName, const SPoolProperties& xProperties)
{
    const std::lock_guard xLock(m_xMutex);
    SPool& xPool = _FindOrAdd(xName);
    xPool.xProperties = xProperties;
    xPool.bIsKnown = true;
    if (!xPool.bHasIdleLimit)
    {
        xPool.pBound = xName.ePool == EPool::PageLocked ? &m_xPageLockedBound : &xPool.xOwnBound;
        xPool.pBound->nLimit = xProperties.nIdleLimit;
    }
}

void CBlockPool::SetIdleLimit(const SPoolName& xName, std::size_t nBytes)
{
    const std::lock_guard xLock(m_xMutex);
    SPool& xPool = _FindOrAdd(xName);
    const std::size_t nIdle = xPool.xStatistics.nBytesIdle;
    xPool.pBound->nBytes -= nIdle;
    xPool.xOwnBound = {nBytes, nIdle};
    xPool.pBound = &xPool.xOwnBound;
    xPool.bHasIdleLimit = true;
}

const SPool* CBlockPool::NextNeighbour(const SPoolName& xName, const SPool* pPool) noexcept
{
    const std::lock_guard xLock(m_xMutex);
    const SPool* const pOwn = _Find(xName);
    const auto IsNeighbour = [&](const SPool& xPool)
    { return &xPool != pOwn && pOwn->xProperties.bInHostsMemory && xPool.xProperties.bInHostsMemory; };
    do
    {
        pPool = pPool != nullptr ? pPool->pNext : m_pPools;
    } while (pPool != nullptr && !IsNeighbour(*pPool));
    return pPool;
}

SPoolStatistics CBlockPool::GetStatistics(const SPoolName& xName) noexcept
{
    const std::lock_guard xLock(m_xMutex);
    const SPool* const pPool = _Find(xName);
    if (pPool == nullptr)
    {
        return {};
    }
    SPoolStatistics xStatistics = pPool->xStatistics;
    xStatistics.nBlocksInUse = pPool->nBlocks - xStatistics.nBlocksIdle;
    xStatistics.nBytesInUse = pPool->nBytes - xStatistics.nBytesIdle;
    return xStatistics;
}

void CBlockPool::Forget(const SPoolName& xName) noexcept
{
    const std::lock_guard xLock(m_xMutex);
    SPool* const pPool = _Find(xName);
    if (pPool == nullptr)
    {
        return;
    }
    while (!pPool->xIdle.IsAlone())
    {
        // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete): a dropped block leaves the list
        _Drop(static_cast<SBlock&>(*pPool->xIdle.pNext));
    }
    m_xBlocks.ForEach(
        [&](SBlock& xBlock)
        {
            if (xBlock.pPool == pPool)
            {
                _LeavePool(xBlock);
            }
        });
}

SPool* CBlockPool::_Find(const SPoolName& xName) const noexcept
{
    SPool* pPool = m_pPools;
    while (pPool != nullptr && pPool->xName != xName)
    {
        pPool = pPool->pNext;
    }
    return pPool;
}

SPool& CBlockPool::_FindOrAdd(const SPoolName& xName)
{
    SPool* pPool = _Find(xName);
    if (pPool == nullptr)
    {
        pPool = new SPool;
        pPool->xName = xName;
        pPool->pNext = std::exchange(m_pPools, pPool);
    }
    return *pPool;
}

SBlock& CBlockPool::_OldestUnderBound(SPool& xPool) noexcept
{
    SPool* pPool = &xPool;
    if (pPool->xIdle.IsAlone())
    {
        // What fills the bound is then idle elsewhere.
        pPool = m_pPools;
        while (pPool->pBound != xPool.pBound || pPool->xIdle.IsAlone())
        {
            pPool = pPool->pNext;
        }
    }
    return _Oldest(*pPool);
}

SBlock& CBlockPool::_Take(SBlock& xBlock) noexcept
{
    xBlock.SLink<SByAddress>::Unlink();
    xBlock.SLink<SByKey>::Unlink();
    xBlock.SLink<SByUse>::Unlink();
    return xBlock;
}

void CBlockPool::_LeavePool(SBlock& xBlock) noexcept
{
    if (xBlock.nHolders == 0)
    {
        _LeaveIdle(xBlock);
    }
    --xBlock.pPool->nBlocks;
    xBlock.pPool->nBytes -= xBlock.nBytes;
    xBlock.pPool = nullptr;
}

void CBlockPool::_Drop(SBlock& xBlock) noexcept
{
    if (xBlock.pPool != nullptr)
    {
        _LeavePool(xBlock);
    }
    xBlock.SLink<SByAddress>::Unlink();
    --m_nBlocks;
    delete &xBlock;
}

} // namespace Qx::GPU
