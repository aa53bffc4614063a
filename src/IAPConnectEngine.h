#ifndef VELANET_IAPCONNECTENGINE_H
#define VELANET_IAPCONNECTENGINE_H

// Access point selection. CIAPConnectEngine is the one keeper of the
// internet access point of the process (registry uid 16): it holds the
// chosen access point's name, keeps it in the IAP file, tells whether the
// active bearer is a wireless LAN, and keeps the socket engines that want to
// hear when transfer is blocked or open again.
//
// The system brings the bearer up by itself, so the session calls are fixed
// answers: Connect always succeeds. The observers hear when the system goes
// offline (OnIapTransferBlocked) and online again (OnIapTransferOpen): from
// Qt 5's bearer management (QNetworkConfigurationManager's online state), or
// on Qt 6 from QNetworkInformation (online: reachability Local or better).
// Without a network information backend (Qt 6), or without an application
// object, nothing is reported and IsWifiAPN() is false.
//
// Lifetime. Observers are not owned. An observer removes itself before it
// is destroyed. An observer that may outlive the access point engine must
// forget it when the engine's QObject::destroyed() is emitted; the HTTP
// socket engine does so, so either may be destroyed first.

#include <QObject>
#include <QString>

#include "BaseClass/src/CQList.h"
#include "src/IAPObserver.h"

class CQWString;
class QTimerEvent;

// The picker dialog's report of the access point the user chose.
class SelectIAPObserver
{
public:
    virtual ~SelectIAPObserver() = default;
    virtual void onSelectedIAPName(QString& name) = 0;
};

class CIAPConnectEngine : public QObject, public SelectIAPObserver
{
    Q_OBJECT

public:
    // The engine's entry in CQInstance.
    enum { KUidIAPConnectEngine = 16 };

    // Session states.
    enum
    {
        KSessionNone = 0,    // as constructed
        KSessionOpened = 2,  // sessionOpened() was called
    };

    // Constructs the engine, which registers itself under uid 16 (replacing
    // any earlier entry). Null when the memory cannot be had.
    static CIAPConnectEngine* NewL(QString name);
    // Removes the uid 16 entry when it is this engine.
    ~CIAPConnectEngine() override;

    CIAPConnectEngine(const CIAPConnectEngine&) = delete;
    CIAPConnectEngine& operator=(const CIAPConnectEngine&) = delete;

    // Fixed answers of the session: the system keeps the bearer up.
    bool Connect();
    void CloseConnect();
    bool IsConnectedL() const;
    int ResetIap();
    void RecoverIap();
    void StartFluxCount(MIAPConnectStateObserver* observer);
    // Leave the text unchanged.
    void GetIapName(CQWString& name);
    void GetApnName(CQWString& name);

    // The name given at construction.
    QString GetIAPId() const;
    // Makes the name given at construction the current access point and
    // returns it.
    QString SetIap();
    // The current access point's name: empty until SetIap.
    QString CurrentIap() const { return m_strCurrentIap; }
    // KSessionNone, or KSessionOpened once sessionOpened() was called.
    int SessionState() const { return m_nSessionState; }

    // The picker dialog's choice; nothing is done with it.
    void onSelectedIAPName(QString& name) override;

    // Appends observer unless it is already registered (or null).
    void AddConnectStateObserver(MIAPConnectStateObserver* observer);
    // Removes observer if it is registered; the list's storage goes back to
    // the heap when the last one leaves.
    void RemoveConnectStateObserver(MIAPConnectStateObserver* observer);
    int GetConnectStateObserverCount() const;
    bool HasConnectStateObserver(MIAPConnectStateObserver* observer) const;
    // The registered observers in the order they hear reports (read only).
    const CQList<MIAPConnectStateObserver*, MIAPConnectStateObserver*>& GetConnectStateObservers() const
    {
        return m_listObservers;
    }

    // True when the first configuration that is exactly Active with bearer
    // "WLAN" (case matters) exists in the system's list. On Qt 6 the list is
    // the default connection as QNetworkInformation describes it: WLAN when
    // its medium is WiFi and its reachability Local or better.
    bool IsWifiAPN() const;

    // The IAP file: CQPath::GetIAPFilePath (local 8-bit text) with every
    // "\" made "/". The file holds the name's bytes and nothing else.
    void GetIAPFilePath(QString& path) const;
    // Writes name (Latin-1 bytes) over the file; an unopenable file is
    // skipped silently.
    void SaveIap(QString name);
    // The file's bytes up to its first zero byte; empty when the file cannot
    // be opened or is empty.
    QString ReadIap() const;

public slots:
    void sessionOpened();

private slots:
    // The network may have changed: when the system went offline or came
    // online since the last look, every observer hears it, in list order.
    void OnNetworkChanged();

protected:
    // Timers of this object are one-shot: the first event kills its timer.
    void timerEvent(QTimerEvent* event) override;

private:
    explicit CIAPConnectEngine(const QString& name);

    // Calls OnIapTransferOpen (open) or OnIapTransferBlocked on each observer
    // that is still registered when its turn comes.
    void ReportTransfer(bool open);

    QString m_strIapName;
    QString m_strIapNameCopy;
    QString m_strCurrentIap;
    qint32 m_nSessionState = KSessionNone;
    bool m_bOnline = false;
    CQList<MIAPConnectStateObserver*, MIAPConnectStateObserver*> m_listObservers;
};

#endif
