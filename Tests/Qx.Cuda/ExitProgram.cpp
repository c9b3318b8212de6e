// A program that ends with images that are still valid: one made before the pool was first used, one after, and one
// that is never destroyed. The exit code is the judge, and the sanitizers are.

#include "Qx.Cuda/QxCuda.h"

namespace
{

Qx::CQxDeviceImage2D g_xEarly;

} // namespace

int main()
{
    const Qx::CQxImageFormat xFormat(640, 480, Qx::EDataType::UByte, Qx::EPixelType::RGBA);
    g_xEarly.Create(xFormat);
    static const Qx::CQxDeviceImage2D s_xLate(xFormat);
    static const auto* const s_pNeverDestroyed = new Qx::CQxDeviceImage2D(xFormat);
    return g_xEarly.IsValid() && s_xLate.IsValid() && s_pNeverDestroyed->IsValid() ? 0 : 1;
}
