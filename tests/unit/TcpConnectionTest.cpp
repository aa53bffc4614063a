// The client's view of a long connection: CTcpConnection over its sockets
// engine. Address checks, sending copies only while connected, Close
// without OnClose, every engine report passed to the observer unchanged or
// dropped without one. Connections go to a QTcpServer on 127.0.0.1.

#include "src/TcpConnection.h"

#include "src/SocketsEngine.h"

#include "support/HeapWatch.h"
#include "support/LoopbackServer.h"
#include "support/TestSupport.h"

#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

void PrintTo(const QByteArray& bytes, std::ostream* os)
{
    *os << '"' << velatest::Visible(bytes) << '"';
}

namespace {

using MockObserver = velatest::MockTcpConObserver;
using Server = velatest::LoopbackServer;

using ::testing::_;
using ::testing::Invoke;
using ::testing::StrictMock;

constexpr int KDeadlineMs = 10000;

// Writable text for Connect, which takes char*.
std::vector<char> Text(const std::string& text)
{
    return std::vector<char>(text.c_str(), text.c_str() + text.size() + 1);
}

class TcpConnectionTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_server.Listen());
        ASSERT_EQ(m_connection.InitConnection(nullptr), CTcpConnection::KDone);
        m_connection.SetObserver(&m_observer);
    }

    void ConnectToServer()
    {
        std::vector<char> address = Text("127.0.0.1");
        EXPECT_CALL(m_observer, OnConnected()).Times(1);
        ASSERT_EQ(m_connection.Connect(address.data(), m_server.Port()), 1);
        ASSERT_TRUE(velatest::SpinUntil([this] { return m_connection.IsConnected(); }, KDeadlineMs));
        ASSERT_TRUE(velatest::SpinUntil([this] { return m_server.Count() == 1; }, KDeadlineMs));
        ::testing::Mock::VerifyAndClearExpectations(&m_observer);
    }

    Server m_server;
    StrictMock<MockObserver> m_observer;
    CTcpConnection m_connection;
};

// ------------------------------------------------------------ set-up

TEST(TcpConnectionSetupTest, InitConnectionMakesAnIdleEngine)
{
    CTcpConnection connection;
    EXPECT_EQ(connection.SocketsEngine(), nullptr);
    EXPECT_EQ(connection.InitConnection(nullptr), 1);
    ASSERT_NE(connection.SocketsEngine(), nullptr);
    EXPECT_EQ(connection.SocketsEngine()->State(), ENotConnected);
    EXPECT_FALSE(connection.IsConnected());
    EXPECT_FALSE(connection.IsClosedByRequest());
}

TEST(TcpConnectionSetupTest, WithoutInitConnectionNothingStartsAndNothingBreaks)
{
    CTcpConnection connection;
    std::vector<char> address = Text("127.0.0.1");
    unsigned char data[2] = {1, 2};
    EXPECT_EQ(connection.Connect(address.data(), 14000), 0);
    EXPECT_FALSE(connection.IsConnected());
    connection.Send(data, 2);
    connection.Close();
    connection.OnRecv(data, 2);
    connection.OnClose(2);
}

TEST(TcpConnectionSetupTest, InitConnectionWithoutMemoryIsRefusedAndLeavesNoEngine)
{
    CTcpConnection connection;
    velatest::HeapWatch::FailNothrowAfter(0);
    const int result = connection.InitConnection(nullptr);
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(result, CTcpConnection::KRefused);
    EXPECT_EQ(connection.SocketsEngine(), nullptr);
    std::vector<char> address = Text("127.0.0.1");
    EXPECT_EQ(connection.Connect(address.data(), 14000), 0);
}

TEST(TcpConnectionSetupTest, SecondInitConnectionReplacesAndFreesTheEngine)
{
    CTcpConnection connection;
    ASSERT_EQ(connection.InitConnection(nullptr), CTcpConnection::KDone);
    CSocketsEngine* first = connection.SocketsEngine();
    velatest::HeapWatch::Clear();
    velatest::HeapWatch::Watch(first);
    ASSERT_EQ(connection.InitConnection(nullptr), CTcpConnection::KDone);
    EXPECT_TRUE(velatest::HeapWatch::Freed(first));
    ASSERT_NE(connection.SocketsEngine(), nullptr);
    EXPECT_EQ(connection.SocketsEngine()->State(), ENotConnected);
    velatest::HeapWatch::Clear();
}

// ------------------------------------------------------------ addresses

struct AddressRow
{
    const char* name;
    const char* address;  // null for a null pointer
    int expected;
};

const AddressRow KAddressRows[] = {
    {"null", nullptr, 0},
    {"empty", "", 0},
    {"one_character", "1", 1},
    {"dotted_quad", "127.0.0.1", 1},
    {"fifteen_characters", "127.100.100.100", 1},
    {"sixteen_characters", "127.100.100.1000", 0},
    {"far_too_long", "127.0.0.1.127.0.0.1.127.0.0.1.127.0.0.1", 0},
};

