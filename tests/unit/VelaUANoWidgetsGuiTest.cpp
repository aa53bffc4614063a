// Identification strings in a GUI application that loads the core library
// alone: without velanet-widgets there is no screen probe, so the screen
// part is the default 854 x 480 screen with a character width of 24 even
// though a screen exists (the offscreen platform's differs from it).

#include "src/HttpData.h"
#include "src/VelaUA.h"

#include <QFontMetrics>
#include <QGuiApplication>
#include <QScreen>

#include <gtest/gtest.h>

#include <dlfcn.h>

namespace {

TEST(VelaUANoWidgetsGuiTest, TheWidgetsLibraryIsNotLoaded)
{
    // RTLD_NOLOAD only looks for an already loaded library.
    for (const char* name : {"libvelanet-widgets.so.1", "libvelanet-widgets-qt6.so.1"}) {
        void* handle = dlopen(name, RTLD_LAZY | RTLD_NOLOAD);
        EXPECT_EQ(nullptr, handle) << name;
        if (handle)
            dlclose(handle);
    }
}

TEST(VelaUANoWidgetsGuiTest, ScreenInfoIsTheDefaultScreen)
{
    const QScreen* screen = QGuiApplication::primaryScreen();
    ASSERT_NE(nullptr, screen);
    CQSString out;
    CVelaUA::GetScreenInfo(out);
    EXPECT_STREQ("533024", out.GetDataPtr());
}

TEST(VelaUANoWidgetsGuiTest, IdentificationLineCarriesTheDefaultScreen)
{
    CHttpData data;
    EXPECT_STREQ("V-UA: PLV2010_B2/10066&NA/NA&SYM2&533024&NA&V2", data.GetVUserAgent().GetDataPtr());
}

// Loading velanet-widgets later (as a plugin would) installs the probe from
// then on.
TEST(VelaUANoWidgetsGuiTest, LoadingTheWidgetsLibraryInstallsTheProbe)
{
    const QScreen* screen = QGuiApplication::primaryScreen();
    ASSERT_NE(nullptr, screen);
    const QRect g = screen->geometry();
    ASSERT_NE(854, g.width()) << "the offscreen screen must differ from the default one";
    void* handle = dlopen(VELANET_WIDGETS_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, handle) << dlerror();
    const int charWidth = QFontMetrics(QGuiApplication::font()).horizontalAdvance(QChar(0x56FD));
    const std::string expected =
        std::to_string(g.width() / 16) + std::to_string(g.height() / 16) + std::to_string(charWidth);
    CQSString out;
    CVelaUA::GetScreenInfo(out);
    EXPECT_EQ(expected, out.GetDataPtr());
    dlclose(handle);
}

}  // namespace
