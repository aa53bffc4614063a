#ifndef VELANET_COOKIEPARSER_H
#define VELANET_COOKIEPARSER_H

// CookieParser: the stateless toolkit that takes a Set-Cookie value apart,
// turns an "expires" date into seconds, finds the host of a URL or domain,
// walks a host up to its parent domains and reads the current time.
//
// The tokenisers work in place on a writable NUL-terminated buffer owned by
// the caller: they write NUL bytes into it and move a cursor (a char* held
// by the caller, passed by address). No routine reads past the terminating
// NUL.
//
//   comment = "(" *( "\" char | other ) ( ")" | end )
//   quoted  = DQUOTE *( "\" char | other ) ( DQUOTE | end )
//   bracket = "<" *( "\" char | other ) ( ">" | end )
//   field   = quoted | bracket | 1*( not ( space "," ";" "=" ) )
//   value   = *( not ";" )                 ; trailing blanks kept
//   param   = quoted | bracket | *( not ";" )
// Escapes are skipped over and left in the text.
//
// Time values count seconds on a calendar of 30-day months and 365-day
// years from 1970: M*2592000 + D*86400 + h*3600 + m*60 + s + (Y-1970)*31536000,
// computed as unsigned 32-bit. No leap days, no time zone.

#include <cstddef>

class CookieParser
{
public:
    // Number of entries in the month table.
    static constexpr int KMonthCount = 12;

    CookieParser();
    ~CookieParser();

    // Next name or attribute name. Skips blanks, ",", ";", "=" and comments.
    // The token ends at its delimiter (overwritten with NUL, the cursor left
    // after it) or at the end (the cursor left on the NUL). Null when nothing
    // is left or the cursor is null.
    static char* HTParseNextField(char** cursor);
    // Value after the blanks, up to the next ";" (exclusive) or the end. Not
    // unquoted. Null at the end or for a null cursor.
    static char* HTParseNextValue(char** cursor);
    // Next ";"-separated parameter, blanks kept; a quoted or bracketed run
    // gives its inside. Commas do not end it. Null at the end.
    static char* HTParseNextParam(char** cursor);

    // A date text as a time value; 0 when it is not accepted. Layouts:
    //   "Wdy, DD Mon YYYY hh:mm:ss ..." and "Weekday, DD-Mon-YYYY hh:mm:ss ..."
    //   "Wdy Mon DD hh:mm:ss YYYY"
    //   "YYYY-MM-DDThh:mm:ss..." (21 characters at least; month used as written)
    //   digits without "T": the leading number itself, taken as it stands
    //   (strtol, converted to unsigned 32-bit).
    // Static, so that it can be called with or without a parser object.
    static unsigned int HTParseTime(const char* text);

    // Index 0..11 of the first month name found at or after the first letter
    // of text; 0 (January) for an unknown name, no letter or null text.
    // end receives the position four characters after the first letter (but
    // never past the terminating NUL); a null end is allowed.
    static int HTMake_month(const char* text, const char** end);
    static int HTMake_month(const char* text, char** end);
    static int HTMake_month(const char* text, std::nullptr_t end);

    // The two host finders answer a pointer into the text they were given.
    // Like strchr they take any text (a literal, a writable buffer, a null
    // pointer) and answer a writable pointer, which is only as writable as
    // that text.

    // Start of the host in a URL, host name or domain ("//" skipped, one
    // leading "." skipped when there is no "//"). length is the host's length
    // up to ":" or "/"; without any "/" it stays the whole text's length.
    // Null for null or empty text.
    static char* HTFindFullHost(const char* text, int& length);

    // The parent domain of a host (or the host of a URL), inside the same
    // text, and its length: "mail.shop.org" gives "shop.org" (8). Null when
    // there is none.
    static char* HTFindFatherHost(const char* text, int& length);

    // 0 when equal ignoring ASCII letter case; otherwise the difference of
    // the first unequal upper-cased pair, 1 when only a is longer, -1 when
    // only b is. A null string counts as empty.
    static int strcasecomp(const char* a, const char* b);

    // The current local time as a time value, with the month counted 1..12.
    static unsigned int GetCurrentTimeToInt();
};

#endif
