#include "src/HttpData.h"

#include "BaseClass/src/QtAssert.h"
#include "src/HttpConfig.h"
#include "src/VelaUA.h"
#include "src/internal/ByteWriter_p.h"

#include <cstring>
#include <new>

using velanet::ByteWriter;

namespace {

const char KAssertFile[] = "src/HttpData";

const char KSchemeHttp[] = "http://";
const char KSchemeHttps[] = "https://";
const int KDefaultHttpPort = 80;
const int KDefaultHttpsPort = 443;

const char KCrLf[] = "\r\n";
const char KHttpVersion[] = "HTTP/1.1";
const char KAcceptLine[] =
    "Accept: text/vnd.wap.wml,text/html, application/vnd.wap.xhtml+xml,application/xhtml+xml,"
    "application/xml, image/jpeg;q=0.5,image/png;q=0.5,image/gif;q=0.5,image/*;q=0.6, */*;q=0.6\r\n";
const char KAcceptShortLine[] = "Accept: */*;q=0.6\r\n";
const char KAcceptCharsetLine[] = "Accept-Charset: utf-8,gb2312,iso-8859-1\r\n";
const char KAcceptEncodingLine[] = "Accept-Encoding: gzip\r\n";
const char KConnectionLine[] = "Connection: close\r\n";
const char KContentTypeMultipart[] = "Content-Type: multipart/form-data\r\n";
const char KContentTypeForm[] = "Content-Type: application/x-www-form-urlencoded\r\n";

static_assert(sizeof KAcceptLine - 1 == 180, "the Accept line is 180 bytes with its line end");
static_assert(sizeof KAcceptCharsetLine - 1 == 41, "the Accept-Charset line is 41 bytes");
static_assert(sizeof KAcceptEncodingLine - 1 == 23, "the Accept-Encoding line is 23 bytes");
static_assert(sizeof KConnectionLine - 1 == 19, "the Connection line is 19 bytes");

// A byte range inside the URL text.
struct Span
{
    const char* data = nullptr;
    int len = 0;
};

const char* FindText(const char* data, int len, const char* pattern)
{
    const int patLen = static_cast<int>(std::strlen(pattern));
    for (int i = 0; i + patLen <= len; ++i) {
        if (std::memcmp(data + i, pattern, static_cast<size_t>(patLen)) == 0)
            return data + i;
    }
    return nullptr;
}

// Start of the authority (just after the scheme), or null without a scheme.
// "http://" anywhere in the text wins over "https://".
const char* AuthorityStart(const CQSString& url, const char** end)
{
    const char* data = url.GetDataPtr();
    const int len = url.GetLength();
    *end = data + len;
    if (const char* http = FindText(data, len, KSchemeHttp))
        return http + (sizeof KSchemeHttp - 1);
    if (const char* https = FindText(data, len, KSchemeHttps))
        return https + (sizeof KSchemeHttps - 1);
    return nullptr;
}

bool IsOneOf(char c, const char* set)
{
    for (; *set; ++set) {
        if (c == *set)
            return true;
    }
    return false;
}

// From the authority start up to the first character of stopSet (or the end).
// Null when there is no scheme or nothing follows it.
Span AuthorityUntil(const CQSString& url, const char* stopSet)
{
    const char* end = nullptr;
    const char* p = AuthorityStart(url, &end);
    Span span;
    if (!p || p >= end)
        return span;
    const char* q = p;
    while (q < end && !IsOneOf(*q, stopSet))
        ++q;
    span.data = p;
    span.len = static_cast<int>(q - p);
    return span;
}

Span PathOf(const CQSString& url)
{
    const char* end = nullptr;
    const char* p = AuthorityStart(url, &end);
    Span span;
    if (!p || p >= end)
        return span;
    while (p < end && *p != '/' && *p != '?')
        ++p;
    if (p == end)
        return span;
    span.data = p;
    span.len = static_cast<int>(end - p);
    return span;
}

void PutString(ByteWriter& w, const CQSString& s)
{
    w.Put(s.GetDataPtr(), s.GetLength());
}

// "GET " / "POST " target " HTTP/1.1" CRLF, as the GET and POST builders
// write it: an absolute target gets "/" only when the URL has no path; a
// relative GET target gets "/" in front of a path that starts with "?",
// a relative POST target does not.
void PutRequestLine(ByteWriter& w, const char* method, const CQSString& url, bool absoluteTarget,
                    bool slashBeforeQuery)
{
    w.Put(method, static_cast<int>(std::strlen(method)));
    const Span path = PathOf(url);
    if (absoluteTarget) {
        PutString(w, url);
        if (!path.data)
            w.PutLiteral("/");
    } else if (!path.data || path.len == 0) {
        w.PutLiteral("/");
    } else {
        if (slashBeforeQuery && path.data[0] != '/')
            w.PutLiteral("/");
        w.Put(path.data, path.len);
    }
    w.PutLiteral(" ");
    w.PutLiteral(KHttpVersion);
    w.PutLiteral(KCrLf);
}

unsigned char* AllocateHead(int size)
{
    if (size <= 0)
        return nullptr;
    return new (std::nothrow) unsigned char[static_cast<size_t>(size)]();
}

// Runs the writer once to size the head and once more into one exactly
// sized, zero-filled buffer; the second count must equal the first.
template <class WriteHead>
unsigned char* SizeThenWrite(const WriteHead& writeHead, int& len)
{
    ByteWriter sizer(nullptr);
    writeHead(sizer);
    const int nHeadLen = sizer.Count();
    unsigned char* buffer = AllocateHead(nHeadLen);
    if (!buffer)
        return nullptr;
    ByteWriter writer(buffer);
    writeHead(writer);
    const int nDataLen = writer.Count();
    QT_ALWAYS_ASSERT(nDataLen == nHeadLen, KAssertFile);
    len = nHeadLen;
    return buffer;
}

}  // namespace

