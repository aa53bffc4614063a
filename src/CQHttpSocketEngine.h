#ifndef VELANET_CQHTTPSOCKETENGINE_H
#define VELANET_CQHTTPSOCKETENGINE_H

// CQHttpSocketEngine carries one HTTP exchange at a time over one TCP (or
// TLS) connection: host lookup (DNS cache first, then the system resolver),
// connect, the request written in slices of at most 1024 bytes paced by
// bytes-written notifications, and received bytes handed up in pieces of at
// most 1024 bytes. It knows nothing of HTTP; its owner (the HTTP engine)
// hears everything through MSocketEngineObserver.
//
// Status machine (enHttpSocketsEngineStatus):
//   100 idle --ConnectL--> 102 lookup --answer--> 103 resolved --> 104 connecting
//   100 --ConnectL, cache hit or literal address--> 104 connecting
//   104 --connected--> 106 --slice written--> 107 --all sent--> 108 receiving
//   any --socket error--> 100;  CancelEngine --> 100
// An https exchange through a proxy stays in 104 while the proxy is asked
// for a tunnel (CONNECT) and TLS runs through it; a refusal returns to 100.
//
// Resumable upload (send mode 2): each block of the file is a request of its
// own on the same connection; the server's reply says how much of the file
// it holds, and the next block follows from there.
//   DoSendOLFile: first block (at most 1000 bytes) --> 107, olState 1
//   107 --block written--> 108 (olState 2) --reply--> next block 107,
//   or 100 when the server holds the whole file or the reply has no Range.

#include "BaseClass/src/CLimitedCounter.h"
#include "BaseClass/src/CQString.h"
#include "src/CQSendFileUnit.h"
#include "src/IAPObserver.h"
#include "src/NetConstants.h"

#include <QAbstractSocket>
#include <QByteArray>
#include <QHostInfo>
#include <QList>
#include <QObject>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslError>
#include <QString>
#include <QTcpSocket>

#include <memory>

class CIAPConnectEngine;
class CQPostFileHeaderUnit;
class CQPostOLFileHeaderUnit;
class CQTimer;
class CQTimerObserver;
class QSslSocket;

// What the socket engine reports to its owner.
class MSocketEngineObserver
{
public:
    virtual ~MSocketEngineObserver() = default;
    // Events: 32 connected, 34 socket error, 35/48/49/50 passed through,
    // 36 host not resolvable, 37 resolved, 38 lookup started.
    virtual void OnSocketEngine_SocketEvent(int event, int param) = 0;
    // A piece of at most 1024 received bytes; 0 stops reading.
    virtual int OnSocketEngine_ReceiveData(unsigned char* data, int len) = 0;
    virtual int OnSocketEngine_SendData(unsigned char* data, int len) = 0;
    // The body ended with the connection (or the last chunk).
    virtual int OnSocketEngine_ReceivDataEnd() = 0;
    virtual unsigned char* OnSocketEngine_GetMoreSendData(int offset, int& len) = 0;
    // The proxy answered the tunnel request (CONNECT) with a status outside
    // 200..299; the connection is closed already. An observer that does not
    // tell it apart hears a socket error.
    virtual void OnSocketEngine_TunnelRefused(int /*status*/) { OnSocketEngine_SocketEvent(34, 0); }
};

class CQHttpSocketEngine : public QObject, public MIAPConnectStateObserver
{
    Q_OBJECT

public:
    enum enHttpSocketsEngineStatus : int
    {
        HSES_Idle = 100,        // idle or closed; the only state in which ConnectL starts
        HSES_Starting = 101,    // accepted by ConnectByIP as a starting state; never entered
        HSES_LookingUp = 102,   // host lookup running; its answer moves on
        HSES_Resolved = 103,    // address known, connecting next
        HSES_Connecting = 104,  // TCP connect issued; connected() moves on
        HSES_Connected = 106,   // connected, nothing sent yet
        HSES_Sending = 107,     // a slice written, waiting for bytes-written
        HSES_Receiving = 108,   // waiting for received data
    };

