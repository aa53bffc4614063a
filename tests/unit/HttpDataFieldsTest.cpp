// Response field parsers of CHttpData, the field matching helpers behind
// them, and the chunk-size line reader.

#include "src/CookieHolder.h"
#include "src/HttpData.h"
#include "src/internal/HeadMatch_p.h"

#include "support/HeapWatch.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

using velanet::headmatch::FieldValue;
using velanet::headmatch::FindCrLf;
using velanet::headmatch::FindExact;
using velanet::headmatch::FindLiteral;
using velanet::headmatch::FindField;
using velanet::headmatch::FindNoCase;
using velanet::headmatch::KNotFound;
using velanet::headmatch::MakeNoCaseText;
using velanet::headmatch::NoCaseText;

// An exactly sized heap copy of the bytes, so that AddressSanitizer reports
// any read past the length the parser was given.
class Bytes
{
public:
    explicit Bytes(const std::string& text)
        : m_len(static_cast<int>(text.size())), m_data(new unsigned char[text.size()])
    {
        text.copy(reinterpret_cast<char*>(m_data.get()), text.size());
    }
    unsigned char* Data() { return m_data.get(); }
    int Len() const { return m_len; }
    std::string Str() const
    {
        return std::string(reinterpret_cast<const char*>(m_data.get()), static_cast<size_t>(m_len));
    }

private:
    int m_len;
    std::unique_ptr<unsigned char[]> m_data;
};

std::string Str(const CQSString& s)
{
    return std::string(s.GetDataPtr(), static_cast<size_t>(s.GetLength()));
}

std::vector<std::string> Lines(const CHttpResponseHead& head)
{
    std::vector<std::string> lines;
    POSITION pos = head.m_listCookies.GetHeadPosition();
    while (pos)
        lines.push_back(Str(*head.m_listCookies.GetNext(pos)));
    return lines;
}

template <class Row>
std::string RowName(const ::testing::TestParamInfo<Row>& info)
{
    std::string name = info.param.name;
    for (char& c : name) {
        if (!std::isalnum(static_cast<unsigned char>(c)))
            c = '_';
    }
    return name;
}

// The cookie calendar: 30-day months (month index 0..11), 365-day years,
// the day added as it stands.
unsigned int CookieSeconds(int year, int monthIndex, int day, int hour, int minute, int second)
{
    return static_cast<unsigned int>(monthIndex) * 2592000u + static_cast<unsigned int>(day) * 86400u +
           static_cast<unsigned int>(hour) * 3600u + static_cast<unsigned int>(minute) * 60u +
           static_cast<unsigned int>(second) + static_cast<unsigned int>(year - 1970) * 31536000u;
}

// ============================================================ matching helpers

// The definition of a case-insensitive search, written plainly.
int ReferenceFindNoCase(const std::string& buf, const std::string& text, int start)
{
    auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; };
    for (int i = start < 0 ? 0 : start; i + static_cast<int>(text.size()) <= static_cast<int>(buf.size()); ++i) {
        bool same = true;
        for (size_t k = 0; k < text.size() && same; ++k)
            same = lower(buf[static_cast<size_t>(i) + k]) == lower(text[k]);
        if (same)
            return i;
    }
    return -1;
}

struct FindRow
{
    const char* name;
    std::string buf;
    int start;
    int expected;
};

void PrintTo(const FindRow& row, std::ostream* os) { *os << row.name; }

constexpr NoCaseText KContentLengthText = MakeNoCaseText("Content-Length:");  // colon anchor
constexpr NoCaseText KChunkedText = MakeNoCaseText("chunked");                // letters only

class HeadMatchFindField : public ::testing::TestWithParam<FindRow>
{
};

TEST_P(HeadMatchFindField, ColonAnchoredText)
{
    const FindRow& row = GetParam();
    Bytes bytes(row.buf);
    EXPECT_EQ(row.expected, FindNoCase(bytes.Data(), bytes.Len(), KContentLengthText, row.start));
}

const FindRow kFindRows[] = {
    {"at-start", "Content-Length: 5\r\n", 0, 0},
    {"any-case", "x\r\ncOnTeNt-lEnGtH: 5\r\n", 0, 3},
    {"not-anchored-to-line-start", "X-Content-Length: 5\r\n", 0, 2},
    {"first-of-two", "content-length:1 CONTENT-LENGTH:2", 0, 0},
    {"start-skips-first", "content-length:1 CONTENT-LENGTH:2", 1, 17},
    {"whole-buffer-is-the-text", "content-length:", 0, 0},
    {"cut-one-byte-short", "content-length", 0, -1},
    {"colon-elsewhere-only", "Content-Type: a\r\nLength: 1\r\n", 0, -1},
    {"near-miss-before-match", "Content-Lengt: Content-Length:", 0, 15},
    {"empty-buffer", "", 0, -1},
    {"start-past-end", "Content-Length:", 16, -1},
    {"start-at-last-candidate", "xContent-Length:", 1, 1},
    {"high-bytes-do-not-fold", "Content-Length\xba", 0, -1},
    {"nul-bytes-are-ordinary", std::string("\0\0Content-Length:", 17), 0, 2},
};

INSTANTIATE_TEST_SUITE_P(Rows, HeadMatchFindField, ::testing::ValuesIn(kFindRows), RowName<FindRow>);

TEST(HeadMatch, LetterOnlyTextFollowsBothCases)
{
    const std::string buf = "xx CHUNKED cHunked chunked";
    Bytes bytes(buf);
    EXPECT_EQ(3, FindNoCase(bytes.Data(), bytes.Len(), KChunkedText, 0));
    EXPECT_EQ(11, FindNoCase(bytes.Data(), bytes.Len(), KChunkedText, 4));
    EXPECT_EQ(19, FindNoCase(bytes.Data(), bytes.Len(), KChunkedText, 12));
    EXPECT_EQ(-1, FindNoCase(bytes.Data(), bytes.Len(), KChunkedText, 20));
    Bytes cut(std::string("Chunke"));
    EXPECT_EQ(-1, FindNoCase(cut.Data(), cut.Len(), KChunkedText, 0));
}

TEST(HeadMatch, AnchorIsACaseFreeByte)
{
    EXPECT_EQ(14, KContentLengthText.anchor);  // the colon
    EXPECT_EQ(-1, KChunkedText.anchor);        // letters only
    EXPECT_EQ(4, MakeNoCaseText("HTTP/").anchor);
    EXPECT_EQ(8, MakeNoCaseText("filename=").anchor);
    EXPECT_EQ(13, MakeNoCaseText("Content-Range: bytes").anchor);
    // Without a colon, the first byte that is neither a letter nor a blank.
    EXPECT_EQ(1, MakeNoCaseText("a_b c").anchor);
    EXPECT_EQ(3, MakeNoCaseText("ab {c").anchor);
    // Letters and blanks only: the first blank; letters only: none.
    EXPECT_EQ(3, MakeNoCaseText("max age").anchor);
    EXPECT_EQ(-1, MakeNoCaseText("chunked").anchor);
}

TEST(HeadMatch, TextOfLettersAndBlanksIsFoundInAnyCase)
{
    const NoCaseText text = MakeNoCaseText("max age");
    Bytes bytes(std::string("maxage=1, MAX AGE=2"));
    EXPECT_EQ(10, FindNoCase(bytes.Data(), bytes.Len(), text));
    EXPECT_EQ(10, velanet::headmatch::FindNoCaseByMemchr(bytes.Data(), bytes.Len(), text));
}

TEST(HeadMatch, EmptyTextIsFoundAtTheStartAndANegativeLengthNowhere)
{
    Bytes bytes(std::string("abc"));
    EXPECT_EQ(0, FindExact(bytes.Data(), bytes.Len(), "", 0));
    EXPECT_EQ(2, FindExact(bytes.Data(), bytes.Len(), "", 0, 2));
    EXPECT_EQ(3, FindExact(bytes.Data(), bytes.Len(), "", 0, 3));
    EXPECT_EQ(-1, FindExact(bytes.Data(), bytes.Len(), "", 0, 4));
    EXPECT_EQ(-1, FindExact(bytes.Data(), bytes.Len(), "abc", -1));
    EXPECT_EQ(-1, FindExact(bytes.Data(), -1, "a", 1));
    EXPECT_TRUE(velanet::headmatch::StartsWithNoCase(bytes.Data(), bytes.Len(), "", 0));
    EXPECT_TRUE(velanet::headmatch::StartsWithNoCase(bytes.Data(), bytes.Len(), "AB", 2));
    EXPECT_FALSE(velanet::headmatch::StartsWithNoCase(bytes.Data(), bytes.Len(), "abcd", 4));
}

// A position that passes both quick probes but is no match, in a block of
// sixty-four with no match, and the real occurrence blocks later.
TEST(HeadMatch, FalseCandidateBeforeTheMatchIsPassedOver)
{
    for (int at = 0; at < 64; ++at) {
        std::string buf(static_cast<size_t>(at), 'y');
        buf += "cxxxxxxxxxxxxx:";
        buf += std::string(100, 'y');
        const int expected = static_cast<int>(buf.size());
        buf += "Content-Length:";
        Bytes bytes(buf);
        EXPECT_EQ(expected, FindNoCase(bytes.Data(), bytes.Len(), KContentLengthText)) << at;
        EXPECT_EQ(expected, FindNoCase(bytes.Data(), bytes.Len(), KContentLengthText, at)) << at;
    }
}

