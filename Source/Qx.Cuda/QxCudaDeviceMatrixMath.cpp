#include "Qx.Cuda/QxCudaDeviceMatrixMath.h"

namespace Qx
{

template class CQxCudaDeviceMatrixMath<float>;
template class CQxCudaDeviceMatrixMath<double>;

} // namespace Qx
