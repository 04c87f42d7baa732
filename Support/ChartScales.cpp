// ChartScales.cpp - histogram bins by the Freedman-Diaconis rule and round axis ticks.
#include "ChartScales.h"
#include "Interpolation_p.h"

#include <QByteArray>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <new>
#include <cmath>

namespace {

// Linear interpolation between the two nearest order statistics of sorted values, as the run
// statistics take percentiles.
double sortedPercentile(const std::vector<double>& sorted, double p)
{
    const double h = static_cast<double>(sorted.size() - 1) * p / 100.0;
    const size_t below = static_cast<size_t>(std::floor(h));
    const double fraction = h - static_cast<double>(below);
    if (below + 1 >= sorted.size())
        return sorted[below];
    return stats::between(sorted[below], sorted[below + 1], fraction);
}

std::vector<double> finiteValues(const std::vector<double>& values)
{
    std::vector<double> finite;
    finite.reserve(values.size());
    for (double v : values)
        if (std::isfinite(v))
            finite.push_back(v);
    return finite;
}

int capped(double count, int maxBins)
{
    if (!(count >= 1.0))
        return 1;
    return count >= static_cast<double>(maxBins) ? maxBins : static_cast<int>(count);
}

int binCountOfFinite(std::vector<double>& finite, int maxBins, HistogramBinRule* rule)
{
    HistogramBinRule sink;
    HistogramBinRule& used = rule ? *rule : sink;
    used = HistogramBinRule::Single;
    if (maxBins < 1 || finite.size() < 2)
        return 1;
    std::sort(finite.begin(), finite.end());
    const double range = finite.back() - finite.front();
    if (!(range > 0.0))
        return 1;
    const double n = static_cast<double>(finite.size());
    const double q25 = sortedPercentile(finite, 25), q75 = sortedPercentile(finite, 75);
    const double iqr = q75 - q25;
    if (!(iqr > 0.0)) {
        used = HistogramBinRule::SquareRoot;
        return capped(std::ceil(std::sqrt(n)), maxBins);
    }
    used = HistogramBinRule::FreedmanDiaconis;
    double count = range / (2.0 * iqr / std::cbrt(n));
    // A range or a width beyond the largest double is measured by halves, which are finite; a count a
    // hair above a whole number is rounding, not a bin more.
    if (!std::isfinite(range) || !std::isfinite(2.0 * iqr))
        count = (finite.back() / 2 - finite.front() / 2) / (q75 / 2 - q25 / 2) * std::cbrt(n) / 2;
    return capped(std::ceil(count - 1e-9), maxBins);
}

// 10 to the power `exponent`, exact where a double can hold it.
double powerOfTen(int exponent)
{
    return std::pow(10.0, static_cast<double>(exponent));
}

// k * mantissa * 10^exponent as the nearest double to the decimal value, read from its decimal text:
// arithmetic with a power of ten rounds twice wherever the power is not exact (beyond 10^22, and in
// every pow of a C library that is not correctly rounded). The text is read by Qt, which rounds
// correctly on every system; the strtod of an older C runtime does not with sixteen digits. A value
// beyond the largest double is infinite.
double tickValue(long long k, int mantissa, int exponent)
{
    char text[48];
    std::snprintf(text, sizeof text, "%llde%d", k * mantissa, exponent);
    return QByteArray(text).toDouble();
}

} // namespace

int sp_HistogramBinCount(const std::vector<double>& values, int maxBins, HistogramBinRule* rule)
{
    try {
        std::vector<double> finite = finiteValues(values);
        return binCountOfFinite(finite, std::min(maxBins, kMaxHistogramBins), rule);
    } catch (const std::bad_alloc&) {
        if (rule)
            *rule = HistogramBinRule::Single;
        return 1;
    }
}

namespace {
Histogram buildHistogram(const std::vector<double>& values, int bins, int maxBins)
{
    Histogram h;
    std::vector<double> finite = finiteValues(values);
    h.finite = static_cast<long long>(finite.size());
    h.nonFinite = static_cast<long long>(values.size() - finite.size());
    if (finite.empty())
        return h;
    const auto [minimum, maximum] = std::minmax_element(finite.begin(), finite.end());
    h.low = *minimum;
    h.high = *maximum;
    if (bins >= 1) {
        h.rule = HistogramBinRule::Given;
        bins = std::min(bins, kMaxHistogramBins);
    } else {
        bins = binCountOfFinite(finite, std::min(maxBins, kMaxHistogramBins), &h.rule);
    }
    if (!(h.high > h.low)) {
        // (At least the smallest normal double, so that the bins of a subnormal value have a width; an end
        // past the largest double stops at it.)
        const double pad = h.low == 0.0 ? 0.5 : std::max(std::fabs(h.low) * 0.01, std::numeric_limits<double>::min());
        const double most = std::numeric_limits<double>::max();
        h.low = std::max(h.low - pad, -most);
        h.high = std::min(h.high + pad, most);
    }
    // Bins narrower than the smallest double would have no width: a count of the rule's stops at the
    // smallest doubles the range holds.
    if (h.rule != HistogramBinRule::Given) {
        const double smallest = (h.high - h.low) / std::numeric_limits<double>::denorm_min();
        if (smallest < bins)
            bins = std::max(1, static_cast<int>(smallest));
    }
    h.counts.assign(static_cast<size_t>(bins), 0);
    const double width = h.high - h.low, step = h.binWidth();
    // Ends further apart than the largest double: the positions are taken by halves.
    const bool halves = !std::isfinite(width);
    const double halfWidth = h.high / 2 - h.low / 2;
    // (By halves too, where k steps from `low` would pass the largest double.)
    const auto edge = [&](int k) {
        return halves ? (h.low / 2 + static_cast<double>(k) * (step / 2)) * 2 : h.low + static_cast<double>(k) * step;
    };
    for (double v : finite) {
        const double position = halves ? (v / 2 - h.low / 2) / halfWidth * bins : (v - h.low) / width * bins;
        int bin = std::clamp(static_cast<int>(std::floor(position)), 0, bins - 1);
        // The division may round across an edge: the edges themselves decide.
        if (bin + 1 < bins && v >= edge(bin + 1))
            ++bin;
        else if (bin > 0 && v < edge(bin))
            --bin;
        ++h.counts[static_cast<size_t>(bin)];
    }
    return h;
}
} // namespace

