#pragma once

#include "Qx.HostCuda/Errors.h"
#include "Qx.HostCuda/Handle.h"
#include "Qx.HostCuda/HostCuda.h"
#include "Qx.HostCuda/Streams.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

namespace Qx::HostCuda
{

/// One simulated device: its fault, its memory budget, its streams and events.
///
/// Devices, and the streams and events in them, live until the process ends and are never destroyed: threads of
/// streams may still run, and clients may still call, while the process exits.
class CDevice
{
public:
    CDevice(int iID, std::size_t nMemory);
    ~CDevice() = delete;
    CDevice(const CDevice&) = delete;
    CDevice& operator=(const CDevice&) = delete;

    [[nodiscard]] int GetID() const noexcept { return m_iID; }

    /// The fault's code, cudaSuccess if there is none.
    [[nodiscard]] cudaError_t GetFault() const noexcept { return m_eFault.load(std::memory_order_relaxed); }
    /// Sets the fault unless there is one.
    void RaiseFault(cudaError_t eError) noexcept;

    [[nodiscard]] bool IsIntegrated() const noexcept { return m_bIntegrated.load(std::memory_order_relaxed); }
    void SetIntegrated(bool bIntegrated) noexcept { m_bIntegrated.store(bIntegrated, std::memory_order_relaxed); }

    [[nodiscard]] std::size_t GetTotalMemory() const noexcept { return m_nTotal.load(std::memory_order_relaxed); }
    void SetTotalMemory(std::size_t nTotal) noexcept { m_nTotal.store(nTotal, std::memory_order_relaxed); }
    [[nodiscard]] std::size_t GetFreeMemory() const noexcept;
    /// Takes bytes from the budget; false, and nothing taken, if there are not as many.
    [[nodiscard]] bool Reserve(std::size_t nByteCount) noexcept;
    void Unreserve(std::size_t nByteCount) noexcept { m_nUsed.fetch_sub(nByteCount, std::memory_order_relaxed); }

    // In all of these a null handle and cudaStreamLegacy mean this device's legacy default stream; a handle that is
    // no live stream or event of this device is cudaErrorInvalidResourceHandle. They throw std::bad_alloc, and
    // std::system_error where a thread cannot be started; nothing has changed then.

    cudaError_t CreateStream(bool bNonBlocking, cudaStream_t& hStream);
    cudaError_t DestroyStream(cudaStream_t hStream);
    /// cudaSuccess if the stream is alive.
    cudaError_t CheckStream(cudaStream_t hStream);
    /// Appends work to a stream, to be done after `xAfter` too. The work is destroyed if it is refused.
    cudaError_t Enqueue(cudaStream_t hStream, std::unique_ptr<CWork> pWork, const SMark& xAfter = {});
    /// The marks that stand for all pending work of a stream: its own, and for the legacy stream those of the streams
    /// it follows, as far as they are not reached.
    cudaError_t GetMarks(cudaStream_t hStream, SMark& xOwn, std::vector<SMark>& vOthers);
    /// Waits for all work on all streams.
    void Synchronize() noexcept;

    cudaError_t CreateEvent(unsigned uFlags, cudaEvent_t& hEvent);
    cudaError_t DestroyEvent(cudaEvent_t hEvent);
    cudaError_t RecordEvent(cudaEvent_t hEvent, cudaStream_t hStream);
    /// What the event's last record captured.
    cudaError_t GetMark(cudaEvent_t hEvent, SMark& xMark);
    /// Time of the last record in ticks of 100 ns that wrap at c_uTimeBits. cudaErrorInvalidResourceHandle: also an
    /// event without timing or never recorded; cudaErrorNotReady: its work is not done.
    cudaError_t GetTime(cudaEvent_t hEvent, std::uint64_t& uTime);

    /// True if all work on all streams is done; its effects are then visible to the caller.
    [[nodiscard]] bool IsIdle() noexcept
    {
        const std::lock_guard xLock(m_xMutex);
        return _IsIdle();
    }
    /// If IsIdle(): closes streams and events, clears the fault, calls `Release()` and returns true.
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
        m_eFault.store(cudaSuccess, std::memory_order_relaxed);
        return true;
    }

