// CMLHttpPool against peers that misbehave, each a scripted peer on
// 127.0.0.1: closes in the middle of a head, of a chunk-size line, of a
// chunk or of a gzip stream, resets, an oversized head, a peer that trickles
// its answer, one that never answers, refused connections, bytes past the
// length, an empty body, cancels from inside a data report, and a thousand
// requests of which a seeded tenth meet one of those peers. Every case ends
// with the report the library documents for it, and with every engine of
// the pool idle again.
//
// The expected reports, from the documented behaviour:
// - A peer that closes (or resets) while the engine waits for data ends the
//   body that is being read. A body framed by Content-Length that has not
//   reached its length, or a response whose head never completed, is a
//   failed request: net error 34, and so is a chunked body whose zero-size
//   chunk never came. Only a body framed by the close is complete with
//   what came.
// - A close at any other time (after a gzip body completed at the end of
//   its stream, which leaves the engine busy) is net error 34 as well, after
//   the completion.
// - A head larger than the 10240-byte receive buffer is net error 64.
// - A body marked gzip that is no gzip stream is net event 48.
// - A refused connection is net error 34 and nothing else: the URLs name a
//   literal address, so there is no lookup event and no connect event.
// - A cancelled request reports nothing more.
// - Failures delete a partly written receive file; completions keep it.

#include "src/MLHttpPool.h"

#include "src/DNSCache.h"
#include "src/MLHttpEngine.h"
#include "support/PoolRecorder.h"
#include "support/ScriptedPeer.h"
#include "support/ServerFixtures.h"
#include "support/TestSupport.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QFile>
#include <QString>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <random>
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
using velatest::PoolRequestRecord;
using velatest::ScriptedPeer;
using velatest::SpinUntil;

const int KId = 0x7101;
const int KOtherId = 0x7102;
const int KFirstId = 0x20000;
const int KEngines = 4;
const int KDeadlineMs = 15000;

const int KRefusedInARow = 200;
const int KMixRequests = 1000;
const int KMixInFlight = 4;
const unsigned KMixSeed = 20240611u;

// The receive buffer of an engine; a head must fit in it.
const int KRecvBufferSize = 10240;
const int KBigHeadSize = 20 * 1024;
const int KTrickleMs = 10;

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

// ------------------------------------------------------------ bytes

CQSString Url(const QString& url)
{
    return CQSString(url.toLatin1().constData());
}

using velatest::Gzip;

QByteArray Compressible(int size)
{
    return velatest::CompressibleText(size, 4242u);
}

QByteArray Pattern(int size)
{
    return velatest::LetterPattern(size);
}

QByteArray LengthHead(int length)
{
    return "HTTP/1.1 200 OK\r\nContent-Length: " + QByteArray::number(length) + "\r\n\r\n";
}

const QByteArray KChunkedHead = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";

QByteArray GzipLengthHead(int length)
{
    return "HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: " + QByteArray::number(length) + "\r\n\r\n";
}

// No length and no chunks: the body ends with the connection.
const QByteArray KGzipCloseFramedHead = "HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nConnection: close\r\n\r\n";

// A head of exactly size bytes whose Content-Length is 2.
QByteArray HeadOfSize(int size)
{
    const QByteArray start = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nX-Pad: ";
    return start + QByteArray(size - start.size() - 4, 'p') + "\r\n\r\n";
}

// Sends bytes one at a time, each followed by everyMs of event-loop time.
PeerScript& Trickle(PeerScript& script, const QByteArray& bytes, int everyMs)
{
    for (int i = 0; i < bytes.size(); ++i)
        script.Send(bytes.mid(i, 1)).Delay(everyMs);
    return script;
}

QByteArray ReadFile(const QString& path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return QByteArray("<unreadable>");
    return f.readAll();
}

const std::vector<std::string> KCompleted{"event 32", "header 200", "data", "complete"};

// ------------------------------------------------------------ fixture

