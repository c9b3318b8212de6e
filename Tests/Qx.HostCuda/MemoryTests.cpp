#include <cstdint>
#include <cstring>
#include <functional>

#include <gmock/gmock.h>

#include "HostCudaTest.h"

namespace Qx::Test
{

namespace
{

using HostCuda::EMemoryKind;

class Memory : public CHostCudaTest
{
};

TEST_F(Memory, BlocksAreCountedPaidForAndFilledWithThePattern)
{
    constexpr std::size_t c_nSize = 3 * CBlock::c_nPitch;
    const std::tuple<EMemory, EMemoryKind, std::size_t> vCases[] = {
        {EMemory::Device, EMemoryKind::Device, c_nSize},
        {EMemory::Pitched, EMemoryKind::Pitched, c_nSize},
        {EMemory::Managed, EMemoryKind::Managed, c_nSize},
        {EMemory::PageLocked, EMemoryKind::PageLocked, 0},
    };
    for (const auto& [eMemory, eKind, nPaid] : vCases)
    {
        {
            const CBlock xBlock(eMemory, c_nSize);
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(xBlock.Get()) % 512, 0U);
            EXPECT_EQ(GetStatistics()[eKind], (HostCuda::SMemoryUse{1, c_nSize}));
            EXPECT_EQ(GetStatistics().xTotal, (HostCuda::SMemoryUse{1, c_nSize}));
            EXPECT_EQ(GetFreeMemory(), c_nBudget - nPaid);
            EXPECT_EQ(xBlock.Read(), Bytes(c_nSize, 0xCD));
            cudaPointerAttributes xBehind{};
            EXPECT_EQ(cudaPointerGetAttributes(&xBehind, xBlock.Get(c_nSize)), cudaSuccess);
            EXPECT_EQ(xBehind.type, cudaMemoryTypeUnregistered);
        }
        EXPECT_EQ(GetFreeMemory(), c_nBudget);
    }
}

#if !defined(QX_HOSTCUDA_ASAN)
TEST_F(Memory, BytesWrittenBehindABlockOrItsRowsAreAFault)
{
    constexpr std::size_t c_nSize = 3 * CBlock::c_nPitch;
    const std::tuple<EMemory, std::size_t, const char*> vCases[] = {
        {EMemory::Device, c_nSize, "behind its end, at byte"},
        {EMemory::Managed, c_nSize + 63, "behind its end, at byte"},
        {EMemory::PageLocked, c_nSize, "behind its end, at byte"},
        {EMemory::Pitched, c_nSize, "behind its end, at byte"},
        {EMemory::Pitched, 512 + 511, "behind its row 1, at byte"},
        {EMemory::Device, c_nSize - 1, ""},
    };
    for (const auto& [eMemory, nOffset, pcSaid] : vCases)
    {
        void* pMemory = nullptr;
        std::size_t nPitch = 0;
        const bool bHost = eMemory == EMemory::PageLocked;
        ASSERT_EQ(eMemory == EMemory::Pitched ? cudaMallocPitch(&pMemory, &nPitch, 500, c_nSize / 512)
                : bHost                       ? cudaMallocHost(&pMemory, c_nSize)
                : eMemory == EMemory::Managed ? cudaMallocManaged(&pMemory, c_nSize)
                                              : cudaMalloc(&pMemory, c_nSize),
            cudaSuccess);
        static_cast<unsigned char*>(pMemory)[nOffset] = 1;
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(bHost ? cudaFreeHost(pMemory) : cudaFree(pMemory), cudaSuccess);
        EXPECT_THAT(::testing::internal::GetCapturedStderr(), ::testing::HasSubstr(pcSaid));
        EXPECT_EQ(cudaDeviceSynchronize(), *pcSaid != '\0' ? cudaErrorIllegalAddress : cudaSuccess);
        EXPECT_EQ(GetStatistics().xTotal, HostCuda::SMemoryUse{}) << "it is freed all the same";
        EXPECT_EQ(cudaDeviceReset(), cudaSuccess);
    }
}

TEST_F(Memory, CallsMayWriteThePadding)
{
    Bytes vHost(4 * 512);
    const std::function<cudaError_t(void*)> vCalls[] = {
        [](void* p) { return cudaMemset(p, 1, 4 * 512); },
        [](void* p) { return cudaMemset2D(p, 512, 1, 512, 4); },
        [](void* p) { return cudaMemset2DAsync(p, 512, 1, 101, 4, nullptr); },
        [&](void* p) { return cudaMemcpy(p, vHost.data(), 4 * 512, cudaMemcpyHostToDevice); },
        [&](void* p) { return cudaMemcpy2D(p, 200, vHost.data(), 50, 50, 4, cudaMemcpyHostToDevice); },
    };
    for (const auto& Call : vCalls)
    {
        void* pMemory = nullptr;
        std::size_t nPitch = 0;
        ASSERT_EQ(cudaMallocPitch(&pMemory, &nPitch, 100, 4), cudaSuccess);
        EXPECT_EQ(Call(pMemory), cudaSuccess);
        EXPECT_EQ(cudaFree(pMemory), cudaSuccess);
        EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
    }
}
#endif

TEST_F(Memory, RefusedAllocationsWriteNothingAndTakeNothing)
{
    ASSERT_EQ(HostCuda::SetMemoryBudget(0, 10000), cudaSuccess);
    int iDummy = 0;
    void* pMemory = &iDummy;
    std::size_t nPitch = 7;
    auto* hArray = reinterpret_cast<cudaArray_t>(&iDummy);
    const auto xFormat = cudaCreateChannelDesc(32, 32, 32, 32, cudaChannelFormatKindFloat);
    constexpr auto c_eMemory = cudaErrorMemoryAllocation;
    constexpr auto c_eValue = cudaErrorInvalidValue;
    void** const ppNull = nullptr;
    ExpectResult(cudaMalloc(&pMemory, 10001), c_eMemory, "one byte too many");
    ExpectResult(cudaMalloc(&pMemory, SIZE_MAX), c_eMemory, "all addresses");
    ExpectResult(cudaMallocManaged(&pMemory, SIZE_MAX), c_eMemory, "managed");
    ExpectResult(cudaMallocHost(&pMemory, SIZE_MAX), c_eMemory, "page-locked");
    ExpectResult(cudaMallocHost(&pMemory, SIZE_MAX / 2), c_eMemory, "page-locked half");
    ExpectResult(cudaMallocPitch(&pMemory, &nPitch, 1, 20), c_eMemory, "padding counts");
    ExpectResult(cudaMallocPitch(&pMemory, &nPitch, SIZE_MAX, 1), c_eMemory, "row of all addresses");
    ExpectResult(cudaMallocPitch(&pMemory, &nPitch, 512, SIZE_MAX / 512 + 2), c_eMemory, "rows that wrap");
    ExpectResult(cudaMallocArray(&hArray, &xFormat, 100, 100), c_eMemory, "array");
    ExpectResult(cudaMalloc(ppNull, 1), c_eValue, "null");
    ExpectResult(cudaMalloc(ppNull, 0), c_eValue, "null and nothing");
    ExpectResult(cudaMallocPitch(&pMemory, nullptr, 1, 1), c_eValue, "null pitch");
    ExpectResult(cudaMallocManaged(&pMemory, 1, cudaMemAttachSingle), c_eValue, "managed flags");
    ExpectResult(cudaMallocManaged(&pMemory, 1, 0), c_eValue, "no managed flags");
    ExpectResult(cudaHostAlloc(&pMemory, 1, 8), c_eValue, "page-locked flags");
    EXPECT_EQ(GetFreeMemory(), 10000U);
    // A pitch that no copy could take, on a device that is large enough for it.
    ASSERT_EQ(HostCuda::SetMemoryBudget(0, PTRDIFF_MAX), cudaSuccess);
    ExpectResult(cudaMallocPitch(&pMemory, &nPitch, std::size_t{1} << 31, 1), c_eValue);
    EXPECT_EQ(pMemory, &iDummy);
    EXPECT_EQ(nPitch, 7U);
    EXPECT_EQ(static_cast<void*>(hArray), &iDummy);
}

TEST_F(Memory, BudgetIsUsedToTheLastByteAndComesBack)
{
    ASSERT_EQ(HostCuda::SetMemoryBudget(0, 1000), cudaSuccess);
    void* const pFirst = MakeMemory(600);
    void* const pSecond = MakeMemory(400);
    void* pMemory = nullptr;
    // A budget below what is in use takes nothing away and gives nothing out.
    for (const std::size_t nBudget : {1000U, 500U})
    {
        ASSERT_EQ(HostCuda::SetMemoryBudget(0, nBudget), cudaSuccess);
        EXPECT_EQ(GetFreeMemory(), 0U);
        ExpectResult(cudaMalloc(&pMemory, 1), cudaErrorMemoryAllocation);
    }
    EXPECT_EQ(cudaFree(pFirst), cudaSuccess);
    EXPECT_EQ(GetFreeMemory(), 100U);
    EXPECT_EQ(cudaFree(MakeMemory(100)), cudaSuccess);
    EXPECT_EQ(cudaFree(pSecond), cudaSuccess);
    EXPECT_EQ(GetFreeMemory(), 500U);
}

TEST_F(Memory, OnlyTheStartOfALiveBlockOfTheRightKindIsFreed)
{
    int iForeign = 0;
    ExpectResult(cudaFree(&iForeign), cudaErrorInvalidValue);
    ExpectResult(cudaFreeHost(&iForeign), cudaErrorInvalidValue);
    for (const EMemory eMemory : {EMemory::Device, EMemory::Pitched, EMemory::Managed, EMemory::PageLocked})
    {
        const bool bHost = eMemory == EMemory::PageLocked;
        const auto Free = [&](void* pMemory) { return bHost ? cudaFreeHost(pMemory) : cudaFree(pMemory); };
        void* pFreed = nullptr;
        {
            const CBlock xBlock(eMemory, 1024);
            pFreed = xBlock.Get();
            ExpectResult(bHost ? cudaFree(pFreed) : cudaFreeHost(pFreed), cudaErrorInvalidValue, "wrong call");
            ExpectResult(Free(xBlock.Get(1)), cudaErrorInvalidValue, "inside");
            ExpectResult(Free(xBlock.Get(1024)), cudaErrorInvalidValue, "behind");
        }
        ExpectResult(Free(pFreed), cudaErrorInvalidValue, "again");
    }
}

TEST_F(Memory, BlocksBelongToTheDeviceOfTheirAllocation)
{
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    void* const pMemory = MakeMemory(1000);
    EXPECT_EQ(GetFreeMemory(), c_nBudget - 1000);
    ASSERT_EQ(cudaSetDevice(0), cudaSuccess);
    EXPECT_EQ(GetFreeMemory(), c_nBudget);
    cudaPointerAttributes xAttributes{};
    EXPECT_EQ(cudaPointerGetAttributes(&xAttributes, pMemory), cudaSuccess);
    EXPECT_EQ(xAttributes.device, 1);
    EXPECT_EQ(cudaFree(pMemory), cudaSuccess);
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    EXPECT_EQ(GetFreeMemory(), c_nBudget);
}

TEST_F(Memory, FreeWaitsForTheWorkThatMayUseTheBlock)
{
    for (const int iDevice : {0, 1})
    {
        ASSERT_EQ(cudaSetDevice(iDevice), cudaSuccess);
        void* const pMemory = MakeMemory(16);
        ASSERT_EQ(cudaSetDevice(0), cudaSuccess);
        const CStreamScope hStream(cudaStreamNonBlocking);
        CHold xHold(hStream);
        ASSERT_EQ(cudaMemsetAsync(pMemory, 1, 16, hStream), cudaSuccess);
        CWaiting xFree([pMemory] { return cudaFree(pMemory); });
        xHold.Release();
        EXPECT_EQ(xFree.Get(), cudaSuccess);
    }
}

TEST_F(Memory, ArraysTakeOnlyElementsThatTheRuntimeTakes)
{
    constexpr auto c_eSigned = cudaChannelFormatKindSigned;
    constexpr auto c_eUnsigned = cudaChannelFormatKindUnsigned;
    constexpr auto c_eFloat = cudaChannelFormatKindFloat;
    const std::pair<cudaChannelFormatDesc, std::size_t> vCases[] = {
        // The format and the bytes of an element, 0 where it is refused.
        {{8, 0, 0, 0, c_eUnsigned}, 1},
        {{8, 8, 0, 0, c_eSigned}, 2},
        {{16, 16, 16, 16, c_eUnsigned}, 8},
        {{32, 32, 32, 32, c_eSigned}, 16},
        {{16, 0, 0, 0, c_eFloat}, 2},
        {{32, 32, 32, 32, c_eFloat}, 16},
        {{8, 8, 8, 0, c_eUnsigned}, 0},
        {{0, 0, 0, 0, c_eUnsigned}, 0},
        {{0, 8, 0, 0, c_eUnsigned}, 0},
        {{8, 0, 8, 0, c_eUnsigned}, 0},
        {{8, 16, 0, 0, c_eUnsigned}, 0},
        {{24, 0, 0, 0, c_eUnsigned}, 0},
        {{64, 0, 0, 0, c_eSigned}, 0},
        {{64, 0, 0, 0, c_eFloat}, 0},
        {{8, 0, 0, 0, c_eFloat}, 0},
        {{-8, 0, 0, 0, c_eSigned}, 0},
        {{8, 0, 0, 0, cudaChannelFormatKindNone}, 0},
        {{8, 0, 0, 0, cudaChannelFormatKindNV12}, 0},
        {{8, 8, 0, 0, cudaChannelFormatKindUnsignedNormalized8X2}, 2},
        {{8, 0, 0, 0, cudaChannelFormatKindUnsignedNormalized8X2}, 0},
        {{16, 16, 16, 16, cudaChannelFormatKindSignedNormalized16X4}, 8},
    };
    for (const auto& [xFormat, nElementBytes] : vCases)
    {
        cudaArray_t hArray = nullptr;
        const cudaError_t eError = cudaMallocArray(&hArray, &xFormat, 10, 5, cudaArraySurfaceLoadStore);
        if (nElementBytes == 0)
        {
            ExpectResult(eError, cudaErrorInvalidChannelDescriptor);
            EXPECT_EQ(hArray, nullptr);
            continue;
        }
        ASSERT_EQ(eError, cudaSuccess);
        EXPECT_EQ(GetFreeMemory(), c_nBudget - 50 * nElementBytes);
        cudaChannelFormatDesc xRead{};
        cudaExtent xExtent{};
        unsigned uFlags = 0;
        EXPECT_EQ(cudaArrayGetInfo(&xRead, &xExtent, &uFlags, hArray), cudaSuccess);
        EXPECT_EQ(std::memcmp(&xRead, &xFormat, sizeof(xRead)), 0);
        EXPECT_TRUE(xExtent.width == 10 && xExtent.height == 5 && xExtent.depth == 0);
        EXPECT_EQ(uFlags, unsigned{cudaArraySurfaceLoadStore});
        EXPECT_EQ(cudaFreeArray(hArray), cudaSuccess);
        ExpectResult(cudaFreeArray(hArray), cudaErrorInvalidValue);
        ExpectResult(cudaArrayGetInfo(nullptr, nullptr, nullptr, hArray), cudaErrorInvalidValue);
    }
    EXPECT_EQ(GetFreeMemory(), c_nBudget);
}

TEST_F(Memory, ArraysRefuseExtentsFlagsAndForeignHandles)
{
    const auto xFormat = cudaCreateChannelDesc(8, 0, 0, 0, cudaChannelFormatKindUnsigned);
    cudaArray_t hArray = nullptr;
    ExpectResult(cudaMallocArray(&hArray, &xFormat, 0, 5), cudaErrorInvalidValue);
    ExpectResult(cudaMallocArray(&hArray, &xFormat, SIZE_MAX, SIZE_MAX), cudaErrorInvalidValue);
    ExpectResult(cudaMallocArray(&hArray, &xFormat, 131073, 1), cudaErrorInvalidValue);
    ExpectResult(cudaMallocArray(&hArray, &xFormat, 4, 4, cudaArrayCubemap), cudaErrorInvalidValue);
    ExpectResult(cudaMallocArray(nullptr, &xFormat, 4, 4), cudaErrorInvalidValue);
    ExpectResult(cudaMallocArray(&hArray, nullptr, 4, 4), cudaErrorInvalidValue);
    EXPECT_EQ(hArray, nullptr);

    ASSERT_EQ(cudaMallocArray(&hArray, &xFormat, 100), cudaSuccess);
    EXPECT_EQ(GetFreeMemory(), c_nBudget - 100) << "without height it has one row";
    const CBlock xBlock(EMemory::Device, 16);
    ExpectResult(cudaFreeArray(reinterpret_cast<cudaArray_t>(xBlock.Get())), cudaErrorInvalidValue);
    ExpectResult(cudaFree(hArray), cudaErrorInvalidValue);
    EXPECT_EQ(cudaFreeArray(hArray), cudaSuccess);
}

TEST_F(Memory, ThreadsAllocateAndFreeAtOnce)
{
    const auto Work = [](int iThread)
    {
        EXPECT_EQ(cudaSetDevice(iThread % 2), cudaSuccess);
        for (std::size_t nTime = 1; nTime <= 100; ++nTime)
        {
            const CBlock xBlock(EMemory::Device, nTime * 16);
            const auto vBytes = MakeBytes(nTime * 16, static_cast<unsigned>(iThread));
            xBlock.Write(vBytes);
            EXPECT_EQ(xBlock.Read(), vBytes);
        }
    };
    RunOnThreads(4, Work);
}

} // namespace

} // namespace Qx::Test
