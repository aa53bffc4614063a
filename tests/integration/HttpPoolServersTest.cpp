// CMLHttpPool against real servers on 127.0.0.1: httpbin (echoes of GET,
// form and multipart POST, redirects, cookies, statuses, slow bodies) and
// nginx (static files, gzip). Expected values are the request's own data as
// httpbin echoes it, or the files the test gave nginx.

#include "src/MLHttpPool.h"

#include "src/CookieHolder.h"
#include "src/DNSCache.h"
#include "src/MLHttpEngine.h"
#include "support/ServerFixtures.h"
#include "support/TestSupport.h"

#include <QByteArray>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using velatest::HttpbinServer;
using velatest::NginxOptions;
using velatest::NginxServer;
using velatest::SpinUntil;

const int KPageId = static_cast<int>(0xF0000000u);
const int KImageId = static_cast<int>(0xA0000000u);
const int KIdDownload = 0x5001;
const int KIdOther = 0x5002;
const int KDeadlineMs = 15000;
const int KEventSocketError = 34;

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

// ------------------------------------------------------------ recording notifier

// What one request id heard, in order.
struct IdRecord
{
    std::vector<std::string> trace;
    QByteArray body;
    int status = 0;
    int contentEncoding = 0;
    QString completedPath;
    bool done = false;  // complete, HTTP error or net error
};

class Recorder : public MHttpPoolNotifier
{
public:
    int HttpErrorOccured(int id, int status) override
    {
        Add(id, "http-error " + std::to_string(status));
        m_ids[id].done = true;
        return 0;
    }
    int HttpHeaderReceived(int id, CHttpResponseHead& head, CHttpData& data) override
    {
        Add(id, "header " + std::to_string(head.m_nStatusCode));
        m_ids[id].status = head.m_nStatusCode;
        m_ids[id].contentEncoding = head.m_nContentEncoding;
        m_headerUrlsEmpty = m_headerUrlsEmpty && data.GetURL().IsEmpty();
        return 1;
    }
    int HttpResponseReceived(int id, unsigned char* data, int len, int) override
    {
        IdRecord& r = m_ids[id];
        if (r.trace.empty() || r.trace.back() != "data")
            Add(id, "data");
        r.body.append(reinterpret_cast<const char*>(data), len);
        return 1;
    }
    int HttpResponseComplete(int id, CQWString& recvFile) override
    {
        Add(id, "complete");
        m_ids[id].completedPath = recvFile.ToQString();
        m_ids[id].done = true;
        if (m_onComplete)
            m_onComplete(id);
        return 0;
    }
    int HttpEventNotify(int id, int event) override
    {
        if (m_onEvent)
            m_onEvent(id, event);
        return 0;
    }
    int HttpErrorNotify(int id, int event) override
    {
        Add(id, "net-error " + std::to_string(event));
        m_ids[id].done = true;
        return 0;
    }
    int HttpEngine_URLChange(int id, CQSString& location) override
    {
        Add(id, "url-change " + std::string(location.GetDataPtr(), static_cast<size_t>(location.GetLength())));
        return 0;
    }

    void Add(int id, const std::string& what)
    {
        m_ids[id].trace.push_back(what);
        m_all.push_back(std::to_string(id) + ": " + what);
    }
    IdRecord& Of(int id) { return m_ids[id]; }
    bool Done(int id) { return m_ids[id].done; }

    std::map<int, IdRecord> m_ids;
    std::vector<std::string> m_all;
    std::function<void(int, int)> m_onEvent;
    std::function<void(int)> m_onComplete;
    bool m_headerUrlsEmpty = true;
};

// ------------------------------------------------------------ helpers

CQSString Url(const QString& url)
{
    return CQSString(url.toLatin1().constData());
}

QJsonObject Json(const QByteArray& body)
{
    return QJsonDocument::fromJson(body).object();
}

std::string StoredCookie(QCookieHolder& holder, const char* domain, const char* name)
{
    QCookie* cookie = holder.cookies.get(CQSString(domain));
    if (cookie == nullptr)
        return "<none>";
    QCookieValue* value = cookie->GetCookie(CQSString(name));
    return value != nullptr ? std::string(value->value.GetDataPtr(), static_cast<size_t>(value->value.GetLength()))
                            : "<none>";
}

QByteArray ReadFile(const QString& path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return QByteArray("<unreadable>");
    return f.readAll();
}

