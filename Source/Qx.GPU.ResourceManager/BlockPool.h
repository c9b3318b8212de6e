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

enum class EBlockKind
{
    Linear,
    Pitched,
    PageLocked
};

/// The page-locked host memory that was allocated while @p iDevice was current has records of its own beside those of
/// the device's memory, under a number that no device has, below 0. It goes with the device all the same when that is
/// reset.
constexpr int HostPoolOf(int iDevice) noexcept
{
    return ~iDevice;
}

/// What a block was asked for; requests are answered by blocks of an equal key only.
struct SBlockKey
{
    int iDevice = 0; ///< `HostPoolOf` the device when page-locked
    EBlockKind eKind = EBlockKind::Linear;
    std::size_t nWidth = 0; ///< bytes of a row; of the whole block unless pitched
    std::size_t nRows = 0;  ///< 1 unless pitched

    friend bool operator==(const SBlockKey&, const SBlockKey&) noexcept = default;
};

struct SBucket;

/// One device block: lent, idle, or taken out of the pool in order to be freed.
struct SBlock
{
    static std::uint64_t HashOf(const void* pDevice) noexcept
    {
        return reinterpret_cast<std::uintptr_t>(pDevice) * 0x9E3779B97F4A7C15U;
    }
    std::uint64_t GetHash() const noexcept { return HashOf(pMemory); }
    bool HasKey(const void* pDevice) const noexcept { return pMemory == pDevice; }

    void* pMemory = nullptr;
    std::size_t nPitch = 0; ///< of a pitched block
    std::size_t nBytes = 0; ///< of the device, padding included
    bool bHostMemory = false;

    /// How many releases are to come before the block is idle: 0 idle, 1 lent. More when the address was handed out
    /// again by the runtime while blocks that were lent at the same address had not been given back.
    std::size_t nHolders = 0;

    SBucket* pBucket = nullptr; ///< null: the block is lent but forgotten
    SLinks<SBlock> xOfBucket;   ///< among the idle blocks of the bucket, last released first
    SLinks<SBlock> xOfDevice;   ///< among the idle blocks of the device, last released first, or among taken ones
    SBlock* pNextInChain = nullptr;

    // What the caller sees. Never read, because a caller may change it.
    CCudaMemoryResource xLinear;
    CCudaMemoryPitchResource xPitched;
};

using CTakenBlocks = CIntrusiveList<SBlock, &SBlock::xOfDevice>;

/// The pool of one device, or of the host memory that was page-locked for it; kept until the process ends.
struct SDevice
{
    int iDevice = 0;
    bool bHostMemory = false; ///< blocks that are not pitched are page-locked memory
    bool bIsKnown = false;    ///< the value above and the memory that there is were found out
    std::size_t nIdleLimit = 0;
    bool bHasIdleLimit = false;  ///< the client set it
    std::size_t nBlocks = 0;     ///< lent and idle
    std::size_t nBytes = 0;      ///< of them
    SPoolStatistics xStatistics; ///< the blocks and bytes in use are derived from the above when asked for
    CIntrusiveList<SBlock, &SBlock::xOfDevice> xIdle;
    SDevice* pNext = nullptr;
};

/// The blocks of one key; lives as long as there is one.
struct SBucket
{
    static std::uint64_t HashOf(const SBlockKey& xKey) noexcept
    {
        constexpr std::uint64_t c_uFactor = 0x9E3779B97F4A7C15U;
        std::uint64_t uHash = xKey.nWidth * c_uFactor;
        uHash = ((uHash ^ (uHash >> 32)) + xKey.nRows) * c_uFactor;
        const auto uPlace = static_cast<std::uint64_t>(xKey.iDevice) * 4 + static_cast<std::uint64_t>(xKey.eKind);
        return ((uHash ^ (uHash >> 32)) + uPlace) * c_uFactor;
    }
    std::uint64_t GetHash() const noexcept { return HashOf(xKey); }
    bool HasKey(const SBlockKey& xOther) const noexcept { return xKey == xOther; }

    SBlockKey xKey;
    SDevice* pDevice = nullptr;
    CIntrusiveList<SBlock, &SBlock::xOfBucket> xIdle;
    std::size_t nBlocks = 0; ///< idle, lent and taken ones
    SBucket* pNextInChain = nullptr;
};

