#include <algorithm>
#include <cstdint>
#include <numeric>
#include <set>
#include <string>

#include "RuntimeTest.h"

namespace Qx::Test
{

namespace
{

class Streams : public CRuntimeTest
{
};

/// Appends numbers to a list in stream order.
class CTrace
{
public:
    void Queue(cudaStream_t hStream, int iNumber)
    {
        m_vSteps.push_back(std::make_unique<SStep>(SStep{this, iNumber}));
        const auto Append = [](void* pData)
        {
            const auto& xStep = *static_cast<const SStep*>(pData);
            const std::lock_guard xLock(xStep.pTrace->m_xMutex);
            xStep.pTrace->m_vNumbers.push_back(xStep.iNumber);
        };
        EXPECT_EQ(cudaLaunchHostFunc(hStream, Append, m_vSteps.back().get()), cudaSuccess);
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

using Numbers = std::vector<int>;

Numbers CountTo(int iCount)
{
    Numbers vNumbers(static_cast<std::size_t>(iCount));
    std::iota(vNumbers.begin(), vNumbers.end(), 0);
    return vNumbers;
}

TEST_F(Streams, WorkRunsInOrderAndWaitsForNoOtherBlockingStream)
{
    const CStreamScope hHeld;
    const CStreamScope hStream;
    const CHold xHold(hHeld);
    CTrace xTrace;
    for (const int iNumber : CountTo(500))
    {
        xTrace.Queue(hStream, iNumber);
    }
    EXPECT_EQ(cudaStreamSynchronize(hStream), cudaSuccess);
    EXPECT_EQ(xTrace.Get(), CountTo(500));
}

TEST_F(Streams, AsyncCallsReturnBeforeTheWorkIsDone)
{
    const CStreamScope hCreated;
    const CBlock xBlock(EMemory::Device, 1024);
    const CBlock xPinned(EMemory::PageLocked, 1024);
    const CBlock xResult(EMemory::PageLocked, 1024); // with pageable memory the call may wait
    auto vExpected = MakeBytes(1024);
    xPinned.Write(vExpected);
    std::fill_n(&vExpected[768], 128, static_cast<unsigned char>(7));
    std::fill_n(&vExpected[896], 128, static_cast<unsigned char>(8));
    for (const cudaStream_t hStream : {static_cast<cudaStream_t>(hCreated), cudaStream_t{}, cudaStreamLegacy})
    {
        xBlock.Write(Bytes(1024, 0));
        xResult.Write(Bytes(1024, 1));
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
        EXPECT_EQ(xResult.Read(), vExpected);
    }
}

TEST_F(Streams, PageableSourcesOfAsyncCopiesAreReadWhenTheWorkRuns)
{
    QX_STAND_IN_ONLY("when the runtime reads pageable memory is its own choice");
    const CStreamScope hStream;
    const CBlock xBlock(EMemory::Device, 4);
    Bytes vSource(4, 1);
    CHold xHold(hStream);
    ASSERT_EQ(cudaMemcpyAsync(xBlock.Get(), vSource.data(), 4, cudaMemcpyHostToDevice, hStream), cudaSuccess);
    // Allowed here only because the release of the hold orders this before the copy.
    std::fill(vSource.begin(), vSource.end(), static_cast<unsigned char>(2));
    xHold.Release();
    ASSERT_EQ(cudaStreamSynchronize(hStream), cudaSuccess);
    EXPECT_EQ(xBlock.Read(), vSource);
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
    EXPECT_EQ(xTrace.Get(), Numbers{0});
    xHold.Release();
    EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
    EXPECT_EQ(xTrace.Get(), (Numbers{0, 1, 2, 3, 4}));
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
    EXPECT_EQ(xTrace.Get(), (Numbers{2, 3}));
    xHold.Release();
    EXPECT_EQ(cudaStreamSynchronize(hBlocking), cudaSuccess);
    EXPECT_EQ(xTrace.Get(), (Numbers{2, 3, 1}));
}

TEST_F(Streams, SynchronousCallsWaitTheirTurnOnTheLegacyStream)
{
    const CBlock xBlock(EMemory::Device, 64);
    const CStreamScope hFree(cudaStreamNonBlocking);
    const CStreamScope hStream;
    const CStreamScope hAfter;
    Bytes vHost(64);
    const auto Copy = [&] { return cudaMemcpy(vHost.data(), xBlock.Get(), 64, cudaMemcpyDeviceToHost); };
    const SCall vCalls[] = {
        {"cudaMemcpy", Copy},
        {"cudaMemcpy2D", [&] { return cudaMemcpy2D(xBlock.Get(), 8, vHost.data(), 8, 8, 8, cudaMemcpyHostToDevice); }},
#ifdef QX_HOSTCUDA // where memsets wait as well
        {"cudaMemset", [&] { return cudaMemset(xBlock.Get(), 0, 64); }},
        {"cudaMemset2D", [&] { return cudaMemset2D(xBlock.Get(), 8, 0, 8, 8); }},
#endif
        {"cudaStreamSynchronize", [&] { return cudaStreamSynchronize(nullptr); }},
        {"cudaDeviceSynchronize", [] { return cudaDeviceSynchronize(); }},
    };
    for (const auto& [pcName, Make] : vCalls)
    {
        SCOPED_TRACE(pcName);
        const bool bAll = pcName == std::string("cudaDeviceSynchronize");
        for (const cudaStream_t hHeld : {static_cast<cudaStream_t>(hStream), cudaStream_t{}, cudaStream_t(hFree)})
        {
            CHold xHold(hHeld);
            if (hHeld == hFree && !bAll)
            {
                EXPECT_EQ(Make(), cudaSuccess) << "a non-blocking stream is nothing to wait for";
                continue;
            }
            CWaiting xWaiting(Make);
            xHold.Release();
            EXPECT_EQ(xWaiting.Get(), cudaSuccess);
        }
    }
    // While a synchronous call waits its turn, what is queued on blocking streams meanwhile comes after it.
    CHold xHold(hStream);
    ASSERT_EQ(cudaMemsetAsync(xBlock.Get(), 5, 64, hStream), cudaSuccess);
    CWaiting xCopy(Copy);
    ASSERT_EQ(cudaMemsetAsync(xBlock.Get(), 6, 64, hAfter), cudaSuccess);
    EXPECT_EQ(cudaStreamQuery(hAfter), cudaErrorNotReady);
    xHold.Release();
    EXPECT_EQ(xCopy.Get(), cudaSuccess);
    EXPECT_EQ(vHost, Bytes(64, 5));
    EXPECT_EQ(xBlock.Read(), Bytes(64, 6));
}

TEST_F(Streams, DestroyedStreamFinishesItsWorkAndIsRefused)
{
    QX_STAND_IN_ONLY("handles of destroyed streams are undefined");
    const cudaStream_t hStream = MakeStream();
    CTrace xTrace;
    CHold xHold(hStream);
    xTrace.Queue(hStream, 1);
    EXPECT_EQ(cudaStreamDestroy(hStream), cudaSuccess);
    ExpectResult(cudaStreamQuery(hStream), cudaErrorInvalidResourceHandle);
#ifdef QX_HOSTCUDA
    EXPECT_EQ(GetStatistics().nStreamCount, 0U);
#endif
    // Its place is not given to a new stream while it still has work.
    const CStreamScope hNew;
    EXPECT_NE(static_cast<cudaStream_t>(hNew), hStream);
    EXPECT_EQ(cudaStreamSynchronize(hNew), cudaSuccess);
    xTrace.Queue(nullptr, 2); // the legacy stream still follows it
    xHold.Release();
    EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
    EXPECT_EQ(xTrace.Get(), (Numbers{1, 2}));
}

TEST_F(Streams, ManyShortLivedStreamsDoTheirWork)
{
    QX_STAND_IN_ONLY("the runtime uses handles again");
    std::set<cudaStream_t> vSeen;
    CTrace xTrace;
    for (int iTime = 0; iTime < 200; ++iTime)
    {
        const cudaStream_t hStream = MakeStream(iTime % 2 == 0 ? cudaStreamDefault : cudaStreamNonBlocking);
        EXPECT_TRUE(vSeen.insert(hStream).second) << "a handle was given out twice";
        xTrace.Queue(hStream, iTime);
        ASSERT_EQ(cudaStreamDestroy(hStream), cudaSuccess);
    }
    EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
    auto vNumbers = xTrace.Get();
    std::sort(vNumbers.begin(), vNumbers.end());
    EXPECT_EQ(vNumbers, CountTo(200));
    for (const cudaStream_t hStream : vSeen)
    {
        ExpectResult(cudaStreamSynchronize(hStream), cudaErrorInvalidResourceHandle);
    }
}

TEST_F(Streams, DeadAndForeignHandlesAreRefusedByEveryCall)
{
    QX_STAND_IN_ONLY("handles of destroyed streams are undefined");
    const CBlock xBlock(EMemory::Device, 64);
    const CEventScope hEvent;
    unsigned char vHost[64] = {};
    const cudaStream_t hStale = MakeDeadStream();
    constexpr auto c_eHandle = cudaErrorInvalidResourceHandle;
    const auto DoNothing = [](void*) {};
    const auto FromNumber = [](std::uintptr_t uNumber) { return reinterpret_cast<cudaStream_t>(uNumber); };
    const std::tuple<const char*, cudaStream_t, cudaError_t> vHandles[] = {
        {"stale", hStale, c_eHandle},
        {"event", reinterpret_cast<cudaStream_t>(static_cast<cudaEvent_t>(hEvent)), c_eHandle},
        {"object", reinterpret_cast<cudaStream_t>(vHost), c_eHandle},
        {"small number", FromNumber(3), c_eHandle},
        {"all ones", FromNumber(UINTPTR_MAX), c_eHandle},
        {"next generation", FromNumber(reinterpret_cast<std::uintptr_t>(hStale) + (1U << 29)), c_eHandle},
        {"per thread", cudaStreamPerThread, cudaErrorNotSupported},
    };
    for (const auto& [pcName, h, eExpected] : vHandles)
    {
        const auto Check = [eWanted = eExpected, pcWhat = pcName](cudaError_t eError)
        { ExpectResult(eError, eWanted, pcWhat); };
        Check(cudaStreamSynchronize(h));
        Check(cudaStreamQuery(h));
        Check(cudaStreamDestroy(h));
        Check(cudaStreamWaitEvent(h, hEvent));
        Check(cudaEventRecord(hEvent, h));
        Check(cudaLaunchHostFunc(h, DoNothing, nullptr));
        Check(cudaMemcpyAsync(xBlock.Get(), vHost, 64, cudaMemcpyHostToDevice, h));
        Check(cudaMemcpyAsync(xBlock.Get(), vHost, 0, cudaMemcpyHostToDevice, h));
        Check(cudaMemcpy2DAsync(xBlock.Get(), 8, vHost, 8, 8, 8, cudaMemcpyHostToDevice, h));
        Check(cudaMemsetAsync(xBlock.Get(), 0, 64, h));
        Check(cudaMemset2DAsync(xBlock.Get(), 8, 0, 8, 8, h));
    }
    ExpectResult(cudaStreamDestroy(nullptr), c_eHandle);
    ExpectResult(cudaStreamDestroy(cudaStreamLegacy), c_eHandle);
    ExpectResult(cudaStreamCreate(nullptr), cudaErrorInvalidValue);
    cudaStream_t hUntouched = nullptr;
    ExpectResult(cudaStreamCreateWithFlags(&hUntouched, 2), cudaErrorInvalidValue);
    EXPECT_EQ(hUntouched, nullptr);
    ExpectResult(cudaLaunchHostFunc(nullptr, nullptr, nullptr), cudaErrorInvalidValue);
}

TEST_F(Streams, StreamsOfOtherDevicesAreUsedFromAnywhere)
{
    QX_NEED_TWO_DEVICES();
    const CStreamScope hStream; // of device 0
    const CBlock xBlock(EMemory::Device, 64);
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    EXPECT_EQ(cudaMemsetAsync(xBlock.Get(), 3, 64, hStream), cudaSuccess);
    EXPECT_EQ(cudaStreamSynchronize(hStream), cudaSuccess);
    EXPECT_EQ(xBlock.Read(), Bytes(64, 3));
}

TEST_F(Streams, ThreadsWorkAtOnceOnTheirOwnAndTheSharedStream)
{
    const CBlock xShared(EMemory::Device, 256);
    const auto Work = [&](int iThread)
    {
        const CStreamScope hStream(iThread % 2 == 0 ? cudaStreamDefault : cudaStreamNonBlocking);
        const CBlock xBlock(EMemory::Device, 1024);
        const CBlock xPinned(EMemory::PageLocked, 1024);
        for (int iTime = 0; iTime < 60; ++iTime)
        {
            const int iValue = iThread * 50 + iTime % 50;
            EXPECT_EQ(cudaMemsetAsync(xBlock.Get(), iValue, 1024, hStream), cudaSuccess);
            EXPECT_EQ(cudaMemcpyAsync(xPinned.Get(), xBlock.Get(), 1024, cudaMemcpyDeviceToHost, hStream), cudaSuccess);
            EXPECT_EQ(cudaStreamSynchronize(hStream), cudaSuccess);
            EXPECT_EQ(std::count(xPinned.Get(), xPinned.Get(1024), static_cast<unsigned char>(iValue)), 1024);
            // All threads meet on the legacy stream, each in its own part of the shared block.
            Bytes vPart(64);
            void* const pPart = xShared.Get(static_cast<std::size_t>(iThread) * 64);
            EXPECT_EQ(cudaMemset(pPart, iValue, 64), cudaSuccess);
            EXPECT_EQ(cudaMemcpyAsync(vPart.data(), pPart, 64, cudaMemcpyDeviceToHost, nullptr), cudaSuccess);
            EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
            EXPECT_EQ(vPart, Bytes(64, static_cast<unsigned char>(iValue)));
        }
    };
    RunOnThreads(4, Work);
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
        Bytes vResult(64);
        ASSERT_EQ(cudaMemsetAsync(xBlock.Get(), iTime, 64, hFirst), cudaSuccess);
        ASSERT_EQ(cudaMemsetAsync(xBlock.Get(), iTime + 1, 32, nullptr), cudaSuccess);
        ASSERT_EQ(cudaMemsetAsync(xBlock.Get(), iTime + 2, 16, hSecond), cudaSuccess);
        ASSERT_EQ(cudaMemset(xBlock.Get(), iTime + 3, 8), cudaSuccess);
        ASSERT_EQ(cudaMemcpyAsync(vResult.data(), xBlock.Get(), 64, cudaMemcpyDeviceToHost, hFirst), cudaSuccess);
        ASSERT_EQ(cudaStreamSynchronize(hFirst), cudaSuccess);
        Bytes vExpected;
        for (const auto& [nEnd, iAdd] : {std::pair<std::size_t, int>{8, 3}, {16, 2}, {32, 1}, {64, 0}})
        {
            vExpected.resize(nEnd, static_cast<unsigned char>(iTime + iAdd));
        }
        ASSERT_EQ(vResult, vExpected);
    }
}

} // namespace

} // namespace Qx::Test
