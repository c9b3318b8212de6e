#include "Qx.Core.Ex/QxImageView.h"

namespace Qx
{

namespace
{

constexpr const char* c_pcFile = "Qx.Core.Ex/QxImageView";

} // namespace

CQxImageView::CQxImageView(const CQxImageFormat& xFormat, const void* pPixels)
    : CQxFormattedImage(xFormat), m_pPixels(pPixels), m_pWritable(nullptr)
{
    constexpr SThrowSite c_xSite{c_pcFile, "CQxImageView"};
    if (GetPackedByteCount(xFormat, c_xSite) != 0 && pPixels == nullptr)
    {
        Throw(c_xSite, "The pixel pointer is null");
    }
}

CQxImageView::CQxImageView(const CQxImageFormat& xFormat, void* pPixels)
    : CQxImageView(xFormat, static_cast<const void*>(pPixels))
{
    m_pWritable = pPixels;
}

bool CQxImageView::Create(int iWidth, int iHeight, EPixelType::ID ePixelType, EDataType::ID eDataType)
{
    const CQxImageFormat xFormat(iWidth, iHeight, eDataType, ePixelType);
    if (!(xFormat == m_xFormat))
    {
        Throw({c_pcFile, "Create"}, "An image view cannot change its format from ", ToText(m_xFormat), " to ",
            ToText(xFormat));
    }
    return true;
}

void* CQxImageView::GetDataPtr()
{
    if (m_pWritable == nullptr && m_pPixels != nullptr)
    {
        Throw({c_pcFile, "GetDataPtr"}, "The image view is read-only");
    }
    return m_pWritable;
}

} // namespace Qx
