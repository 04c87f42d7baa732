// fuzz_trebolt.cpp - control statements parsed, compiled and parsed again. Checked: after the first
// parse and compile, further rounds change neither the text nor the parameter list.
#include "FuzzSupport.h"
#include "TreboltControls.h"

#include <cstring>
#include <string>

namespace {

struct Round {
    std::string text;
    std::string params;
};

std::string describe(const YList<TreboltParamValue>& params)
{
    std::string out;
    for (const TreboltParamValue& v : params) {
        out += v.name.c_str();
        out += '|' + std::to_string(v.type) + '|' + std::to_string(v.valid) + '|';
        unsigned char bytes[sizeof v.value];
        std::memcpy(bytes, &v.value, sizeof bytes);
        if (v.type == TreboltReal)
            out += std::to_string(v.value.real);
        else if (v.type == TreboltText)
            out += v.text.c_str();
        else if (v.type == TreboltFlag || v.type == TreboltSwitch)
            out += v.value.flag ? "1" : "0";
        else
            out += std::to_string(v.value.integer);
        out += '\n';
    }
    return out;
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

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), size));
    const Round first = round(input);
    const Round second = round(first.text);
    const Round third = round(second.text);
    if (third.text != second.text || third.params != second.params)
        __builtin_trap();
    return 0;
}
