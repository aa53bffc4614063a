// CQList and CQPlex: node supply from blocks, free chain recycling, removal,
// release of all blocks when the list empties, and the fatal consistency
// checks with their reported texts.

#include "BaseClass/src/CQList.h"

#include "support/HeapWatch.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace {

using PtrList = CQList<int*, int*>;
using Node = PtrList::CNode;

// Ten distinct pointees; the list only stores their addresses.
int g_items[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};

int BlockCount(const CQPlex* block)
{
    int n = 0;
    for (; block != nullptr; block = block->pNext)
        ++n;
    return n;
}

int FreeCount(const Node* node)
{
    int n = 0;
    for (; node != nullptr; node = node->pNext)
        ++n;
    return n;
}

Node* AsNode(POSITION pos) { return reinterpret_cast<Node*>(pos); }

// The elements head to tail, after checking that the forward and backward
// links agree with each other and with m_nCount.
std::vector<int*> Contents(const PtrList& list)
{
    std::vector<int*> forward;
    const Node* prev = nullptr;
    for (const Node* node = list.m_pNodeHead; node != nullptr; node = node->pNext)
    {
        EXPECT_EQ(node->pPrev, prev);
        forward.push_back(node->data);
        prev = node;
    }
    EXPECT_EQ(list.m_pNodeTail, prev);
    EXPECT_EQ(static_cast<int>(forward.size()), list.m_nCount);
    EXPECT_EQ(list.GetCount(), list.m_nCount);
    EXPECT_EQ(list.IsEmpty(), list.m_nCount == 0);
    return forward;
}

std::vector<int*> Items(std::initializer_list<int> indexes)
{
    std::vector<int*> out;
    for (int i : indexes)
        out.push_back(&g_items[i]);
    return out;
}

void Fill(PtrList& list, int n)
{
    for (int i = 0; i < n; ++i)
        ASSERT_NE(list.AddTail(&g_items[i]), nullptr);
}

TEST(CQListTest, NewListHoldsNothing)
{
    PtrList list;
    EXPECT_EQ(list.m_pNodeHead, nullptr);
    EXPECT_EQ(list.m_pNodeTail, nullptr);
    EXPECT_EQ(list.m_pNodeFree, nullptr);
    EXPECT_EQ(list.m_nCount, 0);
    EXPECT_EQ(list.m_nBlockSize, 10);
    EXPECT_EQ(list.m_pBlocks, nullptr);
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_EQ(list.GetHeadPosition(), nullptr);

    PtrList queue(1);
    EXPECT_EQ(queue.m_nBlockSize, 1);
}

TEST(CQListTest, AddTailAppendsAndLinks)
{
    PtrList list;
    POSITION first = list.AddTail(&g_items[0]);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(AsNode(first), list.m_pNodeHead);
    EXPECT_EQ(AsNode(first), list.m_pNodeTail);
    EXPECT_EQ(list.m_pNodeHead->pPrev, nullptr);
    EXPECT_EQ(list.m_pNodeHead->pNext, nullptr);

    POSITION second = list.AddTail(&g_items[1]);
    POSITION third = list.AddTail(&g_items[2]);
    EXPECT_EQ(AsNode(third), list.m_pNodeTail);
    EXPECT_EQ(AsNode(second)->pPrev, AsNode(first));
    EXPECT_EQ(AsNode(second)->pNext, AsNode(third));
    EXPECT_EQ(Contents(list), Items({0, 1, 2}));
}

TEST(CQListTest, FirstAddTailAllocatesOneBlockOfBlockSizeNodes)
{
    PtrList list(4);
    list.AddTail(&g_items[0]);
    EXPECT_EQ(BlockCount(list.m_pBlocks), 1);
    EXPECT_EQ(FreeCount(list.m_pNodeFree), 3);
}

TEST(CQListTest, NodesAreHandedOutInAscendingOrderWithinABlock)
{
    PtrList list(4);
    Node* nodes[4];
    for (int i = 0; i < 4; ++i)
    {
        nodes[i] = AsNode(list.AddTail(&g_items[i]));
        ASSERT_NE(nodes[i], nullptr);
    }
    // One block: the nodes are consecutive elements of its node array, the
    // first at the start of the block's element area.
    EXPECT_EQ(BlockCount(list.m_pBlocks), 1);
    EXPECT_EQ(static_cast<void*>(nodes[0]), list.m_pBlocks->data());
    for (int i = 1; i < 4; ++i)
        EXPECT_EQ(nodes[i], nodes[0] + i) << "node " << i;
    EXPECT_EQ(list.m_pNodeFree, nullptr);

    // The fifth node needs a new block, linked at the front of the chain.
    CQPlex* firstBlock = list.m_pBlocks;
    Node* fifth = AsNode(list.AddTail(&g_items[4]));
    EXPECT_EQ(BlockCount(list.m_pBlocks), 2);
    EXPECT_EQ(list.m_pBlocks->pNext, firstBlock);
    EXPECT_EQ(static_cast<void*>(fifth), list.m_pBlocks->data());
    EXPECT_EQ(list.m_pNodeFree, fifth + 1);
}

