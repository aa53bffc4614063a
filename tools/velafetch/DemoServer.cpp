#include "DemoServer.h"

#include <QBuffer>
#include <QColor>
#include <QDateTime>
#include <QImage>
#include <QLocale>
#include <QPainter>
#include <QTcpSocket>

#include <zlib.h>

namespace velafetch {

namespace {

// Largest request head the server reads.
const int KMaxHead = 16384;
// The download is written while the socket holds less than this.
const qint64 KStreamWindow = 512 * 1024;
const int KStreamPiece = 256 * 1024;
// The gzipped style sheet goes out in chunks of this size.
const int KChunkSize = 700;
// gzip wrapper for deflateInit2 (RFC 1952 header and trailer).
const int KGzipWindowBits = 15 + 16;
const int KGzipMemLevel = 8;

QByteArray MakeStyleSheet()
{
    QByteArray css = "/* velanet sample site */\n"
                     "body { font-family: sans-serif; margin: 2em; background: #fdfdfd; }\n"
                     "h1 { color: #24508c; }\n"
                     "img { border: 1px solid #ccc; margin: 0.5em; }\n";
    // Enough repetitive rules that the compressed body spans several chunks
    // and the decoded one several 1024-byte pieces.
    for (int i = 0; i < 120; ++i)
        css += QByteArray(".gallery-item-") + QByteArray::number(i) + " { padding: " + QByteArray::number(i % 7) +
               "px; color: #" + QByteArray::number(0x102030 + i * 0x010101, 16) + "; }\n";
    return css;
}

QByteArray MakeImage(int width, int height, QRgb from, QRgb to)
{
    QImage image(width, height, QImage::Format_RGB32);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const int t = (x + y) * 255 / (width + height);
            image.setPixel(x, y,
                           qRgb((qRed(from) * (255 - t) + qRed(to) * t) / 255,
                                (qGreen(from) * (255 - t) + qGreen(to) * t) / 255,
                                (qBlue(from) * (255 - t) + qBlue(to) * t) / 255));
        }
    }
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    if (!image.save(&buffer, "PNG"))
        return QByteArray();
    return png;
}

QByteArray HttpDate(const QDateTime& time)
{
    return QLocale::c().toString(time.toUTC(), "ddd, dd MMM yyyy hh:mm:ss").toLatin1() + " GMT";
}

QByteArray Head(const QByteArray& status, const QByteArray& fields)
{
    return "HTTP/1.1 " + status + "\r\nServer: velafetch-demo\r\nConnection: close\r\n" + fields + "\r\n";
}

QByteArray Response(const QByteArray& status, const QByteArray& type, const QByteArray& body,
                    const QByteArray& extra = QByteArray())
{
    return Head(status, "Content-Type: " + type + "\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n" +
                            extra) +
           body;
}

// The request target of a head ("GET /x HTTP/1.1"), or empty.
QByteArray Target(const QByteArray& head)
{
    const int lineEnd = head.indexOf("\r\n");
    const QList<QByteArray> parts = head.left(lineEnd).split(' ');
    return parts.size() == 3 ? parts.at(1) : QByteArray();
}

bool HasCookie(const QByteArray& head, const QByteArray& pair)
{
    for (const QByteArray& line : head.split('\n')) {
        if (line.toLower().startsWith("cookie:") && line.contains(pair))
            return true;
    }
    return false;
}

}  // namespace

QByteArray GzipCompress(const QByteArray& data)
{
    z_stream stream{};
    if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, KGzipWindowBits, KGzipMemLevel, Z_DEFAULT_STRATEGY) !=
        Z_OK)
        return QByteArray();
    QByteArray out(static_cast<int>(deflateBound(&stream, static_cast<uLong>(data.size()))), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.constData()));
    stream.avail_in = static_cast<uInt>(data.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    const int result = deflate(&stream, Z_FINISH);
    const int written = static_cast<int>(stream.total_out);
    deflateEnd(&stream);
    if (result != Z_STREAM_END)
        return QByteArray();
    out.truncate(written);
    return out;
}

void DemoServer::DownloadBytes(qint64 offset, char* out, int len)
{
    // A 64-bit mix of the 8-byte word index: every offset gives its own
    // byte without any table.
    for (int i = 0; i < len; ++i) {
        const quint64 pos = static_cast<quint64>(offset + i);
        quint64 x = (pos >> 3) * 0x9E3779B97F4A7C15ull;
        x ^= x >> 29;
        x *= 0xBF58476D1CE4E5B9ull;
        x ^= x >> 32;
        out[i] = static_cast<char>(x >> ((pos & 7) * 8));
    }
}

DemoServer::DemoServer()
{
    connect(&m_server, &QTcpServer::newConnection, this, &DemoServer::OnNewConnection);
}

DemoServer::~DemoServer()
{
    m_server.close();
    for (auto it = m_connections.begin(); it != m_connections.end(); ++it) {
        it.key()->disconnect(this);
        it.key()->abort();
        delete it.key();
    }
}

