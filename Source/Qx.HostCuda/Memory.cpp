#include "Qx.HostCuda/Memory.h"

#include "Qx.HostCuda/Devices.h"
#include "Qx.HostCuda/Sanitizer.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unistd.h>

namespace Qx::HostCuda
{
namespace
{

/// Alignment of blocks and of the rows of pitched blocks.
constexpr std::size_t c_nAlignment = 512;
/// What fresh memory holds: neither zero nor a plausible value in any pixel format.
constexpr int c_iFreshByte = 0xCD;

/// The machine's memory; what exceeds it is not asked of the allocator, which may end the process over it.
std::size_t _GetMachineMemory() noexcept
{
    static const std::size_t s_nMemory =
        static_cast<std::size_t>(sysconf(_SC_PHYS_PAGES)) * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    return s_nMemory;
}

/// True if the channels are 1, 2 or 4 of equal size from a list of sizes.
bool _HasChannels(
    const cudaChannelFormatDesc& xFormat, std::initializer_list<int> vBits, std::initializer_list<int> vCounts)
{
    const std::array vChannels{xFormat.x, xFormat.y, xFormat.z, xFormat.w};
    const auto pEnd = std::find(vChannels.begin(), vChannels.end(), 0);
    const int iCount = static_cast<int>(pEnd - vChannels.begin());
    return std::find(vCounts.begin(), vCounts.end(), iCount) != vCounts.end() &&
        std::find(vBits.begin(), vBits.end(), xFormat.x) != vBits.end() &&
        std::all_of(vChannels.begin(), pEnd, [&](int iBits) { return iBits == xFormat.x; }) &&
        std::all_of(pEnd, vChannels.end(), [](int iBits) { return iBits == 0; });
}

bool _IsElement(const cudaChannelFormatDesc& xFormat)
{
    switch (xFormat.f)
    {
    case cudaChannelFormatKindSigned:
    case cudaChannelFormatKindUnsigned:
        return _HasChannels(xFormat, {8, 16, 32}, {1, 2, 4});
    case cudaChannelFormatKindFloat:
        return _HasChannels(xFormat, {16, 32}, {1, 2, 4});
    case cudaChannelFormatKindUnsignedNormalized8X1:
    case cudaChannelFormatKindSignedNormalized8X1:
        return _HasChannels(xFormat, {8}, {1});
    case cudaChannelFormatKindUnsignedNormalized8X2:
    case cudaChannelFormatKindSignedNormalized8X2:
        return _HasChannels(xFormat, {8}, {2});
    case cudaChannelFormatKindUnsignedNormalized8X4:
    case cudaChannelFormatKindSignedNormalized8X4:
        return _HasChannels(xFormat, {8}, {4});
    case cudaChannelFormatKindUnsignedNormalized16X1:
    case cudaChannelFormatKindSignedNormalized16X1:
        return _HasChannels(xFormat, {16}, {1});
    case cudaChannelFormatKindUnsignedNormalized16X2:
    case cudaChannelFormatKindSignedNormalized16X2:
        return _HasChannels(xFormat, {16}, {2});
    case cudaChannelFormatKindUnsignedNormalized16X4:
    case cudaChannelFormatKindSignedNormalized16X4:
        return _HasChannels(xFormat, {16}, {4});
    default:
        return false;
    }
}

/// The body of the linear allocation calls.
cudaError_t _Allocate(void** ppMemory, EMemoryKind eKind, std::size_t nSize, bool bArgumentsValid)
{
    CDevice& xDevice = CurrentDevice();
    if (const cudaError_t eFault = xDevice.GetFault(); eFault != cudaSuccess)
    {
        return eFault;
    }
    if (ppMemory == nullptr || !bArgumentsValid)
    {
        return cudaErrorInvalidValue;
    }
    void* pMemory = nullptr;
    const cudaError_t eError =
        nSize == 0 ? cudaSuccess : CMemory::Get().Allocate(xDevice, eKind, nSize, nSize, 1, pMemory);
    if (eError == cudaSuccess)
    {
        *ppMemory = pMemory;
    }
    return eError;
}

/// The body of the free calls.
template <class F>
cudaError_t _Free(const void* pObject, F&& FreeObject)
{
    if (const cudaError_t eFault = CurrentDevice().GetFault(); eFault != cudaSuccess)
    {
        return eFault;
    }
    return pObject == nullptr ? cudaSuccess : FreeObject();
}

} // namespace

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

cudaError_t CMemory::Allocate(
    CDevice& xDevice, EMemoryKind eKind, std::size_t nPitch, std::size_t nWidth, std::size_t nRowCount, void*& pMemory)
{
    std::size_t nSize = 0;
    if (__builtin_mul_overflow(nPitch, nRowCount, &nSize) || nSize > _GetMachineMemory())
    {
        return cudaErrorMemoryAllocation;
    }
    const bool bPaid = eKind != EMemoryKind::PageLocked;
    if (bPaid && !xDevice.Reserve(nSize))
    {
        return cudaErrorMemoryAllocation;
    }
    void* pNew = nullptr;
    if (posix_memalign(&pNew, c_nAlignment, nSize) != 0)
    {
        if (bPaid)
        {
            xDevice.Unreserve(nSize);
        }
        return cudaErrorMemoryAllocation;
    }
    std::memset(pNew, c_iFreshByte, nSize);
    SBlock xBlock;
    xBlock.uBase = reinterpret_cast<std::uintptr_t>(pNew);
    xBlock.nSize = nSize;
    xBlock.nPitch = nPitch;
    xBlock.nWidth = nWidth;
    xBlock.iDevice = xDevice.GetID();
    xBlock.eKind = eKind;
    for (std::size_t nRow = 0; nPitch > nWidth && nRow < nRowCount; ++nRow)
    {
        Poison(static_cast<const char*>(pNew) + nRow * nPitch + nWidth, nPitch - nWidth);
    }
    try
    {
        const std::unique_lock xLock(m_xMutex);
        m_vBlocks.insert(std::ranges::upper_bound(m_vBlocks, xBlock.uBase, {}, &SBlock::uBase), xBlock);
    }
    catch (...)
    {
        _Release(xBlock);
        throw;
    }
    pMemory = pNew;
    return cudaSuccess;
}

void CMemory::_Release(const SBlock& xBlock) noexcept
{
    auto* const pMemory = std::bit_cast<void*>(xBlock.uBase);
    Unpoison(pMemory, xBlock.nSize);
    std::free(pMemory);
    if (xBlock.eKind != EMemoryKind::PageLocked)
    {
        FindDevice(xBlock.iDevice)->Unreserve(xBlock.nSize);
    }
}

void CMemory::_WaitForUse(int iDevice, bool bForeignUse) noexcept
{
    for (int iOther = 0; iOther < GetDeviceCount(); ++iOther)
    {
        if (iOther == iDevice || bForeignUse)
        {
            FindDevice(iOther)->Synchronize();
        }
    }
}

const SBlock* CMemory::_FindBase(const void* pMemory, bool bHost) const noexcept
{
    const auto uAddress = reinterpret_cast<std::uintptr_t>(pMemory);
    const SBlock* const pBlock = Find(uAddress);
    return pBlock != nullptr && pBlock->uBase == uAddress && bHost == (pBlock->eKind == EMemoryKind::PageLocked)
        ? pBlock
        : nullptr;
}

cudaError_t CMemory::Free(void* pMemory, bool bHost)
{
    int iDevice = 0;
    bool bForeignUse = false;
    {
        const CReadLock xLock = Read();
        const SBlock* const pBlock = _FindBase(pMemory, bHost);
        if (pBlock == nullptr)
        {
            return cudaErrorInvalidValue;
        }
        iDevice = pBlock->iDevice;
        bForeignUse = std::atomic_ref(pBlock->bForeignUse).load(std::memory_order_relaxed);
    }
    // First wait, since a fault that comes up must leave the block where it is.
    _WaitForUse(iDevice, bForeignUse);
    if (const cudaError_t eFault = FindDevice(iDevice)->GetFault(); eFault != cudaSuccess)
    {
        return eFault;
    }
    SBlock xBlock;
    {
        const std::unique_lock xLock(m_xMutex);
        const SBlock* const pBlock = _FindBase(pMemory, bHost);
        if (pBlock == nullptr)
        {
            return cudaErrorInvalidValue;
        }
        xBlock = *pBlock;
        m_vBlocks.erase(m_vBlocks.begin() + (pBlock - m_vBlocks.data()));
    }
    // Then for what other threads have queued in between.
    _WaitForUse(xBlock.iDevice, xBlock.bForeignUse);
    _Release(xBlock);
    return cudaSuccess;
}

CMemory::SArraySlot* CMemory::_FindArray(cudaArray_const_t hArray) noexcept
{
    SHandle xHandle;
    if (!DecodeHandle(EHandle::Array, hArray, xHandle) || xHandle.uSlot >= m_vArrays.size())
    {
        return nullptr;
    }
    SArraySlot& xSlot = m_vArrays[xHandle.uSlot];
    return xSlot.bLive && xSlot.uGeneration == xHandle.uGeneration ? &xSlot : nullptr;
}

cudaError_t CMemory::AllocateArray(CDevice& xDevice, const SArray& xArray, cudaArray_t& hArray)
{
    const std::unique_lock xLock(m_xMutex);
    auto pSlot = std::ranges::find(m_vArrays, false, &SArraySlot::bLive);
    if (pSlot == m_vArrays.end())
    {
        if (m_vArrays.size() == c_uSlotLimit)
        {
            return cudaErrorMemoryAllocation;
        }
        m_vArrays.emplace_back();
        pSlot = m_vArrays.end() - 1;
    }
    if (!xDevice.Reserve(xArray.nByteCount))
    {
        return cudaErrorMemoryAllocation;
    }
    pSlot->bLive = true;
    pSlot->xArray = xArray;
    hArray = EncodeHandle<cudaArray_t>(EHandle::Array,
        {static_cast<std::uint64_t>(xArray.iDevice), static_cast<std::uint64_t>(pSlot - m_vArrays.begin()),
            pSlot->uGeneration});
    return cudaSuccess;
}

void CMemory::_FreeArray(SArraySlot& xSlot) noexcept
{
    xSlot.bLive = false;
    ++xSlot.uGeneration;
    FindDevice(xSlot.xArray.iDevice)->Unreserve(xSlot.xArray.nByteCount);
}

cudaError_t CMemory::FreeArray(cudaArray_t hArray)
{
    SArray xArray;
    if (!GetArray(hArray, xArray))
    {
        return cudaErrorInvalidValue;
    }
    CDevice& xDevice = *FindDevice(xArray.iDevice);
    xDevice.Synchronize();
    if (const cudaError_t eFault = xDevice.GetFault(); eFault != cudaSuccess)
    {
        return eFault;
    }
    const std::unique_lock xLock(m_xMutex);
    SArraySlot* const pSlot = _FindArray(hArray);
    if (pSlot == nullptr)
    {
        return cudaErrorInvalidValue;
    }
    _FreeArray(*pSlot);
    return cudaSuccess;
}

bool CMemory::GetArray(cudaArray_const_t hArray, SArray& xArray)
{
    const CReadLock xLock = Read();
    const SArraySlot* const pSlot = _FindArray(hArray);
    if (pSlot != nullptr)
    {
        xArray = pSlot->xArray;
    }
    return pSlot != nullptr;
}

void CMemory::Reset(CDevice& xDevice) noexcept
{
    do
    {
        for (int iDevice = 0; iDevice < GetDeviceCount(); ++iDevice)
        {
            bool bInvolved = iDevice == xDevice.GetID();
            if (!bInvolved)
            {
                const CReadLock xLock = Read();
                bInvolved = std::ranges::any_of(m_vBlocks,
                    [&](const SBlock& xBlock) {
                        return xBlock.iDevice == xDevice.GetID() &&
                            std::atomic_ref(xBlock.bForeignUse).load(std::memory_order_relaxed);
                    });
            }
            if (bInvolved)
            {
                FindDevice(iDevice)->Synchronize();
            }
        }
    } while (!_ResetIfIdle(xDevice));
}

bool CMemory::_ResetIfIdle(CDevice& xDevice) noexcept
{
    const std::unique_lock xLock(m_xMutex);
    const int iDevice = xDevice.GetID();
    const auto IsUsedElsewhere = [&](const SBlock& xBlock) { return xBlock.iDevice == iDevice && xBlock.bForeignUse; };
    if (std::ranges::any_of(m_vBlocks, IsUsedElsewhere))
    {
        for (int iOther = 0; iOther < GetDeviceCount(); ++iOther)
        {
            if (!FindDevice(iOther)->IsIdle())
            {
                return false;
            }
        }
    }
    return xDevice.ResetIfIdle(
        [&]
        {
            std::erase_if(m_vBlocks,
                [&](const SBlock& xBlock)
                {
                    if (xBlock.iDevice != iDevice)
                    {
                        return false;
                    }
                    _Release(xBlock);
                    return true;
                });
            for (SArraySlot& xSlot : m_vArrays)
            {
                if (xSlot.bLive && xSlot.xArray.iDevice == iDevice)
                {
                    _FreeArray(xSlot);
                }
            }
        });
}

void CMemory::Count(int iDevice, SStatistics& xStatistics)
{
    const auto Add = [&](EMemoryKind eKind, std::size_t nByteCount)
    {
        for (SMemoryUse* const pUse : {&xStatistics.vMemory[static_cast<std::size_t>(eKind)], &xStatistics.xTotal})
        {
            ++pUse->nBlockCount;
            pUse->nByteCount += nByteCount;
        }
    };
    const CReadLock xLock = Read();
    for (const SBlock& xBlock : m_vBlocks)
    {
        if (xBlock.iDevice == iDevice)
        {
            Add(xBlock.eKind, xBlock.nSize);
        }
    }
    for (const SArraySlot& xSlot : m_vArrays)
    {
        if (xSlot.bLive && xSlot.xArray.iDevice == iDevice)
        {
            Add(EMemoryKind::Array, xSlot.xArray.nByteCount);
        }
    }
}

} // namespace Qx::HostCuda

