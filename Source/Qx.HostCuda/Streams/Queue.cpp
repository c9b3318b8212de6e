#include "Qx.HostCuda/Streams/Queue.h"

#include "Qx.HostCuda/Runtime/Devices.h"

#include <csignal>
#include <thread>

namespace Qx::HostCuda
{
namespace
{

/// Blocks the signals of the calling thread for its lifetime, so that a thread started meanwhile never runs a handler
/// of the client for what happens elsewhere. Signals that a thread raises by a fault of its own are left alone: a
/// kernel's wild pointer must reach the handler of a sanitizer or of the client, which shows where it was.
class CSignalBlock
{
public:
    CSignalBlock()
    {
        sigset_t xBlocked;
        sigfillset(&xBlocked);
        for (const int iFault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS})
        {
            sigdelset(&xBlocked, iFault);
        }
        pthread_sigmask(SIG_SETMASK, &xBlocked, &m_xBefore);
    }
    ~CSignalBlock() { pthread_sigmask(SIG_SETMASK, &m_xBefore, nullptr); }
    CSignalBlock(const CSignalBlock&) = delete;
    CSignalBlock& operator=(const CSignalBlock&) = delete;

private:
    sigset_t m_xBefore{};
};

} // namespace

CQueue::CQueue() : m_pTail(new SNode), m_pHead(m_pTail) {}

CQueue::~CQueue()
{
    delete m_pHead;
}

bool CQueue::IsDone(std::uint64_t uTicket) const noexcept
{
    // Whoever asks too early must not see a part of the work by accident: that would hide a missing synchronisation.
    if (m_uDone.load(std::memory_order_relaxed) < uTicket)
    {
        return false;
    }
    return m_uDone.load(std::memory_order_acquire) >= uTicket;
}

void CQueue::Wait(std::uint64_t uTicket) const noexcept
{
    if (IsDone(uTicket))
    {
        return;
    }
    m_xDoneSignal.Wait(
        [&]
        {
            std::uint64_t uFirst = m_uFirstAwaited.load(std::memory_order_seq_cst);
            while (
                uTicket < uFirst && !m_uFirstAwaited.compare_exchange_weak(uFirst, uTicket, std::memory_order_seq_cst))
            {
            }
            return m_uDone.load(std::memory_order_seq_cst) >= uTicket; // see Publish
        });
}

void CQueue::Start(CDevice& xDevice)
{
    if (!m_bThread)
    {
        const CSignalBlock xBlock;
        m_bClosed.store(false, std::memory_order_relaxed);
        m_bThreadGone.store(false, std::memory_order_relaxed);
        std::thread([this, &xDevice] { _WorkOff(xDevice); }).detach();
        m_bThread = true;
    }
}

void CQueue::Append(std::unique_ptr<SNode> pNode) noexcept
{
    SNode* const pLast = m_pTail;
    m_pTail = pNode.release();
    pLast->pNext.store(m_pTail, std::memory_order_release);
    m_xIssuedSignal.Notify();
}

void CQueue::_WorkOff(CDevice& xDevice) noexcept
{
    for (;;)
    {
        SNode* pNode = nullptr;
        m_xIssuedSignal.Wait(
            [&]
            {
                const bool bClosed = m_bClosed.load(std::memory_order_acquire);
                pNode = m_pHead->pNext.load(std::memory_order_acquire);
                return pNode != nullptr || bClosed;
            });
        if (pNode == nullptr)
        {
            break;
        }
        delete m_pHead;
        m_pHead = pNode;
        for (const SMark& xMark : pNode->vAfter)
        {
            xMark.Wait();
        }
        // Only the legacy stream has tickets that others work off: the turns of callers that wait.
        Wait(pNode->uTicket - 1);
        if (pNode->pWork && xDevice.GetFault() == cudaSuccess)
        {
            try
            {
                pNode->pWork->Run();
            }
            catch (...)
            {
                xDevice.RaiseFault(cudaErrorLaunchFailure);
            }
        }
        pNode->pWork.reset();
        Publish(pNode->uTicket);
    }
    m_bThreadGone.store(true, std::memory_order_release);
}

void CQueue::Publish(std::uint64_t uTicket) noexcept
{
    // Either this sees who waits, or who waits sees this. Waking somebody for every piece of work before the one that
    // is awaited would cost more than small work does.
    m_uDone.store(uTicket, std::memory_order_seq_cst);
    if (uTicket >= m_uFirstAwaited.load(std::memory_order_seq_cst))
    {
        m_uFirstAwaited.store(UINT64_MAX, std::memory_order_seq_cst);
        m_xDoneSignal.Notify(); // those who wait for later work note it again
    }
}

void CQueue::Close() noexcept
{
    m_bClosed.store(true, std::memory_order_release);
    m_xIssuedSignal.Notify();
}

bool CQueue::HasEnded() noexcept
{
    m_bThread = m_bThread && !m_bThreadGone.load(std::memory_order_acquire);
    return !m_bThread;
}

} // namespace Qx::HostCuda
