// TestMainGui.cpp - the main of the test suites that need widgets: a QApplication, then every test.
#include <gtest/gtest.h>

#include <QApplication>

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    // No display is needed, also when CTest lists the tests.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    return RUN_ALL_TESTS();
}

// Qt's offscreen platform keeps its screen and integration objects until the process ends; the leak
// checker of sanitizer builds is told so.
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:libqoffscreen.so\nleak:libQt5Gui.so\n";
}
