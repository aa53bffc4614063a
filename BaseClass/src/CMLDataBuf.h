#ifndef VELANET_CMLDATABUF_H
#define VELANET_CMLDATABUF_H

// A byte buffer with a capacity fixed at Create and a used size. Appends
// never grow it: bytes that do not fit are refused as a whole, so a reader
// can tell "buffer full" from "data taken".

#include <memory>

class CMLDataBuf
{
public:
    CMLDataBuf() = default;
    ~CMLDataBuf() = default;
    CMLDataBuf(const CMLDataBuf&) = delete;
    CMLDataBuf& operator=(const CMLDataBuf&) = delete;

    // Allocate capacity bytes, replacing any earlier buffer and its content
    // (used size 0). Nonzero on success; on failure the old buffer is kept.
    int Create(unsigned long capacity);

    // Append n bytes. Returns 0 and appends nothing when they do not fit in
    // the remaining capacity (or data is null with n > 0); nonzero otherwise.
    int Append(const unsigned char* data, unsigned long n);

    // Start of the storage (null before the first Create).
    unsigned char* GetBuf() { return m_pBuf.get(); }
    const unsigned char* GetBuf() const { return m_pBuf.get(); }

    unsigned long GetUsedSize() const { return m_nUsed; }
    unsigned long GetCapacity() const { return m_nCapacity; }

    // For readers that fill GetBuf() directly; clamped to the capacity.
    void SetUsedSize(unsigned long used);

    // Forget the content (used size 0); the storage is kept.
    void Zero() { m_nUsed = 0; }

    // Drop the first n used bytes and move the rest to the start.
    // n <= 0 changes nothing; n >= used size empties the buffer.
    void MoveDataToHead(int n);

private:
    std::unique_ptr<unsigned char[]> m_pBuf;
    unsigned long m_nCapacity = 0;
    unsigned long m_nUsed = 0;
};

#endif
