// A program that knows the library through a plug-in only, which it loads and unloads: the blocks that the plug-in gave
// back to the pool are still the pool's, so the pool must stay.
//   PluginProgram PLUGIN POOL-LIBRARY

#include <dlfcn.h>

#include "KernelLibrary.h"

int main(int iArguments, char** ppcArguments)
{
    const auto IsPoolLoaded = [&] { return dlopen(ppcArguments[2], RTLD_NOW | RTLD_NOLOAD) != nullptr; };
    if (iArguments != 3 || IsPoolLoaded())
    {
        return 4;
    }
    void* const pPlugin = dlopen(ppcArguments[1], RTLD_NOW | RTLD_LOCAL);
    if (pPlugin == nullptr)
    {
        return 2;
    }
    reinterpret_cast<Qx::Test::PKeepImage>(dlsym(pPlugin, Qx::Test::c_pcKeepImage))();
    if (dlclose(pPlugin) != 0)
    {
        return 3;
    }
    return IsPoolLoaded() ? 0 : 1;
}
