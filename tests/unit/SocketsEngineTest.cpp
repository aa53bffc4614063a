// The long connection's sockets engine against a QTcpServer on 127.0.0.1:
// connect with and without a name lookup, the deliberate return to
// ENotConnected after a lookup, the silent connect time-out (made short for
// the test), a close by the peer (OnClose(2)) against the library's own
// closes (no report), writes before the connection, the forwarding of
// reader and bearer events, the network session where one is opened, and an
// owner that deletes the engine from inside a report.

#include "src/SocketsEngine.h"

#include "src/IAPConnectEngine.h"

#include "support/HeapWatch.h"
#include "support/LoopbackServer.h"
#include "support/TestSupport.h"

#include <QCoreApplication>
#include <QHostAddress>
#include <QHostInfo>
#include <QTcpServer>
#include <QTcpSocket>

#include "src/internal/IAPConfigurations_p.h"
#include "src/internal/NetworkSessionRule_p.h"

// The bearer classes are deprecated in Qt 5.15; the engine still uses them
// where the platform needs a session, and these tests reach its session.
// Qt 6 has none.
QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
#include <QNetworkSession>
#endif

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <vector>

void PrintTo(const QByteArray& bytes, std::ostream* os)
{
    *os << '"' << velatest::Visible(bytes) << '"';
}

namespace {

using Server = velatest::LoopbackServer;

using ::testing::_;
using ::testing::Invoke;
using ::testing::StrictMock;

constexpr int KDeadlineMs = 10000;

class MockUINotifier : public MUINotifier
{
public:
    MOCK_METHOD(void, OnRecv, (const unsigned char* data, int length), (override));
    MOCK_METHOD(void, OnSend, (), (override));
    MOCK_METHOD(void, OnConnected, (), (override));
    MOCK_METHOD(void, OnClose, (int reason), (override));
    MOCK_METHOD(void, OnBlock, (), (override));
    MOCK_METHOD(void, OnOpen, (), (override));
};

// A port on 127.0.0.1 where nothing listens: connects to it are refused.
int RefusingPort()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0))
        return 0;
    const int port = probe.serverPort();
    probe.close();
    return port;
}

// Deletes what an engine left to the event loop.
void FlushDeferredDeletes()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
// The session StartConnect opened, a child of the engine; null when none.
QNetworkSession* EngineSession(CSocketsEngine& engine)
{
    return engine.findChild<QNetworkSession*>(QString(), Qt::FindDirectChildrenOnly);
}

// Makes StartConnect open a session for one test (this machine's platform
// asks for none), and gives the platform its rule back.
class ForcedSession
{
public:
    explicit ForcedSession(velanet::SessionRule rule) { velanet::SetSessionRule(rule); }
    ~ForcedSession() { velanet::SetSessionRule(velanet::SessionRule::IfPlatformRequires); }
    ForcedSession(const ForcedSession&) = delete;
    ForcedSession& operator=(const ForcedSession&) = delete;
};
#endif

// A connect started with StartConnect to server, waited for up to OnConnected.
class SocketsEngineTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_server.Listen()); }

    void ConnectEngine()
    {
        m_engine->SetPort(m_server.Port());
        EXPECT_CALL(m_notifier, OnConnected()).Times(1);
        ASSERT_EQ(m_engine->StartConnect(), CSocketsEngine::KConnectStarted);
        ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine->Connected(); }, KDeadlineMs));
        ASSERT_TRUE(m_server.WaitForConnections(1));
        ::testing::Mock::VerifyAndClearExpectations(&m_notifier);
    }

    Server m_server;
    StrictMock<MockUINotifier> m_notifier;
    std::unique_ptr<CSocketsEngine> m_engine{CSocketsEngine::NewL(m_notifier, nullptr)};
};

// ------------------------------------------------------------ construction

TEST(SocketsEngineConstantsTest, ValuesAsDocumented)
{
    EXPECT_EQ(CSocketsEngine::KDefaultPortNumber, 14000);
    EXPECT_EQ(CSocketsEngine::KTimeOut, 30000000);
    EXPECT_STREQ(CSocketsEngine::KDefaultServerName, "127.0.0.1");
    EXPECT_EQ(static_cast<int>(ENotConnected), 0);
    EXPECT_EQ(static_cast<int>(EConnecting), 1);
    EXPECT_EQ(static_cast<int>(EConnected), 2);
    EXPECT_EQ(static_cast<int>(EDisconnected), 5);
}

TEST_F(SocketsEngineTest, NewEngineIsIdleOnTheDefaultServerWithItsReaderStarted)
{
    EXPECT_EQ(m_engine->State(), ENotConnected);
    EXPECT_FALSE(m_engine->Connected());
    EXPECT_EQ(m_engine->ServerName(), QString("127.0.0.1"));
    EXPECT_EQ(m_engine->Port(), 14000);
    EXPECT_EQ(m_engine->ConnectTimeOut(), CSocketsEngine::KTimeOut);
    EXPECT_FALSE(m_engine->IsCloseConnAndIap());
    EXPECT_TRUE(m_engine->IsReading());
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    EXPECT_EQ(EngineSession(*m_engine), nullptr);
#endif
}

