// What the pool does, with calls, failures, addresses and devices that no test can order from a real runtime.

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Qx.Core/QxFormat.h"
#include "Qx.GPU.ResourceManager/HostMemory.h"
#include "Qx.GPU.ResourceManager/ResourceManager.h"
#include "ScriptedRuntime.h"
#include "Support/AllocationFault.h"
#include "Support/CudaChain.h"

namespace Qx::Test
{

using namespace GPU;

namespace
{

using Names = std::vector<std::string>;
using Indices = std::vector<std::size_t>;

constexpr const char* c_pcFile = "Source/Qx.GPU.ResourceManager/ResourceManager";
constexpr std::size_t c_nRow = CScriptedRuntime::c_nPitchUnit;
constexpr std::size_t c_nNoLimit = std::numeric_limits<std::size_t>::max();

CCudaMemoryResource& _Linear(std::size_t nSize)
{
    return CResourceManager::GetCudaMemory(nSize);
}

CCudaMemoryPitchResource& _Pitched(std::size_t nWidth, std::size_t nRows)
{
    return CResourceManager::GetCudaMemoryPitch(nWidth, nRows);
}

CCudaMemoryResource& _PageLocked(std::size_t nSize)
{
    return CResourceManager::GetPageLockedMemory(nSize);
}

/// Lends blocks of so many rows of `c_nRow` bytes; widths tell apart blocks of equal size.
std::vector<CCudaMemoryPitchResource> _LendRows(const std::vector<std::size_t>& vRows)
{
    std::vector<CCudaMemoryPitchResource> vBlocks;
    for (const std::size_t nRows : vRows)
    {
        vBlocks.push_back(_Pitched(100 + vBlocks.size(), nRows));
    }
    return vBlocks;
}

void _Release(CResource& xResource, bool bFree = false)
{
    CResourceManager::ReleaseResource(xResource, bFree);
}

template <typename TBody>
bool _IsRefused(TBody&& xBody)
{
    try
    {
        xBody();
        return false;
    }
    catch (const CQxException&)
    {
        return true;
    }
}

std::size_t _Address(const CResource& xResource)
{
    return reinterpret_cast<std::size_t>(xResource.m_pDevice);
}

std::string _FreeCall(const char* pcFree, const CResource& xResource)
{
    char acText[60];
    sprintf_s(acText, "%s %p", pcFree, xResource.m_pDevice);
    return acText;
}

/// Every test has devices of its own that the pool has not seen, and must leave no block of them in use.
class PoolScripted : public ::testing::Test
{
protected:
    void SetUp() override { NextDevice(); }

    void TearDown() override
    {
        EXPECT_EQ(CScriptedRuntime::sm_eLastError, cudaSuccess);
        EXPECT_EQ(CScriptedRuntime::IdleBlocks(), CScriptedRuntime::LiveBlocks()) << "the runtime was not told";
        for (int iDevice = m_iFirstDevice; iDevice <= m_iDevice; ++iDevice)
        {
            CScriptedRuntime::Reset(iDevice);
            for (const EPool ePool : {EPool::Device, EPool::PageLocked})
            {
                EXPECT_EQ(CResourceManager::GetStatistics(iDevice, ePool).nBlocksInUse, 0U);
                CResourceManager::Trim(0, ePool);
                EXPECT_EQ(CResourceManager::GetStatistics(iDevice, ePool).nBytesIdle, 0U);
            }
        }
        EXPECT_EQ(CScriptedRuntime::LiveBlocks(), 0U);
    }

    void NextDevice()
    {
        m_iDevice = sm_iNextDevice++;
        CScriptedRuntime::Reset(m_iDevice);
    }

    SPoolStatistics Statistics(EPool ePool = EPool::Device) const
    {
        return CResourceManager::GetStatistics(m_iDevice, ePool);
    }

