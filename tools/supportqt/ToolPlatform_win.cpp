// ToolPlatform_win.cpp - the console, the standard streams and file identity, on Windows.
#include "Tool.h"

#include <QDir>
#include <QTextCodec>
#include <QTextDecoder>

#include <cstdio>
#include <memory>
#include <mutex>
#include <windows.h>

#include <atomic>
#include <fcntl.h>
#include <io.h>

#include <cstdlib>

#ifndef ENABLE_VIRTUAL_TERMINAL_PROCESSING
#define ENABLE_VIRTUAL_TERMINAL_PROCESSING 0x0004
#endif

namespace {
// The console whose mode the tool changed, and the mode it had: the console is the shell's too, which
// gets it back as it was when the tool ends.
HANDLE g_changedConsole = nullptr;
DWORD g_consoleMode = 0;

void restoreConsoleMode() { SetConsoleMode(g_changedConsole, g_consoleMode); }
} // namespace

bool standardErrorIsTerminal()
{
    // A console, not any character device: the null device is one too, and a progress line there is
    // work for nothing. The line clears itself with an escape sequence, which a console obeys only in
    // its terminal mode; a console that cannot take that mode gets no progress line.
    const HANDLE h = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stderr)));
    DWORD mode = 0;
    if (h == INVALID_HANDLE_VALUE || !GetConsoleMode(h, &mode))
        return false;
    if (mode & ENABLE_VIRTUAL_TERMINAL_PROCESSING)
        return true;
    if (!SetConsoleMode(h, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING))
        return false;
    if (!g_changedConsole) {
        g_changedConsole = h;
        g_consoleMode = mode;
        std::atexit(restoreConsoleMode);
    }
    return true;
}

// Children on Windows do not end by signals.
QString signalName(int) { return QString(); }

namespace {

bool fileIdentity(const QString& path, BY_HANDLE_FILE_INFORMATION* info)
{
    const HANDLE h = CreateFileW(reinterpret_cast<const wchar_t*>(path.utf16()), 0,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                 FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return false;
    const bool ok = GetFileInformationByHandle(h, info) != 0;
    CloseHandle(h);
    return ok;
}

} // namespace

bool sameExistingFile(const QString& a, const QString& b)
{
    BY_HANDLE_FILE_INFORMATION ia, ib;
    return fileIdentity(a, &ia) && fileIdentity(b, &ib) && ia.dwVolumeSerialNumber == ib.dwVolumeSerialNumber &&
           ia.nFileIndexHigh == ib.nFileIndexHigh && ia.nFileIndexLow == ib.nFileIndexLow;
}

// Windows compares file names without regard to case: "rep.html" and "REP.HTML" are one file.
bool sameFileName(const QString& a, const QString& b) { return a.compare(b, Qt::CaseInsensitive) == 0; }

// Console programs write to a pipe in the console's code page ("cmd /c echo" an "é" gives 0x82 in code
// page 850): output that is no UTF-8 is read in that code page.
QString programOutputText(const std::string& bytes)
{
    const int size = static_cast<int>(bytes.size());
    if (size == 0)
        return QString();
    UINT page = CP_UTF8;
    DWORD flags = MB_ERR_INVALID_CHARS;
    int n = MultiByteToWideChar(page, flags, bytes.data(), size, nullptr, 0);
    if (n <= 0) {
        page = GetConsoleOutputCP();
        if (page == 0)
            page = GetOEMCP();
        flags = 0; // a console page of UTF-8 itself then shows the invalid bytes as U+FFFD
        n = MultiByteToWideChar(page, flags, bytes.data(), size, nullptr, 0);
    }
    std::wstring text(static_cast<size_t>(n > 0 ? n : 0), L'\0');
    if (n <= 0 || MultiByteToWideChar(page, flags, bytes.data(), size, &text[0], n) != n)
        return QString::fromUtf8(bytes.data(), size);
    return QString::fromStdWString(text);
}

bool writeStream(FILE* stream, const char* data, size_t size)
{
    const HANDLE h = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream)));
    DWORD mode = 0;
    const auto asBytes = [&] { return std::fwrite(data, 1, size, stream) == size; };
    if (h == INVALID_HANDLE_VALUE || !GetConsoleMode(h, &mode) || size > (1u << 28))
        return asBytes();
    // A console shows bytes in its own code page, not UTF-8: UTF-8 text goes to it as UTF-16, after
    // what the C runtime still holds. Each stream's decoder keeps a sequence that a write ends in the
    // middle of. Text that is not UTF-8 (a child's output in the console's code page, a conversion to
    // another encoding) goes as its bytes, as does any text the console refuses.
    std::fflush(stream);
    static std::unique_ptr<QTextDecoder> decoders[2];
    static std::mutex mutex;
    std::lock_guard<std::mutex> lock(mutex);
    std::unique_ptr<QTextDecoder>& decoder = decoders[stream == stderr ? 1 : 0];
    if (!decoder)
        decoder.reset(new QTextDecoder(QTextCodec::codecForName("UTF-8")));
    const QString text = decoder->toUnicode(data, static_cast<int>(size));
    if (decoder->hasFailure()) {
        decoder.reset();
        return asBytes();
    }
    DWORD written = 0;
    return text.isEmpty() || WriteConsoleW(h, text.utf16(), static_cast<DWORD>(text.size()), &written, nullptr) || asBytes();
}

// Windows has no file-size limit that ends a process.
void failWritesBeyondTheSizeLimit() {}

void useBinaryStandardStreams()
{
    std::fflush(stdout);
    std::fflush(stderr);
    _setmode(_fileno(stdin), _O_BINARY); // "-" reads the bytes as they are, carriage returns included
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
}

namespace {
// The files and folders that a console event ending the tool removes first: the copy of standard input,
// and the output that goes to standard output once complete. Registered before the handler is.
constexpr int kRemovedSlots = 4;
std::wstring g_removedFiles[kRemovedSlots];
std::wstring g_removedFolders[kRemovedSlots];
std::atomic<int> g_removedCount{0};

BOOL WINAPI removeAndEnd(DWORD event)
{
    if (event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT || event == CTRL_CLOSE_EVENT) {
        for (int i = 0; i < g_removedCount; ++i) {
            DeleteFileW(g_removedFiles[i].c_str());
            RemoveDirectoryW(g_removedFolders[i].c_str());
        }
        if (g_changedConsole)
            restoreConsoleMode();
    }
    return FALSE; // the next handler, in the end the system's, ends the tool
}
} // namespace

void removeWhenInterrupted(const QString& file, const QString& folder)
{
    const int slot = g_removedCount;
    if (slot >= kRemovedSlots)
        return;
    g_removedFiles[slot] = QDir::toNativeSeparators(file).toStdWString();
    g_removedFolders[slot] = QDir::toNativeSeparators(folder).toStdWString();
    g_removedCount = slot + 1;
    SetConsoleCtrlHandler(removeAndEnd, TRUE);
}
