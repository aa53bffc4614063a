// CMLHttpEngine over real loopback connections to a scripted peer: the
// socket engine under it looks up, connects, sends and reads for real, and
// the peer sends exact bytes in the reads the test chooses (split heads,
// split chunk-size lines, chunk remainders, close-framed bodies, oversized
// heads, redirects, errors, a DNS gateway). Expected request bytes come
// from CHttpData for the same URL; gzip bodies are made with zlib here.

#include "src/MLHttpEngine.h"

#include "src/DNSCache.h"
#include "support/ScriptedPeer.h"
#include "support/ServerFixtures.h"
#include "support/TestSupport.h"

#include <QByteArray>
#include <QFile>
#include <QHostAddress>
#include <QString>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zlib.h>

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
using velatest::ScriptedPeer;
using velatest::SpinUntil;

const int KId = 0x51;
const int KDeadlineMs = 10000;

// ------------------------------------------------------------ environment

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

// ------------------------------------------------------------ recording observer

// Keeps the order of the reports as a trace of short texts; consecutive
// data reports become one "data" entry, their bytes are kept apart.
class Recorder : public MHttpObserver
{
public:
    int OnHttpEngine_HttpError(int id, int status) override
    {
        Add(id, "http-error " + std::to_string(status));
        m_bDone = true;
        return 0;
    }
    int OnHttpEngine_Complete(int id, CQWString& recvFile) override
    {
        Add(id, "complete");
        m_completedPath = recvFile.ToQString();
        m_bDone = true;
        return 0;
    }
    int OnHttpEngine_NetEvent(int id, int event) override
    {
        Add(id, "event " + std::to_string(event));
        return 0;
    }
    int OnHttpEngine_NetError(int id, int event) override
    {
        Add(id, "net-error " + std::to_string(event));
        m_bDone = true;
        return 0;
    }
    int OnHttpEngine_RecvHeader(int id, CHttpResponseHead& head) override
    {
        Add(id, "header " + std::to_string(head.m_nStatusCode));
        m_nContentLength = head.m_nContentLength;
        return 1;
    }
    int OnHttpEngine_ResponseData(int id, unsigned char* data, int len, int n) override
    {
        if (m_trace.empty() || m_trace.back() != "data")
            Add(id, "data");
        m_body.append(reinterpret_cast<const char*>(data), len);
        m_pieceLengths.push_back(len);
        m_counts.push_back(n);
        return 1;
    }
    int OnHttpEngine_URLChange(int id, CQSString& location) override
    {
        Add(id, "url-change " + std::string(location.GetDataPtr(), static_cast<size_t>(location.GetLength())));
        return 0;
    }

    void Add(int id, const std::string& what)
    {
        m_trace.push_back(what);
        m_ids.push_back(id);
    }

    std::vector<std::string> m_trace;
    std::vector<int> m_ids;
    QByteArray m_body;
    std::vector<int> m_pieceLengths;
    std::vector<int> m_counts;
    QString m_completedPath;
    int m_nContentLength = 0;
    bool m_bDone = false;
};

// ------------------------------------------------------------ helpers

QByteArray ExpectedGet(const QString& url, int encodingMode, int rangeStart = -1)
{
    CHttpData data;
    const QByteArray text = url.toLatin1();
    data.SetURL(text.constData());
    int len = 0;
    std::unique_ptr<unsigned char[]> bytes(
        rangeStart < 0 ? data.GetMethodData(17, len, encodingMode, 0, 0, 0, nullptr, false, 0)
                       : data.PartialGetMethodData(len, encodingMode, false, rangeStart));
    return bytes ? QByteArray(reinterpret_cast<const char*>(bytes.get()), len) : QByteArray();
}

QByteArray ExpectedPost(const QString& url, int encodingMode, const QByteArray& body)
{
    CHttpData data;
    const QByteArray text = url.toLatin1();
    data.SetURL(text.constData());
    int len = 0;
    std::unique_ptr<unsigned char[]> bytes(
        data.GetMethodData(18, len, encodingMode, 0, 0, body.size(),
                           reinterpret_cast<unsigned char*>(const_cast<char*>(body.constData())), false, 0));
    return bytes ? QByteArray(reinterpret_cast<const char*>(bytes.get()), len) : QByteArray();
}

using velatest::Gzip;

QByteArray Compressible(int size)
{
    return velatest::CompressibleText(size, 777u);
}

