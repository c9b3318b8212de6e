#include "Qx.CudaRecorder/CudaRecorder.h"

#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <new>
#include <set>
#include <stdexcept>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

// Every call that the stand-in offers, one a row: what it does to the record, its name and how many parameters it has,
// whose types come from its declaration.
//   Plain      can be made to fail
//   Allocates  the same; its first parameter receives a block
//   Frees      the same; its first parameter is a block
//   Resets     the same; no block is left
//   Product    the same; has factors on the host
//   Asks       cannot be made to fail, since it gives no error
#define QX_CALLS(QX_ROW)                                                                                               \
    QX_ROW(Plain, cudaGetDeviceCount, 1)                                                                               \
    QX_ROW(Plain, cudaGetDevice, 1)                                                                                    \
    QX_ROW(Plain, cudaSetDevice, 1)                                                                                    \
    QX_ROW(Plain, cudaGetDeviceProperties, 2)                                                                          \
    QX_ROW(Plain, cudaDeviceGetAttribute, 3)                                                                           \
    QX_ROW(Plain, cudaDeviceSynchronize, 0)                                                                            \
    QX_ROW(Resets, cudaDeviceReset, 0)                                                                                 \
    QX_ROW(Plain, cudaMemGetInfo, 2)                                                                                   \
    QX_ROW(Plain, cudaDriverGetVersion, 1)                                                                             \
    QX_ROW(Plain, cudaRuntimeGetVersion, 1)                                                                            \
    QX_ROW(Asks, cudaGetErrorName, 1)                                                                                  \
    QX_ROW(Asks, cudaGetErrorString, 1)                                                                                \
    QX_ROW(Allocates, cudaMalloc, 2)                                                                                   \
    QX_ROW(Allocates, cudaMallocManaged, 3)                                                                            \
    QX_ROW(Allocates, cudaMallocHost, 2)                                                                               \
    QX_ROW(Allocates, cudaHostAlloc, 3)                                                                                \
    QX_ROW(Allocates, cudaMallocArray, 5)                                                                              \
    QX_ROW(Frees, cudaFree, 1)                                                                                         \
    QX_ROW(Frees, cudaFreeHost, 1)                                                                                     \
    QX_ROW(Frees, cudaFreeArray, 1)                                                                                    \
    QX_ROW(Plain, cudaHostGetDevicePointer, 3)                                                                         \
    QX_ROW(Plain, cudaPointerGetAttributes, 2)                                                                         \
    QX_ROW(Plain, cudaArrayGetInfo, 4)                                                                                 \
    QX_ROW(Asks, cudaCreateChannelDesc, 5)                                                                             \
    QX_ROW(Plain, cudaMemcpy, 4)                                                                                       \
    QX_ROW(Plain, cudaMemcpyAsync, 5)                                                                                  \
    QX_ROW(Plain, cudaMemcpy2D, 7)                                                                                     \
    QX_ROW(Plain, cudaMemcpy2DAsync, 8)                                                                                \
    QX_ROW(Plain, cudaMemcpyToSymbol, 5)                                                                               \
    QX_ROW(Plain, cudaMemcpyToSymbolAsync, 6)                                                                          \
    QX_ROW(Plain, cudaMemcpyFromSymbol, 5)                                                                             \
    QX_ROW(Plain, cudaMemcpyFromSymbolAsync, 6)                                                                        \
    QX_ROW(Plain, cudaMemset, 3)                                                                                       \
    QX_ROW(Plain, cudaMemsetAsync, 4)                                                                                  \
    QX_ROW(Plain, cudaMemset2D, 5)                                                                                     \
    QX_ROW(Plain, cudaMemset2DAsync, 6)                                                                                \
    QX_ROW(Plain, cudaStreamCreate, 1)                                                                                 \
    QX_ROW(Plain, cudaStreamCreateWithFlags, 2)                                                                        \
    QX_ROW(Plain, cudaStreamDestroy, 1)                                                                                \
    QX_ROW(Plain, cudaStreamQuery, 1)                                                                                  \
    QX_ROW(Plain, cudaStreamSynchronize, 1)                                                                            \
    QX_ROW(Plain, cudaStreamWaitEvent, 3)                                                                              \
    QX_ROW(Plain, cudaLaunchHostFunc, 3)                                                                               \
    QX_ROW(Plain, cudaEventCreate, 1)                                                                                  \
    QX_ROW(Plain, cudaEventCreateWithFlags, 2)                                                                         \
    QX_ROW(Plain, cudaEventDestroy, 1)                                                                                 \
    QX_ROW(Plain, cudaEventRecord, 2)                                                                                  \
    QX_ROW(Plain, cudaEventQuery, 1)                                                                                   \
    QX_ROW(Plain, cudaEventSynchronize, 1)                                                                             \
    QX_ROW(Plain, cudaEventElapsedTime, 3)                                                                             \
    QX_ROW(Plain, cublasCreate_v2, 1)                                                                                  \
    QX_ROW(Plain, cublasDestroy_v2, 1)                                                                                 \
    QX_ROW(Plain, cublasSetStream_v2, 2)                                                                               \
    QX_ROW(Plain, cublasGetStream_v2, 2)                                                                               \
    QX_ROW(Plain, cublasSetPointerMode_v2, 2)                                                                          \
    QX_ROW(Plain, cublasGetPointerMode_v2, 2)                                                                          \
    QX_ROW(Asks, cublasGetStatusName, 1)                                                                               \
    QX_ROW(Asks, cublasGetStatusString, 1)                                                                             \
    QX_ROW(Plain, cublasSasum_v2, 5)                                                                                   \
    QX_ROW(Plain, cublasDasum_v2, 5)                                                                                   \
    QX_ROW(Product, cublasSgemv_v2, 12)                                                                                \
    QX_ROW(Product, cublasDgemv_v2, 12)                                                                                \
    QX_ROW(Product, cublasSsyrk_v2, 11)                                                                                \
    QX_ROW(Product, cublasDsyrk_v2, 11)

