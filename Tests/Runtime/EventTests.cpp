#include <chrono>
#include <cstdint>
#include <thread>

#include "RuntimeTest.h"

namespace Qx::Test
{

namespace
{

class Events : public CRuntimeTest
{
};

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
    for (const unsigned uFlags :
         std::initializer_list<unsigned>{cudaEventDefault, cudaEventDisableTiming, cudaEventBlockingSync,
                                         cudaEventBlockingSync | cudaEventDisableTiming})
    {
        for (const cudaStream_t hStream : {static_cast<cudaStream_t>(hCreated), cudaStream_t{}})
        {
            const CEventScope hEvent(uFlags);
            CHold xHold(hStream);
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

TEST_F(Events, LegacyRecordCapturesBlockingStreams)
{
    const CStreamScope hBlocking;
    const CStreamScope hFree(cudaStreamNonBlocking);
    for (const unsigned uFlags : std::initializer_list<unsigned>{cudaEventDefault, cudaEventDisableTiming})
    {
        const CEventScope hEvent(uFlags);
        const CHold xFree(hFree);
        CHold xHold(hBlocking);
        ASSERT_EQ(cudaEventRecord(hEvent), cudaSuccess);
        EXPECT_EQ(cudaEventQuery(hEvent), cudaErrorNotReady);
        xHold.Release();
        EXPECT_EQ(cudaEventSynchronize(hEvent), cudaSuccess);
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
        for (const unsigned uFlags : std::initializer_list<unsigned>{cudaEventDefault, cudaEventDisableTiming})
        {
            const CStreamScope hFirst(cudaStreamNonBlocking);
            const CEventScope hEvent(uFlags);
            ASSERT_EQ(cudaSetDevice(iDevice), cudaSuccess);
            const CStreamScope hSecond(cudaStreamNonBlocking);
            ASSERT_EQ(cudaSetDevice(0), cudaSuccess);
            for (int iTime = 0; iTime < 50; ++iTime)
            {
                std::vector<unsigned char> vResult(64);
                ASSERT_EQ(cudaMemsetAsync(xBlock.Get(), iTime, 64, hFirst), cudaSuccess);
                ASSERT_EQ(cudaEventRecord(hEvent, hFirst), cudaSuccess);
                ASSERT_EQ(cudaStreamWaitEvent(hSecond, hEvent, 0), cudaSuccess);
                ASSERT_EQ(cudaMemcpyAsync(vResult.data(), xBlock.Get(), 64, cudaMemcpyDeviceToHost, hSecond),
                          cudaSuccess);
                ASSERT_EQ(cudaStreamSynchronize(hSecond), cudaSuccess);
                ASSERT_EQ(vResult, std::vector<unsigned char>(64, static_cast<unsigned char>(iTime)));
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
    cudaStream_t hStream = nullptr;
    cudaEvent_t hEvent = nullptr;
    ASSERT_EQ(cudaStreamCreate(&hStream), cudaSuccess);
    ASSERT_EQ(cudaEventCreate(&hEvent), cudaSuccess);
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
    ASSERT_EQ(cudaLaunchHostFunc(
                  hStream, [](void*) { std::this_thread::sleep_for(std::chrono::milliseconds(20)); }, nullptr),
              cudaSuccess);
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
    struct
    {
        cudaEvent_t hStart;
        cudaEvent_t hEnd;
        cudaError_t eExpected;
    } const vCases[] = {
        {hNever, hRecorded, cudaErrorInvalidResourceHandle},
        {hRecorded, hNever, cudaErrorInvalidResourceHandle},
        {hUntimed, hRecorded, cudaErrorInvalidResourceHandle},
        {hRecorded, hUntimed, cudaErrorInvalidResourceHandle},
        {nullptr, hRecorded, cudaErrorInvalidResourceHandle},
        {hRecorded, nullptr, cudaErrorInvalidResourceHandle},
        {hOther, hRecorded, cudaErrorInvalidResourceHandle},
        {hPending, hNever, cudaErrorInvalidResourceHandle},
        {hRecorded, hPending, cudaErrorNotReady},
        {hPending, hRecorded, cudaErrorNotReady},
    };
    float fTime = -7;
    for (const auto& xCase : vCases)
    {
        ExpectFailure(cudaEventElapsedTime(&fTime, xCase.hStart, xCase.hEnd), xCase.eExpected);
    }
    EXPECT_EQ(fTime, -7.0F);
    ExpectFailure(cudaEventElapsedTime(nullptr, hRecorded, hRecorded), cudaErrorInvalidValue);
}

TEST_F(Events, DeadAndForeignHandlesAreRefusedByEveryCall)
{
    QX_STAND_IN_ONLY("handles of destroyed objects are undefined");
    const CStreamScope hStream;
    cudaEvent_t hStale = nullptr;
    ASSERT_EQ(cudaEventCreate(&hStale), cudaSuccess);
    ASSERT_EQ(cudaEventDestroy(hStale), cudaSuccess);
    const CEventScope hReuser; // may have the place of the stale one, not its handle
    int iObject = 0;
    const cudaEvent_t vHandles[] = {nullptr,
                                    hStale,
                                    reinterpret_cast<cudaEvent_t>(static_cast<cudaStream_t>(hStream)),
                                    reinterpret_cast<cudaEvent_t>(&iObject),
                                    reinterpret_cast<cudaEvent_t>(UINTPTR_MAX),
                                    reinterpret_cast<cudaEvent_t>(std::uintptr_t{5})};
    for (const cudaEvent_t hEvent : vHandles)
    {
        float fTime = 0;
        ExpectFailure(cudaEventRecord(hEvent, hStream), cudaErrorInvalidResourceHandle);
        ExpectFailure(cudaEventSynchronize(hEvent), cudaErrorInvalidResourceHandle);
        ExpectFailure(cudaEventQuery(hEvent), cudaErrorInvalidResourceHandle);
        ExpectFailure(cudaEventElapsedTime(&fTime, hEvent, hEvent), cudaErrorInvalidResourceHandle);
        ExpectFailure(cudaStreamWaitEvent(hStream, hEvent), cudaErrorInvalidResourceHandle);
        ExpectFailure(cudaEventDestroy(hEvent), cudaErrorInvalidResourceHandle);
    }
    ExpectFailure(cudaStreamWaitEvent(hStream, hReuser, 1), cudaErrorInvalidValue);
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    ExpectFailure(cudaEventRecord(hReuser, nullptr), cudaErrorInvalidResourceHandle, "a stream of another device");
    EXPECT_EQ(cudaEventRecord(hReuser, hStream), cudaSuccess);
}

TEST_F(Events, CreationChecksItsFlags)
{
    cudaEvent_t hEvent = nullptr;
    struct
    {
        unsigned uFlags;
        cudaError_t eExpected;
    } const vCases[] = {
        {8, cudaErrorInvalidValue},
        {0x80000000U, cudaErrorInvalidValue},
        {cudaEventInterprocess, cudaErrorInvalidValue},
#ifdef QX_HOSTCUDA
        {cudaEventInterprocess | cudaEventDisableTiming, cudaErrorNotSupported},
#endif
    };
    for (const auto& xCase : vCases)
    {
        ExpectFailure(cudaEventCreateWithFlags(&hEvent, xCase.uFlags), xCase.eExpected);
    }
    ExpectFailure(cudaEventCreate(nullptr), cudaErrorInvalidValue);
    EXPECT_EQ(hEvent, nullptr);
#ifdef QX_HOSTCUDA
    HostCuda::SStatistics xStatistics;
    {
        const CEventScope hFirst;
        const CEventScope hSecond;
        EXPECT_EQ(HostCuda::GetStatistics(0, xStatistics), cudaSuccess);
        EXPECT_EQ(xStatistics.nEventCount, 2U);
    }
    EXPECT_EQ(HostCuda::GetStatistics(0, xStatistics), cudaSuccess);
    EXPECT_EQ(xStatistics.nEventCount, 0U);
#endif
}

} // namespace

} // namespace Qx::Test
