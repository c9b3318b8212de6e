#include <array>
#include <atomic>
#include <cstdlib>
#include <functional>

#include <cuda_runtime.h>
#include <gtest/gtest.h>

namespace
{

std::atomic<bool> g_bCounting{false};
std::atomic<int> g_iAllocations{0};

void CountAllocation()
{
    if (g_bCounting.load(std::memory_order_relaxed))
    {
        g_iAllocations.fetch_add(1, std::memory_order_relaxed);
    }
}

} // namespace

// In place of the C library's, for all libraries of the process.
extern "C" void* __libc_malloc(std::size_t nSize);
extern "C" void* __libc_calloc(std::size_t nCount, std::size_t nSize);
extern "C" void* __libc_realloc(void* pMemory, std::size_t nSize);
#pragma GCC visibility push(default)
extern "C" void* malloc(std::size_t nSize)
{
    CountAllocation();
    return __libc_malloc(nSize);
}
extern "C" void* calloc(std::size_t nCount, std::size_t nSize)
{
    CountAllocation();
    return __libc_calloc(nCount, nSize);
}
extern "C" void* realloc(void* pMemory, std::size_t nSize)
{
    CountAllocation();
    return __libc_realloc(pMemory, nSize);
}
#pragma GCC visibility pop

namespace Qx::Test
{

namespace
{

int CountAllocations(const std::function<cudaError_t()>& Make)
{
    g_iAllocations = 0;
    g_bCounting = true;
    const cudaError_t eError = Make();
    g_bCounting = false;
    EXPECT_EQ(eError, cudaSuccess);
    return g_iAllocations;
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
        {"cudaGetDevice",
         [&]
         {
             return cudaGetDevice(&iDevice);
         }},
        {"cudaSetDevice",
         [&]
         {
             return cudaSetDevice(0);
         }},
        {"cudaGetLastError",
         [&]
         {
             return cudaGetLastError();
         }},
        {"cudaMemGetInfo",
         [&]
         {
             return cudaMemGetInfo(&nFree, &nTotal);
         }},
        {"cudaMemcpy",
         [&]
         {
             return cudaMemcpy(pMemory, vHost.data(), 64, cudaMemcpyHostToDevice);
         }},
        {"cudaMemcpy2D",
         [&]
         {
             return cudaMemcpy2D(pMemory, nPitch, vHost.data(), 64, 64, 64, cudaMemcpyHostToDevice);
         }},
        {"cudaMemset",
         [&]
         {
             return cudaMemset(pMemory, 0, 64);
         }},
        {"cudaMemset2D",
         [&]
         {
             return cudaMemset2D(pMemory, nPitch, 0, 64, 64);
         }},
        {"cudaMemcpyToSymbol",
         [&]
         {
             return cudaMemcpyToSymbol(g_vSymbol, vHost.data(), 16);
         }},
        {"cudaEventRecord",
         [&]
         {
             return cudaEventRecord(hEvent, nullptr);
         }},
        {"cudaEventSynchronize",
         [&]
         {
             return cudaEventSynchronize(hEvent);
         }},
        {"cudaStreamSynchronize",
         [&]
         {
             return cudaStreamSynchronize(hStream);
         }},
        {"cudaStreamSynchronize of null",
         [&]
         {
             return cudaStreamSynchronize(nullptr);
         }},
        {"cudaDeviceSynchronize",
         [&]
         {
             return cudaDeviceSynchronize();
         }},
    };
    // Once on fresh streams and once when work has passed through them.
    for (int iTime = 0; iTime < 2; ++iTime)
    {
        for (const auto& [pcName, Make] : vCases)
        {
            EXPECT_EQ(CountAllocations(Make), 0) << pcName;
        }
        EXPECT_GT(CountAllocations([&] { return cudaMemsetAsync(pMemory, 1, 64, hStream); }), 0)
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
