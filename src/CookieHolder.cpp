// The cookie jar and its files.
//
//   file   = *record [ partial ]          ; a partial record is not read
//   record = name CRLF value CRLF domain CRLF expiry CRLF
//   domain = empty (the previous record's) | text
//   expiry = *DIGIT                       ; a time value, 0 for a session

#include "src/CookieHolder.h"

#include "BaseClass/src/CBaseUtil.h"
#include "BaseClass/src/CQFile.h"
#include "src/internal/CookieFile_p.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFileInfoList>
#include <QString>

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace {

const char KCrLf[] = "\r\n";
constexpr int KCrLfLength = 2;

const char KFilePrefix[] = "zorb@";
const char KFileSuffix[] = ".txt";
const wchar_t KCookieSubDirectory[] = L"//Cookies//";
// A file is written under this prefix first: hidden names are never loaded.
const wchar_t KTempPrefix[] = L".";
const wchar_t KTempSuffix[] = L".tmp";
constexpr int KWriteCacheBytes = 500;

// The domain buffer of ParseCookie: 127 bytes and the terminating NUL.
constexpr int KDomainBufferSize = QCookieHolder::KMaxDomainLength + 1;

// The lines of one record, in file order.
enum RecordLine { KLineName, KLineValue, KLineDomain, KLineExpiry, KLinesPerRecord };

[[nodiscard]] bool WriteLine(CQFile& file, const CQSString& line)
{
    const int len = line.GetLength();
    if (len > 0 && file.Write(line.GetDataPtr(), len) != len)
        return false;
    return file.Write(KCrLf, KCrLfLength) == KCrLfLength;
}

// Copies the host part of text into domain when it is 1..127 bytes long
// (stopping early at a NUL); otherwise domain is left as it is.
void CopyDomain(const char* text, char (&domain)[KDomainBufferSize])
{
    int len = 0;
    const char* host = CookieParser::HTFindFullHost(text, len);
    if (host == nullptr || len < 1 || len > QCookieHolder::KMaxDomainLength)
        return;
    int i = 0;
    for (; i < len && host[i] != '\0'; ++i)
        domain[i] = host[i];
    domain[i] = '\0';
}

// Stores value under key; a value the table could not take is deleted.
// True when stored.
template <class T>
[[nodiscard]] bool PutOwned(CQHashTable<T>& table, const CQSString& key, T* value)
{
    table.put(key, value);
    if (table.get(key) == value)
        return true;
    delete value;
    return false;
}

// Replaces to by from in one step; false when the rename fails.
[[nodiscard]] bool ReplaceFile(const CQWString& from, const CQWString& to)
{
    const QByteArray source = QFile::encodeName(from.ToQString());
    const QByteArray target = QFile::encodeName(to.ToQString());
    return std::rename(source.constData(), target.constData()) == 0;
}

}  // namespace

// ---- reading and writing records ---------------------------------------

namespace velanet {

CookieFileReader::CookieFileReader(const unsigned char* data, int len)
    : m_pData(data), m_nLen(data != nullptr && len > 0 ? len : 0)
{
}

bool CookieFileReader::NextLine(const unsigned char** line, int* lineLen)
{
    if (m_nPos >= m_nLen)
        return false;
    const unsigned char* start = m_pData + m_nPos;
    const unsigned char* crlf = CBaseUtil::SearchMem(start, m_nLen - m_nPos, KCrLf, KCrLfLength);
    if (crlf == nullptr)
        return false;
    *line = start;
    *lineLen = static_cast<int>(crlf - start);
    m_nPos += *lineLen + KCrLfLength;
    return true;
}

int CookieFileReader::Next()
{
    const unsigned char* lines[KLinesPerRecord] = {};
    int lengths[KLinesPerRecord] = {};
    for (int i = 0; i < KLinesPerRecord; ++i) {
        if (!NextLine(&lines[i], &lengths[i])) {
            m_nPos = m_nLen;
            return KNoMoreRecords;
        }
    }
    m_strName.SetData(lines[KLineName], lengths[KLineName]);
    m_strValue.SetData(lines[KLineValue], lengths[KLineValue]);
    if (lengths[KLineDomain] > 0)
        m_strDomain.SetData(lines[KLineDomain], lengths[KLineDomain]);
    m_strExpiryLine.SetData(lines[KLineExpiry], lengths[KLineExpiry]);
    m_nExpires = m_strExpiryLine.ToUINT();
    return KRecordRead;
}

bool WriteCookieRecord(CQFile& file, const CQSString& name, const CQSString& value, const CQSString& domain,
                       unsigned int expires)
{
    CQSString expiry;
    expiry.ToString(expires);
    // Every number has a digit: an empty text means it could not be made, and
    // a record without its expiry would read back as a session cookie.
    if (expiry.IsEmpty())
        return false;
    return WriteLine(file, name) && WriteLine(file, value) && WriteLine(file, domain) && WriteLine(file, expiry);
}

}  // namespace velanet

