#include "ScriptedRuntime.h"

#include <cstdlib>
#include <iterator>
#include <utility>

#include "Qx.Core/QxFormat.h"

namespace Qx::Test
{

int CScriptedRuntime::sm_iDevice = 0;
int CScriptedRuntime::sm_iConcurrentManagedAccess = 1;
int CScriptedRuntime::sm_iIntegrated = 0;
std::size_t CScriptedRuntime::sm_nTotalMemory = 0;
std::size_t CScriptedRuntime::sm_nNextAddress = 0x1000;
std::size_t CScriptedRuntime::sm_nPitch = 0;
void (*CScriptedRuntime::sm_pOnCall)() = nullptr;
bool CScriptedRuntime::sm_bHasFailed = false;
cudaError_t CScriptedRuntime::sm_eLastError = cudaSuccess;

namespace
{

struct SCall
{
    const char* pcName;
    std::size_t nAddress;
};

struct SLive
{
    std::size_t nAddress; // 0: free entry
    bool bHost;
};

SCall g_vCalls[4096];
std::size_t g_nCalls = 0;
SLive g_vLive[1024];
int g_iFailAfter = 0;
bool g_bPersistent = false;
cudaError_t g_eFail = cudaSuccess;

cudaError_t _Fail(cudaError_t eError)
{
    CScriptedRuntime::sm_eLastError = eError;
    return eError;
}

cudaError_t _Call(const char* pcName, std::size_t nAddress = 0)
{
    if (g_nCalls == std::size(g_vCalls))
    {
        std::abort();
    }
    g_vCalls[g_nCalls++] = {pcName, nAddress};
    if (const auto pOnCall = std::exchange(CScriptedRuntime::sm_pOnCall, nullptr))
    {
        pOnCall();
    }
    if (g_iFailAfter == 0 || --g_iFailAfter > 0)
    {
        return cudaSuccess;
    }
    g_iFailAfter = g_bPersistent ? 1 : 0;
    CScriptedRuntime::sm_bHasFailed = true;
    return _Fail(g_eFail);
}

SLive& _Entry(std::size_t nAddress)
{
    for (SLive& xLive : g_vLive)
    {
        if (xLive.nAddress == nAddress)
        {
            return xLive;
        }
    }
    static SLive s_xNone;
    s_xNone = {0, false};
    return s_xNone;
}

cudaError_t _Allocate(const char* pcName, void** ppBlock, bool bHost)
{
    if (const cudaError_t eError = _Call(pcName))
    {
        return eError;
    }
    const std::size_t nAddress = CScriptedRuntime::sm_nNextAddress;
    CScriptedRuntime::sm_nNextAddress += 0x1000;
    _Entry(0) = {nAddress, bHost};
    *ppBlock = CScriptedRuntime::Pointer(nAddress);
    return cudaSuccess;
}

cudaError_t _Free(const char* pcName, void* pBlock, bool bHost)
{
    const auto nAddress = reinterpret_cast<std::size_t>(pBlock);
    if (const cudaError_t eError = _Call(pcName, nAddress))
    {
        return eError;
    }
    SLive& xLive = _Entry(nAddress);
    if (xLive.nAddress == 0 || xLive.bHost != bHost)
    {
        return _Fail(cudaErrorInvalidValue);
    }
    xLive.nAddress = 0;
    return cudaSuccess;
}

} // namespace

void CScriptedRuntime::Reset(int iDevice)
{
    sm_iDevice = iDevice;
    sm_iConcurrentManagedAccess = 1;
    sm_iIntegrated = 0;
    sm_nTotalMemory = std::size_t{1} << 40;
    sm_nPitch = 0;
    sm_pOnCall = nullptr;
    sm_bHasFailed = false;
    sm_eLastError = cudaSuccess;
    g_nCalls = 0;
    g_iFailAfter = 0;
}

void CScriptedRuntime::FailCall(int iNth, cudaError_t eError, bool bPersistent)
{
    g_iFailAfter = iNth;
    g_eFail = eError;
    g_bPersistent = bPersistent;
    sm_bHasFailed = false;
}

std::vector<std::string> CScriptedRuntime::Calls()
{
    std::vector<std::string> vCalls;
    for (std::size_t nCall = 0; nCall < g_nCalls; ++nCall)
    {
        char acAddress[32] = "";
        if (g_vCalls[nCall].nAddress != 0)
        {
            Qx::sprintf_s(acAddress, " %zx", g_vCalls[nCall].nAddress);
        }
        vCalls.push_back(std::string(g_vCalls[nCall].pcName) + acAddress);
    }
    return vCalls;
}

std::size_t CScriptedRuntime::LiveBlocks()
{
    std::size_t nBlocks = 0;
    for (const SLive& xLive : g_vLive)
    {
        nBlocks += xLive.nAddress != 0 ? 1 : 0;
    }
    return nBlocks;
}

} // namespace Qx::Test

