#include "Qx.HostCuda/Memory/Blocks.h"

#include "Qx.HostCuda/Memory/Arrays.h"
#include "Qx.HostCuda/Runtime/Sanitizer.h"
#include "Qx.HostCuda/Streams/Schedule.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace Qx::HostCuda
{
namespace
{

/// What fresh memory holds: neither zero nor a plausible value in any pixel format.
constexpr unsigned char c_uFreshByte = 0xCD;

/// Bytes behind a block that nobody may write; AddressSanitizer has its own.
std::size_t _GetGuardSize() noexcept
{
    return HasAddressSanitizer() ? 0 : 64;
}

/// The first byte of a range that is not as it was made; null if all are.
const unsigned char* _FindWritten(const unsigned char* pBegin, std::size_t nByteCount) noexcept
{
    const unsigned char* const pEnd = pBegin + nByteCount;
    const unsigned char* const pFound =
        std::find_if(pBegin, pEnd, [](unsigned char uByte) { return uByte != c_uFreshByte; });
    return pFound != pEnd ? pFound : nullptr;
}

} // namespace

CMemory::CMemory()
{
    static_cast<void>(CSchedule::All()); // so that freeing, which waits for all work, never has to make it
}

CMemory& CMemory::Get()
{
    static CMemory& s_xMemory = *new CMemory;
    return s_xMemory;
}

const SBlock* CMemory::Find(std::uintptr_t uAddress) const noexcept
{
    return FindMet(uAddress, 0);
}

const SBlock* CMemory::FindMet(std::uintptr_t uAddress, std::size_t nSpan) const noexcept
{
    const auto pNext = std::ranges::upper_bound(m_vBlocks, uAddress, {}, &SBlock::uBase);
    if (pNext != m_vBlocks.begin() && uAddress - pNext[-1].uBase < pNext[-1].nSize)
    {
        return &pNext[-1];
    }
    return pNext != m_vBlocks.end() && pNext->uBase - uAddress < nSpan ? &*pNext : nullptr;
}

void CMemory::NoteUse(const SBlock& xBlock, const CDevice& xDevice) noexcept
{
    if (xBlock.iDevice != xDevice.GetID())
    {
        std::atomic_ref(xBlock.bForeignUse).store(true, std::memory_order_relaxed);
    }
}

void CMemory::NotePaddingUse(const SBlock& xBlock) noexcept
{
    std::atomic_ref(xBlock.bPaddingUsed).store(true, std::memory_order_relaxed);
}

void* CMemory::Allocate(
    CDevice& xDevice, EMemoryKind eKind, std::size_t nPitch, std::size_t nWidth, std::size_t nRowCount)
{
    SBlock xBlock{0, 0, nPitch, nWidth, xDevice.GetID(), eKind, false, false};
    const bool bOverflow = __builtin_mul_overflow(nPitch, nRowCount, &xBlock.nSize);
    Require(!bOverflow && xBlock.nSize <= GetMachineMemory(), cudaErrorMemoryAllocation);
    Require(!xBlock.IsPaid() || xDevice.Reserve(xBlock.nSize), cudaErrorMemoryAllocation);
    void* pNew = nullptr;
    try
    {
        Require(posix_memalign(&pNew, c_nAlignment, xBlock.nSize + _GetGuardSize()) == 0, cudaErrorMemoryAllocation);
        std::memset(pNew, c_uFreshByte, xBlock.nSize + _GetGuardSize());
        xBlock.uBase = reinterpret_cast<std::uintptr_t>(pNew);
        const std::unique_lock xLock(m_xMutex);
        m_vBlocks.insert(std::ranges::upper_bound(m_vBlocks, xBlock.uBase, {}, &SBlock::uBase), xBlock);
    }
    catch (...)
    {
        _Release(xBlock);
        throw;
    }
    PoisonPadding(pNew, nPitch, nWidth, nRowCount);
    return pNew;
}

void CMemory::_CheckGuards(const SBlock& xBlock) noexcept
{
    const auto* const pBase = std::bit_cast<const unsigned char*>(xBlock.uBase);
    const std::size_t nPadding = xBlock.nPitch - xBlock.nWidth;
    const bool bRows = _GetGuardSize() != 0 && nPadding != 0 && !xBlock.bPaddingUsed;
    const unsigned char* pWritten = nullptr;
    for (std::size_t nEnd = xBlock.nPitch; bRows && pWritten == nullptr && nEnd <= xBlock.nSize; nEnd += xBlock.nPitch)
    {
        pWritten = _FindWritten(pBase + nEnd - nPadding, nPadding);
    }
    if (pWritten == nullptr)
    {
        pWritten = _FindWritten(pBase + xBlock.nSize, _GetGuardSize());
    }
    if (pWritten != nullptr)
    {
        const auto nOffset = static_cast<std::size_t>(pWritten - pBase);
        char vWhere[48] = "behind its end";
        if (nOffset < xBlock.nSize)
        {
            static_cast<void>(std::snprintf(vWhere, sizeof(vWhere), "behind its row %zu", nOffset / xBlock.nPitch));
        }
        static_cast<void>(
            std::fprintf(stderr, "Qx.HostCuda: the block of %zu bytes at %p of device %d was written %s, at byte %zu\n",
                xBlock.nSize, static_cast<const void*>(pBase), xBlock.iDevice, vWhere, nOffset));
        FindDevice(xBlock.iDevice)->RaiseFault(cudaErrorIllegalAddress);
    }
}

void CMemory::_Release(const SBlock& xBlock) noexcept
{
    auto* const pMemory = std::bit_cast<void*>(xBlock.uBase);
    if (pMemory != nullptr)
    {
        Unpoison(pMemory, xBlock.nSize);
        std::free(pMemory);
    }
    if (xBlock.IsPaid())
    {
        FindDevice(xBlock.iDevice)->Unreserve(xBlock.nSize);
    }
}

void CMemory::_WaitForUse(int iDevice, bool bForeignUse) noexcept
{
    for (CSchedule& xSchedule : CSchedule::All())
    {
        if (bForeignUse || xSchedule.GetDevice().GetID() == iDevice)
        {
            xSchedule.Synchronize();
        }
    }
}

const SBlock& CMemory::_Get(const void* pMemory, bool bHost) const
{
    const auto uAddress = reinterpret_cast<std::uintptr_t>(pMemory);
    const SBlock* const pBlock = Find(uAddress);
    Require(pBlock != nullptr && pBlock->uBase == uAddress && bHost == (pBlock->eKind == EMemoryKind::PageLocked),
        cudaErrorInvalidValue);
    return *pBlock;
}

void CMemory::Free(void* pMemory, bool bHost)
{
    int iDevice = 0;
    bool bForeignUse = false;
    {
        const CReadLock xLock = Read();
        const SBlock& xBlock = _Get(pMemory, bHost);
        iDevice = xBlock.iDevice;
        bForeignUse = std::atomic_ref(xBlock.bForeignUse).load(std::memory_order_relaxed);
    }
    // First wait, since a fault that comes up must leave the block where it is.
    _WaitForUse(iDevice, bForeignUse);
    FindDevice(iDevice)->RequireHealthy();
    SBlock xBlock;
    {
        const std::unique_lock xLock(m_xMutex);
        const SBlock& xFound = _Get(pMemory, bHost);
        xBlock = xFound;
        m_vBlocks.erase(m_vBlocks.begin() + (&xFound - m_vBlocks.data()));
    }
    // Then for what other threads have queued in between.
    _WaitForUse(xBlock.iDevice, xBlock.bForeignUse);
    _CheckGuards(xBlock);
    _Release(xBlock);
}

bool CMemory::_IsUsedElsewhere(int iDevice) const noexcept
{
    return std::ranges::any_of(m_vBlocks,
        [&](const SBlock& xBlock)
        { return xBlock.iDevice == iDevice && std::atomic_ref(xBlock.bForeignUse).load(std::memory_order_relaxed); });
}

void CMemory::Reset(CDevice& xDevice) noexcept
{
    bool bElsewhere = false;
    do
    {
        {
            const CReadLock xLock = Read();
            bElsewhere = _IsUsedElsewhere(xDevice.GetID());
        }
        _WaitForUse(xDevice.GetID(), bElsewhere);
    } while (!_ResetIfIdle(xDevice));
}

bool CMemory::_ResetIfIdle(CDevice& xDevice) noexcept
{
    const std::unique_lock xLock(m_xMutex);
    if (_IsUsedElsewhere(xDevice.GetID()) && !std::ranges::all_of(CSchedule::All(), &CSchedule::IsIdle))
    {
        return false;
    }
    return CSchedule::Of(xDevice).ResetIfIdle(
        [&]
        {
            std::erase_if(m_vBlocks,
                [&](const SBlock& xBlock)
                {
                    const bool bErase = xBlock.iDevice == xDevice.GetID();
                    if (bErase)
                    {
                        _CheckGuards(xBlock);
                        _Release(xBlock);
                    }
                    return bErase;
                });
            CArrays::All().FreeAll(xDevice);
        });
}

void CMemory::Count(int iDevice, SStatistics& xStatistics)
{
    const CReadLock xLock = Read();
    for (const SBlock& xBlock : m_vBlocks)
    {
        if (xBlock.iDevice == iDevice)
        {
            Add(xStatistics, xBlock.eKind, xBlock.nSize);
        }
    }
}

} // namespace Qx::HostCuda
