#pragma once

#include <cstddef>

#include <cuda_runtime_api.h>

#include "Qx.Core/QxException.h"

namespace Qx
{

/// The CUDA runtime's allocation calls with every failure turned into an exception that says what was attempted.
///
/// Nothing is kept here: the caller owns each block and gives it back through the free operation of its kind. All
/// operations but `ToString` work on the calling thread's current device and make one CUDA call, unless they refuse a
/// byte count beyond 64 bits; they may be called from any thread and wait for the device where the CUDA call does. A
/// failed allocation is not tried again.
class CQxDeviceMMU
{
public:
    CQxDeviceMMU() = delete;

    /// Allocates @p nCount x @p nElementSize bytes of linear device memory, which are not initialised. 0 bytes yield a
    /// null pointer.
    ///
    /// Throws a `CQxOutOfMemoryException` "Error allocating CUDA memory. Out of memory" when the device has not enough
    /// memory, or (without a CUDA call) when the product exceeds 64 bits; a `CQxCudaException` "Error allocating CUDA
    /// memory" for any other failure. Running out of memory leaves the thread's last CUDA error as it is.
    static QX_CUDA_API void* QxCudaMalloc(std::size_t nCount, std::size_t nElementSize);

    /// Allocates @p nHeight rows of @p nWidth bytes in pitched device memory, which are not initialised.
    /// @param nPitch receives the distance of the rows in bytes; keeps its value on a failure
    ///
    /// Throws as `QxCudaMalloc` does.
    static QX_CUDA_API void* QxCudaMallocPitch(std::size_t& nPitch, std::size_t nWidth, std::size_t nHeight);

    /// Allocates a CUDA array that kernels can read and write through surfaces.
    /// @param xDesc what an element consists of
    /// @param nWidth elements of a row
    /// @param nHeight rows; 0 for a one-dimensional array
    ///
    /// Throws, told apart by what CUDA answers: a `CQxException` "Error allocating CUDA array memory. Invalid channel
    /// descriptor ..." with the text of @p xDesc, a `CQxOutOfMemoryException` "Error allocating CUDA memory. Out of
    /// memory", or a `CQxCudaException` "Error allocating CUDA array memory". Only the last of them resets the thread's
    /// last CUDA error.
    static QX_CUDA_API cudaArray* QxCudaMallocArray(
        const cudaChannelFormatDesc& xDesc, std::size_t nWidth, std::size_t nHeight);

    /// Frees linear or pitched device memory; null is passed on, which CUDA accepts.
    ///
    /// Throws a `CQxCudaException` "Error freeing CUDA memory".
    static QX_CUDA_API void QxCudaFree(void* pMemory);

    /// Frees a CUDA array; null is passed on, which CUDA accepts.
    ///
    /// Throws a `CQxCudaException` "Error freeing CUDA array memory".
    static QX_CUDA_API void QxCudaFreeArray(cudaArray* pArray);

    /// The text of a channel descriptor: "(x: 32, y: 0, z: 0, w: 0, f: Float)", bits in decimal; kinds besides Signed,
    /// Unsigned, Float and None read Unknown.
    static QX_CUDA_API CQxString ToString(const cudaChannelFormatDesc& xDesc);
};

} // namespace Qx
