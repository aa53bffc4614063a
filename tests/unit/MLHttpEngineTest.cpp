// CMLHttpEngine driven through its socket-engine callbacks. The test plays
// the socket engine: it raises the events, hands up received bytes in reads
// of its choosing (cut into pieces of at most 1024 bytes, as the socket
// engine does) and reports the end of a connection; a recording observer
// checks the exact order and arguments of every report.
//
// Requests go to 127.0.0.1, where a QTcpServer of the fixture listens, so
// that the real socket engine under the engine starts a connection that
// never completes while the test holds the event loop still. Gzip bodies
// are made with zlib here; request bytes are compared with what CHttpData
// builds for the same URL.

#include "src/MLHttpEngine.h"
#include "src/MLHttpPool.h"
#include "src/internal/MLHttpEngineTestPeer_p.h"

#include "src/CookieHolder.h"
#include "src/DNSCache.h"
#include "src/internal/DnsGatewayReply_p.h"
#include "src/internal/LocationResolve_p.h"
#include "support/HeapWatch.h"
#include "support/TestSupport.h"

#include "BaseClass/src/CQTimer.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QString>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUuid>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

// Readable failure messages.
void PrintTo(const CQSString& s, std::ostream* os)
{
    *os << '"' << velatest::Visible(reinterpret_cast<const unsigned char*>(s.GetDataPtr()), s.GetLength()) << '"';
}

void PrintTo(const CQWString& s, std::ostream* os)
{
    *os << "L\"" << s.ToQString().toStdString() << '"';
}

void PrintTo(const CHttpResponseHead& head, std::ostream* os)
{
    *os << "CHttpResponseHead{headLen=" << head.m_nHeadLen << ", status=" << head.m_nStatusCode
        << ", contentLength=" << head.m_nContentLength << ", bodyType=" << head.m_nBodyType << ", location=\""
        << head.m_strLocation.GetDataPtr() << "\", contentEncoding=" << head.m_nContentEncoding << "}";
}

namespace {

using ::testing::_;
using ::testing::Field;
using ::testing::InSequence;
using ::testing::Invoke;
using ::testing::NiceMock;
using ::testing::Return;
using ::testing::StrictMock;

const int KId = 0x2A;
const int KIdFive = 5;
const int KIdCurrentPage = static_cast<int>(0xF0000000u);
const int KIdPrefetch = static_cast<int>(0xE0000000u);
const int KIdStyleSheet = static_cast<int>(0xC0000000u);

// Events as the socket engine raises them.
const int KConnected = 32;
const int KSocketError = 34;
const int KNotResolvable = 36;
const int KResolved = 37;
const int KLookupStarted = 38;
const int KDecompressFailed = 48;
const int KRecvBufferFull = 64;

const int KSocketIdle = 100;
const int KReceiving = 108;
const int KPieceSize = 1024;

// ------------------------------------------------------------ environment

// Every file of this suite (DNS cache, receive and upload files) lives
// under one temporary root. A death test runs in a child process that dies
// without cleaning up; it inherits the root through the environment and
// works inside it, so the parent's clean-up removes the child's files too.
const char KRootVariable[] = "VELANET_ENGINE_TEST_ROOT";

class TestFiles : public ::testing::Environment
{
public:
    void SetUp() override
    {
        if (qEnvironmentVariableIsSet(KRootVariable)) {
            s_root = qEnvironmentVariable(KRootVariable);
        } else {
            m_ownRoot = std::make_unique<velatest::TempDir>();
            s_root = m_ownRoot->Path();
            qputenv(KRootVariable, s_root.toLocal8Bit());
        }
        CDNSCache::SetCacheDirectory(NewDirectory());
    }
    void TearDown() override
    {
        CDNSCache::ReleaseRegistered();
        if (m_ownRoot)
            qunsetenv(KRootVariable);
        m_ownRoot.reset();
    }

    // A fresh directory under the root.
    static QString NewDirectory()
    {
        const QString path = s_root + "/" + QUuid::createUuid().toString(QUuid::WithoutBraces);
        QDir().mkpath(path);
        return path;
    }

private:
    static QString s_root;
    std::unique_ptr<velatest::TempDir> m_ownRoot;
};

QString TestFiles::s_root;

// The files of one test.
class TestDirectory
{
public:
    TestDirectory() : m_path(TestFiles::NewDirectory()) {}
    ~TestDirectory() { QDir(m_path).removeRecursively(); }
    TestDirectory(const TestDirectory&) = delete;
    TestDirectory& operator=(const TestDirectory&) = delete;
    QString File(const QString& name) const { return m_path + "/" + name; }

private:
    QString m_path;
};

::testing::Environment* const g_testFiles = ::testing::AddGlobalTestEnvironment(new TestFiles);

// ------------------------------------------------------------ helpers

class MockObserver : public MHttpObserver
{
public:
    MOCK_METHOD(int, OnHttpEngine_HttpError, (int id, int status), (override));
    MOCK_METHOD(int, OnHttpEngine_Complete, (int id, CQWString& recvFile), (override));
    MOCK_METHOD(int, OnHttpEngine_NetEvent, (int id, int event), (override));
    MOCK_METHOD(int, OnHttpEngine_NetError, (int id, int event), (override));
    MOCK_METHOD(int, OnHttpEngine_RecvHeader, (int id, CHttpResponseHead& head), (override));
    MOCK_METHOD(int, OnHttpEngine_ResponseData, (int id, unsigned char* data, int len, int n), (override));
    MOCK_METHOD(int, OnHttpEngine_URLChange, (int id, CQSString& location), (override));
};

class MockNotifier : public MHttpNotifier
{
public:
    MOCK_METHOD(int, HttpErrorOccured, (int id, int status), (override));
    MOCK_METHOD(int, HttpHeaderReceived, (int id, CHttpResponseHead& head, CHttpData& data), (override));
    MOCK_METHOD(int, HttpResponseReceived, (int id, unsigned char* data, int len, int n), (override));
    MOCK_METHOD(int, HttpResponseComplete, (int id, CQWString& recvFile), (override));
    MOCK_METHOD(int, HttpEventNotify, (int id, int event), (override));
    MOCK_METHOD(int, HttpErrorNotify, (int id, int event), (override));
    MOCK_METHOD(int, HttpEngine_URLChange, (int id, CQSString& location), (override));
    MOCK_METHOD(void, HttpNotifySend, (unsigned char* data, int len), (override));
};

MATCHER_P(TextIs, text, "")
{
    return std::string(arg.GetDataPtr(), static_cast<size_t>(arg.GetLength())) == std::string(text);
}

MATCHER_P(PathIs, path, "")
{
    return arg.ToQString() == path;
}

MATCHER_P(StatusIs, status, "")
{
    return arg.m_nStatusCode == status;
}

std::string ToStd(const CQSString& s)
{
    return std::string(s.GetDataPtr(), static_cast<size_t>(s.GetLength()));
}

std::string BytesOf(const unsigned char* data, int len)
{
    return data && len > 0 ? std::string(reinterpret_cast<const char*>(data), static_cast<size_t>(len)) : std::string();
}

std::string HeaderBytes(const CQRequestHeaderUnit& unit)
{
    return BytesOf(unit.m_pHeaderData, unit.m_nHeaderLen);
}

// What CHttpData builds for a GET of url (the engine's plain GET call).
std::string ExpectedGet(const std::string& url, int encodingMode)
{
    CHttpData data;
    data.SetURL(url.c_str());
    int len = 0;
    std::unique_ptr<unsigned char[]> bytes(data.GetMethodData(17, len, encodingMode, 0, 0, 0, nullptr, false, 0));
    return BytesOf(bytes.get(), len);
}

std::string ExpectedPartialGet(const std::string& url, int encodingMode, int offset)
{
    CHttpData data;
    data.SetURL(url.c_str());
    int len = 0;
    std::unique_ptr<unsigned char[]> bytes(data.PartialGetMethodData(len, encodingMode, false, offset));
    return BytesOf(bytes.get(), len);
}

std::string ExpectedPost(const std::string& url, int encodingMode, const std::string& body)
{
    CHttpData data;
    data.SetURL(url.c_str());
    int len = 0;
    std::vector<unsigned char> copy(body.begin(), body.end());
    std::unique_ptr<unsigned char[]> bytes(data.GetMethodData(18, len, encodingMode, 0, 0, static_cast<int>(copy.size()),
                                                              copy.empty() ? nullptr : copy.data(), false, 0));
    return BytesOf(bytes.get(), len);
}

// A gzip member of in, made by zlib.
std::string Gzip(const std::string& in)
{
    z_stream zs{};
    EXPECT_EQ(Z_OK, deflateInit2(&zs, 9, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY));
    std::string out(deflateBound(&zs, static_cast<uLong>(in.size())) + 64, '\0');
    zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
    zs.avail_in = static_cast<uInt>(in.size());
    zs.next_out = reinterpret_cast<Bytef*>(&out[0]);
    zs.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(Z_STREAM_END, deflate(&zs, Z_FINISH));
    out.resize(zs.total_out);
    deflateEnd(&zs);
    return out;
}

// Text that compresses several times over: each 1024-byte piece of its gzip
// form decodes to more than one 1024-byte output piece.
std::string Compressible(size_t size)
{
    static const char* const words[] = {"alpha ", "bravo ", "charlie ", "delta ", "echo\n", "foxtrot ", "golf "};
    std::string out;
    std::uint32_t state = 12345;
    while (out.size() < size) {
        state = state * 1103515245u + 12345u;
        out += words[(state >> 16) % 7];
    }
    out.resize(size);
    return out;
}

// Bytes that zlib cannot shrink (so the gzip form spans many pieces).
std::string Incompressible(size_t size)
{
    std::string out(size, '\0');
    std::uint32_t state = 987654321u;
    for (size_t i = 0; i < size; ++i) {
        state = state * 1664525u + 1013904223u;
        out[i] = static_cast<char>(state >> 24);
    }
    return out;
}

std::string Chunked(const std::vector<std::string>& chunks)
{
    std::string out;
    for (const std::string& c : chunks) {
        char size[16];
        std::snprintf(size, sizeof size, "%zx", c.size());
        out += size;
        out += "\r\n";
        out += c;
        out += "\r\n";
    }
    out += "0\r\n\r\n";
    return out;
}

std::string Head(const std::string& statusLine, const std::string& fields)
{
    return statusLine + "\r\n" + fields + "\r\n";
}

std::string ReadFile(const QString& path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return std::string();
    const QByteArray all = f.readAll();
    return std::string(all.constData(), static_cast<size_t>(all.size()));
}

void WriteFile(const QString& path, const std::string& content)
{
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    ASSERT_EQ(static_cast<qint64>(content.size()), f.write(content.data(), static_cast<qint64>(content.size())));
}

quint32 Ip(const char* text)
{
    return QHostAddress(QString::fromLatin1(text)).toIPv4Address();
}

// ------------------------------------------------------------ fixture

class EngineTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_server.listen(QHostAddress::LocalHost, 0));
        m_port = m_server.serverPort();
        m_engine.reset(CMLHttpEngine::NewL());
        m_engine->SetObserver(&m_obs);
        m_engine->SetRequestID(KId);
        ON_CALL(m_obs, OnHttpEngine_RecvHeader(_, _)).WillByDefault(Return(1));
        ON_CALL(m_obs, OnHttpEngine_ResponseData(_, _, _, _))
            .WillByDefault(Invoke([this](int, unsigned char* data, int len, int n) {
                m_pieces.push_back(BytesOf(data, len));
                m_counts.push_back(n);
                return 1;
            }));
        CMLHttpEngine::SetDNSGatewayURL(GatewayURL().c_str());
    }

    void TearDown() override
    {
        m_engine.reset();
        m_peers.clear();
        CMLHttpEngine::SetDNSGatewayURL(CMLHttpEngine::KDefaultDNSGatewayURL);
    }

    std::string Url(const std::string& path) const
    {
        return "http://127.0.0.1:" + std::to_string(m_port) + path;
    }
    std::string NamedUrl(const std::string& host, const std::string& path) const
    {
        return "http://" + host + ":" + std::to_string(m_port) + path;
    }
    std::string GatewayURL() const { return "http://127.0.0.1:" + std::to_string(m_port) + "/"; }

    // A name the socket engine finds in the DNS cache (no lookup).
    static void CacheHost(const char* host, const char* ip)
    {
        CDNSCache::GetOrCreateRegistered()->Update(CQWString(QString::fromLatin1(host)), Ip(ip));
    }
    static bool CachedAddress(const char* host, quint32& ip)
    {
        unsigned int value = 0;
        const bool found = CDNSCache::GetOrCreateRegistered()->GetAddress(CQWString(QString::fromLatin1(host)), true,
                                                                         value);
        ip = value;
        return found;
    }

    void Get(const std::string& path, const CQWString* recvFile = nullptr)
    {
        ASSERT_NE(0, m_engine->DoGet(Url(path).c_str(), recvFile, -1));
    }

    void Event(int event) { m_engine->OnSocketEngine_SocketEvent(event, 0); }

    // The socket engine connects for real: it raises event 32 itself and
    // sends the request; done when the request is written and reception is
    // armed. The server side of each connection is kept open and silent.
    void Connect()
    {
        ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine->GetHttpSocketCurrentStatus() == KReceiving; }))
            << "status " << m_engine->GetHttpSocketCurrentStatus();
        while (m_server.hasPendingConnections())
            m_peers.emplace_back(m_server.nextPendingConnection());
    }

    // One read of the socket engine: pieces of at most 1024 bytes, each in
    // an exactly sized block; the rest of the read is dropped once a piece
    // answers 0. Returns the last answer.
    int Feed(const std::string& read)
    {
        int result = 1;
        size_t pos = 0;
        do {
            const size_t n = std::min<size_t>(KPieceSize, read.size() - pos);
            std::unique_ptr<unsigned char[]> piece(new unsigned char[n ? n : 1]);
            std::copy(read.begin() + static_cast<std::ptrdiff_t>(pos),
                      read.begin() + static_cast<std::ptrdiff_t>(pos + n), piece.get());
            result = m_engine->OnSocketEngine_ReceiveData(piece.get(), static_cast<int>(n));
            pos += n;
        } while (result != 0 && pos < read.size());
        return result;
    }

    // The bytes as successive reads of the given sizes (the rest as a last
    // read); stops at a read that answers 0.
    int FeedReads(const std::string& all, const std::vector<size_t>& sizes)
    {
        size_t pos = 0;
        int result = 1;
        for (size_t s : sizes) {
            result = Feed(all.substr(pos, s));
            pos += s;
            if (result == 0)
                return result;
        }
        if (pos < all.size())
            result = Feed(all.substr(pos));
        return result;
    }

    std::string Body() const
    {
        std::string all;
        for (const std::string& p : m_pieces)
            all += p;
        return all;
    }

    QTcpServer m_server;
    std::vector<std::unique_ptr<QTcpSocket>> m_peers;
    quint16 m_port = 0;
    StrictMock<MockObserver> m_obs;
    std::unique_ptr<CMLHttpEngine> m_engine;
    std::vector<std::string> m_pieces;
    std::vector<int> m_counts;
    TestDirectory m_dir;
};

// ============================================================ construction

TEST_F(EngineTest, NewLStartsIdleWithTheInitialValues)
{
    std::unique_ptr<CMLHttpEngine> engine(CMLHttpEngine::NewL());
    ASSERT_NE(nullptr, engine->GetSocketEngine());
    EXPECT_EQ(nullptr, engine->GetObserver());
    EXPECT_TRUE(engine->IsIdle());
    EXPECT_EQ(KSocketIdle, engine->GetHttpSocketCurrentStatus());
    EXPECT_EQ(CMLHttpEngine::HES_Idle, engine->GetState());
    EXPECT_EQ(CMLHttpEngine::HRDM_Length, CMLHttpEngineTestPeer::GetRecvDataMode(*engine));
    EXPECT_EQ(16, engine->GetCurMethod());
    EXPECT_FALSE(CMLHttpEngineTestPeer::IsHeadReceived(*engine));
    EXPECT_EQ(0, CMLHttpEngineTestPeer::GetBytesReceived(*engine));
    EXPECT_EQ(0, CMLHttpEngineTestPeer::GetDataCallCount(*engine));
    EXPECT_EQ(0, CMLHttpEngineTestPeer::GetMultipartFlag(*engine));
    EXPECT_TRUE(engine->GetCurPostData().IsEmpty());
    EXPECT_EQ(20480, CMLHttpEngineTestPeer::GetPostOLFileHeaderUnit(*engine).m_nBlockSize);
    EXPECT_EQ(-1, CMLHttpEngineTestPeer::GetRequestHeaderUnit(*engine).m_nOffset);
}

TEST(EngineGatewayURLTest, DefaultIsTheLoopbackGatewayAndASetterChangesIt)
{
    EXPECT_EQ("http://127.0.0.1:8053/", ToStd(CMLHttpEngine::GetDNSGatewayURL()));
    CMLHttpEngine::SetDNSGatewayURL("http://127.0.0.1:9/");
    EXPECT_EQ("http://127.0.0.1:9/", ToStd(CMLHttpEngine::GetDNSGatewayURL()));
    CMLHttpEngine::SetDNSGatewayURL(nullptr);
    EXPECT_EQ("http://127.0.0.1:9/", ToStd(CMLHttpEngine::GetDNSGatewayURL()));
    CMLHttpEngine::SetDNSGatewayURL(CMLHttpEngine::KDefaultDNSGatewayURL);
    EXPECT_EQ("http://127.0.0.1:8053/", ToStd(CMLHttpEngine::GetDNSGatewayURL()));
}

