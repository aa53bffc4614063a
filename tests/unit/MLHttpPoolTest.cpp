// The pool of HTTP engines and the request unit records: construction,
// engine choice without a queue, every request form, cancels by id class,
// cookie enabling and saving, the current page's method, and the slot by
// slot forwarding of engine reports. Where a request must really run, the
// pool's own engines talk to a scripted peer on 127.0.0.1.

#include "src/MLHttpPool.h"

#include "src/CookieHolder.h"
#include "src/DNSCache.h"
#include "src/MLHttpEngine.h"
#include "src/internal/MLHttpEngineTestPeer_p.h"
#include "support/HeapWatch.h"
#include "support/ScriptedPeer.h"
#include "support/TestSupport.h"

#include <QByteArray>
#include <QFile>
#include <QString>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <type_traits>

// Readable failure messages for the records that pass through the pool.
void PrintTo(const CQSString& s, std::ostream* os)
{
    *os << '"' << velatest::Visible(reinterpret_cast<const unsigned char*>(s.GetDataPtr()), s.GetLength()) << '"';
}

void PrintTo(const CQWString& s, std::ostream* os)
{
    *os << "L\"" << s.ToQString().toStdString() << '"';
}

void PrintTo(const CHttpData& data, std::ostream* os)
{
    *os << "CHttpData{url=\"" << data.GetURL().GetDataPtr() << "\"}";
}

void PrintTo(const CHttpResponseHead& head, std::ostream* os)
{
    *os << "CHttpResponseHead{status=" << head.m_nStatusCode << ", contentLength=" << head.m_nContentLength
        << ", location=\"" << head.m_strLocation.GetDataPtr() << "\", cookies=" << head.m_listCookies.GetCount()
        << "}";
}

void PrintTo(const CRequestUnit& unit, std::ostream* os)
{
    *os << "CRequestUnit{url=\"" << unit.m_strURL.GetDataPtr() << "\", file=\""
        << unit.m_strFilePath.ToQString().toStdString() << "\", kind=" << unit.m_nUnitKind
        << ", priority=" << unit.m_enPriority << ", userData=" << unit.m_nUserData << ", param1=" << unit.m_nParam1
        << ", param2=" << unit.m_nParam2 << ", counter=" << unit.m_nCounter << "}";
}

