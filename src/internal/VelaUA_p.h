#ifndef VELANET_VELAUA_P_H
#define VELANET_VELAUA_P_H

#include "BaseClass/src/CQString.h"

namespace velanet {

// Screen used when the process has no GUI application.
constexpr int KDefaultScreenWidth = 854;
constexpr int KDefaultScreenHeight = 480;
constexpr int KDefaultCharWidth = 24;

// out = "<width/16><height/16><charWidth>", the divisions rounding down
// (arithmetic shift right by 4).
void FormatScreenInfo(int width, int height, int charWidth, CQSString& out);

}  // namespace velanet

#endif
