// The real screen behind CVelaUA::GetScreenInfo. This file is part of
// velanet-widgets: loading that library registers the probe with the core,
// so that a GUI application's identification string carries its primary
// screen and application font while the core itself links no GUI module.

#include "src/internal/VelaUA_p.h"

#include <QCoreApplication>
#include <QFontMetrics>
#include <QGuiApplication>
#include <QRect>
#include <QScreen>

namespace {

bool ProbeGuiScreen(velanet::ScreenMetrics& metrics)
{
    // Only a GUI application has screens and fonts; a console program keeps
    // the defaults instead of failing for want of a display.
    if (!qobject_cast<QGuiApplication*>(QCoreApplication::instance()))
        return false;
    const QScreen* screen = QGuiApplication::primaryScreen();
    if (!screen)
        return false;
    const QRect geometry = screen->geometry();
    metrics.width = geometry.right() - geometry.left() + 1;
    metrics.height = geometry.bottom() - geometry.top() + 1;
    metrics.charWidth =
        QFontMetrics(QGuiApplication::font()).horizontalAdvance(QChar(velanet::KMeasureChar));
    return true;
}

// Registered while the library is loaded: from its static initialisation to
// its unloading.
struct ProbeRegistration
{
    ProbeRegistration() { velanet::SetScreenProbe(&ProbeGuiScreen); }
    ~ProbeRegistration() { velanet::SetScreenProbe(nullptr); }
    ProbeRegistration(const ProbeRegistration&) = delete;
    ProbeRegistration& operator=(const ProbeRegistration&) = delete;
};

const ProbeRegistration g_registration;

}  // namespace
