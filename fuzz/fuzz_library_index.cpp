// fuzz_library_index.cpp - the model-library index of the supportqt tool: every definition lies inside
// the text, starts a line with its keyword, names what follows the keyword, and comes in text order
// with line numbers that match the line feeds before it.
#include "LibraryIndex.h"

#include <cstdint>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const char* text = reinterpret_cast<const char*>(data);
    const std::vector<LibraryDefinition> definitions = indexLibrary(text, size);
    int previousStart = -1;
    for (const LibraryDefinition& d : definitions) {
        if (d.start <= previousStart || d.start < 0 || d.end <= d.start || static_cast<size_t>(d.end) > size)
            __builtin_trap();
        if (d.start > 0 && text[d.start - 1] != '\n')
            __builtin_trap();
        if (d.name.empty() || d.name.data() < text + d.start || d.name.data() + d.name.size() > text + d.end)
            __builtin_trap();
        const char* keyword = d.kind == LibraryDefinition::Subckt ? ".subckt" : ".model";
        for (size_t i = 0; keyword[i]; ++i)
            if ((text[d.start + static_cast<int>(i)] | 0x20) != (keyword[i] | 0x20))
                __builtin_trap();
        int line = 1;
        for (int i = 0; i < d.start; ++i)
            line += text[i] == '\n';
        if (line != d.line)
            __builtin_trap();
        previousStart = d.start;
    }
    return 0;
}
