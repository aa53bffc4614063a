#ifndef VELANET_HTTPDATA_H
#define VELANET_HTTPDATA_H

// CHttpData holds the URL of one HTTP request, dissects it into host, port
// and path, and builds the exact bytes of the request head (and for POST,
// head plus body) in one exactly sized buffer.
//
// URL dissection, as this library reads a URL:
//   url       = *anything scheme authority [ path ]
//   scheme    = "http://" | "https://"     ; first "http://" anywhere wins
//   authority = host [ ":" port ]          ; ends at the first "/" or "?"
//   host      = "[" literal "]" | *anything ; a bracketed IPv6 literal is
//                                           ; the host without its brackets
//   path      = ( "/" | "?" ) *anything    ; to the end of the text
// Nothing is validated: what does not match answers "nothing" (a null
// pointer with length 0, or the default port).

#include "BaseClass/src/CQList.h"
#include "BaseClass/src/CQString.h"
#include "src/CookieParser.h"

class CQPostFileHeaderUnit;
class QCookieHolder;

// The parsed head of one HTTP response. One record per engine, reused for
// every response: Reset before parsing the next one.
class CHttpResponseHead
{
public:
    // Body framing (m_nBodyType).
    enum
    {
        KBodyByLength = 256,    // Content-Length given
        KBodyChunked = 512,     // Transfer-Encoding: chunked
        KBodyUntilClose = 768,  // neither: the body ends with the connection
    };

    // A number the response did not give (lengths, range, status...).
    static constexpr int KNotGiven = -1;

    // Content encoding (m_nContentEncoding).
    enum
    {
        KContentEncodingNone = 0,  // none or unknown
        KContentEncodingGzip = 1,
        KContentEncodingDeflate = 2,
    };

    CHttpResponseHead();
    ~CHttpResponseHead();
    // A fresh record assigned from other (see operator=): every field but
    // the content encoding, which keeps its initial value, and copies of
    // the cookie lines.
    CHttpResponseHead(const CHttpResponseHead& other);

    // Copies every field except the content encoding, which keeps its value;
    // the source's cookie lines are appended to this record's lines as new
    // copies (the old lines stay). Assigning a record to itself changes
    // nothing.
    CHttpResponseHead& operator=(const CHttpResponseHead& other);

    // Every field back to its initial value; the cookie strings are deleted
    // (a null entry is a fatal assertion).
    void Reset();

    int m_nHeadLen;            // bytes through the blank line, "\r\n\r\n" included
    int m_nStatusCode;
    int m_nContentLength;      // -1 when not given
    int m_nContentTypeID;      // main type code, CHttpData::KType*
    int m_nContentSubTypeID;   // sub-type code, CHttpData::KSub*
    int m_nBodyType;           // KBody*
    CQSString m_strLocation;
    bool m_bCacheable;
    int m_nRangeStart;         // Content-Range first byte
    int m_nRangeTotal;         // Content-Range complete length
    CQSString m_strAttachName; // Content-Disposition filename, quotes removed
    CQList<CQSString*, CQSString*> m_listCookies;  // raw Set-Cookie values, owned
    CQSString m_strCurPageURL; // "CurURL:"
    CQSString m_strFileURL;    // "FileURL:"
    CQSString m_strCharset;    // "UTF-8" or "GB2312"
    int m_nOrigSize;           // "OrigSize:"
    int m_nStreamSize;         // "StreamSize:"
    int m_nIDVersion;          // "idversion:"
    int m_nDate;               // Date, seconds on the cookie calendar
    int m_nExpireDate;         // "ExpireDate:", seconds on the cookie calendar
    int m_nMaxAge;
    bool m_bPrivate;
    bool m_bNoStore;
    int m_nContentEncoding;    // KContentEncoding*

    // 64-bit companions of the length and range fields, for bodies and
    // ranges of any size up to 2^63 - 1 bytes. The int fields above hold the
    // same values whenever they fit an int; a larger value leaves them at
    // KIntSaturated (2147483647) instead of wrapping.
    long long m_nContentLength64;  // -1 when not given or not a length
    long long m_nRangeStart64;     // Content-Range first byte, -1 when not given
    long long m_nRangeTotal64;     // Content-Range complete length, -1 when not given
    // A Content-Length value was given but is no length this library can
    // hold: no leading digit (garbage, a sign) or more than 2^63 - 1. Both
    // lengths are -1 then and the framing stays KBodyByLength; the HTTP
    // engine fails such a response (KErrorLengthUnrepresentable).
    bool m_bContentLengthInvalid;

