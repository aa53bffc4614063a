// The access point engine: its registry entry, the fixed session answers,
// the observer list, the IAP file and the WLAN question.

#include "src/IAPConnectEngine.h"

#include "BaseClass/src/CQInstance.h"
#include "BaseClass/src/CQPath.h"
#include "BaseClass/src/CQString.h"
#include "src/internal/IAPConfigurations_p.h"

#include "support/TestSupport.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QMetaObject>
#include <QtGlobal>

QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED
#include <QNetworkConfiguration>
#include <QNetworkConfigurationManager>
QT_WARNING_POP

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

// Reaches the engine's private fields.
class CIAPConnectEngineTestPeer
{
public:
    static const QString& CurrentIap(const CIAPConnectEngine& e) { return e.m_strCurrentIap; }
    static int SessionState(const CIAPConnectEngine& e) { return e.m_nSessionState; }
    static int BlockSize(const CIAPConnectEngine& e) { return e.m_listObservers.m_nBlockSize; }
    static int BlockCount(const CIAPConnectEngine& e)
    {
        int count = 0;
        for (const CQPlex* block = e.m_listObservers.m_pBlocks; block != nullptr; block = block->pNext)
            ++count;
        return count;
    }
    // The observers from head to tail.
    static std::vector<MIAPConnectStateObserver*> Observers(const CIAPConnectEngine& e)
    {
        std::vector<MIAPConnectStateObserver*> all;
        for (auto* pos = e.m_listObservers.GetHeadPosition(); pos != nullptr;)
            all.push_back(e.m_listObservers.GetNext(pos));
        return all;
    }
};

namespace {

using Peer = CIAPConnectEngineTestPeer;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StrictMock;

constexpr int KUid = 16;

QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED
const int KUndefined = static_cast<int>(QNetworkConfiguration::Undefined);
const int KDefined = static_cast<int>(QNetworkConfiguration::Defined);
const int KDiscovered = static_cast<int>(QNetworkConfiguration::Discovered);
const int KActive = static_cast<int>(QNetworkConfiguration::Active);
QT_WARNING_POP

// Nothing in the library calls these; a strict mock fails on any call.
class MockIapObserver : public MIAPConnectStateObserver
{
public:
    MOCK_METHOD(void, OnIapTransferBlocked, (), (override));
    MOCK_METHOD(void, OnIapTransferOpen, (), (override));
};

void* Registered()
{
    return CQInstance::Instance()->GetByUid(KUid);
}

QByteArray ReadWhole(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray("<cannot open>");
    return file.readAll();
}

bool WriteWhole(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

class IAPConnectEngineTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_iapPath = m_dir.File("iap.dat");
        SetPath(m_iapPath);
        engine.reset(CIAPConnectEngine::NewL(QStringLiteral("cmnet")));
        ASSERT_NE(nullptr, engine);
    }

    void TearDown() override
    {
        engine.reset();
        velanet::SetIAPConfigurationSource({});
        CQPath::SetIAPFilePath(CQSString(CQPath::DefaultIAPFilePath()));
    }

    static void SetPath(const QString& path)
    {
        const QByteArray local = path.toLocal8Bit();
        CQPath::SetIAPFilePath(CQSString(local.constData(), local.size()));
    }

    velatest::TempDir m_dir;
    QString m_iapPath;
    std::unique_ptr<CIAPConnectEngine> engine;
};

// ---------------------------------------------------------------- registry

TEST_F(IAPConnectEngineTest, UidIs16)
{
    EXPECT_EQ(16, static_cast<int>(CIAPConnectEngine::KUidIAPConnectEngine));
}

TEST_F(IAPConnectEngineTest, ConstructionRegistersUnderUid16)
{
    EXPECT_EQ(static_cast<void*>(engine.get()), Registered());
}

TEST_F(IAPConnectEngineTest, DestructionRemovesItsOwnEntry)
{
    engine.reset();
    EXPECT_EQ(nullptr, Registered());
}

TEST_F(IAPConnectEngineTest, NewerEngineTakesTheEntryAndSurvivesTheOlderOnesDestruction)
{
    std::unique_ptr<CIAPConnectEngine> newer(CIAPConnectEngine::NewL(QStringLiteral("wifi")));
    ASSERT_NE(nullptr, newer);
    EXPECT_EQ(static_cast<void*>(newer.get()), Registered());
    engine.reset();
    EXPECT_EQ(static_cast<void*>(newer.get()), Registered());
    newer.reset();
    EXPECT_EQ(nullptr, Registered());
}

