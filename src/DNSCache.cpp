// The DNS cache and its file.
//
//   file  = count(4) *entry            ; little-endian, count <= 256
//   entry = L(4) name(2*L) ip(4) time(8)
//   name  = L UTF-16 code units, L <= 128
// The count and the L values are trusted only as far as the data goes:
// reading stops at the first entry that does not fit in what was read.

#include "src/DNSCache.h"

#include "BaseClass/src/CQFile.h"
#include "BaseClass/src/CQInstance.h"

#include <QDateTime>
#include <QString>

#include <cstring>
#include <memory>
#include <new>

namespace {

constexpr int KCountBytes = 4;
constexpr int KLengthBytes = 4;
constexpr int KUnitBytes = 2;
constexpr int KIpBytes = 4;
constexpr int KTimeBytes = 8;
// An entry is KEntryFixedBytes + 2 * L bytes long.
constexpr int KEntryFixedBytes = KLengthBytes + KIpBytes + KTimeBytes;
constexpr int KMaxEntryBytes = KEntryFixedBytes + KUnitBytes * CDNSCache::KMaxNameUnits;

// UTF-16 surrogate ranges and the character written for a wide character
// that is not a Unicode code point.
constexpr unsigned int KHighSurrogateFirst = 0xD800;
constexpr unsigned int KHighSurrogateLast = 0xDBFF;
constexpr unsigned int KLowSurrogateFirst = 0xDC00;
constexpr unsigned int KLowSurrogateLast = 0xDFFF;
constexpr unsigned int KLastSingleUnit = 0xFFFF;
constexpr unsigned int KLastCodePoint = 0x10FFFF;
constexpr unsigned int KSupplementaryBase = 0x10000;
constexpr unsigned int KReplacementChar = 0xFFFD;

// EncodeName result for a name the file cannot hold.
constexpr int KNameTooLong = -1;

// DNSInfo::fresh values.
constexpr int KFresh = 1;      // resolved or updated during this run
constexpr int KFromFile = 0;   // read from the file

// "now" for entry times: what QDateTime::toTime_t() gives for a
// default-constructed QDateTime. That value is invalid, and toTime_t()
// answers an invalid time (or one outside 32 bits) with 0xFFFFFFFF, the same
// at creation and at load. Qt 6 has no toTime_t(), so its rule is applied to
// toSecsSinceEpoch() here, on both Qt versions alike.
// Kept on purpose: ages compare like with like and no entry is dropped for age.
[[nodiscard]] qint64 Now()
{
    constexpr qint64 KNoTime = 0xFFFFFFFFLL;
    const QDateTime unset;
    if (!unset.isValid())
        return KNoTime;
    const qint64 seconds = unset.toSecsSinceEpoch();
    return (seconds < 0 || seconds >= KNoTime) ? KNoTime : seconds;
}

// True when now - time exceeds maxAge, computed without overflow.
[[nodiscard]] bool TooOld(qint64 now, qint64 time, qint64 maxAge)
{
    qint64 age = 0;
    if (__builtin_sub_overflow(now, time, &age))
        return time < now;  // the age lies beyond the 64-bit range, on time's side
    return age > maxAge;
}

[[nodiscard]] quint32 ReadU32(const unsigned char* p)
{
    return static_cast<quint32>(p[0]) | (static_cast<quint32>(p[1]) << 8) | (static_cast<quint32>(p[2]) << 16) |
           (static_cast<quint32>(p[3]) << 24);
}

[[nodiscard]] qint64 ReadI64(const unsigned char* p)
{
    quint64 value = 0;
    for (int i = KTimeBytes - 1; i >= 0; --i)
        value = (value << 8) | p[i];
    return static_cast<qint64>(value);
}

void PutU32(unsigned char* p, quint32 value)
{
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<unsigned char>(value >> (8 * i));
}

void PutI64(unsigned char* p, qint64 time)
{
    const quint64 value = static_cast<quint64>(time);
    for (int i = 0; i < KTimeBytes; ++i)
        p[i] = static_cast<unsigned char>(value >> (8 * i));
}

// Encodes name as UTF-16 code units into units[0..KMaxNameUnits). Returns
// the unit count, or KNameTooLong when it needs more than KMaxNameUnits units.
// A wide character that is no code point is written as U+FFFD.
[[nodiscard]] int EncodeName(const CQWString& name, quint16 (&units)[CDNSCache::KMaxNameUnits])
{
    const wchar_t* chars = name.GetDataPtr();
    const int len = name.GetLength();
    int n = 0;
    for (int i = 0; i < len; ++i) {
        unsigned int c = static_cast<unsigned int>(chars[i]);
        if (c > KLastCodePoint)
            c = KReplacementChar;
        if (c <= KLastSingleUnit) {
            if (n + 1 > CDNSCache::KMaxNameUnits)
                return KNameTooLong;
            units[n++] = static_cast<quint16>(c);
        } else {
            if (n + 2 > CDNSCache::KMaxNameUnits)
                return KNameTooLong;
            c -= KSupplementaryBase;
            units[n++] = static_cast<quint16>(KHighSurrogateFirst + (c >> 10));
            units[n++] = static_cast<quint16>(KLowSurrogateFirst + (c & 0x3FF));
        }
    }
    return n;
}

// Decodes count little-endian UTF-16 units at p (count <= KMaxNameUnits)
// into name. A surrogate that is not part of a pair stands for itself.
// False when the string could not take the text.
[[nodiscard]] bool DecodeName(const unsigned char* p, int count, CQWString& name)
{
    wchar_t chars[CDNSCache::KMaxNameUnits];
    int n = 0;
    for (int i = 0; i < count; ++i) {
        const unsigned int unit = p[KUnitBytes * i] | (static_cast<unsigned int>(p[KUnitBytes * i + 1]) << 8);
        if (unit >= KHighSurrogateFirst && unit <= KHighSurrogateLast && i + 1 < count) {
            const unsigned int next =
                p[KUnitBytes * (i + 1)] | (static_cast<unsigned int>(p[KUnitBytes * (i + 1) + 1]) << 8);
            if (next >= KLowSurrogateFirst && next <= KLowSurrogateLast) {
                chars[n++] = static_cast<wchar_t>(KSupplementaryBase + ((unit - KHighSurrogateFirst) << 10) +
                                                  (next - KLowSurrogateFirst));
                ++i;
                continue;
            }
        }
        chars[n++] = static_cast<wchar_t>(unit);
    }
    return name.SetData(chars, n) != 0;
}

QString& DirectoryStore()
{
    static QString directory = QString::fromLatin1(CDNSCache::KDefaultDirectory);
    return directory;
}

// Saves and frees the registered cache when static objects go away at exit.
struct RegisteredCacheReleaser
{
    ~RegisteredCacheReleaser() { CDNSCache::ReleaseRegistered(); }
};

void ReleaseAtExit()
{
    // The directory store must outlive the releaser: construct it first.
    static_cast<void>(DirectoryStore());
    static RegisteredCacheReleaser releaser;
}

}  // namespace

