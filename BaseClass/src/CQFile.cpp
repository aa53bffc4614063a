#include "BaseClass/src/CQFile.h"

#include "BaseClass/src/CQString.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int KDone = 1;     // success of a yes/no call
constexpr int KFailed = 0;   // failure of a yes/no call
constexpr int KError = -1;   // failure of a call that returns a count or position
constexpr int KNoBytes = 0;  // a count of nothing moved

// The local 8-bit file name of a wide path; empty for a null path.
QByteArray LocalName(const wchar_t* path)
{
    if (!path)
        return QByteArray();
    return QFile::encodeName(QString::fromWCharArray(path));
}

QString PathText(const wchar_t* path)
{
    return path ? QString::fromWCharArray(path) : QString();
}

}  // namespace

CQFile::~CQFile()
{
    Close();
}

int CQFile::Open(const wchar_t* path, unsigned mode)
{
    return OpenFile(path, mode, 0);
}

int CQFile::Open(const CQWString& path, unsigned mode)
{
    return OpenFile(path.GetDataPtr(), mode, 0);
}

int CQFile::OpenWithWriteCache(const wchar_t* path, unsigned mode, int cacheBytes)
{
    return OpenFile(path, mode, cacheBytes);
}

int CQFile::OpenWithWriteCache(const CQWString& path, unsigned mode, int cacheBytes)
{
    return OpenFile(path.GetDataPtr(), mode, cacheBytes);
}

int CQFile::OpenFile(const wchar_t* path, unsigned mode, int cacheBytes)
{
    Close();

    int flags = 0;
    if (mode == KModeRead)
        flags = O_RDONLY;
    else if (mode == KModeWrite)
        flags = O_WRONLY | O_CREAT | O_TRUNC;
    else
        return KFailed;

    const QByteArray name = LocalName(path);
    if (name.isEmpty())
        return KFailed;

    std::unique_ptr<unsigned char[]> cache;
    if (mode == KModeWrite && cacheBytes > 0) {
        cache.reset(new (std::nothrow) unsigned char[static_cast<size_t>(cacheBytes)]);
        if (!cache)
            return KFailed;
    }

    int fd;
    do {
        fd = ::open(name.constData(), flags | O_CLOEXEC, 0644);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0)
        return KFailed;
    // A directory opens read-only on Linux but is not a file to read.
    struct stat info;
    if (::fstat(fd, &info) != 0 || S_ISDIR(info.st_mode)) {
        ::close(fd);
        return KFailed;
    }

    m_nFd = fd;
    m_pCache = std::move(cache);
    m_nCacheSize = m_pCache ? cacheBytes : 0;
    m_nCacheUsed = 0;
    m_bWriteFailed = false;
    return KDone;
}

int CQFile::Read(void* buffer, int n)
{
    if (m_nFd < 0 || !buffer)
        return KError;
    if (n <= 0)
        return KNoBytes;
    unsigned char* out = static_cast<unsigned char*>(buffer);
    int done = 0;
    while (done < n) {
        const ssize_t got = ::read(m_nFd, out + done, static_cast<size_t>(n - done));
        if (got < 0) {
            if (errno == EINTR)
                continue;
            return done > 0 ? done : KError;
        }
        if (got == 0)
            break;
        done += static_cast<int>(got);
    }
    return done;
}

