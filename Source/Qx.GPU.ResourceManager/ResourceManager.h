#pragma once

#include <cstddef>
#include <cstdint>

#include "Qx.Core/QxException.h"
#include "Qx.GPU.ResourceManager/Resource.h"

namespace Qx::GPU
{

/// What the pool of one device holds and has done since the process started.
struct SPoolStatistics
{
    std::size_t nBlocksInUse = 0;     ///< blocks lent and not yet given back
    std::size_t nBytesInUse = 0;      ///< bytes of them, row padding included
    std::size_t nBlocksIdle = 0;      ///< blocks waiting for a request of their size
    std::size_t nBytesIdle = 0;       ///< bytes of them
    std::size_t nPeakBytesInUse = 0;  ///< the largest `nBytesInUse` so far
    std::uint64_t uHits = 0;          ///< requests answered by an idle block
    std::uint64_t uMisses = 0;        ///< requests answered by a new allocation
    std::uint64_t uTrimmedBlocks = 0; ///< idle blocks given back to the device
    std::uint64_t uTrimmedBytes = 0;  ///< bytes of them

    /// True when all fields agree.
    friend bool operator==(const SPoolStatistics&, const SPoolStatistics&) noexcept = default;
};

/// Which of a device's two pools is meant.
enum class EPool
{
    Device,    ///< its memory, pitched and linear
    PageLocked ///< the host memory that was page-locked while the device was current
};

/// The process's pool of device memory, and of page-locked host memory for transfers to and from it.
///
/// A block that is given back waits for the next request of exactly its device, kind and size. Images of a stream of
/// frames ask for the same sizes over and over, so such a request asks for the current device and is answered without
/// another CUDA call, without rounding and without fragmentation, in a time that does not depend on how many blocks
/// wait. Idle blocks are bounded per device (see `SetIdleLimit`); the least recently used one goes first.
///
/// All operations may be called from several threads at once. They work on the calling thread's current device unless
/// they say otherwise, and leave it current. No CUDA call is made while the pool is locked.
///
/// The pool knows nothing of streams: work that was queued on a block must be complete, or followed on the same stream
/// by all work of the block's next user, before the block is given back.
///
/// The pool lives until the process ends and gives nothing back then: the driver frees the memory, and the runtime may
/// already be unloading. Blocks may be given back during the exit, which then makes no CUDA call; operations that must
/// know the current device are refused with a `CQxException` from then on. The exit begins for the pool where the exit
/// handlers run that were registered before its first block: objects with static storage that were made later, and are
/// therefore destroyed earlier, find it working as usual. In the child of a fork, where CUDA cannot be used, blocks may
/// be given back too, again without a CUDA call.
class CResourceManager
{
public:
    CResourceManager() = delete;

    /// Lends a pitched block of @p nRows rows of at least @p nWidth bytes on the current device. Contents are
    /// undefined.
    ///
    /// The result describes the block; copy it at once, the reference is valid until the block is given back. Its
    /// pointer is never null: a request of 0 bytes or rows is lent a block of at least one byte.
    ///
    /// Throws a `CQxException` when the process is exiting, a `CQxCudaException` when the current device or, at the
    /// first request on a device, its properties cannot be queried, `std::bad_alloc` when the host has no memory for
    /// the record of a new block, a `CQxOutOfMemoryException` when there is no memory left even after the idle blocks
    /// of the pool, and those of all pools on the same memory, were freed, or when the byte count exceeds 64 bits (the
    /// message says what was asked for, in use, idle and freed, and what the device has), and a `CQxCudaException` when
    /// another CUDA call fails. The pool is consistent after each, and no CUDA error is left pending.
    static QX_GPU_API CCudaMemoryPitchResource& GetCudaMemoryPitch(std::size_t nWidth, std::size_t nRows);

    /// Lends a linear block of at least @p nSize bytes on the current device that the host can read through the same
    /// pointer. Otherwise as `GetCudaMemoryPitch`.
    ///
    /// The block is managed memory, or mapped page-locked memory on integrated devices without concurrent managed
    /// access. On a device without concurrent managed access the host must not touch managed memory while any kernel
    /// of the device runs.
    static QX_GPU_API CCudaMemoryResource& GetCudaMemory(std::size_t nSize);

    /// Lends @p nSize bytes of page-locked host memory, which every device can copy from and to without a detour.
    /// Contents are undefined. Otherwise as `GetCudaMemoryPitch`; it is the host that runs out of memory.
    ///
    /// The memory is allocated while the current device is current, so it is gone when that device is reset.
    static QX_GPU_API CCudaMemoryResource& GetPageLockedMemory(std::size_t nSize);

    /// Takes the block of @p xResource back and empties @p xResource (pointer null, the other fields stay).
    ///
    /// An empty resource is left alone. The block goes to the pool of the device that it came from, whichever device is
    /// current, also when that one has a fault; where it would exceed the idle limit, idle blocks are freed first, or
    /// the block itself when it alone exceeds the limit. It waits for no other thread: while one of them frees, or in a
    /// host function, which the runtime does not let free, the block is kept beyond the limit, and the thread that
    /// frees, or the next request for a new block, frees the surplus. Giving back what the pool does not hold as lent
    /// (a foreign block, or one given back already) throws a `CQxException`; a failing CUDA call throws a
    /// `CQxCudaException`. After a failure the resource is unchanged and the block still lent.
    ///
    /// @param bFree true frees the block instead of keeping it for the next request: at once, or by the thread that
    /// frees just now. In a host function it throws
    static QX_GPU_API void ReleaseResource(CResource& xResource, bool bFree);

    /// What a pool of @p iDevice holds; all zero for a device that was never used, or that there is not.
    static QX_GPU_API SPoolStatistics GetStatistics(int iDevice, EPool ePool = EPool::Device);

    /// What the current device's memory pool holds. Throws a `CQxCudaException` when there is no device, a
    /// `CQxException` when the process is exiting; so do the two below.
    static QX_GPU_API SPoolStatistics GetStatistics();

    /// Frees idle blocks of a pool of the current device, least recently used first, until at most @p nBytesToKeep
    /// remain. Throws a `CQxCudaException` when a block cannot be freed; that block and those after it stay in the
    /// pool.
    static QX_GPU_API void Trim(std::size_t nBytesToKeep, EPool ePool = EPool::Device);

    /// Bounds the idle bytes of a pool of the current device and trims to the bound as `Trim` does; when that throws
    /// the bound is set nevertheless, and later releases free the surplus. Until this is called the bound is half of
    /// the device's memory; for page-locked memory, which the rest of the system goes without, it is an eighth of what
    /// the process may use of the host's, for all such pools together. Throws `std::bad_alloc` too, before anything is
    /// changed.
    static QX_GPU_API void SetIdleLimit(std::size_t nBytes, EPool ePool = EPool::Device);

    /// Forgets every block of both pools of @p iDevice without a CUDA call, to be called after `cudaDeviceReset`, which
    /// has freed them all, before the device is used again by any thread. References to its blocks are no longer valid.
    ///
    /// Blocks that are still lent may be given back as usual, which then only empties the resource. When the runtime
    /// places a new block at the address of such a one, nobody can tell which of the two a release means: the new block
    /// becomes idle with the last of their releases, so that it is never lent while one of them may still use it.
    static QX_GPU_API void ForgetDevice(int iDevice);
};

} // namespace Qx::GPU