// ---- QCookie -------------------------------------------------------------

QCookie::QCookie() = default;

QCookie::~QCookie() = default;

bool QCookie::SetCookie(const CQSString* name, const CQSString* value, unsigned int expires, bool modifiedFlag)
{
    if (name == nullptr || value == nullptr)
        return false;
    // Copied first, so a copy that cannot be allocated changes nothing.
    CQSString valueCopy(*value);
    if (valueCopy.GetLength() != value->GetLength())
        return false;
    if (QCookieValue* existing = values.get(*name)) {
        existing->expires = expires;
        existing->value = std::move(valueCopy);
    } else {
        if (values.GetCount() >= KMaxCookiesPerDomain)
            return false;
        std::unique_ptr<QCookieValue> fresh(new (std::nothrow) QCookieValue);
        if (!fresh)
            return false;
        fresh->expires = expires;
        fresh->name = *name;
        if (fresh->name.GetLength() != name->GetLength())
            return false;
        fresh->value = std::move(valueCopy);
        if (!PutOwned(values, *name, fresh.release()))
            return false;
    }
    modified = modifiedFlag;
    return true;
}

QCookieValue* QCookie::GetCookie(const CQSString& name)
{
    return values.get(name);
}

QCookieValue** QCookie::GetCookie()
{
    return values.getall();
}

// ---- QCookieHolder -------------------------------------------------------

QCookieHolder::QCookieHolder() = default;

QCookieHolder::~QCookieHolder() = default;

CQWString QCookieHolder::CookieDirectory() const
{
    CQWString directory(baseDirectory);
    directory.AppendData(KCookieSubDirectory);
    directory.Replace(L"\\", L"/");
    return directory;
}

void QCookieHolder::ConstructL(const CQWString& directory)
{
    baseDirectory = directory;
    baseDirectory.Replace(L"\\", L"/");
    // An empty base would put the cookie directory at the file system root.
    if (baseDirectory.IsEmpty())
        return;

    const CQWString cookieDirectory = CookieDirectory();
    CQFile::CreateDirectory(cookieDirectory);
    const QString directoryText = cookieDirectory.ToQString();
    if (!QFileInfo(directoryText).isDir())
        return;

    // Regular files only (no QDir::System): opening a FIFO would block.
    const QFileInfoList entries = QDir(directoryText).entryInfoList(
        QDir::Dirs | QDir::Files | QDir::NoDotAndDotDot, QDir::Name | QDir::DirsFirst);
    for (const QFileInfo& entry : entries) {
        if (entry.isDir() || !entry.isFile())
            continue;
        LoadFile(CQWString(entry.absoluteFilePath()));
    }
}

void QCookieHolder::LoadFile(const CQWString& path)
{
    CQFile file;
    if (!file.Open(path, CQFile::KModeRead))
        return;
    const int result = ReadFromfile(file);
    file.Close();
    if (result == KNothingRead)
        CQFile::DeleteFile(path);
}

