#include "src/SocketsEngine.h"

#include "src/IAPConnectEngine.h"
#include "src/SocketsReader.h"
#include "src/SocketsWriter.h"
#include "src/internal/NetworkSessionRule_p.h"

#include <QByteArray>
#include <QHostAddress>
#include <QTcpSocket>

#include <new>

// Qt 5 marks the bearer classes deprecated; the platforms that need a network
// session before a connect still use them. Qt 6 has none.
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED
#include <QNetworkConfiguration>
#include <QNetworkConfigurationManager>
#include <QNetworkSession>
QT_WARNING_POP
#endif

class CSocketsEngine::CSignalScope
{
public:
    explicit CSignalScope(CSocketsEngine& engine)
        : m_engine(&engine)
    {
        ++engine.iSignalDepth;
    }
    ~CSignalScope()
    {
        // Null when the owner deleted the engine inside the report.
        if (m_engine != nullptr)
            --m_engine->iSignalDepth;
    }
    CSignalScope(const CSignalScope&) = delete;
    CSignalScope& operator=(const CSignalScope&) = delete;

private:
    QPointer<CSocketsEngine> m_engine;
};

namespace {

// The first IPv4 address of a lookup, else its first address; empty when it
// found none.
QString FirstAddress(const QHostInfo& info)
{
    const QList<QHostAddress> addresses = info.addresses();
    for (const QHostAddress& address : addresses) {
        if (address.protocol() == QAbstractSocket::IPv4Protocol)
            return address.toString();
    }
    return addresses.isEmpty() ? QString() : addresses.first().toString();
}

// Deletes a socket or session now, or once the signal it is emitting has
// returned (Qt touches the object after the emission).
void ReleaseObject(QObject* object, bool inSignal)
{
    if (inSignal) {
        object->setParent(nullptr);
        object->deleteLater();
    } else {
        delete object;
    }
}

#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
// Only tests change it (SetSessionRule).
velanet::SessionRule gSessionRule = velanet::SessionRule::IfPlatformRequires;
#endif

}  // namespace

#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
namespace velanet {

void SetSessionRule(SessionRule rule)
{
    gSessionRule = rule;
}

}  // namespace velanet
#endif

CSocketsEngine* CSocketsEngine::NewL(MUINotifier& notifier, CIAPConnectEngine* iapEngine)
{
    CSocketsEngine* self = new (std::nothrow) CSocketsEngine(notifier, iapEngine);
    if (self == nullptr)
        return nullptr;
    self->ConstructL();
    return self;
}

CSocketsEngine* CSocketsEngine::NewLC(MUINotifier& notifier, CIAPConnectEngine* iapEngine)
{
    return NewL(notifier, iapEngine);
}

CSocketsEngine::CSocketsEngine(MUINotifier& notifier, CIAPConnectEngine* iapEngine)
    : QObject(nullptr)
    , iNotifier(notifier)
    , iServerName(QString::fromLatin1(KDefaultServerName))
    , iIapEngine(iapEngine)
{
}

void CSocketsEngine::ConstructL()
{
    iState = ENotConnected;
    iTimer = CTimeOutTimer::NewL(*this);
    // Not parented: the destructor may have to leave it to the event loop.
    iSocket = new QTcpSocket(nullptr);
    iReader = new CSocketsReader(*iSocket, *this);
    iWriter = new CSocketsWriter(*iSocket, *this);
    connect(iSocket, &QAbstractSocket::connected, this, &CSocketsEngine::OnConnected);
    connect(iSocket, &QAbstractSocket::disconnected, this, &CSocketsEngine::OnDisConnected);
    iReader->Start();
}

CSocketsEngine::~CSocketsEngine()
{
    const bool inSignal = iSignalDepth > 0;
    ForgetLookup();

#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    if (iSession != nullptr) {
        // Our own stop and close are not reports.
        disconnect(iSession, nullptr, this, nullptr);
        QT_WARNING_PUSH
        QT_WARNING_DISABLE_DEPRECATED
        iSession->stop();
        iSession->close();
        QT_WARNING_POP
        ReleaseObject(iSession, inSignal);
        iSession = nullptr;
    }