QByteArray Pattern(int size)
{
    return velatest::LetterPattern(size);
}

bool CachedFresh(const QString& host, quint32& ip)
{
    unsigned int value = 0;
    const bool found = CDNSCache::GetOrCreateRegistered()->GetAddress(CQWString(host), true, value);
    ip = value;
    return found;
}

// ------------------------------------------------------------ fixture

class HttpEngineScriptedPeerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_engine.reset(CMLHttpEngine::NewL());
        m_engine->SetObserver(&m_rec);
        m_engine->SetRequestID(KId);
    }
    void TearDown() override
    {
        m_engine.reset();
        CMLHttpEngine::SetDNSGatewayURL(CMLHttpEngine::KDefaultDNSGatewayURL);
    }

    void Get(const QString& url, const CQWString* recvFile = nullptr)
    {
        const QByteArray text = url.toLatin1();
        ASSERT_NE(0, m_engine->DoGet(text.constData(), recvFile, -1));
    }
    bool WaitDone() { return SpinUntil([this] { return m_rec.m_bDone; }, KDeadlineMs); }

    Recorder m_rec;
    std::unique_ptr<CMLHttpEngine> m_engine;
    velatest::TempDir m_dir;
};

// ============================================================ heads

TEST_F(HttpEngineScriptedPeerTest, AHeadSplitOverThreeReadsIsParsedWhenComplete)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript()
                       .ExpectHead()
                       .SendPieces({"HTTP/1.1 200 OK\r\nConte", "nt-Length: 5\r\n", "\r\nhello"})
                       .Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/split-head"));
    ASSERT_TRUE(WaitDone());
    EXPECT_THAT(m_rec.m_trace, ElementsAre("event 32", "header 200", "data", "complete"));
    EXPECT_EQ(QByteArray("hello"), m_rec.m_body);
    ASSERT_TRUE(peer.WaitForScriptDone(0));
    EXPECT_EQ(ExpectedGet(peer.Url("/split-head"), KId), peer.Captured(0).value(0));
    EXPECT_TRUE(SpinUntil([this] { return m_engine->IsIdle(); }, KDeadlineMs));
}

TEST_F(HttpEngineScriptedPeerTest, AHeadOfExactly10240BytesIsAccepted)
{
    const QByteArray start = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nX-Pad: ";
    const QByteArray head = start + QByteArray(10240 - start.size() - 4, 'p') + "\r\n\r\n";
    ASSERT_EQ(10240, head.size());
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().SendSlowly(head, 1024).Send("ok").Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/big-head"));
    ASSERT_TRUE(WaitDone());
    EXPECT_THAT(m_rec.m_trace, ElementsAre("event 32", "header 200", "data", "complete"));
    EXPECT_EQ(QByteArray("ok"), m_rec.m_body);
}

TEST_F(HttpEngineScriptedPeerTest, AHeadOverTheReceiveBufferEndsWithNetError64)
{
    const QByteArray start = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nX-Pad: ";
    const QByteArray head = start + QByteArray(10241 - start.size() - 4, 'p') + "\r\n\r\n";
    const QString path = m_dir.File("big.bin");
    const CQWString file(path);
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().SendSlowly(head + "ok", 1024).StaySilent());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/too-big"), &file);
    ASSERT_TRUE(WaitDone());
    EXPECT_THAT(m_rec.m_trace, ElementsAre("event 32", "net-error 64"));
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_FALSE(QFile::exists(path));
}

// ============================================================ bodies

TEST_F(HttpEngineScriptedPeerTest, SplitChunkSizeLinesAndChunkRemaindersGiveTheWholeBody)
{
    const QByteArray big = Pattern(3000);
    ScriptedPeer peer;
    peer.AddScript(PeerScript()
                       .ExpectHead()
                       .SendPieces({"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1",
                                    "a\r\nabcdefghijklmnopqrstuvwxyz\r\nb", "b8\r\n" + big.left(1000),
                                    big.mid(1000, 1000), big.mid(2000) + "\r\n", "0\r", "\n\r\n"})
                       .StaySilent());
    ASSERT_TRUE(peer.Listen());
    const QString path = m_dir.File("chunked.bin");
    const CQWString file(path);
    Get(peer.Url("/chunked"), &file);
    ASSERT_TRUE(WaitDone());
    EXPECT_THAT(m_rec.m_trace, ElementsAre("event 32", "header 200", "data", "complete"));
    EXPECT_EQ(QByteArray("abcdefghijklmnopqrstuvwxyz") + big, m_rec.m_body);
    EXPECT_EQ(100, m_rec.m_nContentLength);
    EXPECT_EQ(path, m_rec.m_completedPath);
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    EXPECT_EQ(QByteArray("abcdefghijklmnopqrstuvwxyz") + big, f.readAll());
    EXPECT_TRUE(m_engine->IsIdle());
}

