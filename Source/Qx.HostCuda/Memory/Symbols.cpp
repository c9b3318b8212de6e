#include "Qx.HostCuda/Memory/Symbols.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <link.h>
#include <mutex>
#include <optional>
#include <span>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

// AddressSanitizer's, where it runs.
extern "C" [[gnu::weak]] void* __asan_region_is_poisoned(void* pBegin, std::size_t nSize);

namespace Qx::HostCuda
{
namespace
{

/// The module around an address.
struct SModule
{
    std::uintptr_t uAddress = 0; ///< what is sought
    unsigned uFlag = PF_W;       ///< what it has to be: writable data, or with PF_X code
    std::uintptr_t uEnd = 0;     ///< end of such memory around it, 0 if there is none
    const char* pcName = "";     ///< path of its file, empty for the program's
    std::uintptr_t uBase = 0;
    std::span<const ElfW(Phdr)> vHeaders;
    unsigned long long uUnloadCount = 0; ///< how many modules have been unloaded so far
};

int _SearchModule(dl_phdr_info* pInfo, std::size_t, void* pModule)
{
    auto& xModule = *static_cast<SModule*>(pModule);
    const std::span vHeaders(pInfo->dlpi_phdr, pInfo->dlpi_phnum);
    const auto Contains = [&](const ElfW(Phdr) & xHeader)
    { return xModule.uAddress - (pInfo->dlpi_addr + xHeader.p_vaddr) < xHeader.p_memsz; };
    const auto pData = std::ranges::find_if(vHeaders,
        [&](const ElfW(Phdr) & xHeader)
        { return xHeader.p_type == PT_LOAD && (xHeader.p_flags & xModule.uFlag) != 0 && Contains(xHeader); });
    if (pData == vHeaders.end())
    {
        return 0;
    }
    // Constants that the loader has relocated lie in a writable segment too but are write-protected by now.
    const bool bProtected = std::ranges::any_of(
        vHeaders, [&](const ElfW(Phdr) & xHeader) { return xHeader.p_type == PT_GNU_RELRO && Contains(xHeader); });
    xModule.uEnd = bProtected ? 0 : pInfo->dlpi_addr + pData->p_vaddr + pData->p_memsz;
    xModule.pcName = pInfo->dlpi_name;
    xModule.uBase = pInfo->dlpi_addr;
    xModule.vHeaders = vHeaders;
    xModule.uUnloadCount = pInfo->dlpi_subs;
    return 1;
}

/// A file, mapped to be read.
class CFileView
{
public:
    explicit CFileView(const char* pcPath)
    {
        const int iFile = open(pcPath, O_RDONLY | O_CLOEXEC);
        struct stat xStatus
        {
        };
        if (iFile >= 0 && fstat(iFile, &xStatus) == 0 && xStatus.st_size > 0)
        {
            m_nSize = static_cast<std::size_t>(xStatus.st_size);
            m_pMemory = mmap(nullptr, m_nSize, PROT_READ, MAP_PRIVATE, iFile, 0);
        }
        if (iFile >= 0)
        {
            close(iFile);
        }
    }
    ~CFileView()
    {
        if (m_pMemory != MAP_FAILED)
        {
            munmap(m_pMemory, m_nSize);
        }
    }
    CFileView(const CFileView&) = delete;
    CFileView& operator=(const CFileView&) = delete;

