#pragma once

#include <cuda_runtime_api.h>

#include "Qx.Cuda/QxDeviceImage2D.h"

namespace Qx::Test
{

// The entries of a client's library of kernels, which the tests load while they run.

/// Sets every pixel of an image of bytes to a value that grows with its position, by a kernel that knows the image from
/// constant memory only.
using PFillDescribed = void (*)(const CQxDeviceImage2D& xImage, unsigned char uFirst, cudaStream_t pStream);
inline constexpr const char* c_pcFillDescribed = "FillDescribed";

/// Creates an image of the program for a format that it refuses, catches the exception, and throws a failed CUDA call
/// of its own when the exception is the right one.
using PThrow = void (*)(CQxDeviceImage2D& xImage);
inline constexpr const char* c_pcThrow = "Throw";

/// Makes an image that lives until the library is unloaded.
using PKeepImage = void (*)();
inline constexpr const char* c_pcKeepImage = "KeepImage";

} // namespace Qx::Test
