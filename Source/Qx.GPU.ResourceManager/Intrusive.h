#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

namespace Qx::GPU
{

/// The neighbours of a node in one list.
template <typename TNode>
struct SLinks
{
    TNode* pPrevious = nullptr;
    TNode* pNext = nullptr;
};

/// A doubly linked list through the member @p pLinks of its nodes. It owns nothing and never allocates.
template <typename TNode, SLinks<TNode> TNode::*pLinks>
class CIntrusiveList
{
public:
    bool IsEmpty() const noexcept { return m_pFirst == nullptr; }

    /// The first node; null when empty.
    TNode* First() const noexcept { return m_pFirst; }

    /// The last node; null when empty.
    TNode* Last() const noexcept { return m_pLast; }

    /// The node after @p xNode; null at the end.
    static TNode* Next(const TNode& xNode) noexcept { return (xNode.*pLinks).pNext; }

    void PushFront(TNode& xNode) noexcept
    {
        xNode.*pLinks = {nullptr, m_pFirst};
        (m_pFirst != nullptr ? (m_pFirst->*pLinks).pPrevious : m_pLast) = &xNode;
        m_pFirst = &xNode;
    }

    void PushBack(TNode& xNode) noexcept
    {
        xNode.*pLinks = {m_pLast, nullptr};
        (m_pLast != nullptr ? (m_pLast->*pLinks).pNext : m_pFirst) = &xNode;
        m_pLast = &xNode;
    }

    /// Takes out @p xNode, which must be in this list.
    void Remove(TNode& xNode) noexcept
    {
        const SLinks<TNode> xLinks = xNode.*pLinks;
        (xLinks.pPrevious != nullptr ? (xLinks.pPrevious->*pLinks).pNext : m_pFirst) = xLinks.pNext;
        (xLinks.pNext != nullptr ? (xLinks.pNext->*pLinks).pPrevious : m_pLast) = xLinks.pPrevious;
    }

    /// Takes out the first node; null when empty.
    TNode* PopFront() noexcept
    {
        TNode* const pNode = m_pFirst;
        if (pNode != nullptr)
        {
            m_pFirst = (pNode->*pLinks).pNext;
            (m_pFirst != nullptr ? (m_pFirst->*pLinks).pPrevious : m_pLast) = nullptr;
        }
        return pNode;
    }

private:
    TNode* m_pFirst = nullptr;
    TNode* m_pLast = nullptr;
};

/// A hash table that chains its nodes through their member `pNextInChain`. It owns the chain heads only.
///
/// Nothing fails: when there is no memory for more chains the present ones get longer. The destructor is trivial, so
/// that a table may live as long as the process; chain heads that it allocated stay allocated.
///
/// A node has `HashOf(key)` (static), `GetHash()` and `HasKey(key)`; the upper bits of a hash must be well mixed.
template <typename TNode>
class CIntrusiveTable
{
public:
    constexpr CIntrusiveTable() noexcept = default;

    // Points into itself.
    CIntrusiveTable(const CIntrusiveTable&) = delete;
    CIntrusiveTable& operator=(const CIntrusiveTable&) = delete;

    /// The node of @p xKey; null when there is none.
    template <typename TKey>
    TNode* Find(const TKey& xKey) const noexcept
    {
        TNode* pNode = m_ppChains[TNode::HashOf(xKey) >> m_iShift];
        while (pNode != nullptr && !pNode->HasKey(xKey))
        {
            pNode = pNode->pNextInChain;
        }
        return pNode;
    }

    void Insert(TNode& xNode) noexcept
    {
        if (m_nNodes >= _ChainCount())
        {
            _Grow();
        }
        _Link(xNode);
        ++m_nNodes;
    }

    /// Takes out @p xNode, which must be in this table.
    void Remove(TNode& xNode) noexcept
    {
        TNode** ppNode = &m_ppChains[xNode.GetHash() >> m_iShift];
        while (*ppNode != &xNode)
        {
            ppNode = &(*ppNode)->pNextInChain;
        }
        *ppNode = xNode.pNextInChain;
        --m_nNodes;
    }

    /// Calls @p xVisit with every node; it must not change the table.
    template <typename TVisit>
    void ForEach(TVisit&& xVisit) const
    {
        for (std::size_t nChain = 0; nChain < _ChainCount(); ++nChain)
        {
            for (TNode* pNode = m_ppChains[nChain]; pNode != nullptr; pNode = pNode->pNextInChain)
            {
                xVisit(*pNode);
            }
        }
    }

private:
    static constexpr int c_iFirstBits = 6;

    std::size_t _ChainCount() const noexcept { return std::size_t{1} << (64 - m_iShift); }

    void _Link(TNode& xNode) noexcept
    {
        TNode*& pChain = m_ppChains[xNode.GetHash() >> m_iShift];
        xNode.pNextInChain = pChain;
        pChain = &xNode;
    }

    void _Grow() noexcept
    {
        const std::size_t nOldChains = _ChainCount();
        TNode** const ppNewChains = new (std::nothrow) TNode* [nOldChains * 4] {};
        if (ppNewChains == nullptr)
        {
            return;
        }
        TNode** const ppOldChains = m_ppChains;
        m_ppChains = ppNewChains;
        m_iShift -= 2;
        for (std::size_t nChain = 0; nChain < nOldChains; ++nChain)
        {
            for (TNode* pNode = ppOldChains[nChain]; pNode != nullptr;)
            {
                TNode* const pNext = pNode->pNextInChain;
                _Link(*pNode);
                pNode = pNext;
            }
        }
        if (ppOldChains != m_vFirstChains)
        {
            delete[] ppOldChains;
        }
    }

    TNode* m_vFirstChains[std::size_t{1} << c_iFirstBits] = {};
    TNode** m_ppChains = m_vFirstChains;
    std::size_t m_nNodes = 0;
    int m_iShift = 64 - c_iFirstBits;
};

} // namespace Qx::GPU
