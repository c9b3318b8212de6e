#include "Qx.Cuda/QxPageLockedImage.h"

#include <utility>

namespace Qx
{

namespace
{

constexpr SThrowSite c_xCreate{"Source/Qx.Cuda/QxPageLockedImage", "Create"};

} // namespace

CQxPageLockedImage::CQxPageLockedImage() noexcept = default;

CQxPageLockedImage::CQxPageLockedImage(const CQxImageFormat& xFormat)
{
    Create(xFormat);
}

CQxPageLockedImage::CQxPageLockedImage(CQxPageLockedImage&& xOther) noexcept
    : CQxFormattedImage(std::exchange(xOther.m_xFormat, CQxImageFormat{})), m_nBytes(std::exchange(xOther.m_nBytes, 0))
{
    m_xBlock.Take(xOther.m_xBlock);
}

CQxPageLockedImage& CQxPageLockedImage::operator=(CQxPageLockedImage&& xOther) noexcept
{
    if (this != &xOther)
    {
        m_xBlock.Drop();
        m_xBlock.Take(xOther.m_xBlock);
        m_xFormat = std::exchange(xOther.m_xFormat, CQxImageFormat{});
        m_nBytes = std::exchange(xOther.m_nBytes, 0);
    }
    return *this;
}

CQxPageLockedImage::~CQxPageLockedImage() = default;

void CQxPageLockedImage::Create(const CQxImageFormat& xFormat)
{
    if (m_xFormat == xFormat)
    {
        return;
    }
    Guard(c_xCreate, "Error creating page-locked image",
        [&]
        {
            const std::size_t nBytes = GetPackedByteCount(xFormat, c_xCreate);
            Release();
            if (nBytes != 0)
            {
                m_xBlock.Take(GPU::CResourceManager::GetPageLockedMemory(nBytes));
            }
            m_nBytes = nBytes;
            m_xFormat = xFormat;
        });
}

bool CQxPageLockedImage::Create(int iWidth, int iHeight, EPixelType::ID ePixelType, EDataType::ID eDataType)
{
    Create(CQxImageFormat(iWidth, iHeight, eDataType, ePixelType));
    return true;
}

void CQxPageLockedImage::Release()
{
    m_xBlock.Release();
    m_xFormat = CQxImageFormat{};
    m_nBytes = 0;
}

} // namespace Qx
