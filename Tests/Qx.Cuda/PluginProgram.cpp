// A program that knows the library through a plug-in only, which it loads and unloads: the blocks that the plug-in gave
// back to the pool are still the pool's, so the pool must stay; the plug-in itself must go, whatever it used, so that a
// newer one can take its place.
//   PluginProgram PLUGIN NEWER-PLUGIN POOL-LIBRARY

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "Plugin.h"

namespace
{

using namespace Qx::Test;

bool _IsLoaded(const std::string& sLibrary)
{
    return dlopen(sLibrary.c_str(), RTLD_NOW | RTLD_NOLOAD) != nullptr;
}

// Loads the plug-in of a version, has it do something, and unloads it; returns what went wrong.
const char* _Use(const std::string& sPlugin, int iVersion, int iUse)
{
    void* const pPlugin = dlopen(sPlugin.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (pPlugin == nullptr)
    {
        return dlerror();
    }
    if (reinterpret_cast<PPluginVersion>(dlsym(pPlugin, "PluginVersion"))() != iVersion)
    {
        return "it is the other version";
    }
    if (!reinterpret_cast<PPluginUse>(dlsym(pPlugin, "PluginUse"))(iUse))
    {
        return "it does not do what it should";
    }
    return dlclose(pPlugin) != 0 ? dlerror() : _IsLoaded(sPlugin) ? "it stays loaded" : nullptr;
}

// In a process that has none of the libraries yet.
int _UseInTurn(char** ppcArguments, int iUse)
{
    const std::string sPlugin =
        std::filesystem::temp_directory_path() / ("qx-plugin-" + std::to_string(getpid()) + ".so");
    const char* pcWrong = _IsLoaded(ppcArguments[3]) ? "the pool is loaded before it" : nullptr;
    for (int iVersion = 1; pcWrong == nullptr && iVersion <= 2; ++iVersion)
    {
        std::filesystem::remove(sPlugin);
        std::filesystem::copy(ppcArguments[iVersion], sPlugin);
        pcWrong = _Use(sPlugin, iVersion, iUse);
    }
    std::filesystem::remove(sPlugin);
    if (pcWrong == nullptr && iUse > 3 && !_IsLoaded(ppcArguments[3]))
    {
        pcWrong = "the pool is gone with it";
    }
    if (pcWrong != nullptr)
    {
        std::fprintf(stderr, "use %d of the plug-in: %s\n", iUse, pcWrong);
    }
    std::fflush(nullptr);
    return pcWrong != nullptr ? 1 : 0;
}

} // namespace

int main(int iArguments, char** ppcArguments)
{
    int iWrong = iArguments == 4 ? 0 : 1;
    for (int iUse = 0; iArguments == 4 && iUse < c_iPluginUses; ++iUse)
    {
        const pid_t iChild = fork();
        if (iChild == 0)
        {
            return _UseInTurn(ppcArguments, iUse);
        }
        int iStatus = 0;
        iWrong += waitpid(iChild, &iStatus, 0) == iChild && iStatus == 0 ? 0 : 1;
    }
    return iWrong;
}
