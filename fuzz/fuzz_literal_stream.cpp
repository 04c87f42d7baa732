// fuzz_literal_stream.cpp - NewSpiceStream. Checked: the literal buffer is always a prefix of the input
// with the filter applied and line ends normalised (and the final line feed the reader adds).
#include "FuzzSupport.h"
#include "LiteralNetlistStream.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string normalised;
    for (size_t i = 0; i < size; ++i) {
        const unsigned char c = data[i];
        if (c == '\r') {
            normalised += '\n';
            if (i + 1 < size && data[i + 1] == '\n')
                ++i;
        } else if (fuzz::keeps(c) && c != 255) {
            normalised += static_cast<char>(c);
        }
    }
    normalised += '\n';
    kvstrstream source(reinterpret_cast<const char*>(data), size);
    NewSpiceStream in(source);
    YString line;
    int number = 0;
    for (int guard = 0; guard < 1000000 && in.gets(&line, &number); ++guard) {
        const Buf& lit = in.getLitBuffer();
        if (static_cast<size_t>(lit.length()) > normalised.size() ||
            normalised.compare(0, static_cast<size_t>(lit.length()), lit.data(), static_cast<size_t>(lit.length())) != 0)
            __builtin_trap();
    }
    return 0;
}
