// The integration test fixtures themselves: the scripted peer against plain
// Qt and POSIX clients, and the real servers (nginx plain, gzip and https,
// httpbin) against hand-written HTTP/1.1 exchanges.

#include "support/ScriptedPeer.h"
#include "support/ServerFixtures.h"
#include "support/TestSupport.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QTcpServer>
#include <QTcpSocket>

#include <gtest/gtest.h>
#include <zlib.h>

#include <arpa/inet.h>
#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <ostream>
#include <random>

// Bytes in failure messages with CR and LF made visible.
void PrintTo(const QByteArray& bytes, std::ostream* os)
{
    *os << '"' << velatest::Visible(bytes) << '"';
}

namespace {

using velatest::NginxOptions;
using velatest::NginxServer;
using velatest::PeerScript;
using velatest::ScriptedPeer;
using velatest::SpinUntil;

const int KDeadlineMs = 10000;

// A QTcpSocket client that keeps what each readyRead brought as one read.
struct RecordingClient
{
    RecordingClient()
    {
        QObject::connect(&socket, &QTcpSocket::readyRead, &socket, [this] { reads.append(socket.readAll()); });
        QObject::connect(&socket, &QTcpSocket::connected, &socket, [this] { connected = true; });
    }

    // True once connected, even when a fast peer has already closed again.
    bool Connect(quint16 port)
    {
        socket.connectToHost(QHostAddress(QHostAddress::LocalHost), port);
        return SpinUntil([this] { return connected; }, KDeadlineMs);
    }

    bool WaitClosed()
    {
        return SpinUntil([this] { return socket.state() == QAbstractSocket::UnconnectedState; }, KDeadlineMs);
    }

    QByteArray All() const { return reads.join(); }

    QTcpSocket socket;
    QList<QByteArray> reads;
    bool connected = false;
};

// The response to one request sent on a socket that is connected (and, for
// TLS, encrypted), read until the server closes the connection.
QByteArray Exchange(QTcpSocket& socket, const QByteArray& request)
{
    QByteArray response;
    QObject::connect(&socket, &QTcpSocket::readyRead, &socket, [&] { response += socket.readAll(); });
    socket.write(request);
    SpinUntil([&] { return socket.state() == QAbstractSocket::UnconnectedState; }, KDeadlineMs);
    response += socket.readAll();
    socket.disconnect(&socket, &QTcpSocket::readyRead, nullptr, nullptr);
    return response;
}

QByteArray Fetch(quint16 port, const QByteArray& request)
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress(QHostAddress::LocalHost), port);
    if (!SpinUntil([&] { return socket.state() == QAbstractSocket::ConnectedState; }, KDeadlineMs))
        return QByteArray();
    return Exchange(socket, request);
}

QByteArray Get(const QByteArray& path, const QByteArray& host, const QByteArray& extraFields = QByteArray())
{
    return "GET " + path + " HTTP/1.1\r\nHost: " + host + "\r\n" + extraFields + "Connection: close\r\n\r\n";
}

struct Response
{
    QByteArray head;  // status line and fields, without the empty line
    QByteArray body;
};

Response Split(const QByteArray& response)
{
    const int end = response.indexOf("\r\n\r\n");
    if (end < 0)
        return Response{response, QByteArray()};
    return Response{response.left(end), response.mid(end + 4)};
}

// Value of a head field (case-insensitive name), trimmed; null when absent.
QByteArray Field(const QByteArray& head, const QByteArray& name)
{
    for (const QByteArray& line : head.split('\n')) {
        const int colon = line.indexOf(':');
        if (colon > 0 && line.left(colon).trimmed().toLower() == name.toLower())
            return line.mid(colon + 1).trimmed();
    }
    return QByteArray();
}

