#include "BaseClass/src/CQString.h"

#include "support/HeapWatch.h"

#include <gtest/gtest.h>

#include <QString>

#include <sys/mman.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

// Failures show the string's bytes (with escapes), not a pointer.
void PrintTo(const CQSString& s, std::ostream* os)
{
    *os << ::testing::PrintToString(std::string(s.GetDataPtr(), static_cast<size_t>(s.GetLength())));
}

void PrintTo(const CQWString& s, std::ostream* os)
{
    *os << ::testing::PrintToString(std::wstring(s.GetDataPtr(), static_cast<size_t>(s.GetLength())));
}

namespace {

// The exact bytes of a narrow string, embedded NULs included; compared as
// std::string so that GoogleTest prints escaped bytes on failure.
std::string Bytes(const CQSString& s)
{
    return std::string(s.GetDataPtr(), static_cast<size_t>(s.GetLength()));
}

std::wstring Wide(const CQWString& s)
{
    return std::wstring(s.GetDataPtr(), static_cast<size_t>(s.GetLength()));
}

const unsigned char* U(const char* text)
{
    return reinterpret_cast<const unsigned char*>(text);
}

// Test names may only hold letters, digits and '_'; rows are written with '-'.
template <typename Row>
std::string RowName(const ::testing::TestParamInfo<Row>& info)
{
    std::string name = info.param.name;
    for (char& c : name) {
        if (c == '-')
            c = '_';
    }
    return name;
}

// The terminating NUL right after the counted bytes.
void ExpectTerminated(const CQSString& s)
{
    EXPECT_EQ('\0', s.GetDataPtr()[s.GetLength()]) << "no NUL after " << s.GetLength() << " bytes";
}

void ExpectTerminated(const CQWString& s)
{
    EXPECT_EQ(L'\0', s.GetDataPtr()[s.GetLength()]) << "no NUL after " << s.GetLength() << " characters";
}

}  // namespace

// ------------------------------------------------------------ construction

TEST(CQSString, DefaultIsEmptyAndPointsAtATerminatedEmptyText)
{
    CQSString s;
    EXPECT_TRUE(s.IsEmpty());
    EXPECT_EQ(0, s.GetLength());
    ASSERT_NE(nullptr, s.GetDataPtr());
    EXPECT_STREQ("", s.GetDataPtr());
    EXPECT_EQ(s.GetDataPtr(), static_cast<const char*>(s));
}

TEST(CQSString, FromTextCopiesTheBytes)
{
    char source[] = "GET / HTTP/1.1";
    CQSString s(source);
    source[0] = 'X';
    EXPECT_EQ("GET / HTTP/1.1", Bytes(s));
    EXPECT_EQ(14, s.GetLength());
    EXPECT_FALSE(s.IsEmpty());
    ExpectTerminated(s);
    EXPECT_NE(static_cast<const char*>(source), s.GetDataPtr());
}

TEST(CQSString, CountedConstructorKeepsEmbeddedNul)
{
    CQSString s("ab\0cd", 5);
    EXPECT_EQ(5, s.GetLength());
    EXPECT_EQ(std::string("ab\0cd", 5), Bytes(s));
    ExpectTerminated(s);
}

TEST(CQSString, ConversionOperatorGivesTheSameBytes)
{
    CQSString s("host");
    const char* p = s;
    EXPECT_EQ(s.GetDataPtr(), p);
    EXPECT_STREQ("host", p);
}

TEST(CQSString, EmptyClearsAndLeavesATerminatedText)
{
    CQSString s("something");
    s.Empty();
    EXPECT_TRUE(s.IsEmpty());
    EXPECT_EQ(0, s.GetLength());
    EXPECT_STREQ("", s.GetDataPtr());
    EXPECT_NE(0, s.AppendData("again"));
    EXPECT_EQ("again", Bytes(s));
}

TEST(CQSString, EmptyOnAnEmptyStringIsHarmless)
{
    CQSString s;
    s.Empty();
    s.Empty();
    EXPECT_TRUE(s.IsEmpty());
    EXPECT_STREQ("", s.GetDataPtr());
}

// ----------------------------------------------------------------- SetData

TEST(CQSString, SetDataReplacesTheContent)
{
    CQSString s("a rather long previous content");
    EXPECT_NE(0, s.SetData("short"));
    EXPECT_EQ("short", Bytes(s));
    EXPECT_EQ(5, s.GetLength());
    ExpectTerminated(s);
    EXPECT_NE(0, s.SetData("now a longer text than before, to make it grow"));
    EXPECT_EQ("now a longer text than before, to make it grow", Bytes(s));
}

TEST(CQSString, SetDataNullGivesTheEmptyString)
{
    CQSString s("old");
    EXPECT_NE(0, s.SetData(static_cast<const char*>(nullptr)));
    EXPECT_TRUE(s.IsEmpty());
    EXPECT_STREQ("", s.GetDataPtr());
}

TEST(CQSString, SetDataEmptyTextGivesTheEmptyString)
{
    CQSString s("old");
    EXPECT_NE(0, s.SetData(""));
    EXPECT_TRUE(s.IsEmpty());
}

TEST(CQSString, SetDataCountedKeepsEmbeddedNulBytes)
{
    CQSString s("old");
    const unsigned char data[] = {'a', 'b', 0, 'c', 0, 'd'};
    EXPECT_NE(0, s.SetData(data, 6));
    EXPECT_EQ(6, s.GetLength());
    EXPECT_EQ(std::string("ab\0c\0d", 6), Bytes(s));
    EXPECT_EQ('a', s.GetAt(0));
    EXPECT_EQ(0, s.GetAt(2));
    EXPECT_EQ('c', s.GetAt(3));
    EXPECT_EQ(0, s.GetAt(4));
    EXPECT_EQ('d', s.GetAt(5));
    ExpectTerminated(s);
}

TEST(CQSString, SetDataCountedTakesOnlyTheCountedBytes)
{
    CQSString s;
    EXPECT_NE(0, s.SetData(U("abcdef"), 3));
    EXPECT_EQ("abc", Bytes(s));
    ExpectTerminated(s);
}

TEST(CQSString, SetDataCountedZeroLengthGivesTheEmptyString)
{
    CQSString s("old");
    EXPECT_NE(0, s.SetData(U("abc"), 0));
    EXPECT_TRUE(s.IsEmpty());
    EXPECT_STREQ("", s.GetDataPtr());
}

TEST(CQSString, SetDataCountedKeepsHighBytes)
{
    const unsigned char data[] = {0x7F, 0x80, 0xFE, 0xFF};
    CQSString s;
    EXPECT_NE(0, s.SetData(data, 4));
    EXPECT_EQ(0x7F, s.GetAt(0));
    EXPECT_EQ(0x80, s.GetAt(1));
    EXPECT_EQ(0xFE, s.GetAt(2));
    EXPECT_EQ(0xFF, s.GetAt(3));
}

TEST(CQSString, SetDataFromItsOwnTail)
{
    CQSString s("prefix:value");
    EXPECT_NE(0, s.SetData(s.GetDataPtr() + 7));
    EXPECT_EQ("value", Bytes(s));
    ExpectTerminated(s);
}

TEST(CQSString, SetDataCountedFromItsOwnMiddle)
{
    CQSString s("0123456789");
    EXPECT_NE(0, s.SetData(U(s.GetDataPtr() + 2), 5));
    EXPECT_EQ("23456", Bytes(s));
    ExpectTerminated(s);
}

TEST(CQSString, SetDataFromWideTakesOneBytePerCharacter)
{
    CQWString wide(L"Host: a");
    CQSString s("old content");
    EXPECT_NE(0, s.SetData(&wide));
    EXPECT_EQ("Host: a", Bytes(s));
    EXPECT_EQ(7, s.GetLength());
    ExpectTerminated(s);
}

TEST(CQSString, SetDataFromWideKeepsTheLowEightBits)
{
    // 0x141 -> 0x41, 0x1F600 -> 0x00 (a NUL byte that still counts), 0xFF -> 0xFF.
    const wchar_t text[] = {L'a', static_cast<wchar_t>(0x141), static_cast<wchar_t>(0x1F600),
                            static_cast<wchar_t>(0xFF), static_cast<wchar_t>(0x80), L'z', 0};
    CQWString wide(text);
    ASSERT_EQ(6, wide.GetLength());
    CQSString s;
    EXPECT_NE(0, s.SetData(&wide));
    EXPECT_EQ(6, s.GetLength());
    EXPECT_EQ(std::string("aA\0\xff\x80z", 6), Bytes(s));
    EXPECT_EQ(0xFF, s.GetAt(3));
    EXPECT_EQ(0x80, s.GetAt(4));
}

TEST(CQSString, SetDataFromEmptyWideEmpties)
{
    CQWString wide;
    CQSString s("old");
    EXPECT_NE(0, s.SetData(&wide));
    EXPECT_TRUE(s.IsEmpty());
}

TEST(CQSString, ConstructAndAssignFromWide)
{
    CQWString wide(L"abc");
    CQSString made(wide);
    EXPECT_EQ("abc", Bytes(made));
    CQSString assigned("previous");
    assigned = wide;
    EXPECT_EQ("abc", Bytes(assigned));
}

TEST(CQSString, AssignFromText)
{
    CQSString s("previous");
    s = "next";
    EXPECT_EQ("next", Bytes(s));
    s = static_cast<const char*>(nullptr);
    EXPECT_TRUE(s.IsEmpty());
}

TEST(CQSString, AssignFromItsOwnPointer)
{
    CQSString s("same text");
    s = s.GetDataPtr();
    EXPECT_EQ("same text", Bytes(s));
    s = s.GetDataPtr() + 5;
    EXPECT_EQ("text", Bytes(s));
}

// ---------------------------------------------------- AppendData/AppendChar

TEST(CQSString, AppendDataAddsAtTheEnd)
{
    CQSString s;
    EXPECT_NE(0, s.AppendData("GET "));
    EXPECT_NE(0, s.AppendData("/index.html"));
    EXPECT_NE(0, s.AppendData(" HTTP/1.1"));
    EXPECT_EQ("GET /index.html HTTP/1.1", Bytes(s));
    EXPECT_EQ(24, s.GetLength());
    ExpectTerminated(s);
}

TEST(CQSString, AppendEmptyTextChangesNothing)
{
    CQSString s("abc");
    EXPECT_NE(0, s.AppendData(""));
    EXPECT_NE(0, s.AppendData(U("xyz"), 0));
    EXPECT_EQ("abc", Bytes(s));
}

TEST(CQSString, AppendDataCountedKeepsEmbeddedNul)
{
    CQSString s("x");
    EXPECT_NE(0, s.AppendData(U("a\0b"), 3));
    EXPECT_EQ(4, s.GetLength());
    EXPECT_EQ(std::string("xa\0b", 4), Bytes(s));
    EXPECT_NE(0, s.AppendData("c"));
    EXPECT_EQ(std::string("xa\0bc", 5), Bytes(s));
    ExpectTerminated(s);
}

TEST(CQSString, AppendDataCountedAfterEmbeddedNulKeepsEverything)
{
    CQSString s("a\0", 2);
    EXPECT_NE(0, s.AppendData(U("\0b"), 2));
    EXPECT_EQ(std::string("a\0\0b", 4), Bytes(s));
}

TEST(CQSString, AppendCharAddsOneByte)
{
    CQSString s("ab");
    EXPECT_NE(0, s.AppendChar('c'));
    EXPECT_EQ("abc", Bytes(s));
    EXPECT_NE(0, s.AppendChar('\xff'));
    EXPECT_EQ(4, s.GetLength());
    EXPECT_EQ(255, s.GetAt(3));
    ExpectTerminated(s);
}

TEST(CQSString, AppendCharNulIsAByteLikeAnyOther)
{
    CQSString s("a");
    EXPECT_NE(0, s.AppendChar('\0'));
    EXPECT_NE(0, s.AppendChar('b'));
    EXPECT_EQ(3, s.GetLength());
    EXPECT_EQ(std::string("a\0b", 3), Bytes(s));
}

