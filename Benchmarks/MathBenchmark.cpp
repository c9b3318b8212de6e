// What the library adds to the copies and the cuBLAS calls that its vectors and matrices make, and, on the host, what
// the stand-in for cuBLAS adds to OpenBLAS.

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>
#ifdef QX_BENCHMARK_CBLAS
#include <cblas.h>
#endif

#include "Qx.Cuda/QxCuda.h"

namespace
{

using namespace Qx;

// A square matrix and vectors that fit it, on the host and on the device, shared by all that is measured at one size.
struct SOperands
{
    explicit SOperands(int iOrder)
        : iSize(iOrder),
          xHost(static_cast<std::uint64_t>(iOrder), static_cast<std::uint64_t>(iOrder)),
          vHost(static_cast<std::size_t>(iOrder)),
          vLong(static_cast<std::size_t>(iOrder) * static_cast<std::size_t>(iOrder))
    {
        for (std::size_t nIndex = 0; nIndex < vLong.GetSize(); ++nIndex)
        {
            xHost.GetDataPtr()[nIndex] = vLong[nIndex] = static_cast<float>(nIndex % 101) / 101.0F;
        }
        xMatrix.Set(xHost);
        xVector.Set(vHost);
        xLong.Set(vLong);
        xResult.Resize(vHost.GetSize());
        xProduct.Set(xHost);
        if (cublasCreate(&hHandle) != CUBLAS_STATUS_SUCCESS)
        {
            std::abort();
        }
    }

