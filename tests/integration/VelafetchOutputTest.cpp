// Where velafetch's body bytes go and when: a large body through a pipe
// comes out byte for byte, and the bytes received before a failure or a
// cancel (SIGINT) are written out, not left in the output buffer. The peer is
// a QTcpServer here that sends a known part of a body and then closes or
// stalls; that velafetch has read every byte sent is seen in the kernel's
// socket queues (/proc/net/tcp), never by waiting for a time.

#include "support/TestSupport.h"

#include <QByteArray>
#include <QFile>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>

#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <sys/types.h>

namespace {

using velatest::LetterPattern;
using velatest::SpinUntil;
using velatest::TempDir;

const int KDeadlineMs = 60000;

// Sends one answer to the first request: a 200 head announcing `announced`
// body bytes, then `body` (fewer), then closes or keeps the connection open.
class PartialBodyPeer : public QObject
{
public:
    PartialBodyPeer(const QByteArray& body, qint64 announced, bool closeAfter)
        : m_body(body), m_announced(announced), m_closeAfter(closeAfter)
    {
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            QTcpSocket* socket = m_server.nextPendingConnection();
            if (m_socket != nullptr) {
                socket->abort();
                return;
            }
            m_socket = socket;
            connect(socket, &QTcpSocket::readyRead, this, [this] { OnRead(); });
        });
    }

    bool Listen() { return m_server.listen(QHostAddress::LocalHost, 0); }
    QString Url() const { return QString("http://127.0.0.1:%1/part.bin").arg(m_server.serverPort()); }

    // Every byte sent has left this process and been read by the client
    // program: the client socket's receive queue and this side's send queue
    // are both empty.
    bool ClientHasReadAll() const
    {
        if (m_socket == nullptr || !m_sent || m_socket->bytesToWrite() > 0)
            return false;
        const quint16 server = m_server.serverPort();
        const quint16 client = m_socket->peerPort();
        return QueueBytes(server, client, false) == 0 && QueueBytes(client, server, true) == 0;
    }

private:
    void OnRead()
    {
        m_request += m_socket->readAll();
        if (m_sent || !m_request.contains("\r\n\r\n"))
            return;
        m_sent = true;
        m_socket->write("HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\nContent-Length: " +
                        QByteArray::number(m_announced) + "\r\n\r\n" + m_body);
        if (m_closeAfter)
            m_socket->disconnectFromHost();
    }

    // The send (receive: false) or receive (true) queue of the IPv4
    // loopback connection from localPort to remotePort; -1 when not found.
    static qint64 QueueBytes(quint16 localPort, quint16 remotePort, bool receive)
    {
        QFile table("/proc/net/tcp");
        if (!table.open(QIODevice::ReadOnly))
            return -1;
        const QByteArray local = "0100007F:" + QByteArray::number(localPort, 16).toUpper().rightJustified(4, '0');
        const QByteArray remote = "0100007F:" + QByteArray::number(remotePort, 16).toUpper().rightJustified(4, '0');
        // sl local_address rem_address st tx_queue:rx_queue ...
        for (const QByteArray& line : table.readAll().split('\n')) {
            const QList<QByteArray> fields = line.simplified().split(' ');
            if (fields.size() < 5 || fields.at(1) != local || fields.at(2) != remote)
                continue;
            const QList<QByteArray> queues = fields.at(4).split(':');
            if (queues.size() != 2)
                return -1;
            bool ok = false;
            const qint64 n = queues.at(receive ? 1 : 0).toLongLong(&ok, 16);
            return ok ? n : -1;
        }
        return -1;
    }

    QTcpServer m_server;
    QTcpSocket* m_socket = nullptr;
    QByteArray m_body;
    qint64 m_announced;
    bool m_closeAfter;
    QByteArray m_request;
    bool m_sent = false;
};

