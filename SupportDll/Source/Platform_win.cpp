// Platform_win.cpp - the core library's platform seam on Windows.
#include "Platform_p.h"
#include "FolderOf_p.h"
#include "ProcessServices.h"
#include "TextServices.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#include "SystemPath_p.h"
#include <softpub.h>
#include <wintrust.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <io.h>
#include <mutex>
#include <share.h>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

#ifdef _MSC_VER
#pragma comment(lib, "wintrust.lib")
#endif

namespace {

std::wstring wide(const char* utf8)
{
    int n = MultiByteToWideChar(CP_UTF8, 0, utf8, -1, nullptr, 0);
    if (n <= 0)
        return std::wstring();
    std::wstring w(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, utf8, -1, &w[0], n);
    w.resize(static_cast<size_t>(n - 1));
    return w;
}

// A path in UTF-8 as the system's UTF-16, or empty when it is not valid UTF-8: an empty path names no
// file, where replacing the bad bytes would name a different one.
std::wstring widePath(const char* utf8)
{
    const int n = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8, -1, nullptr, 0);
    if (n <= 0)
        return std::wstring();
    std::wstring w(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8, -1, &w[0], n);
    w.resize(static_cast<size_t>(n - 1));
    return w;
}

// A path in UTF-8 as the system's file functions take it, whatever its length (see systemPath); empty
// when it is not valid UTF-8.
std::wstring systemWidePath(const char* utf8)
{
    const std::wstring path = widePath(utf8);
    return path.empty() ? path : platform::systemPath(path);
}

YString narrow(const wchar_t* w)
{
    int n = WideCharToMultiByte(CP_UTF8, 0, w, -1, nullptr, 0, nullptr, nullptr);
    if (n <= 0)
        return YString();
    std::string s(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(CP_UTF8, 0, w, -1, &s[0], n, nullptr, nullptr);
    s.resize(static_cast<size_t>(n - 1));
    return YString(s.c_str());
}

long long fileTimeToUnix(const FILETIME& ft)
{
    ULARGE_INTEGER t;
    t.LowPart = ft.dwLowDateTime;
    t.HighPart = ft.dwHighDateTime;
    return static_cast<long long>(t.QuadPart / 10000000ULL) - 11644473600LL;
}

// The C runtime's error code for a system error, as its own opens give it.
int errnoOf(DWORD error)
{
    switch (error) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_INVALID_DRIVE:
    case ERROR_NO_MORE_FILES:
    case ERROR_BAD_NETPATH:
    case ERROR_BAD_NET_NAME:
    case ERROR_BAD_PATHNAME:
    case ERROR_FILENAME_EXCED_RANGE:
        return ENOENT;
    case ERROR_TOO_MANY_OPEN_FILES:
        return EMFILE;
    case ERROR_NOT_ENOUGH_MEMORY:
    case ERROR_NOT_ENOUGH_QUOTA:
        return ENOMEM;
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS:
        return EEXIST;
    case ERROR_DISK_FULL:
        return ENOSPC;
    case ERROR_ACCESS_DENIED:
    case ERROR_CURRENT_DIRECTORY:
    case ERROR_NETWORK_ACCESS_DENIED:
    case ERROR_CANNOT_MAKE:
    case ERROR_FAIL_I24:
    case ERROR_DRIVE_LOCKED:
    case ERROR_LOCK_FAILED:
        return EACCES;
    default:
        // Write protection to the end of the sharing errors (sharing and lock violations among them).
        return error >= ERROR_WRITE_PROTECT && error <= ERROR_SHARING_BUFFER_EXCEEDED ? EACCES : EINVAL;
    }
}

