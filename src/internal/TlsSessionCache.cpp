#include "src/internal/TlsSessionCache_p.h"

#include <QElapsedTimer>

#include <algorithm>

namespace velanet {

TlsSessionCache& TlsSessionCache::Shared()
{
    static TlsSessionCache cache;
    return cache;
}

qint64 TlsSessionCache::NowMs()
{
    static QElapsedTimer clock;
    if (!clock.isValid())
        clock.start();
    return clock.elapsed();
}

int TlsSessionCache::IndexOf(const QString& host, quint16 port) const
{
    for (size_t i = 0; i < m_entries.size(); ++i) {
        const Entry& entry = m_entries[i];
        if (entry.port == port && entry.host.compare(host, Qt::CaseInsensitive) == 0)
            return static_cast<int>(i);
    }
    return -1;
}

QByteArray TlsSessionCache::Find(const QString& host, quint16 port, const QList<QSslCertificate>& trusted,
                                 qint64 nowMs)
{
    const int i = IndexOf(host, port);
    if (i < 0)
        return QByteArray();
    Entry& entry = m_entries[static_cast<size_t>(i)];
    if (nowMs >= entry.expiresMs) {
        m_entries.erase(m_entries.begin() + i);
        return QByteArray();
    }
    if (entry.trusted != trusted)
        return QByteArray();
    entry.used = ++m_clock;
    return entry.session;
}

QByteArray TlsSessionCache::Find(const QString& host, quint16 port, const QList<QSslCertificate>& trusted)
{
    return Find(host, port, trusted, NowMs());
}

void TlsSessionCache::Store(const QString& host, quint16 port, const QList<QSslCertificate>& trusted,
                            const QByteArray& session, int lifetimeHintSeconds, qint64 nowMs)
{
    if (session.isEmpty() || host.isEmpty())
        return;
    const qint64 lifetime =
        lifetimeHintSeconds > 0 ? std::min<qint64>(lifetimeHintSeconds * 1000LL, KMaxLifetimeMs) : KDefaultLifetimeMs;
    int i = IndexOf(host, port);
    if (i < 0) {
        if (static_cast<int>(m_entries.size()) >= KMaxEntries) {
            const auto oldest = std::min_element(m_entries.begin(), m_entries.end(),
                                                 [](const Entry& a, const Entry& b) { return a.used < b.used; });
            m_entries.erase(oldest);
        }
        m_entries.push_back(Entry());
        i = static_cast<int>(m_entries.size()) - 1;
    }
    Entry& entry = m_entries[static_cast<size_t>(i)];
    entry.host = host.toLower();
    entry.port = port;
    entry.trusted = trusted;
    entry.session = session;
    entry.expiresMs = nowMs + lifetime;
    entry.used = ++m_clock;
}

void TlsSessionCache::Store(const QString& host, quint16 port, const QList<QSslCertificate>& trusted,
                            const QByteArray& session, int lifetimeHintSeconds)
{
    Store(host, port, trusted, session, lifetimeHintSeconds, NowMs());
}

void TlsSessionCache::Forget(const QString& host, quint16 port)
{
    const int i = IndexOf(host, port);
    if (i >= 0)
        m_entries.erase(m_entries.begin() + i);
}

void TlsSessionCache::Clear()
{
    m_entries.clear();
}

}  // namespace velanet