TEST_F(EngineTest, NewLWithNotifierReportsThroughItsAdapterAndPassesSentBytesOn)
{
    StrictMock<MockNotifier> notifier;
    std::unique_ptr<CMLHttpEngine> engine(CMLHttpEngine::NewL(&notifier));
    ASSERT_NE(nullptr, engine->GetObserver());
    engine->SetRequestID(KId);
    unsigned char sent[] = {'G', 'E', 'T'};
    {
        InSequence seq;
        EXPECT_CALL(notifier, HttpEventNotify(KId, KLookupStarted)).WillOnce(Return(0));
        EXPECT_CALL(notifier, HttpNotifySend(sent, 3));
    }
    engine->OnSocketEngine_SocketEvent(KLookupStarted, 0);
    EXPECT_EQ(1, engine->OnSocketEngine_SendData(sent, 3));
}

TEST_F(EngineTest, SendDataWithoutAdapterReportsNothingAndAnswersOne)
{
    unsigned char sent[] = {'x'};
    EXPECT_EQ(1, m_engine->OnSocketEngine_SendData(sent, 1));
}

TEST_F(EngineTest, WithoutSocketEngineRequestsReturnZeroAndChangeNothing)
{
    CMLHttpEngine bare;
    bare.SetObserver(&m_obs);
    const CQWString file(QString("/tmp/never"));
    unsigned char body[] = {'a'};
    EXPECT_EQ(0, bare.DoGet(Url("/a").c_str(), &file, -1));
    EXPECT_EQ(0, bare.DoGet(CQSString(Url("/a").c_str()), file));
    EXPECT_EQ(0, bare.DoPost(Url("/a").c_str(), &file, body, 1));
    EXPECT_EQ(0, bare.DoPostFile(Url("/a").c_str(), &file, body, 1, file, file));
    EXPECT_EQ(0, bare.DoPostOLFile("127.0.0.1", nullptr, 0, file, 100));
    EXPECT_EQ(0, bare.ConnectServer(nullptr));
    EXPECT_EQ(16, bare.GetCurMethod());
    EXPECT_TRUE(CMLHttpEngineTestPeer::GetRequestData(bare).GetURL().IsEmpty());
    EXPECT_FALSE(CMLHttpEngineTestPeer::IsRecvToFile(bare));
    EXPECT_TRUE(CMLHttpEngineTestPeer::GetRecvFilePath(bare).IsEmpty());
    EXPECT_EQ(CMLHttpEngine::HES_Idle, bare.GetState());
    EXPECT_FALSE(bare.IsIdle());
    EXPECT_EQ(-1, bare.GetHttpSocketCurrentStatus());
    EXPECT_EQ(0, bare.DoClearSendInfo());
    // Events are ignored without a socket engine: the strict observer hears nothing.
    bare.OnSocketEngine_SocketEvent(KLookupStarted, 0);
    bare.OnSocketEngine_SocketEvent(KSocketError, 0);
    bare.OnSocketEngine_SocketEvent(KConnected, 0);
}

// ============================================================ socket events

enum class EventAction { Nothing, NetEvent, NetError };

struct EventRow
{
    const char* name;
    int event;
    EventAction action;
};

void PrintTo(const EventRow& row, std::ostream* os)
{
    *os << row.name << " (event " << row.event << ")";
}

class EngineEventTest : public EngineTest, public ::testing::WithParamInterface<EventRow>
{
};

TEST_P(EngineEventTest, MapsTheEventAsTheTableSays)
{
    const EventRow& row = GetParam();
    const QString path = m_dir.File("body.bin");
    const CQWString file(path);
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        if (row.action == EventAction::NetEvent)
            EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, row.event));
        if (row.action == EventAction::NetError)
            EXPECT_CALL(m_obs, OnHttpEngine_NetError(KId, row.event));
    }
    Get("/a", &file);
    Connect();  // sends the request and creates the receive file
    ASSERT_TRUE(QFile::exists(path));
    ASSERT_FALSE(m_engine->IsIdle());

    Event(row.event);
    if (row.action == EventAction::NetError) {
        EXPECT_TRUE(m_engine->IsIdle());
        EXPECT_FALSE(QFile::exists(path)) << "a failure deletes the receive file";
        EXPECT_FALSE(CMLHttpEngineTestPeer::IsRecvToFile(*m_engine));
    } else {
        EXPECT_FALSE(m_engine->IsIdle());
        EXPECT_TRUE(QFile::exists(path));
        EXPECT_TRUE(CMLHttpEngineTestPeer::IsRecvToFile(*m_engine));
    }
    EXPECT_EQ(CMLHttpEngine::HES_HttpRequest, m_engine->GetState());
}

const EventRow KEventRows[] = {
    {"below-range-0", 0, EventAction::Nothing},
    {"below-range-15", 15, EventAction::Nothing},
    {"net-event-16", 16, EventAction::NetEvent},
    {"net-error-17", 17, EventAction::NetError},
    {"net-error-18", 18, EventAction::NetError},
    {"ignored-19", 19, EventAction::Nothing},
    {"net-event-20", 20, EventAction::NetEvent},
    {"ignored-21", 21, EventAction::Nothing},
    {"ignored-31", 31, EventAction::Nothing},
    {"net-error-33", 33, EventAction::NetError},
    {"net-error-34", 34, EventAction::NetError},
    {"net-error-35", 35, EventAction::NetError},
    {"net-event-37", 37, EventAction::NetEvent},
    {"net-event-38", 38, EventAction::NetEvent},
    {"ignored-39", 39, EventAction::Nothing},
    {"ignored-47", 47, EventAction::Nothing},
    {"net-error-48", 48, EventAction::NetError},
    {"net-error-49", 49, EventAction::NetError},
    {"net-error-50", 50, EventAction::NetError},
    {"ignored-51", 51, EventAction::Nothing},
    {"ignored-63", 63, EventAction::Nothing},
    {"net-error-64", 64, EventAction::NetError},
    {"above-range-65", 65, EventAction::Nothing},
    {"file-length-80", 80, EventAction::Nothing},
    {"empty-path-81", 81, EventAction::Nothing},
    {"negative", -1, EventAction::Nothing},
};

INSTANTIATE_TEST_SUITE_P(Events, EngineEventTest, ::testing::ValuesIn(KEventRows),
                         [](const ::testing::TestParamInfo<EventRow>& info) {
                             std::string name = info.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST_F(EngineTest, Events80And81ReportNothingAndLeaveTheEngineAsItWas)
{
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    Get("/a");
    Connect();
    const std::string sent = HeaderBytes(CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine));
    const int status = m_engine->GetHttpSocketCurrentStatus();
    Event(81);
    Event(80);
    EXPECT_EQ(status, m_engine->GetHttpSocketCurrentStatus());
    EXPECT_EQ(CMLHttpEngine::HES_HttpRequest, m_engine->GetState());
    EXPECT_EQ(17, m_engine->GetCurMethod());
    EXPECT_EQ(sent, HeaderBytes(CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine)));
}

TEST_F(EngineTest, ConnectedWithoutARequestKindIsFatal)
{
    EXPECT_DEATH(Event(KConnected), "FALSE.*src/MLHttpEngine");
}

// ============================================================ sending

TEST_F(EngineTest, ConnectedSendsTheGetHeadThenReportsEvent32)
{
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    Get("/news?id=7");
    EXPECT_EQ(CMLHttpEngine::HES_HttpRequest, m_engine->GetState());
    EXPECT_EQ(17, m_engine->GetCurMethod());
    EXPECT_EQ(17, CMLHttpEngineTestPeer::GetRequestedMethod(*m_engine));
    EXPECT_FALSE(m_engine->IsIdle());
    Connect();
    EXPECT_EQ(ExpectedGet(Url("/news?id=7"), KId), HeaderBytes(CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine)));
    EXPECT_EQ(std::string::npos, HeaderBytes(CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine)).find("Range:"));
}

TEST_F(EngineTest, TheRequestIdIsTheEncodingModeSoOnlyTheCurrentPageAsksForGzip)
{
    m_engine->SetRequestID(KIdCurrentPage);
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KIdCurrentPage, KConnected));
    Get("/");
    Connect();
    const std::string sent = HeaderBytes(CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine));
    EXPECT_EQ(ExpectedGet(Url("/"), KIdCurrentPage), sent);
    EXPECT_NE(std::string::npos, sent.find("Accept-Encoding: gzip\r\n"));
}

TEST_F(EngineTest, GetWithAResumeOffsetSendsARangeRequest)
{
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    ASSERT_NE(0, m_engine->DoGet(Url("/file").c_str(), nullptr, 500));
    EXPECT_EQ(500, CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine).m_nOffset);
    Connect();
    const std::string sent = HeaderBytes(CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine));
    EXPECT_EQ(ExpectedPartialGet(Url("/file"), KId, 500), sent);
    EXPECT_NE(std::string::npos, sent.find("Range: bytes=500-\r\n"));
}

TEST_F(EngineTest, DoGetWithStringsAlwaysSendsARangeRequestFromByteZero)
{
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    const QString path = m_dir.File("whole.bin");
    EXPECT_EQ(1, m_engine->DoGet(CQSString(Url("/whole").c_str()), CQWString(path)));
    EXPECT_EQ(0, CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine).m_nOffset);
    EXPECT_TRUE(CMLHttpEngineTestPeer::IsRecvToFile(*m_engine));
    Connect();
    const std::string sent = HeaderBytes(CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine));
    EXPECT_EQ(ExpectedPartialGet(Url("/whole"), KId, 0), sent);
    EXPECT_NE(std::string::npos, sent.find("Range: bytes=0-\r\n"));
    EXPECT_TRUE(QFile::exists(path)) << "the receive file is created when the request is sent";
}

TEST_F(EngineTest, PostSendsHeadAndBody)
{
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    std::string body = "a=1&b=hello";
    ASSERT_NE(0, m_engine->DoPost(Url("/form").c_str(), nullptr, reinterpret_cast<unsigned char*>(&body[0]),
                                  static_cast<int>(body.size())));
    EXPECT_EQ(18, m_engine->GetCurMethod());
    EXPECT_EQ(18, CMLHttpEngineTestPeer::GetRequestedMethod(*m_engine));
    EXPECT_EQ(-1, CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine).m_nOffset);
    EXPECT_EQ(body, ToStd(CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine).m_strData));
    Connect();
    const std::string sent = HeaderBytes(CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine));
    EXPECT_EQ(ExpectedPost(Url("/form"), KId, body), sent);
    EXPECT_EQ(body, sent.substr(sent.size() - body.size()));
}

TEST_F(EngineTest, PostReferenceFormForwardsTheReceiveFile)
{
    const QString path = m_dir.File("post.bin");
    unsigned char body[] = {'x', '=', '1'};
    ASSERT_NE(0, m_engine->DoPost(Url("/form").c_str(), CQWString(path), body, 3));
    EXPECT_TRUE(CMLHttpEngineTestPeer::IsRecvToFile(*m_engine));
    EXPECT_EQ(path, CMLHttpEngineTestPeer::GetRecvFilePath(*m_engine).ToQString());
}

TEST_F(EngineTest, PostWhoseRequestCannotBeBuiltIsFatal)
{
    unsigned char body[] = {'x'};
    EXPECT_DEATH(
        {
            m_engine->SetObserver(nullptr);
            m_engine->DoPost("no-scheme-here", nullptr, body, 1);
            Event(KConnected);
        },
        "FALSE.*src/MLHttpEngine");
}

TEST_F(EngineTest, GetWhoseRequestCannotBeBuiltSendsNothing)
{
    {
        InSequence seq;
        // The socket engine looks the empty host name up.
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KLookupStarted));
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    }
    (void)m_engine->DoGet("no-scheme-here", nullptr, -1);
    Event(KConnected);
    EXPECT_EQ(nullptr, CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine).m_pHeaderData);
    EXPECT_EQ(0, CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine).m_nHeaderLen);
}

TEST_F(EngineTest, ASendTheSocketEngineRefusesIsFatal)
{
    EXPECT_DEATH(
        {
            m_engine->SetObserver(nullptr);
            m_engine->DoGet(Url("/a").c_str(), nullptr, -1);
            // Still connecting: the socket engine refuses to write.
            Event(KConnected);
        },
        "FALSE.*src/MLHttpEngine");
}

TEST_F(EngineTest, APostSendTheSocketEngineRefusesIsFatal)
{
    unsigned char body[] = {'x'};
    EXPECT_DEATH(
        {
            m_engine->SetObserver(nullptr);
            m_engine->DoPost(Url("/a").c_str(), nullptr, body, 1);
            // Still connecting: the socket engine refuses to write.
            Event(KConnected);
        },
        "FALSE.*src/MLHttpEngine");
}

TEST_F(EngineTest, APostFileSendTheSocketEngineRefusesIsFatal)
{
    const QString upload = m_dir.File("refused.txt");
    WriteFile(upload, "abc");
    EXPECT_DEATH(
        {
            m_engine->SetObserver(nullptr);
            m_engine->DoPostFile(Url("/up").c_str(), nullptr, nullptr, 0, CQWString(upload), CQWString(L"f"));
            Event(KConnected);
        },
        "FALSE.*src/MLHttpEngine");
}

TEST_F(EngineTest, AnUploadBlockTheSocketEngineRefusesIsFatal)
{
    const QString upload = m_dir.File("refused.bin");
    WriteFile(upload, "abc");
    const std::string host = "127.0.0.1:" + std::to_string(m_port);
    char key[] = {'k'};
    EXPECT_DEATH(
        {
            m_engine->SetObserver(nullptr);
            m_engine->DoPostOLFile(host.c_str(), key, 1, CQWString(upload), 4096);
            Event(KConnected);
        },
        "FALSE.*src/MLHttpEngine");
}

TEST(EngineConstructionDeathTest, NoMemoryForTheSocketEngineIsFatal)
{
    EXPECT_DEATH(
        {
            velatest::HeapWatch::FailNothrowAfter(0);
            delete CMLHttpEngine::NewL();
        },
        "m_pSocketEngine != NULL.*src/MLHttpEngine");
}

TEST_F(EngineTest, PostFileWithAnEmptyPathIsDroppedWithoutAWord)
{
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    unsigned char fields[] = {'k', '=', 'v'};
    ASSERT_NE(0, m_engine->DoPostFile(Url("/up").c_str(), nullptr, fields, 3, CQWString(), CQWString(L"file")));
    EXPECT_EQ(19, m_engine->GetCurMethod());
    const int status = m_engine->GetHttpSocketCurrentStatus();
    Event(KConnected);
    EXPECT_EQ(status, m_engine->GetHttpSocketCurrentStatus()) << "nothing was handed to the socket engine";
    EXPECT_EQ(nullptr, CMLHttpEngineTestPeer::GetPostFileHeaderUnit(*m_engine).m_pHeaderData);
}

TEST_F(EngineTest, PostFileOfAMissingFileIsDroppedWithoutAWord)
{
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    ASSERT_NE(0, m_engine->DoPostFile(Url("/up").c_str(), nullptr, nullptr, 0, CQWString(m_dir.File("missing")),
                                      CQWString(L"file")));
    const int status = m_engine->GetHttpSocketCurrentStatus();
    Event(KConnected);
    EXPECT_EQ(status, m_engine->GetHttpSocketCurrentStatus());
    EXPECT_EQ(nullptr, CMLHttpEngineTestPeer::GetPostFileHeaderUnit(*m_engine).m_pHeaderData);
}

TEST_F(EngineTest, PostFileSendsTheMultipartHeadBuiltFromTheStoredFields)
{
    const QString upload = m_dir.File("upload.txt");
    WriteFile(upload, std::string(3000, 'u'));
    const QString recv = m_dir.File("reply.bin");
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    std::string fields = "a=1&b=2";
    ASSERT_NE(0, m_engine->DoPostFile(Url("/up").c_str(), nullptr, reinterpret_cast<unsigned char*>(&fields[0]),
                                      static_cast<int>(fields.size()), CQWString(upload), CQWString(L"attach")));
    (void)recv;
    const CQPostFileHeaderUnit& unit = CMLHttpEngineTestPeer::GetPostFileHeaderUnit(*m_engine);
    EXPECT_EQ(fields, ToStd(unit.m_strData));
    EXPECT_EQ(upload, unit.m_strFilePath.ToQString());
    EXPECT_EQ(QString("attach"), unit.m_strFieldName.ToQString());
    Connect();

    // The same unit built by CHttpData for the same URL.
    CHttpData data;
    data.SetURL(Url("/up").c_str());
    CQPostFileHeaderUnit expected;
    (void)expected.m_strData.SetData(fields.c_str());
    expected.m_strFilePath = CQWString(upload);
    expected.m_strFieldName = CQWString(L"attach");
    expected.m_nFileSize = 3000;
    ASSERT_TRUE(data.GetPostFileMethodData(false, expected));
    EXPECT_EQ(3000, unit.m_nFileSize);
    EXPECT_EQ(HeaderBytes(expected), HeaderBytes(unit));
    EXPECT_EQ(BytesOf(expected.m_pInfoData, expected.m_nInfoDataLen), BytesOf(unit.m_pInfoData, unit.m_nInfoDataLen));
    EXPECT_NE(KSocketIdle, m_engine->GetHttpSocketCurrentStatus());
}

TEST_F(EngineTest, PostFileWhoseHeadCannotBeBuiltIsFatal)
{
    const QString upload = m_dir.File("upload.txt");
    WriteFile(upload, "abc");
    EXPECT_DEATH(
        {
            m_engine->SetObserver(nullptr);
            m_engine->DoPostFile("no-scheme-here", nullptr, nullptr, 0, CQWString(upload), CQWString(L"f"));
            Event(KConnected);
        },
        "FALSE.*src/MLHttpEngine");
}

