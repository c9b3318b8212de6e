#include <atomic>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>

#include <gtest/gtest.h>

#include "Qx.Cuda/QxCuda.h"
#include "Support/CudaRecorder.h"

namespace
{

std::atomic<bool> sm_bCounting{false};
std::atomic<int> sm_iAllocations{0};

void _CountAllocation()
{
    if (sm_bCounting.load(std::memory_order_relaxed))
    {
        sm_iAllocations.fetch_add(1, std::memory_order_relaxed);
    }
}

} // namespace

// The C library's own entry points; every allocation of every library in the process comes through here.
extern "C" void* __libc_malloc(std::size_t nSize);
extern "C" void* __libc_calloc(std::size_t nCount, std::size_t nSize);
extern "C" void* __libc_realloc(void* pBlock, std::size_t nSize);
extern "C" void* __libc_memalign(std::size_t nAlignment, std::size_t nSize);
#pragma GCC visibility push(default)
extern "C" void* malloc(std::size_t nSize)
{
    _CountAllocation();
    return __libc_malloc(nSize);
}
extern "C" void* calloc(std::size_t nCount, std::size_t nSize)
{
    _CountAllocation();
    return __libc_calloc(nCount, nSize);
}
extern "C" void* realloc(void* pBlock, std::size_t nSize)
{
    _CountAllocation();
    return __libc_realloc(pBlock, nSize);
}
extern "C" void* aligned_alloc(std::size_t nAlignment, std::size_t nSize)
{
    _CountAllocation();
    return __libc_memalign(nAlignment, nSize);
}
#pragma GCC visibility pop

namespace Qx::Test
{

namespace
{

template <typename TBody>
int CountAllocations(TBody&& xBody)
{
    sm_iAllocations = 0;
    sm_bCounting = true;
    xBody();
    sm_bCounting = false;
    return sm_iAllocations;
}

TEST(Allocations, AreCountedAtAll)
{
    EXPECT_GE(CountAllocations([] { delete new CQxImage({640, 480, EDataType::UByte, EPixelType::Lum}); }), 2);
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
    const int iAllocations = CountAllocations(
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
    const int iAllocations = CountAllocations(
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
