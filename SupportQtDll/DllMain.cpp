// DllMain.cpp - the library's entry point on Windows: no thread attach and detach notifications.
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

// C linkage: the C runtime's start-up code calls the entry point by its plain name (a C++ name would
// leave the runtime's empty default in its place).
extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH)
        DisableThreadLibraryCalls(instance);
    return TRUE;
}