TEST_F(SocketsEngineTest, AccessorsKeepWhatTheyAreGiven)
{
    m_engine->SetServerName("10.1.2.3");
    m_engine->SetPort(443);
    m_engine->SetConnectTimeOut(1234);
    m_engine->Print("ignored");
    EXPECT_EQ(m_engine->ServerName(), QString("10.1.2.3"));
    EXPECT_EQ(m_engine->Port(), 443);
    EXPECT_EQ(m_engine->ConnectTimeOut(), 1234);
    m_engine->CloseConnAndIap(true);
    EXPECT_TRUE(m_engine->IsCloseConnAndIap());
    m_engine->CloseConnAndIap(false);
    EXPECT_FALSE(m_engine->IsCloseConnAndIap());
}

// ------------------------------------------------------------ connecting

TEST_F(SocketsEngineTest, DottedAddressConnectsWithoutLookup)
{
    m_engine->SetPort(m_server.Port());
    ASSERT_EQ(m_engine->StartConnect(), CSocketsEngine::KConnectStarted);
    // No lookup: the connect is under way at once.
    EXPECT_EQ(m_engine->State(), EConnecting);
    EXPECT_EQ(m_engine->LookupId(), CSocketsEngine::KNoLookup);
    EXPECT_TRUE(m_engine->IsConnectTimeOutRunning());

    EXPECT_CALL(m_notifier, OnConnected()).WillOnce(Invoke([this] {
        // The owner hears of the connection in the connected state, with
        // the reader already listening.
        EXPECT_TRUE(m_engine->Connected());
        EXPECT_TRUE(m_engine->IsReading());
    }));
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine->Connected(); }, KDeadlineMs));
    EXPECT_EQ(m_engine->State(), EConnected);
    EXPECT_FALSE(m_engine->IsConnectTimeOutRunning());
    EXPECT_EQ(m_engine->ServerName(), QString("127.0.0.1"));
    ASSERT_TRUE(m_server.WaitForConnections(1));
}

TEST_F(SocketsEngineTest, HostNameIsLookedUpAndReplacedByItsFirstAddress)
{
    m_engine->SetServerName("localhost");
    m_engine->SetPort(m_server.Port());
    ASSERT_EQ(m_engine->StartConnect(), CSocketsEngine::KConnectStarted);
    EXPECT_EQ(m_engine->State(), ENotConnected);
    EXPECT_NE(m_engine->LookupId(), CSocketsEngine::KNoLookup);

    EXPECT_CALL(m_notifier, OnConnected()).Times(1);
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine->Connected(); }, KDeadlineMs));
    EXPECT_EQ(m_engine->ServerName(), QString("127.0.0.1"));
    ASSERT_TRUE(m_server.WaitForConnections(1));
}

TEST_F(SocketsEngineTest, LookupAnswerLeavesTheEngineIdleWhileItsConnectRuns)
{
    m_engine->SetServerName("messaging.example");
    m_engine->SetPort(m_server.Port());
    m_engine->ConnectL();
    const int id = m_engine->LookupId();
    ASSERT_NE(id, CSocketsEngine::KNoLookup);
    QHostInfo::abortHostLookup(id);

    QHostInfo answer(id);
    answer.setAddresses({QHostAddress("127.0.0.1"), QHostAddress("127.0.0.2")});
    m_engine->OnGetIPAddress(answer);
    // Kept on purpose: idle again although the connect is under way.
    EXPECT_EQ(m_engine->State(), ENotConnected);
    EXPECT_EQ(m_engine->ServerName(), QString("127.0.0.1"));
    EXPECT_NE(m_engine->SocketState(), QAbstractSocket::UnconnectedState);
    EXPECT_TRUE(m_engine->IsConnectTimeOutRunning());

    EXPECT_CALL(m_notifier, OnConnected()).Times(1);
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine->Connected(); }, KDeadlineMs));
    EXPECT_EQ(m_engine->State(), EConnected);
}

TEST_F(SocketsEngineTest, LookupAnswerPrefersItsFirstIPv4Address)
{
    m_engine->SetServerName("messaging.example");
    m_engine->SetPort(m_server.Port());
    m_engine->ConnectL();
    const int id = m_engine->LookupId();
    QHostInfo::abortHostLookup(id);
    QHostInfo answer(id);
    answer.setAddresses({QHostAddress("::1"), QHostAddress("127.0.0.1")});
    EXPECT_CALL(m_notifier, OnConnected()).Times(1);
    m_engine->OnGetIPAddress(answer);
    EXPECT_EQ(m_engine->ServerName(), QString("127.0.0.1"));
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine->Connected(); }, KDeadlineMs));
}

