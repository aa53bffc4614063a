#include "BaseClass/src/CQPath.h"

#include "BaseClass/src/CQString.h"

namespace {

// Built on first use, so no static initialisation order is involved.
CQSString& IAPFilePath()
{
    static CQSString path(CQPath::DefaultIAPFilePath());
    return path;
}

}  // namespace

const char* CQPath::DefaultIAPFilePath()
{
    return "/opt/meegovela/Browser/iap.dat";
}

void CQPath::GetIAPFilePath(CQSString& out)
{
    out = IAPFilePath();
}

void CQPath::SetIAPFilePath(const CQSString& path)
{
    IAPFilePath() = path;
}
