#pragma once

#include "Qx.Cuda/QxCuda.h"

namespace Qx::Examples
{

/// Draws a test chart as an "RGBA" "UByte" image: colour bars, a grey ramp, rings that get finer outwards, and a frame
/// of one pixel, so that a lost row or column, a swapped channel or a wrong pitch can be seen.
/// @param iWidth,iHeight pixels, at least 1 each
CQxImage DrawTestChart(int iWidth, int iHeight);

} // namespace Qx::Examples
