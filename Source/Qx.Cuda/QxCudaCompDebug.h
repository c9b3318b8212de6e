#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

#include "Qx.Core/QxExport.h"

/// The channel through which a client's kernels hand records back to the host.
///
/// One parameter block serves the whole process. A client allocates its buffers once, resets the counter before a
/// launch, passes the block to the kernel, and reads the items back afterwards:
///
///     CQxCudaCompDebug::GetDebugParams().Malloc(1000);
///     CQxCudaCompDebug::GetDebugParams().ResetCounter();
///     ... launch with CQxCudaCompDebug::GetDebugParams() as an argument, and wait ...
///     CQxCudaCompDebug::GetDebugItems(vItems);
///     CQxCudaCompDebug::GetDebugParams().Delete();
///
/// Nothing is locked: one thread at a time works with the block, and none while a kernel that uses it runs.
namespace Qx::CudaDebug
{

/// Selects what a launch's kernels report. The library only stores it; the values, but for 0, which is that of a new
/// object, belong to the authors of the kernels: `static_cast<EKind>(7)`.
enum class EKind : std::uint32_t
{
    None = 0
};

/// One record as kernels write it into device memory: 56 bytes whose layout is shared with them. The library never
/// looks at the fields; their names say what they are commonly used for.
struct SItem
{
    std::int32_t aiPosition[4] = {}; ///< such as the pixel, the channel and the thread
    bool bFlag = false;              ///< such as whether the pixel was clipped
    float afValue[9] = {};           ///< such as intermediate results
};

static_assert(sizeof(SItem) == 56 && alignof(SItem) == 4 && std::is_trivially_copyable_v<SItem>);
static_assert(offsetof(SItem, aiPosition) == 0 && offsetof(SItem, bFlag) == 16 && offsetof(SItem, afValue) == 20);

/// The parameter block that kernels receive by value: 32 bytes whose layout is shared with them.
///
/// A kernel claims a slot with `atomicAdd(pCounter, 1)` and writes its item when the slot is below the capacity. The
/// block does not own its buffers: copies are cheap and describe the same buffers, and only `Delete` frees them.
struct SParameter
{
    /// A block over existing buffers; the capacity is 0, which stands for one that is not known.
    constexpr SParameter(SItem* pItemBuffer, int* pItemCounter) noexcept : pItems(pItemBuffer), pCounter(pItemCounter)
    {
    }

    /// Forgets the buffers without freeing them; the capacity stays.
    QX_CUDA_API void Reset() noexcept;

    /// Sets the counter to 0 with `cudaMemset`; does nothing without a counter. The result is ignored. The memset is in
    /// order with the default stream and may run after the call has returned: before a kernel on a stream that was
    /// created non-blocking comes `cudaStreamSynchronize(nullptr)`.
    QX_CUDA_API void ResetCounter() noexcept;

    /// Allocates an item buffer of @p iItemCapacity items and a counter on the current device, and resets the counter.
    ///
    /// Does not free the buffers of an earlier call: use `Delete` before. Results are not tested and nothing is
    /// thrown: after a failure the pointer in question is null and the CUDA error stays pending. `SetDebugKind` notices
    /// missing items; a missing counter is for the client to see (`pCounter`) before it launches a kernel that counts.
    QX_CUDA_API void Malloc(int iItemCapacity) noexcept;

    /// Frees both buffers, null or not, with two calls of `cudaFree` whose results are ignored, and forgets them. The
    /// capacity stays.
    QX_CUDA_API void Delete() noexcept;

    std::uint64_t uReserved = 0; ///< not written: it has its place in the layout that kernels know
    SItem* pItems;               ///< device address of the item buffer; null when there is none
    int* pCounter;               ///< device address of the counter: how many items the kernels meant to write
    int iCapacity = 0;           ///< items that the buffer holds
};

static_assert(sizeof(SParameter) == 32 && alignof(SParameter) == 8 && std::is_trivially_copyable_v<SParameter>);
static_assert(
    offsetof(SParameter, pItems) == 8 && offsetof(SParameter, pCounter) == 16 && offsetof(SParameter, iCapacity) == 24);

/// Access to the process's debug channel, and the debug kind of one launch context.
class QX_EXPORT_TYPE CQxCudaCompDebug
{
public:
    QX_CUDA_API CQxCudaCompDebug() noexcept;
    QX_CUDA_API virtual ~CQxCudaCompDebug();

    CQxCudaCompDebug(const CQxCudaCompDebug&) = default;
    CQxCudaCompDebug& operator=(const CQxCudaCompDebug&) = default;

    /// The one parameter block of the process itself: both pointers null and capacity 0 from the moment the library is
    /// loaded. Its buffers are never freed but by its `Delete`.
    static QX_CUDA_API SParameter& GetDebugParams() noexcept;

    /// How many items the kernels meant to write since the last reset, which may be more than the capacity; 0, without
    /// a CUDA call, when there is no counter. Waits for the default stream's work.
    ///
    /// Throws a `CQxCudaException` "Error getting number of debug items from CUDA".
    static QX_CUDA_API int GetDebugItemCount();

    /// Reads the items back: @p vItems gets as many elements as the kernels wrote, at most the capacity; as many as the
    /// counter says where the capacity is 0, because the client made the block over buffers of its own. A flag whose
    /// byte is neither 0 nor 1, as where a kernel did not write it, reads as true.
    ///
    /// @p vItems stays as it is, its contents too, when there is nothing to read: no buffers or no items. Throws what
    /// `GetDebugItemCount` throws (@p vItems unchanged), what resizing @p vItems throws, and a `CQxCudaException`
    /// "Error getting debug items from CUDA" (@p vItems is resized, its contents undefined).
    static QX_CUDA_API void GetDebugItems(std::vector<SItem>& vItems);

    /// Sets the kind of this object; others keep theirs.
    ///
    /// Throws a `CQxCudaException` "Debug not initialized. Call CudaDebug::Malloc() before" when there is no item
    /// buffer; the kind is unchanged then. No CUDA call has failed in that case, so the exception shows, and resets,
    /// whatever error the thread had pending.
    QX_CUDA_API void SetDebugKind(EKind eKind);

    /// The kind, for the client to pass to its kernel.
    EKind GetDebugKind() const noexcept { return m_eDebugKind; }

private:
    static SParameter sm_xDebugParams;

    EKind m_eDebugKind = EKind::None;
};

} // namespace Qx::CudaDebug