class PoolFaultTest : public ::testing::Test
{
protected:
    void SetUp() override { m_pool.reset(CMLHttpPool::NewL(&m_rec, nullptr, KEngines)); }
    void TearDown() override { m_pool.reset(); }

    void Get(const QString& url, int id, const CQWString* recvFile = nullptr)
    {
        ASSERT_EQ(CMLHttpPool::KStarted, m_pool->DoGet(Url(url), id, recvFile));
    }
    bool WaitDone(int id) { return SpinUntil([&] { return m_rec.Done(id); }, KDeadlineMs); }
    bool AllIdle() const
    {
        for (int i = 0; i < m_pool->GetEngineCount(); ++i)
            if (!m_pool->GetEngine(i)->IsIdle())
                return false;
        return true;
    }
    const PoolRequestRecord& Rec(int id) { return m_rec.Of(id); }

    PoolRecorder m_rec;
    std::unique_ptr<CMLHttpPool> m_pool;
    velatest::TempDir m_dir;
};

// ============================================================ closes

TEST_F(PoolFaultTest, APeerClosingInTheMiddleOfTheHeadIsNetError34)
{
    const QString path = m_dir.File("head.bin");
    const CQWString file(path);
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send("HTTP/1.1 200 OK\r\nContent-Le").Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/cut-head"), KId, &file);
    ASSERT_TRUE(WaitDone(KId));
    EXPECT_THAT(Rec(KId).trace, ElementsAre("event 32", "net-error 34"));
    EXPECT_FALSE(QFile::exists(path));
    EXPECT_TRUE(AllIdle());
}

