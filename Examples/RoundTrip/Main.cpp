// Sends a picture to the device, through a second image on the device, and back, and proves that every byte survived.

#include <cstdio>
#include <cstring>
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

constexpr int c_iRounds = 10;
constexpr const char* c_pcHelp = R"(usage: qx_roundtrip [INPUT] [-o OUTPUT.png]

Uploads a picture to the device, copies it there into packed rows and from them into a second image, downloads that,
compares every byte and writes it as PNG. Prints the platform, the image's format and pitch, the time of each step and
the memory pool.

  INPUT          PNG, JPEG, BMP, binary PGM or PPM; a test chart is drawn when it is left out
  -o OUTPUT.png  where the result goes (default: roundtrip.png)
  --help         this text
)";

void _RoundTrip(const SCommandLine& xLine)
{
    const std::string sOutput = xLine.Setting("-o", "roundtrip.png");
    const CQxImage xPicture = xLine.vInputs.empty() ? DrawTestChart(1250, 833) : ReadPicture(xLine.vInputs[0]);
    const CQxImageFormat& xFormat = xPicture.GetFormat();
    const std::size_t nBytes = xPicture.GetBufferSize();
    const std::size_t nRowBytes =
        static_cast<std::size_t>(xFormat.iWidth) * static_cast<std::size_t>(xFormat.GetBytesPerPixel());
    PrintPlatform();

    CStepTimer xUpload("host -> device");
    CStepTimer xPack("device -> packed rows");
    CStepTimer xCopy("packed rows -> device");
    CStepTimer xDownload("device -> host");
    std::size_t nPitch = 0;
    CQxImage xResult(xFormat);
    for (int iRound = 0; iRound < c_iRounds; ++iRound)
    {
        // New images in every round, as for a stream of frames: from the second round on the pool has their memory.
        CQxDeviceImage2D xFirst;
        CQxDeviceImage1D xPacked;
        CQxDeviceImage2D xSecond;
        xUpload.Run([&] { xFirst.Create(xPicture); });
        nPitch = xFirst.GetDesc().nPitch;
        xPack.Run([&] { xFirst.CopyTo(xPacked); });
        xCopy.Run([&] { xSecond.Create(xPacked); });
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
    std::printf(
        "result    all %zu bytes are the same after %d rounds; written to %s\n", nBytes, c_iRounds, sOutput.c_str());
}

} // namespace

int main(int iArguments, char** ppcArguments)
{
    return RunProgram({"qx_roundtrip", c_pcHelp, {"-o"}, 1}, iArguments, ppcArguments, _RoundTrip);
}
