#include "BaseClass/src/CQString.h"

#include <QString>
#include <QVector>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>

namespace {

bool IsBlank(char c)
{
    return c == ' ' || c == '\t';
}

bool IsBlankOrLineEnd(char c)
{
    return IsBlank(c) || c == '\r' || c == '\n';
}

char LowerAscii(char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

bool EqualNoCase(const char* a, const char* b, int n)
{
    for (int i = 0; i < n; ++i) {
        if (LowerAscii(a[i]) != LowerAscii(b[i]))
            return false;
    }
    return true;
}

// Length of a NUL-terminated text; 0 for null, -1 when too long for an int.
template <class CharT>
int TextLength(const CharT* text)
{
    if (!text)
        return 0;
    const CharT* end = text;
    while (*end)
        ++end;
    const size_t n = static_cast<size_t>(end - text);
    return n > static_cast<size_t>(velanet::StringStorage<CharT>::KMaxLength) ? -1 : static_cast<int>(n);
}

// Length of a NUL-terminated text, reading no more than limit characters
// (limit when it is at least that long); 0 for null. Comparing with a string
// needs no more than one character past its length, however long the text is.
template <class CharT>
size_t TextLengthUpTo(const CharT* text, size_t limit)
{
    size_t n = 0;
    if (text) {
        while (n < limit && text[n])
            ++n;
    }
    return n;
}

// Index of pattern[0..patLen) in data[0..len) at or after start; -1 if absent.
int FindBytes(const char* data, int len, const char* pattern, int patLen, int start)
{
    if (start < 0)
        start = 0;
    if (patLen == 0)
        return start <= len ? start : -1;
    if (patLen > len - start)
        return -1;
    const char* p = data + start;
    const char* end = data + len - patLen + 1;
    while (p < end) {
        p = static_cast<const char*>(std::memchr(p, pattern[0], static_cast<size_t>(end - p)));
        if (!p)
            return -1;
        if (std::memcmp(p, pattern, static_cast<size_t>(patLen)) == 0)
            return static_cast<int>(p - data);
        ++p;
    }
    return -1;
}

int FindChars(const wchar_t* data, int len, const wchar_t* pattern, int patLen, int start)
{
    for (int i = start; i + patLen <= len; ++i) {
        if (std::wmemcmp(data + i, pattern, static_cast<size_t>(patLen)) == 0)
            return i;
    }
    return -1;
}

int FindChars(const char* data, int len, const char* pattern, int patLen, int start)
{
    return FindBytes(data, len, pattern, patLen, start);
}

// Replaces every occurrence of oldText, left to right without rescanning
// what was put in, building the result in one exactly sized allocation.
// Returns the count of replacements; 0 when there is none or on failure.
template <class CharT>
int ReplaceAll(velanet::StringStorage<CharT>& text, const CharT* oldText, const CharT* newText)
{
    const int oldLen = TextLength(oldText);
    const int newLen = TextLength(newText);
    const int len = text.Length();
    const CharT* data = text.Data();
    if (oldLen <= 0 || newLen < 0 || len == 0)
        return 0;

    int count = 0;
    for (int pos = FindChars(data, len, oldText, oldLen, 0); pos >= 0;
         pos = FindChars(data, len, oldText, oldLen, pos + oldLen))
        ++count;
    if (count == 0)
        return 0;

    const long long resultLen = static_cast<long long>(len) + static_cast<long long>(count) * (newLen - oldLen);
    if (resultLen > velanet::StringStorage<CharT>::KMaxLength)
        return 0;
    CharT* fresh = new (std::nothrow) CharT[static_cast<size_t>(resultLen) + 1];
    if (!fresh)
        return 0;
    int from = 0;
    int to = 0;
    for (int pos = FindChars(data, len, oldText, oldLen, 0); pos >= 0;
         pos = FindChars(data, len, oldText, oldLen, from)) {
        std::copy(data + from, data + pos, fresh + to);
        to += pos - from;
        std::copy(newText, newText + newLen, fresh + to);
        to += newLen;
        from = pos + oldLen;
    }
    std::copy(data + from, data + len, fresh + to);
    to += len - from;
    fresh[to] = CharT();
    text.Adopt(fresh, to);
    return count;
}

// Decimal digits from index i; stops at the first non-digit. Wraps as
// unsigned 32-bit arithmetic.
unsigned int ReadDecimal(const char* data, int len, int i)
{
    unsigned int value = 0;
    for (; i < len && data[i] >= '0' && data[i] <= '9'; ++i)
        value = value * 10u + static_cast<unsigned int>(data[i] - '0');
    return value;
}

}  // namespace

// ---------------------------------------------------------------- CQSString

CQSString::CQSString() = default;

CQSString::CQSString(const char* text)
{
    SetData(text);
}

CQSString::CQSString(const char* data, int len)
{
    SetData(reinterpret_cast<const unsigned char*>(data), len);
}

CQSString::CQSString(const CQWString& wide)
{
    SetData(&wide);
}

CQSString& CQSString::operator=(const char* text)
{
    SetData(text);
    return *this;
}

CQSString& CQSString::operator=(const CQWString& wide)
{
    SetData(&wide);
    return *this;
}

int CQSString::SetData(const char* text)
{
    const int len = TextLength(text);
    return len < 0 ? 0 : m_text.Assign(text, len);
}

int CQSString::SetData(const unsigned char* data, int len)
{
    return m_text.Assign(reinterpret_cast<const char*>(data), len);
}

int CQSString::SetData(const CQWString* wide)
{
    if (!wide || wide->IsEmpty()) {
        Empty();
        return 1;
    }
    const int len = wide->GetLength();
    char* fresh = new (std::nothrow) char[static_cast<size_t>(len) + 1];
    if (!fresh)
        return 0;
    const wchar_t* src = wide->GetDataPtr();
    for (int i = 0; i < len; ++i)
        fresh[i] = static_cast<char>(static_cast<unsigned int>(src[i]) & 0xFFu);
    fresh[len] = '\0';
    m_text.Adopt(fresh, len);
    return 1;
}

int CQSString::AppendData(const char* text)
{
    const int len = TextLength(text);
    return len < 0 ? 0 : m_text.Append(text, len);
}

int CQSString::AppendData(const unsigned char* data, int len)
{
    return m_text.Append(reinterpret_cast<const char*>(data), len);
}

int CQSString::AppendChar(char c)
{
    return m_text.Append(&c, 1);
}

int CQSString::GetAt(int index) const
{
    if (index < 0 || index >= GetLength())
        return 0;
    return static_cast<unsigned char>(GetDataPtr()[index]);
}

int CQSString::Compare(const char* text) const
{
    const size_t ownLen = static_cast<size_t>(GetLength());
    const size_t len = TextLengthUpTo(text, ownLen + 1);
    const size_t common = std::min(len, ownLen);
    if (common > 0) {
        const int r = std::memcmp(GetDataPtr(), text, common);
        if (r != 0)
            return r < 0 ? -1 : 1;
    }
    if (ownLen == len)
        return 0;
    return ownLen < len ? -1 : 1;
}

int CQSString::Find(const char* pattern, int start) const
{
    const size_t len = static_cast<size_t>(GetLength());
    const size_t patLen = TextLengthUpTo(pattern, len + 1);
    if (!pattern || patLen > len)
        return -1;
    return FindBytes(GetDataPtr(), GetLength(), pattern, static_cast<int>(patLen), start);
}

int CQSString::Find(char c, int start) const
{
    return FindBytes(GetDataPtr(), GetLength(), &c, 1, start);
}

// An affix longer than the string never matches, so its length is read no
// further than one character past the string's.
bool CQSString::IsStartWith(const char* prefix) const
{
    const size_t ownLen = static_cast<size_t>(GetLength());
    const size_t len = TextLengthUpTo(prefix, ownLen + 1);
    return len <= ownLen && std::memcmp(GetDataPtr(), prefix ? prefix : "", len) == 0;
}

bool CQSString::IsStartWithNoCase(const char* prefix) const
{
    const size_t ownLen = static_cast<size_t>(GetLength());
    const size_t len = TextLengthUpTo(prefix, ownLen + 1);
    return len <= ownLen && EqualNoCase(GetDataPtr(), prefix, static_cast<int>(len));
}

bool CQSString::IsEndWith(const char* suffix) const
{
    const size_t ownLen = static_cast<size_t>(GetLength());
    const size_t len = TextLengthUpTo(suffix, ownLen + 1);
    return len <= ownLen && std::memcmp(GetDataPtr() + (ownLen - len), suffix ? suffix : "", len) == 0;
}

bool CQSString::IsEndWithNoCase(const char* suffix) const
{
    const size_t ownLen = static_cast<size_t>(GetLength());
    const size_t len = TextLengthUpTo(suffix, ownLen + 1);
    return len <= ownLen && EqualNoCase(GetDataPtr() + (ownLen - len), suffix, static_cast<int>(len));
}

void CQSString::MakeLower()
{
    char* data = m_text.MutableData();
    for (int i = 0; i < GetLength(); ++i)
        data[i] = LowerAscii(data[i]);
}

void CQSString::MakeUpper()
{
    char* data = m_text.MutableData();
    for (int i = 0; i < GetLength(); ++i) {
        if (data[i] >= 'a' && data[i] <= 'z')
            data[i] = static_cast<char>(data[i] - 'a' + 'A');
    }
}

int CQSString::Replace(const char* oldText, const char* newText)
{
    return ReplaceAll(m_text, oldText, newText);
}

void CQSString::TrimLeft()
{
    const char* data = GetDataPtr();
    int skip = 0;
    while (skip < GetLength() && IsBlankOrLineEnd(data[skip]))
        ++skip;
    // Moving within the buffer never allocates, so it cannot fail.
    if (skip > 0)
        static_cast<void>(m_text.Assign(data + skip, GetLength() - skip));
}

void CQSString::TrimRight()
{
    int len = GetLength();
    while (len > 0 && IsBlankOrLineEnd(GetDataPtr()[len - 1]))
        --len;
    m_text.SetLength(len);
}

void CQSString::TrimRightAndLeft()
{
    TrimRight();
    TrimLeft();
}

void CQSString::FilterInvisibleChar()
{
    char* data = m_text.MutableData();
    int to = 0;
    for (int from = 0; from < GetLength(); ++from) {
        const unsigned char c = static_cast<unsigned char>(data[from]);
        if (c >= 0x20 && c <= 0x7E)
            data[to++] = static_cast<char>(c);
    }
    m_text.SetLength(to);
}

int CQSString::ToINT() const
{
    const char* data = GetDataPtr();
    int i = 0;
    while (i < GetLength() && IsBlank(data[i]))
        ++i;
    const bool negative = i < GetLength() && data[i] == '-';
    const unsigned int value = ReadDecimal(data, GetLength(), negative ? i + 1 : i);
    return static_cast<int>(negative ? 0u - value : value);
}

long long CQSString::ToINT64(bool* fits) const
{
    const char* data = GetDataPtr();
    const int len = GetLength();
    int i = 0;
    while (i < len && IsBlank(data[i]))
        ++i;
    const bool negative = i < len && data[i] == '-';
    if (negative)
        ++i;
    constexpr unsigned long long KMax = static_cast<unsigned long long>(LLONG_MAX);
    unsigned long long value = 0;
    bool inRange = true;
    for (; i < len && data[i] >= '0' && data[i] <= '9'; ++i) {
        const unsigned long long digit = static_cast<unsigned long long>(data[i] - '0');
        if (value > (KMax - digit) / 10u) {
            inRange = false;
            value = KMax;
            continue;  // the rest of the digits are read past, not counted
        }
        value = value * 10u + digit;
    }
    if (fits)
        *fits = inRange;
    if (!inRange)
        return negative ? LLONG_MIN : LLONG_MAX;
    return negative ? -static_cast<long long>(value) : static_cast<long long>(value);
}

unsigned int CQSString::ToUINT() const
{
    const char* data = GetDataPtr();
    int i = 0;
    while (i < GetLength() && IsBlank(data[i]))
        ++i;
    return ReadDecimal(data, GetLength(), i);
}

int CQSString::ToHEX() const
{
    const char* data = GetDataPtr();
    int i = 0;
    while (i < GetLength() && IsBlankOrLineEnd(data[i]))
        ++i;
    unsigned int value = 0;
    for (; i < GetLength(); ++i) {
        const char c = data[i];
        unsigned int digit;
        if (c >= '0' && c <= '9')
            digit = static_cast<unsigned int>(c - '0');
        else if (c >= 'a' && c <= 'f')
            digit = static_cast<unsigned int>(c - 'a' + 10);
        else if (c >= 'A' && c <= 'F')
            digit = static_cast<unsigned int>(c - 'A' + 10);
        else
            break;
        value = (value << 4) | digit;
    }
    return static_cast<int>(value);
}

void CQSString::ToString(int value)
{
    char text[16];
    const int n = std::snprintf(text, sizeof text, "%d", value);
    static_cast<void>(m_text.Assign(text, n));
}

void CQSString::ToString(unsigned int value)
{
    char text[16];
    const int n = std::snprintf(text, sizeof text, "%u", value);
    static_cast<void>(m_text.Assign(text, n));
}

int CQSString::GetSubString(CQSString& out, int start, int count) const
{
    if (start < 0 || start > GetLength() || count < 0) {
        out.Empty();
        return 0;
    }
    // Assign copes with out being this string.
    return out.m_text.Assign(GetDataPtr() + start, std::min(count, GetLength() - start));
}

int CQSString::GetSubString(CQSString& out, const char* from, const char* to, int start, bool withFrom,
                            bool withTo) const
{
    const int fromLen = TextLength(from);
    const int toLen = TextLength(to);
    const int fromPos = (!from || !to || fromLen < 0 || toLen < 0 || start < 0 || start > GetLength())
                            ? -1
                            : FindBytes(GetDataPtr(), GetLength(), from, fromLen, start);
    const int textStart = fromPos + fromLen;
    const int toPos = fromPos < 0 ? -1 : FindBytes(GetDataPtr(), GetLength(), to, toLen, textStart);
    if (toPos < 0) {
        out.Empty();
        return -1;
    }
    const int copyStart = withFrom ? fromPos : textStart;
    const int copyEnd = withTo ? toPos + toLen : toPos;
    if (!out.m_text.Assign(GetDataPtr() + copyStart, copyEnd - copyStart))
        return -1;
    return textStart;
}

int CQSString::GetSubString(CQSString& out, char from, char to, int start, bool withFrom, bool withTo) const
{
    const char fromText[2] = {from, '\0'};
    const char toText[2] = {to, '\0'};
    return GetSubString(out, fromText, toText, start, withFrom, withTo);
}

// ---------------------------------------------------------------- CQWString

CQWString::CQWString() = default;

CQWString::CQWString(const wchar_t* text)
{
    SetData(text);
}

CQWString::CQWString(const CQSString& narrow)
{
    SetByteData(reinterpret_cast<const unsigned char*>(narrow.GetDataPtr()), narrow.GetLength());
}

CQWString::CQWString(const QString& text)
{
    const QVector<uint> ucs4 = text.toUcs4();
    if (ucs4.isEmpty() || !m_text.Reserve(ucs4.size()))
        return;
    wchar_t* data = m_text.MutableData();
    for (int i = 0; i < ucs4.size(); ++i)
        data[i] = static_cast<wchar_t>(ucs4[i]);
    m_text.SetLength(ucs4.size());
}

CQWString& CQWString::operator=(const CQSString& narrow)
{
    SetByteData(reinterpret_cast<const unsigned char*>(narrow.GetDataPtr()), narrow.GetLength());
    return *this;
}

CQWString& CQWString::operator=(const wchar_t* text)
{
    SetData(text);
    return *this;
}

int CQWString::SetData(const wchar_t* text)
{
    const int len = TextLength(text);
    return len < 0 ? 0 : m_text.Assign(text, len);
}

int CQWString::SetData(const wchar_t* text, int len)
{
    return m_text.Assign(text, len);
}

int CQWString::AppendData(const wchar_t* text)
{
    const int len = TextLength(text);
    return len < 0 ? 0 : m_text.Append(text, len);
}

int CQWString::AppendData(const unsigned char* data, int len)
{
    if (len < 0 || (!data && len > 0))
        return 0;
    if (len == 0)
        return 1;
    if (len > velanet::StringStorage<wchar_t>::KMaxLength - GetLength() || !m_text.Reserve(GetLength() + len))
        return 0;
    wchar_t* out = m_text.MutableData() + GetLength();
    for (int i = 0; i < len; ++i)
        out[i] = static_cast<wchar_t>(data[i]);
    m_text.SetLength(GetLength() + len);
    return 1;
}

int CQWString::SetByteData(const unsigned char* data, int len)
{
    if (len < 0 || (!data && len > 0))
        return 0;
    CQWString fresh;
    if (!fresh.AppendData(data, len))
        return 0;
    *this = std::move(fresh);
    return 1;
}

bool CQWString::operator==(const wchar_t* text) const
{
    // A text longer than this string differs; one character past it says so.
    const size_t ownLen = static_cast<size_t>(GetLength());
    const size_t len = TextLengthUpTo(text, ownLen + 1);
    return len == ownLen && (len == 0 || std::wmemcmp(GetDataPtr(), text, len) == 0);
}

int CQWString::Replace(const wchar_t* oldText, const wchar_t* newText)
{
    return ReplaceAll(m_text, oldText, newText);
}

QString CQWString::ToQString() const
{
    return QString::fromWCharArray(GetDataPtr(), GetLength());
}
