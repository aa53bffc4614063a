// Bodies past 2 and 4 GiB, end to end on 127.0.0.1: nginx serves sparse
// files of 3 GiB and 5 GiB (made with a resize, holes read as zeros) with
// marker bytes written past 2 GiB, past 4 GiB and at the end. They go
// through the pool to memory (bytes counted, markers spotted as they pass)
// and to a receive file, through a partial GET from 2.5 GiB, and through
// velafetch to /dev/null, to a file and resumed with -C from a 2.5 GiB
// partial file. A multipart upload of a file past 2 GiB goes to a counting
// peer. Every received file is deleted as soon as it has been checked.

#include "src/MLHttpPool.h"

#include "BaseClass/src/CQString.h"
#include "src/DNSCache.h"
#include "src/HttpData.h"
#include "support/ServerFixtures.h"
#include "support/TestSupport.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using velatest::NginxOptions;
using velatest::NginxServer;
using velatest::SpinUntil;
using velatest::TempDir;

constexpr long long KGiB = 1LL << 30;
constexpr long long KThreeGiB = 3 * KGiB;
constexpr long long KFiveGiB = 5 * KGiB;
constexpr long long KResumeFrom = 2 * KGiB + KGiB / 2;  // 2.5 GiB
const int KId = 0xB16;
const int KTransferDeadlineMs = 280000;

// Marker bytes: offset and value. Everything else in the files is zero.
using Markers = std::map<long long, char>;

const Markers& ThreeGiBMarkers()
{
    static const Markers markers = {{2 * KGiB + 1, 'A'}, {KResumeFrom + 7, 'R'}, {KThreeGiB - 1, 'Z'}};
    return markers;
}

const Markers& FiveGiBMarkers()
{
    static const Markers markers = {{2 * KGiB + 1, 'A'}, {4 * KGiB + 3, 'B'}, {KFiveGiB - 1, 'Z'}};
    return markers;
}

bool MakeSparse(const QString& path, long long length, const Markers& markers)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || !file.resize(length))
        return false;
    for (const auto& marker : markers) {
        if (!file.seek(marker.first) || file.write(&marker.second, 1) != 1)
            return false;
    }
    return true;
}

// The markers of a received file, read back; "" when all are right,
// otherwise what differs.
std::string CheckMarkers(const QString& path, const Markers& markers)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return "cannot open " + path.toStdString();
    std::string wrong;
    for (const auto& marker : markers) {
        char c = 0;
        if (!file.seek(marker.first) || file.read(&c, 1) != 1 || c != marker.second)
            wrong += " at " + std::to_string(marker.first) + ": got " + std::to_string(static_cast<int>(c));
        // The byte before each marker is a hole: zero.
        if (!file.seek(marker.first - 1) || file.read(&c, 1) != 1 || c != 0)
            wrong += " before " + std::to_string(marker.first) + ": got " + std::to_string(static_cast<int>(c));
    }
    return wrong;
}

// Counts a body as it passes, spots the markers and watches the report
// arguments: n in length mode is the byte count saturated at INT_MAX.
class CountingNotifier : public MHttpPoolNotifier
{
public:
    explicit CountingNotifier(const Markers& markers, long long firstOffset = 0)
        : m_markers(markers), m_offset(firstOffset)
    {
    }

    int HttpErrorOccured(int, int status) override { return End("http-error " + std::to_string(status)); }
    int HttpHeaderReceived(int, CHttpResponseHead& head, CHttpData&) override
    {
        status = head.m_nStatusCode;
        contentLength64 = head.m_nContentLength64;
        contentLength = head.m_nContentLength;
        rangeStart64 = head.m_nRangeStart64;
        rangeTotal64 = head.m_nRangeTotal64;
        return 1;
    }
    int HttpResponseReceived(int, unsigned char* data, int len, int n) override
    {
        for (auto it = m_markers.lower_bound(m_offset); it != m_markers.end() && it->first < m_offset + len; ++it) {
            if (data[it->first - m_offset] == static_cast<unsigned char>(it->second))
                ++markersSeen;
            else
                wrongMarkers += " " + std::to_string(it->first);
        }
        m_offset += len;
        bytes += len;
        const long long expectedN = bytes > INT_MAX ? INT_MAX : bytes;
        if (n != expectedN && countMismatches++ == 0)
            firstMismatch = "n " + std::to_string(n) + " after " + std::to_string(bytes) + " bytes";
        return 1;
    }
    int HttpResponseComplete(int, CQWString&) override { return End("complete"); }
    int HttpEventNotify(int, int event) override { return event == 48 ? End("event 48") : 0; }
    int HttpErrorNotify(int, int event) override { return End("net-error " + std::to_string(event)); }
    int HttpEngine_URLChange(int, CQSString&) override { return End("url-change"); }

