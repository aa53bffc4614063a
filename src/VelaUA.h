#ifndef VELANET_VELAUA_H
#define VELANET_VELAUA_H

// The identification strings of every request: the model name of the
// "User-Agent: " line and the long string of the "V-UA: " line, built as
//   product_build/version&NA/NA&platform&screen&model&format
// e.g. "PLV2010_B2/10066&NA/NA&SYM2&533024&NA&V2".

#include "BaseClass/src/CQString.h"

class CVelaUA
{
public:
    // "PLV2010".
    static void GetName(CQSString& out);
    // "10066".
    static void GetVersion(CQSString& out);
    // Screen width/16 and height/16 in decimal, then the pixel width of the
    // character U+56FD in the application font. The screen is read only in
    // a process that loads velanet-widgets and runs a GUI application;
    // otherwise (a console program, or the core library alone) the screen
    // is 854 x 480 and the width 24.
    static void GetScreenInfo(CQSString& out);
    // Cleans a model name in place: invisible characters and the separators
    // "/", "_", "&", "|" are removed; an empty result becomes "NA".
    static void GetEquipmentName(CQSString& name);
    static void GetVUA2(CQSString& out);
    static void GetVUA(CQSString& out);
};

#endif
