#include "Qx.HostCuda/Memory/Areas.h"

#include "Qx.HostCuda/Runtime/Sanitizer.h"

#include <cstring>
#include <functional>

namespace Qx::HostCuda
{
namespace
{

// The padding of pitched blocks is poisoned so that AddressSanitizer finds a kernel or host code that strays into it.
// A copy of whole pitches, or a linear one across rows, meets it legitimately: checked against the registry already,
// it may read and write there. Its other side is not exempt.
void _CheckOther(const unsigned char* pMemory, std::size_t nByteCount) noexcept
{
    const void* const pBad = pMemory != nullptr ? FindPoisoned(pMemory, nByteCount) : nullptr;
    if (pBad != nullptr)
    {
        ReportPoisoned(pBad);
    }
}

__attribute__((no_sanitize("address"))) void _RunUnchecked(
    unsigned char* pTarget, const unsigned char* pSource, unsigned char uValue, std::size_t nByteCount) noexcept
{
    volatile unsigned char* const pTo = pTarget;
    const volatile unsigned char* const pFrom = pSource;
    const bool bForward = std::less<>{}(pTarget, pSource);
    for (std::size_t nIndex = 0; nIndex < nByteCount; ++nIndex)
    {
        const std::size_t nAt = bForward ? nIndex : nByteCount - 1 - nIndex;
        pTo[nAt] = pFrom != nullptr ? pFrom[nAt] : uValue;
    }
}

void _RunRow(const SArea& xArea, unsigned char* pTarget, const unsigned char* pSource, std::size_t nByteCount) noexcept
{
    const bool bTarget = xArea.bTargetPadded && FindPoisoned(pTarget, nByteCount) != nullptr;
    const bool bSource = xArea.bSourcePadded && FindPoisoned(pSource, nByteCount) != nullptr;
    if (bTarget || bSource)
    {
        _CheckOther(xArea.bTargetPadded ? nullptr : pTarget, nByteCount);
        _CheckOther(xArea.bSourcePadded ? nullptr : pSource, nByteCount);
        _RunUnchecked(pTarget, pSource, xArea.uValue, nByteCount);
        return;
    }
    if (pSource == nullptr)
    {
        std::memset(pTarget, xArea.uValue, nByteCount);
    }
    else
    {
        std::memmove(pTarget, pSource, nByteCount);
    }
}

} // namespace

void Run(const SArea& xArea) noexcept
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

} // namespace Qx::HostCuda
