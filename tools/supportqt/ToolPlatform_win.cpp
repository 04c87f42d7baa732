// ToolPlatform_win.cpp - the console, the standard streams and file identity, on Windows.
#include "Tool.h"

#include <QTextCodec>
#include <QTextDecoder>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <windows.h>
#include <fcntl.h>
#include <io.h>

#ifndef ENABLE_VIRTUAL_TERMINAL_PROCESSING
#define ENABLE_VIRTUAL_TERMINAL_PROCESSING 0x0004
#endif

bool standardErrorIsTerminal()
{
    // A console, not any character device: the null device is one too, and a progress line there is
    // work for nothing. The line clears itself with an escape sequence, which a console obeys only in
    // its terminal mode; a console that cannot take that mode gets no progress line.
    const HANDLE h = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stderr)));
    DWORD mode = 0;
    if (h == INVALID_HANDLE_VALUE || !GetConsoleMode(h, &mode))
        return false;
    return (mode & ENABLE_VIRTUAL_TERMINAL_PROCESSING) || SetConsoleMode(h, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
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

bool writeStream(FILE* stream, const char* data, size_t size)
{
    const HANDLE h = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream)));
    DWORD mode = 0;
    if (h == INVALID_HANDLE_VALUE || !GetConsoleMode(h, &mode))
        return std::fwrite(data, 1, size, stream) == size;
    // A console shows bytes in its own code page, not UTF-8: the text goes to it as UTF-16, after what
    // the C runtime still holds. Each stream's decoder keeps a sequence that a write ends in the middle of.
    std::fflush(stream);
    static QTextDecoder outDecoder(QTextCodec::codecForName("UTF-8")), errDecoder(QTextCodec::codecForName("UTF-8"));
    static std::mutex mutex;
    std::lock_guard<std::mutex> lock(mutex);
    QTextDecoder& decoder = stream == stderr ? errDecoder : outDecoder;
    for (size_t done = 0; done < size;) {
        const int part = static_cast<int>(std::min<size_t>(size - done, 1 << 20));
        const QString text = decoder.toUnicode(data + done, part);
        DWORD written = 0;
        if (!text.isEmpty() && !WriteConsoleW(h, text.utf16(), static_cast<DWORD>(text.size()), &written, nullptr))
            return false;
        done += static_cast<size_t>(part);
    }
    return true;
}

void useBinaryStandardStreams()
{
    std::fflush(stdout);
    std::fflush(stderr);
    _setmode(_fileno(stdin), _O_BINARY); // "-" reads the bytes as they are, carriage returns included
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
}
