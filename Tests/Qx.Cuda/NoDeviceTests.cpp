#include <functional>
#include <vector>

#include <gtest/gtest.h>

#include "Qx.Cuda/QxCuda.h"
#include "Qx.CudaRecorder/CudaRecorder.h"
#include "Support/CudaChain.h"

namespace Qx::Test
{

namespace
{

SDeviceImageDesc2D g_xSymbol;

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
    EXPECT_TRUE(ThrowsChain(
        [] { CudaCall::GetDeviceID(); }, {Failed("Error getting CUDA device ID", "GetDeviceID", "Qx.Cuda.Core/Cuda")}));
}

// Every operation that needs a device: how often it wraps the failure, and by what, outermost first.
TEST_F(NoDevice, EveryOperationFailsWithItsOwnChainAndLeavesNothingBehind)
{
    const CQxImageFormat xFormat(64, 48, EDataType::UByte, EPixelType::RGBA);
    const CQxImage xHost(xFormat);
    const CQxVector<float> xHostVector(4);
    const CQxMatrix<double> xHostMatrix(2, 3);
    CQxMapping3D xHostMapping;
    xHostMapping.Create(0, 0, 0, 1, 1, 1, 2, 2, 2, nullptr);
    CQxDeviceImage2D x2D;
    CQxDeviceImage1D x1D;
    CQxPageLockedImage xPageLocked;
    CQxCudaDeviceVector<float> xVector;
    CQxCudaDeviceMatrix<double> xMatrix;
    CQxDeviceMapping3D xMapping;
    CQxCudaComp xComp;
    xComp.EvalKernelDim_2D_1D(xFormat, 32, 2);
    std::size_t nPitch = 0;
    constexpr const char* c_pc2D = "Error creating 2D CUDA device image";
    constexpr const char* c_pc1D = "Error creating 1D Image";
    constexpr const char* c_pcBlock = "Error allocating memory block on the device";
    const char* const pcSetVector = "Error copying host vector to device";
    const char* const pcSetMatrix = "Error copying host matrix to device";
    const char* const pcUpload = "Error copying to device";
    constexpr cudaChannelFormatDesc c_xChannel{8, 0, 0, 0, cudaChannelFormatKindUnsigned};
    const struct
    {
        const char* pcName;
        std::vector<const char*> vWrappers;
        std::function<void()> Run;
    } c_vCases[] = {
        {"2D Create", {c_pc2D}, [&] { x2D.Create(xFormat); }},
        {"2D upload", {c_pc2D, c_pc2D}, [&] { x2D.Create(xHost); }},
        {"2D queued upload", {c_pc2D, c_pc2D}, [&] { x2D.CreateAsync(&xHost, nullptr); }},
        {"2D description", {}, [&] { x2D.CopyDescriptionToCudaConstAsync(g_xSymbol, nullptr); }},
        {"1D Create", {c_pc1D}, [&] { x1D.Create(xFormat); }},
        {"1D upload", {c_pc1D, c_pc1D}, [&] { x1D.Create(xHost); }},
        {"1D SetZero", {}, [&] { x1D.SetZero(); }},
        {"1D SetZeroAsync", {}, [&] { x1D.SetZeroAsync(nullptr); }},
        {"page-locked Create", {"Error creating page-locked image"}, [&] { xPageLocked.Create(xFormat); }},
        {"vector Set", {pcSetVector, pcUpload, c_pcBlock}, [&] { xVector.Set(xHostVector); }},
        {"vector Resize", {"Error resizing device vector", c_pcBlock}, [&] { xVector.Resize(4); }},
        {"matrix Set", {pcSetMatrix, pcUpload, c_pcBlock}, [&] { xMatrix.Set(xHostMatrix); }},
        {"matrix Resize", {"Error allocating device matrix ", c_pcBlock}, [&] { xMatrix.Resize(2, 3); }},
        {"mapping Create", {"Error creating device mapping"}, [&] { xMapping.Create(xHostMapping); }},
        {"mapping SetZero", {"Error setting mapping values to zero"}, [&] { xMapping.SetZero(); }},
        {"QxCudaMalloc", {}, [] { CQxDeviceMMU::QxCudaMalloc(1, 4); }},
        {"QxCudaMallocPitch", {}, [&] { CQxDeviceMMU::QxCudaMallocPitch(nPitch, 4, 4); }},
        {"QxCudaMallocArray", {}, [&] { CQxDeviceMMU::QxCudaMallocArray(c_xChannel, 4, 4); }},
        {"pool, pitched", {}, [] { GPU::CResourceManager::GetCudaMemoryPitch(4, 4); }},
        {"pool, linear", {}, [] { GPU::CResourceManager::GetCudaMemory(4); }},
        {"pool, page-locked", {}, [] { GPU::CResourceManager::GetPageLockedMemory(4); }},
    };
    for (const auto& xCase : c_vCases)
    {
        SCOPED_TRACE(xCase.pcName);
        try
        {
            xCase.Run();
            ADD_FAILURE() << "nothing was thrown";
        }
        catch (const CQxException& xException)
        {
            const IException* pLink = &xException;
            for (const char* pcWrapper : xCase.vWrappers)
            {
                ASSERT_NE(pLink, nullptr);
                EXPECT_STREQ(pLink->GetMessageText().ToCString(), pcWrapper);
                pLink = pLink->GetInnerException();
            }
            const auto* pCuda = dynamic_cast<const CQxCudaException*>(pLink);
            ASSERT_NE(pCuda, nullptr);
            EXPECT_EQ(pCuda->GetInnerException(), nullptr);
            EXPECT_EQ(pCuda->GetCudaError(), m_eError);
            EXPECT_EQ(pCuda->GetDeviceID(), -1);
        }
        static_cast<void>(cudaGetLastError());
    }
    // Its report asks for more, so what the exception records is not the failure that it began with.
    EXPECT_THROW(xComp.Begin("Kernel", nullptr), CQxCudaException);
    static_cast<void>(cudaGetLastError());
    EXPECT_FALSE(x2D.IsValid() || x1D.IsValid() || xPageLocked.GetDataPtr() != nullptr || xVector.IsValid() ||
        xMatrix.IsValid() || xMapping.IsValid());
    EXPECT_EQ(x2D.GetFormat(), CQxImageFormat{});
    EXPECT_EQ(CCudaRecorder::LiveAllocations(), 0U);
    EXPECT_EQ(GPU::CResourceManager::GetStatistics(0).nBlocksInUse, 0U);
}

} // namespace

} // namespace Qx::Test
