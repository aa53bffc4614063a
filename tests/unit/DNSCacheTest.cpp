#include "src/DNSCache.h"

#include "BaseClass/src/CQInstance.h"
#include "support/HeapWatch.h"
#include "support/TestSupport.h"

#include <QByteArray>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>
#include <QStringList>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <ostream>
#include <random>
#include <string>
#include <vector>

void PrintTo(const DNSInfo& info, std::ostream* os)
{
    *os << "{name '" << info.name.ToQString().toStdString() << "' (" << info.name.GetLength() << "), ip 0x"
        << std::hex << info.ip << std::dec << ", time " << info.time << ", fresh " << info.fresh << "}";
}

bool operator==(const DNSInfo& a, const DNSInfo& b)
{
    return a.name == b.name && a.ip == b.ip && a.time == b.time && a.fresh == b.fresh;
}

namespace {

// "now" of the cache: the seconds of a default-constructed QDateTime. Such a
// QDateTime is invalid, and Qt documents toTime_t() of a time it cannot give
// as -1 cast to unsigned (0xFFFFFFFF).
constexpr qint64 KNow = 0xFFFFFFFFLL;
constexpr qint64 KMaxAge = 604800000000LL;
// The oldest time Load still accepts: now - time must not exceed the maximum age.
constexpr qint64 KOldestAccepted = KNow - KMaxAge;

// ---- the file layout, built here from the documented format --------------

QByteArray Le32(std::uint32_t value)
{
    QByteArray out;
    for (int i = 0; i < 4; ++i)
        out.append(static_cast<char>((value >> (8 * i)) & 0xFF));
    return out;
}

QByteArray Le64(qint64 time)
{
    const std::uint64_t value = static_cast<std::uint64_t>(time);
    QByteArray out;
    for (int i = 0; i < 8; ++i)
        out.append(static_cast<char>((value >> (8 * i)) & 0xFF));
    return out;
}

// L, the name as L 16-bit little-endian code units, ip, time.
QByteArray Entry(const QString& name, std::uint32_t ip, qint64 time)
{
    QByteArray out = Le32(static_cast<std::uint32_t>(name.size()));
    for (const QChar c : name) {
        out.append(static_cast<char>(c.unicode() & 0xFF));
        out.append(static_cast<char>(c.unicode() >> 8));
    }
    return out + Le32(ip) + Le64(time);
}

// An entry whose L field says units but whose name bytes are units 'x' code units.
QByteArray EntryWithLength(std::uint32_t units, std::uint32_t ip, qint64 time)
{
    QByteArray out = Le32(units);
    for (std::uint32_t i = 0; i < units; ++i)
        out.append("x\0", 2);
    return out + Le32(ip) + Le64(time);
}

QByteArray ReadAll(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

bool WriteAll(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

CQWString W(const QString& text)
{
    return CQWString(text);
}

DNSInfo Info(const QString& name, unsigned int ip, qint64 time, int fresh)
{
    DNSInfo info;
    info.name = W(name);
    info.ip = ip;
    info.time = time;
    info.fresh = fresh;
    return info;
}

// The cache's records, head first.
std::vector<DNSInfo> Records(const CDNSCache& cache)
{
    std::vector<DNSInfo> out;
    auto pos = cache.dnsList.GetHeadPosition();
    while (pos != NULL)
        out.push_back(*cache.dnsList.GetNext(pos));
    return out;
}

QString HostName(int i)
{
    return QStringLiteral("host%1.example").arg(i);
}

// A wide name made of the given characters, code points or not.
CQWString Wide(const std::vector<wchar_t>& chars)
{
    CQWString name;
    EXPECT_NE(0, name.SetData(chars.data(), static_cast<int>(chars.size())));
    return name;
}

// An entry whose name is the given 16-bit code units.
QByteArray EntryOfUnits(const std::vector<std::uint16_t>& units, std::uint32_t ip, qint64 time)
{
    QByteArray out = Le32(static_cast<std::uint32_t>(units.size()));
    for (const std::uint16_t unit : units) {
        out.append(static_cast<char>(unit & 0xFF));
        out.append(static_cast<char>(unit >> 8));
    }
    return out + Le32(ip) + Le64(time);
}

class DNSCacheTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_directory = m_temp.Path() + "/DNS/";
        m_path = m_directory + "dns_cache.dat";
        CDNSCache::SetCacheDirectory(m_directory);
    }

    void TearDown() override
    {
        CDNSCache::ReleaseRegistered();
        CDNSCache::SetCacheDirectory(QString::fromLatin1(CDNSCache::KDefaultDirectory));
    }

    // Puts bytes in the cache file (creating its directory).
    void PutFile(const QByteArray& bytes)
    {
        ASSERT_TRUE(QDir().mkpath(m_directory));
        ASSERT_TRUE(WriteAll(m_path, bytes));
    }

    // The records a new cache loads from bytes. The cache is cleared before
    // it goes away so that its save does not change the file.
    std::vector<DNSInfo> LoadFrom(const QByteArray& bytes)
    {
        PutFile(bytes);
        CDNSCache cache;
        std::vector<DNSInfo> records = Records(cache);
        cache.Clear();
        return records;
    }

    velatest::TempDir m_temp;
    QString m_directory;
    QString m_path;
};

// ---- "now" ---------------------------------------------------------------

TEST(DNSCacheTime, NowIsTheSecondsOfADefaultConstructedDateTime)
{
    const QDateTime unset;
    EXPECT_FALSE(unset.isValid());
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    EXPECT_EQ(static_cast<unsigned int>(KNow), unset.toTime_t());
    QT_WARNING_POP
#endif
    EXPECT_EQ(4294967295LL, KNow);
}

// ---- configuration -------------------------------------------------------

TEST(DNSCacheDirectory, DefaultDirectoryAndFileName)
{
    EXPECT_STREQ("/opt/meegovela/Browser/DNS/", CDNSCache::KDefaultDirectory);
    EXPECT_STREQ("dns_cache.dat", CDNSCache::KFileName);
    EXPECT_EQ(QStringLiteral("/opt/meegovela/Browser/DNS/"), CDNSCache::CacheDirectory());
    EXPECT_EQ(QStringLiteral("/opt/meegovela/Browser/DNS/dns_cache.dat"), CDNSCache::CacheFilePath());
}

TEST(DNSCacheDirectory, DirectoryWithOrWithoutTrailingSlash)
{
    CDNSCache::SetCacheDirectory(QStringLiteral("/tmp/some/where"));
    EXPECT_EQ(QStringLiteral("/tmp/some/where/dns_cache.dat"), CDNSCache::CacheFilePath());
    CDNSCache::SetCacheDirectory(QStringLiteral("/tmp/some/where/"));
    EXPECT_EQ(QStringLiteral("/tmp/some/where/dns_cache.dat"), CDNSCache::CacheFilePath());
    CDNSCache::SetCacheDirectory(QString());
    EXPECT_EQ(QStringLiteral("./dns_cache.dat"), CDNSCache::CacheFilePath());
    CDNSCache::SetCacheDirectory(QString::fromLatin1(CDNSCache::KDefaultDirectory));
}

// The file's bytes written out in full, so that builds against Qt 5 and
// Qt 6 are held to the same file: count 1, L 1, "a", ip 127.0.0.1, time
// 0xFFFFFFFF as a 64-bit little-endian value.
const char KOneEntryFile[] = "\x01\x00\x00\x00"
                             "\x01\x00\x00\x00"
                             "a\x00"
                             "\x01\x00\x00\x7f"
                             "\xff\xff\xff\xff\x00\x00\x00\x00";
constexpr int KOneEntryFileSize = 22;

TEST_F(DNSCacheTest, SavedTimeIsTheSameFourOnesBytesOnEveryQtVersion)
{
    {
        CDNSCache cache;
        cache.Update(W("a"), 0x7F000001u);
    }
    EXPECT_EQ(QByteArray(KOneEntryFile, KOneEntryFileSize), ReadAll(m_path)) << velatest::Visible(ReadAll(m_path));
}

TEST_F(DNSCacheTest, FileOfTheOtherQtVersionLoads)
{
    const std::vector<DNSInfo> expected = {Info("a", 0x7F000001u, 0xFFFFFFFFLL, 0)};
    EXPECT_EQ(expected, LoadFrom(QByteArray(KOneEntryFile, KOneEntryFileSize)));
}

TEST_F(DNSCacheTest, FileGoesIntoTheDirectoryGivenWithoutSlash)
{
    const QString bare = m_temp.Path() + "/bare";
    CDNSCache::SetCacheDirectory(bare);
    {
        CDNSCache cache;
        cache.Update(W("a.example"), 1);
    }
    EXPECT_EQ(Le32(1) + Entry("a.example", 1, KNow), ReadAll(bare + "/dns_cache.dat"));
}

// ---- construction --------------------------------------------------------

TEST_F(DNSCacheTest, ConstructionCreatesTheDirectoryAndStartsEmpty)
{
    const QString nested = m_temp.Path() + "/one/two/three";
    CDNSCache::SetCacheDirectory(nested);
    ASSERT_FALSE(QFileInfo::exists(nested));
    CDNSCache cache;
    EXPECT_TRUE(QFileInfo(nested).isDir());
    EXPECT_EQ(0, cache.dnsList.GetCount());
    EXPECT_EQ(KMaxAge, cache.maxAge);
    EXPECT_EQ(1, cache.dnsList.m_nBlockSize);
    cache.Clear();
}

TEST_F(DNSCacheTest, EveryNewEntryTakesOneBlockOfOneNode)
{
    CDNSCache cache;
    ASSERT_EQ(nullptr, cache.dnsList.m_pBlocks);
    cache.Update(W("a.example"), 1);
    CQPlex* first = cache.dnsList.m_pBlocks;
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(nullptr, first->pNext);
    EXPECT_EQ(nullptr, cache.dnsList.m_pNodeFree);
    cache.Update(W("b.example"), 2);
    ASSERT_NE(nullptr, cache.dnsList.m_pBlocks);
    EXPECT_EQ(first, cache.dnsList.m_pBlocks->pNext);
    cache.Clear();
    EXPECT_EQ(nullptr, cache.dnsList.m_pBlocks);
}

// ---- GetAddress, Update, Remove, Clear -----------------------------------

TEST_F(DNSCacheTest, UpdateOfNewHostGoesInFrontFreshAndTimedNow)
{
    CDNSCache cache;
    cache.Update(W("a.example"), 0x01020304u);
    cache.Update(W("b.example"), 0x05060708u);
    const std::vector<DNSInfo> expected = {Info("b.example", 0x05060708u, KNow, 1),
                                           Info("a.example", 0x01020304u, KNow, 1)};
    EXPECT_EQ(expected, Records(cache));
    EXPECT_EQ(2, cache.dnsList.GetCount());
    ASSERT_NE(nullptr, cache.dnsList.m_pNodeHead);
    EXPECT_EQ(nullptr, cache.dnsList.m_pNodeHead->pPrev);
    EXPECT_EQ(cache.dnsList.m_pNodeTail, cache.dnsList.m_pNodeHead->pNext);
    EXPECT_EQ(cache.dnsList.m_pNodeHead, cache.dnsList.m_pNodeTail->pPrev);
    cache.Clear();
}

TEST_F(DNSCacheTest, GetAddressFindsFreshEntryEitherWay)
{
    CDNSCache cache;
    cache.Update(W("a.example"), 0x7F000001u);
    unsigned int ip = 0;
    EXPECT_TRUE(cache.GetAddress(W("a.example"), true, ip));
    EXPECT_EQ(0x7F000001u, ip);
    ip = 0;
    EXPECT_TRUE(cache.GetAddress(W("a.example"), false, ip));
    EXPECT_EQ(0x7F000001u, ip);
    cache.Clear();
}

TEST_F(DNSCacheTest, GetAddressMissLeavesIpUntouched)
{
    CDNSCache cache;
    cache.Update(W("a.example"), 1);
    unsigned int ip = 0xDEADBEEFu;
    EXPECT_FALSE(cache.GetAddress(W("b.example"), false, ip));
    EXPECT_EQ(0xDEADBEEFu, ip);
    EXPECT_FALSE(cache.GetAddress(W("b.example"), true, ip));
    EXPECT_EQ(0xDEADBEEFu, ip);
    cache.Clear();
}

TEST_F(DNSCacheTest, NamesCompareExactlyAndCaseSensitively)
{
    CDNSCache cache;
    cache.Update(W("a.example"), 1);
    unsigned int ip = 0;
    EXPECT_FALSE(cache.GetAddress(W("A.example"), false, ip));
    EXPECT_FALSE(cache.GetAddress(W("a.example."), false, ip));
    EXPECT_FALSE(cache.GetAddress(W("a.exampl"), false, ip));
    EXPECT_EQ(0u, ip);
    cache.Update(W("A.example"), 2);
    EXPECT_EQ(2, cache.dnsList.GetCount());
    cache.Clear();
}

TEST_F(DNSCacheTest, FreshOnlySkipsStaleMatchAndWalksOn)
{
    // Two entries of the same name in the file; the second is made fresh.
    PutFile(Le32(2) + Entry("h.example", 0x0A000001u, 1000) + Entry("h.example", 0x0A000002u, 2000));
    CDNSCache cache;
    ASSERT_EQ(2, cache.dnsList.GetCount());
    cache.dnsList.GetTail()->fresh = 1;
    unsigned int ip = 0;
    EXPECT_TRUE(cache.GetAddress(W("h.example"), true, ip));
    EXPECT_EQ(0x0A000002u, ip);
    EXPECT_TRUE(cache.GetAddress(W("h.example"), false, ip));
    EXPECT_EQ(0x0A000001u, ip);
    cache.Clear();
}

TEST_F(DNSCacheTest, AfterARunTheHostIsFoundOnlyWithFreshOnlyFalse)
{
    {
        CDNSCache firstRun;
        firstRun.Update(W("resolved.example"), 0xC0A80001u);
    }
    CDNSCache nextRun;
    unsigned int ip = 0x11111111u;
    EXPECT_FALSE(nextRun.GetAddress(W("resolved.example"), true, ip));
    EXPECT_EQ(0x11111111u, ip);
    EXPECT_TRUE(nextRun.GetAddress(W("resolved.example"), false, ip));
    EXPECT_EQ(0xC0A80001u, ip);
    // An Update in this run makes it fresh again.
    nextRun.Update(W("resolved.example"), 0xC0A80002u);
    EXPECT_TRUE(nextRun.GetAddress(W("resolved.example"), true, ip));
    EXPECT_EQ(0xC0A80002u, ip);
    nextRun.Clear();
}

TEST_F(DNSCacheTest, UpdateOfExistingHostKeepsItsPlaceAndTime)
{
    PutFile(Le32(3) + Entry("a.example", 1, 1000) + Entry("b.example", 2, 2000) + Entry("c.example", 3, 3000));
    CDNSCache cache;
    cache.Update(W("b.example"), 22);
    const std::vector<DNSInfo> expected = {Info("a.example", 1, 1000, 0), Info("b.example", 22, 2000, 1),
                                           Info("c.example", 3, 3000, 0)};
    EXPECT_EQ(expected, Records(cache));
    cache.Clear();
}

TEST_F(DNSCacheTest, UpdateOfHostAddedInThisRunKeepsItsPlace)
{
    CDNSCache cache;
    cache.Update(W("a.example"), 1);
    cache.Update(W("b.example"), 2);
    cache.Update(W("a.example"), 3);
    const std::vector<DNSInfo> expected = {Info("b.example", 2, KNow, 1), Info("a.example", 3, KNow, 1)};
    EXPECT_EQ(expected, Records(cache));
    cache.Clear();
}

// Each allocation of an Update fails in turn (the entry, its copy of the
// name, the block of its list node): the list is left as it was, and the
// first Update that gets all three stores the host.
TEST_F(DNSCacheTest, UpdateThatRunsOutOfMemoryLeavesTheListAsItWas)
{
    CDNSCache cache;
    cache.Update(W("kept.example"), 1);
    const std::vector<DNSInfo> before = {Info("kept.example", 1, KNow, 1)};
    int skip = 0;
    for (; skip < 16; ++skip) {
        SCOPED_TRACE("allocation " + std::to_string(skip) + " fails");
        const CQWString host = W("new.example");
        velatest::HeapWatch::FailNothrowAfter(skip);
        cache.Update(host, 2);
        velatest::HeapWatch::StopFailing();
        if (cache.dnsList.GetCount() == 2)
            break;
        EXPECT_EQ(before, Records(cache));
        EXPECT_EQ(cache.dnsList.m_pNodeHead, cache.dnsList.m_pNodeTail);
        unsigned int ip = 0;
        EXPECT_FALSE(cache.GetAddress(W("new.example"), false, ip));
    }
    EXPECT_EQ(3, skip);
    const std::vector<DNSInfo> after = {Info("new.example", 2, KNow, 1), Info("kept.example", 1, KNow, 1)};
    EXPECT_EQ(after, Records(cache));
    cache.Clear();
}

TEST_F(DNSCacheTest, UpdateOfAnExistingHostNeedsNoMemory)
{
    CDNSCache cache;
    cache.Update(W("a.example"), 1);
    const CQWString host = W("a.example");
    velatest::HeapWatch::FailNothrowAfter(0);
    cache.Update(host, 2);
    velatest::HeapWatch::StopFailing();
    const std::vector<DNSInfo> expected = {Info("a.example", 2, KNow, 1)};
    EXPECT_EQ(expected, Records(cache));
    cache.Clear();
}

TEST_F(DNSCacheTest, RemoveUnlinksFirstMatchAnywhereInTheList)
{
    CDNSCache cache;
    for (int i = 0; i < 5; ++i)
        cache.Update(W(HostName(i)), static_cast<unsigned int>(i));
    // List: 4 3 2 1 0. Remove the middle, the head and the tail.
    cache.Remove(W(HostName(2)));
    cache.Remove(W(HostName(4)));
    cache.Remove(W(HostName(0)));
    const std::vector<DNSInfo> expected = {Info(HostName(3), 3, KNow, 1), Info(HostName(1), 1, KNow, 1)};
    EXPECT_EQ(expected, Records(cache));
    EXPECT_EQ(HostName(3), cache.dnsList.GetHead()->name.ToQString());
    EXPECT_EQ(HostName(1), cache.dnsList.GetTail()->name.ToQString());
    unsigned int ip = 99;
    EXPECT_FALSE(cache.GetAddress(W(HostName(2)), false, ip));
    EXPECT_EQ(99u, ip);
    cache.Clear();
}

TEST_F(DNSCacheTest, RemoveTakesOnlyTheFirstOfTwoEqualNames)
{
    PutFile(Le32(2) + Entry("h.example", 1, 1000) + Entry("h.example", 2, 2000));
    CDNSCache cache;
    cache.Remove(W("h.example"));
    const std::vector<DNSInfo> expected = {Info("h.example", 2, 2000, 0)};
    EXPECT_EQ(expected, Records(cache));
    cache.Clear();
}

TEST_F(DNSCacheTest, RemoveOfUnknownHostChangesNothing)
{
    CDNSCache cache;
    cache.Remove(W("a.example"));
    EXPECT_EQ(0, cache.dnsList.GetCount());
    cache.Update(W("a.example"), 1);
    cache.Remove(W("b.example"));
    EXPECT_EQ(1, cache.dnsList.GetCount());
    cache.Remove(W("a.example"));
    EXPECT_EQ(0, cache.dnsList.GetCount());
    EXPECT_EQ(nullptr, cache.dnsList.m_pBlocks);
}

TEST_F(DNSCacheTest, ClearEmptiesAndTheCacheStaysUsable)
{
    CDNSCache cache;
    for (int i = 0; i < 10; ++i)
        cache.Update(W(HostName(i)), static_cast<unsigned int>(i));
    cache.Clear();
    EXPECT_EQ(0, cache.dnsList.GetCount());
    EXPECT_EQ(nullptr, cache.dnsList.m_pNodeHead);
    cache.Clear();
    cache.Update(W("a.example"), 7);
    unsigned int ip = 0;
    EXPECT_TRUE(cache.GetAddress(W("a.example"), true, ip));
    EXPECT_EQ(7u, ip);
}

// ---- the file written ----------------------------------------------------

TEST_F(DNSCacheTest, DestructorWritesTheFileByteForByte)
{
    {
        CDNSCache cache;
        cache.Update(W("a.example"), 0x01020304u);
        cache.Update(W("www.example.com"), 0xC0A80101u);
        cache.Update(W(""), 0xFFFFFFFFu);
    }
    const QByteArray expected = Le32(3) + Entry("", 0xFFFFFFFFu, KNow) + Entry("www.example.com", 0xC0A80101u, KNow) +
                                Entry("a.example", 0x01020304u, KNow);
    const QByteArray actual = ReadAll(m_path);
    EXPECT_EQ(expected, actual) << velatest::Visible(actual);
    // 16 + 2 L bytes per entry after the 4-byte count.
    EXPECT_EQ(4 + (16 + 0) + (16 + 2 * 15) + (16 + 2 * 9), actual.size());
}

TEST_F(DNSCacheTest, NamesAreWrittenAsLittleEndian16BitUnits)
{
    const QString accented = QString::fromUtf8("b\xc3\xbc" "cher.example");  // U+00FC
    const QString cjk = QString::fromUtf8("\xe4\xbe\x8b.example");             // U+4F8B
    {
        CDNSCache cache;
        cache.Update(W(accented), 1);
        cache.Update(W(cjk), 2);
    }
    QByteArray expected = Le32(2);
    expected += Le32(9);
    expected += QByteArray("\x8b\x4f" ".\0e\0x\0a\0m\0p\0l\0e\0", 18);
    expected += Le32(2) + Le64(KNow);
    expected += Entry(accented, 1, KNow);
    EXPECT_EQ(expected, ReadAll(m_path)) << velatest::Visible(ReadAll(m_path));
}

TEST_F(DNSCacheTest, CharacterBeyondSixteenBitsTakesASurrogatePair)
{
    const QString name = QString::fromUtf8("\xf0\x9f\x98\x80.example");  // U+1F600
    ASSERT_EQ(10, name.size());                                          // UTF-16 units
    {
        CDNSCache cache;
        cache.Update(W(name), 5);
        ASSERT_EQ(9, cache.dnsList.GetHead()->name.GetLength());         // characters
    }
    QByteArray expected = Le32(1) + Le32(10) + QByteArray("\x3d\xd8\x00\xde", 4) +
                          QByteArray(".\0e\0x\0a\0m\0p\0l\0e\0", 16) + Le32(5) + Le64(KNow);
    EXPECT_EQ(expected, ReadAll(m_path));

    CDNSCache reloaded;
    const std::vector<DNSInfo> records = {Info(name, 5, KNow, 0)};
    EXPECT_EQ(records, Records(reloaded));
    reloaded.Clear();
}

TEST_F(DNSCacheTest, WideCharacterThatIsNoCodePointIsWrittenAsReplacementCharacter)
{
    // U+FFFF and U+10FFFF are the last one-unit and the last two-unit code
    // points; 0x110000 and every larger value are none.
    const CQWString name = Wide({L'a', static_cast<wchar_t>(0xFFFF), static_cast<wchar_t>(0x10FFFF),
                                 static_cast<wchar_t>(0x110000), static_cast<wchar_t>(0x7FFFFFFF),
                                 static_cast<wchar_t>(-1), L'b'});
    {
        CDNSCache cache;
        cache.Update(name, 9);
    }
    const QByteArray expected =
        Le32(1) + EntryOfUnits({'a', 0xFFFF, 0xDBFF, 0xDFFF, 0xFFFD, 0xFFFD, 0xFFFD, 'b'}, 9, KNow);
    EXPECT_EQ(expected, ReadAll(m_path)) << velatest::Visible(ReadAll(m_path));
}

TEST_F(DNSCacheTest, SurrogatePairThatEndsAt128UnitsIsWrittenAndOnePastIsNot)
{
    const QString pair = QString(QChar(0xD800)) + QChar(0xDC00);  // U+10000
    ASSERT_EQ(2, pair.size());
    const QString fits = QString(126, QLatin1Char('a')) + pair;       // 128 units
    const QString tooLong = QString(127, QLatin1Char('b')) + pair;    // 129 units
    {
        CDNSCache cache;
        cache.Update(W(fits), 1);
        cache.Update(W(tooLong), 2);
        ASSERT_EQ(128, cache.dnsList.GetHead()->name.GetLength());  // characters
    }
    // The count stays 2; the name of 129 units is left out.
    EXPECT_EQ(Le32(2) + Entry(fits, 1, KNow), ReadAll(m_path));
}

TEST_F(DNSCacheTest, EmptyCacheWritesCountZero)
{
    {
        CDNSCache cache;
    }
    EXPECT_EQ(Le32(0), ReadAll(m_path));
}

TEST_F(DNSCacheTest, SaveOfThreeHundredEntriesWritesTheNewest256)
{
    {
        CDNSCache cache;
        for (int i = 0; i < 300; ++i)
            cache.Update(W(HostName(i)), 0x0A000000u + static_cast<unsigned int>(i));
        EXPECT_EQ(300, cache.dnsList.GetCount());
    }
    QByteArray expected = Le32(256);
    for (int i = 299; i >= 300 - 256; --i)
        expected += Entry(HostName(i), 0x0A000000u + static_cast<unsigned int>(i), KNow);
    EXPECT_EQ(expected, ReadAll(m_path));
}

TEST_F(DNSCacheTest, SaveOf256EntriesWritesThemAll)
{
    {
        CDNSCache cache;
        for (int i = 0; i < 256; ++i)
            cache.Update(W(HostName(i)), static_cast<unsigned int>(i));
    }
    QByteArray expected = Le32(256);
    for (int i = 255; i >= 0; --i)
        expected += Entry(HostName(i), static_cast<unsigned int>(i), KNow);
    EXPECT_EQ(expected, ReadAll(m_path));
}

TEST_F(DNSCacheTest, NameOf129CharactersIsNeverWrittenAndTheCountStays)
{
    const QString name128(128, QLatin1Char('a'));
    const QString name129(129, QLatin1Char('b'));
    {
        CDNSCache cache;
        cache.Update(W("last.example"), 3);
        cache.Update(W(name129), 2);
        cache.Update(W(name128), 1);
    }
    // Count 3, but only the 128-character name and "last.example" follow.
    const QByteArray expected = Le32(3) + Entry(name128, 1, KNow) + Entry("last.example", 3, KNow);
    EXPECT_EQ(expected, ReadAll(m_path));

    // Reading that file stops at the end of the data.
    CDNSCache reloaded;
    const std::vector<DNSInfo> records = {Info(name128, 1, KNow, 0), Info("last.example", 3, KNow, 0)};
    EXPECT_EQ(records, Records(reloaded));
    reloaded.Clear();
}

TEST_F(DNSCacheTest, SkippedLongNameLetsTheNextEntryFillTheCount)
{
    const QString longName(200, QLatin1Char('z'));
    {
        CDNSCache cache;
        for (int i = 0; i < 256; ++i)
            cache.Update(W(HostName(i)), static_cast<unsigned int>(i));
        cache.Update(W(longName), 999);  // newest, 257 entries
    }
    QByteArray expected = Le32(256);
    for (int i = 255; i >= 0; --i)
        expected += Entry(HostName(i), static_cast<unsigned int>(i), KNow);
    EXPECT_EQ(expected, ReadAll(m_path));
}

TEST_F(DNSCacheTest, SaveRecreatesAMissingDirectory)
{
    CDNSCache cache;
    cache.Update(W("a.example"), 1);
    ASSERT_TRUE(QDir(m_directory).removeRecursively());
    cache.Save();
    EXPECT_EQ(Le32(1) + Entry("a.example", 1, KNow), ReadAll(m_path));
    cache.Clear();
}

TEST_F(DNSCacheTest, SaveThatCannotOpenTheFileWritesNothing)
{
    // A directory in the file's place cannot be opened for writing.
    ASSERT_TRUE(QDir().mkpath(m_path));
    {
        CDNSCache cache;
        cache.Update(W("a.example"), 1);
    }
    EXPECT_TRUE(QFileInfo(m_path).isDir());
    EXPECT_TRUE(QDir(m_path).isEmpty());
    EXPECT_EQ(QStringList{QStringLiteral("dns_cache.dat")},
              QDir(m_directory).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden));
    QDir().rmdir(m_path);
}