    // What an int field holds for a value larger than an int.
    static constexpr int KIntSaturated = 2147483647;
    // A 64-bit value as its int field shows it.
    static int SaturatedInt(long long value);

private:
    void DeleteCookieLines();
};

class CHttpData
{
public:
    // Method codes of CopyHttpHeader_Method. Based on int so that any code
    // a caller casts to it is a valid value (the writer rejects it).
    enum enHttpMethod : int
    {
        HM_Get = 0,
        HM_Post = 1,
    };

    // Method codes of GetMethodData (the engine's request kinds).
    enum
    {
        KMethodGet = 17,
        KMethodPost = 18,
    };

    // The only encoding mode that asks for gzip responses.
    static constexpr int KEncodingGzip = static_cast<int>(0xF0000000u);

    CHttpData();
    virtual ~CHttpData();

    // Null is ignored; every " " becomes "%20".
    void SetURL(const char* url);
    // Exactly len bytes, kept as they are; ignored for null data or len < 1.
    void SetURL(const char* data, int len);
    const CQSString& GetURL() const { return m_strURL; }

    void SetCookiePointer(QCookieHolder* holder) { m_pCookieHolder = holder; }
    QCookieHolder* GetCookiePointer() const { return m_pCookieHolder; }

    // The whole header lines, without their line ends.
    CQSString& GetUserAgent() { return m_strUserAgent; }
    CQSString& GetVUserAgent() { return m_strVUserAgent; }
    // The lines are fixed at construction; this call deliberately changes
    // nothing.
    void SetUserAgent(const CQSString& userAgent, const CQSString& vua, const CQSString& extra);

    // A date text as seconds on the cookie calendar (0 when not readable).
    unsigned int DateStringToInt(const CQSString& text) const;

    // ---- URL dissection (no allocation except FindHost(const CQSString&))
    // Host of url: ends at the first "/", ":" or "?". Null and len 0 without
    // a scheme or with nothing after it. An authority that starts with "["
    // and has its "]" before the first "/" or "?" is an IPv6 literal: the
    // host is the text between the brackets ("::1" of "http://[::1]:80/").
    static char* FindHost(const CQSString& url, int& len);
    char* FindHost(int& len) const;
    // A new string holding the host of url (empty when there is none);
    // the caller deletes it.
    static CQSString* FindHost(const CQSString& url);
    // Host with its port as written: ends at the first "/" or "?". A URL
    // starting with "#" is returned whole.
    char* FindHostURL(int& len) const;
    // 80 by default, 443 for "https://" without a port; a port text that
    // reads as 0 or less gives 80 (also for https). The port of a bracketed
    // literal follows its "]".
    int FindPort() const;
    // From the first "/" or "?" after the scheme to the end of the text.
    char* FindPath(int& len) const;
    bool IsSecureConnection() const;
    // Byte-exact comparison of the two hosts (ports ignored).
    bool IsSameHost(const char* url) const;

    // ---- Request building. Each returns a new[] buffer owned by the
    // caller (delete[]), its byte count in len; null when no host is found.
    unsigned char* GetMethodData(int method, int& len, int encodingMode, int absoluteTarget, int multipart = 0,
                                 int bodyLen = 0, const unsigned char* body = nullptr, bool withIdVersion = false,
                                 unsigned int idVersion = 0);
    unsigned char* PartialGetMethodData(int& len, int encodingMode, bool absoluteTarget, int rangeStart);
    // The same from a 64-bit offset ("Range: bytes=2684354560-"); -1 sends
    // no Range line, like the int form.
    unsigned char* PartialGetMethodData64(int& len, int encodingMode, bool absoluteTarget, long long rangeStart);
    unsigned char* HttpHead_Get(int& len, int encodingMode, bool absoluteTarget, int rangeStart,
                                bool withIdVersion, unsigned int idVersion);
    unsigned char* HttpHead_Get64(int& len, int encodingMode, bool absoluteTarget, long long rangeStart,
                                  bool withIdVersion, unsigned int idVersion);
    unsigned char* HttpHead_Post(int& len, int encodingMode, int bodyLen, const unsigned char* body,
                                 bool absoluteTarget, bool multipart, bool withIdVersion, unsigned int idVersion);

