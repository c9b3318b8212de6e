#pragma once

#include <cstdint>

namespace Qx::HostCuda
{

/// Calls `pFunction(pContext, begin, end)` for ranges that together make up [0, nCount), on up to `iThreads` threads,
/// the calling one included. Returns when all calls have; they happen after the call and before the return.
/// ThreadSanitizer cannot see this and has to be told by the function and the caller.
/// @throws std::bad_alloc when all calls that were begun have returned
void RunInParallel(std::uint64_t nCount, int iThreads,
    void (*pFunction)(void* pContext, std::uint64_t nBegin, std::uint64_t nEnd) noexcept, void* pContext);

} // namespace Qx::HostCuda
