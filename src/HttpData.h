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
//   path      = ( "/" | "?" ) *anything    ; to the end of the text
// Nothing is validated: what does not match answers "nothing" (a null
// pointer with length 0, or the default port).

#include "BaseClass/src/CQString.h"

class QCookieHolder;

class CHttpData
{
public:
    // Method codes of CopyHttpHeader_Method.
    enum enHttpMethod
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

    // ---- URL dissection (no allocation except FindHost(const CQSString&))
    // Host of url: ends at the first "/", ":" or "?". Null and len 0 without
    // a scheme or with nothing after it.
    static char* FindHost(const CQSString& url, int& len);
    char* FindHost(int& len) const;
    // A new string holding the host of url (empty when there is none);
    // the caller deletes it.
    static CQSString* FindHost(const CQSString& url);
    // Host with its port as written: ends at the first "/" or "?". A URL
    // starting with "#" is returned whole.
    char* FindHostURL(int& len) const;
    // 80 by default, 443 for "https://" without a port; a port text that
    // reads as 0 or less gives 80 (also for https).
    int FindPort() const;
    // From the first "/" or "?" after the scheme to the end of the text.
    char* FindPath(int& len) const;
    bool IsSecureConnection() const;
    // Byte-exact comparison of the two hosts (ports ignored).
    bool IsSameHost(const char* url) const;

    // ---- Request building. Each returns a new[] buffer owned by the
    // caller (delete[]), its byte count in len; null when no host is found.
    unsigned char* GetMethodData(int method, int& len, int encodingMode, int absoluteTarget, int multipart = 0,
                                 int bodyLen = 0, unsigned char* body = nullptr, bool withIdVersion = false,
                                 unsigned int idVersion = 0);
    unsigned char* PartialGetMethodData(int& len, int encodingMode, bool absoluteTarget, int rangeStart);
    unsigned char* HttpHead_Get(int& len, int encodingMode, bool absoluteTarget, int rangeStart,
                                bool withIdVersion, unsigned int idVersion);
    unsigned char* HttpHead_Post(int& len, int encodingMode, int bodyLen, unsigned char* body,
                                 bool absoluteTarget, bool multipart, bool withIdVersion, unsigned int idVersion);

    // ---- Two-pass header writers: with a null out they write nothing and
    // return the byte count they would write; otherwise they write it.
    int CopyHttpHeader_NewLineFlag(unsigned char count, unsigned char* out);
    int CopyHttpHeader_Accept(unsigned char* out);
    // -1 when the URL has no host.
    int CopyHttpHeader_Host(unsigned char* out);
    int CopyHttpHeader_UserAgent(unsigned char* out);
    int CopyHttpHeader_ContentLenght(int n, unsigned char* out);
    int CopyHttpHeader_Method(enHttpMethod method, bool absoluteTarget, unsigned char* out);

private:
    CHttpData(const CHttpData&) = delete;
    CHttpData& operator=(const CHttpData&) = delete;

    // The "Cookie: ..." line with its line end for the stored URL's host,
    // or an empty string when there is nothing to send.
    void BuildCookieLine(CQSString& line) const;

    CQSString m_strURL;
    QCookieHolder* m_pCookieHolder = nullptr;  // not owned
    CQSString m_strUserAgent;
    CQSString m_strVUserAgent;
};

#endif
