// Set-Cookie tokens and cookie dates.
//
//   set-cookie = field value *( ";" param )     ; param = field [ "=" rest ]
//   field      = quoted | bracket | 1*( not ( space "," ";" "=" ) )
//   comment    = "(" *( "\" char | other ) ( ")" | end )   ; skipped
//   date       = wkday "," SP day SP month SP year SP time  ; RFC 1123
//              | weekday "," SP day "-" month "-" year SP time  ; RFC 850
//              | wkday SP month SP day SP time SP year     ; asctime
//              | year "-" mm "-" dd "T" time ...           ; ISO 8601
//              | 1*DIGIT                                   ; a time value
//   time       = hh ":" mm ":" ss

#include "src/CookieParser.h"

#include <QDate>
#include <QDateTime>
#include <QTime>

#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

const char* const KMonthNames[CookieParser::KMonthCount] = {
    "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec",
};

constexpr std::uint32_t KSecondsPerMonth = 2592000u;  // 30 days
constexpr std::uint32_t KSecondsPerDay = 86400u;
constexpr std::uint32_t KSecondsPerHour = 3600u;
constexpr std::uint32_t KSecondsPerMinute = 60u;
constexpr std::uint32_t KSecondsPerYear = 31536000u;  // 365 days
constexpr long KEpochYear = 1970;

constexpr unsigned int KNotAccepted = 0;  // HTParseTime: text not read as a date
constexpr int KJanuary = 0;               // HTMake_month: also the answer for no match

// strcasecomp results besides a letter difference.
constexpr int KEqual = 0;
constexpr int KFirstLonger = 1;
constexpr int KSecondLonger = -1;

// Shortest texts each layout reads: after the comma and its blanks, after
// the leading blanks, and the whole text for ISO dates.
constexpr std::size_t KMinHyphenLength = 18;  // "9-Jun-2021 1:18:14"
constexpr std::size_t KMinCommaLength = 20;   // "09 Jun 2021 10:18:14"
constexpr std::size_t KMinAsctimeLength = 24; // "Thu Jun  9 10:18:14 2021"
constexpr std::size_t KMinIsoLength = 21;     // "2021-06-09T10:18:14+0"
// The month of the asctime layout is looked for from this offset (past "Wdy").
constexpr std::size_t KAsctimeMonthOffset = 3;
// HTMake_month compares this many letters and moves on by one more.
constexpr int KMonthNameLength = 3;
constexpr int KMonthStep = 4;

// Inclusive bounds of the calendar fields; months count from January = 0.
struct FieldBounds
{
    long min;
    long max;
};
constexpr FieldBounds KSecondBounds = {0, 59};
constexpr FieldBounds KMinuteBounds = {0, 59};
constexpr FieldBounds KHourBounds = {0, 23};
constexpr FieldBounds KDayBounds = {1, 31};
constexpr FieldBounds KMonthBounds = {KJanuary, 11};

