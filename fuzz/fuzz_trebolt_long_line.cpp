// fuzz_trebolt_long_line.cpp - control statements on one very long line: the input's words repeated
// after ".print tran" until the line is 2 MiB long. Parsing must take time in proportion to the line
// (a tokenizer that went back over the line for each word would take minutes here, and the fuzzer's
// time limit reports it). Checked: the same line parsed twice gives the same parameters and the same
// compiled text.
#include "FuzzSupport.h"
#include "TreboltControls.h"

#include <cstring>
#include <string>

namespace {

std::string parseAndCompile(const std::string& text)
{
    SelectTreboltAnalysisData::RunInfo enabled, present;
    TreboltCommandParseResult parsed;
    parsed.enabledFlags = enabled.flags;
    parsed.presentFlags = present.flags;
    kvfe_ParseTreboltCommands(text.c_str(), &parsed);
    YString compiled;
    kvfe_CompileTreboltControls(parsed.params, &compiled, enabled, present);
    return std::string(compiled.c_str()) + "|" + std::to_string(parsed.params.count());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string words(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), size));
    for (char& c : words)
        if (c == '\n' || c == '\r')
            c = ' ';
    if (words.empty())
        words = "v(out)";
    std::string line = ".print tran";
    const size_t target = size_t(2) << 20;
    line.reserve(target + words.size() + 2);
    while (line.size() < target)
        line += ' ' + words;
    line += '\n';
    if (parseAndCompile(line) != parseAndCompile(line))
        __builtin_trap();
    return 0;
}
