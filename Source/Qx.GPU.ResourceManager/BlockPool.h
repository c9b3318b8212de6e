#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "Qx.GPU.ResourceManager/Intrusive.h"
#include "Qx.GPU.ResourceManager/ResourceManager.h"

namespace Qx::GPU
{

/// Tells a runtime that a block lies idle from now on, or is lent again. Called while the pool is locked.
using IdleMarker = void (*)(void* pMemory, bool bIdle) noexcept;

/// Names one pool: the memory of a device, or the host memory that was page-locked while it was current.
struct SPoolName
{
    int iDevice = 0;
    EPool ePool = EPool::Device;

    friend bool operator==(const SPoolName&, const SPoolName&) noexcept = default;
};

/// What a block was asked for; requests are answered by blocks of an equal key only.
struct SBlockKey
{
    SPoolName xPool;
    bool bPitched = false;
    std::size_t nWidth = 0; ///< bytes of a row; of the whole block unless pitched
    std::size_t nRows = 1;  ///< 1 unless pitched

    friend bool operator==(const SBlockKey&, const SBlockKey&) noexcept = default;
};

/// A block's place among all but the taken ones, by their addresses.
struct SByAddress
{
    static std::uint64_t HashOf(const void* pMemory) noexcept
    {
        return reinterpret_cast<std::uintptr_t>(pMemory) * 0x9E3779B97F4A7C15U;
    }
};

/// A block's place among the idle ones, by what they answer.
struct SByKey
{
    static std::uint64_t HashOf(const SBlockKey& xKey) noexcept
    {
        // One large odd factor for each number: none of them alone, nor steps of two at once, crowd the upper bits.
        const auto uPlace = static_cast<std::uint64_t>(xKey.xPool.iDevice) * 4 +
            static_cast<std::uint64_t>(xKey.xPool.ePool) * 2 + static_cast<std::uint64_t>(xKey.bPitched);
        return xKey.nWidth * 0x9E3779B97F4A7C15U + xKey.nRows * 0xBF58476D1CE4E5B9U + uPlace * 0x94D049BB133111EBU;
    }
};

/// A block's place among the idle ones of its pool, last released first.
struct SByUse;

struct SPool;

/// One block: lent, idle, or taken out of the pool in order to be freed, and then in none of the lists.
struct SBlock : SLink<SByAddress>, SLink<SByKey>, SLink<SByUse>
{
    SBlockKey xKey;
    void* pMemory = nullptr;
    std::size_t nPitch = 0; ///< of a pitched block
    std::size_t nBytes = 0; ///< of the memory, padding included
    bool bHostMemory = false;
    SPool* pPool = nullptr; ///< null: the block is lent but forgotten

    /// How many releases are to come before the block is idle: 0 idle, 1 lent. More when the address was handed out
    /// again by the runtime while blocks that were lent at the same address had not been given back.
    std::size_t nHolders = 0;
    bool bIsDoomed = false; ///< idle, but to be freed and not lent again

    // What the caller sees. Never read, because a caller may change it.
    CCudaMemoryResource xLinear;
    CCudaMemoryPitchResource xPitched;
};

/// What may lie idle, and what does.
struct SIdleBound
{
    std::size_t nLimit = 0;
    std::size_t nBytes = 0;
};

/// What is to be found out about a pool before it is used.
struct SPoolProperties
{
    bool bHostMemory = false;    ///< blocks that are not pitched are page-locked memory
    bool bInHostsMemory = false; ///< all blocks are in the memory of the host, which other pools use too
    std::size_t nIdleLimit = 0;  ///< unless the client sets one; of page-locked memory for all such pools together
};

/// A pool; kept until the process ends.
struct SPool
{
    SPoolName xName;
    bool bIsKnown = false; ///< the properties were found out
    SPoolProperties xProperties;
    SIdleBound xOwnBound;
    SIdleBound* pBound = &xOwnBound; ///< or that of all page-locked memory, until the client sets a limit
    bool bHasIdleLimit = false;      ///< the client set it
    std::size_t nBlocks = 0;         ///< lent and idle
    std::size_t nBytes = 0;          ///< of them
    SPoolStatistics xStatistics;     ///< the blocks and bytes in use are derived from the above when asked for
    SLink<SByUse> xIdle;
    SPool* pNext = nullptr;
};

enum class ERelease
{
    Done,          ///< the resource is empty
    Unknown,       ///< not a block of the pool
    IsIdle,        ///< given back before
    FreeIdleFirst, ///< the taken block must be freed to make room, then the release repeated
    FreeBlock      ///< the taken block is the released one: it must be freed instead of kept
};

/// The records of the pools. Every operation holds the lock for its own duration and makes no CUDA call: a block that
/// is to be freed is taken out and handed to the caller, who frees it and reports with `Settle`. A taken block is found
/// by nobody, so that it can neither be lent nor be mistaken for a new block that the runtime places at the same
/// address.
///
/// The destructor is trivial: the one object of the process is never destroyed.
class CBlockPool
{
public:
    constexpr CBlockPool() noexcept = default;
    CBlockPool(const CBlockPool&) = delete;
    CBlockPool& operator=(const CBlockPool&) = delete;