    // Send modes: memory request, multipart file upload, resumable upload.
    enum
    {
        KSendModeData = 0,
        KSendModeFile = 1,
        KSendModeOLFile = 2,
    };

    static constexpr int KSliceSize = velanet::KSliceSize;
    static constexpr int KMaxServerNameLength = 256;

    // Resumable upload progress (olState).
    enum enOLState : int
    {
        OLS_Idle = 0,            // no block written yet
        OLS_FirstBlock = 1,      // the first block is on its way; its bytes-written moves on
        OLS_WaitingReplies = 2,  // every reply leads to the next block or to the end
    };

    // Room for one block request: its text and the block's bytes.
    static constexpr int KOLBlockSize = velanet::KOLBlockSize;
    // Size of the array a block request text is built in (text and a zero).
    static constexpr int KOLRequestTextSize = 1024;
    // Bytes of the file carried by the first block at most.
    static constexpr int KOLFirstBlockMax = 1000;
    // How long a block's reply may take, until SetOLFileReplyTimeOut.
    static constexpr int KOLReplyTimeOutMs = 120000;
    // Progress reported when a reply says nothing of the file.
    static constexpr int KOLNoProgress = -1;

    // The two integers are accepted and ignored.
    static CQHttpSocketEngine* NewL(MSocketEngineObserver* observer, int, int);
    static CQHttpSocketEngine* NewLC(MSocketEngineObserver* observer, int, int);
    ~CQHttpSocketEngine() override;

    // Trust these CA certificates (besides the system's) for https.
    static void AddCaCertificates(const QList<QSslCertificate>& certificates);

    virtual int RunError(int error);
    virtual void OnSelectIapObserver_NotifyStatus(bool, int);
    virtual void SetSocketEvent(int event, int param);
    void OnIapTransferBlocked() override;
    void OnIapTransferOpen() override;

    void SetServerName(unsigned char* name, int length);
    void SetPort(int port);
    // An https request: connect with TLS and verify the host name.
    void SetSecure(bool secure);
    // Reach the server of the next https exchange through an HTTP proxy:
    // the lookup and the TCP connection go to proxyHost:proxyPort, which is
    // asked with CONNECT for a tunnel to the server name and port (with a
    // Proxy-Authorization line when authorization is not empty); TLS with
    // the server, verified against the server name, then runs through it.
    // An empty proxyHost, or an exchange that is not secure: no tunnel.
    // CancelEngine forgets the tunnel, as it forgets the secure flag.
    void SetTunnel(const QByteArray& proxyHost, int proxyPort, const QByteArray& authorization);
    // The access point engine to register with (not owned).
    void SetIapEngine(CIAPConnectEngine* engine);

    int ConnectL();
    int DoSend(unsigned char* data, int length, bool owns);
    int DoSendFile(CQPostFileHeaderUnit& unit, bool owns);
    int DoSendOLFile(CQPostOLFileHeaderUnit& unit, bool owns);
    int DoReceive();
    void DoClearSendInfo();
    void CancelEngine();
    void DoCancel();
    void DisConnect();
    void CloseSocket();
    void OnSetSocketErrorEvent(int code, int param);
    void ChangeEngineStatus(enHttpSocketsEngineStatus status);

