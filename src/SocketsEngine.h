#ifndef VELANET_SOCKETSENGINE_H
#define VELANET_SOCKETSENGINE_H

// CSocketsEngine keeps one long-lived TCP connection to a messaging server:
// it opens the platform's network session where the platform requires one
// (Qt 5's bearer management; Qt 6 has no sessions and opens none),
// resolves the server name, connects with a time-out, passes received bytes
// up as they come and reports connection and bearer events to its owner
// (MUINotifier). Its reader and writer move the bytes (CSocketsReader,
// CSocketsWriter); they report to it through MEngineNotifier.
//
// States (TSocketsEngineState):
//   ENotConnected --ConnectL(address)--> EConnecting --connected()--> EConnected
//   EConnecting --time-out, DoCancel, Disconnect, Abort--> ENotConnected (silent)
//   EConnected --Disconnect, Abort--> ENotConnected (silent)
//   any --the peer or the session closes--> EDisconnected (OnClose(2))
// A name lookup's answer returns the engine to ENotConnected while the
// connect it started runs on; connected() still moves it to EConnected.
//
// Only a close by the peer or by the network session is reported. Socket
// errors are not watched: a connect that fails ends silently at the time-out.
//
// Lifetime. The owner may delete the engine from inside any report; the
// socket and the session are then deleted once their signal has returned.
// The access point engine is not owned and may go first.

#include "BaseClass/src/CQTimer.h"
#include "src/IAPObserver.h"

#include <QAbstractSocket>
#include <QHostInfo>
#include <QObject>
#include <QPointer>
#include <QString>

class CIAPConnectEngine;
class CSocketsReader;
class CSocketsWriter;
class QByteArray;
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
class QNetworkSession;
#endif
class QTcpSocket;

enum TSocketsEngineState
{
    ENotConnected = 0,  // idle; ConnectL starts a connect from here only
    EConnecting = 1,    // TCP connect under way; connected() or the time-out moves on
    EConnected = 2,     // connected; reads and writes flow until a close
    // 3 and 4 belong to the numbering; nothing sets them.
    EDisconnected = 5,  // the peer or the network closed; Disconnect makes it idle
};

// What the engine reports to its owner.
class MUINotifier
{
public:
    virtual ~MUINotifier() = default;
    // A received chunk of at most 1024 bytes; a negative length is a read
    // error.
    virtual void OnRecv(const unsigned char* data, int length) = 0;
    virtual void OnSend() = 0;
    virtual void OnConnected() = 0;
    // reason 2 (CSocketsEngine::KCloseByPeer): the peer or the network closed.
    virtual void OnClose(int reason) = 0;
    virtual void OnBlock() = 0;
    virtual void OnOpen() = 0;
};

// What the reader and the writer report to the engine.
class MEngineNotifier
{
public:
    // Kinds of failure a reader or writer could report (neither does).
    enum TErrorType
    {
        EGeneralReadError = 1,
        EGeneralWriteError = 2,
        ETimeOutOnWrite = 3,
    };

    virtual ~MEngineNotifier() = default;
    virtual void ReportError(MEngineNotifier::TErrorType type, int code) = 0;
    virtual void ResponseReceived(const unsigned char* data, int length) = 0;
    virtual void NotifySendData() = 0;
};

