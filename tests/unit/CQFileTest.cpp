#include "BaseClass/src/CQFile.h"

#include "BaseClass/src/CQString.h"
#include "support/HeapWatch.h"
#include "support/TestSupport.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

std::wstring W(const QString& path)
{
    return path.toStdWString();
}

// The file's bytes as another reader sees them; empty when missing.
QByteArray Contents(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

bool WriteWhole(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

QByteArray Pattern(int n)
{
    QByteArray bytes(n, '\0');
    for (int i = 0; i < n; ++i)
        bytes[i] = static_cast<char>('a' + i % 26);
    return bytes;
}

}  // namespace

// --- opening -------------------------------------------------------------

TEST(CQFile, NewFileIsClosed)
{
    CQFile file;
    EXPECT_FALSE(file.IsOpen());
}

TEST(CQFile, OpenMissingFileForReadFails)
{
    velatest::TempDir dir;
    CQFile file;
    EXPECT_EQ(0, file.Open(W(dir.File("missing")).c_str(), 0));
    EXPECT_FALSE(file.IsOpen());
}

TEST(CQFile, OpenForWriteCreatesEmptyFile)
{
    velatest::TempDir dir;
    const QString path = dir.File("new.dat");
    CQFile file;
    ASSERT_NE(0, file.Open(W(path).c_str(), 1));
    EXPECT_TRUE(file.IsOpen());
    EXPECT_TRUE(QFile::exists(path));
    EXPECT_EQ(0, file.GetLength());
    EXPECT_NE(0, file.Close());
    EXPECT_EQ(0, QFileInfo(path).size());
    // Created 0644 (less whatever the umask removes): never executable,
    // never writable by others.
    const QFileDevice::Permissions perms = QFile::permissions(path);
    EXPECT_TRUE(perms & QFileDevice::WriteOwner);
    EXPECT_FALSE(perms & (QFileDevice::ExeOwner | QFileDevice::ExeGroup | QFileDevice::ExeOther |
                          QFileDevice::WriteGroup | QFileDevice::WriteOther));
}

TEST(CQFile, OpenForWriteTruncatesExistingFile)
{
    velatest::TempDir dir;
    const QString path = dir.File("old.dat");
    ASSERT_TRUE(WriteWhole(path, "old content"));
    CQFile file;
    ASSERT_NE(0, file.Open(W(path).c_str(), 1));
    EXPECT_EQ(3, file.Write("new", 3));
    EXPECT_NE(0, file.Close());
    EXPECT_EQ(QByteArray("new"), Contents(path));
}

TEST(CQFile, OpenWithUnknownModeFails)
{
    velatest::TempDir dir;
    const QString path = dir.File("f");
    ASSERT_TRUE(WriteWhole(path, "abc"));
    CQFile file;
    EXPECT_EQ(0, file.Open(W(path).c_str(), 2));
    EXPECT_EQ(0, file.OpenWithWriteCache(W(path).c_str(), 2, 100));
    EXPECT_FALSE(file.IsOpen());
    EXPECT_EQ(QByteArray("abc"), Contents(path));
}

TEST(CQFile, OpenNullOrEmptyPathFails)
{
    CQFile file;
    EXPECT_EQ(0, file.Open(static_cast<const wchar_t*>(nullptr), 0));
    EXPECT_EQ(0, file.Open(L"", 1));
    EXPECT_FALSE(file.IsOpen());
}

TEST(CQFile, OpenDirectoryFails)
{
    velatest::TempDir dir;
    CQFile file;
    EXPECT_EQ(0, file.Open(W(dir.Path()).c_str(), 0));
    EXPECT_EQ(0, file.Open(W(dir.Path()).c_str(), 1));
    EXPECT_FALSE(file.IsOpen());
}

TEST(CQFile, OpenInMissingDirectoryFails)
{
    velatest::TempDir dir;
    CQFile file;
    EXPECT_EQ(0, file.Open(W(dir.File("no/such/file")).c_str(), 1));
}

TEST(CQFile, OpenTakesWideStringPath)
{
    velatest::TempDir dir;
    const QString path = dir.File("wide.dat");
    const CQWString wide(path);
    CQFile file;
    ASSERT_NE(0, file.Open(wide, 1));
    EXPECT_EQ(2, file.Write("hi", 2));
    EXPECT_NE(0, file.Close());
    ASSERT_NE(0, file.Open(wide, 0));
    char buffer[4] = {};
    EXPECT_EQ(2, file.Read(buffer, 4));
    EXPECT_STREQ("hi", buffer);
}

TEST(CQFile, NonAsciiPathUsesLocalFileNameEncoding)
{
    velatest::TempDir dir;
    const QString path = dir.File(QString::fromUtf8("caf\xc3\xa9-\xe6\x97\xa5.dat"));
    CQFile file;
    ASSERT_NE(0, file.Open(W(path).c_str(), 1));
    EXPECT_EQ(1, file.Write("x", 1));
    EXPECT_NE(0, file.Close());
    EXPECT_EQ(QByteArray("x"), Contents(path));
    EXPECT_EQ(1, CQFile::GetFileLenght(CQWString(path)));
}

TEST(CQFile, OpenWhileOpenClosesTheFirstFile)
{
    velatest::TempDir dir;
    const QString first = dir.File("first");
    const QString second = dir.File("second");
    CQFile file;
    ASSERT_NE(0, file.OpenWithWriteCache(W(first).c_str(), 1, 100));
    EXPECT_EQ(5, file.Write("first", 5));
    ASSERT_NE(0, file.Open(W(second).c_str(), 1));
    // The cached bytes of the first file were written when it was closed.
    EXPECT_EQ(QByteArray("first"), Contents(first));
    EXPECT_EQ(6, file.Write("second", 6));
    EXPECT_NE(0, file.Close());
    EXPECT_EQ(QByteArray("second"), Contents(second));
}

// --- reading and writing -------------------------------------------------

TEST(CQFile, WriteThenReadBackWithCounts)
{
    velatest::TempDir dir;
    const QString path = dir.File("data");
    const QByteArray bytes = Pattern(100000);
    {
        CQFile file;
        ASSERT_NE(0, file.Open(W(path).c_str(), 1));
        EXPECT_EQ(bytes.size(), file.Write(bytes.constData(), bytes.size()));
        EXPECT_NE(0, file.Close());
    }
    EXPECT_EQ(bytes, Contents(path));

    CQFile file;
    ASSERT_NE(0, file.Open(W(path).c_str(), 0));
    EXPECT_EQ(bytes.size(), file.GetLength());
    QByteArray back(bytes.size(), '\0');
    EXPECT_EQ(bytes.size(), file.Read(back.data(), back.size()));
    EXPECT_EQ(bytes, back);
}

TEST(CQFile, ReadPastEndGivesWhatIsLeftThenZero)
{
    velatest::TempDir dir;
    const QString path = dir.File("ten");
    ASSERT_TRUE(WriteWhole(path, "0123456789"));
    CQFile file;
    ASSERT_NE(0, file.Open(W(path).c_str(), 0));
    char buffer[16] = {};
    EXPECT_EQ(4, file.Read(buffer, 4));
    EXPECT_EQ(std::string("0123"), std::string(buffer, 4));
    // Exactly the rest, then one byte past the end.
    EXPECT_EQ(6, file.Read(buffer, 6));
    EXPECT_EQ(std::string("456789"), std::string(buffer, 6));
    EXPECT_EQ(0, file.Read(buffer, 1));
}

TEST(CQFile, ReadMoreThanFileGivesFileLength)
{
    velatest::TempDir dir;
    const QString path = dir.File("ten");
    ASSERT_TRUE(WriteWhole(path, "0123456789"));
    CQFile file;
    ASSERT_NE(0, file.Open(W(path).c_str(), 0));
    char buffer[11] = {};
    EXPECT_EQ(10, file.Read(buffer, 11));
}

TEST(CQFile, ReadAndWriteOfNothing)
{
    velatest::TempDir dir;
    const QString path = dir.File("f");
    ASSERT_TRUE(WriteWhole(path, "abc"));
    CQFile file;
    ASSERT_NE(0, file.Open(W(path).c_str(), 0));
    char buffer[1];
    EXPECT_EQ(0, file.Read(buffer, 0));
    EXPECT_EQ(0, file.Read(buffer, -1));
}

TEST(CQFile, WriteToReadOnlyFileFails)
{
    velatest::TempDir dir;
    const QString path = dir.File("f");
    ASSERT_TRUE(WriteWhole(path, "abc"));
    CQFile file;
    ASSERT_NE(0, file.Open(W(path).c_str(), 0));
    EXPECT_LE(file.Write("x", 1), 0);
    EXPECT_EQ(QByteArray("abc"), Contents(path));
}

TEST(CQFile, ReadFromWriteOnlyFileFails)
{
    velatest::TempDir dir;
    CQFile file;
    ASSERT_NE(0, file.Open(W(dir.File("f")).c_str(), 1));
    ASSERT_EQ(3, file.Write("abc", 3));
    char buffer[4];
    EXPECT_LE(file.Read(buffer, 3), 0);
}

TEST(CQFile, OperationsOnClosedFileFail)
{
    CQFile file;
    char buffer[4];
    EXPECT_LT(file.Read(buffer, 4), 0);
    EXPECT_LT(file.Write("abc", 3), 0);
    EXPECT_LT(file.Seek(0, 0), 0);
    EXPECT_LT(file.GetLength(), 0);
    EXPECT_EQ(0, file.Flush());
    EXPECT_EQ(0, file.Close());
}

TEST(CQFile, CloseTwiceIsSafe)
{
    velatest::TempDir dir;
    CQFile file;
    ASSERT_NE(0, file.Open(W(dir.File("f")).c_str(), 1));
    EXPECT_NE(0, file.Close());
    EXPECT_FALSE(file.IsOpen());
    EXPECT_EQ(0, file.Close());
}

TEST(CQFile, DestructorClosesAndWritesCache)
{
    velatest::TempDir dir;
    const QString path = dir.File("f");
    {
        CQFile file;
        ASSERT_NE(0, file.OpenWithWriteCache(W(path).c_str(), 1, 500));
        ASSERT_EQ(5, file.Write("bytes", 5));
        EXPECT_EQ(QByteArray(), Contents(path));
    }
    EXPECT_EQ(QByteArray("bytes"), Contents(path));
}

// --- seeking and length --------------------------------------------------

TEST(CQFile, SeekFromStartCurrentAndEnd)
{
    velatest::TempDir dir;
    const QString path = dir.File("ten");
    ASSERT_TRUE(WriteWhole(path, "0123456789"));
    CQFile file;
    ASSERT_NE(0, file.Open(W(path).c_str(), 0));
    char c = 0;
    EXPECT_EQ(7, file.Seek(7, 0));
    EXPECT_EQ(1, file.Read(&c, 1));
    EXPECT_EQ('7', c);
    EXPECT_EQ(5, file.Seek(-3, 1));
    EXPECT_EQ(1, file.Read(&c, 1));
    EXPECT_EQ('5', c);
    EXPECT_EQ(8, file.Seek(-2, 2));
    EXPECT_EQ(1, file.Read(&c, 1));
    EXPECT_EQ('8', c);
    EXPECT_EQ(0, file.Seek(0, 0));
    EXPECT_EQ(1, file.Read(&c, 1));
    EXPECT_EQ('0', c);
}

TEST(CQFile, SeekToEndAndOnePast)
{
    velatest::TempDir dir;
    const QString path = dir.File("ten");
    ASSERT_TRUE(WriteWhole(path, "0123456789"));
    CQFile file;
    ASSERT_NE(0, file.Open(W(path).c_str(), 0));
    char c = 0;
    EXPECT_EQ(10, file.Seek(10, 0));
    EXPECT_EQ(0, file.Read(&c, 1));
    EXPECT_EQ(11, file.Seek(11, 0));
    EXPECT_EQ(0, file.Read(&c, 1));
}

TEST(CQFile, SeekBeforeStartOrWithUnknownOriginFails)
{
    velatest::TempDir dir;
    const QString path = dir.File("ten");
    ASSERT_TRUE(WriteWhole(path, "0123456789"));
    CQFile file;
    ASSERT_NE(0, file.Open(W(path).c_str(), 0));
    EXPECT_LT(file.Seek(-1, 0), 0);
    EXPECT_LT(file.Seek(0, 3), 0);
    EXPECT_LT(file.Seek(0, -1), 0);
    // The position is unchanged.
    char c = 0;
    EXPECT_EQ(1, file.Read(&c, 1));
    EXPECT_EQ('0', c);
}

TEST(CQFile, SeekAndOverwriteInWriteMode)
{
    velatest::TempDir dir;
    const QString path = dir.File("f");
    CQFile file;
    ASSERT_NE(0, file.OpenWithWriteCache(W(path).c_str(), 1, 64));
    ASSERT_EQ(10, file.Write("0123456789", 10));
    // Seeking writes the cache out first, so the bytes land in order.
    EXPECT_EQ(2, file.Seek(2, 0));
    EXPECT_EQ(QByteArray("0123456789"), Contents(path));
    ASSERT_EQ(2, file.Write("ab", 2));
    EXPECT_EQ(10, file.Seek(0, 2));
    ASSERT_EQ(1, file.Write("Z", 1));
    EXPECT_NE(0, file.Close());
    EXPECT_EQ(QByteArray("01ab456789Z"), Contents(path));
}

TEST(CQFile, GetLengthCountsCachedBytes)
{
    velatest::TempDir dir;
    const QString path = dir.File("f");
    CQFile file;
    ASSERT_NE(0, file.OpenWithWriteCache(W(path).c_str(), 1, 100));
    EXPECT_EQ(0, file.GetLength());
    ASSERT_EQ(30, file.Write(Pattern(30).constData(), 30));
    EXPECT_EQ(30, file.GetLength());
    EXPECT_EQ(0, QFileInfo(path).size());
    // Rewritten bytes inside the file do not make it longer.
    EXPECT_EQ(5, file.Seek(5, 0));
    ASSERT_EQ(10, file.Write(Pattern(10).constData(), 10));
    EXPECT_EQ(30, file.GetLength());
    ASSERT_EQ(26, file.Write(Pattern(26).constData(), 26));
    EXPECT_EQ(41, file.GetLength());
}

TEST(CQFile, GetLengthOfReadFile)
{
    velatest::TempDir dir;
    const QString path = dir.File("f");
    ASSERT_TRUE(WriteWhole(path, Pattern(1234)));
    CQFile file;
    ASSERT_NE(0, file.Open(W(path).c_str(), 0));
    EXPECT_EQ(1234, file.GetLength());
    EXPECT_EQ(100, file.Seek(100, 0));
    EXPECT_EQ(1234, file.GetLength());
}

// --- write cache ---------------------------------------------------------

TEST(CQFile, CachedBytesReachFileOnlyAtClose)
{
    velatest::TempDir dir;
    const QString path = dir.File("cookies");
    CQFile file;
    ASSERT_NE(0, file.OpenWithWriteCache(W(path).c_str(), 1, 500));
    EXPECT_EQ(6, file.Write("name\r\n", 6));
    EXPECT_EQ(7, file.Write("value\r\n", 7));
    EXPECT_EQ(QByteArray(), Contents(path));
    EXPECT_NE(0, file.Close());
    EXPECT_EQ(QByteArray("name\r\nvalue\r\n"), Contents(path));
}

TEST(CQFile, CacheExactlyFullStaysCachedOneMoreByteFlushes)
{
    velatest::TempDir dir;
    const QString path = dir.File("f");
    CQFile file;
    ASSERT_NE(0, file.OpenWithWriteCache(W(path).c_str(), 1, 10));
    EXPECT_EQ(4, file.Write("0123", 4));
    EXPECT_EQ(6, file.Write("456789", 6));
    EXPECT_EQ(QByteArray(), Contents(path));
    EXPECT_EQ(1, file.Write("A", 1));
    EXPECT_EQ(QByteArray("0123456789"), Contents(path));
    EXPECT_NE(0, file.Close());
    EXPECT_EQ(QByteArray("0123456789A"), Contents(path));
}

TEST(CQFile, WriteAsLargeAsCacheIsCached)
{
    velatest::TempDir dir;
    const QString path = dir.File("f");
    CQFile file;
    ASSERT_NE(0, file.OpenWithWriteCache(W(path).c_str(), 1, 10));
    EXPECT_EQ(10, file.Write("0123456789", 10));
    EXPECT_EQ(QByteArray(), Contents(path));
    EXPECT_NE(0, file.Close());
    EXPECT_EQ(QByteArray("0123456789"), Contents(path));
}

TEST(CQFile, WriteLargerThanCacheGoesStraightThroughInOrder)
{
    velatest::TempDir dir;
    const QString path = dir.File("f");
    const QByteArray big = Pattern(11);
    CQFile file;
    ASSERT_NE(0, file.OpenWithWriteCache(W(path).c_str(), 1, 10));
    EXPECT_EQ(3, file.Write("<<<", 3));
    EXPECT_EQ(11, file.Write(big.constData(), big.size()));
    // The cached bytes went first, then the big write, nothing is left over.
    EXPECT_EQ(QByteArray("<<<") + big, Contents(path));
    EXPECT_EQ(3, file.Write(">>>", 3));
    EXPECT_EQ(QByteArray("<<<") + big, Contents(path));
    EXPECT_NE(0, file.Close());
    EXPECT_EQ(QByteArray("<<<") + big + ">>>", Contents(path));
}

TEST(CQFile, ManySmallWritesThroughCacheKeepOrder)
{
    velatest::TempDir dir;
    const QString path = dir.File("dns");
    QByteArray expected;
    CQFile file;
    ASSERT_NE(0, file.OpenWithWriteCache(W(path).c_str(), 1, 40960));
    for (int i = 0; i < 5000; ++i) {
        const QByteArray record = QByteArray::number(i) + ":host" + QByteArray::number(i * 7) + ";";
        ASSERT_EQ(record.size(), file.Write(record.constData(), record.size()));
        expected += record;
    }
    EXPECT_EQ(expected.size(), file.GetLength());
    EXPECT_NE(0, file.Close());
    EXPECT_EQ(expected, Contents(path));
}

TEST(CQFile, FlushWritesCacheOut)
{
    velatest::TempDir dir;
    const QString path = dir.File("f");
    CQFile file;
    ASSERT_NE(0, file.OpenWithWriteCache(W(path).c_str(), 1, 100));
    ASSERT_EQ(3, file.Write("abc", 3));
    EXPECT_EQ(QByteArray(), Contents(path));
    EXPECT_NE(0, file.Flush());
    EXPECT_EQ(QByteArray("abc"), Contents(path));
    EXPECT_NE(0, file.Flush());
    EXPECT_NE(0, file.Close());
    EXPECT_EQ(QByteArray("abc"), Contents(path));
}

TEST(CQFile, NoCacheWritesAtOnce)
{
    velatest::TempDir dir;
    const QString path = dir.File("f");
    CQFile file;
    ASSERT_NE(0, file.OpenWithWriteCache(W(path).c_str(), 1, 0));
    ASSERT_EQ(3, file.Write("abc", 3));
    EXPECT_EQ(QByteArray("abc"), Contents(path));
    ASSERT_NE(0, file.Open(W(path).c_str(), 1));
    ASSERT_EQ(3, file.Write("xyz", 3));
    EXPECT_EQ(QByteArray("xyz"), Contents(path));
}

TEST(CQFile, CacheIsIgnoredForReading)
{
    velatest::TempDir dir;
    const QString path = dir.File("f");
    ASSERT_TRUE(WriteWhole(path, "abc"));
    CQFile file;
    ASSERT_NE(0, file.OpenWithWriteCache(W(path).c_str(), 0, 100));
    char buffer[3];
    EXPECT_EQ(3, file.Read(buffer, 3));
    EXPECT_EQ(std::string("abc"), std::string(buffer, 3));
}

TEST(CQFile, CloseReportsLostCachedBytes)
{
    if (!QFileInfo::exists("/dev/full"))
        GTEST_SKIP() << "no /dev/full";
    CQFile file;
    ASSERT_NE(0, file.OpenWithWriteCache(L"/dev/full", 1, 100));
    EXPECT_EQ(10, file.Write("0123456789", 10));
    EXPECT_EQ(0, file.Close());
    EXPECT_FALSE(file.IsOpen());
}

TEST(CQFile, FailedWriteIsReported)
{
    if (!QFileInfo::exists("/dev/full"))
        GTEST_SKIP() << "no /dev/full";
    CQFile file;
    ASSERT_NE(0, file.Open(L"/dev/full", 1));
    EXPECT_LT(file.Write("0123456789", 10), 0);
    EXPECT_EQ(0, file.Close());

    ASSERT_NE(0, file.OpenWithWriteCache(L"/dev/full", 1, 4));
    EXPECT_EQ(4, file.Write("0123", 4));
    EXPECT_EQ(0, file.Flush());
    EXPECT_EQ(0, file.Close());
}

TEST(CQFile, WriteCacheWithWideStringPath)
{
    velatest::TempDir dir;
    const QString path = dir.File("f");
    CQFile file;
    ASSERT_NE(0, file.OpenWithWriteCache(CQWString(path), 1, 8));
    ASSERT_EQ(3, file.Write("abc", 3));
    EXPECT_EQ(QByteArray(), Contents(path));
    EXPECT_NE(0, file.Close());
    EXPECT_EQ(QByteArray("abc"), Contents(path));
}

// --- directories and whole files -----------------------------------------

TEST(CQFile, CreateDirectoryWithParents)
{
    velatest::TempDir dir;
    const QString path = dir.File("a/b/c");
    EXPECT_NE(0, CQFile::CreateDirectory(W(path).c_str()));
    EXPECT_TRUE(QFileInfo(path).isDir());
}

TEST(CQFile, CreateExistingDirectorySucceeds)
{
    velatest::TempDir dir;
    const QString path = dir.File("cookies");
    ASSERT_NE(0, CQFile::CreateDirectory(CQWString(path)));
    ASSERT_TRUE(WriteWhole(path + "/keep", "x"));
    EXPECT_NE(0, CQFile::CreateDirectory(CQWString(path)));
    EXPECT_NE(0, CQFile::CreateDirectory(W(path + "/").c_str()));
    EXPECT_EQ(QByteArray("x"), Contents(path + "/keep"));
}

TEST(CQFile, CreateDirectoryWhereAFileIsFails)
{
    velatest::TempDir dir;
    const QString path = dir.File("file");
    ASSERT_TRUE(WriteWhole(path, "x"));
    EXPECT_EQ(0, CQFile::CreateDirectory(W(path).c_str()));
    EXPECT_EQ(0, CQFile::CreateDirectory(W(path + "/sub").c_str()));
    EXPECT_EQ(0, CQFile::CreateDirectory(L""));
    EXPECT_EQ(0, CQFile::CreateDirectory(static_cast<const wchar_t*>(nullptr)));
}

TEST(CQFile, DeleteFileRemovesFile)
{
    velatest::TempDir dir;
    const QString path = dir.File("f");
    ASSERT_TRUE(WriteWhole(path, "x"));
    EXPECT_NE(0, CQFile::DeleteFile(W(path).c_str()));
    EXPECT_FALSE(QFileInfo::exists(path));
    EXPECT_EQ(0, CQFile::DeleteFile(W(path).c_str()));
}

TEST(CQFile, DeleteFileWithWideStringPathAndNotADirectory)
{
    velatest::TempDir dir;
    const QString path = dir.File("f");
    ASSERT_TRUE(WriteWhole(path, "x"));
    EXPECT_NE(0, CQFile::DeleteFile(CQWString(path)));
    EXPECT_FALSE(QFileInfo::exists(path));
    const QString sub = dir.File("sub");
    ASSERT_TRUE(QDir().mkpath(sub));
    EXPECT_EQ(0, CQFile::DeleteFile(CQWString(sub)));
    EXPECT_TRUE(QFileInfo(sub).isDir());
    EXPECT_EQ(0, CQFile::DeleteFile(L""));
}

TEST(CQFile, RecursiveDelDirRemovesEverything)
{
    velatest::TempDir dir;
    const QString root = dir.File("cookies");
    ASSERT_TRUE(QDir().mkpath(root + "/sub/deeper"));
    ASSERT_TRUE(WriteWhole(root + "/a", "1"));
    ASSERT_TRUE(WriteWhole(root + "/.hidden", "2"));
    ASSERT_TRUE(WriteWhole(root + "/sub/b", "3"));
    ASSERT_TRUE(WriteWhole(root + "/sub/deeper/c", "4"));
    ASSERT_TRUE(QDir().mkpath(root + "/empty"));
    EXPECT_NE(0, CQFile::RecursiveDelDir(W(root).c_str()));
    EXPECT_FALSE(QFileInfo::exists(root));
    EXPECT_TRUE(QFileInfo(dir.Path()).isDir());
}

TEST(CQFile, RecursiveDelDirOfMissingDirectorySucceeds)
{
    velatest::TempDir dir;
    EXPECT_NE(0, CQFile::RecursiveDelDir(CQWString(dir.File("missing"))));
}

TEST(CQFile, RecursiveDelDirRefusesFilesAndEmptyPath)
{
    velatest::TempDir dir;
    const QString path = dir.File("f");
    ASSERT_TRUE(WriteWhole(path, "x"));
    EXPECT_EQ(0, CQFile::RecursiveDelDir(W(path).c_str()));
    EXPECT_TRUE(QFileInfo::exists(path));
    EXPECT_EQ(0, CQFile::RecursiveDelDir(L""));
    EXPECT_EQ(0, CQFile::RecursiveDelDir(static_cast<const wchar_t*>(nullptr)));
}

TEST(CQFile, RecursiveDelDirDoesNotFollowLinks)
{
    velatest::TempDir dir;
    const QString outside = dir.File("outside");
    ASSERT_TRUE(QDir().mkpath(outside));
    ASSERT_TRUE(WriteWhole(outside + "/precious", "keep"));
    const QString root = dir.File("root");
    ASSERT_TRUE(QDir().mkpath(root));
    ASSERT_TRUE(QFile::link(outside, root + "/link"));
    EXPECT_NE(0, CQFile::RecursiveDelDir(W(root).c_str()));
    EXPECT_FALSE(QFileInfo::exists(root));
    EXPECT_EQ(QByteArray("keep"), Contents(outside + "/precious"));
}

TEST(CQFile, GetFileLenghtOfFiles)
{
    velatest::TempDir dir;
    ASSERT_TRUE(WriteWhole(dir.File("empty"), QByteArray()));
    ASSERT_TRUE(WriteWhole(dir.File("one"), "x"));
    ASSERT_TRUE(WriteWhole(dir.File("big"), Pattern(20481)));
    EXPECT_EQ(0, CQFile::GetFileLenght(CQWString(dir.File("empty"))));
    EXPECT_EQ(1, CQFile::GetFileLenght(CQWString(dir.File("one"))));
    EXPECT_EQ(20481, CQFile::GetFileLenght(CQWString(dir.File("big"))));
}

TEST(CQFile, GetFileLenghtOfMissingFileIsNegative)
{
    velatest::TempDir dir;
    EXPECT_LT(CQFile::GetFileLenght(CQWString(dir.File("missing"))), 0);
    EXPECT_LT(CQFile::GetFileLenght(CQWString()), 0);
}

TEST(CQFile, GetFileLenghtOfDirectoryIsNegative)
{
    velatest::TempDir dir;
    EXPECT_LT(CQFile::GetFileLenght(CQWString(dir.Path())), 0);
}

TEST(CQFile, GetFileLenghtOfUnreadableFileIsNegative)
{
    velatest::TempDir dir;
    const QString path = dir.File("secret");
    ASSERT_TRUE(WriteWhole(path, "abc"));
    ASSERT_TRUE(QFile::setPermissions(path, QFileDevice::WriteOwner));
    QFile probe(path);
    if (probe.open(QIODevice::ReadOnly))
        GTEST_SKIP() << "running with permission to read any file";
    EXPECT_LT(CQFile::GetFileLenght(CQWString(path)), 0);
}

TEST(CQFile, GetFileLenghtOfDanglingLinkIsNegative)
{
    velatest::TempDir dir;
    const QString link = dir.File("link");
    ASSERT_TRUE(QFile::link(dir.File("gone"), link));
    EXPECT_LT(CQFile::GetFileLenght(CQWString(link)), 0);
    CQFile file;
    EXPECT_EQ(0, file.Open(W(link).c_str(), 0));
}

// --- 64-bit lengths and positions ----------------------------------------
// Sparse files: their length costs no disk space, and every byte reads as 0
// except the markers written in.

namespace {

constexpr long long KTwoGiB = 2147483648LL;   // 2^31, one past the largest int
constexpr long long KFourGiB = 4294967296LL;  // 2^32

// A sparse file of length bytes with marker written at offset (offset < 0:
// none). False when the file system refuses the length.
bool MakeSparse(const QString& path, long long length, long long offset = -1, char marker = 0)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || !file.resize(length))
        return false;
    if (offset >= 0)
        return file.seek(offset) && file.write(&marker, 1) == 1;
    return true;
}

}  // namespace