TEST_F(SocketsEngineTest, LookupWithoutResultsStaysIdleAndTellsNobody)
{
    m_engine->SetServerName("nothing.example");
    m_engine->ConnectL();
    const int id = m_engine->LookupId();
    QHostInfo::abortHostLookup(id);
    QHostInfo answer(id);
    answer.setError(QHostInfo::HostNotFound);
    m_engine->OnGetIPAddress(answer);
    EXPECT_EQ(m_engine->State(), ENotConnected);
    EXPECT_EQ(m_engine->ServerName(), QString("nothing.example"));
    EXPECT_EQ(m_engine->SocketState(), QAbstractSocket::UnconnectedState);
    EXPECT_FALSE(m_engine->IsConnectTimeOutRunning());
}

TEST_F(SocketsEngineTest, EmptyServerNameLookupEndsIdleAndSilent)
{
    m_engine->SetServerName("");
    ASSERT_EQ(m_engine->StartConnect(), CSocketsEngine::KConnectStarted);
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine->LookupId() == CSocketsEngine::KNoLookup; }, KDeadlineMs));
    EXPECT_EQ(m_engine->State(), ENotConnected);
    EXPECT_EQ(m_engine->SocketState(), QAbstractSocket::UnconnectedState);
}

TEST_F(SocketsEngineTest, AnswerOfACancelledLookupIsIgnored)
{
    m_engine->SetServerName("messaging.example");
    m_engine->SetPort(m_server.Port());
    m_engine->ConnectL();
    const int id = m_engine->LookupId();
    m_engine->Disconnect();
    EXPECT_EQ(m_engine->LookupId(), CSocketsEngine::KNoLookup);

    QHostInfo answer(id);
    answer.setAddresses({QHostAddress("127.0.0.1")});
    m_engine->OnGetIPAddress(answer);
    EXPECT_EQ(m_engine->ServerName(), QString("messaging.example"));
    EXPECT_EQ(m_engine->SocketState(), QAbstractSocket::UnconnectedState);
}

TEST_F(SocketsEngineTest, ConnectOnlyStartsFromNotConnected)
{
    ConnectEngine();
    m_engine->ConnectL(QString("127.0.0.2"));
    m_engine->ConnectL();
    EXPECT_EQ(m_engine->State(), EConnected);
    EXPECT_EQ(m_engine->ServerName(), QString("127.0.0.1"));
    velatest::ProcessPendingEvents();
    EXPECT_EQ(m_server.Count(), 1);
}

// ------------------------------------------------------------ time-out

TEST_F(SocketsEngineTest, NoAnswerTimesOutSilentlyBackToNotConnected)
{
    // Nothing listens on the port, so the connect is refused at once; the
    // engine does not watch socket errors and waits for its time-out. That
    // makes the time-out path certain without depending on a network
    // address that never answers.
    const int port = RefusingPort();
    ASSERT_NE(port, 0);
    m_engine->SetPort(port);
    m_engine->SetConnectTimeOut(1000000);
    ASSERT_EQ(m_engine->StartConnect(), CSocketsEngine::KConnectStarted);
    ASSERT_TRUE(velatest::SpinUntil(
        [this] { return m_engine->SocketState() == QAbstractSocket::UnconnectedState; }, KDeadlineMs));
    // The refusal itself changes nothing.
    EXPECT_EQ(m_engine->State(), EConnecting);
    EXPECT_TRUE(m_engine->IsConnectTimeOutRunning());

    ASSERT_TRUE(velatest::SpinUntil([this] { return !m_engine->IsConnectTimeOutRunning(); }, KDeadlineMs));
    EXPECT_EQ(m_engine->State(), ENotConnected);
    EXPECT_FALSE(m_engine->Connected());
    EXPECT_EQ(m_engine->SocketState(), QAbstractSocket::UnconnectedState);
    EXPECT_FALSE(m_engine->IsReading());
    velatest::ProcessPendingEvents();
}

TEST_F(SocketsEngineTest, TimeOutWhileTheConnectIsStillUnderWayClosesTheSocket)
{
    // The time-out fires as if no answer had come, with the connect to a
    // listening server not yet completed.
    m_engine->SetPort(m_server.Port());
    ASSERT_EQ(m_engine->StartConnect(), CSocketsEngine::KConnectStarted);
    ASSERT_EQ(m_engine->State(), EConnecting);
    m_engine->TimerExpired();
    EXPECT_EQ(m_engine->State(), ENotConnected);
    EXPECT_EQ(m_engine->SocketState(), QAbstractSocket::UnconnectedState);
    EXPECT_FALSE(m_engine->IsConnectTimeOutRunning());
    // No OnConnected follows (the mock is strict).
    for (int i = 0; i < 5; ++i)
        velatest::ProcessPendingEvents();
}

TEST_F(SocketsEngineTest, EachConnectUsesTheTimeOutSetBeforeIt)
{
    const int port = RefusingPort();
    m_engine->SetPort(port);
    m_engine->SetConnectTimeOut(200000);
    ASSERT_EQ(m_engine->StartConnect(), CSocketsEngine::KConnectStarted);
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine->State() == ENotConnected; }, KDeadlineMs));
    // A second attempt after the first timed out.
    ASSERT_EQ(m_engine->StartConnect(), CSocketsEngine::KConnectStarted);
    EXPECT_EQ(m_engine->State(), EConnecting);
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine->State() == ENotConnected; }, KDeadlineMs));
}

