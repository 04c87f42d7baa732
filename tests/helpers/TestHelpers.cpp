// TestHelpers.cpp - shared helpers of the test suites.
#include "TestHelpers.h"

#include <QDir>
#include <QTemporaryDir>

#ifndef Q_OS_WIN
#include <unistd.h>
#endif

#include <fstream>
#include <sstream>

std::string testDataPath(const std::string& relative) { return std::string(SUPPORTQT_TEST_DATA_DIR) + "/" + relative; }

void writeFileBytes(const std::string& path, const std::string& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    ASSERT_TRUE(out.good()) << "cannot write " << path;
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string readFileBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string fileUrlOf(const std::string& absolutePath)
{
    return (absolutePath.empty() || absolutePath[0] == '/' ? "file://" : "file:///") + absolutePath;
}

bool runningAsRoot()
{
#ifdef Q_OS_WIN
    return false;
#else
    return geteuid() == 0;
#endif
}

void TempDirTest::SetUp()
{
    QTemporaryDir dir(QDir::tempPath() + QStringLiteral("/sqtest-XXXXXX"));
    dir.setAutoRemove(false);
    ASSERT_TRUE(dir.isValid());
    m_dir = dir.path().toStdString();
}

void TempDirTest::TearDown()
{
    if (!m_dir.empty())
        QDir(QString::fromStdString(m_dir)).removeRecursively();
}

void PrintTo(const YString& s, std::ostream* os) { *os << '"' << s.c_str() << '"'; }
void PrintTo(const QString& s, std::ostream* os) { *os << '"' << s.toStdString() << '"'; }
void PrintTo(UTF8DetectEncoding e, std::ostream* os)
{
    static const char* const names[] = {"Ascii", "Utf8", "Utf8Extended", "Invalid"};
    *os << (e >= 0 && e <= 3 ? names[e] : "?");
}

// Sanitizer builds: Qt keeps some objects until the process ends (the offscreen platform's screen
// and integration, XmlPatterns' shared schema machinery); the leak checker is told so.
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:libqoffscreen.so\nleak:libQt5Gui.so\nleak:libQt5XmlPatterns.so\n";
}
