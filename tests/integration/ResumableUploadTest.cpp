// The resumable upload end to end: CMLHttpEngine::DoPostOLFile over a real
// loopback connection to an upload server of this file. The server parses
// every block request (the request text, then the block's bytes), stores
// the bytes at its own offset and answers with a "Range: " line, or leaves
// the line out, or says nothing, as each test scripts it. The expected
// block extents follow the protocol: the first block carries at most 1000
// bytes, every later one at most the block size, from where the client has
// read; each block's path is the key and the MD5 of that block's bytes.

#include "src/MLHttpEngine.h"

#include "BaseClass/src/CQTimer.h"
#include "src/DNSCache.h"
#include "support/TestSupport.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QFile>
#include <QHostAddress>
#include <QList>
#include <QString>
#include <QTcpServer>
#include <QTcpSocket>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

void PrintTo(const QByteArray& bytes, std::ostream* os)
{
    *os << '"' << velatest::Visible(bytes) << '"';
}

namespace {

using ::testing::ElementsAre;

const int KId = 0x0D;
const int KDeadlineMs = 10000;
const QByteArray KKey = "/upload/7f3a/";

class DnsCacheDirectory : public ::testing::Environment
{
public:
    void SetUp() override
    {
        m_dir = std::make_unique<velatest::TempDir>();
        CDNSCache::SetCacheDirectory(m_dir->Path());
    }
    void TearDown() override
    {
        CDNSCache::ReleaseRegistered();
        m_dir.reset();
    }

private:
    std::unique_ptr<velatest::TempDir> m_dir;
};

::testing::Environment* const g_dnsEnvironment = ::testing::AddGlobalTestEnvironment(new DnsCacheDirectory);

QByteArray Md5Hex(const QByteArray& bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex();
}

// Bytes that differ from one block to the next.
QByteArray FileBytes(int len)
{
    QByteArray bytes(len, '\0');
    quint32 state = 2463534242u;
    for (int i = 0; i < len; ++i) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        bytes[i] = static_cast<char>(state & 0xFF);
    }
    return bytes;
}

// ------------------------------------------------------------ upload server

// One block request as the server parsed it.
struct BlockRequest
{
    QByteArray head;   // the request text up to and including the blank line
    QByteArray path;   // from "POST <path> HTTP/1.1"
    QByteArray bytes;  // the block carried after the text
    int clientOffset = 0;  // where the client read the block from (bytes sent before it)
};

// What the server answers to a block: the reply bytes, or nothing at all.
struct Answer
{
    bool silent = false;
    QByteArray reply;
};

class UploadServer
{
public:
    // fileLength and blockSize let the server know each block's extent:
    // the first block is min(fileLength, 1000) bytes; a later one is
    // min(blockSize, fileLength - max(sent, last replied value)).
    UploadServer(int fileLength, int blockSize) : m_fileLength(fileLength), m_blockSize(blockSize)
    {
        EXPECT_TRUE(m_server.listen(QHostAddress(QHostAddress::LocalHost), 0));
        QObject::connect(&m_server, &QTcpServer::newConnection, &m_server, [this] {
            while (QTcpSocket* socket = m_server.nextPendingConnection()) {
                ++connections;
                m_peer = socket;
                QObject::connect(socket, &QIODevice::readyRead, socket, [this, socket] { OnRead(socket); });
            }
        });
    }

    quint16 Port() const { return m_server.serverPort(); }
    QByteArray Host() const { return "127.0.0.1:" + QByteArray::number(Port()); }

    // Decides the answer to block `index` once it has been read whole.
    std::function<Answer(int index, const BlockRequest& block)> answer;

    // The file as the server holds it: every block stored at its offset.
    QByteArray stored;
    std::vector<BlockRequest> blocks;
    // Bytes that came while the server expected none (after a block, before
    // its answer, or past the end).
    QByteArray unexpected;
    int connections = 0;
    unsigned int lastReplied = 0;

    static Answer RangeOf(unsigned int value)
    {
        return Answer{false, "HTTP/1.1 200 OK\r\nRange: " + QByteArray::number(value) + "\r\nContent-Length: 0\r\n\r\n"};
    }

private:
    int NextBlockLength() const
    {
        if (blocks.empty())
            return std::min(m_fileLength, 1000);
        const long long pos = std::max<long long>(m_sent, lastReplied);
        return static_cast<int>(std::min<long long>(m_blockSize, m_fileLength - pos));
    }

