// The velafetch program run as a user runs it, against nginx and httpbin
// started here on 127.0.0.1, its own built-in demo, and a raw echo peer.
// Expected bodies are the files given to nginx (compared by SHA-256) or the
// request's own data as httpbin echoes it; expected messages are the ones the
// program documents for each failure.

#include "support/ServerFixtures.h"
#include "support/TestSupport.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>
#include <QPair>
#include <QProcess>
#include <QRandomGenerator>
#include <QStringList>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUrl>

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

using velatest::HttpbinServer;
using velatest::NginxOptions;
using velatest::NginxServer;
using velatest::SpinUntil;
using velatest::TempDir;

const int KRunDeadlineMs = 60000;

struct RunResult
{
    bool finished = false;
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

std::ostream& operator<<(std::ostream& os, const RunResult& r)
{
    return os << "exit " << r.exitCode << (r.finished ? "" : " (did not finish)") << "\nstdout: "
              << r.out.left(2000).toStdString() << "\nstderr: " << r.err.left(4000).toStdString();
}

// Runs program with args to completion (or the deadline), feeding input.
// Variables set for the program (NAME, value) on top of the test's own.
using EnvironmentList = QList<QPair<QString, QString>>;

RunResult RunProgram(const QString& program, const QStringList& args, const QString& workDir = QString(),
                     const QByteArray& input = QByteArray(), int deadlineMs = KRunDeadlineMs,
                     const EnvironmentList& variables = EnvironmentList())
{
    QProcess process;
    if (!workDir.isEmpty())
        process.setWorkingDirectory(workDir);
    // A proxy of the machine running the tests must not come between the
    // program and the servers started here.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "no_proxy", "NO_PROXY"})
        environment.remove(name);
    for (const auto& variable : variables)
        environment.insert(variable.first, variable.second);
    process.setProcessEnvironment(environment);
    process.start(program, args);
    RunResult result;
    if (!process.waitForStarted(10000))
        return result;
    if (!input.isEmpty())
        process.write(input);
    process.closeWriteChannel();
    result.finished = SpinUntil([&] { return process.state() == QProcess::NotRunning; }, deadlineMs);
    if (!result.finished) {
        process.kill();
        (void)process.waitForFinished(5000);
    }
    result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.out = process.readAllStandardOutput();
    result.err = process.readAllStandardError();
    return result;
}

RunResult Velafetch(const QStringList& args, const QString& workDir = QString(), const QByteArray& input = QByteArray())
{
    return RunProgram(VELAFETCH_BINARY, args, workDir, input);
}

RunResult VelafetchWith(const EnvironmentList& variables, const QStringList& args)
{
    return RunProgram(VELAFETCH_BINARY, args, QString(), QByteArray(), KRunDeadlineMs, variables);
}

QByteArray RandomBytes(int n, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(n, '\0');
    for (int i = 0; i < n; ++i)
        bytes[i] = static_cast<char>(generator.bounded(256));
    return bytes;
}

QByteArray Sha256(const QByteArray& bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex();
}

QByteArray ReadFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QJsonObject Json(const QByteArray& bytes)
{
    return QJsonDocument::fromJson(bytes).object();
}

// ------------------------------------------------------------ nginx

class VelafetchNginxTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_nginx = std::make_unique<NginxServer>();
        s_big = RandomBytes(3 * 1024 * 1024 + 123, 7);
        s_small = RandomBytes(70001, 11);
        s_started = s_nginx->AddFile("files/big.bin", s_big) && s_nginx->AddFile("files/small.bin", s_small) &&
                    s_nginx->Start();
    }
    static void TearDownTestSuite() { s_nginx.reset(); }
    void SetUp() override { ASSERT_TRUE(s_started) << s_nginx->Error().toStdString(); }

    static QString Url(const QString& path) { return s_nginx->Url(path); }

    static std::unique_ptr<NginxServer> s_nginx;
    static QByteArray s_big;
    static QByteArray s_small;
    static bool s_started;
    TempDir m_dir;
};

