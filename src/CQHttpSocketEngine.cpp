// CQHttpSocketEngine: host lookup, connect, paced writes, pieced reads.
//
// Writing. A request is cut from its send unit in slices of at most
// KSliceSize bytes, one LoadData per slice. The first KPacedSlices slices of
// a request go to the socket one at a time, each only after the
// bytes-written notification of the one before; a request head (almost
// always below 4 KiB) is therefore written exactly slice by slice. Past
// them a notification no longer releases a single slice: it tops the socket
// up with as many slices as keep at most KSendWindowBytes waiting in it,
// copied into iSendBuffer and handed over with one write call. One slice
// per notification costs a system call and an event-loop turn per KiB, more
// CPU than the transfer itself on a large upload. The wire carries the same
// bytes in the same order either way, the unit is never read more than
// KSendWindowBytes ahead of the socket, and reception is armed only once the
// socket has written the last byte of the request.
//
// Reading. readyRead stays connected; iReadArmed says whether DoReceive has
// armed reception (the notification is ignored otherwise, and bytes that
// came meanwhile are read as soon as reception is armed). A notification is
// drained in blocks of KReadBlockSize into the one iReceiveBuffer, with no
// allocation per read, and each block is cut into KSliceSize pieces from
// memory; a block is a whole number of pieces, so the pieces are those of
// one big read.
//
// Direct reads. While a plain-TCP response is being received, the kernel's
// bytes go straight into iReceiveBuffer with recv() on the socket's
// descriptor: Qt is allowed to buffer only KDirectReadAhead bytes ahead of
// the engine, so it still gets every read notification and still detects
// the peer's close and every error itself (reported as before), while the
// bulk of the body skips the copy through Qt's buffer. A recv() that finds
// the end of the stream consumes nothing, so Qt's next read sees the close.
// Outside reception (request still being written, resumable uploads, TLS)
// Qt buffers as before. The pieces of a read stop at the first one the observer
// answers with 0 (the rest of that read is dropped and reception is not
// re-armed) or during which the engine was cancelled or given a new
// exchange (iGeneration): an engine finished in the middle of a read must
// not be fed the next bytes as a new response.
//
// Failures. QAbstractSocket tears its connection down after it has emitted
// an error, so a report made inside that signal could not start the next
// exchange on the same socket. Failures are therefore handled from the event
// loop, and dropped when their connection is gone by then (iConnection). A
// peer that closes while reception is armed ends the body: unread bytes
// first, then OnSocketEngine_ReceivDataEnd. Any other failure is event 34.
//
// TLS. A secure exchange uses a QSslSocket made on first use. It connects to
// the resolved address with the host name as peer verification name, trusts
// the system CAs plus those given to AddCaCertificates, reports 32 once the
// handshake is done, and any certificate error fails it with event 34.
// Sessions are resumed: every session the server hands out (TLS 1.2 with
// the handshake, TLS 1.3 after it) goes to the process's TlsSessionCache
// under the origin's host and port and the trusted CA list, and the next
// connection to that origin under the same trust offers it.
//
// Tunnel. An https exchange through a proxy looks up and connects to the
// proxy, writes a CONNECT request for the server's host and port, reads the
// proxy's reply head (peeking no further than the head), and on a 2xx reply
// starts TLS with the server on the same socket, verified against the
// server's name. A refusal is reported with its status; anything else that
// goes wrong is event 34. The tunnel code is the ProxyTunnel unit's.
//
// Host lookup. A literal address (IPv4 or IPv6) connects at once. Otherwise
// the DNS cache is asked for a fresh entry, else QHostInfo: the first IPv4
// address of the answer is stored in the cache and used; an answer without
// one but with IPv6 addresses uses the first of those (the cache holds IPv4
// only, so such a host is looked up every time); an answer without any
// address falls back on any cached entry, however old, and only then
// reports 36. The answer of a lookup that was cancelled is ignored.
//
// Resumable upload. A block request is its text followed directly by the
// block's bytes, written with one call; the path of each block is the key
// followed by the MD5 of exactly those bytes. Once the socket has written
// the whole block, the engine waits for the reply; one read is one reply
// (a reply split across reads is not joined) and only its "Range: " line
// counts. The reply timer runs from each block's write to its reply and
// reports to the owner's timer observer; the engine does not act on it.

#include "src/CQHttpSocketEngine.h"

#include "BaseClass/src/CQTimer.h"
#include "BaseClass/src/QtAssert.h"
#include "src/DNSCache.h"
#include "src/IAPConnectEngine.h"
#include "src/RequestHeaderUnit.h"
#include "src/internal/ProxyTunnel_p.h"
#include "src/internal/TlsSessionCache_p.h"

#include <QHostAddress>
#include <QMetaObject>
#include <QPointer>
#include <QSslConfiguration>
#include <QSslSocket>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <sys/socket.h>

namespace {

const char KAssertFile[] = "src/CQHttpSocketEngine";

// Results of the public steps.
enum
{
    KRefused = 0,
    KDone = 1,
    KBusy = -1,
};

// Events raised to the observer (declared in src/NetConstants.h).
using velanet::KEventConnected;
using velanet::KEventHostNotResolvable;
using velanet::KEventLookupStarted;
using velanet::KEventPassedThroughA;
using velanet::KEventPassedThroughB;
using velanet::KEventPassedThroughC;
using velanet::KEventDecompressFailed;
using velanet::KEventResolved;
using velanet::KEventSocketError;

// QHostInfo id of no lookup.
constexpr int KNoLookup = -1;

// DoSendOLFile: no memory for the block buffer.
constexpr int KNoMemory = -1;
// BuildOLBlock: the block cannot be built.
constexpr int KNoBlock = -1;

// A block request text: "POST " path KOLAfterPath host KOLAfterHost.
const char KOLBeforePath[] = "POST ";
const char KOLAfterPath[] = " HTTP/1.1\r\n"
                            "User-Agent: VelaClient\r\n"
                            "Host: ";
const char KOLAfterHost[] = "\r\n"
                            "Connection: Keep-Alive\r\n"
                            "Content-Length: \r\n"
                            "Range: bytes=-\r\n"
                            "\r\n";
// The one field of a block reply that is read.
const char KOLRangeField[] = "Range: ";
// 32 hexadecimal digits of the block's MD5 follow the key in the path.
constexpr int KMd5HexLength = 32;

constexpr int TextLength(const char* text)
{
    int n = 0;
    while (text[n] != '\0')
        ++n;
    return n;
}

int LengthOf(const char* text)
{
    if (text == nullptr)
        return 0;
    const size_t n = std::strlen(text);
    return n > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(n);
}

// CA certificates trusted for https besides the system's.
QList<QSslCertificate>& ExtraCaCertificates()
{
    static QList<QSslCertificate> certificates;
    return certificates;
}

}  // namespace