TEST_F(DNSCacheTest, ShortWriteDeletesTheFile)
{
    if (!QFileInfo::exists(QStringLiteral("/dev/full")))
        GTEST_SKIP() << "no /dev/full to make writes fail";
    ASSERT_TRUE(QDir().mkpath(m_directory));
    // The file name points at a device on which every write fails.
    ASSERT_EQ(0, ::symlink("/dev/full", QFile::encodeName(m_path).constData()));
    {
        CDNSCache cache;  // reads nothing from /dev/full
        EXPECT_EQ(0, cache.dnsList.GetCount());
        cache.Update(W("a.example"), 1);
    }
    struct stat info;
    EXPECT_NE(0, ::lstat(QFile::encodeName(m_path).constData(), &info)) << "the file was not deleted";
}

TEST_F(DNSCacheTest, ShortWriteOfMoreThanTheWriteCacheDeletesTheFile)
{
    if (!QFileInfo::exists(QStringLiteral("/dev/full")))
        GTEST_SKIP() << "no /dev/full to make writes fail";
    ASSERT_TRUE(QDir().mkpath(m_directory));
    ASSERT_EQ(0, ::symlink("/dev/full", QFile::encodeName(m_path).constData()));
    {
        CDNSCache cache;
        // 256 entries of 16 + 2 * 128 bytes: more than the 40960-byte cache,
        // so a write fails before the file is closed.
        for (int i = 0; i < 256; ++i)
            cache.Update(W(QString(120, QLatin1Char('a')) + QString::number(i).rightJustified(8, QLatin1Char('0'))),
                         static_cast<unsigned int>(i));
        ASSERT_EQ(128, cache.dnsList.GetHead()->name.GetLength());
    }
    struct stat info;
    EXPECT_NE(0, ::lstat(QFile::encodeName(m_path).constData(), &info)) << "the file was not deleted";
}

