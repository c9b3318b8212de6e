#include "Qx.Cuda/QxDeviceMapping3D.h"

#include <utility>

#include "Qx.Cuda.Core/QxCudaException.h"

namespace Qx
{

namespace
{

constexpr const char* c_pcFile = "Source/Qx.Cuda/QxDeviceMapping3D";
constexpr SThrowSite c_xCreate{c_pcFile, "Create"};
constexpr SThrowSite c_xDownload{c_pcFile, "Download"};
constexpr SThrowSite c_xMap{c_pcFile, "Map"};

// Bytes of the values of a grid whose counts are positive; refuses what 32 bits do not count.
std::uint32_t _GridBytes(const std::array<int, 3>& vCounts)
{
    // Two counts of 31 bits never exceed 64 bits, a third may.
    std::uint64_t nBytes = static_cast<std::uint64_t>(vCounts[0]) * static_cast<std::uint64_t>(vCounts[1]);
    if (__builtin_mul_overflow(nBytes, static_cast<std::uint64_t>(vCounts[2]), &nBytes) ||
        __builtin_mul_overflow(nBytes, sizeof(float), &nBytes) || nBytes > UINT32_MAX)
    {
        Throw(c_xCreate, "Mapping of ", vCounts[0], " x ", vCounts[1], " x ", vCounts[2], " cells is too large");
    }
    return static_cast<std::uint32_t>(nBytes);
}

// The index of the cell that a coordinate falls into; -1 when there is none. Quotients that an int cannot hold, those
// that are no numbers among them, must not reach the conversion.
int _CellIndex(float fCoordinate, float fMinimum, float fStep, int iCount)
{
    const float fQuotient = (fCoordinate - fMinimum) / fStep;
    const int iIndex = fQuotient > -1.0F && fQuotient < 2147483648.0F ? static_cast<int>(fQuotient) : -1;
    return iIndex < iCount ? iIndex : -1;
}

} // namespace

CQxDeviceMapping3D::CQxDeviceMapping3D() noexcept = default;

CQxDeviceMapping3D::CQxDeviceMapping3D(CQxDeviceMapping3D&& xOther)
{
    _Create(std::move(xOther));
}

CQxDeviceMapping3D& CQxDeviceMapping3D::operator=(CQxDeviceMapping3D&& xOther)
{
    _Create(std::move(xOther));
    return *this;
}

CQxDeviceMapping3D::~CQxDeviceMapping3D() = default;

void CQxDeviceMapping3D::Create(const CQxMapping3D& xMapping)
{
    Guard(c_xCreate, "Error creating device mapping",
        [&]
        {
            const std::array<int, 3> vCounts = xMapping.GetCellCounts();
            if (vCounts[0] <= 0 || vCounts[1] <= 0 || vCounts[2] <= 0)
            {
                Throw(c_xCreate, "The mapping dimensions are smaller or equal zero");
            }
            const std::uint32_t uGridBytes = _GridBytes(vCounts);
            // A derived mapping may answer anything, and differently each time.
            const std::uint32_t uBytes = xMapping.GetByteCount();
            if (uBytes < uGridBytes)
            {
                Throw(c_xCreate, "Mapping of ", uBytes, " bytes is smaller than its ", uGridBytes / sizeof(float),
                    " cells");
            }
            // The counts alone do not tell whether there is a block, nor whether it has room for the copy.
            const bool bKeepsBlock = IsValid() && uBytes == _GetByteCount();
            // All that can run out of host memory comes before the first change.
            const bool bKeepsName = bKeepsBlock && m_sName == xMapping.GetName();
            CQxString sName = bKeepsName ? CQxString() : xMapping.GetName();
            if (!bKeepsBlock)
            {
                if (IsValid())
                {
                    m_xBlock.Release();
                    _Reset();
                }
                m_xBlock.Take(GPU::CResourceManager::GetCudaMemory(uBytes));
                m_bActive = true;
            }
            m_pData = nullptr;
            m_vMinimum = xMapping.GetMinimum();
            m_vMaximum = xMapping.GetMaximum();
            m_vCounts = vCounts;
            if (!bKeepsName)
            {
                m_sName = std::move(sName);
            }
            m_vSteps = xMapping.GetStepSizes();
            CheckCuda(cudaMemcpy(m_xBlock->m_pDevice, xMapping.GetDataPtr(), uBytes, cudaMemcpyHostToDevice), c_xCreate,
                "Error copying memory from host to device");
            m_bArriving = true;
            m_pData = GetDevicePointer();
        });
}

void CQxDeviceMapping3D::Download(CQxMapping3D& xMapping) const
{
    Guard(c_xDownload, "Error copying to host image",
        [&]
        {
            if (!IsValid())
            {
                Throw(c_xDownload, "Mapping is invalid");
            }
            xMapping.Create(m_vMinimum[0], m_vMinimum[1], m_vMinimum[2], m_vMaximum[0], m_vMaximum[1], m_vMaximum[2],
                m_vCounts[0], m_vCounts[1], m_vCounts[2], nullptr);
            xMapping.SetName(m_sName);
            const std::uint32_t uBytes = xMapping.GetByteCount();
            if (uBytes > m_xBlock->m_nSize)
            {
                Throw(c_xDownload, "Host mapping of ", uBytes, " bytes is larger than the device mapping");
            }
            CheckCuda(cudaMemcpy(xMapping.GetDataPtr(), m_xBlock->m_pDevice, uBytes, cudaMemcpyDeviceToHost),
                c_xDownload, "Error copying memory from device to host");
        });
}

void CQxDeviceMapping3D::SetZero()
{
    constexpr SThrowSite c_xSite{c_pcFile, "SetZero"};
    Guard(c_xSite, "Error setting mapping values to zero",
        [&]
        {
            CheckCuda(cudaMemset(m_xBlock->m_pDevice, 0, _GetByteCount()), c_xSite, "Error zeroing CUDA device memory");
            m_bArriving = IsValid();
        });
}

void CQxDeviceMapping3D::Release()
{
    if (!IsValid())
    {
        return;
    }
    Guard({c_pcFile, "Release"}, "Error releasing device mapping", [&] { m_xBlock.Release(); });
    _Reset();
}

void CQxDeviceMapping3D::Map(float& fX, float& fY, float& fZ)
{
    if (!IsValid())
    {
        Throw(c_xMap, "Mapping is invalid");
    }
    if (!Contains(fX, fY, fZ))
    {
        Throw(c_xMap, "Point is not in mapping volume");
    }
    if (!m_bActive)
    {
        return;
    }
    if (m_pData == nullptr)
    {
        Throw(c_xMap, "Mapping is invalid");
    }
    const int iX = _CellIndex(fX, m_vMinimum[0], m_vSteps[0], m_vCounts[0]);
    const int iY = _CellIndex(fY, m_vMinimum[1], m_vSteps[1], m_vCounts[1]);
    const int iZ = _CellIndex(fZ, m_vMinimum[2], m_vSteps[2], m_vCounts[2]);
    if (iX < 0 || iY < 0 || iZ < 0)
    {
        return;
    }
    // Below 2^30, as every grid is. The block is never smaller than the grid; tested all the same, because nothing
    // else stands between a point and foreign memory.
    const int iIndex = iZ * (m_vCounts[0] * m_vCounts[1]) + iX * m_vCounts[1] + iY;
    const auto nIndex = static_cast<std::size_t>(iIndex);
    if (nIndex >= m_xBlock->m_nSize / sizeof(float))
    {
        return;
    }
    if (m_bArriving) [[unlikely]]
    {
        CheckCuda(cudaStreamSynchronize(nullptr), c_xMap, "Error waiting for the mapping values");
        m_bArriving = false;
    }
    const float fValue = m_pData[nIndex];
    if (fValue != 0.0F)
    {
        fZ += fValue;
    }
}

void CQxDeviceMapping3D::_Reset() noexcept
{
    m_pData = nullptr;
    m_bActive = false;
    m_bArriving = false;
    m_vMinimum = {};
    m_vMaximum = {};
    m_vCounts = {};
    m_vSteps = {};
    m_sName = CQxString();
}

std::uint32_t CQxDeviceMapping3D::_GetByteCount() noexcept
{
    return static_cast<std::uint32_t>(m_vCounts[0]) * static_cast<std::uint32_t>(m_vCounts[1]) *
        static_cast<std::uint32_t>(m_vCounts[2]) * static_cast<std::uint32_t>(sizeof(float));
}

void CQxDeviceMapping3D::_Create(CQxDeviceMapping3D&& xOther)
{
    if (!xOther.IsValid())
    {
        Throw({c_pcFile, "_Create"}, "Given mapping is invalid");
    }
    Release();
    // Nothing from here on can fail, so that the block never has two owners or none.
    m_pData = xOther.m_pData;
    m_bActive = xOther.m_bActive;
    m_bArriving = xOther.m_bArriving;
    m_vMinimum = xOther.m_vMinimum;
    m_vMaximum = xOther.m_vMaximum;
    m_vCounts = xOther.m_vCounts;
    m_vSteps = xOther.m_vSteps;
    m_xBlock.Take(xOther.m_xBlock);
    m_sName = std::move(xOther.m_sName);
    xOther._Reset();
}

} // namespace Qx
