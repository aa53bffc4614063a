// The gzip and deflate filter. Every compressed stream is made with zlib in
// the test (gzip headers with optional fields are built by hand after
// RFC 1952) and fed whole, one byte per call, at every two-way split, at the
// header field boundaries and in 20 random splits; the decoded text must be
// the original every time.

#include "src/GzipUtil.h"

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

const int KPiece = 1024;  // the engine's output piece

const unsigned char KFText = 0x01;
const unsigned char KFHcrc = 0x02;
const unsigned char KFExtra = 0x04;
const unsigned char KFName = 0x08;
const unsigned char KFComment = 0x10;

// ------------------------------------------------------------ test material

// Text of made-up words, compressible but not trivially so.
std::string Words(size_t size, unsigned seed)
{
    std::mt19937 random(seed);
    std::vector<std::string> vocabulary;
    for (int i = 0; i < 300; ++i) {
        std::string word;
        const int len = 2 + static_cast<int>(random() % 9);
        for (int j = 0; j < len; ++j)
            word += static_cast<char>('a' + random() % 26);
        vocabulary.push_back(word);
    }
    std::string text;
    while (text.size() < size) {
        // Small indexes come up more often, as in real text.
        const size_t a = random() % vocabulary.size();
        const size_t b = random() % vocabulary.size();
        text += vocabulary[std::min(a, b)];
        text += (random() % 12 == 0) ? '\n' : ' ';
    }
    text.resize(size);
    return text;
}

std::string RandomBytes(size_t size, unsigned seed)
{
    std::mt19937 random(seed);
    std::string bytes;
    for (size_t i = 0; i < size; ++i)
        bytes += static_cast<char>(random() & 0xFF);
    return bytes;
}

// zlib's deflate of text: windowBits 31 makes a gzip member, 15 a zlib
// stream, -15 raw deflate.
std::string Deflate(const std::string& text, int windowBits, int level = Z_DEFAULT_COMPRESSION)
{
    z_stream s{};
    EXPECT_EQ(deflateInit2(&s, level, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY), Z_OK);
    std::string out(deflateBound(&s, static_cast<uLong>(text.size())) + 64, '\0');
    s.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    s.avail_in = static_cast<uInt>(text.size());
    s.next_out = reinterpret_cast<Bytef*>(&out[0]);
    s.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(deflate(&s, Z_FINISH), Z_STREAM_END);
    out.resize(s.total_out);
    deflateEnd(&s);
    return out;
}

std::string Inflate(const std::string& data, int windowBits)
{
    z_stream s{};
    EXPECT_EQ(inflateInit2(&s, windowBits), Z_OK);
    std::string out;
    char buf[4096];
    s.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    s.avail_in = static_cast<uInt>(data.size());
    int z = Z_OK;
    do {
        s.next_out = reinterpret_cast<Bytef*>(buf);
        s.avail_out = sizeof buf;
        z = inflate(&s, Z_NO_FLUSH);
        out.append(buf, sizeof buf - s.avail_out);
    } while (z == Z_OK);
    EXPECT_EQ(z, Z_STREAM_END);
    inflateEnd(&s);
    return out;
}

std::string LittleEndian32(uLong value)
{
    std::string bytes;
    for (int i = 0; i < 4; ++i)
        bytes += static_cast<char>((value >> (8 * i)) & 0xFF);
    return bytes;
}

// RFC 1952 trailer: CRC-32 and ISIZE, little-endian.
std::string GzipTrailer(const std::string& text)
{
    const uLong crc = crc32(0L, reinterpret_cast<const Bytef*>(text.data()), static_cast<uInt>(text.size()));
    return LittleEndian32(crc) + LittleEndian32(static_cast<uLong>(text.size()));
}

// RFC 1950 trailer: Adler-32, big-endian.
std::string Adler32BigEndian(const std::string& text)
{
    const uLong adler = adler32(1L, reinterpret_cast<const Bytef*>(text.data()), static_cast<uInt>(text.size()));
    std::string bytes;
    for (int i = 3; i >= 0; --i)
        bytes += static_cast<char>((adler >> (8 * i)) & 0xFF);
    return bytes;
}

// A gzip member header after RFC 1952, 2.3, with the offsets at which each
// field ends.
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
    h.bytes += std::string("\x00\x2f\x6a\x65", 4);  // MTIME
    mark();
    h.bytes += '\x02';  // XFL
    mark();
    h.bytes += '\x0b';  // OS
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
        const uLong crc = crc32(0L, reinterpret_cast<const Bytef*>(h.bytes.data()), static_cast<uInt>(h.bytes.size()));
        h.bytes += static_cast<char>(crc & 0xFF);
        h.bytes += static_cast<char>((crc >> 8) & 0xFF);
        mark();
    }
    return h;
}

// The fixed header zlib writes for windowBits 31: no optional fields.
const std::vector<size_t> KZlibGzipBoundaries = {1, 2, 3, 4, 8, 9, 10};

// ------------------------------------------------------------------ driver

// What feeding a stream gave: the output, every result, and the input that
// calls returning FR_StreamEnd left unconsumed.
struct DecodeRun
{
    std::string output;
    std::vector<int> results;
    bool ended = false;
    bool failed = false;
    std::string unused;
    int largestPiece = 0;
};

// Feeds the pieces between the cuts as the HTTP engine does: a piece is fed
// again from where the filter stopped as long as the result is
// FR_CallAgain; FR_NeedInput moves on to the next piece. Pieces are exactly
// sized heap copies, so that a read past a piece is caught by the sanitizer.
DecodeRun Decode(TGzipUtil& util, const std::string& input, std::vector<size_t> cuts, int outSize = KPiece)
{
    DecodeRun run;
    cuts.push_back(input.size());
    std::vector<char> out(static_cast<size_t>(outSize));
    size_t start = 0;
    for (size_t end : cuts) {
        if (end <= start)
            continue;
        std::vector<char> piece(input.begin() + static_cast<long>(start), input.begin() + static_cast<long>(end));
        char* in = piece.data();
        int remaining = static_cast<int>(piece.size());
        start = end;
        for (int guard = 0;; ++guard) {
            if (guard > 1000000) {
                ADD_FAILURE() << "no progress";
                return run;
            }
            int inLen = remaining;
            int outLen = outSize;
            const int r = util.Decompress(in, inLen, out.data(), outLen);
            run.results.push_back(r);
            EXPECT_GE(inLen, 0);
            EXPECT_LE(inLen, remaining);
            EXPECT_GE(outLen, 0);
            EXPECT_LE(outLen, outSize);
            if (r == TGzipUtil::FR_Error) {
                EXPECT_EQ(outLen, 0);
                run.failed = true;
                return run;
            }
            run.output.append(out.data(), static_cast<size_t>(outLen));
            run.largestPiece = std::max(run.largestPiece, outLen);
            if (r == TGzipUtil::FR_CallAgain) {
                EXPECT_GT(inLen, 0);
                in += remaining - inLen;
                remaining = inLen;
                continue;
            }
            if (r == TGzipUtil::FR_NeedInput) {
                EXPECT_EQ(inLen, 0);
                break;
            }
            EXPECT_EQ(r, TGzipUtil::FR_StreamEnd);
            run.ended = true;
            run.unused.append(in + (remaining - inLen), static_cast<size_t>(inLen));
            break;
        }
        // The filter only reads its input.
        EXPECT_TRUE(std::equal(piece.begin(), piece.end(), input.begin() + static_cast<long>(end - piece.size())));
    }
    return run;
}

