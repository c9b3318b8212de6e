#include <algorithm>
#include <climits>
#include <cstring>
#include <new>
#include <string>
#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

#include "Qx.Core.Ex/QxImage.h"
#include "Qx.Core.Ex/QxImageView.h"
#include "Support/Chain.h"
#include "VirtualSlot.h"

namespace
{

using Qx::CQxImage;
using Qx::CQxImageFormat;
using Qx::CQxImageView;
using Qx::EDataType;
using Qx::EPixelType;
using Qx::IImage;
using Qx::Test::Plain;
using Qx::Test::ThrowsChain;
using Qx::Test::VirtualSlot;

constexpr CQxImageFormat c_xSmall(5, 3, EDataType::UShort, EPixelType::RGB);

unsigned char* _Bytes(CQxImage& xImage)
{
    return static_cast<unsigned char*>(xImage.GetDataPtr());
}

CQxImage _MakePattern(const CQxImageFormat& xFormat = c_xSmall)
{
    CQxImage xImage(xFormat);
    for (std::size_t nByte = 0; nByte < xImage.GetBufferSize(); ++nByte)
    {
        _Bytes(xImage)[nByte] = static_cast<unsigned char>(nByte + 1);
    }
    return xImage;
}

::testing::AssertionResult _IsPattern(const CQxImage& xImage)
{
    if (xImage.GetFormat() != c_xSmall || xImage.GetBufferSize() != 90 || xImage.GetDataPtr() == nullptr)
    {
        return ::testing::AssertionFailure() << "format or buffer size differ";
    }
    for (std::size_t nByte = 0; nByte < 90; ++nByte)
    {
        if (static_cast<const unsigned char*>(xImage.GetDataPtr())[nByte] != nByte + 1)
        {
            return ::testing::AssertionFailure() << "byte " << nByte << " differs";
        }
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult _IsEmpty(const CQxImage& xImage)
{
    // NOLINTNEXTLINE(*Move): of moved-from images too
    return xImage.GetFormat() == CQxImageFormat{} && xImage.GetDataPtr() == nullptr && xImage.GetBufferSize() == 0
               ? ::testing::AssertionSuccess()
               : ::testing::AssertionFailure() << "not empty";
}

TEST(Image, IsEmptyAtFirst)
{
    const CQxImage xImage;
    EXPECT_TRUE(_IsEmpty(xImage));
    EXPECT_TRUE(_IsEmpty(CQxImage(xImage)));
    CQxImage xOther;
    xOther.Create(CQxImageFormat{});
    EXPECT_TRUE(_IsEmpty(xOther));
}

TEST(Image, CreateGivesFormatAndZeroedBuffer)
{
    CQxImage xImage;
    xImage.Create(c_xSmall);
    EXPECT_EQ(xImage.GetFormat(), c_xSmall);
    ASSERT_EQ(xImage.GetBufferSize(), 90U);
    EXPECT_TRUE(std::all_of(_Bytes(xImage), _Bytes(xImage) + 90, [](unsigned char c) { return c == 0; }));
    EXPECT_EQ(static_cast<const CQxImage&>(xImage).GetDataPtr(), xImage.GetDataPtr());
}

TEST(Image, CreateOfTheSameFormatKeepsThePixels)
{
    CQxImage xImage = _MakePattern();
    const void* pData = xImage.GetDataPtr();
    xImage.Create(c_xSmall);
    xImage.Create(xImage.GetFormat());
    EXPECT_EQ(xImage.GetDataPtr(), pData);
    EXPECT_TRUE(_IsPattern(xImage));

    // As many bytes, but another format: new pixels.
    xImage.Create(CQxImageFormat(3, 5, EDataType::UShort, EPixelType::RGB));
    EXPECT_EQ(xImage.GetBufferSize(), 90U);
    EXPECT_EQ(_Bytes(xImage)[0], 0);
}

TEST(Image, InterfaceTakesThePixelTypeFirst)
{
    CQxImage xImage;
    IImage& xInterface = xImage;
    EXPECT_TRUE(xInterface.Create(5, 3, EPixelType::RGB, EDataType::UShort));
    EXPECT_EQ(xImage.GetFormat(), c_xSmall);

    int iWidth = 0;
    int iHeight = 0;
    EPixelType::ID ePixelType = EPixelType::None;
    EDataType::ID eDataType = EDataType::Void;
    const IImage& xConst = xImage;
    xConst.GetSize(iWidth, iHeight);
    xConst.GetType(ePixelType, eDataType);
    EXPECT_EQ(CQxImageFormat(iWidth, iHeight, eDataType, ePixelType), c_xSmall);
    EXPECT_EQ(xInterface.GetDataPtr(), xImage.GetDataPtr());
    EXPECT_EQ(xConst.GetDataPtr(), xImage.GetDataPtr());
}

TEST(Image, ImagesWithoutBytesAreLegal)
{
    for (const CQxImageFormat& xFormat : {CQxImageFormat(0, 3, EDataType::UByte, EPixelType::Lum),
                                          CQxImageFormat(3, 0, EDataType::UByte, EPixelType::Lum),
                                          CQxImageFormat(0, INT_MAX, EDataType::Double, EPixelType::RGBA),
                                          CQxImageFormat(INT_MAX, INT_MAX, EDataType::UByte, EPixelType::None),
                                          CQxImageFormat(3, 3, EDataType::Void, EPixelType::RGB)})
    {
        CQxImage xImage = _MakePattern();
        xImage.Create(xFormat);
        EXPECT_EQ(xImage.GetFormat(), xFormat);
        EXPECT_EQ(xImage.GetBufferSize(), 0U);
        EXPECT_EQ(xImage.GetDataPtr(), nullptr) << "the old buffer must be gone";
        EXPECT_EQ(CQxImage(xImage).GetFormat(), xFormat);
    }
}

TEST(ImageView, ShowsTheMemoryOfItsClientAndKeepsItsFormat)
{
    constexpr const char* c_pcFile = "Qx.Core.Ex/QxImageView";
    unsigned char acPixels[30] = {};
    CQxImageView xView(c_xSmall, acPixels);
    IImage& xInterface = xView;
    EXPECT_EQ(Qx::GetImageFormat(xInterface), c_xSmall);
    EXPECT_EQ(xInterface.GetDataPtr(), acPixels);
    EXPECT_EQ(std::as_const(xInterface).GetDataPtr(), acPixels);
    EXPECT_TRUE(xInterface.Create(5, 3, EPixelType::RGB, EDataType::UShort));
    EXPECT_TRUE(ThrowsChain([&] { xInterface.Create(5, 4, EPixelType::RGBA, EDataType::UByte); },
                            {Plain("An image view cannot change its format from 5 x 3 'RGB' 'UShort' to 5 x 4 'RGBA' "
                                   "'UByte'",
                                   "Create", c_pcFile)}));
    EXPECT_EQ(xView.GetFormat(), c_xSmall);

    CQxImageView xReadOnly(c_xSmall, static_cast<const void*>(acPixels));
    EXPECT_EQ(std::as_const(xReadOnly).GetDataPtr(), acPixels);
    EXPECT_TRUE(
        ThrowsChain([&] { xReadOnly.GetDataPtr(); }, {Plain("The image view is read-only", "GetDataPtr", c_pcFile)}));

    EXPECT_TRUE(ThrowsChain([&] { CQxImageView(c_xSmall, static_cast<void*>(nullptr)); },
                            {Plain("The pixel pointer is null", "CQxImageView", c_pcFile)}));
    EXPECT_TRUE(ThrowsChain(
        [&] {
            CQxImageView({-1, 3, EDataType::UByte, EPixelType::Lum}, acPixels);
        },
        {Plain("Image dimensions are negative", "CQxImageView", c_pcFile)}));
    CQxImageView xNothing({0, 3, EDataType::UByte, EPixelType::Lum}, static_cast<void*>(nullptr));
    EXPECT_EQ(xNothing.GetDataPtr(), nullptr);
}

TEST(Image, ARefusedFormatChangesNothing)
{
    constexpr const char* c_pcFormatFile = "Qx.Core.Ex/QxImageFormat";
    constexpr auto c_eNoDataType = static_cast<EDataType::ID>(77);
    constexpr auto c_eNoPixelType = static_cast<EPixelType::ID>(77);
    const struct
    {
        CQxImageFormat xFormat;
        Qx::Test::SLink xLink;
    } axCases[] = {
        {{-1, 3, EDataType::UByte, EPixelType::Lum},
         Plain("Image dimensions are negative", "Create", "Qx.Core.Ex/QxImage")},
        {{3, INT_MIN, EDataType::UByte, EPixelType::Lum},
         Plain("Image dimensions are negative", "Create", "Qx.Core.Ex/QxImage")},
        {{-1, -1, c_eNoDataType, c_eNoPixelType},
         Plain("Image dimensions are negative", "Create", "Qx.Core.Ex/QxImage")},
        {{3, 3, c_eNoDataType, c_eNoPixelType},
         Plain("Unknown data type 'Unknown'", "GetBytesPerChannel", c_pcFormatFile)},
        {{0, 0, c_eNoDataType, EPixelType::Lum},
         Plain("Unknown data type 'Unknown'", "GetBytesPerChannel", c_pcFormatFile)},
        {{3, 3, EDataType::Packed12, c_eNoPixelType}, Plain("Unknown pixel type", "GetComponentCount", c_pcFormatFile)},
        // A true count of 2^63 and more bytes, with 32-bit counts of 8 and 0.
        {{INT_MAX, INT_MAX, EDataType::Short, EPixelType::RGBA},
         Plain("Image is too large", "Create", "Qx.Core.Ex/QxImage")},
        {{1 << 30, 1 << 30, EDataType::Double, EPixelType::Lum},
         Plain("Image is too large", "Create", "Qx.Core.Ex/QxImage")},
    };
    for (const auto& xCase : axCases)
    {
        SCOPED_TRACE(std::to_string(xCase.xFormat.iWidth) + " x " + std::to_string(xCase.xFormat.iHeight));
        CQxImage xImage = _MakePattern();
        const void* pData = xImage.GetDataPtr();
        EXPECT_TRUE(ThrowsChain([&] { xImage.Create(xCase.xFormat); }, {xCase.xLink}));
        EXPECT_EQ(xImage.GetDataPtr(), pData);
        EXPECT_TRUE(_IsPattern(xImage));
        EXPECT_TRUE(ThrowsChain([&] { CQxImage{xCase.xFormat}; }, {xCase.xLink}));
    }
}

TEST(Image, RunningOutOfMemoryChangesNothing)
{
    // 2^62 bytes, give or take: legal, but more than any address space has. The 32-bit byte count is tiny.
    const CQxImageFormat xHuge(INT_MAX, INT_MAX, EDataType::UByte, EPixelType::Lum);
    CQxImage xImage = _MakePattern();
    EXPECT_THROW(xImage.Create(xHuge), std::bad_alloc);
    EXPECT_TRUE(_IsPattern(xImage));
    EXPECT_THROW(CQxImage{xHuge}, std::bad_alloc);
}

TEST(Image, CopiesOwnTheirBuffer)
{
    CQxImage xImage = _MakePattern();
    const CQxImage xCopy(xImage);
    CQxImage xAssigned(CQxImageFormat(100, 100, EDataType::UByte, EPixelType::Lum));
    xAssigned = xImage;
    EXPECT_NE(xCopy.GetDataPtr(), xImage.GetDataPtr());
    EXPECT_NE(xAssigned.GetDataPtr(), xImage.GetDataPtr());
    std::memset(xImage.GetDataPtr(), 0, xImage.GetBufferSize());
    EXPECT_TRUE(_IsPattern(xCopy));
    EXPECT_TRUE(_IsPattern(xAssigned));
}

TEST(Image, MovesTakeTheBufferAndLeaveAnEmptyImage)
{
    CQxImage xImage = _MakePattern();
    const void* pData = xImage.GetDataPtr();
    CQxImage xMoved(std::move(xImage));
    EXPECT_EQ(xMoved.GetDataPtr(), pData);
    EXPECT_TRUE(_IsPattern(xMoved));
    EXPECT_TRUE(_IsEmpty(xImage)); // NOLINT(*Move,*move): defined to be empty
    xImage.Create(c_xSmall);

    xImage = std::move(xMoved);
    EXPECT_EQ(xImage.GetDataPtr(), pData);
    EXPECT_TRUE(_IsPattern(xImage));
    EXPECT_TRUE(_IsEmpty(xMoved)); // NOLINT(*Move,*move): defined to be empty
}

TEST(Image, SurvivesAssignmentToItself)
{
    CQxImage xImage = _MakePattern();
    CQxImage& xAlias = xImage;
    xImage = xAlias;
    EXPECT_TRUE(_IsPattern(xImage));
    xImage = std::move(xAlias);
    EXPECT_TRUE(_IsPattern(xImage));
}

/// Another library's image overrides the five operations that matter.
class CMinimalImage final : public IImage
{
public:
    bool Create(int, int, EPixelType::ID, EDataType::ID) override { return false; }
    void GetSize(int& iWidth, int& iHeight) const override { iWidth = iHeight = 1; }
    void GetType(EPixelType::ID& ePixelType, EDataType::ID& eDataType) const override
    {
        ePixelType = EPixelType::Lum;
        eDataType = EDataType::UByte;
    }
    void* GetDataPtr() override { return &m_uPixel; }
    const void* GetDataPtr() const override { return &m_uPixel; }

private:
    unsigned char m_uPixel = 0;
};

static_assert(!std::is_abstract_v<CMinimalImage>);
static_assert(!std::is_destructible_v<IImage>, "whoever made an image destroys it");

TEST(Image, VirtualOperationsKeepTheirPlaces)
{
    EXPECT_EQ(VirtualSlot(&IImage::Create), 0U);
    EXPECT_EQ(VirtualSlot(&IImage::Reserved1), 1U);
    EXPECT_EQ(VirtualSlot(&IImage::Reserved7), 7U);
    EXPECT_EQ(VirtualSlot(&IImage::GetSize), 8U);
    EXPECT_EQ(VirtualSlot(&IImage::GetType), 9U);
    EXPECT_EQ(VirtualSlot(static_cast<void* (IImage::*)()>(&IImage::GetDataPtr)), 10U);
    EXPECT_EQ(VirtualSlot(static_cast<const void* (IImage::*)() const>(&IImage::GetDataPtr)), 11U);
    EXPECT_EQ(VirtualSlot(&CQxImage::GetSize), 8U);
}

} // namespace