TEST_F(EngineTest, PostOLFileStoresWhatTheUploadNeedsAndConnectsToTheHost)
{
    const QString upload = m_dir.File("ol.bin");
    const std::string host = "127.0.0.1:" + std::to_string(m_port);
    char key[] = {'k', '3', 'y', 'X'};
    ASSERT_NE(0, m_engine->DoPostOLFile(host.c_str(), key, 3, CQWString(upload), 4096));
    const CQPostOLFileHeaderUnit& unit = CMLHttpEngineTestPeer::GetPostOLFileHeaderUnit(*m_engine);
    EXPECT_EQ(20, m_engine->GetCurMethod());
    EXPECT_EQ(20, CMLHttpEngineTestPeer::GetRequestedMethod(*m_engine));
    EXPECT_EQ(4096, unit.m_nBlockSize);
    EXPECT_EQ(upload, unit.m_strFilePath.ToQString());
    EXPECT_EQ(host, ToStd(unit.m_strHost));
    ASSERT_NE(nullptr, unit.m_pKey);
    EXPECT_EQ(std::string("k3y"), std::string(unit.m_pKey));
    EXPECT_EQ(0, unit.m_nFileLen);
    EXPECT_EQ(-1, unit.m_nOffset);
    EXPECT_FALSE(CMLHttpEngineTestPeer::IsRecvToFile(*m_engine));
    EXPECT_EQ("http://" + host + "/", ToStd(CMLHttpEngineTestPeer::GetRequestData(*m_engine).GetURL()));
    EXPECT_FALSE(m_engine->IsIdle());
}

TEST_F(EngineTest, PostOLFileWithAnEmptyPathIsDroppedWithoutAWord)
{
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    const std::string host = "127.0.0.1:" + std::to_string(m_port);
    char key[] = {'k'};
    ASSERT_NE(0, m_engine->DoPostOLFile(host.c_str(), key, 1, CQWString(), 4096));
    const int status = m_engine->GetHttpSocketCurrentStatus();
    Event(KConnected);
    EXPECT_EQ(status, m_engine->GetHttpSocketCurrentStatus());
}

TEST_F(EngineTest, PostOLFileOfAMissingFileIsDroppedWithoutAWord)
{
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    const std::string host = "127.0.0.1:" + std::to_string(m_port);
    char key[] = {'k'};
    ASSERT_NE(0, m_engine->DoPostOLFile(host.c_str(), key, 1, CQWString(m_dir.File("missing")), 4096));
    const int status = m_engine->GetHttpSocketCurrentStatus();
    Event(KConnected);
    EXPECT_EQ(status, m_engine->GetHttpSocketCurrentStatus());
    EXPECT_EQ(0, CMLHttpEngineTestPeer::GetPostOLFileHeaderUnit(*m_engine).m_nFileLen);
}

TEST_F(EngineTest, GetMoreSendDataServesTheStoredRequestFromAnOffset)
{
    int len = -7;
    EXPECT_EQ(nullptr, m_engine->OnSocketEngine_GetMoreSendData(0, len)) << "no stored request yet";
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    Get("/a");
    Connect();
    const CQRequestHeaderUnit& unit = CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine);
    EXPECT_EQ(unit.m_pHeaderData, m_engine->OnSocketEngine_GetMoreSendData(0, len));
    EXPECT_EQ(unit.m_nHeaderLen, len);
    EXPECT_EQ(unit.m_pHeaderData + 10, m_engine->OnSocketEngine_GetMoreSendData(10, len));
    EXPECT_EQ(unit.m_nHeaderLen - 10, len);
    EXPECT_EQ(unit.m_pHeaderData + unit.m_nHeaderLen,
              m_engine->OnSocketEngine_GetMoreSendData(unit.m_nHeaderLen, len));
    EXPECT_EQ(0, len);
    len = -7;
    EXPECT_EQ(nullptr, m_engine->OnSocketEngine_GetMoreSendData(unit.m_nHeaderLen + 1, len));
    EXPECT_EQ(nullptr, m_engine->OnSocketEngine_GetMoreSendData(-1, len));
    EXPECT_EQ(-7, len);
}

TEST_F(EngineTest, CookiesOfTheHolderGoOutUntilDisabled)
{
    QCookieHolder holder;
    ASSERT_EQ(QCookieHolder::KCookieStored, holder.ParseCookie(CQSString(Url("/").c_str()), CQSString("sid=ab12")));
    m_engine->SetCookieHold(&holder);
    EXPECT_EQ(&holder, CMLHttpEngineTestPeer::GetRequestData(*m_engine).GetCookiePointer());
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected)).Times(2);
    Get("/c");
    Connect();
    EXPECT_NE(std::string::npos, HeaderBytes(CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine)).find("Cookie: sid=ab12\r\n"));
    m_engine->DisableCookie();
    EXPECT_EQ(nullptr, CMLHttpEngineTestPeer::GetRequestData(*m_engine).GetCookiePointer());
    Get("/c");
    Connect();
    EXPECT_EQ(std::string::npos, HeaderBytes(CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine)).find("Cookie:"));
}

TEST_F(EngineTest, PriorityAndUserAgentCallsChangeNothing)
{
    const std::string ua = ToStd(const_cast<CHttpData&>(CMLHttpEngineTestPeer::GetRequestData(*m_engine)).GetUserAgent());
    CQSString a("User-Agent: other"), b("V-UA: other"), c("X: y");
    m_engine->SetUserAgent(a, b, c);
    m_engine->SetPriority(CRequestUnit::RP_Highest);
    m_engine->SetPriority(CRequestUnit::RP_Low);
    EXPECT_EQ(ua, ToStd(const_cast<CHttpData&>(CMLHttpEngineTestPeer::GetRequestData(*m_engine)).GetUserAgent()));
    EXPECT_EQ(1, m_engine->DoClearSendInfo());
}

// ============================================================ connect and reset

TEST_F(EngineTest, ConnectServerGoesFromIdleToTheRequestAndInTheGatewayStateToTheGateway)
{
    QTcpServer gateway;
    ASSERT_TRUE(gateway.listen(QHostAddress::LocalHost, 0));
    CMLHttpEngine::SetDNSGatewayURL(("http://127.0.0.1:" + std::to_string(gateway.serverPort()) + "/").c_str());
    NiceMock<MockObserver> quiet;
    m_engine->SetObserver(&quiet);
    CacheHost("connect.test", "127.0.0.1");

    EXPECT_EQ(CMLHttpEngine::HES_Idle, m_engine->GetState());
    ASSERT_NE(0, m_engine->DoGet(NamedUrl("connect.test", "/r").c_str(), nullptr, -1));
    EXPECT_EQ(CMLHttpEngine::HES_HttpRequest, m_engine->GetState());
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_server.hasPendingConnections(); }))
        << "state 1 connects to the request's host and port";

    // The lookup failed: the socket engine is idle again and raises 36.
    m_engine->GetSocketEngine()->CancelEngine();
    Event(KNotResolvable);
    EXPECT_EQ(CMLHttpEngine::HES_DNSRequest, m_engine->GetState());
    ASSERT_TRUE(velatest::SpinUntil([&gateway] { return gateway.hasPendingConnections(); }))
        << "state 2 connects to the gateway";
    m_engine->CancelRequest();
}

TEST_F(EngineTest, ResetClearsTheResponseButKeepsStateKindsIdPathAndRequest)
{
    const QString path = m_dir.File("partial.bin");
    const CQWString file(path);
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, StatusIs(200)));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 4, 4));
    }
    Get("/r", &file);
    Connect();
    ASSERT_EQ(1, Feed(Head("HTTP/1.1 200 OK", "Content-Length: 10\r\n") + "abcd"));
    ASSERT_TRUE(CMLHttpEngineTestPeer::IsHeadReceived(*m_engine));
    const std::string sent = HeaderBytes(CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine));

    m_engine->Reset(false);
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_FALSE(CMLHttpEngineTestPeer::IsHeadReceived(*m_engine));
    EXPECT_EQ(0, CMLHttpEngineTestPeer::GetBytesReceived(*m_engine));
    EXPECT_EQ(0, CMLHttpEngineTestPeer::GetDataCallCount(*m_engine));
    EXPECT_EQ(CMLHttpEngine::HRDM_Length, CMLHttpEngineTestPeer::GetRecvDataMode(*m_engine));
    EXPECT_FALSE(CMLHttpEngineTestPeer::IsRecvToFile(*m_engine));
    EXPECT_EQ(-1, CMLHttpEngineTestPeer::GetResponseHead(*m_engine).m_nStatusCode);
    EXPECT_EQ(0, CMLHttpEngineTestPeer::GetFilterState(*m_engine));
    EXPECT_EQ(CMLHttpEngine::HES_HttpRequest, m_engine->GetState());
    EXPECT_EQ(17, m_engine->GetCurMethod());
    EXPECT_EQ(17, CMLHttpEngineTestPeer::GetRequestedMethod(*m_engine));
    EXPECT_EQ(KId, m_engine->GetRequestID());
    EXPECT_EQ(path, CMLHttpEngineTestPeer::GetRecvFilePath(*m_engine).ToQString());
    EXPECT_EQ(sent, HeaderBytes(CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine)));
    EXPECT_EQ(Url("/r"), ToStd(CMLHttpEngineTestPeer::GetRequestData(*m_engine).GetURL()));
    EXPECT_EQ("abcd", ReadFile(path)) << "Reset(false) keeps the receive file";
}

TEST_F(EngineTest, CancelRequestDeletesThePartlyWrittenFileAndReportsNothing)
{
    const QString path = m_dir.File("partial.bin");
    const CQWString file(path);
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 4, 4));
    }
    Get("/r", &file);
    Connect();
    ASSERT_EQ(1, Feed(Head("HTTP/1.1 200 OK", "Content-Length: 10\r\n") + "abcd"));
    ASSERT_TRUE(QFile::exists(path));
    EXPECT_EQ(1, m_engine->CancelRequest());
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_FALSE(QFile::exists(path));
}

TEST_F(EngineTest, AReceiveFileThatCannotBeOpenedIsTurnedOffAndTheBodyStillReported)
{
    const CQWString file(m_dir.File("no/such/dir/body.bin"));
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 3, 3));
        EXPECT_CALL(m_obs, OnHttpEngine_Complete(KId, PathIs(m_dir.File("no/such/dir/body.bin"))));
    }
    Get("/r", &file);
    Connect();
    EXPECT_FALSE(CMLHttpEngineTestPeer::IsRecvToFile(*m_engine));
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Content-Length: 3\r\n") + "xyz"));
    EXPECT_EQ("xyz", Body());
}

// ============================================================ the head

TEST_F(EngineTest, AHeadSplitOverThreeReadsIsParsedOnlyWhenTheThirdCompletesIt)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, StatusIs(200)));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 5, 5));
        EXPECT_CALL(m_obs, OnHttpEngine_Complete(KId, PathIs(QString())));
    }
    Get("/h");
    Connect();
    EXPECT_EQ(1, Feed("HTTP/1.1 200 OK\r\nConte"));
    EXPECT_EQ(1, Feed("nt-Length: 5\r\n"));
    EXPECT_FALSE(CMLHttpEngineTestPeer::IsHeadReceived(*m_engine));
    EXPECT_EQ(0, Feed("\r\nhello"));
    EXPECT_EQ("hello", Body());
    EXPECT_TRUE(m_engine->IsIdle());
}

TEST_F(EngineTest, ContentLengthZeroReportsTheHeadAndCompletesOnlyWithAFurtherPiece)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, Field(&CHttpResponseHead::m_nContentLength, 0)));
    }
    Get("/empty");
    Connect();
    EXPECT_EQ(1, Feed(Head("HTTP/1.1 200 OK", "Content-Length: 0\r\n")));
    EXPECT_TRUE(CMLHttpEngineTestPeer::IsHeadReceived(*m_engine));
    EXPECT_FALSE(m_engine->IsIdle()) << "nothing completes until a further piece arrives";
    ::testing::Mock::VerifyAndClearExpectations(&m_obs);

    EXPECT_CALL(m_obs, OnHttpEngine_Complete(KId, _));
    EXPECT_EQ(0, Feed("x"));
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_TRUE(m_pieces.empty());
}

TEST_F(EngineTest, AHeadOfExactly10240BytesIsParsed)
{
    const std::string start = "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nX-Pad: ";
    const std::string end = "\r\n\r\n";
    const std::string head = start + std::string(10240 - start.size() - end.size(), 'p') + end;
    ASSERT_EQ(10240u, head.size());
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, Field(&CHttpResponseHead::m_nHeadLen, 10240)));
    }
    Get("/big");
    Connect();
    EXPECT_EQ(1, Feed(head));
    EXPECT_TRUE(CMLHttpEngineTestPeer::IsHeadReceived(*m_engine));
}

TEST_F(EngineTest, AHeadOneByteOver10240EndsTheRequestWithNetError64)
{
    const std::string start = "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nX-Pad: ";
    const std::string end = "\r\n\r\n";
    const std::string head = start + std::string(10241 - start.size() - end.size(), 'p') + end;
    const QString path = m_dir.File("overflow.bin");
    const CQWString file(path);
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_NetError(KId, KRecvBufferFull));
    }
    Get("/big", &file);
    Connect();
    EXPECT_EQ(1, Feed(head.substr(0, 10240)));
    EXPECT_EQ(0, Feed(head.substr(10240)));
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_FALSE(QFile::exists(path));
}

TEST_F(EngineTest, ReceiveDataWithoutObserverAnswersZeroAndKeepsNothing)
{
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    Get("/a");
    Connect();
    m_engine->SetObserver(nullptr);
    const std::string head = Head("HTTP/1.1 200 OK", "Content-Length: 1\r\n");
    std::vector<unsigned char> bytes(head.begin(), head.end());
    EXPECT_EQ(0, m_engine->OnSocketEngine_ReceiveData(bytes.data(), static_cast<int>(bytes.size())));
    EXPECT_FALSE(CMLHttpEngineTestPeer::IsHeadReceived(*m_engine));
}

TEST_F(EngineTest, AnObserverThatRefusesTheHeadStopsTheRequestQuietly)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _)).WillOnce(Return(0));
    }
    Get("/a");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Content-Length: 3\r\n") + "abc"));
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_FALSE(CMLHttpEngineTestPeer::IsHeadReceived(*m_engine));
}

TEST_F(EngineTest, AnObserverThatCancelsInsideTheHeadReportGetsNothingMore)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _)).WillOnce(Invoke([this](int, CHttpResponseHead&) {
            m_engine->CancelRequest();
            return 1;
        }));
    }
    Get("/a");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Content-Length: 3\r\n") + "abc"));
    EXPECT_TRUE(m_engine->IsIdle());
}

// ---- status decisions

// Interim: the head is skipped whole and the final head is awaited.
enum class StatusAction { Body, Redirect, HttpError, Interim };

struct StatusRow
{
    const char* name;
    int status;
    StatusAction action;
    const char* location;  // reported for a redirect: only 301 and 302 carry theirs
};

void PrintTo(const StatusRow& row, std::ostream* os)
{
    *os << row.name << " (" << row.status << ")";
}

class EngineStatusTest : public EngineTest, public ::testing::WithParamInterface<StatusRow>
{
};

TEST_P(EngineStatusTest, DecidesByTheStatusRange)
{
    const StatusRow& row = GetParam();
    m_engine->SetRequestID(KIdCurrentPage);  // redirects reported, not followed
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KIdCurrentPage, KConnected));
        switch (row.action) {
        case StatusAction::Body:
            EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KIdCurrentPage, StatusIs(row.status)));
            EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KIdCurrentPage, _, 2, 2));
            EXPECT_CALL(m_obs, OnHttpEngine_Complete(KIdCurrentPage, _));
            break;
        case StatusAction::Redirect:
            EXPECT_CALL(m_obs, OnHttpEngine_URLChange(KIdCurrentPage, TextIs(row.location)));
            break;
        case StatusAction::HttpError:
            EXPECT_CALL(m_obs, OnHttpEngine_HttpError(KIdCurrentPage, row.status));
            break;
        case StatusAction::Interim:
            break;
        }
    }
    Get("/s");
    Connect();
    const std::string status = std::to_string(row.status);
    const int result =
        Feed(Head("HTTP/1.1 " + status + " X", "Content-Length: 2\r\nLocation: http://other.test/x\r\n") + "ok");
    if (row.action == StatusAction::Interim) {
        // "ok" is the start of the next head, which never completes.
        EXPECT_EQ(1, result);
        EXPECT_FALSE(m_engine->IsIdle());
        EXPECT_FALSE(CMLHttpEngineTestPeer::IsHeadReceived(*m_engine));
        return;
    }
    EXPECT_EQ(0, result);
    EXPECT_TRUE(m_engine->IsIdle());
}

const StatusRow KStatusRows[] = {
    {"below-interim-99", 99, StatusAction::HttpError, ""},
    {"interim-100", 100, StatusAction::Interim, ""},
    {"switching-protocols-101-is-final", 101, StatusAction::HttpError, ""},
    {"interim-102", 102, StatusAction::Interim, ""},
    {"interim-199", 199, StatusAction::Interim, ""},
    {"accepted-200", 200, StatusAction::Body, ""},
    {"accepted-206", 206, StatusAction::Body, ""},
    {"past-accepted-207", 207, StatusAction::HttpError, ""},
    {"below-redirect-299", 299, StatusAction::HttpError, ""},
    {"redirect-300-without-location", 300, StatusAction::Redirect, ""},
    {"redirect-301", 301, StatusAction::Redirect, "http://other.test/x"},
    {"redirect-302", 302, StatusAction::Redirect, "http://other.test/x"},
    {"redirect-303-without-location", 303, StatusAction::Redirect, ""},
    {"redirect-307-without-location", 307, StatusAction::Redirect, ""},
    {"past-redirect-308", 308, StatusAction::HttpError, ""},
    {"not-found-404", 404, StatusAction::HttpError, ""},
    {"server-error-500", 500, StatusAction::HttpError, ""},
};

