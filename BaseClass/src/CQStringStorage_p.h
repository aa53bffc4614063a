#ifndef VELANET_CQSTRINGSTORAGE_P_H
#define VELANET_CQSTRINGSTORAGE_P_H

// The owned, always NUL-terminated character buffer behind CQSString and
// CQWString. Lengths are in characters; every operation reports failure as 0
// and leaves the old content in place, and a source that points into the
// buffer itself is handled.

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <new>

namespace velanet {

template <class CharT>
class StringStorage
{
public:
    // The longest text whose byte size and terminator still fit in an int.
    static constexpr int KMaxLength = static_cast<int>(INT_MAX / sizeof(CharT)) - 1;

    StringStorage() = default;
    // A copy that cannot be allocated stays empty; nothing throws.
    StringStorage(const StringStorage& other) { static_cast<void>(Assign(other.m_pData, other.m_nLength)); }
    StringStorage(StringStorage&& other) noexcept
        : m_pData(other.m_pData), m_nLength(other.m_nLength), m_nCapacity(other.m_nCapacity)
    {
        other.Forget();
    }
    ~StringStorage() { delete[] m_pData; }

    StringStorage& operator=(const StringStorage& other)
    {
        if (this != &other)
            static_cast<void>(Assign(other.m_pData, other.m_nLength));
        return *this;
    }
    StringStorage& operator=(StringStorage&& other) noexcept
    {
        if (this != &other) {
            delete[] m_pData;
            m_pData = other.m_pData;
            m_nLength = other.m_nLength;
            m_nCapacity = other.m_nCapacity;
            other.Forget();
        }
        return *this;
    }

    const CharT* Data() const { return m_pData ? m_pData : KEmpty; }
    // Writable characters [0, Length()); null while nothing was allocated.
    CharT* MutableData() { return m_pData; }
    int Length() const { return m_nLength; }

    [[nodiscard]] int Assign(const CharT* data, int len)
    {
        if (len < 0 || len > KMaxLength || (!data && len > 0))
            return 0;
        if (len == 0) {
            Clear();
            return 1;
        }
        if (Inside(data)) {
            std::memmove(m_pData, data, Bytes(len));
            SetLength(len);
            return 1;
        }
        if (len + 1 > m_nCapacity) {
            CharT* fresh = new (std::nothrow) CharT[static_cast<size_t>(len) + 1];
            if (!fresh)
                return 0;
            delete[] m_pData;
            m_pData = fresh;
            m_nCapacity = len + 1;
        }
        std::memcpy(m_pData, data, Bytes(len));
        SetLength(len);
        return 1;
    }

    [[nodiscard]] int Append(const CharT* data, int len)
    {
        if (len < 0 || (!data && len > 0))
            return 0;
        if (len == 0)
            return 1;
        if (len > KMaxLength - m_nLength)
            return 0;
        // Growing may move the buffer that data points into.
        const bool inside = Inside(data);
        const std::ptrdiff_t offset = inside ? data - m_pData : 0;
        if (!Reserve(m_nLength + len))
            return 0;
        std::memmove(m_pData + m_nLength, inside ? m_pData + offset : data, Bytes(len));
        SetLength(m_nLength + len);
        return 1;
    }

    // Room for capacity characters and the terminator.
    [[nodiscard]] int Reserve(int capacity)
    {
        if (capacity < 0 || capacity > KMaxLength)
            return 0;
        if (capacity + 1 <= m_nCapacity)
            return 1;
        // Geometric growth keeps repeated appends linear.
        int newCapacity = std::max(capacity + 1, 16);
        if (m_nCapacity > 0 && m_nCapacity <= KMaxLength / 2)
            newCapacity = std::max(newCapacity, m_nCapacity * 2);
        CharT* fresh = new (std::nothrow) CharT[static_cast<size_t>(newCapacity)];
        if (!fresh)
            return 0;
        if (m_nLength > 0)
            std::memcpy(fresh, m_pData, Bytes(m_nLength));
        fresh[m_nLength] = CharT();
        delete[] m_pData;
        m_pData = fresh;
        m_nCapacity = newCapacity;
        return 1;
    }

    // Cuts the text to len characters (len must not exceed Length()).
    void SetLength(int len)
    {
        m_nLength = len;
        if (m_pData)
            m_pData[len] = CharT();
    }

    void Clear() { SetLength(0); }

    // Takes over a new[] buffer holding len characters and a terminator.
    void Adopt(CharT* buffer, int len)
    {
        delete[] m_pData;
        m_pData = buffer;
        m_nLength = len;
        m_nCapacity = len + 1;
    }

    bool Equals(const StringStorage& other) const
    {
        return m_nLength == other.m_nLength &&
               (m_nLength == 0 || std::memcmp(m_pData, other.m_pData, Bytes(m_nLength)) == 0);
    }

private:
    static constexpr CharT KEmpty[1] = {};

    static size_t Bytes(int len) { return static_cast<size_t>(len) * sizeof(CharT); }
    bool Inside(const CharT* p) const { return m_pData && p >= m_pData && p < m_pData + m_nCapacity; }
    void Forget()
    {
        m_pData = nullptr;
        m_nLength = 0;
        m_nCapacity = 0;
    }

    CharT* m_pData = nullptr;  // null, or capacity characters with a terminator
    int m_nLength = 0;
    int m_nCapacity = 0;
};

}  // namespace velanet

#endif