    int iSize;
    CQxMatrix<float> xHost;
    CQxVector<float> vHost;
    CQxVector<float> vLong;
    CQxCudaDeviceMatrix<float> xMatrix, xProduct;
    CQxCudaDeviceVector<float> xVector, xLong, xResult;
    cublasHandle_t hHandle = nullptr; // lives as long as the process
    float fOne = 1;
    float fZero = 0;
    float fSum = 0;
};

#ifdef QX_BENCHMARK_CBLAS
constexpr int c_iQueue = 32;
#endif

using Step = std::function<bool(SOperands&)>;

void _Register(const std::string& sName, const std::shared_ptr<SOperands>& pOperands, const Step& xStep)
{
    auto* const pBenchmark = benchmark::RegisterBenchmark(sName.c_str(),
        [pOperands, xStep](benchmark::State& xState)
        {
            for ([[maybe_unused]] auto _ : xState)
            {
                if (!xStep(*pOperands))
                {
                    xState.SkipWithError("a call failed");
                    break;
                }
            }
        });
    if (sName.starts_with("Mult")) // products run on a thread of the stand-in; the others keep the caller busy
    {
        pBenchmark->UseRealTime();
    }
}

// The products are only queued; what is measured is the time until they are there.
bool _Await()
{
    return cudaDeviceSynchronize() == cudaSuccess;
}

bool _Await(cublasStatus_t eStatus)
{
    return eStatus == CUBLAS_STATUS_SUCCESS && _Await();
}

/// The operands of one size, and the names of what is measured with them.
class CSize
{
public:
    explicit CSize(int iSize)
        : m_pOperands(std::make_shared<SOperands>(iSize)), m_sSize(std::to_string(iSize) + "x" + std::to_string(iSize))
    {
    }
    void operator()(const std::string& sOperation, const char* pcSide, const Step& xStep) const
    {
        _Register(sOperation + '/' + m_sSize + '/' + pcSide, m_pOperands, xStep);
    }
    [[nodiscard]] std::size_t GetByteCount() const { return m_pOperands->vLong.GetSize() * sizeof(float); }

private:
    std::shared_ptr<SOperands> m_pOperands;
    std::string m_sSize;
};

void _RegisterCopies(const CSize& Add)
{
    const std::size_t nBytes = Add.GetByteCount();
    Add("Set", "library",
        [](SOperands& x)
        {
            x.xMatrix.Set(x.xHost);
            return true;
        });
    Add("Set", "bare",
        [=](SOperands& x) {
            return cudaMemcpy(x.xMatrix.GetDataPtr(), x.xHost.GetDataPtr(), nBytes, cudaMemcpyHostToDevice) ==
                cudaSuccess;
        });
    Add("Get", "library",
        [](SOperands& x)
        {
            x.xMatrix.Get(x.xHost);
            return true;
        });
    Add("Get", "bare",
        [=](SOperands& x) {
            return cudaMemcpy(x.xHost.GetDataPtr(), x.xMatrix.GetDataPtr(), nBytes, cudaMemcpyDeviceToHost) ==
                cudaSuccess;
        });
}

void _RegisterProducts(const CSize& Add)
{
    Add("Mult", "library",
        [](SOperands& x)
        {
            CQxCudaDeviceMatrixMath<float>(x.hHandle).Mult(x.xMatrix, x.xVector, x.xResult);
            return _Await();
        });
    Add("Mult", "bare",
        [](SOperands& x)
        {
            return _Await(cublasSgemv(x.hHandle, CUBLAS_OP_T, x.iSize, x.iSize, &x.fOne, x.xMatrix.GetDataPtr(),
                x.iSize, x.xVector.GetDataPtr(), 1, &x.fZero, x.xResult.GetDataPtr(), 1));
        });
    Add("MultWithTranspose", "library",
        [](SOperands& x)
        {
            CQxCudaDeviceMatrixMath<float>(x.hHandle).MultWithTranspose(x.xMatrix, x.xProduct);
            return _Await();
        });
    Add("MultWithTranspose", "bare",
        [](SOperands& x)
        {
            return _Await(cublasSsyrk(x.hHandle, CUBLAS_FILL_MODE_LOWER, CUBLAS_OP_T, x.iSize, x.iSize, &x.fOne,
                x.xMatrix.GetDataPtr(), x.iSize, &x.fZero, x.xProduct.GetDataPtr(), x.iSize));
        });
    Add("SumAbs", "library",
        [](SOperands& x)
        {
            x.fSum = static_cast<float>(CQxCudaDeviceMatrixMath<float>(x.hHandle).SumAbs(x.xLong));
            return x.fSum > 0;
        });
    Add("SumAbs", "bare",
        [](SOperands& x) {
            return cublasSasum(x.hHandle, x.iSize * x.iSize - 1, x.xLong.GetDataPtr(), 1, &x.fSum) ==
                CUBLAS_STATUS_SUCCESS;
        });
}

#ifdef QX_BENCHMARK_CBLAS
/// The device's memory is the host's here. A single product is too short to hide that it is handed to another
/// thread, so several are queued, which is what the queue is for.
void _RegisterOpenBlas(const CSize& Add)
{
    Add("MultQueue", "bare",
        [](SOperands& x)
        {
            bool bDone = true;
            for (int iCall = 0; iCall < c_iQueue; ++iCall)
            {
                bDone = cublasSgemv(x.hHandle, CUBLAS_OP_T, x.iSize, x.iSize, &x.fOne, x.xMatrix.GetDataPtr(), x.iSize,
                            x.xVector.GetDataPtr(), 1, &x.fZero, x.xResult.GetDataPtr(), 1) == CUBLAS_STATUS_SUCCESS &&
                    bDone;
            }
            return bDone && _Await();
        });
    Add("MultQueue", "openblas",
        [](SOperands& x)
        {
            for (int iCall = 0; iCall < c_iQueue; ++iCall)
            {
                cblas_sgemv(CblasColMajor, CblasTrans, x.iSize, x.iSize, 1, x.xMatrix.GetDataPtr(), x.iSize,
                    x.xVector.GetDataPtr(), 1, 0, x.xResult.GetDataPtr(), 1);
            }
            return true;
        });
    Add("MultWithTranspose", "openblas",
        [](SOperands& x)
        {
            cblas_ssyrk(CblasColMajor, CblasLower, CblasTrans, x.iSize, x.iSize, 1, x.xMatrix.GetDataPtr(), x.iSize, 0,
                x.xProduct.GetDataPtr(), x.iSize);
            return true;
        });
    Add("SumAbs", "openblas",
        [](SOperands& x)
        {
            x.fSum = cblas_sasum(x.iSize * x.iSize - 1, x.xLong.GetDataPtr(), 1);
            return x.fSum > 0;
        });
}
#endif

} // namespace

int main(int iArguments, char** ppcArguments)
{
    for (const int iSize : {256, 512, 1024})
    {
        const CSize xSize(iSize);
        _RegisterCopies(xSize);
        _RegisterProducts(xSize);
#ifdef QX_BENCHMARK_CBLAS
        _RegisterOpenBlas(xSize);
#endif
    }
    benchmark::Initialize(&iArguments, ppcArguments);
    if (benchmark::ReportUnrecognizedArguments(iArguments, ppcArguments))
    {
        return EXIT_FAILURE;
    }
    return benchmark::RunSpecifiedBenchmarks() > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
