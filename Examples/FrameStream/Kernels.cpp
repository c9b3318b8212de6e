// The kernel, written once: nvcc compiles this file for the GPU, any C++ compiler for the host.

#include "FrameStream/Kernels.h"

#include "Qx.Cuda/QxLaunchKernel.h"

namespace Qx::Examples
{

namespace
{

struct SPixel
{
    unsigned char auChannels[4];
};

__device__ SPixel& _At(const SDeviceImageDesc2D& xImage, int x, int y)
{
    return reinterpret_cast<SPixel*>(static_cast<char*>(xImage.pData) +
                                     static_cast<std::uint64_t>(y) * xImage.nPitch)[x];
}

__global__ void SharpenKernel(SDeviceImageDesc2D xFrame, SDeviceImageDesc2D xResult)
{
    const int x = static_cast<int>(blockIdx.x * blockDim.x + threadIdx.x);
    const int y = static_cast<int>(blockIdx.y);
    const int iWidth = xFrame.xFormat.iWidth;
    const int iHeight = xFrame.xFormat.iHeight;
    if (x >= iWidth || y >= iHeight)
    {
        return;
    }
    const SPixel xCentre = _At(xFrame, x, y);
    const SPixel xLeft = _At(xFrame, x > 0 ? x - 1 : x, y);
    const SPixel xRight = _At(xFrame, x + 1 < iWidth ? x + 1 : x, y);
    const SPixel xAbove = _At(xFrame, x, y > 0 ? y - 1 : y);
    const SPixel xBelow = _At(xFrame, x, y + 1 < iHeight ? y + 1 : y);
    SPixel xSharp = xCentre; // with its alpha
    for (int iChannel = 0; iChannel < 3; ++iChannel)
    {
        const int iMean4 = xLeft.auChannels[iChannel] + xRight.auChannels[iChannel] + xAbove.auChannels[iChannel] +
                           xBelow.auChannels[iChannel];
        const int iSharp = (6 * xCentre.auChannels[iChannel] - iMean4) / 2;
        xSharp.auChannels[iChannel] = static_cast<unsigned char>(iSharp < 0 ? 0 : (iSharp > 255 ? 255 : iSharp));
    }
    _At(xResult, x, y) = xSharp;
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
