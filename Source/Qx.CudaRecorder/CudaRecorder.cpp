#include "Qx.CudaRecorder/CudaRecorder.h"

#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <initializer_list>
#include <mutex>
#include <set>
#include <stdexcept>
#include <type_traits>

namespace Qx::Test
{

namespace
{

struct SState
{
    std::mutex xMutex;
    std::vector<SCudaCall> vCalls;
    std::set<const void*> vLive;
    std::string sFailName; // empty: any call
    int iFailAfter = 0;    // 0: no failure planned
    bool bPersistent = false;
    bool bPaused = false;
    bool bHasFailed = false;
    cudaError_t eFail = cudaSuccess;
};

// Never destroyed: libraries may make calls while the process exits.
SState& _State()
{
    static SState* const s_pState = new SState;
    return *s_pState;
}

std::atomic<std::size_t> g_nRowPadding = 0;

// The injected error that stands in front of the runtime's own last error.
thread_local cudaError_t t_ePending = cudaSuccess;

template <typename TFunction>
TFunction* _Next(const char* pcName)
{
    void* const pFunction = dlsym(RTLD_NEXT, pcName);
    if (pFunction == nullptr)
    {
        std::abort();
    }
    return reinterpret_cast<TFunction*>(pFunction);
}

template <typename T>
std::uint64_t _Value(T xArgument)
{
    if constexpr (std::is_pointer_v<T>)
    {
        return reinterpret_cast<std::uintptr_t>(xArgument);
    }
    else
    {
        return static_cast<std::uint64_t>(xArgument);
    }
}

bool _ShouldFail(const char* pcName, cudaError_t& eError)
{
    SState& xState = _State();
    if (xState.bPaused || xState.iFailAfter == 0 || (!xState.sFailName.empty() && xState.sFailName != pcName))
    {
        return false;
    }
    if (xState.iFailAfter > 1)
    {
        --xState.iFailAfter;
        return false;
    }
    xState.bHasFailed = true;
    eError = xState.eFail;
    if (!xState.bPersistent)
    {
        xState.iFailAfter = 0;
    }
    return true;
}

void _Append(const char* pcName, std::initializer_list<std::uint64_t> vArguments, cudaError_t eResult)
{
    SState& xState = _State();
    const std::lock_guard xLock(xState.xMutex);
    if (!xState.bPaused)
    {
        xState.vCalls.push_back({pcName, vArguments, eResult});
    }
}

template <typename TReal, typename... TArguments>
cudaError_t _Record(const char* pcName, TReal* pReal, TArguments... xArguments)
{
    SState& xState = _State();
    cudaError_t eResult = cudaSuccess;
    bool bFail = false;
    {
        const std::lock_guard xLock(xState.xMutex);
        bFail = _ShouldFail(pcName, eResult);
    }
    if (bFail)
    {
        static auto* const s_pGetLastError = _Next<decltype(cudaGetLastError)>("cudaGetLastError");
        s_pGetLastError();
        t_ePending = eResult;
    }
    else
    {
        eResult = pReal(xArguments...);
        if (eResult != cudaSuccess && eResult != cudaErrorNotReady)
        {
            t_ePending = cudaSuccess;
        }
    }
    _Append(pcName, {_Value(xArguments)...}, eResult);
    return eResult;
}

template <typename TReal, typename... TArguments>
cublasStatus_t _RecordBlas(const char* pcName, TReal&& xReal, TArguments... xArguments)
{
    SState& xState = _State();
    cudaError_t eResult = cudaSuccess;
    bool bFail = false;
    {
        const std::lock_guard xLock(xState.xMutex);
        bFail = _ShouldFail(pcName, eResult);
    }
    const cublasStatus_t eStatus = bFail ? CUBLAS_STATUS_EXECUTION_FAILED : xReal();
    _Append(pcName, {_Value(xArguments)...}, eStatus == CUBLAS_STATUS_SUCCESS ? cudaSuccess : cudaErrorUnknown);
    return eStatus;
}

cudaError_t _Track(cudaError_t eResult, const void* const* ppBlock)
{
    if (eResult == cudaSuccess && *ppBlock != nullptr)
    {
        SState& xState = _State();
        const std::lock_guard xLock(xState.xMutex);
        xState.vLive.insert(*ppBlock);
    }
    return eResult;
}

// Forgotten before the call, because another thread may be given the address as soon as it is free.
template <typename TFree>
cudaError_t _Untrack(const void* pBlock, TFree&& xFree)
{
    SState& xState = _State();
    bool bKnown = false;
    {
        const std::lock_guard xLock(xState.xMutex);
        bKnown = xState.vLive.erase(pBlock) != 0;
    }
    const cudaError_t eResult = xFree();
    if (eResult != cudaSuccess && bKnown)
    {
        const std::lock_guard xLock(xState.xMutex);
        xState.vLive.insert(pBlock);
    }
    return eResult;
}

} // namespace

void CCudaRecorder::PadRows(std::size_t nBytes)
{
    g_nRowPadding = nBytes;
}

void CCudaRecorder::Reset()
{
    SState& xState = _State();
    const std::lock_guard xLock(xState.xMutex);
    xState.vCalls.clear();
    xState.iFailAfter = 0;
    xState.bPaused = false;
    xState.bHasFailed = false;
}

void CCudaRecorder::Pause()
{
    SState& xState = _State();
    const std::lock_guard xLock(xState.xMutex);
    xState.bPaused = true;
}

std::vector<SCudaCall> CCudaRecorder::Calls()
{
    SState& xState = _State();
    const std::lock_guard xLock(xState.xMutex);
    return xState.vCalls;
}

std::vector<std::string> CCudaRecorder::CallNames()
{
    std::vector<std::string> vNames;
    for (const SCudaCall& xCall : Calls())
    {
        vNames.push_back(xCall.sName);
    }
    return vNames;
}

std::size_t CCudaRecorder::Count(const char* pcName)
{
    const auto vNames = CallNames();
    return static_cast<std::size_t>(std::count(vNames.begin(), vNames.end(), pcName));
}

SCudaCall CCudaRecorder::Last(const char* pcName)
{
    const auto vCalls = Calls();
    const auto xFound =
        std::find_if(vCalls.rbegin(), vCalls.rend(), [&](const SCudaCall& xCall) { return xCall.sName == pcName; });
    if (xFound == vCalls.rend())
    {
        throw std::out_of_range("no call of " + std::string(pcName) + " was recorded");
    }
    return *xFound;
}

void CCudaRecorder::FailCall(int iNth, cudaError_t eError, bool bPersistent)
{
    FailCall("", iNth, eError, bPersistent);
}

void CCudaRecorder::FailCall(const char* pcName, int iNth, cudaError_t eError, bool bPersistent)
{
    SState& xState = _State();
    const std::lock_guard xLock(xState.xMutex);
    xState.sFailName = pcName;
    xState.iFailAfter = iNth;
    xState.eFail = eError;
    xState.bPersistent = bPersistent;
    xState.bHasFailed = false;
}

bool CCudaRecorder::HasFailed()
{
    SState& xState = _State();
    const std::lock_guard xLock(xState.xMutex);
    return xState.bHasFailed;
}

void CCudaRecorder::ClearFailure()
{
    SState& xState = _State();
    const std::lock_guard xLock(xState.xMutex);
    xState.iFailAfter = 0;
}

std::size_t CCudaRecorder::LiveAllocations()
{
    SState& xState = _State();
    const std::lock_guard xLock(xState.xMutex);
    return xState.vLive.size();
}

bool DeviceAnswers()
{
    static const bool s_bAnswers = []
    {
        int iCount = 0;
        const bool bFound = cudaGetDeviceCount(&iCount) == cudaSuccess && iCount > 0;
        static_cast<void>(cudaGetLastError());
        return bFound;
    }();
    return s_bAnswers;
}

} // namespace Qx::Test

