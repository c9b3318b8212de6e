#include "RuntimeFacts.h"

#include <cublas_v2.h>
#include <cuda_runtime_api.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <typeinfo>

// Compiled twice: against the stand-in's headers and against the toolkit's. QX_FACTS is the name of the function that
// gives the answers of one of them.

namespace Qx::Test
{

namespace
{

template <class T>
SFact MakeValue(const char* pcName, T xValue)
{
    if constexpr (std::is_pointer_v<T>)
    {
        return {pcName, std::to_string(reinterpret_cast<std::intptr_t>(xValue))};
    }
    else
    {
        return {pcName, std::to_string(static_cast<long long>(xValue))};
    }
}

SFact MakeType(const char* pcName, const std::type_info& xType)
{
    return {pcName, xType.name()};
}

} // namespace

#define QX_VALUE(expression) MakeValue(#expression, expression)
#define QX_TYPE(expression) MakeType(#expression, typeid(decltype(expression)))

std::vector<SFact> QX_FACTS()
{
    return {
// All enumerators, constants and functions that the stand-in's headers declare.
#include "DeclaredNames.inc"
        // Default arguments.
        QX_TYPE(cudaMallocManaged(nullptr, 1)),
        QX_TYPE(cudaMallocArray(nullptr, nullptr, 1)),
        QX_TYPE(cudaMemcpyAsync(nullptr, nullptr, 1, cudaMemcpyDefault)),
        QX_TYPE(cudaMemcpy2DAsync(nullptr, 1, nullptr, 1, 1, 1, cudaMemcpyDefault)),
        QX_TYPE(cudaMemsetAsync(nullptr, 1, 1)),
        QX_TYPE(cudaMemset2DAsync(nullptr, 1, 1, 1, 1)),
        QX_TYPE(cudaMemcpyToSymbol(nullptr, nullptr, 1)),
        QX_TYPE(cudaMemcpyToSymbolAsync(nullptr, nullptr, 1, 0, cudaMemcpyDefault)),
        QX_TYPE(cudaMemcpyFromSymbol(nullptr, nullptr, 1)),
        QX_TYPE(cudaMemcpyFromSymbolAsync(nullptr, nullptr, 1, 0, cudaMemcpyDefault)),
        QX_TYPE(cudaStreamWaitEvent(nullptr, nullptr)),
        QX_TYPE(cudaEventRecord(nullptr)),
        // Types.
        QX_TYPE(cudaHostFn_t{}),
        QX_TYPE(cublasHandle_t{}),
        QX_VALUE(sizeof(cublasStatus_t)),
        QX_VALUE(sizeof(cublasOperation_t)),
        QX_VALUE(sizeof(cudaError_t)),
        QX_VALUE(sizeof(cudaChannelFormatDesc)),
        QX_VALUE(offsetof(cudaChannelFormatDesc, w)),
        QX_VALUE(offsetof(cudaChannelFormatDesc, f)),
        QX_VALUE(sizeof(cudaExtent)),
        QX_VALUE(offsetof(cudaExtent, depth)),
        QX_VALUE(sizeof(cudaPointerAttributes)),
        QX_VALUE(offsetof(cudaPointerAttributes, device)),
        QX_VALUE(offsetof(cudaPointerAttributes, hostPointer)),
        QX_VALUE(sizeof(uint3)),
        QX_VALUE(sizeof(dim3)),
        QX_VALUE(alignof(dim3)),
        QX_VALUE(dim3().x),
        QX_VALUE(dim3(7).y),
        QX_VALUE(dim3(7, 8).z),
        QX_VALUE(static_cast<uint3>(dim3(7, 8, 9)).y),
        QX_VALUE(dim3(uint3{4, 5, 6}).z),
    };
}

} // namespace Qx::Test