std::unique_ptr<NginxServer> VelafetchNginxTest::s_nginx;
QByteArray VelafetchNginxTest::s_big;
QByteArray VelafetchNginxTest::s_small;
bool VelafetchNginxTest::s_started = false;

TEST_F(VelafetchNginxTest, DownloadToFileHasTheServedDigest)
{
    const QString out = m_dir.File("big.out");
    const RunResult r = Velafetch({"-o", out, Url("/files/big.bin")});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 0) << r;
    EXPECT_EQ(Sha256(ReadFile(out)), Sha256(s_big));
    // stderr is a pipe here: no progress bar, no other words.
    EXPECT_TRUE(r.err.isEmpty()) << r;
}

TEST_F(VelafetchNginxTest, BodyToStdoutIsByteExact)
{
    const RunResult r = Velafetch({Url("/files/small.bin")});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 0) << r;
    EXPECT_EQ(Sha256(r.out), Sha256(s_small));
}

TEST_F(VelafetchNginxTest, SeveralUrlsToStdoutComeInUrlOrder)
{
    const RunResult r = Velafetch({"--engines", "2", Url("/files/small.bin"), Url("/files/big.bin"),
                                   Url("/files/small.bin")});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 0) << r;
    EXPECT_EQ(Sha256(r.out), Sha256(s_small + s_big + s_small));
}

TEST_F(VelafetchNginxTest, MoreUrlsThanEnginesAreQueued)
{
    QStringList args{"--engines", "2"};
    const int kCount = 7;
    for (int i = 0; i < kCount; ++i)
        args << "-o" << m_dir.File(QString("f%1").arg(i));
    for (int i = 0; i < kCount; ++i)
        args << Url(i % 2 ? "/files/big.bin" : "/files/small.bin");
    const RunResult r = Velafetch(args);
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 0) << r;
    for (int i = 0; i < kCount; ++i)
        EXPECT_EQ(Sha256(ReadFile(m_dir.File(QString("f%1").arg(i)))), Sha256(i % 2 ? s_big : s_small)) << i;
}

TEST_F(VelafetchNginxTest, RemoteNameIsMadeFromTheUrl)
{
    const QString url = Url("/files/small.bin") + "?v=2";
    // Host, port and path without the scheme and the query, '/' and ':' as '_'.
    QString expected = url.mid(QString("http://").size());
    expected = expected.left(expected.indexOf('?'));
    expected.replace('/', '_').replace(':', '_');
    const RunResult r = Velafetch({"-O", url}, m_dir.Path());
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 0) << r;
    EXPECT_EQ(Sha256(ReadFile(m_dir.File(expected))), Sha256(s_small)) << expected.toStdString();
}

TEST_F(VelafetchNginxTest, ResumeAppendsTheRestOfTheFile)
{
    const QString out = m_dir.File("partial.bin");
    {
        QFile file(out);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(s_big.left(1000000)), 1000000);
    }
    const RunResult r = Velafetch({"-v", "-C", "-o", out, Url("/files/big.bin")});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 0) << r;
    EXPECT_TRUE(r.err.contains("status 206")) << r;
    EXPECT_EQ(QFileInfo(out).size(), s_big.size());
    EXPECT_EQ(Sha256(ReadFile(out)), Sha256(s_big));
}

TEST_F(VelafetchNginxTest, NotFoundSaysHttp404AndFails)
{
    const QString out = m_dir.File("missing.out");
    const RunResult r = Velafetch({"-o", out, Url("/files/missing.bin")});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_NE(r.exitCode, 0) << r;
    EXPECT_TRUE(r.err.contains(Url("/files/missing.bin").toUtf8() + ": HTTP 404 [HTTP error 404]")) << r;
    EXPECT_FALSE(QFileInfo::exists(out));
}

TEST_F(VelafetchNginxTest, OneFailureAmongSuccessesFailsTheRun)
{
    const RunResult r = Velafetch({"-o", m_dir.File("a"), "-o", m_dir.File("b"), Url("/files/small.bin"),
                                   Url("/files/nothing-here")});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 1) << r;
    EXPECT_EQ(Sha256(ReadFile(m_dir.File("a"))), Sha256(s_small));
    EXPECT_EQ(r.err.count("\n"), 1) << r;
}