TEST(CQSString, AppendCharToEmpty)
{
    CQSString s;
    EXPECT_NE(0, s.AppendChar('&'));
    EXPECT_EQ("&", Bytes(s));
}

TEST(CQSString, ManyAppendsKeepEveryByte)
{
    CQSString s;
    std::string expected;
    for (int i = 0; i < 5000; ++i) {
        const char c = static_cast<char>('a' + i % 26);
        ASSERT_NE(0, s.AppendChar(c));
        expected += c;
    }
    EXPECT_EQ(expected, Bytes(s));
    ExpectTerminated(s);
}

TEST(CQSString, AppendItsOwnBufferToItself)
{
    CQSString s("ab");
    std::string expected = "ab";
    // Enough doublings to make the string grow several times.
    for (int i = 0; i < 10; ++i) {
        ASSERT_NE(0, s.AppendData(s.GetDataPtr())) << "doubling " << i;
        expected += expected;
        ASSERT_EQ(expected, Bytes(s)) << "doubling " << i;
    }
    EXPECT_EQ(2048, s.GetLength());
    ExpectTerminated(s);
}

TEST(CQSString, AppendItsOwnBytesCountedToItself)
{
    CQSString s("0123456789abcdef");  // 16 bytes
    ASSERT_NE(0, s.AppendData(U(s.GetDataPtr() + 4), 8));
    EXPECT_EQ("0123456789abcdef456789ab", Bytes(s));
    ASSERT_NE(0, s.AppendData(U(s.GetDataPtr()), s.GetLength()));
    EXPECT_EQ("0123456789abcdef456789ab0123456789abcdef456789ab", Bytes(s));
}

// ------------------------------------------------------------------- GetAt

TEST(CQSString, GetAtReadsEachByte)
{
    CQSString s("HTTP");
    EXPECT_EQ('H', s.GetAt(0));
    EXPECT_EQ('T', s.GetAt(1));
    EXPECT_EQ('P', s.GetAt(3));
}

TEST(CQSString, GetAtOutsideTheStringIsZero)
{
    CQSString s("abc");
    EXPECT_EQ('a', s.GetAt(0));
    EXPECT_EQ(0, s.GetAt(-1));
    EXPECT_EQ('c', s.GetAt(2));
    EXPECT_EQ(0, s.GetAt(3));
    EXPECT_EQ(0, s.GetAt(4));
    EXPECT_EQ(0, s.GetAt(INT_MAX));
    EXPECT_EQ(0, s.GetAt(INT_MIN));
    CQSString empty;
    EXPECT_EQ(0, empty.GetAt(0));
}

TEST(CQSString, GetAtGivesHighBytesAsZeroTo255)
{
    const unsigned char data[] = {0x7F, 0x80, 0x81, 0xC3, 0xFE, 0xFF};
    CQSString s;
    ASSERT_NE(0, s.SetData(data, 6));
    EXPECT_EQ(127, s.GetAt(0));
    EXPECT_EQ(128, s.GetAt(1));
    EXPECT_EQ(129, s.GetAt(2));
    EXPECT_EQ(195, s.GetAt(3));
    EXPECT_EQ(254, s.GetAt(4));
    EXPECT_EQ(255, s.GetAt(5));
}

// ------------------------------------------------------ Compare, operator==

TEST(CQSString, CompareEqualIsZero)
{
    EXPECT_EQ(0, CQSString("chunked").Compare("chunked"));
    EXPECT_EQ(0, CQSString().Compare(""));
}

TEST(CQSString, CompareNullEqualsEmpty)
{
    EXPECT_EQ(0, CQSString().Compare(nullptr));
    EXPECT_NE(0, CQSString("a").Compare(nullptr));
}

TEST(CQSString, CompareIsCaseSensitive)
{
    EXPECT_NE(0, CQSString("Chunked").Compare("chunked"));
}

TEST(CQSString, CompareAgainstAPrefixOrALongerText)
{
    CQSString s("abc");
    EXPECT_GT(s.Compare("ab"), 0);
    EXPECT_LT(s.Compare("abcd"), 0);
    EXPECT_GT(s.Compare(""), 0);
    EXPECT_LT(CQSString().Compare("a"), 0);
}

TEST(CQSString, CompareHasTheSignOfTheFirstDifference)
{
    EXPECT_LT(CQSString("abc").Compare("abd"), 0);
    EXPECT_GT(CQSString("abd").Compare("abc"), 0);
    EXPECT_LT(CQSString("abz").Compare("b"), 0);
    // Bytes compare as unsigned, like strcmp.
    EXPECT_GT(CQSString("\x80").Compare("a"), 0);
    EXPECT_LT(CQSString("a").Compare("\xff"), 0);
}

TEST(CQSString, CompareSeesBytesAfterAnEmbeddedNul)
{
    CQSString s("ab\0", 3);
    EXPECT_NE(0, s.Compare("ab"));
}

TEST(CQSString, EqualityIsExactBytes)
{
    EXPECT_TRUE(CQSString("abc") == CQSString("abc"));
    EXPECT_FALSE(CQSString("abc") != CQSString("abc"));
    EXPECT_FALSE(CQSString("abc") == CQSString("ABC"));
    EXPECT_TRUE(CQSString("abc") != CQSString("ABC"));
    EXPECT_FALSE(CQSString("abc") == CQSString("ab"));
    EXPECT_FALSE(CQSString("ab") == CQSString("abc"));
    EXPECT_FALSE(CQSString("abc") == CQSString("abc "));
    EXPECT_TRUE(CQSString() == CQSString(""));
    EXPECT_FALSE(CQSString() == CQSString(" "));
}

TEST(CQSString, EqualityLooksPastEmbeddedNul)
{
    EXPECT_TRUE(CQSString("a\0b", 3) == CQSString("a\0b", 3));
    EXPECT_FALSE(CQSString("a\0b", 3) == CQSString("a\0c", 3));
    EXPECT_FALSE(CQSString("a\0b", 3) == CQSString("a"));
    EXPECT_FALSE(CQSString("a\0", 2) == CQSString("a"));
}

TEST(CQSString, EqualityAfterEmptyIgnoresOldBytes)
{
    CQSString a("long old content");
    a.Empty();
    EXPECT_TRUE(a == CQSString());
    ASSERT_NE(0, a.AppendData("x"));
    EXPECT_TRUE(a == CQSString("x"));
}

// -------------------------------------------------------------------- Find

struct FindRow
{
    const char* name;
    const char* text;
    const char* pattern;
    int start;
    int expected;
};

void PrintTo(const FindRow& row, std::ostream* os) { *os << row.name; }

class CQSStringFind : public ::testing::TestWithParam<FindRow>
{
};

TEST_P(CQSStringFind, Text)
{
    const FindRow& row = GetParam();
    EXPECT_EQ(row.expected, CQSString(row.text).Find(row.pattern, row.start))
        << "text \"" << row.text << "\" pattern \"" << row.pattern << "\" start " << row.start;
}

const FindRow kFindRows[] = {
    {"at-start", "Content-Length: 5", "Content", 0, 0},
    {"in-middle", "Content-Length: 5", "Length", 0, 8},
    {"at-end", "Content-Length: 5", ": 5", 0, 14},
    {"whole-string", "abc", "abc", 0, 0},
    {"first-of-several", "a,b,c", ",", 0, 1},
    {"absent", "abc", "x", 0, -1},
    {"longer-than-text", "ab", "abc", 0, -1},
    {"case-sensitive", "Host", "host", 0, -1},
    {"partial-match-then-full", "aab", "ab", 0, 1},
    {"in-empty-text", "", "a", 0, -1},
    {"start-skips-first", "a,b,c", ",", 2, 3},
    {"start-at-occurrence", "a,b,c", ",", 3, 3},
    {"start-just-past-last", "a,b,c", ",", 4, -1},
    {"start-at-end", "abc", "c", 2, 2},
    {"start-negative-searches-from-0", "a,b,c", ",", -5, 1},
    {"start-int-min-searches-from-0", "abc", "a", INT_MIN, 0},
    {"empty-pattern-start-negative", "abc", "", -1, 0},
    {"start-at-length", "abc", "c", 3, -1},
    {"start-past-length", "abc", "c", 4, -1},
    {"empty-pattern-at-start", "abc", "", 0, 0},
    {"empty-pattern-at-offset", "abc", "", 2, 2},
    {"empty-pattern-at-length", "abc", "", 3, 3},
    {"empty-pattern-past-length", "abc", "", 4, -1},
    {"crlfcrlf", "HTTP/1.1 200 OK\r\nA: b\r\n\r\nbody", "\r\n\r\n", 0, 21},
};

INSTANTIATE_TEST_SUITE_P(Rows, CQSStringFind, ::testing::ValuesIn(kFindRows), RowName<FindRow>);

TEST(CQSString, NullPatternIsNeverFound)
{
    EXPECT_EQ(-1, CQSString("abc").Find(nullptr));
    EXPECT_EQ(-1, CQSString().Find(nullptr));
}

TEST(CQSString, FindCharWithStart)
{
    CQSString s("a=1&b=2");
    EXPECT_EQ(1, s.Find('='));
    EXPECT_EQ(5, s.Find('=', 2));
    EXPECT_EQ(5, s.Find('=', 5));
    EXPECT_EQ(-1, s.Find('=', 6));
    EXPECT_EQ(-1, s.Find('#'));
}

TEST(CQSString, FindSeesBytesAfterAnEmbeddedNul)
{
    CQSString s("a\0bc", 4);
    EXPECT_EQ(2, s.Find("bc"));
    EXPECT_EQ(1, s.Find('\0'));
}

TEST(CQSString, FindHighBytes)
{
    CQSString s("ab\xc3\xa9z");
    EXPECT_EQ(2, s.Find("\xc3\xa9"));
    EXPECT_EQ(3, s.Find('\xa9'));
}

// ------------------------------------------------------- prefix and suffix

struct AffixRow
{
    const char* name;
    const char* text;
    const char* affix;
    bool startWith;
    bool startWithNoCase;
    bool endWith;
    bool endWithNoCase;
};

void PrintTo(const AffixRow& row, std::ostream* os) { *os << row.name; }

class CQSStringAffix : public ::testing::TestWithParam<AffixRow>
{
};

TEST_P(CQSStringAffix, StartAndEnd)
{
    const AffixRow& row = GetParam();
    const CQSString s(row.text);
    EXPECT_EQ(row.startWith, s.IsStartWith(row.affix)) << "IsStartWith(\"" << row.affix << "\")";
    EXPECT_EQ(row.startWithNoCase, s.IsStartWithNoCase(row.affix)) << "IsStartWithNoCase(\"" << row.affix << "\")";
    EXPECT_EQ(row.endWith, s.IsEndWith(row.affix)) << "IsEndWith(\"" << row.affix << "\")";
    EXPECT_EQ(row.endWithNoCase, s.IsEndWithNoCase(row.affix)) << "IsEndWithNoCase(\"" << row.affix << "\")";
}

const AffixRow kAffixRows[] = {
    // name                      text                    affix         sw     swNC   ew     ewNC
    {"exact-prefix", "http://host/", "http://", true, true, false, false},
    {"prefix-other-case", "HTTP://host/", "http://", false, true, false, false},
    {"exact-suffix", "index.html", ".html", false, false, true, true},
    {"suffix-other-case", "INDEX.HTML", ".html", false, false, false, true},
    {"mixed-case-suffix", "photo.JpG", ".jpg", false, false, false, true},
    {"whole-string", "abc", "abc", true, true, true, true},
    {"whole-string-other-case", "abc", "ABC", false, true, false, true},
    {"affix-one-longer", "abc", "abcd", false, false, false, false},
    {"affix-one-longer-at-front", "abc", "xabc", false, false, false, false},
    {"empty-affix", "abc", "", true, true, true, true},
    {"empty-text-empty-affix", "", "", true, true, true, true},
    {"empty-text", "", "a", false, false, false, false},
    {"inside-only", "xaby", "ab", false, false, false, false},
    {"non-letters-exact", "[1]", "[", true, true, false, false},
    // '@' and '`' sit just beside 'A' and 'a'; '[' and '{' beside 'Z' and 'z'.
    {"no-case-only-letters-at", "@x", "`", false, false, false, false},
    {"no-case-only-letters-bracket", "x[", "{", false, false, false, false},
    {"high-bytes-not-folded", "\xc4x", "\xe4", false, false, false, false},
};

