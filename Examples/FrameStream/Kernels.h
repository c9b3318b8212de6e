#pragma once

#include "Qx.Cuda/QxCuda.h"

namespace Qx::Examples
{

/// Sharpens a frame, queued on the stream: every channel moves away from the mean of its four neighbours.
/// @param xFrame,xResult "RGBA" "UByte" of the same extent; both must live until the stream has reached the work
void Sharpen(const CQxDeviceImage2D& xFrame, const CQxDeviceImage2D& xResult, cudaStream_t pStream);

} // namespace Qx::Examples
