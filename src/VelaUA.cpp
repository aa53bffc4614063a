#include "src/VelaUA.h"

#include "BaseClass/src/CBaseUtil.h"
#include "src/internal/VelaUA_p.h"

#include <QFontMetrics>
#include <QGuiApplication>
#include <QRect>
#include <QScreen>

namespace {

const char KProductName[] = "PLV2010";
const char KBuildTag[] = "B2";
const char KUnknownSlot[] = "NA";
const char KPlatformTag[] = "SYM2";
const char KFormatTag[] = "V2";
const char KEmptyModelName[] = "NA";
// The ideograph whose drawn width tells the font size to the server.
const ushort KMeasureChar = 0x56FD;
const int KMaxEquipmentNameLength = 16;

}  // namespace

namespace velanet {

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
    int width = velanet::KDefaultScreenWidth;
    int height = velanet::KDefaultScreenHeight;
    int charWidth = velanet::KDefaultCharWidth;
    // Only a GUI application has screens and fonts; a console program keeps
    // the defaults instead of failing for want of a display.
    if (qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
        if (const QScreen* screen = QGuiApplication::primaryScreen()) {
            const QRect geometry = screen->geometry();
            width = geometry.right() - geometry.left() + 1;
            height = geometry.bottom() - geometry.top() + 1;
            charWidth = QFontMetrics(QGuiApplication::font()).horizontalAdvance(QChar(KMeasureChar));
        }
    }
    velanet::FormatScreenInfo(width, height, charWidth, out);
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
