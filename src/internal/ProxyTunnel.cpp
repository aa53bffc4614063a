#include "src/internal/ProxyTunnel_p.h"

#include "BaseClass/src/CQString.h"

#include <climits>
#include <cstring>
#include <new>

namespace velanet {

namespace {

const char KConnectMethod[] = "CONNECT ";
const char KHttpVersionLine[] = " HTTP/1.1\r\n";
const char KHostField[] = "Host: ";
const char KProxyAuthorizationField[] = "Proxy-Authorization: ";
const char KCrLf[] = "\r\n";
const char KReplyVersion[] = "HTTP/";
constexpr int KReplyVersionLength = sizeof KReplyVersion - 1;
constexpr int KStatusDigits = 3;

bool IsDigit(unsigned char c)
{
    return c >= '0' && c <= '9';
}

QByteArray Authority(const char* host, int hostLen, int port)
{
    QByteArray authority;
    const bool literal = std::memchr(host, ':', static_cast<size_t>(hostLen)) != nullptr;
    if (literal)
        authority += '[';
    authority.append(host, hostLen);
    if (literal)
        authority += ']';
    authority += ':';
    authority += QByteArray::number(port);
    return authority;
}

// The status line "HTTP/" version SP 3DIGIT ...: the code, or
// KConnectReplyMalformed.
int StatusOf(const unsigned char* line, int len)
{
    if (len < KReplyVersionLength || std::memcmp(line, KReplyVersion, KReplyVersionLength) != 0)
        return KConnectReplyMalformed;
    int at = KReplyVersionLength;
    while (at < len && (IsDigit(line[at]) || line[at] == '.'))
        ++at;
    if (at == KReplyVersionLength || at >= len || line[at] != ' ')
        return KConnectReplyMalformed;
    ++at;
    if (at + KStatusDigits > len)
        return KConnectReplyMalformed;
    for (int i = 0; i < KStatusDigits; ++i) {
        if (!IsDigit(line[at + i]))
            return KConnectReplyMalformed;
    }
    // Three digits and then the end of the line or a blank.
    if (at + KStatusDigits < len && line[at + KStatusDigits] != ' ' && line[at + KStatusDigits] != '\r')
        return KConnectReplyMalformed;
    return CQSString(reinterpret_cast<const char*>(line + at), KStatusDigits).ToINT();
}

}  // namespace

QByteArray ConnectRequest(const char* host, int hostLen, int port, const QByteArray& authorization)
{
    if (host == nullptr || hostLen < 0)
        hostLen = 0;
    const QByteArray authority = hostLen > 0 ? Authority(host, hostLen, port) : Authority("", 0, port);
    QByteArray request;
    request += KConnectMethod;
    request += authority;
    request += KHttpVersionLine;
    request += KHostField;
    request += authority;
    request += KCrLf;
    if (!authorization.isEmpty()) {
        request += KProxyAuthorizationField;
        request += authorization;
        request += KCrLf;
    }
    request += KCrLf;
    return request;
}

int ReadConnectReply(const unsigned char* data, int len, int& status)
{
    if (data == nullptr || len <= 0)
        return KConnectReplyIncomplete;
    // The status line is judged as soon as it is complete, so that a peer
    // that is no HTTP proxy is refused without waiting for a blank line.
    int lineStart = 0;
    int code = KConnectReplyMalformed;
    for (int i = 0; i < len; ++i) {
        if (data[i] != '\n')
            continue;
        int lineEnd = i;
        if (lineEnd > lineStart && data[lineEnd - 1] == '\r')
            --lineEnd;
        if (lineStart == 0) {
            code = StatusOf(data, lineEnd);
            if (code == KConnectReplyMalformed)
                return KConnectReplyMalformed;
        } else if (lineEnd == lineStart) {
            status = code;
            return i + 1;
        }
        lineStart = i + 1;
    }
    // A first line that can no longer be a status line is refused early.
    if (lineStart == 0) {
        const int n = len < KReplyVersionLength ? len : KReplyVersionLength;
        if (std::memcmp(data, KReplyVersion, static_cast<size_t>(n)) != 0)
            return KConnectReplyMalformed;
    }
    return KConnectReplyIncomplete;
}

unsigned char* InsertProxyAuthorization(const unsigned char* request, int len, const QByteArray& authorization,
                                        int& outLen)
{
    if (request == nullptr || len <= 0)
        return nullptr;
    const void* lf = std::memchr(request, '\n', static_cast<size_t>(len));
    if (lf == nullptr)
        return nullptr;
    const int lineLen = static_cast<int>(static_cast<const unsigned char*>(lf) - request) + 1;
    const long long fieldLen = static_cast<long long>(sizeof KProxyAuthorizationField - 1) + authorization.size() +
                               static_cast<long long>(sizeof KCrLf - 1);
    if (static_cast<long long>(len) + fieldLen > INT_MAX)
        return nullptr;
    const int total = len + static_cast<int>(fieldLen);
    unsigned char* out = new (std::nothrow) unsigned char[static_cast<size_t>(total)];
    if (out == nullptr)
        return nullptr;
    unsigned char* p = out;
    auto put = [&p](const void* bytes, size_t n) {
        if (n > 0)
            std::memcpy(p, bytes, n);
        p += n;
    };
    put(request, static_cast<size_t>(lineLen));
    put(KProxyAuthorizationField, sizeof KProxyAuthorizationField - 1);
    put(authorization.constData(), static_cast<size_t>(authorization.size()));
    put(KCrLf, sizeof KCrLf - 1);
    put(request + lineLen, static_cast<size_t>(len - lineLen));
    outLen = total;
    return out;
}

}  // namespace velanet
