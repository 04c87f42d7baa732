// ChildProgram.cpp - the child that the process and web-page tests start, on every platform. A test
// copies it under the name it needs and writes its steps beside the copy, in a file of the same name
// with the suffix ".steps" (the way a test elsewhere would write a shell script). One step per line:
//   out TEXT       writes TEXT and a line feed to standard output
//   err TEXT       the same on standard error
//   outargs TEXT   writes TEXT, then each argument after a blank, then a line feed, to standard output
//   sleep MS       waits MS milliseconds
//   flood MB       writes MB mebibytes of text to standard output
//   flooderr MB    the same on standard error
//   echoin         copies standard input to standard output until its end
//   exit N         ends with exit code N
//   signal N       raises signal N (POSIX; a signal that ends the process ends the child)
//   waitfor PATH   waits until PATH exists (a minute at most)
//   exitargc       ends with the number of arguments as exit code
//   pidfile PATH   writes the process id to PATH (through PATH.tmp, renamed, so never seen empty)
//   args PATH      appends each argument as one line to PATH (through PATH.part, renamed)
//   fds PATH       writes the number of each open descriptor above 2, one per line (POSIX)
//   status PATH    copies the system's status text of the process to PATH (Linux; empty elsewhere)
//   startup PATH   writes "flags show" of the start-up information the child was given (Windows)
// Without a steps file the child ends at once with exit code 0.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#ifdef _WIN32
#define WIN32_LEAN_AND_MEAN
#include <fcntl.h>
#include <io.h>
#include <windows.h>
#else
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>
#endif

namespace {

std::string ownPath()
{
#ifdef _WIN32
    wchar_t wide[32768];
    const DWORD n = GetModuleFileNameW(nullptr, wide, 32768);
    const int bytes = WideCharToMultiByte(CP_UTF8, 0, wide, static_cast<int>(n), nullptr, 0, nullptr, nullptr);
    std::string path(static_cast<size_t>(bytes), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide, static_cast<int>(n), &path[0], bytes, nullptr, nullptr);
    return path;
#else
    char buffer[PATH_MAX + 1];
    const ssize_t n = readlink("/proc/self/exe", buffer, PATH_MAX);
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
#endif
}

int processId()
{
#ifdef _WIN32
    return static_cast<int>(GetCurrentProcessId());
#else
    return static_cast<int>(getpid());
#endif
}

// The steps file: the program's own path with ".exe" (if any) replaced by ".steps".
std::string stepsPath()
{
    std::string path = ownPath();
    const std::string exe = ".exe";
    if (path.size() > exe.size() && path.compare(path.size() - exe.size(), exe.size(), exe) == 0)
        path.resize(path.size() - exe.size());
    return path + ".steps";
}

bool moveInto(const std::string& from, const std::string& to)
{
#ifdef _WIN32
    return MoveFileExA(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING) != 0;
#else
    return std::rename(from.c_str(), to.c_str()) == 0;
#endif
}

} // namespace

int main(int argc, char** argv)
{
#ifdef _WIN32
    // Lines end in a line feed alone, as on every other system.
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
#endif
    std::ifstream steps(stepsPath());
    std::string line;
    while (std::getline(steps, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        const size_t blank = line.find(' ');
        const std::string verb = line.substr(0, blank);
        const std::string rest = blank == std::string::npos ? std::string() : line.substr(blank + 1);
        if (verb == "out") {
            std::fprintf(stdout, "%s\n", rest.c_str());
            std::fflush(stdout);
        } else if (verb == "outargs") {
            std::string text = rest;
            for (int i = 1; i < argc; ++i)
                text += std::string(" ") + argv[i];
            std::fprintf(stdout, "%s\n", text.c_str());
            std::fflush(stdout);
        } else if (verb == "err") {
            std::fprintf(stderr, "%s\n", rest.c_str());
            std::fflush(stderr);
        } else if (verb == "flood" || verb == "flooderr") {
            FILE* const to = verb == "flood" ? stdout : stderr;
            const std::string block(1024 * 1024 - 1, 'x');
            for (int i = 0; i < std::atoi(rest.c_str()); ++i) {
                std::fwrite(block.data(), 1, block.size(), to);
                std::fputc('\n', to);
            }
            std::fflush(to);
        } else if (verb == "echoin") {
            char buffer[4096];
            for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, stdin)) > 0;)
                std::fwrite(buffer, 1, n, stdout);
            std::fflush(stdout);
        } else if (verb == "sleep") {
            std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(rest.c_str())));
        } else if (verb == "waitfor") {
            // Waits until the test creates the named file, so the test decides when the child may go on;
            // after a minute the child goes on anyway rather than outlive a test that failed.
            for (int i = 0; i < 6000 && !std::ifstream(rest).good(); ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
        } else if (verb == "exit") {
            return std::atoi(rest.c_str());
        } else if (verb == "signal") {
            std::raise(std::atoi(rest.c_str()));
        } else if (verb == "exitargc") {
            return argc - 1;
        } else if (verb == "pidfile") {
            std::ofstream(rest + ".tmp", std::ios::binary) << processId() << "\n";
            moveInto(rest + ".tmp", rest);
        } else if (verb == "args") {
            {
                std::ofstream record(rest + ".part", std::ios::binary | std::ios::app);
                for (int i = 1; i < argc; ++i)
                    record << argv[i] << "\n";
            }
            moveInto(rest + ".part", rest);
        } else if (verb == "status") {
            {
                std::ofstream out(rest + ".tmp", std::ios::binary);
                std::ifstream status("/proc/self/status", std::ios::binary);
                out << status.rdbuf();
            }
            moveInto(rest + ".tmp", rest);
        } else if (verb == "fds") {
            // Looked at before the record is opened, which takes a descriptor of its own.
            std::string open;
#ifndef _WIN32
            for (int fd = 3; fd < 1024; ++fd)
                if (::fcntl(fd, F_GETFD) != -1)
                    open += std::to_string(fd) + "\n";
#endif
            std::ofstream(rest + ".tmp", std::ios::binary) << open;
            moveInto(rest + ".tmp", rest);
        } else if (verb == "startup") {
            std::ofstream out(rest + ".tmp", std::ios::binary);
#ifdef _WIN32
            STARTUPINFOW startup;
            GetStartupInfoW(&startup);
            out << startup.dwFlags << " " << startup.wShowWindow << "\n";
#else
            out << "0 0\n";
#endif
            out.close();
            moveInto(rest + ".tmp", rest);
        }
    }
    return 0;
}