QByteArray Words(int size, unsigned seed)
{
    static const char* const words[] = {"pool", "engine", "gzip", "loopback", "velanet", "\n"};
    std::mt19937 random(seed);
    QByteArray text;
    while (text.size() < size) {
        text.append(words[random() % 6]);
        text.append(' ');
    }
    text.truncate(size);
    return text;
}

// ------------------------------------------------------------ httpbin suite

// One httpbin for the whole suite: it takes seconds to start.
class PoolHttpbinTest : public ::testing::Test
{
protected:
    static void TearDownTestSuite() { s_httpbin.reset(); }

    void SetUp() override
    {
        if (!HttpbinServer::Available())
            GTEST_SKIP() << "gunicorn is not installed; httpbin tests skipped";
        if (!s_httpbin) {
            s_httpbin = std::make_unique<HttpbinServer>();
            ASSERT_TRUE(s_httpbin->Start()) << s_httpbin->Error().toStdString();
        }
        m_pool.reset(CMLHttpPool::NewL(&m_recorder, nullptr, 3));
    }
    void TearDown() override { m_pool.reset(); }

    QString HttpbinUrl(const QString& path) const { return s_httpbin->Url(path); }

    bool WaitDone(int id) { return SpinUntil([&] { return m_recorder.Done(id); }, KDeadlineMs); }

    static std::unique_ptr<HttpbinServer> s_httpbin;
    Recorder m_recorder;
    std::unique_ptr<CMLHttpPool> m_pool;
};

std::unique_ptr<HttpbinServer> PoolHttpbinTest::s_httpbin;

TEST_F(PoolHttpbinTest, GetToMemoryIsEchoed)
{
    ASSERT_EQ(1, m_pool->DoGet(Url(HttpbinUrl("/get?probe=pool")), KIdDownload, nullptr));
    ASSERT_TRUE(WaitDone(KIdDownload));
    const IdRecord& r = m_recorder.Of(KIdDownload);
    EXPECT_EQ((std::vector<std::string>{"header 200", "data", "complete"}), r.trace);
    const QJsonObject json = Json(r.body);
    EXPECT_EQ(HttpbinUrl("/get?probe=pool"), json.value("url").toString());
    EXPECT_EQ("pool", json.value("args").toObject().value("probe").toString());
    EXPECT_TRUE(r.completedPath.isEmpty());
    EXPECT_TRUE(m_recorder.m_headerUrlsEmpty);
}

TEST_F(PoolHttpbinTest, PageIdAloneAsksForGzip)
{
    ASSERT_EQ(1, m_pool->DoGet(Url(HttpbinUrl("/headers")), KPageId, nullptr));
    ASSERT_EQ(1, m_pool->DoGet(Url(HttpbinUrl("/headers")), KIdDownload, nullptr));
    ASSERT_TRUE(WaitDone(KPageId));
    ASSERT_TRUE(WaitDone(KIdDownload));
    const QJsonObject page = Json(m_recorder.Of(KPageId).body).value("headers").toObject();
    const QJsonObject other = Json(m_recorder.Of(KIdDownload).body).value("headers").toObject();
    EXPECT_EQ("gzip", page.value("Accept-Encoding").toString()) << m_recorder.Of(KPageId).body.toStdString();
    EXPECT_FALSE(other.contains("Accept-Encoding")) << m_recorder.Of(KIdDownload).body.toStdString();
}

TEST_F(PoolHttpbinTest, GzipBodyIsDeliveredDecoded)
{
    bool idleAtComplete = true;
    m_recorder.m_onComplete = [&](int id) {
        if (id == KPageId)
            idleAtComplete = m_pool->GetEngine(0)->IsIdle();
    };
    ASSERT_EQ(1, m_pool->DoGet(Url(HttpbinUrl("/gzip")), KPageId, nullptr));
    ASSERT_TRUE(WaitDone(KPageId));
    const IdRecord& r = m_recorder.Of(KPageId);
    EXPECT_EQ(CHttpResponseHead::KContentEncodingGzip, r.contentEncoding);
    const QJsonObject json = Json(r.body);
    EXPECT_TRUE(json.value("gzipped").toBool()) << r.body.toStdString();
    // A gzip body completes at the end of its stream without releasing the
    // engine; the server then closes the connection (the request asked it
    // to), which ends the engine's exchange with a net error after the
    // completion and frees the engine.
    EXPECT_FALSE(idleAtComplete);
    ASSERT_TRUE(SpinUntil([&] { return r.trace.size() >= 4; }, KDeadlineMs));
    EXPECT_EQ((std::vector<std::string>{"header 200", "data", "complete",
                                        "net-error " + std::to_string(KEventSocketError)}),
              r.trace);
    EXPECT_TRUE(m_pool->GetEngine(0)->IsIdle());
}

