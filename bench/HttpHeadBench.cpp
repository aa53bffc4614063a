// Response head parsing and request head building of CHttpData.
//
// GetResponseHead searches the whole buffer once per field, so body bytes
// that arrive with the head cost time for every field that the head does
// not carry. The figures go to bench/README.md.

#include "src/CookieHolder.h"
#include "src/HttpData.h"

#include <QDir>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace {

// A typical 200 head of about 400 bytes with a dozen fields.
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
    "Expires: Wed, 09 Jun 2021 11:18:14 GMT\r\n"
    "Set-Cookie: sid=ab12cd34ef56; path=/; HttpOnly\r\n"
    "Set-Cookie: lang=en; path=/\r\n"
    "Vary: Accept-Encoding\r\n"
    "Accept-Ranges: bytes\r\n"
    "\r\n";

// 9 KiB of page text: the usual letters, blanks, markup and a few colons.
std::string HtmlBody()
{
    const std::string paragraph =
        "<div class=\"story\"><h2><a href=\"https://news.example.test/2021/06/09/item?id=4711\">Harbour "
        "reopens after the storm</a></h2><p style=\"color: #333; margin: 0 0 8px\">Ferries resumed their "
        "schedule this morning, and the port authority expects traffic to return to normal by the "
        "weekend. Passengers should check departure times before travelling.</p></div>\n";
    std::string body;
    while (body.size() < 9216)
        body += paragraph;
    body.resize(9216);
    return body;
}

// 9 KiB of compressed-looking bytes.
std::string BinaryBody()
{
    std::string body(9216, '\0');
    unsigned int state = 0x12345678u;
    for (char& c : body) {
        state = state * 1103515245u + 12345u;
        c = static_cast<char>(state >> 24);
    }
    return body;
}

void ParseHead(benchmark::State& state, const std::string& response)
{
    std::vector<unsigned char> buffer(response.begin(), response.end());
    CHttpData data;
    CHttpResponseHead head;
    for (auto _ : state) {
        head.Reset();
        const int r = data.GetResponseHead(buffer.data(), static_cast<int>(buffer.size()), head);
        benchmark::DoNotOptimize(r);
        benchmark::DoNotOptimize(head.m_nContentLength);
    }
    if (head.m_nStatusCode != 200 || head.m_nContentLength != 9216 || head.m_listCookies.GetCount() != 2)
        state.SkipWithError("the head did not parse as expected");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(buffer.size()));
}

void BM_ResponseHead_HeadAlone(benchmark::State& state)
{
    ParseHead(state, kTypicalHead);
}
BENCHMARK(BM_ResponseHead_HeadAlone);

void BM_ResponseHead_With9KiBHtmlBody(benchmark::State& state)
{
    ParseHead(state, kTypicalHead + HtmlBody());
}
BENCHMARK(BM_ResponseHead_With9KiBHtmlBody);

void BM_ResponseHead_With9KiBBinaryBody(benchmark::State& state)
{
    ParseHead(state, kTypicalHead + BinaryBody());
}
BENCHMARK(BM_ResponseHead_With9KiBBinaryBody);

void BM_RequestHead_Get(benchmark::State& state)
{
    CHttpData data;
    data.SetURL("http://srv.test:8080/news/2021/06/09/item?id=4711&lang=en");
    for (auto _ : state) {
        int len = 0;
        unsigned char* bytes =
            data.GetMethodData(CHttpData::KMethodGet, len, CHttpData::KEncodingGzip, 0);
        benchmark::DoNotOptimize(bytes);
        delete[] bytes;
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_RequestHead_Get);

// The same GET with a cookie holder attached that holds two cookies for the
// host: each build asks the holder (parent-domain walk, table copy) and
// writes the Cookie line.
void BM_RequestHead_GetWithCookieLine(benchmark::State& state)
{
    QTemporaryDir dir;
    QCookieHolder holder;
    holder.ConstructL(CQWString(dir.path()));
    holder.ParseCookie(CQSString("http://srv.test/"), CQSString("sid=ab12cd34ef56; path=/"));
    holder.ParseCookie(CQSString("http://srv.test/"), CQSString("lang=en; domain=.srv.test"));
    CHttpData data;
    data.SetCookiePointer(&holder);
    data.SetURL("http://srv.test:8080/news/2021/06/09/item?id=4711&lang=en");
    int checkLen = 0;
    unsigned char* check = data.GetMethodData(CHttpData::KMethodGet, checkLen, CHttpData::KEncodingGzip, 0);
    const bool hasCookies =
        check && std::string(reinterpret_cast<char*>(check), static_cast<size_t>(checkLen)).find("Cookie: ") !=
                     std::string::npos;
    delete[] check;
    if (!hasCookies) {
        state.SkipWithError("no Cookie line in the request");
        return;
    }
    for (auto _ : state) {
        int len = 0;
        unsigned char* bytes =
            data.GetMethodData(CHttpData::KMethodGet, len, CHttpData::KEncodingGzip, 0);
        benchmark::DoNotOptimize(bytes);
        delete[] bytes;
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_RequestHead_GetWithCookieLine);

}  // namespace

BENCHMARK_MAIN();
