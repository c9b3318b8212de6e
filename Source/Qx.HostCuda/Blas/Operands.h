#pragma once

#include "Qx.HostCuda/Blas/Handles.h"
#include "Qx.HostCuda/Memory/Blocks.h"

#include <cstdint>
#include <cstdlib>

namespace Qx::HostCuda
{

/// Elements from the first to the last one of a vector, which may run backwards, and of a matrix.
inline std::uint64_t VectorSpan(int iCount, int iStep) noexcept
{
    return static_cast<std::uint64_t>(std::abs((iCount - 1LL) * iStep)) + 1;
}

inline std::uint64_t MatrixSpan(int iRows, int iCols, int iLeading) noexcept
{
    return static_cast<std::uint64_t>((iCols - 1LL) * iLeading + iRows);
}

/// The memory of one call, all of which has to be the device's (CUBLAS_STATUS_INVALID_VALUE). Holds the registry's read
/// lock, so that nobody frees it before the work is queued.
class COperands
{
public:
    explicit COperands(const SContext& xContext) : m_xContext(xContext), m_xLock(CMemory::Get().Read()) {}

    /// So many elements; their bytes may be more than 64 bits count.
    template <typename T>
    void Add(const T* pMemory, std::uint64_t nCount)
    {
        const auto uBegin = reinterpret_cast<std::uintptr_t>(pMemory);
        const SBlock* const pBlock = CMemory::Get().Find(uBegin);
        Require(pBlock != nullptr && nCount <= (pBlock->uBase + pBlock->nSize - uBegin) / sizeof(T),
            CUBLAS_STATUS_INVALID_VALUE);
        CMemory::NoteUse(*pBlock, *m_xContext.pDevice);
        CMemory::NotePaddingUse(*pBlock); // a result may cross rows
    }

    /// A scalar of the call: a function that tells the work its value, which may lie on the device.
    template <typename T>
    [[nodiscard]] auto AddScalar(const T* pScalar)
    {
        const bool bDevice = m_xContext.eMode == CUBLAS_POINTER_MODE_DEVICE;
        if (bDevice)
        {
            Add(pScalar, 1);
        }
        return [pDevice = bDevice ? pScalar : nullptr, tValue = bDevice ? T{} : *pScalar]
        { return pDevice != nullptr ? *pDevice : tValue; };
    }

    [[nodiscard]] CMemory::CReadLock& GetLock() noexcept { return m_xLock; }

private:
    const SContext& m_xContext;
    CMemory::CReadLock m_xLock;
};

} // namespace Qx::HostCuda