TEST_F(PoolFaultTest, APeerClosingInTheMiddleOfAChunkSizeLineIsNetError34)
{
    const QString path = m_dir.File("chunk-line.bin");
    const CQWString file(path);
    ScriptedPeer peer;
    // The second chunk's size line is cut after its first digit.
    peer.AddScript(PeerScript().ExpectHead().Send(KChunkedHead + "5\r\nhello\r\n1").Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/cut-chunk-line"), KId, &file);
    ASSERT_TRUE(WaitDone(KId));
    EXPECT_THAT(Rec(KId).trace, ElementsAre("event 32", "header 200", "data", "net-error 34"));
    EXPECT_EQ(QByteArray("hello"), Rec(KId).body);
    EXPECT_FALSE(QFile::exists(path));
    EXPECT_TRUE(AllIdle());
}

TEST_F(PoolFaultTest, APeerClosingInTheMiddleOfAChunkIsNetError34)
{
    const QString path = m_dir.File("chunk.bin");
    const CQWString file(path);
    ScriptedPeer peer;
    // A chunk of 0x1a bytes of which 9 come.
    peer.AddScript(PeerScript().ExpectHead().Send(KChunkedHead + "3\r\nabc\r\n1a\r\nsomething").Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/cut-chunk"), KId, &file);
    ASSERT_TRUE(WaitDone(KId));
    EXPECT_THAT(Rec(KId).trace, ElementsAre("event 32", "header 200", "data", "net-error 34"));
    EXPECT_EQ(QByteArray("abcsomething"), Rec(KId).body);
    EXPECT_FALSE(QFile::exists(path));
    EXPECT_TRUE(AllIdle());
}

TEST_F(PoolFaultTest, APeerClosingRightAfterTheLastChunkCompletes)
{
    const QString path = m_dir.File("whole-chunked.bin");
    const CQWString file(path);
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send(KChunkedHead + "3\r\nabc\r\n0\r\n\r\n").Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/whole-chunked"), KId, &file);
    ASSERT_TRUE(WaitDone(KId));
    EXPECT_EQ(KCompleted, Rec(KId).trace);
    EXPECT_EQ(QByteArray("abc"), ReadFile(path));
    EXPECT_TRUE(AllIdle());
}

TEST_F(PoolFaultTest, APeerClosingInTheMiddleOfAGzipStreamFramedByLengthIsNetError34)
{
    const QByteArray plain = Compressible(30000);
    const QByteArray gz = Gzip(plain);
    const QString path = m_dir.File("gzip-length.bin");
    const CQWString file(path);
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send(GzipLengthHead(gz.size()) + gz.left(gz.size() / 2)).Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/cut-gzip"), KId, &file);
    ASSERT_TRUE(WaitDone(KId));
    EXPECT_THAT(Rec(KId).trace, ElementsAre("event 32", "header 200", "data", "net-error 34"));
    EXPECT_FALSE(Rec(KId).body.isEmpty());
    EXPECT_LT(Rec(KId).body.size(), plain.size());
    EXPECT_TRUE(plain.startsWith(Rec(KId).body)) << "decoded bytes are the start of the text";
    EXPECT_FALSE(QFile::exists(path));
    EXPECT_TRUE(AllIdle());
}

TEST_F(PoolFaultTest, APeerClosingInTheMiddleOfAGzipStreamFramedByTheCloseCompletesWithWhatCame)
{
    const QByteArray plain = Compressible(30000);
    const QByteArray gz = Gzip(plain);
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send(KGzipCloseFramedHead + gz.left(gz.size() / 2)).Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/cut-gzip-stream"), KId);
    ASSERT_TRUE(WaitDone(KId));
    EXPECT_EQ(KCompleted, Rec(KId).trace);
    EXPECT_FALSE(Rec(KId).body.isEmpty());
    EXPECT_LT(Rec(KId).body.size(), plain.size());
    EXPECT_TRUE(plain.startsWith(Rec(KId).body));
    for (int len : Rec(KId).pieceLengths)
        EXPECT_LE(len, 1024);
    EXPECT_TRUE(AllIdle());
}

TEST_F(PoolFaultTest, AGzipBodyCompletesAtItsEndAndThePeerClosingAfterwardsIsNetError34)
{
    const QByteArray plain = Compressible(20000);
    const QByteArray gz = Gzip(plain);
    bool completedBusy = false;
    m_rec.m_onTerminal = [&](int id) {
        if (id == KId && Rec(KId).trace.back() == "complete")
            completedBusy = !m_pool->GetEngine(0)->IsIdle();
    };
    ScriptedPeer peer;
    peer.AddScript(PeerScript()
                       .ExpectHead()
                       .Send(GzipLengthHead(gz.size()) + gz)
                       .WaitUntil([this] { return m_rec.Done(KId); })
                       .Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/gzip"), KId);
    ASSERT_TRUE(SpinUntil([this] { return Rec(KId).terminalReports >= 2; }, KDeadlineMs));
    EXPECT_THAT(Rec(KId).trace, ElementsAre("event 32", "header 200", "data", "complete", "net-error 34"));
    EXPECT_EQ(plain, Rec(KId).body);
    EXPECT_TRUE(completedBusy) << "a gzip completion leaves the engine busy until the close";
    EXPECT_TRUE(AllIdle());
}

TEST_F(PoolFaultTest, ABodyMarkedGzipThatIsNoGzipStreamIsNetEvent48)
{
    const QByteArray body = "not gzip at all";
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send(GzipLengthHead(body.size()) + body).Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/bad-gzip"), KId);
    ASSERT_TRUE(WaitDone(KId));
    EXPECT_THAT(Rec(KId).trace, ElementsAre("event 32", "header 200", "event 48"));
    EXPECT_TRUE(Rec(KId).body.isEmpty());
    EXPECT_TRUE(AllIdle());
    ASSERT_TRUE(peer.WaitForScriptDone(0));
    velatest::ProcessPendingEvents();
    EXPECT_EQ(1, Rec(KId).terminalReports) << "nothing more after the decoding failure";
}

TEST_F(PoolFaultTest, AChunkedGzipBodyOneBytePerReadCompletesAtItsStreamEndThenTheCloseIsNetError34)
{
    const QByteArray plain = Compressible(3000);
    const QByteArray gz = Gzip(plain);
    // Two chunks; the zero-size chunk after the stream's end is never read.
    const int first = gz.size() / 3;
    const QByteArray body = QByteArray::number(first, 16) + "\r\n" + gz.left(first) + "\r\n" +
                            QByteArray::number(gz.size() - first, 16) + "\r\n" + gz.mid(first) + "\r\n0\r\n\r\n";
    ScriptedPeer peer;
    peer.AddScript(PeerScript()
                       .ExpectHead()
                       .SendSlowly("HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nTransfer-Encoding: chunked\r\n\r\n" +
                                       body,
                                   1)
                       .Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/gzip-chunked"), KId);
    ASSERT_TRUE(SpinUntil([this] { return Rec(KId).terminalReports >= 2; }, KDeadlineMs));
    EXPECT_THAT(Rec(KId).trace, ElementsAre("event 32", "header 200", "data", "complete", "net-error 34"));
    EXPECT_EQ(plain, Rec(KId).body);
    EXPECT_TRUE(AllIdle());
}

TEST_F(PoolFaultTest, BytesBeyondTheContentLengthInTheSameReadAreDelivered)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send(LengthHead(2) + "okEXTRA").Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/extra"), KId);
    ASSERT_TRUE(WaitDone(KId));
    EXPECT_EQ(KCompleted, Rec(KId).trace);
    // The length is compared after each piece, never used to cut one.
    EXPECT_EQ(QByteArray("okEXTRA"), Rec(KId).body);
    EXPECT_TRUE(AllIdle());
}

TEST_F(PoolFaultTest, AnEmptyBodyByLengthCompletesOnlyWhenThePeerCloses)
{
    bool release = false;
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send(LengthHead(0)).WaitUntil([&release] { return release; }).Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/empty"), KId);
    ASSERT_TRUE(SpinUntil([this] { return Rec(KId).trace.size() >= 2; }, KDeadlineMs));
    ASSERT_TRUE(SpinUntil([&] { return peer.Captured(0).size() == 1; }, KDeadlineMs));
    velatest::ProcessPendingEvents();
    // Completion is tested when a piece arrives; none will until the close.
    EXPECT_THAT(Rec(KId).trace, ElementsAre("event 32", "header 200"));
    EXPECT_FALSE(AllIdle());

    release = true;
    ASSERT_TRUE(WaitDone(KId));
    EXPECT_THAT(Rec(KId).trace, ElementsAre("event 32", "header 200", "complete"));
    EXPECT_TRUE(AllIdle());
}

TEST_F(PoolFaultTest, ACancelFromInsideTheFirstChunkReportEndsTheRequestThere)
{
    // Three chunks and the last chunk in one write: the cancel comes during
    // the report of the first.
    ScriptedPeer peer;
    peer.AddScript(PeerScript()
                       .ExpectHead()
                       .Send(KChunkedHead + "3\r\none\r\n3\r\ntwo\r\n5\r\nthree\r\n0\r\n\r\n")
                       .ExpectClose());
    ASSERT_TRUE(peer.Listen());
    m_rec.m_onData = [this](int id) { m_pool->CancelDownLoadRequest(id); };
    Get(peer.Url("/cancel-in-chunk"), KId);
    ASSERT_TRUE(peer.WaitForScriptDone(0, KDeadlineMs)) << "the cancel closes the connection";
    velatest::ProcessPendingEvents();
    EXPECT_THAT(Rec(KId).trace, ElementsAre("event 32", "header 200", "data"));
    EXPECT_EQ(QByteArray("one"), Rec(KId).body);
    EXPECT_EQ(0, m_rec.TerminalReports());
    EXPECT_TRUE(AllIdle());
}

TEST_F(PoolFaultTest, ACancelFromInsideTheFirstPieceOfALengthBodyEndsTheRequestThere)
{
    const QByteArray body = Pattern(5000);
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send(LengthHead(body.size()) + body).ExpectClose());
    ASSERT_TRUE(peer.Listen());
    m_rec.m_onData = [this](int id) { m_pool->CancelDownLoadRequest(id); };
    Get(peer.Url("/cancel-in-length"), KId);
    ASSERT_TRUE(peer.WaitForScriptDone(0, KDeadlineMs)) << "the cancel closes the connection";
    velatest::ProcessPendingEvents();
    EXPECT_THAT(Rec(KId).trace, ElementsAre("event 32", "header 200", "data"));
    ASSERT_EQ(1u, Rec(KId).pieceLengths.size()) << "nothing after the piece that cancelled";
    EXPECT_FALSE(Rec(KId).body.isEmpty());
    EXPECT_TRUE(body.startsWith(Rec(KId).body));
    EXPECT_EQ(0, m_rec.TerminalReports());
    EXPECT_TRUE(AllIdle());
}

// ============================================================ resets

TEST_F(PoolFaultTest, APeerResettingBeforeItAnswersIsNetError34)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Abort());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/reset"), KId);
    ASSERT_TRUE(WaitDone(KId));
    EXPECT_THAT(Rec(KId).trace, ElementsAre("event 32", "net-error 34"));
    EXPECT_TRUE(AllIdle());
}