Histogram sp_BuildHistogram(const std::vector<double>& values, int bins, int maxBins)
{
    try {
        return buildHistogram(values, bins, maxBins);
    } catch (const std::bad_alloc&) {
        return Histogram();
    }
}

namespace {
AxisTicks roundAxisTicks(double low, double high, int maxTicks)
{
    AxisTicks ticks;
    if (!std::isfinite(low) || !std::isfinite(high))
        return ticks;
    if (low > high)
        std::swap(low, high);
    if (low == high) {
        // (At least the smallest double, which 1% of a subnormal end may round to nothing.)
        const double pad = low == 0.0 ? 1.0 : std::max(std::fabs(low) * 0.01, std::numeric_limits<double>::denorm_min());
        low -= pad;
        high += pad;
        // Widened past the largest double (an end near it): no finite tick lies beyond that end.
        if (!std::isfinite(low) || !std::isfinite(high))
            return ticks;
    }
    // Ends on either side of 0 need a tick below 0, one at it and one above it.
    maxTicks = std::clamp(maxTicks, low < 0.0 && high > 0.0 ? 3 : 2, kMaxAxisTicks);
    // From a step below the span shared out among the ticks, up through 1, 2, 5 times each power of ten
    // until the ticks from below `low` to above `high` are few enough. An end within a billionth of a step
    // of a multiple of the step is that multiple, so that rounding costs no tick; near 0 the slack is a
    // trillionth of the end's own number of steps instead, so that it never swallows an end that a step
    // far larger than it puts near 0. (A span beyond the largest double, between ends of either sign, is
    // measured by its halves.)
    const double span = high - low;
    const double logSpan = std::isfinite(span) ? std::log10(span) : std::log10(high / 2 - low / 2) + std::log10(2.0);
    int exponent = std::max(static_cast<int>(std::floor(logSpan - std::log10(maxTicks - 1.0))) - 1, -330);
    for (; exponent <= 308; ++exponent) {
        for (int mantissa : {1, 2, 5}) {
            const double step = mantissa * powerOfTen(exponent);
            // A step past the largest double: the smaller ones were too many, and no larger one is finite.
            if (std::isinf(step))
                return ticks;
            const double lowSteps = low / step, highSteps = high / step;
            // The slack of each end, in steps.
            const double lowSlack = std::min(1e-9, 1e-12 * std::fabs(lowSteps));
            const double highSlack = std::min(1e-9, 1e-12 * std::fabs(highSteps));
            const double first = std::floor(lowSteps + lowSlack);
            const double last = std::ceil(highSteps - highSlack);
            // A step that underflows to 0 gives no finite count; the next power of ten is tried. So does a
            // step whose multiples at the ends a double cannot count exactly (past 2^53).
            if (!(step > 0.0) || !std::isfinite(first) || !std::isfinite(last) || !(last >= first) || !(last - first + 1 <= maxTicks) ||
                std::max(std::fabs(first), std::fabs(last)) * mantissa > 9007199254740992.0)
                continue;
            long long k0 = static_cast<long long>(first), k1 = static_cast<long long>(last);
            // Ends beyond the largest double: no finite ticks cover the range at this step or above.
            if (!std::isfinite(tickValue(k0, mantissa, exponent)) || !std::isfinite(tickValue(k1, mantissa, exponent)))
                return ticks;
            // A quotient of many steps may round across a whole number: the end ticks themselves decide.
            if (tickValue(k1, mantissa, exponent) < high - highSlack * step)
                ++k1;
            if (tickValue(k0, mantissa, exponent) > low + lowSlack * step)
                --k0;
            const double lowTick = tickValue(k0, mantissa, exponent), highTick = tickValue(k1, mantissa, exponent);
            if (k1 - k0 + 1 > maxTicks || !std::isfinite(lowTick) || !std::isfinite(highTick) || highTick < high - highSlack * step ||
                lowTick > low + lowSlack * step)
                continue;
            ticks.step = tickValue(1, mantissa, exponent);
            for (long long k = k0; k <= k1; ++k)
                ticks.values.push_back(tickValue(k, mantissa, exponent));
            ticks.low = ticks.values.front();
            ticks.high = ticks.values.back();
            return ticks;
        }
    }
    return ticks;
}
} // namespace

AxisTicks sp_RoundAxisTicks(double low, double high, int maxTicks)
{
    try {
        return roundAxisTicks(low, high, maxTicks);
    } catch (const std::bad_alloc&) {
        return AxisTicks();
    }
}
