// fuzz_spice_stream.cpp - SpiceStream in every dialect, with and without the title and literal mode.
// Checked: no line holds a line feed or a byte the filter drops; line numbers never decrease; the
// last accepted character count never exceeds the character count; reading the input one byte per
// refill gives the same lines, buffers and counters as reading it whole; and the plain per-character
// reader of the test tree gives the same as the library's reader, after every line, also with a brace
// hook that reads on from the stream or changes the mode.
#include "FuzzSupport.h"
#include "NetlistStream.h"
#include "ReferenceNetlistReaders.h"
#include "TextFile.h"

#include <cstring>
#include <vector>

namespace {
// Title, literal mode and empty lines as the option bits ask.
template <class Stream>
void configure(Stream& in, uint8_t options)
{
    if (options & 4)
        in.readTitle();
    in.setLiteralMode((options & 8) != 0);
    if (options & 16)
        in.dontSuppressEmptyLines();
}

// Everything a caller sees after each line, read from memory `chunk` bytes per refill (0: whole), by
// the library's reader or the reference one.
template <class Stream>
std::vector<std::string> record(Stream& in, uint8_t options)
{
    std::vector<std::string> seen;
    configure(in, options);
    YString line;
    int number = 0;
    bool flag = false, nonAscii = false;
    for (int guard = 0; guard < 1000000; ++guard) {
        const bool more = in.gets(&line, &number, &flag, &nonAscii);
        std::string snapshot(line.c_str(), static_cast<size_t>(line.length()));
        snapshot += '|' + std::to_string(number) + '|' + std::to_string(flag) + std::to_string(nonAscii) + '|' +
                    std::to_string(in.getLineCount()) + ',' + std::to_string(in.getCharCount()) + ',' +
                    std::to_string(in.getLastAcceptedLineCount()) + ',' + std::to_string(in.getLastAcceptedCharCount()) +
                    ',' + std::to_string(in.getUtf8Encoding()) + ',' + std::to_string(in.isHierarchy()) + ',' +
                    std::to_string(static_cast<int>(in.getLanguage())) + ',' + in.getSeparator() + ',' +
                    std::to_string(in.eof()) + '|';
        snapshot.append(in.getBuffer()->data(), static_cast<size_t>(in.getBuffer()->length()));
        seen.push_back(snapshot);
        if (options & 32)
            in.flushBuffer();
        if (!more)
            break;
    }
    return seen;
}

template <class Stream = SpiceStream>
std::vector<std::string> observe(const uint8_t* data, size_t size, size_t chunk, uint8_t options)
{
    kvstrstream source(reinterpret_cast<const char*>(data), size, chunk);
    Stream in(source);
    return record(in, options);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t options = data[0];
    const std::string path = fuzz::scratchPath("spice.cir");
    fuzz::writeFile(path, data + 1, size - 1);
    SpiceStream in(path.c_str(), static_cast<SpiceLanguage>(options % 3));
    configure(in, options);
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
    const std::vector<std::string> whole = observe(data + 1, size - 1, 0, options);
    if (whole != observe(data + 1, size - 1, 1, options))
        __builtin_trap();
    if (whole != observe<ReferenceSpiceStream>(data + 1, size - 1, 0, options))
        __builtin_trap();
    if (options & 64) {
        const std::vector<std::string> hooked = observe<ActingBraceHook<SpiceStream>>(data + 1, size - 1, 0, options);
        if (hooked != observe<ActingBraceHook<ReferenceSpiceStream>>(data + 1, size - 1, 0, options) ||
            hooked != observe<ActingBraceHook<SpiceStream>>(data + 1, size - 1, 1, options))
            __builtin_trap();
    }
    // The file read in the dialect the options name, against the reference in that dialect (unless the
    // file is wide text, which the file reader reads from a UTF-8 copy).
    bool wide = false;
    if (sp_DetectTextFileFormat(YString(path.c_str()), &wide, nullptr, nullptr, nullptr) && !wide) {
        SpiceStream file(path.c_str(), static_cast<SpiceLanguage>(options % 3));
        kvstrstream source(reinterpret_cast<const char*>(data + 1), size - 1);
        ReferenceSpiceStream reference(source, options % 3);
        if (record(file, options) != record(reference, options))
            __builtin_trap();
    }
    return 0;
}
