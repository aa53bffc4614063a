#include "src/GzipUtil.h"

#include "BaseClass/src/QtAssert.h"

#include <cstring>

namespace {

const char KAssertFile[] = "src/GzipUtil";

// Raw deflate: negative window bits tell zlib there is no wrapper.
const int KRawDeflateWindowBits = -MAX_WBITS;
const int KDeflateMemLevel = 8;

// The zlib header fed before raw deflate data in FM_Deflate mode: CM 8 with a
// 32 KiB window, no dictionary, fastest-level hint; 0x7801 % 31 == 0.
const unsigned char KZlibHeader[] = {0x78, 0x01};
// Room for what zlib writes while taking that header (nothing, in practice).
const int KScratchOutLen = 4;

// Fixed gzip header of CompressAll: ID1 ID2 CM, no flags, no time, XFL 2
// (slowest, best compression), OS 255 (unknown).
const unsigned char KGzipFixedHeader[TGzipUtil::KGzipHeaderLen] = {0x1F, 0x8B, 0x08, 0x00, 0x00,
                                                                   0x00, 0x00, 0x00, 0x02, 0xFF};

const int KBitsPerByte = 8;
const int KBytesPerWord = 4;

void PutLittleEndian32(unsigned char* out, unsigned long value)
{
    for (int i = 0; i < KBytesPerWord; ++i)
        out[i] = static_cast<unsigned char>((value >> (KBitsPerByte * i)) & 0xFFu);
}

}  // namespace

TGzipUtil::TGzipUtil(FilterMode encodeMode, FilterMode decodeMode)
    : iEncodeMode(encodeMode), iDecodeMode(decodeMode)
{
    std::memset(&iEncodeStream, 0, sizeof iEncodeStream);
    std::memset(&iDecodeStream, 0, sizeof iDecodeStream);
}

TGzipUtil::TGzipUtil(int encodeMode, int decodeMode)
    : TGzipUtil(static_cast<FilterMode>(encodeMode), static_cast<FilterMode>(decodeMode))
{
}

TGzipUtil::~TGzipUtil()
{
    ResetFilter();
    ReleaseDecodeStream();
    ReleaseEncodeStream();
}

void TGzipUtil::ReleaseDecodeStream()
{
    if (!iDecodeStreamOpen)
        return;
    inflateEnd(&iDecodeStream);
    iDecodeStreamOpen = false;
}

void TGzipUtil::ReleaseEncodeStream()
{
    if (!iEncodeStreamOpen)
        return;
    deflateEnd(&iEncodeStream);
    iEncodeStreamOpen = false;
}

// ---------------------------------------------------------------- decoding

int TGzipUtil::SetDecodeMode(FilterMode mode)
{
    if (mode == iDecodeMode && iDecodeReady)
        return KDone;
    iDecodeMode = mode;
    iFooterSkipped = 0;
    iDecodeStatus = DS_NotStarted;
    iGzipHeaderStatus = GZIP_CHECK_HEADER_IN_PROGRESS;
    iZlibHeaderInserted = false;
    return InitDecoding();
}

int TGzipUtil::InitDecoding()
{
    if (iDecodeStatus != DS_NotStarted)
        return KFailed;

    ReleaseDecodeStream();
    std::memset(&iDecodeStream, 0, sizeof iDecodeStream);
    int z = Z_STREAM_ERROR;
    if (iDecodeMode == FM_Gzip) {
        iGzipHeader.Reset();
        z = inflateInit2(&iDecodeStream, KRawDeflateWindowBits);
    } else if (iDecodeMode == FM_Deflate) {
        z = inflateInit(&iDecodeStream);
    } else {
        return KFailed;
    }
    if (z != Z_OK)
        return KFailed;

    iDecodeStreamOpen = true;
    iDecodeReady = true;
    iDecodeStatus = DS_InProgress;
    return KDone;
}

void TGzipUtil::ResetFilter()
{
    // Nothing is open outside DS_InProgress..DS_Failed; releasing first keeps
    // that true whatever the status says.
    ReleaseDecodeStream();
    if (iDecodeStatus == DS_NotStarted)
        return;
    iDecodeReady = false;
    iGzipHeaderStatus = GZIP_CHECK_HEADER_IN_PROGRESS;
    iFooterSkipped = 0;
    iZlibHeaderInserted = false;
    iDecodeStatus = DS_NotStarted;
}

