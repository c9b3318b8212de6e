#include "Qx.HostCuda/Memory/Arrays.h"

#include "Qx.HostCuda/Streams/Schedule.h"

#include <algorithm>
#include <array>
#include <bit>

namespace Qx::HostCuda
{
namespace
{

/// The elements that arrays may have of a kind: bits of a channel and numbers of channels, as sums of powers of two.
struct SElementRow
{
    cudaChannelFormatKind eKind;
    unsigned uBits;
    unsigned uCounts;
};

constexpr SElementRow c_vElements[] = {
    {cudaChannelFormatKindSigned, 8 | 16 | 32, 1 | 2 | 4},
    {cudaChannelFormatKindUnsigned, 8 | 16 | 32, 1 | 2 | 4},
    {cudaChannelFormatKindFloat, 16 | 32, 1 | 2 | 4},
    {cudaChannelFormatKindUnsignedNormalized8X1, 8, 1},
    {cudaChannelFormatKindUnsignedNormalized8X2, 8, 2},
    {cudaChannelFormatKindUnsignedNormalized8X4, 8, 4},
    {cudaChannelFormatKindUnsignedNormalized16X1, 16, 1},
    {cudaChannelFormatKindUnsignedNormalized16X2, 16, 2},
    {cudaChannelFormatKindUnsignedNormalized16X4, 16, 4},
    {cudaChannelFormatKindSignedNormalized8X1, 8, 1},
    {cudaChannelFormatKindSignedNormalized8X2, 8, 2},
    {cudaChannelFormatKindSignedNormalized8X4, 8, 4},
    {cudaChannelFormatKindSignedNormalized16X1, 16, 1},
    {cudaChannelFormatKindSignedNormalized16X2, 16, 2},
    {cudaChannelFormatKindSignedNormalized16X4, 16, 4},
};

/// Bytes of an element; 0 if arrays have no such elements. Its channels are the first ones and equal.
std::size_t _GetElementSize(const cudaChannelFormatDesc& xFormat) noexcept
{
    const auto IsOneOf = [](unsigned uValue, unsigned uAllowed)
    { return std::has_single_bit(uValue) && (uValue & uAllowed) != 0; };
    const std::array vChannels{xFormat.x, xFormat.y, xFormat.z, xFormat.w};
    const auto* const pEnd = std::ranges::find(vChannels, 0);
    const auto uBits = static_cast<unsigned>(xFormat.x);
    const auto uCount = static_cast<unsigned>(pEnd - vChannels.begin());
    const bool bValid =
        std::ranges::any_of(c_vElements,
            [&](const SElementRow& xRow)
            { return xRow.eKind == xFormat.f && IsOneOf(uBits, xRow.uBits) && IsOneOf(uCount, xRow.uCounts); }) &&
        std::all_of(vChannels.begin(), pEnd, [&](int iBits) { return iBits == xFormat.x; }) &&
        std::all_of(pEnd, vChannels.end(), [](int iBits) { return iBits == 0; });
    return bValid ? std::size_t{uBits} * uCount / 8 : 0;
}

} // namespace

void Add(SStatistics& xStatistics, EMemoryKind eKind, std::size_t nByteCount) noexcept
{
    for (SMemoryUse* const pUse : {&xStatistics.vMemory[static_cast<std::size_t>(eKind)], &xStatistics.xTotal})
    {
        ++pUse->nBlockCount;
        pUse->nByteCount += nByteCount;
    }
}

CArrays::CArrays()
{
    static_cast<void>(CSchedule::All()); // so that freeing, which waits for all work, never has to make it
}

CArrays& CArrays::All()
{
    static CArrays& s_xArrays = *new CArrays;
    return s_xArrays;
}

CArrays::CTable::SSlot& CArrays::_Get(cudaArray_t hArray)
{
    CTable::SSlot* const pSlot = m_vArrays.Find(hArray);
    Require(pSlot != nullptr, cudaErrorInvalidValue);
    return *pSlot;
}

SArray CArrays::Get(cudaArray_t hArray)
{
    const std::lock_guard xLock(m_xMutex);
    return _Get(hArray);
}

cudaArray_t CArrays::Allocate(CDevice& xDevice, const SArray& xArray)
{
    const std::lock_guard xLock(m_xMutex);
    CTable::SSlot& xSlot = m_vArrays.Create(xDevice.GetID());
    if (!xDevice.Reserve(xArray.nByteCount))
    {
        m_vArrays.Free(xSlot);
        throw std::bad_alloc();
    }
    static_cast<SArray&>(xSlot) = xArray;
    return xSlot.hHandle;
}

void CArrays::_Free(CTable::SSlot& xArray) noexcept
{
    FindDevice(xArray.iDevice)->Unreserve(xArray.nByteCount);
    m_vArrays.Free(xArray);
}

void CArrays::Free(cudaArray_t hArray)
{
    CDevice& xDevice = *FindDevice(Get(hArray).iDevice);
    CSchedule::Of(xDevice).Synchronize();
    xDevice.RequireHealthy();
    const std::lock_guard xLock(m_xMutex);
    _Free(_Get(hArray));
}

void CArrays::FreeAll(const CDevice& xDevice) noexcept
{
    const std::lock_guard xLock(m_xMutex);
    for (CTable::SSlot& xSlot : m_vArrays)
    {
        if (xSlot.hHandle != nullptr && xSlot.iDevice == xDevice.GetID())
        {
            _Free(xSlot);
        }
    }
}

void CArrays::Count(int iDevice, SStatistics& xStatistics)
{
    const std::lock_guard xLock(m_xMutex);
    for (const CTable::SSlot& xSlot : m_vArrays)
    {
        if (xSlot.hHandle != nullptr && xSlot.iDevice == iDevice)
        {
            Add(xStatistics, EMemoryKind::Array, xSlot.nByteCount);
        }
    }
}

} // namespace Qx::HostCuda