INSTANTIATE_TEST_SUITE_P(Statuses, EngineStatusTest, ::testing::ValuesIn(KStatusRows),
                         [](const ::testing::TestParamInfo<StatusRow>& info) {
                             std::string name = info.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST_F(EngineTest, A302WithId5ReportsTheLocationAndFollowsItOnTheSameEngineUnderId5)
{
    m_engine->SetRequestID(KIdFive);
    const std::string target = Url("/other");
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KIdFive, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_URLChange(KIdFive, TextIs(target)));
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KIdFive, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KIdFive, StatusIs(200)));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KIdFive, _, 2, 2));
        EXPECT_CALL(m_obs, OnHttpEngine_Complete(KIdFive, _));
    }
    Get("/first");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 302 Found", "Location: " + target + "\r\nContent-Length: 0\r\n")));
    EXPECT_EQ(target, ToStd(CMLHttpEngineTestPeer::GetRequestData(*m_engine).GetURL()));
    EXPECT_EQ(17, m_engine->GetCurMethod());
    EXPECT_EQ(-1, CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine).m_nOffset);
    EXPECT_EQ(KIdFive, m_engine->GetRequestID());
    EXPECT_FALSE(m_engine->IsIdle()) << "the GET of the location is under way";

    Connect();
    EXPECT_EQ(ExpectedGet(target, KIdFive), HeaderBytes(CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine)));
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Content-Length: 2\r\n") + "ok"));
}

TEST_F(EngineTest, A302ForTheCurrentPageOrAPrefetchIsOnlyReported)
{
    for (const int id : {KIdCurrentPage, KIdPrefetch}) {
        m_engine->SetRequestID(id);
        {
            InSequence seq;
            EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(id, KConnected));
            EXPECT_CALL(m_obs, OnHttpEngine_URLChange(id, TextIs(Url("/other"))));
        }
        Get("/first");
        Connect();
        EXPECT_EQ(0, Feed(Head("HTTP/1.1 302 Found", "Location: " + Url("/other") + "\r\n")));
        EXPECT_TRUE(m_engine->IsIdle());
        EXPECT_EQ(Url("/first"), ToStd(CMLHttpEngineTestPeer::GetRequestData(*m_engine).GetURL()));
        ::testing::Mock::VerifyAndClearExpectations(&m_obs);
    }
}

TEST_F(EngineTest, A302ForAStyleSheetIsFollowed)
{
    m_engine->SetRequestID(KIdStyleSheet);
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KIdStyleSheet, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_URLChange(KIdStyleSheet, TextIs(Url("/s.css"))));
    }
    Get("/first");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 301 Moved", "Location: " + Url("/s.css") + "\r\n")));
    EXPECT_EQ(Url("/s.css"), ToStd(CMLHttpEngineTestPeer::GetRequestData(*m_engine).GetURL()));
    EXPECT_FALSE(m_engine->IsIdle());
}

TEST_F(EngineTest, A304ReportsAnEmptyLocationThenEndsWithTheRedirectNotStartableError)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_URLChange(KId, TextIs("")));
        EXPECT_CALL(m_obs, OnHttpEngine_NetError(KId, velanet::KErrorRedirectNotStartable));
    }
    Get("/cached");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 304 Not Modified", "Content-Length: 0\r\n")));
    EXPECT_TRUE(m_engine->IsIdle()) << "no lookup of an empty host";
}

struct RedirectRow
{
    const char* name;
    const char* requestPath;
    const char* location;  // "%" stands for 127.0.0.1:port
    const char* reported;
};

void PrintTo(const RedirectRow& row, std::ostream* os)
{
    *os << row.name;
}

class EngineRedirectTest : public EngineTest, public ::testing::WithParamInterface<RedirectRow>
{
protected:
    std::string Expand(const char* text) const
    {
        std::string out = text;
        const size_t at = out.find('%');
        if (at != std::string::npos)
            out.replace(at, 1, "127.0.0.1:" + std::to_string(m_port));
        return out;
    }
};

TEST_P(EngineRedirectTest, ALocationWithoutSchemeIsResolvedAgainstTheRequestURL)
{
    const RedirectRow& row = GetParam();
    const std::string reported = Expand(row.reported);
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_URLChange(KId, TextIs(reported)));
    }
    Get(row.requestPath);
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 302 Found", "Location: " + Expand(row.location) + "\r\n")));
    EXPECT_EQ(reported, ToStd(CMLHttpEngineTestPeer::GetRequestData(*m_engine).GetURL()));
    EXPECT_FALSE(m_engine->IsIdle());
}

const RedirectRow KRedirectRows[] = {
    {"absolute-path", "/dir/a.html?q=1", "/get", "http://%/get"},
    {"relative-path", "/dir/a.html", "b.html", "http://%/dir/b.html"},
    {"dot-dot", "/dir/sub/a.html", "../b.html", "http://%/dir/b.html"},
    {"query-only", "/dir/a.html?q=1", "?q=2", "http://%/dir/a.html?q=2"},
    {"network-path", "/a", "//%/p", "http://%/p"},
    {"absolute-as-it-stands", "/a", "http://%/x/../y", "http://%/x/../y"},
};

INSTANTIATE_TEST_SUITE_P(Locations, EngineRedirectTest, ::testing::ValuesIn(KRedirectRows),
                         [](const ::testing::TestParamInfo<RedirectRow>& info) {
                             std::string name = info.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST_F(EngineTest, ARedirectKeepsTheReceiveFile)
{
    const QString path = m_dir.File("moved.bin");
    const CQWString file(path);
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_URLChange(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 4, 4));
        EXPECT_CALL(m_obs, OnHttpEngine_Complete(KId, PathIs(path)));
    }
    Get("/a", &file);
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 302 Found", "Location: /b\r\n")));
    EXPECT_TRUE(CMLHttpEngineTestPeer::IsRecvToFile(*m_engine));
    EXPECT_EQ(path, CMLHttpEngineTestPeer::GetRecvFilePath(*m_engine).ToQString());
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Content-Length: 4\r\n") + "data"));
    EXPECT_EQ("data", ReadFile(path));
}

TEST_F(EngineTest, A404DeletesThePartlyWrittenReceiveFileAndReportsTheHttpError)
{
    const QString path = m_dir.File("missing.bin");
    WriteFile(path, "old content");
    const CQWString file(path);
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_HttpError(KId, 404));
    }
    Get("/missing", &file);
    Connect();
    ASSERT_TRUE(QFile::exists(path));
    EXPECT_EQ("", ReadFile(path)) << "the receive file is created anew when the request is sent";
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 404 Not Found", "Content-Length: 9\r\n") + "not found"));
    EXPECT_FALSE(QFile::exists(path));
    EXPECT_TRUE(m_engine->IsIdle());
}

// ============================================================ body by length

TEST_F(EngineTest, ALengthBodyReportsTheRunningCountAndCompletesAtTheLength)
{
    const QString path = m_dir.File("body.bin");
    const CQWString file(path);
    const std::string body = Incompressible(2500);
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, Field(&CHttpResponseHead::m_nContentLength, 2500)));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 1000, 1000));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 1000, 2000));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 500, 2500));
        EXPECT_CALL(m_obs, OnHttpEngine_Complete(KId, PathIs(path)));
    }
    Get("/b", &file);
    Connect();
    EXPECT_EQ(1, Feed(Head("HTTP/1.1 200 OK", "Content-Length: 2500\r\n")));
    EXPECT_EQ(1, Feed(body.substr(0, 1000)));
    EXPECT_EQ(CMLHttpEngine::HRDM_Length, CMLHttpEngineTestPeer::GetRecvDataMode(*m_engine));
    EXPECT_EQ(1, Feed(body.substr(1000, 1000)));
    EXPECT_EQ(0, Feed(body.substr(2000)));
    EXPECT_EQ(body, Body());
    EXPECT_EQ(body, ReadFile(path));
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_EQ(CMLHttpEngine::HES_HttpRequest, m_engine->GetState());
}

TEST_F(EngineTest, BytesBeyondTheLengthInTheSamePieceAreDeliveredToo)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 7, 7));
        EXPECT_CALL(m_obs, OnHttpEngine_Complete(KId, _));
    }
    Get("/b");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Content-Length: 3\r\n") + "abcdefg"));
    EXPECT_EQ("abcdefg", Body());
}

TEST_F(EngineTest, AnObserverReturningZeroFromResponseDataGetsNoCompletionAndTheEngineIsIdle)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 3, 3)).WillOnce(Return(0));
    }
    Get("/b");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Content-Length: 6\r\n") + "abc"));
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_FALSE(CMLHttpEngineTestPeer::IsHeadReceived(*m_engine));
}

TEST_F(EngineTest, AClosedConnectionBeforeTheLengthIsReachedIsNetError34)
{
    const QString path = m_dir.File("cut.bin");
    const CQWString file(path);
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 3, 3));
        EXPECT_CALL(m_obs, OnHttpEngine_NetError(KId, KSocketError));
    }
    Get("/b", &file);
    Connect();
    EXPECT_EQ(1, Feed(Head("HTTP/1.1 200 OK", "Content-Length: 6\r\n") + "abc"));
    EXPECT_EQ(1, m_engine->OnSocketEngine_ReceivDataEnd());
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_FALSE(QFile::exists(path));
}

TEST_F(EngineTest, AClosedConnectionBeforeTheLastChunkIsNetError34)
{
    const QString path = m_dir.File("cut-chunks.bin");
    const CQWString file(path);
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        // The whole chunk, then the start of the next, from the same read.
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 3, 1));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 2, 1));
        EXPECT_CALL(m_obs, OnHttpEngine_NetError(KId, KSocketError));
    }
    Get("/c", &file);
    Connect();
    EXPECT_EQ(1, Feed(Head("HTTP/1.1 200 OK", "Transfer-Encoding: chunked\r\n") + "3\r\nabc\r\n5\r\nde"));
    EXPECT_EQ(1, m_engine->OnSocketEngine_ReceivDataEnd());
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_FALSE(QFile::exists(path));
}

TEST_F(EngineTest, TheLastChunkAloneCompletesAndANextChunkedBodyIsJudgedAfresh)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 2, 1));
        EXPECT_CALL(m_obs, OnHttpEngine_Complete(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_NetError(KId, KSocketError));
    }
    Get("/c");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Transfer-Encoding: chunked\r\n") + "2\r\nok\r\n0\r\n\r\n"));
    EXPECT_TRUE(m_engine->IsIdle());
    Get("/c");
    Connect();
    EXPECT_EQ(1, Feed(Head("HTTP/1.1 200 OK", "Transfer-Encoding: chunked\r\n")));
    EXPECT_EQ(1, m_engine->OnSocketEngine_ReceivDataEnd());
    EXPECT_TRUE(m_engine->IsIdle());
}

TEST_F(EngineTest, AClosedConnectionBeforeAnyHeadIsNetError34)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_NetError(KId, KSocketError));
    }
    Get("/b");
    Connect();
    EXPECT_EQ(1, Feed("HTTP/1.1 200 OK\r\n"));
    (void)m_engine->OnSocketEngine_ReceivDataEnd();
    EXPECT_TRUE(m_engine->IsIdle());
}

TEST_F(EngineTest, AClosedConnectionAfterContentLengthZeroCompletesTheRequest)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_Complete(KId, _));
    }
    Get("/b");
    Connect();
    EXPECT_EQ(1, Feed(Head("HTTP/1.1 204 No Content", "Content-Length: 0\r\n")));
    EXPECT_EQ(1, m_engine->OnSocketEngine_ReceivDataEnd());
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_EQ(CMLHttpEngine::HES_Idle, m_engine->GetState());
}

TEST_F(EngineTest, ADeflateBodyIsDeliveredAsItCame)
{
    const std::string raw = "x\x9c\x01\x02\x03";
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, Field(&CHttpResponseHead::m_nContentEncoding, 2)));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 5, 5));
        EXPECT_CALL(m_obs, OnHttpEngine_Complete(KId, _));
    }
    Get("/d");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Content-Encoding: deflate\r\nContent-Length: 5\r\n") + raw));
    EXPECT_EQ(raw, Body());
}

// ============================================================ until close

TEST_F(EngineTest, ABodyWithoutLengthIsReportedByCallCountAndEndsWithTheConnection)
{
    const QString path = m_dir.File("stream.bin");
    const CQWString file(path);
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, Field(&CHttpResponseHead::m_nContentLength, 100)));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 3, 1));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 4, 2));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 1024, 3));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 1, 4));
        EXPECT_CALL(m_obs, OnHttpEngine_Complete(KId, PathIs(path)));
    }
    Get("/s", &file);
    Connect();
    EXPECT_EQ(1, Feed(Head("HTTP/1.1 200 OK", "Connection: close\r\n") + "abc"));
    EXPECT_EQ(CMLHttpEngine::HRDM_Stream, CMLHttpEngineTestPeer::GetRecvDataMode(*m_engine));
    EXPECT_EQ(1, Feed("defg"));
    EXPECT_EQ(1, Feed(std::string(1025, 'z')));
    EXPECT_EQ(1, m_engine->OnSocketEngine_ReceivDataEnd());
    EXPECT_EQ("abcdefg" + std::string(1025, 'z'), Body());
    EXPECT_EQ("abcdefg" + std::string(1025, 'z'), ReadFile(path));
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_EQ(CMLHttpEngine::HES_Idle, m_engine->GetState());
}

TEST_F(EngineTest, StreamReaderOutsideItsModeIsFatal)
{
    unsigned char byte = 'x';
    EXPECT_DEATH(m_engine->OnReceivStreamData(&byte, 1), "m_enHttpRecvDataMode == HRDM_Stream.*src/MLHttpEngine");
}

TEST_F(EngineTest, StreamReaderWithoutObserverIsFatal)
{
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
    Get("/s");
    Connect();
    ASSERT_EQ(1, Feed(Head("HTTP/1.1 200 OK", "Connection: close\r\n")));
    unsigned char byte = 'x';
    EXPECT_DEATH(
        {
            m_engine->SetObserver(nullptr);
            m_engine->OnReceivStreamData(&byte, 1);
        },
        "m_pObserver != NULL.*src/MLHttpEngine");
}

TEST_F(EngineTest, EndOfDataWithoutObserverIsFatal)
{
    EXPECT_DEATH(
        {
            m_engine->SetObserver(nullptr);
            m_engine->OnSocketEngine_ReceivDataEnd();
        },
        "m_pObserver != NULL.*src/MLHttpEngine");
}

// ============================================================ chunked

TEST_F(EngineTest, AChunkedBodyInOneReadReportsEachChunkWithTheSameCountThenCompletes)
{
    const QString path = m_dir.File("chunks.bin");
    const CQWString file(path);
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, Field(&CHttpResponseHead::m_nContentLength, 100)));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 5, 1));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 26, 1));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 1, 1));
        EXPECT_CALL(m_obs, OnHttpEngine_Complete(KId, PathIs(path)));
    }
    Get("/c", &file);
    Connect();
    const std::string body = Chunked({"hello", "abcdefghijklmnopqrstuvwxyz", "!"});
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Transfer-Encoding: chunked\r\n") + body));
    EXPECT_EQ((std::vector<std::string>{"hello", "abcdefghijklmnopqrstuvwxyz", "!"}), m_pieces);
    EXPECT_EQ("helloabcdefghijklmnopqrstuvwxyz!", ReadFile(path));
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_EQ(CMLHttpEngine::HES_Idle, m_engine->GetState());
}

TEST_F(EngineTest, AChunkSizeLineSplitBetweenTwoReadsIsKeptAndParsedWhenTheRestArrives)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 26, 2));
        EXPECT_CALL(m_obs, OnHttpEngine_Complete(KId, _));
    }
    Get("/c");
    Connect();
    EXPECT_EQ(1, Feed(Head("HTTP/1.1 200 OK", "Transfer-Encoding: chunked\r\n") + "1"));
    EXPECT_TRUE(m_pieces.empty());
    EXPECT_EQ(0, Feed("a\r\nabcdefghijklmnopqrstuvwxyz\r\n0\r\n\r\n"));
    EXPECT_EQ("abcdefghijklmnopqrstuvwxyz", Body());
}

TEST_F(EngineTest, AChunkOf3000BytesInThreeReadsIsThreePiecesAndTheRemainderRunsDownToZero)
{
    const std::string data = Incompressible(3000);
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 1000, 2));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 1000, 3));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 1000, 4));
        EXPECT_CALL(m_obs, OnHttpEngine_Complete(KId, _));
    }
    Get("/c");
    Connect();
    EXPECT_EQ(1, Feed(Head("HTTP/1.1 200 OK", "Transfer-Encoding: chunked\r\n") + "bb8\r\n"));
    EXPECT_EQ(3000, CMLHttpEngineTestPeer::GetChunkRemainder(*m_engine));
    EXPECT_EQ(1, Feed(data.substr(0, 1000)));
    EXPECT_EQ(2000, CMLHttpEngineTestPeer::GetChunkRemainder(*m_engine));
    EXPECT_EQ(1, Feed(data.substr(1000, 1000)));
    EXPECT_EQ(1000, CMLHttpEngineTestPeer::GetChunkRemainder(*m_engine));
    EXPECT_EQ(0, Feed(data.substr(2000) + "\r\n0\r\n\r\n"));
    EXPECT_EQ(0, CMLHttpEngineTestPeer::GetChunkRemainder(*m_engine));
    EXPECT_EQ(data, Body());
}

