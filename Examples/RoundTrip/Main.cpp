// Sends a picture to the device, through a second image on the device, and back, and proves that every byte survived.

#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include "Common/PictureFile.h"
#include "Common/Program.h"
#include "Common/TestChart.h"
#include "Qx.Cuda/QxCuda.h"

namespace
{

using namespace Qx;
using namespace Qx::Examples;

constexpr SThrowSite c_xSite{"Examples/RoundTrip/Main", "main"};
constexpr int c_iRounds = 10;
constexpr const char* c_pcHelp = R"(usage: qx_roundtrip [INPUT] [-o OUTPUT.png]

Uploads a picture to the device, copies it there into a second image, downloads that, compares every byte and
writes it as PNG. Prints the platform, the image's format and pitch, the time of each step and the memory pool.

  INPUT          PNG, JPEG, BMP, binary PGM or PPM; a test chart is drawn when it is left out
  -o OUTPUT.png  where the result goes (default: roundtrip.png)
  --help         this text
)";

struct SDeviceFree
{
    void operator()(void* pDevice) const { cudaFree(pDevice); }
};

// Plain device memory, as a decoder or another library would hand it over: packed rows, unknown to the pool.
std::unique_ptr<void, SDeviceFree> _AllocateOnDevice(std::size_t nBytes)
{
    void* pDevice = nullptr;
    CheckCuda(cudaMalloc(&pDevice, nBytes), c_xSite, "Error allocating device memory");
    return std::unique_ptr<void, SDeviceFree>(pDevice);
}

void _RoundTrip(const SCommandLine& xLine)
{
    const std::string sOutput = xLine.Setting("-o", "roundtrip.png");
    const CQxImage xPicture = xLine.vInputs.empty() ? DrawTestChart(1250, 833) : ReadPicture(xLine.vInputs[0]);
    const CQxImageFormat& xFormat = xPicture.GetFormat();
    const std::size_t nBytes = xPicture.GetBufferSize();
    const std::size_t nRowBytes = static_cast<std::size_t>(xFormat.iWidth * xFormat.GetBytesPerPixel());
    PrintPlatform();

    const auto pPacked = _AllocateOnDevice(nBytes);
    CStepTimer xUpload("host -> device");
    CStepTimer xPack("device -> packed buffer");
    CStepTimer xCopy("packed buffer -> device");
    CStepTimer xDownload("device -> host");
    std::size_t nPitch = 0;
    CQxImage xResult(xFormat);
    for (int iRound = 0; iRound < c_iRounds; ++iRound)
    {
        // New images in every round, as for a stream of frames: from the second round on the pool has their memory.
        CQxDeviceImage2D xFirst;
        CQxDeviceImage2D xSecond;
        xUpload.Run([&] { xFirst.Create(xPicture); });
        // A raw upload reads packed rows, so the row padding of the image has to go first.
        nPitch = xFirst.GetDesc().nPitch;
        xPack.Run(
            [&]
            {
                CheckCuda(cudaMemcpy2D(pPacked.get(), nRowBytes, xFirst.GetDevicePointer(), nPitch, nRowBytes,
                                       static_cast<std::size_t>(xFormat.iHeight), cudaMemcpyDeviceToDevice),
                          c_xSite, "Error packing the image");
            });
        xCopy.Run([&] { xSecond.Create(xFormat, pPacked.get(), true); });
        std::memset(xResult.GetDataPtr(), 0xA5, nBytes); // nothing of the round before can pass for a result
        xDownload.Run([&] { xSecond.CopyTo(xResult); });
        if (std::memcmp(xPicture.GetDataPtr(), xResult.GetDataPtr(), nBytes) != 0)
        {
            throw std::runtime_error("the picture that came back differs from the one that was sent");
        }
    }
    WritePng(sOutput, xResult);

    std::printf("image     %d x %d, %s %s, pitch %zu bytes for rows of %zu\n", xFormat.iWidth, xFormat.iHeight,
                GetPixelTypeName(xFormat.ePixelType), GetDataTypeName(xFormat.eDataType), nPitch, nRowBytes);
    for (const CStepTimer* pTimer : {&xUpload, &xPack, &xCopy, &xDownload})
    {
        pTimer->Print(nBytes);
    }
    const GPU::SPoolStatistics xPool = GPU::CResourceManager::GetStatistics();
    std::printf("pool      %llu hits, %llu misses, %zu blocks in use, %zu idle (%zu bytes)\n",
                static_cast<unsigned long long>(xPool.uHits), static_cast<unsigned long long>(xPool.uMisses),
                xPool.nBlocksInUse, xPool.nBlocksIdle, xPool.nBytesIdle);
    std::printf("result    all %zu bytes are the same after %d rounds; written to %s\n", nBytes, c_iRounds,
                sOutput.c_str());
}

} // namespace

int main(int iArguments, char** ppcArguments)
{
    return RunProgram({"qx_roundtrip", c_pcHelp, {"-o"}, 1}, iArguments, ppcArguments, _RoundTrip);
}
