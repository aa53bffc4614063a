#ifndef VELANET_IAPCONFIGURATIONS_P_H
#define VELANET_IAPCONFIGURATIONS_P_H

// The network configurations CIAPConnectEngine::IsWifiAPN walks, as plain
// records. They come from QNetworkConfigurationManager unless a source was
// installed in their place (tests describe bearers that this machine does
// not have).

#include <QList>
#include <QString>

#include <functional>

namespace velanet {

struct IAPConfigurationRecord
{
    int m_nState = 0;             // QNetworkConfiguration::StateFlags, as an int
    QString m_strBearerTypeName;  // QNetworkConfiguration::bearerTypeName()
};

using IAPConfigurationSource = std::function<QList<IAPConfigurationRecord>()>;

// Installs source in place of the system's list; an empty function puts the
// system's list back.
void SetIAPConfigurationSource(IAPConfigurationSource source);

// The configurations in the order of the source (or of
// QNetworkConfigurationManager::allConfigurations()).
[[nodiscard]] QList<IAPConfigurationRecord> IAPConfigurations();

// True when a record's state is exactly QNetworkConfiguration::Active and
// its bearer name is exactly "WLAN".
[[nodiscard]] bool HasActiveWlan(const QList<IAPConfigurationRecord>& records);

}  // namespace velanet

#endif