TEST_F(PoolFaultTest, APeerResettingInTheMiddleOfALengthBodyIsNetError34)
{
    const QString path = m_dir.File("reset.bin");
    const CQWString file(path);
    ScriptedPeer peer;
    peer.AddScript(PeerScript()
                       .ExpectHead()
                       .Send(LengthHead(100) + "0123456789")
                       .WaitUntil([this] { return Rec(KId).body.size() == 10; })
                       .Abort());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/reset-body"), KId, &file);
    ASSERT_TRUE(WaitDone(KId));
    EXPECT_THAT(Rec(KId).trace, ElementsAre("event 32", "header 200", "data", "net-error 34"));
    EXPECT_EQ(QByteArray("0123456789"), Rec(KId).body);
    EXPECT_FALSE(QFile::exists(path));
    EXPECT_TRUE(AllIdle());
}

// ============================================================ sizes and pace

TEST_F(PoolFaultTest, AHeadOf20KiBIsNetError64)
{
    const QByteArray head = HeadOfSize(KBigHeadSize);
    ASSERT_EQ(KBigHeadSize, head.size());
    ASSERT_GT(head.size(), KRecvBufferSize);
    const QString path = m_dir.File("big-head.bin");
    const CQWString file(path);
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send(head + "ok").Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/big-head"), KId, &file);
    ASSERT_TRUE(WaitDone(KId));
    EXPECT_THAT(Rec(KId).trace, ElementsAre("event 32", "net-error 64"));
    EXPECT_FALSE(QFile::exists(path));
    EXPECT_TRUE(AllIdle());
}

