#pragma once

#include "Qx.HostCuda/Signal.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

namespace Qx::HostCuda
{

class CDevice;
class CStream;

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

/// A position in the order of a stream. Streams are never freed, so a mark outlives whatever it was taken from.
struct SMark
{
    const CStream* pStream = nullptr; ///< null: nothing to wait for
    std::uint64_t uTicket = 0;

    /// True once the stream has done everything up to here; its effects are then visible to the caller.
    [[nodiscard]] bool IsReached() const noexcept;
    /// Returns once reached.
    void Wait() const noexcept;
};

/// A queue of work and the thread that works it off in order.
///
/// Every piece of work has a ticket, counted up by who queues it under the mutex of the device. The thread takes no
/// lock that a caller takes: callers and thread meet only in the queue's links (caller before work) and in the count
/// of work done (work before whoever waits for it).
class CStream
{
public:
    CStream();
    ~CStream();
    CStream(const CStream&) = delete;
    CStream& operator=(const CStream&) = delete;

    /// True once everything up to a ticket is done; its effects are then visible to the caller.
    [[nodiscard]] bool IsDone(std::uint64_t uTicket) const noexcept;
    /// Returns once IsDone(uTicket).
    void Wait(std::uint64_t uTicket) const noexcept;

private:
    friend class CDevice;
    friend class CLegacyTurn;

    struct SNode
    {
        std::atomic<SNode*> pNext{nullptr};
        std::uint64_t uTicket = 0;
        std::vector<SMark> vAfter;
        std::unique_ptr<CWork> pWork;
    };

    /// True if no queued work is pending; says nothing about visibility.
    [[nodiscard]] bool _IsIdle() const noexcept { return m_uDone.load(std::memory_order_relaxed) == m_uIssued; }
    void _StartThread(CDevice& xDevice);
    void _Append(std::unique_ptr<SNode> pNode) noexcept;
    void _WorkOff(CDevice& xDevice) noexcept;
    void _Publish(std::uint64_t uTicket) noexcept;
    void _Close() noexcept;

    // Guarded by the mutex of the device.
    std::uint64_t m_uGeneration = 1;
    std::uint64_t m_uIssued = 0;         ///< last ticket
    std::uint64_t m_uBlockingIssued = 0; ///< last ticket that the legacy stream must wait for
    std::uint64_t m_uSeenByLegacy = 0;   ///< last ticket that work of the legacy stream already waits for
    std::uint64_t m_uSeenOfLegacy = 0;   ///< last ticket of the legacy stream that work of this stream waits for
    SNode* m_pTail;
    bool m_bLive = false;
    bool m_bNonBlocking = false;
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

/// A turn of the calling thread on the legacy default stream of a device, for calls that wait for their work anyway:
/// it keeps the stream's order without a change of thread and, when nothing is queued, without allocating.
class CLegacyTurn
{
public:
    /// Takes a place in the stream's order. @throws std::bad_alloc
    explicit CLegacyTurn(CDevice& xDevice);
    /// Ends the turn; what follows in the stream may run.
    ~CLegacyTurn();
    CLegacyTurn(const CLegacyTurn&) = delete;
    CLegacyTurn& operator=(const CLegacyTurn&) = delete;

    /// Waits for everything before it.
    void Await() const noexcept;

private:
    CStream& m_xStream;
    std::vector<SMark> m_vAfter;
    std::uint64_t m_uTicket = 0;
};

inline bool SMark::IsReached() const noexcept
{
    return pStream == nullptr || pStream->IsDone(uTicket);
}

inline void SMark::Wait() const noexcept
{
    if (pStream != nullptr)
    {
        pStream->Wait(uTicket);
    }
}

} // namespace Qx::HostCuda