TEST_F(VelafetchNginxTest, VerboseShowsEveryReportWithItsMeaning)
{
    const RunResult r = Velafetch({"-v", "-o", m_dir.File("v"), Url("/files/small.bin")});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 0) << r;
    EXPECT_TRUE(r.err.contains("event 32 connected")) << r;
    EXPECT_TRUE(r.err.contains("header: status 200, length 70001, framing by length")) << r;
    EXPECT_TRUE(r.err.contains("data 1024 bytes")) << r;
    EXPECT_TRUE(r.err.contains("complete, 70001 body bytes")) << r;
}

TEST_F(VelafetchNginxTest, ProgressBarOnlyOnATerminal)
{
    const QString out = m_dir.File("tty.out");
    const QString command = QString("%1 -o %2 %3").arg(VELAFETCH_BINARY, out, Url("/files/big.bin"));
    const RunResult tty = RunProgram("script", {"-q", "-c", command, "/dev/null"});
    ASSERT_TRUE(tty.finished) << tty;
    EXPECT_EQ(tty.exitCode, 0) << tty;
    EXPECT_TRUE(tty.out.contains("100% [")) << tty;
    EXPECT_TRUE(tty.out.contains("MiB/s")) << tty;
    EXPECT_EQ(Sha256(ReadFile(out)), Sha256(s_big));

    const RunResult pipe = Velafetch({"-o", out, Url("/files/big.bin")});
    ASSERT_TRUE(pipe.finished) << pipe;
    EXPECT_EQ(pipe.exitCode, 0) << pipe;
    EXPECT_FALSE(pipe.err.contains("%")) << pipe;
    EXPECT_TRUE(pipe.err.isEmpty()) << pipe;
}

TEST(VelafetchGzipTest, GzipChunkedBodiesAreDecodedAndEnginesFreed)
{
    NginxOptions options;
    options.gzip = true;
    NginxServer nginx(options);
    QByteArray text;
    for (int i = 0; i < 4000; ++i)
        text += "line " + QByteArray::number(i) + " of a text that compresses well\n";
    ASSERT_TRUE(nginx.AddFile("t.txt", text));
    ASSERT_TRUE(nginx.Start()) << nginx.Error().toStdString();
    TempDir dir;
    // One engine: each next URL waits until the engine of a gzip body that
    // has completed is free again.
    QStringList args{"--engines", "1"};
    for (int i = 0; i < 3; ++i)
        args << "-o" << dir.File(QString("t%1").arg(i));
    for (int i = 0; i < 3; ++i)
        args << nginx.Url("/t.txt");
    const RunResult r = Velafetch(args);
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 0) << r;
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(ReadFile(dir.File(QString("t%1").arg(i))), text) << i;
}

// https through the TLS backend Qt loads (a plugin on Qt 6): trusted with
// --cacert, refused without it.
TEST(VelafetchTlsTest, HttpsDownloadNeedsTheCaGivenWithCacert)
{
    velatest::TestCertificates certificates;
    ASSERT_TRUE(certificates.Generate()) << certificates.Error().toStdString();
    NginxOptions options;
    options.tls = &certificates;
    NginxServer nginx(options);
    const QByteArray body = RandomBytes(200000, 13);
    ASSERT_TRUE(nginx.AddFile("s.bin", body));
    ASSERT_TRUE(nginx.Start()) << nginx.Error().toStdString();
    TempDir dir;

    const RunResult trusted =
        Velafetch({"--cacert", certificates.CaCertificatePath(), "-o", dir.File("s.out"), nginx.TlsUrl("/s.bin")});
    ASSERT_TRUE(trusted.finished) << trusted;
    EXPECT_EQ(trusted.exitCode, 0) << trusted;
    EXPECT_EQ(Sha256(ReadFile(dir.File("s.out"))), Sha256(body));

    const RunResult untrusted = Velafetch({"-o", dir.File("u.out"), nginx.TlsUrl("/s.bin")});
    ASSERT_TRUE(untrusted.finished) << untrusted;
    EXPECT_NE(untrusted.exitCode, 0) << untrusted;
    EXPECT_NE(Sha256(ReadFile(dir.File("u.out"))), Sha256(body));
}