    /// Which blocks of @p vLent were freed since the calls were reset, which it does.
    Indices TakeFreed(const std::vector<CCudaMemoryPitchResource>& vLent) const
    {
        Indices vIndices;
        for (const void* pBlock : CScriptedRuntime::Freed())
        {
            const auto pIsFreed = [&](const CResource& x) { return x.m_pDevice == pBlock; };
            const auto pFound = std::find_if(vLent.begin(), vLent.end(), pIsFreed);
            vIndices.push_back(static_cast<std::size_t>(pFound - vLent.begin()));
        }
        CScriptedRuntime::Reset(m_iDevice);
        return vIndices;
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
    } c_vCases[] = {
        {1, 0, "cudaMallocManaged", "cudaFree"},
        {1, 1, "cudaMallocManaged", "cudaFree"},
        {0, 1, "cudaHostAlloc mapped", "cudaFreeHost"},
        {0, 0, "cudaMallocManaged", "cudaFree"},
    };
    for (const auto& xCase : c_vCases)
    {
        NextDevice();
        CScriptedRuntime::sm_iConcurrentManagedAccess = xCase.iConcurrent;
        CScriptedRuntime::sm_iIntegrated = xCase.iIntegrated;
        CCudaMemoryResource xLinear = _Linear(100);
        EXPECT_EQ(CScriptedRuntime::Calls(),
            (Names{"cudaGetDevice", "cudaMemGetInfo", "cudaDeviceGetAttribute", "cudaDeviceGetAttribute",
                xCase.pcAllocation}));
        CScriptedRuntime::Reset(m_iDevice);
        CCudaMemoryPitchResource xPitched = _Pitched(100, 2);
        EXPECT_EQ(CScriptedRuntime::Calls(), (Names{"cudaGetDevice", "cudaMallocPitch"})) << "properties asked again";

        const Names vFrees{_FreeCall("cudaFree", xPitched), _FreeCall(xCase.pcFree, xLinear)};
        CScriptedRuntime::Reset(m_iDevice);
        _Release(xPitched, true);
        _Release(xLinear, true);
        EXPECT_EQ(CScriptedRuntime::Calls(), vFrees);
    }
}

TEST_F(PoolScripted, PageLockedMemoryIsAPoolOfItsOwnThatGoesWithItsDevice)
{
    CCudaMemoryResource xHost = _PageLocked(100);
    EXPECT_EQ(CScriptedRuntime::Calls(), (Names{"cudaGetDevice", "cudaMemGetInfo", "cudaHostAlloc portable"}));
    _Release(_Linear(100));
    _Release(xHost);
    CResourceManager::Trim(0);
    EXPECT_EQ(Statistics().nBlocksIdle, 0U);
    EXPECT_EQ(Statistics(EPool::PageLocked).nBytesIdle, 100U);
    CResourceManager::SetIdleLimit(99, EPool::PageLocked);
    EXPECT_EQ(CScriptedRuntime::LiveBlocks(), 0U);

    xHost = _PageLocked(100);
    void* const pGone = xHost.m_pDevice;
    CResourceManager::ForgetDevice(m_iDevice);
    _Release(xHost);
    EXPECT_EQ(Statistics(EPool::PageLocked).nBlocksIdle, 0U) << "memory that is gone";
    ASSERT_EQ(cudaFreeHost(pGone), cudaSuccess);
}

TEST_F(PoolScripted, AnIdleBlockAnswersEqualRequestsOnlyAndThatWithoutACall)
{
    const std::function<CResource&(std::size_t, std::size_t)> Pitched = _Pitched;
    const auto Linear = [](std::size_t nSize, std::size_t) -> CResource& { return _Linear(nSize); };
    const auto PageLocked = [](std::size_t nSize, std::size_t) -> CResource& { return _PageLocked(nSize); };
    const struct
    {
        std::function<CResource&(std::size_t nWidth, std::size_t nRows)> Lend;
        std::size_t nWidth;
        std::size_t nRows;
    } c_vRequests[] = {{Pitched, 64, 32}, {Pitched, 65, 32}, {Pitched, 63, 32}, {Pitched, 64, 31}, {Pitched, 64, 33},
        {Pitched, 32, 64}, {Pitched, 0, 32}, {Pitched, 64, 0}, {Pitched, 1, 32}, {Pitched, 64, 1}, {Pitched, 2048, 1},
        {Linear, 64, 1}, {Linear, 2048, 1}, {Linear, 2047, 1}, {Linear, 0, 1}, {Linear, 1, 1}, {Linear, 32, 1},
        {PageLocked, 64, 1}};
    std::vector<void*> vBlocks;
    for (const auto& [Lend, nWidth, nRows] : c_vRequests)
    {
        // The reference itself may be given back, too: it is emptied, and whole again when the block is lent again.
        CResource& xLent = Lend(nWidth, nRows);
        vBlocks.push_back(xLent.m_pDevice);
        _Release(xLent);
        EXPECT_EQ(xLent.m_pDevice, nullptr);
    }
    EXPECT_EQ(std::set<void*>(vBlocks.begin(), vBlocks.end()).size(), vBlocks.size());
    auto pBlock = vBlocks.begin();
    for (const auto& [Lend, nWidth, nRows] : c_vRequests)
    {
        CScriptedRuntime::Reset(m_iDevice);
        CResource& xLent = Lend(nWidth, nRows);
        EXPECT_EQ(xLent.m_pDevice, *pBlock++);
        _Release(xLent);
        EXPECT_EQ(CScriptedRuntime::Calls(), Names{"cudaGetDevice"});
    }
}

TEST_F(PoolScripted, TheBlockOfAKeyThatWasReleasedLastIsLentFirst)
{
    CCudaMemoryResource xFirst = _Linear(10);
    CCudaMemoryResource xSecond = _Linear(10);
    const std::size_t vAddresses[] = {_Address(xFirst), _Address(xSecond)};
    _Release(xFirst);
    _Release(xSecond);
    xSecond = _Linear(10);
    xFirst = _Linear(10);
    EXPECT_EQ(_Address(xSecond), vAddresses[1]);
    EXPECT_EQ(_Address(xFirst), vAddresses[0]);
    _Release(xFirst, true);
    _Release(xSecond, true);
}

TEST_F(PoolScripted, StatisticsCountBlocksWithTheirPadding)
{
    EXPECT_EQ(CResourceManager::GetStatistics(), SPoolStatistics{});
    CCudaMemoryPitchResource xFirst = _Pitched(100, 3);
    CCudaMemoryPitchResource xSecond = _Pitched(100, 30);
    CCudaMemoryResource xThird = _Linear(777);
    // Blocks and bytes in use, idle, the peak, hits, misses, trimmed blocks and bytes.
    constexpr std::size_t c_nPeak = 33 * c_nRow + 777;
    EXPECT_EQ(Statistics(), (SPoolStatistics{3, c_nPeak, 0, 0, c_nPeak, 0, 3, 0, 0}));
    _Release(xFirst);
    _Release(xThird);
    EXPECT_EQ(Statistics(), (SPoolStatistics{1, 30 * c_nRow, 2, 3 * c_nRow + 777, c_nPeak, 0, 3, 0, 0}));
    CResourceManager::Trim(777);
    EXPECT_EQ(Statistics(), (SPoolStatistics{1, 30 * c_nRow, 1, 777, c_nPeak, 0, 3, 1, 3 * c_nRow}));
    _Release(_Linear(777));
    _Release(xSecond, true);
    const SPoolStatistics xLast{0, 0, 1, 777, c_nPeak, 1, 3, 1, 3 * c_nRow};
    EXPECT_EQ(CResourceManager::GetStatistics(), xLast) << "a block that was not idle is not trimmed";

    _Release(_PageLocked(10));
    for (const int iNoDevice : {12345, -1, ~m_iDevice})
    {
        CResourceManager::ForgetDevice(iNoDevice);
        EXPECT_EQ(CResourceManager::GetStatistics(iNoDevice), SPoolStatistics{});
    }
    EXPECT_EQ(Statistics(), xLast);
    EXPECT_EQ(Statistics(EPool::PageLocked).nBlocksIdle, 1U);
}

TEST_F(PoolScripted, AReleaseOfWhatIsNotLentIsRefusedAndChangesNothing)
{
    CCudaMemoryResource xIdle = _Linear(20);
    CCudaMemoryResource xFreed = _Linear(21);
    CCudaMemoryResource xLent = _Linear(22);
    constexpr const char* c_pcUnknown = "is not from the pool or was freed already";
    const std::pair<void*, const char*> c_vCases[] = {
        {xIdle.m_pDevice, "was given back already"},
        {xFreed.m_pDevice, c_pcUnknown},
        {this, c_pcUnknown},
        {static_cast<char*>(xLent.m_pDevice) + 1, c_pcUnknown},
    };
    _Release(xIdle);
    _Release(xFreed, true);
    const SPoolStatistics xBefore = Statistics();
    CScriptedRuntime::Reset(m_iDevice);
    for (const bool bFree : {false, true})
    {
        for (const auto& [pBlock, pcWhy] : c_vCases)
        {
            CCudaMemoryResource xResource;
            xResource.m_pDevice = pBlock;
            char acText[120];
            sprintf_s(acText, "Error releasing GPU memory. Block %p %s", pBlock, pcWhy);
            EXPECT_TRUE(ThrowsChain([&] { _Release(xResource, bFree); }, {Plain(acText, "ReleaseResource", c_pcFile)}));
            EXPECT_EQ(xResource.m_pDevice, pBlock);
        }
        CCudaMemoryResource xEmpty;
        EXPECT_NO_THROW(_Release(xEmpty, bFree));
    }
    EXPECT_EQ(CScriptedRuntime::Calls(), Names{});
    EXPECT_EQ(Statistics(), xBefore);
    _Release(xLent);
}

TEST_F(PoolScripted, AnyFailingCallIsReportedChangesNothingAndMayBeRetried)
{
    constexpr const char* c_pcAllocating = "Error allocating GPU memory";
    constexpr const char* c_pcFreeing = "Error freeing idle GPU memory";
    constexpr const char* c_pcDevice = "Error getting CUDA device ID";
    const struct
    {
        const char* pcName;
        int iCalls;
        bool bAllocates;       // on a device that was not used before, with its last call
        const char* pcMessage; // of its last call
        std::function<void(CResource& xLent, CResource*& pNew)> Operation;
    } c_vCases[] = {
        {"linear", 5, true, c_pcAllocating, [](CResource&, CResource*& pNew) { pNew = &_Linear(9); }},
        {"pitched", 5, true, c_pcAllocating, [](CResource&, CResource*& pNew) { pNew = &_Pitched(9, 9); }},
        {"page-locked", 3, true, "Error allocating page-locked memory",
            [](CResource&, CResource*& pNew) { pNew = &_PageLocked(9); }},
        {"hit", 1, false, c_pcDevice, [](CResource&, CResource*& pNew) { pNew = &_Pitched(80, 8); }},
        {"free", 1, false, "Error freeing GPU memory", [](CResource& xLent, CResource*&) { _Release(xLent, true); }},
        {"trim", 2, false, c_pcFreeing, [](CResource&, CResource*&) { CResourceManager::Trim(0); }},
        {"limit", 2, false, c_pcFreeing, [](CResource&, CResource*&) { CResourceManager::SetIdleLimit(0); }},
        {"statistics", 1, false, c_pcDevice, [](CResource&, CResource*&) { CResourceManager::GetStatistics(); }},
    };
    const auto Run = [&](const auto& xCase, int iNth, cudaError_t eError, bool bPersistent)
    {
        SCOPED_TRACE(
            std::string(xCase.pcName) + ", call " + std::to_string(iNth) + ", error " + std::to_string(eError));
        NextDevice();
        CCudaMemoryPitchResource xLent;
        if (!xCase.bAllocates)
        {
            xLent = _Pitched(70, 7);
            _Release(_Pitched(80, 8));
        }
        const SPoolStatistics vBefore[] = {Statistics(), Statistics(EPool::PageLocked)};
        const std::size_t nLiveBefore = CScriptedRuntime::LiveBlocks();

        // Only a lack of memory is made up for, if it passes.
        const bool bLack = xCase.bAllocates && iNth == xCase.iCalls && eError == cudaErrorMemoryAllocation;
        const bool bFails = iNth <= xCase.iCalls && (!bLack || bPersistent);
        CScriptedRuntime::FailCall(iNth, eError, bPersistent);
        CResource* pNew = nullptr;
        std::string sThrown = "nothing";
        try
        {
            xCase.Operation(xLent, pNew);
        }
        catch (const CQxException& xException)
        {
            sThrown = xException.GetName().ToCString();
            EXPECT_STREQ(xException.GetFile().ToCString(), c_pcFile);
            const std::string sMessage = xException.GetMessageText().ToCString();
            EXPECT_TRUE(iNth < xCase.iCalls || sMessage.starts_with(xCase.pcMessage)) << sMessage;
        }
        EXPECT_EQ(sThrown, !bFails ? "nothing" : bLack ? "Qx.OutOfMemoryException" : "Qx.CudaException");
        EXPECT_EQ(CScriptedRuntime::sm_bHasFailed, iNth <= xCase.iCalls) << "another number of calls";
        // With every call failing, so does the device query of the exception itself.
        EXPECT_TRUE(CScriptedRuntime::sm_eLastError == cudaSuccess || bPersistent);
        if (bFails)
        {
            EXPECT_EQ(Statistics(), vBefore[0]);
            EXPECT_EQ(Statistics(EPool::PageLocked), vBefore[1]);
            EXPECT_EQ(CScriptedRuntime::LiveBlocks(), nLiveBefore);
            CScriptedRuntime::Reset(m_iDevice);
            xCase.Operation(xLent, pNew);
        }
        CScriptedRuntime::Reset(m_iDevice);
        if (pNew != nullptr)
        {
            _Release(*pNew);
        }
        _Release(xLent);
    };
    for (const auto& xCase : c_vCases)
    {
        for (int iNth = 1; iNth <= xCase.iCalls + 1; ++iNth)
        {
            for (const cudaError_t eError : {cudaErrorUnknown, cudaErrorMemoryAllocation})
            {
                Run(xCase, iNth, eError, false);
                Run(xCase, iNth, eError, true);
            }
        }
    }
}

TEST_F(PoolScripted, ImpossibleRequestsAreRefusedWithTheFigures)
{
    constexpr std::size_t c_nHalf = std::size_t{1} << 32;
    constexpr const char* c_pcWithIdle = "in use 5000 bytes in 1 blocks, idle 300 bytes in 1 blocks";
    constexpr const char* c_pcHeld = "in use 5000 bytes in 1 blocks, idle 0 bytes in 0 blocks";
    constexpr const char* c_pcNothing = "in use 0 bytes in 0 blocks, idle 0 bytes in 0 blocks";
    constexpr const char* c_pcHuge = "9223372036854775807 bytes";
    const struct
    {
        const char* pcFunction;
        const char* pcMemory;
        const char* pcRequested;
        const char* pcFigures;
        bool bFreesIdle; // the 300 bytes
        std::function<void()> Request;
    } c_vCases[] = {
        {"GetCudaMemory", "GPU", c_pcHuge, c_pcHeld, true, [] { _Linear(c_nNoLimit / 2); }},
        {"GetPageLockedMemory", "page-locked", c_pcHuge, c_pcNothing, false, [] { _PageLocked(c_nNoLimit / 2); }},
        // A product that wraps does not reach the runtime, bytes that wrap when the rows are padded do.
        {"GetCudaMemoryPitch", "GPU", "4294967296 rows of 4294967296 bytes", c_pcWithIdle, false,
            [] { _Pitched(c_nHalf, c_nHalf); }},
        {"GetCudaMemoryPitch", "GPU", "16777216 rows of 1 bytes", c_pcHeld, true,
            [] { _Pitched(1, std::size_t{1} << 24); }},
    };
    CCudaMemoryResource xHeld = _Linear(5000);
    for (const auto& xCase : c_vCases)
    {
        _Release(_Linear(300));
        CScriptedRuntime::sm_nPitch = std::size_t{1} << 40;
        const std::string sText = std::string("Error allocating ") + xCase.pcMemory +
            " memory. Out of memory: requested " + xCase.pcRequested + ", " + xCase.pcFigures +
            ", Device ID: " + std::to_string(m_iDevice) + ", free 0 of 1099511627776 bytes" +
            (xCase.bFreesIdle ? ", freed in vain 300 idle bytes of GPU memory of device " + std::to_string(m_iDevice)
                              : "");
        EXPECT_TRUE(ThrowsChain(xCase.Request, {{"Qx.OutOfMemoryException", sText, xCase.pcFunction, c_pcFile}}));
        EXPECT_EQ(CScriptedRuntime::sm_eLastError, cudaSuccess);
    }
    _Release(xHeld);
}

// 600 of 1000 bytes lie idle in one pool when another one is asked for more than the rest.
struct SNeighbours
{
    EPool eIdle;
    EPool eRequest;
    int iIntegrated;
    bool bOtherDevice;
    bool bCanBeFreed;
    std::size_t nRequest;
    const char* pcFreed; // null: not the same memory, or not to be had; else what the message says when it is in vain
} const c_vNeighbours[] = {
    {EPool::Device, EPool::PageLocked, 1, false, true, 700, "GPU"},
    {EPool::PageLocked, EPool::Device, 1, false, true, 700, "page-locked"},
    {EPool::Device, EPool::Device, 1, true, true, 700, "GPU"},
    {EPool::PageLocked, EPool::PageLocked, 0, true, true, 700, "page-locked"},
    {EPool::PageLocked, EPool::PageLocked, 0, true, true, 1001, "page-locked"},
    {EPool::PageLocked, EPool::PageLocked, 0, true, false, 700, nullptr},
    {EPool::Device, EPool::PageLocked, 0, false, true, 700, nullptr},
    {EPool::PageLocked, EPool::Device, 0, false, true, 700, nullptr},
    {EPool::Device, EPool::Device, 0, true, true, 700, nullptr},
};

TEST_F(PoolScripted, WhatIsIdleOnTheSameMemoryIsFreedForARequest)
{
    const auto LendAndRelease = [](EPool ePool, std::size_t nBytes)
    { _Release(ePool == EPool::Device ? _Linear(nBytes) : _PageLocked(nBytes)); };
    for (const SNeighbours& xCase : c_vNeighbours)
    {
        SCOPED_TRACE(&xCase - c_vNeighbours);
        NextDevice();
        CScriptedRuntime::sm_iIntegrated = xCase.iIntegrated;
        LendAndRelease(xCase.eIdle, 600);
        const int iIdleDevice = m_iDevice;
        if (xCase.bOtherDevice)
        {
            NextDevice();
            CScriptedRuntime::sm_iIntegrated = xCase.iIntegrated;
        }
        CScriptedRuntime::sm_nSharedMemory = 1000;
        CScriptedRuntime::FailCall(xCase.bCanBeFreed ? 0 : 1, cudaErrorUnknown, true, "cudaFreeHost");
        std::string sMessage;
        try
        {
            LendAndRelease(xCase.eRequest, xCase.nRequest);
        }
        catch (const CQxOutOfMemoryException& xException)
        {
            sMessage = xException.GetMessageText().ToCString();
        }
        EXPECT_EQ(sMessage.empty(), xCase.pcFreed != nullptr && xCase.nRequest <= 1000) << sMessage;
        const std::string sEnd = xCase.pcFreed == nullptr ? ", free 0 of 1099511627776 bytes"
                                                          : std::string(", freed in vain 600 idle bytes of ") +
                xCase.pcFreed + " memory of device " + std::to_string(iIdleDevice);
        EXPECT_TRUE(sMessage.empty() || sMessage.ends_with(sEnd)) << sMessage;
        CScriptedRuntime::Reset(iIdleDevice);
        EXPECT_EQ(CResourceManager::GetStatistics(iIdleDevice, xCase.eIdle).nBytesIdle % 700,
            xCase.pcFreed != nullptr ? 0U : 600U);
        CResourceManager::Trim(0, xCase.eIdle);
        CScriptedRuntime::Reset(m_iDevice);
        CResourceManager::Trim(0, xCase.eRequest);
    }
}

TEST_F(PoolScripted, IdlePageLockedMemoryIsBoundedForAllDevicesTogether)
{
    const std::size_t nBound = HostMemory() / 8;
    const auto Idle = [](int iDevice)
    { return CResourceManager::GetStatistics(iDevice, EPool::PageLocked).nBytesIdle; };
    const int iFirst = m_iDevice;
    _Release(_PageLocked(nBound / 2));
    NextDevice();
    const int iSecond = m_iDevice;
    _Release(_PageLocked(nBound / 4));
    EXPECT_EQ(Idle(iFirst), nBound / 2);
    EXPECT_EQ(Idle(iSecond), nBound / 4);
    _Release(_PageLocked(nBound / 4 * 3));
    EXPECT_EQ(Idle(iFirst), 0U) << "what the device itself has was not enough";
    EXPECT_EQ(Idle(iSecond), nBound / 4 * 3);

    // A limit of the client's own is the pool's alone.
    CResourceManager::SetIdleLimit(nBound, EPool::PageLocked);
    CScriptedRuntime::Reset(iFirst);
    _Release(_PageLocked(nBound));
    EXPECT_EQ(Idle(iFirst), nBound);
    EXPECT_EQ(Idle(iSecond), nBound / 4 * 3);
    _Release(_PageLocked(nBound + 1));
    EXPECT_EQ(Idle(iFirst), nBound);
    CScriptedRuntime::Reset(iSecond);
}

TEST(HostMemory, IsWhatTheControlGroupsLeave)
{
    const std::size_t nMachine = HostMemory("/no such folder");
    ASSERT_NE(nMachine, 0U);
    const struct
    {
        const char* pcGroups;
        std::vector<std::pair<const char*, const char*>> vFiles;
        std::size_t nExpected;
    } c_vCases[] = {
        {"", {{"memory.max", "4096\n"}}, nMachine},
        {"0::/\n", {{"memory.max", "4096\n"}}, 4096},
        {"0::/\n", {{"memory.max", "max\n"}}, nMachine},
        {"0::/a/b\n", {{"a/b/memory.max", "max\n"}, {"a/memory.max", "8192\n"}, {"memory.max", "9000\n"}}, 8192},
        {"0::/of/the/machine\n", {{"memory.max", "5000\n"}}, 5000},
        {"2:cpu,cpuacct:/c\n1:memory:/c\n", {{"memory/c/memory.limit_in_bytes", "7000\n"}}, 7000},
        {"1:memory:/c\n0::/c\n", {{"memory/memory.limit_in_bytes", "6000\n"}, {"memory.max", "5000"}}, 5000},
        {"1:memory:/c\n", {{"memory/memory.limit_in_bytes", "9223372036854771712\n"}}, nMachine},
        {"2:cpu:/c\n", {{"memory/c/memory.limit_in_bytes", "7000\n"}}, nMachine},
        {"not a line of this kind", {}, nMachine},
    };
    namespace Files = std::filesystem;
    const Files::path xRoot = Files::path(::testing::TempDir()) / ("qx_host_memory_" + std::to_string(getpid()));
    const auto Write = [&](const Files::path& xFile, const char* pcText)
    {
        Files::create_directories(xFile.parent_path());
        std::ofstream(xFile) << pcText;
    };
    for (const auto& xCase : c_vCases)
    {
        SCOPED_TRACE(xCase.pcGroups);
        Write(xRoot / "proc/self/cgroup", xCase.pcGroups);
        for (const auto& [pcFile, pcText] : xCase.vFiles)
        {
            Write(xRoot / "sys/fs/cgroup" / pcFile, pcText);
        }
        EXPECT_EQ(HostMemory(xRoot.string()), xCase.nExpected);
        Files::remove_all(xRoot);
    }
}

TEST_F(PoolScripted, IdleBlocksMayFillHalfOfTheDeviceUnlessTheClientSetALimit)
{
    const struct
    {
        std::size_t nTotalMemory;
        std::size_t nSetLimit; // 0: none
        std::vector<std::size_t> vIdleBytes;
    } c_vCases[] = {
        {1000, 0, {300, 500, 300, 300}},
        {998, 0, {300, 200, 300, 300}},
        {1000, 600, {300, 500, 600, 600}},
    };
    for (const auto& xCase : c_vCases)
    {
        NextDevice();
        CScriptedRuntime::sm_nTotalMemory = xCase.nTotalMemory;
        if (xCase.nSetLimit != 0)
        {
            CResourceManager::SetIdleLimit(xCase.nSetLimit);
        }
        CCudaMemoryResource vBlocks[] = {_Linear(300), _Linear(200), _Linear(100), _Linear(601)};
        std::vector<std::size_t> vIdleBytes;
        for (CCudaMemoryResource& xBlock : vBlocks)
        {
            _Release(xBlock);
            vIdleBytes.push_back(Statistics().nBytesIdle);
        }
        EXPECT_EQ(vIdleBytes, xCase.vIdleBytes);
    }
}

TEST_F(PoolScripted, TheLeastRecentlyUsedIdleBlocksMakeRoomForAReleasedOne)
{
    std::vector<CCudaMemoryPitchResource> vBlocks = _LendRows({10, 20, 30, 20, 40, 60, 10});
    const auto vLent = vBlocks;
    CResourceManager::SetIdleLimit(60 * c_nRow);
    for (std::size_t nBlock = 0; nBlock < 3; ++nBlock)
    {
        _Release(vBlocks[nBlock]);
    }
    EXPECT_EQ(TakeFreed(vLent), Indices{}) << "60 rows just fit";

    // Used again, the first one is the most recent of 1, 2, 0.
    _Release(_Pitched(vLent[0].m_nWidth, vLent[0].m_nRows));
    _Release(vBlocks[3]);
    EXPECT_EQ(TakeFreed(vLent), Indices{1});
    _Release(vBlocks[4]);
    EXPECT_EQ(TakeFreed(vLent), (Indices{2, 0}));
    CResourceManager::SetIdleLimit(60 * c_nRow - 1);
    EXPECT_EQ(TakeFreed(vLent), Indices{3});
    _Release(vBlocks[5]);
    EXPECT_EQ(TakeFreed(vLent), Indices{5}) << "larger than the limit: freed itself, and nothing else for it";
    EXPECT_EQ(Statistics().nBytesIdle, 40 * c_nRow);

    CScriptedRuntime::FailCall(1, cudaErrorUnknown, false, "cudaFree");
    EXPECT_THROW(CResourceManager::SetIdleLimit(30 * c_nRow), CQxException);
    _Release(vBlocks[6]);
    EXPECT_EQ(TakeFreed(vLent), Indices{4}) << "the limit holds from then on";
}

// Three idle blocks, oldest first, and a lent one; what each operation frees fails at the second block.
TEST_F(PoolScripted, WhenABlockCannotBeFreedThePoolKeepsItAndTheOnesAfterIt)
{
    const struct
    {
        const char* pcFunction;
        std::function<void(CResource& xLent)> Operation;
    } c_vCases[] = {
        {"Trim", [](CResource&) { CResourceManager::Trim(0); }},
        {"SetIdleLimit", [](CResource&) { CResourceManager::SetIdleLimit(0); }},
        {"ReleaseResource", [](CResource& xLent) { _Release(xLent); }},
        {"GetCudaMemory", [](CResource&) { _Linear(c_nNoLimit / 2); }},
    };
    for (int iCase = 0; iCase < 8; ++iCase)
    {
        const auto& xCase = c_vCases[iCase / 2];
        const bool bReuse = iCase % 2 != 0;
        SCOPED_TRACE(xCase.pcFunction);
        NextDevice();
        std::vector<CCudaMemoryPitchResource> vBlocks = _LendRows({10, 10, 10, 25});
        const auto vLent = vBlocks;
        for (std::size_t nBlock = 0; nBlock < 3; ++nBlock)
        {
            _Release(vBlocks[nBlock]);
        }
        CResourceManager::SetIdleLimit(30 * c_nRow);
        CScriptedRuntime::FailCall(2, cudaErrorUnknown, false, "cudaFree");
        EXPECT_TRUE(ThrowsChain([&] { xCase.Operation(vBlocks[3]); },
            {Cuda("Error freeing idle GPU memory", cudaErrorUnknown, xCase.pcFunction, c_pcFile, m_iDevice)}));
        EXPECT_EQ(TakeFreed(vLent), Indices{0});
        EXPECT_EQ(Statistics().nBytesIdle, 20 * c_nRow);
        EXPECT_EQ(Statistics().nBlocksIdle, 2U);
        EXPECT_EQ(Statistics().nBytesInUse, 25 * c_nRow);
        EXPECT_EQ(vBlocks[3].m_pDevice, vLent[3].m_pDevice);

        // The two are idle as before, in their order, and the lent one can be given back.
        CResourceManager::SetIdleLimit(c_nNoLimit);
        _Release(vBlocks[3]);
        if (bReuse)
        {
            _Release(_Pitched(vLent[1].m_nWidth, vLent[1].m_nRows));
        }
        CResourceManager::Trim(0);
        EXPECT_EQ(TakeFreed(vLent), bReuse ? (Indices{2, 3, 1}) : (Indices{1, 2, 3}));
    }
}

TEST_F(PoolScripted, ABlockThatCannotBeFreedAtItsReleaseStaysLent)
{
    CResource& xRecord = _Pitched(64, 64);
    CCudaMemoryResource xStale;
    xStale.m_pDevice = xRecord.m_pDevice;
    CScriptedRuntime::FailCall(1, cudaErrorUnknown);
    EXPECT_TRUE(ThrowsChain([&] { _Release(xRecord, true); },
        {Cuda("Error freeing GPU memory", cudaErrorUnknown, "ReleaseResource", c_pcFile, m_iDevice)}));
    EXPECT_EQ(xRecord.m_pDevice, xStale.m_pDevice);
    _Release(xRecord, true);
    EXPECT_THROW(_Release(xStale), CQxException);
}

TEST_F(PoolScripted, ABlockBelongsToItsDeviceWhicheverIsCurrent)
{
    CCudaMemoryPitchResource xFirst = _Pitched(64, 4);
    const CCudaMemoryPitchResource xFirstBefore = xFirst;
    const int iFirstDevice = m_iDevice;
    NextDevice();
    CCudaMemoryPitchResource xSecond = _Pitched(64, 4);
    _Release(xFirst);
    EXPECT_EQ(CResourceManager::GetStatistics(iFirstDevice).nBytesIdle, 4 * c_nRow);
    EXPECT_EQ(Statistics().nBytesIdle, 0U);

    CCudaMemoryPitchResource xThird = _Pitched(64, 4);
    EXPECT_NE(xThird.m_pDevice, xFirstBefore.m_pDevice) << "a block was lent on another device than its own";
    CScriptedRuntime::sm_iDevice = iFirstDevice;
    xFirst = _Pitched(64, 4);
    EXPECT_EQ(xFirst.m_pDevice, xFirstBefore.m_pDevice);

    CScriptedRuntime::Reset(m_iDevice);
    _Release(xFirst, true);
    EXPECT_EQ(CScriptedRuntime::Calls(), Names{_FreeCall("cudaFree", xFirstBefore)}) << "the device stays as it was";

    // A fault of the current device is none of the block's, and no reason to try again where it is its own.
    const std::string sFree = _FreeCall("cudaFree", xSecond);
    const std::pair<int, Names> c_vFaults[] = {
        {m_iDevice, {sFree, "cudaGetDevice", "cudaGetDevice"}}, // the second for the exception
        {iFirstDevice, {sFree, "cudaGetDevice", "cudaSetDevice", sFree, "cudaSetDevice"}},
    };
    for (const auto& [iFaultyDevice, vCalls] : c_vFaults)
    {
        CScriptedRuntime::Reset(iFaultyDevice);
        CScriptedRuntime::sm_iFaultyDevice = iFaultyDevice;
        EXPECT_EQ(_IsRefused([&] { _Release(xSecond, true); }), iFaultyDevice == m_iDevice);
        EXPECT_EQ(CScriptedRuntime::Calls(), vCalls);
        EXPECT_EQ(CScriptedRuntime::sm_iDevice, iFaultyDevice);
    }
    CScriptedRuntime::Reset(m_iDevice);
    xSecond = _Pitched(64, 4);

    CResourceManager::ForgetDevice(iFirstDevice);
    EXPECT_EQ(Statistics().nBlocksInUse, 2U);
    _Release(xSecond);
    _Release(xThird);
}

TEST_F(PoolScripted, AnyFailingHostAllocationOfARequestLeavesNothingBehind)
{
    for (const bool bKnownDevice : {false, true})
    {
        CCudaMemoryPitchResource xLent;
        const auto Setup = [&]
        {
            _Release(xLent, true);
            NextDevice();
            if (bKnownDevice)
            {
                _Release(_Linear(8), true);
            }
        };
        const auto Check = [&]
        {
            EXPECT_EQ(CScriptedRuntime::LiveBlocks(), 0U);
            EXPECT_EQ(Statistics().nBlocksInUse, 0U);
            _Release(_Pitched(8, 8), true);
        };
        // The block's record and on a new device that of its pool, in two modes.
        EXPECT_EQ(FailEachAllocation(
                      Setup, [&] { xLent = _Pitched(8, 8); }, Check),
            bKnownDevice ? 2 : 4);
        _Release(xLent, true);
    }
}

TEST_F(PoolScripted, ManyBlocksAreFoundAlsoWhenTheTablesCannotGrow)
{
    constexpr std::size_t c_nBlocks = 300;
    static bool s_bHasGrown = false; // tables never shrink, so a repetition of the test finds them large
    _Release(_Linear(1), true);
    for (const bool bGrow : {false, true})
    {
        std::vector<CCudaMemoryResource> vBlocks(c_nBlocks);
        bool bStruck = false;
        for (std::size_t nBlock = 0; nBlock < c_nBlocks; ++nBlock)
        {
            // A request allocates its record; what it allocates beyond is room in the tables.
            const CAllocationFault xFault(bGrow ? 1000 : 1, CAllocationFault::EMode::Persistent);
            vBlocks[nBlock] = _Linear(nBlock + 1);
            bStruck |= CAllocationFault::HasStruck();
        }
        EXPECT_EQ(bStruck, !bGrow && !s_bHasGrown);
        s_bHasGrown |= bGrow;
        const auto vLent = vBlocks;
        for (CCudaMemoryResource& xBlock : vBlocks)
        {
            _Release(xBlock);
        }
        for (std::size_t nBlock = c_nBlocks; nBlock-- > 0;)
        {
            vBlocks[nBlock] = _Linear(nBlock + 1);
            EXPECT_EQ(vBlocks[nBlock].m_pDevice, vLent[nBlock].m_pDevice);
        }
        for (CCudaMemoryResource& xBlock : vBlocks)
        {
            _Release(xBlock, true);
        }
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
        _Release(_Linear(nRound + 1), true);
        if (nRound == c_nRounds)
        {
            nBefore = _HostBytes();
        }
    }
    EXPECT_LT(_HostBytes(), nBefore + c_nRounds * 8);
}

TEST_F(PoolScripted, ABlockThatIsBeingFreedIsNotLentAndThePoolIsNotLockedMeanwhile)
{
    const struct
    {
        const char* pcName;
        bool bIdle;
        std::function<void(CResource&)> Free;
    } c_vCases[] = {
        {"trim", true, [](CResource&) { CResourceManager::Trim(0); }},
        {"room for another block", true, [](CResource&) { _Release(_Pitched(17, 16)); }},
        {"flag", false, [](CResource& xBlock) { _Release(xBlock, true); }},
    };
    for (const auto& xCase : c_vCases)
    {
        SCOPED_TRACE(xCase.pcName);
        NextDevice();
        CResourceManager::SetIdleLimit(16 * c_nRow);
        CCudaMemoryPitchResource xBlock = _Pitched(16, 16);
        const std::size_t nAddress = _Address(xBlock);
        if (xCase.bIdle)
        {
            _Release(xBlock);
        }
        // Requests, inside the free, what the freed block would answer.
        static CCudaMemoryPitchResource s_xMeanwhile;
        s_xMeanwhile = {};
        CScriptedRuntime::sm_pOnFree = [] { s_xMeanwhile = _Pitched(16, 16); };
        xCase.Free(xBlock);
        ASSERT_NE(s_xMeanwhile.m_pDevice, nullptr);
        EXPECT_NE(_Address(s_xMeanwhile), nAddress);
        _Release(s_xMeanwhile);
    }
}

TEST_F(PoolScripted, ABlockAtTheAddressOfAForgottenOneIsLentByOneHolderAtATime)
{
    // The same address is lent to two holders that are forgotten, then to a third.
    constexpr std::size_t c_nReused = 0xABC000;
    std::vector<CCudaMemoryResource> vHolders;
    for (int iHolder = 0; iHolder < 3; ++iHolder)
    {
        CScriptedRuntime::sm_nNextAddress = c_nReused;
        vHolders.push_back(_Linear(64));
        EXPECT_EQ(Statistics().nBlocksInUse, 1U);
        if (iHolder < 2)
        {
            ASSERT_EQ(cudaFree(vHolders.back().m_pDevice), cudaSuccess);
            CResourceManager::ForgetDevice(m_iDevice);
            EXPECT_EQ(Statistics().nBytesInUse, 0U);
        }
    }
    CCudaMemoryResource xStale = vHolders[0];
    for (CCudaMemoryResource& xHolder : vHolders)
    {
        CCudaMemoryResource xOther = _Linear(64);
        EXPECT_NE(_Address(xOther), c_nReused) << "lent while a holder may use it";
        _Release(xOther, true);
        _Release(xHolder);
        EXPECT_EQ(xHolder.m_pDevice, nullptr);
    }
    CCudaMemoryResource xNext = _Linear(64);
    EXPECT_EQ(_Address(xNext), c_nReused);
    _Release(xNext);
    EXPECT_THROW(_Release(xStale), CQxException) << "all holders have given the block back";
}

TEST_F(PoolScripted, RecordsOfMemoryThatTheRuntimeHandsOutAnewAreReplaced)
{
    // A device reset that the pool was not told of: one record lent, one idle, both addresses come again.
    CCudaMemoryResource xLent = _Linear(64);
    CCudaMemoryResource xIdle = _Linear(128);
    const CCudaMemoryResource vGone[] = {xLent, xIdle};
    _Release(xIdle);
    std::vector<CCudaMemoryResource> vNew;
    for (const CCudaMemoryResource& xGone : vGone)
    {
        ASSERT_EQ(cudaFree(xGone.m_pDevice), cudaSuccess);
        CScriptedRuntime::sm_nNextAddress = _Address(xGone);
        vNew.push_back(_Linear(256));
        EXPECT_EQ(vNew.back().m_pDevice, xGone.m_pDevice);
    }
    EXPECT_EQ(Statistics().nBytesInUse, 512U);
    EXPECT_EQ(Statistics().nBytesIdle, 0U);
    _Release(vNew[0]);
    EXPECT_EQ(Statistics().nBytesInUse, 512U) << "its old holder has not given it back";
    _Release(vNew[1]);
    EXPECT_EQ(Statistics().nBytesInUse, 256U);
    _Release(xLent);
    EXPECT_EQ(Statistics().nBytesIdle, 512U);
}

} // namespace

} // namespace Qx::Test
