#pragma once

/// @file
/// Everything that the library offers but `Qx.Cuda/QxLaunchKernel.h`, which belongs into files with kernels.

#include "Qx.Core.Ex/QxFormatter.h"
#include "Qx.Core.Ex/QxImageView.h"
#include "Qx.Cuda.Core/Cuda.h"
#include "Qx.Cuda/QxCudaComp.h"
#include "Qx.Cuda/QxCudaCompDebug.h"
#include "Qx.Cuda/QxCudaDeviceMatrix.h"
#include "Qx.Cuda/QxCudaDeviceMatrixMath.h"
#include "Qx.Cuda/QxCudaDeviceMemory.h"
#include "Qx.Cuda/QxCudaDeviceVector.h"
#include "Qx.Cuda/QxDeviceImage1D.h"
#include "Qx.Cuda/QxDeviceImage2D.h"
#include "Qx.Cuda/QxDeviceMMU.h"
#include "Qx.Cuda/QxDeviceMapping3D.h"
#include "Qx.Cuda/QxPageLockedImage.h"
#include "Qx.GPU.ResourceManager/ResourceManager.h"
