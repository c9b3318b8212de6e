#include "Qx.HostCuda/Streams/Schedule.h"

#include <algorithm>

namespace Qx::HostCuda
{
namespace
{

/// Work of a host function: the one kind of work that may not call the runtime.
void _CallHostFunction(cudaHostFn_t pFunction, void* pUserData)
{
    struct SInside
    {
        SInside() { ThisThread().bInHostFunction = true; }
        ~SInside() { ThisThread().bInHostFunction = false; }
    } const xInside;
    pFunction(pUserData);
}

} // namespace
} // namespace Qx::HostCuda

using namespace Qx::HostCuda;

cudaError_t cudaDeviceSynchronize()
{
    return Call(
        []
        {
            CDevice& xDevice = CurrentDevice();
            CSchedule::Of(xDevice).Synchronize();
            xDevice.RequireHealthy();
        });
}

cudaError_t cudaStreamCreate(cudaStream_t* pStream)
{
    return cudaStreamCreateWithFlags(pStream, cudaStreamDefault);
}

cudaError_t cudaStreamCreateWithFlags(cudaStream_t* pStream, unsigned int flags)
{
    return OnDevice(
        [&](const CDevice& xDevice)
        {
            const bool bNonBlocking = flags == cudaStreamNonBlocking;
            Require(pStream != nullptr && (bNonBlocking || flags == cudaStreamDefault), cudaErrorInvalidValue);
            *pStream = CSchedule::Of(xDevice).CreateStream(bNonBlocking);
        });
}

cudaError_t cudaStreamDestroy(cudaStream_t stream)
{
    return OnStream(stream, [](CPlace& xPlace) { xPlace.Destroy(); });
}

cudaError_t cudaStreamSynchronize(cudaStream_t stream)
{
    return OnStream(stream,
        [](CPlace& xPlace)
        {
            std::vector<SMark> vOthers;
            const SMark xOwn = xPlace.GetMarks(vOthers);
            xPlace.Leave();
            xOwn.Wait();
            std::ranges::for_each(vOthers, &SMark::Wait);
            xPlace.GetDevice().RequireHealthy();
        });
}

cudaError_t cudaStreamQuery(cudaStream_t stream)
{
    return Query(
        [&]
        {
            const CPlace xPlace(stream);
            std::vector<SMark> vOthers;
            const bool bDone = xPlace.GetMarks(vOthers).IsReached() && vOthers.empty();
            return bDone ? xPlace.GetDevice().GetFault() : cudaErrorNotReady;
        });
}

cudaError_t cudaLaunchHostFunc(cudaStream_t stream, cudaHostFn_t fn, void* userData)
{
    return OnStream(stream,
        [&](CPlace& xPlace)
        {
            Require(fn != nullptr, cudaErrorInvalidValue);
            xPlace.Enqueue(MakeWork([fn, userData] { _CallHostFunction(fn, userData); }));
        });
}
