// The long connection's reader: one read of at most 1024 bytes per
// readyRead, bytes beyond that left for the next signal, the word peek that
// changes nothing, and every read result (also 0 and -1) passed up. Real
// bytes come over a loopback connection the test opens itself; read
// failures come from a socket whose reads fail.

#include "src/SocketsReader.h"

#include "src/SocketsEngine.h"

#include "support/TestSupport.h"

#include <QByteArray>
#include <QHostAddress>
#include <QSignalBlocker>
#include <QTcpServer>
#include <QTcpSocket>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using ::testing::_;
using ::testing::Invoke;
using ::testing::StrictMock;

constexpr int KDeadlineMs = 10000;

class MockEngineNotifier : public MEngineNotifier
{
public:
    MOCK_METHOD(void, ReportError, (MEngineNotifier::TErrorType type, int code), (override));
    MOCK_METHOD(void, ResponseReceived, (const unsigned char* data, int length), (override));
    MOCK_METHOD(void, NotifySendData, (), (override));
};

// Records every chunk the reader passes up, with its length as given.
class RecordingNotifier : public MEngineNotifier
{
public:
    void ReportError(MEngineNotifier::TErrorType, int) override { ++m_errors; }
    void ResponseReceived(const unsigned char* data, int length) override
    {
        m_lengths.push_back(length);
        m_chunks.push_back(length > 0 ? QByteArray(reinterpret_cast<const char*>(data), length) : QByteArray());
    }
    void NotifySendData() override { ++m_sends; }

    std::vector<int> m_lengths;
    std::vector<QByteArray> m_chunks;
    int m_errors = 0;
    int m_sends = 0;
};

// A connected pair of sockets on 127.0.0.1: the client side is read by the
// reader, the server side writes.
class LoopbackPair
{
public:
    bool Open()
    {
        if (!m_server.listen(QHostAddress::LocalHost, 0))
            return false;
        m_client.connectToHost(QHostAddress::LocalHost, m_server.serverPort());
        const bool ok = velatest::SpinUntil(
            [this] { return m_server.hasPendingConnections() && m_client.state() == QAbstractSocket::ConnectedState; },
            KDeadlineMs);
        if (!ok)
            return false;
        m_peer.reset(m_server.nextPendingConnection());
        return m_peer != nullptr;
    }
    // Writes bytes from the server side and waits until the client's socket
    // buffer holds at least total bytes.
    bool Deliver(const QByteArray& bytes, qint64 total)
    {
        m_peer->write(bytes);
        return velatest::SpinUntil([this, total] { return m_client.bytesAvailable() >= total; }, KDeadlineMs);
    }

    QTcpSocket& Client() { return m_client; }
    QTcpSocket& Server() { return *m_peer; }

private:
    QTcpServer m_server;
    QTcpSocket m_client;
    std::unique_ptr<QTcpSocket> m_peer;
};

// Reads fail: read() gives -1 on an open socket.
class FailingReadSocket : public QTcpSocket
{
public:
    void OpenForTest() { QIODevice::open(QIODevice::ReadWrite); }

protected:
    qint64 readData(char*, qint64) override { return -1; }
};

QByteArray Pattern(int len)
{
    QByteArray bytes(len, '\0');
    for (int i = 0; i < len; ++i)
        bytes[i] = static_cast<char>((i * 13 + 5) & 0xFF);
    return bytes;
}

// ------------------------------------------------------------ ReaderGetWORD

struct WordRow
{
    const char* name;
    unsigned char bytes[2];
    unsigned short expected;
};

const WordRow KWordRows[] = {
    {"zero", {0x00, 0x00}, 0},
    {"low-byte-only", {0x00, 0x01}, 1},
    {"high-byte-only", {0x01, 0x00}, 256},
    {"network-order", {0x12, 0x34}, 0x1234},
    {"top-bit", {0x80, 0x00}, 32768},
    {"all-ones", {0xFF, 0xFF}, 65535},
};

class ReaderGetWordTest : public ::testing::TestWithParam<WordRow>
{
};

TEST_P(ReaderGetWordTest, ReadsBigEndian)
{
    QTcpSocket socket;
    StrictMock<MockEngineNotifier> notifier;
    CSocketsReader reader(socket, notifier);
    WordRow row = GetParam();
    unsigned short out = 0xABCD;
    reader.ReaderGetWORD(out, row.bytes);
    EXPECT_EQ(out, row.expected);
}

INSTANTIATE_TEST_SUITE_P(Rows, ReaderGetWordTest, ::testing::ValuesIn(KWordRows),
                         [](const ::testing::TestParamInfo<WordRow>& info) {
                             std::string name = info.param.name;
                             for (char& c : name) {
                                 if (c == '-')
                                     c = '_';
                             }
                             return name;
                         });

// ------------------------------------------------------------ start and stop