INSTANTIATE_TEST_SUITE_P(Rows, CQSStringAffix, ::testing::ValuesIn(kAffixRows), RowName<AffixRow>);

TEST(CQSString, NullAffixIsTheEmptyAffix)
{
    const CQSString s("abc");
    EXPECT_TRUE(s.IsStartWith(nullptr));
    EXPECT_TRUE(s.IsStartWithNoCase(nullptr));
    EXPECT_TRUE(s.IsEndWith(nullptr));
    EXPECT_TRUE(s.IsEndWithNoCase(nullptr));
    EXPECT_TRUE(CQSString().IsStartWith(nullptr));
    EXPECT_TRUE(CQSString().IsEndWith(nullptr));
}

TEST(CQSString, PrefixTestSeesEmbeddedNul)
{
    CQSString s("a\0b", 3);
    EXPECT_TRUE(s.IsStartWith("a"));
    EXPECT_TRUE(s.IsEndWith("b"));
    EXPECT_TRUE(s.IsEndWithNoCase("B"));
    EXPECT_FALSE(s.IsEndWith("ab"));
}

// ------------------------------------------------------ MakeLower/MakeUpper

TEST(CQSString, MakeLowerFoldsAsciiLettersOnly)
{
    CQSString s("Content-TYPE: Text/HTML; 123 @[`{");
    s.MakeLower();
    EXPECT_EQ("content-type: text/html; 123 @[`{", Bytes(s));
}

TEST(CQSString, MakeLowerLeavesHighBytesAlone)
{
    // Latin-1 upper case letters and UTF-8 bytes are not ASCII.
    CQSString s("\xc0\xc4\xde\xc3\x89Z");
    s.MakeLower();
    EXPECT_EQ("\xc0\xc4\xde\xc3\x89z", Bytes(s));
}

TEST(CQSString, MakeLowerKeepsLengthAndEmbeddedNul)
{
    CQSString s("A\0B", 3);
    s.MakeLower();
    EXPECT_EQ(std::string("a\0b", 3), Bytes(s));
}

TEST(CQSString, MakeLowerOnEmptyString)
{
    CQSString s;
    s.MakeLower();
    EXPECT_TRUE(s.IsEmpty());
}

TEST(CQSString, MakeUpperFoldsAsciiLettersOnly)
{
    CQSString s("gzip, deflate; q=0.5 @[`{ \xe4");
    s.MakeUpper();
    EXPECT_EQ("GZIP, DEFLATE; Q=0.5 @[`{ \xe4", Bytes(s));
}

// ----------------------------------------------------------------- Replace

struct ReplaceRow
{
    const char* name;
    const char* text;
    const char* oldText;
    const char* newText;
    int count;
    const char* expected;
};

void PrintTo(const ReplaceRow& row, std::ostream* os) { *os << row.name; }

class CQSStringReplace : public ::testing::TestWithParam<ReplaceRow>
{
};

TEST_P(CQSStringReplace, Text)
{
    const ReplaceRow& row = GetParam();
    CQSString s(row.text);
    EXPECT_EQ(row.count, s.Replace(row.oldText, row.newText));
    EXPECT_EQ(row.expected, Bytes(s));
    ExpectTerminated(s);
}

const ReplaceRow kReplaceRows[] = {
    {"every-occurrence", "a-b-c-d", "-", "+", 3, "a+b+c+d"},
    {"single", "a-b", "-", "+", 1, "a+b"},
    {"empty-new-deletes", "a-b-c", "-", "", 2, "abc"},
    {"null-new-deletes", "a-b-c", "-", nullptr, 2, "abc"},
    {"growing", "a.b", ".", "...", 1, "a...b"},
    {"shrinking", "a::b::c", "::", "/", 2, "a/b/c"},
    {"backslashes-to-slashes", "C:\\data\\iap.dat", "\\", "/", 2, "C:/data/iap.dat"},
    {"no-rescan-of-new-text", "aaa", "a", "aa", 3, "aaaaaa"},
    {"new-contains-old", "x", "x", "xx", 1, "xx"},
    {"new-recreates-old", "aab", "ab", "b", 1, "ab"},
    {"overlap-even", "aaaa", "aa", "b", 2, "bb"},
    {"overlap-odd", "aaa", "aa", "b", 1, "ba"},
    {"adjacent", "abab", "ab", "X", 2, "XX"},
    {"at-both-ends", "xax", "x", "yy", 2, "yyayy"},
    {"whole-string", "abc", "abc", "", 1, ""},
    {"whole-string-by-other", "abc", "abc", "xyz", 1, "xyz"},
    {"absent", "abc", "x", "y", 0, "abc"},
    {"old-one-longer-than-text", "abc", "abcd", "y", 0, "abc"},
    {"case-sensitive", "AaA", "a", "x", 1, "AxA"},
    {"empty-old-is-no-op", "abc", "", "x", 0, "abc"},
    {"in-empty-text", "", "a", "b", 0, ""},
    {"crlf-to-lf", "a\r\nb\r\n", "\r\n", "\n", 2, "a\nb\n"},
};

INSTANTIATE_TEST_SUITE_P(Rows, CQSStringReplace, ::testing::ValuesIn(kReplaceRows), RowName<ReplaceRow>);

TEST(CQSString, ReplaceNullOldIsNoOp)
{
    CQSString s("abc");
    EXPECT_EQ(0, s.Replace(nullptr, "x"));
    EXPECT_EQ("abc", Bytes(s));
}

TEST(CQSString, ReplaceSeesBytesAfterAnEmbeddedNul)
{
    CQSString s("a\0a", 3);
    EXPECT_EQ(2, s.Replace("a", "bc"));
    EXPECT_EQ(std::string("bc\0bc", 5), Bytes(s));
}

TEST(CQSString, ReplaceWithTextFromItsOwnBuffer)
{
    CQSString s("a-b");
    EXPECT_EQ(1, s.Replace("-", s.GetDataPtr()));
    EXPECT_EQ("aa-bb", Bytes(s));
}

TEST(CQSString, ReplaceManyOccurrences)
{
    CQSString s;
    std::string expected;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_NE(0, s.AppendData("ab"));
        expected += "xyzb";
    }
    EXPECT_EQ(1000, s.Replace("a", "xyz"));
    EXPECT_EQ(expected, Bytes(s));
}

// ------------------------------------------------------------------- Trims

struct TrimRow
{
    const char* name;
    const char* text;
    const char* left;   // after TrimLeft
    const char* right;  // after TrimRight
    const char* both;   // after TrimRightAndLeft
};

void PrintTo(const TrimRow& row, std::ostream* os) { *os << row.name; }

class CQSStringTrim : public ::testing::TestWithParam<TrimRow>
{
};

TEST_P(CQSStringTrim, Left)
{
    CQSString s(GetParam().text);
    s.TrimLeft();
    EXPECT_EQ(GetParam().left, Bytes(s));
    ExpectTerminated(s);
}

TEST_P(CQSStringTrim, Right)
{
    CQSString s(GetParam().text);
    s.TrimRight();
    EXPECT_EQ(GetParam().right, Bytes(s));
    ExpectTerminated(s);
}

TEST_P(CQSStringTrim, RightAndLeft)
{
    CQSString s(GetParam().text);
    s.TrimRightAndLeft();
    EXPECT_EQ(GetParam().both, Bytes(s));
    ExpectTerminated(s);
}

const TrimRow kTrimRows[] = {
    {"no-blanks", "abc", "abc", "abc", "abc"},
    {"spaces-both-sides", "  abc  ", "abc  ", "  abc", "abc"},
    {"one-space-each-side", " a ", "a ", " a", "a"},
    {"tabs", "\tabc\t", "abc\t", "\tabc", "abc"},
    {"cr-lf", "\r\nabc\r\n", "abc\r\n", "\r\nabc", "abc"},
    {"mixed-blanks", " \t\r\n v \n\r\t ", "v \n\r\t ", " \t\r\n v", "v"},
    {"inner-blanks-kept", "  a b\tc  ", "a b\tc  ", "  a b\tc", "a b\tc"},
    {"only-blanks", " \t\r\n ", "", "", ""},
    {"one-blank", " ", "", "", ""},
    {"empty", "", "", "", ""},
    // Vertical tab and form feed are not blanks.
    {"vertical-tab-kept", "\vab\v", "\vab\v", "\vab\v", "\vab\v"},
    {"form-feed-kept", "\f ab \f", "\f ab \f", "\f ab \f", "\f ab \f"},
    {"high-byte-kept", "\xa0x\xa0", "\xa0x\xa0", "\xa0x\xa0", "\xa0x\xa0"},
};

INSTANTIATE_TEST_SUITE_P(Rows, CQSStringTrim, ::testing::ValuesIn(kTrimRows), RowName<TrimRow>);

// ----------------------------------------------------- FilterInvisibleChar

TEST(CQSString, FilterInvisibleCharKeepsOnlyPrintableAscii)
{
    std::string all;
    for (int c = 0; c < 256; ++c)
        all += static_cast<char>(c);
    std::string printable;
    for (int c = 0x20; c <= 0x7E; ++c)
        printable += static_cast<char>(c);

    CQSString s(all.data(), static_cast<int>(all.size()));
    ASSERT_EQ(256, s.GetLength());
    s.FilterInvisibleChar();
    EXPECT_EQ(printable, Bytes(s));
    EXPECT_EQ(95, s.GetLength());
    ExpectTerminated(s);
}

TEST(CQSString, FilterInvisibleCharEdges)
{
    // 0x1F and 0x7F go, 0x20 and 0x7E stay; so do nothing >= 0x80.
    CQSString s("\x1f\x20\x7e\x7f\x80\xff");
    s.FilterInvisibleChar();
    EXPECT_EQ(" ~", Bytes(s));
}

TEST(CQSString, FilterInvisibleCharRemovesControlsInsideText)
{
    CQSString s("a\tb\r\nc\x01" "d\x7f" "e\xc3\xa9" "f");
    s.FilterInvisibleChar();
    EXPECT_EQ("abcdef", Bytes(s));
}

TEST(CQSString, FilterInvisibleCharRemovesEmbeddedNul)
{
    CQSString s("a\0b", 3);
    s.FilterInvisibleChar();
    EXPECT_EQ("ab", Bytes(s));
}

TEST(CQSString, FilterInvisibleCharOnPrintableOrEmpty)
{
    CQSString s("Hello, World!");
    s.FilterInvisibleChar();
    EXPECT_EQ("Hello, World!", Bytes(s));
    CQSString none("\r\n\t");
    none.FilterInvisibleChar();
    EXPECT_TRUE(none.IsEmpty());
    CQSString empty;
    empty.FilterInvisibleChar();
    EXPECT_TRUE(empty.IsEmpty());
}

// ------------------------------------------------------------------- ToINT

struct IntRow
{
    const char* name;
    const char* text;
    int expected;
};

void PrintTo(const IntRow& row, std::ostream* os) { *os << row.name; }

class CQSStringToINT : public ::testing::TestWithParam<IntRow>
{
};

TEST_P(CQSStringToINT, Value)
{
    EXPECT_EQ(GetParam().expected, CQSString(GetParam().text).ToINT()) << "text \"" << GetParam().text << "\"";
}

