#include "Qx.HostCuda/HostCuda.h"
#include "Qx.HostCuda/Kernels/Crash.h"
#include "Qx.HostCuda/Kernels/Workers.h"
#include "Qx.HostCuda/Runtime/Sanitizer.h"
#include "Qx.HostCuda/Streams/Schedule.h"

#include <algorithm>
#include <cstdlib>
#include <cuda_runtime.h>
#include <memory>
#include <utility>

thread_local constinit Qx::HostCuda::SBuiltIn<uint3> threadIdx;
thread_local constinit Qx::HostCuda::SBuiltIn<uint3> blockIdx;
thread_local constinit Qx::HostCuda::SBuiltIn<dim3> blockDim;
thread_local constinit Qx::HostCuda::SBuiltIn<dim3> gridDim;

namespace Qx::HostCuda
{
namespace
{

constexpr std::uint64_t c_nMaxGridX = 0x7FFFFFFF;
constexpr std::uint64_t c_nMaxGridYZ = 65535;
static_assert(c_nMaxGridX * c_nMaxGridYZ <= UINT64_MAX / c_nMaxGridYZ, "the blocks of a launch are counted in 64 bits");

bool _IsValid(const dim3& xGrid, const dim3& xBlock) noexcept
{
    const auto Within = [](std::uint64_t uValue, std::uint64_t uMax) { return uValue >= 1 && uValue <= uMax; };
    return Within(xGrid.x, c_nMaxGridX) && Within(xGrid.y, c_nMaxGridYZ) && Within(xGrid.z, c_nMaxGridYZ) &&
        Within(xBlock.x, 1024) && Within(xBlock.y, 1024) && Within(xBlock.z, 64) &&
        xBlock.x * xBlock.y * xBlock.z <= 1024;
}

/// What SetLaunchThreads or, at first, the environment says.
std::atomic<int>& _GetThreadLimit() noexcept
{
    static std::atomic<int> s_iLimit{GetEnvironment().iLaunchThreads};
    return s_iLimit;
}

/// What leaves a kernel that has trapped. No std::exception, so that a kernel does not catch it for one of its own.
struct STrapped
{
};

/// A launch on its stream.
class CLaunch final : public CWork
{
public:
    CLaunch(CDevice& xDevice, const dim3& xGrid, const dim3& xBlock, std::unique_ptr<const CKernel> pKernel)
        : m_xDevice(xDevice), m_xGrid(xGrid), m_xBlock(xBlock), m_pKernel(std::move(pKernel))
    {
    }

    void Run() override
    {
        ReportCrashes();
        const std::uint64_t nBlockCount = std::uint64_t{m_xGrid.x} * m_xGrid.y * m_xGrid.z;
        const int iThreads = GetLaunchThreads();
        if (nBlockCount == 1 || iThreads == 1)
        {
            _RunBlocks(0, nBlockCount);
            return;
        }
        TsanRelease(&m_cBegin);
        RunInParallel(
            nBlockCount, iThreads,
            [](void* pLaunch, std::uint64_t nBegin, std::uint64_t nEnd) noexcept
            {
                auto& xLaunch = *static_cast<CLaunch*>(pLaunch);
                TsanAcquire(&xLaunch.m_cBegin);
                xLaunch._RunBlocks(nBegin, nEnd);
                TsanRelease(&xLaunch.m_cEnd);
            },
            this);
        TsanAcquire(&m_cEnd);
    }

private:
    void _RunBlocks(std::uint64_t nBegin, std::uint64_t nEnd) noexcept
    {
        SThread& xThread = ThisThread();
        xThread.bInHostFunction = true;
        Running() = {&m_xDevice, m_pKernel.get(), false};
        std::construct_at(&gridDim, m_xGrid.x, m_xGrid.y, m_xGrid.z);
        std::construct_at(&blockDim, m_xBlock.x, m_xBlock.y, m_xBlock.z);
        try
        {
            auto uX = static_cast<unsigned int>(nBegin % m_xGrid.x);
            auto uY = static_cast<unsigned int>(nBegin / m_xGrid.x % m_xGrid.y);
            auto uZ = static_cast<unsigned int>(nBegin / m_xGrid.x / m_xGrid.y);
            for (; nBegin != nEnd && m_xDevice.GetFault() == cudaSuccess; ++nBegin)
            {
                std::construct_at(&blockIdx, uX, uY, uZ);
                std::construct_at(&threadIdx);
                m_pKernel->RunBlock();
                if (++uX == m_xGrid.x)
                {
                    uX = 0;
                    if (++uY == m_xGrid.y)
                    {
                        uY = 0;
                        ++uZ;
                    }
                }
            }
        }
        catch (...)
        {
            m_xDevice.RaiseFault(cudaErrorLaunchFailure);
        }
        Running() = {};
        xThread.bInHostFunction = false;
    }

    CDevice& m_xDevice;
    const dim3 m_xGrid;
    const dim3 m_xBlock;
    const std::unique_ptr<const CKernel> m_pKernel;
    // Addresses by which ThreadSanitizer is told what the workers' synchronisation orders: everything before the launch
    // before each block, and each block before everything after the launch, but no block before another.
    char m_cBegin = 0;
    char m_cEnd = 0;
};

} // namespace

cudaError_t SetLaunchThreads(int iThreads) noexcept
{
    if (iThreads < 1)
    {
        return cudaErrorInvalidValue;
    }
    _GetThreadLimit().store(iThreads, std::memory_order_relaxed);
    return cudaSuccess;
}

int GetLaunchThreads() noexcept
{
    return std::min(GetProcessorCount(), _GetThreadLimit().load(std::memory_order_relaxed));
}

void Trap()
{
    CDevice* const pDevice = Running().pDevice;
    if (pDevice == nullptr)
    {
        std::abort();
    }
    // Already now: the fault stands even if the kernel catches what is thrown.
    pDevice->RaiseFault(cudaErrorLaunchFailure);
    throw STrapped{};
}

cudaError_t Launch(const cudaLaunchConfig_t* pConfig, bool bFunction, std::unique_ptr<const CKernel> pKernel) noexcept
{
    return Call(
        [&]
        {
            Require(pConfig != nullptr, cudaErrorInvalidValue);
            CPlace xPlace(pConfig->stream);
            CDevice& xDevice = xPlace.GetDevice();
            Require(&xDevice == &CurrentDevice(), cudaErrorInvalidResourceHandle);
            Require(bFunction, cudaErrorInvalidDeviceFunction);
            Require(_IsValid(pConfig->gridDim, pConfig->blockDim), cudaErrorInvalidConfiguration);
            Require(pConfig->dynamicSmemBytes == 0, cudaErrorInvalidValue);
            Require(pConfig->numAttrs == 0, cudaErrorNotSupported);
            Require(pKernel != nullptr, cudaErrorMemoryAllocation);
            xPlace.Enqueue(std::make_unique<CLaunch>(xDevice, pConfig->gridDim, pConfig->blockDim, std::move(pKernel)));
        });
}

} // namespace Qx::HostCuda
