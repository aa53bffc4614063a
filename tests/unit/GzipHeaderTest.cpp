// The incremental gzip member header reader, fed whole, one byte per call,
// at every two-way split, at every field boundary and in random splits.

#include "src/GzipHeader.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace {

const unsigned char KFText = 0x01;
const unsigned char KFHcrc = 0x02;
const unsigned char KFExtra = 0x04;
const unsigned char KFName = 0x08;
const unsigned char KFComment = 0x10;

// Bytes that follow the header in every row; never part of it.
const std::string KBody("\x4b\x4c\x02\x00BODY", 8);

// A gzip member header built field by field after RFC 1952, 2.3, with the
// offsets at which each field ends.
struct BuiltHeader
{
    std::string bytes;
    std::vector<size_t> boundaries;
};

BuiltHeader BuildHeader(unsigned char flg, const std::string& extra = std::string(), const std::string& name = "",
                        const std::string& comment = "")
{
    BuiltHeader h;
    auto mark = [&h] { h.boundaries.push_back(h.bytes.size()); };
    h.bytes += '\x1f';
    mark();
    h.bytes += '\x8b';
    mark();
    h.bytes += '\x08';
    mark();
    h.bytes += static_cast<char>(flg);
    mark();
    h.bytes += std::string("\x5a\x1b\x3c\x66", 4);  // MTIME
    mark();
    h.bytes += '\x00';  // XFL
    mark();
    h.bytes += '\x03';  // OS: Unix
    mark();
    if (flg & KFExtra) {
        h.bytes += static_cast<char>(extra.size() & 0xFF);
        h.bytes += static_cast<char>((extra.size() >> 8) & 0xFF);
        mark();
        h.bytes += extra;
        mark();
    }
    if (flg & KFName) {
        h.bytes += name;
        h.bytes += '\0';
        mark();
    }
    if (flg & KFComment) {
        h.bytes += comment;
        h.bytes += '\0';
        mark();
    }
    if (flg & KFHcrc) {
        // CRC16: the two low bytes of the CRC-32 of the header so far.
        const uLong crc = crc32(0L, reinterpret_cast<const Bytef*>(h.bytes.data()), static_cast<uInt>(h.bytes.size()));
        h.bytes += static_cast<char>(crc & 0xFF);
        h.bytes += static_cast<char>((crc >> 8) & 0xFF);
        mark();
    }
    return h;
}

struct HeaderRow
{
    const char* name;
    std::string bytes;       // the header (or the bad start), followed by KBody
    int expected;            // CGzipHeader::KHeaderComplete or KHeaderInvalid
    size_t headerLen;        // complete: offset of the first body byte
    size_t invalidAt;        // invalid: offset of the offending byte
    std::vector<size_t> boundaries;
};

void PrintTo(const HeaderRow& row, std::ostream* os)
{
    *os << row.name << " (" << row.bytes.size() << " bytes: " << velatest::Visible(
               reinterpret_cast<const unsigned char*>(row.bytes.data()), static_cast<int>(row.bytes.size()))
        << ")";
}

HeaderRow Complete(const char* name, const BuiltHeader& h)
{
    return HeaderRow{name, h.bytes + KBody, CGzipHeader::KHeaderComplete, h.bytes.size(), 0, h.boundaries};
}

HeaderRow Invalid(const char* name, const std::string& start, size_t invalidAt)
{
    std::vector<size_t> boundaries;
    for (size_t i = 1; i <= start.size(); ++i)
        boundaries.push_back(i);
    return HeaderRow{name, start + KBody, CGzipHeader::KHeaderInvalid, 0, invalidAt, boundaries};
}