    void OnRead(QTcpSocket* socket)
    {
        m_buffer += socket->readAll();
        for (;;) {
            if (m_waitingForAnswer) {
                unexpected += m_buffer;
                m_buffer.clear();
                return;
            }
            if (!m_inBody) {
                const int end = m_buffer.indexOf("\r\n\r\n");
                if (end < 0)
                    return;
                m_current = BlockRequest();
                m_current.head = m_buffer.left(end + 4);
                m_buffer.remove(0, end + 4);
                const int lineEnd = m_current.head.indexOf("\r\n");
                const QList<QByteArray> words = m_current.head.left(lineEnd).split(' ');
                if (words.size() == 3)
                    m_current.path = words[1];
                m_need = NextBlockLength();
                m_inBody = true;
            }
            if (m_buffer.size() < m_need)
                return;
            m_current.bytes = m_buffer.left(m_need);
            m_buffer.remove(0, m_need);
            m_inBody = false;
            m_current.clientOffset = m_sent;
            // Stored where the client read it from.
            if (stored.size() < m_sent + m_need)
                stored.resize(m_sent + m_need);
            stored.replace(m_sent, m_need, m_current.bytes);
            m_sent += m_need;
            blocks.push_back(m_current);
            const Answer a = answer ? answer(static_cast<int>(blocks.size()) - 1, m_current) : Answer{true, {}};
            if (a.silent) {
                m_waitingForAnswer = true;
                continue;
            }
            unsigned int value = 0;
            const int at = a.reply.indexOf("\r\nRange: ");
            if (at >= 0)
                value = a.reply.mid(at + 9, a.reply.indexOf("\r\n", at + 9) - at - 9).toUInt();
            lastReplied = value;
            socket->write(a.reply);
            socket->flush();
        }
    }

    QTcpServer m_server;
    QTcpSocket* m_peer = nullptr;
    const int m_fileLength;
    const int m_blockSize;
    QByteArray m_buffer;
    BlockRequest m_current;
    bool m_inBody = false;
    bool m_waitingForAnswer = false;
    int m_need = 0;
    int m_sent = 0;
};

// ------------------------------------------------------------ recording owner

// Every report of the engine's notifier and of the reply timer, in order.
class Owner : public MHttpNotifier, public CQTimerObserver
{
public:
    int HttpErrorOccured(int id, int status) override { return Add(id, "http-error " + std::to_string(status)); }
    int HttpHeaderReceived(int id, CHttpResponseHead&, CHttpData&) override { return Add(id, "header"); }
    int HttpResponseReceived(int id, unsigned char*, int len, int) override
    {
        return Add(id, "data " + std::to_string(len));
    }
    int HttpResponseComplete(int id, CQWString&) override { return Add(id, "complete"); }
    int HttpEventNotify(int id, int event) override { return Add(id, "event " + std::to_string(event)); }
    int HttpErrorNotify(int id, int event) override { return Add(id, "error " + std::to_string(event)); }
    int HttpEngine_URLChange(int id, CQSString&) override { return Add(id, "url"); }
    void HttpNotifySend(unsigned char* data, int len) override
    {
        trace.push_back(std::string(data == nullptr ? "progress " : "sent-bytes ") + std::to_string(len));
        if (data == nullptr && (len < 0 || len >= doneAt))
            done = true;
    }
    void OnTimerExpired(CQTimer*) override
    {
        trace.push_back("timer");
        ++timerCount;
    }

    std::vector<std::string> trace;
    int doneAt = 0x7FFFFFFF;
    bool done = false;
    int timerCount = 0;

private:
    int Add(int id, const std::string& text)
    {
        trace.push_back(id == KId ? text : text + " (id " + std::to_string(id) + ")");
        return 1;
    }
};

class ResumableUploadTest : public ::testing::Test
{
protected:
    void TearDown() override { engine.reset(); }