DecodeRun DecodeFresh(FilterMode mode, const std::string& input, const std::vector<size_t>& cuts,
                      int outSize = KPiece)
{
    TGzipUtil util(FM_Gzip, FM_Gzip);
    EXPECT_EQ(util.SetDecodeMode(mode), TGzipUtil::KDone);
    DecodeRun run = Decode(util, input, cuts, outSize);
    if (!run.failed) {
        EXPECT_EQ(util.iDecodeStatus, run.ended ? TGzipUtil::DS_Finished : TGzipUtil::DS_InProgress);
    }
    return run;
}

std::vector<size_t> EveryByte(size_t len, size_t first = 1)
{
    std::vector<size_t> cuts;
    for (size_t i = first; i < len; ++i)
        cuts.push_back(i);
    return cuts;
}

// ------------------------------------------------------------ stream rows

struct StreamRow
{
    const char* name;
    FilterMode mode;
    std::string text;             // what the stream decodes to
    std::string stream;           // the bytes fed
    bool expectEnd;               // the stream end is reached
    std::string expectedUnused;   // input left after the end (trailing bytes past the trailer)
    std::vector<size_t> boundaries;  // header field ends and the start of the trailer
    size_t minFirstPiece;         // raw deflate in FM_Deflate mode needs 2 bytes at once
};

void PrintTo(const StreamRow& row, std::ostream* os)
{
    *os << row.name << " (mode " << row.mode << ", " << row.stream.size() << " bytes for " << row.text.size()
        << " bytes of text)";
}

std::string ShortText()
{
    std::string text;
    for (int i = 0; i < 12; ++i)
        text += "Hello, gzip filter " + std::to_string(i * i) + "!\n";
    return text;
}

StreamRow GzipRow(const char* name, const std::string& text, int level = Z_DEFAULT_COMPRESSION,
                  const std::string& after = std::string())
{
    const std::string member = Deflate(text, 31, level);
    std::vector<size_t> boundaries = KZlibGzipBoundaries;
    boundaries.push_back(member.size() - 8);  // trailer start
    boundaries.push_back(member.size());      // trailer end
    return StreamRow{name, FM_Gzip, text, member + after, true, after, boundaries, 1};
}

StreamRow HandBuiltRow(const char* name, const BuiltHeader& h, const std::string& text,
                       const std::string& after = std::string())
{
    const std::string body = Deflate(text, -MAX_WBITS);
    const std::string member = h.bytes + body + GzipTrailer(text);
    std::vector<size_t> boundaries = h.boundaries;
    boundaries.push_back(h.bytes.size() + body.size());
    boundaries.push_back(member.size());
    return StreamRow{name, FM_Gzip, text, member + after, true, after, boundaries, 1};
}

std::vector<StreamRow> MakeStreamRows()
{
    const std::string text = ShortText();
    std::vector<StreamRow> rows;
    rows.push_back(GzipRow("gzip-zlib-made-short", text));
    rows.push_back(GzipRow("gzip-zlib-made-words-40k", Words(40000, 7)));
    rows.push_back(GzipRow("gzip-zlib-made-random-bytes-stored", RandomBytes(3000, 11)));
    rows.push_back(GzipRow("gzip-level-0-stored-blocks", text, 0));
    rows.push_back(GzipRow("gzip-empty-text", ""));
    rows.push_back(GzipRow("gzip-one-byte-text", "x"));
    rows.push_back(GzipRow("gzip-trailing-bytes-after-trailer", text, Z_DEFAULT_COMPRESSION, "AFTER-THE-END"));
    rows.push_back(HandBuiltRow("gzip-fextra", BuildHeader(KFExtra, std::string("ab\0cd", 5)), text));
    rows.push_back(HandBuiltRow("gzip-fextra-empty", BuildHeader(KFExtra, ""), text));
    rows.push_back(HandBuiltRow("gzip-fextra-300-bytes", BuildHeader(KFExtra, std::string(300, '\x1f')), text));
    rows.push_back(HandBuiltRow("gzip-fname", BuildHeader(KFName, "", "page.html"), text));
    rows.push_back(HandBuiltRow("gzip-fcomment", BuildHeader(KFComment, "", "", "served by a test"), text));
    rows.push_back(HandBuiltRow("gzip-fhcrc", BuildHeader(KFHcrc), text));
    rows.push_back(HandBuiltRow("gzip-all-flags",
                                BuildHeader(KFText | KFHcrc | KFExtra | KFName | KFComment,
                                            std::string("\x41\x70\x02\x00\x01\x02", 6), "name.txt", "a comment"),
                                text));
    rows.push_back(HandBuiltRow("gzip-all-flags-then-trailing-bytes",
                                BuildHeader(KFHcrc | KFExtra | KFName | KFComment, "x", "n", "c"), text,
                                std::string("\x1f\x8b\x08\x00 next", 9)));

    // Trailer bytes are taken without a look: a missing trailer still ends.
    const std::string member = Deflate(text, 31);
    rows.push_back(StreamRow{"gzip-without-trailer", FM_Gzip, text, member.substr(0, member.size() - 8), true, "",
                             KZlibGzipBoundaries, 1});

    const std::string zlibStream = Deflate(text, MAX_WBITS);
    rows.push_back(StreamRow{"deflate-zlib-wrapped", FM_Deflate, text, zlibStream, true, "", {2}, 1});
    rows.push_back(StreamRow{"deflate-zlib-wrapped-words-40k", FM_Deflate, Words(40000, 8),
                             Deflate(Words(40000, 8), MAX_WBITS), true, "", {2}, 1});
    // After a zlib stream up to 8 bytes are taken as a gzip trailer too.
    rows.push_back(StreamRow{"deflate-zlib-wrapped-then-12-bytes", FM_Deflate, text, zlibStream + "0123456789AB",
                             true, "89AB", {2, zlibStream.size()}, 1});

    const std::string raw = Deflate(text, -MAX_WBITS);
    // Without the Adler-32 a raw stream never reports its end in this mode:
    // zlib waits for the check value of the header it was given.
    rows.push_back(StreamRow{"deflate-raw-needs-synthetic-header", FM_Deflate, text, raw, false, "", {2}, 2});
    rows.push_back(StreamRow{"deflate-raw-with-adler32-ends", FM_Deflate, text, raw + Adler32BigEndian(text), true,
                             "", {2, raw.size()}, 2});
    rows.push_back(StreamRow{"deflate-raw-words-40k", FM_Deflate, Words(40000, 9), Deflate(Words(40000, 9), -MAX_WBITS),
                             false, "", {2}, 2});
    return rows;
}

