#pragma once

#include <cstdint>
#include <type_traits>

#include <cuda_runtime_api.h>

#include "Qx.Cuda.Core/QxCudaException.h"
#include "Qx.Cuda/QxDeviceMMU.h"

namespace Qx
{

/// The device block of a vector or matrix: at most one linear block, which keeps the element count that it was
/// allocated with. The pointer is null exactly when there is no block.
///
/// For `CQxCudaDeviceVector` and `CQxCudaDeviceMatrix`, which wrap its exceptions in their own. Copies use
/// `cudaMemcpy`; one thread uses an array at a time.
template <typename T>
class CQxCudaDeviceArray
{
    static_assert(std::is_same_v<T, float> || std::is_same_v<T, double>, "device arrays hold float or double");

public:
    /// No block; makes no CUDA call.
    CQxCudaDeviceArray() noexcept = default;

    // The block has one owner that stays where it is.
    CQxCudaDeviceArray(const CQxCudaDeviceArray&) = delete;
    CQxCudaDeviceArray& operator=(const CQxCudaDeviceArray&) = delete;

    /// Frees the block; a failure is dropped.
    ~CQxCudaDeviceArray()
    {
        Quietly([&] { Delete(); });
    }

    /// Frees the block, if there is one.
    ///
    /// Throws a `CQxException` "Error deleting memory block on the device" around the failure of
    /// `CQxDeviceMMU::QxCudaFree`; the block then stays.
    void Delete()
    {
        if (m_pDevice == nullptr)
        {
            return;
        }
        Guard({c_pcFile, "Delete"}, "Error deleting memory block on the device",
            [&] { CQxDeviceMMU::QxCudaFree(m_pDevice); });
        m_nCount = 0;
        m_pDevice = nullptr;
    }

    /// Replaces the block by one of @p nCount elements, which are not initialised.
    ///
    /// Throws a `CQxException` "Error allocating memory block on the device" around the failure of `Delete` (the old
    /// block stays) or of `CQxDeviceMMU::QxCudaMalloc` (there is no block).
    void New(std::uint64_t nCount)
    {
        Guard({c_pcFile, "New"}, "Error allocating memory block on the device",
            [&]
            {
                Delete();
                m_pDevice = static_cast<T*>(CQxDeviceMMU::QxCudaMalloc(nCount, sizeof(T)));
                m_nCount = nCount;
            });
    }

    /// Makes sure that the block has @p nCount elements, at no cost when it has them already; other contents are lost.
    /// Throws what `New` throws.
    void Require(std::uint64_t nCount)
    {
        if (m_pDevice == nullptr || m_nCount != nCount)
        {
            New(nCount);
        }
    }

    /// Makes sure that the block has @p nCount elements and copies them from host memory at @p pHost.
    ///
    /// Throws a `CQxException` "Error copying to device" around the failure of `New` or a `CQxCudaException` without a
    /// text of its own for a failed copy, after which the block stays with undefined contents.
    void ToDevice(const T* pHost, std::uint64_t nCount)
    {
        constexpr SThrowSite c_xSite{c_pcFile, "ToDevice"};
        Guard(c_xSite, "Error copying to device",
            [&]
            {
                Require(nCount);
                CheckCuda(cudaMemcpy(m_pDevice, pHost, nCount * sizeof(T), cudaMemcpyHostToDevice), c_xSite, "");
            });
    }

    /// Copies the block to host memory at @p pHost, which has room for @p nCount elements.
    ///
    /// Throws, in this order: a `CQxException` "Nullptr --> Invalid device pointer" without a block, "Unequal element
    /// counts" when the block has another count, and a `CQxCudaException` "Error copying to host".
    void ToHost(T* pHost, std::uint64_t nCount) const
    {
        constexpr SThrowSite c_xSite{c_pcFile, "ToHost"};
        if (m_pDevice == nullptr)
        {
            Throw(c_xSite, "Nullptr --> Invalid device pointer");
        }
        if (nCount != m_nCount)
        {
            Throw(c_xSite, "Unequal element counts");
        }
        CheckCuda(
            cudaMemcpy(pHost, m_pDevice, nCount * sizeof(T), cudaMemcpyDeviceToHost), c_xSite, "Error copying to host");
    }

    /// The elements of the block; 0 without one.
    std::uint64_t GetCount() const noexcept { return m_nCount; }

    /// The first element on the device; null without a block.
    T* GetDataPtr() noexcept { return m_pDevice; }

    /// The same for reading.
    const T* GetDataPtr() const noexcept { return m_pDevice; }

private:
    QX_LOCAL static constexpr const char* c_pcFile = "Source/Qx.Cuda/QxCudaDeviceArray";

    std::uint64_t m_nCount = 0;
    T* m_pDevice = nullptr;
};

} // namespace Qx
