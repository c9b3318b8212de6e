#include "Qx.HostCuda/Devices.h"
#include "Qx.HostCuda/Memory.h"
#include "Qx.HostCuda/Sanitizer.h"
#include "Qx.HostCuda/Symbols.h"

#include <cstring>
#include <functional>
#include <memory>
#include <optional>

namespace Qx::HostCuda
{
namespace
{

/// Rows of a destination and a source; a memset has no source.
struct SArea
{
    unsigned char* pTarget = nullptr;
    std::size_t nTargetPitch = 0;
    const unsigned char* pSource = nullptr;
    std::size_t nSourcePitch = 0;
    std::size_t nWidth = 0;
    std::size_t nRowCount = 0;
    unsigned char uValue = 0;
    bool bTargetPadded = false; ///< in a pitched block, whose padding is poisoned
    bool bSourcePadded = false;
};

#if defined(QX_HOSTCUDA_ASAN)
// The padding of pitched blocks is poisoned so that AddressSanitizer finds a kernel or host code that strays into it.
// A copy of whole pitches, or a linear one across rows, meets it legitimately: checked against the registry already,
// it may read and write there. Its other side is not exempt.
void _ReportPoisoned(const unsigned char* pMemory, std::size_t nByteCount) noexcept
{
    if (const void* const pBad = __asan_region_is_poisoned(const_cast<unsigned char*>(pMemory), nByteCount))
    {
        static_cast<void>(*static_cast<const volatile unsigned char*>(pBad));
    }
}

bool _MeetsPadding(const unsigned char* pMemory, std::size_t nByteCount, bool bPadded) noexcept
{
    return bPadded && __asan_region_is_poisoned(const_cast<unsigned char*>(pMemory), nByteCount) != nullptr;
}

__attribute__((no_sanitize("address"))) void _MoveUnchecked(
    unsigned char* pTarget, const unsigned char* pSource, std::size_t nByteCount) noexcept
{
    volatile unsigned char* const pTo = pTarget;
    const volatile unsigned char* const pFrom = pSource;
    const bool bForward = std::less<>{}(pTarget, pSource);
    for (std::size_t nIndex = 0; nIndex < nByteCount; ++nIndex)
    {
        const std::size_t nAt = bForward ? nIndex : nByteCount - 1 - nIndex;
        pTo[nAt] = pFrom[nAt];
    }
}

__attribute__((no_sanitize("address"))) void _SetUnchecked(
    unsigned char* pTarget, unsigned char uValue, std::size_t nByteCount) noexcept
{
    volatile unsigned char* const pTo = pTarget;
    for (std::size_t nIndex = 0; nIndex < nByteCount; ++nIndex)
    {
        pTo[nIndex] = uValue;
    }
}
#endif

void _RunRow(const SArea& xArea, unsigned char* pTarget, const unsigned char* pSource, std::size_t nByteCount) noexcept
{
#if defined(QX_HOSTCUDA_ASAN)
    const bool bTarget = _MeetsPadding(pTarget, nByteCount, xArea.bTargetPadded);
    const bool bSource = pSource != nullptr && _MeetsPadding(pSource, nByteCount, xArea.bSourcePadded);
    if (bTarget || bSource)
    {
        if (pSource == nullptr)
        {
            _SetUnchecked(pTarget, xArea.uValue, nByteCount);
            return;
        }
        if (!xArea.bTargetPadded)
        {
            _ReportPoisoned(pTarget, nByteCount);
        }
        if (!xArea.bSourcePadded)
        {
            _ReportPoisoned(pSource, nByteCount);
        }
        _MoveUnchecked(pTarget, pSource, nByteCount);
        return;
    }
#endif
    if (pSource == nullptr)
    {
        std::memset(pTarget, xArea.uValue, nByteCount);
    }
    else
    {
        std::memmove(pTarget, pSource, nByteCount);
    }
}

void _Run(const SArea& xArea) noexcept
{
    const bool bDense =
        xArea.nTargetPitch == xArea.nWidth && (xArea.pSource == nullptr || xArea.nSourcePitch == xArea.nWidth);
    const std::size_t nWidth = bDense ? xArea.nWidth * xArea.nRowCount : xArea.nWidth;
    const std::size_t nRowCount = bDense ? 1 : xArea.nRowCount;
    for (std::size_t nRow = 0; nRow < nRowCount; ++nRow)
    {
        const unsigned char* const pSource =
            xArea.pSource == nullptr ? nullptr : xArea.pSource + nRow * xArea.nSourcePitch;
        _RunRow(xArea, xArea.pTarget + nRow * xArea.nTargetPitch, pSource, nWidth);
    }
}

/// What a direction says about one side of a copy.
enum class ESide
{
    Host,
    Device,
    Any
};

/// Checks the memory on one side and notes its use by a device. On success `pBlock` is its block, null for memory
/// that no call here allocated. Needs the read lock.
cudaError_t _CheckSide(const CMemory& xMemory, const CDevice& xDevice, const void* pMemory, std::size_t nPitch,
    std::size_t nWidth, std::size_t nRowCount, ESide eSide, const SBlock*& pBlock) noexcept
{
    const auto uAddress = reinterpret_cast<std::uintptr_t>(pMemory);
    std::size_t nSpan = 0;
    std::uintptr_t uEnd = 0;
    if (pMemory == nullptr || __builtin_mul_overflow(nPitch, nRowCount - 1, &nSpan) ||
        __builtin_add_overflow(nSpan, nWidth, &nSpan) || __builtin_add_overflow(uAddress, nSpan, &uEnd))
    {
        return cudaErrorInvalidValue;
    }
    pBlock = xMemory.FindMet(uAddress, nSpan);
    if (pBlock == nullptr)
    {
        return eSide == ESide::Device ? cudaErrorInvalidValue : cudaSuccess;
    }
    const bool bWrongSide = eSide == ESide::Host && !pBlock->IsForHost();
    if (bWrongSide || uAddress < pBlock->uBase || uEnd > pBlock->uBase + pBlock->nSize)
    {
        return cudaErrorInvalidValue;
    }
    CMemory::NoteUse(*pBlock, xDevice);
    return cudaSuccess;
}

/// Checks an area. `eTarget` and `eSource` say on which side its memory must be; a side that is empty has been checked
/// by the caller. Needs the read lock. `pSourceBlock` is the block of the source, null if it is pageable.
cudaError_t _CheckArea(const CDevice& xDevice, SArea& xArea, std::optional<ESide> eTarget, std::optional<ESide> eSource,
    const SBlock*& pSourceBlock) noexcept
{
    const CMemory& xMemory = CMemory::Get();
    cudaError_t eError = cudaSuccess;
    if (eTarget)
    {
        const SBlock* pBlock = nullptr;
        eError = _CheckSide(
            xMemory, xDevice, xArea.pTarget, xArea.nTargetPitch, xArea.nWidth, xArea.nRowCount, *eTarget, pBlock);
        xArea.bTargetPadded = pBlock != nullptr && pBlock->eKind == EMemoryKind::Pitched;
    }
    if (eSource && eError == cudaSuccess)
    {
        eError = _CheckSide(
            xMemory, xDevice, xArea.pSource, xArea.nSourcePitch, xArea.nWidth, xArea.nRowCount, *eSource, pSourceBlock);
        xArea.bSourcePadded = pSourceBlock != nullptr && pSourceBlock->eKind == EMemoryKind::Pitched;
    }
    return eError;
}

/// Splits a direction into its sides; false if it is none.
bool _GetSides(cudaMemcpyKind eKind, ESide& eTarget, ESide& eSource) noexcept
{
    switch (eKind)
    {
    case cudaMemcpyHostToHost:
    case cudaMemcpyHostToDevice:
    case cudaMemcpyDeviceToHost:
    case cudaMemcpyDeviceToDevice:
        eTarget = eKind == cudaMemcpyHostToDevice || eKind == cudaMemcpyDeviceToDevice ? ESide::Device : ESide::Host;
        eSource = eKind == cudaMemcpyDeviceToHost || eKind == cudaMemcpyDeviceToDevice ? ESide::Device : ESide::Host;
        return true;
    case cudaMemcpyDefault:
        eTarget = ESide::Any;
        eSource = ESide::Any;
        return true;
    default:
        return false;
    }
}

/// Where and how a call runs: on the calling thread in its turn on the legacy stream, or queued.
struct SWhere
{
    bool bAsync = false;
    cudaStream_t hStream = nullptr;
};

/// Runs or queues a checked area and gives up the read lock as soon as nobody can free its memory any more.
cudaError_t _Execute(CDevice& xDevice, const SArea& xArea, const SWhere& xWhere, CMemory::CReadLock& xLock)
{
    if (xWhere.bAsync)
    {
        return xDevice.Enqueue(xWhere.hStream, MakeWork([xArea] { _Run(xArea); }));
    }
    const CLegacyTurn xTurn(xDevice);
    xLock.unlock();
    xTurn.Await();
    const cudaError_t eFault = xDevice.GetFault();
    if (eFault == cudaSuccess)
    {
        _Run(xArea);
    }
    return eFault;
}

cudaError_t _Copy(SArea xArea, cudaMemcpyKind eKind, const SWhere& xWhere)
{
    CDevice* pDevice = nullptr;
    if (const cudaError_t eError = FindDevice(xWhere.hStream, pDevice); eError != cudaSuccess)
    {
        return eError;
    }
    ESide eTarget = ESide::Any;
    ESide eSource = ESide::Any;
    if (!_GetSides(eKind, eTarget, eSource))
    {
        return cudaErrorInvalidMemcpyDirection;
    }
    if (xArea.nWidth == 0 || xArea.nRowCount == 0)
    {
        return cudaSuccess;
    }
    if (xArea.nWidth > xArea.nTargetPitch || xArea.nWidth > xArea.nSourcePitch)
    {
        return cudaErrorInvalidPitchValue;
    }
    auto xLock = CMemory::Get().Read();
    const SBlock* pSourceBlock = nullptr;
    if (const cudaError_t eError = _CheckArea(*pDevice, xArea, eTarget, eSource, pSourceBlock); eError != cudaSuccess)
    {
        return eError;
    }
    return _Execute(*pDevice, xArea, xWhere, xLock);
}

cudaError_t _Set(SArea xArea, const SWhere& xWhere)
{
    CDevice* pDevice = nullptr;
    if (const cudaError_t eError = FindDevice(xWhere.hStream, pDevice); eError != cudaSuccess)
    {
        return eError;
    }
    if (xArea.nWidth == 0 || xArea.nRowCount == 0)
    {
        return cudaSuccess;
    }
    if (xArea.nRowCount > 1 && xArea.nWidth > xArea.nTargetPitch)
    {
        return cudaErrorInvalidPitchValue;
    }
    auto xLock = CMemory::Get().Read();
    const SBlock* pNoBlock = nullptr;
    if (const cudaError_t eError = _CheckArea(*pDevice, xArea, ESide::Device, {}, pNoBlock); eError != cudaSuccess)
    {
        return eError;
    }
    return _Execute(*pDevice, xArea, xWhere, xLock);
}

/// Pageable memory up to this size is taken along by a copy to a symbol.
constexpr std::size_t c_nStagingLimit = std::size_t{64} * 1024;

SArea _MakeCopy(void* pTarget, std::size_t nTargetPitch, const void* pSource, std::size_t nSourcePitch,
    std::size_t nWidth, std::size_t nRowCount) noexcept
{
    SArea xArea;
    xArea.pTarget = static_cast<unsigned char*>(pTarget);
    xArea.nTargetPitch = nTargetPitch;
    xArea.pSource = static_cast<const unsigned char*>(pSource);
    xArea.nSourcePitch = nSourcePitch;
    xArea.nWidth = nWidth;
    xArea.nRowCount = nRowCount;
    return xArea;
}

// Copies between a symbol and other memory, to the symbol or from it.
cudaError_t _CopySymbol(const void* pSymbol, const void* pOther, std::size_t nCount, std::size_t nOffset,
    cudaMemcpyKind eKind, bool bToSymbol, const SWhere& xWhere)
{
    CDevice* pDevice = nullptr;
    cudaError_t eError = FindDevice(xWhere.hStream, pDevice);
    if (eError == cudaSuccess)
    {
        eError = CheckSymbol(pSymbol, nCount, nOffset);
    }
    ESide eTarget = ESide::Any;
    ESide eSource = ESide::Any;
    if (eError == cudaSuccess &&
        (!_GetSides(eKind, eTarget, eSource) || (bToSymbol ? eTarget : eSource) == ESide::Host))
    {
        eError = cudaErrorInvalidMemcpyDirection;
    }
    if (eError != cudaSuccess || nCount == 0)
    {
        return eError;
    }
    const void* const pPart = static_cast<const unsigned char*>(pSymbol) + nOffset;
    SArea xArea =
        _MakeCopy(const_cast<void*>(bToSymbol ? pPart : pOther), nCount, bToSymbol ? pOther : pPart, nCount, nCount, 1);
    auto xLock = CMemory::Get().Read();
    const SBlock* pSourceBlock = nullptr;
    eError = bToSymbol ? _CheckArea(*pDevice, xArea, {}, eSource, pSourceBlock)
                       : _CheckArea(*pDevice, xArea, eTarget, {}, pSourceBlock);
    if (eError != cudaSuccess)
    {
        return eError;
    }
    if (bToSymbol && xWhere.bAsync && pSourceBlock == nullptr && nCount <= c_nStagingLimit)
    {
        std::shared_ptr<unsigned char[]> pStaged(new unsigned char[nCount]);
        std::memcpy(pStaged.get(), xArea.pSource, nCount);
        xArea.pSource = pStaged.get();
        return pDevice->Enqueue(xWhere.hStream, MakeWork([xArea, pStaged] { _Run(xArea); }));
    }
    return _Execute(*pDevice, xArea, xWhere, xLock);
}

SArea _MakeSet(void* pTarget, std::size_t nPitch, int iValue, std::size_t nWidth, std::size_t nRowCount) noexcept
{
    SArea xArea = _MakeCopy(pTarget, nPitch, nullptr, 0, nWidth, nRowCount);
    xArea.uValue = static_cast<unsigned char>(iValue);
    return xArea;
}

} // namespace
} // namespace Qx::HostCuda

