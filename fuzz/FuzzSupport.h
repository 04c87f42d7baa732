// FuzzSupport.h - helpers shared by the fuzz targets: a per-process scratch file, the netlist byte
// filter, and a strict UTF-8 check.
#pragma once

#include "FileServices.h"
#include "ProcessServices.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

namespace fuzz {

/// The scratch paths handed out, removed when the process exits (a run that crashes keeps its files).
/// Never destroyed, so that it outlives the exit handler that reads it.
inline std::set<std::string>& scratchPaths()
{
    static std::set<std::string>* const paths = new std::set<std::string>;
    return *paths;
}

inline void removeScratchFiles()
{
    for (const std::string& path : scratchPaths())
        std::remove(path.c_str());
}

/// A file path in the temporary folder private to this process (one per `tag`); whatever is made
/// there is removed when the process exits.
inline std::string scratchPath(const char* tag)
{
    static const bool removedAtExit = std::atexit(removeScratchFiles) == 0;
    (void)removedAtExit;
    std::string path =
        std::string(sp_GetTempPath().c_str()) + "/supportqt-fuzz-" + std::to_string(sp_GetCurrentProcessId()) + "-" + tag;
    scratchPaths().insert(path);
    return path;
}

/// Writes `size` bytes to `path`; aborts when it cannot (the fuzzer's environment is broken then).
inline void writeFile(const std::string& path, const uint8_t* data, size_t size)
{
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f)
        std::abort();
    if (size)
        std::fwrite(data, 1, size, f);
    std::fclose(f);
}

inline std::string readFile(const std::string& path)
{
    std::string text;
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f)
        return text;
    char buffer[65536];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, f)) > 0;)
        text.append(buffer, n);
    std::fclose(f);
    return text;
}

/// The bytes a netlist reader keeps: tab, line feed and 32 to 254.
inline bool keeps(unsigned char c) { return c == 9 || c == 10 || (c >= 32 && c <= 254); }

/// Strict UTF-8: shortest forms only, no surrogates, nothing above U+10FFFF, no unfinished sequence.
inline bool strictUtf8(const std::string& s)
{
    size_t i = 0;
    while (i < s.size()) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        int n = 0;
        unsigned min = 0, cp = 0;
        if (c < 0x80) { ++i; continue; }
        if ((c & 0xE0) == 0xC0) { n = 1; cp = c & 0x1F; min = 0x80; }
        else if ((c & 0xF0) == 0xE0) { n = 2; cp = c & 0x0F; min = 0x800; }
        else if ((c & 0xF8) == 0xF0) { n = 3; cp = c & 0x07; min = 0x10000; }
        else return false;
        if (i + static_cast<size_t>(n) >= s.size())
            return false;
        for (int k = 1; k <= n; ++k) {
            const unsigned char d = static_cast<unsigned char>(s[i + static_cast<size_t>(k)]);
            if ((d & 0xC0) != 0x80)
                return false;
            cp = (cp << 6) | (d & 0x3F);
        }
        if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += static_cast<size_t>(n) + 1;
    }
    return true;
}

} // namespace fuzz
