#ifndef VELANET_CQHASHTABLE_H
#define VELANET_CQHASHTABLE_H

// CQHashTable: a chained hash table of 11 buckets keyed by 8-bit strings. It
// owns its values (deleted with `delete`, so a polymorphic value needs a
// virtual destructor) and never grows or rehashes: it holds small sets, the
// cookie names of one domain or the domains of one client.
//
// Iteration order (getall) is bucket 0 to 10, each chain from its head, and a
// new key goes to the head of its chain; cookie headers and cookie files are
// written in this order, so it must not change.

#include <cstdint>
#include <new>

#include "BaseClass/src/CQString.h"

// One entry of a chain, the same for every table. The value is owned by
// the table that holds the entry, which knows its type and destroys it.
struct CQHashTableEntry
{
    int hash = 0;                        // GetHashCode(key)
    CQSString key;
    CQWString wideKey;                   // kept empty; part of the entry layout
    void* value = nullptr;               // a T* of the owning CQHashTable<T>
    CQHashTableEntry* next = nullptr;
};

template <class T>
class CQHashTable
{
public:
    typedef CQHashTableEntry Entry;

    CQHashTable() { m_pBuckets = NewBuckets(); }

    ~CQHashTable()
    {
        delete[] m_pSnapshot;
        m_pSnapshot = nullptr;
        DestroyBuckets();
    }

    CQHashTable(const CQHashTable&) = delete;
    CQHashTable& operator=(const CQHashTable&) = delete;

    // 32-bit FNV-1a over the key's bytes, then a final mixing whose right
    // shifts are arithmetic (sign-propagating). The arithmetic shifts are on
    // purpose: they decide the bucket, and so the stored order, of many keys.
    static int GetHashCode(const CQSString& key)
    {
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(key.GetDataPtr());
        const int len = key.GetLength();
        std::uint32_t h = 2166136261u;
        for (int i = 0; i < len; ++i)
            h = (h ^ bytes[i]) * 16777619u;
        h *= 8193u;
        h ^= static_cast<std::uint32_t>(static_cast<std::int32_t>(h) >> 7);
        h *= 9u;
        h ^= static_cast<std::uint32_t>(static_cast<std::int32_t>(h) >> 17);
        h *= 33u;
        return static_cast<std::int32_t>(h);
    }

    // The value stored under key, or null.
    T* get(const CQSString& key)
    {
        if (m_nCount == 0 || m_pBuckets == nullptr)
            return nullptr;
        const int hash = GetHashCode(key);
        for (Entry* entry = m_pBuckets[BucketOf(hash)]; entry != nullptr; entry = entry->next)
        {
            if (entry->hash == hash && entry->key == key)
                return ValueOf(entry);
        }
        return nullptr;
    }

    // Stores value under key; the table takes ownership. A null value is
    // ignored, and so is every call on a cleared table. An existing key keeps
    // its entry and gets the new value, the old one being destroyed.
    // Storing the pointer the entry already holds changes nothing.
    void put(const CQSString& key, T* value)
    {
        if (value == nullptr || m_pBuckets == nullptr)
            return;
        const int hash = GetHashCode(key);
        const int bucket = BucketOf(hash);
        for (Entry* entry = m_pBuckets[bucket]; entry != nullptr; entry = entry->next)
        {
            if (entry->hash == hash && entry->key == key)
            {
                if (entry->value != value)
                {
                    delete ValueOf(entry);
                    entry->value = value;
                }
                return;
            }
        }

        // Out of memory: nothing is stored and the value stays the caller's.
        Entry* entry = new (std::nothrow) Entry();
        if (entry == nullptr)
            return;
        entry->key = key;
        if (entry->key.GetLength() != key.GetLength())
        {
            delete entry;
            return;
        }
        entry->hash = hash;
        entry->value = value;
        entry->next = m_pBuckets[bucket];
        m_pBuckets[bucket] = entry;
        m_nCount++;
    }

    // Every value, bucket 0 to 10 and each chain from its head. The array
    // (m_nCount pointers, never null for an empty table) belongs to the
    // table and lives until the next getall, InitHashTable or destruction.
    // Null only when the array cannot be allocated.
    T** getall()
    {
        delete[] m_pSnapshot;
        m_pSnapshot = new (std::nothrow) T*[m_nCount > 0 ? m_nCount : 0];
        if (m_pSnapshot == nullptr || m_pBuckets == nullptr)
            return m_pSnapshot;
        int filled = 0;
        for (int i = 0; i < m_nBuckets; ++i)
        {
            for (Entry* entry = m_pBuckets[i]; entry != nullptr && filled < m_nCount;
                 entry = entry->next)
                m_pSnapshot[filled++] = ValueOf(entry);
        }
        return m_pSnapshot;
    }

    // Destroys the chain from entry to its end: the later entries first,
    // then the entry's value, then the entry with its keys. Reversing the
    // chain gives that order without recursion. The count is not changed.
    void removeHashList(Entry* entry)
    {
        Entry* reversed = nullptr;
        while (entry != nullptr)
        {
            Entry* next = entry->next;
            entry->next = reversed;
            reversed = entry;
            entry = next;
        }
        while (reversed != nullptr)
        {
            Entry* next = reversed->next;
            delete ValueOf(reversed);
            delete reversed;
            reversed = next;
        }
    }

    // Destroys every entry and the bucket array. The table is unusable
    // (puts are ignored, gets find nothing) until InitHashTable.
    void clear()
    {
        DestroyBuckets();
        m_nCount = 0;
    }

    // Makes a cleared table usable again: 11 empty buckets, count 0, the
    // snapshot freed. Entries still present are destroyed first.
    void InitHashTable()
    {
        DestroyBuckets();
        delete[] m_pSnapshot;
        m_pSnapshot = nullptr;
        m_pBuckets = NewBuckets();
        m_nBuckets = KBucketCount;
        m_nCount = 0;
        m_nGrowHint = KGrowHint;
    }

    int GetCount() const { return m_nCount; }

    Entry** m_pBuckets = nullptr;     // null after clear
    int m_nBuckets = KBucketCount;    // always 11, also after clear
    int m_nCount = 0;
    int m_nGrowHint = KGrowHint;      // recorded, never consulted
    T** m_pSnapshot = nullptr;        // the last getall result

private:
    static constexpr int KBucketCount = 11;
    static constexpr int KGrowHint = 8;

    // Null when the array cannot be allocated: the table is then unusable.
    static Entry** NewBuckets() { return new (std::nothrow) Entry*[KBucketCount](); }

    static T* ValueOf(const Entry* entry) { return static_cast<T*>(entry->value); }

    int BucketOf(int hash) const { return (hash & 0x7FFFFFFF) % m_nBuckets; }

    void DestroyBuckets()
    {
        if (m_pBuckets == nullptr)
            return;
        for (int i = 0; i < m_nBuckets; ++i)
        {
            removeHashList(m_pBuckets[i]);
            m_pBuckets[i] = nullptr;
        }
        delete[] m_pBuckets;
        m_pBuckets = nullptr;
    }
};

#endif
