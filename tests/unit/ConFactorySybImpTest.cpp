// The long connections' factory: ten slots, the fatal check on an eleventh
// live connection, slot reuse after RelTcpCon, Release closing without
// reports, connections of another factory left alone, and the access point
// questions passed to the access point engine the client gave the factory.

#include "src/ConFactorySybImp.h"

#include "BaseClass/src/CQString.h"
#include "src/IAPConnectEngine.h"
#include "src/SocketsEngine.h"
#include "src/TcpConnection.h"
#include "src/internal/IAPConfigurations_p.h"

#include "support/HeapWatch.h"
#include "support/LoopbackServer.h"
#include "support/TestSupport.h"

#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

using MockObserver = velatest::MockTcpConObserver;
using Server = velatest::LoopbackServer;

using ::testing::StrictMock;

constexpr int KDeadlineMs = 10000;

CSocketsEngine* EngineOf(ITcpCon* connection)
{
    return static_cast<CTcpConnection*>(connection)->SocketsEngine();
}

// Connects connection to server and waits for OnConnected.
void ConnectTo(ITcpCon* connection, StrictMock<MockObserver>& observer, const Server& server, int expectedCount)
{
    char address[] = "127.0.0.1";
    connection->SetObserver(&observer);
    EXPECT_CALL(observer, OnConnected()).Times(1);
    ASSERT_EQ(connection->Connect(address, server.Port()), 1);
    ASSERT_TRUE(velatest::SpinUntil([&] { return connection->IsConnected(); }, KDeadlineMs));
    ASSERT_TRUE(velatest::SpinUntil([&] { return server.Count() >= expectedCount; }, KDeadlineMs));
    ::testing::Mock::VerifyAndClearExpectations(&observer);
}

// ------------------------------------------------------------ slots

TEST(ConFactorySybImpTest, NewFactoryHasNoEngineAndNoConnections)
{
    CConFactorySybImp factory;
    EXPECT_EQ(factory.Init(), 1);
    EXPECT_EQ(factory.GetIapConnectEngine(), nullptr);
    EXPECT_EQ(factory.GetConnectionCount(), 0);
    for (int i = 0; i < CConFactorySybImp::KMaxConnections; ++i)
        EXPECT_EQ(factory.ConnectionAt(i), nullptr);
}

TEST(ConFactorySybImpTest, TenConnectionsFillTheSlotsInOrder)
{
    CConFactorySybImp factory;
    std::set<ITcpCon*> seen;
    for (int i = 0; i < 10; ++i) {
        ITcpCon* connection = factory.GetTcpCon();
        ASSERT_NE(connection, nullptr) << "connection " << i;
        EXPECT_EQ(factory.ConnectionAt(i), connection);
        EXPECT_FALSE(connection->IsConnected());
        seen.insert(connection);
    }
    EXPECT_EQ(seen.size(), 10u);
    EXPECT_EQ(factory.GetConnectionCount(), 10);
}

TEST(ConFactorySybImpTest, ConnectionAtOutsideTheTenSlotsIsNull)
{
    CConFactorySybImp factory;
    ITcpCon* connection = factory.GetTcpCon();
    ASSERT_EQ(factory.ConnectionAt(0), connection);
    EXPECT_EQ(factory.ConnectionAt(-1), nullptr);
    EXPECT_EQ(factory.ConnectionAt(CConFactorySybImp::KMaxConnections), nullptr);
    EXPECT_EQ(factory.ConnectionAt(CConFactorySybImp::KMaxConnections - 1), nullptr);
}

TEST(ConFactorySybImpTest, ConnectionWithoutMemoryForItsEngineIsNotHandedOut)
{
    CConFactorySybImp factory;
    velatest::HeapWatch::FailNothrowAfter(0);
    ITcpCon* connection = factory.GetTcpCon();
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(connection, nullptr);
    EXPECT_EQ(factory.GetConnectionCount(), 0);
    EXPECT_EQ(factory.ConnectionAt(0), nullptr);
    // With memory again, the first slot is still free.
    ITcpCon* next = factory.GetTcpCon();
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(factory.ConnectionAt(0), next);
    EXPECT_EQ(factory.GetConnectionCount(), 1);
}

TEST(ConFactorySybImpDeathTest, EleventhLiveConnectionIsFatal)
{
    EXPECT_DEATH(
        {
            CConFactorySybImp factory;
            for (int i = 0; i < 11; ++i)
                factory.GetTcpCon();
        },
        "ASSERT: \"false\" in file src/ConFactorySybImp, line 132");
}

