#include "Qx.CudaRecorder/CudaRecorder.h"

#include <dlfcn.h>

#include <algorithm>
#include <functional>
#include <stdexcept>

#include <cuda_runtime.h>
#include <gtest/gtest.h>

#include "Qx.Cuda/QxLaunchKernel.h"

namespace Qx::Test
{

namespace
{

__constant__ int c_iConstant;

__global__ void Nothing(int) {}

using Calls = std::vector<std::uint64_t>;

// The file that holds what a name stands for to the libraries.
std::string _FileOf(const void* pFunction)
{
    Dl_info xInfo{};
    return pFunction != nullptr && dladdr(pFunction, &xInfo) != 0 ? xInfo.dli_fname : "";
}

} // namespace

TEST(Recorder, StandsBeforeEveryCallThatTheStandInDeclares)
{
    std::vector<std::string> vDeclared = {
#include "DeclaredCalls.inc"
    };
    const std::string sProgram = _FileOf(reinterpret_cast<const void*>(&_FileOf));
    for (const std::string& sName : vDeclared)
    {
        EXPECT_EQ(_FileOf(dlsym(RTLD_DEFAULT, sName.c_str())), sProgram) << sName;
    }
    vDeclared.emplace_back("cudaLaunchKernel");
    std::vector<std::string> vKnown = CCudaRecorder::KnownNames();
    std::sort(vKnown.begin(), vKnown.end());
    std::sort(vDeclared.begin(), vDeclared.end());
    EXPECT_EQ(vKnown, vDeclared);
}

TEST(Recorder, RefusesNamesThatItDoesNotKnowOrCannotFail)
{
    for (const char* pcName : {"cudaMemcpy3", "cudaMemcpy2", "cublasSgemm_v2", "Launch", "cublas"})
    {
        SCOPED_TRACE(pcName);
        EXPECT_THROW(CCudaRecorder::FailCall(pcName, 1, cudaErrorUnknown), std::invalid_argument);
        EXPECT_THROW(static_cast<void>(CCudaRecorder::Count(pcName)), std::invalid_argument);
        EXPECT_THROW(static_cast<void>(CCudaRecorder::Last(pcName)), std::invalid_argument);
    }
    for (const char* pcName : {"cudaGetLastError", "cudaPeekAtLastError", "cudaGetErrorName", "cublasGetStatusName"})
    {
        EXPECT_THROW(CCudaRecorder::FailCall(pcName, 1, cudaErrorUnknown), std::invalid_argument) << pcName;
        EXPECT_EQ(CCudaRecorder::Count(pcName), 0U);
    }
}

TEST(Recorder, RecordsAndFailsWhatAClientCalls)
{
    if (!DeviceAnswers())
    {
        GTEST_SKIP() << "no CUDA device";
    }
    cudaStream_t pStream = nullptr;
    cudaEvent_t pEvent = nullptr;
    void* pBlock = nullptr;
    cublasHandle_t hBlas = nullptr;
    int iValue = 5;
    // In this order; those that give something back are followed by those that take it.
    const std::vector<std::pair<const char*, std::function<int()>>> vCalls = {
        {"cudaStreamCreate", [&] { return cudaStreamCreate(&pStream); }},
        {"cudaEventCreate", [&] { return cudaEventCreate(&pEvent); }},
        {"cudaLaunchKernel",
            [&]
            {
                cudaLaunchConfig_t xConfig{};
                xConfig.gridDim = dim3(2, 3, 4);
                xConfig.blockDim = dim3(5, 6, 7);
                xConfig.stream = pStream;
                return cudaLaunchKernelEx(&xConfig, Nothing, 1);
            }},
        {"cudaEventRecord", [&] { return cudaEventRecord(pEvent, pStream); }},
        {"cudaStreamWaitEvent", [&] { return cudaStreamWaitEvent(pStream, pEvent, 0); }},
        {"cudaLaunchHostFunc",
            [&]
            {
                return cudaLaunchHostFunc(
                    pStream, [](void*) {}, nullptr);
            }},
        {"cudaMemcpyToSymbol", [&] { return cudaMemcpyToSymbol(c_iConstant, &iValue, sizeof(iValue)); }},
        {"cudaMemcpyFromSymbol", [&] { return cudaMemcpyFromSymbol(&iValue, c_iConstant, sizeof(iValue)); }},
        {"cudaMallocHost", [&] { return cudaMallocHost(&pBlock, 10); }},
        {"cudaFreeHost", [&] { return cudaFreeHost(pBlock); }},
        {"cublasCreate", [&] { return cublasCreate(&hBlas); }},
        {"cublasSetStream", [&] { return cublasSetStream(hBlas, pStream); }},
        {"cublasDestroy_v2", [&] { return cublasDestroy(hBlas); }},
        {"cudaEventDestroy", [&] { return cudaEventDestroy(pEvent); }},
        {"cudaStreamDestroy", [&] { return cudaStreamDestroy(pStream); }},
    };
    for (const auto& [pcName, Call] : vCalls)
    {
        SCOPED_TRACE(pcName);
        const bool bBlas = std::string_view(pcName).starts_with("cublas");
        CCudaRecorder::Reset();
        CCudaRecorder::FailCall(pcName, 1, cudaErrorLaunchTimeout);
        EXPECT_EQ(Call(), bBlas ? int{CUBLAS_STATUS_EXECUTION_FAILED} : int{cudaErrorLaunchTimeout});
        EXPECT_TRUE(CCudaRecorder::HasFailed());
        EXPECT_EQ(cudaPeekAtLastError(), bBlas ? cudaSuccess : cudaErrorLaunchTimeout);
        EXPECT_EQ(cudaGetLastError(), bBlas ? cudaSuccess : cudaErrorLaunchTimeout);
        CCudaRecorder::Reset();
        const std::size_t nLive = CCudaRecorder::LiveAllocations();
        EXPECT_EQ(Call(), 0);
        EXPECT_EQ(CCudaRecorder::CallNames().size(), 1U) << "what the runtime calls itself is not the program's";
        EXPECT_EQ(CCudaRecorder::Count(pcName), 1U);
        EXPECT_EQ(CCudaRecorder::LiveAllocations(),
            nLive + (pcName == vCalls[8].first ? 1U : 0U) - (pcName == vCalls[9].first ? 1U : 0U));
        if (CCudaRecorder::CallNames().front() == "cudaLaunchKernel")
        {
            EXPECT_EQ(CCudaRecorder::Last("cudaLaunchKernelEx").vArguments,
                (Calls{2, 3, 4, 5, 6, 7, 0, reinterpret_cast<std::uintptr_t>(pStream)}));
        }
    }
}

} // namespace Qx::Test