int QCookieHolder::ReadFromfile(CQFile& file)
{
    const int size = file.GetLength();
    if (size < 1)
        return KNothingRead;
    std::unique_ptr<unsigned char[]> data(new (std::nothrow) unsigned char[static_cast<std::size_t>(size) + 1]());
    if (!data)
        return KNothingRead;
    // The file may have shrunk since its length was taken: only what was
    // read is parsed.
    const int got = file.Read(data.get(), size);
    if (got < 1)
        return KNothingRead;
    const unsigned int now = parser.GetCurrentTimeToInt();

    velanet::CookieFileReader reader(data.get(), got);
    std::unique_ptr<QCookie> cookie;
    while (reader.Next() == velanet::CookieFileReader::KRecordRead) {
        if (reader.m_nExpires < now)
            continue;
        // The reader rewrites name and value for every record: trim them in place.
        reader.m_strName.TrimRightAndLeft();
        reader.m_strValue.TrimRightAndLeft();
        if (!cookie) {
            cookie.reset(new (std::nothrow) QCookie);
            if (!cookie)
                return KNothingRead;
            cookie->domain = reader.m_strDomain;
            cookie->domain.TrimRightAndLeft();
        }
        cookie->SetCookie(&reader.m_strName, &reader.m_strValue, reader.m_nExpires, false);
    }
    if (!cookie)
        return KNothingRead;

    // Filed under the domain of the last record read, accepted or not: kept
    // on purpose (a file holds one domain, so both are the same).
    CQSString key(reader.m_strDomain);
    key.TrimRightAndLeft();
    return PutOwned(cookies, key, cookie.release()) ? KCookiesRead : KNothingRead;
}

int QCookieHolder::ParseCookie(const CQSString& url, const CQSString& text)
{
    if (text.IsEmpty())
        return KCookieIgnored;
    // The tokenisers write into their buffer: work on a copy.
    const int len = text.GetLength();
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[static_cast<std::size_t>(len) + 1]);
    if (!buffer)
        return KCookieIgnored;
    std::memcpy(buffer.get(), text.GetDataPtr(), static_cast<std::size_t>(len));
    buffer[len] = '\0';

    char* cursor = buffer.get();
    const char* name = parser.HTParseNextField(&cursor);
    if (name == nullptr)
        return KCookieIgnored;
    const char* value = parser.HTParseNextValue(&cursor);
    if (value == nullptr)
        return KCookieIgnored;

    unsigned int expires = 0;
    char domain[KDomainBufferSize] = {};
    if (*name != '\0') {
        while (char* param = parser.HTParseNextParam(&cursor)) {
            char* rest = param;
            const char* attribute = parser.HTParseNextField(&rest);
            if (attribute == nullptr || *rest == '\0')
                continue;
            if (CookieParser::strcasecomp(attribute, "expires") == 0)
                expires = parser.HTParseTime(rest);
            else if (CookieParser::strcasecomp(attribute, "domain") == 0)
                CopyDomain(rest, domain);
        }
    }
    if (domain[0] == '\0')
        CopyDomain(url.GetDataPtr(), domain);
    // The server's domain is not checked against the request host: kept on
    // purpose, the jar trusts the servers it is used with.

    const CQSString key(domain);
    const CQSString nameText(name);
    const CQSString valueText(value);
    // A copy that could not be allocated is empty and would store the wrong cookie.
    if (key.GetLength() != static_cast<int>(std::strlen(domain)) ||
        nameText.GetLength() != static_cast<int>(std::strlen(name)) ||
        valueText.GetLength() != static_cast<int>(std::strlen(value)))
        return KCookieIgnored;
    if (QCookie* cookie = cookies.get(key))
        return cookie->SetCookie(&nameText, &valueText, expires, true) ? KCookieStored : KCookieIgnored;

    std::unique_ptr<QCookie> fresh(new (std::nothrow) QCookie);
    if (!fresh)
        return KCookieIgnored;
    fresh->domain = key;
    if (!fresh->SetCookie(&nameText, &valueText, expires, true))
        return KCookieIgnored;
    return PutOwned(cookies, key, fresh.release()) ? KCookieStored : KCookieIgnored;
}

