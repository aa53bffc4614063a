#ifndef VELANET_CQSTRING_H
#define VELANET_CQSTRING_H

// The library's two owned string types.
//
// CQSString: 8-bit bytes with an explicit length, always NUL-terminated, no
// encoding. CQWString: wchar_t characters, always NUL-terminated.
// Operations never throw: failures come back as 0 or a negative number, and
// an allocation failure leaves the old content in place.

#include "BaseClass/src/CQStringStorage_p.h"

#include <cstddef>
#include <cwchar>

class QString;
class CQWString;

class CQSString
{
public:
    CQSString();
    CQSString(const char* text);
    CQSString(const char* data, int len);
    CQSString(const CQWString& wide);
    CQSString(const CQSString& other) = default;
    CQSString(CQSString&& other) noexcept = default;
    ~CQSString() = default;

    CQSString& operator=(const CQSString& other) = default;
    CQSString& operator=(CQSString&& other) noexcept = default;
    CQSString& operator=(const char* text);
    CQSString& operator=(const CQWString& wide);

    // Replace the content. Return nonzero on success, 0 on failure (the old
    // content is kept then). A null text gives the empty string.
    int SetData(const char* text);
    int SetData(const unsigned char* data, int len);
    // Wide to narrow, one byte per character (the low 8 bits of each).
    int SetData(const CQWString* wide);

    int AppendData(const char* text);
    int AppendData(const unsigned char* data, int len);
    int AppendChar(char c);

    const char* GetDataPtr() const { return m_text.Data(); }
    operator const char*() const { return GetDataPtr(); }

    int GetLength() const { return m_text.Length(); }
    bool IsEmpty() const { return m_text.Length() == 0; }
    void Empty() { m_text.Clear(); }
    // The byte at index (0..255); 0 for an index outside the string.
    int GetAt(int index) const;

    // 0 when the bytes equal text exactly (lengths included), otherwise the
    // sign of the first difference, like strcmp. A null text equals "".
    int Compare(const char* text) const;
    bool operator==(const CQSString& other) const { return m_text.Equals(other.m_text); }
    bool operator!=(const CQSString& other) const { return !(*this == other); }
    // Against a NUL-terminated text, as Compare (a null text equals "").
    bool operator==(const char* text) const { return Compare(text) == 0; }
    bool operator!=(const char* text) const { return Compare(text) != 0; }
    friend bool operator==(const char* text, const CQSString& s) { return s.Compare(text) == 0; }
    friend bool operator!=(const char* text, const CQSString& s) { return s.Compare(text) != 0; }

    // Index of the first occurrence at or after start; -1 when absent.
    // An empty pattern is found at start.
    int Find(const char* pattern, int start = 0) const;
    int Find(char c, int start = 0) const;

    bool IsStartWith(const char* prefix) const;
    bool IsStartWithNoCase(const char* prefix) const;
    bool IsEndWith(const char* suffix) const;
    bool IsEndWithNoCase(const char* suffix) const;

    void MakeLower();
    void MakeUpper();

    // Replace every occurrence of oldText by newText, scanning left to right
    // without rescanning replaced text; an empty or null newText deletes.
    // Returns the number of replacements (0 for an empty oldText).
    int Replace(const char* oldText, const char* newText);

    // Blanks are space, tab, CR and LF.
    void TrimLeft();
    void TrimRight();
    void TrimRightAndLeft();

    // Keep printable ASCII (0x20..0x7E) only.
    void FilterInvisibleChar();

    // Decimal value of the leading digits after leading blanks (space and
    // tab); ToINT also accepts one leading '-'. Stops at the first
    // non-digit; 0 when there is no digit. Overflow wraps as 32-bit values.
    int ToINT() const;
    unsigned int ToUINT() const;
    // ToINT read in 64 bits: the same blanks, sign and digits. Digits past
    // 2^63 - 1 do not wrap: the result is clamped to the largest (or, after
    // '-', the smallest) long long and *fits, when given, is set to false;
    // otherwise *fits is set to true.
    long long ToINT64(bool* fits = nullptr) const;
    // Hexadecimal value of the leading hex digits after leading CR, LF,
    // space and tab; the first non-hex character ends the number (so a chunk
    // extension after the size is ignored); 0 when there is no digit.
    int ToHEX() const;

    // Replace the content by the decimal text of the value.
    void ToString(int value);
    void ToString(unsigned int value);

    // out = count bytes from start. A start outside 0..length, or a negative
    // count, empties out and returns 0; a count running past the end is cut
    // at the end. Returns nonzero on success.
    int GetSubString(CQSString& out, int start, int count) const;

    // Find `from` at or after start, then the next `to` after it; out
    // receives the text between them (with the delimiters themselves when
    // withFrom / withTo are true). Returns the index at which the text
    // between them starts (always positive: it follows `from`), or -1 when
    // either delimiter is missing (out is emptied then).
    int GetSubString(CQSString& out, const char* from, const char* to, int start,
                     bool withFrom = false, bool withTo = false) const;
    int GetSubString(CQSString& out, char from, char to, int start,
                     bool withFrom = false, bool withTo = false) const;

private:
    velanet::StringStorage<char> m_text;
};

class CQWString
{
public:
    CQWString();
    CQWString(const wchar_t* text);
    CQWString(const CQSString& narrow);
    CQWString(const QString& text);
    CQWString(const CQWString& other) = default;
    CQWString(CQWString&& other) noexcept = default;
    ~CQWString() = default;

    CQWString& operator=(const CQWString& other) = default;
    CQWString& operator=(CQWString&& other) noexcept = default;
    CQWString& operator=(const CQSString& narrow);
    CQWString& operator=(const wchar_t* text);

    int SetData(const wchar_t* text);
    int SetData(const wchar_t* text, int len);
    int AppendData(const wchar_t* text);
    // Each byte becomes one wide character.
    int AppendData(const unsigned char* data, int len);
    int SetByteData(const unsigned char* data, int len);

    const wchar_t* GetDataPtr() const { return m_text.Data(); }
    operator const wchar_t*() const { return GetDataPtr(); }

    int GetLength() const { return m_text.Length(); }
    bool IsEmpty() const { return m_text.Length() == 0; }
    void Empty() { m_text.Clear(); }

    // Every occurrence, as CQSString::Replace.
    int Replace(const wchar_t* oldText, const wchar_t* newText);

    bool operator==(const CQWString& other) const { return m_text.Equals(other.m_text); }
    bool operator!=(const CQWString& other) const { return !(*this == other); }
    // Against a NUL-terminated text, character for character (a null text
    // equals "").
    bool operator==(const wchar_t* text) const;
    bool operator!=(const wchar_t* text) const { return !(*this == text); }
    friend bool operator==(const wchar_t* text, const CQWString& s) { return s == text; }
    friend bool operator!=(const wchar_t* text, const CQWString& s) { return !(s == text); }

    // The text as a QString (UTF-32 code points).
    QString ToQString() const;

private:
    velanet::StringStorage<wchar_t> m_text;
};

#endif
