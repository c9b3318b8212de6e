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
private:
    template <typename TPlaces, typename TVisitor>
    static auto _Visit(TPlaces& x, EPlace ePlace, TVisitor&& xVisitor)
    {
        switch (ePlace)
        {
        case EPlace::Client:
            return xVisitor(x.xClient);
        case EPlace::PageLocked:
            return xVisitor(x.xPageLocked);
        case EPlace::Image2D:
            return xVisitor(x.x2D);
        case EPlace::Other2D:
            return xVisitor(x.xOther2D);
        case EPlace::Image1D:
            return xVisitor(x.x1D);
        case EPlace::Other1D:
            return xVisitor(x.xOther1D);
        default:
            return xVisitor(x.xHost);
        }
    }

    static void _Fill(CQxImage& xPlace, const CQxImage& xImage) { xPlace = xImage; }
    static void _Fill(CClientImage& xPlace, const CQxImage& xImage) { xPlace.m_xImage = xImage; }
    static void _Fill(CQxPageLockedImage& xPlace, const CQxImage& xImage)
    {
        xPlace.Create(xImage.GetFormat());
        std::memcpy(xPlace.GetDataPtr(), xImage.GetDataPtr(), xImage.GetBufferSize());
    }
    static void _Fill(auto& xDevice, const CQxImage& xImage) { xDevice.Create(xImage); }

    static CQxImage _Read(const CQxImage& xPlace) { return xPlace; }
    static CQxImage _Read(const CClientImage& xPlace) { return xPlace.m_xImage; }
    static CQxImage _Read(const CQxPageLockedImage& xPlace)
    {
        CQxImage xImage(xPlace.GetFormat());
        if (xImage.GetBufferSize() != 0)
        {
            std::memcpy(xImage.GetDataPtr(), xPlace.GetDataPtr(), xImage.GetBufferSize());
        }
        return xImage;
    }
    static CQxImage _Read(const auto& xDevice)
    {
        CQxImage xImage;
        xDevice.CopyTo(xImage);
        return xImage;
    }

    static CQxImageFormat _Format(const CClientImage& xPlace) { return xPlace.m_xImage.GetFormat(); }
    static CQxImageFormat _Format(const auto& xPlace) { return xPlace.GetFormat(); }

    using SRows = std::pair<const void*, std::uint64_t>;
    static SRows _Packed(const void* pRows, const CQxImageFormat& xFormat)
    {
        const auto iRow = static_cast<std::int64_t>(xFormat.iWidth) * xFormat.GetBytesPerPixel();
        return {pRows, static_cast<std::uint64_t>(iRow)};
    }
    static SRows _Rows(const CQxDeviceImage2D& xPlace) { return {xPlace.GetDevicePointer(), xPlace.GetDesc().nPitch}; }
    static SRows _Rows(const CQxDeviceImage1D& xPlace) { return _Packed(xPlace.GetDevicePointer(), _Format(xPlace)); }
    static SRows _Rows(const CClientImage& xPlace) { return _Rows(xPlace.m_xImage); }
    static SRows _Rows(const auto& xPlace) { return _Packed(xPlace.GetDataPtr(), _Format(xPlace)); }

public:
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
        _Visit(*this, ePlace, [&](auto& xPlace) { _Fill(xPlace, xImage); });
    }

    /// The pixels that are at a place.
    CQxImage Read(EPlace ePlace) const
    {
        return _Visit(*this, ePlace, [](const auto& xPlace) { return _Read(xPlace); });
    }

    CQxImageFormat Format(EPlace ePlace) const
    {
        return _Visit(*this, ePlace, [](const auto& xPlace) { return _Format(xPlace); });
    }

    /// Address of the first row, and bytes from one row to the next.
    std::pair<const void*, std::uint64_t> Rows(EPlace ePlace) const
    {
        return _Visit(*this, ePlace, [](const auto& xPlace) { return _Rows(xPlace); });
    }
};

} // namespace Qx::Test
