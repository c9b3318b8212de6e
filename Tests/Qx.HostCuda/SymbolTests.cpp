#include <cstring>

#include "HostCudaTest.h"

namespace
{

struct SKeeper
{
    static __device__ int s_iMember;
};

__device__ unsigned char g_vLarge[128 * 1024];
static __constant__ float g_fStatic;
__constant__ volatile short g_iVolatile = 7;
template <class T>
__device__ T g_vTemplate[3];
int SKeeper::s_iMember = 0;

} // namespace

extern __device__ double g_fExtern;
__device__ double g_fExtern = 1;
inline __constant__ long g_iInline = 2;

namespace Qx::Test
{

namespace
{

class HostSymbols : public CHostCudaTest
{
};

TEST_F(HostSymbols, SizesAreKnownHoweverAVariableIsDeclared)
{
    static __device__ int s_vLocal[5];
    const std::tuple<const char*, const volatile void*, std::size_t> vCases[] = {
        {"array", g_vLarge, sizeof(g_vLarge)},
        {"static", &g_fStatic, sizeof(g_fStatic)},
        {"volatile", &g_iVolatile, sizeof(g_iVolatile)},
        {"template", g_vTemplate<int>, sizeof(g_vTemplate<int>)},
        {"another of the template", g_vTemplate<char>, sizeof(g_vTemplate<char>)},
        {"static member", &SKeeper::s_iMember, sizeof(SKeeper::s_iMember)},
        {"extern", &g_fExtern, sizeof(g_fExtern)},
        {"inline", &g_iInline, sizeof(g_iInline)},
        {"local", s_vLocal, sizeof(s_vLocal)},
    };
    Bytes vHost(sizeof(g_vLarge) + 1);
    for (const auto& [pcName, pVariable, nSize] : vCases)
    {
        const void* const pSymbol = const_cast<const void*>(pVariable);
        EXPECT_EQ(cudaMemcpyFromSymbol(vHost.data(), pSymbol, nSize, 0, cudaMemcpyDeviceToHost), cudaSuccess) << pcName;
        ExpectResult(cudaMemcpyFromSymbol(vHost.data(), pSymbol, nSize + 1, 0, cudaMemcpyDeviceToHost),
            cudaErrorInvalidValue, pcName);
    }
}

TEST_F(HostSymbols, SmallPageableSourcesAreTakenAlong)
{
    constexpr std::size_t c_nLimit = 64 * 1024;
    const CStreamScope hStream;
    const CBlock xPinned(EMemory::PageLocked, c_nLimit);
    Bytes vPageable(c_nLimit + 1);
    const std::tuple<unsigned char*, std::size_t, bool> vCases[] = {
        {vPageable.data(), 32, true},
        {vPageable.data(), c_nLimit, true},
        {vPageable.data(), c_nLimit + 1, false},
        {xPinned.Get(), 32, false},
    };
    for (const auto& [pSource, nSize, bTaken] : vCases)
    {
        std::memset(pSource, 1, nSize);
        std::memset(g_vLarge, 0, sizeof(g_vLarge));
        {
            CHold xHold(hStream);
            ASSERT_EQ(
                cudaMemcpyToSymbolAsync(g_vLarge, pSource, nSize, 0, cudaMemcpyHostToDevice, hStream), cudaSuccess);
            xHold.Await();
            EXPECT_EQ(g_vLarge[0], 0) << "the variable changes in stream order";
            std::memset(pSource, 2, nSize);
        }
        ASSERT_EQ(cudaStreamSynchronize(hStream), cudaSuccess);
        EXPECT_EQ(g_vLarge[0], bTaken ? 1 : 2) << nSize;
        EXPECT_EQ(g_vLarge[nSize - 1], bTaken ? 1 : 2) << nSize;
    }
}

} // namespace

} // namespace Qx::Test
