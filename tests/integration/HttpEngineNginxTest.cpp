// CMLHttpEngine against a real nginx on 127.0.0.1: multi-megabyte bodies by
// Content-Length to memory and to a file, a range request, a gzip body that
// nginx sends chunked, https with a CA of the test's own (and with one that
// is not trusted), and a 404 with a receive file. Expected bodies are the
// files the test gave nginx; digests come from QCryptographicHash.

#include "src/MLHttpEngine.h"

#include "src/CQHttpSocketEngine.h"
#include "src/DNSCache.h"
#include "support/ServerFixtures.h"
#include "support/TestSupport.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QCryptographicHash>
#include <QFile>
#include <QObject>
#include <QString>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace {

using ::testing::ElementsAre;
using velatest::NginxOptions;
using velatest::NginxServer;
using velatest::SpinUntil;

const int KId = 0x4E47;
// The page id doubles as the encoding mode that asks for gzip.
const int KIdCurrentPage = static_cast<int>(0xF0000000u);
const int KDeadlineMs = 10000;
const int KDownloadDeadlineMs = 30000;
const int KMaxPiece = 1024;
const int KEightMiB = 8 << 20;

QByteArray RandomBytes(int size, unsigned seed)
{
    std::mt19937 random(seed);
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(random() & 0xff);
    return bytes;
}

QByteArray Words(int size, unsigned seed)
{
    static const char* const words[] = {"velanet", "loopback", "chunk", "gzip", "engine", "socket", "nginx", "\n"};
    std::mt19937 random(seed);
    QByteArray text;
    text.reserve(size + 16);
    while (text.size() < size) {
        text += words[random() % 8];
        text += ' ';
    }
    text.truncate(size);
    return text;
}

std::string Md5(const QByteArray& bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex().toStdString();
}

QByteArray ReadFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// ------------------------------------------------------------ recording

// Everything one engine reported, in order. Consecutive data reports make
// one "data" entry of the trace; their bytes and arguments are kept apart.
struct Record
{
    std::vector<std::string> trace;
    std::vector<int> ids;
    QByteArray body;
    std::vector<int> pieceLengths;
    std::vector<int> counts;
    int completions = 0;
    QString completedPath;
    bool done = false;

    // The head as reported.
    int status = 0;
    int contentLength = 0;
    int bodyType = 0;
    int contentEncoding = 0;
    int rangeStart = 0;
    int rangeTotal = 0;

    // Observations made from inside the reports.
    const CMLHttpEngine* engine = nullptr;
    bool idleAtComplete = false;
    QString fileToWatch;
    bool fileExistedAtConnect = false;
    // Run once, from the event loop, after the first completion report has
    // returned and before anything that happens on the connection
    // afterwards: events posted later (a failure the socket engine defers)
    // come after it. Dropped when context goes away first.
    std::function<void()> afterComplete;
    QObject* context = nullptr;

    void Add(int id, const std::string& what)
    {
        trace.push_back(what);
        ids.push_back(id);
    }
    void HttpError(int id, int code)
    {
        Add(id, "http-error " + std::to_string(code));
        done = true;
    }
    void Complete(int id, const CQWString& path)
    {
        Add(id, "complete");
        ++completions;
        completedPath = path.ToQString();
        idleAtComplete = engine != nullptr && engine->IsIdle();
        if (afterComplete && context != nullptr) {
            QMetaObject::invokeMethod(context, std::move(afterComplete), Qt::QueuedConnection);
            afterComplete = nullptr;
        }
        done = true;
    }
    void NetEvent(int id, int event)
    {
        Add(id, "event " + std::to_string(event));
        if (event == velanet::KEventConnected && !fileToWatch.isEmpty())
            fileExistedAtConnect = QFile::exists(fileToWatch);
    }
    void NetError(int id, int event)
    {
        Add(id, "net-error " + std::to_string(event));
        done = true;
    }
    void Header(int id, const CHttpResponseHead& head)
    {
        Add(id, "header " + std::to_string(head.m_nStatusCode));
        status = head.m_nStatusCode;
        contentLength = head.m_nContentLength;
        bodyType = head.m_nBodyType;
        contentEncoding = head.m_nContentEncoding;
        rangeStart = head.m_nRangeStart;
        rangeTotal = head.m_nRangeTotal;
    }
    void Data(int id, const unsigned char* data, int len, int n)
    {
        if (trace.empty() || trace.back() != "data")
            Add(id, "data");
        body.append(reinterpret_cast<const char*>(data), len);
        pieceLengths.push_back(len);
        counts.push_back(n);
    }
    void URLChange(int id, const CQSString& location)
    {
        Add(id, "url-change " + std::string(location.GetDataPtr(), static_cast<size_t>(location.GetLength())));
    }

