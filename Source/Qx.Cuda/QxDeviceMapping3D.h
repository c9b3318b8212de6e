#pragma once

#include <array>
#include <cstdint>

#include "Qx.Core.Math/QxMapping3D.h"
#include "Qx.Cuda/QxPoolBlock.h"

namespace Qx
{

/// The device copy of a mapping volume: an axis-aligned box, divided into a regular grid of cells with one `float`
/// value each, and a name.
///
/// The values lie in one linear block of device memory, in the order of the host mapping: cell (ix, iy, iz) at index
/// iz x (nx x ny) + ix x ny + iy, so y varies fastest, then x, then z. Box, grid, step sizes and name are kept on the
/// host. A kernel gets the block by `GetDevicePointer` and the description from the host mapping that was uploaded.
///
/// The mapping is either empty or holds a block, which is borrowed from the pool of the device that was current in
/// `Create` (`GPU::CResourceManager`) and goes back to it in `Release` and in the destructor. The block is never
/// smaller than the grid, and never 4 GiB or larger.
///
/// `Map` reads single values with the host, through the device pointer. It must not be called while a kernel of the
/// device runs, unless the device has concurrent managed access (`cudaDevAttrConcurrentManagedAccess`) or the block is
/// page-locked memory, as on integrated devices without that access. It waits for this class's own upload and memset,
/// not for queued work: the client waits for a kernel that writes the values. On an integrated device such a read is
/// one of ordinary or of uncached memory. On a separate GPU the first read of a page faults and moves the page to the
/// host, which takes far longer than the reads after it, and the next kernel that uses the page moves it back. So `Map`
/// is for some points now and then; a kernel is for many.
///
/// Every failure is a `CQxException` chain; an exception of another type that a component throws, such as
/// `std::bad_alloc`, passes unchanged. One thread uses a mapping at a time, with the mapping's device current. There
/// are no streams here: copies and memsets are the calls without a stream, in order with the default stream. When they
/// return, the host may use or change its values; a kernel on a stream that was created non-blocking must be preceded
/// by `cudaStreamSynchronize(nullptr)`, because the values may still be on their way.
class CQxDeviceMapping3D
{
public:
    /// An empty mapping; makes no CUDA call.
    QX_CUDA_API CQxDeviceMapping3D() noexcept;

    /// As the move assignment, so moving from an empty mapping throws.
    QX_CUDA_API CQxDeviceMapping3D(CQxDeviceMapping3D&& xOther);

    /// Gives this mapping's block back to the pool and takes over the block and the description of @p xOther, which is
    /// empty afterwards. A mapping that is moved into itself ends empty.
    ///
    /// Throws a `CQxException` "Given mapping is invalid" when @p xOther is empty, and what `Release` throws. Both
    /// mappings are unchanged then. Nothing can fail once the block has changed hands.
    QX_CUDA_API CQxDeviceMapping3D& operator=(CQxDeviceMapping3D&& xOther);

    // A copy would own the same block twice; copying values is an operation that is asked for by name.
    CQxDeviceMapping3D(const CQxDeviceMapping3D&) = delete;
    CQxDeviceMapping3D& operator=(const CQxDeviceMapping3D&) = delete;

    /// Gives the block back to the pool. A failure to do so is dropped.
    QX_CUDA_API ~CQxDeviceMapping3D();

    /// Uploads a host mapping with one copy. A block for the same number of bytes is kept, whatever the cell
    /// counts, without asking the pool; otherwise the present block goes back first.
    ///
    /// Throws a `CQxException` "Error creating device mapping" with, as inner exception and in this order:
    /// - "The mapping dimensions are smaller or equal zero" when one of the cell counts is,
    /// - "Mapping of ... x ... x ... cells is too large" when the values take 4 GiB or more,
    /// - "Mapping of ... bytes is smaller than its ... cells" when the mapping's `GetByteCount` says so,
    /// - what the pool throws when it refuses the old block; the mapping is unchanged after these four,
    /// - what the pool throws when it refuses a new block, such as a `CQxOutOfMemoryException`; the mapping is empty,
    /// - a `CQxCudaException` "Error copying memory from host to device"; the mapping has its new description and a
    ///   block of undefined values, which `Map` does not read.
    /// @param xMapping its `GetDataPtr` must give as many bytes as its `GetByteCount` says, which is asked once
    QX_CUDA_API void Create(const CQxMapping3D& xMapping);

