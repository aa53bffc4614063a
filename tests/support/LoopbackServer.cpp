#include "support/LoopbackServer.h"

#include "support/TestSupport.h"

#include <QHostAddress>

namespace velatest {

LoopbackServer::LoopbackServer()
{
    QObject::connect(&m_server, &QTcpServer::newConnection, [this] {
        while (QTcpSocket* socket = m_server.nextPendingConnection())
            m_sockets.emplace_back(socket);
    });
}

bool LoopbackServer::Listen()
{
    return m_server.listen(QHostAddress::LocalHost, 0);
}

int LoopbackServer::Port() const
{
    return m_server.serverPort();
}

int LoopbackServer::Count() const
{
    return static_cast<int>(m_sockets.size());
}

QTcpSocket& LoopbackServer::At(int index)
{
    return *m_sockets.at(static_cast<size_t>(index));
}

bool LoopbackServer::WaitForConnections(int count)
{
    return SpinUntil([this, count] { return Count() >= count; }, KDeadlineMs);
}

bool LoopbackServer::WaitForBytes(int index, int size, QByteArray& out)
{
    return SpinUntil(
        [&] {
            out += At(index).readAll();
            return out.size() >= size;
        },
        KDeadlineMs);
}

bool LoopbackServer::WaitForPeerClose(int index)
{
    return SpinUntil(
        [&] {
            At(index).readAll();
            return At(index).state() == QAbstractSocket::UnconnectedState;
        },
        KDeadlineMs);
}

bool LoopbackServer::IsOpen(int index) const
{
    return m_sockets.at(static_cast<size_t>(index))->state() == QAbstractSocket::ConnectedState;
}

}  // namespace velatest
