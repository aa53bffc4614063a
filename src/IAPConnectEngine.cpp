// CIAPConnectEngine: the access point keeper of the process.

#include "src/IAPConnectEngine.h"

#include "BaseClass/src/CQFile.h"
#include "BaseClass/src/CQInstance.h"
#include "BaseClass/src/CQPath.h"
#include "BaseClass/src/CQString.h"
#include "src/internal/IAPConfigurations_p.h"

#include <QByteArray>
#include <QTimerEvent>
#include <QtGlobal>

// Bearer management is deprecated in Qt 5.15 but is the platform's way to
// learn the active bearer.
QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED
#include <QNetworkConfiguration>
#include <QNetworkConfigurationManager>
QT_WARNING_POP

#include <cstring>
#include <new>

namespace {

// Nodes are taken from the heap one at a time: there are few observers.
constexpr int KObserverBlockSize = 1;

// The IAP file is read in blocks of this many bytes.
constexpr int KIapReadBlock = 256;

const char KWlanBearerName[] = "WLAN";

velanet::IAPConfigurationSource& InstalledSource()
{
    static velanet::IAPConfigurationSource source;
    return source;
}

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

    QList<IAPConfigurationRecord> records;
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    const QNetworkConfigurationManager manager;
    const QList<QNetworkConfiguration> configurations = manager.allConfigurations();
    for (const QNetworkConfiguration& configuration : configurations) {
        IAPConfigurationRecord record;
        record.m_nState = static_cast<int>(configuration.state());
        record.m_strBearerTypeName = configuration.bearerTypeName();
        records.append(record);
    }
    QT_WARNING_POP
    return records;
}

bool HasActiveWlan(const QList<IAPConfigurationRecord>& records)
{
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    const int active = static_cast<int>(QNetworkConfiguration::Active);
    QT_WARNING_POP
    for (const IAPConfigurationRecord& record : records) {
        if (record.m_nState == active && record.m_strBearerTypeName == QLatin1String(KWlanBearerName))
            return true;
    }
    return false;
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
