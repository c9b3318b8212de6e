#include <array>
#include <bit>
#include <cctype>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Qx.Core/QxException.h"
#include "Support/Chain.h"

namespace
{

using Qx::CGuid;
using Qx::Test::Plain;
using Qx::Test::ThrowsChain;

constexpr const char* c_pcText = "{01234567-89AB-CDEF-FEDC-BA9876543210}";

static_assert(CGuid(c_pcText) == CGuid("{01234567-89ab-cdef-fedc-ba9876543210}"));
static_assert(CGuid() == CGuid("{00000000-0000-0000-0000-000000000000}"));

TEST(Guid, BytesStandInTheOrderOfTheText)
{
    constexpr std::array<std::uint8_t, 16> c_vExpected{0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF,
                                                       0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10};
    for (const char* pcText :
         {c_pcText, "{01234567-89ab-cdef-fedc-ba9876543210}", "{01234567-89aB-CdEf-FedC-bA9876543210}"})
    {
        EXPECT_EQ((std::bit_cast<std::array<std::uint8_t, 16>>(CGuid(pcText))), c_vExpected) << pcText;
    }
}

TEST(Guid, EveryByteCountsInComparisons)
{
    const CGuid xGuid(c_pcText);
    EXPECT_EQ(xGuid, CGuid(c_pcText));
    const std::string sText = c_pcText;
    for (std::size_t nPos = 0; nPos < sText.size(); ++nPos)
    {
        if (std::isxdigit(static_cast<unsigned char>(sText[nPos])) != 0)
        {
            std::string sOther = sText;
            sOther[nPos] = sText[nPos] == '0' ? '1' : '0';
            EXPECT_NE(xGuid, CGuid(sOther.c_str())) << sOther;
        }
    }
}

TEST(Guid, MalformedTextIsRefused)
{
    const std::string sGood = c_pcText;
    std::vector<std::string> vBad{
        "",
        "{",
        "{}",
        "01234567-89AB-CDEF-FEDC-BA9876543210",
        "01234567-89AB-CDEF-FEDC-BA9876543210}",
        "(01234567-89AB-CDEF-FEDC-BA9876543210)",
        "{0123456789ABCDEFFEDCBA9876543210}",
        "{0x234567-89AB-CDEF-FEDC-BA9876543210}",
        " " + sGood,
        sGood + " ",
        sGood + "}",
        sGood + sGood,
        "{012345678-9AB-CDEF-FEDC-BA9876543210}",
    };
    // Cut off anywhere, and every character replaced: by a neighbour of the digits, the letters and the separators.
    for (std::size_t nPos = 0; nPos < sGood.size(); ++nPos)
    {
        vBad.push_back(sGood.substr(0, nPos));
        for (const char cBad : {'/', ':', '@', 'G', '`', 'g', ' ', '\x80', '\xff'})
        {
            std::string sBad = sGood;
            sBad[nPos] = cBad;
            vBad.push_back(sBad);
        }
    }
    for (const std::string& sBad : vBad)
    {
        EXPECT_TRUE(ThrowsChain([&] { CGuid(sBad.c_str()); },
                                {Plain(("Malformed GUID text '" + sBad + "'").c_str(), "CGuid", "Qx.Core/QxGuid")}))
            << sBad;
    }
    const char* pcNull = nullptr;
    EXPECT_TRUE(ThrowsChain([&] { CGuid{pcNull}; }, {Plain("Malformed GUID text ''", "CGuid", "Qx.Core/QxGuid")}));
}

} // namespace
