// TestHelpers.cpp - shared helpers of the test suites.
#include "TestHelpers.h"

#include <QDir>
#include <QTemporaryDir>

#include <QFile>
#include <QRegularExpression>
#include <QStandardPaths>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#ifdef Q_OS_WIN
#include <windows.h>
#else
#include <unistd.h>
#endif
#ifndef Q_OS_WIN
#include <pthread.h>
#include <sys/resource.h>
#endif
#if defined(__linux__)
#include <sys/wait.h>
#endif


std::string testDataPath(const std::string& relative) { return std::string(SUPPORTQT_TEST_DATA_DIR) + "/" + relative; }

// Paths are UTF-8; QFile opens them as such on every platform (a narrow std::fstream path would be
// taken in the Windows code page).
void writeFileBytes(const std::string& path, const std::string& bytes)
{
    QFile out(QString::fromStdString(path));
    ASSERT_TRUE(out.open(QIODevice::WriteOnly | QIODevice::Truncate)) << "cannot write " << path;
    ASSERT_EQ(out.write(bytes.data(), static_cast<qint64>(bytes.size())), static_cast<qint64>(bytes.size()))
        << "cannot write " << path;
}

std::string readFileBytes(const std::string& path)
{
    QFile in(QString::fromStdString(path));
    if (!in.open(QIODevice::ReadOnly))
        return std::string();
    return in.readAll().toStdString();
}

std::string fileUrlOf(const std::string& absolutePath)
{
    return (absolutePath.empty() || absolutePath[0] == '/' ? "file://" : "file:///") + absolutePath;
}

QString corpusDir()
{
    const QString given = qEnvironmentVariable("SUPPORTQT_CORPUS_DIR");
    return given.isEmpty() ? QStringLiteral(SUPPORTQT_CORPUS_DIR) : given;
}

bool runningUnderWine()
{
#ifdef Q_OS_WIN
    const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    return ntdll && GetProcAddress(ntdll, "wine_get_version") != nullptr;
#else
    return false;
#endif
}

bool runningAsRoot()
{
#ifdef Q_OS_WIN
    return false;
#else
    return geteuid() == 0;
#endif
}

bool limitAddressSpace(size_t headroom)
{
#if defined(__linux__)
    unsigned long pages = 0;
    FILE* statm = std::fopen("/proc/self/statm", "r");
    const bool read = statm && std::fscanf(statm, "%lu", &pages) == 1;
    if (statm)
        std::fclose(statm);
    struct rlimit limit;
    limit.rlim_cur = limit.rlim_max = static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + headroom;
    return read && setrlimit(RLIMIT_AS, &limit) == 0;
#else
    (void)headroom;
    return false;
#endif
}

std::string reportFromLimitedChild(size_t headroom, const std::function<std::string()>& body, bool* ran, int* status)
{
    *ran = false;
    *status = -1;
#if defined(__linux__)
    int channel[2];
    if (::pipe(channel) != 0)
        return std::string();
    const pid_t child = ::fork();
    if (child < 0) {
        ::close(channel[0]);
        ::close(channel[1]);
        return std::string();
    }
    if (child == 0) {
        ::close(channel[0]);
        if (!limitAddressSpace(headroom))
            ::_exit(2);
        const std::string report = body();
        const bool sent = ::write(channel[1], report.data(), report.size()) == static_cast<ssize_t>(report.size());
        ::_exit(sent ? 0 : 1);
    }
    ::close(channel[1]);
    std::string report;
    char buffer[256];
    for (ssize_t n; (n = ::read(channel[0], buffer, sizeof buffer)) > 0;)
        report.append(buffer, static_cast<size_t>(n));
    ::close(channel[0]);
    if (::waitpid(child, status, 0) != child)
        return std::string();
    *ran = WIFEXITED(*status) && WEXITSTATUS(*status) == 0;
    return *ran ? report : std::string();
#else
    (void)headroom;
    (void)body;
    return std::string();
#endif
}

CallerSignalState::CallerSignalState()
{
#ifndef Q_OS_WIN
    static_assert(sizeof(sigset_t) <= sizeof(m_before), "room for a signal mask");
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigaddset(&blocked, SIGUSR1);
    m_set = pthread_sigmask(SIG_BLOCK, &blocked, reinterpret_cast<sigset_t*>(m_before)) == 0;
    m_pipeBefore = std::signal(SIGPIPE, SIG_IGN);
#endif
}