TEST_F(IAPConnectEngineTest, DestructionLeavesAnotherObjectsEntryAlone)
{
    int other = 0;
    ASSERT_EQ(1, CQInstance::Instance()->AddWithUid(&other, KUid));
    engine.reset();
    EXPECT_EQ(static_cast<void*>(&other), Registered());
    CQInstance::Instance()->RemoveByUid(KUid);
}

TEST_F(IAPConnectEngineTest, IsAQObjectWithItsOwnMetaObject)
{
    EXPECT_STREQ("CIAPConnectEngine", engine->metaObject()->className());
    EXPECT_NE(nullptr, qobject_cast<CIAPConnectEngine*>(static_cast<QObject*>(engine.get())));
}

// ---------------------------------------------------------------- session answers

TEST_F(IAPConnectEngineTest, ConnectAlwaysSucceeds)
{
    EXPECT_TRUE(engine->Connect());
    EXPECT_TRUE(engine->Connect());
}

TEST_F(IAPConnectEngineTest, IsConnectedLIsFalseEvenAfterConnect)
{
    EXPECT_FALSE(engine->IsConnectedL());
    EXPECT_TRUE(engine->Connect());
    EXPECT_FALSE(engine->IsConnectedL());
}

TEST_F(IAPConnectEngineTest, ResetIapReturnsZero)
{
    EXPECT_EQ(0, engine->ResetIap());
}

TEST_F(IAPConnectEngineTest, GetIAPIdIsTheConstructionName)
{
    EXPECT_EQ(QStringLiteral("cmnet"), engine->GetIAPId());
}

TEST_F(IAPConnectEngineTest, SetIapMakesTheConstructionNameCurrentAndReturnsIt)
{
    EXPECT_TRUE(Peer::CurrentIap(*engine).isEmpty());
    EXPECT_EQ(QStringLiteral("cmnet"), engine->SetIap());
    EXPECT_EQ(QStringLiteral("cmnet"), Peer::CurrentIap(*engine));
}

TEST_F(IAPConnectEngineTest, NameLookupsLeaveTheTextUnchanged)
{
    CQWString iap(L"before-iap");
    CQWString apn(L"before-apn");
    engine->GetIapName(iap);
    engine->GetApnName(apn);
    EXPECT_TRUE(iap == L"before-iap");
    EXPECT_TRUE(apn == L"before-apn");
}

TEST_F(IAPConnectEngineTest, DoNothingCallsChangeNothingAndCallNoObserver)
{
    StrictMock<MockIapObserver> observer;
    engine->AddConnectStateObserver(&observer);
    QString chosen = QStringLiteral("other-ap");

    engine->CloseConnect();
    engine->RecoverIap();
    engine->StartFluxCount(&observer);
    engine->onSelectedIAPName(chosen);

    EXPECT_EQ(QStringLiteral("other-ap"), chosen);
    EXPECT_EQ(QStringLiteral("cmnet"), engine->GetIAPId());
    EXPECT_TRUE(Peer::CurrentIap(*engine).isEmpty());
    EXPECT_EQ(CIAPConnectEngine::KSessionNone, Peer::SessionState(*engine));
    EXPECT_THAT(Peer::Observers(*engine), ElementsAre(&observer));
    EXPECT_FALSE(QFile::exists(m_iapPath));
    engine->RemoveConnectStateObserver(&observer);
}

TEST_F(IAPConnectEngineTest, SelectedNameThroughTheDialogInterfaceDoesNothing)
{
    SelectIAPObserver* asDialogObserver = engine.get();
    QString chosen = QStringLiteral("wlan-home");
    asDialogObserver->onSelectedIAPName(chosen);
    EXPECT_EQ(QStringLiteral("cmnet"), engine->GetIAPId());
    EXPECT_FALSE(QFile::exists(m_iapPath));
}

TEST_F(IAPConnectEngineTest, SessionStateIs0ThenSessionOpenedSlotMakesIt2)
{
    EXPECT_EQ(0, Peer::SessionState(*engine));
    ASSERT_TRUE(QMetaObject::invokeMethod(engine.get(), "sessionOpened"));
    EXPECT_EQ(2, Peer::SessionState(*engine));
}

