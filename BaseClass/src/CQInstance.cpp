#include "BaseClass/src/CQInstance.h"

namespace {

constexpr int KAdded = 1;
constexpr int KRefused = 0;

}  // namespace

CQInstance* CQInstance::Instance()
{
    static CQInstance registry;
    return &registry;
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
