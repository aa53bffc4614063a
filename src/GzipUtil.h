#ifndef VELANET_GZIPUTIL_H
#define VELANET_GZIPUTIL_H

// TGzipUtil decodes a compressed HTTP body piece by piece as it arrives, and
// compresses one whole buffer in a single call.
//
// Decoding, mode FM_Gzip: the gzip member header (RFC 1952) is read by
// CGzipHeader, the body by zlib as raw deflate (RFC 1951), and the 8-byte
// trailer (CRC-32, ISIZE) is skipped unchecked. Mode FM_Deflate: a zlib
// stream (RFC 1950); when the server sent raw deflate without the zlib
// wrapper, the first failure makes the decoder insert a zlib header of its
// own and retry once.
//
// Results of Decompress (and of its steps CheckGZipHeader and DoInflate):
//   FR_CallAgain  1  output produced and input remains: call again with the rest
//   FR_NeedInput  2  all input used (or nothing to do): give more input
//   FR_StreamEnd  3  end of the compressed stream reached
//   FR_Error      4  error; a decoding error leaves the decoder failed until
//                    ResetFilter (a call without output room does not)
// The unconsumed input is always the last inLen bytes of what was given.
//
// Each zlib stream has one owner (this object) and one release path,
// ReleaseDecodeStream / ReleaseEncodeStream, safe to call twice and run from
// the reset paths and the destructor.

#include "src/GzipHeader.h"

#include <zlib.h>

#include <cstdint>

// Compression format of the filter.
enum FilterMode : std::int32_t
{
    FM_Gzip = 1,     // gzip member (RFC 1952)
    FM_Deflate = 2,  // zlib stream (RFC 1950), raw deflate accepted when decoding
};

class TGzipUtil
{
public:
    // Decoder lifecycle (iDecodeStatus).
    enum TDecodeStatus : std::int32_t
    {
        DS_NotStarted = 0,  // waits for SetDecodeMode / InitDecoding
        DS_InProgress = 1,  // decoding; stream end moves to DS_Finished, an error to DS_Failed
        DS_Finished = 2,    // stream ended; later input is trailer or ignored, until ResetFilter
        DS_Failed = 3,      // an error was met; every call fails until ResetFilter
    };

    // Gzip header reading (iGzipHeaderStatus).
    enum TGzipHeaderStatus : std::int32_t
    {
        GZIP_CHECK_HEADER_IN_PROGRESS = 0,  // header bytes still expected
        GZIP_CHECK_HEADER_COMPLETE = 1,     // header read; input goes to zlib
        GZIP_CHECK_HEADER_INVALID = 2,      // not a gzip member
    };

    // Decoding results, see the file comment.
    enum
    {
        FR_CallAgain = 1,
        FR_NeedInput = 2,
        FR_StreamEnd = 3,
        FR_Error = 4,
    };

    // Results of the set-up calls and of CompressAll.
    enum
    {
        KFailed = 0,
        KDone = 1,
        KCompressNotReady = 2,  // CompressAll without a successful InitEncoding
    };

    // Bytes of the gzip trailer: CRC-32 and ISIZE, 4 bytes each.
    static constexpr int KGzipFooterLen = 8;
    // Bytes of the fixed header CompressAll writes in gzip mode.
    static constexpr int KGzipHeaderLen = 10;

    // Stores the modes; nothing is initialised yet.
    TGzipUtil(FilterMode encodeMode, FilterMode decodeMode);
    // The same with the modes as plain numbers (1 gzip, 2 deflate).
    TGzipUtil(int encodeMode, int decodeMode);
    ~TGzipUtil();