class GzipStreamTest : public ::testing::TestWithParam<StreamRow>
{
protected:
    void Check(const std::vector<size_t>& cuts, int outSize = KPiece)
    {
        const StreamRow& row = GetParam();
        SCOPED_TRACE(velatest::CutsText(cuts));
        const DecodeRun run = DecodeFresh(row.mode, row.stream, cuts, outSize);
        ASSERT_FALSE(run.failed);
        EXPECT_EQ(run.ended, row.expectEnd);
        ASSERT_EQ(run.output.size(), row.text.size());
        EXPECT_TRUE(run.output == row.text) << "decoded text differs";
        EXPECT_EQ(run.unused, row.expectedUnused);
    }

    // Cuts at or after the row's smallest first piece.
    std::vector<size_t> Usable(std::vector<size_t> cuts) const
    {
        const StreamRow& row = GetParam();
        cuts.erase(std::remove_if(cuts.begin(), cuts.end(),
                                  [&row](size_t c) { return c < row.minFirstPiece || c >= row.stream.size(); }),
                   cuts.end());
        std::sort(cuts.begin(), cuts.end());
        cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
        return cuts;
    }
};

TEST_P(GzipStreamTest, Whole)
{
    Check({});
}

TEST_P(GzipStreamTest, OneBytePerCall)
{
    Check(EveryByte(GetParam().stream.size(), GetParam().minFirstPiece));
}

TEST_P(GzipStreamTest, EveryTwoWaySplit)
{
    const size_t len = GetParam().stream.size();
    // Every position of the small streams; in the large ones every position
    // near the ends and a stride through the middle.
    const size_t stride = len <= 2048 ? 1 : 61;
    for (size_t i = GetParam().minFirstPiece; i < len; ++i) {
        if (i < 64 || i + 64 > len || i % stride == 0)
            Check({i});
    }
}

TEST_P(GzipStreamTest, AtHeaderFieldBoundaries)
{
    Check(Usable(GetParam().boundaries));
    for (size_t b : Usable(GetParam().boundaries))
        Check({b});
}

TEST_P(GzipStreamTest, TwentyRandomSplits)
{
    std::mt19937 random(velatest::SplitSeed());
    const size_t len = GetParam().stream.size();
    if (len < 3)
        return;
    for (int round = 0; round < 20; ++round) {
        std::vector<size_t> cuts;
        const size_t count = 1 + random() % std::min<size_t>(len - 1, 200);
        for (size_t i = 0; i < count; ++i)
            cuts.push_back(1 + random() % (len - 1));
        Check(Usable(cuts));
    }
}

TEST_P(GzipStreamTest, SmallOutputPiecesGiveTheSameText)
{
    Check({}, 1);
    Check({}, 7);
    Check(EveryByte(GetParam().stream.size(), GetParam().minFirstPiece), 5);
}

INSTANTIATE_TEST_SUITE_P(Rows, GzipStreamTest, ::testing::ValuesIn(MakeStreamRows()),
                         [](const ::testing::TestParamInfo<StreamRow>& info) {
                             std::string name = info.param.name;
                             for (char& c : name) {
                                 if (c == '-')
                                     c = '_';
                             }
                             return name;
                         });

// --------------------------------------------- edge cases of the filter

TEST(GzipUtilTest, HeaderSplitOneBytePerCallIsReadCorrectly)
{
    const std::string text = ShortText();
    const BuiltHeader h = BuildHeader(KFExtra | KFName, "xy", "n.txt");
    const std::string stream = h.bytes + Deflate(text, -MAX_WBITS) + GzipTrailer(text);
    std::vector<size_t> cuts = EveryByte(h.bytes.size() + 1);
    const DecodeRun run = DecodeFresh(FM_Gzip, stream, cuts);
    ASSERT_FALSE(run.failed);
    EXPECT_TRUE(run.ended);
    EXPECT_EQ(run.output, text);
    // Every call inside the header asks for more input.
    for (size_t i = 0; i < h.bytes.size(); ++i)
        EXPECT_EQ(run.results[i], TGzipUtil::FR_NeedInput) << i;
}

TEST(GzipUtilTest, CallEndingExactlyAtTheHeaderEndReturnsNeedInputWithNoOutput)
{
    const std::string text = ShortText();
    const std::string member = Deflate(text, 31);
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    std::vector<char> header(member.begin(), member.begin() + 10);
    int inLen = 10;
    char out[KPiece];
    int outLen = KPiece;
    EXPECT_EQ(util.Decompress(header.data(), inLen, out, outLen), TGzipUtil::FR_NeedInput);
    EXPECT_EQ(outLen, 0);
    EXPECT_EQ(inLen, 0);
    EXPECT_EQ(util.iGzipHeaderStatus, TGzipUtil::GZIP_CHECK_HEADER_COMPLETE);
    EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_InProgress);

    const DecodeRun rest = Decode(util, member.substr(10), {});
    EXPECT_TRUE(rest.ended);
    EXPECT_EQ(rest.output, text);
}

TEST(GzipUtilTest, HeaderWithFextraFnameFcommentFhcrcIsSkippedEntirely)
{
    const std::string text = ShortText();
    const BuiltHeader h = BuildHeader(KFHcrc | KFExtra | KFName | KFComment, std::string("\x1f\x8b\x08\x00", 4),
                                      "file\x1f\x8b", "comment");
    const std::string stream = h.bytes + Deflate(text, -MAX_WBITS) + GzipTrailer(text);
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    // The header alone: used up, no output.
    const DecodeRun head = Decode(util, h.bytes, {});
    EXPECT_EQ(head.results, std::vector<int>{TGzipUtil::FR_NeedInput});
    EXPECT_EQ(util.iGzipHeaderStatus, TGzipUtil::GZIP_CHECK_HEADER_COMPLETE);
    EXPECT_EQ(util.iGzipHeader.m_nFlags, 0);
    const DecodeRun body = Decode(util, stream.substr(h.bytes.size()), {});
    EXPECT_TRUE(body.ended);
    EXPECT_EQ(body.output, text);
}

TEST(GzipUtilTest, FirstByteOtherThan1FGivesErrorAndStatusFailed)
{
    std::string member = Deflate(ShortText(), 31);
    member[0] = '\x1e';
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    std::vector<char> in(member.begin(), member.end());
    int inLen = static_cast<int>(in.size());
    char out[KPiece];
    int outLen = KPiece;
    EXPECT_EQ(util.Decompress(in.data(), inLen, out, outLen), TGzipUtil::FR_Error);
    EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_Failed);
    EXPECT_EQ(util.iGzipHeaderStatus, TGzipUtil::GZIP_CHECK_HEADER_INVALID);
    EXPECT_EQ(outLen, 0);
    // Failed stays failed, whatever comes next.
    const std::string good = Deflate(ShortText(), 31);
    std::vector<char> again(good.begin(), good.end());
    inLen = static_cast<int>(again.size());
    outLen = KPiece;
    EXPECT_EQ(util.Decompress(again.data(), inLen, out, outLen), TGzipUtil::FR_Error);
    EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_Failed);
}

TEST(GzipUtilTest, FirstByteOtherThan1FAloneGivesError)
{
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    char in[1] = {'\x00'};
    int inLen = 1;
    char out[KPiece];
    int outLen = KPiece;
    EXPECT_EQ(util.Decompress(in, inLen, out, outLen), TGzipUtil::FR_Error);
    EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_Failed);
}