TEST_F(EngineTest, EveryTwoWaySplitOfAChunkedResponseGivesTheSameBodyAndOneCompletion)
{
    NiceMock<MockObserver> obs;
    ON_CALL(obs, OnHttpEngine_RecvHeader(_, _)).WillByDefault(Return(1));
    std::string received;
    int completions = 0;
    int errors = 0;
    std::vector<int> counts;
    ON_CALL(obs, OnHttpEngine_ResponseData(_, _, _, _)).WillByDefault(Invoke([&](int, unsigned char* d, int n, int c) {
        received += BytesOf(d, n);
        counts.push_back(c);
        return 1;
    }));
    ON_CALL(obs, OnHttpEngine_Complete(_, _)).WillByDefault(Invoke([&](int, CQWString&) {
        ++completions;
        return 0;
    }));
    ON_CALL(obs, OnHttpEngine_NetError(_, _)).WillByDefault(Invoke([&](int, int) {
        ++errors;
        return 0;
    }));
    m_engine->SetObserver(&obs);

    const std::vector<std::string> chunks = {"first", std::string(300, 'b'), "x", "0123456789abcdef0123"};
    std::string body = Head("HTTP/1.1 200 OK", "Transfer-Encoding: chunked\r\n") + "5;ext=1\r\nfirst\r\n";
    body += "12c\r\n" + chunks[1] + "\r\n1\r\nx\r\n14\r\n" + chunks[3] + "\r\n0\r\nTrailer: t\r\n\r\n";
    std::string expected;
    for (const std::string& c : chunks)
        expected += c;

    for (size_t cut = 1; cut < body.size(); ++cut) {
        received.clear();
        counts.clear();
        completions = 0;
        ASSERT_NE(0, m_engine->DoGet(Url("/c").c_str(), nullptr, -1));
        (void)FeedReads(body, {cut});
        ASSERT_EQ(expected, received) << "split at " << cut;
        ASSERT_EQ(1, completions) << "split at " << cut;
        ASSERT_EQ(0, errors) << "split at " << cut;
        ASSERT_TRUE(m_engine->IsIdle()) << "split at " << cut;
        // Pieces of one read carry one count; counts never go down.
        ASSERT_TRUE(std::is_sorted(counts.begin(), counts.end())) << "split at " << cut;
    }
}

TEST_F(EngineTest, InterimResponsesAreSkippedWholeAtEverySplitAndBytePerByte)
{
    NiceMock<MockObserver> obs;
    std::vector<int> heads;
    std::string received;
    int completions = 0;
    int others = 0;
    ON_CALL(obs, OnHttpEngine_RecvHeader(_, _)).WillByDefault(Invoke([&](int, CHttpResponseHead& head) {
        heads.push_back(head.m_nStatusCode);
        return 1;
    }));
    ON_CALL(obs, OnHttpEngine_ResponseData(_, _, _, _)).WillByDefault(Invoke([&](int, unsigned char* d, int n, int) {
        received += BytesOf(d, n);
        return 1;
    }));
    ON_CALL(obs, OnHttpEngine_Complete(_, _)).WillByDefault(Invoke([&](int, CQWString&) {
        ++completions;
        return 0;
    }));
    ON_CALL(obs, OnHttpEngine_NetError(_, _)).WillByDefault(Invoke([&](int, int) { return ++others, 0; }));
    ON_CALL(obs, OnHttpEngine_HttpError(_, _)).WillByDefault(Invoke([&](int, int) { return ++others, 0; }));
    m_engine->SetObserver(&obs);

    // The final head frames the body: chunked, and by its own Content-Length
    // (an interim head without a length must not leave the body unframed).
    const std::string replies[] = {
        "HTTP/1.1 100 Continue\r\n\r\n"
        "HTTP/1.1 103 Early Hints\r\nLink: </s.css>; rel=preload\r\n\r\n"
        "HTTP/1.1 102 Processing\r\n\r\n" +
            Head("HTTP/1.1 200 OK", "Transfer-Encoding: chunked\r\n") + "4\r\nbody\r\n3\r\n!!!\r\n0\r\n\r\n",
        "HTTP/1.1 199 Whatever\r\nX-Note: interim\r\n\r\n" + Head("HTTP/1.1 200 OK", "Content-Length: 7\r\n") +
            "body!!!",
    };
    for (const std::string& reply : replies) {
        // Sizes of the reads before the last: whole, every two-way split, one byte per read.
        std::vector<std::vector<size_t>> plans;
        plans.push_back({});
        for (size_t cut = 1; cut < reply.size(); ++cut)
            plans.push_back({cut});
        plans.push_back(std::vector<size_t>(reply.size() - 1, 1));  // one byte per read

        for (const std::vector<size_t>& cuts : plans) {
            const std::string where =
                cuts.size() == 1 ? std::to_string(cuts[0]) : std::to_string(cuts.size()) + " cuts";
            heads.clear();
            received.clear();
            completions = 0;
            ASSERT_NE(0, m_engine->DoGet(Url("/i").c_str(), nullptr, -1));
            (void)FeedReads(reply, cuts);
            ASSERT_EQ(std::vector<int>{200}, heads) << "split at " << where;
            ASSERT_EQ("body!!!", received) << "split at " << where;
            ASSERT_EQ(1, completions) << "split at " << where;
            ASSERT_EQ(0, others) << "split at " << where;
            ASSERT_TRUE(m_engine->IsIdle()) << "split at " << where;
        }
    }
}

TEST_F(EngineTest, ChunkReaderOutsideItsModeIsFatal)
{
    EXPECT_DEATH(m_engine->OnReceivChunkData(), "m_enHttpRecvDataMode == HRDM_Chunk.*src/MLHttpEngine");
}

TEST_F(EngineTest, ChunkReaderWithoutObserverIsFatal)
{
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
    Get("/c");
    Connect();
    ASSERT_EQ(1, Feed(Head("HTTP/1.1 200 OK", "Transfer-Encoding: chunked\r\n")));
    EXPECT_DEATH(
        {
            m_engine->SetObserver(nullptr);
            m_engine->OnReceivChunkData();
        },
        "m_pObserver != NULL.*src/MLHttpEngine");
}

// ============================================================ gzip

TEST_F(EngineTest, GzipPiecesAreAtMost1024AndTheBodyCompletesAtTheEndOfItsStreamEvenWithMoreBytes)
{
    const std::string plain = Compressible(40000);
    const std::string body = Gzip(plain) + "TRAILING-BYTES-AFTER-THE-STREAM";
    NiceMock<MockObserver> obs;
    std::string received;
    int completions = 0;
    bool tooLong = false;
    std::vector<int> counts;
    ON_CALL(obs, OnHttpEngine_RecvHeader(_, _)).WillByDefault(Return(1));
    ON_CALL(obs, OnHttpEngine_ResponseData(_, _, _, _)).WillByDefault(Invoke([&](int, unsigned char* d, int n, int c) {
        tooLong = tooLong || n > 1024 || n < 1;
        received += BytesOf(d, n);
        counts.push_back(c);
        EXPECT_EQ(0, completions) << "no data after the completion";
        return 1;
    }));
    ON_CALL(obs, OnHttpEngine_Complete(_, _)).WillByDefault(Invoke([&](int, CQWString&) {
        ++completions;
        return 0;
    }));
    EXPECT_CALL(obs, OnHttpEngine_NetEvent(_, _)).Times(::testing::AnyNumber());
    EXPECT_CALL(obs, OnHttpEngine_NetEvent(_, KDecompressFailed)).Times(0);
    EXPECT_CALL(obs, OnHttpEngine_NetError(_, _)).Times(0);
    m_engine->SetObserver(&obs);

    Get("/z");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Content-Encoding: gzip\r\nContent-Length: " +
                                                  std::to_string(body.size()) + "\r\n") +
                      body));
    EXPECT_FALSE(tooLong);
    EXPECT_EQ(plain.size(), received.size());
    EXPECT_TRUE(plain == received) << "the decoded body equals the original";
    EXPECT_EQ(1, completions);
    // In length mode the decoded pieces carry the data call count, never raised there.
    EXPECT_TRUE(std::all_of(counts.begin(), counts.end(), [](int c) { return c == 0; }));
}

TEST_F(EngineTest, GzipInputPiecesThatDecodeToSeveralOutputPiecesAreDecodedExactlyAtEverySplit)
{
    const std::string plain = Compressible(12000);
    const std::string gz = Gzip(plain);
    ASSERT_GT(plain.size(), 3 * gz.size()) << "each input piece must yield several output pieces";
    const std::string response =
        Head("HTTP/1.1 200 OK", "Content-Encoding: gzip\r\nContent-Length: " + std::to_string(gz.size()) + "\r\n") +
        gz;
    NiceMock<MockObserver> obs;
    std::string received;
    int completions = 0;
    ON_CALL(obs, OnHttpEngine_RecvHeader(_, _)).WillByDefault(Return(1));
    ON_CALL(obs, OnHttpEngine_ResponseData(_, _, _, _)).WillByDefault(Invoke([&](int, unsigned char* d, int n, int) {
        received += BytesOf(d, n);
        return 1;
    }));
    ON_CALL(obs, OnHttpEngine_Complete(_, _)).WillByDefault(Invoke([&](int, CQWString&) {
        ++completions;
        return 0;
    }));
    m_engine->SetObserver(&obs);
    for (size_t cut = 1; cut < response.size(); cut += 7) {
        received.clear();
        completions = 0;
        ASSERT_NE(0, m_engine->DoGet(Url("/z").c_str(), nullptr, -1));
        (void)FeedReads(response, {cut});
        ASSERT_TRUE(plain == received) << "split at " << cut << ": got " << received.size() << " bytes";
        ASSERT_EQ(1, completions) << "split at " << cut;
    }
}

TEST_F(EngineTest, AfterAGzipCompletionTheEngineStaysBusyUntilA34ResetsItWithTheFileDeleted)
{
    const QString path = m_dir.File("page.gz.bin");
    const CQWString file(path);
    const std::string plain = "gzip body text, gzip body text, gzip body text.";
    const std::string gz = Gzip(plain);
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, Field(&CHttpResponseHead::m_nContentEncoding, 1)));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, static_cast<int>(plain.size()), 0));
        EXPECT_CALL(m_obs, OnHttpEngine_Complete(KId, PathIs(path)));
        EXPECT_CALL(m_obs, OnHttpEngine_NetError(KId, KSocketError));
    }
    Get("/z", &file);
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Content-Encoding: gzip\r\nContent-Length: " +
                                                  std::to_string(gz.size()) + "\r\n") +
                      gz));
    EXPECT_EQ(plain, Body());
    EXPECT_FALSE(m_engine->IsIdle()) << "a gzip completion does not reset the engine";
    EXPECT_TRUE(CMLHttpEngineTestPeer::IsHeadReceived(*m_engine));
    EXPECT_EQ(static_cast<int>(gz.size()), CMLHttpEngineTestPeer::GetBytesReceived(*m_engine));
    EXPECT_EQ(gz, ReadFile(path)) << "the file holds the body as it came";

    Event(KSocketError);  // the server closes the connection
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_FALSE(QFile::exists(path));
}

TEST_F(EngineTest, AfterAGzipCompletionACancelMakesTheEngineIdle)
{
    const std::string gz = Gzip("short");
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 5, 0));
        EXPECT_CALL(m_obs, OnHttpEngine_Complete(KId, _));
    }
    Get("/z");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Content-Encoding: gzip\r\nContent-Length: " +
                                                  std::to_string(gz.size()) + "\r\n") +
                      gz));
    EXPECT_FALSE(m_engine->IsIdle());
    m_engine->CancelRequest();
    EXPECT_TRUE(m_engine->IsIdle());
}

TEST_F(EngineTest, AChunkedGzipBodyIsDecodedWithTheDataCallCount)
{
    const std::string plain = Compressible(5000);
    const std::string gz = Gzip(plain);
    std::vector<std::string> chunks;
    for (size_t pos = 0; pos < gz.size(); pos += 100)
        chunks.push_back(gz.substr(pos, 100));
    NiceMock<MockObserver> obs;
    std::string received;
    int completions = 0;
    ON_CALL(obs, OnHttpEngine_RecvHeader(_, _)).WillByDefault(Return(1));
    ON_CALL(obs, OnHttpEngine_ResponseData(_, _, _, _)).WillByDefault(Invoke([&](int, unsigned char* d, int n, int c) {
        EXPECT_GE(c, 1);
        received += BytesOf(d, n);
        return 1;
    }));
    ON_CALL(obs, OnHttpEngine_Complete(_, _)).WillByDefault(Invoke([&](int, CQWString&) {
        ++completions;
        return 0;
    }));
    m_engine->SetObserver(&obs);
    Get("/z");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Content-Encoding: gzip\r\nTransfer-Encoding: chunked\r\n") +
                      Chunked(chunks)));
    EXPECT_TRUE(plain == received);
    EXPECT_EQ(1, completions);
}

TEST_F(EngineTest, AGzipBodyUntilCloseIsDecoded)
{
    const std::string plain = Compressible(3000);
    const std::string gz = Gzip(plain);
    NiceMock<MockObserver> obs;
    std::string received;
    int completions = 0;
    ON_CALL(obs, OnHttpEngine_RecvHeader(_, _)).WillByDefault(Return(1));
    ON_CALL(obs, OnHttpEngine_ResponseData(_, _, _, _)).WillByDefault(Invoke([&](int, unsigned char* d, int n, int) {
        received += BytesOf(d, n);
        return 1;
    }));
    ON_CALL(obs, OnHttpEngine_Complete(_, _)).WillByDefault(Invoke([&](int, CQWString&) {
        ++completions;
        return 0;
    }));
    m_engine->SetObserver(&obs);
    Get("/z");
    Connect();
    EXPECT_EQ(0, FeedReads(Head("HTTP/1.1 200 OK", "Content-Encoding: gzip\r\n") + gz, {60, 200}));
    EXPECT_TRUE(plain == received);
    EXPECT_EQ(1, completions);
}

TEST_F(EngineTest, AGzipBodyThatFailsToDecodeIsNetEvent48)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KDecompressFailed));
    }
    Get("/z");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Content-Encoding: gzip\r\nContent-Length: 6\r\n") + "NOTGZ!"));
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_EQ(0, CMLHttpEngineTestPeer::GetFilterState(*m_engine));
}

TEST_F(EngineTest, AnObserverStoppingAGzipBodyGetsNothingMore)
{
    const std::string plain = Compressible(20000);
    const std::string gz = Gzip(plain);
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 1024, 0)).WillOnce(Return(0));
    }
    Get("/z");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Content-Encoding: gzip\r\nContent-Length: " +
                                                  std::to_string(gz.size()) + "\r\n") +
                      gz));
    EXPECT_TRUE(m_engine->IsIdle());
}

// ============================================================ edges of the engine's own calls

TEST_F(EngineTest, AnEngineBeforeConstructAnswersEveryCallWithoutAReport)
{
    // No socket engine and no buffers: the strict observer hears nothing.
    CMLHttpEngine bare;
    bare.SetObserver(&m_obs);
    bare.SetIap(nullptr);
    bare.DoStopOLFileTimer();
    bare.SetOLFileTimerObserver(nullptr);
    EXPECT_EQ(1, bare.CancelRequest());
    bare.SendMsg_Get();
    bare.SendMsg_Post();
    bare.SendMsg_PostFile();
    bare.SendMsg_PostOLFile();
    std::string head = Head("HTTP/1.1 200 OK", "Content-Length: 1\r\n") + "x";
    // Without a receive buffer the head has nowhere to go: the read stops.
    EXPECT_EQ(0, bare.OnSocketEngine_ReceiveData(reinterpret_cast<unsigned char*>(&head[0]),
                                                 static_cast<int>(head.size())));
    EXPECT_FALSE(CMLHttpEngineTestPeer::IsHeadReceived(bare));
    EXPECT_EQ(0, bare.DecompressAndNotify(reinterpret_cast<unsigned char*>(&head[0]), static_cast<int>(head.size())));
    EXPECT_EQ(CMLHttpEngine::HES_Idle, bare.GetState());
    EXPECT_EQ(-1, bare.GetHttpSocketCurrentStatus());
}

TEST_F(EngineTest, ConstructAgainGivesAFreshIdleEngineThatStillRequests)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 2, 2));
        EXPECT_CALL(m_obs, OnHttpEngine_Complete(KId, _));
    }
    m_engine->Construct();
    ASSERT_NE(nullptr, m_engine->GetSocketEngine());
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_EQ(CMLHttpEngine::HES_Idle, m_engine->GetState());
    Get("/again");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Content-Length: 2\r\n") + "ok"));
    EXPECT_EQ("ok", Body());
}

TEST_F(EngineTest, NullOrNegativeReadsBeforeTheHeadAddNothing)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, Field(&CHttpResponseHead::m_nContentLength, 3)));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 3, 3));
        EXPECT_CALL(m_obs, OnHttpEngine_Complete(KId, _));
    }
    Get("/a");
    Connect();
    EXPECT_EQ(1, m_engine->OnSocketEngine_ReceiveData(nullptr, 7));
    unsigned char byte = 'H';
    EXPECT_EQ(1, m_engine->OnSocketEngine_ReceiveData(&byte, -1));
    EXPECT_FALSE(CMLHttpEngineTestPeer::IsHeadReceived(*m_engine));
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Content-Length: 3\r\n") + "abc"));
    EXPECT_EQ("abc", Body());
}