class CQHttpSocketEngine::OLTimerRelay : public CQTimerObserver
{
public:
    explicit OLTimerRelay(CQHttpSocketEngine& engine) : m_engine(engine) {}

    void SetTarget(CQTimerObserver* target) { m_target = target; }

    void OnTimerExpired(CQTimer* timer) override
    {
        CQTimerObserver* target = m_target;
        if (target == nullptr)
            return;
        // The observer may stop the timer (it is then deleted later, not
        // inside its own signal) or destroy the whole engine, this relay
        // included: after the report only locals are used.
        QPointer<CQHttpSocketEngine> engine(&m_engine);
        m_engine.iOLTimerFiring = timer;
        target->OnTimerExpired(timer);
        if (engine)
            engine->iOLTimerFiring = nullptr;
    }

private:
    CQHttpSocketEngine& m_engine;
    CQTimerObserver* m_target = nullptr;
};

// ---------------------------------------------------------------- creation

CQHttpSocketEngine* CQHttpSocketEngine::NewL(MSocketEngineObserver* observer, int a, int b)
{
    return NewLC(observer, a, b);
}

CQHttpSocketEngine* CQHttpSocketEngine::NewLC(MSocketEngineObserver* observer, int a, int b)
{
    CQHttpSocketEngine* self = new (std::nothrow) CQHttpSocketEngine(observer);
    if (self != nullptr)
        self->ConstructL(a, b);
    return self;
}

CQHttpSocketEngine::CQHttpSocketEngine(MSocketEngineObserver* observer)
    : QObject(nullptr), iSocket(this), iObserver(observer)
{
}

void CQHttpSocketEngine::ConstructL(int, int)
{
    iDnsCounter.SetMaxCount(KDnsCounterMax, 0);
    // Both buffers keep this storage for the engine's whole life.
    iReceiveBuffer.resize(KReadBlockSize);
    iSendBuffer.resize(KSendWindowBytes);
    // Qt would otherwise buffer whatever the kernel holds, without limit,
    // before the engine reads it: on a fast download that grows the
    // process by megabytes for bytes that are copied out right away.
    iSocket.setReadBufferSize(KSocketReadBufferLimit);
    ConnectSocketSignals(&iSocket);
    connect(&iSocket, &QAbstractSocket::connected, this, &CQHttpSocketEngine::OnSocketConnect);
}

CQHttpSocketEngine::~CQHttpSocketEngine()
{
    // iIapEngine is null when the access point engine went first.
    if (iIapEngine != nullptr)
        iIapEngine->RemoveConnectStateObserver(this);
    iIapEngine = nullptr;
    iSocket.disconnect(this);
    if (iSecureSocket != nullptr)
        iSecureSocket->disconnect(this);
    DisConnect();
    ForgetLookup();
    delete iSecureSocket;
    iSecureSocket = nullptr;
    delete[] iOLBlock;
    iOLBlock = nullptr;
    // The reply timers are children of the engine and go with it.
}

void CQHttpSocketEngine::ConnectSocketSignals(QTcpSocket* socket)
{
    connect(socket, &QAbstractSocket::errorOccurred, this, &CQHttpSocketEngine::OnSocketConnectError);
    connect(socket, &QIODevice::bytesWritten, this, &CQHttpSocketEngine::OnDataSend);
    connect(socket, &QIODevice::readyRead, this, &CQHttpSocketEngine::OnDataReceive);
}

QSslSocket* CQHttpSocketEngine::SecureSocket()
{
    if (iSecureSocket != nullptr)
        return iSecureSocket;
    iSecureSocket = new QSslSocket(this);
    // One read block, not four: on every pass Qt copies all its TCP socket
    // holds into a temporary array, and at 256 KiB that array went back to
    // the system and was taken again thousands of times per GiB.
    iSecureSocket->setReadBufferSize(KSecureSocketReadBufferLimit);
    ConnectSocketSignals(iSecureSocket);
    // The session is filed before the connection is reported (a TLS 1.2
    // ticket comes with the handshake, TLS 1.3 tickets after it, with the
    // first bytes read).
    connect(iSecureSocket, &QSslSocket::encrypted, this, &CQHttpSocketEngine::OnTlsSessionReady);
    connect(iSecureSocket, &QSslSocket::newSessionTicketReceived, this, &CQHttpSocketEngine::OnTlsSessionReady);
    // Connected means ready to carry the request: after the handshake.
    connect(iSecureSocket, &QSslSocket::encrypted, this, &CQHttpSocketEngine::OnSocketConnect);
    connect(iSecureSocket, QOverload<const QList<QSslError>&>::of(&QSslSocket::sslErrors), this,
            &CQHttpSocketEngine::OnSslErrors);
    // Encrypted bytes leaving the socket make room in the send window too.
    connect(iSecureSocket, &QSslSocket::encryptedBytesWritten, this, &CQHttpSocketEngine::OnDataSend);
    // The plain phase of a connection through a proxy's tunnel.
    connect(iSecureSocket, &QAbstractSocket::connected, this, &CQHttpSocketEngine::OnTunnelConnected);
    connect(iSecureSocket, &QIODevice::readyRead, this, &CQHttpSocketEngine::OnTunnelReadyRead);
    return iSecureSocket;
}

void CQHttpSocketEngine::AddCaCertificates(const QList<QSslCertificate>& certificates)
{
    ExtraCaCertificates().append(certificates);
}

// ---------------------------------------------------------------- small calls

int CQHttpSocketEngine::RunError(int)
{
    return KRefused;
}

void CQHttpSocketEngine::OnSelectIapObserver_NotifyStatus(bool, int) {}

void CQHttpSocketEngine::SetSocketEvent(int event, int param)
{
    if (iObserver != nullptr)
        iObserver->OnSocketEngine_SocketEvent(event, param);
}

void CQHttpSocketEngine::OnIapTransferBlocked() {}