TEST(CQListTest, BlockSizeOneAllocatesOneBlockPerAddTailOnEmptyFreeChain)
{
    PtrList list(1);
    for (int i = 0; i < 5; ++i)
    {
        ASSERT_EQ(list.m_pNodeFree, nullptr);
        ASSERT_NE(list.AddTail(&g_items[i]), nullptr);
        EXPECT_EQ(BlockCount(list.m_pBlocks), i + 1) << "after AddTail " << i;
        EXPECT_EQ(list.m_pNodeFree, nullptr);
    }

    // A released node (the list does not empty) waits on the free chain and
    // is reused before any new block is taken.
    Node* third = list.m_pNodeHead->pNext->pNext;
    list.RemoveAt(2);
    EXPECT_EQ(list.m_pNodeFree, third);
    EXPECT_EQ(BlockCount(list.m_pBlocks), 5);
    EXPECT_EQ(AsNode(list.AddTail(&g_items[9])), third);
    EXPECT_EQ(BlockCount(list.m_pBlocks), 5);
    EXPECT_EQ(list.m_pNodeFree, nullptr);

    // The free chain is empty again: the next AddTail takes a sixth block.
    list.AddTail(&g_items[8]);
    EXPECT_EQ(BlockCount(list.m_pBlocks), 6);
    EXPECT_EQ(Contents(list), Items({0, 1, 3, 4, 9, 8}));
}

TEST(CQListTest, ReleasedNodeGoesToTheFrontOfTheFreeChain)
{
    PtrList list;
    Fill(list, 3);
    Node* middle = list.m_pNodeHead->pNext;
    Node* oldFree = list.m_pNodeFree;
    list.RemoveAt(1);
    EXPECT_EQ(list.m_pNodeFree, middle);
    EXPECT_EQ(middle->pNext, oldFree);
    EXPECT_EQ(FreeCount(list.m_pNodeFree), 8);
    EXPECT_EQ(Contents(list), Items({0, 2}));
    EXPECT_EQ(AsNode(list.AddTail(&g_items[5])), middle);
    EXPECT_EQ(Contents(list), Items({0, 2, 5}));
}

TEST(CQListTest, NewNodeSetsLinksZeroesDataAndCounts)
{
    PtrList list;
    Fill(list, 2);
    // The head node held &g_items[0]; once released, it comes back first.
    Node* recycled = list.m_pNodeHead;
    list.RemoveAt(0);
    ASSERT_EQ(list.m_pNodeFree, recycled);
    ASSERT_EQ(recycled->data, &g_items[0]);

    Node* prev = list.m_pNodeTail;
    Node* node = list.NewNode(prev, nullptr);
    EXPECT_EQ(node, recycled);
    EXPECT_EQ(node->pPrev, prev);
    EXPECT_EQ(node->pNext, nullptr);
    EXPECT_EQ(node->data, nullptr);
    EXPECT_EQ(list.m_nCount, 2);
}

// Removing the last element, by either operation, empties the list
// completely; the next AddTail starts from a fresh block.
struct LastRemovalRow
{
    const char* name;
    bool byRemoveHead;
};

void PrintTo(const LastRemovalRow& row, std::ostream* os) { *os << row.name; }

class CQListLastRemovalTest : public ::testing::TestWithParam<LastRemovalRow>
{
};

