#include <array>
#include <cstdint>

#include "RuntimeTest.h"

namespace
{

struct SParameters
{
    int iFirst = 0;
    int iSecond = 0;
    std::array<int, 4> vMore{};
};

__constant__ SParameters g_xParameters;
__constant__ int g_vInitialised[4] = {1, 2, 3, 4};
const int g_vReadOnly[4] = {1, 2, 3, 4};
// Holds addresses, which the loader writes before it protects the variable.
const void* const g_vRelocated[2] = {g_vReadOnly, &g_vReadOnly[1]};

} // namespace

namespace Qx::Test
{

namespace
{

class Symbols : public CRuntimeTest
{
};

TEST_F(Symbols, VariablesAreWrittenAndRead)
{
    const SParameters xParameters{1, 2, {3, 4, 5, 6}};
    SParameters xRead;
    ASSERT_EQ(cudaMemcpyToSymbol(g_xParameters, &xParameters, sizeof(xParameters)), cudaSuccess);
    ASSERT_EQ(cudaMemcpyFromSymbol(&xRead, g_xParameters, sizeof(xRead)), cudaSuccess);
    EXPECT_EQ(xRead.vMore, xParameters.vMore);

    const int iNew = 30;
    ASSERT_EQ(cudaMemcpyToSymbol(g_vInitialised, &iNew, sizeof(int), 2 * sizeof(int)), cudaSuccess);
    std::array<int, 4> vNumbers{};
    ASSERT_EQ(cudaMemcpyFromSymbol(vNumbers.data(), g_vInitialised, sizeof(vNumbers)), cudaSuccess);
    EXPECT_EQ(vNumbers, (std::array<int, 4>{1, 2, 30, 4}));

    // Through device memory, by address, in stream order.
    const CStreamScope hStream;
    const CBlock xBlock(EMemory::Device, sizeof(SParameters));
    const SParameters xOther{10, 20, {30, 40, 50, 60}};
    ASSERT_EQ(cudaMemcpy(xBlock.Get(), &xOther, sizeof(xOther), cudaMemcpyHostToDevice), cudaSuccess);
    ASSERT_EQ(cudaMemcpyToSymbolAsync(reinterpret_cast<const void*>(&g_xParameters), xBlock.Get(), sizeof(xOther), 0,
                  cudaMemcpyDeviceToDevice, hStream),
        cudaSuccess);
    ASSERT_EQ(cudaMemcpyFromSymbolAsync(xBlock.Get(), reinterpret_cast<const void*>(&g_xParameters), sizeof(int),
                  sizeof(int), cudaMemcpyDefault, hStream),
        cudaSuccess);
    ASSERT_EQ(cudaMemcpyFromSymbolAsync(&xRead, g_xParameters, sizeof(xRead), 0, cudaMemcpyDeviceToHost, hStream),
        cudaSuccess);
    ASSERT_EQ(cudaStreamSynchronize(hStream), cudaSuccess);
    EXPECT_EQ(xRead.vMore, xOther.vMore);
    int iSecond = 0;
    ASSERT_EQ(cudaMemcpy(&iSecond, xBlock.Get(), sizeof(int), cudaMemcpyDeviceToHost), cudaSuccess);
    EXPECT_EQ(iSecond, 20);
}

TEST_F(Symbols, OnlyTheAddressOfAVariableIsASymbol)
{
    int iLocal = 0;
    const CBlock xDevice(EMemory::Device, 16);
    const CBlock xManaged(EMemory::Managed, 16);
    const std::vector<int> vHeap(4);
    const std::pair<const char*, const void*> vCases[] = {
        {"null", nullptr},
        {"stack", &iLocal},
        {"heap", vHeap.data()},
        {"device memory", xDevice.Get()},
        {"managed memory", xManaged.Get()},
        {"constant", g_vReadOnly},
        {"relocated constant", g_vRelocated},
        {"element", &g_vInitialised[1]},
        {"member", &g_xParameters.iSecond},
        {"code", reinterpret_cast<const void*>(reinterpret_cast<std::uintptr_t>(&MakeBytes))},
        {"text", "text"},
        {"small number", reinterpret_cast<const void*>(std::uintptr_t{8})},
        {"all ones", reinterpret_cast<const void*>(UINTPTR_MAX)},
    };
    std::array<unsigned char, 4> vHost{1, 2, 3, 4};
    for (const auto& [pcName, pSymbol] : vCases)
    {
        const auto Check = [pcWhat = pcName](cudaError_t eError)
        { ExpectResult(eError, cudaErrorInvalidSymbol, pcWhat); };
        Check(cudaMemcpyToSymbol(pSymbol, vHost.data(), 4, 0, cudaMemcpyHostToDevice));
        Check(cudaMemcpyToSymbolAsync(pSymbol, vHost.data(), 4, 0, cudaMemcpyHostToDevice, nullptr));
        Check(cudaMemcpyFromSymbol(vHost.data(), pSymbol, 4, 0, cudaMemcpyDeviceToHost));
        Check(cudaMemcpyFromSymbolAsync(vHost.data(), pSymbol, 4, 0, cudaMemcpyDeviceToHost, nullptr));
        Check(cudaMemcpyToSymbol(pSymbol, vHost.data(), 0, 0, cudaMemcpyHostToDevice));
    }
    EXPECT_EQ(vHost, (std::array<unsigned char, 4>{1, 2, 3, 4}));
}

TEST_F(Symbols, BytesBeyondTheVariableAreRefused)
{
    std::array<int, 8> vHost{};
    for (const auto& [nCount, nOffset] : {std::pair<std::size_t, std::size_t>{17, 0}, {4, 13}, {0, 17}, {SIZE_MAX, 0},
             {4, SIZE_MAX}, {SIZE_MAX, SIZE_MAX}, {SIZE_MAX, 8}})
    {
        ExpectResult(cudaMemcpyToSymbol(g_vInitialised, vHost.data(), nCount, nOffset), cudaErrorInvalidValue);
        ExpectResult(cudaMemcpyToSymbolAsync(g_vInitialised, vHost.data(), nCount, nOffset), cudaErrorInvalidValue);
        ExpectResult(cudaMemcpyFromSymbol(vHost.data(), g_vInitialised, nCount, nOffset), cudaErrorInvalidValue);
        ExpectResult(cudaMemcpyFromSymbolAsync(vHost.data(), g_vInitialised, nCount, nOffset), cudaErrorInvalidValue);
    }
    const void* const pSymbol = g_vInitialised;
    for (const auto& [nCount, nOffset] : {std::pair<std::size_t, std::size_t>{17, 0}, {4, 13}, {0, 17},
             {4, std::size_t{1} << 40}, {SIZE_MAX, 0}, {SIZE_MAX, 8}, {4, SIZE_MAX}})
    {
        ExpectResult(cudaMemcpyToSymbol(pSymbol, vHost.data(), nCount, nOffset), cudaErrorInvalidValue);
        ExpectResult(cudaMemcpyFromSymbol(vHost.data(), pSymbol, nCount, nOffset), cudaErrorInvalidValue);
    }
}

TEST_F(Symbols, DirectionAndOtherSideAreChecked)
{
    const CBlock xBlock(EMemory::Device, 16);
    int vHost[4] = {};
    const void* const pSymbol = g_vInitialised;
    constexpr auto c_eUnknown = static_cast<cudaMemcpyKind>(5);
    for (const cudaMemcpyKind eKind : {cudaMemcpyHostToHost, cudaMemcpyDeviceToHost, c_eUnknown})
    {
        ExpectResult(cudaMemcpyToSymbol(pSymbol, vHost, 4, 0, eKind), cudaErrorInvalidMemcpyDirection);
        ExpectResult(cudaMemcpyToSymbolAsync(pSymbol, vHost, 4, 0, eKind), cudaErrorInvalidMemcpyDirection);
    }
    for (const cudaMemcpyKind eKind : {cudaMemcpyHostToHost, cudaMemcpyHostToDevice, c_eUnknown})
    {
        ExpectResult(cudaMemcpyFromSymbol(vHost, pSymbol, 4, 0, eKind), cudaErrorInvalidMemcpyDirection);
        ExpectResult(cudaMemcpyFromSymbolAsync(vHost, pSymbol, 4, 0, eKind), cudaErrorInvalidMemcpyDirection);
    }
    const auto ToSymbol = [&](const void* pSource, std::size_t nCount, cudaMemcpyKind eKind)
    { return cudaMemcpyToSymbol(pSymbol, pSource, nCount, 0, eKind); };
    ExpectResult(ToSymbol(xBlock.Get(), 4, cudaMemcpyHostToDevice), cudaErrorInvalidValue);
    ExpectResult(ToSymbol(vHost, 4, cudaMemcpyDeviceToDevice), cudaErrorInvalidValue);
    ExpectResult(ToSymbol(nullptr, 4, cudaMemcpyHostToDevice), cudaErrorInvalidValue);
    ExpectResult(ToSymbol(xBlock.Get(14), 4, cudaMemcpyDeviceToDevice), cudaErrorInvalidValue);
    EXPECT_EQ(ToSymbol(nullptr, 0, cudaMemcpyHostToDevice), cudaSuccess);
}

} // namespace

} // namespace Qx::Test
