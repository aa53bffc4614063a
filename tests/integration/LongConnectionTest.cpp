// Long-lived TCP connections end to end, against an echo server on
// 127.0.0.1 that the test starts: the client's factory hands out
// connections (CConFactorySybImp -> CTcpConnection -> CSocketsEngine) whose
// observers hear the connect, the echoed bytes in chunks of at most 1024,
// and OnClose(2) when the server closes; the library's own closes report
// nothing; a connect that cannot complete ends silently at the time-out.

#include "src/ConFactorySybImp.h"
#include "src/SocketsEngine.h"
#include "src/TcpConnection.h"

#include "support/TestSupport.h"

#include <QCoreApplication>
#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

void PrintTo(const QByteArray& bytes, std::ostream* os)
{
    *os << '"' << velatest::Visible(bytes) << '"';
}

namespace {

using ::testing::_;
using ::testing::Invoke;
using ::testing::StrictMock;

constexpr int KDeadlineMs = 10000;
// The reader's largest chunk.
constexpr int KChunk = 1024;

// An echo server on 127.0.0.1. Every byte a client sends comes back in
// pieces of at most KPiece bytes. The reader takes at most 1024 bytes per
// readyRead and leaves the rest until the socket signals new data, so a
// test that echoes more than that sets a pacer: the next piece goes out only
// once the client has taken everything echoed before it.
class EchoServer
{
public:
    static constexpr int KPiece = 1000;
    // Whether connection index may be sent more, given the bytes echoed to
    // it so far.
    using Pacer = std::function<bool(int index, qint64 echoed)>;

    EchoServer()
    {
        QObject::connect(&m_server, &QTcpServer::newConnection, [this] { Accept(); });
        QObject::connect(&m_pump, &QTimer::timeout, [this] { Pump(); });
        m_pump.setInterval(1);
    }

    bool Listen(quint16 port = 0)
    {
        if (!m_server.listen(QHostAddress::LocalHost, port))
            return false;
        m_pump.start();
        return true;
    }
    quint16 Port() const { return m_server.serverPort(); }
    void SetPacer(Pacer pacer) { m_pacer = std::move(pacer); }

    int Count() const { return static_cast<int>(m_connections.size()); }
    bool WaitForConnections(int count)
    {
        return velatest::SpinUntil([this, count] { return Count() >= count; }, KDeadlineMs);
    }
    const QByteArray& Received(int index) const { return m_connections.at(index)->received; }
    bool ClientClosed(int index) const
    {
        return m_connections.at(index)->socket->state() == QAbstractSocket::UnconnectedState;
    }
    bool WaitForClientClose(int index)
    {
        return velatest::SpinUntil([this, index] { return ClientClosed(index); }, KDeadlineMs);
    }
    void Close(int index) { m_connections.at(index)->socket->disconnectFromHost(); }

private:
    struct Connection
    {
        std::unique_ptr<QTcpSocket> socket;
        QByteArray received;
        QByteArray pending;
        qint64 echoed = 0;
    };

    void Accept()
    {
        while (QTcpSocket* socket = m_server.nextPendingConnection()) {
            auto connection = std::make_unique<Connection>();
            connection->socket.reset(socket);
            Connection* raw = connection.get();
            QObject::connect(socket, &QIODevice::readyRead, [this, raw] {
                const QByteArray bytes = raw->socket->readAll();
                raw->received += bytes;
                raw->pending += bytes;
                Pump();
            });
            m_connections.push_back(std::move(connection));
        }
    }

    void Pump()
    {
        for (int index = 0; index < Count(); ++index) {
            Connection& connection = *m_connections[index];
            while (!connection.pending.isEmpty() && connection.socket->state() == QAbstractSocket::ConnectedState
                   && m_pacer(index, connection.echoed)) {
                const QByteArray piece = connection.pending.left(KPiece);
                connection.pending.remove(0, piece.size());
                connection.socket->write(piece);
                connection.echoed += piece.size();
            }
        }
    }

    QTcpServer m_server;
    QTimer m_pump;
    std::vector<std::unique_ptr<Connection>> m_connections;
    Pacer m_pacer = [](int, qint64) { return true; };
};

// Records what a connection reports; anything not expected fails.
class MockObserver : public ITcpConObserver
{
public:
    MOCK_METHOD(void, OnRecv, (const unsigned char* data, int length), (override));
    MOCK_METHOD(void, OnSend, (), (override));
    MOCK_METHOD(void, OnConnected, (), (override));
    MOCK_METHOD(void, OnClose, (int reason), (override));
    MOCK_METHOD(void, OnBlock, (), (override));
    MOCK_METHOD(void, OnOpen, (), (override));
};

// An observer that keeps the received chunks.
class Client
{
public:
    Client()
    {
        ON_CALL(m_observer, OnRecv(_, _)).WillByDefault(Invoke([this](const unsigned char* data, int length) {
            m_lengths.push_back(length);
            if (length > 0)
                m_received.append(reinterpret_cast<const char*>(data), length);
        }));
    }

