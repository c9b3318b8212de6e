// What the pool does with the memory, the devices and the threads of a real runtime; PoolScriptedTests.cpp has its
// decisions.

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <limits>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Qx.CudaRecorder/CudaRecorder.h"
#include "Qx.GPU.ResourceManager/ResourceManager.h"
#include "Support/Stream.h"
#ifdef QX_HOSTCUDA
#include "Qx.HostCuda/HostCuda.h"
#endif

namespace Qx::Test
{

using namespace GPU;

namespace
{

void _Release(CResource& xResource, bool bFree = false)
{
    CResourceManager::ReleaseResource(xResource, bFree);
}

class Pool : public ::testing::Test
{
protected:
    void SetUp() override { CResourceManager::SetIdleLimit(std::numeric_limits<std::size_t>::max()); }
};

TEST_F(Pool, ALentBlockHasTheRequestedFieldsAndItsMemory)
{
    for (const auto& [nWidth, nRows] : {std::pair<std::size_t, std::size_t>{640, 48}, {1, 1}, {513, 3}})
    {
        CCudaMemoryPitchResource xPitched = CResourceManager::GetCudaMemoryPitch(nWidth, nRows);
        const CCudaMemoryPitchResource xBefore = xPitched;
        EXPECT_EQ(xPitched.m_nWidth, nWidth);
        EXPECT_EQ(xPitched.m_nRows, nRows);
        EXPECT_GE(xPitched.m_nPitch, nWidth);
        EXPECT_EQ(cudaMemset2D(xPitched.m_pDevice, xPitched.m_nPitch, 0x5A, nWidth, nRows), cudaSuccess);
        std::vector<unsigned char> vRead(nWidth * nRows);
        EXPECT_EQ(cudaMemcpy2D(vRead.data(), nWidth, xPitched.m_pDevice, xPitched.m_nPitch, nWidth, nRows,
                      cudaMemcpyDeviceToHost),
            cudaSuccess);
        EXPECT_EQ(vRead, std::vector<unsigned char>(nWidth * nRows, 0x5A));
        _Release(xPitched);
        CCudaRecorder::Reset();
        xPitched = CResourceManager::GetCudaMemoryPitch(nWidth, nRows);
        EXPECT_EQ(CCudaRecorder::CallNames(), std::vector<std::string>{"cudaGetDevice"});
        EXPECT_EQ(xPitched.m_pDevice, xBefore.m_pDevice);
        EXPECT_EQ(xPitched.m_nPitch, xBefore.m_nPitch);
        _Release(xPitched);
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
    const auto Matches = [](const CResource& xLeft, const CResource& xRight) { return xLeft.Matches(xRight); };
    const auto Pitched = [](std::size_t nPitch, std::size_t nWidth, std::size_t nRows)
    {
        CCudaMemoryPitchResource xResource;
        xResource.m_nPitch = nPitch;
        xResource.m_nWidth = nWidth;
        xResource.m_nRows = nRows;
        return xResource;
    };
    EXPECT_TRUE(Matches(Pitched(512, 10, 20), Pitched(256, 10, 20)));
    EXPECT_FALSE(Matches(Pitched(512, 10, 20), Pitched(512, 11, 20)));
    EXPECT_FALSE(Matches(Pitched(512, 10, 20), Pitched(512, 10, 21)));

    CCudaMemoryResource xLinear;
    xLinear.m_pDevice = &xLinear;
    CCudaMemoryResource xOther;
    EXPECT_TRUE(Matches(xLinear, xOther));
    xOther.m_nSize = 1;
    EXPECT_FALSE(Matches(xLinear, xOther));
}

// Needs to know when the device waits and when the runtime refuses, which a GPU leaves open.
#ifdef QX_HOSTCUDA
// Frees wait for the device. A thread that finds the device full meanwhile must wait for them, not give up.
TEST_F(Pool, MemoryThatIsBeingFreedCountsAsMemoryThatCanBeHad)
{
    const std::function<void(CResource&)> c_vFrees[] = {
        [](CResource& xBlock) { _Release(xBlock), CResourceManager::Trim(0); },
        [](CResource& xBlock) { _Release(xBlock, true); },
    };
    std::size_t nBudget = 0;
    ASSERT_EQ(HostCuda::GetMemoryBudget(0, nBudget), cudaSuccess);
    ASSERT_EQ(HostCuda::SetMemoryBudget(0, 1 << 20), cudaSuccess);
    for (const auto& Free : c_vFrees)
    {
        CCudaMemoryResource xBlock = CResourceManager::GetCudaMemory(900000);
        CHold xHold(nullptr);
        auto xFreed = std::async(std::launch::async, [&] { Free(xBlock); });
        // A free that has not begun by then is made by the request itself, which waits as well.
        EXPECT_EQ(xFreed.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
        auto xLent = std::async(
            std::launch::async, []() -> CCudaMemoryResource { return CResourceManager::GetCudaMemory(800000); });
        EXPECT_EQ(xLent.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
        xHold.Release();
        xFreed.get();
        CCudaMemoryResource xResource;
        EXPECT_NO_THROW(xResource = xLent.get());
        _Release(xResource, true);
    }
    ASSERT_EQ(HostCuda::SetMemoryBudget(0, nBudget), cudaSuccess);
}

// The thread that frees waits for the device, and the device for the host function.
TEST_F(Pool, AHostFunctionGivesBackWhileAnotherThreadFrees)
{
    for (const bool bFree : {false, true})
    {
        struct SClient
        {
            std::array<CCudaMemoryResource, 3> vLent;
            bool bFree;
        } xClient{{}, bFree};
        for (std::size_t nBlock = 0; nBlock < xClient.vLent.size(); ++nBlock)
        {
            xClient.vLent[nBlock] = CResourceManager::GetCudaMemory(1000 + nBlock);
        }
        const CCudaMemoryResource xGivenBack = xClient.vLent[1];
        CResourceManager::SetIdleLimit(1500);
        _Release(xClient.vLent[0]);
        const auto GiveBack = [](void* pClient)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(50)); // by then the other one frees
            auto& x = *static_cast<SClient*>(pClient);
            EXPECT_NO_THROW(_Release(x.vLent[1], x.bFree));
        };
        ASSERT_EQ(cudaLaunchHostFunc(nullptr, GiveBack, &xClient), cudaSuccess);
        std::thread([] { CResourceManager::Trim(0); }).join();
        EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
        EXPECT_EQ(xClient.vLent[1].m_pDevice, nullptr);
        EXPECT_EQ(CResourceManager::GetStatistics().nBlocksIdle, bFree ? 0U : 1U) << "the other thread frees it";

        // No one else frees: the runtime refuses, and the block stays until the next request that needs a new one.
        xClient.bFree = false;
        _Release(xClient.vLent[2]);
        xClient.vLent[1] = CResourceManager::GetCudaMemory(1600);
        ASSERT_EQ(cudaLaunchHostFunc(nullptr, GiveBack, &xClient), cudaSuccess);
        EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
        EXPECT_EQ(CResourceManager::GetStatistics().nBytesIdle, 2602U);
        CCudaMemoryResource xNew = CResourceManager::GetCudaMemory(1);
        EXPECT_LE(CResourceManager::GetStatistics().nBytesIdle, 1500U);
        _Release(xNew, true);
        CResourceManager::Trim(0);
    }
}
#endif

TEST_F(Pool, BlocksOfAResetDeviceAreForgotten)
{
    CCudaMemoryPitchResource xIdle = CResourceManager::GetCudaMemoryPitch(64, 10);
    CCudaMemoryPitchResource xLent = CResourceManager::GetCudaMemoryPitch(64, 20);
    CCudaMemoryPitchResource xFreed = CResourceManager::GetCudaMemoryPitch(64, 30);
    CCudaMemoryPitchResource xIdleCopy = xIdle;
    CCudaMemoryPitchResource xLentCopy = xLent;
    _Release(xIdle);
    ASSERT_EQ(cudaDeviceReset(), cudaSuccess);
    CCudaRecorder::Reset();
    CResourceManager::ForgetDevice(0);
    CResourceManager::ForgetDevice(0);
    const SPoolStatistics xForgotten = CResourceManager::GetStatistics(0);
    EXPECT_EQ(xForgotten.nBlocksInUse + xForgotten.nBytesInUse + xForgotten.nBlocksIdle + xForgotten.nBytesIdle, 0U);

    _Release(xLent);
    EXPECT_EQ(xLent.m_pDevice, nullptr);
    _Release(xFreed, true);
    EXPECT_EQ(xFreed.m_pDevice, nullptr);
    EXPECT_THROW(_Release(xLentCopy), CQxException) << "given back twice";
    EXPECT_THROW(_Release(xIdleCopy), CQxException) << "given back before the reset";
    EXPECT_EQ(CResourceManager::GetStatistics(0), xForgotten);
    EXPECT_TRUE(CCudaRecorder::Calls().empty());

    CCudaMemoryPitchResource xNew = CResourceManager::GetCudaMemoryPitch(64, 10);
    EXPECT_EQ(CResourceManager::GetStatistics(0).uHits, xForgotten.uHits) << "memory of before the reset was lent";
    EXPECT_EQ(cudaMemset2D(xNew.m_pDevice, xNew.m_nPitch, 0, 64, 10), cudaSuccess);
    _Release(xNew);
}

// Two threads a device where there are two, and one that disturbs them all. Who leaks or keeps a block is found out at
// the end of the test.
TEST_F(Pool, NoBlockIsLentTwiceUnderContention)
{
    int iDevices = 0;
    ASSERT_EQ(cudaGetDeviceCount(&iDevices), cudaSuccess);
    iDevices = std::min(iDevices, 2);
    std::mutex xMutex;
    std::set<const void*> vHeld;
    std::atomic<bool> bDone = false;
    struct SHeld
    {
        CCudaMemoryResource xLinear;
        CCudaMemoryPitchResource xPitched;
    };
    const auto Work = [&](unsigned uSeed)
    {
        EXPECT_EQ(cudaSetDevice(static_cast<int>(uSeed) % iDevices), cudaSuccess);
        std::mt19937 xRandom(uSeed);
        std::array<SHeld, 3> vMine;
        const auto GiveBack = [&](SHeld& xHeld)
        {
            if (auto* const pMark = static_cast<volatile unsigned*>(xHeld.xLinear.m_pDevice))
            {
                EXPECT_EQ(*pMark, uSeed) << "overwritten";
                const std::lock_guard xLock(xMutex);
                vHeld.erase(xHeld.xLinear.m_pDevice);
                vHeld.erase(xHeld.xPitched.m_pDevice);
            }
            _Release(xHeld.xLinear, xRandom() % 16 == 0);
            _Release(xHeld.xPitched, xRandom() % 16 == 0);
        };
        for (int iRound = 0; iRound < 3000; ++iRound)
        {
            SHeld& xHeld = vMine[xRandom() % vMine.size()];
            GiveBack(xHeld);
            xHeld.xLinear = CResourceManager::GetCudaMemory(64 + 4 * (xRandom() % 3));
            xHeld.xPitched = CResourceManager::GetCudaMemoryPitch(64, 1 + xRandom() % 3);
            *static_cast<volatile unsigned*>(xHeld.xLinear.m_pDevice) = uSeed;
            const std::lock_guard xLock(xMutex);
            EXPECT_TRUE(vHeld.insert(xHeld.xLinear.m_pDevice).second) << "lent twice";
            EXPECT_TRUE(vHeld.insert(xHeld.xPitched.m_pDevice).second) << "lent twice";
        }
        std::for_each(vMine.begin(), vMine.end(), GiveBack);
    };
    const auto Disturb = [&]
    {
        for (unsigned uRound = 0; !bDone; ++uRound)
        {
            EXPECT_EQ(cudaSetDevice(static_cast<int>(uRound) % iDevices), cudaSuccess);
            CResourceManager::SetIdleLimit(uRound % 5 * 2048);
            CResourceManager::Trim(1024);
            static_cast<void>(CResourceManager::GetStatistics());
            std::this_thread::yield();
        }
    };
    std::vector<std::thread> vThreads;
    for (unsigned uThread = 1; uThread <= 4; ++uThread)
    {
        vThreads.emplace_back(Work, uThread);
    }
    std::thread xDisturber(Disturb);
    for (std::thread& xThread : vThreads)
    {
        xThread.join();
    }
    bDone = true;
    xDisturber.join();
}

} // namespace

} // namespace Qx::Test
