#include "Qx.HostCuda/Devices.h"
#include "Qx.HostCuda/Memory.h"
#include "Qx.HostCuda/Sanitizer.h"

#include <algorithm>
#include <atomic>
#include <cblas.h>
#include <cstdlib>
#include <cublas_v2.h>
#include <deque>
#include <iterator>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

namespace Qx::HostCuda
{
namespace
{

/// The routines for an element type.
template <typename T>
struct SRoutines;

template <>
struct SRoutines<float>
{
    static constexpr auto c_pGemv = &cblas_sgemv;
    static constexpr auto c_pSyrk = &cblas_ssyrk;
    static constexpr auto c_pAsum = &cblas_sasum;
};

template <>
struct SRoutines<double>
{
    static constexpr auto c_pGemv = &cblas_dgemv;
    static constexpr auto c_pSyrk = &cblas_dsyrk;
    static constexpr auto c_pAsum = &cblas_dasum;
};

/// Keeps the end of the process away from routines that run.
///
/// OpenBLAS ends its threads and frees what its routines work in when the process exits, and streams may still compute
/// then: the process would hang or crash. Being destroyed before that, as an object of a library that depends on
/// OpenBLAS, this waits for them; work that comes later is a fault.
class CExitGate
{
public:
    ~CExitGate()
    {
        m_uState.fetch_or(c_uClosed, std::memory_order_relaxed);
        for (std::uint32_t uState = 0; (uState = m_uState.load(std::memory_order_acquire)) != c_uClosed;)
        {
            m_uState.wait(uState, std::memory_order_acquire);
        }
    }
    CExitGate(const CExitGate&) = delete;
    CExitGate& operator=(const CExitGate&) = delete;

    /// Lets one piece of work through for as long as this object lives. Orders no work before other work.
    class CPass
    {
    public:
        CPass()
        {
            if ((s_xGate.m_uState.fetch_add(c_uOne, std::memory_order_relaxed) & c_uClosed) != 0)
            {
                _Leave();
                throw std::runtime_error("the process exits");
            }
        }
        ~CPass() { _Leave(); }
        CPass(const CPass&) = delete;
        CPass& operator=(const CPass&) = delete;

    private:
        static void _Leave() noexcept
        {
            if ((s_xGate.m_uState.fetch_sub(c_uOne, std::memory_order_release) & c_uClosed) != 0)
            {
                s_xGate.m_uState.notify_all();
            }
        }
    };

private:
    constexpr CExitGate() = default;

    static constexpr std::uint32_t c_uClosed = 1;
    static constexpr std::uint32_t c_uOne = 2;

    std::atomic<std::uint32_t> m_uState{0};

    static CExitGate s_xGate;
};

constinit CExitGate CExitGate::s_xGate;

/// What a handle stands for.
struct SContext
{
    CDevice* pDevice = nullptr;
    cudaStream_t hStream = nullptr;
    cublasPointerMode_t eMode = CUBLAS_POINTER_MODE_HOST;
};

/// All handles of the process.
class CHandles
{
public:
    /// Never destroyed: calls may be made while the process exits.
    static CHandles& Get()
    {
        static CHandles* const s_pHandles = new CHandles;
        return *s_pHandles;
    }

    cublasHandle_t Create(CDevice& xDevice)
    {
        const std::lock_guard xLock(m_xMutex);
        auto xSlot = std::ranges::find(m_vSlots, false, &SSlot::bLive);
        if (xSlot == m_vSlots.end())
        {
            if (m_vSlots.size() == c_uSlotLimit)
            {
                throw std::bad_alloc();
            }
            xSlot = m_vSlots.insert(xSlot, SSlot{});
        }
        xSlot->bLive = true;
        xSlot->xContext = {&xDevice, nullptr, CUBLAS_POINTER_MODE_HOST};
        return EncodeHandle<cublasHandle_t>(EHandle::Blas,
            {static_cast<std::uint64_t>(xDevice.GetID()), static_cast<std::uint64_t>(xSlot - m_vSlots.begin()),
                xSlot->uGeneration});
    }

