// What overlapping the steps of a stream of frames gains over one frame after the other.

#include <cstring>

#include <benchmark/benchmark.h>

#include "FrameStream/Pipeline.h"

namespace
{

using namespace Qx;
using namespace Qx::Examples;

constexpr int c_iFrames = 24;

// The host's share of a frame: it writes all of it, and reads all of the result.
void _MakeFrame(int iFrame, IImage& xImage)
{
    xImage.Create(1920, 1080, EPixelType::RGBA, EDataType::UByte);
    std::memset(xImage.GetDataPtr(), iFrame, std::size_t{1920} * 1080 * 4);
}

void _TakeFrame(int, const IImage& xImage)
{
    const auto* pPixels = static_cast<const unsigned char*>(xImage.GetDataPtr());
    std::uint64_t uSum = 0;
    for (std::size_t nByte = 0; nByte < std::size_t{1920} * 1080 * 4; ++nByte)
    {
        uSum += pPixels[nByte];
    }
    benchmark::DoNotOptimize(uSum);
}

void _Measure(benchmark::State& xState, void (*pRun)(int, const CFrameSource&, const CFrameSink&))
{
    for ([[maybe_unused]] auto _ : xState)
    {
        pRun(c_iFrames, _MakeFrame, _TakeFrame);
    }
    xState.counters["frames/s"] =
        benchmark::Counter(static_cast<double>(xState.iterations()) * c_iFrames, benchmark::Counter::kIsRate);
}

BENCHMARK_CAPTURE(_Measure, blocking, ProcessFramesInTurn)->Name("Frames/blocking")->UseRealTime();
BENCHMARK_CAPTURE(_Measure, streamed, StreamFrames)->Name("Frames/streamed")->UseRealTime();

} // namespace

BENCHMARK_MAIN();