// ---- the file read -------------------------------------------------------

TEST_F(DNSCacheTest, RoundTripKeepsOrderIpsAndTimes)
{
    const std::vector<DNSInfo> written = {
        Info("n.example", 0x0A0B0C0Du, KNow, 1), Info("m.example", 0u, KNow, 1), Info("", 0xFFFFFFFFu, KNow, 1)};
    {
        CDNSCache cache;
        for (auto it = written.rbegin(); it != written.rend(); ++it)
            cache.Update(it->name, it->ip);
        EXPECT_EQ(written, Records(cache));
    }
    CDNSCache reloaded;
    std::vector<DNSInfo> expected = written;
    for (DNSInfo& info : expected)
        info.fresh = 0;
    EXPECT_EQ(expected, Records(reloaded));
    // Saving again writes the same bytes.
    const QByteArray first = ReadAll(m_path);
    reloaded.Save();
    EXPECT_EQ(first, ReadAll(m_path));
    reloaded.Clear();
}

TEST_F(DNSCacheTest, LoadKeepsFileOrderAndTimes)
{
    const std::vector<DNSInfo> expected = {Info("a.example", 1, 0, 0), Info("b.example", 2, -5, 0),
                                           Info("c.example", 3, std::numeric_limits<qint64>::max(), 0)};
    EXPECT_EQ(expected, LoadFrom(Le32(3) + Entry("a.example", 1, 0) + Entry("b.example", 2, -5) +
                                 Entry("c.example", 3, std::numeric_limits<qint64>::max())));
}