    /// Downloads the values with one copy, and waits for them, after giving @p xMapping this mapping's box, cell counts
    /// and name. The step sizes are not transferred: they become those that `CQxMapping3D::Create` works out.
    ///
    /// Throws a `CQxException` "Error copying to host image" with, as inner exception and in this order:
    /// - "Mapping is invalid" when this mapping is empty; @p xMapping is untouched,
    /// - what `CQxMapping3D::Create` throws,
    /// - "Host mapping of ... bytes is larger than the device mapping" when the `GetByteCount` of @p xMapping says so,
    /// - a `CQxCudaException` "Error copying memory from device to host"; after the last two @p xMapping keeps its new
    ///   box, grid and name, its values are undefined.
    QX_CUDA_API void Download(CQxMapping3D& xMapping) const;

    /// Sets every value to 0 with one memset; for an empty mapping that is one of 0 bytes at a null address.
    ///
    /// Throws a `CQxException` "Error setting mapping values to zero" with a `CQxCudaException` "Error zeroing CUDA
    /// device memory" inside; the values are undefined then.
    QX_CUDA_API void SetZero();

    /// Gives the block back to the pool and empties the mapping; an empty mapping is left alone.
    ///
    /// Throws a `CQxException` "Error releasing device mapping" with the pool's exception inside when the pool refuses
    /// it; the mapping is unchanged then.
    QX_CUDA_API void Release();

    /// True when the point lies inside the box. The faces do not belong to the inside, and neither does a point with a
    /// coordinate that is not a number.
    bool Contains(float fX, float fY, float fZ)
    {
        return m_vMinimum[0] < fX && fX < m_vMaximum[0] && m_vMinimum[1] < fY && fY < m_vMaximum[1] &&
            m_vMinimum[2] < fZ && fZ < m_vMaximum[2];
    }

    /// Adds the value of the point's cell to @p fZ; the other coordinates are never changed.
    ///
    /// The cell index along an axis is (coordinate - minimum) / step size in `float` arithmetic, cut off towards zero.
    /// The point stays as it is when an index lies outside the grid, as it may where the cells do not fill the box, or
    /// when the quotient is not a number, as with step sizes of 0; never is anything outside the block read. A kernel
    /// that uses the same operations gets the same bits, as there is no product that a compiler could fuse with a sum.
    ///
    /// The class says when the host may read and what that costs. The first read after `Create` or `SetZero` waits for
    /// the default stream, the reads after it make no CUDA call. Throws, in this order, a `CQxException` "Mapping is
    /// invalid" for an empty mapping, "Point is not in mapping volume" for a point outside the box, "Mapping is
    /// invalid" when the last `Create` could not copy the values, and a `CQxCudaException` "Error waiting for the
    /// mapping values" when that wait fails, which the next call tries again.
    QX_CUDA_API void Map(float& fX, float& fY, float& fZ);

    /// True when the mapping holds a block.
    bool IsValid() const noexcept { return m_xBlock.IsHeld(); }

    /// The device address of the values; null when empty. Stays owned by the mapping.
    float* GetDevicePointer() const noexcept { return static_cast<float*>(m_xBlock->m_pDevice); }

private:
    void _Reset() noexcept;
    std::uint32_t _GetByteCount() noexcept;
    void _Create(CQxDeviceMapping3D&& xOther);

    // Null unless the block holds values that were copied into it.
    float* m_pData = nullptr;
    bool m_bActive = false;
    // An upload or a memset may still be on its way: for both, CUDA returns when the host need not wait any longer.
    bool m_bArriving = false;
    std::array<float, 3> m_vMinimum{};
    std::array<float, 3> m_vMaximum{};
    std::array<int, 3> m_vCounts{};
    std::array<float, 3> m_vSteps{};
    CQxPoolBlock<GPU::CCudaMemoryResource> m_xBlock;
    CQxString m_sName;
};

} // namespace Qx
