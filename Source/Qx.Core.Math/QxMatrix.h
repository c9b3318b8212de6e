#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

#include "Qx.Core/QxException.h"

namespace Qx
{

/// A dense host matrix of `float` or `double`: row and column count and contiguous elements that it owns, stored row
/// by row (element (r, c) at index r x columns + c). One thread uses a matrix at a time.
template <typename T>
class QX_EXPORT_TYPE CQxMatrix
{
    static_assert(std::is_same_v<T, float> || std::is_same_v<T, double>, "matrices hold float or double");

public:
    /// A matrix of 0 x 0 elements; does not allocate.
    CQxMatrix() noexcept = default;

    /// A matrix of zeros. Throws `std::length_error` and `std::bad_alloc` as `SetDimensions` does.
    CQxMatrix(std::uint64_t nRows, std::uint64_t nCols)
        : m_nRows(nRows), m_nCols(nCols), m_vStore(_ElementCount(nRows, nCols))
    {
        m_pData = m_vStore.data();
    }

    /// A copy with elements of its own. Throws `std::bad_alloc` when there is no memory for them.
    CQxMatrix(const CQxMatrix& xOther) : m_nRows(xOther.m_nRows), m_nCols(xOther.m_nCols), m_vStore(xOther.m_vStore)
    {
        m_pData = m_vStore.data();
    }

    /// Takes the elements over; @p xOther has 0 x 0 elements afterwards.
    CQxMatrix(CQxMatrix&& xOther) noexcept { _Swap(xOther); }

    /// Copies or moves, depending on the argument; a failed copy leaves this matrix as it was.
    CQxMatrix& operator=(CQxMatrix xOther) noexcept
    {
        _Swap(xOther);
        return *this;
    }

    virtual ~CQxMatrix() = default;

    /// Gives the matrix @p nRows x @p nCols elements. The leading elements of the store stay in their order, whatever
    /// row they were in before; new ones are zero.
    ///
    /// Throws, in this order: `std::length_error` when the element count exceeds 64 bits; a `CQxException` "Error
    /// resizing matrix" around what `_AdmitElements` throws, after which the matrix has 0 x 0 elements;
    /// `std::length_error` when no store can have that many elements; `std::bad_alloc` when there is no memory for
    /// them. After an error of the standard library the matrix is unchanged.
    void SetDimensions(std::uint64_t nRows, std::uint64_t nCols)
    {
        const std::uint64_t nElements = _ElementCount(nRows, nCols);
        try
        {
            _AdmitElements(nElements);
            m_vStore.resize(nElements);
        }
        catch (const CQxException& xException)
        {
            m_nRows = 0;
            m_nCols = 0;
            m_vStore.clear();
            m_pData = m_vStore.data();
            ThrowWrapped({"Qx.Core.Math/QxMatrix", "SetDimensions"}, "Error resizing matrix", xException);
        }
        m_pData = m_vStore.data();
        m_nRows = nRows;
        m_nCols = nCols;
    }

    /// Rows.
    std::uint64_t GetRowCount() const noexcept { return m_nRows; }

    /// Columns.
    std::uint64_t GetColCount() const noexcept { return m_nCols; }

    /// The element of row 0 and column 0, writable; owned by the matrix and valid until its dimensions are set, it is
    /// assigned or destroyed. May be null when the matrix has no elements.
    T* GetDataPtr() noexcept { return m_pData; }

    /// The same for reading.
    const T* GetDataPtr() const noexcept { return m_pData; }

    /// The element of row @p nRow and column @p nCol, which must exist; not checked.
    T& operator()(std::uint64_t nRow, std::uint64_t nCol) noexcept { return m_pData[nRow * m_nCols + nCol]; }
    /// The same for reading.
    const T& operator()(std::uint64_t nRow, std::uint64_t nCol) const noexcept
    {
        return m_pData[nRow * m_nCols + nCol];
    }

protected:
    /// Called before the store gets @p nElements elements, so that a derived class can refuse them by throwing a
    /// `CQxException`, for example because of a memory budget of its own. Admits everything here.
    virtual void _AdmitElements(std::uint64_t nElements) { static_cast<void>(nElements); }

private:
    static std::uint64_t _ElementCount(std::uint64_t nRows, std::uint64_t nCols)
    {
        std::uint64_t nElements = 0;
        if (__builtin_mul_overflow(nRows, nCols, &nElements))
        {
            throw std::length_error("CQxMatrix: the element count exceeds 64 bits");
        }
        return nElements;
    }

    void _Swap(CQxMatrix& xOther) noexcept
    {
        std::swap(m_nRows, xOther.m_nRows);
        std::swap(m_nCols, xOther.m_nCols);
        std::swap(m_pData, xOther.m_pData);
        m_vStore.swap(xOther.m_vStore);
    }

    std::uint64_t m_nRows = 0;
    std::uint64_t m_nCols = 0;
    T* m_pData = nullptr;
    std::vector<T> m_vStore;
};

} // namespace Qx