TEST_F(DNSCacheTest, MissingFileGivesEmptyCache)
{
    CDNSCache cache;
    EXPECT_EQ(0, cache.dnsList.GetCount());
    cache.Clear();
}

TEST_F(DNSCacheTest, FileWithCount257LoadsNothing)
{
    QByteArray bytes = Le32(257);
    for (int i = 0; i < 257; ++i)
        bytes += Entry(HostName(i), static_cast<unsigned int>(i), 1000);
    EXPECT_TRUE(LoadFrom(bytes).empty());
}

TEST_F(DNSCacheTest, FileWithCount256LoadsAll)
{
    QByteArray bytes = Le32(256);
    std::vector<DNSInfo> expected;
    for (int i = 0; i < 256; ++i) {
        bytes += Entry(HostName(i), static_cast<unsigned int>(i), 1000);
        expected.push_back(Info(HostName(i), static_cast<unsigned int>(i), 1000, 0));
    }
    EXPECT_EQ(expected, LoadFrom(bytes));
}

TEST_F(DNSCacheTest, HugeCountLoadsNothing)
{
    EXPECT_TRUE(LoadFrom(Le32(0xFFFFFFFFu) + Entry("a.example", 1, 0)).empty());
    EXPECT_TRUE(LoadFrom(Le32(0x80000000u) + Entry("a.example", 1, 0)).empty());
}