    int LongestPiece() const
    {
        int longest = 0;
        for (int len : pieceLengths)
            longest = len > longest ? len : longest;
        return longest;
    }
    bool IdsAll(int id) const
    {
        for (int seen : ids) {
            if (seen != id)
                return false;
        }
        return true;
    }
};

// Listens as the engine's MHttpObserver.
class ObserverRecorder : public MHttpObserver
{
public:
    int OnHttpEngine_HttpError(int id, int status) override
    {
        m_record.HttpError(id, status);
        return 0;
    }
    int OnHttpEngine_Complete(int id, CQWString& recvFile) override
    {
        m_record.Complete(id, recvFile);
        return 0;
    }
    int OnHttpEngine_NetEvent(int id, int event) override
    {
        m_record.NetEvent(id, event);
        return 0;
    }
    int OnHttpEngine_NetError(int id, int event) override
    {
        m_record.NetError(id, event);
        return 0;
    }
    int OnHttpEngine_RecvHeader(int id, CHttpResponseHead& head) override
    {
        m_record.Header(id, head);
        return 1;
    }
    int OnHttpEngine_ResponseData(int id, unsigned char* data, int len, int n) override
    {
        m_record.Data(id, data, len, n);
        return 1;
    }
    int OnHttpEngine_URLChange(int id, CQSString& location) override
    {
        m_record.URLChange(id, location);
        return 0;
    }

    Record m_record;
};

// Listens as an owner of engines (MHttpNotifier), behind the engine's own
// adapter.
class NotifierRecorder : public MHttpNotifier
{
public:
    int HttpErrorOccured(int id, int status) override
    {
        m_record.HttpError(id, status);
        return 0;
    }
    int HttpHeaderReceived(int id, CHttpResponseHead& head, CHttpData&) override
    {
        m_record.Header(id, head);
        return 1;
    }
    int HttpResponseReceived(int id, unsigned char* data, int len, int n) override
    {
        m_record.Data(id, data, len, n);
        return 1;
    }
    int HttpResponseComplete(int id, CQWString& recvFile) override
    {
        m_record.Complete(id, recvFile);
        return 0;
    }
    int HttpEventNotify(int id, int event) override
    {
        m_record.NetEvent(id, event);
        return 0;
    }
    int HttpErrorNotify(int id, int event) override
    {
        m_record.NetError(id, event);
        return 0;
    }
    int HttpEngine_URLChange(int id, CQSString& location) override
    {
        m_record.URLChange(id, location);
        return 0;
    }

    Record m_record;
};

// ------------------------------------------------------------ fixture

class HttpEngineNginxTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        CDNSCache::SetCacheDirectory(m_dnsDir.Path());
        UseObserver();
    }
    void TearDown() override
    {
        m_engine.reset();
        CDNSCache::ReleaseRegistered();
    }

    // A fresh engine made with NewL() reporting to m_observer.
    void UseObserver()
    {
        m_engine.reset(CMLHttpEngine::NewL());
        m_engine->SetObserver(&m_observer);
        m_engine->SetRequestID(KId);
        m_rec = &m_observer.m_record;
        m_rec->engine = m_engine.get();
        m_rec->context = &m_context;
    }
    // A fresh engine made with NewL(notifier) reporting to m_notifier.
    void UseNotifier()
    {
        m_engine.reset(CMLHttpEngine::NewL(&m_notifier));
        m_engine->SetRequestID(KId);
        m_rec = &m_notifier.m_record;
        m_rec->engine = m_engine.get();
        m_rec->context = &m_context;
    }

    void Get(const QString& url, const CQWString* recvFile = nullptr, int offset = -1)
    {
        const QByteArray text = url.toLatin1();
        ASSERT_NE(0, m_engine->DoGet(text.constData(), recvFile, offset));
    }
    bool WaitDone(int deadlineMs = KDeadlineMs)
    {
        return SpinUntil([this] { return m_rec->done; }, deadlineMs);
    }

    velatest::TempDir m_dnsDir;
    velatest::TempDir m_dir;
    ObserverRecorder m_observer;
    NotifierRecorder m_notifier;
    Record* m_rec = nullptr;
    std::unique_ptr<CMLHttpEngine> m_engine;
    // Receives the posted afterComplete calls; a call still queued when the
    // test ends goes with it.
    QObject m_context;
};

