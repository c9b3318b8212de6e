#include <vector>

#include <gtest/gtest.h>

#include "Qx.Cuda/QxCuda.h"
#include "Support/CudaChain.h"
#include "Support/CudaRecorder.h"

namespace Qx::Test
{

namespace
{

constexpr const char* c_pcImage = "Source/Qx.Cuda/QxDeviceImage2D";

// Whatever the runtime says where nothing answers: no driver, or no device.
class NoDevice : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_FALSE(DeviceAnswers()) << "a device answers although none should be visible";
        int iCount = 0;
        m_eError = cudaGetDeviceCount(&iCount);
        ASSERT_TRUE(m_eError == cudaErrorInsufficientDriver || m_eError == cudaErrorNoDevice) << m_eError;
        static_cast<void>(cudaGetLastError());
    }

    void TearDown() override { static_cast<void>(cudaGetLastError()); }

    // The runtime cannot tell the device, so the exception records none.
    SLink Failed(const char* pcMessage, const char* pcFunction, const char* pcFile) const
    {
        return Cuda(pcMessage, m_eError, pcFunction, pcFile, -1);
    }

    cudaError_t m_eError = cudaSuccess;
};

TEST_F(NoDevice, DeviceSelectionFailsWithTheRuntimesError)
{
    EXPECT_TRUE(ThrowsChain([] { CudaCall::SetDeviceID(0); },
                            {Failed("Error setting CUDA device ID", "SetDeviceID", "Qx.Cuda.Core/Cuda")}));
    EXPECT_TRUE(ThrowsChain([] { CudaCall::GetDeviceID(); },
                            {Failed("Error getting CUDA device ID", "GetDeviceID", "Qx.Cuda.Core/Cuda")}));
}

TEST_F(NoDevice, ImageCreationFailsThroughThePoolAndLeavesTheImageEmpty)
{
    CQxDeviceImage2D xImage;
    const CQxImageFormat xFormat(64, 48, EDataType::UByte, EPixelType::RGBA);
    try
    {
        xImage.Create(xFormat);
        FAIL() << "nothing was thrown";
    }
    catch (const CQxException& xException)
    {
        EXPECT_STREQ(xException.GetMessageText().ToCString(), "Error creating 2D CUDA device image");
        const IException* pInner = xException.GetInnerException();
        ASSERT_NE(pInner, nullptr);
        EXPECT_EQ(pInner->GetInnerException(), nullptr);
        EXPECT_TRUE(pInner->HasException(CQxCudaException::c_xGuid));
        const auto* pCuda = dynamic_cast<const CQxCudaException*>(pInner);
        ASSERT_NE(pCuda, nullptr);
        EXPECT_EQ(pCuda->GetCudaError(), m_eError);
        EXPECT_EQ(pCuda->GetDeviceID(), -1);
    }
    EXPECT_FALSE(xImage.IsValid());
    EXPECT_EQ(xImage.GetFormat(), CQxImageFormat{});
    EXPECT_THROW(CQxDeviceImage2D{CQxImage(xFormat)}, CQxException);
    EXPECT_EQ(CCudaRecorder::LiveAllocations(), 0U);
}

TEST_F(NoDevice, OperationsOfAnEmptyImageBehaveAsEverywhere)
{
    CQxDeviceImage2D xImage;
    xImage.Release();
    CQxImage xHost;
    EXPECT_TRUE(ThrowsChain([&] { xImage.CopyTo(xHost); }, {Plain("Error copying to host image", "CopyTo", c_pcImage),
                                                            Plain("Image is invalid", "CopyTo", c_pcImage)}));
    EXPECT_TRUE(ThrowsChain([&] { xImage.SetZero(); }, {Plain("Error setting image to zero", "SetZero", c_pcImage),
                                                        Plain("Image is invalid", "SetZero", c_pcImage)}));
    EXPECT_EQ(GPU::CResourceManager::GetStatistics(0).nBlocksInUse, 0U);
}

} // namespace

} // namespace Qx::Test