void CQHttpSocketEngine::OnIapTransferOpen() {}

void CQHttpSocketEngine::SetServerName(unsigned char* name, int length)
{
    if (name == nullptr || length <= 0) {
        iServerName.clear();
        return;
    }
    iServerName = QByteArray(reinterpret_cast<const char*>(name), std::min(length, KMaxServerNameLength));
}

void CQHttpSocketEngine::SetPort(int port)
{
    iPort = port;
}

void CQHttpSocketEngine::SetSecure(bool secure)
{
    iSecure = secure;
}

void CQHttpSocketEngine::SetTunnel(const QByteArray& proxyHost, int proxyPort, const QByteArray& authorization)
{
    iTunnelHost = proxyHost.left(KMaxServerNameLength);
    iTunnelPort = proxyPort;
    iTunnelAuthorization = authorization;
}

void CQHttpSocketEngine::SetIapEngine(CIAPConnectEngine* engine)
{
    if (iIapEngine != nullptr && iIapEngine != engine) {
        iIapEngine->RemoveConnectStateObserver(this);
        QObject::disconnect(iIapEngine, &QObject::destroyed, this, nullptr);
        iIapEngine = nullptr;
    }
    if (engine == nullptr)
        return;
    engine->AddConnectStateObserver(this);
    if (iIapEngine == engine)
        return;
    iIapEngine = engine;
    // The access point engine may be destroyed first: forget it then, so
    // that this engine's destructor does not reach into freed memory.
    connect(engine, &QObject::destroyed, this, [this] { iIapEngine = nullptr; });
}

void CQHttpSocketEngine::ChangeEngineStatus(enHttpSocketsEngineStatus status)
{
    iStatus = status;
}

void CQHttpSocketEngine::StartTimer(int) {}

void CQHttpSocketEngine::StopTimer() {}

void CQHttpSocketEngine::CloseIap() {}

void CQHttpSocketEngine::ChangeStateL(const QByteArray&) {}

CQHttpSocketEngine::enHttpSocketsEngineStatus CQHttpSocketEngine::GetEngineStatus() const
{
    return iStatus;
}

bool CQHttpSocketEngine::IsBusy() const
{
    return iBusy;
}

QString CQHttpSocketEngine::HostText() const
{
    const int zero = iServerName.indexOf('\0');
    return QString::fromLatin1(iServerName.constData(), zero < 0 ? iServerName.size() : zero);
}

bool CQHttpSocketEngine::Tunnelling() const
{
    return iSecure && !iTunnelHost.isEmpty();
}

QString CQHttpSocketEngine::ConnectName() const
{
    return Tunnelling() ? QString::fromLatin1(iTunnelHost) : HostText();
}

QTcpSocket* CQHttpSocketEngine::CurrentSocket()
{
    if (iSecure && iSecureSocket != nullptr)
        return iSecureSocket;
    return &iSocket;
}

bool CQHttpSocketEngine::IsFromCurrentSocket() const
{
    const QObject* from = sender();
    if (from == nullptr)
        return true;
    if (iSecure && iSecureSocket != nullptr)
        return from == iSecureSocket;
    return from == &iSocket;
}

qint64 CQHttpSocketEngine::WaitingBytes(QTcpSocket* socket) const
{
    qint64 waiting = socket->bytesToWrite();
    if (socket == iSecureSocket)
        waiting += iSecureSocket->encryptedBytesToWrite();
    return waiting;
}

// ---------------------------------------------------------------- connecting

int CQHttpSocketEngine::ConnectL()
{
    if (iStatus != HSES_Idle)
        return KRefused;
    return ConnectServer();
}

int CQHttpSocketEngine::ConnectServer()
{
    ++iGeneration;
    const QString host = ConnectName();
    QHostAddress literal;
    if (literal.setAddress(host))
        return ConnectByIP(host);

    CDNSCache* cache = CDNSCache::GetOrCreateRegistered();
    if (cache == nullptr)
        return StartDNS();
    unsigned int ip = 0;
    if (cache->GetAddress(CQWString(host), true, ip))
        return ConnectByIP(QHostAddress(static_cast<quint32>(ip)).toString());
    return StartDNS();
}

int CQHttpSocketEngine::StartDNS()
{
    iStatus = HSES_LookingUp;
    ForgetLookup();
    // By slot name: the answer then travels on a connection that goes with
    // this engine, where a slot object would be leaked by Qt when the engine
    // is destroyed before the answer comes.
    iLookupId = QHostInfo::lookupHost(ConnectName(), this, SLOT(OnGetIPAddress(QHostInfo)));
    static_cast<void>(iDnsCounter.IncreaseOne());
    // The answer always comes through the event loop, so reporting after
    // starting the lookup keeps the order 38, then 37 or 36; an observer
    // that cancels here has the answer of the lookup just started ignored.
    SetSocketEvent(KEventLookupStarted, 0);
    return KDone;
}

void CQHttpSocketEngine::ForgetLookup()
{
    if (iLookupId == KNoLookup)
        return;
    // An answer already on its way still comes; it is ignored for want of
    // its id.
    QHostInfo::abortHostLookup(iLookupId);
    iLookupId = KNoLookup;
}

void CQHttpSocketEngine::OnGetIPAddress(const QHostInfo& info)
{
    // An answer to a lookup that was cancelled, or replaced by a newer one.
    if (info.lookupId() != iLookupId || iStatus != HSES_LookingUp)
        return;
    iLookupId = KNoLookup;

    const QString host = ConnectName();
    CDNSCache* cache = CDNSCache::GetOrCreateRegistered();
    const QHostAddress address = ChooseAddress(info.addresses());

    if (address.isNull()) {
        // Nothing usable: an entry of an earlier run, however old, is
        // better than failing.
        unsigned int ip = 0;
        if (cache != nullptr && cache->GetAddress(CQWString(host), false, ip)) {
            iStatus = HSES_Resolved;
            ConnectByIP(QHostAddress(static_cast<quint32>(ip)).toString());
            return;
        }
        iStatus = HSES_Idle;
        SetSocketEvent(KEventHostNotResolvable, 0);
        return;
    }

    iStatus = HSES_Resolved;
    // The cache file holds IPv4 addresses only.
    if (cache != nullptr && address.protocol() == QAbstractSocket::IPv4Protocol)
        cache->Update(CQWString(host), address.toIPv4Address());
    const quint64 generation = iGeneration;
    SetSocketEvent(KEventResolved, 0);
    // The observer may have cancelled or restarted the engine meanwhile.
    if (generation == iGeneration && iStatus == HSES_Resolved)
        ConnectByIP(address.toString());
}

