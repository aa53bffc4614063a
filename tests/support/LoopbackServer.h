#ifndef VELANET_LOOPBACKSERVER_H
#define VELANET_LOOPBACKSERVER_H

// Test helpers for the long-connection classes: a QTcpServer on 127.0.0.1
// that keeps every connection it accepts, so a test can read what the
// client sent and watch it close, and a mock of the connection observer.

#include "src/TcpConnection.h"

#include <QByteArray>
#include <QTcpServer>
#include <QTcpSocket>

#include <gmock/gmock.h>

#include <memory>
#include <vector>

namespace velatest {

class LoopbackServer
{
public:
    static constexpr int KDeadlineMs = 10000;

    LoopbackServer();
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    // Listens on a free port of 127.0.0.1.
    bool Listen();
    int Port() const;
    // Connections accepted so far, in order.
    int Count() const;
    QTcpSocket& At(int index);
    bool WaitForConnections(int count);
    // Appends what connection index has received to out until out holds
    // size bytes.
    bool WaitForBytes(int index, int size, QByteArray& out);
    // Until the client has closed connection index (its bytes are dropped).
    bool WaitForPeerClose(int index);
    bool IsOpen(int index) const;

private:
    QTcpServer m_server;
    std::vector<std::unique_ptr<QTcpSocket>> m_sockets;
};

class MockTcpConObserver : public ITcpConObserver
{
public:
    MOCK_METHOD(void, OnRecv, (const unsigned char* data, int length), (override));
    MOCK_METHOD(void, OnSend, (), (override));
    MOCK_METHOD(void, OnConnected, (), (override));
    MOCK_METHOD(void, OnClose, (int reason), (override));
    MOCK_METHOD(void, OnBlock, (), (override));
    MOCK_METHOD(void, OnOpen, (), (override));
};

}  // namespace velatest

#endif