// ------------------------------------------------------------ httpbin

class VelafetchHttpbinTest : public ::testing::Test
{
protected:
    static void TearDownTestSuite() { s_httpbin.reset(); }
    void SetUp() override
    {
        if (!HttpbinServer::Available())
            GTEST_SKIP() << "gunicorn is not installed; httpbin tests skipped";
        if (!s_httpbin) {
            s_httpbin = std::make_unique<HttpbinServer>();
            s_started = s_httpbin->Start();
        }
        ASSERT_TRUE(s_started) << s_httpbin->Error().toStdString();
    }
    static QString Url(const QString& path) { return s_httpbin->Url(path); }

    static std::unique_ptr<HttpbinServer> s_httpbin;
    static bool s_started;
    TempDir m_dir;
};

std::unique_ptr<HttpbinServer> VelafetchHttpbinTest::s_httpbin;
bool VelafetchHttpbinTest::s_started = false;

TEST_F(VelafetchHttpbinTest, FormPostIsEchoed)
{
    const RunResult r = Velafetch({"-d", "name=vela&city=Oslo", Url("/post")});
    ASSERT_TRUE(r.finished) << r;
    ASSERT_EQ(r.exitCode, 0) << r;
    const QJsonObject form = Json(r.out).value("form").toObject();
    EXPECT_EQ(form.value("name").toString(), "vela") << r;
    EXPECT_EQ(form.value("city").toString(), "Oslo") << r;
}

TEST_F(VelafetchHttpbinTest, MultipartUploadIsEchoed)
{
    const QString path = m_dir.File("note.txt");
    const QByteArray content = "a small file to upload\nsecond line\n";
    {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(content), content.size());
    }
    const RunResult r = Velafetch({"-F", "upload=@" + path, "--fields", "k=v&k2=v2", Url("/post")});
    ASSERT_TRUE(r.finished) << r;
    ASSERT_EQ(r.exitCode, 0) << r;
    const QJsonObject echo = Json(r.out);
    EXPECT_EQ(echo.value("files").toObject().value("upload").toString().toUtf8(), content) << r;
    EXPECT_EQ(echo.value("form").toObject().value("k").toString(), "v") << r;
    EXPECT_EQ(echo.value("form").toObject().value("k2").toString(), "v2") << r;
}

TEST_F(VelafetchHttpbinTest, CookiesPersistAcrossRunsWithTheSameDirectory)
{
    const QString cookies = m_dir.File("jar");
    // A cookie with an expiry date a year ahead survives a restart; session
    // cookies do not.
    const QByteArray expires =
        QLocale::c().toString(QDateTime::currentDateTimeUtc().addDays(365), "ddd, dd MMM yyyy hh:mm:ss").toLatin1() +
        " GMT";
    const QByteArray setCookie = "flavour=mint; Expires=" + expires + "; Path=/";
    const QString setUrl =
        Url("/response-headers") + "?Set-Cookie=" + QString::fromLatin1(QUrl::toPercentEncoding(setCookie));
    const RunResult first = Velafetch({"--cookies", cookies, setUrl});
    ASSERT_TRUE(first.finished) << first;
    ASSERT_EQ(first.exitCode, 0) << first;

    const RunResult second = Velafetch({"--cookies", cookies, Url("/cookies")});
    ASSERT_TRUE(second.finished) << second;
    ASSERT_EQ(second.exitCode, 0) << second;
    EXPECT_EQ(Json(second.out).value("cookies").toObject().value("flavour").toString(), "mint") << second;

    // Without the directory the cookie is not sent.
    const RunResult none = Velafetch({Url("/cookies")});
    ASSERT_TRUE(none.finished) << none;
    EXPECT_TRUE(Json(none.out).value("cookies").toObject().isEmpty()) << none;
}

