// Lengths past 32 bits through the pool, against a scripted peer on
// 127.0.0.1: a body declared longer than it is fails like any short
// length-framed body (net error 34, never a completion), whatever the
// declared length (2^31 - 1, 2^31, 2^32 + 10, 2^63 - 1); a length the library
// cannot hold (2^64, thirty digits, a sign, no digit) fails with net error
// KErrorLengthUnrepresentable before any head or data report; a
// Content-Range past 4 GiB reaches the owner in the 64-bit head fields; a
// range request from a 64-bit offset puts every digit on the wire.

#include "src/MLHttpPool.h"

#include "src/DNSCache.h"
#include "src/HttpData.h"
#include "src/NetConstants.h"
#include "support/PoolRecorder.h"
#include "support/ScriptedPeer.h"
#include "support/TestSupport.h"

#include <QByteArray>
#include <QFile>

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace {

using velatest::PeerScript;
using velatest::ScriptedPeer;
using velatest::SpinUntil;

const int KId = 0x5107;
const int KDeadlineMs = 10000;

struct HeadSeen
{
    bool seen = false;
    int contentLength = 0;
    long long contentLength64 = 0;
    int rangeStart = 0;
    long long rangeStart64 = 0;
    int rangeTotal = 0;
    long long rangeTotal64 = 0;
};

class HttpLengthLimitsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_dir = std::make_unique<velatest::TempDir>();
        CDNSCache::SetCacheDirectory(m_dir->Path());
        m_recorder.m_onHeader = [this](int, CHttpResponseHead& head) {
            m_head.seen = true;
            m_head.contentLength = head.m_nContentLength;
            m_head.contentLength64 = head.m_nContentLength64;
            m_head.rangeStart = head.m_nRangeStart;
            m_head.rangeStart64 = head.m_nRangeStart64;
            m_head.rangeTotal = head.m_nRangeTotal;
            m_head.rangeTotal64 = head.m_nRangeTotal64;
            return 1;
        };
        m_pool.reset(CMLHttpPool::NewL(&m_recorder, nullptr, 1));
    }
    void TearDown() override
    {
        m_pool.reset();
        CDNSCache::ReleaseRegistered();
    }

    // GETs url and waits for the request's end; the trace of the request.
    std::vector<std::string> Fetch(const QString& url, const CQWString* recvFile = nullptr)
    {
        const QByteArray bytes = url.toUtf8();
        EXPECT_EQ(CMLHttpPool::KStarted, m_pool->DoGet(CQSString(bytes.constData(), bytes.size()), KId, recvFile));
        EXPECT_TRUE(SpinUntil([&] { return m_recorder.Done(KId); }, KDeadlineMs));
        // A second terminal report would come within these turns.
        velatest::ProcessPendingEvents();
        return Trace();
    }

    // The trace without the progress events (lookup, connect).
    std::vector<std::string> Trace()
    {
        std::vector<std::string> trace;
        for (const std::string& entry : m_recorder.Of(KId).trace) {
            if (entry.rfind("event ", 0) != 0)
                trace.push_back(entry);
        }
        return trace;
    }

    std::unique_ptr<velatest::TempDir> m_dir;
    velatest::PoolRecorder m_recorder;
    std::unique_ptr<CMLHttpPool> m_pool;
    HeadSeen m_head;
};

// ---------------------------------------------------------------- short bodies

struct ShortRow
{
    const char* name;
    const char* length;       // as declared
    long long length64;       // as the 64-bit head field holds it
    int length32;             // as the int head field holds it
};

void PrintTo(const ShortRow& row, std::ostream* os) { *os << row.name; }

class ShortBodyTest : public HttpLengthLimitsTest, public ::testing::WithParamInterface<ShortRow>
{
};

