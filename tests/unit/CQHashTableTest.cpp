// CQHashTable: hash code, bucket placement and chain order, ownership of the
// values (destroyed on replacement, clear and destruction), snapshots, and
// re-initialisation after clear.

#include "BaseClass/src/CQHashTable.h"

#include "support/HeapWatch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

namespace {

// ---------------------------------------------------------------------------
// Reference hash, written from the algorithm's description rather than from
// the table's code: multiplications in their shift-and-add form, and the
// arithmetic right shift spelled out as a logical shift that refills the
// vacated high bits with copies of bit 31.

std::uint32_t ShiftRightArithmetic(std::uint32_t x, int n)
{
    std::uint32_t r = x >> n;
    if (x & 0x80000000u)
        r |= ~(0xFFFFFFFFu >> n);
    return r;
}

std::uint32_t ShiftRightLogical(std::uint32_t x, int n) { return x >> n; }

int ReferenceHash(const std::string& key, std::uint32_t (*shift)(std::uint32_t, int))
{
    std::uint32_t h = 0x811C9DC5u;
    for (unsigned char b : key)
    {
        h ^= b;
        h *= 0x01000193u;
    }
    h = h + (h << 13);
    h = h ^ shift(h, 7);
    h = h + (h << 3);
    h = h ^ shift(h, 17);
    h = h + (h << 5);
    // Two's complement reading of the 32 bits.
    return h >= 0x80000000u ? static_cast<int>(static_cast<std::int64_t>(h) - 0x100000000LL)
                            : static_cast<int>(h);
}

int Reference(const std::string& key) { return ReferenceHash(key, ShiftRightArithmetic); }
int ReferenceUnsignedMixing(const std::string& key) { return ReferenceHash(key, ShiftRightLogical); }
int ReferenceBucket(const std::string& key) { return (Reference(key) & 0x7FFFFFFF) % 11; }

CQSString Key(const std::string& bytes)
{
    return CQSString(bytes.data(), static_cast<int>(bytes.size()));
}

// ---------------------------------------------------------------------------
// A value that logs its id when destroyed.

struct Tracked
{
    Tracked(int id, std::vector<int>* log) : id(id), log(log) {}
    virtual ~Tracked() { log->push_back(id); }
    int id;
    std::vector<int>* log;
};

// Logged twice (derived part first), so destruction through the base
// pointer is seen to run the derived destructor.
struct TrackedDerived : Tracked
{
    TrackedDerived(int id, std::vector<int>* log) : Tracked(id, log) {}
    ~TrackedDerived() override { log->push_back(-id); }
};

using Table = CQHashTable<Tracked>;

// Distinct keys "k0", "k1"... that fall in one bucket under the reference
// hash.
std::vector<std::string> KeysInOneBucket(int howMany)
{
    std::vector<std::vector<std::string>> byBucket(11);
    for (int i = 0;; ++i)
    {
        std::string key = "k" + std::to_string(i);
        std::vector<std::string>& keys = byBucket[ReferenceBucket(key)];
        keys.push_back(key);
        if (static_cast<int>(keys.size()) == howMany)
            return keys;
    }
}

std::vector<Tracked*> Snapshot(Table& table)
{
    Tracked** all = table.getall();
    EXPECT_NE(all, nullptr);
    if (all == nullptr)
        return {};
    return std::vector<Tracked*>(all, all + table.m_nCount);
}

// ---------------------------------------------------------------------------

TEST(CQHashTableTest, ConstructorMakesElevenEmptyBuckets)
{
    Table table;
    ASSERT_NE(table.m_pBuckets, nullptr);
    for (int i = 0; i < 11; ++i)
        EXPECT_EQ(table.m_pBuckets[i], nullptr) << "bucket " << i;
    EXPECT_EQ(table.m_nBuckets, 11);
    EXPECT_EQ(table.m_nCount, 0);
    EXPECT_EQ(table.GetCount(), 0);
    EXPECT_EQ(table.m_nGrowHint, 8);
    EXPECT_EQ(table.m_pSnapshot, nullptr);
}

TEST(CQHashTableTest, GetOnAnEmptyTableReturnsNull)
{
    Table table;
    EXPECT_EQ(table.get(CQSString("sid")), nullptr);
    EXPECT_EQ(table.get(CQSString("")), nullptr);
}

TEST(CQHashTableTest, EmptyKeyHashesToTheOffsetBasisThroughTheFinalMixing)
{
    // 0x811C9DC5 through h*=8193, h^=h>>7, h*=9, h^=h>>17, h*=33 (shifts
    // sign-propagating, everything mod 2^32), computed apart from this code:
    // (s below shifts the signed reading of x right by k):
    //   python3 -c 'M=2**32-1;s=lambda x,k:((x-(x>>31<<32))>>k)&M;h=0x811C9DC5*8193&M;
    //   h^=s(h,7);h=h*9&M;h^=s(h,17);print(hex(h*33&M))'
    // prints 0xa6f0079e.
    EXPECT_EQ(Table::GetHashCode(CQSString("")), static_cast<int>(0xA6F0079Eu));
    EXPECT_EQ(Table::GetHashCode(CQSString()), Reference(""));
}

// Hash codes of known keys. `expected` was computed with python3 from the
// algorithm's description (signed reading of the 32-bit result); each row is
// also checked against the reference above.
struct HashRow
{
    const char* name;
    std::string key;
    int expected;
};

void PrintTo(const HashRow& row, std::ostream* os) { *os << row.name; }

class CQHashTableHashTest : public ::testing::TestWithParam<HashRow>
{
};

TEST_P(CQHashTableHashTest, MatchesTheReference)
{
    const HashRow& row = GetParam();
    const int hash = Table::GetHashCode(Key(row.key));
    EXPECT_EQ(hash, row.expected);
    EXPECT_EQ(hash, Reference(row.key));
    // Identical for every instantiation.
    EXPECT_EQ(CQHashTable<int>::GetHashCode(Key(row.key)), hash);
}

const HashRow kHashRows[] = {
    {"empty", "", -1494218850},
    {"single-byte", "a", 649470159},
    {"cookie-name", "JSESSIONID", -1316467943},
    {"domain", "example.com", 1107480978},
    {"short-name", "sid", 1361626255},
    {"library-name", "velanet", 928771051},
    {"high-byte-and-nul", std::string("\xff\0x", 3), 234095509},
};

INSTANTIATE_TEST_SUITE_P(Rows, CQHashTableHashTest, ::testing::ValuesIn(kHashRows),
                         [](const ::testing::TestParamInfo<HashRow>& info) {
                             std::string name = info.param.name;
                             for (char& c : name)
                                 if (c == '-')
                                     c = '_';
                             return name;
                         });

TEST(CQHashTableTest, ArithmeticShiftsGiveOtherCodesThanUnsignedMixing)
{
    // Sign-propagating shifts differ from the usual unsigned mixing as soon
    // as bit 31 is set before a shift; for "a" both the code and the bucket
    // change (python3: unsigned mixing gives -649420593, bucket 5).
    EXPECT_EQ(ReferenceUnsignedMixing("a"), -649420593);
    EXPECT_NE(Table::GetHashCode(CQSString("a")), ReferenceUnsignedMixing("a"));
    EXPECT_EQ((Table::GetHashCode(CQSString("a")) & 0x7FFFFFFF) % 11, 8);
    EXPECT_EQ((ReferenceUnsignedMixing("a") & 0x7FFFFFFF) % 11, 5);

    int differing = 0;
    for (const HashRow& row : kHashRows)
        if (Table::GetHashCode(Key(row.key)) != ReferenceUnsignedMixing(row.key))
            ++differing;
    EXPECT_GT(differing, 0);
}

TEST(CQHashTableTest, PutThenGetFindsExactKeysOnly)
{
    std::vector<int> log;
    {
        Table table;
        Tracked* sid = new Tracked(1, &log);
        Tracked* sidNul = new Tracked(2, &log);
        table.put(CQSString("sid"), sid);
        table.put(Key(std::string("sid\0", 4)), sidNul);
        EXPECT_EQ(table.GetCount(), 2);
        EXPECT_EQ(table.get(CQSString("sid")), sid);
        EXPECT_EQ(table.get(Key(std::string("sid\0", 4))), sidNul);
        EXPECT_EQ(table.get(CQSString("SID")), nullptr);
        EXPECT_EQ(table.get(CQSString("si")), nullptr);

        // The entry records the hash and a copy of the key; the wide key
        // stays empty.
        const int bucket = ReferenceBucket("sid");
        Table::Entry* entry = table.m_pBuckets[bucket];
        while (entry != nullptr && entry->value != sid)
            entry = entry->next;
        ASSERT_NE(entry, nullptr);
        EXPECT_EQ(entry->hash, Reference("sid"));
        EXPECT_EQ(entry->key.Compare("sid"), 0);
        EXPECT_TRUE(entry->wideKey.IsEmpty());
        EXPECT_TRUE(log.empty());
    }
    EXPECT_EQ(log.size(), 2u);
}

TEST(CQHashTableTest, PutOfANullValueIsIgnored)
{
    Table table;
    table.put(CQSString("sid"), nullptr);
    EXPECT_EQ(table.GetCount(), 0);
    for (int i = 0; i < 11; ++i)
        EXPECT_EQ(table.m_pBuckets[i], nullptr);
}

TEST(CQHashTableTest, PutOfAnExistingKeyDestroysTheOldValueAndKeepsTheCount)
{
    std::vector<int> log;
    Table table;
    Tracked* oldValue = new Tracked(1, &log);
    Tracked* other = new Tracked(2, &log);
    table.put(CQSString("sid"), oldValue);
    table.put(CQSString("lang"), other);
    Table::Entry* entry = table.m_pBuckets[ReferenceBucket("sid")];
    while (entry != nullptr && entry->value != oldValue)
        entry = entry->next;
    ASSERT_NE(entry, nullptr);

    Tracked* newValue = new Tracked(3, &log);
    table.put(CQSString("sid"), newValue);
    EXPECT_EQ(log, std::vector<int>({1}));
    EXPECT_EQ(table.GetCount(), 2);
    EXPECT_EQ(table.get(CQSString("sid")), newValue);
    EXPECT_EQ(entry->value, newValue);  // same entry, new value

    // An entry without a value simply takes the new one.
    entry->value = nullptr;
    delete newValue;
    Tracked* refill = new Tracked(4, &log);
    table.put(CQSString("sid"), refill);
    EXPECT_EQ(log, std::vector<int>({1, 3}));
    EXPECT_EQ(table.get(CQSString("sid")), refill);
    EXPECT_EQ(table.GetCount(), 2);
}

TEST(CQHashTableTest, PutOfTheStoredPointerAgainKeepsIt)
{
    std::vector<int> log;
    Table table;
    Tracked* value = new Tracked(1, &log);
    table.put(CQSString("sid"), value);
    table.put(CQSString("sid"), value);
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(table.get(CQSString("sid")), value);
    EXPECT_EQ(table.GetCount(), 1);
}

TEST(CQHashTableTest, NewestEntryComesFirstWithinABucket)
{
    const std::vector<std::string> keys = KeysInOneBucket(2);
    const int bucket = ReferenceBucket(keys[0]);
    ASSERT_EQ(ReferenceBucket(keys[1]), bucket);

    std::vector<int> log;
    Table table;
    Tracked* older = new Tracked(1, &log);
    Tracked* newer = new Tracked(2, &log);
    table.put(Key(keys[0]), older);
    table.put(Key(keys[1]), newer);

    Table::Entry* head = table.m_pBuckets[bucket];
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(head->value, newer);
    EXPECT_EQ(head->key.Compare(keys[1].c_str()), 0);
    ASSERT_NE(head->next, nullptr);
    EXPECT_EQ(head->next->value, older);
    EXPECT_EQ(head->next->next, nullptr);
    EXPECT_EQ(table.get(Key(keys[0])), older);
    EXPECT_EQ(table.get(Key(keys[1])), newer);
    for (int i = 0; i < 11; ++i)
    {
        if (i != bucket)
        {
            EXPECT_EQ(table.m_pBuckets[i], nullptr) << "bucket " << i;
        }
    }
}

TEST(CQHashTableTest, GetallVisitsBucketsInOrderAndEachChainFromItsHead)
{
    std::vector<int> log;
    Table table;
    std::vector<std::vector<Tracked*>> chains(11);  // newest first
    for (int i = 0; i < 30; ++i)
    {
        const std::string key = "cookie" + std::to_string(i);
        Tracked* value = new Tracked(i, &log);
        table.put(Key(key), value);
        std::vector<Tracked*>& chain = chains[ReferenceBucket(key)];
        chain.insert(chain.begin(), value);
    }
    std::vector<Tracked*> expected;
    for (const std::vector<Tracked*>& chain : chains)
        expected.insert(expected.end(), chain.begin(), chain.end());

    ASSERT_EQ(table.GetCount(), 30);
    EXPECT_EQ(Snapshot(table), expected);
    EXPECT_EQ(table.m_pSnapshot, table.getall());  // owned by the table
}

TEST(CQHashTableTest, GetallOnAnEmptyTableReturnsAZeroLengthArray)
{
    Table fresh;
    Tracked** none = fresh.getall();
    EXPECT_NE(none, nullptr);
    EXPECT_EQ(fresh.m_pSnapshot, none);

    // A table that had a snapshot: the old array is freed (AddressSanitizer
    // reports a leak otherwise) and a new, empty one comes back.
    std::vector<int> log;
    Table table;
    Tracked* value = new Tracked(1, &log);
    table.put(CQSString("sid"), value);
    Tracked** one = table.getall();
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(one[0], value);
    table.clear();
    EXPECT_EQ(log, std::vector<int>({1}));
    Tracked** empty = table.getall();
    EXPECT_NE(empty, nullptr);
    EXPECT_EQ(table.m_pSnapshot, empty);
    EXPECT_EQ(table.m_nCount, 0);
}

TEST(CQHashTableTest, RemoveHashListDestroysTheLaterEntriesFirst)
{
    const std::vector<std::string> keys = KeysInOneBucket(3);
    const int bucket = ReferenceBucket(keys[0]);
    std::vector<int> log;
    Table table;
    for (int i = 0; i < 3; ++i)
        table.put(Key(keys[i]), new Tracked(i, &log));
    // Chain: keys[2] -> keys[1] -> keys[0].
    Table::Entry* head = table.m_pBuckets[bucket];
    ASSERT_NE(head, nullptr);
    ASSERT_EQ(static_cast<Tracked*>(head->value)->id, 2);

    table.removeHashList(head->next);
    EXPECT_EQ(log, std::vector<int>({0, 1}));
    head->next = nullptr;  // the chain was cut by hand
    table.m_nCount = 1;

    table.removeHashList(table.m_pBuckets[bucket]);
    table.m_pBuckets[bucket] = nullptr;
    table.m_nCount = 0;
    EXPECT_EQ(log, std::vector<int>({0, 1, 2}));
}

TEST(CQHashTableTest, ClearThenInitHashTableThenReuse)
{
    std::vector<int> log;
    Table table;
    table.put(CQSString("a"), new Tracked(1, &log));
    table.put(CQSString("b"), new Tracked(2, &log));
    table.put(CQSString("c"), new Tracked(3, &log));
    table.getall();
    table.m_nGrowHint = 99;

    table.clear();
    EXPECT_EQ(log.size(), 3u);
    EXPECT_EQ(table.m_pBuckets, nullptr);
    EXPECT_EQ(table.m_nBuckets, 11);
    EXPECT_EQ(table.m_nCount, 0);
    EXPECT_EQ(table.get(CQSString("a")), nullptr);

    // A cleared table ignores put; the value stays the caller's.
    Tracked ignored(9, &log);
    table.put(CQSString("a"), &ignored);
    EXPECT_EQ(table.m_nCount, 0);
    EXPECT_EQ(table.m_pBuckets, nullptr);

    table.InitHashTable();
    ASSERT_NE(table.m_pBuckets, nullptr);
    for (int i = 0; i < 11; ++i)
        EXPECT_EQ(table.m_pBuckets[i], nullptr);
    EXPECT_EQ(table.m_nBuckets, 11);
    EXPECT_EQ(table.m_nCount, 0);
    EXPECT_EQ(table.m_nGrowHint, 8);
    EXPECT_EQ(table.m_pSnapshot, nullptr);

    Tracked* again = new Tracked(4, &log);
    table.put(CQSString("a"), again);
    EXPECT_EQ(table.get(CQSString("a")), again);
    EXPECT_EQ(table.GetCount(), 1);
    EXPECT_EQ(Snapshot(table), std::vector<Tracked*>({again}));
    EXPECT_EQ(log.size(), 3u);
}

TEST(CQHashTableTest, InitHashTableOnALiveTableDestroysItsEntries)
{
    std::vector<int> log;
    Table table;
    table.put(CQSString("a"), new Tracked(1, &log));
    table.InitHashTable();
    EXPECT_EQ(log, std::vector<int>({1}));
    EXPECT_EQ(table.GetCount(), 0);
    EXPECT_EQ(table.get(CQSString("a")), nullptr);
}

TEST(CQHashTableTest, DestructorDeletesEveryValue)
{
    std::vector<int> log;
    {
        Table table;
        for (int i = 1; i <= 12; ++i)
            table.put(Key("name" + std::to_string(i)), new Tracked(i, &log));
        table.put(CQSString("derived"), new TrackedDerived(100, &log));
        table.getall();  // the snapshot is freed too
        EXPECT_TRUE(log.empty());
    }
    ASSERT_EQ(log.size(), 14u);  // 12 + derived and base part of one value
    std::vector<int> seen(log);
    std::sort(seen.begin(), seen.end());
    std::vector<int> expected = {-100};
    for (int i = 1; i <= 12; ++i)
        expected.push_back(i);
    expected.push_back(100);
    EXPECT_EQ(seen, expected);
}

TEST(CQHashTableTest, DestructorOfAClearedTableIsSafe)
{
    std::vector<int> log;
    {
        Table table;
        table.put(CQSString("a"), new Tracked(1, &log));
        table.clear();
    }
    EXPECT_EQ(log, std::vector<int>({1}));
}

TEST(CQHashTableTest, EntriesHaveOneTypeForEveryTable)
{
    static_assert(std::is_same<Table::Entry, CQHashTableEntry>::value, "one entry type");
    static_assert(std::is_same<CQHashTable<int>::Entry, CQHashTableEntry>::value, "one entry type");

    std::vector<int> log;
    Table table;
    Tracked* value = new Tracked(1, &log);
    table.put(CQSString("sid"), value);
    CQHashTableEntry* entry = table.m_pBuckets[ReferenceBucket("sid")];
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->hash, Reference("sid"));
    EXPECT_EQ(entry->key.Compare("sid"), 0);
    EXPECT_TRUE(entry->wideKey.IsEmpty());
    EXPECT_EQ(static_cast<Tracked*>(entry->value), value);
    EXPECT_EQ(entry->next, nullptr);
}