TEST_F(VelafetchHttpbinTest, PageIdRedirectIsReportedNotFollowed)
{
    const RunResult page = Velafetch({"--id", "page", Url("/redirect-to") + "?url=/get"});
    ASSERT_TRUE(page.finished) << page;
    EXPECT_EQ(page.exitCode, 0) << page;
    EXPECT_TRUE(page.out.isEmpty()) << page;
    EXPECT_TRUE(page.err.contains("redirected to " + Url("/get").toUtf8())) << page;

    const RunResult image = Velafetch({"--id", "image", Url("/redirect-to") + "?url=/get"});
    ASSERT_TRUE(image.finished) << image;
    EXPECT_EQ(image.exitCode, 0) << image;
    EXPECT_EQ(Json(image.out).value("url").toString(), Url("/get")) << image;
}

// ------------------------------------------------------------ without servers

TEST(VelafetchCliTest, RefusedPortSaysConnectionRefused)
{
    const quint16 port = velatest::FreePort();
    ASSERT_NE(port, 0);
    const QString url = QString("http://127.0.0.1:%1/x").arg(port);
    const RunResult r = Velafetch({url});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_NE(r.exitCode, 0) << r;
    EXPECT_TRUE(r.err.contains(url.toUtf8() + ": connection refused [net error 34]")) << r;
}

TEST(VelafetchCliTest, HelpListsEveryOption)
{
    const RunResult r = Velafetch({"--help"});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 0) << r;
    for (const char* option : {"-o,", "-O,", "-C,", "-d,", "-F,", "--fields", "--engines", "--id", "--cookies",
                               "--dns-cache", "--gateway", "--cacert", "-v,", "--tcp", "--upload-resumable",
                               "--block-size", "--pick-ap", "--iap-file", "--demo", "--help", "-x,", "--proxy",
                               "--noproxy", "http_proxy", "https_proxy", "no_proxy"})
        EXPECT_TRUE(r.out.contains(option)) << option;
}

TEST(VelafetchCliTest, BadCommandLinesExitWithStatus2)
{
    for (const QStringList& args : {QStringList{}, QStringList{"--engines", "0", "http://127.0.0.1/"},
                                    QStringList{"--id", "sideways", "http://127.0.0.1/"},
                                    QStringList{"ftp://127.0.0.1/"}, QStringList{"--tcp", "nowhere"},
                                    QStringList{"-C", "http://127.0.0.1/"}, QStringList{"--bogus"}}) {
        const RunResult r = Velafetch(args);
        ASSERT_TRUE(r.finished) << r;
        EXPECT_EQ(r.exitCode, 2) << args.join(' ').toStdString() << r;
        EXPECT_TRUE(r.err.startsWith("velafetch: ")) << r;
    }
}

TEST(VelafetchCliTest, DemoPasses)
{
    const RunResult r = Velafetch({"--demo"});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 0) << r;
    EXPECT_TRUE(r.out.contains("demo: 6 requests, 6 complete, 0 failed, 20.0 MiB in ")) << r;
    EXPECT_TRUE(r.out.contains("sent back after the redirect: yes")) << r;
}

// A raw peer: echoes what it gets and closes after the line "bye".
class EchoPeer : public QObject
{
public:
    EchoPeer()
    {
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            QTcpSocket* socket = m_server.nextPendingConnection();
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] {
                const QByteArray bytes = socket->readAll();
                m_received += bytes;
                socket->write(bytes);
                if (m_received.endsWith("bye\n"))
                    socket->disconnectFromHost();
            });
        });
    }
    bool Listen() { return m_server.listen(QHostAddress::LocalHost, 0); }
    quint16 Port() const { return m_server.serverPort(); }
    const QByteArray& Received() const { return m_received; }

private:
    QTcpServer m_server;
    QByteArray m_received;
};

TEST(VelafetchCliTest, TcpModeSendsLinesAndEndsWithThePeersClose)
{
    EchoPeer peer;
    ASSERT_TRUE(peer.Listen());
    const QByteArray input = "hello velanet\nsecond line\nbye\n";
    const RunResult r = Velafetch({"--tcp", QString("127.0.0.1:%1").arg(peer.Port())}, QString(), input);
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 0) << r;
    EXPECT_EQ(peer.Received(), input);
    EXPECT_EQ(r.out, input) << r;
    EXPECT_TRUE(r.err.contains("connection closed by the peer")) << r;
}

