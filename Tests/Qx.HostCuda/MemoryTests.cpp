#include <cstdint>
#include <functional>
#include <thread>

#include "HostCudaTest.h"

namespace Qx::Test
{

namespace
{

using HostCuda::EMemoryKind;

class Memory : public CHostCudaTest
{
protected:
    static std::size_t _GetFree()
    {
        std::size_t nFree = 0;
        std::size_t nTotal = 0;
        EXPECT_EQ(cudaMemGetInfo(&nFree, &nTotal), cudaSuccess);
        return nFree;
    }
};

TEST_F(Memory, BlocksAreCountedPaidForAndFilledWithThePattern)
{
    constexpr std::size_t c_nSize = 3 * CBlock::c_nPitch;
    struct
    {
        EMemory eMemory;
        EMemoryKind eKind;
        std::size_t nPaid;
    } const vCases[] = {
        {EMemory::Device, EMemoryKind::Device, c_nSize},
        {EMemory::Pitched, EMemoryKind::Pitched, c_nSize},
        {EMemory::Managed, EMemoryKind::Managed, c_nSize},
        {EMemory::PageLocked, EMemoryKind::PageLocked, 0},
    };
    for (const auto& xCase : vCases)
    {
        {
            const CBlock xBlock(xCase.eMemory, c_nSize);
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(xBlock.Get()) % 512, 0U);
            HostCuda::SStatistics xStatistics;
            ASSERT_EQ(HostCuda::GetStatistics(0, xStatistics), cudaSuccess);
            EXPECT_EQ(xStatistics[xCase.eKind], (HostCuda::SMemoryUse{1, c_nSize}));
            EXPECT_EQ(xStatistics.xTotal, (HostCuda::SMemoryUse{1, c_nSize}));
            EXPECT_EQ(_GetFree(), c_nBudget - xCase.nPaid);
            EXPECT_EQ(xBlock.Read(), std::vector<unsigned char>(c_nSize, 0xCD));
        }
        EXPECT_EQ(_GetFree(), c_nBudget);
    }
}

TEST_F(Memory, PitchIsTheRowRoundedUpTo512)
{
    struct
    {
        std::size_t nWidth;
        std::size_t nPitch;
    } const vCases[] = {{1, 512}, {511, 512}, {512, 512}, {513, 1024}, {5000, 5120}};
    for (const auto& xCase : vCases)
    {
        void* pMemory = nullptr;
        std::size_t nPitch = 0;
        ASSERT_EQ(cudaMallocPitch(&pMemory, &nPitch, xCase.nWidth, 3), cudaSuccess);
        EXPECT_EQ(nPitch, xCase.nPitch);
        EXPECT_EQ(_GetFree(), c_nBudget - 3 * xCase.nPitch);
        EXPECT_EQ(cudaFree(pMemory), cudaSuccess);
    }
}

TEST_F(Memory, RefusedAllocationsWriteNothingAndTakeNothing)
{
    ASSERT_EQ(HostCuda::SetMemoryBudget(0, 10000), cudaSuccess);
    int iDummy = 0;
    void* pMemory = &iDummy;
    std::size_t nPitch = 7;
    auto* hArray = reinterpret_cast<cudaArray_t>(&iDummy);
    const auto xFormat = cudaCreateChannelDesc(32, 32, 32, 32, cudaChannelFormatKindFloat);
    struct
    {
        const char* pcWhat;
        cudaError_t eExpected;
        std::function<cudaError_t()> Make;
    } const vCases[] = {
        {"one byte too many", cudaErrorMemoryAllocation, [&] { return cudaMalloc(&pMemory, 10001); }},
        {"all addresses", cudaErrorMemoryAllocation, [&] { return cudaMalloc(&pMemory, SIZE_MAX); }},
        {"managed", cudaErrorMemoryAllocation, [&] { return cudaMallocManaged(&pMemory, SIZE_MAX); }},
        {"page-locked", cudaErrorMemoryAllocation, [&] { return cudaMallocHost(&pMemory, SIZE_MAX); }},
        {"page-locked half", cudaErrorMemoryAllocation, [&] { return cudaMallocHost(&pMemory, SIZE_MAX / 2); }},
        {"padding counts", cudaErrorMemoryAllocation, [&] { return cudaMallocPitch(&pMemory, &nPitch, 1, 20); }},
        {"row of all addresses", cudaErrorMemoryAllocation,
         [&] { return cudaMallocPitch(&pMemory, &nPitch, SIZE_MAX, 1); }},
        {"rows that wrap", cudaErrorMemoryAllocation,
         [&] { return cudaMallocPitch(&pMemory, &nPitch, 512, SIZE_MAX / 512 + 2); }},
        {"array", cudaErrorMemoryAllocation, [&] { return cudaMallocArray(&hArray, &xFormat, 100, 100); }},
        {"null", cudaErrorInvalidValue, [&] { return cudaMalloc(static_cast<void**>(nullptr), 1); }},
        {"null and nothing", cudaErrorInvalidValue, [&] { return cudaMalloc(static_cast<void**>(nullptr), 0); }},
        {"null pitch", cudaErrorInvalidValue, [&] { return cudaMallocPitch(&pMemory, nullptr, 1, 1); }},
        {"managed flags", cudaErrorInvalidValue, [&] { return cudaMallocManaged(&pMemory, 1, cudaMemAttachSingle); }},
        {"no managed flags", cudaErrorInvalidValue, [&] { return cudaMallocManaged(&pMemory, 1, 0); }},
        {"page-locked flags", cudaErrorInvalidValue, [&] { return cudaHostAlloc(&pMemory, 1, 8); }},
    };
    for (const auto& xCase : vCases)
    {
        ExpectFailure(xCase.Make(), xCase.eExpected, xCase.pcWhat);
        EXPECT_EQ(pMemory, &iDummy) << xCase.pcWhat;
        EXPECT_EQ(nPitch, 7U) << xCase.pcWhat;
        EXPECT_EQ(static_cast<void*>(hArray), &iDummy) << xCase.pcWhat;
        EXPECT_EQ(_GetFree(), 10000U) << xCase.pcWhat;
    }
    // A pitch that no copy could take, on a device that is large enough for it.
    ASSERT_EQ(HostCuda::SetMemoryBudget(0, PTRDIFF_MAX), cudaSuccess);
    ExpectFailure(cudaMallocPitch(&pMemory, &nPitch, std::size_t{1} << 31, 1), cudaErrorInvalidValue);
}

TEST_F(Memory, BudgetIsUsedToTheLastByteAndComesBack)
{
    ASSERT_EQ(HostCuda::SetMemoryBudget(0, 1000), cudaSuccess);
    void* pFirst = nullptr;
    void* pSecond = nullptr;
    ASSERT_EQ(cudaMalloc(&pFirst, 600), cudaSuccess);
    ASSERT_EQ(cudaMalloc(&pSecond, 400), cudaSuccess);
    EXPECT_EQ(_GetFree(), 0U);
    void* pMemory = nullptr;
    ExpectFailure(cudaMalloc(&pMemory, 1), cudaErrorMemoryAllocation);
    // A budget below what is in use takes nothing away and gives nothing out.
    ASSERT_EQ(HostCuda::SetMemoryBudget(0, 500), cudaSuccess);
    EXPECT_EQ(_GetFree(), 0U);
    ExpectFailure(cudaMalloc(&pMemory, 1), cudaErrorMemoryAllocation);
    EXPECT_EQ(cudaFree(pFirst), cudaSuccess);
    EXPECT_EQ(_GetFree(), 100U);
    EXPECT_EQ(cudaMalloc(&pMemory, 100), cudaSuccess);
    EXPECT_EQ(cudaFree(pMemory), cudaSuccess);
    EXPECT_EQ(cudaFree(pSecond), cudaSuccess);
    EXPECT_EQ(_GetFree(), 500U);
}

TEST_F(Memory, OnlyTheStartOfALiveBlockOfTheRightKindIsFreed)
{
    int iForeign = 0;
    ExpectFailure(cudaFree(&iForeign), cudaErrorInvalidValue);
    ExpectFailure(cudaFreeHost(&iForeign), cudaErrorInvalidValue);
    for (const EMemory eMemory : {EMemory::Device, EMemory::Pitched, EMemory::Managed, EMemory::PageLocked})
    {
        const bool bHost = eMemory == EMemory::PageLocked;
        const auto Free = [](void* pMemory, bool bHostCall)
        { return bHostCall ? cudaFreeHost(pMemory) : cudaFree(pMemory); };
        void* pFreed = nullptr;
        {
            const CBlock xBlock(eMemory, 1024);
            pFreed = xBlock.Get();
            ExpectFailure(Free(xBlock.Get(), !bHost), cudaErrorInvalidValue, "wrong call");
            ExpectFailure(Free(xBlock.Get(1), bHost), cudaErrorInvalidValue, "inside");
            ExpectFailure(Free(xBlock.Get(1024), bHost), cudaErrorInvalidValue, "behind");
        }
        ExpectFailure(Free(pFreed, bHost), cudaErrorInvalidValue, "again");
    }
}

TEST_F(Memory, BlocksBelongToTheDeviceOfTheirAllocation)
{
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    void* pMemory = nullptr;
    ASSERT_EQ(cudaMalloc(&pMemory, 1000), cudaSuccess);
    EXPECT_EQ(_GetFree(), c_nBudget - 1000);
    ASSERT_EQ(cudaSetDevice(0), cudaSuccess);
    EXPECT_EQ(_GetFree(), c_nBudget);
    cudaPointerAttributes xAttributes{};
    EXPECT_EQ(cudaPointerGetAttributes(&xAttributes, pMemory), cudaSuccess);
    EXPECT_EQ(xAttributes.device, 1);
    EXPECT_EQ(cudaFree(pMemory), cudaSuccess);
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    EXPECT_EQ(_GetFree(), c_nBudget);
}

TEST_F(Memory, FreeWaitsForTheWorkThatMayUseTheBlock)
{
    for (const bool bForeign : {false, true})
    {
        void* pMemory = nullptr;
        ASSERT_EQ(cudaSetDevice(bForeign ? 1 : 0), cudaSuccess);
        ASSERT_EQ(cudaMalloc(&pMemory, 16), cudaSuccess);
        ASSERT_EQ(cudaSetDevice(0), cudaSuccess);
        const CStreamScope hStream(cudaStreamNonBlocking);
        CHold xHold(hStream);
        ASSERT_EQ(cudaMemsetAsync(pMemory, 1, 16, hStream), cudaSuccess);
        std::future<cudaError_t> xFree = std::async(std::launch::async, [pMemory] { return cudaFree(pMemory); });
        EXPECT_EQ(xFree.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
        xHold.Release();
        EXPECT_EQ(xFree.get(), cudaSuccess);
    }
}

TEST_F(Memory, ArraysTakeOnlyElementsThatTheRuntimeTakes)
{
    constexpr auto c_eSigned = cudaChannelFormatKindSigned;
    constexpr auto c_eUnsigned = cudaChannelFormatKindUnsigned;
    constexpr auto c_eFloat = cudaChannelFormatKindFloat;
    struct
    {
        cudaChannelFormatDesc xFormat;
        std::size_t nElementBytes; ///< 0: refused
    } const vCases[] = {
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
    for (const auto& xCase : vCases)
    {
        cudaArray_t hArray = nullptr;
        const cudaError_t eError = cudaMallocArray(&hArray, &xCase.xFormat, 10, 5, cudaArraySurfaceLoadStore);
        if (xCase.nElementBytes == 0)
        {
            ExpectFailure(eError, cudaErrorInvalidChannelDescriptor);
            EXPECT_EQ(hArray, nullptr);
            continue;
        }
        ASSERT_EQ(eError, cudaSuccess);
        EXPECT_EQ(_GetFree(), c_nBudget - 50 * xCase.nElementBytes);
        cudaChannelFormatDesc xFormat{};
        cudaExtent xExtent{};
        unsigned uFlags = 0;
        EXPECT_EQ(cudaArrayGetInfo(&xFormat, &xExtent, &uFlags, hArray), cudaSuccess);
        EXPECT_EQ(std::memcmp(&xFormat, &xCase.xFormat, sizeof(xFormat)), 0);
        EXPECT_EQ(xExtent.width, 10U);
        EXPECT_EQ(xExtent.height, 5U);
        EXPECT_EQ(xExtent.depth, 0U);
        EXPECT_EQ(uFlags, 2U);
        EXPECT_EQ(cudaFreeArray(hArray), cudaSuccess);
        ExpectFailure(cudaFreeArray(hArray), cudaErrorInvalidValue);
        ExpectFailure(cudaArrayGetInfo(nullptr, nullptr, nullptr, hArray), cudaErrorInvalidValue);
    }
    EXPECT_EQ(_GetFree(), c_nBudget);
}

TEST_F(Memory, ArraysRefuseExtentsFlagsAndForeignHandles)
{
    const auto xFormat = cudaCreateChannelDesc(8, 0, 0, 0, cudaChannelFormatKindUnsigned);
    cudaArray_t hArray = nullptr;
    ExpectFailure(cudaMallocArray(&hArray, &xFormat, 0, 5), cudaErrorInvalidValue);
    ExpectFailure(cudaMallocArray(&hArray, &xFormat, SIZE_MAX, SIZE_MAX), cudaErrorInvalidValue);
    ExpectFailure(cudaMallocArray(&hArray, &xFormat, 131073, 1), cudaErrorInvalidValue);
    ExpectFailure(cudaMallocArray(&hArray, &xFormat, 4, 4, cudaArrayCubemap), cudaErrorInvalidValue);
    ExpectFailure(cudaMallocArray(nullptr, &xFormat, 4, 4), cudaErrorInvalidValue);
    ExpectFailure(cudaMallocArray(&hArray, nullptr, 4, 4), cudaErrorInvalidValue);
    EXPECT_EQ(hArray, nullptr);

    ASSERT_EQ(cudaMallocArray(&hArray, &xFormat, 100), cudaSuccess);
    EXPECT_EQ(_GetFree(), c_nBudget - 100) << "without height it has one row";
    const CBlock xBlock(EMemory::Device, 16);
    ExpectFailure(cudaFreeArray(reinterpret_cast<cudaArray_t>(xBlock.Get())), cudaErrorInvalidValue);
    ExpectFailure(cudaFree(hArray), cudaErrorInvalidValue);
    EXPECT_EQ(cudaFreeArray(hArray), cudaSuccess);
}

TEST_F(Memory, ThreadsAllocateAndFreeAtOnce)
{
    std::vector<std::thread> vThreads;
    for (int iThread = 0; iThread < 4; ++iThread)
    {
        vThreads.emplace_back(
            [iThread]
            {
                EXPECT_EQ(cudaSetDevice(iThread % 2), cudaSuccess);
                for (std::size_t nTime = 1; nTime <= 100; ++nTime)
                {
                    const CBlock xBlock(EMemory::Device, nTime * 16);
                    const auto vBytes = MakeBytes(nTime * 16, static_cast<unsigned>(iThread));
                    xBlock.Write(vBytes);
                    EXPECT_EQ(xBlock.Read(), vBytes);
                }
            });
    }
    for (std::thread& xThread : vThreads)
    {
        xThread.join();
    }
}

} // namespace

} // namespace Qx::Test
