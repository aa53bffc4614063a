#include "src/CQSendFileUnit.h"

#include "BaseClass/src/CCrypt.h"
#include "BaseClass/src/CQString.h"
#include "BaseClass/src/QtAssert.h"

#include <algorithm>
#include <climits>
#include <memory>
#include <new>

namespace {

const char KAssertFile[] = "src/CQSendFileUnit";

// MD5 is fed in pieces of at most this many bytes.
constexpr int KMd5Piece = 1024;
constexpr int KMd5DigestLen = 16;
constexpr int KMd5HexLen = 32;
const char KHexDigits[] = "0123456789abcdef";

// Sums of the three parts of a stream, kept from overflowing the int the
// callers expect (a file close to 2 GiB plus a head would otherwise wrap).
int ClampToInt(long long value)
{
    if (value > INT_MAX)
        return INT_MAX;
    if (value < INT_MIN)
        return INT_MIN;
    return static_cast<int>(value);
}

}  // namespace

// ---------------------------------------------------------------- CQSendUnit

CQSendUnit::~CQSendUnit()
{
    CQSendUnit::ClearAll();
}

void CQSendUnit::ClearAll()
{
    // Owned blocks come from the new[] request builders, so they go back as
    // arrays.
    if (m_bOwns && m_pData)
        delete[] m_pData;
    m_nSent = 0;
    m_pData = nullptr;
    m_nLength = 0;
}

void CQSendUnit::SetData(unsigned char* data, int length, bool owns)
{
    m_pData = data;
    m_nLength = length;
    m_bOwns = owns;
    m_nSent = 0;
}

int CQSendUnit::EnableSendSize()
{
    return 0;
}

int CQSendUnit::LoadData(unsigned char**, int)
{
    return 0;
}

// ---------------------------------------------------------------- CQSendDataUnit

// The base destructor runs ClearAll.
CQSendDataUnit::~CQSendDataUnit() = default;

int CQSendDataUnit::EnableSendSize()
{
    if (!m_pData || m_nLength <= m_nSent)
        return 0;
    return m_nLength - m_nSent;
}

int CQSendDataUnit::LoadData(unsigned char** out, int max)
{
    if (!out || max < 1)
        return 0;
    const int n = EnableSendSize();
    if (n < 1)
        return 0;
    const int take = std::min(n, max);
    *out = m_pData + m_nSent;
    m_nSent += take;
    return take;
}

// ---------------------------------------------------------------- CQSendFileUnit

CQSendFileUnit::~CQSendFileUnit()
{
    CQSendFileUnit::ClearAll();
    m_File.Close();
}

void CQSendFileUnit::FreeReadBuffer()
{
    delete[] m_pReadBuffer;
    m_pReadBuffer = nullptr;
}

void CQSendFileUnit::ClearAll()
{
    CQSendUnit::ClearAll();
    m_nPhase = SFP_Header;
    SetFileCounts(0, 0);
    m_nResumeBlockSize = KDefaultResumeBlockSize;
    m_File.Close();
    FreeReadBuffer();
    m_nBlockSize = 0;
    m_pInfoData = nullptr;
    m_nInfoDataLen = 0;
    m_nInfoDataSent = 0;
}

void CQSendFileUnit::SetFileCounts(long long length, long long read)
{
    m_nFileLength64 = length;
    m_nFileRead64 = read;
    m_nFileLength = ClampToInt(length);
    m_nFileRead = ClampToInt(read);
}

int CQSendFileUnit::SetFile(const CQWString& path, int blockSize)
{
    if (!m_File.Open(path, CQFile::KModeRead))
        return KOpenFailed;
    const long long length = m_File.Seek64(0, CQFile::KSeekBegin) >= 0 ? m_File.GetLength64() : -1;
    if (length < 0) {
        // Not seekable or its length unreadable: not a file to send.
        m_File.Close();
        return KOpenFailed;
    }
    SetFileCounts(length, m_nFileRead64);
    FreeReadBuffer();
    m_nBlockSize = blockSize;
    if (blockSize > 0)
        m_pReadBuffer = new (std::nothrow) unsigned char[static_cast<size_t>(blockSize)];
    return KOpened;
}

void CQSendFileUnit::SetInfoData(unsigned char* data, int length, bool)
{
    // A null trailer counts as none, so no slice can point into nothing.
    m_pInfoData = data;
    m_nInfoDataLen = data ? length : 0;
    m_nInfoDataSent = 0;
}

