#include "Qx.Cuda/QxCudaDeviceMatrix.h"

namespace Qx
{

// Here, since clang++ would put one that is defaulted in its class into plug-ins too, to which the library is bound
// then.
template <typename T>
CQxCudaDeviceMatrix<T>::~CQxCudaDeviceMatrix() = default;

template class CQxCudaDeviceMatrix<float>;
template class CQxCudaDeviceMatrix<double>;

} // namespace Qx
