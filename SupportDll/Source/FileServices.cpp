// FileServices.cpp - UTF-8 file functions and host-independent path services.
#include "FileServices.h"
#include "FolderOf_p.h"
#include "Platform_p.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace {

std::mutex& exeDirMutex()
{
    static std::mutex m;
    return m;
}

YString& exeDirOverride()
{
    static YString dir;
    return dir;
}

inline bool isSeparator(char c) { return c == '/' || c == '\\'; }

// The path as two names of one file compare: separators alike, runs of them as one, "." parts and a
// trailing separator left out (".." is kept: through a link it need not lead back), case folded where
// names ignore it. A drive's root ("C:/") stays as it is, and on Windows a leading "//" (a share).
std::string normalisedForCompare(const char* path)
{
    std::string s(path ? path : "");
    for (char& c : s)
        if (c == '\\')
            c = '/';
    if (!sp_CaseSensitiveFiles())
        s = platform::foldCase(s);
    std::string out;
    size_t i = 0;
    if (s.size() >= 2 && s[1] == ':' && ((s[0] >= 'a' && s[0] <= 'z') || (s[0] >= 'A' && s[0] <= 'Z'))) {
        out = s.substr(0, 2);
        i = 2;
    }
#if defined(_WIN32)
    if (s.compare(i, 2, "//") == 0 && out.empty())
        out = "/";
#endif
    if (i < s.size() && s[i] == '/')
        out += '/';
    const size_t root = out.size();
    while (i < s.size()) {
        while (i < s.size() && s[i] == '/')
            ++i;
        const size_t end = std::min(s.find('/', i), s.size());
        const std::string part = s.substr(i, end - i);
        if (!part.empty() && part != ".") {
            if (out.size() > root)
                out += '/';
            out += part;
        }
        i = end;
    }
    // "." alone names the current folder, which an empty path does not.
    if (out.empty() && !s.empty())
        out = ".";
    return out;
}

} // namespace

FILE* fopen_utf8(const char* path, const char* mode)
{
    if (!path || !mode) {
        errno = EINVAL;
        return nullptr;
    }
    return platform::openFile(path, mode);
}

int fopen_s_utf8(FILE** out, const char* path, const char* mode)
{
    if (!out)
        return EINVAL;
    errno = 0;
    *out = fopen_utf8(path, mode);
    if (*out)
        return 0;
    return errno ? errno : EINVAL;
}

int unlink_utf8(const char* path) { return path ? platform::removeFile(path) : -1; }

int rename_utf8(const char* from, const char* to) { return from && to ? platform::renameFile(from, to) : -1; }

bool sp_ExistFile(const char* path) { return path && *path && platform::exists(path); }

bool sp_IsDirectory(const char* path) { return path && *path && platform::isDirectory(path); }

long long sp_GetFileSize64(const char* path) { return path && *path ? platform::fileSize(path) : -1; }

FILE* sp_OpenRegularFile(const char* path, long long maxBytes, long long* size)
{
    if (!path || !*path || !platform::isRegularFile(path))
        return nullptr;
    FILE* f = fopen_utf8(path, "rb");
    if (!f)
        return nullptr;
    // The size is the open file's own: the name may have come to name another file since the check.
    const long long bytes = platform::fileSize(f);
    if (!platform::isRegularFile(f) || bytes < 0 || bytes > maxBytes) {
        std::fclose(f);
        return nullptr;
    }
    if (size)
        *size = bytes;
    return f;
}

long long sp_GetFileModifiedTime(const YString& path)
{
    return path.isEmpty() ? -1 : platform::modifiedTime(path.c_str());
}

long long sp_GetFileModifiedTime(FILE* file) { return file ? platform::modifiedTime(file) : -1; }

YString sp_GetTempPath() { return sp_ConvertLocalToUnix(platform::tempDirectory()); }

YString sp_GetTempFile() { return sp_ConvertLocalToUnix(platform::createUniqueFile(platform::tempDirectory())); }