// ------------------------------------------------------------ closing

TEST_F(SocketsEngineTest, PeerCloseReportsOnCloseTwo)
{
    ConnectEngine();
    EXPECT_CALL(m_notifier, OnClose(2)).WillOnce(Invoke([this](int) {
        EXPECT_FALSE(m_engine->Connected());
        EXPECT_EQ(m_engine->State(), EDisconnected);
    }));
    m_server.At(0).disconnectFromHost();
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine->State() == EDisconnected; }, KDeadlineMs));
    EXPECT_FALSE(m_engine->Connected());
    EXPECT_FALSE(m_engine->IsReading());
    velatest::ProcessPendingEvents();
}

TEST_F(SocketsEngineTest, PeerResetReportsOnCloseTwo)
{
    ConnectEngine();
    EXPECT_CALL(m_notifier, OnClose(2)).Times(1);
    m_server.At(0).abort();
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine->State() == EDisconnected; }, KDeadlineMs));
}

TEST_F(SocketsEngineTest, DisconnectClosesWithoutReport)
{
    ConnectEngine();
    m_engine->Disconnect();
    EXPECT_EQ(m_engine->State(), ENotConnected);
    EXPECT_FALSE(m_engine->Connected());
    EXPECT_FALSE(m_engine->IsReading());
    EXPECT_FALSE(m_engine->IsCloseConnAndIap());
    ASSERT_TRUE(m_server.WaitForPeerClose(0));
    velatest::ProcessPendingEvents();
}

TEST_F(SocketsEngineTest, DisconnectWithUnsentBytesFlushesThemAndStillReportsNothing)
{
    ConnectEngine();
    const QByteArray big(4 * 1024 * 1024, 'q');
    m_engine->WriteL(big);
    m_engine->Disconnect();
    // Qt finishes the close once the bytes are out; that is not reported.
    QByteArray received;
    ASSERT_TRUE(m_server.WaitForBytes(0, big.size(), received));
    EXPECT_EQ(received.size(), big.size());
    ASSERT_TRUE(m_server.WaitForPeerClose(0));
    velatest::ProcessPendingEvents();
    EXPECT_EQ(m_engine->State(), ENotConnected);
}

TEST_F(SocketsEngineTest, AbortMarksTheConnectionAndReportsNothing)
{
    ConnectEngine();
    m_engine->Abort();
    EXPECT_TRUE(m_engine->IsCloseConnAndIap());
    EXPECT_EQ(m_engine->State(), ENotConnected);
    ASSERT_TRUE(m_server.WaitForPeerClose(0));
    velatest::ProcessPendingEvents();

    // Every connect clears the mark.
    EXPECT_CALL(m_notifier, OnConnected()).Times(1);
    ASSERT_EQ(m_engine->StartConnect(), CSocketsEngine::KConnectStarted);
    EXPECT_FALSE(m_engine->IsCloseConnAndIap());
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine->Connected(); }, KDeadlineMs));
}

TEST_F(SocketsEngineTest, DoCancelWhileConnectingClosesTheSocket)
{
    m_engine->SetPort(m_server.Port());
    ASSERT_EQ(m_engine->StartConnect(), CSocketsEngine::KConnectStarted);
    m_engine->DoCancel();
    EXPECT_EQ(m_engine->State(), ENotConnected);
    EXPECT_EQ(m_engine->SocketState(), QAbstractSocket::UnconnectedState);
    EXPECT_FALSE(m_engine->IsConnectTimeOutRunning());
    for (int i = 0; i < 5; ++i)
        velatest::ProcessPendingEvents();
}

TEST_F(SocketsEngineTest, DoCancelWhenConnectedOnlyForgetsTheState)
{
    ConnectEngine();
    m_engine->DoCancel();
    EXPECT_EQ(m_engine->State(), ENotConnected);
    EXPECT_FALSE(m_engine->Connected());
    // The socket itself is closed only while connecting.
    EXPECT_EQ(m_engine->SocketState(), QAbstractSocket::ConnectedState);
}

TEST_F(SocketsEngineTest, AfterAPeerCloseANewConnectNeedsDisconnectFirst)
{
    ConnectEngine();
    EXPECT_CALL(m_notifier, OnClose(2)).Times(1);
    m_server.At(0).disconnectFromHost();
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine->State() == EDisconnected; }, KDeadlineMs));

    // From EDisconnected nothing starts.
    EXPECT_EQ(m_engine->StartConnect(), CSocketsEngine::KConnectStarted);
    EXPECT_EQ(m_engine->State(), EDisconnected);
    EXPECT_EQ(m_engine->SocketState(), QAbstractSocket::UnconnectedState);

    m_engine->Disconnect();
    EXPECT_EQ(m_engine->State(), ENotConnected);
    EXPECT_CALL(m_notifier, OnConnected()).Times(1);
    ASSERT_EQ(m_engine->StartConnect(), CSocketsEngine::KConnectStarted);
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine->Connected(); }, KDeadlineMs));
    ASSERT_TRUE(m_server.WaitForConnections(2));
}

