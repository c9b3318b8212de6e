#pragma once

#include <climits>
#include <cstdint>

#include <cublas_v2.h>

#include "Qx.Cuda/QxCudaDeviceMatrix.h"
#include "Qx.Cuda/QxCudaDeviceVector.h"

namespace Qx
{

/// Products and sums of device vectors and matrices by cuBLAS.
///
/// Both instantiations offer the same operations for `float` and for `double`; the parameter changes nothing. The
/// cuBLAS handle belongs to the client, who creates, configures and destroys it; it has to be in host pointer mode
/// (the default) and its device has to be current. Each operation makes one cuBLAS call on the handle's stream. Nothing
/// here waits for the device: results of the products are complete when the work of that stream is. Uploads are made on
/// the default stream: with a handle on a stream that was created non-blocking, call `cudaStreamSynchronize(nullptr)`
/// between the last of them and the product.
///
/// Operands must hold as many elements on the device as their sizes say (`IsComplete`); a matrix without elements is
/// for cuBLAS to refuse. No count passed to cuBLAS may exceed 2^31 - 1. One thread uses an object, its operands and its
/// result at a time.
template <typename T>
class QX_CUDA_API CQxCudaDeviceMatrixMath
{
    static_assert(std::is_same_v<T, float> || std::is_same_v<T, double>, "matrix math is done in float or double");

public:
    /// @param pHandle the cuBLAS handle, which must outlive its use here; null is refused by the operations
    explicit CQxCudaDeviceMatrixMath(cublasContext* pHandle) noexcept : m_pHandle(pHandle) {}

    /// Leaves the handle alone.
    virtual ~CQxCudaDeviceMatrixMath();

    CQxCudaDeviceMatrixMath(const CQxCudaDeviceMatrixMath&) = default;
    CQxCudaDeviceMatrixMath& operator=(const CQxCudaDeviceMatrixMath&) = default;

    /// y = A x. @p xResult is resized to the rows of @p xMatrix and keeps its block when that has as many elements.
    ///
    /// Throws a `CQxException` "Error multiplying matrix" with, as inner exception and in this order:
    /// - "Matrix sizes don't fit" when @p xMatrix has not as many columns as @p xVector has elements,
    /// - "Nullptr --> CLUBLAS is not initialized" for a null handle,
    /// - "Operand is not complete on the device" for an operand whose block does not have its elements,
    /// - "Result is an operand" when @p xResult is @p xVector,
    /// - "Count ... is too large for CUBLAS"; @p xResult is untouched after these five,
    /// - "Error resizing device vector"; @p xResult is as after its failed `Resize`,
    /// - "CUBLAS error in cublasSgemv_v2" or "CUBLAS error in cublasDgemv_v2"; @p xResult keeps its new size and its
    ///   contents are undefined.
    void Mult(const CQxCudaDeviceMatrix<float>& xMatrix, const CQxCudaDeviceVector<float>& xVector,
        CQxCudaDeviceVector<float>& xResult)
    {
        _Mult(xMatrix, xVector, xResult, &cublasSgemv_v2, "CUBLAS error in cublasSgemv_v2");
    }
    /// The same for `double`.
    void Mult(const CQxCudaDeviceMatrix<double>& xMatrix, const CQxCudaDeviceVector<double>& xVector,
        CQxCudaDeviceVector<double>& xResult)
    {
        _Mult(xMatrix, xVector, xResult, &cublasDgemv_v2, "CUBLAS error in cublasDgemv_v2");
    }

    /// P = A A^T, a symmetric matrix of which only the elements (i, j) with j >= i are written; the others are what the
    /// block of @p xResult held before. @p xResult is resized to rows x rows of @p xMatrix and keeps its block when
    /// that has as many elements.
    ///
    /// Throws a `CQxException` "Error multiplying matrix (with transpose)" with, as inner exception and in this order:
    /// - "Matrix size is zero" when @p xMatrix has no columns or no rows,
    /// - "Nullptr --> CLUBLAS is not initialized", "Operand is not complete on the device", "Result is an operand" and
    ///   "Count ... is too large for CUBLAS", as for `Mult`; @p xResult is untouched after these five,
    /// - "Error allocating device matrix "; @p xResult is as after its failed `Resize`,
    /// - "CUBLAS error in cublasSsyrk_v2" or "CUBLAS error in cublasDsyrk_v2"; @p xResult keeps its new size and its
    ///   contents are undefined.
    void MultWithTranspose(const CQxCudaDeviceMatrix<float>& xMatrix, CQxCudaDeviceMatrix<float>& xResult)
    {
        _MultWithTranspose(xMatrix, xResult, &cublasSsyrk_v2, "CUBLAS error in cublasSsyrk_v2");
    }
    /// The same for `double`.
    void MultWithTranspose(const CQxCudaDeviceMatrix<double>& xMatrix, CQxCudaDeviceMatrix<double>& xResult)
    {
        _MultWithTranspose(xMatrix, xResult, &cublasDsyrk_v2, "CUBLAS error in cublasDsyrk_v2");
    }

    /// The sum of the absolute values of all elements but the last one; waits for it, as cuBLAS does.
    /// @return the sum, added up in the element type; 0 for a vector of size 0, whatever the handle
    ///
    /// Throws, in this order, a `CQxException` "Nullptr --> CLUBLAS is not initialized", "Operand is not complete on
    /// the device", "Count ... is too large for CUBLAS", and "CLUBLAS error: cublasSasum_v2" or "CLUBLAS error:
    /// cublasDasum_v2".
    double SumAbs(const CQxCudaDeviceVector<float>& xVector)
    {
        return _SumAbs(xVector, &cublasSasum_v2, "CLUBLAS error: cublasSasum_v2");
    }
    /// The same for `double`.
    double SumAbs(const CQxCudaDeviceVector<double>& xVector)
    {
        return _SumAbs(xVector, &cublasDasum_v2, "CLUBLAS error: cublasDasum_v2");
    }

private:
    QX_LOCAL static constexpr const char* c_pcFile = "Source/Qx.Cuda/QxCudaDeviceMatrixMath";

