// ToolPlatform_posix.cpp - the terminal, the standard streams and file identity, on POSIX systems.
#include "Tool.h"

#include <QByteArray>

#include <csignal>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

bool standardErrorIsTerminal()
{
    return isatty(STDERR_FILENO) == 1;
}

void useBinaryStandardStreams() {}

namespace {
extern "C" void noteSizeLimit(int) {}
} // namespace

// Caught by a handler that does nothing, SIGXFSZ leaves the write to fail with EFBIG. A handler, not
// SIG_IGN: a program the tool starts gets the default back when it is executed, as it would have had
// it, while an ignored signal would stay ignored in it.
void failWritesBeyondTheSizeLimit()
{
    struct sigaction old = {};
    if (::sigaction(SIGXFSZ, nullptr, &old) != 0 || old.sa_handler == SIG_IGN)
        return;
    struct sigaction action = {};
    action.sa_handler = noteSizeLimit;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGXFSZ, &action, nullptr);
}

bool writeStream(FILE* stream, const char* data, size_t size) { return std::fwrite(data, 1, size, stream) == size; }

QString signalName(int signal)
{
    const char* abbreviation = sigabbrev_np(signal);
    return abbreviation ? QStringLiteral("SIG") + QString::fromLatin1(abbreviation) : QString();
}

bool sameExistingFile(const QString& a, const QString& b)
{
    struct stat sa, sb;
    return ::stat(a.toUtf8().constData(), &sa) == 0 && ::stat(b.toUtf8().constData(), &sb) == 0 &&
           sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

QByteArray existingFileIdentity(const QString& path)
{
    struct stat st;
    if (::stat(path.toUtf8().constData(), &st) != 0)
        return QByteArray();
    return QByteArray::number(static_cast<qulonglong>(st.st_dev)) + ':' + QByteArray::number(static_cast<qulonglong>(st.st_ino));
}

bool sameFileName(const QString& a, const QString& b) { return a == b; }

bool isReservedDeviceName(const QString&) { return false; }

// Names are taken byte for byte here, and permissions are the file checks' part.
QString outputNameRefusal(const QString&) { return QString(); }

QString inputNameRefusal(const QString&) { return QString(); }

// Here the locale's codec is a named one, which reports what it cannot read or write.
bool isSilentSystemCodec(const QTextCodec*) { return false; }

QString silentSystemCodecName() { return QString(); }

void CodePageReader::feed(const QByteArray&) {}

qint64 CodePageReader::finish() { return 0; }

qint64 codePageUnwritable(const QString&) { return 0; }

QString programOutputText(const std::string& bytes) { return QString::fromUtf8(bytes.data(), static_cast<int>(bytes.size())); }

namespace {
// The files and folders that a signal ending the tool removes first, as NUL-terminated names: the copy
// of standard input, and the output that goes to standard output once complete.
constexpr int kRemovedSlots = 4;
char g_removedFiles[kRemovedSlots][4096];
char g_removedFolders[kRemovedSlots][4096];
volatile sig_atomic_t g_removedCount = 0;

extern "C" void removeAndEnd(int signal)
{
    for (int i = 0; i < g_removedCount; ++i) {
        ::unlink(g_removedFiles[i]);
        ::rmdir(g_removedFolders[i]);
    }
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}
} // namespace

void removeWhenInterrupted(const QString& file, const QString& folder)
{
    // The names as the library's file functions take them: UTF-8.
    const QByteArray f = file.toUtf8(), d = folder.toUtf8();
    const int slot = g_removedCount;
    if (slot >= kRemovedSlots || static_cast<size_t>(f.size()) >= sizeof g_removedFiles[0] ||
        static_cast<size_t>(d.size()) >= sizeof g_removedFolders[0])
        return;
    std::memcpy(g_removedFiles[slot], f.constData(), static_cast<size_t>(f.size()) + 1);
    std::memcpy(g_removedFolders[slot], d.constData(), static_cast<size_t>(d.size()) + 1);
    g_removedCount = slot + 1;
    struct sigaction action = {};
    action.sa_handler = removeAndEnd;
    sigemptyset(&action.sa_mask);
    // A closed pipe on standard output ends the tool as it would, once the files are gone.
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        // A signal the tool was started to ignore (nohup) stays ignored.
        struct sigaction old = {};
        if (::sigaction(signal, nullptr, &old) == 0 && old.sa_handler != SIG_IGN)
            ::sigaction(signal, &action, nullptr);
    }
}