// ============================================================ by length

// nginx writes a file with sendfile or through its own buffers; the bytes
// reach the engine in different reads either way.
struct SendfileRow
{
    const char* name;
    bool sendfile;
};

void PrintTo(const SendfileRow& row, std::ostream* os)
{
    *os << row.name;
}

class HttpEngineNginxDownloadTest : public HttpEngineNginxTest, public ::testing::WithParamInterface<SendfileRow>
{
};

TEST_P(HttpEngineNginxDownloadTest, AnEightMiBDownloadToMemoryArrivesWholeInPiecesOfAtMost1024)
{
    const QByteArray file = RandomBytes(KEightMiB, 20240801);
    NginxOptions options;
    options.sendfile = GetParam().sendfile;
    NginxServer nginx(options);
    ASSERT_TRUE(nginx.AddFile("data/big.bin", file));
    ASSERT_TRUE(nginx.AddFile("small.txt", "after the big one\n"));
    ASSERT_TRUE(nginx.Start()) << nginx.Error().toStdString();

    Get(nginx.Url("/data/big.bin"));
    ASSERT_TRUE(WaitDone(KDownloadDeadlineMs));
    EXPECT_THAT(m_rec->trace, ElementsAre("event 32", "header 200", "data", "complete"));
    EXPECT_TRUE(m_rec->IdsAll(KId));
    EXPECT_EQ(200, m_rec->status);
    EXPECT_EQ(KEightMiB, m_rec->contentLength);
    EXPECT_EQ(CHttpResponseHead::KBodyByLength, m_rec->bodyType);
    EXPECT_EQ(KEightMiB, m_rec->body.size());
    EXPECT_EQ(Md5(file), Md5(m_rec->body));
    EXPECT_LE(m_rec->LongestPiece(), KMaxPiece);
    EXPECT_GE(m_rec->pieceLengths.size(), static_cast<size_t>(KEightMiB / KMaxPiece));
    // n is the running count of body bytes in this mode.
    ASSERT_FALSE(m_rec->counts.empty());
    EXPECT_EQ(m_rec->pieceLengths.front(), m_rec->counts.front());
    EXPECT_EQ(KEightMiB, m_rec->counts.back());
    EXPECT_EQ(1, m_rec->completions);
    EXPECT_TRUE(m_rec->completedPath.isEmpty());
    // Completion by length resets before it reports.
    EXPECT_TRUE(m_rec->idleAtComplete);
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_EQ(CMLHttpEngine::KSocketIdle, m_engine->GetHttpSocketCurrentStatus());

    // The same engine carries the next request, and nothing of the first
    // connection (nginx closing it) shows up in its reports.
    m_observer.m_record = Record();
    m_rec->engine = m_engine.get();
    m_rec->context = &m_context;
    Get(nginx.Url("/small.txt"));
    ASSERT_TRUE(WaitDone());
    EXPECT_THAT(m_rec->trace, ElementsAre("event 32", "header 200", "data", "complete"));
    EXPECT_EQ(QByteArray("after the big one\n"), m_rec->body);
    EXPECT_TRUE(m_engine->IsIdle());
}

INSTANTIATE_TEST_SUITE_P(Nginx, HttpEngineNginxDownloadTest,
                         ::testing::Values(SendfileRow{"sendfile", true}, SendfileRow{"no_sendfile", false}),
                         [](const ::testing::TestParamInfo<SendfileRow>& info) { return std::string(info.param.name); });