QHostAddress CQHttpSocketEngine::ChooseAddress(const QList<QHostAddress>& addresses)
{
    for (const QHostAddress& candidate : addresses) {
        if (candidate.protocol() == QAbstractSocket::IPv4Protocol)
            return candidate;
    }
    for (const QHostAddress& candidate : addresses) {
        if (candidate.protocol() == QAbstractSocket::IPv6Protocol)
            return candidate;
    }
    return QHostAddress();
}

int CQHttpSocketEngine::ConnectByIP(const QString& ip)
{
    if (iStatus != HSES_Idle && iStatus != HSES_Starting && iStatus != HSES_Resolved)
        return KRefused;
    iServerIp = ip;
    ++iConnection;
    iReadArmed = false;
    iSliceCount = 0;
    UseDirectReads(false);
    // Set before connecting: a loopback connect may report at once.
    iStatus = HSES_Connecting;
    const quint16 port = static_cast<quint16>(Tunnelling() ? iTunnelPort : iPort);
    iTunnelPhase = TP_None;
    if (iSecure) {
        AbortSocket(&iSocket);
        QSslSocket* socket = SecureSocket();
        AbortSocket(socket);
        ConfigureTls(socket);
        if (Tunnelling()) {
            // Plain to the proxy first; TLS starts once the tunnel stands.
            iTunnelPhase = TP_Connecting;
            iTunnelReply.clear();
            socket->connectToHost(ip, port, QIODevice::ReadWrite);
        } else {
            socket->connectToHostEncrypted(ip, port, HostText(), QIODevice::ReadWrite);
        }
    } else {
        if (iSecureSocket != nullptr)
            AbortSocket(iSecureSocket);
        AbortSocket(&iSocket);
        iSocket.connectToHost(ip, port, QIODevice::ReadWrite);
    }
    return KDone;
}

void CQHttpSocketEngine::ConfigureTls(QSslSocket* socket) const
{
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    if (!ExtraCaCertificates().isEmpty())
        configuration.addCaCertificates(ExtraCaCertificates());
    OfferTlsSession(configuration);
    socket->setSslConfiguration(configuration);
}

// ---------------------------------------------------------------- TLS sessions

void CQHttpSocketEngine::OfferTlsSession(QSslConfiguration& configuration) const
{
    // Qt hands the session out (sessionTicket) only with persistence on.
    configuration.setSslOption(QSsl::SslOptionDisableSessionPersistence, false);
    const QByteArray session = velanet::TlsSessionCache::Shared().Find(
        HostText(), static_cast<quint16>(iPort), configuration.caCertificates());
    if (!session.isEmpty())
        configuration.setSessionTicket(session);
}

void CQHttpSocketEngine::OnTlsSessionReady()
{
    if (!IsFromCurrentSocket() || !iSecure || iSecureSocket == nullptr)
        return;
    // Only a verified connection gets here: certificate errors are never
    // ignored, so they end the handshake before encrypted().
    const QSslConfiguration configuration = iSecureSocket->sslConfiguration();
    velanet::TlsSessionCache::Shared().Store(HostText(), static_cast<quint16>(iPort), configuration.caCertificates(),
                                             configuration.sessionTicket(),
                                             configuration.sessionTicketLifeTimeHint());
}

void CQHttpSocketEngine::OnTunnelConnected()
{
    if (!IsFromCurrentSocket() || iTunnelPhase != TP_Connecting || iStatus != HSES_Connecting)
        return;
    iTunnelPhase = TP_AwaitingReply;
    const int zero = iServerName.indexOf('\0');
    const int hostLen = zero < 0 ? iServerName.size() : zero;
    iSecureSocket->write(velanet::ConnectRequest(iServerName.constData(), hostLen, iPort, iTunnelAuthorization));
}

void CQHttpSocketEngine::OnTunnelReadyRead()
{
    if (!IsFromCurrentSocket() || iTunnelPhase != TP_AwaitingReply || iStatus != HSES_Connecting)
        return;
    ReadTunnelReply(iSecureSocket);
}

void CQHttpSocketEngine::ReadTunnelReply(QSslSocket* socket)
{
    // Never more than the reply head's limit: bytes past the head would be
    // TLS records, which the proxy cannot have before the client's hello.
    iTunnelReply += socket->read(KTunnelReplyLimit - iTunnelReply.size());
    for (;;) {
        int status = 0;
        const int head = velanet::ReadConnectReply(reinterpret_cast<const unsigned char*>(iTunnelReply.constData()),
                                                   iTunnelReply.size(), status);
        if (head == velanet::KConnectReplyIncomplete) {
            if (iTunnelReply.size() >= KTunnelReplyLimit)
                break;
            return;
        }
        if (head == velanet::KConnectReplyMalformed)
            break;
        iTunnelReply.remove(0, head);
        // An interim reply: the final one follows.
        if (status >= 100 && status <= 199)
            continue;
        if (status < 200 || status > 299) {
            RefuseTunnel(socket, status);
            return;
        }
        if (!iTunnelReply.isEmpty() || socket->bytesAvailable() > 0)
            break;
        iTunnelPhase = TP_Handshake;
        socket->setPeerVerifyName(HostText());
        socket->startClientEncryption();
        return;
    }
    // Not a reply this engine can go on from: a failed connection.
    iTunnelPhase = TP_None;
    DeferSocketFailure(QAbstractSocket::ProxyProtocolError);
}

void CQHttpSocketEngine::RefuseTunnel(QSslSocket* socket, int status)
{
    ++iGeneration;
    ++iConnection;
    iStatus = HSES_Idle;
    iBusy = false;
    iTunnelPhase = TP_None;
    AbortSocket(socket);
    if (iObserver != nullptr)
        iObserver->OnSocketEngine_TunnelRefused(status);
}

void CQHttpSocketEngine::AbortSocket(QTcpSocket* socket)
{
    // abort() leaves an unconnected socket alone, bytes still buffered from
    // a connection the peer closed included; close() drops those.
    socket->abort();
    if (socket->isOpen())
        socket->close();
}

