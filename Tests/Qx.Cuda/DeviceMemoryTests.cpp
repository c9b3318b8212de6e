#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "Qx.Cuda/QxCuda.h"
#include "Qx.CudaRecorder/CudaRecorder.h"
#include "Support/AllocationFault.h"
#include "Support/CudaChain.h"

namespace Qx::Test
{

namespace
{

using MMU = CQxDeviceMMU;

constexpr const char* c_pcMmuFile = "Source/Qx.Cuda/QxDeviceMMU";
constexpr const char* c_pcListFile = "Source/Qx.Cuda/QxCudaDeviceMemory";
constexpr cudaChannelFormatDesc c_xDesc{8, 8, 8, 0, cudaChannelFormatKindUnsigned};

SLink OutOfMemory(const char* pcFunction)
{
    return {"Qx.OutOfMemoryException", "Error allocating CUDA memory. Out of memory", pcFunction, c_pcMmuFile};
}

SLink FreeFailed(cudaError_t eError)
{
    return Cuda("Error freeing CUDA memory", eError, "QxCudaFree", c_pcMmuFile);
}

TEST(DeviceMMU, PassesArgumentsOnAndReturnsWhatCudaAllocated)
{
    // What the only call of the name was given but for the first arguments.
    const auto Arguments = [](const char* pcCall, std::ptrdiff_t iFirst)
    {
        EXPECT_EQ(CCudaRecorder::Count(pcCall), 1U);
        auto vArguments = CCudaRecorder::Last(pcCall).vArguments;
        vArguments.erase(vArguments.begin(), vArguments.begin() + iFirst);
        return vArguments;
    };
    using Values = std::vector<std::uint64_t>;
    std::size_t nPitch = 0;
    const cudaChannelFormatDesc xFloat{32, 0, 0, 0, cudaChannelFormatKindFloat};
    void* const pLinear = MMU::QxCudaMalloc(1000, 4);
    void* const pPitched = MMU::QxCudaMallocPitch(nPitch, 100, 3);
    cudaArray* const pArray = MMU::QxCudaMallocArray(xFloat, 16, 8);
    EXPECT_EQ(Arguments("cudaMalloc", 1), (Values{4000}));
    EXPECT_EQ(Arguments("cudaMallocPitch", 1), (Values{reinterpret_cast<std::uintptr_t>(&nPitch), 100, 3}));
    EXPECT_EQ(Arguments("cudaMallocArray", 1), (Values{reinterpret_cast<std::uintptr_t>(&xFloat), 16, 8, 2}));
    EXPECT_GE(nPitch, 100U);
    EXPECT_EQ(CCudaRecorder::LiveAllocations(), 3U);
    MMU::QxCudaFree(pLinear);
    MMU::QxCudaFree(pPitched);
    MMU::QxCudaFreeArray(pArray);
    EXPECT_EQ(CCudaRecorder::LiveAllocations(), 0U);
    MMU::QxCudaFree(nullptr);
    MMU::QxCudaFreeArray(nullptr);
    EXPECT_EQ(CCudaRecorder::Count("cudaFree"), 3U);
    EXPECT_EQ(CCudaRecorder::Count("cudaFreeArray"), 2U);
    EXPECT_EQ(MMU::QxCudaMalloc(0, 8), nullptr);
}

TEST(DeviceMMU, TurnsEachFailureIntoTheExceptionOfItsKind)
{
    std::size_t nPitch = 7;
    const auto Linear = [] { MMU::QxCudaMalloc(4, 4); };
    const auto Pitched = [&] { MMU::QxCudaMallocPitch(nPitch, 4, 4); };
    const auto Array = [] { MMU::QxCudaMallocArray(c_xDesc, 4, 4); };
    const auto Failed = [](const char* pcMessage, cudaError_t eError, const char* pcFunction)
    { return Cuda(pcMessage, eError, pcFunction, c_pcMmuFile); };
    const char* const pcLinear = "Error allocating CUDA memory";
    const char* const pcArray = "Error allocating CUDA array memory";
    constexpr auto c_eFull = cudaErrorMemoryAllocation;
    constexpr auto c_eChannel = cudaErrorInvalidChannelDescriptor;
    constexpr auto c_eValue = cudaErrorInvalidValue;
    const SLink xChannel =
        Plain("Error allocating CUDA array memory. Invalid channel descriptor (x: 8, y: 8, z: 8, w: 0, f: Unsigned)",
            "QxCudaMallocArray", c_pcMmuFile);
    const SLink xNotFreed = Failed("Error freeing CUDA array memory", c_eChannel, "QxCudaFreeArray");
    const struct
    {
        const char* pcCall;
        cudaError_t eError;
        SLink xLink;
        bool bErrorStays;
        std::function<void()> Run;
    } vCases[]{
        {"cudaMalloc", c_eFull, OutOfMemory("QxCudaMalloc"), true, Linear},
        {"cudaMalloc", c_eChannel, Failed(pcLinear, c_eChannel, "QxCudaMalloc"), false, Linear},
        {"cudaMallocPitch", c_eFull, OutOfMemory("QxCudaMallocPitch"), true, Pitched},
        {"cudaMallocPitch", c_eChannel, Failed(pcLinear, c_eChannel, "QxCudaMallocPitch"), false, Pitched},
        {"cudaMallocArray", c_eFull, OutOfMemory("QxCudaMallocArray"), true, Array},
        {"cudaMallocArray", c_eValue, Failed(pcArray, c_eValue, "QxCudaMallocArray"), false, Array},
        {"cudaMallocArray", c_eChannel, xChannel, true, Array},
        {"cudaFree", c_eFull, FreeFailed(c_eFull), false, [] { MMU::QxCudaFree(nullptr); }},
        {"cudaFreeArray", c_eChannel, xNotFreed, false, [] { MMU::QxCudaFreeArray(nullptr); }},
    };
    for (const auto& xCase : vCases)
    {
        SCOPED_TRACE(xCase.xLink.sMessage);
        CCudaRecorder::Reset();
        CCudaRecorder::FailCall(xCase.pcCall, 1, xCase.eError);
        EXPECT_TRUE(ThrowsChain(xCase.Run, {xCase.xLink}));
        EXPECT_EQ(CCudaRecorder::Count(xCase.pcCall), 1U);
        EXPECT_EQ(cudaGetLastError(), xCase.bErrorStays ? xCase.eError : cudaSuccess);
    }
    EXPECT_EQ(nPitch, 7U);

    // A byte count beyond 64 bits would come out small; CUDA must not see it.
    CCudaRecorder::Reset();
    EXPECT_TRUE(ThrowsChain([] { MMU::QxCudaMalloc((std::size_t{1} << 62) + 1, 4); }, {OutOfMemory("QxCudaMalloc")}));
    EXPECT_TRUE(CCudaRecorder::Calls().empty());
}

TEST(DeviceMMU, DescribesChannels)
{
    cudaChannelFormatDesc xStrange{-1, INT_MIN, INT_MAX, 1, cudaChannelFormatKindNone};
    constexpr int c_iNoKind = 100; // which no enumerator comes near, so that reading it as one is undefined
    std::memcpy(&xStrange.f, &c_iNoKind, sizeof(c_iNoKind));
    const std::map<std::string, cudaChannelFormatDesc> xCases{
        {"(x: 32, y: 0, z: 0, w: 0, f: Float)", {32, 0, 0, 0, cudaChannelFormatKindFloat}},
        {"(x: 8, y: 16, z: 24, w: 32, f: Signed)", {8, 16, 24, 32, cudaChannelFormatKindSigned}},
        {"(x: 8, y: 8, z: 8, w: 0, f: Unsigned)", c_xDesc},
        {"(x: 0, y: 0, z: 0, w: 0, f: None)", {0, 0, 0, 0, cudaChannelFormatKindNone}},
        {"(x: -1, y: -2147483648, z: 2147483647, w: 1, f: Unknown)", xStrange},
    };
    for (const auto& [sText, xDesc] : xCases)
    {
        EXPECT_EQ(MMU::ToString(xDesc).ToCString(), sText);
    }
}

static_assert(std::has_virtual_destructor_v<CQxCudaDeviceMemory> && sizeof(CQxCudaDeviceMemory) == 40);
static_assert(!std::is_copy_constructible_v<CQxCudaDeviceMemory> && !std::is_move_constructible_v<CQxCudaDeviceMemory>);
static_assert(!std::is_copy_assignable_v<CQxCudaDeviceMemory> && !std::is_move_assignable_v<CQxCudaDeviceMemory>);

/// A list of blocks, of which the program knows the addresses too.
struct SList
{
    explicit SList(std::size_t nCount)
    {
        for (std::size_t nIndex = 0; nIndex < nCount; ++nIndex)
        {
            vBlocks[nIndex] = MMU::QxCudaMalloc(nIndex + 1, 4);
            xList.AddDevicePointer(vBlocks[nIndex], (nIndex + 1) * 4);
        }
        CCudaRecorder::Reset();
    }

