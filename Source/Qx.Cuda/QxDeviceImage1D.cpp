#include "Qx.Cuda/QxDeviceImage1D.h"

#include "Qx.Cuda.Core/QxCudaException.h"

namespace Qx
{

namespace
{

constexpr const char* c_pcFile = "Source/Qx.Cuda/QxDeviceImage1D";
constexpr SThrowSite c_xCreate{c_pcFile, "Create"};
constexpr SThrowSite c_xCopyTo{c_pcFile, "CopyTo"};
constexpr const char* c_pcErrorCreating = "Error creating 1D Image";
constexpr const char* c_pcErrorUploading = "Error copying memory from host to device";

// The one copy that every transfer is. Bytes are counted without wrapping: for the packed data types the 32-bit count
// of an image that an image can have may have wrapped on the way.
void _Copy(void* pTarget, const void* pSource, const CQxImageFormat& xFormat, cudaMemcpyKind eKind,
    const SThrowSite& xSite, const char* pcMessage, int iLine = __builtin_LINE())
{
    CheckCuda(cudaMemcpy(pTarget, pSource, xFormat.GetExactByteCount(), eKind), xSite, pcMessage, iLine);
}

} // namespace

CQxDeviceImage1D::CQxDeviceImage1D() noexcept = default;

CQxDeviceImage1D::CQxDeviceImage1D(const CQxImageFormat& xFormat)
{
    Create(xFormat);
}

CQxDeviceImage1D::~CQxDeviceImage1D()
{
    // The pool is asked without a block too.
    m_xBlock.Drop();
}

void CQxDeviceImage1D::Create(const CQxImageFormat& xFormat)
{
    const std::uint64_t uBytes = xFormat.GetExactByteCount();
    if (uBytes == 0 || uBytes > UINT32_MAX)
    {
        Throw(c_xCreate, "Invalid image dimension");
    }
    if (m_xFormat == xFormat)
    {
        return;
    }
    Release();
    Guard(c_xCreate, c_pcErrorCreating, [&] { m_xBlock.Take(GPU::CResourceManager::GetCudaMemory(uBytes)); });
    m_xFormat = xFormat;
}

void CQxDeviceImage1D::Create(const CQxImage& xImage)
{
    Guard(c_xCreate, c_pcErrorCreating,
        [&]
        {
            Create(xImage.GetFormat());
            _Copy(GetDevicePointer(), xImage.GetDataPtr(), m_xFormat, cudaMemcpyHostToDevice, c_xCreate,
                c_pcErrorUploading);
        });
}

void CQxDeviceImage1D::Create(const Interop::Runtime28::IImage* pImage)
{
    Guard(c_xCreate, c_pcErrorCreating,
        [&]
        {
            if (pImage == nullptr)
            {
                Throw(c_xCreate, "The source image pointer is null");
            }
            Create(GetImageFormat(*pImage));
            _Copy(GetDevicePointer(), pImage->GetDataPtr(), m_xFormat, cudaMemcpyHostToDevice, c_xCreate,
                c_pcErrorUploading);
        });
}

void CQxDeviceImage1D::Create(const CQxDeviceImage1D& xSource)
{
    Guard(c_xCreate, c_pcErrorCreating,
        [&]
        {
            Create(xSource.m_xFormat);
            if (&xSource != this)
            {
                _Copy(GetDevicePointer(), xSource.GetDevicePointer(), m_xFormat, cudaMemcpyDeviceToDevice, c_xCreate,
                    "Error copying memory from device to device");
            }
        });
}

void CQxDeviceImage1D::CopyTo(CQxImage& xImage) const
{
    if (!IsValid())
    {
        Throw(c_xCopyTo, "Image is invalid");
    }
    if (!(xImage.GetFormat() == m_xFormat))
    {
        xImage.Create(m_xFormat);
    }
    _Copy(xImage.GetDataPtr(), GetDevicePointer(), m_xFormat, cudaMemcpyDeviceToHost, c_xCopyTo,
        "Error copying memory from device to host");
}

void CQxDeviceImage1D::SetZero()
{
    CheckCuda(cudaMemset(GetDevicePointer(), 0, m_xFormat.GetExactByteCount()), {c_pcFile, "SetZero"},
        "Error zeroing CUDA device memory");
}

void CQxDeviceImage1D::SetZeroAsync(CUstream_st* pStream)
{
    CheckCuda(cudaMemsetAsync(GetDevicePointer(), 0, m_xFormat.GetExactByteCount(), pStream),
        {c_pcFile, "SetZeroAsync"}, "Error zeroing CUDA device memory asynchronously");
}

void CQxDeviceImage1D::Release()
{
    m_xBlock.Release();
    m_xFormat = CQxImageFormat{};
}

} // namespace Qx
