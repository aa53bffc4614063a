#include "TcpMode.h"

#include "FetchMode.h"

#include "src/ConFactorySybImp.h"
#include "src/TcpConnection.h"

#include <QCoreApplication>
#include <QHostAddress>
#include <QHostInfo>
#include <QSocketNotifier>
#include <QTimer>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <unistd.h>

namespace velafetch {

namespace {

// The sockets engine gives up silently after 30 s; the mode says so a
// moment later.
const int KConnectDeadlineMs = 31000;
const int KStdinReadBytes = 16384;

class TcpRun : public QObject, public ITcpConObserver
{
public:
    TcpRun(const QString& host, QByteArray address, quint16 port);
    ~TcpRun() override;

    [[nodiscard]] int Run();

    void OnRecv(const unsigned char* data, int length) override;
    void OnSend() override {}
    void OnConnected() override;
    void OnClose(int reason) override;
    void OnBlock() override {}
    void OnOpen() override {}

private:
    void ReadStdin();
    void SendLines(bool all);
    void End(int status, const QString& message);

    QString m_host;
    QByteArray m_address;
    quint16 m_port;
    CConFactorySybImp m_factory;
    ITcpCon* m_connection = nullptr;  // owned by the factory
    std::unique_ptr<QSocketNotifier> m_stdin;
    QTimer m_deadline;
    QByteArray m_pending;  // stdin bytes after the last complete line
    bool m_ended = false;
};

TcpRun::TcpRun(const QString& host, QByteArray address, quint16 port)
    : m_host(host), m_address(std::move(address)), m_port(port)
{
    m_deadline.setSingleShot(true);
    m_deadline.setInterval(KConnectDeadlineMs);
    connect(&m_deadline, &QTimer::timeout, this, [this] {
        End(KExitFailed, QString("%1:%2: could not connect (no answer within %3 s)")
                             .arg(m_host)
                             .arg(m_port)
                             .arg(KConnectDeadlineMs / 1000));
    });
}

TcpRun::~TcpRun()
{
    m_stdin.reset();
    if (m_connection)
        m_factory.RelTcpCon(m_connection);
}

int TcpRun::Run()
{
    (void)m_factory.Init();
    m_connection = m_factory.GetTcpCon();
    if (!m_connection) {
        PrintError("no connection could be had from the connection factory");
        return KExitFailed;
    }
    m_connection->SetObserver(this);
    if (m_connection->Connect(m_address.data(), m_port) == 0) {
        PrintError(QString("%1:%2: the connection could not be started").arg(m_host).arg(m_port));
        return KExitFailed;
    }
    m_deadline.start();
    return QCoreApplication::exec();
}

void TcpRun::End(int status, const QString& message)
{
    if (m_ended)
        return;
    m_ended = true;
    m_deadline.stop();
    if (m_stdin)
        m_stdin->setEnabled(false);
    std::fflush(stdout);
    if (!message.isEmpty())
        PrintError(message);
    QCoreApplication::exit(status);
}

void TcpRun::OnConnected()
{
    m_deadline.stop();
    PrintError(QString("connected to %1:%2").arg(m_host).arg(m_port));
    m_stdin = std::make_unique<QSocketNotifier>(STDIN_FILENO, QSocketNotifier::Read);
    connect(m_stdin.get(), &QSocketNotifier::activated, this, &TcpRun::ReadStdin);
}

void TcpRun::OnRecv(const unsigned char* data, int length)
{
    if (!data || length <= 0)
        return;
    std::fwrite(data, 1, static_cast<size_t>(length), stdout);
    std::fflush(stdout);
}

void TcpRun::OnClose(int)
{
    End(KExitOk, QString("%1:%2: connection closed by the peer").arg(m_host).arg(m_port));
}

void TcpRun::ReadStdin()
{
    char buffer[KStdinReadBytes];
    const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
    if (n < 0 && (errno == EINTR || errno == EAGAIN))
        return;
    if (n <= 0) {
        // End of input: what is left goes out; the connection stays until
        // the peer closes it.
        m_stdin->setEnabled(false);
        SendLines(true);
        return;
    }
    m_pending.append(buffer, static_cast<int>(n));
    SendLines(false);
}

void TcpRun::SendLines(bool all)
{
    const int end = all ? m_pending.size() : m_pending.lastIndexOf('\n') + 1;
    if (end <= 0 || !m_connection)
        return;
    m_connection->Send(reinterpret_cast<unsigned char*>(m_pending.data()), end);
    m_pending.remove(0, end);
}

// Dotted IPv4 text for host (a literal or the first IPv4 answer of a lookup).
QByteArray Ipv4Text(const QString& host)
{
    QHostAddress literal;
    if (literal.setAddress(host))
        return literal.protocol() == QAbstractSocket::IPv4Protocol ? literal.toString().toLatin1() : QByteArray();
    const QHostInfo info = QHostInfo::fromName(host);
    for (const QHostAddress& address : info.addresses()) {
        if (address.protocol() == QAbstractSocket::IPv4Protocol)
            return address.toString().toLatin1();
    }
    return QByteArray();
}

}  // namespace

int RunTcp(const Options& options)
{
    QByteArray address = Ipv4Text(options.tcpHost);
    if (address.isEmpty()) {
        PrintError(QString("%1: host not found (an IPv4 address is needed)").arg(options.tcpHost));
        return KExitFailed;
    }
    TcpRun run(options.tcpHost, std::move(address), options.tcpPort);
    return run.Run();
}

}  // namespace velafetch