void CQHttpSocketEngine::OnSocketConnect()
{
    if (!IsFromCurrentSocket())
        return;
    iBusy = false;
    iStatus = HSES_Connected;
    SetSocketEvent(KEventConnected, 0);
}

void CQHttpSocketEngine::OnSocketConnectError(QAbstractSocket::SocketError error)
{
    if (!IsFromCurrentSocket())
        return;
    DeferSocketFailure(error);
}

void CQHttpSocketEngine::OnSslErrors(const QList<QSslError>&)
{
    // The errors are never ignored: the handshake fails. The error signal
    // that QSslSocket emits next belongs to the same connection and is
    // dropped once this failure has been reported.
    if (!IsFromCurrentSocket())
        return;
    // A session offered to this origin is not offered again.
    velanet::TlsSessionCache::Shared().Forget(HostText(), static_cast<quint16>(iPort));
    DeferSocketFailure(QAbstractSocket::SslHandshakeFailedError);
}

void CQHttpSocketEngine::DeferSocketFailure(QAbstractSocket::SocketError error)
{
    const quint64 connection = iConnection;
    QMetaObject::invokeMethod(
        this, [this, connection, error] { HandleSocketFailure(connection, error); }, Qt::QueuedConnection);
}

void CQHttpSocketEngine::HandleSocketFailure(quint64 connection, QAbstractSocket::SocketError error)
{
    if (connection != iConnection || iStatus == HSES_Idle)
        return;
    // Later failures of this connection are dropped; a loop over pieces
    // that is still running learns that the exchange is over.
    ++iConnection;
    ++iGeneration;
    if (error == QAbstractSocket::RemoteHostClosedError && iReadArmed && iStatus == HSES_Receiving) {
        if (iSendMode != KSendModeOLFile) {
            EndBodyByClose(CurrentSocket());
            return;
        }
        // An upload has no body to end: a reply that came with the close
        // is still acted upon (a next block then fails as event 34), and a
        // close without one is event 34.
        if (CurrentSocket()->bytesAvailable() > 0) {
            iReadArmed = false;
            iBusy = false;
            HandleOLReply(CurrentSocket());
            return;
        }
    }
    // Outside the socket's own signal now, the connection can be dropped
    // for good; a cancel by the owner finds the engine idle already.
    iReadArmed = false;
    iStatus = HSES_Idle;
    AbortSocket(CurrentSocket());
    SetSocketEvent(KEventSocketError, 0);
}

void CQHttpSocketEngine::EndBodyByClose(QTcpSocket* socket)
{
    iReadArmed = false;
    iBusy = false;
    const quint64 generation = iGeneration;
    while (socket->bytesAvailable() > 0) {
        const int n = ReadBlock(socket);
        if (n <= 0)
            break;
        iReceiveLength = 0;
        if (HandUpPieces(reinterpret_cast<unsigned char*>(iReceiveBuffer.data()), n, generation) == KStop) {
            // The observer finished with the body, or moved the engine on.
            if (generation == iGeneration)
                iStatus = HSES_Idle;
            return;
        }
    }
    iStatus = HSES_Idle;
    if (iObserver != nullptr)
        iObserver->OnSocketEngine_ReceivDataEnd();
}

// ---------------------------------------------------------------- sending

int CQHttpSocketEngine::DoSend(unsigned char* data, int length, bool owns)
{
    if (data == nullptr || length <= 0)
        return KRefused;
    ++iGeneration;
    iDataUnit.ClearAll();
    iDataUnit.SetData(data, length, owns);
    iSendMode = KSendModeData;
    return HandleSendData(&iDataUnit);
}

int CQHttpSocketEngine::DoSendFile(CQPostFileHeaderUnit& unit, bool owns)
{
    if (unit.m_pHeaderData == nullptr || unit.m_nHeaderLen < 1)
        return KRefused;
    ++iGeneration;
    iFileUnit.ClearAll();
    iFileUnit.SetData(unit.m_pHeaderData, unit.m_nHeaderLen, owns);
    iFileUnit.SetInfoData(unit.m_pInfoData, unit.m_nInfoDataLen, owns);
    // A file that cannot be opened streams as empty: head, then trailer.
    static_cast<void>(iFileUnit.SetFile(unit.m_strFilePath, KSliceSize));
    iSendMode = KSendModeFile;
    return HandleSendData(&iFileUnit);
}

int CQHttpSocketEngine::DoSendOLFile(CQPostOLFileHeaderUnit& unit, bool)
{
    const char* key = unit.m_pKey != nullptr ? unit.m_pKey : "";
    const char* host = unit.m_strHost.GetDataPtr();
    // Every later block must fit iOLBlock beside its request text.
    if (!OLBlockFits(LengthOf(key), LengthOf(host), unit.m_nBlockSize))
        return KRefused;
    ++iGeneration;
    static_cast<void>(iOLKey.SetData(key));
    iFileUnit.ClearAll();
    // A file that cannot be opened uploads as an empty one.
    static_cast<void>(iFileUnit.SetFile(unit.m_strFilePath, KSliceSize));
    iSendMode = KSendModeOLFile;
    iOLState = OLS_Idle;
    iFileUnit.m_nResumeBlockSize = unit.m_nBlockSize;

    delete[] iOLBlock;
    iOLBlock = new (std::nothrow) unsigned char[KOLBlockSize];
    if (iOLBlock == nullptr)
        return KNoMemory;

    const int n = std::min(iFileUnit.m_nFileLength, KOLFirstBlockMax);
    int got = 0;
    const int total = BuildOLBlock(n, 0, host, got);
    if (total == KNoBlock)
        return KRefused;
    iOLState = OLS_FirstBlock;
    return SendOLBlock(total);
}

void CQHttpSocketEngine::DoClearSendInfo()
{
    iFileUnit.ClearAll();
}

int CQHttpSocketEngine::HandleSendData(CQSendUnit* unit)
{
    if (iObserver == nullptr || unit == nullptr)
        return KRefused;
    if (iBusy)
        return KBusy;
    iSliceCount = 0;
    switch (WriteSlices(unit)) {
    case KNothingToWrite:
        break;
    case KSlicesWritten:
        return KDone;
    case KWriteRefused:
        return KRefused;
    }
    if (unit->EnableSendSize() > 0) {
        // Bytes of an earlier request still wait in the socket: this one
        // starts at the next bytes-written.
        iStatus = HSES_Sending;
        return KDone;
    }
    // Nothing to send: the request is complete as it stands.
    DoReceive();
    return KDone;
}

