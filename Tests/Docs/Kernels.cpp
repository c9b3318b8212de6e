// What the kernels of the page must do.

#include <algorithm>
#include <cstdio>
#include <vector>

#include "Qx.Cuda/QxCuda.h"

void ApplyThreshold(const Qx::CQxDeviceImage2D& xImage, unsigned char uLimit, cudaStream_t pStream);
void LaunchInTiles(const Qx::CQxDeviceImage2D& xImage, unsigned char uLimit, cudaStream_t pStream);
void ScaleOnDevice(Qx::CQxCudaComp& xComp, Qx::CQxCudaDeviceVector<float>& xValues, float fFactor);
std::vector<Qx::CudaDebug::SItem> ReportClipped(Qx::CQxCudaComp& xComp, const Qx::CQxDeviceImage2D& xImage);

int main()
try
{
    Qx::CQxImage xHost(Qx::CQxImageFormat(301, 77, Qx::EDataType::UByte, Qx::EPixelType::Lum));
    auto* const puPixels = static_cast<unsigned char*>(xHost.GetDataPtr());
    const std::size_t nPixels = xHost.GetBufferSize();
    int iWrong = 0;
    for (const auto Threshold : {ApplyThreshold, LaunchInTiles})
    {
        for (std::size_t nPixel = 0; nPixel < nPixels; ++nPixel)
        {
            puPixels[nPixel] = static_cast<unsigned char>(nPixel % 251);
        }
        const Qx::CQxDeviceImage2D xImage(xHost);
        Threshold(xImage, 100, nullptr);
        xImage.CopyTo(xHost);
        for (std::size_t nPixel = 0; nPixel < nPixels; ++nPixel)
        {
            iWrong += puPixels[nPixel] == (nPixel % 251 >= 100 ? 255 : 0) ? 0 : 1;
        }
    }
    Qx::CQxCudaComp xComp;
    const auto nClipped = static_cast<std::size_t>(std::count(puPixels, puPixels + nPixels, 255));
    const Qx::CQxDeviceImage2D xImage(xHost);
    iWrong += ReportClipped(xComp, xImage).size() == std::min<std::size_t>(nClipped, 1000) ? 0 : 1;

    constexpr std::size_t c_nCount = 256 * 65536 + 5; // more blocks than a row of the grid takes
    Qx::CQxVector<float> xValues(c_nCount);
    std::fill_n(xValues.GetDataPtr(), c_nCount, 1.5F);
    Qx::CQxCudaDeviceVector<float> xOnDevice;
    xOnDevice.Set(xValues);
    ScaleOnDevice(xComp, xOnDevice, 2.0F);
    xOnDevice.Get(xValues);
    iWrong += std::count(xValues.GetDataPtr(), xValues.GetDataPtr() + c_nCount, 3.0F) == c_nCount ? 0 : 1;
    std::printf("%d wrong\n", iWrong);
    return iWrong == 0 ? 0 : 1;
}
catch (const Qx::CQxException& xException)
{
    std::fputs(xException.ToString().ToCString(), stderr);
    return 1;
}
