// fuzz_regexp_matches.cpp - sequential tokenising: the lines of the input before the last are the
// patterns, the last is the text. At most one piece per pattern is appended.
#include "FuzzSupport.h"
#include "PatternMatch.h"

#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), size));
    YArray<YString> patterns;
    size_t start = 0;
    for (size_t at = input.find('\n'); at != std::string::npos && patterns.count() < 8; at = input.find('\n', start)) {
        patterns.append(YString(input.substr(start, at - start).c_str()));
        start = at + 1;
    }
    YArray<YString> pieces;
    sp_RegExpMatches(patterns, YString(input.substr(start).c_str()), &pieces);
    if (pieces.count() > patterns.count())
        __builtin_trap();
    return 0;
}