TEST_F(PoolHttpbinTest, RedirectIsFollowedForAnOrdinaryId)
{
    ASSERT_EQ(1, m_pool->DoGet(Url(HttpbinUrl("/redirect-to?url=/get")), KIdDownload, nullptr));
    ASSERT_TRUE(WaitDone(KIdDownload));
    const IdRecord& r = m_recorder.Of(KIdDownload);
    const std::string target = HttpbinUrl("/get").toStdString();
    EXPECT_EQ((std::vector<std::string>{"url-change " + target, "header 200", "data", "complete"}), r.trace);
    EXPECT_EQ(HttpbinUrl("/get"), Json(r.body).value("url").toString());
}

TEST_F(PoolHttpbinTest, RedirectIsOnlyReportedForThePageId)
{
    ASSERT_EQ(1, m_pool->DoGet(Url(HttpbinUrl("/redirect/1")), KPageId, nullptr));
    ASSERT_TRUE(SpinUntil([&] { return !m_recorder.Of(KPageId).trace.empty(); }, KDeadlineMs));
    ASSERT_TRUE(SpinUntil([&] { return m_pool->GetEngine(0)->IsIdle(); }, KDeadlineMs));
    // The id stays on the idle engine until another request takes it.
    EXPECT_EQ(KPageId, m_pool->GetEngine(0)->GetRequestID());
    EXPECT_EQ(static_cast<int>(velanet::KKindGet), m_pool->GetCurMethod());
    // Another request on the same server takes that engine and completes;
    // the page never went on.
    ASSERT_EQ(1, m_pool->DoGet(Url(HttpbinUrl("/get")), KIdOther, nullptr));
    EXPECT_EQ(KIdOther, m_pool->GetEngine(0)->GetRequestID());
    ASSERT_TRUE(WaitDone(KIdOther));
    EXPECT_EQ((std::vector<std::string>{"url-change " + HttpbinUrl("/get").toStdString()}),
              m_recorder.Of(KPageId).trace);
    EXPECT_EQ(static_cast<int>(CMLHttpPool::KKindNone), m_pool->GetCurMethod());
}

TEST_F(PoolHttpbinTest, CookieSetIsStoredAndSentBack)
{
    QCookieHolder holder;
    m_pool->EnableCookie(&holder);
    // 302 with Set-Cookie, followed to /cookies, which echoes what was sent.
    ASSERT_EQ(1, m_pool->DoGet(Url(HttpbinUrl("/cookies/set?k=v")), KIdDownload, nullptr));
    ASSERT_TRUE(WaitDone(KIdDownload));
    EXPECT_EQ("v", StoredCookie(holder, "127.0.0.1", "k"));
    EXPECT_EQ("v", Json(m_recorder.Of(KIdDownload).body).value("cookies").toObject().value("k").toString())
        << m_recorder.Of(KIdDownload).body.toStdString();

    // And on the next, separate request.
    ASSERT_EQ(1, m_pool->DoGet(Url(HttpbinUrl("/cookies")), KIdOther, nullptr));
    ASSERT_TRUE(WaitDone(KIdOther));
    EXPECT_EQ("v", Json(m_recorder.Of(KIdOther).body).value("cookies").toObject().value("k").toString())
        << m_recorder.Of(KIdOther).body.toStdString();
}

TEST_F(PoolHttpbinTest, CookieOfAnAcceptedHeadIsAlsoSavedUnderTheEmptyUrl)
{
    QCookieHolder holder;
    m_pool->EnableCookie(&holder);
    ASSERT_EQ(1, m_pool->DoGet(Url(HttpbinUrl("/response-headers?Set-Cookie=a%3Db")), KIdDownload, nullptr));
    ASSERT_TRUE(WaitDone(KIdDownload));
    EXPECT_EQ("header 200", m_recorder.Of(KIdDownload).trace.front());
    // The engine's request record stores it for the request's host; the pool
    // stores it for the adapter's record, whose URL is empty.
    EXPECT_EQ("b", StoredCookie(holder, "127.0.0.1", "a"));
    EXPECT_EQ("b", StoredCookie(holder, "", "a"));
}

TEST_F(PoolHttpbinTest, FormPostIsEchoed)
{
    unsigned char body[] = "a=1&b=two";
    ASSERT_EQ(1, m_pool->DoPost(Url(HttpbinUrl("/post")), KIdDownload, nullptr, body, 9));
    ASSERT_TRUE(WaitDone(KIdDownload));
    const QJsonObject form = Json(m_recorder.Of(KIdDownload).body).value("form").toObject();
    EXPECT_EQ("1", form.value("a").toString()) << m_recorder.Of(KIdDownload).body.toStdString();
    EXPECT_EQ("two", form.value("b").toString());
}