bool DemoServer::Start(QString& error)
{
    m_page = "<!DOCTYPE html>\n<html>\n<head>\n<title>velanet sample site</title>\n"
             "<link rel=\"stylesheet\" href=\"/style.css\">\n</head>\n<body>\n"
             "<h1>velanet sample site</h1>\n"
             "<p>A page, a style sheet, two images and a download.</p>\n"
             "<img src=\"/img/logo.png\" alt=\"logo\">\n"
             "<img src=\"/img/photo.png\" alt=\"photo\">\n"
             "<p><a href=\"/files/sample.bin\" download>sample.bin (20 MiB)</a></p>\n"
             "</body>\n</html>\n";
    m_css = MakeStyleSheet();
    m_cssGzip = GzipCompress(m_css);
    m_logo = MakeImage(64, 64, qRgb(36, 80, 140), qRgb(240, 200, 60));
    m_photo = MakeImage(320, 200, qRgb(20, 120, 60), qRgb(200, 230, 255));
    if (m_cssGzip.isEmpty() || m_logo.isEmpty() || m_photo.isEmpty()) {
        error = "the sample site could not be made (zlib or PNG writer failed)";
        return false;
    }
    QCryptographicHash hash(QCryptographicHash::Sha256);
    QByteArray piece(KStreamPiece, '\0');
    for (qint64 offset = 0; offset < KDownloadSize; offset += KStreamPiece) {
        const int n = static_cast<int>(qMin<qint64>(KStreamPiece, KDownloadSize - offset));
        DownloadBytes(offset, piece.data(), n);
        hash.addData(QByteArray::fromRawData(piece.constData(), n));
    }
    m_downloadDigest = hash.result();

    if (!m_server.listen(QHostAddress::LocalHost, 0)) {
        error = "the demo server cannot listen on 127.0.0.1: " + m_server.errorString();
        return false;
    }
    return true;
}

quint16 DemoServer::Port() const
{
    return m_server.serverPort();
}

void DemoServer::OnNewConnection()
{
    while (QTcpSocket* socket = m_server.nextPendingConnection()) {
        m_connections.insert(socket, Connection());
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { OnReadyRead(socket); });
        connect(socket, &QTcpSocket::bytesWritten, this, [this, socket] { OnBytesWritten(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
            m_connections.remove(socket);
            socket->deleteLater();
        });
    }
}

void DemoServer::OnReadyRead(QTcpSocket* socket)
{
    auto it = m_connections.find(socket);
    if (it == m_connections.end())
        return;
    Connection& connection = it.value();
    const QByteArray bytes = socket->readAll();
    if (connection.answered)
        return;
    connection.head += bytes;
    if (connection.head.size() > KMaxHead) {
        connection.answered = true;
        socket->write(Response("431 Request Header Fields Too Large", "text/plain", "head too large\n"));
        socket->disconnectFromHost();
        return;
    }
    if (connection.head.contains("\r\n\r\n"))
        Answer(socket, connection);
}

void DemoServer::Answer(QTcpSocket* socket, Connection& connection)
{
    connection.answered = true;
    ++m_requests;
    const QByteArray target = Target(connection.head);
    if (target == "/") {
        // A year ahead: the cookie calendar counts the current month one
        // month on, so a date a few days ahead would already count as past.
        const QByteArray cookie = QByteArray(KCookieName) + "=" + KCookieValue + "; Expires=" +
                                  HttpDate(QDateTime::currentDateTimeUtc().addDays(365)) + "; Path=/";
        socket->write(Head("302 Found", "Location: /index.html\r\nSet-Cookie: " + cookie +
                                            "\r\nContent-Length: 0\r\n"));
    } else if (target == "/index.html") {
        if (HasCookie(connection.head, QByteArray(KCookieName) + "=" + KCookieValue))
            m_cookieCameBack = true;
        socket->write(Response("200 OK", "text/html; charset=utf-8", m_page));
    } else if (target == "/style.css") {
        SendChunkedGzip(socket);
    } else if (target == "/img/logo.png") {
        socket->write(Response("200 OK", "image/png", m_logo));
    } else if (target == "/img/photo.png") {
        socket->write(Response("200 OK", "image/png", m_photo));
    } else if (target == "/files/sample.bin") {
        socket->write(Head("200 OK", "Content-Type: application/octet-stream\r\nContent-Length: " +
                                         QByteArray::number(KDownloadSize) + "\r\n"));
        connection.streamed = 0;
        StreamDownload(socket, connection);
        return;
    } else {
        socket->write(Response("404 Not Found", "text/plain", "not found\n"));
    }
    socket->disconnectFromHost();
}

void DemoServer::SendChunkedGzip(QTcpSocket* socket)
{
    QByteArray out = Head("200 OK", "Content-Type: text/css\r\nContent-Encoding: gzip\r\nTransfer-Encoding: chunked\r\n");
    for (int pos = 0; pos < m_cssGzip.size(); pos += KChunkSize) {
        const QByteArray chunk = m_cssGzip.mid(pos, KChunkSize);
        out += QByteArray::number(chunk.size(), 16) + "\r\n" + chunk + "\r\n";
    }
    out += "0\r\n\r\n";
    socket->write(out);
}

void DemoServer::StreamDownload(QTcpSocket* socket, Connection& connection)
{
    QByteArray piece(KStreamPiece, '\0');
    while (connection.streamed < KDownloadSize && socket->bytesToWrite() < KStreamWindow) {
        const int n = static_cast<int>(qMin<qint64>(KStreamPiece, KDownloadSize - connection.streamed));
        DownloadBytes(connection.streamed, piece.data(), n);
        socket->write(piece.constData(), n);
        connection.streamed += n;
    }
    if (connection.streamed >= KDownloadSize) {
        connection.streamed = -1;
        socket->disconnectFromHost();
    }
}

void DemoServer::OnBytesWritten(QTcpSocket* socket)
{
    auto it = m_connections.find(socket);
    if (it != m_connections.end() && it.value().streamed >= 0)
        StreamDownload(socket, it.value());
}

}  // namespace velafetch