TEST(CQFile, LengthAtTheEdgeOfAnInt)
{
    velatest::TempDir dir;
    const QString atEdge = dir.File("edge");
    const QString pastEdge = dir.File("past");
    ASSERT_TRUE(MakeSparse(atEdge, KTwoGiB - 1));
    ASSERT_TRUE(MakeSparse(pastEdge, KTwoGiB));

    CQFile file;
    ASSERT_NE(0, file.Open(CQWString(atEdge), CQFile::KModeRead));
    EXPECT_EQ(2147483647, file.GetLength());
    EXPECT_EQ(KTwoGiB - 1, file.GetLength64());
    ASSERT_NE(0, file.Open(CQWString(pastEdge), CQFile::KModeRead));
    EXPECT_LT(file.GetLength(), 0);  // documented: does not fit an int
    EXPECT_EQ(KTwoGiB, file.GetLength64());

    EXPECT_EQ(2147483647, CQFile::GetFileLenght(CQWString(atEdge)));
    EXPECT_EQ(KTwoGiB - 1, CQFile::GetFileLength64(CQWString(atEdge)));
    EXPECT_LT(CQFile::GetFileLenght(CQWString(pastEdge)), 0);
    EXPECT_EQ(KTwoGiB, CQFile::GetFileLength64(CQWString(pastEdge)));
}

