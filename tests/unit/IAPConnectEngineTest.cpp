// The access point engine: its registry entry, the fixed session answers,
// the observer list, the IAP file, the WLAN question and the bearer events,
// on Qt 5's bearer list and on Qt 6's network information alike.

#include "src/IAPConnectEngine.h"

#include "BaseClass/src/CQInstance.h"
#include "BaseClass/src/CQPath.h"
#include "BaseClass/src/CQString.h"
#include "src/internal/IAPConfigurations_p.h"

#include "support/HeapWatch.h"
#include "support/TestSupport.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QMetaObject>
#include <QtGlobal>

#include <QPointer>

#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
#include <QNetworkInformation>
#else
QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED
#include <QNetworkConfiguration>
#include <QNetworkConfigurationManager>
QT_WARNING_POP
#endif

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace {

// Blocks of the engine's observer list, read through its read-only view.
int BlockCount(const CIAPConnectEngine& e)
{
    int count = 0;
    for (const CQPlex* block = e.GetConnectStateObservers().m_pBlocks; block != nullptr; block = block->pNext)
        ++count;
    return count;
}

// The observers from head to tail.
std::vector<MIAPConnectStateObserver*> Observers(const CIAPConnectEngine& e)
{
    const auto& list = e.GetConnectStateObservers();
    std::vector<MIAPConnectStateObserver*> all;
    for (auto* pos = list.GetHeadPosition(); pos != nullptr;)
        all.push_back(list.GetNext(pos));
    return all;
}

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StrictMock;

constexpr int KUid = 16;

constexpr int KUndefined = velanet::KConfigurationUndefined;
constexpr int KDefined = velanet::KConfigurationDefined;
constexpr int KDiscovered = velanet::KConfigurationDiscovered;
constexpr int KActive = velanet::KConfigurationActive;

// Only a change of the network calls these; a strict mock fails on any call
// a test does not expect.
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

TEST_F(IAPConnectEngineTest, NewLWithoutMemoryGivesNullAndLeavesTheEntry)
{
    velatest::HeapWatch::FailNothrowAfter(0);
    CIAPConnectEngine* none = CIAPConnectEngine::NewL(QStringLiteral("other"));
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(nullptr, none);
    EXPECT_EQ(engine.get(), Registered());
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
    EXPECT_TRUE(engine->CurrentIap().isEmpty());
    EXPECT_EQ(QStringLiteral("cmnet"), engine->SetIap());
    EXPECT_EQ(QStringLiteral("cmnet"), engine->CurrentIap());
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
    EXPECT_TRUE(engine->CurrentIap().isEmpty());
    EXPECT_EQ(CIAPConnectEngine::KSessionNone, engine->SessionState());
    EXPECT_THAT(Observers(*engine), ElementsAre(&observer));
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
    EXPECT_EQ(0, engine->SessionState());
    ASSERT_TRUE(QMetaObject::invokeMethod(engine.get(), "sessionOpened"));
    EXPECT_EQ(2, engine->SessionState());
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
    EXPECT_EQ(1, engine->GetConnectStateObservers().m_nBlockSize);
    EXPECT_EQ(0, BlockCount(*engine));
    StrictMock<MockIapObserver> a, b, c;
    engine->AddConnectStateObserver(&a);
    engine->AddConnectStateObserver(&b);
    engine->AddConnectStateObserver(&c);
    EXPECT_EQ(3, BlockCount(*engine));
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
    EXPECT_THAT(Observers(*engine), ElementsAre(&a, &b, &c));
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
    EXPECT_THAT(Observers(*engine), ElementsAre(&a, &b));
    EXPECT_EQ(2, BlockCount(*engine));
    engine->RemoveConnectStateObserver(&a);
    EXPECT_THAT(Observers(*engine), ElementsAre(&b));
    EXPECT_FALSE(engine->HasConnectStateObserver(&a));
    engine->RemoveConnectStateObserver(&b);
}

TEST_F(IAPConnectEngineTest, RemovingAnUnregisteredObserverChangesNothing)
{
    StrictMock<MockIapObserver> a, b, stranger;
    engine->AddConnectStateObserver(&a);
    engine->AddConnectStateObserver(&b);
    engine->RemoveConnectStateObserver(&stranger);
    EXPECT_THAT(Observers(*engine), ElementsAre(&a, &b));
    EXPECT_EQ(2, BlockCount(*engine));
    engine->RemoveConnectStateObserver(&a);
    engine->RemoveConnectStateObserver(&b);
}

TEST_F(IAPConnectEngineTest, RemovingFromAnEmptyListChangesNothing)
{
    StrictMock<MockIapObserver> stranger;
    engine->RemoveConnectStateObserver(&stranger);
    engine->RemoveConnectStateObserver(nullptr);
    EXPECT_EQ(0, engine->GetConnectStateObserverCount());
    EXPECT_EQ(0, BlockCount(*engine));
}

TEST_F(IAPConnectEngineTest, RemovingTheMiddleObserverKeepsTheOrderOfTheOthers)
{
    StrictMock<MockIapObserver> a, b, c;
    engine->AddConnectStateObserver(&a);
    engine->AddConnectStateObserver(&b);
    engine->AddConnectStateObserver(&c);
    engine->RemoveConnectStateObserver(&b);
    EXPECT_THAT(Observers(*engine), ElementsAre(&a, &c));
    engine->AddConnectStateObserver(&b);
    EXPECT_THAT(Observers(*engine), ElementsAre(&a, &c, &b));
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
    EXPECT_NE(0, BlockCount(*engine));
    engine->RemoveConnectStateObserver(&b);
    EXPECT_EQ(0, BlockCount(*engine));
    EXPECT_THAT(Observers(*engine), IsEmpty());
    // The list works again after being emptied.
    engine->AddConnectStateObserver(&b);
    EXPECT_THAT(Observers(*engine), ElementsAre(&b));
    engine->RemoveConnectStateObserver(&b);
    EXPECT_EQ(0, BlockCount(*engine));
}

TEST_F(IAPConnectEngineTest, NullObserverIsNotAdded)
{
    engine->AddConnectStateObserver(nullptr);
    EXPECT_EQ(0, engine->GetConnectStateObserverCount());
    EXPECT_EQ(0, BlockCount(*engine));
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

#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)

TEST(IAPConfigurationStates, AreQt5sConfigurationStates)
{
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    EXPECT_EQ(static_cast<int>(QNetworkConfiguration::Undefined), KUndefined);
    EXPECT_EQ(static_cast<int>(QNetworkConfiguration::Defined), KDefined);
    EXPECT_EQ(static_cast<int>(QNetworkConfiguration::Discovered), KDiscovered);
    EXPECT_EQ(static_cast<int>(QNetworkConfiguration::Active), KActive);
    QT_WARNING_POP
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

#else

TEST(IAPConfigurationStates, AreQt6sNetworkInformationValues)
{
    using R = QNetworkInformation::Reachability;
    using M = QNetworkInformation::TransportMedium;
    EXPECT_EQ(static_cast<int>(R::Unknown), static_cast<int>(velanet::NetworkReachability::Unknown));
    EXPECT_EQ(static_cast<int>(R::Disconnected), static_cast<int>(velanet::NetworkReachability::Disconnected));
    EXPECT_EQ(static_cast<int>(R::Local), static_cast<int>(velanet::NetworkReachability::Local));
    EXPECT_EQ(static_cast<int>(R::Site), static_cast<int>(velanet::NetworkReachability::Site));
    EXPECT_EQ(static_cast<int>(R::Online), static_cast<int>(velanet::NetworkReachability::Online));
    EXPECT_EQ(static_cast<int>(M::Unknown), static_cast<int>(velanet::NetworkMedium::Unknown));
    EXPECT_EQ(static_cast<int>(M::Ethernet), static_cast<int>(velanet::NetworkMedium::Ethernet));
    EXPECT_EQ(static_cast<int>(M::Cellular), static_cast<int>(velanet::NetworkMedium::Cellular));
    EXPECT_EQ(static_cast<int>(M::WiFi), static_cast<int>(velanet::NetworkMedium::WiFi));
    EXPECT_EQ(static_cast<int>(M::Bluetooth), static_cast<int>(velanet::NetworkMedium::Bluetooth));
}

// Without an installed source the engine asks the loaded backend, if any.
TEST_F(IAPConnectEngineTest, WithoutASourceTheSystemsNetworkInformationIsAsked)
{
    velanet::SetIAPConfigurationSource({});
    velanet::SetNetworkInformationSource({});
    const velanet::NetworkInformationRecord system = velanet::SystemNetworkInformation();
    const QNetworkInformation* info = QNetworkInformation::instance();
    EXPECT_EQ(info != nullptr, system.m_bHasBackend);
    bool expected = false;
    if (info != nullptr) {
        using R = QNetworkInformation::Reachability;
        const R reachability = info->reachability();
        expected = (reachability == R::Local || reachability == R::Site || reachability == R::Online) &&
                   info->transportMedium() == QNetworkInformation::TransportMedium::WiFi;
    }
    EXPECT_EQ(info != nullptr ? 1 : 0, velanet::IAPConfigurations().size());
    EXPECT_EQ(expected, engine->IsWifiAPN());
}

#endif

// ---------------------------------------------------------------- network information

struct InformationRow
{
    const char* name;
    velanet::NetworkInformationRecord info;
    std::vector<velanet::IAPConfigurationRecord> configurations;
    bool wlan;
};

void PrintTo(const InformationRow& row, std::ostream* os)
{
    *os << row.name << " {backend " << row.info.m_bHasBackend << ", reachability "
        << static_cast<int>(row.info.m_enReachability) << ", medium " << static_cast<int>(row.info.m_enMedium) << "}";
}

velanet::NetworkInformationRecord Information(velanet::NetworkReachability reachability, velanet::NetworkMedium medium)
{
    velanet::NetworkInformationRecord info;
    info.m_bHasBackend = true;
    info.m_enReachability = reachability;
    info.m_enMedium = medium;
    return info;
}

using Reach = velanet::NetworkReachability;
using Medium = velanet::NetworkMedium;

const InformationRow KInformationRows[] = {
    {"no_backend", {}, {}, false},
    {"no_backend_whatever_it_would_say", {false, Reach::Online, Medium::WiFi}, {}, false},
    {"online_wifi", Information(Reach::Online, Medium::WiFi), {Config(KActive, "WLAN")}, true},
    {"site_wifi", Information(Reach::Site, Medium::WiFi), {Config(KActive, "WLAN")}, true},
    {"local_wifi", Information(Reach::Local, Medium::WiFi), {Config(KActive, "WLAN")}, true},
    {"disconnected_wifi", Information(Reach::Disconnected, Medium::WiFi), {Config(KDiscovered, "WLAN")}, false},
    {"unknown_reachability_wifi", Information(Reach::Unknown, Medium::WiFi), {Config(KUndefined, "WLAN")}, false},
    {"online_ethernet", Information(Reach::Online, Medium::Ethernet), {Config(KActive, "Ethernet")}, false},
    {"online_cellular", Information(Reach::Online, Medium::Cellular), {Config(KActive, "Cellular")}, false},
    {"online_bluetooth", Information(Reach::Online, Medium::Bluetooth), {Config(KActive, "Bluetooth")}, false},
    {"online_unknown_medium", Information(Reach::Online, Medium::Unknown), {Config(KActive, "")}, false},
};

bool SameRecords(const QList<velanet::IAPConfigurationRecord>& a, const std::vector<velanet::IAPConfigurationRecord>& b)
{
    if (static_cast<size_t>(a.size()) != b.size())
        return false;
    for (size_t i = 0; i < b.size(); ++i) {
        const velanet::IAPConfigurationRecord& x = a.at(static_cast<int>(i));
        if (x.m_nState != b[i].m_nState || x.m_strBearerTypeName != b[i].m_strBearerTypeName)
            return false;
    }
    return true;
}

class NetworkInformationTest : public IAPConnectEngineTest, public ::testing::WithParamInterface<InformationRow>
{
};

// The mapping is plain code, so both Qt versions check it.
TEST_P(NetworkInformationTest, StandsForTheseConfigurations)
{
    const InformationRow& row = GetParam();
    const QList<velanet::IAPConfigurationRecord> records = velanet::ConfigurationsFromNetworkInformation(row.info);
    EXPECT_TRUE(SameRecords(records, row.configurations));
    EXPECT_EQ(row.wlan, velanet::HasActiveWlan(records));
}

#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
// Qt 6: the engine answers from what QNetworkInformation says.
TEST_P(NetworkInformationTest, FedToTheEngineGivesTheWlanAnswer)
{
    const velanet::NetworkInformationRecord info = GetParam().info;
    int calls = 0;
    velanet::SetNetworkInformationSource([info, &calls] {
        ++calls;
        return info;
    });
    EXPECT_EQ(GetParam().wlan, engine->IsWifiAPN());
    EXPECT_EQ(1, calls);
}
#endif

INSTANTIATE_TEST_SUITE_P(Rows, NetworkInformationTest, ::testing::ValuesIn(KInformationRows),
                         [](const ::testing::TestParamInfo<InformationRow>& info) {
                             return std::string(info.param.name);
                         });

// ---------------------------------------------------------------- bearer events

// The network as a test describes it; changing it and announcing the change
// is what the platform does when a bearer goes down or comes up. On Qt 6 the
// description goes in as reachability and medium, on Qt 5 as configurations.
class BearerEventTest : public IAPConnectEngineTest
{
protected:
    void SetUp() override
    {
        IAPConnectEngineTest::SetUp();
        Feed(Reach::Online, Medium::WiFi);
        // An engine made while the fed network is in place starts from it.
        engine.reset(CIAPConnectEngine::NewL(QStringLiteral("cmnet")));
        ASSERT_NE(nullptr, engine);
    }

    void TearDown() override
    {
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
        velanet::SetNetworkInformationSource({});
#endif
        IAPConnectEngineTest::TearDown();
    }

    void Feed(Reach reachability, Medium medium)
    {
        m_info = Information(reachability, medium);
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
        velanet::SetNetworkInformationSource([this] { return m_info; });
#else
        velanet::SetIAPConfigurationSource(
            [this] { return velanet::ConfigurationsFromNetworkInformation(m_info); });
#endif
    }

    // The source reads m_info when asked, so the backend can go afterwards.
    void FeedNoBackend()
    {
        Feed(Reach::Unknown, Medium::Unknown);
        m_info.m_bHasBackend = false;
    }

    static void Announce()
    {
        velanet::NetworkWatch* watch = velanet::NetworkWatch::Instance();
        ASSERT_NE(nullptr, watch);
        watch->Announce();
    }

    velanet::NetworkInformationRecord m_info;
};

TEST_F(BearerEventTest, TheWatchIsOnePerProcessUnderTheApplication)
{
    velanet::NetworkWatch* watch = velanet::NetworkWatch::Instance();
    ASSERT_NE(nullptr, watch);
    EXPECT_EQ(watch, velanet::NetworkWatch::Instance());
    EXPECT_EQ(QCoreApplication::instance(), watch->parent());
}

TEST_F(BearerEventTest, GoingOfflineTellsEveryObserverTransferIsBlockedInListOrder)
{
    StrictMock<MockIapObserver> a, b;
    engine->AddConnectStateObserver(&a);
    engine->AddConnectStateObserver(&b);
    {
        ::testing::InSequence order;
        EXPECT_CALL(a, OnIapTransferBlocked());
        EXPECT_CALL(b, OnIapTransferBlocked());
    }
    Feed(Reach::Disconnected, Medium::WiFi);
    Announce();
    EXPECT_FALSE(engine->IsWifiAPN());
    engine->RemoveConnectStateObserver(&a);
    engine->RemoveConnectStateObserver(&b);
}

TEST_F(BearerEventTest, ComingBackOnlineTellsTransferIsOpen)
{
    StrictMock<MockIapObserver> a;
    engine->AddConnectStateObserver(&a);
    {
        ::testing::InSequence order;
        EXPECT_CALL(a, OnIapTransferBlocked());
        EXPECT_CALL(a, OnIapTransferOpen());
    }
    Feed(Reach::Unknown, Medium::Unknown);
    Announce();
    Feed(Reach::Local, Medium::Ethernet);
    Announce();
    engine->RemoveConnectStateObserver(&a);
}

// Only the step between offline and online counts: other news is quiet.
TEST_F(BearerEventTest, ChangesThatKeepTheSystemOnlineOrOfflineReportNothing)
{
    StrictMock<MockIapObserver> a;
    engine->AddConnectStateObserver(&a);
    Announce();
    Feed(Reach::Site, Medium::WiFi);
    Announce();
    Feed(Reach::Online, Medium::Ethernet);
    Announce();
    EXPECT_FALSE(engine->IsWifiAPN());
    EXPECT_CALL(a, OnIapTransferBlocked());
    Feed(Reach::Disconnected, Medium::Ethernet);
    Announce();
    Feed(Reach::Unknown, Medium::Unknown);
    Announce();
    Announce();
    engine->RemoveConnectStateObserver(&a);
}

// Without a backend there is nothing to report, and no WLAN.
TEST_F(BearerEventTest, LosingTheBackendCountsAsOffline)
{
    StrictMock<MockIapObserver> a;
    engine->AddConnectStateObserver(&a);
    EXPECT_TRUE(engine->IsWifiAPN());
    EXPECT_CALL(a, OnIapTransferBlocked());
    FeedNoBackend();
    Announce();
    EXPECT_FALSE(engine->IsWifiAPN());
    engine->RemoveConnectStateObserver(&a);
}

TEST_F(BearerEventTest, EngineMadeWithoutABackendReportsNothingUntilOneSaysOnline)
{
    FeedNoBackend();
    engine.reset(CIAPConnectEngine::NewL(QStringLiteral("cmnet")));
    StrictMock<MockIapObserver> a;
    engine->AddConnectStateObserver(&a);
    Announce();
    EXPECT_FALSE(engine->IsWifiAPN());
    EXPECT_CALL(a, OnIapTransferOpen());
    Feed(Reach::Online, Medium::WiFi);
    Announce();
    EXPECT_TRUE(engine->IsWifiAPN());
    engine->RemoveConnectStateObserver(&a);
}

TEST_F(BearerEventTest, EveryEngineOfTheProcessHearsTheNews)
{
    std::unique_ptr<CIAPConnectEngine> second(CIAPConnectEngine::NewL(QStringLiteral("wifi")));
    StrictMock<MockIapObserver> a, b;
    engine->AddConnectStateObserver(&a);
    second->AddConnectStateObserver(&b);
    EXPECT_CALL(a, OnIapTransferBlocked());
    EXPECT_CALL(b, OnIapTransferBlocked());
    Feed(Reach::Disconnected, Medium::Unknown);
    Announce();
    engine->RemoveConnectStateObserver(&a);
    second->RemoveConnectStateObserver(&b);
}

TEST_F(BearerEventTest, ObserverThatLeavesInsideItsReportIsNotCalledAgain)
{
    StrictMock<MockIapObserver> a, b, c;
    engine->AddConnectStateObserver(&a);
    engine->AddConnectStateObserver(&b);
    engine->AddConnectStateObserver(&c);
    // a removes b and itself; c still hears it.
    EXPECT_CALL(a, OnIapTransferBlocked()).WillOnce([&] {
        engine->RemoveConnectStateObserver(&b);
        engine->RemoveConnectStateObserver(&a);
    });
    EXPECT_CALL(c, OnIapTransferBlocked());
    Feed(Reach::Disconnected, Medium::Unknown);
    Announce();
    EXPECT_THAT(Observers(*engine), ElementsAre(&c));
    engine->RemoveConnectStateObserver(&c);
}

TEST_F(BearerEventTest, ObserverAddedInsideAReportWaitsForTheNextChange)
{
    StrictMock<MockIapObserver> a, late;
    engine->AddConnectStateObserver(&a);
    EXPECT_CALL(a, OnIapTransferBlocked()).WillOnce([&] { engine->AddConnectStateObserver(&late); });
    Feed(Reach::Disconnected, Medium::Unknown);
    Announce();
    ::testing::Mock::VerifyAndClearExpectations(&a);
    EXPECT_CALL(a, OnIapTransferOpen());
    EXPECT_CALL(late, OnIapTransferOpen());
    Feed(Reach::Online, Medium::Unknown);
    Announce();
    engine->RemoveConnectStateObserver(&a);
    engine->RemoveConnectStateObserver(&late);
}

TEST_F(BearerEventTest, ObserverMayDeleteTheEngineInsideItsReport)
{
    StrictMock<MockIapObserver> a, b;
    engine->AddConnectStateObserver(&a);
    engine->AddConnectStateObserver(&b);
    EXPECT_CALL(a, OnIapTransferBlocked()).WillOnce([&] { engine.reset(); });
    Feed(Reach::Disconnected, Medium::Unknown);
    Announce();
    EXPECT_EQ(nullptr, engine);
    EXPECT_EQ(nullptr, Registered());
}

TEST_F(BearerEventTest, DestroyedEngineHearsNothing)
{
    StrictMock<MockIapObserver> a;
    engine->AddConnectStateObserver(&a);
    engine.reset();
    Feed(Reach::Disconnected, Medium::Unknown);
    Announce();
}

TEST_F(BearerEventTest, FixedAnswersStayWhateverTheNetworkSays)
{
    Feed(Reach::Disconnected, Medium::Unknown);
    Announce();
    EXPECT_TRUE(engine->Connect());
    EXPECT_FALSE(engine->IsConnectedL());
    EXPECT_EQ(0, engine->ResetIap());
    EXPECT_EQ(QStringLiteral("cmnet"), engine->SetIap());
}

// The platform's own news reaches the engine through the watch: Qt 5's
// manager's online state, Qt 6's backend's reachability.
TEST_F(BearerEventTest, ThePlatformsSignalReachesTheObservers)
{
    velanet::NetworkWatch* watch = velanet::NetworkWatch::Instance();
    ASSERT_NE(nullptr, watch);
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    QNetworkInformation* info = QNetworkInformation::instance();
    if (info == nullptr)
        GTEST_SKIP() << "no network information backend on this machine";
#endif
    StrictMock<MockIapObserver> a;
    engine->AddConnectStateObserver(&a);
    EXPECT_CALL(a, OnIapTransferBlocked());
    Feed(Reach::Disconnected, Medium::Unknown);
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    emit info->reachabilityChanged(QNetworkInformation::Reachability::Disconnected);
#else
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    QNetworkConfigurationManager* manager = watch->findChild<QNetworkConfigurationManager*>();
    ASSERT_NE(nullptr, manager);
    emit manager->onlineStateChanged(false);
    QT_WARNING_POP
#endif
    engine->RemoveConnectStateObserver(&a);
}

// The watch goes with its parent or when deleted; the next use makes a new
// one, and engines made from then on hear it.
TEST_F(BearerEventTest, AWatchThatIsGoneIsMadeAgainOnNextUse)
{
    QPointer<velanet::NetworkWatch> old = velanet::NetworkWatch::Instance();
    ASSERT_FALSE(old.isNull());
    delete old.data();
    velanet::NetworkWatch* fresh = velanet::NetworkWatch::Instance();
    ASSERT_NE(nullptr, fresh);
    EXPECT_EQ(QCoreApplication::instance(), fresh->parent());

    std::unique_ptr<CIAPConnectEngine> hearing(CIAPConnectEngine::NewL(QStringLiteral("wifi")));
    ASSERT_NE(nullptr, hearing);
    StrictMock<MockIapObserver> a;
    hearing->AddConnectStateObserver(&a);
    EXPECT_CALL(a, OnIapTransferBlocked());
    Feed(Reach::Disconnected, Medium::Unknown);
    Announce();
    hearing->RemoveConnectStateObserver(&a);
}

// No memory for the watch: Instance() is null, and an engine made then
// hears no news, while one made once memory is back does.
TEST_F(BearerEventTest, EngineMadeWhenTheWatchCannotBeMadeHearsNothing)
{
    delete velanet::NetworkWatch::Instance();
    velatest::HeapWatch::FailNothrowAfter(0);
    velanet::NetworkWatch* none = velanet::NetworkWatch::Instance();
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(nullptr, none);

    // The engine's own allocation goes through; the watch's, next, fails.
    velatest::HeapWatch::FailNothrowAfter(1);
    std::unique_ptr<CIAPConnectEngine> deaf(CIAPConnectEngine::NewL(QStringLiteral("deaf")));
    velatest::HeapWatch::StopFailing();
    ASSERT_NE(nullptr, deaf);
    std::unique_ptr<CIAPConnectEngine> hearing(CIAPConnectEngine::NewL(QStringLiteral("hearing")));
    ASSERT_NE(nullptr, hearing);

    StrictMock<MockIapObserver> notCalled, called;
    deaf->AddConnectStateObserver(&notCalled);
    hearing->AddConnectStateObserver(&called);
    EXPECT_CALL(called, OnIapTransferBlocked());
    Feed(Reach::Disconnected, Medium::Unknown);
    Announce();
    deaf->RemoveConnectStateObserver(&notCalled);
    hearing->RemoveConnectStateObserver(&called);
}

}  // namespace
