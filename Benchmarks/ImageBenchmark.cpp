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

// A picture on the host and on the device, in all kinds of images.
struct SFrame
{
    explicit SFrame(const CQxImageFormat& xFormat)
        : xHost(xFormat), xPageLocked(xFormat), xDevice(xHost), xOther(xHost), nPitch(xDevice.GetDesc().nPitch)
    {
        xLinear.Create(xHost);
        xOtherLinear.Create(xHost);
    }

    std::size_t RowBytes() const { return static_cast<std::size_t>(xHost.GetFormat().iWidth) * 4; }
    std::size_t Rows() const { return static_cast<std::size_t>(xHost.GetFormat().iHeight); }

    CQxImage xHost;
    CQxPageLockedImage xPageLocked;
    CQxDeviceImage2D xDevice;
    CQxDeviceImage2D xOther; // with the same pitch
    CQxDeviceImage1D xLinear;
    CQxDeviceImage1D xOtherLinear;
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

// A transfer by the library and the call that it is to cost no more than.
struct STransfer
{
    const char* pcName;
    void (*pLibrary)(SFrame&);
    cudaError_t (*pBare)(SFrame&);
    bool bQueued = false;       // waits for the default stream after each
    bool bSmallAndLarge = true; // is measured for all sizes, not for two
};

cudaError_t _CopyRows(void* pTarget, std::size_t nTargetPitch, const void* pSource, std::size_t nSourcePitch,
    const SFrame& xFrame, cudaMemcpyKind eKind)
{
    return cudaMemcpy2D(pTarget, nTargetPitch, pSource, nSourcePitch, xFrame.RowBytes(), xFrame.Rows(), eKind);
}

cudaError_t _UploadRows(SFrame& x)
{
    return _CopyRows(
        x.xDevice.GetDevicePointer(), x.nPitch, x.xHost.GetDataPtr(), x.RowBytes(), x, cudaMemcpyHostToDevice);
}

cudaError_t _DownloadRows(SFrame& x)
{
    return _CopyRows(
        x.xHost.GetDataPtr(), x.RowBytes(), x.xDevice.GetDevicePointer(), x.nPitch, x, cudaMemcpyDeviceToHost);
}

cudaError_t _CopyBytes(void* pTarget, const void* pSource, const SFrame& x, cudaMemcpyKind eKind)
{
    return cudaMemcpy(pTarget, pSource, x.RowBytes() * x.Rows(), eKind);
}

constexpr STransfer c_axTransfers[] = {{"Upload", [](SFrame& x) { x.xDevice.Create(x.xHost); }, _UploadRows},
    {"Download", [](SFrame& x) { x.xDevice.CopyTo(x.xHost); }, _DownloadRows},
    {"UploadClient", [](SFrame& x) { x.xDevice.Create(static_cast<const IImage*>(&x.xHost)); }, _UploadRows, false,
        false},
    {"DownloadClient", [](SFrame& x) { x.xDevice.CopyTo(static_cast<IImage*>(&x.xHost)); }, _DownloadRows, false,
        false},
    {"UploadQueued", [](SFrame& x) { x.xDevice.CreateAsync(&x.xPageLocked, nullptr); },
        [](SFrame& x)
        {
            return cudaMemcpy2DAsync(x.xDevice.GetDevicePointer(), x.nPitch, x.xPageLocked.GetDataPtr(), x.RowBytes(),
                x.RowBytes(), x.Rows(), cudaMemcpyHostToDevice, nullptr);
        },
        true, false},
    {"DownloadQueued", [](SFrame& x) { x.xDevice.CopyToAsync(&x.xPageLocked, nullptr); },
        [](SFrame& x)
        {
            return cudaMemcpy2DAsync(x.xPageLocked.GetDataPtr(), x.RowBytes(), x.xDevice.GetDevicePointer(), x.nPitch,
                x.RowBytes(), x.Rows(), cudaMemcpyDeviceToHost, nullptr);
        },
        true, false},
    {"2DTo2D", [](SFrame& x) { x.xDevice.CopyTo(x.xOther); },
        [](SFrame& x)
        {
            return _CopyRows(x.xOther.GetDevicePointer(), x.nPitch, x.xDevice.GetDevicePointer(), x.nPitch, x,
                cudaMemcpyDeviceToDevice);
        },
        false, false},
    {"2DTo1D", [](SFrame& x) { x.xDevice.CopyTo(x.xLinear); },
        [](SFrame& x)
        {
            return _CopyRows(x.xLinear.GetDevicePointer(), x.RowBytes(), x.xDevice.GetDevicePointer(), x.nPitch, x,
                cudaMemcpyDeviceToDevice);
        },
        false, false},
    {"1DTo2D", [](SFrame& x) { x.xDevice.Create(x.xLinear); },
        [](SFrame& x)
        {
            return _CopyRows(x.xDevice.GetDevicePointer(), x.nPitch, x.xLinear.GetDevicePointer(), x.RowBytes(), x,
                cudaMemcpyDeviceToDevice);
        },
        false, false},
    {"Upload1D", [](SFrame& x) { x.xLinear.Create(x.xHost); },
        [](SFrame& x)
        { return _CopyBytes(x.xLinear.GetDevicePointer(), x.xHost.GetDataPtr(), x, cudaMemcpyHostToDevice); },
        false, false},
    {"Download1D", [](SFrame& x) { x.xLinear.CopyTo(x.xHost); },
        [](SFrame& x)
        { return _CopyBytes(x.xHost.GetDataPtr(), x.xLinear.GetDevicePointer(), x, cudaMemcpyDeviceToHost); },
        false, false},
    {"1DTo1D", [](SFrame& x) { x.xOtherLinear.Create(x.xLinear); },
        [](SFrame& x) {
            return _CopyBytes(
                x.xOtherLinear.GetDevicePointer(), x.xLinear.GetDevicePointer(), x, cudaMemcpyDeviceToDevice);
        },
        false, false}};

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

// A queued transfer is waited for; the time of the stream's thread counts then, which only the clock shows.
void _RegisterTransfer(const STransfer& xTransfer, std::pair<int, int> xSize)
{
    const auto Register = [&](const char* pcSide, auto xStep)
    {
        const std::string sName = std::string(xTransfer.pcName) + "/" + std::to_string(xSize.first) + "x" +
            std::to_string(xSize.second) + "/" + pcSide;
        auto* const pBenchmark = benchmark::RegisterBenchmark(sName.c_str(),
            [xSize, xStep, bQueued = xTransfer.bQueued](benchmark::State& xState)
            {
                _Measure(xState, xSize,
                    [&](benchmark::State&, SFrame& xFrame)
                    {
                        xStep(xState, xFrame);
                        if (bQueued)
                        {
                            _Expect(xState, cudaStreamSynchronize(nullptr));
                        }
                    });
            });
        if (xTransfer.bQueued)
        {
            pBenchmark->UseRealTime();
        }
    };
    Register("library", [pStep = xTransfer.pLibrary](benchmark::State&, SFrame& xFrame) { pStep(xFrame); });
    Register("bare",
        [pStep = xTransfer.pBare](benchmark::State& xState, SFrame& xFrame) { _Expect(xState, pStep(xFrame)); });
}

} // namespace

int main(int iArguments, char** ppcArguments)
{
    for (const auto& xSize : {std::pair(64, 64), std::pair(640, 480), std::pair(1920, 1080), std::pair(4096, 4096)})
    {
        for (const STransfer& xTransfer : c_axTransfers)
        {
            if (xTransfer.bSmallAndLarge || xSize.first == 640 || xSize.first == 1920)
            {
                _RegisterTransfer(xTransfer, xSize);
            }
        }
    }
    benchmark::RegisterBenchmark("Create/unchanged",
        [](benchmark::State& xState)
        {
            _Measure(xState, {640, 480},
                [](benchmark::State&, SFrame& xFrame) { xFrame.xDevice.Create(xFrame.xHost.GetFormat()); });
        });
    benchmark::Initialize(&iArguments, ppcArguments);
    if (benchmark::ReportUnrecognizedArguments(iArguments, ppcArguments))
    {
        return EXIT_FAILURE;
    }
    return benchmark::RunSpecifiedBenchmarks() > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
