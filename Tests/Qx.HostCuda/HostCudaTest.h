#pragma once

#include "Runtime/RuntimeTest.h"

namespace Qx::Test
{

/// For what the stand-in alone offers; every test has two devices of c_nBudget bytes.
using CHostCudaTest = CRuntimeTest;

} // namespace Qx::Test
