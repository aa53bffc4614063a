// URL dissection of CHttpData over arbitrary URL bytes, and the request
// builders that use it.
// Invariants: host, host-with-port and path are spans inside the URL, the
// path running to its end; the port is positive; IsSameHost of the URL
// itself holds exactly when it has a host; a built request starts with its
// method and ends with the blank line (or the body).

#include "fuzz/FuzzInput.h"
#include "src/CookieHolder.h"
#include "src/HttpData.h"

namespace {

// A span [p, p + len) inside [begin, end]; a null p only with len 0.
bool Inside(const char* p, int len, const char* begin, const char* end)
{
    return p ? (p >= begin && len >= 0 && p + len <= end) : len == 0;
}

void CheckRequest(unsigned char* bytes, int len, const char* method, const char* tail)
{
    std::unique_ptr<unsigned char[]> owned(bytes);
    if (!bytes)
        return;
    const std::size_t m = std::strlen(method);
    const std::size_t t = std::strlen(tail);
    FUZZ_CHECK(len >= static_cast<int>(m + t));
    FUZZ_CHECK(std::memcmp(bytes, method, m) == 0 && std::memcmp(bytes + len - t, tail, t) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static QCookieHolder* holder = [] {
        auto* h = new QCookieHolder;
        (void)h->ParseCookie(CQSString("http://a.test/"), CQSString("sid=ab12"));
        return h;
    }();
    auto text = fuzzinput::Copy(data, size);
    CHttpData http;
    http.SetCookiePointer(holder);
    http.SetURL(reinterpret_cast<const char*>(text.get()), static_cast<int>(size));
    const CQSString& url = http.GetURL();
    const char* begin = url.GetDataPtr();
    const char* end = begin + url.GetLength();

    int hostLen = 0;
    const char* host = http.FindHost(hostLen);
    FUZZ_CHECK(Inside(host, hostLen, begin, end));
    int hostUrlLen = 0;
    FUZZ_CHECK(Inside(http.FindHostURL(hostUrlLen), hostUrlLen, begin, end));
    int pathLen = 0;
    const char* path = http.FindPath(pathLen);
    FUZZ_CHECK(Inside(path, pathLen, begin, end) && (!path || path + pathLen == end));
    FUZZ_CHECK(http.FindPort() > 0);
    (void)http.IsSecureConnection();
    std::unique_ptr<CQSString> hostCopy(CHttpData::FindHost(url));
    FUZZ_CHECK(hostCopy && hostCopy->GetLength() == hostLen);

    if (url.Find(' ') < 0 && url.Find('\0') < 0)
        FUZZ_CHECK(http.IsSameHost(begin) == (host && hostLen > 0));

    int len = 0;
    const unsigned char body[] = "a=1&b=2";
    CheckRequest(http.GetMethodData(CHttpData::KMethodGet, len, CHttpData::KEncodingGzip, 0), len, "GET ", "\r\n\r\n");
    CheckRequest(http.GetMethodData(CHttpData::KMethodGet, len, 0, 1), len, "GET ", "\r\n\r\n");
    CheckRequest(http.GetMethodData(CHttpData::KMethodPost, len, 0, 0, 0, 7, body), len, "POST ", "\r\n\r\na=1&b=2");
    CheckRequest(http.PartialGetMethodData(len, 0, false, 100), len, "GET ", "\r\n\r\n");

    CQWString name;
    (void)CHttpData::GetFileNameFromURL(&url, name);
    return 0;
}