TEST(CQFile, LengthAtTheEdgeOf32Bits)
{
    velatest::TempDir dir;
    const QString atEdge = dir.File("edge");
    const QString pastEdge = dir.File("past");
    ASSERT_TRUE(MakeSparse(atEdge, KFourGiB - 1));
    ASSERT_TRUE(MakeSparse(pastEdge, KFourGiB));
    EXPECT_EQ(KFourGiB - 1, CQFile::GetFileLength64(CQWString(atEdge)));
    EXPECT_EQ(KFourGiB, CQFile::GetFileLength64(CQWString(pastEdge)));
    EXPECT_LT(CQFile::GetFileLenght(CQWString(pastEdge)), 0);  // never wraps to 0
}

TEST(CQFile, GetFileLength64OfMissingFileOrDirectoryIsNegative)
{
    velatest::TempDir dir;
    EXPECT_LT(CQFile::GetFileLength64(CQWString(dir.File("missing"))), 0);
    EXPECT_LT(CQFile::GetFileLength64(CQWString(dir.Path())), 0);
    EXPECT_LT(CQFile::GetFileLength64(CQWString()), 0);
}

TEST(CQFile, Seek64ReadsMarkersPast2And4GiB)
{
    velatest::TempDir dir;
    const QString path = dir.File("sparse");
    const long long length = 5 * (1LL << 30);
    ASSERT_TRUE(MakeSparse(path, length, KFourGiB + 3, 'Q'));
    {
        QFile more(path);
        ASSERT_TRUE(more.open(QIODevice::ReadWrite));
        ASSERT_TRUE(more.seek(KTwoGiB + 1));
        ASSERT_EQ(1, more.write("P", 1));
    }

    CQFile file;
    ASSERT_NE(0, file.Open(CQWString(path), CQFile::KModeRead));
    EXPECT_EQ(length, file.GetLength64());
    char c = 0;
    EXPECT_EQ(KTwoGiB + 1, file.Seek64(KTwoGiB + 1, CQFile::KSeekBegin));
    EXPECT_EQ(1, file.Read(&c, 1));
    EXPECT_EQ('P', c);
    EXPECT_EQ(KFourGiB + 3, file.Seek64(KFourGiB + 3, CQFile::KSeekBegin));
    EXPECT_EQ(1, file.Read(&c, 1));
    EXPECT_EQ('Q', c);
    EXPECT_EQ(0, file.Read(&c, 0));
    EXPECT_EQ(1, file.Read(&c, 1));
    EXPECT_EQ('\0', c);  // a hole reads as zero
    EXPECT_EQ(KFourGiB + 3, file.Seek64(-2, CQFile::KSeekCurrent));
    EXPECT_EQ(length - 1, file.Seek64(-1, CQFile::KSeekEnd));
    EXPECT_LT(file.Seek64(-1, CQFile::KSeekBegin), 0);
    EXPECT_LT(file.Seek64(0, 3), 0);
}

