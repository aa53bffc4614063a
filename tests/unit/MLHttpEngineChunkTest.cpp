// The chunked body reader of CMLHttpEngine, as a table of named rows, each
// run four ways: the whole response in one read, one byte per read, every
// two-way split, and 20 random splits (seed printed; VELANET_SPLIT_SEED
// replays it). The test plays the socket engine: each read reaches
// OnSocketEngine_ReceiveData in pieces of at most 1024 bytes, and nothing
// more is handed up once a piece answers 0.
//
// Expected reports, from the chunked framing (RFC 9112, section 7.1):
//
//   chunked-body = *chunk last-chunk trailer-section CRLF
//   chunk        = chunk-size [ chunk-ext ] CRLF chunk-data CRLF
//   last-chunk   = 1*("0") [ chunk-ext ] CRLF
//
// the head once, then each chunk's data in order (a piece never runs from
// one chunk into the next, and no piece is empty), then one completion as
// soon as the last-chunk line is complete. The read that holds the end of
// that line answers 0; trailers and any bytes behind them are never
// reported. Every row is written out by hand, with its chunks beside it.

#include "src/MLHttpEngine.h"

#include "support/TestSupport.h"

#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace {

const int KId = 0x77;
const int KPieceSize = 1024;  // the socket engine hands up at most this much at once
const int KStop = 0;
const char KHead[] = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nContent-Type: text/plain\r\n\r\n";

struct ChunkRow
{
    std::string name;
    std::string body;                 // the chunked body up to the end of the last-chunk line
    std::vector<std::string> chunks;  // each chunk's data, in order
    // Trailers, blank line, and bytes behind them: never reported. They hold
    // no head field name, since the head's fields are looked for in the
    // whole buffer, body bytes included.
    std::string after;
};

void PrintTo(const ChunkRow& row, std::ostream* os)
{
    *os << row.name;
}

std::string Filled(std::size_t n, char first)
{
    std::string s(n, '\0');
    for (std::size_t i = 0; i < n; ++i)
        s[i] = static_cast<char>(first + static_cast<char>(i % 23));
    return s;
}

std::vector<ChunkRow> Rows()
{
    const std::string k3000 = Filled(3000, 'a');
    const std::string k1024 = Filled(1024, 'A');
    const std::string k1025 = Filled(1025, 'b');
    const std::string k26 = Filled(26, 'c');
    return {
        {"one-chunk", "5\r\nhello\r\n0\r\n", {"hello"}, "\r\n"},
        {"several-chunks-in-one-read", "3\r\nabc\r\n4\r\ndefg\r\n1\r\nh\r\n0\r\n", {"abc", "defg", "h"}, "\r\n"},
        {"zero-length-body", "0\r\n", {}, "\r\n"},
        {"size-lower-case-hex", "1a\r\n" + k26 + "\r\n0\r\n", {k26}, "\r\n"},
        {"size-upper-case-hex", "1A\r\n" + k26 + "\r\n0\r\n", {k26}, "\r\n"},
        {"size-leading-zeros", "001a\r\n" + k26 + "\r\n0000\r\n", {k26}, "\r\n"},
        {"size-one-digit-edge", "f\r\n" + k26.substr(0, 15) + "\r\n10\r\n" + k26.substr(0, 16) + "\r\n0\r\n",
         {k26.substr(0, 15), k26.substr(0, 16)}, "\r\n"},
        {"chunk-extension", "5;name=value\r\nhello\r\n0\r\n", {"hello"}, "\r\n"},
        {"chunk-extension-quoted", "6;a=1;b=\"x y\"\r\nworld!\r\n0;last=yes\r\n", {"world!"}, "\r\n"},
        {"trailer-after-last-chunk", "4\r\nwiki\r\n0\r\n", {"wiki"}, "Expires: never\r\nX-Check: 1\r\n\r\n"},
        {"bytes-after-last-chunk", "2\r\nok\r\n0\r\n", {"ok"}, "\r\n5\r\nlater\r\n0\r\n\r\nnot read"},
        {"data-that-looks-like-the-last-chunk", "5\r\n0\r\n\r\n\r\n3\r\n0\r\n\r\n0\r\n", {"0\r\n\r\n", "0\r\n"},
         "\r\n"},
        {"one-byte-chunks", "1\r\na\r\n1\r\nb\r\n1\r\nc\r\n0\r\n", {"a", "b", "c"}, "\r\n"},
        {"chunk-of-1024-bytes", "400\r\n" + k1024 + "\r\n0\r\n", {k1024}, "\r\n"},
        {"chunk-of-1025-bytes", "401\r\n" + k1025 + "\r\n0\r\n", {k1025}, "\r\n"},
        {"chunk-of-3000-bytes", "bb8\r\n" + k3000 + "\r\n0\r\n", {k3000}, "\r\n"},
        {"large-chunk-then-small", "bb8\r\n" + k3000 + "\r\n3\r\nend\r\n0\r\n", {k3000, "end"}, "\r\n"},
    };
}

