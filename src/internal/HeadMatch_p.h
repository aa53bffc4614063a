#ifndef VELANET_HEADMATCH_P_H
#define VELANET_HEADMATCH_P_H

// Field matching over response bytes, shared by every response field parser.
//
//   field  = <field text, any letter case> value CR LF
//   value  = 1*<any byte up to the first CR LF>
//
// A field text ("Content-Length:", "Location: "...) is searched
// case-insensitively anywhere in the buffer (head and any body bytes behind
// it) and the first occurrence wins; it is not anchored to a line start. The
// value runs to the next CR LF (searched byte-exactly). An empty value, or a
// value with no CR LF after it, counts as an absent field.
//
// Everything works on (pointer, length), never reads past the length and
// never needs a NUL. Nothing allocates and nothing copies the buffer. Since
// the search runs once per field over the whole buffer (body bytes
// included), candidates are filtered sixteen positions at a time on two
// bytes each before a full comparison.
//
// Return convention: search functions return a byte index into the buffer,
// or KNotFound when the text is absent.

#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace velanet {
namespace headmatch {

constexpr int KNotFound = -1;

// ASCII lower-casing of every byte value; bytes outside A..Z map to
// themselves.
struct LowerTable
{
    unsigned char map[256];
};

constexpr LowerTable MakeLowerTable()
{
    LowerTable table{};
    for (int i = 0; i < 256; ++i)
        table.map[i] = static_cast<unsigned char>((i >= 'A' && i <= 'Z') ? i - 'A' + 'a' : i);
    return table;
}

inline constexpr LowerTable KLower = MakeLowerTable();

constexpr bool IsAsciiLetter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// A case-insensitive search text prepared once. The anchor is the offset of a
// byte that reads the same in both cases (preferably the colon of a field
// name, rare in bodies), which filters candidate positions without case
// folding; -1 when every byte is a letter.
struct NoCaseText
{
    const char* text;
    int len;
    int anchor;
};

template <int N>
constexpr NoCaseText MakeNoCaseText(const char (&text)[N])
{
    int anchor = -1;
    for (int i = 0; i < N - 1 && anchor < 0; ++i) {
        if (text[i] == ':')
            anchor = i;
    }
    for (int i = 0; i < N - 1 && anchor < 0; ++i) {
        if (!IsAsciiLetter(text[i]) && text[i] != ' ')
            anchor = i;
    }
    for (int i = 0; i < N - 1 && anchor < 0; ++i) {
        if (!IsAsciiLetter(text[i]))
            anchor = i;
    }
    return NoCaseText{text, N - 1, anchor};
}

// Whether the len bytes at p equal text ignoring ASCII letter case.
[[nodiscard]] inline bool EqualNoCase(const unsigned char* p, const char* text, int len)
{
    for (int i = 0; i < len; ++i) {
        if (KLower.map[p[i]] != KLower.map[static_cast<unsigned char>(text[i])])
            return false;
    }
    return true;
}

// Whether data[0..len) begins with text, ignoring letter case.
[[nodiscard]] inline bool StartsWithNoCase(const unsigned char* data, int len, const char* text, int textLen)
{
    return textLen <= len && (textLen == 0 || EqualNoCase(data, text, textLen));
}

// Candidate filter: a position i can only match when the byte at i + offset,
// with fold ORed in, equals value. fold is 0x20 for a letter (which makes
// both cases of exactly that letter equal) and 0 for any other byte.
struct Probe
{
    int offset;
    unsigned char fold;
    unsigned char value;
};

constexpr Probe MakeProbe(const char* text, int offset, bool noCase)
{
    const unsigned char c = static_cast<unsigned char>(text[offset]);
    const bool letter = noCase && IsAsciiLetter(static_cast<char>(c));
    return Probe{offset, static_cast<unsigned char>(letter ? 0x20 : 0),
                 static_cast<unsigned char>(letter ? (c | 0x20) : c)};
}

// Two probes per text: its first byte and its anchor (or, without one, its
// last byte). Checking both before the full comparison leaves very few
// false candidates, also in heads where every line has a colon.
constexpr Probe SecondProbe(const NoCaseText& text)
{
    return MakeProbe(text.text, text.anchor >= 0 ? text.anchor : text.len - 1, true);
}

// Positions start..last (inclusive, last + probe offsets < the buffer
// length) that pass both probes, in order; for each, match(i) decides.
// Returns the first i accepted, or KNotFound.
template <class Match>
[[nodiscard]] inline int ScanTwoProbes(const unsigned char* buf, int start, int last, const Probe& p1,
                                       const Probe& p2, const Match& match)
{
    int i = start;
#if defined(__SSE2__)
    const __m128i fold1 = _mm_set1_epi8(static_cast<char>(p1.fold));
    const __m128i value1 = _mm_set1_epi8(static_cast<char>(p1.value));
    const __m128i fold2 = _mm_set1_epi8(static_cast<char>(p2.fold));
    const __m128i value2 = _mm_set1_epi8(static_cast<char>(p2.value));
    // Candidates i..i+15 that pass both probes, as a byte mask. Every byte
    // read lies below last + offset + 1, so inside the buffer.
    const auto hits16 = [&](int at) {
        const __m128i block1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(buf + at + p1.offset));
        const __m128i block2 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(buf + at + p2.offset));
        return _mm_and_si128(_mm_cmpeq_epi8(_mm_or_si128(block1, fold1), value1),
                             _mm_cmpeq_epi8(_mm_or_si128(block2, fold2), value2));
    };
    const auto tryMask = [&](int at, unsigned mask) {
        for (; mask; mask &= mask - 1) {
            const int candidate = at + __builtin_ctz(mask);
            if (match(candidate))
                return candidate;
        }
        return KNotFound;
    };
    // Sixty-four candidates per step with one mask test while nothing
    // passes (the common case in body bytes), then sixteen.
    for (; i + 63 <= last; i += 64) {
        const __m128i h0 = hits16(i);
        const __m128i h1 = hits16(i + 16);
        const __m128i h2 = hits16(i + 32);
        const __m128i h3 = hits16(i + 48);
        if (!_mm_movemask_epi8(_mm_or_si128(_mm_or_si128(h0, h1), _mm_or_si128(h2, h3))))
            continue;
        const __m128i blocks[4] = {h0, h1, h2, h3};
        for (int b = 0; b < 4; ++b) {
            const int found = tryMask(i + 16 * b, static_cast<unsigned>(_mm_movemask_epi8(blocks[b])));
            if (found != KNotFound)
                return found;
        }
    }
    for (; i + 15 <= last; i += 16) {
        const int found = tryMask(i, static_cast<unsigned>(_mm_movemask_epi8(hits16(i))));
        if (found != KNotFound)
            return found;
    }
