// MD5 as RFC 1321 defines it (section 3):
//   append one 1 bit and 0 bits until the length is 448 mod 512 bits,
//   append the original length in bits as 64-bit little-endian,
//   process each 512-bit block M[0..15] in four rounds of 16 steps:
//     a = b + ((a + f(b, c, d) + M[k] + T[i]) <<< s)
//   with F = (b & c) | (~b & d), G = (b & d) | (c & ~d), H = b ^ c ^ d,
//   I = c ^ (b | ~d), T[i] = floor(2^32 * |sin(i)|), words little-endian.
#include "BaseClass/src/CCrypt.h"

#include <cstdint>
#include <cstring>

namespace {

constexpr std::uint32_t kT[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

// Rotation amounts: four per round, repeated over the round's 16 steps.
constexpr unsigned kShift[4][4] = {
    {7, 12, 17, 22},
    {5, 9, 14, 20},
    {4, 11, 16, 23},
    {6, 10, 15, 21},
};

inline std::uint32_t RotateLeft(std::uint32_t x, unsigned n)
{
    return (x << n) | (x >> (32 - n));
}

inline std::uint32_t LoadLE(const unsigned char* p)
{
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

inline void StoreLE(unsigned char* p, std::uint32_t v)
{
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
    p[2] = static_cast<unsigned char>(v >> 16);
    p[3] = static_cast<unsigned char>(v >> 24);
}

void Transform(unsigned int state[4], const unsigned char block[64])
{
    std::uint32_t m[16];
    for (int i = 0; i < 16; ++i)
        m[i] = LoadLE(block + 4 * i);

    std::uint32_t a = state[0];
    std::uint32_t b = state[1];
    std::uint32_t c = state[2];
    std::uint32_t d = state[3];

    for (unsigned i = 0; i < 64; ++i) {
        const unsigned round = i / 16;
        std::uint32_t f = 0;
        unsigned k = 0;
        switch (round) {
        case 0:
            f = (b & c) | (~b & d);
            k = i;
            break;
        case 1:
            f = (b & d) | (c & ~d);
            k = (1 + 5 * i) % 16;
            break;
        case 2:
            f = b ^ c ^ d;
            k = (5 + 3 * i) % 16;
            break;
        default:
            f = c ^ (b | ~d);
            k = (7 * i) % 16;
            break;
        }
        const std::uint32_t rotated = RotateLeft(a + f + m[k] + kT[i], kShift[round][i % 4]);
        // Shift the registers: the new b is computed, the others move along.
        a = d;
        d = c;
        c = b;
        b = b + rotated;
    }

    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
}

}  // namespace

void CCrypt::MD5_Init(tagMD5State* context)
{
    context->count[0] = 0;
    context->count[1] = 0;
    context->state[0] = 0x67452301;
    context->state[1] = 0xefcdab89;
    context->state[2] = 0x98badcfe;
    context->state[3] = 0x10325476;
    std::memset(context->buffer, 0, sizeof(context->buffer));
}

void CCrypt::MD5_Update(tagMD5State* context, const unsigned char* input, unsigned long len)
{
    if (len == 0)
        return;

    // Bytes already waiting in the block buffer.
    unsigned long used = (context->count[0] >> 3) & 0x3f;

    // Advance the 64-bit bit count.
    const std::uint64_t bits = (static_cast<std::uint64_t>(context->count[1]) << 32 | context->count[0]) +
                               (static_cast<std::uint64_t>(len) << 3);
    context->count[0] = static_cast<unsigned int>(bits);
    context->count[1] = static_cast<unsigned int>(bits >> 32);

    if (used > 0) {
        const unsigned long room = 64 - used;
        if (len < room) {
            std::memcpy(context->buffer + used, input, len);
            return;
        }
        std::memcpy(context->buffer + used, input, room);
        Transform(context->state, context->buffer);
        input += room;
        len -= room;
    }
    while (len >= 64) {
        Transform(context->state, input);
        input += 64;
        len -= 64;
    }
    if (len > 0)
        std::memcpy(context->buffer, input, len);
}

void CCrypt::MD5_Final(unsigned char digest[16], tagMD5State* context)
{
    unsigned char length[8];
    StoreLE(length, context->count[0]);
    StoreLE(length + 4, context->count[1]);

    // Pad with 0x80 then zeros up to 56 mod 64, then the length.
    static const unsigned char kPadding[64] = {0x80};
    const unsigned long used = (context->count[0] >> 3) & 0x3f;
    const unsigned long padLen = used < 56 ? 56 - used : 120 - used;
    MD5_Update(context, kPadding, padLen);
    MD5_Update(context, length, 8);

    for (int i = 0; i < 4; ++i)
        StoreLE(digest + 4 * i, context->state[i]);

    std::memset(context, 0, sizeof(*context));
}

void CCrypt::MD5_HexDigest(const unsigned char* data, unsigned long len, char out[33])
{
    static const char kHex[] = "0123456789abcdef";
    tagMD5State context;
    MD5_Init(&context);
    MD5_Update(&context, data, len);
    unsigned char digest[16];
    MD5_Final(digest, &context);
    for (int i = 0; i < 16; ++i) {
        out[2 * i] = kHex[digest[i] >> 4];
        out[2 * i + 1] = kHex[digest[i] & 15];
    }
    out[32] = '\0';
}
