#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "Qx.Core/QxExport.h"
#include "Qx.Core/QxString.h"

namespace Qx
{

/// A host mapping volume: an axis-aligned box, divided into a regular grid of cells with one `float` value each, and a
/// name.
///
/// The cell (ix, iy, iz) lies at index iz x (nx x ny) + ix x ny + iy: y varies fastest, then x, then z. Triples are in
/// the order x, y, z. The order of the fields and of the virtual operations is part of the binary interface:
/// `GetMinimum`, `GetMaximum`, `GetCellCounts`, `GetStepSizes`, `GetByteCount`, writable `GetDataPtr`, const
/// `GetDataPtr`, destructor. One thread uses a mapping at a time.
class QX_EXPORT_TYPE CQxMapping3D
{
public:
    /// An empty mapping: no cells, everything zero, empty name; does not allocate.
    CQxMapping3D() noexcept = default;

    /// A copy with values of its own. Throws `std::bad_alloc` when there is no memory for them.
    QX_CORE_API CQxMapping3D(const CQxMapping3D& xOther);

    /// Takes the values over; @p xOther is empty afterwards.
    QX_CORE_API CQxMapping3D(CQxMapping3D&& xOther) noexcept;

    /// Copies or moves, depending on the argument; a failed copy leaves this mapping as it was.
    QX_CORE_API CQxMapping3D& operator=(CQxMapping3D xOther) noexcept;

    /// The lower corner of the box.
    virtual const std::array<float, 3>& GetMinimum() const { return m_vMinimum; }

    /// The upper corner of the box.
    virtual const std::array<float, 3>& GetMaximum() const { return m_vMaximum; }

    /// The number of cells along each axis.
    virtual const std::array<int, 3>& GetCellCounts() const { return m_vCounts; }

    /// The extent of one cell along each axis.
    virtual const std::array<float, 3>& GetStepSizes() const { return m_vSteps; }

    /// Bytes of all values: the product of the cell counts x 4 in unsigned 32-bit arithmetic, so the count of 2^30
    /// cells or more wraps.
    virtual std::uint32_t GetByteCount() const
    {
        const std::array<int, 3>& vCounts = GetCellCounts();
        return static_cast<std::uint32_t>(vCounts[0]) * static_cast<std::uint32_t>(vCounts[1]) *
            static_cast<std::uint32_t>(vCounts[2]) * 4U;
    }

    /// The first value, writable; owned by the mapping and valid until it is created anew, assigned or destroyed. May
    /// be null when there are no cells.
    virtual float* GetDataPtr() { return m_pValues; }

    /// The same for reading.
    virtual const float* GetDataPtr() const { return m_pValues; }

    QX_CORE_API virtual ~CQxMapping3D();

    /// Gives the mapping a box and a grid and sets its values. The step sizes become extent / count in `float`
    /// arithmetic, 0 along an axis without cells. The name stays.
    ///
    /// A box without extent along an axis is accepted; no point lies inside it. A count of 0 is accepted too; there are
    /// no cells then. The mapping is unchanged after a failure.
    /// @param pValues one value per cell, of which a copy is made; may point to the values of this mapping; null sets
    ///        all values to 0, except that a mapping whose number of cells does not change keeps what it has, since it
    ///        is about to be filled
    ///
    /// Throws, in this order, a `CQxException` "Mapping cell counts are negative", "Mapping extent is not finite" (also
    /// when it exceeds the range of `float`), "Mapping bounds are reversed" and "Mapping is too large" (for the address
    /// space), and `std::bad_alloc` when there is no memory for the values.
    QX_CORE_API void Create(float fMinimumX, float fMinimumY, float fMinimumZ, float fMaximumX, float fMaximumY,
        float fMaximumZ, int iCountX, int iCountY, int iCountZ, const float* pValues);

    /// Replaces the step sizes, for grids whose cells do not fill the box exactly. Any value is accepted; users of the
    /// grid must expect steps of 0 and steps that are not finite.
    void SetStepSizes(float fStepX, float fStepY, float fStepZ) noexcept { m_vSteps = {fStepX, fStepY, fStepZ}; }

    /// The name; empty at first.
    const CQxString& GetName() const noexcept { return m_sName; }

    /// Replaces the name. Throws `std::bad_alloc`; the name is then unchanged.
    void SetName(const CQxString& sName) { m_sName = sName; }

private:
    void _Swap(CQxMapping3D& xOther) noexcept;

    float* m_pValues = nullptr;
    std::array<float, 3> m_vMinimum{};
    std::array<float, 3> m_vMaximum{};
    std::array<int, 3> m_vCounts{};
    std::array<float, 3> m_vSteps{};
    CQxString m_sName;
    std::vector<float> m_vStore;
};

} // namespace Qx
