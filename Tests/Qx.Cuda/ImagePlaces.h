#pragma once

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "Qx.Cuda/QxCuda.h"

namespace Qx::Test
{

/// An image with random pixels.
inline CQxImage MakeImage(const CQxImageFormat& xFormat, unsigned uSeed = 1)
{
    CQxImage xImage(xFormat);
    std::mt19937 xRandom(uSeed);
    auto* const puBytes = static_cast<unsigned char*>(xImage.GetDataPtr());
    for (std::size_t nByte = 0; nByte < xImage.GetBufferSize(); ++nByte)
    {
        puBytes[nByte] = static_cast<unsigned char>(xRandom());
    }
    return xImage;
}

inline bool HaveSamePixels(const CQxImage& xLeft, const CQxImage& xRight)
{
    return xLeft.GetFormat() == xRight.GetFormat() &&
           (xLeft.GetBufferSize() == 0 ||
            std::memcmp(xLeft.GetDataPtr(), xRight.GetDataPtr(), xLeft.GetBufferSize()) == 0);
}

/// An image of a client: notes the calls that it gets, and throws from the one that it is told to.
class CClientImage final : public IImage
{
public:
    bool Create(int iWidth, int iHeight, EPixelType::ID ePixelType, EDataType::ID eDataType) override
    {
        _Note("Create " + std::to_string(iWidth) + " " + std::to_string(iHeight) + " " + std::to_string(ePixelType) +
              " " + std::to_string(eDataType));
        m_xImage.Create(iWidth, iHeight, ePixelType, eDataType);
        return false; // which nobody is to look at
    }
    void Reserved1() override { _Note("reserved"); }
    void Reserved2() override { _Note("reserved"); }
    void Reserved3() override { _Note("reserved"); }
    void Reserved4() override { _Note("reserved"); }
    void Reserved5() override { _Note("reserved"); }
    void Reserved6() override { _Note("reserved"); }
    void Reserved7() override { _Note("reserved"); }
    void GetSize(int& iWidth, int& iHeight) const override
    {
        _Note("GetSize");
        m_xImage.GetSize(iWidth, iHeight);
    }
    void GetType(EPixelType::ID& ePixelType, EDataType::ID& eDataType) const override
    {
        _Note("GetType");
        m_xImage.GetType(ePixelType, eDataType);
    }
    void* GetDataPtr() override
    {
        _Note("GetDataPtr");
        return m_xImage.GetDataPtr();
    }
    const void* GetDataPtr() const override
    {
        _Note("GetDataPtr const");
        return m_xImage.GetDataPtr();
    }

    CQxImage m_xImage;
    mutable std::vector<std::string> m_vCalls;
    std::string m_sThrowIn;       ///< the call that throws a `CQxException` "client failure"
    bool m_bThrowForeign = false; ///< it throws an `int` instead

private:
    void _Note(const std::string& sCall) const
    {
        m_vCalls.push_back(sCall);
        if (!m_sThrowIn.empty() && sCall.rfind(m_sThrowIn, 0) == 0)
        {
            if (m_bThrowForeign)
            {
                throw 42;
            }
            Throw({"Client", "Fail"}, "client failure");
        }
    }
};

/// Where pixels can be; `Other...` is a second image of the same kind.
enum class EPlace
{
    Host,
    Client,
    PageLocked,
    Image2D,
    Other2D,
    Image1D,
    Other1D
};

/// One image of every kind. All start empty.
struct SPlaces
{
    SPlaces() = default;
    SPlaces(const SPlaces&) = delete;
    SPlaces& operator=(const SPlaces&) = delete;
    /// Waits for transfers that are queued on the default stream, because they need the images.
    ~SPlaces() { static_cast<void>(cudaStreamSynchronize(nullptr)); }

    CQxImage xHost;
    CClientImage xClient;
    CQxPageLockedImage xPageLocked;
    CQxDeviceImage2D x2D;
    CQxDeviceImage2D xOther2D;
    CQxDeviceImage1D x1D;
    CQxDeviceImage1D xOther1D;

    /// Brings an image to a place by a transfer from a `CQxImage`, or without any on the host.
    void Fill(EPlace ePlace, const CQxImage& xImage)
    {
        switch (ePlace)
        {
        case EPlace::Host:
            xHost = xImage;
            break;
        case EPlace::Client:
            xClient.m_xImage = xImage;
            break;
        case EPlace::PageLocked:
            xPageLocked.Create(xImage.GetFormat());
            std::memcpy(xPageLocked.GetDataPtr(), xImage.GetDataPtr(), xImage.GetBufferSize());
            break;
        case EPlace::Image2D:
            x2D.Create(xImage);
            break;
        case EPlace::Other2D:
            xOther2D.Create(xImage);
            break;
        case EPlace::Image1D:
            x1D.Create(xImage);
            break;
        case EPlace::Other1D:
            xOther1D.Create(xImage);
            break;
        }
    }

    /// The pixels that are at a place.
    CQxImage Read(EPlace ePlace) const
    {
        CQxImage xImage;
        switch (ePlace)
        {
        case EPlace::Host:
            return xHost;
        case EPlace::Client:
            return xClient.m_xImage;
        case EPlace::PageLocked:
            xImage.Create(xPageLocked.GetFormat());
            if (xImage.GetBufferSize() != 0)
            {
                std::memcpy(xImage.GetDataPtr(), xPageLocked.GetDataPtr(), xImage.GetBufferSize());
            }
            break;
        case EPlace::Image2D:
            x2D.CopyTo(xImage);
            break;
        case EPlace::Other2D:
            xOther2D.CopyTo(xImage);
            break;
        case EPlace::Image1D:
            x1D.CopyTo(xImage);
            break;
        case EPlace::Other1D:
            xOther1D.CopyTo(xImage);
            break;
        }
        return xImage;
    }

    CQxImageFormat Format(EPlace ePlace) const
    {
        switch (ePlace)
        {
        case EPlace::Image2D:
            return x2D.GetFormat();
        case EPlace::Other2D:
            return xOther2D.GetFormat();
        case EPlace::Image1D:
            return x1D.GetFormat();
        case EPlace::Other1D:
            return xOther1D.GetFormat();
        default:
            return Read(ePlace).GetFormat();
        }
    }

    /// Address of the first row, and bytes from one row to the next.
    std::pair<const void*, std::uint64_t> Rows(EPlace ePlace) const
    {
        const auto Packed = [&](const void* pRows, const CQxImageFormat& xFormat)
        {
            const auto iRow = static_cast<std::int64_t>(xFormat.iWidth) * xFormat.GetBytesPerPixel();
            return std::pair(pRows, static_cast<std::uint64_t>(iRow));
        };
        switch (ePlace)
        {
        case EPlace::Host:
            return Packed(xHost.GetDataPtr(), xHost.GetFormat());
        case EPlace::Client:
            return Packed(xClient.m_xImage.GetDataPtr(), xClient.m_xImage.GetFormat());
        case EPlace::PageLocked:
            return Packed(xPageLocked.GetDataPtr(), xPageLocked.GetFormat());
        case EPlace::Image2D:
            return {x2D.GetDevicePointer(), x2D.GetDesc().nPitch};
        case EPlace::Other2D:
            return {xOther2D.GetDevicePointer(), xOther2D.GetDesc().nPitch};
        case EPlace::Image1D:
            return Packed(x1D.GetDevicePointer(), x1D.GetFormat());
        case EPlace::Other1D:
            return Packed(xOther1D.GetDevicePointer(), xOther1D.GetFormat());
        }
        return {};
    }
};

} // namespace Qx::Test