TEST(CQFile, SeekPastAnIntFailsInTheIntForm)
{
    velatest::TempDir dir;
    const QString path = dir.File("sparse");
    ASSERT_TRUE(MakeSparse(path, KTwoGiB + 10));
    CQFile file;
    ASSERT_NE(0, file.Open(CQWString(path), CQFile::KModeRead));
    EXPECT_EQ(2147483647, file.Seek(2147483647, CQFile::KSeekBegin));
    EXPECT_LT(file.Seek(1, CQFile::KSeekCurrent), 0);  // 2^31: does not fit
    EXPECT_EQ(KTwoGiB, file.Seek64(0, CQFile::KSeekCurrent));
    EXPECT_EQ(KTwoGiB + 10, file.Seek64(0, CQFile::KSeekEnd));
}

TEST(CQFile, WritesPast4GiBWithSeek64)
{
    velatest::TempDir dir;
    const QString path = dir.File("written");
    CQFile file;
    ASSERT_NE(0, file.OpenWithWriteCache(CQWString(path), CQFile::KModeWrite, 500));
    EXPECT_EQ(KFourGiB + 7, file.Seek64(KFourGiB + 7, CQFile::KSeekBegin));
    EXPECT_EQ(3, file.Write("xyz", 3));
    EXPECT_EQ(KFourGiB + 10, file.GetLength64());  // cached bytes counted
    EXPECT_LT(file.GetLength(), 0);
    ASSERT_NE(0, file.Close());
    EXPECT_EQ(KFourGiB + 10, QFileInfo(path).size());
    QFile check(path);
    ASSERT_TRUE(check.open(QIODevice::ReadOnly));
    ASSERT_TRUE(check.seek(KFourGiB + 6));
    EXPECT_EQ(QByteArray("\0xyz", 4), check.read(4));
}

