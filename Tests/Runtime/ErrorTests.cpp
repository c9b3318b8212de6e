#include <thread>

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
    struct
    {
        int iError;
        const char* pcName;
        const char* pcText;
    } const vCases[] = {
        {0, "cudaSuccess", "no error"},
        {1, "cudaErrorInvalidValue", "invalid argument"},
        {2, "cudaErrorMemoryAllocation", "out of memory"},
        {20, "cudaErrorInvalidChannelDescriptor", "invalid channel descriptor"},
        {222, "cudaErrorUnsupportedPtxVersion", "the provided PTX was compiled with an unsupported toolchain."},
        {719, "cudaErrorLaunchFailure", "unspecified launch failure"},
        {999, "cudaErrorUnknown", "unknown error"},
        {10, "unrecognized error code", "unrecognized error code"},
        {1000, "unrecognized error code", "unrecognized error code"},
    };
    for (const auto& xCase : vCases)
    {
        EXPECT_STREQ(cudaGetErrorName(static_cast<cudaError_t>(xCase.iError)), xCase.pcName);
        EXPECT_STREQ(cudaGetErrorString(static_cast<cudaError_t>(xCase.iError)), xCase.pcText);
    }
}

TEST_F(Errors, LastErrorStaysUntilItIsTakenOrReplaced)
{
    EXPECT_EQ(cudaSetDevice(99), cudaErrorInvalidDevice);
    int iDevice = 0;
    EXPECT_EQ(cudaGetDevice(&iDevice), cudaSuccess);
    EXPECT_EQ(cudaPeekAtLastError(), cudaErrorInvalidDevice);
    EXPECT_EQ(cudaPeekAtLastError(), cudaErrorInvalidDevice);
    EXPECT_EQ(cudaMemset(nullptr, 0, 1), cudaErrorInvalidValue);
    EXPECT_EQ(cudaGetLastError(), cudaErrorInvalidValue);
    EXPECT_EQ(cudaGetLastError(), cudaSuccess);
}

TEST_F(Errors, LastErrorBelongsToItsThread)
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
    EXPECT_EQ(cudaGetLastError(), cudaErrorInvalidDevice);
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
        cudaError_t eAllocation = cudaSuccess;
        cudaError_t eSynchronize = cudaSuccess;
        void* pMemory = nullptr;
    } xResults;
    EXPECT_EQ(cudaLaunchHostFunc(
                  nullptr,
                  [](void* pData)
                  {
                      auto& x = *static_cast<SResults*>(pData);
                      x.eAllocation = cudaMalloc(&x.pMemory, 16);
                      x.eSynchronize = cudaDeviceSynchronize();
                  },
                  &xResults),
              cudaSuccess);
    EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
    EXPECT_EQ(xResults.eAllocation, cudaErrorNotPermitted);
    EXPECT_EQ(xResults.eSynchronize, cudaErrorNotPermitted);
    EXPECT_EQ(xResults.pMemory, nullptr);
}

} // namespace

} // namespace Qx::Test
