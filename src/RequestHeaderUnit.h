#ifndef VELANET_REQUESTHEADERUNIT_H
#define VELANET_REQUESTHEADERUNIT_H

// Request header units: the records in which the HTTP message layer hands a
// built request to the engines. The builders fill them, the engines read
// them. Every pointer a unit owns is a new[] array, freed by the unit's
// Clear and by its destructor (one release path each, safe to call twice).
//
// Offsets and file sizes: each documented int field has a 64-bit companion
// for files past 2 GiB. The Set*64 call writes both (the int field holds the
// value when it fits an int, else KIntSaturated); the Get*64 call reads the
// companion, unless the int field was written on its own since (it then no
// longer shows the companion), in which case the int field's value counts.

#include "BaseClass/src/CQString.h"
#include "src/NetConstants.h"

// The built request of a GET or a POST.
class CQRequestHeaderUnit
{
public:
    // Value of m_nOffset for a whole resource (no resume offset).
    static constexpr int KNoOffset = -1;

    CQRequestHeaderUnit() = default;
    // Runs Clear.
    virtual ~CQRequestHeaderUnit();

    // Takes ownership of data (a new[] array) and len; frees the bytes held
    // before.
    void SetHeaderData(unsigned char* data, int len);
    // Frees the header bytes; length 0. Safe to call twice.
    void FreeHeaderData();
    // Header bytes freed, length 0, offset -1 (both forms), text emptied.
    virtual void Clear();

    // What an int field holds for a value larger than an int.
    static constexpr int KIntSaturated = 2147483647;

    // The resume offset in 64 bits (-1: the whole resource).
    void SetOffset64(long long offset);
    long long GetOffset64() const;

    unsigned char* m_pHeaderData = nullptr;  // owned, the request text
    int m_nHeaderLen = 0;
    // The HTTP engine's resume offset of a GET; -1 = the whole resource.
    int m_nOffset = KNoOffset;
    // The POST body, or the plain form fields of a file upload.
    CQSString m_strData;
    // 64-bit companion of m_nOffset (see SetOffset64).
    long long m_nOffset64 = KNoOffset;

private:
    CQRequestHeaderUnit(const CQRequestHeaderUnit&) = delete;
    CQRequestHeaderUnit& operator=(const CQRequestHeaderUnit&) = delete;
};

// A multipart file upload: m_pHeaderData holds the request head with the
// file part head, m_pInfoData the trailer (form field parts and the closing
// delimiter); the file itself is streamed from m_strFilePath in between.
class CQPostFileHeaderUnit : public CQRequestHeaderUnit
{
public:
    CQPostFileHeaderUnit() = default;
    // Runs Clear.
    ~CQPostFileHeaderUnit() override;

    // Takes ownership of data (a new[] array) and len; frees the trailer
    // held before.
    void SetInfoData(unsigned char* data, int len);
    // Frees the trailer; length 0. Safe to call twice.
    void FreeInfoData();
    // The base's Clear, then trailer freed, its length and the file size 0
    // (both forms). The file path and field name are kept (the engine sets
    // them anew).
    void Clear() override;

    // The file size in 64 bits: the multipart builder announces this many
    // file bytes.
    void SetFileSize64(long long size);
    long long GetFileSize64() const;

    unsigned char* m_pInfoData = nullptr;  // owned, the trailer
    int m_nInfoDataLen = 0;
    int m_nFileSize = 0;  // set by the engine before the head is built
    CQWString m_strFilePath;  // also sent as the file name of the file part
    CQWString m_strFieldName;  // form name of the file part
    long long m_nFileSize64 = 0;  // 64-bit companion of m_nFileSize
};

// A resumable upload: block size, file, host and key of the upload.
class CQPostOLFileHeaderUnit : public CQRequestHeaderUnit
{
public:
    // Block size after construction.
    static constexpr int KDefaultBlockSize = velanet::KOLBlockSize;

    // SetKey results.
    enum
    {
        KKeyRefused = 0,
        KKeySet = 1,
    };

    CQPostOLFileHeaderUnit() = default;
    // Runs Clear.
    ~CQPostOLFileHeaderUnit() override;

    // The key becomes a copy of keyLen bytes of key plus a terminating zero;
    // the old key is freed. A null key, a negative keyLen or a failed
    // allocation leaves no key and returns KKeyRefused.
    int SetKey(const char* key, int keyLen);
    // Frees the key. Safe to call twice.
    void FreeKey();
    // The base's Clear, then file length 0 (both forms) and the key freed.
    // Block size, file path and host are kept (the engine sets them anew).
    void Clear() override;

    // The file length in 64 bits.
    void SetFileLen64(long long length);
    long long GetFileLen64() const;

    int m_nBlockSize = KDefaultBlockSize;
    int m_nFileLen = 0;
    CQWString m_strFilePath;
    CQSString m_strHost;
    char* m_pKey = nullptr;  // owned, NUL-terminated key text
    long long m_nFileLen64 = 0;  // 64-bit companion of m_nFileLen
};

#endif