// The server side of the resumable upload: each block is a request text
// followed by the block's bytes (1000 bytes first, then the block size),
// whose path ends with the MD5 of exactly those bytes; the reply's "Range: "
// line tells how many bytes of the file the server holds.
class UploadPeer : public QObject
{
public:
    UploadPeer(qint64 fileSize, int blockSize, bool tellRange)
        : m_fileSize(fileSize), m_blockSize(blockSize), m_tellRange(tellRange)
    {
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            QTcpSocket* socket = m_server.nextPendingConnection();
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { OnRead(socket); });
        });
    }
    bool Listen() { return m_server.listen(QHostAddress::LocalHost, 0); }
    quint16 Port() const { return m_server.serverPort(); }
    const QByteArray& Stored() const { return m_stored; }
    const QStringList& Problems() const { return m_problems; }

private:
    void OnRead(QTcpSocket* socket)
    {
        m_buffer += socket->readAll();
        const int headEnd = m_buffer.indexOf("\r\n\r\n");
        if (headEnd < 0)
            return;
        const qint64 first = m_stored.isEmpty() ? 1000 : m_blockSize;
        const int n = static_cast<int>(qMin<qint64>(first, m_fileSize - m_stored.size()));
        if (m_buffer.size() < headEnd + 4 + n)
            return;
        const QByteArray head = m_buffer.left(headEnd);
        const QByteArray block = m_buffer.mid(headEnd + 4, n);
        m_buffer.remove(0, headEnd + 4 + n);
        const QByteArray target = head.left(head.indexOf("\r\n")).split(' ').value(1);
        const QByteArray md5 = QCryptographicHash::hash(block, QCryptographicHash::Md5).toHex();
        if (!target.endsWith("upkey" + md5))
            m_problems << QString("block %1: path %2").arg(m_stored.size()).arg(QString::fromLatin1(target));
        m_stored += block;
        QByteArray reply = "HTTP/1.1 200 OK\r\n";
        if (m_tellRange)
            reply += "Range: " + QByteArray::number(m_stored.size()) + "\r\n";
        socket->write(reply + "Content-Length: 0\r\n\r\n");
    }

    QTcpServer m_server;
    qint64 m_fileSize;
    int m_blockSize;
    bool m_tellRange;
    QByteArray m_buffer;
    QByteArray m_stored;
    QStringList m_problems;
};

TEST(VelafetchCliTest, ResumableUploadSendsEveryBlock)
{
    TempDir dir;
    const QByteArray content = RandomBytes(25000, 3);
    const QString path = dir.File("up.bin");
    {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(content), content.size());
    }
    UploadPeer peer(content.size(), 10240, true);
    ASSERT_TRUE(peer.Listen());
    const RunResult r = Velafetch({"-v", "--block-size", "10240", "--upload-resumable",
                                   QString("127.0.0.1:%1").arg(peer.Port()), "upkey", path});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 0) << r;
    EXPECT_EQ(peer.Stored(), content);
    EXPECT_TRUE(peer.Problems().isEmpty()) << peer.Problems().join('\n').toStdString();
    // Progress after each reply: 1000, then 10240 more each time.
    for (const char* held : {"holds 1000 bytes", "holds 11240 bytes", "holds 21480 bytes", "holds 25000 bytes"})
        EXPECT_TRUE(r.err.contains(held)) << held << r;
    EXPECT_TRUE(r.err.contains("uploaded 24.4 KiB (25000 bytes)")) << r;
}

TEST(VelafetchCliTest, ResumableUploadStopsWhenTheReplyHasNoRange)
{
    TempDir dir;
    const QString path = dir.File("up.bin");
    {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(RandomBytes(5000, 4)), 5000);
    }
    UploadPeer peer(5000, 10240, false);
    ASSERT_TRUE(peer.Listen());
    const RunResult r =
        Velafetch({"--upload-resumable", QString("127.0.0.1:%1").arg(peer.Port()), "upkey", path});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 1) << r;
    EXPECT_TRUE(r.err.contains("no Range line")) << r;
    EXPECT_EQ(peer.Stored().size(), 1000);
}