bool CQFile::WriteAll(const unsigned char* data, int len)
{
    int done = 0;
    while (done < len) {
        const ssize_t put = ::write(m_nFd, data + done, static_cast<size_t>(len - done));
        if (put < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        if (put == 0)
            return false;
        done += static_cast<int>(put);
    }
    return true;
}

bool CQFile::FlushCache()
{
    if (m_nCacheUsed == 0)
        return true;
    const bool ok = WriteAll(m_pCache.get(), m_nCacheUsed);
    // The cached bytes are gone either way: written, or lost and reported.
    m_nCacheUsed = 0;
    if (!ok)
        m_bWriteFailed = true;
    return ok;
}

int CQFile::Write(const void* data, int n)
{
    if (m_nFd < 0 || !data)
        return KError;
    if (n <= 0)
        return KNoBytes;
    const unsigned char* in = static_cast<const unsigned char*>(data);

    if (m_nCacheSize > 0) {
        if (n <= m_nCacheSize - m_nCacheUsed) {
            std::memcpy(m_pCache.get() + m_nCacheUsed, in, static_cast<size_t>(n));
            m_nCacheUsed += n;
            return n;
        }
        // Does not fit: write out what is cached, keeping the byte order.
        if (!FlushCache())
            return KError;
        if (n <= m_nCacheSize) {
            std::memcpy(m_pCache.get(), in, static_cast<size_t>(n));
            m_nCacheUsed = n;
            return n;
        }
    }

    if (!WriteAll(in, n)) {
        m_bWriteFailed = true;
        return KError;
    }
    return n;
}

int CQFile::Seek(int pos, int from)
{
    const long long at = Seek64(pos, from);
    if (at < 0 || at > INT_MAX)
        return KError;
    return static_cast<int>(at);
}

long long CQFile::Seek64(long long pos, int from)
{
    if (m_nFd < 0)
        return KError;
    int whence;
    switch (from) {
    case KSeekBegin:
        whence = SEEK_SET;
        break;
    case KSeekCurrent:
        whence = SEEK_CUR;
        break;
    case KSeekEnd:
        whence = SEEK_END;
        break;
    default:
        return KError;
    }
    if (!FlushCache())
        return KError;
    static_assert(sizeof(off_t) >= 8, "64-bit file offsets");
    const off_t at = ::lseek(m_nFd, static_cast<off_t>(pos), whence);
    if (at < 0)
        return KError;
    return static_cast<long long>(at);
}

int CQFile::GetLength()
{
    const long long length = GetLength64();
    if (length < 0 || length > INT_MAX)
        return KError;
    return static_cast<int>(length);
}

long long CQFile::GetLength64()
{
    if (m_nFd < 0)
        return KError;
    struct stat info;
    if (::fstat(m_nFd, &info) != 0)
        return KError;
    off_t length = info.st_size;
    if (m_nCacheUsed > 0) {
        // Cached bytes go at the current descriptor position when written.
        const off_t at = ::lseek(m_nFd, 0, SEEK_CUR);
        if (at < 0)
            return KError;
        if (at + m_nCacheUsed > length)
            length = at + m_nCacheUsed;
    }
    return static_cast<long long>(length);
}

int CQFile::Flush()
{
    if (m_nFd < 0)
        return KFailed;
    return FlushCache() ? KDone : KFailed;
}

int CQFile::Close()
{
    if (m_nFd < 0)
        return KFailed;
    bool ok = FlushCache() && !m_bWriteFailed;
    // POSIX leaves the descriptor state unspecified after EINTR from close;
    // on Linux it is always released, so it is not retried.
    if (::close(m_nFd) != 0 && errno != EINTR)
        ok = false;
    m_nFd = -1;
    m_pCache.reset();
    m_nCacheSize = 0;
    m_nCacheUsed = 0;
    m_bWriteFailed = false;
    return ok ? KDone : KFailed;
}

int CQFile::CreateDirectory(const wchar_t* path)
{
    const QString dir = PathText(path);
    if (dir.isEmpty())
        return KFailed;
    return QDir().mkpath(dir) ? KDone : KFailed;
}

int CQFile::CreateDirectory(const CQWString& path)
{
    return CreateDirectory(path.GetDataPtr());
}

int CQFile::DeleteFile(const wchar_t* path)
{
    const QByteArray name = LocalName(path);
    if (name.isEmpty())
        return KFailed;
    return ::unlink(name.constData()) == 0 ? KDone : KFailed;
}

int CQFile::DeleteFile(const CQWString& path)
{
    return DeleteFile(path.GetDataPtr());
}

int CQFile::RecursiveDelDir(const wchar_t* path)
{
    const QString dir = PathText(path);
    // An empty QDir path means the current directory: never remove that.
    if (dir.isEmpty())
        return KFailed;
    const QFileInfo info(dir);
    if (!info.exists() && !info.isSymLink())
        return KDone;
    if (!info.isDir() || info.isSymLink())
        return KFailed;
    return QDir(dir).removeRecursively() ? KDone : KFailed;
}

int CQFile::RecursiveDelDir(const CQWString& path)
{
    return RecursiveDelDir(path.GetDataPtr());
}

int CQFile::GetFileLenght(const CQWString& path)
{
    const long long length = GetFileLength64(path);
    if (length < 0 || length > INT_MAX)
        return KError;
    return static_cast<int>(length);
}

long long CQFile::GetFileLength64(const CQWString& path)
{
    const QByteArray name = LocalName(path.GetDataPtr());
    if (name.isEmpty())
        return KError;
    int fd;
    do {
        fd = ::open(name.constData(), O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0)
        return KError;
    struct stat info;
    const bool ok = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
    ::close(fd);
    return ok ? static_cast<long long>(info.st_size) : KError;
}