TEST_F(DNSCacheTest, NameLength129StopsReadingAndLength128Loads)
{
    const std::vector<DNSInfo> first = {Info("a.example", 1, 0, 0)};
    EXPECT_EQ(first, LoadFrom(Le32(3) + Entry("a.example", 1, 0) + EntryWithLength(129, 2, 0) +
                              Entry("c.example", 3, 0)));

    const std::vector<DNSInfo> all = {Info("a.example", 1, 0, 0), Info(QString(128, QLatin1Char('x')), 2, 0, 0),
                                      Info("c.example", 3, 0, 0)};
    EXPECT_EQ(all, LoadFrom(Le32(3) + Entry("a.example", 1, 0) + EntryWithLength(128, 2, 0) +
                            Entry("c.example", 3, 0)));
}

TEST_F(DNSCacheTest, HugeNameLengthStopsReading)
{
    const std::vector<DNSInfo> first = {Info("a.example", 1, 0, 0)};
    EXPECT_EQ(first, LoadFrom(Le32(2) + Entry("a.example", 1, 0) + Le32(0xFFFFFFFFu) + QByteArray(64, 'q')));
    EXPECT_EQ(first, LoadFrom(Le32(2) + Entry("a.example", 1, 0) + Le32(0x80000000u) + QByteArray(64, 'q')));
}