const IntRow kToIntRows[] = {
    {"empty", "", 0},
    {"digits", "42", 42},
    {"zero", "0", 0},
    {"single-nine", "9", 9},
    {"leading-zeros", "007", 7},
    {"leading-spaces", "   42", 42},
    {"leading-tab", "\t42", 42},
    {"mixed-blanks", " \t \t42", 42},
    {"negative", "-42", -42},
    {"negative-after-blanks", "  -7", -7},
    {"minus-alone", "-", 0},
    {"minus-zero", "-0", 0},
    {"plus-is-not-a-sign", "+5", 0},
    {"double-minus", "--5", 0},
    {"blank-after-minus", "- 5", 0},
    {"stops-at-letter", "12ab", 12},
    {"stops-at-blank", "1 2", 1},
    {"stops-at-dot", "3.9", 3},
    {"stops-at-second-minus", "5-3", 5},
    {"trailing-crlf", "17\r\n", 17},
    {"letters-only", "abc", 0},
    {"letter-then-digits", "a12", 0},
    {"blanks-only", "  \t ", 0},
    // Only space and tab are skipped before the number.
    {"leading-lf-stops", "\n5", 0},
    {"leading-cr-stops", "\r5", 0},
    {"hex-prefix", "0x10", 0},
    // '/' and ':' sit just beside '0' and '9'.
    {"slash-is-not-a-digit", "/1", 0},
    {"colon-ends-number", "9:1", 9},
    {"high-byte-ends-number", "1\xb2", 1},
    {"int-max", "2147483647", INT_MAX},
    {"int-max-plus-one-wraps", "2147483648", INT_MIN},
    {"int-min", "-2147483648", INT_MIN},
    {"int-min-minus-one-wraps", "-2147483649", INT_MAX},
    {"content-length", "Content-Length", 0},
    {"status-code", "200 OK", 200},
};

INSTANTIATE_TEST_SUITE_P(Rows, CQSStringToINT, ::testing::ValuesIn(kToIntRows), RowName<IntRow>);

// ToINT64: the same reading in 64 bits; past 2^63 - 1 it clamps and says so.

struct Int64Row
{
    const char* name;
    const char* text;
    long long expected;
    bool fits;
};

void PrintTo(const Int64Row& row, std::ostream* os) { *os << row.name; }

class CQSStringToINT64 : public ::testing::TestWithParam<Int64Row>
{
};

TEST_P(CQSStringToINT64, Value)
{
    bool fits = !GetParam().fits;
    EXPECT_EQ(GetParam().expected, CQSString(GetParam().text).ToINT64(&fits)) << "text \"" << GetParam().text << "\"";
    EXPECT_EQ(GetParam().fits, fits);
    EXPECT_EQ(GetParam().expected, CQSString(GetParam().text).ToINT64());
}

const Int64Row kToInt64Rows[] = {
    {"empty", "", 0, true},
    {"digits-after-blanks", " \t42x", 42, true},
    {"negative", "-42", -42, true},
    {"letters-only", "abc", 0, true},
    {"int-max", "2147483647", 2147483647LL, true},
    {"int-max-plus-one", "2147483648", 2147483648LL, true},
    {"uint-max", "4294967295", 4294967295LL, true},
    {"uint-max-plus-one", "4294967296", 4294967296LL, true},
    {"int64-max", "9223372036854775807", LLONG_MAX, true},
    {"int64-max-plus-one-clamps", "9223372036854775808", LLONG_MAX, false},
    {"two-to-the-64-clamps", "18446744073709551616", LLONG_MAX, false},
    {"thirty-digits-clamp", "123456789012345678901234567890", LLONG_MAX, false},
    {"leading-zeros-fit", "000000000000000000000000000009", 9, true},
    {"int64-min-plus-one", "-9223372036854775807", -LLONG_MAX, true},
    {"negative-past-clamps", "-9223372036854775808", LLONG_MIN, false},
};

INSTANTIATE_TEST_SUITE_P(Rows, CQSStringToINT64, ::testing::ValuesIn(kToInt64Rows), RowName<Int64Row>);

TEST(CQSString, ToIntStopsAtEmbeddedNul)
{
    EXPECT_EQ(1, CQSString("1\0" "2", 3).ToINT());
    EXPECT_EQ(1u, CQSString("1\0" "2", 3).ToUINT());
    EXPECT_EQ(1, CQSString("1\0" "2", 3).ToHEX());
}

TEST(CQSString, ToIntReadsOnlyTheCountedBytes)
{
    // "123" with only "12" counted.
    CQSString s;
    ASSERT_NE(0, s.SetData(U("123"), 2));
    EXPECT_EQ(12, s.ToINT());
    EXPECT_EQ(12u, s.ToUINT());
    EXPECT_EQ(0x12, s.ToHEX());
}

// ------------------------------------------------------------------ ToUINT

struct UintRow
{
    const char* name;
    const char* text;
    unsigned int expected;
};

void PrintTo(const UintRow& row, std::ostream* os) { *os << row.name; }

class CQSStringToUINT : public ::testing::TestWithParam<UintRow>
{
};

TEST_P(CQSStringToUINT, Value)
{
    EXPECT_EQ(GetParam().expected, CQSString(GetParam().text).ToUINT()) << "text \"" << GetParam().text << "\"";
}

const UintRow kToUintRows[] = {
    {"empty", "", 0u},
    {"digits", "42", 42u},
    {"zero", "0", 0u},
    {"leading-zeros", "0010", 10u},
    {"leading-blanks", " \t 42", 42u},
    {"minus-is-not-accepted", "-42", 0u},
    {"plus-is-not-a-sign", "+42", 0u},
    {"stops-at-letter", "12ab", 12u},
    {"stops-at-blank", "3 4", 3u},
    {"leading-lf-stops", "\n5", 0u},
    {"letters-only", "abc", 0u},
    {"int-max", "2147483647", 2147483647u},
    {"int-max-plus-one", "2147483648", 2147483648u},
    {"uint-max", "4294967295", UINT_MAX},
    {"uint-max-plus-one-wraps", "4294967296", 0u},
    {"file-size", "1048576\r\n", 1048576u},
};

INSTANTIATE_TEST_SUITE_P(Rows, CQSStringToUINT, ::testing::ValuesIn(kToUintRows), RowName<UintRow>);

// ------------------------------------------------------------------- ToHEX

class CQSStringToHEX : public ::testing::TestWithParam<IntRow>
{
};

TEST_P(CQSStringToHEX, Value)
{
    EXPECT_EQ(GetParam().expected, CQSString(GetParam().text).ToHEX()) << "text \"" << GetParam().text << "\"";
}

const IntRow kToHexRows[] = {
    {"empty", "", 0},
    {"zero", "0", 0},
    {"lower", "1a", 26},
    {"upper", "1A", 26},
    {"mixed-case", "aB", 0xAB},
    {"ff", "ff", 255},
    {"FF", "FF", 255},
    {"all-lower-letters", "abcdef", 0xABCDEF},
    {"all-upper-letters", "ABCDEF", 0xABCDEF},
    {"all-digits", "12345678", 0x12345678},
    {"leading-zeros", "00000010", 16},
    {"chunk-line-with-extension", "\r\n1a;ext=1", 26},
    {"chunk-size-then-crlf", "  ff\r\n", 255},
    {"leading-lf-only", "\n10", 16},
    {"leading-cr-only", "\r10", 16},
    {"leading-tab", "\t10", 16},
    {"many-line-ends-and-blanks", "\r\n\r\n \t 20", 32},
    {"last-chunk", "0\r\n", 0},
    {"last-chunk-after-crlf", "\r\n0\r\n\r\n", 0},
    {"stops-at-semicolon", "1a;name=value", 26},
    {"stops-at-blank", "1 2", 1},
    {"no-hex-digit", "zz", 0},
    {"g-is-not-hex", "g", 0},
    {"stops-at-g", "fg", 15},
    {"G-is-not-hex", "FG", 15},
    // '@' and '`' sit just before 'A' and 'a'; '/' and ':' beside '0' and '9'.
    {"at-sign-is-not-hex", "@", 0},
    {"backquote-is-not-hex", "`", 0},
    {"slash-is-not-hex", "/", 0},
    {"colon-ends-number", "9:", 9},
    {"prefix-0x-ends-at-x", "0x1a", 0},
    {"minus-is-not-a-sign", "-1", 0},
    {"plus-is-not-a-sign", "+1", 0},
    {"line-ends-only", "\r\n", 0},
    {"vertical-tab-is-not-skipped", "\v5", 0},
    {"int-max", "7fffffff", INT_MAX},
};

INSTANTIATE_TEST_SUITE_P(Rows, CQSStringToHEX, ::testing::ValuesIn(kToHexRows), RowName<IntRow>);

// ---------------------------------------------------------------- ToString

struct ToStringIntRow
{
    const char* name;
    int value;
    const char* expected;
};

void PrintTo(const ToStringIntRow& row, std::ostream* os) { *os << row.name; }

class CQSStringToStringInt : public ::testing::TestWithParam<ToStringIntRow>
{
};

TEST_P(CQSStringToStringInt, ReplacesContent)
{
    CQSString s("previous content, longer than any number");
    s.ToString(GetParam().value);
    EXPECT_EQ(GetParam().expected, Bytes(s));
    ExpectTerminated(s);
}

TEST_P(CQSStringToStringInt, ReadsBackWithToINT)
{
    CQSString s;
    s.ToString(GetParam().value);
    EXPECT_EQ(GetParam().value, s.ToINT());
}

const ToStringIntRow kToStringIntRows[] = {
    {"int-min", INT_MIN, "-2147483648"},
    {"int-min-plus-one", INT_MIN + 1, "-2147483647"},
    {"minus-one", -1, "-1"},
    {"zero", 0, "0"},
    {"one", 1, "1"},
    {"nine", 9, "9"},
    {"ten", 10, "10"},
    {"int-max", INT_MAX, "2147483647"},
};

INSTANTIATE_TEST_SUITE_P(Rows, CQSStringToStringInt, ::testing::ValuesIn(kToStringIntRows),
                         RowName<ToStringIntRow>);

struct ToStringUintRow
{
    const char* name;
    unsigned int value;
    const char* expected;
};

void PrintTo(const ToStringUintRow& row, std::ostream* os) { *os << row.name; }

class CQSStringToStringUint : public ::testing::TestWithParam<ToStringUintRow>
{
};

TEST_P(CQSStringToStringUint, ReplacesContent)
{
    CQSString s("previous");
    s.ToString(GetParam().value);
    EXPECT_EQ(GetParam().expected, Bytes(s));
    ExpectTerminated(s);
}

TEST_P(CQSStringToStringUint, ReadsBackWithToUINT)
{
    CQSString s;
    s.ToString(GetParam().value);
    EXPECT_EQ(GetParam().value, s.ToUINT());
}

const ToStringUintRow kToStringUintRows[] = {
    {"zero", 0u, "0"},
    {"one", 1u, "1"},
    {"int-max", 2147483647u, "2147483647"},
    {"int-max-plus-one", 2147483648u, "2147483648"},
    {"uint-max-minus-one", UINT_MAX - 1u, "4294967294"},
    {"uint-max", UINT_MAX, "4294967295"},
};

INSTANTIATE_TEST_SUITE_P(Rows, CQSStringToStringUint, ::testing::ValuesIn(kToStringUintRows),
                         RowName<ToStringUintRow>);

// ------------------------------------------- GetSubString by start and count

struct SubRow
{
    const char* name;
    const char* text;
    int start;
    int count;
    bool ok;
    const char* expected;
};

void PrintTo(const SubRow& row, std::ostream* os) { *os << row.name; }

class CQSStringSubByCount : public ::testing::TestWithParam<SubRow>
{
};

TEST_P(CQSStringSubByCount, Copy)
{
    const SubRow& row = GetParam();
    const CQSString s(row.text);
    CQSString out("junk that must go");
    const int result = s.GetSubString(out, row.start, row.count);
    if (row.ok)
        EXPECT_NE(0, result) << "start " << row.start << " count " << row.count;
    else
        EXPECT_EQ(0, result) << "start " << row.start << " count " << row.count;
    EXPECT_EQ(row.expected, Bytes(out));
    ExpectTerminated(out);
    EXPECT_EQ(row.text, Bytes(s)) << "the source must not change";
}

