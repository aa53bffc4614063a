#include "support/ServerFixtures.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QProcess>
#include <QRandomGenerator>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>

#include <signal.h>
#include <sys/prctl.h>

#include <algorithm>

namespace velatest {

namespace {

// A busy port is retried with fresh ones this many times in all.
const int KStartAttempts = 3;
// Connection attempts and log reads while a server comes up are at least
// this far apart (the wait itself spins the event loop).
const int KProbeIntervalMs = 5;
const int KStopDeadlineMs = 10000;
const int KOpensslDeadlineMs = 30000;
const int KLogTailBytes = 4000;
const int KCertificateDays = 30;

// A child process that the kernel kills when the test process dies, so an
// aborted test run leaves no server holding a port.
class ChildProcess : public QProcess
{
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
public:
    ChildProcess()
    {
        setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
    }
#else
protected:
    void setupChildProcess() override { ::prctl(PR_SET_PDEATHSIG, SIGKILL); }
#endif
};

QByteArray ReadFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

QString Tail(const QString& path)
{
    const QByteArray all = ReadFile(path);
    if (all.isEmpty())
        return QString();
    return "\n--- " + path + " ---\n" + QString::fromUtf8(all.right(KLogTailBytes));
}

bool WriteFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    return file.write(bytes) == bytes.size() && file.flush();
}

// A path as a double-quoted nginx string.
QByteArray Quoted(const QString& path)
{
    QByteArray text = path.toUtf8();
    text.replace('\\', "\\\\");
    text.replace('"', "\\\"");
    return '"' + text + '"';
}

// Stops a server process: the given signal first, SIGKILL if it lingers.
void StopProcess(QProcess* process, int signalNumber)
{
    if (!process || process->state() == QProcess::NotRunning)
        return;
    ::kill(static_cast<pid_t>(process->processId()), signalNumber);
    if (!process->waitForFinished(KStopDeadlineMs)) {
        process->kill();
        process->waitForFinished(KStopDeadlineMs);
    }
}

// Spins the event loop until a connection to 127.0.0.1:port succeeds, the
// process has ended, or the deadline passes. True only for a connection
// while the process runs.
bool WaitForPort(quint16 port, const QProcess& process, int deadlineMs,
                 const QHostAddress& address = QHostAddress(QHostAddress::LocalHost))
{
    QTcpSocket probe;
    QElapsedTimer sinceAttempt;
    SpinUntil(
        [&] {
            if (process.state() != QProcess::Running)
                return true;
            if (probe.state() == QAbstractSocket::ConnectedState)
                return true;
            if (probe.state() == QAbstractSocket::UnconnectedState &&
                (!sinceAttempt.isValid() || sinceAttempt.elapsed() >= KProbeIntervalMs)) {
                sinceAttempt.start();
                probe.connectToHost(address, port);
            }
            return false;
        },
        deadlineMs);
    const bool ready = process.state() == QProcess::Running && probe.state() == QAbstractSocket::ConnectedState;
    probe.abort();
    return ready;
}

int Remaining(const QElapsedTimer& clock, int deadlineMs)
{
    return std::max(0, deadlineMs - static_cast<int>(clock.elapsed()));
}

}  // namespace

quint16 FreePort()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress(QHostAddress::LocalHost), 0))
        return 0;
    const quint16 port = probe.serverPort();
    probe.close();
    return port;
}

quint16 FreePortIPv6()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress(QHostAddress::LocalHostIPv6), 0))
        return 0;
    const quint16 port = probe.serverPort();
    probe.close();
    return port;
}

bool HasIPv6Loopback()
{
    return FreePortIPv6() != 0;
}

// --- TestCertificates ------------------------------------------------------

TestCertificates::TestCertificates(const QString& commonName, const QString& subjectAltNames)
    : m_commonName(commonName), m_subjectAltNames(subjectAltNames)
{
}

TestCertificates::~TestCertificates() = default;

bool TestCertificates::RunOpenssl(const QStringList& arguments)
{
    const QString program = QStandardPaths::findExecutable("openssl");
    if (program.isEmpty()) {
        m_error = "the openssl command is not installed";
        return false;
    }
    QProcess process;
    process.setWorkingDirectory(m_dir.Path());
    process.start(program, arguments);
    if (!process.waitForFinished(KOpensslDeadlineMs) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        m_error = "openssl " + arguments.join(' ') + " failed:\n" + QString::fromUtf8(process.readAllStandardError());
        process.kill();
        process.waitForFinished(KOpensslDeadlineMs);
        return false;
    }
    return true;
}

