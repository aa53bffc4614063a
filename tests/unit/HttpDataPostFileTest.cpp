// Multipart file upload heads of CHttpData: the request head with the file
// part head, the trailer with the form field parts, and the file name taken
// from a URL. Expected bytes are put together here from the documented
// lines, never taken from the builder.

#include "src/HttpConfig.h"
#include "src/HttpData.h"
#include "src/RequestHeaderUnit.h"

#include "support/HeapWatch.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace {

const char KUserAgentLine[] = "User-Agent: NA/SymbianOS/8.0 Series60/2.6";
// A console test program has no screen: 854 x 480 and a character width of 24.
const char KVuaLine[] = "V-UA: PLV2010_B2/10066&NA/NA&SYM2&533024&NA&V2";
const char KDelimiter[] = "--7d92bf36e1196";
const char KClosing[] = "--7d92bf36e1196--";
const std::string DQ = "\"";

std::string Visible(const std::string& bytes)
{
    return velatest::Visible(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
}

std::string Str(const unsigned char* p, int len)
{
    return p ? std::string(reinterpret_cast<const char*>(p), static_cast<size_t>(len)) : std::string("<null>");
}

// One form field part as documented.
std::string FieldPart(const std::string& key, const std::string& value)
{
    return std::string(KDelimiter) + "\r\n" + "Content-Disposition: form-data; name=" + DQ + key + DQ + "\r\n" +
           "Content-Type:text/plain; charset=utf-8" + "\r\n" + "\r\n" + value + "\r\n";
}

// The file part head as documented.
std::string FilePartHead(const std::string& name, const std::string& fileName)
{
    return std::string(KDelimiter) + "\r\n" + "Content-Disposition: form-data; name=" + DQ + name + DQ + ";" +
           "filename=" + DQ + fileName + DQ + "\r\n" + "Content-Type: application/octet-stream" + "\r\n" + "\r\n";
}

// The request head up to and including its blank line.
std::string RequestHead(const std::string& requestLine, const std::string& hostPort, long long contentLength)
{
    return requestLine + "\r\n" + "Accept: */*;q=0.6" + "\r\n" + "Host: " + hostPort + "\r\n" + KUserAgentLine +
           "\r\n" + KVuaLine + "\r\n" + "Content-Type: multipart/form-data;boundary=7d92bf36e1196" + "\r\n" +
           "Content-Length: " + std::to_string(contentLength) + "\r\n" + "\r\n";
}

// Runs a two-pass writer: sizing with a null pointer, then writing into a
// buffer of exactly that size. Both counts must agree.
template <class Writer>
std::string TwoPass(const Writer& writer)
{
    const int sized = writer(nullptr);
    EXPECT_GE(sized, 0);
    if (sized <= 0)
        return std::string();
    std::vector<unsigned char> buffer(static_cast<size_t>(sized), 0xEE);
    const int written = writer(buffer.data());
    EXPECT_EQ(sized, written) << "the sizing pass and the writing pass disagree";
    return Str(buffer.data(), written);
}

class HttpDataPostFile : public ::testing::Test
{
protected:
    CHttpData data;
};

// ---------------------------------------------------------------- writers

TEST_F(HttpDataPostFile, ContentTypeLineIs58Bytes)
{
    const std::string expected = "Content-Type: multipart/form-data;boundary=7d92bf36e1196\r\n";
    ASSERT_EQ(58u, expected.size());
    EXPECT_EQ(58, data.CopyHttpHeader_PostFile_ContentType(nullptr));
    EXPECT_EQ(Visible(expected),
              Visible(TwoPass([&](unsigned char* out) { return data.CopyHttpHeader_PostFile_ContentType(out); })));
}

TEST_F(HttpDataPostFile, FilePartHeadHasNoBlankBeforeFilename)
{
    const CQWString name(L"file");
    const CQWString fileName(L"/home/u/p.jpg");
    const std::string expected = "--7d92bf36e1196\r\n"
                                 "Content-Disposition: form-data; name=\"file\";filename=\"/home/u/p.jpg\"\r\n"
                                 "Content-Type: application/octet-stream\r\n"
                                 "\r\n";
    ASSERT_EQ(expected, FilePartHead("file", "/home/u/p.jpg"));
    EXPECT_EQ(Visible(expected), Visible(TwoPass([&](unsigned char* out) {
                  return data.CopyHttpHeader_PostFile_ContentDisposition(name, fileName, out);
              })));
}

TEST_F(HttpDataPostFile, FilePartHeadNarrowsWideNamesToTheirLowByte)
{
    // U+00E9 keeps its byte 0xE9; U+4E2D keeps its low byte 0x2D ("-").
    const CQWString name(L"f\u00e9");
    const CQWString fileName(L"/t/\u4e2d.bin");
    const std::string expected = FilePartHead(std::string("f\xE9"), "/t/-.bin");
    EXPECT_EQ(Visible(expected), Visible(TwoPass([&](unsigned char* out) {
                  return data.CopyHttpHeader_PostFile_ContentDisposition(name, fileName, out);
              })));
}

TEST_F(HttpDataPostFile, FilePartHeadWithEmptyNames)
{
    const CQWString empty;
    EXPECT_EQ(Visible(FilePartHead("", "")), Visible(TwoPass([&](unsigned char* out) {
                  return data.CopyHttpHeader_PostFile_ContentDisposition(empty, empty, out);
              })));
}

TEST_F(HttpDataPostFile, FieldPartHasNoBlankAfterContentTypeColon)
{
    CQSString key("uin");
    CQSString value("1");
    const std::string expected = "--7d92bf36e1196\r\n"
                                 "Content-Disposition: form-data; name=\"uin\"\r\n"
                                 "Content-Type:text/plain; charset=utf-8\r\n"
                                 "\r\n"
                                 "1\r\n";
    ASSERT_EQ(expected, FieldPart("uin", "1"));
    EXPECT_EQ(Visible(expected), Visible(TwoPass([&](unsigned char* out) {
                  return data.CopyHttpHeader_PostFile_FileInfo(key, value, out);
              })));
}

TEST_F(HttpDataPostFile, WritersTakeTextThatCannotChange)
{
    const CQSString fields("a=1&b");
    EXPECT_EQ(Visible(FieldPart("k", "v=w")), Visible(TwoPass([&](unsigned char* out) {
                  return data.CopyHttpHeader_PostFile_FileInfo(CQSString("k"), CQSString("v=w"), out);
              })));
    EXPECT_EQ(Visible(FieldPart("a", "1")), Visible(TwoPass([&](unsigned char* out) {
                  return data.CopyHttpHeader_PostFile_AllFileInfo(fields, out);
              })));
    int len = 0;
    std::unique_ptr<unsigned char[]> trailer(data.GetPostFileInfoData(CQSString(""), len));
    EXPECT_EQ(Visible("\r\n--7d92bf36e1196--"), Visible(Str(trailer.get(), len)));
    const CQSString url("http://h.test/a/b.jpg?x=1");
    CQWString name;
    ASSERT_TRUE(CHttpData::GetFileNameFromURL(&url, name));
    EXPECT_TRUE(name == CQWString(L"h.test_a_b.jpg"));
}

// ---------------------------------------------------------------- form field splitter

struct FieldsRow
{
    const char* name;
    std::string fields;
    std::vector<std::pair<std::string, std::string>> parts;
};

void PrintTo(const FieldsRow& row, std::ostream* os)
{
    *os << row.name << " \"" << row.fields << "\" ->";
    for (const auto& part : row.parts)
        *os << " [" << part.first << "]=[" << part.second << "]";
}

class FormFields : public HttpDataPostFile, public ::testing::WithParamInterface<FieldsRow>
{
};

TEST_P(FormFields, OnePartPerPair)
{
    const FieldsRow& row = GetParam();
    std::string expected;
    for (const auto& part : row.parts)
        expected += FieldPart(part.first, part.second);
    CQSString fields(row.fields.data(), static_cast<int>(row.fields.size()));
    EXPECT_EQ(static_cast<int>(expected.size()), data.CopyHttpHeader_PostFile_AllFileInfo(fields, nullptr));
    if (expected.empty())
        return;
    EXPECT_EQ(Visible(expected), Visible(TwoPass([&](unsigned char* out) {
                  return data.CopyHttpHeader_PostFile_AllFileInfo(fields, out);
              })));
    EXPECT_EQ(row.fields, std::string(fields.GetDataPtr(), static_cast<size_t>(fields.GetLength())))
        << "the form fields are read, not changed";
}

const FieldsRow kFieldsRows[] = {
    {"empty_gives_no_parts", "", {}},
    {"one_pair", "a=1", {{"a", "1"}}},
    {"two_pairs", "uin=1&t=2", {{"uin", "1"}, {"t", "2"}}},
    {"trailing_key_without_value_is_dropped", "a=1&b", {{"a", "1"}}},
    {"value_holding_equals_is_sent_whole", "a=x=y&b=2", {{"a", "x=y"}, {"b", "2"}}},
    {"value_of_only_equals", "a===&b=2", {{"a", "=="}, {"b", "2"}}},
    {"empty_value", "a=&b=2", {{"a", ""}, {"b", "2"}}},
    {"empty_key", "=v", {{"", "v"}}},
    {"no_equals_at_all", "abc", {}},
    {"only_ampersands", "&&", {}},
    {"trailing_ampersand", "a=1&", {{"a", "1"}}},
    {"leading_ampersand_joins_the_key", "&a=1", {{"&a", "1"}}},
    // The key runs from an "&" to the next "=", so a word without "=" in
    // the middle joins the following key.
    {"word_without_equals_joins_the_next_key", "a=1&b&c=2", {{"a", "1"}, {"b&c", "2"}}},
    {"three_pairs", "k1=v1&k2=v2&k3=v3", {{"k1", "v1"}, {"k2", "v2"}, {"k3", "v3"}}},
};

INSTANTIATE_TEST_SUITE_P(Rows, FormFields, ::testing::ValuesIn(kFieldsRows),
                         [](const ::testing::TestParamInfo<FieldsRow>& info) {
                             return std::string(info.param.name);
                         });

// ---------------------------------------------------------------- trailer

TEST_F(HttpDataPostFile, EmptyFieldsGiveThe19ByteTrailer)
{
    CQSString fields;
    int len = -7;
    unsigned char* trailer = data.GetPostFileInfoData(fields, len);
    std::unique_ptr<unsigned char[]> owned(trailer);
    ASSERT_NE(nullptr, trailer);
    EXPECT_EQ(19, len);
    EXPECT_EQ(Visible("\r\n--7d92bf36e1196--"), Visible(Str(trailer, len)));
}

TEST_F(HttpDataPostFile, TrailerHoldsTheFieldPartsAndTheClosingDelimiter)
{
    CQSString fields("uin=1&t=2");
    int len = -7;
    unsigned char* trailer = data.GetPostFileInfoData(fields, len);
    std::unique_ptr<unsigned char[]> owned(trailer);
    const std::string expected = "\r\n" + FieldPart("uin", "1") + FieldPart("t", "2") + KClosing;
    ASSERT_NE(nullptr, trailer);
    EXPECT_EQ(static_cast<int>(expected.size()), len);
    EXPECT_EQ(Visible(expected), Visible(Str(trailer, len)));
}

TEST_F(HttpDataPostFile, TrailerEndsWithoutALineEnd)
{
    CQSString fields("a=1&b");
    int len = 0;
    unsigned char* trailer = data.GetPostFileInfoData(fields, len);
    std::unique_ptr<unsigned char[]> owned(trailer);
    const std::string expected = "\r\n" + FieldPart("a", "1") + KClosing;
    EXPECT_EQ(Visible(expected), Visible(Str(trailer, len)));
}

// ---------------------------------------------------------------- the whole head

class PostFileHead : public HttpDataPostFile
{
protected:
    void Fill(const char* fields, int fileSize, const wchar_t* path, const wchar_t* fieldName)
    {
        unit.m_strData.SetData(fields);
        unit.m_nFileSize = fileSize;
        unit.m_strFilePath.SetData(path);
        unit.m_strFieldName.SetData(fieldName);
    }

    std::string Head() const { return Str(unit.m_pHeaderData, unit.m_nHeaderLen); }
    std::string Trailer() const { return Str(unit.m_pInfoData, unit.m_nInfoDataLen); }

    CQPostFileHeaderUnit unit;
};

TEST_F(PostFileHead, WorkedExampleByteForByte)
{
    data.SetURL("http://srv.test/up");
    Fill("uin=1&t=2", 1000, L"/home/u/p.jpg", L"file");
    ASSERT_TRUE(data.GetPostFileMethodData(false, unit));

    const std::string partHead = FilePartHead("file", "/home/u/p.jpg");
    const std::string trailer = "\r\n" + FieldPart("uin", "1") + FieldPart("t", "2") + KClosing;
    // N counts the file part head, the 1000 file bytes and the whole trailer.
    const long long n = static_cast<long long>(partHead.size()) + 1000 + static_cast<long long>(trailer.size());
    const std::string expected = RequestHead("POST /up HTTP/1.1", "srv.test", n) + partHead;

    EXPECT_EQ(Visible(expected), Visible(Head()));
    EXPECT_EQ(static_cast<int>(expected.size()), unit.m_nHeaderLen);
    EXPECT_EQ(Visible(trailer), Visible(Trailer()));
    EXPECT_EQ(static_cast<int>(trailer.size()), unit.m_nInfoDataLen);
    // The inputs are left as they were.
    EXPECT_STREQ("uin=1&t=2", unit.m_strData.GetDataPtr());
    EXPECT_EQ(1000, unit.m_nFileSize);
}

TEST_F(PostFileHead, EmptyFieldsAndAnEmptyFile)
{
    data.SetURL("http://srv.test/up");
    Fill("", 0, L"/e", L"f");
    ASSERT_TRUE(data.GetPostFileMethodData(false, unit));
    const std::string partHead = FilePartHead("f", "/e");
    const std::string expected =
        RequestHead("POST /up HTTP/1.1", "srv.test", static_cast<long long>(partHead.size()) + 0 + 19) + partHead;
    EXPECT_EQ(Visible(expected), Visible(Head()));
    EXPECT_EQ(Visible("\r\n--7d92bf36e1196--"), Visible(Trailer()));
}

TEST_F(PostFileHead, AbsoluteTargetIsTheWholeUrlAndASlash)
{
    data.SetURL("http://srv.test/up");
    Fill("a=1", 5, L"/p", L"file");
    ASSERT_TRUE(data.GetPostFileMethodData(true, unit));
    const std::string partHead = FilePartHead("file", "/p");
    const std::string trailer = "\r\n" + FieldPart("a", "1") + KClosing;
    const std::string expected =
        RequestHead("POST http://srv.test/up/ HTTP/1.1", "srv.test",
                    static_cast<long long>(partHead.size()) + 5 + static_cast<long long>(trailer.size())) +
        partHead;
    EXPECT_EQ(Visible(expected), Visible(Head()));
}

TEST_F(PostFileHead, HostKeepsItsPortAndAMissingPathIsSlash)
{
    data.SetURL("http://srv.test:8080");
    Fill("", 1, L"/p", L"file");
    ASSERT_TRUE(data.GetPostFileMethodData(false, unit));
    const std::string partHead = FilePartHead("file", "/p");
    const std::string expected =
        RequestHead("POST / HTTP/1.1", "srv.test:8080", static_cast<long long>(partHead.size()) + 1 + 19) +
        partHead;
    EXPECT_EQ(Visible(expected), Visible(Head()));
}

TEST_F(PostFileHead, AQueryPathGoesOutAsItStands)
{
    data.SetURL("http://srv.test?x=1");
    Fill("", 1, L"/p", L"file");
    ASSERT_TRUE(data.GetPostFileMethodData(false, unit));
    EXPECT_EQ("POST ?x=1 HTTP/1.1\r\n", Head().substr(0, Head().find("\r\n") + 2));
}

TEST_F(PostFileHead, NoCookieExtraCharsetEncodingOrConnectionLine)
{
    CHttpConfig::AddHeader(CQSString("X-Extra"), CQSString("1"));
    data.SetURL("http://srv.test/up");
    Fill("a=1", 10, L"/p", L"file");
    const bool built = data.GetPostFileMethodData(false, unit);
    CHttpConfig::RemoveHeader(CQSString("X-Extra"));
    ASSERT_TRUE(built);
    const std::string head = Head();
    for (const char* absent : {"Cookie:", "X-Extra", "Accept-Charset:", "Accept-Encoding:", "Connection:"})
        EXPECT_EQ(std::string::npos, head.find(absent)) << absent;
}

TEST_F(PostFileHead, AUrlWithoutAHostBuildsNothing)
{
    unsigned char* oldHead = new unsigned char[3]{'o', 'l', 'd'};
    unit.SetHeaderData(oldHead, 3);
    Fill("a=1", 10, L"/p", L"file");
    for (const char* url : {"srv.test/up", "http://", "http:///up", "http://?q"}) {
        data.SetURL(url);
        EXPECT_FALSE(data.GetPostFileMethodData(false, unit)) << url;
        EXPECT_EQ(oldHead, unit.m_pHeaderData) << url;
        EXPECT_EQ(3, unit.m_nHeaderLen) << url;
        EXPECT_EQ(nullptr, unit.m_pInfoData) << url;
        EXPECT_EQ(0, unit.m_nInfoDataLen) << url;
    }
    CHttpData empty;
    EXPECT_FALSE(empty.GetPostFileMethodData(false, unit));
}

TEST_F(PostFileHead, AFileSizeThatCannotBeAnnouncedBuildsNothing)
{
    data.SetURL("http://srv.test/up");
    Fill("a=1", 0, L"/p", L"file");
    // The int field written on its own counts: below zero is no size.
    unit.m_nFileSize = -1;
    EXPECT_FALSE(data.GetPostFileMethodData(false, unit));
    // The largest size leaves no room for the part heads in the length.
    unit.SetFileSize64(LLONG_MAX);
    EXPECT_FALSE(data.GetPostFileMethodData(false, unit));
    EXPECT_EQ(nullptr, unit.m_pHeaderData);
    EXPECT_EQ(0, unit.m_nHeaderLen);
    EXPECT_EQ(nullptr, unit.m_pInfoData);
    EXPECT_EQ(0, unit.m_nInfoDataLen);
}

// The trailer and the head buffer fail in turn: nothing is handed to the
// unit until both exist.
TEST_F(PostFileHead, AnAllocationThatFailsHandsTheUnitNothing)
{
    data.SetURL("http://srv.test/up");
    Fill("", 7, L"", L"");
    const std::string head =
        RequestHead("POST /up HTTP/1.1", "srv.test", static_cast<long long>(FilePartHead("", "").size()) + 7 + 19) +
        FilePartHead("", "");
    int skip = 0;
    for (; skip < 16; ++skip) {
        SCOPED_TRACE("allocation " + std::to_string(skip) + " fails");
        velatest::HeapWatch::FailNothrowAfter(skip);
        const bool built = data.GetPostFileMethodData(false, unit);
        velatest::HeapWatch::StopFailing();
        if (built) {
            EXPECT_EQ(Visible(head), Visible(Head()));
            EXPECT_EQ(Visible("\r\n--7d92bf36e1196--"), Visible(Trailer()));
            break;
        }
        EXPECT_EQ(nullptr, unit.m_pHeaderData);
        EXPECT_EQ(nullptr, unit.m_pInfoData);
    }
    EXPECT_GE(skip, 2) << "the trailer and the head are two allocations";
    EXPECT_LT(skip, 16);
}

// Every allocation of a trailer with a field fails in turn: the trailer is
// whole or not there, never a buffer the two passes disagree on.
TEST_F(HttpDataPostFile, AnAllocationThatFailsGivesTheWholeTrailerOrNone)
{
    const CQSString fields("a=1");
    const std::string expected = "\r\n" + FieldPart("a", "1") + KClosing;
    int skip = 0;
    for (; skip < 16; ++skip) {
        SCOPED_TRACE("allocation " + std::to_string(skip) + " fails");
        int len = -7;
        velatest::HeapWatch::FailNothrowAfter(skip);
        unsigned char* trailer = data.GetPostFileInfoData(fields, len);
        velatest::HeapWatch::StopFailing();
        std::unique_ptr<unsigned char[]> owned(trailer);
        if (trailer) {
            EXPECT_EQ(Visible(expected), Visible(Str(trailer, len)));
            break;
        }
        EXPECT_EQ(0, len);
    }
    EXPECT_GT(skip, 0);
    EXPECT_LT(skip, 16);
}

// The same with named parts and a field: the name narrowing and the field
// parsing fail in turn too, and the unit gets both buffers whole or none.
TEST_F(PostFileHead, AnAllocationThatFailsWithNamesAndFieldsHandsTheUnitNothing)
{
    data.SetURL("http://srv.test/up");
    Fill("a=1", 7, L"/p.jpg", L"file");
    const std::string partHead = FilePartHead("file", "/p.jpg");
    const std::string trailer = "\r\n" + FieldPart("a", "1") + KClosing;
    const long long n = static_cast<long long>(partHead.size()) + 7 + static_cast<long long>(trailer.size());
    const std::string head = RequestHead("POST /up HTTP/1.1", "srv.test", n) + partHead;
    int skip = 0;
    for (; skip < 32; ++skip) {
        SCOPED_TRACE("allocation " + std::to_string(skip) + " fails");
        velatest::HeapWatch::FailNothrowAfter(skip);
        const bool built = data.GetPostFileMethodData(false, unit);
        velatest::HeapWatch::StopFailing();
        if (built) {
            EXPECT_EQ(Visible(head), Visible(Head()));
            EXPECT_EQ(Visible(trailer), Visible(Trailer()));
            break;
        }
        EXPECT_EQ(nullptr, unit.m_pHeaderData);
        EXPECT_EQ(nullptr, unit.m_pInfoData);
    }
    EXPECT_GE(skip, 2);
    EXPECT_LT(skip, 32);
}

TEST_F(PostFileHead, AFilePast4GiBIsAnnouncedWhole)
{
    data.SetURL("http://srv.test/up");
    Fill("a=1", 0, L"/big.bin", L"file");
    unit.SetFileSize64(4294967306LL);
    ASSERT_TRUE(data.GetPostFileMethodData(false, unit));
    const std::string partHead = FilePartHead("file", "/big.bin");
    const std::string trailer = "\r\n" + FieldPart("a", "1") + KClosing;
    const long long n = static_cast<long long>(partHead.size()) + 4294967306LL + static_cast<long long>(trailer.size());
    EXPECT_EQ(Visible(RequestHead("POST /up HTTP/1.1", "srv.test", n) + partHead), Visible(Head()));
    EXPECT_NE(std::string::npos, Head().find("Content-Length: " + std::to_string(n) + "\r\n"));
}

TEST_F(PostFileHead, TheIntFileSizeAtItsEdge)
{
    data.SetURL("http://srv.test/up");
    Fill("", 2147483647, L"/e", L"f");
    ASSERT_TRUE(data.GetPostFileMethodData(false, unit));
    const long long n = static_cast<long long>(FilePartHead("f", "/e").size()) + 2147483647LL +
                        static_cast<long long>(Trailer().size());
    EXPECT_NE(std::string::npos, Head().find("Content-Length: " + std::to_string(n) + "\r\n"));
}

TEST_F(PostFileHead, RebuildingReplacesTheUnitsBuffers)
{
    data.SetURL("http://srv.test/up");
    Fill("a=1", 10, L"/p", L"file");
    ASSERT_TRUE(data.GetPostFileMethodData(false, unit));
    Fill("b=2", 20, L"/q", L"doc");
    ASSERT_TRUE(data.GetPostFileMethodData(false, unit));  // the first buffers are freed
    const std::string partHead = FilePartHead("doc", "/q");
    const std::string trailer = "\r\n" + FieldPart("b", "2") + KClosing;
    const std::string expected =
        RequestHead("POST /up HTTP/1.1", "srv.test",
                    static_cast<long long>(partHead.size()) + 20 + static_cast<long long>(trailer.size())) +
        partHead;
    EXPECT_EQ(Visible(expected), Visible(Head()));
    EXPECT_EQ(Visible(trailer), Visible(Trailer()));
}

// ---------------------------------------------------------------- file name from a URL

struct FileNameRow
{
    const char* name;
    const char* url;
    const wchar_t* expected;
};

void PrintTo(const FileNameRow& row, std::ostream* os)
{
    *os << row.name << " \"" << row.url << "\"";
}

class FileNameFromUrl : public ::testing::TestWithParam<FileNameRow>
{
};

TEST_P(FileNameFromUrl, SlashesAndColonsBecomeUnderscores)
{
    CQSString url(GetParam().url);
    CQWString name(L"untouched");
    ASSERT_TRUE(CHttpData::GetFileNameFromURL(&url, name));
    EXPECT_EQ(CQWString(GetParam().expected).ToQString().toStdString(), name.ToQString().toStdString());
}

const FileNameRow kFileNameRows[] = {
    {"documented_example", "http://h.test/a/b.jpg?x=1", L"h.test_a_b.jpg"},
    {"no_query", "http://h.test/a/b.jpg", L"h.test_a_b.jpg"},
    {"port_colon", "http://h.test:8080/a.png", L"h.test_8080_a.png"},
    {"no_scheme_slashes", "h.test/a/b.jpg", L"h.test_a_b.jpg"},
    {"scheme_colon_kept_without_slashes", "mailto:x", L"mailto_x"},
    {"only_the_first_double_slash_is_skipped", "http://h//a", L"h__a"},
    {"query_slashes_are_cut_off", "http://h.test/a?b/c:d", L"h.test_a"},
    {"query_right_after_host", "http://h.test?x", L"h.test"},
    {"nothing_after_scheme", "http://", L""},
    {"only_a_query", "?x=1", L""},
    {"trailing_slash", "http://h.test/dir/", L"h.test_dir_"},
};

INSTANTIATE_TEST_SUITE_P(Rows, FileNameFromUrl, ::testing::ValuesIn(kFileNameRows),
                         [](const ::testing::TestParamInfo<FileNameRow>& info) {
                             return std::string(info.param.name);
                         });

TEST(FileNameFromUrlEdge, NullOrEmptyUrlIsRefusedAndLeavesTheName)
{
    CQWString name(L"kept");
    EXPECT_FALSE(CHttpData::GetFileNameFromURL(nullptr, name));
    EXPECT_TRUE(name == CQWString(L"kept"));
    CQSString empty;
    EXPECT_FALSE(CHttpData::GetFileNameFromURL(&empty, name));
    EXPECT_TRUE(name == CQWString(L"kept"));
}

TEST(FileNameFromUrlEdge, HighBytesWidenOneByOne)
{
    CQSString url("http://h/\xE9t\xE9");
    CQWString name;
    ASSERT_TRUE(CHttpData::GetFileNameFromURL(&url, name));
    ASSERT_EQ(5, name.GetLength());
    EXPECT_EQ(static_cast<wchar_t>(0xE9), name.GetDataPtr()[2]);
    EXPECT_EQ(static_cast<wchar_t>(0xE9), name.GetDataPtr()[4]);
    EXPECT_TRUE(name == CQWString(L"h_\u00e9t\u00e9"));
}

}  // namespace
