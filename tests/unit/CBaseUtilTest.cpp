#include "BaseClass/src/CBaseUtil.h"

#include "BaseClass/src/CQString.h"
#include "support/HeapWatch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

namespace {

// An exactly sized heap copy, so that a read past either end is caught by
// AddressSanitizer.
class ExactBytes
{
public:
    explicit ExactBytes(const std::string& bytes)
        : m_size(static_cast<int>(bytes.size()))
        , m_data(new unsigned char[bytes.size() > 0 ? bytes.size() : 1])
    {
        std::memcpy(m_data.get(), bytes.data(), bytes.size());
    }
    unsigned char* Data() const { return m_data.get(); }
    const char* Text() const { return reinterpret_cast<const char*>(m_data.get()); }
    int Size() const { return m_size; }

private:
    int m_size;
    std::unique_ptr<unsigned char[]> m_data;
};

// Offset of the match, -1 when SearchMem gives null.
int Find(const std::string& haystack, const std::string& needle)
{
    const ExactBytes buf(haystack);
    const ExactBytes pat(needle);
    const unsigned char* hit = CBaseUtil::SearchMem(buf.Data(), buf.Size(), pat.Text(), pat.Size());
    return hit ? static_cast<int>(hit - buf.Data()) : -1;
}

int FindNoCase(const std::string& haystack, const std::string& needle)
{
    const ExactBytes buf(haystack);
    const ExactBytes pat(needle);
    const unsigned char* hit = CBaseUtil::SearchMemNoCase(buf.Data(), buf.Size(), pat.Text(), pat.Size());
    return hit ? static_cast<int>(hit - buf.Data()) : -1;
}

}  // namespace

TEST(CBaseUtil, SearchMemFindsFirstOccurrence)
{
    EXPECT_EQ(0, Find("\r\n\r\nbody", "\r\n"));
    EXPECT_EQ(12, Find("HTTP/1.1 200\r\nA: b\r\n\r\n", "\r\n"));
    EXPECT_EQ(18, Find("HTTP/1.1 200\r\nA: b\r\n\r\n", "\r\n\r\n"));
    EXPECT_EQ(1, Find("aababab", "abab"));
}

TEST(CBaseUtil, SearchMemAbsentGivesNull)
{
    EXPECT_EQ(-1, Find("HTTP/1.1 200\r\n", "\r\n\r\n"));
    EXPECT_EQ(-1, Find("abc", "abd"));
    EXPECT_EQ(-1, Find("abc", "ABC"));
}

TEST(CBaseUtil, SearchMemMatchAtLastPossibleStart)
{
    EXPECT_EQ(3, Find("xyzabc", "abc"));
    EXPECT_EQ(5, Find("xyzab\n", "\n"));
}

TEST(CBaseUtil, SearchMemPartialMatchAtEndIsNotAMatch)
{
    // The pattern would need one byte more than the buffer holds.
    EXPECT_EQ(-1, Find("xyzab", "abc"));
    EXPECT_EQ(-1, Find("data\r\n\r", "\r\n\r\n"));
}

TEST(CBaseUtil, SearchMemPatternAsLongAsBufferAndOneLonger)
{
    EXPECT_EQ(0, Find("abc", "abc"));
    EXPECT_EQ(-1, Find("abc", "abcd"));
}

TEST(CBaseUtil, SearchMemSingleBytePattern)
{
    EXPECT_EQ(0, Find("a", "a"));
    EXPECT_EQ(-1, Find("a", "b"));
    EXPECT_EQ(3, Find("key=value", "="));
}

TEST(CBaseUtil, SearchMemBinaryBytes)
{
    const std::string buf("\x00\x01\xff\x00\x02\x00\xff", 7);
    EXPECT_EQ(3, Find(buf, std::string("\x00\x02", 2)));
    EXPECT_EQ(2, Find(buf, std::string("\xff", 1)));
    EXPECT_EQ(5, Find(buf, std::string("\x00\xff", 2)));
}

TEST(CBaseUtil, SearchMemNotAnchoredToLineStarts)
{
    EXPECT_EQ(7, Find("Cookie=Set-Cookie: x", "Set-Cookie"));
    EXPECT_EQ(4, Find("a\r\nbSet-Cookie", "Set-Cookie"));
}

