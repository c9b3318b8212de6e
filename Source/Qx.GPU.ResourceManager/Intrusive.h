#pragma once

#include <cstddef>
#include <new>
#include <utility>

namespace Qx::GPU
{

/// A place in a ring: a list is one of these with its nodes around it, a node outside lists is alone. What is in
/// several lists at once has a base of this kind for each, told apart by @p TTag. Nothing here allocates or owns.
template <typename TTag>
struct SLink
{
    constexpr SLink() noexcept = default;
    SLink(const SLink&) = delete;
    SLink& operator=(const SLink&) = delete;

    bool IsAlone() const noexcept { return pNext == this; }

    /// Puts this link, which is alone, behind @p xOther.
    void InsertAfter(SLink& xOther) noexcept
    {
        pPrevious = &xOther;
        pNext = xOther.pNext;
        pNext->pPrevious = xOther.pNext = this;
    }

    /// Leaves this link alone and closes the gap; does nothing when it is alone already.
    void Unlink() noexcept
    {
        pPrevious->pNext = pNext;
        pNext->pPrevious = pPrevious;
        pPrevious = pNext = this;
    }

    SLink* pPrevious = this;
    SLink* pNext = this;
};

/// A hash table that chains its nodes by their base `SLink<TTag>` and finds them by their member @p pKey, whose hash
/// `TTag::HashOf` has its upper bits well mixed.
///
/// Nothing fails: when there is no memory for more chains the present ones get longer. The destructor is trivial, so
/// that a table may live as long as the process; chains that it allocated stay allocated.
template <typename TNode, typename TTag, auto pKey>
class CIntrusiveTable
{
public:
    constexpr CIntrusiveTable() noexcept = default;

    // Points into itself.
    CIntrusiveTable(const CIntrusiveTable&) = delete;
    CIntrusiveTable& operator=(const CIntrusiveTable&) = delete;

    /// The first node of @p xKey; null when there is none.
    template <typename TKey>
    TNode* Find(const TKey& xKey) const noexcept
    {
        SLink<TTag>& xChain = _ChainOf(xKey);
        for (SLink<TTag>* pLink = xChain.pNext; pLink != &xChain; pLink = pLink->pNext)
        {
            auto& xNode = static_cast<TNode&>(*pLink);
            if (xNode.*pKey == xKey)
            {
                return &xNode;
            }
        }
        return nullptr;
    }

    /// Puts @p xNode, which is in no table, before those of an equal key.
    void InsertFirst(TNode& xNode) noexcept { xNode.SLink<TTag>::InsertAfter(_ChainOf(xNode.*pKey)); }

    /// Puts @p xNode, which is in no table, behind those of an equal key.
    void InsertLast(TNode& xNode) noexcept { xNode.SLink<TTag>::InsertAfter(*_ChainOf(xNode.*pKey).pPrevious); }

    /// Makes chains for @p nNodes nodes, if it can.
    void Reserve(std::size_t nNodes) noexcept
    {
        const std::size_t nOldChains = _ChainCount();
        if (nNodes <= nOldChains)
        {
            return;
        }
        auto* const pNewChains = new (std::nothrow) SLink<TTag>[nOldChains * 4];
        if (pNewChains == nullptr)
        {
            return;
        }
        SLink<TTag>* const pOldChains = std::exchange(m_pChains, pNewChains);
        m_iShift -= 2;
        for (std::size_t nChain = 0; nChain < nOldChains; ++nChain)
        {
            // From behind to the front, which keeps the order of equal keys.
            while (!pOldChains[nChain].IsAlone())
            {
                auto& xNode = static_cast<TNode&>(*pOldChains[nChain].pPrevious);
                xNode.SLink<TTag>::Unlink();
                InsertFirst(xNode);
            }
        }
        if (pOldChains != m_vFirstChains)
        {
            delete[] pOldChains;
        }
    }

    /// Calls @p xVisit with every node; it must not change the table.
    template <typename TVisit>
    void ForEach(TVisit&& xVisit) const
    {
        for (std::size_t nChain = 0; nChain < _ChainCount(); ++nChain)
        {
            for (SLink<TTag>* pLink = m_pChains[nChain].pNext; pLink != &m_pChains[nChain]; pLink = pLink->pNext)
            {
                xVisit(static_cast<TNode&>(*pLink));
            }
        }
    }

private:
    static constexpr int c_iFirstBits = 6;

    std::size_t _ChainCount() const noexcept { return std::size_t{1} << (64 - m_iShift); }

    template <typename TKey>
    SLink<TTag>& _ChainOf(const TKey& xKey) const noexcept
    {
        return m_pChains[TTag::HashOf(xKey) >> m_iShift];
    }

    SLink<TTag> m_vFirstChains[std::size_t{1} << c_iFirstBits];
    SLink<TTag>* m_pChains = m_vFirstChains;
    int m_iShift = 64 - c_iFirstBits;
};

} // namespace Qx::GPU
