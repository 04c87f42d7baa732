// ResultsBench.cpp - timings of reading and writing results files of 10,000, 100,000 and 1,000,000 runs.
// The inputs come from scripts/benchdata.py; the folder is named by SUPPORTQT_BENCH_DATA.
#include "FileServices.h"
#include "Reports.h"
#include "XMLReport.h"

#include <benchmark/benchmark.h>

#include <cstdio>
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

void BM_CompileSensReport1M(benchmark::State& state) { readResults(state, "results_1m.msw"); }
void BM_CompileSensReport100k(benchmark::State& state) { readResults(state, "results_100k.msw"); }
void BM_CompileSensReport10k(benchmark::State& state) { readResults(state, "results_10k.msw"); }
void BM_CompileSensReportSequential(benchmark::State& state) { readResults(state, "results_sequential.msw"); }
void BM_CompileSensReportSpread(benchmark::State& state) { readResults(state, "results_spread.msw"); }

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
    (void)unlink_utf8(out.c_str()); // scratch output: a failed removal does not affect the timing
}

} // namespace

BENCHMARK(BM_CompileSensReport1M)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CompileSensReport100k)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_CompileSensReport10k)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_CompileSensReportSequential)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_CompileSensReportSpread)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_WriteMswFile100k)->Unit(benchmark::kMillisecond)->MinTime(1.0);

// ---------------------------------------------------------------- reports

namespace {

struct LoadedTable {
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    bool ok = false;
};

const LoadedTable& loaded(const char* name)
{
    static LoadedTable big, small;
    LoadedTable& slot = std::string(name) == "results_100k.msw" ? big : small;
    if (!slot.ok)
        slot.ok = sp_CompileSensReportData(YString(dataFile(name).c_str()), &slot.table, &slot.header);
    return slot;
}

void htmlReport(benchmark::State& state, const char* name)
{
    const LoadedTable& data = loaded(name);
    if (!data.ok) {
        state.SkipWithError("benchmark input missing; run scripts/bench");
        return;
    }
    const std::string out = dataFile("report.html");
    for (auto _ : state) {
        if (!sp_BuildHTMLSensitivityReport(YString(out.c_str()), YString(""), data.table, data.header, 3)) {
            state.SkipWithError("could not write");
            return;
        }
    }
    state.counters["bytes"] = static_cast<double>(sp_GetFileSize64(out.c_str()));
}

void BM_HtmlSensitivity100k(benchmark::State& state) { htmlReport(state, "results_100k.msw"); }
void BM_HtmlSensitivity10k(benchmark::State& state) { htmlReport(state, "results_10k.msw"); }

long long csvBytes(const YArray<YString>& lines)
{
    long long bytes = 0;
    for (const YString& line : lines)
        bytes += line.length() + 1;
    return bytes;
}

void BM_CsvSensitivity100k(benchmark::State& state)
{
    const LoadedTable& data = loaded("results_100k.msw");
    if (!data.ok) {
        state.SkipWithError("benchmark input missing; run scripts/bench");
        return;
    }
    long long bytes = 0;
    for (auto _ : state) {
        YArray<YString> lines;
        sp_BuildCsvSensitivityReport(&lines, data.table, data.header, 3);
        bytes = csvBytes(lines);
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}

// A plain C loop that writes `bytes` bytes of table rows with fprintf: the reference of the reports.
void fprintfBytes(benchmark::State& state, long long bytes)
{
    const std::string out = dataFile("plain.txt");
    for (auto _ : state) {
        FILE* f = std::fopen(out.c_str(), "w");
        long long written = 0;
        for (int i = 0; written < bytes; ++i)
            written += std::fprintf(f, "\t\t<tr><td>%d</td><td>%g</td><td>%g</td></tr>\n", i, i * 0.25, i * 1e-9);
        std::fclose(f);
    }
    std::remove(out.c_str());
}

void BM_FprintfHtmlBytes100k(benchmark::State& state)
{
    const LoadedTable& data = loaded("results_100k.msw");
    const std::string out = dataFile("report.html");
    if (!sp_BuildHTMLSensitivityReport(YString(out.c_str()), YString(""), data.table, data.header, 3)) {
        state.SkipWithError("could not write");
        return;
    }
    fprintfBytes(state, sp_GetFileSize64(out.c_str()));
}

void BM_FprintfCsvBytes100k(benchmark::State& state)
{
    const LoadedTable& data = loaded("results_100k.msw");
    YArray<YString> lines;
    sp_BuildCsvSensitivityReport(&lines, data.table, data.header, 3);
    fprintfBytes(state, csvBytes(lines));
}

} // namespace

BENCHMARK(BM_HtmlSensitivity100k)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_HtmlSensitivity10k)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_CsvSensitivity100k)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_FprintfHtmlBytes100k)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_FprintfCsvBytes100k)->Unit(benchmark::kMillisecond)->MinTime(1.0);
