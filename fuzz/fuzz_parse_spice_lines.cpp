// fuzz_parse_spice_lines.cpp - netlist text split into logical lines: none holds a line feed.
#include "FuzzSupport.h"
#include "LibraryStream.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const YString text(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const YArray<YString> lines = sp_ParseSpiceLines(text);
    for (const YString& line : lines)
        for (int i = 0; i < line.length(); ++i)
            if (line.c_str()[i] == '\n')
                __builtin_trap();
    return 0;
}
