#include "Qx.HostCuda/Blas/Handles.h"

#include "Qx.HostCuda/Runtime/Sanitizer.h"
#include "Qx.HostCuda/Streams/Schedule.h"

#if defined(QX_HOSTCUDA_TSAN)
#include <cblas.h>
#endif

namespace Qx::HostCuda
{

CHandles& CHandles::Get()
{
    static CHandles& s_xHandles = *new CHandles;
    return s_xHandles;
}

CHandles::CHandles()
{
#if defined(QX_HOSTCUDA_TSAN)
    // ThreadSanitizer does not see how OpenBLAS orders its own threads and would report each result as a race.
    openblas_set_num_threads(1);
#endif
}

cublasHandle_t CHandles::Create(CDevice& xDevice)
{
    const std::lock_guard xLock(m_xMutex);
    CTable::SSlot& xSlot = m_vHandles.Create(xDevice.GetID());
    static_cast<SContext&>(xSlot) = {&xDevice};
    return xSlot.hHandle;
}

} // namespace Qx::HostCuda

using namespace Qx::HostCuda;

cublasStatus_t cublasCreate_v2(cublasHandle_t* handle)
{
    if (handle == nullptr)
    {
        return CUBLAS_STATUS_INVALID_VALUE;
    }
    switch (Guarded([&] { *handle = CHandles::Get().Create(CurrentDevice().RequireHealthy()); }))
    {
    case cudaSuccess:
        return CUBLAS_STATUS_SUCCESS;
    case cudaErrorMemoryAllocation:
        return CUBLAS_STATUS_ALLOC_FAILED;
    default:
        return CUBLAS_STATUS_NOT_INITIALIZED;
    }
}

cublasStatus_t cublasDestroy_v2(cublasHandle_t handle)
{
    return GuardedBlas([&] { CHandles::Get().With(handle, [](auto& vTable, auto& xSlot) { vTable.Free(xSlot); }); });
}

cublasStatus_t cublasSetStream_v2(cublasHandle_t handle, cudaStream_t streamId)
{
    return OnHandle(handle,
        [&](const SContext& xContext)
        {
            Require(streamId != cudaStreamPerThread, CUBLAS_STATUS_NOT_SUPPORTED);
            Require(CSchedule::Of(*xContext.pDevice).HasStream(streamId), CUBLAS_STATUS_INVALID_VALUE);
            CHandles::Get().With(handle, [&](const auto&, SContext& xFound) { xFound.hStream = streamId; });
        });
}

cublasStatus_t cublasGetStream_v2(cublasHandle_t handle, cudaStream_t* streamId)
{
    return OnHandle(handle,
        [&](const SContext& xContext)
        {
            Require(streamId != nullptr, CUBLAS_STATUS_INVALID_VALUE);
            *streamId = xContext.hStream;
        });
}

cublasStatus_t cublasSetPointerMode_v2(cublasHandle_t handle, cublasPointerMode_t mode)
{
    return OnHandle(handle,
        [&](const SContext&)
        {
            Require(
                mode == CUBLAS_POINTER_MODE_HOST || mode == CUBLAS_POINTER_MODE_DEVICE, CUBLAS_STATUS_INVALID_VALUE);
            CHandles::Get().With(handle, [&](const auto&, SContext& xFound) { xFound.eMode = mode; });
        });
}

cublasStatus_t cublasGetPointerMode_v2(cublasHandle_t handle, cublasPointerMode_t* mode)
{
    return OnHandle(handle,
        [&](const SContext& xContext)
        {
            Require(mode != nullptr, CUBLAS_STATUS_INVALID_VALUE);
            *mode = xContext.eMode;
        });
}
