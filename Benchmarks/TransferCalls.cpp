// Makes a number of transfers, by the library or by the bare CUDA call, for a tool that counts instructions: both run
// through the same preparations, so that the difference of two runs is what the library adds.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Qx.Cuda/QxCuda.h"

namespace
{

using namespace Qx;

void _Transfer(CQxDeviceImage2D& xDevice, CQxImage& xHost, bool bUpload, bool bLibrary)
{
    if (bLibrary)
    {
        bUpload ? xDevice.Create(xHost) : xDevice.CopyTo(xHost);
        return;
    }
    const SDeviceImageDesc2D xDesc = xDevice.GetDesc();
    const std::size_t nRowBytes = static_cast<std::size_t>(xDesc.xFormat.iWidth) * 4;
    const auto nRows = static_cast<std::size_t>(xDesc.xFormat.iHeight);
    CheckCuda(bUpload ? cudaMemcpy2D(xDesc.pData, xDesc.nPitch, xHost.GetDataPtr(), nRowBytes, nRowBytes, nRows,
                            cudaMemcpyHostToDevice)
                      : cudaMemcpy2D(xHost.GetDataPtr(), nRowBytes, xDesc.pData, xDesc.nPitch, nRowBytes, nRows,
                            cudaMemcpyDeviceToHost),
        {"Benchmarks/TransferCalls", "main"}, "Error copying");
}

} // namespace

int main(int iArguments, char** ppcArguments)
{
    if (iArguments != 6)
    {
        std::fputs("usage: qx_transfer_calls Upload|Download library|bare WIDTH HEIGHT CALLS\n", stderr);
        return EXIT_FAILURE;
    }
    const bool bUpload = std::strcmp(ppcArguments[1], "Upload") == 0;
    const bool bLibrary = std::strcmp(ppcArguments[2], "library") == 0;
    try
    {
        CQxImage xHost(
            CQxImageFormat(std::atoi(ppcArguments[3]), std::atoi(ppcArguments[4]), EDataType::UByte, EPixelType::RGBA));
        CQxDeviceImage2D xDevice(xHost);
        for (int iCall = std::atoi(ppcArguments[5]); iCall > 0; --iCall)
        {
            _Transfer(xDevice, xHost, bUpload, bLibrary);
        }
    }
    catch (const CQxException& xException)
    {
        std::fputs(xException.ToString().ToCString(), stderr);
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
