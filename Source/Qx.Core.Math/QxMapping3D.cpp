#include "Qx.Core.Math/QxMapping3D.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <utility>

#include "Qx.Core/QxException.h"

namespace Qx
{

namespace
{

constexpr SThrowSite c_xCreate{"Qx.Core.Math/QxMapping3D", "Create"};

// The values may be those of the store itself. Without any, a store of the same size keeps its own.
void _SetValues(std::vector<float>& vStore, std::uint64_t nCells, const float* pValues)
{
    if (nCells != vStore.size())
    {
        vStore = pValues != nullptr ? std::vector<float>(pValues, pValues + nCells) : std::vector<float>(nCells);
    }
    else if (pValues != nullptr && pValues != vStore.data())
    {
        std::copy_n(pValues, nCells, vStore.begin());
    }
}

} // namespace

CQxMapping3D::CQxMapping3D(const CQxMapping3D& xOther)
    : m_vMinimum(xOther.m_vMinimum),
      m_vMaximum(xOther.m_vMaximum),
      m_vCounts(xOther.m_vCounts),
      m_vSteps(xOther.m_vSteps),
      m_sName(xOther.m_sName),
      m_vStore(xOther.m_vStore)
{
    m_pValues = m_vStore.data();
}

CQxMapping3D::CQxMapping3D(CQxMapping3D&& xOther) noexcept
{
    _Swap(xOther);
}

CQxMapping3D& CQxMapping3D::operator=(CQxMapping3D xOther) noexcept
{
    _Swap(xOther);
    return *this;
}

CQxMapping3D::~CQxMapping3D() = default;

void CQxMapping3D::Create(float fMinimumX, float fMinimumY, float fMinimumZ, float fMaximumX, float fMaximumY,
    float fMaximumZ, int iCountX, int iCountY, int iCountZ, const float* pValues)
{
    const std::array<float, 3> vMinimum{fMinimumX, fMinimumY, fMinimumZ};
    const std::array<float, 3> vMaximum{fMaximumX, fMaximumY, fMaximumZ};
    const std::array<int, 3> vCounts{iCountX, iCountY, iCountZ};
    if (iCountX < 0 || iCountY < 0 || iCountZ < 0)
    {
        Throw(c_xCreate, "Mapping cell counts are negative");
    }
    std::array<float, 3> vSteps{};
    for (std::size_t nAxis = 0; nAxis < vSteps.size(); ++nAxis)
    {
        const float fExtent = vMaximum[nAxis] - vMinimum[nAxis];
        if (!std::isfinite(fExtent))
        {
            Throw(c_xCreate, "Mapping extent is not finite");
        }
        vSteps[nAxis] = vCounts[nAxis] > 0 ? fExtent / static_cast<float>(vCounts[nAxis]) : 0.0F;
    }
    if (fMaximumX < fMinimumX || fMaximumY < fMinimumY || fMaximumZ < fMinimumZ)
    {
        Throw(c_xCreate, "Mapping bounds are reversed");
    }
    // Two counts of 31 bits never exceed 64 bits, a third may.
    std::uint64_t nCells = static_cast<std::uint64_t>(iCountX) * static_cast<std::uint64_t>(iCountY);
    if (__builtin_mul_overflow(nCells, static_cast<std::uint64_t>(iCountZ), &nCells) || nCells > m_vStore.max_size())
    {
        Throw(c_xCreate, "Mapping is too large");
    }

    _SetValues(m_vStore, nCells, pValues);
    m_pValues = m_vStore.data();
    m_vMinimum = vMinimum;
    m_vMaximum = vMaximum;
    m_vCounts = vCounts;
    m_vSteps = vSteps;
}

void CQxMapping3D::_Swap(CQxMapping3D& xOther) noexcept
{
    std::swap(m_pValues, xOther.m_pValues);
    std::swap(m_vMinimum, xOther.m_vMinimum);
    std::swap(m_vMaximum, xOther.m_vMaximum);
    std::swap(m_vCounts, xOther.m_vCounts);
    std::swap(m_vSteps, xOther.m_vSteps);
    std::swap(m_sName, xOther.m_sName);
    m_vStore.swap(xOther.m_vStore);
}

} // namespace Qx
