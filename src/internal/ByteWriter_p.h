#ifndef VELANET_BYTEWRITER_P_H
#define VELANET_BYTEWRITER_P_H

// Two-pass writer for request heads: constructed over a null pointer it only
// counts, over a buffer it copies and counts. The builders run the same steps
// through both, so the size pass and the write pass cannot drift apart except
// where a step deliberately writes less than it counts.

#include <cstring>

namespace velanet {

class ByteWriter
{
public:
    explicit ByteWriter(unsigned char* out) : m_pOut(out) {}

    void Put(const char* data, int len)
    {
        if (len <= 0)
            return;
        if (m_pOut)
            std::memcpy(m_pOut + m_nCount, data, static_cast<size_t>(len));
        m_nCount += len;
    }

    template <int N>
    void PutLiteral(const char (&text)[N])
    {
        Put(text, N - 1);
    }

    // Counts len bytes but copies them only when data is not null.
    void PutOptional(const unsigned char* data, int len)
    {
        if (len <= 0)
            return;
        if (m_pOut && data)
            std::memcpy(m_pOut + m_nCount, data, static_cast<size_t>(len));
        if (!m_pOut || data)
            m_nCount += len;
    }

    void PutDecimal(long long value);

    bool Writing() const { return m_pOut != nullptr; }
    int Count() const { return m_nCount; }

private:
    unsigned char* m_pOut;
    int m_nCount = 0;
};

inline void ByteWriter::PutDecimal(long long value)
{
    char text[24];
    int n = 0;
    const bool negative = value < 0;
    unsigned long long magnitude = negative ? 0ull - static_cast<unsigned long long>(value)
                                            : static_cast<unsigned long long>(value);
    do {
        text[sizeof text - 1 - n++] = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    if (negative)
        text[sizeof text - 1 - n++] = '-';
    Put(text + sizeof text - n, n);
}

}  // namespace velanet

#endif