const SubRow kSubRows[] = {
    {"start-0-count-0", "hello", 0, 0, true, ""},
    {"start-0-count-1", "hello", 0, 1, true, "h"},
    {"middle", "hello", 1, 3, true, "ell"},
    {"whole", "hello", 0, 5, true, "hello"},
    {"count-one-past-end-is-cut", "hello", 0, 6, true, "hello"},
    {"count-far-past-end-is-cut", "hello", 2, 100, true, "llo"},
    {"count-int-max-is-cut", "hello", 2, INT_MAX, true, "llo"},
    {"last-byte", "hello", 4, 1, true, "o"},
    {"last-byte-count-past-end", "hello", 4, 2, true, "o"},
    {"start-at-length", "hello", 5, 0, true, ""},
    {"start-at-length-with-count", "hello", 5, 3, true, ""},
    {"start-one-past-length", "hello", 6, 0, false, ""},
    {"start-far-past-length", "hello", 100, 1, false, ""},
    {"start-zero", "hello", 0, 2, true, "he"},
    {"start-negative", "hello", -1, 2, false, ""},
    {"start-int-min", "hello", INT_MIN, 2, false, ""},
    {"count-negative", "hello", 0, -1, false, ""},
    {"count-int-min", "hello", 1, INT_MIN, false, ""},
    {"empty-source-start-0", "", 0, 0, true, ""},
    {"empty-source-count-past-end", "", 0, 5, true, ""},
    {"empty-source-start-1", "", 1, 0, false, ""},
};

INSTANTIATE_TEST_SUITE_P(Rows, CQSStringSubByCount, ::testing::ValuesIn(kSubRows), RowName<SubRow>);

TEST(CQSString, GetSubStringCopiesEmbeddedNul)
{
    const CQSString s("ab\0cd", 5);
    CQSString out;
    EXPECT_NE(0, s.GetSubString(out, 1, 3));
    EXPECT_EQ(std::string("b\0c", 3), Bytes(out));
}

TEST(CQSString, GetSubStringIntoItself)
{
    CQSString s("0123456789");
    EXPECT_NE(0, s.GetSubString(s, 2, 4));
    EXPECT_EQ("2345", Bytes(s));
    ExpectTerminated(s);
}

// --------------------------------------------- GetSubString by delimiters

struct DelimRow
{
    const char* name;
    const char* text;
    const char* from;
    const char* to;
    int start;
    bool withFrom;
    bool withTo;
    int result;
    const char* expected;
};

void PrintTo(const DelimRow& row, std::ostream* os) { *os << row.name; }

class CQSStringSubByText : public ::testing::TestWithParam<DelimRow>
{
};

TEST_P(CQSStringSubByText, Copy)
{
    const DelimRow& row = GetParam();
    const CQSString s(row.text);
    CQSString out("junk that must go");
    const int result = s.GetSubString(out, row.from, row.to, row.start, row.withFrom, row.withTo);
    if (row.result >= 0)
        EXPECT_EQ(row.result, result);
    else
        EXPECT_LT(result, 0);
    EXPECT_EQ(row.expected, Bytes(out));
    ExpectTerminated(out);
}

const DelimRow kDelimRows[] = {
    {"between-tags", "<a>x</a>", "<a>", "</a>", 0, false, false, 3, "x"},
    {"header-value", "Host: example.org\r\nAccept: */*\r\n", "Host: ", "\r\n", 0, false, false, 6, "example.org"},
    {"second-header", "Host: h\r\nAccept: */*\r\n", "Accept: ", "\r\n", 0, false, false, 17, "*/*"},
    {"adjacent-delimiters", "[]", "[", "]", 0, false, false, 1, ""},
    {"from-missing", "abc]", "[", "]", 0, false, false, -1, ""},
    {"to-missing", "[abc", "[", "]", 0, false, false, -1, ""},
    {"to-only-before-from", "]a[", "[", "]", 0, false, false, -1, ""},
    {"both-missing", "abc", "[", "]", 0, false, false, -1, ""},
    {"empty-text", "", "[", "]", 0, false, false, -1, ""},
    {"first-pair-wins", "[1][2]", "[", "]", 0, false, false, 1, "1"},
    {"start-one-past-first-from", "[1][2]", "[", "]", 1, false, false, 4, "2"},
    {"start-at-second-from", "[1][2]", "[", "]", 3, false, false, 4, "2"},
    {"start-one-past-second-from", "[1][2]", "[", "]", 4, false, false, -1, ""},
    {"start-at-length", "[1]", "[", "]", 3, false, false, -1, ""},
    {"start-past-length", "[1]", "[", "]", 4, false, false, -1, ""},
    {"start-negative", "[1]", "[", "]", -1, false, false, -1, ""},
    // The search for `to` begins after `from`, not inside it.
    {"to-searched-after-from", "abxb", "ab", "b", 0, false, false, 2, "x"},
    {"same-delimiter", "|x|y|", "|", "|", 0, false, false, 1, "x"},
    {"to-is-the-next-one", "(a)b)", "(", ")", 0, false, false, 1, "a"},
    {"with-from", "<a>x</a>", "<a>", "</a>", 0, true, false, 3, "<a>x"},
    {"with-to", "<a>x</a>", "<a>", "</a>", 0, false, true, 3, "x</a>"},
    {"with-both", "z<a>x</a>z", "<a>", "</a>", 0, true, true, 4, "<a>x</a>"},
    {"case-sensitive", "<A>x</a>", "<a>", "</a>", 0, false, false, -1, ""},
};

INSTANTIATE_TEST_SUITE_P(Rows, CQSStringSubByText, ::testing::ValuesIn(kDelimRows), RowName<DelimRow>);

struct CharDelimRow
{
    const char* name;
    const char* text;
    char from;
    char to;
    int start;
    bool withFrom;
    bool withTo;
    int result;
    const char* expected;
};

void PrintTo(const CharDelimRow& row, std::ostream* os) { *os << row.name; }

class CQSStringSubByChar : public ::testing::TestWithParam<CharDelimRow>
{
};

TEST_P(CQSStringSubByChar, Copy)
{
    const CharDelimRow& row = GetParam();
    const CQSString s(row.text);
    CQSString out("junk that must go");
    const int result = s.GetSubString(out, row.from, row.to, row.start, row.withFrom, row.withTo);
    if (row.result >= 0)
        EXPECT_EQ(row.result, result);
    else
        EXPECT_LT(result, 0);
    EXPECT_EQ(row.expected, Bytes(out));
    ExpectTerminated(out);
}

const CharDelimRow kCharDelimRows[] = {
    {"name", "&a=1&b=2&", '&', '=', 0, false, false, 1, "a"},
    {"value", "&a=1&b=2&", '=', '&', 0, false, false, 3, "1"},
    {"second-name", "&a=1&b=2&", '&', '=', 4, false, false, 5, "b"},
    {"second-name-start-one-before", "&a=1&b=2&", '&', '=', 3, false, false, 5, "b"},
    {"second-value", "&a=1&b=2&", '=', '&', 4, false, false, 7, "2"},
    {"last-from-has-no-to", "&a=1&b=2&", '&', '=', 6, false, false, -1, ""},
    {"from-missing", "a=1", '&', '=', 0, false, false, -1, ""},
    {"to-missing", "&a", '&', '=', 0, false, false, -1, ""},
    {"empty-name", "&=1&", '&', '=', 0, false, false, 1, ""},
    {"longer-value", "&k=hello world&", '=', '&', 0, false, false, 3, "hello world"},
    {"same-char", "&a&b&", '&', '&', 0, false, false, 1, "a"},
    {"with-from", "&a=1", '&', '=', 0, true, false, 1, "&a"},
    {"with-to", "&a=1", '&', '=', 0, false, true, 1, "a="},
    {"with-both", "&a=1", '&', '=', 0, true, true, 1, "&a="},
    {"start-past-length", "&a=", '&', '=', 4, false, false, -1, ""},
};

INSTANTIATE_TEST_SUITE_P(Rows, CQSStringSubByChar, ::testing::ValuesIn(kCharDelimRows), RowName<CharDelimRow>);

// The form-field splitter: names run from '&' to '=', values from '=' to the
// next '&'.
TEST(CQSString, FormFieldSplitterLoop)
{
    const CQSString fields("&a=1&b=2&");
    std::vector<std::pair<std::string, std::string>> found;
    int pos = 0;
    for (int guard = 0; guard < 10; ++guard) {
        CQSString name;
        CQSString value;
        const int nameAt = fields.GetSubString(name, '&', '=', pos);
        if (nameAt < 0)
            break;
        const int valueAt = fields.GetSubString(value, '=', '&', nameAt);
        if (valueAt < 0)
            break;
        found.emplace_back(Bytes(name), Bytes(value));
        pos = valueAt + value.GetLength();
    }
    const std::vector<std::pair<std::string, std::string>> expected = {{"a", "1"}, {"b", "2"}};
    EXPECT_EQ(expected, found);
}

TEST(CQSString, DelimitedGetSubStringIntoItself)
{
    CQSString s("Host: h.example\r\n");
    EXPECT_EQ(6, s.GetSubString(s, ": ", "\r\n", 0));
    EXPECT_EQ("h.example", Bytes(s));
}

TEST(CQSString, DelimitedGetSubStringNullDelimiterFails)
{
    const CQSString s("[a]");
    CQSString out("junk");
    EXPECT_LT(s.GetSubString(out, nullptr, "]", 0), 0);
    EXPECT_TRUE(out.IsEmpty());
    ASSERT_NE(0, out.SetData("junk"));
    EXPECT_LT(s.GetSubString(out, "[", nullptr, 0), 0);
    EXPECT_TRUE(out.IsEmpty());
}

// -------------------------------------------------------- copy, move, self

TEST(CQSString, CopyIsIndependent)
{
    CQSString a("original\0tail", 13);
    CQSString b(a);
    EXPECT_TRUE(a == b);
    EXPECT_NE(a.GetDataPtr(), b.GetDataPtr());
    ASSERT_NE(0, b.AppendChar('!'));
    b.MakeLower();
    EXPECT_EQ(std::string("original\0tail", 13), Bytes(a));
    EXPECT_EQ(std::string("original\0tail!", 14), Bytes(b));
}

TEST(CQSString, CopyAssignmentReplacesAndIsIndependent)
{
    CQSString a("first");
    CQSString b("a much longer second value");
    b = a;
    EXPECT_EQ("first", Bytes(b));
    a.SetData("changed");
    EXPECT_EQ("first", Bytes(b));
    CQSString empty;
    b = empty;
    EXPECT_TRUE(b.IsEmpty());
    EXPECT_STREQ("", b.GetDataPtr());
}

TEST(CQSString, CopyOfEmpty)
{
    CQSString empty;
    CQSString copy(empty);
    EXPECT_TRUE(copy.IsEmpty());
    EXPECT_STREQ("", copy.GetDataPtr());
}

TEST(CQSString, SelfAssignmentKeepsContent)
{
    CQSString s("keep\0me", 7);
    CQSString& alias = s;
    s = alias;
    EXPECT_EQ(std::string("keep\0me", 7), Bytes(s));
    ExpectTerminated(s);
}

TEST(CQSString, SelfMoveAssignmentKeepsContent)
{
    CQSString s("keep");
    CQSString& alias = s;
    s = std::move(alias);
    EXPECT_EQ("keep", Bytes(s));
    ExpectTerminated(s);
}

TEST(CQSString, SetDataFromNullWideEmpties)
{
    CQSString s("old");
    EXPECT_NE(0, s.SetData(static_cast<const CQWString*>(nullptr)));
    EXPECT_EQ("", Bytes(s));
    ExpectTerminated(s);
}

