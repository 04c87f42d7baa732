// PatternBench.cpp - a wildcard of 20,000 characters searched for in a text of 1,000,000 random letters,
// against one of 20 characters: the length of the pattern should cost little at each character.
#include "PatternMatch.h"

#include <benchmark/benchmark.h>

#include <random>
#include <string>

namespace {

void globIn(benchmark::State& state, size_t patternLength)
{
    std::mt19937 random(3);
    std::string text, pattern;
    for (int i = 0; i < 1000000; ++i)
        text += static_cast<char>('a' + random() % 26);
    while (pattern.size() < patternLength)
        pattern += static_cast<char>('a' + random() % 26);
    for (auto _ : state)
        benchmark::DoNotOptimize(sp_GlobMatch(pattern.c_str(), text.c_str()));
}

void BM_GlobLongPattern(benchmark::State& state) { globIn(state, 20000); }
void BM_GlobShortPattern(benchmark::State& state) { globIn(state, 20); }

} // namespace

BENCHMARK(BM_GlobLongPattern)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_GlobShortPattern)->Unit(benchmark::kMillisecond)->Iterations(1);