    /// Objects that lie in the file from an offset on; none if they leave it.
    template <class T>
    [[nodiscard]] std::span<const T> Get(std::uint64_t nOffset, std::uint64_t nCount) const noexcept
    {
        const bool bInside = m_pMemory != MAP_FAILED && nOffset <= m_nSize && nOffset % alignof(T) == 0 &&
            nCount <= (m_nSize - nOffset) / sizeof(T);
        return bInside ? std::span(reinterpret_cast<const T*>(static_cast<const char*>(m_pMemory) + nOffset), nCount)
                       : std::span<const T>();
    }

private:
    void* m_pMemory = MAP_FAILED;
    std::size_t m_nSize = 0;
};

/// True if a file is the one that was loaded as a module: same program headers and notes, the build ID among them.
bool _IsFileOf(const SModule& xModule, const CFileView& xFile, const ElfW(Ehdr) & xHead)
{
    const auto vHeaders = xFile.Get<ElfW(Phdr)>(xHead.e_phoff, xHead.e_phnum);
    return vHeaders.size() == xModule.vHeaders.size() &&
        std::memcmp(vHeaders.data(), xModule.vHeaders.data(), vHeaders.size_bytes()) == 0 &&
        std::ranges::all_of(vHeaders,
            [&](const ElfW(Phdr) & xHeader)
            {
                const auto vNote = xFile.Get<char>(xHeader.p_offset, xHeader.p_filesz);
                return xHeader.p_type != PT_NOTE ||
                    std::equal(vNote.begin(), vNote.end(), std::bit_cast<const char*>(xModule.uBase + xHeader.p_vaddr));
            });
}

/// Calls `Function(symbol, name)` for the symbols of a type that begin at the module's address by the symbol table of
/// its file; there may be several names. False if the table is not there.
template <class F>
bool _ForEachSymbol(const SModule& xModule, unsigned uType, F&& Function) noexcept
{
    const CFileView xFile(*xModule.pcName != '\0' ? xModule.pcName : "/proc/self/exe");
    const auto vHead = xFile.Get<ElfW(Ehdr)>(0, 1);
    if (vHead.empty() || !_IsFileOf(xModule, xFile, vHead[0]))
    {
        return false;
    }
    const auto vSections = xFile.Get<ElfW(Shdr)>(vHead[0].e_shoff, vHead[0].e_shnum);
    const auto pTable = std::ranges::find(vSections, unsigned{SHT_SYMTAB}, &ElfW(Shdr)::sh_type);
    if (pTable == vSections.end() || pTable->sh_link >= vSections.size())
    {
        return false;
    }
    const auto vNames = xFile.Get<char>(vSections[pTable->sh_link].sh_offset, vSections[pTable->sh_link].sh_size);
    for (const ElfW(Sym) & xSymbol : xFile.Get<ElfW(Sym)>(pTable->sh_offset, pTable->sh_size / sizeof(ElfW(Sym))))
    {
        const bool bMeant = ELF64_ST_TYPE(xSymbol.st_info) == uType && xSymbol.st_shndx != SHN_UNDEF;
        if (bMeant && xModule.uBase + xSymbol.st_value == xModule.uAddress)
        {
            const auto vRest = vNames.subspan(std::min<std::size_t>(xSymbol.st_name, vNames.size()));
            Function(xSymbol, std::string_view(vRest.begin(), std::ranges::find(vRest, '\0')));
        }
    }
    return true;
}

/// The size of the variable at the module's address, 0 if there is none; nothing if no table says so.
std::optional<std::size_t> _ReadSize(const SModule& xModule) noexcept
{
    std::size_t nSize = 0;
    const auto Widen = [&](const ElfW(Sym) & xSymbol, std::string_view)
    { nSize = std::max<std::size_t>(nSize, xSymbol.st_size); };
    return _ForEachSymbol(xModule, STT_OBJECT, Widen) ? std::optional(nSize) : std::nullopt;
}

/// The variables that were asked for last, so that a steady loop reads no files.
class CCache
{
public:
    static std::optional<std::size_t> Find(const SModule& xModule)
    {
        static constinit CCache s_xCache;
        const std::lock_guard xLock(s_xCache.m_xMutex);
        auto& [uAddress, nSize] = s_xCache.m_vEntries[xModule.uAddress / alignof(std::max_align_t) % c_nCount];
        if (std::exchange(s_xCache.m_uUnloadCount, xModule.uUnloadCount) != xModule.uUnloadCount)
        {
            s_xCache.m_vEntries = {}; // another module may have taken the place
        }
        if (uAddress != xModule.uAddress)
        {
            nSize = _ReadSize(xModule);
            uAddress = xModule.uAddress;
        }
        return nSize;
    }

private:
    static constexpr std::size_t c_nCount = 256;

    std::mutex m_xMutex;
    unsigned long long m_uUnloadCount = 0;
    std::array<std::pair<std::uintptr_t, std::optional<std::size_t>>, c_nCount> m_vEntries{};
};

} // namespace

std::size_t GetSymbolSize(const void* pSymbol) noexcept
{
    SModule xModule;
    xModule.uAddress = reinterpret_cast<std::uintptr_t>(pSymbol);
    dl_iterate_phdr(&_SearchModule, &xModule);
    if (xModule.uEnd == 0)
    {
        return 0;
    }
    const std::size_t nRoom = xModule.uEnd - xModule.uAddress;
    std::size_t nSize = std::min(CCache::Find(xModule).value_or(nRoom), nRoom);
    if (__asan_region_is_poisoned != nullptr)
    {
        // With AddressSanitizer the size in the table includes the red zone.
        const void* const pEnd = __asan_region_is_poisoned(const_cast<void*>(pSymbol), nSize);
        nSize = pEnd == nullptr ? nSize : reinterpret_cast<std::uintptr_t>(pEnd) - xModule.uAddress;
    }
    return nSize;
}

std::size_t GetFunctionName(const void* pFunction, std::span<char> vName) noexcept
{
    SModule xModule;
    xModule.uAddress = reinterpret_cast<std::uintptr_t>(pFunction);
    xModule.uFlag = PF_X;
    dl_iterate_phdr(&_SearchModule, &xModule);
    std::size_t nCount = 0;
    const auto Copy = [&](const ElfW(Sym)&, std::string_view sName)
    { nCount = sName.copy(vName.data(), vName.size()); };
    if (xModule.uEnd != 0)
    {
        _ForEachSymbol(xModule, STT_FUNC, Copy);
    }
    return nCount;
}

} // namespace Qx::HostCuda
