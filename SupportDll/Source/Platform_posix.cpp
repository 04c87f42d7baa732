// Platform_posix.cpp - the core library's platform seam on POSIX hosts.
#include "Platform_p.h"
#include "FolderOf_p.h"
#include "ProcessServices.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <signal.h>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#if defined(__APPLE__)
#include <mach-o/dyld.h>
#endif

namespace platform {

// Files are opened close-on-exec, so that no program the suite starts holds a user's file open.
FILE* openFile(const char* utf8Path, const char* mode)
{
#if defined(__GLIBC__)
    char closing[16];
    if (std::strlen(mode) < sizeof closing - 1) {
        std::strcpy(closing, mode);
        std::strcat(closing, "e");
        return std::fopen(utf8Path, closing);
    }
#endif
    FILE* file = std::fopen(utf8Path, mode);
    if (file)
        (void)::fcntl(fileno(file), F_SETFD, FD_CLOEXEC);
    return file;
}

int seekFile(FILE* file, long long offset) { return fseeko(file, static_cast<off_t>(offset), SEEK_SET); }

int seekFileToEnd(FILE* file) { return fseeko(file, 0, SEEK_END); }

long long tellFile(FILE* file) { return static_cast<long long>(ftello(file)); }

int removeFile(const char* utf8Path) { return ::unlink(utf8Path) == 0 ? 0 : -1; }

int renameFile(const char* from, const char* to) { return std::rename(from, to) == 0 ? 0 : -1; }

bool exists(const char* utf8Path)
{
    struct stat st;
    return ::stat(utf8Path, &st) == 0;
}

bool isDirectory(const char* utf8Path)
{
    struct stat st;
    return ::stat(utf8Path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool isRegularFile(const char* utf8Path)
{
    struct stat st;
    return ::stat(utf8Path, &st) == 0 && S_ISREG(st.st_mode);
}

bool isRegularFile(FILE* file)
{
    struct stat st;
    return file && ::fstat(fileno(file), &st) == 0 && S_ISREG(st.st_mode);
}

long long fileSize(const char* utf8Path)
{
    struct stat st;
    if (::stat(utf8Path, &st) != 0)
        return -1;
    return static_cast<long long>(st.st_size);
}

long long fileSize(FILE* file)
{
    struct stat st;
    if (!file || ::fstat(fileno(file), &st) != 0)
        return -1;
    return static_cast<long long>(st.st_size);
}

long long modifiedTime(const char* utf8Path)
{
    struct stat st;
    if (::stat(utf8Path, &st) != 0)
        return -1;
    return static_cast<long long>(st.st_mtime);
}

long long modifiedTime(FILE* file)
{
    struct stat st;
    if (::fstat(fileno(file), &st) != 0)
        return -1;
    return static_cast<long long>(st.st_mtime);
}

YString tempDirectory()
{
    const char* dir = std::getenv("TMPDIR");
    std::string d = (dir && *dir) ? dir : "/tmp";
    while (d.size() > 1 && d.back() == '/')
        d.pop_back();
    return YString(d.c_str());
}

YString createUniqueFile(const YString& dir)
{
    std::string pattern = dir.str() + "/kvtmpXXXXXX";
    int fd = ::mkstemp(&pattern[0]);
    if (fd < 0)
        return YString();
    ::close(fd);
    return YString(pattern.c_str());
}

YString executableDirectory()
{
    std::string path;
#if defined(__APPLE__)
    char buffer[PATH_MAX];
    uint32_t size = sizeof buffer;
    if (_NSGetExecutablePath(buffer, &size) == 0)
        path = buffer;
#else
    char buffer[PATH_MAX + 1];
    ssize_t n = ::readlink("/proc/self/exe", buffer, PATH_MAX);
    if (n > 0)
        path.assign(buffer, static_cast<size_t>(n));
#endif
    return YString(folderOf(path, "/", false).c_str());
}

bool getEnvironment(const char* name, YString* value)
{
    const char* v = std::getenv(name);
    if (!v)
        return false;
    *value = YString(v);
    return true;
}

double monotonicSeconds()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

void adviseLargeBlock(void* block, size_t bytes)
{
#ifdef MADV_HUGEPAGE
    // Only the pages wholly inside the block: the C library may have cut it from the heap, where the
    // pages at its ends hold neighbouring blocks that the advice must not reach.
    const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(block) + page - 1) & ~(page - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(block) + bytes) & ~(page - 1);
    if (end <= begin)
        return;
    madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#else
    (void)block;
    (void)bytes;
#endif
}

int pidFromQtPid(long long qtPid)
{
    return (qtPid > 0 && qtPid <= INT_MAX) ? static_cast<int>(qtPid) : -1;
}

bool processRunning(int pid)
{
    if (pid <= 0)
        return false;
    if (::kill(pid, 0) != 0 && errno != EPERM)
        return false;
#if defined(__linux__)
    // An exited child that has not been reaped still answers kill(); its state letter is Z.
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
    FILE* f = std::fopen(path, "re");
    if (f) {
        char line[512];
        size_t n = std::fread(line, 1, sizeof line - 1, f);
        std::fclose(f);
        line[n] = '\0';
        const char* close = std::strrchr(line, ')');
        if (close && close[1] == ' ' && (close[2] == 'Z' || close[2] == 'X'))
            return false;
    }
#endif
    return true;
}

bool setPriority(int pid, int threadPriority)
{
    if (pid <= 0)
        return false;
    int nice = 0;
    switch (threadPriority) {
    case ThreadPriorityNormal: nice = 0; break;
    case ThreadPriorityHigh: nice = -5; break;
    case ThreadPriorityLow: nice = 10; break;
    default: return false;
    }
    return ::setpriority(PRIO_PROCESS, static_cast<id_t>(pid), nice) == 0;
}

int getPriority(int pid)
{
    if (pid <= 0 || !processRunning(pid))
        return -1;
    errno = 0;
    int nice = ::getpriority(PRIO_PROCESS, static_cast<id_t>(pid));
    if (nice == -1 && errno != 0)
        return -1;
    if (nice < 0)
        return ThreadPriorityHigh;
    if (nice > 0)
        return ThreadPriorityLow;
    return ThreadPriorityNormal;
}

int currentProcessId() { return static_cast<int>(::getpid()); }

int verifySignature(const char* utf8Path)
{
    // Opened without waiting for a writer, and read only when it is a regular file: a FIFO or a device
    // named as a module is no module, found at once rather than holding the caller.
    const int fd = ::open(utf8Path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return -1;
    unsigned char magic[4] = {0, 0, 0, 0};
    size_t n = 0;
    struct stat st;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        while (n < sizeof magic) {
            const ssize_t got = ::read(fd, magic + n, sizeof magic - n);
            if (got > 0)
                n += static_cast<size_t>(got);
            else if (got == 0 || errno != EINTR)
                break;
        }
    }
    ::close(fd);
    if (n == 4 && magic[0] == 0x7F && magic[1] == 'E' && magic[2] == 'L' && magic[3] == 'F')
        return 0;
    const unsigned m = static_cast<unsigned>(magic[0]) | (static_cast<unsigned>(magic[1]) << 8) |
                       (static_cast<unsigned>(magic[2]) << 16) | (static_cast<unsigned>(magic[3]) << 24);
    if (n == 4 && (m == 0xFEEDFACFu || m == 0xFEEDFACEu || m == 0xCAFEBABEu || m == 0xBEBAFECAu))
        return 0;
    return 2;
}

void writeConsole(const char* text, size_t length)
{
    std::fwrite(text, 1, length, stdout);
    std::fflush(stdout);
}

std::string foldCase(const std::string& utf8)
{
    std::string folded = utf8;
    for (char& c : folded)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return folded;
}

} // namespace platform