// Those that are defined below, each in its own way.
#define QX_SPECIAL_CALLS(QX_ROW)                                                                                       \
    QX_ROW(Allocates, cudaMallocPitch, 4)                                                                              \
    QX_ROW(Asks, cudaGetLastError, 0)                                                                                  \
    QX_ROW(Asks, cudaPeekAtLastError, 0)                                                                               \
    QX_ROW(Plain, cudaLaunchKernel, 6)

namespace Qx::Test
{

namespace
{

enum class EKind
{
    Plain,
    Allocates,
    Frees,
    Resets,
    Product,
    Asks
};

struct SKnown
{
    std::string_view sName;
    EKind eKind;
};

#define QX_KNOWN(kind, name, count) SKnown{#name, EKind::kind},
constexpr SKnown c_vKnown[] = {QX_CALLS(QX_KNOWN) QX_SPECIAL_CALLS(QX_KNOWN)};

// The call that a name means, as sources have it: those of cuBLAS may leave out their _v2, and launches have three
// names.
const SKnown& _Find(std::string_view sName)
{
    if (sName == "cudaLaunchKernelEx" || sName == "cudaLaunchKernelExC")
    {
        sName = "cudaLaunchKernel";
    }
    for (const SKnown& xKnown : c_vKnown)
    {
        if (xKnown.sName == sName || (xKnown.sName.starts_with(sName) && xKnown.sName.substr(sName.size()) == "_v2"))
        {
            return xKnown;
        }
    }
    throw std::invalid_argument("the recorder knows no call of the name " + std::string(sName));
}

// The recorder's own memory comes from where a test does not make it scarce: tests of clients that make each allocation
// fail in turn replace the operators new.
template <typename T>
struct SAllocator
{
    using value_type = T;

    SAllocator() noexcept = default;
    template <typename TOther>
    SAllocator(const SAllocator<TOther>&) noexcept
    {
    }