std::vector<HeaderRow> MakeRows()
{
    std::string extra300(300, 'x');
    extra300[7] = '\0';
    std::vector<HeaderRow> rows;
    rows.push_back(Complete("no-flags", BuildHeader(0)));
    rows.push_back(Complete("ftext-and-reserved-bits-ignored", BuildHeader(KFText | 0xE0)));
    rows.push_back(Complete("fextra", BuildHeader(KFExtra, "AB\x04\x00xy")));
    rows.push_back(Complete("fextra-empty", BuildHeader(KFExtra, "")));
    rows.push_back(Complete("fextra-one-byte", BuildHeader(KFExtra, "Z")));
    rows.push_back(Complete("fextra-300-bytes-with-zero-inside", BuildHeader(KFExtra, extra300)));
    rows.push_back(Complete("fextra-holding-gzip-id-bytes", BuildHeader(KFExtra, std::string("\x1f\x8b\x08\x00", 4))));
    rows.push_back(Complete("fname", BuildHeader(KFName, "", "report.txt")));
    rows.push_back(Complete("fname-empty", BuildHeader(KFName, "", "")));
    rows.push_back(Complete("fcomment", BuildHeader(KFComment, "", "", "made by hand")));
    rows.push_back(Complete("fhcrc", BuildHeader(KFHcrc)));
    rows.push_back(Complete("fname-and-fcomment", BuildHeader(KFName | KFComment, "", "a", "b")));
    rows.push_back(Complete("all-flags", BuildHeader(KFText | KFHcrc | KFExtra | KFName | KFComment,
                                                     std::string("\x01\x02\x00\x03", 4), "name.bin", "comment")));
    rows.push_back(Invalid("first-byte-not-1f", std::string("\x1e\x8b\x08\x00", 4), 0));
    rows.push_back(Invalid("second-byte-not-8b", std::string("\x1f\x8c\x08\x00", 4), 1));
    rows.push_back(Invalid("id-bytes-swapped", std::string("\x8b\x1f\x08\x00", 4), 0));
    rows.push_back(Invalid("method-not-deflate", std::string("\x1f\x8b\x07\x00", 4), 2));
    rows.push_back(Invalid("method-zero", std::string("\x1f\x8b\x00\x00", 4), 2));
    return rows;
}

// Where the reader stopped: its result, and for a complete header the offset
// of bodyStart in the whole input.
struct ReadOutcome
{
    int result = CGzipHeader::KHeaderIncomplete;
    size_t bodyOffset = 0;
    size_t pieceStart = 0;  // the piece whose call gave the result
    size_t pieceEnd = 0;
};

// Feeds the pieces between the cuts in order until the reader answers
// complete or invalid.
ReadOutcome Feed(const std::string& input, std::vector<size_t> cuts)
{
    cuts.push_back(input.size());
    CGzipHeader header;
    ReadOutcome outcome;
    size_t start = 0;
    for (size_t i = 0; i < cuts.size(); ++i) {
        const size_t end = cuts[i];
        if (end <= start)
            continue;
        // An exactly sized copy, so that a read past the piece is caught.
        std::vector<char> piece(input.begin() + static_cast<long>(start), input.begin() + static_cast<long>(end));
        const char* bodyStart = nullptr;
        const int r = header.ReadMore(piece.data(), static_cast<int>(piece.size()), &bodyStart);
        if (r != CGzipHeader::KHeaderIncomplete) {
            outcome.result = r;
            outcome.pieceStart = start;
            outcome.pieceEnd = end;
            if (r == CGzipHeader::KHeaderComplete) {
                EXPECT_GE(bodyStart, piece.data());
                EXPECT_LE(bodyStart, piece.data() + piece.size());
                outcome.bodyOffset = start + static_cast<size_t>(bodyStart - piece.data());
                EXPECT_EQ(header.m_enState, CGzipHeader::GHS_Done);
                EXPECT_EQ(header.m_nFlags, 0);
            }
            return outcome;
        }
        start = end;
    }
    return outcome;
}

