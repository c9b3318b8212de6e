#include "Qx.HostCuda/Blas/ExitGate.h"
#include "Qx.HostCuda/Blas/Handles.h"
#include "Qx.HostCuda/Blas/Operands.h"
#include "Qx.HostCuda/Streams/Schedule.h"

#include <algorithm>
#include <cblas.h>
#include <memory>
#include <utility>
#include <vector>

namespace Qx::HostCuda
{

constinit CExitGate CExitGate::s_xGate;

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

void _RequireCanRun(const SContext& xContext)
{
    const bool bCurrent = xContext.pDevice == &CurrentDevice();
    Require(bCurrent && xContext.pDevice->GetFault() == cudaSuccess, CUBLAS_STATUS_EXECUTION_FAILED);
}

/// Queues work, whose operands are kept from being freed.
template <class F>
void _Enqueue(CPlace& xPlace, F&& Function)
{
    xPlace.Enqueue(MakeWork(
        [xFunction = std::forward<F>(Function)]
        {
            const CExitGate::CPass xPass;
            xFunction();
        }));
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
    return OnHandle(hHandle,
        [&](const SContext& xContext)
        {
            Require(_IsOperation(eTrans) && iRows >= 0 && iCols >= 0 && iLeading >= std::max(1, iRows) && iStepX != 0 &&
                    iStepY != 0 && pAlpha != nullptr && pBeta != nullptr,
                CUBLAS_STATUS_INVALID_VALUE);
            _RequireCanRun(xContext);
            if (iRows == 0 || iCols == 0)
            {
                return;
            }
            COperands xOperands(xContext);
            xOperands.Add(pMatrix, MatrixSpan(iRows, iCols, iLeading));
            xOperands.Add(pX, VectorSpan(eTrans == CUBLAS_OP_N ? iCols : iRows, iStepX));
            xOperands.Add(pY, VectorSpan(eTrans == CUBLAS_OP_N ? iRows : iCols, iStepY));
            const auto Alpha = xOperands.AddScalar(pAlpha);
            const auto Beta = xOperands.AddScalar(pBeta);
            CPlace xPlace(xContext.hStream);
            _Enqueue(xPlace,
                [=]
                {
                    SRoutines<T>::c_pGemv(CblasColMajor, _GetTranspose(eTrans), iRows, iCols, Alpha(), pMatrix,
                        iLeading, pX, iStepX, Beta(), pY, iStepY);
                });
        });
}

template <typename T>
cublasStatus_t _Syrk(cublasHandle_t hHandle, cublasFillMode_t eFill, cublasOperation_t eTrans, int iOrder, int iInner,
    const T* pAlpha, const T* pMatrix, int iLeading, const T* pBeta, T* pResult, int iLeadingResult)
{
    return OnHandle(hHandle,
        [&](const SContext& xContext)
        {
            const bool bTransposed = eTrans != CUBLAS_OP_N;
            const int iRows = bTransposed ? iInner : iOrder;
            const int iCols = bTransposed ? iOrder : iInner;
            const bool bLower = eFill == CUBLAS_FILL_MODE_LOWER;
            Require((bLower || eFill == CUBLAS_FILL_MODE_UPPER) && _IsOperation(eTrans) && iOrder >= 0 && iInner >= 0 &&
                    iLeading >= std::max(1, iRows) && iLeadingResult >= std::max(1, iOrder) && pAlpha != nullptr &&
                    pBeta != nullptr,
                CUBLAS_STATUS_INVALID_VALUE);
            _RequireCanRun(xContext);
            if (iOrder == 0)
            {
                return;
            }
            COperands xOperands(xContext);
            if (iInner != 0)
            {
                xOperands.Add(pMatrix, MatrixSpan(iRows, iCols, iLeading));
            }
            xOperands.Add(pResult, MatrixSpan(iOrder, iOrder, iLeadingResult));
            const auto Alpha = xOperands.AddScalar(pAlpha);
            const auto Beta = xOperands.AddScalar(pBeta);
            CPlace xPlace(xContext.hStream);
            _Enqueue(xPlace,
                [=]
                {
                    SRoutines<T>::c_pSyrk(CblasColMajor, bLower ? CblasLower : CblasUpper, _GetTranspose(eTrans),
                        iOrder, iInner, Alpha(), pMatrix, iLeading, Beta(), pResult, iLeadingResult);
                });
        });
}

/// A sum whose result lies on the host, by the calling thread in its turn on the legacy stream: it waits anyway.
template <class F, typename T>
void _SumInTurn(CPlace& xPlace, COperands& xOperands, F&& Sum, T* pResult)
{
    RunInTurn(xPlace, xOperands.GetLock(),
        [&]
        {
            const CExitGate::CPass xPass;
            *pResult = Sum();
        });
}

/// The same on another stream, by the stream's thread.
template <class F, typename T>
void _SumAndWait(CPlace& xPlace, COperands& xOperands, F&& Sum, T* pResult)
{
    T tSum{};
    _Enqueue(xPlace, [=, pSum = &tSum] { *pSum = Sum(); });
    std::vector<SMark> vNone;
    const SMark xDone = xPlace.GetMarks(vNone);
    xPlace.Leave();
    xOperands.GetLock().unlock();
    xDone.Wait();
    xPlace.GetDevice().RequireHealthy();
    *pResult = tSum;
}

template <typename T>
cublasStatus_t _Asum(cublasHandle_t hHandle, int iCount, const T* pX, int iStep, T* pResult)
{
    return OnHandle(hHandle,
        [&](const SContext& xContext)
        {
            Require(pResult != nullptr, CUBLAS_STATUS_INVALID_VALUE);
            _RequireCanRun(xContext);
            const bool bAny = iCount > 0 && iStep > 0;
            const auto Sum = [=] { return bAny ? SRoutines<T>::c_pAsum(iCount, pX, iStep) : T{}; };
            COperands xOperands(xContext);
            if (bAny)
            {
                xOperands.Add(pX, VectorSpan(iCount, iStep));
            }
            const bool bHost = xContext.eMode == CUBLAS_POINTER_MODE_HOST;
            if (!bHost)
            {
                xOperands.Add(pResult, 1);
            }
            CPlace xPlace(xContext.hStream);
            if (!bHost)
            {
                _Enqueue(xPlace, [=] { *pResult = Sum(); });
            }
            else if (xContext.hStream == nullptr || xContext.hStream == cudaStreamLegacy)
            {
                _SumInTurn(xPlace, xOperands, Sum, pResult);
            }
            else
            {
                _SumAndWait(xPlace, xOperands, Sum, pResult);
            }
        });
}

} // namespace
} // namespace Qx::HostCuda

using namespace Qx::HostCuda;

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
