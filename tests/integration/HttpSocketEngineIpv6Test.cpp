// The socket engine and IPv6: literal addresses, and lookup answers that
// hold IPv6 addresses, against servers on ::1 and 127.0.0.1. Lookup answers
// are handed to the engine as QHostInfo would deliver them, so the test
// needs no name that resolves to ::1 on this machine.

#include "src/CQHttpSocketEngine.h"

#include "BaseClass/src/CQInstance.h"
#include "src/DNSCache.h"

#include "support/ServerFixtures.h"
#include "support/TestSupport.h"

#include <QHostAddress>
#include <QHostInfo>
#include <QTcpServer>
#include <QTcpSocket>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

class CQHttpSocketEngineTestPeer
{
public:
    static int LookupId(const CQHttpSocketEngine& engine) { return engine.iLookupId; }
    static void GiveLookupAnswer(CQHttpSocketEngine& engine, const QHostInfo& info) { engine.OnGetIPAddress(info); }
    static QString ServerIp(const CQHttpSocketEngine& engine) { return engine.iServerIp; }
};

namespace {

using ::testing::InSequence;
using ::testing::StrictMock;

using Peer = CQHttpSocketEngineTestPeer;

constexpr int KDeadlineMs = 10000;
constexpr quint32 KLoopback = 0x7F000001u;

class MockObserver : public MSocketEngineObserver
{
public:
    MOCK_METHOD(void, OnSocketEngine_SocketEvent, (int event, int param), (override));
    MOCK_METHOD(int, OnSocketEngine_ReceiveData, (unsigned char* data, int len), (override));
    MOCK_METHOD(int, OnSocketEngine_SendData, (unsigned char* data, int len), (override));
    MOCK_METHOD(int, OnSocketEngine_ReceivDataEnd, (), (override));
    MOCK_METHOD(unsigned char*, OnSocketEngine_GetMoreSendData, (int offset, int& len), (override));
};

// Accepts connections on one address and counts them.
class Listener
{
public:
    explicit Listener(const QHostAddress& address)
    {
        m_listening = m_server.listen(address, 0);
        QObject::connect(&m_server, &QTcpServer::newConnection, &m_server, [this] {
            while (QTcpSocket* socket = m_server.nextPendingConnection()) {
                ++connections;
                socket->setParent(&m_server);
            }
        });
    }
    bool Listening() const { return m_listening; }
    quint16 Port() const { return m_server.serverPort(); }

    int connections = 0;

private:
    QTcpServer m_server;
    bool m_listening = false;
};

class HttpSocketEngineIpv6Test : public ::testing::Test
{
protected:
    void SetUp() override
    {
        VELATEST_NEED_IPV6_OR_SKIP();
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

    void SetName(const QByteArray& name)
    {
        QByteArray copy = name;
        engine->SetServerName(reinterpret_cast<unsigned char*>(copy.data()), copy.size());
    }

    // Starts a lookup of name and replaces its answer with addresses.
    void AnswerLookup(const QByteArray& name, quint16 port, const QList<QHostAddress>& addresses)
    {
        SetName(name);
        engine->SetPort(port);
        ASSERT_EQ(1, engine->ConnectL());
        ASSERT_EQ(CQHttpSocketEngine::HSES_LookingUp, engine->GetEngineStatus());
        const int id = Peer::LookupId(*engine);
        QHostInfo::abortHostLookup(id);
        QHostInfo answer(id);
        answer.setHostName(QString::fromLatin1(name));
        answer.setAddresses(addresses);
        Peer::GiveLookupAnswer(*engine, answer);
    }

    bool Connected() const { return engine->GetEngineStatus() == CQHttpSocketEngine::HSES_Connected; }

    static bool Cached(const char* host, bool freshOnly, unsigned int& ip)
    {
        CDNSCache* cache = CDNSCache::GetOrCreateRegistered();
        return cache != nullptr && cache->GetAddress(CQWString(QString::fromLatin1(host)), freshOnly, ip);
    }

    velatest::TempDir m_dnsDir;
    StrictMock<MockObserver> observer;
    std::unique_ptr<CQHttpSocketEngine> engine;
};

TEST_F(HttpSocketEngineIpv6Test, LiteralIPv6ConnectsWithoutLookupOrCache)
{
    Listener server{QHostAddress(QHostAddress::LocalHostIPv6)};
    ASSERT_TRUE(server.Listening());
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0));
    SetName("::1");
    engine->SetPort(server.Port());
    ASSERT_EQ(1, engine->ConnectL());
    ASSERT_TRUE(velatest::SpinUntil([&] { return Connected() && server.connections == 1; }, KDeadlineMs));
    EXPECT_EQ(QString("::1"), Peer::ServerIp(*engine));
    EXPECT_EQ(nullptr, CQInstance::Instance()->GetByUid(CDNSCache::KUidDNSCache));
}

