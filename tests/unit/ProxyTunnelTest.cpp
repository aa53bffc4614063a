// The tunnel's bytes: the CONNECT request, the proxy's reply head read at
// every split, and the credentials line of a request through a proxy.

#include "src/internal/ProxyTunnel_p.h"

#include "support/HeapWatch.h"
#include "support/TestSupport.h"

#include <QList>
#include <QRandomGenerator>

#include <gtest/gtest.h>

#include <sys/mman.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <string>

using velanet::ConnectRequest;
using velanet::InsertProxyAuthorization;
using velanet::KConnectReplyIncomplete;
using velanet::KConnectReplyMalformed;
using velanet::ReadConnectReply;

namespace {

std::string RowName(const char* name)
{
    std::string text = name;
    for (char& c : text) {
        if (c == '-')
            c = '_';
    }
    return text;
}

// ------------------------------------------------------------ CONNECT request

TEST(ConnectRequestBytes, WithoutCredentials)
{
    EXPECT_EQ(QByteArray("CONNECT localhost:8443 HTTP/1.1\r\n"
                         "Host: localhost:8443\r\n"
                         "\r\n"),
              ConnectRequest("localhost", 9, 8443, QByteArray()));
}

TEST(ConnectRequestBytes, WithCredentials)
{
    EXPECT_EQ(QByteArray("CONNECT srv.test:443 HTTP/1.1\r\n"
                         "Host: srv.test:443\r\n"
                         "Proxy-Authorization: Basic dTpw\r\n"
                         "\r\n"),
              ConnectRequest("srv.test", 8, 443, "Basic dTpw"));
}

TEST(ConnectRequestBytes, IPv6HostInBrackets)
{
    EXPECT_EQ(QByteArray("CONNECT [::1]:443 HTTP/1.1\r\n"
                         "Host: [::1]:443\r\n"
                         "\r\n"),
              ConnectRequest("::1", 3, 443, QByteArray()));
}

TEST(ConnectRequestBytes, LengthBoundsTheHost)
{
    EXPECT_EQ(QByteArray("CONNECT srv:1 HTTP/1.1\r\n"
                         "Host: srv:1\r\n"
                         "\r\n"),
              ConnectRequest("srv.test", 3, 1, QByteArray()));
}

TEST(ConnectRequestBytes, NoHostOrANegativeLengthGivesAnEmptyHost)
{
    const QByteArray expected("CONNECT :443 HTTP/1.1\r\n"
                              "Host: :443\r\n"
                              "\r\n");
    EXPECT_EQ(expected, ConnectRequest(nullptr, 8, 443, QByteArray()));
    EXPECT_EQ(expected, ConnectRequest("srv.test", -1, 443, QByteArray()));
}

// ------------------------------------------------------------ reply head

struct ReplyRow
{
    const char* name;
    const char* bytes;
    int result;   // head length, or KConnectReplyIncomplete / KConnectReplyMalformed
    int status;   // when result is a head length
};

void PrintTo(const ReplyRow& row, std::ostream* os)
{
    *os << row.name << " (" << velatest::Visible(QByteArray(row.bytes)) << ")";
}

class ConnectReply : public ::testing::TestWithParam<ReplyRow>
{
protected:
    // The reader is given what has come so far, as the engine gives it: the
    // result for the first n bytes.
    static int Read(const QByteArray& all, int n, int& status)
    {
        // An exactly sized copy, so an over-read shows under AddressSanitizer.
        std::unique_ptr<unsigned char[]> copy(new unsigned char[static_cast<size_t>(std::max(n, 1))]);
        std::memcpy(copy.get(), all.constData(), static_cast<size_t>(n));
        return ReadConnectReply(copy.get(), n, status);
    }