using namespace Qx::HostCuda;

cudaError_t cudaMalloc(void** devPtr, size_t size)
{
    return Call([&] { return _Allocate(devPtr, EMemoryKind::Device, size, true); });
}

cudaError_t cudaMallocManaged(void** devPtr, size_t size, unsigned int flags)
{
    const bool bValid = size != 0 && (flags == cudaMemAttachGlobal || flags == cudaMemAttachHost);
    return Call([&] { return _Allocate(devPtr, EMemoryKind::Managed, size, bValid); });
}

cudaError_t cudaHostAlloc(void** pHost, size_t size, unsigned int flags)
{
    constexpr unsigned c_uKnown = cudaHostAllocPortable | cudaHostAllocMapped | cudaHostAllocWriteCombined;
    return Call([&] { return _Allocate(pHost, EMemoryKind::PageLocked, size, (flags & ~c_uKnown) == 0); });
}

cudaError_t cudaMallocHost(void** ptr, size_t size)
{
    return cudaHostAlloc(ptr, size, cudaHostAllocDefault);
}

cudaError_t cudaMallocPitch(void** devPtr, size_t* pitch, size_t width, size_t height)
{
    return Call(
        [&]
        {
            CDevice& xDevice = CurrentDevice();
            if (const cudaError_t eFault = xDevice.GetFault(); eFault != cudaSuccess)
            {
                return eFault;
            }
            if (devPtr == nullptr || pitch == nullptr)
            {
                return cudaErrorInvalidValue;
            }
            void* pMemory = nullptr;
            std::size_t nPitch = 0;
            if (width != 0 && height != 0)
            {
                // A row beyond the whole memory is out of memory, whatever its pitch would be.
                if (width > xDevice.GetTotalMemory())
                {
                    return cudaErrorMemoryAllocation;
                }
                if (width > INT_MAX - c_nAlignment)
                {
                    return cudaErrorInvalidValue;
                }
                nPitch = (width + c_nAlignment - 1) / c_nAlignment * c_nAlignment;
                const cudaError_t eError =
                    CMemory::Get().Allocate(xDevice, EMemoryKind::Pitched, nPitch, width, height, pMemory);
                if (eError != cudaSuccess)
                {
                    return eError;
                }
            }
            *devPtr = pMemory;
            *pitch = nPitch;
            return cudaSuccess;
        });
}