int TGzipUtil::Decompress(char* in, int& inLen, char* out, int& outLen)
{
    if (!iDecodeReady || !out || outLen < 1) {
        outLen = 0;
        return FR_Error;
    }

    switch (iDecodeStatus) {
    case DS_NotStarted:
        outLen = 0;
        return FR_Error;
    case DS_InProgress:
        return DecodePiece(in, inLen, out, outLen);
    case DS_Finished:
        if (iGzipHeaderStatus != GZIP_CHECK_HEADER_INVALID)
            SkipGZipFooter(in, inLen);
        outLen = 0;
        return FR_StreamEnd;
    case DS_Failed:
        outLen = 0;
        return FR_Error;
    }
    QT_ASSERT_UNREACHABLE("FALSE", KAssertFile);
    return FR_Error;
}

int TGzipUtil::DecodePiece(char* in, int& inLen, char* out, int& outLen)
{
    if (iDecodeMode == FM_Gzip && iGzipHeaderStatus == GZIP_CHECK_HEADER_IN_PROGRESS) {
        const int header = CheckGZipHeader(in, inLen);
        if (header == FR_NeedInput) {
            outLen = 0;
            return FR_NeedInput;
        }
        if (header != FR_CallAgain) {
            iDecodeStatus = DS_Failed;
            outLen = 0;
            return FR_Error;
        }
    }

    const int callerOutLen = outLen;
    int r = DoInflate(in, inLen, out, outLen);
    if (r == FR_Error && iDecodeMode == FM_Deflate) {
        // Raw deflate sent as "deflate": give zlib the wrapper it expects and
        // decode the same piece once more.
        if (InsertZlibHeader() != KDone) {
            iDecodeStatus = DS_Failed;
            outLen = 0;
            return FR_Error;
        }
        outLen = callerOutLen;
        r = DoInflate(in, inLen, out, outLen);
    }

    if (r == FR_StreamEnd)
        iDecodeStatus = DS_Finished;
    else if (r == FR_Error)
        iDecodeStatus = DS_Failed;
    return r;
}

int TGzipUtil::CheckGZipHeader(char*& in, int& inLen)
{
    QT_ALWAYS_ASSERT(iGzipHeaderStatus == GZIP_CHECK_HEADER_IN_PROGRESS, KAssertFile);
    if (!in || inLen < 1)
        return FR_Error;

    const char* bodyStart = nullptr;
    const int r = iGzipHeader.ReadMore(in, inLen, &bodyStart);
    if (r == CGzipHeader::KHeaderComplete) {
        iGzipHeaderStatus = GZIP_CHECK_HEADER_COMPLETE;
        const int rest = static_cast<int>((in + inLen) - bodyStart);
        if (rest > 0) {
            in = const_cast<char*>(bodyStart);
            inLen = rest;
            return FR_CallAgain;
        }
        in = nullptr;
        inLen = 0;
        return FR_NeedInput;
    }
    if (r == CGzipHeader::KHeaderInvalid) {
        iGzipHeaderStatus = GZIP_CHECK_HEADER_INVALID;
        return FR_Error;
    }
    in = nullptr;
    inLen = 0;
    return FR_NeedInput;
}

int TGzipUtil::DoInflate(char* in, int& inLen, char* out, int& outLen)
{
    if (!out || outLen < 1 || !iDecodeStreamOpen) {
        outLen = 0;
        return FR_Error;
    }
    if (!in || inLen < 0) {
        outLen = 0;
        return FR_NeedInput;
    }

    iDecodeStream.next_in = reinterpret_cast<Bytef*>(in);
    iDecodeStream.avail_in = static_cast<uInt>(inLen);
    iDecodeStream.next_out = reinterpret_cast<Bytef*>(out);
    iDecodeStream.avail_out = static_cast<uInt>(outLen);
    const int z = inflate(&iDecodeStream, Z_NO_FLUSH);
    if (z != Z_OK && z != Z_STREAM_END) {
        outLen = 0;
        return FR_Error;
    }

    outLen -= static_cast<int>(iDecodeStream.avail_out);
    const int given = inLen;
    inLen = static_cast<int>(iDecodeStream.avail_in);
    if (z == Z_OK)
        return inLen > 0 ? FR_CallAgain : FR_NeedInput;

    // Also after a zlib stream, whose own trailer zlib has read: up to 8
    // bytes more are taken. Kept on purpose; the caller drops them anyway.
    SkipGZipFooter(in + (given - inLen), inLen);
    return FR_StreamEnd;
}

