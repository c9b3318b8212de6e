#pragma once

#include <cuda_runtime_api.h>

#include "Qx.Core.Ex/QxImage.h"
#include "Qx.Cuda/QxDeviceImageDesc2D.h"
#include "Qx.Cuda/QxPoolBlock.h"

namespace Qx
{

class CQxDeviceImage1D;

/// A two-dimensional image in pitched device memory.
///
/// The image is either empty (null device pointer, all-zero format) or valid: it then holds `height` rows of at least
/// width x bytes per pixel bytes, row r starting at device pointer + r x pitch. The bytes between the end of a row and
/// the next row are never read or written. The memory is borrowed from the pool of the device that was current when the
/// image was created (`GPU::CResourceManager`) and goes back to it in `Release` and in the destructor.
///
/// Formats that an image can have: at least one pixel wide and high, rows of less than 2^31 bytes, a pixel type of one,
/// two or four channels (Lum, LumA, RGBA, BGRA and the Bayer types) and a data type that CUDA knows a channel format
/// for (Byte, UByte, Short, UShort, Int, UInt, Float, Double and the four Custom types).
///
/// Every failure is a `CQxException` chain; an exception of another type that a component throws, such as
/// `std::bad_alloc`, passes unchanged. One thread uses an image at a time, with the image's device current. Operations
/// whose names end in Async queue their work on the stream and return. The others use the CUDA calls without a stream,
/// which are in order with the default stream and all streams but those created `cudaStreamNonBlocking`. A download
/// returns when the pixels are there, an upload when the source may be used again, a copy on the device or `SetZero`
/// possibly earlier; so before work on a non-blocking stream that needs the pixels, or that may be lent the memory of a
/// released source, comes `cudaStreamSynchronize(nullptr)`.
///
/// What a queued transfer needs: until the stream has reached it, both images stay alive and keep their format, the
/// source's pixels are not written and the target's are not touched. It is the caller who synchronises. The transfer
/// overlaps with the host's and the device's other work when the host image is page-locked (`CQxPageLockedImage`); from
/// and to ordinary memory it is as correct, but CUDA may make the call wait. Giving an image's memory back, by
/// `Release`, the destructor or `Create` of another format, does not wait for queued work either. A transfer that is
/// captured into a graph keeps the addresses: both images must outlive the graph with their formats.
///
/// Moving from an empty image throws, so what moves its elements, such as `std::vector` when it grows or `std::swap`,
/// loses images when one of them is empty. Keep images that may be empty in a `std::deque` or behind pointers.
class CQxDeviceImage2D
{
public:
    /// An empty image; makes no CUDA call.
    QX_CUDA_API CQxDeviceImage2D() noexcept;

    /// As `Create` of the format.
    QX_CUDA_API explicit CQxDeviceImage2D(const CQxImageFormat& xFormat);

    /// As `Create` of the host image.
    QX_CUDA_API explicit CQxDeviceImage2D(const CQxImage& xImage);

    /// As `Create` of the other image, so moving from an empty image throws.
    QX_CUDA_API CQxDeviceImage2D(CQxDeviceImage2D&& xSource);

    /// As `Create` of the other image, so moving from an empty image throws.
    QX_CUDA_API CQxDeviceImage2D& operator=(CQxDeviceImage2D&& xSource);

    // A copy would own the same block twice; copying pixels is an operation that is asked for by name.
    CQxDeviceImage2D(const CQxDeviceImage2D&) = delete;
    CQxDeviceImage2D& operator=(const CQxDeviceImage2D&) = delete;

    /// Gives the memory back to the pool. A failure to do so is dropped.
    QX_CUDA_API ~CQxDeviceImage2D();

    /// Gives the image memory for a format. An image that has exactly this format already keeps memory, pitch and
    /// pixels, at no cost. Otherwise the present memory goes back to the pool first; new pixels are undefined.
    ///
    /// Throws a `CQxException` "Error creating 2D CUDA device image" with, as inner exception and in this order:
    /// - "Width or height of given image format is 0" when one of them is 0 or negative,
    /// - "Only 1, 2 or 4 channels per pixel are allowed" for RGB and BGR,
    /// - "Unknown pixel type" for a value that is no pixel type; the image is unchanged after these three,
    /// - "Error destroying 2D CUDA device image" when the pool refuses the old memory; the image is unchanged,
    /// - "Unsupported data type '...'" or "Unsupported pixel type '...'" when there is no CUDA channel format,
    /// - "Image row of ... bytes is too wide" when a row has 2^31 bytes or more,
    /// - what the pool throws, such as a `CQxOutOfMemoryException`; the image is empty after these three.
    QX_CUDA_API void Create(const CQxImageFormat& xFormat);

