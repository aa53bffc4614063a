#ifndef VELANET_DNSCACHE_H
#define VELANET_DNSCACHE_H

// Host name to IPv4 address cache, kept in a file between runs.
//
// One process-wide cache lives in the CQInstance registry under
// KUidDNSCache; GetOrCreateRegistered creates it on first use. The cache reads
// its file when constructed and writes it back when destroyed.
//
// File <directory>/dns_cache.dat, integers little-endian:
//   file  = count(4) *entry            ; count <= 256
//   entry = L(4) name(2*L) ip(4) time(8)
// L <= 128 counts the name's 16-bit code units (UTF-16, one unit per
// character for every name in the Basic Multilingual Plane); an entry is
// 16 + 2*L bytes. Entries stand newest first.

#include "BaseClass/src/CQList.h"
#include "BaseClass/src/CQString.h"

#include <QtGlobal>

class QString;

// One cached host. Owned by the cache.
struct DNSInfo
{
    CQWString name;       // host name as given; compared exactly
    unsigned int ip = 0;  // QHostAddress::toIPv4Address() form
    qint64 time = 0;      // seconds, taken as CDNSCache "now" (see DNSCache.cpp)
    int fresh = 0;        // 1: resolved or updated in this run; 0: read from the file
};

class CDNSCache
{
public:
    enum { KUidDNSCache = 8 };

    // Entries the file holds at most; more are not saved, a larger count is
    // not loaded.
    static constexpr int KMaxFileEntries = 256;
    // Longest name the file holds, in 16-bit code units.
    static constexpr int KMaxNameUnits = 128;
    // Age (seconds) past which Load stops reading: the rest is older still.
    static constexpr qint64 KMaxAge = 604800000000LL;
    // Write cache of Save.
    static constexpr int KSaveCacheBytes = 40960;
    // The file's name inside the cache directory.
    static constexpr char KFileName[] = "dns_cache.dat";
    // The cache directory used until SetCacheDirectory changes it.
    static constexpr char KDefaultDirectory[] = "/opt/meegovela/Browser/DNS/";

    // Runs Load.
    CDNSCache();
    // Runs Save, then Clear.
    ~CDNSCache();
    CDNSCache(const CDNSCache&) = delete;
    CDNSCache& operator=(const CDNSCache&) = delete;

    // Walks from the newest entry: the first entry named host that is fresh
    // (any entry named host when freshOnly is false) gives ip and true.
    // False with ip untouched when there is none.
    bool GetAddress(const CQWString& host, bool freshOnly, unsigned int& ip);
    // An existing entry gets the new ip and turns fresh; its place and time
    // stay. Otherwise a fresh entry timed "now" goes in front of the list.
    void Update(const CQWString& host, unsigned int ip);
    // Unlinks and frees the first entry named host, if any.
    void Remove(const CQWString& host);
    // Frees every entry.
    void Clear();

    // Creates the directory and appends the file's entries (not fresh) at
    // the tail in file order. A missing, short or corrupt file adds what
    // could be read completely, possibly nothing; reading never goes past
    // the file's data.
    void Load();
    // Writes the first KMaxFileEntries entries to the file, skipping names
    // longer than KMaxNameUnits (the count written is not lowered). A write
    // that comes short deletes the file.
    void Save();

    // Sets the directory of the cache file, with or without a trailing
    // slash; an empty text means the current directory. Affects every Load
    // and Save that follow.
    static void SetCacheDirectory(const QString& dir);
    // The directory in use, always ending in '/'.
    static QString CacheDirectory();
    // CacheDirectory() + KFileName.
    static QString CacheFilePath();

    // The cache registered under KUidDNSCache; when there is none, a new one
    // is created (loading its file) and registered. The registered cache is
    // saved and freed when the process exits. Null only when memory runs out.
    static CDNSCache* GetOrCreateRegistered();
    // Unregisters the registered cache and deletes it now (which saves it).
    // Nothing when none is registered; safe to call twice.
    static void ReleaseRegistered();

    CQList<DNSInfo*, DNSInfo*> dnsList;  // newest first, node block size 1
    qint64 maxAge;                       // KMaxAge
};

#endif