// The C runtime's open, for the modes that only it reads. The handle is not inherited: children that Qt
// starts inherit every inheritable handle, and one that held the file open would keep it from being
// renamed or deleted until it ended. A mode of "r", "w" or "a", "+", and "b" or "t" is opened as the
// runtime's fopen opens it, but with _O_NOINHERIT, so that the handle is never inheritable, not even for
// a moment in which another thread starts a child; a mode with other letters goes to _wfopen, and its
// handle is made non-inheritable after. (The mode letter "N" says the same, but not every C runtime knows
// it.)
FILE* runtimeOpen(const char* utf8Path, const char* mode)
{
    const std::wstring path = systemWidePath(utf8Path), wideMode = wide(mode);
    int flags = 0;
    bool translated = true, update = false;
    const char kind = *mode; // blanks before a mode are skipped by the caller
    for (const char* c = kind ? mode + 1 : mode; *c && translated; ++c) {
        if (*c == '+' && !update)
            update = true;
        else if (*c == 't' && !(flags & (_O_TEXT | _O_BINARY)))
            flags |= _O_TEXT;
        else if (*c == 'b' && !(flags & (_O_TEXT | _O_BINARY)))
            flags |= _O_BINARY;
        else
            translated = false;
    }
    if (translated && (kind == 'r' || kind == 'w' || kind == 'a')) {
        flags |= update ? _O_RDWR : kind == 'r' ? _O_RDONLY : _O_WRONLY;
        flags |= kind == 'w' ? _O_CREAT | _O_TRUNC : kind == 'a' ? _O_CREAT | _O_APPEND : 0;
        int fd = -1;
        const errno_t error = _wsopen_s(&fd, path.c_str(), flags | _O_NOINHERIT, _SH_DENYNO, _S_IREAD | _S_IWRITE);
        if (error != 0 || fd == -1) {
            errno = error != 0 ? error : EINVAL;
            return nullptr;
        }
        FILE* file = _wfdopen(fd, wideMode.c_str());
        if (!file) {
            _close(fd);
            errno = EMFILE;
        }
        return file;
    }
    FILE* file = _wfopen(path.c_str(), wideMode.c_str());
    if (file)
        SetHandleInformation(reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file))), HANDLE_FLAG_INHERIT, 0);
    return file;
}

// Whether the runtime opens files in binary mode when a mode names neither "b" nor "t" (the program
// may have chosen so); text mode otherwise.
bool binaryByDefault()
{
#ifdef _MSC_VER
    int mode = 0;
    _get_fmode(&mode);
    return (mode & _O_BINARY) != 0;
#else
    return (_fmode & _O_BINARY) != 0;
#endif
}

// Renames the file open as `handle` to `path`, not over another file.
bool renameByHandle(HANDLE handle, const std::wstring& path)
{
    std::vector<char> buffer(sizeof(FILE_RENAME_INFO) + (path.size() + 1) * sizeof(wchar_t));
    auto* info = reinterpret_cast<FILE_RENAME_INFO*>(buffer.data());
    info->ReplaceIfExists = FALSE;
    info->RootDirectory = nullptr;
    info->FileNameLength = static_cast<DWORD>(path.size() * sizeof(wchar_t));
    std::memcpy(info->FileName, path.c_str(), (path.size() + 1) * sizeof(wchar_t));
    return SetFileInformationByHandle(handle, FileRenameInfo, info, static_cast<DWORD>(buffer.size())) != 0;
}

bool markForDeletion(HANDLE handle, bool deleted)
{
    FILE_DISPOSITION_INFO info;
    info.DeleteFile = deleted ? TRUE : FALSE;
    return SetFileInformationByHandle(handle, FileDispositionInfo, &info, sizeof info) != 0;
}

