#pragma once

#include <cstddef>

#include "Qx.Core.Ex/QxImageFormat.h"

namespace Qx::Interop::Runtime28
{

/// A host image as it crosses library boundaries. Rows are packed: each starts where the one before ends.
///
/// The order of the virtual operations is part of the binary interface. The seven reserved ones are never called here;
/// an implementation leaves them alone. The interface has no public destructor: an image is destroyed by whoever made
/// it.
class QX_EXPORT_TYPE IImage
{
public:
    /// Gives the image an extent in pixels, a pixel type and a data type (mind the order of the two), and a buffer for
    /// them. Returns true on success; callers of this library do not look at the result, so a failure that must stop
    /// them has to be thrown.
    virtual bool Create(int iWidth, int iHeight, EPixelType::ID ePixelType, EDataType::ID eDataType) = 0;

    QX_CORE_API virtual void Reserved1(); ///< not called
    virtual void Reserved2() {}           ///< not called
    virtual void Reserved3() {}           ///< not called
    virtual void Reserved4() {}           ///< not called
    virtual void Reserved5() {}           ///< not called
    virtual void Reserved6() {}           ///< not called
    virtual void Reserved7() {}           ///< not called

    /// Width and height in pixels.
    virtual void GetSize(int& iWidth, int& iHeight) const = 0;

    /// Pixel type and data type (mind the order).
    virtual void GetType(EPixelType::ID& ePixelType, EDataType::ID& eDataType) const = 0;

    /// The first byte of the first row, writable; owned by the image and valid until its next `Create`.
    virtual void* GetDataPtr() = 0;

    /// The same for reading.
    virtual const void* GetDataPtr() const = 0;

protected:
    IImage() = default;
    IImage(const IImage&) = default;
    IImage& operator=(const IImage&) = default;
    ~IImage() = default;
};

} // namespace Qx::Interop::Runtime28

namespace Qx
{

using Interop::Runtime28::IImage;

/// The format that an image reports, by one call each of `GetType` and `GetSize`, in this order.
inline CQxImageFormat GetImageFormat(const IImage& xImage)
{
    CQxImageFormat xFormat{};
    xImage.GetType(xFormat.ePixelType, xFormat.eDataType);
    xImage.GetSize(xFormat.iWidth, xFormat.iHeight);
    return xFormat;
}

/// Bytes of a host buffer of packed rows for a format.
///
/// Throws, with @p xSite as the place, a `CQxException` "Image dimensions are negative", what the format's size rules
/// throw for its types, and a `CQxException` "Image is too large" when the count does not fit the address space.
QX_CORE_API std::size_t GetPackedByteCount(const CQxImageFormat& xFormat, const SThrowSite& xSite);

/// An image that keeps its format: what all images of this library have in common.
class QX_EXPORT_TYPE CQxFormattedImage : public IImage
{
public:
    /// Width and height of the format.
    QX_CORE_API void GetSize(int& iWidth, int& iHeight) const override;

    /// Pixel type and data type of the format.
    QX_CORE_API void GetType(EPixelType::ID& ePixelType, EDataType::ID& eDataType) const override;

    /// The format; all zero when empty.
    const CQxImageFormat& GetFormat() const noexcept { return m_xFormat; }

protected:
    /// An empty image.
    CQxFormattedImage() = default;
    /// An image that begins with a format.
    explicit CQxFormattedImage(const CQxImageFormat& xFormat) noexcept : m_xFormat(xFormat) {}
    CQxFormattedImage(const CQxFormattedImage&) = default;
    CQxFormattedImage& operator=(const CQxFormattedImage&) = default;
    ~CQxFormattedImage() = default;

    CQxImageFormat m_xFormat{}; ///< set by the derived class together with the memory
};

/// A host image: a format and a buffer of packed pixel rows that it owns. One thread uses it at a time.
class QX_EXPORT_TYPE CQxImage : public CQxFormattedImage
{
public:
    /// An empty image: all-zero format, no buffer.
    CQxImage() noexcept = default;

    /// As `Create` of the format.
    QX_CORE_API explicit CQxImage(const CQxImageFormat& xFormat);

    /// A copy with a buffer of its own. Throws `std::bad_alloc` when there is no memory for it.
    QX_CORE_API CQxImage(const CQxImage& xOther);
    /// Takes the buffer over; @p xOther is empty afterwards.
    QX_CORE_API CQxImage(CQxImage&& xOther) noexcept;
    /// Copies or moves, depending on the argument; a failed copy leaves this image as it was.
    QX_CORE_API CQxImage& operator=(CQxImage xOther) noexcept;
    QX_CORE_API virtual ~CQxImage();

    /// Gives the image the format and a packed buffer for it; an image that has the format already keeps its buffer
    /// and pixels. New pixels are zero.
    ///
    /// Throws what `GetPackedByteCount` throws, and `std::bad_alloc`. The image is unchanged after a failure. An extent
    /// of zero is legal and has no bytes.
    QX_CORE_API void Create(const CQxImageFormat& xFormat);

    /// The same through the interface; always returns true.
    QX_CORE_API bool Create(int iWidth, int iHeight, EPixelType::ID ePixelType, EDataType::ID eDataType) override;

    void* GetDataPtr() override { return m_pData; }
    const void* GetDataPtr() const override { return m_pData; }

    /// Bytes of the buffer: what the format takes, counted in 64 bits.
    std::size_t GetBufferSize() const noexcept { return m_nBytes; }

private:
    unsigned char* m_pData = nullptr;
    std::size_t m_nBytes = 0;
};

} // namespace Qx
