// A client built with AddressSanitizer, whatever the libraries were built with. With the number of a misuse as argument
// it does that and must be stopped by a report; without one it does what is allowed and ends with code 0.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "Qx.Cuda/QxCuda.h"
#include "Qx.Cuda/QxLaunchKernel.h"
#include "Qx.GPU.ResourceManager/ResourceManager.h"

namespace
{

using Qx::CQxCudaComp;
using Qx::CQxDeviceImage2D;
using Qx::CQxImage;
using Qx::CQxImageFormat;
using Qx::CQxPageLockedImage;
using Qx::SDeviceImageDesc2D;

const CQxImageFormat c_xFormat(100, 4, Qx::EDataType::UByte, Qx::EPixelType::Lum);

__global__ void Brighten(SDeviceImageDesc2D xImage, unsigned uColumn)
{
    ++static_cast<unsigned char*>(xImage.pData)[3 * xImage.nPitch + uColumn];
}

void _Brighten(const SDeviceImageDesc2D& xImage, unsigned uColumn)
{
    Qx::LaunchKernel<Brighten>(dim3(1), dim3(1), nullptr, xImage, uColumn);
}

CQxDeviceImage2D _Make()
{
    CQxDeviceImage2D xImage;
    xImage.Create(c_xFormat);
    return xImage;
}

// What a client still has when the image is gone.
SDeviceImageDesc2D _MakeStale()
{
    return _Make().GetDesc();
}

void _DoWhatIsAllowed()
{
    CQxImage xHost;
    for (int iRound = 0; iRound < 2; ++iRound) // a new block, then one that lay idle
    {
        CQxDeviceImage2D xImage = _Make();
        xImage.SetZero();
        _Brighten(xImage.GetDesc(), 99);
        xImage.CopyTo(xHost);
        // Work that is queued may use the block after its release; the next user queues behind it.
        const auto Wait = [](void*) { std::this_thread::sleep_for(std::chrono::milliseconds(50)); };
        cudaLaunchHostFunc(nullptr, Wait, nullptr);
        _Brighten(xImage.GetDesc(), 0);
        xImage.Release();
        cudaDeviceSynchronize();
    }
    Qx::GPU::CResourceManager::Trim(0);
    _Make().SetZero();
}

void (*const c_vMisuses[])() = {
    [] { _Brighten(_MakeStale(), 0); },
    [] { cudaMemset(_MakeStale().pData, 0, 4); },
    []
    {
        unsigned char vPixels[100];
        cudaMemcpy(vPixels, _MakeStale().pData, sizeof(vPixels), cudaMemcpyDeviceToHost);
    },
    []
    {
        CQxPageLockedImage xHost;
        xHost.Create(c_xFormat);
        auto* const pPixels = static_cast<volatile unsigned char*>(xHost.GetDataPtr());
        xHost.Release();
        pPixels[0] = 1;
    },
    // The padding of a block that lay idle.
    []
    {
        const void* const pIdle = _MakeStale().pData;
        const CQxDeviceImage2D xImage = _Make();
        _Brighten(xImage.GetDesc(), xImage.GetDesc().pData == pIdle ? 100 : 0);
    },
};

} // namespace

int main(int iArguments, char** ppcArguments)
{
    if (iArguments < 2)
    {
        _DoWhatIsAllowed();
        return 0;
    }
    c_vMisuses[std::atoi(ppcArguments[1])]();
    cudaDeviceSynchronize();
    std::puts("the misuse went unnoticed");
    return 0;
}