// After a move over `to` failed: a file that someone holds open, sharing its deletion (as the library
// opens files), cannot be replaced by a move, but it can be moved aside and deleted, as a POSIX system
// replaces it; the holder reads on from it, and it goes when the last holder closes it. Only a writable
// regular file that may be deleted is replaced so, and only by a file; anything else fails as the move
// did, and leaves both as they were.
bool moveOverHeldFile(const std::wstring& from, const std::wstring& to)
{
    const DWORD error = GetLastError();
    const DWORD notAFile = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE;
    const DWORD source = GetFileAttributesW(from.c_str()), target = GetFileAttributesW(to.c_str());
    if ((error != ERROR_ACCESS_DENIED && error != ERROR_SHARING_VIOLATION) || source == INVALID_FILE_ATTRIBUTES ||
        (source & notAFile) || target == INVALID_FILE_ATTRIBUTES || (target & (notAFile | FILE_ATTRIBUTE_READONLY)))
        return false;
    // The old file is taken by a handle of its own (a link itself, as a rename replaces a link): renamed
    // aside through it, the new file moved in, and the old one marked to go when its last holder closes
    // it. A file that may not be deleted (a running program) refuses the mark, and everything is put
    // back; until the mark, the old file is never lost, even if the process ends on the way.
    const HANDLE old = CreateFileW(to.c_str(), DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                   OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (old == INVALID_HANDLE_VALUE)
        return false;
    static std::atomic<unsigned> serial{0};
    bool aside = false;
    for (int attempt = 0; attempt < 16 && !aside; ++attempt) {
        // The name aside is longer than the target's: it may need the long form where the target did not.
        aside = renameByHandle(old, platform::systemPath(to + L".old-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                                                         std::to_wstring(serial++)));
        if (!aside && GetLastError() != ERROR_ALREADY_EXISTS && GetLastError() != ERROR_FILE_EXISTS)
            break;
    }
    bool replaced = false;
    if (aside) {
        const bool movedIn = MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
        replaced = movedIn && markForDeletion(old, true);
        if (movedIn && !replaced)
            MoveFileExW(to.c_str(), from.c_str(), MOVEFILE_WRITE_THROUGH);
        if (!replaced)
            renameByHandle(old, to);
    }
    CloseHandle(old);
    return replaced;
}

// The size and times of the file a path names. A symbolic link or junction is followed to its target,
// as stat follows one: the path's own attributes would be the link's (size 0, the link's times).
bool targetAttributes(const char* utf8Path, WIN32_FILE_ATTRIBUTE_DATA* data)
{
    const std::wstring path = systemWidePath(utf8Path);
    if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, data))
        return false;
    if (!(data->dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT))
        return true;
    // No access is asked for: attributes are readable even while another program holds the file.
    const HANDLE h = CreateFileW(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                 OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return false;
    BY_HANDLE_FILE_INFORMATION info;
    const bool read = GetFileInformationByHandle(h, &info) != 0;
    CloseHandle(h);
    if (!read)
        return false;
    data->dwFileAttributes = info.dwFileAttributes;
    data->ftCreationTime = info.ftCreationTime;
    data->ftLastAccessTime = info.ftLastAccessTime;
    data->ftLastWriteTime = info.ftLastWriteTime;
    data->nFileSizeHigh = info.nFileSizeHigh;
    data->nFileSizeLow = info.nFileSizeLow;
    return true;
}

// Whether the runtime reads `mode` (after its first letter) without calling its invalid-parameter
// handler, which ends the program: each of "+", "b" or "t" and its own letters once at most, not both
// "b" and "t", then an optional ",ccs=" encoding it knows.
bool runtimeTakesMode(const char* mode)
{
    std::string seen;
    for (; *mode && *mode != ','; ++mode) {
        if (*mode == ' ')
            continue;
        if (!std::strchr("+btcnNSRTD", *mode) || seen.find(*mode) != std::string::npos)
            return false;
        seen += *mode;
    }
    if (seen.find('b') != std::string::npos && seen.find('t') != std::string::npos)
        return false;
    if (!*mode)
        return true;
    const std::string rest(mode);
    return rest == ",ccs=UTF-8" || rest == ",ccs=UTF-16LE" || rest == ",ccs=UNICODE";
}

} // namespace

namespace platform {

// Opened with every share mode, so that others may rename and delete a file the library has open, as on
// POSIX systems: editors save by renaming a new file over the old one, which a file that _wfopen opened
// refuses until it is closed.
FILE* openFile(const char* utf8Path, const char* mode)
{
    while (*mode == ' ') // as the runtime reads a mode
        ++mode;
    const char kind = mode[0];
    // An empty name, or one that is not valid UTF-8, is no name of a file: the runtime's answer to an
    // invalid name.
    const std::wstring path = systemWidePath(utf8Path);
    if ((kind != 'r' && kind != 'w' && kind != 'a') || path.empty() || !runtimeTakesMode(mode + 1)) {
        errno = EINVAL;
        return nullptr;
    }
    bool update = false, binary = false, text = false, runtimeOnly = false;
    for (const char* m = mode + 1; *m; ++m) {
        if (*m == '+' && !update)
            update = true;
        else if ((*m == 'b' || *m == 't') && !binary && !text)
            (*m == 'b' ? binary : text) = true;
        else
            runtimeOnly = true;
    }
    const bool textMode = text || (!binary && !binaryByDefault());
    // The runtime's own mode letters are its to read, and so are the text modes that append or read and
    // write, whose open drops a final Ctrl-Z.
    if (runtimeOnly || (textMode && (update || kind == 'a')))
        return runtimeOpen(utf8Path, mode);
    const DWORD access = update ? GENERIC_READ | GENERIC_WRITE : kind == 'r' ? GENERIC_READ : GENERIC_WRITE;
    // A file to be emptied ("w") is emptied only once its stream exists, so that an open that fails for
    // want of a stream leaves it as it was, as the runtime's does; a file this call made goes again.
    // Null security attributes: the handle is not inherited (see runtimeOpen).
    const HANDLE handle = CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                      kind == 'r' ? OPEN_EXISTING : OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        errno = errnoOf(GetLastError());
        return nullptr;
    }
    // Only a file on disk is made, emptied or removed here: a device or pipe is written as it is.
    const bool existed = GetLastError() == ERROR_ALREADY_EXISTS;
    const bool disk = GetFileType(handle) == FILE_TYPE_DISK;
    const bool made = kind != 'r' && disk && !existed;
    // Once the handle (or the descriptor that took it over) is closed: the file this call made goes.
    const auto undo = [&](int error) -> FILE* {
        if (made)
            DeleteFileW(path.c_str());
        errno = error;
        return nullptr;
    };
    BY_HANDLE_FILE_INFORMATION info;
    // The runtime's "w" refuses a hidden or system file, as the system's creation over one does.
    if (kind == 'w' && disk && existed && GetFileInformationByHandle(handle, &info) &&
        (info.dwFileAttributes & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM))) {
        CloseHandle(handle);
        return undo(EACCES);
    }
    const int fd = _open_osfhandle(reinterpret_cast<intptr_t>(handle), (textMode ? _O_TEXT : _O_BINARY) | (kind == 'a' ? _O_APPEND : 0));
    if (fd == -1) {
        CloseHandle(handle);
        return undo(EMFILE);
    }
    FILE* file = _wfdopen(fd, wide(mode).c_str());
    if (!file) {
        _close(fd);
        return undo(EMFILE);
    }
    if (kind == 'w' && disk && existed && !SetEndOfFile(handle)) {
        const int error = errnoOf(GetLastError());
        std::fclose(file);
        errno = error;
        return nullptr;
    }
    return file;
}

