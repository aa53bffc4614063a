// velafetch's time limits run as a user runs them: --max-time against a
// server that accepts and never answers (and one that stops in the middle
// of a body), --connect-timeout against a listening socket whose accept
// queue is full, so that the kernel drops the connection attempt and the
// client's connect never completes. Each ends the transfer with the
// documented message and exit status 1; a partly written -o file is
// removed, except with -C.

#include "support/ScriptedPeer.h"
#include "support/TestSupport.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStringList>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

using velatest::PeerScript;
using velatest::ScriptedPeer;
using velatest::SpinUntil;
using velatest::TempDir;

struct RunResult
{
    bool finished = false;
    int exitCode = -1;
    qint64 ms = 0;
    QByteArray err;
};

std::ostream& operator<<(std::ostream& os, const RunResult& r)
{
    return os << "exit " << r.exitCode << (r.finished ? "" : " (did not finish)") << " after " << r.ms
              << " ms\nstderr: " << r.err.toStdString();
}

RunResult Velafetch(const QStringList& args, int deadlineMs = 30000)
{
    QProcess process;
    process.setStandardOutputFile(QProcess::nullDevice());
    QElapsedTimer clock;
    clock.start();
    process.start(VELAFETCH_BINARY, args);
    RunResult result;
    if (!process.waitForStarted(10000))
        return result;
    result.finished = SpinUntil([&] { return process.state() == QProcess::NotRunning; }, deadlineMs);
    result.ms = clock.elapsed();
    if (!result.finished) {
        process.kill();
        (void)process.waitForFinished(5000);
    }
    result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.err = process.readAllStandardError();
    return result;
}

// ------------------------------------------------------------ --max-time

TEST(VelafetchMaxTime, ASilentServerEndsAfterTheLimit)
{
    ScriptedPeer peer;  // no script: accepts and stays silent
    ASSERT_TRUE(peer.Listen());
    const QString url = peer.Url("/silent");
    const RunResult r = Velafetch({"--max-time", "1.5", url});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(1, r.exitCode) << r;
    EXPECT_EQ("velafetch: " + url.toStdString() + ": timed out after 1.5 s [--max-time]\n", r.err.toStdString());
    EXPECT_GE(r.ms, 1500);
    EXPECT_LT(r.ms, 10000);
    EXPECT_EQ(1, peer.ConnectionCount());
    // Cancelled through the pool: the connection is closed, not left open.
    EXPECT_TRUE(SpinUntil([&] { return peer.ClientClosed(0); }, 5000));
}

TEST(VelafetchMaxTime, APartlyWrittenFileIsRemoved)
{
    TempDir dir;
    const QString path = dir.File("out.bin");
    ScriptedPeer peer;
    peer.AddScript(PeerScript()
                       .ExpectHead()
                       .Send("HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n" + QByteArray(5000, 'x'))
                       .StaySilent());
    ASSERT_TRUE(peer.Listen());
    const RunResult r = Velafetch({"--max-time", "1", "-o", path, peer.Url("/half")});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(1, r.exitCode) << r;
    EXPECT_TRUE(r.err.endsWith(": timed out after 1.0 s [--max-time]\n")) << r;
    EXPECT_FALSE(QFile::exists(path));
}

TEST(VelafetchMaxTime, AFileThatWasThereAndGotEmptiedIsRemovedToo)
{
    TempDir dir;
    const QString path = dir.File("out.bin");
    {
        QFile old(path);
        ASSERT_TRUE(old.open(QIODevice::WriteOnly));
        ASSERT_EQ(3, old.write("old"));
    }
    ScriptedPeer peer;
    peer.AddScript(PeerScript()
                       .ExpectHead()
                       .Send("HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n" + QByteArray(5000, 'x'))
                       .StaySilent());
    ASSERT_TRUE(peer.Listen());
    const RunResult r = Velafetch({"--max-time", "1", "-o", path, peer.Url("/half")});
    EXPECT_EQ(1, r.exitCode) << r;
    EXPECT_FALSE(QFile::exists(path));
}

TEST(VelafetchMaxTime, WithContinueWhatArrivedIsKept)
{
    TempDir dir;
    const QString path = dir.File("out.bin");
    ScriptedPeer peer;
    peer.AddScript(PeerScript()
                       .ExpectHead()
                       .Send("HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n" + QByteArray(5000, 'x'))
                       .StaySilent());
    ASSERT_TRUE(peer.Listen());
    const RunResult r = Velafetch({"-C", "--max-time", "1", "-o", path, peer.Url("/half")});
    EXPECT_EQ(1, r.exitCode) << r;
    EXPECT_TRUE(r.err.endsWith(": timed out after 1.0 s [--max-time]\n")) << r;
    QFile kept(path);
    ASSERT_TRUE(kept.open(QIODevice::ReadOnly));
    EXPECT_EQ(QByteArray(5000, 'x'), kept.readAll());
}

