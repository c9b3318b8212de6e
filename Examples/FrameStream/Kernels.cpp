// The kernel, written once: nvcc compiles this file for the GPU, any C++ compiler for the host.

#include "FrameStream/Kernels.h"

#include "Common/DevicePixels.h"
#include "Qx.Cuda/QxLaunchKernel.h"

namespace Qx::Examples
{

namespace
{

// Three times as far from the mean m of the four neighbours: m + 3 (c - m) = (6 c - n) / 2, where n is their sum.
__device__ unsigned char _Sharpen(int iCentre, int iNeighbours)
{
    const int iSharp = (6 * iCentre - iNeighbours) / 2;
    return static_cast<unsigned char>(iSharp < 0 ? 0 : (iSharp > 255 ? 255 : iSharp));
}

__global__ void SharpenKernel(SDeviceImageDesc2D xFrame, SDeviceImageDesc2D xResult)
{
    int x = 0;
    int y = 0;
    if (!FindPixel(xFrame, x, y))
    {
        return;
    }
    const SPixel xCentre = At<SPixel>(xFrame, x, y);
    const SPixel xLeft = At<SPixel>(xFrame, x > 0 ? x - 1 : x, y);
    const SPixel xRight = At<SPixel>(xFrame, x + 1 < xFrame.xFormat.iWidth ? x + 1 : x, y);
    const SPixel xAbove = At<SPixel>(xFrame, x, y > 0 ? y - 1 : y);
    const SPixel xBelow = At<SPixel>(xFrame, x, y + 1 < xFrame.xFormat.iHeight ? y + 1 : y);
    At<SPixel>(xResult, x, y) = {
        _Sharpen(xCentre.uRed, xLeft.uRed + xRight.uRed + xAbove.uRed + xBelow.uRed),
        _Sharpen(xCentre.uGreen, xLeft.uGreen + xRight.uGreen + xAbove.uGreen + xBelow.uGreen),
        _Sharpen(xCentre.uBlue, xLeft.uBlue + xRight.uBlue + xAbove.uBlue + xBelow.uBlue),
        xCentre.uAlpha,
    };
}

} // namespace

void Sharpen(const CQxDeviceImage2D& xFrame, const CQxDeviceImage2D& xResult, cudaStream_t pStream)
{
    const SDeviceImageDesc2D xDesc = xFrame.GetDesc();
    const auto uWidth = static_cast<unsigned int>(xDesc.xFormat.iWidth);
    LaunchKernel<SharpenKernel>(dim3((uWidth + 255) / 256, static_cast<unsigned int>(xDesc.xFormat.iHeight)), dim3(256),
        pStream, xDesc, xResult.GetDesc());
}

} // namespace Qx::Examples
