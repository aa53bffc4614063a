#include "BaseClass/src/CBaseUtil.h"

#include "BaseClass/src/CQString.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

namespace {

constexpr int KFormatError = -1;

inline unsigned char AsciiLower(unsigned char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c + ('a' - 'A')) : c;
}

bool ValidSearch(const unsigned char* buf, int len, const char* pat, int patLen)
{
    return buf && pat && len > 0 && patLen > 0 && patLen <= len;
}

}  // namespace

unsigned char* CBaseUtil::SearchMem(const unsigned char* buf, int len, const char* pat, int patLen)
{
    if (!ValidSearch(buf, len, pat, patLen))
        return nullptr;
    // Candidates come from memchr on the first pattern byte; the rest is
    // checked with memcmp. The last possible start is len - patLen.
    const unsigned char first = static_cast<unsigned char>(pat[0]);
    const unsigned char* cur = buf;
    const unsigned char* const lastStart = buf + (len - patLen);
    while (cur <= lastStart) {
        const void* hit = std::memchr(cur, first, static_cast<size_t>(lastStart - cur) + 1);
        if (!hit)
            return nullptr;
        const unsigned char* candidate = static_cast<const unsigned char*>(hit);
        if (std::memcmp(candidate + 1, pat + 1, static_cast<size_t>(patLen - 1)) == 0)
            return const_cast<unsigned char*>(candidate);
        cur = candidate + 1;
    }
    return nullptr;
}

unsigned char* CBaseUtil::SearchMemNoCase(const unsigned char* buf, int len, const char* pat, int patLen)
{
    if (!ValidSearch(buf, len, pat, patLen))
        return nullptr;
    const unsigned char* upat = reinterpret_cast<const unsigned char*>(pat);
    const unsigned char first = AsciiLower(upat[0]);
    const int lastStart = len - patLen;
    for (int i = 0; i <= lastStart; ++i) {
        if (AsciiLower(buf[i]) != first)
            continue;
        int k = 1;
        while (k < patLen && AsciiLower(buf[i + k]) == AsciiLower(upat[k]))
            ++k;
        if (k == patLen)
            return const_cast<unsigned char*>(buf + i);
    }
    return nullptr;
}

int CBaseUtil::FormatString(CQSString& out, const char* format, ...)
{
    if (!format)
        return KFormatError;

    va_list args;
    va_start(args, format);
    va_list sizing;
    va_copy(sizing, args);
    const int needed = std::vsnprintf(nullptr, 0, format, sizing);
    va_end(sizing);
    if (needed < 0) {
        va_end(args);
        return KFormatError;
    }

    std::unique_ptr<char[]> text(new (std::nothrow) char[static_cast<size_t>(needed) + 1]);
    if (!text) {
        va_end(args);
        return KFormatError;
    }
    const int written = std::vsnprintf(text.get(), static_cast<size_t>(needed) + 1, format, args);
    va_end(args);
    if (written != needed)
        return KFormatError;

    // Counted form: a %c of NUL stays part of the result.
    if (!out.SetData(reinterpret_cast<const unsigned char*>(text.get()), needed))
        return KFormatError;
    return needed;
}