#endif
    // Harmless when the engine was never registered.
    if (iIapEngine != nullptr)
        iIapEngine->RemoveConnectStateObserver(this);

    delete iTimer;
    iTimer = nullptr;
    // The reader and writer hold the socket: they go first. The socket's
    // destructor (or abort) would emit disconnected() into this half-gone
    // engine, so it is no longer listened to.
    delete iReader;
    iReader = nullptr;
    delete iWriter;
    iWriter = nullptr;
    disconnect(iSocket, nullptr, this, nullptr);
    if (inSignal)
        iSocket->abort();
    ReleaseObject(iSocket, inSignal);
    iSocket = nullptr;
}

void CSocketsEngine::SetServerName(const QString& name)
{
    iServerName = name;
}

QString CSocketsEngine::ServerName() const
{
    return iServerName;
}

void CSocketsEngine::SetPort(int port)
{
    iPort = port;
}

int CSocketsEngine::Port() const
{
    return iPort;
}

int CSocketsEngine::StartConnect()
{
    iCloseConnAndIap = false;
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    if (iSession == nullptr) {
        iSession = NewSessionIfRequired();
        if (iSession != nullptr) {
            QT_WARNING_PUSH
            QT_WARNING_DISABLE_DEPRECATED
            iSession->open();
            if (!iSession->waitForOpened(KSessionOpenWaitMs))
                return KSessionNotOpened;
            connect(iSession, &QNetworkSession::closed, this, &CSocketsEngine::OnDisConnected);
            QT_WARNING_POP
        }
    }
#endif
    ConnectL();
    return KConnectStarted;
}

#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED
QNetworkSession* CSocketsEngine::NewSessionIfRequired()
{
    switch (gSessionRule) {
    case velanet::SessionRule::IfPlatformRequires: {
        const QNetworkConfigurationManager manager;
        if (!(manager.capabilities() & QNetworkConfigurationManager::NetworkSessionRequired))
            return nullptr;
        return new QNetworkSession(manager.defaultConfiguration(), this);
    }
    case velanet::SessionRule::OnDefault: {
        const QNetworkConfigurationManager manager;
        return new QNetworkSession(manager.defaultConfiguration(), this);
    }
    case velanet::SessionRule::OnInvalid:
        return new QNetworkSession(QNetworkConfiguration(), this);
    }
    return nullptr;
}
QT_WARNING_POP
#endif

void CSocketsEngine::ConnectL()
{
    if (iState != ENotConnected)
        return;
    if (!QHostAddress(iServerName).isNull()) {
        ConnectL(iServerName);
        return;
    }
    ForgetLookup();
    // The member-function form of lookupHost leaks its slot object when the
    // lookup is aborted; the named-slot form does not.
    iLookupId = QHostInfo::lookupHost(iServerName, this, SLOT(OnGetIPAddress(QHostInfo)));
}

void CSocketsEngine::ConnectL(QString address)
{
    iCloseConnAndIap = false;
    if (iState != ENotConnected)
        return;
    iServerName = address;
    ChangeStatus(EConnecting);
    iTimer->After(iConnectTimeOut);
    PrepareSocket();
    iSocket->connectToHost(address, static_cast<quint16>(iPort), QIODevice::ReadWrite);
}

bool CSocketsEngine::Connected() const
{
    return iState == EConnected;
}

TSocketsEngineState CSocketsEngine::State() const
{
    return iState;
}

QAbstractSocket::SocketState CSocketsEngine::SocketState() const
{
    return iSocket->state();
}

int CSocketsEngine::LookupId() const
{
    return iLookupId;
}

bool CSocketsEngine::IsConnectTimeOutRunning() const
{
    return iTimer->IsActive();
}

bool CSocketsEngine::IsReading() const
{
    return iReader->IsActive();
}

void CSocketsEngine::WriteL(const QByteArray& data)
{
    if (iState == EConnected)
        iWriter->IssueWriteL(data);
}

void CSocketsEngine::Read()
{
    if (iState == EConnected && !iReader->IsActive())
        iReader->Start();
}

void CSocketsEngine::Disconnect()
{
    // A time-out or lookup left over from a connect must not act later.
    iTimer->Cancel();
    ForgetLookup();
    CloseSocket();
    iReader->Stop();
    iWriter->Stop();
    ChangeStatus(ENotConnected);
}

void CSocketsEngine::Abort()
{
    iCloseConnAndIap = true;
    Disconnect();
}

