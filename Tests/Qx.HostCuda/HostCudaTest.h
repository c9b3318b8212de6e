#pragma once

#include "Qx.HostCuda/Runtime/Sanitizer.h" // says under which one the tests run
#include "Runtime/RuntimeTest.h"

namespace Qx::Test
{

/// For what the stand-in alone offers; every test has two devices of c_nBudget bytes.
using CHostCudaTest = CRuntimeTest;

/// Unused memory of the current device.
inline std::size_t GetFreeMemory()
{
    std::size_t nFree = 0;
    std::size_t nTotal = 0;
    EXPECT_EQ(cudaMemGetInfo(&nFree, &nTotal), cudaSuccess);
    return nFree;
}

} // namespace Qx::Test
