#ifndef VELANET_GZIPHEADER_H
#define VELANET_GZIPHEADER_H

// CGzipHeader reads the member header of a gzip stream (RFC 1952, 2.3) that
// may arrive split anywhere, a few bytes per call:
//
//   header = ID1 ID2 CM FLG MTIME(4) XFL OS
//            [ XLEN(2, little-endian) extra(XLEN) ]   ; FLG.FEXTRA
//            [ name *( %x01-FF ) %x00 ]               ; FLG.FNAME
//            [ comment *( %x01-FF ) %x00 ]            ; FLG.FCOMMENT
//            [ CRC16(2) ]                             ; FLG.FHCRC
//   ID1 = %x1F   ID2 = %x8B   CM = %x08 (deflate)
//
// Only the identifier and the method are checked; everything else, the
// header CRC included, is skipped unchecked. FTEXT and the reserved FLG bits
// are ignored.

#include <cstdint>

class CGzipHeader
{
public:
    // Reader state: which header byte is expected next.
    enum TGzipHeaderState : std::int32_t
    {
        GHS_Id1 = 0,          // waits for 0x1F; any other byte is invalid
        GHS_Id2 = 1,          // waits for 0x8B; any other byte is invalid
        GHS_Method = 2,       // waits for 8 (deflate); any other byte is invalid
        GHS_Flags = 3,        // takes FLG and keeps its FHCRC/FEXTRA/FNAME/FCOMMENT bits
        GHS_Time0 = 4,        // modification time, byte 1 of 4
        GHS_Time1 = 5,        // modification time, byte 2 of 4
        GHS_Time2 = 6,        // modification time, byte 3 of 4
        GHS_Time3 = 7,        // modification time, byte 4 of 4
        GHS_ExtraFlags = 8,   // takes XFL
        GHS_Os = 9,           // takes OS
        GHS_ExtraLenLow = 10, // with FEXTRA takes the low XLEN byte, else moves on to the name
        GHS_ExtraLenHigh = 11,// takes the high XLEN byte
        GHS_Extra = 12,       // skips the extra field; at its end clears FEXTRA
        GHS_Name = 13,        // with FNAME skips through the zero byte, then clears FNAME
        GHS_Comment = 14,     // with FCOMMENT skips through the zero byte, then clears FCOMMENT
        GHS_HeaderCrc1 = 15,  // with FHCRC takes the first CRC16 byte, else the header is done
        GHS_HeaderCrc2 = 16,  // takes the second CRC16 byte and clears FHCRC
        GHS_Done = 17,        // header complete: the body starts here
    };

    // FLG bits that make the header longer (RFC 1952, 2.3.1).
    enum
    {
        KFlagHeaderCrc = 0x02,
        KFlagExtra = 0x04,
        KFlagName = 0x08,
        KFlagComment = 0x10,
        KFlagsKept = KFlagHeaderCrc | KFlagExtra | KFlagName | KFlagComment,  // 0x1E
    };

    // Results of ReadMore.
    enum
    {
        KHeaderIncomplete = 0,  // all bytes used, the header goes on: call again with more
        KHeaderComplete = 1,    // the header ended; bodyStart addresses the first body byte
        KHeaderInvalid = 2,     // wrong identifier or method: this is no gzip member
    };

    CGzipHeader() = default;

    // Back to the start of a header.
    void Reset();

    // Reads the next inbufLen bytes of the header. On KHeaderComplete,
    // *bodyStart is the first byte after the header inside inbuf (inbuf +
    // inbufLen when the header ends with the input); otherwise *bodyStart is
    // left alone. When the input runs out, the header counts as complete if
    // the fixed part has been read and no optional field is still pending.
    // inbufLen 0 is a programming error (fatal assertion); a negative length
    // or a null inbuf is read as no bytes. Never reads past inbufLen.
    int ReadMore(const char* inbuf, int inbufLen, const char** bodyStart);
    // The same over other byte pointer types; *bodyStart is of the input's type.
    int ReadMore(char* inbuf, int inbufLen, char** bodyStart) { return ReadMoreAs(inbuf, inbufLen, bodyStart); }
    int ReadMore(unsigned char* inbuf, int inbufLen, unsigned char** bodyStart)
    {
        return ReadMoreAs(inbuf, inbufLen, bodyStart);
    }
    int ReadMore(const unsigned char* inbuf, int inbufLen, const unsigned char** bodyStart)
    {
        return ReadMoreAs(inbuf, inbufLen, bodyStart);
    }

    TGzipHeaderState m_enState = GHS_Id1;
    std::uint16_t m_nFlags = 0;      // FLG & KFlagsKept, bits cleared as their fields are passed
    std::uint16_t m_nExtraLeft = 0;  // bytes of the extra field still to skip

private:
    template <class Byte>
    int ReadMoreAs(Byte* inbuf, int inbufLen, Byte** bodyStart)
    {
        const char* const start = reinterpret_cast<const char*>(inbuf);
        const char* body = nullptr;
        const int result = ReadMore(start, inbufLen, &body);
        if (result == KHeaderComplete && bodyStart)
            *bodyStart = inbuf + (body - start);
        return result;
    }

    // Moves p past the next zero byte before end and returns true, or to end
    // and returns false when there is none yet.
    [[nodiscard]] static bool SkipThroughZero(const unsigned char*& p, const unsigned char* end);
};

#endif