    // Resumable upload.
    void SetOLHttp(void* http);
    void SetOLFileTimerObserver(CQTimerObserver* observer);
    void StartOLFileRecvTimer(CQTimerObserver* observer, int ms);
    void StopOLFileRecvTimer();
    void DoStopOLFileTimer();
    // The "Range: " value of the reply last read in send mode 2, or 0.
    unsigned int GetOLFileServerSavedLength() const;
    // The request text of one block, in a new zero-filled array of
    // KOLRequestTextSize bytes (new[], the caller frees it): "POST " path
    // " HTTP/1.1", the agent, "Host: " host (null: the host remembered from
    // the last non-null host), Keep-Alive, then a Content-Length and a Range
    // line that carry no numbers (start and length are not written: the
    // server takes the block's extent from the bytes after the text). Null
    // when path is null or the text would not fit the array.
    char* GetPostOLFileMethodData(char* path, unsigned long start, unsigned long length, const char* host);
    // Length of that text for a path of pathLen and a host of hostLen bytes.
    [[nodiscard]] static int OLRequestTextLength(int pathLen, int hostLen);
    // Whether every block of an upload with this key, host and block size
    // fits olBlock beside its request text (path = key and 32 hex digits).
    [[nodiscard]] static bool OLBlockFits(int keyLen, int hostLen, int blockSize);
    // Parser of a block reply: the decimal value of its "Range: " field (at
    // the start of a line, up to the next CRLF or the end of the bytes).
    // False, and saved = 0, when the reply has no such field.
    [[nodiscard]] static bool FindOLFileSavedLength(const unsigned char* data, int len, unsigned int& saved);
    // The reply time-out of the blocks (ms); negative counts as 0.
    void SetOLFileReplyTimeOut(int ms);
    int GetOLFileReplyTimeOut() const { return iOLReplyTimeOut; }
    enOLState GetOLState() const { return static_cast<enOLState>(iOLState); }
    const CQSString& GetOLKey() const { return iOLKey; }
    const CQSString& GetOLHost() const { return iOLHost; }
    int GetSendMode() const { return iSendMode; }

    // Kept for callers of the platform version; they do nothing.
    void StartTimer(int);
    void StopTimer();
    void CloseIap();
    void ChangeStateL(const QByteArray&);

    enHttpSocketsEngineStatus GetEngineStatus() const;
    bool IsBusy() const;

    // Steps of the exchange, public for the owner and for tests.
    int ConnectServer();
    int StartDNS();
    int ConnectByIP(const QString& ip);
    int HandleSendData(CQSendUnit* unit);
    int HandleRecvData();

private slots:
    void OnSocketConnect();
    void OnSocketConnectError(QAbstractSocket::SocketError error);
    void OnDataSend(qint64 bytes);
    void OnDataReceive();
    void OnGetIPAddress(const QHostInfo& info);
    void OnSslErrors(const QList<QSslError>& errors);
    void OnTunnelConnected();
    void OnTunnelReadyRead();
    // A TLS session (or a newer ticket) to file for this origin.
    void OnTlsSessionReady();

private:
    explicit CQHttpSocketEngine(MSocketEngineObserver* observer);
    void ConstructL(int, int);
    CQHttpSocketEngine(const CQHttpSocketEngine&) = delete;
    CQHttpSocketEngine& operator=(const CQHttpSocketEngine&) = delete;

    // Results of the private steps.
    enum
    {
        KStop = 0,   // HandUpPieces: the observer is done with this read
        KGoOn = 1,   // HandUpPieces: every piece was taken
    };
    enum
    {
        KNothingToWrite = 0,  // WriteSlices: the unit is drained or the window is full
        KSlicesWritten = 1,   // WriteSlices: one write call carries new slices
        KWriteRefused = -1,   // WriteSlices: the socket is not connected
    };

    // Bytes read from the socket per read call; a multiple of KSliceSize so
    // that cutting each block gives the same pieces as cutting the whole read.
    static constexpr int KReadBlockSize = 64 * KSliceSize;
    // Bytes Qt may hold for the engine before it stops reading the kernel.
    static constexpr int KSocketReadBufferLimit = 4 * KReadBlockSize;
    // The same for the TLS socket (decrypted bytes, and what its TCP socket
    // holds).
    static constexpr int KSecureSocketReadBufferLimit = KReadBlockSize;
    // With direct reads: the bytes Qt reads per notification (it must read
    // some to notice the peer's close; the rest is read by the engine).
    static constexpr int KDirectReadAhead = 1;
    // Blocks read directly per read notification at most.
    static constexpr int KMaxBlocksPerNotification = 16;
    // Request bytes that may wait in the socket at once, once the first
    // KPacedSlices slices of a request have gone one per bytes-written.
    static constexpr int KSendWindowBytes = 64 * KSliceSize;
    static constexpr int KPacedSlices = 4;
    static constexpr int KDnsCounterMax = 3;
    static constexpr int KUnusedTimeOut = 30000;

