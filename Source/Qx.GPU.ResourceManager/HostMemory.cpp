#include "Qx.GPU.ResourceManager/HostMemory.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include <unistd.h>

namespace Qx::GPU
{

namespace
{

struct SClose
{
    void operator()(std::FILE* pFile) const { static_cast<void>(std::fclose(pFile)); }
};
using File = std::unique_ptr<std::FILE, SClose>;

// The least limit of a control group and of those that it is in; inside a container the outermost one may be all that
// is seen.
std::size_t _LimitOf(const std::string& sFolder, std::string sGroup, const char* pcFile, std::size_t nLimit)
{
    for (;;)
    {
        std::size_t nFound = 0;
        char acText[32];
        const File pFile(std::fopen((sFolder + sGroup + pcFile).c_str(), "re"));
        if (pFile != nullptr && std::fgets(acText, sizeof acText, pFile.get()) != nullptr &&
            std::from_chars(acText, acText + std::strlen(acText), nFound).ec == std::errc{}) // "max" is no number
        {
            nLimit = std::min(nLimit, nFound);
        }
        const std::size_t nSlash = sGroup.rfind('/');
        if (nSlash == std::string::npos)
        {
            return nLimit;
        }
        sGroup.erase(nSlash);
    }
}

} // namespace

std::size_t HostMemory(const std::string& sRoot)
{
    const long iPages = sysconf(_SC_PHYS_PAGES);
    const long iPageBytes = sysconf(_SC_PAGESIZE);
    std::size_t nBytes =
        iPages > 0 && iPageBytes > 0 ? static_cast<std::size_t>(iPages) * static_cast<std::size_t>(iPageBytes) : 0;

    // A line a hierarchy, "number:controllers:group". The second version has one hierarchy, without controllers; of the
    // first the one with the controller "memory" counts.
    const File pGroups(std::fopen((sRoot + "/proc/self/cgroup").c_str(), "re"));
    char acLine[4200];
    while (pGroups != nullptr && std::fgets(acLine, sizeof acLine, pGroups.get()) != nullptr)
    {
        std::string_view sLine(acLine);
        sLine = sLine.substr(0, sLine.find('\n'));
        const std::size_t nControllers = std::min(sLine.find(':'), sLine.size());
        const std::size_t nGroup = std::min(sLine.find(':', nControllers + 1), sLine.size());
        const std::string sGroup(sLine.substr(std::min(nGroup + 1, sLine.size())));
        if (nGroup == nControllers + 1)
        {
            nBytes = _LimitOf(sRoot + "/sys/fs/cgroup", sGroup, "/memory.max", nBytes);
        }
        else if (sLine.substr(nControllers, nGroup - nControllers).find("memory") != std::string_view::npos)
        {
            nBytes = _LimitOf(sRoot + "/sys/fs/cgroup/memory", sGroup, "/memory.limit_in_bytes", nBytes);
        }
    }
    return nBytes;
}

} // namespace Qx::GPU