TEST(SocketsReaderTest, StartsStoppedAndFollowsStartStop)
{
    QTcpSocket socket;
    StrictMock<MockEngineNotifier> notifier;
    CSocketsReader reader(socket, notifier);
    EXPECT_FALSE(reader.IsActive());
    reader.Start();
    EXPECT_TRUE(reader.IsActive());
    reader.Stop();
    EXPECT_FALSE(reader.IsActive());
}

TEST(SocketsReaderTest, StoppedReaderIgnoresReadyRead)
{
    LoopbackPair pair;
    ASSERT_TRUE(pair.Open());
    StrictMock<MockEngineNotifier> notifier;
    CSocketsReader reader(pair.Client(), notifier);
    reader.Start();
    reader.Stop();
    ASSERT_TRUE(pair.Deliver("abc", 3));
    velatest::ProcessPendingEvents();
    EXPECT_EQ(pair.Client().bytesAvailable(), 3);
}

TEST(SocketsReaderTest, StartTwiceStillOneReadPerSignal)
{
    LoopbackPair pair;
    ASSERT_TRUE(pair.Open());
    RecordingNotifier notifier;
    CSocketsReader reader(pair.Client(), notifier);
    reader.Start();
    reader.Start();
    ASSERT_TRUE(pair.Deliver("hello", 0));
    ASSERT_TRUE(velatest::SpinUntil([&] { return !notifier.m_lengths.empty(); }, KDeadlineMs));
    velatest::ProcessPendingEvents();
    ASSERT_EQ(notifier.m_lengths.size(), 1u);
    EXPECT_EQ(notifier.m_chunks[0], QByteArray("hello"));
}

// ------------------------------------------------------------ reads

TEST(SocketsReaderTest, FifteenHundredBytesGiveOneFullChunkThenTheRestOnNewData)
{
    LoopbackPair pair;
    ASSERT_TRUE(pair.Open());
    RecordingNotifier notifier;
    CSocketsReader reader(pair.Client(), notifier);
    reader.Start();

    const QByteArray sent = Pattern(1500);
    {
        // All 1500 bytes are in the socket before the reader hears of them.
        QSignalBlocker blocker(pair.Client());
        ASSERT_TRUE(pair.Deliver(sent, 1500));
    }
    emit pair.Client().readyRead();
    ASSERT_EQ(notifier.m_lengths.size(), 1u);
    EXPECT_EQ(notifier.m_lengths[0], 1024);
    EXPECT_EQ(notifier.m_chunks[0], sent.left(1024));
    EXPECT_EQ(pair.Client().bytesAvailable(), 476);

    // Nothing more arrives, so nothing more is read.
    velatest::ProcessPendingEvents();
    EXPECT_EQ(notifier.m_lengths.size(), 1u);

    // New data signals again: the 476 waiting bytes and the new one.
    pair.Server().write("Z");
    ASSERT_TRUE(velatest::SpinUntil([&] { return notifier.m_lengths.size() == 2; }, KDeadlineMs));
    EXPECT_EQ(notifier.m_lengths[1], 477);
    EXPECT_EQ(notifier.m_chunks[1], sent.mid(1024) + "Z");
    EXPECT_EQ(notifier.m_errors, 0);
    EXPECT_EQ(notifier.m_sends, 0);
}

TEST(SocketsReaderTest, ExactlyOneBufferIsOneChunk)
{
    LoopbackPair pair;
    ASSERT_TRUE(pair.Open());
    RecordingNotifier notifier;
    CSocketsReader reader(pair.Client(), notifier);
    reader.Start();
    const QByteArray sent = Pattern(1024);
    {
        QSignalBlocker blocker(pair.Client());
        ASSERT_TRUE(pair.Deliver(sent, 1024));
    }
    emit pair.Client().readyRead();
    ASSERT_EQ(notifier.m_lengths.size(), 1u);
    EXPECT_EQ(notifier.m_chunks[0], sent);
    EXPECT_EQ(pair.Client().bytesAvailable(), 0);
}

TEST(SocketsReaderTest, ChunkOfEightBytesIsDeliveredWithoutThePeek)
{
    LoopbackPair pair;
    ASSERT_TRUE(pair.Open());
    RecordingNotifier notifier;
    CSocketsReader reader(pair.Client(), notifier);
    reader.Start();
    const QByteArray sent("\x01\x02\x03\x04\x05\x06\x07\x08", 8);
    ASSERT_TRUE(pair.Deliver(sent, 0));
    ASSERT_TRUE(velatest::SpinUntil([&] { return !notifier.m_lengths.empty(); }, KDeadlineMs));
    EXPECT_EQ(notifier.m_chunks[0], sent);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(reader.LastPeekWord(i), 0) << "word " << i;
}