namespace {

using ::testing::_;
using ::testing::AnyNumber;
using ::testing::InSequence;
using ::testing::Invoke;
using ::testing::MockFunction;
using ::testing::Ref;
using ::testing::Return;
using ::testing::StrictMock;
using velatest::PeerScript;
using velatest::ScriptedPeer;
using velatest::SpinUntil;

const int KDeadlineMs = 10000;
// The request id classes with fixed meanings.
const int KPageId = static_cast<int>(0xF0000000u);
const int KPrefetchId = static_cast<int>(0xE0000000u);
const int KCssId = static_cast<int>(0xC0000000u);
const int KImageId = static_cast<int>(0xA0000000u);
// Download or other requests.
const int KIdDownload = 0x51;
const int KIdOther = 0x52;
const int KEventConnected = 32;
const int KKindNone = 16;
const int KKindGet = 17;
const int KKindPost = 18;
const int KKindPostFile = 19;

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

// ------------------------------------------------------------ notifier

// Records every report; the expectations fix their order and arguments.
class RecordingPoolNotifier : public MHttpPoolNotifier
{
public:
    MOCK_METHOD(int, HttpErrorOccured, (int id, int status), (override));
    MOCK_METHOD(int, HttpHeaderReceived, (int id, CHttpResponseHead& head, CHttpData& data), (override));
    MOCK_METHOD(int, HttpResponseReceived, (int id, unsigned char* data, int len, int n), (override));
    MOCK_METHOD(int, HttpResponseComplete, (int id, CQWString& recvFile), (override));
    MOCK_METHOD(int, HttpEventNotify, (int id, int event), (override));
    MOCK_METHOD(int, HttpErrorNotify, (int id, int event), (override));
    MOCK_METHOD(int, HttpEngine_URLChange, (int id, CQSString& location), (override));
};

MATCHER_P(StatusIs, status, "")
{
    return arg.m_nStatusCode == status;
}

MATCHER(EmptyURL, "")
{
    return arg.GetURL().IsEmpty();
}

MATCHER_P(TextIs, text, "")
{
    return std::string(arg.GetDataPtr(), static_cast<size_t>(arg.GetLength())) == std::string(text);
}

MATCHER_P(WideTextIs, text, "")
{
    return arg.ToQString() == QString(text);
}

// ------------------------------------------------------------ helpers

std::string Text(const CQSString& s)
{
    return std::string(s.GetDataPtr(), static_cast<size_t>(s.GetLength()));
}

CQSString Url(const ScriptedPeer& peer, const char* path)
{
    return CQSString(peer.Url(path).toLatin1().constData());
}

// A head whose cookie list holds the given Set-Cookie values.
void AddCookieLine(CHttpResponseHead& head, const char* line)
{
    ASSERT_TRUE(head.m_listCookies.AddTail(new CQSString(line)));
}

// The value stored in holder under domain and name, or "<none>".
std::string StoredCookie(QCookieHolder& holder, const char* domain, const char* name)
{
    QCookie* cookie = holder.cookies.get(CQSString(domain));
    if (cookie == nullptr)
        return "<none>";
    QCookieValue* value = cookie->GetCookie(CQSString(name));
    return value != nullptr ? Text(value->value) : "<none>";
}

// A peer whose every connection reads the request and then says nothing.
void AddSilentScript(ScriptedPeer& peer)
{
    peer.AddScript(PeerScript().ExpectHead().StaySilent());
}

// One 200 response with body, then the peer closes.
QByteArray Ok(const QByteArray& body)
{
    return "HTTP/1.1 200 OK\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body;
}

bool AllIdle(const CMLHttpPool& pool)
{
    for (int i = 0; i < pool.GetEngineCount(); ++i) {
        if (!pool.GetEngine(i)->IsIdle())
            return false;
    }
    return true;
}

// ============================================================ request units

TEST(RequestUnitTest, BaseUnitStartsWithItsDocumentedValues)
{
    const CRequestUnit unit;
    EXPECT_TRUE(unit.m_strURL.IsEmpty());
    EXPECT_TRUE(unit.m_strFilePath.IsEmpty());
    EXPECT_EQ(0, unit.m_nUnitKind);
    EXPECT_EQ(2, static_cast<int>(unit.m_enPriority));
    EXPECT_EQ(CRequestUnit::RP_Normal, unit.m_enPriority);
    EXPECT_EQ(0u, unit.m_nUserData);
    EXPECT_EQ(-1, unit.m_nParam1);
    EXPECT_EQ(-1, unit.m_nParam2);
    EXPECT_EQ(0, unit.m_nCounter);
}

TEST(RequestUnitTest, GetUnitIsKindTwoWithOneMoreFieldAtMinusOne)
{
    const CGetRequestUnit unit;
    EXPECT_EQ(2, unit.m_nUnitKind);
    EXPECT_EQ(-1, unit.m_nGetParam);
    EXPECT_EQ(2, static_cast<int>(unit.m_enPriority));
    EXPECT_EQ(0u, unit.m_nUserData);
    EXPECT_EQ(-1, unit.m_nParam1);
    EXPECT_EQ(-1, unit.m_nParam2);
    EXPECT_EQ(0, unit.m_nCounter);
}

TEST(RequestUnitTest, DailupUnitIsKindOneWithUserDataCleared)
{
    const CDailupRequestUnit unit;
    EXPECT_EQ(1, unit.m_nUnitKind);
    EXPECT_EQ(0u, unit.m_nUserData);
    EXPECT_EQ(2, static_cast<int>(unit.m_enPriority));
    EXPECT_EQ(-1, unit.m_nParam1);
    EXPECT_EQ(-1, unit.m_nParam2);
    EXPECT_EQ(0, unit.m_nCounter);
}

TEST(RequestUnitTest, UnitsAreDeletedThroughTheBase)
{
    static_assert(std::has_virtual_destructor<CRequestUnit>::value, "deleted through the base");
    velatest::HeapWatch::Clear();
    std::unique_ptr<CRequestUnit> get(new CGetRequestUnit);
    get->m_strFilePath = CQWString(QString("/tmp/x"));
    get->m_nUserData = 7;
    std::unique_ptr<CRequestUnit> dailup(new CDailupRequestUnit);
    dailup->m_strURL.SetData("http://a/");
    EXPECT_EQ(CRequestUnit::KKindGet, get->m_nUnitKind);
    EXPECT_EQ(CRequestUnit::KKindDailup, dailup->m_nUnitKind);
    const void* getBlock = dynamic_cast<void*>(get.get());
    const void* dailupBlock = dynamic_cast<void*>(dailup.get());
    velatest::HeapWatch::Watch(getBlock);
    velatest::HeapWatch::Watch(dailupBlock);
    get.reset();
    dailup.reset();
    EXPECT_TRUE(velatest::HeapWatch::Freed(getBlock));
    EXPECT_TRUE(velatest::HeapWatch::Freed(dailupBlock));
}

TEST(RequestUnitTest, EnginePriorityIsAcceptedAndChangesNothing)
{
    std::unique_ptr<CMLHttpEngine> engine(CMLHttpEngine::NewL());
    const int kind = engine->GetCurMethod();
    engine->SetPriority(CRequestUnit::RP_Highest);
    engine->SetPriority(CRequestUnit::RP_Lowest);
    EXPECT_EQ(kind, engine->GetCurMethod());
    EXPECT_TRUE(engine->IsIdle());
}

// ============================================================ construction

TEST(MLHttpPoolTest, NewLCreatesCountIdleEnginesReportingToThePool)
{
    StrictMock<RecordingPoolNotifier> notifier;
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&notifier, nullptr, 3));
    ASSERT_EQ(3, pool->GetEngineCount());
    EXPECT_EQ(&notifier, pool->GetNotifier());
    for (int i = 0; i < 3; ++i) {
        CMLHttpEngine* engine = pool->GetEngine(i);
        ASSERT_NE(nullptr, engine) << i;
        EXPECT_TRUE(engine->IsIdle()) << i;
        auto* adapter = dynamic_cast<VelaHttpEngineAdapter*>(engine->GetObserver());
        ASSERT_NE(nullptr, adapter) << i;
        EXPECT_EQ(static_cast<MHttpNotifier*>(pool.get()), adapter->m_pNotifier) << i;
        for (int j = 0; j < i; ++j)
            EXPECT_NE(pool->GetEngine(j), engine);
    }
    EXPECT_EQ(nullptr, pool->GetEngine(3));
    EXPECT_EQ(nullptr, pool->GetEngine(-1));
    EXPECT_EQ(pool->GetEngine(0), pool->FindIdeEngine());
    EXPECT_FALSE(pool->IsCookieEnabled());
    EXPECT_EQ(nullptr, pool->GetCookieHolder());
}

