#include "Qx.HostCuda/Streams.h"

#include "Qx.HostCuda/Devices.h"

#include <algorithm>
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

CStream::CStream() : m_pTail(new SNode), m_pHead(m_pTail) {}

CStream::~CStream()
{
    delete m_pHead;
}

bool CStream::IsDone(std::uint64_t uTicket) const noexcept
{
    // Whoever asks too early must not see a part of the work by accident: that would hide a missing synchronisation.
    if (m_uDone.load(std::memory_order_relaxed) < uTicket)
    {
        return false;
    }
    return m_uDone.load(std::memory_order_acquire) >= uTicket;
}

void CStream::Wait(std::uint64_t uTicket) const noexcept
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
            return m_uDone.load(std::memory_order_seq_cst) >= uTicket; // see _Publish
        });
}

void CStream::_StartThread(CDevice& xDevice)
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

void CStream::_Append(std::unique_ptr<SNode> pNode) noexcept
{
    SNode* const pLast = m_pTail;
    m_pTail = pNode.release();
    pLast->pNext.store(m_pTail, std::memory_order_release);
    m_xIssuedSignal.Notify();
}

void CStream::_WorkOff(CDevice& xDevice) noexcept
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
        _Publish(pNode->uTicket);
    }
    m_bThreadGone.store(true, std::memory_order_release);
}

void CStream::_Publish(std::uint64_t uTicket) noexcept
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

void CStream::_Close() noexcept
{
    m_bLive = false;
    ++m_uGeneration;
    m_bClosed.store(true, std::memory_order_release);
    m_xIssuedSignal.Notify();
}

CLegacyTurn::CLegacyTurn(CDevice& xDevice) : m_xStream(xDevice.m_xLegacy)
{
    const std::lock_guard xLock(xDevice.m_xMutex);
    m_vAfter = xDevice._CollectUnseen(m_xStream, true);
    m_uTicket = xDevice._IssueTicket(m_xStream);
}

CLegacyTurn::~CLegacyTurn()
{
    Await();
    m_xStream._Publish(m_uTicket);
}

void CLegacyTurn::Await() const noexcept
{
    for (const SMark& xMark : m_vAfter)
    {
        xMark.Wait();
    }
    m_xStream.Wait(m_uTicket - 1);
}

std::vector<SMark> CDevice::_CollectUnseen(CStream& xStream, bool bSkipDone)
{
    std::vector<SMark> vMarks;
    _ForEachUnseen(xStream,
        [&](const CStream& xOther, std::uint64_t uTicket, std::uint64_t&)
        {
            if (!bSkipDone || !xOther.IsDone(uTicket))
            {
                vMarks.push_back({&xOther, uTicket});
            }
        });
    return vMarks;
}

std::uint64_t CDevice::_IssueTicket(CStream& xStream) noexcept
{
    _ForEachUnseen(xStream, [](const CStream&, std::uint64_t uTicket, std::uint64_t& uSeen) { uSeen = uTicket; });
    ++xStream.m_uIssued;
    if (!xStream.m_bNonBlocking)
    {
        xStream.m_uBlockingIssued = xStream.m_uIssued;
    }
    return xStream.m_uIssued;
}

std::unique_ptr<CStream::SNode> CDevice::_Prepare(CStream& xStream, std::unique_ptr<CWork> pWork, const SMark& xAfter)
{
    auto pNode = std::make_unique<CStream::SNode>();
    pNode->vAfter = _CollectUnseen(xStream, false);
    if (xAfter.pStream != nullptr)
    {
        pNode->vAfter.push_back(xAfter);
    }
    pNode->pWork = std::move(pWork);
    xStream._StartThread(*this);
    return pNode;
}

void CDevice::_Commit(CStream& xStream, std::unique_ptr<CStream::SNode> pNode) noexcept
{
    pNode->uTicket = _IssueTicket(xStream);
    xStream._Append(std::move(pNode));
}

CStream* CDevice::_FindStream(cudaStream_t hStream) noexcept
{
    if (hStream == nullptr || hStream == cudaStreamLegacy)
    {
        return &m_xLegacy;
    }
    SHandle xHandle;
    if (!DecodeHandle(EHandle::Stream, hStream, xHandle) || xHandle.uDevice != static_cast<std::uint64_t>(m_iID) ||
        xHandle.uSlot >= m_vStreams.size())
    {
        return nullptr;
    }
    CStream& xStream = m_vStreams[xHandle.uSlot];
    return xStream.m_bLive && xStream.m_uGeneration == xHandle.uGeneration ? &xStream : nullptr;
}

