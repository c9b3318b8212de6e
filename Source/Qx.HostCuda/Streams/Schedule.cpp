#include "Qx.HostCuda/Streams/Schedule.h"

#include <algorithm>
#include <chrono>

namespace Qx::HostCuda
{
namespace
{

// A stamp: the number of a record above its time in ticks of 100 ns, which wrap.
constexpr unsigned c_uTimeBits = 44;
constexpr std::uint64_t c_uOneRecord = std::uint64_t{1} << c_uTimeBits;
constexpr std::uint64_t c_uTimeMask = c_uOneRecord - 1;

/// The present time as part of a stamp; never 0, which means "not reached".
std::uint64_t _Now() noexcept
{
    using CTicks = std::chrono::duration<std::uint64_t, std::ratio<1, 10'000'000>>;
    const auto xNow = std::chrono::steady_clock::now().time_since_epoch();
    const std::uint64_t uTime = std::chrono::duration_cast<CTicks>(xNow).count() & c_uTimeMask;
    return uTime != 0 ? uTime : 1;
}

} // namespace

std::deque<CSchedule>& CSchedule::All()
{
    static std::deque<CSchedule>& s_vSchedules = *[]
    {
        auto* const pSchedules = new std::deque<CSchedule>;
        for (int iDevice = 0; iDevice < GetDeviceCount(); ++iDevice)
        {
            pSchedules->emplace_back(*FindDevice(iDevice));
        }
        return pSchedules;
    }();
    return s_vSchedules;
}

// ---- Order
// -----------------------------------------------------------------------------------------------------------

template <class F>
void CSchedule::_ForEachUnseen(SStream& xStream, F&& Function)
{
    if (&xStream != &m_xLegacy)
    {
        if (!xStream.bNonBlocking && m_xLegacy.uIssued > xStream.uSeenOfLegacy)
        {
            Function(m_xLegacy, m_xLegacy.uIssued, xStream.uSeenOfLegacy);
        }
        return;
    }
    for (SStream& xOther : m_vStreams)
    {
        if (xOther.uBlockingIssued > xOther.uSeenByLegacy)
        {
            Function(xOther, xOther.uBlockingIssued, xOther.uSeenByLegacy);
        }
    }
}

std::vector<SMark> CSchedule::_CollectUnseen(SStream& xStream, bool bSkipDone)
{
    std::vector<SMark> vMarks;
    _ForEachUnseen(xStream,
        [&](const SStream& xOther, std::uint64_t uTicket, std::uint64_t&)
        {
            if (!bSkipDone || !xOther.xQueue.IsDone(uTicket))
            {
                vMarks.push_back({&xOther.xQueue, uTicket});
            }
        });
    return vMarks;
}

std::uint64_t CSchedule::_IssueTicket(SStream& xStream) noexcept
{
    _ForEachUnseen(xStream, [](const SStream&, std::uint64_t uTicket, std::uint64_t& uSeen) { uSeen = uTicket; });
    ++xStream.uIssued;
    if (!xStream.bNonBlocking)
    {
        xStream.uBlockingIssued = xStream.uIssued;
    }
    return xStream.uIssued;
}

std::unique_ptr<CQueue::SNode> CSchedule::_Prepare(SStream& xStream, std::unique_ptr<CWork> pWork, const SMark& xAfter)
{
    auto pNode = std::make_unique<CQueue::SNode>();
    pNode->vAfter = _CollectUnseen(xStream, false);
    if (xAfter.pQueue != nullptr)
    {
        pNode->vAfter.push_back(xAfter);
    }
    pNode->pWork = std::move(pWork);
    xStream.xQueue.Start(m_xDevice);
    return pNode;
}

void CSchedule::_Commit(SStream& xStream, std::unique_ptr<CQueue::SNode> pNode) noexcept
{
    pNode->uTicket = _IssueTicket(xStream);
    xStream.xQueue.Append(std::move(pNode));
}

// ---- Streams
// ---------------------------------------------------------------------------------------------------------

cudaStream_t CSchedule::CreateStream(bool bNonBlocking)
{
    const std::lock_guard xLock(m_xMutex);
    // Of the streams that were given up, those whose threads have ended may be used again.
    for (CStreams::SSlot** ppSlot = &m_pClosing; *ppSlot != nullptr;)
    {
        CStreams::SSlot& xSlot = **ppSlot;
        if (xSlot.xQueue.HasEnded())
        {
            *ppSlot = xSlot.pNext;
            m_vStreams.Recycle(xSlot);
        }
        else
        {
            ppSlot = &xSlot.pNext;
        }
    }
    CStreams::SSlot& xStream = m_vStreams.Create(m_xDevice.GetID());
    xStream.bNonBlocking = bNonBlocking;
    return xStream.hHandle;
}

void CSchedule::_CloseStream(CStreams::SSlot& xStream) noexcept
{
    xStream.xQueue.Close();
    m_vStreams.Close(xStream);
    xStream.pNext = std::exchange(m_pClosing, &xStream);
}

void CSchedule::Synchronize() noexcept
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
            const SStream& xStream = nIndex == m_vStreams.size() ? m_xLegacy : m_vStreams[nIndex];
            xMark = xStream.GetMark();
        }
        xMark.Wait();
    }
}

