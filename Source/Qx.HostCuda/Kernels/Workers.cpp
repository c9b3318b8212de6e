// Alone in this file because ThreadSanitizer must not see it: the installed oneTBB is not instrumented, and what its
// headers do in concert with it would be reported as races.

#include "Qx.HostCuda/Kernels/Workers.h"

#include <memory>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

namespace Qx::HostCuda
{

void RunInParallel(std::uint64_t nCount, int iThreads,
    void (*pFunction)(void* pContext, std::uint64_t nBegin, std::uint64_t nEnd) noexcept, void* pContext)
{
    // An arena for every calling thread, that is for every stream: launches never wait for a place in that of another.
    // Kept, because making one costs more than a small launch.
    static thread_local std::unique_ptr<tbb::task_arena> s_pArena;
    if (s_pArena == nullptr || s_pArena->max_concurrency() != iThreads)
    {
        s_pArena = std::make_unique<tbb::task_arena>(iThreads);
    }
    s_pArena->execute(
        [&]
        {
            tbb::parallel_for(tbb::blocked_range<std::uint64_t>(0, nCount),
                [=](const tbb::blocked_range<std::uint64_t>& xRange)
                { pFunction(pContext, xRange.begin(), xRange.end()); });
        });
}

} // namespace Qx::HostCuda
