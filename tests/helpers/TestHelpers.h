// TestHelpers.h - shared helpers of the test suites: a temporary-directory fixture and file helpers.
#pragma once

#include "FileOpenCheck.h"
#include "Processes.h"
#include "QtSupport.h"
#include "XMLReport.h"
#include "YString.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>

#include <QByteArray>
#include <QString>
#include <QTextCodec>
#include <random>
#include <string>

// Defined in a build with the address sanitizer, whose allocator ends a process that it cannot map
// memory for instead of failing the allocation: tests that limit a child's memory leave it out.
#if defined(__SANITIZE_ADDRESS__)
#define SUPPORTQT_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SUPPORTQT_TEST_ASAN 1
#endif
#endif

/// The folder of the tests' data files.
std::string testDataPath(const std::string& relative);
/// The shared corpus of real netlists and process kits: the environment's SUPPORTQT_CORPUS_DIR when set,
/// else ../shared/corpus beside the checkout.
QString corpusDir();

/// Netlist text from `pieces` pieces that reach every transition of the netlist readers: plain text of
/// every length, line ends of all three kinds, blanks, continuations, comment lines and inline comments
/// of both dialects, directives, braces, UTF-8 sequences of every length and broken ones, control bytes
/// and (rarely, so that most texts are read to their end) the end mark 0xFF.
std::string generatedNetlist(std::mt19937& random, int pieces);

/// Writes bytes to a file; fails the test when it cannot.
void writeFileBytes(const std::string& path, const std::string& bytes);
/// Reads a whole file (empty when it cannot be read).
std::string readFileBytes(const std::string& path);

/// The file URL of an absolute path with forward slashes: "file://" and the path, with a third slash
/// before a drive letter on Windows ("file:///C:/...").
std::string fileUrlOf(const std::string& absolutePath);

/// A locale whose numbers use a decimal comma, as a host program's locale may: its name for setlocale and
/// LC_ALL, and on POSIX systems the folder to name in LOCPATH (made once per process with localedef). The
/// name is empty when no such locale can be had here.
struct CommaLocale {
    std::string name;
    std::string folder;
};
const CommaLocale& commaLocale();

/// Switches the C library's numbers to the comma locale while it lives, then back; `active()` is false
/// when that locale cannot be had. While active, "%g" writes 0.5 as "0,5".
class CommaDecimalNumbers {
public:
    CommaDecimalNumbers();
    ~CommaDecimalNumbers();
    CommaDecimalNumbers(const CommaDecimalNumbers&) = delete;
    CommaDecimalNumbers& operator=(const CommaDecimalNumbers&) = delete;
    bool active() const { return m_active; }

private:
    std::string m_old;
    bool m_active = false;
};

/// Sets an environment variable while it lives; then the variable gets its old value back, or is unset
/// again when it was unset.
class EnvGuard {
public:
    EnvGuard(const char* name, const QByteArray& value);
    ~EnvGuard();
    EnvGuard(const EnvGuard&) = delete;
    EnvGuard& operator=(const EnvGuard&) = delete;

private:
    const char* m_name;
    bool m_had;
    QByteArray m_old;
};

/// Points the temporary folder of every platform (TMPDIR, and TMP and TEMP on Windows) at `folder` while
/// it lives.
struct ScopedTempFolder {
    explicit ScopedTempFolder(const std::string& folder)
        : tmpdir("TMPDIR", QByteArray::fromStdString(folder)), tmp("TMP", QByteArray::fromStdString(folder)),
          temp("TEMP", QByteArray::fromStdString(folder))
    {
    }
    EnvGuard tmpdir, tmp, temp;
};

/// Whether this is a Windows program running under Wine (which maps Windows file security onto the
/// Unix permissions of the user that runs it).
bool runningUnderWine();

/// Skips the rest of a test that needs a program of the host as an independent peer (python3, xmllint,
/// chromium, iconv...) when it is a Windows test under Wine and no Windows program of that name is on
/// the path: Wine starts Windows programs only. Elsewhere the peer is required (scripts/deps installs it).
#define SUPPORTQT_SKIP_UNLESS_PEER_RUNS(name)                                                                  \
    do {                                                                                                       \
        if (!hostPeerRuns(name))                                                                               \
            GTEST_SKIP() << "Wine starts Windows programs only: the host's " name " cannot be run from this test"; \
    } while (false)