TEST(MLHttpPoolTest, PoolWithoutEnginesRefusesEveryRequest)
{
    for (const int count : {0, -3}) {
        std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(nullptr, nullptr, count));
        EXPECT_EQ(0, pool->GetEngineCount()) << count;
        EXPECT_EQ(nullptr, pool->FindIdeEngine()) << count;
        EXPECT_EQ(nullptr, pool->GetEngine(0)) << count;
        EXPECT_EQ(0, pool->DoGet(CQSString("http://127.0.0.1:1/"), KIdDownload, nullptr)) << count;
        EXPECT_EQ(KKindNone, pool->GetCurMethod()) << count;
        EXPECT_EQ(nullptr, pool->GetCurPostData()) << count;
        pool->CancelImgRequest();
        pool->EnableCookie(nullptr);
        pool->DisableCookie();
    }
}

TEST(MLHttpPoolTest, APoolWithoutMemoryForItsEngineArrayHasNoEngines)
{
    velatest::HeapWatch::FailNothrowAfter(0);
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(nullptr, nullptr, 3));
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(0, pool->GetEngineCount());
    EXPECT_EQ(nullptr, pool->GetEngine(0));
    EXPECT_EQ(nullptr, pool->FindIdeEngine());
    EXPECT_EQ(0, pool->DoGet(CQSString("http://127.0.0.1:1/"), KIdDownload, nullptr));
    // With memory back, a second construction still makes none: the count went to 0.
    pool->ConstructL(nullptr);
    EXPECT_EQ(0, pool->GetEngineCount());
}

TEST(MLHttpPoolTest, ConstructLAgainKeepsTheEnginesItHas)
{
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(nullptr, nullptr, 2));
    CMLHttpEngine* first = pool->GetEngine(0);
    CMLHttpEngine* second = pool->GetEngine(1);
    pool->ConstructL(nullptr);
    EXPECT_EQ(2, pool->GetEngineCount());
    EXPECT_EQ(first, pool->GetEngine(0));
    EXPECT_EQ(second, pool->GetEngine(1));
}

// ============================================================ requests refused

TEST(MLHttpPoolTest, EmptyUrlIsRefusedEvenWithIdleEngines)
{
    StrictMock<RecordingPoolNotifier> notifier;
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&notifier, nullptr, 2));
    const CQSString empty;
    const CQWString file(QString("/tmp/never-written"));
    unsigned char body[] = "a=1";

    EXPECT_EQ(0, pool->DoGet(empty, KPageId, nullptr));
    EXPECT_EQ(0, pool->DoGet(empty, KPageId, file));
    EXPECT_EQ(0, pool->DoGetPartial(empty, KPageId, nullptr, 5));
    EXPECT_EQ(0, pool->DoPost(empty, KPageId, nullptr, body, 3));
    EXPECT_EQ(0, pool->DoPost(empty, KPageId, file, body, 3));
    EXPECT_EQ(0, pool->DoPostFile(empty, KPageId, nullptr, body, 3, file, CQWString(QString("f"))));

    // No engine was touched: ids and kinds are as they started.
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(pool->GetEngine(i)->IsIdle());
        EXPECT_EQ(0, pool->GetEngine(i)->GetRequestID());
        EXPECT_EQ(KKindNone, pool->GetEngine(i)->GetCurMethod());
    }
    EXPECT_EQ(KKindNone, pool->GetCurMethod());
    EXPECT_FALSE(QFile::exists("/tmp/never-written"));
}

// ============================================================ engine choice

TEST(MLHttpPoolTest, PoolOfTwoStartsTwoRequestsAndRefusesTheThird)
{
    ScriptedPeer peer;
    AddSilentScript(peer);
    ASSERT_TRUE(peer.Listen());
    StrictMock<RecordingPoolNotifier> notifier;
    EXPECT_CALL(notifier, HttpEventNotify(KIdDownload, KEventConnected)).WillOnce(Return(0));
    EXPECT_CALL(notifier, HttpEventNotify(KIdOther, KEventConnected)).WillOnce(Return(0));
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&notifier, nullptr, 2));

    EXPECT_EQ(1, pool->DoGet(Url(peer, "/one"), KIdDownload, nullptr));
    EXPECT_FALSE(pool->GetEngine(0)->IsIdle());
    EXPECT_EQ(KIdDownload, pool->GetEngine(0)->GetRequestID());
    EXPECT_EQ(pool->GetEngine(1), pool->FindIdeEngine());

    EXPECT_EQ(1, pool->DoGet(Url(peer, "/two"), KIdOther, nullptr));
    EXPECT_FALSE(pool->GetEngine(1)->IsIdle());
    EXPECT_EQ(KIdOther, pool->GetEngine(1)->GetRequestID());
    EXPECT_EQ(nullptr, pool->FindIdeEngine());

    EXPECT_EQ(0, pool->DoGet(Url(peer, "/three"), KPageId, nullptr));
    EXPECT_EQ(0, pool->DoPost(Url(peer, "/three"), KPageId, nullptr, nullptr, 0));
    // The refused request changed no engine.
    EXPECT_EQ(KIdDownload, pool->GetEngine(0)->GetRequestID());
    EXPECT_EQ(KIdOther, pool->GetEngine(1)->GetRequestID());

    ASSERT_TRUE(peer.WaitForConnections(2, KDeadlineMs));
    ASSERT_TRUE(SpinUntil([&] { return peer.Captured(0).size() == 1 && peer.Captured(1).size() == 1; }, KDeadlineMs));
    EXPECT_EQ(2, peer.ConnectionCount());
    const QByteArray first = peer.Captured(0).value(0) + peer.Captured(1).value(0);
    EXPECT_TRUE(first.contains("GET /one HTTP/1.1\r\n")) << velatest::Visible(first);
    EXPECT_TRUE(first.contains("GET /two HTTP/1.1\r\n")) << velatest::Visible(first);
    EXPECT_FALSE(first.contains("/three"));
}

