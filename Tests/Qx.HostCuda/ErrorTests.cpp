#include <chrono>
#include <functional>
#include <thread>

#include "HostCudaTest.h"

namespace Qx::Test
{

namespace
{

/// A call and its name.
struct SCall
{
    const char* pcName;
    std::function<cudaError_t()> Make;
};

class Faults : public CHostCudaTest
{
protected:
    /// Clears the faults that the test has set, also when an assertion ended it.
    void TearDown() override
    {
        for (const int iDevice : {1, 0})
        {
            cudaSetDevice(iDevice);
            EXPECT_EQ(cudaDeviceReset(), cudaSuccess);
        }
        CHostCudaTest::TearDown();
    }
};

unsigned char g_vSymbol[16];

TEST_F(Faults, EveryCallThatConcernsTheDeviceReturnsTheFault)
{
    void* pDevice = nullptr;
    void* pPinned = nullptr;
    void* pOut = nullptr;
    std::size_t nPitch = 0;
    std::size_t nOther = 0;
    unsigned char vHost[16] = {};
    cudaStream_t hStream = nullptr;
    cudaStream_t hOutStream = nullptr;
    cudaEvent_t hEvent = nullptr;
    cudaEvent_t hOutEvent = nullptr;
    cudaArray_t hArray = nullptr;
    cudaArray_t hOutArray = nullptr;
    cudaPointerAttributes xAttributes{};
    float fTime = 0;
    const cudaChannelFormatDesc xFormat = cudaCreateChannelDesc(8, 0, 0, 0, cudaChannelFormatKindUnsigned);
    ASSERT_EQ(cudaMalloc(&pDevice, 16), cudaSuccess);
    ASSERT_EQ(cudaMallocHost(&pPinned, 16), cudaSuccess);
    ASSERT_EQ(cudaStreamCreate(&hStream), cudaSuccess);
    ASSERT_EQ(cudaEventCreate(&hEvent), cudaSuccess);
    ASSERT_EQ(cudaEventRecord(hEvent, hStream), cudaSuccess);
    ASSERT_EQ(cudaMallocArray(&hArray, &xFormat, 4, 4), cudaSuccess);

    const SCall vCalls[] = {
        {"cudaDeviceSynchronize", [&] { return cudaDeviceSynchronize(); }},
        {"cudaMemGetInfo", [&] { return cudaMemGetInfo(&nPitch, &nOther); }},
        {"cudaMalloc", [&] { return cudaMalloc(&pOut, 16); }},
        {"cudaMallocPitch", [&] { return cudaMallocPitch(&pOut, &nPitch, 16, 1); }},
        {"cudaMallocManaged", [&] { return cudaMallocManaged(&pOut, 16); }},
        {"cudaHostAlloc", [&] { return cudaHostAlloc(&pOut, 16, 0); }},
        {"cudaMallocHost", [&] { return cudaMallocHost(&pOut, 16); }},
        {"cudaMallocArray", [&] { return cudaMallocArray(&hOutArray, &xFormat, 4, 4); }},
        {"cudaFree", [&] { return cudaFree(pDevice); }},
        {"cudaFree of null", [&] { return cudaFree(nullptr); }},
        {"cudaFreeHost", [&] { return cudaFreeHost(pPinned); }},
        {"cudaFreeArray", [&] { return cudaFreeArray(hArray); }},
        {"cudaArrayGetInfo", [&] { return cudaArrayGetInfo(nullptr, nullptr, nullptr, hArray); }},
        {"cudaHostGetDevicePointer", [&] { return cudaHostGetDevicePointer(&pOut, pPinned, 0); }},
        {"cudaPointerGetAttributes", [&] { return cudaPointerGetAttributes(&xAttributes, pDevice); }},
        {"cudaMemcpy", [&] { return cudaMemcpy(vHost, pDevice, 16, cudaMemcpyDeviceToHost); }},
        {"cudaMemcpy of nothing", [&] { return cudaMemcpy(vHost, pDevice, 0, cudaMemcpyDeviceToHost); }},
        {"cudaMemcpyAsync", [&] { return cudaMemcpyAsync(vHost, pDevice, 16, cudaMemcpyDeviceToHost, hStream); }},
        {"cudaMemcpy2D", [&] { return cudaMemcpy2D(vHost, 4, pDevice, 4, 4, 4, cudaMemcpyDeviceToHost); }},
        {"cudaMemcpy2DAsync",
         [&] { return cudaMemcpy2DAsync(vHost, 4, pDevice, 4, 4, 4, cudaMemcpyDeviceToHost, hStream); }},
        {"cudaMemset", [&] { return cudaMemset(pDevice, 0, 16); }},
        {"cudaMemsetAsync", [&] { return cudaMemsetAsync(pDevice, 0, 16, hStream); }},
        {"cudaMemset2D", [&] { return cudaMemset2D(pDevice, 4, 0, 4, 4); }},
        {"cudaMemset2DAsync", [&] { return cudaMemset2DAsync(pDevice, 4, 0, 4, 4, hStream); }},
        {"cudaMemcpyToSymbol", [&] { return cudaMemcpyToSymbol(g_vSymbol, vHost, 16); }},
        {"cudaMemcpyToSymbolAsync", [&] { return cudaMemcpyToSymbolAsync(g_vSymbol, vHost, 16); }},
        {"cudaMemcpyFromSymbol", [&] { return cudaMemcpyFromSymbol(vHost, g_vSymbol, 16); }},
        {"cudaMemcpyFromSymbolAsync", [&] { return cudaMemcpyFromSymbolAsync(vHost, g_vSymbol, 16); }},
        {"cudaStreamCreate", [&] { return cudaStreamCreate(&hOutStream); }},
        {"cudaStreamSynchronize", [&] { return cudaStreamSynchronize(hStream); }},
        {"cudaStreamSynchronize of null", [&] { return cudaStreamSynchronize(nullptr); }},
        {"cudaStreamQuery", [&] { return cudaStreamQuery(hStream); }},
        {"cudaStreamWaitEvent", [&] { return cudaStreamWaitEvent(hStream, hEvent); }},
        {"cudaLaunchHostFunc",
         [&]
         {
             return cudaLaunchHostFunc(
                 hStream, [](void*) {}, nullptr);
         }},
        {"cudaStreamDestroy", [&] { return cudaStreamDestroy(hStream); }},
        {"cudaEventCreate", [&] { return cudaEventCreate(&hOutEvent); }},
        {"cudaEventRecord", [&] { return cudaEventRecord(hEvent, hStream); }},
        {"cudaEventSynchronize", [&] { return cudaEventSynchronize(hEvent); }},
        {"cudaEventQuery", [&] { return cudaEventQuery(hEvent); }},
        {"cudaEventElapsedTime", [&] { return cudaEventElapsedTime(&fTime, hEvent, hEvent); }},
        {"cudaEventDestroy", [&] { return cudaEventDestroy(hEvent); }},
    };
    HostCuda::SStatistics xBefore;
    HostCuda::SStatistics xAfter;
    ASSERT_EQ(HostCuda::GetStatistics(0, xBefore), cudaSuccess);
    ASSERT_EQ(HostCuda::RaiseFault(0, cudaErrorIllegalAddress), cudaSuccess);
    for (const SCall& xCall : vCalls)
    {
        EXPECT_EQ(xCall.Make(), cudaErrorIllegalAddress) << xCall.pcName;
    }
    ASSERT_EQ(HostCuda::GetStatistics(0, xAfter), cudaSuccess);
    EXPECT_EQ(xAfter, xBefore);
    EXPECT_EQ(pOut, nullptr);
    EXPECT_EQ(hOutStream, nullptr);
    EXPECT_EQ(hOutEvent, nullptr);
    EXPECT_EQ(hOutArray, nullptr);
    EXPECT_EQ(nPitch, 0U);
}

TEST_F(Faults, QueriesOfDeviceAndVersionStillAnswer)
{
    ASSERT_EQ(HostCuda::RaiseFault(0, cudaErrorLaunchFailure), cudaSuccess);
    int iValue = 0;
    cudaDeviceProp xProperties{};
    EXPECT_EQ(cudaGetDevice(&iValue), cudaSuccess);
    EXPECT_EQ(cudaGetDeviceCount(&iValue), cudaSuccess);
    EXPECT_EQ(cudaDeviceGetAttribute(&iValue, cudaDevAttrWarpSize, 0), cudaSuccess);
    EXPECT_EQ(cudaGetDeviceProperties(&xProperties, 0), cudaSuccess);
    EXPECT_EQ(cudaRuntimeGetVersion(&iValue), cudaSuccess);
    EXPECT_EQ(cudaDriverGetVersion(&iValue), cudaSuccess);
    EXPECT_EQ(cudaSetDevice(0), cudaSuccess);
    EXPECT_STREQ(cudaGetErrorString(cudaErrorLaunchFailure), "unspecified launch failure");
}

TEST_F(Faults, FaultStaysPendingForAllThreadsUntilTheReset)
{
    ASSERT_EQ(HostCuda::RaiseFault(0, cudaErrorAssert), cudaSuccess);
    ASSERT_EQ(HostCuda::RaiseFault(0, cudaErrorIllegalAddress), cudaSuccess);
    EXPECT_EQ(cudaDeviceSynchronize(), cudaErrorAssert) << "the first fault counts";
    EXPECT_EQ(cudaSetDevice(99), cudaErrorInvalidDevice);
    for (int iTime = 0; iTime < 3; ++iTime)
    {
        EXPECT_EQ(cudaPeekAtLastError(), cudaErrorAssert);
        EXPECT_EQ(cudaGetLastError(), cudaErrorAssert);
    }
    std::thread([] { EXPECT_EQ(cudaGetLastError(), cudaErrorAssert); }).join();
    EXPECT_EQ(cudaDeviceReset(), cudaSuccess);
    EXPECT_EQ(cudaGetLastError(), cudaSuccess);
    void* pMemory = nullptr;
    EXPECT_EQ(cudaMalloc(&pMemory, 16), cudaSuccess);
    EXPECT_EQ(cudaFree(pMemory), cudaSuccess);
}

TEST_F(Faults, FaultConcernsItsDeviceOnly)
{
    void* pMemory = nullptr;
    cudaStream_t hStream = nullptr;
    ASSERT_EQ(cudaMalloc(&pMemory, 16), cudaSuccess);
    ASSERT_EQ(cudaStreamCreate(&hStream), cudaSuccess);
    ASSERT_EQ(HostCuda::RaiseFault(0, cudaErrorIllegalAddress), cudaSuccess);
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    EXPECT_EQ(cudaGetLastError(), cudaSuccess);
    const CBlock xBlock(EMemory::Device, 16);
    EXPECT_EQ(cudaMemset(xBlock.Get(), 7, 16), cudaSuccess);
    EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
    // What belongs to the other device is refused; the code is then an ordinary error of this thread.
    ExpectFailure(cudaStreamSynchronize(hStream), cudaErrorIllegalAddress);
    ExpectFailure(cudaFree(pMemory), cudaErrorIllegalAddress);
    EXPECT_EQ(cudaGetLastError(), cudaSuccess);
}

TEST_F(Faults, QueuedWorkIsDroppedAndWaitingReportsTheFault)
{
    cudaStream_t hStream = nullptr;
    cudaEvent_t hEvent = nullptr;
    ASSERT_EQ(cudaStreamCreate(&hStream), cudaSuccess);
    ASSERT_EQ(cudaEventCreate(&hEvent), cudaSuccess);
    bool bCalled = false;
    CHold xHold(hStream);
    ASSERT_EQ(cudaLaunchHostFunc(
                  hStream, [](void* pCalled) { *static_cast<bool*>(pCalled) = true; }, &bCalled),
              cudaSuccess);
    ASSERT_EQ(cudaEventRecord(hEvent, hStream), cudaSuccess);
    xHold.Await();
    std::future<cudaError_t> xWaiting =
        std::async(std::launch::async, [hEvent] { return cudaEventSynchronize(hEvent); });
    ASSERT_EQ(HostCuda::RaiseFault(0, cudaErrorIllegalAddress), cudaSuccess);
    xHold.Release();
    EXPECT_EQ(xWaiting.get(), cudaErrorIllegalAddress);
    EXPECT_EQ(cudaDeviceSynchronize(), cudaErrorIllegalAddress);
    EXPECT_FALSE(bCalled);
}

TEST_F(Faults, FreeThatMeetsAFaultLeavesTheBlock)
{
    void* pMemory = nullptr;
    cudaStream_t hStream = nullptr;
    ASSERT_EQ(cudaMalloc(&pMemory, 16), cudaSuccess);
    ASSERT_EQ(cudaStreamCreate(&hStream), cudaSuccess);
    CHold xHold(hStream);
    xHold.Await();
    std::future<cudaError_t> xFree = std::async(std::launch::async, [pMemory] { return cudaFree(pMemory); });
    EXPECT_EQ(xFree.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    ASSERT_EQ(HostCuda::RaiseFault(0, cudaErrorIllegalAddress), cudaSuccess);
    xHold.Release();
    EXPECT_EQ(xFree.get(), cudaErrorIllegalAddress);
    HostCuda::SStatistics xStatistics;
    EXPECT_EQ(HostCuda::GetStatistics(0, xStatistics), cudaSuccess);
    EXPECT_EQ(xStatistics.xTotal, (HostCuda::SMemoryUse{1, 16}));
}

TEST_F(Faults, ExceptionOfQueuedWorkIsAFault)
{
    EXPECT_EQ(cudaLaunchHostFunc(
                  nullptr, [](void*) { throw 1; }, nullptr),
              cudaSuccess);
    EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaErrorLaunchFailure);
    EXPECT_EQ(cudaGetLastError(), cudaErrorLaunchFailure);
}

TEST_F(Faults, OnlyErrorsOfExistingDevicesAreFaults)
{
    EXPECT_EQ(HostCuda::RaiseFault(0, cudaSuccess), cudaErrorInvalidValue);
    EXPECT_EQ(HostCuda::RaiseFault(-1, cudaErrorAssert), cudaErrorInvalidDevice);
    EXPECT_EQ(HostCuda::RaiseFault(64, cudaErrorAssert), cudaErrorInvalidDevice);
    EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
}

} // namespace

} // namespace Qx::Test
