#include "src/RequestHeaderUnit.h"

#include <cstring>
#include <new>

// ---------------------------------------------------------------- CQRequestHeaderUnit

CQRequestHeaderUnit::~CQRequestHeaderUnit()
{
    CQRequestHeaderUnit::Clear();
}

void CQRequestHeaderUnit::SetHeaderData(unsigned char* data, int len)
{
    FreeHeaderData();
    m_pHeaderData = data;
    m_nHeaderLen = data ? len : 0;
}

void CQRequestHeaderUnit::FreeHeaderData()
{
    delete[] m_pHeaderData;
    m_pHeaderData = nullptr;
    m_nHeaderLen = 0;
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
    FreeInfoData();
    m_pInfoData = data;
    m_nInfoDataLen = data ? len : 0;
}

void CQPostFileHeaderUnit::FreeInfoData()
{
    delete[] m_pInfoData;
    m_pInfoData = nullptr;
    m_nInfoDataLen = 0;
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
