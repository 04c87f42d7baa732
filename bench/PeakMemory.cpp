// PeakMemory.cpp - one reading task per run, so that the caller (scripts/benchtable.py) can measure
// the process's peak resident memory:
//   netlist FILE   reads a netlist line by line with the buffers flushed (reading must be streaming)
//   results FILE   reads a results file with sp_CompileSensReportData
#include "NetlistStream.h"
#include "XMLReport.h"

#include <cstdio>
#include <cstring>

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: supportqt_bench_memory netlist|results FILE\n");
        return 2;
    }
    long long count = 0;
    if (std::strcmp(argv[1], "netlist") == 0) {
        SpiceStream in(argv[2], SpiceLanguageNative);
        YString line;
        int number = 0;
        bool flag = false, nonAscii = false;
        while (in.gets(&line, &number, &flag, &nonAscii)) {
            in.flushBuffer();
            ++count;
        }
    } else {
        YHashTable<XMLReportInfo> table;
        XMLReportHeader header;
        if (sp_CompileSensReportData(YString(argv[2]), &table, &header))
            count = table.count();
    }
    std::printf("%lld\n", count);
    return count > 0 ? 0 : 1;
}
