// A plug-in that uses whatever could tie the libraries to it: classes with virtual operations, constants, templates.

#include <memory>
#include <type_traits>
#include <utility>

#include <cublas_v2.h>

#include "Plugin.h"
#include "Qx.Cuda/QxCuda.h"

namespace
{

using namespace Qx;

constexpr SThrowSite c_xSite{"Plugin", "Use"};
const CQxImageFormat c_xFormat(5, 3, EDataType::UByte, EPixelType::RGBA);

class COwnException final : public CQxException
{
public:
    COwnException() : CQxException("own", "Plugin", "Use", 1) {}
    IException* Clone() const override { return new COwnException(*this); }
};

class COwnImage final : public IImage
{
public:
    bool Create(int iWidth, int iHeight, EPixelType::ID ePixelType, EDataType::ID eDataType) override
    {
        return m_xImage.Create(iWidth, iHeight, ePixelType, eDataType);
    }
    void GetSize(int& iWidth, int& iHeight) const override { m_xImage.GetSize(iWidth, iHeight); }
    void GetType(EPixelType::ID& ePixel, EDataType::ID& eData) const override { m_xImage.GetType(ePixel, eData); }
    void* GetDataPtr() override { return m_xImage.GetDataPtr(); }
    const void* GetDataPtr() const override { return m_xImage.GetDataPtr(); }

private:
    CQxImage m_xImage{c_xFormat};
};

template <typename TBody>
bool Fails(const CGuid& xGuid, TBody&& xBody)
{
    try
    {
        Guard(c_xSite, "outer", xBody);
    }
    catch (const IException& xException)
    {
        const std::unique_ptr<IException> pClone(xException.Clone());
        return pClone->HasException(xGuid);
    }
    return false;
}

bool UseImages()
{
    COwnImage xOwn;
    CQxDeviceImage2D xImage;
    CQxDeviceImage1D xLinear;
    xImage.Create(&xOwn);
    xImage.CopyTo(xLinear);
    xImage.CopyTo(&xOwn);
    unsigned char acPixels[60] = {};
    CQxImageView xView(c_xFormat, acPixels);
    xImage.CopyTo(&xView);
    return GetImageFormat(xView) == GetImageFormat(xOwn);
}

bool UsePageLockedImage()
{
    CQxPageLockedImage xImage(c_xFormat);
    CQxPageLockedImage xMoved(std::move(xImage));
    return GetImageFormat(xMoved) == c_xFormat;
}

bool UseResources()
{
    GPU::CCudaMemoryPitchResource xPitched = GPU::CResourceManager::GetCudaMemoryPitch(10, 10);
    GPU::CResourceManager::ReleaseResource(xPitched, true);
    return GPU::CCudaMemoryResource().Matches(GPU::CCudaMemoryResource()) && xPitched.m_nWidth == 10;
}

bool UseMath()
{
    cublasHandle_t pHandle = nullptr;
    cublasCreate(&pHandle);
    CQxMatrix<float> xHost(2, 3);
    CQxCudaDeviceMatrix<float> xMatrix;
    xMatrix.Set(xHost);
    CQxCudaDeviceVector<float> xVector;
    xVector.Set(CQxVector<float>(3));
    CQxCudaDeviceVector<float> xResult;
    CQxCudaDeviceMatrixMath<float>(pHandle).Mult(xMatrix, xVector, xResult);
    CQxCudaDeviceMemory xMemory;
    xMemory.AddDevicePointer(CQxDeviceMMU::QxCudaMalloc(4, 4), 16);
    return cublasDestroy(pHandle) == CUBLAS_STATUS_SUCCESS && xResult.GetSize() == 2;
}

bool UseMapping()
{
    CQxMapping3D xHost;
    xHost.Create(0, 0, 0, 1, 1, 1, 2, 2, 2, nullptr);
    CQxDeviceMapping3D xMapping;
    xMapping.Create(xHost);
    CQxDeviceMapping3D(std::move(xMapping)).Download(xHost);
    return true;
}

bool UseContext()
{
    CQxCudaComp xComp;
    xComp.EvalKernelDim_2D_1D(c_xFormat, 32, 2);
    xComp.Begin("none", nullptr);
    xComp.End("none", nullptr);
    return CudaDebug::CQxCudaCompDebug::GetDebugItemCount() == 0;
}

} // namespace

#pragma GCC visibility push(default)
extern "C"
{
    int PluginVersion()
    {
        return QX_PLUGIN_VERSION;
    }

    bool PluginUse(int iUse)
    {
        switch (iUse)
        {
        case 0:
            return Fails(CQxCudaException::c_xGuid, [] { CheckCuda(cudaSetDevice(-1), c_xSite, "CUDA"); });
        case 1:
            return Fails(CQxOutOfMemoryException::c_xGuid, [] { ThrowOutOfMemory(c_xSite, "wanted ", 5U); });
        case 2:
            return !CQxException("plain", "Plugin", "Use", 1).HasException(CQxCudaException::c_xGuid);
        case 3:
            return Fails(COwnException().GetGUID(), [] { throw COwnException(); });
        case 4:
            return UseResources();
        case 5:
            return UsePageLockedImage();
        case 6:
            return UseImages();
        case 7:
            return UseMath();
        case 8:
            return UseMapping();
        default:
            return UseContext();
        }
    }
}
#pragma GCC visibility pop

static_assert(std::is_same_v<decltype(&PluginVersion), Qx::Test::PPluginVersion>);
static_assert(std::is_same_v<decltype(&PluginUse), Qx::Test::PPluginUse>);
