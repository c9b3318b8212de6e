#pragma once

#include "Qx.Cuda/QxCuda.h"

namespace Qx::Examples
{

/// A surface whose heights are the brightness of a picture, 0 to 255.
/// @param xPicture "RGBA" "UByte"
/// @return "Lum" "Float" of the same extent
CQxImage MakeSurface(const CQxImage& xPicture);

/// What a sensor that errs by place and height makes of a surface.
CQxImage Measure(const CQxImage& xSurface);

/// The volume that corrects the sensor: what to add to a height in each cell, which is the negative error in the
/// middle of it. Its box is the map's columns and rows by all heights that the sensor can find.
/// @param xFormat the format of the height maps
CQxMapping3D MakeCorrection(const CQxImageFormat& xFormat);

} // namespace Qx::Examples