TEST(CBaseUtil, SearchMemInvalidArgumentsGiveNull)
{
    const unsigned char buf[] = {'a', 'b', 'c'};
    EXPECT_EQ(nullptr, CBaseUtil::SearchMem(nullptr, 3, "a", 1));
    EXPECT_EQ(nullptr, CBaseUtil::SearchMem(buf, 3, nullptr, 1));
    EXPECT_EQ(nullptr, CBaseUtil::SearchMem(buf, 0, "a", 1));
    EXPECT_EQ(nullptr, CBaseUtil::SearchMem(buf, -1, "a", 1));
    EXPECT_EQ(nullptr, CBaseUtil::SearchMem(buf, 3, "a", 0));
    EXPECT_EQ(nullptr, CBaseUtil::SearchMem(buf, 3, "a", -1));
    EXPECT_EQ(buf, CBaseUtil::SearchMem(buf, 3, "a", 1));
}

TEST(CBaseUtil, SearchMemOnlyLooksAtTheGivenLength)
{
    const unsigned char buf[] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(nullptr, CBaseUtil::SearchMem(buf, 3, "cd", 2));
    EXPECT_EQ(buf + 2, CBaseUtil::SearchMem(buf, 4, "cd", 2));
    // Only patLen bytes of the pattern count.
    EXPECT_EQ(buf + 1, CBaseUtil::SearchMem(buf, 4, "bcX", 2));
}

TEST(CBaseUtil, SearchMemLongBuffer)
{
    std::string buf(100000, 'a');
    buf += "ab";
    EXPECT_EQ(100000 - 1, Find(buf, "aab"));
    EXPECT_EQ(-1, Find(std::string(100000, 'a'), "aab"));
}

TEST(CBaseUtil, SearchMemNoCaseIgnoresAsciiCase)
{
    EXPECT_EQ(19, FindNoCase("HTTP/1.1 200 OK\r\nX-CONTENT-LENGTH: 5", "content-length"));
    EXPECT_EQ(0, FindNoCase("Transfer-Encoding: CHUNKED", "TRANSFER-encoding"));
    EXPECT_EQ(19, FindNoCase("Transfer-Encoding: CHUNKED", "chunked"));
}

TEST(CBaseUtil, SearchMemNoCaseFindsFirstOccurrence)
{
    EXPECT_EQ(1, FindNoCase("xAbaB", "ab"));
    EXPECT_EQ(1, FindNoCase("aAAB", "aab"));
}

TEST(CBaseUtil, SearchMemNoCaseOnlyFoldsAsciiLetters)
{
    // Latin-1 upper/lower pairs and the bytes next to the letter ranges
    // must match exactly.
    EXPECT_EQ(-1, FindNoCase("\xc4", "\xe4"));
    EXPECT_EQ(0, FindNoCase("\xc4", "\xc4"));
    EXPECT_EQ(-1, FindNoCase("@[", "`{"));
    EXPECT_EQ(0, FindNoCase("zZ", "Zz"));
}

TEST(CBaseUtil, SearchMemNoCaseEdges)
{
    EXPECT_EQ(3, FindNoCase("xyzABC", "abc"));
    EXPECT_EQ(-1, FindNoCase("xyzAB", "abc"));
    EXPECT_EQ(0, FindNoCase("ABC", "abc"));
    EXPECT_EQ(-1, FindNoCase("ABC", "abcd"));
    EXPECT_EQ(-1, FindNoCase("abc", "abd"));
}

TEST(CBaseUtil, SearchMemNoCaseInvalidArgumentsGiveNull)
{
    const unsigned char buf[] = {'A', 'b'};
    EXPECT_EQ(nullptr, CBaseUtil::SearchMemNoCase(nullptr, 2, "a", 1));
    EXPECT_EQ(nullptr, CBaseUtil::SearchMemNoCase(buf, 2, nullptr, 1));
    EXPECT_EQ(nullptr, CBaseUtil::SearchMemNoCase(buf, 0, "a", 1));
    EXPECT_EQ(nullptr, CBaseUtil::SearchMemNoCase(buf, 2, "a", 0));
    EXPECT_EQ(nullptr, CBaseUtil::SearchMemNoCase(buf, 1, "ab", 2));
    EXPECT_EQ(buf, CBaseUtil::SearchMemNoCase(buf, 2, "ab", 2));
}

