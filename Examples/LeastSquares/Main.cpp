// Fits a camera's colour correction by least squares: many samples on the device, few unknowns on the host.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include <Eigen/Dense>

#include "Common/Program.h"
#include "Qx.Cuda/QxCuda.h"

namespace
{

using namespace Qx;
using namespace Qx::Examples;
using Correction = Eigen::Matrix<double, 3, 4>;
using Rows = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;

constexpr int c_iPatches = 24;
constexpr int c_iSamples = c_iPatches * 400;
constexpr const char* c_pcHelp = R"(usage: qx_leastsquares [-n NOISE]

Photographs a colour chart with a made-up camera, which mixes the channels and adds an offset and noise, and fits the
3 x 4 matrix that undoes it by least squares. Prints the matrix and the mean error of a channel before and after.

  -n NOISE  standard deviation of the noise, 0 to 0.05 of full scale (default: 0.01)
  --help    this text
)";

struct SSamples
{
    CQxMatrix<double> xMeasured{4, c_iSamples}; // one row a channel, and one of ones for the offset
    Rows xChart{3, c_iSamples};                 // what should have been measured
};

// The camera's channels see each other's colours, and black is not 0.
const Correction c_xCamera =
    (Correction() << 0.70, 0.22, 0.06, 0.03, 0.14, 0.66, 0.17, 0.02, 0.03, 0.24, 0.58, 0.04).finished();

SSamples _Photograph(double dNoise)
{
    SSamples xSamples;
    std::uint64_t uState = 1; // the same numbers on every machine
    const auto Random = [&]
    {
        uState = uState * 6364136223846793005U + 1442695040888963407U;
        return static_cast<double>(uState >> 11) / 9007199254740992.0;
    };
    Eigen::Vector4d vColour(0, 0, 0, 1);
    for (int iSample = 0; iSample < c_iSamples; ++iSample)
    {
        if (iSample % (c_iSamples / c_iPatches) == 0)
        {
            vColour.head<3>() = Eigen::Vector3d::NullaryExpr([&] { return 0.05 + 0.9 * Random(); });
        }
        xSamples.xChart.col(iSample) = vColour.head<3>();
        Eigen::Vector4d vSeen(0, 0, 0, 1);
        vSeen.head<3>() = c_xCamera * vColour;
        for (int iTerm = 0; iTerm < 12; ++iTerm) // a sum of twelve is close to normally distributed
        {
            vSeen.head<3>() += dNoise * Eigen::Vector3d::NullaryExpr([&] { return Random() - 0.5; });
        }
        Eigen::Map<Rows>(xSamples.xMeasured.GetDataPtr(), 4, c_iSamples).col(iSample) = vSeen;
    }
    return xSamples;
}

// The correction X with the smallest |X M - R|: X (M M^T) = R M^T, a system of 4 equations for each channel.
Correction _Fit(CQxCudaDeviceMatrixMath<double>& xMath, const SSamples& xSamples)
{
    CQxCudaDeviceMatrix<double> xMeasured, xProduct;
    CQxMatrix<double> xNormal;
    xMeasured.Set(xSamples.xMeasured);
    xMath.MultWithTranspose(xMeasured, xProduct);
    xProduct.Get(xNormal);
    // Only what is on and to the right of the diagonal has been computed; nothing else may be read.
    const Eigen::Matrix4d xUpper = Eigen::Map<const Rows>(xNormal.GetDataPtr(), 4, 4).triangularView<Eigen::Upper>();
    const Eigen::LDLT<Eigen::Matrix4d, Eigen::Upper> xSolver(xUpper);
    Correction xCorrection;
    for (int iChannel = 0; iChannel < 3; ++iChannel)
    {
        CQxVector<double> vHost(c_iSamples);
        Eigen::Map<Eigen::RowVectorXd>(vHost.GetDataPtr(), c_iSamples) = xSamples.xChart.row(iChannel);
        CQxCudaDeviceVector<double> xReference, xSide;
        xReference.Set(vHost);
        xMath.Mult(xMeasured, xReference, xSide);
        xSide.Get(vHost);
        xCorrection.row(iChannel) = xSolver.solve(Eigen::Map<const Eigen::Vector4d>(vHost.GetDataPtr())).transpose();
    }
    return xCorrection;
}

// The mean difference between the chart and the measured colours after a correction.
double _MeanError(CQxCudaDeviceMatrixMath<double>& xMath, const SSamples& xSamples, const Correction& xCorrection)
{
    CQxVector<double> vErrors(3 * c_iSamples + 1); // the sum leaves the last element out
    Eigen::Map<Rows>(vErrors.GetDataPtr(), 3, c_iSamples) =
        xCorrection * Eigen::Map<const Rows>(xSamples.xMeasured.GetDataPtr(), 4, c_iSamples) - xSamples.xChart;
    CQxCudaDeviceVector<double> xErrors;
    xErrors.Set(vErrors);
    return xMath.SumAbs(xErrors) / (3 * c_iSamples);
}

void _LeastSquares(const SCommandLine& xLine)
{
    const std::string sNoise = xLine.Setting("-n", "0.01");
    char* pcEnd = nullptr;
    const double dNoise = std::strtod(sNoise.c_str(), &pcEnd);
    if (*pcEnd != '\0' || !(dNoise >= 0 && dNoise <= 0.05))
    {
        throw std::runtime_error("noise '" + sNoise + "' is not a number from 0 to 0.05");
    }
    PrintPlatform();
    cublasHandle_t hHandle = nullptr;
    if (cublasCreate(&hHandle) != CUBLAS_STATUS_SUCCESS)
    {
        throw std::runtime_error("cuBLAS gives no handle");
    }
    const std::unique_ptr<cublasContext, decltype(&cublasDestroy)> pOwner(hHandle, &cublasDestroy);
    CQxCudaDeviceMatrixMath<double> xMath(hHandle);
    const SSamples xSamples = _Photograph(dNoise);
    const Correction xCorrection = _Fit(xMath, xSamples);
    const double dBefore = _MeanError(xMath, xSamples, Correction::Identity());
    const double dAfter = _MeanError(xMath, xSamples, xCorrection);
    // The camera and the correction one after the other change nothing, but for what the noise does to the fit.
    const double dOff = (xCorrection.leftCols<3>() * c_xCamera.leftCols<3>() - Eigen::Matrix3d::Identity()).norm();
    std::printf("chart     %d patches, %d samples, noise %g\n", c_iPatches, c_iSamples, dNoise);
    for (int iChannel = 0; iChannel < 3; ++iChannel)
    {
        std::printf("%c         %8.5f r %+8.5f g %+8.5f b %+8.5f\n", "rgb"[iChannel], xCorrection(iChannel, 0),
            xCorrection(iChannel, 1), xCorrection(iChannel, 2), xCorrection(iChannel, 3));
    }
    std::printf("error     %.6f before, %.6f after\n", dBefore, dAfter);
    if (!(dAfter < dBefore && dOff < 1e-9 + 10 * dNoise))
    {
        throw std::runtime_error("the correction does not undo what the camera does");
    }
    std::printf("result    camera and correction together are off by %.6f\n", dOff);
}

} // namespace

int main(int iArguments, char** ppcArguments)
{
    return RunProgram({"qx_leastsquares", c_pcHelp, {"-n"}, 0}, iArguments, ppcArguments, _LeastSquares);
}
