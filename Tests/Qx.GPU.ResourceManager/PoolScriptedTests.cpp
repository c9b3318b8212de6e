// What the pool does when the runtime, the host's memory or the device behave as no test can order from real ones.

#include <malloc.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Qx.Core/QxFormat.h"
#include "Qx.Cuda.Core/QxCudaException.h"
#include "Qx.GPU.ResourceManager/ResourceManager.h"
#include "ScriptedRuntime.h"
#include "Support/AllocationFault.h"
#include "Support/Chain.h"

namespace
{

using Qx::CQxException;
using Qx::CQxOutOfMemoryException;
using Qx::GPU::CCudaMemoryPitchResource;
using Qx::GPU::CCudaMemoryResource;
using Qx::GPU::CResource;
using Qx::GPU::CResourceManager;
using Qx::GPU::EPool;
using Qx::Test::CAllocationFault;
using Qx::Test::CScriptedRuntime;
using Qx::Test::ThrowsChain;

using Names = std::vector<std::string>;

constexpr const char* c_pcFile = "Source/Qx.GPU.ResourceManager/ResourceManager";
constexpr std::size_t c_nPitch = CScriptedRuntime::c_nPitchUnit;

void _Release(CResource& xResource)
{
    CResourceManager::ReleaseResource(xResource, false);
}

std::size_t _Address(const CResource& xResource)
{
    return reinterpret_cast<std::size_t>(xResource.m_pDevice);
}

std::string _Freed(const CResource& xResource)
{
    char acText[40];
    Qx::sprintf_s(acText, "cudaFree %zx", _Address(xResource));
    return acText;
}

/// Every test has devices of its own that the pool has not seen, and must leave nothing on them.
class PoolScripted : public ::testing::Test
{
protected:
    void SetUp() override { NextDevice(); }

    void TearDown() override
    {
        EXPECT_EQ(CScriptedRuntime::sm_eLastError, cudaSuccess);
        CScriptedRuntime::Reset(m_iDevice);
        for (int iDevice = m_iFirstDevice; iDevice <= m_iDevice; ++iDevice)
        {
            EXPECT_EQ(CResourceManager::GetStatistics(iDevice).nBlocksInUse, 0U);
            CScriptedRuntime::sm_iDevice = iDevice;
            CResourceManager::Trim(0);
            EXPECT_EQ(CResourceManager::GetStatistics(iDevice).nBytesIdle, 0U);
        }
        EXPECT_EQ(CScriptedRuntime::LiveBlocks(), 0U);
    }

    void NextDevice()
    {
        m_iDevice = sm_iNextDevice++;
        CScriptedRuntime::Reset(m_iDevice);
    }

