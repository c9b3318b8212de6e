#include <cstring>

#include <dlfcn.h>

#include <cublas_v2.h>
#include <cuda_runtime.h>
#include <gtest/gtest.h>

#include "RuntimeFacts.h"

namespace Qx::Test
{

namespace
{

TEST(Toolkit, ValuesTypesAndLayoutsOfTheHeadersAreTheSame)
{
    const auto vOurs = GetStandInFacts();
    const auto vTheirs = GetToolkitFacts();
    ASSERT_EQ(vOurs.size(), vTheirs.size());
    EXPECT_GT(vOurs.size(), 300U) << "names of the headers are missing";
    for (std::size_t nFact = 0; nFact < vOurs.size(); ++nFact)
    {
        EXPECT_EQ(vOurs[nFact].sFact, vTheirs[nFact].sFact) << vOurs[nFact].pcName;
    }
}

/// Compares the texts of the codes below `iCodes` with those of a library of the toolkit, which is loaded beside the
/// stand-in, whose calls of the same names stay in place.
/// @return how many of the codes have a name
template <typename TCode>
int CompareTexts(const char* pcLibrary, const char* pcName, const char* pcString, const char* (*pName)(TCode),
    const char* (*pString)(TCode), const char* pcUnknown, int iCodes)
{
    void* const pLibrary = dlopen(pcLibrary, RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
    if (pLibrary == nullptr)
    {
        ADD_FAILURE() << dlerror();
        return 0;
    }
    using PText = const char* (*)(int);
    const auto GetName = reinterpret_cast<PText>(dlsym(pLibrary, pcName));
    const auto GetString = reinterpret_cast<PText>(dlsym(pLibrary, pcString));
    EXPECT_NE(reinterpret_cast<void*>(GetName), reinterpret_cast<void*>(pName));
    int iKnown = 0;
    for (int iCode = 0; iCode < iCodes; ++iCode)
    {
        const auto eCode = static_cast<TCode>(iCode);
        EXPECT_STREQ(pName(eCode), GetName(iCode)) << iCode;
        EXPECT_STREQ(pString(eCode), GetString(iCode)) << iCode;
        iKnown += std::strcmp(GetName(iCode), pcUnknown) != 0 ? 1 : 0;
    }
    dlclose(pLibrary);
    return iKnown;
}

TEST(Toolkit, NamesAndTextsOfAllCodesAreTheSame)
{
    EXPECT_EQ(CompareTexts(QX_TOOLKIT_RUNTIME, "cudaGetErrorName", "cudaGetErrorString", &cudaGetErrorName,
                  &cudaGetErrorString, "unrecognized error code", 1024),
        133);
    EXPECT_EQ(CompareTexts(QX_TOOLKIT_BLAS, "cublasGetStatusName", "cublasGetStatusString", &cublasGetStatusName,
                  &cublasGetStatusString, "unrecognized status", 32),
        10);
}

} // namespace

} // namespace Qx::Test