    std::vector<std::string> ends;
    int status = 0;
    int contentLength = 0;
    long long contentLength64 = 0;
    long long rangeStart64 = 0;
    long long rangeTotal64 = 0;
    long long bytes = 0;
    int markersSeen = 0;
    std::string wrongMarkers;
    int countMismatches = 0;
    std::string firstMismatch;

private:
    int End(const std::string& what)
    {
        ends.push_back(what);
        return 0;
    }

    const Markers& m_markers;
    long long m_offset;
};

// ------------------------------------------------------------ suite

// One nginx with both files for the whole suite.
class BodiesPast4GiB : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        NginxOptions options;
        s_nginx = std::make_unique<NginxServer>(options);
        s_started = MakeSparse(s_nginx->Root() + "/three.bin", KThreeGiB, ThreeGiBMarkers()) &&
                    MakeSparse(s_nginx->Root() + "/five.bin", KFiveGiB, FiveGiBMarkers()) && s_nginx->Start();
    }
    static void TearDownTestSuite() { s_nginx.reset(); }

    void SetUp() override
    {
        ASSERT_TRUE(s_started) << s_nginx->Error().toStdString();
        CDNSCache::SetCacheDirectory(m_dir.Path());
    }
    void TearDown() override { CDNSCache::ReleaseRegistered(); }

    static CQSString Url(const QString& path)
    {
        const QByteArray url = s_nginx->Url(path).toUtf8();
        return CQSString(url.constData(), url.size());
    }

    // Runs velafetch to its end; exit code, stderr in err.
    static int Velafetch(const QStringList& args, QByteArray& err)
    {
        QProcess process;
        process.setProcessChannelMode(QProcess::SeparateChannels);
        process.setStandardOutputFile(QProcess::nullDevice());
        process.start(VELAFETCH_BINARY, args);
        if (!process.waitForStarted(10000))
            return -1;
        const bool ended = SpinUntil([&] { return process.state() == QProcess::NotRunning; }, KTransferDeadlineMs);
        if (!ended) {
            process.kill();
            (void)process.waitForFinished(5000);
            return -1;
        }
        err = process.readAllStandardError();
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

    static void Report(const char* what, long long bytes, qint64 ms)
    {
        std::printf("[ figures  ] %s: %lld bytes in %lld ms, %.0f MiB/s\n", what, bytes, static_cast<long long>(ms),
                    ms > 0 ? static_cast<double>(bytes) / (1 << 20) * 1000.0 / static_cast<double>(ms) : 0.0);
        std::fflush(stdout);
    }

    static std::unique_ptr<NginxServer> s_nginx;
    static bool s_started;
    TempDir m_dir;
};

std::unique_ptr<NginxServer> BodiesPast4GiB::s_nginx;
bool BodiesPast4GiB::s_started = false;

TEST_F(BodiesPast4GiB, FiveGiBToMemoryThroughThePool)
{
    CountingNotifier counter(FiveGiBMarkers());
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&counter, nullptr, 1));
    QElapsedTimer clock;
    clock.start();
    ASSERT_EQ(CMLHttpPool::KStarted, pool->DoGet(Url("/five.bin"), KId, nullptr));
    ASSERT_TRUE(SpinUntil([&] { return !counter.ends.empty(); }, KTransferDeadlineMs)) << counter.bytes;
    Report("5 GiB to memory", counter.bytes, clock.elapsed());
    velatest::ProcessPendingEvents();
    EXPECT_EQ(std::vector<std::string>{"complete"}, counter.ends);
    EXPECT_EQ(200, counter.status);
    EXPECT_EQ(KFiveGiB, counter.contentLength64);
    EXPECT_EQ(CHttpResponseHead::KIntSaturated, counter.contentLength);
    EXPECT_EQ(KFiveGiB, counter.bytes);
    EXPECT_EQ(3, counter.markersSeen) << counter.wrongMarkers;
    EXPECT_EQ(0, counter.countMismatches) << counter.firstMismatch;
}

