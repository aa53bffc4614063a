// The response head record CHttpResponseHead and CHttpData::GetResponseHead.

#include "src/CookieHolder.h"
#include "src/HttpData.h"

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

std::string Str(const CQSString& s)
{
    return std::string(s.GetDataPtr(), static_cast<size_t>(s.GetLength()));
}

std::vector<std::string> Lines(const CHttpResponseHead& head)
{
    std::vector<std::string> lines;
    POSITION pos = head.m_listCookies.GetHeadPosition();
    while (pos) {
        const CQSString* line = head.m_listCookies.GetNext(pos);
        lines.push_back(line ? Str(*line) : std::string("<null>"));
    }
    return lines;
}

}  // namespace

// Field by field, so that a failure names what differs. Global, next to the
// record type, so that GoogleTest finds it.
std::string Describe(const CHttpResponseHead& h)
{
    std::ostringstream os;
    os << "{headLen=" << h.m_nHeadLen << " status=" << h.m_nStatusCode << " contentLength=" << h.m_nContentLength
       << " type=" << h.m_nContentTypeID << "/" << h.m_nContentSubTypeID << " bodyType=" << h.m_nBodyType
       << " location=\"" << Str(h.m_strLocation) << "\" cacheable=" << h.m_bCacheable << " range="
       << h.m_nRangeStart << "/" << h.m_nRangeTotal << " attach=\"" << Str(h.m_strAttachName) << "\" cookies=[";
    for (const std::string& line : Lines(h))
        os << "\"" << line << "\"";
    os << "] curURL=\"" << Str(h.m_strCurPageURL) << "\" fileURL=\"" << Str(h.m_strFileURL) << "\" charset=\""
       << Str(h.m_strCharset) << "\" origSize=" << h.m_nOrigSize << " streamSize=" << h.m_nStreamSize
       << " idVersion=" << h.m_nIDVersion << " date=" << h.m_nDate << " expireDate=" << h.m_nExpireDate
       << " maxAge=" << h.m_nMaxAge << " private=" << h.m_bPrivate << " noStore=" << h.m_bNoStore
       << " contentEncoding=" << h.m_nContentEncoding << " contentLength64=" << h.m_nContentLength64
       << " range64=" << h.m_nRangeStart64 << "/" << h.m_nRangeTotal64
       << " lengthInvalid=" << h.m_bContentLengthInvalid << "}";
    return os.str();
}

void PrintTo(const CHttpResponseHead& head, std::ostream* os)
{
    *os << Describe(head);
}

bool operator==(const CHttpResponseHead& a, const CHttpResponseHead& b)
{
    return Describe(a) == Describe(b);
}