int CQHttpSocketEngine::WriteSlices(CQSendUnit* unit)
{
    if (unit->EnableSendSize() <= 0)
        return KNothingToWrite;
    QTcpSocket* socket = CurrentSocket();
    if (socket->state() != QAbstractSocket::ConnectedState)
        return KWriteRefused;
    const qint64 waiting = WaitingBytes(socket);
    const bool paced = iSliceCount < KPacedSlices;
    // Paced: one slice, once the socket has written everything before it.
    // Windowed: as many slices as fit beside what still waits.
    const qint64 room = paced ? (waiting == 0 ? KSliceSize : 0) : KSendWindowBytes - waiting;
    char* out = iSendBuffer.data();
    int staged = 0;
    while (staged + KSliceSize <= room && unit->EnableSendSize() > 0) {
        unsigned char* slice = nullptr;
        const int k = std::min(unit->LoadData(&slice, KSliceSize), KSliceSize);
        if (k <= 0 || slice == nullptr)
            break;
        std::memcpy(out + staged, slice, static_cast<size_t>(k));
        staged += k;
        ++iSliceCount;
        if (paced)
            break;
    }
    if (staged == 0)
        return KNothingToWrite;
    iStatus = HSES_Sending;
    socket->write(iSendBuffer.constData(), staged);
    return KSlicesWritten;
}

void CQHttpSocketEngine::OnDataSend(qint64)
{
    if (!IsFromCurrentSocket())
        return;
    if (iStatus == HSES_Sending)
        iBusy = false;
    switch (iSendMode) {
    case KSendModeData:
        ContinueSend(&iDataUnit);
        return;
    case KSendModeFile:
        ContinueSend(&iFileUnit);
        return;
    case KSendModeOLFile:
        ContinueOLSend();
        return;
    }
    QT_ASSERT_UNREACHABLE("FALSE", KAssertFile);
}

void CQHttpSocketEngine::ContinueSend(CQSendUnit* unit)
{
    // A late notification after the request was finished or given up.
    if (iStatus != HSES_Sending)
        return;
    if (WriteSlices(unit) != KNothingToWrite)
        return;
    if (unit->EnableSendSize() > 0 || WaitingBytes(CurrentSocket()) > 0)
        return;
    DoReceive();
}

// ---------------------------------------------------------------- receiving

int CQHttpSocketEngine::DoReceive()
{
    if (iBusy)
        return KBusy;
    iReadArmed = true;
    iStatus = HSES_Receiving;
    iBusy = true;
    UseDirectReads(iSendMode != KSendModeOLFile);
    // Bytes that came while reception was not armed raise no new readyRead.
    if (CurrentSocket()->bytesAvailable() > 0) {
        const quint64 connection = iConnection;
        QMetaObject::invokeMethod(
            this,
            [this, connection] {
                if (connection == iConnection)
                    OnDataReceive();
            },
            Qt::QueuedConnection);
    }
    return KDone;
}

int CQHttpSocketEngine::ReadBlock(QTcpSocket* socket)
{
    // Bytes Qt already holds come first (all of them in buffered mode).
    const qint64 n = socket->read(iReceiveBuffer.data(), KReadBlockSize);
    int got = n > 0 ? static_cast<int>(n) : 0;
    if (got < KReadBlockSize && IsDirect(socket))
        got += ReadDescriptor(socket, iReceiveBuffer.data() + got, KReadBlockSize - got);
    iLastReadCount = got;
    iReceiveLength = iLastReadCount;
    return iLastReadCount;
}

void CQHttpSocketEngine::UseDirectReads(bool direct)
{
    iDirectReads = direct && !iSecure;
    iSocket.setReadBufferSize(iDirectReads ? KDirectReadAhead : KSocketReadBufferLimit);
}

bool CQHttpSocketEngine::IsDirect(QTcpSocket* socket) const
{
    return iDirectReads && socket == &iSocket && socket->state() == QAbstractSocket::ConnectedState &&
           socket->socketDescriptor() >= 0;
}

int CQHttpSocketEngine::ReadDescriptor(QTcpSocket* socket, char* data, int len)
{
    const int fd = static_cast<int>(socket->socketDescriptor());
    for (;;) {
        const ssize_t n = ::recv(fd, data, static_cast<size_t>(len), MSG_DONTWAIT);
        if (n > 0)
            return static_cast<int>(n);
        if (n < 0 && errno == EINTR)
            continue;
        // Nothing yet, the end of the stream or an error: Qt's own read at
        // its next notification finds the close or the error and reports it.
        return 0;
    }
}

bool CQHttpSocketEngine::MoreToRead(QTcpSocket* socket, int lastRead, int blocks) const
{
    if (socket->bytesAvailable() > 0)
        return true;
    // A full block from the descriptor may have left more behind; after
    // KMaxBlocksPerNotification the rest waits for the next notification so
    // that other sockets get their turn.
    return iDirectReads && socket == &iSocket && lastRead == KReadBlockSize && blocks < KMaxBlocksPerNotification;
}

void CQHttpSocketEngine::OnDataReceive()
{
    if (!IsFromCurrentSocket() || !iReadArmed)
        return;
    QTcpSocket* socket = CurrentSocket();
    if (socket->bytesAvailable() <= 0)
        return;
    iBusy = false;
    iReadArmed = false;
    if (iSendMode == KSendModeOLFile) {
        HandleOLReply(socket);
        return;
    }
    const quint64 generation = iGeneration;
    for (int blocks = 1;; ++blocks) {
        const int n = ReadBlock(socket);
        if (n <= 0 || !MoreToRead(socket, n, blocks)) {
            // The last block of this read: handing it up re-arms reception.
            static_cast<void>(HandleRecvData());
            return;
        }
        iReceiveLength = 0;
        if (HandUpPieces(reinterpret_cast<unsigned char*>(iReceiveBuffer.data()), n, generation) == KStop) {
            if (generation == iGeneration) {
                DropRestOfRead(socket);
                // Later bytes wait in Qt's buffer, as for any unarmed socket.
                UseDirectReads(false);
            }
            return;
        }
    }
}

