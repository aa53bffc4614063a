// CMLHttpPool with a host name that no resolver knows (names under the
// reserved ".invalid" top-level domain, RFC 6761): the engine asks a scripted
// DNS gateway on 127.0.0.1 for the address, stores the answer in the DNS
// cache, retries the request, which a second scripted peer serves, and the
// cache written at release holds the host in its documented file layout:
//
//   file  = count(4) *entry            little-endian
//   entry = L(4) name(2*L, UTF-16LE) ip(4) time(8)
//
// The gateway is asked "GET /" + host; its body is a list of items each
// ended by ";", of which the first 7..15-byte item is the address.

#include "src/MLHttpPool.h"

#include "src/DNSCache.h"
#include "src/MLHttpEngine.h"
#include "support/PoolRecorder.h"
#include "support/ScriptedPeer.h"
#include "support/TestSupport.h"

#include <QByteArray>
#include <QFile>
#include <QHostAddress>
#include <QString>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

void PrintTo(const QByteArray& bytes, std::ostream* os)
{
    *os << '"' << velatest::Visible(bytes) << '"';
}

namespace {

using ::testing::ElementsAre;
using velatest::PeerScript;
using velatest::PoolRecorder;
using velatest::ScriptedPeer;
using velatest::SpinUntil;

const int KId = 0x6101;
const int KOtherId = 0x6102;
const int KDeadlineMs = 15000;
const int KEngines = 2;

// The time the cache gives new entries: the seconds of a default-constructed
// (invalid) QDateTime, which Qt documents as -1 cast to an unsigned int.
const qint64 KUnsetTime = 0xFFFFFFFFLL;

// File layout sizes.
const int KCountBytes = 4;
const int KEntryFixedBytes = 16;  // L, ip, time

// ------------------------------------------------------------ environment

// Every cache this binary creates outside a test's own directory goes to a
// temporary directory, never to the default system path.
class DnsCacheDirectory : public ::testing::Environment
{
public:
    void SetUp() override
    {
        m_dir = std::make_unique<velatest::TempDir>();
        CDNSCache::SetCacheDirectory(m_dir->Path());
    }
    void TearDown() override
    {
        CDNSCache::ReleaseRegistered();
        m_dir.reset();
    }

private:
    std::unique_ptr<velatest::TempDir> m_dir;
};

::testing::Environment* const g_dnsEnvironment = ::testing::AddGlobalTestEnvironment(new DnsCacheDirectory);

// ------------------------------------------------------------ helpers

CQSString Url(const QString& url)
{
    return CQSString(url.toLatin1().constData());
}

QByteArray ExpectedGet(const QString& url, int encodingMode)
{
    CHttpData data;
    const QByteArray text = url.toLatin1();
    data.SetURL(text.constData());
    int len = 0;
    std::unique_ptr<unsigned char[]> bytes(data.GetMethodData(17, len, encodingMode, 0, 0, 0, nullptr, false, 0));
    return bytes ? QByteArray(reinterpret_cast<const char*>(bytes.get()), len) : QByteArray();
}

quint32 Le32(const QByteArray& bytes, int at)
{
    quint32 value = 0;
    for (int i = 3; i >= 0; --i)
        value = (value << 8) | static_cast<unsigned char>(bytes[at + i]);
    return value;
}

qint64 Le64(const QByteArray& bytes, int at)
{
    quint64 value = 0;
    for (int i = 7; i >= 0; --i)
        value = (value << 8) | static_cast<unsigned char>(bytes[at + i]);
    return static_cast<qint64>(value);
}

struct CacheFileEntry
{
    QString name;
    quint32 ip = 0;
    qint64 time = 0;
};

// Reads the whole cache file by its layout. False with the reason when the
// bytes do not hold exactly count entries.
bool ParseCacheFile(const QByteArray& bytes, std::vector<CacheFileEntry>& entries, std::string& why)
{
    entries.clear();
    if (bytes.size() < KCountBytes) {
        why = "shorter than the count: " + std::to_string(bytes.size()) + " bytes";
        return false;
    }
    const quint32 count = Le32(bytes, 0);
    int at = KCountBytes;
    for (quint32 i = 0; i < count; ++i) {
        if (bytes.size() - at < KEntryFixedBytes) {
            why = "entry " + std::to_string(i) + " cut short";
            return false;
        }
        const quint32 units = Le32(bytes, at);
        if (units > 128 || bytes.size() - at < KEntryFixedBytes + 2 * static_cast<int>(units)) {
            why = "entry " + std::to_string(i) + " has a bad name length " + std::to_string(units);
            return false;
        }
        at += 4;
        CacheFileEntry entry;
        for (quint32 u = 0; u < units; ++u) {
            const ushort unit = static_cast<ushort>(static_cast<unsigned char>(bytes[at]) |
                                                    (static_cast<unsigned char>(bytes[at + 1]) << 8));
            entry.name.append(QChar(unit));
            at += 2;
        }
        entry.ip = Le32(bytes, at);
        at += 4;
        entry.time = Le64(bytes, at);
        at += 8;
        entries.push_back(entry);
    }
    if (at != bytes.size()) {
        why = std::to_string(bytes.size() - at) + " bytes after the last entry";
        return false;
    }
    return true;
}

QByteArray ReadFile(const QString& path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return QByteArray();
    return f.readAll();
}

// ------------------------------------------------------------ fixture

class PoolGatewayTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        // A cache made by an earlier test goes first; this test's cache
        // starts empty in its own directory.
        CDNSCache::ReleaseRegistered();
        CDNSCache::SetCacheDirectory(m_dir.Path());
        m_pool.reset(CMLHttpPool::NewL(&m_rec, nullptr, KEngines));
    }
    void TearDown() override
    {
        m_pool.reset();
        CDNSCache::ReleaseRegistered();
        CMLHttpEngine::SetDNSGatewayURL(CMLHttpEngine::KDefaultDNSGatewayURL);
    }

    void UseGateway(const ScriptedPeer& gateway)
    {
        const QByteArray base = gateway.Url("/").toLatin1();
        CMLHttpEngine::SetDNSGatewayURL(base.constData());
    }
    bool WaitDone(int id) { return SpinUntil([&] { return m_rec.Done(id); }, KDeadlineMs); }
    bool AllIdle() const
    {
        for (int i = 0; i < m_pool->GetEngineCount(); ++i)
            if (!m_pool->GetEngine(i)->IsIdle())
                return false;
        return true;
    }
    QString CacheFile() const { return m_dir.File(CDNSCache::KFileName); }

    velatest::TempDir m_dir;
    PoolRecorder m_rec;
    std::unique_ptr<CMLHttpPool> m_pool;
};

