// The HTTP socket engine against a QTcpServer on 127.0.0.1: lookup and
// cache paths, connect, paced request slices, pieces of received bytes,
// the stop rules of a read, the end of a body framed by the close, failures
// and cancellation, the proxy's tunnel replies, resumable uploads, and the
// paths taken when a nothrow allocation fails.

#include "src/CQHttpSocketEngine.h"

#include "BaseClass/src/CQInstance.h"
#include "BaseClass/src/CQTimer.h"
#include "src/DNSCache.h"
#include "src/IAPConnectEngine.h"
#include "src/RequestHeaderUnit.h"

#include "support/HeapWatch.h"
#include "support/TestSupport.h"

#include <QCryptographicHash>
#include <QFile>
#include <QHostAddress>
#include <QHostInfo>
#include <QPointer>
#include <QSslSocket>
#include <QTcpServer>
#include <QTcpSocket>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

// Reaches the engine's private parts for what no public call shows.
class CQHttpSocketEngineTestPeer
{
public:
    static QTcpSocket& Socket(CQHttpSocketEngine& engine) { return engine.iSocket; }
    static QByteArray ServerName(const CQHttpSocketEngine& engine) { return engine.iServerName; }
    static int DnsCount(const CQHttpSocketEngine& engine) { return engine.iDnsCounter.GetCount(); }
    static int LookupId(const CQHttpSocketEngine& engine) { return engine.iLookupId; }
    static void GiveLookupAnswer(CQHttpSocketEngine& engine, const QHostInfo& info) { engine.OnGetIPAddress(info); }
    static void SetSendMode(CQHttpSocketEngine& engine, int mode) { engine.iSendMode = mode; }
    static void BytesWritten(CQHttpSocketEngine& engine, qint64 n) { engine.OnDataSend(n); }
    // Reception armed as DoReceive arms it, without looking for bytes that
    // are already there.
    static void ArmWithoutReading(CQHttpSocketEngine& engine)
    {
        engine.iReadArmed = true;
        engine.iBusy = true;
        engine.iStatus = CQHttpSocketEngine::HSES_Receiving;
    }
    // Reception no longer armed: readyRead is ignored, bytes stay in the socket.
    static void Disarm(CQHttpSocketEngine& engine) { engine.iReadArmed = false; }
    static QSslSocket* SecureSocket(CQHttpSocketEngine& engine) { return engine.iSecureSocket; }
};

namespace {

using ::testing::_;
using ::testing::InSequence;
using ::testing::Invoke;
using ::testing::Return;
using ::testing::StrictMock;

using Peer = CQHttpSocketEngineTestPeer;

constexpr int KDeadlineMs = 10000;
constexpr quint32 KLoopback = 0x7F000001u;  // 127.0.0.1 as toIPv4Address gives it

class MockObserver : public MSocketEngineObserver
{
public:
    MOCK_METHOD(void, OnSocketEngine_SocketEvent, (int event, int param), (override));
    MOCK_METHOD(int, OnSocketEngine_ReceiveData, (unsigned char* data, int len), (override));
    MOCK_METHOD(int, OnSocketEngine_SendData, (unsigned char* data, int len), (override));
    MOCK_METHOD(int, OnSocketEngine_ReceivDataEnd, (), (override));
    MOCK_METHOD(unsigned char*, OnSocketEngine_GetMoreSendData, (int offset, int& len), (override));
    MOCK_METHOD(void, OnSocketEngine_TunnelRefused, (int status), (override));
};

// Bytes that differ from one 1024-byte slice to the next.
QByteArray Pattern(int len, int seed = 0)
{
    QByteArray bytes(len, '\0');
    for (int i = 0; i < len; ++i)
        bytes[i] = static_cast<char>((i * 7 + i / 1024 + seed) & 0xFF);
    return bytes;
}

// The pieces the documented rule cuts from one read of n bytes.
std::vector<int> PiecesOf(int n)
{
    std::vector<int> pieces;
    for (int offset = 0; offset < n; offset += 1024)
        pieces.push_back(std::min(1024, n - offset));
    return pieces;
}

// One bytes-written notification of the engine's socket, seen after the
// engine has acted on it.
struct Notification
{
    qint64 bytes = 0;
    int status = 0;
    qint64 waiting = 0;  // bytes the socket still holds afterwards
    bool operator==(const Notification& o) const
    {
        return bytes == o.bytes && status == o.status && waiting == o.waiting;
    }
};

void PrintTo(const Notification& n, std::ostream* os)
{
    *os << "{bytes " << n.bytes << ", status " << n.status << ", waiting " << n.waiting << "}";
}

// A scripted peer: accepts connections and records what it reads.
class LoopbackServer
{
public:
    LoopbackServer()
    {
        EXPECT_TRUE(m_server.listen(QHostAddress(QHostAddress::LocalHost), 0));
        QObject::connect(&m_server, &QTcpServer::newConnection, &m_server, [this] {
            while (QTcpSocket* socket = m_server.nextPendingConnection()) {
                ++connections;
                peer = socket;
                QObject::connect(socket, &QIODevice::readyRead, socket, [this, socket] {
                    const QByteArray bytes = socket->readAll();
                    received += bytes;
                });
                QObject::connect(socket, &QAbstractSocket::disconnected, socket, [this] { ++disconnects; });
            }
        });
    }

    quint16 Port() const { return m_server.serverPort(); }

    // Writes bytes in one system call (one segment on loopback).
    void Send(const QByteArray& bytes)
    {
        ASSERT_NE(nullptr, peer);
        ASSERT_EQ(bytes.size(), peer->write(bytes));
        ASSERT_TRUE(peer->flush());
    }

    void Close()
    {
        ASSERT_NE(nullptr, peer);
        peer->disconnectFromHost();
    }

    QTcpServer m_server;
    QTcpSocket* peer = nullptr;
    QByteArray received;
    int connections = 0;
    int disconnects = 0;
};

unsigned char* Bytes(QByteArray& bytes)
{
    return reinterpret_cast<unsigned char*>(bytes.data());
}

void SetName(CQHttpSocketEngine& engine, const QByteArray& name)
{
    QByteArray copy = name;
    engine.SetServerName(Bytes(copy), copy.size());
}

class SocketEngineTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        CDNSCache::ReleaseRegistered();
        CDNSCache::SetCacheDirectory(m_dnsDir.Path());
        engine.reset(CQHttpSocketEngine::NewL(&observer, 1024, 1024));
        ASSERT_NE(nullptr, engine);
    }

    void TearDown() override
    {
        engine.reset();
        CDNSCache::ReleaseRegistered();
    }

    int Status() const { return engine->GetEngineStatus(); }
    QTcpSocket& Socket() { return Peer::Socket(*engine); }

    // Connects to 127.0.0.1:port and waits for event 32 and the server side.
    void Connect(LoopbackServer& to)
    {
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0));
        SetName(*engine, "127.0.0.1");
        engine->SetPort(to.Port());
        ASSERT_EQ(1, engine->ConnectL());
        ASSERT_TRUE(velatest::SpinUntil(
            [&] { return Status() == CQHttpSocketEngine::HSES_Connected && to.peer != nullptr; }, KDeadlineMs));
    }

    // Every received piece is recorded; the observer answers `answer`.
    void RecordPieces(int answer = 1)
    {
        EXPECT_CALL(observer, OnSocketEngine_ReceiveData(_, _))
            .WillRepeatedly(Invoke([this, answer](unsigned char* data, int len) {
                pieces.emplace_back(reinterpret_cast<const char*>(data), len);
                return answer;
            }));
    }

    std::vector<int> PieceSizes() const
    {
        std::vector<int> sizes;
        for (const QByteArray& piece : pieces)
            sizes.push_back(piece.size());
        return sizes;
    }

    QByteArray Joined() const
    {
        QByteArray all;
        for (const QByteArray& piece : pieces)
            all += piece;
        return all;
    }

    // The server sends n bytes; they wait in the engine's socket until
    // reception is armed, so they arrive as one read.
    void BufferUnarmed(LoopbackServer& from, const QByteArray& bytes)
    {
        from.Send(bytes);
        ASSERT_TRUE(velatest::SpinUntil([&] { return Socket().bytesAvailable() == bytes.size(); }, KDeadlineMs));
    }

    velatest::TempDir m_dnsDir;
    StrictMock<MockObserver> observer;
    std::unique_ptr<CQHttpSocketEngine> engine;
    std::vector<QByteArray> pieces;
};

// ---------------------------------------------------------------- connecting

TEST_F(SocketEngineTest, LiteralIPv4ConnectsWithoutLookupOrCache)
{
    LoopbackServer server;
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0));
    SetName(*engine, "127.0.0.1");
    engine->SetPort(server.Port());
    ASSERT_EQ(1, engine->ConnectL());
    EXPECT_EQ(CQHttpSocketEngine::HSES_Connecting, Status());
    ASSERT_TRUE(velatest::SpinUntil([&] { return Status() == CQHttpSocketEngine::HSES_Connected; }, KDeadlineMs));
    // The cache was not even created, and no lookup was counted.
    EXPECT_EQ(nullptr, CQInstance::Instance()->GetByUid(CDNSCache::KUidDNSCache));
    EXPECT_EQ(0, Peer::DnsCount(*engine));
    EXPECT_FALSE(engine->IsBusy());
}

TEST_F(SocketEngineTest, ServerNameEndsAtItsFirstZeroByte)
{
    LoopbackServer server;
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0));
    SetName(*engine, QByteArray("127.0.0.1\0junk.example", 22));
    engine->SetPort(server.Port());
    ASSERT_EQ(1, engine->ConnectL());
    ASSERT_TRUE(velatest::SpinUntil([&] { return Status() == CQHttpSocketEngine::HSES_Connected; }, KDeadlineMs));
}

TEST_F(SocketEngineTest, CacheHitConnectsWithoutLookupEvents)
{
    LoopbackServer server;
    CDNSCache::GetOrCreateRegistered()->Update(CQWString(QStringLiteral("cached-host.invalid")), KLoopback);
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0));
    SetName(*engine, "cached-host.invalid");
    engine->SetPort(server.Port());
    ASSERT_EQ(1, engine->ConnectL());
    EXPECT_EQ(CQHttpSocketEngine::HSES_Connecting, Status());
    ASSERT_TRUE(velatest::SpinUntil([&] { return Status() == CQHttpSocketEngine::HSES_Connected; }, KDeadlineMs));
    EXPECT_EQ(1, server.connections);
    EXPECT_EQ(0, Peer::DnsCount(*engine));
}

TEST_F(SocketEngineTest, LookupHitReports38Then37Then32AndFillsTheCache)
{
    LoopbackServer server;
    {
        InSequence order;
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(38, 0));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(37, 0));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0));
    }
    SetName(*engine, "localhost");
    engine->SetPort(server.Port());
    ASSERT_EQ(1, engine->ConnectL());
    EXPECT_EQ(CQHttpSocketEngine::HSES_LookingUp, Status());
    EXPECT_EQ(1, Peer::DnsCount(*engine));
    ASSERT_TRUE(velatest::SpinUntil([&] { return Status() == CQHttpSocketEngine::HSES_Connected; }, KDeadlineMs));
    EXPECT_EQ(1, server.connections);

    unsigned int ip = 0;
    ASSERT_TRUE(CDNSCache::GetOrCreateRegistered()->GetAddress(CQWString(QStringLiteral("localhost")), true, ip));
    EXPECT_EQ(KLoopback, ip);
}

TEST_F(SocketEngineTest, SecondConnectFindsTheLookedUpNameInTheCache)
{
    LoopbackServer server;
    {
        InSequence order;
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(38, 0));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(37, 0));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0)).Times(2);
    }
    SetName(*engine, "localhost");
    engine->SetPort(server.Port());
    ASSERT_EQ(1, engine->ConnectL());
    ASSERT_TRUE(velatest::SpinUntil([&] { return Status() == CQHttpSocketEngine::HSES_Connected; }, KDeadlineMs));
    engine->CancelEngine();
    ASSERT_EQ(1, engine->ConnectL());
    EXPECT_EQ(CQHttpSocketEngine::HSES_Connecting, Status());
    ASSERT_TRUE(velatest::SpinUntil([&] { return Status() == CQHttpSocketEngine::HSES_Connected; }, KDeadlineMs));
    EXPECT_TRUE(velatest::SpinUntil([&] { return server.connections == 2; }, KDeadlineMs));
}

// The cache file of an earlier run: entries read from it are not fresh.
void WriteCacheFile(const QString& path, const QString& host, quint32 ip)
{
    QByteArray file;
    auto put32 = [&file](quint32 v) {
        for (int i = 0; i < 4; ++i)
            file.append(static_cast<char>((v >> (8 * i)) & 0xFF));
    };
    put32(1);
    put32(static_cast<quint32>(host.size()));
    for (const QChar c : host) {
        file.append(static_cast<char>(c.unicode() & 0xFF));
        file.append(static_cast<char>(c.unicode() >> 8));
    }
    put32(ip);
    file.append(QByteArray(8, '\0'));  // time 0
    QFile out(path);
    ASSERT_TRUE(out.open(QIODevice::WriteOnly | QIODevice::Truncate));
    ASSERT_EQ(file.size(), out.write(file));
}

TEST_F(SocketEngineTest, FailedLookupFallsBackOnAStaleCacheEntry)
{
    LoopbackServer server;
    WriteCacheFile(CDNSCache::CacheFilePath(), QStringLiteral("stale-host.invalid"), KLoopback);
    unsigned int ip = 0;
    ASSERT_FALSE(CDNSCache::GetOrCreateRegistered()->GetAddress(CQWString(QStringLiteral("stale-host.invalid")), true, ip));
    {
        InSequence order;
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(38, 0));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0));
    }
    SetName(*engine, "stale-host.invalid");
    engine->SetPort(server.Port());
    ASSERT_EQ(1, engine->ConnectL());
    EXPECT_EQ(CQHttpSocketEngine::HSES_LookingUp, Status());
    ASSERT_TRUE(velatest::SpinUntil([&] { return Status() == CQHttpSocketEngine::HSES_Connected; }, KDeadlineMs));
    EXPECT_EQ(1, server.connections);
}

