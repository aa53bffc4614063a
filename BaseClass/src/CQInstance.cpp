#include "BaseClass/src/CQInstance.h"

namespace {

constexpr int KAdded = 1;
constexpr int KRefused = 0;

}  // namespace

CQInstance* CQInstance::Instance()
{
    // Never destroyed: objects released at exit may still look themselves up,
    // whatever the order in which static objects go away.
    static CQInstance* const registry = new CQInstance;
    return registry;
}

void* CQInstance::GetByUid(int uid) const
{
    const auto it = m_objects.find(uid);
    return it == m_objects.end() ? nullptr : it->second;
}

int CQInstance::AddWithUid(void* object, int uid)
{
    if (!object)
        return KRefused;
    m_objects[uid] = object;
    return KAdded;
}

void CQInstance::RemoveByUid(int uid)
{
    m_objects.erase(uid);
}
