#pragma once

#include <cstdint>
#include <iosfwd>

#include "Qx.Core/QxException.h"

/// Image types and the interface of images, whose layout is part of the binary interface. `Qx` has their names too.
namespace Qx::Interop::Runtime28
{

/// How one channel of a pixel is stored. The values of the standard types are those of the OpenGL enumerants of the
/// same meaning.
struct EDataType
{
    /// The data types.
    enum ID : std::uint32_t
    {
        Void = 0,
        Custom_10in16_LSB = 10, ///< 10 significant bits in the low end of 16
        Custom_10in16_MSB = 11, ///< 10 significant bits in the high end of 16
        Custom_12in16_LSB = 12, ///< 12 significant bits in the low end of 16
        Custom_12in16_MSB = 13, ///< 12 significant bits in the high end of 16
        Packed10 = 14,          ///< 10 bits a channel without gaps; has no bytes per channel and no display name
        Packed12 = 15,          ///< 12 bits a channel without gaps; has no bytes per channel and no display name
        Byte = 0x1400,          ///< signed 8 bits
        UByte = 0x1401,
        Short = 0x1402, ///< signed 16 bits
        UShort = 0x1403,
        Int = 0x1404, ///< signed 32 bits
        UInt = 0x1405,
        Float = 0x1406,
        Double = 0x140A,
        Integral10 = 0x1410, ///< 1.25 bytes a pixel over the whole image; has no display name
        Integral12 = 0x1411  ///< 1.5 bytes a pixel over the whole image; has no display name
    };
};

/// Which channels a pixel has. The values of the standard types are those of the OpenGL enumerants of the same
/// meaning.
struct EPixelType
{
    /// The pixel types.
    enum ID : std::uint32_t
    {
        None = 0,
        RGB = 0x1907,
        RGBA = 0x1908,
        Lum = 0x1909,
        LumA = 0x190A,
        BayerRG = 0x2001,
        BayerBG = 0x2002,
        BayerGR = 0x2003,
        BayerGB = 0x2004,
        BGR = 0x80E0,
        BGRA = 0x80E1,
        TwoComponent = 0x8757 ///< two channels without a meaning of their own; has no display name
    };
};

} // namespace Qx::Interop::Runtime28