// ============================================================ tests

TEST_F(PoolGatewayTest, TheGatewayAnswerIsUsedForTheRetryAndSavedInTheCacheFile)
{
    const QString host = "pool-gateway.invalid";
    // A one-byte item is skipped, the first address is taken, the second
    // item is never looked at.
    const QByteArray answer = "x;127.0.0.1;10.0.0.9;";
    ScriptedPeer gateway;
    gateway.AddScript(PeerScript()
                          .ExpectHead()
                          .Send("HTTP/1.1 200 OK\r\nContent-Length: " + QByteArray::number(answer.size()) +
                                "\r\n\r\n" + answer)
                          .Close());
    ScriptedPeer server;
    server.AddScript(PeerScript().ExpectHead().Send("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello").Close());
    ASSERT_TRUE(gateway.Listen());
    ASSERT_TRUE(server.Listen());
    UseGateway(gateway);
    const QString url = QString("http://%1:%2/page").arg(host).arg(server.Port());

    ASSERT_EQ(CMLHttpPool::KStarted, m_pool->DoGet(Url(url), KId, nullptr));
    ASSERT_TRUE(WaitDone(KId));
    // Lookup started (38), the unresolvable name (36) is not reported, the
    // gateway connects (32, a literal address: no lookup), the retry finds
    // the name in the cache and connects (32) to the server.
    EXPECT_THAT(m_rec.Of(KId).trace,
                ElementsAre("event 38", "event 32", "event 32", "header 200", "data", "complete"));
    EXPECT_EQ(QByteArray("hello"), m_rec.Of(KId).body);
    EXPECT_EQ(1, m_rec.Of(KId).terminalReports);

    ASSERT_TRUE(gateway.WaitForScriptDone(0));
    ASSERT_TRUE(server.WaitForScriptDone(0));
    EXPECT_EQ(1, gateway.ConnectionCount());
    EXPECT_EQ(1, server.ConnectionCount());
    const QByteArray asked = gateway.Captured(0).value(0);
    EXPECT_TRUE(asked.startsWith("GET /" + host.toLatin1() + " HTTP/1.1\r\nHost: 127.0.0.1:" +
                                 QByteArray::number(gateway.Port()) + "\r\n"))
        << velatest::Visible(asked);
    EXPECT_EQ(ExpectedGet(gateway.Url("/") + host, 0), asked);
    EXPECT_EQ(ExpectedGet(url, KId), server.Captured(0).value(0));
    EXPECT_TRUE(SpinUntil([this] { return AllIdle(); }, KDeadlineMs));

    // Release saves the cache; only the gateway's answer went into it (the
    // gateway and the server were reached by literal addresses).
    m_pool.reset();
    CDNSCache::ReleaseRegistered();
    const QByteArray bytes = ReadFile(CacheFile());
    std::vector<CacheFileEntry> entries;
    std::string why;
    ASSERT_TRUE(ParseCacheFile(bytes, entries, why)) << why << ": " << velatest::Visible(bytes);
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ(host, entries[0].name);
    EXPECT_EQ(QHostAddress("127.0.0.1").toIPv4Address(), entries[0].ip);
    EXPECT_EQ(KUnsetTime, entries[0].time);
    EXPECT_EQ(KCountBytes + KEntryFixedBytes + 2 * host.size(), bytes.size());
}

