#ifndef VELANET_COOKIEFILE_P_H
#define VELANET_COOKIEFILE_P_H

// Reading and writing the records of a cookie file.
//
//   file   = *record [ partial ]
//   record = name CRLF value CRLF domain CRLF expiry CRLF
// A partial record at the end (a line without its CR LF) is not read.

#include "BaseClass/src/CQString.h"

class CQFile;

namespace velanet {

// Reads the records of data[0..len) one at a time. Never reads outside that
// range, whatever the bytes are (NUL bytes stay part of a line).
class CookieFileReader
{
public:
    // Next() results.
    static constexpr int KRecordRead = 1;
    static constexpr int KNoMoreRecords = 0;

    CookieFileReader(const unsigned char* data, int len);

    // Reads the next complete record into the fields below: KRecordRead, or
    // KNoMoreRecords once a line terminator is missing.
    [[nodiscard]] int Next();

    // The fields of the last record read, as they stand in the file. The
    // domain is carried over from the previous record when its line is
    // empty; the expiry is the line's unsigned decimal value (0 when empty).
    CQSString m_strName;
    CQSString m_strValue;
    CQSString m_strDomain;
    unsigned int m_nExpires = 0;

private:
    // The next CR LF-terminated line: its start and length, the position
    // moved past the CR LF. False when no terminator follows.
    [[nodiscard]] bool NextLine(const unsigned char** line, int* lineLen);

    const unsigned char* m_pData;
    int m_nLen;
    int m_nPos = 0;
    CQSString m_strExpiryLine;  // reused from record to record
};

// Writes one record (four CR LF lines) to file; false when a write fails.
[[nodiscard]] bool WriteCookieRecord(CQFile& file, const CQSString& name, const CQSString& value,
                                     const CQSString& domain, unsigned int expires);

}  // namespace velanet

#endif
