#include "Support/AllocationCounter.h"

#include <atomic>
#include <cerrno>
#include <cstddef>

// The program's definitions replace the C library's for every library of the process; these are what is behind them.
extern "C"
{
    void* __libc_malloc(std::size_t nBytes);
    void* __libc_calloc(std::size_t nCount, std::size_t nBytes);
    void* __libc_realloc(void* pBlock, std::size_t nBytes);
    void* __libc_memalign(std::size_t nAlignment, std::size_t nBytes);
    void __libc_free(void* pBlock);
}

namespace
{

std::atomic<std::uint64_t> sm_uAllocations{0};
constinit thread_local int t_iLeft = -1;

void _Count() noexcept
{
    sm_uAllocations.fetch_add(1, std::memory_order_relaxed);
}

} // namespace

// Visible, or the libraries would go on using the C library's.
#pragma GCC visibility push(default)
extern "C"
{
    void* malloc(std::size_t nBytes)
    {
        _Count();
        if (t_iLeft >= 0 && t_iLeft-- == 0)
        {
            t_iLeft = 0;
            return nullptr;
        }
        return __libc_malloc(nBytes);
    }

    void* calloc(std::size_t nCount, std::size_t nBytes)
    {
        _Count();
        return __libc_calloc(nCount, nBytes);
    }

    void* realloc(void* pBlock, std::size_t nBytes)
    {
        _Count();
        return __libc_realloc(pBlock, nBytes);
    }

    void* memalign(std::size_t nAlignment, std::size_t nBytes)
    {
        _Count();
        return __libc_memalign(nAlignment, nBytes);
    }

    void* aligned_alloc(std::size_t nAlignment, std::size_t nBytes)
    {
        _Count();
        return __libc_memalign(nAlignment, nBytes);
    }

    int posix_memalign(void** ppBlock, std::size_t nAlignment, std::size_t nBytes)
    {
        _Count();
        *ppBlock = __libc_memalign(nAlignment, nBytes);
        return *ppBlock != nullptr ? 0 : ENOMEM;
    }

    void free(void* pBlock)
    {
        __libc_free(pBlock);
    }
}
#pragma GCC visibility pop

namespace Qx::Test
{

std::uint64_t CountAllocations() noexcept
{
    return sm_uAllocations.load(std::memory_order_relaxed);
}

void LimitAllocations(int iCalls) noexcept
{
    t_iLeft = iCalls;
}

} // namespace Qx::Test
