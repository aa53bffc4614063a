// The long connection's writer: a queue of byte arrays written one at a
// time and synchronously while each write is complete, the tail written
// once more after a short write, the stall after a failed write until Stop,
// and nothing ever reported upward. Write results come from a socket whose
// writes return what the test scripts; one test writes to a real loopback
// connection.

#include "src/SocketsWriter.h"

#include "src/SocketsEngine.h"
#include "src/internal/SocketsWriterStatus_p.h"

#include "support/HeapWatch.h"
#include "support/TestSupport.h"

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QTcpServer>
#include <QTcpSocket>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <ostream>

void PrintTo(const QByteArray& bytes, std::ostream* os)
{
    *os << '"' << velatest::Visible(bytes) << '"';
}

namespace {

using ::testing::ElementsAre;
using ::testing::StrictMock;

constexpr int KDeadlineMs = 10000;

class MockEngineNotifier : public MEngineNotifier
{
public:
    MOCK_METHOD(void, ReportError, (MEngineNotifier::TErrorType type, int code), (override));
    MOCK_METHOD(void, ResponseReceived, (const unsigned char* data, int length), (override));
    MOCK_METHOD(void, NotifySendData, (), (override));
};

// Records every write and returns the scripted results in turn (the whole
// length once the script is used up).
class ScriptedWriteSocket : public QTcpSocket
{
public:
    void OpenForTest(OpenMode mode) { QIODevice::open(mode); }
    void SetModeForTest(OpenMode mode) { setOpenMode(mode); }
    void Script(std::initializer_list<qint64> results) { m_results.assign(results.begin(), results.end()); }

    QList<QByteArray> m_writes;

protected:
    qint64 writeData(const char* data, qint64 len) override
    {
        m_writes.append(QByteArray(data, static_cast<int>(len)));
        if (m_results.empty())
            return len;
        const qint64 result = m_results.front();
        m_results.pop_front();
        return result;
    }

private:
    std::deque<qint64> m_results;
};

class SocketsWriterTest : public ::testing::Test
{
protected:
    void SetUp() override { m_socket.OpenForTest(QIODevice::ReadWrite); }

