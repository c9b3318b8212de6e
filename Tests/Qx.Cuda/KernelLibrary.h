#pragma once

#include <cuda_runtime_api.h>

#include "Qx.Cuda/QxDeviceImage2D.h"

namespace Qx::Test
{

/// The one entry of a client's library of kernels, which the tests load while they run: sets every pixel of an image
/// of bytes to a value that grows with its position, by a kernel that knows the image from constant memory only.
using PFillDescribed = void (*)(const CQxDeviceImage2D& xImage, unsigned char uFirst, cudaStream_t pStream);

inline constexpr const char* c_pcFillDescribed = "FillDescribed";

} // namespace Qx::Test