// Chunked transfer coding (RFC 9112, section 7.1):
//   chunked-body = *chunk last-chunk trailer-section CRLF
//   chunk        = chunk-size [ chunk-ext ] CRLF chunk-data CRLF
//   last-chunk   = 1*("0") [ chunk-ext ] CRLF
bool Dechunk(const QByteArray& body, QByteArray& out, int& chunkCount)
{
    out.clear();
    chunkCount = 0;
    int at = 0;
    for (;;) {
        const int lineEnd = body.indexOf("\r\n", at);
        if (lineEnd < 0)
            return false;
        QByteArray sizeText = body.mid(at, lineEnd - at);
        const int extension = sizeText.indexOf(';');
        if (extension >= 0)
            sizeText.truncate(extension);
        bool ok = false;
        const int size = sizeText.trimmed().toInt(&ok, 16);
        if (!ok || size < 0)
            return false;
        at = lineEnd + 2;
        if (size == 0)
            return body.indexOf("\r\n", at) >= 0;
        if (at + size + 2 > body.size() || body.mid(at + size, 2) != "\r\n")
            return false;
        out += body.mid(at, size);
        ++chunkCount;
        at += size + 2;
    }
}

// RFC 1952 gzip member to its data, with zlib; false on any error.
bool Gunzip(const QByteArray& gz, QByteArray& out)
{
    out.clear();
    z_stream stream{};
    if (inflateInit2(&stream, 16 + MAX_WBITS) != Z_OK)
        return false;
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(gz.constData()));
    stream.avail_in = static_cast<uInt>(gz.size());
    int result = Z_OK;
    char buffer[16384];
    while (result == Z_OK) {
        stream.next_out = reinterpret_cast<Bytef*>(buffer);
        stream.avail_out = sizeof(buffer);
        result = inflate(&stream, Z_NO_FLUSH);
        out.append(buffer, static_cast<int>(sizeof(buffer) - stream.avail_out));
        if (result == Z_BUF_ERROR && stream.avail_in == 0)
            break;
    }
    inflateEnd(&stream);
    return result == Z_STREAM_END;
}

QByteArray RandomBytes(int size, unsigned seed)
{
    std::mt19937 random(seed);
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(random() & 0xff);
    return bytes;
}

QByteArray Words(int size, unsigned seed)
{
    static const char* const words[] = {"velanet", "loopback", "chunk", "gzip", "engine", "socket", "peer", "\n"};
    std::mt19937 random(seed);
    QByteArray text;
    while (text.size() < size) {
        text += words[random() % 8];
        text += ' ';
    }
    text.truncate(size);
    return text;
}

QByteArray Md5(const QByteArray& bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex();
}

// A non-blocking POSIX client, to see how the peer ended the connection
// (Qt reports a reset and an orderly close alike).
class RawClient
{
public:
    RawClient() : m_fd(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0)) {}
    ~RawClient()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }

    bool Connect(quint16 port)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int result = ::connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        return result == 0 || errno == EINPROGRESS;
    }

    bool Send(const QByteArray& bytes)
    {
        return ::send(m_fd, bytes.constData(), static_cast<size_t>(bytes.size()), MSG_NOSIGNAL) == bytes.size();
    }

    int TcpState() const
    {
        tcp_info info{};
        socklen_t len = sizeof(info);
        if (::getsockopt(m_fd, IPPROTO_TCP, TCP_INFO, &info, &len) != 0)
            return -1;
        return info.tcpi_state;
    }

    // Everything readable now; lastResult is the final recv result (0 end of
    // stream, -1 with lastErrno) once the stream has ended.
    QByteArray Drain(int& lastResult, int& lastErrno)
    {
        QByteArray all;
        char buffer[4096];
        for (;;) {
            const ssize_t n = ::recv(m_fd, buffer, sizeof(buffer), 0);
            if (n > 0) {
                all.append(buffer, static_cast<int>(n));
                continue;
            }
            lastResult = static_cast<int>(n);
            lastErrno = n < 0 ? errno : 0;
            return all;
        }
    }

private:
    int m_fd;
};

// TCP states as the kernel reports them in tcp_info (include/net/tcp_states.h).
const int KTcpClose = 7;
const int KTcpCloseWait = 8;

const QByteArray KRequest("GET /a HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");

}  // namespace

