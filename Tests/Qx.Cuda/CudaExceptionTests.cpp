#include <memory>

#include <gtest/gtest.h>

#include "Qx.Cuda.Core/Cuda.h"
#include "Qx.CudaRecorder/CudaRecorder.h"
#include "Support/CudaChain.h"

namespace Qx::Test
{

namespace
{

constexpr const char* c_pcHeader = "Qx.Cuda.Core/Cuda";

// Makes the calling thread's last error eError while the failing call returns it.
void Pend(cudaError_t eError)
{
    CCudaRecorder::FailCall("cudaFree", 1, eError);
    EXPECT_EQ(cudaFree(nullptr), eError);
}

TEST(CudaException, ConsumesTheLastErrorAndRecordsNameTextAndDeviceInThatOrder)
{
    Pend(cudaErrorInvalidDevicePointer);
    CCudaRecorder::Reset();
    const auto xException = CQxCudaException::CreateFirst("Error freeing CUDA memory", "a/file", "QxCudaFree", 17);

    EXPECT_STREQ(xException.GetMessageText().ToCString(),
        "Error freeing CUDA memory. 'cudaErrorInvalidDevicePointer: invalid device pointer (ID 17)', "
        "Device ID: 0");
    EXPECT_EQ(xException.GetCudaError(), cudaErrorInvalidDevicePointer);
    EXPECT_STREQ(
        xException.GetCudaErrorText().ToCString(), "cudaErrorInvalidDevicePointer: invalid device pointer (ID 17)");
    EXPECT_EQ(xException.GetDeviceID(), 0);
    EXPECT_EQ(xException.GetLine(), 17);
    EXPECT_EQ(xException.GetInnerException(), nullptr);
    EXPECT_EQ(CCudaRecorder::CallNames(),
        (std::vector<std::string>{"cudaGetLastError", "cudaGetErrorName", "cudaGetErrorString", "cudaGetDevice"}));
    const auto xSecond = CQxCudaException::CreateFirst("", "file", "Function", 2, "ignored", 3);
    EXPECT_EQ(xSecond.GetCudaError(), cudaSuccess);
    EXPECT_STREQ(xSecond.GetMessageText().ToCString(), ". 'cudaSuccess: no error (ID 0)', Device ID: 0");
}

TEST(CudaException, KeepsDeviceMinusOneAndLeavesTheErrorOfAFailedDeviceQuery)
{
    Pend(cudaErrorInvalidValue);
    CCudaRecorder::FailCall("cudaGetDevice", 1, cudaErrorInitializationError);
    const auto xException = CQxCudaException::CreateFirst("step", "file", "Function", 1);
    EXPECT_STREQ(xException.GetMessageText().ToCString(),
        "step. 'cudaErrorInvalidValue: invalid argument (ID 1)', Device ID: -1");
    EXPECT_EQ(xException.GetDeviceID(), -1);
    EXPECT_EQ(cudaGetLastError(), cudaErrorInitializationError);
}

TEST(CudaException, CloneKeepsClassAndCudaState)
{
    Pend(cudaErrorInvalidValue);
    const auto xOriginal = CQxCudaException::CreateFirst("step", "file", "Function", 5);
    const std::unique_ptr<IException> pClone(xOriginal.Clone());
    const auto* pCuda = dynamic_cast<const CQxCudaException*>(pClone.get());
    ASSERT_NE(pCuda, nullptr);
    EXPECT_TRUE(IsChain(*pClone, {Cuda("step", cudaErrorInvalidValue, "Function", "file")}));
    EXPECT_EQ(pCuda->GetLine(), 5);
    EXPECT_EQ(pCuda->GetCudaError(), cudaErrorInvalidValue);
    EXPECT_EQ(pCuda->GetCudaErrorText(), xOriginal.GetCudaErrorText());
    EXPECT_EQ(pCuda->GetDeviceID(), 0);
    EXPECT_TRUE(pClone->GetGUID() == CGuid("{7C2E9A41-5B3D-4F18-9E6A-2D4B8C1F0A73}"));

    const CQxOutOfMemoryException xOutOfMemory("full", "file", "Function", 6);
    const CQxException xOuter("outer", "file", "Outer", 7, xOutOfMemory);
    EXPECT_NE(dynamic_cast<const CQxOutOfMemoryException*>(xOuter.GetInnerException()), nullptr);
    EXPECT_TRUE(xOuter.HasException(CGuid("{3A8F6D12-C94E-4B27-A1D5-68E0F7B23C91}")));
    EXPECT_FALSE(xOuter.HasException(CQxCudaException::c_xGuid));
}

TEST(CudaCall, SelectsTheDeviceOrReportsWhatTheRuntimeRefuses)
{
    CudaCall::SetDeviceID(0);
    CCudaRecorder::Reset();
    EXPECT_EQ(CudaCall::GetDeviceID(), 0);
    EXPECT_EQ(CCudaRecorder::CallNames(), std::vector<std::string>{"cudaGetDevice"});
    for (const int iDevice : {-1, 9999})
    {
        EXPECT_TRUE(ThrowsChain([&] { CudaCall::SetDeviceID(iDevice); },
            {Cuda("Error setting CUDA device ID", cudaErrorInvalidDevice, "SetDeviceID", c_pcHeader)}));
    }
    EXPECT_EQ(CudaCall::GetDeviceID(), 0);
    CCudaRecorder::FailCall("cudaGetDevice", 1, cudaErrorInitializationError);
    EXPECT_TRUE(ThrowsChain([] { CudaCall::GetDeviceID(); },
        {Cuda("Error getting CUDA device ID", cudaErrorInitializationError, "GetDeviceID", c_pcHeader)}));
}

TEST(CudaException, RecordsTheLineThatChecksOrThrows)
{
    const auto LineOf = [](auto&& xBody)
    {
        try
        {
            xBody();
        }
        catch (const CQxException& xException)
        {
            return xException.GetLine();
        }
        return 0;
    };
    static constexpr SThrowSite c_xSite{"file", "Function"};
    EXPECT_EQ(LineOf([] { CheckCuda(cudaErrorUnknown, c_xSite, "step"); }), __LINE__);
    EXPECT_EQ(LineOf([] { ThrowCuda(c_xSite, "step"); }), __LINE__);
    EXPECT_EQ(LineOf([] { ThrowOutOfMemory(c_xSite, "step"); }), __LINE__);
}

// The exception shows the thread's last error even where the failing call returned another.
TEST(CudaCall, RecordsThePendingErrorRatherThanTheResult)
{
    Pend(cudaErrorInvalidValue);
    EXPECT_TRUE(ThrowsChain(
        [] {
            CheckCuda(cudaErrorNotReady, {"file", "Function"}, "step");
        },
        {Cuda("step", cudaErrorInvalidValue, "Function", "file")}));
}

} // namespace

} // namespace Qx::Test
