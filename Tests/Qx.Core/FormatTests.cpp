#include <climits>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "Qx.Core/QxFormat.h"

namespace Qx::Test
{

namespace
{

// Guards on both sides show a write outside the buffer where no sanitizer looks.
template <std::size_t N>
std::string _Printed(const char* pcText)
{
    struct
    {
        char acBefore[4] = {'#', '#', '#', '#'};
        char acBuffer[N];
        char acBehind[4] = {'#', '#', '#', '#'};
    } xMemory;
    EXPECT_EQ(sprintf_s(xMemory.acBuffer, "%s", pcText), static_cast<int>(std::strlen(pcText)));
    EXPECT_EQ(std::string(xMemory.acBefore, 4) + std::string(xMemory.acBehind, 4), "########");
    return xMemory.acBuffer;
}

TEST(Format, CutsOffWhatDoesNotFitAndAlwaysTerminates)
{
    EXPECT_EQ(_Printed<8>(""), "");
    EXPECT_EQ(_Printed<8>("1234567"), "1234567");
    EXPECT_EQ(_Printed<8>("12345678"), "1234567");
    EXPECT_EQ(_Printed<8>("123456789"), "1234567");
    EXPECT_EQ(_Printed<1>("12345"), "");
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

} // namespace Qx::Test