    /// Lends the idle block of @p xKey that was released last; null when there is none.
    SBlock* Lend(const SBlockKey& xKey) noexcept
    {
        const std::lock_guard xLock(m_xMutex);
        SBlock* const pBlock = m_xIdle.Find(xKey);
        if (pBlock != nullptr)
        {
            _LeaveIdle(*pBlock);
            ++pBlock->pPool->xStatistics.uHits;
            if (m_pMarkIdle != nullptr) [[unlikely]]
            {
                m_pMarkIdle(pBlock->pMemory, false);
            }
            _MakeLent(*pBlock, 1);
        }
        return pBlock;
    }

    /// Has @p pMarkIdle told of every block that comes to lie idle or is lent again; null: nobody is told.
    void TellOfIdle(IdleMarker pMarkIdle) noexcept
    {
        const std::lock_guard xLock(m_xMutex);
        m_pMarkIdle = pMarkIdle;
    }

    /// Records @p pBlock, a new block that is now lent. Its pool must be known. A record that holds the same address
    /// can only be of memory that is gone: those who still have it must give it back before this block becomes idle,
    /// because nobody can tell which of them is releasing.
    SBlock& AddLent(std::unique_ptr<SBlock> pBlock) noexcept;

    /// Takes the block of @p xResource back where it simply becomes idle, which is the common case; returns false and
    /// does nothing where it does not.
    bool ReleaseToIdle(CResource& xResource) noexcept
    {
        if (IsClosed()) [[unlikely]]
        {
            return false;
        }
        const std::lock_guard xLock(m_xMutex);
        SBlock* const pBlock = m_xBlocks.Find(xResource.m_pDevice);
        if (pBlock == nullptr || pBlock->nHolders != 1 || pBlock->pPool == nullptr ||
            pBlock->nBytes > _IdleRoom(*pBlock->pPool)) [[unlikely]]
        {
            return false;
        }
        _MakeIdle(*pBlock, xResource);
        return true;
    }

    /// Takes the block of @p xResource back. When the pool is closed it waits for nobody, and when another thread is at
    /// the records only empties the resource.
    /// @param bFree the block is not to be lent again
    /// @param bMayTake false: nothing is taken, and what would have been is left to `TakeDeferred`
    ERelease Release(CResource& xResource, bool bFree, bool bMayTake, SBlock*& pTaken) noexcept;

    /// True while there may be something for `TakeDeferred`.
    bool HasDeferred() noexcept
    {
        if (IsClosed())
        {
            return false;
        }
        const std::lock_guard xLock(m_xMutex);
        return m_bHasDeferred;
    }

    /// Takes out an idle block that releases have left to be freed; null when there is none.
    SBlock* TakeDeferred() noexcept;

    /// Takes out the least recently used idle block of a pool whose idle bytes exceed @p nBytesToKeep; null when they
    /// do not.
    SBlock* TakeIdleAbove(const SPoolName& xName, std::size_t nBytesToKeep) noexcept;

    /// Reports what became of a taken block: it is gone with its record, or returns to what it was.
    void Settle(SBlock& xTaken, bool bFreed) noexcept;

    /// True when the properties of the pool are recorded; @p xProperties is set then.
    bool IsKnown(const SPoolName& xName, SPoolProperties& xProperties) noexcept;

    /// Records the properties of a pool; an idle limit that was set before stays. Throws `std::bad_alloc`.
    void Learn(const SPoolName& xName, const SPoolProperties& xProperties);

    /// Goes through the pools, but the one named @p xName, that live on the same memory as that one.
    /// @param pPool the one before; null for the first
    /// @return null when there is no further one
    const SPool* NextNeighbour(const SPoolName& xName, const SPool* pPool) noexcept;

    /// Sets the idle limit of a pool. Throws `std::bad_alloc`.
    void SetIdleLimit(const SPoolName& xName, std::size_t nBytes);

    /// Zeros for a pool that was never used.
    SPoolStatistics GetStatistics(const SPoolName& xName) noexcept;

    /// Drops the idle blocks of a pool; a lent one stays recorded until it is given back, but belongs to no pool.
    void Forget(const SPoolName& xName) noexcept;

