#pragma once

#include <cstdint>

#include "Qx.Core.Math/QxVector.h"
#include "Qx.Cuda/QxCudaDeviceArray.h"

namespace Qx
{

/// A vector of `float` or `double` in linear device memory.
///
/// The vector owns its block, which is allocated anew only when the element count changes. A new vector has size 0 and
/// no block. After an upload or a resize that threw a `CQxException` the size is all ones (2^64 - 1), whatever block
/// there is; the next one that succeeds makes the vector whole again.
///
/// All copies are `cudaMemcpy` calls: a download returns with the elements, an upload when the host's memory may be
/// used again. Work on a stream that was created non-blocking must therefore be preceded by
/// `cudaStreamSynchronize(nullptr)` to find uploaded elements. One thread uses a vector at a time, with the vector's
/// device current. Exceptions of other types than `CQxException` pass unchanged.
template <typename T>
class QX_CUDA_API CQxCudaDeviceVector
{
public:
    /// Size 0, no block; makes no CUDA call.
    CQxCudaDeviceVector() noexcept = default;

    // The block has one owner that stays where it is.
    CQxCudaDeviceVector(const CQxCudaDeviceVector&) = delete;
    CQxCudaDeviceVector& operator=(const CQxCudaDeviceVector&) = delete;

    /// Frees the block; a failure is dropped.
    virtual ~CQxCudaDeviceVector();

    /// Uploads all elements of @p xVector.
    ///
    /// Throws a `CQxException` "Error copying host vector to device" around "Error copying to device", inside of which
    /// is the failed allocation (there is no block then), the failed release of a block of another count (which stays),
    /// or the failed copy (the new block stays, its contents are undefined).
    void Set(const CQxVector<T>& xVector);

    /// Downloads all elements. When @p xVector has another count, its `Resize`, overridden or not, is called first.
    ///
    /// Throws what the standard library throws when @p xVector cannot grow, such as `std::length_error` after a failed
    /// `Set`, and a `CQxException` "Error copying device vector to host" around, in this order, what an overridden
    /// `Resize` throws, "Nullptr --> Invalid device pointer" without a block, "Unequal element counts" when the block
    /// does not have as many elements as @p xVector now, or a `CQxCudaException` "Error copying to host". After the
    /// last three @p xVector has been resized.
    void Get(CQxVector<T>& xVector) const;

    /// Gives the vector @p nSize elements. The contents stay when it has that many already, else they are lost and the
    /// new ones are undefined.
    ///
    /// Throws a `CQxException` "Error resizing device vector" around "Error allocating memory block on the device".
    void Resize(std::uint64_t nSize);

    /// Frees the block; the size is 0 afterwards.
    ///
    /// Throws a `CQxException` "Error deleting memory block on the device"; the vector is unchanged then.
    void Delete();

    /// The number of elements; all ones after a failure.
    std::uint64_t GetSize() const noexcept { return m_nSize; }

    /// True when there is a block.
    bool IsValid() const noexcept { return m_xArray.GetDataPtr() != nullptr; }

    /// True when the block has exactly `GetSize()` elements, so that a kernel may use them; also for size 0. Says
    /// nothing of their values, which are undefined after a resize.
    bool IsComplete() const noexcept { return m_xArray.GetCount() == m_nSize; }

    /// The first element on the device; null without a block. Stays owned by the vector.
    T* GetDataPtr() noexcept { return m_xArray.GetDataPtr(); }

    /// The same for reading.
    const T* GetDataPtr() const noexcept { return m_xArray.GetDataPtr(); }

private:
    template <typename TBody>
    void _GuardSize(const char* pcFunction, const char* pcMessage, TBody&& xBody);

    std::uint64_t m_nSize = 0;
    CQxCudaDeviceArray<T> m_xArray;
};

extern template class CQxCudaDeviceVector<float>;
extern template class CQxCudaDeviceVector<double>;

} // namespace Qx