    static inline int sm_iNextDevice = 0;
    const int m_iFirstDevice = sm_iNextDevice;
    int m_iDevice = 0;
};

TEST_F(PoolScripted, LinearMemoryIsTheKindThatTheHostCanReadOnTheDevice)
{
    const struct
    {
        int iConcurrent;
        int iIntegrated;
        const char* pcAllocation;
        const char* pcFree;
    } c_vCases[] = {{1, 0, "cudaMallocManaged", "cudaFree"},
                    {1, 1, "cudaMallocManaged", "cudaFree"},
                    {0, 1, "cudaHostAlloc", "cudaFreeHost"},
                    {0, 0, "cudaMallocManaged", "cudaFree"}};
    for (const auto& xCase : c_vCases)
    {
        SCOPED_TRACE(xCase.pcAllocation);
        NextDevice();
        CScriptedRuntime::sm_iConcurrentManagedAccess = xCase.iConcurrent;
        CScriptedRuntime::sm_iIntegrated = xCase.iIntegrated;
        CCudaMemoryResource xLinear = CResourceManager::GetCudaMemory(100);
        EXPECT_EQ(CScriptedRuntime::Calls(), (Names{"cudaGetDevice", "cudaMemGetInfo", "cudaDeviceGetAttribute",
                                                    "cudaDeviceGetAttribute", xCase.pcAllocation}));

        CScriptedRuntime::Reset(m_iDevice);
        CCudaMemoryPitchResource xPitched = CResourceManager::GetCudaMemoryPitch(100, 2);
        EXPECT_EQ(CScriptedRuntime::Calls(), (Names{"cudaGetDevice", "cudaMallocPitch"})) << "properties asked again";

        CScriptedRuntime::Reset(m_iDevice);
        CResourceManager::ReleaseResource(xPitched, true);
        CResourceManager::ReleaseResource(xLinear, true);
        const Names vCalls = CScriptedRuntime::Calls();
        ASSERT_EQ(vCalls.size(), 2U);
        EXPECT_EQ(vCalls[0].substr(0, vCalls[0].find(' ')), "cudaFree");
        EXPECT_EQ(vCalls[1].substr(0, vCalls[1].find(' ')), xCase.pcFree);
    }
}

TEST_F(PoolScripted, PageLockedMemoryIsAPoolOfItsOwnThatGoesWithItsDevice)
{
    NextDevice();
    CCudaMemoryResource xHost = CResourceManager::GetPageLockedMemory(100);
    EXPECT_EQ(CScriptedRuntime::Calls(), (Names{"cudaGetDevice", "cudaMemGetInfo", "cudaHostAlloc"}));
    CCudaMemoryResource xLinear = CResourceManager::GetCudaMemory(100);
    void* const pHost = xHost.m_pDevice;
    CResourceManager::ReleaseResource(xHost, false);
    CResourceManager::ReleaseResource(xLinear, false);
    EXPECT_EQ(CResourceManager::GetStatistics(m_iDevice).nBytesIdle, 100U);
    EXPECT_EQ(CResourceManager::GetStatistics(m_iDevice, EPool::PageLocked).nBytesIdle, 100U);

    CResourceManager::Trim(0);
    EXPECT_EQ(CResourceManager::GetStatistics(m_iDevice, EPool::PageLocked).nBlocksIdle, 1U);
    xHost = CResourceManager::GetPageLockedMemory(100);
    EXPECT_EQ(xHost.m_pDevice, pHost);
    CResourceManager::SetIdleLimit(99, EPool::PageLocked);
    CResourceManager::ReleaseResource(xHost, false);
    EXPECT_EQ(CScriptedRuntime::LiveBlocks(), 0U);

    CScriptedRuntime::FailCall(2, cudaErrorMemoryAllocation, true);
    try
    {
        CResourceManager::GetPageLockedMemory(200);
        ADD_FAILURE() << "nothing was thrown";
    }
    catch (const CQxOutOfMemoryException& xException)
    {
        const std::string sExpected =
            "Error allocating page-locked memory. Out of memory: requested 200 bytes, in use 0 "
            "bytes in 0 blocks, idle 0 bytes in 0 blocks, Device ID: " +
            std::to_string(m_iDevice);
        EXPECT_EQ(xException.GetMessageText().ToCString(), sExpected);
    }
    CScriptedRuntime::Reset(m_iDevice);
    xHost = CResourceManager::GetPageLockedMemory(100);
    void* const pGone = xHost.m_pDevice;
    CResourceManager::ForgetDevice(m_iDevice);
    CResourceManager::ReleaseResource(xHost, false);
    EXPECT_EQ(CResourceManager::GetStatistics(m_iDevice, EPool::PageLocked).nBlocksIdle, 0U) << "memory that is gone";
    ASSERT_EQ(cudaFreeHost(pGone), cudaSuccess);
}

TEST_F(PoolScripted, AnyFailingCallOfAFirstRequestLeavesNothingBehindAndIsRetried)
{
    const struct
    {
        std::function<CResource&()> Request;
        EPool ePool;
        int iAllocation; // the call that allocates, the last one
    } c_vCases[] = {{[]() -> CResource& { return CResourceManager::GetCudaMemory(9); }, EPool::Device, 5},
                    {[]() -> CResource& { return CResourceManager::GetCudaMemoryPitch(9, 9); }, EPool::Device, 5},
                    {[]() -> CResource& { return CResourceManager::GetPageLockedMemory(9); }, EPool::PageLocked, 3}};
    for (const auto& xCase : c_vCases)
    {
        for (const cudaError_t eError : {cudaErrorUnknown, cudaErrorMemoryAllocation})
        {
            for (const bool bPersistent : {false, true})
            {
                int iNth = 1;
                for (bool bHasFailed = true; bHasFailed; ++iNth)
                {
                    SCOPED_TRACE("call " + std::to_string(iNth) + ", error " + std::to_string(eError));
                    ASSERT_LT(iNth, 20);
                    NextDevice();
                    CScriptedRuntime::FailCall(iNth, eError, bPersistent);
                    CResource* pLent = nullptr;
                    try
                    {
                        pLent = &xCase.Request();
                    }
                    catch (const CQxException& xException)
                    {
                        const bool bOutOfMemory = iNth == xCase.iAllocation && eError == cudaErrorMemoryAllocation;
                        EXPECT_STREQ(xException.GetName().ToCString(),
                                     bOutOfMemory ? "Qx.OutOfMemoryException" : "Qx.CudaException");
                        EXPECT_STREQ(xException.GetFile().ToCString(), c_pcFile);
                        // With every call failing, so does the device query of the exception itself.
                        EXPECT_TRUE(CScriptedRuntime::sm_eLastError == cudaSuccess || bPersistent);
                    }
                    bHasFailed = CScriptedRuntime::sm_bHasFailed;
                    // Only an allocation that is refused for lack of memory, once, is made up for.
                    const bool bMadeUp =
                        iNth == xCase.iAllocation && eError == cudaErrorMemoryAllocation && !bPersistent;
                    ASSERT_EQ(pLent != nullptr, !bHasFailed || bMadeUp);
                    EXPECT_EQ(CResourceManager::GetStatistics(m_iDevice, xCase.ePool).nBlocksInUse,
                              pLent != nullptr ? 1U : 0U);
                    EXPECT_EQ(CResourceManager::GetStatistics(m_iDevice, xCase.ePool).uMisses,
                              pLent != nullptr ? 1U : 0U);
                    EXPECT_EQ(CScriptedRuntime::LiveBlocks(), pLent != nullptr ? 1U : 0U);
                    CScriptedRuntime::Reset(m_iDevice);
                    if (pLent == nullptr)
                    {
                        pLent = &xCase.Request();
                    }
                    CResourceManager::ReleaseResource(*pLent, true);
                }
                EXPECT_EQ(iNth, xCase.iAllocation + 2) << "a first request makes another number of calls";
            }
        }
    }
}

TEST_F(PoolScripted, IdleBlocksMayFillHalfOfTheDeviceUnlessTheClientSetALimit)
{
    const struct
    {
        std::size_t nTotalMemory;
        std::size_t nSetLimit; // 0: none
        std::vector<std::size_t> vIdleBytes;
    } c_vCases[] = {{1000, 0, {300, 500, 300, 300}}, {998, 0, {300, 200, 300, 300}}, {1000, 600, {300, 500, 600, 600}}};
    for (const auto& xCase : c_vCases)
    {
        NextDevice();
        CScriptedRuntime::sm_nTotalMemory = xCase.nTotalMemory;
        if (xCase.nSetLimit != 0)
        {
            CResourceManager::SetIdleLimit(xCase.nSetLimit);
        }
        CCudaMemoryResource vBlocks[] = {CResourceManager::GetCudaMemory(300), CResourceManager::GetCudaMemory(200),
                                         CResourceManager::GetCudaMemory(100), CResourceManager::GetCudaMemory(601)};
        std::vector<std::size_t> vIdleBytes;
        for (CCudaMemoryResource& xBlock : vBlocks)
        {
            _Release(xBlock);
            vIdleBytes.push_back(CResourceManager::GetStatistics(m_iDevice).nBytesIdle);
        }
        EXPECT_EQ(vIdleBytes, xCase.vIdleBytes);
    }
}

TEST_F(PoolScripted, ABlockBelongsToItsDeviceWhicheverIsCurrent)
{
    CCudaMemoryPitchResource xFirst = CResourceManager::GetCudaMemoryPitch(64, 4);
    const int iFirstDevice = m_iDevice;
    NextDevice();
    CCudaMemoryPitchResource xSecond = CResourceManager::GetCudaMemoryPitch(64, 4);
    const std::size_t nFirst = _Address(xFirst);
    const std::string sFreed = _Freed(xFirst);
    CScriptedRuntime::Reset(m_iDevice);
    _Release(xFirst);
    EXPECT_EQ(CScriptedRuntime::Calls(), Names{});
    EXPECT_EQ(CResourceManager::GetStatistics(iFirstDevice).nBytesIdle, 4 * c_nPitch);
    EXPECT_EQ(CResourceManager::GetStatistics(m_iDevice).nBytesIdle, 0U);

    CCudaMemoryPitchResource xThird = CResourceManager::GetCudaMemoryPitch(64, 4);
    EXPECT_NE(_Address(xThird), nFirst) << "a block was lent on another device than its own";
    CScriptedRuntime::sm_iDevice = iFirstDevice;
    CCudaMemoryPitchResource xFourth = CResourceManager::GetCudaMemoryPitch(64, 4);
    EXPECT_EQ(_Address(xFourth), nFirst);

    CScriptedRuntime::Reset(m_iDevice);
    CResourceManager::ReleaseResource(xFourth, true);
    EXPECT_EQ(CScriptedRuntime::Calls(), Names{sFreed}) << "only the free, and the current device as it was";
    EXPECT_EQ(CScriptedRuntime::sm_iDevice, m_iDevice);
    _Release(xSecond);
    _Release(xThird);
}

TEST_F(PoolScripted, AnyFailingHostAllocationOfARequestLeavesNothingBehind)
{
    for (const bool bKnownDevice : {false, true})
    {
        CCudaMemoryPitchResource xLent;
        const int iFailures = Qx::Test::FailEachAllocation(
            [&]
            {
                CResourceManager::ReleaseResource(xLent, true);
                NextDevice();
                if (bKnownDevice)
                {
                    CResourceManager::ReleaseResource(CResourceManager::GetCudaMemory(8), true);
                }
            },
            [&] { xLent = CResourceManager::GetCudaMemoryPitch(8, 8); },
            [&]
            {
                EXPECT_EQ(CScriptedRuntime::LiveBlocks(), 0U);
                EXPECT_EQ(CResourceManager::GetStatistics(m_iDevice).nBlocksInUse, 0U);
                CResourceManager::ReleaseResource(CResourceManager::GetCudaMemoryPitch(8, 8), true);
            });
        // The record, its bucket and on a new device that device's record, in two modes.
        EXPECT_EQ(iFailures, bKnownDevice ? 4 : 6);
        EXPECT_EQ(CScriptedRuntime::LiveBlocks(), 1U);
        CResourceManager::ReleaseResource(xLent, true);
    }
}

TEST_F(PoolScripted, AHitAndItsReleaseAllocateNothingOnTheHost)
{
    for (const bool bKeep : {true, false}) // the first round makes the block, the second is served with it
    {
        CCudaMemoryPitchResource xResource = CResourceManager::GetCudaMemoryPitch(30, 30);
        EXPECT_EQ(bKeep, CResourceManager::GetStatistics(m_iDevice).uHits == 0);
        _Release(xResource);
    }
    const CAllocationFault xFault(0, CAllocationFault::EMode::Persistent);
    CCudaMemoryPitchResource xResource = CResourceManager::GetCudaMemoryPitch(30, 30);
    _Release(xResource);
    EXPECT_FALSE(CAllocationFault::HasStruck());
}

TEST_F(PoolScripted, ManyBlocksAreFoundAlsoWhenTheTablesCannotGrow)
{
    constexpr std::size_t c_nBlocks = 300;
    static bool s_bHasGrown = false; // tables never shrink, so a repetition of the test finds them large
    CResourceManager::ReleaseResource(CResourceManager::GetCudaMemory(1), true);
    for (const bool bGrow : {false, true})
    {
        std::vector<CCudaMemoryResource> vBlocks(c_nBlocks);
        bool bStruck = false;
        for (std::size_t nBlock = 0; nBlock < c_nBlocks; ++nBlock)
        {
            // A request allocates its two records; what it allocates beyond is room in the tables.
            const CAllocationFault xFault(bGrow ? 1000 : 2, CAllocationFault::EMode::Persistent);
            vBlocks[nBlock] = CResourceManager::GetCudaMemory(nBlock + 1);
            bStruck |= CAllocationFault::HasStruck();
        }
        EXPECT_EQ(bStruck, !bGrow && !s_bHasGrown);
        s_bHasGrown |= bGrow;
        const std::vector<CCudaMemoryResource> vLent = vBlocks;
        for (CCudaMemoryResource& xBlock : vBlocks)
        {
            _Release(xBlock);
        }
        EXPECT_EQ(CResourceManager::GetStatistics(m_iDevice).nBlocksIdle, c_nBlocks);
        for (std::size_t nBlock = c_nBlocks; nBlock-- > 0;)
        {
            vBlocks[nBlock] = CResourceManager::GetCudaMemory(nBlock + 1);
            EXPECT_EQ(vBlocks[nBlock].m_pDevice, vLent[nBlock].m_pDevice);
        }
        for (CCudaMemoryResource& xBlock : vBlocks)
        {
            CResourceManager::ReleaseResource(xBlock, true);
        }
        EXPECT_EQ(CScriptedRuntime::LiveBlocks(), 0U);
        CScriptedRuntime::Reset(m_iDevice);
    }
}

// In use by the host's allocator; always 0 where a sanitizer replaces it.
std::size_t _HostBytes()
{
#if __GLIBC_PREREQ(2, 33)
    return mallinfo2().uordblks;
#else
    return static_cast<std::size_t>(mallinfo().uordblks);
#endif
}

TEST_F(PoolScripted, SizesThatWereUsedOnceLeaveNoRecord)
{
    constexpr std::size_t c_nRounds = 5000;
    std::size_t nBefore = 0;
    for (std::size_t nRound = 0; nRound < 2 * c_nRounds; ++nRound)
    {
        CScriptedRuntime::Reset(m_iDevice);
        CResourceManager::ReleaseResource(CResourceManager::GetCudaMemory(nRound + 1), true);
        if (nRound == c_nRounds)
        {
            nBefore = _HostBytes();
        }
    }
    EXPECT_LT(_HostBytes(), nBefore + c_nRounds * 8);
}

TEST_F(PoolScripted, ABlockThatIsBeingFreedIsNotLentAndThePoolIsNotLockedMeanwhile)
{
    // Requests, inside the free, what the freed block would answer.
    static CCudaMemoryPitchResource s_xMeanwhile;
    const auto Request = [] { s_xMeanwhile = CResourceManager::GetCudaMemoryPitch(16, 16); };
    const struct
    {
        const char* pcName;
        std::function<void(CCudaMemoryPitchResource&)> Free;
    } c_vCases[] = {
        {"trim", [](CCudaMemoryPitchResource& xBlock) { (_Release(xBlock), CResourceManager::Trim(0)); }},
        {"flag", [](CCudaMemoryPitchResource& xBlock) { CResourceManager::ReleaseResource(xBlock, true); }},
        {"room for another block",
         [](CCudaMemoryPitchResource& xBlock)
         {
             CCudaMemoryPitchResource xOther = CResourceManager::GetCudaMemoryPitch(17, 16);
             CResourceManager::SetIdleLimit(16 * c_nPitch);
             _Release(xBlock);
             _Release(xOther);
         }},
        {"out of memory",
         [](CCudaMemoryPitchResource& xBlock)
         {
             _Release(xBlock);
             CScriptedRuntime::FailCall(2, cudaErrorMemoryAllocation);
             CCudaMemoryPitchResource xOther = CResourceManager::GetCudaMemoryPitch(17, 16);
             _Release(xOther);
         }},
    };
    for (const auto& xCase : c_vCases)
    {
        SCOPED_TRACE(xCase.pcName);
        NextDevice();
        CCudaMemoryPitchResource xBlock = CResourceManager::GetCudaMemoryPitch(16, 16);
        const std::size_t nAddress = _Address(xBlock);
        const std::string sFreed = _Freed(xBlock);
        CScriptedRuntime::sm_bHasFailed = false;
        s_xMeanwhile = {};
        // The hook fires inside the first call that follows; arm it anew until that call is the free.
        static std::function<void()> s_Hook;
        s_Hook = [&]
        {
            if (CScriptedRuntime::Calls().back() == sFreed)
            {
                Request();
            }
            else
            {
                CScriptedRuntime::sm_pOnCall = [] { s_Hook(); };
            }
        };
        CScriptedRuntime::sm_pOnCall = [] { s_Hook(); };
        xCase.Free(xBlock);
        ASSERT_NE(s_xMeanwhile.m_pDevice, nullptr);
        EXPECT_NE(_Address(s_xMeanwhile), nAddress);
        _Release(s_xMeanwhile);
    }
}

TEST_F(PoolScripted, ABlockAtTheAddressOfAForgottenOneIsLentByOneHolderAtATime)
{
    constexpr std::size_t c_nReused = 0xABC000;
    const auto Request = []
    {
        CScriptedRuntime::sm_nNextAddress = c_nReused;
        return CResourceManager::GetCudaMemory(64);
    };
    // The same address is lent to two holders that are forgotten, then to a third.
    std::vector<CCudaMemoryResource> vHolders;
    for (int iHolder = 0; iHolder < 3; ++iHolder)
    {
        vHolders.push_back(Request());
        ASSERT_EQ(_Address(vHolders.back()), c_nReused);
        EXPECT_EQ(CResourceManager::GetStatistics(m_iDevice).nBlocksInUse, 1U);
        if (iHolder < 2)
        {
            ASSERT_EQ(cudaFree(vHolders.back().m_pDevice), cudaSuccess);
            CScriptedRuntime::Reset(m_iDevice);
            CResourceManager::ForgetDevice(m_iDevice);
            EXPECT_EQ(CScriptedRuntime::Calls(), Names{});
            EXPECT_EQ(CResourceManager::GetStatistics(m_iDevice).nBlocksInUse, 0U);
            EXPECT_EQ(CResourceManager::GetStatistics(m_iDevice).nBytesInUse, 0U);
        }
    }
    CScriptedRuntime::sm_nNextAddress = c_nReused + 0x1000;
    for (CCudaMemoryResource& xHolder : vHolders)
    {
        CCudaMemoryResource xOther = CResourceManager::GetCudaMemory(64);
        EXPECT_NE(_Address(xOther), c_nReused) << "lent while a holder may use it";
        CResourceManager::ReleaseResource(xOther, true);
        _Release(xHolder);
        EXPECT_EQ(xHolder.m_pDevice, nullptr);
    }
    EXPECT_EQ(CResourceManager::GetStatistics(m_iDevice).nBlocksInUse, 0U);
    CCudaMemoryResource xNext = CResourceManager::GetCudaMemory(64);
    EXPECT_EQ(_Address(xNext), c_nReused);
    _Release(xNext);
    xNext.m_pDevice = CScriptedRuntime::Pointer(c_nReused);
    EXPECT_THROW(_Release(xNext), CQxException) << "all holders have given the block back";
}

TEST_F(PoolScripted, RecordsOfMemoryThatTheRuntimeHandsOutAnewAreReplaced)
{
    // A device reset that the pool was not told of: one record lent, one idle, both addresses come again.
    CCudaMemoryResource xLent = CResourceManager::GetCudaMemory(64);
    CCudaMemoryResource xIdle = CResourceManager::GetCudaMemory(128);
    const std::size_t vAddresses[] = {_Address(xLent), _Address(xIdle)};
    _Release(xIdle);
    for (const std::size_t nAddress : vAddresses)
    {
        ASSERT_EQ(cudaFree(CScriptedRuntime::Pointer(nAddress)), cudaSuccess);
    }
    std::vector<CCudaMemoryResource> vNew;
    for (const std::size_t nAddress : vAddresses)
    {
        CScriptedRuntime::sm_nNextAddress = nAddress;
        vNew.push_back(CResourceManager::GetCudaMemory(256));
        EXPECT_EQ(_Address(vNew.back()), nAddress);
    }
    CScriptedRuntime::sm_nNextAddress = vAddresses[1] + 0x1000;
    EXPECT_EQ(CResourceManager::GetStatistics(m_iDevice).nBytesInUse, 512U);
    EXPECT_EQ(CResourceManager::GetStatistics(m_iDevice).nBytesIdle, 0U);
    _Release(vNew[0]);
    EXPECT_EQ(CResourceManager::GetStatistics(m_iDevice).nBytesInUse, 512U) << "its old holder has not given it back";
    _Release(vNew[1]);
    EXPECT_EQ(CResourceManager::GetStatistics(m_iDevice).nBytesInUse, 256U);
    _Release(xLent);
    EXPECT_EQ(CResourceManager::GetStatistics(m_iDevice).nBytesIdle, 512U);
}

TEST_F(PoolScripted, ABlockWhoseBytesCannotBeCountedIsRefused)
{
    CScriptedRuntime::sm_nPitch = std::size_t{1} << 40;
    const auto Request = [] { CResourceManager::GetCudaMemoryPitch(1, std::size_t{1} << 24); };
    EXPECT_TRUE(
        ThrowsChain(Request, {{"Qx.OutOfMemoryException",
                               "Error allocating GPU memory. Out of memory: requested 16777216 rows of 1 bytes, in use "
                               "0 bytes in 0 blocks, idle 0 bytes in 0 blocks, Device ID: " +
                                   std::to_string(m_iDevice),
                               "GetCudaMemoryPitch", c_pcFile}}));
    EXPECT_EQ(CScriptedRuntime::LiveBlocks(), 0U);
}

} // namespace
