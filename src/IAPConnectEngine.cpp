// CIAPConnectEngine: the access point keeper of the process.

#include "src/IAPConnectEngine.h"

#include "BaseClass/src/CQFile.h"
#include "BaseClass/src/CQInstance.h"
#include "BaseClass/src/CQPath.h"
#include "BaseClass/src/CQString.h"
#include "src/internal/IAPConfigurations_p.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QPointer>
#include <QTimerEvent>
#include <QtGlobal>

#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
#include <QNetworkInformation>
#else
// Bearer management is deprecated in Qt 5.15 but is the platform's way to
// learn the active bearer.
QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED
#include <QNetworkConfiguration>
#include <QNetworkConfigurationManager>
QT_WARNING_POP
#endif

#include <cstring>
#include <new>
#include <vector>

namespace {

// Nodes are taken from the heap one at a time: there are few observers.
constexpr int KObserverBlockSize = 1;

// The IAP file is read in blocks of this many bytes.
constexpr int KIapReadBlock = 256;

velanet::IAPConfigurationSource& InstalledSource()
{
    static velanet::IAPConfigurationSource source;
    return source;
}

#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)

velanet::NetworkInformationSource& InstalledInformationSource()
{
    static velanet::NetworkInformationSource source;
    return source;
}

// The loaded backend, loading one on the first call: the platform's default,
// else any that tells the reachability. Null when there is none.
QNetworkInformation* LoadedNetworkInformation()
{
    static const bool loaded = QNetworkInformation::loadDefaultBackend()
        || QNetworkInformation::loadBackendByFeatures(QNetworkInformation::Feature::Reachability);
    return loaded ? QNetworkInformation::instance() : nullptr;
}

#else

QList<velanet::IAPConfigurationRecord> SystemConfigurations()
{
    QList<velanet::IAPConfigurationRecord> records;
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    const QNetworkConfigurationManager manager;
    const QList<QNetworkConfiguration> configurations = manager.allConfigurations();
    for (const QNetworkConfiguration& configuration : configurations) {
        velanet::IAPConfigurationRecord record;
        record.m_nState = static_cast<int>(configuration.state());
        record.m_strBearerTypeName = configuration.bearerTypeName();
        records.append(record);
    }
    QT_WARNING_POP
    return records;
}

#endif

}  // namespace

// ---------------------------------------------------------------- configurations

