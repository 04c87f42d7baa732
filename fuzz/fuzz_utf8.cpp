// fuzz_utf8.cpp - the lenient UTF-8 detector against a strict validator: strictly valid text is never
// Invalid, and text the detector calls Invalid is never strictly valid.
#include "FuzzSupport.h"
#include "QtSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    UTF8Detect detect;
    for (size_t i = 0; i < size; ++i)
        detect.add(data[i]);
    const bool strict = fuzz::strictUtf8(std::string(reinterpret_cast<const char*>(data), size));
    if (strict && detect.getEncoding() == Invalid)
        __builtin_trap();
    return 0;
}
