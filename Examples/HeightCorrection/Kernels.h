#pragma once

#include "Qx.Cuda/QxCuda.h"

namespace Qx::Examples
{

/// A mapping volume as a kernel sees it. Triples are in the order x, y, z.
struct SMappingDesc
{
    const float* pValues; ///< on the device
    float afMinimum[3];
    float afMaximum[3];
    int aiCounts[3];
    float afSteps[3];
};

/// The description of the device copy of a mapping.
/// @param xMapping what @p xDevice was created from
SMappingDesc Describe(const CQxMapping3D& xMapping, const CQxDeviceMapping3D& xDevice);

/// Corrects every height of a map by the value of the cell that it falls into, and waits for the result. The point of
/// column x and row y is (x + 0.5, y + 0.5, height); a point outside the volume keeps its height.
///
/// The result is that of `CQxDeviceMapping3D::Map`, bit for bit.
/// @param xComp configured for the map's format
/// @param xMeasured,xCorrected "Lum" "Float" of the same extent
void CorrectHeights(CQxCudaComp& xComp, const CQxDeviceImage2D& xMeasured, const CQxDeviceImage2D& xCorrected,
    const SMappingDesc& xMapping, cudaStream_t pStream);

} // namespace Qx::Examples
