#ifndef VELANET_CQLIST_H
#define VELANET_CQLIST_H

// CQList: a doubly linked list of pointers whose nodes come from a free chain
// that is refilled a block at a time (CQPlex). The list never deletes what
// its elements point to. When it empties, every block goes back to the heap.
//
// Consistency failures are fatal assertions that report the file text
// "BaseClass/src/CQList" and fixed line numbers; callers and tests rely on
// those texts, so they are given literally below.

#include <cstddef>
#include <new>
#include <type_traits>

#include "BaseClass/src/QtAssert.h"

// A block of elements, linked into a chain that is freed all at once. The
// element area starts right after the header and is aligned for any type.
struct alignas(std::max_align_t) CQPlex
{
    CQPlex* pNext;  // next (older) block of the chain

    // Allocates a block with room for count elements of elementSize bytes,
    // links it at the front of *chain and returns it; null when the memory
    // cannot be had (the chain is then unchanged).
    static CQPlex* Create(CQPlex** chain, unsigned count, unsigned elementSize);

    void* data() { return this + 1; }

    // Frees this block and every block after it.
    void FreeDataChain();
};

// A list position: the address of a list node. The list hands out its
// node pointers (CQList<...>::CNode*), which convert to POSITION, and takes
// either form back.
typedef void* POSITION;

template <class TYPE, class ARG_TYPE = TYPE>
class CQList
{
    // Nodes are handed out of raw blocks and recycled without running
    // constructors or destructors of the element, so the element must be a
    // plain value (in this library it is always a pointer).
    static_assert(std::is_trivially_copyable<TYPE>::value,
                  "CQList elements must be trivially copyable");
    static_assert(std::is_trivially_destructible<TYPE>::value,
                  "CQList elements must be trivially destructible");

public:
    struct CNode
    {
        CNode* pNext;
        CNode* pPrev;
        TYPE data;
    };
    static_assert(alignof(CNode) <= alignof(CQPlex),
                  "CQPlex blocks are not aligned enough for this element");

    explicit CQList(int nBlockSize = 10) : m_nBlockSize(nBlockSize) {}

    ~CQList()
    {
        RemoveAll();
        QT_ALWAYS_ASSERT_AT(m_nCount == 0, "BaseClass/src/CQList", 345);
    }

    CQList(const CQList&) = delete;
    CQList& operator=(const CQList&) = delete;

    int GetCount() const { return m_nCount; }
    bool IsEmpty() const { return m_nCount == 0; }

    CNode* GetHeadPosition() const { return m_pNodeHead; }

    // Returns the element at pos and moves pos to the next one (null after
    // the tail).
    TYPE& GetNext(CNode*& pos)
    {
        CNode* pNode = pos;
        QT_ALWAYS_ASSERT(pNode != NULL, "BaseClass/src/CQList");
        pos = pNode->pNext;
        return pNode->data;
    }
    const TYPE& GetNext(CNode*& pos) const
    {
        CNode* pNode = pos;
        QT_ALWAYS_ASSERT(pNode != NULL, "BaseClass/src/CQList");
        pos = pNode->pNext;
        return pNode->data;
    }
    TYPE& GetNext(POSITION& pos)
    {
        CNode* pNode = ToNode(pos);
        TYPE& element = GetNext(pNode);
        pos = pNode;
        return element;
    }
    const TYPE& GetNext(POSITION& pos) const
    {
        CNode* pNode = ToNode(pos);
        const TYPE& element = GetNext(pNode);
        pos = pNode;
        return element;
    }

    TYPE& GetAt(CNode* pos)
    {
        QT_ALWAYS_ASSERT(pos != NULL, "BaseClass/src/CQList");
        return pos->data;
    }
    const TYPE& GetAt(CNode* pos) const
    {
        QT_ALWAYS_ASSERT(pos != NULL, "BaseClass/src/CQList");
        return pos->data;
    }
    TYPE& GetAt(POSITION pos) { return GetAt(ToNode(pos)); }
    const TYPE& GetAt(POSITION pos) const { return GetAt(ToNode(pos)); }

    TYPE& GetHead()
    {
        QT_ALWAYS_ASSERT(m_pNodeHead != NULL, "BaseClass/src/CQList");
        return m_pNodeHead->data;
    }
    const TYPE& GetHead() const
    {
        QT_ALWAYS_ASSERT(m_pNodeHead != NULL, "BaseClass/src/CQList");
        return m_pNodeHead->data;
    }
    TYPE& GetTail()
    {
        QT_ALWAYS_ASSERT(m_pNodeTail != NULL, "BaseClass/src/CQList");
        return m_pNodeTail->data;
    }
    const TYPE& GetTail() const
    {
        QT_ALWAYS_ASSERT(m_pNodeTail != NULL, "BaseClass/src/CQList");
        return m_pNodeTail->data;
    }