TEST_F(PoolFaultTest, APeerTricklingOneByteEvery10MsIsServedWhole)
{
    const QByteArray response = LengthHead(5) + "hello";
    PeerScript script;
    script.ExpectHead();
    Trickle(script, response, KTrickleMs).Close();
    ScriptedPeer peer;
    peer.AddScript(script);
    ASSERT_TRUE(peer.Listen());
    QElapsedTimer clock;
    clock.start();
    Get(peer.Url("/trickle"), KId);
    ASSERT_TRUE(WaitDone(KId));
    // Every byte before the last one is followed by a pause.
    EXPECT_GE(clock.elapsed(), static_cast<qint64>((response.size() - 1) * KTrickleMs));
    EXPECT_EQ(KCompleted, Rec(KId).trace);
    EXPECT_EQ(QByteArray("hello"), Rec(KId).body);
    // One byte per read; n counts the body bytes so far.
    EXPECT_EQ((std::vector<int>{1, 1, 1, 1, 1}), Rec(KId).pieceLengths);
    EXPECT_EQ((std::vector<int>{1, 2, 3, 4, 5}), Rec(KId).counts);
    EXPECT_TRUE(AllIdle());
}

// ============================================================ silence and refusals

TEST_F(PoolFaultTest, APeerThatNeverAnswersIsCancelledWithoutAReport)
{
    const QString path = m_dir.File("silent.bin");
    const CQWString file(path);
    ScriptedPeer silent;
    silent.AddScript(PeerScript().ExpectHead().StaySilent());
    ASSERT_TRUE(silent.Listen());
    Get(silent.Url("/silent"), KId, &file);
    ASSERT_TRUE(silent.WaitForScriptDone(0)) << "the request reached the peer";
    EXPECT_THAT(Rec(KId).trace, ElementsAre("event 32"));
    EXPECT_FALSE(AllIdle());
    EXPECT_TRUE(QFile::exists(path));

    m_pool->CancelDownLoadRequest(KOtherId);
    EXPECT_FALSE(m_pool->GetEngine(0)->IsIdle()) << "another id cancels nothing";
    m_pool->CancelDownLoadRequest(KId);
    EXPECT_TRUE(AllIdle());
    EXPECT_FALSE(QFile::exists(path)) << "a cancel deletes the receive file";
    ASSERT_TRUE(SpinUntil([&] { return silent.ClientClosed(0); }, KDeadlineMs));
    velatest::ProcessPendingEvents();
    EXPECT_THAT(Rec(KId).trace, ElementsAre("event 32"));
    EXPECT_EQ(0, m_rec.TerminalReports());

    // The engine serves the next request.
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send(LengthHead(2) + "ok").Close());
    ASSERT_TRUE(peer.Listen());
    Get(peer.Url("/next"), KOtherId);
    EXPECT_EQ(KOtherId, m_pool->GetEngine(0)->GetRequestID());
    ASSERT_TRUE(WaitDone(KOtherId));
    EXPECT_EQ(KCompleted, Rec(KOtherId).trace);
    EXPECT_THAT(Rec(KId).trace, ElementsAre("event 32"));
    EXPECT_TRUE(AllIdle());
}