int CQHttpSocketEngine::HandleRecvData()
{
    if (iObserver == nullptr)
        return KRefused;
    const int len = iReceiveLength;
    iReceiveLength = 0;
    if (len > 0 && iSendMode != KSendModeOLFile) {
        const quint64 generation = iGeneration;
        if (HandUpPieces(reinterpret_cast<unsigned char*>(iReceiveBuffer.data()), len, generation) == KStop) {
            if (generation == iGeneration)
                UseDirectReads(false);
            return KRefused;
        }
    }
    DoReceive();
    return KDone;
}

int CQHttpSocketEngine::HandUpPieces(unsigned char* data, int len, quint64 generation)
{
    for (int offset = 0; offset < len; offset += KSliceSize) {
        if (iObserver == nullptr)
            return KStop;
        const int n = std::min(KSliceSize, len - offset);
        const int result = iObserver->OnSocketEngine_ReceiveData(data + offset, n);
        if (generation != iGeneration || result == KStop)
            return KStop;
    }
    return KGoOn;
}

void CQHttpSocketEngine::DropRestOfRead(QTcpSocket* socket)
{
    const qint64 rest = socket->bytesAvailable();
    if (rest > 0)
        static_cast<void>(socket->skip(rest));
    // What Qt would have buffered of this read waits in the kernel instead.
    for (int dropped = 0; dropped < KSocketReadBufferLimit && IsDirect(socket);) {
        const int n = ReadDescriptor(socket, iReceiveBuffer.data(), KReadBlockSize);
        if (n <= 0)
            break;
        dropped += n;
    }
}

// ---------------------------------------------------------------- cancelling

void CQHttpSocketEngine::CloseSocket()
{
    iStatus = HSES_Idle;
    ++iGeneration;
    ++iConnection;
    iReadArmed = false;
    AbortSocket(CurrentSocket());
}

void CQHttpSocketEngine::CancelEngine()
{
    switch (iStatus) {
    case HSES_Idle:
    case HSES_Starting:
        break;
    case HSES_LookingUp:
        ForgetLookup();
        break;
    case HSES_Resolved:
        CloseSocket();
        break;
    case HSES_Connecting:
        AbortSocket(CurrentSocket());
        break;
    case HSES_Connected:
    case HSES_Sending:
    case HSES_Receiving:
        CloseSocket();
        break;
    }
    ++iGeneration;
    ++iConnection;
    iReadArmed = false;
    iBusy = false;
    iSliceCount = 0;
    iDnsCounter.ReCount();
    iStatus = HSES_Idle;
    iSecure = false;
    iTunnelPhase = TP_None;
    iTunnelHost.clear();
    iTunnelAuthorization.clear();
    iTunnelReply.clear();
    CloseIap();
}

void CQHttpSocketEngine::DoCancel()
{
    CancelEngine();
}

void CQHttpSocketEngine::DisConnect()
{
    CancelEngine();
}

void CQHttpSocketEngine::OnSetSocketErrorEvent(int code, int param)
{
    CloseSocket();
    switch (code) {
    case KEventPassedThroughA:
    case KEventDecompressFailed:
    case KEventPassedThroughB:
    case KEventPassedThroughC:
        SetSocketEvent(code, param);
        return;
    default:
        // Every other code is dropped without a report.
        return;
    }
}

// ---------------------------------------------------------------- resumable upload

void CQHttpSocketEngine::SetOLHttp(void* http)
{
    iOLHttp = http;
}

void CQHttpSocketEngine::SetOLFileTimerObserver(CQTimerObserver* observer)
{
    iOLTimerObserver = observer;
}

void CQHttpSocketEngine::SetOLFileReplyTimeOut(int ms)
{
    iOLReplyTimeOut = ms < 0 ? 0 : ms;
}

void CQHttpSocketEngine::StartOLFileRecvTimer(CQTimerObserver* observer, int ms)
{
    StopOLFileRecvTimer();
    // Without an observer a timer would have nobody to tell.
    if (observer == nullptr)
        return;
    if (!iOLTimerRelay) {
        iOLTimerRelay.reset(new (std::nothrow) OLTimerRelay(*this));
        if (!iOLTimerRelay)
            return;
    }
    iOLTimerRelay->SetTarget(observer);
    // A child of the engine: released with it at the latest.
    iOLTimer = new (std::nothrow) CQTimer(this);
    if (iOLTimer != nullptr)
        static_cast<void>(iOLTimer->StartTimer(iOLTimerRelay.get(), ms, ms, CQTimer::KModeRepeat));
}

void CQHttpSocketEngine::StopOLFileRecvTimer()
{
    if (iOLTimer == nullptr)
        return;
    iOLTimer->StopTimer();
    ForgetOLTimer();
}

void CQHttpSocketEngine::DoStopOLFileTimer()
{
    StopOLFileRecvTimer();
}

void CQHttpSocketEngine::ForgetOLTimer()
{
    CQTimer* timer = iOLTimer;
    iOLTimer = nullptr;
    if (timer == nullptr)
        return;
    // Never delete a timer inside its own signal.
    if (timer == iOLTimerFiring)
        timer->deleteLater();
    else
        delete timer;
}

unsigned int CQHttpSocketEngine::GetOLFileServerSavedLength() const
{
    unsigned int saved = 0;
    static_cast<void>(FindOLFileSavedLength(reinterpret_cast<const unsigned char*>(iReceiveBuffer.constData()),
                                            iReceiveLength, saved));
    return saved;
}

bool CQHttpSocketEngine::FindOLFileSavedLength(const unsigned char* data, int len, unsigned int& saved)
{
    saved = 0;
    if (data == nullptr || len <= 0)
        return false;
    const int fieldLen = TextLength(KOLRangeField);
    const char* text = reinterpret_cast<const char*>(data);
    for (int at = 0; at + fieldLen <= len; ++at) {
        // A field starts a line: "Content-Range: " is not this field.
        if (at > 0 && text[at - 1] != '\n')
            continue;
        if (std::memcmp(text + at, KOLRangeField, static_cast<size_t>(fieldLen)) != 0)
            continue;
        const int from = at + fieldLen;
        int to = from;
        while (to < len && !(text[to] == '\r' && to + 1 < len && text[to + 1] == '\n'))
            ++to;
        CQSString value;
        if (to > from)
            static_cast<void>(value.SetData(data + from, to - from));
        saved = value.ToUINT();
        return true;
    }
    return false;
}

