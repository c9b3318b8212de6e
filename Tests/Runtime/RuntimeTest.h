#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <thread>
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

#ifdef QX_HOSTCUDA
/// What is alive on a device.
inline HostCuda::SStatistics GetStatistics(int iDevice = 0)
{
    HostCuda::SStatistics xStatistics;
    EXPECT_EQ(HostCuda::GetStatistics(iDevice, xStatistics), cudaSuccess);
    return xStatistics;
}
#endif

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
            EXPECT_EQ(GetStatistics(iDevice), HostCuda::SStatistics{}) << "left alive on device " << iDevice;
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

/// Checks the result of a call: a failure is now pending, and is reset; success leaves nothing pending.
inline void ExpectResult(cudaError_t eResult, cudaError_t eExpected, const char* pcWhat = "")
{
    EXPECT_EQ(eResult, eExpected) << pcWhat << ": " << cudaGetErrorName(eResult);
    EXPECT_EQ(cudaGetLastError(), eExpected) << pcWhat;
}

/// A call and its name.
struct SCall
{
    const char* pcName;
    std::function<cudaError_t()> Make;
};

/// A call under way on another thread, which waits for something.
class CWaiting
{
public:
    /// Expects that the call does not return by itself.
    explicit CWaiting(std::function<cudaError_t()> Make) : m_xResult(std::async(std::launch::async, std::move(Make)))
    {
        EXPECT_EQ(m_xResult.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    }

    cudaError_t Get() { return m_xResult.get(); }

private:
    std::future<cudaError_t> m_xResult;
};

/// Joins threads that run `Work(number)`.
template <class TWork>
void RunOnThreads(int iThreads, const TWork& Work)
{
    std::vector<std::thread> vThreads;
    for (int iThread = 0; iThread < iThreads; ++iThread)
    {
        vThreads.emplace_back(Work, iThread);
    }
    for (std::thread& xThread : vThreads)
    {
        xThread.join();
    }
}

// Objects that the test ends itself.
inline cudaStream_t MakeStream(unsigned uFlags = cudaStreamDefault)
{
    cudaStream_t hStream = nullptr;
    EXPECT_EQ(cudaStreamCreateWithFlags(&hStream, uFlags), cudaSuccess);
    return hStream;
}
inline cudaEvent_t MakeEvent(unsigned uFlags = cudaEventDefault)
{
    cudaEvent_t hEvent = nullptr;
    EXPECT_EQ(cudaEventCreateWithFlags(&hEvent, uFlags), cudaSuccess);
    return hEvent;
}
inline void* MakeMemory(std::size_t nSize)
{
    void* pMemory = nullptr;
    EXPECT_EQ(cudaMalloc(&pMemory, nSize), cudaSuccess);
    return pMemory;
}

/// A stream that is no more.
inline cudaStream_t MakeDeadStream()
{
    const cudaStream_t hStream = MakeStream();
    EXPECT_EQ(cudaStreamDestroy(hStream), cudaSuccess);
    return hStream;
}

/// An event for one scope.
class CEventScope
{
public:
    explicit CEventScope(unsigned uFlags = cudaEventDefault) : m_hEvent(MakeEvent(uFlags)) {}
    ~CEventScope() { EXPECT_EQ(cudaEventDestroy(m_hEvent), cudaSuccess); }
    CEventScope(const CEventScope&) = delete;
    CEventScope& operator=(const CEventScope&) = delete;
    operator cudaEvent_t() const { return m_hEvent; }

private:
    cudaEvent_t m_hEvent;
};

using Bytes = std::vector<unsigned char>;

/// Kinds of memory a client can hold.
enum class EMemory
{
    Pageable,
    Device,
    Pitched,
    Managed,
    PageLocked
};

inline constexpr EMemory c_vAllMemory[] = {
    EMemory::Pageable, EMemory::Device, EMemory::Pitched, EMemory::Managed, EMemory::PageLocked};

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
            m_pMemory = MakeMemory(nSize);
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
    [[nodiscard]] Bytes Read() const
    {
        Bytes vBytes(m_nSize);
        EXPECT_EQ(cudaMemcpy(vBytes.data(), m_pMemory, m_nSize, cudaMemcpyDefault), cudaSuccess);
        return vBytes;
    }

    void Write(const Bytes& vBytes) const
    {
        ASSERT_EQ(vBytes.size(), m_nSize);
        EXPECT_EQ(cudaMemcpy(m_pMemory, vBytes.data(), m_nSize, cudaMemcpyDefault), cudaSuccess);
    }

private:
    EMemory m_eMemory;
    std::size_t m_nSize;
    void* m_pMemory = nullptr;
    Bytes m_vPageable;
};

/// `nSize` different-looking bytes.
inline Bytes MakeBytes(std::size_t nSize, unsigned uSeed = 1)
{
    Bytes vBytes(nSize);
    for (unsigned char& uByte : vBytes)
    {
        uSeed = uSeed * 1664525U + 1013904223U;
        uByte = static_cast<unsigned char>(uSeed >> 24);
    }
    return vBytes;
}

} // namespace Qx::Test