// --- ScriptedPeer ----------------------------------------------------------

TEST(ScriptedPeer, PiecesArriveAsSeparateReads)
{
    const QList<QByteArray> pieces = {"HTTP/1.1 200 OK\r\nCont", "ent-Length: 5\r\n", "\r\nhel", "lo"};
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().SendPieces(pieces).Close());
    ASSERT_TRUE(peer.Listen());
    RecordingClient client;
    ASSERT_TRUE(client.Connect(peer.Port()));
    client.socket.write(KRequest);
    ASSERT_TRUE(client.WaitClosed());
    EXPECT_EQ(client.reads, pieces);
    EXPECT_EQ(peer.Captured(0), QList<QByteArray>{KRequest});
    EXPECT_TRUE(peer.ScriptDone(0));
}

TEST(ScriptedPeer, SlowPeerSendsEachByteAsARead)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript().SendSlowly("abcdefg", 1).Close());
    peer.AddScript(PeerScript().SendSlowly("abcdefg", 3).Close());
    ASSERT_TRUE(peer.Listen());
    RecordingClient one;
    ASSERT_TRUE(one.Connect(peer.Port()));
    ASSERT_TRUE(one.WaitClosed());
    EXPECT_EQ(one.reads, (QList<QByteArray>{"a", "b", "c", "d", "e", "f", "g"}));
    RecordingClient three;
    ASSERT_TRUE(three.Connect(peer.Port()));
    ASSERT_TRUE(three.WaitClosed());
    EXPECT_EQ(three.reads, (QList<QByteArray>{"abc", "def", "g"}));
}

TEST(ScriptedPeer, SplitCutsAtTheGivenOffsets)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript().SendSplit("0123456789abc", {3, 10}).Close());
    ASSERT_TRUE(peer.Listen());
    RecordingClient client;
    ASSERT_TRUE(client.Connect(peer.Port()));
    ASSERT_TRUE(client.WaitClosed());
    EXPECT_EQ(client.reads, (QList<QByteArray>{"012", "3456789", "abc"}));
}

TEST(ScriptedPeer, ReadingStepsRecordExactlyWhatEachTook)
{
    const QByteArray post("POST /form HTTP/1.1\r\nHost: h\r\ncontent-length: 4\r\n\r\nbody");
    const QByteArray rest("zz;tail");
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().ExpectRequest().Expect(2).ExpectUntil(";").Send("done").Close());
    ASSERT_TRUE(peer.Listen());
    RecordingClient client;
    ASSERT_TRUE(client.Connect(peer.Port()));
    client.socket.write(KRequest + post + rest);
    ASSERT_TRUE(client.WaitClosed());
    EXPECT_EQ(client.All(), QByteArray("done"));
    EXPECT_EQ(peer.Captured(0), (QList<QByteArray>{KRequest, post, "zz", ";"}));
    // "tail" was taken by no step and is recorded all the same.
    EXPECT_EQ(peer.Received(0), KRequest + post + rest);
}

TEST(ScriptedPeer, AnIncompleteHeadHoldsTheScript)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send("answer").Close());
    ASSERT_TRUE(peer.Listen());
    RecordingClient client;
    ASSERT_TRUE(client.Connect(peer.Port()));
    const QByteArray first = KRequest.left(KRequest.size() - 1);
    client.socket.write(first);
    ASSERT_TRUE(SpinUntil([&] { return peer.Received(0) == first; }));
    velatest::ProcessPendingEvents();
    EXPECT_TRUE(client.reads.isEmpty());
    EXPECT_FALSE(peer.ScriptDone(0));
    client.socket.write(KRequest.right(1));
    ASSERT_TRUE(client.WaitClosed());
    EXPECT_EQ(client.All(), QByteArray("answer"));
}

