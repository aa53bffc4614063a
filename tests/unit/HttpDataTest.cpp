// Request building and URL dissection of CHttpData.

#include "src/CookieHolder.h"
#include "src/HttpConfig.h"
#include "src/HttpData.h"

#include "support/HeapWatch.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <memory>
#include <string>

namespace {

const char KUserAgentLine[] = "User-Agent: NA/SymbianOS/8.0 Series60/2.6";
// A console test program has no screen: 854 x 480 and a character width of 24.
const char KVuaLine[] = "V-UA: PLV2010_B2/10066&NA/NA&SYM2&533024&NA&V2";
const char KAcceptLine[] =
    "Accept: text/vnd.wap.wml,text/html, application/vnd.wap.xhtml+xml,application/xhtml+xml,application/xml, "
    "image/jpeg;q=0.5,image/png;q=0.5,image/gif;q=0.5,image/*;q=0.6, */*;q=0.6\r\n";
const char KAcceptCharsetLine[] = "Accept-Charset: utf-8,gb2312,iso-8859-1\r\n";
const int KGzip = static_cast<int>(0xF0000000u);

// Takes ownership of a builder's buffer and returns its bytes.
std::string Take(unsigned char* buffer, int len)
{
    std::unique_ptr<unsigned char[]> owned(buffer);
    if (!buffer)
        return std::string();
    return std::string(reinterpret_cast<const char*>(buffer), static_cast<size_t>(len));
}

// Runs one builder call and returns its bytes.
template <class Builder>
std::string Build(const Builder& builder)
{
    int len = -7;
    unsigned char* bytes = builder(len);
    return Take(bytes, len);
}

std::string Get(CHttpData& data, int encodingMode = 0)
{
    int len = -7;
    unsigned char* bytes = data.GetMethodData(CHttpData::KMethodGet, len, encodingMode, 0);
    return Take(bytes, len);
}

std::string Post(CHttpData& data, const std::string& body, int encodingMode = 0, bool multipart = false)
{
    int len = -7;
    unsigned char* bytes = data.GetMethodData(
        CHttpData::KMethodPost, len, encodingMode, 0, multipart ? 1 : 0, static_cast<int>(body.size()),
        reinterpret_cast<unsigned char*>(const_cast<char*>(body.data())));
    return Take(bytes, len);
}

std::string FirstLine(const std::string& head)
{
    return head.substr(0, head.find("\r\n"));
}

std::string Span(const char* p, int len)
{
    return p ? std::string(p, static_cast<size_t>(len)) : std::string("<null>");
}

class HttpDataTest : public ::testing::Test
{
protected:
    CHttpData data;
};

// ------------------------------------------------------------ identification

TEST_F(HttpDataTest, IdentificationLinesAreFixedAtConstruction)
{
    EXPECT_STREQ(KUserAgentLine, data.GetUserAgent().GetDataPtr());
    EXPECT_STREQ(KVuaLine, data.GetVUserAgent().GetDataPtr());
}

TEST_F(HttpDataTest, SetUserAgentChangesNothing)
{
    CQSString a("User-Agent: other"), b("V-UA: other"), c("x");
    data.SetUserAgent(a, b, c);
    EXPECT_STREQ(KUserAgentLine, data.GetUserAgent().GetDataPtr());
    EXPECT_STREQ(KVuaLine, data.GetVUserAgent().GetDataPtr());
}

// ------------------------------------------------------------ the two examples

TEST_F(HttpDataTest, GetExampleByteForByte)
{
    data.SetURL("http://srv.test:8080/news?id=7");
    const std::string expected = std::string("GET /news?id=7 HTTP/1.1\r\n") +
                                 "Host: srv.test:8080\r\n" + KUserAgentLine + "\r\n" + KVuaLine + "\r\n" +
                                 KAcceptLine + KAcceptCharsetLine + "Accept-Encoding: gzip\r\n" +
                                 "Connection: close\r\n" + "\r\n";
    const std::string got = Get(data, KGzip);
    EXPECT_EQ(velatest::Visible(QByteArray::fromStdString(expected)),
              velatest::Visible(QByteArray::fromStdString(got)));
}

TEST_F(HttpDataTest, PostExampleByteForByte)
{
    data.SetURL("http://srv.test:8080/news?id=7");
    const std::string expected = std::string("POST /news?id=7 HTTP/1.1\r\n") + "Host: srv.test:8080\r\n" +
                                 KUserAgentLine + "\r\n" + KAcceptLine + KAcceptCharsetLine +
                                 "Content-Type: application/x-www-form-urlencoded\r\n" +
                                 "Content-Length: 11\r\n" + KVuaLine + "\r\n" + "Connection: close\r\n" +
                                 "\r\n" + "a=1&b=hello";
    const std::string got = Post(data, "a=1&b=hello");
    EXPECT_EQ(velatest::Visible(QByteArray::fromStdString(expected)),
              velatest::Visible(QByteArray::fromStdString(got)));
}

TEST_F(HttpDataTest, FixedLinesHaveTheirDocumentedLengths)
{
    EXPECT_EQ(180u, std::string(KAcceptLine).size());
    EXPECT_EQ(41u, std::string(KAcceptCharsetLine).size());
}

TEST_F(HttpDataTest, ReportedLengthCoversExactlyTheBytes)
{
    data.SetURL("http://a.test/x");
    int len = 0;
    std::unique_ptr<unsigned char[]> bytes(data.GetMethodData(CHttpData::KMethodGet, len, 0, 0));
    ASSERT_TRUE(bytes);
    const std::string head(reinterpret_cast<const char*>(bytes.get()), static_cast<size_t>(len));
    EXPECT_EQ(head.size() - 4, head.find("\r\n\r\n"));
}

// ------------------------------------------------------------ cookie line

// A cookie jar in a fresh directory, attached to the request under test.
class HttpDataCookieTest : public HttpDataTest
{
protected:
    void SetUp() override
    {
        holder.ConstructL(CQWString(dir.Path()));
        data.SetCookiePointer(&holder);
    }