TEST(CBaseUtil, FormatStringNumbersAndText)
{
    CQSString out;
    EXPECT_EQ(25, CBaseUtil::FormatString(out, "Range: bytes=%d-%u/%s", 100, 200u, "3000"));
    EXPECT_STREQ("Range: bytes=100-200/3000", out.GetDataPtr());
    EXPECT_EQ(25, out.GetLength());
}

TEST(CBaseUtil, FormatStringReplacesOldContent)
{
    CQSString out("a much longer old content that must disappear");
    EXPECT_EQ(2, CBaseUtil::FormatString(out, "%x", 255));
    EXPECT_STREQ("ff", out.GetDataPtr());
    EXPECT_EQ(2, out.GetLength());
}

TEST(CBaseUtil, FormatStringEmptyResult)
{
    CQSString out("old");
    EXPECT_EQ(0, CBaseUtil::FormatString(out, "%s", ""));
    EXPECT_TRUE(out.IsEmpty());
}

TEST(CBaseUtil, FormatStringPercentSign)
{
    CQSString out;
    EXPECT_EQ(4, CBaseUtil::FormatString(out, "%d%%", 100));
    EXPECT_STREQ("100%", out.GetDataPtr());
}

TEST(CBaseUtil, FormatStringLongResult)
{
    const std::string part(5000, 'x');
    CQSString out;
    EXPECT_EQ(10003, CBaseUtil::FormatString(out, "%s-%s%02d", part.c_str(), part.c_str(), 7));
    ASSERT_EQ(10003, out.GetLength());
    EXPECT_EQ(part + "-" + part + "07", std::string(out.GetDataPtr(), 10003));
}

TEST(CBaseUtil, FormatStringKeepsEmbeddedNul)
{
    CQSString out;
    EXPECT_EQ(3, CBaseUtil::FormatString(out, "a%cb", 0));
    ASSERT_EQ(3, out.GetLength());
    EXPECT_EQ('a', out.GetAt(0));
    EXPECT_EQ(0, out.GetAt(1));
    EXPECT_EQ('b', out.GetAt(2));
}

TEST(CBaseUtil, FormatStringNegativeNumbersAndWidths)
{
    CQSString out;
    EXPECT_EQ(9, CBaseUtil::FormatString(out, "[%5d]%c%c", -42, 'o', 'k'));
    EXPECT_STREQ("[  -42]ok", out.GetDataPtr());
}

TEST(CBaseUtil, FormatStringErrorLeavesOutUnchanged)
{
    // A lone surrogate cannot be converted to multibyte text in any locale.
    const wchar_t surrogate[] = {static_cast<wchar_t>(0xD800), 0};
    CQSString out("kept");
    EXPECT_LT(CBaseUtil::FormatString(out, "%ls", surrogate), 0);
    EXPECT_STREQ("kept", out.GetDataPtr());
}

TEST(CBaseUtil, FormatStringNullFormatIsAnError)
{
    const char* noFormat = nullptr;
    CQSString out("kept");
    EXPECT_LT(CBaseUtil::FormatString(out, noFormat, 1), 0);
    EXPECT_STREQ("kept", out.GetDataPtr());
}

// Each allocation fails in turn (the formatted text, then the copy into
// out): the call reports an error and out keeps its old text.
TEST(CBaseUtil, FormatStringThatRunsOutOfMemoryLeavesOutUnchanged)
{
    CQSString out("kept");
    int skip = 0;
    for (; skip < 8; ++skip) {
        SCOPED_TRACE("allocation " + std::to_string(skip) + " fails");
        velatest::HeapWatch::FailNothrowAfter(skip);
        const int result = CBaseUtil::FormatString(out, "%s-%d", "a longer text than the old one", 42);
        velatest::HeapWatch::StopFailing();
        if (result >= 0) {
            EXPECT_EQ(33, result);
            EXPECT_STREQ("a longer text than the old one-42", out.GetDataPtr());
            break;
        }
        EXPECT_STREQ("kept", out.GetDataPtr());
    }
    EXPECT_EQ(2, skip);
}
