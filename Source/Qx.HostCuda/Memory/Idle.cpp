#include "Qx.HostCuda/HostCuda.h"

#include "Qx.HostCuda/Memory/Blocks.h"
#include "Qx.HostCuda/Runtime/Sanitizer.h"
#include "Qx.HostCuda/Streams/Schedule.h"

#include <algorithm>

namespace Qx::HostCuda
{
namespace
{

void _MarkIdle(void* pMemory, bool bIdle) noexcept
{
    const CMemory::CReadLock xLock = CMemory::Get().Read();
    const auto uBase = reinterpret_cast<std::uintptr_t>(pMemory);
    const SBlock* const pBlock = CMemory::Get().Find(uBase);
    if (pBlock == nullptr || pBlock->uBase != uBase)
    {
        return; // gone with its device's reset
    }
    if (!bIdle)
    {
        Unpoison(pMemory, pBlock->nSize);
        PoisonPadding(pMemory, pBlock->nPitch, pBlock->nWidth, pBlock->nSize / pBlock->nPitch);
    }
    // Work that is still queued may use the block: its next user queues behind it.
    else if (std::ranges::all_of(CSchedule::All(), &CSchedule::IsIdle))
    {
        Poison(pMemory, pBlock->nSize);
    }
}

} // namespace

IdleMarker GetIdleMarker() noexcept
{
    return HasAddressSanitizer() ? &_MarkIdle : nullptr;
}

} // namespace Qx::HostCuda
