#include <climits>
#include <cstring>
#include <new>
#include <numeric>
#include <sstream>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Qx.Core.Ex/QxImage.h"
#include "Qx.Core.Ex/QxImageView.h"
#include "Support/Chain.h"
#include "VirtualSlot.h"

namespace Qx::Test
{

namespace
{

using Bytes = std::vector<unsigned char>;

constexpr CQxImageFormat c_xSmall(5, 3, EDataType::UShort, EPixelType::RGB);

static_assert(!std::is_destructible_v<IImage>, "whoever made an image destroys it");

/// The bytes 1 to 90, which `c_xSmall` has.
Bytes _Pattern()
{
    Bytes vBytes(90);
    std::iota(vBytes.begin(), vBytes.end(), static_cast<unsigned char>(1));
    return vBytes;
}

Bytes _Bytes(const CQxImage& xImage)
{
    const auto* const pBytes = static_cast<const unsigned char*>(xImage.GetDataPtr());
    return Bytes(pBytes, pBytes + xImage.GetBufferSize());
}

CQxImage _MakePattern()
{
    CQxImage xImage(c_xSmall);
    std::memcpy(xImage.GetDataPtr(), _Pattern().data(), 90);
    return xImage;
}

void _ExpectPattern(const CQxImage& xImage)
{
    EXPECT_EQ(xImage.GetFormat(), c_xSmall);
    EXPECT_EQ(_Bytes(xImage), _Pattern());
}

void _ExpectEmpty(const CQxImage& xImage, const CQxImageFormat& xFormat = {})
{
    EXPECT_EQ(xImage.GetFormat(), xFormat); // NOLINT(*Move): of moved-from images too
    EXPECT_EQ(xImage.GetDataPtr(), nullptr);
    EXPECT_EQ(xImage.GetBufferSize(), 0U);
}

TEST(Image, CreateGivesFormatAndZeroedBuffer)
{
    CQxImage xImage;
    _ExpectEmpty(xImage);
    _ExpectEmpty(CQxImage(xImage));
    xImage.Create(c_xSmall);
    EXPECT_EQ(xImage.GetFormat(), c_xSmall);
    EXPECT_EQ(_Bytes(xImage), Bytes(90));
}

TEST(Image, CreateOfTheSameFormatKeepsThePixels)
{
    CQxImage xImage = _MakePattern();
    const void* pData = xImage.GetDataPtr();
    xImage.Create(c_xSmall);
    xImage.Create(xImage.GetFormat());
    EXPECT_EQ(xImage.GetDataPtr(), pData);
    _ExpectPattern(xImage);
    xImage.Create(CQxImageFormat(3, 5, EDataType::UShort, EPixelType::RGB));
    EXPECT_EQ(_Bytes(xImage), Bytes(90)) << "as many bytes, but another format: new pixels";
}

TEST(Image, InterfaceTakesThePixelTypeFirst)
{
    CQxImage xImage;
    IImage& xInterface = xImage;
    EXPECT_TRUE(xInterface.Create(5, 3, EPixelType::RGB, EDataType::UShort));
    EXPECT_EQ(xImage.GetFormat(), c_xSmall);
    EXPECT_EQ(GetImageFormat(xInterface), c_xSmall);
    EXPECT_EQ(xInterface.GetDataPtr(), xImage.GetDataPtr());
    EXPECT_EQ(std::as_const(xInterface).GetDataPtr(), xImage.GetDataPtr());
}

TEST(Image, ImagesWithoutBytesAreLegal)
{
    for (const CQxImageFormat& xFormat : {CQxImageFormat{}, CQxImageFormat(0, 3, EDataType::UByte, EPixelType::Lum),
             CQxImageFormat(3, 0, EDataType::UByte, EPixelType::Lum),
             CQxImageFormat(0, INT_MAX, EDataType::Double, EPixelType::RGBA),
             CQxImageFormat(INT_MAX, INT_MAX, EDataType::UByte, EPixelType::None),
             CQxImageFormat(3, 3, EDataType::Void, EPixelType::RGB)})
    {
        CQxImage xImage = _MakePattern();
        xImage.Create(xFormat);
        _ExpectEmpty(xImage, xFormat);
        _ExpectEmpty(CQxImage(xImage), xFormat);
    }
}

TEST(ImageView, ShowsTheMemoryOfItsClientAndKeepsItsFormat)
{
    constexpr const char* c_pcFile = "Qx.Core.Ex/QxImageView";
    unsigned char acPixels[90] = {};
    CQxImageView xView(c_xSmall, acPixels);
    IImage& xInterface = xView;
    EXPECT_EQ(GetImageFormat(xInterface), c_xSmall);
    EXPECT_EQ(xInterface.GetDataPtr(), acPixels);
    EXPECT_EQ(std::as_const(xInterface).GetDataPtr(), acPixels);
    EXPECT_TRUE(xInterface.Create(5, 3, EPixelType::RGB, EDataType::UShort));
    const char* pcText = "An image view cannot change its format from 5 x 3 'RGB' 'UShort' to 5 x 4 'RGBA' 'UByte'";
    EXPECT_TRUE(ThrowsChain(
        [&] { xInterface.Create(5, 4, EPixelType::RGBA, EDataType::UByte); }, {Plain(pcText, "Create", c_pcFile)}));
    EXPECT_EQ(xView.GetFormat(), c_xSmall);
    EXPECT_EQ((std::ostringstream() << xView.GetFormat()).str(), "5 x 3 'RGB' 'UShort'");

    CQxImageView xReadOnly(c_xSmall, static_cast<const void*>(acPixels));
    EXPECT_EQ(std::as_const(xReadOnly).GetDataPtr(), acPixels);
    EXPECT_TRUE(
        ThrowsChain([&] { xReadOnly.GetDataPtr(); }, {Plain("The image view is read-only", "GetDataPtr", c_pcFile)}));

    void* const pNull = nullptr;
    const CQxImageFormat xNegative(-1, 3, EDataType::UByte, EPixelType::Lum);
    EXPECT_TRUE(ThrowsChain(
        [&] { CQxImageView(c_xSmall, pNull); }, {Plain("The pixel pointer is null", "CQxImageView", c_pcFile)}));
    EXPECT_TRUE(ThrowsChain(
        [&] { CQxImageView(c_xSmall, nullptr); }, {Plain("The pixel pointer is null", "CQxImageView", c_pcFile)}));
    EXPECT_TRUE(ThrowsChain([&] { CQxImageView(xNegative, acPixels); },
        {Plain("Image dimensions are negative", "CQxImageView", c_pcFile)}));
    CQxImageView xNothing({0, 3, EDataType::UByte, EPixelType::Lum}, pNull);
    EXPECT_EQ(xNothing.GetDataPtr(), nullptr);
}

TEST(Image, ARefusedFormatChangesNothing)
{
    using enum EPixelType::ID;
    constexpr const char* c_pcFile = "Qx.Core.Ex/QxImage";
    constexpr const char* c_pcFormatFile = "Qx.Core.Ex/QxImageFormat";
    constexpr auto c_eNoData = static_cast<EDataType::ID>(77);
    constexpr auto c_eNoPixel = static_cast<EPixelType::ID>(77);
    const SLink xNegative = Plain("Image dimensions are negative", "Create", c_pcFile);
    const SLink xTooLarge = Plain("Image is too large", "Create", c_pcFile);
    const SLink xNoData = Plain("Unknown data type 'Unknown'", "GetBytesPerChannel", c_pcFormatFile);
    const SLink xNoPixel = Plain("Unknown pixel type", "GetComponentCount", c_pcFormatFile);
    const std::pair<CQxImageFormat, SLink> axCases[] = {
        {{-1, 3, EDataType::UByte, Lum}, xNegative},
        {{3, INT_MIN, EDataType::UByte, Lum}, xNegative},
        {{-1, -1, c_eNoData, c_eNoPixel}, xNegative},
        {{0, 0, c_eNoData, Lum}, xNoData},
        {{3, 3, EDataType::Packed12, c_eNoPixel}, xNoPixel},
        // A true count of 2^63 and more bytes, with 32-bit counts of 8 and 0.
        {{INT_MAX, INT_MAX, EDataType::Short, RGBA}, xTooLarge},
        {{1 << 30, 1 << 30, EDataType::Double, Lum}, xTooLarge},
    };
    for (const auto& [xFormat, xLink] : axCases)
    {
        CQxImage xImage = _MakePattern();
        EXPECT_TRUE(ThrowsChain([&, &xRefused = xFormat] { xImage.Create(xRefused); }, {xLink}));
        _ExpectPattern(xImage);
    }
}

TEST(Image, RunningOutOfMemoryChangesNothing)
{
    // 2^62 bytes, give or take: legal, but more than any address space has. The 32-bit byte count is tiny.
    const CQxImageFormat xHuge(INT_MAX, INT_MAX, EDataType::UByte, EPixelType::Lum);
    CQxImage xImage = _MakePattern();
    EXPECT_THROW(xImage.Create(xHuge), std::bad_alloc);
    _ExpectPattern(xImage);
    EXPECT_THROW(CQxImage{xHuge}, std::bad_alloc);
}

TEST(Image, CopiesOwnTheirBuffer)
{
    CQxImage xImage = _MakePattern();
    const CQxImage xCopy(xImage);
    CQxImage xAssigned(CQxImageFormat(100, 100, EDataType::UByte, EPixelType::Lum));
    xAssigned = xImage;
    std::memset(xImage.GetDataPtr(), 0, xImage.GetBufferSize());
    _ExpectPattern(xCopy);
    _ExpectPattern(xAssigned);
}

TEST(Image, MovesTakeTheBufferAndLeaveAnEmptyImage)
{
    CQxImage xImage = _MakePattern();
    const void* pData = xImage.GetDataPtr();
    CQxImage xMoved(std::move(xImage));
    EXPECT_EQ(xMoved.GetDataPtr(), pData);
    _ExpectPattern(xMoved);
    _ExpectEmpty(xImage); // NOLINT(*Move,*move): defined to be empty
    xImage.Create(c_xSmall);

    xImage = std::move(xMoved);
    EXPECT_EQ(xImage.GetDataPtr(), pData);
    _ExpectPattern(xImage);
    _ExpectEmpty(xMoved); // NOLINT(*Move,*move): defined to be empty

    CQxImage& xAlias = xImage;
    xImage = xAlias;
    _ExpectPattern(xImage);
    xImage = std::move(xAlias);
    _ExpectPattern(xImage);
}

TEST(Image, VirtualOperationsKeepTheirPlaces)
{
    EXPECT_EQ(VirtualSlots(&IImage::Create, &IImage::Reserved1, &IImage::Reserved7, &IImage::GetSize, &IImage::GetType,
                  static_cast<void* (IImage::*)()>(&IImage::GetDataPtr),
                  static_cast<const void* (IImage::*)() const>(&IImage::GetDataPtr), &CQxImage::GetSize),
        (std::vector<std::size_t>{0, 1, 7, 8, 9, 10, 11, 8}));
}

} // namespace

} // namespace Qx::Test