TEST(ScriptedPeer, CloseEndsWithFinAfterTheData)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send("HTTP/1.1 200 OK\r\n\r\npartial").Close());
    ASSERT_TRUE(peer.Listen());
    RawClient client;
    ASSERT_TRUE(client.Connect(peer.Port()));
    ASSERT_TRUE(peer.WaitForConnections(1));
    ASSERT_TRUE(client.Send(KRequest));
    ASSERT_TRUE(SpinUntil([&] { return client.TcpState() == KTcpCloseWait || client.TcpState() == KTcpClose; }));
    EXPECT_EQ(client.TcpState(), KTcpCloseWait);
    int result = 1;
    int error = 0;
    EXPECT_EQ(client.Drain(result, error), QByteArray("HTTP/1.1 200 OK\r\n\r\npartial"));
    EXPECT_EQ(result, 0);
}

TEST(ScriptedPeer, AbortResetsAfterTheDataWasDelivered)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npartial").Abort());
    ASSERT_TRUE(peer.Listen());
    RawClient client;
    ASSERT_TRUE(client.Connect(peer.Port()));
    ASSERT_TRUE(peer.WaitForConnections(1));
    ASSERT_TRUE(client.Send(KRequest));
    ASSERT_TRUE(SpinUntil([&] { return client.TcpState() == KTcpCloseWait || client.TcpState() == KTcpClose; }));
    EXPECT_EQ(client.TcpState(), KTcpClose);
    int result = 0;
    int error = 0;
    EXPECT_EQ(client.Drain(result, error), QByteArray("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npartial"));
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, ECONNRESET);
}

TEST(ScriptedPeer, SilentConnectionKeepsRecording)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().StaySilent().Send("never"));
    peer.AddScript(PeerScript().Send("x").Close());
    ASSERT_TRUE(peer.Listen());
    RecordingClient silent;
    ASSERT_TRUE(silent.Connect(peer.Port()));
    silent.socket.write(KRequest);
    ASSERT_TRUE(peer.WaitForScriptDone(0));
    // A second connection served to its end shows the first had its turns.
    RecordingClient other;
    ASSERT_TRUE(other.Connect(peer.Port()));
    ASSERT_TRUE(other.WaitClosed());
    EXPECT_EQ(other.All(), QByteArray("x"));
    silent.socket.write("more");
    ASSERT_TRUE(SpinUntil([&] { return peer.Received(0) == KRequest + "more"; }));
    EXPECT_TRUE(silent.reads.isEmpty());
    EXPECT_EQ(silent.socket.state(), QAbstractSocket::ConnectedState);
    EXPECT_FALSE(peer.ClientClosed(0));
}

TEST(ScriptedPeer, LastScriptServesLaterConnections)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript().Send("one").Close());
    peer.AddScript(PeerScript().Send("two").Close());
    ASSERT_TRUE(peer.Listen());
    QList<QByteArray> answers;
    for (int i = 0; i < 3; ++i) {
        RecordingClient client;
        ASSERT_TRUE(client.Connect(peer.Port()));
        ASSERT_TRUE(client.WaitClosed());
        answers.append(client.All());
    }
    EXPECT_EQ(answers, (QList<QByteArray>{"one", "two", "two"}));
    EXPECT_EQ(peer.ConnectionCount(), 3);
}

TEST(ScriptedPeer, WithoutScriptsAcceptsAndStaysSilent)
{
    ScriptedPeer peer;
    ASSERT_TRUE(peer.Listen());
    RecordingClient client;
    ASSERT_TRUE(client.Connect(peer.Port()));
    client.socket.write("hello");
    ASSERT_TRUE(SpinUntil([&] { return peer.Received(0) == "hello"; }));
    EXPECT_TRUE(peer.ScriptDone(0));
    EXPECT_TRUE(client.reads.isEmpty());
}

TEST(ScriptedPeer, ComputedReplySeesWhatTheClientSent)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript()
                       .ExpectUntil("\n")
                       .SendComputed([](const QByteArray& received) { return "echo:" + received; })
                       .Close());
    ASSERT_TRUE(peer.Listen());
    RecordingClient client;
    ASSERT_TRUE(client.Connect(peer.Port()));
    client.socket.write("ping\n");
    ASSERT_TRUE(client.WaitClosed());
    EXPECT_EQ(client.All(), QByteArray("echo:ping\n"));
}

