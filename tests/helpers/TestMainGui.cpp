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

// Sanitizer builds: Qt's widget platform leaves objects behind at exit whose allocation stacks end in
// Qt itself (no frames to suppress by), so the leak checker is off in the widget suites only.
extern "C" const char* __asan_default_options() { return "detect_leaks=0"; }