    // Tests feed the private slots (lookup answers, bytes written) and set send states no public call reaches.
    friend class CQHttpSocketEngineTestPeer;

    // serverName up to its first zero byte, one character per byte.
    QString HostText() const;
    // The name that is looked up and connected to: the proxy's when the
    // exchange goes through a tunnel, else HostText().
    QString ConnectName() const;
    bool Tunnelling() const;
    // The trusted CAs of every TLS connection.
    void ConfigureTls(QSslSocket* socket) const;
    // The cached session of this origin, if any, into configuration.
    void OfferTlsSession(QSslConfiguration& configuration) const;
    // The proxy's reply to CONNECT: TLS through the tunnel on 2xx, the
    // refusal reported otherwise, event 34 for what is no reply.
    void ReadTunnelReply(QSslSocket* socket);
    void RefuseTunnel(QSslSocket* socket, int status);
    // Of a lookup's addresses: the first IPv4 one, else the first IPv6 one.
    static QHostAddress ChooseAddress(const QList<QHostAddress>& addresses);
    // The socket of the current (or last) connection.
    QTcpSocket* CurrentSocket();
    // Request bytes the socket holds and has not written yet (for TLS the
    // plain bytes not yet encrypted plus the encrypted bytes not yet sent).
    qint64 WaitingBytes(QTcpSocket* socket) const;
    // Whether a slot runs for the current socket (or was called directly).
    bool IsFromCurrentSocket() const;
    // The TLS socket, made and wired on first use.
    QSslSocket* SecureSocket();
    void ConnectSocketSignals(QTcpSocket* socket);
    // Ends the current connection without a report; a no-op when closed.
    void AbortSocket(QTcpSocket* socket);
    // Aborts a running lookup; an answer already sent is ignored.
    void ForgetLookup();
    // Cuts slices from unit into iSendBuffer as the pacing allows and hands
    // them to the socket with one write call.
    [[nodiscard]] int WriteSlices(CQSendUnit* unit);
    // After a bytes-written notification: more slices, or reception once
    // the socket has taken the whole request.
    void ContinueSend(CQSendUnit* unit);
    // Reads at most KReadBlockSize bytes into iReceiveBuffer; the count.
    [[nodiscard]] int ReadBlock(QTcpSocket* socket);
    // Direct reads on (reception of a plain-TCP response) or off.
    void UseDirectReads(bool direct);
    // Whether ReadBlock reads socket's descriptor itself.
    [[nodiscard]] bool IsDirect(QTcpSocket* socket) const;
    // One recv() of at most len bytes without waiting; the count, 0 when
    // nothing is there (or the stream ended, or failed: Qt reports those).
    [[nodiscard]] static int ReadDescriptor(QTcpSocket* socket, char* data, int len);
    // Whether the read that gave lastRead bytes (the blocks-th of this
    // notification) may have left bytes to read now.
    [[nodiscard]] bool MoreToRead(QTcpSocket* socket, int lastRead, int blocks) const;
    // Hands data to the observer in pieces of KSliceSize; KStop at the
    // first piece answered with 0 or during which generation changed.
    [[nodiscard]] int HandUpPieces(unsigned char* data, int len, quint64 generation);
    // The rest of the current read, dropped after the observer stopped.
    void DropRestOfRead(QTcpSocket* socket);
    // A socket failure, handled once the socket has finished its own
    // signal: the end of a body framed by the close, or event 34.
    void DeferSocketFailure(QAbstractSocket::SocketError error);
    void HandleSocketFailure(quint64 connection, QAbstractSocket::SocketError error);
    // The peer closed while reception was armed: unread bytes, then the end.
    void EndBodyByClose(QTcpSocket* socket);
    // Frees the reply timer (also from inside its own callback).
    void ForgetOLTimer();
    // Passes the reply timer's expiry on and notes which timer is calling.
    class OLTimerRelay;
    // Builds the request of a block of n file bytes into iOLBlock and reads
    // the bytes after it from the file's read position; the count read goes
    // to got. The block's length, or KNoBlock.
    [[nodiscard]] int BuildOLBlock(int n, unsigned long start, const char* host, int& got);
    // Writes the first total bytes of iOLBlock and starts the reply timer.
    [[nodiscard]] int SendOLBlock(int total);
    // A block was written (bytes-written in send mode 2).
    void ContinueOLSend();
    // One read is one reply: the next block, or the end of the upload.
    void HandleOLReply(QTcpSocket* socket);
    // The upload is over: idle, file unit cleared.
    void FinishOLUpload();