TEST_P(CQListLastRemovalTest, RemovingTheLastElementFreesAllBlocks)
{
    PtrList list(2);
    Fill(list, 3);  // two blocks
    ASSERT_EQ(BlockCount(list.m_pBlocks), 2);

    for (int remaining = 3; remaining > 0; --remaining)
    {
        EXPECT_NE(list.m_pBlocks, nullptr);
        if (GetParam().byRemoveHead)
            list.RemoveHead();
        else
            list.RemoveAt(remaining - 1);
    }

    EXPECT_EQ(list.m_nCount, 0);
    EXPECT_EQ(list.m_pBlocks, nullptr);
    EXPECT_EQ(list.m_pNodeFree, nullptr);
    EXPECT_EQ(list.m_pNodeHead, nullptr);
    EXPECT_EQ(list.m_pNodeTail, nullptr);
    EXPECT_EQ(list.m_nBlockSize, 2);

    POSITION pos = list.AddTail(&g_items[7]);
    ASSERT_NE(pos, nullptr);
    EXPECT_EQ(BlockCount(list.m_pBlocks), 1);
    EXPECT_EQ(static_cast<void*>(AsNode(pos)), list.m_pBlocks->data());
    EXPECT_EQ(FreeCount(list.m_pNodeFree), 1);
    EXPECT_EQ(Contents(list), Items({7}));
}

const LastRemovalRow kLastRemovalRows[] = {
    {"by-remove-at", false},
    {"by-remove-head", true},
};

INSTANTIATE_TEST_SUITE_P(Rows, CQListLastRemovalTest, ::testing::ValuesIn(kLastRemovalRows),
                         [](const ::testing::TestParamInfo<LastRemovalRow>& info) {
                             std::string name = info.param.name;
                             for (char& c : name)
                                 if (c == '-')
                                     c = '_';
                             return name;
                         });

// RemoveAt over indexes at and around both ends.
struct RemoveAtRow
{
    const char* name;
    int size;
    int index;
    std::vector<int> expected;  // indexes into g_items, head to tail
};

void PrintTo(const RemoveAtRow& row, std::ostream* os)
{
    *os << row.name << " (size " << row.size << ", index " << row.index << ")";
}

class CQListRemoveAtTest : public ::testing::TestWithParam<RemoveAtRow>
{
};

TEST_P(CQListRemoveAtTest, RemovesOnlyAValidIndex)
{
    const RemoveAtRow& row = GetParam();
    PtrList list;
    Fill(list, row.size);
    const bool unchanged = row.index < 0 || row.index >= row.size;

    Node* head = list.m_pNodeHead;
    Node* tail = list.m_pNodeTail;
    Node* freeNode = list.m_pNodeFree;
    CQPlex* blocks = list.m_pBlocks;

    list.RemoveAt(row.index);

    std::vector<int*> expected;
    for (int i : row.expected)
        expected.push_back(&g_items[i]);
    EXPECT_EQ(Contents(list), expected);
    if (unchanged)
    {
        EXPECT_EQ(list.m_pNodeHead, head);
        EXPECT_EQ(list.m_pNodeTail, tail);
        EXPECT_EQ(list.m_pNodeFree, freeNode);
        EXPECT_EQ(list.m_pBlocks, blocks);
        EXPECT_EQ(list.m_nCount, row.size);
    }
}

const RemoveAtRow kRemoveAtRows[] = {
    {"index-minus-one", 3, -1, {0, 1, 2}},
    {"index-int-min", 3, INT_MIN, {0, 1, 2}},
    {"index-zero", 3, 0, {1, 2}},
    {"index-middle", 3, 1, {0, 2}},
    {"index-count-minus-one", 3, 2, {0, 1}},
    {"index-count", 3, 3, {0, 1, 2}},
    {"index-count-plus-one", 3, 4, {0, 1, 2}},
    {"only-element", 1, 0, {}},
    {"only-element-index-count", 1, 1, {0}},
    {"empty-list-index-zero", 0, 0, {}},
    {"empty-list-index-minus-one", 0, -1, {}},
};

INSTANTIATE_TEST_SUITE_P(Rows, CQListRemoveAtTest, ::testing::ValuesIn(kRemoveAtRows),
                         [](const ::testing::TestParamInfo<RemoveAtRow>& info) {
                             std::string name = info.param.name;
                             for (char& c : name)
                                 if (c == '-')
                                     c = '_';
                             return name;
                         });

