#pragma once

#include <atomic>
#include <cstddef>
#include <cstring>
#include <vector>

#include <cuda_runtime.h>
#include <gtest/gtest.h>

#ifdef QX_HOSTCUDA
#include "Qx.HostCuda/HostCuda.h"
#endif
#include "Support/Stream.h"

namespace Qx::Test
{

/// The memory of a device of the stand-in.
inline constexpr std::size_t c_nBudget = std::size_t{64} << 20;

/// The fixture of the runtime's contract, which the toolkit's runtime and the stand-in have in common. Device 0 is
/// current. Every test must leave no pending error, and nothing alive where that can be asked.
class CRuntimeTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(cudaGetDeviceCount(&m_iDevices), cudaSuccess);
#ifdef QX_HOSTCUDA
        ASSERT_GE(m_iDevices, 2) << "QX_HOSTCUDA_DEVICES must be 2";
        for (const int iDevice : {1, 0})
        {
            ASSERT_EQ(cudaSetDevice(iDevice), cudaSuccess);
            ASSERT_EQ(HostCuda::SetMemoryBudget(iDevice, c_nBudget), cudaSuccess);
        }
#endif
    }

    void TearDown() override
    {
        EXPECT_EQ(cudaGetLastError(), cudaSuccess) << "left pending";
        for (int iDevice = m_iDevices - 1; iDevice >= 0; --iDevice)
        {
#ifdef QX_HOSTCUDA
            HostCuda::SStatistics xStatistics;
            EXPECT_EQ(HostCuda::GetStatistics(iDevice, xStatistics), cudaSuccess);
            EXPECT_EQ(xStatistics, HostCuda::SStatistics{}) << "something is left alive on device " << iDevice;
#endif
            EXPECT_EQ(cudaSetDevice(iDevice), cudaSuccess);
            EXPECT_EQ(cudaDeviceReset(), cudaSuccess);
        }
        EXPECT_EQ(cudaGetLastError(), cudaSuccess);
    }

    int m_iDevices = 0;
};

/// Leaves a test that holds for the stand-in only, because the toolkit's runtime leaves the behaviour undefined or is
/// more lenient; the text says which.
#ifdef QX_HOSTCUDA
#define QX_STAND_IN_ONLY(pcWhy) static_cast<void>(0)
#else
#define QX_STAND_IN_ONLY(pcWhy) GTEST_SKIP() << pcWhy
#endif

/// Leaves a test that needs two devices where there is one.
#define QX_NEED_TWO_DEVICES()                                                                                          \
    if (m_iDevices < 2)                                                                                                \
    {                                                                                                                  \
        GTEST_SKIP() << "there is one device only";                                                                    \
    }                                                                                                                  \
    static_assert(true)

/// Checks that a call failed with a code, which is now pending, and resets that.
inline void ExpectFailure(cudaError_t eResult, cudaError_t eExpected, const char* pcWhat = "")
{
    EXPECT_EQ(eResult, eExpected) << pcWhat << ": " << cudaGetErrorName(eResult);
    EXPECT_EQ(cudaGetLastError(), eExpected) << pcWhat;
}

/// An event for one scope.
class CEventScope
{
public:
    explicit CEventScope(unsigned uFlags = cudaEventDefault)
    {
        EXPECT_EQ(cudaEventCreateWithFlags(&m_hEvent, uFlags), cudaSuccess);
    }
    ~CEventScope() { EXPECT_EQ(cudaEventDestroy(m_hEvent), cudaSuccess); }
    CEventScope(const CEventScope&) = delete;
    CEventScope& operator=(const CEventScope&) = delete;
    operator cudaEvent_t() const { return m_hEvent; }

private:
    cudaEvent_t m_hEvent = nullptr;
};

/// Kinds of memory a client can hold.
enum class EMemory
{
    Pageable,
    Device,
    Pitched,
    Managed,
    PageLocked
};

inline constexpr EMemory c_vAllMemory[] = {EMemory::Pageable, EMemory::Device, EMemory::Pitched, EMemory::Managed,
                                           EMemory::PageLocked};

/// A block of some kind for one scope.
class CBlock
{
public:
    static constexpr std::size_t c_nPitch = 512;

    /// Pitched blocks: a multiple of c_nPitch, in rows that are one byte shorter than their pitch.
    CBlock(EMemory eMemory, std::size_t nSize) : m_eMemory(eMemory), m_nSize(nSize)
    {
        std::size_t nPitch = 0;
        switch (eMemory)
        {
        case EMemory::Pageable:
            m_vPageable.resize(nSize);
            m_pMemory = m_vPageable.data();
            break;
        case EMemory::Device:
            EXPECT_EQ(cudaMalloc(&m_pMemory, nSize), cudaSuccess);
            break;
        case EMemory::Pitched:
            EXPECT_EQ(cudaMallocPitch(&m_pMemory, &nPitch, c_nPitch - 1, nSize / c_nPitch), cudaSuccess);
            EXPECT_EQ(nPitch, c_nPitch);
            break;
        case EMemory::Managed:
            EXPECT_EQ(cudaMallocManaged(&m_pMemory, nSize), cudaSuccess);
            break;
        case EMemory::PageLocked:
            EXPECT_EQ(cudaMallocHost(&m_pMemory, nSize), cudaSuccess);
            break;
        }
    }
    ~CBlock()
    {
        if (m_eMemory == EMemory::PageLocked)
        {
            EXPECT_EQ(cudaFreeHost(m_pMemory), cudaSuccess);
        }
        else if (m_eMemory != EMemory::Pageable)
        {
            EXPECT_EQ(cudaFree(m_pMemory), cudaSuccess);
        }
    }
    CBlock(const CBlock&) = delete;
    CBlock& operator=(const CBlock&) = delete;

    [[nodiscard]] unsigned char* Get(std::size_t nOffset = 0) const
    {
        return static_cast<unsigned char*>(m_pMemory) + nOffset;
    }

    /// The contents, read by a copy of the whole block.
    [[nodiscard]] std::vector<unsigned char> Read() const
    {
        std::vector<unsigned char> vBytes(m_nSize);
        EXPECT_EQ(cudaMemcpy(vBytes.data(), m_pMemory, m_nSize, cudaMemcpyDefault), cudaSuccess);
        return vBytes;
    }

    void Write(const std::vector<unsigned char>& vBytes) const
    {
        ASSERT_EQ(vBytes.size(), m_nSize);
        EXPECT_EQ(cudaMemcpy(m_pMemory, vBytes.data(), m_nSize, cudaMemcpyDefault), cudaSuccess);
    }

private:
    EMemory m_eMemory;
    std::size_t m_nSize;
    void* m_pMemory = nullptr;
    std::vector<unsigned char> m_vPageable;
};

/// `nSize` different-looking bytes.
inline std::vector<unsigned char> MakeBytes(std::size_t nSize, unsigned uSeed = 1)
{
    std::vector<unsigned char> vBytes(nSize);
    for (unsigned char& uByte : vBytes)
    {
        uSeed = uSeed * 1664525U + 1013904223U;
        uByte = static_cast<unsigned char>(uSeed >> 24);
    }
    return vBytes;
}

} // namespace Qx::Test
