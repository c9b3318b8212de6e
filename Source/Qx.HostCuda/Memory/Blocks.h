#pragma once

#include "Qx.HostCuda/HostCuda.h"
#include "Qx.HostCuda/Runtime/Devices.h"

#include <cstddef>
#include <cstdint>
#include <shared_mutex>
#include <vector>

namespace Qx::HostCuda
{

/// Alignment of blocks and of the rows of pitched blocks.
inline constexpr std::size_t c_nAlignment = 512;

/// A live block of memory.
struct SBlock
{
    std::uintptr_t uBase = 0;
    std::size_t nSize = 0;
    std::size_t nPitch = 0; ///< distance of the rows; equal to nWidth unless the block is pitched
    std::size_t nWidth = 0; ///< bytes of a row in use
    int iDevice = 0;
    EMemoryKind eKind = EMemoryKind::Device;
    // Both accessed as atomics.
    mutable bool bForeignUse = false;  ///< work of another device has used it
    mutable bool bPaddingUsed = false; ///< a call may have written the padding of its rows, as it is free to

    /// True if rows that begin at an offset lie inside those of a pitched block, apart from its padding.
    [[nodiscard]] bool HasInRows(
        std::size_t nOffset, std::size_t nRowPitch, std::size_t nRowWidth, std::size_t nRowCount) const noexcept
    {
        return nOffset % nPitch + nRowWidth <= nWidth && (nRowCount == 1 || nRowPitch % nPitch == 0);
    }
    /// True if the host may use the memory too; the device may use all of it.
    [[nodiscard]] bool IsForHost() const noexcept
    {
        return eKind == EMemoryKind::Managed || eKind == EMemoryKind::PageLocked;
    }
    /// True if the device's budget pays for the block.
    [[nodiscard]] bool IsPaid() const noexcept { return eKind != EMemoryKind::PageLocked; }
};

/// The registry of all blocks of the process.
///
/// Who checks an area and then queues work on it holds the read lock until the work is queued; who frees a block takes
/// it out of the registry and then waits for the device. So work never meets a block that is gone, and a copy of a
/// stale pointer is refused.
///
/// Bytes behind each block, and in the padding of pitched rows, keep their pattern unless something goes astray; when a
/// block is freed they are looked at, and what was written is reported and a fault of the device.
///
/// Under AddressSanitizer the blocks come from its allocator, so that it finds use after free and access beyond the
/// end; the padding of pitched rows is poisoned besides.
class CMemory
{
public:
    using CReadLock = std::shared_lock<std::shared_mutex>;

    /// The registry of the process; never destroyed.
    [[nodiscard]] static CMemory& Get();

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

    /// Notes that a call or its work may write the padding of a block. Needs the read lock.
    static void NotePaddingUse(const SBlock& xBlock) noexcept;

    /// Allocates rows on a device, 1 row where the block has no pitch. Its budget pays for all but page-locked memory.
    /// cudaErrorMemoryAllocation: the budget or the machine does not have as much.
    [[nodiscard]] void* Allocate(
        CDevice& xDevice, EMemoryKind eKind, std::size_t nPitch, std::size_t nWidth, std::size_t nRowCount);
    /// Waits for the block's device, then frees it. `bHost`: page-locked memory is meant, otherwise all other kinds.
    /// cudaErrorInvalidValue: not the beginning of such a block.
    void Free(void* pMemory, bool bHost);

    /// Waits for a device and for the others' use of its blocks, then resets the device and frees all that it has.
    void Reset(CDevice& xDevice) noexcept;

    /// Adds up the blocks of a device.
    void Count(int iDevice, SStatistics& xStatistics);

private:
    CMemory();
    [[nodiscard]] const SBlock& _Get(const void* pMemory, bool bHost) const;
    /// True if work of other devices has used a block of a device. Needs a lock.
    [[nodiscard]] bool _IsUsedElsewhere(int iDevice) const noexcept;
    static void _WaitForUse(int iDevice, bool bForeignUse) noexcept;
    static void _CheckGuards(const SBlock& xBlock) noexcept;
    static void _Release(const SBlock& xBlock) noexcept;
    [[nodiscard]] bool _ResetIfIdle(CDevice& xDevice) noexcept;

    std::shared_mutex m_xMutex;
    std::vector<SBlock> m_vBlocks; ///< ordered by address
};

} // namespace Qx::HostCuda
