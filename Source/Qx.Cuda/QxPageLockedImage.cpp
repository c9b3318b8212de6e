#include "Qx.Cuda/QxPageLockedImage.h"

#include <utility>

#include "Qx.GPU.ResourceManager/ResourceManager.h"

namespace Qx
{

namespace
{

constexpr SThrowSite c_xCreate{"Source/Qx.Cuda/QxPageLockedImage", "Create"};

} // namespace

// Delegates, so that the destructor gives memory back that was borrowed before a failure.
CQxPageLockedImage::CQxPageLockedImage(const CQxImageFormat& xFormat) : CQxPageLockedImage()
{
    Create(xFormat);
}

CQxPageLockedImage::CQxPageLockedImage(CQxPageLockedImage&& xOther) noexcept : CQxPageLockedImage()
{
    *this = std::move(xOther);
}

CQxPageLockedImage& CQxPageLockedImage::operator=(CQxPageLockedImage&& xOther) noexcept
{
    if (this != &xOther)
    {
        std::swap(m_xFormat, xOther.m_xFormat);
        std::swap(m_nBytes, xOther.m_nBytes);
        std::swap(m_xResource, xOther.m_xResource);
        try
        {
            xOther.Release();
        }
        catch (...) // NOLINT(bugprone-empty-catch): a move has nobody to tell; the pool still counts the block as lent
        {
            xOther.m_xFormat = CQxImageFormat{};
            xOther.m_nBytes = 0;
            xOther.m_xResource.m_pDevice = nullptr;
        }
    }
    return *this;
}

CQxPageLockedImage::~CQxPageLockedImage()
{
    try
    {
        Release();
    }
    catch (...) // NOLINT(bugprone-empty-catch): a destructor has nobody to tell
    {
    }
}

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
                m_xResource = GPU::CResourceManager::GetPageLockedMemory(nBytes);
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
    GPU::CResourceManager::ReleaseResource(m_xResource, false);
    m_xFormat = CQxImageFormat{};
    m_nBytes = 0;
}

} // namespace Qx
