#include <climits>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "Qx.Core/QxString.h"
#include "Support/AllocationFault.h"

namespace Qx::Test
{

namespace
{

constexpr const char* c_pcLong = "a text that is too long for the buffer inside a string object";

// What an int holds without loss, and no other number.
template <typename T>
concept CAppendable = requires(CQxString& sText, T tValue)
{
    sText << tValue;
};
static_assert(CAppendable<int> && CAppendable<short> && CAppendable<unsigned char>);
static_assert(!CAppendable<unsigned> && !CAppendable<long> && !CAppendable<float> && !CAppendable<double>);

TEST(String, NullPointerIsTheEmptyText)
{
    const char* pcNull = nullptr;
    CQxString sText(pcNull);
    EXPECT_STREQ(sText.ToCString(), "");
    EXPECT_EQ(sText, CQxString());

    sText = "text";
    sText << pcNull;
    EXPECT_STREQ(sText.ToCString(), "text");
    sText = pcNull;
    EXPECT_STREQ(sText.ToCString(), "");
}

TEST(String, AppendingChainsTextsAndSignedDecimals)
{
    CQxString sText("one ");
    CQxString& sResult = sText << CQxString("two") << " " << INT_MIN << "/" << INT_MAX;
    EXPECT_EQ(&sResult, &sText);
    EXPECT_STREQ(sText.ToCString(), "one two -2147483648/2147483647");
}

TEST(String, AMessageIsMadeOfTextsNumbersOfAnyWidthAndAddresses)
{
    const char* pcNull = nullptr;
    EXPECT_STREQ(MakeText("a", pcNull, CQxString("b"), ' ' + 0, " ", static_cast<short>(-1), " ", LLONG_MIN, " ",
                     ULLONG_MAX, " ", 7U, " ", reinterpret_cast<const void*>(0xabc0))
                     .ToCString(),
        "ab32 -1 -9223372036854775808 18446744073709551615 7 0xabc0");
}

TEST(String, TakesItsOwnTextAsArgument)
{
    CQxString sText("abc");
    // More often than the buffer can grow in place.
    for (int iRound = 0; iRound < 6; ++iRound)
    {
        const std::string sExpected = std::string(sText.ToCString()) + sText.ToCString();
        sText << sText;
        ASSERT_EQ(sText.ToCString(), sExpected);
        sText << sText.ToCString();
        ASSERT_EQ(sText.ToCString(), sExpected + sExpected);
    }

    sText = c_pcLong;
    const CQxString& sAlias = sText;
    sText = sAlias;
    EXPECT_STREQ(sText.ToCString(), c_pcLong);
    sText = sText.ToCString() + 2;
    EXPECT_STREQ(sText.ToCString(), c_pcLong + 2);
}

TEST(String, CopiesShareNothing)
{
    CQxString sOriginal(c_pcLong);
    CQxString sCopy(sOriginal);
    CQxString sAssigned("old");
    sAssigned = sOriginal;
    sOriginal << "!";
    EXPECT_STREQ(sCopy.ToCString(), c_pcLong);
    EXPECT_STREQ(sAssigned.ToCString(), c_pcLong);

    const CQxString sMoved(std::move(sCopy));
    EXPECT_EQ(sMoved, sAssigned);
}

TEST(String, ComparesByBytes)
{
    EXPECT_EQ(CQxString("gr\xc3\xbc\xc3\x9f"), CQxString("gr\xc3\xbc\xc3\x9f"));
    EXPECT_NE(CQxString("text"), CQxString("Text"));
    EXPECT_NE(CQxString("text"), CQxString("text "));
}

TEST(String, IsUnchangedWhenItCannotGrow)
{
    const CQxString sLong(c_pcLong);
    std::optional<CQxString> xText;
    const std::function<void()> c_vGrow[] = {
        [&] { *xText << c_pcLong; },
        [&] { *xText << sLong; },
        [&] { *xText = c_pcLong; },
        [&] { *xText = sLong; },
    };
    for (const auto& Grow : c_vGrow)
    {
        const auto CheckUnchanged = [&] { EXPECT_STREQ(xText->ToCString(), "old"); };
        EXPECT_EQ(FailEachAllocation([&] { xText.emplace("old"); }, Grow, CheckUnchanged), 2);
    }
}

} // namespace

} // namespace Qx::Test
