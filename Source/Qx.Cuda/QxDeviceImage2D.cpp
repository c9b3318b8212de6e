#include "Qx.Cuda/QxDeviceImage2D.h"

#include <algorithm>
#include <utility>

#include "Qx.Cuda.Core/QxCudaException.h"
#include "Qx.Cuda/QxDeviceImage1D.h"

namespace Qx
{

namespace
{

constexpr const char* c_pcFile = "Source/Qx.Cuda/QxDeviceImage2D";
constexpr SThrowSite c_xCreate{c_pcFile, "Create"};
constexpr SThrowSite c_xCopyTo{c_pcFile, "CopyTo"};
constexpr const char* c_pcErrorCreating = "Error creating 2D CUDA device image";
constexpr const char* c_pcErrorUploading = "Error copying image to cuda device";
constexpr const char* c_pcErrorDownloading = "Error copying to host image";
constexpr const char* c_pcErrorCopyingToHost = "Error copying image to host";
constexpr const char* c_pcInvalid = "Image is invalid";

// Bytes of a row, which are below 2^31 in every image.
std::size_t _RowWidth(const CQxImageFormat& xFormat)
{
    return static_cast<std::size_t>(xFormat.iWidth) * static_cast<std::size_t>(xFormat.GetBytesPerPixel());
}

// One side of a copy: where row 0 is, and the bytes from one row to the next.
template <typename T>
struct SRows
{
    T* pFirst;
    std::size_t nPitch;
};

template <typename T>
SRows<T> _PackedRows(T* pFirst, const CQxImageFormat& xFormat)
{
    return {pFirst, _RowWidth(xFormat)};
}

// The two ways in which rows are copied: before the call returns, or in the order of a stream.
struct SBlocking
{
    cudaError operator()(const SRows<void>& xTarget, const SRows<const void>& xSource, std::size_t nWidth,
        std::size_t nHeight, cudaMemcpyKind eKind) const
    {
        return cudaMemcpy2D(xTarget.pFirst, xTarget.nPitch, xSource.pFirst, xSource.nPitch, nWidth, nHeight, eKind);
    }
};

struct SQueued
{
    CUstream_st* pStream;

