// fuzz_library_stream.cpp - LibraryStream with the range, line offset and new name taken from the input.
#include "FuzzSupport.h"
#include "LibraryStream.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 13)
        return 0;
    int32_t start, end, offset;
    std::memcpy(&start, data, 4);
    std::memcpy(&end, data + 4, 4);
    std::memcpy(&offset, data + 8, 4);
    const size_t nameLength = data[12] % 16;
    if (size < 13 + nameLength)
        return 0;
    const std::string name(reinterpret_cast<const char*>(data + 13), nameLength);
    const std::string path = fuzz::scratchPath("library.lib");
    fuzz::writeFile(path, data + 13 + nameLength, size - 13 - nameLength);
    SymbolLoc where;
    where.fileName = path.c_str();
    where.start = start;
    where.end = end;
    where.lineOffset = offset;
    LibraryStream in(where, YString(name.c_str()));
    YString line;
    int number = 0;
    for (int guard = 0; guard < 1000000 && in.gets(&line, &number); ++guard) {
    }
    return 0;
}