TEST(SocketsReaderTest, ChunkOfNineBytesIsPeekedAndDeliveredUnchanged)
{
    LoopbackPair pair;
    ASSERT_TRUE(pair.Open());
    RecordingNotifier notifier;
    CSocketsReader reader(pair.Client(), notifier);
    reader.Start();
    const QByteArray sent("\x00\x11\x22\x33\x44\x55\x66\x77\x88", 9);
    ASSERT_TRUE(pair.Deliver(sent, 0));
    ASSERT_TRUE(velatest::SpinUntil([&] { return !notifier.m_lengths.empty(); }, KDeadlineMs));
    ASSERT_EQ(notifier.m_lengths.size(), 1u);
    EXPECT_EQ(notifier.m_chunks[0], sent);
    // Words at offsets 1, 5 and 7, big-endian.
    EXPECT_EQ(reader.LastPeekWord(0), 0x1122);
    EXPECT_EQ(reader.LastPeekWord(1), 0x5566);
    EXPECT_EQ(reader.LastPeekWord(2), 0x7788);
    // Indexes outside the three words answer 0 and read nothing beyond them.
    EXPECT_EQ(reader.LastPeekWord(-1), 0);
    EXPECT_EQ(reader.LastPeekWord(3), 0);
}

TEST(SocketsReaderTest, BufferIsZeroedBeforeEachRead)
{
    LoopbackPair pair;
    ASSERT_TRUE(pair.Open());
    // The chunk passed up points into the reader's one buffer: a copy of
    // the whole buffer, taken during the report, shows what lies past it.
    std::vector<QByteArray> buffers;
    StrictMock<MockEngineNotifier> notifier;
    EXPECT_CALL(notifier, ResponseReceived(_, _))
        .Times(2)
        .WillRepeatedly(Invoke([&](const unsigned char* data, int) {
            buffers.emplace_back(reinterpret_cast<const char*>(data), CSocketsReader::KReadBufferSize);
        }));
    CSocketsReader reader(pair.Client(), notifier);
    reader.Start();
    ASSERT_TRUE(pair.Deliver("0123456789", 0));
    ASSERT_TRUE(velatest::SpinUntil([&] { return buffers.size() == 1; }, KDeadlineMs));
    ASSERT_TRUE(pair.Deliver("abc", 0));
    ASSERT_TRUE(velatest::SpinUntil([&] { return buffers.size() == 2; }, KDeadlineMs));
    EXPECT_EQ(buffers[1].left(3), QByteArray("abc"));
    for (int i = 3; i < CSocketsReader::KReadBufferSize; ++i)
        ASSERT_EQ(buffers[1].at(i), '\0') << "byte " << i;
}

TEST(SocketsReaderTest, ReadOfNothingIsPassedUpAsZero)
{
    LoopbackPair pair;
    ASSERT_TRUE(pair.Open());
    StrictMock<MockEngineNotifier> notifier;
    CSocketsReader reader(pair.Client(), notifier);
    reader.Start();
    EXPECT_CALL(notifier, ResponseReceived(_, 0)).Times(1);
    emit pair.Client().readyRead();
}

TEST(SocketsReaderTest, ReadErrorIsPassedUpAsMinusOne)
{
    FailingReadSocket socket;
    socket.OpenForTest();
    StrictMock<MockEngineNotifier> notifier;
    CSocketsReader reader(socket, notifier);
    reader.Start();
    EXPECT_CALL(notifier, ResponseReceived(_, -1)).Times(2);
    emit socket.readyRead();
    reader.OnDataReceive();
    // The reader stays armed: a failed read is reported, not acted on.
    EXPECT_TRUE(reader.IsActive());
    EXPECT_TRUE(::testing::Mock::VerifyAndClearExpectations(&notifier));
    EXPECT_CALL(notifier, ResponseReceived(_, -1)).Times(1);
    emit socket.readyRead();
}

TEST(SocketsReaderTest, UnreadableSocketGivesNothing)
{
    QTcpSocket socket;  // never opened
    StrictMock<MockEngineNotifier> notifier;
    CSocketsReader reader(socket, notifier);
    reader.Start();
    emit socket.readyRead();
    reader.OnDataReceive();
    EXPECT_TRUE(::testing::Mock::VerifyAndClearExpectations(&notifier));
    EXPECT_TRUE(reader.IsActive());
    EXPECT_FALSE(socket.isOpen());
}

TEST(SocketsReaderTest, NotifierMayDeleteTheReaderInsideTheReport)
{
    LoopbackPair pair;
    ASSERT_TRUE(pair.Open());
    StrictMock<MockEngineNotifier> notifier;
    CSocketsReader* reader = new CSocketsReader(pair.Client(), notifier);
    reader->Start();
    EXPECT_CALL(notifier, ResponseReceived(_, 4)).WillOnce(Invoke([&](const unsigned char*, int) {
        delete reader;
        reader = nullptr;
    }));
    ASSERT_TRUE(pair.Deliver("ping", 0));
    ASSERT_TRUE(velatest::SpinUntil([&] { return reader == nullptr; }, KDeadlineMs));
}

}  // namespace
