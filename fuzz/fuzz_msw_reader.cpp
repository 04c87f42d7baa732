// fuzz_msw_reader.cpp - the results-file reader on any bytes (appended files included). Checked: after
// one read and write, further rounds change neither the table nor the header (the written files match).
#include "FuzzSupport.h"
#include "XMLReport.h"

namespace {

// Reads `from` and writes what was read to `to`; false when nothing could be written.
bool readAndWrite(const std::string& from, const std::string& to)
{
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    // Whatever was read, even after a failure, is written back.
    (void)sp_CompileSensReportData(YString(from.c_str()), &table, &header);
    return sp_WriteMswFile(YString(to.c_str()), table, header);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string input = fuzz::scratchPath("in.msw");
    const std::string first = fuzz::scratchPath("first.msw");
    const std::string second = fuzz::scratchPath("second.msw");
    const std::string third = fuzz::scratchPath("third.msw");
    fuzz::writeFile(input, data, size);
    if (!readAndWrite(input, first) || !readAndWrite(first, second) || !readAndWrite(second, third))
        __builtin_trap();
    if (fuzz::readFile(second) != fuzz::readFile(third))
        __builtin_trap();
    return 0;
}
