#ifndef VELANET_TLSSESSIONCACHE_P_H
#define VELANET_TLSSESSIONCACHE_P_H

// TLS sessions kept for resumption, in memory only, shared by every socket
// engine of the process. A session (Qt's serialised form, as
// QSslConfiguration::sessionTicket gives it) is filed under the origin's
// host name and port, the name the certificate was verified against (also
// through a proxy's tunnel: never the proxy), together with the list of CA
// certificates that verification trusted. The rules:
// - Find gives a session only for the same host (ASCII case folded) and
//   port, and only while the same CA list is trusted: a resumed handshake
//   does not verify the server's certificate again, so a session made under
//   other trust must not stand in for that verification.
// - A session lives for the server's lifetime hint (KDefaultLifetimeMs when
//   the server gives none), at most KMaxLifetimeMs.
// - At most KMaxEntries origins; storing one more drops the one least
//   recently stored or found.
// - Nothing is ever written to a file.
// Times are milliseconds of a monotonic clock; the calls without one use
// the process's steady clock.

#include <QByteArray>
#include <QList>
#include <QSslCertificate>
#include <QString>

#include <vector>

namespace velanet {

class TlsSessionCache
{
public:
    static constexpr int KMaxEntries = 64;
    static constexpr qint64 KDefaultLifetimeMs = 300 * 1000;
    static constexpr qint64 KMaxLifetimeMs = 24 * 3600 * 1000LL;

    // The process's cache.
    static TlsSessionCache& Shared();
    // Milliseconds of the steady clock.
    [[nodiscard]] static qint64 NowMs();

    // The session for host:port made under trusted, or an empty array.
    [[nodiscard]] QByteArray Find(const QString& host, quint16 port, const QList<QSslCertificate>& trusted, qint64 nowMs);
    [[nodiscard]] QByteArray Find(const QString& host, quint16 port, const QList<QSslCertificate>& trusted);
    // Files session for host:port (replacing what was there); lifetimeHintSeconds
    // of 0 or less means none was given. An empty session stores nothing.
    void Store(const QString& host, quint16 port, const QList<QSslCertificate>& trusted, const QByteArray& session,
               int lifetimeHintSeconds, qint64 nowMs);
    void Store(const QString& host, quint16 port, const QList<QSslCertificate>& trusted, const QByteArray& session,
               int lifetimeHintSeconds);
    // Drops the session of host:port (a handshake that offered it failed).
    void Forget(const QString& host, quint16 port);
    void Clear();
    [[nodiscard]] int Count() const { return static_cast<int>(m_entries.size()); }

private:
    struct Entry
    {
        QString host;  // lower-case
        quint16 port = 0;
        QList<QSslCertificate> trusted;
        QByteArray session;
        qint64 expiresMs = 0;
        quint64 used = 0;  // m_clock value of the last Store or Find
    };

    [[nodiscard]] int IndexOf(const QString& host, quint16 port) const;

    std::vector<Entry> m_entries;
    quint64 m_clock = 0;
};

}  // namespace velanet

#endif