bool CSchedule::_IsIdle() const noexcept
{
    const auto IsDone = [](const SStream& xStream) { return xStream.GetMark().IsReached(); };
    return IsDone(m_xLegacy) && std::ranges::all_of(m_vStreams, IsDone);
}

void CSchedule::_CloseAll() noexcept
{
    for (CStreams::SSlot& xStream : m_vStreams)
    {
        if (xStream.hHandle != nullptr)
        {
            _CloseStream(xStream);
        }
    }
    for (CEvents::SSlot& xEvent : m_vEvents)
    {
        if (xEvent.hHandle != nullptr)
        {
            m_vEvents.Free(xEvent);
        }
    }
}

void CSchedule::CountHandles(std::size_t& nStreamCount, std::size_t& nEventCount)
{
    const std::lock_guard xLock(m_xMutex);
    nStreamCount = m_vStreams.GetLiveCount();
    nEventCount = m_vEvents.GetLiveCount();
}

CSchedule::SStream* CSchedule::_FindStream(cudaStream_t hStream) noexcept
{
    return hStream == nullptr || hStream == cudaStreamLegacy ? &m_xLegacy : m_vStreams.Find(hStream);
}

CPlace::CPlace(cudaStream_t hStream)
{
    Require(hStream != cudaStreamPerThread, cudaErrorNotSupported);
    const bool bLegacy = hStream == nullptr || hStream == cudaStreamLegacy;
    m_pSchedule = bLegacy ? &Of(CurrentDevice()) : &Of(EHandle::Stream, hStream);
    m_xLock = std::unique_lock(m_pSchedule->m_xMutex);
    m_pStream = m_pSchedule->_FindStream(hStream);
    Require(m_pStream != nullptr, cudaErrorInvalidResourceHandle);
    m_pSchedule->m_xDevice.RequireHealthy();
}

SMark CPlace::GetMarks(std::vector<SMark>& vOthers) const
{
    if (m_pStream == &m_pSchedule->m_xLegacy)
    {
        vOthers = m_pSchedule->_CollectUnseen(*m_pStream, true);
    }
    return m_pStream->GetMark();
}

void CPlace::Destroy()
{
    Require(m_pStream != &m_pSchedule->m_xLegacy, cudaErrorInvalidResourceHandle);
    m_pSchedule->_CloseStream(static_cast<CStreams::SSlot&>(*m_pStream));
}

CLegacyTurn::CLegacyTurn(CPlace& xPlace)
    : m_xQueue(xPlace.m_pStream->xQueue),
      m_vAfter(xPlace.m_pSchedule->_CollectUnseen(*xPlace.m_pStream, true)),
      m_uTicket(xPlace.m_pSchedule->_IssueTicket(*xPlace.m_pStream))
{
    xPlace.Leave();
}