TEST(HeadMatch, AgreesWithThePlainDefinitionOnRandomText)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    // A small alphabet so that near misses and matches are frequent; lengths
    // on both sides of the sixteen-position steps.
    const std::string alphabet = "cCoOnNtTeE-lLgGhH:kKdDuU \r\n\xe3\xc3";
    const NoCaseText texts[] = {KContentLengthText, KChunkedText, MakeNoCaseText("Set-Cookie:"),
                                MakeNoCaseText("no"), MakeNoCaseText("e"), MakeNoCaseText("-"),
                                MakeNoCaseText("\r\n\r\n")};
    for (int round = 0; round < 4000; ++round) {
        std::string buf(rng() % 200, ' ');
        for (char& c : buf)
            c = alphabet[rng() % alphabet.size()];
        for (int k = static_cast<int>(rng() % 3); k > 0; --k)
            buf.insert(rng() % (buf.size() + 1), (rng() % 2) ? "CONTENT-length:" : "chUNKed");
        Bytes bytes(buf);
        for (const NoCaseText& text : texts) {
            const std::string pattern(text.text, static_cast<size_t>(text.len));
            const int start = static_cast<int>(rng() % (buf.size() + 2)) - 1;
            const int expected = ReferenceFindNoCase(buf, pattern, start);
            EXPECT_EQ(expected, FindNoCase(bytes.Data(), bytes.Len(), text, start))
                << "text " << velatest::Visible(reinterpret_cast<const unsigned char*>(text.text), text.len)
                << " start " << start << " in " << velatest::Visible(bytes.Data(), bytes.Len());
            EXPECT_EQ(expected, velanet::headmatch::FindNoCaseByMemchr(bytes.Data(), bytes.Len(), text, start));
            const size_t exact = buf.find(pattern, static_cast<size_t>(start < 0 ? 0 : start));
            EXPECT_EQ(exact == std::string::npos ? -1 : static_cast<int>(exact),
                      FindExact(bytes.Data(), bytes.Len(), text.text, text.len, start))
                << "exact " << pattern << " start " << start;
        }
    }
}

TEST(HeadMatch, ExactSearchAndLineEnds)
{
    Bytes bytes(std::string("a\rb\r\nc\n\r\n"));
    EXPECT_EQ(3, FindCrLf(bytes.Data(), bytes.Len()));
    EXPECT_EQ(7, FindCrLf(bytes.Data(), bytes.Len(), 4));
    EXPECT_EQ(-1, FindCrLf(bytes.Data(), bytes.Len(), 8));
    EXPECT_EQ(-1, FindLiteral(bytes.Data(), bytes.Len(), "B"));
    EXPECT_EQ(2, FindLiteral(bytes.Data(), bytes.Len(), "b"));
    EXPECT_EQ(7, FindLiteral(bytes.Data(), bytes.Len(), "\r\n", 4));
    EXPECT_EQ(5, FindExact(bytes.Data(), bytes.Len(), "c\nX", 2, 1));
    EXPECT_EQ(-1, FindCrLf(nullptr, 0));
}

TEST(HeadMatch, FieldValueRunsToTheNextLineEnd)
{
    Bytes bytes(std::string("X: 1\r\nContent-Length: 12 \r\nY"));
    FieldValue value;
    ASSERT_TRUE(FindField(bytes.Data(), bytes.Len(), KContentLengthText, 0, value));
    EXPECT_EQ(6, value.textStart);
    EXPECT_EQ(" 12 ", bytes.Str().substr(static_cast<size_t>(value.start), static_cast<size_t>(value.Length())));
}

TEST(HeadMatch, EmptyValueOrMissingLineEndIsAbsent)
{
    FieldValue value;
    Bytes empty(std::string("Content-Length:\r\nContent-Length: 5\r\n"));
    // The first occurrence decides; a later one with a value is not used.
    EXPECT_FALSE(FindField(empty.Data(), empty.Len(), KContentLengthText, 0, value));
    Bytes open(std::string("Content-Length: 5"));
    EXPECT_FALSE(FindField(open.Data(), open.Len(), KContentLengthText, 0, value));
    Bytes lfOnly(std::string("Content-Length: 5\n\n"));
    EXPECT_FALSE(FindField(lfOnly.Data(), lfOnly.Len(), KContentLengthText, 0, value));
}

// ============================================================ every prefix
//
// A field parser reads the whole buffer it is given; the engine calls it on
// a growing buffer, so every split of the bytes comes down to a prefix
// parsed whole. A row is checked on every prefix of its bytes: the
// field is absent until the prefix holds the line end that closes its value,
// and from then on the result is the one of the whole buffer. The bytes are
// never changed.

struct PrefixRow
{
    const char* name;
    std::string bytes;
    std::string completeAfter;  // the result is final once the prefix holds this
    std::string (*parse)(unsigned char* buf, int len);
    std::string whole;
    std::string absent;
};

void PrintTo(const PrefixRow& row, std::ostream* os) { *os << row.name; }

std::string ParseLength(unsigned char* buf, int len)
{
    CHttpData data;
    CHttpResponseHead head;
    int n = -7;
    const int r = data.GetContentLenght(buf, len, n, head);
    std::ostringstream os;
    os << "ret=" << r << " n=" << n << " length=" << head.m_nContentLength << " framing=" << head.m_nBodyType;
    return os.str();
}

std::string ParseRange(unsigned char* buf, int len)
{
    CHttpData data;
    CHttpResponseHead head;
    const int r = data.GetContentRange(buf, len, head);
    std::ostringstream os;
    os << "ret=" << r << " start=" << head.m_nRangeStart << " total=" << head.m_nRangeTotal;
    return os.str();
}

std::string ParseType(unsigned char* buf, int len)
{
    CHttpData data;
    CHttpResponseHead head;
    const int r = data.GetContentType(buf, len, head);
    std::ostringstream os;
    os << "ret=" << r << " main=" << head.m_nContentTypeID << " sub=" << head.m_nContentSubTypeID
       << " charset=" << Str(head.m_strCharset);
    return os.str();
}

std::string ParseEncoding(unsigned char* buf, int len)
{
    CHttpData data;
    CHttpResponseHead head;
    const int r = data.GetContentEncoding(buf, len, head);
    std::ostringstream os;
    os << "ret=" << r << " encoding=" << head.m_nContentEncoding;
    return os.str();
}

std::string ParseCache(unsigned char* buf, int len)
{
    CHttpData data;
    CHttpResponseHead head;
    const int r = data.GetCacheControl(buf, len, head);
    std::ostringstream os;
    os << "ret=" << r << " cacheable=" << head.m_bCacheable << " maxage=" << head.m_nMaxAge
       << " private=" << head.m_bPrivate << " nostore=" << head.m_bNoStore;
    return os.str();
}

std::string ParseAttach(unsigned char* buf, int len)
{
    CHttpData data;
    CHttpResponseHead head;
    const int r = data.GetContentAttachName(buf, len, head);
    return "ret=" + std::to_string(r) + " name=" + Str(head.m_strAttachName);
}

std::string ParseLocation(unsigned char* buf, int len)
{
    CHttpData data;
    CQSString location("untouched");
    const int r = data.GetLocation(buf, len, location);
    return "ret=" + std::to_string(r) + " location=" + Str(location);
}

std::string ParseCookies(unsigned char* buf, int len)
{
    CHttpData data;
    CHttpResponseHead head;
    const int r = data.GetCookie(buf, len, head);
    std::string out = "ret=" + std::to_string(r);
    for (const std::string& line : Lines(head))
        out += " [" + line + "]";
    return out;
}

std::string ParseCurUrl(unsigned char* buf, int len)
{
    CHttpData data;
    CQSString url("untouched");
    const int r = data.GetThisPageUrl(buf, len, url);
    return "ret=" + std::to_string(r) + " url=" + Str(url);
}

std::string ParseFileUrl(unsigned char* buf, int len)
{
    CHttpData data;
    CQSString url("untouched");
    const int r = data.GetFileUrl(buf, len, url);
    return "ret=" + std::to_string(r) + " url=" + Str(url);
}

std::string ParseOrigSize(unsigned char* buf, int len)
{
    CHttpData data;
    int n = -7;
    data.GetOrignSize(buf, len, n);
    return "n=" + std::to_string(n);
}

std::string ParseStreamSize(unsigned char* buf, int len)
{
    CHttpData data;
    int n = -7;
    data.GetStreamSize(buf, len, n);
    return "n=" + std::to_string(n);
}

std::string ParseIdVersion(unsigned char* buf, int len)
{
    CHttpData data;
    int n = -7;
    data.GetIDVersion(buf, len, n);
    return "n=" + std::to_string(n);
}

std::string ParseChunk(unsigned char* buf, int len)
{
    int used = 0;
    const int size = CHttpData::GetChunkSize(buf, len, used);
    return "size=" + std::to_string(size) + (size >= 0 ? " used=" + std::to_string(used) : std::string());
}

const char kStatus[] = "HTTP/1.1 200 OK\r\n";

const PrefixRow kPrefixRows[] = {
    {"content-length-any-case-extra-blanks", std::string(kStatus) + "content-length:  1234 \r\n\r\n", "1234 \r\n",
     ParseLength, "ret=1234 n=1234 length=1234 framing=256", "ret=-1 n=-1 length=-1 framing=768"},
    {"content-length-zero", std::string(kStatus) + "Content-Length: 0\r\n\r\n", "0\r\n", ParseLength,
     "ret=0 n=0 length=0 framing=256", "ret=-1 n=-1 length=-1 framing=768"},
    {"content-length-one", std::string(kStatus) + "Content-Length: 1\r\n\r\n", "1\r\n", ParseLength,
     "ret=1 n=1 length=1 framing=256", "ret=-1 n=-1 length=-1 framing=768"},
    {"transfer-encoding-chunked", std::string(kStatus) + "Transfer-Encoding: chunked\r\n\r\n", "chunked\r\n",
     ParseLength, "ret=-1 n=-1 length=-1 framing=512", "ret=-1 n=-1 length=-1 framing=768"},
    {"content-range", std::string(kStatus) + "Content-Range: bytes 100-199/1000\r\n\r\n", "1000\r\n", ParseRange,
     "ret=1 start=100 total=1000", "ret=-1 start=-1 total=-1"},
    {"content-type-with-charset", std::string(kStatus) + "Content-Type: text/html; charset=GB2312\r\n\r\n",
     "GB2312\r\n", ParseType, "ret=1 main=16 sub=19 charset=GB2312", "ret=-1 main=0 sub=0 charset="},
    {"content-encoding-gzip", std::string(kStatus) + "Content-Encoding: gzip\r\n\r\n", "gzip\r\n", ParseEncoding,
     "ret=1 encoding=1", "ret=-1 encoding=0"},
    {"cache-control-max-age", std::string(kStatus) + "Cache-Control: max-age=3600\r\n\r\n", "3600\r\n", ParseCache,
     "ret=1 cacheable=1 maxage=3600 private=0 nostore=0", "ret=-1 cacheable=1 maxage=0 private=0 nostore=0"},
    {"attachment-name", std::string(kStatus) + "Content-Disposition: attachment; filename=\"a b.txt\"\r\n\r\n",
     "txt\"\r\n", ParseAttach, "ret=1 name=a b.txt", "ret=-1 name="},
    {"location", "HTTP/1.1 302 Found\r\nLocation: http://srv.test/next\r\n\r\n", "next\r\n", ParseLocation,
     "ret=1 location=http://srv.test/next", "ret=-1 location=untouched"},
    {"set-cookie", std::string(kStatus) + "Set-Cookie: sid=ab12; path=/\r\n\r\n", "path=/\r\n", ParseCookies,
     "ret=1 [ sid=ab12; path=/]", "ret=1"},
    {"cur-url", std::string(kStatus) + "CurURL:  http://srv.test/a \r\n\r\n", "/a \r\n", ParseCurUrl,
     "ret=1 url=http://srv.test/a", "ret=1 url=untouched"},
    {"file-url", std::string(kStatus) + "FileURL: http://srv.test/f.bin\r\n\r\n", "bin\r\n", ParseFileUrl,
     "ret=1 url=http://srv.test/f.bin", "ret=1 url=untouched"},
    {"orig-size", std::string(kStatus) + "OrigSize: 4096\r\n\r\n", "4096\r\n", ParseOrigSize, "n=4096", "n=0"},
    {"stream-size", std::string(kStatus) + "StreamSize: 77\r\n\r\n", "77\r\n", ParseStreamSize, "n=77", "n=0"},
    {"id-version", std::string(kStatus) + "idversion:3\r\n\r\n", "3\r\n", ParseIdVersion, "n=3", "n=0"},
    {"chunk-size", "1a\r\n0123456789abcdefghijklmnop\r\n", "1a\r\n", ParseChunk, "size=26 used=4", "size=-1"},
    {"chunk-size-after-line-end", "\r\n1a\r\nxyz", "1a\r\n", ParseChunk, "size=26 used=6", "size=-1"},
};