cudaError_t cudaFree(void* devPtr)
{
    return Call([&] { return _Free(devPtr, [&] { return CMemory::Get().Free(devPtr, false); }); });
}

cudaError_t cudaFreeHost(void* ptr)
{
    return Call([&] { return _Free(ptr, [&] { return CMemory::Get().Free(ptr, true); }); });
}

cudaError_t cudaFreeArray(cudaArray_t array)
{
    return Call([&] { return _Free(array, [&] { return CMemory::Get().FreeArray(array); }); });
}

cudaError_t cudaHostGetDevicePointer(void** pDevice, void* pHost, unsigned int flags)
{
    return Call(
        [&]
        {
            if (const cudaError_t eFault = CurrentDevice().GetFault(); eFault != cudaSuccess)
            {
                return eFault;
            }
            const auto xLock = CMemory::Get().Read();
            const SBlock* const pBlock = CMemory::Get().Find(reinterpret_cast<std::uintptr_t>(pHost));
            if (pDevice == nullptr || flags != 0 || pBlock == nullptr || pBlock->eKind != EMemoryKind::PageLocked)
            {
                return cudaErrorInvalidValue;
            }
            *pDevice = pHost;
            return cudaSuccess;
        });
}

cudaChannelFormatDesc cudaCreateChannelDesc(int x, int y, int z, int w, cudaChannelFormatKind f)
{
    return {x, y, z, w, f};
}

