#include "ScriptedRuntime.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <span>
#include <string_view>
#include <utility>

#include "Qx.Core/QxFormat.h"

namespace Qx::Test
{

namespace
{

struct SCall
{
    const char* pcName;
    const void* pBlock; // of a free
    bool bFreed;
};

struct SLive
{
    const void* pBlock; // null: free entry
    bool bHost;
    std::size_t nBytes;
    bool bIdle;
};

SCall g_vCalls[4096];
std::size_t g_nCalls = 0;
SLive g_vLive[1024];
const char* g_pcFail = nullptr; // null: any call
int g_iFailAfter = 0;
bool g_bPersistent = false;
cudaError_t g_eFail = cudaSuccess;

cudaError_t _Fail(cudaError_t eError)
{
    CScriptedRuntime::sm_eLastError = eError;
    return eError;
}

cudaError_t _Call(const char* pcName, const void* pBlock = nullptr)
{
    if (g_nCalls == std::size(g_vCalls))
    {
        std::abort();
    }
    g_vCalls[g_nCalls++] = {pcName, pBlock, false};
    const bool bMayFail = g_pcFail == nullptr || std::string_view(g_pcFail) == pcName;
    if (!bMayFail || g_iFailAfter == 0 || --g_iFailAfter > 0)
    {
        const bool bIsAboutMemory = !std::string_view(pcName).ends_with("Device");
        return bIsAboutMemory && CScriptedRuntime::sm_iDevice == CScriptedRuntime::sm_iFaultyDevice
            ? _Fail(cudaErrorIllegalAddress)
            : cudaSuccess;
    }
    g_iFailAfter = g_bPersistent ? 1 : 0;
    CScriptedRuntime::sm_bHasFailed = true;
    return _Fail(g_eFail);
}

template <typename T>
cudaError_t _Answer(const char* pcName, T& xResult, T xValue)
{
    const cudaError_t eError = _Call(pcName);
    if (eError == cudaSuccess)
    {
        xResult = xValue;
    }
    return eError;
}

SLive* _Entry(const void* pBlock)
{
    return std::find_if(std::begin(g_vLive), std::end(g_vLive), [&](const SLive& x) { return x.pBlock == pBlock; });
}

cudaError_t _Allocate(const char* pcName, void** ppBlock, std::size_t nBytes, bool bHost)
{
    if (const cudaError_t eError = _Call(pcName))
    {
        return eError;
    }
    std::size_t nShared = nBytes;
    for (const SLive& xLive : g_vLive)
    {
        nShared += xLive.pBlock != nullptr ? xLive.nBytes : 0;
    }
    if (nBytes > CScriptedRuntime::sm_nTotalMemory || nShared > CScriptedRuntime::sm_nSharedMemory)
    {
        return _Fail(cudaErrorMemoryAllocation);
    }
    // NOLINTNEXTLINE(performance-no-int-to-ptr): no memory stands behind the address
    *ppBlock = reinterpret_cast<void*>(
        std::exchange(CScriptedRuntime::sm_nNextAddress, CScriptedRuntime::sm_nNextAddress + 0x1000));
    *_Entry(nullptr) = {*ppBlock, bHost, nBytes, false};
    return cudaSuccess;
}

cudaError_t _Free(const char* pcName, const void* pBlock, bool bHost)
{
    SCall& xCall = g_vCalls[g_nCalls];
    if (const cudaError_t eError = _Call(pcName, pBlock))
    {
        return eError;
    }
    SLive* const pLive = _Entry(pBlock);
    if (pBlock == nullptr || pLive == std::end(g_vLive) || pLive->bHost != bHost)
    {
        return _Fail(cudaErrorInvalidValue);
    }
    if (const auto pOnFree = std::exchange(CScriptedRuntime::sm_pOnFree, nullptr))
    {
        pOnFree();
    }
    pLive->pBlock = nullptr;
    xCall.bFreed = true;
    return cudaSuccess;
}

// What the pool tells of live memory must be new.
void _MarkIdle(void* pBlock, bool bIdle) noexcept
{
    SLive* const pLive = _Entry(pBlock);
    if (pLive != std::end(g_vLive) && std::exchange(pLive->bIdle, bIdle) == bIdle)
    {
        std::abort();
    }
}

} // namespace

void CScriptedRuntime::Reset(int iDevice)
{
    sm_iDevice = iDevice;
    sm_iFaultyDevice = -1;
    sm_iConcurrentManagedAccess = 1;
    sm_iIntegrated = 0;
    sm_nTotalMemory = std::size_t{1} << 40;
    sm_nSharedMemory = std::size_t{1} << 50;
    sm_nPitch = 0;
    sm_pOnFree = nullptr;
    sm_bHasFailed = false;
    sm_eLastError = cudaSuccess;
    g_nCalls = 0;
    g_iFailAfter = 0;
}

void CScriptedRuntime::FailCall(int iNth, cudaError_t eError, bool bPersistent, const char* pcName)
{
    g_pcFail = pcName;
    g_iFailAfter = iNth;
    g_eFail = eError;
    g_bPersistent = bPersistent;
    sm_bHasFailed = false;
}

std::vector<std::string> CScriptedRuntime::Calls()
{
    std::vector<std::string> vCalls;
    for (const SCall& xCall : std::span(g_vCalls, g_nCalls))
    {
        vCalls.push_back(xCall.pcName);
        if (xCall.pBlock != nullptr)
        {
            char acBlock[32];
            sprintf_s(acBlock, " %p", xCall.pBlock);
            vCalls.back() += acBlock;
        }
    }
    return vCalls;
}

std::vector<const void*> CScriptedRuntime::Freed()
{
    std::vector<const void*> vBlocks;
    for (const SCall& xCall : std::span(g_vCalls, g_nCalls))
    {
        if (xCall.bFreed)
        {
            vBlocks.push_back(xCall.pBlock);
        }
    }
    return vBlocks;
}

std::size_t CScriptedRuntime::LiveBlocks()
{
    return static_cast<std::size_t>(
        std::count_if(std::begin(g_vLive), std::end(g_vLive), [](const SLive& x) { return x.pBlock != nullptr; }));
}

std::size_t CScriptedRuntime::IdleBlocks()
{
    return static_cast<std::size_t>(std::count_if(
        std::begin(g_vLive), std::end(g_vLive), [](const SLive& x) { return x.pBlock != nullptr && x.bIdle; }));
}

} // namespace Qx::Test

