// ToolPlatform_win.cpp - the console, the standard streams and file identity, on Windows.
#include "Tool.h"

#include <cstdio>
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

void useBinaryStandardStreams()
{
    std::fflush(stdout);
    std::fflush(stderr);
    _setmode(_fileno(stdin), _O_BINARY); // "-" reads the bytes as they are, carriage returns included
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
}
