#include "BaseClass/src/CQPath.h"

#include "BaseClass/src/CQString.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

namespace {

// Puts the default path back whatever the outcome of the test.
struct RestoreDefault
{
    ~RestoreDefault() { CQPath::SetIAPFilePath(CQSString(CQPath::DefaultIAPFilePath())); }
};

}  // namespace

TEST(CQPath, DefaultIAPFilePath)
{
    CQSString path;
    CQPath::GetIAPFilePath(path);
    EXPECT_STREQ("/opt/meegovela/Browser/iap.dat", path.GetDataPtr());
    EXPECT_STREQ("/opt/meegovela/Browser/iap.dat", CQPath::DefaultIAPFilePath());
}

TEST(CQPath, GetReplacesOldContentOfOut)
{
    CQSString path("something else that is longer than the path itself, surely");
    CQPath::GetIAPFilePath(path);
    EXPECT_STREQ("/opt/meegovela/Browser/iap.dat", path.GetDataPtr());
}

TEST(CQPath, SetChangesThePath)
{
    RestoreDefault restore;
    velatest::TempDir dir;
    const QByteArray file = (dir.File("iap.dat")).toLocal8Bit();
    CQPath::SetIAPFilePath(CQSString(file.constData()));
    CQSString path;
    CQPath::GetIAPFilePath(path);
    EXPECT_STREQ(file.constData(), path.GetDataPtr());
}

TEST(CQPath, SetKeepsItsOwnCopy)
{
    RestoreDefault restore;
    {
        CQSString temporary("/tmp/a/iap.dat");
        CQPath::SetIAPFilePath(temporary);
        temporary.SetData("/changed");
    }
    CQSString path;
    CQPath::GetIAPFilePath(path);
    EXPECT_STREQ("/tmp/a/iap.dat", path.GetDataPtr());
}

TEST(CQPath, BackslashesAreGivenAsSet)
{
    RestoreDefault restore;
    CQPath::SetIAPFilePath(CQSString("C:\\data\\iap.dat"));
    CQSString path;
    CQPath::GetIAPFilePath(path);
    EXPECT_STREQ("C:\\data\\iap.dat", path.GetDataPtr());
}