TEST(MLHttpPoolTest, FirstIdleEngineInArrayOrderIsChosenAgainAfterCompletion)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send(Ok("hello")).Close());
    ASSERT_TRUE(peer.Listen());
    StrictMock<RecordingPoolNotifier> notifier;
    bool complete = false;
    const CQSString url = Url(peer, "/a");
    {
        InSequence order;
        EXPECT_CALL(notifier, HttpEventNotify(KIdDownload, KEventConnected)).WillOnce(Return(0));
        EXPECT_CALL(notifier, HttpHeaderReceived(KIdDownload, StatusIs(200), EmptyURL())).WillOnce(Return(1));
        EXPECT_CALL(notifier, HttpResponseReceived(KIdDownload, _, 5, _))
            .WillOnce(Invoke([](int, unsigned char* data, int len, int) {
                EXPECT_EQ("hello", std::string(reinterpret_cast<char*>(data), static_cast<size_t>(len)));
                return 1;
            }));
        EXPECT_CALL(notifier, HttpResponseComplete(KIdDownload, _)).WillOnce(Invoke([&](int, CQWString&) {
            complete = true;
            return 0;
        }));
    }
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&notifier, nullptr, 2));
    ASSERT_EQ(1, pool->DoGet(url, KIdDownload, nullptr));
    ASSERT_TRUE(SpinUntil([&] { return complete; }, KDeadlineMs));
    ASSERT_TRUE(SpinUntil([&] { return AllIdle(*pool); }, KDeadlineMs));
    EXPECT_EQ(pool->GetEngine(0), pool->FindIdeEngine());
    // The id stays on its engine after the request has ended.
    EXPECT_EQ(KIdDownload, pool->GetEngine(0)->GetRequestID());
    EXPECT_EQ(0, pool->GetEngine(1)->GetRequestID());
}

// ============================================================ request forms

struct FormRow
{
    const char* name;
    // Starts the request on the pool; returns the pool's result.
    int (*start)(CMLHttpPool& pool, const CQSString& url, const CQWString& file);
    int kind;
    // Texts the request bytes must hold, and one they must not.
    const char* mustHold[3];
    const char* mustNotHold;
};

unsigned char g_formBody[] = "a=1&b=two";
const int KFormBodyLen = 9;

const FormRow kFormRows[] = {
    {"get-pointer-without-file",
     [](CMLHttpPool& pool, const CQSString& url, const CQWString&) { return pool.DoGet(url, KIdDownload, nullptr); },
     KKindGet, {"GET /r HTTP/1.1\r\n", nullptr, nullptr}, "Range:"},
    {"get-reference-with-file",
     [](CMLHttpPool& pool, const CQSString& url, const CQWString& file) { return pool.DoGet(url, KIdDownload, file); },
     KKindGet, {"GET /r HTTP/1.1\r\n", nullptr, nullptr}, "Range:"},
    {"get-partial-from-offset",
     [](CMLHttpPool& pool, const CQSString& url, const CQWString& file) {
         return pool.DoGetPartial(url, KIdDownload, &file, 5);
     },
     KKindGet, {"GET /r HTTP/1.1\r\n", "Range: bytes=5-\r\n", nullptr}, "Accept-Encoding:"},
    {"get-partial-from-zero",
     [](CMLHttpPool& pool, const CQSString& url, const CQWString&) {
         return pool.DoGetPartial(url, KIdDownload, nullptr, 0);
     },
     KKindGet, {"GET /r HTTP/1.1\r\n", "Range: bytes=0-\r\n", nullptr}, nullptr},
    {"get-page-asks-for-gzip",
     [](CMLHttpPool& pool, const CQSString& url, const CQWString&) { return pool.DoGet(url, KPageId, nullptr); },
     KKindGet, {"GET /r HTTP/1.1\r\n", "Accept-Encoding: gzip\r\n", nullptr}, "Range:"},
    {"post-pointer",
     [](CMLHttpPool& pool, const CQSString& url, const CQWString&) {
         return pool.DoPost(url, KIdDownload, nullptr, g_formBody, KFormBodyLen);
     },
     KKindPost, {"POST /r HTTP/1.1\r\n", "Content-Length: 9\r\n", "\r\n\r\na=1&b=two"}, nullptr},
    {"post-reference",
     [](CMLHttpPool& pool, const CQSString& url, const CQWString& file) {
         return pool.DoPost(url, KIdDownload, file, g_formBody, KFormBodyLen);
     },
     KKindPost, {"POST /r HTTP/1.1\r\n", "Content-Length: 9\r\n", "\r\n\r\na=1&b=two"}, nullptr},
};

class PoolRequestFormTest : public ::testing::TestWithParam<FormRow>
{
};

TEST_P(PoolRequestFormTest, ReachesTheEngineWithItsArguments)
{
    const FormRow& row = GetParam();
    velatest::TempDir dir;
    const CQWString file(dir.File("recv.bin"));
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectRequest().StaySilent());
    ASSERT_TRUE(peer.Listen());
    StrictMock<RecordingPoolNotifier> notifier;
    EXPECT_CALL(notifier, HttpEventNotify(_, KEventConnected)).WillOnce(Return(0));
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&notifier, nullptr, 1));

    ASSERT_EQ(1, row.start(*pool, Url(peer, "/r"), file));
    EXPECT_EQ(row.kind, pool->GetEngine(0)->GetCurMethod());
    ASSERT_TRUE(SpinUntil([&] { return peer.Captured(0).size() == 1; }, KDeadlineMs));
    const QByteArray request = peer.Captured(0).value(0);
    for (const char* text : row.mustHold) {
        if (text != nullptr) {
            EXPECT_TRUE(request.contains(text)) << text << " in " << velatest::Visible(request);
        }
    }
    if (row.mustNotHold != nullptr) {
        EXPECT_FALSE(request.contains(row.mustNotHold)) << velatest::Visible(request);
    }
    pool->CancelDownLoadRequest(pool->GetEngine(0)->GetRequestID());
    pool->CancelPageRequest();
    EXPECT_TRUE(pool->GetEngine(0)->IsIdle());
}