TEST_F(PoolFaultTest, TwoHundredRefusedConnectionsInARowAreEachNetError34)
{
    const quint16 port = velatest::FreePort();
    ASSERT_NE(0, port);
    const QString url = QString("http://127.0.0.1:%1/refused").arg(port);
    int refused = 0;
    for (int i = 0; i < KRefusedInARow; ++i) {
        const int id = KFirstId + i;
        ASSERT_EQ(CMLHttpPool::KStarted, m_pool->DoGet(Url(url), id, nullptr)) << "request " << i;
        ASSERT_TRUE(WaitDone(id)) << "request " << i;
        ASSERT_THAT(Rec(id).trace, ElementsAre("net-error 34")) << "request " << i;
        ASSERT_TRUE(AllIdle()) << "request " << i;
        ++refused;
    }
    velatest::ProcessPendingEvents();
    EXPECT_EQ(KRefusedInARow, refused);
    EXPECT_EQ(KRefusedInARow, m_rec.TerminalReports());
}

// ============================================================ a thousand, some of them bad

// What a request meets and what it must hear.
struct MixCase
{
    enum BodyCheck
    {
        KBodyExact,   // the whole expected body
        KBodyPrefix,  // a non-empty part from the start of the expected body
        KBodyNone,    // no data
    };

    std::string name;
    PeerScript script;  // empty for the refused case
    std::vector<std::string> trace;
    BodyCheck check = KBodyNone;
    QByteArray body;
    int terminalReports = 1;
};

