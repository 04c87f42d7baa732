// fuzz_spice_stream.cpp - SpiceStream in every dialect, with and without the title and literal mode.
// Checked: no line holds a line feed or a byte the filter drops; line numbers never decrease; the
// last accepted character count never exceeds the character count.
#include "FuzzSupport.h"
#include "NetlistStream.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t options = data[0];
    const std::string path = fuzz::scratchPath("spice.cir");
    fuzz::writeFile(path, data + 1, size - 1);
    SpiceStream in(path.c_str(), static_cast<SpiceLanguage>(options % 3));
    if (options & 4)
        in.readTitle();
    in.setLiteralMode((options & 8) != 0);
    if (options & 16)
        in.dontSuppressEmptyLines();
    YString line;
    int number = 0, last = 0;
    bool flag = false, nonAscii = false;
    for (int guard = 0; guard < 1000000 && in.gets(&line, &number, &flag, &nonAscii); ++guard) {
        for (int i = 0; i < line.length(); ++i) {
            const unsigned char c = static_cast<unsigned char>(line.c_str()[i]);
            if (c == '\n' || !fuzz::keeps(c))
                __builtin_trap();
        }
        if (number < last)
            __builtin_trap();
        last = number;
        if (in.getLastAcceptedCharCount() > in.getCharCount())
            __builtin_trap();
        if (options & 32)
            in.flushBuffer();
    }
    return 0;
}
