#pragma once

#include <gtest/gtest.h>

#include "Qx.Core/QxException.h"
#include "Qx.CudaRecorder/CudaRecorder.h"

namespace Qx::Test
{

/// Fails the 1st, 2nd, 3rd ... runtime call of @p xOperation until the operation succeeds, once with each call failing
/// alone and once with all calls after it failing too.
///
/// @param xPrepare makes a fresh object and returns it; runs before every attempt without failures
/// @param xOperation the operation under test; its runtime calls are counted from 1
/// @param xCheck `(object, number of the failed call, exception)` after a failed attempt; the planned failure is off
///               by then, so it can also prove that the object works again
/// @return the number of runtime calls that the operation makes when nothing fails
template <typename TPrepare, typename TOperation, typename TCheck>
int SweepFailures(TPrepare&& xPrepare, TOperation&& xOperation, TCheck&& xCheck, cudaError_t eError = cudaErrorUnknown)
{
    constexpr int c_iMostCalls = 100;
    int iCalls = 0;
    for (const bool bPersistent : {false, true})
    {
        for (int iNth = 1; iNth <= c_iMostCalls; ++iNth)
        {
            auto xObject = xPrepare();
            CCudaRecorder::FailCall(iNth, eError, bPersistent);
            try
            {
                xOperation(xObject);
                const bool bFailed = CCudaRecorder::HasFailed();
                CCudaRecorder::ClearFailure();
                EXPECT_FALSE(bFailed) << "the failure of call " << iNth << " was not reported";
                iCalls = iNth - 1;
                break;
            }
            catch (const CQxException& xException)
            {
                CCudaRecorder::ClearFailure();
                EXPECT_TRUE(CCudaRecorder::HasFailed()) << xException.ToString().ToCString();
                // A device query that fails while the exception is made leaves its own error, as it must.
                EXPECT_TRUE(bPersistent || cudaPeekAtLastError() == cudaSuccess);
                static_cast<void>(cudaGetLastError());
                xCheck(xObject, iNth, xException);
            }
            EXPECT_LT(iNth, c_iMostCalls) << "the operation never succeeds";
        }
    }
    return iCalls;
}

} // namespace Qx::Test