// --- memory, descriptors and signals --------------------------------------

TEST(CQFile, OpenWithWriteCacheThatRunsOutOfMemoryFailsAndCreatesNothing)
{
    velatest::TempDir dir;
    const QString path = dir.File("f");
    const std::wstring name = W(path);
    CQFile file;
    velatest::HeapWatch::FailNothrowAfter(0);
    const int opened = file.OpenWithWriteCache(name.c_str(), CQFile::KModeWrite, 100);
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(0, opened);
    EXPECT_FALSE(file.IsOpen());
    EXPECT_FALSE(QFileInfo::exists(path));
}

TEST(CQFile, SeekFailsWhenTheCachedBytesCannotBeWritten)
{
    if (!QFileInfo::exists("/dev/full"))
        GTEST_SKIP() << "no /dev/full";
    CQFile file;
    ASSERT_NE(0, file.OpenWithWriteCache(L"/dev/full", CQFile::KModeWrite, 100));
    ASSERT_EQ(10, file.Write("0123456789", 10));
    EXPECT_LT(file.Seek(0, CQFile::KSeekBegin), 0);
    // The lost bytes are reported once more by Close.
    EXPECT_EQ(0, file.Close());
}

namespace {

// A named pipe in dir; false when the file system has none.
bool MakeFifo(const QString& path)
{
    return ::mkfifo(QFile::encodeName(path).constData(), 0600) == 0;
}

}  // namespace