class TcpConnectionAddressTest : public ::testing::TestWithParam<AddressRow>
{
};

TEST_P(TcpConnectionAddressTest, LengthDecidesWhetherAConnectStarts)
{
    const AddressRow row = GetParam();
    CTcpConnection connection;
    ASSERT_EQ(connection.InitConnection(nullptr), 1);
    CSocketsEngine* engine = connection.SocketsEngine();
    // Nothing listens there; the connect, where one starts, stays pending.
    engine->SetConnectTimeOut(CSocketsEngine::KTimeOut);
    std::vector<char> text;
    if (row.address != nullptr)
        text = Text(row.address);
    char* address = row.address != nullptr ? text.data() : nullptr;

    EXPECT_EQ(connection.Connect(address, 1), row.expected);
    if (row.expected == 1) {
        // Started: the engine has the text and the port.
        EXPECT_EQ(engine->ServerName(), QString::fromLatin1(row.address));
        EXPECT_EQ(engine->Port(), 1);
    } else {
        // Nothing started: the engine is as it was made.
        EXPECT_EQ(engine->ServerName(), QString("127.0.0.1"));
        EXPECT_EQ(engine->Port(), CSocketsEngine::KDefaultPortNumber);
        EXPECT_EQ(engine->State(), ENotConnected);
    }
    EXPECT_FALSE(connection.IsConnected());
}

INSTANTIATE_TEST_SUITE_P(Rows, TcpConnectionAddressTest, ::testing::ValuesIn(KAddressRows),
                         [](const ::testing::TestParamInfo<AddressRow>& info) { return std::string(info.param.name); });

TEST(TcpConnectionSetupTest, AddressIsNotReadFarPastItsLimit)
{
    // Sixteen characters and no terminator: the check stops at the limit.
    std::unique_ptr<char[]> unterminated(new char[16]);
    std::memset(unterminated.get(), '1', 16);
    CTcpConnection connection;
    ASSERT_EQ(connection.InitConnection(nullptr), 1);
    EXPECT_EQ(connection.Connect(unterminated.get(), 1), 0);
}

// ------------------------------------------------------------ connect, send, close

TEST_F(TcpConnectionTest, ConnectReportsOnConnectedAndClearsTheCloseMark)
{
    ConnectToServer();
    EXPECT_TRUE(m_connection.IsConnected());
    EXPECT_FALSE(m_connection.IsClosedByRequest());
    m_connection.Close();
    EXPECT_TRUE(m_connection.IsClosedByRequest());

    EXPECT_CALL(m_observer, OnConnected()).Times(1);
    std::vector<char> address = Text("127.0.0.1");
    ASSERT_EQ(m_connection.Connect(address.data(), m_server.Port()), 1);
    EXPECT_FALSE(m_connection.IsClosedByRequest());
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_connection.IsConnected(); }, KDeadlineMs));
}

TEST_F(TcpConnectionTest, SendCopiesTheBytesWhileConnected)
{
    ConnectToServer();
    unsigned char data[5] = {'h', 'e', 'l', 'l', 'o'};
    m_connection.Send(data, 5);
    data[0] = 'J';  // the connection sent its own copy
    QByteArray received;
    ASSERT_TRUE(m_server.WaitForBytes(0, 5, received));
    EXPECT_EQ(received, QByteArray("hello"));
}

TEST_F(TcpConnectionTest, SendIgnoresNullDataAndNonPositiveLengths)
{
    ConnectToServer();
    unsigned char data[3] = {'x', 'y', 'z'};
    m_connection.Send(nullptr, 3);
    m_connection.Send(data, 0);
    m_connection.Send(data, -1);
    m_connection.Send(data, 1);
    QByteArray received;
    ASSERT_TRUE(m_server.WaitForBytes(0, 1, received));
    EXPECT_EQ(received, QByteArray("x"));
}

TEST_F(TcpConnectionTest, SendBeforeConnectedSendsNothing)
{
    unsigned char early[5] = {'e', 'a', 'r', 'l', 'y'};
    m_connection.Send(early, 5);
    ConnectToServer();
    unsigned char late[4] = {'l', 'a', 't', 'e'};
    m_connection.Send(late, 4);
    QByteArray received;
    ASSERT_TRUE(m_server.WaitForBytes(0, 4, received));
    EXPECT_EQ(received, QByteArray("late"));
}

TEST_F(TcpConnectionTest, CloseOnAConnectedConnectionEndsIdleWithoutOnClose)
{
    ConnectToServer();
    m_connection.Close();
    CSocketsEngine* engine = m_connection.SocketsEngine();
    EXPECT_EQ(engine->State(), ENotConnected);
    EXPECT_TRUE(engine->IsCloseConnAndIap());
    EXPECT_FALSE(m_connection.IsConnected());
    EXPECT_TRUE(m_connection.IsClosedByRequest());
    // The peer sees the close; the observer hears nothing (strict mock).
    ASSERT_TRUE(m_server.WaitForPeerClose(0));
    velatest::ProcessPendingEvents();
}

