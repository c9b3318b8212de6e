#include "Qx.Cuda/QxDeviceMMU.h"

#include <cstring>

#include "Qx.Cuda.Core/QxCudaException.h"

namespace Qx
{

namespace
{

constexpr const char* c_pcFile = "Source/Qx.Cuda/QxDeviceMMU";

// Running out of memory reads the same whatever was to be allocated; the function in the exception tells it apart.
constexpr const char* c_pcOutOfMemory = "Error allocating CUDA memory. Out of memory";

[[noreturn, gnu::cold]] void _ThrowNotAllocated(cudaError eResult, const SThrowPlace& xPlace, const char* pcMessage)
{
    if (eResult == cudaErrorMemoryAllocation)
    {
        ThrowOutOfMemory(xPlace, c_pcOutOfMemory);
    }
    ThrowCuda(xPlace, pcMessage);
}

} // namespace

void* CQxDeviceMMU::QxCudaMalloc(std::size_t nCount, std::size_t nElementSize)
{
    static constexpr SThrowSite c_xSite{c_pcFile, "QxCudaMalloc"};
    std::size_t nByteCount = 0;
    if (__builtin_mul_overflow(nCount, nElementSize, &nByteCount)) [[unlikely]]
    {
        ThrowOutOfMemory(c_xSite, c_pcOutOfMemory);
    }
    void* pMemory = nullptr;
    if (const cudaError eResult = cudaMalloc(&pMemory, nByteCount); eResult != cudaSuccess) [[unlikely]]
    {
        _ThrowNotAllocated(eResult, c_xSite, "Error allocating CUDA memory");
    }
    return pMemory;
}

void* CQxDeviceMMU::QxCudaMallocPitch(std::size_t& nPitch, std::size_t nWidth, std::size_t nHeight)
{
    static constexpr SThrowSite c_xSite{c_pcFile, "QxCudaMallocPitch"};
    void* pMemory = nullptr;
    if (const cudaError eResult = cudaMallocPitch(&pMemory, &nPitch, nWidth, nHeight); eResult != cudaSuccess)
        [[unlikely]]
    {
        _ThrowNotAllocated(eResult, c_xSite, "Error allocating CUDA memory");
    }
    return pMemory;
}

cudaArray* CQxDeviceMMU::QxCudaMallocArray(const cudaChannelFormatDesc& xDesc, std::size_t nWidth, std::size_t nHeight)
{
    static constexpr SThrowSite c_xSite{c_pcFile, "QxCudaMallocArray"};
    cudaArray* pArray = nullptr;
    if (const cudaError eResult = cudaMallocArray(&pArray, &xDesc, nWidth, nHeight, cudaArraySurfaceLoadStore);
        eResult != cudaSuccess) [[unlikely]]
    {
        if (eResult == cudaErrorInvalidChannelDescriptor)
        {
            Throw(c_xSite, "Error allocating CUDA array memory. Invalid channel descriptor ", ToString(xDesc));
        }
        _ThrowNotAllocated(eResult, c_xSite, "Error allocating CUDA array memory");
    }
    return pArray;
}

void CQxDeviceMMU::QxCudaFree(void* pMemory)
{
    CheckCuda(cudaFree(pMemory), {c_pcFile, "QxCudaFree"}, "Error freeing CUDA memory");
}

void CQxDeviceMMU::QxCudaFreeArray(cudaArray* pArray)
{
    CheckCuda(cudaFreeArray(pArray), {c_pcFile, "QxCudaFreeArray"}, "Error freeing CUDA array memory");
}

CQxString CQxDeviceMMU::ToString(const cudaChannelFormatDesc& xDesc)
{
    const auto GetKind = [&]
    {
        // A number that is no enumerator must not be read as one.
        int iKind = 0;
        static_assert(sizeof iKind == sizeof xDesc.f);
        std::memcpy(&iKind, &xDesc.f, sizeof iKind);
        switch (iKind)
        {
        case cudaChannelFormatKindSigned:
            return "Signed)";
        case cudaChannelFormatKindUnsigned:
            return "Unsigned)";
        case cudaChannelFormatKindFloat:
            return "Float)";
        case cudaChannelFormatKindNone:
            return "None)";
        default:
            return "Unknown)";
        }
    };
    return MakeText("(x: ", xDesc.x, ", y: ", xDesc.y, ", z: ", xDesc.z, ", w: ", xDesc.w, ", f: ", GetKind());
}

} // namespace Qx
