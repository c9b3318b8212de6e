#pragma once

#include "Qx.Cuda/QxCuda.h"
#include "Qx.Cuda/QxLaunchKernel.h"

namespace Qx::Examples
{

/// A pixel of an "RGBA" "UByte" image.
struct SPixel
{
    unsigned char uRed, uGreen, uBlue, uAlpha;
};

/// The pixel of this thread in a grid of `EvalKernelDim_2D_1D` or another whose blocks are one row high.
/// @return whether the image has it
__device__ inline bool FindPixel(const SDeviceImageDesc2D& xImage, int& x, int& y)
{
    x = static_cast<int>(blockIdx.x * blockDim.x + threadIdx.x);
    y = static_cast<int>(blockIdx.y);
    return x < xImage.xFormat.iWidth && y < xImage.xFormat.iHeight;
}

/// The pixel at column @p x and row @p y, which the image must have.
/// @tparam T the type of a pixel of its format
template <typename T>
__device__ T& At(const SDeviceImageDesc2D& xImage, int x, int y)
{
    return reinterpret_cast<T*>(static_cast<char*>(xImage.pData) + static_cast<std::uint64_t>(y) * xImage.nPitch)[x];
}

} // namespace Qx::Examples
