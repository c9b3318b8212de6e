#include <cuda_runtime.h>

#if defined(QX_REFUSED_HEADER)
#include QX_REFUSED_HEADER
#endif

// Compiled once as it is, which must succeed, and once for each thing that kernels on the host may not do.

__global__ void Kernel(int* pValue)
{
#if defined(QX_REFUSED_CODE)
    QX_REFUSED_CODE;
#endif
    atomicAdd(pValue, static_cast<int>(threadIdx.x));
}

cudaError_t Launch(int* pValue)
{
    cudaLaunchConfig_t xConfig{};
    return cudaLaunchKernelEx(&xConfig, Kernel, pValue);
}
