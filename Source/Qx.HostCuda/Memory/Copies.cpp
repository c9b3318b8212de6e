#include "Qx.HostCuda/Memory/Areas.h"
#include "Qx.HostCuda/Memory/Blocks.h"
#include "Qx.HostCuda/Memory/Symbols.h"
#include "Qx.HostCuda/Runtime/Sanitizer.h"
#include "Qx.HostCuda/Streams/Schedule.h"

#include <bit>
#include <cstring>
#include <iterator>
#include <memory>

namespace Qx::HostCuda
{
namespace
{

/// What a direction says about one side of a copy.
enum class ESide
{
    Host,
    Device,
    Any
};

/// Checks the rows on one side and notes their use by a device. The result is their block, null for memory that no call
/// here allocated. Needs the read lock.
const SBlock* _CheckSide(
    const CDevice& xDevice, const void* pMemory, std::size_t nPitch, const SArea& xArea, ESide eSide)
{
    const auto uAddress = reinterpret_cast<std::uintptr_t>(pMemory);
    std::size_t nSpan = 0;
    std::uintptr_t uEnd = 0;
    const bool bOverflow = __builtin_mul_overflow(nPitch, xArea.nRowCount - 1, &nSpan) ||
        __builtin_add_overflow(nSpan, xArea.nWidth, &nSpan) || __builtin_add_overflow(uAddress, nSpan, &uEnd);
    Require(pMemory != nullptr && !bOverflow, cudaErrorInvalidValue);
    const SBlock* const pBlock = CMemory::Get().FindMet(uAddress, nSpan);
    Require(pBlock != nullptr || eSide != ESide::Device, cudaErrorInvalidValue);
    if (pBlock != nullptr)
    {
        Require(eSide != ESide::Host || pBlock->IsForHost(), cudaErrorInvalidValue);
        Require(uAddress >= pBlock->uBase && uEnd <= pBlock->uBase + pBlock->nSize, cudaErrorInvalidValue);
        CMemory::NoteUse(*pBlock, xDevice);
    }
    return pBlock;
}

/// True for a pitched block in use; one that lies idle is poisoned from its first byte on.
bool _HasOnlyPaddingPoisoned(const SBlock* pBlock) noexcept
{
    return pBlock != nullptr && pBlock->eKind == EMemoryKind::Pitched &&
        FindPoisoned(std::bit_cast<void*>(pBlock->uBase), 1) == nullptr;
}

/// _CheckSide for the destination of an area.
void _CheckTarget(const CDevice& xDevice, SArea& xArea, ESide eSide)
{
    const SBlock* const pBlock = _CheckSide(xDevice, xArea.pTarget, xArea.nTargetPitch, xArea, eSide);
    xArea.bTargetPadded = _HasOnlyPaddingPoisoned(pBlock);
    if (pBlock != nullptr && pBlock->eKind == EMemoryKind::Pitched)
    {
        const std::size_t nOffset = reinterpret_cast<std::uintptr_t>(xArea.pTarget) - pBlock->uBase;
        if (!pBlock->HasInRows(nOffset, xArea.nTargetPitch, xArea.nWidth, xArea.nRowCount))
        {
            CMemory::NotePaddingUse(*pBlock);
        }
    }
}

/// _CheckSide for the source of an area; false if that is pageable.
bool _CheckSource(const CDevice& xDevice, SArea& xArea, ESide eSide)
{
    const SBlock* const pBlock = _CheckSide(xDevice, xArea.pSource, xArea.nSourcePitch, xArea, eSide);
    xArea.bSourcePadded = _HasOnlyPaddingPoisoned(pBlock);
    return pBlock != nullptr;
}

/// The sides of a direction.
struct SSides
{
    ESide eTarget;
    ESide eSource;
};

/// The sides of the directions, by their numbers.
constexpr SSides c_vSides[] = {{ESide::Host, ESide::Host}, {ESide::Device, ESide::Host}, {ESide::Host, ESide::Device},
    {ESide::Device, ESide::Device}, {ESide::Any, ESide::Any}};
static_assert(cudaMemcpyHostToDevice == 1 && cudaMemcpyDeviceToHost == 2 && cudaMemcpyDefault == 4);

const SSides& _GetSides(cudaMemcpyKind eKind)
{
    const auto uKind = static_cast<unsigned>(eKind);
    Require(uKind < std::size(c_vSides), cudaErrorInvalidMemcpyDirection);
    return c_vSides[uKind];
}

/// Where and how a call runs: on the calling thread in its turn on the legacy stream, or queued.
struct SWhere
{
    bool bAsync = false;
    cudaStream_t hStream = nullptr;
};

/// The frame of copies and memsets: `Function(place, lock)` on a stream, with the read lock of the memory, which is
/// taken first.
template <class F>
cudaError_t _OnMemory(const SWhere& xWhere, F&& Function) noexcept
{
    return Call(
        [&]
        {
            CMemory::CReadLock xLock = CMemory::Get().Read();
            CPlace xPlace(xWhere.hStream);
            std::forward<F>(Function)(xPlace, xLock);
        });
}

/// Runs or queues a checked area and gives up the read lock as soon as nobody can free its memory any more.
void _Execute(CPlace& xPlace, CMemory::CReadLock& xLock, const SArea& xArea, bool bAsync)
{
    if (bAsync)
    {
        xPlace.Enqueue(MakeWork([xArea] { Run(xArea); }));
    }
    else
    {
        RunInTurn(xPlace, xLock, [&] { Run(xArea); });
    }
}

cudaError_t _Copy(SArea xArea, cudaMemcpyKind eKind, const SWhere& xWhere)
{
    return _OnMemory(xWhere,
        [&](CPlace& xPlace, CMemory::CReadLock& xLock)
        {
            const auto [eTarget, eSource] = _GetSides(eKind);
            if (xArea.nWidth == 0 || xArea.nRowCount == 0)
            {
                return;
            }
            Require(
                xArea.nWidth <= xArea.nTargetPitch && xArea.nWidth <= xArea.nSourcePitch, cudaErrorInvalidPitchValue);
            _CheckTarget(xPlace.GetDevice(), xArea, eTarget);
            _CheckSource(xPlace.GetDevice(), xArea, eSource);
            _Execute(xPlace, xLock, xArea, xWhere.bAsync);
        });
}

cudaError_t _Set(SArea xArea, int iValue, const SWhere& xWhere)
{
    xArea.uValue = static_cast<unsigned char>(iValue);
    return _OnMemory(xWhere,
        [&](CPlace& xPlace, CMemory::CReadLock& xLock)
        {
            if (xArea.nWidth == 0 || xArea.nRowCount == 0)
            {
                return;
            }
            Require(xArea.nRowCount == 1 || xArea.nWidth <= xArea.nTargetPitch, cudaErrorInvalidPitchValue);
            _CheckTarget(xPlace.GetDevice(), xArea, ESide::Device);
            _Execute(xPlace, xLock, xArea, xWhere.bAsync);
        });
}

SArea _MakeArea(void* pTarget, std::size_t nTargetPitch, const void* pSource, std::size_t nSourcePitch,
    std::size_t nWidth, std::size_t nRowCount) noexcept
{
    return {static_cast<unsigned char*>(pTarget), nTargetPitch, static_cast<const unsigned char*>(pSource),
        nSourcePitch, nWidth, nRowCount};
}

/// Pageable memory up to this size is taken along by a copy to a symbol.
constexpr std::size_t c_nStagingLimit = std::size_t{64} * 1024;

/// Queues the copy of pageable memory that is taken along.
void _Stage(CPlace& xPlace, SArea xArea)
{
    std::shared_ptr<unsigned char[]> pStaged(new unsigned char[xArea.nWidth]);
    std::memcpy(pStaged.get(), xArea.pSource, xArea.nWidth);
    xArea.pSource = pStaged.get();
    xPlace.Enqueue(MakeWork([xArea, pStaged] { Run(xArea); }));
}

/// Copies between a symbol and other memory, to the symbol or from it.
cudaError_t _CopySymbol(const void* pSymbol, const void* pOther, std::size_t nCount, std::size_t nOffset,
    cudaMemcpyKind eKind, bool bToSymbol, const SWhere& xWhere)
{
    const std::size_t nSize = GetSymbolSize(pSymbol); // before anything is held, since it may read a file
    return _OnMemory(xWhere,
        [&](CPlace& xPlace, CMemory::CReadLock& xLock)
        {
            Require(nSize != 0, cudaErrorInvalidSymbol);
            Require(nOffset <= nSize && nCount <= nSize - nOffset, cudaErrorInvalidValue);
            const auto [eTarget, eSource] = _GetSides(eKind);
            Require((bToSymbol ? eTarget : eSource) != ESide::Host, cudaErrorInvalidMemcpyDirection);
            if (nCount == 0)
            {
                return;
            }
            auto* const pPart = static_cast<unsigned char*>(const_cast<void*>(pSymbol)) + nOffset;
            const CDevice& xDevice = xPlace.GetDevice();
            if (!bToSymbol)
            {
                SArea xArea = _MakeArea(const_cast<void*>(pOther), nCount, pPart, nCount, nCount, 1);
                _CheckTarget(xDevice, xArea, eTarget);
                _Execute(xPlace, xLock, xArea, xWhere.bAsync);
                return;
            }
            SArea xArea = _MakeArea(pPart, nCount, pOther, nCount, nCount, 1);
            const bool bPageable = !_CheckSource(xDevice, xArea, eSource);
            if (bPageable && xWhere.bAsync && nCount <= c_nStagingLimit)
            {
                _Stage(xPlace, xArea);
            }
            else
            {
                _Execute(xPlace, xLock, xArea, xWhere.bAsync);
            }
        });
}

} // namespace
} // namespace Qx::HostCuda