namespace velanet {

void SetIAPConfigurationSource(IAPConfigurationSource source)
{
    InstalledSource() = std::move(source);
}

QList<IAPConfigurationRecord> IAPConfigurations()
{
    if (InstalledSource())
        return InstalledSource()();
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    if (InstalledInformationSource())
        return ConfigurationsFromNetworkInformation(InstalledInformationSource()());
    return ConfigurationsFromNetworkInformation(SystemNetworkInformation());
#else
    return SystemConfigurations();
#endif
}

bool HasActiveWlan(const QList<IAPConfigurationRecord>& records)
{
    for (const IAPConfigurationRecord& record : records) {
        if (record.m_nState == KConfigurationActive && record.m_strBearerTypeName == QLatin1String(KBearerWlan))
            return true;
    }
    return false;
}

bool HasActiveConfiguration(const QList<IAPConfigurationRecord>& records)
{
    for (const IAPConfigurationRecord& record : records) {
        if (record.m_nState == KConfigurationActive)
            return true;
    }
    return false;
}

QList<IAPConfigurationRecord> ConfigurationsFromNetworkInformation(const NetworkInformationRecord& info)
{
    QList<IAPConfigurationRecord> records;
    if (!info.m_bHasBackend)
        return records;

    IAPConfigurationRecord record;
    switch (info.m_enReachability) {
    case NetworkReachability::Unknown:
        record.m_nState = KConfigurationUndefined;
        break;
    case NetworkReachability::Disconnected:
        record.m_nState = KConfigurationDiscovered;
        break;
    case NetworkReachability::Local:
    case NetworkReachability::Site:
    case NetworkReachability::Online:
        record.m_nState = KConfigurationActive;
        break;
    }
    switch (info.m_enMedium) {
    case NetworkMedium::Unknown:
        break;
    case NetworkMedium::Ethernet:
        record.m_strBearerTypeName = QLatin1String(KBearerEthernet);
        break;
    case NetworkMedium::Cellular:
        record.m_strBearerTypeName = QLatin1String(KBearerCellular);
        break;
    case NetworkMedium::WiFi:
        record.m_strBearerTypeName = QLatin1String(KBearerWlan);
        break;
    case NetworkMedium::Bluetooth:
        record.m_strBearerTypeName = QLatin1String(KBearerBluetooth);
        break;
    }
    records.append(record);
    return records;
}

#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)

void SetNetworkInformationSource(NetworkInformationSource source)
{
    InstalledInformationSource() = std::move(source);
}

NetworkInformationRecord SystemNetworkInformation()
{
    NetworkInformationRecord record;
    const QNetworkInformation* info = LoadedNetworkInformation();
    if (info == nullptr)
        return record;
    record.m_bHasBackend = true;
    // The two enumerations carry QNetworkInformation's own values.
    record.m_enReachability = static_cast<NetworkReachability>(info->reachability());
    record.m_enMedium = static_cast<NetworkMedium>(info->transportMedium());
    return record;
}

#endif

NetworkWatch* NetworkWatch::Instance()
{
    static QPointer<NetworkWatch> watch;
    QCoreApplication* application = QCoreApplication::instance();
    if (watch == nullptr && application != nullptr)
        watch = new (std::nothrow) NetworkWatch(application);
    return watch;
}

NetworkWatch::NetworkWatch(QObject* parent)
    : QObject(parent)
{
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    if (QNetworkInformation* info = LoadedNetworkInformation()) {
        connect(info, &QNetworkInformation::reachabilityChanged, this, &NetworkWatch::Changed);
        connect(info, &QNetworkInformation::transportMediumChanged, this, &NetworkWatch::Changed);
    }
#else
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    auto* manager = new QNetworkConfigurationManager(this);
    connect(manager, &QNetworkConfigurationManager::onlineStateChanged, this, &NetworkWatch::Changed);
    QT_WARNING_POP
#endif
}

void NetworkWatch::Announce()
{
    emit Changed();
}

}  // namespace velanet

// ---------------------------------------------------------------- creation

CIAPConnectEngine* CIAPConnectEngine::NewL(QString name)
{
    return new (std::nothrow) CIAPConnectEngine(name);
}

CIAPConnectEngine::CIAPConnectEngine(const QString& name)
    : QObject(nullptr),
      m_strIapName(name),
      m_strIapNameCopy(name),
      m_listObservers(KObserverBlockSize)
{
    // AddWithUid only refuses a null object.
    (void)CQInstance::Instance()->AddWithUid(this, KUidIAPConnectEngine);
    m_bOnline = velanet::HasActiveConfiguration(velanet::IAPConfigurations());
    if (velanet::NetworkWatch* watch = velanet::NetworkWatch::Instance())
        connect(watch, &velanet::NetworkWatch::Changed, this, &CIAPConnectEngine::OnNetworkChanged);
}

CIAPConnectEngine::~CIAPConnectEngine()
{
    // A newer engine may have taken the entry; leave it alone then.
    CQInstance* registry = CQInstance::Instance();
    if (registry->GetByUid(KUidIAPConnectEngine) == this)
        registry->RemoveByUid(KUidIAPConnectEngine);
    m_listObservers.RemoveAll();
}

// ---------------------------------------------------------------- session

bool CIAPConnectEngine::Connect()
{
    return true;
}

void CIAPConnectEngine::CloseConnect() {}

bool CIAPConnectEngine::IsConnectedL() const
{
    return false;
}

int CIAPConnectEngine::ResetIap()
{
    return 0;
}

void CIAPConnectEngine::RecoverIap() {}

void CIAPConnectEngine::StartFluxCount(MIAPConnectStateObserver*) {}

void CIAPConnectEngine::GetIapName(CQWString&) {}

void CIAPConnectEngine::GetApnName(CQWString&) {}

QString CIAPConnectEngine::GetIAPId() const
{
    return m_strIapName;
}

QString CIAPConnectEngine::SetIap()
{
    m_strCurrentIap = m_strIapName;
    return m_strCurrentIap;
}

