#pragma once

#include "Qx.Core/QxException.h"
#include "Qx.GPU.ResourceManager/ResourceManager.h"

namespace Qx
{

/// The block that an image or a mapping has from the pool: none, or one that goes back with this object. For the
/// classes that borrow their memory; it has the size of the resource that describes the block.
template <typename TResource>
class CQxPoolBlock
{
public:
    /// No block.
    CQxPoolBlock() noexcept = default;

    // The block has one owner.
    CQxPoolBlock(const CQxPoolBlock&) = delete;
    CQxPoolBlock& operator=(const CQxPoolBlock&) = delete;

    /// Gives the block back, if there is one; a failure is dropped.
    ~CQxPoolBlock()
    {
        if (IsHeld())
        {
            Drop();
        }
    }

    /// Takes over a block that the pool has just lent. There must be none yet.
    void Take(const TResource& xLent) noexcept { m_xResource = xLent; }

    /// Takes over the block of @p xOther, which has none afterwards. There must be none yet.
    void Take(CQxPoolBlock& xOther) noexcept
    {
        m_xResource = xOther.m_xResource;
        xOther.m_xResource.m_pDevice = nullptr;
    }

    /// Gives the block back to the pool, which is called without a block too; then there is none. Throws what the pool
    /// throws; the block is held then as before.
    void Release()
    {
        GPU::CResourceManager::ReleaseResource(m_xResource, false);
        m_xResource.m_pDevice = nullptr;
    }

    /// The same, but a failure is dropped and with it the block, which the pool counts as lent for good.
    void Drop() noexcept
    {
        Quietly([&] { Release(); });
        m_xResource.m_pDevice = nullptr;
    }

    /// True when there is a block.
    bool IsHeld() const noexcept { return m_xResource.m_pDevice != nullptr; }

    /// The description of the block; its pointer is null without one.
    const TResource* operator->() const noexcept { return &m_xResource; }

private:
    TResource m_xResource;
};

static_assert(sizeof(CQxPoolBlock<GPU::CCudaMemoryResource>) == sizeof(GPU::CCudaMemoryResource));
static_assert(sizeof(CQxPoolBlock<GPU::CCudaMemoryPitchResource>) == sizeof(GPU::CCudaMemoryPitchResource));

} // namespace Qx