TEST(GzipUtilTest, DataAfterTheStreamEndUpToEightBytesAreTakenAsTheTrailer)
{
    const std::string text = ShortText();
    const std::string member = Deflate(text, 31);
    const std::string deflateEnd = member.substr(0, member.size() - 8);
    const std::string trailer = member.substr(member.size() - 8);

    // Stream end with 3 trailer bytes in the same piece, then 12 bytes more.
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    const DecodeRun first = Decode(util, deflateEnd + trailer.substr(0, 3), {});
    EXPECT_TRUE(first.ended);
    EXPECT_EQ(first.output, text);
    EXPECT_TRUE(first.unused.empty());
    EXPECT_EQ(util.iFooterSkipped, 3);

    std::vector<char> more(12, 'z');
    int inLen = 12;
    char out[KPiece];
    int outLen = KPiece;
    EXPECT_EQ(util.Decompress(more.data(), inLen, out, outLen), TGzipUtil::FR_StreamEnd);
    EXPECT_EQ(inLen, 7);
    EXPECT_EQ(outLen, 0);
    EXPECT_EQ(util.iFooterSkipped, 8);
}

TEST(GzipUtilTest, CallsAfterTheEndReturnStreamEnd)
{
    const std::string member = Deflate(ShortText(), 31);
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    const DecodeRun run = Decode(util, member + "tail", {});
    EXPECT_TRUE(run.ended);
    EXPECT_EQ(run.unused, "tail");
    for (int i = 0; i < 3; ++i) {
        std::vector<char> again(member.begin(), member.end());
        int inLen = static_cast<int>(again.size());
        char out[KPiece];
        int outLen = KPiece;
        EXPECT_EQ(util.Decompress(again.data(), inLen, out, outLen), TGzipUtil::FR_StreamEnd);
        EXPECT_EQ(inLen, static_cast<int>(member.size()));
        EXPECT_EQ(outLen, 0);
        EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_Finished);
    }
}

TEST(GzipUtilTest, TrailerIsNeverVerified)
{
    const std::string text = ShortText();
    std::string member = Deflate(text, 31);
    for (size_t i = member.size() - 8; i < member.size(); ++i)
        member[i] = static_cast<char>(member[i] ^ 0x5A);
    const DecodeRun run = DecodeFresh(FM_Gzip, member, {});
    ASSERT_FALSE(run.failed);
    EXPECT_TRUE(run.ended);
    EXPECT_EQ(run.output, text);
}

TEST(GzipUtilTest, RawDeflateInDeflateModeDecodesAfterOneSyntheticHeaderInsertion)
{
    const std::string text = ShortText();
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Deflate), TGzipUtil::KDone);
    EXPECT_FALSE(util.iZlibHeaderInserted);
    const DecodeRun run = Decode(util, Deflate(text, -MAX_WBITS), {});
    ASSERT_FALSE(run.failed);
    EXPECT_EQ(run.output, text);
    EXPECT_TRUE(util.iZlibHeaderInserted);
    EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_InProgress);
}

TEST(GzipUtilTest, ZlibWrappedDataNeedsNoSyntheticHeader)
{
    const std::string text = ShortText();
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Deflate), TGzipUtil::KDone);
    const DecodeRun run = Decode(util, Deflate(text, MAX_WBITS), {});
    EXPECT_TRUE(run.ended);
    EXPECT_EQ(run.output, text);
    EXPECT_FALSE(util.iZlibHeaderInserted);
}

TEST(GzipUtilTest, RawDeflateFailingAgainAfterTheInsertionGivesError)
{
    // 0xFF: a final block of the reserved type 3, invalid as raw deflate too.
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Deflate), TGzipUtil::KDone);
    const DecodeRun run = Decode(util, std::string(16, '\xff'), {});
    EXPECT_TRUE(run.failed);
    EXPECT_EQ(run.results, std::vector<int>{TGzipUtil::FR_Error});
    EXPECT_TRUE(util.iZlibHeaderInserted);
    EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_Failed);
}

TEST(GzipUtilTest, SecondFailureLaterInTheStreamGivesError)
{
    // Raw deflate of the text up to a full flush: whole blocks, byte-aligned,
    // no final block. The next byte starts a block header.
    const std::string text = Words(20000, 3);
    z_stream s{};
    ASSERT_EQ(deflateInit2(&s, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY), Z_OK);
    std::string raw(deflateBound(&s, static_cast<uLong>(text.size())) + 64, '\0');
    s.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    s.avail_in = static_cast<uInt>(text.size());
    s.next_out = reinterpret_cast<Bytef*>(&raw[0]);
    s.avail_out = static_cast<uInt>(raw.size());
    ASSERT_EQ(deflate(&s, Z_FULL_FLUSH), Z_OK);
    raw.resize(s.total_out);
    deflateEnd(&s);

    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Deflate), TGzipUtil::KDone);
    // The flushed blocks decode after the insertion...
    const DecodeRun first = Decode(util, raw, {});
    ASSERT_FALSE(first.failed);
    EXPECT_TRUE(util.iZlibHeaderInserted);
    EXPECT_EQ(first.output, text);
    // ...then 0xFF, a block of the reserved type 3, fails for good: there is
    // no second insertion.
    const DecodeRun second = Decode(util, std::string(8, '\xff'), {});
    EXPECT_TRUE(second.failed);
    EXPECT_EQ(second.results, std::vector<int>{TGzipUtil::FR_Error});
    EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_Failed);
}

TEST(GzipUtilTest, InsertZlibHeaderWorksOncePerStream)
{
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Deflate), TGzipUtil::KDone);
    EXPECT_EQ(util.InsertZlibHeader(), TGzipUtil::KDone);
    EXPECT_EQ(util.InsertZlibHeader(), TGzipUtil::KFailed);
    util.ResetFilter();
    ASSERT_EQ(util.SetDecodeMode(FM_Deflate), TGzipUtil::KDone);
    EXPECT_EQ(util.InsertZlibHeader(), TGzipUtil::KDone);
}

// ------------------------------------------------------ bad and cut input

TEST(GzipUtilTest, TruncatedStreamsAskForMoreAndGiveAPrefix)
{
    const std::string text = ShortText();
    const std::string member = Deflate(text, 31);
    const size_t bodyEnd = member.size() - 8;
    for (size_t len = 1; len < member.size(); ++len) {
        SCOPED_TRACE("first " + std::to_string(len) + " bytes");
        for (const auto& cuts : {std::vector<size_t>{}, EveryByte(len)}) {
            const DecodeRun run = DecodeFresh(FM_Gzip, member.substr(0, len), cuts);
            ASSERT_FALSE(run.failed);
            if (len < bodyEnd) {
                EXPECT_FALSE(run.ended);
                EXPECT_EQ(run.results.back(), TGzipUtil::FR_NeedInput);
                EXPECT_EQ(text.compare(0, run.output.size(), run.output), 0);
            } else {
                EXPECT_TRUE(run.ended);
                EXPECT_EQ(run.output, text);
            }
        }
    }
}

