#include "src/HttpConfig.h"

#include "BaseClass/src/CQInstance.h"
#include "BaseClass/src/QtAssert.h"

#include <new>

namespace {

// Releases the registered configuration when the process exits, so its
// strings are not reported as leaks. The registry itself never deletes.
struct ConfigReleaser
{
    CHttpConfig* config = nullptr;
    ~ConfigReleaser()
    {
        CQInstance* registry = CQInstance::Instance();
        if (config && registry && registry->GetByUid(CHttpConfig::KUidHttpConfig) == config)
            registry->RemoveByUid(CHttpConfig::KUidHttpConfig);
        delete config;
    }
};

ConfigReleaser& Releaser()
{
    static ConfigReleaser releaser;
    return releaser;
}

void DeleteAll(CQList<CQSString*, CQSString*>& list)
{
    POSITION pos = list.GetHeadPosition();
    while (pos)
        delete list.GetNext(pos);
    list.RemoveAll();
}

}  // namespace

CHttpConfig::CHttpConfig() = default;

CHttpConfig::~CHttpConfig()
{
    DeleteAll(m_listKeys);
    DeleteAll(m_listValues);
}

CHttpConfig* CHttpConfig::Instance()
{
    CQInstance* registry = CQInstance::Instance();
    if (!registry)
        return nullptr;
    CHttpConfig* config = static_cast<CHttpConfig*>(registry->GetByUid(KUidHttpConfig));
    if (config)
        return config;
    config = new (std::nothrow) CHttpConfig;
    if (!config)
        return nullptr;
    ConfigReleaser& releaser = Releaser();
    registry->AddWithUid(config, KUidHttpConfig);
    releaser.config = config;
    return config;
}

void CHttpConfig::AddHeader(const CQSString& key, const CQSString& value)
{
    QT_ALWAYS_ASSERT(!key.IsEmpty() && !value.IsEmpty(), "src/HttpConfig");
    CHttpConfig* config = Instance();
    if (!config)
        return;
    RemoveHeader(key);
    CQSString* keyCopy = new (std::nothrow) CQSString(key);
    CQSString* valueCopy = new (std::nothrow) CQSString(value);
    // A copy whose text could not be allocated comes out empty: an empty
    // name or value must never be sent, so the pair is dropped.
    if (!keyCopy || !valueCopy || keyCopy->GetLength() != key.GetLength() ||
        valueCopy->GetLength() != value.GetLength()) {
        delete keyCopy;
        delete valueCopy;
        return;
    }
    if (!config->m_listKeys.AddTail(keyCopy)) {
        delete keyCopy;
        delete valueCopy;
        return;
    }
    if (!config->m_listValues.AddTail(valueCopy)) {
        // Keep the two lists parallel: drop the name just added.
        config->m_listKeys.RemoveAt(config->m_listKeys.GetCount() - 1);
        delete keyCopy;
        delete valueCopy;
    }
}

void CHttpConfig::RemoveHeader(const CQSString& key)
{
    CHttpConfig* config = Instance();
    if (!config)
        return;
    int index = 0;
    POSITION pos = config->m_listKeys.GetHeadPosition();
    while (pos) {
        CQSString* name = config->m_listKeys.GetNext(pos);
        if (name->Compare(key.GetDataPtr()) != 0) {
            ++index;
            continue;
        }
        // Find the value before unlinking: the index is shared by both lists.
        CQSString* value = nullptr;
        POSITION valuePos = config->m_listValues.GetHeadPosition();
        for (int i = 0; valuePos && i <= index; ++i)
            value = config->m_listValues.GetNext(valuePos);
        config->m_listKeys.RemoveAt(index);
        config->m_listValues.RemoveAt(index);
        delete name;
        delete value;
    }
}

bool CHttpConfig::GetKeyValue(int index, CQSString& out)
{
    CHttpConfig* config = Instance();
    if (!config || index < 0 || index >= config->m_listKeys.GetCount() ||
        index >= config->m_listValues.GetCount())
        return false;
    POSITION keyPos = config->m_listKeys.GetHeadPosition();
    POSITION valuePos = config->m_listValues.GetHeadPosition();
    for (int i = 0; i < index; ++i) {
        config->m_listKeys.GetNext(keyPos);
        config->m_listValues.GetNext(valuePos);
    }
    const CQSString* key = config->m_listKeys.GetNext(keyPos);
    const CQSString* value = config->m_listValues.GetNext(valuePos);
    out.AppendData(reinterpret_cast<const unsigned char*>(key->GetDataPtr()), key->GetLength());
    out.AppendData(": ");
    out.AppendData(reinterpret_cast<const unsigned char*>(value->GetDataPtr()), value->GetLength());
    return true;
}
