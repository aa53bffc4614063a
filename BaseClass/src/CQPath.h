#ifndef VELANET_CQPATH_H
#define VELANET_CQPATH_H

// Where the library keeps its files.

class CQSString;

class CQPath
{
public:
    // Path of the access point file; "/opt/meegovela/Browser/iap.dat" unless
    // SetIAPFilePath changed it.
    static void GetIAPFilePath(CQSString& out);
    static void SetIAPFilePath(const CQSString& path);

    // The path GetIAPFilePath yields when nothing was set.
    static const char* DefaultIAPFilePath();
};

#endif