using namespace Qx::HostCuda;

cudaError_t cudaMemcpy(void* dst, const void* src, size_t count, cudaMemcpyKind kind)
{
    return _Copy(_MakeArea(dst, count, src, count, count, 1), kind, {});
}

cudaError_t cudaMemcpyAsync(void* dst, const void* src, size_t count, cudaMemcpyKind kind, cudaStream_t stream)
{
    return _Copy(_MakeArea(dst, count, src, count, count, 1), kind, {true, stream});
}

cudaError_t cudaMemcpy2D(
    void* dst, size_t dpitch, const void* src, size_t spitch, size_t width, size_t height, cudaMemcpyKind kind)
{
    return _Copy(_MakeArea(dst, dpitch, src, spitch, width, height), kind, {});
}

cudaError_t cudaMemcpy2DAsync(void* dst, size_t dpitch, const void* src, size_t spitch, size_t width, size_t height,
    cudaMemcpyKind kind, cudaStream_t stream)
{
    return _Copy(_MakeArea(dst, dpitch, src, spitch, width, height), kind, {true, stream});
}

cudaError_t cudaMemset(void* devPtr, int value, size_t count)
{
    return _Set(_MakeArea(devPtr, count, nullptr, 0, count, 1), value, {});
}

cudaError_t cudaMemsetAsync(void* devPtr, int value, size_t count, cudaStream_t stream)
{
    return _Set(_MakeArea(devPtr, count, nullptr, 0, count, 1), value, {true, stream});
}

