#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <cublas_v2.h>

namespace Qx::Test
{

/// One call of the CUDA runtime or of cuBLAS as the program's libraries made it.
struct SCudaCall
{
    std::string sName;                     ///< "cudaMemcpy2D"
    std::vector<std::uint64_t> vArguments; ///< in order; pointers and handles by value, signed ones sign-extended
    cudaError_t eResult;                   ///< of cuBLAS: cudaErrorUnknown for any status but success
};

/// For tests. Stands between the program's libraries and the CUDA runtime: the program defines the runtime's calls
/// itself, counts them and forwards them to the next definition, which is the real runtime or the stand-in.
///
/// The products and sums of cuBLAS are treated alike: a planned failure makes them return
/// CUBLAS_STATUS_EXECUTION_FAILED whatever the error, and leaves the last CUDA error alone. Their factors alpha and
/// beta, which lie on the host, are recorded by value in place of their addresses.
///
/// Calls that only ask about errors (`cudaGetLastError`, `cudaPeekAtLastError`, `cudaGetErrorName`,
/// `cudaGetErrorString`) are recorded but cannot be made to fail. All operations may be called from any thread.
class CCudaRecorder
{
public:
    /// Forgets recorded calls and planned failures; recording is on afterwards. Live allocations stay known.
    static void Reset();

    /// Forwards calls without recording or failing them until `Reset`, so that the recorder itself allocates nothing.
    /// Allocations are still tracked.
    static void Pause();

    /// The calls since `Reset`, in the order in which they returned.
    static std::vector<SCudaCall> Calls();

    /// Their names only.
    static std::vector<std::string> CallNames();

    /// How many of them were calls of @p pcName.
    static std::size_t Count(const char* pcName);

    /// The last of them of that name. Throws `std::out_of_range` when there is none.
    static SCudaCall Last(const char* pcName);

    /// Makes the @p iNth (from 1) of the calls from now on fail with @p eError instead of being forwarded; the error
    /// becomes the calling thread's last error. With @p bPersistent all calls after it fail too.
    static void FailCall(int iNth, cudaError_t eError, bool bPersistent = false);

    /// The same, counting calls of @p pcName only.
    static void FailCall(const char* pcName, int iNth, cudaError_t eError, bool bPersistent = false);

    /// True when a planned failure has happened.
    static bool HasFailed();

    /// Drops a planned failure.
    static void ClearFailure();

    /// Makes pitched blocks that are allocated from now on have rows of @p nBytes more than was asked for, so that
    /// their pitch varies.
    static void PadRows(std::size_t nBytes);

    /// Blocks that were allocated through the runtime and not freed.
    static std::size_t LiveAllocations();
};

/// True when a CUDA device answers; tests of what happens on a device need one.
bool DeviceAnswers();

} // namespace Qx::Test
