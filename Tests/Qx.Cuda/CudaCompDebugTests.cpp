#include <vector>

#include <gtest/gtest.h>

#include "Qx.Cuda/QxCudaComp.h"
#include "Qx.CudaRecorder/CudaRecorder.h"
#include "Support/CudaChain.h"

namespace Qx::Test
{

namespace
{

using CudaDebug::CQxCudaCompDebug;
using CudaDebug::EKind;
using CudaDebug::SItem;

constexpr const char* c_pcFile = "Source/Qx.Cuda/QxCudaCompDebug";
using Names = std::vector<std::string>;

// Uses the block before main() runs.
const bool s_bEmptyAtLoad = CQxCudaCompDebug::GetDebugParams().pItems == nullptr &&
    CQxCudaCompDebug::GetDebugParams().pCounter == nullptr && CQxCudaCompDebug::GetDebugParams().iCapacity == 0;

class CudaCompDebug : public ::testing::Test
{
protected:
    void TearDown() override
    {
        CCudaRecorder::Reset();
        CQxCudaCompDebug::GetDebugParams().Delete();
    }

    // What kernels would have left behind: iCount claimed slots, of which those within the buffer are written.
    static void Write(int iCount)
    {
        const auto& xParams = CQxCudaCompDebug::GetDebugParams();
        ASSERT_EQ(cudaMemcpy(xParams.pCounter, &iCount, sizeof(iCount), cudaMemcpyHostToDevice), cudaSuccess);
        for (int iItem = 0; iItem < std::min(iCount, xParams.iCapacity); ++iItem)
        {
            SItem xItem;
            xItem.aiPosition[0] = 100 + iItem;
            xItem.bFlag = true;
            xItem.afValue[8] = 0.5F;
            ASSERT_EQ(cudaMemcpy(xParams.pItems + iItem, &xItem, sizeof(xItem), cudaMemcpyHostToDevice), cudaSuccess);
        }
    }
};

TEST_F(CudaCompDebug, IsEmptyFromTheLoadOnAndMakesNoCall)
{
    EXPECT_TRUE(s_bEmptyAtLoad);
    CQxCudaCompDebug::GetDebugParams().ResetCounter();
    EXPECT_EQ(CQxCudaCompDebug::GetDebugItemCount(), 0);
    std::vector<SItem> vItems(4);
    vItems[3].aiPosition[1] = 7;
    CQxCudaCompDebug::GetDebugItems(vItems);
    ASSERT_EQ(vItems.size(), 4U);
    EXPECT_EQ(vItems[3].aiPosition[1], 7);
    EXPECT_TRUE(CCudaRecorder::Calls().empty());
}

TEST_F(CudaCompDebug, AllocatesResetsAndFreesWithExactlyTheseCalls)
{
    auto& xParams = CQxCudaCompDebug::GetDebugParams();
    xParams.Malloc(100);
    EXPECT_EQ(xParams.iCapacity, 100);
    EXPECT_EQ(xParams.uReserved, 0U);
    EXPECT_EQ(CCudaRecorder::CallNames(), (Names{"cudaMalloc", "cudaMalloc", "cudaMemset"}));
    EXPECT_EQ(CCudaRecorder::Calls()[0].vArguments[1], 5600U);
    EXPECT_EQ(CCudaRecorder::Calls()[1].vArguments[1], 4U);
    EXPECT_EQ(CQxCudaCompDebug::GetDebugItemCount(), 0);
    EXPECT_EQ(CCudaRecorder::Last("cudaMemcpy").vArguments[3], cudaMemcpyDeviceToHost);
    Write(1);
    std::vector<SItem> vItems;
    CQxCudaCompDebug::GetDebugItems(vItems);
    EXPECT_EQ(CCudaRecorder::Last("cudaMemcpy").vArguments[3], cudaMemcpyDeviceToHost);

    CCudaRecorder::Reset();
    const CudaDebug::SParameter xGiven = xParams;
    xParams.Delete();
    EXPECT_EQ(CCudaRecorder::Calls()[0].vArguments[0], reinterpret_cast<std::uintptr_t>(xGiven.pItems));
    xParams.Delete();
    EXPECT_EQ(CCudaRecorder::CallNames(), Names(4, "cudaFree"));
    EXPECT_EQ(xParams.pItems, nullptr);
    EXPECT_EQ(xParams.pCounter, nullptr);
    EXPECT_EQ(xParams.iCapacity, 100);
    EXPECT_EQ(CQxCudaCompDebug::GetDebugItemCount(), 0);
}

TEST_F(CudaCompDebug, ForgetsBuffersOnResetWithoutFreeingThem)
{
    auto& xParams = CQxCudaCompDebug::GetDebugParams();
    xParams.Malloc(1);
    const CudaDebug::SParameter xCopy = xParams;
    CCudaRecorder::Reset();
    xParams.Reset();
    EXPECT_TRUE(xParams.pItems == nullptr && xParams.pCounter == nullptr && xParams.iCapacity == 1);
    EXPECT_TRUE(CCudaRecorder::Calls().empty());
    EXPECT_EQ(cudaFree(xCopy.pItems), cudaSuccess);
    EXPECT_EQ(cudaFree(xCopy.pCounter), cudaSuccess);
}

TEST_F(CudaCompDebug, NeverKeepsAnOlderBufferUnderANewCapacity)
{
    auto& xParams = CQxCudaCompDebug::GetDebugParams();
    for (const int iFailing : {1, 2})
    {
        xParams.Malloc(3);
        const CudaDebug::SParameter xOld = xParams;
        CCudaRecorder::FailCall("cudaMalloc", iFailing, cudaErrorMemoryAllocation);
        xParams.Malloc(1000);
        EXPECT_EQ(cudaGetLastError(), cudaErrorMemoryAllocation) << "the error stays pending";
        EXPECT_EQ(xParams.pItems == nullptr, iFailing == 1);
        EXPECT_EQ(xParams.pCounter == nullptr, iFailing == 2);
        EXPECT_EQ(xParams.iCapacity, 1000);
        std::vector<SItem> vItems(2);
        CQxCudaCompDebug::GetDebugItems(vItems);
        EXPECT_EQ(vItems.size(), 2U);
        xParams.Delete();
        EXPECT_EQ(cudaFree(xOld.pItems), cudaSuccess);
        EXPECT_EQ(cudaFree(xOld.pCounter), cudaSuccess);
    }
    // 5.6 GB: the product needs 64 bits. Nothing of that size is allocated here.
    CCudaRecorder::Reset();
    CCudaRecorder::FailCall("cudaMalloc", 1, cudaErrorMemoryAllocation);
    xParams.Malloc(100000000);
    EXPECT_EQ(CCudaRecorder::Calls()[0].vArguments[1], 5600000000U);
    EXPECT_EQ(cudaGetLastError(), cudaErrorMemoryAllocation);
    xParams.Delete();
    xParams.Malloc(-1);
    EXPECT_EQ(xParams.pItems, nullptr);
    EXPECT_NE(cudaGetLastError(), cudaSuccess);
}

TEST_F(CudaCompDebug, ReadsAsManyItemsAsWereWrittenAndNeverMoreThanTheCapacity)
{
    auto& xParams = CQxCudaCompDebug::GetDebugParams();
    xParams.Malloc(5);
    // The items that are read; 10 are there before, and stay where none was written.
    for (const auto& [iCount, nExpected] : {std::pair{0, 10U}, {-4, 10U}, {3, 3U}, {5, 5U}, {6, 5U}, {INT32_MAX, 5U}})
    {
        SCOPED_TRACE(iCount);
        const bool bRead = iCount > 0;
        Write(iCount);
        EXPECT_EQ(CQxCudaCompDebug::GetDebugItemCount(), iCount);
        std::vector<SItem> vItems(10);
        CCudaRecorder::Reset();
        CQxCudaCompDebug::GetDebugItems(vItems);
        ASSERT_EQ(vItems.size(), nExpected);
        EXPECT_EQ(CCudaRecorder::CallNames(), Names(bRead ? 2 : 1, "cudaMemcpy"));
        for (std::size_t nItem = 0; nItem < vItems.size(); ++nItem)
        {
            EXPECT_EQ(vItems[nItem].aiPosition[0], bRead ? 100 + static_cast<int>(nItem) : 0);
            EXPECT_EQ(vItems[nItem].bFlag, bRead);
            EXPECT_EQ(vItems[nItem].afValue[8], bRead ? 0.5F : 0.0F);
        }
    }
    xParams.ResetCounter();
    EXPECT_EQ(CQxCudaCompDebug::GetDebugItemCount(), 0);
    EXPECT_EQ(xParams.iCapacity, 5);

    // A block over buffers of which only the kernels know the room, and an item of which a kernel wrote nothing.
    Write(4);
    ASSERT_EQ(cudaMemset(xParams.pItems + 3, 0x8E, sizeof(SItem)), cudaSuccess);
    xParams = CudaDebug::SParameter(xParams.pItems, xParams.pCounter);
    std::vector<SItem> vItems;
    CQxCudaCompDebug::GetDebugItems(vItems);
    ASSERT_EQ(vItems.size(), 4U);
    EXPECT_EQ(vItems[2].aiPosition[0], 102);
    EXPECT_EQ(static_cast<int>(vItems[3].bFlag), 1);
}

TEST_F(CudaCompDebug, ReportsFailedReadsAndSaysWhatBecameOfTheVector)
{
    CQxCudaCompDebug::GetDebugParams().Malloc(5);
    Write(3);
    std::vector<SItem> vItems(10);
    const SLink xCount =
        Cuda("Error getting number of debug items from CUDA", cudaErrorInvalidValue, "GetDebugItemCount", c_pcFile);
    CCudaRecorder::FailCall(1, cudaErrorInvalidValue);
    EXPECT_TRUE(ThrowsChain([] { CQxCudaCompDebug::GetDebugItemCount(); }, {xCount}));
    CCudaRecorder::FailCall(1, cudaErrorInvalidValue);
    EXPECT_TRUE(ThrowsChain([&] { CQxCudaCompDebug::GetDebugItems(vItems); }, {xCount}));
    EXPECT_EQ(vItems.size(), 10U);
    CCudaRecorder::FailCall(2, cudaErrorInvalidValue);
    EXPECT_TRUE(ThrowsChain([&] { CQxCudaCompDebug::GetDebugItems(vItems); },
        {Cuda("Error getting debug items from CUDA", cudaErrorInvalidValue, "GetDebugItems", c_pcFile)}));
    EXPECT_EQ(vItems.size(), 3U);
}

TEST_F(CudaCompDebug, StoresTheKindPerObjectOnceTheChannelIsSetUp)
{
    CQxCudaComp xComp;
    CQxCudaComp xOther;
    const char* const pcMessage = "Debug not initialized. Call CudaDebug::Malloc() before";
    EXPECT_TRUE(ThrowsChain(
        [&] { xComp.SetDebugKind(static_cast<EKind>(7)); }, {Cuda(pcMessage, cudaSuccess, "SetDebugKind", c_pcFile)}));
    // Whatever error was pending is what the exception shows.
    CCudaRecorder::FailCall("cudaFree", 1, cudaErrorInvalidValue);
    EXPECT_NE(cudaFree(nullptr), cudaSuccess);
    EXPECT_TRUE(ThrowsChain([&] { xComp.SetDebugKind(static_cast<EKind>(7)); },
        {Cuda(pcMessage, cudaErrorInvalidValue, "SetDebugKind", c_pcFile)}));
    EXPECT_EQ(xComp.GetDebugKind(), EKind::None);

    CQxCudaCompDebug::GetDebugParams().Malloc(1);
    xComp.SetDebugKind(static_cast<EKind>(7));
    EXPECT_EQ(static_cast<std::uint32_t>(xComp.GetDebugKind()), 7U);
    EXPECT_EQ(xOther.GetDebugKind(), EKind::None);
    CQxCudaCompDebug::GetDebugParams().Delete();
    EXPECT_THROW(xComp.SetDebugKind(static_cast<EKind>(8)), CQxCudaException);
    EXPECT_EQ(static_cast<std::uint32_t>(xComp.GetDebugKind()), 7U);
}

} // namespace

} // namespace Qx::Test