TEST(GzipUtilTest, CorruptStreamsNeverCrashAndFailForGood)
{
    const std::string text = ShortText();
    const std::string member = Deflate(text, 31);
    for (size_t i = 0; i < member.size(); ++i) {
        std::string bad = member;
        bad[i] = static_cast<char>(bad[i] ^ 0xFF);
        SCOPED_TRACE("byte " + std::to_string(i) + " inverted");
        for (const auto& cuts : {std::vector<size_t>{}, EveryByte(bad.size())}) {
            TGzipUtil util(FM_Gzip, FM_Gzip);
            ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
            const DecodeRun run = Decode(util, bad, cuts);
            if (i < 3) {
                // Identifier and method are checked.
                EXPECT_TRUE(run.failed);
            } else if (i >= 4 && i < 10) {
                // Time, extra flags and OS are not.
                EXPECT_TRUE(run.ended);
                EXPECT_EQ(run.output, text);
            }
            if (run.failed) {
                EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_Failed);
                std::vector<char> again(member.begin(), member.end());
                int inLen = static_cast<int>(again.size());
                char out[KPiece];
                int outLen = KPiece;
                EXPECT_EQ(util.Decompress(again.data(), inLen, out, outLen), TGzipUtil::FR_Error);
            }
        }
    }
}

TEST(GzipUtilTest, RandomStreamsNeverCrash)
{
    std::mt19937 random(velatest::SplitSeed() + 1);
    const std::string validHeader = BuildHeader(0).bytes;
    for (int round = 0; round < 400; ++round) {
        std::string input;
        const int kind = static_cast<int>(random() % 3);
        if (kind == 1)
            input = validHeader;  // random deflate data after a good header
        else if (kind == 2)
            input = "\x78\x9c";  // random data after a good zlib header
        input += RandomBytes(random() % 600, static_cast<unsigned>(random()));
        if (input.empty())
            continue;
        std::vector<size_t> cuts;
        for (size_t i = 1; i < input.size(); ++i) {
            if (random() % 8 == 0)
                cuts.push_back(i);
        }
        const FilterMode mode = (random() % 2) ? FM_Gzip : FM_Deflate;
        SCOPED_TRACE("round " + std::to_string(round));
        TGzipUtil util(FM_Gzip, FM_Gzip);
        ASSERT_EQ(util.SetDecodeMode(mode), TGzipUtil::KDone);
        const DecodeRun run = Decode(util, input, cuts, 1 + static_cast<int>(random() % KPiece));
        for (int r : run.results) {
            EXPECT_GE(r, TGzipUtil::FR_CallAgain);
            EXPECT_LE(r, TGzipUtil::FR_Error);
        }
        if (run.failed) {
            EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_Failed);
        }
    }
}

// ----------------------------------------------------------- lifecycle

TEST(GzipUtilTest, NewFilterHasNothingInitialised)
{
    TGzipUtil util(FM_Gzip, FM_Deflate);
    EXPECT_EQ(util.iEncodeMode, FM_Gzip);
    EXPECT_EQ(util.iDecodeMode, FM_Deflate);
    EXPECT_FALSE(util.iEncodeReady);
    EXPECT_FALSE(util.iDecodeReady);
    EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_NotStarted);
    EXPECT_EQ(util.iGzipHeaderStatus, TGzipUtil::GZIP_CHECK_HEADER_IN_PROGRESS);
    EXPECT_EQ(util.iFooterSkipped, 0);
    EXPECT_FALSE(util.iZlibHeaderInserted);

    char in[4] = {'\x1f', '\x8b', '\x08', '\x00'};
    int inLen = 4;
    char out[KPiece];
    int outLen = KPiece;
    EXPECT_EQ(util.Decompress(in, inLen, out, outLen), TGzipUtil::FR_Error);
    EXPECT_EQ(inLen, 4);
    EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_NotStarted);
}

TEST(GzipUtilTest, ModesGivenAsPlainNumbers)
{
    // The engine's filter: modes (1, 1), then SetDecodeMode(1) for a body.
    const std::string text = ShortText();
    TGzipUtil util(1, 1);
    EXPECT_EQ(util.iEncodeMode, FM_Gzip);
    EXPECT_EQ(util.iDecodeMode, FM_Gzip);
    EXPECT_FALSE(util.iDecodeReady);
    ASSERT_EQ(util.SetDecodeMode(1), TGzipUtil::KDone);
    const DecodeRun gzip = Decode(util, Deflate(text, 31), {});
    EXPECT_TRUE(gzip.ended);
    EXPECT_EQ(gzip.output, text);

    util.ResetFilter();
    ASSERT_EQ(util.SetDecodeMode(2), TGzipUtil::KDone);
    EXPECT_EQ(util.iDecodeMode, FM_Deflate);
    const DecodeRun zlib = Decode(util, Deflate(text, MAX_WBITS), {});
    EXPECT_TRUE(zlib.ended);
    EXPECT_EQ(zlib.output, text);

    // The same encode mode again starts nothing; another one starts an encoder.
    EXPECT_EQ(util.SetEncodeMode(1), TGzipUtil::KDone);
    EXPECT_FALSE(util.iEncodeReady);
    EXPECT_EQ(util.SetEncodeMode(2), TGzipUtil::KDone);
    EXPECT_EQ(util.iEncodeMode, FM_Deflate);
    EXPECT_TRUE(util.iEncodeReady);
    EXPECT_EQ(util.SetDecodeMode(3), TGzipUtil::KFailed);
}

TEST(GzipUtilTest, SetDecodeModeStartsADecoder)
{
    TGzipUtil util(FM_Gzip, FM_Gzip);
    EXPECT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    EXPECT_TRUE(util.iDecodeReady);
    EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_InProgress);
    EXPECT_EQ(util.iGzipHeader.m_enState, CGzipHeader::GHS_Id1);
}

TEST(GzipUtilTest, SetDecodeModeWithTheSameModeWhileReadyChangesNothing)
{
    const std::string text = ShortText();
    const std::string member = Deflate(text, 31);
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    const DecodeRun first = Decode(util, member.substr(0, 5), {});
    EXPECT_EQ(util.iGzipHeader.m_enState, CGzipHeader::GHS_Time1);
    EXPECT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    EXPECT_EQ(util.iGzipHeader.m_enState, CGzipHeader::GHS_Time1);
    const DecodeRun rest = Decode(util, member.substr(5), {});
    EXPECT_TRUE(rest.ended);
    EXPECT_EQ(first.output + rest.output, text);
}

TEST(GzipUtilTest, SetDecodeModeWithAnotherModeStartsOver)
{
    const std::string text = ShortText();
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    const DecodeRun half = Decode(util, Deflate(text, 31).substr(0, 30), {});
    ASSERT_FALSE(half.failed);
    ASSERT_EQ(util.SetDecodeMode(FM_Deflate), TGzipUtil::KDone);
    EXPECT_EQ(util.iDecodeMode, FM_Deflate);
    EXPECT_EQ(util.iFooterSkipped, 0);
    const DecodeRun run = Decode(util, Deflate(text, MAX_WBITS), {});
    EXPECT_TRUE(run.ended);
    EXPECT_EQ(run.output, text);
}

