#include "BaseClass/src/CLimitedCounter.h"

namespace {

constexpr int KCounted = 1;
constexpr int KAtMaximum = 0;

}  // namespace

void CLimitedCounter::SetMaxCount(int maxCount, int initialCount)
{
    m_nMaxCount = maxCount;
    m_nCount = initialCount;
}

int CLimitedCounter::IncreaseOne()
{
    if (m_nCount >= m_nMaxCount)
        return KAtMaximum;
    ++m_nCount;
    return KCounted;
}