cudaError_t CDevice::CreateStream(bool bNonBlocking, cudaStream_t& hStream)
{
    const std::lock_guard xLock(m_xMutex);
    std::size_t nSlot = 0;
    for (; nSlot < m_vStreams.size(); ++nSlot)
    {
        const CStream& xOld = m_vStreams[nSlot];
        if (!xOld.m_bLive && (!xOld.m_bThread || xOld.m_bThreadGone.load(std::memory_order_acquire)))
        {
            break;
        }
    }
    if (nSlot == c_uSlotLimit)
    {
        return cudaErrorMemoryAllocation;
    }
    if (nSlot == m_vStreams.size())
    {
        m_vStreams.emplace_back();
    }
    CStream& xStream = m_vStreams[nSlot];
    xStream.m_bThread = false;
    xStream.m_bNonBlocking = bNonBlocking;
    xStream.m_bLive = true;
    hStream =
        EncodeHandle<cudaStream_t>(EHandle::Stream, {static_cast<std::uint64_t>(m_iID), nSlot, xStream.m_uGeneration});
    return cudaSuccess;
}

cudaError_t CDevice::DestroyStream(cudaStream_t hStream)
{
    const std::lock_guard xLock(m_xMutex);
    CStream* const pStream = _FindStream(hStream);
    if (pStream == nullptr || pStream == &m_xLegacy)
    {
        return cudaErrorInvalidResourceHandle;
    }
    pStream->_Close();
    return cudaSuccess;
}

cudaError_t CDevice::CheckStream(cudaStream_t hStream)
{
    const std::lock_guard xLock(m_xMutex);
    return _FindStream(hStream) != nullptr ? cudaSuccess : cudaErrorInvalidResourceHandle;
}

cudaError_t CDevice::Enqueue(cudaStream_t hStream, std::unique_ptr<CWork> pWork, const SMark& xAfter)
{
    const std::lock_guard xLock(m_xMutex);
    CStream* const pStream = _FindStream(hStream);
    if (pStream == nullptr)
    {
        return cudaErrorInvalidResourceHandle;
    }
    _Commit(*pStream, _Prepare(*pStream, std::move(pWork), xAfter));
    return cudaSuccess;
}

cudaError_t CDevice::GetMarks(cudaStream_t hStream, SMark& xOwn, std::vector<SMark>& vOthers)
{
    const std::lock_guard xLock(m_xMutex);
    CStream* const pStream = _FindStream(hStream);
    if (pStream == nullptr)
    {
        return cudaErrorInvalidResourceHandle;
    }
    if (pStream == &m_xLegacy)
    {
        vOthers = _CollectUnseen(m_xLegacy, true);
    }
    xOwn = {pStream, pStream->m_uIssued};
    return cudaSuccess;
}

void CDevice::Synchronize() noexcept
{
    // One stream at a time, since a list of them all would have to be allocated.
    for (std::size_t nIndex = 0;; ++nIndex)
    {
        SMark xMark;
        {
            const std::lock_guard xLock(m_xMutex);
            if (nIndex > m_vStreams.size())
            {
                return;
            }
            const CStream& xStream = nIndex == m_vStreams.size() ? m_xLegacy : m_vStreams[nIndex];
            xMark = {&xStream, xStream.m_uIssued};
        }
        xMark.Wait();
    }
}

bool CDevice::_IsIdle() const noexcept
{
    return m_xLegacy.IsDone(m_xLegacy.m_uIssued) &&
        std::ranges::all_of(m_vStreams, [](const CStream& xStream) { return xStream.IsDone(xStream.m_uIssued); });
}

void CDevice::_CloseAll() noexcept
{
    for (CStream& xStream : m_vStreams)
    {
        if (xStream.m_bLive)
        {
            xStream._Close();
        }
    }
    for (std::size_t nSlot = 0; nSlot < m_vEvents.size(); ++nSlot)
    {
        if (m_vEvents[nSlot].bLive)
        {
            _CloseEvent(m_vEvents[nSlot]);
            m_vFreeEvents.push_back(nSlot);
        }
    }
}

