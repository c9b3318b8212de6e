// A program that ends with objects that are still valid: made before the pool was first used, after it, by a library
// that stays loaded or was unloaded, and never destroyed. The exit code is the judge, and the sanitizers are.
//   ExitProgram LIBRARY stays|goes

#include <dlfcn.h>

#include <cstring>

#include "KernelLibrary.h"
#include "Qx.Cuda/QxCuda.h"

namespace
{

struct SObjects
{
    void Create()
    {
        const Qx::CQxImageFormat xFormat(640, 480, Qx::EDataType::UByte, Qx::EPixelType::RGBA);
        x2D.Create(xFormat);
        x1D.Create(xFormat);
        xPageLocked.Create(xFormat);
        Qx::CQxMapping3D xVolume;
        xVolume.Create(0, 0, 0, 1, 1, 1, 4, 4, 4, nullptr);
        xMapping.Create(xVolume);
    }
    bool AreValid() const
    {
        return x2D.IsValid() && x1D.IsValid() && xPageLocked.GetDataPtr() != nullptr && xMapping.IsValid();
    }

    Qx::CQxDeviceImage2D x2D;
    Qx::CQxDeviceImage1D x1D;
    Qx::CQxPageLockedImage xPageLocked;
    Qx::CQxDeviceMapping3D xMapping;
};

SObjects g_xEarly;

} // namespace

int main(int iArguments, char** ppcArguments)
{
    void* const pLibrary = iArguments == 3 ? dlopen(ppcArguments[1], RTLD_NOW | RTLD_LOCAL) : nullptr;
    if (pLibrary == nullptr)
    {
        return 2;
    }
    g_xEarly.Create();
    static SObjects s_xLate;
    s_xLate.Create();
    static auto* const s_pNeverDestroyed = new SObjects;
    s_pNeverDestroyed->Create();
    reinterpret_cast<Qx::Test::PKeepImage>(dlsym(pLibrary, Qx::Test::c_pcKeepImage))();
    if (std::strcmp(ppcArguments[2], "goes") == 0 && dlclose(pLibrary) != 0)
    {
        return 3;
    }
    return g_xEarly.AreValid() && s_xLate.AreValid() && s_pNeverDestroyed->AreValid() ? 0 : 1;
}