CLegacyTurn::~CLegacyTurn()
{
    Await();
    m_xQueue.Publish(m_uTicket);
}

void CLegacyTurn::Await() const noexcept
{
    for (const SMark& xMark : m_vAfter)
    {
        xMark.Wait();
    }
    m_xQueue.Wait(m_uTicket - 1);
}

// ---- Events
// ----------------------------------------------------------------------------------------------------------

cudaEvent_t CSchedule::CreateEvent(unsigned uFlags)
{
    const std::lock_guard xLock(m_xMutex);
    CEvents::SSlot& xEvent = m_vEvents.Create(m_xDevice.GetID());
    xEvent.uFlags = uFlags;
    xEvent.xMark = {};
    return xEvent.hHandle;
}

CSchedule::SEvent& CSchedule::_GetEvent(cudaEvent_t hEvent, bool bTimed)
{
    SEvent* const pEvent = m_vEvents.Find(hEvent);
    Require(pEvent != nullptr, cudaErrorInvalidResourceHandle);
    const bool bHasTime = (pEvent->uFlags & cudaEventDisableTiming) == 0 && pEvent->xMark.pQueue != nullptr;
    Require(bHasTime || !bTimed, cudaErrorInvalidResourceHandle);
    return *pEvent;
}

void CSchedule::DestroyEvent(cudaEvent_t hEvent)
{
    const std::lock_guard xLock(m_xMutex);
    m_vEvents.Free(static_cast<CEvents::SSlot&>(_GetEvent(hEvent, false)));
}

void CPlace::Record(cudaEvent_t hEvent)
{
    SEvent& xEvent = m_pSchedule->_GetEvent(hEvent, false);
    // The event needs a place of its own in the queue only to take the time there, or to stand for work of other
    // streams; otherwise it is the last ticket, and costs neither memory nor a change of thread.
    bool bQueue = (xEvent.uFlags & cudaEventDisableTiming) == 0 && !m_pStream->xQueue.LooksDone(m_pStream->uIssued);
    m_pSchedule->_ForEachUnseen(*m_pStream, [&](const SStream&, std::uint64_t, std::uint64_t&) { bQueue = true; });
    const std::uint64_t uRecord = (xEvent.uStamp.load(std::memory_order_relaxed) & ~c_uTimeMask) + c_uOneRecord;
    if (bQueue)
    {
        auto pNode = m_pSchedule->_Prepare(*m_pStream,
            MakeWork(
                [&xEvent, uRecord]
                {
                    std::uint64_t uExpected = uRecord;
                    xEvent.uStamp.compare_exchange_strong(uExpected, uRecord | _Now(), std::memory_order_relaxed);
                }),
            {});
        xEvent.uStamp.store(uRecord, std::memory_order_relaxed);
        m_pSchedule->_Commit(*m_pStream, std::move(pNode));
    }
    else
    {
        xEvent.uStamp.store(uRecord | _Now(), std::memory_order_relaxed);
    }
    xEvent.xMark = m_pStream->GetMark();
}

SMark CSchedule::GetMark(cudaEvent_t hEvent)
{
    const std::lock_guard xLock(m_xMutex);
    return _GetEvent(hEvent, false).xMark;
}

float CSchedule::Measure(cudaEvent_t hStart, cudaEvent_t hEnd)
{
    const std::lock_guard xLock(m_xMutex);
    const SEvent& xStart = _GetEvent(hStart, true);
    const SEvent& xEnd = _GetEvent(hEnd, true);
    Require(xStart.xMark.IsReached() && xEnd.xMark.IsReached(), cudaErrorNotReady);
    // The difference of two wrapping times, with its sign.
    const std::uint64_t uDifference =
        xEnd.uStamp.load(std::memory_order_relaxed) - xStart.uStamp.load(std::memory_order_relaxed);
    constexpr unsigned c_uSpare = 64 - c_uTimeBits;
    const auto iTicks = static_cast<std::int64_t>(uDifference << c_uSpare) >> c_uSpare;
    return static_cast<float>(static_cast<double>(iTicks) * 1e-4);
}

} // namespace Qx::HostCuda
