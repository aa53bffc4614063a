#ifndef VELANET_CONFACTORYSYBIMP_H
#define VELANET_CONFACTORYSYBIMP_H

// The connection factory of the long connections: hands out at most ten
// live ITcpCon objects (CTcpConnection over its own CSocketsEngine), takes
// them back, and answers questions about the current access point by asking
// the access point engine.
//
// The access point engine. The factory starts without one; the client
// gives it with SetIapEngine (or the constructor argument) before getting
// connections. Each connection is made with the engine the factory holds at
// that moment; later changes reach only later connections. The engine is
// not owned, and when it is destroyed the factory forgets it.
//
// More than ten live connections is a programming error: the eleventh
// GetTcpCon while all ten slots are taken is a fatal assertion.

#include "src/IAPObserver.h"

#include <QPointer>
#include <QString>

class CIAPConnectEngine;
class CQWString;
class ITcpCon;

class IConfactory
{
public:
    // A new connection, or null when none can be had.
    virtual ITcpCon* GetTcpCon() = 0;
    // Closes and destroys a connection this factory handed out; anything
    // else is left alone.
    virtual void RelTcpCon(ITcpCon* connection) = 0;
    virtual void SetIap() = 0;
    virtual void GetIapName(CQWString& name) = 0;
    virtual void GetApnName(CQWString& name) = 0;
    virtual void RecoverIap() = 0;
    virtual CIAPConnectEngine* GetIapConnectEngine() const = 0;
    virtual ~IConfactory() = default;
};

class CConFactorySybImp : public IConfactory
{
public:
    static constexpr int KMaxConnections = 10;
    static constexpr int KInitDone = 1;

    // iapEngine (not owned) may be given here or later with SetIapEngine.
    explicit CConFactorySybImp(CIAPConnectEngine* iapEngine = nullptr);
    // Destroys every connection still in a slot.
    ~CConFactorySybImp() override;

    CConFactorySybImp(const CConFactorySybImp&) = delete;
    CConFactorySybImp& operator=(const CConFactorySybImp&) = delete;

    // The access point engine of the connections made from now on (not
    // owned; null for none).
    void SetIapEngine(CIAPConnectEngine* iapEngine);

    // Returns KInitDone; nothing else.
    int Init();

    ITcpCon* GetTcpCon() override;
    void RelTcpCon(ITcpCon* connection) override;
    // Closes every connected connection; all stay in their slots.
    void Release();

    CIAPConnectEngine* GetIapConnectEngine() const override;
    // False without an access point engine, else its answer.
    bool IsWifiAPN() const;
    // Passed to the access point engine; unchanged without one.
    void GetIapName(CQWString& name) override;
    void GetApnName(CQWString& name) override;

    // Fixed answers: the access point is kept by the access point engine.
    QString LoadDefaultIAPID();
    void SaveDefaultIAPID(unsigned int id);
    void SetIap() override;
    void RecoverIap() override;
    void OnTimer();

    // Connections handed out and not yet released.
    int GetConnectionCount() const { return iConnectionCount; }
    // The connection in slot (0 to KMaxConnections - 1), null when the slot
    // is empty or out of range. GetTcpCon fills the first empty slot.
    ITcpCon* ConnectionAt(int slot) const;

private:
    // The first empty slot, or KNoSlot.
    [[nodiscard]] int FreeSlot() const;
    // The slot holding connection, or KNoSlot.
    [[nodiscard]] int SlotOf(const ITcpCon* connection) const;
    static constexpr int KNoSlot = -1;

    QPointer<CIAPConnectEngine> iIapEngine;
    ITcpCon* iConnections[KMaxConnections] = {};
    qint32 iConnectionCount = 0;
};

#endif