// The definitions that the libraries find instead of the runtime's.
#pragma GCC visibility push(default)
Qx::HostCuda::IdleMarker Qx::HostCuda::GetIdleMarker() noexcept
{
    return Test::_MarkIdle;
}

extern "C"
{
    using Qx::Test::CScriptedRuntime;

    cudaError_t cudaGetDevice(int* piDevice)
    {
        return Qx::Test::_Answer("cudaGetDevice", *piDevice, CScriptedRuntime::sm_iDevice);
    }

    cudaError_t cudaSetDevice(int iDevice)
    {
        return Qx::Test::_Answer("cudaSetDevice", CScriptedRuntime::sm_iDevice, iDevice);
    }

    cudaError_t cudaGetLastError()
    {
        return std::exchange(CScriptedRuntime::sm_eLastError, cudaSuccess);
    }

    cudaError_t cudaDeviceGetAttribute(int* piValue, cudaDeviceAttr eAttribute, int)
    {
        return Qx::Test::_Answer("cudaDeviceGetAttribute", *piValue,
            eAttribute == cudaDevAttrIntegrated ? CScriptedRuntime::sm_iIntegrated
                                                : CScriptedRuntime::sm_iConcurrentManagedAccess);
    }

    cudaError_t cudaMemGetInfo(std::size_t* pnFree, std::size_t* pnTotal)
    {
        *pnFree = 0;
        return Qx::Test::_Answer("cudaMemGetInfo", *pnTotal, CScriptedRuntime::sm_nTotalMemory);
    }

    cudaError_t cudaMallocPitch(void** ppBlock, std::size_t* pnPitch, std::size_t nWidth, std::size_t)
    {
        constexpr std::size_t c_nUnit = CScriptedRuntime::c_nPitchUnit;
        const std::size_t nPitch = CScriptedRuntime::sm_nPitch;
        *pnPitch = nPitch != 0 ? nPitch : (nWidth + c_nUnit - 1) / c_nUnit * c_nUnit;
        return Qx::Test::_Allocate("cudaMallocPitch", ppBlock, nWidth, false);
    }

    cudaError_t cudaMallocManaged(void** ppBlock, std::size_t nBytes, unsigned int uFlags)
    {
        return uFlags == cudaMemAttachGlobal ? Qx::Test::_Allocate("cudaMallocManaged", ppBlock, nBytes, false)
                                             : Qx::Test::_Fail(cudaErrorInvalidValue);
    }

    cudaError_t cudaHostAlloc(void** ppBlock, std::size_t nBytes, unsigned int uFlags)
    {
        if (uFlags != cudaHostAllocMapped && uFlags != cudaHostAllocPortable)
        {
            return Qx::Test::_Fail(cudaErrorInvalidValue);
        }
        const char* const pcName = uFlags == cudaHostAllocMapped ? "cudaHostAlloc mapped" : "cudaHostAlloc portable";
        return Qx::Test::_Allocate(pcName, ppBlock, nBytes, true);
    }

    cudaError_t cudaFree(void* pBlock)
    {
        return Qx::Test::_Free("cudaFree", pBlock, false);
    }

    cudaError_t cudaFreeHost(void* pBlock)
    {
        return Qx::Test::_Free("cudaFreeHost", pBlock, true);
    }
}
#pragma GCC visibility pop
