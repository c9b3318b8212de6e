#include <gtest/gtest.h>

#include "Qx.Cuda/QxCuda.h"
#include "Qx.CudaRecorder/CudaRecorder.h"
#include "Support/AllocationCounter.h"

namespace Qx::Test
{

namespace
{

template <typename TBody>
int AllocationsOf(TBody&& xBody)
{
    const std::uint64_t uBefore = CountAllocations();
    xBody();
    return static_cast<int>(CountAllocations() - uBefore);
}

TEST(Allocations, AreCountedAtAll)
{
    EXPECT_GE(AllocationsOf([] { delete new CQxImage({640, 480, EDataType::UByte, EPixelType::Lum}); }), 2);
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

    CCudaRecorder::Pause();
    const int iAllocations = AllocationsOf(
        [&]
        {
            for (int iFrame = 0; iFrame < 100; ++iFrame)
            {
                xImage.Create(xFrame);
                xOther.Create(xFormat);
                xOther.SetZero();
                xImage.CopyTo(xResult);
            }
        });
    CCudaRecorder::Reset();
    EXPECT_EQ(iAllocations, 0);
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

    CCudaRecorder::Pause();
    const int iAllocations = AllocationsOf(
        [&]
        {
            for (int iFrame = 0; iFrame < 100; ++iFrame)
            {
                CQxDeviceImage2D{xFrame};
            }
        });
    CCudaRecorder::Reset();
    EXPECT_EQ(iAllocations, 0);
    EXPECT_EQ(GPU::CResourceManager::GetStatistics().uMisses, uMisses);
}

} // namespace

} // namespace Qx::Test
