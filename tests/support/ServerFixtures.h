#ifndef VELANET_SERVERFIXTURES_H
#define VELANET_SERVERFIXTURES_H

// Real servers for integration tests, each started on a free loopback port
// with its own files in a temporary directory and stopped by its destructor:
//
//   NginxServer       static files (Content-Length bodies), optionally gzip
//                     with chunked transfer for text/plain, optionally https
//   HttpbinServer     httpbin under gunicorn (cookies, redirects, statuses)
//   TestCertificates  a CA and a server certificate for localhost/127.0.0.1
//                     made with the openssl command
//   TinyproxyServer   tinyproxy as an HTTP proxy (absolute targets and
//                     CONNECT), optionally asking for Basic credentials
//
// Start() returns false with the reason in Error() (the server's own log
// included); readiness is polled on the event loop with a deadline, never
// slept for. A server whose program is missing is a failure, except httpbin,
// which tests skip:
//
//   velatest::HttpbinServer httpbin;
//   VELATEST_START_HTTPBIN_OR_SKIP(httpbin);
//
// Started servers are killed by the kernel if the test process dies, so a
// crashed run leaves no server behind.

#include "support/TestSupport.h"

#include <QByteArray>
#include <QList>
#include <QSslCertificate>
#include <QString>

#include <gtest/gtest.h>

#include <memory>

class QProcess;

namespace velatest {

// A TCP port on 127.0.0.1 that nothing listened on a moment ago (the system
// chooses it); 0 when none could be had.
quint16 FreePort();
// The same on ::1; 0 also when the machine has no IPv6 loopback.
quint16 FreePortIPv6();
// Whether a server can listen on ::1 here.
bool HasIPv6Loopback();

// A CA key and certificate and a server key and certificate signed by that
// CA, as PEM files in a temporary directory.
class TestCertificates
{
public:
    // The server certificate's subject common name and subjectAltName list
    // (openssl syntax).
    explicit TestCertificates(const QString& commonName = QString("localhost"),
                              const QString& subjectAltNames = QString("DNS:localhost,IP:127.0.0.1"));
    ~TestCertificates();
    TestCertificates(const TestCertificates&) = delete;
    TestCertificates& operator=(const TestCertificates&) = delete;

    // Runs openssl; false with the reason in Error().
    bool Generate();
    const QString& Error() const { return m_error; }

    QString CaCertificatePath() const { return m_dir.File("ca.crt"); }
    QString CaKeyPath() const { return m_dir.File("ca.key"); }
    QString ServerCertificatePath() const { return m_dir.File("server.crt"); }
    QString ServerKeyPath() const { return m_dir.File("server.key"); }
    // The CA certificate (null before Generate succeeded).
    QSslCertificate CaCertificate() const;
    QSslCertificate ServerCertificate() const;

private:
    bool RunOpenssl(const QStringList& arguments);

    TempDir m_dir;
    QString m_commonName;
    QString m_subjectAltNames;
    QString m_error;
};

struct NginxOptions
{
    // gzip on for text/plain (any length), sent with chunked transfer
    // encoding to HTTP/1.1 clients that send Accept-Encoding: gzip.
    bool gzip = false;
    bool sendfile = true;
    // Also serve https on TlsPort() with these certificates (not owned; must
    // outlive Start()).
    const TestCertificates* tls = nullptr;
    // Directives added inside every server block.
    QByteArray extraServerDirectives;
    // The plain server also listens on [::1] at Ipv6Port().
    bool ipv6 = false;
};

class NginxServer
{
public:
    explicit NginxServer(const NginxOptions& options = NginxOptions());
    ~NginxServer();
    NginxServer(const NginxServer&) = delete;
    NginxServer& operator=(const NginxServer&) = delete;

    // "/usr/sbin/nginx", else nginx from PATH; empty when there is none.
    static QString Executable();

    // Writes the configuration, starts nginx and waits until the ports take
    // connections. Ports that were taken meanwhile are retried with others.
    bool Start(int deadlineMs = 10000);
    // Terminates nginx and waits for it (the destructor does this too).
    void Stop();
    bool IsRunning() const;
    const QString& Error() const { return m_error; }

    // The document root; it exists from construction, files may be added
    // before or after Start.
    QString Root() const { return m_dir.File("www"); }
    // Writes bytes to Root()/relativePath, making directories; false on failure.
    bool AddFile(const QString& relativePath, const QByteArray& bytes) const;