    // Feeding the bytes arriving in pieces ending at cuts (ascending, the
    // last one the whole length) gives the row's result once, and nothing
    // but "incomplete" before it (or the same refusal earlier).
    static void CheckArrival(const ReplyRow& row, const QList<int>& cuts)
    {
        const QByteArray all(row.bytes);
        int result = KConnectReplyIncomplete;
        int status = -7;
        for (const int cut : cuts) {
            result = Read(all, cut, status);
            if (result != KConnectReplyIncomplete)
                break;
        }
        EXPECT_EQ(row.result, result) << "cuts ending at " << cuts.back();
        if (row.result > 0) {
            EXPECT_EQ(row.status, status);
        }
    }
};

TEST_P(ConnectReply, Whole)
{
    const ReplyRow& row = GetParam();
    int status = -7;
    const int result = ReadConnectReply(reinterpret_cast<const unsigned char*>(row.bytes),
                                        static_cast<int>(std::strlen(row.bytes)), status);
    EXPECT_EQ(row.result, result);
    EXPECT_EQ(row.result > 0 ? row.status : -7, status);
}

TEST_P(ConnectReply, BytePerCall)
{
    const ReplyRow& row = GetParam();
    const int len = static_cast<int>(std::strlen(row.bytes));
    QList<int> cuts;
    for (int i = 1; i <= len; ++i)
        cuts << i;
    CheckArrival(row, cuts);
}

TEST_P(ConnectReply, EveryTwoWaySplit)
{
    const ReplyRow& row = GetParam();
    const int len = static_cast<int>(std::strlen(row.bytes));
    for (int cut = 1; cut < len; ++cut)
        CheckArrival(row, {cut, len});
}

TEST_P(ConnectReply, RandomSplits)
{
    const ReplyRow& row = GetParam();
    const int len = static_cast<int>(std::strlen(row.bytes));
    const quint32 seed = QRandomGenerator::global()->generate();
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    QRandomGenerator random(seed);
    for (int round = 0; round < 20; ++round) {
        QList<int> cuts;
        for (int i = 1; i < len; ++i) {
            if (random.bounded(4) == 0)
                cuts << i;
        }
        cuts << len;
        CheckArrival(row, cuts);
    }
}

const ReplyRow kReplyRows[] = {
    {"established", "HTTP/1.1 200 Connection established\r\n\r\n", 39, 200},
    {"tinyproxy-style", "HTTP/1.0 200 Connection established\r\nProxy-agent: tinyproxy/1.11.1\r\n\r\n", 70, 200},
    {"bytes-after-head-unused", "HTTP/1.1 200 OK\r\n\r\n\x16\x03\x01", 19, 200},
    {"status-without-reason", "HTTP/1.1 200\r\n\r\n", 16, 200},
    {"lf-only", "HTTP/1.1 204 OK\n\n", 17, 204},
    {"proxy-auth-required",
     "HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic realm=\"p\"\r\n"
     "Content-Length: 5\r\n\r\nnope!",
     102, 407},
    {"forbidden", "HTTP/1.1 403 Forbidden\r\n\r\n", 26, 403},
    {"bad-gateway", "HTTP/1.0 502 Bad Gateway\r\nContent-Type: text/html\r\n\r\n", 53, 502},
    {"interim", "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\n\r\n", 25, 100},
    {"head-not-ended", "HTTP/1.1 200 OK\r\nVia: p\r\n", KConnectReplyIncomplete, 0},
    {"status-line-not-ended", "HTTP/1.1 200 OK", KConnectReplyIncomplete, 0},
    {"partial-version", "HTT", KConnectReplyIncomplete, 0},
    {"not-http", "SSH-2.0-OpenSSH\r\n\r\n", KConnectReplyMalformed, 0},
    {"not-http-early", "XYZ", KConnectReplyMalformed, 0},
    {"lower-case-version", "http/1.1 200 OK\r\n\r\n", KConnectReplyMalformed, 0},
    {"no-version-digits", "HTTP/ 200 OK\r\n\r\n", KConnectReplyMalformed, 0},
    {"two-digit-status", "HTTP/1.1 20 OK\r\n\r\n", KConnectReplyMalformed, 0},
    {"four-digit-status", "HTTP/1.1 2000 OK\r\n\r\n", KConnectReplyMalformed, 0},
    {"status-not-digits", "HTTP/1.1 2x0 OK\r\n\r\n", KConnectReplyMalformed, 0},
    {"blank-first-line", "\r\n\r\n", KConnectReplyMalformed, 0},
    {"version-only", "HTTP/1.1\r\n\r\n", KConnectReplyMalformed, 0},
    {"version-glued-to-status", "HTTP/1.1x200 OK\r\n\r\n", KConnectReplyMalformed, 0},
    {"status-cut-short", "HTTP/1.1 20\r\n\r\n", KConnectReplyMalformed, 0},
    // RFC 9112, section 2.2: a bare CR may be read as SP.
    {"bare-cr-after-status-read-as-sp", "HTTP/1.1 200\r\r\n\r\n", 17, 200},
};

INSTANTIATE_TEST_SUITE_P(Rows, ConnectReply, ::testing::ValuesIn(kReplyRows),
                         [](const ::testing::TestParamInfo<ReplyRow>& info) { return RowName(info.param.name); });

TEST(ConnectReplyHead, NothingYetIsIncomplete)
{
    int status = -7;
    EXPECT_EQ(KConnectReplyIncomplete, ReadConnectReply(nullptr, 5, status));
    const unsigned char byte = 'H';
    EXPECT_EQ(KConnectReplyIncomplete, ReadConnectReply(&byte, 0, status));
    EXPECT_EQ(-7, status);
}

// ------------------------------------------------------------ credentials line

TEST(ProxyAuthorizationLine, GoesRightAfterTheRequestLine)
{
    const QByteArray request("GET http://a.test/x HTTP/1.1\r\nHost: a.test\r\n\r\nbody");
    int len = 0;
    const std::unique_ptr<unsigned char[]> out(InsertProxyAuthorization(
        reinterpret_cast<const unsigned char*>(request.constData()), request.size(), "Basic dTpw", len));
    ASSERT_TRUE(out);
    EXPECT_EQ(velatest::Visible(QByteArray("GET http://a.test/x HTTP/1.1\r\n"
                                           "Proxy-Authorization: Basic dTpw\r\n"
                                           "Host: a.test\r\n\r\nbody")),
              velatest::Visible(out.get(), len));
}

TEST(ProxyAuthorizationLine, NeedsARequestLine)
{
    const QByteArray request("GET / HTTP/1.1");
    int len = -3;
    EXPECT_EQ(nullptr, InsertProxyAuthorization(reinterpret_cast<const unsigned char*>(request.constData()),
                                                request.size(), "Basic dTpw", len));
    EXPECT_EQ(nullptr, InsertProxyAuthorization(nullptr, 4, "Basic dTpw", len));
    EXPECT_EQ(-3, len);
}

TEST(ProxyAuthorizationLine, AnEmptyRequestIsRefused)
{
    const unsigned char request[] = "GET / HTTP/1.1\r\n";
    int len = -3;
    EXPECT_EQ(nullptr, InsertProxyAuthorization(request, 0, "Basic dTpw", len));
    EXPECT_EQ(-3, len);
}

TEST(ProxyAuthorizationLine, EmptyCredentialsAfterALoneRequestLine)
{
    // Nothing after the request line, nothing in the field value: the
    // field line still goes in whole.
    const QByteArray request("GET / HTTP/1.1\n");
    int len = 0;
    const std::unique_ptr<unsigned char[]> out(InsertProxyAuthorization(
        reinterpret_cast<const unsigned char*>(request.constData()), request.size(), QByteArray(), len));
    ASSERT_TRUE(out);
    EXPECT_EQ(velatest::Visible(QByteArray("GET / HTTP/1.1\nProxy-Authorization: \r\n")),
              velatest::Visible(out.get(), len));
}

TEST(ProxyAuthorizationLine, WithoutMemoryForTheCopyIsRefused)
{
    const QByteArray request("GET http://a.test/ HTTP/1.1\r\n\r\n");
    int len = -3;
    velatest::HeapWatch::FailNothrowAfter(0);
    unsigned char* out = InsertProxyAuthorization(reinterpret_cast<const unsigned char*>(request.constData()),
                                                  request.size(), "Basic dTpw", len);
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(-3, len);
    delete[] out;
}

TEST(ProxyAuthorizationLine, ARequestThatWouldPassIntMaxIsRefused)
{
    // A request of INT_MAX - 10 bytes leaves no room for the field. The
    // pages are reserved, not touched: only the request line is written.
    const size_t size = static_cast<size_t>(INT_MAX) - 10;
    void* block = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(MAP_FAILED, block);
    const char line[] = "GET / HTTP/1.1\r\n";
    std::memcpy(block, line, sizeof line - 1);
    int len = -3;
    EXPECT_EQ(nullptr, InsertProxyAuthorization(static_cast<const unsigned char*>(block), static_cast<int>(size),
                                                "Basic dTpw", len));
    EXPECT_EQ(-3, len);
    ::munmap(block, size);
}

}  // namespace
