// RunStatisticsBench.cpp - timings of the run statistics: one million runs of four merit functions
// already in memory (with and without the parameter influence), and merging a thousand summaries.
#include "RunStatistics.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <random>

namespace {

constexpr int kRuns = 1000000;
constexpr int kMerits = 4;

struct RunSet {
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    std::vector<MeritLimits> limits;
};

// Built once: four merit functions driven by three parameters, with limits on every merit function.
const RunSet& runSet()
{
    static const RunSet set = [] {
        RunSet s;
        std::mt19937_64 random(42);
        std::normal_distribution<double> normal(0.0, 1.0);
        for (int m = 0; m < kMerits; ++m) {
            s.header.meritFunctions.at(m).name = YString(("m" + std::to_string(m)).c_str());
            MeritLimits l;
            l.hasLower = l.hasUpper = true;
            l.lower = -2.5;
            l.upper = 2.5;
            s.limits.push_back(l);
        }
        for (int c = 1; c <= kRuns; ++c) {
            XMLReportInfo r(c);
            double d[3];
            for (int p = 0; p < 3; ++p) {
                d[p] = 0.05 * normal(random);
                XMLParameterValue& param = r.parameters.at(p);
                param.name = p == 0 ? "R1" : p == 1 ? "C1" : "L1";
                param.nominal = 1.0;
                param.usedValue = 1.0 + d[p];
            }
            for (int m = 0; m < kMerits; ++m)
                r.values.at(m).value = 20.0 * d[m % 3] + normal(random);
            s.table.insert(std::move(r));
        }
        return s;
    }();
    return set;
}

void BM_RunStatistics1Mx4(benchmark::State& state)
{
    const RunSet& s = runSet();
    for (auto _ : state) {
        const std::vector<MeritStatistics> all = sp_ComputeRunStatistics(s.table, s.header, s.limits, false);
        benchmark::DoNotOptimize(all.data());
    }
    state.SetItemsProcessed(state.iterations() * kRuns * kMerits);
}

void BM_RunStatisticsWithInfluence1Mx4(benchmark::State& state)
{
    const RunSet& s = runSet();
    for (auto _ : state) {
        const std::vector<MeritStatistics> all = sp_ComputeRunStatistics(s.table, s.header, s.limits, true);
        benchmark::DoNotOptimize(all.data());
    }
    state.SetItemsProcessed(state.iterations() * kRuns * kMerits);
}

// The same four million values already gathered into arrays: moments, extrema and every percentile,
// that is the arithmetic without the walk through the table's records.
void BM_SummariseValues1Mx4(benchmark::State& state)
{
    std::mt19937_64 random(3);
    std::normal_distribution<double> normal(0.0, 1.0);
    std::vector<std::vector<double>> columns(kMerits, std::vector<double>(kRuns));
    for (std::vector<double>& c : columns)
        for (double& v : c)
            v = normal(random);
    for (auto _ : state) {
        for (const std::vector<double>& c : columns) {
            SampleSummary s;
            s.addBlock(c.data(), nullptr, c.size());
            double out[kRunStatisticsPercentileCount];
            s.percentiles(kRunStatisticsPercentiles, kRunStatisticsPercentileCount, out);
            benchmark::DoNotOptimize(out);
        }
    }
    state.SetItemsProcessed(state.iterations() * kRuns * kMerits);
}

// A thousand summaries of a thousand values each, as a thousand shards would give, merged into one
// (the values are kept for the percentiles, so this copies a million values).
void BM_MergeSummaries1000(benchmark::State& state)
{
    std::mt19937_64 random(7);
    std::normal_distribution<double> normal(0.0, 1.0);
    std::vector<SampleSummary> parts(1000);
    std::vector<double> values(1000);
    for (SampleSummary& part : parts) {
        for (double& v : values)
            v = normal(random);
        part.addBlock(values.data(), nullptr, values.size());
    }
    for (auto _ : state) {
        SampleSummary whole;
        for (const SampleSummary& part : parts)
            whole.merge(part);
        benchmark::DoNotOptimize(whole.moments().m4());
    }
}

} // namespace

BENCHMARK(BM_RunStatistics1Mx4)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_RunStatisticsWithInfluence1Mx4)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SummariseValues1Mx4)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MergeSummaries1000)->Unit(benchmark::kMillisecond);
