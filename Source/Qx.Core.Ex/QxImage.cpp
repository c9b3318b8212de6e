#include "Qx.Core.Ex/QxImage.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace Qx
{

namespace
{

constexpr SThrowSite c_xCreate{"Qx.Core.Ex/QxImage", "Create"};

} // namespace

std::size_t GetPackedByteCount(const CQxImageFormat& xFormat, const SThrowSite& xSite)
{
    if (xFormat.iWidth < 0 || xFormat.iHeight < 0)
    {
        Throw(xSite, "Image dimensions are negative");
    }
    const std::uint64_t uBytes = xFormat.GetExactByteCount();
    if (uBytes > static_cast<std::uint64_t>(PTRDIFF_MAX))
    {
        Throw(xSite, "Image is too large");
    }
    return static_cast<std::size_t>(uBytes);
}

void Interop::Runtime28::IImage::Reserved1() {}

void CQxFormattedImage::GetSize(int& iWidth, int& iHeight) const
{
    iWidth = m_xFormat.iWidth;
    iHeight = m_xFormat.iHeight;
}

void CQxFormattedImage::GetType(EPixelType::ID& ePixelType, EDataType::ID& eDataType) const
{
    ePixelType = m_xFormat.ePixelType;
    eDataType = m_xFormat.eDataType;
}

CQxImage::CQxImage(const CQxImageFormat& xFormat)
{
    Create(xFormat);
}

CQxImage::CQxImage(const CQxImage& xOther) : CQxImage(xOther.m_xFormat)
{
    if (m_nBytes != 0)
    {
        std::memcpy(m_pData, xOther.m_pData, m_nBytes);
    }
}

CQxImage::CQxImage(CQxImage&& xOther) noexcept
    : CQxFormattedImage(std::exchange(xOther.m_xFormat, CQxImageFormat{})),
      m_pData(std::exchange(xOther.m_pData, nullptr)),
      m_nBytes(std::exchange(xOther.m_nBytes, 0))
{
}

CQxImage& CQxImage::operator=(CQxImage xOther) noexcept
{
    std::swap(m_xFormat, xOther.m_xFormat);
    std::swap(m_pData, xOther.m_pData);
    std::swap(m_nBytes, xOther.m_nBytes);
    return *this;
}

CQxImage::~CQxImage()
{
    std::free(m_pData);
}

void CQxImage::Create(const CQxImageFormat& xFormat)
{
    if (m_xFormat == xFormat)
    {
        return;
    }
    const std::size_t nBytes = GetPackedByteCount(xFormat, c_xCreate);
    unsigned char* pData = nullptr;
    if (nBytes != 0)
    {
        // Zeroed by the system page by page on first use, so that large buffers cost nothing until they are filled.
        pData = static_cast<unsigned char*>(std::calloc(1, nBytes));
        if (pData == nullptr)
        {
            throw std::bad_alloc();
        }
    }
    std::free(m_pData);
    m_pData = pData;
    m_nBytes = nBytes;
    m_xFormat = xFormat;
}

bool CQxImage::Create(int iWidth, int iHeight, EPixelType::ID ePixelType, EDataType::ID eDataType)
{
    Create(CQxImageFormat(iWidth, iHeight, eDataType, ePixelType));
    return true;
}

} // namespace Qx
