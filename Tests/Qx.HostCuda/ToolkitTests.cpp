#include <cstring>

#include <dlfcn.h>

#include <cuda_runtime.h>
#include <gtest/gtest.h>

#include "RuntimeFacts.h"

namespace Qx::Test
{

namespace
{

TEST(Toolkit, ValuesAndLayoutsOfTheHeadersAreTheSame)
{
    const auto vOurs = GetStandInFacts();
    const auto vTheirs = GetToolkitFacts();
    ASSERT_EQ(vOurs.size(), vTheirs.size());
    for (std::size_t nFact = 0; nFact < vOurs.size(); ++nFact)
    {
        EXPECT_EQ(vOurs[nFact].iValue, vTheirs[nFact].iValue) << vOurs[nFact].sExpression;
    }
}

TEST(Toolkit, NamesAndTextsOfAllErrorsAreTheSame)
{
    // Loaded beside the stand-in, whose calls of the same names stay in place.
    void* const pRuntime = dlopen(QX_TOOLKIT_RUNTIME, RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
    ASSERT_NE(pRuntime, nullptr) << dlerror();
    using PText = const char* (*)(cudaError_t);
    const auto GetName = reinterpret_cast<PText>(dlsym(pRuntime, "cudaGetErrorName"));
    const auto GetString = reinterpret_cast<PText>(dlsym(pRuntime, "cudaGetErrorString"));
    ASSERT_NE(GetName, nullptr);
    ASSERT_NE(GetString, nullptr);
    ASSERT_NE(GetName, &cudaGetErrorName);
    int iKnown = 0;
    for (int iError = 0; iError < 1024; ++iError)
    {
        const auto eError = static_cast<cudaError_t>(iError);
        EXPECT_STREQ(cudaGetErrorName(eError), GetName(eError)) << iError;
        EXPECT_STREQ(cudaGetErrorString(eError), GetString(eError)) << iError;
        iKnown += std::strcmp(GetName(eError), "unrecognized error code") != 0 ? 1 : 0;
    }
    EXPECT_EQ(iKnown, 133);
    dlclose(pRuntime);
}

} // namespace

} // namespace Qx::Test