// What the observer heard, in order.
struct Recording : MHttpObserver
{
    int heads = 0;
    int completions = 0;
    int others = 0;  // errors, events, redirects: none expected
    std::vector<std::string> pieces;
    std::vector<int> counts;
    bool afterCompletion = false;  // a report came after the completion

    void Note() { afterCompletion = afterCompletion || completions > 0; }
    int OnHttpEngine_HttpError(int, int) override { Note(); ++others; return 0; }
    int OnHttpEngine_Complete(int id, CQWString&) override
    {
        Note();
        EXPECT_EQ(KId, id);
        ++completions;
        return 0;
    }
    int OnHttpEngine_NetEvent(int, int) override { Note(); ++others; return 0; }
    int OnHttpEngine_NetError(int, int) override { Note(); ++others; return 0; }
    int OnHttpEngine_URLChange(int, CQSString&) override { Note(); ++others; return 0; }
    int OnHttpEngine_RecvHeader(int id, CHttpResponseHead& head) override
    {
        Note();
        EXPECT_EQ(KId, id);
        EXPECT_EQ(200, head.m_nStatusCode);
        ++heads;
        return 1;
    }
    int OnHttpEngine_ResponseData(int id, unsigned char* data, int len, int n) override
    {
        Note();
        EXPECT_EQ(KId, id);
        pieces.emplace_back(reinterpret_cast<const char*>(data), static_cast<std::size_t>(std::max(len, 0)));
        counts.push_back(n);
        return 1;
    }
};

// One response fed to a fresh engine in the reads between the cuts.
struct FeedRun
{
    Recording rec;
    std::size_t stoppedAt = 0;  // end of the read that answered 0 (0: none did)
    bool idleAfter = false;
};

std::unique_ptr<FeedRun> Feed(const std::string& response, const std::vector<std::size_t>& cuts)
{
    auto run = std::make_unique<FeedRun>();
    std::unique_ptr<CMLHttpEngine> engine(CMLHttpEngine::NewL());
    engine->SetObserver(&run->rec);
    engine->SetRequestID(KId);
    EXPECT_NE(0, engine->DoGet("http://127.0.0.1:1/chunked", nullptr, -1));
    engine->GetSocketEngine()->CancelEngine();  // the bytes come from here, not from a socket

    std::vector<std::size_t> ends(cuts);
    ends.push_back(response.size());
    std::size_t start = 0;
    for (const std::size_t end : ends) {
        int result = 1;
        for (std::size_t pos = start; pos < end && result != KStop;) {
            const std::size_t n = std::min<std::size_t>(KPieceSize, end - pos);
            std::unique_ptr<unsigned char[]> piece(new unsigned char[n]);
            std::copy(response.begin() + static_cast<std::ptrdiff_t>(pos),
                      response.begin() + static_cast<std::ptrdiff_t>(pos + n), piece.get());
            result = engine->OnSocketEngine_ReceiveData(piece.get(), static_cast<int>(n));
            pos += n;
        }
        if (result == KStop) {
            run->stoppedAt = end;
            break;
        }
        start = end;
    }
    run->idleAfter = engine->IsIdle() && engine->GetState() == CMLHttpEngine::HES_Idle;
    return run;
}

class ChunkedBodyTest : public ::testing::TestWithParam<ChunkRow>
{
protected:
    std::string Response() const { return std::string(KHead) + GetParam().body + GetParam().after; }
    // Offset just past the last-chunk line: the read holding it completes.
    std::size_t CompleteAt() const { return std::string(KHead).size() + GetParam().body.size(); }