// ---------------------------------------------------------------------------
// Equal codes, and memory that runs out.

TEST(CQHashTableTest, KeysWithTheSameCodeAreToldApartByTheirBytes)
{
    // Found by searching "k0", "k1"... with the reference hash.
    const std::string first = "k9426";
    const std::string second = "k130405";
    ASSERT_EQ(Reference(first), Reference(second));
    ASSERT_EQ(Table::GetHashCode(Key(first)), Table::GetHashCode(Key(second)));

    std::vector<int> log;
    Table table;
    Tracked* a = new Tracked(1, &log);
    Tracked* b = new Tracked(2, &log);
    table.put(Key(first), a);
    EXPECT_EQ(table.get(Key(second)), nullptr);
    table.put(Key(second), b);
    EXPECT_EQ(table.GetCount(), 2);
    EXPECT_EQ(table.get(Key(first)), a);
    EXPECT_EQ(table.get(Key(second)), b);
    // Replacing one leaves the other.
    Tracked* c = new Tracked(3, &log);
    table.put(Key(first), c);
    EXPECT_EQ(log, std::vector<int>({1}));
    EXPECT_EQ(table.get(Key(first)), c);
    EXPECT_EQ(table.get(Key(second)), b);
    EXPECT_EQ(table.GetCount(), 2);
}