TEST_P(ShortBodyTest, FailsWithNetError34AndNeverCompletes)
{
    const ShortRow& row = GetParam();
    ScriptedPeer peer;
    peer.AddScript(PeerScript()
                       .ExpectHead()
                       .Send(QByteArray("HTTP/1.1 200 OK\r\nContent-Length: ") + row.length +
                             "\r\n\r\n0123456789")
                       .Close());
    ASSERT_TRUE(peer.Listen());
    velatest::TempDir files;
    const CQWString recvFile(files.File("body"));
    EXPECT_EQ((std::vector<std::string>{"header 200", "data", "net-error 34"}), Fetch(peer.Url("/short"), &recvFile));
    EXPECT_EQ(1, m_recorder.Of(KId).terminalReports);
    EXPECT_EQ(QByteArray("0123456789"), m_recorder.Of(KId).body);
    EXPECT_EQ(row.length64, m_head.contentLength64);
    EXPECT_EQ(row.length32, m_head.contentLength);
    // A failed body leaves no file that could pass for the whole.
    EXPECT_FALSE(QFile::exists(files.File("body")));
}

const ShortRow kShortRows[] = {
    {"largest-int", "2147483647", 2147483647LL, 2147483647},
    {"one-past-int", "2147483648", 2147483648LL, CHttpResponseHead::KIntSaturated},
    {"ten-past-32-bit", "4294967306", 4294967306LL, CHttpResponseHead::KIntSaturated},
    {"largest-63-bit", "9223372036854775807", 9223372036854775807LL, CHttpResponseHead::KIntSaturated},
};

INSTANTIATE_TEST_SUITE_P(Rows, ShortBodyTest, ::testing::ValuesIn(kShortRows),
                         [](const ::testing::TestParamInfo<ShortRow>& info) {
                             std::string name = info.param.name;
                             for (char& c : name)
                                 c = c == '-' ? '_' : c;
                             return name;
                         });

TEST_F(HttpLengthLimitsTest, ALengthOf32BitsPlusTenIsNotTen)
{
    // 2^32 + 10 once wrapped to 10 and this completed with 10 bytes.
    ScriptedPeer peer;
    peer.AddScript(
        PeerScript().ExpectHead().Send("HTTP/1.1 200 OK\r\nContent-Length: 4294967306\r\n\r\n0123456789").StaySilent());
    ASSERT_TRUE(peer.Listen());
    const QByteArray url = peer.Url("/wrap").toUtf8();
    ASSERT_EQ(CMLHttpPool::KStarted, m_pool->DoGet(CQSString(url.constData(), url.size()), KId, nullptr));
    ASSERT_TRUE(SpinUntil([&] { return m_recorder.Of(KId).body.size() == 10; }, KDeadlineMs));
    // The ten bytes are in and the peer waits: nothing has ended.
    velatest::ProcessPendingEvents();
    EXPECT_FALSE(m_recorder.Done(KId));
    EXPECT_EQ((std::vector<std::string>{"header 200", "data"}), Trace());
    EXPECT_EQ(10, m_recorder.Of(KId).counts.back());  // bytes so far, not the declared length
}

// ---------------------------------------------------------------- lengths past 63 bits

struct BadLengthRow
{
    const char* name;
    const char* length;
};

void PrintTo(const BadLengthRow& row, std::ostream* os) { *os << row.name; }

class BadLengthTest : public HttpLengthLimitsTest, public ::testing::WithParamInterface<BadLengthRow>
{
};

TEST_P(BadLengthTest, FailsOnceWithTheRepresentabilityError)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript()
                       .ExpectHead()
                       .Send(QByteArray("HTTP/1.1 200 OK\r\nContent-Length: ") + GetParam().length +
                             "\r\n\r\n0123456789")
                       .StaySilent());
    ASSERT_TRUE(peer.Listen());
    velatest::TempDir files;
    const CQWString recvFile(files.File("body"));
    EXPECT_EQ((std::vector<std::string>{"net-error " + std::to_string(velanet::KErrorLengthUnrepresentable)}),
              Fetch(peer.Url("/bad"), &recvFile));
    EXPECT_EQ(1, m_recorder.Of(KId).terminalReports);
    EXPECT_TRUE(m_recorder.Of(KId).body.isEmpty());
    EXPECT_FALSE(QFile::exists(files.File("body")));
    // The engine let the connection go and is free for the next request.
    EXPECT_TRUE(SpinUntil([&] { return m_pool->FindIdeEngine() != nullptr; }, KDeadlineMs));
}