#endif
    for (; i <= last; ++i) {
        if ((buf[i + p1.offset] | p1.fold) == p1.value && (buf[i + p2.offset] | p2.fold) == p2.value &&
            match(i))
            return i;
    }
    return KNotFound;
}

// The checks every search makes first, with a negative start taken as 0.
// True when candidates start..len-textLen remain to be looked at; false
// with the answer set: KNotFound for a null buffer, a negative length, a
// start past the end or a text longer than what is left, start for an
// empty text.
[[nodiscard]] inline bool SearchNeeded(const unsigned char* buf, int len, int textLen, int& start, int& answer)
{
    if (start < 0)
        start = 0;
    answer = KNotFound;
    if (!buf || len < 0 || start > len || textLen < 0)
        return false;
    if (textLen == 0) {
        answer = start;
        return false;
    }
    return textLen <= len - start;
}

// FindNoCase through memchr on the case-free anchor byte, or on both cases
// of the first byte when every byte is a letter: the search on targets
// without SSE2.
[[nodiscard]] inline int FindNoCaseByMemchr(const unsigned char* buf, int len, const NoCaseText& text, int start = 0)
{
    int answer = KNotFound;
    if (!SearchNeeded(buf, len, text.len, start, answer))
        return answer;
    const unsigned char* const lastCandidate = buf + (len - text.len);

    if (text.anchor >= 0) {
        const unsigned char anchorByte = static_cast<unsigned char>(text.text[text.anchor]);
        const unsigned char* p = buf + start + text.anchor;
        const unsigned char* const end = lastCandidate + text.anchor + 1;
        while (p < end) {
            p = static_cast<const unsigned char*>(std::memchr(p, anchorByte, static_cast<size_t>(end - p)));
            if (!p)
                return KNotFound;
            const unsigned char* candidate = p - text.anchor;
            if (EqualNoCase(candidate, text.text, text.len))
                return static_cast<int>(candidate - buf);
            ++p;
        }
        return KNotFound;
    }

    const unsigned char lower = KLower.map[static_cast<unsigned char>(text.text[0])];
    const unsigned char upper = static_cast<unsigned char>(lower - 'a' + 'A');
    const unsigned char* const end = lastCandidate + 1;
    const unsigned char* p = buf + start;
    const unsigned char* nextLower =
        static_cast<const unsigned char*>(std::memchr(p, lower, static_cast<size_t>(end - p)));
    const unsigned char* nextUpper =
        static_cast<const unsigned char*>(std::memchr(p, upper, static_cast<size_t>(end - p)));
    while (nextLower || nextUpper) {
        const unsigned char* candidate =
            !nextUpper || (nextLower && nextLower < nextUpper) ? nextLower : nextUpper;
        if (EqualNoCase(candidate, text.text, text.len))
            return static_cast<int>(candidate - buf);
        const unsigned char* from = candidate + 1;
        const size_t rest = static_cast<size_t>(end - from);
        if (candidate == nextLower)
            nextLower = rest ? static_cast<const unsigned char*>(std::memchr(from, lower, rest)) : nullptr;
        else
            nextUpper = rest ? static_cast<const unsigned char*>(std::memchr(from, upper, rest)) : nullptr;
    }
    return KNotFound;
}

