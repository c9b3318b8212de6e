#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <cuda_runtime_api.h>

namespace Qx::HostCuda
{

// The pool asks for it by this name.
using IdleMarker = void (*)(void* pMemory, bool bIdle) noexcept;
IdleMarker GetIdleMarker() noexcept;

} // namespace Qx::HostCuda

namespace Qx::Test
{

/// A CUDA runtime as the test wants it: a program that compiles ScriptedRuntime.cpp into itself has the calls that the
/// pool makes answered from here, with any device number, without a device and without memory behind the addresses.
///
/// It allocates nothing through `operator new` while the pool calls it. Freeing what is not alive, or with the wrong
/// function, fails as with the real runtime, and so does a linear allocation beyond the memory. For
/// single-threaded tests.
struct CScriptedRuntime
{
    static constexpr std::size_t c_nPitchUnit = 512;

    /// Makes @p iDevice current and returns everything else to its default: a discrete device with concurrent managed
    /// access, no failure, no recorded call. Live blocks stay.
    static void Reset(int iDevice);

    /// Makes the @p iNth (from 1) of the calls from now on fail; with @p bPersistent those after it too. With a name
    /// the calls of that name alone count.
    static void FailCall(int iNth, cudaError_t eError, bool bPersistent = false, const char* pcName = nullptr);

    /// The calls since `Reset`: "cudaFree 0x1000" with the address for those that free a block, "cudaHostAlloc mapped"
    /// with the flags, the plain name for others.
    static std::vector<std::string> Calls();

    /// The blocks that were freed since `Reset`, in order.
    static std::vector<const void*> Freed();

    static std::size_t LiveBlocks();

    /// The live blocks that lie idle, as the pool has told.
    static std::size_t IdleBlocks();

    static inline int sm_iDevice = 0;
    static inline int sm_iFaultyDevice = -1; ///< while current it refuses to allocate and to free anything
    static inline int sm_iConcurrentManagedAccess = 1;
    static inline int sm_iIntegrated = 0;
    static inline std::size_t sm_nTotalMemory = 0;      ///< of a device
    static inline std::size_t sm_nSharedMemory = 0;     ///< what all linear blocks may have together
    static inline std::size_t sm_nNextAddress = 0x1000; ///< of the next allocation; moves on by 0x1000 with each
    static inline std::size_t sm_nPitch = 0;            ///< of pitched allocations; 0: the width rounded up
    static inline void (*sm_pOnFree)() = nullptr;       ///< called once, inside the next `cudaFree`
    static inline bool sm_bHasFailed = false;           ///< a planned failure has happened
    static inline cudaError_t sm_eLastError = cudaSuccess;
};

} // namespace Qx::Test
