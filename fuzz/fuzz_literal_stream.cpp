// fuzz_literal_stream.cpp - NewSpiceStream. Checked: the literal text (flushed and buffered) is always
// a prefix of the input with the filter applied and line ends normalised (and the final line feed the
// reader adds); and reading the input one byte per refill gives the same lines, line numbers, literal
// text and counts as reading it whole, and the plain per-character reader of the test tree gives the
// same as the library's reader after every line, so the runs read in one step act exactly as characters
// read one at a time.
#include "FuzzSupport.h"
#include "LiteralNetlistStream.h"
#include "ReferenceNetlistReaders.h"

#include <vector>

namespace {
template <class Stream = NewSpiceStream>
std::vector<std::string> observe(const uint8_t* data, size_t size, size_t chunk, const std::string& normalised)
{
    std::vector<std::string> seen;
    kvstrstream source(reinterpret_cast<const char*>(data), size, chunk);
    Stream in(source);
    YString line;
    int number = 0;
    size_t flushed = 0; // literal text already taken out of the buffer
    for (int guard = 0; guard < 1000000; ++guard) {
        const bool more = in.gets(&line, &number);
        const Buf& lit = in.getLitBuffer();
        if (flushed + static_cast<size_t>(lit.length()) > normalised.size() ||
            normalised.compare(flushed, static_cast<size_t>(lit.length()), lit.data(), static_cast<size_t>(lit.length())) != 0)
            __builtin_trap();
        std::string snapshot(line.c_str(), static_cast<size_t>(line.length()));
        snapshot += '|' + std::to_string(number) + '|' + std::to_string(in.getLineCount()) + ',' +
                    std::to_string(in.getCharCount()) + '|' + std::to_string(more) + '|';
        snapshot.append(lit.data(), static_cast<size_t>(lit.length()));
        seen.push_back(snapshot);
        if (guard % 2 == 0) {
            flushed += static_cast<size_t>(lit.length());
            in.flushLitBuffer();
        }
        if (!more)
            break;
    }
    return seen;
}
} // namespace

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
    const std::vector<std::string> whole = observe(data, size, 0, normalised);
    if (whole != observe(data, size, 1, normalised))
        __builtin_trap();
    if (whole != observe<ReferenceLiteralStream>(data, size, 0, normalised))
        __builtin_trap();
    return 0;
}