TEST(CQSString, MoveConstructionTakesTheContent)
{
    CQSString a("moved\0bytes", 11);
    CQSString b(std::move(a));
    EXPECT_EQ(std::string("moved\0bytes", 11), Bytes(b));
    // The moved-from string stays usable.
    ASSERT_NE(0, a.SetData("reused"));  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ("reused", Bytes(a));
    EXPECT_EQ(std::string("moved\0bytes", 11), Bytes(b));
}

TEST(CQSString, MoveAssignmentTakesTheContent)
{
    CQSString a("source");
    CQSString b("destination with old content");
    b = std::move(a);
    EXPECT_EQ("source", Bytes(b));
    a = "reused";  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ("reused", Bytes(a));
    EXPECT_EQ("source", Bytes(b));
}

// ================================================================ CQWString

TEST(CQWString, DefaultIsEmptyAndPointsAtATerminatedEmptyText)
{
    CQWString w;
    EXPECT_TRUE(w.IsEmpty());
    EXPECT_EQ(0, w.GetLength());
    ASSERT_NE(nullptr, w.GetDataPtr());
    EXPECT_EQ(L'\0', w.GetDataPtr()[0]);
    EXPECT_EQ(w.GetDataPtr(), static_cast<const wchar_t*>(w));
}

TEST(CQWString, FromWideText)
{
    CQWString w(L"/tmp/dns");
    EXPECT_EQ(L"/tmp/dns", Wide(w));
    EXPECT_EQ(8, w.GetLength());
    EXPECT_FALSE(w.IsEmpty());
    ExpectTerminated(w);
}

TEST(CQWString, GetLengthCountsCharactersNotBytes)
{
    const wchar_t text[] = {L'a', static_cast<wchar_t>(0xE9), static_cast<wchar_t>(0x4E2D),
                            static_cast<wchar_t>(0x1F600), 0};
    CQWString w(text);
    EXPECT_EQ(4, w.GetLength());
}

TEST(CQWString, SetDataReplacesAndReportsSuccess)
{
    CQWString w(L"a longer previous content");
    EXPECT_NE(0, w.SetData(L"new"));
    EXPECT_EQ(L"new", Wide(w));
    EXPECT_EQ(3, w.GetLength());
    ExpectTerminated(w);
    EXPECT_NE(0, w.SetData(L""));
    EXPECT_TRUE(w.IsEmpty());
}

TEST(CQWString, SetDataCountedKeepsEmbeddedNul)
{
    const wchar_t text[] = {L'a', 0, L'b', L'c'};
    CQWString w;
    EXPECT_NE(0, w.SetData(text, 3));
    EXPECT_EQ(3, w.GetLength());
    EXPECT_EQ(std::wstring(text, 3), Wide(w));
    ExpectTerminated(w);
}

TEST(CQWString, AssignFromWideText)
{
    CQWString w(L"old");
    w = L"new value";
    EXPECT_EQ(L"new value", Wide(w));
}

TEST(CQWString, AppendDataWide)
{
    CQWString w(L"/opt/");
    EXPECT_NE(0, w.AppendData(L"dns"));
    EXPECT_NE(0, w.AppendData(L".dat"));
    EXPECT_EQ(L"/opt/dns.dat", Wide(w));
    EXPECT_NE(0, w.AppendData(L""));
    EXPECT_EQ(L"/opt/dns.dat", Wide(w));
    ExpectTerminated(w);
}

TEST(CQWString, AppendDataBytesMakesOneCharacterPerByte)
{
    CQWString w(L"x");
    const unsigned char bytes[] = {'a', 0x7F, 0x80, 0xE9, 0xFF};
    EXPECT_NE(0, w.AppendData(bytes, 5));
    const wchar_t expected[] = {L'x', L'a', 0x7F, 0x80, 0xE9, 0xFF};
    EXPECT_EQ(std::wstring(expected, 6), Wide(w));
    EXPECT_EQ(6, w.GetLength());
    ExpectTerminated(w);
}

TEST(CQWString, AppendDataBytesCountedKeepsNul)
{
    CQWString w;
    EXPECT_NE(0, w.AppendData(U("a\0b"), 3));
    EXPECT_EQ(3, w.GetLength());
    EXPECT_EQ(std::wstring(L"a\0b", 3), Wide(w));
}

TEST(CQWString, AppendItsOwnBufferToItself)
{
    CQWString w(L"ab");
    std::wstring expected = L"ab";
    for (int i = 0; i < 8; ++i) {
        ASSERT_NE(0, w.AppendData(w.GetDataPtr())) << "doubling " << i;
        expected += expected;
        ASSERT_EQ(expected, Wide(w)) << "doubling " << i;
    }
    EXPECT_EQ(512, w.GetLength());
}

TEST(CQWString, SetByteDataReplacesWithOneCharacterPerByte)
{
    CQWString w(L"previous content");
    const unsigned char bytes[] = {'h', 0xC3, 0xA9, 0x00, 'z'};
    EXPECT_NE(0, w.SetByteData(bytes, 5));
    const wchar_t expected[] = {L'h', 0xC3, 0xA9, 0, L'z'};
    EXPECT_EQ(std::wstring(expected, 5), Wide(w));
    EXPECT_EQ(5, w.GetLength());
    ExpectTerminated(w);
}

TEST(CQWString, SetByteDataZeroLengthEmpties)
{
    CQWString w(L"previous");
    EXPECT_NE(0, w.SetByteData(U("abc"), 0));
    EXPECT_TRUE(w.IsEmpty());
}

TEST(CQWString, FromNarrowOneCharacterPerByte)
{
    const CQSString narrow("A\x80\xff z");
    const CQWString w(narrow);
    const wchar_t expected[] = {L'A', 0x80, 0xFF, L' ', L'z'};
    EXPECT_EQ(std::wstring(expected, 5), Wide(w));
    EXPECT_EQ(5, w.GetLength());
}

TEST(CQWString, FromNarrowUtf8BytesAreNotDecoded)
{
    // "é" in UTF-8 is two bytes, so two characters.
    const CQWString w(CQSString("\xc3\xa9"));
    const wchar_t expected[] = {0xC3, 0xA9};
    EXPECT_EQ(std::wstring(expected, 2), Wide(w));
}

TEST(CQWString, FromNarrowKeepsEmbeddedNul)
{
    const CQWString w(CQSString("a\0b", 3));
    EXPECT_EQ(3, w.GetLength());
    EXPECT_EQ(std::wstring(L"a\0b", 3), Wide(w));
}

TEST(CQWString, FromEmptyNarrow)
{
    const CQWString w{CQSString()};
    EXPECT_TRUE(w.IsEmpty());
}

TEST(CQWString, AssignFromNarrowReplaces)
{
    CQWString w(L"a long previous wide value");
    w = CQSString("\xe4x");
    const wchar_t expected[] = {0xE4, L'x'};
    EXPECT_EQ(std::wstring(expected, 2), Wide(w));
}

TEST(CQWString, NarrowWideNarrowRoundTripsEveryByte)
{
    std::string all;
    for (int c = 0; c < 256; ++c)
        all += static_cast<char>(c);
    const CQSString narrow(all.data(), 256);
    const CQWString wide(narrow);
    ASSERT_EQ(256, wide.GetLength());
    for (int c = 0; c < 256; ++c)
        EXPECT_EQ(static_cast<wchar_t>(c), wide.GetDataPtr()[c]) << "byte " << c;
    const CQSString back(wide);
    EXPECT_EQ(all, Bytes(back));
}

TEST(CQWString, FromQStringAscii)
{
    const CQWString w(QString("/tmp/velanet"));
    EXPECT_EQ(L"/tmp/velanet", Wide(w));
    ExpectTerminated(w);
}

TEST(CQWString, FromQStringNonAscii)
{
    // e-acute (2 UTF-8 bytes), a CJK character (3), a Latin-1 letter.
    const CQWString w(QString::fromUtf8("h\xc3\xa9\xe4\xb8\xad\xc3\xbf"));
    const wchar_t expected[] = {L'h', 0xE9, 0x4E2D, 0xFF};
    EXPECT_EQ(std::wstring(expected, 4), Wide(w));
    EXPECT_EQ(4, w.GetLength());
}

TEST(CQWString, FromQStringOutsideTheBmpIsOneCharacter)
{
    // U+1F600 is two UTF-16 units in the QString, one 32-bit character here.
    const QString q = QString::fromUtf8("a\xf0\x9f\x98\x80z");
    ASSERT_EQ(4, q.size());
    const CQWString w(q);
    const wchar_t expected[] = {L'a', static_cast<wchar_t>(0x1F600), L'z'};
    EXPECT_EQ(std::wstring(expected, 3), Wide(w));
    EXPECT_EQ(3, w.GetLength());
}

TEST(CQWString, FromEmptyQString)
{
    const CQWString w{QString()};
    EXPECT_TRUE(w.IsEmpty());
    EXPECT_EQ(L'\0', w.GetDataPtr()[0]);
}

TEST(CQWString, ToQStringRoundTrips)
{
    const QString q = QString::fromUtf8("DNS \xc3\xa9\xe4\xb8\xad\xf0\x9f\x98\x80!");
    EXPECT_EQ(q, CQWString(q).ToQString());
    EXPECT_TRUE(CQWString().ToQString().isEmpty());
}

TEST(CQWString, EqualityIsExact)
{
    EXPECT_TRUE(CQWString(L"abc") == CQWString(L"abc"));
    EXPECT_FALSE(CQWString(L"abc") != CQWString(L"abc"));
    EXPECT_FALSE(CQWString(L"abc") == CQWString(L"ABC"));
    EXPECT_FALSE(CQWString(L"abc") == CQWString(L"ab"));
    EXPECT_FALSE(CQWString(L"ab") == CQWString(L"abc"));
    EXPECT_TRUE(CQWString(L"ab") != CQWString(L"abc"));
    EXPECT_TRUE(CQWString() == CQWString(L""));
    // Same low 8 bits, different characters.
    const wchar_t a[] = {0x41, 0};
    const wchar_t b[] = {0x141, 0};
    EXPECT_FALSE(CQWString(a) == CQWString(b));
}

TEST(CQWString, EqualityLooksPastEmbeddedNul)
{
    EXPECT_TRUE(CQWString(CQSString("a\0b", 3)) == CQWString(CQSString("a\0b", 3)));
    EXPECT_FALSE(CQWString(CQSString("a\0b", 3)) == CQWString(CQSString("a\0c", 3)));
    EXPECT_FALSE(CQWString(CQSString("a\0b", 3)) == CQWString(L"a"));
}

TEST(CQWString, EmptyClears)
{
    CQWString w(L"content");
    w.Empty();
    EXPECT_TRUE(w.IsEmpty());
    EXPECT_EQ(0, w.GetLength());
    EXPECT_EQ(L'\0', w.GetDataPtr()[0]);
    EXPECT_TRUE(w == CQWString());
}

struct WideReplaceRow
{
    const char* name;
    const wchar_t* text;
    const wchar_t* oldText;
    const wchar_t* newText;
    int count;
    const wchar_t* expected;
};

void PrintTo(const WideReplaceRow& row, std::ostream* os) { *os << row.name; }

class CQWStringReplace : public ::testing::TestWithParam<WideReplaceRow>
{
};

TEST_P(CQWStringReplace, Text)
{
    const WideReplaceRow& row = GetParam();
    CQWString w(row.text);
    EXPECT_EQ(row.count, w.Replace(row.oldText, row.newText));
    EXPECT_EQ(std::wstring(row.expected), Wide(w));
    ExpectTerminated(w);
}