    // ---- decoding
    // Same mode with a ready decoder: KDone, nothing changes. Otherwise
    // stores the mode, clears the per-stream counters and flags and starts a
    // new decoder (InitDecoding).
    int SetDecodeMode(FilterMode mode);
    int SetDecodeMode(int mode) { return SetDecodeMode(static_cast<FilterMode>(mode)); }
    // Only from DS_NotStarted (else KFailed): a fresh zlib stream for the
    // mode (raw deflate for FM_Gzip, zlib wrapper for FM_Deflate); KFailed
    // for another mode or a zlib failure, otherwise ready and in progress.
    int InitDecoding();
    // Decodes the next piece; see the file comment for the results. On
    // return inLen holds the input not consumed (at the end of in) and
    // outLen the bytes written to out (0 with FR_Error).
    int Decompress(char* in, int& inLen, char* out, int& outLen);
    // Ends the current body: back to DS_NotStarted (SetDecodeMode must be
    // called again); the zlib stream is released. No effect in DS_NotStarted.
    void ResetFilter();

    // Steps of Decompress, callable on their own.
    // Feeds the header reader. FR_CallAgain: the header is complete and in /
    // inLen now address the body bytes after it. FR_NeedInput: all input
    // used (in null, inLen 0). FR_Error: invalid header, or no input.
    // Must only be called while the header is in progress (fatal assertion).
    int CheckGZipHeader(char*& in, int& inLen);
    // One zlib inflate over the piece, no flush; at the stream end the
    // trailer bytes that follow are skipped. On FR_Error inLen is unchanged
    // and outLen is 0. An empty piece at a non-null address goes to zlib,
    // which cannot progress on it: FR_Error.
    int DoInflate(char* in, int& inLen, char* out, int& outLen);
    // Takes up to the rest of the 8 trailer bytes off len; the bytes
    // themselves are never looked at.
    void SkipGZipFooter(const char* buf, int& len);
    // Once per stream: restarts zlib and feeds it the zlib header 78 01, so
    // that raw deflate data can follow. KDone when zlib took the header.
    int InsertZlibHeader();

    // ---- encoding
    // Same mode: KDone without any change, even when no encoder was started
    // yet (kept on purpose; a new filter then needs InitEncoding).
    // Otherwise stores the mode and returns InitEncoding().
    int SetEncodeMode(FilterMode mode);
    int SetEncodeMode(int mode) { return SetEncodeMode(static_cast<FilterMode>(mode)); }
    // A fresh deflate stream: raw deflate for FM_Gzip (CompressAll writes
    // the gzip framing itself), the zlib wrapper otherwise. KDone or KFailed.
    int InitEncoding();
    // Compresses in whole into out; outLen gives the room and returns the
    // size written. KDone when the whole stream fit, KFailed otherwise,
    // KCompressNotReady without an encoder. The stream is ended by the call
    // (except when the gzip trailer has no room), so one InitEncoding serves
    // one CompressAll; a second call fails until InitEncoding runs again
    // (kept on purpose).
    int CompressAll(const char* in, int inLen, char* out, int& outLen);

private:
    TGzipUtil(const TGzipUtil&) = delete;
    TGzipUtil& operator=(const TGzipUtil&) = delete;

    // The one release path of each stream; a second call does nothing.
    void ReleaseDecodeStream();
    void ReleaseEncodeStream();
    // Decompress in DS_InProgress: header, inflate, raw-deflate retry.
    [[nodiscard]] int DecodePiece(char* in, int& inLen, char* out, int& outLen);

    z_stream iEncodeStream;  // owned; open while iEncodeStreamOpen
    z_stream iDecodeStream;  // owned; open while iDecodeStreamOpen

public:
    FilterMode iEncodeMode;
    FilterMode iDecodeMode;
    bool iEncodeReady = false;  // InitEncoding succeeded
    bool iDecodeReady = false;  // InitDecoding succeeded
    TDecodeStatus iDecodeStatus = DS_NotStarted;
    TGzipHeaderStatus iGzipHeaderStatus = GZIP_CHECK_HEADER_IN_PROGRESS;
    CGzipHeader iGzipHeader;
    std::int32_t iFooterSkipped = 0;    // trailer bytes consumed so far (0..8)
    bool iZlibHeaderInserted = false;  // the synthetic zlib header was fed

private:
    bool iEncodeStreamOpen = false;  // deflateInit done, deflateEnd not yet
    bool iDecodeStreamOpen = false;  // inflateInit done, inflateEnd not yet
};

#endif
