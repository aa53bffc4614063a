// The socket engine's secure path against a TLS server on 127.0.0.1. The
// fixture makes two certificate authorities and a server certificate from
// each for "localhost" and 127.0.0.1 with the openssl command line; the
// engine is told to trust only the first.

#include "src/CQHttpSocketEngine.h"

#include "src/DNSCache.h"

#include "support/TestSupport.h"

#include <QFile>
#include <QHostAddress>
#include <QProcess>
#include <QSslCertificate>
#include <QSslError>
#include <QSslKey>
#include <QSslSocket>
#include <QTcpServer>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

class CQHttpSocketEngineTestPeer
{
public:
    static QSslSocket* SecureSocket(CQHttpSocketEngine& engine) { return engine.iSecureSocket; }
};

namespace {

using ::testing::_;
using ::testing::InSequence;
using ::testing::Invoke;
using ::testing::StrictMock;

using Peer = CQHttpSocketEngineTestPeer;

constexpr int KDeadlineMs = 20000;
constexpr quint32 KLoopback = 0x7F000001u;

class MockObserver : public MSocketEngineObserver
{
public:
    MOCK_METHOD(void, OnSocketEngine_SocketEvent, (int event, int param), (override));
    MOCK_METHOD(int, OnSocketEngine_ReceiveData, (unsigned char* data, int len), (override));
    MOCK_METHOD(int, OnSocketEngine_SendData, (unsigned char* data, int len), (override));
    MOCK_METHOD(int, OnSocketEngine_ReceivDataEnd, (), (override));
    MOCK_METHOD(unsigned char*, OnSocketEngine_GetMoreSendData, (int offset, int& len), (override));
};

QByteArray Pattern(int len)
{
    QByteArray bytes(len, '\0');
    for (int i = 0; i < len; ++i)
        bytes[i] = static_cast<char>((i * 13 + i / 1024) & 0xFF);
    return bytes;
}

// Runs openssl with args in dir; an empty text when it succeeded.
std::string RunOpenssl(const QString& dir, const QStringList& args)
{
    QProcess process;
    process.setWorkingDirectory(dir);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("openssl"), args);
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        return "openssl " + args.join(' ').toStdString() + " failed: " + process.readAll().toStdString();
    return std::string();
}

bool WriteText(const QString& path, const QByteArray& text)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(text) == text.size();
}

// ca<n>.crt/.key and server<n>.crt/.key signed by it, in dir.
std::string MakeAuthorityAndServer(const QString& dir, int n)
{
    const QString tag = QString::number(n);
    const QByteArray caConfig = "[req]\ndistinguished_name = dn\nprompt = no\nx509_extensions = v3_ca\n"
                                "[dn]\nCN = velanet test CA " + tag.toLatin1() + "\n"
                                "[v3_ca]\nbasicConstraints = critical,CA:TRUE\n"
                                "keyUsage = critical,keyCertSign,cRLSign\nsubjectKeyIdentifier = hash\n";
    const QByteArray requestConfig = "[req]\ndistinguished_name = dn\nprompt = no\n[dn]\nCN = localhost\n";
    const QByteArray serverExtensions = "subjectAltName = DNS:localhost,IP:127.0.0.1\n"
                                        "basicConstraints = critical,CA:FALSE\n"
                                        "keyUsage = critical,digitalSignature\n"
                                        "extendedKeyUsage = serverAuth\n"
                                        "authorityKeyIdentifier = keyid\nsubjectKeyIdentifier = hash\n";
    if (!WriteText(dir + "/ca" + tag + ".cnf", caConfig) || !WriteText(dir + "/req" + tag + ".cnf", requestConfig) ||
        !WriteText(dir + "/server" + tag + ".ext", serverExtensions))
        return "cannot write the openssl configuration files";

    std::string error = RunOpenssl(
        dir, {"req", "-x509", "-new", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
              "-keyout", "ca" + tag + ".key", "-out", "ca" + tag + ".crt", "-days", "2", "-config", "ca" + tag + ".cnf"});
    if (error.empty())
        error = RunOpenssl(dir, {"req", "-new", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                                 "-keyout", "server" + tag + ".key", "-out", "server" + tag + ".csr", "-config",
                                 "req" + tag + ".cnf"});
    if (error.empty())
        error = RunOpenssl(dir, {"x509", "-req", "-in", "server" + tag + ".csr", "-CA", "ca" + tag + ".crt", "-CAkey",
                                 "ca" + tag + ".key", "-set_serial", QString::number(100 + n), "-out",
                                 "server" + tag + ".crt", "-days", "2", "-extfile", "server" + tag + ".ext"});
    return error;
}

