#pragma once

#include "Qx.Cuda/QxCuda.h"

namespace Qx::Examples
{

/// What a debug kind asks the kernels below to report.
constexpr auto c_eReportClipped = static_cast<CudaDebug::EKind>(1);

/// The largest sample of a 12-bit sensor; a pixel that reads it is clipped.
constexpr int c_iWhite = 4095;

/// Develops a raw frame: rebuilds the two colours that each pixel of the sensor has not seen from its neighbours, and
/// waits for the result. With the debug kind `c_eReportClipped` every clipped pixel is reported as a debug item:
/// position x, y, sample.
/// @param xComp configured for the frame's format
/// @param xRaw "BayerRG" "Custom_12in16_LSB"
/// @param xGreen "Lum" "Float" of the same extent, for what lies between the two steps
/// @param xPicture "RGBA" "UByte" of the same extent
void Demosaic(CQxCudaComp& xComp, const CQxDeviceImage2D& xRaw, const CQxDeviceImage2D& xGreen,
    const CQxDeviceImage2D& xPicture, cudaStream_t pStream);

/// Draws how strongly the brightness changes at each pixel, as grey, and waits for the result. The kernel finds the
/// description of its source in constant memory.
/// @param xPicture,xEdges "RGBA" "UByte" of the same extent
void DetectEdges(
    CQxCudaComp& xComp, const CQxDeviceImage2D& xPicture, const CQxDeviceImage2D& xEdges, cudaStream_t pStream);

} // namespace Qx::Examples
