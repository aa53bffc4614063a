#include "src/internal/LocationResolve_p.h"

#include <string>

namespace velanet {

namespace {

bool IsAlpha(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

bool IsSchemeChar(char c)
{
    return IsAlpha(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
}

struct Part
{
    const char* data = nullptr;
    int len = 0;
    bool defined = false;
};

Part PartOf(const char* text, int start, int len)
{
    Part part;
    if (start >= 0) {
        part.data = text + start;
        part.len = len;
        part.defined = true;
    }
    return part;
}

void AppendPart(std::string& out, const Part& part)
{
    if (part.len > 0)
        out.append(part.data, static_cast<size_t>(part.len));
}

bool StartsWith(const std::string& s, size_t pos, const char* prefix)
{
    return s.compare(pos, std::char_traits<char>::length(prefix), prefix) == 0;
}

bool RestEquals(const std::string& s, size_t pos, const char* text)
{
    return s.compare(pos, std::string::npos, text) == 0;
}

// Drops the last segment of out together with the "/" before it.
void DropLastSegment(std::string& out)
{
    const size_t slash = out.rfind('/');
    out.erase(slash == std::string::npos ? 0 : slash);
}

std::string RemoveDots(const std::string& input)
{
    std::string out;
    size_t pos = 0;
    const size_t n = input.size();
    while (pos < n) {
        if (StartsWith(input, pos, "../")) {
            pos += 3;
        } else if (StartsWith(input, pos, "./")) {
            pos += 2;
        } else if (StartsWith(input, pos, "/./")) {
            pos += 2;  // leaves the "/" as the start of the input
        } else if (RestEquals(input, pos, "/.")) {
            out += '/';
            pos = n;
        } else if (StartsWith(input, pos, "/../")) {
            pos += 3;
            DropLastSegment(out);
        } else if (RestEquals(input, pos, "/..")) {
            DropLastSegment(out);
            out += '/';
            pos = n;
        } else if (RestEquals(input, pos, ".") || RestEquals(input, pos, "..")) {
            pos = n;
        } else {
            size_t end = input.find('/', pos + (input[pos] == '/' ? 1 : 0));
            if (end == std::string::npos)
                end = n;
            out.append(input, pos, end - pos);
            pos = end;
        }
    }
    return out;
}

CQSString ToCQSString(const std::string& s)
{
    CQSString out;
    (void)out.SetData(reinterpret_cast<const unsigned char*>(s.data()), static_cast<int>(s.size()));
    return out;
}

}  // namespace

UriParts SplitUriReference(const char* text, int len)
{
    UriParts parts;
    if (!text || len < 1) {
        parts.pathLen = 0;
        return parts;
    }
    int pos = 0;
    // scheme ":" only when the grammar's first segment is a scheme.
    if (IsAlpha(text[0])) {
        int i = 1;
        while (i < len && IsSchemeChar(text[i]))
            ++i;
        if (i < len && text[i] == ':') {
            parts.schemeStart = 0;
            parts.schemeLen = i;
            pos = i + 1;
        }
    }
    if (pos + 1 < len && text[pos] == '/' && text[pos + 1] == '/') {
        int end = pos + 2;
        while (end < len && text[end] != '/' && text[end] != '?' && text[end] != '#')
            ++end;
        parts.authorityStart = pos + 2;
        parts.authorityLen = end - (pos + 2);
        pos = end;
    }
    int end = pos;
    while (end < len && text[end] != '?' && text[end] != '#')
        ++end;
    parts.pathStart = pos;
    parts.pathLen = end - pos;
    pos = end;
    if (pos < len && text[pos] == '?') {
        end = pos + 1;
        while (end < len && text[end] != '#')
            ++end;
        parts.queryStart = pos + 1;
        parts.queryLen = end - (pos + 1);
        pos = end;
    }
    if (pos < len && text[pos] == '#') {
        parts.fragmentStart = pos + 1;
        parts.fragmentLen = len - (pos + 1);
    }
    return parts;
}

CQSString RemoveDotSegments(const char* path, int len)
{
    if (!path || len < 1)
        return CQSString();
    return ToCQSString(RemoveDots(std::string(path, static_cast<size_t>(len))));
}

CQSString ResolveLocation(const char* base, int baseLen, const char* location, int locationLen)
{
    if (!location || locationLen < 1)
        return CQSString();
    const UriParts r = SplitUriReference(location, locationLen);
    if (r.schemeStart >= 0)
        return CQSString(location, locationLen);
    if (!base || baseLen < 0)
        baseLen = 0;
    const UriParts b = SplitUriReference(base, baseLen);

    // RFC 3986, section 5.2.2, for a reference without a scheme.
    const Part rAuthority = PartOf(location, r.authorityStart, r.authorityLen);
    const Part rPath = PartOf(location, r.pathStart, r.pathLen);
    const Part rQuery = PartOf(location, r.queryStart, r.queryLen);
    const Part rFragment = PartOf(location, r.fragmentStart, r.fragmentLen);
    const Part bScheme = PartOf(base, b.schemeStart, b.schemeLen);
    const Part bAuthority = PartOf(base, b.authorityStart, b.authorityLen);
    const Part bPath = PartOf(base, b.pathStart, b.pathLen);
    const Part bQuery = PartOf(base, b.queryStart, b.queryLen);

    Part authority;
    Part query;
    std::string path;
    if (rAuthority.defined) {
        authority = rAuthority;
        path = RemoveDots(std::string(rPath.data, static_cast<size_t>(rPath.len)));
        query = rQuery;
    } else {
        authority = bAuthority;
        if (rPath.len == 0) {
            path.assign(bPath.data ? bPath.data : "", static_cast<size_t>(bPath.len));
            query = rQuery.defined ? rQuery : bQuery;
        } else {
            if (rPath.data[0] == '/') {
                path = RemoveDots(std::string(rPath.data, static_cast<size_t>(rPath.len)));
            } else {
                // Merge (section 5.2.3).
                std::string merged;
                if (bAuthority.defined && bPath.len == 0) {
                    merged = "/";
                } else {
                    const std::string basePath(bPath.data ? bPath.data : "", static_cast<size_t>(bPath.len));
                    const size_t slash = basePath.rfind('/');
                    if (slash != std::string::npos)
                        merged = basePath.substr(0, slash + 1);
                }
                merged.append(rPath.data, static_cast<size_t>(rPath.len));
                path = RemoveDots(merged);
            }
            query = rQuery;
        }
    }

    // Recomposition (section 5.3).
    std::string out;
    if (bScheme.defined) {
        AppendPart(out, bScheme);
        out += ':';
    }
    if (authority.defined) {
        out += "//";
        AppendPart(out, authority);
    }
    out += path;
    if (query.defined) {
        out += '?';
        AppendPart(out, query);
    }
    if (rFragment.defined) {
        out += '#';
        AppendPart(out, rFragment);
    }
    return ToCQSString(out);
}

namespace {

bool EqualsNoCase(const char* text, int len, const char* word)
{
    const int wordLen = static_cast<int>(std::char_traits<char>::length(word));
    if (len != wordLen)
        return false;
    for (int i = 0; i < len; ++i) {
        char c = text[i];
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
        if (c != word[i])
            return false;
    }
    return true;
}

// A port text: empty, or 1..5 digits whose value is at most 65535 (compared
// as text, so that no digit becomes a number here).
bool IsPortText(const char* text, int len)
{
    if (len > 5)
        return false;
    for (int i = 0; i < len; ++i) {
        if (text[i] < '0' || text[i] > '9')
            return false;
    }
    return len < 5 || std::char_traits<char>::compare(text, "65535", 5) <= 0;
}

}  // namespace

bool IsRequestableURL(const char* url, int len)
{
    if (!url || len < 1)
        return false;
    for (int i = 0; i < len; ++i) {
        const unsigned char c = static_cast<unsigned char>(url[i]);
        if (c <= ' ' || c == 0x7F)
            return false;
    }
    const UriParts parts = SplitUriReference(url, len);
    if (parts.schemeStart < 0 || parts.authorityStart < 0)
        return false;
    const char* scheme = url + parts.schemeStart;
    if (!EqualsNoCase(scheme, parts.schemeLen, "http") && !EqualsNoCase(scheme, parts.schemeLen, "https"))
        return false;
    // authority = [ userinfo "@" ] host [ ":" port ]
    const char* authority = url + parts.authorityStart;
    int start = 0;
    for (int i = parts.authorityLen - 1; i >= 0; --i) {
        if (authority[i] == '@') {
            start = i + 1;
            break;
        }
    }
    const char* host = authority + start;
    const int rest = parts.authorityLen - start;
    int hostLen = 0;
    if (rest > 0 && host[0] == '[') {
        while (hostLen < rest && host[hostLen] != ']')
            ++hostLen;
        if (hostLen == rest || hostLen < 2)
            return false;  // no closing bracket, or nothing inside
        ++hostLen;
    } else {
        while (hostLen < rest && host[hostLen] != ':')
            ++hostLen;
        if (hostLen == 0)
            return false;
    }
    if (hostLen == rest)
        return true;
    if (host[hostLen] != ':')
        return false;
    return IsPortText(host + hostLen + 1, rest - hostLen - 1);
}

}  // namespace velanet
