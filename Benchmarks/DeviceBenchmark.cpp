// What only a GPU can show: the pool beside the allocators that a client could use instead, and transfers beside the
// rates of the link and of the device's memory.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>

#include <benchmark/benchmark.h>
#include <cub/util_allocator.cuh>

#include "Qx.Cuda/QxCuda.h"

namespace
{

using namespace Qx;

constexpr std::size_t c_nRowBytes = 1920 * 4;
constexpr std::size_t c_nRows = 1080;

void _Expect(benchmark::State& xState, cudaError_t eResult)
{
    if (eResult != cudaSuccess)
    {
        xState.SkipWithError(cudaGetErrorString(eResult));
    }
}

// A block for a picture, asked for and given back, as an image of one frame does.
void _PoolHit(benchmark::State& xState)
{
    for ([[maybe_unused]] auto _ : xState)
    {
        GPU::CCudaMemoryPitchResource xBlock = GPU::CResourceManager::GetCudaMemoryPitch(c_nRowBytes, c_nRows);
        GPU::CResourceManager::ReleaseResource(xBlock, false);
    }
}

void _MallocPitch(benchmark::State& xState)
{
    for ([[maybe_unused]] auto _ : xState)
    {
        void* pBlock = nullptr;
        std::size_t nPitch = 0;
        _Expect(xState, cudaMallocPitch(&pBlock, &nPitch, c_nRowBytes, c_nRows));
        _Expect(xState, cudaFree(pBlock));
    }
}

void _MallocAsync(benchmark::State& xState)
{
    // The driver's own pool keeps what it is given instead of returning it at every synchronisation.
    cudaMemPool_t pPool = nullptr;
    std::uint64_t uKeep = UINT64_MAX;
    _Expect(xState, cudaDeviceGetDefaultMemPool(&pPool, 0));
    _Expect(xState, cudaMemPoolSetAttribute(pPool, cudaMemPoolAttrReleaseThreshold, &uKeep));
    for ([[maybe_unused]] auto _ : xState)
    {
        void* pBlock = nullptr;
        _Expect(xState, cudaMallocAsync(&pBlock, c_nRowBytes * c_nRows, nullptr));
        _Expect(xState, cudaFreeAsync(pBlock, nullptr));
    }
    _Expect(xState, cudaStreamSynchronize(nullptr));
}

void _CubAllocator(benchmark::State& xState)
{
    cub::CachingDeviceAllocator xAllocator;
    for ([[maybe_unused]] auto _ : xState)
    {
        void* pBlock = nullptr;
        _Expect(xState, xAllocator.DeviceAllocate(&pBlock, c_nRowBytes * c_nRows));
        _Expect(xState, xAllocator.DeviceFree(pBlock));
    }
}

BENCHMARK(_PoolHit)->Name("Device/Allocate/pool");
BENCHMARK(_MallocPitch)->Name("Device/Allocate/cudaMallocPitch");
BENCHMARK(_MallocAsync)->Name("Device/Allocate/cudaMallocAsync");
BENCHMARK(_CubAllocator)->Name("Device/Allocate/cub");

// Steps that move the bytes of a 4096 x 4096 picture and wait for it; reported as bytes per second.
struct SLarge
{
    static constexpr CQxImageFormat c_xFormat{4096, 4096, EDataType::UByte, EPixelType::RGBA};
    static constexpr std::size_t c_nBytes = std::size_t{4096} * 4096 * 4;

    CQxImage xHost{c_xFormat};
    CQxPageLockedImage xPageLocked{c_xFormat};
    CQxDeviceImage2D xFirst{xHost};
    CQxDeviceImage2D xSecond{xHost};
};

template <typename TStep>
void _RegisterMove(const char* pcName, std::size_t nBytes, TStep xStep)
{
    benchmark::RegisterBenchmark(pcName,
        [nBytes, xStep](benchmark::State& xState)
        {
            SLarge x;
            for ([[maybe_unused]] auto _ : xState)
            {
                _Expect(xState, xStep(x));
                _Expect(xState, cudaStreamSynchronize(nullptr));
            }
            xState.SetBytesProcessed(
                static_cast<std::int64_t>(xState.iterations()) * static_cast<std::int64_t>(nBytes));
        })
        ->UseRealTime();
}

} // namespace

int main(int iArguments, char** ppcArguments)
{
    constexpr std::size_t c_nBytes = SLarge::c_nBytes;
    _RegisterMove("Device/Upload/ordinary", c_nBytes, [](SLarge& x) { return x.xFirst.Create(x.xHost), cudaSuccess; });
    _RegisterMove("Device/Upload/page-locked", c_nBytes,
        [](SLarge& x) { return x.xFirst.CreateAsync(&x.xPageLocked, nullptr), cudaSuccess; });
    _RegisterMove("Device/Upload/link", c_nBytes,
        [](SLarge& x)
        {
            return cudaMemcpyAsync(
                x.xFirst.GetDevicePointer(), x.xPageLocked.GetDataPtr(), c_nBytes, cudaMemcpyHostToDevice, nullptr);
        });
    _RegisterMove(
        "Device/Download/ordinary", c_nBytes, [](SLarge& x) { return x.xFirst.CopyTo(x.xHost), cudaSuccess; });
    _RegisterMove("Device/Download/page-locked", c_nBytes,
        [](SLarge& x) { return x.xFirst.CopyToAsync(&x.xPageLocked, nullptr), cudaSuccess; });
    _RegisterMove("Device/Download/link", c_nBytes,
        [](SLarge& x)
        {
            return cudaMemcpyAsync(
                x.xPageLocked.GetDataPtr(), x.xFirst.GetDevicePointer(), c_nBytes, cudaMemcpyDeviceToHost, nullptr);
        });
    // Every byte is read and written.
    _RegisterMove("Device/Copy/image", 2 * c_nBytes, [](SLarge& x) { return x.xFirst.CopyTo(x.xSecond), cudaSuccess; });
    _RegisterMove("Device/Copy/memory", 2 * c_nBytes,
        [](SLarge& x)
        {
            return cudaMemcpyAsync(
                x.xSecond.GetDevicePointer(), x.xFirst.GetDevicePointer(), c_nBytes, cudaMemcpyDeviceToDevice, nullptr);
        });
    benchmark::Initialize(&iArguments, ppcArguments);
    if (benchmark::ReportUnrecognizedArguments(iArguments, ppcArguments))
    {
        return EXIT_FAILURE;
    }
    return benchmark::RunSpecifiedBenchmarks() > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