// Each allocation of a put fails in turn (the entry, its copy of the key):
// nothing is stored and the value stays the caller's.
TEST(CQHashTableTest, PutThatRunsOutOfMemoryStoresNothingAndLeavesTheValue)
{
    std::vector<int> log;
    Table table;
    Tracked* kept = new Tracked(1, &log);
    table.put(CQSString("kept"), kept);
    int skip = 0;
    for (; skip < 8; ++skip)
    {
        SCOPED_TRACE("allocation " + std::to_string(skip) + " fails");
        const CQSString key("new-key");
        Tracked* value = new Tracked(2, &log);
        velatest::HeapWatch::FailNothrowAfter(skip);
        table.put(key, value);
        velatest::HeapWatch::StopFailing();
        if (table.GetCount() == 2)
        {
            EXPECT_EQ(table.get(key), value);
            break;
        }
        EXPECT_EQ(table.get(key), nullptr);
        EXPECT_EQ(table.get(CQSString("kept")), kept);
        EXPECT_TRUE(log.empty());
        delete value;
        log.clear();
    }
    EXPECT_EQ(skip, 2);
}

TEST(CQHashTableTest, GetallThatRunsOutOfMemoryAnswersNull)
{
    std::vector<int> log;
    Table table;
    Tracked* value = new Tracked(1, &log);
    table.put(CQSString("a"), value);
    velatest::HeapWatch::FailNothrowAfter(0);
    Tracked** all = table.getall();
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(all, nullptr);
    EXPECT_EQ(table.GetCount(), 1);
    EXPECT_EQ(Snapshot(table), std::vector<Tracked*>({value}));
}

TEST(CQHashTableTest, TableWhoseBucketsCannotBeAllocatedIsUnusableUntilInitHashTable)
{
    std::vector<int> log;
    velatest::HeapWatch::FailNothrowAfter(0);
    Table table;
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(table.m_pBuckets, nullptr);

    Tracked ignored(1, &log);
    table.put(CQSString("a"), &ignored);
    EXPECT_EQ(table.GetCount(), 0);
    EXPECT_EQ(table.get(CQSString("a")), nullptr);
    EXPECT_TRUE(Snapshot(table).empty());

    // Still no memory: InitHashTable leaves it unusable.
    velatest::HeapWatch::FailNothrowAfter(0);
    table.InitHashTable();
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(table.m_pBuckets, nullptr);

    table.InitHashTable();
    ASSERT_NE(table.m_pBuckets, nullptr);
    Tracked* stored = new Tracked(2, &log);
    table.put(CQSString("a"), stored);
    EXPECT_EQ(table.get(CQSString("a")), stored);
    EXPECT_TRUE(log.empty());
}

}  // namespace
