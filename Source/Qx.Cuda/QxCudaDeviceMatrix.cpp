#include "Qx.Cuda/QxCudaDeviceMatrix.h"

namespace Qx
{

template class CQxCudaDeviceMatrix<float>;
template class CQxCudaDeviceMatrix<double>;

} // namespace Qx