bool TestCertificates::Generate()
{
    m_error.clear();
    const QString days = QString::number(KCertificateDays);
    const QStringList ecKey = {"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"};
    if (!RunOpenssl(QStringList{"req", "-x509"} + ecKey +
                    QStringList{"-keyout", CaKeyPath(), "-out", CaCertificatePath(), "-days", days, "-subj",
                                "/O=velanet tests/CN=velanet test CA", "-addext",
                                "basicConstraints=critical,CA:TRUE", "-addext", "keyUsage=critical,keyCertSign,cRLSign",
                                "-addext", "subjectKeyIdentifier=hash"}))
        return false;
    const QString request = m_dir.File("server.csr");
    if (!RunOpenssl(QStringList{"req"} + ecKey +
                    QStringList{"-keyout", ServerKeyPath(), "-out", request, "-subj", "/CN=" + m_commonName}))
        return false;
    const QString extensions = m_dir.File("server.ext");
    QByteArray extensionText = "basicConstraints=CA:FALSE\n"
                               "keyUsage=critical,digitalSignature,keyEncipherment\n"
                               "extendedKeyUsage=serverAuth\n"
                               "authorityKeyIdentifier=keyid\n";
    if (!m_subjectAltNames.isEmpty())
        extensionText += "subjectAltName=" + m_subjectAltNames.toUtf8() + "\n";
    if (!WriteFile(extensions, extensionText)) {
        m_error = "cannot write " + extensions;
        return false;
    }
    // A random serial, so no two runs issue the same one.
    const QString serial = "0x" + QString::number(QRandomGenerator::global()->generate64() >> 2, 16);
    if (!RunOpenssl(QStringList{"x509", "-req", "-in", request, "-CA", CaCertificatePath(), "-CAkey", CaKeyPath(),
                                "-set_serial", serial, "-out", ServerCertificatePath(), "-days", days, "-extfile",
                                extensions}))
        return false;
    if (CaCertificate().isNull() || ServerCertificate().isNull()) {
        m_error = "openssl wrote certificates that do not load";
        return false;
    }
    return true;
}

QSslCertificate TestCertificates::CaCertificate() const
{
    const QList<QSslCertificate> all = QSslCertificate::fromData(ReadFile(CaCertificatePath()), QSsl::Pem);
    return all.isEmpty() ? QSslCertificate() : all.first();
}

QSslCertificate TestCertificates::ServerCertificate() const
{
    const QList<QSslCertificate> all = QSslCertificate::fromData(ReadFile(ServerCertificatePath()), QSsl::Pem);
    return all.isEmpty() ? QSslCertificate() : all.first();
}

// --- NginxServer -----------------------------------------------------------

NginxServer::NginxServer(const NginxOptions& options) : m_options(options)
{
    QDir().mkpath(Root());
}

NginxServer::~NginxServer()
{
    Stop();
}

QString NginxServer::Executable()
{
    const QString fixed("/usr/sbin/nginx");
    if (QFileInfo(fixed).isExecutable())
        return fixed;
    return QStandardPaths::findExecutable("nginx");
}

bool NginxServer::AddFile(const QString& relativePath, const QByteArray& bytes) const
{
    return WriteFile(Root() + "/" + relativePath, bytes);
}

QString NginxServer::Url(const QString& path) const
{
    return QString("http://127.0.0.1:%1%2").arg(m_port).arg(path);
}

QString NginxServer::TlsUrl(const QString& path) const
{
    return QString("https://localhost:%1%2").arg(m_tlsPort).arg(path);
}

QString NginxServer::Ipv6Url(const QString& path) const
{
    return QString("http://[::1]:%1%2").arg(m_ipv6Port).arg(path);
}