class FieldPrefixTest : public ::testing::TestWithParam<PrefixRow>
{
};

TEST_P(FieldPrefixTest, Whole)
{
    const PrefixRow& row = GetParam();
    Bytes bytes(row.bytes);
    EXPECT_EQ(row.whole, row.parse(bytes.Data(), bytes.Len()));
    EXPECT_EQ(row.bytes, bytes.Str());
}

TEST_P(FieldPrefixTest, EveryPrefix)
{
    const PrefixRow& row = GetParam();
    const size_t at = row.bytes.find(row.completeAfter);
    ASSERT_NE(std::string::npos, at);
    const size_t complete = at + row.completeAfter.size();
    // From one byte on: an empty buffer has its own tests per parser.
    for (size_t n = 1; n <= row.bytes.size(); ++n) {
        Bytes prefix(row.bytes.substr(0, n));
        EXPECT_EQ(n >= complete ? row.whole : row.absent, row.parse(prefix.Data(), prefix.Len()))
            << "prefix of " << n << " bytes: " << velatest::Visible(prefix.Data(), prefix.Len());
        EXPECT_EQ(row.bytes.substr(0, n), prefix.Str());
    }
}

TEST_P(FieldPrefixTest, RandomPrefixes)
{
    const PrefixRow& row = GetParam();
    const size_t complete = row.bytes.find(row.completeAfter) + row.completeAfter.size();
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    for (int i = 0; i < 20; ++i) {
        const size_t n = 1 + rng() % row.bytes.size();
        Bytes prefix(row.bytes.substr(0, n));
        EXPECT_EQ(n >= complete ? row.whole : row.absent, row.parse(prefix.Data(), prefix.Len())) << "prefix " << n;
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, FieldPrefixTest, ::testing::ValuesIn(kPrefixRows), RowName<PrefixRow>);

// ============================================================ content length

class ContentLengthTest : public ::testing::Test
{
protected:
    std::string Parse(const std::string& text) { Bytes b(text); return ParseLength(b.Data(), b.Len()); }
};

TEST_F(ContentLengthTest, AnyCaseAndExtraBlanksGiveTheLength)
{
    EXPECT_EQ("ret=1234 n=1234 length=1234 framing=256", Parse("content-length:  1234 \r\n"));
    EXPECT_EQ("ret=1234 n=1234 length=1234 framing=256", Parse("CONTENT-LENGTH:\t1234\t\r\n"));
}

TEST_F(ContentLengthTest, ChunkedWithoutLengthGives512)
{
    EXPECT_EQ("ret=-1 n=-1 length=-1 framing=512", Parse("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"));
    EXPECT_EQ("ret=-1 n=-1 length=-1 framing=512", Parse("transfer-encoding: CHUNKED\r\n"));
}

TEST_F(ContentLengthTest, NeitherFieldGives768)
{
    EXPECT_EQ("ret=-1 n=-1 length=-1 framing=768", Parse("HTTP/1.1 200 OK\r\nServer: x\r\n\r\n"));
}

TEST_F(ContentLengthTest, LengthWinsOverChunked)
{
    EXPECT_EQ("ret=5 n=5 length=5 framing=256", Parse("Transfer-Encoding: chunked\r\nContent-Length: 5\r\n"));
}

TEST_F(ContentLengthTest, ChunkedAnywhereAfterTheTransferEncodingText)
{
    EXPECT_EQ("ret=-1 n=-1 length=-1 framing=512", Parse("Transfer-Encoding: gzip\r\nX-Note: chunked\r\n"));
    // Before the field text it does not count.
    EXPECT_EQ("ret=-1 n=-1 length=-1 framing=768", Parse("X-Note: chunked\r\nTransfer-Encoding: gzip\r\n"));
}

TEST_F(ContentLengthTest, TransferEncodingNeedsItsBlank)
{
    EXPECT_EQ("ret=-1 n=-1 length=-1 framing=768", Parse("Transfer-Encoding:chunked\r\n"));
}

TEST_F(ContentLengthTest, EmptyValueCountsAsAbsent)
{
    EXPECT_EQ("ret=-1 n=-1 length=-1 framing=768", Parse("Content-Length:\r\nContent-Length: 9\r\n"));
}

TEST_F(ContentLengthTest, MatchesInsideAnotherFieldName)
{
    EXPECT_EQ("ret=7 n=7 length=7 framing=256", Parse("X-Original-Content-Length: 7\r\nContent-Length: 9\r\n"));
}

TEST_F(ContentLengthTest, FoundInBodyBytesToo)
{
    EXPECT_EQ("ret=42 n=42 length=42 framing=256", Parse("HTTP/1.1 200 OK\r\n\r\n<p>Content-Length: 42\r\n"));
}

TEST_F(ContentLengthTest, TextAfterTheDigitsIsIgnored)
{
    EXPECT_EQ("ret=12 n=12 length=12 framing=256", Parse("Content-Length: 12abc\r\n"));
}

TEST_F(ContentLengthTest, NoLeadingDigitIsNoLength)
{
    // Framed by a length that cannot be read: the engine fails the response.
    EXPECT_EQ("ret=-1 n=-1 length=-1 framing=256", Parse("Content-Length: abc\r\n"));
    EXPECT_EQ("ret=-1 n=-1 length=-1 framing=256", Parse("Content-Length: -5\r\n"));
    EXPECT_EQ("ret=-1 n=-1 length=-1 framing=256", Parse("Content-Length: +5\r\n"));
}

TEST_F(ContentLengthTest, NullOrEmptyBufferIsAbsent)
{
    EXPECT_EQ("ret=-1 n=-1 length=-1 framing=768", ParseLength(nullptr, 0));
    EXPECT_EQ("ret=-1 n=-1 length=-1 framing=768", Parse(""));
}

// ------------------------------------------------------------ 64-bit lengths
// The int field keeps its value wherever the value fits an int and holds
// 2147483647 above that; the 64-bit field holds the value up to 2^63 - 1.
// Past that, or without a leading digit, the length is invalid.

struct Length64Row
{
    const char* name;
    const char* value;
    const char* expected;
};

void PrintTo(const Length64Row& row, std::ostream* os) { *os << row.name; }

std::string ParseLength64(const std::string& value)
{
    Bytes b("HTTP/1.1 200 OK\r\nContent-Length: " + value + "\r\n\r\n");
    CHttpData data;
    CHttpResponseHead head;
    int n = -7;
    const int r = data.GetContentLenght(b.Data(), b.Len(), n, head);
    std::ostringstream os;
    os << "ret=" << r << " n=" << n << " length=" << head.m_nContentLength << " length64="
       << head.m_nContentLength64 << " invalid=" << head.m_bContentLengthInvalid << " framing=" << head.m_nBodyType;
    return os.str();
}

const Length64Row kLength64Rows[] = {
    {"largest-int", "2147483647", "ret=2147483647 n=2147483647 length=2147483647 length64=2147483647 invalid=0 framing=256"},
    {"one-past-int", "2147483648", "ret=2147483647 n=2147483647 length=2147483647 length64=2147483648 invalid=0 framing=256"},
    {"largest-32-bit", "4294967295", "ret=2147483647 n=2147483647 length=2147483647 length64=4294967295 invalid=0 framing=256"},
    {"one-past-32-bit", "4294967296", "ret=2147483647 n=2147483647 length=2147483647 length64=4294967296 invalid=0 framing=256"},
    {"ten-past-32-bit", "4294967306", "ret=2147483647 n=2147483647 length=2147483647 length64=4294967306 invalid=0 framing=256"},
    {"largest-63-bit", "9223372036854775807",
     "ret=2147483647 n=2147483647 length=2147483647 length64=9223372036854775807 invalid=0 framing=256"},
    {"one-past-63-bit", "9223372036854775808", "ret=-1 n=-1 length=-1 length64=-1 invalid=1 framing=256"},
    {"two-to-the-64", "18446744073709551616", "ret=-1 n=-1 length=-1 length64=-1 invalid=1 framing=256"},
    {"thirty-digits", "123456789012345678901234567890", "ret=-1 n=-1 length=-1 length64=-1 invalid=1 framing=256"},
    {"leading-zeros", "0000000000000000000000000000042", "ret=42 n=42 length=42 length64=42 invalid=0 framing=256"},
    {"zero", "0", "ret=0 n=0 length=0 length64=0 invalid=0 framing=256"},
    {"negative", "-1", "ret=-1 n=-1 length=-1 length64=-1 invalid=1 framing=256"},
    {"garbage", "lots", "ret=-1 n=-1 length=-1 length64=-1 invalid=1 framing=256"},
};

class ContentLength64Table : public ::testing::TestWithParam<Length64Row>
{
};

TEST_P(ContentLength64Table, Value)
{
    EXPECT_EQ(GetParam().expected, ParseLength64(GetParam().value));
}

INSTANTIATE_TEST_SUITE_P(Rows, ContentLength64Table, ::testing::ValuesIn(kLength64Rows), RowName<Length64Row>);

TEST(ContentLength64, AbsentLengthResetsTheCompanionsAndTheFlag)
{
    CHttpData data;
    CHttpResponseHead head;
    head.m_nContentLength64 = 5;
    head.m_bContentLengthInvalid = true;
    Bytes b(std::string("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"));
    int n = 0;
    EXPECT_EQ(-1, data.GetContentLenght(b.Data(), b.Len(), n, head));
    EXPECT_EQ(-1, head.m_nContentLength64);
    EXPECT_FALSE(head.m_bContentLengthInvalid);
}

TEST(ContentLength64, ThroughTheWholeHead)
{
    CHttpData data;
    CHttpResponseHead head;
    Bytes b(std::string("HTTP/1.1 200 OK\r\nContent-Length: 5368709120\r\n\r\n"));
    ASSERT_EQ(CHttpData::KHeadComplete, data.GetResponseHead(b.Data(), b.Len(), head));
    EXPECT_EQ(5368709120LL, head.m_nContentLength64);
    EXPECT_EQ(CHttpResponseHead::KIntSaturated, head.m_nContentLength);
    EXPECT_EQ(CHttpResponseHead::KBodyByLength, head.m_nBodyType);
}

// ============================================================ content range

class ContentRangeTest : public ::testing::Test
{
protected:
    std::string Parse(const std::string& text) { Bytes b(text); return ParseRange(b.Data(), b.Len()); }
};

TEST_F(ContentRangeTest, StartAndTotal)
{
    EXPECT_EQ("ret=1 start=100 total=1000", Parse("Content-Range: bytes 100-199/1000\r\n"));
    EXPECT_EQ("ret=1 start=0 total=1", Parse("content-range: BYTES 0-0/1\r\n"));
}

TEST_F(ContentRangeTest, WithoutTotalBothAreMinusOne)
{
    // The start found before the failure is overwritten.
    EXPECT_EQ("ret=-1 start=-1 total=-1", Parse("Content-Range: bytes 100-199\r\n"));
    EXPECT_EQ("ret=-1 start=-1 total=-1", Parse("Content-Range: bytes 100-199\r\nContent-Type: a/b\r\n"));
}

TEST_F(ContentRangeTest, WithoutDashBothAreMinusOne)
{
    EXPECT_EQ("ret=-1 start=-1 total=-1", Parse("Content-Range: bytes */1000\r\n"));
}

TEST_F(ContentRangeTest, OtherUnitIsAbsent)
{
    EXPECT_EQ("ret=-1 start=-1 total=-1", Parse("Content-Range: items 1-2/3\r\n"));
}

TEST_F(ContentRangeTest, FailureOverwritesEarlierValues)
{
    CHttpData data;
    CHttpResponseHead head;
    head.m_nRangeStart = 5;
    head.m_nRangeTotal = 6;
    Bytes b(std::string("Server: x\r\n"));
    EXPECT_EQ(-1, data.GetContentRange(b.Data(), b.Len(), head));
    EXPECT_EQ(-1, head.m_nRangeStart);
    EXPECT_EQ(-1, head.m_nRangeTotal);
}

// ------------------------------------------------------------ 64-bit ranges

std::string ParseRange64(const std::string& value)
{
    Bytes b("HTTP/1.1 206 Partial Content\r\nContent-Range: bytes " + value + "\r\n\r\n");
    CHttpData data;
    CHttpResponseHead head;
    const int r = data.GetContentRange(b.Data(), b.Len(), head);
    std::ostringstream os;
    os << "ret=" << r << " start=" << head.m_nRangeStart << " total=" << head.m_nRangeTotal << " start64="
       << head.m_nRangeStart64 << " total64=" << head.m_nRangeTotal64;
    return os.str();
}

TEST(ContentRange64, EdgesOfAnInt)
{
    EXPECT_EQ("ret=1 start=2147483647 total=2147483647 start64=2147483647 total64=2147483647",
              ParseRange64("2147483647-2147483646/2147483647"));
    EXPECT_EQ("ret=1 start=2147483647 total=2147483647 start64=2147483648 total64=2147483649",
              ParseRange64("2147483648-2147483648/2147483649"));
}

TEST(ContentRange64, EdgesOf32Bits)
{
    EXPECT_EQ("ret=1 start=2147483647 total=2147483647 start64=4294967295 total64=4294967296",
              ParseRange64("4294967295-4294967295/4294967296"));
    EXPECT_EQ("ret=1 start=2147483647 total=2147483647 start64=4294967306 total64=5368709120",
              ParseRange64("4294967306-5368709119/5368709120"));
}

TEST(ContentRange64, EdgesOf63Bits)
{
    EXPECT_EQ("ret=1 start=2147483647 total=2147483647 start64=9223372036854775806 total64=9223372036854775807",
              ParseRange64("9223372036854775806-9223372036854775806/9223372036854775807"));
    EXPECT_EQ("ret=-1 start=-1 total=-1 start64=-1 total64=-1",
              ParseRange64("9223372036854775808-9223372036854775808/9223372036854775809"));
    EXPECT_EQ("ret=-1 start=-1 total=-1 start64=-1 total64=-1", ParseRange64("0-0/9223372036854775808"));
}

TEST(ContentRange64, SmallValuesInBothForms)
{
    EXPECT_EQ("ret=1 start=100 total=1000 start64=100 total64=1000", ParseRange64("100-199/1000"));
    EXPECT_EQ("ret=-1 start=-1 total=-1 start64=-1 total64=-1", ParseRange64("100-199"));
}

// ============================================================ content type

struct TypeRow
{
    const char* name;
    const char* value;  // the Content-Type value as classified (already left-trimmed)
    int mainId;
    int subId;
};

void PrintTo(const TypeRow& row, std::ostream* os) { *os << row.name << " \"" << row.value << "\""; }

const TypeRow kTypeRows[] = {
    // Main types, by prefix (no case), first match wins.
    {"text-plain", "text/plain", 16, -1},
    {"application-octet-stream", "application/octet-stream", 48, -1},
    {"audio-unknown", "audio/x-foo", 96, -1},
    {"video-unknown", "video/mp4", 144, -1},
    {"image-png", "image/png", 192, -1},
    {"image-jpeg-has-no-sub-type", "image/jpeg", 192, -1},
    {"gif-prefix", "gif", 192, -1},
    {"gif-prefix-any-case", "GIF89a", 192, -1},
    {"main-prefix-any-case", "Text/Plain", 16, -1},
    {"other-main-type", "multipart/form-data", -1, -1},
    {"empty-value", "", 0, 0},
    // Text sub-types (CQSString::Find, byte-exact).
    {"text-wml", "text/vnd.wap.wml", 16, 17},
    {"text-jad", "text/vnd.sun.j2me.app-descriptor", 16, 18},
    {"text-html", "text/html", 16, 19},
    {"text-html-with-charset", "text/html; charset=utf-8", 16, 19},
    {"text-css", "text/css", 16, 21},
    {"text-wml-first-wins", "text/vnd.wap.wml; x=/html", 16, 17},
    {"text-sub-tests-keep-case", "TEXT/HTML", 16, -1},
    {"text-xhtml-is-not-html", "text/xhtml+xml", 16, -1},
    // Application sub-types.
    {"application-xhtml", "application/xhtml+xml", 48, 51},
    {"application-wap-xhtml", "application/vnd.wap.xhtml+xml", 48, 49},
    {"application-xhtml-with-charset", "application/xhtml+xml; charset=utf-8", 48, 51},
    {"application-html-is-not-a-sub-type", "application/html", 48, -1},
    // Audio sub-types: the value's ending, no case.
    {"audio-mp3", "audio/mp3", 96, 97},
    {"audio-mp3-any-case", "AUDIO/MP3", 96, 97},
    {"audio-midi", "audio/midi", 96, 98},
    {"audio-amr", "audio/amr", 96, 99},
    {"audio-mpeg", "audio/mpeg", 96, 100},
    {"audio-rm", "audio/rm", 96, 101},
    {"audio-x-wav", "audio/x-wav", 96, 102},
    {"audio-mpeg-with-parameters", "audio/mpeg; x=y", 96, -1},
    {"audio-trailing-blank-is-not-the-ending", "audio/mpeg ", 96, -1},
    {"audio-jpeg-is-video-only", "audio/jpeg", 96, -1},
    // Video sub-types.
    {"video-3gpp", "video/3gpp", 144, 145},
    {"video-3gpp-any-case", "Video/3GPP", 144, 145},
    {"video-mpeg", "video/mpeg", 144, 146},
    {"video-jpeg", "video/jpeg", 144, 147},
    {"video-mp3-is-audio-only", "video/mp3", 144, -1},
};

class ContentTypeTable : public ::testing::TestWithParam<TypeRow>
{
};

TEST_P(ContentTypeTable, GetContentTypeID)
{
    const TypeRow& row = GetParam();
    CQSString value(row.value);
    int mainId = 1234;
    int subId = 1234;
    CHttpData::GetContentTypeID(&value, mainId, subId);
    EXPECT_EQ(row.mainId, mainId);
    EXPECT_EQ(row.subId, subId);
}

TEST_P(ContentTypeTable, ThroughTheContentTypeField)
{
    // An empty value is an absent field, which leaves the record at its
    // initial 0 and 0.
    const TypeRow& row = GetParam();
    CHttpData data;
    CHttpResponseHead head;
    Bytes b("HTTP/1.1 200 OK\r\nContent-Type:" + std::string(row.value) + "\r\n\r\n");
    EXPECT_EQ(row.value[0] ? 1 : -1, data.GetContentType(b.Data(), b.Len(), head));
    EXPECT_EQ(row.mainId, head.m_nContentTypeID);
    EXPECT_EQ(row.subId, head.m_nContentSubTypeID);
}

INSTANTIATE_TEST_SUITE_P(Rows, ContentTypeTable, ::testing::ValuesIn(kTypeRows), RowName<TypeRow>);

TEST(ContentType, OnlyTheFieldTrimsLeadingBlanks)
{
    CQSString padded(" \ttext/html");
    int mainId = 0;
    int subId = 0;
    CHttpData::GetContentTypeID(&padded, mainId, subId);
    EXPECT_EQ(-1, mainId);
    EXPECT_EQ(-1, subId);
    Bytes b(std::string("Content-Type: \ttext/html\r\n"));
    EXPECT_EQ("ret=1 main=16 sub=19 charset=", ParseType(b.Data(), b.Len()));
}

TEST(ContentType, WmlAtPositionZeroDoesNotCount)
{
    CQSString wml("/vnd.wap.wml");
    EXPECT_EQ(-1, CHttpData::GetTextSubID(&wml));
    CQSString jad("/vnd.sun.j2me.app-descriptor");
    EXPECT_EQ(-1, CHttpData::GetTextSubID(&jad));
    // The other text tests accept position 0.
    CQSString html("/html");
    EXPECT_EQ(19, CHttpData::GetTextSubID(&html));
    CQSString css("/css");
    EXPECT_EQ(21, CHttpData::GetTextSubID(&css));
}

TEST(ContentType, SubIdsTwentyAndFiftyAreNeverProduced)
{
    const char* mains[] = {"text", "application", "audio", "video", "image", "gif", "x", ""};
    const char* subs[] = {"/vnd.wap.wml", "/vnd.sun.j2me.app-descriptor", "/html", "/css", "/xhtml+xml",
                          "/vnd.wap.xhtml+xml", "/mp3", "/midi", "/amr", "/mpeg", "/rm", "/x-wav", "/3gpp",
                          "/jpeg", "/plain", ""};
    const char* tails[] = {"", "; charset=utf-8", " "};
    const int mainIds[] = {-1, 0, 1, 16, 20, 48, 50, 96, 144, 192, 193};
    for (const char* m : mains) {
        for (const char* s : subs) {
            for (const char* t : tails) {
                CQSString value((std::string(m) + s + t).c_str());
                int mainId = 0;
                int subId = 0;
                CHttpData::GetContentTypeID(&value, mainId, subId);
                EXPECT_NE(20, subId) << value.GetDataPtr();
                EXPECT_NE(50, subId) << value.GetDataPtr();
                for (int id : mainIds) {
                    const int sub = CHttpData::GetContentTypeSubID(&value, id);
                    EXPECT_NE(20, sub) << value.GetDataPtr() << " main " << id;
                    EXPECT_NE(50, sub) << value.GetDataPtr() << " main " << id;
                }
            }
        }
    }
}

TEST(ContentType, SubIdByMainId)
{
    CQSString html("text/html");
    EXPECT_EQ(19, CHttpData::GetContentTypeSubID(&html, 16));
    EXPECT_EQ(-1, CHttpData::GetContentTypeSubID(&html, 48));
    EXPECT_EQ(-1, CHttpData::GetContentTypeSubID(&html, 0));
    EXPECT_EQ(-1, CHttpData::GetContentTypeSubID(&html, -1));
    EXPECT_EQ(-1, CHttpData::GetContentTypeSubID(&html, 17));
    CQSString mpeg("x/mpeg");
    EXPECT_EQ(100, CHttpData::GetContentTypeSubID(&mpeg, 96));
    EXPECT_EQ(146, CHttpData::GetContentTypeSubID(&mpeg, 144));
    EXPECT_EQ(-1, CHttpData::GetContentTypeSubID(&mpeg, 192));
}

TEST(ContentType, NullTypeIsHandled)
{
    int mainId = 5;
    int subId = 5;
    CHttpData::GetContentTypeID(nullptr, mainId, subId);
    EXPECT_EQ(0, mainId);
    EXPECT_EQ(0, subId);
    EXPECT_EQ(-1, CHttpData::GetContentTypeSubID(nullptr, 16));
    EXPECT_EQ(-1, CHttpData::GetTextSubID(nullptr));
    EXPECT_EQ(-1, CHttpData::GetApplicationSubID(nullptr));
    EXPECT_EQ(-1, CHttpData::GetAudioSubID(nullptr));
    EXPECT_EQ(-1, CHttpData::GetVideoSubID(nullptr));
    EXPECT_EQ(-1, CHttpData::GetImageSubID(nullptr));
}

TEST(ContentType, ExamplesFromTheHead)
{
    auto parse = [](const std::string& field) {
        Bytes b("HTTP/1.1 200 OK\r\n" + field + "\r\n\r\n");
        return ParseType(b.Data(), b.Len());
    };
    EXPECT_EQ("ret=1 main=16 sub=19 charset=GB2312", parse("Content-Type: text/html; charset=GB2312"));
    EXPECT_EQ("ret=1 main=192 sub=-1 charset=", parse("Content-Type: image/png"));
    EXPECT_EQ("ret=1 main=96 sub=100 charset=", parse("Content-Type: audio/mpeg"));
    // No blank after the colon is needed.
    EXPECT_EQ("ret=1 main=16 sub=21 charset=", parse("content-type:text/css"));
}

TEST(ContentType, AbsentFieldLeavesTheRecord)
{
    CHttpData data;
    CHttpResponseHead head;
    head.m_nContentTypeID = 48;
    head.m_nContentSubTypeID = 51;
    head.m_strCharset = "GB2312";
    Bytes b(std::string("HTTP/1.1 200 OK\r\nContent-Type:\r\n\r\n"));
    EXPECT_EQ(-1, data.GetContentType(b.Data(), b.Len(), head));
    EXPECT_EQ(48, head.m_nContentTypeID);
    EXPECT_EQ(51, head.m_nContentSubTypeID);
    EXPECT_EQ("GB2312", Str(head.m_strCharset));
    EXPECT_EQ(-1, data.GetContentType(nullptr, 0, head));
}

// ============================================================ charset

struct CharsetRow
{
    const char* name;
    const char* value;  // null: no type at all
    const char* expected;
};

void PrintTo(const CharsetRow& row, std::ostream* os) { *os << row.name; }

const CharsetRow kCharsetRows[] = {
    {"null-type", nullptr, "UTF-8"},
    {"empty-type", "", "UTF-8"},
    {"utf8", "text/html; charset=UTF-8", "UTF-8"},
    {"utf8-any-case", "text/html; charset=utf-8", "UTF-8"},
    {"gb2312", "text/html; charset=GB2312", "GB2312"},
    {"gb2312-any-case", "text/html; charset=gb2312", "GB2312"},
    {"utf8-before-gb2312-test", "charset=gb2312; x=utf-8", "UTF-8"},
    {"other-charset-keeps-old", "text/html; charset=iso-8859-1", "before"},
    {"no-charset-keeps-old", "text/html", "before"},
    {"utf8-without-dash-keeps-old", "text/html; charset=utf8", "before"},
};

class CharsetTable : public ::testing::TestWithParam<CharsetRow>
{
};

TEST_P(CharsetTable, GetCharset)
{
    const CharsetRow& row = GetParam();
    CQSString charset("before");
    if (row.value) {
        CQSString value(row.value);
        CHttpData::GetCharset(&value, charset);
    } else {
        CHttpData::GetCharset(nullptr, charset);
    }
    EXPECT_EQ(row.expected, Str(charset));
}

INSTANTIATE_TEST_SUITE_P(Rows, CharsetTable, ::testing::ValuesIn(kCharsetRows), RowName<CharsetRow>);

// ============================================================ content encoding

TEST(ContentEncoding, Codings)
{
    auto parse = [](const std::string& text) { Bytes b(text); return ParseEncoding(b.Data(), b.Len()); };
    EXPECT_EQ("ret=1 encoding=1", parse("Content-Encoding: gzip\r\n"));
    EXPECT_EQ("ret=1 encoding=1", parse("content-encoding:GZIP\r\n"));
    EXPECT_EQ("ret=1 encoding=1", parse("Content-Encoding: \tgzip, identity\r\n"));
    EXPECT_EQ("ret=1 encoding=2", parse("Content-Encoding: deflate\r\n"));
    EXPECT_EQ("ret=1 encoding=0", parse("Content-Encoding: br\r\n"));
    EXPECT_EQ("ret=1 encoding=0", parse("Content-Encoding: x-gzip\r\n"));
    EXPECT_EQ("ret=1 encoding=0", parse("Content-Encoding: gzi\r\n"));
    EXPECT_EQ("ret=1 encoding=0", parse("Content-Encoding:  \r\n"));
    // Trimming stops at a NUL byte, as it does on NUL-terminated text.
    EXPECT_EQ("ret=1 encoding=0", parse(std::string("Content-Encoding: \0gzip\r\n", 25)));
    EXPECT_EQ("ret=1 encoding=1", parse(std::string("Content-Encoding: \t gzip\0\r\n", 27)));
}

TEST(ContentEncoding, MissingFieldResetsToNone)
{
    CHttpData data;
    CHttpResponseHead head;
    head.m_nContentEncoding = 1;
    Bytes b(std::string("HTTP/1.1 200 OK\r\n\r\n"));
    EXPECT_EQ(-1, data.GetContentEncoding(b.Data(), b.Len(), head));
    EXPECT_EQ(0, head.m_nContentEncoding);
    head.m_nContentEncoding = 2;
    EXPECT_EQ(-1, data.GetContentEncoding(nullptr, 0, head));
    EXPECT_EQ(0, head.m_nContentEncoding);
}

// ============================================================ cache control

struct CacheRow
{
    const char* name;
    std::string bytes;
    const char* expected;
};

void PrintTo(const CacheRow& row, std::ostream* os) { *os << row.name; }

const CacheRow kCacheRows[] = {
    {"no-cache", "Cache-Control: no-cache\r\n", "ret=1 cacheable=0 maxage=0 private=0 nostore=0"},
    {"no-cache-and-no-store", "Cache-Control: no-store, no-cache\r\n",
     "ret=1 cacheable=0 maxage=0 private=0 nostore=1"},
    {"no-store-alone-changes-nothing", "Cache-Control: no-store\r\n",
     "ret=1 cacheable=1 maxage=0 private=0 nostore=0"},
    {"private", "Cache-Control: private\r\n", "ret=1 cacheable=0 maxage=0 private=1 nostore=0"},
    {"no-cache-wins-over-private", "Cache-Control: private, no-cache\r\n",
     "ret=1 cacheable=0 maxage=0 private=0 nostore=0"},
    {"private-wins-over-max-age", "Cache-Control: private, max-age=60\r\n",
     "ret=1 cacheable=0 maxage=0 private=1 nostore=0"},
    {"max-age", "Cache-Control: max-age=3600\r\n", "ret=1 cacheable=1 maxage=3600 private=0 nostore=0"},
    {"max-age-stops-at-non-digit", "Cache-Control: public, max-age=60, must-revalidate\r\n",
     "ret=1 cacheable=1 maxage=60 private=0 nostore=0"},
    {"max-age-without-digits", "Cache-Control: max-age=x\r\n", "ret=1 cacheable=1 maxage=0 private=0 nostore=0"},
    {"nothing-known", "Cache-Control: public\r\n", "ret=1 cacheable=1 maxage=0 private=0 nostore=0"},
    {"directives-keep-case", "Cache-Control: NO-CACHE\r\n", "ret=1 cacheable=1 maxage=0 private=0 nostore=0"},
    {"field-any-case", "cache-control: no-cache\r\n", "ret=1 cacheable=0 maxage=0 private=0 nostore=0"},
    {"field-needs-its-blank", "Cache-Control:no-cache\r\n", "ret=-1 cacheable=1 maxage=0 private=0 nostore=0"},
    {"empty-value", "Cache-Control: \r\n", "ret=-1 cacheable=1 maxage=0 private=0 nostore=0"},
    {"missing", "Server: x\r\n", "ret=-1 cacheable=1 maxage=0 private=0 nostore=0"},
};

class CacheControlTable : public ::testing::TestWithParam<CacheRow>
{
};

TEST_P(CacheControlTable, GetCacheControl)
{
    const CacheRow& row = GetParam();
    Bytes b(row.bytes);
    EXPECT_EQ(row.expected, ParseCache(b.Data(), b.Len()));
}

INSTANTIATE_TEST_SUITE_P(Rows, CacheControlTable, ::testing::ValuesIn(kCacheRows), RowName<CacheRow>);

TEST(CacheControl, MaxAgeMakesARecordCacheableAgain)
{
    CHttpData data;
    CHttpResponseHead head;
    head.m_bCacheable = false;
    Bytes b(std::string("Cache-Control: max-age=5\r\n"));
    EXPECT_EQ(1, data.GetCacheControl(b.Data(), b.Len(), head));
    EXPECT_TRUE(head.m_bCacheable);
    EXPECT_EQ(5, head.m_nMaxAge);
}

// ============================================================ attachment name

TEST(AttachName, QuotesAreRemoved)
{
    Bytes b(std::string("Content-Disposition: attachment; filename=\"a b.txt\"\r\n"));
    EXPECT_EQ("ret=1 name=a b.txt", ParseAttach(b.Data(), b.Len()));
}

TEST(AttachName, FilenameAnyCaseAndUnquoted)
{
    Bytes b(std::string("content-disposition: inline; FILENAME=report.pdf\r\n"));
    EXPECT_EQ("ret=1 name=report.pdf", ParseAttach(b.Data(), b.Len()));
}

TEST(AttachName, EveryQuoteGoes)
{
    Bytes b(std::string("Content-Disposition: attachment; filename=\"x\"\"y\"; size=\"3\"\r\n"));
    EXPECT_EQ("ret=1 name=xy; size=3", ParseAttach(b.Data(), b.Len()));
}

TEST(AttachName, WithoutFilenameIsAbsent)
{
    Bytes none(std::string("Content-Disposition: attachment\r\n"));
    EXPECT_EQ("ret=-1 name=", ParseAttach(none.Data(), none.Len()));
    Bytes empty(std::string("Content-Disposition: attachment; filename=\r\n"));
    EXPECT_EQ("ret=-1 name=", ParseAttach(empty.Data(), empty.Len()));
    Bytes missing(std::string("Server: x\r\n"));
    EXPECT_EQ("ret=-1 name=", ParseAttach(missing.Data(), missing.Len()));
}

TEST(AttachName, FilenameIsLookedForInsideTheDispositionValue)
{
    Bytes b(std::string("Content-Disposition: inline\r\nX-Note: filename=other.txt\r\n"));
    EXPECT_EQ("ret=-1 name=", ParseAttach(b.Data(), b.Len()));
}

// ============================================================ location

TEST(Location, ValueAsItStands)
{
    Bytes b(std::string("HTTP/1.1 302 Found\r\nlocation:  /next?a=1 \r\n\r\n"));
    EXPECT_EQ("ret=1 location= /next?a=1 ", ParseLocation(b.Data(), b.Len()));
}

TEST(Location, MatchesInsideContentLocation)
{
    Bytes b(std::string("HTTP/1.1 302 Found\r\nContent-Location: /a\r\nLocation: /b\r\n\r\n"));
    EXPECT_EQ("ret=1 location=/a", ParseLocation(b.Data(), b.Len()));
}

TEST(Location, NeedsTheBlankAfterTheColon)
{
    Bytes b(std::string("HTTP/1.1 302 Found\r\nLocation:/b\r\n\r\n"));
    EXPECT_EQ("ret=-1 location=untouched", ParseLocation(b.Data(), b.Len()));
    EXPECT_EQ("ret=-1 location=untouched", ParseLocation(nullptr, 0));
}

// ============================================================ cookies

TEST(Cookies, TwoFieldsGiveTwoLinesInOrder)
{
    Bytes b(std::string("HTTP/1.1 200 OK\r\nSet-Cookie: a=1; path=/\r\nServer: x\r\nset-cookie:b=2\r\n\r\n"));
    EXPECT_EQ("ret=1 [ a=1; path=/] [b=2]", ParseCookies(b.Data(), b.Len()));
}

TEST(Cookies, ScanStopsAtTheFirstFieldWithoutValue)
{
    Bytes b(std::string("Set-Cookie: a=1\r\nSet-Cookie:\r\nSet-Cookie: c=3\r\n"));
    EXPECT_EQ("ret=1 [ a=1]", ParseCookies(b.Data(), b.Len()));
}

TEST(Cookies, LinesAreAppendedToTheRecord)
{
    CHttpData data;
    CHttpResponseHead head;
    head.m_listCookies.AddTail(new CQSString("old"));
    Bytes b(std::string("Set-Cookie: new=1\r\n"));
    EXPECT_EQ(1, data.GetCookie(b.Data(), b.Len(), head));
    EXPECT_EQ((std::vector<std::string>{"old", " new=1"}), Lines(head));
}

TEST(Cookies, NoFieldIsStillSuccess)
{
    Bytes b(std::string("HTTP/1.1 200 OK\r\n\r\n"));
    EXPECT_EQ("ret=1", ParseCookies(b.Data(), b.Len()));
}

TEST(Cookies, NullOrEmptyBufferFails)
{
    EXPECT_EQ("ret=-1", ParseCookies(nullptr, 10));
    Bytes empty(std::string(""));
    EXPECT_EQ("ret=-1", ParseCookies(empty.Data(), 0));
}

// Each allocation of taking a line fails in turn (the line, its text, the
// first block of the record's empty list): the line is taken or left out.
TEST(Cookies, AnAllocationThatFailsLeavesTheLineOut)
{
    Bytes bytes(std::string("HTTP/1.1 200 OK\r\nSet-Cookie: a=1\r\n\r\n"));
    int skip = 0;
    for (; skip < 16; ++skip) {
        SCOPED_TRACE("allocation " + std::to_string(skip) + " fails");
        CHttpResponseHead head;
        velatest::HeapWatch::FailNothrowAfter(skip);
        const int result = CHttpData::GetCookie(bytes.Data(), bytes.Len(), head);
        velatest::HeapWatch::StopFailing();
        EXPECT_EQ(1, result);
        const std::vector<std::string> lines = Lines(head);
        if (!lines.empty()) {
            EXPECT_EQ(std::vector<std::string>{" a=1"}, lines);
            break;
        }
    }
    EXPECT_EQ(3, skip);
}

// With two lines, each allocation fails in turn, also once the list has
// room: a line whose text cannot be taken is left out, never kept empty.
TEST(Cookies, AnAllocationThatFailsNeverTakesALineEmpty)
{
    Bytes bytes(std::string("HTTP/1.1 200 OK\r\nSet-Cookie: a=1\r\nSet-Cookie: b=2\r\n\r\n"));
    const std::vector<std::string> whole{" a=1", " b=2"};
    int skip = 0;
    for (; skip < 32; ++skip) {
        SCOPED_TRACE("allocation " + std::to_string(skip) + " fails");
        CHttpResponseHead head;
        velatest::HeapWatch::FailNothrowAfter(skip);
        const int result = CHttpData::GetCookie(bytes.Data(), bytes.Len(), head);
        velatest::HeapWatch::StopFailing();
        EXPECT_EQ(1, result);
        const std::vector<std::string> lines = Lines(head);
        for (const std::string& line : lines)
            EXPECT_TRUE(std::find(whole.begin(), whole.end(), line) != whole.end()) << "[" << line << "]";
        if (lines == whole)
            break;
    }
    EXPECT_LT(skip, 32);
}

TEST(Cookies, EveryPrefixGivesTheCompleteLinesSoFar)
{
    const std::string text = "HTTP/1.1 200 OK\r\nSet-Cookie: a=1\r\nSet-Cookie: b=2\r\n\r\n";
    const size_t first = text.find("a=1\r\n") + 5;
    const size_t second = text.find("b=2\r\n") + 5;
    for (size_t n = 0; n <= text.size(); ++n) {
        Bytes prefix(text.substr(0, n));
        const char* expected = n >= second  ? "ret=1 [ a=1] [ b=2]"
                               : n >= first ? "ret=1 [ a=1]"
                               : n > 0      ? "ret=1"
                                            : "ret=-1";
        EXPECT_EQ(expected, ParseCookies(prefix.Data(), prefix.Len())) << "prefix " << n;
    }
}

TEST(SaveCookies, EachLineGoesToTheHolderForTheUrl)
{
    QCookieHolder holder;  // no directory: nothing touches the disk
    CHttpData data;
    data.SetCookiePointer(&holder);
    CQSString url("http://srv.test/login");
    CQList<CQSString*> lines;
    CQSString first(" sid=ab12; path=/");
    CQSString second("lang=en");
    lines.AddTail(&first);
    lines.AddTail(&second);
    data.SaveCookies(url, lines);
    lines.RemoveAll();

    std::unique_ptr<CQHashTable<QCookieValue>> jar(holder.GetCookie(CQSString("srv.test"), true));
    ASSERT_TRUE(jar);
    EXPECT_EQ(2, jar->GetCount());
    QCookieValue* sid = jar->get(CQSString("sid"));
    ASSERT_TRUE(sid);
    EXPECT_EQ("ab12", Str(sid->value));
    QCookieValue* lang = jar->get(CQSString("lang"));
    ASSERT_TRUE(lang);
    EXPECT_EQ("en", Str(lang->value));
}

TEST(SaveCookies, LaterLinesWinForTheSameName)
{
    QCookieHolder holder;
    CHttpData data;
    data.SetCookiePointer(&holder);
    CQSString url("http://srv.test/");
    CQList<CQSString*> lines;
    CQSString first("a=1");
    CQSString second("a=2");
    lines.AddTail(&first);
    lines.AddTail(&second);
    data.SaveCookies(url, lines);
    lines.RemoveAll();
    std::unique_ptr<CQHashTable<QCookieValue>> jar(holder.GetCookie(CQSString("srv.test"), true));
    ASSERT_TRUE(jar);
    ASSERT_TRUE(jar->get(CQSString("a")));
    EXPECT_EQ("2", Str(jar->get(CQSString("a"))->value));
}

TEST(SaveCookies, NullLinesAreSkipped)
{
    QCookieHolder holder;
    CHttpData data;
    data.SetCookiePointer(&holder);
    CQSString url("http://srv.test/");
    CQList<CQSString*> lines;
    CQSString line("a=1");
    lines.AddTail(nullptr);
    lines.AddTail(&line);
    data.SaveCookies(url, lines);
    lines.RemoveAll();
    std::unique_ptr<CQHashTable<QCookieValue>> jar(holder.GetCookie(CQSString("srv.test"), true));
    ASSERT_TRUE(jar);
    EXPECT_EQ(1, jar->GetCount());
    ASSERT_TRUE(jar->get(CQSString("a")));
    EXPECT_EQ("1", Str(jar->get(CQSString("a"))->value));
}

TEST(SaveCookies, WithoutHolderNothingHappens)
{
    CHttpData data;
    CQSString url("http://srv.test/");
    CQList<CQSString*> lines;
    CQSString line("a=1");
    lines.AddTail(&line);
    data.SaveCookies(url, lines);  // no holder: must not touch anything
    EXPECT_EQ(1, lines.GetCount());
    lines.RemoveAll();
}

TEST(SaveCookies, EmptyListStoresNothing)
{
    QCookieHolder holder;
    CHttpData data;
    data.SetCookiePointer(&holder);
    CQSString url("http://srv.test/");
    CQList<CQSString*> lines;
    data.SaveCookies(url, lines);
    EXPECT_EQ(0, holder.cookies.GetCount());
}

// ============================================================ dates

TEST(Dates, DateFieldAsCookieCalendarSeconds)
{
    CHttpData data;
    CHttpResponseHead head;
    Bytes b(std::string("HTTP/1.1 200 OK\r\nDate: Wed, 09 Jun 2021 10:18:14 GMT\r\n\r\n"));
    EXPECT_EQ(1, data.GetContentData(b.Data(), b.Len(), head));
    EXPECT_EQ(static_cast<int>(CookieSeconds(2021, 5, 9, 10, 18, 14)), head.m_nDate);
}

TEST(Dates, ExpireDateField)
{
    CHttpData data;
    CHttpResponseHead head;
    Bytes b(std::string("HTTP/1.1 200 OK\r\nExpireDate: Sun, 06 Nov 1994 08:49:37 GMT\r\n\r\n"));
    EXPECT_EQ(1, data.GetContentExpireData(b.Data(), b.Len(), head));
    EXPECT_EQ(static_cast<int>(CookieSeconds(1994, 10, 6, 8, 49, 37)), head.m_nExpireDate);
}

TEST(Dates, DateMatchesInsideAnEarlierExpireDate)
{
    CHttpData data;
    CHttpResponseHead head;
    Bytes b(std::string(
        "HTTP/1.1 200 OK\r\nExpireDate: Sun, 06 Nov 1994 08:49:37 GMT\r\nDate: Wed, 09 Jun 2021 10:18:14 GMT\r\n\r\n"));
    EXPECT_EQ(1, data.GetContentData(b.Data(), b.Len(), head));
    EXPECT_EQ(static_cast<int>(CookieSeconds(1994, 10, 6, 8, 49, 37)), head.m_nDate);
}

TEST(Dates, UnreadableDateIsZero)
{
    CHttpData data;
    CHttpResponseHead head;
    head.m_nDate = 99;
    Bytes b(std::string("Date: soon\r\n"));
    EXPECT_EQ(1, data.GetContentData(b.Data(), b.Len(), head));
    EXPECT_EQ(0, head.m_nDate);
}

TEST(Dates, MissingFieldsLeaveTheRecord)
{
    CHttpData data;
    CHttpResponseHead head;
    head.m_nDate = 11;
    head.m_nExpireDate = 12;
    Bytes b(std::string("HTTP/1.1 200 OK\r\nDate:\r\n\r\n"));
    EXPECT_EQ(-1, data.GetContentData(b.Data(), b.Len(), head));
    EXPECT_EQ(-1, data.GetContentExpireData(b.Data(), b.Len(), head));
    EXPECT_EQ(11, head.m_nDate);
    EXPECT_EQ(12, head.m_nExpireDate);
}

TEST(Dates, DateStringToIntUsesTheCookieCalendar)
{
    CHttpData data;
    EXPECT_EQ(CookieSeconds(2021, 5, 9, 10, 18, 14), data.DateStringToInt(CQSString("Wed, 09 Jun 2021 10:18:14 GMT")));
    EXPECT_EQ(0u, data.DateStringToInt(CQSString("")));
    EXPECT_EQ(0u, data.DateStringToInt(CQSString("Wednesday, 09-Jun-21 10:18:14 GMT")));
}

// ============================================================ private fields

TEST(PrivateFields, UrlsAreTrimmed)
{
    Bytes b(std::string("CurURL: \t http://srv.test/page \r\nFileURL:http://srv.test/f\r\n"));
    EXPECT_EQ("ret=1 url=http://srv.test/page", ParseCurUrl(b.Data(), b.Len()));
    EXPECT_EQ("ret=1 url=http://srv.test/f", ParseFileUrl(b.Data(), b.Len()));
}

TEST(PrivateFields, AbsentUrlIsSuccessAndLeavesTheString)
{
    Bytes b(std::string("HTTP/1.1 200 OK\r\n\r\n"));
    EXPECT_EQ("ret=1 url=untouched", ParseCurUrl(b.Data(), b.Len()));
    EXPECT_EQ("ret=1 url=untouched", ParseFileUrl(b.Data(), b.Len()));
}

TEST(PrivateFields, UrlsFailOnNullOrEmptyBuffer)
{
    EXPECT_EQ("ret=-1 url=untouched", ParseCurUrl(nullptr, 5));
    EXPECT_EQ("ret=-1 url=untouched", ParseFileUrl(nullptr, 5));
    Bytes b(std::string("CurURL: x\r\n"));
    EXPECT_EQ("ret=-1 url=untouched", ParseCurUrl(b.Data(), 0));
    EXPECT_EQ("ret=-1 url=untouched", ParseCurUrl(b.Data(), -3));
}

TEST(PrivateFields, NumbersAreTrimmedAndRead)
{
    Bytes b(std::string("origsize:  123 \r\nSTREAMSIZE:\t-4\r\nIdVersion: 77x\r\n"));
    EXPECT_EQ("n=123", ParseOrigSize(b.Data(), b.Len()));
    EXPECT_EQ("n=-4", ParseStreamSize(b.Data(), b.Len()));
    EXPECT_EQ("n=77", ParseIdVersion(b.Data(), b.Len()));
}

TEST(PrivateFields, AbsentNumberIsZero)
{
    Bytes b(std::string("HTTP/1.1 200 OK\r\nOrigSize:\r\n\r\n"));
    EXPECT_EQ("n=0", ParseOrigSize(b.Data(), b.Len()));
    EXPECT_EQ("n=0", ParseStreamSize(b.Data(), b.Len()));
    EXPECT_EQ("n=0", ParseIdVersion(b.Data(), b.Len()));
}

TEST(PrivateFields, NullBufferLeavesTheNumber)
{
    EXPECT_EQ("n=-7", ParseOrigSize(nullptr, 4));
    EXPECT_EQ("n=-7", ParseStreamSize(nullptr, 4));
    Bytes b(std::string("idversion:3\r\n"));
    EXPECT_EQ("n=-7", ParseIdVersion(b.Data(), 0));
}

// ============================================================ chunk size

struct ChunkRow
{
    const char* name;
    std::string bytes;
    int size;
    int used;  // checked only when size >= 0
};

void PrintTo(const ChunkRow& row, std::ostream* os) { *os << row.name; }

const ChunkRow kChunkRows[] = {
    {"hex-size", "1a\r\n0123456789abcdefghijklmnopq", 26, 4},
    {"upper-case-hex", "1A\r\n", 26, 4},
    {"after-previous-line-end", "\r\n1a\r\n", 26, 6},
    {"after-two-line-ends", "\r\n\r\n1a\r\nxx", 26, 8},
    {"last-chunk", "0\r\n\r\n", 0, 3},
    {"last-chunk-after-line-end", "\r\n0\r\n\r\n", 0, 5},
    {"extension-is-ignored", "1a;name=value\r\n", 26, 15},
    {"extension-after-blank", "ff ; x\r\n", 255, 8},
    {"leading-blanks", "  10\r\n", 16, 6},
    {"no-digits-reads-zero", "zz\r\n", 0, 4},
    {"one-byte", "1\r\nx", 1, 3},
    {"line-without-crlf", "1a", -1, 0},
    {"line-with-cr-only", "1a\r", -1, 0},
    {"line-with-lf-only", "1a\n", -1, 0},
    {"only-a-line-end", "\r\n", -1, 0},
    {"empty", "", -1, 0},
};

class ChunkSizeTable : public ::testing::TestWithParam<ChunkRow>
{
};

TEST_P(ChunkSizeTable, Whole)
{
    const ChunkRow& row = GetParam();
    Bytes b(row.bytes);
    int used = 0;
    EXPECT_EQ(row.size, CHttpData::GetChunkSize(b.Data(), b.Len(), used));
    if (row.size >= 0) {
        EXPECT_EQ(row.used, used);
        EXPECT_LE(used, b.Len());
    }
    EXPECT_EQ(row.bytes, b.Str());
}

TEST_P(ChunkSizeTable, EveryPrefix)
{
    const ChunkRow& row = GetParam();
    for (size_t n = 0; n <= row.bytes.size(); ++n) {
        Bytes prefix(row.bytes.substr(0, n));
        int used = 0;
        const int size = CHttpData::GetChunkSize(prefix.Data(), prefix.Len(), used);
        if (row.size < 0 || n < static_cast<size_t>(row.used)) {
            EXPECT_EQ(-1, size) << "prefix " << n;
        } else {
            EXPECT_EQ(row.size, size) << "prefix " << n;
            EXPECT_EQ(row.used, used) << "prefix " << n;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, ChunkSizeTable, ::testing::ValuesIn(kChunkRows), RowName<ChunkRow>);

TEST(ChunkSize, NullOrNegativeLengthFails)
{
    int used = 5;
    EXPECT_EQ(-1, CHttpData::GetChunkSize(nullptr, 4, used));
    Bytes b(std::string("1a\r\n"));
    EXPECT_EQ(-1, CHttpData::GetChunkSize(b.Data(), -1, used));
    EXPECT_EQ(5, used);
}

TEST(ChunkSize, UsedIsOverwrittenOnSuccess)
{
    Bytes b(std::string("\r\n1a\r\n"));
    int used = 1000;
    EXPECT_EQ(26, CHttpData::GetChunkSize(b.Data(), b.Len(), used));
    EXPECT_EQ(6, used);
}

TEST(ChunkSize, SkippedLineEndsAreCountedWhileWaiting)
{
    // Each line end skipped adds 2 before the incomplete line is found.
    Bytes b(std::string("\r\n\r\n1a"));
    int used = 0;
    EXPECT_EQ(-1, CHttpData::GetChunkSize(b.Data(), b.Len(), used));
    EXPECT_EQ(4, used);
}

TEST(ChunkSize, SeveralChunksInOneBuffer)
{
    // How the chunked reader walks a buffer: size line, data, next line.
    const std::string body = "4\r\nWiki\r\n5\r\npedia\r\nE\r\n in\r\n\r\nchunks.\r\n0\r\n\r\n";
    Bytes b(body);
    std::string data;
    int pos = 0;
    for (;;) {
        int used = 0;
        const int size = CHttpData::GetChunkSize(b.Data() + pos, b.Len() - pos, used);
        ASSERT_GE(size, 0);
        if (size == 0)
            break;
        data.append(body, static_cast<size_t>(pos + used), static_cast<size_t>(size));
        pos += used + size;
    }
    EXPECT_EQ("Wikipedia in\r\n\r\nchunks.", data);
}

// ============================================================ call forms
//
// The parsers as an owner may call them: on read-only bytes (a literal, a
// const buffer), with or without a CHttpData object, with the request's own
// URL and a read-only list of lines.

const char kReadOnlyHead[] =
    "HTTP/1.1 206 Partial Content\r\n"
    "Content-Length: 100\r\n"
    "Content-Range: bytes 100-199/1000\r\n"
    "Content-Type: audio/mpeg\r\n"
    "Content-Encoding: deflate\r\n"
    "Cache-Control: max-age=60\r\n"
    "Content-Disposition: attachment; filename=\"a b.txt\"\r\n"
    "Location: /next\r\n"
    "Set-Cookie: a=1\r\n"
    "Date: Wed, 09 Jun 2021 10:18:14 GMT\r\n"
    "CurURL: http://srv.test/a\r\n"
    "FileURL: http://srv.test/f\r\n"
    "OrigSize: 7\r\n"
    "StreamSize: 8\r\n"
    "idversion: 9\r\n"
    "\r\n";

const unsigned char* ReadOnlyHead()
{
    return reinterpret_cast<const unsigned char*>(kReadOnlyHead);
}

const int kReadOnlyHeadLen = static_cast<int>(sizeof kReadOnlyHead - 1);

TEST(CallForms, HeadParsesFromReadOnlyBytes)
{
    CHttpData data;
    CHttpResponseHead head;
    ASSERT_EQ(0, data.GetResponseHead(ReadOnlyHead(), kReadOnlyHeadLen, head));
    EXPECT_EQ(kReadOnlyHeadLen, head.m_nHeadLen);
    EXPECT_EQ(206, head.m_nStatusCode);
    EXPECT_EQ(100, head.m_nContentLength);
    EXPECT_EQ(256, head.m_nBodyType);
    EXPECT_EQ(100, head.m_nRangeStart);
    EXPECT_EQ(1000, head.m_nRangeTotal);
    EXPECT_EQ(96, head.m_nContentTypeID);
    EXPECT_EQ(100, head.m_nContentSubTypeID);
    EXPECT_EQ(2, head.m_nContentEncoding);
    EXPECT_EQ(60, head.m_nMaxAge);
    EXPECT_EQ("a b.txt", Str(head.m_strAttachName));
    EXPECT_EQ("http://srv.test/a", Str(head.m_strCurPageURL));
    EXPECT_EQ(7, head.m_nOrigSize);
    EXPECT_EQ(8, head.m_nStreamSize);
    EXPECT_EQ(9, head.m_nIDVersion);
}

TEST(CallForms, FieldParsersNeedNoObject)
{
    const unsigned char* buf = ReadOnlyHead();
    const int len = kReadOnlyHeadLen;
    CHttpResponseHead head;
    int n = 0;
    EXPECT_EQ(100, CHttpData::GetContentLenght(buf, len, n, head));
    EXPECT_EQ(100, n);
    EXPECT_EQ(1, CHttpData::GetContentRange(buf, len, head));
    EXPECT_EQ(100, head.m_nRangeStart);
    EXPECT_EQ(1000, head.m_nRangeTotal);
    EXPECT_EQ(1, CHttpData::GetContentType(buf, len, head));
    EXPECT_EQ(96, head.m_nContentTypeID);
    EXPECT_EQ(1, CHttpData::GetContentEncoding(buf, len, head));
    EXPECT_EQ(2, head.m_nContentEncoding);
    EXPECT_EQ(1, CHttpData::GetCacheControl(buf, len, head));
    EXPECT_EQ(60, head.m_nMaxAge);
    EXPECT_EQ(1, CHttpData::GetContentAttachName(buf, len, head));
    EXPECT_EQ("a b.txt", Str(head.m_strAttachName));
    CQSString location;
    EXPECT_EQ(1, CHttpData::GetLocation(buf, len, location));
    EXPECT_EQ("/next", Str(location));
    EXPECT_EQ(1, CHttpData::GetCookie(buf, len, head));
    EXPECT_EQ((std::vector<std::string>{" a=1"}), Lines(head));
    EXPECT_EQ(1, CHttpData::GetContentData(buf, len, head));
    EXPECT_EQ(static_cast<int>(5u * 2592000u + 9u * 86400u + 10u * 3600u + 18u * 60u + 14u + 51u * 31536000u),
              head.m_nDate);
    EXPECT_EQ(-1, CHttpData::GetContentExpireData(buf, len, head));
    CQSString url;
    EXPECT_EQ(1, CHttpData::GetThisPageUrl(buf, len, url));
    EXPECT_EQ("http://srv.test/a", Str(url));
    EXPECT_EQ(1, CHttpData::GetFileUrl(buf, len, url));
    EXPECT_EQ("http://srv.test/f", Str(url));
    CHttpData::GetOrignSize(buf, len, n);
    EXPECT_EQ(7, n);
    CHttpData::GetStreamSize(buf, len, n);
    EXPECT_EQ(8, n);
    CHttpData::GetIDVersion(buf, len, n);
    EXPECT_EQ(9, n);

    const unsigned char chunk[] = "1a\r\n";
    int used = 0;
    EXPECT_EQ(26, CHttpData::GetChunkSize(chunk, 4, used));
    EXPECT_EQ(4, used);
}

TEST(CallForms, ContentTypeHelpersTakeReadOnlyStrings)
{
    const CQSString type("text/html; charset=GB2312");
    int mainId = 0;
    int subId = 0;
    CHttpData::GetContentTypeID(&type, mainId, subId);
    EXPECT_EQ(16, mainId);
    EXPECT_EQ(19, subId);
    EXPECT_EQ(19, CHttpData::GetContentTypeSubID(&type, 16));
    EXPECT_EQ(19, CHttpData::GetTextSubID(&type));
    const CQSString xhtml("application/xhtml+xml");
    EXPECT_EQ(51, CHttpData::GetApplicationSubID(&xhtml));
    const CQSString amr("audio/amr");
    EXPECT_EQ(99, CHttpData::GetAudioSubID(&amr));
    const CQSString video("video/3gpp");
    EXPECT_EQ(145, CHttpData::GetVideoSubID(&video));
    const CQSString image("image/png");
    EXPECT_EQ(-1, CHttpData::GetImageSubID(&image));
    CQSString charset;
    CHttpData::GetCharset(&type, charset);
    EXPECT_EQ("GB2312", Str(charset));
}

TEST(CallForms, SaveCookiesTakesTheStoredUrlAndAReadOnlyList)
{
    QCookieHolder holder;  // no directory: nothing touches the disk
    CHttpData data;
    data.SetCookiePointer(&holder);
    data.SetURL("http://srv.test/login");
    CHttpResponseHead head;
    const char response[] = "HTTP/1.1 200 OK\r\nSet-Cookie: sid=ab12\r\n\r\n";
    ASSERT_EQ(1, CHttpData::GetCookie(reinterpret_cast<const unsigned char*>(response),
                                      static_cast<int>(sizeof response - 1), head));
    const CHttpResponseHead& readOnly = head;
    data.SaveCookies(data.GetURL(), readOnly.m_listCookies);

    std::unique_ptr<CQHashTable<QCookieValue>> jar(holder.GetCookie(CQSString("srv.test"), true));
    ASSERT_TRUE(jar);
    ASSERT_TRUE(jar->get(CQSString("sid")));
    EXPECT_EQ("ab12", Str(jar->get(CQSString("sid"))->value));
    // The lines stay the record's.
    EXPECT_EQ((std::vector<std::string>{" sid=ab12"}), Lines(head));
}

}  // namespace
