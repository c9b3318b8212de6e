#include <cstdint>

#include "RuntimeTest.h"

namespace Qx::Test
{

namespace
{

class Events : public CRuntimeTest
{
};

constexpr unsigned c_vEventFlags[] = {
    cudaEventDefault, cudaEventDisableTiming, cudaEventBlockingSync, cudaEventBlockingSync | cudaEventDisableTiming};

TEST_F(Events, NeverRecordedEventIsComplete)
{
    const CEventScope hEvent;
    const CStreamScope hStream;
    EXPECT_EQ(cudaEventQuery(hEvent), cudaSuccess);
    EXPECT_EQ(cudaEventSynchronize(hEvent), cudaSuccess);
    EXPECT_EQ(cudaStreamWaitEvent(hStream, hEvent), cudaSuccess);
    EXPECT_EQ(cudaStreamSynchronize(hStream), cudaSuccess);
}

TEST_F(Events, EventIsCompleteWhenTheWorkBeforeItsRecordIsDone)
{
    const CStreamScope hCreated;
    const CStreamScope hFree(cudaStreamNonBlocking);
    const CHold xFree(hFree); // no concern of the others
    for (const unsigned uFlags : c_vEventFlags)
    {
        // A record on the legacy stream captures the blocking streams too.
        for (const auto& [hHeld, hStream] :
            {std::pair<cudaStream_t, cudaStream_t>{hCreated, hCreated}, {nullptr, nullptr}, {hCreated, nullptr}})
        {
            const CEventScope hEvent(uFlags);
            CHold xHold(hHeld);
            ASSERT_EQ(cudaEventRecord(hEvent, hStream), cudaSuccess);
            const CHold xLater(hStream);
            EXPECT_EQ(cudaEventQuery(hEvent), cudaErrorNotReady);
            xHold.Release();
            EXPECT_EQ(cudaEventSynchronize(hEvent), cudaSuccess);
            EXPECT_EQ(cudaEventQuery(hEvent), cudaSuccess);
            EXPECT_EQ(cudaStreamQuery(hStream), cudaErrorNotReady) << "later work is no concern of the event";
        }
    }
}

TEST_F(Events, NewRecordReplacesTheOldOne)
{
    const CStreamScope hHeld;
    const CStreamScope hIdle;
    const CEventScope hEvent;
    const CStreamScope hWaiting;
    CHold xHold(hHeld);
    ASSERT_EQ(cudaEventRecord(hEvent, hHeld), cudaSuccess);
    ASSERT_EQ(cudaStreamWaitEvent(hWaiting, hEvent), cudaSuccess);
    ASSERT_EQ(cudaEventRecord(hEvent, hIdle), cudaSuccess);
    EXPECT_EQ(cudaEventSynchronize(hEvent), cudaSuccess);
    EXPECT_EQ(cudaStreamQuery(hWaiting), cudaErrorNotReady) << "who waited for the old record still does";
    xHold.Release();
    EXPECT_EQ(cudaStreamSynchronize(hWaiting), cudaSuccess);
}

TEST_F(Events, WaitingOrdersStreamsAlsoOfOtherDevices)
{
    QX_NEED_TWO_DEVICES();
    const CBlock xBlock(EMemory::Device, 64);
    for (const int iDevice : {0, 1})
    {
        for (const unsigned uFlags : c_vEventFlags)
        {
            const CStreamScope hFirst(cudaStreamNonBlocking);
            const CEventScope hEvent(uFlags);
            ASSERT_EQ(cudaSetDevice(iDevice), cudaSuccess);
            const CStreamScope hSecond(cudaStreamNonBlocking);
            ASSERT_EQ(cudaSetDevice(0), cudaSuccess);
            for (int iTime = 0; iTime < 50; ++iTime)
            {
                Bytes vResult(64);
                ASSERT_EQ(cudaMemsetAsync(xBlock.Get(), iTime, 64, hFirst), cudaSuccess);
                ASSERT_EQ(cudaEventRecord(hEvent, hFirst), cudaSuccess);
                ASSERT_EQ(cudaStreamWaitEvent(hSecond, hEvent, 0), cudaSuccess);
                ASSERT_EQ(
                    cudaMemcpyAsync(vResult.data(), xBlock.Get(), 64, cudaMemcpyDeviceToHost, hSecond), cudaSuccess);
                ASSERT_EQ(cudaStreamSynchronize(hSecond), cudaSuccess);
                ASSERT_EQ(vResult, Bytes(64, static_cast<unsigned char>(iTime)));
            }
            CHold xHold(hFirst);
            ASSERT_EQ(cudaEventRecord(hEvent, hFirst), cudaSuccess);
            ASSERT_EQ(cudaStreamWaitEvent(hSecond, hEvent), cudaSuccess);
            EXPECT_EQ(cudaStreamQuery(hSecond), cudaErrorNotReady);
            xHold.Release();
            EXPECT_EQ(cudaStreamSynchronize(hSecond), cudaSuccess);
        }
    }
}

TEST_F(Events, WaitSurvivesEventAndStream)
{
    const CStreamScope hWaiting;
    const cudaStream_t hStream = MakeStream();
    const cudaEvent_t hEvent = MakeEvent();
    CHold xHold(hStream);
    ASSERT_EQ(cudaEventRecord(hEvent, hStream), cudaSuccess);
    ASSERT_EQ(cudaStreamWaitEvent(hWaiting, hEvent), cudaSuccess);
    ASSERT_EQ(cudaStreamDestroy(hStream), cudaSuccess);
    EXPECT_EQ(cudaEventQuery(hEvent), cudaErrorNotReady);
    ASSERT_EQ(cudaEventDestroy(hEvent), cudaSuccess);
    EXPECT_EQ(cudaStreamQuery(hWaiting), cudaErrorNotReady);
    xHold.Release();
    EXPECT_EQ(cudaStreamSynchronize(hWaiting), cudaSuccess);
}

TEST_F(Events, ElapsedTimeIsThatBetweenTheRecords)
{
    const CStreamScope hStream;
    const CEventScope hStart;
    const CEventScope hEnd;
    const auto xBefore = std::chrono::steady_clock::now();
    ASSERT_EQ(cudaEventRecord(hStart, hStream), cudaSuccess);
    const auto Sleep = [](void*) { std::this_thread::sleep_for(std::chrono::milliseconds(20)); };
    ASSERT_EQ(cudaLaunchHostFunc(hStream, Sleep, nullptr), cudaSuccess);
    ASSERT_EQ(cudaEventRecord(hEnd, hStream), cudaSuccess);
    ASSERT_EQ(cudaEventSynchronize(hEnd), cudaSuccess);
    const std::chrono::duration<float, std::milli> xUpperBound = std::chrono::steady_clock::now() - xBefore;
    float fTime = 0;
    ASSERT_EQ(cudaEventElapsedTime(&fTime, hStart, hEnd), cudaSuccess);
    EXPECT_GE(fTime, 20.0F);
    EXPECT_LE(fTime, xUpperBound.count());
    float fBack = 0;
    ASSERT_EQ(cudaEventElapsedTime(&fBack, hEnd, hStart), cudaSuccess);
    EXPECT_EQ(fBack, -fTime);
    ASSERT_EQ(cudaEventElapsedTime(&fBack, hEnd, hEnd), cudaSuccess);
    EXPECT_EQ(fBack, 0.0F);
}

TEST_F(Events, ReplacedRecordLeavesNoTimeBehind)
{
    const CStreamScope hHeld;
    const CStreamScope hIdle;
    const CEventScope hStart;
    const CEventScope hEnd;
    {
        const CHold xHold(hHeld);
        ASSERT_EQ(cudaEventRecord(hEnd, hHeld), cudaSuccess);
        ASSERT_EQ(cudaEventRecord(hEnd, hIdle), cudaSuccess);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        ASSERT_EQ(cudaEventRecord(hStart, hIdle), cudaSuccess);
    }
    float fTime = 0;
    ASSERT_EQ(cudaEventElapsedTime(&fTime, hStart, hEnd), cudaSuccess);
    EXPECT_LE(fTime, -5.0F) << "the end was recorded first; the held record came later but no longer counts";
}

TEST_F(Events, ElapsedTimeRefusesWhatHasNoTime)
{
    QX_NEED_TWO_DEVICES();
    const CStreamScope hStream;
    const CEventScope hRecorded;
    const CEventScope hNever;
    const CEventScope hUntimed(cudaEventDisableTiming);
    const CEventScope hPending;
    ASSERT_EQ(cudaEventRecord(hRecorded, hStream), cudaSuccess);
    ASSERT_EQ(cudaEventRecord(hUntimed, hStream), cudaSuccess);
    const CHold xHold(hStream);
    ASSERT_EQ(cudaEventRecord(hPending, hStream), cudaSuccess);
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    const CEventScope hOther;
    ASSERT_EQ(cudaEventRecord(hOther), cudaSuccess);
    ASSERT_EQ(cudaSetDevice(0), cudaSuccess);
    constexpr auto c_eHandle = cudaErrorInvalidResourceHandle;
    const std::tuple<cudaEvent_t, cudaEvent_t, cudaError_t> vCases[] = {
        {hNever, hRecorded, c_eHandle},
        {hRecorded, hNever, c_eHandle},
        {hUntimed, hRecorded, c_eHandle},
        {hRecorded, hUntimed, c_eHandle},
        {nullptr, hRecorded, c_eHandle},
        {hRecorded, nullptr, c_eHandle},
        {hOther, hRecorded, c_eHandle},
        {hPending, hNever, c_eHandle},
        {hRecorded, hPending, cudaErrorNotReady},
        {hPending, hRecorded, cudaErrorNotReady},
    };
    float fTime = -7;
    for (const auto& [hStart, hEnd, eExpected] : vCases)
    {
        ExpectResult(cudaEventElapsedTime(&fTime, hStart, hEnd), eExpected);
    }
    EXPECT_EQ(fTime, -7.0F);
    ExpectResult(cudaEventElapsedTime(nullptr, hRecorded, hRecorded), cudaErrorInvalidValue);
}

TEST_F(Events, DeadAndForeignHandlesAreRefusedByEveryCall)
{
    QX_STAND_IN_ONLY("handles of destroyed objects are undefined");
    const CStreamScope hStream;
    const cudaEvent_t hStale = MakeEvent();
    ASSERT_EQ(cudaEventDestroy(hStale), cudaSuccess);
    const CEventScope hReuser; // may have the place of the stale one, not its handle
    float fTime = 0;
    for (const cudaEvent_t hEvent : {cudaEvent_t{}, hStale,
             reinterpret_cast<cudaEvent_t>(static_cast<cudaStream_t>(hStream)), reinterpret_cast<cudaEvent_t>(&fTime),
             reinterpret_cast<cudaEvent_t>(UINTPTR_MAX), reinterpret_cast<cudaEvent_t>(std::uintptr_t{5})})
    {
        ExpectResult(cudaEventRecord(hEvent, hStream), cudaErrorInvalidResourceHandle);
        ExpectResult(cudaEventSynchronize(hEvent), cudaErrorInvalidResourceHandle);
        ExpectResult(cudaEventQuery(hEvent), cudaErrorInvalidResourceHandle);
        ExpectResult(cudaEventElapsedTime(&fTime, hEvent, hEvent), cudaErrorInvalidResourceHandle);
        ExpectResult(cudaStreamWaitEvent(hStream, hEvent), cudaErrorInvalidResourceHandle);
        ExpectResult(cudaEventDestroy(hEvent), cudaErrorInvalidResourceHandle);
    }
    ExpectResult(cudaStreamWaitEvent(hStream, hReuser, 1), cudaErrorInvalidValue);
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    ExpectResult(cudaEventRecord(hReuser, nullptr), cudaErrorInvalidResourceHandle, "a stream of another device");
    EXPECT_EQ(cudaEventRecord(hReuser, hStream), cudaSuccess);
}

TEST_F(Events, CreationChecksItsFlags)
{
    cudaEvent_t hEvent = nullptr;
    for (const unsigned uFlags : {8U, 0x80000000U, unsigned{cudaEventInterprocess}})
    {
        ExpectResult(cudaEventCreateWithFlags(&hEvent, uFlags), cudaErrorInvalidValue);
    }
    ExpectResult(cudaEventCreate(nullptr), cudaErrorInvalidValue);
#ifdef QX_HOSTCUDA
    ExpectResult(
        cudaEventCreateWithFlags(&hEvent, cudaEventInterprocess | cudaEventDisableTiming), cudaErrorNotSupported);
    {
        const CEventScope hFirst;
        const CEventScope hSecond;
        EXPECT_EQ(GetStatistics().nEventCount, 2U);
    }
#endif
    EXPECT_EQ(hEvent, nullptr);
}

} // namespace

} // namespace Qx::Test
