// ModelLibraryBench.cpp - the model-library index on a generated 500 MiB library, file reading included.
// The input comes from scripts/benchdata.py; the folder is named by SUPPORTQT_BENCH_DATA.
#include "ModelLibrary.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

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
