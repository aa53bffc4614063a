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

int SafeLength(const char* text)
{
    if (!text)
        return 0;
    const size_t n = std::strlen(text);
    return n > static_cast<size_t>(INT_MAX - 1) ? -1 : static_cast<int>(n);
}

int SafeLength(const wchar_t* text)
{
    if (!text)
        return 0;
    const size_t n = std::wcslen(text);
    return n > static_cast<size_t>(INT_MAX / static_cast<int>(sizeof(wchar_t)) - 1) ? -1 : static_cast<int>(n);
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

CQSString::CQSString(const CQSString& other)
{
    Assign(other.m_pData, other.m_nLength);
}

CQSString::CQSString(CQSString&& other) noexcept
    : m_pData(other.m_pData), m_nLength(other.m_nLength), m_nCapacity(other.m_nCapacity)
{
    other.m_pData = nullptr;
    other.m_nLength = 0;
    other.m_nCapacity = 0;
}

CQSString::~CQSString()
{
    delete[] m_pData;
}

CQSString& CQSString::operator=(const CQSString& other)
{
    if (this != &other)
        Assign(other.m_pData, other.m_nLength);
    return *this;
}

CQSString& CQSString::operator=(CQSString&& other) noexcept
{
    if (this != &other) {
        delete[] m_pData;
        m_pData = other.m_pData;
        m_nLength = other.m_nLength;
        m_nCapacity = other.m_nCapacity;
        other.m_pData = nullptr;
        other.m_nLength = 0;
        other.m_nCapacity = 0;
    }
    return *this;
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

int CQSString::Reserve(int capacity)
{
    if (capacity < 0)
        return 0;
    if (capacity + 1 <= m_nCapacity)
        return 1;
    // Grow geometrically so repeated appends stay linear.
    int newCapacity = std::max(capacity + 1, 16);
    if (m_nCapacity > 0 && m_nCapacity < INT_MAX / 2)
        newCapacity = std::max(newCapacity, m_nCapacity * 2);
    char* fresh = new (std::nothrow) char[static_cast<size_t>(newCapacity)];
    if (!fresh)
        return 0;
    if (m_nLength > 0)
        std::memcpy(fresh, m_pData, static_cast<size_t>(m_nLength));
    fresh[m_nLength] = '\0';
    delete[] m_pData;
    m_pData = fresh;
    m_nCapacity = newCapacity;
    return 1;
}

int CQSString::Assign(const char* data, int len)
{
    if (len < 0)
        return 0;
    if (len == 0 || !data) {
        Empty();
        return 1;
    }
    // The source may point into this string: copy before releasing.
    if (data >= m_pData && data < m_pData + m_nCapacity) {
        std::memmove(m_pData, data, static_cast<size_t>(len));
        m_nLength = len;
        m_pData[len] = '\0';
        return 1;
    }
    if (len + 1 > m_nCapacity) {
        char* fresh = new (std::nothrow) char[static_cast<size_t>(len) + 1];
        if (!fresh)
            return 0;
        delete[] m_pData;
        m_pData = fresh;
        m_nCapacity = len + 1;
    }
    std::memcpy(m_pData, data, static_cast<size_t>(len));
    m_nLength = len;
    m_pData[len] = '\0';
    return 1;
}

int CQSString::SetData(const char* text)
{
    const int len = SafeLength(text);
    return len < 0 ? 0 : Assign(text, len);
}

int CQSString::SetData(const unsigned char* data, int len)
{
    if (len < 0 || (!data && len > 0))
        return 0;
    return Assign(reinterpret_cast<const char*>(data), len);
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
    delete[] m_pData;
    m_pData = fresh;
    m_nLength = len;
    m_nCapacity = len + 1;
    return 1;
}

int CQSString::AppendData(const char* text)
{
    const int len = SafeLength(text);
    return len < 0 ? 0 : AppendData(reinterpret_cast<const unsigned char*>(text), len);
}

int CQSString::AppendData(const unsigned char* data, int len)
{
    if (len < 0 || (!data && len > 0))
        return 0;
    if (len == 0)
        return 1;
    if (len > INT_MAX - 1 - m_nLength)
        return 0;
    // The source may point into this string; remember its offset.
    const bool inside = m_pData && reinterpret_cast<const char*>(data) >= m_pData &&
                        reinterpret_cast<const char*>(data) < m_pData + m_nCapacity;
    const ptrdiff_t offset = inside ? reinterpret_cast<const char*>(data) - m_pData : 0;
    if (!Reserve(m_nLength + len))
        return 0;
    const char* src = inside ? m_pData + offset : reinterpret_cast<const char*>(data);
    std::memmove(m_pData + m_nLength, src, static_cast<size_t>(len));
    m_nLength += len;
    m_pData[m_nLength] = '\0';
    return 1;
}

int CQSString::AppendChar(char c)
{
    return AppendData(reinterpret_cast<const unsigned char*>(&c), 1);
}

void CQSString::Empty()
{
    m_nLength = 0;
    if (m_pData)
        m_pData[0] = '\0';
}

int CQSString::GetAt(int index) const
{
    if (index < 0 || index >= m_nLength)
        return 0;
    return static_cast<unsigned char>(m_pData[index]);
}

int CQSString::Compare(const char* text) const
{
    const int len = SafeLength(text);
    const int common = std::min(len, m_nLength);
    if (common > 0) {
        const int r = std::memcmp(m_pData, text, static_cast<size_t>(common));
        if (r != 0)
            return r < 0 ? -1 : 1;
    }
    if (m_nLength == len)
        return 0;
    return m_nLength < len ? -1 : 1;
}

bool CQSString::operator==(const CQSString& other) const
{
    return m_nLength == other.m_nLength &&
           (m_nLength == 0 || std::memcmp(m_pData, other.m_pData, static_cast<size_t>(m_nLength)) == 0);
}

int CQSString::Find(const char* pattern, int start) const
{
    if (!pattern)
        return -1;
    return FindBytes(GetDataPtr(), m_nLength, pattern, SafeLength(pattern), start);
}

int CQSString::Find(char c, int start) const
{
    return FindBytes(GetDataPtr(), m_nLength, &c, 1, start);
}

bool CQSString::IsStartWith(const char* prefix) const
{
    const int len = SafeLength(prefix);
    return len <= m_nLength && (len == 0 || std::memcmp(m_pData, prefix, static_cast<size_t>(len)) == 0);
}

bool CQSString::IsStartWithNoCase(const char* prefix) const
{
    const int len = SafeLength(prefix);
    return len <= m_nLength && EqualNoCase(GetDataPtr(), prefix, len);
}

bool CQSString::IsEndWith(const char* suffix) const
{
    const int len = SafeLength(suffix);
    return len <= m_nLength &&
           (len == 0 || std::memcmp(m_pData + m_nLength - len, suffix, static_cast<size_t>(len)) == 0);
}

bool CQSString::IsEndWithNoCase(const char* suffix) const
{
    const int len = SafeLength(suffix);
    return len <= m_nLength && (len == 0 || EqualNoCase(m_pData + m_nLength - len, suffix, len));
}

void CQSString::MakeLower()
{
    for (int i = 0; i < m_nLength; ++i)
        m_pData[i] = LowerAscii(m_pData[i]);
}

void CQSString::MakeUpper()
{
    for (int i = 0; i < m_nLength; ++i) {
        if (m_pData[i] >= 'a' && m_pData[i] <= 'z')
            m_pData[i] = static_cast<char>(m_pData[i] - 'a' + 'A');
    }
}

int CQSString::Replace(const char* oldText, const char* newText)
{
    const int oldLen = SafeLength(oldText);
    const int newLen = SafeLength(newText);
    if (oldLen <= 0 || newLen < 0 || m_nLength == 0)
        return 0;

    // Count first so the result is built in one exactly sized allocation.
    int count = 0;
    for (int pos = FindBytes(m_pData, m_nLength, oldText, oldLen, 0); pos >= 0;
         pos = FindBytes(m_pData, m_nLength, oldText, oldLen, pos + oldLen))
        ++count;
    if (count == 0)
        return 0;

    const long long resultLen = static_cast<long long>(m_nLength) + static_cast<long long>(count) * (newLen - oldLen);
    if (resultLen > INT_MAX - 1)
        return 0;
    char* fresh = new (std::nothrow) char[static_cast<size_t>(resultLen) + 1];
    if (!fresh)
        return 0;
    int from = 0;
    int to = 0;
    for (int pos = FindBytes(m_pData, m_nLength, oldText, oldLen, 0); pos >= 0;
         pos = FindBytes(m_pData, m_nLength, oldText, oldLen, from)) {
        std::memcpy(fresh + to, m_pData + from, static_cast<size_t>(pos - from));
        to += pos - from;
        if (newLen > 0)
            std::memcpy(fresh + to, newText, static_cast<size_t>(newLen));
        to += newLen;
        from = pos + oldLen;
    }
    std::memcpy(fresh + to, m_pData + from, static_cast<size_t>(m_nLength - from));
    to += m_nLength - from;
    fresh[to] = '\0';
    delete[] m_pData;
    m_pData = fresh;
    m_nLength = to;
    m_nCapacity = to + 1;
    return count;
}

void CQSString::TrimLeft()
{
    int skip = 0;
    while (skip < m_nLength && (IsBlank(m_pData[skip]) || m_pData[skip] == '\r' || m_pData[skip] == '\n'))
        ++skip;
    if (skip == 0)
        return;
    std::memmove(m_pData, m_pData + skip, static_cast<size_t>(m_nLength - skip));
    m_nLength -= skip;
    m_pData[m_nLength] = '\0';
}

void CQSString::TrimRight()
{
    while (m_nLength > 0) {
        const char c = m_pData[m_nLength - 1];
        if (!IsBlank(c) && c != '\r' && c != '\n')
            break;
        --m_nLength;
    }
    if (m_pData)
        m_pData[m_nLength] = '\0';
}

void CQSString::TrimRightAndLeft()
{
    TrimRight();
    TrimLeft();
}

void CQSString::FilterInvisibleChar()
{
    int to = 0;
    for (int from = 0; from < m_nLength; ++from) {
        const unsigned char c = static_cast<unsigned char>(m_pData[from]);
        if (c >= 0x20 && c <= 0x7E)
            m_pData[to++] = static_cast<char>(c);
    }
    m_nLength = to;
    if (m_pData)
        m_pData[m_nLength] = '\0';
}

int CQSString::ToINT() const
{
    int i = 0;
    while (i < m_nLength && IsBlank(m_pData[i]))
        ++i;
    bool negative = false;
    if (i < m_nLength && m_pData[i] == '-') {
        negative = true;
        ++i;
    }
    unsigned int value = 0;
    while (i < m_nLength && m_pData[i] >= '0' && m_pData[i] <= '9') {
        value = value * 10u + static_cast<unsigned int>(m_pData[i] - '0');
        ++i;
    }
    return static_cast<int>(negative ? 0u - value : value);
}

unsigned int CQSString::ToUINT() const
{
    int i = 0;
    while (i < m_nLength && IsBlank(m_pData[i]))
        ++i;
    unsigned int value = 0;
    while (i < m_nLength && m_pData[i] >= '0' && m_pData[i] <= '9') {
        value = value * 10u + static_cast<unsigned int>(m_pData[i] - '0');
        ++i;
    }
    return value;
}

int CQSString::ToHEX() const
{
    int i = 0;
    while (i < m_nLength && (IsBlank(m_pData[i]) || m_pData[i] == '\r' || m_pData[i] == '\n'))
        ++i;
    unsigned int value = 0;
    for (; i < m_nLength; ++i) {
        const char c = m_pData[i];
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
    Assign(text, n);
}

void CQSString::ToString(unsigned int value)
{
    char text[16];
    const int n = std::snprintf(text, sizeof text, "%u", value);
    Assign(text, n);
}

int CQSString::GetSubString(CQSString& out, int start, int count) const
{
    if (start < 0 || start > m_nLength || count < 0) {
        out.Empty();
        return 0;
    }
    const int n = std::min(count, m_nLength - start);
    if (&out == this) {
        CQSString copy(GetDataPtr() + start, n);
        out = std::move(copy);
        return 1;
    }
    return out.Assign(GetDataPtr() + start, n);
}

int CQSString::GetSubString(CQSString& out, const char* from, const char* to, int start, bool withFrom,
                            bool withTo) const
{
    const int fromLen = SafeLength(from);
    const int toLen = SafeLength(to);
    if (!from || !to || fromLen < 0 || toLen < 0 || start < 0 || start > m_nLength) {
        out.Empty();
        return -1;
    }
    const int fromPos = FindBytes(GetDataPtr(), m_nLength, from, fromLen, start);
    if (fromPos < 0) {
        out.Empty();
        return -1;
    }
    const int textStart = fromPos + fromLen;
    const int toPos = FindBytes(GetDataPtr(), m_nLength, to, toLen, textStart);
    if (toPos < 0) {
        out.Empty();
        return -1;
    }
    const int copyStart = withFrom ? fromPos : textStart;
    const int copyEnd = withTo ? toPos + toLen : toPos;
    CQSString piece(GetDataPtr() + copyStart, copyEnd - copyStart);
    out = std::move(piece);
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
    if (ucs4.isEmpty() || !Reserve(ucs4.size()))
        return;
    for (int i = 0; i < ucs4.size(); ++i)
        m_pData[i] = static_cast<wchar_t>(ucs4[i]);
    m_nLength = ucs4.size();
    m_pData[m_nLength] = L'\0';
}

CQWString::CQWString(const CQWString& other)
{
    Assign(other.m_pData, other.m_nLength);
}

CQWString::CQWString(CQWString&& other) noexcept
    : m_pData(other.m_pData), m_nLength(other.m_nLength), m_nCapacity(other.m_nCapacity)
{
    other.m_pData = nullptr;
    other.m_nLength = 0;
    other.m_nCapacity = 0;
}

CQWString::~CQWString()
{
    delete[] m_pData;
}

CQWString& CQWString::operator=(const CQWString& other)
{
    if (this != &other)
        Assign(other.m_pData, other.m_nLength);
    return *this;
}

CQWString& CQWString::operator=(CQWString&& other) noexcept
{
    if (this != &other) {
        delete[] m_pData;
        m_pData = other.m_pData;
        m_nLength = other.m_nLength;
        m_nCapacity = other.m_nCapacity;
        other.m_pData = nullptr;
        other.m_nLength = 0;
        other.m_nCapacity = 0;
    }
    return *this;
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

int CQWString::Reserve(int capacity)
{
    if (capacity < 0 || capacity > INT_MAX / static_cast<int>(sizeof(wchar_t)) - 1)
        return 0;
    if (capacity + 1 <= m_nCapacity)
        return 1;
    int newCapacity = std::max(capacity + 1, 16);
    if (m_nCapacity > 0 && m_nCapacity < INT_MAX / 8)
        newCapacity = std::max(newCapacity, m_nCapacity * 2);
    wchar_t* fresh = new (std::nothrow) wchar_t[static_cast<size_t>(newCapacity)];
    if (!fresh)
        return 0;
    if (m_nLength > 0)
        std::wmemcpy(fresh, m_pData, static_cast<size_t>(m_nLength));
    fresh[m_nLength] = L'\0';
    delete[] m_pData;
    m_pData = fresh;
    m_nCapacity = newCapacity;
    return 1;
}

int CQWString::Assign(const wchar_t* data, int len)
{
    if (len < 0)
        return 0;
    if (len == 0 || !data) {
        Empty();
        return 1;
    }
    if (data >= m_pData && data < m_pData + m_nCapacity) {
        std::wmemmove(m_pData, data, static_cast<size_t>(len));
        m_nLength = len;
        m_pData[len] = L'\0';
        return 1;
    }
    if (len + 1 > m_nCapacity) {
        wchar_t* fresh = new (std::nothrow) wchar_t[static_cast<size_t>(len) + 1];
        if (!fresh)
            return 0;
        delete[] m_pData;
        m_pData = fresh;
        m_nCapacity = len + 1;
    }
    std::wmemcpy(m_pData, data, static_cast<size_t>(len));
    m_nLength = len;
    m_pData[len] = L'\0';
    return 1;
}

int CQWString::SetData(const wchar_t* text)
{
    const int len = SafeLength(text);
    return len < 0 ? 0 : Assign(text, len);
}

int CQWString::SetData(const wchar_t* text, int len)
{
    if (len < 0 || (!text && len > 0))
        return 0;
    return Assign(text, len);
}

int CQWString::AppendData(const wchar_t* text)
{
    const int len = SafeLength(text);
    return len < 0 ? 0 : AppendRange(text, len);
}

int CQWString::AppendRange(const wchar_t* text, int len)
{
    if (len < 0 || (!text && len > 0))
        return 0;
    if (len == 0)
        return 1;
    const bool inside = m_pData && text >= m_pData && text < m_pData + m_nCapacity;
    const ptrdiff_t offset = inside ? text - m_pData : 0;
    if (len > INT_MAX / 8 - m_nLength || !Reserve(m_nLength + len))
        return 0;
    std::wmemmove(m_pData + m_nLength, inside ? m_pData + offset : text, static_cast<size_t>(len));
    m_nLength += len;
    m_pData[m_nLength] = L'\0';
    return 1;
}

int CQWString::AppendData(const unsigned char* data, int len)
{
    if (len < 0 || (!data && len > 0))
        return 0;
    if (len == 0)
        return 1;
    if (len > INT_MAX / 8 - m_nLength || !Reserve(m_nLength + len))
        return 0;
    for (int i = 0; i < len; ++i)
        m_pData[m_nLength + i] = static_cast<wchar_t>(data[i]);
    m_nLength += len;
    m_pData[m_nLength] = L'\0';
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

void CQWString::Empty()
{
    m_nLength = 0;
    if (m_pData)
        m_pData[0] = L'\0';
}

int CQWString::Replace(const wchar_t* oldText, const wchar_t* newText)
{
    const int oldLen = SafeLength(oldText);
    const int newLen = SafeLength(newText);
    if (oldLen <= 0 || newLen < 0 || m_nLength == 0)
        return 0;
    CQWString result;
    int count = 0;
    int from = 0;
    for (int i = 0; i + oldLen <= m_nLength;) {
        if (std::wmemcmp(m_pData + i, oldText, static_cast<size_t>(oldLen)) != 0) {
            ++i;
            continue;
        }
        if (!result.AppendRange(m_pData + from, i - from) || !result.AppendRange(newText, newLen))
            return 0;
        ++count;
        i += oldLen;
        from = i;
    }
    if (count == 0)
        return 0;
    if (!result.AppendRange(m_pData + from, m_nLength - from))
        return 0;
    *this = std::move(result);
    return count;
}

bool CQWString::operator==(const CQWString& other) const
{
    return m_nLength == other.m_nLength &&
           (m_nLength == 0 || std::wmemcmp(m_pData, other.m_pData, static_cast<size_t>(m_nLength)) == 0);
}

QString CQWString::ToQString() const
{
    return QString::fromWCharArray(GetDataPtr(), m_nLength);
}
