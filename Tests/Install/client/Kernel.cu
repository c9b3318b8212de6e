// A client's kernel. It takes its image from constant memory, which the library writes: both must be registered with
// one and the same runtime.

#include "Qx.Cuda/QxCuda.h"
#include "Qx.Cuda/QxLaunchKernel.h"

__constant__ Qx::SDeviceImageDesc2D c_xImage;

__global__ void InvertKernel()
{
    const int x = static_cast<int>(blockIdx.x * blockDim.x + threadIdx.x);
    const int y = static_cast<int>(blockIdx.y);
    if (x < c_xImage.xFormat.iWidth && y < c_xImage.xFormat.iHeight)
    {
        auto* const puRow = static_cast<unsigned char*>(c_xImage.pData) + static_cast<std::size_t>(y) * c_xImage.nPitch;
        puRow[x] = static_cast<unsigned char>(255 - puRow[x]);
    }
}

void Invert(const Qx::CQxDeviceImage2D& xImage)
{
    xImage.CopyDescriptionToCudaConstAsync(c_xImage, nullptr);
    Qx::CQxCudaComp xComp;
    xComp.EvalKernelDim_2D_1D(xImage.GetFormat(), 32, 8);
    xComp.Begin("Invert", nullptr);
    Qx::LaunchKernel<InvertKernel>(xComp, nullptr);
    xComp.End("Invert", nullptr);
}
