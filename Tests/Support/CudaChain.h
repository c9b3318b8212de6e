#pragma once

#include <cuda_runtime_api.h>

#include "Qx.Cuda.Core/QxCudaException.h"
#include "Support/Chain.h"

namespace Qx::Test
{

/// The link of a failed CUDA call: the runtime's name and description of @p eError and the device are appended to the
/// message.
inline SLink Cuda(
    const char* pcMessage, cudaError_t eError, const char* pcFunction, const char* pcFile, int iDevice = 0)
{
    std::ostringstream sMessage;
    sMessage << pcMessage << ". '" << cudaGetErrorName(eError) << ": " << cudaGetErrorString(eError) << " (ID "
             << static_cast<int>(eError) << ")', Device ID: " << iDevice;
    return {"Qx.CudaException", sMessage.str(), pcFunction, pcFile};
}

} // namespace Qx::Test