    cudaError operator()(const SRows<void>& xTarget, const SRows<const void>& xSource, std::size_t nWidth,
        std::size_t nHeight, cudaMemcpyKind eKind) const
    {
        return cudaMemcpy2DAsync(
            xTarget.pFirst, xTarget.nPitch, xSource.pFirst, xSource.nPitch, nWidth, nHeight, eKind, pStream);
    }
};

// The one copy that every transfer of an image is.
template <typename TWay>
void _CopyRows(const TWay& xWay, const SRows<void>& xTarget, const SRows<const void>& xSource,
    const CQxImageFormat& xFormat, cudaMemcpyKind eKind, const SThrowSite& xSite, const char* pcMessage,
    int iLine = __builtin_LINE())
{
    CheckCuda(xWay(xTarget, xSource, _RowWidth(xFormat), static_cast<std::size_t>(xFormat.iHeight), eKind), xSite,
        pcMessage, iLine);
}

} // namespace

CQxDeviceImage2D::CQxDeviceImage2D() noexcept = default;

CQxDeviceImage2D::CQxDeviceImage2D(const CQxImageFormat& xFormat)
{
    Create(xFormat);
}

CQxDeviceImage2D::CQxDeviceImage2D(const CQxImage& xImage)
{
    Create(xImage);
}

CQxDeviceImage2D::CQxDeviceImage2D(CQxDeviceImage2D&& xSource)
{
    Create(std::move(xSource));
}

CQxDeviceImage2D& CQxDeviceImage2D::operator=(CQxDeviceImage2D&& xSource)
{
    Create(std::move(xSource));
    return *this;
}

CQxDeviceImage2D::~CQxDeviceImage2D() = default;

void CQxDeviceImage2D::Create(const CQxImageFormat& xFormat)
{
    Guard(c_xCreate, c_pcErrorCreating,
        [&]
        {
            if (xFormat.iWidth <= 0 || xFormat.iHeight <= 0)
            {
                Throw(c_xCreate, "Width or height of given image format is 0");
            }
            if (xFormat.GetComponentCount() == 3)
            {
                Throw(c_xCreate, "Only 1, 2 or 4 channels per pixel are allowed");
            }
            if (m_xFormat == xFormat)
            {
                return;
            }
            Release();
            m_xChannelDesc = _CreateCudaChannelFormatDescFromFormat(xFormat);
            const std::size_t nRowWidth = _RowWidth(xFormat);
            if (nRowWidth > INT32_MAX)
            {
                Throw(c_xCreate, "Image row of ", nRowWidth, " bytes is too wide");
            }
            m_xBlock.Take(
                GPU::CResourceManager::GetCudaMemoryPitch(nRowWidth, static_cast<std::size_t>(xFormat.iHeight)));
            m_xFormat = xFormat;
        });
}

void CQxDeviceImage2D::Create(CQxDeviceImage2D&& xSource)
{
    Guard(c_xCreate, c_pcErrorCreating,
        [&]
        {
            if (!xSource.IsValid())
            {
                Throw(c_xCreate, "Given image is invalid");
            }
            Release();
            m_xFormat = xSource.m_xFormat;
            m_xChannelDesc = xSource.m_xChannelDesc;
            m_xBlock.Take(xSource.m_xBlock);
        });
    xSource.m_xFormat = CQxImageFormat{};
}

void CQxDeviceImage2D::Create(const CQxImage& xImage)
{
    Guard(c_xCreate, c_pcErrorCreating,
        [&]
        {
            Create(xImage.GetFormat());
            _CopyRows(SBlocking{}, {GetDevicePointer(), m_xBlock->m_nPitch},
                _PackedRows(xImage.GetDataPtr(), m_xFormat), m_xFormat, cudaMemcpyHostToDevice, c_xCreate,
                c_pcErrorUploading);
        });
}

void CQxDeviceImage2D::Create(const CQxImageFormat& xFormat, const void* pPixels, bool bDevicePointer)
{
    Guard(c_xCreate, c_pcErrorCreating,
        [&]
        {
            Create(xFormat);
            _CopyRows(SBlocking{}, {GetDevicePointer(), m_xBlock->m_nPitch}, _PackedRows(pPixels, m_xFormat), m_xFormat,
                bDevicePointer ? cudaMemcpyDeviceToDevice : cudaMemcpyHostToDevice, c_xCreate, c_pcErrorUploading);
        });
}

template <typename TWay>
void CQxDeviceImage2D::_CreateFrom(const IImage* pImage, const TWay& xWay, const SThrowSite& xSite)
{
    Guard(xSite, c_pcErrorCreating,
        [&]
        {
            if (pImage == nullptr)
            {
                Throw(xSite, "The source image pointer is null");
            }
            Create(GetImageFormat(*pImage));
            _CopyRows(xWay, {GetDevicePointer(), m_xBlock->m_nPitch}, _PackedRows(pImage->GetDataPtr(), m_xFormat),
                m_xFormat, cudaMemcpyHostToDevice, xSite, c_pcErrorUploading);
        });
}

void CQxDeviceImage2D::Create(const Interop::Runtime28::IImage* pImage)
{
    _CreateFrom(pImage, SBlocking{}, c_xCreate);
}

void CQxDeviceImage2D::CreateAsync(const Interop::Runtime28::IImage* pImage, CUstream_st* pStream)
{
    _CreateFrom(pImage, SQueued{pStream}, {c_pcFile, "CreateAsync"});
}

void CQxDeviceImage2D::Create(const CQxDeviceImage2D& xSource)
{
    Guard(c_xCreate, c_pcErrorCreating,
        [&]
        {
            if (!xSource.IsValid())
            {
                Throw(c_xCreate, "Given image is invalid");
            }
            Create(xSource.m_xFormat);
            // Source and target of a copy must not overlap, and an image that is its own source has its pixels.
            if (&xSource != this)
            {
                _CopyRows(SBlocking{}, {GetDevicePointer(), m_xBlock->m_nPitch},
                    {xSource.GetDevicePointer(), xSource.m_xBlock->m_nPitch}, m_xFormat, cudaMemcpyDeviceToDevice,
                    c_xCreate, "Error creating image on cuda device");
            }
        });
}

void CQxDeviceImage2D::Create(const CQxDeviceImage1D& xSource)
{
    Guard(c_xCreate, c_pcErrorCreating,
        [&]
        {
            Create(xSource.GetFormat());
            _CopyRows(SBlocking{}, {GetDevicePointer(), m_xBlock->m_nPitch},
                _PackedRows<const void>(xSource.GetDevicePointer(), m_xFormat), m_xFormat, cudaMemcpyDeviceToDevice,
                c_xCreate, c_pcErrorUploading);
        });
}

void CQxDeviceImage2D::CopyTo(CQxImage& xImage) const
{
    Guard(c_xCopyTo, c_pcErrorDownloading,
        [&]
        {
            if (!IsValid())
            {
                Throw(c_xCopyTo, c_pcInvalid);
            }
            if (!(xImage.GetFormat() == m_xFormat))
            {
                xImage.Create(m_xFormat);
            }
            _CopyRows(SBlocking{}, _PackedRows(xImage.GetDataPtr(), m_xFormat),
                {GetDevicePointer(), m_xBlock->m_nPitch}, m_xFormat, cudaMemcpyDeviceToHost, c_xCopyTo,
                c_pcErrorCopyingToHost);
        });
}

template <typename TWay>
void CQxDeviceImage2D::_CopyTo(IImage* pImage, const TWay& xWay, const SThrowSite& xSite) const
{
    Guard(xSite, c_pcErrorDownloading,
        [&]
        {
            if (!IsValid())
            {
                Throw(xSite, c_pcInvalid);
            }
            if (pImage == nullptr)
            {
                Throw(xSite, "The target image pointer is null");
            }
            if (!(GetImageFormat(*pImage) == m_xFormat))
            {
                pImage->Create(m_xFormat.iWidth, m_xFormat.iHeight, m_xFormat.ePixelType, m_xFormat.eDataType);
            }
            _CopyRows(xWay, _PackedRows(pImage->GetDataPtr(), m_xFormat), {GetDevicePointer(), m_xBlock->m_nPitch},
                m_xFormat, cudaMemcpyDeviceToHost, xSite, c_pcErrorCopyingToHost);
        });
}

void CQxDeviceImage2D::CopyTo(Interop::Runtime28::IImage* pImage) const
{
    _CopyTo(pImage, SBlocking{}, c_xCopyTo);
}

void CQxDeviceImage2D::CopyToAsync(Interop::Runtime28::IImage* pImage, CUstream_st* pStream) const
{
    _CopyTo(pImage, SQueued{pStream}, {c_pcFile, "CopyToAsync"});
}

void CQxDeviceImage2D::CopyTo(CQxDeviceImage2D& xTarget) const
{
    Guard(c_xCopyTo, "Error copying 2D CUDA device image", [&] { xTarget.Create(*this); });
}

void CQxDeviceImage2D::CopyTo(CQxDeviceImage1D& xTarget) const
{
    Guard(c_xCopyTo, "Error copying 2D CUDA device image to 1D CUDA device image",
        [&]
        {
            if (!IsValid())
            {
                Throw(c_xCopyTo, c_pcInvalid);
            }
            xTarget.Create(m_xFormat);
            _CopyRows(SBlocking{}, _PackedRows(xTarget.GetDevicePointer(), m_xFormat),
                {GetDevicePointer(), m_xBlock->m_nPitch}, m_xFormat, cudaMemcpyDeviceToDevice, c_xCopyTo,
                c_pcErrorUploading);
        });
}

void CQxDeviceImage2D::Release()
{
    if (!IsValid())
    {
        return;
    }
    Guard({c_pcFile, "Release"}, "Error destroying 2D CUDA device image", [&] { m_xBlock.Release(); });
    m_xFormat = CQxImageFormat{};
}

SDeviceImageDesc2D CQxDeviceImage2D::GetDesc() const noexcept
{
    return {m_xFormat, m_xBlock->m_pDevice, m_xBlock->m_nPitch};
}

void CQxDeviceImage2D::CopyDescriptionToCudaConstAsync(const SDeviceImageDesc2D& xSymbol, CUstream_st* pStream) const
{
    // Ordinary host memory, so CUDA has taken it when the call returns.
    const SDeviceImageDesc2D xDesc = GetDesc();
    CheckCuda(cudaMemcpyToSymbolAsync(&xSymbol, &xDesc, sizeof(xDesc), 0, cudaMemcpyHostToDevice, pStream),
        {c_pcFile, "CopyDescriptionToCudaConstAsync"}, "Error copying device image description 2D to constant memory");
}

template <typename TMemset>
void CQxDeviceImage2D::_SetZero(const char* pcFunction, TMemset&& xMemset)
{
    const SThrowSite xSite{c_pcFile, pcFunction};
    Guard(xSite, "Error setting image to zero",
        [&]
        {
            if (!IsValid())
            {
                Throw(xSite, c_pcInvalid);
            }
            CheckCuda(xMemset(_RowWidth(m_xFormat), static_cast<std::size_t>(m_xFormat.iHeight)), xSite,
                "Error setting CUDA memory to zero");
        });
}

void CQxDeviceImage2D::SetZero()
{
    _SetZero("SetZero",
        [&](std::size_t nWidth, std::size_t nHeight)
        { return cudaMemset2D(GetDevicePointer(), m_xBlock->m_nPitch, 0, nWidth, nHeight); });
}

void CQxDeviceImage2D::SetZeroAsync(CUstream_st* pStream)
{
    _SetZero("SetZeroAsync",
        [&](std::size_t nWidth, std::size_t nHeight)
        { return cudaMemset2DAsync(GetDevicePointer(), m_xBlock->m_nPitch, 0, nWidth, nHeight, pStream); });
}

cudaChannelFormatDesc CQxDeviceImage2D::_CreateCudaChannelFormatDescFromFormat(const CQxImageFormat& xFormat)
{
    constexpr SThrowSite c_xSite{c_pcFile, "_CreateCudaChannelFormatDescFromFormat"};
    using ImageFormatDetail::EChannelKind;
    static_assert(static_cast<int>(EChannelKind::Signed) == cudaChannelFormatKindSigned &&
        static_cast<int>(EChannelKind::Unsigned) == cudaChannelFormatKindUnsigned &&
        static_cast<int>(EChannelKind::Float) == cudaChannelFormatKindFloat);
    const ImageFormatDetail::SDataType xData = ImageFormatDetail::GetDataType(xFormat.eDataType);
    if (xData.eKind == EChannelKind::None)
    {
        Throw(c_xSite, "Unsupported data type '", xData.pcName, "'");
    }
    const ImageFormatDetail::SPixelType xPixel = ImageFormatDetail::GetPixelType(xFormat.ePixelType);
    if (!xPixel.bHasChannelFormat)
    {
        Throw(c_xSite, "Unsupported pixel type '", xPixel.pcName, "'");
    }
    const auto Bits = [&](int iChannel)
    {
        return iChannel < xPixel.iChannels ? std::min(xData.iBits, 32) : 0; // CUDA has no wider channel
    };
    return {Bits(0), Bits(1), Bits(2), Bits(3), static_cast<cudaChannelFormatKind>(xData.eKind)};
}

} // namespace Qx