TEST(GzipUtilTest, UnknownDecodeModeFails)
{
    TGzipUtil util(FM_Gzip, FM_Gzip);
    EXPECT_EQ(util.SetDecodeMode(static_cast<FilterMode>(3)), TGzipUtil::KFailed);
    EXPECT_FALSE(util.iDecodeReady);
    EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_NotStarted);
    char in[2] = {'\x1f', '\x8b'};
    int inLen = 2;
    char out[KPiece];
    int outLen = KPiece;
    EXPECT_EQ(util.Decompress(in, inLen, out, outLen), TGzipUtil::FR_Error);
}

TEST(GzipUtilTest, UnknownDecodeModeAfterAReadyDecoderDecodesNothing)
{
    const std::string text = ShortText();
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    EXPECT_EQ(util.SetDecodeMode(static_cast<FilterMode>(0)), TGzipUtil::KFailed);
    EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_NotStarted);
    const DecodeRun run = Decode(util, Deflate(text, 31), {});
    EXPECT_TRUE(run.failed);
    // A known mode brings it back.
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    const DecodeRun good = Decode(util, Deflate(text, 31), {});
    EXPECT_TRUE(good.ended);
    EXPECT_EQ(good.output, text);
}

TEST(GzipUtilTest, InitDecodingOnlyFromNotStarted)
{
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    EXPECT_EQ(util.InitDecoding(), TGzipUtil::KFailed);
    EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_InProgress);
}

TEST(GzipUtilTest, ResetFilterReturnsToNotStartedAndTheNextStreamDecodes)
{
    const std::string text = ShortText();
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Deflate), TGzipUtil::KDone);
    const DecodeRun raw = Decode(util, Deflate(text, -MAX_WBITS) + Adler32BigEndian(text) + "xy", {});
    EXPECT_TRUE(raw.ended);
    EXPECT_TRUE(util.iZlibHeaderInserted);
    EXPECT_EQ(util.iFooterSkipped, 2);

    util.ResetFilter();
    EXPECT_FALSE(util.iDecodeReady);
    EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_NotStarted);
    EXPECT_EQ(util.iGzipHeaderStatus, TGzipUtil::GZIP_CHECK_HEADER_IN_PROGRESS);
    EXPECT_EQ(util.iFooterSkipped, 0);
    EXPECT_FALSE(util.iZlibHeaderInserted);
    EXPECT_TRUE(Decode(util, Deflate(text, MAX_WBITS), {}).failed);

    // The same mode again: not ready, so a new decoder is started.
    ASSERT_EQ(util.SetDecodeMode(FM_Deflate), TGzipUtil::KDone);
    const DecodeRun next = Decode(util, Deflate(text, MAX_WBITS), {});
    EXPECT_TRUE(next.ended);
    EXPECT_EQ(next.output, text);
}

TEST(GzipUtilTest, ResetFilterAfterAFailureMakesTheFilterUsableAgain)
{
    const std::string text = ShortText();
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    EXPECT_TRUE(Decode(util, "not gzip", {}).failed);
    util.ResetFilter();
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    const DecodeRun run = Decode(util, Deflate(text, 31), {});
    EXPECT_TRUE(run.ended);
    EXPECT_EQ(run.output, text);
}

TEST(GzipUtilTest, ResetFilterWhenNotStartedChangesNothing)
{
    TGzipUtil util(FM_Gzip, FM_Gzip);
    util.ResetFilter();
    util.ResetFilter();
    EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_NotStarted);
    EXPECT_FALSE(util.iDecodeReady);
}

// The engine's use: one filter, SetDecodeMode(1) before each compressed
// body, input pieces of at most 1024 bytes, ResetFilter when a body ends.
TEST(GzipUtilTest, OneFilterServesManyBodiesInEnginePieces)
{
    TGzipUtil util(FM_Gzip, FM_Gzip);
    for (unsigned body = 0; body < 4; ++body) {
        const std::string text = Words(5000 + 3000 * body, 100 + body);
        const std::string member = Deflate(text, 31);
        std::vector<size_t> cuts;
        for (size_t c = KPiece; c < member.size(); c += KPiece)
            cuts.push_back(c);
        ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
        const DecodeRun run = Decode(util, member, cuts);
        EXPECT_TRUE(run.ended) << body;
        EXPECT_EQ(run.output, text) << body;
        EXPECT_EQ(run.largestPiece, KPiece) << body;
        util.ResetFilter();
    }
}

TEST(GzipUtilTest, NoOutputRoomIsAnErrorThatLeavesTheDecoderGoing)
{
    const std::string text = ShortText();
    const std::string member = Deflate(text, 31);
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    std::vector<char> in(member.begin(), member.end());
    int inLen = static_cast<int>(in.size());
    char out[KPiece];
    int outLen = KPiece;
    EXPECT_EQ(util.Decompress(in.data(), inLen, nullptr, outLen), TGzipUtil::FR_Error);
    outLen = 0;
    EXPECT_EQ(util.Decompress(in.data(), inLen, out, outLen), TGzipUtil::FR_Error);
    outLen = -1;
    EXPECT_EQ(util.Decompress(in.data(), inLen, out, outLen), TGzipUtil::FR_Error);
    EXPECT_EQ(inLen, static_cast<int>(in.size()));
    EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_InProgress);
    const DecodeRun run = Decode(util, member, {});
    EXPECT_TRUE(run.ended);
    EXPECT_EQ(run.output, text);
}

TEST(GzipUtilTest, NoInputWhileTheHeaderIsReadFailsTheDecoder)
{
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    int inLen = 0;
    char out[KPiece];
    int outLen = KPiece;
    EXPECT_EQ(util.Decompress(nullptr, inLen, out, outLen), TGzipUtil::FR_Error);
    EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_Failed);
}

TEST(GzipUtilTest, AnEmptyPieceWhileTheHeaderIsReadFailsTheDecoderToo)
{
    // A buffer with no bytes in it is no more input than a null one.
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    char byte = '\x1f';
    int inLen = 0;
    char out[KPiece];
    int outLen = KPiece;
    EXPECT_EQ(util.Decompress(&byte, inLen, out, outLen), TGzipUtil::FR_Error);
    EXPECT_EQ(outLen, 0);
    EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_Failed);
}

TEST(GzipUtilTest, NoInputAfterTheHeaderAsksForMore)
{
    const std::string text = ShortText();
    const std::string member = Deflate(text, 31);
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    ASSERT_FALSE(Decode(util, member.substr(0, 10), {}).failed);
    char out[KPiece];
    int inLen = 0;
    int outLen = KPiece;
    EXPECT_EQ(util.Decompress(nullptr, inLen, out, outLen), TGzipUtil::FR_NeedInput);
    EXPECT_EQ(outLen, 0);
    char byte = 'q';
    inLen = -4;
    outLen = KPiece;
    EXPECT_EQ(util.Decompress(&byte, inLen, out, outLen), TGzipUtil::FR_NeedInput);
    EXPECT_EQ(outLen, 0);
    EXPECT_EQ(util.iDecodeStatus, TGzipUtil::DS_InProgress);
    const DecodeRun rest = Decode(util, member.substr(10), {});
    EXPECT_TRUE(rest.ended);
    EXPECT_EQ(rest.output, text);
}

