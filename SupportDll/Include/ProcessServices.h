// ProcessServices.h - monotonic time and services on system process ids.
#pragma once

#include "SupportDllExport.h"

/// Scheduling priority of a process in the core library's numbering.
enum ThreadPriority {
    ThreadPriorityNormal = 0,
    ThreadPriorityHigh = 1,
    ThreadPriorityLow = 2
};

/// Monotonic time in seconds.
SUPPORTDLL_API double sp_GetPerfTime();
/// The system process id behind the value of a process handle as Qt reports it (on POSIX the id itself;
/// on Windows a PROCESS_INFORMATION pointer); -1 when none.
SUPPORTDLL_API int sp_GetPidFromQProcessPID(long long qtPid);
/// True while the process exists and has not ended (a process that has exited but not been reaped
/// counts as ended).
SUPPORTDLL_API bool sp_IsProcessRunning(int pid);
/// Sets the priority; false when the process does not exist or the change is refused.
[[nodiscard]] SUPPORTDLL_API bool sp_SetProcessPriority(int pid, ThreadPriority priority);
/// The priority as a `ThreadPriority` value, or -1 when the process does not exist.
SUPPORTDLL_API int sp_GetProcessPriority(int pid);
/// The id of the calling process.
SUPPORTDLL_API int sp_GetCurrentProcessId();
