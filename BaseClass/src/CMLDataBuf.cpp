#include "BaseClass/src/CMLDataBuf.h"

#include <cstring>
#include <new>

namespace {

constexpr int KDone = 1;
constexpr int KFailed = 0;

}  // namespace

int CMLDataBuf::Create(unsigned long capacity)
{
    // One byte at least, so GetBuf() is never null after a successful Create.
    const unsigned long allocated = capacity > 0 ? capacity : 1;
    std::unique_ptr<unsigned char[]> fresh(new (std::nothrow) unsigned char[allocated]);
    if (!fresh)
        return KFailed;
    m_pBuf = std::move(fresh);
    m_nCapacity = capacity;
    m_nUsed = 0;
    return KDone;
}

int CMLDataBuf::Append(const unsigned char* data, unsigned long n)
{
    if (n == 0)
        return KDone;
    if (!data || n > m_nCapacity - m_nUsed)
        return KFailed;
    std::memcpy(m_pBuf.get() + m_nUsed, data, n);
    m_nUsed += n;
    return KDone;
}

void CMLDataBuf::SetUsedSize(unsigned long used)
{
    m_nUsed = used < m_nCapacity ? used : m_nCapacity;
}

void CMLDataBuf::MoveDataToHead(int n)
{
    if (n <= 0)
        return;
    const unsigned long drop = static_cast<unsigned long>(n);
    if (drop >= m_nUsed) {
        m_nUsed = 0;
        return;
    }
    const unsigned long rest = m_nUsed - drop;
    std::memmove(m_pBuf.get(), m_pBuf.get() + drop, rest);
    m_nUsed = rest;
}