// A zero-interval timer would fire on every turn of the loop; the engine's
// timerEvent kills it after its first event.
TEST_F(IAPConnectEngineTest, TimerEventKillsTheTimer)
{
    struct TimerCounter : QObject
    {
        int count = 0;
        bool eventFilter(QObject*, QEvent* event) override
        {
            if (event->type() == QEvent::Timer)
                ++count;
            return false;
        }
    } counter;
    engine->installEventFilter(&counter);

    const int id = engine->startTimer(0);
    ASSERT_NE(0, id);
    ASSERT_TRUE(velatest::SpinUntil([&] { return counter.count >= 1; }));
    for (int i = 0; i < 20; ++i)
        QCoreApplication::processEvents();
    EXPECT_EQ(1, counter.count);
    EXPECT_TRUE(QAbstractEventDispatcher::instance()->registeredTimers(engine.get()).isEmpty());
    engine->removeEventFilter(&counter);
}

// ---------------------------------------------------------------- observers

TEST_F(IAPConnectEngineTest, ObserverListUsesBlocksOfOneNode)
{
    EXPECT_EQ(1, Peer::BlockSize(*engine));
    EXPECT_EQ(0, Peer::BlockCount(*engine));
    StrictMock<MockIapObserver> a, b, c;
    engine->AddConnectStateObserver(&a);
    engine->AddConnectStateObserver(&b);
    engine->AddConnectStateObserver(&c);
    EXPECT_EQ(3, Peer::BlockCount(*engine));
    engine->RemoveConnectStateObserver(&b);
    engine->RemoveConnectStateObserver(&a);
    engine->RemoveConnectStateObserver(&c);
}

TEST_F(IAPConnectEngineTest, ObserversAreAppendedAtTheTail)
{
    StrictMock<MockIapObserver> a, b, c;
    engine->AddConnectStateObserver(&a);
    engine->AddConnectStateObserver(&b);
    engine->AddConnectStateObserver(&c);
    EXPECT_THAT(Peer::Observers(*engine), ElementsAre(&a, &b, &c));
    EXPECT_EQ(3, engine->GetConnectStateObserverCount());
    engine->RemoveConnectStateObserver(&a);
    engine->RemoveConnectStateObserver(&b);
    engine->RemoveConnectStateObserver(&c);
}

TEST_F(IAPConnectEngineTest, AddingTheSameObserverTwiceKeepsOneEntry)
{
    StrictMock<MockIapObserver> a, b;
    engine->AddConnectStateObserver(&a);
    engine->AddConnectStateObserver(&b);
    engine->AddConnectStateObserver(&a);
    EXPECT_THAT(Peer::Observers(*engine), ElementsAre(&a, &b));
    EXPECT_EQ(2, Peer::BlockCount(*engine));
    engine->RemoveConnectStateObserver(&a);
    EXPECT_THAT(Peer::Observers(*engine), ElementsAre(&b));
    EXPECT_FALSE(engine->HasConnectStateObserver(&a));
    engine->RemoveConnectStateObserver(&b);
}

TEST_F(IAPConnectEngineTest, RemovingAnUnregisteredObserverChangesNothing)
{
    StrictMock<MockIapObserver> a, b, stranger;
    engine->AddConnectStateObserver(&a);
    engine->AddConnectStateObserver(&b);
    engine->RemoveConnectStateObserver(&stranger);
    EXPECT_THAT(Peer::Observers(*engine), ElementsAre(&a, &b));
    EXPECT_EQ(2, Peer::BlockCount(*engine));
    engine->RemoveConnectStateObserver(&a);
    engine->RemoveConnectStateObserver(&b);
}

TEST_F(IAPConnectEngineTest, RemovingFromAnEmptyListChangesNothing)
{
    StrictMock<MockIapObserver> stranger;
    engine->RemoveConnectStateObserver(&stranger);
    engine->RemoveConnectStateObserver(nullptr);
    EXPECT_EQ(0, engine->GetConnectStateObserverCount());
    EXPECT_EQ(0, Peer::BlockCount(*engine));
}

