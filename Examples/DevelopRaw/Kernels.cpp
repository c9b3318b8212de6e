// The kernels, written once: nvcc compiles this file for the GPU, any C++ compiler for the host.

#include "DevelopRaw/Kernels.h"

#include "Common/DevicePixels.h"
#include "Qx.Cuda/QxLaunchKernel.h"

namespace Qx::Examples
{

namespace
{

// Mirrors at the first and last pixel, which keeps the colour of the sensor's pattern; clamps in images too small for
// that.
__device__ int _Mirror(int i, int iCount)
{
    const int iMirrored = i < 0 ? -i : (i >= iCount ? 2 * iCount - 2 - i : i);
    return iMirrored < 0 ? 0 : (iMirrored >= iCount ? iCount - 1 : iMirrored);
}

template <typename T>
__device__ T _AtMirrored(const SDeviceImageDesc2D& xImage, int x, int y)
{
    return At<T>(xImage, _Mirror(x, xImage.xFormat.iWidth), _Mirror(y, xImage.xFormat.iHeight));
}

__device__ unsigned char _ToByte(float fSample)
{
    const float fByte = fSample * (255.0F / static_cast<float>(c_iWhite)) + 0.5F;
    return static_cast<unsigned char>(fByte < 0.0F ? 0.0F : (fByte > 255.0F ? 255.0F : fByte));
}

// The green of every pixel. Where the sensor saw another colour it is interpolated and corrected by the gradient of
// that colour, with the filter of Malvar, He and Cutler ("High-quality linear interpolation for demosaicing of
// Bayer-patterned color images", ICASSP 2004), whose coefficients are eighths.
__global__ void GreenKernel(SDeviceImageDesc2D xRaw, SDeviceImageDesc2D xGreen)
{
    int x = 0;
    int y = 0;
    if (!FindPixel(xRaw, x, y))
    {
        return;
    }
    const auto Sample = [&](int iDx, int iDy)
    { return static_cast<float>(_AtMirrored<unsigned short>(xRaw, x + iDx, y + iDy)); };
    const float fNear = Sample(-1, 0) + Sample(1, 0) + Sample(0, -1) + Sample(0, 1);
    const float fFar = Sample(-2, 0) + Sample(2, 0) + Sample(0, -2) + Sample(0, 2);
    const bool bGreen = (x + y) % 2 != 0;
    At<float>(xGreen, x, y) = bGreen ? Sample(0, 0) : (4.0F * Sample(0, 0) + 2.0F * fNear - fFar) / 8.0F;
}

// The other colours: their difference from green varies slowly, so it is what is interpolated.
__global__ void ColourKernel(SDeviceImageDesc2D xRaw, SDeviceImageDesc2D xGreen, SDeviceImageDesc2D xPicture,
    CudaDebug::SParameter xDebug, CudaDebug::EKind eKind)
{
    int x = 0;
    int y = 0;
    if (!FindPixel(xRaw, x, y))
    {
        return;
    }
    const auto Difference = [&](int iDx, int iDy)
    {
        return static_cast<float>(_AtMirrored<unsigned short>(xRaw, x + iDx, y + iDy)) -
            _AtMirrored<float>(xGreen, x + iDx, y + iDy);
    };
    const bool bRedRow = y % 2 == 0;
    const bool bGreen = (x + y) % 2 != 0;
    const float fGreen = At<float>(xGreen, x, y);
    // Of the colour that this row of the sensor has beside green, and of the other one.
    const float fOfRow = fGreen + (bGreen ? (Difference(-1, 0) + Difference(1, 0)) / 2.0F : Difference(0, 0));
    const float fOfOther = fGreen +
        (bGreen ? (Difference(0, -1) + Difference(0, 1)) / 2.0F
                : (Difference(-1, -1) + Difference(1, -1) + Difference(-1, 1) + Difference(1, 1)) / 4.0F);
    At<SPixel>(xPicture, x, y) = {
        _ToByte(bRedRow ? fOfRow : fOfOther), _ToByte(fGreen), _ToByte(bRedRow ? fOfOther : fOfRow), 255};

    const int iSample = At<unsigned short>(xRaw, x, y);
    if (eKind == c_eReportClipped && iSample >= c_iWhite)
    {
        const int iSlot = atomicAdd(xDebug.pCounter, 1);
        if (iSlot < xDebug.iCapacity)
        {
            CudaDebug::SItem& xItem = xDebug.pItems[iSlot];
            xItem = CudaDebug::SItem{};
            xItem.aiPosition[0] = x;
            xItem.aiPosition[1] = y;
            xItem.aiPosition[2] = iSample;
            xItem.bFlag = true;
        }
    }
}

__constant__ SDeviceImageDesc2D c_xSource;

// Sobel's operator on the brightness.
__global__ void EdgeKernel(SDeviceImageDesc2D xEdges)
{
    int x = 0;
    int y = 0;
    if (!FindPixel(xEdges, x, y))
    {
        return;
    }
    float fAcross = 0.0F;
    float fDown = 0.0F;
    for (int iDy = -1; iDy <= 1; ++iDy)
    {
        for (int iDx = -1; iDx <= 1; ++iDx)
        {
            const auto xPixel = _AtMirrored<SPixel>(c_xSource, x + iDx, y + iDy);
            const float fLuma = 0.299F * static_cast<float>(xPixel.uRed) + 0.587F * static_cast<float>(xPixel.uGreen) +
                0.114F * static_cast<float>(xPixel.uBlue);
            fAcross += fLuma * static_cast<float>(iDx * (2 - iDy * iDy));
            fDown += fLuma * static_cast<float>(iDy * (2 - iDx * iDx));
        }
    }
    const float fStrength = sqrtf(fAcross * fAcross + fDown * fDown);
    const auto uGrey = static_cast<unsigned char>(fStrength > 255.0F ? 255.0F : fStrength);
    At<SPixel>(xEdges, x, y) = {uGrey, uGrey, uGrey, 255};
}

} // namespace

void Demosaic(CQxCudaComp& xComp, const CQxDeviceImage2D& xRaw, const CQxDeviceImage2D& xGreen,
    const CQxDeviceImage2D& xPicture, cudaStream_t pStream)
{
    xComp.Begin("Demosaic", pStream);
    LaunchKernel<GreenKernel>(xComp, pStream, xRaw.GetDesc(), xGreen.GetDesc());
    LaunchKernel<ColourKernel>(xComp, pStream, xRaw.GetDesc(), xGreen.GetDesc(), xPicture.GetDesc(),
        CudaDebug::CQxCudaCompDebug::GetDebugParams(), xComp.GetDebugKind());
    xComp.End("Demosaic", pStream);
}

void DetectEdges(
    CQxCudaComp& xComp, const CQxDeviceImage2D& xPicture, const CQxDeviceImage2D& xEdges, cudaStream_t pStream)
{
    xPicture.CopyDescriptionToCudaConstAsync(c_xSource, pStream);
    xComp.Begin("DetectEdges", pStream);
    LaunchKernel<EdgeKernel>(xComp, pStream, xEdges.GetDesc());
    xComp.End("DetectEdges", pStream);
}

} // namespace Qx::Examples