    // Writes the file, starts the upload to server with the given block size.
    void Start(UploadServer& server, int fileLength, int blockSize)
    {
        file = FileBytes(fileLength);
        const QString path = files.File("upload.dat");
        QFile f(path);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.size(), f.write(file));
        f.close();
        owner.doneAt = fileLength;
        engine.reset(CMLHttpEngine::NewL(&owner));
        ASSERT_NE(nullptr, engine);
        engine->SetRequestID(KId);
        engine->SetOLFileTimerObserver(&owner);
        QByteArray key = KKey;
        ASSERT_NE(0, engine->DoPostOLFile(server.Host().constData(), key.data(), key.size(), CQWString(path),
                                          static_cast<unsigned int>(blockSize)));
    }

    // The request text of a block as the protocol writes it.
    static QByteArray Text(const QByteArray& path, const QByteArray& host)
    {
        return "POST " + path + " HTTP/1.1\r\n"
               "User-Agent: VelaClient\r\n"
               "Host: " + host + "\r\n"
               "Connection: Keep-Alive\r\n"
               "Content-Length: \r\n"
               "Range: bytes=-\r\n"
               "\r\n";
    }

    // Every block: its exact text, its path = key + MD5 of its own bytes,
    // and its bytes = the file at the offset the client read them from.
    void ExpectWellFormedBlocks(const UploadServer& server)
    {
        for (size_t i = 0; i < server.blocks.size(); ++i) {
            const BlockRequest& b = server.blocks[i];
            EXPECT_EQ(KKey + Md5Hex(b.bytes), b.path) << "block " << i;
            EXPECT_EQ(Text(b.path, server.Host()), b.head) << "block " << i;
            EXPECT_TRUE(file.mid(b.clientOffset, b.bytes.size()) == b.bytes) << "block " << i;
        }
    }

    static std::vector<int> BlockSizes(const UploadServer& server)
    {
        std::vector<int> sizes;
        for (const BlockRequest& b : server.blocks)
            sizes.push_back(b.bytes.size());
        return sizes;
    }

    velatest::TempDir files;
    QByteArray file;
    Owner owner;
    std::unique_ptr<CMLHttpEngine> engine;
};

// ------------------------------------------------------------ tests

TEST_F(ResumableUploadTest, File600GoesAsOneBlockAndRange600CompletesIt)
{
    UploadServer server(600, 10240);
    server.answer = [&](int, const BlockRequest&) { return UploadServer::RangeOf(server.stored.size()); };
    Start(server, 600, 10240);
    ASSERT_TRUE(velatest::SpinUntil([&] { return owner.done; }, KDeadlineMs));
    velatest::ProcessPendingEvents();

    EXPECT_THAT(owner.trace, ElementsAre("event 32", "progress 600"));
    EXPECT_EQ(std::vector<int>({600}), BlockSizes(server));
    ExpectWellFormedBlocks(server);
    EXPECT_TRUE(server.stored == file);
    EXPECT_TRUE(server.unexpected.isEmpty());
    EXPECT_TRUE(engine->IsIdle());
    EXPECT_EQ(1, server.connections);
}

TEST_F(ResumableUploadTest, File25000WithBlock10240FollowsTheServersOffsets)
{
    UploadServer server(25000, 10240);
    server.answer = [&](int, const BlockRequest&) { return UploadServer::RangeOf(server.stored.size()); };
    Start(server, 25000, 10240);
    ASSERT_TRUE(velatest::SpinUntil([&] { return owner.done; }, KDeadlineMs));
    velatest::ProcessPendingEvents();

    EXPECT_THAT(owner.trace,
                ElementsAre("event 32", "progress 1000", "progress 11240", "progress 21480", "progress 25000"));
    EXPECT_EQ(std::vector<int>({1000, 10240, 10240, 3520}), BlockSizes(server));
    ExpectWellFormedBlocks(server);
    ASSERT_EQ(file.size(), server.stored.size());
    EXPECT_TRUE(server.stored == file) << "every byte the server holds is the file's";
    EXPECT_TRUE(server.unexpected.isEmpty());
    EXPECT_TRUE(engine->IsIdle());
    EXPECT_EQ(1, server.connections) << "every block on the same connection";
}