TEST_F(IAPConnectEngineTest, RemovingTheMiddleObserverKeepsTheOrderOfTheOthers)
{
    StrictMock<MockIapObserver> a, b, c;
    engine->AddConnectStateObserver(&a);
    engine->AddConnectStateObserver(&b);
    engine->AddConnectStateObserver(&c);
    engine->RemoveConnectStateObserver(&b);
    EXPECT_THAT(Peer::Observers(*engine), ElementsAre(&a, &c));
    engine->AddConnectStateObserver(&b);
    EXPECT_THAT(Peer::Observers(*engine), ElementsAre(&a, &c, &b));
    engine->RemoveConnectStateObserver(&a);
    engine->RemoveConnectStateObserver(&b);
    engine->RemoveConnectStateObserver(&c);
}

TEST_F(IAPConnectEngineTest, RemovingTheLastObserverReleasesTheNodeStorage)
{
    StrictMock<MockIapObserver> a, b;
    engine->AddConnectStateObserver(&a);
    engine->AddConnectStateObserver(&b);
    engine->RemoveConnectStateObserver(&a);
    EXPECT_NE(0, Peer::BlockCount(*engine));
    engine->RemoveConnectStateObserver(&b);
    EXPECT_EQ(0, Peer::BlockCount(*engine));
    EXPECT_THAT(Peer::Observers(*engine), IsEmpty());
    // The list works again after being emptied.
    engine->AddConnectStateObserver(&b);
    EXPECT_THAT(Peer::Observers(*engine), ElementsAre(&b));
    engine->RemoveConnectStateObserver(&b);
    EXPECT_EQ(0, Peer::BlockCount(*engine));
}

TEST_F(IAPConnectEngineTest, NullObserverIsNotAdded)
{
    engine->AddConnectStateObserver(nullptr);
    EXPECT_EQ(0, engine->GetConnectStateObserverCount());
    EXPECT_EQ(0, Peer::BlockCount(*engine));
}

TEST_F(IAPConnectEngineTest, DestroyingTheEngineWithObserversLeftFreesItsList)
{
    StrictMock<MockIapObserver> a, b;
    engine->AddConnectStateObserver(&a);
    engine->AddConnectStateObserver(&b);
    engine.reset();  // the sanitizer build reports any block left behind
    EXPECT_EQ(nullptr, Registered());
}

// ---------------------------------------------------------------- IAP file

TEST_F(IAPConnectEngineTest, IAPFilePathComesFromCQPath)
{
    QString path;
    engine->GetIAPFilePath(path);
    EXPECT_EQ(m_iapPath, path);
}

TEST_F(IAPConnectEngineTest, DefaultIAPFilePath)
{
    CQPath::SetIAPFilePath(CQSString(CQPath::DefaultIAPFilePath()));
    QString path;
    engine->GetIAPFilePath(path);
    EXPECT_EQ(QStringLiteral("/opt/meegovela/Browser/iap.dat"), path);
}

TEST_F(IAPConnectEngineTest, EveryBackslashOfThePathBecomesASlash)
{
    CQPath::SetIAPFilePath(CQSString("\\opt\\meegovela\\\\Browser\\iap.dat"));
    QString path;
    engine->GetIAPFilePath(path);
    EXPECT_EQ(QStringLiteral("/opt/meegovela//Browser/iap.dat"), path);
}

TEST_F(IAPConnectEngineTest, SaveIapUsesTheSlashedPath)
{
    const QByteArray local = QDir::toNativeSeparators(m_dir.Path()).toLocal8Bit() + "\\saved.dat";
    CQPath::SetIAPFilePath(CQSString(local.constData(), local.size()));
    engine->SaveIap(QStringLiteral("cmwap"));
    EXPECT_EQ(QByteArray("cmwap"), ReadWhole(m_dir.File("saved.dat")));
    EXPECT_EQ(QStringLiteral("cmwap"), engine->ReadIap());
}

TEST_F(IAPConnectEngineTest, SaveIapWritesTheNameBytesAloneWithoutTerminatorOrLineEnd)
{
    engine->SaveIap(QStringLiteral("cmnet"));
    EXPECT_EQ(QByteArray("cmnet", 5), ReadWhole(m_iapPath));
}

TEST_F(IAPConnectEngineTest, SaveThenReadGivesTheNameBack)
{
    engine->SaveIap(QStringLiteral("Home WLAN 5G"));
    EXPECT_EQ(QStringLiteral("Home WLAN 5G"), engine->ReadIap());
}

