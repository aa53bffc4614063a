#include "BaseClass/src/CCrypt.h"

#include <QCryptographicHash>
#include <QRandomGenerator>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

std::string Hex(const unsigned char digest[16])
{
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    for (int i = 0; i < 16; ++i) {
        out += kHex[digest[i] >> 4];
        out += kHex[digest[i] & 15];
    }
    return out;
}

std::string DigestWhole(const unsigned char* data, unsigned long len)
{
    tagMD5State state;
    CCrypt::MD5_Init(&state);
    CCrypt::MD5_Update(&state, data, len);
    unsigned char digest[16];
    CCrypt::MD5_Final(digest, &state);
    return Hex(digest);
}

std::string DigestWhole(const std::string& text)
{
    return DigestWhole(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

// Feed data in pieces of the given sizes (cycled until the data ends).
std::string DigestInPieces(const unsigned char* data, unsigned long len, const std::vector<unsigned long>& pieces)
{
    tagMD5State state;
    CCrypt::MD5_Init(&state);
    unsigned long done = 0;
    size_t which = 0;
    while (done < len) {
        unsigned long piece = pieces[which++ % pieces.size()];
        if (piece > len - done)
            piece = len - done;
        CCrypt::MD5_Update(&state, data + done, piece);
        done += piece;
    }
    unsigned char digest[16];
    CCrypt::MD5_Final(digest, &state);
    return Hex(digest);
}

// The digest of an independent implementation (Qt's).
std::string Reference(const unsigned char* data, unsigned long len)
{
    return QCryptographicHash::hash(QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(len)),
                                    QCryptographicHash::Md5)
        .toHex()
        .toStdString();
}

struct Vector
{
    const char* name;
    const char* input;
    const char* digest;
};

// RFC 1321, appendix A.5.
const Vector kRfcVectors[] = {
    {"empty", "", "d41d8cd98f00b204e9800998ecf8427e"},
    {"a", "a", "0cc175b9c0f1b6a831c399e269772661"},
    {"abc", "abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"message_digest", "message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {"alphabet", "abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
    {"alphanumeric", "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
     "d174ab98d277d9f5a5611c2c9f419d9f"},
    {"digits_80",
     "12345678901234567890123456789012345678901234567890123456789012345678901234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
};

class CCryptRfcVector : public ::testing::TestWithParam<Vector>
{
};

}  // namespace

TEST_P(CCryptRfcVector, Whole)
{
    EXPECT_EQ(GetParam().digest, DigestWhole(GetParam().input));
}

TEST_P(CCryptRfcVector, OneBytePerUpdate)
{
    const std::string input = GetParam().input;
    EXPECT_EQ(GetParam().digest,
              DigestInPieces(reinterpret_cast<const unsigned char*>(input.data()), input.size(), {1}));
}

TEST_P(CCryptRfcVector, EveryTwoWaySplit)
{
    const std::string input = GetParam().input;
    const unsigned char* data = reinterpret_cast<const unsigned char*>(input.data());
    for (size_t split = 0; split <= input.size(); ++split) {
        tagMD5State state;
        CCrypt::MD5_Init(&state);
        CCrypt::MD5_Update(&state, data, split);
        CCrypt::MD5_Update(&state, data + split, input.size() - split);
        unsigned char digest[16];
        CCrypt::MD5_Final(digest, &state);
        EXPECT_EQ(GetParam().digest, Hex(digest)) << "split at " << split;
    }
}

TEST_P(CCryptRfcVector, HexDigest)
{
    char out[33];
    std::memset(out, 'x', sizeof(out));
    const std::string input = GetParam().input;
    CCrypt::MD5_HexDigest(reinterpret_cast<const unsigned char*>(input.data()), input.size(), out);
    EXPECT_EQ('\0', out[32]);
    EXPECT_STREQ(GetParam().digest, out);
}

INSTANTIATE_TEST_SUITE_P(Rfc1321, CCryptRfcVector, ::testing::ValuesIn(kRfcVectors),
                         [](const ::testing::TestParamInfo<Vector>& info) { return std::string(info.param.name); });

// Padding edges: 55 bytes still fit the length in the last block, 56 need a
// second one; 63/64/65 sit around a block boundary. Values from an
// independent MD5 implementation.
TEST(CCrypt, PaddingBoundaries)
{
    const struct {
        unsigned long len;
        const char* digest;
    } rows[] = {
        {55, "ef1772b6dff9a122358552954ad0df65"},  {56, "3b0c8ac703f828b04c6c197006d17218"},
        {63, "b06521f39153d618550606be297466d5"},  {64, "014842d480b571495a4a0363793f7367"},
        {65, "c743a45e0d2e6a95cb859adae0248435"},  {119, "8a7bd0732ed6a28ce75f6dabc90e1613"},
        {120, "5f61c0ccad4cac44c75ff505e1f1e537"},
    };
    for (const auto& row : rows) {
        const std::string input(row.len, 'a');
        EXPECT_EQ(row.digest, DigestWhole(input)) << row.len << " bytes";
    }
}

TEST(CCrypt, MillionA)
{
    const std::string input(1000000, 'a');
    EXPECT_EQ("7707d6ae4e027c70eea2a935c2296f21", DigestWhole(input));
}

TEST(CCrypt, SplitsAroundBlockBoundaries)
{
    std::vector<unsigned char> data(1000);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<unsigned char>(i * 7 + 3);
    const std::string expected = Reference(data.data(), data.size());
    ASSERT_EQ(expected, DigestWhole(data.data(), data.size()));
    for (unsigned long piece : {1ul, 63ul, 64ul, 65ul, 127ul, 128ul, 129ul})
        EXPECT_EQ(expected, DigestInPieces(data.data(), data.size(), {piece})) << "pieces of " << piece;
    EXPECT_EQ(expected, DigestInPieces(data.data(), data.size(), {63, 1, 64, 65, 0, 3}));
}

TEST(CCrypt, EveryLengthUpTo300MatchesReference)
{
    std::vector<unsigned char> data(300);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<unsigned char>(255 - i);
    for (unsigned long len = 0; len <= data.size(); ++len)
        EXPECT_EQ(Reference(data.data(), len), DigestWhole(data.data(), len)) << len << " bytes";
}

TEST(CCrypt, OneMegabyteInRandomPiecesEqualsWhole)
{
    const quint32 seed = QRandomGenerator::global()->generate();
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    QRandomGenerator random(seed);
    std::vector<unsigned char> data(1 << 20);
    for (auto& byte : data)
        byte = static_cast<unsigned char>(random.bounded(256));

    const std::string whole = DigestWhole(data.data(), data.size());
    EXPECT_EQ(Reference(data.data(), data.size()), whole);

    for (int round = 0; round < 5; ++round) {
        std::vector<unsigned long> pieces;
        for (int i = 0; i < 50; ++i)
            pieces.push_back(random.bounded(1u, 40000u));
        EXPECT_EQ(whole, DigestInPieces(data.data(), data.size(), pieces)) << "round " << round;
    }
}

TEST(CCrypt, FinalWipesState)
{
    tagMD5State state;
    CCrypt::MD5_Init(&state);
    CCrypt::MD5_Update(&state, reinterpret_cast<const unsigned char*>("abc"), 3);
    unsigned char digest[16];
    CCrypt::MD5_Final(digest, &state);
    const tagMD5State zero = {};
    EXPECT_EQ(0, std::memcmp(&zero, &state, sizeof(state)));
}

TEST(CCrypt, InitRestartsAUsedState)
{
    tagMD5State state;
    CCrypt::MD5_Init(&state);
    CCrypt::MD5_Update(&state, reinterpret_cast<const unsigned char*>("garbage"), 7);
    CCrypt::MD5_Init(&state);
    CCrypt::MD5_Update(&state, reinterpret_cast<const unsigned char*>("abc"), 3);
    unsigned char digest[16];
    CCrypt::MD5_Final(digest, &state);
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", Hex(digest));
}

TEST(CCrypt, ZeroLengthUpdateChangesNothing)
{
    tagMD5State state;
    CCrypt::MD5_Init(&state);
    CCrypt::MD5_Update(&state, reinterpret_cast<const unsigned char*>("ab"), 2);
    CCrypt::MD5_Update(&state, nullptr, 0);
    CCrypt::MD5_Update(&state, reinterpret_cast<const unsigned char*>("c"), 1);
    unsigned char digest[16];
    CCrypt::MD5_Final(digest, &state);
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", Hex(digest));
}
