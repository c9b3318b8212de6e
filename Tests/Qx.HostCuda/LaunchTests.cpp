#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <limits>
#include <numeric>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "HostCudaTest.h"

// Kernels on the host: what a GPU does too is tested with the launch of the library above; here is what only the host
// has, and what a GPU leaves open.

namespace Qx::Test
{

namespace
{

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QX_TEST_ASAN 1
#endif
#if __has_feature(thread_sanitizer)
#define QX_TEST_TSAN 1
#endif
#else
#if defined(__SANITIZE_ADDRESS__)
#define QX_TEST_ASAN 1
#endif
#if defined(__SANITIZE_THREAD__)
#define QX_TEST_TSAN 1
#endif
#endif

constexpr auto c_xPatience = std::chrono::seconds(30);

/// Memory that kernels and the test both use.
template <class T>
class CManaged
{
public:
    explicit CManaged(std::size_t nCount = 1, T xValue = {}) : m_nCount(nCount)
    {
        EXPECT_EQ(cudaMallocManaged(&m_pData, nCount * sizeof(T)), cudaSuccess);
        std::fill_n(m_pData, nCount, xValue);
    }
    ~CManaged() { EXPECT_EQ(cudaFree(m_pData), cudaSuccess); }
    CManaged(const CManaged&) = delete;
    CManaged& operator=(const CManaged&) = delete;
    operator T*() const { return m_pData; }
    T* begin() const { return m_pData; }
    T* end() const { return m_pData + m_nCount; }

private:
    std::size_t m_nCount;
    T* m_pData = nullptr;
};

cudaLaunchConfig_t Configure(const dim3& xGrid, const dim3& xBlock, cudaStream_t hStream = nullptr)
{
    cudaLaunchConfig_t xConfig{};
    xConfig.gridDim = xGrid;
    xConfig.blockDim = xBlock;
    xConfig.stream = hStream;
    return xConfig;
}

template <class TKernel, class... TArguments>
cudaError_t Launch(const dim3& xGrid, const dim3& xBlock, cudaStream_t hStream, TKernel xKernel,
                   TArguments... xArguments)
{
    const cudaLaunchConfig_t xConfig = Configure(xGrid, xBlock, hStream);
    return cudaLaunchKernelEx(&xConfig, xKernel, xArguments...);
}

/// Waits in a kernel until the counter has reached a value; false after too long a time.
bool Await(int* pCounter, int iValue)
{
    const auto xEnd = std::chrono::steady_clock::now() + c_xPatience;
    while (atomicAdd(pCounter, 0) < iValue)
    {
        if (std::chrono::steady_clock::now() > xEnd)
        {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

class Launches : public CHostCudaTest
{
protected:
    void TearDown() override
    {
        EXPECT_EQ(HostCuda::SetLaunchThreads(INT_MAX), cudaSuccess);
        CHostCudaTest::TearDown();
    }

    /// Expects that the device has the fault and works again after a reset.
    static void ExpectFaultAndReset(const char* pcWhat)
    {
        EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaErrorLaunchFailure) << pcWhat;
        EXPECT_EQ(cudaPeekAtLastError(), cudaErrorLaunchFailure) << pcWhat;
        EXPECT_EQ(Launch(1, 1, nullptr, [] {}), cudaErrorLaunchFailure) << pcWhat;
        EXPECT_EQ(cudaDeviceReset(), cudaSuccess) << pcWhat;
        EXPECT_EQ(cudaGetLastError(), cudaSuccess) << pcWhat;
    }
};

struct SSeen
{
    uint3 xThread;
    uint3 xBlock;
    dim3 xBlockDim;
    dim3 xGridDim;
    int iCount;
};

__global__ void See(SSeen* pSeen)
{
    const std::size_t nBlock = blockIdx.x + gridDim.x * (blockIdx.y + static_cast<std::size_t>(gridDim.y) * blockIdx.z);
    const std::size_t nThread = threadIdx.x + blockDim.x * (threadIdx.y + blockDim.y * threadIdx.z);
    SSeen& xSeen = pSeen[nBlock * blockDim.x * blockDim.y * blockDim.z + nThread];
    xSeen = {threadIdx, blockIdx, blockDim, gridDim, atomicAdd(&xSeen.iCount, 1) + 1};
}

TEST_F(Launches, EveryThreadOfEveryBlockRunsOnceWithItsIndices)
{
    const std::pair<dim3, dim3> vCases[] = {
        {{1}, {1}},
        {{7}, {1}},
        {{1}, {1024}},
        {{1000}, {3}},
        {{5, 3}, {4, 2}},
        {{1, 9}, {1, 7}},
        {{3, 4, 5}, {2, 3}},
        {{2, 1, 3}, {64}},
        {{1, 1, 6}, {1, 16, 64}},
        {{2, 3, 4}, {4, 3, 2}},
    };
    for (const auto& [xGrid, xBlock] : vCases)
    {
        for (const int iThreads : {1, INT_MAX})
        {
            SCOPED_TRACE(::testing::Message() << "grid " << xGrid.x << " " << xGrid.y << " " << xGrid.z << ", block "
                                              << xBlock.x << " " << xBlock.y << " " << xBlock.z);
            ASSERT_EQ(HostCuda::SetLaunchThreads(iThreads), cudaSuccess);
            CManaged<SSeen> xSeen(std::size_t{xGrid.x} * xGrid.y * xGrid.z * xBlock.x * xBlock.y * xBlock.z);
            ASSERT_EQ(Launch(xGrid, xBlock, nullptr, See, xSeen.begin()), cudaSuccess);
            ASSERT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
            const SSeen* pSeen = xSeen.begin();
            const auto Same = [](const auto& xA, const auto& xB)
            { return xA.x == xB.x && xA.y == xB.y && xA.z == xB.z; };
            uint3 xB{};
            uint3 xT{};
            int iWrong = 0;
            for (xB.z = 0; xB.z < xGrid.z; ++xB.z)
                for (xB.y = 0; xB.y < xGrid.y; ++xB.y)
                    for (xB.x = 0; xB.x < xGrid.x; ++xB.x)
                        for (xT.z = 0; xT.z < xBlock.z; ++xT.z)
                            for (xT.y = 0; xT.y < xBlock.y; ++xT.y)
                                for (xT.x = 0; xT.x < xBlock.x; ++xT.x, ++pSeen)
                                {
                                    const bool bRight = pSeen->iCount == 1 && Same(pSeen->xBlock, xB) &&
                                                        Same(pSeen->xThread, xT) && Same(pSeen->xBlockDim, xBlock) &&
                                                        Same(pSeen->xGridDim, xGrid);
                                    iWrong += bRight ? 0 : 1;
                                }
            EXPECT_EQ(pSeen, xSeen.end());
            EXPECT_EQ(iWrong, 0);
        }
    }
}

/// A kernel as a type, as the library above passes it.
template <auto Kernel>
struct SKernelType
{
    constexpr operator decltype(Kernel)() const noexcept { return Kernel; }
    template <class... TArguments>
    void operator()(TArguments&&... xArguments) const
    {
        Kernel(std::forward<TArguments>(xArguments)...);
    }
};

__global__ void AddTo(int* pValue, long long iValue)
{
    atomicAdd(pValue, static_cast<int>(iValue));
}

__global__ void AddOne(int* pValue) noexcept
{
    atomicAdd(pValue, 1);
}

TEST_F(Launches, AcceptFunctionsTypesAndLambdas)
{
    CManaged<int> xValue;
    EXPECT_EQ(Launch(2, 3, nullptr, AddTo, xValue.begin(), 1), cudaSuccess);
    EXPECT_EQ(Launch(2, 3, nullptr, SKernelType<AddTo>{}, xValue.begin(), short{10}), cudaSuccess);
    EXPECT_EQ(Launch(
                  2, 3, nullptr, [](int* pValue, int iValue) { atomicAdd(pValue, iValue); }, xValue.begin(), 100),
              cudaSuccess);
    EXPECT_EQ(Launch(2, 3, nullptr, AddOne, xValue.begin()), cudaSuccess);
    EXPECT_EQ(Launch(2, 3, nullptr, SKernelType<AddOne>{}, xValue.begin()), cudaSuccess);
    EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
    EXPECT_EQ(*xValue, 6 * 113);
}

TEST_F(Launches, BlocksRunInParallel)
{
    if (HostCuda::GetLaunchThreads() == 1)
    {
        return; // one processor runs one block
    }
    CManaged<int> xCounters(2);
    ASSERT_EQ(Launch(
                  2, 1, nullptr,
                  [](int* pCounters)
                  {
                      atomicAdd(&pCounters[0], 1);
                      atomicAdd(&pCounters[1], Await(&pCounters[0], 2) ? 1 : 0);
                  },
                  xCounters.begin()),
              cudaSuccess);
    ASSERT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
    EXPECT_EQ(xCounters[1], 2) << "a block did not see the other one run";
}

TEST_F(Launches, OnOneThreadBlocksRunInOrder)
{
    EXPECT_EQ(HostCuda::SetLaunchThreads(0), cudaErrorInvalidValue);
    EXPECT_EQ(HostCuda::SetLaunchThreads(-1), cudaErrorInvalidValue);
    EXPECT_EQ(cudaGetLastError(), cudaSuccess);
    ASSERT_EQ(HostCuda::SetLaunchThreads(1), cudaSuccess);
    EXPECT_EQ(HostCuda::GetLaunchThreads(), 1);
    constexpr unsigned c_uBlocks = 500;
    CManaged<unsigned> xOrder(c_uBlocks + 1);
    ASSERT_EQ(Launch(
                  c_uBlocks, 1, nullptr, [](unsigned* pOrder) { pOrder[++pOrder[0]] = blockIdx.x; }, xOrder.begin()),
              cudaSuccess);
    ASSERT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
    EXPECT_EQ(xOrder[0], c_uBlocks);
    EXPECT_TRUE(std::is_sorted(xOrder.begin() + 1, xOrder.end()));
}

TEST_F(Launches, StreamsOverlap)
{
    // Also where a launch has one thread: every stream has its own.
    for (const int iThreads : {1, INT_MAX})
    {
        ASSERT_EQ(HostCuda::SetLaunchThreads(iThreads), cudaSuccess);
        const CStreamScope xFirst(cudaStreamNonBlocking);
        const CStreamScope xSecond(cudaStreamNonBlocking);
        CManaged<int> xCounters(2);
        const auto Meet = [](int* pCounters)
        {
            atomicAdd(&pCounters[0], 1);
            atomicAdd(&pCounters[1], Await(&pCounters[0], 2) ? 1 : 0);
        };
        EXPECT_EQ(Launch(1, 1, xFirst, Meet, xCounters.begin()), cudaSuccess);
        EXPECT_EQ(Launch(1, 1, xSecond, Meet, xCounters.begin()), cudaSuccess);
        EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
        EXPECT_EQ(xCounters[1], 2) << iThreads;
    }
}

TEST_F(Launches, RefuseWhatADeviceCannotRun)
{
    cudaStream_t hDead = nullptr;
    ASSERT_EQ(cudaStreamCreate(&hDead), cudaSuccess);
    ASSERT_EQ(cudaStreamDestroy(hDead), cudaSuccess);
    cudaStream_t hForeign = nullptr;
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    ASSERT_EQ(cudaStreamCreate(&hForeign), cudaSuccess);
    ASSERT_EQ(cudaSetDevice(0), cudaSuccess);

    using PChange = void (*)(cudaLaunchConfig_t&);
    const std::tuple<const char*, PChange, cudaError_t> vCases[] = {
        {"grid x 0", [](auto& x) { x.gridDim.x = 0; }, cudaErrorInvalidConfiguration},
        {"grid y 0", [](auto& x) { x.gridDim.y = 0; }, cudaErrorInvalidConfiguration},
        {"grid z 0", [](auto& x) { x.gridDim.z = 0; }, cudaErrorInvalidConfiguration},
        {"grid x 2^31", [](auto& x) { x.gridDim.x = 1U << 31; }, cudaErrorInvalidConfiguration},
        {"grid y 65536", [](auto& x) { x.gridDim.y = 65536; }, cudaErrorInvalidConfiguration},
        {"grid z 65536", [](auto& x) { x.gridDim.z = 65536; }, cudaErrorInvalidConfiguration},
        {"block x 0", [](auto& x) { x.blockDim.x = 0; }, cudaErrorInvalidConfiguration},
        {"block y 0", [](auto& x) { x.blockDim.y = 0; }, cudaErrorInvalidConfiguration},
        {"block z 0", [](auto& x) { x.blockDim.z = 0; }, cudaErrorInvalidConfiguration},
        {"block x 1025", [](auto& x) { x.blockDim.x = 1025; }, cudaErrorInvalidConfiguration},
        {"block y 1025", [](auto& x) { x.blockDim.y = 1025; }, cudaErrorInvalidConfiguration},
        {"block z 65", [](auto& x) { x.blockDim.z = 65; }, cudaErrorInvalidConfiguration},
        {"block 32 x 33", [](auto& x) { x.blockDim = dim3(32, 33); }, cudaErrorInvalidConfiguration},
        {"block wraps to 0", [](auto& x) { x.blockDim = dim3(1U << 16, 1U << 16); }, cudaErrorInvalidConfiguration},
        {"shared memory", [](auto& x) { x.dynamicSmemBytes = 1; }, cudaErrorInvalidValue},
        {"attributes", [](auto& x) { x.numAttrs = 1; }, cudaErrorNotSupported},
        {"stream of a thread", [](auto& x) { x.stream = cudaStreamPerThread; }, cudaErrorNotSupported},
    };
    CManaged<int> xRuns;
    const auto Count = [](int* pRuns) { atomicAdd(pRuns, 1); };
    for (const auto& [pcName, Change, eExpected] : vCases)
    {
        cudaLaunchConfig_t xConfig = Configure(1, 1);
        Change(xConfig);
        ExpectFailure(cudaLaunchKernelEx(&xConfig, Count, xRuns.begin()), eExpected, pcName);
    }
    ExpectFailure(Launch(1, 1, hDead, Count, xRuns.begin()), cudaErrorInvalidResourceHandle, "dead stream");
    ExpectFailure(Launch(1, 1, hForeign, Count, xRuns.begin()), cudaErrorInvalidResourceHandle, "foreign stream");
    void (*pNull)(int*) = nullptr;
    ExpectFailure(Launch(1, 1, nullptr, pNull, xRuns.begin()), cudaErrorInvalidDeviceFunction, "null function");
    ExpectFailure(cudaLaunchKernelEx(nullptr, Count, xRuns.begin()), cudaErrorInvalidValue, "null configuration");
    EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
    EXPECT_EQ(*xRuns, 0);
    EXPECT_EQ(cudaStreamDestroy(hForeign), cudaSuccess);

    for (const auto& [xGrid, xBlock] : {std::pair{dim3(1), dim3(1024)},
                                        {dim3(1), dim3(1, 1024)},
                                        {dim3(1), dim3(4, 4, 64)},
                                        {dim3(1, 65535), dim3(1)},
                                        {dim3(1, 1, 65535), dim3(1)}})
    {
        *xRuns = 0;
        ASSERT_EQ(Launch(xGrid, xBlock, nullptr, Count, xRuns.begin()), cudaSuccess);
        ASSERT_EQ(cudaDeviceSynchronize(), cudaSuccess);
        EXPECT_EQ(static_cast<unsigned>(*xRuns), std::max({xBlock.x * xBlock.y * xBlock.z, xGrid.y, xGrid.z}));
    }
}

TEST_F(Launches, NeitherWaitNorLookAtTheirArgumentsAgain)
{
    CManaged<int> xValue(1, 5);
    int iFactor = 2;
    struct SOffset
    {
        int iValue;
    } xOffset{3};
    {
        const CStreamScope xStream;
        CHold xHold(xStream);
        ASSERT_EQ(Launch(
                      1, 1, xStream,
                      [](int* pValue, int iBy, SOffset xAnd)
                      {
                          *pValue = *pValue * iBy + xAnd.iValue;
                          // The parameters belong to the thread.
                          iBy = 0;
                          xAnd.iValue = 0;
                      },
                      xValue.begin(), iFactor, xOffset),
                  cudaSuccess);
        EXPECT_EQ(cudaStreamQuery(xStream), cudaErrorNotReady);
        EXPECT_EQ(*xValue, 5);
        iFactor = 100;
        xOffset.iValue = 100;
        // More work in order behind the launch, threads of one block in order within it.
        ASSERT_EQ(Launch(
                      1, 4, xStream, [](int* pValue) { *pValue = *pValue * 10 + static_cast<int>(threadIdx.x); },
                      xValue.begin()),
                  cudaSuccess);
        xHold.Release();
        EXPECT_EQ(cudaStreamSynchronize(xStream), cudaSuccess);
    }
    EXPECT_EQ(*xValue, 130123);
}

TEST_F(Launches, WhateverLeavesAKernelIsAFaultOfItsDevice)
{
    const std::pair<const char*, void (*)()> vCases[] = {
        {"trap", [] { __trap(); }},
        {"exception", [] { throw std::runtime_error("in a kernel"); }},
        {"any type", [] { throw 1; }},
        {"a trap that the kernel catches",
         []
         {
             try
             {
                 __trap();
             }
             catch (...)
             {
             }
         }},
    };
    for (const int iThreads : {1, INT_MAX})
    {
        ASSERT_EQ(HostCuda::SetLaunchThreads(iThreads), cudaSuccess);
        for (const auto& [pcName, Kernel] : vCases)
        {
            for (const unsigned uBlocks : {1U, 1000U})
            {
                ASSERT_EQ(Launch(uBlocks, 2, nullptr, Kernel), cudaSuccess) << pcName;
                ExpectFaultAndReset(pcName);
            }
        }
    }
    ASSERT_EQ(Launch(1, 1, nullptr, [] { __trap(); }), cudaSuccess);
    EXPECT_EQ(cudaDeviceSynchronize(), cudaErrorLaunchFailure);
    // The other device has nothing to do with it.
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    {
        CManaged<int> xValue;
        EXPECT_EQ(Launch(1, 1, nullptr, AddOne, xValue.begin()), cudaSuccess);
        EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
        EXPECT_EQ(*xValue, 1);
    }
    ASSERT_EQ(cudaSetDevice(0), cudaSuccess);
    ExpectFaultAndReset("trap");
}

TEST_F(Launches, AFaultEndsTheLargestGridSoonAndDropsWhatIsQueued)
{
    static std::atomic<unsigned> s_uBlocks;
    static std::atomic<bool> s_bLater;
    for (const int iThreads : {1, INT_MAX})
    {
        s_uBlocks = 0;
        s_bLater = false;
        ASSERT_EQ(HostCuda::SetLaunchThreads(iThreads), cudaSuccess);
        CHold xHold(nullptr);
        ASSERT_EQ(Launch(dim3(0x7FFFFFFF, 65535, 65535), 1, nullptr,
                         []
                         {
                             if (s_uBlocks.fetch_add(1) == 1000)
                             {
                                 __trap();
                             }
                         }),
                  cudaSuccess);
        ASSERT_EQ(Launch(1, 1, nullptr, [] { s_bLater = true; }), cudaSuccess);
        xHold.Release();
        ExpectFaultAndReset("largest grid");
        EXPECT_GT(s_uBlocks.load(), 1000U);
        EXPECT_FALSE(s_bLater.load());
    }
}

TEST_F(Launches, KernelsMayNotCallTheRuntime)
{
    CManaged<int> xResults(2);
    ASSERT_EQ(Launch(
                  2, 1, nullptr,
                  [](int* pResults)
                  {
                      void* pMemory = nullptr;
                      pResults[blockIdx.x] = static_cast<int>(cudaMalloc(&pMemory, 16));
                  },
                  xResults.begin()),
              cudaSuccess);
    ASSERT_EQ(cudaDeviceSynchronize(), cudaSuccess);
    EXPECT_EQ(xResults[0], cudaErrorNotPermitted);
    EXPECT_EQ(xResults[1], cudaErrorNotPermitted);
}

// Never written in this file, which must not make a compiler take them for what they were at first.
static __constant__ int s_iConstant = 1;
static __constant__ float s_vConstants[3];

TEST_F(Launches, SeeConstantsThatWereCopiedBeforeThem)
{
    const CStreamScope xStream;
    CManaged<float> xSeen(2);
    const auto Read = [](float* pSeen)
    { *pSeen = static_cast<float>(s_iConstant) + s_vConstants[0] + s_vConstants[1] + s_vConstants[2]; };
    const int iValue = 1000;
    const float vValues[] = {200, 30, 4};
    ASSERT_EQ(Launch(1, 1, xStream, Read, xSeen.begin()), cudaSuccess);
    ASSERT_EQ(cudaMemcpyToSymbolAsync(s_iConstant, &iValue, sizeof(iValue), 0, cudaMemcpyHostToDevice, xStream),
              cudaSuccess);
    ASSERT_EQ(cudaMemcpyToSymbolAsync(s_vConstants, vValues, sizeof(vValues), 0, cudaMemcpyHostToDevice, xStream),
              cudaSuccess);
    ASSERT_EQ(Launch(1, 1, xStream, Read, xSeen.begin() + 1), cudaSuccess);
    ASSERT_EQ(cudaStreamSynchronize(xStream), cudaSuccess);
    EXPECT_EQ(xSeen[0], 1.0F);
    EXPECT_EQ(xSeen[1], 1234.0F);
    const int iFirst = 1;
    const float vFirst[3] = {};
    EXPECT_EQ(cudaMemcpyToSymbol(s_iConstant, &iFirst, sizeof(iFirst)), cudaSuccess);
    EXPECT_EQ(cudaMemcpyToSymbol(s_vConstants, vFirst, sizeof(vFirst)), cudaSuccess);
}

/// Starts 256 x 256 threads that all work on the same values, and waits for them.
template <class T>
void Contend(T* pValues, void (*pKernel)(T*))
{
    ASSERT_EQ(Launch(256, 256, nullptr, pKernel, pValues), cudaSuccess);
    ASSERT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
}

template <class T>
class LaunchAtomics : public Launches
{
};
using AddTypes = ::testing::Types<int, unsigned, unsigned long long, float, double>;
TYPED_TEST_SUITE(LaunchAtomics, AddTypes);

TYPED_TEST(LaunchAtomics, SumsAreExact)
{
    using T = TypeParam;
    CManaged<T> xValues(2);
    Contend<T>(xValues.begin(),
               [](T* pValues)
               {
                   // The old values are all different, so their sum is known too.
                   const T xOld = atomicAdd(&pValues[0], T{1});
                   atomicAdd(&pValues[1], xOld < 32768 ? T{1} : T{0});
               });
    EXPECT_EQ(xValues[0], T{65536});
    EXPECT_EQ(xValues[1], T{32768});
}

TEST_F(Launches, AtomicsUnderContentionLoseNothing)
{
    constexpr unsigned c_uThreads = 65536;
    CManaged<unsigned> xValues(8, 0);
    xValues[0] = c_uThreads;
    xValues[1] = UINT_MAX;
    xValues[4] = UINT_MAX;
    Contend<unsigned>(xValues.begin(),
                      [](unsigned* pValues)
                      {
                          const unsigned uIndex = blockIdx.x * blockDim.x + threadIdx.x;
                          atomicSub(&pValues[0], 1);
                          atomicMin(&pValues[1], uIndex + 7);
                          // In an order in which the largest is not the last.
                          atomicMax(&pValues[2], uIndex * 40503U % 65536U);
                          atomicOr(&pValues[3], 1U << (uIndex % 32));
                          atomicAnd(&pValues[4], ~(1U << (uIndex % 31)));
                          // A sum by compare and swap.
                          unsigned uOld = atomicAdd(&pValues[5], 0);
                          for (unsigned uSeen = ~uOld; uSeen != uOld;)
                          {
                              uSeen = uOld;
                              uOld = atomicCAS(&pValues[5], uSeen, uSeen + 3);
                          }
                          // Every value is taken out once, but for the one that stays.
                          atomicAdd(&pValues[6], atomicExch(&pValues[7], uIndex));
                      });
    EXPECT_EQ(xValues[0], 0U);
    EXPECT_EQ(xValues[1], 7U);
    EXPECT_EQ(xValues[2], c_uThreads - 1);
    EXPECT_EQ(xValues[3], UINT_MAX);
    EXPECT_EQ(xValues[4], 1U << 31);
    EXPECT_EQ(xValues[5], 3 * c_uThreads);
    EXPECT_EQ(xValues[6] + xValues[7], c_uThreads * (c_uThreads - 1) / 2);
}

TEST_F(Launches, SignedAtomicsCompareAsSigned)
{
    CManaged<int> xValues(4);
    Contend<int>(xValues.begin(),
                 [](int* pValues)
                 {
                     const int iIndex = static_cast<int>(blockIdx.x * blockDim.x + threadIdx.x) - 32768;
                     atomicMin(&pValues[0], iIndex);
                     atomicMax(&pValues[1], iIndex);
                     atomicSub(&pValues[2], -1);
                     atomicCAS(&pValues[3], 0, -5);
                 });
    EXPECT_EQ(xValues[0], -32768);
    EXPECT_EQ(xValues[1], 32767);
    EXPECT_EQ(xValues[2], 65536);
    EXPECT_EQ(xValues[3], -5);
}

TEST(LaunchFunctions, MinAndMaxPickTheCommonTypeAndTheNumber)
{
    static_assert(std::is_same_v<decltype(min(1, 2U)), unsigned>);
    static_assert(std::is_same_v<decltype(max(1.0F, 2.0)), double>);
    static_assert(std::is_same_v<decltype(min(std::int64_t{1}, std::int64_t{2})), std::int64_t>);
    EXPECT_EQ(min(-1, 2), -1);
    EXPECT_EQ(max(-1, 2), 2);
    EXPECT_EQ(min(-1, 2U), 2U);
    EXPECT_EQ(max(2U, -1), UINT_MAX);
    EXPECT_EQ(min(INT64_MIN, INT64_MAX), INT64_MIN);
    constexpr float c_fNaN = std::numeric_limits<float>::quiet_NaN();
    for (const auto Pick :
         {+[](float fA, float fB) { return min(fA, fB); }, +[](float fA, float fB) { return max(fA, fB); }})
    {
        EXPECT_EQ(Pick(c_fNaN, 1.0F), 1.0F);
        EXPECT_EQ(Pick(1.0F, c_fNaN), 1.0F);
        EXPECT_TRUE(std::isnan(Pick(c_fNaN, c_fNaN)));
    }
    EXPECT_EQ(max(1.5, 1.0F), 1.5);
}

TEST(LaunchFunctions, SaturateAndReciprocalRoot)
{
    const float c_fInfinity = std::numeric_limits<float>::infinity();
    for (const auto& [fValue, fExpected] : {std::pair{-1.0F, 0.0F},
                                            {0.25F, 0.25F},
                                            {1.0F, 1.0F},
                                            {2.0F, 1.0F},
                                            {c_fInfinity, 1.0F},
                                            {-c_fInfinity, 0.0F},
                                            {std::nanf(""), 0.0F}})
    {
        EXPECT_EQ(__saturatef(fValue), fExpected) << fValue;
    }
    EXPECT_FLOAT_EQ(rsqrtf(16.0F), 0.25F);
    EXPECT_DOUBLE_EQ(rsqrt(100.0), 0.1);
    const int iValue = 7;
    EXPECT_EQ(__ldg(&iValue), 7);
}

class LaunchDeathTest : public ::testing::Test
{
protected:
    LaunchDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

/// Leaves a kernel behind that never ends by itself.
void LeaveRunning()
{
    static std::atomic<bool> s_bRuns;
    Launch(1000, 1, nullptr,
           []
           {
               s_bRuns = true;
               std::this_thread::sleep_for(std::chrono::seconds(1));
           });
    while (!s_bRuns)
    {
        std::this_thread::yield();
    }
}

TEST_F(LaunchDeathTest, AProcessEndsWhileAKernelRuns)
{
    EXPECT_EXIT((LeaveRunning(), std::exit(0)), ::testing::ExitedWithCode(0), "");
}

TEST_F(LaunchDeathTest, ATrapOutsideOfKernelsEndsTheProcess)
{
    EXPECT_DEATH(__trap(), "");
}

TEST_F(LaunchDeathTest, TheNumberOfThreadsComesFromTheEnvironment)
{
    const int iAll = std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
    for (const auto& [pcValue, iExpected] :
         {std::pair{"1", 1}, {"2", std::min(2, iAll)}, {"1000000", iAll}, {"0", iAll}, {"x", iAll}})
    {
        setenv("QX_HOSTCUDA_THREADS", pcValue, 1);
        EXPECT_EXIT(std::exit(HostCuda::GetLaunchThreads() == iExpected ? 0 : 1), ::testing::ExitedWithCode(0), "")
            << pcValue;
        unsetenv("QX_HOSTCUDA_THREADS");
    }
}

#if defined(QX_TEST_ASAN)

TEST_F(LaunchDeathTest, AddressSanitizerFindsAKernelThatLeavesItsImage)
{
    const auto ReadFrom = [](std::size_t nOffset)
    {
        unsigned char* pMemory = nullptr;
        std::size_t nPitch = 0;
        cudaMallocPitch(&pMemory, &nPitch, 100, 4);
        Launch(
            2, 1, nullptr,
            [](volatile unsigned char* pFrom)
            {
                const unsigned char uRead = pFrom[0];
                static_cast<void>(uRead);
            },
            pMemory + nOffset);
        cudaDeviceSynchronize();
        std::exit(0);
    };
    EXPECT_EXIT(ReadFrom(3 * 512 + 99), ::testing::ExitedWithCode(0), "");
    EXPECT_DEATH(ReadFrom(100), "use-after-poison");
    EXPECT_DEATH(ReadFrom(4 * 512), "heap-buffer-overflow");
}

#endif

#if defined(QX_TEST_TSAN)

/// Two blocks on two threads each write into their own place, or both into one, ordered by nothing.
[[noreturn]] void WriteFromTwoBlocks(bool bSame)
{
    int* pData = nullptr;
    cudaMallocManaged(&pData, 4 * sizeof(int));
    std::fill_n(pData, 4, 0);
    Launch(
        2, 1, nullptr,
        [](int* pValues, bool bOne)
        {
            atomicAdd(&pValues[0], 1);
            Await(&pValues[0], 2);
            pValues[bOne ? 1 : 1 + blockIdx.x] = 7;
        },
        pData, bSame);
    cudaDeviceSynchronize();
    std::exit(pData[1] == 7 ? 0 : 1);
}

TEST_F(LaunchDeathTest, ThreadSanitizerFindsRacesBetweenBlocksOnly)
{
    if (HostCuda::GetLaunchThreads() == 1)
    {
        return; // one thread has no races
    }
    constexpr int c_iRace = 66;
    EXPECT_EXIT(WriteFromTwoBlocks(false), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(WriteFromTwoBlocks(true), ::testing::ExitedWithCode(c_iRace), "data race");
}

#endif

} // namespace

} // namespace Qx::Test
