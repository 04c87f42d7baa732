// ModelLibraryBench.cpp - the model-library index on a generated 500 MiB library, file reading included;
// resolution and comparison on generated libraries that each reference its twin.
// The inputs come from scripts/benchdata.py or are written here; the folder is named by
// SUPPORTQT_BENCH_DATA.
#include "ModelLibrary.h"

#include <benchmark/benchmark.h>

#include <QString>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

std::string dataPath(const char* name)
{
    const char* folder = std::getenv("SUPPORTQT_BENCH_DATA");
    return std::string(folder ? folder : ".") + "/" + name;
}

// Writes `text` to the data folder as `name` (UTF-16 with a byte-order mark when `wide`); its path, or
// empty when it cannot be written.
std::string writeData(const char* name, const std::string& text, bool wide = false)
{
    std::string bytes = text;
    if (wide) {
        bytes = "\xFF\xFE";
        for (const QChar c : QString::fromUtf8(text.c_str())) {
            bytes.push_back(static_cast<char>(c.unicode() & 0xFF));
            bytes.push_back(static_cast<char>(c.unicode() >> 8));
        }
    }
    const std::string path = dataPath(name);
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f)
        return std::string();
    const bool written = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return std::fclose(f) == 0 && written ? path : std::string();
}

constexpr int kSections = 20000;

// A library of kSections sections of one model each, whose top level names a section of its own
// kSections times: each one when `present`, else names that no section has.
void resolveReferences(benchmark::State& state, bool present)
{
    const std::string path = dataPath(present ? "sections_present.lib" : "sections_missing.lib");
    std::string text;
    for (int i = 0; i < kSections; ++i)
        text += ".lib s" + std::to_string(i) + "\n.model m" + std::to_string(i) + " d\n.endl\n";
    for (int i = 0; i < kSections; ++i)
        text += ".lib \"" + path + "\" " + (present ? "s" : "none") + std::to_string(i) + "\n";
    if (writeData(present ? "sections_present.lib" : "sections_missing.lib", text).empty()) {
        state.SkipWithError("cannot write the benchmark input");
        return;
    }
    for (auto _ : state) {
        ModelLibResolution resolution;
        if (sp_ResolveModelSection(YString(path.c_str()), YString(), SpiceLanguageNative, &resolution) != ModelLibStatus::Ok)
            state.SkipWithError("the library could not be resolved");
        benchmark::DoNotOptimize(resolution.definitions.size() + resolution.problems.size());
    }
}

void BM_ResolvePresentSections(benchmark::State& state) { resolveReferences(state, true); }
void BM_ResolveMissingSections(benchmark::State& state) { resolveReferences(state, false); }

// A library of `sections` sections that each include a file of one model of its own, checked whole
// (`check`) or resolved section by section over one cache.
void sectionsWithFiles(benchmark::State& state, int sections, bool check)
{
    const std::string name = "sections_files_" + std::to_string(sections);
    std::string text;
    for (int i = 0; i < sections; ++i) {
        const std::string file = name + "_" + std::to_string(i) + ".inc";
        if (writeData(file.c_str(), ".model m" + std::to_string(i) + " d\n").empty()) {
            state.SkipWithError("cannot write the benchmark input");
            return;
        }
        text += ".lib s" + std::to_string(i) + "\n.include \"" + file + "\"\n.endl\n";
    }
    const std::string path = writeData((name + ".lib").c_str(), text);
    if (path.empty()) {
        state.SkipWithError("cannot write the benchmark input");
        return;
    }
    for (auto _ : state) {
        size_t reached = 0;
        if (check) {
            std::vector<ModelLibProblem> problems;
            if (sp_CheckModelLibrary(YString(path.c_str()), YString(), SpiceLanguageNative, &problems) != ModelLibStatus::Ok ||
                !problems.empty())
                state.SkipWithError("the library does not check clean");
        } else if (sp_ResolveEachModelSection(YString(path.c_str()), SpiceLanguageNative,
                                              [&](const ModelLibSection&, const ModelLibResolution& r) { reached += r.definitions.size(); }) !=
                       ModelLibStatus::Ok ||
                   reached != static_cast<size_t>(sections)) {
            state.SkipWithError("the sections were not resolved");
        }
        benchmark::DoNotOptimize(reached);
    }
}

void BM_CheckSectionsWithFiles4000(benchmark::State& state) { sectionsWithFiles(state, 4000, true); }
void BM_CheckSectionsWithFiles1000(benchmark::State& state) { sectionsWithFiles(state, 1000, true); }
void BM_EachSectionWithFiles4000(benchmark::State& state) { sectionsWithFiles(state, 4000, false); }
void BM_EachSectionWithFiles1000(benchmark::State& state) { sectionsWithFiles(state, 1000, false); }

// Two libraries of 16,000 models that differ in one, compared in UTF-16 (`wide`) or UTF-8.
void diffLibraries(benchmark::State& state, bool wide)
{
    std::string a, b;
    for (int i = 0; i < 16000; ++i) {
        a += ".model m" + std::to_string(i) + " d is=1e-14 n=1.05\n";
        b += ".model m" + std::to_string(i) + " d is=1e-14 n=" + (i == 8000 ? "1.1" : "1.05") + "\n";
    }
    const std::string pathA = writeData(wide ? "diff_a16.lib" : "diff_a8.lib", a, wide);
    const std::string pathB = writeData(wide ? "diff_b16.lib" : "diff_b8.lib", b, wide);
    if (pathA.empty() || pathB.empty()) {
        state.SkipWithError("cannot write the benchmark input");
        return;
    }
    for (auto _ : state) {
        ModelLibDiff diff;
        if (sp_DiffModelLibraries(YString(pathA.c_str()), YString(pathB.c_str()), SpiceLanguageNative, &diff) != ModelLibStatus::Ok ||
            diff.differing.size() != 1)
            state.SkipWithError("the libraries could not be compared");
        benchmark::DoNotOptimize(diff.differing.size());
    }
}

void BM_DiffUtf16Libraries(benchmark::State& state) { diffLibraries(state, true); }
void BM_DiffUtf8Libraries(benchmark::State& state) { diffLibraries(state, false); }

void BM_ModelLibraryIndex500MB(benchmark::State& state)
{
    const char* folder = std::getenv("SUPPORTQT_BENCH_DATA");
    const std::string path = std::string(folder ? folder : ".") + "/library_500m.lib";
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) {
        state.SkipWithError("benchmark input missing; run scripts/bench");
        return;
    }
    std::fclose(f);
    for (auto _ : state) {
        ModelLibIndex index;
        if (sp_IndexModelLibrary(YString(path.c_str()), SpiceLanguageNative, &index) != ModelLibStatus::Ok)
            state.SkipWithError("the library could not be indexed");
        benchmark::DoNotOptimize(index.definitions.size());
        state.SetBytesProcessed(state.bytes_processed() + index.size);
    }
}

} // namespace

BENCHMARK(BM_ModelLibraryIndex500MB)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_ResolvePresentSections)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_ResolveMissingSections)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_DiffUtf16Libraries)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_DiffUtf8Libraries)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_CheckSectionsWithFiles4000)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_CheckSectionsWithFiles1000)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_EachSectionWithFiles4000)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_EachSectionWithFiles1000)->Unit(benchmark::kMillisecond)->Iterations(1);
