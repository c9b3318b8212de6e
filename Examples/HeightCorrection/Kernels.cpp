// The kernel, written once: nvcc compiles this file for the GPU, any C++ compiler for the host.
//
// It gets the same bits as the library's host code because both use the same float operations, each rounded by itself.
// A GPU compiler fuses a product and the sum that it goes into to one operation, which rounds once; so there is no
// product of floats here that goes into a sum. Coordinates are integers and a half, which are exact; heights come from
// memory. The division is the one that rounds correctly, as it is unless the compiler is asked for fast arithmetic
// (-use_fast_math, -prec-div=false).

#include "HeightCorrection/Kernels.h"

#include "Common/DevicePixels.h"
#include "Qx.Cuda/QxLaunchKernel.h"

namespace Qx::Examples
{

namespace
{

// The index of the cell along an axis, -1 when the coordinate is in none. Only quotients that an int holds are
// converted.
__device__ int _CellIndex(const SMappingDesc& xMapping, int iAxis, float fCoordinate)
{
    const float fQuotient = (fCoordinate - xMapping.afMinimum[iAxis]) / xMapping.afSteps[iAxis];
    const int iIndex = fQuotient > -1.0F && fQuotient < 2147483648.0F ? static_cast<int>(fQuotient) : -1;
    return iIndex < xMapping.aiCounts[iAxis] ? iIndex : -1;
}

__global__ void CorrectionKernel(SDeviceImageDesc2D xMeasured, SDeviceImageDesc2D xCorrected, SMappingDesc xMapping)
{
    int x = 0;
    int y = 0;
    if (!FindPixel(xMeasured, x, y))
    {
        return;
    }
    const float afPoint[3] = {static_cast<float>(x) + 0.5F, static_cast<float>(y) + 0.5F, At<float>(xMeasured, x, y)};
    int aiIndex[3] = {};
    bool bInCell = true;
    for (int iAxis = 0; iAxis < 3; ++iAxis)
    {
        aiIndex[iAxis] = _CellIndex(xMapping, iAxis, afPoint[iAxis]);
        bInCell = bInCell && aiIndex[iAxis] >= 0 && afPoint[iAxis] > xMapping.afMinimum[iAxis] &&
            afPoint[iAxis] < xMapping.afMaximum[iAxis];
    }
    const int* const aiCounts = xMapping.aiCounts;
    const int iCell = aiIndex[2] * (aiCounts[0] * aiCounts[1]) + aiIndex[0] * aiCounts[1] + aiIndex[1];
    const float fValue = bInCell ? xMapping.pValues[iCell] : 0.0F;
    // Not added when it is 0, which would turn a height of -0 into 0.
    At<float>(xCorrected, x, y) = fValue != 0.0F ? afPoint[2] + fValue : afPoint[2];
}

} // namespace

SMappingDesc Describe(const CQxMapping3D& xMapping, const CQxDeviceMapping3D& xDevice)
{
    SMappingDesc xDesc{};
    xDesc.pValues = xDevice.GetDevicePointer();
    for (std::size_t nAxis = 0; nAxis < 3; ++nAxis)
    {
        xDesc.afMinimum[nAxis] = xMapping.GetMinimum()[nAxis];
        xDesc.afMaximum[nAxis] = xMapping.GetMaximum()[nAxis];
        xDesc.aiCounts[nAxis] = xMapping.GetCellCounts()[nAxis];
        xDesc.afSteps[nAxis] = xMapping.GetStepSizes()[nAxis];
    }
    return xDesc;
}

void CorrectHeights(CQxCudaComp& xComp, const CQxDeviceImage2D& xMeasured, const CQxDeviceImage2D& xCorrected,
    const SMappingDesc& xMapping, cudaStream_t pStream)
{
    xComp.Begin("CorrectHeights", pStream);
    LaunchKernel<CorrectionKernel>(xComp, pStream, xMeasured.GetDesc(), xCorrected.GetDesc(), xMapping);
    xComp.End("CorrectHeights", pStream);
}

} // namespace Qx::Examples
