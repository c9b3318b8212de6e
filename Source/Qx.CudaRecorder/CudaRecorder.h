#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <cublas_v2.h>
#include <cuda_runtime_api.h>

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
/// It knows every call of the runtime and of cuBLAS that the stand-in offers (`KnownNames`), on both platforms; what
/// the runtime calls inside of one is not recorded. A name that it does not know is refused with
/// `std::invalid_argument`, wherever one is given, so that no test counts or fails what cannot happen. Those of cuBLAS
/// may leave out their "_v2".
///
/// A launch is `cudaLaunchKernel`, however it is made and on either platform; `cudaLaunchKernelEx` and
/// `cudaLaunchKernelExC` mean the same when they are given. Its arguments are the grid's x, y and z, the block's, the
/// bytes of shared memory, and the stream.
///
/// The calls of cuBLAS are treated like the others: a planned failure makes them return CUBLAS_STATUS_EXECUTION_FAILED
/// whatever the error, and leaves the last CUDA error alone. The factors alpha and beta of products that lie on the
/// host are recorded by value, without what follows the point, in place of their addresses.
///
/// Calls that give no error of their own (`cudaGetLastError`, `cudaPeekAtLastError`, `cudaGetErrorName`,
/// `cudaGetErrorString`, `cudaCreateChannelDesc`, `cublasGetStatusName`, `cublasGetStatusString`) are recorded but
/// cannot be made to fail: to plan that is refused like an unknown name.
///
/// No exception leaves a call. The recorder's own memory is not that of the operators `new`; when there is none to note
/// a call or a block that there was, the operations that would tell of it throw `std::runtime_error` until `Reset`. All
/// operations may be called from any thread.
class CCudaRecorder
{
public:
    /// Forgets recorded calls and planned failures; recording is on afterwards. Live allocations stay known.
    static void Reset();

    /// Forwards calls without recording or failing them until `Reset`, so that the recorder itself allocates nothing.
    /// Allocations are still tracked.
    static void Pause();

    /// The names of all calls that are recorded.
    static std::vector<std::string> KnownNames();

    /// The calls since `Reset`, in the order in which they returned. `cudaPeekAtLastError`, which changes nothing, is
    /// left out, so that a test may ask between the calls that it compares; `Count` and `Last` know it.
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

    /// Blocks that were allocated through the runtime and not freed, arrays and page-locked ones among them.
    static std::size_t LiveAllocations();
};

/// True when a CUDA device answers; tests of what happens on a device need one.
bool DeviceAnswers();

} // namespace Qx::Test
