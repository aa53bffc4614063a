#include "src/CookieParser.h"

#include <QDate>
#include <QDateTime>
#include <QDeadlineTimer>
#include <QLocale>
#include <QTime>

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <cstring>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace {

// The time value of a date on the 30-day-month calendar, unsigned 32-bit.
constexpr std::uint32_t Calendar(std::uint32_t year, std::uint32_t month, std::uint32_t day, std::uint32_t hour,
                                 std::uint32_t minute, std::uint32_t second)
{
    return month * 2592000u + day * 86400u + hour * 3600u + minute * 60u + second + (year - 1970u) * 31536000u;
}

// A heap block of exactly the text and its NUL, so that any read past the
// NUL is an out-of-bounds read under AddressSanitizer.
struct ExactText
{
    explicit ExactText(const std::string& text) : size(text.size() + 1), data(new char[size])
    {
        std::memcpy(data.get(), text.c_str(), size);
    }
    char* get() { return data.get(); }
    char* end() { return data.get() + size - 1; }  // the NUL

    std::size_t size;
    std::unique_ptr<char[]> data;
};

std::string Str(const char* p)
{
    return p ? std::string(p) : std::string("<null>");
}

std::string RowName(const char* name)
{
    std::string out = name;
    for (char& c : out) {
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')))
            c = '_';
    }
    return out;
}

}  // namespace

// ---- HTParseNextField -----------------------------------------------------

TEST(CookieParserField, SkipsLeadingSeparatorsAndStopsAtEquals)
{
    ExactText text("  ,;=name=value");
    char* cursor = text.get();
    char* field = CookieParser::HTParseNextField(&cursor);
    EXPECT_EQ("name", Str(field));
    EXPECT_EQ(text.get() + 5, field);
    EXPECT_EQ("value", Str(cursor));
}

TEST(CookieParserField, QuotedTokenKeepsBlanks)
{
    ExactText text("\"a b\"=x");
    char* cursor = text.get();
    EXPECT_EQ("a b", Str(CookieParser::HTParseNextField(&cursor)));
    EXPECT_EQ(text.get() + 5, cursor);
    EXPECT_EQ("=x", Str(cursor));
}

TEST(CookieParserField, EmptyQuotesGiveEmptyToken)
{
    ExactText text("\"\"=x");
    char* cursor = text.get();
    char* field = CookieParser::HTParseNextField(&cursor);
    ASSERT_NE(nullptr, field);
    EXPECT_EQ("", Str(field));
    EXPECT_EQ("=x", Str(cursor));
}

TEST(CookieParserField, UnterminatedQuoteRunsToTheEnd)
{
    ExactText text("\"abc def");
    char* cursor = text.get();
    EXPECT_EQ("abc def", Str(CookieParser::HTParseNextField(&cursor)));
    EXPECT_EQ(text.end(), cursor);
    EXPECT_EQ(nullptr, CookieParser::HTParseNextField(&cursor));
    EXPECT_EQ(text.end(), cursor);
}

TEST(CookieParserField, EscapedQuoteDoesNotEndTheRunAndStaysInTheText)
{
    ExactText text("\"a\\\"b\" rest");
    char* cursor = text.get();
    EXPECT_EQ("a\\\"b", Str(CookieParser::HTParseNextField(&cursor)));
    EXPECT_EQ(" rest", Str(cursor));
}

TEST(CookieParserField, BackslashJustBeforeTheEndOfAQuotedRun)
{
    ExactText text("\"ab\\");
    char* cursor = text.get();
    EXPECT_EQ("ab\\", Str(CookieParser::HTParseNextField(&cursor)));
    EXPECT_EQ(text.end(), cursor);
}

TEST(CookieParserField, BracketedRun)
{
    ExactText text("<a;b=c>rest");
    char* cursor = text.get();
    EXPECT_EQ("a;b=c", Str(CookieParser::HTParseNextField(&cursor)));
    EXPECT_EQ("rest", Str(cursor));
}

TEST(CookieParserField, UnterminatedBracketRunsToTheEnd)
{
    ExactText text("<abc");
    char* cursor = text.get();
    EXPECT_EQ("abc", Str(CookieParser::HTParseNextField(&cursor)));
    EXPECT_EQ(text.end(), cursor);
}

TEST(CookieParserField, CommentsAreSkipped)
{
    ExactText text(" (a comment; with = signs) name=v");
    char* cursor = text.get();
    EXPECT_EQ("name", Str(CookieParser::HTParseNextField(&cursor)));
    EXPECT_EQ("v", Str(cursor));
}

TEST(CookieParserField, EscapedParenthesisInsideAComment)
{
    ExactText text("(a\\)b) n");
    char* cursor = text.get();
    EXPECT_EQ("n", Str(CookieParser::HTParseNextField(&cursor)));
}

TEST(CookieParserField, UnterminatedCommentLeavesNothing)
{
    ExactText text("(abc");
    char* cursor = text.get();
    EXPECT_EQ(nullptr, CookieParser::HTParseNextField(&cursor));
    EXPECT_EQ(text.end(), cursor);
}

TEST(CookieParserField, BackslashJustBeforeTheEndOfACommentStops)
{
    ExactText text("(ab\\");
    char* cursor = text.get();
    EXPECT_EQ(nullptr, CookieParser::HTParseNextField(&cursor));
    EXPECT_EQ(text.end(), cursor);
}

TEST(CookieParserField, OnlySeparatorsGiveNullWithCursorOnTheEnd)
{
    ExactText text(" ,;= \t");
    char* cursor = text.get();
    EXPECT_EQ(nullptr, CookieParser::HTParseNextField(&cursor));
    EXPECT_EQ(text.end(), cursor);
}

