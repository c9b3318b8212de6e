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
    std::vector<unsigned char> vPageable(c_nLimit + 1);
    struct
    {
        const char* pcName;
        unsigned char* pSource;
        std::size_t nSize;
        bool bTaken;
    } const vCases[] = {
        {"small", vPageable.data(), 32, true},
        {"just small", vPageable.data(), c_nLimit, true},
        {"large", vPageable.data(), c_nLimit + 1, false},
        {"page-locked", xPinned.Get(), 32, false},
    };
    for (const auto& xCase : vCases)
    {
        std::memset(xCase.pSource, 1, xCase.nSize);
        std::memset(g_vLarge, 0, sizeof(g_vLarge));
        {
            CHold xHold(hStream);
            ASSERT_EQ(cudaMemcpyToSymbolAsync(g_vLarge, xCase.pSource, xCase.nSize, 0, cudaMemcpyHostToDevice, hStream),
                      cudaSuccess);
            xHold.Await();
            EXPECT_EQ(g_vLarge[0], 0) << xCase.pcName << ": the variable changes in stream order";
            std::memset(xCase.pSource, 2, xCase.nSize);
        }
        ASSERT_EQ(cudaStreamSynchronize(hStream), cudaSuccess);
        EXPECT_EQ(g_vLarge[0], xCase.bTaken ? 1 : 2) << xCase.pcName;
        EXPECT_EQ(g_vLarge[xCase.nSize - 1], xCase.bTaken ? 1 : 2) << xCase.pcName;
    }
}

} // namespace

} // namespace Qx::Test