    /// Calls `Function(slot)` for a handle that is alive; false if it is not.
    template <class F>
    bool With(cublasHandle_t hHandle, F&& Function)
    {
        const std::lock_guard xLock(m_xMutex);
        SHandle xHandle;
        if (!DecodeHandle(EHandle::Blas, hHandle, xHandle) || xHandle.uSlot >= m_vSlots.size())
        {
            return false;
        }
        SSlot& xSlot = m_vSlots[xHandle.uSlot];
        if (!xSlot.bLive || xSlot.uGeneration != xHandle.uGeneration)
        {
            return false;
        }
        std::forward<F>(Function)(xSlot);
        return true;
    }

    struct SSlot
    {
        std::uint64_t uGeneration = 1;
        bool bLive = false;
        SContext xContext;
    };

private:
    CHandles()
    {
#if defined(QX_HOSTCUDA_TSAN)
        // ThreadSanitizer does not see how OpenBLAS orders its own threads and would report each result as a race.
        openblas_set_num_threads(1);
#endif
    }

    std::mutex m_xMutex;
    std::deque<SSlot> m_vSlots;
};

/// Result of `Function(context)` for a handle that is alive.
template <class F>
cublasStatus_t _Call(cublasHandle_t hHandle, F&& Function) noexcept
{
    try
    {
        SContext xContext;
        if (!CHandles::Get().With(hHandle, [&](const CHandles::SSlot& xSlot) { xContext = xSlot.xContext; }))
        {
            return CUBLAS_STATUS_NOT_INITIALIZED;
        }
        return ThisThread().bInHostFunction ? CUBLAS_STATUS_EXECUTION_FAILED
                                            : std::forward<F>(Function)(std::as_const(xContext));
    }
    catch (const std::bad_alloc&)
    {
        return CUBLAS_STATUS_ALLOC_FAILED;
    }
    catch (...)
    {
        return CUBLAS_STATUS_EXECUTION_FAILED;
    }
}

/// Elements from the first to the last one of a vector, which may run backwards, and of a matrix.
std::uint64_t _VectorSpan(int iCount, int iStep) noexcept
{
    return static_cast<std::uint64_t>(std::abs((iCount - 1LL) * iStep)) + 1;
}

std::uint64_t _MatrixSpan(int iRows, int iCols, int iLeading) noexcept
{
    return static_cast<std::uint64_t>((iCols - 1LL) * iLeading + iRows);
}

/// The memory of one call, all of which has to be the device's. Holds the registry's read lock, so that nobody frees it
/// before the work is queued.
class COperands
{
public:
    explicit COperands(const SContext& xContext) : m_xDevice(*xContext.pDevice), m_xLock(CMemory::Get().Read()) {}

    /// So many elements; their bytes may be more than 64 bits count.
    template <typename T>
    COperands& Add(const T* pMemory, std::uint64_t nCount)
    {
        const auto uBegin = reinterpret_cast<std::uintptr_t>(pMemory);
        const SBlock* const pBlock = CMemory::Get().Find(uBegin);
        if (pBlock == nullptr || nCount > (pBlock->uBase + pBlock->nSize - uBegin) / sizeof(T))
        {
            m_bInside = false;
            return *this;
        }
        CMemory::NoteUse(*pBlock, m_xDevice);
        return *this;
    }

    /// The scalars too, if that is where they lie.
    template <typename T>
    COperands& AddScalar(const SContext& xContext, const T* pScalar)
    {
        return xContext.eMode == CUBLAS_POINTER_MODE_DEVICE ? Add(pScalar, 1) : *this;
    }