    /// Takes over the memory of @p xSource, which is empty afterwards; this image's own memory goes back to the pool.
    /// An image that is moved into itself ends empty.
    ///
    /// Throws a `CQxException` "Error creating 2D CUDA device image" with the inner exception "Given image is invalid"
    /// when @p xSource is empty, or "Error destroying 2D CUDA device image" when the pool refuses this image's memory.
    /// Both images are unchanged then.
    QX_CUDA_API void Create(CQxDeviceImage2D&& xSource);

    /// Creates the image for the format of @p xImage and uploads its pixels with one 2D copy.
    ///
    /// Throws a `CQxException` "Error creating 2D CUDA device image" with, as inner exception, what `Create` of the
    /// format throws (so that message stands twice in the chain), or a `CQxCudaException` "Error copying image to cuda
    /// device"; after the latter the image keeps its new memory and format, its pixels are undefined.
    QX_CUDA_API void Create(const CQxImage& xImage);

    /// The same from a buffer of packed rows (height x width x bytes per pixel bytes).
    /// @param xFormat the format of the buffer
    /// @param pPixels its first byte; passed to CUDA unchecked. Not the pixels of a 2D image, whose rows are not
    /// packed,
    ///     and nothing in this image's own memory, which may have gone back to the pool before the copy
    /// @param bDevicePointer true when @p pPixels is device memory, false when it is host memory
    QX_CUDA_API void Create(const CQxImageFormat& xFormat, const void* pPixels, bool bDevicePointer);

    /// The same from an image behind the interface, of which `GetType`, `GetSize` and the reading `GetDataPtr` are
    /// called once each, in this order. The inner exception can also be "The source image pointer is null", tested
    /// first, or what the image's operations throw.
    QX_CUDA_API void Create(const Interop::Runtime28::IImage* pImage);

    /// The same, queued on the stream (null for the default stream): the pixels are there when the stream has reached
    /// the copy.
    QX_CUDA_API void CreateAsync(const Interop::Runtime28::IImage* pImage, CUstream_st* pStream);

    /// Creates the image for the format of @p xSource and copies its pixels with one 2D copy on the device. An image
    /// that is copied into itself is left alone.
    ///
    /// Throws a `CQxException` "Error creating 2D CUDA device image" with, as inner exception, "Given image is invalid"
    /// when @p xSource is empty (this image is unchanged), what `Create` of the format throws, or a `CQxCudaException`
    /// "Error creating image on cuda device"; after the latter the image keeps its new memory and format, its pixels
    /// are undefined.
    QX_CUDA_API void Create(const CQxDeviceImage2D& xSource);

    /// The same from an image in linear memory. An empty @p xSource is refused by `Create` of its format; the message
    /// of a failed copy is "Error copying image to cuda device".
    QX_CUDA_API void Create(const CQxDeviceImage1D& xSource);

    /// Downloads the pixels with one 2D copy and waits for them. @p xImage is created for this image's format unless it
    /// has it already.
    ///
    /// Throws a `CQxException` "Error copying to host image" with, as inner exception, "Image is invalid" when this
    /// image is empty (@p xImage is untouched), what the host image's `Create` throws, or a `CQxCudaException` "Error
    /// copying image to host" (@p xImage then keeps its new format, its pixels are undefined).
    QX_CUDA_API void CopyTo(CQxImage& xImage) const;

    /// The same into an image behind the interface. Its `GetType` and `GetSize` are called once each, in this order;
    /// then its `Create`, only when its format differs, with this image's width, height, pixel type and data type; then
    /// its writable `GetDataPtr`. The result of its `Create` is not looked at: the image must have the format
    /// afterwards, or throw.
    ///
    /// The inner exception can also be "The target image pointer is null", tested after "Image is invalid", or what the
    /// image's operations throw.
    QX_CUDA_API void CopyTo(Interop::Runtime28::IImage* pImage) const;