    StrictMock<MockObserver> m_observer;
    QByteArray m_received;
    std::vector<int> m_lengths;
};

QByteArray Pattern(int len, int seed)
{
    QByteArray bytes(len, '\0');
    for (int i = 0; i < len; ++i)
        bytes[i] = static_cast<char>((i * 31 + i / 251 + seed) & 0xFF);
    return bytes;
}

// Connects connection to the echo server and waits for OnConnected.
void Connect(ITcpCon* connection, Client& client, const EchoServer& server)
{
    char address[] = "127.0.0.1";
    connection->SetObserver(&client.m_observer);
    EXPECT_CALL(client.m_observer, OnConnected()).Times(1);
    ASSERT_EQ(connection->Connect(address, server.Port()), 1);
    ASSERT_TRUE(velatest::SpinUntil([&] { return connection->IsConnected(); }, KDeadlineMs));
}

void Send(ITcpCon* connection, QByteArray bytes)
{
    connection->Send(reinterpret_cast<unsigned char*>(bytes.data()), bytes.size());
}

// A port on 127.0.0.1 where nothing listens.
quint16 RefusingPort()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0))
        return 0;
    const quint16 port = probe.serverPort();
    probe.close();
    return port;
}

// ------------------------------------------------------------ the full path

TEST(LongConnectionTest, FactoryConnectionEchoesAcrossSeveralReadsThenHearsThePeerClose)
{
    EchoServer server;
    ASSERT_TRUE(server.Listen());
    CConFactorySybImp factory;
    ASSERT_EQ(factory.Init(), 1);
    ITcpCon* connection = factory.GetTcpCon();
    ASSERT_NE(connection, nullptr);

    Client client;
    server.SetPacer([&](int, qint64 echoed) { return client.m_received.size() >= echoed; });
    Connect(connection, client, server);

    const QByteArray sent = Pattern(5000, 3);
    EXPECT_CALL(client.m_observer, OnRecv(_, _)).Times(::testing::AtLeast(5));
    Send(connection, sent);
    ASSERT_TRUE(velatest::SpinUntil([&] { return client.m_received.size() >= sent.size(); }, KDeadlineMs));
    EXPECT_EQ(server.Received(0), sent);
    EXPECT_EQ(client.m_received, sent);
    for (int length : client.m_lengths) {
        EXPECT_GT(length, 0);
        EXPECT_LE(length, KChunk);
    }

    EXPECT_CALL(client.m_observer, OnClose(2)).WillOnce(Invoke([&](int) { EXPECT_FALSE(connection->IsConnected()); }));
    server.Close(0);
    ASSERT_TRUE(velatest::SpinUntil([&] { return !connection->IsConnected(); }, KDeadlineMs));
    velatest::ProcessPendingEvents();

    factory.RelTcpCon(connection);
    EXPECT_EQ(factory.GetConnectionCount(), 0);
}

TEST(LongConnectionTest, ChunksFollowTheReadsOfTheSocket)
{
    // Pieces of 1000 bytes, each taken before the next is sent: each read
    // is one piece, never more than the reader's 1024 bytes.
    EchoServer server;
    ASSERT_TRUE(server.Listen());
    CConFactorySybImp factory;
    ITcpCon* connection = factory.GetTcpCon();
    Client client;
    server.SetPacer([&](int, qint64 echoed) { return client.m_received.size() >= echoed; });
    Connect(connection, client, server);

    const QByteArray sent = Pattern(2500, 9);
    EXPECT_CALL(client.m_observer, OnRecv(_, _)).Times(3);
    Send(connection, sent);
    ASSERT_TRUE(velatest::SpinUntil([&] { return client.m_received.size() >= sent.size(); }, KDeadlineMs));
    EXPECT_EQ(client.m_lengths, (std::vector<int>{1000, 1000, 500}));
    EXPECT_EQ(client.m_received, sent);
}

TEST(LongConnectionTest, OwnCloseReportsNothing)
{
    EchoServer server;
    ASSERT_TRUE(server.Listen());
    CConFactorySybImp factory;
    ITcpCon* connection = factory.GetTcpCon();
    Client client;
    Connect(connection, client, server);
    ASSERT_TRUE(server.WaitForConnections(1));

    connection->Close();
    EXPECT_FALSE(connection->IsConnected());
    ASSERT_TRUE(server.WaitForClientClose(0));
    // Nothing arrives afterwards either (the mock is strict).
    for (int i = 0; i < 5; ++i)
        velatest::ProcessPendingEvents();
}

