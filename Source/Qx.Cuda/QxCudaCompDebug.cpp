#include "Qx.Cuda/QxCudaCompDebug.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include <cuda_runtime_api.h>

#include "Qx.Cuda.Core/QxCudaException.h"

namespace Qx::CudaDebug
{

namespace
{

constexpr const char* c_pcFile = "Source/Qx.Cuda/QxCudaCompDebug";

} // namespace

// Initialised before any code runs, so that a client's static constructors can use it.
constinit SParameter CQxCudaCompDebug::sm_xDebugParams(nullptr, nullptr);

void SParameter::Reset() noexcept
{
    pItems = nullptr;
    pCounter = nullptr;
}

void SParameter::ResetCounter() noexcept
{
    if (pCounter != nullptr)
    {
        static_cast<void>(cudaMemset(pCounter, 0, sizeof(*pCounter)));
    }
}

void SParameter::Malloc(int iItemCapacity) noexcept
{
    iCapacity = iItemCapacity;
    // Into fresh variables, because CUDA leaves them alone when it fails: an older, smaller buffer must not stay under
    // the new capacity.
    void* pNewItems = nullptr;
    void* pNewCounter = nullptr;
    static_cast<void>(cudaMalloc(&pNewItems, static_cast<std::size_t>(iItemCapacity) * sizeof(SItem)));
    static_cast<void>(cudaMalloc(&pNewCounter, sizeof(*pCounter)));
    pItems = static_cast<SItem*>(pNewItems);
    pCounter = static_cast<int*>(pNewCounter);
    ResetCounter();
}

void SParameter::Delete() noexcept
{
    static_cast<void>(cudaFree(pItems));
    static_cast<void>(cudaFree(pCounter));
    Reset();
}

CQxCudaCompDebug::CQxCudaCompDebug() noexcept = default;
CQxCudaCompDebug::~CQxCudaCompDebug() = default;

SParameter& CQxCudaCompDebug::GetDebugParams() noexcept
{
    return sm_xDebugParams;
}

int CQxCudaCompDebug::GetDebugItemCount()
{
    if (sm_xDebugParams.pCounter == nullptr)
    {
        return 0;
    }
    int iCount = 0;
    CheckCuda(cudaMemcpy(&iCount, sm_xDebugParams.pCounter, sizeof(iCount), cudaMemcpyDeviceToHost),
        {c_pcFile, "GetDebugItemCount"}, "Error getting number of debug items from CUDA");
    return iCount;
}

void CQxCudaCompDebug::GetDebugItems(std::vector<SItem>& vItems)
{
    // Kernels count the items that they had no room for too; those were never written. Where the room is not known, the
    // kernels have to.
    const int iCapacity = sm_xDebugParams.iCapacity;
    const int iCount = std::min(GetDebugItemCount(), iCapacity != 0 ? iCapacity : INT_MAX);
    if (iCount <= 0 || sm_xDebugParams.pItems == nullptr)
    {
        return;
    }
    vItems.resize(static_cast<std::size_t>(iCount));
    CheckCuda(cudaMemcpy(vItems.data(), sm_xDebugParams.pItems, vItems.size() * sizeof(SItem), cudaMemcpyDeviceToHost),
        {c_pcFile, "GetDebugItems"}, "Error getting debug items from CUDA");
    // A kernel that did not write the flag has left any byte there, and reading it as a bool would be undefined.
    for (SItem& xItem : vItems)
    {
        unsigned char uFlag = 0;
        std::memcpy(&uFlag, &xItem.bFlag, sizeof(uFlag));
        xItem.bFlag = uFlag != 0;
    }
}

void CQxCudaCompDebug::SetDebugKind(EKind eKind)
{
    if (sm_xDebugParams.pItems == nullptr)
    {
        ThrowCuda({c_pcFile, "SetDebugKind"}, "Debug not initialized. Call CudaDebug::Malloc() before");
    }
    m_eDebugKind = eKind;
}

} // namespace Qx::CudaDebug