    /// The same, queued on the stream (null for the default stream): the pixels are there when the stream has reached
    /// the copy. @p pImage is created for the format during the call.
    QX_CUDA_API void CopyToAsync(Interop::Runtime28::IImage* pImage, CUstream_st* pStream) const;

    /// `Create` of @p xTarget from this image, with the states that it leaves. Throws what that throws inside a
    /// `CQxException` "Error copying 2D CUDA device image".
    QX_CUDA_API void CopyTo(CQxDeviceImage2D& xTarget) const;

    /// Creates the image in linear memory for this image's format and copies the pixels with one 2D copy on the device;
    /// the padding between rows is left out.
    ///
    /// Throws a `CQxException` "Error copying 2D CUDA device image to 1D CUDA device image" with, as inner exception,
    /// "Image is invalid" when this image is empty (@p xTarget is untouched), what `Create` of the 1D image throws
    /// (@p xTarget is as that leaves it: unchanged, or empty when there was no memory for the new format), or a
    /// `CQxCudaException` "Error copying image to cuda device" (@p xTarget then keeps its new memory and format, its
    /// pixels are undefined).
    QX_CUDA_API void CopyTo(CQxDeviceImage1D& xTarget) const;

    /// Gives the memory back to the pool; an empty image is left alone.
    ///
    /// Throws a `CQxException` "Error destroying 2D CUDA device image" with the pool's exception inside when the pool
    /// refuses it; the image is unchanged then.
    QX_CUDA_API void Release();

    /// True when the image holds memory.
    bool IsValid() const noexcept { return m_xBlock.IsHeld(); }

    /// The device address of row 0; null when empty. Stays owned by the image.
    void* GetDevicePointer() const noexcept { return m_xBlock->m_pDevice; }

    /// The format; all zero when empty.
    const CQxImageFormat& GetFormat() const noexcept { return m_xFormat; }

    /// The description of the image for a kernel. An empty image yields a zero format and a null pointer.
    QX_CUDA_API SDeviceImageDesc2D GetDesc() const noexcept;

    /// Writes the description of this image, empty or not, into a device constant, ordered on the stream.
    ///
    /// The description is taken during the call, so the stream must not be one that is being captured into a graph,
    /// which would look for it at each replay. The caller synchronises the stream before it relies on the constant.
    /// Throws a `CQxCudaException` "Error copying device image description 2D to constant memory".
    /// @param xSymbol the constant of the kernel's code, declared `__constant__`; neither read nor written on the host
    /// @param pStream null for the default stream
    QX_CUDA_API void CopyDescriptionToCudaConstAsync(const SDeviceImageDesc2D& xSymbol, CUstream_st* pStream) const;

    /// Sets every pixel byte to zero with the stream-less 2D memset; padding stays.
    ///
    /// Throws a `CQxException` "Error setting image to zero" with, as inner exception, "Image is invalid" when the
    /// image is empty or a `CQxCudaException` "Error setting CUDA memory to zero"; the image stays valid, its pixels
    /// are undefined.
    QX_CUDA_API void SetZero();

    /// The same, queued on the stream (null for the default stream); the image must live until the work is done.
    QX_CUDA_API void SetZeroAsync(CUstream_st* pStream);

    /// The CUDA channel format of an image format: bits and kind by the data type, channels by the pixel type. "Double"
    /// is described as 32-bit float, the widest that CUDA has.
    ///
    /// Throws a `CQxException` "Unsupported data type '...'" or, tested after it, "Unsupported pixel type '...'".
    static QX_CUDA_API cudaChannelFormatDesc _CreateCudaChannelFormatDescFromFormat(const CQxImageFormat& xFormat);

private:
    template <typename TWay>
    void _CreateFrom(const IImage* pImage, const TWay& xWay, const SThrowSite& xSite);
    template <typename TWay>
    void _CopyTo(IImage* pImage, const TWay& xWay, const SThrowSite& xSite) const;
    template <typename TMemset>
    void _SetZero(const char* pcFunction, TMemset&& xMemset);

    CQxImageFormat m_xFormat{};
    cudaChannelFormatDesc m_xChannelDesc{}; // never read: it has its place in the layout that clients know
    CQxPoolBlock<GPU::CCudaMemoryPitchResource> m_xBlock;
};

} // namespace Qx
