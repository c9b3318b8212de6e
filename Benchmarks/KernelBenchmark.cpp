// What the host costs as a stand-in for a GPU: a kernel of ordinary weight on the runner against the loop that one
// would write for the same pixels, on one thread and on all; and what Begin and End add to recording and synchronising
// an event.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include <benchmark/benchmark.h>
#include <cuda_runtime.h>

#include "Qx.Cuda/QxCudaComp.h"
#include "Qx.Cuda/QxDeviceImage2D.h"
#include "Qx.Cuda/QxLaunchKernel.h"
#include "Qx.HostCuda/HostCuda.h"

namespace
{

using Qx::CQxCudaComp;
using Qx::CQxDeviceImage2D;
using Qx::CQxImageFormat;
using Qx::SDeviceImageDesc2D;

template <typename T>
__device__ T* _Row(const SDeviceImageDesc2D& xImage, int iY)
{
    return reinterpret_cast<T*>(static_cast<char*>(xImage.pData) + static_cast<std::uint64_t>(iY) * xImage.nPitch);
}

__device__ unsigned char _ToByte(int iSum, int iCount)
{
    return static_cast<unsigned char>(min(iSum / iCount >> 4, 255));
}

// One pixel of a bilinear demosaic of 12-bit data in RGGB order, from its neighbours, which are clamped at the edges.
__device__ uchar4 _Demosaic(const SDeviceImageDesc2D& xRaw, int iX, int iY)
{
    const int iLeft = max(iX - 1, 0);
    const int iRight = min(iX + 1, xRaw.xFormat.iWidth - 1);
    const auto* const pUpper = _Row<const unsigned short>(xRaw, max(iY - 1, 0));
    const auto* const pRow = _Row<const unsigned short>(xRaw, iY);
    const auto* const pLower = _Row<const unsigned short>(xRaw, min(iY + 1, xRaw.xFormat.iHeight - 1));
    const int iCentre = pRow[iX];
    const int iAcross = pRow[iLeft] + pRow[iRight];
    const int iDown = pUpper[iX] + pLower[iX];
    const int iCorners = pUpper[iLeft] + pUpper[iRight] + pLower[iLeft] + pLower[iRight];
    const bool bEvenRow = iY % 2 == 0;
    if ((iX % 2 == 0) != bEvenRow)
    {
        const int iRed = bEvenRow ? iAcross : iDown;
        const int iBlue = bEvenRow ? iDown : iAcross;
        return make_uchar4(_ToByte(iRed, 2), _ToByte(iCentre, 1), _ToByte(iBlue, 2), 255);
    }
    const unsigned char uOwn = _ToByte(iCentre, 1);
    const unsigned char uOther = _ToByte(iCorners, 4);
    return make_uchar4(bEvenRow ? uOwn : uOther, _ToByte(iAcross + iDown, 4), bEvenRow ? uOther : uOwn, 255);
}

__global__ void Demosaic(SDeviceImageDesc2D xRaw, SDeviceImageDesc2D xTarget)
{
    const int iX = static_cast<int>(blockIdx.x * blockDim.x + threadIdx.x);
    const int iY = static_cast<int>(blockIdx.y * blockDim.y + threadIdx.y);
    if (iX < xRaw.xFormat.iWidth && iY < xRaw.xFormat.iHeight)
    {
        _Row<uchar4>(xTarget, iY)[iX] = _Demosaic(xRaw, iX, iY);
    }
}

void _DemosaicLoop(const SDeviceImageDesc2D& xRaw, const SDeviceImageDesc2D& xTarget)
{
    for (int iY = 0; iY < xRaw.xFormat.iHeight; ++iY)
    {
        for (int iX = 0; iX < xRaw.xFormat.iWidth; ++iX)
        {
            _Row<uchar4>(xTarget, iY)[iX] = _Demosaic(xRaw, iX, iY);
        }
    }
}

// Raw frame and developed picture of one size.
class CFrame
{
public:
    CFrame()
        : m_xRaw(CQxImageFormat{1920, 1080, Qx::EDataType::Custom_12in16_LSB, Qx::EPixelType::BayerRG}),
          m_xTarget(CQxImageFormat{1920, 1080, Qx::EDataType::UByte, Qx::EPixelType::RGBA})
    {
        const SDeviceImageDesc2D xRaw = m_xRaw.GetDesc();
        std::uint32_t uSeed = 1;
        for (int iY = 0; iY < xRaw.xFormat.iHeight; ++iY)
        {
            for (int iX = 0; iX < xRaw.xFormat.iWidth; ++iX)
            {
                uSeed = uSeed * 1664525U + 1013904223U;
                _Row<unsigned short>(xRaw, iY)[iX] = static_cast<unsigned short>(uSeed >> 20);
            }
        }
    }

    [[nodiscard]] SDeviceImageDesc2D GetRaw() const { return m_xRaw.GetDesc(); }
    [[nodiscard]] SDeviceImageDesc2D GetTarget() const { return m_xTarget.GetDesc(); }