QByteArray NginxServer::Config() const
{
    const QByteArray temp = m_dir.File("temp").toUtf8();
    QByteArray site = "        root " + Quoted(Root()) + ";\n";
    if (m_options.gzip) {
        site += "        gzip on;\n"
                "        gzip_types text/plain;\n"
                "        gzip_min_length 0;\n"
                "        gzip_http_version 1.1;\n"
                "        gzip_proxied any;\n"
                "        chunked_transfer_encoding on;\n";
    }
    if (!m_options.extraServerDirectives.isEmpty())
        site += "        " + m_options.extraServerDirectives + "\n";

    QByteArray config = "daemon off;\n"
                        "master_process off;\n"
                        "worker_processes 1;\n"
                        "error_log " + Quoted(ErrorLogPath()) + " warn;\n"
                        "pid " + Quoted(m_dir.File("nginx.pid")) + ";\n"
                        "events {\n"
                        "    worker_connections 1024;\n"
                        "}\n"
                        "http {\n"
                        "    access_log off;\n"
                        "    client_body_temp_path " + Quoted(temp + "/body") + ";\n"
                        "    proxy_temp_path " + Quoted(temp + "/proxy") + ";\n"
                        "    fastcgi_temp_path " + Quoted(temp + "/fastcgi") + ";\n"
                        "    uwsgi_temp_path " + Quoted(temp + "/uwsgi") + ";\n"
                        "    scgi_temp_path " + Quoted(temp + "/scgi") + ";\n"
                        "    types {\n"
                        "        text/plain txt;\n"
                        "        text/html html htm;\n"
                        "        application/json json;\n"
                        "    }\n"
                        "    default_type application/octet-stream;\n"
                        "    sendfile " + QByteArray(m_options.sendfile ? "on" : "off") + ";\n"
                        "    server {\n"
                        "        listen 127.0.0.1:" + QByteArray::number(m_port) + ";\n" +
                        (m_options.ipv6 ? "        listen [::1]:" + QByteArray::number(m_ipv6Port) + ";\n"
                                        : QByteArray()) +
                        "        server_name localhost;\n" + site +
                        "    }\n";
    if (m_options.tls) {
        config += "    server {\n"
                  "        listen 127.0.0.1:" + QByteArray::number(m_tlsPort) + " ssl;\n"
                  "        server_name localhost;\n"
                  "        ssl_certificate " + Quoted(m_options.tls->ServerCertificatePath()) + ";\n"
                  "        ssl_certificate_key " + Quoted(m_options.tls->ServerKeyPath()) + ";\n" + site +
                  "    }\n";
    }
    config += "}\n";
    return config;
}

bool NginxServer::StartOnce(int deadlineMs, bool& portTaken)
{
    QElapsedTimer clock;
    clock.start();
    portTaken = false;
    m_port = FreePort();
    m_tlsPort = 0;
    if (m_options.tls) {
        do
            m_tlsPort = FreePort();
        while (m_tlsPort == m_port && m_tlsPort != 0);
    }
    if (m_port == 0 || (m_options.tls && m_tlsPort == 0)) {
        m_error = "no free port on 127.0.0.1";
        return false;
    }
    m_ipv6Port = 0;
    if (m_options.ipv6) {
        m_ipv6Port = FreePortIPv6();
        if (m_ipv6Port == 0) {
            m_error = "no free port on ::1";
            return false;
        }
    }
    const QString pidFile = m_dir.File("nginx.pid");
    QFile::remove(pidFile);
    QFile::remove(ErrorLogPath());
    QDir().mkpath(m_dir.File("temp"));
    if (!WriteFile(ConfigPath(), Config())) {
        m_error = "cannot write " + ConfigPath();
        return false;
    }

    m_process = std::make_unique<ChildProcess>();
    m_process->setStandardOutputFile(m_dir.File("stdout.log"));
    m_process->setStandardErrorFile(m_dir.File("stderr.log"));
    m_process->start(Executable(), QStringList{"-p", m_dir.Path() + "/", "-e", ErrorLogPath(), "-c", ConfigPath()});
    if (!m_process->waitForStarted(Remaining(clock, deadlineMs))) {
        m_error = "nginx did not start: " + m_process->errorString();
        return false;
    }
    // nginx writes its pid file after it has bound every listening socket.
    const bool bound = SpinUntil(
        [&] { return QFileInfo(pidFile).size() > 0 || m_process->state() != QProcess::Running; },
        Remaining(clock, deadlineMs));
    const bool running = bound && m_process->state() == QProcess::Running;
    if (running && WaitForPort(m_port, *m_process, Remaining(clock, deadlineMs)) &&
        (!m_options.tls || WaitForPort(m_tlsPort, *m_process, Remaining(clock, deadlineMs))) &&
        (!m_options.ipv6 || WaitForPort(m_ipv6Port, *m_process, Remaining(clock, deadlineMs),
                                        QHostAddress(QHostAddress::LocalHostIPv6))))
        return true;

    StopProcess(m_process.get(), SIGTERM);
    portTaken = ReadFile(ErrorLogPath()).contains("Address already in use");
    m_error = QString("nginx did not come up on 127.0.0.1:%1").arg(m_port) + Tail(ErrorLogPath()) +
              Tail(m_dir.File("stderr.log")) + Tail(ConfigPath());
    return false;
}

