#pragma once

#include <future>
#include <memory>

#include <cuda_runtime_api.h>
#include <gtest/gtest.h>

namespace Qx::Test
{

/// Holds a stream: everything queued on it later waits for Release(), or for the end of this object.
class CHold
{
public:
    explicit CHold(cudaStream_t hStream)
    {
        // The function has a share of its own, since it may end later than this object.
        auto pShare = std::make_unique<std::shared_ptr<SGate>>(m_pGate);
        EXPECT_EQ(cudaLaunchHostFunc(
                      hStream,
                      [](void* pData)
                      {
                          const std::unique_ptr<std::shared_ptr<SGate>> pOwned(
                              static_cast<std::shared_ptr<SGate>*>(pData));
                          (*pOwned)->xReached.set_value();
                          (*pOwned)->xReleased.get_future().wait();
                      },
                      pShare.get()),
            cudaSuccess);
        static_cast<void>(pShare.release());
    }
    ~CHold() { Release(); }
    CHold(const CHold&) = delete;
    CHold& operator=(const CHold&) = delete;

    /// Waits until the stream has come to the hold.
    void Await() { m_pGate->xReached.get_future().wait(); }

    void Release()
    {
        if (!m_bReleased)
        {
            m_bReleased = true;
            m_pGate->xReleased.set_value();
        }
    }

private:
    struct SGate
    {
        std::promise<void> xReached;
        std::promise<void> xReleased;
    };

    bool m_bReleased = false;
    std::shared_ptr<SGate> m_pGate = std::make_shared<SGate>();
};

/// A stream for one scope.
class CStreamScope
{
public:
    explicit CStreamScope(unsigned uFlags = cudaStreamDefault)
    {
        EXPECT_EQ(cudaStreamCreateWithFlags(&m_hStream, uFlags), cudaSuccess);
    }
    ~CStreamScope() { EXPECT_EQ(cudaStreamDestroy(m_hStream), cudaSuccess); }
    CStreamScope(const CStreamScope&) = delete;
    CStreamScope& operator=(const CStreamScope&) = delete;
    operator cudaStream_t() const { return m_hStream; }

private:
    cudaStream_t m_hStream = nullptr;
};

} // namespace Qx::Test