CHttpData::CHttpData()
{
    CQSString model;
    CVelaUA::GetEquipmentName(model);
    if (model.IsEmpty()) {
        // Fallback lines for a model name that cleans down to nothing.
        m_strUserAgent.SetData("User-Agent: N76/SymbianOS/8.0 Series60/2.6");
        m_strVUserAgent.SetData("V-UA: PLX2009_beta2-N76/01.00.00 RunaMobile/02.01.00");
        return;
    }
    m_strUserAgent.SetData("User-Agent: ");
    m_strUserAgent.AppendData(reinterpret_cast<const unsigned char*>(model.GetDataPtr()), model.GetLength());
    m_strUserAgent.AppendData("/SymbianOS/8.0 Series60/2.6");
    CQSString vua;
    CVelaUA::GetVUA(vua);
    m_strVUserAgent.SetData("V-UA: ");
    m_strVUserAgent.AppendData(reinterpret_cast<const unsigned char*>(vua.GetDataPtr()), vua.GetLength());
}

CHttpData::~CHttpData() = default;

void CHttpData::SetURL(const char* url)
{
    if (!url)
        return;
    m_strURL.SetData(url);
    m_strURL.Replace(" ", "%20");
}

void CHttpData::SetURL(const char* data, int len)
{
    if (!data || len <= 0)
        return;
    m_strURL.SetData(reinterpret_cast<const unsigned char*>(data), len);
}

void CHttpData::SetUserAgent(const CQSString&, const CQSString&, const CQSString&)
{
}

char* CHttpData::FindHost(const CQSString& url, int& len)
{
    const Span host = AuthorityUntil(url, "/:?");
    len = host.len;
    return const_cast<char*>(host.data);
}

char* CHttpData::FindHost(int& len) const
{
    return FindHost(m_strURL, len);
}

CQSString* CHttpData::FindHost(const CQSString& url)
{
    int len = 0;
    const char* host = FindHost(url, len);
    return new (std::nothrow) CQSString(host, host ? len : 0);
}

char* CHttpData::FindHostURL(int& len) const
{
    if (m_strURL.GetLength() > 0 && m_strURL.GetAt(0) == '#') {
        len = m_strURL.GetLength();
        return const_cast<char*>(m_strURL.GetDataPtr());
    }
    const Span host = AuthorityUntil(m_strURL, "/?");
    len = host.len;
    return const_cast<char*>(host.data);
}

int CHttpData::FindPort() const
{
    if (m_strURL.IsEmpty())
        return KDefaultHttpPort;
    const char* data = m_strURL.GetDataPtr();
    const int urlLen = m_strURL.GetLength();
    const bool secure = !FindText(data, urlLen, KSchemeHttp) && FindText(data, urlLen, KSchemeHttps);
    const int defaultPort = secure ? KDefaultHttpsPort : KDefaultHttpPort;

    const Span authority = AuthorityUntil(m_strURL, "/?");
    if (!authority.data)
        return defaultPort;
    const char* colon =
        static_cast<const char*>(std::memchr(authority.data, ':', static_cast<size_t>(authority.len)));
    if (!colon)
        return defaultPort;
    const char* portStart = colon + 1;
    const int portLen = static_cast<int>(authority.data + authority.len - portStart);
    const int port = CQSString(portStart, portLen).ToINT();
    // A port that reads as 0 or less falls back to 80 whatever the scheme.
    return port > 0 ? port : KDefaultHttpPort;
}