TEST_F(HttpEngineScriptedPeerTest, ABodyFramedByTheConnectionClosingCompletesOnClose)
{
    ScriptedPeer peer;
    peer.AddScript(
        PeerScript().ExpectHead().SendPieces({"HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nabc", "def", "ghi"}).Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/until-close"));
    ASSERT_TRUE(WaitDone());
    EXPECT_THAT(m_rec.m_trace, ElementsAre("event 32", "header 200", "data", "complete"));
    EXPECT_EQ(QByteArray("abcdefghi"), m_rec.m_body);
    EXPECT_EQ(CMLHttpEngine::HES_Idle, m_engine->GetState());
    EXPECT_TRUE(m_engine->IsIdle());
}

TEST_F(HttpEngineScriptedPeerTest, ALengthBodyCutShortByTheServerIsNetError34)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nabc").Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/cut"));
    ASSERT_TRUE(WaitDone());
    EXPECT_THAT(m_rec.m_trace, ElementsAre("event 32", "header 200", "data", "net-error 34"));
    EXPECT_EQ(QByteArray("abc"), m_rec.m_body);
}

TEST_F(HttpEngineScriptedPeerTest, ALengthBodyCompletesOnceAtItsLength)
{
    const QByteArray body = Pattern(5000);
    ScriptedPeer peer;
    peer.AddScript(PeerScript()
                       .ExpectHead()
                       .SendSplit("HTTP/1.1 200 OK\r\nContent-Length: 5000\r\n\r\n" + body, {20, 700, 2100, 4000})
                       .Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/length"));
    ASSERT_TRUE(WaitDone());
    EXPECT_EQ(body, m_rec.m_body);
    for (int len : m_rec.m_pieceLengths)
        EXPECT_LE(len, 1024);
    // The running count ends at the length.
    ASSERT_FALSE(m_rec.m_counts.empty());
    EXPECT_EQ(5000, m_rec.m_counts.back());
    ASSERT_TRUE(peer.WaitForScriptDone(0));
    velatest::ProcessPendingEvents();
    EXPECT_THAT(m_rec.m_trace, ElementsAre("event 32", "header 200", "data", "complete"));
}

TEST_F(HttpEngineScriptedPeerTest, APostGoesOutAsCHttpDataBuildsIt)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectRequest().Send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok").Close());
    ASSERT_TRUE(peer.Listen());
    QByteArray body = "a=1&b=hello";
    const QByteArray url = peer.Url("/form").toLatin1();
    ASSERT_NE(0, m_engine->DoPost(url.constData(), nullptr, reinterpret_cast<unsigned char*>(body.data()),
                                  body.size()));
    ASSERT_TRUE(WaitDone());
    EXPECT_THAT(m_rec.m_trace, ElementsAre("event 32", "header 200", "data", "complete"));
    ASSERT_TRUE(peer.WaitForScriptDone(0));
    EXPECT_EQ(ExpectedPost(peer.Url("/form"), KId, body), peer.Captured(0).value(0));
}