TEST(CQFile, LengthOfAPipeWithCachedBytesIsAnError)
{
    velatest::TempDir dir;
    const QString path = dir.File("pipe");
    if (!MakeFifo(path))
        GTEST_SKIP() << "no named pipes here";
    // A reader first, so that opening for writing does not wait for one.
    const int reader = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    CQFile file;
    ASSERT_NE(0, file.OpenWithWriteCache(CQWString(path), CQFile::KModeWrite, 100));
    EXPECT_EQ(0, file.GetLength());  // nothing cached: a pipe has no length
    ASSERT_EQ(5, file.Write("bytes", 5));
    // The cached bytes would go at the position, and a pipe has none.
    EXPECT_LT(file.GetLength64(), 0);
    EXPECT_LT(file.GetLength(), 0);
    EXPECT_NE(0, file.Close());
    char buffer[8] = {};
    EXPECT_EQ(5, ::read(reader, buffer, sizeof buffer));
    EXPECT_EQ(std::string("bytes"), std::string(buffer, 5));
    ::close(reader);
}

TEST(CQFile, DescriptorClosedBehindTheFilesBackMakesCallsFail)
{
    velatest::TempDir dir;
    const QString path = dir.File("f");
    ASSERT_TRUE(WriteWhole(path, "abc"));
    CQFile file;
    ASSERT_NE(0, file.Open(CQWString(path), CQFile::KModeRead));
    // The descriptor is the one /proc names after the file.
    const QByteArray target = QFile::encodeName(QFileInfo(path).canonicalFilePath());
    int fd = -1;
    for (int candidate = 0; candidate < 1024 && fd < 0; ++candidate) {
        char link[64];
        std::snprintf(link, sizeof link, "/proc/self/fd/%d", candidate);
        char named[4096];
        const ssize_t n = ::readlink(link, named, sizeof named);
        if (n > 0 && QByteArray(named, static_cast<int>(n)) == target)
            fd = candidate;
    }
    if (fd < 0)
        GTEST_SKIP() << "no /proc/self/fd to find the descriptor";
    ASSERT_EQ(0, ::close(fd));
    EXPECT_LT(file.GetLength64(), 0);
    EXPECT_LT(file.GetLength(), 0);
    char buffer[4];
    EXPECT_LT(file.Read(buffer, 3), 0);
    EXPECT_EQ(0, file.Close());
    EXPECT_FALSE(file.IsOpen());
}

