// CHttpData::GetChunkSize, and the HTTP engine's receive path (head; length,
// chunked and until-close bodies; gzip) fed through OnSocketEngine_ReceiveData
// the way the socket engine feeds it: pieces of at most 1024 bytes, nothing
// more after a 0 answer, and OnSocketEngine_ReceivDataEnd when the input
// (the connection) ends. The input after the split plan (FuzzInput.h) is the
// response. Run A cuts it into 1024-byte pieces, run B into the planned
// pieces; in both, the last piece of every head (interim heads included)
// ends right after its blank line.
// Invariants: a chunk-size line lies inside its input; at most one final
// report, nothing after it; decompressed pieces of at most 1024 bytes; the
// same outcome in both runs, and the same body (a prefix of the other where
// pieces may cut it: bytes past Content-Length, gzip bodies).

#include "fuzz/FuzzInput.h"
#include "src/MLHttpEngine.h"

#include <string>
#include <vector>

namespace {

constexpr int KPiece = velanet::KSliceSize;

struct Recorder : MHttpObserver
{
    std::string body;
    std::vector<int> outcome;  // report kind and value, in order
    bool finished = false;
    bool gzip = false;

    void Final(int kind, int value)
    {
        FUZZ_CHECK(!finished);
        finished = true;
        outcome.push_back(kind);
        outcome.push_back(value);
    }
    int OnHttpEngine_HttpError(int, int status) override { Final(1, status); return 0; }
    int OnHttpEngine_Complete(int, CQWString&) override { Final(2, 0); return 0; }
    int OnHttpEngine_NetEvent(int, int event) override { Final(3, event); return 0; }
    int OnHttpEngine_NetError(int, int event) override { Final(4, event); return 0; }
    int OnHttpEngine_URLChange(int, CQSString&) override { Final(5, 0); return 0; }
    int OnHttpEngine_RecvHeader(int, CHttpResponseHead& head) override
    {
        FUZZ_CHECK(!finished && outcome.empty());
        outcome.push_back(0);
        outcome.push_back(head.m_nStatusCode);
        gzip = head.m_nContentEncoding == CHttpResponseHead::KContentEncodingGzip;
        return 1;
    }
    int OnHttpEngine_ResponseData(int, unsigned char* data, int len, int) override
    {
        FUZZ_CHECK(!finished && len > 0 && (!gzip || len <= velanet::KDecompressPieceSize));
        body.append(reinterpret_cast<const char*>(data), static_cast<std::size_t>(len));
        return 1;
    }
};

// One exchange: every head in pieces that end at its blank line, then the
// body.
Recorder Run(const std::uint8_t* resp, std::size_t size, const std::vector<std::size_t>& headEnds,
             const fuzzinput::SplitPlan* plan)
{
    Recorder rec;
    std::unique_ptr<CMLHttpEngine> engine(CMLHttpEngine::NewL());
    engine->SetObserver(&rec);
    engine->SetRequestID(velanet::KIdCurrentPage);  // redirects are reported, not followed
    FUZZ_CHECK(engine->DoGet("http://127.0.0.1:1/f", nullptr, -1) != 0);
    engine->GetSocketEngine()->CancelEngine();  // no network: the bytes come from here

    std::size_t pos = 0;
    std::size_t piece = 0;
    int result = CMLHttpEngine::KGoOn;
    while (result != CMLHttpEngine::KStop && pos < size) {
        std::size_t limit = size;
        for (const std::size_t end : headEnds) {
            if (end > pos) {
                limit = end;
                break;
            }
        }
        const std::size_t n = std::min<std::size_t>(plan ? plan->Piece(piece++, KPiece) : KPiece, limit - pos);
        auto block = fuzzinput::Copy(resp + pos, n);
        result = engine->OnSocketEngine_ReceiveData(block.get(), static_cast<int>(n));
        pos += n;
    }
    if (result != CMLHttpEngine::KStop)
        (void)engine->OnSocketEngine_ReceivDataEnd();
    engine.reset();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return rec;
}

bool IsPrefix(const std::string& a, const std::string& b)
{
    return a.size() <= b.size() ? b.compare(0, a.size(), a) == 0 : IsPrefix(b, a);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzzinput::EnsureApplication();
    const fuzzinput::SplitPlan plan = fuzzinput::ReadSplitPlan(data, size);
    const std::uint8_t* resp = plan.payload;
    const std::size_t n = plan.payloadSize;

    auto whole = fuzzinput::Copy(resp, n);
    int used = 0;
    if (CHttpData::GetChunkSize(whole.get(), static_cast<int>(n), used) >= 0)
        FUZZ_CHECK(used >= 2 && static_cast<std::size_t>(used) <= n);

    // Where each head ends: the first blank line and, after each interim
    // (1xx) head, the next one, up to the final head. Both runs end a piece
    // at each of them, so every head is parsed from exactly its own bytes
    // (its fields are searched in all the bytes at hand, body bytes too).
    // Interim heads are skipped the way the engine skips them: the next head
    // starts right after the interim one.
    const std::string text(reinterpret_cast<const char*>(resp), n);
    std::vector<std::size_t> headEnds;
    bool comparable = n <= static_cast<std::size_t>(velanet::KRecvBufferSize);
    CHttpData parser;
    CHttpResponseHead head;
    std::size_t headStart = 0;
    for (;;) {
        const std::size_t blank = text.find("\r\n\r\n", headStart);
        if (blank == std::string::npos) {
            comparable = false;
            break;
        }
        const std::size_t end = blank + 4;
        headEnds.push_back(end);
        if (parser.GetResponseHead(whole.get() + headStart, static_cast<int>(end - headStart), head) !=
            CHttpData::KHeadComplete) {
            comparable = false;
            break;
        }
        const int span = static_cast<int>(end - headStart);
        if (head.m_nStatusCode < 100 || head.m_nStatusCode > 199 || head.m_nStatusCode == 101 ||
            head.m_nHeadLen < 1 || head.m_nHeadLen > span)
            break;
        headStart += static_cast<std::size_t>(head.m_nHeadLen);
    }
    const Recorder a = Run(resp, n, headEnds, nullptr);
    const Recorder b = Run(resp, n, headEnds, &plan);
    if (!comparable)
        return 0;
    const std::size_t finalEnd = headEnds.back();
    // By length, the pieces decide how much past Content-Length is taken
    // (completion is tested at the start of each piece): with a gzip body
    // that decides the outcome too.
    const bool byLength = head.m_nBodyType == CHttpResponseHead::KBodyByLength;
    const bool pastLength = byLength && n - finalEnd > static_cast<std::size_t>(std::max(head.m_nContentLength, 0));
    if (pastLength && a.gzip)
        return 0;
    FUZZ_CHECK(a.outcome == b.outcome);
    if (pastLength || a.gzip)
        FUZZ_CHECK(IsPrefix(a.body, b.body));
    else
        FUZZ_CHECK(a.body == b.body);
    return 0;
}
