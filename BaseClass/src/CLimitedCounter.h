#ifndef VELANET_CLIMITEDCOUNTER_H
#define VELANET_CLIMITEDCOUNTER_H

// A counter that stops at a maximum: IncreaseOne refuses once it is reached.

class CLimitedCounter
{
public:
    CLimitedCounter() = default;

    // Set the maximum and the current count (both taken as given).
    void SetMaxCount(int maxCount, int initialCount);

    // If the count is below the maximum, add one and return 1; otherwise
    // return 0 and leave the count unchanged.
    int IncreaseOne();

    // Back to 0; the maximum is kept.
    void ReCount() { m_nCount = 0; }

    int GetCount() const { return m_nCount; }
    int GetMaxCount() const { return m_nMaxCount; }
    bool IsReachMax() const { return m_nCount >= m_nMaxCount; }

private:
    int m_nMaxCount = 0x7fffffff;
    int m_nCount = 0;
};

#endif
