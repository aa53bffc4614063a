#include "src/HttpData.h"

#include "BaseClass/src/QtAssert.h"
#include "src/CookieHolder.h"
#include "src/HttpConfig.h"
#include "src/RequestHeaderUnit.h"
#include "src/VelaUA.h"
#include "src/internal/ByteWriter_p.h"
#include "src/internal/HeadMatch_p.h"

#include <climits>
#include <cstring>
#include <memory>
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

// A bracketed IPv6 literal at the start of the authority ("[::1]:8080"):
// the span between the brackets, or an empty span when the authority does
// not start with "[" or its "]" does not come before the first "/" or "?".
Span BracketedHost(const CQSString& url)
{
    const char* end = nullptr;
    const char* p = AuthorityStart(url, &end);
    Span span;
    if (!p || p >= end || *p != '[')
        return span;
    for (const char* q = p + 1; q < end && *q != '/' && *q != '?'; ++q) {
        if (*q == ']') {
            span.data = p + 1;
            span.len = static_cast<int>(q - span.data);
            return span;
        }
    }
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

// text + CRLF.
void PutLine(ByteWriter& w, const CQSString& text)
{
    PutString(w, text);
    w.PutLiteral(KCrLf);
}

void PutHostLine(ByteWriter& w, const char* host, int hostLen)
{
    w.PutLiteral("Host: ");
    w.Put(host, hostLen);
    w.PutLiteral(KCrLf);
}

// The private version line has no blank after its colon.
void PutIdVersionLine(ByteWriter& w, unsigned int idVersion)
{
    w.PutLiteral("idversion:");
    w.PutDecimal(idVersion);
    w.PutLiteral(KCrLf);
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
    const Span literal = BracketedHost(url);
    if (literal.data) {
        len = literal.len;
        return const_cast<char*>(literal.data);
    }
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

    Span authority = AuthorityUntil(m_strURL, "/?");
    if (!authority.data)
        return defaultPort;
    // The colons inside a bracketed literal are not the port's.
    const Span literal = BracketedHost(m_strURL);
    if (literal.data) {
        const char* afterBracket = literal.data + literal.len + 1;
        authority.len -= static_cast<int>(afterBracket - authority.data);
        authority.data = afterBracket;
    }
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
    return CopyHttpHeader_ContentLength64(n, out);
}

int CHttpData::CopyHttpHeader_ContentLength64(long long n, unsigned char* out)
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

int CHttpData::CopyHttpHeader_Method(int method, bool absoluteTarget, unsigned char* out)
{
    return CopyHttpHeader_Method(static_cast<enHttpMethod>(method), absoluteTarget, out);
}

// ---------------------------------------------------------------- builders

unsigned char* CHttpData::GetMethodData(int method, int& len, int encodingMode, int absoluteTarget, int multipart,
                                        int bodyLen, const unsigned char* body, bool withIdVersion,
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
    return PartialGetMethodData64(len, encodingMode, absoluteTarget, rangeStart);
}

unsigned char* CHttpData::PartialGetMethodData64(int& len, int encodingMode, bool absoluteTarget,
                                                 long long rangeStart)
{
    if (m_strURL.IsEmpty())
        return nullptr;
    return HttpHead_Get64(len, encodingMode, absoluteTarget, rangeStart, false, 0);
}

void CHttpData::BuildCookieLine(CQSString& line) const
{
    line.Empty();
    int hostLen = 0;
    const char* host = FindHost(hostLen);
    if (!m_pCookieHolder || !host || hostLen == 0)
        return;
    // Cookies are kept under lower-case domains; the port is not part of it.
    CQSString lowerHost(host, hostLen);
    lowerHost.MakeLower();
    // The table is ours to delete, whether or not it holds anything.
    const std::unique_ptr<CQHashTable<QCookieValue>> table(m_pCookieHolder->GetCookie(lowerHost, true));
    if (!table || table->GetCount() == 0)
        return;
    // The snapshot is an allocation of its own: without it no cookie goes out.
    QCookieValue** cookies = table->getall();
    if (cookies == nullptr)
        return;
    // A line cut short by a failed append would corrupt the head: all or none.
    bool whole = line.SetData("Cookie: ") != 0;
    for (int i = 0; whole && i < table->GetCount(); ++i) {
        if (i > 0)
            whole = line.AppendChar(';') != 0;
        const QCookieValue* cookie = cookies[i];
        whole = whole &&
                line.AppendData(reinterpret_cast<const unsigned char*>(cookie->name.GetDataPtr()),
                                cookie->name.GetLength()) != 0 &&
                line.AppendChar('=') != 0 &&
                line.AppendData(reinterpret_cast<const unsigned char*>(cookie->value.GetDataPtr()),
                                cookie->value.GetLength()) != 0;
    }
    if (!whole || line.AppendData(KCrLf) == 0)
        line.Empty();
}

// What the GET and POST heads share before their lines are written.
struct CHttpData::RequestPreamble
{
    const char* host = nullptr;  // with its port, as FindHostURL gives it
    int hostLen = 0;
    CQSString cookieLine;  // empty: no cookies to send
    CQSString extraLine;   // the configured line, without its line end
    bool withExtra = false;
};

bool CHttpData::ReadRequestPreamble(RequestPreamble& preamble) const
{
    preamble.host = FindHostURL(preamble.hostLen);
    if (!preamble.host || preamble.hostLen == 0)
        return false;
    BuildCookieLine(preamble.cookieLine);
    preamble.withExtra = CHttpConfig::GetKeyValue(0, preamble.extraLine) && !preamble.extraLine.IsEmpty();
    return true;
}

unsigned char* CHttpData::HttpHead_Get(int& len, int encodingMode, bool absoluteTarget, int rangeStart,
                                       bool withIdVersion, unsigned int idVersion)
{
    return HttpHead_Get64(len, encodingMode, absoluteTarget, rangeStart, withIdVersion, idVersion);
}

unsigned char* CHttpData::HttpHead_Get64(int& len, int encodingMode, bool absoluteTarget, long long rangeStart,
                                         bool withIdVersion, unsigned int idVersion)
{
    RequestPreamble pre;
    if (!ReadRequestPreamble(pre))
        return nullptr;

    const auto writeHead = [&](ByteWriter& w) {
        PutRequestLine(w, "GET ", m_strURL, absoluteTarget, true);
        PutHostLine(w, pre.host, pre.hostLen);
        PutLine(w, m_strUserAgent);
        PutLine(w, m_strVUserAgent);
        if (pre.withExtra)
            PutLine(w, pre.extraLine);
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
        if (withIdVersion)
            PutIdVersionLine(w, idVersion);
        PutString(w, pre.cookieLine);
        w.PutLiteral(KConnectionLine);
        w.PutLiteral(KCrLf);
    };
    return SizeThenWrite(writeHead, len);
}

unsigned char* CHttpData::HttpHead_Post(int& len, int encodingMode, int bodyLen, const unsigned char* body,
                                        bool absoluteTarget, bool multipart, bool withIdVersion,
                                        unsigned int idVersion)
{
    RequestPreamble pre;
    if (!ReadRequestPreamble(pre))
        return nullptr;

    const auto writeHead = [&](ByteWriter& w) {
        PutRequestLine(w, "POST ", m_strURL, absoluteTarget, false);
        PutHostLine(w, pre.host, pre.hostLen);
        PutLine(w, m_strUserAgent);
        if (pre.withExtra)
            PutLine(w, pre.extraLine);
        w.PutLiteral(KAcceptLine);
        w.PutLiteral(KAcceptCharsetLine);
        PutString(w, pre.cookieLine);
        if (multipart)
            w.PutLiteral(KContentTypeMultipart);
        else
            w.PutLiteral(KContentTypeForm);
        w.PutLiteral("Content-Length: ");
        w.PutDecimal(bodyLen);
        w.PutLiteral(KCrLf);
        PutLine(w, m_strVUserAgent);
        if (encodingMode == KEncodingGzip)
            w.PutLiteral(KAcceptEncodingLine);
        if (withIdVersion)
            PutIdVersionLine(w, idVersion);
        w.PutLiteral(KConnectionLine);
        w.PutLiteral(KCrLf);
        // The body is counted in the size even when no bytes are given, so
        // a null body with a positive length fails the size check.
        w.PutOptional(body, bodyLen);
    };
    return SizeThenWrite(writeHead, len);
}

// ---------------------------------------------------------------- response
//
// Response head, as this library reads it:
//   response = *byte "HTTP/" 3byte " " status " " *byte CRLF CRLF *body
//   status   = the text 9 bytes after "HTTP/" up to the next " "
//   field    = <field text, any case> value CRLF  ; first occurrence anywhere
// A field is not anchored to a line start and may even be found in body bytes
// behind the head: the servers that send the private fields rely on this.

using velanet::headmatch::FieldValue;
using velanet::headmatch::FindCrLf;
using velanet::headmatch::FindLiteral;
using velanet::headmatch::FindField;
using velanet::headmatch::FindNoCase;
using velanet::headmatch::KNotFound;
using velanet::headmatch::MakeNoCaseText;
using velanet::headmatch::NoCaseText;
using velanet::headmatch::StartsWithNoCase;
using velanet::headmatch::ValueAt;

namespace {

constexpr NoCaseText KFieldContentLength = MakeNoCaseText("Content-Length:");
constexpr NoCaseText KFieldTransferEncoding = MakeNoCaseText("Transfer-Encoding: ");
constexpr NoCaseText KFieldContentRange = MakeNoCaseText("Content-Range: bytes");
constexpr NoCaseText KFieldContentType = MakeNoCaseText("Content-Type:");
constexpr NoCaseText KFieldContentEncoding = MakeNoCaseText("Content-Encoding:");
constexpr NoCaseText KFieldCacheControl = MakeNoCaseText("Cache-Control: ");
constexpr NoCaseText KFieldContentDisposition = MakeNoCaseText("Content-Disposition: ");
constexpr NoCaseText KFieldLocation = MakeNoCaseText("Location: ");
constexpr NoCaseText KFieldSetCookie = MakeNoCaseText("Set-Cookie:");
constexpr NoCaseText KFieldDate = MakeNoCaseText("Date:");
constexpr NoCaseText KFieldExpireDate = MakeNoCaseText("ExpireDate:");
constexpr NoCaseText KFieldCurUrl = MakeNoCaseText("CurURL:");
constexpr NoCaseText KFieldFileUrl = MakeNoCaseText("FileURL:");
constexpr NoCaseText KFieldOrigSize = MakeNoCaseText("OrigSize:");
constexpr NoCaseText KFieldStreamSize = MakeNoCaseText("StreamSize:");
constexpr NoCaseText KFieldIdVersion = MakeNoCaseText("idversion:");

constexpr NoCaseText KTextHttp = MakeNoCaseText("HTTP/");
constexpr NoCaseText KTextChunked = MakeNoCaseText("chunked");
constexpr NoCaseText KTextFilename = MakeNoCaseText("filename=");
constexpr NoCaseText KTextUtf8 = MakeNoCaseText("UTF-8");
constexpr NoCaseText KTextGb2312 = MakeNoCaseText("GB2312");

const char KHeadEnd[] = "\r\n\r\n";
// The status text starts just after "HTTP/1.1 ".
const int KStatusOffset = 9;
const int KStatusMovedPermanently = 301;
const int KStatusFound = 302;

const char KCharsetUtf8[] = "UTF-8";
const char KCharsetGb2312[] = "GB2312";

bool ValidBuffer(const unsigned char* buf, int len)
{
    return buf && len > 0;
}

CQSString TextOf(const unsigned char* buf, int start, int end)
{
    return CQSString(reinterpret_cast<const char*>(buf) + start, end - start);
}

CQSString ValueOf(const unsigned char* buf, const FieldValue& value)
{
    return TextOf(buf, value.start, value.end);
}

bool ContainsNoCase(const CQSString& text, const NoCaseText& pattern)
{
    return FindNoCase(reinterpret_cast<const unsigned char*>(text.GetDataPtr()), text.GetLength(), pattern) !=
           KNotFound;
}

// The trimmed decimal value of a private numeric field into n: 0 when the
// field is absent; n untouched for a null or empty buffer.
void ReadNumberField(const unsigned char* buf, int len, const NoCaseText& field, int& n)
{
    if (!ValidBuffer(buf, len))
        return;
    n = 0;
    FieldValue value;
    if (!FindField(buf, len, field, 0, value))
        return;
    CQSString text = ValueOf(buf, value);
    text.TrimRightAndLeft();
    n = text.ToINT();
}

// The trimmed value of a private URL field into url (untouched when absent).
int ReadUrlField(const unsigned char* buf, int len, const NoCaseText& field, CQSString& url)
{
    if (!ValidBuffer(buf, len))
        return CHttpData::KFieldAbsent;
    FieldValue value;
    if (FindField(buf, len, field, 0, value)) {
        url = ValueOf(buf, value);
        url.TrimRightAndLeft();
    }
    return CHttpData::KFieldParsed;
}

struct MainTypeRow
{
    const char* prefix;
    int mainId;
};

// First matching prefix wins.
const MainTypeRow KMainTypes[] = {
    {"text/", CHttpData::KTypeText},   {"application/", CHttpData::KTypeApplication},
    {"audio/", CHttpData::KTypeAudio}, {"video/", CHttpData::KTypeVideo},
    {"image/", CHttpData::KTypeImage}, {"gif", CHttpData::KTypeImage},
};

struct SubTypeRow
{
    const char* text;
    int subId;
};

const SubTypeRow KAudioSubTypes[] = {
    {"/mp3", CHttpData::KSubAudioMp3},   {"/midi", CHttpData::KSubAudioMidi}, {"/amr", CHttpData::KSubAudioAmr},
    {"/mpeg", CHttpData::KSubAudioMpeg}, {"/rm", CHttpData::KSubAudioRm},     {"/x-wav", CHttpData::KSubAudioWav},
};

const SubTypeRow KVideoSubTypes[] = {
    {"/3gpp", CHttpData::KSubVideo3gpp},
    {"/mpeg", CHttpData::KSubVideoMpeg},
    {"/jpeg", CHttpData::KSubVideoJpeg},
};

// Sub ID of the first row the value ends with (no case), or KSubUnknown.
template <size_t N>
int SubIdByEnding(const CQSString* type, const SubTypeRow (&rows)[N])
{
    if (!type)
        return CHttpData::KSubUnknown;
    for (const SubTypeRow& row : rows) {
        if (type->IsEndWithNoCase(row.text))
            return row.subId;
    }
    return CHttpData::KSubUnknown;
}

}  // namespace

// ---------------------------------------------------------------- record

CHttpResponseHead::CHttpResponseHead()
{
    Reset();
}

CHttpResponseHead::CHttpResponseHead(const CHttpResponseHead& other)
{
    Reset();
    *this = other;
}

CHttpResponseHead::~CHttpResponseHead()
{
    DeleteCookieLines();
}

void CHttpResponseHead::DeleteCookieLines()
{
    while (!m_listCookies.IsEmpty()) {
        CQSString* pItem = m_listCookies.RemoveHead();
        QT_ALWAYS_ASSERT(pItem != NULL, KAssertFile);
        delete pItem;
    }
}

void CHttpResponseHead::Reset()
{
    m_nHeadLen = KNotGiven;
    m_nStatusCode = KNotGiven;
    m_nContentLength = KNotGiven;
    m_nContentTypeID = CHttpData::KTypeNone;
    m_nContentSubTypeID = CHttpData::KSubNone;
    m_nBodyType = KNotGiven;
    m_strLocation.Empty();
    m_bCacheable = true;
    m_nRangeStart = KNotGiven;
    m_nRangeTotal = KNotGiven;
    m_strAttachName.Empty();
    DeleteCookieLines();
    m_strCurPageURL.Empty();
    m_strFileURL.Empty();
    m_strCharset.Empty();
    m_nOrigSize = 0;
    m_nStreamSize = 0;
    m_nIDVersion = KNotGiven;
    m_nDate = 0;
    m_nExpireDate = 0;
    m_nMaxAge = 0;
    m_bPrivate = false;
    m_bNoStore = false;
    m_nContentEncoding = KContentEncodingNone;
    m_nContentLength64 = KNotGiven;
    m_nRangeStart64 = KNotGiven;
    m_nRangeTotal64 = KNotGiven;
    m_bContentLengthInvalid = false;
}

int CHttpResponseHead::SaturatedInt(long long value)
{
    if (value > KIntSaturated)
        return KIntSaturated;
    if (value < INT_MIN)
        return INT_MIN;
    return static_cast<int>(value);
}

CHttpResponseHead& CHttpResponseHead::operator=(const CHttpResponseHead& other)
{
    if (&other == this)
        return *this;
    m_nHeadLen = other.m_nHeadLen;
    m_nStatusCode = other.m_nStatusCode;
    m_nContentLength = other.m_nContentLength;
    m_nContentTypeID = other.m_nContentTypeID;
    m_nContentSubTypeID = other.m_nContentSubTypeID;
    m_nBodyType = other.m_nBodyType;
    m_strLocation = other.m_strLocation;
    m_bCacheable = other.m_bCacheable;
    m_nRangeStart = other.m_nRangeStart;
    m_nRangeTotal = other.m_nRangeTotal;
    m_strAttachName = other.m_strAttachName;
    // Appended, not replaced: the target keeps the lines it already held.
    POSITION pos = other.m_listCookies.GetHeadPosition();
    while (pos) {
        const CQSString* line = other.m_listCookies.GetNext(pos);
        if (!line)
            continue;
        CQSString* copy = new (std::nothrow) CQSString(*line);
        // A copy whose text could not be allocated is empty: leave it out.
        if (copy && (copy->GetLength() != line->GetLength() || !m_listCookies.AddTail(copy)))
            delete copy;
    }
    m_strCurPageURL = other.m_strCurPageURL;
    m_strFileURL = other.m_strFileURL;
    m_strCharset = other.m_strCharset;
    m_nOrigSize = other.m_nOrigSize;
    m_nStreamSize = other.m_nStreamSize;
    m_nIDVersion = other.m_nIDVersion;
    m_nDate = other.m_nDate;
    m_nExpireDate = other.m_nExpireDate;
    m_nMaxAge = other.m_nMaxAge;
    m_bPrivate = other.m_bPrivate;
    m_bNoStore = other.m_bNoStore;
    m_nContentLength64 = other.m_nContentLength64;
    m_nRangeStart64 = other.m_nRangeStart64;
    m_nRangeTotal64 = other.m_nRangeTotal64;
    m_bContentLengthInvalid = other.m_bContentLengthInvalid;
    // The content encoding is deliberately not copied.
    return *this;
}

// ---------------------------------------------------------------- head

int CHttpData::GetResponseHead(const unsigned char* buf, int len, CHttpResponseHead& head)
{
    if (!ValidBuffer(buf, len))
        return KHeadIncomplete;
    const int headEnd = FindLiteral(buf, len, KHeadEnd);
    if (headEnd == KNotFound)
        return KHeadIncomplete;
    const int httpAt = FindNoCase(buf, len, KTextHttp);
    if (httpAt == KNotFound)
        return KHeadIncomplete;
    const int statusStart = httpAt + KStatusOffset;
    const int statusEnd = FindLiteral(buf, len, " ", statusStart);
    if (statusEnd == KNotFound)
        return KHeadIncomplete;
    const int status = TextOf(buf, statusStart, statusEnd).ToINT();

    if (status == KStatusMovedPermanently || status == KStatusFound) {
        (void)GetLocation(buf, len, head.m_strLocation);
        (void)GetCookie(buf, len, head);
        SaveCookies(m_strURL, head.m_listCookies);
    } else {
        int contentLength = CHttpResponseHead::KNotGiven;
        (void)GetContentLenght(buf, len, contentLength, head);
        (void)GetContentType(buf, len, head);
        (void)GetContentEncoding(buf, len, head);
        (void)GetCacheControl(buf, len, head);
        (void)GetContentRange(buf, len, head);
        (void)GetContentAttachName(buf, len, head);
        (void)GetContentData(buf, len, head);
        (void)GetContentExpireData(buf, len, head);
        (void)GetCookie(buf, len, head);
        SaveCookies(m_strURL, head.m_listCookies);
        (void)GetThisPageUrl(buf, len, head.m_strCurPageURL);
        (void)GetFileUrl(buf, len, head.m_strFileURL);
        GetOrignSize(buf, len, head.m_nOrigSize);
        GetStreamSize(buf, len, head.m_nStreamSize);
        GetIDVersion(buf, len, head.m_nIDVersion);
    }

    head.m_nHeadLen = headEnd + (sizeof KHeadEnd - 1);
    head.m_nStatusCode = status;
    return KHeadComplete;
}

// ---------------------------------------------------------------- fields

int CHttpData::GetContentLenght(const unsigned char* buf, int len, int& n, CHttpResponseHead& head)
{
    FieldValue value;
    if (FindField(buf, len, KFieldContentLength, 0, value)) {
        CQSString text = ValueOf(buf, value);
        text.TrimRightAndLeft();
        head.m_nBodyType = CHttpResponseHead::KBodyByLength;
        // A length starts with a digit (RFC 9110, section 8.6): a sign or
        // any other text is no length, and neither is one past 2^63 - 1.
        // What follows the digits is ignored, as ToINT ignores it.
        bool fits = false;
        const long long length = text.ToINT64(&fits);
        const bool digitFirst = text.GetAt(0) >= '0' && text.GetAt(0) <= '9';
        if (!digitFirst || !fits || length < 0) {
            n = CHttpResponseHead::KNotGiven;
            head.m_nContentLength = CHttpResponseHead::KNotGiven;
            head.m_nContentLength64 = CHttpResponseHead::KNotGiven;
            head.m_bContentLengthInvalid = true;
            return KFieldAbsent;
        }
        n = CHttpResponseHead::SaturatedInt(length);
        head.m_nContentLength = n;
        head.m_nContentLength64 = length;
        head.m_bContentLengthInvalid = false;
        return n;
    }
    n = CHttpResponseHead::KNotGiven;
    head.m_nContentLength = CHttpResponseHead::KNotGiven;
    head.m_nContentLength64 = CHttpResponseHead::KNotGiven;
    head.m_bContentLengthInvalid = false;
    // "chunked" may stand anywhere after the Transfer-Encoding field text.
    if (FindField(buf, len, KFieldTransferEncoding, 0, value) &&
        FindNoCase(buf, len, KTextChunked, value.start) != KNotFound)
        head.m_nBodyType = CHttpResponseHead::KBodyChunked;
    else
        head.m_nBodyType = CHttpResponseHead::KBodyUntilClose;
    return KFieldAbsent;
}

int CHttpData::GetContentRange(const unsigned char* buf, int len, CHttpResponseHead& head)
{
    // value = start "-" end "/" total, parsed inside the field's value; the
    // blank before start is left for ToINT.
    FieldValue value;
    if (FindField(buf, len, KFieldContentRange, 0, value)) {
        const int dash = FindLiteral(buf, value.end, "-", value.start);
        bool startFits = false;
        const long long start = dash != KNotFound ? TextOf(buf, value.start, dash).ToINT64(&startFits) : 0;
        const int slash = dash != KNotFound ? FindLiteral(buf, value.end, "/", dash + 1) : KNotFound;
        bool totalFits = false;
        const long long total = slash != KNotFound ? TextOf(buf, slash + 1, value.end).ToINT64(&totalFits) : 0;
        if (slash != KNotFound && startFits && totalFits) {
            head.m_nRangeStart = CHttpResponseHead::SaturatedInt(start);
            head.m_nRangeStart64 = start;
            head.m_nRangeTotal = CHttpResponseHead::SaturatedInt(total);
            head.m_nRangeTotal64 = total;
            return KFieldParsed;
        }
    }
    head.m_nRangeStart = CHttpResponseHead::KNotGiven;
    head.m_nRangeTotal = CHttpResponseHead::KNotGiven;
    head.m_nRangeStart64 = CHttpResponseHead::KNotGiven;
    head.m_nRangeTotal64 = CHttpResponseHead::KNotGiven;
    return KFieldAbsent;
}

int CHttpData::GetContentType(const unsigned char* buf, int len, CHttpResponseHead& head)
{
    FieldValue value;
    if (!FindField(buf, len, KFieldContentType, 0, value))
        return KFieldAbsent;
    CQSString type = ValueOf(buf, value);
    type.TrimLeft();
    GetContentTypeID(&type, head.m_nContentTypeID, head.m_nContentSubTypeID);
    GetCharset(&type, head.m_strCharset);
    return KFieldParsed;
}

void CHttpData::GetContentTypeID(const CQSString* type, int& mainId, int& subId)
{
    if (!type || type->IsEmpty()) {
        mainId = KTypeNone;
        subId = KSubNone;
        return;
    }
    mainId = KTypeUnknown;
    for (const MainTypeRow& row : KMainTypes) {
        if (type->IsStartWithNoCase(row.prefix)) {
            mainId = row.mainId;
            break;
        }
    }
    subId = GetContentTypeSubID(type, mainId);
}

int CHttpData::GetContentTypeSubID(const CQSString* type, int mainId)
{
    switch (mainId) {
    case KTypeText:
        return GetTextSubID(type);
    case KTypeApplication:
        return GetApplicationSubID(type);
    case KTypeAudio:
        return GetAudioSubID(type);
    case KTypeVideo:
        return GetVideoSubID(type);
    case KTypeImage:
        return GetImageSubID(type);
    }
    return KSubUnknown;
}

int CHttpData::GetTextSubID(const CQSString* type)
{
    if (!type)
        return KSubUnknown;
    // The two WAP types count only behind a main type (position above 0).
    if (type->Find("/vnd.wap.wml") > 0)
        return KSubTextWml;
    if (type->Find("/vnd.sun.j2me.app-descriptor") > 0)
        return KSubTextJadDescriptor;
    if (type->Find("/html") >= 0)
        return KSubTextHtml;
    if (type->Find("/css") >= 0)
        return KSubTextCss;
    return KSubUnknown;
}

int CHttpData::GetApplicationSubID(const CQSString* type)
{
    if (!type)
        return KSubUnknown;
    if (type->Find("/xhtml+xml") >= 0)
        return KSubApplicationXhtml;
    if (type->Find("/vnd.wap.xhtml+xml") >= 0)
        return KSubApplicationWapXhtml;
    return KSubUnknown;
}

int CHttpData::GetAudioSubID(const CQSString* type)
{
    return SubIdByEnding(type, KAudioSubTypes);
}

int CHttpData::GetVideoSubID(const CQSString* type)
{
    return SubIdByEnding(type, KVideoSubTypes);
}

int CHttpData::GetImageSubID(const CQSString*)
{
    // No image sub-types are distinguished.
    return KSubUnknown;
}

void CHttpData::GetCharset(const CQSString* type, CQSString& charset)
{
    if (!type || type->IsEmpty() || ContainsNoCase(*type, KTextUtf8))
        charset = KCharsetUtf8;
    else if (ContainsNoCase(*type, KTextGb2312))
        charset = KCharsetGb2312;
}

int CHttpData::GetContentEncoding(const unsigned char* buf, int len, CHttpResponseHead& head)
{
    FieldValue value;
    if (!FindField(buf, len, KFieldContentEncoding, 0, value)) {
        head.m_nContentEncoding = CHttpResponseHead::KContentEncodingNone;
        return KFieldAbsent;
    }
    // Trimmed on the left as CQSString::TrimLeft does, without a copy.
    int start = value.start;
    while (start < value.end && std::strchr(" \t\r\n", buf[start]) && buf[start] != '\0')
        ++start;
    const unsigned char* coding = buf + start;
    const int codingLen = value.end - start;
    if (StartsWithNoCase(coding, codingLen, "gzip", 4))
        head.m_nContentEncoding = CHttpResponseHead::KContentEncodingGzip;
    else if (StartsWithNoCase(coding, codingLen, "deflate", 7))
        head.m_nContentEncoding = CHttpResponseHead::KContentEncodingDeflate;
    else
        head.m_nContentEncoding = CHttpResponseHead::KContentEncodingNone;
    return KFieldParsed;
}

int CHttpData::GetCacheControl(const unsigned char* buf, int len, CHttpResponseHead& head)
{
    FieldValue value;
    if (!FindField(buf, len, KFieldCacheControl, 0, value))
        return KFieldAbsent;
    const CQSString directives = ValueOf(buf, value);
    const char maxAge[] = "max-age=";
    if (directives.Find("no-cache") >= 0) {
        head.m_bCacheable = false;
        // "no-store" counts only together with "no-cache".
        if (directives.Find("no-store") >= 0)
            head.m_bNoStore = true;
    } else if (directives.Find("private") >= 0) {
        head.m_bPrivate = true;
        head.m_bCacheable = false;
    } else {
        const int at = directives.Find(maxAge);
        if (at >= 0) {
            head.m_bCacheable = true;
            const int digits = at + static_cast<int>(sizeof maxAge - 1);
            head.m_nMaxAge =
                CQSString(directives.GetDataPtr() + digits, directives.GetLength() - digits).ToINT();
        }
    }
    return KFieldParsed;
}

int CHttpData::GetContentAttachName(const unsigned char* buf, int len, CHttpResponseHead& head)
{
    FieldValue value;
    if (!FindField(buf, len, KFieldContentDisposition, 0, value))
        return KFieldAbsent;
    // "filename=" is looked for inside the Content-Disposition value.
    const int at = FindNoCase(buf, value.end, KTextFilename, value.start);
    if (at == KNotFound || at + KTextFilename.len == value.end)
        return KFieldAbsent;
    head.m_strAttachName = TextOf(buf, at + KTextFilename.len, value.end);
    head.m_strAttachName.Replace("\"", "");
    return KFieldParsed;
}

int CHttpData::GetLocation(const unsigned char* buf, int len, CQSString& location)
{
    FieldValue value;
    if (!FindField(buf, len, KFieldLocation, 0, value))
        return KFieldAbsent;
    location = ValueOf(buf, value);
    return KFieldParsed;
}

int CHttpData::GetCookie(const unsigned char* buf, int len, CHttpResponseHead& head)
{
    if (!ValidBuffer(buf, len))
        return KFieldAbsent;
    // Every occurrence counts, so the next search starts right after the
    // field text just found; the first one without a value ends the scan.
    FieldValue value;
    int at = FindNoCase(buf, len, KFieldSetCookie);
    while (at != KNotFound && ValueAt(buf, len, at, KFieldSetCookie.len, value)) {
        CQSString* line = new (std::nothrow) CQSString(ValueOf(buf, value));
        // A line whose text could not be allocated is empty: leave it out.
        if (line && (line->GetLength() != value.Length() || !head.m_listCookies.AddTail(line)))
            delete line;
        at = FindNoCase(buf, len, KFieldSetCookie, value.start);
    }
    return KFieldParsed;
}

void CHttpData::SaveCookies(const CQSString& url, const CQList<CQSString*>& lines)
{
    if (!m_pCookieHolder || lines.IsEmpty())
        return;
    POSITION pos = lines.GetHeadPosition();
    while (pos) {
        const CQSString* line = lines.GetNext(pos);
        if (line)
            (void)m_pCookieHolder->ParseCookie(url, *line);
    }
}

unsigned int CHttpData::DateStringToInt(const CQSString& text) const
{
    // CQSString keeps its bytes NUL-terminated, as the date parser needs.
    return m_DateParser.HTParseTime(text.GetDataPtr());
}

// The date fields are read as DateStringToInt reads them: the value as it
// stands through the cookie date parser.
int CHttpData::GetContentData(const unsigned char* buf, int len, CHttpResponseHead& head)
{
    FieldValue value;
    if (!FindField(buf, len, KFieldDate, 0, value))
        return KFieldAbsent;
    head.m_nDate = static_cast<int>(CookieParser::HTParseTime(ValueOf(buf, value).GetDataPtr()));
    return KFieldParsed;
}

int CHttpData::GetContentExpireData(const unsigned char* buf, int len, CHttpResponseHead& head)
{
    FieldValue value;
    if (!FindField(buf, len, KFieldExpireDate, 0, value))
        return KFieldAbsent;
    head.m_nExpireDate = static_cast<int>(CookieParser::HTParseTime(ValueOf(buf, value).GetDataPtr()));
    return KFieldParsed;
}

int CHttpData::GetThisPageUrl(const unsigned char* buf, int len, CQSString& url)
{
    return ReadUrlField(buf, len, KFieldCurUrl, url);
}

int CHttpData::GetFileUrl(const unsigned char* buf, int len, CQSString& url)
{
    return ReadUrlField(buf, len, KFieldFileUrl, url);
}

void CHttpData::GetOrignSize(const unsigned char* buf, int len, int& n)
{
    ReadNumberField(buf, len, KFieldOrigSize, n);
}

void CHttpData::GetStreamSize(const unsigned char* buf, int len, int& n)
{
    ReadNumberField(buf, len, KFieldStreamSize, n);
}

void CHttpData::GetIDVersion(const unsigned char* buf, int len, int& n)
{
    ReadNumberField(buf, len, KFieldIdVersion, n);
}

// ---------------------------------------------------------------- chunks
//
//   chunk-line = *( CRLF ) hex-size [ extension ] CRLF
// The line ends before the size are those left by the previous chunk's data.

int CHttpData::GetChunkSize(const unsigned char* buf, int len, int& used)
{
    if (!buf || len < 0)
        return KChunkLineIncomplete;
    int pos = 0;
    int lineEnd = FindCrLf(buf, len, pos);
    while (lineEnd != KNotFound && lineEnd == pos) {
        used += 2;
        pos += 2;
        lineEnd = FindCrLf(buf, len, pos);
    }
    if (lineEnd == KNotFound)
        return KChunkLineIncomplete;
    // The size text starts at the buffer start, skipped line ends included
    // (ToHEX passes over them), so used counts them once.
    used = lineEnd + 2;
    return TextOf(buf, 0, lineEnd).ToHEX();
}

// ---------------------------------------------------------------- multipart upload
//
// A file upload goes out as one multipart/form-data POST (RFC 7578):
//   head     = request line, Accept, Host, identification lines,
//              Content-Type with the boundary, Content-Length, CRLF
//   filepart = "--" boundary CRLF disposition-with-filename CRLF
//              "Content-Type: application/octet-stream" CRLF CRLF
//   (the file bytes, streamed by the socket engine)
//   trailer  = CRLF *( "--" boundary CRLF disposition CRLF
//              "Content-Type:text/plain; charset=utf-8" CRLF CRLF value CRLF )
//              "--" boundary "--"
// The head and the file part head share one buffer, the trailer has its own.

namespace {

const char KPartDelimiterLine[] = "--7d92bf36e1196\r\n";
const char KPartClosingDelimiter[] = "--7d92bf36e1196--";
const char KPartContentTypeLine[] = "Content-Type: multipart/form-data;boundary=7d92bf36e1196\r\n";
const char KPartDispositionStart[] = "Content-Disposition: form-data; name=\"";
// No blank between ";" and "filename=": kept as servers have always seen it.
const char KPartFileNameStart[] = "\";filename=\"";
const char KPartOctetStreamLine[] = "Content-Type: application/octet-stream\r\n";
// No blank after "Content-Type:": kept as servers have always seen it.
const char KPartTextPlainLine[] = "Content-Type:text/plain; charset=utf-8\r\n";

static_assert(sizeof KPartContentTypeLine - 1 == 58, "the multipart Content-Type line is 58 bytes");

// Where the next writer of a two-pass sequence writes: nowhere while sizing.
unsigned char* PartOut(unsigned char* out, int offset)
{
    return out ? out + offset : nullptr;
}

void PutPartText(velanet::ByteWriter& w, const CQSString& s)
{
    w.Put(s.GetDataPtr(), s.GetLength());
}

// The writers below allocate nothing, so the sizing and the writing pass
// always agree; their inputs are made once, before the first pass.

void PutFilePartHead(velanet::ByteWriter& w, const CQSString& name, const CQSString& fileName)
{
    w.PutLiteral(KPartDelimiterLine);
    w.PutLiteral(KPartDispositionStart);
    PutPartText(w, name);
    w.PutLiteral(KPartFileNameStart);
    PutPartText(w, fileName);
    w.PutLiteral("\"");
    w.PutLiteral(KCrLf);
    w.PutLiteral(KPartOctetStreamLine);
    w.PutLiteral(KCrLf);
}

void PutFieldPart(velanet::ByteWriter& w, const char* key, int keyLen, const char* value, int valueLen)
{
    w.PutLiteral(KPartDelimiterLine);
    w.PutLiteral(KPartDispositionStart);
    w.Put(key, keyLen);
    w.PutLiteral("\"");
    w.PutLiteral(KCrLf);
    w.PutLiteral(KPartTextPlainLine);
    w.PutLiteral(KCrLf);
    w.Put(value, valueLen);
    w.PutLiteral(KCrLf);
}

// Offset of the first c at or after from, or -1.
int FindChar(const CQSString& text, char c, int from)
{
    const void* hit = std::memchr(text.GetDataPtr() + from, c, static_cast<size_t>(text.GetLength() - from));
    return hit ? static_cast<int>(static_cast<const char*>(hit) - text.GetDataPtr()) : -1;
}

// "&" fields "&": every key then follows an "&" and every value ends at
// one. The key runs to the next "=", the value from that "=" to the next
// "&", so a value may hold "=" and a trailing "b" without "=" is no pair.
[[nodiscard]] bool WrapFields(const CQSString& formFields, CQSString& wrapped)
{
    return wrapped.SetData("&") != 0 &&
           wrapped.AppendData(reinterpret_cast<const unsigned char*>(formFields.GetDataPtr()),
                              formFields.GetLength()) != 0 &&
           wrapped.AppendChar('&') != 0;
}

void PutFieldParts(velanet::ByteWriter& w, const CQSString& wrapped)
{
    int pos = 0;
    for (;;) {
        const int keyAmp = FindChar(wrapped, '&', pos);
        if (keyAmp < 0)
            break;
        const int equals = FindChar(wrapped, '=', keyAmp + 1);
        if (equals < 0)
            break;
        const int valueAmp = FindChar(wrapped, '&', equals + 1);
        if (valueAmp < 0)
            break;
        const char* text = wrapped.GetDataPtr();
        PutFieldPart(w, text + keyAmp + 1, equals - keyAmp - 1, text + equals + 1, valueAmp - equals - 1);
        // The "&" that ended the value starts the next key.
        pos = valueAmp;
    }
}

}  // namespace

int CHttpData::CopyHttpHeader_PostFile_ContentType(unsigned char* out)
{
    velanet::ByteWriter w(out);
    w.PutLiteral(KPartContentTypeLine);
    return w.Count();
}

int CHttpData::CopyHttpHeader_PostFile_ContentDisposition(const CQWString& name, const CQWString& fileName,
                                                         unsigned char* out)
{
    CQSString narrowName;
    static_cast<void>(narrowName.SetData(&name));
    CQSString narrowFileName;
    static_cast<void>(narrowFileName.SetData(&fileName));
    velanet::ByteWriter w(out);
    PutFilePartHead(w, narrowName, narrowFileName);
    return w.Count();
}

int CHttpData::CopyHttpHeader_PostFile_FileInfo(const CQSString& key, const CQSString& value, unsigned char* out)
{
    velanet::ByteWriter w(out);
    PutFieldPart(w, key.GetDataPtr(), key.GetLength(), value.GetDataPtr(), value.GetLength());
    return w.Count();
}

int CHttpData::CopyHttpHeader_PostFile_AllFileInfo(const CQSString& formFields, unsigned char* out)
{
    CQSString wrapped;
    if (formFields.IsEmpty() || !WrapFields(formFields, wrapped))
        return 0;
    velanet::ByteWriter w(out);
    PutFieldParts(w, wrapped);
    return w.Count();
}

unsigned char* CHttpData::GetPostFileInfoData(const CQSString& formFields, int& len)
{
    len = 0;
    CQSString wrapped;
    if (!formFields.IsEmpty() && !WrapFields(formFields, wrapped))
        return nullptr;
    const auto writeTrailer = [&](unsigned char* out) {
        const int n = CopyHttpHeader_NewLineFlag(1, out);
        velanet::ByteWriter w(PartOut(out, n));
        if (!wrapped.IsEmpty())
            PutFieldParts(w, wrapped);
        w.PutLiteral(KPartClosingDelimiter);
        return n + w.Count();
    };
    const int nTotalLen = writeTrailer(nullptr);
    unsigned char* buffer = new (std::nothrow) unsigned char[static_cast<size_t>(nTotalLen)]();
    if (!buffer)
        return nullptr;
    const int nDataLen = writeTrailer(buffer);
    QT_ALWAYS_ASSERT(nTotalLen == nDataLen, KAssertFile);
    len = nTotalLen;
    return buffer;
}

bool CHttpData::GetPostFileMethodData(bool absoluteTarget, CQPostFileHeaderUnit& unit)
{
    int hostLen = 0;
    const char* host = FindHostURL(hostLen);
    if (!host || hostLen == 0)
        return false;

    int trailerLen = 0;
    unsigned char* trailer = GetPostFileInfoData(unit.m_strData, trailerLen);
    if (!trailer)
        return false;
    CQSString name;
    CQSString fileName;
    if (name.SetData(&unit.m_strFieldName) == 0 || fileName.SetData(&unit.m_strFilePath) == 0) {
        delete[] trailer;
        return false;
    }
    const auto writeFilePartHead = [&](unsigned char* out) {
        velanet::ByteWriter w(out);
        PutFilePartHead(w, name, fileName);
        return w.Count();
    };
    const int dispositionLen = writeFilePartHead(nullptr);
    const long long fileSize = unit.GetFileSize64();
    if (fileSize < 0 || fileSize > LLONG_MAX - dispositionLen - trailerLen) {
        // No length this library can announce.
        delete[] trailer;
        return false;
    }
    const long long contentLength = dispositionLen + fileSize + trailerLen;

    const auto writeHead = [&](unsigned char* out) {
        int n = CopyHttpHeader_Method(HM_Post, absoluteTarget, out);
        n += CopyHttpHeader_Accept(PartOut(out, n));
        n += CopyHttpHeader_Host(PartOut(out, n));
        n += CopyHttpHeader_UserAgent(PartOut(out, n));
        n += CopyHttpHeader_PostFile_ContentType(PartOut(out, n));
        n += CopyHttpHeader_ContentLength64(contentLength, PartOut(out, n));
        n += CopyHttpHeader_NewLineFlag(1, PartOut(out, n));
        n += writeFilePartHead(PartOut(out, n));
        return n;
    };
    const int nTotalLen = writeHead(nullptr);
    unsigned char* head = new (std::nothrow) unsigned char[static_cast<size_t>(nTotalLen)]();
    if (!head) {
        delete[] trailer;
        return false;
    }
    const int nTmpHeaderDataLen = writeHead(head);
    QT_ALWAYS_ASSERT(nTotalLen == nTmpHeaderDataLen, KAssertFile);
    unit.SetHeaderData(head, nTotalLen);
    unit.SetInfoData(trailer, trailerLen);
    return true;
}

bool CHttpData::GetFileNameFromURL(const CQSString* url, CQWString& name)
{
    if (!url || url->IsEmpty())
        return false;
    const int slashes = url->Find("//");
    const int start = slashes < 0 ? 0 : slashes + 2;
    int end = url->Find('?', start);
    if (end < 0)
        end = url->GetLength();
    name.SetByteData(reinterpret_cast<const unsigned char*>(url->GetDataPtr()) + start, end - start);
    name.Replace(L"/", L"_");
    name.Replace(L":", L"_");
    return true;
}