std::vector<MixCase> MixCases()
{
    const QByteArray plain = Compressible(12000);
    const QByteArray gz = Gzip(plain);
    const QByteArray good = Pattern(700);
    PeerScript trickle;
    trickle.ExpectHead().Send(LengthHead(5));
    Trickle(trickle, "hello", KTrickleMs).Close();

    std::vector<MixCase> cases;
    // The well-behaved peer comes first: index 0.
    cases.push_back({"good", PeerScript().ExpectHead().Send(LengthHead(good.size()) + good).Close(), KCompleted,
                     MixCase::KBodyExact, good, 1});
    cases.push_back({"close-in-head", PeerScript().ExpectHead().Send("HTTP/1.1 200 OK\r\nContent-Le").Close(),
                     {"event 32", "net-error 34"}, MixCase::KBodyNone, QByteArray(), 1});
    cases.push_back({"close-in-chunk-size-line",
                     PeerScript().ExpectHead().Send(KChunkedHead + "5\r\nhello\r\n1").Close(),
                     {"event 32", "header 200", "data", "net-error 34"}, MixCase::KBodyExact, "hello", 1});
    cases.push_back({"close-in-chunk", PeerScript().ExpectHead().Send(KChunkedHead + "1a\r\nsomething").Close(),
                     {"event 32", "header 200", "data", "net-error 34"}, MixCase::KBodyExact, "something", 1});
    cases.push_back({"close-in-gzip-framed-by-length",
                     PeerScript().ExpectHead().Send(GzipLengthHead(gz.size()) + gz.left(gz.size() / 2)).Close(),
                     {"event 32", "header 200", "data", "net-error 34"}, MixCase::KBodyPrefix, plain, 1});
    cases.push_back({"close-in-gzip-framed-by-close",
                     PeerScript().ExpectHead().Send(KGzipCloseFramedHead + gz.left(gz.size() / 2)).Close(),
                     KCompleted, MixCase::KBodyPrefix, plain, 1});
    cases.push_back({"reset-before-answer", PeerScript().ExpectHead().Abort(), {"event 32", "net-error 34"},
                     MixCase::KBodyNone, QByteArray(), 1});
    cases.push_back({"head-of-20-KiB", PeerScript().ExpectHead().Send(HeadOfSize(KBigHeadSize) + "ok").Close(),
                     {"event 32", "net-error 64"}, MixCase::KBodyNone, QByteArray(), 1});
    cases.push_back({"trickle", trickle, KCompleted, MixCase::KBodyExact, "hello", 1});
    cases.push_back({"refused", PeerScript(), {"net-error 34"}, MixCase::KBodyNone, QByteArray(), 1});
    cases.push_back({"status-404",
                     PeerScript().ExpectHead().Send("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n").Close(),
                     {"event 32", "http-error 404"}, MixCase::KBodyNone, QByteArray(), 1});
    cases.push_back({"not-gzip", PeerScript().ExpectHead().Send(GzipLengthHead(8) + "not gzip").Close(),
                     {"event 32", "header 200", "event 48"}, MixCase::KBodyNone, QByteArray(), 1});
    // Complete at the end of the stream, then the close: the extra net error.
    cases.push_back({"gzip-then-close", PeerScript().ExpectHead().Send(GzipLengthHead(gz.size()) + gz).Close(),
                     {"event 32", "header 200", "data", "complete", "net-error 34"}, MixCase::KBodyExact, plain,
                     2});
    return cases;
}

std::string Describe(const std::vector<std::string>& trace)
{
    std::string out;
    for (const std::string& t : trace)
        out += "[" + t + "] ";
    return out;
}

