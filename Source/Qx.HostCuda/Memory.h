#pragma once

#include "Qx.HostCuda/HostCuda.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <shared_mutex>
#include <vector>

namespace Qx::HostCuda
{

class CDevice;

/// A live allocation other than an array.
struct SBlock
{
    std::uintptr_t uBase = 0;
    std::size_t nSize = 0;
    std::size_t nPitch = 0; ///< distance of the rows; equal to nWidth unless the block is pitched
    std::size_t nWidth = 0; ///< bytes of a row in use
    int iDevice = 0;
    EMemoryKind eKind = EMemoryKind::Device;
    mutable bool bForeignUse = false; ///< work of another device has used it; accessed as an atomic

    /// True if the host may use the memory too; the device may use all of it.
    [[nodiscard]] bool IsForHost() const noexcept
    {
        return eKind == EMemoryKind::Managed || eKind == EMemoryKind::PageLocked;
    }
};

/// A live array. It has a description but no contents.
struct SArray
{
    cudaChannelFormatDesc xFormat{};
    cudaExtent xExtent{};
    unsigned uFlags = 0;
    int iDevice = 0;
    std::size_t nByteCount = 0;
};

/// The registry of all allocations of the process.
///
/// Who checks an area and then queues work on it holds the read lock until the work is queued; who frees a block takes
/// it out of the registry and then waits for the device. So work never meets a block that is gone, and a copy of a
/// stale pointer is refused.
///
/// Under AddressSanitizer the blocks come from its allocator, so that it finds use after free and access beyond the
/// end; the padding of pitched rows is poisoned besides.
class CMemory
{
public:
    using CReadLock = std::shared_lock<std::shared_mutex>;

    /// The registry of the process; never destroyed.
    [[nodiscard]] static CMemory& Get();

    CMemory() = default;
    ~CMemory() = delete;
    CMemory(const CMemory&) = delete;
    CMemory& operator=(const CMemory&) = delete;

    [[nodiscard]] CReadLock Read() { return CReadLock(m_xMutex); }

    /// The block that contains an address, or null. Needs the read lock, as long as the result is used.
    [[nodiscard]] const SBlock* Find(std::uintptr_t uAddress) const noexcept;
    /// The block that contains the first byte of [uAddress, uAddress + nSpan) or else begins in there, or null. Needs
    /// the read lock, as long as the result is used.
    [[nodiscard]] const SBlock* FindMet(std::uintptr_t uAddress, std::size_t nSpan) const noexcept;
    /// Notes that work of a device uses a block, so that freeing the block waits for that device too. Needs the read
    /// lock.
    static void NoteUse(const SBlock& xBlock, const CDevice& xDevice) noexcept;

    /// Allocates rows on a device, 1 row where the block has no pitch. Its budget pays for all but page-locked memory.
    cudaError_t Allocate(CDevice& xDevice, EMemoryKind eKind, std::size_t nPitch, std::size_t nWidth,
        std::size_t nRowCount, void*& pMemory);
    /// Waits for the block's device, then frees it. `bHost`: page-locked memory is meant, otherwise all other kinds.
    cudaError_t Free(void* pMemory, bool bHost);

    /// Allocates an array as described, at its device's expense.
    cudaError_t AllocateArray(CDevice& xDevice, const SArray& xArray, cudaArray_t& hArray);
    /// Waits for the array's device, then frees it. cudaErrorInvalidValue: no live array.
    cudaError_t FreeArray(cudaArray_t hArray);
    /// Writes the description of an array; false if there is none.
    [[nodiscard]] bool GetArray(cudaArray_const_t hArray, SArray& xArray);

    /// Waits for a device, then frees all that it has and resets it.
    void Reset(CDevice& xDevice) noexcept;

    /// Adds up what a device has.
    void Count(int iDevice, SStatistics& xStatistics);

private:
    struct SArraySlot
    {
        std::uint64_t uGeneration = 1;
        bool bLive = false;
        SArray xArray;
    };

    [[nodiscard]] const SBlock* _FindBase(const void* pMemory, bool bHost) const noexcept;
    [[nodiscard]] SArraySlot* _FindArray(cudaArray_const_t hArray) noexcept;
    static void _FreeArray(SArraySlot& xSlot) noexcept;
    static void _WaitForUse(int iDevice, bool bForeignUse) noexcept;
    static void _Release(const SBlock& xBlock) noexcept;
    [[nodiscard]] bool _ResetIfIdle(CDevice& xDevice) noexcept;

    std::shared_mutex m_xMutex;
    std::vector<SBlock> m_vBlocks; ///< ordered by address
    std::deque<SArraySlot> m_vArrays;
};

} // namespace Qx::HostCuda
