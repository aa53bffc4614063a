// TLS session resumption of the socket engine against nginx on 127.0.0.1,
// for TLS 1.2 and TLS 1.3. nginx answers every request with the header
// "X-Session-Reused: r" when the connection resumed a session and "." when
// it made a full handshake ($ssl_session_reused), so the test sees from the
// server's side what each connection did. The CA of the test's certificates
// is trusted through Qt's default configuration, so that a test can take
// that trust away again.

#include "src/CQHttpSocketEngine.h"
#include "src/DNSCache.h"
#include "src/internal/TlsSessionCache_p.h"

#include "support/ServerFixtures.h"
#include "support/TestSupport.h"

#include <QSslConfiguration>

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

using velatest::NginxOptions;
using velatest::NginxServer;
using velatest::SpinUntil;
using velatest::TempDir;
using velatest::TestCertificates;

constexpr int KDeadlineMs = 20000;
constexpr quint32 KLoopback = 0x7F000001u;
constexpr int KEventConnected = 32;
constexpr int KEventSocketError = 34;

// One GET with "Connection: close" on a socket engine of its own; the
// response bytes, and whether it ended or failed.
class Exchange : public MSocketEngineObserver
{
public:
    Exchange(const QByteArray& host, quint16 port) : m_host(host)
    {
        m_engine.reset(CQHttpSocketEngine::NewL(this, 0, 0));
        m_engine->SetSecure(true);
        QByteArray name = host;
        m_engine->SetServerName(reinterpret_cast<unsigned char*>(name.data()), name.size());
        m_engine->SetPort(port);
    }

    // Runs the exchange to its end; false when it neither ended nor failed.
    bool Run()
    {
        if (m_engine->ConnectL() != 1)
            return false;
        return SpinUntil([this] { return m_ended || m_failed; }, KDeadlineMs);
    }

    bool Ended() const { return m_ended; }
    bool Failed() const { return m_failed; }
    const QByteArray& Response() const { return m_response; }
    // The value of X-Session-Reused, or "(none)".
    QByteArray Reused() const
    {
        const QByteArray field = "\r\nX-Session-Reused: ";
        const int at = m_response.indexOf(field);
        if (at < 0)
            return "(none)";
        const int start = at + field.size();
        return m_response.mid(start, m_response.indexOf("\r\n", start) - start);
    }

    void OnSocketEngine_SocketEvent(int event, int) override
    {
        if (event == KEventConnected) {
            m_request = "GET /index.txt HTTP/1.1\r\nHost: " + m_host + "\r\nConnection: close\r\n\r\n";
            EXPECT_EQ(1, m_engine->DoSend(reinterpret_cast<unsigned char*>(m_request.data()), m_request.size(), false));
        } else if (event == KEventSocketError) {
            m_failed = true;
        }
    }
    int OnSocketEngine_ReceiveData(unsigned char* data, int len) override
    {
        m_response.append(reinterpret_cast<const char*>(data), len);
        return 1;
    }
    int OnSocketEngine_SendData(unsigned char*, int) override { return 1; }
    int OnSocketEngine_ReceivDataEnd() override
    {
        m_ended = true;
        return 1;
    }
    unsigned char* OnSocketEngine_GetMoreSendData(int, int& len) override
    {
        len = 0;
        return nullptr;
    }

private:
    QByteArray m_host;
    QByteArray m_request;
    std::unique_ptr<CQHttpSocketEngine> m_engine;
    QByteArray m_response;
    bool m_ended = false;
    bool m_failed = false;
};

