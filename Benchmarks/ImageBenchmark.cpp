// What the library adds to the transfers that it makes, and what keeping an image's memory costs.

#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>

#include <benchmark/benchmark.h>

#include "Qx.Cuda/QxCuda.h"
#include "Support/AllocationCounter.h"

namespace
{

using namespace Qx;

// A picture on the host and on the device.
struct SFrame
{
    explicit SFrame(const CQxImageFormat& xFormat) : xHost(xFormat), xDevice(xHost), nPitch(xDevice.GetDesc().nPitch) {}

    std::size_t RowBytes() const { return static_cast<std::size_t>(xHost.GetFormat().iWidth) * 4; }
    std::size_t Rows() const { return static_cast<std::size_t>(xHost.GetFormat().iHeight); }

    CQxImage xHost;
    CQxDeviceImage2D xDevice;
    std::size_t nPitch;
};

// One frame a size, so that the library and the bare call move the same memory.
SFrame& _GetFrame(std::pair<int, int> xSize)
{
    static std::map<std::pair<int, int>, SFrame> sm_xFrames;
    return sm_xFrames.try_emplace(xSize, CQxImageFormat(xSize.first, xSize.second, EDataType::UByte, EPixelType::RGBA))
        .first->second;
}

void _Expect(benchmark::State& xState, cudaError_t eResult)
{
    if (eResult != cudaSuccess)
    {
        xState.SkipWithError(cudaGetErrorString(eResult));
    }
}

void _UploadByLibrary(benchmark::State&, SFrame& xFrame)
{
    xFrame.xDevice.Create(xFrame.xHost);
}

void _UploadBare(benchmark::State& xState, SFrame& xFrame)
{
    _Expect(xState, cudaMemcpy2D(xFrame.xDevice.GetDevicePointer(), xFrame.nPitch, xFrame.xHost.GetDataPtr(),
                                 xFrame.RowBytes(), xFrame.RowBytes(), xFrame.Rows(), cudaMemcpyHostToDevice));
}

void _DownloadByLibrary(benchmark::State&, SFrame& xFrame)
{
    xFrame.xDevice.CopyTo(xFrame.xHost);
}

void _DownloadBare(benchmark::State& xState, SFrame& xFrame)
{
    _Expect(xState, cudaMemcpy2D(xFrame.xHost.GetDataPtr(), xFrame.RowBytes(), xFrame.xDevice.GetDevicePointer(),
                                 xFrame.nPitch, xFrame.RowBytes(), xFrame.Rows(), cudaMemcpyDeviceToHost));
}

void _CreateUnchanged(benchmark::State&, SFrame& xFrame)
{
    xFrame.xDevice.Create(xFrame.xHost.GetFormat());
}

std::uint64_t _PoolRequests()
{
    const GPU::SPoolStatistics xPool = GPU::CResourceManager::GetStatistics();
    return xPool.uHits + xPool.uMisses;
}

// Runs xStep on the frame of a size over and over; reports how often the heap and the pool were asked for memory
// besides the time.
template <typename TStep>
void _Measure(benchmark::State& xState, std::pair<int, int> xSize, TStep xStep)
{
    SFrame& xFrame = _GetFrame(xSize);
    const std::uint64_t uRequests = _PoolRequests();
    const std::uint64_t uAllocations = Test::CountAllocations();
    for ([[maybe_unused]] auto _ : xState)
    {
        xStep(xState, xFrame);
        benchmark::ClobberMemory();
    }
    const std::uint64_t uAllocated = Test::CountAllocations() - uAllocations;
    const std::uint64_t uRequested = _PoolRequests() - uRequests;
    xState.counters["allocations"] = static_cast<double>(uAllocated + uRequested);
}

template <typename TStep>
void _Register(const std::string& sName, std::pair<int, int> xSize, TStep xStep)
{
    benchmark::RegisterBenchmark(sName.c_str(),
                                 [xSize, xStep](benchmark::State& xState) { _Measure(xState, xSize, xStep); });
}

} // namespace

int main(int iArguments, char** ppcArguments)
{
    for (const auto& xSize : {std::pair(64, 64), std::pair(640, 480), std::pair(1920, 1080), std::pair(4096, 4096)})
    {
        const std::string sSize = std::to_string(xSize.first) + "x" + std::to_string(xSize.second);
        _Register("Upload/" + sSize + "/library", xSize, _UploadByLibrary);
        _Register("Upload/" + sSize + "/bare", xSize, _UploadBare);
        _Register("Download/" + sSize + "/library", xSize, _DownloadByLibrary);
        _Register("Download/" + sSize + "/bare", xSize, _DownloadBare);
    }
    _Register("Create/unchanged", {640, 480}, _CreateUnchanged);
    benchmark::Initialize(&iArguments, ppcArguments);
    if (benchmark::ReportUnrecognizedArguments(iArguments, ppcArguments))
    {
        return EXIT_FAILURE;
    }
    return benchmark::RunSpecifiedBenchmarks() > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