TEST_F(IAPConnectEngineTest, SaveIapTruncatesALongerEarlierName)
{
    engine->SaveIap(QStringLiteral("a-much-longer-access-point"));
    engine->SaveIap(QStringLiteral("short"));
    EXPECT_EQ(QByteArray("short"), ReadWhole(m_iapPath));
    EXPECT_EQ(QStringLiteral("short"), engine->ReadIap());
}

TEST_F(IAPConnectEngineTest, SavingAnEmptyNameLeavesAnEmptyFile)
{
    engine->SaveIap(QStringLiteral("cmnet"));
    engine->SaveIap(QString());
    EXPECT_TRUE(QFile::exists(m_iapPath));
    EXPECT_EQ(QByteArray(), ReadWhole(m_iapPath));
    EXPECT_TRUE(engine->ReadIap().isEmpty());
}

TEST_F(IAPConnectEngineTest, ReadIapStopsAtTheFirstZeroByte)
{
    ASSERT_TRUE(WriteWhole(m_iapPath, QByteArray("cmnet\0garbage\0more", 18)));
    EXPECT_EQ(QStringLiteral("cmnet"), engine->ReadIap());
}

TEST_F(IAPConnectEngineTest, ReadIapOfAFileStartingWithAZeroByteIsEmpty)
{
    ASSERT_TRUE(WriteWhole(m_iapPath, QByteArray("\0cmnet", 6)));
    EXPECT_TRUE(engine->ReadIap().isEmpty());
}

// The name is read in blocks; a zero byte past the first block still ends it.
TEST_F(IAPConnectEngineTest, ReadIapFindsAZeroByteBeyondTheFirstBlock)
{
    QByteArray name(300, 'n');
    name[0] = 'A';
    name[299] = 'Z';
    ASSERT_TRUE(WriteWhole(m_iapPath, name + QByteArray("\0tail", 5)));
    EXPECT_EQ(QString::fromLatin1(name), engine->ReadIap());
}

TEST_F(IAPConnectEngineTest, ReadIapOfALongNameWithoutZeroByteIsTheWholeFile)
{
    QByteArray name;
    for (int i = 0; i < 1000; ++i)
        name.append(static_cast<char>('a' + i % 26));
    ASSERT_TRUE(WriteWhole(m_iapPath, name));
    EXPECT_EQ(QString::fromLatin1(name), engine->ReadIap());
}

TEST_F(IAPConnectEngineTest, ReadIapOfAMissingFileIsEmpty)
{
    ASSERT_FALSE(QFile::exists(m_iapPath));
    EXPECT_TRUE(engine->ReadIap().isEmpty());
}

TEST_F(IAPConnectEngineTest, ReadIapOfAnEmptyFileIsEmpty)
{
    ASSERT_TRUE(WriteWhole(m_iapPath, QByteArray()));
    EXPECT_TRUE(engine->ReadIap().isEmpty());
}

TEST_F(IAPConnectEngineTest, ReadIapOfADirectoryIsEmpty)
{
    SetPath(m_dir.Path());
    EXPECT_TRUE(engine->ReadIap().isEmpty());
}

TEST_F(IAPConnectEngineTest, SaveIapIntoAMissingDirectoryIsSkippedSilently)
{
    const QString path = m_dir.File("no-such-dir/iap.dat");
    SetPath(path);
    engine->SaveIap(QStringLiteral("cmnet"));
    EXPECT_FALSE(QFile::exists(path));
    EXPECT_FALSE(QDir(m_dir.File("no-such-dir")).exists());
    EXPECT_TRUE(engine->ReadIap().isEmpty());
}

TEST_F(IAPConnectEngineTest, SaveIapOverADirectoryIsSkippedSilently)
{
    const QString path = m_dir.File("a-directory");
    ASSERT_TRUE(QDir().mkpath(path));
    SetPath(path);
    engine->SaveIap(QStringLiteral("cmnet"));
    EXPECT_TRUE(QDir(path).exists());
    EXPECT_TRUE(engine->ReadIap().isEmpty());
}

TEST_F(IAPConnectEngineTest, NonAsciiCharactersOfTheNameBecomeLatin1Bytes)
{
    engine->SaveIap(QString::fromLatin1("caf\xe9"));
    EXPECT_EQ(QByteArray("caf\xe9"), ReadWhole(m_iapPath));
    EXPECT_EQ(QString::fromLatin1("caf\xe9"), engine->ReadIap());
}

// ---------------------------------------------------------------- WLAN

struct WlanRow
{
    const char* name;
    std::vector<velanet::IAPConfigurationRecord> configurations;
    bool expected;
};

