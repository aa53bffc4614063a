#ifndef VELANET_CBASEUTIL_H
#define VELANET_CBASEUTIL_H

// Memory search and string formatting helpers.

class CQSString;

class CBaseUtil
{
public:
    // Address of the first occurrence of pat[0..patLen) in buf[0..len), or
    // null when absent. Reads nothing outside those two ranges. A null buf or
    // pat, len <= 0, patLen <= 0 or patLen > len give null. The match may
    // start anywhere (not only at line starts).
    static unsigned char* SearchMem(const unsigned char* buf, int len, const char* pat, int patLen);

    // As SearchMem, with ASCII letters compared case-insensitively (other
    // bytes, including those above 0x7F, must match exactly).
    static unsigned char* SearchMemNoCase(const unsigned char* buf, int len, const char* pat, int patLen);

    // printf-style formatting into out. Returns the length of the result, or
    // a negative number on error (out is left unchanged then).
    static int FormatString(CQSString& out, const char* format, ...) __attribute__((format(printf, 2, 3)));
};

#endif