const BadLengthRow kBadLengthRows[] = {
    {"one_past_63_bit", "9223372036854775808"},
    {"two_to_the_64", "18446744073709551616"},
    {"thirty_digits", "123456789012345678901234567890"},
    {"negative", "-10"},
    {"no_digit", "ten"},
};

INSTANTIATE_TEST_SUITE_P(Rows, BadLengthTest, ::testing::ValuesIn(kBadLengthRows),
                         [](const ::testing::TestParamInfo<BadLengthRow>& info) { return info.param.name; });

// ---------------------------------------------------------------- ranges past 4 GiB

TEST_F(HttpLengthLimitsTest, AContentRangePast4GiBReachesTheOwnerIn64Bits)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript()
                       .ExpectHead()
                       .Send("HTTP/1.1 206 Partial Content\r\n"
                             "Content-Range: bytes 4294967306-4294967315/5368709120\r\n"
                             "Content-Length: 10\r\n\r\n0123456789")
                       .Close());
    ASSERT_TRUE(peer.Listen());
    EXPECT_EQ((std::vector<std::string>{"header 206", "data", "complete"}), Fetch(peer.Url("/range")));
    ASSERT_TRUE(m_head.seen);
    EXPECT_EQ(4294967306LL, m_head.rangeStart64);
    EXPECT_EQ(5368709120LL, m_head.rangeTotal64);
    EXPECT_EQ(CHttpResponseHead::KIntSaturated, m_head.rangeStart);
    EXPECT_EQ(CHttpResponseHead::KIntSaturated, m_head.rangeTotal);
    EXPECT_EQ(10, m_head.contentLength);
    EXPECT_EQ(10, m_head.contentLength64);
    EXPECT_EQ(QByteArray("0123456789"), m_recorder.Of(KId).body);
}

TEST_F(HttpLengthLimitsTest, ARangeRequestFromA64BitOffset)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript()
                       .ExpectHead()
                       .Send("HTTP/1.1 206 Partial Content\r\n"
                             "Content-Range: bytes 2684354560-2684354562/2684354563\r\n"
                             "Content-Length: 3\r\n\r\nxyz")
                       .Close());
    ASSERT_TRUE(peer.Listen());
    const QByteArray url = peer.Url("/resume").toUtf8();
    ASSERT_EQ(CMLHttpPool::KStarted,
              m_pool->DoGetPartial64(CQSString(url.constData(), url.size()), KId, nullptr, 2684354560LL));
    ASSERT_TRUE(SpinUntil([&] { return m_recorder.Done(KId); }, KDeadlineMs));
    EXPECT_EQ((std::vector<std::string>{"header 206", "data", "complete"}), Trace());
    ASSERT_EQ(1, peer.Captured(0).size());
    const QByteArray request = peer.Captured(0).at(0);
    EXPECT_TRUE(request.contains("\r\nRange: bytes=2684354560-\r\n")) << velatest::Visible(request);
    EXPECT_EQ(2684354560LL, m_head.rangeStart64);
}

TEST_F(HttpLengthLimitsTest, TheIntOffsetFormStillAsksForItsOffset)
{
    ScriptedPeer peer;
    peer.AddScript(PeerScript()
                       .ExpectHead()
                       .Send("HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 2147483647-2147483647/2147483648\r\n"
                             "Content-Length: 1\r\n\r\nz")
                       .Close());
    ASSERT_TRUE(peer.Listen());
    const QByteArray url = peer.Url("/resume").toUtf8();
    ASSERT_EQ(CMLHttpPool::KStarted,
              m_pool->DoGetPartial(CQSString(url.constData(), url.size()), KId, nullptr, 2147483647));
    ASSERT_TRUE(SpinUntil([&] { return m_recorder.Done(KId); }, KDeadlineMs));
    ASSERT_EQ(1, peer.Captured(0).size());
    EXPECT_TRUE(peer.Captured(0).at(0).contains("\r\nRange: bytes=2147483647-\r\n"));
    EXPECT_EQ(2147483647, m_head.rangeStart);
    EXPECT_EQ(2147483647LL, m_head.rangeStart64);
    EXPECT_EQ(2147483648LL, m_head.rangeTotal64);
}

}  // namespace
