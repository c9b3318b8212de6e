#include <array>
#include <bit>
#include <cctype>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Qx.Core/QxException.h"
#include "Support/Chain.h"

namespace Qx::Test
{

namespace
{

constexpr const char* c_pcText = "{01234567-89AB-CDEF-FEDC-BA9876543210}";

using Bytes = std::array<std::uint8_t, 16>;

static_assert(CGuid() == CGuid("{00000000-0000-0000-0000-000000000000}"));

TEST(Guid, BytesStandInTheOrderOfTheText)
{
    constexpr Bytes c_vExpected{
        0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10};
    EXPECT_EQ(std::bit_cast<Bytes>(CGuid(c_pcText)), c_vExpected);
    EXPECT_EQ(std::bit_cast<Bytes>(CGuid("{01234567-89ab-cdef-fedc-ba9876543210}")), c_vExpected);
}

TEST(Guid, EveryDigitCountsInComparisons)
{
    const std::string sText = c_pcText;
    for (std::size_t nPos = 0; nPos < sText.size(); ++nPos)
    {
        if (std::isxdigit(static_cast<unsigned char>(sText[nPos])) != 0)
        {
            std::string sOther = sText;
            sOther[nPos] = sText[nPos] == '0' ? '1' : '0';
            EXPECT_NE(CGuid(c_pcText), CGuid(sOther.c_str())) << sOther;
        }
    }
}

TEST(Guid, MalformedTextIsRefused)
{
    const std::string sGood = c_pcText;
    std::vector<std::string> vBad{
        "01234567-89AB-CDEF-FEDC-BA9876543210",
        "{0123456789ABCDEFFEDCBA9876543210}",
        "{0x234567-89AB-CDEF-FEDC-BA9876543210}",
        " " + sGood,
        sGood + " ",
        sGood + "}",
        "{012345678-9AB-CDEF-FEDC-BA9876543210}",
    };
    // Cut off anywhere, and every character replaced: by a neighbour of the digits, the letters and the separators.
    for (std::size_t nPos = 0; nPos < sGood.size(); ++nPos)
    {
        vBad.push_back(sGood.substr(0, nPos));
        for (const char cBad : {'/', ':', '@', 'G', '`', 'g', ' ', '\x80', '\xff'})
        {
            vBad.push_back(sGood);
            vBad.back()[nPos] = cBad;
        }
    }
    for (const std::string& sBad : vBad)
    {
        EXPECT_TRUE(ThrowsChain([&] { CGuid(sBad.c_str()); },
            {Plain(("Malformed GUID text '" + sBad + "'").c_str(), "CGuid", "Qx.Core/QxGuid")}));
    }
    const char* pcNull = nullptr;
    EXPECT_TRUE(ThrowsChain([&] { CGuid{pcNull}; }, {Plain("Malformed GUID text ''", "CGuid", "Qx.Core/QxGuid")}));
}

} // namespace

} // namespace Qx::Test