namespace {

// An exactly sized heap copy, so that AddressSanitizer reports any read past
// the length the parser was given.
class Bytes
{
public:
    explicit Bytes(const std::string& text)
        : m_len(static_cast<int>(text.size())), m_data(new unsigned char[text.size()])
    {
        if (!text.empty())
            std::memcpy(m_data.get(), text.data(), text.size());
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
int CookieSeconds(int year, int monthIndex, int day, int hour, int minute, int second)
{
    return static_cast<int>(static_cast<unsigned int>(monthIndex) * 2592000u + static_cast<unsigned int>(day) * 86400u +
                            static_cast<unsigned int>(hour) * 3600u + static_cast<unsigned int>(minute) * 60u +
                            static_cast<unsigned int>(second) +
                            static_cast<unsigned int>(year - 1970) * 31536000u);
}

void AddLine(CHttpResponseHead& head, const char* text)
{
    head.m_listCookies.AddTail(new CQSString(text));
}

// Every field away from its initial value.
void FillEveryField(CHttpResponseHead& h)
{
    h.m_nHeadLen = 11;
    h.m_nStatusCode = 12;
    h.m_nContentLength = 13;
    h.m_nContentTypeID = 48;
    h.m_nContentSubTypeID = 51;
    h.m_nBodyType = 512;
    h.m_strLocation = "http://srv.test/loc";
    h.m_bCacheable = false;
    h.m_nRangeStart = 14;
    h.m_nRangeTotal = 15;
    h.m_strAttachName = "a.txt";
    AddLine(h, "s1=1");
    AddLine(h, "s2=2");
    h.m_strCurPageURL = "http://srv.test/cur";
    h.m_strFileURL = "http://srv.test/file";
    h.m_strCharset = "GB2312";
    h.m_nOrigSize = 16;
    h.m_nStreamSize = 17;
    h.m_nIDVersion = 18;
    h.m_nDate = 19;
    h.m_nExpireDate = 20;
    h.m_nMaxAge = 21;
    h.m_bPrivate = true;
    h.m_bNoStore = true;
    h.m_nContentEncoding = 2;
    h.m_nContentLength64 = 4294967306LL;
    h.m_nRangeStart64 = 2684354560LL;
    h.m_nRangeTotal64 = 5368709120LL;
    h.m_bContentLengthInvalid = true;
}

// ============================================================ record

TEST(HttpResponseHead, ConstructionGivesTheInitialValues)
{
    CHttpResponseHead h;
    EXPECT_EQ(-1, h.m_nHeadLen);
    EXPECT_EQ(-1, h.m_nStatusCode);
    EXPECT_EQ(-1, h.m_nContentLength);
    EXPECT_EQ(0, h.m_nContentTypeID);
    EXPECT_EQ(0, h.m_nContentSubTypeID);
    EXPECT_EQ(-1, h.m_nBodyType);
    EXPECT_TRUE(h.m_strLocation.IsEmpty());
    EXPECT_TRUE(h.m_bCacheable);
    EXPECT_EQ(-1, h.m_nRangeStart);
    EXPECT_EQ(-1, h.m_nRangeTotal);
    EXPECT_TRUE(h.m_strAttachName.IsEmpty());
    EXPECT_EQ(0, h.m_listCookies.GetCount());
    EXPECT_TRUE(h.m_strCurPageURL.IsEmpty());
    EXPECT_TRUE(h.m_strFileURL.IsEmpty());
    EXPECT_TRUE(h.m_strCharset.IsEmpty());
    EXPECT_EQ(0, h.m_nOrigSize);
    EXPECT_EQ(0, h.m_nStreamSize);
    EXPECT_EQ(-1, h.m_nIDVersion);
    EXPECT_EQ(0, h.m_nDate);
    EXPECT_EQ(0, h.m_nExpireDate);
    EXPECT_EQ(0, h.m_nMaxAge);
    EXPECT_FALSE(h.m_bPrivate);
    EXPECT_FALSE(h.m_bNoStore);
    EXPECT_EQ(0, h.m_nContentEncoding);
    EXPECT_EQ(-1, h.m_nContentLength64);
    EXPECT_EQ(-1, h.m_nRangeStart64);
    EXPECT_EQ(-1, h.m_nRangeTotal64);
    EXPECT_FALSE(h.m_bContentLengthInvalid);
}

TEST(HttpResponseHead, ResetRestoresEveryFieldAndDeletesTheLines)
{
    CHttpResponseHead fresh;
    CHttpResponseHead h;
    FillEveryField(h);
    ASSERT_FALSE(h == fresh);
    h.Reset();
    EXPECT_EQ(fresh, h);
    h.Reset();  // twice is harmless
    EXPECT_EQ(fresh, h);
}

TEST(HttpResponseHead, DestructionFreesTheCookieStrings)
{
    // Leak-checked in the sanitizer build: the record owns its lines.
    auto head = std::make_unique<CHttpResponseHead>();
    AddLine(*head, "a=1");
    AddLine(*head, "b=2");
    EXPECT_EQ(2, head->m_listCookies.GetCount());
    head.reset();
}

TEST(HttpResponseHead, AssignmentCopiesEverythingButTheContentEncoding)
{
    CHttpResponseHead source;
    FillEveryField(source);
    CHttpResponseHead target;
    target.m_nContentEncoding = 1;
    target = source;
    EXPECT_EQ(1, target.m_nContentEncoding);
    target.m_nContentEncoding = source.m_nContentEncoding;
    EXPECT_EQ(source, target);
}

TEST(HttpResponseHead, AssignmentAppendsCopiesOfTheSourceLines)
{
    CHttpResponseHead target;
    AddLine(target, "t1=1");
    {
        CHttpResponseHead source;
        AddLine(source, "s1=1");
        AddLine(source, "s2=2");
        target = source;
        EXPECT_EQ((std::vector<std::string>{"s1=1", "s2=2"}), Lines(source));
        // New strings, not the source's.
        POSITION s = source.m_listCookies.GetHeadPosition();
        POSITION t = target.m_listCookies.GetHeadPosition();
        target.m_listCookies.GetNext(t);
        while (s && t)
            EXPECT_NE(source.m_listCookies.GetNext(s), target.m_listCookies.GetNext(t));
    }
    // The source is gone; the copies live on in the target.
    EXPECT_EQ((std::vector<std::string>{"t1=1", "s1=1", "s2=2"}), Lines(target));
}

TEST(HttpResponseHead, CopyIsAFreshRecordAssignedFromTheSource)
{
    CHttpResponseHead source;
    FillEveryField(source);
    const CHttpResponseHead copy = source;
    // Every field but the content encoding, which keeps its initial value.
    EXPECT_EQ(0, copy.m_nContentEncoding);
    CHttpResponseHead expected;
    expected = source;
    EXPECT_EQ(expected, copy);
    EXPECT_EQ((std::vector<std::string>{"s1=1", "s2=2"}), Lines(copy));
    // The copy owns new strings.
    POSITION s = source.m_listCookies.GetHeadPosition();
    POSITION c = copy.m_listCookies.GetHeadPosition();
    while (s && c)
        EXPECT_NE(source.m_listCookies.GetNext(s), copy.m_listCookies.GetNext(c));
}

TEST(HttpResponseHead, AssignmentToItselfChangesNothing)
{
    CHttpResponseHead h;
    FillEveryField(h);
    const std::string before = Describe(h);
    CHttpResponseHead& alias = h;
    h = alias;
    EXPECT_EQ(before, Describe(h));
}

TEST(HttpResponseHead, AssignmentSkipsANullLine)
{
    CHttpResponseHead source;
    AddLine(source, "s1=1");
    source.m_listCookies.AddTail(nullptr);
    AddLine(source, "s2=2");
    CHttpResponseHead target;
    target = source;
    EXPECT_EQ((std::vector<std::string>{"s1=1", "s2=2"}), Lines(target));
    // Taken out again: destroying a record with a null line is fatal.
    POSITION pos = source.m_listCookies.GetHeadPosition();
    int index = 0;
    while (pos && source.m_listCookies.GetNext(pos) != nullptr)
        ++index;
    source.m_listCookies.RemoveAt(index);
    EXPECT_EQ((std::vector<std::string>{"s1=1", "s2=2"}), Lines(source));
}

// The int companions of the 64-bit fields: the value itself while it fits
// an int, the nearer int limit beyond.
TEST(HttpResponseHead, SaturatedIntAtBothEdges)
{
    const struct
    {
        long long value;
        int expected;
    } rows[] = {
        {0, 0},
        {2147483647LL, 2147483647},
        {2147483648LL, 2147483647},
        {9223372036854775807LL, 2147483647},
        {-1, -1},
        {-2147483647LL - 1, -2147483647 - 1},
        {-2147483647LL - 2, -2147483647 - 1},
        {-9223372036854775807LL - 1, -2147483647 - 1},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.expected, CHttpResponseHead::SaturatedInt(row.value)) << row.value;
}

// Each allocation of copying a line fails in turn (the copy, its text, the
// first block of the empty target list): the line is copied or left out.
TEST(HttpResponseHead, AnAllocationThatFailsLeavesTheLineOut)
{
    CHttpResponseHead source;
    AddLine(source, "s1=1");
    int skip = 0;
    for (; skip < 16; ++skip) {
        SCOPED_TRACE("allocation " + std::to_string(skip) + " fails");
        CHttpResponseHead target;
        velatest::HeapWatch::FailNothrowAfter(skip);
        target = source;
        velatest::HeapWatch::StopFailing();
        const std::vector<std::string> lines = Lines(target);
        if (!lines.empty()) {
            EXPECT_EQ(std::vector<std::string>{"s1=1"}, lines);
            break;
        }
    }
    EXPECT_EQ(3, skip);
}

// With two lines, each allocation fails in turn, also once the list has
// room: a line whose text cannot be copied is left out, never kept empty.
TEST(HttpResponseHead, AnAllocationThatFailsNeverCopiesALineEmpty)
{
    CHttpResponseHead source;
    AddLine(source, "s1=1");
    AddLine(source, "s2=2");
    const std::vector<std::string> whole{"s1=1", "s2=2"};
    int skip = 0;
    for (; skip < 32; ++skip) {
        SCOPED_TRACE("allocation " + std::to_string(skip) + " fails");
        CHttpResponseHead target;
        velatest::HeapWatch::FailNothrowAfter(skip);
        target = source;
        velatest::HeapWatch::StopFailing();
        const std::vector<std::string> lines = Lines(target);
        for (const std::string& line : lines)
            EXPECT_TRUE(std::find(whole.begin(), whole.end(), line) != whole.end()) << "[" << line << "]";
        if (lines == whole)
            break;
    }
    EXPECT_LT(skip, 32);
}

TEST(HttpResponseHeadDeathTest, ResetWithANullLineIsFatal)
{
    EXPECT_DEATH(
        {
            CHttpResponseHead h;
            AddLine(h, "a=1");
            h.m_listCookies.AddTail(nullptr);
            h.Reset();
        },
        "ASSERT: \"pItem != NULL\" in file src/HttpData");
}

TEST(HttpResponseHeadDeathTest, DestructionWithANullLineIsFatal)
{
    EXPECT_DEATH(
        {
            CHttpResponseHead h;
            h.m_listCookies.AddTail(nullptr);
        },
        "ASSERT: \"pItem != NULL\" in file src/HttpData");
}

// ============================================================ GetResponseHead rows

struct HeadRow
{
    const char* name;
    std::string head;  // through the blank line
    std::string body;  // bytes that follow in the same buffer
    void (*expect)(CHttpResponseHead& expected);  // applied to a reset record
};

void PrintTo(const HeadRow& row, std::ostream* os) { *os << row.name; }

const char kTypicalHead[] =
    "HTTP/1.1 200 OK\r\n"
    "Server: nginx/1.22.1\r\n"
    "Date: Wed, 09 Jun 2021 10:18:14 GMT\r\n"
    "Content-Type: text/html; charset=UTF-8\r\n"
    "Content-Length: 9216\r\n"
    "Connection: close\r\n"
    "Last-Modified: Tue, 08 Jun 2021 09:00:00 GMT\r\n"
    "ETag: \"60bf3a40-2400\"\r\n"
    "Cache-Control: max-age=3600\r\n"
    "Set-Cookie: sid=ab12cd34; path=/; HttpOnly\r\n"
    "Set-Cookie: lang=en; path=/\r\n"
    "Vary: Accept-Encoding\r\n"
    "\r\n";

const char kPlainBody[] = "<html><body><p>hello, world</p></body></html>";

// What every status except 301 and 302 sets when its fields are absent.
void FullOrderDefaults(CHttpResponseHead& e)
{
    e.m_nBodyType = 768;
    e.m_nOrigSize = 0;
    e.m_nStreamSize = 0;
    e.m_nIDVersion = 0;
}

const HeadRow kHeadRows[] = {
    {"ok-typical", kTypicalHead, kPlainBody,
     [](CHttpResponseHead& e) {
         FullOrderDefaults(e);
         e.m_nStatusCode = 200;
         e.m_nDate = CookieSeconds(2021, 5, 9, 10, 18, 14);
         e.m_nContentTypeID = 16;
         e.m_nContentSubTypeID = 19;
         e.m_strCharset = "UTF-8";
         e.m_nContentLength = 9216;
         e.m_nBodyType = 256;
         e.m_nMaxAge = 3600;
         AddLine(e, " sid=ab12cd34; path=/; HttpOnly");
         AddLine(e, " lang=en; path=/");
     }},
    {"ok-minimal", "HTTP/1.1 200 OK\r\n\r\n", "",
     [](CHttpResponseHead& e) {
         FullOrderDefaults(e);
         e.m_nStatusCode = 200;
     }},
    {"found-302-fills-only-location-and-cookies",
     "HTTP/1.1 302 Found\r\nLocation: http://srv.test/next\r\nContent-Length: 0\r\nContent-Type: text/html\r\n"
     "Set-Cookie: a=1\r\nCurURL: http://srv.test/x\r\nidversion: 4\r\n\r\n",
     "",
     [](CHttpResponseHead& e) {
         e.m_nStatusCode = 302;
         e.m_strLocation = "http://srv.test/next";
         AddLine(e, " a=1");
     }},
    {"moved-301", "HTTP/1.1 301 Moved Permanently\r\nlocation: /b.html\r\nContent-Encoding: gzip\r\n\r\n", kPlainBody,
     [](CHttpResponseHead& e) {
         e.m_nStatusCode = 301;
         e.m_strLocation = "/b.html";
     }},
    {"see-other-303-takes-the-full-order",
     "HTTP/1.1 303 See Other\r\nLocation: /c\r\nContent-Length: 0\r\nSet-Cookie: a=1\r\n\r\n", "",
     [](CHttpResponseHead& e) {
         FullOrderDefaults(e);
         e.m_nStatusCode = 303;
         e.m_nContentLength = 0;
         e.m_nBodyType = 256;
         AddLine(e, " a=1");
     }},
    {"temporary-redirect-307-takes-the-full-order", "HTTP/1.1 307 Temporary Redirect\r\nLocation: /d\r\n\r\n", "",
     [](CHttpResponseHead& e) {
         FullOrderDefaults(e);
         e.m_nStatusCode = 307;
     }},
    {"chunked", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nContent-Type: application/xhtml+xml\r\n\r\n",
     "1a\r\nabcdefghijklmnopqrstuvwxyz\r\n0\r\n\r\n",
     [](CHttpResponseHead& e) {
         FullOrderDefaults(e);
         e.m_nStatusCode = 200;
         e.m_nBodyType = 512;
         e.m_nContentTypeID = 48;
         e.m_nContentSubTypeID = 51;
     }},
    {"partial-content-206",
     "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 100-199/1000\r\nContent-Length: 100\r\n"
     "Content-Disposition: attachment; filename=\"a b.txt\"\r\nContent-Type: application/octet-stream\r\n\r\n",
     std::string(100, 'x'),
     [](CHttpResponseHead& e) {
         FullOrderDefaults(e);
         e.m_nStatusCode = 206;
         e.m_nContentLength = 100;
         e.m_nBodyType = 256;
         e.m_nRangeStart = 100;
         e.m_nRangeTotal = 1000;
         e.m_strAttachName = "a b.txt";
         e.m_nContentTypeID = 48;
         e.m_nContentSubTypeID = -1;
     }},
    {"no-cache-gzip",
     "HTTP/1.1 200 OK\r\nCache-Control: no-cache, no-store\r\nContent-Encoding: gzip\r\nContent-Length: 20\r\n"
     "Content-Type: text/vnd.wap.wml; charset=gb2312\r\n\r\n",
     std::string("\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\x03\x03\x00\x00\x00\x00\x00\x00\x00\x00\x00", 20),
     [](CHttpResponseHead& e) {
         FullOrderDefaults(e);
         e.m_nStatusCode = 200;
         e.m_nContentLength = 20;
         e.m_nBodyType = 256;
         e.m_bCacheable = false;
         e.m_bNoStore = true;
         e.m_nContentEncoding = 1;
         e.m_nContentTypeID = 16;
         e.m_nContentSubTypeID = 17;
         e.m_strCharset = "GB2312";
     }},
    {"private-fields",
     "HTTP/1.1 200 OK\r\nExpireDate: Sun, 06 Nov 1994 08:49:37 GMT\r\nCurURL: http://srv.test/page \r\n"
     "FileURL:  http://srv.test/f.bin\r\nOrigSize: 4096\r\nStreamSize: 1024\r\nidversion:7\r\n"
     "Cache-Control: private\r\n\r\n",
     "",
     [](CHttpResponseHead& e) {
         FullOrderDefaults(e);
         e.m_nStatusCode = 200;
         // "Date:" is first found inside "ExpireDate:".
         e.m_nDate = CookieSeconds(1994, 10, 6, 8, 49, 37);
         e.m_nExpireDate = CookieSeconds(1994, 10, 6, 8, 49, 37);
         e.m_strCurPageURL = "http://srv.test/page";
         e.m_strFileURL = "http://srv.test/f.bin";
         e.m_nOrigSize = 4096;
         e.m_nStreamSize = 1024;
         e.m_nIDVersion = 7;
         e.m_bPrivate = true;
         e.m_bCacheable = false;
     }},
    {"status-line-any-case", "http/1.1 404 not found\r\ncontent-length: 0\r\n\r\n", "",
     [](CHttpResponseHead& e) {
         FullOrderDefaults(e);
         e.m_nStatusCode = 404;
         e.m_nContentLength = 0;
         e.m_nBodyType = 256;
     }},
    {"http-1-0", "HTTP/1.0 500 Internal Server Error\r\n\r\n", kPlainBody,
     [](CHttpResponseHead& e) {
         FullOrderDefaults(e);
         e.m_nStatusCode = 500;
     }},
    {"bytes-before-the-status-line", "\r\nHTTP/1.1 200 OK\r\n\r\n", "",
     [](CHttpResponseHead& e) {
         FullOrderDefaults(e);
         e.m_nStatusCode = 200;
     }},
    {"status-without-reason-reads-to-the-next-blank", "HTTP/1.1 204\r\nServer: x\r\n\r\n", "",
     [](CHttpResponseHead& e) {
         FullOrderDefaults(e);
         e.m_nStatusCode = 204;
     }},
};

CHttpResponseHead& Expected(const HeadRow& row, CHttpResponseHead& e)
{
    e.Reset();
    row.expect(e);
    e.m_nHeadLen = static_cast<int>(row.head.size());
    // The rows give the int fields; their small values are the 64-bit ones too.
    e.m_nContentLength64 = e.m_nContentLength;
    e.m_nRangeStart64 = e.m_nRangeStart;
    e.m_nRangeTotal64 = e.m_nRangeTotal;
    return e;
}

class ResponseHeadTest : public ::testing::TestWithParam<HeadRow>
{
protected:
    // Feeds the response in pieces ending at the given cuts, as the engine
    // does: append, reset the record, parse the whole buffer so far. Until
    // the blank line has arrived the answer is -1 and the record stays as
    // reset; from then on it is 0 and the same record.
    void Feed(const std::vector<size_t>& cuts)
    {
        const HeadRow& row = GetParam();
        const std::string all = row.head + row.body;
        CHttpResponseHead expected;
        Expected(row, expected);
        const CHttpResponseHead reset;
        CHttpData data;
        CHttpResponseHead head;
        for (size_t cut : cuts) {
            Bytes buffer(all.substr(0, cut));
            head.Reset();
            const int r = data.GetResponseHead(buffer.Data(), buffer.Len(), head);
            if (cut < row.head.size()) {
                EXPECT_EQ(-1, r) << "after " << cut << " bytes";
                EXPECT_EQ(reset, head) << "after " << cut << " bytes";
            } else {
                EXPECT_EQ(0, r) << "after " << cut << " bytes";
                EXPECT_EQ(expected, head) << "after " << cut << " bytes";
            }
            EXPECT_EQ(all.substr(0, cut), buffer.Str()) << "the bytes are never changed";
        }
    }
};

TEST_P(ResponseHeadTest, Whole)
{
    Feed({GetParam().head.size() + GetParam().body.size()});
}

TEST_P(ResponseHeadTest, OneBytePerRead)
{
    std::vector<size_t> cuts;
    for (size_t n = 1; n <= GetParam().head.size() + GetParam().body.size(); ++n)
        cuts.push_back(n);
    Feed(cuts);
}

TEST_P(ResponseHeadTest, EveryTwoWaySplit)
{
    const size_t size = GetParam().head.size() + GetParam().body.size();
    for (size_t k = 1; k < size; ++k)
        Feed({k, size});
}

TEST_P(ResponseHeadTest, TwentyRandomSplits)
{
    const size_t size = GetParam().head.size() + GetParam().body.size();
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    for (int round = 0; round < 20; ++round) {
        std::vector<size_t> cuts;
        size_t at = 0;
        while (at < size) {
            at += 1 + rng() % (size / 4 + 1);
            cuts.push_back(at < size ? at : size);
        }
        Feed(cuts);
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, ResponseHeadTest, ::testing::ValuesIn(kHeadRows), RowName<HeadRow>);

// ============================================================ GetResponseHead cases

class GetResponseHeadTest : public ::testing::Test
{
protected:
    int Parse(const std::string& text)
    {
        Bytes b(text);
        return data.GetResponseHead(b.Data(), b.Len(), head);
    }

    CHttpData data;
    CHttpResponseHead head;
};

TEST_F(GetResponseHeadTest, StatusLineWithoutBlankLineGivesMinusOneAndLeavesTheRecord)
{
    FillEveryField(head);
    const std::string before = Describe(head);
    EXPECT_EQ(-1, Parse("HTTP/1.1 200 OK\r\n"));
    EXPECT_EQ(before, Describe(head));
    EXPECT_EQ(-1, Parse("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n"));
    EXPECT_EQ(before, Describe(head));
}

TEST_F(GetResponseHeadTest, Found302FillsOnlyLocationAndCookies)
{
    EXPECT_EQ(0, Parse("HTTP/1.1 302 Found\r\nLocation: http://srv.test/x\r\nContent-Length: 12\r\n"
                       "Set-Cookie: a=1\r\n\r\n"));
    EXPECT_EQ(302, head.m_nStatusCode);
    EXPECT_EQ("http://srv.test/x", Str(head.m_strLocation));
    EXPECT_EQ((std::vector<std::string>{" a=1"}), Lines(head));
    EXPECT_EQ(-1, head.m_nContentLength);
    EXPECT_EQ(-1, head.m_nBodyType);
    EXPECT_EQ(-1, head.m_nIDVersion);
}

TEST_F(GetResponseHeadTest, NullEmptyOrNegativeLengthGivesMinusOne)
{
    FillEveryField(head);
    const std::string before = Describe(head);
    EXPECT_EQ(-1, data.GetResponseHead(nullptr, 10, head));
    Bytes b(std::string("HTTP/1.1 200 OK\r\n\r\n"));
    EXPECT_EQ(-1, data.GetResponseHead(b.Data(), 0, head));
    EXPECT_EQ(-1, data.GetResponseHead(b.Data(), -1, head));
    EXPECT_EQ(before, Describe(head));
}

TEST_F(GetResponseHeadTest, WithoutHttpTextGivesMinusOne)
{
    EXPECT_EQ(-1, Parse("ICY 200 OK\r\nContent-Length: 5\r\n\r\n"));
    EXPECT_EQ(-1, Parse("HTTP 200 OK\r\n\r\n"));
}

TEST_F(GetResponseHeadTest, WithoutBlankAfterTheStatusGivesMinusOne)
{
    EXPECT_EQ(-1, Parse("HTTP/1.1 200\r\n\r\n"));
    EXPECT_EQ(-1, Parse("HTTP/1\r\n\r\n"));
    EXPECT_EQ(-1, head.m_nStatusCode);
}

TEST_F(GetResponseHeadTest, StatusIsReadNineBytesAfterTheHttpText)
{
    // "HTTP/2 200 OK": the ninth byte after "HTTP/" is the last '0'.
    EXPECT_EQ(0, Parse("HTTP/2 200 OK\r\n\r\n"));
    EXPECT_EQ(0, head.m_nStatusCode);
    head.Reset();
    EXPECT_EQ(0, Parse("HTTP/1.1 20x OK\r\n\r\n"));
    EXPECT_EQ(20, head.m_nStatusCode);
}

TEST_F(GetResponseHeadTest, HeadLengthCountsTheBlankLine)
{
    EXPECT_EQ(0, Parse("HTTP/1.1 200 OK\r\n\r\nbody bytes"));
    EXPECT_EQ(19, head.m_nHeadLen);
}

TEST_F(GetResponseHeadTest, RecordIsNotResetFirst)
{
    head.m_strLocation = "kept";
    AddLine(head, "old=1");
    head.m_nContentTypeID = 144;
    EXPECT_EQ(0, Parse("HTTP/1.1 200 OK\r\nSet-Cookie: new=2\r\n\r\n"));
    EXPECT_EQ("kept", Str(head.m_strLocation));
    EXPECT_EQ((std::vector<std::string>{"old=1", " new=2"}), Lines(head));
    EXPECT_EQ(144, head.m_nContentTypeID);
}

TEST_F(GetResponseHeadTest, FieldsInBodyBytesCount)
{
    EXPECT_EQ(0, Parse("HTTP/1.1 200 OK\r\nContent-Length: 40\r\n\r\n<a>CurURL: http://srv.test/in-body\r\n</a>"));
    EXPECT_EQ("http://srv.test/in-body", Str(head.m_strCurPageURL));
    EXPECT_EQ(40, head.m_nContentLength);
}

TEST_F(GetResponseHeadTest, RedirectLocationMatchesInsideContentLocation)
{
    EXPECT_EQ(0, Parse("HTTP/1.1 302 Found\r\nContent-Location: /first\r\nLocation: /second\r\n\r\n"));
    EXPECT_EQ("/first", Str(head.m_strLocation));
}

TEST_F(GetResponseHeadTest, CookiesGoToTheHolderWithTheRequestUrl)
{
    QCookieHolder holder;  // no directory: nothing touches the disk
    data.SetCookiePointer(&holder);
    data.SetURL("http://shop.srv.test/cart");
    EXPECT_EQ(0, Parse("HTTP/1.1 200 OK\r\nSet-Cookie: cart=3\r\nSet-Cookie: user=ann; domain=srv.test\r\n\r\n"));
    std::unique_ptr<CQHashTable<QCookieValue>> jar(holder.GetCookie(CQSString("shop.srv.test"), true));
    ASSERT_TRUE(jar);
    EXPECT_EQ(2, jar->GetCount());
    ASSERT_TRUE(jar->get(CQSString("cart")));
    EXPECT_EQ("3", Str(jar->get(CQSString("cart"))->value));
    ASSERT_TRUE(jar->get(CQSString("user")));
    EXPECT_EQ("ann", Str(jar->get(CQSString("user"))->value));
    // The domain cookie is stored for the parent domain.
    std::unique_ptr<CQHashTable<QCookieValue>> parent(holder.GetCookie(CQSString("srv.test"), true));
    ASSERT_TRUE(parent);
    EXPECT_EQ(1, parent->GetCount());
}

TEST_F(GetResponseHeadTest, RedirectCookiesGoToTheHolderToo)
{
    QCookieHolder holder;
    data.SetCookiePointer(&holder);
    data.SetURL("http://srv.test/login");
    EXPECT_EQ(0, Parse("HTTP/1.1 302 Found\r\nLocation: /home\r\nSet-Cookie: sid=9\r\n\r\n"));
    std::unique_ptr<CQHashTable<QCookieValue>> jar(holder.GetCookie(CQSString("srv.test"), true));
    ASSERT_TRUE(jar);
    ASSERT_TRUE(jar->get(CQSString("sid")));
    EXPECT_EQ("9", Str(jar->get(CQSString("sid"))->value));
}

TEST_F(GetResponseHeadTest, ContentEncodingIsSetForEveryFullOrderResponse)
{
    head.m_nContentEncoding = 1;
    EXPECT_EQ(0, Parse("HTTP/1.1 200 OK\r\n\r\n"));
    EXPECT_EQ(0, head.m_nContentEncoding);
}

// ============================================================ hostile input

// Checks what must hold for any input: a known answer, a head length inside
// the buffer ending in the blank line, and no more cookie lines than fields.
void CheckAnyInput(const std::string& text)
{
    Bytes b(text);
    CHttpData data;
    CHttpResponseHead head;
    const int r = data.GetResponseHead(b.Data(), b.Len(), head);
    ASSERT_TRUE(r == 0 || r == -1) << velatest::Visible(b.Data(), b.Len());
    if (r == 0) {
        ASSERT_GE(head.m_nHeadLen, 4);
        ASSERT_LE(head.m_nHeadLen, b.Len());
        EXPECT_EQ("\r\n\r\n", text.substr(static_cast<size_t>(head.m_nHeadLen) - 4, 4));
        EXPECT_LE(head.m_listCookies.GetCount(), b.Len() / 11);
    }
    EXPECT_EQ(text, b.Str());

    // Every field parser on its own, on the same bytes.
    CHttpResponseHead fields;
    int n = 0;
    CQSString s;
    (void)data.GetContentLenght(b.Data(), b.Len(), n, fields);
    (void)data.GetContentRange(b.Data(), b.Len(), fields);
    (void)data.GetContentType(b.Data(), b.Len(), fields);
    (void)data.GetContentEncoding(b.Data(), b.Len(), fields);
    (void)data.GetCacheControl(b.Data(), b.Len(), fields);
    (void)data.GetContentAttachName(b.Data(), b.Len(), fields);
    (void)data.GetLocation(b.Data(), b.Len(), s);
    (void)data.GetCookie(b.Data(), b.Len(), fields);
    (void)data.GetContentData(b.Data(), b.Len(), fields);
    (void)data.GetContentExpireData(b.Data(), b.Len(), fields);
    (void)data.GetThisPageUrl(b.Data(), b.Len(), s);
    (void)data.GetFileUrl(b.Data(), b.Len(), s);
    data.GetOrignSize(b.Data(), b.Len(), n);
    data.GetStreamSize(b.Data(), b.Len(), n);
    data.GetIDVersion(b.Data(), b.Len(), n);
    int used = 0;
    const int size = CHttpData::GetChunkSize(b.Data(), b.Len(), used);
    if (size >= 0) {
        EXPECT_GE(used, 2);
        EXPECT_LE(used, b.Len());
    }
}

TEST(GetResponseHeadHostile, RandomBytesNeverCrash)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    for (int round = 0; round < 3000; ++round) {
        std::string text(rng() % 300, '\0');
        for (char& c : text)
            c = static_cast<char>(rng() % 256);
        CheckAnyInput(text);
        if (::testing::Test::HasFatalFailure())
            return;
    }
}

TEST(GetResponseHeadHostile, FieldSoupNeverCrashes)
{
    // Pieces of real heads in random order, so that the parsers get past
    // their first checks and meet cut values, missing line ends and
    // repeated fields.
    const char* pieces[] = {"HTTP/1.1 ", "http/", "200", "302", " ", "OK", "\r\n", "\r", "\n", "\r\n\r\n",
                            "Content-Length:", "Transfer-Encoding: ", "chunked", "Content-Range: bytes", "-", "/",
                            "Content-Type:", "text/", "audio/", "video/", "/mpeg", "/html", "charset=UTF-8",
                            "Content-Encoding:", "gzip", "Cache-Control: ", "no-cache", "max-age=", "private",
                            "Content-Disposition: ", "filename=", "\"", "Location: ", "Set-Cookie:", "a=1",
                            "Date:", "ExpireDate:", "Wed, 09 Jun 2021 10:18:14 GMT", "CurURL:", "FileURL:",
                            "OrigSize:", "StreamSize:", "idversion:", "12", "-5", "1a", ";x", "\t", ":", "="};
    const size_t count = sizeof pieces / sizeof pieces[0];
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    for (int round = 0; round < 5000; ++round) {
        std::string text;
        const size_t n = rng() % 40;
        for (size_t i = 0; i < n; ++i)
            text += pieces[rng() % count];
        CheckAnyInput(text);
        if (::testing::Test::HasFatalFailure())
            return;
    }
}

TEST(GetResponseHeadHostile, RandomTruncationsAndDamageNeverCrash)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    for (const HeadRow& row : kHeadRows) {
        const std::string all = row.head + row.body;
        for (int round = 0; round < 200; ++round) {
            std::string text = all.substr(0, rng() % (all.size() + 1));
            if (!text.empty() && rng() % 2)
                text[rng() % text.size()] = static_cast<char>(rng() % 256);
            if (text.size() > 1 && rng() % 3 == 0)
                text.erase(rng() % text.size(), 1 + rng() % 3);
            CheckAnyInput(text);
            if (::testing::Test::HasFatalFailure())
                return;
        }
    }
}

}  // namespace
