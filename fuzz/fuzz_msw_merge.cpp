// fuzz_msw_merge.cpp - merging any bytes, as a results file, with a small valid shard. Checked: no
// crash; when the merge succeeds the output reads back (unless the reader refuses its density) with
// as many runs as the merge reports.
#include "FuzzSupport.h"
#include "MswMerge.h"
#include "XMLReport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string input = fuzz::scratchPath("shard.msw");
    const std::string other = fuzz::scratchPath("other.msw");
    const std::string output = fuzz::scratchPath("merged.msw");
    fuzz::writeFile(input, data, size);
    static const char kOther[] = "<?xml version=\"1.0\"?><msw version=\"1.0\"><meritfunction value=\"a\" name=\"A\">"
                                 "<sensval case=\"100000\" value=\"1.5\"/></meritfunction>"
                                 "<steps><step case=\"100000\"/></steps></msw>";
    fuzz::writeFile(other, reinterpret_cast<const uint8_t*>(kOther), sizeof kOther - 1);
    for (bool renumber : {false, true}) {
        YString message;
        MswMergeSummary summary;
        if (!sp_MergeMswFiles({YString(input.c_str()), YString(other.c_str())}, YString(output.c_str()), renumber,
                              &message, &summary)) {
            if (message.isEmpty())
                __builtin_trap();
            continue;
        }
        YHashTable<XMLReportInfo> table;
        XMLReportHeader header;
        if (sp_CompileSensReportData(YString(output.c_str()), &table, &header) && table.count() != summary.runs)
            __builtin_trap();
    }
    return 0;
}