    // The developed pixels.
    [[nodiscard]] std::vector<char> Read() const
    {
        const SDeviceImageDesc2D xTarget = GetTarget();
        const auto nWidth = static_cast<std::size_t>(xTarget.xFormat.iWidth) * sizeof(uchar4);
        std::vector<char> vPixels;
        for (int iY = 0; iY < xTarget.xFormat.iHeight; ++iY)
        {
            const char* const pRow = _Row<const char>(xTarget, iY);
            vPixels.insert(vPixels.end(), pRow, pRow + nWidth);
        }
        return vPixels;
    }

private:
    CQxDeviceImage2D m_xRaw;
    CQxDeviceImage2D m_xTarget;
};

void Loop(benchmark::State& xState)
{
    const CFrame xFrame;
    for ([[maybe_unused]] auto _ : xState)
    {
        _DemosaicLoop(xFrame.GetRaw(), xFrame.GetTarget());
        benchmark::ClobberMemory();
    }
}

// The argument is the number of threads that the runner may use.
void Runner(benchmark::State& xState)
{
    const CFrame xFrame;
    if (Qx::HostCuda::SetLaunchThreads(static_cast<int>(xState.range(0))) != cudaSuccess)
    {
        xState.SkipWithError("the number of threads was refused");
        return;
    }
    CQxCudaComp xComp;
    xComp.EvalKernelDim_2D_1D(xFrame.GetRaw().xFormat, 32, 8);
    for ([[maybe_unused]] auto _ : xState)
    {
        xComp.Begin("Demosaic", nullptr);
        Qx::LaunchKernel<Demosaic>(xComp, nullptr, xFrame.GetRaw(), xFrame.GetTarget());
        xComp.End("Demosaic", nullptr);
    }
    // A fast kernel is worth nothing if it does something else than the loop.
    const std::vector<char> vKernel = xFrame.Read();
    _DemosaicLoop(xFrame.GetRaw(), xFrame.GetTarget());
    if (vKernel != xFrame.Read())
    {
        xState.SkipWithError("kernel and loop differ");
    }
}

__global__ void Nothing() {}

// With 1 as argument a kernel is awaited, as clients do it; with 0 there is nothing to wait for, so that only the fixed
// costs are left.
void _LaunchNothing(const benchmark::State& xState)
{
    if (xState.range(0) == 1)
    {
        Qx::LaunchKernel<Nothing>(dim3(1), dim3(1), nullptr);
    }
}

void WaitLibrary(benchmark::State& xState)
{
    CQxCudaComp xComp;
    xComp.SetKernelConfiguration(1, 1);
    for ([[maybe_unused]] auto _ : xState)
    {
        xComp.Begin("Nothing", nullptr);
        _LaunchNothing(xState);
        xComp.End("Nothing", nullptr);
    }
}

void WaitBare(benchmark::State& xState)
{
    cudaEvent_t pEvent = nullptr;
    if (cudaEventCreateWithFlags(&pEvent, cudaEventDisableTiming) != cudaSuccess)
    {
        xState.SkipWithError("there is no event");
        return;
    }
    for ([[maybe_unused]] auto _ : xState)
    {
        _LaunchNothing(xState);
        if (cudaEventRecord(pEvent, nullptr) != cudaSuccess || cudaEventSynchronize(pEvent) != cudaSuccess)
        {
            xState.SkipWithError("the runtime refused");
            break;
        }
    }
    static_cast<void>(cudaEventDestroy(pEvent));
}

// A launch by itself, queued and awaited.
void Launch(benchmark::State& xState)
{
    static_cast<void>(Qx::HostCuda::SetLaunchThreads(static_cast<int>(xState.range(0))));
    for ([[maybe_unused]] auto _ : xState)
    {
        Qx::LaunchKernel<Nothing>(dim3(64), dim3(32), nullptr);
        static_cast<void>(cudaStreamSynchronize(nullptr));
    }
}

} // namespace

// The processor time is that of all threads, since the work is done on others than the one that waits for it. Where
// several work at a time only the clock tells what that is worth.
BENCHMARK(Loop)->Name("Kernel/Demosaic/1920x1080/loop")->MeasureProcessCPUTime();
BENCHMARK(Loop)->Name("Kernel/Demosaic/1920x1080/loop")->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(Runner)->Name("Kernel/Demosaic/1920x1080/runner")->ArgName("threads")->Arg(1)->MeasureProcessCPUTime();
BENCHMARK(Runner)
    ->Name("Kernel/Demosaic/1920x1080/runner")
    ->ArgName("threads")
    ->Arg(2)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK(WaitLibrary)->Name("Kernel/Wait/library")->ArgName("kernel")->Arg(0)->Arg(1)->MeasureProcessCPUTime();
BENCHMARK(WaitBare)->Name("Kernel/Wait/bare")->ArgName("kernel")->Arg(0)->Arg(1)->MeasureProcessCPUTime();
BENCHMARK(Launch)->Name("Kernel/Launch/empty")->ArgName("threads")->Arg(1)->Arg(2)->MeasureProcessCPUTime();

BENCHMARK_MAIN();