class GzipHeaderSplitTest : public ::testing::TestWithParam<HeaderRow>
{
protected:
    void Check(const std::vector<size_t>& cuts)
    {
        const HeaderRow& row = GetParam();
        SCOPED_TRACE(velatest::CutsText(cuts));
        const ReadOutcome outcome = Feed(row.bytes, cuts);
        ASSERT_EQ(outcome.result, row.expected);
        if (row.expected == CGzipHeader::KHeaderComplete) {
            EXPECT_EQ(outcome.bodyOffset, row.headerLen);
        } else {
            // Reported by the call that holds the offending byte.
            EXPECT_LE(outcome.pieceStart, row.invalidAt);
            EXPECT_GT(outcome.pieceEnd, row.invalidAt);
        }
    }
};

TEST_P(GzipHeaderSplitTest, Whole)
{
    Check({});
}

TEST_P(GzipHeaderSplitTest, OneBytePerCall)
{
    std::vector<size_t> cuts;
    for (size_t i = 1; i < GetParam().bytes.size(); ++i)
        cuts.push_back(i);
    Check(cuts);
}

TEST_P(GzipHeaderSplitTest, EveryTwoWaySplit)
{
    for (size_t i = 1; i < GetParam().bytes.size(); ++i)
        Check({i});
}

TEST_P(GzipHeaderSplitTest, AtEveryFieldBoundary)
{
    Check(GetParam().boundaries);
    for (size_t b : GetParam().boundaries) {
        if (b > 0 && b < GetParam().bytes.size())
            Check({b});
    }
}

