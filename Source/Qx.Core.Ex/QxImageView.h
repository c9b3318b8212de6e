#pragma once

#include "Qx.Core.Ex/QxImage.h"

namespace Qx
{

/// Host memory that somebody else owns, as an image: for uploads from and downloads into a buffer that a client already
/// has, without a copy. The memory must hold packed rows and outlive the view; it is neither copied nor freed. Views
/// are copied freely, all of them onto the same memory.
class QX_EXPORT_TYPE CQxImageView final : public CQxFormattedImage
{
public:
    /// A view of @p pPixels, which holds as many bytes as `GetPackedByteCount` counts for the format.
    ///
    /// Throws what `GetPackedByteCount` throws, then a `CQxException` "The pixel pointer is null" when the format has
    /// bytes.
    QX_CORE_API CQxImageView(const CQxImageFormat& xFormat, void* pPixels);

    /// The same for memory that is only read; the writable `GetDataPtr` of the view throws.
    QX_CORE_API CQxImageView(const CQxImageFormat& xFormat, const void* pPixels);

    /// The same for the literal `nullptr`, which would fit both: only formats without bytes are accepted.
    CQxImageView(const CQxImageFormat& xFormat, std::nullptr_t) : CQxImageView(xFormat, static_cast<void*>(nullptr)) {}

    /// Returns true for the format that the view has. It cannot get another one: throws a `CQxException` "An image view
    /// cannot change its format from ... to ..." that names both, and stays as it was.
    QX_CORE_API bool Create(int iWidth, int iHeight, EPixelType::ID ePixelType, EDataType::ID eDataType) override;

    /// The memory for writing. Throws a `CQxException` "The image view is read-only" when it was given for reading.
    QX_CORE_API void* GetDataPtr() override;

    /// The memory for reading.
    const void* GetDataPtr() const override { return m_pPixels; }

private:
    const void* m_pPixels;
    void* m_pWritable; ///< the same memory, or null when it is read-only
};

} // namespace Qx
