// fuzz_glob.cpp - wildcard matching: the position is -1 or inside the text (in UTF-16 units).
#include "FuzzSupport.h"
#include "PatternMatch.h"

#include <QString>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t split = input.find('\n');
    const std::string pattern = input.substr(0, split).c_str();
    const std::string text = split == std::string::npos ? std::string() : std::string(input.substr(split + 1).c_str());
    const int at = sp_GlobMatch(pattern.c_str(), text.c_str());
    if (at < -1 || at > QString::fromUtf8(text.c_str()).size())
        __builtin_trap();
    return 0;
}
