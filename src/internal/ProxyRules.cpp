#include "src/internal/ProxyRules_p.h"

#include "BaseClass/src/CQString.h"

#include <QHostAddress>
#include <QString>

namespace velanet {

namespace {

const char KHttpScheme[] = "http://";
constexpr int KHttpSchemeLength = sizeof KHttpScheme - 1;
constexpr int KMaxPort = 65535;
constexpr int KMaxPortDigits = 5;
// No port given in a no-proxy entry: any port matches.
constexpr int KAnyPort = -1;

bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool IsBlank(char c)
{
    return c == ' ' || c == '\t';
}

char LowerAscii(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool EqualIgnoringCase(const char* a, const char* b, int len)
{
    for (int i = 0; i < len; ++i) {
        if (LowerAscii(a[i]) != LowerAscii(b[i]))
            return false;
    }
    return true;
}

// 1..65535 written as 1 to 5 digits; false for anything else.
bool ReadPort(const char* data, int len, int& port)
{
    if (len < 1 || len > KMaxPortDigits)
        return false;
    for (int i = 0; i < len; ++i) {
        if (!IsDigit(data[i]))
            return false;
    }
    const int value = CQSString(data, len).ToINT();
    if (value < 1 || value > KMaxPort)
        return false;
    port = value;
    return true;
}

// A host and its optional port: "name", "name:port", "[v6]", "[v6]:port",
// and, only when bareV6 is allowed, an IPv6 literal without brackets
// (text with more than one colon). An absent port leaves port alone.
bool SplitHostPort(const char* data, int len, bool bareV6, const char*& host, int& hostLen, int& port)
{
    if (len < 1)
        return false;
    if (data[0] == '[') {
        int close = 1;
        while (close < len && data[close] != ']')
            ++close;
        if (close >= len)
            return false;
        host = data + 1;
        hostLen = close - 1;
        const int after = close + 1;
        if (after == len)
            return hostLen > 0;
        if (data[after] != ':')
            return false;
        return hostLen > 0 && ReadPort(data + after + 1, len - after - 1, port);
    }
    int colons = 0;
    int lastColon = -1;
    for (int i = 0; i < len; ++i) {
        if (data[i] == ':') {
            ++colons;
            lastColon = i;
        }
    }
    if (colons > 1) {
        if (!bareV6)
            return false;
        host = data;
        hostLen = len;
        return true;
    }
    host = data;
    hostLen = colons == 0 ? len : lastColon;
    if (hostLen < 1)
        return false;
    if (colons == 0)
        return true;
    return ReadPort(data + lastColon + 1, len - lastColon - 1, port);
}

bool SameAddress(const char* a, int aLen, const char* b, int bLen)
{
    const QHostAddress first(QString::fromLatin1(a, aLen));
    const QHostAddress second(QString::fromLatin1(b, bLen));
    // ::1 and 127.0.0.1 are different hosts; a v4-mapped address is its IPv4 one.
    return !first.isNull() && !second.isNull() && first.isEqual(second, QHostAddress::ConvertV4MappedToIPv4);
}

bool IsAddress(const char* data, int len)
{
    return !QHostAddress(QString::fromLatin1(data, len)).isNull();
}

// One entry, blanks already trimmed and not empty.
bool EntryMatches(const char* entry, int entryLen, const char* host, int hostLen, int port)
{
    if (entryLen == 1 && entry[0] == '*')
        return true;
    if (entry[0] == '.') {
        ++entry;
        --entryLen;
    }
    const char* name = nullptr;
    int nameLen = 0;
    int entryPort = KAnyPort;
    if (!SplitHostPort(entry, entryLen, true, name, nameLen, entryPort))
        return false;
    if (entryPort != KAnyPort && entryPort != port)
        return false;
    if (IsAddress(name, nameLen) || IsAddress(host, hostLen))
        return SameAddress(name, nameLen, host, hostLen);
    if (nameLen == hostLen)
        return EqualIgnoringCase(name, host, hostLen);
    // A host below the entry's name: "www.example.com" for "example.com".
    return nameLen < hostLen && host[hostLen - nameLen - 1] == '.' &&
           EqualIgnoringCase(name, host + hostLen - nameLen, nameLen);
}

}  // namespace

bool ParseProxyUrl(const char* data, int len, ProxyAddress& out)
{
    if (data == nullptr || len < 1)
        return false;
    const char* p = data;
    const char* end = data + len;
    if (len >= KHttpSchemeLength && EqualIgnoringCase(p, KHttpScheme, KHttpSchemeLength)) {
        p += KHttpSchemeLength;
    } else {
        // Another scheme ("https://", "socks5://") is not an HTTP proxy.
        for (const char* q = p; q + 2 < end; ++q) {
            if (q[0] == ':' && q[1] == '/' && q[2] == '/')
                return false;
        }
    }
    const char* authorityEnd = p;
    while (authorityEnd < end && *authorityEnd != '/')
        ++authorityEnd;
    // The password may hold "@": the host follows the last one.
    const char* at = nullptr;
    for (const char* q = p; q < authorityEnd; ++q) {
        if (*q == '@')
            at = q;
    }
    ProxyAddress parsed;
    if (at != nullptr) {
        const char* colon = p;
        while (colon < at && *colon != ':')
            ++colon;
        parsed.hasCredentials = true;
        parsed.user = QByteArray::fromPercentEncoding(QByteArray(p, static_cast<int>(colon - p)));
        if (colon < at)
            parsed.password = QByteArray::fromPercentEncoding(QByteArray(colon + 1, static_cast<int>(at - colon - 1)));
        p = at + 1;
    }
    const char* host = nullptr;
    int hostLen = 0;
    parsed.port = KDefaultProxyPort;
    if (!SplitHostPort(p, static_cast<int>(authorityEnd - p), false, host, hostLen, parsed.port))
        return false;
    for (int i = 0; i < hostLen; ++i) {
        const char c = host[i];
        if (IsBlank(c) || c == '@' || c == '[' || c == ']' || static_cast<unsigned char>(c) < 0x20)
            return false;
    }
    parsed.host = QByteArray(host, hostLen);
    out = parsed;
    return true;
}

QByteArray BasicCredentials(const QByteArray& user, const QByteArray& password)
{
    return "Basic " + (user + ':' + password).toBase64();
}

bool NoProxyMatches(const char* list, int listLen, const char* host, int hostLen, int port)
{
    if (list == nullptr || listLen < 1 || host == nullptr || hostLen < 1)
        return false;
    int start = 0;
    while (start <= listLen) {
        int stop = start;
        while (stop < listLen && list[stop] != ',')
            ++stop;
        int first = start;
        int last = stop;
        while (first < last && IsBlank(list[first]))
            ++first;
        while (last > first && IsBlank(list[last - 1]))
            --last;
        if (last > first && EntryMatches(list + first, last - first, host, hostLen, port))
            return true;
        start = stop + 1;
    }
    return false;
}

}  // namespace velanet
