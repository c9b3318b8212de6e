#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "Qx.Cuda/QxCuda.h"
#include "Qx.CudaRecorder/CudaRecorder.h"
#include "Support/CudaChain.h"
#include "Support/Stream.h"
#include "Support/Sweep.h"

namespace Qx::Test
{

namespace
{

constexpr const char* c_pcFile = "Source/Qx.Cuda/QxCudaDeviceMatrixMath";
constexpr std::uint64_t c_nOne = 1;

template <typename TParameter, typename TElement>
struct STypes
{
    using Math = CQxCudaDeviceMatrixMath<TParameter>;
    using Element = TElement;
};

/// A cuBLAS handle and operands of any shape with reproducible elements between -1 and 1.
template <typename TTypes>
class MatrixMath : public ::testing::Test
{
protected:
    using T = typename TTypes::Element;
    using Math = typename TTypes::Math;
    using Vector = CQxCudaDeviceVector<T>;
    using Matrix = CQxCudaDeviceMatrix<T>;

    static_assert(std::has_virtual_destructor_v<Math> && sizeof(Math) == 16);

    void SetUp() override { ASSERT_EQ(cublasCreate(&m_hHandle), CUBLAS_STATUS_SUCCESS); }
    void TearDown() override { EXPECT_EQ(cublasDestroy(m_hHandle), CUBLAS_STATUS_SUCCESS); }

    T _Random()
    {
        m_uState = m_uState * 6364136223846793005U + 1442695040888963407U;
        return static_cast<T>(static_cast<std::int64_t>(m_uState >> 32) - (1LL << 31)) / static_cast<T>(1U << 31);
    }
    CQxVector<T> _HostVector(std::size_t nSize)
    {
        CQxVector<T> xVector(nSize);
        std::generate_n(xVector.GetDataPtr(), nSize, [&] { return _Random(); });
        return xVector;
    }
    CQxMatrix<T> _HostMatrix(std::uint64_t nRows, std::uint64_t nCols)
    {
        CQxMatrix<T> xMatrix(nRows, nCols);
        std::generate_n(xMatrix.GetDataPtr(), nRows * nCols, [&] { return _Random(); });
        return xMatrix;
    }
    template <typename THost>
    static auto _Upload(const THost& xHost)
    {
        auto pDevice = std::make_unique<std::conditional_t<std::is_same_v<THost, CQxVector<T>>, Vector, Matrix>>();
        pDevice->Set(xHost);
        return pDevice;
    }

    /// Compares with the exact value of a sum of products; summed in any order it is off by at most n eps sum |a b|.
    static void _ExpectSum(T tActual, std::uint64_t nTerms, const std::function<long double(std::uint64_t)>& xTerm)
    {
        long double dSum = 0;
        long double dMagnitude = 0;
        for (std::uint64_t nTerm = 0; nTerm < nTerms; ++nTerm)
        {
            dSum += xTerm(nTerm);
            dMagnitude += std::abs(xTerm(nTerm));
        }
        const long double dBound = static_cast<long double>(nTerms) * std::numeric_limits<T>::epsilon() * dMagnitude;
        EXPECT_LE(std::abs(static_cast<long double>(tActual) - dSum), dBound) << nTerms << " terms";
    }

    static constexpr bool c_bFloat = std::is_same_v<T, float>;
    static inline const SLink c_xMult = Plain("Error multiplying matrix", "Mult", c_pcFile);
    static inline const SLink c_xSyrk =
        Plain("Error multiplying matrix (with transpose)", "MultWithTranspose", c_pcFile);