inline bool IsSpace(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

inline bool IsBlank(char c)
{
    return c == ' ' || c == '\t';
}

// The time value of a date; the arithmetic wraps as unsigned 32-bit. The day
// is added as it stands and there are no leap days: kept on purpose, stored
// expiry values are counted this way.
[[nodiscard]] std::uint32_t TimeValue(long year, long month, long day, long hour, long minute, long second)
{
    return static_cast<std::uint32_t>(month) * KSecondsPerMonth +
           static_cast<std::uint32_t>(day) * KSecondsPerDay +
           static_cast<std::uint32_t>(hour) * KSecondsPerHour +
           static_cast<std::uint32_t>(minute) * KSecondsPerMinute + static_cast<std::uint32_t>(second) +
           static_cast<std::uint32_t>(year - KEpochYear) * KSecondsPerYear;
}

// Past a comment whose "(" is at p: just after its ")", or on the NUL. A
// backslash makes the next character ordinary; one just before the end
// stops on the NUL.
[[nodiscard]] char* SkipComment(char* p)
{
    ++p;
    while (*p != '\0') {
        if (*p == '\\') {
            if (p[1] == '\0')
                return p + 1;
            p += 2;
            continue;
        }
        if (*p == ')')
            return p + 1;
        ++p;
    }
    return p;
}

// The run whose opening character is at *cursor: its inside, with the
// closing character (the next unescaped one) overwritten by NUL and the
// cursor after it; without one the run goes to the end (cursor on the NUL).
[[nodiscard]] char* TakeRun(char** cursor, char closer)
{
    char* start = *cursor + 1;
    char* p = start;
    while (*p != '\0' && *p != closer) {
        if (*p == '\\') {
            if (p[1] == '\0') {
                ++p;
                break;
            }
            p += 2;
            continue;
        }
        ++p;
    }
    if (*p != '\0') {
        *p = '\0';
        *cursor = p + 1;
    } else {
        *cursor = p;
    }
    return start;
}

// Ends the token at p: a delimiter becomes NUL with the cursor after it; at
// the end the cursor stays on the NUL.
void EndTokenAt(char* p, char** cursor)
{
    if (*p != '\0') {
        *p = '\0';
        *cursor = p + 1;
    } else {
        *cursor = p;
    }
}

// The token at p, where the leading separators end, with the cursor moved
// past it: null at the end of the text; the inside of a quoted or bracketed
// run when runs is set and p opens one; otherwise the characters up to the
// first delimiter, which becomes NUL.
template <class Delimiter>
[[nodiscard]] char* TakeTokenAt(char* p, char** cursor, bool runs, Delimiter isDelimiter)
{
    *cursor = p;
    if (*p == '\0')
        return nullptr;
    if (runs && *p == '"')
        return TakeRun(cursor, '"');
    if (runs && *p == '<')
        return TakeRun(cursor, '>');
    char* start = p;
    while (*p != '\0' && !isDelimiter(*p))
        ++p;
    EndTokenAt(p, cursor);
    return start;
}

// The length of text (0 for null), also given in length, capped at INT_MAX:
// the host finders' answer when the text has no host part of its own.
[[nodiscard]] std::size_t WholeLength(const char* text, int& length)
{
    const std::size_t whole = text != nullptr ? std::strlen(text) : 0;
    length = whole > static_cast<std::size_t>(INT_MAX) ? INT_MAX : static_cast<int>(whole);
    return whole;
}

// Moves p on by one character unless it is on the NUL.
[[nodiscard]] inline const char* SkipOne(const char* p)
{
    return *p != '\0' ? p + 1 : p;
}

[[nodiscard]] long ReadNumber(const char* p, const char** next)
{
    char* end = nullptr;
    const long value = std::strtol(p, &end, 10);
    *next = end;
    return value;
}

[[nodiscard]] constexpr bool Within(long value, FieldBounds bounds)
{
    return value >= bounds.min && value <= bounds.max;
}

// Range checks shared by the three calendar layouts.
[[nodiscard]] bool InRange(long year, long month, long day, long hour, long minute, long second)
{
    if (!Within(second, KSecondBounds) || !Within(minute, KMinuteBounds) || !Within(hour, KHourBounds))
        return false;
    if (!Within(day, KDayBounds) || !Within(month, KMonthBounds))
        return false;
    // A two-digit year is not widened and so refused: kept on purpose.
    return year >= KEpochYear;
}

}  // namespace

CookieParser::CookieParser() = default;

CookieParser::~CookieParser() = default;

char* CookieParser::HTParseNextField(char** cursor)
{
    if (cursor == nullptr || *cursor == nullptr)
        return nullptr;
    char* p = *cursor;
    for (;;) {
        if (*p == '(')
            p = SkipComment(p);
        else if (IsSpace(*p) || *p == ',' || *p == ';' || *p == '=')
            ++p;
        else
            break;
    }
    return TakeTokenAt(p, cursor, true, [](char c) { return IsSpace(c) || c == ';' || c == '=' || c == ','; });
}

