#ifndef VELANET_NETWORKSESSIONRULE_P_H
#define VELANET_NETWORKSESSIONRULE_P_H

// When CSocketsEngine::StartConnect opens a network session (Qt 5 only: Qt 6
// has no sessions). The platform decides unless a test forces a session,
// since the machines the tests run on never ask for one.

#include <QtGlobal>

#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)

namespace velanet {

enum class SessionRule
{
    IfPlatformRequires = 0,  // the platform's capability decides
    OnDefault = 1,           // always, on the default configuration
    OnInvalid = 2,           // always, on a configuration that never opens
};

// The rule of every StartConnect from now on, in every engine of the
// process; IfPlatformRequires puts the platform's rule back.
void SetSessionRule(SessionRule rule);

}  // namespace velanet

#endif

#endif
