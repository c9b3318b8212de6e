#pragma once

#include <atomic>
#include <cstdint>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Qx::HostCuda
{

/// Lets threads sleep until a condition over atomics holds.
///
/// Unlike a mutex with a condition variable it orders in one direction only: who notifies happens before who wakes, and
/// never the reverse. The order in which queued work and callers see each other's memory is then exactly the one that
/// a client asked for by synchronising, so that ThreadSanitizer finds the synchronisation a client forgot.
class CSignal
{
public:
    CSignal() = default;
    CSignal(const CSignal&) = delete;
    CSignal& operator=(const CSignal&) = delete;

    /// Wakes all waiters after the condition may have changed (the change must be a store with release order).
    void Notify() noexcept
    {
        if ((m_uWord.fetch_add(c_uStep, std::memory_order_release) & c_uWaiting) != 0)
        {
            m_uWord.fetch_and(~c_uWaiting, std::memory_order_relaxed);
            syscall(SYS_futex, &m_uWord, FUTEX_WAKE_PRIVATE, INT32_MAX, nullptr, nullptr, 0);
        }
    }

    /// Returns once `Condition()` is true; it must load with acquire order.
    ///
    /// It looks for a while before it sleeps: to wake a thread whose processor has gone idle takes longer than most of
    /// the work that is waited for.
    template <class F>
    void Wait(F&& Condition) noexcept
    {
        for (int iLook = 0; iLook < c_iLooks; ++iLook)
        {
            if (Condition())
            {
                return;
            }
            _Pause();
        }
        while (!Condition())
        {
            // Whoever notifies after this exchange sees the flag; what was notified before it, the condition sees.
            const std::uint32_t uWord = m_uWord.fetch_or(c_uWaiting, std::memory_order_acquire) | c_uWaiting;
            if (Condition())
            {
                return;
            }
            syscall(SYS_futex, &m_uWord, FUTEX_WAIT_PRIVATE, uWord, nullptr, nullptr, 0);
        }
    }

private:
    static void _Pause() noexcept
    {
#if defined(__x86_64__)
        __builtin_ia32_pause();
#elif defined(__aarch64__)
        asm volatile("yield");
#endif
    }

    static constexpr int c_iLooks = 1000; // some 10 to 20 us
    static constexpr std::uint32_t c_uWaiting = 1;
    static constexpr std::uint32_t c_uStep = 2;

    std::atomic<std::uint32_t> m_uWord{0};
    static_assert(sizeof(m_uWord) == 4 && std::atomic<std::uint32_t>::is_always_lock_free, "the kernel reads the word");
};

} // namespace Qx::HostCuda