TEST_F(SocketEngineTest, FailedLookupWithoutAnyCacheEntryReports36)
{
    bool reported = false;
    {
        InSequence order;
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(38, 0));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(36, 0)).WillOnce(Invoke([&](int, int) { reported = true; }));
    }
    SetName(*engine, "no-such-host.invalid");
    engine->SetPort(80);
    ASSERT_EQ(1, engine->ConnectL());
    ASSERT_TRUE(velatest::SpinUntil([&] { return reported; }, KDeadlineMs));
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
}

TEST_F(SocketEngineTest, AnswerOfACancelledLookupIsIgnored)
{
    LoopbackServer first;
    LoopbackServer second;
    {
        InSequence order;
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(38, 0));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0));
    }
    SetName(*engine, "localhost");
    engine->SetPort(first.Port());
    ASSERT_EQ(1, engine->ConnectL());
    const int staleId = Peer::LookupId(*engine);
    engine->CancelEngine();
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());

    // A late answer of that lookup, as QHostInfo would deliver it.
    QHostInfo late(staleId);
    late.setHostName(QStringLiteral("localhost"));
    late.setAddresses({QHostAddress(QHostAddress::LocalHost)});
    Peer::GiveLookupAnswer(*engine, late);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());

    // A newer exchange goes on undisturbed; a real lookup of the same name
    // started after the cancelled one has come back by the end.
    bool lookedUp = false;
    QHostInfo::lookupHost(QStringLiteral("localhost"), &second.m_server, [&](const QHostInfo&) { lookedUp = true; });
    SetName(*engine, "127.0.0.1");
    engine->SetPort(second.Port());
    ASSERT_EQ(1, engine->ConnectL());
    ASSERT_TRUE(velatest::SpinUntil(
        [&] { return lookedUp && Status() == CQHttpSocketEngine::HSES_Connected && second.connections == 1; },
        KDeadlineMs));
    velatest::ProcessPendingEvents();
    EXPECT_EQ(0, first.connections);
}

TEST_F(SocketEngineTest, CancelInsideTheResolvedReportStopsTheConnect)
{
    LoopbackServer server;
    bool resolved = false;
    {
        InSequence order;
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(38, 0));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(37, 0)).WillOnce(Invoke([&](int, int) {
            resolved = true;
            engine->CancelEngine();
        }));
    }
    SetName(*engine, "localhost");
    engine->SetPort(server.Port());
    ASSERT_EQ(1, engine->ConnectL());
    ASSERT_TRUE(velatest::SpinUntil([&] { return resolved; }, KDeadlineMs));
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
    EXPECT_EQ(QAbstractSocket::UnconnectedState, Socket().state());
}

TEST_F(SocketEngineTest, ConnectionRefusedIsError34)
{
    quint16 closedPort = 0;
    {
        QTcpServer probe;
        ASSERT_TRUE(probe.listen(QHostAddress(QHostAddress::LocalHost), 0));
        closedPort = probe.serverPort();
    }
    bool failed = false;
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(34, 0)).WillOnce(Invoke([&](int, int) { failed = true; }));
    SetName(*engine, "127.0.0.1");
    engine->SetPort(closedPort);
    ASSERT_EQ(1, engine->ConnectL());
    ASSERT_TRUE(velatest::SpinUntil([&] { return failed; }, KDeadlineMs));
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
}

struct StatusRow
{
    const char* name;
    CQHttpSocketEngine::enHttpSocketsEngineStatus status;
};

class ConnectOutsideIdleTest : public SocketEngineTest, public ::testing::WithParamInterface<StatusRow>
{
};

TEST_P(ConnectOutsideIdleTest, ReturnsZeroAndDoesNothing)
{
    LoopbackServer server;
    SetName(*engine, "127.0.0.1");
    engine->SetPort(server.Port());
    engine->ChangeEngineStatus(GetParam().status);
    EXPECT_EQ(0, engine->ConnectL());
    EXPECT_EQ(GetParam().status, engine->GetEngineStatus());
    EXPECT_EQ(QAbstractSocket::UnconnectedState, Socket().state());
    velatest::ProcessPendingEvents();
    EXPECT_EQ(0, server.connections);
}

const StatusRow KStatusRows[] = {
    {"status_101", CQHttpSocketEngine::HSES_Starting},  {"status_102", CQHttpSocketEngine::HSES_LookingUp},
    {"status_103", CQHttpSocketEngine::HSES_Resolved},  {"status_104", CQHttpSocketEngine::HSES_Connecting},
    {"status_106", CQHttpSocketEngine::HSES_Connected}, {"status_107", CQHttpSocketEngine::HSES_Sending},
    {"status_108", CQHttpSocketEngine::HSES_Receiving},
};

INSTANTIATE_TEST_SUITE_P(Statuses, ConnectOutsideIdleTest, ::testing::ValuesIn(KStatusRows),
                         [](const ::testing::TestParamInfo<StatusRow>& info) { return std::string(info.param.name); });

TEST_F(SocketEngineTest, ConnectByIPOnlyFromItsStartingStatuses)
{
    engine->ChangeEngineStatus(CQHttpSocketEngine::HSES_Connected);
    EXPECT_EQ(0, engine->ConnectByIP(QStringLiteral("127.0.0.1")));
    EXPECT_EQ(CQHttpSocketEngine::HSES_Connected, Status());

    LoopbackServer server;
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0));
    engine->SetPort(server.Port());
    engine->ChangeEngineStatus(CQHttpSocketEngine::HSES_Starting);
    EXPECT_EQ(1, engine->ConnectByIP(QStringLiteral("127.0.0.1")));
    ASSERT_TRUE(velatest::SpinUntil([&] { return Status() == CQHttpSocketEngine::HSES_Connected; }, KDeadlineMs));
}

// ---------------------------------------------------------------- server name

struct NameRow
{
    const char* name;
    int length;
    int kept;
};

class ServerNameLengthTest : public SocketEngineTest, public ::testing::WithParamInterface<NameRow>
{
};

TEST_P(ServerNameLengthTest, KeepsAtMost256Bytes)
{
    QByteArray name = Pattern(GetParam().length, 3);
    engine->SetServerName(Bytes(name), name.size());
    EXPECT_EQ(name.left(GetParam().kept), Peer::ServerName(*engine));
}

const NameRow KNameRows[] = {
    {"length_1", 1, 1},       {"length_255", 255, 255}, {"length_256", 256, 256},
    {"length_257", 257, 256}, {"length_300", 300, 256},
};

INSTANTIATE_TEST_SUITE_P(Lengths, ServerNameLengthTest, ::testing::ValuesIn(KNameRows),
                         [](const ::testing::TestParamInfo<NameRow>& info) { return std::string(info.param.name); });

TEST_F(SocketEngineTest, ServerNameLongerThan256IsCutBeforeTheCacheIsAsked)
{
    LoopbackServer server;
    const QByteArray cut(256, 'a');
    CDNSCache::GetOrCreateRegistered()->Update(CQWString(QString::fromLatin1(cut)), KLoopback);
    // Cut to the cached name: a cache hit, no lookup.
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0));
    SetName(*engine, cut + "bcdef");
    engine->SetPort(server.Port());
    ASSERT_EQ(1, engine->ConnectL());
    ASSERT_TRUE(velatest::SpinUntil([&] { return Status() == CQHttpSocketEngine::HSES_Connected; }, KDeadlineMs));
}

TEST_F(SocketEngineTest, NullOrEmptyServerNameLeavesNoName)
{
    QByteArray name("example.org");
    engine->SetServerName(Bytes(name), name.size());
    engine->SetServerName(nullptr, 5);
    EXPECT_TRUE(Peer::ServerName(*engine).isEmpty());
    engine->SetServerName(Bytes(name), name.size());
    engine->SetServerName(Bytes(name), -1);
    EXPECT_TRUE(Peer::ServerName(*engine).isEmpty());
}

// ---------------------------------------------------------------- sending

TEST_F(SocketEngineTest, RequestOf2500BytesGoesAs1024_1024_452EachAfterThePreviousBytesWritten)
{
    LoopbackServer server;
    Connect(server);
    std::vector<Notification> seen;
    QObject::connect(&Socket(), &QIODevice::bytesWritten, &server.m_server, [&](qint64 n) {
        seen.push_back({n, Status(), Socket().bytesToWrite()});
    });

    QByteArray request = Pattern(2500);
    ASSERT_EQ(1, engine->DoSend(Bytes(request), request.size(), false));
    // Only the first slice is in the socket; the rest waits for its bytes-written.
    EXPECT_EQ(1024, Socket().bytesToWrite());
    EXPECT_EQ(CQHttpSocketEngine::HSES_Sending, Status());
    EXPECT_FALSE(engine->IsBusy());

    ASSERT_TRUE(velatest::SpinUntil([&] { return server.received.size() == 2500; }, KDeadlineMs));
    EXPECT_EQ(request, server.received);
    const std::vector<Notification> expected = {
        {1024, CQHttpSocketEngine::HSES_Sending, 1024},
        {1024, CQHttpSocketEngine::HSES_Sending, 452},
        {452, CQHttpSocketEngine::HSES_Receiving, 0},
    };
    EXPECT_EQ(expected, seen);
    EXPECT_TRUE(engine->IsBusy());  // reception armed
}

TEST_F(SocketEngineTest, LargeRequestIsWrittenInWindowsAfterFourPacedSlices)
{
    LoopbackServer server;
    Connect(server);
    std::vector<Notification> seen;
    QObject::connect(&Socket(), &QIODevice::bytesWritten, &server.m_server, [&](qint64 n) {
        seen.push_back({n, Status(), Socket().bytesToWrite()});
    });

    const int size = 300 * 1024 + 17;
    QByteArray request = Pattern(size, 5);
    ASSERT_EQ(1, engine->DoSend(Bytes(request), request.size(), false));
    ASSERT_TRUE(velatest::SpinUntil(
        [&] { return server.received.size() == size && Status() == CQHttpSocketEngine::HSES_Receiving; },
        KDeadlineMs));
    EXPECT_EQ(request, server.received);

    ASSERT_GE(seen.size(), 5u);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(1024, seen[i].bytes) << "paced slice " << i;
        // After the first three, exactly the next slice went in.
        if (i < 3) {
            EXPECT_EQ(1024, seen[i].waiting) << "paced slice " << i;
        }
    }
    qint64 total = 0;
    for (const Notification& n : seen) {
        total += n.bytes;
        EXPECT_LE(n.waiting, 64 * 1024);
    }
    EXPECT_EQ(size, total);
    // Far fewer system calls than the 301 slices.
    EXPECT_LT(seen.size(), 301u / 4);
}

TEST_F(SocketEngineTest, FileUploadStreamsHeadFileAndTrailer)
{
    LoopbackServer server;
    Connect(server);
    velatest::TempDir dir;
    const QByteArray file = Pattern(5000, 9);
    {
        QFile out(dir.File(QStringLiteral("upload.bin")));
        ASSERT_TRUE(out.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.size(), out.write(file));
    }
    const QByteArray head = "POST /up HTTP/1.1\r\nContent-Length: 5021\r\n\r\n--part-head--";
    const QByteArray trailer = "\r\n--end--\r\n";
    CQPostFileHeaderUnit unit;
    unsigned char* headBytes = new unsigned char[head.size()];
    std::memcpy(headBytes, head.constData(), static_cast<size_t>(head.size()));
    unit.SetHeaderData(headBytes, head.size());
    unsigned char* trailerBytes = new unsigned char[trailer.size()];
    std::memcpy(trailerBytes, trailer.constData(), static_cast<size_t>(trailer.size()));
    unit.SetInfoData(trailerBytes, trailer.size());
    unit.m_strFilePath = CQWString(dir.File(QStringLiteral("upload.bin")));

    ASSERT_EQ(1, engine->DoSendFile(unit, false));
    const QByteArray expected = head + file + trailer;
    ASSERT_TRUE(velatest::SpinUntil(
        [&] { return server.received.size() == expected.size() && Status() == CQHttpSocketEngine::HSES_Receiving; },
        KDeadlineMs));
    EXPECT_EQ(expected, server.received);
}

TEST_F(SocketEngineTest, FileUploadOfAMissingFileSendsHeadAndTrailer)
{
    LoopbackServer server;
    Connect(server);
    velatest::TempDir dir;
    const QByteArray head = "POST /up HTTP/1.1\r\n\r\n";
    const QByteArray trailer = "--end--";
    CQPostFileHeaderUnit unit;
    unsigned char* headBytes = new unsigned char[head.size()];
    std::memcpy(headBytes, head.constData(), static_cast<size_t>(head.size()));
    unit.SetHeaderData(headBytes, head.size());
    unsigned char* trailerBytes = new unsigned char[trailer.size()];
    std::memcpy(trailerBytes, trailer.constData(), static_cast<size_t>(trailer.size()));
    unit.SetInfoData(trailerBytes, trailer.size());
    unit.m_strFilePath = CQWString(dir.File(QStringLiteral("absent.bin")));

    ASSERT_EQ(1, engine->DoSendFile(unit, false));
    ASSERT_TRUE(velatest::SpinUntil([&] { return server.received == head + trailer; }, KDeadlineMs));
}

TEST_F(SocketEngineTest, DoSendFileRefusesAUnitWithoutHead)
{
    CQPostFileHeaderUnit unit;
    EXPECT_EQ(0, engine->DoSendFile(unit, false));
    unit.SetHeaderData(new unsigned char[1], 0);
    EXPECT_EQ(0, engine->DoSendFile(unit, false));
}

struct SendRefusalRow
{
    const char* name;
    bool nullData;
    int length;
};

class DoSendRefusalTest : public SocketEngineTest, public ::testing::WithParamInterface<SendRefusalRow>
{
};

TEST_P(DoSendRefusalTest, ReturnsZero)
{
    QByteArray data("GET / HTTP/1.1\r\n\r\n");
    unsigned char* p = GetParam().nullData ? nullptr : Bytes(data);
    EXPECT_EQ(0, engine->DoSend(p, GetParam().length, false));
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
}

const SendRefusalRow KSendRefusalRows[] = {
    {"null_data", true, 10},
    {"length_0", false, 0},
    {"length_minus_1", false, -1},
};

