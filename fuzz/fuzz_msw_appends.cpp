// fuzz_msw_appends.cpp - results files that append each other, in any pattern of repeats and cycles.
// The input is cut at "\n===\n" into up to four files; "@0".."@3" in them stand for those files' paths,
// so that appends name files that exist. Checked: reading the first file twice gives the same table
// (written out byte for byte the same), and the table holds no more runs than the files have bytes -
// a file appended many times is read once, so repeats cannot multiply the work (the fuzzer's time
// limit catches any that would). The second read also lists the files it took: the first file first,
// and no file twice.
#include "FuzzSupport.h"
#include "MswMerge.h"
#include "XMLReport.h"

#include <cstdlib>
#include <set>
#include <string>
#include <vector>

namespace {

std::string compileAndWrite(const std::string& path, const std::string& out, int* runs, std::vector<YString>* sources)
{
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    // Whatever was read, even after a failure, is written back: the fuzzer compares the output only.
    if (sources)
        (void)sp_CompileMswWithSources(YString(path.c_str()), &table, &header, sources);
    else
        (void)sp_CompileSensReportData(YString(path.c_str()), &table, &header);
    *runs = table.count();
    (void)sp_WriteMswFile(YString(out.c_str()), table, header);
    return fuzz::readFile(out);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> paths;
    for (int i = 0; i < 4; ++i)
        paths.push_back(fuzz::scratchPath(("append" + std::to_string(i) + ".msw").c_str()));
    size_t start = 0;
    for (int i = 0; i < 4; ++i) {
        size_t end = input.find("\n===\n", start);
        std::string part = start <= input.size() ? input.substr(start, end == std::string::npos ? std::string::npos : end - start)
                                                 : std::string();
        for (int k = 0; k < 4; ++k) {
            const std::string token = "@" + std::to_string(k);
            for (size_t at = part.find(token); at != std::string::npos; at = part.find(token, at + paths[k].size()))
                part.replace(at, token.size(), paths[k]);
        }
        fuzz::writeFile(paths[i], reinterpret_cast<const uint8_t*>(part.data()), part.size());
        start = end == std::string::npos ? input.size() + 1 : end + 5;
    }
    int runsFirst = 0, runsSecond = 0;
    std::vector<YString> sources;
    const std::string first = compileAndWrite(paths[0], fuzz::scratchPath("appends-first.msw"), &runsFirst, nullptr);
    const std::string second = compileAndWrite(paths[0], fuzz::scratchPath("appends-second.msw"), &runsSecond, &sources);
    if (first != second || runsFirst != runsSecond)
        __builtin_trap();
    std::set<std::string> distinct;
    for (const YString& source : sources)
        distinct.insert(source.c_str());
    char* const firstFile = realpath(paths[0].c_str(), nullptr);
    const bool firstListedFirst = firstFile && !sources.empty() && sources[0] == YString(firstFile);
    std::free(firstFile);
    if (!firstListedFirst || distinct.size() != sources.size())
        __builtin_trap();
    if (static_cast<size_t>(runsFirst) > size + 1)
        __builtin_trap();
    return 0;
}