TEST_F(SocketsEngineTest, ReconnectAfterOwnDisconnectCarriesData)
{
    ConnectEngine();
    m_engine->Disconnect();
    ASSERT_TRUE(m_server.WaitForPeerClose(0));

    EXPECT_CALL(m_notifier, OnConnected()).Times(1);
    ASSERT_EQ(m_engine->StartConnect(), CSocketsEngine::KConnectStarted);
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine->Connected(); }, KDeadlineMs));
    ASSERT_TRUE(m_server.WaitForConnections(2));
    EXPECT_TRUE(m_engine->IsReading());

    QByteArray got;
    EXPECT_CALL(m_notifier, OnRecv(_, _)).WillRepeatedly(Invoke([&](const unsigned char* data, int length) {
        got.append(reinterpret_cast<const char*>(data), length);
    }));
    m_server.At(1).write("again");
    ASSERT_TRUE(velatest::SpinUntil([&] { return got.size() >= 5; }, KDeadlineMs));
    EXPECT_EQ(got, QByteArray("again"));
}

// ------------------------------------------------------------ data

TEST_F(SocketsEngineTest, WriteBeforeConnectedHasNoEffect)
{
    m_engine->SetPort(m_server.Port());
    m_engine->WriteL("idle");
    ASSERT_EQ(m_engine->StartConnect(), CSocketsEngine::KConnectStarted);
    // Dropped, not queued: a queued array would reach the server before
    // "late" below.
    m_engine->WriteL("early");
    EXPECT_CALL(m_notifier, OnConnected()).Times(1);
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine->Connected(); }, KDeadlineMs));
    ASSERT_TRUE(m_server.WaitForConnections(1));

    m_engine->WriteL("late");
    QByteArray received;
    ASSERT_TRUE(m_server.WaitForBytes(0, 4, received));
    EXPECT_EQ(received, QByteArray("late"));
}

TEST_F(SocketsEngineTest, WriteAfterDisconnectIsDropped)
{
    ConnectEngine();
    m_engine->Disconnect();
    m_engine->WriteL("gone");
    ASSERT_TRUE(m_server.WaitForPeerClose(0));
    EXPECT_TRUE(m_server.At(0).readAll().isEmpty());
}

TEST_F(SocketsEngineTest, ReceivedBytesGoUpAsOnRecv)
{
    ConnectEngine();
    QByteArray got;
    EXPECT_CALL(m_notifier, OnRecv(_, _)).WillRepeatedly(Invoke([&](const unsigned char* data, int length) {
        EXPECT_GT(length, 0);
        EXPECT_LE(length, 1024);
        got.append(reinterpret_cast<const char*>(data), length);
    }));
    m_server.At(0).write("\x01\x02raw\x00bytes", 11);
    ASSERT_TRUE(velatest::SpinUntil([&] { return got.size() >= 11; }, KDeadlineMs));
    EXPECT_EQ(got, QByteArray("\x01\x02raw\x00bytes", 11));
}

TEST_F(SocketsEngineTest, ReadRestartsTheReaderOnlyWhenConnected)
{
    ConnectEngine();
    // Disconnect stops the reader; the state stored again makes the engine
    // connected with its reader stopped.
    m_engine->Disconnect();
    ASSERT_FALSE(m_engine->IsReading());
    EXPECT_CALL(m_notifier, OnConnected()).Times(1);
    m_engine->ChangeStatus(EConnected);
    m_engine->Read();
    EXPECT_TRUE(m_engine->IsReading());

    m_engine->Disconnect();
    EXPECT_FALSE(m_engine->IsReading());
    m_engine->Read();
    EXPECT_FALSE(m_engine->IsReading());
}

// ------------------------------------------------------------ reports

struct StatusRow
{
    const char* name;
    int state;
    int connectedReports;
    int closeReports;
};

const StatusRow KStatusRows[] = {
    {"not_connected", ENotConnected, 0, 0},
    {"connecting", EConnecting, 0, 0},
    {"connected", EConnected, 1, 0},
    {"unused_3", 3, 0, 0},
    {"unused_4", 4, 0, 0},
    {"disconnected", EDisconnected, 0, 1},
};

class ChangeStatusTest : public ::testing::TestWithParam<StatusRow>
{
};

TEST_P(ChangeStatusTest, StoresTheStateAndNotifiesAsDocumented)
{
    const StatusRow row = GetParam();
    StrictMock<MockUINotifier> notifier;
    std::unique_ptr<CSocketsEngine> engine(CSocketsEngine::NewL(notifier, nullptr));
    EXPECT_CALL(notifier, OnConnected()).Times(row.connectedReports);
    EXPECT_CALL(notifier, OnClose(2)).Times(row.closeReports);
    engine->ChangeStatus(static_cast<TSocketsEngineState>(row.state));
    EXPECT_EQ(static_cast<int>(engine->State()), row.state);
    EXPECT_EQ(engine->Connected(), row.state == EConnected);
}