    QTcpSocket iSocket;                   // the plain connection (a child of the engine)
    QString iServerIp;                    // the dotted address last given to ConnectByIP
    int iPort = 0;
    QByteArray iServerName;               // at most KMaxServerNameLength bytes
    enHttpSocketsEngineStatus iStatus = HSES_Idle;
    CIAPConnectEngine* iIapEngine = nullptr;  // not owned
    QSslSocket* iSecureSocket = nullptr;  // owned (a child), made for the first https exchange
    MSocketEngineObserver* iObserver;     // not owned
    int iTimeOut = KUnusedTimeOut;        // kept for the platform version; never read
    QByteArray iReceiveBuffer;            // KReadBlockSize bytes of storage, reused by every read
    int iReceiveLength = 0;               // bytes in iReceiveBuffer not yet handed up
    int iLastReadCount = 0;               // count of the last socket read
    QByteArray iSendBuffer;               // KSendWindowBytes of storage: the slices of one write
    QByteArray iOLSendBuffer;             // the resumable upload's block being written
    unsigned char* iOLBlock = nullptr;    // owned, KOLBlockSize bytes when allocated
    CQSendDataUnit iDataUnit;
    CQSendFileUnit iFileUnit;
    int iSendMode = KSendModeData;
    CLimitedCounter iDnsCounter;          // lookups started; never tested
    bool iSecure = false;
    CQSString iOLKey;
    CQSString iOLHost;
    int iOLState = 0;
    void* iOLHttp = nullptr;                      // not owned, not used
    CQTimer* iOLTimer = nullptr;                  // the running reply timer, a child
    CQTimerObserver* iOLTimerObserver = nullptr;  // not owned
    int iOLReplyTimeOut = KOLReplyTimeOutMs;
    std::unique_ptr<OLTimerRelay> iOLTimerRelay;  // the observer of iOLTimer
    CQTimer* iOLTimerFiring = nullptr;            // the timer whose expiry is being reported
    bool iBusy = false;

    bool iReadArmed = false;   // reception armed: readyRead is acted upon
    bool iDirectReads = false; // the plain socket's bytes are read with recv()
    int iSliceCount = 0;       // slices cut from the request being written
    int iLookupId = -1;        // QHostInfo id of the running lookup
    // Bumped by every cancel, close, new exchange and reported failure: a
    // loop over pieces stops when it changes under it.
    quint64 iGeneration = 0;
    // Bumped by every new connection and every close: a failure deferred
    // from an older connection is dropped.
    quint64 iConnection = 0;

    // Progress of a connection through a proxy's tunnel (status 104 all along).
    enum enTunnelPhase : int
    {
        TP_None = 0,           // no tunnel, or the tunnel is done
        TP_Connecting = 1,     // TCP connect to the proxy; connected() sends CONNECT
        TP_AwaitingReply = 2,  // CONNECT sent; the reply head moves on
        TP_Handshake = 3,      // TLS with the server; encrypted() reports 32
    };
    // Bytes of the proxy's reply head that may come before it is refused.
    static constexpr int KTunnelReplyLimit = 10240;
    QByteArray iTunnelHost;            // empty: no tunnel
    int iTunnelPort = 0;
    QByteArray iTunnelAuthorization;   // "Basic ..." or empty
    QByteArray iTunnelReply;           // the reply head read so far
    enTunnelPhase iTunnelPhase = TP_None;
};

#endif
