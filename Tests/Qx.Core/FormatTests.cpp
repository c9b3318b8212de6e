#include <algorithm>
#include <climits>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "Qx.Core/QxFormat.h"

namespace
{

using Qx::sprintf_s;

TEST(Format, CutsOffWhatDoesNotFitAndAlwaysTerminates)
{
    struct
    {
        const char* pcText;
        const char* pcExpected;
    } const axCases[] = {
        {"", ""}, {"123", "123"}, {"1234567", "1234567"}, {"12345678", "1234567"}, {"123456789", "1234567"},
    };
    for (const auto& xCase : axCases)
    {
        // Guards on both sides show a write outside the buffer where no sanitizer looks.
        struct
        {
            char acBefore[4];
            char acBuffer[8];
            char acBehind[4];
        } xMemory;
        std::fill_n(reinterpret_cast<char*>(&xMemory), sizeof(xMemory), '#');
        EXPECT_EQ(sprintf_s(xMemory.acBuffer, "%s", xCase.pcText), static_cast<int>(std::string(xCase.pcText).size()));
        EXPECT_STREQ(xMemory.acBuffer, xCase.pcExpected);
        EXPECT_TRUE(
            std::all_of(std::begin(xMemory.acBefore), std::end(xMemory.acBefore), [](char c) { return c == '#'; }));
        EXPECT_TRUE(
            std::all_of(std::begin(xMemory.acBehind), std::end(xMemory.acBehind), [](char c) { return c == '#'; }));
    }
}

TEST(Format, ABufferOfOneHoldsTheEmptyText)
{
    char acBuffer[1] = {'#'};
    EXPECT_EQ(sprintf_s(acBuffer, "%d", 12345), 5);
    EXPECT_EQ(acBuffer[0], '\0');
}

TEST(Format, FormatsAsSprintf)
{
    char acBuffer[100];
    EXPECT_EQ(sprintf_s(acBuffer, "%d %u %5.2f|%-4s|%llu %%", -1, UINT_MAX, 3.14159, "ab", ULLONG_MAX), 47);
    EXPECT_STREQ(acBuffer, "-1 4294967295  3.14|ab  |18446744073709551615 %");
}

TEST(Format, ArgumentsThatCannotBeFormattedLeaveTheEmptyText)
{
    // The C locale, which a program starts in, has no bytes for this character.
    char acBuffer[16] = "old";
    EXPECT_LT(sprintf_s(acBuffer, "new%ls", L"\u4e00"), 0);
    EXPECT_STREQ(acBuffer, "");
}

} // namespace
