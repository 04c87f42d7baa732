// fuzz_eng_to_real.cpp - engineering-notation numbers: the end pointer stays inside the text.
#include "FuzzSupport.h"
#include "TextServices.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), size));
    char* end = nullptr;
    const double value = sp_ConvertEngToReal(text.c_str(), &end);
    if (end < text.c_str() || end > text.c_str() + text.size())
        __builtin_trap();
    (void)value;
    return 0;
}
