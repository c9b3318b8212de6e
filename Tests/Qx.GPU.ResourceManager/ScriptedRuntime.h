#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <cuda_runtime_api.h>

namespace Qx::Test
{

/// A CUDA runtime as the test wants it: a program that compiles ScriptedRuntime.cpp into itself has the calls that the
/// pool makes answered from here, with any device number, without a device and without memory behind the addresses.
///
/// It allocates nothing through `operator new` while the pool calls it. Freeing what is not alive, or with the wrong
/// function, fails as with the real runtime. For single-threaded tests.
struct CScriptedRuntime
{
    static constexpr std::size_t c_nPitchUnit = 512;

    /// Makes @p iDevice current and returns everything else to its default: a discrete device with concurrent managed
    /// access, no failure, no recorded call. Live blocks stay.
    static void Reset(int iDevice);

    /// Makes the @p iNth (from 1) of the calls from now on fail; with @p bPersistent those after it too.
    static void FailCall(int iNth, cudaError_t eError, bool bPersistent = false);

    /// The calls since `Reset`: "cudaFree 1000" with the address in hexadecimal for those that concern a block, the
    /// plain name for others.
    static std::vector<std::string> Calls();

    static std::size_t LiveBlocks();

    /// A block's pointer from its address.
    static void* Pointer(std::size_t nAddress)
    {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): no memory stands behind the address
        return reinterpret_cast<void*>(nAddress);
    }

    static int sm_iDevice;
    static int sm_iConcurrentManagedAccess;
    static int sm_iIntegrated;
    static std::size_t sm_nTotalMemory;
    static std::size_t sm_nNextAddress; ///< of the next allocation; moves on by 0x1000 with each
    static std::size_t sm_nPitch;       ///< of pitched allocations; 0: the width rounded up
    static void (*sm_pOnCall)();        ///< called once, inside the next call
    static bool sm_bHasFailed;          ///< a planned failure has happened
    static cudaError_t sm_eLastError;
};

} // namespace Qx::Test
