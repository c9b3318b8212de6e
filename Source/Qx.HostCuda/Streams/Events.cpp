#include "Qx.HostCuda/Streams/Schedule.h"

namespace Qx::HostCuda
{
namespace
{

/// The schedule of an event's device, which has no fault; whether the event is alive shows when it is used.
CSchedule& _ScheduleOf(cudaEvent_t hEvent)
{
    CSchedule& xSchedule = CSchedule::Of(EHandle::Event, hEvent);
    xSchedule.GetDevice().RequireHealthy();
    return xSchedule;
}

} // namespace
} // namespace Qx::HostCuda

using namespace Qx::HostCuda;

cudaError_t cudaEventCreate(cudaEvent_t* event)
{
    return cudaEventCreateWithFlags(event, cudaEventDefault);
}

cudaError_t cudaEventCreateWithFlags(cudaEvent_t* event, unsigned int flags)
{
    return OnDevice(
        [&](const CDevice& xDevice)
        {
            constexpr unsigned c_uKnown = cudaEventBlockingSync | cudaEventDisableTiming | cudaEventInterprocess;
            const bool bShared = (flags & cudaEventInterprocess) != 0;
            const bool bTimed = (flags & cudaEventDisableTiming) == 0;
            Require(event != nullptr && (flags & ~c_uKnown) == 0 && !(bShared && bTimed), cudaErrorInvalidValue);
            Require(!bShared, cudaErrorNotSupported);
            *event = CSchedule::Of(xDevice).CreateEvent(flags);
        });
}

cudaError_t cudaEventDestroy(cudaEvent_t event)
{
    return Call([&] { _ScheduleOf(event).DestroyEvent(event); });
}

cudaError_t cudaEventRecord(cudaEvent_t event, cudaStream_t stream)
{
    return OnStream(stream, [&](CPlace& xPlace) { xPlace.Record(event); });
}

cudaError_t cudaEventSynchronize(cudaEvent_t event)
{
    return Call(
        [&]
        {
            CSchedule& xSchedule = _ScheduleOf(event);
            xSchedule.GetMark(event).Wait();
            xSchedule.GetDevice().RequireHealthy();
        });
}

cudaError_t cudaEventQuery(cudaEvent_t event)
{
    return Query(
        [&]
        {
            CSchedule& xSchedule = _ScheduleOf(event);
            return xSchedule.GetMark(event).IsReached() ? xSchedule.GetDevice().GetFault() : cudaErrorNotReady;
        });
}

cudaError_t cudaStreamWaitEvent(cudaStream_t stream, cudaEvent_t event, unsigned int flags)
{
    return Call(
        [&]
        {
            // The event may be another device's, and nobody holds two schedules; what is wrong with the stream counts
            // first.
            CPlace(stream).Leave();
            const SMark xMark = _ScheduleOf(event).GetMark(event);
            Require(flags == cudaEventWaitDefault, cudaErrorInvalidValue);
            if (xMark.pQueue != nullptr)
            {
                CPlace(stream).Enqueue(nullptr, xMark);
            }
        });
}

cudaError_t cudaEventElapsedTime(float* ms, cudaEvent_t start, cudaEvent_t end)
{
    return Call(
        [&]
        {
            CSchedule& xSchedule = _ScheduleOf(start);
            Require(&_ScheduleOf(end) == &xSchedule, cudaErrorInvalidResourceHandle);
            Answer(ms, xSchedule.Measure(start, end));
        });
}
