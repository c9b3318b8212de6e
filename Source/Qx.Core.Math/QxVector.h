#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>
#include <vector>

#include "Qx.Core/QxExport.h"

namespace Qx
{

/// A host vector of `float` or `double`: an element count and contiguous elements that it owns.
///
/// The order of the virtual operations is part of the binary interface: writable `GetDataPtr`, const `GetDataPtr`,
/// `Resize`, destructor. One thread uses a vector at a time.
template <typename T>
class QX_EXPORT_TYPE CQxVector
{
    static_assert(std::is_same_v<T, float> || std::is_same_v<T, double>, "vectors hold float or double");

public:
    /// An empty vector; does not allocate.
    CQxVector() noexcept = default;

    /// A vector of @p nSize zeros. Throws what `Resize` throws.
    explicit CQxVector(std::size_t nSize) : m_nSize(nSize), m_vStore(nSize) { m_pData = m_vStore.data(); }

    /// A copy with elements of its own. Throws `std::bad_alloc` when there is no memory for them.
    CQxVector(const CQxVector& xOther) : m_nSize(xOther.m_nSize), m_vStore(xOther.m_vStore)
    {
        m_pData = m_vStore.data();
    }

    /// Takes the elements over; @p xOther is empty afterwards.
    CQxVector(CQxVector&& xOther) noexcept { _Swap(xOther); }

    /// Copies or moves, depending on the argument; a failed copy leaves this vector as it was.
    CQxVector& operator=(CQxVector xOther) noexcept
    {
        _Swap(xOther);
        return *this;
    }

    /// The first element, writable; owned by the vector and valid until it is resized, assigned or destroyed. May be
    /// null when the vector is empty.
    virtual T* GetDataPtr() { return m_pData; }

    /// The same for reading.
    virtual const T* GetDataPtr() const { return m_pData; }

    /// Gives the vector @p nSize elements: the leading ones stay, new ones are zero. Shrinking frees no memory and
    /// keeps the elements in their place.
    ///
    /// Throws `std::length_error` when no store can have that many elements and `std::bad_alloc` when there is no
    /// memory for them; the vector is then unchanged. Overrides are called by the downloads of device vectors.
    virtual void Resize(std::size_t nSize)
    {
        m_vStore.resize(nSize);
        m_pData = m_vStore.data();
        m_nSize = nSize;
    }

    virtual ~CQxVector() = default;

    /// The number of elements.
    std::uint64_t GetSize() const noexcept { return m_nSize; }

    /// Element @p nIndex, which must be below `GetSize()`; not checked.
    T& operator[](std::size_t nIndex) noexcept { return m_pData[nIndex]; }
    /// The same for reading.
    const T& operator[](std::size_t nIndex) const noexcept { return m_pData[nIndex]; }

private:
    void _Swap(CQxVector& xOther) noexcept
    {
        std::swap(m_nSize, xOther.m_nSize);
        std::swap(m_pData, xOther.m_pData);
        m_vStore.swap(xOther.m_vStore);
    }

    std::uint64_t m_nSize = 0;
    T* m_pData = nullptr;
    std::vector<T> m_vStore;
};

} // namespace Qx