    void Check(const std::vector<std::size_t>& cuts)
    {
        const ChunkRow& row = GetParam();
        SCOPED_TRACE(velatest::CutsText(cuts));
        const std::unique_ptr<FeedRun> run = Feed(Response(), cuts);
        const Recording& rec = run->rec;
        EXPECT_EQ(1, rec.heads);
        EXPECT_EQ(1, rec.completions);
        EXPECT_EQ(0, rec.others);
        EXPECT_FALSE(rec.afterCompletion);
        EXPECT_TRUE(run->idleAfter);

        // The read that answers 0 is the one holding the end of the last-chunk line.
        std::size_t expectedStop = Response().size();
        for (const std::size_t c : cuts) {
            if (c >= CompleteAt()) {
                expectedStop = c;
                break;
            }
        }
        EXPECT_EQ(expectedStop, run->stoppedAt);

        // Each piece is the next part of the current chunk; together they are every chunk.
        std::size_t chunk = 0;
        std::size_t offset = 0;
        for (const std::string& piece : rec.pieces) {
            ASSERT_FALSE(piece.empty());
            ASSERT_LT(chunk, row.chunks.size()) << "a piece after the last chunk: " << velatest::Visible(
                                                       reinterpret_cast<const unsigned char*>(piece.data()),
                                                       static_cast<int>(piece.size()));
            ASSERT_LE(offset + piece.size(), row.chunks[chunk].size()) << "a piece runs into the next chunk";
            ASSERT_EQ(row.chunks[chunk].substr(offset, piece.size()), piece);
            offset += piece.size();
            if (offset == row.chunks[chunk].size()) {
                ++chunk;
                offset = 0;
            }
        }
        EXPECT_EQ(row.chunks.size(), chunk) << "chunks delivered whole";
        EXPECT_EQ(0u, offset);
        // The count climbs with the reads, never within one.
        EXPECT_TRUE(std::is_sorted(rec.counts.begin(), rec.counts.end()));
    }
};

TEST_P(ChunkedBodyTest, Whole)
{
    Check({});
    // Within one read of at most one piece, each chunk is one report, all
    // with the same count.
    if (Response().size() <= static_cast<std::size_t>(KPieceSize)) {
        const std::unique_ptr<FeedRun> run = Feed(Response(), {});
        EXPECT_EQ(GetParam().chunks, run->rec.pieces);
        EXPECT_TRUE(std::all_of(run->rec.counts.begin(), run->rec.counts.end(), [](int n) { return n == 1; }));
    }
}

TEST_P(ChunkedBodyTest, OneBytePerRead)
{
    std::vector<std::size_t> cuts;
    for (std::size_t i = 1; i < Response().size(); ++i)
        cuts.push_back(i);
    Check(cuts);
}

TEST_P(ChunkedBodyTest, EveryTwoWaySplit)
{
    for (std::size_t i = 1; i < Response().size(); ++i) {
        Check({i});
        if (HasFatalFailure() || HasNonfatalFailure())
            return;  // one split is enough to read
    }
}

TEST_P(ChunkedBodyTest, TwentyRandomSplits)
{
    std::mt19937 random(velatest::SplitSeed());
    for (int round = 0; round < 20; ++round)
        Check(velatest::RandomCuts(random, Response().size(), 64));
}

INSTANTIATE_TEST_SUITE_P(Rows, ChunkedBodyTest, ::testing::ValuesIn(Rows()),
                         [](const ::testing::TestParamInfo<ChunkRow>& info) {
                             std::string name = info.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

// ------------------------------------------------------------ no notifier

// An engine made over an adapter without a notifier runs a real exchange on
// 127.0.0.1: the request goes out, and the head's report, answered 0 by the
// adapter, ends the request quietly: the engine disconnects and is idle.
TEST(EngineWithoutNotifierTest, ARealResponseStopsAtTheHead)
{
    QTcpServer server;
    ASSERT_TRUE(server.listen(QHostAddress::LocalHost, 0));
    std::unique_ptr<CMLHttpEngine> engine(CMLHttpEngine::NewL(static_cast<MHttpNotifier*>(nullptr)));
    ASSERT_NE(nullptr, engine);
    engine->SetRequestID(KId);
    const std::string url = "http://127.0.0.1:" + std::to_string(server.serverPort()) + "/quiet";
    ASSERT_NE(0, engine->DoGet(url.c_str(), nullptr, -1));
    EXPECT_FALSE(engine->IsIdle());

    ASSERT_TRUE(velatest::SpinUntil([&] { return server.hasPendingConnections(); }));
    std::unique_ptr<QTcpSocket> peer(server.nextPendingConnection());
    QByteArray request;
    ASSERT_TRUE(velatest::SpinUntil([&] {
        request += peer->readAll();
        return request.contains("\r\n\r\n");
    }));
    EXPECT_TRUE(request.startsWith("GET /quiet HTTP/1.1\r\n")) << velatest::Visible(request);

    peer->write("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello");
    ASSERT_TRUE(velatest::SpinUntil([&] { return engine->IsIdle(); }));
    EXPECT_EQ(CMLHttpEngine::HES_HttpRequest, engine->GetState());  // a quiet stop keeps the request state
    // The engine let go of the connection.
    ASSERT_TRUE(velatest::SpinUntil([&] { return peer->state() == QAbstractSocket::UnconnectedState; }));
}

}  // namespace