TEST(LongConnectionTest, OwnCloseAfterSendingStillDeliversTheBytesAndReportsNothing)
{
    EchoServer server;
    ASSERT_TRUE(server.Listen());
    CConFactorySybImp factory;
    ITcpCon* connection = factory.GetTcpCon();
    Client client;
    // The echo waits: the client closes before anything comes back.
    server.SetPacer([](int, qint64) { return false; });
    Connect(connection, client, server);
    ASSERT_TRUE(server.WaitForConnections(1));

    const QByteArray sent = Pattern(256 * 1024, 5);
    Send(connection, sent);
    connection->Close();
    ASSERT_TRUE(velatest::SpinUntil([&] { return server.Received(0).size() >= sent.size(); }, KDeadlineMs));
    EXPECT_EQ(server.Received(0), sent);
    ASSERT_TRUE(server.WaitForClientClose(0));
    velatest::ProcessPendingEvents();
}

TEST(LongConnectionTest, PeerCloseGivesOnCloseTwoThroughTheEngineAlone)
{
    EchoServer server;
    ASSERT_TRUE(server.Listen());
    StrictMock<::testing::MockFunction<void(int)>> closes;
    class Notifier : public MUINotifier
    {
    public:
        explicit Notifier(std::function<void(int)> onClose) : m_onClose(std::move(onClose)) {}
        void OnRecv(const unsigned char*, int) override {}
        void OnSend() override {}
        void OnConnected() override { ++m_connected; }
        void OnClose(int reason) override { m_onClose(reason); }
        void OnBlock() override {}
        void OnOpen() override {}
        int m_connected = 0;

    private:
        std::function<void(int)> m_onClose;
    } notifier(closes.AsStdFunction());

    std::unique_ptr<CSocketsEngine> engine(CSocketsEngine::NewL(notifier, nullptr));
    engine->SetPort(server.Port());
    ASSERT_EQ(engine->StartConnect(), 1);
    ASSERT_TRUE(velatest::SpinUntil([&] { return notifier.m_connected == 1; }, KDeadlineMs));
    ASSERT_TRUE(server.WaitForConnections(1));

    EXPECT_CALL(closes, Call(2)).Times(1);
    server.Close(0);
    ASSERT_TRUE(velatest::SpinUntil([&] { return engine->State() == EDisconnected; }, KDeadlineMs));
    EXPECT_FALSE(engine->Connected());
}

// ------------------------------------------------------------ time-out

TEST(LongConnectionTest, ConnectThatCannotCompleteTimesOutSilently)
{
    // Nothing listens on the port: the kernel refuses the connect at once,
    // and since the engine does not watch socket errors it stays connecting
    // until its time-out. An address that never answers would do the same,
    // but no such address is certain on every machine (some networks
    // answer every address), so a refused loopback port drives the path.
    const quint16 port = RefusingPort();
    ASSERT_NE(port, 0);
    CConFactorySybImp factory;
    auto* connection = static_cast<CTcpConnection*>(factory.GetTcpCon());
    CSocketsEngine* engine = connection->SocketsEngine();
    engine->SetConnectTimeOut(300000);  // 0.3 s instead of 30 s

    Client client;
    connection->SetObserver(&client.m_observer);
    char address[] = "127.0.0.1";
    ASSERT_EQ(connection->Connect(address, port), 1);
    EXPECT_EQ(engine->State(), EConnecting);
    ASSERT_TRUE(velatest::SpinUntil([&] { return engine->State() == ENotConnected; }, KDeadlineMs));
    EXPECT_FALSE(connection->IsConnected());
    // Neither OnConnected nor OnClose (the mock is strict).
    for (int i = 0; i < 5; ++i)
        velatest::ProcessPendingEvents();

    // The connection can be used again once a server is there.
    EchoServer server;
    ASSERT_TRUE(server.Listen());
    Connect(connection, client, server);
    EXPECT_CALL(client.m_observer, OnRecv(_, _)).Times(::testing::AtLeast(1));
    Send(connection, "after time-out");
    ASSERT_TRUE(velatest::SpinUntil([&] { return client.m_received.size() >= 14; }, KDeadlineMs));
    EXPECT_EQ(client.m_received, QByteArray("after time-out"));
}

// ------------------------------------------------------------ many connections