// The definitions that the libraries find instead of the runtime's.
#pragma GCC visibility push(default)
extern "C"
{
    using Qx::Test::CScriptedRuntime;

    cudaError_t cudaGetDevice(int* piDevice)
    {
        const cudaError_t eError = Qx::Test::_Call("cudaGetDevice");
        if (eError == cudaSuccess)
        {
            *piDevice = CScriptedRuntime::sm_iDevice;
        }
        return eError;
    }

    cudaError_t cudaSetDevice(int iDevice)
    {
        CScriptedRuntime::sm_iDevice = iDevice;
        return Qx::Test::_Call("cudaSetDevice");
    }

    cudaError_t cudaGetLastError()
    {
        return std::exchange(CScriptedRuntime::sm_eLastError, cudaSuccess);
    }

    cudaError_t cudaDeviceGetAttribute(int* piValue, cudaDeviceAttr eAttribute, int)
    {
        const cudaError_t eError = Qx::Test::_Call("cudaDeviceGetAttribute");
        if (eError == cudaSuccess)
        {
            *piValue = eAttribute == cudaDevAttrIntegrated ? CScriptedRuntime::sm_iIntegrated
                                                           : CScriptedRuntime::sm_iConcurrentManagedAccess;
        }
        return eError;
    }

    cudaError_t cudaMemGetInfo(std::size_t* pnFree, std::size_t* pnTotal)
    {
        const cudaError_t eError = Qx::Test::_Call("cudaMemGetInfo");
        if (eError == cudaSuccess)
        {
            *pnFree = 0;
            *pnTotal = CScriptedRuntime::sm_nTotalMemory;
        }
        return eError;
    }

    cudaError_t cudaMallocPitch(void** ppBlock, std::size_t* pnPitch, std::size_t nWidth, std::size_t)
    {
        const cudaError_t eError = Qx::Test::_Allocate("cudaMallocPitch", ppBlock, false);
        if (eError == cudaSuccess)
        {
            constexpr std::size_t c_nUnit = CScriptedRuntime::c_nPitchUnit;
            *pnPitch = CScriptedRuntime::sm_nPitch != 0 ? CScriptedRuntime::sm_nPitch
                                                        : (nWidth + c_nUnit - 1) / c_nUnit * c_nUnit;
        }
        return eError;
    }

    cudaError_t cudaMallocManaged(void** ppBlock, std::size_t, unsigned int uFlags)
    {
        return uFlags == cudaMemAttachGlobal ? Qx::Test::_Allocate("cudaMallocManaged", ppBlock, false)
                                             : Qx::Test::_Fail(cudaErrorInvalidValue);
    }

    cudaError_t cudaHostAlloc(void** ppBlock, std::size_t, unsigned int uFlags)
    {
        return uFlags == cudaHostAllocMapped || uFlags == cudaHostAllocPortable
                   ? Qx::Test::_Allocate("cudaHostAlloc", ppBlock, true)
                   : Qx::Test::_Fail(cudaErrorInvalidValue);
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