bool NginxServer::Start(int deadlineMs)
{
    Stop();
    m_error.clear();
    if (Executable().isEmpty()) {
        m_error = "nginx is not installed";
        return false;
    }
    if (m_options.tls && (m_options.tls->CaCertificate().isNull() || m_options.tls->ServerCertificate().isNull())) {
        m_error = "the TLS certificates have not been generated";
        return false;
    }
    for (int attempt = 0; attempt < KStartAttempts; ++attempt) {
        bool portTaken = false;
        if (StartOnce(deadlineMs, portTaken))
            return true;
        if (!portTaken)
            break;
    }
    return false;
}

void NginxServer::Stop()
{
    StopProcess(m_process.get(), SIGTERM);
    m_process.reset();
}

bool NginxServer::IsRunning() const
{
    return m_process && m_process->state() == QProcess::Running;
}

// --- HttpbinServer ---------------------------------------------------------

HttpbinServer::HttpbinServer() = default;

HttpbinServer::~HttpbinServer()
{
    Stop();
}

QString HttpbinServer::Executable()
{
    QString program = QStandardPaths::findExecutable("gunicorn");
    if (program.isEmpty())
        program = QStandardPaths::findExecutable("gunicorn3");
    return program;
}

QString HttpbinServer::Url(const QString& path) const
{
    return QString("http://127.0.0.1:%1%2").arg(m_port).arg(path);
}

bool HttpbinServer::StartOnce(int deadlineMs, bool& portTaken)
{
    QElapsedTimer clock;
    clock.start();
    portTaken = false;
    m_port = FreePort();
    if (m_port == 0) {
        m_error = "no free port on 127.0.0.1";
        return false;
    }
    QFile::remove(LogPath());
    const QString bind = QString("127.0.0.1:%1").arg(m_port);

    m_process = std::make_unique<ChildProcess>();
    m_process->setWorkingDirectory(m_dir.Path());
    m_process->setStandardOutputFile(m_dir.File("stdout.log"));
    m_process->setStandardErrorFile(m_dir.File("stderr.log"));
    // --preload imports httpbin before the port opens, so an open port means
    // an application that answers; threads let several clients in at once.
    m_process->start(Executable(), QStringList{"-b", bind, "--preload", "--workers", "1", "--threads", "8",
                                               "--graceful-timeout", "2", "--log-level", "info", "--error-logfile",
                                               LogPath(), "httpbin:app"});
    if (!m_process->waitForStarted(Remaining(clock, deadlineMs))) {
        m_error = "gunicorn did not start: " + m_process->errorString();
        return false;
    }
    // gunicorn logs this line once its socket is bound; on a busy port it
    // logs "Connection in use" and retries for seconds, which is cut short.
    const QByteArray listening = "Listening at: http://" + bind.toUtf8();
    QElapsedTimer sinceRead;
    bool ready = false;
    SpinUntil(
        [&] {
            if (!sinceRead.isValid() || sinceRead.elapsed() >= KProbeIntervalMs) {
                sinceRead.start();
                const QByteArray log = ReadFile(LogPath());
                ready = log.contains(listening);
                portTaken = log.contains("Connection in use");
            }
            return ready || portTaken || m_process->state() != QProcess::Running;
        },
        Remaining(clock, deadlineMs));
    if (ready && WaitForPort(m_port, *m_process, Remaining(clock, deadlineMs)))
        return true;

    StopProcess(m_process.get(), SIGINT);
    m_error = QString("httpbin did not come up on %1").arg(bind) + Tail(LogPath()) + Tail(m_dir.File("stderr.log"));
    return false;
}

bool HttpbinServer::Start(int deadlineMs)
{
    Stop();
    m_error.clear();
    if (!Available()) {
        m_error = "gunicorn is not installed";
        return false;
    }
    for (int attempt = 0; attempt < KStartAttempts; ++attempt) {
        bool portTaken = false;
        if (StartOnce(deadlineMs, portTaken))
            return true;
        if (!portTaken)
            break;
    }
    return false;
}

void HttpbinServer::Stop()
{
    // SIGINT is gunicorn's quick shutdown (SIGTERM would wait for workers).
    StopProcess(m_process.get(), SIGINT);
    m_process.reset();
}

bool HttpbinServer::IsRunning() const
{
    return m_process && m_process->state() == QProcess::Running;
}

// --- TinyproxyServer -------------------------------------------------------

TinyproxyServer::TinyproxyServer(const TinyproxyOptions& options) : m_options(options) {}