    // ---- Two-pass header writers: with a null out they write nothing and
    // return the byte count they would write; otherwise they write it.
    int CopyHttpHeader_NewLineFlag(unsigned char count, unsigned char* out);
    int CopyHttpHeader_Accept(unsigned char* out);
    // -1 when the URL has no host.
    int CopyHttpHeader_Host(unsigned char* out);
    int CopyHttpHeader_UserAgent(unsigned char* out);
    int CopyHttpHeader_ContentLenght(int n, unsigned char* out);
    // The same for a 64-bit count (multipart bodies past 2 GiB).
    int CopyHttpHeader_ContentLength64(long long n, unsigned char* out);
    int CopyHttpHeader_Method(enHttpMethod method, bool absoluteTarget, unsigned char* out);
    // The same with the method as a plain code (0 GET, 1 POST).
    int CopyHttpHeader_Method(int method, bool absoluteTarget, unsigned char* out);

    // ---- Response parsing. Every parser searches the whole buffer given
    // (head and any body bytes behind it) for the first occurrence of its
    // field, ignoring case; see src/internal/HeadMatch_p.h for the rule.
    // The field parsers need no request and are static; they read the bytes
    // and never write them.

    // Results of the response parsers.
    enum
    {
        KHeadComplete = 0,     // GetResponseHead: the record is filled
        KHeadIncomplete = -1,  // GetResponseHead: no complete head yet
        KFieldParsed = 1,
        KFieldAbsent = -1,
        KChunkLineIncomplete = -1,  // GetChunkSize: no complete size line yet
    };

    // Main content type codes.
    enum
    {
        KTypeNone = 0,  // no Content-Type value
        KTypeUnknown = -1,
        KTypeText = 16,
        KTypeApplication = 48,
        KTypeAudio = 96,
        KTypeVideo = 144,
        KTypeImage = 192,
    };

    // Content sub-type codes. 20 and 50 are not assigned.
    enum
    {
        KSubNone = 0,  // no Content-Type value
        KSubUnknown = -1,
        KSubTextWml = 17,
        KSubTextJadDescriptor = 18,
        KSubTextHtml = 19,
        KSubTextCss = 21,
        KSubApplicationWapXhtml = 49,
        KSubApplicationXhtml = 51,
        KSubAudioMp3 = 97,
        KSubAudioMidi = 98,
        KSubAudioAmr = 99,
        KSubAudioMpeg = 100,
        KSubAudioRm = 101,
        KSubAudioWav = 102,
        KSubVideo3gpp = 145,
        KSubVideoMpeg = 146,
        KSubVideoJpeg = 147,
    };

    // Fills head from a complete response head: KHeadIncomplete when buf is
    // null, len < 1, or "\r\n\r\n", "HTTP/" or the blank after the status
    // are missing (head untouched then). Does not Reset head first.
    int GetResponseHead(const unsigned char* buf, int len, CHttpResponseHead& head);