using namespace Qx::HostCuda;

cudaError_t cudaMemcpy(void* dst, const void* src, size_t count, cudaMemcpyKind kind)
{
    return Call([&] { return _Copy(_MakeCopy(dst, count, src, count, count, 1), kind, {}); });
}

cudaError_t cudaMemcpyAsync(void* dst, const void* src, size_t count, cudaMemcpyKind kind, cudaStream_t stream)
{
    return Call([&] { return _Copy(_MakeCopy(dst, count, src, count, count, 1), kind, {true, stream}); });
}

cudaError_t cudaMemcpy2D(
    void* dst, size_t dpitch, const void* src, size_t spitch, size_t width, size_t height, cudaMemcpyKind kind)
{
    return Call([&] { return _Copy(_MakeCopy(dst, dpitch, src, spitch, width, height), kind, {}); });
}

cudaError_t cudaMemcpy2DAsync(void* dst, size_t dpitch, const void* src, size_t spitch, size_t width, size_t height,
    cudaMemcpyKind kind, cudaStream_t stream)
{
    return Call([&] { return _Copy(_MakeCopy(dst, dpitch, src, spitch, width, height), kind, {true, stream}); });
}

cudaError_t cudaMemset(void* devPtr, int value, size_t count)
{
    return Call([&] { return _Set(_MakeSet(devPtr, count, value, count, 1), {}); });
}