// ------------------------------------------------------------ proxies and IPv6

class VelafetchProxyTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_certificates = std::make_unique<velatest::TestCertificates>();
        if (!s_certificates->Generate()) {
            s_error = s_certificates->Error();
            return;
        }
        NginxOptions options;
        options.tls = s_certificates.get();
        options.ipv6 = velatest::HasIPv6Loopback();
        s_nginx = std::make_unique<NginxServer>(options);
        s_body = RandomBytes(200003, 23);
        if (!s_nginx->AddFile("files/p.bin", s_body) || !s_nginx->Start()) {
            s_error = s_nginx->Error();
            return;
        }
        velatest::TinyproxyOptions proxyOptions;
        proxyOptions.connectPorts = {s_nginx->TlsPort()};
        s_proxy = std::make_unique<velatest::TinyproxyServer>(proxyOptions);
        if (!s_proxy->Start())
            s_error = s_proxy->Error();
    }
    static void TearDownTestSuite()
    {
        s_proxy.reset();
        s_nginx.reset();
        s_certificates.reset();
    }
    void SetUp() override { ASSERT_TRUE(s_error.isEmpty()) << s_error.toStdString(); }

    static QString DeadProxy() { return QString("http://127.0.0.1:%1").arg(velatest::FreePort()); }
    QStringList Fetch(const QStringList& urls) const
    {
        QStringList args{"--cacert", s_certificates->CaCertificatePath(), "--dns-cache", m_dir.Path()};
        for (int i = 0; i < urls.size(); ++i)
            args << "-o" << m_dir.File(QString("out%1").arg(i));
        return args + urls;
    }
    QByteArray Out(int i) const { return ReadFile(m_dir.File(QString("out%1").arg(i))); }

    static std::unique_ptr<velatest::TestCertificates> s_certificates;
    static std::unique_ptr<NginxServer> s_nginx;
    static std::unique_ptr<velatest::TinyproxyServer> s_proxy;
    static QByteArray s_body;
    static QString s_error;
    TempDir m_dir;
};

std::unique_ptr<velatest::TestCertificates> VelafetchProxyTest::s_certificates;
std::unique_ptr<NginxServer> VelafetchProxyTest::s_nginx;
std::unique_ptr<velatest::TinyproxyServer> VelafetchProxyTest::s_proxy;
QByteArray VelafetchProxyTest::s_body;
QString VelafetchProxyTest::s_error;

TEST_F(VelafetchProxyTest, DashXSendsPlainAndHttpsThroughTheProxy)
{
    const QString plain = s_nginx->Url("/files/p.bin?via=x");
    const QString secure = s_nginx->TlsUrl("/files/p.bin?via=x");
    const RunResult r = Velafetch(QStringList{"-x", s_proxy->Url()} + Fetch({plain, secure}));
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 0) << r;
    EXPECT_EQ(Sha256(Out(0)), Sha256(s_body));
    EXPECT_EQ(Sha256(Out(1)), Sha256(s_body));
    const QByteArray log = s_proxy->Log();
    EXPECT_TRUE(log.contains("GET " + plain.toUtf8() + " HTTP/1.1")) << log.toStdString();
    EXPECT_TRUE(log.contains("CONNECT localhost:" + QByteArray::number(s_nginx->TlsPort()))) << log.toStdString();
}

TEST_F(VelafetchProxyTest, EnvironmentVariablesAsCurlReadsThem)
{
    const QString plain = s_nginx->Url("/files/p.bin?via=env");
    const QString secure = s_nginx->TlsUrl("/files/p.bin?via=env");
    const RunResult r = VelafetchWith({{"http_proxy", s_proxy->Url()}, {"HTTPS_PROXY", s_proxy->Url()}},
                                      Fetch({plain, secure}));
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 0) << r;
    EXPECT_EQ(Sha256(Out(1)), Sha256(s_body));
    const QByteArray log = s_proxy->Log();
    EXPECT_TRUE(log.contains("GET " + plain.toUtf8() + " HTTP/1.1")) << log.toStdString();
}