INSTANTIATE_TEST_SUITE_P(Rows, ChangeStatusTest, ::testing::ValuesIn(KStatusRows),
                         [](const ::testing::TestParamInfo<StatusRow>& info) { return std::string(info.param.name); });

TEST_F(SocketsEngineTest, ReaderAndBearerEventsAreForwarded)
{
    const unsigned char bytes[3] = {'a', 'b', 'c'};
    ::testing::InSequence order;
    EXPECT_CALL(m_notifier, OnRecv(bytes, 3));
    EXPECT_CALL(m_notifier, OnRecv(bytes, 0));
    EXPECT_CALL(m_notifier, OnRecv(bytes, -1));
    EXPECT_CALL(m_notifier, OnSend());
    EXPECT_CALL(m_notifier, OnBlock());
    EXPECT_CALL(m_notifier, OnOpen());
    m_engine->ResponseReceived(bytes, 3);
    m_engine->ResponseReceived(bytes, 0);
    m_engine->ResponseReceived(bytes, -1);
    m_engine->NotifySendData();
    m_engine->OnIapTransferBlocked();
    m_engine->OnIapTransferOpen();
    // Errors are not passed on and change nothing.
    const TSocketsEngineState before = m_engine->State();
    m_engine->ReportError(MEngineNotifier::EGeneralReadError, 5);
    m_engine->ReportError(MEngineNotifier::EGeneralWriteError, -1);
    EXPECT_EQ(before, m_engine->State());
    EXPECT_TRUE(::testing::Mock::VerifyAndClearExpectations(&m_notifier));
}

// ------------------------------------------------------------ access point

TEST(SocketsEngineIapTest, DestructorLeavesTheAccessPointEngineItWasAddedTo)
{
    std::unique_ptr<CIAPConnectEngine> iap(CIAPConnectEngine::NewL("test-iap"));
    StrictMock<MockUINotifier> notifier;
    CSocketsEngine* engine = CSocketsEngine::NewL(notifier, iap.get());
    // The engine does not register itself.
    EXPECT_FALSE(iap->HasConnectStateObserver(engine));
    iap->AddConnectStateObserver(engine);
    ASSERT_TRUE(iap->HasConnectStateObserver(engine));
    delete engine;
    EXPECT_EQ(iap->GetConnectStateObserverCount(), 0);
}

TEST(SocketsEngineIapTest, DestructorIsHarmlessWhenNeverAdded)
{
    std::unique_ptr<CIAPConnectEngine> iap(CIAPConnectEngine::NewL("test-iap"));
    MockUINotifier other;
    StrictMock<MockUINotifier> notifier;
    std::unique_ptr<CSocketsEngine> registered(CSocketsEngine::NewL(other, iap.get()));
    iap->AddConnectStateObserver(registered.get());
    delete CSocketsEngine::NewL(notifier, iap.get());
    EXPECT_EQ(iap->GetConnectStateObserverCount(), 1);
    EXPECT_TRUE(iap->HasConnectStateObserver(registered.get()));
}

TEST(SocketsEngineIapTest, AccessPointEngineMayGoFirst)
{
    CIAPConnectEngine* iap = CIAPConnectEngine::NewL("test-iap");
    StrictMock<MockUINotifier> notifier;
    std::unique_ptr<CSocketsEngine> engine(CSocketsEngine::NewL(notifier, iap));
    iap->AddConnectStateObserver(engine.get());
    delete iap;
    // Forgotten, not reported: the engine is where it was.
    EXPECT_EQ(ENotConnected, engine->State());
    EXPECT_FALSE(engine->Connected());
    EXPECT_TRUE(::testing::Mock::VerifyAndClearExpectations(&notifier));
    engine.reset();
}

// The access point engine's bearer events reach the owner through the
// sockets engine once it is registered.
TEST(SocketsEngineIapTest, BearerEventsOfTheAccessPointEngineReachTheOwner)
{
    velanet::NetworkInformationRecord info;
    info.m_bHasBackend = true;
    info.m_enReachability = velanet::NetworkReachability::Online;
    velanet::SetIAPConfigurationSource([&info] { return velanet::ConfigurationsFromNetworkInformation(info); });
    std::unique_ptr<CIAPConnectEngine> iap(CIAPConnectEngine::NewL("test-iap"));
    StrictMock<MockUINotifier> notifier;
    std::unique_ptr<CSocketsEngine> engine(CSocketsEngine::NewL(notifier, iap.get()));
    iap->AddConnectStateObserver(engine.get());
    {
        ::testing::InSequence order;
        EXPECT_CALL(notifier, OnBlock());
        EXPECT_CALL(notifier, OnOpen());
    }
    info.m_enReachability = velanet::NetworkReachability::Disconnected;
    velanet::NetworkWatch::Instance()->Announce();
    info.m_enReachability = velanet::NetworkReachability::Local;
    velanet::NetworkWatch::Instance()->Announce();
    engine.reset();
    velanet::SetIAPConfigurationSource({});
}