TEST(CQListTest, RemoveHeadReturnsElementsInOrderAndClearsTheTailAtTheEnd)
{
    PtrList list;
    Fill(list, 3);
    Node* second = list.m_pNodeHead->pNext;
    Node* third = list.m_pNodeTail;

    EXPECT_EQ(list.RemoveHead(), &g_items[0]);
    EXPECT_EQ(list.m_pNodeHead, second);
    EXPECT_EQ(second->pPrev, nullptr);
    EXPECT_EQ(list.m_pNodeTail, third);
    EXPECT_EQ(Contents(list), Items({1, 2}));

    EXPECT_EQ(list.RemoveHead(), &g_items[1]);
    EXPECT_EQ(list.m_pNodeHead, third);
    EXPECT_EQ(third->pPrev, nullptr);
    EXPECT_EQ(list.m_pNodeTail, third);

    EXPECT_EQ(list.RemoveHead(), &g_items[2]);
    EXPECT_EQ(list.m_pNodeHead, nullptr);
    EXPECT_EQ(list.m_pNodeTail, nullptr);
    EXPECT_TRUE(list.IsEmpty());
    // The pointees are left alone.
    EXPECT_EQ(g_items[0], 0);
    EXPECT_EQ(g_items[2], 2);
}

TEST(CQListTest, QueueOfBlockSizeOneInterleavesAddAndRemove)
{
    PtrList queue(1);
    queue.AddTail(&g_items[0]);
    queue.AddTail(&g_items[1]);
    EXPECT_EQ(queue.RemoveHead(), &g_items[0]);
    queue.AddTail(&g_items[2]);
    EXPECT_EQ(BlockCount(queue.m_pBlocks), 2);  // the released node was reused
    EXPECT_EQ(queue.RemoveHead(), &g_items[1]);
    EXPECT_EQ(queue.RemoveHead(), &g_items[2]);
    EXPECT_EQ(queue.m_pBlocks, nullptr);
}

TEST(CQListTest, RemoveAllFreesBlocksAndKeepsBlockSize)
{
    PtrList list(3);
    Fill(list, 7);
    ASSERT_EQ(BlockCount(list.m_pBlocks), 3);
    list.RemoveAll();
    EXPECT_EQ(list.m_pNodeHead, nullptr);
    EXPECT_EQ(list.m_pNodeTail, nullptr);
    EXPECT_EQ(list.m_pNodeFree, nullptr);
    EXPECT_EQ(list.m_nCount, 0);
    EXPECT_EQ(list.m_pBlocks, nullptr);
    EXPECT_EQ(list.m_nBlockSize, 3);

    list.RemoveAll();  // twice is harmless
    Fill(list, 2);
    EXPECT_EQ(Contents(list), Items({0, 1}));
}

TEST(CQListTest, ReadAccessorsWalkTheList)
{
    PtrList list;
    Fill(list, 3);
    EXPECT_EQ(list.GetHead(), &g_items[0]);
    EXPECT_EQ(list.GetTail(), &g_items[2]);

    std::vector<int*> walked;
    for (POSITION pos = list.GetHeadPosition(); pos != nullptr;)
    {
        POSITION here = pos;
        int*& element = list.GetNext(pos);
        EXPECT_EQ(&element, &list.GetAt(here));
        walked.push_back(element);
    }
    EXPECT_EQ(walked, Items({0, 1, 2}));

    // References write through.
    list.GetHead() = &g_items[5];
    list.GetTail() = &g_items[6];
    POSITION pos = list.GetHeadPosition();
    list.GetNext(pos);
    list.GetAt(pos) = &g_items[7];

    const PtrList& view = list;
    EXPECT_EQ(view.GetHead(), &g_items[5]);
    EXPECT_EQ(view.GetTail(), &g_items[6]);
    std::vector<int*> constWalked;
    for (POSITION p = view.GetHeadPosition(); p != nullptr;)
        constWalked.push_back(view.GetNext(p));
    EXPECT_EQ(constWalked, Items({5, 7, 6}));
    EXPECT_EQ(view.GetAt(view.GetHeadPosition()), &g_items[5]);
}

TEST(CQListTest, ListOfStructPointersStoresAddressesOnly)
{
    struct Record
    {
        int id;
    };
    Record records[3] = {{10}, {20}, {30}};
    CQList<Record*, Record*> list;
    for (Record& r : records)
        list.AddTail(&r);
    list.RemoveAt(1);
    EXPECT_EQ(list.RemoveHead()->id, 10);
    EXPECT_EQ(list.GetHead()->id, 30);
    EXPECT_EQ(records[1].id, 20);
}