CQHashTable<QCookieValue>* QCookieHolder::GetCookie(const CQSString& host, bool)
{
    if (host.IsEmpty())
        return nullptr;

    // The host, then its parents, most specific first.
    CQSString candidates[KMaxCandidateHosts];
    int count = 0;
    candidates[count++] = host;
    while (count < KMaxCandidateHosts) {
        int len = 0;
        const char* parent = CookieParser::HTFindFatherHost(candidates[count - 1].GetDataPtr(), len);
        if (parent == nullptr || len < 1)
            break;
        candidates[count].SetData(reinterpret_cast<const unsigned char*>(parent), len);
        ++count;
    }

    CQHashTable<QCookieValue>* result = new (std::nothrow) CQHashTable<QCookieValue>();
    if (result == nullptr)
        return nullptr;
    const unsigned int now = parser.GetCurrentTimeToInt();
    for (int i = 0; i < count; ++i) {
        QCookie* cookie = cookies.get(candidates[i]);
        if (cookie == nullptr)
            continue;
        const int valueCount = cookie->values.GetCount();
        QCookieValue** snapshot = cookie->GetCookie();
        if (snapshot == nullptr)
            continue;
        for (int k = 0; k < valueCount; ++k) {
            const QCookieValue* value = snapshot[k];
            // A more specific domain already gave this name.
            if (result->get(value->name) != nullptr)
                continue;
            if (value->expires != 0 && now > value->expires)
                continue;
            QCookieValue* copy = new (std::nothrow) QCookieValue(*value);
            if (copy != nullptr)
                static_cast<void>(PutOwned(*result, copy->name, copy));
        }
    }
    return result;
}

void QCookieHolder::Save2File()
{
    const int count = cookies.GetCount();
    if (count == 0)
        return;
    // SaveItem never changes the domain table, so this snapshot stays valid.
    QCookie** snapshot = cookies.getall();
    if (snapshot == nullptr)
        return;
    for (int i = 0; i < count; ++i) {
        QCookie* cookie = snapshot[i];
        if (!cookie->modified || cookie->domain.IsEmpty())
            continue;
        CQSString fileName(KFilePrefix);
        fileName.AppendData(reinterpret_cast<const unsigned char*>(cookie->domain.GetDataPtr()),
                            cookie->domain.GetLength());
        fileName.AppendData(KFileSuffix);
        SaveItem(&fileName, cookie);
    }
}

void QCookieHolder::SaveItem(const CQSString* fileName, QCookie* cookie)
{
    if (fileName == nullptr || cookie == nullptr || baseDirectory.IsEmpty())
        return;
    const unsigned char* nameBytes = reinterpret_cast<const unsigned char*>(fileName->GetDataPtr());
    const int nameLength = fileName->GetLength();
    const CQWString directory = CookieDirectory();
    CQWString path(directory);
    path.AppendData(nameBytes, nameLength);
    CQWString tempPath(directory);
    tempPath.AppendData(KTempPrefix);
    tempPath.AppendData(nameBytes, nameLength);
    tempPath.AppendData(KTempSuffix);

    CQFile file;
    if (!file.OpenWithWriteCache(tempPath, CQFile::KModeWrite, KWriteCacheBytes))
        return;
    const int valueCount = cookie->values.GetCount();
    QCookieValue** snapshot = cookie->GetCookie();
    bool written = snapshot != nullptr;
    for (int k = 0; written && k < valueCount; ++k) {
        const QCookieValue* value = snapshot[k];
        written = velanet::WriteCookieRecord(file, value->name, value->value, cookie->domain, value->expires);
    }
    written = file.Close() != 0 && written;
    // A failed write keeps the old file.
    if (!written || !ReplaceFile(tempPath, path))
        CQFile::DeleteFile(tempPath);
}

void QCookieHolder::ClearCookiFile()
{
    if (!baseDirectory.IsEmpty()) {
        const CQWString directory = CookieDirectory();
        CQFile::RecursiveDelDir(directory);
        CQFile::CreateDirectory(directory);
    }
    cookies.clear();
    cookies.InitHashTable();
}