// The definitions that the libraries find instead of the runtime's.
#pragma GCC visibility push(default)
extern "C"
{
#define QX_RECORD(name, parameters, ...)                                                                               \
    cudaError_t name parameters                                                                                        \
    {                                                                                                                  \
        static auto* const s_pReal = Qx::Test::_Next<decltype(name)>(#name);                                           \
        return Qx::Test::_Record(#name, s_pReal __VA_OPT__(, ) __VA_ARGS__);                                           \
    }
#define QX_RECORD_ALLOCATION(name, parameters, block, ...)                                                             \
    cudaError_t name parameters                                                                                        \
    {                                                                                                                  \
        static auto* const s_pReal = Qx::Test::_Next<decltype(name)>(#name);                                           \
        return Qx::Test::_Track(                                                                                       \
            Qx::Test::_Record(#name, s_pReal, __VA_ARGS__), reinterpret_cast<const void* const*>(block));              \
    }
#define QX_RECORD_FREE(name, parameters, block)                                                                        \
    cudaError_t name parameters                                                                                        \
    {                                                                                                                  \
        static auto* const s_pReal = Qx::Test::_Next<decltype(name)>(#name);                                           \
        return Qx::Test::_Untrack(block, [&] { return Qx::Test::_Record(#name, s_pReal, block); });                    \
    }

    QX_RECORD(cudaGetDevice, (int* piDevice), piDevice)
    QX_RECORD(cudaSetDevice, (int iDevice), iDevice)
    QX_RECORD(cudaDeviceSynchronize, ())
    QX_RECORD(cudaMemGetInfo, (std::size_t * pnFree, std::size_t* pnTotal), pnFree, pnTotal)
    QX_RECORD(
        cudaDeviceGetAttribute, (int* piValue, cudaDeviceAttr eAttribute, int iDevice), piValue, eAttribute, iDevice)

    QX_RECORD_ALLOCATION(cudaMalloc, (void** ppBlock, std::size_t nSize), ppBlock, ppBlock, nSize)
    QX_RECORD_ALLOCATION(cudaMallocPitch,
        (void** ppBlock, std::size_t* pnPitch, std::size_t nWidth, std::size_t nHeight), ppBlock, ppBlock, pnPitch,
        nWidth + Qx::Test::g_nRowPadding, nHeight)
    QX_RECORD_ALLOCATION(
        cudaMallocManaged, (void** ppBlock, std::size_t nSize, unsigned int uFlags), ppBlock, ppBlock, nSize, uFlags)
    QX_RECORD_ALLOCATION(
        cudaHostAlloc, (void** ppBlock, std::size_t nSize, unsigned int uFlags), ppBlock, ppBlock, nSize, uFlags)
    QX_RECORD_ALLOCATION(cudaMallocArray,
        (cudaArray_t * ppBlock, const cudaChannelFormatDesc* pDescriptor, std::size_t nWidth, std::size_t nHeight,
            unsigned int uFlags),
        ppBlock, ppBlock, pDescriptor, nWidth, nHeight, uFlags)
    QX_RECORD_FREE(cudaFree, (void* pBlock), pBlock)
    QX_RECORD_FREE(cudaFreeHost, (void* pBlock), pBlock)
    QX_RECORD_FREE(cudaFreeArray, (cudaArray_t pBlock), pBlock)

    QX_RECORD(cudaMemcpy, (void* pTarget, const void* pSource, std::size_t nCount, cudaMemcpyKind eKind), pTarget,
        pSource, nCount, eKind)
    QX_RECORD(cudaMemcpyAsync,
        (void* pTarget, const void* pSource, std::size_t nCount, cudaMemcpyKind eKind, cudaStream_t pStream), pTarget,
        pSource, nCount, eKind, pStream)
    QX_RECORD(cudaMemcpy2D,
        (void* pTarget, std::size_t nTargetPitch, const void* pSource, std::size_t nSourcePitch, std::size_t nWidth,
            std::size_t nHeight, cudaMemcpyKind eKind),
        pTarget, nTargetPitch, pSource, nSourcePitch, nWidth, nHeight, eKind)
    QX_RECORD(cudaMemcpy2DAsync,
        (void* pTarget, std::size_t nTargetPitch, const void* pSource, std::size_t nSourcePitch, std::size_t nWidth,
            std::size_t nHeight, cudaMemcpyKind eKind, cudaStream_t pStream),
        pTarget, nTargetPitch, pSource, nSourcePitch, nWidth, nHeight, eKind, pStream)
    QX_RECORD(cudaMemcpyToSymbolAsync,
        (const void* pSymbol, const void* pSource, std::size_t nCount, std::size_t nOffset, cudaMemcpyKind eKind,
            cudaStream_t pStream),
        pSymbol, pSource, nCount, nOffset, eKind, pStream)
    QX_RECORD(cudaMemset, (void* pTarget, int iValue, std::size_t nCount), pTarget, iValue, nCount)
    QX_RECORD(cudaMemsetAsync, (void* pTarget, int iValue, std::size_t nCount, cudaStream_t pStream), pTarget, iValue,
        nCount, pStream)
    QX_RECORD(cudaMemset2D, (void* pTarget, std::size_t nPitch, int iValue, std::size_t nWidth, std::size_t nHeight),
        pTarget, nPitch, iValue, nWidth, nHeight)
    QX_RECORD(cudaMemset2DAsync,
        (void* pTarget, std::size_t nPitch, int iValue, std::size_t nWidth, std::size_t nHeight, cudaStream_t pStream),
        pTarget, nPitch, iValue, nWidth, nHeight, pStream)

    QX_RECORD(cudaEventCreateWithFlags, (cudaEvent_t * ppEvent, unsigned int uFlags), ppEvent, uFlags)
    QX_RECORD(cudaEventDestroy, (cudaEvent_t pEvent), pEvent)
    QX_RECORD(cudaEventRecord, (cudaEvent_t pEvent, cudaStream_t pStream), pEvent, pStream)
    QX_RECORD(cudaEventSynchronize, (cudaEvent_t pEvent), pEvent)
    QX_RECORD(cudaStreamSynchronize, (cudaStream_t pStream), pStream)

#define QX_RECORD_BLAS(name, parameters, arguments, ...)                                                               \
    cublasStatus_t name parameters                                                                                     \
    {                                                                                                                  \
        static auto* const s_pReal = Qx::Test::_Next<decltype(name)>(#name);                                           \
        return Qx::Test::_RecordBlas(                                                                                  \
            #name, [&] { return s_pReal arguments; }, __VA_ARGS__);                                                    \
    }
// NOLINTBEGIN(bugprone-macro-parentheses): a type does not stand in parentheses
#define QX_RECORD_BLAS_TYPE(type, gemv, syrk, asum)                                                                    \
    QX_RECORD_BLAS(gemv,                                                                                               \
        (cublasHandle_t hHandle, cublasOperation_t eTrans, int iRows, int iCols, const type* pAlpha, const type* pA,   \
            int iLda, const type* pX, int iIncX, const type* pBeta, type* pY, int iIncY),                              \
        (hHandle, eTrans, iRows, iCols, pAlpha, pA, iLda, pX, iIncX, pBeta, pY, iIncY), hHandle, eTrans, iRows, iCols, \
        *pAlpha, pA, iLda, pX, iIncX, *pBeta, pY, iIncY)                                                               \
    QX_RECORD_BLAS(syrk,                                                                                               \
        (cublasHandle_t hHandle, cublasFillMode_t eFill, cublasOperation_t eTrans, int iOrder, int iInner,             \
            const type* pAlpha, const type* pA, int iLda, const type* pBeta, type* pC, int iLdc),                      \
        (hHandle, eFill, eTrans, iOrder, iInner, pAlpha, pA, iLda, pBeta, pC, iLdc), hHandle, eFill, eTrans, iOrder,   \
        iInner, *pAlpha, pA, iLda, *pBeta, pC, iLdc)                                                                   \
    QX_RECORD_BLAS(asum, (cublasHandle_t hHandle, int iCount, const type* pX, int iIncX, type* pResult),               \
        (hHandle, iCount, pX, iIncX, pResult), hHandle, iCount, pX, iIncX, pResult)
    // NOLINTEND(bugprone-macro-parentheses)
    QX_RECORD_BLAS_TYPE(float, cublasSgemv_v2, cublasSsyrk_v2, cublasSasum_v2)
    QX_RECORD_BLAS_TYPE(double, cublasDgemv_v2, cublasDsyrk_v2, cublasDasum_v2)

    // The device's blocks are gone with it.
    cudaError_t cudaDeviceReset()
    {
        static auto* const s_pReal = Qx::Test::_Next<decltype(cudaDeviceReset)>("cudaDeviceReset");
        {
            const std::lock_guard xLock(Qx::Test::_State().xMutex);
            Qx::Test::_State().vLive.clear();
        }
        return Qx::Test::_Record("cudaDeviceReset", s_pReal);
    }

    // Not failed and never forwarded through the recorder's own failure path: they serve the failure.
    cudaError_t cudaGetLastError()
    {
        static auto* const s_pReal = Qx::Test::_Next<decltype(cudaGetLastError)>("cudaGetLastError");
        const cudaError_t eReal = s_pReal();
        const cudaError_t eResult = Qx::Test::t_ePending != cudaSuccess ? Qx::Test::t_ePending : eReal;
        Qx::Test::t_ePending = cudaSuccess;
        Qx::Test::_Append("cudaGetLastError", {}, eResult);
        return eResult;
    }

    cudaError_t cudaPeekAtLastError()
    {
        static auto* const s_pReal = Qx::Test::_Next<decltype(cudaPeekAtLastError)>("cudaPeekAtLastError");
        return Qx::Test::t_ePending != cudaSuccess ? Qx::Test::t_ePending : s_pReal();
    }

    const char* cudaGetErrorName(cudaError_t eError)
    {
        static auto* const s_pReal = Qx::Test::_Next<decltype(cudaGetErrorName)>("cudaGetErrorName");
        Qx::Test::_Append("cudaGetErrorName", {static_cast<std::uint64_t>(eError)}, cudaSuccess);
        return s_pReal(eError);
    }

    const char* cudaGetErrorString(cudaError_t eError)
    {
        static auto* const s_pReal = Qx::Test::_Next<decltype(cudaGetErrorString)>("cudaGetErrorString");
        Qx::Test::_Append("cudaGetErrorString", {static_cast<std::uint64_t>(eError)}, cudaSuccess);
        return s_pReal(eError);
    }
}
#pragma GCC visibility pop