TEST_F(BodiesPast4GiB, ThreeGiBToAReceiveFile)
{
    CountingNotifier counter(ThreeGiBMarkers());
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&counter, nullptr, 1));
    const QString path = m_dir.File("three.bin");
    const CQWString recvFile(path);
    QElapsedTimer clock;
    clock.start();
    ASSERT_EQ(CMLHttpPool::KStarted, pool->DoGet(Url("/three.bin"), KId, &recvFile));
    ASSERT_TRUE(SpinUntil([&] { return !counter.ends.empty(); }, KTransferDeadlineMs)) << counter.bytes;
    Report("3 GiB to a receive file", counter.bytes, clock.elapsed());
    EXPECT_EQ(std::vector<std::string>{"complete"}, counter.ends);
    EXPECT_EQ(KThreeGiB, counter.bytes);
    EXPECT_EQ(KThreeGiB, QFileInfo(path).size());
    EXPECT_EQ("", CheckMarkers(path, ThreeGiBMarkers()));
    EXPECT_TRUE(QFile::remove(path));
}

TEST_F(BodiesPast4GiB, PartialGetFrom2Point5GiB)
{
    CountingNotifier counter(ThreeGiBMarkers(), KResumeFrom);
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&counter, nullptr, 1));
    const QString path = m_dir.File("rest.bin");
    const CQWString recvFile(path);
    ASSERT_EQ(CMLHttpPool::KStarted, pool->DoGetPartial64(Url("/three.bin"), KId, &recvFile, KResumeFrom));
    ASSERT_TRUE(SpinUntil([&] { return !counter.ends.empty(); }, KTransferDeadlineMs)) << counter.bytes;
    EXPECT_EQ(std::vector<std::string>{"complete"}, counter.ends);
    EXPECT_EQ(206, counter.status);
    EXPECT_EQ(KResumeFrom, counter.rangeStart64);
    EXPECT_EQ(KThreeGiB, counter.rangeTotal64);
    EXPECT_EQ(KThreeGiB - KResumeFrom, counter.contentLength64);
    EXPECT_EQ(KThreeGiB - KResumeFrom, counter.bytes);
    EXPECT_EQ(2, counter.markersSeen) << counter.wrongMarkers;  // R and Z
    // The receive file holds the rest: the partial body, written from its start.
    EXPECT_EQ(KThreeGiB - KResumeFrom, QFileInfo(path).size());
    EXPECT_EQ("", CheckMarkers(path, {{7, 'R'}, {KThreeGiB - KResumeFrom - 1, 'Z'}}));
    EXPECT_TRUE(QFile::remove(path));
}

TEST_F(BodiesPast4GiB, VelafetchThreeGiBToDevNull)
{
    QByteArray err;
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(0, Velafetch({"-o", "/dev/null", s_nginx->Url("/three.bin")}, err)) << err.toStdString();
    Report("velafetch 3 GiB to /dev/null", KThreeGiB, clock.elapsed());
    EXPECT_TRUE(err.isEmpty()) << err.toStdString();
}

TEST_F(BodiesPast4GiB, VelafetchFiveGiBToAFile)
{
    const QString path = m_dir.File("five.bin");
    QByteArray err;
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(0, Velafetch({"-o", path, s_nginx->Url("/five.bin")}, err)) << err.toStdString();
    Report("velafetch 5 GiB to a file", KFiveGiB, clock.elapsed());
    EXPECT_EQ(KFiveGiB, QFileInfo(path).size());
    EXPECT_EQ("", CheckMarkers(path, FiveGiBMarkers()));
    EXPECT_TRUE(QFile::remove(path));
}