int seekFile(FILE* file, long long offset) { return _fseeki64(file, offset, SEEK_SET); }

int seekFileToEnd(FILE* file) { return _fseeki64(file, 0, SEEK_END); }

long long tellFile(FILE* file) { return _ftelli64(file); }

int removeFile(const char* utf8Path) { return _wunlink(systemWidePath(utf8Path).c_str()) == 0 ? 0 : -1; }

int renameFile(const char* from, const char* to)
{
    const std::wstring source = systemWidePath(from), target = systemWidePath(to);
    if (MoveFileExW(source.c_str(), target.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
        return 0;
    // The move's own error is the one to report, as the runtime's rename does in errno.
    const DWORD error = GetLastError();
    if (moveOverHeldFile(source, target))
        return 0;
    errno = errnoOf(error);
    return -1;
}

bool exists(const char* utf8Path) { return GetFileAttributesW(systemWidePath(utf8Path).c_str()) != INVALID_FILE_ATTRIBUTES; }

bool isDirectory(const char* utf8Path)
{
    DWORD a = GetFileAttributesW(systemWidePath(utf8Path).c_str());
    return a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_DIRECTORY);
}

bool isRegularFile(const char* utf8Path)
{
    const DWORD a = GetFileAttributesW(systemWidePath(utf8Path).c_str());
    return a != INVALID_FILE_ATTRIBUTES && !(a & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE));
}