QByteArray ReadFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A TLS server: answers `response` and closes once `requestSize` bytes (or
// a blank line, when requestSize is 0) came in.
class TlsServer : public QTcpServer
{
public:
    TlsServer(const QSslCertificate& certificate, const QSslKey& key, QByteArray response, int requestSize = 0)
        : m_certificate(certificate), m_key(key), m_response(std::move(response)), m_requestSize(requestSize)
    {
        EXPECT_TRUE(listen(QHostAddress(QHostAddress::LocalHost), 0));
    }

    QByteArray received;
    int handshakes = 0;
    int connections = 0;

protected:
    void incomingConnection(qintptr descriptor) override
    {
        ++connections;
        auto* socket = new QSslSocket(this);
        ASSERT_TRUE(socket->setSocketDescriptor(descriptor));
        socket->setLocalCertificate(m_certificate);
        socket->setPrivateKey(m_key);
        socket->setPeerVerifyMode(QSslSocket::VerifyNone);
        QObject::connect(socket, &QSslSocket::encrypted, socket, [this] { ++handshakes; });
        QObject::connect(socket, &QIODevice::readyRead, socket, [this, socket] {
            received += socket->readAll();
            const bool complete = m_requestSize > 0 ? received.size() >= m_requestSize : received.contains("\r\n\r\n");
            if (complete && !m_answered) {
                m_answered = true;
                socket->write(m_response);
                socket->disconnectFromHost();
            }
        });
        socket->startServerEncryption();
    }

private:
    QSslCertificate m_certificate;
    QSslKey m_key;
    QByteArray m_response;
    int m_requestSize;
    bool m_answered = false;
};

class HttpSocketEngineTlsTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_dir = new velatest::TempDir;
        s_error = MakeAuthorityAndServer(s_dir->Path(), 1);
        if (s_error.empty())
            s_error = MakeAuthorityAndServer(s_dir->Path(), 2);
    }

    static void TearDownTestSuite()
    {
        delete s_dir;
        s_dir = nullptr;
    }

    void SetUp() override
    {
        ASSERT_TRUE(QSslSocket::supportsSsl()) << "Qt has no TLS backend";
        ASSERT_EQ("", s_error);
        CDNSCache::ReleaseRegistered();
        CDNSCache::SetCacheDirectory(m_dnsDir.Path());
        engine.reset(CQHttpSocketEngine::NewL(&observer, 1024, 1024));
        ASSERT_NE(nullptr, engine);
    }

    void TearDown() override
    {
        engine.reset();
        CDNSCache::ReleaseRegistered();
    }

    static QSslCertificate Certificate(const QString& name)
    {
        return QSslCertificate(ReadFile(s_dir->File(name)), QSsl::Pem);
    }

    static QSslKey Key(const QString& name)
    {
        return QSslKey(ReadFile(s_dir->File(name)), QSsl::Ec, QSsl::Pem);
    }

    void TrustFirstAuthority()
    {
        const QSslCertificate ca = Certificate(QStringLiteral("ca1.crt"));
        ASSERT_FALSE(ca.isNull());
        CQHttpSocketEngine::AddCaCertificates({ca});
    }

    std::unique_ptr<TlsServer> Server(int n, const QByteArray& response, int requestSize = 0)
    {
        const QSslCertificate certificate = Certificate(QStringLiteral("server%1.crt").arg(n));
        const QSslKey key = Key(QStringLiteral("server%1.key").arg(n));
        EXPECT_FALSE(certificate.isNull());
        EXPECT_FALSE(key.isNull());
        return std::make_unique<TlsServer>(certificate, key, response, requestSize);
    }

    void Start(const QByteArray& name, quint16 port)
    {
        QByteArray copy = name;
        engine->SetSecure(true);
        engine->SetServerName(reinterpret_cast<unsigned char*>(copy.data()), copy.size());
        engine->SetPort(port);
        ASSERT_EQ(1, engine->ConnectL());
    }

    // Records the certificate errors the engine's socket meets.
    void WatchSslErrors()
    {
        QSslSocket* socket = Peer::SecureSocket(*engine);
        ASSERT_NE(nullptr, socket);
        QObject::connect(socket, QOverload<const QList<QSslError>&>::of(&QSslSocket::sslErrors), engine.get(),
                         [this](const QList<QSslError>& errors) {
                             for (const QSslError& error : errors)
                                 sslErrors.push_back(error.error());
                         });
    }

    void RecordPieces()
    {
        EXPECT_CALL(observer, OnSocketEngine_ReceiveData(_, _)).WillRepeatedly(Invoke([this](unsigned char* data, int len) {
            EXPECT_LE(len, 1024);
            joined.append(reinterpret_cast<const char*>(data), len);
            return 1;
        }));
    }

    static velatest::TempDir* s_dir;
    static std::string s_error;

    velatest::TempDir m_dnsDir;
    StrictMock<MockObserver> observer;
    std::unique_ptr<CQHttpSocketEngine> engine;
    std::vector<QSslError::SslError> sslErrors;
    QByteArray joined;
};

