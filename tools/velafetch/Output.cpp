#include "Output.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace velafetch {

Output::Output() = default;

Output::Output(const QString& path) : m_path(path) {}

Output::~Output()
{
    (void)Close();
}

bool Output::Open(bool append)
{
    if (m_fd >= 0)
        return true;
    m_buffer.resize(KBufferBytes);
    m_used = 0;
    if (IsStdout()) {
        m_fd = STDOUT_FILENO;
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
    m_fd = -1;
    m_buffer = QByteArray();
    return ok;
}

void Output::Discard()
{
    m_used = 0;
    if (m_fd >= 0 && !IsStdout())
        ::close(m_fd);
    m_fd = -1;
    m_buffer = QByteArray();
    if (m_created && !IsStdout())
        QFile::remove(m_path);
    m_created = false;
}

}  // namespace velafetch
