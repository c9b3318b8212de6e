#pragma once

#include <cstddef>
#include <initializer_list>
#include <new>

namespace Qx::Test
{

/// Makes allocations through `operator new` fail while it lives; the test program replaces the global operators for it.
/// Memory that does not come from `operator new` is not affected.
class CAllocationFault
{
public:
    enum class EMode
    {
        Once,       ///< one allocation fails, those after it succeed again
        Persistent, ///< all allocations from this one on fail
    };

    /// Lets @p nSkip allocations through; the next one throws `std::bad_alloc`.
    CAllocationFault(std::size_t nSkip, EMode eMode) noexcept;
    ~CAllocationFault();
    CAllocationFault(const CAllocationFault&) = delete;
    CAllocationFault& operator=(const CAllocationFault&) = delete;

    /// True once an allocation has failed.
    static bool HasStruck() noexcept;
};

/// Runs @p xBody with its 1st, 2nd, 3rd ... allocation failing until it gets through undisturbed, once in each mode.
/// Calls @p xSetup before every run and @p xCheck after every failure, both with allocations working.
/// @return the number of failures, or -1 when one of them did not leave @p xBody as a `std::bad_alloc`
template <typename TSetup, typename TBody, typename TCheck>
int FailEachAllocation(TSetup&& xSetup, TBody&& xBody, TCheck&& xCheck)
{
    int iFailures = 0;
    for (const CAllocationFault::EMode eMode : {CAllocationFault::EMode::Once, CAllocationFault::EMode::Persistent})
    {
        bool bStruck = true;
        for (std::size_t nSkip = 0; bStruck; ++nSkip)
        {
            bool bThrown = false;
            xSetup();
            {
                const CAllocationFault xFault(nSkip, eMode);
                try
                {
                    xBody();
                }
                catch (const std::bad_alloc&)
                {
                    bThrown = true;
                }
                bStruck = CAllocationFault::HasStruck();
            }
            if (bStruck != bThrown)
            {
                return -1;
            }
            if (bStruck)
            {
                ++iFailures;
                xCheck();
            }
        }
    }
    return iFailures;
}

} // namespace Qx::Test
