#include <functional>

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

TEST_F(NoDevice, ImagesCannotBeCreatedAndStayEmpty)
{
    const CQxImageFormat xFormat(64, 48, EDataType::UByte, EPixelType::RGBA);
    const CQxImage xHost(xFormat);
    CQxDeviceImage2D x2D;
    CQxDeviceImage1D x1D;
    CQxPageLockedImage xPageLocked;
    const struct
    {
        std::function<void()> Create;
        const char* pcMessage;
        int iWrappers;
    } c_vCases[] = {{[&] { x2D.Create(xFormat); }, "Error creating 2D CUDA device image", 1},
                    {[&] { x2D.Create(xHost); }, "Error creating 2D CUDA device image", 2},
                    {[&] { x2D.CreateAsync(&xHost, nullptr); }, "Error creating 2D CUDA device image", 2},
                    {[&] { x1D.Create(xFormat); }, "Error creating 1D Image", 1},
                    {[&] { x1D.Create(xHost); }, "Error creating 1D Image", 2},
                    {[&] { xPageLocked.Create(xFormat); }, "Error creating page-locked image", 1}};
    for (const auto& xCase : c_vCases)
    {
        SCOPED_TRACE(xCase.pcMessage);
        try
        {
            xCase.Create();
            ADD_FAILURE() << "nothing was thrown";
        }
        catch (const CQxException& xException)
        {
            const IException* pLink = &xException;
            for (int iWrapper = 0; iWrapper < xCase.iWrappers; ++iWrapper)
            {
                ASSERT_NE(pLink, nullptr);
                EXPECT_STREQ(pLink->GetMessageText().ToCString(), xCase.pcMessage);
                pLink = pLink->GetInnerException();
            }
            const auto* pCuda = dynamic_cast<const CQxCudaException*>(pLink);
            ASSERT_NE(pCuda, nullptr);
            EXPECT_EQ(pCuda->GetInnerException(), nullptr);
            EXPECT_EQ(pCuda->GetCudaError(), m_eError);
            EXPECT_EQ(pCuda->GetDeviceID(), -1);
        }
    }
    EXPECT_FALSE(x2D.IsValid() || x1D.IsValid() || xPageLocked.GetDataPtr() != nullptr);
    EXPECT_EQ(x2D.GetFormat(), CQxImageFormat{});
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
