// The process-wide extra-header list.

#include "src/HttpConfig.h"

#include "BaseClass/src/CQInstance.h"
#include "support/HeapWatch.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// Every test leaves the shared list empty again.
class HttpConfigTest : public ::testing::Test
{
protected:
    void TearDown() override
    {
        for (const char* name : {"X-A", "X-B", "X-C", "x-a"}) {
            CQSString key(name);
            CHttpConfig::RemoveHeader(key);
        }
        CQSString out;
        EXPECT_FALSE(CHttpConfig::GetKeyValue(0, out)) << "a test left entries behind";
    }

    static void Add(const char* key, const char* value)
    {
        CQSString k(key), v(value);
        CHttpConfig::AddHeader(k, v);
    }

    static std::vector<std::string> All()
    {
        std::vector<std::string> lines;
        for (int i = 0;; ++i) {
            CQSString out;
            if (!CHttpConfig::GetKeyValue(i, out))
                break;
            lines.emplace_back(out.GetDataPtr());
        }
        return lines;
    }
};

TEST_F(HttpConfigTest, EmptyListHasNoEntryZero)
{
    CQSString out("kept");
    EXPECT_FALSE(CHttpConfig::GetKeyValue(0, out));
    EXPECT_STREQ("kept", out.GetDataPtr());
}

TEST_F(HttpConfigTest, OneEntryIsAppendedAsNameColonValue)
{
    Add("X-A", "1");
    CQSString out;
    EXPECT_TRUE(CHttpConfig::GetKeyValue(0, out));
    EXPECT_STREQ("X-A: 1", out.GetDataPtr());
}

TEST_F(HttpConfigTest, GetKeyValueAppendsWithoutClearing)
{
    Add("X-A", "1");
    CQSString out("pre|");
    EXPECT_TRUE(CHttpConfig::GetKeyValue(0, out));
    EXPECT_STREQ("pre|X-A: 1", out.GetDataPtr());
}

TEST_F(HttpConfigTest, IndexOutOfRangeIsRefused)
{
    Add("X-A", "1");
    CQSString out;
    EXPECT_FALSE(CHttpConfig::GetKeyValue(-1, out));
    EXPECT_FALSE(CHttpConfig::GetKeyValue(1, out));
    EXPECT_TRUE(out.IsEmpty());
}

TEST_F(HttpConfigTest, InsertionOrderIsKept)
{
    Add("X-A", "1");
    Add("X-B", "2");
    Add("X-C", "3");
    EXPECT_EQ((std::vector<std::string>{"X-A: 1", "X-B: 2", "X-C: 3"}), All());
}

TEST_F(HttpConfigTest, AddingAnExistingNameReplacesItAndMovesItToTheEnd)
{
    Add("X-A", "1");
    Add("X-B", "2");
    Add("X-A", "3");
    EXPECT_EQ((std::vector<std::string>{"X-B: 2", "X-A: 3"}), All());
}

TEST_F(HttpConfigTest, NamesCompareExactly)
{
    Add("X-A", "1");
    Add("x-a", "2");
    EXPECT_EQ((std::vector<std::string>{"X-A: 1", "x-a: 2"}), All());
}

TEST_F(HttpConfigTest, RemoveHeaderRemovesFromBothLists)
{
    Add("X-A", "1");
    Add("X-B", "2");
    Add("X-C", "3");
    CQSString key("X-B");
    CHttpConfig::RemoveHeader(key);
    EXPECT_EQ((std::vector<std::string>{"X-A: 1", "X-C: 3"}), All());
    CQSString missing("X-Z");
    CHttpConfig::RemoveHeader(missing);
    EXPECT_EQ(2u, All().size());
}

TEST_F(HttpConfigTest, RemovingTheOnlyEntryEmptiesTheList)
{
    Add("X-A", "1");
    CQSString key("X-A");
    CHttpConfig::RemoveHeader(key);
    EXPECT_TRUE(All().empty());
    Add("X-B", "2");
    EXPECT_EQ((std::vector<std::string>{"X-B: 2"}), All());
}