void CIAPConnectEngine::onSelectedIAPName(QString&) {}

void CIAPConnectEngine::sessionOpened()
{
    m_nSessionState = KSessionOpened;
}

void CIAPConnectEngine::timerEvent(QTimerEvent* event)
{
    if (event != nullptr)
        killTimer(event->timerId());
}

// ---------------------------------------------------------------- observers

void CIAPConnectEngine::AddConnectStateObserver(MIAPConnectStateObserver* observer)
{
    if (observer == nullptr || HasConnectStateObserver(observer))
        return;
    // A failed allocation leaves the observer out; nothing calls it anyway.
    (void)m_listObservers.AddTail(observer);
}

void CIAPConnectEngine::RemoveConnectStateObserver(MIAPConnectStateObserver* observer)
{
    int index = 0;
    for (auto* pos = m_listObservers.GetHeadPosition(); pos != nullptr; ++index) {
        if (m_listObservers.GetNext(pos) == observer) {
            // The list frees its blocks itself when its last node goes.
            m_listObservers.RemoveAt(index);
            return;
        }
    }
}

int CIAPConnectEngine::GetConnectStateObserverCount() const
{
    return m_listObservers.GetCount();
}

bool CIAPConnectEngine::HasConnectStateObserver(MIAPConnectStateObserver* observer) const
{
    for (auto* pos = m_listObservers.GetHeadPosition(); pos != nullptr;) {
        if (m_listObservers.GetNext(pos) == observer)
            return true;
    }
    return false;
}

// ---------------------------------------------------------------- bearer

bool CIAPConnectEngine::IsWifiAPN() const
{
    return velanet::HasActiveWlan(velanet::IAPConfigurations());
}

void CIAPConnectEngine::OnNetworkChanged()
{
    const bool online = velanet::HasActiveConfiguration(velanet::IAPConfigurations());
    if (online == m_bOnline)
        return;
    m_bOnline = online;
    ReportTransfer(online);
}

void CIAPConnectEngine::ReportTransfer(bool open)
{
    // An observer may leave the list, or delete this engine, inside its
    // report: walk a copy and check each one is still here.
    std::vector<MIAPConnectStateObserver*> observers;
    for (auto* pos = m_listObservers.GetHeadPosition(); pos != nullptr;)
        observers.push_back(m_listObservers.GetNext(pos));
    const QPointer<CIAPConnectEngine> self(this);
    for (MIAPConnectStateObserver* observer : observers) {
        if (self == nullptr)
            return;
        if (!HasConnectStateObserver(observer))
            continue;
        if (open)
            observer->OnIapTransferOpen();
        else
            observer->OnIapTransferBlocked();
    }
}

// ---------------------------------------------------------------- IAP file

void CIAPConnectEngine::GetIAPFilePath(QString& path) const
{
    CQSString raw;
    CQPath::GetIAPFilePath(raw);
    path = QString::fromLocal8Bit(raw.GetDataPtr(), raw.GetLength());
    path.replace(QLatin1Char('\\'), QLatin1Char('/'));
}

void CIAPConnectEngine::SaveIap(QString name)
{
    QString path;
    GetIAPFilePath(path);
    CQFile file;
    if (!file.Open(CQWString(path), CQFile::KModeWrite))
        return;
    const QByteArray bytes = name.toLatin1();
    // A short write is as silent as a file that cannot be opened.
    (void)file.Write(bytes.constData(), bytes.size());
    (void)file.Close();
}

QString CIAPConnectEngine::ReadIap() const
{
    QString path;
    GetIAPFilePath(path);
    CQFile file;
    if (!file.Open(CQWString(path), CQFile::KModeRead))
        return QString();

    QByteArray name;
    char block[KIapReadBlock];
    for (;;) {
        const int got = file.Read(block, KIapReadBlock);
        if (got <= 0)
            break;
        const void* zero = std::memchr(block, '\0', static_cast<size_t>(got));
        if (zero != nullptr) {
            name.append(block, static_cast<int>(static_cast<const char*>(zero) - block));
            break;
        }
        name.append(block, got);
    }
    (void)file.Close();
    return QString::fromLatin1(name);
}