    ScriptedWriteSocket m_socket;
    StrictMock<MockEngineNotifier> m_notifier;  // the writer reports nothing
    CSocketsWriter m_writer{m_socket, m_notifier};
};

TEST_F(SocketsWriterTest, StartsIdleWithAnEmptyQueue)
{
    EXPECT_EQ(m_writer.WriteStatus(), CSocketsWriter::KWriteIdle);
    EXPECT_EQ(m_writer.QueuedCount(), 0);
}

TEST_F(SocketsWriterTest, EachIssueWriteIsWrittenBeforeItReturns)
{
    m_writer.IssueWriteL("first");
    EXPECT_THAT(m_socket.m_writes, ElementsAre(QByteArray("first")));
    EXPECT_EQ(m_writer.QueuedCount(), 0);
    m_writer.IssueWriteL("second");
    EXPECT_THAT(m_socket.m_writes, ElementsAre(QByteArray("first"), QByteArray("second")));
    EXPECT_EQ(m_writer.QueuedCount(), 0);
    EXPECT_EQ(m_writer.WriteStatus(), CSocketsWriter::KWriteIdle);
}

TEST_F(SocketsWriterTest, EmptyArrayDoesNothing)
{
    m_writer.IssueWriteL(QByteArray());
    m_writer.IssueWriteL(QByteArray(""));
    EXPECT_TRUE(m_socket.m_writes.isEmpty());
    EXPECT_EQ(m_writer.QueuedCount(), 0);
    EXPECT_EQ(m_writer.WriteStatus(), CSocketsWriter::KWriteIdle);
}

TEST_F(SocketsWriterTest, ArrayThatCannotBeQueuedIsDropped)
{
    velatest::HeapWatch::FailNothrowAfter(0);
    m_writer.IssueWriteL("lost");
    velatest::HeapWatch::StopFailing();
    EXPECT_TRUE(m_socket.m_writes.isEmpty());
    EXPECT_EQ(m_writer.QueuedCount(), 0);
    EXPECT_EQ(m_writer.WriteStatus(), CSocketsWriter::KWriteIdle);
    // The next array goes out alone.
    m_writer.IssueWriteL("next");
    EXPECT_THAT(m_socket.m_writes, ElementsAre(QByteArray("next")));
}

TEST_F(SocketsWriterTest, UnwritableSocketKeepsTheQueueAndStaysIdle)
{
    m_socket.SetModeForTest(QIODevice::ReadOnly);
    m_writer.IssueWriteL("a");
    m_writer.IssueWriteL("b");
    EXPECT_TRUE(m_socket.m_writes.isEmpty());
    EXPECT_EQ(m_writer.QueuedCount(), 2);
    EXPECT_EQ(m_writer.WriteStatus(), CSocketsWriter::KWriteIdle);

    // Once writable, the next array sends the whole queue in order.
    m_socket.SetModeForTest(QIODevice::ReadWrite);
    m_writer.IssueWriteL("c");
    EXPECT_THAT(m_socket.m_writes, ElementsAre(QByteArray("a"), QByteArray("b"), QByteArray("c")));
    EXPECT_EQ(m_writer.QueuedCount(), 0);
}

TEST_F(SocketsWriterTest, ShortWriteSendsTheTailOnceAndWaitsForTheNextIssue)
{
    m_socket.SetModeForTest(QIODevice::ReadOnly);
    m_writer.IssueWriteL("abcde");
    m_writer.IssueWriteL("B");
    m_socket.SetModeForTest(QIODevice::ReadWrite);
    // "abcde" takes 2 bytes; the tail's own write takes 1, which is not
    // looked at.
    m_socket.Script({2, 1});
    m_writer.IssueWriteL("C");
    // The second write is the unwritten tail, sent from the writer's copy.
    EXPECT_THAT(m_socket.m_writes, ElementsAre(QByteArray("abcde"), QByteArray("cde")));
    EXPECT_EQ(m_writer.QueuedCount(), 2);
    EXPECT_EQ(m_writer.WriteStatus(), CSocketsWriter::KWriteIdle);

    m_socket.m_writes.clear();
    m_writer.IssueWriteL("D");
    EXPECT_THAT(m_socket.m_writes, ElementsAre(QByteArray("B"), QByteArray("C"), QByteArray("D")));
    EXPECT_EQ(m_writer.QueuedCount(), 0);
}

TEST_F(SocketsWriterTest, WriteOfOneByteLessIsAShortWrite)
{
    m_socket.Script({3});
    m_writer.IssueWriteL("wxyz");
    EXPECT_THAT(m_socket.m_writes, ElementsAre(QByteArray("wxyz"), QByteArray("z")));
}

TEST_F(SocketsWriterTest, WriteOfZeroBytesSendsEverythingAgain)
{
    m_socket.Script({0});
    m_writer.IssueWriteL("xy");
    EXPECT_THAT(m_socket.m_writes, ElementsAre(QByteArray("xy"), QByteArray("xy")));
    EXPECT_EQ(m_writer.WriteStatus(), CSocketsWriter::KWriteIdle);
}

TEST_F(SocketsWriterTest, FailedWriteStallsTheQueueUntilStop)
{
    m_socket.Script({-1});
    m_writer.IssueWriteL("lost");
    EXPECT_EQ(m_writer.WriteStatus(), CSocketsWriter::KWriteBusy);
    m_writer.IssueWriteL("later1");
    m_writer.IssueWriteL("later2");
    EXPECT_THAT(m_socket.m_writes, ElementsAre(QByteArray("lost")));
    EXPECT_EQ(m_writer.QueuedCount(), 2);

    m_writer.Stop();
    EXPECT_EQ(m_writer.WriteStatus(), CSocketsWriter::KWriteIdle);
    EXPECT_EQ(m_writer.QueuedCount(), 0);
    m_writer.IssueWriteL("after");
    EXPECT_THAT(m_socket.m_writes, ElementsAre(QByteArray("lost"), QByteArray("after")));
}

TEST_F(SocketsWriterTest, StopDiscardsQueuedData)
{
    m_socket.SetModeForTest(QIODevice::ReadOnly);
    m_writer.IssueWriteL("one");
    m_writer.IssueWriteL("two");
    ASSERT_EQ(m_writer.QueuedCount(), 2);
    m_writer.Stop();
    EXPECT_EQ(m_writer.QueuedCount(), 0);
    m_socket.SetModeForTest(QIODevice::ReadWrite);
    m_writer.IssueWriteL("three");
    EXPECT_THAT(m_socket.m_writes, ElementsAre(QByteArray("three")));
}

TEST_F(SocketsWriterTest, ClearTransmitListEmptiesTheQueueOnly)
{
    m_socket.Script({-1});
    m_writer.IssueWriteL("busy");
    m_writer.IssueWriteL("queued");
    m_writer.ClearTransmitList();
    EXPECT_EQ(m_writer.QueuedCount(), 0);
    EXPECT_EQ(m_writer.WriteStatus(), CSocketsWriter::KWriteBusy);
}

TEST_F(SocketsWriterTest, OnDataSendAfterAFailedWriteSendsTheRestOfTheHeldArray)
{
    m_socket.Script({-1});
    m_writer.IssueWriteL("lost");
    m_writer.IssueWriteL("queued");
    // One byte of the failed array counts as written: the other three go
    // out from the writer's copy, the queue waits for the next IssueWriteL.
    m_writer.OnDataSend(1);
    EXPECT_THAT(m_socket.m_writes, ElementsAre(QByteArray("lost"), QByteArray("ost")));
    EXPECT_EQ(m_writer.WriteStatus(), CSocketsWriter::KWriteIdle);
    EXPECT_EQ(m_writer.QueuedCount(), 1);
}

TEST_F(SocketsWriterTest, OnDataSendOfTheWholeFailedArrayMovesOnToTheQueue)
{
    m_socket.Script({-1});
    m_writer.IssueWriteL("lost");
    m_writer.IssueWriteL("queued");
    m_writer.OnDataSend(4);
    EXPECT_THAT(m_socket.m_writes, ElementsAre(QByteArray("lost"), QByteArray("queued")));
    EXPECT_EQ(m_writer.WriteStatus(), CSocketsWriter::KWriteIdle);
    EXPECT_EQ(m_writer.QueuedCount(), 0);
}

// Nothing in the library sets a status of KWriteRefuse or above, so the rule
// IssueWriteL applies is checked on its own.
TEST(SocketsWriterStatusTest, StatusTwoOrMoreRefusesNewData)
{
    EXPECT_TRUE(velanet::WriterTakesData(CSocketsWriter::KWriteBusy));
    EXPECT_TRUE(velanet::WriterTakesData(CSocketsWriter::KWriteIdle));
    EXPECT_FALSE(velanet::WriterTakesData(CSocketsWriter::KWriteRefuse));
    EXPECT_FALSE(velanet::WriterTakesData(CSocketsWriter::KWriteRefuse + 1));
}

TEST_F(SocketsWriterTest, OnDataSendWhileIdleDoesNothing)
{
    m_writer.IssueWriteL("done");
    m_writer.OnDataSend(1);
    EXPECT_THAT(m_socket.m_writes, ElementsAre(QByteArray("done")));
    EXPECT_EQ(m_writer.WriteStatus(), CSocketsWriter::KWriteIdle);
}

TEST_F(SocketsWriterTest, OnDataSendIsASlotThatQtCanConnect)
{
    EXPECT_GE(m_writer.metaObject()->indexOfSlot("OnDataSend(qint64)"), 0);
    // Called through Qt while idle: the same as a direct call, nothing.
    m_writer.IssueWriteL("done");
    ASSERT_TRUE(QMetaObject::invokeMethod(&m_writer, "OnDataSend", Qt::DirectConnection, Q_ARG(qint64, 1)));
    EXPECT_THAT(m_socket.m_writes, ElementsAre(QByteArray("done")));
    EXPECT_EQ(m_writer.WriteStatus(), CSocketsWriter::KWriteIdle);
}

TEST_F(SocketsWriterTest, QueuedArraysShareTheCallersBytesButKeepTheirValue)
{
    m_socket.SetModeForTest(QIODevice::ReadOnly);
    QByteArray data("original");
    m_writer.IssueWriteL(data);
    data[0] = 'X';  // detaches the caller's copy
    m_socket.SetModeForTest(QIODevice::ReadWrite);
    m_writer.SendNextPacket();
    EXPECT_THAT(m_socket.m_writes, ElementsAre(QByteArray("original")));
}

TEST_F(SocketsWriterTest, LongQueueDrainsInOrderInOneCall)
{
    constexpr int KArrays = 100000;
    m_socket.SetModeForTest(QIODevice::ReadOnly);
    for (int i = 0; i < KArrays; ++i)
        m_writer.IssueWriteL(QByteArray::number(i));
    ASSERT_EQ(m_writer.QueuedCount(), KArrays);
    m_socket.SetModeForTest(QIODevice::ReadWrite);
    m_writer.SendNextPacket();
    ASSERT_EQ(m_socket.m_writes.size(), KArrays);
    for (int i = 0; i < KArrays; ++i)
        ASSERT_EQ(m_socket.m_writes[i], QByteArray::number(i)) << "array " << i;
    EXPECT_EQ(m_writer.QueuedCount(), 0);
}

TEST_F(SocketsWriterTest, DestructionFreesTheQueue)
{
    auto writer = std::make_unique<CSocketsWriter>(m_socket, m_notifier);
    m_socket.SetModeForTest(QIODevice::ReadOnly);
    writer->IssueWriteL("left");
    writer->IssueWriteL("behind");
    writer.reset();  // the sanitizer build reports any array left over
    EXPECT_TRUE(m_socket.m_writes.isEmpty());
}

TEST(SocketsWriterLoopbackTest, ConnectedSocketTakesEachArrayBeforeIssueWriteReturns)
{
    QTcpServer server;
    ASSERT_TRUE(server.listen(QHostAddress::LocalHost, 0));
    QTcpSocket client;
    client.connectToHost(QHostAddress::LocalHost, server.serverPort());
    ASSERT_TRUE(velatest::SpinUntil(
        [&] { return server.hasPendingConnections() && client.state() == QAbstractSocket::ConnectedState; },
        KDeadlineMs));
    std::unique_ptr<QTcpSocket> peer(server.nextPendingConnection());

    StrictMock<MockEngineNotifier> notifier;
    CSocketsWriter writer(client, notifier);
    writer.IssueWriteL("hello ");
    EXPECT_EQ(writer.QueuedCount(), 0);
    EXPECT_EQ(client.bytesToWrite(), 6);
    writer.IssueWriteL("world");
    EXPECT_EQ(writer.QueuedCount(), 0);
    EXPECT_EQ(client.bytesToWrite(), 11);

    QByteArray received;
    ASSERT_TRUE(velatest::SpinUntil(
        [&] {
            received += peer->readAll();
            return received.size() >= 11;
        },
        KDeadlineMs));
    EXPECT_EQ(received, QByteArray("hello world"));
}

}  // namespace