TEST_P(GzipHeaderSplitTest, TwentyRandomSplits)
{
    std::mt19937 random(velatest::SplitSeed());
    const size_t len = GetParam().bytes.size();
    for (int round = 0; round < 20; ++round) {
        Check(velatest::RandomCuts(random, len, len - 1));
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, GzipHeaderSplitTest, ::testing::ValuesIn(MakeRows()),
                         [](const ::testing::TestParamInfo<HeaderRow>& info) {
                             std::string name = info.param.name;
                             for (char& c : name) {
                                 if (c == '-')
                                     c = '_';
                             }
                             return name;
                         });

// ------------------------------------------------------------- single cases

TEST(GzipHeaderTest, FreshReaderWaitsForTheFirstIdentifierByte)
{
    CGzipHeader header;
    EXPECT_EQ(header.m_enState, CGzipHeader::GHS_Id1);
    EXPECT_EQ(header.m_nFlags, 0);
    EXPECT_EQ(header.m_nExtraLeft, 0);
}

TEST(GzipHeaderTest, StateFollowsTheFixedFieldsByteByByte)
{
    const BuiltHeader h = BuildHeader(0);
    CGzipHeader header;
    const char* bodyStart = nullptr;
    for (int i = 0; i < 9; ++i) {
        ASSERT_EQ(header.ReadMore(h.bytes.data() + i, 1, &bodyStart), CGzipHeader::KHeaderIncomplete) << i;
        EXPECT_EQ(header.m_enState, i + 1) << i;
    }
    EXPECT_EQ(bodyStart, nullptr);
}

TEST(GzipHeaderTest, FlagsKeepOnlyTheFieldBits)
{
    CGzipHeader header;
    const std::string start("\x1f\x8b\x08\xff", 4);
    const char* bodyStart = nullptr;
    EXPECT_EQ(header.ReadMore(start.data(), 4, &bodyStart), CGzipHeader::KHeaderIncomplete);
    EXPECT_EQ(header.m_nFlags, 0x1E);
}

TEST(GzipHeaderTest, ExtraLengthIsLittleEndian)
{
    const BuiltHeader h = BuildHeader(KFExtra, std::string(0x0203, 'e'));
    CGzipHeader header;
    const char* bodyStart = nullptr;
    EXPECT_EQ(header.ReadMore(h.bytes.data(), 12, &bodyStart), CGzipHeader::KHeaderIncomplete);
    EXPECT_EQ(header.m_enState, CGzipHeader::GHS_Extra);
    EXPECT_EQ(header.m_nExtraLeft, 0x0203);
    EXPECT_EQ(header.ReadMore(h.bytes.data() + 12, 0x0200, &bodyStart), CGzipHeader::KHeaderIncomplete);
    EXPECT_EQ(header.m_nExtraLeft, 3);
    EXPECT_NE(header.m_nFlags & KFExtra, 0);
}

TEST(GzipHeaderTest, HeaderEndingWithTheInputIsCompleteWithBodyAtTheEnd)
{
    const BuiltHeader h = BuildHeader(KFName | KFComment, "", "n", "c");
    CGzipHeader header;
    const char* bodyStart = nullptr;
    ASSERT_EQ(header.ReadMore(h.bytes.data(), static_cast<int>(h.bytes.size()), &bodyStart),
              CGzipHeader::KHeaderComplete);
    EXPECT_EQ(bodyStart, h.bytes.data() + h.bytes.size());
}

TEST(GzipHeaderTest, FixedPartWithoutOptionalFieldsIsCompleteAtTheEndOfInput)
{
    const BuiltHeader h = BuildHeader(0);
    CGzipHeader header;
    const char* bodyStart = nullptr;
    ASSERT_EQ(header.ReadMore(h.bytes.data(), 10, &bodyStart), CGzipHeader::KHeaderComplete);
    EXPECT_EQ(bodyStart, h.bytes.data() + 10);
}

TEST(GzipHeaderTest, PendingNameKeepsTheHeaderIncomplete)
{
    const BuiltHeader h = BuildHeader(KFName, "", "abc");
    CGzipHeader header;
    const char* bodyStart = nullptr;
    EXPECT_EQ(header.ReadMore(h.bytes.data(), 12, &bodyStart), CGzipHeader::KHeaderIncomplete);
    EXPECT_EQ(header.m_enState, CGzipHeader::GHS_Name);
    EXPECT_EQ(bodyStart, nullptr);
}

TEST(GzipHeaderTest, PendingHeaderCrcKeepsTheHeaderIncomplete)
{
    const BuiltHeader h = BuildHeader(KFHcrc);
    CGzipHeader header;
    const char* bodyStart = nullptr;
    EXPECT_EQ(header.ReadMore(h.bytes.data(), 11, &bodyStart), CGzipHeader::KHeaderIncomplete);
    EXPECT_EQ(header.m_enState, CGzipHeader::GHS_HeaderCrc2);
    ASSERT_EQ(header.ReadMore(h.bytes.data() + 11, 1, &bodyStart), CGzipHeader::KHeaderComplete);
    EXPECT_EQ(bodyStart, h.bytes.data() + 12);
}

TEST(GzipHeaderTest, ResetStartsANewHeader)
{
    const BuiltHeader h = BuildHeader(KFName, "", "abc");
    CGzipHeader header;
    const char* bodyStart = nullptr;
    EXPECT_EQ(header.ReadMore(h.bytes.data(), 12, &bodyStart), CGzipHeader::KHeaderIncomplete);
    header.Reset();
    EXPECT_EQ(header.m_enState, CGzipHeader::GHS_Id1);
    EXPECT_EQ(header.m_nFlags, 0);
    EXPECT_EQ(header.m_nExtraLeft, 0);
    const BuiltHeader plain = BuildHeader(0);
    EXPECT_EQ(header.ReadMore(plain.bytes.data(), 10, &bodyStart), CGzipHeader::KHeaderComplete);
}

TEST(GzipHeaderTest, NegativeLengthOrNullBufferReadsNothing)
{
    CGzipHeader header;
    const char byte = '\x1f';
    const char* bodyStart = nullptr;
    EXPECT_EQ(header.ReadMore(&byte, -3, &bodyStart), CGzipHeader::KHeaderIncomplete);
    EXPECT_EQ(header.ReadMore(nullptr, 5, &bodyStart), CGzipHeader::KHeaderIncomplete);
    EXPECT_EQ(header.m_enState, CGzipHeader::GHS_Id1);
}

TEST(GzipHeaderTest, WithoutABodyPointerOnlyTheResultTellsTheEnd)
{
    // Ended inside the input (name and a body byte after it) and ended with
    // the input (fixed part only): both complete with nowhere to write.
    const BuiltHeader named = BuildHeader(KFName, "", "abc");
    const std::string input = named.bytes + KBody;
    CGzipHeader inside;
    EXPECT_EQ(inside.ReadMore(input.data(), static_cast<int>(input.size()), nullptr), CGzipHeader::KHeaderComplete);
    EXPECT_EQ(inside.m_enState, CGzipHeader::GHS_Done);

    const BuiltHeader plain = BuildHeader(0);
    CGzipHeader atEnd;
    EXPECT_EQ(atEnd.ReadMore(plain.bytes.data(), 10, nullptr), CGzipHeader::KHeaderComplete);
    EXPECT_EQ(atEnd.m_enState, CGzipHeader::GHS_Done);
}

TEST(GzipHeaderTest, ReadMoreTakesCharAndUnsignedCharBuffers)
{
    // 10 fixed bytes and the name "abc" with its zero: the body starts at 14.
    const BuiltHeader h = BuildHeader(KFName, "", "abc");
    ASSERT_EQ(h.bytes.size(), 14u);
    const std::string input = h.bytes + KBody;
    const int len = static_cast<int>(input.size());

    std::vector<char> chars(input.begin(), input.end());
    CGzipHeader fromChars;
    char* charBody = nullptr;
    ASSERT_EQ(fromChars.ReadMore(chars.data(), len, &charBody), CGzipHeader::KHeaderComplete);
    EXPECT_EQ(charBody, chars.data() + 14);

    std::vector<unsigned char> bytes(input.begin(), input.end());
    CGzipHeader fromBytes;
    unsigned char* byteBody = nullptr;
    ASSERT_EQ(fromBytes.ReadMore(bytes.data(), len, &byteBody), CGzipHeader::KHeaderComplete);
    EXPECT_EQ(byteBody, bytes.data() + 14);

    const unsigned char* constBytes = bytes.data();
    CGzipHeader fromConstBytes;
    const unsigned char* constByteBody = nullptr;
    ASSERT_EQ(fromConstBytes.ReadMore(constBytes, 9, &constByteBody), CGzipHeader::KHeaderIncomplete);
    EXPECT_EQ(constByteBody, nullptr);
    ASSERT_EQ(fromConstBytes.ReadMore(constBytes + 9, len - 9, &constByteBody), CGzipHeader::KHeaderComplete);
    EXPECT_EQ(constByteBody, bytes.data() + 14);
}

TEST(GzipHeaderDeathTest, ZeroLengthIsFatal)
{
    EXPECT_DEATH(
        {
            CGzipHeader header;
            const char byte = '\x1f';
            const char* bodyStart = nullptr;
            static_cast<void>(header.ReadMore(&byte, 0, &bodyStart));
        },
        "ASSERT: \"inbufLen != 0\" in file src/GzipHeader");
}

TEST(GzipHeaderTest, RandomBytesNeverReadPastTheirLength)
{
    std::mt19937 random(velatest::SplitSeed());
    for (int round = 0; round < 500; ++round) {
        const size_t len = 1 + random() % 64;
        std::string input;
        // Half the rounds start like a gzip header so that the optional
        // fields are reached with random flags.
        if (round % 2)
            input = std::string("\x1f\x8b\x08", 3);
        while (input.size() < len)
            input += static_cast<char>(random() & 0xFF);
        std::vector<size_t> cuts;
        for (size_t i = 1; i < input.size(); ++i) {
            if (random() % 3 == 0)
                cuts.push_back(i);
        }
        const ReadOutcome outcome = Feed(input, cuts);
        if (outcome.result == CGzipHeader::KHeaderComplete) {
            EXPECT_LE(outcome.bodyOffset, input.size());
        }
    }
}

}  // namespace
