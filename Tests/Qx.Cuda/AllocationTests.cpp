#include <stdexcept>

#include <gtest/gtest.h>

#include "Qx.Cuda/QxCuda.h"
#include "Qx.CudaRecorder/CudaRecorder.h"
#include "Support/AllocationCounter.h"

namespace Qx::Test
{

namespace
{

/// Runs the body as often as said, without the allocations of the recorder.
template <typename TBody>
int AllocationsOf(int iTimes, TBody&& xBody)
{
    CCudaRecorder::Pause();
    const std::uint64_t uBefore = CountAllocations();
    for (int iTime = 0; iTime < iTimes; ++iTime)
    {
        xBody();
    }
    const auto iAllocations = static_cast<int>(CountAllocations() - uBefore);
    CCudaRecorder::Reset();
    return iAllocations;
}

TEST(Allocations, AreCountedAtAll)
{
    EXPECT_GE(AllocationsOf(1, [] { delete new CQxImage({640, 480, EDataType::UByte, EPixelType::Lum}); }), 2);
}

TEST(Allocations, ASteadyFrameLoopMakesNone)
{
    const CQxImageFormat xFormat(640, 480, EDataType::UByte, EPixelType::RGBA);
    const CQxImage xFrame(xFormat);
    CQxImage xResult(xFormat);
    CQxDeviceImage2D xImage(xFrame);
    CQxDeviceImage2D xOther(xFormat);
    xImage.CopyTo(xResult);
    const auto xBefore = GPU::CResourceManager::GetStatistics();
    const auto ShowFrame = [&]
    {
        xImage.Create(xFrame);
        xOther.Create(xFormat);
        xOther.SetZero();
        xImage.CopyTo(xResult);
    };
    EXPECT_EQ(AllocationsOf(100, ShowFrame), 0);
    const auto xAfter = GPU::CResourceManager::GetStatistics();
    EXPECT_EQ(xAfter.uMisses, xBefore.uMisses);
    EXPECT_EQ(xAfter.uHits, xBefore.uHits);
}

// Images that live for one frame only are answered from the pool.
TEST(Allocations, ImagesOfAFrameComeFromThePoolWithoutAny)
{
    const CQxImageFormat xFormat(640, 480, EDataType::UByte, EPixelType::RGBA);
    const CQxImage xFrame(xFormat);
    CQxDeviceImage2D{xFrame};
    const auto uMisses = GPU::CResourceManager::GetStatistics().uMisses;
    EXPECT_EQ(AllocationsOf(100, [&] { CQxDeviceImage2D{xFrame}; }), 0);
    EXPECT_EQ(GPU::CResourceManager::GetStatistics().uMisses, uMisses);
}

#if defined(QX_HOSTCUDA) // what the toolkit's runtime does without memory of the host is not the question
TEST(Allocations, NoMemoryForTheRecordLetsNothingOutOfACallAndIsNotHidden)
{
    int iDevice = 0;
    void* pFirst = nullptr; // what the runtime needs once
    ASSERT_EQ(cudaMalloc(&pFirst, 100), cudaSuccess);
    ASSERT_EQ(cudaFree(pFirst), cudaSuccess);
    LimitAllocations(0);
    for (int iCall = 0; iCall < 100'000; ++iCall)
    {
        EXPECT_EQ(cudaGetDevice(&iDevice), cudaSuccess);
    }
    LimitAllocations(-1);
    EXPECT_THROW(static_cast<void>(CCudaRecorder::Calls()), std::runtime_error);
    EXPECT_THROW(static_cast<void>(CCudaRecorder::Count("cudaGetDevice")), std::runtime_error);
    int iUnknown = 0;
    for (int iCalls = 0; iCalls < 20; ++iCalls)
    {
        CCudaRecorder::Reset();
        const std::size_t nLive = CCudaRecorder::LiveAllocations();
        void* pBlock = nullptr;
        LimitAllocations(iCalls);
        const cudaError_t eResult = cudaMalloc(&pBlock, 100);
        LimitAllocations(-1);
        EXPECT_EQ(eResult, pBlock != nullptr ? cudaSuccess : cudaErrorMemoryAllocation);
        EXPECT_EQ(cudaGetLastError(), eResult);
        try
        {
            EXPECT_EQ(CCudaRecorder::LiveAllocations(), nLive + (pBlock != nullptr ? 1 : 0)) << iCalls;
        }
        catch (const std::runtime_error&)
        {
            ++iUnknown;
        }
        EXPECT_EQ(cudaFree(pBlock), cudaSuccess);
    }
    EXPECT_EQ(iUnknown, 1) << "the block was there, and the record of it was not";
}
#endif

} // namespace

} // namespace Qx::Test