bool isRegularFile(FILE* file)
{
    if (!file)
        return false;
    const HANDLE h = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file)));
    return h != INVALID_HANDLE_VALUE && GetFileType(h) == FILE_TYPE_DISK;
}

long long fileSize(const char* utf8Path)
{
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!targetAttributes(utf8Path, &data))
        return -1;
    return (static_cast<long long>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

long long fileSize(FILE* file)
{
    const HANDLE h = file ? reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file))) : INVALID_HANDLE_VALUE;
    LARGE_INTEGER size;
    if (h == INVALID_HANDLE_VALUE || !GetFileSizeEx(h, &size))
        return -1;
    return static_cast<long long>(size.QuadPart);
}

long long modifiedTime(const char* utf8Path)
{
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!targetAttributes(utf8Path, &data))
        return -1;
    return fileTimeToUnix(data.ftLastWriteTime);
}

long long modifiedTime(FILE* file)
{
    HANDLE h = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file)));
    FILETIME written;
    if (h == INVALID_HANDLE_VALUE || !GetFileTime(h, nullptr, nullptr, &written))
        return -1;
    return fileTimeToUnix(written);
}

YString tempDirectory()
{
    // A longer folder than the buffer holds is answered with the size it needs: asked again with that.
    std::vector<wchar_t> buffer(MAX_PATH + 2);
    DWORD n = GetTempPathW(static_cast<DWORD>(buffer.size()), buffer.data());
    if (n >= buffer.size()) {
        buffer.resize(static_cast<size_t>(n) + 1);
        n = GetTempPathW(static_cast<DWORD>(buffer.size()), buffer.data());
    }
    // Without a temporary folder (the system refuses one that is too long), the Windows folder's own
    // "Temp": an absolute folder, never the current one.
    if (n == 0 || n >= buffer.size()) {
        n = GetWindowsDirectoryW(buffer.data(), static_cast<UINT>(buffer.size()));
        if (n == 0 || n >= buffer.size())
            return YString("C:\\Windows\\Temp");
        std::wstring folder(buffer.data(), n);
        while (!folder.empty() && (folder.back() == L'\\' || folder.back() == L'/'))
            folder.pop_back();
        return narrow((folder + L"\\Temp").c_str());
    }
    while (n > 3 && (buffer[n - 1] == L'\\' || buffer[n - 1] == L'/'))
        --n;
    buffer[n] = L'\0';
    return narrow(buffer.data());
}

// A name is tried until the system makes a file of it (CREATE_NEW fails on an existing one), so that no
// two callers get the same file. The names mix the time, the process and a serial of the process, so the
// first try nearly always succeeds; a folder that is missing or a path the system refuses fails at once.
YString createUniqueFile(const YString& dir)
{
    std::wstring folder = widePath(dir.c_str());
    if (folder.empty())
        return YString();
    if (folder.back() != L'\\' && folder.back() != L'/')
        folder += L'\\';
    static std::atomic<unsigned> serial{0};
    for (int attempt = 0; attempt < 100; ++attempt) {
        LARGE_INTEGER counter;
        QueryPerformanceCounter(&counter);
        const unsigned long long mix = (static_cast<unsigned long long>(counter.QuadPart) * 0x9E3779B97F4A7C15ULL) ^
                                       (static_cast<unsigned long long>(GetCurrentProcessId()) << 32) ^
                                       (static_cast<unsigned long long>(serial++) * 0xC2B2AE3D27D4EB4FULL);
        std::wstring name = folder + L"kv";
        for (int shift = 60; shift >= 0; shift -= 4)
            name += L"0123456789abcdef"[(mix >> shift) & 0xF];
        name += L".tmp";
        // Null security attributes: the handle is not inherited; it is closed at once anyway.
        const HANDLE handle = CreateFileW(platform::systemPath(name).c_str(), GENERIC_WRITE,
                                          FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, CREATE_NEW,
                                          FILE_ATTRIBUTE_NORMAL, nullptr);
        if (handle != INVALID_HANDLE_VALUE) {
            CloseHandle(handle);
            return narrow(name.c_str());
        }
        const DWORD error = GetLastError();
        if (error != ERROR_FILE_EXISTS && error != ERROR_ALREADY_EXISTS)
            break;
    }
    return YString();
}

