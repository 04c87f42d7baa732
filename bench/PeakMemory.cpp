// PeakMemory.cpp - reads a netlist line by line with the buffers flushed; the peak resident
// memory measured by the caller (scripts/benchtable.py) shows whether reading is streaming.
#include "NetlistStream.h"

#include <cstdio>

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: supportqt_bench_memory NETLIST\n");
        return 2;
    }
    long long lines = 0;
    {
        SpiceStream in(argv[1], SpiceLanguageNative);
        YString line;
        int number = 0;
        bool flag = false, nonAscii = false;
        while (in.gets(&line, &number, &flag, &nonAscii)) {
            in.flushBuffer();
            ++lines;
        }
    }
    std::printf("%lld\n", lines);
    return lines > 0 ? 0 : 1;
}
