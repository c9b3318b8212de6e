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
    void* pMemory = &iDummy;
    std::size_t nPitch = 7;
    EXPECT_EQ(cudaMalloc(&pMemory, 0), cudaSuccess);
    EXPECT_EQ(pMemory, nullptr);
    pMemory = &iDummy;
    EXPECT_EQ(cudaMallocHost(&pMemory, 0), cudaSuccess);
    EXPECT_EQ(pMemory, nullptr);
    for (const auto& [nWidth, nHeight] : {std::pair<std::size_t, std::size_t>{0, 5}, {5, 0}, {0, SIZE_MAX}})
    {
        pMemory = &iDummy;
        nPitch = 7;
        EXPECT_EQ(cudaMallocPitch(&pMemory, &nPitch, nWidth, nHeight), cudaSuccess);
        EXPECT_EQ(pMemory, nullptr);
        EXPECT_EQ(nPitch, 0U);
    }
    pMemory = &iDummy;
    ExpectFailure(cudaMallocManaged(&pMemory, 0), cudaErrorInvalidValue);
    EXPECT_EQ(pMemory, &iDummy);
    EXPECT_EQ(cudaFree(nullptr), cudaSuccess);
    EXPECT_EQ(cudaFreeHost(nullptr), cudaSuccess);
    EXPECT_EQ(cudaFreeArray(nullptr), cudaSuccess);
}

TEST_F(RuntimeMemory, PointerAttributesTellTheSides)
{
    struct
    {
        EMemory eMemory;
        cudaMemoryType eType;
        bool bDevice;
        bool bHost;
    } const vCases[] = {
        {EMemory::Pageable, cudaMemoryTypeUnregistered, false, true},
        {EMemory::Device, cudaMemoryTypeDevice, true, false},
        {EMemory::Pitched, cudaMemoryTypeDevice, true, false},
        {EMemory::Managed, cudaMemoryTypeManaged, true, true},
        {EMemory::PageLocked, cudaMemoryTypeHost, true, true},
    };
    for (const auto& xCase : vCases)
    {
        const CBlock xBlock(xCase.eMemory, 1024);
        for (const std::size_t nOffset : {std::size_t{0}, std::size_t{1023}})
        {
            cudaPointerAttributes xAttributes{};
            ASSERT_EQ(cudaPointerGetAttributes(&xAttributes, xBlock.Get(nOffset)), cudaSuccess);
            EXPECT_EQ(xAttributes.type, xCase.eType);
            EXPECT_EQ(xAttributes.device, xCase.eMemory == EMemory::Pageable ? cudaInvalidDeviceId : 0);
            EXPECT_EQ(xAttributes.devicePointer, xCase.bDevice ? xBlock.Get(nOffset) : nullptr);
            EXPECT_EQ(xAttributes.hostPointer, xCase.bHost ? xBlock.Get(nOffset) : nullptr);
        }
        void* pDevice = nullptr;
        const cudaError_t eMapped = cudaHostGetDevicePointer(&pDevice, xBlock.Get(5), 0);
        if (xCase.eMemory == EMemory::PageLocked)
        {
            EXPECT_EQ(eMapped, cudaSuccess);
            EXPECT_EQ(pDevice, xBlock.Get(5));
            ExpectFailure(cudaHostGetDevicePointer(&pDevice, xBlock.Get(), 1), cudaErrorInvalidValue);
            ExpectFailure(cudaHostGetDevicePointer(static_cast<void**>(nullptr), xBlock.Get(), 0),
                          cudaErrorInvalidValue);
        }
        else
        {
            ExpectFailure(eMapped, cudaErrorInvalidValue);
            EXPECT_EQ(pDevice, nullptr);
        }
    }
    ExpectFailure(cudaPointerGetAttributes(nullptr, nullptr), cudaErrorInvalidValue);
}

TEST_F(RuntimeMemory, RowsAreAlignedAndNoPitchIsLostBetweenThem)
{
    for (const std::size_t nWidth : {1U, 511U, 512U, 513U, 5000U})
    {
        void* pMemory = nullptr;
        std::size_t nPitch = 0;
        ASSERT_EQ(cudaMallocPitch(&pMemory, &nPitch, nWidth, 3), cudaSuccess);
        EXPECT_GE(nPitch, nWidth);
        EXPECT_LT(nPitch, nWidth + 4096);
        EXPECT_EQ(nPitch % 32, 0U);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(pMemory) % 256, 0U);
        EXPECT_EQ(cudaMemset(pMemory, 1, nPitch * 3), cudaSuccess) << "the last row is a whole one";
        EXPECT_EQ(cudaFree(pMemory), cudaSuccess);
    }
}

} // namespace

} // namespace Qx::Test