TEST_F(PoolGatewayTest, AGatewayAnswerWithoutAnAddressEndsWithNetError36AndSavesNothing)
{
    const QString host = "pool-no-address.invalid";
    // Eight bytes that are no address are accumulated and spoil the rest.
    const QByteArray answer = "notanip!;127.0.0.1;";
    ScriptedPeer gateway;
    gateway.AddScript(PeerScript()
                          .ExpectHead()
                          .Send("HTTP/1.1 200 OK\r\nContent-Length: " + QByteArray::number(answer.size()) +
                                "\r\n\r\n" + answer)
                          .Close());
    ASSERT_TRUE(gateway.Listen());
    UseGateway(gateway);

    ASSERT_EQ(CMLHttpPool::KStarted, m_pool->DoGet(Url("http://" + host + "/x"), KId, nullptr));
    ASSERT_TRUE(WaitDone(KId));
    // The retry looks the name up again (38) and fails; the state is the
    // gateway's by then, so the request ends.
    EXPECT_THAT(m_rec.Of(KId).trace, ElementsAre("event 38", "event 32", "event 38", "net-error 36"));
    EXPECT_EQ(1, gateway.ConnectionCount()) << "one gateway attempt per request";
    EXPECT_TRUE(AllIdle());

    m_pool.reset();
    CDNSCache::ReleaseRegistered();
    const QByteArray bytes = ReadFile(CacheFile());
    std::vector<CacheFileEntry> entries;
    std::string why;
    ASSERT_TRUE(ParseCacheFile(bytes, entries, why)) << why << ": " << velatest::Visible(bytes);
    EXPECT_TRUE(entries.empty());
    EXPECT_EQ(KCountBytes, bytes.size());
}

TEST_F(PoolGatewayTest, AGatewayStatus404EndsWithNetError36)
{
    const QString host = "pool-gateway-404.invalid";
    ScriptedPeer gateway;
    gateway.AddScript(PeerScript().ExpectHead().Send("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n").Close());
    ASSERT_TRUE(gateway.Listen());
    UseGateway(gateway);

    ASSERT_EQ(CMLHttpPool::KStarted, m_pool->DoGet(Url("http://" + host + "/x"), KId, nullptr));
    ASSERT_TRUE(WaitDone(KId));
    EXPECT_THAT(m_rec.Of(KId).trace, ElementsAre("event 38", "event 32", "net-error 36"));
    EXPECT_TRUE(AllIdle());
}

TEST_F(PoolGatewayTest, ALookupAnsweredAfterItsRequestWasCancelledConnectsNowhere)
{
    const QString host = "pool-cancelled.invalid";
    ScriptedPeer gateway;
    gateway.AddScript(
        PeerScript().ExpectHead().Send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n127.0.0.1;").Close());
    ScriptedPeer server;
    server.AddScript(PeerScript().ExpectHead().Send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok").Close());
    ASSERT_TRUE(gateway.Listen());
    ASSERT_TRUE(server.Listen());
    UseGateway(gateway);
    const QString url = QString("http://%1:%2/page").arg(host).arg(server.Port());

    // Two lookups of the same name: the system lookup answers them in the
    // order they were made, so once the second request has its answer, the
    // cancelled first one has had its answer too.
    ASSERT_EQ(CMLHttpPool::KStarted, m_pool->DoGet(Url(url), KId, nullptr));
    ASSERT_EQ(CMLHttpPool::KStarted, m_pool->DoGet(Url(url), KOtherId, nullptr));
    EXPECT_EQ(KId, m_pool->GetEngine(0)->GetRequestID());
    EXPECT_EQ(KOtherId, m_pool->GetEngine(1)->GetRequestID());
    m_pool->CancelDownLoadRequest(KId);
    EXPECT_TRUE(m_pool->GetEngine(0)->IsIdle());

    ASSERT_TRUE(WaitDone(KOtherId));
    EXPECT_THAT(m_rec.Of(KOtherId).trace,
                ElementsAre("event 38", "event 32", "event 32", "header 200", "data", "complete"));
    ASSERT_TRUE(server.WaitForScriptDone(0));
    velatest::ProcessPendingEvents();
    // The cancelled request said nothing after its lookup started, asked no
    // gateway and reached no server.
    EXPECT_THAT(m_rec.Of(KId).trace, ElementsAre("event 38"));
    EXPECT_EQ(1, gateway.ConnectionCount());
    EXPECT_EQ(1, server.ConnectionCount());
    EXPECT_TRUE(AllIdle());
}

}  // namespace