YString executableDirectory()
{
    std::vector<wchar_t> buffer(32768);
    DWORD n = GetModuleFileNameW(nullptr, buffer.data(), static_cast<DWORD>(buffer.size()));
    if (n == 0)
        return YString(".");
    return narrow(folderOf(std::wstring(buffer.data(), n), L"\\/", true).c_str());
}

bool getEnvironment(const char* name, YString* value)
{
    std::wstring w = wide(name);
    DWORD n = GetEnvironmentVariableW(w.c_str(), nullptr, 0);
    if (n == 0)
        return false;
    std::vector<wchar_t> buffer(n);
    GetEnvironmentVariableW(w.c_str(), buffer.data(), n);
    *value = narrow(buffer.data());
    return true;
}

double monotonicSeconds()
{
    static LARGE_INTEGER frequency = [] {
        LARGE_INTEGER f;
        QueryPerformanceFrequency(&f);
        return f;
    }();
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    return static_cast<double>(now.QuadPart) / static_cast<double>(frequency.QuadPart);
}

// Large pages on Windows need a privilege that a user rarely holds, and cannot back a heap block.
void adviseLargeBlock(void*, size_t) {}

int pidFromQtPid(long long qtPid)
{
    // Qt's handle is a pointer to the system's PROCESS_INFORMATION. Values that cannot be one (negative,
    // in the never-mapped first 64 KiB, misaligned) or that point at memory that cannot be read give -1
    // instead of a crash.
    if (qtPid < 0x10000 || qtPid % alignof(PROCESS_INFORMATION) != 0)
        return -1;
    const PROCESS_INFORMATION* info = reinterpret_cast<const PROCESS_INFORMATION*>(static_cast<intptr_t>(qtPid));
    MEMORY_BASIC_INFORMATION region;
    if (VirtualQuery(info, &region, sizeof region) != sizeof region || region.State != MEM_COMMIT ||
        (region.Protect & (PAGE_NOACCESS | PAGE_GUARD)) != 0 ||
        reinterpret_cast<const char*>(info) + sizeof *info >
            static_cast<const char*>(region.BaseAddress) + region.RegionSize)
        return -1;
    return static_cast<int>(info->dwProcessId);
}

bool processRunning(int pid)
{
    if (pid <= 0)
        return false;
    // Asked of the process object itself: an exit code of 259 is indistinguishable from "still active".
    HANDLE h = OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(pid));
    if (h) {
        const bool running = WaitForSingleObject(h, 0) == WAIT_TIMEOUT;
        CloseHandle(h);
        return running;
    }
    // A process this one may not wait on (another user's) can still be asked for its exit code.
    h = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, static_cast<DWORD>(pid));
    if (!h)
        return false;
    DWORD code = 0;
    const bool running = GetExitCodeProcess(h, &code) && code == STILL_ACTIVE;
    CloseHandle(h);
    return running;
}

bool setPriority(int pid, int threadPriority)
{
    DWORD cls;
    switch (threadPriority) {
    case ThreadPriorityNormal: cls = NORMAL_PRIORITY_CLASS; break;
    case ThreadPriorityHigh: cls = HIGH_PRIORITY_CLASS; break;
    case ThreadPriorityLow: cls = IDLE_PRIORITY_CLASS; break;
    default: return false;
    }
    HANDLE h = OpenProcess(PROCESS_SET_INFORMATION, FALSE, static_cast<DWORD>(pid));
    if (!h)
        return false;
    bool ok = SetPriorityClass(h, cls) != 0;
    CloseHandle(h);
    return ok;
}

