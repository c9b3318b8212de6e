#pragma once

#include <cstddef>

#include "Qx.Core/QxExport.h"

/// The pools of memory.
namespace Qx::GPU
{

/// Describes a block of device memory that the resource manager lent. A resource without a pointer is empty.
///
/// The description does not own the block: destroying it gives nothing back, and copies describe the same block. A
/// block is given back once, with `CResourceManager::ReleaseResource`.
class QX_EXPORT_TYPE CResource
{
public:
    CResource() noexcept = default;
    CResource(const CResource&) noexcept = default;
    CResource& operator=(const CResource&) noexcept = default;
    QX_GPU_API virtual ~CResource();

    /// True when a request that @p xOther describes is one that this resource's block answers. @p xOther must be of the
    /// class of this object.
    virtual bool Matches(const CResource& xOther) const = 0;

    /// The first byte of the block on the device; null when empty.
    void* m_pDevice = nullptr;
};

/// A linear block. The host may read it through the device pointer while no kernel of its device runs. A block of
/// page-locked host memory is described in the same way; the host may use that one at any time.
class QX_EXPORT_TYPE CCudaMemoryResource : public CResource
{
public:
    /// True when the sizes agree.
    QX_GPU_API bool Matches(const CResource& xOther) const override;

    std::size_t m_nSize = 0; ///< bytes
};

/// A pitched block of rows.
class QX_EXPORT_TYPE CCudaMemoryPitchResource : public CResource
{
public:
    /// True when row width and row count agree; the pitch is the runtime's choice and not compared.
    QX_GPU_API bool Matches(const CResource& xOther) const override;

    std::size_t m_nPitch = 0; ///< bytes from the start of one row to the start of the next, at least the width
    std::size_t m_nWidth = 0; ///< bytes of a row
    std::size_t m_nRows = 0;  ///< rows
};

} // namespace Qx::GPU