// First index i >= start with buf[i..i+text.len) equal to the text ignoring
// case; KNotFound when there is none. An empty text is found at start.
[[nodiscard]] inline int FindNoCase(const unsigned char* buf, int len, const NoCaseText& text, int start = 0)
{
    int answer = KNotFound;
    if (!SearchNeeded(buf, len, text.len, start, answer))
        return answer;
#if defined(__SSE2__)
    return ScanTwoProbes(buf, start, len - text.len, MakeProbe(text.text, 0, true), SecondProbe(text),
                         [&](int i) { return EqualNoCase(buf + i, text.text, text.len); });
#else
    return FindNoCaseByMemchr(buf, len, text, start);
#endif
}

// First index i >= start with buf[i..i+textLen) equal to text byte for
// byte; KNotFound when there is none. An empty text is found at start.
[[nodiscard]] inline int FindExact(const unsigned char* buf, int len, const char* text, int textLen, int start = 0)
{
    int answer = KNotFound;
    if (!SearchNeeded(buf, len, textLen, start, answer))
        return answer;
    return ScanTwoProbes(buf, start, len - textLen, MakeProbe(text, 0, false), MakeProbe(text, textLen - 1, false),
                         [&](int i) { return std::memcmp(buf + i, text, static_cast<size_t>(textLen)) == 0; });
}

// FindExact of a string literal (its length known at compile time).
template <int N>
[[nodiscard]] inline int FindLiteral(const unsigned char* buf, int len, const char (&text)[N], int start = 0)
{
    return FindExact(buf, len, text, N - 1, start);
}

// Index of the CR of the first CR LF at or after start, or KNotFound.
[[nodiscard]] inline int FindCrLf(const unsigned char* buf, int len, int start = 0)
{
    return FindExact(buf, len, "\r\n", 2, start);
}

// Bytes [start, end) of the buffer: the value of a field, end being the CR
// of its line end. textStart is where the field text itself was found.
struct FieldValue
{
    int textStart = KNotFound;
    int start = 0;
    int end = 0;

    int Length() const { return end - start; }
};

// The value of the field whose text (textLen bytes) was found at textStart.
// True when the value is not empty and a CR LF follows it; false means
// absent (value is then left as it was).
[[nodiscard]] inline bool ValueAt(const unsigned char* buf, int len, int textStart, int textLen, FieldValue& value)
{
    const int valueStart = textStart + textLen;
    const int lineEnd = FindCrLf(buf, len, valueStart);
    if (lineEnd == KNotFound || lineEnd == valueStart)
        return false;
    value.textStart = textStart;
    value.start = valueStart;
    value.end = lineEnd;
    return true;
}

// The field's first occurrence at or after from, with its value, as ValueAt.
[[nodiscard]] inline bool FindField(const unsigned char* buf, int len, const NoCaseText& field, int from,
                                    FieldValue& value)
{
    const int at = FindNoCase(buf, len, field, from);
    return at != KNotFound && ValueAt(buf, len, at, field.len, value);
}

}  // namespace headmatch
}  // namespace velanet

#endif
