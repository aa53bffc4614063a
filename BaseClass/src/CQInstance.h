#ifndef VELANET_CQINSTANCE_H
#define VELANET_CQINSTANCE_H

// The process-wide registry of singletons: an integer uid maps to an object
// pointer. It never owns or deletes what it holds. Used from one thread only,
// so it takes no lock.

#include <unordered_map>

class CQInstance
{
public:
    // The one registry of the process; never null.
    static CQInstance* Instance();

    // The object registered under uid, or null.
    void* GetByUid(int uid) const;

    // Register object under uid, replacing any earlier entry for that uid.
    // A null object is refused (0) and leaves the registry unchanged.
    int AddWithUid(void* object, int uid);

    // Forget the entry for uid (the object itself is untouched).
    void RemoveByUid(int uid);

    CQInstance(const CQInstance&) = delete;
    CQInstance& operator=(const CQInstance&) = delete;

private:
    CQInstance() = default;
    ~CQInstance() = default;

    std::unordered_map<int, void*> m_objects;
};

#endif
