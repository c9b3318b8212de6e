#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <numeric>
#include <thread>

#include "RuntimeTest.h"

namespace Qx::Test
{

namespace
{

class Streams : public CRuntimeTest
{
};

/// Appends a number to a list in stream order.
class CTrace
{
public:
    void Queue(cudaStream_t hStream, int iNumber)
    {
        m_vSteps.push_back(std::make_unique<SStep>(SStep{this, iNumber}));
        EXPECT_EQ(cudaLaunchHostFunc(
                      hStream,
                      [](void* pData)
                      {
                          const auto& xStep = *static_cast<const SStep*>(pData);
                          const std::lock_guard xLock(xStep.pTrace->m_xMutex);
                          xStep.pTrace->m_vNumbers.push_back(xStep.iNumber);
                      },
                      m_vSteps.back().get()),
                  cudaSuccess);
    }
    std::vector<int> Get()
    {
        const std::lock_guard xLock(m_xMutex);
        return m_vNumbers;
    }

private:
    struct SStep
    {
        CTrace* pTrace;
        int iNumber;
    };
    std::mutex m_xMutex;
    std::vector<int> m_vNumbers;
    std::vector<std::unique_ptr<SStep>> m_vSteps;
};

TEST_F(Streams, WorkRunsInOrder)
{
    const CStreamScope hStream;
    CTrace xTrace;
    std::vector<int> vExpected(500);
    std::iota(vExpected.begin(), vExpected.end(), 0);
    for (const int iNumber : vExpected)
    {
        xTrace.Queue(hStream, iNumber);
    }
    EXPECT_EQ(cudaStreamSynchronize(hStream), cudaSuccess);
    EXPECT_EQ(xTrace.Get(), vExpected);
}

TEST_F(Streams, AsyncCallsReturnBeforeTheWorkIsDone)
{
    const CStreamScope hCreated;
    const CBlock xBlock(EMemory::Device, 1024);
    const CBlock xPinned(EMemory::PageLocked, 1024);
    const CBlock xResult(EMemory::PageLocked, 1024); // with pageable memory the call may wait
    const auto vBytes = MakeBytes(1024);
    xPinned.Write(vBytes);
    for (const cudaStream_t hStream : {static_cast<cudaStream_t>(hCreated), cudaStream_t{}, cudaStreamLegacy})
    {
        xBlock.Write(std::vector<unsigned char>(1024, 0));
        xResult.Write(std::vector<unsigned char>(1024, 1));
        {
            CHold xHold(hStream);
            EXPECT_EQ(cudaMemcpyAsync(xBlock.Get(), xPinned.Get(), 512, cudaMemcpyHostToDevice, hStream), cudaSuccess);
            EXPECT_EQ(
                cudaMemcpy2DAsync(xBlock.Get(512), 128, xPinned.Get(512), 128, 128, 2, cudaMemcpyHostToDevice, hStream),
                cudaSuccess);
            EXPECT_EQ(cudaMemsetAsync(xBlock.Get(768), 7, 128, hStream), cudaSuccess);
            EXPECT_EQ(cudaMemset2DAsync(xBlock.Get(896), 64, 8, 64, 2, hStream), cudaSuccess);
            EXPECT_EQ(cudaMemcpyAsync(xResult.Get(), xBlock.Get(), 1024, cudaMemcpyDeviceToHost, hStream), cudaSuccess);
            EXPECT_EQ(cudaStreamQuery(hStream), cudaErrorNotReady);
            xHold.Await();
            EXPECT_EQ(std::count(xResult.Get(), xResult.Get(1024), 1), 1024);
            xHold.Release();
            EXPECT_EQ(cudaStreamSynchronize(hStream), cudaSuccess);
            EXPECT_EQ(cudaStreamQuery(hStream), cudaSuccess);
        }
        auto vExpected = vBytes;
        std::fill(vExpected.begin() + 768, vExpected.begin() + 896, 7);
        std::fill(vExpected.begin() + 896, vExpected.end(), 8);
        EXPECT_EQ(xResult.Read(), vExpected);
    }
}

TEST_F(Streams, PageableSourcesOfAsyncCopiesAreReadWhenTheWorkRuns)
{
    QX_STAND_IN_ONLY("when the runtime reads pageable memory is its own choice");
    const CStreamScope hStream;
    const CBlock xBlock(EMemory::Device, 4);
    unsigned char vSource[4] = {1, 1, 1, 1};
    CHold xHold(hStream);
    ASSERT_EQ(cudaMemcpyAsync(xBlock.Get(), vSource, 4, cudaMemcpyHostToDevice, hStream), cudaSuccess);
    // Allowed here only because the release of the hold orders this before the copy.
    std::fill(std::begin(vSource), std::end(vSource), static_cast<unsigned char>(2));
    xHold.Release();
    ASSERT_EQ(cudaStreamSynchronize(hStream), cudaSuccess);
    EXPECT_EQ(xBlock.Read(), std::vector<unsigned char>(4, 2));
}

TEST_F(Streams, LegacyStreamWaitsForBlockingStreamsAndTheyForIt)
{
    const CStreamScope hFirst;
    const CStreamScope hSecond;
    const CStreamScope hFree(cudaStreamNonBlocking);
    CTrace xTrace;
    CHold xHold(hFirst);
    xTrace.Queue(hFirst, 1);
    xTrace.Queue(nullptr, 2);
    xTrace.Queue(hSecond, 3);
    xTrace.Queue(cudaStreamLegacy, 4);
    xTrace.Queue(hFree, 0);
    // The exempt stream gets through while the hold holds everything else, directly or by way of the legacy stream.
    EXPECT_EQ(cudaStreamSynchronize(hFree), cudaSuccess);
    EXPECT_EQ(cudaStreamQuery(hSecond), cudaErrorNotReady);
    EXPECT_EQ(cudaStreamQuery(nullptr), cudaErrorNotReady);
    EXPECT_EQ(xTrace.Get(), std::vector<int>{0});
    xHold.Release();
    EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
    EXPECT_EQ(xTrace.Get(), (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST_F(Streams, HeldLegacyStreamHoldsBlockingStreamsOfItsDeviceOnly)
{
    QX_NEED_TWO_DEVICES();
    const CStreamScope hBlocking;
    const CStreamScope hFree(cudaStreamNonBlocking);
    CTrace xTrace;
    CHold xHold(nullptr);
    xTrace.Queue(hBlocking, 1);
    xTrace.Queue(hFree, 2);
    EXPECT_EQ(cudaStreamSynchronize(hFree), cudaSuccess);
    EXPECT_EQ(cudaStreamQuery(hBlocking), cudaErrorNotReady);
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    {
        const CStreamScope hOther;
        xTrace.Queue(hOther, 3);
        EXPECT_EQ(cudaStreamSynchronize(hOther), cudaSuccess);
        const CBlock xBlock(EMemory::Device, 16);
        EXPECT_EQ(cudaMemset(xBlock.Get(), 1, 16), cudaSuccess);
    }
    ASSERT_EQ(cudaSetDevice(0), cudaSuccess);
    EXPECT_EQ(xTrace.Get(), (std::vector<int>{2, 3}));
    xHold.Release();
    EXPECT_EQ(cudaStreamSynchronize(hBlocking), cudaSuccess);
    EXPECT_EQ(xTrace.Get(), (std::vector<int>{2, 3, 1}));
}

TEST_F(Streams, BlockingStreamsDoNotWaitForEachOther)
{
    const CStreamScope hHeld;
    const CStreamScope hStream;
    CTrace xTrace;
    const CHold xHold(hHeld);
    xTrace.Queue(hStream, 1);
    EXPECT_EQ(cudaStreamSynchronize(hStream), cudaSuccess);
    EXPECT_EQ(xTrace.Get(), std::vector<int>{1});
}

TEST_F(Streams, SynchronousCallsWaitTheirTurnOnTheLegacyStream)
{
    const CBlock xBlock(EMemory::Device, 64);
    const CStreamScope hFree(cudaStreamNonBlocking);
    const CStreamScope hStream;
    const CStreamScope hAfter;
    unsigned char vHost[64] = {};
    struct
    {
        const char* pcName;
        std::function<cudaError_t()> Make;
    } const vCases[] = {
        {"cudaMemcpy", [&] { return cudaMemcpy(xBlock.Get(), vHost, 64, cudaMemcpyHostToDevice); }},
        {"cudaMemcpy2D", [&] { return cudaMemcpy2D(xBlock.Get(), 8, vHost, 8, 8, 8, cudaMemcpyHostToDevice); }},
#ifdef QX_HOSTCUDA // where memsets wait as well
        {"cudaMemset", [&] { return cudaMemset(xBlock.Get(), 0, 64); }},
        {"cudaMemset2D", [&] { return cudaMemset2D(xBlock.Get(), 8, 0, 8, 8); }},
#endif
        {"cudaStreamSynchronize", [&] { return cudaStreamSynchronize(nullptr); }},
        {"cudaDeviceSynchronize", [&] { return cudaDeviceSynchronize(); }},
    };
    for (const auto& xCase : vCases)
    {
        SCOPED_TRACE(xCase.pcName);
        {
            const CHold xExempt(hFree);
            if (xCase.pcName != std::string("cudaDeviceSynchronize"))
            {
                EXPECT_EQ(xCase.Make(), cudaSuccess) << "a non-blocking stream is nothing to wait for";
            }
        }
        for (const cudaStream_t hHeld : {static_cast<cudaStream_t>(hStream), cudaStream_t{}})
        {
            CHold xHold(hHeld);
            std::future<cudaError_t> xWaiting = std::async(std::launch::async, xCase.Make);
            EXPECT_EQ(xWaiting.wait_for(std::chrono::milliseconds(10)), std::future_status::timeout);
            xHold.Release();
            EXPECT_EQ(xWaiting.get(), cudaSuccess);
        }
    }
    // While a synchronous call waits its turn, what is queued on blocking streams meanwhile comes after it.
    CHold xHold(hStream);
    CTrace xTrace;
    xTrace.Queue(hStream, 1);
    ASSERT_EQ(cudaMemsetAsync(xBlock.Get(), 5, 64, hStream), cudaSuccess);
    std::vector<unsigned char> vResult(64);
    std::future<cudaError_t> xCopy = std::async(
        std::launch::async, [&] { return cudaMemcpy(vResult.data(), xBlock.Get(), 64, cudaMemcpyDeviceToHost); });
    EXPECT_EQ(xCopy.wait_for(std::chrono::milliseconds(10)), std::future_status::timeout);
    ASSERT_EQ(cudaMemsetAsync(xBlock.Get(), 6, 64, hAfter), cudaSuccess);
    EXPECT_EQ(cudaStreamQuery(hAfter), cudaErrorNotReady);
    xHold.Release();
    EXPECT_EQ(xCopy.get(), cudaSuccess);
    EXPECT_EQ(vResult, std::vector<unsigned char>(64, 5));
    EXPECT_EQ(xBlock.Read(), std::vector<unsigned char>(64, 6));
}

TEST_F(Streams, DeviceSynchronizeWaitsForAllStreams)
{
    for (const unsigned uFlags : std::initializer_list<unsigned>{cudaStreamDefault, cudaStreamNonBlocking})
    {
        const CStreamScope hStream(uFlags);
        CTrace xTrace;
        CHold xHold(hStream);
        xTrace.Queue(hStream, 1);
        std::future<void> xRelease = std::async(std::launch::async, [&] { xHold.Release(); });
        EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
        EXPECT_EQ(xTrace.Get(), std::vector<int>{1});
        xRelease.get();
    }
}

TEST_F(Streams, DestroyedStreamFinishesItsWorkAndIsRefused)
{
    QX_STAND_IN_ONLY("handles of destroyed streams are undefined");
    cudaStream_t hStream = nullptr;
    ASSERT_EQ(cudaStreamCreate(&hStream), cudaSuccess);
    CTrace xTrace;
    CHold xHold(hStream);
    xTrace.Queue(hStream, 1);
    EXPECT_EQ(cudaStreamDestroy(hStream), cudaSuccess);
    ExpectFailure(cudaStreamDestroy(hStream), cudaErrorInvalidResourceHandle);
    ExpectFailure(cudaStreamQuery(hStream), cudaErrorInvalidResourceHandle);
#ifdef QX_HOSTCUDA
    HostCuda::SStatistics xStatistics;
    EXPECT_EQ(HostCuda::GetStatistics(0, xStatistics), cudaSuccess);
    EXPECT_EQ(xStatistics.nStreamCount, 0U);
#endif
    // Its place is not given to a new stream while it still has work.
    const CStreamScope hNew;
    EXPECT_NE(static_cast<cudaStream_t>(hNew), hStream);
    EXPECT_EQ(cudaStreamSynchronize(hNew), cudaSuccess);
    xTrace.Queue(nullptr, 2); // the legacy stream still follows it
    xHold.Release();
    EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
    EXPECT_EQ(xTrace.Get(), (std::vector<int>{1, 2}));
}

TEST_F(Streams, ManyShortLivedStreamsDoTheirWork)
{
    QX_STAND_IN_ONLY("the runtime uses handles again");
    std::vector<cudaStream_t> vSeen;
    CTrace xTrace;
    for (int iTime = 0; iTime < 200; ++iTime)
    {
        cudaStream_t hStream = nullptr;
        ASSERT_EQ(cudaStreamCreateWithFlags(&hStream, iTime % 2 == 0 ? cudaStreamDefault : cudaStreamNonBlocking),
                  cudaSuccess);
        EXPECT_EQ(std::count(vSeen.begin(), vSeen.end(), hStream), 0) << "a handle was given out twice";
        vSeen.push_back(hStream);
        xTrace.Queue(hStream, iTime);
        ASSERT_EQ(cudaStreamDestroy(hStream), cudaSuccess);
    }
    EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
    auto vNumbers = xTrace.Get();
    std::sort(vNumbers.begin(), vNumbers.end());
    std::vector<int> vExpected(200);
    std::iota(vExpected.begin(), vExpected.end(), 0);
    EXPECT_EQ(vNumbers, vExpected);
    for (const cudaStream_t hStream : vSeen)
    {
        ExpectFailure(cudaStreamSynchronize(hStream), cudaErrorInvalidResourceHandle);
    }
}

TEST_F(Streams, DeadAndForeignHandlesAreRefusedByEveryCall)
{
    QX_STAND_IN_ONLY("handles of destroyed streams are undefined");
    const CBlock xBlock(EMemory::Device, 64);
    const CEventScope hEvent;
    unsigned char vHost[64] = {};
    cudaStream_t hStale = nullptr;
    ASSERT_EQ(cudaStreamCreate(&hStale), cudaSuccess);
    ASSERT_EQ(cudaStreamDestroy(hStale), cudaSuccess);
    struct
    {
        const char* pcName;
        cudaStream_t hStream;
        cudaError_t eExpected;
    } const vHandles[] = {
        {"stale", hStale, cudaErrorInvalidResourceHandle},
        {"event", reinterpret_cast<cudaStream_t>(static_cast<cudaEvent_t>(hEvent)), cudaErrorInvalidResourceHandle},
        {"object", reinterpret_cast<cudaStream_t>(vHost), cudaErrorInvalidResourceHandle},
        {"small number", reinterpret_cast<cudaStream_t>(std::uintptr_t{3}), cudaErrorInvalidResourceHandle},
        {"all ones", reinterpret_cast<cudaStream_t>(UINTPTR_MAX), cudaErrorInvalidResourceHandle},
        {"next generation", reinterpret_cast<cudaStream_t>(reinterpret_cast<std::uintptr_t>(hStale) + (1U << 29)),
         cudaErrorInvalidResourceHandle},
        {"per thread", cudaStreamPerThread, cudaErrorNotSupported},
    };
    for (const auto& xHandle : vHandles)
    {
        const cudaStream_t h = xHandle.hStream;
        const auto Check = [&](cudaError_t eError) { ExpectFailure(eError, xHandle.eExpected, xHandle.pcName); };
        Check(cudaStreamSynchronize(h));
        Check(cudaStreamQuery(h));
        Check(cudaStreamDestroy(h));
        Check(cudaStreamWaitEvent(h, hEvent));
        Check(cudaEventRecord(hEvent, h));
        Check(cudaLaunchHostFunc(
            h, [](void*) {}, nullptr));
        Check(cudaMemcpyAsync(xBlock.Get(), vHost, 64, cudaMemcpyHostToDevice, h));
        Check(cudaMemcpyAsync(xBlock.Get(), vHost, 0, cudaMemcpyHostToDevice, h));
        Check(cudaMemcpy2DAsync(xBlock.Get(), 8, vHost, 8, 8, 8, cudaMemcpyHostToDevice, h));
        Check(cudaMemsetAsync(xBlock.Get(), 0, 64, h));
        Check(cudaMemset2DAsync(xBlock.Get(), 8, 0, 8, 8, h));
    }
    ExpectFailure(cudaStreamDestroy(nullptr), cudaErrorInvalidResourceHandle);
    ExpectFailure(cudaStreamDestroy(cudaStreamLegacy), cudaErrorInvalidResourceHandle);
    ExpectFailure(cudaStreamCreate(nullptr), cudaErrorInvalidValue);
    cudaStream_t hUntouched = nullptr;
    ExpectFailure(cudaStreamCreateWithFlags(&hUntouched, 2), cudaErrorInvalidValue);
    EXPECT_EQ(hUntouched, nullptr);
    ExpectFailure(cudaLaunchHostFunc(nullptr, nullptr, nullptr), cudaErrorInvalidValue);
}

TEST_F(Streams, StreamsOfOtherDevicesAreUsedFromAnywhere)
{
    QX_NEED_TWO_DEVICES();
    const CStreamScope hStream; // of device 0
    const CBlock xBlock(EMemory::Device, 64);
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    EXPECT_EQ(cudaMemsetAsync(xBlock.Get(), 3, 64, hStream), cudaSuccess);
    EXPECT_EQ(cudaStreamSynchronize(hStream), cudaSuccess);
    EXPECT_EQ(xBlock.Read(), std::vector<unsigned char>(64, 3));
}

TEST_F(Streams, ThreadsWorkAtOnceOnTheirOwnAndTheSharedStream)
{
    constexpr int c_iThreads = 4;
    constexpr int c_iTimes = 60;
    const CBlock xShared(EMemory::Device, 256);
    std::vector<std::thread> vThreads;
    for (int iThread = 0; iThread < c_iThreads; ++iThread)
    {
        vThreads.emplace_back(
            [&xShared, iThread]
            {
                const CStreamScope hStream(iThread % 2 == 0 ? cudaStreamDefault : cudaStreamNonBlocking);
                const CBlock xBlock(EMemory::Device, 1024);
                const CBlock xPinned(EMemory::PageLocked, 1024);
                for (int iTime = 0; iTime < c_iTimes; ++iTime)
                {
                    const int iValue = iThread * 50 + iTime % 50;
                    EXPECT_EQ(cudaMemsetAsync(xBlock.Get(), iValue, 1024, hStream), cudaSuccess);
                    EXPECT_EQ(cudaMemcpyAsync(xPinned.Get(), xBlock.Get(), 1024, cudaMemcpyDeviceToHost, hStream),
                              cudaSuccess);
                    EXPECT_EQ(cudaStreamSynchronize(hStream), cudaSuccess);
                    EXPECT_EQ(std::count(xPinned.Get(), xPinned.Get(1024), static_cast<unsigned char>(iValue)), 1024);
                    // All threads meet on the legacy stream, each in its own part of the shared block.
                    unsigned char vPart[64];
                    void* const pPart = xShared.Get(static_cast<std::size_t>(iThread) * 64);
                    EXPECT_EQ(cudaMemset(pPart, iValue, 64), cudaSuccess);
                    EXPECT_EQ(cudaMemcpyAsync(vPart, pPart, 64, cudaMemcpyDeviceToHost, nullptr), cudaSuccess);
                    EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
                    EXPECT_EQ(std::count(std::begin(vPart), std::end(vPart), static_cast<unsigned char>(iValue)), 64);
                }
            });
    }
    for (std::thread& xThread : vThreads)
    {
        xThread.join();
    }
}

// Data that passes from stream to stream by nothing but the rules of the legacy stream is seen complete at the end;
// ThreadSanitizer checks every hand-over.
TEST_F(Streams, DataPassesThroughTheLegacyStreamWithoutFurtherSynchronisation)
{
    const CStreamScope hFirst;
    const CStreamScope hSecond;
    const CBlock xBlock(EMemory::Device, 64);
    for (int iTime = 0; iTime < 100; ++iTime)
    {
        std::vector<unsigned char> vResult(64);
        ASSERT_EQ(cudaMemsetAsync(xBlock.Get(), iTime, 64, hFirst), cudaSuccess);
        ASSERT_EQ(cudaMemsetAsync(xBlock.Get(), iTime + 1, 32, nullptr), cudaSuccess);
        ASSERT_EQ(cudaMemsetAsync(xBlock.Get(), iTime + 2, 16, hSecond), cudaSuccess);
        ASSERT_EQ(cudaMemset(xBlock.Get(), iTime + 3, 8), cudaSuccess);
        ASSERT_EQ(cudaMemcpyAsync(vResult.data(), xBlock.Get(), 64, cudaMemcpyDeviceToHost, hFirst), cudaSuccess);
        ASSERT_EQ(cudaStreamSynchronize(hFirst), cudaSuccess);
        std::vector<unsigned char> vExpected(64, static_cast<unsigned char>(iTime));
        std::fill_n(vExpected.begin(), 32, static_cast<unsigned char>(iTime + 1));
        std::fill_n(vExpected.begin(), 16, static_cast<unsigned char>(iTime + 2));
        std::fill_n(vExpected.begin(), 8, static_cast<unsigned char>(iTime + 3));
        ASSERT_EQ(vResult, vExpected);
    }
}

} // namespace

} // namespace Qx::Test