INSTANTIATE_TEST_SUITE_P(Refusals, DoSendRefusalTest, ::testing::ValuesIn(KSendRefusalRows),
                         [](const ::testing::TestParamInfo<SendRefusalRow>& info) {
                             return std::string(info.param.name);
                         });

TEST_F(SocketEngineTest, DoSendWithoutAConnectionIsRefused)
{
    QByteArray data("GET / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(0, engine->DoSend(Bytes(data), data.size(), false));
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
}

TEST_F(SocketEngineTest, SendAndReceiveWhileReceptionIsArmedAreBusy)
{
    EXPECT_EQ(1, engine->DoReceive());
    EXPECT_EQ(CQHttpSocketEngine::HSES_Receiving, Status());
    EXPECT_TRUE(engine->IsBusy());
    EXPECT_EQ(-1, engine->DoReceive());
    QByteArray data("GET / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(-1, engine->DoSend(Bytes(data), data.size(), false));
    CQSendDataUnit unit;
    EXPECT_EQ(-1, engine->HandleSendData(&unit));
}

TEST_F(SocketEngineTest, EmptyUnitArmsReceptionAtOnce)
{
    CQSendDataUnit unit;
    EXPECT_EQ(1, engine->HandleSendData(&unit));
    EXPECT_EQ(CQHttpSocketEngine::HSES_Receiving, Status());
    EXPECT_TRUE(engine->IsBusy());
}

TEST(SocketEngineNoObserverTest, SendAndHandOnRefuseWithoutObserver)
{
    std::unique_ptr<CQHttpSocketEngine> engine(CQHttpSocketEngine::NewL(nullptr, 0, 0));
    ASSERT_NE(nullptr, engine);
    CQSendDataUnit unit;
    EXPECT_EQ(0, engine->HandleSendData(&unit));
    EXPECT_EQ(0, engine->HandleRecvData());
    engine->SetSocketEvent(32, 0);  // nobody to tell: nothing happens
}

TEST_F(SocketEngineTest, HandleSendDataRefusesANullUnit)
{
    EXPECT_EQ(0, engine->HandleSendData(nullptr));
}

TEST_F(SocketEngineTest, UnknownSendModeIsFatalDeathTest)
{
    EXPECT_DEATH(
        {
            Peer::SetSendMode(*engine, 7);
            Peer::BytesWritten(*engine, 1);
        },
        "ASSERT: \"FALSE\" in file src/CQHttpSocketEngine");
}

// ---------------------------------------------------------------- receiving

struct BurstRow
{
    const char* name;
    int length;
};

class BurstTest : public SocketEngineTest, public ::testing::WithParamInterface<BurstRow>
{
};

TEST_P(BurstTest, ReachesTheObserverIn1024BytePieces)
{
    LoopbackServer server;
    Connect(server);
    RecordPieces();
    const QByteArray burst = Pattern(GetParam().length, 1);
    BufferUnarmed(server, burst);
    EXPECT_TRUE(pieces.empty());  // not armed: nothing handed up
    ASSERT_EQ(1, engine->DoReceive());
    ASSERT_TRUE(velatest::SpinUntil([&] { return Joined().size() == burst.size(); }, KDeadlineMs));
    EXPECT_EQ(PiecesOf(GetParam().length), PieceSizes());
    EXPECT_EQ(burst, Joined());
    // Re-armed for more.
    EXPECT_EQ(CQHttpSocketEngine::HSES_Receiving, Status());
    EXPECT_TRUE(engine->IsBusy());
}

const BurstRow KBurstRows[] = {
    {"burst_1", 1},
    {"burst_1023", 1023},
    {"burst_1024", 1024},
    {"burst_1025", 1025},
    {"burst_2047", 2047},
    {"burst_2048", 2048},
    {"burst_2049", 2049},
    // Past one read block of the engine: the pieces are those of one read.
    {"burst_65536", 65536},
    {"burst_66536", 66536},
    {"burst_200000", 200000},
};

INSTANTIATE_TEST_SUITE_P(Bursts, BurstTest, ::testing::ValuesIn(KBurstRows),
                         [](const ::testing::TestParamInfo<BurstRow>& info) { return std::string(info.param.name); });

TEST_F(SocketEngineTest, Burst2048IsTwoPiecesOf1024)
{
    LoopbackServer server;
    Connect(server);
    {
        InSequence order;
        EXPECT_CALL(observer, OnSocketEngine_ReceiveData(_, 1024)).Times(2).WillRepeatedly(Return(1));
    }
    BufferUnarmed(server, Pattern(2048));
    ASSERT_EQ(1, engine->DoReceive());
    ASSERT_TRUE(velatest::SpinUntil([&] { return Socket().bytesAvailable() == 0 && engine->IsBusy(); }, KDeadlineMs));
}

TEST_F(SocketEngineTest, Burst1025Is1024Then1)
{
    LoopbackServer server;
    Connect(server);
    {
        InSequence order;
        EXPECT_CALL(observer, OnSocketEngine_ReceiveData(_, 1024)).WillOnce(Return(1));
        EXPECT_CALL(observer, OnSocketEngine_ReceiveData(_, 1)).WillOnce(Return(1));
    }
    BufferUnarmed(server, Pattern(1025));
    ASSERT_EQ(1, engine->DoReceive());
    ASSERT_TRUE(velatest::SpinUntil([&] { return Socket().bytesAvailable() == 0 && engine->IsBusy(); }, KDeadlineMs));
}

TEST_F(SocketEngineTest, ReceptionStaysArmedAcrossReads)
{
    LoopbackServer server;
    Connect(server);
    RecordPieces();
    ASSERT_EQ(1, engine->DoReceive());
    const QByteArray first = Pattern(100, 2);
    const QByteArray second = Pattern(200, 4);
    server.Send(first);
    ASSERT_TRUE(velatest::SpinUntil([&] { return Joined().size() == 100; }, KDeadlineMs));
    server.Send(second);
    ASSERT_TRUE(velatest::SpinUntil([&] { return Joined().size() == 300; }, KDeadlineMs));
    EXPECT_EQ(std::vector<int>({100, 200}), PieceSizes());
    EXPECT_EQ(first + second, Joined());
}

TEST_F(SocketEngineTest, RequestThenResponseArrivesAfterTheLastSlice)
{
    LoopbackServer server;
    Connect(server);
    RecordPieces();
    QByteArray request("GET / HTTP/1.1\r\nHost: x\r\n\r\n");
    ASSERT_EQ(1, engine->DoSend(Bytes(request), request.size(), false));
    ASSERT_TRUE(velatest::SpinUntil([&] { return server.received == request; }, KDeadlineMs));
    ASSERT_TRUE(velatest::SpinUntil([&] { return Status() == CQHttpSocketEngine::HSES_Receiving; }, KDeadlineMs));
    const QByteArray response = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
    server.Send(response);
    ASSERT_TRUE(velatest::SpinUntil([&] { return Joined() == response; }, KDeadlineMs));
}

TEST_F(SocketEngineTest, ZeroAnswerStopsTheReadDropsItsRestAndDoesNotReArm)
{
    LoopbackServer server;
    Connect(server);
    RecordPieces(0);
    const QByteArray burst = Pattern(3000);
    BufferUnarmed(server, burst);
    ASSERT_EQ(1, engine->DoReceive());
    ASSERT_TRUE(velatest::SpinUntil([&] { return !pieces.empty(); }, KDeadlineMs));
    velatest::ProcessPendingEvents();
    EXPECT_EQ(std::vector<int>({1024}), PieceSizes());
    EXPECT_EQ(0, Socket().bytesAvailable());  // the rest of that read is gone
    EXPECT_FALSE(engine->IsBusy());
    EXPECT_EQ(CQHttpSocketEngine::HSES_Receiving, Status());

    // Later bytes wait in the socket: reception is not armed.
    server.Send(Pattern(10));
    ASSERT_TRUE(velatest::SpinUntil([&] { return Socket().bytesAvailable() == 10; }, KDeadlineMs));
    EXPECT_EQ(1u, pieces.size());
}

TEST_F(SocketEngineTest, ZeroAnswerOnALaterBlockStopsTheRestOfThatRead)
{
    LoopbackServer server;
    Connect(server);
    int calls = 0;
    EXPECT_CALL(observer, OnSocketEngine_ReceiveData(_, _)).WillRepeatedly(Invoke([&](unsigned char*, int) {
        ++calls;
        return calls == 70 ? 0 : 1;  // a piece of the second read block
    }));
    BufferUnarmed(server, Pattern(100 * 1024));
    ASSERT_EQ(1, engine->DoReceive());
    ASSERT_TRUE(velatest::SpinUntil([&] { return calls >= 70; }, KDeadlineMs));
    velatest::ProcessPendingEvents();
    EXPECT_EQ(70, calls);
    EXPECT_EQ(0, Socket().bytesAvailable());
    EXPECT_FALSE(engine->IsBusy());
}

TEST_F(SocketEngineTest, CancelInsideAPieceStopsTheRead)
{
    LoopbackServer server;
    Connect(server);
    int calls = 0;
    EXPECT_CALL(observer, OnSocketEngine_ReceiveData(_, _)).WillRepeatedly(Invoke([&](unsigned char*, int) {
        ++calls;
        engine->CancelEngine();
        return 1;
    }));
    BufferUnarmed(server, Pattern(3000));
    ASSERT_EQ(1, engine->DoReceive());
    ASSERT_TRUE(velatest::SpinUntil([&] { return calls > 0; }, KDeadlineMs));
    velatest::ProcessPendingEvents();
    EXPECT_EQ(1, calls);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
    EXPECT_FALSE(engine->IsBusy());
    ASSERT_TRUE(velatest::SpinUntil([&] { return server.disconnects == 1; }, KDeadlineMs));
}

TEST_F(SocketEngineTest, RestartInsideAPieceStopsTheReadAndTheNewExchangeGoesOn)
{
    LoopbackServer first;
    LoopbackServer second;
    Connect(first);
    int calls = 0;
    EXPECT_CALL(observer, OnSocketEngine_ReceiveData(_, _)).WillRepeatedly(Invoke([&](unsigned char*, int) {
        ++calls;
        engine->CancelEngine();
        SetName(*engine, "127.0.0.1");
        engine->SetPort(second.Port());
        EXPECT_EQ(1, engine->ConnectL());
        return 1;
    }));
    BufferUnarmed(first, Pattern(3000));
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0));
    ASSERT_EQ(1, engine->DoReceive());
    ASSERT_TRUE(velatest::SpinUntil(
        [&] { return Status() == CQHttpSocketEngine::HSES_Connected && second.connections == 1; }, KDeadlineMs));
    EXPECT_EQ(1, calls);
    EXPECT_FALSE(engine->IsBusy());
}

TEST_F(SocketEngineTest, BytesThatCameBeforeArmingAreReadWhenArmed)
{
    LoopbackServer server;
    Connect(server);
    RecordPieces();
    const QByteArray early = Pattern(700, 6);
    BufferUnarmed(server, early);
    velatest::ProcessPendingEvents();
    EXPECT_TRUE(pieces.empty());
    ASSERT_EQ(1, engine->DoReceive());
    EXPECT_TRUE(pieces.empty());  // handed up from the event loop, not inside DoReceive
    ASSERT_TRUE(velatest::SpinUntil([&] { return Joined() == early; }, KDeadlineMs));
}

// ---------------------------------------------------------------- closing

TEST_F(SocketEngineTest, PeerCloseWhileReceivingEndsTheBody)
{
    LoopbackServer server;
    Connect(server);
    bool ended = false;
    RecordPieces();
    EXPECT_CALL(observer, OnSocketEngine_ReceivDataEnd()).WillOnce(Invoke([&] {
        ended = true;
        return 1;
    }));
    ASSERT_EQ(1, engine->DoReceive());
    const QByteArray body = Pattern(1500, 8);
    server.Send(body);
    server.Close();
    ASSERT_TRUE(velatest::SpinUntil([&] { return ended; }, KDeadlineMs));
    EXPECT_EQ(body, Joined());
    for (const QByteArray& piece : pieces)
        EXPECT_LE(piece.size(), 1024);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
    EXPECT_FALSE(engine->IsBusy());
}

TEST_F(SocketEngineTest, PeerCloseHandsUpUnreadBytesBeforeTheEnd)
{
    LoopbackServer server;
    Connect(server);
    bool ended = false;
    {
        InSequence order;
        EXPECT_CALL(observer, OnSocketEngine_ReceiveData(_, 1024)).WillOnce(Return(1));
        EXPECT_CALL(observer, OnSocketEngine_ReceiveData(_, 76)).WillOnce(Return(1));
        EXPECT_CALL(observer, OnSocketEngine_ReceivDataEnd()).WillOnce(Invoke([&] {
            ended = true;
            return 1;
        }));
    }
    BufferUnarmed(server, Pattern(1100));
    // Armed, but the bytes already there raise no notification of their own:
    // only the close brings them up.
    Peer::ArmWithoutReading(*engine);
    server.Close();
    ASSERT_TRUE(velatest::SpinUntil([&] { return ended; }, KDeadlineMs));
}

TEST_F(SocketEngineTest, PeerCloseWhileNotReceivingIsError34)
{
    LoopbackServer server;
    Connect(server);
    bool failed = false;
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(34, 0)).WillOnce(Invoke([&](int, int) { failed = true; }));
    server.Close();
    ASSERT_TRUE(velatest::SpinUntil([&] { return failed; }, KDeadlineMs));
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
}

TEST_F(SocketEngineTest, PeerCloseAfterTheObserverStoppedIsError34)
{
    LoopbackServer server;
    Connect(server);
    RecordPieces(0);
    bool failed = false;
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(34, 0)).WillOnce(Invoke([&](int, int) { failed = true; }));
    ASSERT_EQ(1, engine->DoReceive());
    server.Send(Pattern(10));
    ASSERT_TRUE(velatest::SpinUntil([&] { return !pieces.empty(); }, KDeadlineMs));
    server.Close();
    ASSERT_TRUE(velatest::SpinUntil([&] { return failed; }, KDeadlineMs));
    EXPECT_EQ(1u, pieces.size());
}