TEST_F(DNSCacheTest, CountAboveTheEntriesPresentStopsAtTheEndOfTheData)
{
    const std::vector<DNSInfo> expected = {Info("a.example", 1, 0, 0), Info("b.example", 2, 0, 0)};
    EXPECT_EQ(expected, LoadFrom(Le32(5) + Entry("a.example", 1, 0) + Entry("b.example", 2, 0)));
}

TEST_F(DNSCacheTest, CountBelowTheEntriesPresentReadsOnlyCount)
{
    const std::vector<DNSInfo> expected = {Info("a.example", 1, 0, 0)};
    EXPECT_EQ(expected, LoadFrom(Le32(1) + Entry("a.example", 1, 0) + Entry("b.example", 2, 0)));
}

TEST_F(DNSCacheTest, ShortFilesLoadNothing)
{
    EXPECT_TRUE(LoadFrom(QByteArray()).empty());
    EXPECT_TRUE(LoadFrom(QByteArray("\x01", 1)).empty());
    EXPECT_TRUE(LoadFrom(QByteArray("\x01\x00", 2)).empty());
    EXPECT_TRUE(LoadFrom(QByteArray("\x01\x00\x00", 3)).empty());
    EXPECT_TRUE(LoadFrom(Le32(1)).empty());
    EXPECT_TRUE(LoadFrom(Le32(0)).empty());
}

TEST_F(DNSCacheTest, FileCutAtEveryByteLoadsTheWholeEntriesBeforeTheCut)
{
    const QByteArray a = Entry("a.example", 1, 100);
    const QByteArray b = Entry("bb.example", 2, 200);
    const QByteArray whole = Le32(2) + a + b;
    for (int cut = 0; cut <= whole.size(); ++cut) {
        SCOPED_TRACE(cut);
        std::vector<DNSInfo> expected;
        if (cut >= 4 + a.size())
            expected.push_back(Info("a.example", 1, 100, 0));
        if (cut >= 4 + a.size() + b.size())
            expected.push_back(Info("bb.example", 2, 200, 0));
        EXPECT_EQ(expected, LoadFrom(whole.left(cut)));
    }
}