TEST_F(VelafetchProxyTest, UpperCaseHttpProxyIsIgnored)
{
    // A proxy that is not there: the fetch succeeds only directly.
    const RunResult r = VelafetchWith({{"HTTP_PROXY", DeadProxy()}}, Fetch({s_nginx->Url("/files/p.bin")}));
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 0) << r;
    EXPECT_EQ(Sha256(Out(0)), Sha256(s_body));
}

TEST_F(VelafetchProxyTest, NoProxyFromTheEnvironmentAndTheCommandLine)
{
    const QString dead = DeadProxy();
    RunResult r = VelafetchWith({{"http_proxy", dead}, {"NO_PROXY", "example.test,127.0.0.1"}},
                                Fetch({s_nginx->Url("/files/p.bin")}));
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 0) << r;
    r = Velafetch(QStringList{"-x", dead, "--noproxy", "*"} + Fetch({s_nginx->TlsUrl("/files/p.bin")}));
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 0) << r;
    EXPECT_EQ(Sha256(Out(0)), Sha256(s_body));
    // --noproxy "" overrides the environment's list: the dead proxy is used.
    r = VelafetchWith({{"http_proxy", dead}, {"no_proxy", "127.0.0.1"}},
                      QStringList{"--noproxy", ""} + Fetch({s_nginx->Url("/files/p.bin")}));
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 1) << r;
    EXPECT_TRUE(r.err.contains("[net error 34]")) << r;
}

TEST_F(VelafetchProxyTest, EmptyDashXOverridesTheEnvironment)
{
    const RunResult r = VelafetchWith({{"http_proxy", DeadProxy()}}, QStringList{"-x", ""} + Fetch({s_nginx->Url("/files/p.bin")}));
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 0) << r;
}

TEST_F(VelafetchProxyTest, ProxyThatAsksForCredentialsIsAnHttpError)
{
    if (!velatest::TinyproxyServer::SupportsBasicAuth())
        GTEST_SKIP() << "tinyproxy " << velatest::TinyproxyServer::Version().toStdString() << " has no BasicAuth";
    velatest::TinyproxyOptions options;
    options.user = "ann";
    options.password = "pw";
    velatest::TinyproxyServer proxy(options);
    ASSERT_TRUE(proxy.Start()) << proxy.Error().toStdString();
    const QString url = s_nginx->TlsUrl("/files/p.bin");
    RunResult r = Velafetch(QStringList{"-x", proxy.Url(false)} + Fetch({url}));
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 1) << r;
    EXPECT_TRUE(r.err.contains("[HTTP error 407]")) << r;
    r = Velafetch(QStringList{"-x", proxy.Url(true)} + Fetch({url}));
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 0) << r;
    EXPECT_EQ(Sha256(Out(0)), Sha256(s_body));
}

TEST_F(VelafetchProxyTest, BadProxyUrlsExitWithStatus2)
{
    RunResult r = Velafetch({"-x", "socks5://127.0.0.1:1080", s_nginx->Url("/files/p.bin")});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 2) << r;
    EXPECT_TRUE(r.err.contains("velafetch: socks5://127.0.0.1:1080: not an http:// proxy URL")) << r;
    r = VelafetchWith({{"https_proxy", "http://p:99999"}}, {s_nginx->Url("/files/p.bin")});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 2) << r;
    EXPECT_TRUE(r.err.contains("velafetch: https_proxy is not a proxy URL: http://p:99999")) << r;
}

TEST_F(VelafetchProxyTest, BracketedIPv6UrlFromNginx)
{
    VELATEST_NEED_IPV6_OR_SKIP();
    const RunResult r = Velafetch({s_nginx->Ipv6Url("/files/p.bin")});
    ASSERT_TRUE(r.finished) << r;
    EXPECT_EQ(r.exitCode, 0) << r;
    EXPECT_EQ(Sha256(r.out), Sha256(s_body));
}

}  // namespace
