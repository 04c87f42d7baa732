// ProcessPlatform_win.cpp - the older launcher on Windows: CreateProcessW with window-show and console
// options, waiting with MsgWaitForMultipleObjects while Qt events are processed.
#include "Processes_p.h"

#ifdef Q_OS_WIN

#include "YString.h"

#include <QCoreApplication>
#include <windows.h>

int processes::oldSpawn(const char* commandLine, int flags, unsigned* exitCode, int* processId)
{
    *exitCode = 0;
    STARTUPINFOW startup;
    ZeroMemory(&startup, sizeof startup);
    startup.cb = 104;
    startup.dwFlags = STARTF_USESHOWWINDOW;
    startup.wShowWindow = (flags & 2) ? SW_HIDE : (flags & 8) ? SW_SHOWMINIMIZED : SW_SHOWNORMAL;
    PROCESS_INFORMATION info;
    ZeroMemory(&info, sizeof info);
    UTFString wide(commandLine ? commandLine : "");
    std::wstring line(wide.getWide());
    const DWORD creation = NORMAL_PRIORITY_CLASS | ((flags & 4) ? CREATE_NEW_CONSOLE : DETACHED_PROCESS);
    if (!CreateProcessW(nullptr, &line[0], nullptr, nullptr, FALSE, creation, nullptr, nullptr, &startup, &info)) {
        const DWORD error = GetLastError();
        *processId = -1;
        return error == ERROR_FILE_NOT_FOUND ? 4 : error == ERROR_ACCESS_DENIED ? 6 : error == ERROR_BAD_EXE_FORMAT ? 5 : 1;
    }
    if (flags & 1) {
        for (;;) {
            const DWORD result = MsgWaitForMultipleObjects(1, &info.hProcess, FALSE, INFINITE, 0x1CFF);
            if (result != WAIT_OBJECT_0 + 1 && result != WAIT_TIMEOUT)
                break;
            QCoreApplication::processEvents();
        }
    }
    DWORD code = 0;
    GetExitCodeProcess(info.hProcess, &code);
    if (code == STILL_ACTIVE) {
        *processId = static_cast<int>(info.dwProcessId);
        *exitCode = 0;
    } else {
        *exitCode = code;
        *processId = -1;
    }
    CloseHandle(info.hProcess);
    CloseHandle(info.hThread);
    return 0;
}

#endif