TEST(CookieParserField, NullCursorGivesNull)
{
    char* cursor = nullptr;
    EXPECT_EQ(nullptr, CookieParser::HTParseNextField(&cursor));
    EXPECT_EQ(nullptr, cursor);
    EXPECT_EQ(nullptr, CookieParser::HTParseNextField(nullptr));
}

struct DelimiterRow
{
    const char* name;
    const char* text;
    const char* token;
    const char* rest;
};

void PrintTo(const DelimiterRow& row, std::ostream* os)
{
    *os << row.name;
}

class CookieParserFieldDelimiter : public ::testing::TestWithParam<DelimiterRow>
{
};

TEST_P(CookieParserFieldDelimiter, TokenEndsAtDelimiter)
{
    const DelimiterRow& row = GetParam();
    ExactText text(row.text);
    char* cursor = text.get();
    EXPECT_EQ(row.token, Str(CookieParser::HTParseNextField(&cursor)));
    EXPECT_EQ(row.rest, Str(cursor));
    EXPECT_LE(cursor, text.end());
}

const DelimiterRow kDelimiterRows[] = {
    {"semicolon", "ab;cd", "ab", "cd"},
    {"equals", "ab=cd", "ab", "cd"},
    {"comma", "ab,cd", "ab", "cd"},
    {"blank", "ab cd", "ab", "cd"},
    {"tab", "ab\tcd", "ab", "cd"},
    {"end-of-text", "abcd", "abcd", ""},
    {"quote-inside-token-is-ordinary", "a\"b;c", "a\"b", "c"},
};

INSTANTIATE_TEST_SUITE_P(Rows, CookieParserFieldDelimiter, ::testing::ValuesIn(kDelimiterRows),
                         [](const ::testing::TestParamInfo<DelimiterRow>& info) {
                             return RowName(info.param.name);
                         });

// ---- HTParseNextValue -----------------------------------------------------

TEST(CookieParserValue, SkipsBlanksAndKeepsTrailingBlanks)
{
    ExactText text("   v1 ; x");
    char* cursor = text.get();
    EXPECT_EQ("v1 ", Str(CookieParser::HTParseNextValue(&cursor)));
    EXPECT_EQ(" x", Str(cursor));
}

TEST(CookieParserValue, ImmediateSemicolonGivesEmptyValue)
{
    ExactText text(";x");
    char* cursor = text.get();
    char* value = CookieParser::HTParseNextValue(&cursor);
    ASSERT_NE(nullptr, value);
    EXPECT_EQ("", Str(value));
    EXPECT_EQ("x", Str(cursor));
}

TEST(CookieParserValue, OnlyBlanksGiveNullWithCursorOnTheEnd)
{
    ExactText text("   ");
    char* cursor = text.get();
    EXPECT_EQ(nullptr, CookieParser::HTParseNextValue(&cursor));
    EXPECT_EQ(text.end(), cursor);
}

TEST(CookieParserValue, ValueIsNotUnquoted)
{
    ExactText text("\"q;r\"");
    char* cursor = text.get();
    EXPECT_EQ("\"q", Str(CookieParser::HTParseNextValue(&cursor)));
    EXPECT_EQ("r\"", Str(cursor));
}

TEST(CookieParserValue, ValueAtTheEndLeavesCursorOnTheNul)
{
    ExactText text("a=b,c");
    char* cursor = text.get();
    EXPECT_EQ("a=b,c", Str(CookieParser::HTParseNextValue(&cursor)));
    EXPECT_EQ(text.end(), cursor);
    EXPECT_EQ(nullptr, CookieParser::HTParseNextValue(&cursor));
}

TEST(CookieParserValue, NullCursorGivesNull)
{
    char* cursor = nullptr;
    EXPECT_EQ(nullptr, CookieParser::HTParseNextValue(&cursor));
    EXPECT_EQ(nullptr, CookieParser::HTParseNextValue(nullptr));
}

// ---- HTParseNextParam -----------------------------------------------------

TEST(CookieParserParam, LeadingBlankIsKept)
{
    ExactText text(";; path=/");
    char* cursor = text.get();
    EXPECT_EQ(" path=/", Str(CookieParser::HTParseNextParam(&cursor)));
    EXPECT_EQ(text.end(), cursor);
    EXPECT_EQ(nullptr, CookieParser::HTParseNextParam(&cursor));
}

TEST(CookieParserParam, CommasDoNotEndAParameter)
{
    ExactText text(" expires=Wed, 09 Jun 2021 10:18:14 GMT; path=/");
    char* cursor = text.get();
    EXPECT_EQ(" expires=Wed, 09 Jun 2021 10:18:14 GMT", Str(CookieParser::HTParseNextParam(&cursor)));
    EXPECT_EQ(" path=/", Str(CookieParser::HTParseNextParam(&cursor)));
    EXPECT_EQ(nullptr, CookieParser::HTParseNextParam(&cursor));
}

TEST(CookieParserParam, QuotedParameterGivesItsInside)
{
    ExactText text(";\"x;y\";z");
    char* cursor = text.get();
    EXPECT_EQ("x;y", Str(CookieParser::HTParseNextParam(&cursor)));
    EXPECT_EQ("z", Str(CookieParser::HTParseNextParam(&cursor)));
    EXPECT_EQ(nullptr, CookieParser::HTParseNextParam(&cursor));
}