    void Store(const char* url, const char* setCookie)
    {
        ASSERT_EQ(1, holder.ParseCookie(CQSString(url), CQSString(setCookie)));
    }

    velatest::TempDir dir;
    QCookieHolder holder;
};

TEST_F(HttpDataCookieTest, GetExampleWithCookieByteForByte)
{
    Store("http://srv.test:8080/login", "sid=ab12");
    data.SetURL("http://srv.test:8080/news?id=7");
    const std::string expected = std::string("GET /news?id=7 HTTP/1.1\r\n") + "Host: srv.test:8080\r\n" +
                                 KUserAgentLine + "\r\n" + KVuaLine + "\r\n" + KAcceptLine + KAcceptCharsetLine +
                                 "Accept-Encoding: gzip\r\n" + "Cookie: sid=ab12\r\n" + "Connection: close\r\n" +
                                 "\r\n";
    EXPECT_EQ(velatest::Visible(QByteArray::fromStdString(expected)),
              velatest::Visible(QByteArray::fromStdString(Get(data, KGzip))));
}

TEST_F(HttpDataCookieTest, PostExampleWithCookieByteForByte)
{
    Store("http://srv.test/", "sid=ab12");
    data.SetURL("http://srv.test:8080/news?id=7");
    const std::string expected = std::string("POST /news?id=7 HTTP/1.1\r\n") + "Host: srv.test:8080\r\n" +
                                 KUserAgentLine + "\r\n" + KAcceptLine + KAcceptCharsetLine +
                                 "Cookie: sid=ab12\r\n" + "Content-Type: application/x-www-form-urlencoded\r\n" +
                                 "Content-Length: 11\r\n" + KVuaLine + "\r\n" + "Connection: close\r\n" + "\r\n" +
                                 "a=1&b=hello";
    EXPECT_EQ(velatest::Visible(QByteArray::fromStdString(expected)),
              velatest::Visible(QByteArray::fromStdString(Post(data, "a=1&b=hello"))));
}

TEST_F(HttpDataCookieTest, HolderWithNothingForTheHostSendsNoCookieLine)
{
    Store("http://other.test/", "sid=ab12");
    data.SetURL("http://srv.test/");
    EXPECT_EQ(std::string::npos, Get(data).find("Cookie"));
    EXPECT_EQ(std::string::npos, Post(data, "x").find("Cookie"));
}

TEST_F(HttpDataCookieTest, SeveralCookiesAreJoinedWithoutBlanksInTheHoldersOrder)
{
    Store("http://srv.test/", "a=1");
    Store("http://srv.test/", "bb=22");
    Store("http://srv.test/", "ccc=333");
    // The builder keeps the order in which the holder's table yields them.
    std::string pairs;
    {
        std::unique_ptr<CQHashTable<QCookieValue>> table(holder.GetCookie(CQSString("srv.test"), true));
        ASSERT_TRUE(table);
        ASSERT_EQ(3, table->GetCount());
        QCookieValue** all = table->getall();
        for (int i = 0; i < 3; ++i) {
            pairs += (i ? ";" : "");
            pairs += std::string(all[i]->name.GetDataPtr()) + "=" + all[i]->value.GetDataPtr();
        }
    }
    data.SetURL("http://srv.test/");
    EXPECT_NE(std::string::npos, Get(data).find("\r\nCookie: " + pairs + "\r\nConnection: close\r\n"));
}

TEST_F(HttpDataCookieTest, LookupUsesTheLowerCaseHostWithoutPort)
{
    Store("http://srv.test/", "sid=ab12");
    data.SetURL("http://SRV.Test:8080/x");
    EXPECT_NE(std::string::npos, Get(data).find("\r\nCookie: sid=ab12\r\n"));
}

TEST_F(HttpDataCookieTest, ParentDomainCookiesReachSubdomains)
{
    Store("http://shop.org/", "k=v; domain=.shop.org");
    data.SetURL("http://mail.shop.org/inbox");
    EXPECT_NE(std::string::npos, Get(data).find("\r\nCookie: k=v\r\n"));
}

TEST_F(HttpDataCookieTest, DetachedHolderSendsNothing)
{
    Store("http://srv.test/", "sid=ab12");
    data.SetCookiePointer(nullptr);
    data.SetURL("http://srv.test/");
    EXPECT_EQ(std::string::npos, Get(data).find("Cookie"));
}

// Every optional line at once, so the whole line order of each table is seen.
TEST_F(HttpDataCookieTest, GetWithEveryOptionalLineInItsOrder)
{
    Store("http://srv.test/", "sid=ab12");
    data.SetURL("http://srv.test:8080/news?id=7");
    CQSString key("X-Extra"), value("1");
    CHttpConfig::AddHeader(key, value);
    const std::string got = Build([&](int& len) { return data.HttpHead_Get(len, KGzip, false, 100, true, 7); });
    CHttpConfig::RemoveHeader(key);

    const std::string expected = std::string("GET /news?id=7 HTTP/1.1\r\n") + "Host: srv.test:8080\r\n" +
                                 KUserAgentLine + "\r\n" + KVuaLine + "\r\n" + "X-Extra: 1\r\n" + KAcceptLine +
                                 KAcceptCharsetLine + "Accept-Encoding: gzip\r\n" + "Range: bytes=100-\r\n" +
                                 "idversion:7\r\n" + "Cookie: sid=ab12\r\n" + "Connection: close\r\n" + "\r\n";
    EXPECT_EQ(velatest::Visible(QByteArray::fromStdString(expected)),
              velatest::Visible(QByteArray::fromStdString(got)));
}

TEST_F(HttpDataCookieTest, PostWithEveryOptionalLineInItsOrder)
{
    Store("http://srv.test/", "sid=ab12");
    data.SetURL("http://srv.test:8080/news?id=7");
    CQSString key("X-Extra"), value("1");
    CHttpConfig::AddHeader(key, value);
    const unsigned char body[] = {'a', '=', '1'};
    const std::string got =
        Build([&](int& len) { return data.HttpHead_Post(len, KGzip, 3, body, false, true, true, 9); });
    CHttpConfig::RemoveHeader(key);

    const std::string expected = std::string("POST /news?id=7 HTTP/1.1\r\n") + "Host: srv.test:8080\r\n" +
                                 KUserAgentLine + "\r\n" + "X-Extra: 1\r\n" + KAcceptLine + KAcceptCharsetLine +
                                 "Cookie: sid=ab12\r\n" + "Content-Type: multipart/form-data\r\n" +
                                 "Content-Length: 3\r\n" + KVuaLine + "\r\n" + "Accept-Encoding: gzip\r\n" +
                                 "idversion:9\r\n" + "Connection: close\r\n" + "\r\n" + "a=1";
    EXPECT_EQ(velatest::Visible(QByteArray::fromStdString(expected)),
              velatest::Visible(QByteArray::fromStdString(got)));
}

// ------------------------------------------------------------ no request

TEST_F(HttpDataTest, UrlWithoutSchemeProducesNoRequest)
{
    data.SetURL("srv.test/news");
    int len = 123;
    EXPECT_EQ(nullptr, data.GetMethodData(CHttpData::KMethodGet, len, 0, 0));
    EXPECT_EQ(nullptr, data.GetMethodData(CHttpData::KMethodPost, len, 0, 0));
    EXPECT_EQ(nullptr, data.PartialGetMethodData(len, 0, false, 0));
    EXPECT_EQ(123, len);
}

TEST_F(HttpDataTest, EmptyUrlProducesNoRequest)
{
    int len = 5;
    EXPECT_EQ(nullptr, data.GetMethodData(CHttpData::KMethodGet, len, 0, 0));
    EXPECT_EQ(nullptr, data.PartialGetMethodData(len, 0, false, 3));
    EXPECT_EQ(5, len);
}

TEST_F(HttpDataTest, SchemeWithNothingAfterItProducesNoRequest)
{
    data.SetURL("http://");
    int len = 0;
    EXPECT_EQ(nullptr, data.GetMethodData(CHttpData::KMethodGet, len, 0, 0));
}

TEST_F(HttpDataTest, EmptyAuthorityProducesNoRequest)
{
    // "http:///p" has a path but an empty host: there is no Host line to send.
    data.SetURL("http:///p");
    int len = 9;
    EXPECT_EQ(nullptr, data.GetMethodData(CHttpData::KMethodGet, len, 0, 0));
    EXPECT_EQ(nullptr, data.GetMethodData(CHttpData::KMethodPost, len, 0, 0, 0, 1,
                                          reinterpret_cast<const unsigned char*>("b")));
    EXPECT_EQ(nullptr, data.PartialGetMethodData64(len, 0, false, 5));
    EXPECT_EQ(9, len);
}

TEST_F(HttpDataTest, UrlStartingWithHashIsItsOwnHost)
{
    data.SetURL("#anchor");
    const std::string head = Get(data);
    EXPECT_EQ("GET / HTTP/1.1", FirstLine(head));
    EXPECT_NE(std::string::npos, head.find("\r\nHost: #anchor\r\n"));
}

// ------------------------------------------------------------ targets

TEST_F(HttpDataTest, HostWithoutPathRequestsSlash)
{
    data.SetURL("http://host");
    EXPECT_EQ("GET / HTTP/1.1", FirstLine(Get(data)));
    EXPECT_EQ("POST / HTTP/1.1", FirstLine(Post(data, "")));
}

TEST_F(HttpDataTest, AbsoluteTargetAddsSlashOnlyWithoutPath)
{
    data.SetURL("http://host");
    EXPECT_EQ("GET http://host/ HTTP/1.1", FirstLine(Build([&](int& len) { return data.GetMethodData(17, len, 0, 1); })));
    EXPECT_EQ("POST http://host/ HTTP/1.1",
              FirstLine(Build([&](int& len) { return data.HttpHead_Post(len, 0, 0, nullptr, true, false, false, 0); })));
    data.SetURL("http://host/p?q");
    EXPECT_EQ("GET http://host/p?q HTTP/1.1", FirstLine(Build([&](int& len) { return data.GetMethodData(17, len, 0, 1); })));
}

TEST_F(HttpDataTest, QueryWithoutPathGetsSlashForGetButNotForPost)
{
    data.SetURL("http://host?q=1");
    EXPECT_EQ("GET /?q=1 HTTP/1.1", FirstLine(Get(data)));
    EXPECT_EQ("POST ?q=1 HTTP/1.1", FirstLine(Post(data, "x")));
}

TEST_F(HttpDataTest, SpacesBecomePercent20OnlyThroughTheTextForm)
{
    data.SetURL("http://h/a b c");
    EXPECT_STREQ("http://h/a%20b%20c", data.GetURL().GetDataPtr());
    EXPECT_EQ("GET /a%20b%20c HTTP/1.1", FirstLine(Get(data)));

    const char raw[] = "http://h/a b";
    data.SetURL(raw, static_cast<int>(sizeof raw - 1));
    EXPECT_STREQ("http://h/a b", data.GetURL().GetDataPtr());
    EXPECT_EQ("GET /a b HTTP/1.1", FirstLine(Get(data)));
}

TEST_F(HttpDataTest, SetUrlIgnoresNullAndEmptyInput)
{
    data.SetURL("http://kept/");
    data.SetURL(nullptr);
    EXPECT_STREQ("http://kept/", data.GetURL().GetDataPtr());
    data.SetURL("http://x/", 0);
    data.SetURL("http://x/", -1);
    data.SetURL(nullptr, 5);
    EXPECT_STREQ("http://kept/", data.GetURL().GetDataPtr());
    data.SetURL("http://x/", 8);
    EXPECT_STREQ("http://x", data.GetURL().GetDataPtr());
}

// ------------------------------------------------------------ optional lines

TEST_F(HttpDataTest, OnlyTheGzipModeSendsAcceptEncoding)
{
    data.SetURL("http://h/");
    EXPECT_EQ(std::string::npos, Get(data, 0).find("Accept-Encoding"));
    EXPECT_EQ(std::string::npos, Get(data, 1).find("Accept-Encoding"));
    EXPECT_EQ(std::string::npos, Get(data, static_cast<int>(0xE0000000u)).find("Accept-Encoding"));
    EXPECT_NE(std::string::npos, Get(data, KGzip).find("\r\nAccept-Encoding: gzip\r\nConnection: close\r\n"));
    EXPECT_EQ(std::string::npos, Post(data, "a", 1).find("Accept-Encoding"));
    EXPECT_NE(std::string::npos,
              Post(data, "a", KGzip).find(std::string(KVuaLine) + "\r\nAccept-Encoding: gzip\r\nConnection"));
}

TEST_F(HttpDataTest, RangeStartZeroAsksFromTheFirstByte)
{
    data.SetURL("http://h/f");
    const std::string head = Build([&](int& len) { return data.PartialGetMethodData(len, 0, false, 0); });
    EXPECT_NE(std::string::npos,
              head.find(std::string(KAcceptCharsetLine) + "Range: bytes=0-\r\nConnection: close\r\n\r\n"));
}

TEST_F(HttpDataTest, RangeMinusOneSendsNoRangeLine)
{
    data.SetURL("http://h/f");
    EXPECT_EQ(std::string::npos, Build([&](int& len) { return data.PartialGetMethodData(len, 0, false, -1); }).find("Range"));
    EXPECT_NE(std::string::npos,
              Build([&](int& len) { return data.PartialGetMethodData(len, KGzip, false, 1048576); })
                  .find("Accept-Encoding: gzip\r\nRange: bytes=1048576-\r\n"));
}

TEST_F(HttpDataTest, RangeFromA64BitOffset)
{
    data.SetURL("http://h/f");
    const auto range = [&](long long from) {
        const std::string head =
            Build([&](int& len) { return data.PartialGetMethodData64(len, 0, false, from); });
        const size_t at = head.find("Range: ");
        return at == std::string::npos ? std::string() : head.substr(at, head.find("\r\n", at) - at);
    };
    EXPECT_EQ("Range: bytes=2147483647-", range(2147483647LL));
    EXPECT_EQ("Range: bytes=2147483648-", range(2147483648LL));
    EXPECT_EQ("Range: bytes=2684354560-", range(2684354560LL));
    EXPECT_EQ("Range: bytes=4294967295-", range(4294967295LL));
    EXPECT_EQ("Range: bytes=4294967296-", range(4294967296LL));
    EXPECT_EQ("Range: bytes=9223372036854775807-", range(9223372036854775807LL));
    EXPECT_EQ("", range(-1));
    // The int form and the 64-bit form write the same bytes where both can.
    EXPECT_EQ(Build([&](int& len) { return data.PartialGetMethodData(len, KGzip, true, 1048576); }),
              Build([&](int& len) { return data.PartialGetMethodData64(len, KGzip, true, 1048576); }));
    EXPECT_EQ(Build([&](int& len) { return data.HttpHead_Get(len, KGzip, false, 7, true, 3); }),
              Build([&](int& len) { return data.HttpHead_Get64(len, KGzip, false, 7, true, 3); }));
}

TEST_F(HttpDataTest, IdVersionLineHasNoBlankAfterColon)
{
    data.SetURL("http://h/f");
    const std::string get = Build([&](int& len) { return data.HttpHead_Get(len, KGzip, false, 5, true, 4000000000u); });
    EXPECT_NE(std::string::npos,
              get.find("Accept-Encoding: gzip\r\nRange: bytes=5-\r\nidversion:4000000000\r\nConnection: close\r\n"));
    const std::string post = Build([&](int& len) { return data.GetMethodData(18, len, KGzip, 0, 0, 1,
                                                     reinterpret_cast<unsigned char*>(const_cast<char*>("z")),
                                                     true, 12); });
    EXPECT_NE(std::string::npos, post.find("Accept-Encoding: gzip\r\nidversion:12\r\nConnection: close\r\n\r\nz"));
}

TEST_F(HttpDataTest, MultipartPostContentType)
{
    data.SetURL("http://h/up");
    EXPECT_NE(std::string::npos,
              Post(data, "x", 0, true).find("\r\nContent-Type: multipart/form-data\r\nContent-Length: 1\r\n"));
}

TEST_F(HttpDataTest, EmptyPostBodySaysLengthZero)
{
    data.SetURL("http://h/up");
    const std::string head = Post(data, "");
    EXPECT_NE(std::string::npos, head.find("\r\nContent-Length: 0\r\n"));
    EXPECT_EQ(head.size() - 4, head.find("\r\n\r\n"));
}

TEST_F(HttpDataTest, NullBodyWithPositiveLengthFailsTheSizeCheck)
{
    data.SetURL("http://h/up");
    EXPECT_DEATH(
        {
            int len = 0;
            delete[] data.HttpHead_Post(len, 0, 10, nullptr, false, false, false, 0);
        },
        "nDataLen == nHeadLen.*src/HttpData");
}

TEST_F(HttpDataTest, UnknownMethodIsFatal)
{
    data.SetURL("http://h/");
    EXPECT_DEATH(
        {
            int len = 0;
            delete[] data.GetMethodData(19, len, 0, 0);
        },
        "FALSE.*src/HttpData");
}

TEST_F(HttpDataTest, ExtraHeaderFromConfigurationGoesOutFirstOnly)
{
    CQSString k1("X-First"), v1("1"), k2("X-Second"), v2("2");
    CHttpConfig::AddHeader(k1, v1);
    CHttpConfig::AddHeader(k2, v2);
    data.SetURL("http://h/");
    const std::string get = Get(data);
    const std::string post = Post(data, "b");
    CHttpConfig::RemoveHeader(k1);
    CHttpConfig::RemoveHeader(k2);

    EXPECT_NE(std::string::npos, get.find(std::string(KVuaLine) + "\r\nX-First: 1\r\nAccept: "));
    EXPECT_NE(std::string::npos, post.find(std::string(KUserAgentLine) + "\r\nX-First: 1\r\nAccept: "));
    EXPECT_EQ(std::string::npos, get.find("X-Second"));
    EXPECT_EQ(std::string::npos, post.find("X-Second"));
    EXPECT_EQ(std::string::npos, Get(data).find("X-First"));
}

TEST_F(HttpDataTest, RequestsAlwaysCloseTheConnection)
{
    data.SetURL("http://h/");
    const std::string get = Get(data);
    EXPECT_EQ(get.size() - 21, get.find("Connection: close\r\n\r\n"));
}

// ------------------------------------------------------------ two-pass writers

TEST_F(HttpDataTest, WritersCountWithNullAndWriteTheSameCount)
{
    data.SetURL("http://h.test:81/p");
    unsigned char buffer[512];

    struct Row
    {
        const char* name;
        std::function<int(unsigned char*)> writer;
        std::string expected;
    };
    const Row rows[] = {
        {"newlines-0", [&](unsigned char* o) { return data.CopyHttpHeader_NewLineFlag(0, o); }, ""},
        {"newlines-2", [&](unsigned char* o) { return data.CopyHttpHeader_NewLineFlag(2, o); }, "\r\n\r\n"},
        {"accept", [&](unsigned char* o) { return data.CopyHttpHeader_Accept(o); }, "Accept: */*;q=0.6\r\n"},
        {"host", [&](unsigned char* o) { return data.CopyHttpHeader_Host(o); }, "Host: h.test:81\r\n"},
        {"user-agent", [&](unsigned char* o) { return data.CopyHttpHeader_UserAgent(o); },
         std::string(KUserAgentLine) + "\r\n" + KVuaLine + "\r\n"},
        {"content-length", [&](unsigned char* o) { return data.CopyHttpHeader_ContentLenght(1000, o); },
         "Content-Length: 1000\r\n"},
        {"method-get", [&](unsigned char* o) { return data.CopyHttpHeader_Method(CHttpData::HM_Get, false, o); },
         "GET /p HTTP/1.1\r\n"},
        {"method-post-absolute",
         [&](unsigned char* o) { return data.CopyHttpHeader_Method(CHttpData::HM_Post, true, o); },
         "POST http://h.test:81/p/ HTTP/1.1\r\n"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const int counted = row.writer(nullptr);
        EXPECT_EQ(static_cast<int>(row.expected.size()), counted);
        std::fill(std::begin(buffer), std::end(buffer), 0xAB);
        const int written = row.writer(buffer);
        EXPECT_EQ(counted, written);
        EXPECT_EQ(row.expected, std::string(reinterpret_cast<char*>(buffer), static_cast<size_t>(written)));
        EXPECT_EQ(0xAB, buffer[written]) << "wrote past its count";
    }
}

TEST_F(HttpDataTest, AcceptWriterIsNineteenBytes)
{
    EXPECT_EQ(19, data.CopyHttpHeader_Accept(nullptr));
}

TEST_F(HttpDataTest, HostWriterRefusesAUrlWithoutHost)
{
    data.SetURL("ftp://h/");
    EXPECT_EQ(-1, data.CopyHttpHeader_Host(nullptr));
    data.SetURL("http:///path");
    EXPECT_EQ(-1, data.CopyHttpHeader_Host(nullptr));
}

TEST_F(HttpDataTest, MethodWriterPathOrSlash)
{
    unsigned char buffer[128];
    data.SetURL("http://h?x");
    int n = data.CopyHttpHeader_Method(CHttpData::HM_Post, false, buffer);
    EXPECT_EQ("POST ?x HTTP/1.1\r\n", std::string(reinterpret_cast<char*>(buffer), static_cast<size_t>(n)));
    data.SetURL("http://h");
    n = data.CopyHttpHeader_Method(CHttpData::HM_Get, false, buffer);
    EXPECT_EQ("GET / HTTP/1.1\r\n", std::string(reinterpret_cast<char*>(buffer), static_cast<size_t>(n)));
    n = data.CopyHttpHeader_Method(CHttpData::HM_Get, true, buffer);
    EXPECT_EQ("GET http://h/ HTTP/1.1\r\n", std::string(reinterpret_cast<char*>(buffer), static_cast<size_t>(n)));
}

TEST_F(HttpDataTest, MethodWriterUnknownMethodIsFatal)
{
    data.SetURL("http://h/");
    EXPECT_DEATH(data.CopyHttpHeader_Method(static_cast<CHttpData::enHttpMethod>(2), false, nullptr),
                 "FALSE.*src/HttpData");
}

TEST_F(HttpDataTest, ResumedDownloadInAbsoluteFormKeepsTheWholeUrl)
{
    data.SetURL("http://srv.test:8080/f.zip");
    const std::string expected = std::string("GET http://srv.test:8080/f.zip HTTP/1.1\r\n") +
                                 "Host: srv.test:8080\r\n" + KUserAgentLine + "\r\n" + KVuaLine + "\r\n" +
                                 KAcceptLine + KAcceptCharsetLine + "Range: bytes=2048-\r\n" +
                                 "Connection: close\r\n" + "\r\n";
    const std::string got = Build([&](int& len) { return data.PartialGetMethodData(len, 0, true, 2048); });
    EXPECT_EQ(velatest::Visible(QByteArray::fromStdString(expected)),
              velatest::Visible(QByteArray::fromStdString(got)));
}

TEST_F(HttpDataTest, PostBodyMayComeFromConstBytes)
{
    data.SetURL("http://h/p");
    const unsigned char body[] = {'k', '=', 'v'};
    const std::string got = Build([&](int& len) { return data.GetMethodData(18, len, 0, 0, 0, 3, body); });
    EXPECT_EQ(got.size() - 3, got.find("\r\n\r\nk=v") + 4);
    EXPECT_NE(std::string::npos, got.find("\r\nContent-Length: 3\r\n"));
}

TEST_F(HttpDataTest, NullBodyOfLengthZeroIsAnEmptyPost)
{
    data.SetURL("http://h/p");
    const std::string got =
        Build([&](int& len) { return data.HttpHead_Post(len, 0, 0, nullptr, false, false, false, 0); });
    EXPECT_NE(std::string::npos, got.find("\r\nContent-Length: 0\r\n"));
    EXPECT_EQ(got.size() - 4, got.find("\r\n\r\n"));
}

TEST_F(HttpDataTest, MethodWriterTakesThePlainMethodCodes)
{
    data.SetURL("http://h/p");
    unsigned char buffer[64];
    int n = data.CopyHttpHeader_Method(0, false, buffer);
    EXPECT_EQ("GET /p HTTP/1.1\r\n", std::string(reinterpret_cast<char*>(buffer), static_cast<size_t>(n)));
    n = data.CopyHttpHeader_Method(1, false, buffer);
    EXPECT_EQ("POST /p HTTP/1.1\r\n", std::string(reinterpret_cast<char*>(buffer), static_cast<size_t>(n)));
    EXPECT_EQ(n, data.CopyHttpHeader_Method(1, false, nullptr));
    EXPECT_DEATH(data.CopyHttpHeader_Method(2, false, nullptr), "FALSE.*src/HttpData");
}

// ------------------------------------------------------------ dissection

struct UrlRow
{
    const char* name;
    const char* url;
    const char* host;      // FindHost, "<null>" for a null pointer
    const char* hostUrl;   // FindHostURL
    const char* path;      // FindPath
    int port;
    bool secure;
};

void PrintTo(const UrlRow& row, std::ostream* os)
{
    *os << row.name << " (" << row.url << ")";
}

class UrlDissection : public ::testing::TestWithParam<UrlRow>
{
};

TEST_P(UrlDissection, HostPortPath)
{
    const UrlRow& row = GetParam();
    CHttpData data;
    data.SetURL(row.url);
    int len = -1;
    const char* host = data.FindHost(len);
    EXPECT_EQ(row.host, Span(host, len));
    if (!host) {
        EXPECT_EQ(0, len);
    }
    len = -1;
    const char* hostUrl = data.FindHostURL(len);
    EXPECT_EQ(row.hostUrl, Span(hostUrl, len));
    if (!hostUrl) {
        EXPECT_EQ(0, len);
    }
    len = -1;
    const char* path = data.FindPath(len);
    EXPECT_EQ(row.path, Span(path, len));
    if (!path) {
        EXPECT_EQ(0, len);
    }
    EXPECT_EQ(row.port, data.FindPort());
    EXPECT_EQ(row.secure, data.IsSecureConnection());

    const std::unique_ptr<CQSString> hostCopy(CHttpData::FindHost(CQSString(row.url)));
    ASSERT_TRUE(hostCopy);
    EXPECT_EQ(std::string(row.host) == "<null>" ? std::string() : std::string(row.host),
              std::string(hostCopy->GetDataPtr()));
}

const UrlRow kUrlRows[] = {
    {"plain", "http://srv.test/a/b?c=1", "srv.test", "srv.test", "/a/b?c=1", 80, false},
    {"with-port", "http://srv.test:8080/news?id=7", "srv.test", "srv.test:8080", "/news?id=7", 8080, false},
    {"no-path", "http://host", "host", "host", "<null>", 80, false},
    {"query-only", "http://host?q=1", "host", "host", "?q=1", 80, false},
    {"https-default", "https://h", "h", "h", "<null>", 443, true},
    {"https-port", "https://h:8443/", "h", "h:8443", "/", 8443, true},
    {"https-empty-port", "https://h:/x", "h", "h:", "/x", 80, true},
    {"port-not-a-number", "http://h:abc/", "h", "h:abc", "/", 80, false},
    {"port-zero", "http://h:0/", "h", "h:0", "/", 80, false},
    {"port-digits-then-text", "http://h:81x/", "h", "h:81x", "/", 81, false},
    {"port-before-query", "http://h:82?x", "h", "h:82", "?x", 82, false},
    {"no-scheme", "srv.test/a", "<null>", "<null>", "<null>", 80, false},
    {"other-scheme", "ftp://srv.test/a", "<null>", "<null>", "<null>", 80, false},
    {"nothing-after-scheme", "http://", "<null>", "<null>", "<null>", 80, false},
    {"https-nothing-after-scheme", "https://", "<null>", "<null>", "<null>", 443, true},
    {"slash-right-after-scheme", "http:///p", "", "", "/p", 80, false},
    {"colon-right-after-scheme", "http://:90/p", "", ":90", "/p", 90, false},
    {"scheme-found-anywhere", "see http://in.text/x", "in.text", "in.text", "/x", 80, false},
    {"http-wins-over-https", "https://a.test/?r=http://b.test:9/z", "b.test", "b.test:9", "/z", 9, true},
    {"hash-url", "#frag", "<null>", "#frag", "<null>", 80, false},
    {"ipv6-literal-with-port", "http://[::1]:8080/x", "::1", "[::1]:8080", "/x", 8080, false},
    {"ipv6-literal-without-port", "http://[::1]/x", "::1", "[::1]", "/x", 80, false},
    {"ipv6-literal-https-default", "https://[2001:db8::7]", "2001:db8::7", "[2001:db8::7]", "<null>", 443, true},
    {"ipv6-literal-https-port", "https://[::1]:8443/", "::1", "[::1]:8443", "/", 8443, true},
    {"ipv6-literal-before-query", "http://[::1]:82?x", "::1", "[::1]:82", "?x", 82, false},
    {"ipv6-literal-text-after-bracket", "http://[::1]x/", "::1", "[::1]x", "/", 80, false},
    {"ipv6-literal-empty-brackets", "http://[]:81/", "", "[]:81", "/", 81, false},
    {"ipv6-literal-unclosed", "http://[::1/x", "[", "[::1", "/x", 80, false},
    {"ipv6-literal-bracket-after-slash", "http://[::1/]x", "[", "[::1", "/]x", 80, false},
    {"ipv6-literal-unclosed-at-the-end", "http://[::1", "[", "[::1", "<null>", 80, false},
    {"ipv6-literal-bracket-after-query", "http://[::1?q]", "[", "[::1", "?q]", 80, false},
    {"bracket-not-first", "http://a[::1]:83/", "a[", "a[::1]:83", "/", 80, false},
    {"empty", "", "<null>", "<null>", "<null>", 80, false},
};

INSTANTIATE_TEST_SUITE_P(Rows, UrlDissection, ::testing::ValuesIn(kUrlRows),
                         [](const ::testing::TestParamInfo<UrlRow>& info) {
                             std::string name = info.param.name;
                             for (char& c : name) {
                                 if (c == '-')
                                     c = '_';
                             }
                             return name;
                         });

TEST_F(HttpDataTest, FindHostOnAnyUrl)
{
    int len = 0;
    const CQSString url("http://mail.shop.org:25/inbox");
    const char* host = CHttpData::FindHost(url, len);
    ASSERT_NE(nullptr, host);
    EXPECT_EQ(url.GetDataPtr() + 7, host);
    EXPECT_EQ(13, len);
}

TEST_F(HttpDataTest, IsSameHostIsCaseSensitiveAndIgnoresThePort)
{
    data.SetURL("http://srv.test:8080/a");
    EXPECT_TRUE(data.IsSameHost("http://srv.test/b"));
    EXPECT_TRUE(data.IsSameHost("https://srv.test:443/"));
    EXPECT_FALSE(data.IsSameHost("http://SRV.test/b"));
    EXPECT_FALSE(data.IsSameHost("http://other.test/b"));
    EXPECT_FALSE(data.IsSameHost("srv.test"));
    EXPECT_FALSE(data.IsSameHost(nullptr));
}

TEST_F(HttpDataTest, IsSameHostNeedsAHostOfItsOwn)
{
    EXPECT_FALSE(data.IsSameHost("http://a/"));
    data.SetURL("http:///x");
    EXPECT_FALSE(data.IsSameHost("http:///y"));
}

TEST_F(HttpDataTest, IsSameHostComparesIPv6LiteralsWithoutBrackets)
{
    data.SetURL("http://[::1]:8080/a");
    EXPECT_TRUE(data.IsSameHost("http://[::1]/b"));
    EXPECT_FALSE(data.IsSameHost("http://[::2]:8080/a"));
    EXPECT_FALSE(data.IsSameHost("http://127.0.0.1:8080/a"));
}

TEST_F(HttpDataTest, IPv6LiteralGoesOnTheWireWithItsBrackets)
{
    data.SetURL("http://[::1]:8080/x");
    int len = 0;
    const std::unique_ptr<unsigned char[]> bytes(data.GetMethodData(17, len, 0, 0));
    ASSERT_TRUE(bytes);
    const std::string head(reinterpret_cast<char*>(bytes.get()), static_cast<size_t>(len));
    EXPECT_EQ(0u, head.find("GET /x HTTP/1.1\r\nHost: [::1]:8080\r\n"));
    const std::unique_ptr<unsigned char[]> absolute(data.GetMethodData(17, len, 0, 1));
    ASSERT_TRUE(absolute);
    EXPECT_EQ(0u, std::string(reinterpret_cast<char*>(absolute.get()), static_cast<size_t>(len))
                      .find("GET http://[::1]:8080/x HTTP/1.1\r\nHost: [::1]:8080\r\n"));
}

TEST_F(HttpDataTest, IsSecureConnectionLooksAnywhere)
{
    EXPECT_FALSE(data.IsSecureConnection());
    data.SetURL("http://a/?next=https://b/");
    EXPECT_TRUE(data.IsSecureConnection());
    data.SetURL("HTTPS://a/");
    EXPECT_FALSE(data.IsSecureConnection());
}

// ------------------------------------------------------------ failing allocations

TEST_F(HttpDataTest, ContentLengthWriterWritesAnyCountInDecimal)
{
    const auto line = [&](long long n) {
        unsigned char buffer[64];
        const int sized = data.CopyHttpHeader_ContentLength64(n, nullptr);
        const int written = data.CopyHttpHeader_ContentLength64(n, buffer);
        EXPECT_EQ(sized, written) << n;
        return std::string(reinterpret_cast<char*>(buffer), static_cast<size_t>(written));
    };
    EXPECT_EQ("Content-Length: 0\r\n", line(0));
    EXPECT_EQ("Content-Length: -1\r\n", line(-1));
    EXPECT_EQ("Content-Length: 9223372036854775807\r\n", line(LLONG_MAX));
    EXPECT_EQ("Content-Length: -9223372036854775808\r\n", line(LLONG_MIN));
}

TEST_F(HttpDataTest, HostCopyWithoutMemoryIsNull)
{
    const CQSString url("http://srv.test/a");
    velatest::HeapWatch::FailNothrowAfter(0);
    CQSString* host = CHttpData::FindHost(url);
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(nullptr, host);
    delete host;
}

// Without memory for the model name the identification lines stay empty:
// no allocation made at construction can succeed after the first has failed.
TEST_F(HttpDataTest, IdentificationLinesMadeWithoutMemoryAreEmpty)
{
    velatest::HeapWatch::FailNothrowAfter(0);
    const std::unique_ptr<CHttpData> bare(new CHttpData);
    velatest::HeapWatch::StopFailing();
    unsigned char buffer[8];
    const int n = bare->CopyHttpHeader_UserAgent(buffer);
    EXPECT_EQ("\r\n\r\n", std::string(reinterpret_cast<char*>(buffer), static_cast<size_t>(n)));
}

// Each allocation a builder makes fails in turn: the builder then gives no
// head at all (len untouched), never a head that lacks a line.
void ExpectNoHeadOrTheWholeHead(const std::function<unsigned char*(int&)>& builder)
{
    const std::string whole = Build(builder);
    ASSERT_FALSE(whole.empty());
    int skip = 0;
    for (; skip < 200; ++skip) {
        SCOPED_TRACE("allocation " + std::to_string(skip) + " fails");
        int len = -7;
        velatest::HeapWatch::FailNothrowAfter(skip);
        unsigned char* bytes = builder(len);
        velatest::HeapWatch::StopFailing();
        if (bytes) {
            EXPECT_EQ(whole, Take(bytes, len));
            break;
        }
        EXPECT_EQ(-7, len);
    }
    EXPECT_LT(skip, 200);
}

TEST_F(HttpDataTest, AnAllocationThatFailsGivesNoHead)
{
    data.SetURL("http://srv.test/a");
    ExpectNoHeadOrTheWholeHead([&](int& len) { return data.GetMethodData(CHttpData::KMethodGet, len, 0, 0); });
    const unsigned char body[] = {'a', '=', '1'};
    ExpectNoHeadOrTheWholeHead(
        [&](int& len) { return data.GetMethodData(CHttpData::KMethodPost, len, 0, 0, 0, 3, body); });
}

TEST_F(HttpDataCookieTest, WithoutMemoryForTheCookieLookupThereIsNoHead)
{
    Store("http://srv.test/", "sid=ab12");
    data.SetURL("http://WWW.Srv.test:8080/news");
    ASSERT_NE(std::string::npos, Get(data).find("Cookie: sid=ab12\r\n"));
    int len = -7;
    velatest::HeapWatch::FailNothrowAfter(0);
    unsigned char* bytes = data.GetMethodData(CHttpData::KMethodGet, len, 0, 0);
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(nullptr, bytes);
    EXPECT_EQ(-7, len);
    delete[] bytes;
}

// Each allocation of a GET with cookies fails in turn, the cookie snapshot
// among them: the head is whole, lacks only its Cookie line, or is not built.
TEST_F(HttpDataCookieTest, AnAllocationThatFailsLeavesOutTheCookieLineOrTheHead)
{
    Store("http://srv.test/", "sid=ab12");
    data.SetURL("http://srv.test/news");
    const std::string whole = Get(data);
    const std::string cookieLine = "Cookie: sid=ab12\r\n";
    const std::size_t at = whole.find(cookieLine);
    ASSERT_NE(std::string::npos, at);
    const std::string withoutCookie = whole.substr(0, at) + whole.substr(at + cookieLine.size());
    int skip = 0;
    for (; skip < 200; ++skip) {
        SCOPED_TRACE("allocation " + std::to_string(skip) + " fails");
        int len = -7;
        velatest::HeapWatch::FailNothrowAfter(skip);
        unsigned char* bytes = data.GetMethodData(CHttpData::KMethodGet, len, 0, 0);
        velatest::HeapWatch::StopFailing();
        const std::unique_ptr<unsigned char[]> owned(bytes);
        if (!bytes) {
            EXPECT_EQ(-7, len);
            continue;
        }
        const std::string got(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(len));
        if (got == whole)
            break;
        EXPECT_EQ(velatest::Visible(QByteArray::fromStdString(withoutCookie)),
                  velatest::Visible(QByteArray::fromStdString(got)));
    }
    EXPECT_LT(skip, 200);
}

TEST_F(HttpDataCookieTest, UrlsWithoutAHostNameSendNoCookieLine)
{
    Store("http://srv.test/", "sid=ab12");
    // "#..." is its own Host line but names no host to look cookies up for;
    // ":90" has a port and an empty name.
    data.SetURL("#frag");
    const std::string hash = Get(data);
    EXPECT_NE(std::string::npos, hash.find("\r\nHost: #frag\r\n"));
    EXPECT_EQ(std::string::npos, hash.find("Cookie:"));
    data.SetURL("http://:90/p");
    const std::string portOnly = Get(data);
    EXPECT_EQ(0u, portOnly.find("GET /p HTTP/1.1\r\nHost: :90\r\n"));
    EXPECT_EQ(std::string::npos, portOnly.find("Cookie:"));
}

}  // namespace