namespace Qx
{

using Interop::Runtime28::EDataType;
using Interop::Runtime28::EPixelType;

/// What the data and pixel types are: the one place to add a type to.
namespace ImageFormatDetail
{

/// Where the bytes of a channel are. `Unknown` is for values that are no data type.
enum class ELayout
{
    Bytes,    ///< whole bytes a channel
    Packed,   ///< channels without gaps, over the whole image
    Integral, ///< the same, but counted by pixels whatever their channels
    Unknown
};

/// How a device reads a channel, with CUDA's values; `None` where it cannot.
enum class EChannelKind
{
    Signed,
    Unsigned,
    Float,
    None
};

/// One data type.
struct SDataType
{
    const char* pcName;
    ELayout eLayout;
    int iBits; ///< of a channel; of a pixel when integral
    EChannelKind eKind;
};

/// One pixel type.
struct SPixelType
{
    const char* pcName;
    int iChannels;          ///< -1 for values that are no pixel type
    bool bHasChannelFormat; ///< CUDA has a channel format for it
};

// A switch and not an array: it folds into the code that asks, and the compiler misses a row for a new type.
// clang-format off
constexpr SDataType GetDataType(EDataType::ID eDataType) noexcept
{
    switch (eDataType)
    {
    case EDataType::Void:              return {"Void",              ELayout::Bytes,     0, EChannelKind::None};
    case EDataType::Byte:              return {"Byte",              ELayout::Bytes,     8, EChannelKind::Signed};
    case EDataType::UByte:             return {"UByte",             ELayout::Bytes,     8, EChannelKind::Unsigned};
    case EDataType::Short:             return {"Short",             ELayout::Bytes,    16, EChannelKind::Signed};
    case EDataType::UShort:            return {"UShort",            ELayout::Bytes,    16, EChannelKind::Unsigned};
    case EDataType::Int:               return {"Int",               ELayout::Bytes,    32, EChannelKind::Signed};
    case EDataType::UInt:              return {"UInt",              ELayout::Bytes,    32, EChannelKind::Unsigned};
    case EDataType::Float:             return {"Float",             ELayout::Bytes,    32, EChannelKind::Float};
    case EDataType::Double:            return {"Double",            ELayout::Bytes,    64, EChannelKind::Float};
    case EDataType::Custom_10in16_LSB: return {"Custom_10in16_LSB", ELayout::Bytes,    16, EChannelKind::Unsigned};
    case EDataType::Custom_10in16_MSB: return {"Custom_10in16_MSB", ELayout::Bytes,    16, EChannelKind::Unsigned};
    case EDataType::Custom_12in16_LSB: return {"Custom_12in16_LSB", ELayout::Bytes,    16, EChannelKind::Unsigned};
    case EDataType::Custom_12in16_MSB: return {"Custom_12in16_MSB", ELayout::Bytes,    16, EChannelKind::Unsigned};
    case EDataType::Packed10:          return {"Unknown",           ELayout::Packed,   10, EChannelKind::None};
    case EDataType::Packed12:          return {"Unknown",           ELayout::Packed,   12, EChannelKind::None};
    case EDataType::Integral10:        return {"Unknown",           ELayout::Integral, 10, EChannelKind::None};
    case EDataType::Integral12:        return {"Unknown",           ELayout::Integral, 12, EChannelKind::None};
    }
    return {"Unknown", ELayout::Unknown, 0, EChannelKind::None};
}

constexpr SPixelType GetPixelType(EPixelType::ID ePixelType) noexcept
{
    switch (ePixelType)
    {
    case EPixelType::None:         return {"None",    0, false};
    case EPixelType::RGB:          return {"RGB",     3, true};
    case EPixelType::RGBA:         return {"RGBA",    4, true};
    case EPixelType::Lum:          return {"Lum",     1, true};
    case EPixelType::LumA:         return {"LumA",    2, true};
    case EPixelType::BayerRG:      return {"BayerRG", 1, true};
    case EPixelType::BayerBG:      return {"BayerBG", 1, true};
    case EPixelType::BayerGR:      return {"BayerGR", 1, true};
    case EPixelType::BayerGB:      return {"BayerGB", 1, true};
    case EPixelType::BGR:          return {"BGR",     3, true};
    case EPixelType::BGRA:         return {"BGRA",    4, true};
    case EPixelType::TwoComponent: return {"Unknown", 2, false};
    }
    return {"Unknown", -1, false};
}
// clang-format on

} // namespace ImageFormatDetail

/// The display name of a data type, as messages show it; "Unknown" for an identifier without one.
QX_CORE_API const char* GetDataTypeName(EDataType::ID eDataType) noexcept;

/// The display name of a pixel type, as messages show it; "Unknown" for an identifier without one.
QX_CORE_API const char* GetPixelTypeName(EPixelType::ID ePixelType) noexcept;

/// The format of an image: its extent in pixels, how a channel is stored and which channels a pixel has.
///
/// A plain value of 16 bytes that kernels read too. It is trivially default constructible, because records that
/// contain it are declared in constant device memory, where nvcc accepts no initialiser: write `CQxImageFormat{}` for
/// the all-zero format.
struct CQxImageFormat
{
    std::int32_t iWidth;       ///< pixels a row
    std::int32_t iHeight;      ///< rows
    EDataType::ID eDataType;   ///< how a channel is stored
    EPixelType::ID ePixelType; ///< which channels a pixel has

    CQxImageFormat() = default;

    /// Any values are accepted here; operations that need an image of the format check them.
    constexpr CQxImageFormat(std::int32_t iFormatWidth, std::int32_t iFormatHeight, EDataType::ID eFormatDataType,
        EPixelType::ID eFormatPixelType) noexcept
        : iWidth(iFormatWidth), iHeight(iFormatHeight), eDataType(eFormatDataType), ePixelType(eFormatPixelType)
    {
    }

    /// True when all four fields agree.
    friend constexpr bool operator==(const CQxImageFormat&, const CQxImageFormat&) noexcept = default;

    /// Bytes of one channel: 0 for "Void". Throws a `CQxException` "Unknown data type '...'" for the packed and
    /// integral types and for values that are no data type.
    int GetBytesPerChannel() const;

    /// Channels of one pixel: 0 for "None". Throws a `CQxException` "Unknown pixel type" for values that are no pixel
    /// type.
    int GetComponentCount() const;

    /// Bytes of one pixel, the product of the two above. Throws a `CQxException`: "Unable to determine bytes per pixel
    /// from integral data formats" for the integral data types, then what `GetBytesPerChannel` throws, then what
    /// `GetComponentCount` throws.
    int GetBytesPerPixel() const;

