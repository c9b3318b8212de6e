#include <climits>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "Qx.Core.Ex/QxImageFormat.h"
#include "Support/Chain.h"

namespace
{

using Qx::CQxImageFormat;
using Qx::EDataType;
using Qx::EPixelType;
using Qx::GetDataTypeName;
using Qx::GetPixelTypeName;
using Qx::Test::Plain;
using Qx::Test::ThrowsChain;

__extension__ using uint128_t = unsigned __int128;

constexpr const char* c_pcFile = "Qx.Core.Ex/QxImageFormat";
constexpr const char* c_pcNoPixelBytes = "Unable to determine bytes per pixel from integral data formats";

struct SDataTypeCase
{
    std::uint32_t uID;
    const char* pcName;
    std::optional<int> iBytes; ///< per channel
};

constexpr SDataTypeCase c_axDataTypes[] = {
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
    {14, "Unknown", {}},
    {15, "Unknown", {}},
    {0x1410, "Unknown", {}},
    {0x1411, "Unknown", {}},
    // No data types: the neighbours of the ranges, and values that a narrower type would take for one.
    {1, "Unknown", {}},
    {9, "Unknown", {}},
    {16, "Unknown", {}},
    {0x13FF, "Unknown", {}},
    {0x1407, "Unknown", {}},
    {0x1409, "Unknown", {}},
    {0x140B, "Unknown", {}},
    {0x140F, "Unknown", {}},
    {0x1412, "Unknown", {}},
    {0x10000, "Unknown", {}},
    {0x11401, "Unknown", {}},
    {UINT32_MAX, "Unknown", {}},
};

struct SPixelTypeCase
{
    std::uint32_t uID;
    const char* pcName;
    std::optional<int> iComponents;
};

constexpr SPixelTypeCase c_axPixelTypes[] = {
    {0, "None", 0},          {0x1907, "RGB", 3},       {0x1908, "RGBA", 4},
    {0x1909, "Lum", 1},      {0x190A, "LumA", 2},      {0x2001, "BayerRG", 1},
    {0x2002, "BayerBG", 1},  {0x2003, "BayerGR", 1},   {0x2004, "BayerGB", 1},
    {0x80E0, "BGR", 3},      {0x80E1, "BGRA", 4},      {0x8757, "Unknown", 2},
    {1, "Unknown", {}},      {0x1906, "Unknown", {}},  {0x190B, "Unknown", {}},
    {0x2000, "Unknown", {}}, {0x2005, "Unknown", {}},  {0x80DF, "Unknown", {}},
    {0x80E2, "Unknown", {}}, {0x11909, "Unknown", {}}, {UINT32_MAX, "Unknown", {}},
};

struct SExtent
{
    int iWidth;
    int iHeight;
};

constexpr SExtent c_axExtents[] = {
    {1, 1},
    {0, 0},
    {0, 7},
    {7, 0},
    {7, 3},
    {1000, 1000},
    {33000, 33000},
    {20000, 20000},
    {60000, 60000},
    {65536, 65536},
    {65535, 1},
    {INT_MAX, 1},
    {INT_MAX, INT_MAX},
    {-1, 1},
    {1, -1},
    {-1, -1},
    {-5, 7},
    {-3, 0},
    {INT_MIN, 3},
    {INT_MIN, INT_MIN},
    {INT_MAX, 5},
    {1 << 30, 4},
    {1 << 30, 1 << 30},
    {46341, 46341},
};

CQxImageFormat _Format(std::uint32_t uDataType, std::uint32_t uPixelType, SExtent xExtent = {1, 1})
{
    return CQxImageFormat(xExtent.iWidth, xExtent.iHeight, static_cast<EDataType::ID>(uDataType),
                          static_cast<EPixelType::ID>(uPixelType));
}

/// The failure of a size rule, or nothing: the integral types first when the bytes of a pixel are asked for, then the
/// data type, then the pixel type.
struct SExpectedFailure
{
    const char* pcMessage = nullptr;
    const char* pcFunction = nullptr;
};

SExpectedFailure _ExpectedFailure(const SDataTypeCase& xDataType, const SPixelTypeCase& xPixelType, bool bWholeImage)
{
    if (xDataType.uID == 0x1410 || xDataType.uID == 0x1411)
    {
        return bWholeImage ? SExpectedFailure{} : SExpectedFailure{c_pcNoPixelBytes, "GetBytesPerPixel"};
    }
    const bool bPacked = xDataType.uID == 14 || xDataType.uID == 15;
    if (!xDataType.iBytes && !(bWholeImage && bPacked))
    {
        return {"Unknown data type 'Unknown'", "GetBytesPerChannel"};
    }
    return xPixelType.iComponents ? SExpectedFailure{} : SExpectedFailure{"Unknown pixel type", "GetComponentCount"};
}

/// Bits of one pixel; only for formats with a byte count.
std::uint32_t _BitsPerPixel(const SDataTypeCase& xDataType, const SPixelTypeCase& xPixelType)
{
    switch (xDataType.uID)
    {
    case 0x1410:
        return 10;
    case 0x1411:
        return 12;
    case 14:
        return static_cast<std::uint32_t>(*xPixelType.iComponents) * 10;
    case 15:
        return static_cast<std::uint32_t>(*xPixelType.iComponents) * 12;
    default:
        return static_cast<std::uint32_t>(*xDataType.iBytes * *xPixelType.iComponents) * 8;
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

TEST(ImageFormat, DataTypesHaveNamesAndBytes)
{
    for (const SDataTypeCase& xCase : c_axDataTypes)
    {
        SCOPED_TRACE(xCase.uID);
        EXPECT_STREQ(GetDataTypeName(static_cast<EDataType::ID>(xCase.uID)), xCase.pcName);
        const CQxImageFormat xFormat = _Format(xCase.uID, EPixelType::Lum);
        if (xCase.iBytes)
        {
            EXPECT_EQ(xFormat.GetBytesPerChannel(), *xCase.iBytes);
        }
        else
        {
            EXPECT_TRUE(ThrowsChain([&] { static_cast<void>(xFormat.GetBytesPerChannel()); },
                                    {Plain("Unknown data type 'Unknown'", "GetBytesPerChannel", c_pcFile)}));
        }
    }
}

TEST(ImageFormat, PixelTypesHaveNamesAndComponents)
{
    for (const SPixelTypeCase& xCase : c_axPixelTypes)
    {
        SCOPED_TRACE(xCase.uID);
        EXPECT_STREQ(GetPixelTypeName(static_cast<EPixelType::ID>(xCase.uID)), xCase.pcName);
        const CQxImageFormat xFormat = _Format(EDataType::UByte, xCase.uID);
        if (xCase.iComponents)
        {
            EXPECT_EQ(xFormat.GetComponentCount(), *xCase.iComponents);
        }
        else
        {
            EXPECT_TRUE(ThrowsChain([&] { static_cast<void>(xFormat.GetComponentCount()); },
                                    {Plain("Unknown pixel type", "GetComponentCount", c_pcFile)}));
        }
    }
}

TEST(ImageFormat, BytesPerPixelIsTheProductOrTheFirstFailure)
{
    for (const SDataTypeCase& xDataType : c_axDataTypes)
    {
        for (const SPixelTypeCase& xPixelType : c_axPixelTypes)
        {
            const CQxImageFormat xFormat = _Format(xDataType.uID, xPixelType.uID);
            const SExpectedFailure xFailure = _ExpectedFailure(xDataType, xPixelType, false);
            SCOPED_TRACE(std::to_string(xDataType.uID) + "/" + std::to_string(xPixelType.uID));
            if (xFailure.pcMessage == nullptr)
            {
                EXPECT_EQ(xFormat.GetBytesPerPixel(), *xDataType.iBytes * *xPixelType.iComponents);
            }
            else
            {
                EXPECT_TRUE(ThrowsChain([&] { static_cast<void>(xFormat.GetBytesPerPixel()); },
                                        {Plain(xFailure.pcMessage, xFailure.pcFunction, c_pcFile)}));
            }
        }
    }
}

TEST(ImageFormat, ByteCountsOfKnownImages)
{
    struct
    {
        SExtent xExtent;
        std::uint32_t uDataType;
        std::uint32_t uPixelType;
        std::uint32_t uBytes;
        std::uint64_t uExactBytes;
    } const axCases[] = {
        {{1000, 1000}, 0x1410, EPixelType::Lum, 1250000, 1250000},
        {{1000, 1000}, 0x1411, EPixelType::Lum, 1500000, 1500000},
        {{1000, 1000}, 0x1411, 12345, 1500000, 1500000},
        {{1000, 1000}, 14, EPixelType::RGB, 3750000, 3750000},
        {{1000, 1000}, 15, EPixelType::Lum, 1500000, 1500000},
        {{1000, 1000}, 14, 0x8757, 2500000, 2500000},
        {{1000, 1000}, 14, EPixelType::None, 0, 0},
        {{1000, 1000}, EDataType::UByte, EPixelType::RGB, 3000000, 3000000},
        {{1000, 1000}, EDataType::Float, EPixelType::RGBA, 16000000, 16000000},
        // Rounded down over the whole image.
        {{3, 1}, 0x1410, EPixelType::Lum, 3, 3},
        {{3, 1}, 0x1411, EPixelType::Lum, 4, 4},
        {{3, 1}, 14, EPixelType::Lum, 3, 3},
        {{5, 1}, 15, EPixelType::Lum, 7, 7},
        // Beyond 32 bits, in the product or on the way to it.
        {{33000, 33000}, EDataType::Float, EPixelType::RGBA, 244130816, 17424000000},
        {{33000, 33000}, 14, EPixelType::RGBA, 76290880, 5445000000},
        {{20000, 20000}, 15, EPixelType::Lum, 63129088, 600000000},
        {{60000, 60000}, 0x1410, EPixelType::Lum, 205032704, 4500000000},
        {{60000, 60000}, 0x1411, EPixelType::Lum, 1105032704, 5400000000},
        {{65536, 65536}, EDataType::UByte, EPixelType::Lum, 0, 4294967296},
        // 2^64 - 2^34 + 4 and beyond.
        {{INT_MAX, INT_MAX}, EDataType::Float, EPixelType::Lum, 4, 18446744056529682436U},
        {{INT_MAX, INT_MAX}, EDataType::Double, EPixelType::Lum, 8, UINT64_MAX},
        {{-1, 1}, EDataType::UByte, EPixelType::Lum, UINT32_MAX, UINT64_MAX},
    };
    for (const auto& xCase : axCases)
    {
        const CQxImageFormat xFormat = _Format(xCase.uDataType, xCase.uPixelType, xCase.xExtent);
        SCOPED_TRACE(std::to_string(xCase.xExtent.iWidth) + " x " + std::to_string(xCase.xExtent.iHeight) + " " +
                     std::to_string(xCase.uDataType) + "/" + std::to_string(xCase.uPixelType));
        EXPECT_EQ(xFormat.GetByteCount(), xCase.uBytes);
        EXPECT_EQ(xFormat.GetExactByteCount(), xCase.uExactBytes);
    }
}

TEST(ImageFormat, ByteCountsAgreeWithWideArithmetic)
{
    for (const SDataTypeCase& xDataType : c_axDataTypes)
    {
        for (const SPixelTypeCase& xPixelType : c_axPixelTypes)
        {
            if (_ExpectedFailure(xDataType, xPixelType, true).pcMessage != nullptr)
            {
                continue;
            }
            const std::uint32_t uBits = _BitsPerPixel(xDataType, xPixelType);
            const bool bIntegral = xDataType.uID == 0x1410 || xDataType.uID == 0x1411;
            for (const SExtent& xExtent : c_axExtents)
            {
                const CQxImageFormat xFormat = _Format(xDataType.uID, xPixelType.uID, xExtent);
                SCOPED_TRACE(std::to_string(xExtent.iWidth) + " x " + std::to_string(xExtent.iHeight) + " " +
                             std::to_string(xDataType.uID) + "/" + std::to_string(xPixelType.uID));

                const bool bNegative = xExtent.iWidth < 0 || xExtent.iHeight < 0;
                const uint128_t uPixels =
                    static_cast<uint128_t>(xExtent.iWidth) * static_cast<uint128_t>(xExtent.iHeight);
                const uint128_t uTrue = uPixels * uBits / 8;
                EXPECT_EQ(xFormat.GetExactByteCount(),
                          bNegative || uTrue > UINT64_MAX ? UINT64_MAX : static_cast<std::uint64_t>(uTrue));

                // Of the 32-bit count, n wraps first; the packed types wrap again before the division, the integral
                // ones after it.
                const uint128_t uWrapped = static_cast<std::uint32_t>(uPixels);
                const uint128_t uBitCount = uWrapped * uBits;
                const bool bWholeBytes = uBits % 8 == 0 && xDataType.uID != 14 && xDataType.uID != 15;
                const uint128_t uExpected = bIntegral || bWholeBytes
                                                ? uBitCount / 8
                                                : static_cast<uint128_t>(static_cast<std::uint32_t>(uBitCount) / 8);
                EXPECT_EQ(xFormat.GetByteCount(), static_cast<std::uint32_t>(uExpected));
            }
        }
    }
}

TEST(ImageFormat, ByteCountsFailForTypesWithoutASize)
{
    for (const SDataTypeCase& xDataType : c_axDataTypes)
    {
        for (const SPixelTypeCase& xPixelType : c_axPixelTypes)
        {
            const SExpectedFailure xFailure = _ExpectedFailure(xDataType, xPixelType, true);
            SCOPED_TRACE(std::to_string(xDataType.uID) + "/" + std::to_string(xPixelType.uID));
            for (const SExtent& xExtent : {SExtent{3, 2}, SExtent{-1, 0}})
            {
                const CQxImageFormat xFormat = _Format(xDataType.uID, xPixelType.uID, xExtent);
                if (xFailure.pcMessage == nullptr)
                {
                    EXPECT_NO_THROW(static_cast<void>(xFormat.GetByteCount()));
                    EXPECT_NO_THROW(static_cast<void>(xFormat.GetExactByteCount()));
                    continue;
                }
                EXPECT_TRUE(ThrowsChain([&] { static_cast<void>(xFormat.GetByteCount()); },
                                        {Plain(xFailure.pcMessage, xFailure.pcFunction, c_pcFile)}));
                EXPECT_TRUE(ThrowsChain([&] { static_cast<void>(xFormat.GetExactByteCount()); },
                                        {Plain(xFailure.pcMessage, xFailure.pcFunction, c_pcFile)}));
            }
        }
    }
}

} // namespace