namespace {

std::atomic<int> g_signalsCaught{0};

extern "C" void CountSignal(int)
{
    g_signalsCaught.fetch_add(1);
}

// Installs CountSignal for SIGUSR1 without SA_RESTART, so that a blocked
// read or write returns EINTR; puts the old action back when it goes.
class InterruptingSignal
{
public:
    InterruptingSignal()
    {
        struct sigaction action = {};
        action.sa_handler = CountSignal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = 0;
        m_installed = ::sigaction(SIGUSR1, &action, &m_old) == 0;
        g_signalsCaught = 0;
    }
    ~InterruptingSignal()
    {
        if (m_installed)
            ::sigaction(SIGUSR1, &m_old, nullptr);
    }
    bool Installed() const { return m_installed; }

private:
    struct sigaction m_old = {};
    bool m_installed = false;
};

// The system call thread tid is in, from /proc; -1 when it runs or the
// kernel does not say.
long CurrentSyscall(pid_t tid)
{
    char name[64];
    std::snprintf(name, sizeof name, "/proc/self/task/%d/syscall", static_cast<int>(tid));
    std::FILE* f = std::fopen(name, "r");
    if (!f)
        return -1;
    long number = -1;
    if (std::fscanf(f, "%ld", &number) != 1)
        number = -1;
    std::fclose(f);
    return number;
}

bool SyscallVisible()
{
    return QFileInfo::exists(QStringLiteral("/proc/self/task/%1/syscall").arg(::syscall(SYS_gettid)));
}

// From another thread: waits until thread tid blocks in syscall, then
// interrupts it with SIGUSR1 and waits for the handler. True when all of
// that happened before the deadline.
bool InterruptWhenBlocked(pthread_t thread, pid_t tid, long syscall)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (CurrentSyscall(tid) != syscall) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::yield();
    }
    if (::pthread_kill(thread, SIGUSR1) != 0)
        return false;
    while (g_signalsCaught.load() == 0) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::yield();
    }
    return true;
}

}  // namespace

