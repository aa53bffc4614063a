// Test entry point: one application object for the whole suite, so timers and
// sockets have an event loop. Suites named *GuiTest get a QApplication (with
// the offscreen platform that CTest sets), the others a QCoreApplication.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#ifdef VELANET_TEST_GUI
#include <QApplication>
using TestApplication = QApplication;

// Qt's offscreen platform plugin never frees its screen objects; the leak
// checker of sanitizer builds would otherwise fail every GUI suite at exit.
// Only allocations made inside Qt's screen set-up are ignored.
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:libqoffscreen.so\n"
           "leak:QScreen::QScreen\n"
           "leak:QPlatformScreen::QPlatformScreen\n"
           "leak:QWindowSystemInterface::handleScreenAdded\n"
           "leak:QtSharedPointer::ExternalRefCountData::getAndRef\n"
           "leak:QObject::QObject\n";
}
#else
#include <QCoreApplication>
using TestApplication = QCoreApplication;
#endif

int main(int argc, char** argv)
{
    ::testing::InitGoogleMock(&argc, argv);
    // Death tests re-run the binary instead of forking a process that holds
    // Qt's threads.
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
#ifdef VELANET_TEST_GUI
    // No display is needed: test discovery and CI run without one.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
#endif
    TestApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