TEST_F(SocketEngineTest, ANewExchangeStartedInsideTheErrorReportConnects)
{
    LoopbackServer first;
    LoopbackServer second;
    Connect(first);
    bool reconnected = false;
    {
        InSequence order;
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(34, 0)).WillOnce(Invoke([&](int, int) {
            engine->CancelEngine();
            SetName(*engine, "127.0.0.1");
            engine->SetPort(second.Port());
            EXPECT_EQ(1, engine->ConnectL());
        }));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0)).WillOnce(Invoke([&](int, int) {
            reconnected = true;
        }));
    }
    first.Close();
    ASSERT_TRUE(velatest::SpinUntil([&] { return reconnected && second.connections == 1; }, KDeadlineMs));
}

TEST_F(SocketEngineTest, SetSocketErrorEvent40ClosesAndReportsNothing)
{
    LoopbackServer server;
    Connect(server);
    engine->OnSetSocketErrorEvent(40, 9);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
    EXPECT_EQ(QAbstractSocket::UnconnectedState, Socket().state());
    ASSERT_TRUE(velatest::SpinUntil([&] { return server.disconnects == 1; }, KDeadlineMs));
    velatest::ProcessPendingEvents();
}

struct ErrorEventRow
{
    const char* name;
    int code;
    bool passedOn;
};

class SetSocketErrorEventTest : public SocketEngineTest, public ::testing::WithParamInterface<ErrorEventRow>
{
};

TEST_P(SetSocketErrorEventTest, ClosesAndPassesOnOnlyItsCodes)
{
    LoopbackServer server;
    Connect(server);
    if (GetParam().passedOn)
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(GetParam().code, 77));
    engine->OnSetSocketErrorEvent(GetParam().code, 77);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
    ASSERT_TRUE(velatest::SpinUntil([&] { return server.disconnects == 1; }, KDeadlineMs));
}

const ErrorEventRow KErrorEventRows[] = {
    {"code_34_dropped", 34, false}, {"code_35_passed", 35, true},  {"code_36_dropped", 36, false},
    {"code_40_dropped", 40, false}, {"code_47_dropped", 47, false}, {"code_48_passed", 48, true},
    {"code_49_passed", 49, true},   {"code_50_passed", 50, true},  {"code_51_dropped", 51, false},
    {"code_0_dropped", 0, false},   {"code_minus_1_dropped", -1, false},
};

INSTANTIATE_TEST_SUITE_P(Codes, SetSocketErrorEventTest, ::testing::ValuesIn(KErrorEventRows),
                         [](const ::testing::TestParamInfo<ErrorEventRow>& info) {
                             return std::string(info.param.name);
                         });

// ---------------------------------------------------------------- cancelling

TEST_F(SocketEngineTest, CancelWhileConnectingAbortsAndReportsNothing)
{
    LoopbackServer server;
    SetName(*engine, "127.0.0.1");
    engine->SetPort(server.Port());
    engine->SetSecure(false);
    ASSERT_EQ(1, engine->ConnectL());
    engine->CancelEngine();
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
    EXPECT_EQ(QAbstractSocket::UnconnectedState, Socket().state());
    velatest::ProcessPendingEvents();
}

TEST_F(SocketEngineTest, CancelResetsTheLookupCounterAndIdles)
{
    SetName(*engine, "no-such-host.invalid");
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(38, 0));
    ASSERT_EQ(1, engine->ConnectL());
    EXPECT_EQ(1, Peer::DnsCount(*engine));
    engine->DoCancel();
    EXPECT_EQ(0, Peer::DnsCount(*engine));
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
    // The cancelled lookup reports nothing, even once it has failed.
    bool lookedUp = false;
    QHostInfo::lookupHost(QStringLiteral("no-such-host.invalid"), engine.get(), [&](const QHostInfo&) { lookedUp = true; });
    ASSERT_TRUE(velatest::SpinUntil([&] { return lookedUp; }, KDeadlineMs));
    velatest::ProcessPendingEvents();
}

TEST_F(SocketEngineTest, DestroyingAnEngineDuringALookupReportsNothing)
{
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(38, 0));
    SetName(*engine, "localhost");
    engine->SetPort(80);
    ASSERT_EQ(1, engine->ConnectL());
    engine.reset();
    QObject context;
    bool lookedUp = false;
    QHostInfo::lookupHost(QStringLiteral("localhost"), &context, [&](const QHostInfo&) { lookedUp = true; });
    ASSERT_TRUE(velatest::SpinUntil([&] { return lookedUp; }, KDeadlineMs));
    velatest::ProcessPendingEvents();
}

TEST_F(SocketEngineTest, DestroyingAnArmedEngineReportsNothing)
{
    LoopbackServer server;
    Connect(server);
    ASSERT_EQ(1, engine->DoReceive());
    server.Send(Pattern(10));
    engine.reset();
    ASSERT_TRUE(velatest::SpinUntil([&] { return server.disconnects == 1; }, KDeadlineMs));
    velatest::ProcessPendingEvents();
}

TEST_F(SocketEngineTest, ChangeEngineStatusSetsTheStatus)
{
    engine->ChangeEngineStatus(CQHttpSocketEngine::HSES_Resolved);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Resolved, Status());
    engine->DisConnect();
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
}

TEST_F(SocketEngineTest, PlatformCallsDoNothing)
{
    EXPECT_EQ(0, engine->RunError(-5));
    engine->OnSelectIapObserver_NotifyStatus(true, 3);
    engine->OnIapTransferBlocked();
    engine->OnIapTransferOpen();
    engine->StartTimer(100);
    engine->StopTimer();
    engine->CloseIap();
    engine->ChangeStateL(QByteArray("x"));
    engine->SetIapEngine(nullptr);
    int http = 0;
    engine->SetOLHttp(&http);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
    EXPECT_FALSE(engine->IsBusy());
}

// ---------------------------------------------------------------- reply timer

struct CountingTimerObserver : public CQTimerObserver
{
    void OnTimerExpired(CQTimer*) override { ++count; }
    int count = 0;
};

TEST_F(SocketEngineTest, ReplyTimerRepeatsUntilStoppedAndIsReleased)
{
    CountingTimerObserver timerObserver;
    engine->StartOLFileRecvTimer(&timerObserver, 5);
    ASSERT_TRUE(velatest::SpinUntil([&] { return timerObserver.count >= 2; }, KDeadlineMs));
    engine->StopOLFileRecvTimer();
    ASSERT_TRUE(velatest::SpinUntil([&] { return engine->findChildren<CQTimer*>().isEmpty(); }, KDeadlineMs));
    // Stopping again is harmless.
    engine->DoStopOLFileTimer();
}

TEST_F(SocketEngineTest, StartingTheReplyTimerAgainReplacesTheRunningOne)
{
    CountingTimerObserver first;
    CountingTimerObserver second;
    engine->StartOLFileRecvTimer(&first, 60000);
    engine->StartOLFileRecvTimer(&second, 5);
    ASSERT_TRUE(velatest::SpinUntil([&] { return engine->findChildren<CQTimer*>().size() == 1; }, KDeadlineMs));
    ASSERT_TRUE(velatest::SpinUntil([&] { return second.count >= 1; }, KDeadlineMs));
    EXPECT_EQ(0, first.count);
    engine->DoStopOLFileTimer();
}

}  // namespace

// ---------------------------------------------------------------- access point engine

namespace {

class SocketEngineIapTest : public SocketEngineTest
{
protected:
    void SetUp() override
    {
        SocketEngineTest::SetUp();
        iap.reset(CIAPConnectEngine::NewL(QStringLiteral("cmnet")));
        ASSERT_NE(nullptr, iap);
    }

    void TearDown() override
    {
        // The documented order: the engines first, then the access point engine.
        SocketEngineTest::TearDown();
        iap.reset();
    }

    std::unique_ptr<CIAPConnectEngine> iap;
};

TEST_F(SocketEngineIapTest, NotRegisteredBeforeSetIapEngine)
{
    EXPECT_EQ(0, iap->GetConnectStateObserverCount());
}

TEST_F(SocketEngineIapTest, SetIapEngineRegistersTheEngineOnce)
{
    engine->SetIapEngine(iap.get());
    engine->SetIapEngine(iap.get());
    EXPECT_EQ(1, iap->GetConnectStateObserverCount());
    EXPECT_TRUE(iap->HasConnectStateObserver(engine.get()));
}

TEST_F(SocketEngineIapTest, DestroyingTheSocketEngineRemovesItFromTheAccessPointEngine)
{
    std::unique_ptr<CQHttpSocketEngine> other(CQHttpSocketEngine::NewL(&observer, 0, 0));
    ASSERT_NE(nullptr, other);
    engine->SetIapEngine(iap.get());
    other->SetIapEngine(iap.get());
    ASSERT_EQ(2, iap->GetConnectStateObserverCount());
    other.reset();
    EXPECT_EQ(1, iap->GetConnectStateObserverCount());
    EXPECT_TRUE(iap->HasConnectStateObserver(engine.get()));
    engine.reset();
    EXPECT_EQ(0, iap->GetConnectStateObserverCount());
}

TEST_F(SocketEngineIapTest, SetIapEngineMovesTheRegistrationToTheNewAccessPointEngine)
{
    std::unique_ptr<CIAPConnectEngine> second(CIAPConnectEngine::NewL(QStringLiteral("wifi")));
    ASSERT_NE(nullptr, second);
    engine->SetIapEngine(iap.get());
    engine->SetIapEngine(second.get());
    EXPECT_EQ(0, iap->GetConnectStateObserverCount());
    EXPECT_TRUE(second->HasConnectStateObserver(engine.get()));
    // Destroying the first one no longer concerns the socket engine.
    iap.reset();
    engine.reset();
    EXPECT_EQ(0, second->GetConnectStateObserverCount());
}

TEST_F(SocketEngineIapTest, SetIapEngineNullLeavesTheAccessPointEngine)
{
    engine->SetIapEngine(iap.get());
    engine->SetIapEngine(nullptr);
    EXPECT_EQ(0, iap->GetConnectStateObserverCount());
    engine.reset();
    EXPECT_EQ(0, iap->GetConnectStateObserverCount());
}

// The socket engine forgets an access point engine that is destroyed first:
// it stays idle and silent, still connects, and its own destruction touches
// nothing freed (the sanitizer build checks that part).
TEST_F(SocketEngineIapTest, AccessPointEngineDestroyedFirstIsForgotten)
{
    engine->SetIapEngine(iap.get());
    iap.reset();
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
    EXPECT_TRUE(::testing::Mock::VerifyAndClearExpectations(&observer));
    LoopbackServer server;
    Connect(server);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Connected, Status());
    engine.reset();
}

TEST_F(SocketEngineIapTest, AfterItsAccessPointEngineIsGoneTheSocketEngineRegistersWithANewOne)
{
    engine->SetIapEngine(iap.get());
    iap.reset();
    iap.reset(CIAPConnectEngine::NewL(QStringLiteral("next")));
    ASSERT_NE(nullptr, iap);
    engine->SetIapEngine(iap.get());
    EXPECT_EQ(1, iap->GetConnectStateObserverCount());
    engine.reset();
    EXPECT_EQ(0, iap->GetConnectStateObserverCount());
}

// Registration reports nothing: the socket engine's transfer callbacks and
// its observer stay silent (the observer is a strict mock).
TEST_F(SocketEngineIapTest, RegistrationReportsNothing)
{
    engine->SetIapEngine(iap.get());
    EXPECT_TRUE(iap->Connect());
    engine->OnIapTransferBlocked();
    engine->OnIapTransferOpen();
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
}

}  // namespace

// ---------------------------------------------------------------- resumable upload

namespace {

// The request text of one block, line by line as the protocol defines it.
QByteArray OLText(const QByteArray& path, const QByteArray& host)
{
    return "POST " + path + " HTTP/1.1\r\n" +
           "User-Agent: VelaClient\r\n" +
           "Host: " + host + "\r\n" +
           "Connection: Keep-Alive\r\n" +
           "Content-Length: \r\n" +
           "Range: bytes=-\r\n" +
           "\r\n";
}

QByteArray Md5Hex(const QByteArray& bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex();
}

// One block request as it must appear on the wire: text, then the bytes.
QByteArray OLRequest(const QByteArray& key, const QByteArray& host, const QByteArray& block)
{
    return OLText(key + Md5Hex(block), host) + block;
}

struct OLTimerCounter : public CQTimerObserver
{
    void OnTimerExpired(CQTimer*) override { ++count; }
    int count = 0;
};

// Stops the reply timer from inside its own expiry.
struct OLTimerStopper : public CQTimerObserver
{
    void OnTimerExpired(CQTimer*) override
    {
        ++count;
        engine->DoStopOLFileTimer();
    }
    CQHttpSocketEngine* engine = nullptr;
    int count = 0;
};

const QByteArray KOLKey = "/up/k3y/";
const QByteArray KOLHost = "upload.example:8080";

class OLUploadTest : public SocketEngineTest
{
protected:
    // A file of len pattern bytes and a header unit for it.
    void MakeUpload(int len, int blockSize)
    {
        file = Pattern(len, 3);
        const QString path = m_files.File("upload.bin");
        QFile f(path);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.size(), f.write(file));
        f.close();
        unit.m_strFilePath = CQWString(path);
        ASSERT_EQ(CQPostOLFileHeaderUnit::KKeySet, unit.SetKey(KOLKey.constData(), KOLKey.size()));
        ASSERT_TRUE(unit.m_strHost.SetData(KOLHost.constData()));
        unit.m_nBlockSize = blockSize;
    }

    // Waits until the server holds `expected` after everything earlier and
    // the engine waits for the reply.
    void ExpectOnWire(LoopbackServer& server, const QByteArray& expected)
    {
        const int end = wire + expected.size();
        ASSERT_TRUE(velatest::SpinUntil(
            [&] { return server.received.size() >= end && Status() == CQHttpSocketEngine::HSES_Receiving; },
            KDeadlineMs))
            << "received " << server.received.size() << " of " << end << ", status " << Status();
        EXPECT_EQ(velatest::Visible(expected), velatest::Visible(server.received.mid(wire, expected.size())));
        EXPECT_EQ(end, server.received.size()) << "nothing after the block";
        wire = end;
    }

    // The server replies; the engine reports progress.
    void Reply(LoopbackServer& server, const QByteArray& reply)
    {
        const int before = reports;
        server.Send(reply);
        ASSERT_TRUE(velatest::SpinUntil([&] { return reports > before; }, KDeadlineMs));
    }