/// Records that left the pool. They are deleted with this object, which is to be outside the lock.
class CDroppedRecords
{
public:
    CDroppedRecords() noexcept = default;
    CDroppedRecords(const CDroppedRecords&) = delete;
    CDroppedRecords& operator=(const CDroppedRecords&) = delete;
    ~CDroppedRecords();

    void Add(SBlock& xBlock) noexcept { m_xBlocks.PushBack(xBlock); }
    void Add(SBucket& xBucket) noexcept
    {
        xBucket.pNextInChain = m_pBuckets;
        m_pBuckets = &xBucket;
    }

private:
    CTakenBlocks m_xBlocks;
    SBucket* m_pBuckets = nullptr;
};

enum class ERelease
{
    Done,          ///< the resource is empty
    Unknown,       ///< not a block of the pool
    IsIdle,        ///< given back before
    FreeIdleFirst, ///< the taken blocks must be freed to make room, then the release repeated
    FreeBlock      ///< the taken block is the released one: it must be freed instead of kept
};

/// The records of the pool. Every operation holds the lock for its own duration, and none of them makes a CUDA call,
/// throws or runs a destructor of something it was given: blocks that are to be freed are taken out and handed to the
/// caller, who frees them and reports with `Settle`. A taken block is found by nobody, so that it can neither be lent
/// nor be mistaken for a new block that the runtime places at the same address.
///
/// The destructor is trivial: the one pool of the process is never destroyed.
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
        SBucket* const pBucket = m_xBuckets.Find(xKey);
        if (pBucket == nullptr || pBucket->xIdle.IsEmpty())
        {
            return nullptr;
        }
        SBlock& xBlock = *pBucket->xIdle.First();
        _TakeIdle(xBlock);
        ++pBucket->pDevice->xStatistics.uHits;
        _MakeLent(xBlock, 1);
        return &xBlock;
    }

    /// Records @p pBlock, a new block of @p xKey that is now lent. @p pBucket is used when the key has no bucket.
    /// The device must have a record. A record that holds the same address can only be of memory that is gone: those
    /// who still have it must give it back before this block becomes idle, because nobody can tell which of them is
    /// releasing.
    SBlock& AddLent(const SBlockKey& xKey, std::unique_ptr<SBlock> pBlock, std::unique_ptr<SBucket>& pBucket,
        CDroppedRecords& xDropped) noexcept;

    /// Takes the block of @p xResource back where it simply becomes idle, which is the common case; returns false and
    /// does nothing where it does not.
    bool ReleaseToIdle(CResource& xResource) noexcept
    {
        const std::lock_guard xLock(m_xMutex);
        SBlock* const pBlock = m_xBlocks.Find(xResource.m_pDevice);
        if (pBlock == nullptr || pBlock->nHolders != 1 || pBlock->pBucket == nullptr ||
            pBlock->nBytes > _IdleRoom(*pBlock->pBucket->pDevice)) [[unlikely]]
        {
            return false;
        }
        _MakeIdle(*pBlock, xResource);
        return true;
    }

    /// Takes the block of @p xResource back.
    ERelease Release(CResource& xResource, bool bFree, CTakenBlocks& xTaken, CDroppedRecords& xDropped) noexcept;

    /// Takes out idle blocks of @p iDevice, least recently used first, until at most @p nBytesToKeep idle bytes remain.
    void TakeIdleAbove(int iDevice, std::size_t nBytesToKeep, CTakenBlocks& xTaken) noexcept;

    /// Reports what became of taken blocks: @p xFreed are gone, @p xKept return to what they were.
    void Settle(CTakenBlocks& xFreed, CTakenBlocks& xKept, CDroppedRecords& xDropped) noexcept;

    /// True when the device has a record with its properties; @p bHostMemory is set then.
    bool IsDeviceKnown(int iDevice, bool& bHostMemory) noexcept;

    /// Records the properties of a device; an idle limit that was set before stays. @p pDevice is used when the device
    /// has no record.
    void SetDevice(
        int iDevice, bool bHostMemory, std::size_t nDefaultIdleLimit, std::unique_ptr<SDevice>& pDevice) noexcept;

    /// Sets the idle limit of a device. @p pDevice is used when the device has no record.
    void SetIdleLimit(int iDevice, std::size_t nBytes, std::unique_ptr<SDevice>& pDevice) noexcept;

    /// Zeros when the device has no record.
    SPoolStatistics GetStatistics(int iDevice) noexcept;

    /// Drops the idle blocks of @p iDevice; a lent one stays recorded until it is given back, but belongs to no device.
    void Forget(int iDevice, CDroppedRecords& xDropped) noexcept;

    /// From now on nothing is taken out in order to be freed. Takes no lock, because the process may be exiting on a
    /// thread whose siblings were stopped while they held it.
    void Close() noexcept { m_bClosed.store(true, std::memory_order_relaxed); }

    bool IsClosed() const noexcept { return m_bClosed.load(std::memory_order_relaxed); }

