// A client outside the tree. Where no device answers, the failure must be the library's own.

#include <cstdio>
#include <cstring>

#include "Qx.Cuda/QxCuda.h"

void Invert(const Qx::CQxDeviceImage2D& xImage); // Kernel.cpp

int main()
{
    try
    {
        const Qx::CQxImageFormat xFormat(33, 7, Qx::EDataType::UByte, Qx::EPixelType::Lum);
        Qx::CQxPageLockedImage xImage(xFormat);
        std::memset(xImage.GetDataPtr(), 0x7F, xImage.GetBufferSize());
        Qx::CQxDeviceImage2D xOnDevice;
        xOnDevice.CreateAsync(&xImage, nullptr);
        Invert(xOnDevice);
        std::memset(xImage.GetDataPtr(), 0x80, xImage.GetBufferSize());
        Qx::CQxImage xBack;
        xOnDevice.CopyTo(xBack);
        const bool bSame = std::memcmp(xImage.GetDataPtr(), xBack.GetDataPtr(), xBack.GetBufferSize()) == 0;
        std::puts(bSame ? "same" : "lost");
        return bSame ? 0 : 1;
    }
    catch (const Qx::CQxException& xException)
    {
        std::fputs(xException.ToString().ToCString(), stdout);
        return xException.HasException(Qx::CQxCudaException::c_xGuid) ? 3 : 1;
    }
}