    void RecordProgress()
    {
        EXPECT_CALL(observer, OnSocketEngine_SendData(nullptr, _))
            .WillRepeatedly(Invoke([this](unsigned char*, int n) {
                progress.push_back(n);
                ++reports;
                return 1;
            }));
    }

    velatest::TempDir m_files;
    QByteArray file;
    CQPostOLFileHeaderUnit unit;
    std::vector<int> progress;
    int reports = 0;
    int wire = 0;
};

TEST_F(OLUploadTest, RequestTextIsTheSevenLinesWithoutNumbers)
{
    char path[] = "/k/0123456789abcdef0123456789abcdef";
    std::unique_ptr<char[]> text(engine->GetPostOLFileMethodData(path, 1000, 10240, "h.example:81"));
    ASSERT_NE(nullptr, text);
    EXPECT_EQ(std::string("POST /k/0123456789abcdef0123456789abcdef HTTP/1.1\r\n"
                          "User-Agent: VelaClient\r\n"
                          "Host: h.example:81\r\n"
                          "Connection: Keep-Alive\r\n"
                          "Content-Length: \r\n"
                          "Range: bytes=-\r\n"
                          "\r\n"),
              std::string(text.get()));
    // The rest of the 1024-byte array is zero.
    const size_t n = std::strlen(text.get());
    for (size_t i = n; i < 1024; ++i)
        ASSERT_EQ('\0', text[i]) << "byte " << i;
    EXPECT_EQ(static_cast<int>(n), CQHttpSocketEngine::OLRequestTextLength(static_cast<int>(std::strlen(path)), 12));
}

TEST_F(OLUploadTest, RequestTextWithoutHostUsesTheRememberedHost)
{
    char path[] = "/p";
    std::unique_ptr<char[]> none(engine->GetPostOLFileMethodData(path, 0, 0, nullptr));
    ASSERT_NE(nullptr, none);
    EXPECT_EQ(OLText("/p", ""), QByteArray(none.get())) << "nothing remembered yet: an empty Host value";

    std::unique_ptr<char[]> first(engine->GetPostOLFileMethodData(path, 0, 5, "first.example"));
    EXPECT_EQ("first.example", std::string(engine->GetOLHost().GetDataPtr()));
    std::unique_ptr<char[]> later(engine->GetPostOLFileMethodData(path, 5, 5, nullptr));
    ASSERT_NE(nullptr, later);
    EXPECT_EQ(OLText("/p", "first.example"), QByteArray(later.get()));
}

TEST_F(OLUploadTest, RequestTextThatWouldNotFitItsArrayIsRefused)
{
    // The text and its terminating zero fill the 1024 bytes exactly: the
    // longest path that fits, and one byte more.
    const int fixed = CQHttpSocketEngine::OLRequestTextLength(0, 1);
    std::string longest(static_cast<size_t>(1023 - fixed), 'a');
    std::unique_ptr<char[]> fits(engine->GetPostOLFileMethodData(&longest[0], 0, 0, "h"));
    ASSERT_NE(nullptr, fits);
    EXPECT_EQ(1023u, std::strlen(fits.get()));
    std::string tooLong = longest + "a";
    EXPECT_EQ(nullptr, engine->GetPostOLFileMethodData(&tooLong[0], 0, 0, "h"));
    EXPECT_EQ(nullptr, engine->GetPostOLFileMethodData(nullptr, 0, 0, "h"));
}

struct RangeRow
{
    const char* name;
    std::string reply;
    bool found;
    unsigned int saved;
};

class OLReplyParseTest : public ::testing::TestWithParam<RangeRow>
{
};

TEST_P(OLReplyParseTest, FindsTheRangeValue)
{
    const RangeRow& row = GetParam();
    // An exactly sized copy: reading past it is caught by the sanitizers.
    std::unique_ptr<unsigned char[]> bytes(new unsigned char[row.reply.size() + 1]);
    std::memcpy(bytes.get(), row.reply.data(), row.reply.size());
    unsigned int saved = 12345;
    EXPECT_EQ(row.found, CQHttpSocketEngine::FindOLFileSavedLength(bytes.get(), static_cast<int>(row.reply.size()),
                                                                  saved));
    EXPECT_EQ(row.saved, saved);
}

const RangeRow KRangeRows[] = {
    {"range-600", "HTTP/1.1 200 OK\r\nRange: 600\r\n\r\n", true, 600},
    {"range-0", "HTTP/1.1 200 OK\r\nRange: 0\r\n\r\n", true, 0},
    {"range-1", "HTTP/1.1 200 OK\r\nRange: 1\r\n\r\n", true, 1},
    {"range-among-fields", "HTTP/1.1 200 OK\r\nServer: s\r\nRange: 11240\r\nContent-Length: 0\r\n\r\n", true, 11240},
    {"range-first-of-two", "HTTP/1.1 200 OK\r\nRange: 7\r\nRange: 9\r\n\r\n", true, 7},
    {"range-at-the-very-start", "Range: 42\r\n", true, 42},
    {"range-without-crlf-runs-to-the-end", "HTTP/1.1 200 OK\r\nRange: 1000", true, 1000},
    {"range-max-unsigned", "HTTP/1.1 200 OK\r\nRange: 4294967295\r\n\r\n", true, 4294967295u},
    {"range-cr-without-lf-stays-in-the-value", "HTTP/1.1 200 OK\r\nRange: 12\r3\r\n\r\n", true, 12},
    {"range-ending-in-a-lone-cr", "HTTP/1.1 200 OK\r\nRange: 77\r", true, 77},
    {"range-not-a-number", "HTTP/1.1 200 OK\r\nRange: bytes=0-9\r\n\r\n", true, 0},
    {"range-empty-value", "HTTP/1.1 200 OK\r\nRange: \r\n\r\n", true, 0},
    {"no-range", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", false, 0},
    {"content-range-is-another-field", "HTTP/1.1 206 OK\r\nContent-Range: bytes 0-9/10\r\n\r\n", false, 0},
    {"lowercase-range-is-not-it", "HTTP/1.1 200 OK\r\nrange: 5\r\n\r\n", false, 0},
    {"range-without-space-is-not-it", "HTTP/1.1 200 OK\r\nRange:5\r\n\r\n", false, 0},
    {"cut-inside-the-name", "HTTP/1.1 200 OK\r\nRang", false, 0},
    {"empty", "", false, 0},
};

INSTANTIATE_TEST_SUITE_P(Replies, OLReplyParseTest, ::testing::ValuesIn(KRangeRows),
                         [](const ::testing::TestParamInfo<RangeRow>& info) {
                             std::string name = info.param.name;
                             for (char& c : name)
                                 if (c == '-')
                                     c = '_';
                             return name;
                         });

TEST(OLReplyParse, NullOrNegativeLengthFindsNothing)
{
    unsigned int saved = 9;
    EXPECT_FALSE(CQHttpSocketEngine::FindOLFileSavedLength(nullptr, 10, saved));
    EXPECT_EQ(0u, saved);
    const unsigned char bytes[] = "Range: 5\r\n";
    EXPECT_FALSE(CQHttpSocketEngine::FindOLFileSavedLength(bytes, -1, saved));
    EXPECT_FALSE(CQHttpSocketEngine::FindOLFileSavedLength(bytes, 0, saved));
}

TEST(OLBlockFit, BlockAndTextFillTheBlockBufferAtMost)
{
    const int key = 8;
    const int host = 19;
    const int text = CQHttpSocketEngine::OLRequestTextLength(key + 32, host);
    EXPECT_TRUE(CQHttpSocketEngine::OLBlockFits(key, host, 20480 - text)) << "at the edge";
    EXPECT_FALSE(CQHttpSocketEngine::OLBlockFits(key, host, 20480 - text + 1)) << "one byte past it";
    EXPECT_FALSE(CQHttpSocketEngine::OLBlockFits(key, host, 20480));
    EXPECT_TRUE(CQHttpSocketEngine::OLBlockFits(key, host, 1));
    EXPECT_FALSE(CQHttpSocketEngine::OLBlockFits(key, host, 0));
    EXPECT_FALSE(CQHttpSocketEngine::OLBlockFits(key, host, -1));
    EXPECT_FALSE(CQHttpSocketEngine::OLBlockFits(-1, host, 100));
    EXPECT_FALSE(CQHttpSocketEngine::OLBlockFits(key, -1, 100));
    // Key or host longer than the text array itself.
    EXPECT_FALSE(CQHttpSocketEngine::OLBlockFits(1025, 0, 100));
    EXPECT_FALSE(CQHttpSocketEngine::OLBlockFits(0, 1025, 100));
    // A key whose text no longer fits its 1024-byte array.
    const int longestKey = 1023 - CQHttpSocketEngine::OLRequestTextLength(32, host);
    EXPECT_TRUE(CQHttpSocketEngine::OLBlockFits(longestKey, host, 100));
    EXPECT_FALSE(CQHttpSocketEngine::OLBlockFits(longestKey + 1, host, 100));
}

TEST_F(OLUploadTest, ReplyTimeOutIs120000UntilSet)
{
    EXPECT_EQ(120000, engine->GetOLFileReplyTimeOut());
    engine->SetOLFileReplyTimeOut(25);
    EXPECT_EQ(25, engine->GetOLFileReplyTimeOut());
    engine->SetOLFileReplyTimeOut(-5);
    EXPECT_EQ(0, engine->GetOLFileReplyTimeOut());
}

TEST_F(OLUploadTest, File600IsOneFirstBlockAndRange600EndsWithProgress600)
{
    LoopbackServer server;
    Connect(server);
    MakeUpload(600, 10240);
    RecordProgress();
    ASSERT_EQ(1, engine->DoSendOLFile(unit, false));
    EXPECT_EQ(CQHttpSocketEngine::KSendModeOLFile, engine->GetSendMode());
    EXPECT_EQ(CQHttpSocketEngine::OLS_FirstBlock, engine->GetOLState());
    EXPECT_EQ(CQHttpSocketEngine::HSES_Sending, Status());
    EXPECT_TRUE(engine->IsBusy());
    EXPECT_EQ(std::string(KOLKey.constData()), std::string(engine->GetOLKey().GetDataPtr()));
    EXPECT_EQ(std::string(KOLHost.constData()), std::string(engine->GetOLHost().GetDataPtr()));

    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file));
    EXPECT_EQ(CQHttpSocketEngine::OLS_WaitingReplies, engine->GetOLState());
    EXPECT_TRUE(engine->IsBusy());

    Reply(server, "HTTP/1.1 200 OK\r\nRange: 600\r\n\r\n");
    EXPECT_EQ(std::vector<int>({600}), progress);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
    EXPECT_FALSE(engine->IsBusy());
    EXPECT_EQ(600u, engine->GetOLFileServerSavedLength());
    EXPECT_EQ(wire, server.received.size()) << "nothing more is sent";
}

TEST_F(OLUploadTest, File25000WithBlock10240GoesOnFromTheServersOffsets)
{
    LoopbackServer server;
    Connect(server);
    MakeUpload(25000, 10240);
    RecordProgress();
    ASSERT_EQ(1, engine->DoSendOLFile(unit, false));
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file.left(1000)));

    // The later blocks name no host of their own: the remembered one.
    Reply(server, "HTTP/1.1 200 OK\r\nRange: 1000\r\n\r\n");
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file.mid(1000, 10240)));
    Reply(server, "HTTP/1.1 200 OK\r\nRange: 11240\r\n\r\n");
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file.mid(11240, 10240)));
    Reply(server, "HTTP/1.1 200 OK\r\nRange: 21480\r\n\r\n");
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file.mid(21480, 3520)));
    Reply(server, "HTTP/1.1 200 OK\r\nRange: 25000\r\n\r\n");

    EXPECT_EQ(std::vector<int>({1000, 11240, 21480, 25000}), progress);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
    EXPECT_EQ(0, engine->findChildren<CQTimer*>().size()) << "no reply timer without an observer";
}

TEST_F(OLUploadTest, ASmallerRangeThanSentContinuesFromWhatWasRead)
{
    LoopbackServer server;
    Connect(server);
    MakeUpload(5000, 1500);
    RecordProgress();
    ASSERT_EQ(1, engine->DoSendOLFile(unit, false));
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file.left(1000)));
    Reply(server, "HTTP/1.1 200 OK\r\nRange: 1000\r\n\r\n");
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file.mid(1000, 1500)));
    // 2500 were sent; the server claims 700: the upload goes on from 2500.
    Reply(server, "HTTP/1.1 200 OK\r\nRange: 700\r\n\r\n");
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file.mid(2500, 1500)));
    EXPECT_EQ(std::vector<int>({1000, 2500}), progress);
}

TEST_F(OLUploadTest, EveryBlockPathEndsWithTheMd5OfItsOwnBytes)
{
    LoopbackServer server;
    Connect(server);
    MakeUpload(3000, 700);
    RecordProgress();
    ASSERT_EQ(1, engine->DoSendOLFile(unit, false));
    // Each request is cut from the wire by the length of its text: the path
    // line names the MD5, the rest are the bytes it covers.
    const int textLen = OLText(KOLKey + QByteArray(32, '0'), KOLHost).size();
    const std::vector<int> blocks = {1000, 700, 700, 600};
    int offset = 0;
    for (size_t i = 0; i < blocks.size(); ++i) {
        ASSERT_TRUE(velatest::SpinUntil(
            [&] {
                return server.received.size() >= wire + textLen + blocks[i] &&
                       Status() == CQHttpSocketEngine::HSES_Receiving;
            },
            KDeadlineMs));
        const QByteArray text = server.received.mid(wire, textLen);
        const QByteArray bytes = server.received.mid(wire + textLen, blocks[i]);
        const QByteArray firstLine = text.left(text.indexOf("\r\n"));
        EXPECT_EQ("POST " + KOLKey + Md5Hex(bytes) + " HTTP/1.1", firstLine) << "block " << i;
        EXPECT_EQ(file.mid(offset, blocks[i]), bytes) << "block " << i;
        wire += textLen + blocks[i];
        offset += blocks[i];
        Reply(server, "HTTP/1.1 200 OK\r\nRange: " + QByteArray::number(offset) + "\r\n\r\n");
    }
    EXPECT_EQ(std::vector<int>({1000, 1700, 2400, 3000}), progress);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
}

