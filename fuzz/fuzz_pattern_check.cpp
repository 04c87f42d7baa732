// fuzz_pattern_check.cpp - the pattern check and the matchers agree: the first line is the pattern, the
// rest the text. A pattern the check refuses has a reason and matches nowhere, either case; one it takes
// is one QRegExp takes.
#include "FuzzSupport.h"
#include "PatternCheck.h"
#include "PatternMatch.h"

#include <QRegExp>
#include <QString>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), size));
    const size_t split = input.find('\n');
    const std::string pattern = input.substr(0, split);
    const std::string text = split == std::string::npos ? std::string() : input.substr(split + 1);
    YString reason;
    if (sp_CheckRegexp(pattern.c_str(), &reason)) {
        if (!QRegExp(QString::fromUtf8(pattern.c_str())).isValid())
            __builtin_trap();
    } else if (reason.str().empty() || sp_RegexpMatch(pattern.c_str(), text.c_str()) != -1 ||
               sp_RegexpMatch_i(pattern.c_str(), text.c_str()) != -1) {
        __builtin_trap();
    }
    return 0;
}