char* CookieParser::HTParseNextValue(char** cursor)
{
    if (cursor == nullptr || *cursor == nullptr)
        return nullptr;
    char* p = *cursor;
    while (IsSpace(*p))
        ++p;
    return TakeTokenAt(p, cursor, false, [](char c) { return c == ';'; });
}

char* CookieParser::HTParseNextParam(char** cursor)
{
    if (cursor == nullptr || *cursor == nullptr)
        return nullptr;
    char* p = *cursor;
    for (;;) {
        if (*p == ';')
            ++p;
        else if (*p == '(')
            p = SkipComment(p);
        else
            break;
    }
    return TakeTokenAt(p, cursor, true, [](char c) { return c == ';'; });
}

int CookieParser::HTMake_month(const char* text, const char** end)
{
    if (end != nullptr)
        *end = text;
    if (text == nullptr)
        return KJanuary;
    const char* p = text;
    while (*p != '\0' && !std::isalpha(static_cast<unsigned char>(*p)))
        ++p;
    if (*p == '\0') {
        if (end != nullptr)
            *end = p;
        return KJanuary;
    }

    // Stop at the NUL when the name is cut short.
    int taken = 0;
    while (taken < KMonthStep && p[taken] != '\0')
        ++taken;
    if (end != nullptr)
        *end = p + taken;

    for (int month = 0; month < KMonthCount; ++month) {
        int i = 0;
        while (i < KMonthNameLength && p[i] != '\0' &&
               std::toupper(static_cast<unsigned char>(p[i])) ==
                   std::toupper(static_cast<unsigned char>(KMonthNames[month][i])))
            ++i;
        if (i == KMonthNameLength)
            return month;
    }
    // An unknown name reads as January: kept on purpose.
    return KJanuary;
}

int CookieParser::HTMake_month(const char* text, char** end)
{
    const char* after = nullptr;
    const int month = HTMake_month(text, &after);
    if (end != nullptr)
        *end = const_cast<char*>(after);
    return month;
}

int CookieParser::HTMake_month(const char* text, std::nullptr_t)
{
    return HTMake_month(text, static_cast<const char**>(nullptr));
}

unsigned int CookieParser::HTParseTime(const char* text)
{
    if (text == nullptr || *text == '\0')
        return KNotAccepted;

    long year = 0;
    long month = 0;
    long day = 0;
    long hour = 0;
    long minute = 0;
    long second = 0;
    const char* p = nullptr;

    if (const char* comma = std::strchr(text, ',')) {
        // "Wdy, DD Mon YYYY hh:mm:ss" or "Weekday, DD-Mon-YY hh:mm:ss".
        p = comma + 1;
        while (IsBlank(*p))
            ++p;
        const std::size_t rest = std::strlen(p);
        const std::size_t minimum = std::strchr(p, '-') != nullptr ? KMinHyphenLength : KMinCommaLength;
        if (rest < minimum)
            return KNotAccepted;
        day = ReadNumber(p, &p);
        month = HTMake_month(p, &p);
        year = ReadNumber(p, &p);
        hour = ReadNumber(p, &p);
        minute = ReadNumber(SkipOne(p), &p);
        second = ReadNumber(SkipOne(p), &p);
    } else if (!std::isdigit(static_cast<unsigned char>(*text))) {
        // "Wdy Mon DD hh:mm:ss YYYY".
        p = text;
        while (IsBlank(*p))
            ++p;
        if (std::strlen(p) < KMinAsctimeLength)
            return KNotAccepted;
        month = HTMake_month(p + KAsctimeMonthOffset, &p);
        day = ReadNumber(p, &p);
        hour = ReadNumber(p, &p);
        minute = ReadNumber(SkipOne(p), &p);
        second = ReadNumber(SkipOne(p), &p);
        year = ReadNumber(p, &p);
    } else if (std::strchr(text, 'T') == nullptr) {
        // A bare number is a time value as it stands.
        return static_cast<unsigned int>(std::strtol(text, nullptr, 10));
    } else {
        // "YYYY-MM-DDThh:mm:ss...". The month number is used as written (so
        // December fails the range check): kept on purpose.
        if (std::strlen(text) < KMinIsoLength)
            return KNotAccepted;
        year = ReadNumber(text, &p);
        month = ReadNumber(SkipOne(p), &p);
        day = ReadNumber(SkipOne(p), &p);
        hour = ReadNumber(SkipOne(p), &p);
        minute = ReadNumber(SkipOne(p), &p);
        second = ReadNumber(SkipOne(p), &p);
    }

    if (!InRange(year, month, day, hour, minute, second))
        return KNotAccepted;
    return TimeValue(year, month, day, hour, minute, second);
}

