#pragma once

#include <version>

// Kernels' files are left alone: not every nvcc reads this part of the standard library.
#if defined(__cpp_lib_format) && !defined(__CUDACC__)

#include <concepts>
#include <format>
#include <string_view>

#include "Qx.Core.Ex/QxImageFormat.h"
#include "Qx.Core/QxException.h"

/// Formats what `ToText` returns, as a text: `std::format("{:>40}", xImage.GetFormat())`.
template <>
struct std::formatter<Qx::CQxImageFormat> : std::formatter<std::string_view>
{
    template <typename TContext>
    auto format(const Qx::CQxImageFormat& xFormat, TContext& xContext) const
    {
        return std::formatter<std::string_view>::format(Qx::ToText(xFormat).ToCString(), xContext);
    }
};

/// Formats what `what` returns, as a text.
template <std::derived_from<Qx::CQxException> TException>
struct std::formatter<TException> : std::formatter<std::string_view>
{
    template <typename TContext>
    auto format(const TException& xException, TContext& xContext) const
    {
        return std::formatter<std::string_view>::format(xException.what(), xContext);
    }
};

#endif
