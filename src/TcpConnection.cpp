#include "src/TcpConnection.h"

#include "src/IAPConnectEngine.h"

#include <QByteArray>
#include <QString>

#include <cstring>

CTcpConnection::CTcpConnection() = default;

CTcpConnection::~CTcpConnection()
{
    if (iSocketEngine == nullptr)
        return;
    if (iSocketEngine->Connected())
        iSocketEngine->Abort();
    delete iSocketEngine;
    iSocketEngine = nullptr;
}

int CTcpConnection::InitConnection(CIAPConnectEngine* iapEngine)
{
    // A second call replaces the engine and its connection.
    delete iSocketEngine;
    iSocketEngine = CSocketsEngine::NewL(*this, iapEngine);
    return iSocketEngine != nullptr ? KDone : KRefused;
}

int CTcpConnection::Connect(char* address, int port)
{
    if (iSocketEngine == nullptr || address == nullptr)
        return KRefused;
    // Looks at no more than one character past the longest accepted text.
    const size_t length = strnlen(address, KMaxAddressLength + 1);
    if (length < 1 || length > static_cast<size_t>(KMaxAddressLength))
        return KRefused;

    iClosedByRequest = false;
    iSocketEngine->SetServerName(QString::fromLatin1(address, static_cast<int>(length)));
    iSocketEngine->SetPort(port);
    return iSocketEngine->StartConnect();
}

bool CTcpConnection::IsConnected()
{
    return iSocketEngine != nullptr && iSocketEngine->Connected();
}

void CTcpConnection::Send(unsigned char* data, int length)
{
    // A negative length would make QByteArray look for a terminating zero.
    if (iSocketEngine == nullptr || data == nullptr || length <= 0)
        return;
    iSocketEngine->WriteL(QByteArray(reinterpret_cast<const char*>(data), length));
}

void CTcpConnection::Close()
{
    iClosedByRequest = true;
    if (iSocketEngine != nullptr)
        iSocketEngine->Abort();
}

void CTcpConnection::SetObserver(ITcpConObserver* observer)
{
    iObserver = observer;
}

void CTcpConnection::OnRecv(const unsigned char* data, int length)
{
    if (iObserver != nullptr)
        iObserver->OnRecv(data, length);
}

void CTcpConnection::OnSend()
{
    if (iObserver != nullptr)
        iObserver->OnSend();
}

void CTcpConnection::OnConnected()
{
    if (iObserver != nullptr)
        iObserver->OnConnected();
}

void CTcpConnection::OnClose(int reason)
{
    if (iObserver != nullptr)
        iObserver->OnClose(reason);
}

void CTcpConnection::OnBlock()
{
    if (iObserver != nullptr)
        iObserver->OnBlock();
}

void CTcpConnection::OnOpen()
{
    if (iObserver != nullptr)
        iObserver->OnOpen();
}
