#pragma once

#include <cstdint>

#include "Qx.Core.Math/QxMatrix.h"
#include "Qx.Cuda/QxCudaDeviceArray.h"

namespace Qx
{

/// A dense matrix of `float` or `double` in linear device memory, stored row by row as the host matrix is: element
/// (r, c) at index r x columns + c.
///
/// The matrix owns its block, which is allocated anew only when rows x columns changes. A new matrix has 0 x 0 elements
/// and no block. Its copies wait as those of `CQxCudaDeviceVector`. One thread uses a matrix at a time, with the
/// matrix's device current. Exceptions of other types than `CQxException` pass unchanged.
template <typename T>
class QX_CUDA_API CQxCudaDeviceMatrix
{
public:
    /// 0 x 0, no block; makes no CUDA call.
    CQxCudaDeviceMatrix() noexcept = default;

    // The block has one owner that stays where it is.
    CQxCudaDeviceMatrix(const CQxCudaDeviceMatrix&) = delete;
    CQxCudaDeviceMatrix& operator=(const CQxCudaDeviceMatrix&) = delete;

    /// Frees the block; a failure is dropped.
    virtual ~CQxCudaDeviceMatrix();

    /// Uploads all elements of @p xMatrix.
    ///
    /// Throws a `CQxException` "Error copying host matrix to device" around "Error copying to device", inside of which
    /// is the failed allocation (there is no block then), the failed release of a block of another count (which stays),
    /// or the failed copy (the new block stays, its contents are undefined). The counts are those of @p xMatrix even
    /// then.
    void Set(const CQxMatrix<T>& xMatrix)
    {
        m_nRows = xMatrix.GetRowCount();
        m_nCols = xMatrix.GetColCount();
        Guard({c_pcFile, "Set"}, "Error copying host matrix to device",
            [&] { m_xArray.ToDevice(xMatrix.GetDataPtr(), _ElementCount(m_nRows, m_nCols)); });
    }

    /// Downloads all elements. When @p xMatrix has other counts, its `SetDimensions` is called first.
    ///
    /// Throws what the standard library throws when @p xMatrix cannot grow, and a `CQxException` "Error copying device
    /// matrix to host" around, in this order, "Error resizing matrix", "Nullptr --> Invalid device pointer" without a
    /// block, "Unequal element counts" when a failed `Set` has left a block of another count, or a `CQxCudaException`
    /// "Error copying to host". After the last three @p xMatrix has the new dimensions.
    void Get(CQxMatrix<T>& xMatrix) const
    {
        Guard({c_pcFile, "Get"}, "Error copying device matrix to host",
            [&]
            {
                if (xMatrix.GetRowCount() != m_nRows || xMatrix.GetColCount() != m_nCols)
                {
                    xMatrix.SetDimensions(m_nRows, m_nCols);
                }
                m_xArray.ToHost(xMatrix.GetDataPtr(), _ElementCount(m_nRows, m_nCols));
            });
    }

    /// Gives the matrix @p nRows x @p nCols elements. The contents stay, element by element in their order, when it has
    /// that many already, else they are lost and the new ones are undefined.
    ///
    /// Throws a `CQxException` "Error allocating device matrix " around "Error allocating memory block on the device",
    /// also when the element count exceeds 64 bits. The counts are the old ones then; the block is gone unless it was
    /// its release that failed.
    void Resize(std::uint64_t nRows, std::uint64_t nCols)
    {
        Guard({c_pcFile, "Resize"}, "Error allocating device matrix ",
            [&] { m_xArray.Require(_ElementCount(nRows, nCols)); });
        m_nRows = nRows;
        m_nCols = nCols;
    }

    /// Frees the block; the matrix has 0 x 0 elements afterwards.
    ///
    /// Throws a `CQxException` "Error deleting Device matrix" around "Error deleting memory block on the device"; the
    /// matrix is unchanged then.
    void Delete()
    {
        Guard({c_pcFile, "Delete"}, "Error deleting Device matrix", [&] { m_xArray.Delete(); });
        m_nRows = 0;
        m_nCols = 0;
    }

    /// Rows.
    std::uint64_t GetRowCount() const noexcept { return m_nRows; }

    /// Columns.
    std::uint64_t GetColCount() const noexcept { return m_nCols; }

    /// True when there is a block.
    bool IsValid() const noexcept { return m_xArray.GetDataPtr() != nullptr; }

    /// True when the block has exactly rows x columns elements, so that a kernel may use them; also for no elements.
    /// Says nothing of their values, which are undefined after a resize or an upload that failed in the copy.
    bool IsComplete() const noexcept { return m_xArray.GetCount() == _ElementCount(m_nRows, m_nCols); }

    /// The element of row 0 and column 0 on the device; null without a block. Stays owned by the matrix.
    T* GetDataPtr() noexcept { return m_xArray.GetDataPtr(); }

    /// The same for reading.
    const T* GetDataPtr() const noexcept { return m_xArray.GetDataPtr(); }

private:
    QX_LOCAL static constexpr const char* c_pcFile = "Source/Qx.Cuda/QxCudaDeviceMatrix";

    // A count beyond 64 bits becomes the largest one, which no device can hold.
    static std::uint64_t _ElementCount(std::uint64_t nRows, std::uint64_t nCols) noexcept
    {
        std::uint64_t nCount = 0;
        return __builtin_mul_overflow(nRows, nCols, &nCount) ? UINT64_MAX : nCount;
    }

    std::uint64_t m_nRows = 0;
    std::uint64_t m_nCols = 0;
    CQxCudaDeviceArray<T> m_xArray;
};

extern template class CQxCudaDeviceMatrix<float>;
extern template class CQxCudaDeviceMatrix<double>;

} // namespace Qx