TEST(CookieParserParam, BracketedAndEmptyRuns)
{
    ExactText text(";<a;b>;\"\"");
    char* cursor = text.get();
    EXPECT_EQ("a;b", Str(CookieParser::HTParseNextParam(&cursor)));
    char* empty = CookieParser::HTParseNextParam(&cursor);
    ASSERT_NE(nullptr, empty);
    EXPECT_EQ("", Str(empty));
    EXPECT_EQ(nullptr, CookieParser::HTParseNextParam(&cursor));
}

TEST(CookieParserParam, UnterminatedRunGivesTheRest)
{
    ExactText text(";\"abc;def");
    char* cursor = text.get();
    EXPECT_EQ("abc;def", Str(CookieParser::HTParseNextParam(&cursor)));
    EXPECT_EQ(text.end(), cursor);
}

TEST(CookieParserParam, CommentsBetweenParametersAreSkipped)
{
    ExactText text(";(skip;me);p");
    char* cursor = text.get();
    EXPECT_EQ("p", Str(CookieParser::HTParseNextParam(&cursor)));
}

TEST(CookieParserParam, OnlySemicolonsGiveNull)
{
    ExactText text(";;;");
    char* cursor = text.get();
    EXPECT_EQ(nullptr, CookieParser::HTParseNextParam(&cursor));
    EXPECT_EQ(text.end(), cursor);
    char* none = nullptr;
    EXPECT_EQ(nullptr, CookieParser::HTParseNextParam(&none));
    EXPECT_EQ(nullptr, CookieParser::HTParseNextParam(nullptr));
}

TEST(CookieParserTokenisers, SetCookieValueTakenApart)
{
    ExactText text("SID=abc; Path=/; Domain=.shop.org");
    char* cursor = text.get();
    EXPECT_EQ("SID", Str(CookieParser::HTParseNextField(&cursor)));
    EXPECT_EQ("abc", Str(CookieParser::HTParseNextValue(&cursor)));

    char* param = CookieParser::HTParseNextParam(&cursor);
    EXPECT_EQ(" Path=/", Str(param));
    EXPECT_EQ("Path", Str(CookieParser::HTParseNextField(&param)));
    EXPECT_EQ("/", Str(param));

    param = CookieParser::HTParseNextParam(&cursor);
    EXPECT_EQ(" Domain=.shop.org", Str(param));
    EXPECT_EQ("Domain", Str(CookieParser::HTParseNextField(&param)));
    EXPECT_EQ(".shop.org", Str(param));

    EXPECT_EQ(nullptr, CookieParser::HTParseNextParam(&cursor));
}

// Every text up to five characters over the bytes that steer the
// tokenisers: each call keeps its results inside the text, always ends, and
// never changes or reads the bytes after the NUL.
TEST(CookieParserTokenisers, EveryShortTextStaysInsideItsBuffer)
{
    const char alphabet[] = "()\"<>\\;=, a";
    const int letters = static_cast<int>(sizeof alphabet - 1);
    typedef char* (*Tokeniser)(char**);
    const Tokeniser tokenisers[] = {&CookieParser::HTParseNextField, &CookieParser::HTParseNextValue,
                                    &CookieParser::HTParseNextParam};
    const char guard[] = "GUARD;=(\"<";
    for (int length = 0; length <= 5; ++length) {
        int total = 1;
        for (int i = 0; i < length; ++i)
            total *= letters;
        for (int n = 0; n < total; ++n) {
            std::string text;
            for (int i = 0, k = n; i < length; ++i, k /= letters)
                text += alphabet[k % letters];
            for (Tokeniser tokenise : tokenisers) {
                std::vector<char> buffer(text.begin(), text.end());
                buffer.push_back('\0');
                buffer.insert(buffer.end(), guard, guard + sizeof guard);
                char* const begin = buffer.data();
                char* const nul = begin + text.size();
                char* cursor = begin;
                int calls = 0;
                while (char* token = tokenise(&cursor)) {
                    ASSERT_GE(token, begin) << text;
                    ASSERT_LE(token, nul) << text;
                    ASSERT_LE(token + std::strlen(token), nul) << text;
                    ASSERT_GE(cursor, begin) << text;
                    ASSERT_LE(cursor, nul) << text;
                    ASSERT_LE(++calls, length + 1) << "no end for '" << text << "'";
                }
                EXPECT_EQ(nul, cursor) << text;
                EXPECT_EQ(0, std::memcmp(nul + 1, guard, sizeof guard)) << text;
            }
        }
    }
}

// ---- strcasecomp ----------------------------------------------------------

TEST(CookieParserStrcasecomp, EqualIgnoringCase)
{
    EXPECT_EQ(0, CookieParser::strcasecomp("Expires", "EXPIRES"));
    EXPECT_EQ(0, CookieParser::strcasecomp("domain", "DoMaIn"));
    EXPECT_EQ(0, CookieParser::strcasecomp("", ""));
}

TEST(CookieParserStrcasecomp, DifferenceOfFirstUnequalUpperCasedPair)
{
    EXPECT_EQ('C' - 'D', CookieParser::strcasecomp("abc", "abd"));
    EXPECT_EQ('B' - 'A', CookieParser::strcasecomp("b", "A"));
    EXPECT_EQ('A' - 'Z', CookieParser::strcasecomp("a", "z"));
}

TEST(CookieParserStrcasecomp, LengthDifference)
{
    EXPECT_EQ(1, CookieParser::strcasecomp("abcd", "ABC"));
    EXPECT_EQ(-1, CookieParser::strcasecomp("abc", "ABCD"));
    EXPECT_EQ(1, CookieParser::strcasecomp("x", ""));
    EXPECT_EQ(-1, CookieParser::strcasecomp("", "x"));
}

