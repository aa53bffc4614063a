#ifndef VELAFETCH_DEMOSERVER_H
#define VELAFETCH_DEMOSERVER_H

// The sample site of velafetch --demo: a small HTTP/1.1 server on 127.0.0.1
// (a free port) that answers each request on its connection and closes it.
//
//   /                       302 to /index.html, setting a cookie
//   /index.html             the page; notes whether the cookie came back
//   /style.css              a style sheet, gzip-encoded and sent chunked
//   /img/logo.png,
//   /img/photo.png          two images
//   /files/sample.bin       a 20 MiB download, streamed as the socket drains
//   anything else           404

#include <QByteArray>
#include <QCryptographicHash>
#include <QHash>
#include <QObject>
#include <QString>
#include <QTcpServer>

class QTcpSocket;

namespace velafetch {

class DemoServer : public QObject
{
    Q_OBJECT

public:
    static constexpr qint64 KDownloadSize = 20 * 1024 * 1024;
    static constexpr char KCookieName[] = "demo_session";
    static constexpr char KCookieValue[] = "velanet";

    DemoServer();
    ~DemoServer() override;
    DemoServer(const DemoServer&) = delete;
    DemoServer& operator=(const DemoServer&) = delete;

    // Makes the site (the style sheet is gzipped here) and listens; false
    // with the reason in error.
    [[nodiscard]] bool Start(QString& error);
    quint16 Port() const;

    // The site as a client must see it once decoded.
    const QByteArray& Page() const { return m_page; }
    const QByteArray& StyleSheet() const { return m_css; }
    const QByteArray& GzippedStyleSheet() const { return m_cssGzip; }
    const QByteArray& Image(int index) const { return index == 0 ? m_logo : m_photo; }
    // SHA-256 of the 20 MiB download.
    const QByteArray& DownloadDigest() const { return m_downloadDigest; }

    // Whether the page request carried the cookie set by the redirect.
    bool CookieCameBack() const { return m_cookieCameBack; }
    int RequestCount() const { return m_requests; }

    // The download's bytes at offset (a fixed pseudo-random pattern).
    static void DownloadBytes(qint64 offset, char* out, int len);

private:
    struct Connection
    {
        QByteArray head;      // request bytes until the blank line
        bool answered = false;
        qint64 streamed = -1;  // download bytes written; -1: no download
    };

    void OnNewConnection();
    void OnReadyRead(QTcpSocket* socket);
    void OnBytesWritten(QTcpSocket* socket);
    void Answer(QTcpSocket* socket, Connection& connection);
    void SendChunkedGzip(QTcpSocket* socket);
    void StreamDownload(QTcpSocket* socket, Connection& connection);

    QTcpServer m_server;
    QHash<QTcpSocket*, Connection> m_connections;
    QByteArray m_page;
    QByteArray m_css;
    QByteArray m_cssGzip;
    QByteArray m_logo;
    QByteArray m_photo;
    QByteArray m_downloadDigest;
    bool m_cookieCameBack = false;
    int m_requests = 0;
};

// Gzip (RFC 1952) of data with zlib; empty on failure.
[[nodiscard]] QByteArray GzipCompress(const QByteArray& data);

}  // namespace velafetch

#endif