TEST(ScriptedPeer, WaitUntilHoldsTheScriptUntilTheConditionHolds)
{
    bool go = false;
    ScriptedPeer peer;
    peer.AddScript(PeerScript().Send("a").WaitUntil([&go] { return go; }).Send("b").Close());
    ASSERT_TRUE(peer.Listen());
    RecordingClient client;
    ASSERT_TRUE(client.Connect(peer.Port()));
    ASSERT_TRUE(SpinUntil([&] { return client.All() == "a"; }));
    for (int i = 0; i < 20; ++i)
        velatest::ProcessPendingEvents();
    EXPECT_EQ(client.All(), QByteArray("a"));
    EXPECT_FALSE(peer.ScriptDone(0));
    go = true;
    ASSERT_TRUE(client.WaitClosed());
    EXPECT_EQ(client.All(), QByteArray("ab"));
}

TEST(ScriptedPeer, DelayHoldsTheScriptForItsTime)
{
    const int delayMs = 60;
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().Delay(delayMs).Send("late").Close());
    ASSERT_TRUE(peer.Listen());
    RecordingClient client;
    ASSERT_TRUE(client.Connect(peer.Port()));
    QElapsedTimer clock;
    clock.start();
    client.socket.write(KRequest);
    ASSERT_TRUE(client.WaitClosed());
    EXPECT_GE(clock.elapsed(), delayMs);
    EXPECT_EQ(client.All(), QByteArray("late"));
}

TEST(ScriptedPeer, ExpectCloseWaitsForTheClient)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript().ExpectHead().ExpectClose());
    ASSERT_TRUE(peer.Listen());
    RecordingClient client;
    ASSERT_TRUE(client.Connect(peer.Port()));
    client.socket.write(KRequest);
    ASSERT_TRUE(SpinUntil([&] { return peer.Captured(0).size() == 1; }));
    EXPECT_FALSE(peer.ScriptDone(0));
    client.socket.disconnectFromHost();
    ASSERT_TRUE(peer.WaitForScriptDone(0));
    EXPECT_TRUE(peer.ClientClosed(0));
}

TEST(ScriptedPeer, LargeSendArrivesWhole)
{
    const QByteArray body = RandomBytes(4 << 20, 7);
    ScriptedPeer peer;
    peer.AddScript(PeerScript().Send(body).Close());
    ASSERT_TRUE(peer.Listen());
    RecordingClient client;
    ASSERT_TRUE(client.Connect(peer.Port()));
    ASSERT_TRUE(client.WaitClosed());
    EXPECT_EQ(Md5(client.All()), Md5(body));
}

// --- Servers ---------------------------------------------------------------

TEST(FreePort, CanBeListenedOn)
{
    const quint16 port = velatest::FreePort();
    ASSERT_NE(port, 0);
    QTcpServer server;
    EXPECT_TRUE(server.listen(QHostAddress(QHostAddress::LocalHost), port));
}

TEST(TestCertificates, ServerCertificateForLocalhostIssuedByTheCa)
{
    velatest::TestCertificates certificates;
    ASSERT_TRUE(certificates.Generate()) << certificates.Error().toStdString();
    const QSslCertificate ca = certificates.CaCertificate();
    const QSslCertificate server = certificates.ServerCertificate();
    ASSERT_FALSE(ca.isNull());
    ASSERT_FALSE(server.isNull());
    EXPECT_TRUE(ca.isSelfSigned());
    EXPECT_EQ(server.subjectInfo(QSslCertificate::CommonName), QStringList{"localhost"});
    EXPECT_EQ(server.issuerInfo(QSslCertificate::CommonName), ca.subjectInfo(QSslCertificate::CommonName));
    const auto names = server.subjectAlternativeNames();
    EXPECT_EQ(names.values(QSsl::DnsEntry), QStringList{"localhost"});
    EXPECT_EQ(names.values(QSsl::IpAddressEntry), QStringList{"127.0.0.1"});
}