    cublasHandle_t m_hHandle = nullptr;
    std::uint64_t m_uState = 1;
};

using AllTypes =
    ::testing::Types<STypes<float, float>, STypes<float, double>, STypes<double, float>, STypes<double, double>>;
TYPED_TEST_SUITE(MatrixMath, AllTypes, );

TYPED_TEST(MatrixMath, ComputesProductsAndSumsOfAnyShape)
{
    using Element = typename TypeParam::Element;
    typename TypeParam::Math xMath(this->m_hHandle);
    const std::pair<std::uint64_t, std::uint64_t> vShapes[]{
        {1, 1}, {1, 7}, {7, 1}, {2, 3}, {13, 5}, {31, 97}, {127, 128}, {1000, 1000}};
    for (const auto& [nRows, nCols] : vShapes)
    {
        SCOPED_TRACE(std::to_string(nRows) + " x " + std::to_string(nCols));
        const CQxMatrix<Element> xA = this->_HostMatrix(nRows, nCols);
        const CQxVector<Element> xX = this->_HostVector(nCols);
        const auto pA = this->_Upload(xA);
        const auto pX = this->_Upload(xX);

        // Results hold what must not be read and, below the diagonal, not be written.
        CQxVector<Element> xY(nRows);
        std::fill_n(xY.GetDataPtr(), nRows, std::numeric_limits<Element>::quiet_NaN());
        const auto pY = this->_Upload(xY);
        const Element* const pBefore = pY->GetDataPtr();
        xMath.Mult(*pA, *pX, *pY);
        EXPECT_EQ(pY->GetDataPtr(), pBefore);
        pY->Get(xY);
        for (std::uint64_t nRow = 0; nRow < nRows; ++nRow)
        {
            this->_ExpectSum(xY[nRow], nCols,
                [&, nRow = nRow](std::uint64_t nCol) { return static_cast<long double>(xA(nRow, nCol)) * xX[nCol]; });
        }

        CQxMatrix<Element> xP(nRows, nRows);
        std::fill_n(xP.GetDataPtr(), nRows * nRows, std::numeric_limits<Element>::quiet_NaN());
        const auto pP = this->_Upload(xP);
        xMath.MultWithTranspose(*pA, *pP);
        pP->Get(xP);
        const std::uint64_t nStep = nRows * nRows > 20000 ? 331 : 1; // a prime, so that all columns are met
        for (std::uint64_t nIndex = 0; nIndex < nRows * nRows; nIndex += nStep)
        {
            const std::uint64_t nRow = nIndex / nRows;
            const std::uint64_t nCol = nIndex % nRows;
            if (nCol < nRow)
            {
                EXPECT_TRUE(std::isnan(xP(nRow, nCol))) << nRow << ", " << nCol << " was written";
            }
            else
            {
                this->_ExpectSum(xP(nRow, nCol), nCols,
                    [&](std::uint64_t nInner)
                    { return static_cast<long double>(xA(nRow, nInner)) * xA(nCol, nInner); });
            }
        }

        const double dSum = xMath.SumAbs(*pX);
        EXPECT_EQ(dSum, static_cast<double>(static_cast<Element>(dSum))) << "summed in the element type";
        this->_ExpectSum(static_cast<Element>(dSum), nCols - 1,
            [&](std::uint64_t nTerm) { return std::abs(static_cast<long double>(xX[nTerm])); });
    }
}

TYPED_TEST(MatrixMath, MakesOneCallWithTheseArguments)
{
    using Element = typename TypeParam::Element;
    using Arguments = std::vector<std::uint64_t>;
    const auto Address = [](const void* pMemory)
    { return static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(pMemory)); };
    typename TypeParam::Math xMath(this->m_hHandle);
    const auto pA = this->_Upload(this->_HostMatrix(3, 2));
    const auto pX = this->_Upload(this->_HostVector(2));
    const auto pY = this->_Upload(this->_HostVector(3));
    const auto pP = this->_Upload(this->_HostMatrix(9, 1));
    const std::uint64_t uHandle = Address(this->m_hHandle);
    CCudaRecorder::Reset();
    xMath.Mult(*pA, *pX, *pY);
    xMath.MultWithTranspose(*pA, *pP);
    xMath.SumAbs(*pX);
    const auto vCalls = CCudaRecorder::Calls();
    const bool bFloat = TestFixture::c_bFloat;
    const std::string sAsum = bFloat ? "cublasSasum_v2" : "cublasDasum_v2";
    EXPECT_EQ(CCudaRecorder::CallNames(),
        (std::vector<std::string>{
            bFloat ? "cublasSgemv_v2" : "cublasDgemv_v2", bFloat ? "cublasSsyrk_v2" : "cublasDsyrk_v2", sAsum}));
    ASSERT_EQ(vCalls.size(), 3U);
    const std::uint64_t uA = Address(pA->GetDataPtr());
    const std::uint64_t uX = Address(pX->GetDataPtr());
    const std::uint64_t uY = Address(pY->GetDataPtr());
    const std::uint64_t uP = Address(pP->GetDataPtr());
    EXPECT_EQ(vCalls[0].vArguments, (Arguments{uHandle, CUBLAS_OP_T, 2, 3, 1, uA, 2, uX, 1, 0, uY, 1}));
    EXPECT_EQ(
        vCalls[1].vArguments, (Arguments{uHandle, CUBLAS_FILL_MODE_LOWER, CUBLAS_OP_T, 3, 2, 1, uA, 2, 0, uP, 3}));
    EXPECT_EQ(
        (Arguments{vCalls[2].vArguments.begin(), vCalls[2].vArguments.end() - 1}), (Arguments{uHandle, 1, uX, 1}));
    EXPECT_EQ(pP->GetRowCount(), 3U);
    EXPECT_EQ(pP->GetColCount(), 3U);