cudaError_t cudaMemset2D(void* devPtr, size_t pitch, int value, size_t width, size_t height)
{
    return _Set(_MakeArea(devPtr, pitch, nullptr, 0, width, height), value, {});
}

cudaError_t cudaMemset2DAsync(void* devPtr, size_t pitch, int value, size_t width, size_t height, cudaStream_t stream)
{
    return _Set(_MakeArea(devPtr, pitch, nullptr, 0, width, height), value, {true, stream});
}

cudaError_t cudaMemcpyToSymbol(const void* symbol, const void* src, size_t count, size_t offset, cudaMemcpyKind kind)
{
    return _CopySymbol(symbol, src, count, offset, kind, true, {});
}

cudaError_t cudaMemcpyToSymbolAsync(
    const void* symbol, const void* src, size_t count, size_t offset, cudaMemcpyKind kind, cudaStream_t stream)
{
    return _CopySymbol(symbol, src, count, offset, kind, true, {true, stream});
}

cudaError_t cudaMemcpyFromSymbol(void* dst, const void* symbol, size_t count, size_t offset, cudaMemcpyKind kind)
{
    return _CopySymbol(symbol, dst, count, offset, kind, false, {});
}

cudaError_t cudaMemcpyFromSymbolAsync(
    void* dst, const void* symbol, size_t count, size_t offset, cudaMemcpyKind kind, cudaStream_t stream)
{
    return _CopySymbol(symbol, dst, count, offset, kind, false, {true, stream});
}