TEST_F(EngineTest, DecompressAndNotifyWithoutBytesReportsNothing)
{
    unsigned char byte = 0x1f;
    EXPECT_EQ(0, m_engine->DecompressAndNotify(nullptr, 5));
    EXPECT_EQ(0, m_engine->DecompressAndNotify(&byte, 0));
    EXPECT_EQ(0, CMLHttpEngineTestPeer::GetFilterState(*m_engine));
}

TEST_F(EngineTest, ARedirectWhoseHostTheEngineCannotFindIsNotStartable)
{
    // The host comes after an empty user name: the URL is well formed, but
    // the engine reads the host up to the first colon and finds nothing.
    const std::string target = "http://:p@127.0.0.1:" + std::to_string(m_port) + "/x";
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_URLChange(KId, TextIs(target)));
        EXPECT_CALL(m_obs, OnHttpEngine_NetError(KId, velanet::KErrorRedirectNotStartable));
    }
    Get("/r");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 302 Found", "Location: " + target + "\r\nContent-Length: 0\r\n")));
    EXPECT_TRUE(m_engine->IsIdle());
}

TEST_F(EngineTest, AfterAGzipCompletionFurtherBytesAreNotRead)
{
    const std::string gz = Gzip("short");
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 5, 0));
        EXPECT_CALL(m_obs, OnHttpEngine_Complete(KId, _));
    }
    Get("/z");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Content-Encoding: gzip\r\nContent-Length: " +
                                                  std::to_string(gz.size() + 4) + "\r\n") +
                      gz));
    ASSERT_EQ(CMLHttpEngine::HRP_Done, CMLHttpEngineTestPeer::GetPhase(*m_engine));
    const long long received = CMLHttpEngineTestPeer::GetBytesReceived(*m_engine);
    EXPECT_EQ(0, Feed("more"));
    EXPECT_EQ(received, CMLHttpEngineTestPeer::GetBytesReceived(*m_engine));
    EXPECT_EQ("short", Body());
}

TEST_F(EngineTest, AConnectedEventAfterCompletionSendsNothingNew)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 2, 1));
        EXPECT_CALL(m_obs, OnHttpEngine_Complete(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    }
    Get("/c");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Transfer-Encoding: chunked\r\n") + Chunked({"ok"})));
    ASSERT_EQ(CMLHttpEngine::HES_Idle, m_engine->GetState());
    const std::string sent = HeaderBytes(CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine));
    // A stale event 32: the engine has no request under way to send.
    Event(KConnected);
    EXPECT_EQ(sent, HeaderBytes(CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine)));
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_EQ(CMLHttpEngine::HES_Idle, m_engine->GetState());
}

TEST_F(EngineTest, WithoutObserverEventsFailuresAndRefusedTunnelsAreSilent)
{
    m_engine->SetObserver(nullptr);
    Get("/quiet");
    Connect();  // event 32: the request goes out unreported
    EXPECT_EQ(ExpectedGet(Url("/quiet"), KId), HeaderBytes(CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine)));
    Event(KResolved);
    EXPECT_FALSE(m_engine->IsIdle());
    Event(KSocketError);
    EXPECT_TRUE(m_engine->IsIdle());
    Get("/quiet");
    m_engine->OnSocketEngine_TunnelRefused(407);
    EXPECT_TRUE(m_engine->IsIdle());
}

TEST_F(EngineTest, PostOLFileWithoutKeyOrHost)
{
    // No key: the upload starts with none stored.
    const std::string host = "127.0.0.1:" + std::to_string(m_port);
    const CQWString file(m_dir.File("ol.bin"));
    ASSERT_NE(0, m_engine->DoPostOLFile(host.c_str(), nullptr, 5, file, 4096));
    EXPECT_EQ(nullptr, CMLHttpEngineTestPeer::GetPostOLFileHeaderUnit(*m_engine).m_pKey);
    EXPECT_EQ(20, m_engine->GetCurMethod());
    m_engine->CancelRequest();
    // No host: the URL is empty and the empty name goes to the lookup.
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KLookupStarted));
    char key[] = {'k'};
    (void)m_engine->DoPostOLFile(nullptr, key, 1, file, 4096);
    EXPECT_TRUE(CMLHttpEngineTestPeer::GetRequestData(*m_engine).GetURL().IsEmpty());
    EXPECT_TRUE(CMLHttpEngineTestPeer::GetPostOLFileHeaderUnit(*m_engine).m_strHost.IsEmpty());
}

TEST_F(EngineTest, PostOLFileOfAFilePastTwoGiBIsDroppedWithoutAWord)
{
    // The upload's server protocol counts in 32 bits. A sparse file costs
    // no disk space.
    const QString path = m_dir.File("big.bin");
    {
        QFile big(path);
        ASSERT_TRUE(big.open(QIODevice::WriteOnly));
        ASSERT_TRUE(big.resize(2147483648LL));
    }
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    const std::string host = "127.0.0.1:" + std::to_string(m_port);
    char key[] = {'k'};
    ASSERT_NE(0, m_engine->DoPostOLFile(host.c_str(), key, 1, CQWString(path), 4096));
    const int status = m_engine->GetHttpSocketCurrentStatus();
    Event(KConnected);
    EXPECT_EQ(status, m_engine->GetHttpSocketCurrentStatus());
    EXPECT_EQ(0, CMLHttpEngineTestPeer::GetPostOLFileHeaderUnit(*m_engine).m_nFileLen);
    QFile::remove(path);
}

// ---- an observer that detaches, cancels or starts anew inside a report

// Restores the redirect limit when a test ends, even a failed one.
struct RedirectLimit
{
    explicit RedirectLimit(int count) { CMLHttpEngine::SetMaxRedirects(count); }
    ~RedirectLimit() { CMLHttpEngine::SetMaxRedirects(CMLHttpEngine::KDefaultMaxRedirects); }
    RedirectLimit(const RedirectLimit&) = delete;
    RedirectLimit& operator=(const RedirectLimit&) = delete;
};

struct DetachRow
{
    const char* name;
    const char* fields;
    bool gzip;  // the body goes gzipped
};

void PrintTo(const DetachRow& row, std::ostream* os)
{
    *os << row.name;
}

class EngineDetachTest : public EngineTest, public ::testing::WithParamInterface<DetachRow>
{
};

// The body bytes that came with the head find nobody to report to: the
// read stops there.
TEST_P(EngineDetachTest, AnObserverLeavingInsideTheHeadReportGetsNoBody)
{
    const DetachRow& row = GetParam();
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _)).WillOnce(Invoke([this](int, CHttpResponseHead&) {
            m_engine->SetObserver(nullptr);
            return 1;
        }));
    }
    Get("/d");
    Connect();
    const std::string body = row.gzip ? Gzip("abc") : std::string("abc");
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", row.fields) + body));
    EXPECT_EQ(nullptr, m_engine->GetObserver());
    EXPECT_TRUE(CMLHttpEngineTestPeer::IsHeadReceived(*m_engine));
}

const DetachRow KDetachRows[] = {
    {"plain-length-body", "Content-Length: 100\r\n", false},
    {"gzip-length-body", "Content-Encoding: gzip\r\nContent-Length: 100\r\n", true},
};

INSTANTIATE_TEST_SUITE_P(Bodies, EngineDetachTest, ::testing::ValuesIn(KDetachRows),
                         [](const ::testing::TestParamInfo<DetachRow>& info) {
                             std::string name = info.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST_F(EngineTest, AnObserverLeavingInsideTheLastDataReportGetsNoCompletion)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 3, 3))
            .WillOnce(Invoke([this](int, unsigned char*, int, int) {
                m_engine->SetObserver(nullptr);
                return 1;
            }));
    }
    Get("/d");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Content-Length: 3\r\n") + "abc"));
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_FALSE(CMLHttpEngineTestPeer::IsHeadReceived(*m_engine));
}

TEST_F(EngineTest, AnObserverLeavingInsideTheRedirectReportHearsNoRedirectFailure)
{
    const RedirectLimit none(0);
    const QString path = m_dir.File("redirected.bin");
    const CQWString file(path);
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_URLChange(KId, TextIs(Url("/next")))).WillOnce(Invoke([this](int, CQSString&) {
            m_engine->SetObserver(nullptr);
            return 1;
        }));
    }
    Get("/r", &file);
    Connect();
    ASSERT_TRUE(QFile::exists(path));
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 302 Found", "Location: /next\r\nContent-Length: 0\r\n")));
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_FALSE(QFile::exists(path)) << "the failed redirect still deletes the receive file";
}

TEST_F(EngineTest, AnObserverStartingTheNextRequestInsideTheHeadReportKeepsItWhenAnsweringZero)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _)).WillOnce(Invoke([this](int, CHttpResponseHead&) {
            EXPECT_NE(0, m_engine->DoGet(Url("/next").c_str(), nullptr, -1));
            return 0;
        }));
    }
    Get("/first");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Content-Length: 3\r\n") + "abc"));
    EXPECT_EQ(Url("/next"), ToStd(CMLHttpEngineTestPeer::GetRequestData(*m_engine).GetURL()));
    EXPECT_FALSE(m_engine->IsIdle()) << "the next request is under way";
    EXPECT_EQ(CMLHttpEngine::HES_HttpRequest, m_engine->GetState());
}

TEST_F(EngineTest, AnObserverStartingTheNextRequestInsideADataReportKeepsItWhenAnsweringZero)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 3, 3))
            .WillOnce(Invoke([this](int, unsigned char*, int, int) {
                EXPECT_NE(0, m_engine->DoGet(Url("/next").c_str(), nullptr, -1));
                return 0;
            }));
    }
    Get("/first");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Content-Length: 6\r\n") + "abc"));
    EXPECT_EQ(Url("/next"), ToStd(CMLHttpEngineTestPeer::GetRequestData(*m_engine).GetURL()));
    EXPECT_FALSE(m_engine->IsIdle()) << "the next request is under way";
}

TEST_F(EngineTest, AnObserverCancellingInsideAChunkReportGetsNoFurtherChunk)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 3, 1))
            .WillOnce(Invoke([this](int, unsigned char*, int, int) {
                m_engine->CancelRequest();
                return 1;
            }));
    }
    Get("/c");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Transfer-Encoding: chunked\r\n") + Chunked({"abc", "def"})));
    EXPECT_TRUE(m_engine->IsIdle());
}

TEST_F(EngineTest, AnObserverCancellingAtTheEndOfAChunkSplitOverReadsGetsNoFurtherChunk)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 2, 1));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 3, 2))
            .WillOnce(Invoke([this](int, unsigned char*, int, int) {
                m_engine->CancelRequest();
                return 1;
            }));
    }
    Get("/c");
    Connect();
    EXPECT_EQ(1, Feed(Head("HTTP/1.1 200 OK", "Transfer-Encoding: chunked\r\n") + "5\r\nab"));
    EXPECT_EQ(3, CMLHttpEngineTestPeer::GetChunkRemainder(*m_engine));
    EXPECT_EQ(0, Feed("cde\r\n3\r\nxyz\r\n0\r\n\r\n"));
    EXPECT_TRUE(m_engine->IsIdle());
}

TEST_F(EngineTest, AnObserverReturningZeroFromABodyUntilCloseStopsItAndTheEngineIsIdle)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_RecvHeader(KId, _));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 3, 1));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 4, 2)).WillOnce(Return(0));
    }
    Get("/s");
    Connect();
    EXPECT_EQ(1, Feed(Head("HTTP/1.1 200 OK", "Connection: close\r\n") + "abc"));
    EXPECT_EQ(0, Feed("defg"));
    EXPECT_TRUE(m_engine->IsIdle());
    EXPECT_FALSE(CMLHttpEngineTestPeer::IsHeadReceived(*m_engine));
}

// ============================================================ DNS gateway

class EngineGatewayTest : public EngineTest
{
protected:
    // The address the cache holds for the host before the gateway answers
    // (loopback: connecting to it stays on this machine).
    static constexpr const char* KSentinel = "127.0.0.2";

    // A request to host (found in the DNS cache as KSentinel), sent; then
    // the lookup fails: the socket engine is idle again and raises 36.
    void StartAndFailLookup(const char* host, int kind = 17)
    {
        CacheHost(host, KSentinel);
        if (kind == 18) {
            unsigned char body[] = {'p', '=', '1'};
            ASSERT_NE(0, m_engine->DoPost(NamedUrl(host, "/page").c_str(), nullptr, body, 3));
        } else {
            ASSERT_NE(0, m_engine->DoGet(NamedUrl(host, "/page").c_str(), nullptr, -1));
        }
        m_engine->GetSocketEngine()->CancelEngine();
        Event(KNotResolvable);
    }
    std::string GatewayReply(const std::string& body, int contentLength = -1) const
    {
        const int length = contentLength < 0 ? static_cast<int>(body.size()) : contentLength;
        return Head("HTTP/1.1 200 OK", "Content-Length: " + std::to_string(length) + "\r\n") + body;
    }
};

TEST_F(EngineGatewayTest, Event36InState1StartsTheGatewayLookupAndASecond36EndsIt)
{
    EXPECT_CALL(m_obs, OnHttpEngine_NetError(KId, KNotResolvable));
    StartAndFailLookup("first.test");
    EXPECT_EQ(CMLHttpEngine::HES_DNSRequest, m_engine->GetState());
    EXPECT_EQ(GatewayURL() + "first.test", ToStd(CMLHttpEngineTestPeer::GetDNSRequestData(*m_engine).GetURL()));
    EXPECT_EQ(17, m_engine->GetCurMethod());
    EXPECT_EQ(17, CMLHttpEngineTestPeer::GetRequestedMethod(*m_engine));
    EXPECT_FALSE(m_engine->IsIdle()) << "connecting to the gateway";

    Event(KNotResolvable);
    EXPECT_EQ(CMLHttpEngine::HES_Idle, m_engine->GetState());
    EXPECT_TRUE(m_engine->IsIdle());
}

TEST_F(EngineGatewayTest, Event36InState0DoesNothing)
{
    EXPECT_CALL(m_obs, OnHttpEngine_NetError(KId, KNotResolvable));
    StartAndFailLookup("zero.test");
    Event(KNotResolvable);
    ASSERT_EQ(CMLHttpEngine::HES_Idle, m_engine->GetState());
    Event(KNotResolvable);
    EXPECT_EQ(CMLHttpEngine::HES_Idle, m_engine->GetState());
}

TEST_F(EngineGatewayTest, TheGatewayRequestIsAPlainGetOfTheBaseURLAndTheHost)
{
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    StartAndFailLookup("ask.test");
    Connect();
    EXPECT_EQ(ExpectedGet(GatewayURL() + "ask.test", 0), HeaderBytes(CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine)));
}

TEST_F(EngineGatewayTest, ACompletedReplyStoresTheAddressAndRetriesTheRequest)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    }
    StartAndFailLookup("retry.test", 18);
    EXPECT_EQ(18, CMLHttpEngineTestPeer::GetRequestedMethod(*m_engine));
    EXPECT_EQ(17, m_engine->GetCurMethod());
    Connect();
    // Loopback, so that the retried connection stays on this machine.
    EXPECT_EQ(0, Feed(GatewayReply("127.0.0.1;")));
    quint32 ip = 0;
    ASSERT_TRUE(CachedAddress("retry.test", ip));
    EXPECT_EQ(Ip("127.0.0.1"), ip);
    EXPECT_EQ(CMLHttpEngine::HES_HttpRequest, m_engine->GetState());
    EXPECT_EQ(18, m_engine->GetCurMethod()) << "the caller's kind is back";
    EXPECT_FALSE(m_engine->IsIdle()) << "the request is retried";

    Connect();
    EXPECT_EQ(ExpectedPost(NamedUrl("retry.test", "/page"), KId, "p=1"), HeaderBytes(CMLHttpEngineTestPeer::GetRequestHeaderUnit(*m_engine)));
}

TEST_F(EngineGatewayTest, ARetryThatFailsToResolveAgainEndsTheRequestWithNetError36)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_NetError(KId, KNotResolvable));
    }
    StartAndFailLookup("twice.test");
    Connect();
    EXPECT_EQ(0, Feed(GatewayReply("no-address-here;")));
    ASSERT_EQ(CMLHttpEngine::HES_HttpRequest, m_engine->GetState());
    m_engine->GetSocketEngine()->CancelEngine();
    Event(KNotResolvable);
    EXPECT_EQ(CMLHttpEngine::HES_Idle, m_engine->GetState());
    EXPECT_TRUE(m_engine->IsIdle());
}

TEST_F(EngineGatewayTest, AGateway404EndsTheRequestWithNetError36)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_NetError(KId, KNotResolvable));
    }
    StartAndFailLookup("notfound.test");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 404 Not Found", "Content-Length: 9\r\n") + "10.0.0.1;"));
    EXPECT_EQ(CMLHttpEngine::HES_Idle, m_engine->GetState());
    EXPECT_TRUE(m_engine->IsIdle());
    quint32 ip = 0;
    ASSERT_TRUE(CachedAddress("notfound.test", ip));
    EXPECT_EQ(Ip(KSentinel), ip) << "nothing stored";
}

TEST_F(EngineGatewayTest, AChunkedGatewayReplyIsReportedAsDataAndCompletion)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_ResponseData(KId, _, 9, 1));
        EXPECT_CALL(m_obs, OnHttpEngine_Complete(KId, _));
    }
    StartAndFailLookup("chunked.test");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Transfer-Encoding: chunked\r\n") + Chunked({"10.0.0.1;"})));
    EXPECT_EQ("10.0.0.1;", Body());
    EXPECT_EQ(CMLHttpEngine::HES_Idle, m_engine->GetState());
}