TEST_F(HttpEngineNginxTest, AnEightMiBDownloadToAFileThroughTheNotifierMatchesTheServedFile)
{
    const QByteArray file = RandomBytes(KEightMiB, 77);
    NginxServer nginx;
    ASSERT_TRUE(nginx.AddFile("big.bin", file));
    ASSERT_TRUE(nginx.Start()) << nginx.Error().toStdString();
    UseNotifier();
    const QString path = m_dir.File("download.bin");
    const CQWString recvFile(path);
    m_rec->fileToWatch = path;

    Get(nginx.Url("/big.bin"), &recvFile);
    ASSERT_TRUE(WaitDone(KDownloadDeadlineMs));
    EXPECT_THAT(m_rec->trace, ElementsAre("event 32", "header 200", "data", "complete"));
    EXPECT_TRUE(m_rec->IdsAll(KId));
    EXPECT_TRUE(m_rec->fileExistedAtConnect) << "the receive file is created when the request goes out";
    EXPECT_EQ(path, m_rec->completedPath);
    EXPECT_EQ(1, m_rec->completions);
    // The body goes to the file and to the owner alike.
    EXPECT_EQ(Md5(file), Md5(m_rec->body));
    EXPECT_LE(m_rec->LongestPiece(), KMaxPiece);
    const QByteArray saved = ReadFile(path);
    EXPECT_EQ(KEightMiB, saved.size());
    EXPECT_EQ(Md5(file), Md5(saved));
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_TRUE(QFile::exists(path)) << "completion keeps the receive file";
}

// ============================================================ ranges

TEST_F(HttpEngineNginxTest, APartialGetFromAnOffsetReturnsTheTailAs206)
{
    const int size = (1 << 20) + 333;
    const int offset = 700001;
    const QByteArray file = RandomBytes(size, 4242);
    NginxServer nginx;
    ASSERT_TRUE(nginx.AddFile("resume.bin", file));
    ASSERT_TRUE(nginx.Start()) << nginx.Error().toStdString();
    const QString path = m_dir.File("tail.bin");
    const CQWString recvFile(path);

    Get(nginx.Url("/resume.bin"), &recvFile, offset);
    ASSERT_TRUE(WaitDone());
    EXPECT_THAT(m_rec->trace, ElementsAre("event 32", "header 206", "data", "complete"));
    // Content-Range: bytes first-last/complete-length (RFC 9110, 14.4).
    EXPECT_EQ(offset, m_rec->rangeStart);
    EXPECT_EQ(size, m_rec->rangeTotal);
    EXPECT_EQ(size - offset, m_rec->contentLength);
    const QByteArray tail = file.mid(offset);
    EXPECT_EQ(tail.size(), m_rec->body.size());
    EXPECT_EQ(Md5(tail), Md5(m_rec->body));
    EXPECT_EQ(Md5(tail), Md5(ReadFile(path)));
    EXPECT_LE(m_rec->LongestPiece(), KMaxPiece);
    EXPECT_EQ(size - offset, m_rec->counts.back());
    EXPECT_TRUE(m_engine->IsIdle());
}

TEST_F(HttpEngineNginxTest, TheStringOverloadAsksForARangeFromByteZero)
{
    const QByteArray file = RandomBytes(300000, 99);
    NginxServer nginx;
    ASSERT_TRUE(nginx.AddFile("whole.bin", file));
    ASSERT_TRUE(nginx.Start()) << nginx.Error().toStdString();
    const QString path = m_dir.File("whole.bin");
    const CQSString url(nginx.Url("/whole.bin").toLatin1().constData());

    ASSERT_EQ(1, m_engine->DoGet(url, CQWString(path)));
    ASSERT_TRUE(WaitDone());
    EXPECT_THAT(m_rec->trace, ElementsAre("event 32", "header 206", "data", "complete"));
    EXPECT_EQ(0, m_rec->rangeStart);
    EXPECT_EQ(file.size(), m_rec->rangeTotal);
    EXPECT_EQ(path, m_rec->completedPath);
    EXPECT_EQ(Md5(file), Md5(ReadFile(path)));
    EXPECT_EQ(Md5(file), Md5(m_rec->body));
}

// ============================================================ gzip