TEST(VelafetchMaxTime, AFastTransferIsNotCut)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok").Close());
    ASSERT_TRUE(peer.Listen());
    const RunResult r = Velafetch({"--max-time", "5", "--connect-timeout", "5", peer.Url("/fast")});
    EXPECT_EQ(0, r.exitCode) << r;
    EXPECT_TRUE(r.err.isEmpty()) << r;
}

// ------------------------------------------------------------ --connect-timeout

// A listening socket on 127.0.0.1 whose accept queue is full: it listens with
// a backlog of 0, one connection of its own waits in the queue unaccepted,
// and the kernel drops every further connection attempt (SYN), so that a
// client's connect stays pending until the client gives up.
class FullBacklogListener
{
public:
    FullBacklogListener()
    {
        m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (m_listener < 0 || ::bind(m_listener, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
            ::listen(m_listener, 0) != 0 || ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size) != 0)
            return;
        m_port = ntohs(address.sin_port);
        // Fill the queue: connect until one attempt stays pending.
        for (int i = 0; i < 8 && !m_full; ++i) {
            const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            m_fillers.push_back(fd);
            if (::connect(fd, reinterpret_cast<sockaddr*>(&address), size) == 0)
                continue;
            if (errno != EINPROGRESS)
                return;
            pollfd wait{fd, POLLOUT, 0};
            // Loopback answers at once or never: 200 ms tells them apart.
            if (::poll(&wait, 1, 200) == 0)
                m_full = true;
        }
    }
    ~FullBacklogListener()
    {
        for (const int fd : m_fillers)
            ::close(fd);
        if (m_listener >= 0)
            ::close(m_listener);
    }
    FullBacklogListener(const FullBacklogListener&) = delete;
    FullBacklogListener& operator=(const FullBacklogListener&) = delete;

    // A connection attempt now stays pending.
    bool Full() const { return m_full; }
    quint16 Port() const { return m_port; }

private:
    int m_listener = -1;
    quint16 m_port = 0;
    bool m_full = false;
    std::vector<int> m_fillers;
};

TEST(VelafetchConnectTimeout, AConnectionThatNeverCompletesEndsAfterTheLimit)
{
    FullBacklogListener listener;
    ASSERT_TRUE(listener.Full()) << "the kernel accepted every connection; no pending connect to test with";
    const QString url = QString("http://127.0.0.1:%1/never").arg(listener.Port());
    const RunResult r = Velafetch({"--connect-timeout", "1.25", url});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(1, r.exitCode) << r;
    EXPECT_EQ("velafetch: " + url.toStdString() + ": timed out after 1.25 s [--connect-timeout]\n",
              r.err.toStdString());
    EXPECT_GE(r.ms, 1250);
    EXPECT_LT(r.ms, 10000);
}

TEST(VelafetchConnectTimeout, MaxTimeAlsoEndsAPendingConnect)
{
    FullBacklogListener listener;
    ASSERT_TRUE(listener.Full());
    const QString url = QString("http://127.0.0.1:%1/never").arg(listener.Port());
    const RunResult r = Velafetch({"--max-time", "0.5", url});
    EXPECT_EQ(1, r.exitCode) << r;
    EXPECT_TRUE(r.err.endsWith(": timed out after 0.5 s [--max-time]\n")) << r;
}

TEST(VelafetchConnectTimeout, AConnectedSilentServerIsLeftToMaxTime)
{
    ScriptedPeer peer;  // connects at once, then says nothing
    ASSERT_TRUE(peer.Listen());
    const RunResult r = Velafetch({"--connect-timeout", "0.5", "--max-time", "1.5", peer.Url("/silent")});
    EXPECT_EQ(1, r.exitCode) << r;
    EXPECT_TRUE(r.err.endsWith(": timed out after 1.5 s [--max-time]\n")) << r;
    EXPECT_GE(r.ms, 1500);
}

// ------------------------------------------------------------ command line

TEST(VelafetchTimeOptions, BadValuesAreUsageErrors)
{
    for (const char* bad : {"-1", "abc", "1e3", "1.2.3", "", ".", "nan", "inf", "1000000001"}) {
        const RunResult r = Velafetch({"--max-time", bad, "http://127.0.0.1:1/"});
        EXPECT_EQ(2, r.exitCode) << bad << ": " << r;
        EXPECT_TRUE(r.err.contains("--max-time takes seconds")) << bad << ": " << r;
        const RunResult c = Velafetch({"--connect-timeout", bad, "http://127.0.0.1:1/"});
        EXPECT_EQ(2, c.exitCode) << bad << ": " << c;
    }
}

TEST(VelafetchTimeOptions, HelpListsThem)
{
    QProcess process;
    process.start(VELAFETCH_BINARY, {"--help"});
    ASSERT_TRUE(process.waitForFinished(10000));
    const QByteArray help = process.readAllStandardOutput() + process.readAllStandardError();
    EXPECT_TRUE(help.contains("--max-time SECONDS")) << help.toStdString();
    EXPECT_TRUE(help.contains("--connect-timeout SECONDS")) << help.toStdString();
}

}  // namespace