TEST_F(EngineGatewayTest, AnEmptyHostLeavesTheEngineInState2WithNothingUnderWay)
{
    // The empty host name goes to the lookup.
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KLookupStarted));
    (void)m_engine->DoGet("http://:80/x", nullptr, -1);
    m_engine->GetSocketEngine()->CancelEngine();
    Event(KNotResolvable);
    EXPECT_EQ(CMLHttpEngine::HES_DNSRequest, m_engine->GetState());
    EXPECT_TRUE(CMLHttpEngineTestPeer::GetDNSRequestData(*m_engine).GetURL().IsEmpty());
    EXPECT_TRUE(m_engine->IsIdle());
}

TEST_F(EngineGatewayTest, TheGatewayLookupOutsideState2IsFatal)
{
    EXPECT_DEATH(m_engine->StartGetDNSThroughProxy(), "m_enCurHES == HES_DNSRequest.*src/MLHttpEngine");
}

TEST_F(EngineGatewayTest, AGatewayReplyWithAnUnreadableLengthEndsTheRequestWithError67)
{
    {
        InSequence seq;
        EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
        EXPECT_CALL(m_obs, OnHttpEngine_NetError(KId, velanet::KErrorLengthUnrepresentable));
    }
    StartAndFailLookup("badlength.test");
    Connect();
    EXPECT_EQ(0, Feed(Head("HTTP/1.1 200 OK", "Content-Length: abc\r\n") + "10.0.0.1;"));
    EXPECT_EQ(CMLHttpEngine::HES_Idle, m_engine->GetState());
    EXPECT_TRUE(m_engine->IsIdle());
    quint32 ip = 0;
    ASSERT_TRUE(CachedAddress("badlength.test", ip));
    EXPECT_EQ(Ip(KSentinel), ip) << "nothing stored";
}

TEST_F(EngineGatewayTest, WithoutObserverAFailedLookupEndsSilently)
{
    m_engine->SetObserver(nullptr);
    StartAndFailLookup("silent.test");
    ASSERT_EQ(CMLHttpEngine::HES_DNSRequest, m_engine->GetState());
    Event(KNotResolvable);
    EXPECT_EQ(CMLHttpEngine::HES_Idle, m_engine->GetState());
    EXPECT_TRUE(m_engine->IsIdle());
}

TEST_F(EngineGatewayTest, AURLWithoutAnyHostLeavesTheEngineInState2WithNothingUnderWay)
{
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KLookupStarted));
    (void)m_engine->DoGet("http://", nullptr, -1);
    m_engine->GetSocketEngine()->CancelEngine();
    Event(KNotResolvable);
    EXPECT_EQ(CMLHttpEngine::HES_DNSRequest, m_engine->GetState());
    EXPECT_TRUE(CMLHttpEngineTestPeer::GetDNSRequestData(*m_engine).GetURL().IsEmpty());
    EXPECT_TRUE(m_engine->IsIdle());
}

TEST_F(EngineGatewayTest, WithoutMemoryForTheGatewayURLNothingIsStarted)
{
    CacheHost("nourl.test", KSentinel);
    ASSERT_NE(0, m_engine->DoGet(NamedUrl("nourl.test", "/page").c_str(), nullptr, -1));
    m_engine->GetSocketEngine()->CancelEngine();
    velatest::HeapWatch::FailNothrowAfter(0);
    Event(KNotResolvable);
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(CMLHttpEngine::HES_DNSRequest, m_engine->GetState());
    EXPECT_TRUE(CMLHttpEngineTestPeer::GetDNSRequestData(*m_engine).GetURL().IsEmpty());
    EXPECT_TRUE(m_engine->IsIdle());
}

TEST_F(EngineGatewayTest, WithoutMemoryForTheDNSCacheTheReplyStoresNothing)
{
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    StartAndFailLookup("nomemory.test");
    Connect();
    // The registered cache goes away and no new one can be made.
    CDNSCache::ReleaseRegistered();
    unsigned char reply[] = {'1', '0', '.', '0', '.', '0', '.', '9', ';'};
    velatest::HeapWatch::FailNothrowAfter(0);
    m_engine->ParseDNSPDUAndStore(reply, static_cast<int>(sizeof reply));
    velatest::HeapWatch::StopFailing();
    quint32 ip = 0;
    const bool found = CachedAddress("nomemory.test", ip);
    EXPECT_FALSE(found && ip == Ip("10.0.0.9"));
    EXPECT_EQ(CMLHttpEngine::HES_DNSRequest, m_engine->GetState());
}

TEST_F(EngineGatewayTest, AnEmptyReadOfTheReplyStoresNothing)
{
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    StartAndFailLookup("emptyread.test");
    Connect();
    m_engine->ParseDNSPDUAndStore(nullptr, 9);
    unsigned char byte = '1';
    m_engine->ParseDNSPDUAndStore(&byte, 0);
    quint32 ip = 0;
    ASSERT_TRUE(CachedAddress("emptyread.test", ip));
    EXPECT_EQ(Ip(KSentinel), ip);
    EXPECT_EQ(CMLHttpEngine::HES_DNSRequest, m_engine->GetState());
}

// ---- what a reply stores (the reply is longer than this piece, so the
// request is not retried and the test stays on this machine)

struct GatewayRow
{
    const char* name;
    const char* body;
    const char* stored;  // null: the cache keeps the sentinel
};

void PrintTo(const GatewayRow& row, std::ostream* os)
{
    *os << row.name << " \"" << row.body << "\"";
}

class EngineGatewayStoreTest : public EngineGatewayTest, public ::testing::WithParamInterface<GatewayRow>
{
};

TEST_P(EngineGatewayStoreTest, StoresWhatTheReplyNames)
{
    const GatewayRow& row = GetParam();
    const std::string host = std::string("store-") + row.name + ".test";
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    StartAndFailLookup(host.c_str());
    Connect();
    const std::string body = row.body;
    EXPECT_EQ(1, Feed(GatewayReply(body, static_cast<int>(body.size()) + 100)));
    quint32 ip = 0;
    ASSERT_TRUE(CachedAddress(host.c_str(), ip));
    EXPECT_EQ(Ip(row.stored ? row.stored : KSentinel), ip);
    EXPECT_EQ(CMLHttpEngine::HES_DNSRequest, m_engine->GetState());
}

const GatewayRow KGatewayRows[] = {
    {"one-address", "10.0.0.1;", "10.0.0.1"},
    {"two-addresses-first-wins", "10.0.0.1;10.0.0.2;", "10.0.0.1"},
    {"short-first-item-skipped", "x;10.0.0.1;", "10.0.0.1"},
    {"eight-byte-non-address-spoils", "abcdefgh;10.0.0.1;", nullptr},
    {"no-semicolon", "10.0.0.1", nullptr},
    {"fifteen-bytes", "192.168.100.200;", "192.168.100.200"},
    {"sixteen-bytes-skipped", "192.168.100.200 ;10.0.0.1;", "10.0.0.1"},
};