class TlsSessionResumptionTest : public ::testing::TestWithParam<const char*>
{
protected:
    void SetUp() override
    {
        if (NginxServer::Executable().isEmpty())
            GTEST_SKIP() << "nginx is not installed";
        ASSERT_TRUE(m_certificates.Generate()) << m_certificates.Error().toStdString();
        NginxOptions options;
        options.tls = &m_certificates;
        options.extraServerDirectives = QByteArray("ssl_protocols ") + GetParam() + ";\n"
                                        "add_header X-Session-Reused $ssl_session_reused always;\n";
        m_nginx = std::make_unique<NginxServer>(options);
        ASSERT_TRUE(m_nginx->AddFile("index.txt", "resumed or not\n"));
        ASSERT_TRUE(m_nginx->Start()) << m_nginx->Error().toStdString();

        CDNSCache::ReleaseRegistered();
        CDNSCache::SetCacheDirectory(m_dnsDir.Path());
        CDNSCache::GetOrCreateRegistered()->Update(CQWString(QStringLiteral("localhost")), KLoopback);

        m_savedDefault = QSslConfiguration::defaultConfiguration();
        Trust(true);
        velanet::TlsSessionCache::Shared().Clear();
    }

    void TearDown() override
    {
        velanet::TlsSessionCache::Shared().Clear();
        if (m_trustChanged)
            QSslConfiguration::setDefaultConfiguration(m_savedDefault);
        CDNSCache::ReleaseRegistered();
    }

    // Trusts the test CA (or not) for every connection made from now on.
    void Trust(bool trusted)
    {
        QSslConfiguration configuration = m_savedDefault;
        if (trusted)
            configuration.addCaCertificate(m_certificates.CaCertificate());
        QSslConfiguration::setDefaultConfiguration(configuration);
        m_trustChanged = true;
    }

    // One request to host at nginx's TLS port; the X-Session-Reused value.
    std::string Fetch(const QByteArray& host)
    {
        Exchange exchange(host, m_nginx->TlsPort());
        if (!exchange.Run())
            return "(no end)";
        if (exchange.Failed())
            return "(failed)";
        if (!exchange.Response().startsWith("HTTP/1.1 200 ") || !exchange.Response().endsWith("resumed or not\n"))
            return "(bad response: " + exchange.Response().left(200).toStdString() + ")";
        return exchange.Reused().toStdString();
    }

    TestCertificates m_certificates;
    std::unique_ptr<NginxServer> m_nginx;
    TempDir m_dnsDir;
    QSslConfiguration m_savedDefault;
    bool m_trustChanged = false;
};

TEST_P(TlsSessionResumptionTest, SecondRequestResumesTheFirstOnesSession)
{
    EXPECT_EQ(".", Fetch("localhost"));
    EXPECT_EQ(1, velanet::TlsSessionCache::Shared().Count());
    EXPECT_EQ("r", Fetch("localhost"));
    EXPECT_EQ("r", Fetch("localhost"));
}

TEST_P(TlsSessionResumptionTest, SessionOfOneHostIsNotOfferedToAnother)
{
    // The same server under two names that its certificate both carries.
    EXPECT_EQ(".", Fetch("localhost"));
    EXPECT_EQ(".", Fetch("127.0.0.1"));
    EXPECT_EQ("r", Fetch("127.0.0.1"));
    EXPECT_EQ("r", Fetch("localhost"));
}

TEST_P(TlsSessionResumptionTest, SessionDoesNotOutliveTheTrustInItsCa)
{
    EXPECT_EQ(".", Fetch("localhost"));
    ASSERT_EQ(1, velanet::TlsSessionCache::Shared().Count());
    // The CA is no longer trusted: a session made under it must not stand in
    // for the verification that now fails.
    Trust(false);
    EXPECT_EQ("(failed)", Fetch("localhost"));
    // Trusted again: a full handshake, then resumption as before.
    Trust(true);
    EXPECT_EQ(".", Fetch("localhost"));
    EXPECT_EQ("r", Fetch("localhost"));
}

INSTANTIATE_TEST_SUITE_P(Protocols, TlsSessionResumptionTest, ::testing::Values("TLSv1.2", "TLSv1.3"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             return std::string(info.param).substr(0, 5) + std::string(info.param).substr(6);
                         });

}  // namespace