char* CHttpData::FindPath(int& len) const
{
    const Span path = PathOf(m_strURL);
    len = path.len;
    return const_cast<char*>(path.data);
}

bool CHttpData::IsSecureConnection() const
{
    return !m_strURL.IsEmpty() && m_strURL.Find(KSchemeHttps) >= 0;
}

bool CHttpData::IsSameHost(const char* url) const
{
    if (!url)
        return false;
    int ownLen = 0;
    const char* own = FindHost(ownLen);
    if (!own || ownLen == 0)
        return false;
    // The other URL is read as SetURL(const char*) would store it.
    CQSString other(url);
    other.Replace(" ", "%20");
    int otherLen = 0;
    const char* otherHost = FindHost(other, otherLen);
    return CQSString(own, ownLen) == CQSString(otherHost, otherHost ? otherLen : 0);
}

// ---------------------------------------------------------------- writers

int CHttpData::CopyHttpHeader_NewLineFlag(unsigned char count, unsigned char* out)
{
    ByteWriter w(out);
    for (unsigned i = 0; i < count; ++i)
        w.PutLiteral(KCrLf);
    return w.Count();
}

int CHttpData::CopyHttpHeader_Accept(unsigned char* out)
{
    ByteWriter w(out);
    w.PutLiteral(KAcceptShortLine);
    return w.Count();
}

int CHttpData::CopyHttpHeader_Host(unsigned char* out)
{
    int hostLen = 0;
    const char* host = FindHostURL(hostLen);
    if (!host || hostLen == 0)
        return -1;
    ByteWriter w(out);
    w.PutLiteral("Host: ");
    w.Put(host, hostLen);
    w.PutLiteral(KCrLf);
    return w.Count();
}

int CHttpData::CopyHttpHeader_UserAgent(unsigned char* out)
{
    ByteWriter w(out);
    PutString(w, m_strUserAgent);
    w.PutLiteral(KCrLf);
    PutString(w, m_strVUserAgent);
    w.PutLiteral(KCrLf);
    return w.Count();
}

int CHttpData::CopyHttpHeader_ContentLenght(int n, unsigned char* out)
{
    ByteWriter w(out);
    w.PutLiteral("Content-Length: ");
    w.PutDecimal(n);
    w.PutLiteral(KCrLf);
    return w.Count();
}

int CHttpData::CopyHttpHeader_Method(enHttpMethod method, bool absoluteTarget, unsigned char* out)
{
    ByteWriter w(out);
    switch (method) {
    case HM_Get:
        w.PutLiteral("GET ");
        break;
    case HM_Post:
        w.PutLiteral("POST ");
        break;
    default:
        QT_ASSERT_UNREACHABLE("FALSE", KAssertFile);
    }
    if (absoluteTarget) {
        // Unlike the GET and POST builders, the absolute form always ends
        // the URL with "/".
        PutString(w, m_strURL);
        w.PutLiteral("/");
    } else {
        const Span path = PathOf(m_strURL);
        if (path.data && path.len > 0)
            w.Put(path.data, path.len);
        else
            w.PutLiteral("/");
    }
    w.PutLiteral(" ");
    w.PutLiteral(KHttpVersion);
    w.PutLiteral(KCrLf);
    return w.Count();
}

// ---------------------------------------------------------------- builders

unsigned char* CHttpData::GetMethodData(int method, int& len, int encodingMode, int absoluteTarget, int multipart,
                                        int bodyLen, unsigned char* body, bool withIdVersion,
                                        unsigned int idVersion)
{
    if (m_strURL.IsEmpty())
        return nullptr;
    switch (method) {
    case KMethodGet:
        return HttpHead_Get(len, encodingMode, absoluteTarget != 0, -1, withIdVersion, idVersion);
    case KMethodPost:
        return HttpHead_Post(len, encodingMode, bodyLen, body, absoluteTarget != 0, multipart != 0,
                             withIdVersion, idVersion);
    }
    QT_ASSERT_UNREACHABLE("FALSE", KAssertFile);
}