TEST(ConFactorySybImpTest, RelTcpConFreesTheSlotForTheNextConnection)
{
    CConFactorySybImp factory;
    std::vector<ITcpCon*> connections;
    for (int i = 0; i < 3; ++i)
        connections.push_back(factory.GetTcpCon());
    factory.RelTcpCon(connections[1]);
    EXPECT_EQ(factory.ConnectionAt(1), nullptr);
    EXPECT_EQ(factory.GetConnectionCount(), 2);

    ITcpCon* next = factory.GetTcpCon();
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(factory.ConnectionAt(1), next);
    EXPECT_EQ(factory.ConnectionAt(3), nullptr);
    EXPECT_EQ(factory.GetConnectionCount(), 3);
}

TEST(ConFactorySybImpTest, ReleasedSlotLetsATenthConnectionIn)
{
    CConFactorySybImp factory;
    ITcpCon* first = nullptr;
    for (int i = 0; i < 10; ++i) {
        ITcpCon* connection = factory.GetTcpCon();
        if (i == 0)
            first = connection;
    }
    factory.RelTcpCon(first);
    ITcpCon* again = factory.GetTcpCon();
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(factory.ConnectionAt(0), again);
    EXPECT_EQ(factory.GetConnectionCount(), 10);
}

TEST(ConFactorySybImpTest, RelTcpConOfAnotherFactorysConnectionChangesNothing)
{
    CConFactorySybImp factory;
    CConFactorySybImp other;
    ITcpCon* mine = factory.GetTcpCon();
    ITcpCon* theirs = other.GetTcpCon();
    factory.RelTcpCon(theirs);
    factory.RelTcpCon(nullptr);
    EXPECT_EQ(factory.GetConnectionCount(), 1);
    EXPECT_EQ(factory.ConnectionAt(0), mine);
    EXPECT_EQ(other.GetConnectionCount(), 1);
    EXPECT_EQ(other.ConnectionAt(0), theirs);
    // Still alive and usable (the sanitizer build would see a freed one).
    EXPECT_FALSE(theirs->IsConnected());
    theirs->SetObserver(nullptr);
}

TEST(ConFactorySybImpTest, RelTcpConTwiceActsOnce)
{
    CConFactorySybImp factory;
    ITcpCon* connection = factory.GetTcpCon();
    factory.GetTcpCon();
    factory.RelTcpCon(connection);
    factory.RelTcpCon(connection);  // no longer in a slot: nothing happens
    EXPECT_EQ(factory.GetConnectionCount(), 1);
}

TEST(ConFactorySybImpTest, DestructorFreesConnectionsStillInSlots)
{
    velatest::HeapWatch::Clear();
    auto factory = std::make_unique<CConFactorySybImp>();
    std::vector<const void*> blocks;
    for (int i = 0; i < 4; ++i) {
        ITcpCon* connection = factory->GetTcpCon();
        ASSERT_NE(nullptr, connection);
        blocks.push_back(dynamic_cast<void*>(connection));
        velatest::HeapWatch::Watch(blocks.back());
    }
    EXPECT_EQ(4, factory->GetConnectionCount());
    factory.reset();
    for (const void* block : blocks)
        EXPECT_TRUE(velatest::HeapWatch::Freed(block));
}

// ------------------------------------------------------------ live connections

TEST(ConFactorySybImpLiveTest, RelTcpConClosesAConnectedConnectionWithoutReport)
{
    Server server;
    ASSERT_TRUE(server.Listen());
    CConFactorySybImp factory;
    StrictMock<MockObserver> observer;
    ITcpCon* connection = factory.GetTcpCon();
    ConnectTo(connection, observer, server, 1);
    factory.RelTcpCon(connection);
    EXPECT_EQ(factory.GetConnectionCount(), 0);
    ASSERT_TRUE(server.WaitForPeerClose(0));
    velatest::ProcessPendingEvents();
}

TEST(ConFactorySybImpLiveTest, ReleaseClosesConnectedConnectionsAndKeepsThemInTheirSlots)
{
    Server server;
    ASSERT_TRUE(server.Listen());
    CConFactorySybImp factory;
    StrictMock<MockObserver> first;
    StrictMock<MockObserver> third;
    ITcpCon* a = factory.GetTcpCon();
    ITcpCon* idle = factory.GetTcpCon();
    ITcpCon* c = factory.GetTcpCon();
    ConnectTo(a, first, server, 1);
    ConnectTo(c, third, server, 2);

    factory.Release();
    EXPECT_FALSE(a->IsConnected());
    EXPECT_FALSE(c->IsConnected());
    EXPECT_FALSE(idle->IsConnected());
    EXPECT_EQ(factory.ConnectionAt(0), a);
    EXPECT_EQ(factory.ConnectionAt(1), idle);
    EXPECT_EQ(factory.ConnectionAt(2), c);
    EXPECT_EQ(factory.GetConnectionCount(), 3);
    EXPECT_EQ(EngineOf(a)->State(), ENotConnected);
    ASSERT_TRUE(server.WaitForPeerClose(0));
    ASSERT_TRUE(server.WaitForPeerClose(1));
    velatest::ProcessPendingEvents();
}