    /// Bytes of the whole image without row padding, in unsigned 32-bit arithmetic: a count beyond 32 bits wraps, in
    /// the intermediate products too, so memory must not be sized by it unchecked.
    ///
    /// The packed data types take 10 or 12 bits a channel, rounded down to whole bytes over the image; the integral
    /// ones 1.25 or 1.5 bytes a pixel whatever the pixel type. Throws what `GetComponentCount` throws for the packed
    /// types, nothing for the integral ones and what `GetBytesPerPixel` throws for all others.
    std::uint32_t GetByteCount() const;

    /// The same count without wrapping, to size memory by: all ones for a negative extent and for a count beyond 64
    /// bits. Throws what `GetByteCount` throws.
    std::uint64_t GetExactByteCount() const;
};

static_assert(sizeof(CQxImageFormat) == 16 && std::is_trivially_default_constructible_v<CQxImageFormat> &&
    std::is_trivially_copyable_v<CQxImageFormat>);

/// The format as messages show it: "640 x 480 'RGBA' 'UByte'".
QX_CORE_API CQxString ToText(const CQxImageFormat& xFormat);

/// Writes what `ToText` returns.
QX_CORE_API std::ostream& operator<<(std::ostream& xStream, const CQxImageFormat& xFormat);

inline int CQxImageFormat::GetBytesPerChannel() const
{
    const ImageFormatDetail::SDataType xType = ImageFormatDetail::GetDataType(eDataType);
    if (xType.eLayout != ImageFormatDetail::ELayout::Bytes)
    {
        Throw({"Qx.Core.Ex/QxImageFormat", "GetBytesPerChannel"}, "Unknown data type '", xType.pcName, "'");
    }
    return xType.iBits / 8;
}

inline int CQxImageFormat::GetComponentCount() const
{
    const int iChannels = ImageFormatDetail::GetPixelType(ePixelType).iChannels;
    if (iChannels < 0)
    {
        Throw({"Qx.Core.Ex/QxImageFormat", "GetComponentCount"}, "Unknown pixel type");
    }
    return iChannels;
}

inline int CQxImageFormat::GetBytesPerPixel() const
{
    if (ImageFormatDetail::GetDataType(eDataType).eLayout == ImageFormatDetail::ELayout::Integral)
    {
        Throw({"Qx.Core.Ex/QxImageFormat", "GetBytesPerPixel"},
            "Unable to determine bytes per pixel from integral data formats");
    }
    const int iBytesPerChannel = GetBytesPerChannel();
    return iBytesPerChannel * GetComponentCount();
}

inline std::uint64_t CQxImageFormat::GetExactByteCount() const
{
    // All rules are n pixels times a whole number of bits, at most 2^62 times 256.
    const ImageFormatDetail::SDataType xType = ImageFormatDetail::GetDataType(eDataType);
    int iBitsPerPixel = xType.iBits;
    if (xType.eLayout != ImageFormatDetail::ELayout::Integral)
    {
        const bool bPacked = xType.eLayout == ImageFormatDetail::ELayout::Packed;
        iBitsPerPixel = bPacked ? GetComponentCount() * xType.iBits : GetBytesPerPixel() * 8;
    }
    if (iWidth < 0 || iHeight < 0)
    {
        return UINT64_MAX;
    }
    const auto uBitsPerPixel = static_cast<std::uint64_t>(iBitsPerPixel);
    const std::uint64_t uPixels = static_cast<std::uint64_t>(iWidth) * static_cast<std::uint64_t>(iHeight);
    // Whole groups of eight pixels take uBitsPerPixel bytes each; the rest cannot overflow.
    std::uint64_t uBytes = 0;
    if (__builtin_mul_overflow(uPixels / 8, uBitsPerPixel, &uBytes) ||
        __builtin_add_overflow(uBytes, uPixels % 8 * uBitsPerPixel / 8, &uBytes))
    {
        return UINT64_MAX;
    }
    return uBytes;
}

inline std::uint32_t CQxImageFormat::GetByteCount() const
{
    const ImageFormatDetail::SDataType xType = ImageFormatDetail::GetDataType(eDataType);
    const auto uBits = static_cast<std::uint32_t>(xType.iBits);
    const std::uint32_t uPixels = static_cast<std::uint32_t>(iWidth) * static_cast<std::uint32_t>(iHeight);
    if (xType.eLayout == ImageFormatDetail::ELayout::Integral)
    {
        return static_cast<std::uint32_t>(std::uint64_t{uPixels} * uBits / 8U);
    }
    if (xType.eLayout == ImageFormatDetail::ELayout::Packed)
    {
        return uPixels * static_cast<std::uint32_t>(GetComponentCount()) * uBits / 8U;
    }
    return uPixels * static_cast<std::uint32_t>(GetBytesPerPixel());
}

} // namespace Qx