unsigned char* CHttpData::PartialGetMethodData(int& len, int encodingMode, bool absoluteTarget, int rangeStart)
{
    if (m_strURL.IsEmpty())
        return nullptr;
    return HttpHead_Get(len, encodingMode, absoluteTarget, rangeStart, false, 0);
}

void CHttpData::BuildCookieLine(CQSString& line) const
{
    // No cookie store can be attached yet: a request carries a Cookie line
    // only once the holder is able to answer for a host.
    line.Empty();
}

unsigned char* CHttpData::HttpHead_Get(int& len, int encodingMode, bool absoluteTarget, int rangeStart,
                                       bool withIdVersion, unsigned int idVersion)
{
    int hostLen = 0;
    const char* host = FindHostURL(hostLen);
    if (!host || hostLen == 0)
        return nullptr;
    CQSString cookieLine;
    BuildCookieLine(cookieLine);
    CQSString extraLine;
    const bool withExtra = CHttpConfig::GetKeyValue(0, extraLine) && !extraLine.IsEmpty();

    const auto writeHead = [&](ByteWriter& w) {
        PutRequestLine(w, "GET ", m_strURL, absoluteTarget, true);
        w.PutLiteral("Host: ");
        w.Put(host, hostLen);
        w.PutLiteral(KCrLf);
        PutString(w, m_strUserAgent);
        w.PutLiteral(KCrLf);
        PutString(w, m_strVUserAgent);
        w.PutLiteral(KCrLf);
        if (withExtra) {
            PutString(w, extraLine);
            w.PutLiteral(KCrLf);
        }
        w.PutLiteral(KAcceptLine);
        w.PutLiteral(KAcceptCharsetLine);
        if (encodingMode == KEncodingGzip)
            w.PutLiteral(KAcceptEncodingLine);
        if (rangeStart != -1) {
            w.PutLiteral("Range: bytes=");
            w.PutDecimal(rangeStart);
            w.PutLiteral("-");
            w.PutLiteral(KCrLf);
        }
        if (withIdVersion) {
            w.PutLiteral("idversion:");
            w.PutDecimal(idVersion);
            w.PutLiteral(KCrLf);
        }
        PutString(w, cookieLine);
        w.PutLiteral(KConnectionLine);
        w.PutLiteral(KCrLf);
    };
    return SizeThenWrite(writeHead, len);
}

unsigned char* CHttpData::HttpHead_Post(int& len, int encodingMode, int bodyLen, unsigned char* body,
                                        bool absoluteTarget, bool multipart, bool withIdVersion,
                                        unsigned int idVersion)
{
    int hostLen = 0;
    const char* host = FindHostURL(hostLen);
    if (!host || hostLen == 0)
        return nullptr;
    CQSString cookieLine;
    BuildCookieLine(cookieLine);
    CQSString extraLine;
    const bool withExtra = CHttpConfig::GetKeyValue(0, extraLine) && !extraLine.IsEmpty();

    const auto writeHead = [&](ByteWriter& w) {
        PutRequestLine(w, "POST ", m_strURL, absoluteTarget, false);
        w.PutLiteral("Host: ");
        w.Put(host, hostLen);
        w.PutLiteral(KCrLf);
        PutString(w, m_strUserAgent);
        w.PutLiteral(KCrLf);
        if (withExtra) {
            PutString(w, extraLine);
            w.PutLiteral(KCrLf);
        }
        w.PutLiteral(KAcceptLine);
        w.PutLiteral(KAcceptCharsetLine);
        PutString(w, cookieLine);
        if (multipart)
            w.PutLiteral(KContentTypeMultipart);
        else
            w.PutLiteral(KContentTypeForm);
        w.PutLiteral("Content-Length: ");
        w.PutDecimal(bodyLen);
        w.PutLiteral(KCrLf);
        PutString(w, m_strVUserAgent);
        w.PutLiteral(KCrLf);
        if (encodingMode == KEncodingGzip)
            w.PutLiteral(KAcceptEncodingLine);
        if (withIdVersion) {
            w.PutLiteral("idversion:");
            w.PutDecimal(idVersion);
            w.PutLiteral(KCrLf);
        }
        w.PutLiteral(KConnectionLine);
        w.PutLiteral(KCrLf);
        // The body is counted in the size even when no bytes are given, so
        // a null body with a positive length fails the size check.
        w.PutOptional(body, bodyLen);
    };
    return SizeThenWrite(writeHead, len);
}
