#include "Qx.Core/QxExport.h"

// The functions are inline in their header, and nothing in this library calls them; clients that were compiled against
// their declarations alone find them here. The attribute has to come before the definitions.
namespace Qx::CudaCall
{

[[gnu::used]] QX_CUDA_API int GetDeviceID();
[[gnu::used]] QX_CUDA_API void SetDeviceID(int iDeviceID);

} // namespace Qx::CudaCall

#include "Qx.Cuda.Core/Cuda.h"