// ------------------------------------------------------------ network session

#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)

// Qt 6 has no sessions: StartConnect connects straight away, whatever the
// network information says, and reconnecting a session does nothing.
TEST_F(SocketsEngineTest, StartConnectOpensNoSessionAndConnects)
{
    velanet::NetworkInformationRecord offline;
    offline.m_bHasBackend = true;
    offline.m_enReachability = velanet::NetworkReachability::Disconnected;
    velanet::SetNetworkInformationSource([offline] { return offline; });
    ConnectEngine();
    velanet::SetNetworkInformationSource({});
    m_engine->reconnectNetworkSession();
    EXPECT_TRUE(m_engine->Connected());
}

#else

TEST_F(SocketsEngineTest, SessionIsOpenedOnlyWhereThePlatformRequiresOne)
{
    ConnectEngine();
    // This machine's bearer management asks for no session.
    EXPECT_EQ(EngineSession(*m_engine), nullptr);
}

TEST_F(SocketsEngineTest, OpenedSessionIsKeptAndItsCloseReportsOnCloseTwo)
{
    const ForcedSession forced(velanet::SessionRule::OnDefault);
    ConnectEngine();
    QNetworkSession* session = EngineSession(*m_engine);
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(session->parent(), m_engine.get());

    EXPECT_CALL(m_notifier, OnClose(2)).Times(1);
    emit session->closed();
    EXPECT_EQ(m_engine->State(), EDisconnected);
    EXPECT_EQ(m_engine->SocketState(), QAbstractSocket::UnconnectedState);
    // The session is opened once; later connects keep it.
    m_engine->Disconnect();
    EXPECT_CALL(m_notifier, OnConnected()).Times(1);
    ASSERT_EQ(m_engine->StartConnect(), CSocketsEngine::KConnectStarted);
    EXPECT_EQ(EngineSession(*m_engine), session);
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine->Connected(); }, KDeadlineMs));
    m_engine->reconnectNetworkSession();
    EXPECT_TRUE(m_engine->Connected());
}

TEST_F(SocketsEngineTest, SessionThatDoesNotOpenRefusesTheConnectOnce)
{
    const ForcedSession forced(velanet::SessionRule::OnInvalid);
    m_engine->SetPort(m_server.Port());
    EXPECT_EQ(m_engine->StartConnect(), CSocketsEngine::KSessionNotOpened);
    EXPECT_EQ(m_engine->State(), ENotConnected);
    EXPECT_EQ(m_engine->SocketState(), QAbstractSocket::UnconnectedState);
    QNetworkSession* session = EngineSession(*m_engine);
    ASSERT_NE(session, nullptr);

    // Reopening fails again, quietly.
    m_engine->reconnectNetworkSession();
    EXPECT_EQ(EngineSession(*m_engine), session);

    // The kept session is not opened again: the next call connects.
    EXPECT_CALL(m_notifier, OnConnected()).Times(1);
    EXPECT_EQ(m_engine->StartConnect(), CSocketsEngine::KConnectStarted);
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine->Connected(); }, KDeadlineMs));
}

TEST_F(SocketsEngineTest, ReconnectWithoutSessionDoesNothing)
{
    m_engine->reconnectNetworkSession();
    EXPECT_EQ(EngineSession(*m_engine), nullptr);
}

#endif

// ------------------------------------------------------------ owner deletes in a report

TEST_F(SocketsEngineTest, OwnerMayDeleteTheEngineInsideOnConnected)
{
    m_engine->SetPort(m_server.Port());
    EXPECT_CALL(m_notifier, OnConnected()).WillOnce(Invoke([this] { m_engine.reset(); }));
    ASSERT_EQ(m_engine->StartConnect(), CSocketsEngine::KConnectStarted);
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine == nullptr; }, KDeadlineMs));
    velatest::ProcessPendingEvents();
    FlushDeferredDeletes();
    ASSERT_TRUE(m_server.WaitForConnections(1));
    ASSERT_TRUE(m_server.WaitForPeerClose(0));
}

TEST_F(SocketsEngineTest, OwnerMayDeleteTheEngineInsideOnRecv)
{
    ConnectEngine();
    EXPECT_CALL(m_notifier, OnRecv(_, 4)).WillOnce(Invoke([this](const unsigned char*, int) { m_engine.reset(); }));
    m_server.At(0).write("data");
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine == nullptr; }, KDeadlineMs));
    velatest::ProcessPendingEvents();
    FlushDeferredDeletes();
    ASSERT_TRUE(m_server.WaitForPeerClose(0));
}