/// False only for a Windows test under Wine that finds no Windows program of that name on the path.
bool hostPeerRuns(const char* name);

/// Whether the process runs as the super-user of the system underneath: root on POSIX systems, and
/// for a Windows program under Wine the Unix user that runs Wine (read from Z:/proc/self/status).
bool runningAsRootOnTheHost();

/// Whether the tests run with the privileges of the super-user (never on Windows, where permission
/// checks do not depend on one user id).
bool runningAsRoot();

/// Limits the process's address space to what it maps now and `headroom` bytes more (on Linux, for a
/// child process that must meet a real shortage of memory); false when the limit could not be set, and
/// always on other systems.
bool limitAddressSpace(size_t headroom);

/// Runs `body` in a child process (Linux) whose address space is limited to `headroom` bytes more than
/// it maps at the start, and returns the text `body` returned; false in `*ran` (and an empty text) when
/// the child could not be made or limited, or did not end normally (`*status` says how it ended).
std::string reportFromLimitedChild(size_t headroom, const std::function<std::string()>& body, bool* ran, int* status);

/// Lowers the process's limit of open files to `limit` while it lives (POSIX); a no-op on Windows,
/// whose C runtime has a limit of its own. `lowered()` says whether the limit was set.
class OpenFileLimit {
public:
    explicit OpenFileLimit(unsigned long limit);
    ~OpenFileLimit();
    OpenFileLimit(const OpenFileLimit&) = delete;
    OpenFileLimit& operator=(const OpenFileLimit&) = delete;
    bool lowered() const { return m_lowered; }

private:
    unsigned long long m_before = 0;
    bool m_lowered = false;
};

/// While it lives (POSIX), the calling thread blocks SIGTERM and SIGUSR1 and the process ignores SIGPIPE,
/// as a caller of the library may (Qt ignores SIGPIPE once it has started a process); both are put back
/// afterwards. A no-op on Windows. `set()` says whether the signals could be blocked.
class CallerSignalState {
public:
    CallerSignalState();
    ~CallerSignalState();
    CallerSignalState(const CallerSignalState&) = delete;
    CallerSignalState& operator=(const CallerSignalState&) = delete;
    bool set() const { return m_set; }

private:
    bool m_set = false;
    alignas(alignof(std::max_align_t)) unsigned char m_before[256] = {}; // the thread's signal mask before
    void (*m_pipeBefore)(int) = nullptr;
};

/// Checks a child's status text (Linux, /proc/PID/status as the child copied it): no signal blocked, and
/// SIGPIPE not ignored. `what` names the child in a failure.
void expectNoSignalStateInherited(const std::string& status, const std::string& what);

/// Holds a file open with no sharing while it lives, so that no other process can open it (Windows);
/// a no-op elsewhere.
class ExclusiveFileLock {
public:
    explicit ExclusiveFileLock(const std::string& path);
    ~ExclusiveFileLock();
    ExclusiveFileLock(const ExclusiveFileLock&) = delete;
    ExclusiveFileLock& operator=(const ExclusiveFileLock&) = delete;
    bool isLocked() const { return m_handle != nullptr; }

private:
    void* m_handle = nullptr;
};

/// Restores the locale codec after a test that changes it.
class LocaleCodecGuard {
public:
    LocaleCodecGuard() : m_codec(QTextCodec::codecForLocale()) {}
    ~LocaleCodecGuard() { QTextCodec::setCodecForLocale(m_codec); }

private:
    QTextCodec* m_codec;
};

/// A fresh temporary directory per test, removed afterwards.
class TempDirTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    /// A path inside the temporary directory.
    std::string path(const std::string& name) const { return m_dir + "/" + name; }
    std::string m_dir;
};

void PrintTo(const YString& s, std::ostream* os);
void PrintTo(const QString& s, std::ostream* os);
void PrintTo(UTF8DetectEncoding e, std::ostream* os);
// The library's status enumerations by name, so that a failed comparison says which value it saw.
void PrintTo(SSPError e, std::ostream* os);
void PrintTo(XmlValidateStatus e, std::ostream* os);
void PrintTo(FileOpenForensic e, std::ostream* os);
void PrintTo(NormStatus e, std::ostream* os);