cudaError_t cudaMallocArray(
    cudaArray_t* array, const cudaChannelFormatDesc* desc, size_t width, size_t height, unsigned int flags)
{
    return Call(
        [&]
        {
            CDevice& xDevice = CurrentDevice();
            if (const cudaError_t eFault = xDevice.GetFault(); eFault != cudaSuccess)
            {
                return eFault;
            }
            constexpr unsigned c_uKnown = cudaArraySurfaceLoadStore | cudaArrayTextureGather;
            constexpr std::size_t c_nMaxWidth = 131072;
            constexpr std::size_t c_nMaxHeight = 65536;
            if (array == nullptr || desc == nullptr)
            {
                return cudaErrorInvalidValue;
            }
            if (!_IsElement(*desc))
            {
                return cudaErrorInvalidChannelDescriptor;
            }
            if ((flags & ~c_uKnown) != 0 || width == 0 || width > c_nMaxWidth || height > c_nMaxHeight)
            {
                return cudaErrorInvalidValue;
            }
            SArray xArray;
            xArray.xFormat = *desc;
            xArray.xExtent = {width, height, 0};
            xArray.uFlags = flags;
            xArray.iDevice = xDevice.GetID();
            std::size_t nElementBits = 0;
            for (const int iBits : {desc->x, desc->y, desc->z, desc->w})
            {
                nElementBits += static_cast<std::size_t>(iBits);
            }
            xArray.nByteCount = width * std::max<std::size_t>(height, 1) * (nElementBits / 8);
            return CMemory::Get().AllocateArray(xDevice, xArray, *array);
        });
}