INSTANTIATE_TEST_SUITE_P(Forms, PoolRequestFormTest, ::testing::ValuesIn(kFormRows),
                         [](const ::testing::TestParamInfo<FormRow>& info) {
                             std::string name = info.param.name;
                             for (char& c : name) {
                                 if (c == '-')
                                     c = '_';
                             }
                             return name;
                         });

TEST(MLHttpPoolTest, DoPostFileSendsTheFileAndFieldsAsMultipart)
{
    velatest::TempDir dir;
    const QByteArray content("line one\nline two\n");
    {
        QFile f(dir.File("upload.txt"));
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        ASSERT_EQ(content.size(), f.write(content));
    }
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectRequest().StaySilent());
    ASSERT_TRUE(peer.Listen());
    StrictMock<RecordingPoolNotifier> notifier;
    EXPECT_CALL(notifier, HttpEventNotify(KIdDownload, KEventConnected)).WillOnce(Return(0));
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&notifier, nullptr, 1));
    unsigned char fields[] = "who=me";

    ASSERT_EQ(1, pool->DoPostFile(Url(peer, "/up"), KIdDownload, nullptr, fields, 6,
                                  CQWString(dir.File("upload.txt")), CQWString(QString("attach"))));
    EXPECT_EQ(KKindPostFile, pool->GetEngine(0)->GetCurMethod());
    ASSERT_TRUE(SpinUntil([&] { return peer.Captured(0).size() == 1; }, KDeadlineMs));
    const QByteArray request = peer.Captured(0).value(0);
    EXPECT_TRUE(request.startsWith("POST /up HTTP/1.1\r\n")) << velatest::Visible(request);
    EXPECT_TRUE(request.contains("multipart/form-data")) << velatest::Visible(request);
    EXPECT_TRUE(request.contains("name=\"who\"")) << velatest::Visible(request);
    EXPECT_TRUE(request.contains("name=\"attach\"")) << velatest::Visible(request);
    EXPECT_TRUE(request.contains(content)) << velatest::Visible(request);
    pool->CancelDownLoadRequest(KIdDownload);
}

// ============================================================ cancels

TEST(MLHttpPoolTest, CancelImgRequestCancelsBothImagesAndReportsNothing)
{
    ScriptedPeer imagePeer;
    AddSilentScript(imagePeer);
    ASSERT_TRUE(imagePeer.Listen());
    bool imagesCancelled = false;
    ScriptedPeer downloadPeer;
    downloadPeer.AddScript(
        PeerScript().ExpectHead().WaitUntil([&] { return imagesCancelled; }).Send(Ok("dl")).Close());
    ASSERT_TRUE(downloadPeer.Listen());

    StrictMock<RecordingPoolNotifier> notifier;
    MockFunction<void(const char*)> checkpoint;
    bool downloadDone = false;
    {
        InSequence order;
        // Before the cancel: the three connections (the image pair in any order).
        EXPECT_CALL(notifier, HttpEventNotify(_, KEventConnected)).Times(3).WillRepeatedly(Return(0));
        EXPECT_CALL(checkpoint, Call("cancel"));
        // After it: only the download speaks.
        EXPECT_CALL(notifier, HttpHeaderReceived(KIdDownload, StatusIs(200), _)).WillOnce(Return(1));
        EXPECT_CALL(notifier, HttpResponseReceived(KIdDownload, _, 2, _)).WillOnce(Return(1));
        EXPECT_CALL(notifier, HttpResponseComplete(KIdDownload, _)).WillOnce(Invoke([&](int, CQWString&) {
            downloadDone = true;
            return 0;
        }));
    }
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&notifier, nullptr, 3));
    ASSERT_EQ(1, pool->DoGet(Url(imagePeer, "/i1.png"), KImageId, nullptr));
    ASSERT_EQ(1, pool->DoGet(Url(downloadPeer, "/dl"), KIdDownload, nullptr));
    ASSERT_EQ(1, pool->DoGet(Url(imagePeer, "/i2.png"), KImageId, nullptr));
    ASSERT_TRUE(SpinUntil(
        [&] { return imagePeer.Captured(0).size() == 1 && imagePeer.Captured(1).size() == 1 &&
                     downloadPeer.Captured(0).size() == 1; },
        KDeadlineMs));

    checkpoint.Call("cancel");
    pool->CancelImgRequest();
    EXPECT_TRUE(pool->GetEngine(0)->IsIdle());
    EXPECT_FALSE(pool->GetEngine(1)->IsIdle());
    EXPECT_TRUE(pool->GetEngine(2)->IsIdle());
    // The peer sees both image connections go; any report they could still
    // cause would come on these turns of the loop.
    ASSERT_TRUE(SpinUntil([&] { return imagePeer.ClientClosed(0) && imagePeer.ClientClosed(1); }, KDeadlineMs));
    imagesCancelled = true;
    ASSERT_TRUE(SpinUntil([&] { return downloadDone; }, KDeadlineMs));
    velatest::ProcessPendingEvents();
}