const WideReplaceRow kWideReplaceRows[] = {
    {"every-occurrence", L"a\\b\\c\\d", L"\\", L"/", 3, L"a/b/c/d"},
    {"single", L"a-b", L"-", L"+", 1, L"a+b"},
    {"empty-new-deletes", L"a-b-c", L"-", L"", 2, L"abc"},
    {"null-new-deletes", L"a-b-c", L"-", nullptr, 2, L"abc"},
    {"growing", L"a.b.c", L".", L"::", 2, L"a::b::c"},
    {"no-rescan-of-new-text", L"aaa", L"a", L"aa", 3, L"aaaaaa"},
    {"overlap-even", L"aaaa", L"aa", L"b", 2, L"bb"},
    {"overlap-odd", L"aaa", L"aa", L"b", 1, L"ba"},
    {"at-both-ends", L"xax", L"x", L"yy", 2, L"yyayy"},
    {"whole-string", L"abc", L"abc", L"", 1, L""},
    {"absent", L"abc", L"x", L"y", 0, L"abc"},
    {"old-one-longer-than-text", L"abc", L"abcd", L"y", 0, L"abc"},
    {"empty-old-is-no-op", L"abc", L"", L"x", 0, L"abc"},
    {"in-empty-text", L"", L"a", L"b", 0, L""},
    {"non-ascii", L"\x4e2d-\x4e2d", L"\x4e2d", L"\x00e9", 2, L"\x00e9-\x00e9"},
};

INSTANTIATE_TEST_SUITE_P(Rows, CQWStringReplace, ::testing::ValuesIn(kWideReplaceRows), RowName<WideReplaceRow>);

TEST(CQWString, CopyIsIndependent)
{
    CQWString a(L"original");
    CQWString b(a);
    EXPECT_TRUE(a == b);
    EXPECT_NE(a.GetDataPtr(), b.GetDataPtr());
    ASSERT_NE(0, b.AppendData(L"!"));
    EXPECT_EQ(L"original", Wide(a));
    EXPECT_EQ(L"original!", Wide(b));
}

TEST(CQWString, CopyAssignmentReplaces)
{
    CQWString a(L"first");
    CQWString b(L"a much longer second value");
    b = a;
    EXPECT_EQ(L"first", Wide(b));
    ASSERT_NE(0, a.SetData(L"changed"));
    EXPECT_EQ(L"first", Wide(b));
    b = CQWString();
    EXPECT_TRUE(b.IsEmpty());
}

TEST(CQWString, SelfAssignmentKeepsContent)
{
    CQWString w(L"keep");
    CQWString& alias = w;
    w = alias;
    EXPECT_EQ(L"keep", Wide(w));
    w = w.GetDataPtr() + 1;
    EXPECT_EQ(L"eep", Wide(w));
}

TEST(CQWString, MoveTakesTheContent)
{
    CQWString a(L"moved");
    CQWString b(std::move(a));
    EXPECT_EQ(L"moved", Wide(b));
    a = L"reused";  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(L"reused", Wide(a));
    CQWString c(L"old");
    c = std::move(b);
    EXPECT_EQ(L"moved", Wide(c));
    b = L"again";  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(L"again", Wide(b));
}

TEST(CQSString, EqualityWithATextComparesTheBytesOnEitherSide)
{
    const CQSString s("abc");
    EXPECT_TRUE(s == "abc");
    EXPECT_TRUE("abc" == s);
    EXPECT_FALSE(s == "abd");
    EXPECT_FALSE("ab" == s);
    EXPECT_TRUE(s != "ABC");
    EXPECT_TRUE("abcd" != s);
    EXPECT_FALSE(s != "abc");
    // A literal on the left is compared by content, not by address.
    const std::string sameBytes("abc");
    EXPECT_TRUE(sameBytes.c_str() == s);

    EXPECT_TRUE(CQSString() == "");
    EXPECT_TRUE(CQSString() == static_cast<const char*>(nullptr));
    // The text ends at its NUL; the string's counted bytes go on.
    const CQSString withNul("ab\0c", 4);
    EXPECT_FALSE(withNul == "ab");
    EXPECT_TRUE(withNul != "ab");
}

TEST(CQWString, EqualityWithATextComparesTheCharactersOnEitherSide)
{
    const CQWString w(L"xy");
    EXPECT_TRUE(w == L"xy");
    EXPECT_TRUE(L"xy" == w);
    EXPECT_FALSE(w == L"x");
    EXPECT_FALSE(L"xyz" == w);
    EXPECT_TRUE(w != L"XY");
    EXPECT_TRUE(L"" != w);
    EXPECT_FALSE(w != L"xy");
    EXPECT_TRUE(CQWString() == L"");
    EXPECT_TRUE(CQWString() == static_cast<const wchar_t*>(nullptr));
}

// ------------------------------------------- bad arguments and lack of memory
//
// Every call below must fail with 0 (or -1) and leave the old content as it
// was, and the string must stay usable.

TEST(CQSString, CountedSetDataWithBadArgumentsFailsAndKeepsTheText)
{
    CQSString s("kept");
    EXPECT_EQ(0, s.SetData(U("abc"), -1));
    EXPECT_EQ(0, s.SetData(nullptr, 3));
    EXPECT_EQ(0, s.SetData(U("abc"), INT_MAX));  // one past the longest text
    EXPECT_EQ("kept", Bytes(s));
    ExpectTerminated(s);
    EXPECT_NE(0, s.SetData(nullptr, 0));
    EXPECT_EQ("", Bytes(s));
}

TEST(CQSString, CountedAppendDataWithBadArgumentsFailsAndKeepsTheText)
{
    CQSString s("kept");
    EXPECT_EQ(0, s.AppendData(U("abc"), -1));
    EXPECT_EQ(0, s.AppendData(nullptr, 3));
    // INT_MAX - 1 bytes is the longest text; "kept" leaves room for fewer.
    EXPECT_EQ(0, s.AppendData(U("abc"), INT_MAX - 1 - 3));
    EXPECT_EQ("kept", Bytes(s));
    EXPECT_NE(0, s.AppendData(nullptr, 0));
    EXPECT_NE(0, s.AppendData(U("!"), 1));
    EXPECT_EQ("kept!", Bytes(s));
}

TEST(CQSString, SetDataThatRunsOutOfMemoryKeepsTheText)
{
    CQSString s("kept");
    const std::string longer(100, 'x');
    velatest::HeapWatch::FailNothrowAfter(0);
    const int result = s.SetData(longer.c_str());
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(0, result);
    EXPECT_EQ("kept", Bytes(s));
    ExpectTerminated(s);
}

TEST(CQSString, AppendThatRunsOutOfMemoryKeepsTheText)
{
    CQSString s("kept");
    const std::string longer(100, 'x');
    velatest::HeapWatch::FailNothrowAfter(0);
    const int result = s.AppendData(longer.c_str());
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(0, result);
    EXPECT_EQ("kept", Bytes(s));
    ExpectTerminated(s);
}

TEST(CQSString, SetDataFromWideThatRunsOutOfMemoryKeepsTheText)
{
    CQSString s("kept");
    const CQWString wide(L"www.example.com");
    velatest::HeapWatch::FailNothrowAfter(0);
    const int result = s.SetData(&wide);
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(0, result);
    EXPECT_EQ("kept", Bytes(s));
}

TEST(CQSString, ReplaceThatRunsOutOfMemoryKeepsTheText)
{
    CQSString s("a-b-c");
    velatest::HeapWatch::FailNothrowAfter(0);
    const int result = s.Replace("-", "+");
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(0, result);
    EXPECT_EQ("a-b-c", Bytes(s));
    EXPECT_EQ(2, s.Replace("-", "+"));
    EXPECT_EQ("a+b+c", Bytes(s));
}

// 46341 occurrences each replaced by 46341 bytes give 46341^2 =
// 2147488281 bytes, just past the longest text (INT_MAX - 1): refused
// before anything is allocated.
TEST(CQSString, ReplaceWhoseResultWouldBeTooLongChangesNothing)
{
    const std::string text(46341, 'a');
    const std::string replacement(46341, 'b');
    CQSString s(text.c_str());
    EXPECT_EQ(0, s.Replace("a", replacement.c_str()));
    EXPECT_EQ(text, Bytes(s));
}

TEST(CQSString, DelimitedGetSubStringThatRunsOutOfMemoryKeepsOut)
{
    const CQSString s("key=[a long enough value]");
    CQSString out("x");
    velatest::HeapWatch::FailNothrowAfter(0);
    const int result = s.GetSubString(out, "[", "]", 0);
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(-1, result);
    EXPECT_EQ("x", Bytes(out));
    EXPECT_EQ(5, s.GetSubString(out, "[", "]", 0));
    EXPECT_EQ("a long enough value", Bytes(out));
}

TEST(CQWString, ByteAppendWithBadArgumentsFailsAndKeepsTheText)
{
    CQWString w(L"kept");
    EXPECT_EQ(0, w.AppendData(U("abc"), -1));
    EXPECT_EQ(0, w.AppendData(nullptr, 3));
    // The longest wide text is INT_MAX / sizeof(wchar_t) - 1 characters.
    const int longest = static_cast<int>(INT_MAX / sizeof(wchar_t)) - 1;
    EXPECT_EQ(0, w.AppendData(U("abc"), longest - 4 + 1));
    EXPECT_EQ(L"kept", Wide(w));
    EXPECT_NE(0, w.AppendData(nullptr, 0));
    EXPECT_EQ(L"kept", Wide(w));
}

TEST(CQWString, SetByteDataWithBadArgumentsFailsAndKeepsTheText)
{
    CQWString w(L"kept");
    EXPECT_EQ(0, w.SetByteData(U("abc"), -1));
    EXPECT_EQ(0, w.SetByteData(nullptr, 3));
    EXPECT_EQ(L"kept", Wide(w));
    EXPECT_NE(0, w.SetByteData(nullptr, 0));
    EXPECT_EQ(L"", Wide(w));
}

TEST(CQWString, ByteAppendAndSetThatRunOutOfMemoryKeepTheText)
{
    CQWString w(L"kept");
    const std::string longer(100, 'x');
    velatest::HeapWatch::FailNothrowAfter(0);
    const int appended = w.AppendData(U(longer.c_str()), 100);
    const int set = w.SetByteData(U(longer.c_str()), 100);
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(0, appended);
    EXPECT_EQ(0, set);
    EXPECT_EQ(L"kept", Wide(w));
    ExpectTerminated(w);
}

TEST(CQWString, ReplaceThatRunsOutOfMemoryKeepsTheText)
{
    CQWString w(L"a-b");
    velatest::HeapWatch::FailNothrowAfter(0);
    const int result = w.Replace(L"-", L"+");
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(0, result);
    EXPECT_EQ(L"a-b", Wide(w));
}

// 23171^2 = 536895241 characters, just past the longest wide text
// (INT_MAX / 4 - 1 = 536870910).
TEST(CQWString, ReplaceWhoseResultWouldBeTooLongChangesNothing)
{
    const std::wstring text(23171, L'a');
    const std::wstring replacement(23171, L'b');
    CQWString w(text.c_str());
    EXPECT_EQ(0, w.Replace(L"a", replacement.c_str()));
    EXPECT_EQ(text, Wide(w));
}

TEST(CQWString, CopyThatRunsOutOfMemoryIsEmpty)
{
    const CQWString original(L"www.example.com");
    velatest::HeapWatch::FailNothrowAfter(0);
    const CQWString copy(original);
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(L"", Wide(copy));
    EXPECT_EQ(L"www.example.com", Wide(original));
}

TEST(CQWString, FromQStringThatRunsOutOfMemoryIsEmpty)
{
    const QString text = QStringLiteral("www.example.com");
    velatest::HeapWatch::FailNothrowAfter(0);
    const CQWString w(text);
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(L"", Wide(w));
}

// The storage itself: capacities outside 0..KMaxLength are refused.
TEST(StringStorage, ReserveRefusesCapacitiesOutsideTheLongestText)
{
    velanet::StringStorage<char> narrow;
    EXPECT_EQ(0, narrow.Reserve(-1));
    EXPECT_EQ(0, narrow.Reserve(velanet::StringStorage<char>::KMaxLength + 1));
    EXPECT_EQ(nullptr, narrow.MutableData());
    EXPECT_NE(0, narrow.Reserve(0));
    ASSERT_NE(nullptr, narrow.MutableData());
    EXPECT_EQ('\0', narrow.Data()[0]);

    velanet::StringStorage<wchar_t> wide;
    EXPECT_EQ(0, wide.Reserve(INT_MIN));
    EXPECT_EQ(0, wide.Reserve(velanet::StringStorage<wchar_t>::KMaxLength + 1));
    EXPECT_EQ(nullptr, wide.MutableData());
}