TEST_F(DNSCacheTest, AgeAtTheLimitLoadsAndOneSecondOlderStopsReading)
{
    const std::vector<DNSInfo> atLimit = {Info("a.example", 1, KOldestAccepted, 0), Info("b.example", 2, 0, 0)};
    EXPECT_EQ(atLimit, LoadFrom(Le32(2) + Entry("a.example", 1, KOldestAccepted) + Entry("b.example", 2, 0)));

    // An entry too old ends the reading: the young one after it is not read.
    const std::vector<DNSInfo> stopped = {Info("a.example", 1, 0, 0)};
    EXPECT_EQ(stopped, LoadFrom(Le32(3) + Entry("a.example", 1, 0) + Entry("old.example", 2, KOldestAccepted - 1) +
                                Entry("c.example", 3, 0)));
}

TEST_F(DNSCacheTest, MostNegativeTimeIsTooOld)
{
    const std::vector<DNSInfo> expected = {Info("a.example", 1, 0, 0)};
    EXPECT_EQ(expected, LoadFrom(Le32(2) + Entry("a.example", 1, 0) +
                                 Entry("b.example", 2, std::numeric_limits<qint64>::min())));
}

TEST_F(DNSCacheTest, EntriesWrittenByTheCacheAreNeverTooOld)
{
    {
        CDNSCache cache;
        cache.Update(W("a.example"), 1);
        cache.Update(W("b.example"), 2);
    }
    CDNSCache reloaded;
    EXPECT_EQ(2, reloaded.dnsList.GetCount());
    reloaded.Clear();
}

TEST_F(DNSCacheTest, LowSurrogateAloneAndHighSurrogateAtTheEndStandForThemselves)
{
    // Units: 'a', U+DC00 (alone), 'b', U+D800 (last unit).
    const QByteArray entry = Le32(4) + QByteArray("a\0\x00\xdc" "b\0\x00\xd8", 8) + Le32(1) + Le64(0);
    const std::vector<DNSInfo> records = LoadFrom(Le32(1) + entry);
    ASSERT_EQ(1u, records.size());
    const CQWString& name = records[0].name;
    ASSERT_EQ(4, name.GetLength());
    EXPECT_EQ(static_cast<wchar_t>('a'), name.GetDataPtr()[0]);
    EXPECT_EQ(static_cast<wchar_t>(0xDC00), name.GetDataPtr()[1]);
    EXPECT_EQ(static_cast<wchar_t>('b'), name.GetDataPtr()[2]);
    EXPECT_EQ(static_cast<wchar_t>(0xD800), name.GetDataPtr()[3]);
}

TEST_F(DNSCacheTest, HighSurrogateBeforeAUnitThatIsNoLowSurrogateStandsForItself)
{
    // D800 'b'; DBFF E000 (just past the low surrogates); DBFF DFFF, the last pair.
    const QByteArray bytes = Le32(3) + EntryOfUnits({0xD800, 'b'}, 1, 0) + EntryOfUnits({0xDBFF, 0xE000}, 2, 0) +
                             EntryOfUnits({0xDBFF, 0xDFFF}, 3, 0);
    const std::vector<DNSInfo> records = LoadFrom(bytes);
    ASSERT_EQ(3u, records.size());
    EXPECT_EQ(Wide({static_cast<wchar_t>(0xD800), L'b'}), records[0].name);
    EXPECT_EQ(Wide({static_cast<wchar_t>(0xDBFF), static_cast<wchar_t>(0xE000)}), records[1].name);
    EXPECT_EQ(Wide({static_cast<wchar_t>(0x10FFFF)}), records[2].name);
}

TEST_F(DNSCacheTest, FileLongerThanAnIntCanCountLoadsNothing)
{
    // A sparse file of 2 GiB: its first bytes are a valid file, but its
    // length does not fit in an int.
    PutFile(Le32(1) + Entry("a.example", 1, 0));
    if (!QFile::resize(m_path, Q_INT64_C(0x80000000)))
        GTEST_SKIP() << "no sparse file of 2 GiB here";
    {
        CDNSCache cache;
        EXPECT_EQ(0, cache.dnsList.GetCount());
        cache.Clear();
    }
    QFile::remove(m_path);
}

// Each allocation of a load fails in turn (the cache path, the file's
// bytes, every entry, its name and its list node): what was read before the
// failure stays, in file order, and nothing after it is read.
TEST_F(DNSCacheTest, LoadThatRunsOutOfMemoryKeepsTheEntriesReadBefore)
{
    const QByteArray bytes = Le32(3) + Entry("a.example", 1, 0) + Entry("b.example", 2, 0) + Entry("c.example", 3, 0);
    const std::vector<DNSInfo> all = {Info("a.example", 1, 0, 0), Info("b.example", 2, 0, 0),
                                      Info("c.example", 3, 0, 0)};
    std::vector<bool> seen(all.size() + 1, false);
    std::size_t last = 0;
    int skip = 0;
    for (; skip < 64; ++skip) {
        SCOPED_TRACE("allocation " + std::to_string(skip) + " fails");
        PutFile(bytes);
        std::vector<DNSInfo> records;
        {
            velatest::HeapWatch::FailNothrowAfter(skip);
            CDNSCache cache;
            velatest::HeapWatch::StopFailing();
            records = Records(cache);
            cache.Clear();
        }
        ASSERT_LE(records.size(), all.size());
        EXPECT_EQ(std::vector<DNSInfo>(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(records.size())),
                  records);
        EXPECT_GE(records.size(), last);
        last = records.size();
        seen[records.size()] = true;
        if (records.size() == all.size())
            break;
    }
    EXPECT_LT(skip, 64);
    EXPECT_EQ(std::vector<bool>(all.size() + 1, true), seen);
}

TEST_F(DNSCacheTest, LargeFileIsReadWhole)
{
    // Trailing bytes after the counted entries are read and ignored.
    const std::vector<DNSInfo> expected = {Info("a.example", 1, 0, 0)};
    EXPECT_EQ(expected, LoadFrom(Le32(1) + Entry("a.example", 1, 0) + QByteArray(1 << 20, '\xAB')));
}