YString sp_GetExeDir()
{
    {
        std::lock_guard<std::mutex> lock(exeDirMutex());
        if (!exeDirOverride().isEmpty())
            return exeDirOverride();
    }
    return sp_ConvertLocalToUnix(platform::executableDirectory());
}

void sp_SetExeDir(const YString& dir)
{
    std::lock_guard<std::mutex> lock(exeDirMutex());
    exeDirOverride() = sp_CleanPath(dir);
}

YString sp_CleanPath(const YString& path)
{
    std::string s = path.str();
    if (s.empty())
        return YString();
    std::string prefix;
    size_t i = 0;
    if (s.size() >= 2 && s[1] == ':' && ((s[0] >= 'A' && s[0] <= 'Z') || (s[0] >= 'a' && s[0] <= 'z'))) {
        prefix = s.substr(0, 2);
        i = 2;
    }
    bool absolute = false;
    if (i < s.size() && isSeparator(s[i])) {
        absolute = true;
        if (prefix.empty() && i + 1 < s.size() && isSeparator(s[i + 1]) && (i + 2 >= s.size() || !isSeparator(s[i + 2]))) {
            prefix = "/"; // UNC "//server/share" keeps its double slash
            ++i;
        }
    }
    std::vector<std::string> segments;
    std::string current;
    auto flush = [&]() {
        if (current.empty() || current == ".") {
        } else if (current == "..") {
            if (!segments.empty() && segments.back() != "..")
                segments.pop_back();
            else if (!absolute)
                segments.push_back("..");
        } else {
            segments.push_back(current);
        }
        current.clear();
    };
    for (; i < s.size(); ++i) {
        if (isSeparator(s[i]))
            flush();
        else
            current.push_back(s[i]);
    }
    flush();
    std::string out = prefix;
    if (absolute)
        out += '/';
    for (size_t k = 0; k < segments.size(); ++k) {
        if (k)
            out += '/';
        out += segments[k];
    }
    if (out.empty())
        out = ".";
    return YString(out.c_str());
}

YString sp_ConvertLocalToUnix(const YString& path)
{
    std::string s = path.str();
    for (char& c : s)
        if (c == '\\')
            c = '/';
    return YString(s.c_str());
}

bool sp_TranslateSystemPath(const char* in, YString* out)
{
    if (!in || !out)
        return false;
    std::string result;
    bool allKnown = true;
    const char* p = in;
    while (*p) {
        if (*p == '%') {
            const char* close = std::strchr(p + 1, '%');
            if (close && close > p + 1) {
                std::string name(p + 1, close);
                YString value;
                if (YString(name.c_str()).equalsNoCase("EXEPATH")) {
                    result += sp_GetExeDir().str();
                    p = close + 1;
                    continue;
                }
                if (platform::getEnvironment(name.c_str(), &value)) {
                    result += value.str();
                    p = close + 1;
                    continue;
                }
                allKnown = false;
                result.append(p, static_cast<size_t>(close + 1 - p));
                p = close + 1;
                continue;
            }
        }
        result.push_back(*p++);
    }
    *out = YString(result.c_str());
    return allKnown;
}

void sp_SplitPath(const YString& path, YString* directory, YString* fileName)
{
    const std::string& s = path.str();
    size_t cut = s.find_last_of("/\\");
    if (cut == std::string::npos) {
        if (directory)
            *directory = YString();
        if (fileName)
            *fileName = path;
        return;
    }
    if (directory)
        *directory = YString(platform::folderOf(s, "/\\", true).c_str());
    if (fileName)
        *fileName = YString(s.substr(cut + 1).c_str());
}

int sp_ComparePaths(const char* a, const char* b)
{
    std::string x = normalisedForCompare(a);
    std::string y = normalisedForCompare(b);
    int c = x.compare(y);
    return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

bool sp_CaseSensitiveFiles()
{
#if defined(_WIN32)
    return false;
#else
    return true;
#endif
}

const char* sp_GetSharedLibraryFilter()
{
#if defined(_WIN32)
    return "*.dll";
#elif defined(__APPLE__)
    return "*.dylib";
#else
    return "*.so";
#endif
}
