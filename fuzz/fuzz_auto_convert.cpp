// fuzz_auto_convert.cpp - text of unknown origin to UTF-8: the result is always valid UTF-8, and text
// that already is comes back unchanged.
#include "FuzzSupport.h"
#include "QtSupport.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), size));
    const YString out = sp_AutoConvertToUtf8(YString(input.c_str()));
    const std::string result(out.c_str(), static_cast<size_t>(out.length()));
    if (fuzz::strictUtf8(input) && result != input)
        __builtin_trap();
    return 0;
}
