#pragma once

#include <cuda_runtime_api.h>

#include "Qx.Cuda.Core/QxCudaException.h"

/// The CUDA device of the calling thread.
namespace Qx::CudaCall
{

/// The calling thread's current CUDA device. Throws a `CQxCudaException` "Error getting CUDA device ID" when the
/// runtime cannot tell.
QX_CUDA_API inline int GetDeviceID()
{
    int iDeviceID = 0;
    CheckCuda(cudaGetDevice(&iDeviceID), {"Qx.Cuda.Core/Cuda", "GetDeviceID"}, "Error getting CUDA device ID");
    return iDeviceID;
}

/// Makes @p iDeviceID the calling thread's current CUDA device; other threads keep theirs. Throws a `CQxCudaException`
/// "Error setting CUDA device ID" when there is no such device or it cannot be used; the thread then keeps its device.
QX_CUDA_API inline void SetDeviceID(int iDeviceID)
{
    CheckCuda(cudaSetDevice(iDeviceID), {"Qx.Cuda.Core/Cuda", "SetDeviceID"}, "Error setting CUDA device ID");
}

} // namespace Qx::CudaCall
