#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include "HostCudaTest.h"

// Kernels on the host: what a GPU does too is tested with the launch of the library above; here is what only the host
// has, and what a GPU leaves open.

namespace Qx::Test
{

namespace
{

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

template <class TKernel, class... TArguments>
cudaError_t Launch(
    const dim3& xGrid, const dim3& xBlock, cudaStream_t hStream, TKernel xKernel, TArguments... xArguments)
{
    cudaLaunchConfig_t xConfig{};
    xConfig.gridDim = xGrid;
    xConfig.blockDim = xBlock;
    xConfig.stream = hStream;
    return cudaLaunchKernelEx(&xConfig, xKernel, xArguments...);
}

class Launches : public CHostCudaTest
{
protected:
    void TearDown() override
    {
        EXPECT_EQ(HostCuda::SetLaunchThreads(INT_MAX), cudaSuccess);
        CHostCudaTest::TearDown();
    }

    /// Launches on the legacy stream and waits.
    template <class TKernel, class... TArguments>
    static void Run(const dim3& xGrid, const dim3& xBlock, TKernel xKernel, TArguments... xArguments)
    {
        EXPECT_EQ(Launch(xGrid, xBlock, nullptr, xKernel, xArguments...), cudaSuccess);
        EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
    }

    /// Expects that the current device has the fault and works again after a reset.
    static void ExpectFaultAndReset(const char* pcWhat)
    {
        EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaErrorLaunchFailure) << pcWhat;
        EXPECT_EQ(cudaPeekAtLastError(), cudaErrorLaunchFailure) << pcWhat;
        EXPECT_EQ(Launch(1, 1, nullptr, [] {}), cudaErrorLaunchFailure) << pcWhat;
        EXPECT_EQ(cudaDeviceReset(), cudaSuccess) << pcWhat;
        EXPECT_EQ(cudaGetLastError(), cudaSuccess) << pcWhat;
    }
};

/// Counts a thread at its place if its indices are within its grid and block, and these are as launched.
__global__ void Count(int* pCounts, dim3 xGrid, dim3 xBlock)
{
    const auto Within = [](const auto& xIndex, const dim3& xDim)
    { return xIndex.x < xDim.x && xIndex.y < xDim.y && xIndex.z < xDim.z; };
    const auto Same = [](const dim3& xA, const dim3& xB) { return xA.x == xB.x && xA.y == xB.y && xA.z == xB.z; };
    if (Within(blockIdx, xGrid) && Within(threadIdx, xBlock) && Same(gridDim, xGrid) && Same(blockDim, xBlock))
    {
        const unsigned uBlock = blockIdx.x + xGrid.x * (blockIdx.y + xGrid.y * blockIdx.z);
        const unsigned uThread = threadIdx.x + xBlock.x * (threadIdx.y + xBlock.y * threadIdx.z);
        atomicAdd(&pCounts[uBlock * xBlock.x * xBlock.y * xBlock.z + uThread], 1);
    }
}

TEST_F(Launches, EveryThreadOfEveryBlockRunsOnceWithItsIndices)
{
    for (const auto& [xGrid, xBlock] :
        {std::pair<dim3, dim3>{1, 1}, {1, 1024}, {1000, 3}, {{5, 3}, {4, 2}}, {{1, 9}, {1, 1024}}, {{3, 4, 5}, {2, 3}},
            {{1, 1, 6}, {1, 16, 64}}, {{2, 3, 4}, {4, 3, 2}}, {{1, 65535}, 1}, {{1, 1, 65535}, 1}})
    {
        for (const int iThreads : {1, INT_MAX})
        {
            ASSERT_EQ(HostCuda::SetLaunchThreads(iThreads), cudaSuccess);
            const CManaged<int> xCounts(std::size_t{xGrid.x} * xGrid.y * xGrid.z * xBlock.x * xBlock.y * xBlock.z);
            Run(xGrid, xBlock, Count, xCounts.begin(), xGrid, xBlock);
            EXPECT_TRUE(std::all_of(xCounts.begin(), xCounts.end(), [](int iCount) { return iCount == 1; }))
                << "grid " << xGrid.x << ' ' << xGrid.y << ' ' << xGrid.z << ", block " << xBlock.x << ' ' << xBlock.y
                << ' ' << xBlock.z;
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
    const CManaged<int> xValue;
    Run(2, 3, AddTo, xValue.begin(), 1);
    Run(2, 3, SKernelType<AddTo>{}, xValue.begin(), short{10});
    Run(
        2, 3, [](int* pValue, int iValue) { atomicAdd(pValue, iValue); }, xValue.begin(), 100);
    Run(2, 3, AddOne, xValue.begin());
    Run(2, 3, SKernelType<AddOne>{}, xValue.begin());
    EXPECT_EQ(*xValue, 6 * 113);
}

TEST_F(Launches, ThreadsOfABlockRunInOrderEachWithParametersOfItsOwn)
{
    const CManaged<int> xValue;
    const auto Append = [](int* pValue, int iBase)
    {
        *pValue = *pValue * iBase + static_cast<int>(threadIdx.x) + 1;
        iBase = 0;
    };
    Run(1, 4, Append, xValue.begin(), 10);
    EXPECT_EQ(*xValue, 1234);
}

/// Waits for another thread that does the same; not for ever.
__global__ void Meet(int* pCounters)
{
    atomicAdd(&pCounters[0], 1);
    const auto xEnd = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (atomicAdd(&pCounters[0], 0) < 2 && std::chrono::steady_clock::now() < xEnd)
    {
        std::this_thread::yield();
    }
    atomicAdd(&pCounters[1], atomicAdd(&pCounters[0], 0) == 2 ? 1 : 0);
}

TEST_F(Launches, BlocksRunInParallel)
{
    if (HostCuda::GetLaunchThreads() == 1)
    {
        return; // one processor runs one block
    }
    const CManaged<int> xCounters(2);
    Run(2, 1, Meet, xCounters.begin());
    EXPECT_EQ(xCounters[1], 2) << "a block did not see the other one run";
}

TEST_F(Launches, OnOneThreadBlocksRunInOrderAndStreamsStillOverlap)
{
    EXPECT_EQ(HostCuda::SetLaunchThreads(0), cudaErrorInvalidValue);
    EXPECT_EQ(HostCuda::SetLaunchThreads(-1), cudaErrorInvalidValue);
    EXPECT_EQ(cudaGetLastError(), cudaSuccess);
    ASSERT_EQ(HostCuda::SetLaunchThreads(1), cudaSuccess);
    EXPECT_EQ(HostCuda::GetLaunchThreads(), 1);
    constexpr unsigned c_uBlocks = 500;
    const CManaged<unsigned> xOrder(c_uBlocks + 1);
    Run(
        c_uBlocks, 1, [](unsigned* pOrder) { pOrder[++pOrder[0]] = blockIdx.x; }, xOrder.begin());
    EXPECT_EQ(xOrder[0], c_uBlocks);
    EXPECT_TRUE(std::is_sorted(xOrder.begin() + 1, xOrder.end()));

    const CStreamScope hFirst(cudaStreamNonBlocking);
    const CStreamScope hSecond(cudaStreamNonBlocking);
    const CManaged<int> xCounters(2);
    EXPECT_EQ(Launch(1, 1, hFirst, Meet, xCounters.begin()), cudaSuccess);
    EXPECT_EQ(Launch(1, 1, hSecond, Meet, xCounters.begin()), cudaSuccess);
    EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
    EXPECT_EQ(xCounters[1], 2);
}

TEST_F(Launches, RefuseWhatADeviceCannotRun)
{
    static cudaStream_t s_hDead;
    static cudaStream_t s_hForeign;
    s_hDead = MakeDeadStream();
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    s_hForeign = MakeStream();
    ASSERT_EQ(cudaSetDevice(0), cudaSuccess);

    constexpr auto c_eConfiguration = cudaErrorInvalidConfiguration;
    const std::tuple<const char*, cudaError_t, void (*)(cudaLaunchConfig_t&)> vCases[] = {
        {"grid x 0", c_eConfiguration, [](auto& x) { x.gridDim.x = 0; }},
        {"grid y 0", c_eConfiguration, [](auto& x) { x.gridDim.y = 0; }},
        {"grid z 0", c_eConfiguration, [](auto& x) { x.gridDim.z = 0; }},
        {"grid x 2^31", c_eConfiguration, [](auto& x) { x.gridDim.x = 1U << 31; }},
        {"grid y 65536", c_eConfiguration, [](auto& x) { x.gridDim.y = 65536; }},
        {"grid z 65536", c_eConfiguration, [](auto& x) { x.gridDim.z = 65536; }},
        {"block x 0", c_eConfiguration, [](auto& x) { x.blockDim.x = 0; }},
        {"block y 0", c_eConfiguration, [](auto& x) { x.blockDim.y = 0; }},
        {"block z 0", c_eConfiguration, [](auto& x) { x.blockDim.z = 0; }},
        {"block x 1025", c_eConfiguration, [](auto& x) { x.blockDim.x = 1025; }},
        {"block y 1025", c_eConfiguration, [](auto& x) { x.blockDim.y = 1025; }},
        {"block z 65", c_eConfiguration, [](auto& x) { x.blockDim.z = 65; }},
        {"block 32 x 33", c_eConfiguration, [](auto& x) { x.blockDim = dim3(32, 33); }},
        {"block wraps to 0", c_eConfiguration, [](auto& x) { x.blockDim = dim3(1U << 16, 1U << 16); }},
        {"shared memory", cudaErrorInvalidValue, [](auto& x) { x.dynamicSmemBytes = 1; }},
        {"attributes", cudaErrorNotSupported, [](auto& x) { x.numAttrs = 1; }},
        {"stream of a thread", cudaErrorNotSupported, [](auto& x) { x.stream = cudaStreamPerThread; }},
        {"dead stream", cudaErrorInvalidResourceHandle, [](auto& x) { x.stream = s_hDead; }},
        {"foreign stream", cudaErrorInvalidResourceHandle, [](auto& x) { x.stream = s_hForeign; }},
    };
    const CManaged<int> xRuns;
    for (const auto& [pcName, eExpected, Change] : vCases)
    {
        cudaLaunchConfig_t xConfig{};
        xConfig.gridDim = xConfig.blockDim = 1;
        Change(xConfig);
        ExpectResult(cudaLaunchKernelEx(&xConfig, AddOne, xRuns.begin()), eExpected, pcName);
    }
    void (*pNull)(int*) = nullptr;
    ExpectResult(Launch(1, 1, nullptr, pNull, xRuns.begin()), cudaErrorInvalidDeviceFunction, "null function");
    ExpectResult(cudaLaunchKernelEx(nullptr, AddOne, xRuns.begin()), cudaErrorInvalidValue, "null configuration");
    EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
    EXPECT_EQ(*xRuns, 0);
    EXPECT_EQ(cudaStreamDestroy(s_hForeign), cudaSuccess);
}

/// Traps, whatever the kernel does about it.
__global__ void TrapAndCatch()
{
    try
    {
        __trap();
    }
    catch (...)
    {
    }
}

TEST_F(Launches, WhateverLeavesAKernelIsAFaultOfItsDevice)
{
    const std::pair<const char*, void (*)()> vCases[] = {
        {"trap", [] { __trap(); }},
        {"exception", [] { throw std::runtime_error("in a kernel"); }},
        {"any type", [] { throw 1; }},
        {"a trap that the kernel catches", TrapAndCatch},
    };
    for (const int iDevice : {0, 1})
    {
        for (const int iThreads : {1, INT_MAX})
        {
            ASSERT_EQ(HostCuda::SetLaunchThreads(iThreads), cudaSuccess);
            for (const auto& [pcName, Kernel] : vCases)
            {
                for (const unsigned uBlocks : {1U, 1000U})
                {
                    ASSERT_EQ(cudaSetDevice(iDevice), cudaSuccess);
                    ASSERT_EQ(Launch(uBlocks, 2, nullptr, Kernel), cudaSuccess) << pcName;
                    EXPECT_EQ(cudaDeviceSynchronize(), cudaErrorLaunchFailure);
                    ASSERT_EQ(cudaSetDevice(1 - iDevice), cudaSuccess);
                    EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
                    ASSERT_EQ(cudaSetDevice(iDevice), cudaSuccess);
                    ExpectFaultAndReset(pcName);
                }
            }
        }
    }
}

TEST_F(Launches, AFaultEndsTheLargestGridSoonAndDropsWhatIsQueued)
{
    static std::atomic<unsigned> s_uBlocks;
    static std::atomic<bool> s_bLater;
    const auto TrapLater = []
    {
        if (s_uBlocks.fetch_add(1) == 1000)
        {
            __trap();
        }
    };
    for (const int iThreads : {1, INT_MAX})
    {
        s_uBlocks = 0;
        s_bLater = false;
        ASSERT_EQ(HostCuda::SetLaunchThreads(iThreads), cudaSuccess);
        CHold xHold(nullptr);
        ASSERT_EQ(Launch(dim3(0x7FFFFFFF, 65535, 65535), 1, nullptr, TrapLater), cudaSuccess);
        ASSERT_EQ(Launch(1, 1, nullptr, [] { s_bLater = true; }), cudaSuccess);
        xHold.Release();
        ExpectFaultAndReset("largest grid");
        EXPECT_GT(s_uBlocks.load(), 1000U);
        EXPECT_FALSE(s_bLater.load());
    }
}

TEST_F(Launches, KernelsMayNotCallTheRuntime)
{
    const CManaged<cudaError_t> xResults(2);
    const auto Allocate = [](cudaError_t* pResults)
    {
        void* pMemory = nullptr;
        pResults[blockIdx.x] = cudaMalloc(&pMemory, 16);
    };
    Run(2, 1, Allocate, xResults.begin());
    EXPECT_EQ(xResults[0], cudaErrorNotPermitted);
    EXPECT_EQ(xResults[1], cudaErrorNotPermitted);
}

TEST_F(Launches, SumsUnderContentionAreExact)
{
    const auto Check = []<class T>(T)
    {
        const CManaged<T> xValues(2);
        const auto Sum = [](T* pValues)
        {
            // The old values are all different, so it is known how many are in the first half.
            const T xOld = atomicAdd(&pValues[0], T{1});
            atomicAdd(&pValues[1], xOld < 32768 ? T{1} : T{0});
        };
        Run(256, 256, Sum, xValues.begin());
        EXPECT_EQ(xValues[0], T{65536});
        EXPECT_EQ(xValues[1], T{32768});
    };
    Check(0);
    Check(0U);
    Check(0ULL);
    Check(0.0F);
    Check(0.0);
}

__global__ void Contend(unsigned* pValues)
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
}

__global__ void ContendSigned(int* pValues)
{
    const int iIndex = static_cast<int>(blockIdx.x * blockDim.x + threadIdx.x) - 32768;
    atomicMin(&pValues[0], iIndex);
    atomicMax(&pValues[1], iIndex);
    atomicSub(&pValues[2], -1);
    atomicCAS(&pValues[3], 0, -5);
}

TEST_F(Launches, AtomicsUnderContentionLoseNothing)
{
    constexpr unsigned c_uThreads = 65536;
    const CManaged<unsigned> xValues(8);
    xValues[0] = c_uThreads;
    xValues[1] = UINT_MAX;
    xValues[4] = UINT_MAX;
    Run(256, 256, Contend, xValues.begin());
    xValues[6] += xValues[7];
    EXPECT_EQ(std::vector<unsigned>(xValues.begin(), xValues.begin() + 7),
        (std::vector<unsigned>{
            0, 7, c_uThreads - 1, UINT_MAX, 1U << 31, 3 * c_uThreads, c_uThreads / 2 * (c_uThreads - 1)}));
    const CManaged<int> xSigned(4);
    Run(256, 256, ContendSigned, xSigned.begin());
    EXPECT_EQ(std::vector<int>(xSigned.begin(), xSigned.end()), (std::vector<int>{-32768, 32767, 65536, -5}));
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
    EXPECT_EQ(max(1.5, 1.0F), 1.5);
    constexpr float c_fNaN = std::numeric_limits<float>::quiet_NaN();
    for (const auto Pick :
        {+[](float fA, float fB) { return min(fA, fB); }, +[](float fA, float fB) { return max(fA, fB); }})
    {
        EXPECT_EQ(Pick(c_fNaN, 1.0F), 1.0F);
        EXPECT_EQ(Pick(1.0F, c_fNaN), 1.0F);
        EXPECT_TRUE(std::isnan(Pick(c_fNaN, c_fNaN)));
    }
}

TEST(LaunchFunctions, SaturateAndReciprocalRoot)
{
    constexpr float c_fInfinity = std::numeric_limits<float>::infinity();
    for (const auto& [fValue, fExpected] : {std::pair{-1.0F, 0.0F}, {0.25F, 0.25F}, {1.0F, 1.0F}, {2.0F, 1.0F},
             {c_fInfinity, 1.0F}, {-c_fInfinity, 0.0F}, {std::nanf(""), 0.0F}})
    {
        EXPECT_EQ(__saturatef(fValue), fExpected) << fValue;
    }
    EXPECT_FLOAT_EQ(rsqrtf(16.0F), 0.25F);
    EXPECT_DOUBLE_EQ(rsqrt(100.0), 0.1);
    const int iValue = 7;
    EXPECT_EQ(__ldg(&iValue), 7);
}

} // namespace

} // namespace Qx::Test
