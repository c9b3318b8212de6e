#include <gtest/gtest.h>

#include "Qx.CudaRecorder/CudaRecorder.h"
#include "Qx.GPU.ResourceManager/ResourceManager.h"

namespace
{

using Qx::GPU::CResourceManager;
using Qx::GPU::EPool;
using Qx::Test::CCudaRecorder;

/// Every test starts with a clean record and an empty pool, and must leave no pending CUDA error and no allocation that
/// the pool does not account for.
class CBalanceListener : public ::testing::EmptyTestEventListener
{
    void OnTestStart(const ::testing::TestInfo&) override
    {
        CCudaRecorder::Reset();
        m_nLive = CCudaRecorder::LiveAllocations();
    }

    void OnTestEnd(const ::testing::TestInfo&) override
    {
        CCudaRecorder::Reset();
        if (!Qx::Test::DeviceAnswers())
        {
            return;
        }
        EXPECT_EQ(cudaPeekAtLastError(), cudaSuccess) << "the test left a CUDA error pending";
        static_cast<void>(cudaGetLastError());
        int iCurrent = 0;
        EXPECT_EQ(cudaGetDevice(&iCurrent), cudaSuccess);
        EXPECT_EQ(iCurrent, 0) << "the test left another device current";
        int iDevices = 0;
        EXPECT_EQ(cudaGetDeviceCount(&iDevices), cudaSuccess);
        for (int iDevice = 0; iDevice < iDevices; ++iDevice)
        {
            EXPECT_EQ(cudaSetDevice(iDevice), cudaSuccess);
            for (const EPool ePool : {EPool::Device, EPool::PageLocked})
            {
                EXPECT_EQ(CResourceManager::GetStatistics(iDevice, ePool).nBlocksInUse, 0U)
                    << "the test left blocks of device " << iDevice << " in use";
                CResourceManager::Trim(0, ePool);
            }
        }
        EXPECT_EQ(cudaSetDevice(0), cudaSuccess);
        EXPECT_EQ(CCudaRecorder::LiveAllocations(), m_nLive) << "the test leaked device memory";
    }

    std::size_t m_nLive = 0;
};

} // namespace

int main(int iArguments, char** ppcArguments)
{
    ::testing::InitGoogleTest(&iArguments, ppcArguments);
    ::testing::UnitTest::GetInstance()->listeners().Append(new CBalanceListener);
    const int iResult = RUN_ALL_TESTS();
    if (::testing::UnitTest::GetInstance()->test_to_run_count() == 0)
    {
        std::fputs("no test was run\n", stderr);
        return 1;
    }
    return iResult;
}
