// What the pool saves: a request that an idle block answers against the runtime's own allocation, with few and many
// idle blocks, on one thread and on several.

#include <cstddef>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <cuda_runtime_api.h>

#include "Qx.GPU.ResourceManager/ResourceManager.h"

namespace
{

using Qx::GPU::CCudaMemoryPitchResource;
using Qx::GPU::CResourceManager;

// An image of a video stream, and how many of them the threads of a run can hold at once.
constexpr std::size_t c_nWidth = 2560;
constexpr std::size_t c_nRows = 480;
constexpr int c_nMaxThreads = 4;

// The i-th of the idle blocks that are not asked for; each of a size of its own.
CCudaMemoryPitchResource _LendOther(std::size_t nIndex)
{
    return CResourceManager::GetCudaMemoryPitch(nIndex % 500 + 1, nIndex / 500 + 1);
}

// Leaves the pool with one idle block for every thread and with others up to the number of the first argument.
void _FillPool(const benchmark::State& xState)
{
    CResourceManager::Trim(0);
    std::vector<CCudaMemoryPitchResource> vLent;
    for (std::size_t nIndex = 1; nIndex < static_cast<std::size_t>(xState.range(0)); ++nIndex)
    {
        vLent.push_back(_LendOther(nIndex));
    }
    for (int iThread = 0; iThread < c_nMaxThreads; ++iThread)
    {
        vLent.push_back(CResourceManager::GetCudaMemoryPitch(c_nWidth, c_nRows));
    }
    for (CCudaMemoryPitchResource& xResource : vLent)
    {
        CResourceManager::ReleaseResource(xResource, false);
    }
}

void _EmptyPool(const benchmark::State&)
{
    CResourceManager::Trim(0);
}

// Every request finds the same block: the pattern of a client that works on one image at a time.
void Hit(benchmark::State& xState)
{
    for ([[maybe_unused]] auto _ : xState)
    {
        CCudaMemoryPitchResource xResource = CResourceManager::GetCudaMemoryPitch(c_nWidth, c_nRows);
        benchmark::DoNotOptimize(xResource.m_pDevice);
        CResourceManager::ReleaseResource(xResource, false);
    }
}

// Every request finds another block, so that the records are not in the processor's cache when there are many.
void HitInTurn(benchmark::State& xState)
{
    const auto nBlocks = static_cast<std::size_t>(xState.range(0));
    std::size_t nIndex = 0;
    for ([[maybe_unused]] auto _ : xState)
    {
        nIndex = nIndex + 1 < nBlocks ? nIndex + 1 : 1;
        CCudaMemoryPitchResource xResource = _LendOther(nIndex);
        benchmark::DoNotOptimize(xResource.m_pDevice);
        CResourceManager::ReleaseResource(xResource, false);
    }
}

void AllocateFree(benchmark::State& xState)
{
    for ([[maybe_unused]] auto _ : xState)
    {
        void* pBlock = nullptr;
        std::size_t nPitch = 0;
        if (cudaMallocPitch(&pBlock, &nPitch, c_nWidth, c_nRows) != cudaSuccess || cudaFree(pBlock) != cudaSuccess)
        {
            xState.SkipWithError("the runtime refused");
            break;
        }
        benchmark::DoNotOptimize(pBlock);
    }
}

} // namespace

BENCHMARK(Hit)
    ->Name("Pool/Hit")
    ->Setup(_FillPool)
    ->Teardown(_EmptyPool)
    ->ArgName("idle")
    ->Arg(1)
    ->Arg(100)
    ->Arg(10000)
    ->Threads(1)
    ->Threads(2)
    ->Threads(c_nMaxThreads);
BENCHMARK(HitInTurn)
    ->Name("Pool/HitInTurn")
    ->Setup(_FillPool)
    ->Teardown(_EmptyPool)
    ->ArgName("idle")
    ->Arg(100)
    ->Arg(10000)
    ->Threads(1);
BENCHMARK(AllocateFree)->Name("Runtime/AllocateFree")->Threads(1)->Threads(2)->Threads(c_nMaxThreads);

BENCHMARK_MAIN();