int getPriority(int pid)
{
    // A process that has ended has no priority, though its object lives on while a handle is open.
    if (!processRunning(pid))
        return -1;
    HANDLE h = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, static_cast<DWORD>(pid));
    if (!h)
        return -1;
    DWORD cls = GetPriorityClass(h);
    CloseHandle(h);
    switch (cls) {
    case HIGH_PRIORITY_CLASS:
    case REALTIME_PRIORITY_CLASS:
    case ABOVE_NORMAL_PRIORITY_CLASS: return ThreadPriorityHigh;
    case IDLE_PRIORITY_CLASS:
    case BELOW_NORMAL_PRIORITY_CLASS: return ThreadPriorityLow;
    case 0: return -1;
    default: return ThreadPriorityNormal;
    }
}

int currentProcessId() { return static_cast<int>(GetCurrentProcessId()); }

int verifySignature(const char* utf8Path)
{
    std::wstring path = systemWidePath(utf8Path);
    // A file that cannot be read is -1 on every platform; only readable files reach WinVerifyTrust.
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY))
        return -1;
    WINTRUST_FILE_INFO file = {};
    file.cbStruct = sizeof file;
    file.pcwszFilePath = path.c_str();
    GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
    WINTRUST_DATA data = {};
    data.cbStruct = sizeof data;
    data.dwUIChoice = WTD_UI_NONE;
    data.fdwRevocationChecks = WTD_REVOKE_NONE;
    data.dwUnionChoice = WTD_CHOICE_FILE;
    data.pFile = &file;
    data.dwStateAction = WTD_STATEACTION_VERIFY;
    LONG status = WinVerifyTrust(static_cast<HWND>(INVALID_HANDLE_VALUE), &action, &data);
    data.dwStateAction = WTD_STATEACTION_CLOSE;
    WinVerifyTrust(static_cast<HWND>(INVALID_HANDLE_VALUE), &action, &data);
    return static_cast<int>(status);
}

void writeConsole(const char* text, size_t length)
{
    const HANDLE out = GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    if (out == nullptr || out == INVALID_HANDLE_VALUE || !GetConsoleMode(out, &mode)) {
        std::fwrite(text, 1, length, stdout);
        std::fflush(stdout);
        return;
    }
    // A console shows bytes in its own code page, not UTF-8: the text goes to it as UTF-16, after what
    // the C runtime still holds. A sequence that a call ends in the middle of waits for its last bytes.
    std::fflush(stdout);
    static std::mutex mutex;
    static std::string pending;
    std::lock_guard<std::mutex> lock(mutex);
    pending.append(text, length);
    const size_t complete = pending.size() - sp_UnfinishedUtf8Tail(pending.data(), pending.size());
    if (complete == 0)
        return;
    const std::wstring wideText = wide(pending.substr(0, complete).c_str());
    pending.erase(0, complete);
    // A console may take less than it is given.
    for (size_t done = 0; done < wideText.size();) {
        DWORD written = 0;
        if (!WriteConsoleW(out, wideText.data() + done, static_cast<DWORD>(wideText.size() - done), &written, nullptr) || written == 0)
            break;
        done += written;
    }
}

std::string foldCase(const std::string& utf8)
{
    std::string folded = utf8;
    for (char& c : folded)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    if (utf8.empty() || utf8.size() > 32767)
        return folded;
    // File names ignore the case of every letter, not of ASCII ones alone: folded by the system,
    // independent of the user's language.
    const int wide = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
    if (wide <= 0)
        return folded;
    std::wstring text(static_cast<size_t>(wide), L'\0');
    MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), static_cast<int>(utf8.size()), &text[0], wide);
    std::wstring lower(text.size(), L'\0');
    const int mapped = LCMapStringEx(LOCALE_NAME_INVARIANT, LCMAP_LOWERCASE, text.data(), wide, &lower[0], wide, nullptr, nullptr, 0);
    if (mapped != wide)
        return folded;
    const int bytes = WideCharToMultiByte(CP_UTF8, 0, lower.data(), wide, nullptr, 0, nullptr, nullptr);
    if (bytes <= 0)
        return folded;
    std::string result(static_cast<size_t>(bytes), '\0');
    WideCharToMultiByte(CP_UTF8, 0, lower.data(), wide, &result[0], bytes, nullptr, nullptr);
    return result;
}


} // namespace platform