velatest::TempDir* HttpSocketEngineTlsTest::s_dir = nullptr;
std::string HttpSocketEngineTlsTest::s_error;

TEST_F(HttpSocketEngineTlsTest, TrustedServerConnectsAndDataFlowsBothWays)
{
    TrustFirstAuthority();
    const QByteArray response = "HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\n" + Pattern(3000);
    std::unique_ptr<TlsServer> server = Server(1, response);
    QByteArray request = "GET /secure HTTP/1.0\r\nHost: localhost\r\n\r\n";
    bool ended = false;
    RecordPieces();
    {
        InSequence order;
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(38, 0));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(37, 0));
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0)).WillOnce(Invoke([&](int, int) {
            EXPECT_EQ(1, engine->DoSend(reinterpret_cast<unsigned char*>(request.data()), request.size(), false));
        }));
        EXPECT_CALL(observer, OnSocketEngine_ReceivDataEnd()).WillOnce(Invoke([&] {
            ended = true;
            return 1;
        }));
    }
    Start("localhost", server->serverPort());
    ASSERT_TRUE(velatest::SpinUntil([&] { return ended; }, KDeadlineMs));
    EXPECT_EQ(request, server->received);
    EXPECT_EQ(response, joined);
    EXPECT_EQ(1, server->handshakes);
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, engine->GetEngineStatus());
}

TEST_F(HttpSocketEngineTlsTest, TrustedServerByLiteralAddressMatchesItsAddressEntry)
{
    TrustFirstAuthority();
    const QByteArray response = "HTTP/1.0 204 No Content\r\n\r\n";
    std::unique_ptr<TlsServer> server = Server(1, response);
    QByteArray request = "GET / HTTP/1.0\r\n\r\n";
    bool ended = false;
    RecordPieces();
    {
        InSequence order;
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0)).WillOnce(Invoke([&](int, int) {
            EXPECT_EQ(1, engine->DoSend(reinterpret_cast<unsigned char*>(request.data()), request.size(), false));
        }));
        EXPECT_CALL(observer, OnSocketEngine_ReceivDataEnd()).WillOnce(Invoke([&] {
            ended = true;
            return 1;
        }));
    }
    Start("127.0.0.1", server->serverPort());
    ASSERT_TRUE(velatest::SpinUntil([&] { return ended; }, KDeadlineMs));
    EXPECT_EQ(request, server->received);
    EXPECT_EQ(response, joined);
}

TEST_F(HttpSocketEngineTlsTest, LargeRequestCrossesTheSendWindowOverTls)
{
    TrustFirstAuthority();
    const int size = 400 * 1024 + 5;
    const QByteArray response = "HTTP/1.0 200 OK\r\n\r\nstored";
    std::unique_ptr<TlsServer> server = Server(1, response, size);
    QByteArray request = Pattern(size);
    bool ended = false;
    RecordPieces();
    CDNSCache::GetOrCreateRegistered()->Update(CQWString(QStringLiteral("localhost")), KLoopback);
    {
        InSequence order;
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0)).WillOnce(Invoke([&](int, int) {
            EXPECT_EQ(1, engine->DoSend(reinterpret_cast<unsigned char*>(request.data()), request.size(), false));
        }));
        EXPECT_CALL(observer, OnSocketEngine_ReceivDataEnd()).WillOnce(Invoke([&] {
            ended = true;
            return 1;
        }));
    }
    Start("localhost", server->serverPort());
    ASSERT_TRUE(velatest::SpinUntil([&] { return ended; }, KDeadlineMs));
    EXPECT_EQ(request, server->received);
    EXPECT_EQ(response, joined);
}

