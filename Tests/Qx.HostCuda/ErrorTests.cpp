#include "HostCudaTest.h"

namespace Qx::Test
{

namespace
{

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

TEST_F(Faults, EveryCallThatConcernsTheDeviceReturnsTheFaultAndDoesNothing)
{
    void* const pDevice = MakeMemory(16);
    void* pPinned = nullptr;
    ASSERT_EQ(cudaMallocHost(&pPinned, 16), cudaSuccess);
    const cudaStream_t hStream = MakeStream();
    const cudaEvent_t hEvent = MakeEvent();
    ASSERT_EQ(cudaEventRecord(hEvent, hStream), cudaSuccess);
    cudaArray_t hArray = nullptr;
    const cudaChannelFormatDesc xFormat = cudaCreateChannelDesc(8, 0, 0, 0, cudaChannelFormatKindUnsigned);
    ASSERT_EQ(cudaMallocArray(&hArray, &xFormat, 4, 4), cudaSuccess);
    const HostCuda::SStatistics xBefore = GetStatistics();
    ASSERT_EQ(HostCuda::RaiseFault(0, cudaErrorIllegalAddress), cudaSuccess);

    void* pOut = nullptr;
    std::size_t nOut = 0;
    std::size_t nOther = 0;
    unsigned char vHost[16] = {};
    cudaStream_t hOutStream = nullptr;
    cudaEvent_t hOutEvent = nullptr;
    cudaArray_t hOutArray = nullptr;
    cudaPointerAttributes xAttributes{};
    float fTime = 0;
    const auto DoNothing = [](void*) {};
    const std::pair<const char*, cudaError_t> vResults[] = {
        {"cudaDeviceSynchronize", cudaDeviceSynchronize()},
        {"cudaMemGetInfo", cudaMemGetInfo(&nOut, &nOther)},
        {"cudaMalloc", cudaMalloc(&pOut, 16)},
        {"cudaMallocPitch", cudaMallocPitch(&pOut, &nOut, 16, 1)},
        {"cudaMallocManaged", cudaMallocManaged(&pOut, 16)},
        {"cudaHostAlloc", cudaHostAlloc(&pOut, 16, 0)},
        {"cudaMallocHost", cudaMallocHost(&pOut, 16)},
        {"cudaMallocArray", cudaMallocArray(&hOutArray, &xFormat, 4, 4)},
        {"cudaFree", cudaFree(pDevice)},
        {"cudaFree of null", cudaFree(nullptr)},
        {"cudaFreeHost", cudaFreeHost(pPinned)},
        {"cudaFreeArray", cudaFreeArray(hArray)},
        {"cudaArrayGetInfo", cudaArrayGetInfo(nullptr, nullptr, nullptr, hArray)},
        {"cudaHostGetDevicePointer", cudaHostGetDevicePointer(&pOut, pPinned, 0)},
        {"cudaPointerGetAttributes", cudaPointerGetAttributes(&xAttributes, pDevice)},
        {"cudaMemcpy", cudaMemcpy(vHost, pDevice, 16, cudaMemcpyDeviceToHost)},
        {"cudaMemcpy of nothing", cudaMemcpy(vHost, pDevice, 0, cudaMemcpyDeviceToHost)},
        {"cudaMemcpyAsync", cudaMemcpyAsync(vHost, pDevice, 16, cudaMemcpyDeviceToHost, hStream)},
        {"cudaMemcpy2D", cudaMemcpy2D(vHost, 4, pDevice, 4, 4, 4, cudaMemcpyDeviceToHost)},
        {"cudaMemcpy2DAsync", cudaMemcpy2DAsync(vHost, 4, pDevice, 4, 4, 4, cudaMemcpyDeviceToHost, hStream)},
        {"cudaMemset", cudaMemset(pDevice, 0, 16)},
        {"cudaMemsetAsync", cudaMemsetAsync(pDevice, 0, 16, hStream)},
        {"cudaMemset2D", cudaMemset2D(pDevice, 4, 0, 4, 4)},
        {"cudaMemset2DAsync", cudaMemset2DAsync(pDevice, 4, 0, 4, 4, hStream)},
        {"cudaMemcpyToSymbol", cudaMemcpyToSymbol(g_vSymbol, vHost, 16)},
        {"cudaMemcpyToSymbolAsync", cudaMemcpyToSymbolAsync(g_vSymbol, vHost, 16)},
        {"cudaMemcpyFromSymbol", cudaMemcpyFromSymbol(vHost, g_vSymbol, 16)},
        {"cudaMemcpyFromSymbolAsync", cudaMemcpyFromSymbolAsync(vHost, g_vSymbol, 16)},
        {"cudaStreamCreate", cudaStreamCreate(&hOutStream)},
        {"cudaStreamSynchronize", cudaStreamSynchronize(hStream)},
        {"cudaStreamSynchronize of null", cudaStreamSynchronize(nullptr)},
        {"cudaStreamQuery", cudaStreamQuery(hStream)},
        {"cudaStreamWaitEvent", cudaStreamWaitEvent(hStream, hEvent)},
        {"cudaLaunchHostFunc", cudaLaunchHostFunc(hStream, DoNothing, nullptr)},
        {"cudaStreamDestroy", cudaStreamDestroy(hStream)},
        {"cudaEventCreate", cudaEventCreate(&hOutEvent)},
        {"cudaEventRecord", cudaEventRecord(hEvent, hStream)},
        {"cudaEventSynchronize", cudaEventSynchronize(hEvent)},
        {"cudaEventQuery", cudaEventQuery(hEvent)},
        {"cudaEventElapsedTime", cudaEventElapsedTime(&fTime, hEvent, hEvent)},
        {"cudaEventDestroy", cudaEventDestroy(hEvent)},
    };
    for (const auto& [pcName, eError] : vResults)
    {
        EXPECT_EQ(eError, cudaErrorIllegalAddress) << pcName;
    }
    EXPECT_EQ(GetStatistics(), xBefore);
    EXPECT_EQ(pOut, nullptr);
    EXPECT_EQ(hOutStream, nullptr);
    EXPECT_EQ(hOutEvent, nullptr);
    EXPECT_EQ(hOutArray, nullptr);
    EXPECT_EQ(nOut, 0U);

    // Queries of device and version still answer.
    int iValue = 0;
    cudaDeviceProp xProperties{};
    for (const cudaError_t eError : {cudaGetDevice(&iValue), cudaGetDeviceCount(&iValue), cudaSetDevice(0),
             cudaDeviceGetAttribute(&iValue, cudaDevAttrWarpSize, 0), cudaGetDeviceProperties(&xProperties, 0),
             cudaRuntimeGetVersion(&iValue), cudaDriverGetVersion(&iValue)})
    {
        EXPECT_EQ(eError, cudaSuccess);
    }
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
    EXPECT_EQ(cudaFree(MakeMemory(16)), cudaSuccess);
}

TEST_F(Faults, FaultConcernsItsDeviceOnly)
{
    void* const pMemory = MakeMemory(16);
    const cudaStream_t hStream = MakeStream();
    ASSERT_EQ(HostCuda::RaiseFault(0, cudaErrorIllegalAddress), cudaSuccess);
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    EXPECT_EQ(cudaGetLastError(), cudaSuccess);
    const CBlock xBlock(EMemory::Device, 16);
    EXPECT_EQ(cudaMemset(xBlock.Get(), 7, 16), cudaSuccess);
    EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
    // What belongs to the other device is refused; the code is then an ordinary error of this thread.
    ExpectResult(cudaStreamSynchronize(hStream), cudaErrorIllegalAddress);
    ExpectResult(cudaFree(pMemory), cudaErrorIllegalAddress);
    EXPECT_EQ(cudaGetLastError(), cudaSuccess);
}

TEST_F(Faults, WorkAfterAFaultIsDroppedAndWhoWaitsHearsOfIt)
{
    void* const pMemory = MakeMemory(16);
    const cudaStream_t hStream = MakeStream();
    const cudaEvent_t hEvent = MakeEvent();
    bool bCalled = false;
    const auto Call = [](void* pCalled) { *static_cast<bool*>(pCalled) = true; };
    CHold xHold(hStream);
    ASSERT_EQ(cudaLaunchHostFunc(hStream, Call, &bCalled), cudaSuccess);
    ASSERT_EQ(cudaEventRecord(hEvent, hStream), cudaSuccess);
    xHold.Await();
    CWaiting xEvent([=] { return cudaEventSynchronize(hEvent); });
    CWaiting xStream([=] { return cudaStreamSynchronize(hStream); });
    CWaiting xDevice([] { return cudaDeviceSynchronize(); });
    CWaiting xFree([=] { return cudaFree(pMemory); });
    ASSERT_EQ(HostCuda::RaiseFault(0, cudaErrorIllegalAddress), cudaSuccess);
    xHold.Release();
    for (CWaiting* const pWaiting : {&xEvent, &xStream, &xDevice, &xFree})
    {
        EXPECT_EQ(pWaiting->Get(), cudaErrorIllegalAddress);
    }
    EXPECT_FALSE(bCalled);
    EXPECT_EQ(GetStatistics().xTotal, (HostCuda::SMemoryUse{1, 16})) << "the block stays";
}

TEST_F(Faults, ExceptionOfQueuedWorkIsAFault)
{
    const auto Throw = [](void*) { throw 1; };
    EXPECT_EQ(cudaLaunchHostFunc(nullptr, Throw, nullptr), cudaSuccess);
    EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaErrorLaunchFailure);
    EXPECT_EQ(cudaGetLastError(), cudaErrorLaunchFailure);
}

} // namespace

} // namespace Qx::Test
