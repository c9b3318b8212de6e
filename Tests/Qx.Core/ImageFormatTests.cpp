#include <climits>
#include <cstddef>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "Qx.Core.Ex/QxImageFormat.h"
#include "Support/Chain.h"

namespace Qx::Test
{

namespace
{

__extension__ using uint128_t = unsigned __int128;

const std::string c_sNoChannelBytes = "GetBytesPerChannel: Unknown data type 'Unknown'";
const std::string c_sNoPixelBytes = "GetBytesPerPixel: Unable to determine bytes per pixel from integral data formats";
const std::string c_sNoComponents = "GetComponentCount: Unknown pixel type";

struct STypeCase
{
    std::uint32_t uID;
    const char* pcName;
    int iSize; ///< bytes of a channel, channels of a pixel; -1: has none
};

// Unknown are also neighbours of the ranges, and values that a narrower type would take for one.
constexpr STypeCase c_axDataTypes[] = {
    {0, "Void", 0},
    {0x1400, "Byte", 1},
    {0x1401, "UByte", 1},
    {0x1402, "Short", 2},
    {0x1403, "UShort", 2},
    {0x1404, "Int", 4},
    {0x1405, "UInt", 4},
    {0x1406, "Float", 4},
    {0x140A, "Double", 8},
    {10, "Custom_10in16_LSB", 2},
    {11, "Custom_10in16_MSB", 2},
    {12, "Custom_12in16_LSB", 2},
    {13, "Custom_12in16_MSB", 2},
    {EDataType::Packed10, "Unknown", -1},
    {EDataType::Packed12, "Unknown", -1},
    {EDataType::Integral10, "Unknown", -1},
    {EDataType::Integral12, "Unknown", -1},
    {9, "Unknown", -1},
    {16, "Unknown", -1},
    {0x1407, "Unknown", -1},
    {0x140B, "Unknown", -1},
    {0x140F, "Unknown", -1},
    {0x1412, "Unknown", -1},
    {0x10000, "Unknown", -1},
    {0x11401, "Unknown", -1},
    {UINT32_MAX, "Unknown", -1},
};

constexpr STypeCase c_axPixelTypes[] = {{0, "None", 0}, {0x1907, "RGB", 3}, {0x1908, "RGBA", 4}, {0x1909, "Lum", 1},
    {0x190A, "LumA", 2}, {0x2001, "BayerRG", 1}, {0x2002, "BayerBG", 1}, {0x2003, "BayerGR", 1}, {0x2004, "BayerGB", 1},
    {0x80E0, "BGR", 3}, {0x80E1, "BGRA", 4}, {0x8757, "Unknown", 2}, {1, "Unknown", -1}, {0x1906, "Unknown", -1},
    {0x190B, "Unknown", -1}, {0x2000, "Unknown", -1}, {0x2005, "Unknown", -1}, {0x80E2, "Unknown", -1},
    {0x11909, "Unknown", -1}, {UINT32_MAX, "Unknown", -1}};

constexpr int c_aiExtents[] = {INT_MIN, -3, 0, 7, 46341, 1 << 30, INT_MAX};

CQxImageFormat _Format(std::uint32_t uDataType, std::uint32_t uPixelType, int iWidth = 1, int iHeight = 1)
{
    return CQxImageFormat(
        iWidth, iHeight, static_cast<EDataType::ID>(uDataType), static_cast<EPixelType::ID>(uPixelType));
}

/// What @p xBody returns, or "operation: message" of what it throws.
template <typename TBody>
std::string _Outcome(TBody&& xBody)
{
    try
    {
        return std::to_string(xBody());
    }
    catch (const CQxException& xException)
    {
        const char* pcMessage = xException.GetMessageText().ToCString();
        const char* pcFunction = xException.GetFunction().ToCString();
        EXPECT_TRUE(IsChain(xException, {Plain(pcMessage, pcFunction, "Qx.Core.Ex/QxImageFormat")}));
        return std::string(pcFunction) + ": " + pcMessage;
    }
}

TEST(ImageFormat, HasTheLayoutThatKernelsRead)
{
    EXPECT_EQ(offsetof(CQxImageFormat, iWidth), 0U);
    EXPECT_EQ(offsetof(CQxImageFormat, iHeight), 4U);
    EXPECT_EQ(offsetof(CQxImageFormat, eDataType), 8U);
    EXPECT_EQ(offsetof(CQxImageFormat, ePixelType), 12U);
}

TEST(ImageFormat, ComparesAllFourFields)
{
    const CQxImageFormat xFormat(3, 4, EDataType::UByte, EPixelType::BayerRG);
    EXPECT_EQ(xFormat, CQxImageFormat(3, 4, EDataType::UByte, EPixelType::BayerRG));
    EXPECT_NE(xFormat, CQxImageFormat(2, 4, EDataType::UByte, EPixelType::BayerRG));
    EXPECT_NE(xFormat, CQxImageFormat(3, 5, EDataType::UByte, EPixelType::BayerRG));
    EXPECT_NE(xFormat, CQxImageFormat(3, 4, EDataType::Byte, EPixelType::BayerRG));
    EXPECT_NE(xFormat, CQxImageFormat(3, 4, EDataType::UByte, EPixelType::BayerBG));
    EXPECT_EQ(CQxImageFormat{}, CQxImageFormat(0, 0, EDataType::Void, EPixelType::None));
}

TEST(ImageFormat, TypesHaveNamesAndSizes)
{
    for (const auto& [uID, pcName, iSize] : c_axDataTypes)
    {
        const CQxImageFormat xFormat = _Format(uID, EPixelType::Lum);
        EXPECT_STREQ(GetDataTypeName(xFormat.eDataType), pcName) << uID;
        EXPECT_EQ(_Outcome([&] { return xFormat.GetBytesPerChannel(); }),
            iSize < 0 ? c_sNoChannelBytes : std::to_string(iSize));
    }
    for (const auto& [uID, pcName, iSize] : c_axPixelTypes)
    {
        const CQxImageFormat xFormat = _Format(EDataType::UByte, uID);
        EXPECT_STREQ(GetPixelTypeName(xFormat.ePixelType), pcName) << uID;
        EXPECT_EQ(
            _Outcome([&] { return xFormat.GetComponentCount(); }), iSize < 0 ? c_sNoComponents : std::to_string(iSize));
    }
}

TEST(ImageFormat, ByteCountsOfKnownImages)
{
    struct
    {
        int iWidth;
        int iHeight;
        std::uint32_t uDataType;
        std::uint32_t uPixelType;
        std::uint32_t uBytes;
        std::uint64_t uExactBytes;
    } const axCases[] = {
        {1000, 1000, EDataType::Integral10, EPixelType::Lum, 1250000, 1250000},
        {1000, 1000, EDataType::Integral12, 12345, 1500000, 1500000},
        {1000, 1000, EDataType::Packed10, EPixelType::RGB, 3750000, 3750000},
        // Rounded down over the whole image.
        {3, 1, EDataType::Integral10, EPixelType::Lum, 3, 3},
        {5, 1, EDataType::Packed12, EPixelType::Lum, 7, 7},
        // Beyond 32 bits, in the product or on the way to it.
        {33000, 33000, EDataType::Float, EPixelType::RGBA, 244130816, 17424000000},
        {20000, 20000, EDataType::Packed12, EPixelType::Lum, 63129088, 600000000},
        {60000, 60000, EDataType::Integral10, EPixelType::Lum, 205032704, 4500000000},
        // 2^64 - 2^34 + 4 and beyond.
        {INT_MAX, INT_MAX, EDataType::Float, EPixelType::Lum, 4, 18446744056529682436U},
        {INT_MAX, INT_MAX, EDataType::Double, EPixelType::Lum, 8, UINT64_MAX},
        {-1, 1, EDataType::UByte, EPixelType::Lum, UINT32_MAX, UINT64_MAX},
    };
    for (const auto& xCase : axCases)
    {
        const CQxImageFormat xFormat = _Format(xCase.uDataType, xCase.uPixelType, xCase.iWidth, xCase.iHeight);
        EXPECT_EQ(xFormat.GetByteCount(), xCase.uBytes) << "case " << &xCase - axCases;
        EXPECT_EQ(xFormat.GetExactByteCount(), xCase.uExactBytes) << "case " << &xCase - axCases;
    }
}

// What fails first: the integral types when the bytes of a pixel are asked for, then the data type, then the pixel
// type.
void _ExpectSizes(const STypeCase& xDataType, const STypeCase& xPixelType, int iWidth, int iHeight)
{
    const bool bIntegral = xDataType.uID == EDataType::Integral10 || xDataType.uID == EDataType::Integral12;
    const bool bPacked = xDataType.uID == EDataType::Packed10 || xDataType.uID == EDataType::Packed12;
    const bool bTen = xDataType.uID == EDataType::Integral10 || xDataType.uID == EDataType::Packed10;
    const int iBits = bIntegral || bPacked ? (bTen ? 10 : 12) : xDataType.iSize * 8;
    const auto uBits = static_cast<std::uint32_t>(bIntegral ? iBits : iBits * xPixelType.iSize);
    const std::string sFailure = iBits < 0 ? c_sNoChannelBytes : xPixelType.iSize < 0 ? c_sNoComponents : "";
    const std::string sPixelFailure = bIntegral ? c_sNoPixelBytes : bPacked ? c_sNoChannelBytes : sFailure;
    const bool bFails = !bIntegral && !sFailure.empty();

    const uint128_t uPixels = static_cast<uint128_t>(iWidth) * static_cast<uint128_t>(iHeight);
    const uint128_t uTrue = iWidth < 0 || iHeight < 0 ? UINT64_MAX : uPixels * uBits / 8;
    const auto uExact = static_cast<std::uint64_t>(uTrue > UINT64_MAX ? UINT64_MAX : uTrue);
    // Of the 32-bit count the pixels wrap first; the packed types wrap again before the division.
    const uint128_t uBitCount = static_cast<uint128_t>(static_cast<std::uint32_t>(uPixels)) * uBits;
    const auto uBytes = static_cast<std::uint32_t>((bPacked ? static_cast<std::uint32_t>(uBitCount) : uBitCount) / 8);

    SCOPED_TRACE(std::to_string(iWidth) + " x " + std::to_string(iHeight) + " " + std::to_string(xDataType.uID) + "/" +
        std::to_string(xPixelType.uID));
    const CQxImageFormat xFormat = _Format(xDataType.uID, xPixelType.uID, iWidth, iHeight);
    EXPECT_EQ(_Outcome([&] { return xFormat.GetBytesPerPixel(); }),
        sPixelFailure.empty() ? std::to_string(uBits / 8) : sPixelFailure);
    EXPECT_EQ(_Outcome([&] { return xFormat.GetExactByteCount(); }), bFails ? sFailure : std::to_string(uExact));
    EXPECT_EQ(_Outcome([&] { return xFormat.GetByteCount(); }), bFails ? sFailure : std::to_string(uBytes));
}

TEST(ImageFormat, SizesAgreeWithWideArithmeticOrAreTheFirstFailure)
{
    for (const STypeCase& xDataType : c_axDataTypes)
    {
        for (const STypeCase& xPixelType : c_axPixelTypes)
        {
            for (const int iWidth : c_aiExtents)
            {
                for (const int iHeight : c_aiExtents)
                {
                    _ExpectSizes(xDataType, xPixelType, iWidth, iHeight);
                }
            }
        }
    }
}

} // namespace

} // namespace Qx::Test