TEST_F(HttpEngineScriptedPeerTest, AGzipBodyIsDecodedAndTheServerClosingAfterwardsIsNetError34)
{
    const QByteArray plain = Compressible(30000);
    const QByteArray gz = Gzip(plain);
    const QString path = m_dir.File("page.bin");
    const CQWString file(path);
    bool checked = false;  // the peer closes once the completed state is checked
    ScriptedPeer peer;
    peer.AddScript(PeerScript()
                       .ExpectHead()
                       .SendSlowly("HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: " +
                                       QByteArray::number(gz.size()) + "\r\n\r\n" + gz,
                                   700)
                       .WaitUntil([&checked] { return checked; })
                       .Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/gz"), &file);
    ASSERT_TRUE(WaitDone());
    EXPECT_EQ(plain, m_rec.m_body);
    for (int len : m_rec.m_pieceLengths)
        EXPECT_LE(len, 1024);
    EXPECT_FALSE(m_engine->IsIdle()) << "a gzip completion leaves the engine busy";
    EXPECT_TRUE(QFile::exists(path));
    velatest::ProcessPendingEvents();
    EXPECT_FALSE(m_engine->IsIdle()) << "still busy while the connection stays open";

    checked = true;
    ASSERT_TRUE(SpinUntil([this] { return m_rec.m_trace.back() == "net-error 34"; }, KDeadlineMs));
    EXPECT_THAT(m_rec.m_trace, ElementsAre("event 32", "header 200", "data", "complete", "net-error 34"));
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_FALSE(QFile::exists(path)) << "the reset of event 34 deletes the receive file";
}

// ============================================================ statuses

TEST_F(HttpEngineScriptedPeerTest, ARelativeLocationIsResolvedAndFollowedOnTheSameEngine)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send("HTTP/1.1 302 Found\r\nLocation: next?x=1\r\n\r\n").Close());
    peer.AddScript(PeerScript().ExpectHead().Send("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\ndone").Close());
    ASSERT_TRUE(peer.Listen());
    m_engine->SetRequestID(KId);
    Get(peer.Url("/dir/first"));
    ASSERT_TRUE(WaitDone());
    const std::string next = peer.Url("/dir/next?x=1").toStdString();
    EXPECT_THAT(m_rec.m_trace,
                ElementsAre("event 32", "url-change " + next, "event 32", "header 200", "data", "complete"));
    for (int id : m_rec.m_ids)
        EXPECT_EQ(KId, id);
    EXPECT_EQ(QByteArray("done"), m_rec.m_body);
    ASSERT_TRUE(peer.WaitForScriptDone(1));
    EXPECT_EQ(ExpectedGet(peer.Url("/dir/next?x=1"), KId), peer.Captured(1).value(0));
}

