#include "Qx.Cuda/QxCudaDeviceMemory.h"

#include <cstddef>

#include "Qx.Cuda/QxDeviceMMU.h"

namespace Qx
{

CQxCudaDeviceMemory::CQxCudaDeviceMemory() noexcept = default;

CQxCudaDeviceMemory::~CQxCudaDeviceMemory()
{
    Quietly([&] { DeleteAll(); });
}

std::uint64_t CQxCudaDeviceMemory::GetTotalAllocSize() noexcept
{
    return m_nTotalAllocSize;
}

void CQxCudaDeviceMemory::ReserveDevicePointers(std::uint64_t nCount)
{
    m_vDevicePointers.reserve(nCount);
}

void CQxCudaDeviceMemory::AddDevicePointer(void* pMemory, std::uint64_t nByteCount)
{
    m_vDevicePointers.push_back(pMemory);
    if (__builtin_add_overflow(m_nTotalAllocSize, nByteCount, &m_nTotalAllocSize))
    {
        m_nTotalAllocSize = UINT64_MAX;
    }
}

void CQxCudaDeviceMemory::DeleteAll()
{
    // Freed blocks leave the list however this function is left: the exception may itself run out of memory.
    struct SFreed
    {
        std::vector<void*>& vDevicePointers;
        std::ptrdiff_t iCount = 0;

        ~SFreed() { vDevicePointers.erase(vDevicePointers.begin(), vDevicePointers.begin() + iCount); }
    } xFreed{m_vDevicePointers};
    Guard({"Source/Qx.Cuda/QxCudaDeviceMemory", "DeleteAll"}, "Error deleting all pointers to CUDA device memory",
        [&]
        {
            for (void* pMemory : m_vDevicePointers)
            {
                CQxDeviceMMU::QxCudaFree(pMemory);
                ++xFreed.iCount;
            }
        });
    m_nTotalAllocSize = 0;
}

} // namespace Qx