int CQHttpSocketEngine::OLRequestTextLength(int pathLen, int hostLen)
{
    const long long n = static_cast<long long>(TextLength(KOLBeforePath)) + pathLen + TextLength(KOLAfterPath) +
                        hostLen + TextLength(KOLAfterHost);
    return n > INT_MAX ? INT_MAX : static_cast<int>(n);
}

bool CQHttpSocketEngine::OLBlockFits(int keyLen, int hostLen, int blockSize)
{
    if (keyLen < 0 || hostLen < 0 || blockSize < 1 || keyLen > KOLRequestTextSize ||
        hostLen > KOLRequestTextSize)
        return false;
    const int text = OLRequestTextLength(keyLen + KMd5HexLength, hostLen);
    // The text keeps a terminating zero in its array.
    if (text >= KOLRequestTextSize)
        return false;
    return blockSize <= KOLBlockSize - text;
}

char* CQHttpSocketEngine::GetPostOLFileMethodData(char* path, unsigned long, unsigned long, const char* host)
{
    if (path == nullptr)
        return nullptr;
    // A host given is remembered for the later blocks.
    if (host != nullptr)
        static_cast<void>(iOLHost.SetData(host));
    const char* hostText = host != nullptr ? host : iOLHost.GetDataPtr();
    const int pathLen = LengthOf(path);
    const int hostLen = LengthOf(hostText);
    if (pathLen >= KOLRequestTextSize || hostLen >= KOLRequestTextSize ||
        OLRequestTextLength(pathLen, hostLen) >= KOLRequestTextSize)
        return nullptr;
    char* text = new (std::nothrow) char[KOLRequestTextSize]();
    if (text == nullptr)
        return nullptr;
    char* out = text;
    auto put = [&out](const char* part, int n) {
        std::memcpy(out, part, static_cast<size_t>(n));
        out += n;
    };
    put(KOLBeforePath, TextLength(KOLBeforePath));
    put(path, pathLen);
    put(KOLAfterPath, TextLength(KOLAfterPath));
    put(hostText, hostLen);
    put(KOLAfterHost, TextLength(KOLAfterHost));
    return text;
}

int CQHttpSocketEngine::BuildOLBlock(int n, unsigned long start, const char* host, int& got)
{
    got = 0;
    if (iOLBlock == nullptr || n < 0)
        return KNoBlock;
    const std::unique_ptr<char[]> md5(iFileUnit.GetBufMd5(n));
    if (!md5)
        return KNoBlock;
    CQSString path;
    if (!path.SetData(iOLKey.GetDataPtr()) || !path.AppendData(md5.get()))
        return KNoBlock;
    const std::unique_ptr<char[]> text(
        GetPostOLFileMethodData(const_cast<char*>(path.GetDataPtr()), start, static_cast<unsigned long>(n), host));
    if (!text)
        return KNoBlock;
    const int textLen = LengthOf(text.get());
    // Never past the block buffer, whatever the block size.
    if (n > KOLBlockSize - textLen)
        return KNoBlock;
    std::memcpy(iOLBlock, text.get(), static_cast<size_t>(textLen));
    if (n > 0)
        got = iFileUnit.OLFileLoadData(iOLBlock + textLen, n);
    return textLen + got;
}

int CQHttpSocketEngine::SendOLBlock(int total)
{
    QTcpSocket* socket = CurrentSocket();
    if (socket->state() != QAbstractSocket::ConnectedState)
        return KRefused;
    iOLSendBuffer = QByteArray(reinterpret_cast<const char*>(iOLBlock), total);
    iStatus = HSES_Sending;
    iBusy = true;
    socket->write(iOLSendBuffer);
    StartOLFileRecvTimer(iOLTimerObserver, iOLReplyTimeOut);
    return KDone;
}

void CQHttpSocketEngine::ContinueOLSend()
{
    // A late notification, or one that leaves bytes of the block waiting.
    if (iStatus != HSES_Sending)
        return;
    QTcpSocket* socket = CurrentSocket();
    if (WaitingBytes(socket) > 0)
        return;
    if (iOLState == OLS_FirstBlock)
        iOLState = OLS_WaitingReplies;
    // The reply to this block is all that counts now: what an earlier
    // reply left over is dropped.
    iReceiveLength = 0;
    DropRestOfRead(socket);
    DoReceive();
}

void CQHttpSocketEngine::FinishOLUpload()
{
    iStatus = HSES_Idle;
    iBusy = false;
    iFileUnit.ClearAll();
}

void CQHttpSocketEngine::HandleOLReply(QTcpSocket* socket)
{
    static_cast<void>(ReadBlock(socket));
    DropRestOfRead(socket);
    StopOLFileRecvTimer();

    const unsigned int saved = GetOLFileServerSavedLength();
    if (saved == 0) {
        FinishOLUpload();
        if (iObserver != nullptr)
            iObserver->OnSocketEngine_SendData(nullptr, KOLNoProgress);
        return;
    }
    const long long fileRead = iFileUnit.m_nFileRead64;
    const long long fileLength = iFileUnit.m_nFileLength64;
    const long long pos = std::max<long long>(fileRead, saved);
    const int progress = pos > INT_MAX ? INT_MAX : static_cast<int>(pos);
    if (pos >= fileLength) {
        FinishOLUpload();
        if (iObserver != nullptr)
            iObserver->OnSocketEngine_SendData(nullptr, progress);
        return;
    }

    // Kept on purpose: the block's length follows from pos, but its bytes
    // come from the read position (fileRead), which is not moved to pos; the
    // server stores whatever follows the request text.
    const int n = static_cast<int>(std::min<long long>(iFileUnit.m_nResumeBlockSize, fileLength - pos));
    int got = 0;
    const int total = BuildOLBlock(n, static_cast<unsigned long>(pos), nullptr, got);
    if (total == KNoBlock || got < 1) {
        // The file gives no more bytes: the upload cannot go on.
        FinishOLUpload();
        if (iObserver != nullptr)
            iObserver->OnSocketEngine_SendData(nullptr, KOLNoProgress);
        return;
    }
    if (SendOLBlock(total) != KDone) {
        FinishOLUpload();
        SetSocketEvent(KEventSocketError, 0);
        return;
    }
    if (iObserver != nullptr)
        iObserver->OnSocketEngine_SendData(nullptr, progress);
}