TEST_F(HttpEngineScriptedPeerTest, A404DeletesTheReceiveFileAndReportsTheStatus)
{
    const QString path = m_dir.File("missing.bin");
    const CQWString file(path);
    ScriptedPeer peer;
    peer.AddScript(PeerScript()
                       .ExpectHead()
                       .WaitUntil([path] { return QFile::exists(path); })
                       .Send("HTTP/1.1 404 Not Found\r\nContent-Length: 9\r\n\r\nnot found")
                       .Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/missing"), &file);
    ASSERT_TRUE(WaitDone());
    EXPECT_THAT(m_rec.m_trace, ElementsAre("event 32", "http-error 404"));
    EXPECT_FALSE(QFile::exists(path));
}

TEST_F(HttpEngineScriptedPeerTest, AConnectionRefusedIsNetError34)
{
    const quint16 port = velatest::FreePort();
    ASSERT_NE(0, port);
    Get(QString("http://127.0.0.1:%1/").arg(port));
    ASSERT_TRUE(WaitDone());
    EXPECT_THAT(m_rec.m_trace, ElementsAre("net-error 34"));
    EXPECT_TRUE(m_engine->IsIdle());
}

// ============================================================ DNS gateway

TEST_F(HttpEngineScriptedPeerTest, AGatewayAnswerPutsTheUnresolvableHostInTheDnsCache)
{
    const QString host = "unresolvable.invalid";
    CDNSCache::GetOrCreateRegistered()->Remove(CQWString(host));
    ScriptedPeer gateway;
    gateway.AddScript(PeerScript().ExpectHead().Send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n10.0.0.1;").Close());
    ASSERT_TRUE(gateway.Listen());
    const QByteArray base = gateway.Url("/").toLatin1();
    CMLHttpEngine::SetDNSGatewayURL(base.constData());

    Get("http://" + host + "/page");
    quint32 ip = 0;
    ASSERT_TRUE(SpinUntil([&] { return CachedFresh(host, ip); }, KDeadlineMs));
    EXPECT_EQ(QHostAddress("10.0.0.1").toIPv4Address(), ip);
    ASSERT_TRUE(gateway.WaitForScriptDone(0));
    EXPECT_EQ(ExpectedGet(gateway.Url("/") + host, 0), gateway.Captured(0).value(0));
    EXPECT_EQ(CMLHttpEngine::HES_HttpRequest, m_engine->GetState()) << "the request is retried";
    EXPECT_EQ(17, m_engine->GetCurMethod());
    ASSERT_GE(m_rec.m_trace.size(), 2u);
    EXPECT_EQ("event 38", m_rec.m_trace[0]);
    EXPECT_EQ("event 32", m_rec.m_trace[1]);
    m_engine->CancelRequest();
}

TEST_F(HttpEngineScriptedPeerTest, TheRetryAfterTheGatewayAnswerReachesTheServer)
{
    const QString host = "retry-host.invalid";
    CDNSCache::GetOrCreateRegistered()->Remove(CQWString(host));
    ScriptedPeer peer;
    // The same peer is the gateway (first connection) and the server.
    peer.AddScript(PeerScript().ExpectHead().Send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n127.0.0.1;").Close());
    peer.AddScript(PeerScript().ExpectHead().Send("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello").Close());
    ASSERT_TRUE(peer.Listen());
    const QByteArray base = peer.Url("/").toLatin1();
    CMLHttpEngine::SetDNSGatewayURL(base.constData());
    const QString url = QString("http://%1:%2/page").arg(host).arg(peer.Port());

    Get(url);
    ASSERT_TRUE(WaitDone());
    EXPECT_THAT(m_rec.m_trace, ElementsAre("event 38", "event 32", "event 32", "header 200", "data", "complete"));
    EXPECT_EQ(QByteArray("hello"), m_rec.m_body);
    ASSERT_TRUE(peer.WaitForScriptDone(1));
    EXPECT_EQ(ExpectedGet(peer.Url("/") + host, 0), peer.Captured(0).value(0));
    EXPECT_EQ(ExpectedGet(url, KId), peer.Captured(1).value(0));
    quint32 ip = 0;
    ASSERT_TRUE(CachedFresh(host, ip));
    EXPECT_EQ(QHostAddress("127.0.0.1").toIPv4Address(), ip);
}

TEST_F(HttpEngineScriptedPeerTest, AGatewayWithoutAUsableAnswerEndsTheRequestWithNetError36)
{
    const QString host = "no-answer.invalid";
    CDNSCache::GetOrCreateRegistered()->Remove(CQWString(host));
    ScriptedPeer gateway;
    gateway.AddScript(PeerScript().ExpectHead().Send("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nnone").Close());
    ASSERT_TRUE(gateway.Listen());
    const QByteArray base = gateway.Url("/").toLatin1();
    CMLHttpEngine::SetDNSGatewayURL(base.constData());

    Get("http://" + host + "/page");
    ASSERT_TRUE(WaitDone());
    EXPECT_THAT(m_rec.m_trace, ElementsAre("event 38", "event 32", "event 38", "net-error 36"));
    EXPECT_EQ(CMLHttpEngine::HES_Idle, m_engine->GetState());
    EXPECT_EQ(1, gateway.ConnectionCount()) << "one gateway attempt per request";
}

TEST_F(HttpEngineScriptedPeerTest, AGateway404EndsTheRequestWithNetError36)
{
    const QString host = "gateway-404.invalid";
    CDNSCache::GetOrCreateRegistered()->Remove(CQWString(host));
    ScriptedPeer gateway;
    gateway.AddScript(PeerScript().ExpectHead().Send("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n").Close());
    ASSERT_TRUE(gateway.Listen());
    const QByteArray base = gateway.Url("/").toLatin1();
    CMLHttpEngine::SetDNSGatewayURL(base.constData());

    Get("http://" + host + "/page");
    ASSERT_TRUE(WaitDone());
    EXPECT_THAT(m_rec.m_trace, ElementsAre("event 38", "event 32", "net-error 36"));
    EXPECT_EQ(CMLHttpEngine::HES_Idle, m_engine->GetState());
    EXPECT_TRUE(m_engine->IsIdle());
}

TEST_F(HttpEngineScriptedPeerTest, AnUnreachableGatewayIsNetError34)
{
    const QString host = "gateway-down.invalid";
    CDNSCache::GetOrCreateRegistered()->Remove(CQWString(host));
    const quint16 port = velatest::FreePort();
    ASSERT_NE(0, port);
    const QByteArray base = QString("http://127.0.0.1:%1/").arg(port).toLatin1();
    CMLHttpEngine::SetDNSGatewayURL(base.constData());

    Get("http://" + host + "/page");
    ASSERT_TRUE(WaitDone());
    EXPECT_THAT(m_rec.m_trace, ElementsAre("event 38", "net-error 34"));
}

}  // namespace
