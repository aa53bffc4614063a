#ifndef VELANET_CCRYPT_H
#define VELANET_CCRYPT_H

// MD5 message digest (RFC 1321).

// The running MD5 context: chaining state A..D, the message length in bits
// (count[0] low 32 bits, count[1] high), and the not yet processed bytes of
// the current 64-byte block.
struct tagMD5State
{
    unsigned int state[4];
    unsigned int count[2];
    unsigned char buffer[64];
};

class CCrypt
{
public:
    static void MD5_Init(tagMD5State* context);
    // Feed len bytes; may be called any number of times with any split.
    static void MD5_Update(tagMD5State* context, const unsigned char* input, unsigned long len);
    // Pad, write the 16-byte digest and wipe the context.
    static void MD5_Final(unsigned char digest[16], tagMD5State* context);

    // The digest of one buffer as 32 lowercase hex digits and a NUL.
    static void MD5_HexDigest(const unsigned char* data, unsigned long len, char out[33]);
};

#endif
