#include "RuntimeTest.h"

namespace Qx::Test
{

namespace
{

class Errors : public CRuntimeTest
{
};

TEST_F(Errors, CodesHaveTheRuntimesNamesAndTexts)
{
    const std::tuple<int, const char*, const char*> vCases[] = {
        {0, "cudaSuccess", "no error"},
        {1, "cudaErrorInvalidValue", "invalid argument"},
        {222, "cudaErrorUnsupportedPtxVersion", "the provided PTX was compiled with an unsupported toolchain."},
        {999, "cudaErrorUnknown", "unknown error"},
        {10, "unrecognized error code", "unrecognized error code"},
        {1000, "unrecognized error code", "unrecognized error code"},
    };
    for (const auto& [iError, pcName, pcText] : vCases)
    {
        EXPECT_STREQ(cudaGetErrorName(static_cast<cudaError_t>(iError)), pcName);
        EXPECT_STREQ(cudaGetErrorString(static_cast<cudaError_t>(iError)), pcText);
    }
}

TEST_F(Errors, LastErrorOfAThreadStaysUntilItIsTakenOrReplaced)
{
    EXPECT_EQ(cudaSetDevice(99), cudaErrorInvalidDevice);
    std::thread(
        []
        {
            EXPECT_EQ(cudaPeekAtLastError(), cudaSuccess);
            EXPECT_EQ(cudaEventDestroy(nullptr), cudaErrorInvalidResourceHandle);
            EXPECT_EQ(cudaPeekAtLastError(), cudaErrorInvalidResourceHandle);
        })
        .join();
    int iDevice = 0;
    EXPECT_EQ(cudaGetDevice(&iDevice), cudaSuccess);
    EXPECT_EQ(cudaPeekAtLastError(), cudaErrorInvalidDevice);
    EXPECT_EQ(cudaPeekAtLastError(), cudaErrorInvalidDevice);
    ExpectResult(cudaMemset(nullptr, 0, 1), cudaErrorInvalidValue);
    EXPECT_EQ(cudaGetLastError(), cudaSuccess);
}

TEST_F(Errors, NotReadyIsAnAnswerOfQueriesAndNoError)
{
    const CStreamScope hStream;
    const CEventScope hEvent;
    {
        const CHold xHold(hStream);
        EXPECT_EQ(cudaEventRecord(hEvent, hStream), cudaSuccess);
        EXPECT_EQ(cudaStreamQuery(hStream), cudaErrorNotReady);
        EXPECT_EQ(cudaEventQuery(hEvent), cudaErrorNotReady);
        EXPECT_EQ(cudaPeekAtLastError(), cudaSuccess);
        EXPECT_EQ(cudaSetDevice(99), cudaErrorInvalidDevice);
        EXPECT_EQ(cudaStreamQuery(hStream), cudaErrorNotReady);
    }
    EXPECT_EQ(cudaGetLastError(), cudaErrorInvalidDevice);
}

TEST_F(Errors, HostFunctionsMayNotCallTheRuntime)
{
    struct SResults
    {
        void* pMemory = nullptr;
        cudaError_t eAllocation = cudaSuccess;
        cudaError_t eSynchronize = cudaSuccess;
    } xResults;
    const auto Call = [](void* pData)
    {
        auto& x = *static_cast<SResults*>(pData);
        x.eAllocation = cudaMalloc(&x.pMemory, 16);
        x.eSynchronize = cudaDeviceSynchronize();
    };
    EXPECT_EQ(cudaLaunchHostFunc(nullptr, Call, &xResults), cudaSuccess);
    EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
    EXPECT_EQ(xResults.eAllocation, cudaErrorNotPermitted);
    EXPECT_EQ(xResults.eSynchronize, cudaErrorNotPermitted);
    EXPECT_EQ(xResults.pMemory, nullptr);
}

} // namespace

} // namespace Qx::Test