TEST(CookieParserStrcasecomp, NullCountsAsEmpty)
{
    EXPECT_EQ(0, CookieParser::strcasecomp(nullptr, ""));
    EXPECT_EQ(-1, CookieParser::strcasecomp(nullptr, "a"));
    EXPECT_EQ(1, CookieParser::strcasecomp("a", nullptr));
}

// ---- HTMake_month ---------------------------------------------------------

TEST(CookieParserMonth, EveryNameInEveryCase)
{
    const char* names[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    CookieParser parser;
    for (int i = 0; i < 12; ++i) {
        std::string mixed = names[i];
        std::string upper = mixed;
        std::string lower = mixed;
        for (char& c : upper)
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        for (char& c : lower)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        for (const std::string& name : {mixed, upper, lower}) {
            ExactText text(name + " 2021");
            const char* end = nullptr;
            EXPECT_EQ(i, parser.HTMake_month(text.get(), &end)) << name;
            EXPECT_EQ(text.get() + 4, end) << name;
        }
    }
}

TEST(CookieParserMonth, SkipsToTheFirstLetterAndEndsPastOneSeparator)
{
    CookieParser parser;
    ExactText text(" 09-Jun-2021");
    char* end = nullptr;
    EXPECT_EQ(5, parser.HTMake_month(text.get(), &end));
    EXPECT_EQ("2021", Str(end));
}

TEST(CookieParserMonth, UnknownNameIsJanuary)
{
    CookieParser parser;
    ExactText text("Foo 1");
    const char* end = nullptr;
    EXPECT_EQ(0, parser.HTMake_month(text.get(), &end));
    EXPECT_EQ("1", Str(end));
}

TEST(CookieParserMonth, NoLetterIsJanuaryAndStopsAtTheEnd)
{
    CookieParser parser;
    ExactText text("12 34");
    const char* end = nullptr;
    EXPECT_EQ(0, parser.HTMake_month(text.get(), &end));
    EXPECT_EQ(text.end(), end);
}

TEST(CookieParserMonth, NullAndEmptyTextAreJanuary)
{
    CookieParser parser;
    const char* end = nullptr;
    EXPECT_EQ(0, parser.HTMake_month(static_cast<const char*>(nullptr), &end));
    ExactText empty("");
    EXPECT_EQ(0, parser.HTMake_month(empty.get(), &end));
    EXPECT_EQ(empty.end(), end);
}

TEST(CookieParserMonth, WithoutAnEndPointer)
{
    CookieParser parser;
    ExactText digits("12 ");
    EXPECT_EQ(0, parser.HTMake_month(digits.get(), static_cast<const char**>(nullptr)));
    ExactText mar("mar");
    EXPECT_EQ(2, parser.HTMake_month(mar.get(), static_cast<char**>(nullptr)));
    EXPECT_EQ(0, parser.HTMake_month(digits.get(), static_cast<char**>(nullptr)));
}

TEST(CookieParserMonth, NameAtTheEndNeverMovesPastTheNul)
{
    CookieParser parser;
    ExactText dec("Dec");
    const char* end = nullptr;
    EXPECT_EQ(11, parser.HTMake_month(dec.get(), &end));
    EXPECT_EQ(dec.end(), end);

    ExactText shortName("  Ju");
    EXPECT_EQ(0, parser.HTMake_month(shortName.get(), &end));
    EXPECT_EQ(shortName.end(), end);
}

// ---- HTParseTime ----------------------------------------------------------

struct TimeRow
{
    const char* name;
    const char* text;
    std::uint32_t expected;
};

void PrintTo(const TimeRow& row, std::ostream* os)
{
    *os << row.name << " ('" << row.text << "' -> " << row.expected << ")";
}

class CookieParserTime : public ::testing::TestWithParam<TimeRow>
{
};

TEST_P(CookieParserTime, Value)
{
    const TimeRow& row = GetParam();
    CookieParser parser;
    ExactText text(row.text);
    EXPECT_EQ(row.expected, parser.HTParseTime(text.get())) << "'" << row.text << "'";
}

const TimeRow kTimeRows[] = {
    // Layout with a comma, month name and four-digit year.
    {"rfc1123", "Wed, 09 Jun 2021 10:18:14 GMT", Calendar(2021, 5, 9, 10, 18, 14)},
    {"rfc1123-without-zone-rest-20", "Wed, 09 Jun 2021 10:18:14", Calendar(2021, 5, 9, 10, 18, 14)},
    {"rfc1123-rest-19-refused", "Wed, 9 Jun 2021 10:18:14", 0},
    {"rfc1123-blanks-after-comma-not-counted", "Wed,    09 Jun 2021 10:18:14", Calendar(2021, 5, 9, 10, 18, 14)},
    {"rfc1123-no-weekday", ", 09 Jun 2021 10:18:14", Calendar(2021, 5, 9, 10, 18, 14)},
    {"rfc1123-zone-ignored", "Wed, 09 Jun 2021 10:18:14 +0800", Calendar(2021, 5, 9, 10, 18, 14)},
    {"rfc1123-lower-case-month", "wed, 09 jun 2021 10:18:14 gmt", Calendar(2021, 5, 9, 10, 18, 14)},
    {"rfc1123-january", "Fri, 01 Jan 2100 00:00:00 GMT", Calendar(2100, 0, 1, 0, 0, 0)},
    {"rfc1123-december", "Fri, 31 Dec 2021 23:59:59 GMT", Calendar(2021, 11, 31, 23, 59, 59)},
    {"rfc1123-unknown-month-is-january", "Wed, 09 Foo 2021 10:18:14 GMT", Calendar(2021, 0, 9, 10, 18, 14)},
    // Hyphenated layout.
    {"rfc850-two-digit-year", "Wednesday, 09-Jun-21 10:18:14 GMT", 0},
    {"rfc850-four-digit-year", "Wednesday, 09-Jun-2021 10:18:14 GMT", Calendar(2021, 5, 9, 10, 18, 14)},
    {"rfc850-rest-18", "Wed, 9-Jun-2021 1:18:14", Calendar(2021, 5, 9, 1, 18, 14)},
    {"rfc850-rest-17-refused", "Wed, 9-Jun-2021 1:8:14", 0},
    // asctime layout.
    {"asctime-24", "Thu Jun  9 10:18:14 2021", Calendar(2021, 5, 9, 10, 18, 14)},
    {"asctime-23-refused", "Thu Jun 9 10:18:14 2021", 0},
    {"asctime-two-digit-day", "Thu Jun 19 10:18:14 2021", Calendar(2021, 5, 19, 10, 18, 14)},
    {"asctime-leading-blanks-skipped", "   Thu Jun  9 10:18:14 2021", Calendar(2021, 5, 9, 10, 18, 14)},
    {"asctime-unknown-month-is-january", "Thu Foo  9 10:18:14 2021", Calendar(2021, 0, 9, 10, 18, 14)},
    {"asctime-two-digit-year", "Thu Jun  9 10:18:14 21   ", 0},
    // ISO 8601 layout, month used as written.
    {"iso-20-refused", "2021-06-09T10:18:14Z", 0},
    {"iso-21", "2021-06-09T10:18:14+0", Calendar(2021, 6, 9, 10, 18, 14)},
    {"iso-zone-text-ignored", "2021-06-09T10:18:14+08:00", Calendar(2021, 6, 9, 10, 18, 14)},
    {"iso-month-00", "2021-00-09T10:18:14+0", Calendar(2021, 0, 9, 10, 18, 14)},
    {"iso-month-11", "2021-11-09T10:18:14+0", Calendar(2021, 11, 9, 10, 18, 14)},
    {"iso-month-12-refused", "2021-12-09T10:18:14+0", 0},
    // Bare numbers.
    {"bare-number", "1234567", 1234567u},
    {"bare-zero", "0", 0},
    {"bare-number-with-trailing-text", "1234567 utc", 1234567u},
    // Any "T" picks the ISO layout, whose length bound then refuses it.
    {"bare-number-with-capital-T-refused", "1234567 GMT", 0},
    {"bare-largest-value", "4294967295", 4294967295u},
    {"digits-without-T-read-as-a-number", "2021-06-09 10:18:14", 2021u},
    // Hour bounds in each calendar layout.
    {"rfc1123-hour-23", "Wed, 09 Jun 2021 23:18:14 GMT", Calendar(2021, 5, 9, 23, 18, 14)},
    {"rfc1123-hour-24-refused", "Wed, 09 Jun 2021 24:18:14 GMT", 0},
    {"rfc1123-hour-25-refused", "Wed, 09 Jun 2021 25:18:14 GMT", 0},
    {"asctime-hour-23", "Thu Jun  9 23:18:14 2021", Calendar(2021, 5, 9, 23, 18, 14)},
    {"asctime-hour-24-refused", "Thu Jun  9 24:18:14 2021", 0},
    {"asctime-hour-25-refused", "Thu Jun  9 25:18:14 2021", 0},
    {"iso-hour-23", "2021-06-09T23:18:14+0", Calendar(2021, 6, 9, 23, 18, 14)},
    {"iso-hour-24-refused", "2021-06-09T24:18:14+0", 0},
    {"iso-hour-25-refused", "2021-06-09T25:18:14+0", 0},
    // Minute and second bounds in each calendar layout.
    {"rfc1123-minute-59", "Wed, 09 Jun 2021 10:59:14 GMT", Calendar(2021, 5, 9, 10, 59, 14)},
    {"rfc1123-minute-60-refused", "Wed, 09 Jun 2021 10:60:14 GMT", 0},
    {"rfc1123-second-59", "Wed, 09 Jun 2021 10:18:59 GMT", Calendar(2021, 5, 9, 10, 18, 59)},
    {"rfc1123-second-60-refused", "Wed, 09 Jun 2021 10:18:60 GMT", 0},
    {"rfc1123-negative-second-refused", "Wed, 09 Jun 2021 10:18:-1 GMT", 0},
    {"asctime-minute-59", "Thu Jun  9 10:59:14 2021", Calendar(2021, 5, 9, 10, 59, 14)},
    {"asctime-minute-60-refused", "Thu Jun  9 10:60:14 2021", 0},
    {"asctime-second-59", "Thu Jun  9 10:18:59 2021", Calendar(2021, 5, 9, 10, 18, 59)},
    {"asctime-second-60-refused", "Thu Jun  9 10:18:60 2021", 0},
    {"iso-minute-59", "2021-06-09T10:59:14+0", Calendar(2021, 6, 9, 10, 59, 14)},
    {"iso-minute-60-refused", "2021-06-09T10:60:14+0", 0},
    {"iso-second-59", "2021-06-09T10:18:59+0", Calendar(2021, 6, 9, 10, 18, 59)},
    {"iso-second-60-refused", "2021-06-09T10:18:60+0", 0},
    // Day bounds.
    {"rfc1123-day-1", "Wed, 01 Jun 2021 10:18:14 GMT", Calendar(2021, 5, 1, 10, 18, 14)},
    {"rfc1123-day-0-refused", "Wed, 00 Jun 2021 10:18:14 GMT", 0},
    {"rfc1123-day-31", "Wed, 31 Jun 2021 10:18:14 GMT", Calendar(2021, 5, 31, 10, 18, 14)},
    {"rfc1123-day-32-refused", "Wed, 32 Jun 2021 10:18:14 GMT", 0},
    {"asctime-day-0-refused", "Thu Jun  0 10:18:14 2021", 0},
    {"asctime-day-32-refused", "Thu Jun 32 10:18:14 2021", 0},
    {"iso-day-0-refused", "2021-06-00T10:18:14+0", 0},
    {"iso-day-31", "2021-06-31T10:18:14+0", Calendar(2021, 6, 31, 10, 18, 14)},
    {"iso-day-32-refused", "2021-06-32T10:18:14+0", 0},
    // Year bounds.
    {"rfc1123-year-1970", "Thu, 01 Jan 1970 00:00:00 GMT", Calendar(1970, 0, 1, 0, 0, 0)},
    {"rfc1123-year-1969-refused", "Wed, 31 Dec 1969 23:59:59 GMT", 0},
    {"asctime-year-1970", "Thu Jan  1 00:00:00 1970", Calendar(1970, 0, 1, 0, 0, 0)},
    {"asctime-year-1969-refused", "Wed Dec 31 23:59:59 1969", 0},
    {"iso-year-1970", "1970-01-01T00:00:00+0", Calendar(1970, 1, 1, 0, 0, 0)},
    {"iso-year-1969-refused", "1969-01-01T00:00:00+0", 0},
    // Not dates.
    {"empty", "", 0},
    {"letters-only", "not a date at all, really", 0},
    {"comma-and-garbage", "x, aaaaaaaaaaaaaaaaaaaaaaaa", 0},
};

INSTANTIATE_TEST_SUITE_P(Rows, CookieParserTime, ::testing::ValuesIn(kTimeRows),
                         [](const ::testing::TestParamInfo<TimeRow>& info) { return RowName(info.param.name); });

TEST(CookieParserTimeEdge, NullTextIsZero)
{
    CookieParser parser;
    EXPECT_EQ(0u, parser.HTParseTime(nullptr));
}

TEST(CookieParserTimeEdge, EveryMonthNameInTheCommaLayout)
{
    const char* names[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    CookieParser parser;
    for (std::uint32_t month = 0; month < 12; ++month) {
        const std::string text = std::string("Sat, 15 ") + names[month] + " 2030 08:09:10 GMT";
        ExactText buffer(text);
        EXPECT_EQ(Calendar(2030, month, 15, 8, 9, 10), parser.HTParseTime(buffer.get())) << text;
    }
}

// Every prefix of an accepted date, in an exactly sized block: the parse
// never reads past the NUL and a prefix too short for its layout gives 0.
TEST(CookieParserTimeEdge, EveryPrefixOfEveryLayoutStaysInsideItsBuffer)
{
    CookieParser parser;
    for (const TimeRow& row : kTimeRows) {
        const std::string whole = row.text;
        for (std::size_t n = 0; n <= whole.size(); ++n) {
            ExactText prefix(whole.substr(0, n));
            const unsigned int value = parser.HTParseTime(prefix.get());
            const bool bareNumber = n > 0 && std::isdigit(static_cast<unsigned char>(whole[0])) &&
                                    whole.substr(0, n).find_first_of(",T") == std::string::npos;
            if (n < 18 && !bareNumber) {
                EXPECT_EQ(0u, value) << "'" << whole.substr(0, n) << "'";
            }
        }
    }
}

// The bytes after the NUL never change the result: random texts are parsed
// once in an exact block and once followed by digits and separators.
TEST(CookieParserTimeEdge, BytesAfterTheNulAreNeverUsed)
{
    const unsigned seed = 20240611u;
    std::mt19937 random(seed);
    const char alphabet[] = "0123456789 ,-:TJunFebDecWd+";
    std::uniform_int_distribution<int> letter(0, static_cast<int>(sizeof alphabet - 2));
    std::uniform_int_distribution<int> length(0, 32);
    CookieParser parser;
    for (int i = 0; i < 20000; ++i) {
        std::string text;
        const int n = length(random);
        for (int k = 0; k < n; ++k)
            text += alphabet[letter(random)];
        ExactText exact(text);
        std::string padded = text;
        padded += '\0';
        padded += "12:34:56 2021 Jun 10";
        const unsigned int alone = parser.HTParseTime(exact.get());
        EXPECT_EQ(alone, parser.HTParseTime(padded.c_str())) << "seed " << seed << " text '" << text << "'";
    }
}

// ---- HTFindFullHost -------------------------------------------------------

TEST(CookieParserFullHost, SchemeRelativeWithPortAndPath)
{
    ExactText text("//shop.org:8080/p");
    int length = -1;
    EXPECT_EQ(text.get() + 2, CookieParser::HTFindFullHost(text.get(), length));
    EXPECT_EQ(8, length);
}

TEST(CookieParserFullHost, LeadingDotSkippedLengthStaysWhole)
{
    ExactText text(".shop.org");
    int length = -1;
    char* host = CookieParser::HTFindFullHost(text.get(), length);
    EXPECT_EQ("shop.org", Str(host));
    EXPECT_EQ(9, length);
}

TEST(CookieParserFullHost, Url)
{
    ExactText text("http://mail.shop.org/x");
    int length = -1;
    EXPECT_EQ(text.get() + 7, CookieParser::HTFindFullHost(text.get(), length));
    EXPECT_EQ(13, length);
}

TEST(CookieParserFullHost, PathWithoutScheme)
{
    ExactText text("shop.org/p:8");
    int length = -1;
    EXPECT_EQ(text.get(), CookieParser::HTFindFullHost(text.get(), length));
    EXPECT_EQ(8, length);
}

TEST(CookieParserFullHost, PortWithoutSlashKeepsWholeLength)
{
    ExactText text("shop.org:80");
    int length = -1;
    EXPECT_EQ(text.get(), CookieParser::HTFindFullHost(text.get(), length));
    EXPECT_EQ(11, length);
}

TEST(CookieParserFullHost, ColonBeforeSlash)
{
    ExactText text("a:1/b");
    int length = -1;
    EXPECT_EQ(text.get(), CookieParser::HTFindFullHost(text.get(), length));
    EXPECT_EQ(1, length);
}

TEST(CookieParserFullHost, NothingAfterSlashes)
{
    ExactText text("//");
    int length = -1;
    EXPECT_EQ(text.end(), CookieParser::HTFindFullHost(text.get(), length));
    EXPECT_EQ(2, length);
}

TEST(CookieParserFullHost, NullAndEmpty)
{
    int length = -1;
    EXPECT_EQ(nullptr, CookieParser::HTFindFullHost(static_cast<const char*>(nullptr), length));
    EXPECT_EQ(0, length);
    ExactText empty("");
    length = -1;
    EXPECT_EQ(nullptr, CookieParser::HTFindFullHost(empty.get(), length));
    EXPECT_EQ(0, length);
}

// ---- HTFindFatherHost -----------------------------------------------------

TEST(CookieParserFatherHost, WalksUpToTheTopLabel)
{
    ExactText text("mail.shop.org");
    int length = -1;
    char* parent = CookieParser::HTFindFatherHost(text.get(), length);
    EXPECT_EQ(text.get() + 5, parent);
    EXPECT_EQ(8, length);
    EXPECT_EQ("shop.org", std::string(parent, static_cast<std::size_t>(length)));

    ExactText second("shop.org");
    parent = CookieParser::HTFindFatherHost(second.get(), length);
    EXPECT_EQ(second.get() + 5, parent);
    EXPECT_EQ(3, length);

    ExactText last("org");
    EXPECT_EQ(nullptr, CookieParser::HTFindFatherHost(last.get(), length));
}

TEST(CookieParserFatherHost, HostOfAUrl)
{
    ExactText text("http://www.x.com/a/b");
    int length = -1;
    EXPECT_EQ(text.get() + 11, CookieParser::HTFindFatherHost(text.get(), length));
    EXPECT_EQ(5, length);
}

TEST(CookieParserFatherHost, DotInThePathIsNoParent)
{
    ExactText text("//org/a.b");
    int length = 0;
    EXPECT_EQ(nullptr, CookieParser::HTFindFatherHost(text.get(), length));
}

TEST(CookieParserFatherHost, DotSearchStartsAtTheSecondCharacter)
{
    ExactText text(".org");
    int length = 0;
    EXPECT_EQ(nullptr, CookieParser::HTFindFatherHost(text.get(), length));
}

TEST(CookieParserFatherHost, TrailingDotLeavesNoParent)
{
    ExactText text("a.");
    int length = 0;
    EXPECT_EQ(nullptr, CookieParser::HTFindFatherHost(text.get(), length));
}

TEST(CookieParserFatherHost, NullEmptyAndBareSlashes)
{
    int length = -1;
    EXPECT_EQ(nullptr, CookieParser::HTFindFatherHost(static_cast<const char*>(nullptr), length));
    ExactText empty("");
    EXPECT_EQ(nullptr, CookieParser::HTFindFatherHost(empty.get(), length));
    EXPECT_EQ(0, length);
    ExactText slashes("//");
    EXPECT_EQ(nullptr, CookieParser::HTFindFatherHost(slashes.get(), length));
    ExactText trailing("a//");
    EXPECT_EQ(nullptr, CookieParser::HTFindFatherHost(trailing.get(), length));
}

TEST(CookieParserHosts, EveryShortTextStaysInsideItsBuffer)
{
    const char alphabet[] = "./:a";
    const int letters = static_cast<int>(sizeof alphabet - 1);
    for (int length = 0; length <= 7; ++length) {
        int total = 1;
        for (int i = 0; i < length; ++i)
            total *= letters;
        for (int n = 0; n < total; ++n) {
            std::string text;
            for (int i = 0, k = n; i < length; ++i, k /= letters)
                text += alphabet[k % letters];
            ExactText buffer(text);
            int len = 0;
            if (const char* host = CookieParser::HTFindFullHost(buffer.get(), len)) {
                EXPECT_GE(host, buffer.get()) << text;
                EXPECT_LE(host, buffer.end()) << text;
                EXPECT_LE(len, length) << text;
            }
            if (const char* parent = CookieParser::HTFindFatherHost(buffer.get(), len)) {
                EXPECT_GT(len, 0) << text;
                EXPECT_LE(parent + len, buffer.end()) << text;
            }
        }
    }
}

// ---- GetCurrentTimeToInt --------------------------------------------------

// The value the current-time call gives for a local date and time: the month
// counted 1..12.
namespace {
std::uint32_t CurrentTimeValue(const QDateTime& moment)
{
    const QDate date = moment.date();
    const QTime time = moment.time();
    return Calendar(static_cast<std::uint32_t>(date.year()), static_cast<std::uint32_t>(date.month()),
                    static_cast<std::uint32_t>(date.day()), static_cast<std::uint32_t>(time.hour()),
                    static_cast<std::uint32_t>(time.minute()), static_cast<std::uint32_t>(time.second()));
}
}  // namespace

// The month of the current time counts 1..12, one month ahead of a parsed
// date in the same calendar month.
TEST(CookieParserCurrentTime, LocalTimeWithMonthCountedFromOne)
{
    for (int attempt = 0; attempt < 5; ++attempt) {
        const QDateTime before = QDateTime::currentDateTime();
        const unsigned int value = CookieParser::GetCurrentTimeToInt();
        const QDateTime after = QDateTime::currentDateTime();
        if (before.toSecsSinceEpoch() != after.toSecsSinceEpoch())
            continue;
        EXPECT_EQ(CurrentTimeValue(before), value);
        return;
    }
    FAIL() << "the clock kept changing second around every call";
}

// Right after the second turns, the value already names the new second: the
// clock read is the one Qt reads, not the coarse one that lags by a tick.
TEST(CookieParserCurrentTime, NamesTheNewSecondRightAfterItTurns)
{
    const qint64 start = QDateTime::currentMSecsSinceEpoch() / 1000;
    const QDeadlineTimer deadline(3000);
    QDateTime turned;
    while (!deadline.hasExpired()) {
        const QDateTime now = QDateTime::currentDateTime();
        if (now.toMSecsSinceEpoch() / 1000 != start) {
            turned = now;
            break;
        }
    }
    ASSERT_TRUE(turned.isValid()) << "the clock did not move for 3 s";
    const unsigned int value = CookieParser::GetCurrentTimeToInt();
    const QDateTime after = QDateTime::currentDateTime();
    ASSERT_EQ(turned.toSecsSinceEpoch(), after.toSecsSinceEpoch()) << "a whole second passed in between";
    EXPECT_EQ(CurrentTimeValue(turned), value);
}

TEST(CookieParserCurrentTime, ParsedDateOfTheSameMomentIsOneMonthEarlier)
{
    CookieParser parser;
    for (int attempt = 0; attempt < 5; ++attempt) {
        const QDateTime before = QDateTime::currentDateTime();
        const unsigned int now = CookieParser::GetCurrentTimeToInt();
        const QDateTime after = QDateTime::currentDateTime();
        if (before.toSecsSinceEpoch() != after.toSecsSinceEpoch())
            continue;
        const std::string text =
            QLocale::c().toString(before, QStringLiteral("ddd, dd MMM yyyy hh:mm:ss")).toStdString() + " GMT";
        ExactText buffer(text);
        EXPECT_EQ(now - 2592000u, parser.HTParseTime(buffer.get())) << text;
        return;
    }
    FAIL() << "the clock kept changing second around every call";
}

// ---- call forms -----------------------------------------------------------
//
// The routines as a caller may write them: without a parser object, with a
// plain null pointer, on read-only text.

TEST(CookieParserCallForms, DatesAndMonthsWithoutAParserObject)
{
    EXPECT_EQ(Calendar(2021, 5, 9, 10, 18, 14), CookieParser::HTParseTime("Wed, 09 Jun 2021 10:18:14 GMT"));
    EXPECT_EQ(1234567u, CookieParser::HTParseTime("1234567"));
    const char* end = nullptr;
    const char text[] = "Sep 2021";
    EXPECT_EQ(8, CookieParser::HTMake_month(text, &end));
    EXPECT_EQ(text + 4, end);
}

TEST(CookieParserCallForms, NullTextsAsPlainNullPointers)
{
    int length = -1;
    EXPECT_EQ(nullptr, CookieParser::HTFindFullHost(nullptr, length));
    length = -1;
    EXPECT_EQ(nullptr, CookieParser::HTFindFatherHost(nullptr, length));
    EXPECT_EQ(0u, CookieParser::HTParseTime(nullptr));
    CookieParser parser;
    EXPECT_EQ(0, parser.HTMake_month(nullptr, nullptr));
    char* end = nullptr;
    EXPECT_EQ(0, parser.HTMake_month(nullptr, &end));
}

TEST(CookieParserCallForms, MonthWithoutAnEndPointer)
{
    ExactText text("  Dec 2021");
    EXPECT_EQ(11, CookieParser::HTMake_month(text.get(), nullptr));
}

TEST(CookieParserCallForms, HostFindersOnReadOnlyText)
{
    const char url[] = "//shop.org:8080/p";
    int length = -1;
    const char* host = CookieParser::HTFindFullHost(url, length);
    EXPECT_EQ(url + 2, host);
    EXPECT_EQ(8, length);

    const char name[] = "mail.shop.org";
    const char* parent = CookieParser::HTFindFatherHost(name, length);
    EXPECT_EQ(name + 5, parent);
    EXPECT_EQ(8, length);

    // A writable text gives a writable answer.
    ExactText writable("//mail.shop.org/x");
    char* writableHost = CookieParser::HTFindFullHost(writable.get(), length);
    EXPECT_EQ(writable.get() + 2, writableHost);
    EXPECT_EQ(13, length);
    char* writableParent = CookieParser::HTFindFatherHost(writable.get(), length);
    EXPECT_EQ(writable.get() + 7, writableParent);
    EXPECT_EQ(8, length);
}
