#ifndef VELANET_HTTPCONFIG_H
#define VELANET_HTTPCONFIG_H

// Process-wide list of extra request headers set by the embedding
// application. The request builders send its first entry with every GET and
// POST. One instance per process, kept in the CQInstance registry under
// KUidHttpConfig and created on first use.

#include "BaseClass/src/CQList.h"
#include "BaseClass/src/CQString.h"

class CHttpConfig
{
public:
    enum { KUidHttpConfig = 11 };

    virtual ~CHttpConfig();

    // Both must be non-empty (fatal assertion otherwise). An entry with the
    // same name is removed first, so the new one goes to the end.
    static void AddHeader(const CQSString& key, const CQSString& value);
    // Removes every entry whose name compares equal (exact bytes).
    static void RemoveHeader(const CQSString& key);
    // Appends "name: value" of entry index to out (out is not cleared) and
    // returns true; false, with out untouched, for an index out of range.
    static bool GetKeyValue(int index, CQSString& out);

private:
    CHttpConfig();
    CHttpConfig(const CHttpConfig&) = delete;
    CHttpConfig& operator=(const CHttpConfig&) = delete;

    static CHttpConfig* Instance();

    CQList<CQSString*, CQSString*> m_listKeys;
    CQList<CQSString*, CQSString*> m_listValues;
};

#endif
