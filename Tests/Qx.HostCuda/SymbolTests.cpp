#include <cstring>

#include "HostCudaTest.h"

namespace
{

__device__ unsigned char g_vLarge[128 * 1024];

} // namespace

namespace Qx::Test
{

namespace
{

class HostSymbols : public CHostCudaTest
{
};

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
