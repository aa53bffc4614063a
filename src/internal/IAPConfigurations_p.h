#ifndef VELANET_IAPCONFIGURATIONS_P_H
#define VELANET_IAPCONFIGURATIONS_P_H

// The network as CIAPConnectEngine sees it: a list of configurations as
// plain records, and news of changes.
//
// Qt 5 takes the list from QNetworkConfigurationManager. Qt 6 has no bearer
// classes; there QNetworkInformation describes the default connection, and
// that description stands for a list of at most one configuration. Tests
// install a source in place of either (bearers this machine does not have)
// and announce a change themselves.

#include <QList>
#include <QObject>
#include <QString>
#include <QtGlobal>

#include <functional>

namespace velanet {

// QNetworkConfiguration::StateFlag values. The records keep Qt 5's numbers on
// both Qt versions.
constexpr int KConfigurationUndefined = 0x1;
constexpr int KConfigurationDefined = 0x2;
constexpr int KConfigurationDiscovered = 0x6;
constexpr int KConfigurationActive = 0xe;

// Bearer names as QNetworkConfiguration::bearerTypeName() gives them.
inline constexpr char KBearerWlan[] = "WLAN";
inline constexpr char KBearerEthernet[] = "Ethernet";
inline constexpr char KBearerBluetooth[] = "Bluetooth";
// Qt 5 names each cellular technology ("2G", "WCDMA", "LTE"...); Qt 6 only
// says cellular.
inline constexpr char KBearerCellular[] = "Cellular";

struct IAPConfigurationRecord
{
    int m_nState = 0;             // QNetworkConfiguration::StateFlags, as an int
    QString m_strBearerTypeName;  // QNetworkConfiguration::bearerTypeName()
};

using IAPConfigurationSource = std::function<QList<IAPConfigurationRecord>()>;

// Installs source in place of the system's list; an empty function puts the
// system's list back.
void SetIAPConfigurationSource(IAPConfigurationSource source);

// The configurations in the order of the source (or of the system: Qt 5's
// QNetworkConfigurationManager::allConfigurations(), Qt 6's
// ConfigurationsFromNetworkInformation of the loaded backend).
[[nodiscard]] QList<IAPConfigurationRecord> IAPConfigurations();

// True when a record's state is exactly KConfigurationActive and its bearer
// name is exactly "WLAN".
[[nodiscard]] bool HasActiveWlan(const QList<IAPConfigurationRecord>& records);

// True when a record's state is exactly KConfigurationActive: the system is
// online, as QNetworkConfigurationManager::isOnline() has it.
[[nodiscard]] bool HasActiveConfiguration(const QList<IAPConfigurationRecord>& records);

// QNetworkInformation's enumerations, with its values, as plain types that
// both Qt versions know.
enum class NetworkReachability
{
    Unknown = 0,
    Disconnected = 1,
    Local = 2,
    Site = 3,
    Online = 4,
};

enum class NetworkMedium
{
    Unknown = 0,
    Ethernet = 1,
    Cellular = 2,
    WiFi = 3,
    Bluetooth = 4,
};

struct NetworkInformationRecord
{
    bool m_bHasBackend = false;  // false: no backend could be loaded
    NetworkReachability m_enReachability = NetworkReachability::Unknown;
    NetworkMedium m_enMedium = NetworkMedium::Unknown;
};

// The configurations a network information record stands for: none without
// a backend; otherwise one, Active when the reachability is Local, Site or
// Online (an interface is up, as an active Qt 5 configuration), Discovered
// when Disconnected, Undefined when Unknown; its bearer "WLAN" for WiFi,
// "Ethernet", "Cellular", "Bluetooth", or empty for an unknown medium.
[[nodiscard]] QList<IAPConfigurationRecord> ConfigurationsFromNetworkInformation(const NetworkInformationRecord& info);

#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
using NetworkInformationSource = std::function<NetworkInformationRecord()>;

// Installs source in place of QNetworkInformation; an empty function puts the
// system's backend back. An installed configuration source still comes first.
void SetNetworkInformationSource(NetworkInformationSource source);

// What the system's backend says now. The platform's default backend is
// loaded on first use, else any backend that knows the reachability;
// m_bHasBackend is false when there is none.
[[nodiscard]] NetworkInformationRecord SystemNetworkInformation();
#endif

// News that the network may have changed, for every access point engine of
// the process. Qt 5 relays QNetworkConfigurationManager::onlineStateChanged,
// Qt 6 QNetworkInformation's reachability and medium changes. Tests call
// Announce() after changing an installed source.
class NetworkWatch : public QObject
{
    Q_OBJECT

public:
    // The process's watch, made on first use as a child of the application
    // object; null without one (no event loop would bring the news).
    [[nodiscard]] static NetworkWatch* Instance();

    void Announce();

signals:
    void Changed();

private:
    explicit NetworkWatch(QObject* parent);
};

}  // namespace velanet

#endif
