#ifndef VELANET_IAPCONNECTENGINE_H
#define VELANET_IAPCONNECTENGINE_H

// Access point selection. The socket engines observe the access point engine
// to hear when transfer is blocked or open again.

class CIAPConnectEngine;

class MIAPConnectStateObserver
{
public:
    virtual ~MIAPConnectStateObserver() = default;
    virtual void OnIapTransferBlocked() = 0;
    virtual void OnIapTransferOpen() = 0;
};

#endif
