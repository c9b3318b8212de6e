#pragma once

#include <cuda_runtime_api.h>

#include "Qx.Core/QxException.h"

namespace Qx
{

/// A failed call of the CUDA runtime.
///
/// Records the calling thread's last CUDA error, its name and description, and the thread's current device, and appends
/// them to the message: ". '<name>: <description> (ID <value>)', Device ID: <device>". The error is the one that the
/// thread holds when the exception is made, not what the failed call returned; making the exception resets it.
class QX_EXPORT_TYPE CQxCudaException : public CQxException
{
public:
    /// Identifies the class in a chain (`HasException`).
    QX_LOCAL static constexpr CGuid c_xGuid{"{7C2E9A41-5B3D-4F18-9E6A-2D4B8C1F0A73}"};

    /// Makes the first exception of a chain and records the CUDA state: calls `cudaGetLastError`, `cudaGetErrorName`,
    /// `cudaGetErrorString` and `cudaGetDevice`, once each.
    /// @param sMessage the failed step
    /// @param pcFile the source file of the throwing code
    /// @param pcFunction the plain name of the throwing operation
    /// @param iLine the line of the throw
    /// @param ... further arguments have no meaning and are ignored
    template <typename... TFurther>
    static CQxCudaException CreateFirst(
        const CQxString& sMessage, const char* pcFile, const char* pcFunction, int iLine, const TFurther&...)
    {
        CQxCudaException xException(sMessage, pcFile, pcFunction, iLine);
        xException.SetExceptionData();
        return xException;
    }

    CQxCudaException(const CQxCudaException&) = default;
    CQxCudaException(CQxCudaException&&) noexcept = default;
    /// Copies first and then takes the copy over, so that a failed copy leaves this exception as it was.
    CQxCudaException& operator=(const CQxCudaException& xOther) { return *this = CQxCudaException(xOther); }
    CQxCudaException& operator=(CQxCudaException&&) noexcept = default;

    QX_GPU_API IException* Clone() const override;
    QX_GPU_API ~CQxCudaException() override;
    QX_GPU_API void SetExceptionData() override;

    /// The CUDA error; `cudaSuccess` when the thread's last error had been reset before.
    cudaError GetCudaError() const noexcept { return m_eCudaError; }

    /// Name, description and value of the error: "<name>: <description> (ID <value>)".
    const CQxString& GetCudaErrorText() const noexcept { return m_sCudaErrorText; }

    /// The thread's current device; -1 when it could not be found out.
    int GetDeviceID() const noexcept { return m_iDeviceID; }

private:
    CQxCudaException(const CQxString& sMessage, const char* pcFile, const char* pcFunction, int iLine)
        : CQxException(sMessage, pcFile, pcFunction, iLine)
    {
        m_xGuid = c_xGuid;
        m_sName = "Qx.CudaException";
    }

    cudaError m_eCudaError = cudaSuccess;
    CQxString m_sCudaErrorText;
    int m_iDeviceID = -1;
};

/// An allocation that failed because there is no memory left: the device's, or page-locked memory of the host; also one
/// of more bytes than 64 bits count.
class QX_EXPORT_TYPE CQxOutOfMemoryException : public CQxException
{
public:
    /// Identifies the class in a chain (`HasException`).
    QX_LOCAL static constexpr CGuid c_xGuid{"{3A8F6D12-C94E-4B27-A1D5-68E0F7B23C91}"};

    /// Parameters as those of `CQxException`; the caller runs `SetExceptionData` and throws a copy.
    CQxOutOfMemoryException(const CQxString& sMessage, const char* pcFile, const char* pcFunction, int iLine)
        : CQxException(sMessage, pcFile, pcFunction, iLine)
    {
        m_xGuid = c_xGuid;
        m_sName = "Qx.OutOfMemoryException";
    }

    CQxOutOfMemoryException(const CQxOutOfMemoryException&) = default;
    CQxOutOfMemoryException(CQxOutOfMemoryException&&) noexcept = default;
    CQxOutOfMemoryException& operator=(const CQxOutOfMemoryException&) = default;
    CQxOutOfMemoryException& operator=(CQxOutOfMemoryException&&) noexcept = default;

    QX_GPU_API IException* Clone() const override;
    QX_GPU_API ~CQxOutOfMemoryException() override;
};

/// Throws a `CQxCudaException` made by `CreateFirst`; its message is put together from parts, as `Throw` does.
template <typename... TParts>
[[noreturn, gnu::cold, gnu::noinline]] void ThrowCuda(const SThrowPlace& xPlace, TParts... xParts)
{
    CQxCudaException xException =
        CQxCudaException::CreateFirst(MakeText(xParts...), xPlace.xSite.pcFile, xPlace.xSite.pcFunction, xPlace.iLine);
    throw CQxCudaException(xException);
}

/// Throws a `CQxOutOfMemoryException`, after its `SetExceptionData`; its message is put together from parts, as `Throw`
/// does. Leaves the thread's last CUDA error as it is.
template <typename... TParts>
[[noreturn, gnu::cold, gnu::noinline]] void ThrowOutOfMemory(const SThrowPlace& xPlace, TParts... xParts)
{
    CQxOutOfMemoryException xException(MakeText(xParts...), xPlace.xSite.pcFile, xPlace.xSite.pcFunction, xPlace.iLine);
    xException.SetExceptionData();
    throw CQxOutOfMemoryException(xException);
}

/// Tests the result of a CUDA call and throws what `ThrowCuda` throws unless it is `cudaSuccess`. The success path is
/// the test alone; the message is a literal, so that nothing is built for it.
inline void CheckCuda(cudaError eResult, const SThrowSite& xSite, const char* pcMessage, int iLine = __builtin_LINE())
{
    if (eResult != cudaSuccess) [[unlikely]]
    {
        ThrowCuda({xSite, iLine}, pcMessage);
    }
}

} // namespace Qx