    // Content-Length (n and the head's length, framing 256); otherwise -1
    // with framing 512 (chunked) or 768. Returns the length or -1. n and the
    // int field saturate at KIntSaturated; m_nContentLength64 has the whole
    // value. A value that is no length sets m_bContentLengthInvalid, both
    // lengths -1, framing 256, and returns -1.
    static int GetContentLenght(const unsigned char* buf, int len, int& n, CHttpResponseHead& head);
    // "Content-Range: bytes start-end/total"; on failure both fields -1.
    // The 64-bit fields get the whole values; a start or total past
    // 2^63 - 1 is a failure.
    static int GetContentRange(const unsigned char* buf, int len, CHttpResponseHead& head);
    // Content type codes and charset.
    static int GetContentType(const unsigned char* buf, int len, CHttpResponseHead& head);
    // A null or empty type gives KTypeNone / KSubNone.
    static void GetContentTypeID(const CQSString* type, int& mainId, int& subId);
    static int GetContentTypeSubID(const CQSString* type, int mainId);
    static int GetTextSubID(const CQSString* type);
    static int GetApplicationSubID(const CQSString* type);
    static int GetAudioSubID(const CQSString* type);
    static int GetVideoSubID(const CQSString* type);
    static int GetImageSubID(const CQSString* type);
    // "UTF-8" for a null or empty type or one naming UTF-8, else "GB2312"
    // when named; otherwise charset is left as it was.
    static void GetCharset(const CQSString* type, CQSString& charset);
    // KContentEncoding*; a missing field sets none and returns -1.
    static int GetContentEncoding(const unsigned char* buf, int len, CHttpResponseHead& head);
    static int GetCacheControl(const unsigned char* buf, int len, CHttpResponseHead& head);
    static int GetContentAttachName(const unsigned char* buf, int len, CHttpResponseHead& head);
    static int GetLocation(const unsigned char* buf, int len, CQSString& location);
    // Appends every Set-Cookie value; -1 only for a null or empty buffer.
    static int GetCookie(const unsigned char* buf, int len, CHttpResponseHead& head);
    // Hands each line to the cookie holder (nothing without a holder).
    void SaveCookies(const CQSString& url, const CQList<CQSString*>& lines);
    // "Date:" and "ExpireDate:" as seconds on the cookie calendar.
    static int GetContentData(const unsigned char* buf, int len, CHttpResponseHead& head);
    static int GetContentExpireData(const unsigned char* buf, int len, CHttpResponseHead& head);
    // "CurURL:" and "FileURL:", trimmed; 1 also when absent, -1 for a null
    // or empty buffer.
    static int GetThisPageUrl(const unsigned char* buf, int len, CQSString& url);
    static int GetFileUrl(const unsigned char* buf, int len, CQSString& url);
    // "OrigSize:", "StreamSize:", "idversion:": n is 0 unless the field
    // gives a number (untouched for a null or empty buffer).
    static void GetOrignSize(const unsigned char* buf, int len, int& n);
    static void GetStreamSize(const unsigned char* buf, int len, int& n);
    static void GetIDVersion(const unsigned char* buf, int len, int& n);

    // One chunk-size line of a chunked body, after any line ends left by the
    // previous chunk: returns the size and sets used to the bytes of the line
    // with its line ends; -1 while the line is incomplete.
    static int GetChunkSize(const unsigned char* buf, int len, int& used);

    // ---- Multipart file upload (boundary "7d92bf36e1196"). The writers
    // follow the two-pass rule above.

    // Builds the request head with the file part head into the unit's header
    // and the trailer into its info data, from the unit's form fields
    // (m_strData), file size (GetFileSize64: files past 2 GiB too), file path
    // and field name. False, with nothing allocated, when the URL has no
    // host, the file size is negative or memory runs out.
    bool GetPostFileMethodData(bool absoluteTarget, CQPostFileHeaderUnit& unit);
    // The trailer: "\r\n", the form field parts, the closing delimiter; a
    // new[] buffer owned by the caller (null, len 0, when memory runs out).
    unsigned char* GetPostFileInfoData(const CQSString& formFields, int& len);
    int CopyHttpHeader_PostFile_ContentType(unsigned char* out);
    // The file part head: delimiter, Content-Disposition with name and file
    // name, Content-Type, blank line.
    int CopyHttpHeader_PostFile_ContentDisposition(const CQWString& name, const CQWString& fileName,
                                                   unsigned char* out);
    // One form field part.
    int CopyHttpHeader_PostFile_FileInfo(const CQSString& key, const CQSString& value, unsigned char* out);
    // A part per key=value pair of formFields ("&"-joined); 0 when empty, or
    // when the field text could not be copied (no memory).
    int CopyHttpHeader_PostFile_AllFileInfo(const CQSString& formFields, unsigned char* out);
    // name = the URL after its first "//", up to the next "?", with "/" and
    // ":" made "_". False (name untouched) for a null or empty URL.
    static bool GetFileNameFromURL(const CQSString* url, CQWString& name);

private:
    CHttpData(const CHttpData&) = delete;
    CHttpData& operator=(const CHttpData&) = delete;

    // The "Cookie: ..." line with its line end for the stored URL's host,
    // or an empty string when there is nothing to send.
    void BuildCookieLine(CQSString& line) const;
    // The host, cookie line and configured extra line every request head
    // of the stored URL writes; false when the URL has no host.
    struct RequestPreamble;
    [[nodiscard]] bool ReadRequestPreamble(RequestPreamble& preamble) const;

    CQSString m_strURL;
    QCookieHolder* m_pCookieHolder = nullptr;  // not owned
    CQSString m_strUserAgent;
    CQSString m_strVUserAgent;
    CookieParser m_DateParser;  // only for DateStringToInt
};

#endif
