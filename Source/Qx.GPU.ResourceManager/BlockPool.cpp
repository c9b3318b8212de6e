#include "Qx.GPU.ResourceManager/BlockPool.h"

namespace Qx::GPU
{

CDroppedRecords::~CDroppedRecords()
{
    while (const SBlock* const pBlock = m_xBlocks.PopFront())
    {
        delete pBlock;
    }
    while (m_pBuckets != nullptr)
    {
        const SBucket* const pBucket = m_pBuckets;
        m_pBuckets = pBucket->pNextInChain;
        delete pBucket;
    }
}

SBlock& CBlockPool::AddLent(const SBlockKey& xKey, std::unique_ptr<SBlock> pBlock, std::unique_ptr<SBucket>& pBucket,
    CDroppedRecords& xDropped) noexcept
{
    const std::lock_guard xLock(m_xMutex);
    std::size_t nHolders = 1;
    if (SBlock* const pGone = m_xBlocks.Find(pBlock->pMemory))
    {
        nHolders += pGone->nHolders;
        m_xBlocks.Remove(*pGone);
        if (pGone->pBucket != nullptr)
        {
            if (pGone->nHolders == 0)
            {
                _TakeIdle(*pGone);
            }
            _Uncount(*pGone);
            _LeaveBucket(*pGone, xDropped);
        }
        xDropped.Add(*pGone);
    }
    SBucket* pUsedBucket = m_xBuckets.Find(xKey);
    if (pUsedBucket == nullptr)
    {
        pUsedBucket = pBucket.release();
        pUsedBucket->xKey = xKey;
        pUsedBucket->pDevice = _FindDevice(xKey.iDevice);
        m_xBuckets.Insert(*pUsedBucket);
    }
    ++pUsedBucket->nBlocks;
    ++pUsedBucket->pDevice->xStatistics.uMisses;
    SBlock& xBlock = *pBlock.release();
    xBlock.pBucket = pUsedBucket;
    m_xBlocks.Insert(xBlock);
    _Count(xBlock);
    _MakeLent(xBlock, nHolders);
    return xBlock;
}

ERelease CBlockPool::Release(CResource& xResource, bool bFree, CTakenBlocks& xTaken, CDroppedRecords& xDropped) noexcept
{
    const std::lock_guard xLock(m_xMutex);
    SBlock* const pBlock = m_xBlocks.Find(xResource.m_pDevice);
    if (pBlock == nullptr)
    {
        return ERelease::Unknown;
    }
    if (pBlock->nHolders == 0)
    {
        return ERelease::IsIdle;
    }
    if (pBlock->pBucket == nullptr || pBlock->nHolders > 1)
    {
        xResource.m_pDevice = nullptr;
        if (--pBlock->nHolders == 0)
        {
            m_xBlocks.Remove(*pBlock);
            xDropped.Add(*pBlock);
        }
        return ERelease::Done;
    }
    SDevice& xDevice = *pBlock->pBucket->pDevice;
    if (!IsClosed())
    {
        if (bFree || pBlock->nBytes > xDevice.nIdleLimit)
        {
            m_xBlocks.Remove(*pBlock);
            xTaken.PushBack(*pBlock);
            return ERelease::FreeBlock;
        }
        if (pBlock->nBytes > _IdleRoom(xDevice))
        {
            _TakeIdleAbove(xDevice, xDevice.nIdleLimit - pBlock->nBytes, xTaken);
            return ERelease::FreeIdleFirst;
        }
    }
    _MakeIdle(*pBlock, xResource);
    return ERelease::Done;
}

void CBlockPool::TakeIdleAbove(int iDevice, std::size_t nBytesToKeep, CTakenBlocks& xTaken) noexcept
{
    const std::lock_guard xLock(m_xMutex);
    if (SDevice* const pDevice = _FindDevice(iDevice))
    {
        _TakeIdleAbove(*pDevice, nBytesToKeep, xTaken);
    }
}

void CBlockPool::Settle(CTakenBlocks& xFreed, CTakenBlocks& xKept, CDroppedRecords& xDropped) noexcept
{
    const std::lock_guard xLock(m_xMutex);
    while (SBlock* const pBlock = xFreed.PopFront())
    {
        if (pBlock->nHolders == 0)
        {
            SPoolStatistics& xStatistics = pBlock->pBucket->pDevice->xStatistics;
            ++xStatistics.uTrimmedBlocks;
            xStatistics.uTrimmedBytes += pBlock->nBytes;
        }
        else
        {
            _Uncount(*pBlock);
        }
        _LeaveBucket(*pBlock, xDropped);
        xDropped.Add(*pBlock);
    }
    // Taken least recently used first, so the last one goes back first to become the most recent of them.
    while (SBlock* const pBlock = xKept.Last())
    {
        xKept.Remove(*pBlock);
        m_xBlocks.Insert(*pBlock);
        if (pBlock->nHolders == 0)
        {
            pBlock->pBucket->xIdle.PushBack(*pBlock);
            pBlock->pBucket->pDevice->xIdle.PushBack(*pBlock);
            _Count(*pBlock);
            _CountIdle(*pBlock);
        }
    }
}

bool CBlockPool::IsDeviceKnown(int iDevice, bool& bHostMemory) noexcept
{
    const std::lock_guard xLock(m_xMutex);
    const SDevice* const pDevice = _FindDevice(iDevice);
    if (pDevice == nullptr || !pDevice->bIsKnown)
    {
        return false;
    }
    bHostMemory = pDevice->bHostMemory;
    return true;
}

void CBlockPool::SetDevice(
    int iDevice, bool bHostMemory, std::size_t nDefaultIdleLimit, std::unique_ptr<SDevice>& pDevice) noexcept
{
    const std::lock_guard xLock(m_xMutex);
    SDevice& xDevice = _Device(iDevice, pDevice);
    xDevice.bHostMemory = bHostMemory;
    xDevice.bIsKnown = true;
    if (!xDevice.bHasIdleLimit)
    {
        xDevice.nIdleLimit = nDefaultIdleLimit;
    }
}

void CBlockPool::SetIdleLimit(int iDevice, std::size_t nBytes, std::unique_ptr<SDevice>& pDevice) noexcept
{
    const std::lock_guard xLock(m_xMutex);
    SDevice& xDevice = _Device(iDevice, pDevice);
    xDevice.nIdleLimit = nBytes;
    xDevice.bHasIdleLimit = true;
}

SPoolStatistics CBlockPool::GetStatistics(int iDevice) noexcept
{
    const std::lock_guard xLock(m_xMutex);
    const SDevice* const pDevice = _FindDevice(iDevice);
    if (pDevice == nullptr)
    {
        return {};
    }
    SPoolStatistics xStatistics = pDevice->xStatistics;
    xStatistics.nBlocksInUse = pDevice->nBlocks - xStatistics.nBlocksIdle;
    xStatistics.nBytesInUse = pDevice->nBytes - xStatistics.nBytesIdle;
    return xStatistics;
}

void CBlockPool::Forget(int iDevice, CDroppedRecords& xDropped) noexcept
{
    const std::lock_guard xLock(m_xMutex);
    SDevice* const pDevice = _FindDevice(iDevice);
    if (pDevice == nullptr)
    {
        return;
    }
    while (SBlock* const pBlock = pDevice->xIdle.First())
    {
        _TakeIdle(*pBlock);
        _Uncount(*pBlock);
        m_xBlocks.Remove(*pBlock);
        _LeaveBucket(*pBlock, xDropped);
        xDropped.Add(*pBlock);
    }
    m_xBlocks.ForEach(
        [&](SBlock& xBlock)
        {
            if (xBlock.pBucket != nullptr && xBlock.pBucket->pDevice == pDevice)
            {
                _Uncount(xBlock);
                _LeaveBucket(xBlock, xDropped);
            }
        });
}

SDevice* CBlockPool::_FindDevice(int iDevice) const noexcept
{
    SDevice* pDevice = m_pDevices;
    while (pDevice != nullptr && pDevice->iDevice != iDevice)
    {
        pDevice = pDevice->pNext;
    }
    return pDevice;
}

SDevice& CBlockPool::_Device(int iDevice, std::unique_ptr<SDevice>& pDevice) noexcept
{
    if (SDevice* const pKnown = _FindDevice(iDevice))
    {
        return *pKnown;
    }
    pDevice->iDevice = iDevice;
    pDevice->pNext = m_pDevices;
    m_pDevices = pDevice.release();
    return *m_pDevices;
}

void CBlockPool::_TakeIdleAbove(SDevice& xDevice, std::size_t nBytesToKeep, CTakenBlocks& xTaken) noexcept
{
    while (xDevice.xStatistics.nBytesIdle > nBytesToKeep)
    {
        SBlock& xBlock = *xDevice.xIdle.Last();
        _TakeIdle(xBlock);
        _Uncount(xBlock);
        m_xBlocks.Remove(xBlock);
        xTaken.PushBack(xBlock);
    }
}

void CBlockPool::_LeaveBucket(SBlock& xBlock, CDroppedRecords& xDropped) noexcept
{
    SBucket& xBucket = *xBlock.pBucket;
    xBlock.pBucket = nullptr;
    if (--xBucket.nBlocks == 0)
    {
        m_xBuckets.Remove(xBucket);
        xDropped.Add(xBucket);
    }
}

} // namespace Qx::GPU
