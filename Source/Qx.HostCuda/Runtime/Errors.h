#pragma once

#include "Qx.HostCuda/Runtime/Environment.h"
#include "Qx.HostCuda/Runtime/Thread.h"

#include <new>
#include <system_error>
#include <type_traits>
#include <utility>

namespace Qx::HostCuda
{

/// Why a call is refused: what is thrown on the way to the frame of the call, which turns it into the call's result.
template <class TCode>
struct SRefusal
{
    TCode eCode;
};

/// Refuses the call with a code unless a condition holds: a rule of the call, in one line.
template <class TCode>
void Require(bool bCondition, TCode eCode)
{
    if (!bCondition)
    {
        throw SRefusal<TCode>{eCode};
    }
}

/// Writes an answer, which has to have a place.
template <class T>
void Answer(T* pPlace, const T& xAnswer)
{
    Require(pPlace != nullptr, cudaErrorInvalidValue);
    *pPlace = xAnswer;
}

/// Makes a code the calling thread's last error, unless it is success or the current device's fault, and returns it.
QX_HOSTCUDA_API cudaError_t Refuse(cudaError_t eError) noexcept;

/// `Function()` with what is thrown on the way turned into a code: the frame of every CUDA call. The code is also what
/// the function returns, if it returns anything.
template <class F>
cudaError_t Guarded(F&& Function) noexcept
{
    try
    {
        Require(!ThisThread().bInHostFunction, cudaErrorNotPermitted);
        Require(GetDeviceCount() != 0, cudaErrorNoDevice);
        if constexpr (std::is_void_v<std::invoke_result_t<F>>)
        {
            std::forward<F>(Function)();
            return cudaSuccess;
        }
        else
        {
            return std::forward<F>(Function)();
        }
    }
    catch (const SRefusal<cudaError_t>& xRefusal)
    {
        return xRefusal.eCode;
    }
    catch (const std::bad_alloc&)
    {
        return cudaErrorMemoryAllocation;
    }
    catch (const std::system_error&)
    {
        // The one system call that can fail is the start of a thread.
        return cudaErrorOperatingSystem;
    }
    catch (...)
    {
        return cudaErrorUnknown;
    }
}

/// Runs a CUDA call; a failure becomes the calling thread's last error.
template <class F>
cudaError_t Call(F&& Function) noexcept
{
    return Refuse(Guarded(std::forward<F>(Function)));
}

/// Runs a call that asks whether work is done: "not yet" is an answer, not an error.
template <class F>
cudaError_t Query(F&& Function) noexcept
{
    const cudaError_t eError = Guarded(std::forward<F>(Function));
    return eError == cudaErrorNotReady ? eError : Refuse(eError);
}

} // namespace Qx::HostCuda
