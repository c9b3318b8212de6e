#pragma once

#include "Qx.HostCuda/Runtime/Devices.h"
#include "Qx.HostCuda/Runtime/Handle.h"
#include "Qx.HostCuda/Streams/Queue.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace Qx::HostCuda
{

/// The order of all work of a device: its streams, its events and the rules of the legacy default stream. Lives as long
/// as its device, and with it the streams and events.
///
/// One mutex guards the order; the threads of streams never take it, and nobody holds those of two devices.
class CSchedule
{
    struct SStream
    {
        CQueue xQueue;
        std::uint64_t uIssued = 0;         ///< last ticket
        std::uint64_t uBlockingIssued = 0; ///< last ticket that the legacy stream must wait for
        std::uint64_t uSeenByLegacy = 0;   ///< last ticket that work of the legacy stream already waits for
        std::uint64_t uSeenOfLegacy = 0;   ///< last ticket of the legacy stream that work of this stream waits for
        bool bNonBlocking = false;

        [[nodiscard]] SMark GetMark() const noexcept { return {&xQueue, uIssued}; }
    };

    struct SEvent
    {
        unsigned uFlags = 0;
        SMark xMark;
        /// Number of the last record above its time, which is 0 until the record is reached: one word, so that a
        /// record that was replaced before it was reached cannot leave its time in the next one.
        std::atomic<std::uint64_t> uStamp{0};
    };

public:
    explicit CSchedule(CDevice& xDevice) : m_xDevice(xDevice) {}
    CSchedule(const CSchedule&) = delete;
    CSchedule& operator=(const CSchedule&) = delete;

    /// The schedules of all devices, by their numbers. Made at the first use. @throws std::bad_alloc, then only
    [[nodiscard]] static std::deque<CSchedule>& All();
    /// The schedule of a device.
    [[nodiscard]] static CSchedule& Of(const CDevice& xDevice)
    {
        return All()[static_cast<std::size_t>(xDevice.GetID())];
    }
    /// The schedule of the device that a handle comes from, alive or not. cudaErrorInvalidResourceHandle: no handle of
    /// that kind.
    template <class THandle>
    [[nodiscard]] static CSchedule& Of(EHandle eHandle, THandle hHandle)
    {
        SHandle xHandle;
        Require(
            DecodeHandle(eHandle, hHandle, xHandle) && xHandle.uDevice < All().size(), cudaErrorInvalidResourceHandle);
        return All()[xHandle.uDevice];
    }

    [[nodiscard]] CDevice& GetDevice() const noexcept { return m_xDevice; }

    /// The end of a stream's queue, held: until this object goes or leaves, nobody else queues work on the device.
    ///
    /// Its functions throw std::bad_alloc, and std::system_error where a thread cannot be started; nothing has changed
    /// then.
    class CPlace
    {
    public:
        /// Takes the place; null and cudaStreamLegacy mean the current device's legacy stream. Refuses, in this order:
        /// cudaErrorNotSupported for cudaStreamPerThread, cudaErrorInvalidResourceHandle for what is no live stream, a
        /// fault of the stream's device.
        explicit CPlace(cudaStream_t hStream);
        /// Gives the place up; of the functions only GetDevice may be called from then on.
        void Leave() { m_xLock.unlock(); }

        [[nodiscard]] CDevice& GetDevice() const noexcept { return m_pSchedule->m_xDevice; }

        /// Appends work, to be done after `xAfter` too.
        void Enqueue(std::unique_ptr<CWork> pWork, const SMark& xAfter = {})
        {
            m_pSchedule->_Commit(*m_pStream, m_pSchedule->_Prepare(*m_pStream, std::move(pWork), xAfter));
        }
        /// What stands for all pending work of the stream: its own mark, which is the result, and for the legacy stream
        /// those of the streams it follows, as far as they are not reached.
        [[nodiscard]] SMark GetMarks(std::vector<SMark>& vOthers) const;
        /// Records an event. cudaErrorInvalidResourceHandle: no live event of the device.
        void Record(cudaEvent_t hEvent);
        /// Gives the stream up. cudaErrorInvalidResourceHandle: the legacy stream.
        void Destroy();

    private:
        friend class CLegacyTurn;

        CSchedule* m_pSchedule;
        std::unique_lock<std::mutex> m_xLock;
        SStream* m_pStream;
    };

    /// Creates a stream. @throws std::bad_alloc
    [[nodiscard]] cudaStream_t CreateStream(bool bNonBlocking);

    /// Creates an event. @throws std::bad_alloc
    [[nodiscard]] cudaEvent_t CreateEvent(unsigned uFlags);
    // All three refuse what is no live event of this device with cudaErrorInvalidResourceHandle.
    void DestroyEvent(cudaEvent_t hEvent);
    /// What the event's last record captured.
    [[nodiscard]] SMark GetMark(cudaEvent_t hEvent);
    /// Milliseconds between two records. cudaErrorInvalidResourceHandle: also an event without timing or never
    /// recorded; cudaErrorNotReady: work is not done.
    [[nodiscard]] float Measure(cudaEvent_t hStart, cudaEvent_t hEnd);

    /// True if a handle is a live stream of this device or means its legacy stream.
    [[nodiscard]] bool HasStream(cudaStream_t hStream)
    {
        const std::lock_guard xLock(m_xMutex);
        return _FindStream(hStream) != nullptr;
    }

    /// Waits for all work on all streams.
    void Synchronize() noexcept;
    /// True if all work on all streams is done; its effects are then visible to the caller.
    [[nodiscard]] bool IsIdle() noexcept
    {
        const std::lock_guard xLock(m_xMutex);
        return _IsIdle();
    }
    /// If IsIdle(): closes streams and events, calls `Release()`, clears the device's fault and returns true.
    template <class F>
    bool ResetIfIdle(F&& Release)
    {
        const std::lock_guard xLock(m_xMutex);
        if (!_IsIdle())
        {
            return false;
        }
        _CloseAll();
        std::forward<F>(Release)();
        m_xDevice.ClearFault();
        return true;
    }

    void CountHandles(std::size_t& nStreamCount, std::size_t& nEventCount);

private:
    friend class CLegacyTurn;

    using CStreams = CSlots<SStream, cudaStream_t, EHandle::Stream>;
    using CEvents = CSlots<SEvent, cudaEvent_t, EHandle::Event>;

    [[nodiscard]] SStream* _FindStream(cudaStream_t hStream) noexcept;
    [[nodiscard]] SEvent& _GetEvent(cudaEvent_t hEvent, bool bTimed);
    [[nodiscard]] bool _IsIdle() const noexcept;
    void _CloseStream(CStreams::SSlot& xStream) noexcept;
    void _CloseAll() noexcept;
    /// Calls `Function(stream, ticket, seen)` for every position that later work of a stream has to wait for by the
    /// rules of the legacy default stream and that earlier work of it does not wait for already.
    template <class F>
    void _ForEachUnseen(SStream& xStream, F&& Function);
    /// These positions; those already reached may be left out only where the calling thread itself runs the work, since
    /// it then sees their effects.
    [[nodiscard]] std::vector<SMark> _CollectUnseen(SStream& xStream, bool bSkipDone);
    std::uint64_t _IssueTicket(SStream& xStream) noexcept;
    [[nodiscard]] std::unique_ptr<CQueue::SNode> _Prepare(
        SStream& xStream, std::unique_ptr<CWork> pWork, const SMark& xAfter);
    void _Commit(SStream& xStream, std::unique_ptr<CQueue::SNode> pNode) noexcept;

    CDevice& m_xDevice;
    std::mutex m_xMutex; ///< guards all that follows
    SStream m_xLegacy;
    CStreams m_vStreams;
    CStreams::SSlot* m_pClosing = nullptr; ///< streams that were given up and may still have work
    CEvents m_vEvents;
};

using CPlace = CSchedule::CPlace;

/// A turn of the calling thread on the legacy default stream, for calls that wait for their work anyway: it keeps the
/// stream's order without a change of thread and, when nothing is queued, without allocating.
class CLegacyTurn
{
public:
    /// Takes a place in the stream's order, and leaves `xPlace`, which was on that stream. @throws std::bad_alloc
    explicit CLegacyTurn(CPlace& xPlace);
    /// Ends the turn; what follows in the stream may run.
    ~CLegacyTurn();
    CLegacyTurn(const CLegacyTurn&) = delete;
    CLegacyTurn& operator=(const CLegacyTurn&) = delete;

    /// Waits for everything before it.
    void Await() const noexcept;

private:
    CQueue& m_xQueue;
    std::vector<SMark> m_vAfter;
    std::uint64_t m_uTicket = 0;
};

/// Calls `Function()` in a turn on the legacy stream, where `xPlace` is, unless a fault comes up before. Unlocks
/// `xLock`, which keeps what the function uses from being freed, once the turn does.
template <class TLock, class F>
void RunInTurn(CPlace& xPlace, TLock& xLock, F&& Function)
{
    const CLegacyTurn xTurn(xPlace);
    xLock.unlock();
    xTurn.Await();
    xPlace.GetDevice().RequireHealthy();
    std::forward<F>(Function)();
}

/// The frame of a CUDA call on a stream: `Function(place)`.
template <class F>
cudaError_t OnStream(cudaStream_t hStream, F&& Function) noexcept
{
    return Call(
        [&]
        {
            CPlace xPlace(hStream);
            std::forward<F>(Function)(xPlace);
        });
}

} // namespace Qx::HostCuda
