#ifndef VELANET_VELAUA_P_H
#define VELANET_VELAUA_P_H

#include "BaseClass/src/CQString.h"

namespace velanet {

// Screen used when the process has no GUI application, or when the screen
// probe of velanet-widgets is not loaded.
constexpr int KDefaultScreenWidth = 854;
constexpr int KDefaultScreenHeight = 480;
constexpr int KDefaultCharWidth = 24;
// The ideograph whose drawn width tells the font size to the server.
constexpr unsigned short KMeasureChar = 0x56FD;

// out = "<width/16><height/16><charWidth>", the divisions rounding down
// (arithmetic shift right by 4).
void FormatScreenInfo(int width, int height, int charWidth, CQSString& out);

struct ScreenMetrics
{
    int width = KDefaultScreenWidth;
    int height = KDefaultScreenHeight;
    int charWidth = KDefaultCharWidth;
};

// Fills metrics from the real screen and returns true, or returns false and
// leaves metrics alone (no GUI application, no screen).
using ScreenProbe = bool (*)(ScreenMetrics& metrics);

// The core has no GUI: velanet-widgets registers its probe here when it is
// loaded and removes it (nullptr) when it is unloaded. Without a probe
// CVelaUA::GetScreenInfo reports the default screen.
void SetScreenProbe(ScreenProbe probe);

}  // namespace velanet

#endif