void PrintTo(const WlanRow& row, std::ostream* os)
{
    *os << row.name << " {";
    for (const velanet::IAPConfigurationRecord& r : row.configurations)
        *os << " {state 0x" << std::hex << r.m_nState << std::dec << ", \""
            << r.m_strBearerTypeName.toStdString() << "\"}";
    *os << " } -> " << (row.expected ? "true" : "false");
}

velanet::IAPConfigurationRecord Config(int state, const char* bearer)
{
    velanet::IAPConfigurationRecord record;
    record.m_nState = state;
    record.m_strBearerTypeName = QString::fromLatin1(bearer);
    return record;
}

class IsWifiAPNTest : public IAPConnectEngineTest, public ::testing::WithParamInterface<WlanRow>
{
};

TEST_P(IsWifiAPNTest, AnswersFromTheConfigurations)
{
    const std::vector<velanet::IAPConfigurationRecord> rows = GetParam().configurations;
    int calls = 0;
    velanet::SetIAPConfigurationSource([rows, &calls] {
        ++calls;
        return QList<velanet::IAPConfigurationRecord>(rows.begin(), rows.end());
    });
    EXPECT_EQ(GetParam().expected, engine->IsWifiAPN());
    EXPECT_EQ(1, calls);
}

const WlanRow KWlanRows[] = {
    {"no_configurations", {}, false},
    {"active_wlan", {Config(KActive, "WLAN")}, true},
    {"discovered_wlan", {Config(KDiscovered, "WLAN")}, false},
    {"defined_wlan", {Config(KDefined, "WLAN")}, false},
    {"undefined_wlan", {Config(KUndefined, "WLAN")}, false},
    {"active_with_another_bit_is_not_exactly_active", {Config(KActive | KUndefined, "WLAN")}, false},
    {"active_ethernet", {Config(KActive, "Ethernet")}, false},
    {"active_lower_case_wlan", {Config(KActive, "wlan")}, false},
    {"active_mixed_case_wlan", {Config(KActive, "Wlan")}, false},
    {"active_wlan_with_trailing_space", {Config(KActive, "WLAN ")}, false},
    {"active_empty_bearer", {Config(KActive, "")}, false},
    {"second_configuration_matches", {Config(KActive, "Ethernet"), Config(KActive, "WLAN")}, true},
    {"discovered_wlan_then_active_wlan", {Config(KDiscovered, "WLAN"), Config(KActive, "WLAN")}, true},
    {"active_wlan_first_of_several", {Config(KActive, "WLAN"), Config(KDiscovered, "2G")}, true},
    {"several_without_match", {Config(KActive, "2G"), Config(KDiscovered, "WLAN"), Config(KActive, "wlan")}, false},
};

INSTANTIATE_TEST_SUITE_P(Rows, IsWifiAPNTest, ::testing::ValuesIn(KWlanRows),
                         [](const ::testing::TestParamInfo<WlanRow>& info) { return std::string(info.param.name); });

TEST_F(IAPConnectEngineTest, IsWifiAPNAsksTheSourceAgainEveryTime)
{
    bool wlan = false;
    velanet::SetIAPConfigurationSource([&wlan] {
        QList<velanet::IAPConfigurationRecord> list;
        list.append(Config(KActive, wlan ? "WLAN" : "Ethernet"));
        return list;
    });
    EXPECT_FALSE(engine->IsWifiAPN());
    wlan = true;
    EXPECT_TRUE(engine->IsWifiAPN());
}

// Without an installed source the engine reads the system's bearer list.
TEST_F(IAPConnectEngineTest, WithoutASourceTheSystemsConfigurationsAreWalked)
{
    velanet::SetIAPConfigurationSource({});
    bool expected = false;
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    const QNetworkConfigurationManager manager;
    const QList<QNetworkConfiguration> all = manager.allConfigurations();
    for (const QNetworkConfiguration& configuration : all) {
        if (configuration.state() == QNetworkConfiguration::Active && configuration.bearerTypeName() == "WLAN") {
            expected = true;
            break;
        }
    }
    QT_WARNING_POP
    const QList<velanet::IAPConfigurationRecord> records = velanet::IAPConfigurations();
    EXPECT_EQ(all.size(), records.size());
    EXPECT_EQ(expected, engine->IsWifiAPN());
}

}  // namespace
