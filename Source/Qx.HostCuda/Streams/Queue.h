#pragma once

#include "Qx.HostCuda/Streams/Signal.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

namespace Qx::HostCuda
{

class CDevice;
class CQueue;

/// A piece of work on a stream. It runs once, or never when the device has a fault by then; it is destroyed before
/// the stream reports it as done. An exception that leaves Run is a fault of the device.
class CWork
{
public:
    CWork() = default;
    CWork(const CWork&) = delete;
    CWork& operator=(const CWork&) = delete;
    virtual ~CWork() = default;
    /// Does the work, on the stream's thread.
    virtual void Run() = 0;
};

/// Makes work of a function object.
template <class F>
std::unique_ptr<CWork> MakeWork(F&& Function)
{
    class CFunctionWork final : public CWork
    {
    public:
        explicit CFunctionWork(F&& xFunction) : m_xFunction(std::forward<F>(xFunction)) {}
        void Run() override { m_xFunction(); }

    private:
        std::decay_t<F> m_xFunction;
    };
    return std::make_unique<CFunctionWork>(std::forward<F>(Function));
}

/// A position in the order of a queue. Queues are never freed, so a mark outlives whatever it was taken from.
struct SMark
{
    const CQueue* pQueue = nullptr; ///< null: nothing to wait for
    std::uint64_t uTicket = 0;

    /// True once the queue has done everything up to here; its effects are then visible to the caller.
    [[nodiscard]] bool IsReached() const noexcept;
    /// Returns once reached.
    void Wait() const noexcept;
};

/// A queue of work and the thread that works it off in order.
///
/// Every piece of work has a ticket, counted up by who queues it. The thread takes no lock that a caller takes: callers
/// and thread meet only in the queue's links (caller before work) and in the count of work done (work before whoever
/// waits for it). Those who queue do so one at a time; that is the schedule's to see to.
class CQueue
{
public:
    struct SNode
    {
        std::atomic<SNode*> pNext{nullptr};
        std::uint64_t uTicket = 0;
        std::vector<SMark> vAfter; ///< to be reached before the work
        std::unique_ptr<CWork> pWork;
    };

    CQueue();
    ~CQueue();
    CQueue(const CQueue&) = delete;
    CQueue& operator=(const CQueue&) = delete;

    /// True once everything up to a ticket is done; its effects are then visible to the caller.
    [[nodiscard]] bool IsDone(std::uint64_t uTicket) const noexcept;
    /// IsDone without the promise that the effects are visible.
    [[nodiscard]] bool LooksDone(std::uint64_t uTicket) const noexcept
    {
        return m_uDone.load(std::memory_order_relaxed) >= uTicket;
    }
    /// Returns once IsDone(uTicket).
    void Wait(std::uint64_t uTicket) const noexcept;

    /// Starts the thread unless it runs. Its work belongs to a device. @throws std::bad_alloc, std::system_error
    void Start(CDevice& xDevice);
    void Append(std::unique_ptr<SNode> pNode) noexcept;
    /// Notes that a ticket is done, all before it being done: for the thread, and for who did the work in its place.
    void Publish(std::uint64_t uTicket) noexcept;
    /// Ends the thread when all work is done.
    void Close() noexcept;
    /// True if no thread runs any more; the queue may then be started again.
    [[nodiscard]] bool HasEnded() noexcept;

private:
    void _WorkOff(CDevice& xDevice) noexcept;

    // Of those who queue.
    SNode* m_pTail;
    bool m_bThread = false;

    // The thread's own.
    SNode* m_pHead; ///< the node last worked off

    std::atomic<std::uint64_t> m_uDone{0};
    mutable std::atomic<std::uint64_t> m_uFirstAwaited{UINT64_MAX}; // no later than the first ticket that is awaited
    std::atomic<bool> m_bClosed{false};
    std::atomic<bool> m_bThreadGone{false};
    CSignal m_xIssuedSignal;
    mutable CSignal m_xDoneSignal;
};

inline bool SMark::IsReached() const noexcept
{
    return pQueue == nullptr || pQueue->IsDone(uTicket);
}

inline void SMark::Wait() const noexcept
{
    if (pQueue != nullptr)
    {
        pQueue->Wait(uTicket);
    }
}

} // namespace Qx::HostCuda