void TGzipUtil::SkipGZipFooter(const char* /*buf*/, int& len)
{
    const int missing = KGzipFooterLen - iFooterSkipped;
    if (missing <= 0 || len <= 0)
        return;
    const int take = len < missing ? len : missing;
    len -= take;
    iFooterSkipped += take;
}

int TGzipUtil::InsertZlibHeader()
{
    if (iZlibHeaderInserted)
        return KFailed;

    if (iDecodeStreamOpen)
        inflateReset(&iDecodeStream);
    unsigned char scratch[KScratchOutLen];
    iDecodeStream.next_in = const_cast<Bytef*>(KZlibHeader);
    iDecodeStream.avail_in = sizeof KZlibHeader;
    iDecodeStream.next_out = scratch;
    iDecodeStream.avail_out = sizeof scratch;
    const int z = iDecodeStreamOpen ? inflate(&iDecodeStream, Z_NO_FLUSH) : Z_STREAM_ERROR;
    iZlibHeaderInserted = true;
    return z == Z_OK ? KDone : KFailed;
}

// ---------------------------------------------------------------- encoding

int TGzipUtil::SetEncodeMode(FilterMode mode)
{
    if (mode == iEncodeMode)
        return KDone;
    iEncodeMode = mode;
    return InitEncoding();
}

int TGzipUtil::InitEncoding()
{
    ReleaseEncodeStream();
    std::memset(&iEncodeStream, 0, sizeof iEncodeStream);
    int z = Z_STREAM_ERROR;
    if (iEncodeMode == FM_Gzip)
        z = deflateInit2(&iEncodeStream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, KRawDeflateWindowBits, KDeflateMemLevel,
                         Z_DEFAULT_STRATEGY);
    else
        z = deflateInit(&iEncodeStream, Z_DEFAULT_COMPRESSION);
    iEncodeReady = (z == Z_OK);
    iEncodeStreamOpen = iEncodeReady;
    return iEncodeReady ? KDone : KFailed;
}

int TGzipUtil::CompressAll(const char* in, int inLen, char* out, int& outLen)
{
    if (!iEncodeReady)
        return KCompressNotReady;
    // Nothing sensible can be written for these; refuse before touching zlib.
    if (!out || outLen < 0 || inLen < 0 || (!in && inLen > 0))
        return KFailed;

    const int room = outLen;
    int written = 0;
    const bool gzip = iEncodeMode == FM_Gzip;
    if (gzip) {
        if (room < KGzipHeaderLen)
            return KFailed;
        std::memcpy(out, KGzipFixedHeader, sizeof KGzipFixedHeader);
        written = KGzipHeaderLen;
    }

    iEncodeStream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in));
    iEncodeStream.avail_in = static_cast<uInt>(inLen);
    iEncodeStream.next_out = reinterpret_cast<Bytef*>(out + written);
    iEncodeStream.avail_out = static_cast<uInt>(room - written);
    // An encoder already ended by an earlier call writes nothing.
    const int z = iEncodeStreamOpen ? deflate(&iEncodeStream, Z_FINISH) : Z_STREAM_ERROR;
    written = room - static_cast<int>(iEncodeStream.avail_out);
    outLen = written;

    if (gzip) {
        if (room - written < KGzipFooterLen)
            return KFailed;
        const uLong crc = crc32(crc32(0L, Z_NULL, 0), reinterpret_cast<const Bytef*>(in), static_cast<uInt>(inLen));
        unsigned char* tail = reinterpret_cast<unsigned char*>(out + written);
        PutLittleEndian32(tail, crc);
        PutLittleEndian32(tail + KBytesPerWord, static_cast<unsigned long>(static_cast<unsigned int>(inLen)));
        written += KGzipFooterLen;
        outLen = written;
    }

    ReleaseEncodeStream();
    return z == Z_STREAM_END ? KDone : KFailed;
}