TEST_F(PoolHttpbinTest, MultipartPostFileIsEchoedIntact)
{
    velatest::TempDir dir;
    const QByteArray content = Words(30000, 7);
    {
        QFile f(dir.File("upload.txt"));
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        ASSERT_EQ(content.size(), f.write(content));
    }
    unsigned char fields[] = "who=me&what=notes";
    ASSERT_EQ(1, m_pool->DoPostFile(Url(HttpbinUrl("/post")), KIdDownload, nullptr, fields, 17,
                                    CQWString(dir.File("upload.txt")), CQWString(QString("attach"))));
    ASSERT_TRUE(WaitDone(KIdDownload));
    const QJsonObject json = Json(m_recorder.Of(KIdDownload).body);
    EXPECT_EQ(QString::fromLatin1(content), json.value("files").toObject().value("attach").toString());
    EXPECT_EQ("me", json.value("form").toObject().value("who").toString())
        << m_recorder.Of(KIdDownload).body.left(400).toStdString();
    EXPECT_EQ("notes", json.value("form").toObject().value("what").toString());
}

TEST_F(PoolHttpbinTest, NotFoundDeletesTheReceiveFile)
{
    velatest::TempDir dir;
    const QString path = dir.File("missing.bin");
    bool fileOpenAtConnect = false;
    m_recorder.m_onEvent = [&](int id, int event) {
        if (id == KIdDownload && event == 32)
            fileOpenAtConnect = QFile::exists(path);
    };
    ASSERT_EQ(1, m_pool->DoGet(Url(HttpbinUrl("/status/404")), KIdDownload, CQWString(path)));
    ASSERT_TRUE(WaitDone(KIdDownload));
    EXPECT_EQ((std::vector<std::string>{"http-error 404"}), m_recorder.Of(KIdDownload).trace);
    EXPECT_TRUE(fileOpenAtConnect);
    EXPECT_FALSE(QFile::exists(path));
}

TEST_F(PoolHttpbinTest, ConnectionRefusedIsANetError)
{
    const quint16 port = velatest::FreePort();
    ASSERT_NE(0, port);
    const QString url = "http://127.0.0.1:" + QString::number(port) + "/x";
    ASSERT_EQ(1, m_pool->DoGet(Url(url), KIdDownload, nullptr));
    ASSERT_TRUE(WaitDone(KIdDownload));
    EXPECT_EQ((std::vector<std::string>{"net-error " + std::to_string(KEventSocketError)}),
              m_recorder.Of(KIdDownload).trace);
    EXPECT_TRUE(m_pool->GetEngine(0)->IsIdle());
}

TEST_F(PoolHttpbinTest, PoolOfTwoRefusesAThirdRequest)
{
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&m_recorder, nullptr, 2));
    ASSERT_EQ(1, pool->DoGet(Url(HttpbinUrl("/get?n=1")), KIdDownload, nullptr));
    ASSERT_EQ(1, pool->DoGet(Url(HttpbinUrl("/get?n=2")), KIdOther, nullptr));
    EXPECT_EQ(0, pool->DoGet(Url(HttpbinUrl("/get?n=3")), KPageId, nullptr));
    ASSERT_TRUE(WaitDone(KIdDownload));
    ASSERT_TRUE(WaitDone(KIdOther));
    EXPECT_EQ("1", Json(m_recorder.Of(KIdDownload).body).value("args").toObject().value("n").toString());
    EXPECT_EQ("2", Json(m_recorder.Of(KIdOther).body).value("args").toObject().value("n").toString());
    EXPECT_TRUE(m_recorder.Of(KPageId).trace.empty());
    // Once an engine is free again, the request is taken.
    ASSERT_TRUE(SpinUntil([&] { return pool->FindIdeEngine() != nullptr; }, KDeadlineMs));
    EXPECT_EQ(1, pool->DoGet(Url(HttpbinUrl("/get?n=3")), KPageId, nullptr));
    ASSERT_TRUE(WaitDone(KPageId));
}

