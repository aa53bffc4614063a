#include "Output.h"

#include <QCoreApplication>
#include <QFile>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace velafetch {

namespace {

// Every open output, newest first: what FlushAll and a cancel write out.
Output* g_open = nullptr;

// The self-pipe that carries a cancel signal into the event loop, where
// flushing is safe: the handler only writes the signal's number to it.
int g_signalPipe[2] = {-1, -1};

void OnCancelSignal(int signal)
{
    const int saved = errno;
    const unsigned char number = static_cast<unsigned char>(signal);
    (void)::write(g_signalPipe[1], &number, 1);
    errno = saved;
}

// After the first SIGINT or SIGTERM: flush, then end by the same signal
// with its default action. The handler is reset by the first delivery, so a
// second signal ends the program at once even if a write is stuck.
void InstallCancelHandler()
{
    if (g_signalPipe[0] >= 0 || QCoreApplication::instance() == nullptr)
        return;
    if (::pipe2(g_signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        g_signalPipe[0] = g_signalPipe[1] = -1;
        return;
    }
    auto* notifier = new QSocketNotifier(g_signalPipe[0], QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, [] {
        unsigned char number = 0;
        if (::read(g_signalPipe[0], &number, 1) != 1)
            return;
        Output::FlushAll();
        std::signal(number, SIG_DFL);
        std::raise(number);
    });
    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    action.sa_handler = OnCancelSignal;
    action.sa_flags = SA_RESETHAND | SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (const int signal : {SIGINT, SIGTERM}) {
        struct sigaction old;
        // A signal the caller chose to ignore stays ignored.
        if (::sigaction(signal, nullptr, &old) == 0 && old.sa_handler == SIG_IGN)
            continue;
        (void)::sigaction(signal, &action, nullptr);
    }
}

}  // namespace

Output::Output() = default;

Output::Output(const QString& path) : m_path(path) {}

Output::~Output()
{
    (void)Close();
}

void Output::Register()
{
    m_next = g_open;
    g_open = this;
}

void Output::Unregister()
{
    for (Output** link = &g_open; *link != nullptr; link = &(*link)->m_next) {
        if (*link == this) {
            *link = m_next;
            break;
        }
    }
    m_next = nullptr;
}

void Output::FlushAll()
{
    for (Output* output = g_open; output != nullptr; output = output->m_next)
        (void)output->Flush();
}

bool Output::Open(bool append)
{
    if (m_fd >= 0)
        return true;
    InstallCancelHandler();
    m_buffer.resize(KBufferBytes);
    m_used = 0;
    if (IsStdout()) {
        m_fd = STDOUT_FILENO;
        Register();
        return true;
    }
    const QByteArray name = QFile::encodeName(m_path);
    struct stat st;
    m_created = ::stat(name.constData(), &st) != 0;
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (append ? O_APPEND : O_TRUNC);
    m_fd = ::open(name.constData(), flags, 0644);
    if (m_fd < 0) {
        m_error = QString("cannot open %1: %2").arg(m_path, QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    Register();
    return true;
}

bool Output::WriteAll(const char* data, qint64 len)
{
    while (len > 0) {
        const ssize_t n = ::write(m_fd, data, static_cast<size_t>(len));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            m_error = QString("cannot write %1: %2")
                          .arg(IsStdout() ? QString("standard output") : m_path,
                               QString::fromLocal8Bit(std::strerror(errno)));
            return false;
        }
        data += n;
        len -= n;
    }
    return true;
}

bool Output::Write(const unsigned char* data, int len)
{
    if (m_fd < 0 || !m_error.isEmpty() || len <= 0)
        return m_error.isEmpty();
    if (m_used + len > m_buffer.size()) {
        if (!Flush())
            return false;
        if (len >= m_buffer.size())
            return WriteAll(reinterpret_cast<const char*>(data), len);
    }
    std::memcpy(m_buffer.data() + m_used, data, static_cast<size_t>(len));
    m_used += len;
    return true;
}

bool Output::Flush()
{
    if (m_fd < 0 || !m_error.isEmpty())
        return m_error.isEmpty();
    const int used = m_used;
    m_used = 0;
    return WriteAll(m_buffer.constData(), used);
}

bool Output::Close()
{
    if (m_fd < 0)
        return m_error.isEmpty();
    bool ok = Flush();
    if (!IsStdout() && ::close(m_fd) != 0 && ok) {
        m_error = QString("cannot write %1: %2").arg(m_path, QString::fromLocal8Bit(std::strerror(errno)));
        ok = false;
    }
    Unregister();
    m_fd = -1;
    m_buffer = QByteArray();
    return ok;
}

void Output::Discard()
{
    if (m_created && !IsStdout()) {
        // The file of a failed transfer goes: no need to write it first.
        m_used = 0;
        if (m_fd >= 0)
            ::close(m_fd);
        Unregister();
        m_fd = -1;
        m_buffer = QByteArray();
        QFile::remove(m_path);
        m_created = false;
        return;
    }
    // Standard output and an appended file keep every byte received.
    (void)Close();
}

}  // namespace velafetch
