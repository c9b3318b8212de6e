#pragma once

#include <cuda_runtime_api.h>

#include "Qx.Core.Ex/QxImage.h"
#include "Qx.Cuda/QxPoolBlock.h"

namespace Qx
{

/// An image in linear device memory, for kernels that address its pixels as one flat array.
///
/// The image is either empty (null device pointer, all-zero format) or valid: it then holds the bytes that its format
/// counts (`CQxImageFormat::GetExactByteCount`), row after row without gaps. The memory is borrowed from the pool of
/// the device that was current when the image was created (`GPU::CResourceManager`) and goes back to it in `Release`
/// and in the destructor.
///
/// Any format that takes from 1 to 2^32 - 1 bytes is accepted, three channels, "TwoComponent" and the packed and
/// integral data types among them.
///
/// Wrapping is narrower than that of the 2D image: only the uploads, the copy from another image and the allocation
/// wrap what fails in them; everything else arrives as it was thrown. Exceptions of other types than `CQxException`
/// always pass unchanged. One thread uses an image at a time, with the image's device current. Which calls wait, and
/// for what, is as with `CQxDeviceImage2D`.
class CQxDeviceImage1D
{
public:
    /// An empty image; makes no CUDA call.
    QX_CUDA_API CQxDeviceImage1D() noexcept;

    /// As `Create` of the format.
    QX_CUDA_API explicit CQxDeviceImage1D(const CQxImageFormat& xFormat);

    // A copy would own the same block twice; copying pixels is an operation that is asked for by name.
    CQxDeviceImage1D(const CQxDeviceImage1D&) = delete;
    CQxDeviceImage1D& operator=(const CQxDeviceImage1D&) = delete;

    /// Gives the memory back to the pool. A failure to do so is dropped.
    QX_CUDA_API ~CQxDeviceImage1D();

    /// Gives the image memory for a format. An image that has exactly this format already keeps memory and pixels, at
    /// no cost. Otherwise the present memory goes back to the pool first; new pixels are undefined.
    ///
    /// Throws, in this order:
    /// - what the format's size rules throw for its types, unwrapped,
    /// - a `CQxException` "Invalid image dimension", unwrapped, when the format takes no bytes, 2^32 or more, or has a
    ///   negative extent; the image is unchanged after these two,
    /// - what `Release` throws; the image is unchanged,
    /// - a `CQxException` "Error creating 1D Image" with, as inner exception, what the pool throws, such as a
    ///   `CQxOutOfMemoryException`; the image is empty.
    QX_CUDA_API void Create(const CQxImageFormat& xFormat);

    /// Creates the image for the format of @p xImage and uploads its pixels with one copy.
    ///
    /// Throws a `CQxException` "Error creating 1D Image" with, as inner exception, what `Create` of the format throws,
    /// or a `CQxCudaException` "Error copying memory from host to device"; after the latter the image keeps its new
    /// memory and format, its pixels are undefined.
    QX_CUDA_API void Create(const CQxImage& xImage);

    /// The same from an image behind the interface, of which `GetType`, `GetSize` and the reading `GetDataPtr` are
    /// called once each, in this order. The inner exception can also be "The source image pointer is null", tested
    /// first, or what the image's operations throw.
    QX_CUDA_API void Create(const Interop::Runtime28::IImage* pImage);

    /// Creates the image for the format of @p xSource and copies its pixels on the device. An image that is copied into
    /// itself is left alone.
    ///
    /// Throws a `CQxException` "Error creating 1D Image" with, as inner exception, what `Create` of the format throws
    /// ("Invalid image dimension" when @p xSource is empty), or a `CQxCudaException` "Error copying memory from device
    /// to device"; after the latter the image keeps its new memory and format, its pixels are undefined.
    QX_CUDA_API void Create(const CQxDeviceImage1D& xSource);

    /// Downloads the pixels with one copy and waits for them. @p xImage is created for this image's format unless it
    /// has it already.
    ///
    /// Throws, all unwrapped, a `CQxException` "Image is invalid" when this image is empty (@p xImage is untouched),
    /// what the host image's `Create` throws, or a `CQxCudaException` "Error copying memory from device to host"
    /// (@p xImage then keeps its new format, its pixels are undefined).
    QX_CUDA_API void CopyTo(CQxImage& xImage) const;

    /// Sets every byte to zero with the stream-less memset; on an empty image CUDA is asked to set nothing.
    ///
    /// Throws a `CQxCudaException` "Error zeroing CUDA device memory"; the pixels are undefined then.
    QX_CUDA_API void SetZero();

    /// The same, queued on the stream (null for the default stream); the image must live until the work is done. The
    /// message is "Error zeroing CUDA device memory asynchronously".
    QX_CUDA_API void SetZeroAsync(CUstream_st* pStream);

    /// Gives the memory back to the pool; the image is empty afterwards. The pool is called for an empty image too.
    ///
    /// Throws what the pool throws when it refuses the memory; the image is unchanged then.
    QX_CUDA_API void Release();

    /// True when the image holds memory.
    bool IsValid() const noexcept { return m_xBlock.IsHeld(); }

    /// The device address of the first pixel; null when empty. Stays owned by the image.
    void* GetDevicePointer() const noexcept { return m_xBlock->m_pDevice; }

    /// The format; all zero when empty.
    const CQxImageFormat& GetFormat() const noexcept { return m_xFormat; }

private:
    CQxImageFormat m_xFormat{};
    CQxPoolBlock<GPU::CCudaMemoryResource> m_xBlock;
};

} // namespace Qx
