#ifndef VELANET_TCPCONNECTION_H
#define VELANET_TCPCONNECTION_H

// The long connection as the messaging client sees it: ITcpCon to connect,
// send and close, ITcpConObserver to hear received bytes and connection
// events. CTcpConnection implements it over one CSocketsEngine and passes
// the engine's reports on to the observer unchanged. No framing is added.

#include "src/SocketsEngine.h"

class CIAPConnectEngine;

// Implemented by the client.
class ITcpConObserver
{
public:
    virtual ~ITcpConObserver() = default;
    // A received chunk of at most 1024 bytes, valid during the call only; a
    // negative length is a read error.
    virtual void OnRecv(const unsigned char* data, int length) = 0;
    virtual void OnSend() = 0;
    virtual void OnConnected() = 0;
    // reason 2: the peer or the network closed the connection.
    virtual void OnClose(int reason) = 0;
    virtual void OnBlock() = 0;
    virtual void OnOpen() = 0;
};

class ITcpCon
{
public:
    // Starts a connect to address (dotted IPv4 text, 1 to 15 characters)
    // and port. 1 when started, 0 when refused; the result comes later as
    // OnConnected, or not at all after the connect time-out.
    virtual int Connect(char* address, int port) = 0;
    virtual bool IsConnected() = 0;
    // Sends a copy of length bytes; nothing unless connected, no result.
    virtual void Send(unsigned char* data, int length) = 0;
    // Closes the connection; no OnClose follows.
    virtual void Close() = 0;
    // The observer is not owned; null drops the reports.
    virtual void SetObserver(ITcpConObserver* observer) = 0;
    virtual ~ITcpCon() = default;
};

class CTcpConnection : public ITcpCon, public MUINotifier
{
public:
    // Refused addresses are longer than dotted IPv4 text can be.
    static constexpr int KMaxAddressLength = 15;
    // Results of InitConnection and Connect.
    static constexpr int KDone = 1;
    static constexpr int KRefused = 0;

    CTcpConnection();
    // Aborts a connected engine, then destroys it.
    ~CTcpConnection() override;

    CTcpConnection(const CTcpConnection&) = delete;
    CTcpConnection& operator=(const CTcpConnection&) = delete;

    // Creates the sockets engine (iapEngine not owned, may be null);
    // KDone, or KRefused when the memory cannot be had.
    int InitConnection(CIAPConnectEngine* iapEngine);

    // ITcpCon. Before InitConnection, Connect refuses and the others do
    // nothing.
    int Connect(char* address, int port) override;
    bool IsConnected() override;
    void Send(unsigned char* data, int length) override;
    void Close() override;
    void SetObserver(ITcpConObserver* observer) override;

    // Set by Close, cleared by Connect; nothing in the library reads it.
    bool IsClosedByRequest() const { return iClosedByRequest; }
    // The engine made by InitConnection (owned by this connection), null
    // before it.
    CSocketsEngine* SocketsEngine() const { return iSocketEngine; }

    // MUINotifier: each passes to the observer's operation of the same name.
    void OnRecv(const unsigned char* data, int length) override;
    void OnSend() override;
    void OnConnected() override;
    void OnClose(int reason) override;
    void OnBlock() override;
    void OnOpen() override;

private:

    ITcpConObserver* iObserver = nullptr;
    CSocketsEngine* iSocketEngine = nullptr;
    bool iClosedByRequest = false;
};

#endif