TEST_F(PoolFaultTest, AThousandRequestsWithASeededTenthMisbehavingEachGetTheirReports)
{
    SCOPED_TRACE("seed " + std::to_string(KMixSeed));
    std::vector<MixCase> cases = MixCases();
    const int kinds = static_cast<int>(cases.size());

    // The plan: a tenth of the requests, chosen by the seed, meet one of the
    // misbehaving peers (any case but the first), the rest the good one.
    std::mt19937 random(KMixSeed);
    std::vector<int> order(KMixRequests);
    for (int i = 0; i < KMixRequests; ++i)
        order[i] = i;
    std::shuffle(order.begin(), order.end(), random);
    std::vector<int> plan(KMixRequests, 0);
    for (int i = 0; i < KMixRequests / 10; ++i)
        plan[order[i]] = 1 + static_cast<int>(random() % static_cast<unsigned>(kinds - 1));

    std::vector<std::unique_ptr<ScriptedPeer>> peers;
    std::vector<QString> urls;
    const quint16 refusedPort = velatest::FreePort();
    ASSERT_NE(0, refusedPort);
    for (const MixCase& c : cases) {
        peers.push_back(std::make_unique<ScriptedPeer>());
        if (c.name == "refused") {
            urls.push_back(QString("http://127.0.0.1:%1/refused").arg(refusedPort));
            continue;
        }
        peers.back()->AddScript(c.script);
        ASSERT_TRUE(peers.back()->Listen());
        urls.push_back(peers.back()->Url("/" + QString::fromStdString(c.name)));
    }

    // The test's queue: at most KMixInFlight requests not yet ended; a
    // request has ended when it has had all the terminal reports of its case.
    int next = 0;
    int started = 0;
    int ended = 0;
    auto topUp = [&] {
        while (next < KMixRequests && started - ended < KMixInFlight) {
            if (m_pool->DoGet(Url(urls[plan[next]]), KFirstId + next, nullptr) != CMLHttpPool::KStarted)
                return;  // every engine busy: the next turn tries again
            ++next;
            ++started;
        }
    };
    m_rec.m_bKeepLog = false;
    m_rec.m_onTerminal = [&](int id) {
        const int index = id - KFirstId;
        if (index < 0 || index >= KMixRequests)
            return;
        if (m_rec.Of(id).terminalReports == cases[plan[index]].terminalReports) {
            ++ended;
            topUp();
        }
    };
    topUp();
    const bool allEnded = SpinUntil(
        [&] {
            topUp();
            return ended == KMixRequests;
        },
        60000);
    m_rec.m_onTerminal = nullptr;
    ASSERT_TRUE(allEnded) << ended << " of " << KMixRequests << " ended";
    ASSERT_TRUE(SpinUntil([this] { return AllIdle(); }, KDeadlineMs));
    velatest::ProcessPendingEvents();

    // Every request heard exactly what its case names.
    std::map<std::string, int> seen;
    int expectedTerminals = 0;
    int wrong = 0;
    for (int i = 0; i < KMixRequests; ++i) {
        const MixCase& c = cases[plan[i]];
        const PoolRequestRecord& r = m_rec.Of(KFirstId + i);
        ++seen[c.name];
        expectedTerminals += c.terminalReports;
        bool bodyRight = true;
        switch (c.check) {
        case MixCase::KBodyExact:
            bodyRight = r.body == c.body;
            break;
        case MixCase::KBodyPrefix:
            bodyRight = !r.body.isEmpty() && r.body.size() < c.body.size() && c.body.startsWith(r.body);
            break;
        case MixCase::KBodyNone:
            bodyRight = r.body.isEmpty();
            break;
        }
        if (r.trace != c.trace || !bodyRight || r.terminalReports != c.terminalReports) {
            if (++wrong <= 5)
                ADD_FAILURE() << "request " << i << " (" << c.name << "): " << Describe(r.trace) << "body "
                              << r.body.size() << " bytes";
        }
    }
    EXPECT_EQ(0, wrong);
    EXPECT_EQ(expectedTerminals, m_rec.TerminalReports());
    EXPECT_EQ(KMixRequests - KMixRequests / 10, seen["good"]);
    // Each peer saw one connection per request of its case.
    for (int k = 0; k < kinds; ++k) {
        if (cases[k].name == "refused")
            continue;
        EXPECT_EQ(seen[cases[k].name], peers[k]->ConnectionCount()) << cases[k].name;
    }
    std::string mix;
    for (const auto& entry : seen)
        mix += entry.first + "=" + std::to_string(entry.second) + " ";
    RecordProperty("mix", mix);
}

}  // namespace
