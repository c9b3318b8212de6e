#include <algorithm>
#include <limits>
#include <vector>

#include <cublas_v2.h>

#include "RuntimeTest.h"

// The element types share all code, so float stands for both; the numbers are small whole ones, whose sums are exact.

namespace Qx::Test
{

namespace
{

using Floats = std::vector<float>;

/// A handle and three blocks of 64 floats.
class Blas : public CRuntimeTest
{
protected:
    static constexpr std::size_t c_nBytes = 64 * sizeof(float);

    void SetUp() override
    {
        CRuntimeTest::SetUp();
        ASSERT_EQ(cublasCreate(&m_hHandle), CUBLAS_STATUS_SUCCESS);
        unsigned uSeed = 0;
        for (float*& pBlock : m_vBlocks)
        {
            pBlock = static_cast<float*>(MakeMemory(c_nBytes));
            Write(pBlock, Numbers(++uSeed));
        }
    }
    void TearDown() override
    {
        for (float* const pBlock : m_vBlocks)
        {
            EXPECT_EQ(cudaFree(pBlock), cudaSuccess);
        }
        EXPECT_EQ(cublasDestroy(m_hHandle), CUBLAS_STATUS_SUCCESS);
        CRuntimeTest::TearDown();
    }

    static Floats Numbers(unsigned uSeed)
    {
        Floats vNumbers;
        for (const unsigned char uByte : MakeBytes(64, uSeed))
        {
            vNumbers.push_back(static_cast<float>(uByte % 19) - 9);
        }
        return vNumbers;
    }
    static void Write(float* pBlock, const Floats& vNumbers)
    {
        ASSERT_EQ(cudaMemcpy(pBlock, vNumbers.data(), c_nBytes, cudaMemcpyHostToDevice), cudaSuccess);
    }
    static Floats Read(const float* pBlock)
    {
        Floats vNumbers(64);
        EXPECT_EQ(cudaMemcpy(vNumbers.data(), pBlock, c_nBytes, cudaMemcpyDeviceToHost), cudaSuccess);
        return vNumbers;
    }

