#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "Qx.Core/QxExport.h"

/// Identifiers, whose layout is part of the binary interface. `Qx` has their name too.
namespace Qx::Interop::Runtime30
{

/// Reports malformed GUID text: throws a `CQxException` "Malformed GUID text '<text>'" (function "CGuid").
[[noreturn]] QX_CORE_API void ThrowMalformedGuid(const char* pcText);

/// A 16-byte identifier, compared byte by byte. The bytes stand in the order of the text.
class CGuid
{
public:
    /// The zero identifier.
    constexpr CGuid() noexcept = default;

    /// Reads braced text of the form "{01234567-89AB-CDEF-0123-456789ABCDEF}"; the digits may be of either case.
    ///
    /// Nothing but this form is accepted: no blanks, no missing braces, nothing behind the closing brace. Malformed
    /// text, null included, throws a `CQxException` "Malformed GUID text '...'"; where the text is a constant
    /// expression it does not compile.
    constexpr explicit CGuid(const char* pcText)
    {
        constexpr const char* c_pcForm = "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}";
        if (pcText == nullptr)
        {
            ThrowMalformedGuid(pcText);
        }
        std::size_t nDigits = 0;
        std::size_t nPos = 0;
        for (; c_pcForm[nPos] != '\0'; ++nPos)
        {
            // A text that is too short differs from the form at its terminating zero, so it is never read past.
            const int iDigit = _DigitValue(pcText[nPos]);
            if (c_pcForm[nPos] == 'x' ? iDigit < 0 : pcText[nPos] != c_pcForm[nPos])
            {
                ThrowMalformedGuid(pcText);
            }
            if (c_pcForm[nPos] == 'x')
            {
                std::uint8_t& uByte = m_vBytes[nDigits / 2];
                uByte = static_cast<std::uint8_t>(uByte * 16 + iDigit);
                ++nDigits;
            }
        }
        if (pcText[nPos] != '\0')
        {
            ThrowMalformedGuid(pcText);
        }
    }

    /// True when all 16 bytes agree.
    friend constexpr bool operator==(const CGuid&, const CGuid&) noexcept = default;

private:
    static constexpr int _DigitValue(char cDigit) noexcept
    {
        if (cDigit >= '0' && cDigit <= '9')
        {
            return cDigit - '0';
        }
        if (cDigit >= 'A' && cDigit <= 'F')
        {
            return cDigit - 'A' + 10;
        }
        return cDigit >= 'a' && cDigit <= 'f' ? cDigit - 'a' + 10 : -1;
    }

    std::array<std::uint8_t, 16> m_vBytes{};
};

static_assert(sizeof(CGuid) == 16);

} // namespace Qx::Interop::Runtime30
