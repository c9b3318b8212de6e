#include "Qx.Cuda/QxCudaDeviceMatrixMath.h"

namespace Qx
{

// Here, since clang++ would put one that is defaulted in its class into plug-ins too, to which the library is bound
// then.
template <typename T>
CQxCudaDeviceMatrixMath<T>::~CQxCudaDeviceMatrixMath() = default;

template class CQxCudaDeviceMatrixMath<float>;
template class CQxCudaDeviceMatrixMath<double>;

} // namespace Qx