TEST_F(OLUploadTest, AReplyWithoutRangeEndsTheUploadWithMinusOne)
{
    LoopbackServer server;
    Connect(server);
    MakeUpload(5000, 1024);
    RecordProgress();
    ASSERT_EQ(1, engine->DoSendOLFile(unit, false));
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file.left(1000)));
    Reply(server, "HTTP/1.1 200 OK\r\nContent-Range: bytes 0-999/5000\r\n\r\n");
    EXPECT_EQ(std::vector<int>({-1}), progress);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
    EXPECT_FALSE(engine->IsBusy());
    EXPECT_EQ(0u, engine->GetOLFileServerSavedLength());
}

TEST_F(OLUploadTest, ARangeOfZeroEndsTheUploadWithMinusOne)
{
    LoopbackServer server;
    Connect(server);
    MakeUpload(5000, 1024);
    RecordProgress();
    ASSERT_EQ(1, engine->DoSendOLFile(unit, false));
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file.left(1000)));
    Reply(server, "HTTP/1.1 200 OK\r\nRange: 0\r\n\r\n");
    EXPECT_EQ(std::vector<int>({-1}), progress);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
}

TEST_F(OLUploadTest, ARangePastTheFileEndsTheUploadWithThatRange)
{
    LoopbackServer server;
    Connect(server);
    MakeUpload(5000, 1024);
    RecordProgress();
    ASSERT_EQ(1, engine->DoSendOLFile(unit, false));
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file.left(1000)));
    Reply(server, "HTTP/1.1 200 OK\r\nRange: 7000\r\n\r\n");
    EXPECT_EQ(std::vector<int>({7000}), progress);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
}

TEST_F(OLUploadTest, AnEmptyFileSendsAnEmptyFirstBlock)
{
    LoopbackServer server;
    Connect(server);
    MakeUpload(0, 1024);
    RecordProgress();
    ASSERT_EQ(1, engine->DoSendOLFile(unit, false));
    ExpectOnWire(server, OLText(KOLKey + "d41d8cd98f00b204e9800998ecf8427e", KOLHost));
    Reply(server, "HTTP/1.1 200 OK\r\n\r\n");
    EXPECT_EQ(std::vector<int>({-1}), progress);
}

TEST_F(OLUploadTest, ABlockSizeThatDoesNotFitBesideItsTextIsRefused)
{
    LoopbackServer server;
    Connect(server);
    const int text = CQHttpSocketEngine::OLRequestTextLength(KOLKey.size() + 32, KOLHost.size());
    MakeUpload(30000, 20480 - text + 1);
    EXPECT_EQ(0, engine->DoSendOLFile(unit, false)) << "one byte past the buffer";
    unit.m_nBlockSize = 0;
    EXPECT_EQ(0, engine->DoSendOLFile(unit, false)) << "an empty block would never end";
    EXPECT_EQ(CQHttpSocketEngine::HSES_Connected, Status());
    EXPECT_TRUE(server.received.isEmpty());
}

TEST_F(OLUploadTest, ABlockThatFillsTheBufferExactlyIsSent)
{
    LoopbackServer server;
    Connect(server);
    const int text = CQHttpSocketEngine::OLRequestTextLength(KOLKey.size() + 32, KOLHost.size());
    const int blockSize = 20480 - text;
    MakeUpload(1000 + blockSize + 10, blockSize);
    RecordProgress();
    ASSERT_EQ(1, engine->DoSendOLFile(unit, false));
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file.left(1000)));
    Reply(server, "HTTP/1.1 200 OK\r\nRange: 1000\r\n\r\n");
    const QByteArray block = OLRequest(KOLKey, KOLHost, file.mid(1000, blockSize));
    EXPECT_EQ(20480, block.size());
    ExpectOnWire(server, block);
}

TEST_F(OLUploadTest, NoReplyLetsTheReplyTimerFireToItsObserverRepeatedly)
{
    LoopbackServer server;
    Connect(server);
    MakeUpload(600, 1024);
    OLTimerCounter timer;
    engine->SetOLFileTimerObserver(&timer);
    engine->SetOLFileReplyTimeOut(20);
    ASSERT_EQ(1, engine->DoSendOLFile(unit, false));
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file));
    ASSERT_TRUE(velatest::SpinUntil([&] { return timer.count >= 2; }, KDeadlineMs));
    // The engine itself does not act on it: still waiting for the reply.
    EXPECT_EQ(CQHttpSocketEngine::HSES_Receiving, Status());
    EXPECT_EQ(1, engine->findChildren<CQTimer*>().size());

    // A late reply stops and releases the timer.
    RecordProgress();
    Reply(server, "HTTP/1.1 200 OK\r\nRange: 600\r\n\r\n");
    EXPECT_EQ(std::vector<int>({600}), progress);
    EXPECT_TRUE(velatest::SpinUntil([&] { return engine->findChildren<CQTimer*>().isEmpty(); }, KDeadlineMs));
}

TEST_F(OLUploadTest, AReplyInTimeStopsTheTimerBeforeItFires)
{
    LoopbackServer server;
    Connect(server);
    MakeUpload(2000, 1024);
    OLTimerCounter timer;
    engine->SetOLFileTimerObserver(&timer);
    RecordProgress();
    ASSERT_EQ(1, engine->DoSendOLFile(unit, false));
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file.left(1000)));
    EXPECT_EQ(1, engine->findChildren<CQTimer*>().size()) << "started with the block";
    Reply(server, "HTTP/1.1 200 OK\r\nRange: 1000\r\n\r\n");
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file.mid(1000, 1000)));
    EXPECT_EQ(1, engine->findChildren<CQTimer*>().size()) << "one timer per block, the old one released";
    Reply(server, "HTTP/1.1 200 OK\r\nRange: 2000\r\n\r\n");
    EXPECT_EQ(0, engine->findChildren<CQTimer*>().size());
    EXPECT_EQ(0, timer.count);
}

TEST_F(OLUploadTest, ATimerStoppedInsideItsOwnExpiryIsReleasedAfterwards)
{
    OLTimerStopper stopper;
    stopper.engine = engine.get();
    engine->StartOLFileRecvTimer(&stopper, 5);
    ASSERT_TRUE(velatest::SpinUntil([&] { return stopper.count == 1; }, KDeadlineMs));
    ASSERT_TRUE(velatest::SpinUntil([&] { return engine->findChildren<CQTimer*>().isEmpty(); }, KDeadlineMs));
    EXPECT_EQ(1, stopper.count);
}

TEST_F(OLUploadTest, CancelLeavesTheReplyTimerToTheOwner)
{
    LoopbackServer server;
    Connect(server);
    MakeUpload(600, 1024);
    OLTimerCounter timer;
    engine->SetOLFileTimerObserver(&timer);
    engine->SetOLFileReplyTimeOut(10);
    ASSERT_EQ(1, engine->DoSendOLFile(unit, false));
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file));
    engine->CancelEngine();
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
    ASSERT_TRUE(velatest::SpinUntil([&] { return timer.count >= 1; }, KDeadlineMs));
    engine->DoStopOLFileTimer();
    EXPECT_TRUE(engine->findChildren<CQTimer*>().isEmpty());
}

TEST_F(OLUploadTest, PeerCloseWhileWaitingForTheReplyIsError34)
{
    LoopbackServer server;
    Connect(server);
    MakeUpload(600, 1024);
    ASSERT_EQ(1, engine->DoSendOLFile(unit, false));
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file));
    bool failed = false;
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(34, 0)).WillOnce(Invoke([&](int, int) { failed = true; }));
    server.Close();
    ASSERT_TRUE(velatest::SpinUntil([&] { return failed; }, KDeadlineMs));
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
}

TEST_F(OLUploadTest, AFinalReplyFollowedByTheCloseEndsTheUploadQuietly)
{
    LoopbackServer server;
    Connect(server);
    MakeUpload(600, 1024);
    RecordProgress();
    ASSERT_EQ(1, engine->DoSendOLFile(unit, false));
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file));
    server.Send("HTTP/1.1 200 OK\r\nRange: 600\r\n\r\n");
    server.Close();
    ASSERT_TRUE(velatest::SpinUntil([&] { return reports == 1 && server.disconnects == 1; }, KDeadlineMs));
    velatest::ProcessPendingEvents();
    EXPECT_EQ(std::vector<int>({600}), progress);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
}

TEST_F(OLUploadTest, DoSendOLFileWithoutAConnectionIsRefused)
{
    MakeUpload(600, 1024);
    EXPECT_EQ(0, engine->DoSendOLFile(unit, false));
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
}

}  // namespace

// ---------------------------------------------------------------- edges of the steps

namespace {

TEST(OLRequestText, LengthStopsAtIntMax)
{
    const int fixed = CQHttpSocketEngine::OLRequestTextLength(0, 0);
    EXPECT_EQ(INT_MAX - 1, CQHttpSocketEngine::OLRequestTextLength(INT_MAX - fixed - 1, 0));
    EXPECT_EQ(INT_MAX, CQHttpSocketEngine::OLRequestTextLength(INT_MAX - fixed, 0)) << "at the edge";
    EXPECT_EQ(INT_MAX, CQHttpSocketEngine::OLRequestTextLength(INT_MAX, INT_MAX)) << "far past it";
}

TEST_F(OLUploadTest, RequestTextWithAPathOrHostOf1024BytesIsRefused)
{
    std::string path(1024, 'p');
    EXPECT_EQ(nullptr, engine->GetPostOLFileMethodData(&path[0], 0, 0, "h"));
    char shortPath[] = "/p";
    const std::string host(1024, 'h');
    EXPECT_EQ(nullptr, engine->GetPostOLFileMethodData(shortPath, 0, 0, host.c_str()));
    // The host is remembered even so, and refuses the later texts too.
    EXPECT_EQ(host, std::string(engine->GetOLHost().GetDataPtr()));
    EXPECT_EQ(nullptr, engine->GetPostOLFileMethodData(shortPath, 0, 0, nullptr));
}

// ---------------------------------------------------------------- failed allocations

TEST(SocketEngineAllocationTest, NewLAnswersNullWithoutMemory)
{
    MockObserver observer;
    velatest::HeapWatch::FailNothrowAfter(0);
    CQHttpSocketEngine* engine = CQHttpSocketEngine::NewLC(&observer, 0, 0);
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(nullptr, engine);
    delete engine;
}

TEST_F(OLUploadTest, RequestTextWithoutMemoryIsNull)
{
    char path[] = "/p";
    velatest::HeapWatch::FailNothrowAfter(0);
    char* text = engine->GetPostOLFileMethodData(path, 0, 0, nullptr);
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(nullptr, text);
    delete[] text;
}

TEST_F(SocketEngineTest, ReplyTimerWithoutMemoryIsNotStarted)
{
    CountingTimerObserver timerObserver;
    // No memory for the timer's relay, then (the relay made) for the timer.
    for (int skip = 0; skip < 2; ++skip) {
        velatest::HeapWatch::FailNothrowAfter(skip);
        engine->StartOLFileRecvTimer(&timerObserver, 0);
        velatest::HeapWatch::StopFailing();
        EXPECT_TRUE(engine->findChildren<CQTimer*>().isEmpty()) << "skip " << skip;
    }
    velatest::ProcessPendingEvents();
    EXPECT_EQ(0, timerObserver.count);
    engine->StartOLFileRecvTimer(&timerObserver, 0);
    ASSERT_TRUE(velatest::SpinUntil([&] { return timerObserver.count >= 1; }, KDeadlineMs));
    engine->DoStopOLFileTimer();
}

TEST_F(OLUploadTest, FirstBlockWithoutMemorySendsNothingUntilMemoryComes)
{
    LoopbackServer server;
    Connect(server);
    MakeUpload(600, 1024);
    // Every nothrow allocation from the skip-th on fails: first the block
    // buffer (-1), then the digest or text of the block (0), until the run
    // that needs no more than skip allocations sends the block.
    std::vector<int> results;
    for (int skip = 0; skip < 64; ++skip) {
        velatest::HeapWatch::FailNothrowAfter(skip);
        const int result = engine->DoSendOLFile(unit, false);
        velatest::HeapWatch::StopFailing();
        results.push_back(result);
        if (result == 1)
            break;
        EXPECT_EQ(CQHttpSocketEngine::HSES_Connected, Status()) << "skip " << skip;
        EXPECT_FALSE(engine->IsBusy()) << "skip " << skip;
    }
    ASSERT_EQ(1, results.back());
    const auto firstZero = std::find(results.begin(), results.end(), 0);
    ASSERT_NE(results.begin(), firstZero) << "the block buffer failed first";
    EXPECT_TRUE(std::all_of(results.begin(), firstZero, [](int r) { return r == -1; }));
    ASSERT_NE(results.end() - 1, firstZero) << "then the block's digest or text";
    EXPECT_TRUE(std::all_of(firstZero, results.end() - 1, [](int r) { return r == 0; }));
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file));
}

TEST_F(SocketEngineTest, WithoutMemoryForTheCacheALookupStillConnects)
{
    LoopbackServer server;
    {
        InSequence order;
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(38, 0));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(37, 0));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0));
    }
    SetName(*engine, "no-cache-host.invalid");
    engine->SetPort(server.Port());
    velatest::HeapWatch::FailNothrowAfter(0);
    const int started = engine->ConnectL();
    velatest::HeapWatch::StopFailing();
    ASSERT_EQ(1, started);
    EXPECT_EQ(CQHttpSocketEngine::HSES_LookingUp, Status());

    QHostInfo answer(Peer::LookupId(*engine));
    answer.setHostName(QStringLiteral("no-cache-host.invalid"));
    answer.setAddresses({QHostAddress(QHostAddress::LocalHost)});
    velatest::HeapWatch::FailNothrowAfter(0);
    Peer::GiveLookupAnswer(*engine, answer);
    velatest::HeapWatch::StopFailing();
    // No cache was made, so nothing was filed.
    EXPECT_EQ(nullptr, CQInstance::Instance()->GetByUid(CDNSCache::KUidDNSCache));
    ASSERT_TRUE(velatest::SpinUntil(
        [&] { return Status() == CQHttpSocketEngine::HSES_Connected && server.connections == 1; }, KDeadlineMs));
}

