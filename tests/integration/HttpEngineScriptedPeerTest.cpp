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

#include <algorithm>
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
        CMLHttpEngine::SetMaxRedirects(CMLHttpEngine::KDefaultMaxRedirects);
    }

    void Get(const QString& url, const CQWString* recvFile = nullptr)
    {
        const QByteArray text = url.toLatin1();
        ASSERT_NE(0, m_engine->DoGet(text.constData(), recvFile, -1));
    }
    bool WaitDone() { return SpinUntil([this] { return m_rec.m_bDone; }, KDeadlineMs); }
    // Reports of one kind ("url-change", "net-error 66"...) in the trace.
    int CountOf(const std::string& prefix) const
    {
        int n = 0;
        for (const std::string& entry : m_rec.m_trace)
            n += entry.compare(0, prefix.size(), prefix) == 0 ? 1 : 0;
        return n;
    }
    // Terminal reports: complete, HTTP error, net error.
    int Terminals() const { return CountOf("complete") + CountOf("http-error") + CountOf("net-error"); }
    // Lets late events arrive, so that a second terminal report would show.
    void Settle()
    {
        for (int i = 0; i < 5; ++i)
            velatest::ProcessPendingEvents();
    }

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

// ============================================================ redirect limit

QByteArray Redirect(const QByteArray& location)
{
    return "HTTP/1.1 302 Found\r\nLocation: " + location + "\r\nContent-Length: 0\r\n\r\n";
}

TEST_F(HttpEngineScriptedPeerTest, ARedirectLoopEndsAfterTwentyFollowsWithOneTooManyRedirectsError)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send(Redirect("/loop")).Close());  // every connection
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/loop"));
    ASSERT_TRUE(WaitDone());
    Settle();
    EXPECT_EQ(20, CMLHttpEngine::GetMaxRedirects());
    EXPECT_EQ(21, CountOf("url-change")) << "the original request and twenty follows each got a 302";
    EXPECT_EQ(21, peer.ConnectionCount());
    EXPECT_EQ(1, Terminals());
    EXPECT_EQ("net-error " + std::to_string(velanet::KErrorTooManyRedirects), m_rec.m_trace.back());
    EXPECT_EQ("url-change " + peer.Url("/loop").toStdString(), m_rec.m_trace[m_rec.m_trace.size() - 2]);
    EXPECT_TRUE(m_engine->IsIdle());
}

struct LimitRow
{
    const char* name;
    int maxRedirects;
    int redirects;  // 302s before the 200
    bool completes;
};

void PrintTo(const LimitRow& row, std::ostream* os)
{
    *os << row.name;
}

class RedirectLimitTest : public HttpEngineScriptedPeerTest, public ::testing::WithParamInterface<LimitRow>
{
};