TEST_F(SocketsEngineTest, OwnerMayDeleteTheEngineInsideOnClose)
{
    ConnectEngine();
    EXPECT_CALL(m_notifier, OnClose(2)).WillOnce(Invoke([this](int) { m_engine.reset(); }));
    m_server.At(0).disconnectFromHost();
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine == nullptr; }, KDeadlineMs));
    velatest::ProcessPendingEvents();
    FlushDeferredDeletes();
}

#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
TEST_F(SocketsEngineTest, OwnerMayDeleteTheEngineInsideTheSessionsClose)
{
    const ForcedSession forced(velanet::SessionRule::OnDefault);
    ConnectEngine();
    QNetworkSession* session = EngineSession(*m_engine);
    ASSERT_NE(session, nullptr);
    EXPECT_CALL(m_notifier, OnClose(2)).WillOnce(Invoke([this](int) { m_engine.reset(); }));
    emit session->closed();
    EXPECT_EQ(m_engine, nullptr);
    FlushDeferredDeletes();
}

#endif

// ------------------------------------------------------------ more edges

TEST(SocketsEngineAllocationTest, NewLAndNewLCAnswerNullWithoutMemory)
{
    StrictMock<MockUINotifier> notifier;
    velatest::HeapWatch::FailNothrowAfter(0);
    CSocketsEngine* made = CSocketsEngine::NewL(notifier, nullptr);
    CSocketsEngine* madeToo = CSocketsEngine::NewLC(notifier, nullptr);
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(madeToo, nullptr);
    delete made;
    delete madeToo;
}

TEST(SocketsEngineAllocationTest, NewLCMakesAnIdleEngine)
{
    StrictMock<MockUINotifier> notifier;
    std::unique_ptr<CSocketsEngine> engine(CSocketsEngine::NewLC(notifier, nullptr));
    ASSERT_NE(engine, nullptr);
    EXPECT_EQ(engine->State(), ENotConnected);
    EXPECT_TRUE(engine->IsReading());
}

TEST_F(SocketsEngineTest, LookupAnswerWithOnlyIPv6AddressesUsesTheFirst)
{
    m_engine->SetServerName("six.example");
    m_engine->SetPort(m_server.Port());
    m_engine->ConnectL();
    const int id = m_engine->LookupId();
    ASSERT_NE(id, CSocketsEngine::KNoLookup);
    QHostInfo::abortHostLookup(id);
    QHostInfo answer(id);
    answer.setAddresses({QHostAddress("::1"), QHostAddress("::2")});
    m_engine->OnGetIPAddress(answer);
    EXPECT_EQ(m_engine->ServerName(), QString("::1"));
    EXPECT_EQ(m_engine->LookupId(), CSocketsEngine::KNoLookup);
    EXPECT_EQ(m_engine->State(), ENotConnected);
    // Whatever ::1 answers on this machine, the connect is dropped silently.
    m_engine->Disconnect();
    velatest::ProcessPendingEvents();
}

TEST_F(SocketsEngineTest, ConnectAgainWhileTheLookedUpConnectRunsStartsItAfresh)
{
    m_engine->SetServerName("messaging.example");
    m_engine->SetPort(m_server.Port());
    m_engine->ConnectL();
    const int id = m_engine->LookupId();
    ASSERT_NE(id, CSocketsEngine::KNoLookup);
    QHostInfo::abortHostLookup(id);
    QHostInfo answer(id);
    answer.setAddresses({QHostAddress("127.0.0.1")});
    EXPECT_CALL(m_notifier, OnConnected()).Times(::testing::AtLeast(1));
    m_engine->OnGetIPAddress(answer);
    // Idle again while the socket is still busy with the first connect: a
    // new connect aborts it without a report and connects once more.
    ASSERT_EQ(m_engine->State(), ENotConnected);
    ASSERT_NE(m_engine->SocketState(), QAbstractSocket::UnconnectedState);
    ASSERT_EQ(m_engine->StartConnect(), CSocketsEngine::KConnectStarted);
    EXPECT_EQ(m_engine->State(), EConnecting);
    ASSERT_TRUE(velatest::SpinUntil([this] { return m_engine->Connected(); }, KDeadlineMs));
    EXPECT_EQ(m_engine->SocketState(), QAbstractSocket::ConnectedState);
}

TEST_F(SocketsEngineTest, CancelWhileTheSocketLooksTheNameUpAbortsIt)
{
    // ConnectL(address) hands a name to the socket as it stands.
    m_engine->SetPort(m_server.Port());
    m_engine->ConnectL(QStringLiteral("socket-lookup.invalid"));
    ASSERT_EQ(m_engine->State(), EConnecting);
    ASSERT_EQ(m_engine->SocketState(), QAbstractSocket::HostLookupState);
    m_engine->DoCancel();
    EXPECT_EQ(m_engine->State(), ENotConnected);
    EXPECT_EQ(m_engine->SocketState(), QAbstractSocket::UnconnectedState);
    EXPECT_FALSE(m_engine->IsConnectTimeOutRunning());
    velatest::ProcessPendingEvents();
    EXPECT_EQ(m_server.Count(), 0);
}

}  // namespace

QT_WARNING_POP
