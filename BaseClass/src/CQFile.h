#ifndef VELANET_CQFILE_H
#define VELANET_CQFILE_H

// A file over a POSIX descriptor, with an optional write cache.
//
// Paths are wide strings, converted to the local 8-bit file name encoding.
// Results are plain integers: nonzero for success where a call succeeds or
// fails, a count (0 or negative on error) where bytes move. Nothing throws.

#include <memory>

class CQWString;

class CQFile
{
public:
    // Open modes.
    enum : unsigned {
        KModeRead = 0,   // read only; the file must exist
        KModeWrite = 1,  // write only; created (0644) or truncated
    };
    // Seek origins.
    enum : int {
        KSeekBegin = 0,
        KSeekCurrent = 1,
        KSeekEnd = 2,
    };

    CQFile() = default;
    // Closes the file, writing out the cache first.
    ~CQFile();
    CQFile(const CQFile&) = delete;
    CQFile& operator=(const CQFile&) = delete;

    // Open path in mode (see above); any other mode fails. A file already
    // open is closed first. Nonzero on success.
    int Open(const wchar_t* path, unsigned mode);
    int Open(const CQWString& path, unsigned mode);

    // As Open, and in write mode with a write cache of cacheBytes: Write
    // collects bytes there and writes them out when the cache is full;
    // writes larger than the cache go straight to the file after the cached
    // bytes. The cache only applies to write mode; cacheBytes <= 0 means none.
    int OpenWithWriteCache(const wchar_t* path, unsigned mode, int cacheBytes);
    int OpenWithWriteCache(const CQWString& path, unsigned mode, int cacheBytes);

    // Read up to n bytes, retrying short reads until n bytes or the end of
    // the file. Returns the count read (0 at the end of the file), or a
    // negative number when nothing could be read because of an error.
    int Read(void* buffer, int n);

    // Write n bytes (into the cache when there is one). Returns n, or a
    // smaller count / a negative number on error.
    int Write(const void* data, int n);

    // Move the position to pos from the start (0), the current position (1)
    // or the end (2), after writing out the cache. Returns the new position
    // from the start, negative on error or when it does not fit in an int
    // (the position has moved then all the same: use Seek64 past 2 GiB).
    int Seek(int pos, int from);
    // Seek with 64-bit positions: files of any length.
    long long Seek64(long long pos, int from);

    // Length of the file in bytes, counting cached bytes not yet written.
    // Negative on error or when the length does not fit in an int.
    int GetLength();
    // GetLength with a 64-bit result: files of any length.
    long long GetLength64();

    // Write out the cache. Nonzero on success.
    int Flush();

    // Write out the cache and close. Nonzero when the file was open and
    // every byte ever accepted by Write reached the file. Safe to call twice.
    int Close();

    bool IsOpen() const { return m_nFd >= 0; }

    // Create the directory and any missing parents; an existing directory is
    // success. Nonzero on success.
    static int CreateDirectory(const wchar_t* path);
    static int CreateDirectory(const CQWString& path);
    // Remove a file (not a directory). Nonzero on success.
    static int DeleteFile(const wchar_t* path);
    static int DeleteFile(const CQWString& path);
    // Remove a directory with everything in it (symbolic links are removed,
    // not followed). A missing directory is success; a path that is not a
    // directory fails. Nonzero on success.
    static int RecursiveDelDir(const wchar_t* path);
    static int RecursiveDelDir(const CQWString& path);
    // Length of a readable regular file; negative when it cannot be opened
    // for reading, is not a regular file, or is longer than an int can hold.
    static int GetFileLenght(const CQWString& path);
    // GetFileLenght with a 64-bit result: files of any length.
    static long long GetFileLength64(const CQWString& path);

private:
    int OpenFile(const wchar_t* path, unsigned mode, int cacheBytes);
    // Write all len bytes to the descriptor; false on any failure.
    [[nodiscard]] bool WriteAll(const unsigned char* data, int len);
    // Write out the cached bytes; false when they could not all be written.
    [[nodiscard]] bool FlushCache();

    int m_nFd = -1;
    std::unique_ptr<unsigned char[]> m_pCache;
    int m_nCacheSize = 0;
    int m_nCacheUsed = 0;
    // Set when bytes that Write accepted could not be written; Close reports it.
    bool m_bWriteFailed = false;
};

#endif