TEST_F(HttpEngineNginxTest, AChunkedGzipTextIsDecodedInPiecesAndLeavesTheEngineBusyUntilCancelled)
{
    const int size = 3 << 20;
    const QByteArray text = Words(size, 5);
    NginxOptions options;
    options.gzip = true;
    NginxServer nginx(options);
    ASSERT_TRUE(nginx.AddFile("words.txt", text));
    ASSERT_TRUE(nginx.Start()) << nginx.Error().toStdString();
    m_engine->SetRequestID(KIdCurrentPage);
    // nginx closes the connection right after the body (the request says
    // "Connection: close"); the engine is looked at, and cancelled, after
    // the completion report but before that close can be reported.
    bool ran = false;
    bool idleAfterReport = true;
    int cancelResult = 0;
    bool idleAfterCancel = false;
    m_rec->afterComplete = [&] {
        ran = true;
        idleAfterReport = m_engine->IsIdle();
        cancelResult = m_engine->CancelRequest();
        idleAfterCancel = m_engine->IsIdle();
    };

    Get(nginx.Url("/words.txt"));
    ASSERT_TRUE(WaitDone(KDownloadDeadlineMs));
    ASSERT_TRUE(SpinUntil([&] { return ran; }, KDeadlineMs));
    EXPECT_EQ(CHttpResponseHead::KContentEncodingGzip, m_rec->contentEncoding);
    EXPECT_EQ(CHttpResponseHead::KBodyChunked, m_rec->bodyType);
    EXPECT_EQ(CMLHttpEngine::KUnframedContentLength, m_rec->contentLength);
    EXPECT_EQ(size, m_rec->body.size());
    EXPECT_EQ(Md5(text), Md5(m_rec->body));
    EXPECT_LE(m_rec->LongestPiece(), KMaxPiece);
    // Text this repetitive inflates to more than one piece per received piece.
    EXPECT_GT(m_rec->pieceLengths.size(), static_cast<size_t>(size / KMaxPiece));
    for (size_t i = 1; i < m_rec->counts.size(); ++i)
        ASSERT_LE(m_rec->counts[i - 1], m_rec->counts[i]) << "the data call count never goes back, piece " << i;
    EXPECT_EQ(1, m_rec->completions);

    // The gzip completion does not reset: busy until cancelled.
    EXPECT_FALSE(m_rec->idleAtComplete);
    EXPECT_FALSE(idleAfterReport);
    EXPECT_EQ(1, cancelResult);
    EXPECT_TRUE(idleAfterCancel);
    EXPECT_TRUE(m_engine->IsIdle());
    // The connection went with the cancel, so nginx closing it is never
    // reported: the next exchange on the engine shows only its own reports.
    ASSERT_TRUE(nginx.AddFile("next.bin", "next\n"));
    m_rec->done = false;
    Get(nginx.Url("/next.bin"));
    ASSERT_TRUE(WaitDone());
    EXPECT_THAT(m_rec->trace, ElementsAre("event 32", "header 200", "data", "complete", "event 32", "header 200",
                                          "data", "complete"));
    EXPECT_TRUE(m_rec->IdsAll(KIdCurrentPage));
    EXPECT_TRUE(m_rec->body.endsWith("next\n"));
}

TEST_F(HttpEngineNginxTest, NginxClosingAfterAGzipCompletionIsNetError34AndDeletesTheReceiveFile)
{
    const QByteArray text = Words(500000, 8);
    NginxOptions options;
    options.gzip = true;
    NginxServer nginx(options);
    ASSERT_TRUE(nginx.AddFile("words.txt", text));
    ASSERT_TRUE(nginx.Start()) << nginx.Error().toStdString();
    m_engine->SetRequestID(KIdCurrentPage);
    const QString path = m_dir.File("words.gz");
    const CQWString recvFile(path);
    bool ran = false;
    bool existedAfterComplete = false;
    m_rec->afterComplete = [&] {
        ran = true;
        existedAfterComplete = QFile::exists(path);
    };

    Get(nginx.Url("/words.txt"), &recvFile);
    ASSERT_TRUE(SpinUntil([this] { return m_rec->trace.size() >= 5; }, KDownloadDeadlineMs));
    EXPECT_THAT(m_rec->trace, ElementsAre("event 32", "header 200", "data", "complete", "net-error 34"));
    EXPECT_EQ(Md5(text), Md5(m_rec->body));
    EXPECT_EQ(path, m_rec->completedPath);
    EXPECT_FALSE(m_rec->idleAtComplete);
    EXPECT_TRUE(ran);
    EXPECT_TRUE(existedAfterComplete);
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_FALSE(QFile::exists(path)) << "the reset of event 34 deletes the receive file";
}

