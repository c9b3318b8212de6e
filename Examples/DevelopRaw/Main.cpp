// Develops the raw frame that a 12-bit sensor behind a Bayer pattern would have made of a picture, with kernels of its
// own, and compares the result with the picture.

#include <cmath>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Common/PictureFile.h"
#include "Common/Program.h"
#include "Common/TestChart.h"
#include "DevelopRaw/Kernels.h"

namespace
{

using namespace Qx;
using namespace Qx::Examples;
using CudaDebug::CQxCudaCompDebug;

constexpr int c_iRounds = 10;
constexpr const char* c_pcHelp = R"(usage: qx_develop [INPUT] [-o OUTPUT.png] [-e EDGES.png]

Makes of a picture the raw frame that a 12-bit Bayer sensor would have seen, develops it on the device with a kernel
of its own, finds the edges of the result with a second one, and writes both as PNG. Prints how close the result
comes to the picture (PSNR), the launch, the clipped pixels that the kernel reported, and the times.

  INPUT          PNG, JPEG, BMP, binary PGM or PPM; a test chart is drawn when it is left out
  -o OUTPUT.png  where the developed picture goes (default: developed.png)
  -e EDGES.png   where the edges go (default: edges.png)
  --help         this text
)";

// One colour a pixel, scaled to 12 bits: red and green in the even rows, green and blue in the odd ones.
CQxImage _MakeRawFrame(const CQxImage& xPicture)
{
    const CQxImageFormat& xFormat = xPicture.GetFormat();
    CQxImage xRaw(CQxImageFormat(xFormat.iWidth, xFormat.iHeight, EDataType::Custom_12in16_LSB, EPixelType::BayerRG));
    const auto* puPixel = static_cast<const unsigned char*>(xPicture.GetDataPtr());
    auto* puSample = static_cast<unsigned short*>(xRaw.GetDataPtr());
    for (int y = 0; y < xFormat.iHeight; ++y)
    {
        for (int x = 0; x < xFormat.iWidth; ++x, puPixel += 4)
        {
            *puSample++ = static_cast<unsigned short>((puPixel[x % 2 + y % 2] * c_iWhite + 127) / 255);
        }
    }
    return xRaw;
}

// Peak signal-to-noise ratio of the three colours in dB; infinite for equal pictures.
double _Psnr(const CQxImage& xLeft, const CQxImage& xRight)
{
    const auto* puLeft = static_cast<const unsigned char*>(xLeft.GetDataPtr());
    const auto* puRight = static_cast<const unsigned char*>(xRight.GetDataPtr());
    double fSum = 0.0;
    for (std::size_t nByte = 0; nByte < xLeft.GetBufferSize(); ++nByte)
    {
        const int iDifference = nByte % 4 == 3 ? 0 : puLeft[nByte] - puRight[nByte]; // not the alpha
        fSum += iDifference * iDifference;
    }
    return 10.0 * std::log10(255.0 * 255.0 * 0.75 * static_cast<double>(xLeft.GetBufferSize()) / fSum);
}

void _PrintLaunch(const CQxCudaComp& xComp)
{
    std::printf("launch    grid [%u, %u, %u], block [%u, %u, %u]\n", xComp.GetGrid().x, xComp.GetGrid().y,
        xComp.GetGrid().z, xComp.GetBlock().x, xComp.GetBlock().y, xComp.GetBlock().z);
}

void _PrintDebugItems()
{
    std::vector<CudaDebug::SItem> vItems;
    CQxCudaCompDebug::GetDebugItems(vItems);
    std::printf(
        "debug     %d clipped pixels, %zu of them recorded\n", CQxCudaCompDebug::GetDebugItemCount(), vItems.size());
    for (std::size_t nItem = 0; nItem < vItems.size() && nItem < 3; ++nItem)
    {
        const auto& aiPosition = vItems[nItem].aiPosition;
        std::printf("          x %d, y %d, sample %d\n", aiPosition[0], aiPosition[1], aiPosition[2]);
    }
}

void _Develop(const SCommandLine& xLine)
{
    const CQxImage xPicture = xLine.vInputs.empty() ? DrawTestChart(1250, 833) : ReadPicture(xLine.vInputs[0]);
    const CQxImage xRaw = _MakeRawFrame(xPicture);
    PrintPlatform();

    // The channel's buffers belong to the process, so somebody has to free them on every way out.
    const std::unique_ptr<CudaDebug::SParameter, void (*)(CudaDebug::SParameter*)> pDebug(
        &CQxCudaCompDebug::GetDebugParams(), [](CudaDebug::SParameter* pParams) { pParams->Delete(); });
    pDebug->Malloc(1000);
    CQxCudaComp xComp;
    xComp.EvalKernelDim_2D_1D(xRaw.GetFormat(), 32, 8);
    xComp.SetDebugKind(c_eReportClipped);

    CQxDeviceImage2D xDeviceRaw;
    CQxDeviceImage2D xDeviceGreen(
        CQxImageFormat(xRaw.GetFormat().iWidth, xRaw.GetFormat().iHeight, EDataType::Float, EPixelType::Lum));
    CQxDeviceImage2D xDevicePicture(xPicture.GetFormat());
    CQxDeviceImage2D xDeviceEdges(xPicture.GetFormat());
    CQxImage xResult;
    CQxImage xEdges;
    CStepTimer xUpload("upload the raw frame");
    CStepTimer xDemosaic("demosaic");
    CStepTimer xDetect("detect edges");
    CStepTimer xDownload("download both pictures");
    for (int iRound = 0; iRound < c_iRounds; ++iRound)
    {
        pDebug->ResetCounter();
        xUpload.Run([&] { xDeviceRaw.Create(xRaw); });
        xDemosaic.Run([&] { Demosaic(xComp, xDeviceRaw, xDeviceGreen, xDevicePicture, nullptr); });
        xDetect.Run([&] { DetectEdges(xComp, xDevicePicture, xDeviceEdges, nullptr); });
        xDownload.Run(
            [&]
            {
                xDevicePicture.CopyTo(xResult);
                xDeviceEdges.CopyTo(xEdges);
            });
    }

    _PrintLaunch(xComp);
    _PrintDebugItems();
    xUpload.Print(xRaw.GetBufferSize());
    xDemosaic.Print(xRaw.GetBufferSize() + xResult.GetBufferSize());
    xDetect.Print(xResult.GetBufferSize() + xEdges.GetBufferSize());
    xDownload.Print(xResult.GetBufferSize() + xEdges.GetBufferSize());
    const std::string sOutput = xLine.Setting("-o", "developed.png");
    const std::string sEdges = xLine.Setting("-e", "edges.png");
    WritePng(sOutput, xResult);
    WritePng(sEdges, xEdges);
    std::printf(
        "result    PSNR %.2f dB; written to %s and %s\n", _Psnr(xPicture, xResult), sOutput.c_str(), sEdges.c_str());
}

} // namespace

int main(int iArguments, char** ppcArguments)
{
    return RunProgram({"qx_develop", c_pcHelp, {"-o", "-e"}, 1}, iArguments, ppcArguments, _Develop);
}