CDNSCache::CDNSCache() : dnsList(1), maxAge(KMaxAge)
{
    Load();
}

CDNSCache::~CDNSCache()
{
    Save();
    Clear();
}

bool CDNSCache::GetAddress(const CQWString& host, bool freshOnly, unsigned int& ip)
{
    auto pos = dnsList.GetHeadPosition();
    while (pos != NULL) {
        const DNSInfo* info = dnsList.GetNext(pos);
        if (info->name == host && (info->fresh == KFresh || !freshOnly)) {
            ip = info->ip;
            return true;
        }
    }
    return false;
}

void CDNSCache::Update(const CQWString& host, unsigned int ip)
{
    auto pos = dnsList.GetHeadPosition();
    while (pos != NULL) {
        DNSInfo* info = dnsList.GetNext(pos);
        if (info->name == host) {
            info->ip = ip;
            info->fresh = KFresh;
            return;
        }
    }

    DNSInfo* info = new (std::nothrow) DNSInfo;
    if (info == nullptr)
        return;
    info->name = host;
    info->ip = ip;
    info->time = Now();
    info->fresh = KFresh;
    if (info->name != host) {  // the copy could not be made
        delete info;
        return;
    }

    // In front of the list: a node linked before the old head.
    CQList<DNSInfo*, DNSInfo*>::CNode* node = dnsList.NewNode(NULL, dnsList.m_pNodeHead);
    if (node == NULL) {
        delete info;
        return;
    }
    node->data = info;
    if (dnsList.m_pNodeHead != NULL)
        dnsList.m_pNodeHead->pPrev = node;
    else
        dnsList.m_pNodeTail = node;
    dnsList.m_pNodeHead = node;
}

void CDNSCache::Remove(const CQWString& host)
{
    int index = 0;
    auto pos = dnsList.GetHeadPosition();
    while (pos != NULL) {
        DNSInfo* info = dnsList.GetNext(pos);
        if (info->name == host) {
            dnsList.RemoveAt(index);
            delete info;
            return;
        }
        ++index;
    }
}

void CDNSCache::Clear()
{
    auto pos = dnsList.GetHeadPosition();
    while (pos != NULL)
        delete dnsList.GetNext(pos);
    dnsList.RemoveAll();
}