TEST_F(HttpSocketEngineTlsTest, UntrustedServerIsError34AndNoDataFlows)
{
    TrustFirstAuthority();
    std::unique_ptr<TlsServer> server = Server(2, "HTTP/1.0 200 OK\r\n\r\nsecret");
    CDNSCache::GetOrCreateRegistered()->Update(CQWString(QStringLiteral("localhost")), KLoopback);
    bool failed = false;
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(34, 0)).WillOnce(Invoke([&](int, int) { failed = true; }));
    Start("localhost", server->serverPort());
    WatchSslErrors();
    ASSERT_TRUE(velatest::SpinUntil([&] { return failed; }, KDeadlineMs));
    velatest::ProcessPendingEvents();
    EXPECT_EQ(CQHttpSocketEngine::HSES_Idle, engine->GetEngineStatus());
    EXPECT_TRUE(server->received.isEmpty());
    ASSERT_FALSE(sslErrors.empty());
    EXPECT_EQ(sslErrors.end(), std::find(sslErrors.begin(), sslErrors.end(), QSslError::HostNameMismatch));
}

TEST_F(HttpSocketEngineTlsTest, WrongHostNameIsError34)
{
    TrustFirstAuthority();
    std::unique_ptr<TlsServer> server = Server(1, "HTTP/1.0 200 OK\r\n\r\nsecret");
    // The name leads to the right address, but the certificate is not for it.
    CDNSCache::GetOrCreateRegistered()->Update(CQWString(QStringLiteral("wrong-name.test")), KLoopback);
    bool failed = false;
    EXPECT_CALL(observer, OnSocketEngine_SocketEvent(34, 0)).WillOnce(Invoke([&](int, int) { failed = true; }));
    Start("wrong-name.test", server->serverPort());
    WatchSslErrors();
    ASSERT_TRUE(velatest::SpinUntil([&] { return failed; }, KDeadlineMs));
    velatest::ProcessPendingEvents();
    EXPECT_TRUE(server->received.isEmpty());
    EXPECT_EQ(std::vector<QSslError::SslError>({QSslError::HostNameMismatch}), sslErrors);
}

TEST_F(HttpSocketEngineTlsTest, PlainExchangeAfterASecureOneUsesThePlainSocket)
{
    TrustFirstAuthority();
    std::unique_ptr<TlsServer> secure = Server(1, "HTTP/1.0 204 No Content\r\n\r\n");
    QTcpServer plain;
    ASSERT_TRUE(plain.listen(QHostAddress(QHostAddress::LocalHost), 0));
    {
        InSequence order;
        EXPECT_CALL(observer, OnSocketEngine_SocketEvent(32, 0)).Times(2);
    }
    Start("127.0.0.1", secure->serverPort());
    ASSERT_TRUE(velatest::SpinUntil(
        [&] { return engine->GetEngineStatus() == CQHttpSocketEngine::HSES_Connected; }, KDeadlineMs));
    engine->CancelEngine();

    QByteArray name = "127.0.0.1";
    engine->SetServerName(reinterpret_cast<unsigned char*>(name.data()), name.size());
    engine->SetPort(plain.serverPort());
    ASSERT_EQ(1, engine->ConnectL());
    ASSERT_TRUE(velatest::SpinUntil(
        [&] { return engine->GetEngineStatus() == CQHttpSocketEngine::HSES_Connected && plain.hasPendingConnections(); },
        KDeadlineMs));
    EXPECT_EQ(QAbstractSocket::UnconnectedState, Peer::SecureSocket(*engine)->state());
}

// Qt 6 loads TLS from a plugin; only the OpenSSL one does TLS here (the
// certificate-only backend cannot connect).
TEST(HttpSocketEngineTlsBackend, OpensslBackendIsLoaded)
{
    ASSERT_TRUE(QSslSocket::supportsSsl());
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    EXPECT_EQ(QStringLiteral("openssl"), QSslSocket::activeBackend());
#endif
    EXPECT_TRUE(QSslSocket::sslLibraryVersionString().startsWith(QStringLiteral("OpenSSL")))
        << QSslSocket::sslLibraryVersionString().toStdString();
}

}  // namespace