TEST(CQPlexTest, CreateLinksAtTheFrontAndGivesAlignedRoom)
{
    CQPlex* chain = nullptr;
    CQPlex* first = CQPlex::Create(&chain, 4, 24);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(chain, first);
    EXPECT_EQ(first->pNext, nullptr);

    CQPlex* second = CQPlex::Create(&chain, 3, 8);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(chain, second);
    EXPECT_EQ(second->pNext, first);

    for (CQPlex* block : {first, second})
    {
        const auto address = reinterpret_cast<std::uintptr_t>(block->data());
        EXPECT_EQ(address % alignof(std::max_align_t), 0u);
        EXPECT_GE(address, reinterpret_cast<std::uintptr_t>(block) + sizeof(CQPlex));
    }
    // The whole element area is writable (AddressSanitizer checks the bounds).
    unsigned char* area = static_cast<unsigned char*>(first->data());
    for (int i = 0; i < 4 * 24; ++i)
        area[i] = static_cast<unsigned char>(i);

    chain->FreeDataChain();
}

TEST(CQPlexTest, CreateRefusesAnImpossibleSizeAndLeavesTheChain)
{
    CQPlex* chain = nullptr;
    CQPlex* kept = CQPlex::Create(&chain, 1, 16);
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(CQPlex::Create(&chain, UINT_MAX, UINT_MAX), nullptr);
    EXPECT_EQ(chain, kept);
    EXPECT_EQ(kept->pNext, nullptr);
    chain->FreeDataChain();
}

TEST(CQPlexTest, CreateWithoutAChainGivesNothing)
{
    EXPECT_EQ(CQPlex::Create(nullptr, 1, 16), nullptr);
}

TEST(CQPlexTest, CreateOfZeroSizedElementsGivesAHeaderOnly)
{
    CQPlex* chain = nullptr;
    CQPlex* block = CQPlex::Create(&chain, 5, 0);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(chain, block);
    EXPECT_EQ(block->data(), static_cast<void*>(block + 1));
    chain->FreeDataChain();
}

TEST(CQPlexTest, CreateThatRunsOutOfMemoryLeavesTheChain)
{
    CQPlex* chain = nullptr;
    CQPlex* kept = CQPlex::Create(&chain, 1, 16);
    ASSERT_NE(kept, nullptr);
    velatest::HeapWatch::FailNothrowAfter(0);
    CQPlex* block = CQPlex::Create(&chain, 1, 16);
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(chain, kept);
    EXPECT_EQ(kept->pNext, nullptr);
    chain->FreeDataChain();
}

TEST(CQListTest, AddTailThatRunsOutOfMemoryAddsNothing)
{
    PtrList list(2);
    Fill(list, 2);  // the first block is used up
    velatest::HeapWatch::FailNothrowAfter(0);
    Node* node = list.AddTail(&g_items[2]);
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(node, nullptr);
    EXPECT_EQ(Contents(list), Items({0, 1}));
    EXPECT_EQ(BlockCount(list.m_pBlocks), 1);
    ASSERT_NE(list.AddTail(&g_items[2]), nullptr);
    EXPECT_EQ(Contents(list), Items({0, 1, 2}));
}

// An element so large that a block of UINT_MAX of them cannot exist: with a
// block size of -1 the node supply fails and nothing is counted or linked.
struct Huge
{
    unsigned char bytes[1u << 31];
};

TEST(CQListTest, FailedBlockAllocationSuppliesNoNode)
{
    CQList<Huge, const Huge&> list(-1);
    EXPECT_EQ(list.NewNode(nullptr, nullptr), nullptr);
    EXPECT_EQ(list.m_nCount, 0);
    EXPECT_EQ(list.m_pBlocks, nullptr);
    EXPECT_EQ(list.m_pNodeFree, nullptr);
}

TEST(CQListTest, AddTailReturnsTheNewNode)
{
    PtrList list;
    Node* first = list.AddTail(&g_items[3]);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first, list.m_pNodeHead);
    EXPECT_EQ(first, list.m_pNodeTail);
    EXPECT_EQ(first->data, &g_items[3]);
    EXPECT_EQ(list.AddTail(&g_items[4])->data, &g_items[4]);
    EXPECT_EQ(list.m_pNodeTail->pPrev, first);
}