CallerSignalState::~CallerSignalState()
{
#ifndef Q_OS_WIN
    std::signal(SIGPIPE, m_pipeBefore);
    if (m_set)
        pthread_sigmask(SIG_SETMASK, reinterpret_cast<const sigset_t*>(m_before), nullptr);
#endif
}

void expectNoSignalStateInherited(const std::string& status, const std::string& what)
{
    const QString text = QString::fromStdString(status);
    const auto field = [&](const char* name) {
        const QRegularExpressionMatch m = QRegularExpression(QStringLiteral("\\n%1:\\s*([0-9a-f]+)\\n").arg(QLatin1String(name))).match(text);
        EXPECT_TRUE(m.hasMatch()) << what << " has no " << name;
        return m.captured(1).toULongLong(nullptr, 16);
    };
    EXPECT_EQ(field("SigBlk"), 0u) << what;
#ifdef SIGPIPE
    EXPECT_EQ(field("SigIgn") & (1ull << (SIGPIPE - 1)), 0u) << what;
#endif
}

OpenFileLimit::OpenFileLimit(unsigned long limit)
{
#ifndef Q_OS_WIN
    rlimit now{};
    if (getrlimit(RLIMIT_NOFILE, &now) != 0)
        return;
    m_before = now.rlim_cur;
    now.rlim_cur = limit;
    m_lowered = setrlimit(RLIMIT_NOFILE, &now) == 0;
#else
    (void)limit;
#endif
}

OpenFileLimit::~OpenFileLimit()
{
#ifndef Q_OS_WIN
    rlimit now{};
    if (m_lowered && getrlimit(RLIMIT_NOFILE, &now) == 0) {
        now.rlim_cur = static_cast<rlim_t>(m_before);
        setrlimit(RLIMIT_NOFILE, &now);
    }
#endif
}

ExclusiveFileLock::ExclusiveFileLock(const std::string& path)
{
#ifdef Q_OS_WIN
    const std::wstring wide = QString::fromStdString(path).toStdWString();
    const HANDLE h = CreateFileW(wide.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                 FILE_ATTRIBUTE_NORMAL, nullptr);
    m_handle = h == INVALID_HANDLE_VALUE ? nullptr : h;
#else
    Q_UNUSED(path);
#endif
}

ExclusiveFileLock::~ExclusiveFileLock()
{
#ifdef Q_OS_WIN
    if (m_handle)
        CloseHandle(static_cast<HANDLE>(m_handle));
#endif
}

bool hostPeerRuns(const char* name)
{
    return !runningUnderWine() || !QStandardPaths::findExecutable(QString::fromLatin1(name)).isEmpty();
}

