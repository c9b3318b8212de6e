#pragma once

#include <cstdint>
#include <vector>

#include "Qx.Core/QxExport.h"

namespace Qx
{

/// Linear device blocks that belong together and are freed together: a client records what it allocates for one piece
/// of work and frees all of it with one call or by destroying the list.
///
/// The list owns the blocks recorded in it, in the order in which they came. One thread uses a list at a time, with the
/// device of its blocks current where CUDA asks for that.
class QX_CUDA_API CQxCudaDeviceMemory
{
public:
    /// An empty list; makes no CUDA call.
    CQxCudaDeviceMemory() noexcept;

    // A copy or a moved list would own the same blocks twice or leave a total without blocks.
    CQxCudaDeviceMemory(const CQxCudaDeviceMemory&) = delete;
    CQxCudaDeviceMemory& operator=(const CQxCudaDeviceMemory&) = delete;

    /// As `DeleteAll`; a failure is dropped.
    virtual ~CQxCudaDeviceMemory();

    /// The bytes of all recorded blocks.
    std::uint64_t GetTotalAllocSize() noexcept;

    /// Makes room for @p nCount blocks in all, so that recording that many cannot fail. The contents stay as they are.
    ///
    /// Throws the standard library's `std::length_error` for more than its arrays can hold, and `std::bad_alloc`.
    void ReserveDevicePointers(std::uint64_t nCount);

    /// Takes a block over.
    /// @param pMemory a block that `CQxDeviceMMU::QxCudaFree` can free; recorded once, since each record is freed
    /// @param nByteCount its size, added to the total (which stops at the largest 64-bit number)
    ///
    /// Throws `std::bad_alloc` when the list cannot grow; the block then still belongs to the caller and nothing has
    /// changed.
    void AddDevicePointer(void* pMemory, std::uint64_t nByteCount);

    /// Frees the blocks from first to last; the list keeps its room and the total is 0 afterwards.
    ///
    /// Stops at the first block that cannot be freed and throws a `CQxException` "Error deleting all pointers to CUDA
    /// device memory" around the failure of `QxCudaFree`. That block and those after it stay in the list, the ones
    /// before it are gone, so that a further call frees each block once; the total keeps its value.
    void DeleteAll();

private:
    std::vector<void*> m_vDevicePointers;
    std::uint64_t m_nTotalAllocSize = 0;
};

} // namespace Qx
