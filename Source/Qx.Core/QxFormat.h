#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>

namespace Qx
{

/// Formats as `sprintf` does into an array whose size it takes from the array itself, so that no caller can state a
/// wrong one.
///
/// The result always ends in a zero byte; what does not fit is cut off.
///
/// @param acBuffer the destination; must not be one of the arguments
/// @param pcFormat the `printf` format
/// @return the number of characters that the whole text has, without its terminating zero (so a result of @p N or more
///         means that it was cut off), or a negative number when the arguments cannot be formatted; the buffer then
///         holds the empty text
template <std::size_t N>
[[gnu::format(printf, 2, 3)]] int sprintf_s(char (&acBuffer)[N], const char* pcFormat, ...)
{
    std::va_list xArguments;
    va_start(xArguments, pcFormat);
    const int iLength = std::vsnprintf(acBuffer, N, pcFormat, xArguments);
    va_end(xArguments);
    if (iLength < 0)
    {
        acBuffer[0] = '\0';
    }
    return iLength;
}

} // namespace Qx