TEST_F(BodiesPast4GiB, VelafetchResumesA2Point5GiBFile)
{
    // The first 2.5 GiB as an earlier run left them (the markers in that
    // part included), made sparse so that they cost no disk.
    const QString path = m_dir.File("three.bin");
    ASSERT_TRUE(MakeSparse(path, KResumeFrom, {{2 * KGiB + 1, 'A'}}));
    QByteArray err;
    EXPECT_EQ(0, Velafetch({"-C", "-o", path, s_nginx->Url("/three.bin")}, err)) << err.toStdString();
    EXPECT_EQ(KThreeGiB, QFileInfo(path).size());
    EXPECT_EQ("", CheckMarkers(path, ThreeGiBMarkers()));
    EXPECT_TRUE(QFile::remove(path));
}

// ------------------------------------------------------------ upload

// Takes one multipart upload: counts the body bytes after the head, spots
// markers in the file part, and answers 200 once Content-Length bytes came.
class CountingUploadPeer : public QObject
{
public:
    explicit CountingUploadPeer(const Markers& markers) : m_markers(markers)
    {
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            m_socket = m_server.nextPendingConnection();
            connect(m_socket, &QTcpSocket::readyRead, this, [this] { Read(); });
        });
    }
    bool Listen() { return m_server.listen(QHostAddress::LocalHost); }
    quint16 Port() const { return m_server.serverPort(); }

    long long declared = -1;
    long long bodyBytes = 0;
    long long filePartStart = -1;  // body offset of the first file byte
    int markersSeen = 0;
    bool answered = false;

private:
    void Read()
    {
        QByteArray bytes = m_socket->readAll();
        if (declared < 0) {
            m_head += bytes;
            const int end = m_head.indexOf("\r\n\r\n");
            if (end < 0)
                return;
            const QRegularExpression length("Content-Length: (\\d+)\r\n");
            const auto match = length.match(QString::fromLatin1(m_head.left(end + 2)));
            declared = match.hasMatch() ? match.captured(1).toLongLong() : 0;
            bytes = m_head.mid(end + 4);
        }
        if (filePartStart < 0) {
            // The file part's head ends with the first blank line of the body.
            m_partHead += bytes;
            const int end = m_partHead.indexOf("\r\n\r\n");
            if (end >= 0)
                filePartStart = end + 4;
        }
        for (auto it = m_markers.begin(); filePartStart >= 0 && it != m_markers.end(); ++it) {
            const long long at = filePartStart + it->first - bodyBytes;
            if (at >= 0 && at < bytes.size() && bytes.at(static_cast<int>(at)) == it->second)
                ++markersSeen;
        }
        bodyBytes += bytes.size();
        if (bodyBytes >= declared && !answered) {
            answered = true;
            m_socket->write("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
        }
    }

    const Markers& m_markers;
    QTcpServer m_server;
    QTcpSocket* m_socket = nullptr;
    QByteArray m_head;
    QByteArray m_partHead;
};

TEST_F(BodiesPast4GiB, MultipartUploadOfAFilePast2GiB)
{
    static const Markers markers = {{2 * KGiB + 1, 'A'}, {2 * KGiB + 99, 'Z'}};
    const long long fileLength = 2 * KGiB + 100;
    const QString path = m_dir.File("upload.bin");
    ASSERT_TRUE(MakeSparse(path, fileLength, markers));
    CountingUploadPeer peer(markers);
    ASSERT_TRUE(peer.Listen());
    static const Markers none;
    CountingNotifier counter(none);
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&counter, nullptr, 1));
    const QByteArray url = QByteArray("http://127.0.0.1:") + QByteArray::number(peer.Port()) + "/up";
    unsigned char fields[] = "k=v";
    QElapsedTimer clock;
    clock.start();
    ASSERT_EQ(CMLHttpPool::KStarted, pool->DoPostFile(CQSString(url.constData(), url.size()), KId, nullptr, fields, 3,
                                                      CQWString(path), CQWString(QString("file"))));
    ASSERT_TRUE(SpinUntil([&] { return !counter.ends.empty(); }, KTransferDeadlineMs)) << peer.bodyBytes;
    Report("multipart upload of 2 GiB + 100", peer.bodyBytes, clock.elapsed());
    EXPECT_EQ(std::vector<std::string>{"complete"}, counter.ends);
    EXPECT_GT(peer.declared, fileLength);
    EXPECT_EQ(peer.declared, peer.bodyBytes);
    EXPECT_EQ(2, peer.markersSeen);
    EXPECT_EQ(2, counter.bytes);
}

}  // namespace
