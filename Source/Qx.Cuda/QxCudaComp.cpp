#include "Qx.Cuda/QxCudaComp.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "Qx.Core/QxFormat.h"
#include "Qx.Cuda.Core/QxCudaException.h"

namespace Qx
{

namespace
{

constexpr const char* c_pcFile = "Source/Qx.Cuda/QxCudaComp";

void _DestroyEvent(cudaEvent_t& pEvent) noexcept
{
    if (pEvent != nullptr)
    {
        static_cast<void>(cudaEventDestroy(pEvent));
        pEvent = nullptr;
    }
}

// The launch report; leaves the last error as it is.
CQxString _MakeReport(const CQxCudaComp& xComp, cudaError eError, const char* pcKernel, const char* pcMessage)
{
    const dim3& xGrid = xComp.GetGrid();
    const dim3& xBlock = xComp.GetBlock();
    std::size_t nFree = 0;
    std::size_t nTotal = 0;
    static_cast<void>(cudaMemGetInfo(&nFree, &nTotal));

    const char* const pcError = cudaGetErrorString(eError);

    char acReport[2000];
    const auto Format = [&](std::size_t nMessage, std::size_t nKernel)
    {
        const int iLength = sprintf_s(acReport,
            "%.*s\n\nKernel: '%.*s'\nCUDA Error String: '%s'\n\nKernel Configuration:\n - Grid:  [%u, %u, %u] = %d\n"
            " - Block: [%u, %u, %u] = %d\n\nFree Memory: %llu/%llu",
            static_cast<int>(nMessage), pcMessage != nullptr ? pcMessage : "", static_cast<int>(nKernel),
            pcKernel != nullptr ? pcKernel : "", pcError, xGrid.x, xGrid.y, xGrid.z,
            static_cast<int>(xGrid.x * xGrid.y * xGrid.z), xBlock.x, xBlock.y, xBlock.z,
            static_cast<int>(xBlock.x * xBlock.y * xBlock.z), static_cast<unsigned long long>(nFree),
            static_cast<unsigned long long>(nTotal));
        return static_cast<std::size_t>(std::max(iLength, 0));
    };
    // What the rest of the report leaves goes to the message first, then to the kernel's name.
    const std::size_t nRoom = sizeof(acReport) - 1 - std::min(Format(0, 0), sizeof(acReport) - 1);
    const auto Length = [](const char* pcText) { return pcText != nullptr ? std::strlen(pcText) : 0; };
    const std::size_t nMessage = std::min(Length(pcMessage), nRoom);
    Format(nMessage, std::min(Length(pcKernel), nRoom - nMessage));
    return acReport;
}

} // namespace

CQxCudaComp::CQxCudaComp() noexcept = default;

CQxCudaComp::~CQxCudaComp()
{
    _DestroyEvent(m_pStartEvent);
    _DestroyEvent(m_pStopEvent);
}

void CQxCudaComp::EvalKernelDim_2D_1D(const CQxImageFormat& xFormat, int iResources, int iWarps)
{
    if (xFormat.iWidth <= 0 || xFormat.iHeight <= 0)
    {
        Throw({c_pcFile, "EvalKernelDim_2D_1D"}, "Invalid array size ", xFormat.iWidth, " x ", xFormat.iHeight);
    }
    // threads x resources > 65536, without a product that could overflow.
    std::int64_t iThreads = std::int64_t{32} * iWarps;
    while (iResources > 0 && iThreads > 65536 / iResources)
    {
        iThreads >>= 1;
    }
    if (iThreads <= 0 || iThreads > INT32_MAX)
    {
        iThreads = 0;
    }
    m_xBlock = dim3(static_cast<unsigned int>(iThreads), 1, 1);
    const std::int64_t iBlocks = iThreads == 0 ? 0 : (xFormat.iWidth + iThreads - 1) / iThreads;
    m_xGrid = dim3(static_cast<unsigned int>(iBlocks), static_cast<unsigned int>(xFormat.iHeight), 1);
}

void CQxCudaComp::SetKernelConfiguration(unsigned int uThreads, unsigned int uThreadsPerBlock)
{
    constexpr SThrowSite c_xSite{c_pcFile, "SetKernelConfiguration"};
    Guard(c_xSite, "Error setting kernel configuration",
        [&]
        {
            if (uThreads == 0)
            {
                Throw(c_xSite, "Number of threads is 0");
            }
            if (uThreadsPerBlock == 0)
            {
                Throw(c_xSite, "Number of threads in a block is 0");
            }
            const unsigned int uBlocks = uThreads / uThreadsPerBlock + (uThreads % uThreadsPerBlock != 0 ? 1 : 0);
            const unsigned int uLimit = uBlocks % 65535 == 0 ? 65535 : 65534;
            m_xGrid = dim3(uBlocks, 1, 1);
            if (uBlocks > uLimit)
            {
                // The smallest row count whose quotient is at most the limit; one more column covers the remainder.
                const unsigned int uRows = uBlocks / (uLimit + 1) + 1;
                m_xGrid = dim3(uBlocks / uRows + 1, uRows, 1);
            }
            m_xBlock = dim3(uThreadsPerBlock, 1, 1);
            if (uThreads > m_xGrid.x * m_xGrid.y * uThreadsPerBlock)
            {
                Throw(c_xSite, "Too many threads for given configuration algorithm");
            }
        });
}

void CQxCudaComp::Begin(const char* pcKernel, cudaStream_t)
{
    if (m_xGrid.x == 0 || m_xGrid.y == 0 || m_xBlock.x == 0 || m_xBlock.y == 0)
    {
        Throw({c_pcFile, "Begin"},
            "Kernel launch configuration isn't initialized. Block or Grid is zero. Call "
            "EvalKernelDim_2D_1D() before");
    }
    if (m_pStopEvent == nullptr)
    {
        const cudaError eResult = cudaEventCreateWithFlags(&m_pStopEvent, cudaEventDisableTiming);
        if (eResult != cudaSuccess)
        {
            m_pStopEvent = nullptr;
            _ThrowReport(eResult, pcKernel, "Start: Error creating stop event", "Begin");
        }
    }
}

// By value, as the interface has it.
void CQxCudaComp::Begin(CQxString sKernel, cudaStream_t pStream) // NOLINT(performance-unnecessary-value-param)
{
    Begin(sKernel.ToCString(), pStream);
}

void CQxCudaComp::End(const char* pcKernel, cudaStream_t pStream)
{
    if (const cudaError eResult = cudaEventRecord(m_pStopEvent, pStream); eResult != cudaSuccess)
    {
        _ThrowReport(eResult, pcKernel, "End: Error putting end event on main stream", "End");
    }
    if (const cudaError eResult = cudaEventSynchronize(m_pStopEvent); eResult != cudaSuccess)
    {
        _ThrowReport(eResult, pcKernel, "End: Error during Kernel execution", "End");
    }
}

void CQxCudaComp::End(CQxString sKernel, cudaStream_t pStream) // NOLINT(performance-unnecessary-value-param)
{
    End(sKernel.ToCString(), pStream);
}

CQxString CQxCudaComp::_ShowDebugErrorWindow(cudaError eError, const char* pcKernel, const char* pcMessage) const
{
    CQxString sReport = _MakeReport(*this, eError, pcKernel, pcMessage);
    static_cast<void>(cudaGetLastError());
    return sReport;
}

void CQxCudaComp::_ThrowLaunch(cudaError eError, const char* pcSignature) const
{
    // "... [with auto Kernel = Scope::Name<Parameters>]" or "... [Kernel = &Scope::Name]"
    std::string_view sName(pcSignature);
    sName = sName.substr(0, sName.rfind(']'));
    sName.remove_prefix(std::min(sName.find("= "), sName.size() - 2) + 2);
    const std::size_t nScope = sName.rfind("::", sName.find('<'));
    sName.remove_prefix(nScope != std::string_view::npos ? nScope + 2 : sName.starts_with('&') ? 1 : 0);
    // The error stays pending for the exception to record.
    ThrowCuda({"Source/Qx.Cuda/QxLaunchKernel", "LaunchKernel"},
        _MakeReport(*this, eError, std::string(sName).c_str(), "Launch: Error launching kernel"));
}

void CQxCudaComp::_ThrowReport(
    cudaError eError, const char* pcKernel, const char* pcMessage, const char* pcFunction, int iLine) const
{
    ThrowCuda({c_pcFile, pcFunction, iLine}, _ShowDebugErrorWindow(eError, pcKernel, pcMessage));
}

} // namespace Qx