    void CountHandles(std::size_t& nStreamCount, std::size_t& nEventCount);

    static constexpr unsigned c_uTimeBits = 44;

private:
    friend class CLegacyTurn;

    struct SEvent
    {
        std::uint64_t uGeneration = 1;
        bool bLive = false;
        unsigned uFlags = 0;
        SMark xMark;
        /// Number of the last record above its time, which is 0 until the record is reached: one word, so that a
        /// record that was replaced before it was reached cannot leave its time in the next one.
        std::atomic<std::uint64_t> uStamp{0};
    };

    [[nodiscard]] CStream* _FindStream(cudaStream_t hStream) noexcept;
    [[nodiscard]] SEvent* _FindEvent(cudaEvent_t hEvent) noexcept;
    [[nodiscard]] bool _IsIdle() const noexcept;
    void _CloseAll() noexcept;
    static void _CloseEvent(SEvent& xEvent) noexcept;
    /// Calls `Function(stream, ticket)` for every position that later work of a stream has to wait for by the rules of
    /// the legacy default stream and that earlier work of it does not wait for already.
    template <class F>
    void _ForEachUnseen(CStream& xStream, F&& Function);
    /// These positions; those already reached may be left out only where the calling thread itself runs the work, since
    /// it then sees their effects.
    [[nodiscard]] std::vector<SMark> _CollectUnseen(CStream& xStream, bool bSkipDone);
    std::uint64_t _IssueTicket(CStream& xStream) noexcept;
    [[nodiscard]] std::unique_ptr<CStream::SNode> _Prepare(
        CStream& xStream, std::unique_ptr<CWork> pWork, const SMark& xAfter);
    void _Commit(CStream& xStream, std::unique_ptr<CStream::SNode> pNode) noexcept;

    const int m_iID;
    std::atomic<cudaError_t> m_eFault{cudaSuccess};
    std::atomic<bool> m_bIntegrated{false};
    std::atomic<std::size_t> m_nTotal;
    std::atomic<std::size_t> m_nUsed{0};

    std::mutex m_xMutex; ///< order of all work of the device; never taken by the threads of streams
    CStream m_xLegacy;
    std::deque<CStream> m_vStreams;
    std::deque<SEvent> m_vEvents;
    std::vector<std::size_t> m_vFreeEvents; ///< has room for every slot, so that giving one up cannot fail
};

template <class F>
void CDevice::_ForEachUnseen(CStream& xStream, F&& Function)
{
    if (&xStream != &m_xLegacy)
    {
        if (!xStream.m_bNonBlocking && m_xLegacy.m_uIssued > xStream.m_uSeenOfLegacy)
        {
            Function(m_xLegacy, m_xLegacy.m_uIssued, xStream.m_uSeenOfLegacy);
        }
        return;
    }
    for (CStream& xOther : m_vStreams)
    {
        if (xOther.m_uBlockingIssued > xOther.m_uSeenByLegacy)
        {
            Function(xOther, xOther.m_uBlockingIssued, xOther.m_uSeenByLegacy);
        }
    }
}

/// A device; null if there is none of that number.
[[nodiscard]] CDevice* FindDevice(int iDevice) noexcept;
/// The calling thread's current device. There must be devices, as there are inside every guarded call.
[[nodiscard]] CDevice& CurrentDevice() noexcept;
/// The fault of the calling thread's current device, cudaSuccess if there is none.
[[nodiscard]] cudaError_t GetCurrentFault() noexcept;

/// The device that a stream belongs to, checked: cudaErrorNotSupported for cudaStreamPerThread,
/// cudaErrorInvalidResourceHandle for what is no live stream, then the device's fault.
cudaError_t FindDevice(cudaStream_t hStream, CDevice*& pDevice);
/// The device that an event belongs to, likewise; whether the event is alive shows when it is used.
cudaError_t FindDevice(cudaEvent_t hEvent, CDevice*& pDevice);

} // namespace Qx::HostCuda