TEST_F(SocketEngineTest, WithoutMemoryForTheCacheAnEmptyAnswerReports36)
{
    {
        InSequence order;
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(38, 0));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(36, 0));
    }
    SetName(*engine, "no-cache-host.invalid");
    velatest::HeapWatch::FailNothrowAfter(0);
    const int started = engine->ConnectL();
    velatest::HeapWatch::StopFailing();
    ASSERT_EQ(1, started);
    QHostInfo answer(Peer::LookupId(*engine));
    answer.setHostName(QStringLiteral("no-cache-host.invalid"));
    velatest::HeapWatch::FailNothrowAfter(0);
    Peer::GiveLookupAnswer(*engine, answer);
    velatest::HeapWatch::StopFailing();
    // Without a cache there is no older entry to fall back on.
    EXPECT_EQ(nullptr, CQInstance::Instance()->GetByUid(CDNSCache::KUidDNSCache));
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
}

// ---------------------------------------------------------------- lookup answers

TEST_F(SocketEngineTest, AnswerThatFindsTheEngineMovedOutOfItsLookupIsIgnored)
{
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(38, 0));
    SetName(*engine, "moved-on.invalid");
    ASSERT_EQ(1, engine->ConnectL());
    engine->ChangeEngineStatus(CQHttpSocketEngine::HSES_Idle);
    QHostInfo answer(Peer::LookupId(*engine));
    answer.setAddresses({QHostAddress(QHostAddress::LocalHost)});
    Peer::GiveLookupAnswer(*engine, answer);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
    EXPECT_EQ(QAbstractSocket::UnconnectedState, Socket().state());
}

TEST_F(SocketEngineTest, AnswerWithoutAnIPv4OrIPv6AddressReports36)
{
    {
        InSequence order;
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(38, 0));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(36, 0));
    }
    SetName(*engine, "odd-answer.invalid");
    ASSERT_EQ(1, engine->ConnectL());
    QHostInfo answer(Peer::LookupId(*engine));
    answer.setAddresses({QHostAddress()});
    Peer::GiveLookupAnswer(*engine, answer);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
}

TEST_F(SocketEngineTest, ConnectStartedByTheOwnerInsideTheResolvedReportIsTheOneMade)
{
    LoopbackServer named;
    LoopbackServer chosen;
    {
        InSequence order;
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(38, 0));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(37, 0)).WillOnce(Invoke([&](int, int) {
            engine->SetPort(chosen.Port());
            EXPECT_EQ(1, engine->ConnectByIP(QStringLiteral("127.0.0.1")));
        }));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0));
    }
    SetName(*engine, "localhost");
    engine->SetPort(named.Port());
    ASSERT_EQ(1, engine->ConnectL());
    ASSERT_TRUE(velatest::SpinUntil(
        [&] { return Status() == CQHttpSocketEngine::HSES_Connected && chosen.connections == 1; }, KDeadlineMs));
    velatest::ProcessPendingEvents();
    EXPECT_EQ(0, named.connections);
}

// ---------------------------------------------------------------- sockets

TEST_F(SocketEngineTest, SecureFlagSetDuringAPlainExchangeWaitsForTheNextConnect)
{
    LoopbackServer server;
    Connect(server);
    RecordPieces();
    engine->SetSecure(true);
    ASSERT_EQ(1, engine->DoReceive());
    const QByteArray bytes = Pattern(300, 5);
    server.Send(bytes);
    ASSERT_TRUE(velatest::SpinUntil([&] { return Joined().size() == bytes.size(); }, KDeadlineMs));
    EXPECT_EQ(bytes, Joined());
    EXPECT_EQ(nullptr, Peer::SecureSocket(*engine));
}

TEST_F(SocketEngineTest, SignalsOfThePlainSocketAreIgnoredWhileASecureConnectionRuns)
{
    LoopbackServer server;  // speaks no TLS: the handshake stays open
    engine->SetSecure(true);
    SetName(*engine, "127.0.0.1");
    engine->SetPort(server.Port());
    ASSERT_EQ(1, engine->ConnectL());
    ASSERT_NE(nullptr, Peer::SecureSocket(*engine));
    ASSERT_TRUE(velatest::SpinUntil([&] { return !server.received.isEmpty(); }, KDeadlineMs));
    QTcpSocket& plain = Socket();
    emit plain.connected();
    emit plain.bytesWritten(10);
    emit plain.readyRead();
    emit plain.errorOccurred(QAbstractSocket::RemoteHostClosedError);
    velatest::ProcessPendingEvents();
    EXPECT_EQ(CQHttpSocketEngine::HSES_Connecting, Status());
    engine->CancelEngine();
}

TEST_F(SocketEngineTest, SignalsOfTheSecureSocketAreIgnoredOnceTheExchangeIsPlain)
{
    LoopbackServer server;  // speaks no TLS: the handshake stays open
    engine->SetSecure(true);
    SetName(*engine, "127.0.0.1");
    engine->SetPort(server.Port());
    ASSERT_EQ(1, engine->ConnectL());
    QSslSocket* secure = Peer::SecureSocket(*engine);
    ASSERT_NE(nullptr, secure);
    ASSERT_TRUE(velatest::SpinUntil([&] { return !server.received.isEmpty(); }, KDeadlineMs));
    // The plain socket is the current one from here on.
    engine->SetSecure(false);
    emit secure->connected();
    emit secure->encrypted();
    emit secure->sslErrors(QList<QSslError>());
    emit secure->readyRead();
    emit secure->encryptedBytesWritten(10);
    velatest::ProcessPendingEvents();
    EXPECT_EQ(CQHttpSocketEngine::HSES_Connecting, Status());
    engine->CancelEngine();
}

TEST_F(SocketEngineTest, ReadNotificationWithNothingToReadKeepsReceptionArmed)
{
    LoopbackServer server;
    Connect(server);
    RecordPieces();
    ASSERT_EQ(1, engine->DoReceive());
    emit Socket().readyRead();
    EXPECT_TRUE(pieces.empty());
    EXPECT_TRUE(engine->IsBusy());
    EXPECT_EQ(CQHttpSocketEngine::HSES_Receiving, Status());
    server.Send(Pattern(10));
    ASSERT_TRUE(velatest::SpinUntil([&] { return Joined() == Pattern(10); }, KDeadlineMs));
}

TEST_F(SocketEngineTest, RequestGivenWhileAnEarlierOnesBytesWaitStartsAtTheNextBytesWritten)
{
    LoopbackServer server;
    Connect(server);
    QByteArray first = Pattern(2500, 1);
    QByteArray second("GET /second HTTP/1.1\r\n\r\n");
    ASSERT_EQ(1, engine->DoSend(Bytes(first), first.size(), false));
    ASSERT_EQ(1024, Socket().bytesToWrite());
    ASSERT_EQ(1, engine->DoSend(Bytes(second), second.size(), false));
    EXPECT_EQ(CQHttpSocketEngine::HSES_Sending, Status());
    EXPECT_EQ(1024, Socket().bytesToWrite()) << "nothing of the second request yet";
    ASSERT_TRUE(velatest::SpinUntil(
        [&] {
            return server.received.size() == 1024 + second.size() && Status() == CQHttpSocketEngine::HSES_Receiving;
        },
        KDeadlineMs));
    EXPECT_EQ(first.left(1024) + second, server.received);
}

TEST_F(SocketEngineTest, BytesBeforeArmingAreNotHandedUpAfterACancel)
{
    LoopbackServer server;
    Connect(server);
    BufferUnarmed(server, Pattern(500));
    ASSERT_EQ(1, engine->DoReceive());
    engine->CancelEngine();
    velatest::ProcessPendingEvents();
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
    ASSERT_TRUE(velatest::SpinUntil([&] { return server.disconnects == 1; }, KDeadlineMs));
}

TEST_F(SocketEngineTest, ZeroAnswerInTheFirstOfSeveralBlocksDropsTheRestOfTheRead)
{
    LoopbackServer server;
    Connect(server);
    RecordPieces(0);
    BufferUnarmed(server, Pattern(100 * 1024));
    ASSERT_EQ(1, engine->DoReceive());
    ASSERT_TRUE(velatest::SpinUntil([&] { return !pieces.empty(); }, KDeadlineMs));
    velatest::ProcessPendingEvents();
    EXPECT_EQ(std::vector<int>({1024}), PieceSizes());
    EXPECT_EQ(0, Socket().bytesAvailable());
    EXPECT_FALSE(engine->IsBusy());
    // Later bytes wait in the socket: reception is not armed.
    server.Send(Pattern(10));
    ASSERT_TRUE(velatest::SpinUntil([&] { return Socket().bytesAvailable() == 10; }, KDeadlineMs));
    EXPECT_EQ(1u, pieces.size());
}

TEST_F(SocketEngineTest, ZeroAnswerToAReadFromTheKernelDropsWhatTheKernelHolds)
{
    LoopbackServer server;
    Connect(server);
    ASSERT_EQ(1, engine->DoReceive());
    // Armed for direct reads but deaf: Qt takes one byte, the rest stays in
    // the kernel until the next notification.
    Peer::Disarm(*engine);
    server.Send(Pattern(200 * 1024));
    ASSERT_TRUE(velatest::SpinUntil(
        [&] { return server.peer->bytesToWrite() == 0 && Socket().bytesAvailable() == 1; }, KDeadlineMs));
    RecordPieces(0);
    Peer::ArmWithoutReading(*engine);
    emit Socket().readyRead();
    EXPECT_EQ(std::vector<int>({1024}), PieceSizes());
    EXPECT_FALSE(engine->IsBusy());
    EXPECT_EQ(CQHttpSocketEngine::HSES_Receiving, Status());
    velatest::ProcessPendingEvents();
    EXPECT_EQ(1u, pieces.size());
}

TEST_F(SocketEngineTest, ZeroAnswerToUnreadBytesAtTheCloseEndsWithoutTheEndReport)
{
    LoopbackServer server;
    Connect(server);
    RecordPieces(0);
    BufferUnarmed(server, Pattern(1100));
    Peer::ArmWithoutReading(*engine);
    server.Close();
    ASSERT_TRUE(velatest::SpinUntil([&] { return !pieces.empty(); }, KDeadlineMs));
    velatest::ProcessPendingEvents();
    EXPECT_EQ(std::vector<int>({1024}), PieceSizes());
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
    EXPECT_FALSE(engine->IsBusy());
}

TEST_F(SocketEngineTest, NewExchangeStartedOnTheUnreadBytesAtTheCloseGoesOn)
{
    LoopbackServer first;
    LoopbackServer second;
    Connect(first);
    int calls = 0;
    EXPECT_CALL(observer, OnSocketEngine_ReceiveData(_, _)).WillRepeatedly(Invoke([&](unsigned char*, int) {
        ++calls;
        engine->CancelEngine();
        SetName(*engine, "127.0.0.1");
        engine->SetPort(second.Port());
        EXPECT_EQ(1, engine->ConnectL());
        return 1;
    }));
    BufferUnarmed(first, Pattern(1100));
    Peer::ArmWithoutReading(*engine);
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0));
    first.Close();
    ASSERT_TRUE(velatest::SpinUntil(
        [&] { return Status() == CQHttpSocketEngine::HSES_Connected && second.connections == 1; }, KDeadlineMs));
    EXPECT_EQ(1, calls);
}

TEST(SocketEngineNoObserverTest, BodyEndedByTheCloseIdlesWithoutAnObserver)
{
    LoopbackServer server;
    std::unique_ptr<CQHttpSocketEngine> engine(CQHttpSocketEngine::NewL(nullptr, 0, 0));
    ASSERT_NE(nullptr, engine);
    SetName(*engine, "127.0.0.1");
    engine->SetPort(server.Port());
    ASSERT_EQ(1, engine->ConnectL());
    ASSERT_TRUE(velatest::SpinUntil(
        [&] { return engine->GetEngineStatus() == CQHttpSocketEngine::HSES_Connected && server.peer != nullptr; },
        KDeadlineMs));
    ASSERT_EQ(1, engine->DoReceive());
    server.Close();
    ASSERT_TRUE(velatest::SpinUntil([&] { return engine->GetEngineStatus() == CQHttpSocketEngine::HSES_Idle; },
                                    KDeadlineMs));
    EXPECT_FALSE(engine->IsBusy());
}

TEST(SocketEngineNoObserverTest, UnreadBytesAtTheCloseAreDroppedWithoutAnObserver)
{
    LoopbackServer server;
    std::unique_ptr<CQHttpSocketEngine> engine(CQHttpSocketEngine::NewL(nullptr, 0, 0));
    ASSERT_NE(nullptr, engine);
    SetName(*engine, "127.0.0.1");
    engine->SetPort(server.Port());
    ASSERT_EQ(1, engine->ConnectL());
    ASSERT_TRUE(velatest::SpinUntil(
        [&] { return engine->GetEngineStatus() == CQHttpSocketEngine::HSES_Connected && server.peer != nullptr; },
        KDeadlineMs));
    QTcpSocket& socket = Peer::Socket(*engine);
    server.Send(Pattern(1100));
    ASSERT_TRUE(velatest::SpinUntil([&] { return socket.bytesAvailable() == 1100; }, KDeadlineMs));
    Peer::ArmWithoutReading(*engine);
    server.Close();
    ASSERT_TRUE(velatest::SpinUntil([&] { return engine->GetEngineStatus() == CQHttpSocketEngine::HSES_Idle; },
                                    KDeadlineMs));
    EXPECT_FALSE(engine->IsBusy());
}

// ---------------------------------------------------------------- resumable upload edges

TEST_F(OLUploadTest, UnitWithoutAKeyNamesTheBlockByItsDigestAlone)
{
    LoopbackServer server;
    Connect(server);
    MakeUpload(600, 1024);
    unit.FreeKey();
    RecordProgress();
    ASSERT_EQ(1, engine->DoSendOLFile(unit, false));
    EXPECT_EQ(std::string(), std::string(engine->GetOLKey().GetDataPtr()));
    ExpectOnWire(server, OLRequest("", KOLHost, file));
    Reply(server, "HTTP/1.1 200 OK\r\nRange: 600\r\n\r\n");
    EXPECT_EQ(std::vector<int>({600}), progress);
}