TEST_F(PoolHttpbinTest, CancelImgRequestStopsTwoImagesWithoutReports)
{
    // Ten bytes over ten seconds: the first byte comes with the head.
    const CQSString slow = Url(HttpbinUrl("/drip?numbytes=10&duration=10&delay=0"));
    ASSERT_EQ(1, m_pool->DoGet(slow, KImageId, nullptr));
    ASSERT_EQ(1, m_pool->DoGet(slow, KImageId, nullptr));
    ASSERT_TRUE(SpinUntil([&] { return m_recorder.Of(KImageId).body.size() >= 2; }, KDeadlineMs));
    EXPECT_FALSE(m_pool->GetEngine(0)->IsIdle());
    EXPECT_FALSE(m_pool->GetEngine(1)->IsIdle());
    const std::vector<std::string> before = m_recorder.Of(KImageId).trace;

    m_pool->CancelImgRequest();
    EXPECT_TRUE(m_pool->GetEngine(0)->IsIdle());
    EXPECT_TRUE(m_pool->GetEngine(1)->IsIdle());
    // A later request completes meanwhile; the images say nothing more.
    ASSERT_EQ(1, m_pool->DoGet(Url(HttpbinUrl("/drip?numbytes=2&duration=2&delay=0")), KIdOther, nullptr));
    ASSERT_TRUE(WaitDone(KIdOther));
    EXPECT_EQ(before, m_recorder.Of(KImageId).trace);
    EXPECT_FALSE(m_recorder.Done(KImageId));
}

// ------------------------------------------------------------ nginx suite

class PoolNginxTest : public ::testing::Test
{
protected:
    bool WaitDone(int id) { return SpinUntil([&] { return m_recorder.Done(id); }, KDeadlineMs); }
    Recorder m_recorder;
};

TEST_F(PoolNginxTest, GetToAFileWritesTheWholeBody)
{
    NginxServer nginx;
    std::mt19937 random(11);
    QByteArray bytes(200000, '\0');
    for (char& c : bytes)
        c = static_cast<char>(random() & 0xff);
    ASSERT_TRUE(nginx.AddFile("blob.bin", bytes));
    ASSERT_TRUE(nginx.Start()) << nginx.Error().toStdString();
    velatest::TempDir dir;
    const QString path = dir.File("blob.bin");
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&m_recorder, nullptr, 2));
    ASSERT_EQ(1, pool->DoGet(Url(nginx.Url("/blob.bin")), KIdDownload, CQWString(path)));
    ASSERT_TRUE(WaitDone(KIdDownload));
    const IdRecord& r = m_recorder.Of(KIdDownload);
    ASSERT_EQ("complete", r.trace.back());
    EXPECT_EQ(path, r.completedPath);
    EXPECT_TRUE(ReadFile(path) == bytes);
    EXPECT_TRUE(r.body == bytes);
}

TEST_F(PoolNginxTest, GzipForThePageIdPlainForOthers)
{
    NginxOptions options;
    options.gzip = true;
    NginxServer nginx(options);
    const QByteArray text = Words(50000, 3);
    ASSERT_TRUE(nginx.AddFile("words.txt", text));
    ASSERT_TRUE(nginx.Start()) << nginx.Error().toStdString();
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&m_recorder, nullptr, 2));
    ASSERT_EQ(1, pool->DoGet(Url(nginx.Url("/words.txt")), KPageId, nullptr));
    ASSERT_EQ(1, pool->DoGet(Url(nginx.Url("/words.txt")), KIdDownload, nullptr));
    ASSERT_TRUE(WaitDone(KPageId));
    ASSERT_TRUE(WaitDone(KIdDownload));
    EXPECT_EQ(CHttpResponseHead::KContentEncodingGzip, m_recorder.Of(KPageId).contentEncoding);
    EXPECT_NE(CHttpResponseHead::KContentEncodingGzip, m_recorder.Of(KIdDownload).contentEncoding);
    // The gzip body completes at the end of its stream; nginx then closes
    // the connection, which ends the still-busy engine with a net error.
    ASSERT_TRUE(SpinUntil([&] { return m_recorder.Of(KPageId).trace.size() >= 4; }, KDeadlineMs));
    EXPECT_EQ((std::vector<std::string>{"header 200", "data", "complete",
                                        "net-error " + std::to_string(KEventSocketError)}),
              m_recorder.Of(KPageId).trace);
    EXPECT_EQ((std::vector<std::string>{"header 200", "data", "complete"}), m_recorder.Of(KIdDownload).trace);
    EXPECT_TRUE(m_recorder.Of(KPageId).body == text) << m_recorder.Of(KPageId).body.size();
    EXPECT_TRUE(m_recorder.Of(KIdDownload).body == text) << m_recorder.Of(KIdDownload).body.size();
}

}  // namespace
