// fuzz_run_statistics.cpp - run statistics on any values (not finite ones and extremes included), cut
// into parts at places taken from the input. Checked: the merged parts count what the whole counts
// and have its extrema, percentiles selected without sorting equal those of the sorted values and rise
// with p, and yield, its interval and the rank correlations stay within their bounds.
#include "RunStatistics.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    const size_t parts = data[0] % 8 + 1;
    std::vector<double> values((size - 1) / sizeof(double));
    if (!values.empty())
        std::memcpy(values.data(), data + 1, values.size() * sizeof(double));
    // Half the time the values are made small integers, which gives ties and equal values.
    if (data[0] & 0x80)
        for (double& v : values)
            if (std::isfinite(v))
                v = std::fmod(std::trunc(v), 7.0);

    SampleSummary whole;
    whole.addBlock(values.data(), nullptr, values.size());
    SampleSummary merged;
    const size_t step = values.size() / parts + 1;
    for (size_t from = 0; from < values.size(); from += step) {
        SampleSummary part;
        for (size_t i = from; i < values.size() && i < from + step; ++i)
            part.add(values[i], static_cast<int>(i));
        merged.merge(part);
    }
    const MomentSummary& a = whole.moments();
    const MomentSummary& b = merged.moments();
    if (a.count() != b.count() || a.nonFiniteCount() != b.nonFiniteCount() || a.minimum() != b.minimum() ||
        a.maximum() != b.maximum() || a.m2() < 0.0)
        __builtin_trap();

    const double ps[] = {0, 0.1, 1, 5, 25, 50, 75, 95, 99, 99.9, 100};
    double selected[11];
    whole.percentiles(ps, 11, selected);
    double previous = -INFINITY;
    for (int i = 0; i < 11; ++i) {
        const double sorted = merged.percentile(ps[i]);
        if (a.count() == 0) {
            if (!std::isnan(selected[i]) || !std::isnan(sorted))
                __builtin_trap();
            continue;
        }
        // Interpolating between two huge values of opposite sign may overflow; both sides then agree.
        if (!(selected[i] == sorted || (std::isnan(selected[i]) && std::isnan(sorted))))
            __builtin_trap();
        if (std::isfinite(sorted) && sorted < previous)
            __builtin_trap();
        if (std::isfinite(sorted))
            previous = sorted;
    }

    YHashTable<XMLReportInfo> table;
    for (size_t i = 0; i < values.size(); ++i) {
        XMLReportInfo run(static_cast<int>(i) + 1);
        run.values.at(0).value = values[i];
        XMLParameterValue& p = run.parameters.at(0);
        p.name = "P";
        p.nominal = 1.0;
        p.usedValue = values[values.size() - 1 - i];
        table.insert(run);
    }
    MeritLimits limits;
    limits.hasLower = limits.hasUpper = true;
    limits.lower = -1.0;
    limits.upper = 3.0;
    const MeritStatistics s = sp_ComputeMeritStatistics(table, 0, limits);
    if (s.runCount != static_cast<long long>(values.size()) || s.passCount > s.runCount ||
        s.passCount + static_cast<long long>(s.failingCases.size()) != s.runCount)
        __builtin_trap();
    if (s.runCount > 0 && !(s.yield >= 0.0 && s.yield <= 1.0 && s.yieldInterval.low <= s.yield + 1e-12 &&
                            s.yieldInterval.high >= s.yield - 1e-12))
        __builtin_trap();
    for (const ParameterInfluence& p : s.influence)
        if (!(std::isnan(p.rho) || (p.rho >= -1.0 && p.rho <= 1.0)))
            __builtin_trap();
    return 0;
}
