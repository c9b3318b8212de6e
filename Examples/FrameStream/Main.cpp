// Sends a stream of frames through the device, once frame by frame and once overlapped, and compares speed and results.

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "Common/PictureFile.h"
#include "Common/Program.h"
#include "Common/TestChart.h"
#include "FrameStream/Pipeline.h"

namespace
{

using namespace Qx;
using namespace Qx::Examples;

constexpr const char* c_pcHelp = R"(usage: qx_framestream [INPUT...] [-n FRAMES] [-o OUTPUT.png]

Sharpens a stream of frames on the device with a kernel of its own: once with blocking transfers, one frame after the
other, and once through a ring of page-locked images on two streams, where the upload, the kernel and the download of
different frames overlap. Prints the frames per second of both, compares all results, and writes the last frame as PNG.

  INPUT...       PNG, JPEG, BMP, binary PGM or PPM, shown in turn, each a bit further to the side than the time before;
                 a test chart is drawn when none is given
  -n FRAMES      how many frames, 1 to 100000 (default: 100)
  -o OUTPUT.png  where the last frame goes (default: sharpened.png)
  --help         this text
)";

// The pictures in turn, each time moved to the left by some columns, which come back at the right.
void _MakeFrame(const std::vector<CQxImage>& vPictures, int iFrame, IImage& xImage)
{
    const CQxImage& xPicture = vPictures[static_cast<std::size_t>(iFrame) % vPictures.size()];
    const CQxImageFormat& xFormat = xPicture.GetFormat();
    const auto nRow = static_cast<std::size_t>(xFormat.iWidth) * 4;
    const std::size_t nShift = static_cast<std::size_t>(iFrame) * 8 % static_cast<std::size_t>(xFormat.iWidth) * 4;
    xImage.Create(xFormat.iWidth, xFormat.iHeight, xFormat.ePixelType, xFormat.eDataType);
    auto* puTarget = static_cast<unsigned char*>(xImage.GetDataPtr());
    const auto* puSource = static_cast<const unsigned char*>(xPicture.GetDataPtr());
    for (int y = 0; y < xFormat.iHeight; ++y, puTarget += nRow, puSource += nRow)
    {
        std::memcpy(puTarget, puSource + nShift, nRow - nShift);
        std::memcpy(puTarget + nRow - nShift, puSource, nShift);
    }
}

// A sum that depends on every byte and its place (FNV-1a over words of four bytes).
std::uint64_t _Sum(const IImage& xImage)
{
    const auto nWords = static_cast<std::size_t>(GetImageFormat(xImage).GetExactByteCount() / 4);
    const auto* pPixels = static_cast<const unsigned char*>(xImage.GetDataPtr());
    std::uint64_t uSum = 14695981039346656037U;
    for (std::size_t nWord = 0; nWord < nWords; ++nWord)
    {
        std::uint32_t uWord = 0;
        std::memcpy(&uWord, pPixels + nWord * 4, 4);
        uSum = (uSum ^ uWord) * 1099511628211U;
    }
    return uSum;
}

using CRun = void (*)(int, const CFrameSource&, const CFrameSink&);

// Runs one of the two ways, shows where it is, prints how fast it was, and returns the sums of all frames.
std::vector<std::uint64_t> _Run(
    const char* pcName, CRun pRun, const std::vector<CQxImage>& vPictures, int iFrames, CQxImage& xLast)
{
    const bool bTerminal = isatty(STDOUT_FILENO) != 0;
    std::vector<std::uint64_t> vSums;
    const auto xStart = std::chrono::steady_clock::now();
    pRun(
        iFrames, [&](int iFrame, IImage& xImage) { _MakeFrame(vPictures, iFrame, xImage); },
        [&](int iFrame, const IImage& xImage)
        {
            vSums.push_back(_Sum(xImage));
            if (iFrame + 1 == iFrames)
            {
                xLast.Create(GetImageFormat(xImage));
                std::memcpy(xLast.GetDataPtr(), xImage.GetDataPtr(), xLast.GetBufferSize());
            }
            if (bTerminal)
            {
                std::printf("\r%-9s frame %d of %d", pcName, iFrame + 1, iFrames);
                std::fflush(stdout);
            }
        });
    const double fSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - xStart).count();
    std::printf("%s%-9s %d frames in %.3f s, %.1f frames per second\n", bTerminal ? "\r" : "", pcName, iFrames,
        fSeconds, iFrames / fSeconds);
    return vSums;
}

int _FrameCount(const std::string& sText)
{
    char* pcEnd = nullptr;
    const long iFrames = std::strtol(sText.c_str(), &pcEnd, 10);
    if (*pcEnd != '\0' || iFrames < 1 || iFrames > 100000)
    {
        throw std::runtime_error("'" + sText + "' is no number of frames from 1 to 100000");
    }
    return static_cast<int>(iFrames);
}

void _StreamPictures(const SCommandLine& xLine)
{
    const int iFrames = _FrameCount(xLine.Setting("-n", "100"));
    std::vector<CQxImage> vPictures;
    for (const std::string& sInput : xLine.vInputs)
    {
        vPictures.push_back(ReadPicture(sInput));
    }
    if (vPictures.empty())
    {
        vPictures.push_back(DrawTestChart(1250, 833));
    }
    PrintPlatform();
    std::printf("ring      %d frames on their way, 2 streams\n", c_iRing);
    CQxImage xLast;
    ProcessFramesInTurn(
        1, [&](int iFrame, IImage& xImage) { _MakeFrame(vPictures, iFrame, xImage); },
        [](int, const IImage&) {}); // the first kernel and the first memory of a process take longer
    const auto vInTurn = _Run("blocking", ProcessFramesInTurn, vPictures, iFrames, xLast);
    const auto vStreamed = _Run("streamed", StreamFrames, vPictures, iFrames, xLast);
    if (vInTurn != vStreamed)
    {
        throw std::runtime_error("the two ways have different results");
    }
    const std::string sOutput = xLine.Setting("-o", "sharpened.png");
    WritePng(sOutput, xLast);
    std::printf(
        "result    all %d frames are the same both ways; the last one written to %s\n", iFrames, sOutput.c_str());
}

} // namespace

int main(int iArguments, char** ppcArguments)
{
    return RunProgram({"qx_framestream", c_pcHelp, {"-n", "-o"}, 1000}, iArguments, ppcArguments, _StreamPictures);
}