    /// The places of the blocks that were freed since `Reset`, in order.
    std::string Freed() const
    {
        std::string sFreed;
        for (const SCudaCall& xCall : CCudaRecorder::Calls())
        {
            for (std::size_t nIndex = 0; xCall.sName == "cudaFree" && nIndex < vBlocks.size(); ++nIndex)
            {
                if (xCall.vArguments[0] == reinterpret_cast<std::uintptr_t>(vBlocks[nIndex]))
                {
                    sFreed += static_cast<char>('0' + nIndex);
                }
            }
        }
        return sFreed;
    }

    std::array<void*, 4> vBlocks{};
    CQxCudaDeviceMemory xList;
};

const SLink c_xDeletingAll = Plain("Error deleting all pointers to CUDA device memory", "DeleteAll", c_pcListFile);

TEST(DeviceMemoryList, FreesItsBlocksInOrderAndOnce)
{
    SList xEmpty(0);
    xEmpty.xList.DeleteAll();
    EXPECT_TRUE(CCudaRecorder::Calls().empty());
    SList xFull(3);
    EXPECT_EQ(xFull.xList.GetTotalAllocSize(), 24U);
    xFull.xList.DeleteAll();
    EXPECT_EQ(xFull.Freed(), "012");
    EXPECT_EQ(xFull.xList.GetTotalAllocSize(), 0U);
    xFull.xList.DeleteAll();
    EXPECT_EQ(CCudaRecorder::Count("cudaFree"), 3U);
    {
        SList xDestroyed(2);
    }
    EXPECT_EQ(CCudaRecorder::Count("cudaFree"), 2U);
}

TEST(DeviceMemoryList, AFailureKeepsExactlyWhatIsNotFreedAndIsDroppedByTheDestructor)
{
    for (const std::size_t nFailing : {0U, 1U, 2U})
    {
        SCOPED_TRACE(nFailing);
        SList xObject(3);
        CCudaRecorder::FailCall("cudaFree", static_cast<int>(nFailing) + 1, cudaErrorUnknown);
        EXPECT_TRUE(ThrowsChain([&] { xObject.xList.DeleteAll(); }, {c_xDeletingAll, FreeFailed(cudaErrorUnknown)}));
        EXPECT_EQ(xObject.xList.GetTotalAllocSize(), 24U);
        CCudaRecorder::Reset();
        xObject.xList.DeleteAll();
        EXPECT_EQ(xObject.Freed(), std::string("012").substr(nFailing));
        EXPECT_EQ(xObject.xList.GetTotalAllocSize(), 0U);
    }
    void* pBlock = nullptr;
    {
        SList xObject(1);
        pBlock = xObject.vBlocks[0];
        CCudaRecorder::FailCall("cudaFree", 1, cudaErrorUnknown);
    }
    EXPECT_TRUE(CCudaRecorder::HasFailed());
    MMU::QxCudaFree(pBlock);
}

TEST(DeviceMemoryList, FreesNothingTwiceWhenTheExceptionItselfRunsOutOfMemory)
{
    int iForeign = 0; // no device block, so that freeing it fails
    std::unique_ptr<SList> pObject;
    const int iFailures = FailEachAllocation(
        [&]
        {
            pObject = std::make_unique<SList>(2);
            pObject->xList.AddDevicePointer(&iForeign, 4);
            CCudaRecorder::Pause();
        },
        [&]
        {
            try
            {
                pObject->xList.DeleteAll();
            }
            catch (const CQxException&) // the run without a failure
            {
            }
        },
        [&]
        {
            static_cast<void>(cudaGetLastError());
            CCudaRecorder::Reset();
            EXPECT_THROW(pObject->xList.DeleteAll(), CQxException);
            EXPECT_EQ(pObject->Freed() + std::to_string(CCudaRecorder::Count("cudaFree")), "1");
        });
    EXPECT_GT(iFailures, 2);
}

TEST(DeviceMemoryList, AFailedRecordChangesNothing)
{
    SList xObject(1);
    EXPECT_THROW(xObject.xList.ReserveDevicePointers(UINT64_MAX), std::length_error);
    {
        const CAllocationFault xFault(0, CAllocationFault::EMode::Once);
        EXPECT_THROW(xObject.xList.AddDevicePointer(nullptr, 100), std::bad_alloc);
    }
    EXPECT_EQ(xObject.xList.GetTotalAllocSize(), 4U);
    xObject.xList.ReserveDevicePointers(3);
    {
        const CAllocationFault xFault(0, CAllocationFault::EMode::Once);
        xObject.xList.ReserveDevicePointers(0);
        xObject.xList.ReserveDevicePointers(3);
        xObject.xList.AddDevicePointer(nullptr, UINT64_MAX);
        EXPECT_FALSE(CAllocationFault::HasStruck());
    }
    EXPECT_EQ(xObject.xList.GetTotalAllocSize(), UINT64_MAX) << "the sum stops at the largest number";
}

} // namespace

} // namespace Qx::Test