TEST(NginxServer, ServesAFourMiBFileWhoseMd5Matches)
{
    const QByteArray data = RandomBytes(4 << 20, 20261120);
    NginxServer nginx;
    ASSERT_TRUE(nginx.AddFile("data/big.bin", data));
    ASSERT_TRUE(nginx.Start()) << nginx.Error().toStdString();
    const Response response = Split(Fetch(nginx.Port(), Get("/data/big.bin", "127.0.0.1")));
    EXPECT_TRUE(response.head.startsWith("HTTP/1.1 200 OK\r\n")) << velatest::Visible(response.head);
    EXPECT_EQ(Field(response.head, "Content-Length"), QByteArray::number(4 << 20));
    EXPECT_EQ(response.body.size(), 4 << 20);
    EXPECT_EQ(Md5(response.body), Md5(data));
}

TEST(NginxServer, MissingFileIs404)
{
    NginxServer nginx;
    ASSERT_TRUE(nginx.Start()) << nginx.Error().toStdString();
    const Response response = Split(Fetch(nginx.Port(), Get("/nothing.txt", "127.0.0.1")));
    EXPECT_TRUE(response.head.startsWith("HTTP/1.1 404 ")) << velatest::Visible(response.head);
}

TEST(NginxServer, GzipAnswersChunkedGzipToAcceptEncoding)
{
    const QByteArray text = Words(200000, 3);
    NginxOptions options;
    options.gzip = true;
    NginxServer nginx(options);
    ASSERT_TRUE(nginx.AddFile("words.txt", text));
    ASSERT_TRUE(nginx.Start()) << nginx.Error().toStdString();

    const Response gz = Split(Fetch(nginx.Port(), Get("/words.txt", "127.0.0.1", "Accept-Encoding: gzip\r\n")));
    EXPECT_TRUE(gz.head.startsWith("HTTP/1.1 200 OK\r\n")) << velatest::Visible(gz.head);
    EXPECT_EQ(Field(gz.head, "Transfer-Encoding"), QByteArray("chunked"));
    EXPECT_EQ(Field(gz.head, "Content-Encoding"), QByteArray("gzip"));
    EXPECT_TRUE(Field(gz.head, "Content-Length").isNull());
    QByteArray compressed;
    int chunks = 0;
    ASSERT_TRUE(Dechunk(gz.body, compressed, chunks));
    EXPECT_GT(chunks, 1);
    QByteArray decoded;
    ASSERT_TRUE(Gunzip(compressed, decoded));
    EXPECT_EQ(Md5(decoded), Md5(text));

    // Without Accept-Encoding the same file comes as it is, by length.
    const Response plain = Split(Fetch(nginx.Port(), Get("/words.txt", "127.0.0.1")));
    EXPECT_TRUE(Field(plain.head, "Content-Encoding").isNull());
    EXPECT_EQ(Field(plain.head, "Content-Length"), QByteArray::number(text.size()));
    EXPECT_EQ(Md5(plain.body), Md5(text));
}

TEST(NginxServer, StopFreesThePort)
{
    NginxServer nginx;
    ASSERT_TRUE(nginx.Start()) << nginx.Error().toStdString();
    const quint16 port = nginx.Port();
    EXPECT_TRUE(nginx.IsRunning());
    nginx.Stop();
    EXPECT_FALSE(nginx.IsRunning());
    QTcpSocket probe;
    probe.connectToHost(QHostAddress(QHostAddress::LocalHost), port);
    ASSERT_TRUE(SpinUntil([&] { return probe.state() == QAbstractSocket::UnconnectedState; }));
    EXPECT_EQ(probe.error(), QAbstractSocket::ConnectionRefusedError);
}

