#include "Support/AllocationFault.h"

#include <cstdlib>

// Requests beyond the address space must come back as null under the sanitizers too, where they end the program by
// default.
extern "C" [[gnu::visibility("default")]] const char* __asan_default_options();
extern "C" [[gnu::visibility("default")]] const char* __tsan_default_options();
const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}
const char* __tsan_default_options()
{
    return "allocator_may_return_null=1";
}

namespace
{

struct SFaultState
{
    bool bArmed = false;
    bool bPersistent = false;
    bool bStruck = false;
    std::size_t nSkip = 0;
};

// Of the arming thread only: the test framework and the sanitizers may have threads of their own.
thread_local SFaultState t_xFault;

void* _Allocate(std::size_t nBytes) noexcept
{
    if (t_xFault.bArmed)
    {
        if (t_xFault.nSkip == 0)
        {
            t_xFault.bStruck = true;
            t_xFault.bArmed = t_xFault.bPersistent;
            return nullptr;
        }
        --t_xFault.nSkip;
    }
    return std::malloc(nBytes != 0 ? nBytes : 1);
}

void* _AllocateOrThrow(std::size_t nBytes)
{
    void* pMemory = _Allocate(nBytes);
    if (pMemory == nullptr)
    {
        throw std::bad_alloc();
    }
    return pMemory;
}

} // namespace

// The plain forms and the non-throwing ones are replaced together: under AddressSanitizer the ones left out would be
// its own and mismatch with ours.
void* operator new(std::size_t nBytes)
{
    return _AllocateOrThrow(nBytes);
}

void* operator new[](std::size_t nBytes)
{
    return _AllocateOrThrow(nBytes);
}

void* operator new(std::size_t nBytes, const std::nothrow_t&) noexcept
{
    return _Allocate(nBytes);
}

void* operator new[](std::size_t nBytes, const std::nothrow_t&) noexcept
{
    return _Allocate(nBytes);
}

void operator delete(void* pMemory) noexcept
{
    std::free(pMemory);
}

void operator delete[](void* pMemory) noexcept
{
    std::free(pMemory);
}

void operator delete(void* pMemory, std::size_t) noexcept
{
    std::free(pMemory);
}

void operator delete[](void* pMemory, std::size_t) noexcept
{
    std::free(pMemory);
}

void operator delete(void* pMemory, const std::nothrow_t&) noexcept
{
    std::free(pMemory);
}

void operator delete[](void* pMemory, const std::nothrow_t&) noexcept
{
    std::free(pMemory);
}

namespace Qx::Test
{

CAllocationFault::CAllocationFault(std::size_t nSkip, EMode eMode) noexcept
{
    t_xFault = {true, eMode == EMode::Persistent, false, nSkip};
}

CAllocationFault::~CAllocationFault()
{
    t_xFault = {};
}

bool CAllocationFault::HasStruck() noexcept
{
    return t_xFault.bStruck;
}

} // namespace Qx::Test