int CQSendFileUnit::EnableSendSize()
{
    switch (static_cast<enSendPhase>(m_nPhase)) {
    case SFP_Header: {
        const int header = (m_pData && m_nLength > m_nSent) ? m_nLength - m_nSent : 0;
        if (header > 0)
            return ClampToInt(static_cast<long long>(m_nInfoDataLen) + m_nFileLength64 + header);
        m_nPhase = SFP_File;
        return ClampToInt(static_cast<long long>(m_nInfoDataLen) + m_nFileLength64);
    }
    case SFP_File: {
        const long long file = m_nFileLength64 - m_nFileRead64;
        if (file < 1) {
            m_nPhase = SFP_Trailer;
            if (m_nInfoDataLen < 1)
                ClearAll();  // the stream is exhausted
        }
        return ClampToInt(static_cast<long long>(m_nInfoDataLen) + file);
    }
    case SFP_Trailer: {
        const int trailer = m_nInfoDataLen - m_nInfoDataSent;
        if (trailer > 0)
            return trailer;
        ClearAll();  // the stream is exhausted
        return trailer;
    }
    }
    QT_ASSERT_UNREACHABLE("FALSE", KAssertFile);
}

int CQSendFileUnit::LoadData(unsigned char** out, int max)
{
    if (!out || max < 1)
        return 0;
    int n = EnableSendSize();
    // An empty file: the header phase handed over to a file phase with
    // nothing to read. Ask again so the stream moves on to the trailer
    // rather than reading 0 bytes, which would be fatal.
    if (m_nPhase == SFP_File && m_nFileLength64 - m_nFileRead64 < 1)
        n = EnableSendSize();
    if (n < 1)
        return 0;
    switch (static_cast<enSendPhase>(m_nPhase)) {
    case SFP_Header:
        return LoadHeaderSlice(out, max, n);
    case SFP_File:
        return LoadFileSlice(out, max);
    case SFP_Trailer:
        return LoadTrailerSlice(out, max);
    }
    QT_ASSERT_UNREACHABLE("FALSE", KAssertFile);
}

int CQSendFileUnit::LoadHeaderSlice(unsigned char** out, int max, int n)
{
    const int take = std::min({n, max, m_nLength - m_nSent});
    *out = m_pData + m_nSent;
    m_nSent += take;
    return take;
}

int CQSendFileUnit::LoadFileSlice(unsigned char** out, int max)
{
    if (!m_pReadBuffer && m_nBlockSize > 0)
        m_pReadBuffer = new (std::nothrow) unsigned char[static_cast<size_t>(m_nBlockSize)];
    const int want = static_cast<int>(
        std::min<long long>(m_nFileLength64 - m_nFileRead64, std::min(m_nBlockSize, max)));
    const int got = (m_pReadBuffer && want > 0) ? m_File.Read(m_pReadBuffer, want) : 0;
    // The file promised more bytes than it gives (shrunk or unreadable).
    if (got < 1)
        QT_ASSERT_UNREACHABLE("FALSE", KAssertFile);
    *out = m_pReadBuffer;
    SetFileCounts(m_nFileLength64, m_nFileRead64 + got);
    return got;
}

int CQSendFileUnit::LoadTrailerSlice(unsigned char** out, int max)
{
    const int take = std::min(max, m_nInfoDataLen - m_nInfoDataSent);
    *out = m_pInfoData + m_nInfoDataSent;
    m_nInfoDataSent += take;
    return take;
}

int CQSendFileUnit::OLFileLoadData(unsigned char* buffer, int length)
{
    if (!buffer || length < 1)
        return 0;
    const int got = m_File.Read(buffer, length);
    if (got < 1)
        return 0;
    SetFileCounts(m_nFileLength64, m_nFileRead64 + got);
    return got;
}

char* CQSendFileUnit::GetBufMd5(int size)
{
    if (size < 0)
        return nullptr;
    std::unique_ptr<unsigned char[]> bytes(new (std::nothrow) unsigned char[static_cast<size_t>(size)]);
    if (!bytes)
        return nullptr;
    int got = m_File.Read(bytes.get(), size);
    if (got < 0)
        got = 0;
    // Put the read position back where the stream left it.
    static_cast<void>(m_File.Seek64(m_nFileRead64, CQFile::KSeekBegin));

    tagMD5State context;
    CCrypt::MD5_Init(&context);
    for (int done = 0; done < got; done += KMd5Piece) {
        const int piece = std::min(KMd5Piece, got - done);
        CCrypt::MD5_Update(&context, bytes.get() + done, static_cast<unsigned long>(piece));
    }
    unsigned char digest[KMd5DigestLen];
    CCrypt::MD5_Final(digest, &context);
    bytes.reset();

    char* hex = new (std::nothrow) char[KMd5HexLen + 1];
    if (!hex)
        return nullptr;
    for (int i = 0; i < KMd5DigestLen; ++i) {
        hex[2 * i] = KHexDigits[digest[i] >> 4];
        hex[2 * i + 1] = KHexDigits[digest[i] & 0x0F];
    }
    hex[KMd5HexLen] = '\0';
    return hex;
}