void CDNSCache::Load()
{
    const CQWString directory(CacheDirectory());
    static_cast<void>(CQFile::CreateDirectory(directory));

    CQFile file;
    if (!file.Open(CQWString(CacheFilePath()), CQFile::KModeRead))
        return;

    const int length = file.GetLength();
    unsigned char countBytes[KCountBytes];
    if (file.Read(countBytes, KCountBytes) != KCountBytes || length < KCountBytes)
        return;
    const quint32 count = ReadU32(countBytes);
    if (count > static_cast<quint32>(KMaxFileEntries))
        return;

    // The rest of the file in one piece.
    const int restLength = length - KCountBytes;
    std::unique_ptr<unsigned char[]> rest(new (std::nothrow) unsigned char[restLength > 0 ? restLength : 1]);
    if (!rest)
        return;
    if (restLength > 0 && file.Read(rest.get(), restLength) != restLength)
        return;
    file.Close();

    const qint64 now = Now();
    const unsigned char* p = rest.get();
    int left = restLength;
    for (quint32 i = 0; i < count; ++i) {
        if (left < KLengthBytes)
            return;
        const quint32 units = ReadU32(p);
        if (units > static_cast<quint32>(KMaxNameUnits))
            return;
        const int entryBytes = KEntryFixedBytes + KUnitBytes * static_cast<int>(units);
        if (left < entryBytes)
            return;
        const unsigned char* namePart = p + KLengthBytes;
        const unsigned char* ipPart = namePart + KUnitBytes * units;
        const unsigned char* timePart = ipPart + KIpBytes;
        const qint64 time = ReadI64(timePart);
        if (TooOld(now, time, maxAge))
            return;  // the rest is older still

        DNSInfo* info = new (std::nothrow) DNSInfo;
        if (info == nullptr)
            return;
        if (!DecodeName(namePart, static_cast<int>(units), info->name)) {
            delete info;
            return;
        }
        info->ip = ReadU32(ipPart);
        info->time = time;
        info->fresh = KFromFile;
        if (dnsList.AddTail(info) == NULL) {
            delete info;
            return;
        }
        p += entryBytes;
        left -= entryBytes;
    }
}

void CDNSCache::Save()
{
    const CQWString directory(CacheDirectory());
    static_cast<void>(CQFile::CreateDirectory(directory));

    const CQWString path(CacheFilePath());
    CQFile file;
    if (!file.OpenWithWriteCache(path, CQFile::KModeWrite, KSaveCacheBytes))
        return;

    const int total = dnsList.GetCount();
    const int n = total < KMaxFileEntries ? total : KMaxFileEntries;
    unsigned char bytes[KMaxEntryBytes];
    PutU32(bytes, static_cast<quint32>(n));
    bool shortWrite = file.Write(bytes, KCountBytes) != KCountBytes;

    int written = 0;
    quint16 units[KMaxNameUnits];
    auto pos = dnsList.GetHeadPosition();
    while (!shortWrite && written < n && pos != NULL) {
        const DNSInfo* info = dnsList.GetNext(pos);
        const int unitCount = EncodeName(info->name, units);
        if (unitCount == KNameTooLong)
            continue;  // too long for the file; the count stays as written
        unsigned char* p = bytes;
        PutU32(p, static_cast<quint32>(unitCount));
        p += KLengthBytes;
        for (int i = 0; i < unitCount; ++i) {
            *p++ = static_cast<unsigned char>(units[i] & 0xFF);
            *p++ = static_cast<unsigned char>(units[i] >> 8);
        }
        PutU32(p, info->ip);
        p += KIpBytes;
        PutI64(p, info->time);
        p += KTimeBytes;
        const int entryBytes = static_cast<int>(p - bytes);
        shortWrite = file.Write(bytes, entryBytes) != entryBytes;
        ++written;
    }

    // Close reports bytes the write cache could not get into the file.
    if (!file.Close() || shortWrite)
        static_cast<void>(CQFile::DeleteFile(path));
}

void CDNSCache::SetCacheDirectory(const QString& dir)
{
    QString directory = dir.isEmpty() ? QStringLiteral(".") : dir;
    if (!directory.endsWith(QLatin1Char('/')))
        directory += QLatin1Char('/');
    DirectoryStore() = directory;
}

QString CDNSCache::CacheDirectory()
{
    return DirectoryStore();
}

QString CDNSCache::CacheFilePath()
{
    return DirectoryStore() + QLatin1String(KFileName);
}

CDNSCache* CDNSCache::GetOrCreateRegistered()
{
    CQInstance* registry = CQInstance::Instance();
    if (CDNSCache* cache = static_cast<CDNSCache*>(registry->GetByUid(KUidDNSCache))) {
        ReleaseAtExit();
        return cache;
    }
    CDNSCache* cache = new (std::nothrow) CDNSCache;
    if (cache == nullptr)
        return nullptr;
    if (!registry->AddWithUid(cache, KUidDNSCache)) {
        delete cache;
        return nullptr;
    }
    ReleaseAtExit();
    return cache;
}

void CDNSCache::ReleaseRegistered()
{
    CQInstance* registry = CQInstance::Instance();
    CDNSCache* cache = static_cast<CDNSCache*>(registry->GetByUid(KUidDNSCache));
    if (cache == nullptr)
        return;
    registry->RemoveByUid(KUidDNSCache);
    delete cache;
}