TEST_F(HttpConfigTest, LivesInTheRegistryUnderUid11)
{
    Add("X-A", "1");
    EXPECT_NE(nullptr, CQInstance::Instance()->GetByUid(11));
}

// Each allocation of AddHeader fails in turn: the header is then either
// stored whole or not at all, the two lists stay in step, and an entry
// stored before is kept.
TEST_F(HttpConfigTest, AnAllocationThatFailsLeavesTheListWhole)
{
    Add("X-B", "kept");
    int skip = 0;
    for (; skip < 64; ++skip) {
        SCOPED_TRACE("allocation " + std::to_string(skip) + " fails");
        CQSString key("X-A");
        CQSString value("1");
        velatest::HeapWatch::FailNothrowAfter(skip);
        CHttpConfig::AddHeader(key, value);
        velatest::HeapWatch::StopFailing();
        const std::vector<std::string> lines = All();
        if (lines.size() == 2) {
            // Every allocation the call makes got through.
            EXPECT_EQ((std::vector<std::string>{"X-B: kept", "X-A: 1"}), lines);
            break;
        }
        EXPECT_EQ(std::vector<std::string>{"X-B: kept"}, lines);
    }
    EXPECT_GT(skip, 0) << "the first allocation failed and yet the header was stored";
    EXPECT_LT(skip, 64);
}

// From an empty list, so that each list must get its first block: a list
// that cannot grow drops the pair, and the two lists stay in step.
TEST_F(HttpConfigTest, AnAllocationThatFailsInAnEmptyListLeavesItEmpty)
{
    int skip = 0;
    for (; skip < 64; ++skip) {
        SCOPED_TRACE("allocation " + std::to_string(skip) + " fails");
        CQSString key("X-A");
        CQSString value("1");
        velatest::HeapWatch::FailNothrowAfter(skip);
        CHttpConfig::AddHeader(key, value);
        velatest::HeapWatch::StopFailing();
        const std::vector<std::string> lines = All();
        if (!lines.empty()) {
            EXPECT_EQ(std::vector<std::string>{"X-A: 1"}, lines);
            break;
        }
        CQSString out;
        EXPECT_FALSE(CHttpConfig::GetKeyValue(0, out));
    }
    // Two copies and a block for each list.
    EXPECT_GE(skip, 6);
    EXPECT_LT(skip, 64);
}

// The list is made on first use; when it cannot be made, nothing is stored
// and nothing is found.
TEST_F(HttpConfigTest, WithoutMemoryForTheListNothingIsStored)
{
    CQSString out;
    EXPECT_FALSE(CHttpConfig::GetKeyValue(0, out));  // makes the list
    CQInstance* registry = CQInstance::Instance();
    void* list = registry->GetByUid(CHttpConfig::KUidHttpConfig);
    ASSERT_NE(nullptr, list);
    registry->RemoveByUid(CHttpConfig::KUidHttpConfig);
    CQSString key("X-A");
    CQSString value("1");
    velatest::HeapWatch::FailNothrowAfter(0);
    CHttpConfig::AddHeader(key, value);
    const bool found = CHttpConfig::GetKeyValue(0, out);
    CHttpConfig::RemoveHeader(key);
    const void* made = registry->GetByUid(CHttpConfig::KUidHttpConfig);
    velatest::HeapWatch::StopFailing();
    // The one list of the process goes back for the tests that follow.
    ASSERT_NE(0, registry->AddWithUid(list, CHttpConfig::KUidHttpConfig));
    EXPECT_FALSE(found);
    EXPECT_TRUE(out.IsEmpty());
    EXPECT_EQ(nullptr, made);
}

TEST_F(HttpConfigTest, EmptyNameOrValueIsFatal)
{
    EXPECT_DEATH(Add("", "1"), "!key.IsEmpty\\(\\) && !value.IsEmpty\\(\\).*src/HttpConfig");
    EXPECT_DEATH(Add("X-A", ""), "!key.IsEmpty\\(\\) && !value.IsEmpty\\(\\).*src/HttpConfig");
}

}  // namespace