TinyproxyServer::~TinyproxyServer()
{
    Stop();
}

QString TinyproxyServer::Executable()
{
    const QString fixed("/usr/bin/tinyproxy");
    if (QFileInfo(fixed).isExecutable())
        return fixed;
    return QStandardPaths::findExecutable("tinyproxy");
}

QString TinyproxyServer::Version()
{
    if (Executable().isEmpty())
        return QString();
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(Executable(), QStringList{"-v"});
    if (!process.waitForFinished(KStopDeadlineMs))
        return QString();
    // "tinyproxy 1.11.1"
    const QStringList words = QString::fromUtf8(process.readAll()).simplified().split(' ');
    return words.size() >= 2 ? words.at(1) : QString();
}

bool TinyproxyServer::SupportsBasicAuth()
{
    const QStringList parts = Version().split('.');
    if (parts.size() < 2)
        return false;
    const int major = parts.at(0).toInt();
    const int minor = parts.at(1).toInt();
    return major > 1 || (major == 1 && minor >= 10);
}

QString TinyproxyServer::Url(bool withCredentials) const
{
    QString credentials;
    if (withCredentials && !m_options.user.isEmpty())
        credentials = QString::fromUtf8(m_options.user.toPercentEncoding() + ':' +
                                        m_options.password.toPercentEncoding() + '@');
    return "http://" + credentials + "127.0.0.1:" + QString::number(m_port);
}

QByteArray TinyproxyServer::Log() const
{
    return ReadFile(LogPath());
}

QByteArray TinyproxyServer::Config() const
{
    QByteArray config = "Port " + QByteArray::number(m_port) + "\n"
                        "Listen 127.0.0.1\n"
                        "Timeout 60\n"
                        "LogFile " + Quoted(LogPath()) + "\n"
                        "LogLevel Info\n"
                        "MaxClients 64\n"
                        "Allow 127.0.0.1\n";
    for (const quint16 port : m_options.connectPorts)
        config += "ConnectPort " + QByteArray::number(port) + "\n";
    if (!m_options.user.isEmpty())
        config += "BasicAuth " + m_options.user + " " + m_options.password + "\n";
    return config;
}

bool TinyproxyServer::StartOnce(int deadlineMs, bool& portTaken)
{
    QElapsedTimer clock;
    clock.start();
    portTaken = false;
    m_port = FreePort();
    if (m_port == 0) {
        m_error = "no free port on 127.0.0.1";
        return false;
    }
    const QString configPath = m_dir.File("tinyproxy.conf");
    QFile::remove(LogPath());
    if (!WriteFile(configPath, Config())) {
        m_error = "cannot write " + configPath;
        return false;
    }
    m_process = std::make_unique<ChildProcess>();
    m_process->setStandardOutputFile(m_dir.File("stdout.log"));
    m_process->setStandardErrorFile(m_dir.File("stderr.log"));
    m_process->start(Executable(), QStringList{"-d", "-c", configPath});
    if (!m_process->waitForStarted(Remaining(clock, deadlineMs))) {
        m_error = "tinyproxy did not start: " + m_process->errorString();
        return false;
    }
    if (WaitForPort(m_port, *m_process, Remaining(clock, deadlineMs)))
        return true;
    StopProcess(m_process.get(), SIGTERM);
    const QByteArray log = ReadFile(LogPath()) + ReadFile(m_dir.File("stderr.log"));
    portTaken = log.contains("Address already in use") || log.contains("Could not create listening socket");
    m_error = QString("tinyproxy did not come up on 127.0.0.1:%1").arg(m_port) + Tail(LogPath()) +
              Tail(m_dir.File("stderr.log")) + Tail(configPath);
    return false;
}

bool TinyproxyServer::Start(int deadlineMs)
{
    Stop();
    m_error.clear();
    if (Executable().isEmpty()) {
        m_error = "tinyproxy is not installed";
        return false;
    }
    if (!m_options.user.isEmpty() && !SupportsBasicAuth()) {
        m_error = "tinyproxy " + Version() + " has no BasicAuth";
        return false;
    }
    for (int attempt = 0; attempt < KStartAttempts; ++attempt) {
        bool portTaken = false;
        if (StartOnce(deadlineMs, portTaken))
            return true;
        if (!portTaken)
            break;
    }
    return false;
}

void TinyproxyServer::Stop()
{
    StopProcess(m_process.get(), SIGTERM);
    m_process.reset();
}

bool TinyproxyServer::IsRunning() const
{
    return m_process && m_process->state() == QProcess::Running;
}

}  // namespace velatest