TEST(MLHttpPoolTest, EachCancelTakesOnlyItsOwnClass)
{
    struct Case
    {
        const char* name;
        void (*cancel)(CMLHttpPool&);
        int cancelledIndex;
    };
    const int ids[] = {KPageId, KPrefetchId, KCssId, KImageId, KIdDownload};
    const Case cases[] = {
        {"page", [](CMLHttpPool& p) { p.CancelPageRequest(); }, 0},
        {"prefetch", [](CMLHttpPool& p) { p.CancelPrefechRequest(); }, 1},
        {"css", [](CMLHttpPool& p) { p.CancelCssRequest(); }, 2},
        {"image", [](CMLHttpPool& p) { p.CancelImgRequest(); }, 3},
        {"download", [](CMLHttpPool& p) { p.CancelDownLoadRequest(KIdDownload); }, 4},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ScriptedPeer peer;
        AddSilentScript(peer);
        ASSERT_TRUE(peer.Listen());
        StrictMock<RecordingPoolNotifier> notifier;
        EXPECT_CALL(notifier, HttpEventNotify(_, KEventConnected)).Times(5).WillRepeatedly(Return(0));
        std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&notifier, nullptr, 5));
        for (const int id : ids)
            ASSERT_EQ(1, pool->DoGet(Url(peer, "/x"), id, nullptr));
        ASSERT_TRUE(peer.WaitForConnections(5, KDeadlineMs));
        ASSERT_TRUE(SpinUntil(
            [&] {
                for (int i = 0; i < 5; ++i) {
                    if (peer.Captured(i).size() != 1)
                        return false;
                }
                return true;
            },
            KDeadlineMs));
        c.cancel(*pool);
        for (int i = 0; i < 5; ++i)
            EXPECT_EQ(i == c.cancelledIndex, pool->GetEngine(i)->IsIdle()) << i;
        // A download id that no engine carries cancels nothing.
        pool->CancelDownLoadRequest(0x7777);
        int idle = 0;
        for (int i = 0; i < 5; ++i)
            idle += pool->GetEngine(i)->IsIdle() ? 1 : 0;
        EXPECT_EQ(1, idle);
    }
}

TEST(MLHttpPoolTest, CancelLeavesAFinishedEngineWithTheSameIdAlone)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send(Ok("x")).Close());
    ASSERT_TRUE(peer.Listen());
    velatest::TempDir dir;
    const CQWString file(dir.File("kept.bin"));
    StrictMock<RecordingPoolNotifier> notifier;
    bool complete = false;
    {
        InSequence order;
        EXPECT_CALL(notifier, HttpEventNotify(KImageId, KEventConnected)).WillOnce(Return(0));
        EXPECT_CALL(notifier, HttpHeaderReceived(KImageId, StatusIs(200), _)).WillOnce(Return(1));
        EXPECT_CALL(notifier, HttpResponseReceived(KImageId, _, 1, _)).WillOnce(Return(1));
        EXPECT_CALL(notifier, HttpResponseComplete(KImageId, WideTextIs(dir.File("kept.bin"))))
            .WillOnce(Invoke([&](int, CQWString&) {
                complete = true;
                return 0;
            }));
    }
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&notifier, nullptr, 1));
    ASSERT_EQ(1, pool->DoGet(Url(peer, "/i.png"), KImageId, file));
    ASSERT_TRUE(SpinUntil([&] { return complete && pool->GetEngine(0)->IsIdle(); }, KDeadlineMs));
    // Idle engines are not cancelled: the finished image's file stays.
    pool->CancelImgRequest();
    EXPECT_TRUE(QFile::exists(dir.File("kept.bin")));
}

// ============================================================ cookies

TEST(MLHttpPoolTest, EnableCookieTwiceKeepsTheFirstHolder)
{
    QCookieHolder a;
    QCookieHolder b;
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(nullptr, nullptr, 2));
    pool->EnableCookie(&a);
    pool->EnableCookie(&b);
    EXPECT_TRUE(pool->IsCookieEnabled());
    EXPECT_EQ(&a, pool->GetCookieHolder());
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(&a, CMLHttpEngineTestPeer::GetRequestData(*pool->GetEngine(i)).GetCookiePointer()) << i;
}

TEST(MLHttpPoolTest, DisableCookieClearsHolderOnPoolAndEngines)
{
    QCookieHolder a;
    QCookieHolder b;
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(nullptr, nullptr, 2));
    pool->DisableCookie();  // not enabled: nothing
    EXPECT_FALSE(pool->IsCookieEnabled());
    pool->EnableCookie(&a);
    pool->DisableCookie();
    EXPECT_FALSE(pool->IsCookieEnabled());
    EXPECT_EQ(nullptr, pool->GetCookieHolder());
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(nullptr, CMLHttpEngineTestPeer::GetRequestData(*pool->GetEngine(i)).GetCookiePointer()) << i;
    // Once disabled, a new holder is taken.
    pool->EnableCookie(&b);
    EXPECT_EQ(&b, pool->GetCookieHolder());
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(&b, CMLHttpEngineTestPeer::GetRequestData(*pool->GetEngine(i)).GetCookiePointer()) << i;
}

TEST(MLHttpPoolTest, EnableCookieWithNullHolderEnablesWithoutStoring)
{
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(nullptr, nullptr, 1));
    QCookieHolder later;
    pool->EnableCookie(nullptr);
    EXPECT_TRUE(pool->IsCookieEnabled());
    pool->EnableCookie(&later);  // already enabled: still null
    EXPECT_EQ(nullptr, pool->GetCookieHolder());
    CQList<CQSString*> lines;
    CQSString line("k=v");
    ASSERT_TRUE(lines.AddTail(&line));
    pool->SaveCookies(CQSString("http://h.example/"), lines);  // no holder: nothing, no crash
    lines.RemoveAll();
    EXPECT_EQ(0, later.cookies.GetCount());
}

