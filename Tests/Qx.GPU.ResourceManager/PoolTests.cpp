#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <limits>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Qx.Core/QxFormat.h"
#include "Qx.CudaRecorder/CudaRecorder.h"
#include "Qx.GPU.ResourceManager/ResourceManager.h"
#include "Support/CudaChain.h"
#include "Support/Stream.h"
#include "Support/Sweep.h"
#ifdef QX_HOSTCUDA
#include "Qx.HostCuda/HostCuda.h"
#endif

namespace
{

using Qx::CQxException;
using Qx::GPU::CCudaMemoryPitchResource;
using Qx::GPU::CCudaMemoryResource;
using Qx::GPU::CResource;
using Qx::GPU::CResourceManager;
using Qx::GPU::SPoolStatistics;
using Qx::Test::CCudaRecorder;
using Qx::Test::Cuda;
using Qx::Test::Plain;
using Qx::Test::ThrowsChain;

using Names = std::vector<std::string>;

constexpr const char* c_pcFile = "Source/Qx.GPU.ResourceManager/ResourceManager";
constexpr std::size_t c_nNoLimit = std::numeric_limits<std::size_t>::max();

void _Release(CResource& xResource, bool bFree = false)
{
    CResourceManager::ReleaseResource(xResource, bFree);
}

std::size_t _Bytes(const CCudaMemoryPitchResource& xResource)
{
    return xResource.m_nPitch * xResource.m_nRows;
}

std::uint64_t _Value(const void* pBlock)
{
    return reinterpret_cast<std::uintptr_t>(pBlock);
}

// The blocks that were freed since the recorder was reset, in order.
std::vector<std::uint64_t> _Freed()
{
    std::vector<std::uint64_t> vBlocks;
    for (const Qx::Test::SCudaCall& xCall : CCudaRecorder::Calls())
    {
        if (xCall.sName == "cudaFree" && xCall.eResult == cudaSuccess)
        {
            vBlocks.push_back(xCall.vArguments[0]);
        }
    }
    return vBlocks;
}

std::string _NotLent(const void* pBlock, const char* pcWhy)
{
    char acText[120];
    Qx::sprintf_s(acText, "Error releasing GPU memory. Block %p %s", pBlock, pcWhy);
    return acText;
}

// A request of either kind; the rows of a linear one are not used.
struct SRequest
{
    bool bPitched;
    std::size_t nWidth;
    std::size_t nRows;
};

CResource& _Lend(const SRequest& xRequest)
{
    if (xRequest.bPitched)
    {
        return CResourceManager::GetCudaMemoryPitch(xRequest.nWidth, xRequest.nRows);
    }
    return CResourceManager::GetCudaMemory(xRequest.nWidth);
}

class Pool : public ::testing::Test
{
protected:
    void SetUp() override
    {
        CResourceManager::SetIdleLimit(c_nNoLimit);
        // The first request on a device makes calls of its own.
        _Release(CResourceManager::GetCudaMemory(1), true);
        CCudaRecorder::Reset();
    }
};

TEST_F(Pool, AReleasedBlockAnswersTheNextEqualRequestWithoutACall)
{
    for (const SRequest& xRequest : {SRequest{true, 640, 480}, SRequest{false, 1000, 1}})
    {
        const SPoolStatistics xBefore = CResourceManager::GetStatistics(0);
        CResource& xFirst = _Lend(xRequest);
        void* const pBlock = xFirst.m_pDevice;
        ASSERT_NE(pBlock, nullptr);
        // The reference itself may be given back, too: it is emptied, and whole again when the block is lent again.
        _Release(xFirst);
        EXPECT_EQ(xFirst.m_pDevice, nullptr);
        CCudaRecorder::Reset();
        CResource& xSecond = _Lend(xRequest);
        EXPECT_EQ(CCudaRecorder::CallNames(), Names{"cudaGetDevice"});
        EXPECT_EQ(xSecond.m_pDevice, pBlock);
        CCudaRecorder::Reset();
        _Release(xSecond);
        EXPECT_EQ(CCudaRecorder::CallNames(), Names{});
        const SPoolStatistics xAfter = CResourceManager::GetStatistics(0);
        EXPECT_EQ(xAfter.uMisses - xBefore.uMisses, 1U);
        EXPECT_EQ(xAfter.uHits - xBefore.uHits, 1U);
    }
}

TEST_F(Pool, OnlyAnEqualRequestIsAnsweredByAnIdleBlock)
{
    const SRequest c_vIdle[] = {{true, 64, 32}, {false, 2048, 1}};
    const SRequest c_vOther[] = {{true, 65, 32}, {true, 63, 32},   {true, 64, 31},   {true, 64, 33},  {true, 32, 64},
                                 {true, 0, 32},  {true, 64, 0},    {true, 2048, 1},  {true, 1, 2048}, {false, 64, 1},
                                 {false, 32, 1}, {false, 2047, 1}, {false, 2049, 1}, {false, 0, 1}};
    for (const SRequest& xRequest : c_vIdle)
    {
        _Release(_Lend(xRequest));
    }
    std::vector<CResource*> vLent;
    for (const SRequest& xRequest : c_vOther)
    {
        SCOPED_TRACE(std::to_string(xRequest.nWidth) + " x " + std::to_string(xRequest.nRows));
        const std::uint64_t uHits = CResourceManager::GetStatistics(0).uHits;
        vLent.push_back(&_Lend(xRequest));
        EXPECT_EQ(CResourceManager::GetStatistics(0).uHits, uHits);
        EXPECT_NE(vLent.back()->m_pDevice, nullptr);
    }
    for (CResource* pLent : vLent)
    {
        _Release(*pLent);
    }
    for (const SRequest& xRequest : c_vOther)
    {
        const std::uint64_t uHits = CResourceManager::GetStatistics(0).uHits;
        CResource& xAgain = _Lend(xRequest);
        EXPECT_EQ(CResourceManager::GetStatistics(0).uHits, uHits + 1);
        _Release(xAgain);
    }
}

TEST_F(Pool, ALentBlockHasTheRequestedFieldsAndItsMemory)
{
    for (const auto& [nWidth, nRows] : {std::pair<std::size_t, std::size_t>{640, 48}, {1, 1}, {513, 3}})
    {
        CCudaMemoryPitchResource xPitched = CResourceManager::GetCudaMemoryPitch(nWidth, nRows);
        EXPECT_EQ(xPitched.m_nWidth, nWidth);
        EXPECT_EQ(xPitched.m_nRows, nRows);
        EXPECT_GE(xPitched.m_nPitch, nWidth);
        EXPECT_EQ(cudaMemset2D(xPitched.m_pDevice, xPitched.m_nPitch, 0x5A, nWidth, nRows), cudaSuccess);
        std::vector<unsigned char> vRead(nWidth * nRows);
        EXPECT_EQ(cudaMemcpy2D(vRead.data(), nWidth, xPitched.m_pDevice, xPitched.m_nPitch, nWidth, nRows,
                               cudaMemcpyDeviceToHost),
                  cudaSuccess);
        EXPECT_EQ(vRead, std::vector<unsigned char>(nWidth * nRows, 0x5A));

        CCudaMemoryPitchResource xOther = CResourceManager::GetCudaMemoryPitch(nWidth, nRows);
        EXPECT_NE(xOther.m_pDevice, xPitched.m_pDevice);
        const std::size_t nPitch = xPitched.m_nPitch;
        _Release(xPitched);
        xPitched = CResourceManager::GetCudaMemoryPitch(nWidth, nRows);
        EXPECT_EQ(xPitched.m_nPitch, nPitch);
        _Release(xPitched);
        _Release(xOther);
    }
    CCudaMemoryResource xLinear = CResourceManager::GetCudaMemory(1000);
    EXPECT_EQ(xLinear.m_nSize, 1000U);
    EXPECT_EQ(cudaMemset(xLinear.m_pDevice, 0x5A, 1000), cudaSuccess);
    EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
    const auto* const pBytes = static_cast<const unsigned char*>(xLinear.m_pDevice);
    EXPECT_EQ(std::count(pBytes, pBytes + 1000, 0x5A), 1000) << "the host reads through the device pointer";
    _Release(xLinear);
}

TEST_F(Pool, MatchesComparesWhatWasRequestedOnly)
{
    CCudaMemoryResource xLinear;
    CCudaMemoryResource xOtherLinear;
    EXPECT_EQ(xLinear.m_pDevice, nullptr);
    EXPECT_EQ(xLinear.m_nSize, 0U);
    xLinear.m_pDevice = &xLinear;
    EXPECT_TRUE(xLinear.Matches(xOtherLinear));
    xOtherLinear.m_nSize = 1;
    EXPECT_FALSE(xLinear.Matches(xOtherLinear));

    const auto Pitched = [](std::size_t nPitch, std::size_t nWidth, std::size_t nRows)
    {
        CCudaMemoryPitchResource xResource;
        EXPECT_EQ(xResource.m_nPitch + xResource.m_nWidth + xResource.m_nRows, 0U);
        xResource.m_nPitch = nPitch;
        xResource.m_nWidth = nWidth;
        xResource.m_nRows = nRows;
        return xResource;
    };
    EXPECT_TRUE(Pitched(512, 10, 20).Matches(Pitched(256, 10, 20)));
    EXPECT_FALSE(Pitched(512, 10, 20).Matches(Pitched(512, 11, 20)));
    EXPECT_FALSE(Pitched(512, 10, 20).Matches(Pitched(512, 10, 21)));
}

TEST_F(Pool, StatisticsCountBlocksWithTheirPadding)
{
    const SPoolStatistics xStart = CResourceManager::GetStatistics();
    EXPECT_EQ(xStart.nBlocksIdle + xStart.nBlocksInUse, 0U);
    CCudaMemoryPitchResource xFirst = CResourceManager::GetCudaMemoryPitch(100, 3);
    CCudaMemoryPitchResource xSecond = CResourceManager::GetCudaMemoryPitch(100, 30);
    CCudaMemoryResource xThird = CResourceManager::GetCudaMemory(777);
    const std::size_t nFirst = _Bytes(xFirst);
    const std::size_t nAll = nFirst + _Bytes(xSecond) + 777;
    SPoolStatistics xNow = CResourceManager::GetStatistics();
    EXPECT_EQ(xNow.nBlocksInUse, 3U);
    EXPECT_EQ(xNow.nBytesInUse, nAll);
    _Release(xFirst);
    _Release(xThird);
    xNow = CResourceManager::GetStatistics();
    EXPECT_EQ(xNow.nBlocksInUse, 1U);
    EXPECT_EQ(xNow.nBytesInUse, nAll - nFirst - 777);
    EXPECT_EQ(xNow.nBlocksIdle, 2U);
    EXPECT_EQ(xNow.nBytesIdle, nFirst + 777);
    EXPECT_GE(xNow.nPeakBytesInUse, nAll);
    CResourceManager::Trim(777);
    xNow = CResourceManager::GetStatistics();
    EXPECT_EQ(xNow.nBytesIdle, 777U);
    EXPECT_EQ(xNow.uTrimmedBlocks - xStart.uTrimmedBlocks, 1U);
    EXPECT_EQ(xNow.uTrimmedBytes - xStart.uTrimmedBytes, nFirst);
    _Release(xSecond, true);
    EXPECT_EQ(CResourceManager::GetStatistics().uTrimmedBlocks, xNow.uTrimmedBlocks) << "it was not idle";
    xNow = CResourceManager::GetStatistics();
    for (const int iNoDevice : {12345, -1}) // -1 is what an exception says when it does not know its device
    {
        CResourceManager::ForgetDevice(iNoDevice);
        EXPECT_EQ(CResourceManager::GetStatistics(iNoDevice), SPoolStatistics{});
    }
    EXPECT_EQ(CResourceManager::GetStatistics(), xNow) << "it was forgotten with another device";
}

TEST_F(Pool, AReleaseOfWhatIsNotLentIsRefusedAndChangesNothing)
{
    CCudaMemoryPitchResource xIdle = CResourceManager::GetCudaMemoryPitch(20, 20);
    CCudaMemoryPitchResource xFreed = CResourceManager::GetCudaMemoryPitch(21, 20);
    CCudaMemoryPitchResource xIdleCopy = xIdle;
    CCudaMemoryPitchResource xFreedCopy = xFreed;
    CCudaMemoryPitchResource xForeign;
    xForeign.m_pDevice = &xForeign;
    CCudaMemoryPitchResource xLent = CResourceManager::GetCudaMemoryPitch(22, 20);
    CCudaMemoryPitchResource xInside = xLent;
    xInside.m_pDevice = static_cast<char*>(xInside.m_pDevice) + 1;
    _Release(xIdle);
    _Release(xFreed, true);

    const SPoolStatistics xBefore = CResourceManager::GetStatistics(0);
    CCudaRecorder::Reset();
    constexpr const char* c_pcUnknown = "is not from the pool or was freed already";
    for (const auto& [pResource, pcWhy] : {std::pair{&xIdleCopy, "was given back already"},
                                           {&xFreedCopy, c_pcUnknown},
                                           {&xForeign, c_pcUnknown},
                                           {&xInside, c_pcUnknown}})
    {
        for (const bool bFree : {false, true})
        {
            void* const pBlock = pResource->m_pDevice;
            EXPECT_TRUE(ThrowsChain([&, pLocal = pResource] { _Release(*pLocal, bFree); },
                                    {Plain(_NotLent(pBlock, pcWhy).c_str(), "ReleaseResource", c_pcFile)}));
            EXPECT_EQ(pResource->m_pDevice, pBlock);
        }
    }
    EXPECT_EQ(CCudaRecorder::CallNames(), Names{});
    EXPECT_EQ(CResourceManager::GetStatistics(0), xBefore);
    _Release(xLent);
}

TEST_F(Pool, AnEmptyResourceMayBeReleased)
{
    CCudaMemoryResource xEmpty;
    const SPoolStatistics xBefore = CResourceManager::GetStatistics(0);
    CCudaRecorder::Reset();
    _Release(xEmpty);
    _Release(xEmpty, true);
    EXPECT_EQ(CCudaRecorder::CallNames(), Names{});
    EXPECT_EQ(CResourceManager::GetStatistics(0), xBefore);
}

TEST_F(Pool, ImpossibleSizesAreRefusedAsOutOfMemory)
{
    constexpr std::size_t c_nHalf = std::size_t{1} << 32;
    EXPECT_TRUE(ThrowsChain([] { CResourceManager::GetCudaMemoryPitch(c_nHalf, c_nHalf); },
                            {{"Qx.OutOfMemoryException",
                              "Error allocating GPU memory. Out of memory: requested 4294967296 rows of 4294967296 "
                              "bytes, in use 0 bytes in 0 blocks, idle 0 bytes in 0 blocks, Device ID: 0",
                              "GetCudaMemoryPitch", c_pcFile}}));
    EXPECT_EQ(CCudaRecorder::CallNames(), Names{"cudaGetDevice"})
        << "a product that wrapped must not reach the runtime";
    EXPECT_TRUE(ThrowsChain([] { CResourceManager::GetCudaMemory(c_nNoLimit / 2); },
                            {{"Qx.OutOfMemoryException",
                              "Error allocating GPU memory. Out of memory: requested 9223372036854775807 bytes, in use "
                              "0 bytes in 0 blocks, idle 0 bytes in 0 blocks, Device ID: 0",
                              "GetCudaMemory", c_pcFile}}));
}

TEST_F(Pool, WhenTheDeviceIsFullItsIdleBlocksMakeRoom)
{
    const struct
    {
        SRequest xRequest;
        const char* pcCall;
    } c_vCases[] = {{{true, 99, 9}, "cudaMallocPitch"}, {{false, 99, 1}, "cudaMallocManaged"}};
    for (const auto& xCase : c_vCases)
    {
        SCOPED_TRACE(xCase.pcCall);
        std::vector<std::uint64_t> vIdle;
        std::vector<CCudaMemoryPitchResource> vBlocks;
        for (const std::size_t nWidth : {10U, 20U, 30U})
        {
            vBlocks.push_back(CResourceManager::GetCudaMemoryPitch(nWidth, 9));
            vIdle.push_back(_Value(vBlocks.back().m_pDevice));
        }
        for (CCudaMemoryPitchResource& xBlock : vBlocks)
        {
            _Release(xBlock);
        }
        CCudaRecorder::Reset();
        CCudaRecorder::FailCall(xCase.pcCall, 1, cudaErrorMemoryAllocation);
        CResource& xLent = _Lend(xCase.xRequest);
        EXPECT_TRUE(CCudaRecorder::HasFailed());
        EXPECT_EQ(_Freed(), vIdle);
        EXPECT_EQ(CCudaRecorder::Count(xCase.pcCall), 2U);
        EXPECT_EQ(cudaPeekAtLastError(), cudaSuccess);
        EXPECT_EQ(CResourceManager::GetStatistics(0).nBlocksIdle, 0U);
        _Release(xLent, true);
    }
}

TEST_F(Pool, WhenTheDeviceStaysFullTheRequestIsRefusedWithTheFigures)
{
    for (const bool bIdle : {false, true})
    {
        CCudaMemoryResource xHeld = CResourceManager::GetCudaMemory(5000);
        if (bIdle)
        {
            _Release(CResourceManager::GetCudaMemory(300));
        }
        CCudaRecorder::Reset();
        CCudaRecorder::FailCall("cudaMallocPitch", 1, cudaErrorMemoryAllocation, true);
        EXPECT_TRUE(ThrowsChain([] { CResourceManager::GetCudaMemoryPitch(4000, 30); },
                                {{"Qx.OutOfMemoryException",
                                  "Error allocating GPU memory. Out of memory: requested 30 rows of 4000 bytes, in use "
                                  "5000 bytes in 1 blocks, idle 0 bytes in 0 blocks, Device ID: 0",
                                  "GetCudaMemoryPitch", c_pcFile}}));
        EXPECT_EQ(CCudaRecorder::Count("cudaMallocPitch"), 2U);
        EXPECT_EQ(CCudaRecorder::Count("cudaFree"), bIdle ? 1U : 0U);
        EXPECT_EQ(cudaPeekAtLastError(), cudaSuccess);
        CCudaRecorder::ClearFailure();
        CCudaMemoryPitchResource xAgain = CResourceManager::GetCudaMemoryPitch(4000, 30);
        _Release(xAgain, true);
        _Release(xHeld);
    }
}

#ifdef QX_HOSTCUDA
// Frees wait for the device. A thread that finds the device full meanwhile must wait for them, not give up.
TEST_F(Pool, MemoryThatIsBeingFreedCountsAsMemoryThatCanBeHad)
{
    const std::function<void(CResource&)> c_vFrees[] = {
        [](CResource& xBlock) { _Release(xBlock), CResourceManager::Trim(0); },
        [](CResource& xBlock) { _Release(xBlock, true); },
    };
    std::size_t nBudget = 0;
    ASSERT_EQ(Qx::HostCuda::GetMemoryBudget(0, nBudget), cudaSuccess);
    ASSERT_EQ(Qx::HostCuda::SetMemoryBudget(0, 1 << 20), cudaSuccess);
    for (const auto& Free : c_vFrees)
    {
        CCudaMemoryResource xBlock = CResourceManager::GetCudaMemory(900000);
        Qx::Test::CHold xHold(nullptr);
        auto xFreed = std::async(std::launch::async, [&] { Free(xBlock); });
        // A free that has not begun by then is made by the request itself, which waits as well.
        EXPECT_EQ(xFreed.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
        auto xLent = std::async(std::launch::async,
                                []() -> CCudaMemoryResource { return CResourceManager::GetCudaMemory(800000); });
        EXPECT_EQ(xLent.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
        xHold.Release();
        xFreed.get();
        CCudaMemoryResource xResource;
        EXPECT_NO_THROW(xResource = xLent.get());
        _Release(xResource, true);
    }
    ASSERT_EQ(Qx::HostCuda::SetMemoryBudget(0, nBudget), cudaSuccess);
}

TEST_F(Pool, AFullDeviceServesOtherSizesFromItsIdleMemory)
{
    std::size_t nBudget = 0;
    ASSERT_EQ(Qx::HostCuda::GetMemoryBudget(0, nBudget), cudaSuccess);
    ASSERT_EQ(Qx::HostCuda::SetMemoryBudget(0, 1 << 20), cudaSuccess);
    // A client whose image size changes over and over: without the pool's own order to give way it would fail here.
    for (std::size_t nRows = 700; nRows < 1000; nRows += 7)
    {
        CCudaMemoryPitchResource xImage = CResourceManager::GetCudaMemoryPitch(1024, nRows);
        _Release(xImage);
    }
    EXPECT_GT(CResourceManager::GetStatistics(0).uTrimmedBlocks, 20U);
    EXPECT_TRUE(
        ThrowsChain([] { CResourceManager::GetCudaMemory(2 << 20); },
                    {{"Qx.OutOfMemoryException",
                      "Error allocating GPU memory. Out of memory: requested 2097152 bytes, in use 0 bytes in 0 "
                      "blocks, idle 0 bytes in 0 blocks, Device ID: 0",
                      "GetCudaMemory", c_pcFile}}));
    ASSERT_EQ(Qx::HostCuda::SetMemoryBudget(0, nBudget), cudaSuccess);
}
#endif

TEST_F(Pool, TheLeastRecentlyUsedIdleBlocksMakeRoomForAReleasedOne)
{
    CCudaMemoryPitchResource vBlocks[5];
    std::uint64_t vPointers[5];
    const std::size_t c_vRows[] = {10, 20, 30, 20, 40};
    for (std::size_t nBlock = 0; nBlock < 5; ++nBlock)
    {
        // Widths tell apart blocks of equal size.
        vBlocks[nBlock] = CResourceManager::GetCudaMemoryPitch(100 + nBlock, c_vRows[nBlock]);
        vPointers[nBlock] = _Value(vBlocks[nBlock].m_pDevice);
    }
    const std::size_t nRow = vBlocks[0].m_nPitch;
    CResourceManager::SetIdleLimit(60 * nRow);
    CCudaRecorder::Reset();
    for (std::size_t nBlock = 0; nBlock < 3; ++nBlock)
    {
        _Release(vBlocks[nBlock]);
    }
    EXPECT_EQ(_Freed(), std::vector<std::uint64_t>{}) << "60 rows just fit";

    // Used again, the first one is the most recent of 1, 2, 0.
    _Release(CResourceManager::GetCudaMemoryPitch(100, 10));
    CCudaRecorder::Reset();
    _Release(vBlocks[3]);
    EXPECT_EQ(_Freed(), std::vector<std::uint64_t>{vPointers[1]});
    EXPECT_EQ(CResourceManager::GetStatistics(0).nBytesIdle, 60 * nRow);

    CCudaRecorder::Reset();
    _Release(vBlocks[4]);
    EXPECT_EQ(_Freed(), (std::vector<std::uint64_t>{vPointers[2], vPointers[0]}));
    EXPECT_EQ(CResourceManager::GetStatistics(0).nBytesIdle, 60 * nRow);

    CCudaRecorder::Reset();
    CResourceManager::SetIdleLimit(59 * nRow);
    EXPECT_EQ(_Freed(), std::vector<std::uint64_t>{vPointers[3]});

    // Larger than the limit: freed itself, and nothing else for it.
    CCudaMemoryPitchResource xLarge = CResourceManager::GetCudaMemoryPitch(100, 60);
    const std::uint64_t uLarge = _Value(xLarge.m_pDevice);
    CCudaRecorder::Reset();
    _Release(xLarge);
    EXPECT_EQ(xLarge.m_pDevice, nullptr);
    EXPECT_EQ(_Freed(), std::vector<std::uint64_t>{uLarge});
    EXPECT_EQ(CResourceManager::GetStatistics(0).nBytesIdle, 40 * nRow);
}

TEST_F(Pool, TheBlockOfAKeyThatWasReleasedLastIsLentFirst)
{
    CCudaMemoryResource xFirst = CResourceManager::GetCudaMemory(10);
    CCudaMemoryResource xSecond = CResourceManager::GetCudaMemory(10);
    void* const pFirst = xFirst.m_pDevice;
    void* const pSecond = xSecond.m_pDevice;
    _Release(xFirst);
    _Release(xSecond);
    xSecond = CResourceManager::GetCudaMemory(10);
    xFirst = CResourceManager::GetCudaMemory(10);
    EXPECT_EQ(xSecond.m_pDevice, pSecond);
    EXPECT_EQ(xFirst.m_pDevice, pFirst);
    _Release(xFirst, true);
    _Release(xSecond, true);
    EXPECT_EQ(CResourceManager::GetStatistics(0).nBlocksIdle, 0U);
}

// Three idle blocks, oldest first, and a lent one; what each operation frees fails at the second block.
TEST_F(Pool, WhenABlockCannotBeFreedThePoolKeepsItAndTheOnesAfterIt)
{
    const struct
    {
        const char* pcFunction;
        std::function<void(CCudaMemoryPitchResource& xLent)> Operation;
    } c_vCases[] = {
        {"Trim", [](CCudaMemoryPitchResource&) { CResourceManager::Trim(0); }},
        {"SetIdleLimit", [](CCudaMemoryPitchResource&) { CResourceManager::SetIdleLimit(0); }},
        {"ReleaseResource", [](CCudaMemoryPitchResource& xLent) { _Release(xLent); }},
        {"GetCudaMemory",
         [](CCudaMemoryPitchResource&)
         {
             // More than any device has.
             CResourceManager::GetCudaMemory(c_nNoLimit / 2);
         }},
    };
    for (int iCase = 0; iCase < 8; ++iCase)
    {
        const auto& xCase = c_vCases[iCase / 2];
        const bool bReuse = iCase % 2 != 0;
        SCOPED_TRACE(xCase.pcFunction);
        CResourceManager::SetIdleLimit(c_nNoLimit);
        std::vector<CCudaMemoryPitchResource> vIdle;
        std::vector<std::uint64_t> vPointers;
        for (std::size_t nBlock = 0; nBlock < 3; ++nBlock)
        {
            vIdle.push_back(CResourceManager::GetCudaMemoryPitch(10 + nBlock, 10));
            vPointers.push_back(_Value(vIdle.back().m_pDevice));
        }
        for (CCudaMemoryPitchResource& xBlock : vIdle)
        {
            _Release(xBlock);
        }
        CCudaMemoryPitchResource xLent = CResourceManager::GetCudaMemoryPitch(20, 25);
        const CCudaMemoryPitchResource xLentBefore = xLent;
        const std::size_t nRow = xLent.m_nPitch;
        CResourceManager::SetIdleLimit(30 * nRow);

        CCudaRecorder::Reset();
        CCudaRecorder::FailCall("cudaFree", 2, cudaErrorUnknown);
        EXPECT_TRUE(ThrowsChain([&] { xCase.Operation(xLent); },
                                {Cuda("Error freeing idle GPU memory", cudaErrorUnknown, xCase.pcFunction, c_pcFile)}));
        EXPECT_EQ(_Freed(), std::vector<std::uint64_t>{vPointers[0]});
        SPoolStatistics xNow = CResourceManager::GetStatistics(0);
        EXPECT_EQ(xNow.nBytesIdle, 20 * nRow);
        EXPECT_EQ(xNow.nBlocksIdle, 2U);
        EXPECT_EQ(xNow.nBytesInUse, 25 * nRow);
        EXPECT_EQ(xLent.m_pDevice, xLentBefore.m_pDevice);

        // The two are idle as before, in their order, and the lent one can be given back.
        CResourceManager::SetIdleLimit(c_nNoLimit);
        _Release(xLent);
        if (bReuse)
        {
            CCudaMemoryPitchResource xAgain = CResourceManager::GetCudaMemoryPitch(11, 10);
            EXPECT_EQ(_Value(xAgain.m_pDevice), vPointers[1]);
            _Release(xAgain);
        }
        CCudaRecorder::Reset();
        CResourceManager::Trim(0);
        const std::uint64_t uLent = _Value(xLentBefore.m_pDevice);
        EXPECT_EQ(_Freed(), bReuse ? (std::vector<std::uint64_t>{vPointers[2], uLent, vPointers[1]})
                                   : (std::vector<std::uint64_t>{vPointers[1], vPointers[2], uLent}));
    }
}

TEST_F(Pool, ABlockThatCannotBeFreedAtItsReleaseStaysLent)
{
    for (const bool bFree : {true, false})
    {
        CResourceManager::SetIdleLimit(bFree ? c_nNoLimit : 10);
        CResource& xRecord = CResourceManager::GetCudaMemoryPitch(64, 64);
        void* const pBlock = xRecord.m_pDevice;
        const SPoolStatistics xBefore = CResourceManager::GetStatistics(0);
        CCudaRecorder::FailCall("cudaFree", 1, cudaErrorUnknown);
        EXPECT_TRUE(ThrowsChain([&] { _Release(xRecord, bFree); },
                                {Cuda("Error freeing GPU memory", cudaErrorUnknown, "ReleaseResource", c_pcFile)}));
        EXPECT_EQ(xRecord.m_pDevice, pBlock);
        EXPECT_EQ(CResourceManager::GetStatistics(0), xBefore);
        _Release(xRecord, bFree);
        EXPECT_EQ(CResourceManager::GetStatistics(0).nBlocksIdle, 0U);
        CCudaMemoryPitchResource xStale;
        xStale.m_pDevice = pBlock;
        EXPECT_THROW(_Release(xStale), CQxException);
    }
}

TEST_F(Pool, EveryFailingCallIsReportedAndLeavesThePoolBalanced)
{
    struct SObjects
    {
        CCudaMemoryPitchResource xHeld;
        CCudaMemoryResource xLinear;
        CCudaMemoryPitchResource xPitched;
        SPoolStatistics xBefore;
    };
    const struct
    {
        const char* pcName;
        std::function<void(SObjects&)> Operation;
        int iCalls;
    } c_vCases[] = {
        {"pitched", [](SObjects& x) { x.xPitched = CResourceManager::GetCudaMemoryPitch(90, 9); }, 2},
        {"linear", [](SObjects& x) { x.xLinear = CResourceManager::GetCudaMemory(90); }, 2},
        {"hit", [](SObjects& x) { x.xPitched = CResourceManager::GetCudaMemoryPitch(80, 8); }, 1},
        {"release", [](SObjects& x) { _Release(x.xHeld); }, 0},
        {"free", [](SObjects& x) { _Release(x.xHeld, true); }, 1},
        {"trim", [](SObjects&) { CResourceManager::Trim(0); }, 2},
        {"limit", [](SObjects&) { CResourceManager::SetIdleLimit(0); }, 2},
        {"statistics", [](SObjects&) { static_cast<void>(CResourceManager::GetStatistics()); }, 1},
    };
    for (const auto& xCase : c_vCases)
    {
        SCOPED_TRACE(xCase.pcName);
        SObjects xObjects;
        const auto GiveBack = [&]
        {
            _Release(xObjects.xHeld);
            _Release(xObjects.xLinear);
            _Release(xObjects.xPitched);
            CResourceManager::Trim(0);
            CResourceManager::SetIdleLimit(c_nNoLimit);
        };
        const int iCalls = Qx::Test::SweepFailures(
            [&]
            {
                GiveBack();
                xObjects.xHeld = CResourceManager::GetCudaMemoryPitch(70, 7);
                _Release(CResourceManager::GetCudaMemoryPitch(80, 8));
                xObjects.xBefore = CResourceManager::GetStatistics(0);
                return &xObjects;
            },
            [&](SObjects* pObjects) { xCase.Operation(*pObjects); },
            [&](SObjects* pObjects, int, const CQxException& xException)
            {
                EXPECT_STREQ(xException.GetName().ToCString(), "Qx.CudaException");
                EXPECT_STREQ(xException.GetFile().ToCString(), c_pcFile);
                EXPECT_EQ(CResourceManager::GetStatistics(0), pObjects->xBefore);
                EXPECT_EQ(CCudaRecorder::LiveAllocations(), 2U);
                EXPECT_NE(pObjects->xHeld.m_pDevice, nullptr);
                EXPECT_EQ(pObjects->xLinear.m_pDevice, nullptr);
                EXPECT_EQ(pObjects->xPitched.m_pDevice, nullptr);
                CResourceManager::SetIdleLimit(c_nNoLimit);
                xCase.Operation(*pObjects);
            });
        EXPECT_EQ(iCalls, xCase.iCalls);
        GiveBack();
    }
}

TEST_F(Pool, BlocksOfAResetDeviceAreForgotten)
{
    CCudaMemoryPitchResource xIdle = CResourceManager::GetCudaMemoryPitch(64, 10);
    CCudaMemoryPitchResource xLent = CResourceManager::GetCudaMemoryPitch(64, 20);
    CCudaMemoryPitchResource xFreed = CResourceManager::GetCudaMemoryPitch(64, 30);
    CCudaMemoryPitchResource xIdleCopy = xIdle;
    _Release(xIdle);
    ASSERT_EQ(cudaDeviceReset(), cudaSuccess);
    CCudaRecorder::Reset();
    CResourceManager::ForgetDevice(0);
    CResourceManager::ForgetDevice(0);
    CResourceManager::ForgetDevice(12345);
    const SPoolStatistics xForgotten = CResourceManager::GetStatistics(0);
    EXPECT_EQ(xForgotten.nBlocksInUse + xForgotten.nBytesInUse + xForgotten.nBlocksIdle + xForgotten.nBytesIdle, 0U);

    CCudaMemoryPitchResource xLentCopy = xLent;
    _Release(xLent);
    EXPECT_EQ(xLent.m_pDevice, nullptr);
    _Release(xFreed, true);
    EXPECT_EQ(xFreed.m_pDevice, nullptr);
    EXPECT_THROW(_Release(xLentCopy), CQxException) << "given back twice";
    EXPECT_THROW(_Release(xIdleCopy), CQxException) << "given back before the reset";
    EXPECT_EQ(CResourceManager::GetStatistics(0), xForgotten);
    EXPECT_EQ(CCudaRecorder::CallNames(), Names{});

    const std::uint64_t uHits = CResourceManager::GetStatistics(0).uHits;
    CCudaMemoryPitchResource xNew = CResourceManager::GetCudaMemoryPitch(64, 10);
    EXPECT_EQ(CResourceManager::GetStatistics(0).uHits, uHits) << "memory of before the reset was lent";
    EXPECT_EQ(cudaMemset2D(xNew.m_pDevice, xNew.m_nPitch, 0, 64, 10), cudaSuccess);
    _Release(xNew);
}

TEST_F(Pool, TwoThreadsUseTwoDevicesAtOnce)
{
    int iDevices = 0;
    ASSERT_EQ(cudaGetDeviceCount(&iDevices), cudaSuccess);
    constexpr int c_iThreads = 2;
    constexpr std::uint64_t c_uRounds = 2000;
    std::array<SPoolStatistics, c_iThreads> vBefore;
    for (int iThread = 0; iThread < c_iThreads; ++iThread)
    {
        vBefore[static_cast<std::size_t>(iThread)] = CResourceManager::GetStatistics(iThread);
    }
    std::atomic<int> iFailures = 0;
    std::array<void*, c_iThreads> vLast{};
    std::vector<std::thread> vThreads;
    for (int iThread = 0; iThread < c_iThreads; ++iThread)
    {
        vThreads.emplace_back(
            [&, iThread]
            {
                iFailures += cudaSetDevice(iThread % iDevices) == cudaSuccess ? 0 : 1;
                for (std::uint64_t uRound = 0; uRound < c_uRounds; ++uRound)
                {
                    CCudaMemoryPitchResource xResource = CResourceManager::GetCudaMemoryPitch(320, 24);
                    vLast[static_cast<std::size_t>(iThread)] = xResource.m_pDevice;
                    iFailures +=
                        cudaMemset2D(xResource.m_pDevice, xResource.m_nPitch, 1, 320, 24) == cudaSuccess ? 0 : 1;
                    _Release(xResource);
                }
            });
    }
    for (std::thread& xThread : vThreads)
    {
        xThread.join();
    }
    EXPECT_EQ(iFailures, 0);
    std::uint64_t uMisses = 0;
    std::uint64_t uHits = 0;
    for (int iThread = 0; iThread < c_iThreads; ++iThread)
    {
        const SPoolStatistics xNow = CResourceManager::GetStatistics(iThread);
        const SPoolStatistics& xBefore = vBefore[static_cast<std::size_t>(iThread)];
        uMisses += xNow.uMisses - xBefore.uMisses;
        uHits += xNow.uHits - xBefore.uHits;
        if (iDevices >= c_iThreads)
        {
            EXPECT_EQ(xNow.uMisses - xBefore.uMisses, 1U) << "device " << iThread;
            EXPECT_EQ(xNow.nBlocksIdle, 1U);
        }
    }
    EXPECT_EQ(uHits + uMisses, c_iThreads * c_uRounds);
    EXPECT_LE(uMisses, 2U);
    if (iDevices >= c_iThreads)
    {
        EXPECT_NE(vLast[0], vLast[1]);
    }
}

TEST_F(Pool, NoBlockIsLentTwiceUnderContention)
{
    constexpr int c_iThreads = 4;
    constexpr int c_iRounds = 3000;
    std::mutex xMutex;
    std::set<const void*> vHeld;
    std::atomic<int> iLentTwice = 0;
    std::atomic<int> iOverwritten = 0;
    std::atomic<bool> bDone = false;

    const auto Work = [&](unsigned uSeed)
    {
        std::mt19937 xRandom(uSeed);
        struct SHeld
        {
            CCudaMemoryResource xLinear;
            CCudaMemoryPitchResource xPitched;
        };
        std::array<SHeld, 3> vMine;
        const auto GiveBack = [&](CResource& xResource)
        {
            if (xResource.m_pDevice != nullptr)
            {
                const std::lock_guard xLock(xMutex);
                vHeld.erase(xResource.m_pDevice);
            }
            _Release(xResource, xRandom() % 16 == 0);
        };
        for (int iRound = 0; iRound < c_iRounds; ++iRound)
        {
            SHeld& xHeld = vMine[xRandom() % vMine.size()];
            if (auto* const pMark = static_cast<volatile unsigned*>(xHeld.xLinear.m_pDevice))
            {
                iOverwritten += *pMark == uSeed ? 0 : 1;
            }
            GiveBack(xHeld.xLinear);
            GiveBack(xHeld.xPitched);
            xHeld.xLinear = CResourceManager::GetCudaMemory(64 + 4 * (xRandom() % 3));
            xHeld.xPitched = CResourceManager::GetCudaMemoryPitch(64, 1 + xRandom() % 3);
            *static_cast<volatile unsigned*>(xHeld.xLinear.m_pDevice) = uSeed;
            const std::lock_guard xLock(xMutex);
            iLentTwice += vHeld.insert(xHeld.xLinear.m_pDevice).second ? 0 : 1;
            iLentTwice += vHeld.insert(xHeld.xPitched.m_pDevice).second ? 0 : 1;
        }
        for (SHeld& xHeld : vMine)
        {
            GiveBack(xHeld.xLinear);
            GiveBack(xHeld.xPitched);
        }
    };
    std::vector<std::thread> vThreads;
    for (unsigned uThread = 1; uThread <= c_iThreads; ++uThread)
    {
        vThreads.emplace_back(Work, uThread);
    }
    std::thread xDisturber(
        [&]
        {
            for (std::size_t nRound = 0; !bDone; ++nRound)
            {
                CResourceManager::SetIdleLimit(nRound % 5 * 2048);
                CResourceManager::Trim(1024);
                static_cast<void>(CResourceManager::GetStatistics());
                std::this_thread::yield();
            }
        });
    for (std::thread& xThread : vThreads)
    {
        xThread.join();
    }
    bDone = true;
    xDisturber.join();
    EXPECT_EQ(iLentTwice, 0);
    EXPECT_EQ(iOverwritten, 0);
    const SPoolStatistics xNow = CResourceManager::GetStatistics(0);
    EXPECT_EQ(xNow.nBlocksInUse, 0U);
    EXPECT_EQ(xNow.nBytesInUse, 0U);
    CResourceManager::Trim(0);
    EXPECT_EQ(CCudaRecorder::LiveAllocations(), 0U);
}

} // namespace
