#include "src/RequestHeaderUnit.h"

#include <cstring>
#include <new>

namespace {

// One owned array and its length: the old array is freed and data (new[],
// or null for none) takes its place with len bytes (0 without data).
void ReplaceOwned(unsigned char*& held, int& heldLen, unsigned char* data, int len)
{
    delete[] held;
    held = data;
    heldLen = data ? len : 0;
}

int Saturated(long long value)
{
    return value > CQRequestHeaderUnit::KIntSaturated ? CQRequestHeaderUnit::KIntSaturated
                                                      : static_cast<int>(value < -1 ? -1 : value);
}

// The companion counts while the int field still shows it; an int field
// written on its own since counts instead.
long long Read64(int field, long long companion)
{
    return Saturated(companion) == field ? companion : field;
}

}  // namespace

// ---------------------------------------------------------------- CQRequestHeaderUnit

CQRequestHeaderUnit::~CQRequestHeaderUnit()
{
    CQRequestHeaderUnit::Clear();
}

void CQRequestHeaderUnit::SetHeaderData(unsigned char* data, int len)
{
    ReplaceOwned(m_pHeaderData, m_nHeaderLen, data, len);
}

void CQRequestHeaderUnit::FreeHeaderData()
{
    ReplaceOwned(m_pHeaderData, m_nHeaderLen, nullptr, 0);
}

void CQRequestHeaderUnit::Clear()
{
    FreeHeaderData();
    m_nOffset = KNoOffset;
    m_nOffset64 = KNoOffset;
    m_strData.Empty();
}

void CQRequestHeaderUnit::SetOffset64(long long offset)
{
    m_nOffset64 = offset < 0 ? KNoOffset : offset;
    m_nOffset = Saturated(m_nOffset64);
}

long long CQRequestHeaderUnit::GetOffset64() const
{
    return Read64(m_nOffset, m_nOffset64);
}

// ---------------------------------------------------------------- CQPostFileHeaderUnit

CQPostFileHeaderUnit::~CQPostFileHeaderUnit()
{
    CQPostFileHeaderUnit::Clear();
}

void CQPostFileHeaderUnit::SetInfoData(unsigned char* data, int len)
{
    ReplaceOwned(m_pInfoData, m_nInfoDataLen, data, len);
}

void CQPostFileHeaderUnit::FreeInfoData()
{
    ReplaceOwned(m_pInfoData, m_nInfoDataLen, nullptr, 0);
}

void CQPostFileHeaderUnit::Clear()
{
    CQRequestHeaderUnit::Clear();
    FreeInfoData();
    m_nFileSize = 0;
    m_nFileSize64 = 0;
}

void CQPostFileHeaderUnit::SetFileSize64(long long size)
{
    m_nFileSize64 = size < 0 ? 0 : size;
    m_nFileSize = Saturated(m_nFileSize64);
}

long long CQPostFileHeaderUnit::GetFileSize64() const
{
    return Read64(m_nFileSize, m_nFileSize64);
}

// ---------------------------------------------------------------- CQPostOLFileHeaderUnit

CQPostOLFileHeaderUnit::~CQPostOLFileHeaderUnit()
{
    CQPostOLFileHeaderUnit::Clear();
}

int CQPostOLFileHeaderUnit::SetKey(const char* key, int keyLen)
{
    FreeKey();
    if (!key || keyLen < 0)
        return KKeyRefused;
    char* copy = new (std::nothrow) char[static_cast<size_t>(keyLen) + 1];
    if (!copy)
        return KKeyRefused;
    if (keyLen > 0)
        std::memcpy(copy, key, static_cast<size_t>(keyLen));
    copy[keyLen] = '\0';
    m_pKey = copy;
    return KKeySet;
}

void CQPostOLFileHeaderUnit::FreeKey()
{
    delete[] m_pKey;
    m_pKey = nullptr;
}

void CQPostOLFileHeaderUnit::Clear()
{
    CQRequestHeaderUnit::Clear();
    m_nFileLen = 0;
    m_nFileLen64 = 0;
    FreeKey();
}

void CQPostOLFileHeaderUnit::SetFileLen64(long long length)
{
    m_nFileLen64 = length < 0 ? 0 : length;
    m_nFileLen = Saturated(m_nFileLen64);
}

long long CQPostOLFileHeaderUnit::GetFileLen64() const
{
    return Read64(m_nFileLen, m_nFileLen64);
}