cudaError_t cudaMemsetAsync(void* devPtr, int value, size_t count, cudaStream_t stream)
{
    return Call([&] { return _Set(_MakeSet(devPtr, count, value, count, 1), {true, stream}); });
}

cudaError_t cudaMemset2D(void* devPtr, size_t pitch, int value, size_t width, size_t height)
{
    return Call([&] { return _Set(_MakeSet(devPtr, pitch, value, width, height), {}); });
}

cudaError_t cudaMemset2DAsync(void* devPtr, size_t pitch, int value, size_t width, size_t height, cudaStream_t stream)
{
    return Call([&] { return _Set(_MakeSet(devPtr, pitch, value, width, height), {true, stream}); });
}

cudaError_t cudaMemcpyToSymbol(const void* symbol, const void* src, size_t count, size_t offset, cudaMemcpyKind kind)
{
    return Call([&] { return _CopySymbol(symbol, src, count, offset, kind, true, {}); });
}

cudaError_t cudaMemcpyToSymbolAsync(
    const void* symbol, const void* src, size_t count, size_t offset, cudaMemcpyKind kind, cudaStream_t stream)
{
    return Call([&] { return _CopySymbol(symbol, src, count, offset, kind, true, {true, stream}); });
}

cudaError_t cudaMemcpyFromSymbol(void* dst, const void* symbol, size_t count, size_t offset, cudaMemcpyKind kind)
{
    return Call([&] { return _CopySymbol(symbol, dst, count, offset, kind, false, {}); });
}

cudaError_t cudaMemcpyFromSymbolAsync(
    void* dst, const void* symbol, size_t count, size_t offset, cudaMemcpyKind kind, cudaStream_t stream)
{
    return Call([&] { return _CopySymbol(symbol, dst, count, offset, kind, false, {true, stream}); });
}