    [[nodiscard]] bool AreInside() const noexcept { return m_bInside; }
    void Unlock() { m_xLock.unlock(); }

private:
    const CDevice& m_xDevice;
    CMemory::CReadLock m_xLock;
    bool m_bInside = true;
};

/// A scalar of a call: its value, or where the work finds it.
template <typename T>
class CScalar
{
public:
    CScalar(const SContext& xContext, const T* pScalar)
        : m_pDevice(xContext.eMode == CUBLAS_POINTER_MODE_DEVICE ? pScalar : nullptr),
          m_tValue(m_pDevice == nullptr ? *pScalar : T{})
    {
    }
    [[nodiscard]] T Get() const noexcept { return m_pDevice != nullptr ? *m_pDevice : m_tValue; }

private:
    const T* m_pDevice;
    T m_tValue;
};

bool _CanRun(const SContext& xContext) noexcept
{
    return xContext.pDevice == &CurrentDevice() && xContext.pDevice->GetFault() == cudaSuccess;
}

cublasStatus_t _Status(cudaError_t eError) noexcept
{
    return eError == cudaSuccess ? CUBLAS_STATUS_SUCCESS : CUBLAS_STATUS_EXECUTION_FAILED;
}

/// Queues work whose operands lie in `xOperands`.
template <class F>
cublasStatus_t _Enqueue(const SContext& xContext, const COperands& xOperands, F&& Function)
{
    if (!xOperands.AreInside())
    {
        return CUBLAS_STATUS_INVALID_VALUE;
    }
    return _Status(xContext.pDevice->Enqueue(xContext.hStream,
        MakeWork(
            [xFunction = std::forward<F>(Function)]
            {
                const CExitGate::CPass xPass;
                xFunction();
            })));
}

/// Waits for what has been queued on the handle's stream.
cublasStatus_t _Wait(const SContext& xContext)
{
    SMark xOwn;
    std::vector<SMark> vOthers;
    const cudaError_t eError = xContext.pDevice->GetMarks(xContext.hStream, xOwn, vOthers);
    xOwn.Wait();
    return _Status(eError == cudaSuccess ? xContext.pDevice->GetFault() : eError);
}

bool _IsOperation(cublasOperation_t eOperation) noexcept
{
    return eOperation == CUBLAS_OP_N || eOperation == CUBLAS_OP_T || eOperation == CUBLAS_OP_C;
}

CBLAS_TRANSPOSE _GetTranspose(cublasOperation_t eOperation) noexcept
{
    return eOperation == CUBLAS_OP_N ? CblasNoTrans : CblasTrans; // conjugating real numbers does nothing
}

template <typename T>
cublasStatus_t _Gemv(cublasHandle_t hHandle, cublasOperation_t eTrans, int iRows, int iCols, const T* pAlpha,
    const T* pMatrix, int iLeading, const T* pX, int iStepX, const T* pBeta, T* pY, int iStepY)
{
    return _Call(hHandle,
        [&](const SContext& xContext)
        {
            if (!_IsOperation(eTrans) || iRows < 0 || iCols < 0 || iLeading < std::max(1, iRows) || iStepX == 0 ||
                iStepY == 0 || pAlpha == nullptr || pBeta == nullptr)
            {
                return CUBLAS_STATUS_INVALID_VALUE;
            }
            if (!_CanRun(xContext))
            {
                return CUBLAS_STATUS_EXECUTION_FAILED;
            }
            if (iRows == 0 || iCols == 0)
            {
                return CUBLAS_STATUS_SUCCESS;
            }
            COperands xOperands(xContext);
            xOperands.Add(pMatrix, _MatrixSpan(iRows, iCols, iLeading))
                .Add(pX, _VectorSpan(eTrans == CUBLAS_OP_N ? iCols : iRows, iStepX))
                .Add(pY, _VectorSpan(eTrans == CUBLAS_OP_N ? iRows : iCols, iStepY))
                .AddScalar(xContext, pAlpha)
                .AddScalar(xContext, pBeta);
            return _Enqueue(xContext, xOperands,
                [=, tAlpha = CScalar<T>(xContext, pAlpha), tBeta = CScalar<T>(xContext, pBeta)]
                {
                    SRoutines<T>::c_pGemv(CblasColMajor, _GetTranspose(eTrans), iRows, iCols, tAlpha.Get(), pMatrix,
                        iLeading, pX, iStepX, tBeta.Get(), pY, iStepY);
                });
        });
}

template <typename T>
cublasStatus_t _Syrk(cublasHandle_t hHandle, cublasFillMode_t eFill, cublasOperation_t eTrans, int iOrder, int iInner,
    const T* pAlpha, const T* pMatrix, int iLeading, const T* pBeta, T* pResult, int iLeadingResult)
{
    return _Call(hHandle,
        [&](const SContext& xContext)
        {
            const bool bTransposed = eTrans != CUBLAS_OP_N;
            const int iRows = bTransposed ? iInner : iOrder;
            const int iCols = bTransposed ? iOrder : iInner;
            if ((eFill != CUBLAS_FILL_MODE_LOWER && eFill != CUBLAS_FILL_MODE_UPPER) || !_IsOperation(eTrans) ||
                iOrder < 0 || iInner < 0 || iLeading < std::max(1, iRows) || iLeadingResult < std::max(1, iOrder) ||
                pAlpha == nullptr || pBeta == nullptr)
            {
                return CUBLAS_STATUS_INVALID_VALUE;
            }
            if (!_CanRun(xContext))
            {
                return CUBLAS_STATUS_EXECUTION_FAILED;
            }
            if (iOrder == 0)
            {
                return CUBLAS_STATUS_SUCCESS;
            }
            COperands xOperands(xContext);
            if (iInner != 0)
            {
                xOperands.Add(pMatrix, _MatrixSpan(iRows, iCols, iLeading));
            }
            xOperands.Add(pResult, _MatrixSpan(iOrder, iOrder, iLeadingResult))
                .AddScalar(xContext, pAlpha)
                .AddScalar(xContext, pBeta);
            return _Enqueue(xContext, xOperands,
                [=, tAlpha = CScalar<T>(xContext, pAlpha), tBeta = CScalar<T>(xContext, pBeta)]
                {
                    SRoutines<T>::c_pSyrk(CblasColMajor, eFill == CUBLAS_FILL_MODE_LOWER ? CblasLower : CblasUpper,
                        _GetTranspose(eTrans), iOrder, iInner, tAlpha.Get(), pMatrix, iLeading, tBeta.Get(), pResult,
                        iLeadingResult);
                });
        });
}

template <typename T>
cublasStatus_t _Asum(cublasHandle_t hHandle, int iCount, const T* pX, int iStep, T* pResult)
{
    return _Call(hHandle,
        [&](const SContext& xContext)
        {
            if (pResult == nullptr)
            {
                return CUBLAS_STATUS_INVALID_VALUE;
            }
            if (!_CanRun(xContext))
            {
                return CUBLAS_STATUS_EXECUTION_FAILED;
            }
            const bool bAny = iCount > 0 && iStep > 0;
            const auto Sum = [=] { return bAny ? SRoutines<T>::c_pAsum(iCount, pX, iStep) : T{}; };
            CDevice& xDevice = *xContext.pDevice;
            COperands xOperands(xContext);
            if (bAny)
            {
                xOperands.Add(pX, _VectorSpan(iCount, iStep));
            }
            if (xContext.eMode == CUBLAS_POINTER_MODE_DEVICE)
            {
                return _Enqueue(xContext, xOperands.Add(pResult, 1), [=] { *pResult = Sum(); });
            }
            if (!xOperands.AreInside())
            {
                return CUBLAS_STATUS_INVALID_VALUE;
            }
            if (xContext.hStream == nullptr || xContext.hStream == cudaStreamLegacy)
            {
                // The caller waits anyway, so it does the work itself when the stream comes to it.
                const CLegacyTurn xTurn(xDevice);
                xOperands.Unlock();
                xTurn.Await();
                const cublasStatus_t eStatus = _Status(xDevice.GetFault());
                if (eStatus == CUBLAS_STATUS_SUCCESS)
                {
                    const CExitGate::CPass xPass;
                    *pResult = Sum();
                }
                return eStatus;
            }
            // Shared with the work, which may outlive this call when the wait fails.
            const auto pSum = std::make_shared<T>();
            cublasStatus_t eStatus = _Enqueue(xContext, xOperands, [=] { *pSum = Sum(); });
            xOperands.Unlock();
            if (eStatus == CUBLAS_STATUS_SUCCESS)
            {
                eStatus = _Wait(xContext);
            }
            if (eStatus == CUBLAS_STATUS_SUCCESS)
            {
                *pResult = *pSum;
            }
            return eStatus;
        });
}

struct SStatusRow
{
    cublasStatus_t eStatus;
    const char* pcName;
    const char* pcText;
};

#define QX_STATUS_ROW(status, text)                                                                                    \
    {                                                                                                                  \
        status, #status, text                                                                                          \
    }

constexpr SStatusRow c_vStatus[] = {
    QX_STATUS_ROW(CUBLAS_STATUS_SUCCESS, "success"),
    QX_STATUS_ROW(CUBLAS_STATUS_NOT_INITIALIZED, "the library was not initialized"),
    QX_STATUS_ROW(CUBLAS_STATUS_ALLOC_FAILED, "the resource allocation failed"),
    QX_STATUS_ROW(CUBLAS_STATUS_INVALID_VALUE, "an unsupported value or parameter was passed to the function"),
    QX_STATUS_ROW(CUBLAS_STATUS_ARCH_MISMATCH, "the function requires an architectural feature absent from the device"),
    QX_STATUS_ROW(CUBLAS_STATUS_MAPPING_ERROR, "an access to GPU memory space failed"),
    QX_STATUS_ROW(CUBLAS_STATUS_EXECUTION_FAILED, "the function failed to launch on the GPU"),
    QX_STATUS_ROW(CUBLAS_STATUS_INTERNAL_ERROR, "an internal operation failed"),
    QX_STATUS_ROW(CUBLAS_STATUS_NOT_SUPPORTED, "the requested functionality is not supported"),
    QX_STATUS_ROW(CUBLAS_STATUS_LICENSE_ERROR, "the license check failed"),
};

constexpr const char* c_pcUnknown = "unrecognized status";

/// The row of a status; null for a value that is none.
const SStatusRow* _FindStatus(cublasStatus_t eStatus) noexcept
{
    const auto* const pRow = std::ranges::find(c_vStatus, eStatus, &SStatusRow::eStatus);
    return pRow != std::end(c_vStatus) ? pRow : nullptr;
}

} // namespace
} // namespace Qx::HostCuda