TEST_F(TcpConnectionTest, PeerCloseReachesTheObserverAsOnCloseTwo)
{
    ConnectToServer();
    EXPECT_CALL(m_observer, OnClose(2)).Times(1);
    m_server.At(0).disconnectFromHost();
    ASSERT_TRUE(velatest::SpinUntil([this] { return !m_connection.IsConnected(); }, KDeadlineMs));
    EXPECT_FALSE(m_connection.IsClosedByRequest());
}

TEST_F(TcpConnectionTest, ReceivedBytesReachTheObserver)
{
    ConnectToServer();
    QByteArray got;
    EXPECT_CALL(m_observer, OnRecv(_, _)).WillRepeatedly(Invoke([&](const unsigned char* data, int length) {
        got.append(reinterpret_cast<const char*>(data), length);
    }));
    m_server.At(0).write("from server");
    ASSERT_TRUE(velatest::SpinUntil([&] { return got.size() >= 11; }, KDeadlineMs));
    EXPECT_EQ(got, QByteArray("from server"));
}

TEST_F(TcpConnectionTest, DestroyingAConnectedConnectionClosesItSilently)
{
    auto connection = std::make_unique<CTcpConnection>();
    ASSERT_EQ(connection->InitConnection(nullptr), 1);
    StrictMock<MockObserver> observer;
    connection->SetObserver(&observer);
    EXPECT_CALL(observer, OnConnected()).Times(1);
    std::vector<char> address = Text("127.0.0.1");
    ASSERT_EQ(connection->Connect(address.data(), m_server.Port()), 1);
    ASSERT_TRUE(velatest::SpinUntil([&] { return connection->IsConnected(); }, KDeadlineMs));
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_server.Count() == 1; }, KDeadlineMs));
    connection.reset();
    ASSERT_TRUE(m_server.WaitForPeerClose(0));
}

// ------------------------------------------------------------ observer

TEST(TcpConnectionObserverTest, ReportsBeforeSetObserverAreDropped)
{
    CTcpConnection connection;
    ASSERT_EQ(connection.InitConnection(nullptr), 1);
    const unsigned char data[2] = {1, 2};
    connection.OnRecv(data, 2);
    connection.OnRecv(nullptr, -1);
    connection.OnSend();
    connection.OnConnected();
    connection.OnClose(2);
    connection.OnBlock();
    connection.OnOpen();
    // The engine's own reports take the same path.
    connection.SocketsEngine()->OnIapTransferBlocked();
    connection.SocketsEngine()->ChangeStatus(EDisconnected);
}

TEST(TcpConnectionObserverTest, EachReportIsPassedOnUnchanged)
{
    CTcpConnection connection;
    ASSERT_EQ(connection.InitConnection(nullptr), 1);
    StrictMock<MockObserver> observer;
    connection.SetObserver(&observer);
    const unsigned char data[3] = {7, 8, 9};
    ::testing::InSequence order;
    EXPECT_CALL(observer, OnRecv(data, 3));
    EXPECT_CALL(observer, OnRecv(data, -1));
    EXPECT_CALL(observer, OnSend());
    EXPECT_CALL(observer, OnConnected());
    EXPECT_CALL(observer, OnClose(2));
    EXPECT_CALL(observer, OnClose(7));
    EXPECT_CALL(observer, OnBlock());
    EXPECT_CALL(observer, OnOpen());
    connection.OnRecv(data, 3);
    connection.OnRecv(data, -1);
    connection.OnSend();
    connection.OnConnected();
    connection.OnClose(2);
    connection.OnClose(7);
    connection.OnBlock();
    connection.OnOpen();
}

TEST(TcpConnectionObserverTest, EngineReportsTravelThroughTheConnection)
{
    CTcpConnection connection;
    ASSERT_EQ(connection.InitConnection(nullptr), 1);
    StrictMock<MockObserver> observer;
    connection.SetObserver(&observer);
    CSocketsEngine* engine = connection.SocketsEngine();
    const unsigned char data[1] = {42};
    ::testing::InSequence order;
    EXPECT_CALL(observer, OnRecv(data, 1));
    EXPECT_CALL(observer, OnBlock());
    EXPECT_CALL(observer, OnOpen());
    EXPECT_CALL(observer, OnClose(2));
    engine->ResponseReceived(data, 1);
    engine->OnIapTransferBlocked();
    engine->OnIapTransferOpen();
    engine->ChangeStatus(EDisconnected);
}

TEST(TcpConnectionObserverTest, NullObserverDropsReportsAgain)
{
    CTcpConnection connection;
    ASSERT_EQ(connection.InitConnection(nullptr), 1);
    StrictMock<MockObserver> observer;
    connection.SetObserver(&observer);
    EXPECT_CALL(observer, OnOpen()).Times(1);
    connection.OnOpen();
    connection.SetObserver(nullptr);
    connection.OnOpen();
    connection.OnClose(2);
}

}  // namespace