TEST(GzipUtilTest, CheckGZipHeaderMovesInputToTheBody)
{
    const std::string member = Deflate(ShortText(), 31);
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    std::vector<char> bytes(member.begin(), member.end());
    char* in = bytes.data();
    int inLen = static_cast<int>(bytes.size());
    EXPECT_EQ(util.CheckGZipHeader(in, inLen), TGzipUtil::FR_CallAgain);
    EXPECT_EQ(in, bytes.data() + 10);
    EXPECT_EQ(inLen, static_cast<int>(bytes.size()) - 10);
    EXPECT_EQ(util.iGzipHeaderStatus, TGzipUtil::GZIP_CHECK_HEADER_COMPLETE);
}

TEST(GzipUtilTest, CheckGZipHeaderWithIncompleteHeaderUsesEverything)
{
    const std::string member = Deflate(ShortText(), 31);
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    std::vector<char> bytes(member.begin(), member.begin() + 6);
    char* in = bytes.data();
    int inLen = 6;
    EXPECT_EQ(util.CheckGZipHeader(in, inLen), TGzipUtil::FR_NeedInput);
    EXPECT_EQ(in, nullptr);
    EXPECT_EQ(inLen, 0);
    EXPECT_EQ(util.iGzipHeaderStatus, TGzipUtil::GZIP_CHECK_HEADER_IN_PROGRESS);
}

TEST(GzipUtilDeathTest, CheckGZipHeaderAfterTheHeaderIsFatal)
{
    EXPECT_DEATH(
        {
            const std::string member = Deflate(ShortText(), 31);
            TGzipUtil util(FM_Gzip, FM_Gzip);
            static_cast<void>(util.SetDecodeMode(FM_Gzip));
            std::vector<char> bytes(member.begin(), member.end());
            char* in = bytes.data();
            int inLen = static_cast<int>(bytes.size());
            static_cast<void>(util.CheckGZipHeader(in, inLen));
            static_cast<void>(util.CheckGZipHeader(in, inLen));
        },
        "ASSERT: \"iGzipHeaderStatus == GZIP_CHECK_HEADER_IN_PROGRESS\" in file src/GzipUtil");
}

TEST(GzipUtilTest, SkipGZipFooterTakesAtMostEightBytesInAll)
{
    TGzipUtil util(FM_Gzip, FM_Gzip);
    const char bytes[16] = {};
    int len = 5;
    util.SkipGZipFooter(bytes, len);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(util.iFooterSkipped, 5);
    len = 10;
    util.SkipGZipFooter(bytes, len);
    EXPECT_EQ(len, 7);
    EXPECT_EQ(util.iFooterSkipped, 8);
    len = 3;
    util.SkipGZipFooter(bytes, len);
    EXPECT_EQ(len, 3);
    EXPECT_EQ(util.iFooterSkipped, 8);
    len = -2;
    util.SkipGZipFooter(bytes, len);
    EXPECT_EQ(len, -2);
    EXPECT_EQ(util.iFooterSkipped, 8);
}

TEST(GzipUtilTest, DoInflateWithoutOutputIsAnError)
{
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    char in[4] = {};
    int inLen = 4;
    int outLen = KPiece;
    EXPECT_EQ(util.DoInflate(in, inLen, nullptr, outLen), TGzipUtil::FR_Error);
    char out[8];
    outLen = 0;
    EXPECT_EQ(util.DoInflate(in, inLen, out, outLen), TGzipUtil::FR_Error);
    EXPECT_EQ(inLen, 4);
}

TEST(GzipUtilTest, DoInflateWithoutADecoderIsAnError)
{
    TGzipUtil util(FM_Gzip, FM_Gzip);
    char in[4] = {};
    int inLen = 4;
    char out[8];
    int outLen = 8;
    EXPECT_EQ(util.DoInflate(in, inLen, out, outLen), TGzipUtil::FR_Error);
    EXPECT_EQ(util.InsertZlibHeader(), TGzipUtil::KFailed);
}

// ------------------------------------------------------------ compression

std::string Compress(TGzipUtil& util, const std::string& text, int room, int* result)
{
    std::string out(static_cast<size_t>(room), '\0');
    int outLen = room;
    *result = util.CompressAll(text.data(), static_cast<int>(text.size()), &out[0], outLen);
    EXPECT_GE(outLen, 0);
    EXPECT_LE(outLen, room);
    out.resize(static_cast<size_t>(std::max(outLen, 0)));
    return out;
}

TEST(GzipUtilTest, CompressAllWithoutAnEncoderReturnsNotReady)
{
    TGzipUtil util(FM_Gzip, FM_Gzip);
    int result = -1;
    Compress(util, "text", 256, &result);
    EXPECT_EQ(result, TGzipUtil::KCompressNotReady);
    // The mode it already has: nothing is initialised.
    EXPECT_EQ(util.SetEncodeMode(FM_Gzip), TGzipUtil::KDone);
    EXPECT_FALSE(util.iEncodeReady);
    Compress(util, "text", 256, &result);
    EXPECT_EQ(result, TGzipUtil::KCompressNotReady);
}

TEST(GzipUtilTest, CompressAllInGzipModeWritesAWholeGzipMember)
{
    const std::string text = Words(20000, 21);
    TGzipUtil util(FM_Deflate, FM_Gzip);
    ASSERT_EQ(util.SetEncodeMode(FM_Gzip), TGzipUtil::KDone);
    EXPECT_TRUE(util.iEncodeReady);
    int result = -1;
    const std::string member = Compress(util, text, 30000, &result);
    EXPECT_EQ(result, TGzipUtil::KDone);
    ASSERT_GT(member.size(), 18u);
    EXPECT_EQ(member.substr(0, 10), std::string("\x1f\x8b\x08\x00\x00\x00\x00\x00\x02\xff", 10));
    EXPECT_EQ(member.substr(member.size() - 8), GzipTrailer(text));
    EXPECT_EQ(Inflate(member, 31), text);
    EXPECT_EQ(Inflate(member.substr(10, member.size() - 18), -MAX_WBITS), text);
    // And back through the filter itself.
    const DecodeRun run = DecodeFresh(FM_Gzip, member, {});
    EXPECT_TRUE(run.ended);
    EXPECT_EQ(run.output, text);
}

TEST(GzipUtilTest, CompressAllInDeflateModeWritesAZlibStream)
{
    const std::string text = Words(20000, 22);
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetEncodeMode(FM_Deflate), TGzipUtil::KDone);
    int result = -1;
    const std::string stream = Compress(util, text, 30000, &result);
    EXPECT_EQ(result, TGzipUtil::KDone);
    EXPECT_EQ(Inflate(stream, MAX_WBITS), text);
}

TEST(GzipUtilTest, CompressAllOfNothing)
{
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.InitEncoding(), TGzipUtil::KDone);
    int result = -1;
    const std::string member = Compress(util, "", 64, &result);
    EXPECT_EQ(result, TGzipUtil::KDone);
    EXPECT_EQ(member.substr(member.size() - 8), std::string(8, '\0'));
    EXPECT_EQ(Inflate(member, 31), "");
}

