// Takes the brightness of a picture for the heights of a surface, measures it with a sensor that errs by where it looks
// and how high it finds the surface, and corrects the measurement by a mapping volume of the sensor: all points by a
// kernel, and some of them on the host too.

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "Common/PictureFile.h"
#include "Common/Program.h"
#include "Common/TestChart.h"
#include "HeightCorrection/Kernels.h"
#include "HeightCorrection/Sensor.h"

namespace
{

using namespace Qx;
using namespace Qx::Examples;

constexpr int c_iRounds = 10;
constexpr int c_iProbesAcross = 5;
constexpr int c_iProbesDown = 4;
constexpr const char* c_pcHelp = R"(usage: qx_heightcorrection [INPUT] [-b BEFORE.png] [-o OUTPUT.png]

Takes the brightness of a picture for the heights of a surface, measures them with a sensor that errs, and corrects
them with a kernel that looks the errors up in a mapping volume on the device. Maps some points on the host as well,
which has to give the same bits. Prints these, the times, and how far off the heights are before and after; writes
both height maps as PNG.

  INPUT          PNG, JPEG, BMP, binary PGM or PPM; a test chart is drawn when it is left out
  -b BEFORE.png  where the measured heights go (default: measured.png)
  -o OUTPUT.png  where the corrected heights go (default: corrected.png)
  --help         this text
)";

void _WriteHeights(const std::string& sPath, const CQxImage& xHeights)
{
    const CQxImageFormat& xFormat = xHeights.GetFormat();
    CQxImage xPicture(CQxImageFormat(xFormat.iWidth, xFormat.iHeight, EDataType::UByte, EPixelType::RGBA));
    const auto* pfHeight = static_cast<const float*>(xHeights.GetDataPtr());
    auto* puByte = static_cast<unsigned char*>(xPicture.GetDataPtr());
    for (std::size_t nByte = 0; nByte < xPicture.GetBufferSize(); ++nByte)
    {
        const long iGrey = std::lround(pfHeight[nByte / 4]);
        puByte[nByte] = nByte % 4 == 3 ? 255 : static_cast<unsigned char>(std::min(std::max(iGrey, 0L), 255L));
    }
    WritePng(sPath, xPicture);
}

// Root of the mean squared difference.
double _Rms(const CQxImage& xLeft, const CQxImage& xRight)
{
    const auto* pfLeft = static_cast<const float*>(xLeft.GetDataPtr());
    const auto* pfRight = static_cast<const float*>(xRight.GetDataPtr());
    const std::size_t nPixels = xLeft.GetBufferSize() / sizeof(float);
    double dSum = 0.0;
    for (std::size_t nPixel = 0; nPixel < nPixels; ++nPixel)
    {
        const double dDifference = pfLeft[nPixel] - pfRight[nPixel];
        dSum += dDifference * dDifference;
    }
    return std::sqrt(dSum / static_cast<double>(nPixels));
}

// Maps points all over the measured map on the host; what the kernel made of them must be the same to the last bit.
void _CompareProbes(CQxDeviceMapping3D& xMapping, const CQxImage& xMeasured, const CQxImage& xCorrected)
{
    const CQxImageFormat& xFormat = xMeasured.GetFormat();
    for (int iProbe = 0; iProbe < c_iProbesAcross * c_iProbesDown; ++iProbe)
    {
        const int x = (xFormat.iWidth - 1) * (iProbe % c_iProbesAcross) / (c_iProbesAcross - 1);
        const int y = (xFormat.iHeight - 1) * (iProbe / c_iProbesAcross) / (c_iProbesDown - 1);
        const std::size_t nPixel =
            static_cast<std::size_t>(y) * static_cast<std::size_t>(xFormat.iWidth) + static_cast<std::size_t>(x);
        const float fMeasured = static_cast<const float*>(xMeasured.GetDataPtr())[nPixel];
        const float fCorrected = static_cast<const float*>(xCorrected.GetDataPtr())[nPixel];
        float fX = static_cast<float>(x) + 0.5F;
        float fY = static_cast<float>(y) + 0.5F;
        float fZ = fMeasured;
        xMapping.Map(fX, fY, fZ);
        if (std::bit_cast<std::uint32_t>(fZ) != std::bit_cast<std::uint32_t>(fCorrected))
        {
            throw std::runtime_error("the kernel and the host correct a height differently: " +
                std::to_string(fCorrected) + " and " + std::to_string(fZ));
        }
        if (iProbe % 7 == 0)
        {
            std::printf("probe     x %.1f, y %.1f: height %.3f -> %.3f\n", fX, fY, fMeasured, fZ);
        }
    }
}

void _Correct(const SCommandLine& xLine)
{
    const CQxImage xPicture = xLine.vInputs.empty() ? DrawTestChart(1250, 833) : ReadPicture(xLine.vInputs[0]);
    const CQxImage xSurface = MakeSurface(xPicture);
    const CQxImage xMeasured = Measure(xSurface);
    const CQxMapping3D xMapping = MakeCorrection(xSurface.GetFormat());
    PrintPlatform();

    CQxCudaComp xComp;
    xComp.EvalKernelDim_2D_1D(xMeasured.GetFormat(), 32, 8);
    CQxDeviceMapping3D xDeviceMapping;
    CQxDeviceImage2D xDeviceMeasured(xMeasured);
    CQxDeviceImage2D xDeviceCorrected(xMeasured.GetFormat());
    CQxImage xCorrected;
    CStepTimer xUpload("upload the mapping");
    CStepTimer xKernel("correct the heights");
    CStepTimer xDownload("download the heights");
    for (int iRound = 0; iRound < c_iRounds; ++iRound)
    {
        xUpload.Run([&] { xDeviceMapping.Create(xMapping); });
        xKernel.Run([&]
            { CorrectHeights(xComp, xDeviceMeasured, xDeviceCorrected, Describe(xMapping, xDeviceMapping), nullptr); });
        xDownload.Run([&] { xDeviceCorrected.CopyTo(xCorrected); });
    }

    const auto& vCounts = xMapping.GetCellCounts();
    std::printf(
        "mapping   %d x %d x %d cells, %u bytes\n", vCounts[0], vCounts[1], vCounts[2], xMapping.GetByteCount());
    xUpload.Print(xMapping.GetByteCount());
    xKernel.Print(2 * xMeasured.GetBufferSize());
    xDownload.Print(xCorrected.GetBufferSize());
    _CompareProbes(xDeviceMapping, xMeasured, xCorrected);
    const std::string sBefore = xLine.Setting("-b", "measured.png");
    const std::string sOutput = xLine.Setting("-o", "corrected.png");
    _WriteHeights(sBefore, xMeasured);
    _WriteHeights(sOutput, xCorrected);
    std::printf("result    %d probes agree to the last bit; RMS error %.2f before, %.2f after; written to %s and %s\n",
        c_iProbesAcross * c_iProbesDown, _Rms(xSurface, xMeasured), _Rms(xSurface, xCorrected), sBefore.c_str(),
        sOutput.c_str());
}

} // namespace

int main(int iArguments, char** ppcArguments)
{
    return RunProgram({"qx_heightcorrection", c_pcHelp, {"-b", "-o"}, 1}, iArguments, ppcArguments, _Correct);
}
