// ProcessServices.cpp - monotonic time and process services, forwarded to the platform seam.
#include "ProcessServices.h"
#include "Platform_p.h"

double sp_GetPerfTime() { return platform::monotonicSeconds(); }

int sp_GetPidFromQProcessPID(long long qtPid) { return platform::pidFromQtPid(qtPid); }

bool sp_IsProcessRunning(int pid) { return platform::processRunning(pid); }

bool sp_SetProcessPriority(int pid, ThreadPriority priority)
{
    return platform::processRunning(pid) && platform::setPriority(pid, static_cast<int>(priority));
}

int sp_GetProcessPriority(int pid)
{
    // An ended process whose handle someone still holds can still be asked on Windows: it has none.
    return platform::processRunning(pid) ? platform::getPriority(pid) : -1;
}

int sp_GetCurrentProcessId() { return platform::currentProcessId(); }