using namespace Qx::HostCuda;

cublasStatus_t cublasCreate_v2(cublasHandle_t* handle)
{
    if (handle == nullptr)
    {
        return CUBLAS_STATUS_INVALID_VALUE;
    }
    switch (Guarded(
        [&]
        {
            const cudaError_t eFault = CurrentDevice().GetFault();
            if (eFault == cudaSuccess)
            {
                *handle = CHandles::Get().Create(CurrentDevice());
            }
            return eFault;
        }))
    {
    case cudaSuccess:
        return CUBLAS_STATUS_SUCCESS;
    case cudaErrorMemoryAllocation:
        return CUBLAS_STATUS_ALLOC_FAILED;
    default:
        return CUBLAS_STATUS_NOT_INITIALIZED;
    }
}

cublasStatus_t cublasDestroy_v2(cublasHandle_t handle)
{
    return CHandles::Get().With(handle,
               [](CHandles::SSlot& xSlot)
               {
                   xSlot.bLive = false;
                   ++xSlot.uGeneration;
               })
        ? CUBLAS_STATUS_SUCCESS
        : CUBLAS_STATUS_NOT_INITIALIZED;
}

cublasStatus_t cublasSetStream_v2(cublasHandle_t handle, cudaStream_t streamId)
{
    return _Call(handle,
        [&](const SContext& xContext)
        {
            if (streamId == cudaStreamPerThread)
            {
                return CUBLAS_STATUS_NOT_SUPPORTED;
            }
            if (xContext.pDevice->CheckStream(streamId) != cudaSuccess)
            {
                return CUBLAS_STATUS_INVALID_VALUE;
            }
            CHandles::Get().With(handle, [&](CHandles::SSlot& xSlot) { xSlot.xContext.hStream = streamId; });
            return CUBLAS_STATUS_SUCCESS;
        });
}

