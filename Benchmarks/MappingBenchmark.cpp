// What the library adds to the copies of a mapping volume, and what mapping one point on the host costs.

#include <array>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "Qx.Cuda/QxCuda.h"
#include "Support/AllocationCounter.h"

namespace
{

using namespace Qx;

// A volume on the host and on the device.
struct SVolume
{
    explicit SVolume(int iCount)
    {
        const auto fExtent = static_cast<float>(iCount);
        xHost.Create(0, 0, 0, fExtent, fExtent, fExtent, iCount, iCount, iCount, nullptr);
        for (std::uint32_t uCell = 0; uCell < xHost.GetByteCount() / sizeof(float); ++uCell)
        {
            xHost.GetDataPtr()[uCell] = static_cast<float>(uCell % 7);
        }
        xHost.SetName("Volume");
        xDevice.Create(xHost);
    }

    CQxMapping3D xHost;
    CQxDeviceMapping3D xDevice;
};

// One volume a size, so that the library and the bare call move the same memory.
SVolume& _GetVolume(int iCount)
{
    static std::map<int, SVolume> s_xVolumes;
    return s_xVolumes.try_emplace(iCount, iCount).first->second;
}

void _Expect(benchmark::State& xState, cudaError_t eResult)
{
    if (eResult != cudaSuccess)
    {
        xState.SkipWithError(cudaGetErrorString(eResult));
    }
}

void _CreateByLibrary(benchmark::State&, SVolume& xVolume)
{
    xVolume.xDevice.Create(xVolume.xHost);
}

void _CreateBare(benchmark::State& xState, SVolume& xVolume)
{
    _Expect(xState,
        cudaMemcpy(xVolume.xDevice.GetDevicePointer(), xVolume.xHost.GetDataPtr(), xVolume.xHost.GetByteCount(),
            cudaMemcpyHostToDevice));
}

void _DownloadByLibrary(benchmark::State&, SVolume& xVolume)
{
    xVolume.xDevice.Download(xVolume.xHost);
}

void _DownloadBare(benchmark::State& xState, SVolume& xVolume)
{
    _Expect(xState,
        cudaMemcpy(xVolume.xHost.GetDataPtr(), xVolume.xDevice.GetDevicePointer(), xVolume.xHost.GetByteCount(),
            cudaMemcpyDeviceToHost));
}

template <typename TStep>
void _Register(const std::string& sName, int iCount, TStep xStep)
{
    benchmark::RegisterBenchmark(sName.c_str(),
        [iCount, xStep](benchmark::State& xState)
        {
            SVolume& xVolume = _GetVolume(iCount);
            const std::uint64_t uBefore = Test::CountAllocations();
            for ([[maybe_unused]] auto _ : xState)
            {
                xStep(xState, xVolume);
                benchmark::ClobberMemory();
            }
            xState.counters["allocations"] = static_cast<double>(Test::CountAllocations() - uBefore);
        });
}

// Points all over the box, in no order.
const std::vector<std::array<float, 3>>& _Points(int iCount)
{
    static std::map<int, std::vector<std::array<float, 3>>> s_xPoints;
    std::vector<std::array<float, 3>>& vPoints = s_xPoints[iCount];
    std::mt19937 xRandom(1);
    std::uniform_real_distribution<float> xCoordinate(0.01F, static_cast<float>(iCount) - 0.01F);
    while (vPoints.size() < 4096)
    {
        vPoints.push_back({xCoordinate(xRandom), xCoordinate(xRandom), xCoordinate(xRandom)});
    }
    return vPoints;
}

void _MapByLibrary(benchmark::State& xState, int iCount)
{
    CQxDeviceMapping3D& xMapping = _GetVolume(iCount).xDevice;
    const auto& vPoints = _Points(iCount);
    std::size_t nPoint = 0;
    for ([[maybe_unused]] auto _ : xState)
    {
        auto vPoint = vPoints[nPoint++ % 4096];
        xMapping.Map(vPoint[0], vPoint[1], vPoint[2]);
        benchmark::DoNotOptimize(vPoint);
    }
}

// The look-up alone, for cells of size 1: nothing is divided, tested or promised.
void _MapBare(benchmark::State& xState, int iCount)
{
    const float* const pfValues = _GetVolume(iCount).xDevice.GetDevicePointer();
    const auto& vPoints = _Points(iCount);
    std::size_t nPoint = 0;
    for ([[maybe_unused]] auto _ : xState)
    {
        auto vPoint = vPoints[nPoint++ % 4096];
        vPoint[2] += pfValues[(static_cast<int>(vPoint[2]) * iCount + static_cast<int>(vPoint[0])) * iCount +
            static_cast<int>(vPoint[1])];
        benchmark::DoNotOptimize(vPoint);
    }
}

} // namespace

int main(int iArguments, char** ppcArguments)
{
    for (const int iCount : {16, 64, 128})
    {
        const std::string sCount = std::to_string(iCount);
        _Register("Mapping/Create/" + sCount + "/library", iCount, _CreateByLibrary);
        _Register("Mapping/Create/" + sCount + "/bare", iCount, _CreateBare);
        _Register("Mapping/Download/" + sCount + "/library", iCount, _DownloadByLibrary);
        _Register("Mapping/Download/" + sCount + "/bare", iCount, _DownloadBare);
        benchmark::RegisterBenchmark(("Mapping/Map/" + sCount + "/library").c_str(), _MapByLibrary, iCount);
        benchmark::RegisterBenchmark(("Mapping/Map/" + sCount + "/bare").c_str(), _MapBare, iCount);
    }
    benchmark::Initialize(&iArguments, ppcArguments);
    if (benchmark::ReportUnrecognizedArguments(iArguments, ppcArguments))
    {
        return EXIT_FAILURE;
    }
    return benchmark::RunSpecifiedBenchmarks() > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