// ------------------------------------------------------------ access point engine

TEST(ConFactorySybImpIapTest, WithoutAnEngineTheAnswersAreFixed)
{
    CConFactorySybImp factory;
    EXPECT_FALSE(factory.IsWifiAPN());
    CQWString name(QString("unchanged"));
    factory.GetIapName(name);
    EXPECT_EQ(name, CQWString(QString("unchanged")));
    factory.GetApnName(name);
    EXPECT_EQ(name, CQWString(QString("unchanged")));
    EXPECT_TRUE(factory.LoadDefaultIAPID().isEmpty());
    factory.SaveDefaultIAPID(7);
    factory.SetIap();
    factory.RecoverIap();
    factory.OnTimer();
    EXPECT_EQ(factory.GetIapConnectEngine(), nullptr);
}

TEST(ConFactorySybImpIapTest, SetIapEngineReachesTheConnectionsMadeAfterIt)
{
    std::unique_ptr<CIAPConnectEngine> iap(CIAPConnectEngine::NewL("factory-iap"));
    CConFactorySybImp factory;
    ITcpCon* before = factory.GetTcpCon();
    factory.SetIapEngine(iap.get());
    EXPECT_EQ(factory.GetIapConnectEngine(), iap.get());
    ITcpCon* after = factory.GetTcpCon();
    EXPECT_EQ(EngineOf(before)->IapEngine(), nullptr);
    EXPECT_EQ(EngineOf(after)->IapEngine(), iap.get());
}

TEST(ConFactorySybImpIapTest, ConstructorArgumentGivesTheEngineToo)
{
    std::unique_ptr<CIAPConnectEngine> iap(CIAPConnectEngine::NewL("factory-iap"));
    CConFactorySybImp factory(iap.get());
    EXPECT_EQ(factory.GetIapConnectEngine(), iap.get());
    EXPECT_EQ(EngineOf(factory.GetTcpCon())->IapEngine(), iap.get());
}

TEST(ConFactorySybImpIapTest, QuestionsGoToTheAccessPointEngine)
{
    std::unique_ptr<CIAPConnectEngine> iap(CIAPConnectEngine::NewL("factory-iap"));
    CConFactorySybImp factory;
    factory.SetIapEngine(iap.get());

    velanet::IAPConfigurationRecord wlan;
    wlan.m_nState = 14;  // QNetworkConfiguration::Active
    wlan.m_strBearerTypeName = "WLAN";
    velanet::IAPConfigurationRecord ethernet;
    ethernet.m_nState = 14;
    ethernet.m_strBearerTypeName = "Ethernet";

    velanet::SetIAPConfigurationSource([&] { return QList<velanet::IAPConfigurationRecord>{wlan}; });
    EXPECT_TRUE(iap->IsWifiAPN());
    EXPECT_TRUE(factory.IsWifiAPN());
    velanet::SetIAPConfigurationSource([&] { return QList<velanet::IAPConfigurationRecord>{ethernet}; });
    EXPECT_FALSE(iap->IsWifiAPN());
    EXPECT_FALSE(factory.IsWifiAPN());
    velanet::SetIAPConfigurationSource({});

    // The access point engine leaves the names unchanged.
    CQWString name(QString("kept"));
    factory.GetIapName(name);
    factory.GetApnName(name);
    EXPECT_EQ(name, CQWString(QString("kept")));
}

TEST(ConFactorySybImpIapTest, DestroyedEngineIsForgotten)
{
    CIAPConnectEngine* iap = CIAPConnectEngine::NewL("factory-iap");
    CConFactorySybImp factory(iap);
    ITcpCon* connection = factory.GetTcpCon();
    EngineOf(connection);
    delete iap;
    EXPECT_EQ(factory.GetIapConnectEngine(), nullptr);
    EXPECT_FALSE(factory.IsWifiAPN());
    CQWString name(QString("kept"));
    factory.GetIapName(name);
    EXPECT_EQ(name, CQWString(QString("kept")));
    EXPECT_EQ(EngineOf(connection)->IapEngine(), nullptr);
}

}  // namespace