TEST(CQListTest, PositionsAreTheListsNodes)
{
    PtrList list;
    Fill(list, 3);
    EXPECT_EQ(list.GetHeadPosition(), list.m_pNodeHead);

    // Walked with node pointers...
    std::vector<int*> byNode;
    for (Node* node = list.GetHeadPosition(); node != nullptr;)
    {
        Node* here = node;
        int*& element = list.GetNext(node);
        EXPECT_EQ(&element, &here->data);
        EXPECT_EQ(node, here->pNext);
        EXPECT_EQ(&list.GetAt(here), &here->data);
        byNode.push_back(element);
    }
    EXPECT_EQ(byNode, Items({0, 1, 2}));

    // ...and with POSITION values, which are the same addresses.
    POSITION pos = list.GetHeadPosition();
    EXPECT_EQ(pos, static_cast<void*>(list.m_pNodeHead));
    list.GetNext(pos);
    EXPECT_EQ(pos, static_cast<void*>(list.m_pNodeHead->pNext));
    EXPECT_EQ(list.GetAt(pos), &g_items[1]);
}

// Fatal consistency checks: the message names the condition, the header
// path and the line the library reports for it.
TEST(CQListDeathTest, RemoveHeadOnAnEmptyListIsFatal)
{
    EXPECT_DEATH(
        {
            PtrList list;
            list.RemoveHead();
        },
        "ASSERT: \"m_pNodeHead != NULL\" in file BaseClass/src/CQList, line 578");
}

TEST(CQListDeathTest, RemoveHeadAfterEmptyingIsFatal)
{
    EXPECT_DEATH(
        {
            PtrList list;
            list.AddTail(&g_items[0]);
            list.RemoveHead();
            list.RemoveHead();
        },
        "m_pNodeHead != NULL.*BaseClass/src/CQList.*578");
}

TEST(CQListDeathTest, BlockSizeZeroLeavesNoFreeNodeAndIsFatal)
{
    EXPECT_DEATH(
        {
            PtrList list(0);
            list.AddTail(&g_items[0]);
        },
        "ASSERT: \"m_pNodeFree != NULL\" in file BaseClass/src/CQList, line 410");
}

TEST(CQListDeathTest, CountNotPositiveAfterNewNodeIsFatal)
{
    EXPECT_DEATH(
        {
            PtrList list;
            list.m_nCount = -1;  // corrupted by hand
            list.AddTail(&g_items[0]);
        },
        "ASSERT: \"m_nCount > 0\" in file BaseClass/src/CQList, line 422");
}

TEST(CQListDeathTest, NegativeCountAfterReleaseIsFatal)
{
    EXPECT_DEATH(
        {
            PtrList list;
            list.AddTail(&g_items[0]);
            list.m_nCount = 0;  // corrupted by hand
            list.RemoveHead();
        },
        "ASSERT: \"m_nCount >= 0\" in file BaseClass/src/CQList, line 448");
}

TEST(CQListDeathTest, GetNextPastTheTailIsFatal)
{
    EXPECT_DEATH(
        {
            PtrList list;
            Node* pos = list.GetHeadPosition();
            list.GetNext(pos);
        },
        "ASSERT: \"pNode != NULL\" in file BaseClass/src/CQList");
    EXPECT_DEATH(
        {
            PtrList list;
            list.AddTail(&g_items[0]);
            const PtrList& readOnly = list;
            POSITION pos = readOnly.GetHeadPosition();
            readOnly.GetNext(pos);
            readOnly.GetNext(pos);
        },
        "ASSERT: \"pNode != NULL\" in file BaseClass/src/CQList");
}

TEST(CQListDeathTest, GetAtOfNoPositionIsFatal)
{
    EXPECT_DEATH(
        {
            PtrList list;
            list.GetAt(static_cast<Node*>(nullptr));
        },
        "ASSERT: \"pos != NULL\" in file BaseClass/src/CQList");
    EXPECT_DEATH(
        {
            const PtrList list;
            list.GetAt(static_cast<POSITION>(nullptr));
        },
        "ASSERT: \"pos != NULL\" in file BaseClass/src/CQList");
}

TEST(CQListDeathTest, HeadOrTailOfAnEmptyListIsFatal)
{
    EXPECT_DEATH(
        {
            PtrList list;
            list.GetHead();
        },
        "ASSERT: \"m_pNodeHead != NULL\" in file BaseClass/src/CQList");
    EXPECT_DEATH(
        {
            const PtrList list;
            list.GetHead();
        },
        "ASSERT: \"m_pNodeHead != NULL\" in file BaseClass/src/CQList");
    EXPECT_DEATH(
        {
            PtrList list;
            list.GetTail();
        },
        "ASSERT: \"m_pNodeTail != NULL\" in file BaseClass/src/CQList");
    EXPECT_DEATH(
        {
            const PtrList list;
            list.GetTail();
        },
        "ASSERT: \"m_pNodeTail != NULL\" in file BaseClass/src/CQList");
}

}  // namespace
