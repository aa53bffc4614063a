#ifndef VELANET_CQSENDFILEUNIT_H
#define VELANET_CQSENDFILEUNIT_H

// Send units: cursors over outgoing bytes that the HTTP socket engine drains
// one slice per socket write.
//
//   CQSendUnit      the base: one memory block (data, length, sent, owns)
//   CQSendDataUnit  hands out the memory block itself
//   CQSendFileUnit  hands out a header block, then a file read from disk in
//                   blockSize pieces, then a trailer block, as one stream,
//                   without loading the file into memory
//
// LoadData returns the count of bytes it points *out at (0 when nothing is
// left); the bytes stay valid until the next call on the unit.
//
// Files of any length: the file unit counts in m_nFileLength64 and
// m_nFileRead64. The documented int fields m_nFileLength and m_nFileRead
// show the same values while they fit an int and KIntSaturated (2147483647)
// beyond; the unit keeps them up to date but counts in the 64-bit fields.
// EnableSendSize, an int, saturates at KIntSaturated as well, so a
// caller that drains while it is above 0 drains a stream of any length.

#include "BaseClass/src/CQFile.h"

class CQWString;

class CQSendUnit
{
public:
    CQSendUnit() = default;
    // Runs ClearAll.
    virtual ~CQSendUnit();

    // Frees the data when owned; then sent = 0, data = null, length = 0
    // (owns keeps its value). Safe to call twice.
    virtual void ClearAll();
    // Stores the block and sets sent to 0. Earlier data is not freed: call
    // ClearAll first.
    virtual void SetData(unsigned char* data, int length, bool owns);
    // Bytes still to hand out (0 for this base).
    virtual int EnableSendSize();
    // Points *out at the next bytes, at most max of them (0 for this base).
    virtual int LoadData(unsigned char** out, int max);

    unsigned char* m_pData = nullptr;  // owned when m_bOwns (a new[] array)
    int m_nLength = 0;
    int m_nSent = 0;
    bool m_bOwns = false;

private:
    CQSendUnit(const CQSendUnit&) = delete;
    CQSendUnit& operator=(const CQSendUnit&) = delete;
};

class CQSendDataUnit : public CQSendUnit
{
public:
    CQSendDataUnit() = default;
    ~CQSendDataUnit() override;

    // 0 without data or when everything was handed out; else length - sent.
    int EnableSendSize() override;
    // Points *out into the block itself (no copy) and moves past the bytes.
    int LoadData(unsigned char** out, int max) override;
};

class CQSendFileUnit : public CQSendUnit
{
public:
    // What the stream is handing out; it goes through each phase once.
    enum enSendPhase : int
    {
        SFP_Header = 0,   // the base's data block; moves on when it is drained
        SFP_File = 1,     // the file contents; moves on when fileRead reaches fileLength
        SFP_Trailer = 2,  // the trailer block; the unit clears itself when it is drained
    };

    // Block size of the resumable upload after every ClearAll.
    static constexpr int KDefaultResumeBlockSize = 10240;
    // What an int count holds for a value larger than an int.
    static constexpr int KIntSaturated = 2147483647;

    // SetFile results.
    enum
    {
        KOpenFailed = 0,
        KOpened = 1,
    };

    CQSendFileUnit() = default;
    // Runs its own ClearAll, then closes the file.
    ~CQSendFileUnit() override;

    // The base's ClearAll, then: phase header, fileLength and fileRead 0,
    // resumeBlockSize 10240, file closed, readBuffer freed, blockSize and the
    // trailer fields 0. Safe to call twice.
    void ClearAll() override;
    // Bytes left in the whole stream (header + file + trailer); moves the
    // phase on when the current part is drained and clears the unit when
    // the stream is exhausted.
    int EnableSendSize() override;
    // The next slice: at most max bytes, and at most blockSize in the file
    // phase. A file that yields nothing before its recorded length is a
    // fatal assertion.
    int LoadData(unsigned char** out, int max) override;

    // Opens path for reading. KOpenFailed when it cannot be opened (or its
    // length cannot be read); otherwise rewinds it, records its length (any
    // length: m_nFileLength64), replaces the read buffer by one of blockSize
    // bytes and returns KOpened.
    int SetFile(const CQWString& path, int blockSize);
    // The trailer (not owned, never freed here); the flag is ignored. A
    // null trailer counts as none (length 0).
    void SetInfoData(unsigned char* data, int length, bool flag = false);

    // Reads up to length bytes of the file at the read position straight
    // into buffer and counts them into fileRead. Returns the count (0 at the
    // end of the file, on a read error, or for a null buffer or length < 1).
    int OLFileLoadData(unsigned char* buffer, int length);

    // MD5 of the next size bytes of the file (fewer when the file ends
    // first), without moving the read position: 32 lowercase hex digits and
    // a NUL in a new[] array owned by the caller. Null when size is negative
    // or memory runs out.
    char* GetBufMd5(int size);

    CQFile m_File;
    int m_nFileLength = 0;
    int m_nFileRead = 0;
    int m_nPhase = SFP_Header;
    unsigned char* m_pReadBuffer = nullptr;  // owned, m_nBlockSize bytes
    int m_nResumeBlockSize = KDefaultResumeBlockSize;
    int m_nBlockSize = 0;
    unsigned char* m_pInfoData = nullptr;  // trailer, not owned
    int m_nInfoDataLen = 0;
    int m_nInfoDataSent = 0;
    // The counts of the file phase in 64 bits (the int fields above mirror
    // them, saturated).
    long long m_nFileLength64 = 0;
    long long m_nFileRead64 = 0;

private:
    // Records the file counts in both forms.
    void SetFileCounts(long long length, long long read);
    // Frees the read buffer. Safe to call twice.
    void FreeReadBuffer();
    // Slices of the three phases; n is what EnableSendSize reported.
    [[nodiscard]] int LoadFileSlice(unsigned char** out, int max);
    [[nodiscard]] int LoadTrailerSlice(unsigned char** out, int max);
    [[nodiscard]] int LoadHeaderSlice(unsigned char** out, int max, int n);
};

#endif