cublasStatus_t cublasGetStream_v2(cublasHandle_t handle, cudaStream_t* streamId)
{
    return _Call(handle,
        [&](const SContext& xContext)
        {
            if (streamId == nullptr)
            {
                return CUBLAS_STATUS_INVALID_VALUE;
            }
            *streamId = xContext.hStream;
            return CUBLAS_STATUS_SUCCESS;
        });
}

cublasStatus_t cublasSetPointerMode_v2(cublasHandle_t handle, cublasPointerMode_t mode)
{
    return _Call(handle,
        [&](const SContext&)
        {
            if (mode != CUBLAS_POINTER_MODE_HOST && mode != CUBLAS_POINTER_MODE_DEVICE)
            {
                return CUBLAS_STATUS_INVALID_VALUE;
            }
            CHandles::Get().With(handle, [&](CHandles::SSlot& xSlot) { xSlot.xContext.eMode = mode; });
            return CUBLAS_STATUS_SUCCESS;
        });
}

cublasStatus_t cublasGetPointerMode_v2(cublasHandle_t handle, cublasPointerMode_t* mode)
{
    return _Call(handle,
        [&](const SContext& xContext)
        {
            if (mode == nullptr)
            {
                return CUBLAS_STATUS_INVALID_VALUE;
            }
            *mode = xContext.eMode;
            return CUBLAS_STATUS_SUCCESS;
        });
}