    quint16 Port() const { return m_port; }
    quint16 TlsPort() const { return m_tlsPort; }
    quint16 Ipv6Port() const { return m_ipv6Port; }
    // "http://127.0.0.1:" + Port() + path
    QString Url(const QString& path) const;
    // "https://localhost:" + TlsPort() + path
    QString TlsUrl(const QString& path) const;
    // "http://[::1]:" + Ipv6Port() + path
    QString Ipv6Url(const QString& path) const;

    QString ConfigPath() const { return m_dir.File("nginx.conf"); }
    QString ErrorLogPath() const { return m_dir.File("error.log"); }

private:
    QByteArray Config() const;
    bool StartOnce(int deadlineMs, bool& portTaken);

    NginxOptions m_options;
    TempDir m_dir;
    std::unique_ptr<QProcess> m_process;
    quint16 m_port = 0;
    quint16 m_tlsPort = 0;
    quint16 m_ipv6Port = 0;
    QString m_error;
};

struct TinyproxyOptions
{
    // Ports that CONNECT may reach; tinyproxy allows every port when the
    // list is empty.
    QList<quint16> connectPorts;
    // Basic credentials asked of every client when user is not empty
    // (letters and digits: tinyproxy's configuration takes no others).
    QByteArray user;
    QByteArray password;
};

class TinyproxyServer
{
public:
    explicit TinyproxyServer(const TinyproxyOptions& options = TinyproxyOptions());
    ~TinyproxyServer();
    TinyproxyServer(const TinyproxyServer&) = delete;
    TinyproxyServer& operator=(const TinyproxyServer&) = delete;

    // "/usr/bin/tinyproxy", else tinyproxy from PATH; empty when missing.
    static QString Executable();
    // The version printed by "tinyproxy -v" ("1.11.1"), empty when unknown.
    static QString Version();
    // BasicAuth came with tinyproxy 1.10.
    static bool SupportsBasicAuth();

    // Writes the configuration (127.0.0.1 on a free port, Allow 127.0.0.1),
    // starts tinyproxy in the foreground and waits until it takes connections.
    bool Start(int deadlineMs = 10000);
    void Stop();
    bool IsRunning() const;
    const QString& Error() const { return m_error; }

    quint16 Port() const { return m_port; }
    // "http://127.0.0.1:" + Port(), with "user:password@" when given.
    QString Url(bool withCredentials = true) const;
    QString LogPath() const { return m_dir.File("tinyproxy.log"); }
    QByteArray Log() const;

private:
    QByteArray Config() const;
    bool StartOnce(int deadlineMs, bool& portTaken);

    TinyproxyOptions m_options;
    TempDir m_dir;
    std::unique_ptr<QProcess> m_process;
    quint16 m_port = 0;
    QString m_error;
};

class HttpbinServer
{
public:
    HttpbinServer();
    ~HttpbinServer();
    HttpbinServer(const HttpbinServer&) = delete;
    HttpbinServer& operator=(const HttpbinServer&) = delete;

    // gunicorn (or gunicorn3) from PATH; empty when missing.
    static QString Executable();
    static bool Available() { return !Executable().isEmpty(); }

    // Starts "gunicorn -b 127.0.0.1:PORT httpbin:app" with the application
    // loaded before the port opens, and waits until it takes connections.
    bool Start(int deadlineMs = 30000);
    void Stop();
    bool IsRunning() const;
    const QString& Error() const { return m_error; }

    quint16 Port() const { return m_port; }
    // "http://127.0.0.1:" + Port() + path
    QString Url(const QString& path) const;
    QString LogPath() const { return m_dir.File("gunicorn.log"); }

private:
    bool StartOnce(int deadlineMs, bool& portTaken);

    TempDir m_dir;
    std::unique_ptr<QProcess> m_process;
    quint16 m_port = 0;
    QString m_error;
};

}  // namespace velatest

// Skips the current test when gunicorn is not installed; otherwise starts the
// server and fails the test when it does not come up.
#define VELATEST_START_HTTPBIN_OR_SKIP(server)                                   \
    do {                                                                         \
        if (!velatest::HttpbinServer::Available())                               \
            GTEST_SKIP() << "gunicorn is not installed; httpbin tests skipped";  \
        ASSERT_TRUE((server).Start()) << (server).Error().toStdString();         \
    } while (0)

// Skips the current test when the machine has no ::1.
#define VELATEST_NEED_IPV6_OR_SKIP()                                                         \
    do {                                                                                     \
        if (!velatest::HasIPv6Loopback())                                                    \
            GTEST_SKIP() << "this machine has no IPv6 loopback (::1); IPv6 tests skipped";   \
    } while (0)

#endif