bool runningAsRootOnTheHost()
{
    if (!runningUnderWine())
        return runningAsRoot();
    QFile status(QStringLiteral("Z:/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return false;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("Uid:"))
            return line.mid(4).simplified().split(' ').value(0) == "0";
    return false;
}

const CommaLocale& commaLocale()
{
    static const CommaLocale locale = [] {
        CommaLocale l;
#ifdef _WIN32
        // The runtime knows the system's locales by name.
        for (const char* name : {"German_Germany.1252", "de-DE", "German"}) {
            const std::string old = std::setlocale(LC_NUMERIC, nullptr);
            const bool known = std::setlocale(LC_NUMERIC, name) != nullptr;
            std::setlocale(LC_NUMERIC, old.c_str());
            if (known) {
                l.name = name;
                break;
            }
        }
#else
        // Built from the system's locale sources into a folder of this process's own.
        static QTemporaryDir folder(QDir::tempPath() + QStringLiteral("/sqlocale-XXXXXX"));
        if (!folder.isValid())
            return l;
        const std::string target = folder.path().toStdString() + "/de_DE.UTF-8";
        const std::string command = "localedef -i de_DE -f UTF-8 '" + target + "' >/dev/null 2>&1";
        if (std::system(command.c_str()) == 0 && QDir(QString::fromStdString(target)).exists()) {
            l.name = "de_DE.UTF-8";
            l.folder = folder.path().toStdString();
        }
#endif
        return l;
    }();
    return locale;
}

CommaDecimalNumbers::CommaDecimalNumbers() : m_old(std::setlocale(LC_NUMERIC, nullptr))
{
    const CommaLocale& locale = commaLocale();
    if (locale.name.empty())
        return;
    if (!locale.folder.empty())
        qputenv("LOCPATH", QByteArray::fromStdString(locale.folder));
    char text[16] = {};
    m_active = std::setlocale(LC_NUMERIC, locale.name.c_str()) && std::snprintf(text, sizeof text, "%g", 0.5) > 0 &&
               std::string(text) == "0,5";
}

CommaDecimalNumbers::~CommaDecimalNumbers() { std::setlocale(LC_NUMERIC, m_old.c_str()); }

EnvGuard::EnvGuard(const char* name, const QByteArray& value)
    : m_name(name), m_had(qEnvironmentVariableIsSet(name)), m_old(qgetenv(name))
{
    qputenv(name, value);
}

EnvGuard::~EnvGuard()
{
    if (m_had)
        qputenv(m_name, m_old);
    else
        qunsetenv(m_name);
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
namespace {

// Prints an enumerator's name from a table indexed by its value, or the number when it has none.
template <size_t N>
void printNamed(int value, const char* const (&names)[N], std::ostream* os)
{
    if (value >= 0 && static_cast<size_t>(value) < N)
        *os << names[value];
    else
        *os << "(" << value << ")";
}

} // namespace

void PrintTo(SSPError e, std::ostream* os)
{
    static const char* const names[] = {"SSPE_Ok", "SSPE_Failed", "SSPE_Unused2", "SSPE_Unused3",
                                        "SSPE_NotFound", "SSPE_BadFormat", "SSPE_NotExecutable", "SSPE_NotSupported"};
    printNamed(e, names, os);
}

void PrintTo(XmlValidateStatus e, std::ostream* os)
{
    static const char* const names[] = {"XmlValidateOk", "XmlValidateInvalid", "XmlValidateBadSchema",
                                        "XmlValidateNoSchemaFile", "XmlValidateNoXmlFile"};
    printNamed(e, names, os);
}

void PrintTo(FileOpenForensic e, std::ostream* os)
{
    static const char* const names[] = {"FileOpenNoError", "FileOpenOverwrite", "FileOpenNotExist",
                                        "FileOpenReadLocked", "FileOpenDirNotExist", "FileOpenDirPriv",
                                        "FileOpenWritePriv", "FileOpenWriteLocked", "FileOpenInvalidParams"};
    printNamed(e, names, os);
}

void PrintTo(NormStatus e, std::ostream* os)
{
    static const char* const names[] = {"NormValid", "NormDivByZero", "NormInconsistent", "NormUnset"};
    printNamed(e, names, os);
}

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

std::string generatedNetlist(std::mt19937& random, int pieces)
{
    static const char* const kPieces[] = {
        "R1 a b 1k", "M12 d g s b nch W=1u L=0.18u", "C3 n1 0 10p IC=0", "\n", "\n", "\n", "\r\n", "\r\n", "\r",
        "\n+ ", "\n+W=2u", "\n   + 5", "\n*", "\n* comment text here", "\n*#HSPICE\n", "\n*#hierarchy x\n",
        "*#KALVONTA sep=.\n", "*#PSPICE\n", "\n;c", " ; trailing comment", " $ dollar comment", "$", "{a{b}c}", "{x}",
        "}", "{", "\t", "  ", "\xC3\xA9t\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xF8\x88\x80\x80\x80",
        "\xFC\x84\x80\x80\x80\x80", "\xC3", "\x80", "\xE2\x82", "\xFE", "\x01", "\x0B", "\x7F", "\xFF", "#", "+", "*",
        "abcdefghijklmnopqrstuvwxyz0123456789ABCDEFGHIJ", "abcdefghijklmnopqrstuvwxyz0123456789ABCDEFGHIJabcdefghijklmnopq",
        "\n\n\n", "\r\r\n", "X1 in out opamp gain=1e6\n", "*#HSPICE\n$ comment\n", "*#HSPICE\n; kept in HSPICE\n",
        "*#KALVONTA sep=.\n; comment\n", "\n* \xC3\xA9\xC3\xA9 comment with UTF-8\n"};
    const size_t count = sizeof(kPieces) / sizeof(kPieces[0]);
    std::string text;
    for (int i = 0; i < pieces; ++i) {
        // The end mark is kept rare so that most inputs are read to their end.
        size_t k = random() % count;
        if (std::string(kPieces[k]) == "\xFF" && random() % 8 != 0)
            k = 0;
        text += kPieces[k];
    }
    return text;
}