cudaError_t FindDevice(cudaStream_t hStream, CDevice*& pDevice)
{
    if (hStream == cudaStreamPerThread)
    {
        return cudaErrorNotSupported;
    }
    if (hStream == nullptr || hStream == cudaStreamLegacy)
    {
        pDevice = &CurrentDevice();
        return pDevice->GetFault();
    }
    SHandle xHandle;
    if (!DecodeHandle(EHandle::Stream, hStream, xHandle))
    {
        return cudaErrorInvalidResourceHandle;
    }
    pDevice = FindDevice(static_cast<int>(xHandle.uDevice));
    if (pDevice == nullptr || pDevice->CheckStream(hStream) != cudaSuccess)
    {
        return cudaErrorInvalidResourceHandle;
    }
    return pDevice->GetFault();
}

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

// Finds a stream's device and what has to be reached before all work on the stream so far is done.
cudaError_t _GetMarks(cudaStream_t hStream, CDevice*& pDevice, SMark& xOwn, std::vector<SMark>& vOthers)
{
    const cudaError_t eError = FindDevice(hStream, pDevice);
    return eError != cudaSuccess ? eError : pDevice->GetMarks(hStream, xOwn, vOthers);
}

} // namespace
} // namespace Qx::HostCuda

using namespace Qx::HostCuda;

cudaError_t cudaStreamCreate(cudaStream_t* pStream)
{
    return cudaStreamCreateWithFlags(pStream, cudaStreamDefault);
}

cudaError_t cudaStreamCreateWithFlags(cudaStream_t* pStream, unsigned int flags)
{
    return Call(
        [&]
        {
            CDevice& xDevice = CurrentDevice();
            if (const cudaError_t eFault = xDevice.GetFault(); eFault != cudaSuccess)
            {
                return eFault;
            }
            if (pStream == nullptr || (flags != cudaStreamDefault && flags != cudaStreamNonBlocking))
            {
                return cudaErrorInvalidValue;
            }
            return xDevice.CreateStream(flags == cudaStreamNonBlocking, *pStream);
        });
}

cudaError_t cudaStreamDestroy(cudaStream_t stream)
{
    return Call(
        [&]
        {
            CDevice* pDevice = nullptr;
            const cudaError_t eError = FindDevice(stream, pDevice);
            return eError != cudaSuccess ? eError : pDevice->DestroyStream(stream);
        });
}

cudaError_t cudaStreamSynchronize(cudaStream_t stream)
{
    return Call(
        [&]
        {
            CDevice* pDevice = nullptr;
            SMark xOwn;
            std::vector<SMark> vOthers;
            const cudaError_t eError = _GetMarks(stream, pDevice, xOwn, vOthers);
            xOwn.Wait();
            for (const SMark& xMark : vOthers)
            {
                xMark.Wait();
            }
            return eError != cudaSuccess ? eError : pDevice->GetFault();
        });
}

cudaError_t cudaStreamQuery(cudaStream_t stream)
{
    return Query(
        [&]
        {
            CDevice* pDevice = nullptr;
            SMark xOwn;
            std::vector<SMark> vOthers;
            const cudaError_t eError = _GetMarks(stream, pDevice, xOwn, vOthers);
            if (eError != cudaSuccess)
            {
                return eError;
            }
            return vOthers.empty() && xOwn.IsReached() ? pDevice->GetFault() : cudaErrorNotReady;
        });
}

cudaError_t cudaStreamWaitEvent(cudaStream_t stream, cudaEvent_t event, unsigned int flags)
{
    return Call(
        [&]
        {
            CDevice* pDevice = nullptr;
            CDevice* pEventDevice = nullptr;
            SMark xMark;
            cudaError_t eError = FindDevice(stream, pDevice);
            if (eError == cudaSuccess)
            {
                eError = FindDevice(event, pEventDevice);
            }
            if (eError == cudaSuccess)
            {
                eError = pEventDevice->GetMark(event, xMark);
            }
            if (eError == cudaSuccess && flags != cudaEventWaitDefault)
            {
                eError = cudaErrorInvalidValue;
            }
            if (eError != cudaSuccess || xMark.pStream == nullptr)
            {
                return eError;
            }
            return pDevice->Enqueue(stream, nullptr, xMark);
        });
}

cudaError_t cudaLaunchHostFunc(cudaStream_t stream, cudaHostFn_t fn, void* userData)
{
    return Call(
        [&]
        {
            CDevice* pDevice = nullptr;
            const cudaError_t eError = FindDevice(stream, pDevice);
            if (eError != cudaSuccess)
            {
                return eError;
            }
            if (fn == nullptr)
            {
                return cudaErrorInvalidValue;
            }
            return pDevice->Enqueue(stream, MakeWork([fn, userData] { _CallHostFunction(fn, userData); }));
        });
}
