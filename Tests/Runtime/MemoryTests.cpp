#include <cstdint>

#include "RuntimeTest.h"

namespace Qx::Test
{

namespace
{

class RuntimeMemory : public CRuntimeTest
{
};

TEST_F(RuntimeMemory, NothingIsANullPointer)
{
    int iDummy = 0;
    for (const auto& [nWidth, nHeight] : {std::pair<std::size_t, std::size_t>{0, 5}, {5, 0}, {0, SIZE_MAX}})
    {
        void* pMemory = &iDummy;
        std::size_t nPitch = 7;
        EXPECT_EQ(cudaMallocPitch(&pMemory, &nPitch, nWidth, nHeight), cudaSuccess);
        EXPECT_EQ(pMemory, nullptr);
        EXPECT_EQ(nPitch, 0U);
    }
    void* pDevice = &iDummy;
    void* pHost = &iDummy;
    void* pManaged = &iDummy;
    EXPECT_EQ(cudaMalloc(&pDevice, 0), cudaSuccess);
    EXPECT_EQ(cudaMallocHost(&pHost, 0), cudaSuccess);
    ExpectResult(cudaMallocManaged(&pManaged, 0), cudaErrorInvalidValue);
    EXPECT_EQ(pDevice, nullptr);
    EXPECT_EQ(pHost, nullptr);
    EXPECT_EQ(pManaged, &iDummy);
    EXPECT_EQ(cudaFree(nullptr), cudaSuccess);
    EXPECT_EQ(cudaFreeHost(nullptr), cudaSuccess);
    EXPECT_EQ(cudaFreeArray(nullptr), cudaSuccess);
}

TEST_F(RuntimeMemory, PointerAttributesTellTheSides)
{
    const std::tuple<EMemory, cudaMemoryType, bool, bool> vCases[] = {
        {EMemory::Pageable, cudaMemoryTypeUnregistered, false, true},
        {EMemory::Device, cudaMemoryTypeDevice, true, false},
        {EMemory::Pitched, cudaMemoryTypeDevice, true, false},
        {EMemory::Managed, cudaMemoryTypeManaged, true, true},
        {EMemory::PageLocked, cudaMemoryTypeHost, true, true},
    };
    for (const auto& [eMemory, eType, bDevice, bHost] : vCases)
    {
        const CBlock xBlock(eMemory, 1024);
        for (const std::size_t nOffset : {std::size_t{0}, std::size_t{1023}})
        {
            cudaPointerAttributes xAttributes{};
            ASSERT_EQ(cudaPointerGetAttributes(&xAttributes, xBlock.Get(nOffset)), cudaSuccess);
            EXPECT_EQ(xAttributes.type, eType);
            EXPECT_EQ(xAttributes.device, bDevice ? 0 : cudaInvalidDeviceId);
            EXPECT_EQ(xAttributes.devicePointer, bDevice ? xBlock.Get(nOffset) : nullptr);
            EXPECT_EQ(xAttributes.hostPointer, bHost ? xBlock.Get(nOffset) : nullptr);
        }
        const bool bMapped = eMemory == EMemory::PageLocked;
        void* pDevice = nullptr;
        ExpectResult(
            cudaHostGetDevicePointer(&pDevice, xBlock.Get(5), 0), bMapped ? cudaSuccess : cudaErrorInvalidValue);
        EXPECT_EQ(pDevice, bMapped ? xBlock.Get(5) : nullptr);
        ExpectResult(cudaHostGetDevicePointer(&pDevice, xBlock.Get(), 1), cudaErrorInvalidValue);
        ExpectResult(cudaHostGetDevicePointer(static_cast<void**>(nullptr), xBlock.Get(), 0), cudaErrorInvalidValue);
    }
    ExpectResult(cudaPointerGetAttributes(nullptr, nullptr), cudaErrorInvalidValue);
}

TEST_F(RuntimeMemory, RowsAreAlignedAndNoPitchIsLostBetweenThem)
{
    for (const auto& [nWidth, nStandIn] :
        {std::pair<std::size_t, std::size_t>{1, 512}, {511, 512}, {512, 512}, {513, 1024}, {5000, 5120}})
    {
        void* pMemory = nullptr;
        std::size_t nPitch = 0;
        ASSERT_EQ(cudaMallocPitch(&pMemory, &nPitch, nWidth, 3), cudaSuccess);
#ifdef QX_HOSTCUDA
        EXPECT_EQ(nPitch, nStandIn);
#endif
        EXPECT_GE(nPitch, nWidth);
        EXPECT_LT(nPitch, nStandIn + 4096);
        EXPECT_EQ(nPitch % 32, 0U);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(pMemory) % 256, 0U);
        EXPECT_EQ(cudaMemset(pMemory, 1, nPitch * 3), cudaSuccess) << "the last row is a whole one";
        EXPECT_EQ(cudaFree(pMemory), cudaSuccess);
    }
}

} // namespace

} // namespace Qx::Test
