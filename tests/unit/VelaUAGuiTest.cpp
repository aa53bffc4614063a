// Identification strings in a GUI application (offscreen platform) that
// loads velanet-widgets: the screen info comes from the primary screen and
// the application font.

#include "src/HttpData.h"
#include "src/VelaUA.h"

#include <QFontMetrics>
#include <QGuiApplication>
#include <QScreen>

#include <gtest/gtest.h>

#include <dlfcn.h>

namespace {

TEST(VelaUAGuiTest, TheWidgetsLibraryIsLoaded)
{
    // RTLD_NOLOAD only looks for an already loaded library.
    void* handle = dlopen(VELANET_WIDGETS_SONAME, RTLD_LAZY | RTLD_NOLOAD);
    EXPECT_NE(nullptr, handle);
    if (handle)
        dlclose(handle);
}

TEST(VelaUAGuiTest, ScreenInfoComesFromThePrimaryScreen)
{
    const QScreen* screen = QGuiApplication::primaryScreen();
    ASSERT_NE(nullptr, screen);
    const QRect g = screen->geometry();
    const int charWidth = QFontMetrics(QGuiApplication::font()).horizontalAdvance(QChar(0x56FD));
    const std::string expected =
        std::to_string(g.width() / 16) + std::to_string(g.height() / 16) + std::to_string(charWidth);
    CQSString out;
    CVelaUA::GetScreenInfo(out);
    EXPECT_EQ(expected, out.GetDataPtr());
}

TEST(VelaUAGuiTest, IdentificationLineCarriesTheScreenInfo)
{
    CQSString screenInfo;
    CVelaUA::GetScreenInfo(screenInfo);
    CHttpData data;
    EXPECT_EQ(std::string("V-UA: PLV2010_B2/10066&NA/NA&SYM2&") + screenInfo.GetDataPtr() + "&NA&V2",
              data.GetVUserAgent().GetDataPtr());
}

}  // namespace