TEST_F(DNSCacheTest, RandomFilesNeverCrash)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 rng(seed);
    for (int round = 0; round < 400; ++round) {
        QByteArray bytes;
        if (round % 2 == 0) {
            // Plain noise.
            const int len = static_cast<int>(rng() % 700);
            for (int i = 0; i < len; ++i)
                bytes.append(static_cast<char>(rng() & 0xFF));
        } else {
            // Plausible structure with lying counts and lengths.
            const std::uint32_t count = rng() % 300;
            bytes = Le32(count);
            const int entries = static_cast<int>(rng() % 8);
            for (int e = 0; e < entries; ++e) {
                const std::uint32_t units = (rng() % 4 == 0) ? rng() : rng() % 140;
                bytes += Le32(units);
                const int nameBytes = static_cast<int>(rng() % 300);
                for (int i = 0; i < nameBytes; ++i)
                    bytes.append(static_cast<char>(rng() & 0xFF));
                bytes += Le32(rng()) + Le64(static_cast<qint64>((static_cast<std::uint64_t>(rng()) << 32) | rng()));
            }
            bytes.truncate(static_cast<int>(rng() % (bytes.size() + 1)));
        }
        const std::vector<DNSInfo> records = LoadFrom(bytes);
        EXPECT_LE(records.size(), 256u);
        // Every record read came from complete bytes: at least 16 bytes each.
        if (!records.empty()) {
            EXPECT_LE(4 + 16 * records.size(), static_cast<size_t>(bytes.size()));
        }
        for (const DNSInfo& info : records) {
            EXPECT_EQ(0, info.fresh);
            EXPECT_LE(info.name.GetLength(), 128);
        }
    }
}

// ---- the registered cache ------------------------------------------------

TEST_F(DNSCacheTest, GetOrCreateRegisteredCreatesOnceUnderUid8)
{
    EXPECT_EQ(8, CDNSCache::KUidDNSCache);
    ASSERT_EQ(nullptr, CQInstance::Instance()->GetByUid(CDNSCache::KUidDNSCache));
    CDNSCache* cache = CDNSCache::GetOrCreateRegistered();
    ASSERT_NE(nullptr, cache);
    EXPECT_EQ(cache, CQInstance::Instance()->GetByUid(8));
    EXPECT_EQ(cache, CDNSCache::GetOrCreateRegistered());
}

TEST_F(DNSCacheTest, GetOrCreateRegisteredLoadsTheFile)
{
    PutFile(Le32(1) + Entry("a.example", 0x01010101u, 0));
    CDNSCache* cache = CDNSCache::GetOrCreateRegistered();
    ASSERT_NE(nullptr, cache);
    unsigned int ip = 0;
    EXPECT_TRUE(cache->GetAddress(W("a.example"), false, ip));
    EXPECT_EQ(0x01010101u, ip);
}

TEST_F(DNSCacheTest, GetOrCreateRegisteredUsesACacheRegisteredByOthers)
{
    CDNSCache* own = new CDNSCache;
    ASSERT_NE(0, CQInstance::Instance()->AddWithUid(own, CDNSCache::KUidDNSCache));
    EXPECT_EQ(own, CDNSCache::GetOrCreateRegistered());
    CDNSCache::ReleaseRegistered();
    EXPECT_EQ(nullptr, CQInstance::Instance()->GetByUid(CDNSCache::KUidDNSCache));
}

TEST_F(DNSCacheTest, GetOrCreateRegisteredAnswersNullWhenMemoryRunsOut)
{
    velatest::HeapWatch::FailNothrowAfter(0);
    CDNSCache* cache = CDNSCache::GetOrCreateRegistered();
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(nullptr, cache);
    EXPECT_EQ(nullptr, CQInstance::Instance()->GetByUid(CDNSCache::KUidDNSCache));
    // With memory back, the next call creates it.
    EXPECT_NE(nullptr, CDNSCache::GetOrCreateRegistered());
}

TEST_F(DNSCacheTest, ReleaseRegisteredSavesUnregistersAndIsSafeTwice)
{
    CDNSCache* cache = CDNSCache::GetOrCreateRegistered();
    ASSERT_NE(nullptr, cache);
    cache->Update(W("a.example"), 0x7F000001u);
    ASSERT_FALSE(QFileInfo::exists(m_path));
    CDNSCache::ReleaseRegistered();
    EXPECT_EQ(nullptr, CQInstance::Instance()->GetByUid(CDNSCache::KUidDNSCache));
    EXPECT_EQ(Le32(1) + Entry("a.example", 0x7F000001u, KNow), ReadAll(m_path));
    CDNSCache::ReleaseRegistered();
    // A new registered cache starts from the saved file.
    CDNSCache* next = CDNSCache::GetOrCreateRegistered();
    ASSERT_NE(nullptr, next);
    unsigned int ip = 0;
    EXPECT_FALSE(next->GetAddress(W("a.example"), true, ip));
    EXPECT_TRUE(next->GetAddress(W("a.example"), false, ip));
    EXPECT_EQ(0x7F000001u, ip);
}

TEST_F(DNSCacheTest, RegisteredCacheIsSavedWhenTheProcessExits)
{
    ASSERT_FALSE(QFileInfo::exists(m_path));
    // Death tests re-run this binary and this test up to EXPECT_EXIT: the
    // child keeps the parent's directory, found in the environment (its own
    // fixture made another one).
    static const char KDirVariable[] = "VELANET_DNSCACHE_EXIT_DIR";
    if (qEnvironmentVariableIsEmpty(KDirVariable)) {
        ASSERT_TRUE(qputenv(KDirVariable, QFile::encodeName(m_directory)));
    }
    EXPECT_EXIT(
        {
            QDir(m_temp.Path()).removeRecursively();
            CDNSCache::SetCacheDirectory(QFile::decodeName(qgetenv(KDirVariable)));
            CDNSCache* cache = CDNSCache::GetOrCreateRegistered();
            if (cache == nullptr)
                std::_Exit(3);
            cache->Update(W("exit.example"), 0x0A0A0A0Au);
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
    qunsetenv(KDirVariable);
    EXPECT_EQ(Le32(1) + Entry("exit.example", 0x0A0A0A0Au, KNow), ReadAll(m_path));
}

}  // namespace