    // Appends newElement. Returns its node, or null (nothing added) when a
    // new block was needed and could not be allocated.
    CNode* AddTail(ARG_TYPE newElement)
    {
        CNode* pNewNode = NewNode(m_pNodeTail, NULL);
        if (pNewNode == NULL)
            return NULL;
        pNewNode->data = newElement;
        if (m_pNodeTail != NULL)
            m_pNodeTail->pNext = pNewNode;
        else
            m_pNodeHead = pNewNode;
        m_pNodeTail = pNewNode;
        return pNewNode;
    }

    // Removes the element at the zero-based index; an index outside
    // 0..count-1 is ignored. The pointee is not deleted.
    void RemoveAt(int index)
    {
        if (index < 0 || index >= m_nCount)
            return;
        CNode* pNode = m_pNodeHead;
        for (int i = 0; i < index; ++i)
            pNode = pNode->pNext;

        if (pNode->pPrev != NULL)
            pNode->pPrev->pNext = pNode->pNext;
        else
            m_pNodeHead = pNode->pNext;
        if (pNode->pNext != NULL)
            pNode->pNext->pPrev = pNode->pPrev;
        else
            m_pNodeTail = pNode->pPrev;
        FreeNode(pNode);
    }

    // Removes the first element and returns it. The list must not be empty.
    TYPE RemoveHead()
    {
        QT_ALWAYS_ASSERT_AT(m_pNodeHead != NULL, "BaseClass/src/CQList", 578);
        CNode* pOldNode = m_pNodeHead;
        TYPE returnValue = pOldNode->data;

        m_pNodeHead = pOldNode->pNext;
        if (m_pNodeHead != NULL)
            m_pNodeHead->pPrev = NULL;
        else
            m_pNodeTail = NULL;
        FreeNode(pOldNode);
        return returnValue;
    }

    // Forgets every element and returns all blocks to the heap; the block
    // size is kept. The pointees are not touched.
    void RemoveAll()
    {
        m_pNodeHead = NULL;
        m_pNodeTail = NULL;
        m_pNodeFree = NULL;
        m_nCount = 0;
        if (m_pBlocks != NULL)
            m_pBlocks->FreeDataChain();
        m_pBlocks = NULL;
    }

    // Takes a node from the free chain (refilling the chain with a new block
    // first when it is empty), sets its links, zeroes its data and counts it.
    // Returns null when a block was needed and could not be allocated.
    CNode* NewNode(CNode* pPrev, CNode* pNext)
    {
        if (m_pNodeFree == NULL)
        {
            CQPlex* pNewBlock = CQPlex::Create(&m_pBlocks, static_cast<unsigned>(m_nBlockSize),
                                               static_cast<unsigned>(sizeof(CNode)));
            if (pNewBlock == NULL)
                return NULL;
            // Pushed last to first, so the nodes are handed out in
            // ascending address order.
            unsigned char* pBase = static_cast<unsigned char*>(pNewBlock->data());
            for (int i = m_nBlockSize - 1; i >= 0; --i)
            {
                CNode* pNode = ::new (static_cast<void*>(pBase + static_cast<std::size_t>(i) * sizeof(CNode))) CNode;
                pNode->pNext = m_pNodeFree;
                m_pNodeFree = pNode;
            }
        }
        QT_ALWAYS_ASSERT_AT(m_pNodeFree != NULL, "BaseClass/src/CQList", 410);

        CNode* pNode = m_pNodeFree;
        m_pNodeFree = m_pNodeFree->pNext;
        pNode->pPrev = pPrev;
        pNode->pNext = pNext;
        m_nCount++;
        QT_ALWAYS_ASSERT_AT(m_nCount > 0, "BaseClass/src/CQList", 422);
        // Value-initialised in place: a null pointer for pointer elements.
        ::new (static_cast<void*>(&pNode->data)) TYPE();
        return pNode;
    }

    CNode* m_pNodeHead = NULL;
    CNode* m_pNodeTail = NULL;
    CNode* m_pNodeFree = NULL;  // singly linked through pNext
    int m_nCount = 0;
    int m_nBlockSize;           // nodes obtained per block
    CQPlex* m_pBlocks = NULL;

protected:
    // Returns an unlinked node to the free chain. The last release empties
    // the list completely, blocks included.
    void FreeNode(CNode* pNode)
    {
        pNode->pNext = m_pNodeFree;
        m_pNodeFree = pNode;
        m_nCount--;
        QT_ALWAYS_ASSERT_AT(m_nCount >= 0, "BaseClass/src/CQList", 448);
        if (m_nCount == 0)
            RemoveAll();
    }

private:
    static CNode* ToNode(POSITION pos) { return static_cast<CNode*>(pos); }
};

#endif