char* CookieParser::HTFindFullHost(const char* text, int& length)
{
    const std::size_t whole = WholeLength(text, length);
    if (whole == 0)
        return nullptr;

    const char* host = std::strstr(text, "//");
    if (host != nullptr)
        host += 2;
    else
        host = (*text == '.') ? text + 1 : text;

    // The answer points into the caller's text, as writable as that text.
    char* const result = const_cast<char*>(host);
    const char* slash = std::strchr(host, '/');
    if (slash == nullptr)
        return result;
    const char* colon = std::strchr(host, ':');
    const char* end = (colon != nullptr && colon < slash) ? colon : slash;
    length = static_cast<int>(end - host);
    return result;
}

char* CookieParser::HTFindFatherHost(const char* text, int& length)
{
    const std::size_t whole = WholeLength(text, length);
    if (whole == 0)
        return nullptr;

    const char* host = std::strstr(text, "//");
    host = host != nullptr ? host + 2 : text;
    const char* hostEnd = std::strchr(host, '/');
    if (hostEnd != nullptr)
        length = static_cast<int>(hostEnd - host);
    else
        hostEnd = text + whole;
    if (*host == '\0')
        return nullptr;

    // The dot may lie beyond the host (in a path); that leaves no parent.
    const char* dot = std::strchr(host + 1, '.');
    if (dot == nullptr)
        return nullptr;
    const char* parent = dot + 1;
    const long parentLength = static_cast<long>(hostEnd - parent);
    length = parentLength < INT_MIN ? INT_MIN : static_cast<int>(parentLength);
    if (parentLength <= 0)
        return nullptr;
    // The answer points into the caller's text, as writable as that text.
    return const_cast<char*>(parent);
}

int CookieParser::strcasecomp(const char* a, const char* b)
{
    if (a == nullptr)
        a = "";
    if (b == nullptr)
        b = "";
    for (; *a != '\0' && *b != '\0'; ++a, ++b) {
        const int diff = std::toupper(static_cast<unsigned char>(*a)) - std::toupper(static_cast<unsigned char>(*b));
        if (diff != 0)
            return diff;
    }
    if (*a != '\0')
        return KFirstLonger;
    if (*b != '\0')
        return KSecondLonger;
    return KEqual;
}

unsigned int CookieParser::GetCurrentTimeToInt()
{
    // The same local date and time that QDateTime::currentDateTime gives, read
    // with localtime_r: Qt re-reads the time zone file on every call, which
    // cost more than the rest of a cookie lookup together. The second comes
    // from CLOCK_REALTIME as Qt reads it: time() uses the coarse clock, which
    // lags by up to a tick and so can still name the previous second.
    struct timespec clock = {};
    clock_gettime(CLOCK_REALTIME, &clock);
    const time_t seconds = clock.tv_sec;
    struct tm local = {};
    if (!localtime_r(&seconds, &local)) {
        const QDateTime now = QDateTime::currentDateTime();
        local.tm_year = now.date().year() - 1900;
        local.tm_mon = now.date().month() - 1;
        local.tm_mday = now.date().day();
        local.tm_hour = now.time().hour();
        local.tm_min = now.time().minute();
        local.tm_sec = now.time().second();
    }
    // Month 1..12 against 0..11 in parsed dates: kept on purpose, stored expiry values depend on it.
    return TimeValue(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                     local.tm_sec);
}
