#ifndef VELANET_COOKIEHOLDER_H
#define VELANET_COOKIEHOLDER_H

// The client's cookie jar: one QCookie per domain, each holding that
// domain's name/value pairs, and one file per domain in the cookie
// directory. Requests hold the holder by pointer and never own it.
//
// Only the "expires" and "domain" attributes are used; every other
// attribute is read over and ignored, so a cookie goes to every path of its
// domain and sub-domains, secure or not. Keys compare byte for byte.
//
// Cookie file "zorb@" + domain + ".txt", records of four CR LF lines:
//   record = name CRLF value CRLF domain CRLF expiry-digits CRLF
// An empty domain line keeps the previous record's domain; a last record
// without its final CR LF is not read.

#include "BaseClass/src/CQHashTable.h"
#include "BaseClass/src/CQString.h"
#include "src/CookieParser.h"

class CQFile;

// One cookie. expires is a time value (CookieParser); 0 is a session cookie.
class QCookieValue
{
public:
    unsigned int expires = 0;
    CQSString name;
    CQSString value;
};

// The cookies of one domain, keyed by name.
class QCookie
{
public:
    // Names one domain holds at most (RFC 6265 section 6.1 asks for at least
    // 50). The name table has 11 buckets and never grows: this keeps every
    // lookup short whatever a server sends or a cookie file holds.
    static constexpr int KMaxCookiesPerDomain = 1000;

    QCookie();
    virtual ~QCookie();
    QCookie(const QCookie&) = delete;
    QCookie& operator=(const QCookie&) = delete;

    // False when name or value is null, or when the name is new and the
    // domain already holds KMaxCookiesPerDomain names. Otherwise overwrites
    // the expiry and value of the cookie of that name, or stores a new one
    // with copies of both; either way modified takes the given flag and the
    // result is true.
    bool SetCookie(const CQSString* name, const CQSString* value, unsigned int expires, bool modified);
    // The cookie stored under name (still owned here), or null.
    QCookieValue* GetCookie(const CQSString& name);
    // Every cookie, in table order: values.GetCount() pointers. The array
    // belongs to this object and is replaced by the next call.
    QCookieValue** GetCookie();

    CQSString domain;                   // the key under which the holder keeps it
    CQHashTable<QCookieValue> values;   // owned, keyed by name
    bool modified = false;              // set by every SetCookie to the flag given
};

class QCookieHolder
{
public:
    // ParseCookie results.
    enum { KCookieIgnored = 0, KCookieStored = 1 };
    // ReadFromfile results.
    enum { KNothingRead = 0, KCookiesRead = 1 };
    // Room in the parent-domain walk of GetCookie.
    static constexpr int KMaxCandidateHosts = 32;
    // Domain texts of 1..KMaxDomainLength bytes are used.
    static constexpr int KMaxDomainLength = 127;

    QCookieHolder();
    virtual ~QCookieHolder();
    QCookieHolder(const QCookieHolder&) = delete;
    QCookieHolder& operator=(const QCookieHolder&) = delete;

    // Remembers the directory (backslashes turned into "/"), creates
    // directory + "//Cookies//" and loads every regular file in it; a file
    // that yields no unexpired cookie is deleted. An empty directory text
    // touches no disk: nothing is loaded, saved or deleted until a real
    // directory is given.
    void ConstructL(const CQWString& directory);

    // Stores one Set-Cookie value received for url. KCookieStored, or
    // KCookieIgnored for an empty text, one without a name or a value, or a
    // new name for a domain that is full (QCookie::KMaxCookiesPerDomain).
    // The domain attribute is taken as given; without one the URL's host is
    // used.
    int ParseCookie(const CQSString& url, const CQSString& text);

    // A new table (the caller deletes it) of copies of the unexpired
    // cookies for host and its parent domains, most specific first, keyed by
    // name; a name already taken by a more specific domain is skipped. Null
    // for an empty host. The bool has no effect (callers pass true).
    CQHashTable<QCookieValue>* GetCookie(const CQSString& host, bool = true);

    // Writes the file of every modified domain with a non-empty name; the
    // flags stay set. Nothing is saved on destruction.
    void Save2File();

    // Reads one open cookie file into a new QCookie stored under the domain
    // of the last record read. Only records with expiry >= now are kept,
    // trimmed and unmodified. KCookiesRead when one was kept.
    int ReadFromfile(CQFile& file);

    // Writes one domain's file (in the cookie directory) so that it holds
    // exactly the cookie's records, expired and session ones included. The
    // bytes go to a hidden temporary file first and replace the old file by
    // rename, so a failed write leaves the old file. Null arguments, or a
    // file that cannot be written, change nothing.
    void SaveItem(const CQSString* fileName, QCookie* cookie);

    // Deletes the cookie directory with its content, creates it again empty
    // and forgets every cookie.
    void ClearCookiFile();

    CQHashTable<QCookie> cookies;   // owned, keyed by domain
    CookieParser parser;
    CQWString baseDirectory;

private:
    // baseDirectory + "//Cookies//", backslashes turned into "/".
    [[nodiscard]] CQWString CookieDirectory() const;
    // Loads one directory entry; deletes it when it yields nothing.
    void LoadFile(const CQWString& path);
};

#endif
