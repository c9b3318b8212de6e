#pragma once

#include <cstddef>

namespace Qx::Test
{

/// Stands between the library and the resource manager, as `CCudaRecorder` does for the runtime: the program defines
/// the manager's operations itself, counts them and forwards them. For single-threaded tests; a program that uses it
/// compiles PoolRecorder.cpp into itself.
struct CPoolRecorder
{
    /// What a planned failure throws.
    enum class EFailure
    {
        None,
        QxException, ///< a `CQxException` "pool failure" of function "Fail" in file "Pool"
        BadAlloc     ///< `std::bad_alloc`
    };

    /// Counts to zero, no failure planned.
    static void Reset();

    static int sm_iGetPitch;      ///< calls of `GetCudaMemoryPitch`
    static int sm_iGetLinear;     ///< calls of `GetCudaMemory`
    static int sm_iGetPageLocked; ///< calls of `GetPageLockedMemory`
    static int sm_iRelease;       ///< calls of `ReleaseResource`
    static std::size_t sm_nWidth; ///< width or size of the last request in bytes
    static std::size_t sm_nRows;  ///< rows of the last pitched request
    static bool sm_bFlag;         ///< flag of the last release

    static EFailure sm_eFailGet;     ///< thrown by every request until `Reset`
    static EFailure sm_eFailRelease; ///< thrown by every release until `Reset`
};

} // namespace Qx::Test
