// ResultsBench.cpp - timings of reading and writing results files of 10,000 and 100,000 runs.
// The inputs come from scripts/benchdata.py; the folder is named by SUPPORTQT_BENCH_DATA.
#include "FileServices.h"
#include "XMLReport.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>

namespace {

std::string dataFile(const char* name)
{
    const char* folder = std::getenv("SUPPORTQT_BENCH_DATA");
    return std::string(folder ? folder : ".") + "/" + name;
}

void readResults(benchmark::State& state, const char* name)
{
    const std::string path = dataFile(name);
    for (auto _ : state) {
        YHashTable<XMLReportInfo> table;
        XMLReportHeader header;
        if (!sp_CompileSensReportData(YString(path.c_str()), &table, &header)) {
            state.SkipWithError("benchmark input missing; run scripts/bench");
            return;
        }
        benchmark::DoNotOptimize(table.count());
    }
}

void BM_CompileSensReport100k(benchmark::State& state) { readResults(state, "results_100k.msw"); }
void BM_CompileSensReport10k(benchmark::State& state) { readResults(state, "results_10k.msw"); }

void BM_WriteMswFile100k(benchmark::State& state)
{
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    if (!sp_CompileSensReportData(YString(dataFile("results_100k.msw").c_str()), &table, &header)) {
        state.SkipWithError("benchmark input missing; run scripts/bench");
        return;
    }
    const std::string out = dataFile("written.msw");
    for (auto _ : state) {
        if (!sp_WriteMswFile(YString(out.c_str()), table, header)) {
            state.SkipWithError("could not write");
            return;
        }
    }
    unlink_utf8(out.c_str());
}

} // namespace

BENCHMARK(BM_CompileSensReport100k)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_CompileSensReport10k)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_WriteMswFile100k)->Unit(benchmark::kMillisecond)->MinTime(1.0);