class CSocketsEngine : public QObject,
                       public MEngineNotifier,
                       public MTimeOutNotifier,
                       public MIAPConnectStateObserver
{
    Q_OBJECT

public:
    static constexpr int KDefaultPortNumber = 14000;
    // The connect time-out in microseconds (30 s).
    static constexpr int KTimeOut = 30000000;
    // The server a new engine connects to unless told otherwise.
    static constexpr const char* KDefaultServerName = "127.0.0.1";
    // How long StartConnect and reconnectNetworkSession wait for the session.
    static constexpr int KSessionOpenWaitMs = 30000;
    // The reason OnClose carries.
    static constexpr int KCloseByPeer = 2;
    // StartConnect results.
    static constexpr int KConnectStarted = 1;
    static constexpr int KSessionNotOpened = 0;
    // LookupId when no name lookup runs.
    static constexpr int KNoLookup = -1;

    // Constructs and runs ConstructL; null when the memory cannot be had.
    // The access point engine is not owned and may be null; the engine does
    // not register with it.
    static CSocketsEngine* NewL(MUINotifier& notifier, CIAPConnectEngine* iapEngine);
    static CSocketsEngine* NewLC(MUINotifier& notifier, CIAPConnectEngine* iapEngine);
    ~CSocketsEngine() override;

    CSocketsEngine(const CSocketsEngine&) = delete;
    CSocketsEngine& operator=(const CSocketsEngine&) = delete;

    void SetServerName(const QString& name);
    QString ServerName() const;
    void SetPort(int port);
    int Port() const;

    // Opens the network session if the platform requires one, then
    // ConnectL(). KConnectStarted, or KSessionNotOpened when the session
    // did not open (it is kept, and the next call does not open it again).
    // The session is a child of the engine. Qt 6 has no sessions: there it
    // always connects.
    int StartConnect();
    // In ENotConnected only: connects to the server name if it is an IP
    // address, else looks it up first (OnGetIPAddress).
    void ConnectL();
    // In ENotConnected only: connects to address with the time-out running.
    void ConnectL(QString address);
    bool Connected() const;
    TSocketsEngineState State() const;
    // The socket's own state, which may differ from State(): an answered
    // lookup leaves the engine idle while its connect runs on.
    QAbstractSocket::SocketState SocketState() const;
    // The QHostInfo id of the engine's running name lookup, else KNoLookup.
    int LookupId() const;
    // Whether the connect time-out is running.
    bool IsConnectTimeOutRunning() const;
    // Whether received bytes are read and passed up as OnRecv.
    bool IsReading() const;

    // Queues data for the peer; dropped unless connected.
    void WriteL(const QByteArray& data);
    // Starts the reader again when connected and it is stopped.
    void Read();

    // Closing by the library itself: never reported to the owner.
    // Disconnect: closes the socket, stops reader and writer, ENotConnected.
    void Disconnect();
    // Marks the connection and access point as to be closed, then Disconnect.
    void Abort();
    // Cancels the time-out; closes a socket that is still connecting;
    // ENotConnected.
    void DoCancel();

    // The mark Abort sets and every connect clears; the engine never reads
    // it, its owner may.
    void CloseConnAndIap(bool close);
    bool IsCloseConnAndIap() const;
    // The access point engine given at construction; null when none was
    // given or it has been destroyed.
    CIAPConnectEngine* IapEngine() const;

    // Opens again a session that is not connected (waits up to
    // KSessionOpenWaitMs). Nothing without a session (always on Qt 6).
    void reconnectNetworkSession();
    // Stores state; EConnected reports OnConnected, EDisconnected
    // OnClose(KCloseByPeer), the others nothing.
    void ChangeStatus(TSocketsEngineState state);
    // A logging hook; does nothing.
    void Print(const QString& text);

    // For tests and tuning: the connect time-out, in microseconds, of the
    // connects started from now on. KTimeOut unless changed.
    void SetConnectTimeOut(int microseconds);
    int ConnectTimeOut() const;

    // MEngineNotifier: received bytes go up as OnRecv, send completions as
    // OnSend; errors are not reported.
    void ReportError(MEngineNotifier::TErrorType type, int code) override;
    void ResponseReceived(const unsigned char* data, int length) override;
    void NotifySendData() override;

    // MTimeOutNotifier: the connect time-out; back to ENotConnected, silently.
    void TimerExpired() override;

    // MIAPConnectStateObserver: passed up as OnBlock and OnOpen.
    void OnIapTransferBlocked() override;
    void OnIapTransferOpen() override;

public slots:
    // The socket connected: EConnected, reader listening, OnConnected.
    void OnConnected();
    // The peer or the session closed: socket closed, reader and writer
    // stopped, EDisconnected, OnClose(2).
    void OnDisConnected();
    // The answer of the engine's lookup (answers of a lookup that was
    // aborted or replaced are ignored): connects to its first IPv4 address
    // (else its first address), then ENotConnected in every case.
    void OnGetIPAddress(const QHostInfo& info);

private:
    CSocketsEngine(MUINotifier& notifier, CIAPConnectEngine* iapEngine);
    void ConstructL();

    // A report made from inside a signal of the socket or the session; while
    // one runs, the destructor leaves deleting them to the event loop.
    class CSignalScope;
    friend class CSignalScope;

#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    // Creates the session StartConnect opens, or null when none is needed.
    [[nodiscard]] QNetworkSession* NewSessionIfRequired();
#endif
    // Ends the socket's connection without a report: disconnected() is
    // no longer listened to (Qt emits it from inside close(), or later once
    // written bytes are flushed), and a connect still under way is aborted.
    void CloseSocket();
    // Readies the socket for a new connect: drops an earlier connection
    // still closing and listens to disconnected() again.
    void PrepareSocket();
    // Aborts a running lookup; its answer, should it come, is ignored.
    void ForgetLookup();

    MUINotifier& iNotifier;
    TSocketsEngineState iState = ENotConnected;
    QTcpSocket* iSocket = nullptr;
    CTimeOutTimer* iTimer = nullptr;
    QString iServerName;
    qint32 iPort = KDefaultPortNumber;
    QPointer<CIAPConnectEngine> iIapEngine;
    bool iCloseConnAndIap = false;
    CSocketsWriter* iWriter = nullptr;
    CSocketsReader* iReader = nullptr;
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    QNetworkSession* iSession = nullptr;
#endif

    int iConnectTimeOut = KTimeOut;
    int iLookupId = KNoLookup;
    int iSignalDepth = 0;
};

#endif