void CSocketsEngine::DoCancel()
{
    iTimer->Cancel();
    ForgetLookup();
    if (iState == EConnecting)
        CloseSocket();
    ChangeStatus(ENotConnected);
}

void CSocketsEngine::CloseConnAndIap(bool close)
{
    iCloseConnAndIap = close;
}

bool CSocketsEngine::IsCloseConnAndIap() const
{
    return iCloseConnAndIap;
}

CIAPConnectEngine* CSocketsEngine::IapEngine() const
{
    return iIapEngine.data();
}

void CSocketsEngine::reconnectNetworkSession()
{
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    if (iSession == nullptr)
        return;
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    if (iSession->state() != QNetworkSession::Connected) {
        iSession->open();
        iSession->waitForOpened(KSessionOpenWaitMs);
    }
    QT_WARNING_POP
#endif
}

void CSocketsEngine::ChangeStatus(TSocketsEngineState state)
{
    iState = state;
    // Values outside the enumeration (3, 4) are stored and notify nobody.
    switch (state) {
    case ENotConnected:
        return;
    case EConnecting:
        return;
    case EConnected:
        iNotifier.OnConnected();
        return;
    case EDisconnected:
        iNotifier.OnClose(KCloseByPeer);
        return;
    }
}

void CSocketsEngine::Print(const QString& text)
{
    Q_UNUSED(text);
}

void CSocketsEngine::SetConnectTimeOut(int microseconds)
{
    iConnectTimeOut = microseconds;
}

int CSocketsEngine::ConnectTimeOut() const
{
    return iConnectTimeOut;
}

void CSocketsEngine::ReportError(MEngineNotifier::TErrorType type, int code)
{
    Q_UNUSED(type);
    Q_UNUSED(code);
}

void CSocketsEngine::ResponseReceived(const unsigned char* data, int length)
{
    // Called from inside the socket's readyRead().
    CSignalScope scope(*this);
    iNotifier.OnRecv(data, length);
}

void CSocketsEngine::NotifySendData()
{
    iNotifier.OnSend();
}

void CSocketsEngine::TimerExpired()
{
    DoCancel();
    Disconnect();
}

void CSocketsEngine::OnIapTransferBlocked()
{
    iNotifier.OnBlock();
}

void CSocketsEngine::OnIapTransferOpen()
{
    iNotifier.OnOpen();
}

void CSocketsEngine::OnConnected()
{
    iTimer->Cancel();
    // The reader listens before the owner hears of the connection, so the
    // report is the last thing done.
    iState = EConnected;
    Read();
    CSignalScope scope(*this);
    ChangeStatus(EConnected);
}

void CSocketsEngine::OnDisConnected()
{
    iTimer->Cancel();
    CloseSocket();
    iReader->Stop();
    iWriter->Stop();
    CSignalScope scope(*this);
    ChangeStatus(EDisconnected);
}

void CSocketsEngine::OnGetIPAddress(const QHostInfo& info)
{
    // An answer to a lookup that was aborted or replaced.
    if (info.lookupId() != iLookupId)
        return;
    iLookupId = KNoLookup;

    const QString address = FirstAddress(info);
    if (!address.isEmpty()) {
        iServerName = address;
        ConnectL(iServerName);
    }
    // Kept on purpose: the engine is idle again while the connect it has
    // just started runs on; connected() moves it to EConnected.
    ChangeStatus(ENotConnected);
}

void CSocketsEngine::CloseSocket()
{
    disconnect(iSocket, &QAbstractSocket::disconnected, this, &CSocketsEngine::OnDisConnected);
    // close() only defers the end of a connect that is under way.
    const QAbstractSocket::SocketState state = iSocket->state();
    if (state == QAbstractSocket::HostLookupState || state == QAbstractSocket::ConnectingState)
        iSocket->abort();
    else
        iSocket->close();
}

void CSocketsEngine::PrepareSocket()
{
    disconnect(iSocket, &QAbstractSocket::disconnected, this, &CSocketsEngine::OnDisConnected);
    if (iSocket->state() != QAbstractSocket::UnconnectedState)
        iSocket->abort();
    connect(iSocket, &QAbstractSocket::disconnected, this, &CSocketsEngine::OnDisConnected);
}

void CSocketsEngine::ForgetLookup()
{
    if (iLookupId == KNoLookup)
        return;
    QHostInfo::abortHostLookup(iLookupId);
    iLookupId = KNoLookup;
}
