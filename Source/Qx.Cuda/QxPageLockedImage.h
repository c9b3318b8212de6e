#pragma once

#include "Qx.Core.Ex/QxImage.h"
#include "Qx.Cuda/QxPoolBlock.h"

namespace Qx
{

/// A host image in page-locked memory, which the device copies to and from by itself: only with such memory does a
/// queued transfer run while the host goes on and while kernels run, and only then does it reach the link's full rate.
///
/// The memory comes from the pool of page-locked memory of the device that was current (`GPU::CResourceManager`) and
/// goes back to it, so that images of the same size cost no allocation. It is scarce: use it for the few images that
/// are being transferred. Rows are packed, and the host reads and writes them like any other memory.
///
/// An image must stay alive and keep its format until the transfers that were queued with it are done; giving its
/// memory back does not wait for them. One thread uses an image at a time.
class QX_EXPORT_TYPE CQxPageLockedImage final : public CQxFormattedImage
{
public:
    /// An empty image: all-zero format, no memory; makes no CUDA call.
    QX_CUDA_API CQxPageLockedImage() noexcept;

    /// As `Create` of the format.
    QX_CUDA_API explicit CQxPageLockedImage(const CQxImageFormat& xFormat);

    /// Takes the memory of @p xOther over, which is empty afterwards.
    QX_CUDA_API CQxPageLockedImage(CQxPageLockedImage&& xOther) noexcept;

    /// The same; this image's own memory goes back to the pool. A failure to do so is dropped. An image that is moved
    /// into itself is left alone.
    QX_CUDA_API CQxPageLockedImage& operator=(CQxPageLockedImage&& xOther) noexcept;

    // A copy would own the same memory twice.
    CQxPageLockedImage(const CQxPageLockedImage&) = delete;
    CQxPageLockedImage& operator=(const CQxPageLockedImage&) = delete;

    /// Gives the memory back to the pool. A failure to do so is dropped.
    QX_CUDA_API ~CQxPageLockedImage();

    /// Gives the image the format and packed memory for it; an image that has the format already keeps its memory and
    /// pixels, at no cost. Otherwise the present memory goes back to the pool first; new pixels are undefined. An
    /// extent of zero is legal and takes no memory.
    ///
    /// Throws a `CQxException` "Error creating page-locked image" with, as inner exception, what `GetPackedByteCount`
    /// throws (the image is unchanged), what `Release` throws (the image is unchanged), or what the pool throws, such
    /// as a `CQxOutOfMemoryException` (the image is empty).
    QX_CUDA_API void Create(const CQxImageFormat& xFormat);

    /// The same through the interface; always returns true.
    QX_CUDA_API bool Create(int iWidth, int iHeight, EPixelType::ID ePixelType, EDataType::ID eDataType) override;

    /// Gives the memory back to the pool; the image is empty afterwards.
    ///
    /// Throws what the pool throws when it refuses the memory; the image is unchanged then.
    QX_CUDA_API void Release();

    void* GetDataPtr() override { return m_xBlock->m_pDevice; }
    const void* GetDataPtr() const override { return m_xBlock->m_pDevice; }

    /// Bytes of the pixels: what the format takes, counted in 64 bits.
    std::size_t GetBufferSize() const noexcept { return m_nBytes; }

private:
    std::size_t m_nBytes = 0;
    CQxPoolBlock<GPU::CCudaMemoryResource> m_xBlock;
};

} // namespace Qx