struct ProgramRun
{
    bool finished = false;
    bool bySignal = false;
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

std::ostream& operator<<(std::ostream& os, const ProgramRun& r)
{
    return os << (r.bySignal ? "ended by a signal" : "exit " + std::to_string(r.exitCode))
              << (r.finished ? "" : " (did not finish)") << ", " << r.out.size() << " bytes on stdout\nstderr: "
              << r.err.left(2000).toStdString();
}

// Runs velafetch; with cancelWhen, sends SIGINT once it holds.
ProgramRun Velafetch(const QStringList& args, const std::function<bool()>& cancelWhen = {})
{
    QProcess process;
    process.start(VELAFETCH_BINARY, args);
    ProgramRun run;
    if (!process.waitForStarted(10000))
        return run;
    process.closeWriteChannel();
    if (cancelWhen) {
        if (!SpinUntil([&] { return cancelWhen() || process.state() == QProcess::NotRunning; }, KDeadlineMs)) {
            process.kill();
            (void)process.waitForFinished(5000);
            return run;
        }
        if (process.state() == QProcess::Running)
            ::kill(static_cast<pid_t>(process.processId()), SIGINT);
    }
    run.finished = SpinUntil([&] { return process.state() == QProcess::NotRunning; }, KDeadlineMs);
    if (!run.finished) {
        process.kill();
        (void)process.waitForFinished(5000);
    }
    run.bySignal = process.exitStatus() == QProcess::CrashExit;
    run.exitCode = run.bySignal ? -1 : process.exitCode();
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

QByteArray ReadFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(missing)");
}

// Larger than velafetch's output buffer and no multiple of it or of 1024.
const int KLargeBody = 3 * 256 * 1024 + 1001;
// Smaller than the output buffer: nothing would reach the output without a flush.
const int KPartBody = 100003;

TEST(VelafetchOutputTest, LargeBodyThroughAPipeIsByteExact)
{
    const QByteArray body = LetterPattern(KLargeBody);
    PartialBodyPeer peer(body, body.size(), false);
    ASSERT_TRUE(peer.Listen());
    const ProgramRun r = Velafetch({peer.Url()});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 0) << r;
    EXPECT_TRUE(r.out == body) << r;
    EXPECT_TRUE(r.err.isEmpty()) << r;
}

TEST(VelafetchOutputTest, FailureAfterPartialBodyWritesTheReceivedBytesToStdout)
{
    const QByteArray part = LetterPattern(KPartBody);
    PartialBodyPeer peer(part, 3 * KPartBody, true);
    ASSERT_TRUE(peer.Listen());
    const ProgramRun r = Velafetch({peer.Url()});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 1) << r;
    EXPECT_TRUE(r.out == part) << r;
    EXPECT_TRUE(r.err.startsWith("velafetch: " + peer.Url().toUtf8() + ": ")) << r;
}

TEST(VelafetchOutputTest, FailureAfterPartialBodyLeavesNoPartOfAnExistingFile)
{
    // -o truncated the older file when the transfer began; what arrived
    // before the failure must not stay behind looking like a whole file.
    TempDir dir;
    const QString path = dir.File("part.bin");
    {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write("an older file"), 13);
    }
    PartialBodyPeer peer(LetterPattern(KPartBody), 3 * KPartBody, true);
    ASSERT_TRUE(peer.Listen());
    const ProgramRun r = Velafetch({"-o", path, peer.Url()});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 1) << r;
    EXPECT_FALSE(QFile::exists(path)) << r;
}

TEST(VelafetchOutputTest, FailureAfterPartialBodyDeletesAFileItCreated)
{
    TempDir dir;
    const QString path = dir.File("part.bin");
    PartialBodyPeer peer(LetterPattern(KPartBody), 3 * KPartBody, true);
    ASSERT_TRUE(peer.Listen());
    const ProgramRun r = Velafetch({"-o", path, peer.Url()});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 1) << r;
    EXPECT_FALSE(QFile::exists(path)) << r;
}

TEST(VelafetchOutputTest, CancelWritesTheReceivedBytesToStdoutAndEndsBySignal)
{
    const QByteArray part = LetterPattern(KPartBody);
    PartialBodyPeer peer(part, 3 * KPartBody, false);
    ASSERT_TRUE(peer.Listen());
    const ProgramRun r = Velafetch({peer.Url()}, [&] { return peer.ClientHasReadAll(); });
    ASSERT_TRUE(r.finished) << r;
    EXPECT_TRUE(r.bySignal) << r;
    EXPECT_TRUE(r.out == part) << r;
}

TEST(VelafetchOutputTest, CancelKeepsTheReceivedBytesInTheFile)
{
    TempDir dir;
    const QString path = dir.File("part.bin");
    const QByteArray part = LetterPattern(KPartBody);
    PartialBodyPeer peer(part, 3 * KPartBody, false);
    ASSERT_TRUE(peer.Listen());
    const ProgramRun r = Velafetch({"-o", path, peer.Url()}, [&] { return peer.ClientHasReadAll(); });
    ASSERT_TRUE(r.finished) << r;
    EXPECT_TRUE(r.bySignal) << r;
    // Kept for a later -C, with every byte that came.
    EXPECT_TRUE(ReadFile(path) == part) << r;
}

}  // namespace