const char* cublasGetStatusName(cublasStatus_t status)
{
    const SStatusRow* const pRow = _FindStatus(status);
    return pRow != nullptr ? pRow->pcName : c_pcUnknown;
}

const char* cublasGetStatusString(cublasStatus_t status)
{
    const SStatusRow* const pRow = _FindStatus(status);
    return pRow != nullptr ? pRow->pcText : c_pcUnknown;
}

cublasStatus_t cublasSasum_v2(cublasHandle_t handle, int n, const float* x, int incx, float* result)
{
    return _Asum(handle, n, x, incx, result);
}

cublasStatus_t cublasDasum_v2(cublasHandle_t handle, int n, const double* x, int incx, double* result)
{
    return _Asum(handle, n, x, incx, result);
}

cublasStatus_t cublasSgemv_v2(cublasHandle_t handle, cublasOperation_t trans, int m, int n, const float* alpha,
    const float* A, int lda, const float* x, int incx, const float* beta, float* y, int incy)
{
    return _Gemv(handle, trans, m, n, alpha, A, lda, x, incx, beta, y, incy);
}

cublasStatus_t cublasDgemv_v2(cublasHandle_t handle, cublasOperation_t trans, int m, int n, const double* alpha,
    const double* A, int lda, const double* x, int incx, const double* beta, double* y, int incy)
{
    return _Gemv(handle, trans, m, n, alpha, A, lda, x, incx, beta, y, incy);
}

cublasStatus_t cublasSsyrk_v2(cublasHandle_t handle, cublasFillMode_t uplo, cublasOperation_t trans, int n, int k,
    const float* alpha, const float* A, int lda, const float* beta, float* C, int ldc)
{
    return _Syrk(handle, uplo, trans, n, k, alpha, A, lda, beta, C, ldc);
}

cublasStatus_t cublasDsyrk_v2(cublasHandle_t handle, cublasFillMode_t uplo, cublasOperation_t trans, int n, int k,
    const double* alpha, const double* A, int lda, const double* beta, double* C, int ldc)
{
    return _Syrk(handle, uplo, trans, n, k, alpha, A, lda, beta, C, ldc);
}