TEST(LongConnectionTest, TenConnectionsEchoTheirOwnBytesAndReleaseClosesThemSilently)
{
    EchoServer server;
    ASSERT_TRUE(server.Listen());
    CConFactorySybImp factory;
    std::vector<std::unique_ptr<Client>> clients;
    std::vector<ITcpCon*> connections;
    for (int i = 0; i < CConFactorySybImp::KMaxConnections; ++i) {
        clients.push_back(std::make_unique<Client>());
        connections.push_back(factory.GetTcpCon());
        ASSERT_NE(connections.back(), nullptr);
        Connect(connections.back(), *clients.back(), server);
    }
    ASSERT_TRUE(server.WaitForConnections(CConFactorySybImp::KMaxConnections));

    for (int i = 0; i < CConFactorySybImp::KMaxConnections; ++i) {
        EXPECT_CALL(clients[i]->m_observer, OnRecv(_, _)).Times(::testing::AtLeast(1));
        Send(connections[i], "message " + QByteArray::number(i));
    }
    for (int i = 0; i < CConFactorySybImp::KMaxConnections; ++i) {
        const QByteArray expected = "message " + QByteArray::number(i);
        ASSERT_TRUE(velatest::SpinUntil([&] { return clients[i]->m_received.size() >= expected.size(); }, KDeadlineMs));
        EXPECT_EQ(clients[i]->m_received, expected) << "connection " << i;
    }

    factory.Release();
    for (int i = 0; i < CConFactorySybImp::KMaxConnections; ++i) {
        EXPECT_FALSE(connections[i]->IsConnected());
        ASSERT_TRUE(server.WaitForClientClose(i)) << "server connection " << i;
    }
    velatest::ProcessPendingEvents();
    EXPECT_EQ(factory.GetConnectionCount(), CConFactorySybImp::KMaxConnections);
}

// ------------------------------------------------------------ release inside a report

TEST(LongConnectionTest, ClientMayReleaseTheConnectionInsideOnClose)
{
    EchoServer server;
    ASSERT_TRUE(server.Listen());
    CConFactorySybImp factory;
    ITcpCon* connection = factory.GetTcpCon();
    Client client;
    Connect(connection, client, server);
    ASSERT_TRUE(server.WaitForConnections(1));

    bool released = false;
    EXPECT_CALL(client.m_observer, OnClose(2)).WillOnce(Invoke([&](int) {
        factory.RelTcpCon(connection);
        released = true;
    }));
    server.Close(0);
    ASSERT_TRUE(velatest::SpinUntil([&] { return released; }, KDeadlineMs));
    EXPECT_EQ(factory.GetConnectionCount(), 0);
    velatest::ProcessPendingEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

TEST(LongConnectionTest, ClientMayReleaseTheConnectionInsideOnRecv)
{
    EchoServer server;
    ASSERT_TRUE(server.Listen());
    CConFactorySybImp factory;
    ITcpCon* connection = factory.GetTcpCon();
    Client client;
    Connect(connection, client, server);

    bool released = false;
    EXPECT_CALL(client.m_observer, OnRecv(_, _)).WillOnce(Invoke([&](const unsigned char*, int) {
        factory.RelTcpCon(connection);
        released = true;
    }));
    Send(connection, "bye");
    ASSERT_TRUE(velatest::SpinUntil([&] { return released; }, KDeadlineMs));
    ASSERT_TRUE(server.WaitForClientClose(0));
    velatest::ProcessPendingEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

// ------------------------------------------------------------ defaults

TEST(LongConnectionTest, DefaultServerIsLoopbackPort14000)
{
    EchoServer server;
    if (!server.Listen(CSocketsEngine::KDefaultPortNumber))
        GTEST_SKIP() << "port 14000 is taken on this machine";
    Client client;
    class Forward : public MUINotifier
    {
    public:
        explicit Forward(ITcpConObserver& observer) : m_observer(observer) {}
        void OnRecv(const unsigned char* data, int length) override { m_observer.OnRecv(data, length); }
        void OnSend() override { m_observer.OnSend(); }
        void OnConnected() override { m_observer.OnConnected(); }
        void OnClose(int reason) override { m_observer.OnClose(reason); }
        void OnBlock() override { m_observer.OnBlock(); }
        void OnOpen() override { m_observer.OnOpen(); }

    private:
        ITcpConObserver& m_observer;
    } notifier(client.m_observer);

    std::unique_ptr<CSocketsEngine> engine(CSocketsEngine::NewL(notifier, nullptr));
    EXPECT_CALL(client.m_observer, OnConnected()).Times(1);
    ASSERT_EQ(engine->StartConnect(), 1);
    ASSERT_TRUE(velatest::SpinUntil([&] { return engine->Connected(); }, KDeadlineMs));
    ASSERT_TRUE(server.WaitForConnections(1));
}

}  // namespace