TEST(MLHttpPoolTest, SaveCookiesParsesEveryLineInListOrder)
{
    QCookieHolder holder;
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(nullptr, nullptr, 1));
    pool->EnableCookie(&holder);
    CQList<CQSString*> lines;
    CQSString first("k=first");
    CQSString second("k=second");
    CQSString other("z=1; domain=other.example");
    ASSERT_TRUE(lines.AddTail(&first));
    ASSERT_TRUE(lines.AddTail(&second));
    ASSERT_TRUE(lines.AddTail(&other));
    pool->SaveCookies(CQSString("http://h.example/p"), lines);
    lines.RemoveAll();
    // The later line of the same name wins; a domain attribute is taken as given.
    EXPECT_EQ("second", StoredCookie(holder, "h.example", "k"));
    EXPECT_EQ("1", StoredCookie(holder, "other.example", "z"));
}

TEST(MLHttpPoolTest, SaveCookiesSkipsNullLines)
{
    QCookieHolder holder;
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(nullptr, nullptr, 1));
    pool->EnableCookie(&holder);
    CQList<CQSString*> lines;
    CQSString first("a=1");
    CQSString last("b=2");
    ASSERT_TRUE(lines.AddTail(&first));
    ASSERT_TRUE(lines.AddTail(nullptr));
    ASSERT_TRUE(lines.AddTail(&last));
    pool->SaveCookies(CQSString("http://h.example/p"), lines);
    lines.RemoveAll();
    EXPECT_EQ("1", StoredCookie(holder, "h.example", "a"));
    EXPECT_EQ("2", StoredCookie(holder, "h.example", "b"));
}

TEST(MLHttpPoolTest, HeaderCookiesAreSavedAfterTheReportUnderTheRecordsUrl)
{
    QCookieHolder holder;
    StrictMock<RecordingPoolNotifier> notifier;
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&notifier, nullptr, 1));
    pool->EnableCookie(&holder);
    CHttpResponseHead head;
    head.m_nStatusCode = 200;
    AddCookieLine(head, "sid=ab12");
    AddCookieLine(head, "lang=en; domain=lang.example");
    CHttpData adapterData;  // what the adapter passes: a fresh record, empty URL
    ASSERT_TRUE(adapterData.GetURL().IsEmpty());

    EXPECT_CALL(notifier, HttpHeaderReceived(7, Ref(head), Ref(adapterData)))
        .WillOnce(Invoke([&](int, CHttpResponseHead&, CHttpData&) {
            EXPECT_EQ(0, holder.cookies.GetCount());  // not yet saved
            return 5;
        }));
    EXPECT_EQ(5, pool->HttpHeaderReceived(7, head, adapterData));
    // Without a domain attribute, the empty URL gives the empty domain.
    EXPECT_EQ("ab12", StoredCookie(holder, "", "sid"));
    EXPECT_EQ("en", StoredCookie(holder, "lang.example", "lang"));

    CHttpData withUrl;
    withUrl.SetURL("http://www.site.example/a");
    CHttpResponseHead second;
    AddCookieLine(second, "t=9");
    EXPECT_CALL(notifier, HttpHeaderReceived(8, Ref(second), Ref(withUrl))).WillOnce(Return(0));
    EXPECT_EQ(0, pool->HttpHeaderReceived(8, second, withUrl));
    EXPECT_EQ("9", StoredCookie(holder, "www.site.example", "t"));
}

TEST(MLHttpPoolTest, HeaderCookiesAreNotSavedWhenDisabledOrWithoutNotifier)
{
    QCookieHolder holder;
    CHttpResponseHead head;
    AddCookieLine(head, "sid=1");
    CHttpData data;
    data.SetURL("http://h.example/");
    {
        StrictMock<RecordingPoolNotifier> notifier;
        std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&notifier, nullptr, 1));
        pool->EnableCookie(&holder);
        pool->DisableCookie();
        EXPECT_CALL(notifier, HttpHeaderReceived(1, Ref(head), Ref(data))).WillOnce(Return(1));
        EXPECT_EQ(1, pool->HttpHeaderReceived(1, head, data));
    }
    {
        std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(nullptr, nullptr, 1));
        pool->EnableCookie(&holder);
        EXPECT_EQ(0, pool->HttpHeaderReceived(1, head, data));
    }
    EXPECT_EQ(0, holder.cookies.GetCount());
}

// ============================================================ forwarding

TEST(MLHttpPoolTest, EveryReportIsForwardedSlotBySlotWithItsResult)
{
    StrictMock<RecordingPoolNotifier> notifier;
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&notifier, nullptr, 1));
    CHttpResponseHead head;
    CHttpData data;
    unsigned char bytes[] = "abc";
    CQWString file(QString("/tmp/f"));
    CQSString location("http://x/y");
    {
        InSequence order;
        EXPECT_CALL(notifier, HttpErrorOccured(1, 404)).WillOnce(Return(11));
        EXPECT_CALL(notifier, HttpHeaderReceived(2, Ref(head), Ref(data))).WillOnce(Return(12));
        EXPECT_CALL(notifier, HttpResponseReceived(3, bytes, 3, 4)).WillOnce(Return(13));
        EXPECT_CALL(notifier, HttpResponseComplete(5, Ref(file))).WillOnce(Return(14));
        EXPECT_CALL(notifier, HttpEventNotify(6, 38)).WillOnce(Return(15));
        EXPECT_CALL(notifier, HttpErrorNotify(7, 34)).WillOnce(Return(16));
        EXPECT_CALL(notifier, HttpEngine_URLChange(8, Ref(location))).WillOnce(Return(17));
    }
    MHttpNotifier& asNotifier = *pool;
    EXPECT_EQ(11, asNotifier.HttpErrorOccured(1, 404));
    EXPECT_EQ(12, asNotifier.HttpHeaderReceived(2, head, data));
    EXPECT_EQ(13, asNotifier.HttpResponseReceived(3, bytes, 3, 4));
    EXPECT_EQ(14, asNotifier.HttpResponseComplete(5, file));
    EXPECT_EQ(15, asNotifier.HttpEventNotify(6, 38));
    EXPECT_EQ(16, asNotifier.HttpErrorNotify(7, 34));
    EXPECT_EQ(17, asNotifier.HttpEngine_URLChange(8, location));
    asNotifier.HttpNotifySend(bytes, 3);  // not forwarded: the strict mock has no such call
}