TEST(GzipUtilTest, CompressAllEndsTheEncoderSoASecondCallFails)
{
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetEncodeMode(FM_Deflate), TGzipUtil::KDone);
    int result = -1;
    Compress(util, ShortText(), 4096, &result);
    EXPECT_EQ(result, TGzipUtil::KDone);
    EXPECT_TRUE(util.iEncodeReady);
    const std::string second = Compress(util, ShortText(), 4096, &result);
    EXPECT_EQ(result, TGzipUtil::KFailed);
    EXPECT_TRUE(second.empty());
    // A new encoder works again.
    ASSERT_EQ(util.InitEncoding(), TGzipUtil::KDone);
    const std::string third = Compress(util, ShortText(), 4096, &result);
    EXPECT_EQ(result, TGzipUtil::KDone);
    EXPECT_EQ(Inflate(third, MAX_WBITS), ShortText());
}

TEST(GzipUtilTest, CompressAllGzipRoomBelowTheHeaderFails)
{
    TGzipUtil util(FM_Deflate, FM_Gzip);
    ASSERT_EQ(util.SetEncodeMode(FM_Gzip), TGzipUtil::KDone);
    std::string out(9, '#');
    int outLen = 9;
    EXPECT_EQ(util.CompressAll("abc", 3, &out[0], outLen), TGzipUtil::KFailed);
    EXPECT_EQ(out, std::string(9, '#'));
    // Ten bytes: the header fits, the stream does not.
    int result = -1;
    Compress(util, "abc", 10, &result);
    EXPECT_EQ(result, TGzipUtil::KFailed);
}

TEST(GzipUtilTest, CompressAllGzipWithoutRoomForTheTrailerFails)
{
    const std::string text = ShortText();
    // Room for header and stream but 7 bytes of trailer room only.
    TGzipUtil probe(FM_Deflate, FM_Gzip);
    ASSERT_EQ(probe.SetEncodeMode(FM_Gzip), TGzipUtil::KDone);
    int result = -1;
    const std::string whole = Compress(probe, text, 4096, &result);
    ASSERT_EQ(result, TGzipUtil::KDone);
    const int streamEnd = static_cast<int>(whole.size()) - 8;

    TGzipUtil util(FM_Deflate, FM_Gzip);
    ASSERT_EQ(util.SetEncodeMode(FM_Gzip), TGzipUtil::KDone);
    std::string out(static_cast<size_t>(streamEnd + 7), '\0');
    int outLen = streamEnd + 7;
    EXPECT_EQ(util.CompressAll(text.data(), static_cast<int>(text.size()), &out[0], outLen), TGzipUtil::KFailed);
    EXPECT_EQ(outLen, streamEnd);
    EXPECT_EQ(out.substr(0, static_cast<size_t>(streamEnd)), whole.substr(0, static_cast<size_t>(streamEnd)));
}

TEST(GzipUtilTest, CompressAllDeflateWithTooLittleRoomFails)
{
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetEncodeMode(FM_Deflate), TGzipUtil::KDone);
    int result = -1;
    Compress(util, Words(5000, 5), 16, &result);
    EXPECT_EQ(result, TGzipUtil::KFailed);
}

TEST(GzipUtilTest, CompressAllRefusesBadArguments)
{
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetEncodeMode(FM_Deflate), TGzipUtil::KDone);
    char out[64];
    int outLen = 64;
    EXPECT_EQ(util.CompressAll(nullptr, 5, out, outLen), TGzipUtil::KFailed);
    EXPECT_EQ(util.CompressAll("abc", -1, out, outLen), TGzipUtil::KFailed);
    EXPECT_EQ(util.CompressAll("abc", 3, nullptr, outLen), TGzipUtil::KFailed);
    outLen = -5;
    EXPECT_EQ(util.CompressAll("abc", 3, out, outLen), TGzipUtil::KFailed);
    // None of these touched the encoder.
    outLen = 64;
    EXPECT_EQ(util.CompressAll("abc", 3, out, outLen), TGzipUtil::KDone);
    EXPECT_EQ(Inflate(std::string(out, static_cast<size_t>(outLen)), MAX_WBITS), "abc");
}

TEST(GzipUtilTest, CompressAllOfANullBufferOfLengthZeroIsTheEmptyMember)
{
    TGzipUtil util(FM_Deflate, FM_Gzip);
    ASSERT_EQ(util.SetEncodeMode(FM_Gzip), TGzipUtil::KDone);
    char out[64];
    int outLen = 64;
    ASSERT_EQ(util.CompressAll(nullptr, 0, out, outLen), TGzipUtil::KDone);
    const std::string member(out, static_cast<size_t>(outLen));
    ASSERT_GT(member.size(), 18u);
    EXPECT_EQ(member.substr(0, 10), std::string("\x1f\x8b\x08\x00\x00\x00\x00\x00\x02\xff", 10));
    // CRC-32 and length of no bytes.
    EXPECT_EQ(member.substr(member.size() - 8), std::string(8, '\0'));
    EXPECT_EQ(Inflate(member, 31), "");
}

// ------------------------------------------------------ stream ownership
// These paths leave zlib streams open or end them; the sanitizer build
// fails them on a leak or a double release.

TEST(GzipUtilTest, ChangingTheDecodeModeReleasesThePreviousDecoder)
{
    TGzipUtil util(FM_Gzip, FM_Gzip);
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(util.SetDecodeMode(i % 2 ? FM_Deflate : FM_Gzip), TGzipUtil::KDone);
        EXPECT_EQ(util.SetDecodeMode(static_cast<FilterMode>(7)), TGzipUtil::KFailed);
    }
}

TEST(GzipUtilTest, ResetAndDestructionReleaseTheDecoderOnce)
{
    const std::string text = ShortText();
    TGzipUtil util(FM_Gzip, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    ASSERT_FALSE(Decode(util, Deflate(text, 31).substr(0, 40), {}).failed);
    util.ResetFilter();
    util.ResetFilter();
}

TEST(GzipUtilTest, DestructionReleasesOpenStreams)
{
    TGzipUtil util(FM_Deflate, FM_Gzip);
    ASSERT_EQ(util.SetDecodeMode(FM_Gzip), TGzipUtil::KDone);
    ASSERT_EQ(util.SetEncodeMode(FM_Gzip), TGzipUtil::KDone);
    ASSERT_FALSE(Decode(util, Deflate(ShortText(), 31).substr(0, 40), {}).failed);
}

TEST(GzipUtilTest, InitEncodingAgainReleasesThePreviousEncoder)
{
    TGzipUtil util(FM_Gzip, FM_Gzip);
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(util.InitEncoding(), TGzipUtil::KDone);
    ASSERT_EQ(util.SetEncodeMode(FM_Deflate), TGzipUtil::KDone);
    ASSERT_EQ(util.SetEncodeMode(FM_Gzip), TGzipUtil::KDone);
}

TEST(GzipUtilTest, EncoderLeftOpenByAShortTrailerRoomIsReleased)
{
    TGzipUtil util(FM_Deflate, FM_Gzip);
    ASSERT_EQ(util.SetEncodeMode(FM_Gzip), TGzipUtil::KDone);
    int result = -1;
    Compress(util, "", 12, &result);
    EXPECT_EQ(result, TGzipUtil::KFailed);
}

}  // namespace