TEST(CQFile, ReadInterruptedBySignalGoesOn)
{
    if (!SyscallVisible())
        GTEST_SKIP() << "the kernel does not show a thread's system call";
    velatest::TempDir dir;
    const QString path = dir.File("pipe");
    if (!MakeFifo(path))
        GTEST_SKIP() << "no named pipes here";
    const QByteArray name = QFile::encodeName(path);
    // A reader for the writer to find, then the writer, then the file.
    const int keeper = ::open(name.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(keeper, 0);
    const int writer = ::open(name.constData(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(writer, 0);
    CQFile file;
    ASSERT_NE(0, file.Open(CQWString(path), CQFile::KModeRead));
    ::close(keeper);

    InterruptingSignal signal;
    ASSERT_TRUE(signal.Installed());
    const pthread_t self = ::pthread_self();
    const pid_t tid = static_cast<pid_t>(::syscall(SYS_gettid));
    bool interrupted = false;
    std::thread helper([&] {
        interrupted = InterruptWhenBlocked(self, tid, SYS_read);
        // The bytes come after the signal, so the read had nothing yet.
        static_cast<void>(::write(writer, "hello", 5));
        ::close(writer);
    });
    char buffer[16] = {};
    const int got = file.Read(buffer, 5);
    helper.join();
    EXPECT_TRUE(interrupted);
    EXPECT_EQ(5, got);
    EXPECT_EQ(std::string("hello"), std::string(buffer, 5));
}

TEST(CQFile, WriteInterruptedBySignalGoesOn)
{
    if (!SyscallVisible())
        GTEST_SKIP() << "the kernel does not show a thread's system call";
    velatest::TempDir dir;
    const QString path = dir.File("pipe");
    if (!MakeFifo(path))
        GTEST_SKIP() << "no named pipes here";
    const QByteArray name = QFile::encodeName(path);
    const int reader = ::open(name.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    CQFile file;
    ASSERT_NE(0, file.Open(CQWString(path), CQFile::KModeWrite));
    // Fill the pipe, so that the file's write blocks before moving a byte.
    const int filler = ::open(name.constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(filler, 0);
    QByteArray expected;
    const QByteArray block(4096, 'f');
    for (;;) {
        const ssize_t put = ::write(filler, block.constData(), static_cast<size_t>(block.size()));
        if (put <= 0)
            break;
        expected += block.left(static_cast<int>(put));
    }
    ASSERT_EQ(EAGAIN, errno);
    ::close(filler);
    const QByteArray data = Pattern(100);
    expected += data;

    InterruptingSignal signal;
    ASSERT_TRUE(signal.Installed());
    const pthread_t self = ::pthread_self();
    const pid_t tid = static_cast<pid_t>(::syscall(SYS_gettid));
    bool interrupted = false;
    QByteArray drained;
    std::thread helper([&] {
        interrupted = InterruptWhenBlocked(self, tid, SYS_write);
        // Drain the pipe until every byte has come out.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        char buffer[4096];
        while (drained.size() < expected.size() && std::chrono::steady_clock::now() < deadline) {
            const ssize_t got = ::read(reader, buffer, sizeof buffer);
            if (got > 0)
                drained.append(buffer, static_cast<int>(got));
            else
                std::this_thread::yield();
        }
    });
    const int put = file.Write(data.constData(), static_cast<int>(data.size()));
    helper.join();
    ::close(reader);
    EXPECT_TRUE(interrupted);
    EXPECT_EQ(100, put);
    EXPECT_EQ(expected, drained);
    EXPECT_NE(0, file.Close());
}

TEST(CQFile, OpenOfAPipeInterruptedBySignalGoesOn)
{
    if (!SyscallVisible())
        GTEST_SKIP() << "the kernel does not show a thread's system call";
    velatest::TempDir dir;
    const QString path = dir.File("pipe");
    if (!MakeFifo(path))
        GTEST_SKIP() << "no named pipes here";
    const QByteArray name = QFile::encodeName(path);

    InterruptingSignal signal;
    ASSERT_TRUE(signal.Installed());
    const pthread_t self = ::pthread_self();
    const pid_t tid = static_cast<pid_t>(::syscall(SYS_gettid));
    bool interrupted = false;
    std::thread helper([&] {
        // Opening a pipe for reading waits for a writer: interrupt that wait,
        // then come as the writer.
        interrupted = InterruptWhenBlocked(self, tid, SYS_openat);
        const int writer = ::open(name.constData(), O_WRONLY | O_CLOEXEC);
        if (writer >= 0) {
            static_cast<void>(::write(writer, "x", 1));
            ::close(writer);
        }
    });
    CQFile file;
    const int opened = file.Open(CQWString(path), CQFile::KModeRead);
    char c = 0;
    const int got = opened ? file.Read(&c, 1) : -1;
    helper.join();
    EXPECT_TRUE(interrupted);
    EXPECT_NE(0, opened);
    EXPECT_EQ(1, got);
    EXPECT_EQ('x', c);
}

TEST(CQFile, LengthOfAPipeInterruptedWhileOpeningIsNegative)
{
    if (!SyscallVisible())
        GTEST_SKIP() << "the kernel does not show a thread's system call";
    velatest::TempDir dir;
    const QString path = dir.File("pipe");
    if (!MakeFifo(path))
        GTEST_SKIP() << "no named pipes here";
    const QByteArray name = QFile::encodeName(path);

    InterruptingSignal signal;
    ASSERT_TRUE(signal.Installed());
    const pthread_t self = ::pthread_self();
    const pid_t tid = static_cast<pid_t>(::syscall(SYS_gettid));
    bool interrupted = false;
    std::thread helper([&] {
        interrupted = InterruptWhenBlocked(self, tid, SYS_openat);
        const int writer = ::open(name.constData(), O_WRONLY | O_CLOEXEC);
        if (writer >= 0)
            ::close(writer);
    });
    // The open goes on after the signal; a pipe is no regular file.
    const long long length = CQFile::GetFileLength64(CQWString(path));
    helper.join();
    EXPECT_TRUE(interrupted);
    EXPECT_LT(length, 0);
}

TEST(CQFile, ReadIntoOrWriteFromNullFailsOnAnOpenFile)
{
    velatest::TempDir dir;
    const QString path = dir.File("f");
    ASSERT_TRUE(WriteWhole(path, "abc"));
    CQFile file;
    ASSERT_NE(0, file.Open(CQWString(path), CQFile::KModeRead));
    EXPECT_LT(file.Read(nullptr, 3), 0);
    char buffer[3];
    EXPECT_EQ(3, file.Read(buffer, 3));  // the failed call moved nothing
    ASSERT_NE(0, file.OpenWithWriteCache(CQWString(path), CQFile::KModeWrite, 16));
    EXPECT_LT(file.Write(nullptr, 3), 0);
    EXPECT_NE(0, file.Close());
    EXPECT_EQ(QByteArray(), Contents(path));
}

TEST(CQFile, ReadThatFailsAfterSomeBytesGivesThoseBytes)
{
    // This process's memory as a file: a readable page followed by an
    // unmapped one, where reading fails.
    const long page = ::sysconf(_SC_PAGESIZE);
    ASSERT_GT(page, 0);
    void* area = ::mmap(nullptr, static_cast<size_t>(2 * page), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS,
                        -1, 0);
    ASSERT_NE(MAP_FAILED, area);
    unsigned char* bytes = static_cast<unsigned char*>(area);
    std::memset(bytes, 'm', static_cast<size_t>(page));
    ASSERT_EQ(0, ::munmap(bytes + page, static_cast<size_t>(page)));

    CQFile file;
    if (!file.Open(L"/proc/self/mem", CQFile::KModeRead)) {
        ::munmap(area, static_cast<size_t>(page));
        GTEST_SKIP() << "no /proc/self/mem to read";
    }
    const long long at = static_cast<long long>(reinterpret_cast<std::uintptr_t>(bytes));
    ASSERT_EQ(at, file.Seek64(at, CQFile::KSeekBegin));
    std::vector<unsigned char> buffer(static_cast<size_t>(2 * page), 0);
    EXPECT_EQ(page, file.Read(buffer.data(), static_cast<int>(2 * page)));
    EXPECT_EQ(std::vector<unsigned char>(static_cast<size_t>(page), 'm'),
              std::vector<unsigned char>(buffer.begin(), buffer.begin() + page));
    ::munmap(area, static_cast<size_t>(page));
}

TEST(CQFile, RecursiveDelDirRefusesLinks)
{
    velatest::TempDir dir;
    const QString target = dir.File("target");
    ASSERT_TRUE(QDir().mkpath(target));
    ASSERT_TRUE(WriteWhole(target + "/precious", "keep"));
    // A link to a directory is no directory to remove.
    const QString link = dir.File("link");
    ASSERT_TRUE(QFile::link(target, link));
    EXPECT_EQ(0, CQFile::RecursiveDelDir(CQWString(link)));
    EXPECT_TRUE(QFileInfo(link).isSymLink());
    EXPECT_EQ(QByteArray("keep"), Contents(target + "/precious"));
    // Nor is a link to nothing, though nothing exists at its end.
    const QString dangling = dir.File("dangling");
    ASSERT_TRUE(QFile::link(dir.File("missing"), dangling));
    EXPECT_EQ(0, CQFile::RecursiveDelDir(CQWString(dangling)));
    EXPECT_TRUE(QFileInfo(dangling).isSymLink());
}

TEST(CQFile, RecursiveDelDirOfADirectoryTheSystemKeepsFails)
{
    // The kernel's own directories cannot be emptied, not even by root.
    const QString kept = QStringLiteral("/proc/self/fdinfo");
    if (!QFileInfo(kept).isDir())
        GTEST_SKIP() << "no /proc here";
    EXPECT_EQ(0, CQFile::RecursiveDelDir(CQWString(kept)));
    EXPECT_TRUE(QFileInfo(kept).isDir());
}
