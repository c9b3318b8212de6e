#include <array>
#include <cstdlib>
#include <functional>

#include <cuda_runtime.h>
#include <gtest/gtest.h>

#include "Support/AllocationCounter.h"

namespace Qx::Test
{

namespace
{

int AllocationsOf(const std::function<cudaError_t()>& Make)
{
    const std::uint64_t uBefore = CountAllocations();
    const cudaError_t eError = Make();
    const std::uint64_t uAfter = CountAllocations();
    EXPECT_EQ(eError, cudaSuccess);
    return static_cast<int>(uAfter - uBefore);
}

__constant__ int g_vSymbol[4];

TEST(Allocations, CallsOfASteadyFrameLoopMakeNone)
{
    void* pMemory = nullptr;
    std::size_t nPitch = 0;
    cudaStream_t hStream = nullptr;
    cudaEvent_t hEvent = nullptr;
    ASSERT_EQ(cudaMallocPitch(&pMemory, &nPitch, 64, 64), cudaSuccess);
    ASSERT_EQ(cudaStreamCreate(&hStream), cudaSuccess);
    ASSERT_EQ(cudaEventCreate(&hEvent), cudaSuccess);
    std::array<unsigned char, 64 * 64> vHost{};
    int iDevice = 0;
    std::size_t nFree = 0;
    std::size_t nTotal = 0;
    const std::pair<const char*, std::function<cudaError_t()>> vCases[] = {
        {"cudaGetDevice", [&] { return cudaGetDevice(&iDevice); }},
        {"cudaSetDevice", [&] { return cudaSetDevice(0); }},
        {"cudaGetLastError", [&] { return cudaGetLastError(); }},
        {"cudaMemGetInfo", [&] { return cudaMemGetInfo(&nFree, &nTotal); }},
        {"cudaMemcpy", [&] { return cudaMemcpy(pMemory, vHost.data(), 64, cudaMemcpyHostToDevice); }},
        {"cudaMemcpy2D",
            [&] { return cudaMemcpy2D(pMemory, nPitch, vHost.data(), 64, 64, 64, cudaMemcpyHostToDevice); }},
        {"cudaMemset", [&] { return cudaMemset(pMemory, 0, 64); }},
        {"cudaMemset2D", [&] { return cudaMemset2D(pMemory, nPitch, 0, 64, 64); }},
        {"cudaMemcpyToSymbol", [&] { return cudaMemcpyToSymbol(g_vSymbol, vHost.data(), 16); }},
        {"cudaEventRecord", [&] { return cudaEventRecord(hEvent, nullptr); }},
        {"cudaEventSynchronize", [&] { return cudaEventSynchronize(hEvent); }},
        {"cudaStreamSynchronize", [&] { return cudaStreamSynchronize(hStream); }},
        {"cudaStreamSynchronize of null", [&] { return cudaStreamSynchronize(nullptr); }},
        {"cudaDeviceSynchronize", [&] { return cudaDeviceSynchronize(); }},
    };
    // Once on fresh streams and once when work has passed through them.
    for (int iTime = 0; iTime < 2; ++iTime)
    {
        for (const auto& [pcName, Make] : vCases)
        {
            EXPECT_EQ(AllocationsOf(Make), 0) << pcName;
        }
        EXPECT_GT(AllocationsOf([&] { return cudaMemsetAsync(pMemory, 1, 64, hStream); }), 0)
            << "queued work is allocated: the count works";
        EXPECT_EQ(cudaMemsetAsync(pMemory, 1, 64, nullptr), cudaSuccess);
        EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
        EXPECT_EQ(cudaStreamSynchronize(hStream), cudaSuccess);
    }
    EXPECT_EQ(cudaEventDestroy(hEvent), cudaSuccess);
    EXPECT_EQ(cudaStreamDestroy(hStream), cudaSuccess);
    EXPECT_EQ(cudaFree(pMemory), cudaSuccess);
}

} // namespace

} // namespace Qx::Test