TEST_F(HttpSocketEngineIpv6Test, AnswerWithOnlyIPv6ConnectsToTheFirstAndCachesNothing)
{
    Listener server{QHostAddress(QHostAddress::LocalHostIPv6)};
    ASSERT_TRUE(server.Listening());
    {
        InSequence order;
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(38, 0));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(37, 0));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0));
    }
    AnswerLookup("v6only.test", server.Port(), {QHostAddress("::1"), QHostAddress("2001:db8::1")});
    ASSERT_TRUE(velatest::SpinUntil([&] { return Connected() && server.connections == 1; }, KDeadlineMs));
    EXPECT_EQ(QString("::1"), Peer::ServerIp(*engine));
    unsigned int ip = 0;
    EXPECT_FALSE(Cached("v6only.test", false, ip));
}

TEST_F(HttpSocketEngineIpv6Test, AnswerWithBothUsesTheFirstIPv4AndCachesIt)
{
    Listener server{QHostAddress(QHostAddress::LocalHost)};
    ASSERT_TRUE(server.Listening());
    {
        InSequence order;
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(38, 0));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(37, 0));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0));
    }
    AnswerLookup("dual.test", server.Port(), {QHostAddress("::1"), QHostAddress("127.0.0.1")});
    ASSERT_TRUE(velatest::SpinUntil([&] { return Connected() && server.connections == 1; }, KDeadlineMs));
    EXPECT_EQ(QString("127.0.0.1"), Peer::ServerIp(*engine));
    unsigned int ip = 0;
    ASSERT_TRUE(Cached("dual.test", true, ip));
    EXPECT_EQ(KLoopback, ip);
}

TEST_F(HttpSocketEngineIpv6Test, FreshIPv6AnswerWinsOverAStaleIPv4Entry)
{
    Listener server{QHostAddress(QHostAddress::LocalHostIPv6)};
    ASSERT_TRUE(server.Listening());
    // An entry of an earlier run: found only with freshOnly false.
    CDNSCache* cache = CDNSCache::GetOrCreateRegistered();
    ASSERT_NE(nullptr, cache);
    cache->Update(CQWString(L"moved.test"), 0x0A000001u);
    CDNSCache::ReleaseRegistered();
    unsigned int ip = 0;
    ASSERT_FALSE(Cached("moved.test", true, ip));
    ASSERT_TRUE(Cached("moved.test", false, ip));
    {
        InSequence order;
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(38, 0));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(37, 0));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0));
    }
    AnswerLookup("moved.test", server.Port(), {QHostAddress("::1")});
    ASSERT_TRUE(velatest::SpinUntil([&] { return Connected() && server.connections == 1; }, KDeadlineMs));
    EXPECT_EQ(QString("::1"), Peer::ServerIp(*engine));
    // The old entry is left as it was.
    ASSERT_TRUE(Cached("moved.test", false, ip));
    EXPECT_EQ(0x0A000001u, ip);
}

TEST_F(HttpSocketEngineIpv6Test, AnswerWithoutAddressesStillReports36)
{
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(38, 0));
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(36, 0));
    AnswerLookup("nothing.test", 80, {});
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, engine->GetEngineStatus());
}

TEST_F(HttpSocketEngineIpv6Test, IPv6PeerThatRefusesIsEvent34)
{
    const quint16 port = velatest::FreePortIPv6();
    ASSERT_NE(0, port);
    bool failed = false;
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(34, 0)).WillOnce([&](int, int) { failed = true; });
    SetName("::1");
    engine->SetPort(port);
    ASSERT_EQ(1, engine->ConnectL());
    ASSERT_TRUE(velatest::SpinUntil([&] { return failed; }, KDeadlineMs));
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, engine->GetEngineStatus());
}

}  // namespace