TEST_F(HttpEngineNginxTest, WithoutThePageIdTheSameTextComesPlainByLength)
{
    const QByteArray text = Words(200000, 6);
    NginxOptions options;
    options.gzip = true;
    NginxServer nginx(options);
    ASSERT_TRUE(nginx.AddFile("words.txt", text));
    ASSERT_TRUE(nginx.Start()) << nginx.Error().toStdString();

    Get(nginx.Url("/words.txt"));
    ASSERT_TRUE(WaitDone());
    EXPECT_THAT(m_rec->trace, ElementsAre("event 32", "header 200", "data", "complete"));
    EXPECT_EQ(CHttpResponseHead::KContentEncodingNone, m_rec->contentEncoding);
    EXPECT_EQ(CHttpResponseHead::KBodyByLength, m_rec->bodyType);
    EXPECT_EQ(text.size(), m_rec->contentLength);
    EXPECT_EQ(Md5(text), Md5(m_rec->body));
    EXPECT_TRUE(m_engine->IsIdle());
}

// ============================================================ https

TEST_F(HttpEngineNginxTest, AnHttpsDownloadFromAServerOfATrustedCaArrivesIntact)
{
    velatest::TestCertificates certificates;
    ASSERT_TRUE(certificates.Generate()) << certificates.Error().toStdString();
    // The CA is new to this process, so only this call makes it trusted.
    CQHttpSocketEngine::AddCaCertificates({certificates.CaCertificate()});
    NginxOptions options;
    options.tls = &certificates;
    NginxServer nginx(options);
    const QByteArray file = RandomBytes(2 << 20, 1234);
    ASSERT_TRUE(nginx.AddFile("secure.bin", file));
    ASSERT_TRUE(nginx.Start()) << nginx.Error().toStdString();
    const QString path = m_dir.File("secure.bin");
    const CQWString recvFile(path);

    Get(nginx.TlsUrl("/secure.bin"), &recvFile);
    ASSERT_TRUE(WaitDone(KDownloadDeadlineMs));
    // "localhost" is looked up (38, 37) before the connection.
    EXPECT_THAT(m_rec->trace, ElementsAre("event 38", "event 37", "event 32", "header 200", "data", "complete"));
    EXPECT_EQ(file.size(), m_rec->contentLength);
    EXPECT_EQ(Md5(file), Md5(m_rec->body));
    EXPECT_EQ(Md5(file), Md5(ReadFile(path)));
    EXPECT_LE(m_rec->LongestPiece(), KMaxPiece);
    EXPECT_TRUE(m_engine->IsIdle());
}

TEST_F(HttpEngineNginxTest, AnHttpsServerOfAnUntrustedCaEndsWithNetError34AndNoData)
{
    // A CA made for this test alone and never given to the engine.
    velatest::TestCertificates untrusted;
    ASSERT_TRUE(untrusted.Generate()) << untrusted.Error().toStdString();
    NginxOptions options;
    options.tls = &untrusted;
    NginxServer nginx(options);
    ASSERT_TRUE(nginx.AddFile("secure.bin", RandomBytes(4096, 1)));
    ASSERT_TRUE(nginx.Start()) << nginx.Error().toStdString();
    const QString path = m_dir.File("never.bin");
    const CQWString recvFile(path);

    Get(nginx.TlsUrl("/secure.bin"), &recvFile);
    ASSERT_TRUE(WaitDone());
    EXPECT_THAT(m_rec->trace, ElementsAre("event 38", "event 37", "net-error 34"));
    EXPECT_TRUE(m_rec->IdsAll(KId));
    EXPECT_TRUE(m_rec->body.isEmpty());
    EXPECT_EQ(0, m_rec->completions);
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_FALSE(QFile::exists(path));
    velatest::ProcessPendingEvents();
    EXPECT_EQ(3u, m_rec->trace.size()) << "one failure, reported once";
}

// ============================================================ statuses

TEST_F(HttpEngineNginxTest, A404DeletesTheReceiveFileAndReportsTheStatus)
{
    NginxServer nginx;
    ASSERT_TRUE(nginx.Start()) << nginx.Error().toStdString();
    const QString path = m_dir.File("missing.bin");
    const CQWString recvFile(path);
    m_rec->fileToWatch = path;

    Get(nginx.Url("/no/such/file.bin"), &recvFile);
    ASSERT_TRUE(WaitDone());
    EXPECT_THAT(m_rec->trace, ElementsAre("event 32", "http-error 404"));
    EXPECT_TRUE(m_rec->IdsAll(KId));
    EXPECT_TRUE(m_rec->fileExistedAtConnect) << "the file existed before the status came";
    EXPECT_FALSE(QFile::exists(path));
    EXPECT_TRUE(m_rec->body.isEmpty());
    EXPECT_TRUE(m_engine->IsIdle());
}

}  // namespace
