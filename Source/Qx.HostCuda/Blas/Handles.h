#pragma once

#include "Qx.HostCuda/Runtime/Devices.h"
#include "Qx.HostCuda/Runtime/Handle.h"

#include <cublas_v2.h>
#include <mutex>
#include <utility>

namespace Qx::HostCuda
{

/// What a cuBLAS handle stands for.
struct SContext
{
    CDevice* pDevice = nullptr;
    cudaStream_t hStream = nullptr;
    cublasPointerMode_t eMode = CUBLAS_POINTER_MODE_HOST;
};

/// All cuBLAS handles of the process.
class CHandles
{
public:
    using CTable = CSlots<SContext, cublasHandle_t, EHandle::Blas>;

    /// Never destroyed: calls may be made while the process exits.
    [[nodiscard]] static CHandles& Get();

    /// A handle of a device. @throws std::bad_alloc
    [[nodiscard]] cublasHandle_t Create(CDevice& xDevice);

    /// Result of `Function(table, slot)` for a handle. CUBLAS_STATUS_NOT_INITIALIZED: it is not alive.
    template <class F>
    auto With(cublasHandle_t hHandle, F&& Function)
    {
        const std::lock_guard xLock(m_xMutex);
        CTable::SSlot* const pSlot = m_vHandles.Find(hHandle);
        Require(pSlot != nullptr, CUBLAS_STATUS_NOT_INITIALIZED);
        return std::forward<F>(Function)(m_vHandles, *pSlot);
    }

private:
    CHandles();

    std::mutex m_xMutex;
    CTable m_vHandles;
};

/// Runs a cuBLAS call: `Function()` with what is thrown on the way turned into a status.
template <class F>
cublasStatus_t GuardedBlas(F&& Function) noexcept
{
    try
    {
        std::forward<F>(Function)();
        return CUBLAS_STATUS_SUCCESS;
    }
    catch (const SRefusal<cublasStatus_t>& xRefusal)
    {
        return xRefusal.eCode;
    }
    catch (const std::bad_alloc&)
    {
        return CUBLAS_STATUS_ALLOC_FAILED;
    }
    catch (...)
    {
        return CUBLAS_STATUS_EXECUTION_FAILED;
    }
}

/// The frame of a cuBLAS call with a handle: `Function(context)`.
template <class F>
cublasStatus_t OnHandle(cublasHandle_t hHandle, F&& Function) noexcept
{
    return GuardedBlas(
        [&]
        {
            const SContext xContext =
                CHandles::Get().With(hHandle, [](const auto&, const SContext& xFound) { return xFound; });
            Require(!ThisThread().bInHostFunction, CUBLAS_STATUS_EXECUTION_FAILED);
            std::forward<F>(Function)(xContext);
        });
}

} // namespace Qx::HostCuda
