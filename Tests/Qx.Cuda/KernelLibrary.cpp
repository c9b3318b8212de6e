#include "KernelLibrary.h"

#include <cuda_runtime.h>

#include "Qx.Cuda.Core/QxCudaException.h"
#include "Qx.Cuda/QxCudaComp.h"
#include "Qx.Cuda/QxLaunchKernel.h"

namespace
{

__constant__ Qx::SDeviceImageDesc2D c_xDescribed;

__global__ void Fill(unsigned char uFirst)
{
    const unsigned int uX = blockIdx.x * blockDim.x + threadIdx.x;
    const unsigned int uY = blockIdx.y;
    if (uX < static_cast<unsigned int>(c_xDescribed.xFormat.iWidth))
    {
        auto* const pRow = static_cast<unsigned char*>(c_xDescribed.pData) + uY * c_xDescribed.nPitch;
        pRow[uX] = static_cast<unsigned char>(uFirst + uX + 3 * uY);
    }
}

} // namespace

#pragma GCC visibility push(default)
extern "C"
{
    void FillDescribed(const Qx::CQxDeviceImage2D& xImage, unsigned char uFirst, cudaStream_t pStream)
    {
        Qx::CQxCudaComp xComp;
        xComp.EvalKernelDim_2D_1D(xImage.GetFormat(), 32, 2);
        xImage.CopyDescriptionToCudaConstAsync(c_xDescribed, pStream);
        Qx::LaunchKernel<Fill>(xComp, pStream, uFirst);
    }

    void Throw(Qx::CQxDeviceImage2D& xImage)
    {
        try
        {
            xImage.Create(Qx::CQxImageFormat{});
        }
        catch (const Qx::CQxException& xException)
        {
            if (xException.GetInnerException() != nullptr)
            {
                Qx::CheckCuda(cudaSetDevice(-1), {"KernelLibrary", "Throw"}, "Error in the library");
            }
        }
    }

    void KeepImage()
    {
        static Qx::CQxDeviceImage2D s_xKept;
        s_xKept.Create(Qx::CQxImageFormat(64, 48, Qx::EDataType::UByte, Qx::EPixelType::RGBA));
    }
}
#pragma GCC visibility pop

static_assert(std::is_same_v<decltype(&FillDescribed), Qx::Test::PFillDescribed>);
static_assert(std::is_same_v<decltype(&Throw), Qx::Test::PThrow>);
static_assert(std::is_same_v<decltype(&KeepImage), Qx::Test::PKeepImage>);