cudaError_t cudaArrayGetInfo(cudaChannelFormatDesc* desc, cudaExtent* extent, unsigned int* flags, cudaArray_t array)
{
    return Call(
        [&]
        {
            if (const cudaError_t eFault = CurrentDevice().GetFault(); eFault != cudaSuccess)
            {
                return eFault;
            }
            SArray xArray;
            if (!CMemory::Get().GetArray(array, xArray))
            {
                return cudaErrorInvalidValue;
            }
            if (desc != nullptr)
            {
                *desc = xArray.xFormat;
            }
            if (extent != nullptr)
            {
                *extent = xArray.xExtent;
            }
            if (flags != nullptr)
            {
                *flags = xArray.uFlags;
            }
            return cudaSuccess;
        });
}

cudaError_t cudaPointerGetAttributes(cudaPointerAttributes* attributes, const void* ptr)
{
    return Call(
        [&]
        {
            if (const cudaError_t eFault = CurrentDevice().GetFault(); eFault != cudaSuccess)
            {
                return eFault;
            }
            if (attributes == nullptr)
            {
                return cudaErrorInvalidValue;
            }
            auto* const pMemory = const_cast<void*>(ptr);
            const auto xLock = CMemory::Get().Read();
            const SBlock* const pBlock = CMemory::Get().Find(reinterpret_cast<std::uintptr_t>(ptr));
            *attributes = {};
            if (pBlock == nullptr)
            {
                attributes->type = cudaMemoryTypeUnregistered;
                attributes->device = cudaInvalidDeviceId;
                attributes->hostPointer = pMemory;
                return cudaSuccess;
            }
            attributes->device = pBlock->iDevice;
            attributes->devicePointer = pMemory;
            attributes->hostPointer = pBlock->IsForHost() ? pMemory : nullptr;
            switch (pBlock->eKind)
            {
            case EMemoryKind::Managed:
                attributes->type = cudaMemoryTypeManaged;
                break;
            case EMemoryKind::PageLocked:
                attributes->type = cudaMemoryTypeHost;
                break;
            default:
                attributes->type = cudaMemoryTypeDevice;
                break;
            }
            return cudaSuccess;
        });
}
