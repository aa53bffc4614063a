#ifndef VELANET_IAPOBSERVER_H
#define VELANET_IAPOBSERVER_H

// What a socket engine hears from the access point engine when transfer is
// blocked or open again. Declared apart from CIAPConnectEngine (which
// src/IAPConnectEngine.h declares, and which includes this header) so that
// the socket engines below the access point layer can implement it without
// including that layer.

class MIAPConnectStateObserver
{
public:
    virtual ~MIAPConnectStateObserver() = default;
    virtual void OnIapTransferBlocked() = 0;
    virtual void OnIapTransferOpen() = 0;
};

#endif