TEST_P(RedirectLimitTest, FollowsUpToTheLimitAndFailsOnePast)
{
    const LimitRow& row = GetParam();
    CMLHttpEngine::SetMaxRedirects(row.maxRedirects);
    ScriptedPeer peer;
    for (int i = 0; i < row.redirects; ++i)
        peer.AddScript(PeerScript().ExpectHead().Send(Redirect("/step" + QByteArray::number(i + 1))).Close());
    peer.AddScript(PeerScript().ExpectHead().Send("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\ndone").Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/step0"));
    ASSERT_TRUE(WaitDone());
    Settle();
    EXPECT_EQ(row.redirects, CountOf("url-change"));
    EXPECT_EQ(1, Terminals());
    if (row.completes) {
        EXPECT_EQ("complete", m_rec.m_trace.back());
        EXPECT_EQ(QByteArray("done"), m_rec.m_body);
        EXPECT_EQ(row.redirects + 1, peer.ConnectionCount());
    } else {
        EXPECT_EQ("net-error " + std::to_string(velanet::KErrorTooManyRedirects), m_rec.m_trace.back());
        EXPECT_EQ(std::max(row.maxRedirects, 0) + 1, peer.ConnectionCount());
    }
}

const LimitRow KLimitRows[] = {
    {"limit-0-no-redirect", 0, 0, true},
    {"limit-0-one-redirect", 0, 1, false},
    {"limit-1-one-redirect", 1, 1, true},
    {"limit-1-two-redirects", 1, 2, false},
    {"negative-limit-counts-as-0", -5, 1, false},
};

INSTANTIATE_TEST_SUITE_P(Limits, RedirectLimitTest, ::testing::ValuesIn(KLimitRows),
                         [](const ::testing::TestParamInfo<LimitRow>& info) {
                             std::string name = info.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST_F(HttpEngineScriptedPeerTest, TheRedirectCountStartsAgainWithEachRequestOfTheOwner)
{
    CMLHttpEngine::SetMaxRedirects(1);
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send(Redirect("/b")).Close());
    peer.AddScript(PeerScript().ExpectHead().Send(Redirect("/c")).Close());
    peer.AddScript(PeerScript().ExpectHead().Send(Redirect("/d")).Close());
    peer.AddScript(PeerScript().ExpectHead().Send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok").Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/a"));
    ASSERT_TRUE(WaitDone());
    EXPECT_EQ("net-error " + std::to_string(velanet::KErrorTooManyRedirects), m_rec.m_trace.back());
    ASSERT_EQ(2, peer.ConnectionCount());

    m_rec = Recorder();
    Get(peer.Url("/c"));  // one redirect (to /d), then the 200
    ASSERT_TRUE(WaitDone());
    Settle();
    EXPECT_THAT(m_rec.m_trace, ElementsAre("event 32", "url-change " + peer.Url("/d").toStdString(), "event 32",
                                           "header 200", "data", "complete"));
}

TEST_F(HttpEngineScriptedPeerTest, ThePageIdOnlyReportsARedirectWhateverTheLimit)
{
    CMLHttpEngine::SetMaxRedirects(0);
    m_engine->SetRequestID(velanet::KIdCurrentPage);
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send(Redirect("/next")).Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/page"));
    ASSERT_TRUE(SpinUntil([this] { return CountOf("url-change") == 1; }, KDeadlineMs));
    Settle();
    EXPECT_THAT(m_rec.m_trace, ElementsAre("event 32", "url-change " + peer.Url("/next").toStdString()));
    EXPECT_EQ(1, peer.ConnectionCount());
    EXPECT_TRUE(m_engine->IsIdle());
}

// ============================================================ redirects that cannot start

struct UnstartableRow
{
    const char* name;
    QByteArray head;      // the whole 3xx head
    const char* reported;  // the location reported; "%" stands for the peer's "http://127.0.0.1:port"
};

void PrintTo(const UnstartableRow& row, std::ostream* os)
{
    *os << row.name;
}

class UnstartableRedirectTest : public HttpEngineScriptedPeerTest,
                                public ::testing::WithParamInterface<UnstartableRow>
{
};

TEST_P(UnstartableRedirectTest, EndsWithOneNotStartableErrorAfterTheUrlChange)
{
    const UnstartableRow& row = GetParam();
    const QString path = m_dir.File("target.bin");
    const CQWString file(path);
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send(row.head).Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/r/start"), &file);
    ASSERT_TRUE(WaitDone());
    Settle();
    std::string reported = row.reported;
    const size_t mark = reported.find('%');
    if (mark != std::string::npos)
        reported.replace(mark, 1, peer.Url("").toStdString());
    EXPECT_THAT(m_rec.m_trace, ElementsAre("event 32", "url-change " + reported,
                                           "net-error " + std::to_string(velanet::KErrorRedirectNotStartable)));
    EXPECT_EQ(1, peer.ConnectionCount());
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_FALSE(QFile::exists(path)) << "a failed request leaves no receive file";
}

const UnstartableRow KUnstartableRows[] = {
    {"file-scheme", Redirect("file:///etc/passwd"), "file:///etc/passwd"},
    {"ftp-scheme", Redirect("ftp://127.0.0.1/x"), "ftp://127.0.0.1/x"},
    {"mailto-scheme", Redirect("mailto:someone@example.org"), "mailto:someone@example.org"},
    {"empty-location", "HTTP/1.1 302 Found\r\nLocation: \r\nContent-Length: 0\r\n\r\n", ""},
    {"not-modified-without-location", "HTTP/1.1 304 Not Modified\r\n\r\n", ""},
    {"empty-host", Redirect("http:///x"), "http:///x"},
    {"unterminated-ipv6-host", Redirect("http://[::1/x"), "http://[::1/x"},
    {"port-past-65535", Redirect("http://127.0.0.1:70000/x"), "http://127.0.0.1:70000/x"},
    {"garbage-with-control-bytes", Redirect("a\x01\x02<>"), "%/r/a\x01\x02<>"},
};

INSTANTIATE_TEST_SUITE_P(Targets, UnstartableRedirectTest, ::testing::ValuesIn(KUnstartableRows),
                         [](const ::testing::TestParamInfo<UnstartableRow>& info) {
                             std::string name = info.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST_F(HttpEngineScriptedPeerTest, AnOwnerThatStartsARequestInsideTheUrlChangeGetsNoRedirectError)
{
    class Restarter : public Recorder
    {
    public:
        int OnHttpEngine_URLChange(int id, CQSString& location) override
        {
            Recorder::OnHttpEngine_URLChange(id, location);
            if (m_engine && !m_restarted) {
                m_restarted = true;
                (void)m_engine->DoGet(m_next.constData(), nullptr, -1);
            }
            return 0;
        }
        CMLHttpEngine* m_engine = nullptr;
        QByteArray m_next;
        bool m_restarted = false;
    };
    Restarter rec;
    CMLHttpEngine::SetMaxRedirects(0);
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send(Redirect("file:///etc/passwd")).Close());
    peer.AddScript(PeerScript().ExpectHead().Send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok").Close());
    ASSERT_TRUE(peer.Listen());
    rec.m_engine = m_engine.get();
    rec.m_next = peer.Url("/own").toLatin1();
    m_engine->SetObserver(&rec);
    Get(peer.Url("/first"));
    ASSERT_TRUE(SpinUntil([&rec] { return rec.m_bDone; }, KDeadlineMs));
    Settle();
    EXPECT_THAT(rec.m_trace,
                ElementsAre("event 32", "url-change file:///etc/passwd", "event 32", "header 200", "data", "complete"));
    ASSERT_TRUE(peer.WaitForScriptDone(1));
    EXPECT_EQ(ExpectedGet(peer.Url("/own"), KId), peer.Captured(1).value(0));
}

// ============================================================ interim responses

struct InterimRow
{
    const char* name;
    QByteArray reply;  // interim heads, then the final response
    QByteArray body;   // the body the owner gets
    bool split;        // the reply one byte per read (else in one write)
    bool closes;       // the close ends the body; otherwise the peer keeps the connection open
};

void PrintTo(const InterimRow& row, std::ostream* os)
{
    *os << row.name;
}

class InterimResponseTest : public HttpEngineScriptedPeerTest, public ::testing::WithParamInterface<InterimRow>
{
};

TEST_P(InterimResponseTest, AreSkippedAndTheFinalResponseIsHandledAsAlone)
{
    const InterimRow& row = GetParam();
    ScriptedPeer peer;
    PeerScript script;
    script.ExpectHead();
    if (row.split)
        script.SendSlowly(row.reply, 1);
    else
        script.Send(row.reply);
    peer.AddScript(row.closes ? script.Close() : script.StaySilent());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/interim"));
    ASSERT_TRUE(WaitDone());
    Settle();
    EXPECT_THAT(m_rec.m_trace, ElementsAre("event 32", "header 200", "data", "complete"));
    EXPECT_EQ(row.body, m_rec.m_body);
}

const QByteArray KContinue = "HTTP/1.1 100 Continue\r\n\r\n";
const QByteArray KEarlyHints = "HTTP/1.1 103 Early Hints\r\nLink: </style.css>; rel=preload; as=style\r\n"
                               "Link: </script.js>; rel=preload; as=script\r\n\r\n";
const QByteArray KLengthFinal = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello";
const QByteArray KChunkedFinal =
    "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n";
const QByteArray KUntilCloseFinal = "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nuntil the end";

QByteArray GzipFinal()
{
    const QByteArray gz = Gzip("a gzip body after an interim response");
    return "HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: " + QByteArray::number(gz.size()) + "\r\n\r\n" +
           gz;
}

const InterimRow KInterimRows[] = {
    {"continue-once", KContinue + KLengthFinal, "hello", false, false},
    {"continue-twice", KContinue + KContinue + KLengthFinal, "hello", false, false},
    {"early-hints-with-fields", KEarlyHints + KLengthFinal, "hello", false, false},
    {"processing-then-early-hints", "HTTP/1.1 102 Processing\r\n\r\n" + KEarlyHints + KLengthFinal, "hello", false,
     false},
    {"continue-then-chunked", KContinue + KChunkedFinal, "hello world", false, false},
    {"continue-then-gzip", KContinue + GzipFinal(), "a gzip body after an interim response", false, false},
    {"continue-then-until-close", KContinue + KUntilCloseFinal, "until the end", false, true},
    {"continue-twice-byte-per-read", KContinue + KContinue + KLengthFinal, "hello", true, false},
    {"early-hints-byte-per-read", KEarlyHints + KChunkedFinal, "hello world", true, false},
};

INSTANTIATE_TEST_SUITE_P(Replies, InterimResponseTest, ::testing::ValuesIn(KInterimRows),
                         [](const ::testing::TestParamInfo<InterimRow>& info) {
                             std::string name = info.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST_F(HttpEngineScriptedPeerTest, AnInterimResponseSplitAnywhereGivesTheSameResult)
{
    const QByteArray reply = KContinue + KEarlyHints + KLengthFinal;
    ScriptedPeer peer;
    for (int cut = 1; cut < reply.size(); ++cut)
        peer.AddScript(PeerScript().ExpectHead().SendSplit(reply, {cut}).Close());
    ASSERT_TRUE(peer.Listen());
    for (int cut = 1; cut < reply.size(); ++cut) {
        m_rec = Recorder();
        Get(peer.Url("/split"));
        ASSERT_TRUE(WaitDone()) << "split at " << cut;
        ASSERT_THAT(m_rec.m_trace, ElementsAre("event 32", "header 200", "data", "complete")) << "split at " << cut;
        ASSERT_EQ(QByteArray("hello"), m_rec.m_body) << "split at " << cut;
    }
    EXPECT_EQ(reply.size() - 1, peer.ConnectionCount());
}

TEST_F(HttpEngineScriptedPeerTest, AnInterimResponseAndThenTheCloseIsNetError34)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send(KContinue).Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/nothing-after"));
    ASSERT_TRUE(WaitDone());
    Settle();
    EXPECT_THAT(m_rec.m_trace, ElementsAre("event 32", "net-error 34"));
    EXPECT_TRUE(m_engine->IsIdle());
}

TEST_F(HttpEngineScriptedPeerTest, SwitchingProtocolsIsAFinalStatusAndAnHttpError)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript()
                       .ExpectHead()
                       .Send("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n\r\n" +
                             KLengthFinal)
                       .Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/upgrade"));
    ASSERT_TRUE(WaitDone());
    Settle();
    EXPECT_THAT(m_rec.m_trace, ElementsAre("event 32", "http-error 101"));
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
