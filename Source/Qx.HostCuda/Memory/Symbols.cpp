#include "Qx.HostCuda/Memory/Symbols.h"

#include "Qx.HostCuda/Runtime/Errors.h"

#include <algorithm>
#include <cstdint>
#include <link.h>
#include <unistd.h>

namespace Qx::HostCuda
{
namespace
{

struct SSearch
{
    std::uintptr_t uAddress = 0;
    std::uintptr_t uEnd = 0; ///< end of the writable data around the address, 0 if there is none
};

int _SearchModule(dl_phdr_info* pModule, std::size_t, void* pData)
{
    auto& xSearch = *static_cast<SSearch*>(pData);
    for (int iHeader = 0; iHeader < pModule->dlpi_phnum; ++iHeader)
    {
        const auto& xHeader = pModule->dlpi_phdr[iHeader];
        const std::uintptr_t uBegin = pModule->dlpi_addr + xHeader.p_vaddr;
        const bool bInside = xSearch.uAddress >= uBegin && xSearch.uAddress - uBegin < xHeader.p_memsz;
        if (bInside && xHeader.p_type == PT_LOAD && (xHeader.p_flags & PF_W) != 0)
        {
            xSearch.uEnd = uBegin + xHeader.p_memsz;
        }
    }
    if (xSearch.uEnd == 0)
    {
        return 0;
    }
    // Constants that the loader has relocated lie in a writable segment too but are write-protected by now.
    for (int iHeader = 0; iHeader < pModule->dlpi_phnum; ++iHeader)
    {
        const auto& xHeader = pModule->dlpi_phdr[iHeader];
        const std::uintptr_t uBegin = pModule->dlpi_addr + xHeader.p_vaddr;
        if (xHeader.p_type == PT_GNU_RELRO && xSearch.uAddress >= uBegin && xSearch.uAddress - uBegin < xHeader.p_memsz)
        {
            xSearch.uEnd = 0;
        }
    }
    return 1;
}

} // namespace

void CheckSymbol(const void* pSymbol, std::size_t nByteCount, std::size_t nOffset)
{
    SSearch xSearch;
    xSearch.uAddress = reinterpret_cast<std::uintptr_t>(pSymbol);
    dl_iterate_phdr(&_SearchModule, &xSearch);
    Require(xSearch.uEnd != 0, cudaErrorInvalidSymbol);
    const std::size_t nRoom = xSearch.uEnd - xSearch.uAddress;
    Require(nOffset <= nRoom && nByteCount <= nRoom - nOffset, cudaErrorInvalidValue);
}

} // namespace Qx::HostCuda