namespace {

// Connects with TLS trusting only the given CA; the peer name is verified.
struct TlsClient
{
    TlsClient(const QSslCertificate& ca, const QString& host, quint16 port)
    {
        QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
        configuration.setCaCertificates({ca});
        configuration.setPeerVerifyMode(QSslSocket::VerifyPeer);
        socket.setSslConfiguration(configuration);
        QObject::connect(&socket, QOverload<const QList<QSslError>&>::of(&QSslSocket::sslErrors), &socket,
                         [this](const QList<QSslError>& list) { errors += list; });
        socket.connectToHostEncrypted(host, port);
        SpinUntil([this] { return socket.isEncrypted() || socket.state() == QAbstractSocket::UnconnectedState; },
                  KDeadlineMs);
    }

    QSslSocket socket;
    QList<QSslError> errors;
};

}  // namespace

TEST(NginxServer, TlsVerifiesAgainstTheGeneratedCa)
{
    ASSERT_TRUE(QSslSocket::supportsSsl());
    velatest::TestCertificates certificates;
    ASSERT_TRUE(certificates.Generate()) << certificates.Error().toStdString();
    NginxOptions options;
    options.tls = &certificates;
    NginxServer nginx(options);
    ASSERT_TRUE(nginx.AddFile("hello.txt", "hello over tls\n"));
    ASSERT_TRUE(nginx.Start()) << nginx.Error().toStdString();
    EXPECT_EQ(nginx.TlsUrl("/hello.txt"), QString("https://localhost:%1/hello.txt").arg(nginx.TlsPort()));

    for (const QString& host : {QString("localhost"), QString("127.0.0.1")}) {
        SCOPED_TRACE(host.toStdString());
        TlsClient client(certificates.CaCertificate(), host, nginx.TlsPort());
        ASSERT_TRUE(client.socket.isEncrypted());
        EXPECT_TRUE(client.errors.isEmpty());
        EXPECT_EQ(client.socket.peerCertificate(), certificates.ServerCertificate());
        const Response response = Split(Exchange(client.socket, Get("/hello.txt", "localhost")));
        EXPECT_TRUE(response.head.startsWith("HTTP/1.1 200 OK\r\n")) << velatest::Visible(response.head);
        EXPECT_EQ(response.body, QByteArray("hello over tls\n"));
    }
}

TEST(NginxServer, TlsFailsAgainstAnotherCa)
{
    velatest::TestCertificates served;
    velatest::TestCertificates other;
    ASSERT_TRUE(served.Generate()) << served.Error().toStdString();
    ASSERT_TRUE(other.Generate()) << other.Error().toStdString();
    NginxOptions options;
    options.tls = &served;
    NginxServer nginx(options);
    ASSERT_TRUE(nginx.Start()) << nginx.Error().toStdString();
    TlsClient client(other.CaCertificate(), "localhost", nginx.TlsPort());
    EXPECT_FALSE(client.socket.isEncrypted());
    ASSERT_FALSE(client.errors.isEmpty());
    bool untrusted = false;
    for (const QSslError& error : client.errors)
        untrusted = untrusted || error.error() == QSslError::UnableToGetLocalIssuerCertificate ||
                    error.error() == QSslError::CertificateUntrusted ||
                    error.error() == QSslError::UnableToVerifyFirstCertificate;
    EXPECT_TRUE(untrusted);
}

TEST(HttpbinServer, AnswersGet)
{
    velatest::HttpbinServer httpbin;
    VELATEST_START_HTTPBIN_OR_SKIP(httpbin);
    const QByteArray host = "127.0.0.1:" + QByteArray::number(httpbin.Port());
    const Response response = Split(Fetch(httpbin.Port(), Get("/get?probe=1", host, "X-Velatest: fixtures\r\n")));
    ASSERT_TRUE(response.head.startsWith("HTTP/1.1 200 OK\r\n")) << velatest::Visible(response.head);
    EXPECT_EQ(Field(response.head, "Content-Type"), QByteArray("application/json"));
    const QJsonObject json = QJsonDocument::fromJson(response.body).object();
    EXPECT_EQ(json.value("url").toString(), httpbin.Url("/get?probe=1"));
    EXPECT_EQ(json.value("args").toObject().value("probe").toString(), QString("1"));
    EXPECT_EQ(json.value("headers").toObject().value("X-Velatest").toString(), QString("fixtures"));
}
