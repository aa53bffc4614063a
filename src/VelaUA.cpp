#include "src/VelaUA.h"

#include "BaseClass/src/CBaseUtil.h"
#include "src/internal/VelaUA_p.h"

namespace {

const char KProductName[] = "PLV2010";
const char KBuildTag[] = "B2";
const char KUnknownSlot[] = "NA";
const char KPlatformTag[] = "SYM2";
const char KFormatTag[] = "V2";
const char KEmptyModelName[] = "NA";
const int KMaxEquipmentNameLength = 16;

// Set only while velanet-widgets is loaded.
velanet::ScreenProbe g_screenProbe = nullptr;

}  // namespace

namespace velanet {

void SetScreenProbe(ScreenProbe probe)
{
    g_screenProbe = probe;
}

void FormatScreenInfo(int width, int height, int charWidth, CQSString& out)
{
    CBaseUtil::FormatString(out, "%d%d%d", width >> 4, height >> 4, charWidth);
}

}  // namespace velanet

void CVelaUA::GetName(CQSString& out)
{
    out.SetData(KProductName);
}

void CVelaUA::GetVersion(CQSString& out)
{
    // The version is "10" followed by a wide build number made narrow.
    const CQWString build(L"066");
    out.SetData("10");
    const CQSString narrow(build);
    out.AppendData(reinterpret_cast<const unsigned char*>(narrow.GetDataPtr()), narrow.GetLength());
}

void CVelaUA::GetScreenInfo(CQSString& out)
{
    // The core never touches a display: only the probe of velanet-widgets
    // does, and only inside a GUI application. A console program, or a
    // process without velanet-widgets, keeps the default screen.
    velanet::ScreenMetrics metrics;
    if (g_screenProbe) {
        velanet::ScreenMetrics probed;
        if (g_screenProbe(probed))
            metrics = probed;
    }
    velanet::FormatScreenInfo(metrics.width, metrics.height, metrics.charWidth, out);
}

void CVelaUA::GetEquipmentName(CQSString& name)
{
    name.FilterInvisibleChar();
    name.Replace("/", "");
    name.Replace("_", "");
    name.Replace("&", "");
    name.Replace("|", "");
    if (name.IsEmpty())
        name.SetData(KEmptyModelName);
}

void CVelaUA::GetVUA2(CQSString& out)
{
    CQSString model;
    GetEquipmentName(model);
    if (model.GetLength() > KMaxEquipmentNameLength) {
        CQSString cut;
        model.GetSubString(cut, 0, KMaxEquipmentNameLength);
        model = cut;
    }
    CQSString version;
    GetVersion(version);
    CQSString screen;
    GetScreenInfo(screen);
    CBaseUtil::FormatString(out, "%s_%s/%s&%s/%s&%s&%s&%s&%s", KProductName, KBuildTag, version.GetDataPtr(),
                            KUnknownSlot, KUnknownSlot, KPlatformTag, screen.GetDataPtr(), model.GetDataPtr(),
                            KFormatTag);
}

void CVelaUA::GetVUA(CQSString& out)
{
    GetVUA2(out);
}
