#include <algorithm>
#include <cstdint>

#include "RuntimeTest.h"

namespace Qx::Test
{

namespace
{

class Copies : public CRuntimeTest
{
};

/// The four copy calls behind one signature.
enum class ECopy
{
    Linear,
    LinearAsync,
    Rows,
    RowsAsync
};

constexpr ECopy c_vAllCopies[] = {ECopy::Linear, ECopy::LinearAsync, ECopy::Rows, ECopy::RowsAsync};

/// Copies `nSize` bytes, by rows of 512 where the call has rows, and waits.
cudaError_t Copy(ECopy eCopy, void* pTarget, const void* pSource, std::size_t nSize, cudaMemcpyKind eKind)
{
    cudaError_t eError = cudaSuccess;
    switch (eCopy)
    {
    case ECopy::Linear:
        return cudaMemcpy(pTarget, pSource, nSize, eKind);
    case ECopy::LinearAsync:
        eError = cudaMemcpyAsync(pTarget, pSource, nSize, eKind, nullptr);
        break;
    case ECopy::Rows:
        return cudaMemcpy2D(pTarget, 512, pSource, 512, std::min<std::size_t>(nSize, 512), (nSize + 511) / 512, eKind);
    case ECopy::RowsAsync:
        eError = cudaMemcpy2DAsync(pTarget, 512, pSource, 512, std::min<std::size_t>(nSize, 512), (nSize + 511) / 512,
                                   eKind, nullptr);
        break;
    }
    EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
    return eError;
}

bool IsForHost(EMemory eMemory)
{
    return eMemory != EMemory::Device && eMemory != EMemory::Pitched;
}
bool IsForDevice(EMemory eMemory)
{
    return eMemory != EMemory::Pageable;
}

TEST_F(Copies, DirectionMustFitTheMemoryOfBothSides)
{
    constexpr std::size_t c_nSize = 1024;
    for (const EMemory eTarget : c_vAllMemory)
    {
        for (const EMemory eSource : c_vAllMemory)
        {
            struct
            {
                cudaMemcpyKind eKind;
                bool bAccepted;
            } const vCases[] = {
                {cudaMemcpyHostToHost, IsForHost(eTarget) && IsForHost(eSource)},
                {cudaMemcpyHostToDevice, IsForDevice(eTarget) && IsForHost(eSource)},
                {cudaMemcpyDeviceToHost, IsForHost(eTarget) && IsForDevice(eSource)},
                {cudaMemcpyDeviceToDevice, IsForDevice(eTarget) && IsForDevice(eSource)},
                {cudaMemcpyDefault, true},
            };
            for (const auto& xCase : vCases)
            {
                for (const ECopy eCopy : c_vAllCopies)
                {
                    SCOPED_TRACE(::testing::Message()
                                 << "to " << static_cast<int>(eTarget) << " from " << static_cast<int>(eSource)
                                 << " kind " << xCase.eKind << " call " << static_cast<int>(eCopy));
                    const CBlock xTarget(eTarget, c_nSize);
                    const CBlock xSource(eSource, c_nSize);
                    const auto vBefore = MakeBytes(c_nSize, 1);
                    const auto vBytes = MakeBytes(c_nSize, 2);
                    xTarget.Write(vBefore);
                    xSource.Write(vBytes);
                    const cudaError_t eError = Copy(eCopy, xTarget.Get(), xSource.Get(), c_nSize, xCase.eKind);
                    if (xCase.bAccepted)
                    {
                        EXPECT_EQ(eError, cudaSuccess);
                    }
                    else
                    {
                        ExpectFailure(eError, cudaErrorInvalidValue);
                    }
                    EXPECT_EQ(xTarget.Read(), xCase.bAccepted ? vBytes : vBefore);
                }
            }
        }
    }
}

TEST_F(Copies, UnknownDirectionsAreRefusedBeforeAnythingElse)
{
    const CBlock xBlock(EMemory::Device, 16);
    unsigned char vHost[16] = {};
    for (const int iKind : {5, 6, 7})
    {
        const auto eKind = static_cast<cudaMemcpyKind>(iKind);
        for (const ECopy eCopy : c_vAllCopies)
        {
            ExpectFailure(Copy(eCopy, xBlock.Get(), vHost, 16, eKind), cudaErrorInvalidMemcpyDirection);
            ExpectFailure(Copy(eCopy, nullptr, nullptr, 0, eKind), cudaErrorInvalidMemcpyDirection);
        }
    }
}

TEST_F(Copies, LinearCopiesAndMemsetsStayWithinTheBlock)
{
    constexpr std::size_t c_nSize = 1024;
    struct
    {
        std::size_t nOffset;
        std::size_t nCount;
        bool bAccepted;
    } const vCases[] = {
        {0, c_nSize, true},          {0, c_nSize + 1, false},        {1, c_nSize - 1, true}, {1, c_nSize, false},
        {c_nSize - 1, 1, true},      {c_nSize - 1, 2, false},        {c_nSize, 1, false},    {0, SIZE_MAX, false},
        {1, SIZE_MAX, false},        {c_nSize - 1, SIZE_MAX, false}, {c_nSize, 0, true},     {0, SIZE_MAX / 2, false},
        {1, SIZE_MAX - 1024, false},
    };
    std::vector<unsigned char> vHost(c_nSize + 16);
    for (const EMemory eMemory : {EMemory::Device, EMemory::Pitched, EMemory::Managed, EMemory::PageLocked})
    {
        const CBlock xBlock(eMemory, c_nSize);
        for (const auto& xCase : vCases)
        {
            SCOPED_TRACE(::testing::Message() << xCase.nCount << " bytes at " << xCase.nOffset << " of memory "
                                              << static_cast<int>(eMemory));
            const auto Check = [&](cudaError_t eError)
            {
                if (xCase.bAccepted)
                {
                    EXPECT_EQ(eError, cudaSuccess);
                }
                else
                {
                    ExpectFailure(eError, cudaErrorInvalidValue);
                }
            };
            void* const pMemory = xBlock.Get(xCase.nOffset);
            Check(cudaMemcpy(pMemory, vHost.data(), xCase.nCount, cudaMemcpyHostToDevice));
            Check(cudaMemcpy(vHost.data(), pMemory, xCase.nCount, cudaMemcpyDeviceToHost));
            if (xCase.nOffset < c_nSize || xCase.nCount == 0) // else it is taken for host memory
            {
                Check(cudaMemcpy(vHost.data(), pMemory, xCase.nCount, cudaMemcpyDefault));
            }
            Check(cudaMemset(pMemory, 1, xCase.nCount));
            Check(cudaMemsetAsync(pMemory, 1, xCase.nCount));
        }
        EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
    }
}

TEST_F(Copies, PageableMemoryMustNotRunIntoABlock)
{
    QX_STAND_IN_ONLY("the runtime does not look where pageable memory ends");
    // The block begins where a copy that claims to read pageable memory has not ended yet.
    const CBlock xTarget(EMemory::Device, 4096);
    const CBlock xBlock(EMemory::Device, 4096);
    ExpectFailure(cudaMemcpy(xTarget.Get(), xBlock.Get() - 1, 4096, cudaMemcpyHostToDevice), cudaErrorInvalidValue);
    ExpectFailure(cudaMemcpy(xTarget.Get(), xBlock.Get() - 1, 4096, cudaMemcpyDefault), cudaErrorInvalidValue);
    ExpectFailure(cudaMemcpy(xTarget.Get(), reinterpret_cast<const void*>(UINTPTR_MAX - 7), 8, cudaMemcpyHostToDevice),
                  cudaErrorInvalidValue);
}

TEST_F(Copies, NullPointersAreRefusedUnlessThereIsNothingToDo)
{
    const CBlock xBlock(EMemory::Device, 1024);
    unsigned char vHost[512] = {};
    for (const ECopy eCopy : c_vAllCopies)
    {
        ExpectFailure(Copy(eCopy, nullptr, vHost, 512, cudaMemcpyHostToDevice), cudaErrorInvalidValue);
        ExpectFailure(Copy(eCopy, xBlock.Get(), nullptr, 512, cudaMemcpyHostToDevice), cudaErrorInvalidValue);
        ExpectFailure(Copy(eCopy, nullptr, nullptr, 512, cudaMemcpyDefault), cudaErrorInvalidValue);
        ExpectFailure(Copy(eCopy, nullptr, vHost, 512, cudaMemcpyHostToHost), cudaErrorInvalidValue);
        EXPECT_EQ(Copy(eCopy, nullptr, nullptr, 0, cudaMemcpyHostToDevice), cudaSuccess);
    }
    ExpectFailure(cudaMemset(nullptr, 0, 1), cudaErrorInvalidValue);
    ExpectFailure(cudaMemsetAsync(nullptr, 0, 1), cudaErrorInvalidValue);
    ExpectFailure(cudaMemset2D(nullptr, 1, 0, 1, 1), cudaErrorInvalidValue);
    ExpectFailure(cudaMemset2DAsync(nullptr, 1, 0, 1, 1), cudaErrorInvalidValue);
    EXPECT_EQ(cudaMemset(nullptr, 0, 0), cudaSuccess);
    EXPECT_EQ(cudaMemsetAsync(nullptr, 0, 0), cudaSuccess);
    EXPECT_EQ(cudaMemset2D(nullptr, 0, 0, 0, 5), cudaSuccess);
    EXPECT_EQ(cudaMemset2DAsync(nullptr, 0, 0, 5, 0), cudaSuccess);
    EXPECT_EQ(cudaMemcpy2D(nullptr, 0, nullptr, 0, 0, 5, cudaMemcpyHostToDevice), cudaSuccess);
    EXPECT_EQ(cudaMemcpy2D(nullptr, 0, nullptr, 0, 5, 0, cudaMemcpyHostToDevice), cudaSuccess);
}

TEST_F(Copies, RowsStayWithinPitchAndBlock)
{
    constexpr std::size_t c_nSize = 1024;
    const CBlock xBlock(EMemory::Device, c_nSize);
    struct
    {
        std::size_t nBlockPitch;
        std::size_t nHostPitch;
        std::size_t nWidth;
        std::size_t nHeight;
        cudaError_t eExpected;
    } const vCases[] = {
        {64, 64, 64, 16, cudaSuccess},
        {64, 64, 64, 17, cudaErrorInvalidValue},
        {100, 64, 24, 11, cudaSuccess}, // 10 * 100 + 24: the last row needs no padding
        {100, 64, 25, 11, cudaErrorInvalidValue},
        {1000, 64, 25, 2, cudaErrorInvalidValue},
        {63, 64, 64, 1, cudaErrorInvalidPitchValue},
        {64, 63, 64, 1, cudaErrorInvalidPitchValue},
        {0, 0, 1, 1, cudaErrorInvalidPitchValue},
        {SIZE_MAX, 64, 64, 2, cudaErrorInvalidValue},
        {SIZE_MAX, 64, 64, 1, cudaSuccess},
        {SIZE_MAX / 2 + 1, 64, 64, 3, cudaErrorInvalidValue}, // (height - 1) * pitch is 2^64
        {std::size_t{1} << 32, 64, 64, (std::size_t{1} << 32) + 1, cudaErrorInvalidValue},
        {64, 64, 64, SIZE_MAX, cudaErrorInvalidValue},
        {SIZE_MAX, SIZE_MAX, SIZE_MAX, 1, cudaErrorInvalidValue},
        {64, SIZE_MAX, 64, 16, cudaErrorInvalidValue},
    };
    std::vector<unsigned char> vHost(c_nSize);
    for (const auto& xCase : vCases)
    {
        SCOPED_TRACE(::testing::Message() << xCase.nWidth << " x " << xCase.nHeight << ", pitches " << xCase.nBlockPitch
                                          << " and " << xCase.nHostPitch);
        const auto Check = [&](cudaError_t eError)
        {
            EXPECT_EQ(eError, xCase.eExpected);
            EXPECT_EQ(cudaGetLastError(), xCase.eExpected);
        };
        Check(cudaMemcpy2D(xBlock.Get(), xCase.nBlockPitch, vHost.data(), xCase.nHostPitch, xCase.nWidth, xCase.nHeight,
                           cudaMemcpyHostToDevice));
        Check(cudaMemcpy2D(vHost.data(), xCase.nHostPitch, xBlock.Get(), xCase.nBlockPitch, xCase.nWidth, xCase.nHeight,
                           cudaMemcpyDeviceToHost));
        Check(cudaMemcpy2DAsync(xBlock.Get(), xCase.nBlockPitch, vHost.data(), xCase.nHostPitch, xCase.nWidth,
                                xCase.nHeight, cudaMemcpyHostToDevice));
        EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
    }
}

TEST_F(Copies, RowsOfMemsetsStayWithinPitchAndBlock)
{
    const CBlock xBlock(EMemory::Device, 1024);
    struct
    {
        std::size_t nPitch;
        std::size_t nWidth;
        std::size_t nHeight;
        cudaError_t eExpected;
    } const vCases[] = {
        {64, 64, 16, cudaSuccess},
        {64, 64, 17, cudaErrorInvalidValue},
        {100, 24, 11, cudaSuccess},
        {100, 25, 11, cudaErrorInvalidValue},
        {63, 64, 2, cudaErrorInvalidPitchValue},
        {0, 1024, 1, cudaSuccess}, // one row uses no pitch
        {0, 1025, 1, cudaErrorInvalidValue},
        {SIZE_MAX, 64, 2, cudaErrorInvalidValue},
        {SIZE_MAX / 2 + 1, 64, 3, cudaErrorInvalidValue},
        {64, 64, SIZE_MAX, cudaErrorInvalidValue},
    };
    unsigned char vHost[64] = {};
    for (const auto& xCase : vCases)
    {
        SCOPED_TRACE(::testing::Message() << xCase.nWidth << " x " << xCase.nHeight << ", pitch " << xCase.nPitch);
        EXPECT_EQ(cudaMemset2D(xBlock.Get(), xCase.nPitch, 1, xCase.nWidth, xCase.nHeight), xCase.eExpected);
        EXPECT_EQ(cudaGetLastError(), xCase.eExpected);
        EXPECT_EQ(cudaMemset2DAsync(xBlock.Get(), xCase.nPitch, 1, xCase.nWidth, xCase.nHeight), xCase.eExpected);
        EXPECT_EQ(cudaGetLastError(), xCase.eExpected);
    }
    ExpectFailure(cudaMemset(vHost, 0, 64), cudaErrorInvalidValue, "pageable memory is not the device's");
    ExpectFailure(cudaMemset2D(vHost, 8, 0, 8, 8), cudaErrorInvalidValue, "pageable memory is not the device's");
}

TEST_F(Copies, RowsArriveAndPaddingIsNotTouched)
{
    constexpr std::size_t c_nRows = 7;
    constexpr std::size_t c_nWidth = 100;
    void* pMemory = nullptr;
    std::size_t nPitch = 0;
    ASSERT_EQ(cudaMallocPitch(&pMemory, &nPitch, c_nWidth, c_nRows), cudaSuccess);
    ASSERT_EQ(cudaMemset(pMemory, 0xCD, nPitch * c_nRows), cudaSuccess);
    const auto vBytes = MakeBytes(c_nWidth * c_nRows);
    ASSERT_EQ(cudaMemcpy2D(pMemory, nPitch, vBytes.data(), c_nWidth, c_nWidth, c_nRows, cudaMemcpyHostToDevice),
              cudaSuccess);
    const auto Expect = [&](const std::vector<unsigned char>& vRows)
    {
        // A linear copy of the whole block, padding included, is legitimate.
        std::vector<unsigned char> vAll(nPitch * c_nRows);
        ASSERT_EQ(cudaMemcpy(vAll.data(), pMemory, vAll.size(), cudaMemcpyDeviceToHost), cudaSuccess);
        for (std::size_t nRow = 0; nRow < c_nRows; ++nRow)
        {
            const auto pRow = vAll.begin() + static_cast<std::ptrdiff_t>(nRow * nPitch);
            const auto pExpected = vRows.begin() + static_cast<std::ptrdiff_t>(nRow * c_nWidth);
            EXPECT_TRUE(std::equal(pRow, pRow + c_nWidth, pExpected)) << "row " << nRow;
            EXPECT_TRUE(std::all_of(pRow + c_nWidth, pRow + static_cast<std::ptrdiff_t>(nPitch),
                                    [](unsigned char uByte) { return uByte == 0xCD; }))
                << "padding of row " << nRow;
        }
    };
    Expect(vBytes);
    ASSERT_EQ(cudaMemset2D(pMemory, nPitch, 0x1234, c_nWidth, c_nRows), cudaSuccess);
    Expect(std::vector<unsigned char>(c_nWidth * c_nRows, 0x34));

    // So is a memset or a copy of whole pitches, and both do reach the padding.
    ASSERT_EQ(cudaMemset(pMemory, 0x55, nPitch * c_nRows), cudaSuccess);
    std::vector<unsigned char> vAll(nPitch * c_nRows);
    ASSERT_EQ(cudaMemcpy2D(vAll.data(), nPitch, pMemory, nPitch, nPitch, c_nRows, cudaMemcpyDeviceToHost), cudaSuccess);
    EXPECT_EQ(vAll, std::vector<unsigned char>(nPitch * c_nRows, 0x55));
    const auto vLinear = MakeBytes(nPitch * c_nRows, 9);
    ASSERT_EQ(cudaMemcpy(pMemory, vLinear.data(), vLinear.size(), cudaMemcpyHostToDevice), cudaSuccess);
    ASSERT_EQ(cudaMemcpy(vAll.data(), pMemory, vAll.size(), cudaMemcpyDeviceToHost), cudaSuccess);
    EXPECT_EQ(vAll, vLinear);
    EXPECT_EQ(cudaFree(pMemory), cudaSuccess);
}

TEST_F(Copies, OverlappingLinearCopiesKeepTheSource)
{
    QX_STAND_IN_ONLY("undefined");
    const auto vBytes = MakeBytes(1024);
    for (const auto& [nTarget, nSource] : {std::pair<std::size_t, std::size_t>{0, 100}, {100, 0}, {50, 50}})
    {
        for (const EMemory eMemory : {EMemory::Device, EMemory::Pitched})
        {
            const CBlock xBlock(eMemory, 1024);
            xBlock.Write(vBytes);
            ASSERT_EQ(cudaMemcpy(xBlock.Get(nTarget), xBlock.Get(nSource), 900, cudaMemcpyDeviceToDevice), cudaSuccess);
            const auto vResult = xBlock.Read();
            EXPECT_TRUE(std::equal(vBytes.begin() + static_cast<std::ptrdiff_t>(nSource),
                                   vBytes.begin() + static_cast<std::ptrdiff_t>(nSource + 900),
                                   vResult.begin() + static_cast<std::ptrdiff_t>(nTarget)));
        }
    }
}

TEST_F(Copies, FreedBlocksAreRefused)
{
    QX_STAND_IN_ONLY("undefined");
    void* pMemory = nullptr;
    unsigned char vHost[16] = {};
    ASSERT_EQ(cudaMalloc(&pMemory, 16), cudaSuccess);
    ASSERT_EQ(cudaFree(pMemory), cudaSuccess);
    ExpectFailure(cudaMemcpy(pMemory, vHost, 16, cudaMemcpyHostToDevice), cudaErrorInvalidValue);
    ExpectFailure(cudaMemcpy(vHost, pMemory, 16, cudaMemcpyDeviceToHost), cudaErrorInvalidValue);
    ExpectFailure(cudaMemset(pMemory, 0, 16), cudaErrorInvalidValue);
}

TEST_F(Copies, BlocksOfOtherDevicesAreReached)
{
    QX_NEED_TWO_DEVICES();
    const CBlock xHere(EMemory::Device, 64);
    ASSERT_EQ(cudaSetDevice(1), cudaSuccess);
    const CBlock xThere(EMemory::Device, 64);
    const auto vBytes = MakeBytes(64);
    xHere.Write(vBytes);
    EXPECT_EQ(cudaMemcpy(xThere.Get(), xHere.Get(), 64, cudaMemcpyDeviceToDevice), cudaSuccess);
    EXPECT_EQ(xThere.Read(), vBytes);
}

} // namespace

} // namespace Qx::Test