using namespace Qx::HostCuda;

cudaChannelFormatDesc cudaCreateChannelDesc(int x, int y, int z, int w, cudaChannelFormatKind f)
{
    return {x, y, z, w, f};
}

cudaError_t cudaMallocArray(
    cudaArray_t* array, const cudaChannelFormatDesc* desc, size_t width, size_t height, unsigned int flags)
{
    return OnDevice(
        [&](CDevice& xDevice)
        {
            constexpr unsigned c_uKnown = cudaArraySurfaceLoadStore | cudaArrayTextureGather;
            constexpr std::size_t c_nMaxWidth = 131072;
            constexpr std::size_t c_nMaxHeight = 65536;
            Require(array != nullptr && desc != nullptr, cudaErrorInvalidValue);
            const std::size_t nElementSize = _GetElementSize(*desc);
            Require(nElementSize != 0, cudaErrorInvalidChannelDescriptor);
            Require((flags & ~c_uKnown) == 0 && width != 0 && width <= c_nMaxWidth && height <= c_nMaxHeight,
                cudaErrorInvalidValue);
            const std::size_t nByteCount = width * std::max<std::size_t>(height, 1) * nElementSize;
            *array = CArrays::All().Allocate(xDevice, {*desc, {width, height, 0}, flags, xDevice.GetID(), nByteCount});
        });
}

cudaError_t cudaFreeArray(cudaArray_t array)
{
    return OnDevice(
        [&](const CDevice&)
        {
            if (array != nullptr)
            {
                CArrays::All().Free(array);
            }
        });
}

cudaError_t cudaArrayGetInfo(cudaChannelFormatDesc* desc, cudaExtent* extent, unsigned int* flags, cudaArray_t array)
{
    return OnDevice(
        [&](const CDevice&)
        {
            const SArray xArray = CArrays::All().Get(array);
            const auto Write = [](auto* pPlace, const auto& xAnswer)
            {
                if (pPlace != nullptr)
                {
                    *pPlace = xAnswer;
                }
            };
            Write(desc, xArray.xFormat);
            Write(extent, xArray.xExtent);
            Write(flags, xArray.uFlags);
        });
}