    // The handle is the client's: its stream and what else it was set to stay.
    const CStreamScope xStream;
    ASSERT_EQ(cublasSetStream(this->m_hHandle, xStream), CUBLAS_STATUS_SUCCESS);
    xMath.Mult(*pA, *pX, *pY);
    xMath.MultWithTranspose(*pA, *pP);
    xMath.SumAbs(*pX);
    cudaStream_t pStream = nullptr;
    EXPECT_EQ(cublasGetStream(this->m_hHandle, &pStream), CUBLAS_STATUS_SUCCESS);
    EXPECT_EQ(pStream, static_cast<cudaStream_t>(xStream));
    EXPECT_EQ(cudaStreamSynchronize(xStream), cudaSuccess);
    ASSERT_EQ(cublasSetStream(this->m_hHandle, nullptr), CUBLAS_STATUS_SUCCESS);

    CQxVector<Element> xShort(3);
    xShort[0] = 1, xShort[1] = -2, xShort[2] = 3;
    EXPECT_EQ(xMath.SumAbs(*this->_Upload(xShort)), 3.0);
    CCudaRecorder::Reset();
    EXPECT_EQ(xMath.SumAbs(*this->_Upload(this->_HostVector(1))), 0.0);
    EXPECT_EQ(CCudaRecorder::Last(sAsum.c_str()).vArguments[1], 0U);
    EXPECT_EQ(typename TypeParam::Math(nullptr).SumAbs(typename TestFixture::Vector()), 0.0);
}

TYPED_TEST(MatrixMath, RefusesWhatCublasWouldNotNotice)
{
    using F = TestFixture;
    typename F::Math xMath(this->m_hHandle);
    typename F::Math xNull(nullptr);
    const auto pA = this->_Upload(this->_HostMatrix(3, 2));
    const auto pX = this->_Upload(this->_HostVector(2));
    const auto pY = this->_Upload(this->_HostVector(5));
    const auto pP = this->_Upload(this->_HostMatrix(2, 2));
    const auto pSquare = this->_Upload(this->_HostMatrix(2, 2));
    typename F::Matrix xNoRows, xNoCols, xManyRows, xBroken;
    typename F::Vector xFailed;
    xNoRows.Resize(0, 2);
    xNoCols.Resize(2, 0);
    xManyRows.Resize(c_nOne << 31, 0);
    const typename F::Vector xEmpty;
    // Counts without elements behind them: a failed upload, and one whose old block survives under the new counts.
    CCudaRecorder::FailCall("cudaMalloc", 1, cudaErrorUnknown, true);
    EXPECT_THROW(xFailed.Set(this->_HostVector(2)), CQxException);
    EXPECT_THROW(xBroken.Set(this->_HostMatrix(3, 2)), CQxException);
    typename F::Matrix xStale;
    CCudaRecorder::ClearFailure();
    xStale.Set(this->_HostMatrix(1, 1));
    CCudaRecorder::FailCall("cudaFree", 1, cudaErrorUnknown);
    EXPECT_THROW(xStale.Set(this->_HostMatrix(3, 2)), CQxException);
    typename F::Matrix xWide;
    xWide.Resize(0, UINT64_MAX); // fits the size of the failed vector

    const auto Mult = [](const char* pcMessage) { return std::vector{F::c_xMult, Plain(pcMessage, "Mult", c_pcFile)}; };
    const auto Syrk = [](const char* pcMessage) {
        return std::vector{F::c_xSyrk, Plain(pcMessage, "MultWithTranspose", c_pcFile)};
    };
    const auto Sum = [](const char* pcMessage) { return std::vector{Plain(pcMessage, "SumAbs", c_pcFile)}; };
    const char* const pcFit = "Matrix sizes don't fit";
    const char* const pcNull = "Nullptr --> CLUBLAS is not initialized";
    const char* const pcZero = "Matrix size is zero";
    const char* const pcIncomplete = "Operand is not complete on the device";
    const char* const pcAlias = "Result is an operand";
    const std::pair<std::function<void()>, std::vector<SLink>> vCases[]{
        {[&] { xNull.Mult(*pA, *pY, *pY); }, Mult(pcFit)}, // sizes come first
        {[&] { xNull.Mult(*pA, *pX, *pX); }, Mult(pcNull)},
        {[&] { xMath.Mult(xBroken, *pX, *pY); }, Mult(pcIncomplete)},
        {[&] { xMath.Mult(xStale, *pX, *pY); }, Mult(pcIncomplete)},
        {[&] { xMath.Mult(xWide, xFailed, *pY); }, Mult(pcIncomplete)},
        {[&] { xMath.Mult(*pA, *pX, *pX); }, Mult(pcAlias)},
        {[&] { xMath.Mult(xManyRows, xEmpty, *pY); }, Mult("Count 2147483648 is too large for CUBLAS")},
        {[&] { xNull.MultWithTranspose(xNoRows, *pP); }, Syrk(pcZero)},
        {[&] { xNull.MultWithTranspose(xNoCols, *pP); }, Syrk(pcZero)},
        {[&] { xNull.MultWithTranspose(xBroken, *pP); }, Syrk(pcNull)},
        {[&] { xMath.MultWithTranspose(xBroken, *pP); }, Syrk(pcIncomplete)},
        {[&] { xMath.MultWithTranspose(xStale, *pP); }, Syrk(pcIncomplete)},
        {[&] { xMath.MultWithTranspose(*pSquare, *pSquare); }, Syrk(pcAlias)},
        {[&] { xNull.SumAbs(xFailed); }, Sum(pcNull)},
        {[&] { xMath.SumAbs(xFailed); }, Sum(pcIncomplete)},
    };
    for (const auto& [xStep, vChain] : vCases)
    {
        CCudaRecorder::Reset();
        EXPECT_TRUE(ThrowsChain(xStep, vChain));
        EXPECT_TRUE(CCudaRecorder::Calls().empty()) << "results stay untouched and cuBLAS is not called";
    }
    EXPECT_EQ(pX->GetSize() + pY->GetSize() + pP->GetRowCount() + pSquare->GetRowCount(), 11U);

    // A matrix without rows has nothing to be missed.
    xMath.Mult(xNoRows, *pX, *pY);
    EXPECT_EQ(pY->GetSize(), 0U);
}

TYPED_TEST(MatrixMath, EveryFailingCallIsReportedAndTheResultLeftAsPromised)
{
    using F = TestFixture;
    typename F::Math xMath(this->m_hHandle);
    const auto pA = this->_Upload(this->_HostMatrix(3, 2));
    const auto pX = this->_Upload(this->_HostVector(2));
    const std::string sType = F::c_bFloat ? "S" : "D";
    const SLink xGemv = Plain(("CUBLAS error in cublas" + sType + "gemv_v2").c_str(), "Mult", c_pcFile);
    const SLink xSyrk = Plain(("CUBLAS error in cublas" + sType + "syrk_v2").c_str(), "MultWithTranspose", c_pcFile);
    const SLink xAsum = Plain(("CLUBLAS error: cublas" + sType + "asum_v2").c_str(), "SumAbs", c_pcFile);

    // The calls are: free, allocate, compute.
    const auto Sweep = [](auto&& xPrepare, auto&& xOperation, auto&& xGetSize, const SLink& xOuter, const SLink& xInner,
                           std::uint64_t nSizeBefore)
    {
        const auto Check = [&](auto& pResult, int iCall, const CQxException& xException)
        {
            EXPECT_EQ(iCall == 3, bool(IsChain(xException, {xOuter, xInner})));
            EXPECT_STREQ(xException.GetMessageText().ToCString(), xOuter.sMessage.c_str());
            EXPECT_EQ(xGetSize(*pResult), iCall == 3 ? 3U : nSizeBefore);
            EXPECT_EQ(pResult->IsValid(), iCall != 2);
            xOperation(pResult);
            EXPECT_EQ(xGetSize(*pResult), 3U);
        };
        EXPECT_EQ(SweepFailures(xPrepare, xOperation, Check), 3);
    };
    Sweep([&] { return this->_Upload(this->_HostVector(5)); }, [&](auto& pY) { xMath.Mult(*pA, *pX, *pY); },
        [](const auto& xY) { return xY.GetSize(); }, F::c_xMult, xGemv, UINT64_MAX);
    Sweep([&] { return this->_Upload(this->_HostMatrix(2, 2)); }, [&](auto& pP) { xMath.MultWithTranspose(*pA, *pP); },
        [](const auto& xP) { return xP.GetRowCount(); }, F::c_xSyrk, xSyrk, 2);
    const auto Check = [&](int, int, const CQxException& xException) { EXPECT_TRUE(IsChain(xException, {xAsum})); };
    EXPECT_EQ(SweepFailures([] { return 0; }, [&](int) { xMath.SumAbs(*pX); }, Check), 1);
}

} // namespace

} // namespace Qx::Test