    T* allocate(std::size_t nCount)
    {
        void* const pMemory = std::malloc(nCount * sizeof(T));
        return pMemory != nullptr ? static_cast<T*>(pMemory) : throw std::bad_alloc();
    }
    void deallocate(T* pMemory, std::size_t) noexcept { std::free(pMemory); }
    friend bool operator==(const SAllocator&, const SAllocator&) noexcept { return true; }
};

using TBlocks = std::set<const void*, std::less<>, SAllocator<const void*>>;

// Without memory of its own, so that noting a call takes an allocation only when the list of calls grows.
struct SNote
{
    const char* pcName = nullptr;
    std::size_t nArguments = 0;
    std::array<std::uint64_t, 12> vArguments{};
    cudaError_t eResult = cudaSuccess;
};

using TNotes = std::vector<SNote, SAllocator<SNote>>;

// Asking for it changes nothing, so tests may do so between the calls whose order they compare.
constexpr const char* c_pcPeek = "cudaPeekAtLastError";

struct SState
{
    std::mutex xMutex;
    TNotes vNotes;
    TBlocks vLive;
    const SKnown* pFail = nullptr; // null: any call
    int iFailAfter = 0;            // 0: no failure planned
    bool bPersistent = false;
    bool bPaused = false;
    bool bHasFailed = false;
    bool bCallLost = false;  // there was no memory to note a call
    bool bBlockLost = false; // likewise a block
    cudaError_t eFail = cudaSuccess;
};

// Never destroyed, since libraries may make calls while the process exits, and not allocated.
SState& _State() noexcept
{
    alignas(SState) static std::byte s_vPlace[sizeof(SState)];
    static SState* const s_pState = new (s_vPlace) SState;
    return *s_pState;
}

std::atomic<std::size_t> g_nRowPadding = 0;

// The injected error that stands in front of the runtime's own last error.
thread_local cudaError_t t_ePending = cudaSuccess;

// Whether this thread is in the runtime, whose calls of itself are not the program's.
thread_local bool t_bForwarding = false;

class CForwarding
{
public:
    CForwarding() noexcept : m_bBefore(std::exchange(t_bForwarding, true)) {}
    ~CForwarding() { t_bForwarding = m_bBefore; }
    CForwarding(const CForwarding&) = delete;
    CForwarding& operator=(const CForwarding&) = delete;

private:
    bool m_bBefore;
};

template <typename TFunction>
TFunction* _Next(const char* pcName) noexcept
{
    void* const pFunction = dlsym(RTLD_NEXT, pcName);
    if (pFunction == nullptr)
    {
        static_cast<void>(std::fprintf(
            stderr, "Qx::CudaRecorder: no library of the program has %s (link with -Wl,--no-as-needed)\n", pcName));
        std::abort();
    }
    return reinterpret_cast<TFunction*>(pFunction);
}

template <typename T>
std::uint64_t _Value(T xArgument) noexcept
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

template <typename... TArguments>
SNote _Note(const char* pcName, TArguments... xArguments) noexcept
{
    return {pcName, sizeof...(xArguments), {_Value(xArguments)...}, cudaSuccess};
}

// A factor of a product: its value where it lies on the host and is a whole number, else where it lies.
template <typename T>
void _SetFactor(SNote& xNote, cublasHandle_t hHandle, std::size_t nPosition, const T* pFactor) noexcept
{
    static auto* const s_pGetMode = _Next<decltype(cublasGetPointerMode_v2)>("cublasGetPointerMode_v2");
    const CForwarding xForwarding;
    cublasPointerMode_t eMode = CUBLAS_POINTER_MODE_DEVICE;
    if (pFactor != nullptr && s_pGetMode(hHandle, &eMode) == CUBLAS_STATUS_SUCCESS && eMode == CUBLAS_POINTER_MODE_HOST)
    {
        xNote.vArguments[nPosition] = static_cast<std::uint64_t>(std::llrint(std::trunc(*pFactor)));
    }
}

// True when a failure is planned for a call, which is used up.
bool _TakeFailure(const char* pcName, cudaError_t& eError) noexcept
{
    SState& xState = _State();
    const std::lock_guard xLock(xState.xMutex);
    if (xState.bPaused || xState.iFailAfter == 0 || (xState.pFail != nullptr && xState.pFail->sName != pcName))
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

void _Append(const SNote& xNote) noexcept
{
    SState& xState = _State();
    const std::lock_guard xLock(xState.xMutex);
    if (!xState.bPaused)
    {
        try
        {
            xState.vNotes.push_back(xNote);
        }
        catch (const std::bad_alloc&)
        {
            xState.bCallLost = true; // the call has happened, so this is not the moment to throw
        }
    }
}

void _AddBlock(const void* pBlock) noexcept
{
    SState& xState = _State();
    const std::lock_guard xLock(xState.xMutex);
    try
    {
        xState.vLive.insert(pBlock);
    }
    catch (const std::bad_alloc&)
    {
        xState.bBlockLost = true;
    }
}

// Takes blocks that a call is about to free, all of them for null, out of the live ones. Before the call, because
// another thread may be given an address as soon as it is free.
TBlocks _TakeBlocks(const void* pBlock) noexcept
{
    SState& xState = _State();
    TBlocks vTaken;
    const std::lock_guard xLock(xState.xMutex);
    if (pBlock == nullptr)
    {
        vTaken.swap(xState.vLive);
    }
    else if (auto xNode = xState.vLive.extract(pBlock))
    {
        vTaken.insert(std::move(xNode));
    }
    return vTaken;
}

void _GiveBlocksBack(TBlocks& vTaken) noexcept
{
    SState& xState = _State();
    const std::lock_guard xLock(xState.xMutex);
    xState.vLive.merge(vTaken);
}

// The runtime's own last error, which is none afterwards.
cudaError_t _TakeRealError() noexcept
{
    static auto* const s_pReal = _Next<decltype(cudaGetLastError)>("cudaGetLastError");
    const CForwarding xForwarding;
    return s_pReal();
}

// A call of the runtime or of cuBLAS: fails as planned, or is forwarded; and is noted.
template <typename TForward>
auto _Make(SNote& xNote, TForward&& xForward) noexcept
{
    using TResult = decltype(xForward());
    constexpr bool c_bRuntime = std::is_same_v<TResult, cudaError_t>;
    TResult xResult{};
    if (cudaError_t ePlanned = cudaSuccess; _TakeFailure(xNote.pcName, ePlanned))
    {
        if constexpr (c_bRuntime)
        {
            _TakeRealError();
            t_ePending = xResult = ePlanned;
        }
        else
        {
            xResult = CUBLAS_STATUS_EXECUTION_FAILED;
        }
    }
    else
    {
        const CForwarding xForwarding;
        xResult = xForward();
        if constexpr (c_bRuntime)
        {
            t_ePending = xResult == cudaSuccess || xResult == cudaErrorNotReady ? t_ePending : cudaSuccess;
        }
    }
    if constexpr (c_bRuntime)
    {
        xNote.eResult = xResult;
    }
    else
    {
        xNote.eResult = xResult == CUBLAS_STATUS_SUCCESS ? cudaSuccess : cudaErrorUnknown;
    }
    _Append(xNote);
    return xResult;
}

// The answer of a call that asks for the last error: a planned one stands before the runtime's.
cudaError_t _NoteError(const char* pcName, cudaError_t eReal, cudaError_t eLeft) noexcept
{
    const cudaError_t ePending = std::exchange(t_ePending, eLeft);
    SNote xNote = _Note(pcName);
    xNote.eResult = ePending != cudaSuccess ? ePending : eReal;
    _Append(xNote);
    return xNote.eResult;
}

template <EKind eKind, typename TResult, typename... TArguments>
TResult _Call(const char* pcName, TResult (*pReal)(TArguments...), TArguments... xArguments) noexcept
{
    const auto Forward = [&] { return pReal(xArguments...); };
    if (t_bForwarding)
    {
        return Forward();
    }
    SNote xNote = _Note(pcName, xArguments...);
    if constexpr (eKind == EKind::Asks)
    {
        _Append(xNote);
        const CForwarding xForwarding;
        return Forward();
    }
    else
    {
        const auto vArguments = std::tie(xArguments...);
        if constexpr (eKind == EKind::Product)
        {
            constexpr std::size_t c_nAlpha = sizeof...(xArguments) == 12 ? 4 : 5;
            constexpr std::size_t c_nBeta = sizeof...(xArguments) == 12 ? 9 : 8;
            _SetFactor(xNote, std::get<0>(vArguments), c_nAlpha, std::get<c_nAlpha>(vArguments));
            _SetFactor(xNote, std::get<0>(vArguments), c_nBeta, std::get<c_nBeta>(vArguments));
        }
        TBlocks vTaken;
        if constexpr (eKind == EKind::Frees)
        {
            const void* const pBlock = std::get<0>(vArguments);
            vTaken = pBlock != nullptr ? _TakeBlocks(pBlock) : TBlocks();
        }
        else if constexpr (eKind == EKind::Resets)
        {
            vTaken = _TakeBlocks(nullptr);
        }
        const TResult xResult = _Make(xNote, Forward);
        if constexpr (eKind == EKind::Allocates)
        {
            if (xResult == cudaSuccess && *std::get<0>(vArguments) != nullptr)
            {
                _AddBlock(*std::get<0>(vArguments));
            }
        }
        if (!vTaken.empty() && xNote.eResult != cudaSuccess)
        {
            _GiveBlocksBack(vTaken);
        }
        return xResult;
    }
}

// A launch, however it is made, under the one name that all platforms share.
template <typename TForward>
cudaError_t _Launch(
    const dim3& xGrid, const dim3& xBlock, std::size_t nShared, cudaStream_t pStream, TForward&& xForward) noexcept
{
    SNote xNote = _Note("cudaLaunchKernel", xGrid.x, xGrid.y, xGrid.z, xBlock.x, xBlock.y, xBlock.z, nShared, pStream);
    return t_bForwarding ? xForward() : _Make(xNote, xForward);
}

template <typename TForward>
cudaError_t _Launch(const cudaLaunchConfig_t* pConfig, TForward&& xForward) noexcept
{
    const cudaLaunchConfig_t xConfig = pConfig != nullptr ? *pConfig : cudaLaunchConfig_t{};
    return _Launch(xConfig.gridDim, xConfig.blockDim, xConfig.dynamicSmemBytes, xConfig.stream, xForward);
}

template <typename TFunction>
struct SSignature;

template <typename TReturned, typename... TParameters>
struct SSignature<TReturned(TParameters...)>
{
    using TResult = TReturned;
    template <std::size_t nPosition>
    using TParameter = std::tuple_element_t<nPosition, std::tuple<TParameters...>>;
};

SCudaCall _ToCall(const SNote& xNote)
{
    return {xNote.pcName, {xNote.vArguments.begin(), xNote.vArguments.begin() + xNote.nArguments}, xNote.eResult};
}

TNotes _Notes()
{
    SState& xState = _State();
    const std::lock_guard xLock(xState.xMutex);
    if (xState.bCallLost)
    {
        throw std::runtime_error("there was no memory to record a call");
    }
    return xState.vNotes;
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
    xState.vNotes.clear();
    xState.iFailAfter = 0;
    xState.bPaused = false;
    xState.bHasFailed = false;
    xState.bCallLost = false;
    xState.bBlockLost = false;
}

void CCudaRecorder::Pause()
{
    SState& xState = _State();
    const std::lock_guard xLock(xState.xMutex);
    xState.bPaused = true;
}

std::vector<std::string> CCudaRecorder::KnownNames()
{
    std::vector<std::string> vNames;
    for (const SKnown& xKnown : c_vKnown)
    {
        vNames.emplace_back(xKnown.sName);
    }
    return vNames;
}

std::vector<SCudaCall> CCudaRecorder::Calls()
{
    std::vector<SCudaCall> vCalls;
    for (const SNote& xNote : _Notes())
    {
        if (xNote.pcName != c_pcPeek)
        {
            vCalls.push_back(_ToCall(xNote));
        }
    }
    return vCalls;
}

std::vector<std::string> CCudaRecorder::CallNames()
{
    std::vector<std::string> vNames;
    for (SCudaCall& xCall : Calls())
    {
        vNames.push_back(std::move(xCall.sName));
    }
    return vNames;
}

std::size_t CCudaRecorder::Count(const char* pcName)
{
    const std::string_view sName = _Find(pcName).sName;
    const auto vNotes = _Notes();
    return static_cast<std::size_t>(
        std::count_if(vNotes.begin(), vNotes.end(), [&](const SNote& xNote) { return xNote.pcName == sName; }));
}

SCudaCall CCudaRecorder::Last(const char* pcName)
{
    const std::string_view sName = _Find(pcName).sName;
    const auto vNotes = _Notes();
    const auto xFound =
        std::find_if(vNotes.rbegin(), vNotes.rend(), [&](const SNote& xNote) { return xNote.pcName == sName; });
    if (xFound == vNotes.rend())
    {
        throw std::out_of_range("no call of " + std::string(pcName) + " was recorded");
    }
    return _ToCall(*xFound);
}

void CCudaRecorder::FailCall(int iNth, cudaError_t eError, bool bPersistent)
{
    FailCall("", iNth, eError, bPersistent);
}

void CCudaRecorder::FailCall(const char* pcName, int iNth, cudaError_t eError, bool bPersistent)
{
    const SKnown* const pFail = *pcName != '\0' ? &_Find(pcName) : nullptr;
    if (pFail != nullptr && pFail->eKind == EKind::Asks)
    {
        throw std::invalid_argument(std::string(pcName) + " cannot be made to fail");
    }
    SState& xState = _State();
    const std::lock_guard xLock(xState.xMutex);
    xState.pFail = pFail;
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
    if (xState.bBlockLost)
    {
        throw std::runtime_error("there was no memory to record a block");
    }
    return xState.vLive.size();
}

bool DeviceAnswers()
{
    static const bool s_bAnswers = []
    {
        const CForwarding xForwarding; // the question is the recorder's, not the program's
        int iCount = 0;
        const bool bFound = cudaGetDeviceCount(&iCount) == cudaSuccess && iCount > 0;
        static_cast<void>(cudaGetLastError());
        return bFound;
    }();
    return s_bAnswers;
}

} // namespace Qx::Test

// The definitions that the libraries find instead of the runtime's. A name may be a macro for another version of the
// call, which is then what is defined and forwarded to.
#pragma GCC visibility push(default)
extern "C"
{
#define QX_TEXT_OF(text) #text
#define QX_TEXT(name) QX_TEXT_OF(name)
#define QX_TYPE(name, n) Qx::Test::SSignature<decltype(name)>::TParameter<n> x##n
#define QX_PARAMETERS_0(name)
#define QX_PARAMETERS_1(name) QX_TYPE(name, 0)
#define QX_PARAMETERS_2(name) QX_PARAMETERS_1(name), QX_TYPE(name, 1)
#define QX_PARAMETERS_3(name) QX_PARAMETERS_2(name), QX_TYPE(name, 2)
#define QX_PARAMETERS_4(name) QX_PARAMETERS_3(name), QX_TYPE(name, 3)
#define QX_PARAMETERS_5(name) QX_PARAMETERS_4(name), QX_TYPE(name, 4)
#define QX_PARAMETERS_6(name) QX_PARAMETERS_5(name), QX_TYPE(name, 5)
#define QX_PARAMETERS_7(name) QX_PARAMETERS_6(name), QX_TYPE(name, 6)
#define QX_PARAMETERS_8(name) QX_PARAMETERS_7(name), QX_TYPE(name, 7)
#define QX_PARAMETERS_9(name) QX_PARAMETERS_8(name), QX_TYPE(name, 8)
#define QX_PARAMETERS_10(name) QX_PARAMETERS_9(name), QX_TYPE(name, 9)
#define QX_PARAMETERS_11(name) QX_PARAMETERS_10(name), QX_TYPE(name, 10)
#define QX_PARAMETERS_12(name) QX_PARAMETERS_11(name), QX_TYPE(name, 11)
#define QX_ARGUMENTS_0
#define QX_ARGUMENTS_1 , x0
#define QX_ARGUMENTS_2 QX_ARGUMENTS_1, x1
#define QX_ARGUMENTS_3 QX_ARGUMENTS_2, x2
#define QX_ARGUMENTS_4 QX_ARGUMENTS_3, x3
#define QX_ARGUMENTS_5 QX_ARGUMENTS_4, x4
#define QX_ARGUMENTS_6 QX_ARGUMENTS_5, x5
#define QX_ARGUMENTS_7 QX_ARGUMENTS_6, x6
#define QX_ARGUMENTS_8 QX_ARGUMENTS_7, x7
#define QX_ARGUMENTS_9 QX_ARGUMENTS_8, x8
#define QX_ARGUMENTS_10 QX_ARGUMENTS_9, x9
#define QX_ARGUMENTS_11 QX_ARGUMENTS_10, x10
#define QX_ARGUMENTS_12 QX_ARGUMENTS_11, x11
#define QX_DEFINE(kind, name, count)                                                                                   \
    Qx::Test::SSignature<decltype(name)>::TResult name(QX_PARAMETERS_##count(name))                                    \
    {                                                                                                                  \
        static auto* const s_pReal = Qx::Test::_Next<decltype(name)>(QX_TEXT(name));                                   \
        return Qx::Test::_Call<Qx::Test::EKind::kind>(#name, s_pReal QX_ARGUMENTS_##count);                            \
    }

    QX_CALLS(QX_DEFINE)

    cudaError_t cudaMallocPitch(void** ppBlock, std::size_t* pnPitch, std::size_t nWidth, std::size_t nHeight)
    {
        static auto* const s_pReal = Qx::Test::_Next<decltype(cudaMallocPitch)>("cudaMallocPitch");
        return Qx::Test::_Call<Qx::Test::EKind::Allocates>(
            "cudaMallocPitch", s_pReal, ppBlock, pnPitch, nWidth + Qx::Test::g_nRowPadding, nHeight);
    }

    cudaError_t cudaGetLastError()
    {
        const cudaError_t eReal = Qx::Test::_TakeRealError();
        return Qx::Test::t_bForwarding ? eReal : Qx::Test::_NoteError("cudaGetLastError", eReal, cudaSuccess);
    }

    cudaError_t cudaPeekAtLastError()
    {
        static auto* const s_pReal = Qx::Test::_Next<decltype(cudaPeekAtLastError)>("cudaPeekAtLastError");
        return Qx::Test::t_bForwarding ? s_pReal()
                                       : Qx::Test::_NoteError(Qx::Test::c_pcPeek, s_pReal(), Qx::Test::t_ePending);
    }

#if !defined(QX_HOSTCUDA)
    cudaError_t cudaLaunchKernel(
        const void* pKernel, dim3 xGrid, dim3 xBlock, void** ppArguments, std::size_t nShared, cudaStream_t pStream)
    {
        static auto* const s_pReal = Qx::Test::_Next<decltype(cudaLaunchKernel)>("cudaLaunchKernel");
        return Qx::Test::_Launch(xGrid, xBlock, nShared, pStream,
            [&] { return s_pReal(pKernel, xGrid, xBlock, ppArguments, nShared, pStream); });
    }

    cudaError_t cudaLaunchCooperativeKernel(
        const void* pKernel, dim3 xGrid, dim3 xBlock, void** ppArguments, std::size_t nShared, cudaStream_t pStream)
    {
        static auto* const s_pReal =
            Qx::Test::_Next<decltype(cudaLaunchCooperativeKernel)>("cudaLaunchCooperativeKernel");
        return Qx::Test::_Launch(xGrid, xBlock, nShared, pStream,
            [&] { return s_pReal(pKernel, xGrid, xBlock, ppArguments, nShared, pStream); });
    }

    cudaError_t cudaLaunchKernelExC(const cudaLaunchConfig_t* pConfig, const void* pKernel, void** ppArguments)
    {
        static auto* const s_pReal = Qx::Test::_Next<decltype(cudaLaunchKernelExC)>("cudaLaunchKernelExC");
        return Qx::Test::_Launch(pConfig, [&] { return s_pReal(pConfig, pKernel, ppArguments); });
    }

    // What nvcc makes of <<<...>>> since its version 13; declared for its own use only.
    cudaError_t __cudaLaunchKernel(
        void* pKernel, dim3 xGrid, dim3 xBlock, void** ppArguments, std::size_t nShared, cudaStream_t pStream)
    {
        static auto* const s_pReal = Qx::Test::_Next<decltype(__cudaLaunchKernel)>("__cudaLaunchKernel");
        return Qx::Test::_Launch(xGrid, xBlock, nShared, pStream,
            [&] { return s_pReal(pKernel, xGrid, xBlock, ppArguments, nShared, pStream); });
    }
#endif
}
#pragma GCC visibility pop

#if defined(QX_HOSTCUDA)
// Not before: its typed forms of the calls would make the names in the table ambiguous.
#include <cuda_runtime.h>

cudaError_t Qx::HostCuda::Launch(
    const cudaLaunchConfig_t* pConfig, bool bFunction, std::unique_ptr<const CKernel> pKernel) noexcept
{
    static auto* const s_pReal =
        Test::_Next<cudaError_t(const cudaLaunchConfig_t*, bool, std::unique_ptr<const CKernel>)>(
            "_ZN2Qx8HostCuda6LaunchEPK19cudaLaunchConfig_stbSt10unique_ptrIKNS0_7CKernelESt14default_deleteIS6_EE");
    return Test::_Launch(pConfig, [&] { return s_pReal(pConfig, bFunction, std::move(pKernel)); });
}
#endif