private:
    SDevice* _FindDevice(int iDevice) const noexcept;
    SDevice& _Device(int iDevice, std::unique_ptr<SDevice>& pDevice) noexcept;
    static void _Count(const SBlock& xBlock) noexcept
    {
        SDevice& xDevice = *xBlock.pBucket->pDevice;
        ++xDevice.nBlocks;
        xDevice.nBytes += xBlock.nBytes;
    }
    static void _Uncount(const SBlock& xBlock) noexcept
    {
        SDevice& xDevice = *xBlock.pBucket->pDevice;
        --xDevice.nBlocks;
        xDevice.nBytes -= xBlock.nBytes;
    }
    static void _CountIdle(const SBlock& xBlock) noexcept
    {
        SPoolStatistics& xStatistics = xBlock.pBucket->pDevice->xStatistics;
        ++xStatistics.nBlocksIdle;
        xStatistics.nBytesIdle += xBlock.nBytes;
    }
    static void _TakeIdle(SBlock& xBlock) noexcept
    {
        SDevice& xDevice = *xBlock.pBucket->pDevice;
        xBlock.pBucket->xIdle.Remove(xBlock);
        xDevice.xIdle.Remove(xBlock);
        --xDevice.xStatistics.nBlocksIdle;
        xDevice.xStatistics.nBytesIdle -= xBlock.nBytes;
    }
    static std::size_t _IdleRoom(const SDevice& xDevice) noexcept
    {
        const std::size_t nIdle = xDevice.xStatistics.nBytesIdle;
        return xDevice.nIdleLimit - std::min(nIdle, xDevice.nIdleLimit);
    }
    static void _MakeIdle(SBlock& xBlock, CResource& xResource) noexcept
    {
        // Emptied before anyone else can be given the block: the resource may be the one inside the record.
        xResource.m_pDevice = nullptr;
        xBlock.nHolders = 0;
        xBlock.pBucket->xIdle.PushFront(xBlock);
        xBlock.pBucket->pDevice->xIdle.PushFront(xBlock);
        _CountIdle(xBlock);
    }
    static void _MakeLent(SBlock& xBlock, std::size_t nHolders) noexcept
    {
        xBlock.nHolders = nHolders;
        const SBlockKey& xKey = xBlock.pBucket->xKey;
        if (xKey.eKind != EBlockKind::Pitched)
        {
            xBlock.xLinear.m_pDevice = xBlock.pMemory;
            xBlock.xLinear.m_nSize = xKey.nWidth;
        }
        else
        {
            xBlock.xPitched.m_pDevice = xBlock.pMemory;
            xBlock.xPitched.m_nPitch = xBlock.nPitch;
            xBlock.xPitched.m_nWidth = xKey.nWidth;
            xBlock.xPitched.m_nRows = xKey.nRows;
        }
        SDevice& xDevice = *xBlock.pBucket->pDevice;
        const std::size_t nBytesInUse = xDevice.nBytes - xDevice.xStatistics.nBytesIdle;
        if (xDevice.xStatistics.nPeakBytesInUse < nBytesInUse)
        {
            xDevice.xStatistics.nPeakBytesInUse = nBytesInUse;
        }
    }
    void _TakeIdleAbove(SDevice& xDevice, std::size_t nBytesToKeep, CTakenBlocks& xTaken) noexcept;
    void _LeaveBucket(SBlock& xBlock, CDroppedRecords& xDropped) noexcept;

    std::mutex m_xMutex;
    std::atomic<bool> m_bClosed = false;
    CIntrusiveTable<SBucket> m_xBuckets;
    CIntrusiveTable<SBlock> m_xBlocks;
    SDevice* m_pDevices = nullptr;
};

} // namespace Qx::GPU