    cublasHandle_t m_hHandle = nullptr;
    float* m_vBlocks[3]{};
    float m_fTwo = 2;
    float m_fThree = 3;
    float m_fZero = 0;
};

/// Element of a vector with a distance between its elements, which may run backwards.
std::size_t At(int iIndex, int iCount, int iStep)
{
    return static_cast<std::size_t>(iStep > 0 ? iIndex * iStep : (iIndex - iCount + 1) * iStep);
}

TEST_F(Blas, MultipliesAMatrixOfAnyLayoutWithAVector)
{
    auto& [pA, pX, pY] = m_vBlocks;
    const Floats vA = Read(pA);
    const Floats vX = Read(pX);
    const Floats vY = Read(pY);
    for (const auto& [eTrans, iStepX, iStepY] :
        {std::tuple(CUBLAS_OP_N, 1, 1), {CUBLAS_OP_T, 1, 1}, {CUBLAS_OP_C, 2, -3}, {CUBLAS_OP_N, -2, 3}})
    {
        const bool bPlain = eTrans == CUBLAS_OP_N;
        const int iX = bPlain ? 3 : 4;
        const int iY = bPlain ? 4 : 3;
        Write(pY, vY);
        ASSERT_EQ(cublasSgemv(m_hHandle, eTrans, 4, 3, &m_fTwo, pA, 6, pX, iStepX, &m_fThree, pY, iStepY),
            CUBLAS_STATUS_SUCCESS);
        Floats vExpected = vY;
        for (int iRow = 0; iRow < iY; ++iRow)
        {
            float fSum = 0;
            for (int iCol = 0; iCol < iX; ++iCol)
            {
                const int iElement = bPlain ? iRow + 6 * iCol : iCol + 6 * iRow;
                fSum += vA[static_cast<std::size_t>(iElement)] * vX[At(iCol, iX, iStepX)];
            }
            float& fY = vExpected[At(iRow, iY, iStepY)];
            fY = 2 * fSum + 3 * fY;
        }
        EXPECT_EQ(Read(pY), vExpected) << eTrans;
    }
}

TEST_F(Blas, FillsOneTriangleOfAProductWithItsTranspose)
{
    auto& [pA, pUnused, pC] = m_vBlocks;
    const Floats vA = Read(pA);
    const Floats vC = Read(pC);
    for (const cublasFillMode_t eFill : {CUBLAS_FILL_MODE_LOWER, CUBLAS_FILL_MODE_UPPER})
    {
        for (const cublasOperation_t eTrans : {CUBLAS_OP_N, CUBLAS_OP_T})
        {
            Write(pC, vC);
            ASSERT_EQ(
                cublasSsyrk(m_hHandle, eFill, eTrans, 4, 3, &m_fTwo, pA, 5, &m_fThree, pC, 6), CUBLAS_STATUS_SUCCESS);
            Floats vExpected = vC;
            for (std::size_t nElement = 0; nElement < 16; ++nElement)
            {
                const std::size_t nRow = nElement % 4;
                const std::size_t nCol = nElement / 4;
                float fSum = 0;
                for (std::size_t nInner = 0; nInner < 3; ++nInner)
                {
                    fSum += eTrans == CUBLAS_OP_N ? vA[nRow + 5 * nInner] * vA[nCol + 5 * nInner]
                                                  : vA[nInner + 5 * nRow] * vA[nInner + 5 * nCol];
                }
                if (nRow == nCol || (nRow > nCol) == (eFill == CUBLAS_FILL_MODE_LOWER))
                {
                    float& fC = vExpected[nRow + 6 * nCol];
                    fC = 2 * fSum + 3 * fC;
                }
            }
            EXPECT_EQ(Read(pC), vExpected) << eFill << ' ' << eTrans;
        }
    }
}

TEST_F(Blas, DoesNotReadAResultThatCountsForNothing)
{
    auto& [pA, pX, pY] = m_vBlocks;
    const Floats vNothing(64, std::numeric_limits<float>::quiet_NaN());
    for (const cublasOperation_t eTrans : {CUBLAS_OP_N, CUBLAS_OP_T})
    {
        Write(pY, vNothing);
        ASSERT_EQ(cublasSgemv(m_hHandle, eTrans, 5, 5, &m_fTwo, pA, 5, pX, 1, &m_fZero, pY, 1), CUBLAS_STATUS_SUCCESS);
        const Floats vY = Read(pY);
        EXPECT_EQ(std::count_if(vY.begin(), vY.end(), [](float f) { return f == f; }), 5);
        Write(pY, vNothing);
        ASSERT_EQ(cublasSsyrk(m_hHandle, CUBLAS_FILL_MODE_LOWER, eTrans, 5, 5, &m_fTwo, pA, 5, &m_fZero, pY, 5),
            CUBLAS_STATUS_SUCCESS);
        const Floats vC = Read(pY);
        EXPECT_EQ(std::count_if(vC.begin(), vC.end(), [](float f) { return f == f; }), 15);
    }
}

TEST_F(Blas, KeepsTheOrderOfItsStreamAndWaitsOnlyForAResultOnTheHost)
{
    auto& [pA, pX, pY] = m_vBlocks;
    const CStreamScope hStream(cudaStreamNonBlocking);
    ASSERT_EQ(cublasSetStream(m_hHandle, hStream), CUBLAS_STATUS_SUCCESS);
    cudaStream_t hSet = nullptr;
    EXPECT_EQ(cublasGetStream(m_hHandle, &hSet), CUBLAS_STATUS_SUCCESS);
    EXPECT_EQ(hSet, hStream);
    CHold xHold(hStream);
    // The sum of what the memset before it leaves behind, first on the device and, after the hold, on the host.
    ASSERT_EQ(cudaMemsetAsync(pX, 0, c_nBytes, hStream), cudaSuccess);
    ASSERT_EQ(cublasSetPointerMode(m_hHandle, CUBLAS_POINTER_MODE_DEVICE), CUBLAS_STATUS_SUCCESS);
    ASSERT_EQ(cublasSasum(m_hHandle, 64, pX, 1, pY), CUBLAS_STATUS_SUCCESS);
    ASSERT_EQ(cublasSgemv(m_hHandle, CUBLAS_OP_N, 1, 1, pA, pA, 1, pA, 1, pY, pY + 1, 1), CUBLAS_STATUS_SUCCESS);
    EXPECT_EQ(cudaStreamQuery(hStream), cudaErrorNotReady);
    EXPECT_NE(Read(pX), Floats(64));
    cublasPointerMode_t eMode = CUBLAS_POINTER_MODE_HOST;
    EXPECT_EQ(cublasGetPointerMode(m_hHandle, &eMode), CUBLAS_STATUS_SUCCESS);
    EXPECT_EQ(eMode, CUBLAS_POINTER_MODE_DEVICE);
    const float fFirst = Read(pA)[0];
    xHold.Release();
    ASSERT_EQ(cublasSetPointerMode(m_hHandle, CUBLAS_POINTER_MODE_HOST), CUBLAS_STATUS_SUCCESS);
    float fSum = 7;
    EXPECT_EQ(cublasSasum(m_hHandle, 32, pX, 2, &fSum), CUBLAS_STATUS_SUCCESS);
    EXPECT_EQ(fSum, 0);
    EXPECT_EQ(Read(pY)[0], 0);
    EXPECT_EQ(Read(pY)[1], fFirst * fFirst * fFirst) << "both factors come from the device, when it is their turn";
    // Nothing to add up is 0, wherever the elements would be.
    for (const auto& [iCount, iStep] : {std::pair(0, 1), std::pair(-1, 1), std::pair(5, 0), std::pair(5, -1)})
    {
        fSum = 7;
        EXPECT_EQ(cublasSasum(m_hHandle, iCount, nullptr, iStep, &fSum), CUBLAS_STATUS_SUCCESS);
        EXPECT_EQ(fSum, 0);
    }
}

TEST_F(Blas, AnswersBadArgumentsWithoutDoingAnything)
{
    auto& [pA, pX, pY] = m_vBlocks;
    constexpr auto c_eValue = CUBLAS_STATUS_INVALID_VALUE;
    constexpr auto c_eHandle = CUBLAS_STATUS_NOT_INITIALIZED;
    [[maybe_unused]] float vHost[64]{}; // for what the stand-in refuses besides
    const auto Gemv = [&](int iTrans, int iRows, int iCols, int iLda, int iStepX, int iStepY, const float* pMatrix,
                          const float* pVector, float* pResult)
    {
        return cublasSgemv(m_hHandle, static_cast<cublasOperation_t>(iTrans), iRows, iCols, &m_fTwo, pMatrix, iLda,
            pVector, iStepX, &m_fTwo, pResult, iStepY);
    };
    const auto Syrk =
        [&](int iFill, int iTrans, int iOrder, int iInner, int iLda, int iLdc, const float* pMatrix, float* pResult)
    {
        return cublasSsyrk(m_hHandle, static_cast<cublasFillMode_t>(iFill), static_cast<cublasOperation_t>(iTrans),
            iOrder, iInner, &m_fTwo, pMatrix, iLda, &m_fTwo, pResult, iLdc);
    };
    cublasHandle_t hDead = nullptr;
    cudaStream_t hStream = nullptr;
    [[maybe_unused]] cublasPointerMode_t eMode = CUBLAS_POINTER_MODE_HOST;
    ASSERT_EQ(cublasCreate(&hDead), CUBLAS_STATUS_SUCCESS);
    ASSERT_EQ(cublasDestroy(hDead), CUBLAS_STATUS_SUCCESS);
    cublasHandle_t hNext = nullptr; // in the place of the dead one
    ASSERT_EQ(cublasCreate(&hNext), CUBLAS_STATUS_SUCCESS);
    float fSum = 7;
    [[maybe_unused]] double dSum = 7;
    const std::pair<cublasStatus_t, cublasStatus_t> vCases[]{
        {cublasCreate(nullptr), c_eValue},
        {cublasDestroy(nullptr), c_eHandle},
        {cublasSasum(nullptr, 1, pX, 1, nullptr), c_eHandle},
        {cublasGetStream(nullptr, &hStream), c_eHandle},
        {cublasGetStream(m_hHandle, nullptr), c_eValue},
        {cublasSasum(m_hHandle, 1, pX, 1, nullptr), c_eValue},
        {Gemv(CUBLAS_OP_CONJG, 2, 2, 2, 1, 1, pA, pX, pY), c_eValue},
        {Gemv(CUBLAS_OP_N, -1, 2, 2, 1, 1, pA, pX, pY), c_eValue},
        {Gemv(CUBLAS_OP_N, 2, -1, 2, 1, 1, pA, pX, pY), c_eValue},
        {Gemv(CUBLAS_OP_N, 2, 2, 1, 1, 1, pA, pX, pY), c_eValue},
        {Gemv(CUBLAS_OP_N, 0, 2, 0, 1, 1, pA, pX, pY), c_eValue},
        {Gemv(CUBLAS_OP_N, 2, 2, 2, 0, 1, pA, pX, pY), c_eValue},
        {Gemv(CUBLAS_OP_N, 2, 2, 2, 1, 0, pA, pX, pY), c_eValue},
        {Syrk(CUBLAS_FILL_MODE_FULL, CUBLAS_OP_N, 2, 2, 2, 2, pA, pY), c_eValue},
        {Syrk(CUBLAS_FILL_MODE_LOWER, CUBLAS_OP_CONJG, 2, 2, 2, 2, pA, pY), c_eValue},
        {Syrk(CUBLAS_FILL_MODE_LOWER, CUBLAS_OP_T, -1, 2, 2, 2, pA, pY), c_eValue},
        {Syrk(CUBLAS_FILL_MODE_LOWER, CUBLAS_OP_T, 2, -1, 2, 2, pA, pY), c_eValue},
        {Syrk(CUBLAS_FILL_MODE_LOWER, CUBLAS_OP_T, 2, 3, 2, 2, pA, pY), c_eValue},
        {Syrk(CUBLAS_FILL_MODE_LOWER, CUBLAS_OP_N, 3, 2, 2, 3, pA, pY), c_eValue},
        {Syrk(CUBLAS_FILL_MODE_LOWER, CUBLAS_OP_N, 2, 2, 2, 1, pA, pY), c_eValue},
        {cublasSgemv(m_hHandle, CUBLAS_OP_N, 1, 1, nullptr, pA, 1, pX, 1, &m_fTwo, pY, 1), c_eValue},
        {cublasSsyrk(m_hHandle, CUBLAS_FILL_MODE_LOWER, CUBLAS_OP_N, 1, 1, &m_fTwo, pA, 1, nullptr, pY, 1), c_eValue},
#ifdef QX_HOSTCUDA // cuBLAS looks at no pointer and no dead handle
        {cublasDestroy(hDead), c_eHandle},
        {cublasDestroy(reinterpret_cast<cublasHandle_t>(vHost)), c_eHandle},
        {cublasSasum(hDead, 1, pX, 1, &fSum), c_eHandle},
        {cublasSetStream(m_hHandle, reinterpret_cast<cudaStream_t>(vHost)), c_eValue},
        {cublasSetStream(m_hHandle, cudaStreamPerThread), CUBLAS_STATUS_NOT_SUPPORTED},
        {cublasGetPointerMode(hDead, &eMode), c_eHandle},
        {cublasSasum(m_hHandle, 65, pX, 1, &fSum), c_eValue}, // one element too many
        {cublasSasum(m_hHandle, 33, pX, 2, &fSum), c_eValue},
        {cublasSasum(m_hHandle, 1, vHost, 1, &fSum), c_eValue}, // no device memory
        {cublasSasum(m_hHandle, INT32_MAX, pX, INT32_MAX, &fSum), c_eValue},
        // 2^61 + 9 elements, whose bytes counted in 64 bits are 72.
        {cublasDasum(m_hHandle, 1073807363, reinterpret_cast<const double*>(pX), 2147352580, &dSum), c_eValue},
        {Gemv(CUBLAS_OP_N, 8, 9, 8, 1, 1, pA, pX, pY), c_eValue},
        {Gemv(CUBLAS_OP_N, 2, 2, 2, 64, 1, pA, pX, pY), c_eValue},
        {Gemv(CUBLAS_OP_N, 2, 2, 2, 1, -64, pA, pX, pY), c_eValue},
        {Gemv(CUBLAS_OP_N, 2, 2, 2, 1, 1, nullptr, pX, pY), c_eValue},
        {Gemv(CUBLAS_OP_N, 2, 2, 2, 1, 1, pA, pX, vHost), c_eValue},
        {Syrk(CUBLAS_FILL_MODE_LOWER, CUBLAS_OP_N, 9, 1, 9, 9, pA, pY), c_eValue},
        {Syrk(CUBLAS_FILL_MODE_LOWER, CUBLAS_OP_N, 2, 2, 2, 2, vHost, pY), c_eValue},
#endif
        // What there is nothing of may be anywhere.
        {Gemv(CUBLAS_OP_N, 0, 2, 1, 1, 1, nullptr, nullptr, nullptr), CUBLAS_STATUS_SUCCESS},
        {Syrk(CUBLAS_FILL_MODE_LOWER, CUBLAS_OP_N, 0, 2, 1, 1, nullptr, nullptr), CUBLAS_STATUS_SUCCESS},
    };
    for (const auto& [eActual, eExpected] : vCases)
    {
        EXPECT_EQ(eActual, eExpected) << &eActual - &vCases[0].first;
    }
    EXPECT_EQ(fSum, 7);
    EXPECT_EQ(Read(pY), Numbers(3));
    EXPECT_EQ(cublasDestroy(hNext), CUBLAS_STATUS_SUCCESS);
}

#ifdef QX_HOSTCUDA
TEST_F(Blas, FailsWhereTheDeviceCannotWork)
{
    float fSum = 7;
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    EXPECT_EQ(cublasSasum(m_hHandle, 64, m_vBlocks[0], 1, &fSum), CUBLAS_STATUS_EXECUTION_FAILED);
    EXPECT_EQ(HostCuda::RaiseFault(1, cudaErrorIllegalAddress), cudaSuccess);
    cublasHandle_t hHandle = nullptr;
    EXPECT_EQ(cublasCreate(&hHandle), CUBLAS_STATUS_NOT_INITIALIZED);
    EXPECT_EQ(hHandle, nullptr);
    EXPECT_EQ(cudaDeviceReset(), cudaSuccess);
    ASSERT_EQ(cublasCreate(&hHandle), CUBLAS_STATUS_SUCCESS);
    const auto* const pBlock = static_cast<const float*>(MakeMemory(64));
    EXPECT_EQ(HostCuda::RaiseFault(1, cudaErrorIllegalAddress), cudaSuccess);
    EXPECT_EQ(cublasSasum(hHandle, 16, pBlock, 1, &fSum), CUBLAS_STATUS_EXECUTION_FAILED);
    EXPECT_EQ(fSum, 7);
    EXPECT_EQ(cudaDeviceReset(), cudaSuccess);
    EXPECT_EQ(cublasDestroy(hHandle), CUBLAS_STATUS_SUCCESS);
    ASSERT_EQ(cudaSetDevice(0), cudaSuccess);
}
#endif

} // namespace

} // namespace Qx::Test
