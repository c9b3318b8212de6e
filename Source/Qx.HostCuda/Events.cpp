#include "Qx.HostCuda/Devices.h"

#include <chrono>

namespace Qx::HostCuda
{
namespace
{

constexpr std::uint64_t c_uTimeMask = (std::uint64_t{1} << CDevice::c_uTimeBits) - 1;
constexpr std::uint64_t c_uOneRecord = std::uint64_t{1} << CDevice::c_uTimeBits;

/// The present time as part of a stamp; never 0, which means "not reached".
std::uint64_t _Now() noexcept
{
    using CTicks = std::chrono::duration<std::uint64_t, std::ratio<1, 10'000'000>>;
    const auto xNow = std::chrono::steady_clock::now().time_since_epoch();
    const std::uint64_t uTime = std::chrono::duration_cast<CTicks>(xNow).count() & c_uTimeMask;
    return uTime != 0 ? uTime : 1;
}

} // namespace

CDevice::SEvent* CDevice::_FindEvent(cudaEvent_t hEvent) noexcept
{
    SHandle xHandle;
    if (!DecodeHandle(EHandle::Event, hEvent, xHandle) || xHandle.uDevice != static_cast<std::uint64_t>(m_iID) ||
        xHandle.uSlot >= m_vEvents.size())
    {
        return nullptr;
    }
    SEvent& xEvent = m_vEvents[xHandle.uSlot];
    return xEvent.bLive && xEvent.uGeneration == xHandle.uGeneration ? &xEvent : nullptr;
}

cudaError_t CDevice::CreateEvent(unsigned uFlags, cudaEvent_t& hEvent)
{
    const std::lock_guard xLock(m_xMutex);
    if (m_vFreeEvents.empty())
    {
        if (m_vEvents.size() == c_uSlotLimit)
        {
            return cudaErrorMemoryAllocation;
        }
        if (m_vFreeEvents.capacity() <= m_vEvents.size())
        {
            m_vFreeEvents.reserve(2 * m_vEvents.size() + 8);
        }
        m_vEvents.emplace_back();
        m_vFreeEvents.push_back(m_vEvents.size() - 1);
    }
    const std::size_t nSlot = m_vFreeEvents.back();
    m_vFreeEvents.pop_back();
    SEvent& xEvent = m_vEvents[nSlot];
    xEvent.bLive = true;
    xEvent.uFlags = uFlags;
    hEvent = EncodeHandle<cudaEvent_t>(EHandle::Event, {static_cast<std::uint64_t>(m_iID), nSlot, xEvent.uGeneration});
    return cudaSuccess;
}

void CDevice::_CloseEvent(SEvent& xEvent) noexcept
{
    xEvent.bLive = false;
    ++xEvent.uGeneration;
    xEvent.xMark = {};
}

cudaError_t CDevice::DestroyEvent(cudaEvent_t hEvent)
{
    const std::lock_guard xLock(m_xMutex);
    SEvent* const pEvent = _FindEvent(hEvent);
    if (pEvent == nullptr)
    {
        return cudaErrorInvalidResourceHandle;
    }
    SHandle xHandle;
    DecodeHandle(EHandle::Event, hEvent, xHandle);
    _CloseEvent(*pEvent);
    m_vFreeEvents.push_back(xHandle.uSlot);
    return cudaSuccess;
}

cudaError_t CDevice::RecordEvent(cudaEvent_t hEvent, cudaStream_t hStream)
{
    const std::lock_guard xLock(m_xMutex);
    SEvent* const pEvent = _FindEvent(hEvent);
    CStream* const pStream = _FindStream(hStream);
    if (pEvent == nullptr || pStream == nullptr)
    {
        return cudaErrorInvalidResourceHandle;
    }
    // The event needs a place of its own in the queue only to take the time there, or to stand for work of other
    // streams; otherwise it is the last ticket, and costs neither memory nor a change of thread.
    bool bQueue = (pEvent->uFlags & cudaEventDisableTiming) == 0 && !pStream->_IsIdle();
    _ForEachUnseen(*pStream, [&](const CStream&, std::uint64_t, std::uint64_t&) { bQueue = true; });
    const std::uint64_t uRecord = (pEvent->uStamp.load(std::memory_order_relaxed) & ~c_uTimeMask) + c_uOneRecord;
    if (bQueue)
    {
        auto pNode = _Prepare(*pStream,
            MakeWork(
                [pEvent, uRecord]
                {
                    std::uint64_t uExpected = uRecord;
                    pEvent->uStamp.compare_exchange_strong(uExpected, uRecord | _Now(), std::memory_order_relaxed);
                }),
            {});
        pEvent->uStamp.store(uRecord, std::memory_order_relaxed);
        _Commit(*pStream, std::move(pNode));
    }
    else
    {
        pEvent->uStamp.store(uRecord | _Now(), std::memory_order_relaxed);
    }
    pEvent->xMark = {pStream, pStream->m_uIssued};
    return cudaSuccess;
}

cudaError_t CDevice::GetMark(cudaEvent_t hEvent, SMark& xMark)
{
    const std::lock_guard xLock(m_xMutex);
    const SEvent* const pEvent = _FindEvent(hEvent);
    if (pEvent == nullptr)
    {
        return cudaErrorInvalidResourceHandle;
    }
    xMark = pEvent->xMark;
    return cudaSuccess;
}

cudaError_t CDevice::GetTime(cudaEvent_t hEvent, std::uint64_t& uTime)
{
    const std::lock_guard xLock(m_xMutex);
    const SEvent* const pEvent = _FindEvent(hEvent);
    if (pEvent == nullptr || (pEvent->uFlags & cudaEventDisableTiming) != 0 || pEvent->xMark.pStream == nullptr)
    {
        return cudaErrorInvalidResourceHandle;
    }
    if (!pEvent->xMark.IsReached())
    {
        return cudaErrorNotReady;
    }
    uTime = pEvent->uStamp.load(std::memory_order_relaxed) & c_uTimeMask;
    return cudaSuccess;
}

cudaError_t FindDevice(cudaEvent_t hEvent, CDevice*& pDevice)
{
    SHandle xHandle;
    if (!DecodeHandle(EHandle::Event, hEvent, xHandle))
    {
        return cudaErrorInvalidResourceHandle;
    }
    pDevice = FindDevice(static_cast<int>(xHandle.uDevice));
    return pDevice == nullptr ? cudaErrorInvalidResourceHandle : pDevice->GetFault();
}

namespace
{

// Finds an event's device and what its last record waits for.
cudaError_t _GetMark(cudaEvent_t hEvent, CDevice*& pDevice, SMark& xMark)
{
    const cudaError_t eError = FindDevice(hEvent, pDevice);
    return eError != cudaSuccess ? eError : pDevice->GetMark(hEvent, xMark);
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
    return Call(
        [&]
        {
            CDevice& xDevice = CurrentDevice();
            if (const cudaError_t eFault = xDevice.GetFault(); eFault != cudaSuccess)
            {
                return eFault;
            }
            constexpr unsigned c_uKnown = cudaEventBlockingSync | cudaEventDisableTiming | cudaEventInterprocess;
            const bool bShared = (flags & cudaEventInterprocess) != 0;
            if (event == nullptr || (flags & ~c_uKnown) != 0 || (bShared && (flags & cudaEventDisableTiming) == 0))
            {
                return cudaErrorInvalidValue;
            }
            return bShared ? cudaErrorNotSupported : xDevice.CreateEvent(flags, *event);
        });
}

cudaError_t cudaEventDestroy(cudaEvent_t event)
{
    return Call(
        [&]
        {
            CDevice* pDevice = nullptr;
            const cudaError_t eError = FindDevice(event, pDevice);
            return eError != cudaSuccess ? eError : pDevice->DestroyEvent(event);
        });
}

cudaError_t cudaEventRecord(cudaEvent_t event, cudaStream_t stream)
{
    return Call(
        [&]
        {
            CDevice* pDevice = nullptr;
            const cudaError_t eError = FindDevice(stream, pDevice);
            return eError != cudaSuccess ? eError : pDevice->RecordEvent(event, stream);
        });
}

cudaError_t cudaEventSynchronize(cudaEvent_t event)
{
    return Call(
        [&]
        {
            CDevice* pDevice = nullptr;
            SMark xMark;
            const cudaError_t eError = _GetMark(event, pDevice, xMark);
            xMark.Wait();
            return eError != cudaSuccess ? eError : pDevice->GetFault();
        });
}

cudaError_t cudaEventQuery(cudaEvent_t event)
{
    return Query(
        [&]
        {
            CDevice* pDevice = nullptr;
            SMark xMark;
            const cudaError_t eError = _GetMark(event, pDevice, xMark);
            if (eError != cudaSuccess)
            {
                return eError;
            }
            return xMark.IsReached() ? pDevice->GetFault() : cudaErrorNotReady;
        });
}

cudaError_t cudaEventElapsedTime(float* ms, cudaEvent_t start, cudaEvent_t end)
{
    return Call(
        [&]
        {
            CDevice* pDevice = nullptr;
            CDevice* pEndDevice = nullptr;
            std::uint64_t uStart = 0;
            std::uint64_t uEnd = 0;
            cudaError_t eError = FindDevice(start, pDevice);
            if (eError == cudaSuccess)
            {
                eError = FindDevice(end, pEndDevice);
            }
            if (eError == cudaSuccess && pEndDevice != pDevice)
            {
                eError = cudaErrorInvalidResourceHandle;
            }
            // A handle that is refused for good counts more than one that is not ready yet.
            if (eError == cudaSuccess)
            {
                eError = pDevice->GetTime(start, uStart);
                const cudaError_t eEndError = pDevice->GetTime(end, uEnd);
                eError = eError == cudaSuccess || eEndError == cudaErrorInvalidResourceHandle ? eEndError : eError;
            }
            if (eError == cudaSuccess && ms == nullptr)
            {
                eError = cudaErrorInvalidValue;
            }
            if (eError == cudaSuccess)
            {
                // The difference of two wrapping times, with its sign.
                constexpr unsigned c_uSpare = 64 - CDevice::c_uTimeBits;
                const auto iTicks = static_cast<std::int64_t>((uEnd - uStart) << c_uSpare) >> c_uSpare;
                *ms = static_cast<float>(static_cast<double>(iTicks) * 1e-4);
            }
            return eError;
        });
}