INSTANTIATE_TEST_SUITE_P(Replies, EngineGatewayStoreTest, ::testing::ValuesIn(KGatewayRows),
                         [](const ::testing::TestParamInfo<GatewayRow>& info) {
                             std::string name = info.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST_F(EngineGatewayTest, AnItemSplitBetweenTwoReadsIsLost)
{
    EXPECT_CALL(m_obs, OnHttpEngine_NetEvent(KId, KConnected));
    StartAndFailLookup("split.test");
    Connect();
    const std::string reply = GatewayReply("10.0.0.1;", 20);
    EXPECT_EQ(1, FeedReads(reply, {reply.size() - 4}));
    quint32 ip = 0;
    ASSERT_TRUE(CachedAddress("split.test", ip));
    EXPECT_EQ(Ip(KSentinel), ip);
}

// ---- the reply scanner

struct ScanRow
{
    const char* name;
    std::string body;
    std::vector<quint32> stored;
};

void PrintTo(const ScanRow& row, std::ostream* os)
{
    *os << row.name << " \"" << velatest::Visible(QByteArray::fromStdString(row.body)) << "\"";
}

class GatewayScanTest : public ::testing::TestWithParam<ScanRow>
{
};

TEST_P(GatewayScanTest, FindsTheAddressesToStore)
{
    const ScanRow& row = GetParam();
    std::unique_ptr<unsigned char[]> data(new unsigned char[row.body.size() + 1]);
    std::copy(row.body.begin(), row.body.end(), data.get());
    EXPECT_EQ(row.stored, velanet::ScanGatewayReply(data.get(), static_cast<int>(row.body.size())));
}

const ScanRow KScanRows[] = {
    {"one-address", "10.0.0.1;", {Ip("10.0.0.1")}},
    {"two-addresses-first-wins", "10.0.0.1;10.0.0.2;", {Ip("10.0.0.1")}},
    {"short-first-item-skipped", "x;10.0.0.1;", {Ip("10.0.0.1")}},
    {"eight-byte-non-address-spoils", "abcdefgh;10.0.0.1;", {}},
    {"no-semicolon", "10.0.0.1", {}},
    {"rest-after-last-semicolon-ignored", "10.0.0.1;10.0.0.2", {Ip("10.0.0.1")}},
    {"six-byte-item-skipped", "1.2.34;10.0.0.1;", {Ip("10.0.0.1")}},
    {"seven-byte-item", "1.2.3.4;", {Ip("1.2.3.4")}},
    {"fifteen-byte-item", "255.255.255.255;", {Ip("255.255.255.255")}},
    {"sixteen-byte-item-skipped", "255.255.255.2555;", {}},
    {"empty-items", ";;;10.0.0.1;", {Ip("10.0.0.1")}},
    {"empty", "", {}},
};

INSTANTIATE_TEST_SUITE_P(Pieces, GatewayScanTest, ::testing::ValuesIn(KScanRows),
                         [](const ::testing::TestParamInfo<ScanRow>& info) {
                             std::string name = info.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST(GatewayScanNulTest, AnItemWithANulByteIsParsedAsQHostAddressReadsIt)
{
    const std::string item("10.0\0.0.1", 9);
    const std::string body = item + ";";
    std::unique_ptr<unsigned char[]> data(new unsigned char[body.size()]);
    std::copy(body.begin(), body.end(), data.get());
    QHostAddress address;
    std::vector<quint32> expected;
    if (address.setAddress(QString::fromLatin1(item.data(), static_cast<int>(item.size()))))
        expected.push_back(address.toIPv4Address());
    EXPECT_EQ(expected, velanet::ScanGatewayReply(data.get(), static_cast<int>(body.size())));
}

TEST(GatewayScanNullTest, NullOrNegativeInputGivesNothing)
{
    unsigned char byte = ';';
    EXPECT_TRUE(velanet::ScanGatewayReply(nullptr, 5).empty());
    EXPECT_TRUE(velanet::ScanGatewayReply(&byte, 0).empty());
    EXPECT_TRUE(velanet::ScanGatewayReply(&byte, -1).empty());
}

// ============================================================ Location resolution

struct ResolveRow
{
    const char* name;
    const char* reference;
    const char* target;
};

void PrintTo(const ResolveRow& row, std::ostream* os)
{
    *os << row.name << " \"" << row.reference << "\"";
}

class ResolveLocationTest : public ::testing::TestWithParam<ResolveRow>
{
};

// RFC 3986, section 5.4: base "http://a/b/c/d;p?q".
TEST_P(ResolveLocationTest, ResolvesAsRfc3986Section5_4)
{
    const ResolveRow& row = GetParam();
    const std::string base = "http://a/b/c/d;p?q";
    const std::string ref = row.reference;
    std::unique_ptr<char[]> b(new char[base.size()]);
    std::copy(base.begin(), base.end(), b.get());
    std::unique_ptr<char[]> r(new char[ref.size() + 1]);
    std::copy(ref.begin(), ref.end(), r.get());
    EXPECT_EQ(std::string(row.target),
              ToStd(velanet::ResolveLocation(b.get(), static_cast<int>(base.size()), r.get(),
                                             static_cast<int>(ref.size()))));
}

const ResolveRow KResolveRows[] = {
    // 5.4.1 normal examples
    {"scheme-g-h", "g:h", "g:h"},
    {"g", "g", "http://a/b/c/g"},
    {"dot-slash-g", "./g", "http://a/b/c/g"},
    {"g-slash", "g/", "http://a/b/c/g/"},
    {"slash-g", "/g", "http://a/g"},
    {"network-path", "//g", "http://g"},
    {"query", "?y", "http://a/b/c/d;p?y"},
    {"g-query", "g?y", "http://a/b/c/g?y"},
    {"fragment", "#s", "http://a/b/c/d;p?q#s"},
    {"g-fragment", "g#s", "http://a/b/c/g#s"},
    {"g-query-fragment", "g?y#s", "http://a/b/c/g?y#s"},
    {"semicolon-x", ";x", "http://a/b/c/;x"},
    {"g-semicolon-x", "g;x", "http://a/b/c/g;x"},
    {"g-semicolon-x-query-fragment", "g;x?y#s", "http://a/b/c/g;x?y#s"},
    {"dot", ".", "http://a/b/c/"},
    {"dot-slash", "./", "http://a/b/c/"},
    {"dot-dot", "..", "http://a/b/"},
    {"dot-dot-slash", "../", "http://a/b/"},
    {"dot-dot-slash-g", "../g", "http://a/b/g"},
    {"dot-dot-twice", "../..", "http://a/"},
    {"dot-dot-twice-slash", "../../", "http://a/"},
    {"dot-dot-twice-g", "../../g", "http://a/g"},
    // 5.4.2 abnormal examples
    {"above-root-three", "../../../g", "http://a/g"},
    {"above-root-four", "../../../../g", "http://a/g"},
    {"slash-dot-g", "/./g", "http://a/g"},
    {"slash-dot-dot-g", "/../g", "http://a/g"},
    {"g-dot", "g.", "http://a/b/c/g."},
    {"dot-g", ".g", "http://a/b/c/.g"},
    {"g-dot-dot", "g..", "http://a/b/c/g.."},
    {"dot-dot-g", "..g", "http://a/b/c/..g"},
    {"dot-dot-slash-dot-slash-g", "./../g", "http://a/b/g"},
    {"dot-slash-g-slash-dot", "./g/.", "http://a/b/c/g/"},
    {"g-slash-dot-slash-h", "g/./h", "http://a/b/c/g/h"},
    {"g-slash-dot-dot-slash-h", "g/../h", "http://a/b/c/h"},
    {"g-semicolon-dot-slash-y", "g;x=1/./y", "http://a/b/c/g;x=1/y"},
    {"g-semicolon-dot-dot-slash-y", "g;x=1/../y", "http://a/b/c/y"},
    {"g-query-dot-slash-x", "g?y/./x", "http://a/b/c/g?y/./x"},
    {"g-query-dot-dot-slash-x", "g?y/../x", "http://a/b/c/g?y/../x"},
    {"g-fragment-dot-slash-x", "g#s/./x", "http://a/b/c/g#s/./x"},
    {"g-fragment-dot-dot-slash-x", "g#s/../x", "http://a/b/c/g#s/../x"},
    {"strict-http-g", "http:g", "http:g"},
    // schemes with every kind of scheme character, and a first byte past 'z'
    {"scheme-with-plus", "svn+ssh://h/p", "svn+ssh://h/p"},
    {"scheme-with-dash-and-dot", "a-b.c:x", "a-b.c:x"},
    {"tilde-first", "~u/x", "http://a/b/c/~u/x"},
    // empty query; a network path ended by a query or a fragment
    {"g-empty-query", "g?", "http://a/b/c/g?"},
    {"network-path-query", "//g?y", "http://g?y"},
    {"network-path-fragment", "//g#s", "http://g#s"},
    // an empty Location is used as it stands
    {"empty", "", ""},
};

INSTANTIATE_TEST_SUITE_P(Rfc3986, ResolveLocationTest, ::testing::ValuesIn(KResolveRows),
                         [](const ::testing::TestParamInfo<ResolveRow>& info) {
                             std::string name = info.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST(ResolveLocationBaseTest, AReferenceAgainstAnAuthorityWithoutPathGetsALeadingSlash)
{
    const char base[] = "http://h:8080";
    const char ref[] = "x.html";
    EXPECT_EQ("http://h:8080/x.html", ToStd(velanet::ResolveLocation(base, 13, ref, 6)));
}

// Bases other than a URL with authority and path (RFC 3986, section 5.2.2
// with an undefined scheme, authority or path).
struct BaseRow
{
    const char* name;
    const char* base;  // may be null
    int baseLen;
    const char* reference;
    const char* target;
};

void PrintTo(const BaseRow& row, std::ostream* os)
{
    *os << row.name << " \"" << (row.base ? row.base : "(null)") << "\" + \"" << row.reference << "\"";
}

class ResolveAgainstBaseTest : public ::testing::TestWithParam<BaseRow>
{
};

TEST_P(ResolveAgainstBaseTest, MergesWithWhatTheBaseHas)
{
    const BaseRow& row = GetParam();
    const std::string ref = row.reference;
    std::unique_ptr<char[]> r(new char[ref.size() + 1]);
    std::copy(ref.begin(), ref.end(), r.get());
    EXPECT_EQ(std::string(row.target),
              ToStd(velanet::ResolveLocation(row.base, row.baseLen, r.get(), static_cast<int>(ref.size()))));
}

const BaseRow KBaseRows[] = {
    {"null-base-query", nullptr, 5, "?q", "?q"},
    {"null-base-path", nullptr, 0, "g/h", "g/h"},
    {"negative-base-length", "http://a/b", -1, "g", "g"},
    {"empty-base-dot-dot-slash", "", 0, "../a", "a"},
    {"empty-base-dot-slash", "", 0, "./a", "a"},
    {"empty-base-dot", "", 0, ".", ""},
    {"empty-base-dot-dot", "", 0, "..", ""},
    {"base-without-authority", "mailto:x/y", 10, "z", "mailto:x/z"},
    {"base-without-scheme", "p/q", 3, "r", "p/r"},
};

INSTANTIATE_TEST_SUITE_P(Bases, ResolveAgainstBaseTest, ::testing::ValuesIn(KBaseRows),
                         [](const ::testing::TestParamInfo<BaseRow>& info) {
                             std::string name = info.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST(ResolveLocationBaseTest, ANullOrEmptyLocationIsEmpty)
{
    const char base[] = "http://a/b";
    EXPECT_EQ("", ToStd(velanet::ResolveLocation(base, 10, nullptr, 4)));
    EXPECT_EQ("", ToStd(velanet::ResolveLocation(base, 10, "/x", 0)));
}

// ---- which redirect targets the engine can request

struct RequestableRow
{
    const char* name;
    const char* url;
    bool requestable;
};

void PrintTo(const RequestableRow& row, std::ostream* os)
{
    *os << row.name << " \"" << velatest::Visible(QByteArray(row.url)) << '"';
}

class RequestableUrlTest : public ::testing::TestWithParam<RequestableRow>
{
};

TEST_P(RequestableUrlTest, TakesHttpAndHttpsWithAHostOnly)
{
    const RequestableRow& row = GetParam();
    const std::string url = row.url;
    // Exactly sized, so that a read past the length is caught by ASan.
    std::unique_ptr<char[]> text(new char[url.size() + 1]);
    std::copy(url.begin(), url.end(), text.get());
    EXPECT_EQ(row.requestable, velanet::IsRequestableURL(text.get(), static_cast<int>(url.size())));
}

const RequestableRow KRequestableRows[] = {
    {"http-host", "http://h/", true},
    {"https-host-no-path", "https://h", true},
    {"scheme-in-capitals", "HTTP://h/x", true},
    {"userinfo-and-port", "http://u:p@h:8080/x", true},
    {"ipv6-literal-with-port", "http://[::1]:8080/x", true},
    {"port-65535", "http://h:65535/", true},
    {"port-65536", "http://h:65536/", false},
    {"port-of-six-digits", "http://h:000080/", false},
    {"port-empty", "http://h:/", true},
    {"port-not-digits", "http://h:8o/", false},
    {"file-scheme", "file:///etc/passwd", false},
    {"ftp-scheme", "ftp://h/x", false},
    {"mailto-scheme", "mailto:a@h", false},
    {"https-without-slashes", "https:h/x", false},
    {"empty", "", false},
    {"no-scheme", "/x", false},
    {"empty-host", "http:///x", false},
    {"port-without-host", "http://:80/x", false},
    {"userinfo-without-host", "http://u@/x", false},
    {"ipv6-unterminated", "http://[::1/x", false},
    {"ipv6-empty", "http://[]/x", false},
    {"space-in-path", "http://h/a b", false},
    {"control-byte", "http://h/\x01", false},
    {"del-byte", "http://h/\x7f", false},
    {"byte-past-ascii", "http://h/\xc3\xa9", true},
    {"digit-in-scheme", "h1tp://h/", false},
    {"port-with-symbol", "http://h:8!/", false},
    {"ipv6-literal-then-junk", "http://[::1]x/", false},
};

INSTANTIATE_TEST_SUITE_P(Targets, RequestableUrlTest, ::testing::ValuesIn(KRequestableRows),
                         [](const ::testing::TestParamInfo<RequestableRow>& info) {
                             std::string name = info.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST(RequestableUrlNullTest, NullTextIsNotRequestable)
{
    EXPECT_FALSE(velanet::IsRequestableURL(nullptr, 8));
}

TEST(RemoveDotSegmentsTest, FollowsTheRfcExamples)
{
    EXPECT_EQ("/a/g", ToStd(velanet::RemoveDotSegments("/a/b/c/./../../g", 16)));
    EXPECT_EQ("mid/6", ToStd(velanet::RemoveDotSegments("mid/content=5/../6", 18)));
    EXPECT_EQ("", ToStd(velanet::RemoveDotSegments(nullptr, 3)));
    EXPECT_EQ("", ToStd(velanet::RemoveDotSegments("/a/b", 0)));
}

TEST(SplitUriReferenceTest, FindsEveryPart)
{
    const char text[] = "http://user@h:1/p/q?x=1#frag";
    const velanet::UriParts parts = velanet::SplitUriReference(text, static_cast<int>(sizeof text - 1));
    EXPECT_EQ(0, parts.schemeStart);
    EXPECT_EQ(4, parts.schemeLen);
    EXPECT_EQ(7, parts.authorityStart);
    EXPECT_EQ(8, parts.authorityLen);
    EXPECT_EQ(15, parts.pathStart);
    EXPECT_EQ(4, parts.pathLen);
    EXPECT_EQ(20, parts.queryStart);
    EXPECT_EQ(3, parts.queryLen);
    EXPECT_EQ(24, parts.fragmentStart);
    EXPECT_EQ(4, parts.fragmentLen);
    const char relative[] = "1a:b/c";  // a digit cannot start a scheme
    const velanet::UriParts r = velanet::SplitUriReference(relative, 6);
    EXPECT_EQ(-1, r.schemeStart);
    EXPECT_EQ(6, r.pathLen);
}

TEST(SplitUriReferenceTest, NoTextHasNoParts)
{
    for (const velanet::UriParts& parts :
         {velanet::SplitUriReference(nullptr, 5), velanet::SplitUriReference("http://h/", 0)}) {
        EXPECT_EQ(-1, parts.schemeStart);
        EXPECT_EQ(-1, parts.authorityStart);
        EXPECT_EQ(0, parts.pathStart);
        EXPECT_EQ(0, parts.pathLen);
        EXPECT_EQ(-1, parts.queryStart);
        EXPECT_EQ(-1, parts.fragmentStart);
    }
}

}  // namespace

// ============================================================ resumable upload

namespace {

struct UploadTimerCounter : public CQTimerObserver
{
    void OnTimerExpired(CQTimer*) override { ++count; }
    int count = 0;
};

// The block request text the upload puts before a block's bytes.
std::string UploadText(const std::string& path, const std::string& host)
{
    return "POST " + path + " HTTP/1.1\r\n"
           "User-Agent: VelaClient\r\n"
           "Host: " + host + "\r\n"
           "Connection: Keep-Alive\r\n"
           "Content-Length: \r\n"
           "Range: bytes=-\r\n"
           "\r\n";
}

std::string Md5Of(const std::string& bytes)
{
    return QCryptographicHash::hash(QByteArray(bytes.data(), static_cast<int>(bytes.size())), QCryptographicHash::Md5)
        .toHex()
        .toStdString();
}

class EngineUploadTest : public EngineTest
{
protected:
    std::string Host() const { return "127.0.0.1:" + std::to_string(m_port); }

    // Waits for the engine's connection and for n more bytes on it.
    std::string ServerReads(int n)
    {
        EXPECT_TRUE(velatest::SpinUntil(
            [&] {
                if (!m_peer && m_server.hasPendingConnections())
                    m_peer.reset(m_server.nextPendingConnection());
                if (m_peer)
                    m_wire += m_peer->readAll().toStdString();
                return static_cast<int>(m_wire.size()) >= m_taken + n;
            },
            10000))
            << "got " << m_wire.size() - static_cast<size_t>(m_taken) << " of " << n;
        const std::string bytes = m_wire.substr(static_cast<size_t>(m_taken), static_cast<size_t>(n));
        m_taken += n;
        return bytes;
    }

    void ServerReplies(const std::string& reply)
    {
        ASSERT_NE(nullptr, m_peer);
        ASSERT_EQ(static_cast<qint64>(reply.size()), m_peer->write(reply.data(), static_cast<qint64>(reply.size())));
        ASSERT_TRUE(m_peer->flush());
    }

    std::unique_ptr<QTcpSocket> m_peer;
    std::string m_wire;
    int m_taken = 0;
};

TEST_F(EngineUploadTest, ABlockSizeThatDoesNotFitBesideTheRequestTextIsRefusedUpFront)
{
    char key[] = "/k/";
    const std::string host = Host();
    const int text = CQHttpSocketEngine::OLRequestTextLength(3 + 32, static_cast<int>(host.size()));
    const CQWString file(m_dir.File("ol.bin"));
    EXPECT_EQ(0, m_engine->DoPostOLFile(host.c_str(), key, 3, file, static_cast<unsigned int>(20480 - text + 1)));
    EXPECT_EQ(0, m_engine->DoPostOLFile(host.c_str(), key, 3, file, 0));
    EXPECT_EQ(0, m_engine->DoPostOLFile(host.c_str(), key, 3, file, 0x80000000u));
    std::string longKey(1024, 'k');
    EXPECT_EQ(0, m_engine->DoPostOLFile(host.c_str(), &longKey[0], 1024, file, 100));
    // Nothing was stored or started.
    EXPECT_EQ(16, m_engine->GetCurMethod());
    EXPECT_EQ(20480, CMLHttpEngineTestPeer::GetPostOLFileHeaderUnit(*m_engine).m_nBlockSize);
    EXPECT_TRUE(m_engine->IsIdle());
    // At the edge the upload starts.
    EXPECT_NE(0, m_engine->DoPostOLFile(host.c_str(), key, 3, file, static_cast<unsigned int>(20480 - text)));
    EXPECT_EQ(20480 - text, CMLHttpEngineTestPeer::GetPostOLFileHeaderUnit(*m_engine).m_nBlockSize);
}

TEST_F(EngineUploadTest, UploadOf600BytesIsOneBlockAndEndsWithProgress600)
{
    StrictMock<MockNotifier> notifier;
    std::unique_ptr<CMLHttpEngine> engine(CMLHttpEngine::NewL(&notifier));
    engine->SetRequestID(KId);
    std::string content = Incompressible(600);
    const QString upload = m_dir.File("ol600.bin");
    WriteFile(upload, content);
    {
        InSequence order;
        EXPECT_CALL(notifier, HttpEventNotify(KId, KConnected));
        EXPECT_CALL(notifier, HttpNotifySend(nullptr, 600));
    }
    char key[] = {'/', 'u', '/', 'Z'};
    const std::string host = Host();
    ASSERT_NE(0, engine->DoPostOLFile(host.c_str(), key, 3, CQWString(upload), 10240));
    const std::string text = UploadText("/u/" + Md5Of(content), host);
    EXPECT_EQ(velatest::Visible(QByteArray::fromStdString(text + content)),
              velatest::Visible(QByteArray::fromStdString(ServerReads(static_cast<int>(text.size()) + 600))));
    EXPECT_EQ(600, CMLHttpEngineTestPeer::GetPostOLFileHeaderUnit(*engine).m_nFileLen);
    ASSERT_TRUE(velatest::SpinUntil([&] { return engine->GetHttpSocketCurrentStatus() == KReceiving; }));
    ServerReplies("HTTP/1.1 200 OK\r\nRange: 600\r\n\r\n");
    ASSERT_TRUE(velatest::SpinUntil([&] { return engine->IsIdle(); }));
}

TEST_F(EngineUploadTest, UploadOf25000BytesWithBlock10240GoesOnFromTheRepliedOffsets)
{
    StrictMock<MockNotifier> notifier;
    std::unique_ptr<CMLHttpEngine> engine(CMLHttpEngine::NewL(&notifier));
    engine->SetRequestID(KId);
    const std::string content = Incompressible(25000);
    const QString upload = m_dir.File("ol25000.bin");
    WriteFile(upload, content);
    {
        InSequence order;
        EXPECT_CALL(notifier, HttpEventNotify(KId, KConnected));
        EXPECT_CALL(notifier, HttpNotifySend(nullptr, 1000));
        EXPECT_CALL(notifier, HttpNotifySend(nullptr, 11240));
        EXPECT_CALL(notifier, HttpNotifySend(nullptr, 21480));
        EXPECT_CALL(notifier, HttpNotifySend(nullptr, 25000));
    }
    char key[] = "key-";
    const std::string host = Host();
    ASSERT_NE(0, engine->DoPostOLFile(host.c_str(), key, 4, CQWString(upload), 10240));
    const int offsets[] = {0, 1000, 11240, 21480, 25000};
    for (int i = 0; i + 1 < 5; ++i) {
        const std::string block = content.substr(static_cast<size_t>(offsets[i]),
                                                 static_cast<size_t>(offsets[i + 1] - offsets[i]));
        const std::string text = UploadText("key-" + Md5Of(block), host);
        const std::string got = ServerReads(static_cast<int>(text.size() + block.size()));
        EXPECT_EQ(text, got.substr(0, text.size())) << "block " << i;
        EXPECT_TRUE(got.substr(text.size()) == block) << "block " << i;
        ASSERT_TRUE(velatest::SpinUntil([&] { return engine->GetHttpSocketCurrentStatus() == KReceiving; }));
        ServerReplies("HTTP/1.1 200 OK\r\nRange: " + std::to_string(offsets[i + 1]) + "\r\n\r\n");
    }
    ASSERT_TRUE(velatest::SpinUntil([&] { return engine->IsIdle(); }));
}

TEST_F(EngineUploadTest, ASmallerRangeThanSentContinuesFromWhatWasSent)
{
    StrictMock<MockNotifier> notifier;
    std::unique_ptr<CMLHttpEngine> engine(CMLHttpEngine::NewL(&notifier));
    engine->SetRequestID(KId);
    const std::string content = Incompressible(4000);
    const QString upload = m_dir.File("ol4000.bin");
    WriteFile(upload, content);
    {
        InSequence order;
        EXPECT_CALL(notifier, HttpEventNotify(KId, KConnected));
        EXPECT_CALL(notifier, HttpNotifySend(nullptr, 1000));
        EXPECT_CALL(notifier, HttpNotifySend(nullptr, 2000));
    }
    char key[] = "k";
    const std::string host = Host();
    ASSERT_NE(0, engine->DoPostOLFile(host.c_str(), key, 1, CQWString(upload), 1000));
    (void)ServerReads(static_cast<int>(UploadText("k" + std::string(32, '0'), host).size()) + 1000);
    ASSERT_TRUE(velatest::SpinUntil([&] { return engine->GetHttpSocketCurrentStatus() == KReceiving; }));
    ServerReplies("HTTP/1.1 200 OK\r\nRange: 1000\r\n\r\n");
    (void)ServerReads(static_cast<int>(UploadText("k" + std::string(32, '0'), host).size()) + 1000);
    ASSERT_TRUE(velatest::SpinUntil([&] { return engine->GetHttpSocketCurrentStatus() == KReceiving; }));
    // 2000 were sent, the server says 10: the next block starts at 2000.
    ServerReplies("HTTP/1.1 200 OK\r\nRange: 10\r\n\r\n");
    const std::string block = content.substr(2000, 1000);
    const std::string text = UploadText("k" + Md5Of(block), host);
    EXPECT_TRUE(ServerReads(static_cast<int>(text.size() + block.size())) == text + block);
}

TEST_F(EngineUploadTest, AReplyWithoutRangeReportsMinusOneAndIdles)
{
    StrictMock<MockNotifier> notifier;
    std::unique_ptr<CMLHttpEngine> engine(CMLHttpEngine::NewL(&notifier));
    engine->SetRequestID(KId);
    const std::string content = Incompressible(3000);
    const QString upload = m_dir.File("ol3000.bin");
    WriteFile(upload, content);
    {
        InSequence order;
        EXPECT_CALL(notifier, HttpEventNotify(KId, KConnected));
        EXPECT_CALL(notifier, HttpNotifySend(nullptr, -1));
    }
    char key[] = "k";
    const std::string host = Host();
    ASSERT_NE(0, engine->DoPostOLFile(host.c_str(), key, 1, CQWString(upload), 1000));
    (void)ServerReads(static_cast<int>(UploadText("k" + std::string(32, '0'), host).size()) + 1000);
    ASSERT_TRUE(velatest::SpinUntil([&] { return engine->GetHttpSocketCurrentStatus() == KReceiving; }));
    ServerReplies("HTTP/1.1 500 Oops\r\nContent-Length: 0\r\n\r\n");
    ASSERT_TRUE(velatest::SpinUntil([&] { return engine->IsIdle(); }));
}

TEST_F(EngineUploadTest, TheReplyTimerGoesToTheObserverGivenToTheEngineAndStopsThroughIt)
{
    StrictMock<MockNotifier> notifier;
    std::unique_ptr<CMLHttpEngine> engine(CMLHttpEngine::NewL(&notifier));
    engine->SetRequestID(KId);
    const QString upload = m_dir.File("ol10.bin");
    WriteFile(upload, "0123456789");
    UploadTimerCounter timer;
    engine->SetOLFileTimerObserver(&timer);
    engine->GetSocketEngine()->SetOLFileReplyTimeOut(15);
    EXPECT_CALL(notifier, HttpEventNotify(KId, KConnected));
    char key[] = "k";
    ASSERT_NE(0, engine->DoPostOLFile(Host().c_str(), key, 1, CQWString(upload), 1000));
    ASSERT_TRUE(velatest::SpinUntil([&] { return timer.count >= 1; }));
    EXPECT_EQ(KReceiving, engine->GetHttpSocketCurrentStatus()) << "the engine leaves the time-out to the owner";
    engine->DoStopOLFileTimer();
    EXPECT_TRUE(engine->GetSocketEngine()->findChildren<CQTimer*>().isEmpty());
    const int fired = timer.count;
    // A cancel after the stop leaves nothing running.
    engine->CancelRequest();
    velatest::ProcessPendingEvents();
    EXPECT_EQ(fired, timer.count);
}

}  // namespace
