#pragma once

#include <atomic>
#include <cstdint>
#include <stdexcept>

namespace Qx::HostCuda
{

/// Keeps the end of the process away from routines that run.
///
/// OpenBLAS ends its threads and frees what its routines work in when the process exits, and streams may still compute
/// then: the process would hang or crash. Being destroyed before that, as an object of a library that depends on
/// OpenBLAS, this waits for them; work that comes later is a fault.
class CExitGate
{
public:
    ~CExitGate()
    {
        m_uState.fetch_or(c_uClosed, std::memory_order_relaxed);
        for (std::uint32_t uState = 0; (uState = m_uState.load(std::memory_order_acquire)) != c_uClosed;)
        {
            m_uState.wait(uState, std::memory_order_acquire);
        }
    }
    CExitGate(const CExitGate&) = delete;
    CExitGate& operator=(const CExitGate&) = delete;

    /// Lets one piece of work through for as long as this object lives. Orders no work before other work.
    class CPass
    {
    public:
        CPass()
        {
            if ((s_xGate.m_uState.fetch_add(c_uOne, std::memory_order_relaxed) & c_uClosed) != 0)
            {
                _Leave();
                throw std::runtime_error("the process exits");
            }
        }
        ~CPass() { _Leave(); }
        CPass(const CPass&) = delete;
        CPass& operator=(const CPass&) = delete;

    private:
        static void _Leave() noexcept
        {
            if ((s_xGate.m_uState.fetch_sub(c_uOne, std::memory_order_release) & c_uClosed) != 0)
            {
                s_xGate.m_uState.notify_all();
            }
        }
    };

private:
    constexpr CExitGate() = default;

    static constexpr std::uint32_t c_uClosed = 1;
    static constexpr std::uint32_t c_uOne = 2;

    std::atomic<std::uint32_t> m_uState{0};

    static CExitGate s_xGate;
};

} // namespace Qx::HostCuda