TEST(MLHttpPoolTest, WithoutNotifierEveryReportIsDroppedWithZero)
{
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(nullptr, nullptr, 1));
    CHttpResponseHead head;
    CHttpData data;
    unsigned char bytes[] = "abc";
    CQWString file;
    CQSString location("http://x/");
    EXPECT_EQ(0, pool->HttpErrorOccured(1, 500));
    EXPECT_EQ(0, pool->HttpHeaderReceived(1, head, data));
    EXPECT_EQ(0, pool->HttpResponseReceived(1, bytes, 3, 1));
    EXPECT_EQ(0, pool->HttpResponseComplete(1, file));
    EXPECT_EQ(0, pool->HttpEventNotify(1, 32));
    EXPECT_EQ(0, pool->HttpErrorNotify(1, 34));
    EXPECT_EQ(0, pool->HttpEngine_URLChange(1, location));
}

TEST(MLHttpPoolTest, AnEngineFailureReachesTheNotifierWithItsId)
{
    // A port nothing listens on: the connection is refused (event 34).
    ScriptedPeer closed;
    ASSERT_TRUE(closed.Listen());
    const CQSString url = Url(closed, "/gone");
    closed.StopListening();
    StrictMock<RecordingPoolNotifier> notifier;
    bool failed = false;
    EXPECT_CALL(notifier, HttpErrorNotify(KIdDownload, 34)).WillOnce(Invoke([&](int, int) {
        failed = true;
        return 0;
    }));
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&notifier, nullptr, 1));
    ASSERT_EQ(1, pool->DoGet(url, KIdDownload, nullptr));
    ASSERT_TRUE(SpinUntil([&] { return failed; }, KDeadlineMs));
    EXPECT_TRUE(pool->GetEngine(0)->IsIdle());
}

// ============================================================ the current page

TEST(MLHttpPoolTest, GetCurMethodIsNoneWithoutAPageEngine)
{
    ScriptedPeer peer;
    AddSilentScript(peer);
    ASSERT_TRUE(peer.Listen());
    StrictMock<RecordingPoolNotifier> notifier;
    EXPECT_CALL(notifier, HttpEventNotify(KImageId, KEventConnected)).WillOnce(Return(0));
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&notifier, nullptr, 2));
    EXPECT_EQ(KKindNone, pool->GetCurMethod());
    EXPECT_EQ(nullptr, pool->GetCurPostData());
    unsigned char body[] = "q=1";
    ASSERT_EQ(1, pool->DoPost(Url(peer, "/img"), KImageId, nullptr, body, 3));
    // A busy POST under another id is not the page.
    EXPECT_EQ(KKindNone, pool->GetCurMethod());
    EXPECT_EQ(nullptr, pool->GetCurPostData());
    ASSERT_TRUE(SpinUntil([&] { return peer.Captured(0).size() == 1; }, KDeadlineMs));
    pool->CancelImgRequest();
}

TEST(MLHttpPoolTest, GetCurMethodAfterAPagePostIsPostAlsoWhenFinished)
{
    ScriptedPeer imagePeer;
    AddSilentScript(imagePeer);
    ASSERT_TRUE(imagePeer.Listen());
    ScriptedPeer pagePeer;
    pagePeer.AddScript(PeerScript().ExpectRequest().Send(Ok("done")).Close());
    ASSERT_TRUE(pagePeer.Listen());
    StrictMock<RecordingPoolNotifier> notifier;
    bool complete = false;
    EXPECT_CALL(notifier, HttpEventNotify(_, KEventConnected)).Times(2).WillRepeatedly(Return(0));
    {
        InSequence order;
        EXPECT_CALL(notifier, HttpHeaderReceived(KPageId, StatusIs(200), EmptyURL())).WillOnce(Return(1));
        EXPECT_CALL(notifier, HttpResponseReceived(KPageId, _, 4, _)).WillOnce(Return(1));
        EXPECT_CALL(notifier, HttpResponseComplete(KPageId, _)).WillOnce(Invoke([&](int, CQWString&) {
            complete = true;
            return 0;
        }));
    }
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&notifier, nullptr, 2));
    // Engine 0 carries an image GET, engine 1 the page POST.
    ASSERT_EQ(1, pool->DoGet(Url(imagePeer, "/i.png"), KImageId, nullptr));
    unsigned char body[] = "user=a&pw=b";
    ASSERT_EQ(1, pool->DoPost(Url(pagePeer, "/login"), KPageId, nullptr, body, 11));
    EXPECT_EQ(KKindPost, pool->GetCurMethod());
    ASSERT_NE(nullptr, pool->GetCurPostData());
    EXPECT_EQ(&pool->GetEngine(1)->GetCurPostData(), pool->GetCurPostData());
    EXPECT_TRUE(pool->GetCurPostData()->IsEmpty());

    ASSERT_TRUE(SpinUntil([&] { return complete && pool->GetEngine(1)->IsIdle(); }, KDeadlineMs));
    EXPECT_TRUE(pagePeer.Captured(0).value(0).endsWith("\r\n\r\nuser=a&pw=b"))
        << velatest::Visible(pagePeer.Captured(0).value(0));
    EXPECT_EQ(KKindPost, pool->GetCurMethod());
    ASSERT_NE(nullptr, pool->GetCurPostData());
    EXPECT_TRUE(pool->GetCurPostData()->IsEmpty());
    pool->CancelImgRequest();
}

}  // namespace
