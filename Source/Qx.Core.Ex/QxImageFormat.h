#pragma once

#include <cstdint>

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

namespace ImageFormatDetail
{

inline constexpr const char* c_pcFile = "Qx.Core.Ex/QxImageFormat";

} // namespace ImageFormatDetail

inline int CQxImageFormat::GetBytesPerChannel() const
{
    switch (eDataType)
    {
    case EDataType::Void:
        return 0;
    case EDataType::Byte:
    case EDataType::UByte:
        return 1;
    case EDataType::Short:
    case EDataType::UShort:
    case EDataType::Custom_10in16_LSB:
    case EDataType::Custom_10in16_MSB:
    case EDataType::Custom_12in16_LSB:
    case EDataType::Custom_12in16_MSB:
        return 2;
    case EDataType::Int:
    case EDataType::UInt:
    case EDataType::Float:
        return 4;
    case EDataType::Double:
        return 8;
    case EDataType::Packed10:
    case EDataType::Packed12:
    case EDataType::Integral10:
    case EDataType::Integral12:
        break;
    }
    Throw({ImageFormatDetail::c_pcFile, "GetBytesPerChannel"}, "Unknown data type '", GetDataTypeName(eDataType), "'");
}

inline int CQxImageFormat::GetComponentCount() const
{
    switch (ePixelType)
    {
    case EPixelType::None:
        return 0;
    case EPixelType::Lum:
    case EPixelType::BayerRG:
    case EPixelType::BayerBG:
    case EPixelType::BayerGR:
    case EPixelType::BayerGB:
        return 1;
    case EPixelType::LumA:
    case EPixelType::TwoComponent:
        return 2;
    case EPixelType::RGB:
    case EPixelType::BGR:
        return 3;
    case EPixelType::RGBA:
    case EPixelType::BGRA:
        return 4;
    }
    Throw({ImageFormatDetail::c_pcFile, "GetComponentCount"}, "Unknown pixel type");
}

inline int CQxImageFormat::GetBytesPerPixel() const
{
    if (eDataType == EDataType::Integral10 || eDataType == EDataType::Integral12)
    {
        Throw({ImageFormatDetail::c_pcFile, "GetBytesPerPixel"},
            "Unable to determine bytes per pixel from integral data formats");
    }
    const int iBytesPerChannel = GetBytesPerChannel();
    return iBytesPerChannel * GetComponentCount();
}

inline std::uint64_t CQxImageFormat::GetExactByteCount() const
{
    // All rules are n pixels times a whole number of bits, at most 2^62 times 256.
    std::uint64_t uBitsPerPixel = 0;
    switch (eDataType)
    {
    case EDataType::Integral10:
        uBitsPerPixel = 10;
        break;
    case EDataType::Integral12:
        uBitsPerPixel = 12;
        break;
    case EDataType::Packed10:
        uBitsPerPixel = static_cast<std::uint64_t>(GetComponentCount()) * 10;
        break;
    case EDataType::Packed12:
        uBitsPerPixel = static_cast<std::uint64_t>(GetComponentCount()) * 12;
        break;
    default:
        uBitsPerPixel = static_cast<std::uint64_t>(GetBytesPerPixel()) * 8;
        break;
    }
    if (iWidth < 0 || iHeight < 0)
    {
        return UINT64_MAX;
    }
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
    const std::uint32_t uPixels = static_cast<std::uint32_t>(iWidth) * static_cast<std::uint32_t>(iHeight);
    switch (eDataType)
    {
    // The 64-bit step in between makes a product beyond 32 bits wrap on every processor; converting it straight to
    // 32 bits would be undefined.
    case EDataType::Integral10:
        return static_cast<std::uint32_t>(static_cast<std::uint64_t>(uPixels * 1.25));
    case EDataType::Integral12:
        return static_cast<std::uint32_t>(static_cast<std::uint64_t>(uPixels * 1.5));
    case EDataType::Packed10:
        return uPixels * static_cast<std::uint32_t>(GetComponentCount()) * 10U / 8U;
    case EDataType::Packed12:
        return uPixels * static_cast<std::uint32_t>(GetComponentCount()) * 12U / 8U;
    default:
        return uPixels * static_cast<std::uint32_t>(GetBytesPerPixel());
    }
}

} // namespace Qx
