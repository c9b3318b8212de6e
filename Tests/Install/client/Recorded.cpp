// A client's test: an upload is one copy, and a copy that fails is reported as such.

#include <cstdio>

#include "Qx.Cuda/QxCuda.h"
#include "Qx.CudaRecorder/CudaRecorder.h"

int main()
{
    using Qx::Test::CCudaRecorder;
    if (!Qx::Test::DeviceAnswers())
    {
        return 3;
    }
    const Qx::CQxImage xImage(Qx::CQxImageFormat(33, 7, Qx::EDataType::UByte, Qx::EPixelType::RGBA));
    Qx::CQxDeviceImage2D xOnDevice(xImage);
    CCudaRecorder::Reset();
    xOnDevice.Create(xImage);
    const bool bOneCopy = CCudaRecorder::CallNames() == std::vector<std::string>{"cudaMemcpy2D"};
    CCudaRecorder::FailCall("cudaMemcpy2D", 1, cudaErrorInvalidValue);
    bool bReported = false;
    try
    {
        xOnDevice.Create(xImage);
    }
    catch (const Qx::CQxException& xException)
    {
        bReported = xException.HasException(Qx::CQxCudaException::c_xGuid);
    }
    std::puts(bOneCopy && bReported ? "same" : "lost");
    return bOneCopy && bReported ? 0 : 1;
}
