// A client that downloads an image on a stream and looks at the pixels, after waiting for the stream when it is told
// to.

#include <chrono>
#include <cstdio>
#include <thread>

#include "Qx.Cuda/QxCuda.h"

int main(int iArguments, char**)
{
    using namespace Qx;
    const bool bWait = iArguments > 1;
    cudaStream_t pStream = nullptr;
    CheckCuda(cudaStreamCreateWithFlags(&pStream, cudaStreamNonBlocking), {"RaceProgram", "main"}, "Error");
    const CQxImageFormat xFormat(64, 48, EDataType::UByte, EPixelType::RGBA);
    CQxDeviceImage2D xDevice(xFormat);
    CQxPageLockedImage xHost(xFormat);
    xDevice.SetZero();
    xDevice.CopyToAsync(&xHost, pStream);
    if (bWait)
    {
        CheckCuda(cudaStreamSynchronize(pStream), {"RaceProgram", "main"}, "Error");
    }
    else
    {
        // Long enough for the copy to be done, which makes the read no more legal.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    const int iFirst = *static_cast<volatile unsigned char*>(xHost.GetDataPtr());
    std::printf("first byte %d\n", iFirst);
    CheckCuda(cudaStreamDestroy(pStream), {"RaceProgram", "main"}, "Error");
    return iFirst;
}
