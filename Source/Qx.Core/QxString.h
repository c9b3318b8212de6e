#pragma once

#include <string>
#include <type_traits>
#include <utility>

#include "Qx.Core/QxExport.h"

/// The classes of the SDK.
namespace Qx
{

/// A text of bytes, terminated by a zero byte; bytes are stored and handed out as they came, in no particular encoding.
///
/// Every operation that takes a `const char*` treats a null pointer as the empty text. Operations that grow the text
/// throw `std::bad_alloc` or `std::length_error` when it cannot grow, and leave the text as it was.
class QX_CORE_API CQxString
{
public:
    /// An empty text; does not allocate.
    CQxString() noexcept = default;

    /// A copy of the zero-terminated text @p pcText; not explicit, so that literals can be passed where a text is
    /// wanted.
    CQxString(const char* pcText) : m_sText(pcText != nullptr ? pcText : "") {}

    CQxString(const CQxString&) = default;
    CQxString(CQxString&&) noexcept = default;
    CQxString& operator=(const CQxString&) = default;
    CQxString& operator=(CQxString&&) noexcept = default;
    ~CQxString() = default;

    /// Replaces the text by a copy of @p pcText, which may point into this text.
    CQxString& operator=(const char* pcText)
    {
        m_sText = pcText != nullptr ? pcText : "";
        return *this;
    }

    /// Appends @p pcText and returns this text, so that calls chain.
    CQxString& operator<<(const char* pcText)
    {
        m_sText += pcText != nullptr ? pcText : "";
        return *this;
    }

    /// Appends @p sText (which may be this text) and returns this text.
    CQxString& operator<<(const CQxString& sText)
    {
        m_sText += sText.m_sText;
        return *this;
    }

    /// Appends @p iValue as a signed decimal and returns this text.
    ///
    /// Not inline: the standard library's conversion has a table that exists once in a process, and a client's library
    /// that brings it could never be unloaded.
    CQxString& operator<<(int iValue);

    /// Numbers that an `int` cannot hold without loss are the caller's to convert.
    template <typename T>
    requires(std::is_floating_point_v<T> ||
        (std::is_integral_v<T> && sizeof(T) >= sizeof(int) && !std::is_same_v<T, int>)) CQxString&
    operator<<(T) = delete;

    /// The text with its terminating zero; owned by this object and valid until it is changed or destroyed.
    const char* ToCString() const noexcept { return m_sText.c_str(); }

    /// True when both texts have the same bytes.
    friend bool operator==(const CQxString& sLeft, const CQxString& sRight) noexcept
    {
        return sLeft.m_sText == sRight.m_sText;
    }

private:
    std::string m_sText;
};

/// Appends one part of a text: texts as they are, whole numbers in decimal, addresses as `printf` does with `%p`.
inline void AppendPart(CQxString& sText, const char* pcPart)
{
    sText << pcPart;
}
/// The same.
inline void AppendPart(CQxString& sText, const CQxString& sPart)
{
    sText << sPart;
}
/// The same.
QX_CORE_API void AppendPart(CQxString& sText, long long iPart);
/// The same.
QX_CORE_API void AppendPart(CQxString& sText, unsigned long long uPart);
/// The same.
QX_CORE_API void AppendPart(CQxString& sText, const void* pPart);
/// The same.
template <typename T>
requires(std::is_integral_v<T> && !std::is_same_v<T, bool> && !std::is_same_v<T, char>) void AppendPart(
    CQxString& sText, T iPart)
{
    AppendPart(sText, static_cast<std::conditional_t<std::is_signed_v<T>, long long, unsigned long long>>(iPart));
}

/// The text that its parts make one after the other: `MakeText("Block ", pMemory, " of ", nBytes, " bytes")`. Throws
/// `std::bad_alloc`.
/// @param xParts texts, null counting as empty, whole numbers of any width, addresses
template <typename... TParts>
CQxString MakeText(const TParts&... xParts)
{
    CQxString sText;
    (AppendPart(sText, xParts), ...);
    return sText;
}

} // namespace Qx