TEST_F(ResumableUploadTest, ASmallerRangeThanSentGoesOnFromWhatWasSent)
{
    UploadServer server(25000, 10240);
    // After the second block (11240 bytes sent) the server claims 300.
    server.answer = [&](int index, const BlockRequest&) {
        return UploadServer::RangeOf(index == 1 ? 300u : static_cast<unsigned int>(server.stored.size()));
    };
    Start(server, 25000, 10240);
    ASSERT_TRUE(velatest::SpinUntil([&] { return owner.done; }, KDeadlineMs));
    velatest::ProcessPendingEvents();

    EXPECT_THAT(owner.trace,
                ElementsAre("event 32", "progress 1000", "progress 11240", "progress 21480", "progress 25000"));
    EXPECT_EQ(std::vector<int>({1000, 10240, 10240, 3520}), BlockSizes(server));
    ASSERT_EQ(4u, server.blocks.size());
    EXPECT_EQ(11240, server.blocks[2].clientOffset) << "not back to 300";
    ExpectWellFormedBlocks(server);
    EXPECT_TRUE(server.stored == file);
}

TEST_F(ResumableUploadTest, AReplyWithoutRangeEndsTheUploadWithMinusOne)
{
    UploadServer server(25000, 10240);
    server.answer = [&](int index, const BlockRequest&) {
        if (index == 0)
            return UploadServer::RangeOf(server.stored.size());
        return Answer{false, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"};
    };
    Start(server, 25000, 10240);
    ASSERT_TRUE(velatest::SpinUntil([&] { return owner.done; }, KDeadlineMs));
    velatest::ProcessPendingEvents();

    EXPECT_THAT(owner.trace, ElementsAre("event 32", "progress 1000", "progress -1"));
    EXPECT_EQ(std::vector<int>({1000, 10240}), BlockSizes(server));
    ExpectWellFormedBlocks(server);
    EXPECT_TRUE(engine->IsIdle());
    EXPECT_TRUE(server.unexpected.isEmpty()) << "nothing is sent after the end";
}

TEST_F(ResumableUploadTest, NoReplyLetsTheReplyTimerFireToTheOwner)
{
    UploadServer server(25000, 10240);
    server.answer = [&](int index, const BlockRequest&) {
        if (index == 0) {
            // From the second block on, a short reply time-out instead of
            // two minutes.
            engine->GetSocketEngine()->SetOLFileReplyTimeOut(30);
            return UploadServer::RangeOf(server.stored.size());
        }
        return Answer{true, {}};
    };
    Start(server, 25000, 10240);
    ASSERT_TRUE(velatest::SpinUntil([&] { return owner.timerCount >= 1; }, KDeadlineMs));

    // The first block's reply came in time; the second block has none.
    EXPECT_THAT(owner.trace, ElementsAre("event 32", "progress 1000", "timer"));
    EXPECT_EQ(std::vector<int>({1000, 10240}), BlockSizes(server));
    ExpectWellFormedBlocks(server);
    // The engine does not act on the time-out: the owner decides.
    EXPECT_EQ(CQHttpSocketEngine::HSES_Receiving, engine->GetHttpSocketCurrentStatus());
    engine->DoStopOLFileTimer();
    EXPECT_EQ(1, engine->CancelRequest());
    EXPECT_TRUE(engine->IsIdle());
    EXPECT_TRUE(engine->GetSocketEngine()->findChildren<CQTimer*>().isEmpty());
    const size_t reports = owner.trace.size();
    velatest::ProcessPendingEvents();
    EXPECT_EQ(reports, owner.trace.size()) << "nothing after the cancel";
}

TEST_F(ResumableUploadTest, ATimerLeftRunningByTheOwnerKeepsFiringUntilStopped)
{
    UploadServer server(600, 10240);
    server.answer = [&](int, const BlockRequest&) { return Answer{true, {}}; };
    Start(server, 600, 10240);
    engine->GetSocketEngine()->SetOLFileReplyTimeOut(10);
    ASSERT_TRUE(velatest::SpinUntil([&] { return owner.timerCount >= 1; }, KDeadlineMs));
    // A cancel leaves the reply timer to the owner.
    EXPECT_EQ(1, engine->CancelRequest());
    ASSERT_TRUE(velatest::SpinUntil([&] { return owner.timerCount >= 3; }, KDeadlineMs));
    engine->DoStopOLFileTimer();
    EXPECT_THAT(owner.trace, ::testing::Contains("timer").Times(owner.timerCount));
    EXPECT_EQ("event 32", owner.trace.front());
    EXPECT_EQ(static_cast<size_t>(owner.timerCount) + 1, owner.trace.size());
}

}  // namespace
