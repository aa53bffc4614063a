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
    m_strData.Empty();
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
    FreeKey();
}