TEST(StringStorage, ReserveThatRunsOutOfMemoryKeepsTheText)
{
    velanet::StringStorage<char> text;
    ASSERT_NE(0, text.Assign("kept", 4));
    velatest::HeapWatch::FailNothrowAfter(0);
    const int result = text.Reserve(1000);
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(0, result);
    EXPECT_EQ(std::string("kept"), std::string(text.Data(), static_cast<size_t>(text.Length())));
}

// ------------------------------------------------ texts longer than a string

namespace {

// A NUL-terminated text of length characters 'a', longer than any string
// may be, that costs a few megabytes: one block of characters mapped again
// and again over the address range, then a private block with the
// terminator. Ok() is false where the system cannot do that.
template <class CharT>
class LongText
{
public:
    explicit LongText(std::size_t length)
    {
        const std::size_t bytes = (length + 1) * sizeof(CharT);
        const std::size_t blocks = (bytes + KBlock - 1) / KBlock;
        m_size = blocks * KBlock;
        void* area = ::mmap(nullptr, m_size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (area == MAP_FAILED)
            return;
        m_area = static_cast<unsigned char*>(area);
        const int fd = ::memfd_create("long-text", 0);
        if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(KBlock)) != 0)
            return;
        bool mapped = Fill(::mmap(nullptr, KBlock, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        for (std::size_t i = 0; mapped && i + 1 < blocks; ++i)
            mapped = ::mmap(m_area + i * KBlock, KBlock, PROT_READ, MAP_SHARED | MAP_FIXED, fd, 0) != MAP_FAILED;
        ::close(fd);
        unsigned char* last = m_area + (blocks - 1) * KBlock;
        if (!mapped || ::mmap(last, KBlock, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) ==
                           MAP_FAILED)
            return;
        static_cast<void>(Fill(last, false));
        reinterpret_cast<CharT*>(m_area)[length] = CharT();
        m_ok = true;
    }
    ~LongText()
    {
        if (m_area)
            ::munmap(m_area, m_size);
    }
    LongText(const LongText&) = delete;
    LongText& operator=(const LongText&) = delete;

    bool Ok() const { return m_ok; }
    const CharT* Get() const { return reinterpret_cast<const CharT*>(m_area); }

private:
    static constexpr std::size_t KBlock = 2u << 20;

    // Fills a block with 'a'; unmaps it afterwards when it was mapped for that alone.
    static bool Fill(void* block, bool unmap = true)
    {
        if (block == MAP_FAILED)
            return false;
        CharT* chars = static_cast<CharT*>(block);
        for (std::size_t i = 0; i < KBlock / sizeof(CharT); ++i)
            chars[i] = CharT('a');
        if (unmap)
            ::munmap(block, KBlock);
        return true;
    }

    unsigned char* m_area = nullptr;
    std::size_t m_size = 0;
    bool m_ok = false;
};

}  // namespace

// One character more than the longest string: refused, the old text kept.
TEST(CQWString, TextLongerThanAStringIsRefused)
{
    const int longest = velanet::StringStorage<wchar_t>::KMaxLength;
    const LongText<wchar_t> text(static_cast<std::size_t>(longest) + 1);
    if (!text.Ok())
        GTEST_SKIP() << "cannot map a text of " << longest + 1 << " characters";
    CQWString w(L"kept");
    EXPECT_EQ(0, w.SetData(text.Get()));
    EXPECT_EQ(0, w.AppendData(text.Get()));
    EXPECT_EQ(0, w.Replace(L"e", text.Get()));
    EXPECT_EQ(L"kept", Wide(w));
}

TEST(CQSString, TextLongerThanAStringIsRefused)
{
    const int longest = velanet::StringStorage<char>::KMaxLength;
    const LongText<char> text(static_cast<std::size_t>(longest) + 1);
    if (!text.Ok())
        GTEST_SKIP() << "cannot map a text of " << longest + 1u << " bytes";
    CQSString s("[kept]");
    EXPECT_EQ(0, s.SetData(text.Get()));
    EXPECT_EQ(0, s.AppendData(text.Get()));
    CQSString out("x");
    EXPECT_EQ(-1, s.GetSubString(out, text.Get(), "]", 0));
    EXPECT_EQ(-1, s.GetSubString(out, "[", text.Get(), 0));
    EXPECT_EQ("", Bytes(out));
    EXPECT_EQ("[kept]", Bytes(s));
}

// A text longer than any string orders as its full length says: after every
// string that is a prefix of it, by its bytes otherwise.
TEST(CQSString, CompareOrdersTextLongerThanAString)
{
    const int longest = velanet::StringStorage<char>::KMaxLength;
    const LongText<char> text(static_cast<std::size_t>(longest) + 1);
    if (!text.Ok())
        GTEST_SKIP() << "cannot map a text of " << longest + 1u << " bytes";
    EXPECT_EQ(-1, CQSString().Compare(text.Get()));
    EXPECT_EQ(-1, CQSString("a").Compare(text.Get()));
    EXPECT_EQ(-1, CQSString("aaaa").Compare(text.Get()));
    EXPECT_EQ(-1, CQSString("A").Compare(text.Get()));
    EXPECT_EQ(-1, CQSString("a\0a", 3).Compare(text.Get()));
    EXPECT_EQ(1, CQSString("b").Compare(text.Get()));
    EXPECT_EQ(1, CQSString("aab").Compare(text.Get()));
    EXPECT_FALSE(CQSString("a") == text.Get());
    EXPECT_TRUE(CQSString("a") != text.Get());
}

// An affix longer than the string never matches, whatever its bytes.
TEST(CQSString, IsStartWithTextLongerThanAStringIsFalse)
{
    const int longest = velanet::StringStorage<char>::KMaxLength;
    const LongText<char> text(static_cast<std::size_t>(longest) + 1);
    if (!text.Ok())
        GTEST_SKIP() << "cannot map a text of " << longest + 1u << " bytes";
    EXPECT_FALSE(CQSString().IsStartWith(text.Get()));
    EXPECT_FALSE(CQSString("a").IsStartWith(text.Get()));
    EXPECT_FALSE(CQSString("b").IsStartWith(text.Get()));
}

TEST(CQSString, IsStartWithNoCaseTextLongerThanAStringIsFalse)
{
    const int longest = velanet::StringStorage<char>::KMaxLength;
    const LongText<char> text(static_cast<std::size_t>(longest) + 1);
    if (!text.Ok())
        GTEST_SKIP() << "cannot map a text of " << longest + 1u << " bytes";
    EXPECT_FALSE(CQSString().IsStartWithNoCase(text.Get()));
    EXPECT_FALSE(CQSString("A").IsStartWithNoCase(text.Get()));
    EXPECT_FALSE(CQSString("b").IsStartWithNoCase(text.Get()));
}

TEST(CQSString, IsEndWithTextLongerThanAStringIsFalse)
{
    const int longest = velanet::StringStorage<char>::KMaxLength;
    const LongText<char> text(static_cast<std::size_t>(longest) + 1);
    if (!text.Ok())
        GTEST_SKIP() << "cannot map a text of " << longest + 1u << " bytes";
    EXPECT_FALSE(CQSString().IsEndWith(text.Get()));
    EXPECT_FALSE(CQSString("a").IsEndWith(text.Get()));
    EXPECT_FALSE(CQSString("b").IsEndWith(text.Get()));
}

TEST(CQSString, IsEndWithNoCaseTextLongerThanAStringIsFalse)
{
    const int longest = velanet::StringStorage<char>::KMaxLength;
    const LongText<char> text(static_cast<std::size_t>(longest) + 1);
    if (!text.Ok())
        GTEST_SKIP() << "cannot map a text of " << longest + 1u << " bytes";
    EXPECT_FALSE(CQSString().IsEndWithNoCase(text.Get()));
    EXPECT_FALSE(CQSString("A").IsEndWithNoCase(text.Get()));
    EXPECT_FALSE(CQSString("b").IsEndWithNoCase(text.Get()));
}

// A pattern longer than the string is in it nowhere, from any start.
TEST(CQSString, FindTextLongerThanAStringIsNotFound)
{
    const int longest = velanet::StringStorage<char>::KMaxLength;
    const LongText<char> text(static_cast<std::size_t>(longest) + 1);
    if (!text.Ok())
        GTEST_SKIP() << "cannot map a text of " << longest + 1u << " bytes";
    EXPECT_EQ(-1, CQSString().Find(text.Get()));
    EXPECT_EQ(-1, CQSString("aa").Find(text.Get()));
    EXPECT_EQ(-1, CQSString("aa").Find(text.Get(), 2));
    EXPECT_EQ(-1, CQSString("aa").Find(text.Get(), 3));
}

TEST(CQWString, EqualsTextLongerThanAStringIsFalse)
{
    const int longest = velanet::StringStorage<wchar_t>::KMaxLength;
    const LongText<wchar_t> text(static_cast<std::size_t>(longest) + 1);
    if (!text.Ok())
        GTEST_SKIP() << "cannot map a text of " << longest + 1 << " characters";
    EXPECT_FALSE(CQWString() == text.Get());
    EXPECT_FALSE(CQWString(L"a") == text.Get());
    EXPECT_TRUE(CQWString(L"a") != text.Get());
}

namespace {

// One page of characters 'a' followed by a page that cannot be read: a text
// that a comparison with a short string must read only the start of.
template <class CharT>
class GuardedText
{
public:
    GuardedText()
    {
        void* area = ::mmap(nullptr, 2 * m_page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (area == MAP_FAILED)
            return;
        m_area = static_cast<CharT*>(area);
        for (std::size_t i = 0; i < m_page / sizeof(CharT); ++i)
            m_area[i] = CharT('a');
        m_ok = ::mprotect(reinterpret_cast<unsigned char*>(area) + m_page, m_page, PROT_NONE) == 0;
    }
    ~GuardedText()
    {
        if (m_area)
            ::munmap(m_area, 2 * m_page);
    }
    GuardedText(const GuardedText&) = delete;
    GuardedText& operator=(const GuardedText&) = delete;

    bool Ok() const { return m_ok; }
    const CharT* Get() const { return m_area; }

private:
    const std::size_t m_page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    CharT* m_area = nullptr;
    bool m_ok = false;
};

}  // namespace

// Ordering a text against a string needs at most one character past the
// string's length; a text is never read to its end just to be compared.
TEST(CQSString, CompareReadsATextOnlyAsFarAsNeeded)
{
    const GuardedText<char> text;
    if (!text.Ok())
        GTEST_SKIP() << "cannot map a guarded page";
    EXPECT_EQ(-1, CQSString("aaa").Compare(text.Get()));
    EXPECT_EQ(1, CQSString("ab").Compare(text.Get()));
}

TEST(CQSString, AffixesReadATextOnlyAsFarAsNeeded)
{
    const GuardedText<char> text;
    if (!text.Ok())
        GTEST_SKIP() << "cannot map a guarded page";
    const CQSString s("aaa");
    EXPECT_FALSE(s.IsStartWith(text.Get()));
    EXPECT_FALSE(s.IsStartWithNoCase(text.Get()));
    EXPECT_FALSE(s.IsEndWith(text.Get()));
    EXPECT_FALSE(s.IsEndWithNoCase(text.Get()));
    EXPECT_EQ(-1, s.Find(text.Get()));
}

TEST(CQWString, EqualsReadsATextOnlyAsFarAsNeeded)
{
    const GuardedText<wchar_t> text;
    if (!text.Ok())
        GTEST_SKIP() << "cannot map a guarded page";
    EXPECT_FALSE(CQWString(L"aaa") == text.Get());
}
