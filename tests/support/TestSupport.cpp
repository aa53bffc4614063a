#include "support/TestSupport.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QEventLoop>
#include <QUuid>

namespace velatest {

bool SpinUntil(const std::function<bool()>& cond, int deadlineMs)
{
    QDeadlineTimer deadline(deadlineMs);
    while (!cond()) {
        if (deadline.hasExpired())
            return false;
        // Block for at most a short slice so the deadline is honoured even
        // when no event arrives.
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 10);
    }
    return true;
}

void ProcessPendingEvents()
{
    QCoreApplication::processEvents(QEventLoop::AllEvents);
}

std::string Visible(const unsigned char* data, int len)
{
    std::string out;
    for (int i = 0; i < len; ++i) {
        const unsigned char c = data[i];
        if (c == '\r')
            out += "\\r";
        else if (c == '\n')
            out += "\\n\n";
        else if (c < 0x20 || c >= 0x7f) {
            static const char hex[] = "0123456789abcdef";
            out += "\\x";
            out += hex[c >> 4];
            out += hex[c & 15];
        } else
            out += static_cast<char>(c);
    }
    return out;
}

std::string Visible(const QByteArray& bytes)
{
    return Visible(reinterpret_cast<const unsigned char*>(bytes.constData()), bytes.size());
}

TempDir::TempDir()
{
    m_path = QDir::tempPath() + "/velanet-test-" + QUuid::createUuid().toString(QUuid::WithoutBraces);
    QDir().mkpath(m_path);
}

TempDir::~TempDir()
{
    QDir(m_path).removeRecursively();
}

}  // namespace velatest