TEST_F(OLUploadTest, BytesWrittenBeforeTheWholeBlockLeftTheSocketWaits)
{
    LoopbackServer server;
    Connect(server);
    MakeUpload(600, 1024);
    RecordProgress();
    ASSERT_EQ(1, engine->DoSendOLFile(unit, false));
    ASSERT_GT(Socket().bytesToWrite(), 0);
    Peer::BytesWritten(*engine, 0);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Sending, Status());
    EXPECT_EQ(CQHttpSocketEngine::OLS_FirstBlock, engine->GetOLState());
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file));
    Reply(server, "HTTP/1.1 200 OK\r\nRange: 600\r\n\r\n");
    // A late notification once the upload is over changes nothing.
    Peer::BytesWritten(*engine, 0);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
    EXPECT_EQ(std::vector<int>({600}), progress);
}

TEST_F(OLUploadTest, HandOnAfterTheUploadDoesNotPassTheBlockReplyUp)
{
    LoopbackServer server;
    Connect(server);
    MakeUpload(600, 1024);
    RecordProgress();
    ASSERT_EQ(1, engine->DoSendOLFile(unit, false));
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file));
    Reply(server, "HTTP/1.1 200 OK\r\nRange: 600\r\n\r\n");
    ASSERT_EQ(600u, engine->GetOLFileServerSavedLength());
    // The reply is not body bytes: nothing reaches OnSocketEngine_ReceiveData.
    EXPECT_EQ(1, engine->HandleRecvData());
    EXPECT_EQ(CQHttpSocketEngine::HSES_Receiving, Status());
    EXPECT_EQ(0u, engine->GetOLFileServerSavedLength());
}

TEST_F(OLUploadTest, FileThatShrankEndsTheUploadWithMinusOne)
{
    LoopbackServer server;
    Connect(server);
    MakeUpload(3000, 1000);
    RecordProgress();
    ASSERT_EQ(1, engine->DoSendOLFile(unit, false));
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file.left(1000)));
    ASSERT_TRUE(QFile::resize(m_files.File("upload.bin"), 1000));
    Reply(server, "HTTP/1.1 200 OK\r\nRange: 1000\r\n\r\n");
    EXPECT_EQ(std::vector<int>({-1}), progress);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
    velatest::ProcessPendingEvents();
    EXPECT_EQ(wire, server.received.size()) << "no block without bytes";
}

TEST_F(OLUploadTest, HostGrownPastTheBlockBufferEndsTheUploadWithMinusOne)
{
    LoopbackServer server;
    Connect(server);
    const int text = CQHttpSocketEngine::OLRequestTextLength(KOLKey.size() + 32, KOLHost.size());
    const int blockSize = 20480 - text;
    MakeUpload(1000 + blockSize, blockSize);
    RecordProgress();
    ASSERT_EQ(1, engine->DoSendOLFile(unit, false));
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file.left(1000)));
    // A text built for a host one byte longer: the host the next blocks name.
    char path[] = "/p";
    std::unique_ptr<char[]> longer(engine->GetPostOLFileMethodData(path, 0, 0, (KOLHost + "x").constData()));
    ASSERT_NE(nullptr, longer);
    Reply(server, "HTTP/1.1 200 OK\r\nRange: 1000\r\n\r\n");
    EXPECT_EQ(std::vector<int>({-1}), progress);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
    velatest::ProcessPendingEvents();
    EXPECT_EQ(wire, server.received.size()) << "no block past the buffer";
}

TEST_F(OLUploadTest, ReplyThatCameWithTheCloseIsActedUponAndTheNextBlockFailsAs34)
{
    LoopbackServer server;
    Connect(server);
    MakeUpload(5000, 1000);
    RecordProgress();
    ASSERT_EQ(1, engine->DoSendOLFile(unit, false));
    ExpectOnWire(server, OLRequest(KOLKey, KOLHost, file.left(1000)));
    // The reply waits in the socket until the close is noticed, and
    // reception is armed in that same turn.
    Peer::Disarm(*engine);
    QObject::connect(&Socket(), &QAbstractSocket::errorOccurred, engine.get(),
                     [this] { Peer::ArmWithoutReading(*engine); });
    bool failed = false;
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(34, 0)).WillOnce(Invoke([&](int, int) { failed = true; }));
    server.Send("HTTP/1.1 200 OK\r\nRange: 1000\r\n\r\n");
    server.Close();
    ASSERT_TRUE(velatest::SpinUntil([&] { return failed; }, KDeadlineMs));
    EXPECT_TRUE(progress.empty());
    EXPECT_EQ(1000u, engine->GetOLFileServerSavedLength());
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
    EXPECT_FALSE(engine->IsBusy());
}

TEST_F(OLUploadTest, UploadWithoutAnObserverRunsToItsEnd)
{
    LoopbackServer server;
    std::unique_ptr<CQHttpSocketEngine> quiet(CQHttpSocketEngine::NewL(nullptr, 0, 0));
    ASSERT_NE(nullptr, quiet);
    SetName(*quiet, "127.0.0.1");
    quiet->SetPort(server.Port());
    ASSERT_EQ(1, quiet->ConnectL());
    ASSERT_TRUE(velatest::SpinUntil(
        [&] { return quiet->GetEngineStatus() == CQHttpSocketEngine::HSES_Connected && server.peer != nullptr; },
        KDeadlineMs));
    MakeUpload(2500, 1000);
    int at = 0;
    auto expectBlock = [&](const QByteArray& request) {
        ASSERT_TRUE(velatest::SpinUntil(
            [&] {
                return server.received.size() >= at + request.size() &&
                       quiet->GetEngineStatus() == CQHttpSocketEngine::HSES_Receiving;
            },
            KDeadlineMs));
        EXPECT_EQ(velatest::Visible(request), velatest::Visible(server.received.mid(at, request.size())));
        at += request.size();
    };
    auto replyAndWaitForTheEnd = [&](const QByteArray& reply) {
        server.Send(reply);
        ASSERT_TRUE(velatest::SpinUntil(
            [&] { return quiet->GetEngineStatus() == CQHttpSocketEngine::HSES_Idle; }, KDeadlineMs));
    };

    ASSERT_EQ(1, quiet->DoSendOLFile(unit, false));
    expectBlock(OLRequest(KOLKey, KOLHost, file.left(1000)));
    server.Send("HTTP/1.1 200 OK\r\nRange: 1000\r\n\r\n");
    expectBlock(OLRequest(KOLKey, KOLHost, file.mid(1000, 1000)));
    server.Send("HTTP/1.1 200 OK\r\nRange: 2000\r\n\r\n");
    expectBlock(OLRequest(KOLKey, KOLHost, file.mid(2000, 500)));
    replyAndWaitForTheEnd("HTTP/1.1 200 OK\r\nRange: 2500\r\n\r\n");
    EXPECT_EQ(2500u, quiet->GetOLFileServerSavedLength());

    // A reply without a Range ends an upload as quietly.
    MakeUpload(600, 1000);
    ASSERT_EQ(1, quiet->DoSendOLFile(unit, false));
    expectBlock(OLRequest(KOLKey, KOLHost, file));
    replyAndWaitForTheEnd("HTTP/1.1 200 OK\r\n\r\n");
    EXPECT_EQ(0u, quiet->GetOLFileServerSavedLength());

    // And so does a file that shrank after its first block.
    MakeUpload(3000, 1000);
    ASSERT_EQ(1, quiet->DoSendOLFile(unit, false));
    expectBlock(OLRequest(KOLKey, KOLHost, file.left(1000)));
    ASSERT_TRUE(QFile::resize(m_files.File("upload.bin"), 1000));
    replyAndWaitForTheEnd("HTTP/1.1 200 OK\r\nRange: 1000\r\n\r\n");
    velatest::ProcessPendingEvents();
    EXPECT_EQ(at, server.received.size());
}

// ---------------------------------------------------------------- proxy tunnel

// A reply head of exactly size bytes: a 200 status line, padding fields, the blank line.
QByteArray PaddedHead(int size)
{
    QByteArray head = "HTTP/1.1 200 Connection established\r\n";
    const QByteArray field = "X-Pad: ";
    head += field + QByteArray(size - head.size() - field.size() - 4, 'p') + "\r\n\r\n";
    return head;
}

struct TunnelRow
{
    const char* name;
    QByteArray reply;
    int refusedWith;  // the status reported, or 0 for event 34
};

class TunnelReplyTest : public SocketEngineTest, public ::testing::WithParamInterface<TunnelRow>
{
protected:
    // An https exchange to origin.example:443 through proxy; returns once
    // the proxy holds the whole CONNECT request.
    void StartThrough(LoopbackServer& proxy)
    {
        engine->SetSecure(true);
        SetName(*engine, QByteArray("origin.example\0junk", 19));
        engine->SetPort(443);
        engine->SetTunnel("127.0.0.1", proxy.Port(), QByteArray());
        ASSERT_EQ(1, engine->ConnectL());
        ASSERT_TRUE(velatest::SpinUntil([&] { return proxy.received.endsWith("\r\n\r\n"); }, KDeadlineMs));
        // The name ends at its zero byte.
        EXPECT_EQ("CONNECT origin.example:443 HTTP/1.1\r\nHost: origin.example:443\r\n\r\n", proxy.received);
    }
};

TEST_P(TunnelReplyTest, EndsTheExchangeAsItsStatusSays)
{
    LoopbackServer proxy;
    StartThrough(proxy);
    bool reported = false;
    if (GetParam().refusedWith != 0)
        EXPECT_CALL(observer, OnSocketEngine_TunnelRefused(GetParam().refusedWith)).WillOnce(Invoke([&](int) {
            reported = true;
        }));
    else
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(34, 0)).WillOnce(Invoke([&](int, int) { reported = true; }));
    proxy.Send(GetParam().reply);
    ASSERT_TRUE(velatest::SpinUntil([&] { return reported; }, KDeadlineMs));
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
    EXPECT_FALSE(engine->IsBusy());
    ASSERT_TRUE(velatest::SpinUntil([&] { return proxy.disconnects == 1; }, KDeadlineMs));
}

const TunnelRow KTunnelRows[] = {
    {"interim-100-then-407", "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 407 Proxy Authentication Required\r\n\r\n", 407},
    {"interim-199-then-502", "HTTP/1.1 199 Odd\r\n\r\nHTTP/1.1 502 Bad Gateway\r\n\r\n", 502},
    {"status-99-is-no-interim", "HTTP/1.1 099 Odd\r\n\r\n", 99},
    {"status-300-is-refused", "HTTP/1.1 300 Multiple Choices\r\n\r\n", 300},
    {"bytes-after-the-200-head", "HTTP/1.1 200 Connection established\r\n\r\nX", 0},
    {"no-http-reply", "SSH-2.0-x\r\n", 0},
    {"head-of-10240-bytes-then-a-byte", PaddedHead(10240) + "X", 0},
};

INSTANTIATE_TEST_SUITE_P(Replies, TunnelReplyTest, ::testing::ValuesIn(KTunnelRows),
                         [](const ::testing::TestParamInfo<TunnelRow>& info) {
                             std::string name = info.param.name;
                             for (char& c : name)
                                 if (c == '-')
                                     c = '_';
                             return name;
                         });

TEST_F(TunnelReplyTest, HeadOf10240BytesWithoutItsEndIsRefusedAs34)
{
    LoopbackServer proxy;
    StartThrough(proxy);
    // 10239 bytes of a head without its blank line: still waiting.
    QByteArray head = "HTTP/1.1 200 OK\r\n";
    while (head.size() < 10239 - 4)
        head += "X: y\r\n";
    head += QByteArray(10239 - head.size(), 'z');
    ASSERT_EQ(10239, head.size());
    proxy.Send(head);
    ASSERT_TRUE(velatest::SpinUntil([&] { return Peer::SecureSocket(*engine)->bytesAvailable() == 0; }, KDeadlineMs));
    velatest::ProcessPendingEvents();
    EXPECT_EQ(CQHttpSocketEngine::HSES_Connecting, Status());
    // One byte more, still no end: the limit.
    bool failed = false;
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(34, 0)).WillOnce(Invoke([&](int, int) { failed = true; }));
    proxy.Send("z");
    ASSERT_TRUE(velatest::SpinUntil([&] { return failed; }, KDeadlineMs));
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, Status());
}

TEST(SocketEngineNoObserverTest, TunnelRefusalIdlesWithoutAnObserver)
{
    LoopbackServer proxy;
    std::unique_ptr<CQHttpSocketEngine> engine(CQHttpSocketEngine::NewL(nullptr, 0, 0));
    ASSERT_NE(nullptr, engine);
    engine->SetSecure(true);
    SetName(*engine, "origin.example");
    engine->SetPort(443);
    engine->SetTunnel("127.0.0.1", proxy.Port(), QByteArray());
    ASSERT_EQ(1, engine->ConnectL());
    ASSERT_TRUE(velatest::SpinUntil([&] { return proxy.received.endsWith("\r\n\r\n"); }, KDeadlineMs));
    proxy.Send("HTTP/1.1 403 Forbidden\r\n\r\n");
    ASSERT_TRUE(velatest::SpinUntil([&] { return proxy.disconnects == 1; }, KDeadlineMs));
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, engine->GetEngineStatus());
}

// ---------------------------------------------------------------- reply timer owner

struct EngineDestroyer : public CQTimerObserver
{
    void OnTimerExpired(CQTimer*) override
    {
        ++count;
        engine->reset();
    }
    std::unique_ptr<CQHttpSocketEngine>* engine = nullptr;
    int count = 0;
};

TEST_F(SocketEngineTest, ReplyTimerObserverMayDestroyTheEngine)
{
    QPointer<CQHttpSocketEngine> watched(engine.get());
    EngineDestroyer destroyer;
    destroyer.engine = &engine;
    engine->StartOLFileRecvTimer(&destroyer, 0);
    ASSERT_TRUE(velatest::SpinUntil([&] { return destroyer.count == 1; }, KDeadlineMs));
    EXPECT_TRUE(watched.isNull());
    velatest::ProcessPendingEvents();
    EXPECT_EQ(1, destroyer.count);
}

}  // namespace