    void _CheckHandle(const SThrowSite& xSite) const
    {
        if (m_pHandle == nullptr)
        {
            Throw(xSite, "Nullptr --> CLUBLAS is not initialized");
        }
    }

    // cuBLAS looks at no device pointer, so an operand without its elements must not get there.
    template <typename TOperand>
    static void _CheckOperand(const TOperand& xOperand, const SThrowSite& xSite)
    {
        if (!xOperand.IsComplete())
        {
            Throw(xSite, "Operand is not complete on the device");
        }
    }

    // Resizing the result would take the operand's elements away.
    static void _CheckResult(const void* pResult, const void* pOperand, const SThrowSite& xSite)
    {
        if (pResult == pOperand)
        {
            Throw(xSite, "Result is an operand");
        }
    }

    static int _ToInt(std::uint64_t nCount, const SThrowSite& xSite)
    {
        if (nCount > INT_MAX)
        {
            Throw(xSite, "Count ", nCount, " is too large for CUBLAS");
        }
        return static_cast<int>(nCount);
    }

    static void _CheckStatus(cublasStatus_t eStatus, const SThrowSite& xSite, const char* pcMessage)
    {
        if (eStatus != CUBLAS_STATUS_SUCCESS)
        {
            Throw(xSite, pcMessage);
        }
    }

    // To cuBLAS, which reads column by column, the rows of a matrix are columns: it sees the transpose of each matrix.
    template <typename TElement, typename TGemv>
    void _Mult(const CQxCudaDeviceMatrix<TElement>& xMatrix, const CQxCudaDeviceVector<TElement>& xVector,
        CQxCudaDeviceVector<TElement>& xResult, TGemv* pGemv, const char* pcMessage)
    {
        constexpr SThrowSite c_xSite{c_pcFile, "Mult"};
        Guard(c_xSite, "Error multiplying matrix",
            [&]
            {
                if (xMatrix.GetColCount() != xVector.GetSize())
                {
                    Throw(c_xSite, "Matrix sizes don't fit");
                }
                _CheckHandle(c_xSite);
                _CheckOperand(xMatrix, c_xSite);
                _CheckOperand(xVector, c_xSite);
                _CheckResult(&xResult, &xVector, c_xSite);
                const int iCols = _ToInt(xMatrix.GetColCount(), c_xSite);
                const int iRows = _ToInt(xMatrix.GetRowCount(), c_xSite);
                xResult.Resize(xMatrix.GetRowCount());
                const TElement tAlpha = 1;
                const TElement tBeta = 0;
                _CheckStatus(pGemv(m_pHandle, CUBLAS_OP_T, iCols, iRows, &tAlpha, xMatrix.GetDataPtr(), iCols,
                                 xVector.GetDataPtr(), 1, &tBeta, xResult.GetDataPtr(), 1),
                    c_xSite, pcMessage);
            });
    }

    template <typename TElement, typename TSyrk>
    void _MultWithTranspose(const CQxCudaDeviceMatrix<TElement>& xMatrix, CQxCudaDeviceMatrix<TElement>& xResult,
        TSyrk* pSyrk, const char* pcMessage)
    {
        constexpr SThrowSite c_xSite{c_pcFile, "MultWithTranspose"};
        Guard(c_xSite, "Error multiplying matrix (with transpose)",
            [&]
            {
                if (xMatrix.GetColCount() == 0 || xMatrix.GetRowCount() == 0)
                {
                    Throw(c_xSite, "Matrix size is zero");
                }
                _CheckHandle(c_xSite);
                _CheckOperand(xMatrix, c_xSite);
                _CheckResult(&xResult, &xMatrix, c_xSite);
                const int iCols = _ToInt(xMatrix.GetColCount(), c_xSite);
                const int iRows = _ToInt(xMatrix.GetRowCount(), c_xSite);
                xResult.Resize(xMatrix.GetRowCount(), xMatrix.GetRowCount());
                const TElement tAlpha = 1;
                const TElement tBeta = 0;
                _CheckStatus(pSyrk(m_pHandle, CUBLAS_FILL_MODE_LOWER, CUBLAS_OP_T, iRows, iCols, &tAlpha,
                                 xMatrix.GetDataPtr(), iCols, &tBeta, xResult.GetDataPtr(), iRows),
                    c_xSite, pcMessage);
            });
    }

    template <typename TElement, typename TAsum>
    double _SumAbs(const CQxCudaDeviceVector<TElement>& xVector, TAsum* pAsum, const char* pcMessage)
    {
        constexpr SThrowSite c_xSite{c_pcFile, "SumAbs"};
        if (xVector.GetSize() == 0)
        {
            return 0;
        }
        _CheckHandle(c_xSite);
        _CheckOperand(xVector, c_xSite);
        TElement tSum = 0;
        _CheckStatus(pAsum(m_pHandle, _ToInt(xVector.GetSize() - 1, c_xSite), xVector.GetDataPtr(), 1, &tSum), c_xSite,
            pcMessage);
        return static_cast<double>(tSum);
    }

    cublasContext* m_pHandle;
};

extern template class CQxCudaDeviceMatrixMath<float>;
extern template class CQxCudaDeviceMatrixMath<double>;

} // namespace Qx