    /// From now on nothing is taken out in order to be freed. Takes no lock, because the process may be exiting on a
    /// thread whose siblings were stopped while they held it.
    void Close() noexcept { m_bClosed.store(true, std::memory_order_relaxed); }

    bool IsClosed() const noexcept { return m_bClosed.load(std::memory_order_relaxed); }

    /// Enclose a fork, so that the child has whole records and a lock that somebody will open. Giving back keeps every
    /// block in the child: the runtime may have locks there that nobody opens.
    void LockForFork() noexcept { m_xMutex.lock(); }
    void UnlockAfterFork(bool bIsChild) noexcept
    {
        m_bIsChild |= bIsChild;
        m_bHasDeferred &= !bIsChild;
        m_xMutex.unlock();
    }

private:
    SPool* _Find(const SPoolName& xName) const noexcept;
    SPool& _FindOrAdd(const SPoolName& xName);
    static void _LeaveIdle(SBlock& xBlock) noexcept
    {
        SPoolStatistics& xStatistics = xBlock.pPool->xStatistics;
        --xStatistics.nBlocksIdle;
        xStatistics.nBytesIdle -= xBlock.nBytes;
        xBlock.pPool->pBound->nBytes -= xBlock.nBytes;
        xBlock.SLink<SByKey>::Unlink();
        xBlock.SLink<SByUse>::Unlink();
    }
    static std::size_t _IdleRoom(const SPool& xPool) noexcept
    {
        const SIdleBound& xBound = *xPool.pBound;
        return xBound.nLimit - std::min(xBound.nBytes, xBound.nLimit);
    }
    void _MakeIdle(SBlock& xBlock, CResource& xResource) noexcept
    {
        // Emptied before anyone else can be given the block: the resource may be the one inside the record.
        xResource.m_pDevice = nullptr;
        xBlock.nHolders = 0;
        if (!xBlock.bIsDoomed) [[likely]]
        {
            m_xIdle.InsertFirst(xBlock);
            xBlock.SLink<SByUse>::InsertAfter(xBlock.pPool->xIdle);
        }
        else
        {
            xBlock.SLink<SByUse>::InsertAfter(*xBlock.pPool->xIdle.pPrevious);
        }
        SPoolStatistics& xStatistics = xBlock.pPool->xStatistics;
        ++xStatistics.nBlocksIdle;
        xStatistics.nBytesIdle += xBlock.nBytes;
        xBlock.pPool->pBound->nBytes += xBlock.nBytes;
        // At the exit and in the child of a fork the runtime is left alone.
        if (m_pMarkIdle != nullptr && !m_bIsChild && !IsClosed()) [[unlikely]]
        {
            m_pMarkIdle(xBlock.pMemory, true);
        }
    }
    static void _MakeLent(SBlock& xBlock, std::size_t nHolders) noexcept
    {
        xBlock.nHolders = nHolders;
        if (!xBlock.xKey.bPitched)
        {
            xBlock.xLinear.m_pDevice = xBlock.pMemory;
            xBlock.xLinear.m_nSize = xBlock.xKey.nWidth;
        }
        else
        {
            xBlock.xPitched.m_pDevice = xBlock.pMemory;
            xBlock.xPitched.m_nPitch = xBlock.nPitch;
            xBlock.xPitched.m_nWidth = xBlock.xKey.nWidth;
            xBlock.xPitched.m_nRows = xBlock.xKey.nRows;
        }
        SPool& xPool = *xBlock.pPool;
        SPoolStatistics& xStatistics = xPool.xStatistics;
        xStatistics.nPeakBytesInUse = std::max(xStatistics.nPeakBytesInUse, xPool.nBytes - xStatistics.nBytesIdle);
    }
    static SBlock& _Oldest(SPool& xPool) noexcept { return static_cast<SBlock&>(*xPool.xIdle.pPrevious); }
    SBlock& _OldestUnderBound(SPool& xPool) noexcept;
    static SBlock& _Take(SBlock& xBlock) noexcept;
    static void _LeavePool(SBlock& xBlock) noexcept;
    void _Drop(SBlock& xBlock) noexcept;

    std::mutex m_xMutex;
    std::atomic<bool> m_bClosed = false;
    bool m_bIsChild = false; ///< of a fork
    bool m_bHasDeferred = false;
    CIntrusiveTable<SBlock, SByAddress, &SBlock::pMemory> m_xBlocks;
    CIntrusiveTable<SBlock, SByKey, &SBlock::xKey> m_xIdle;
    std::size_t m_nBlocks = 0;
    SPool* m_pPools = nullptr;
    IdleMarker m_pMarkIdle = nullptr;
    SIdleBound m_xPageLockedBound;
};

} // namespace Qx::GPU
