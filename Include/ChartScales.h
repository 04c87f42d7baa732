// ChartScales.h - the scales of charts of run values: a histogram's bins chosen from the data, and
// round tick values for an axis.
#pragma once

#include "SupportQtExport.h"

#include <cmath>
#include <vector>

/// The most bins a histogram gets and the most ticks an axis gets: a larger count asked for is taken as
/// this one, so that a count from outside costs bounded time and memory.
constexpr int kMaxHistogramBins = 1000000;
constexpr int kMaxAxisTicks = 1000000;

/// How the bin count of a histogram was chosen.
enum class HistogramBinRule {
    FreedmanDiaconis, ///< bin width 2 IQR n^(-1/3), the count capped
    SquareRoot,       ///< the square root of the count, capped: the quartiles coincide
    Single,           ///< one bin: fewer than two values, or values that do not vary
    Given             ///< the caller's count
};

/// A histogram of a sample: equal bins from `low` to `high`, the first and last bin closed.
struct Histogram {
    double low = 0.0;              ///< the smallest finite value (the first bin's lower edge)
    double high = 0.0;             ///< the largest finite value; above `low` whenever there are values
    std::vector<long long> counts; ///< one per bin, from `low` up; empty when there are no finite values
    long long finite = 0;          ///< values counted into the bins
    long long nonFinite = 0;       ///< values left out because they are infinite or not a number
    HistogramBinRule rule = HistogramBinRule::Single;

    int bins() const { return static_cast<int>(counts.size()); }
    /// The width of a bin; for ends further apart than the largest double it is taken by halves, and is
    /// finite from two bins up.
    double binWidth() const
    {
        if (counts.empty())
            return 0.0;
        const double n = static_cast<double>(counts.size()), width = (high - low) / n;
        return std::isfinite(width) ? width : (high / 2 - low / 2) / n * 2;
    }
};

/// The bin count the Freedman-Diaconis rule gives the finite values of `values`: the range divided by
/// 2 IQR n^(-1/3), rounded up, within 1..`maxBins` (the interquartile range from the percentiles
/// interpolated as `SampleSummary::percentile` does). Where the quartiles coincide but the values vary,
/// the square root of their count, rounded up and capped; 1 for fewer than two finite values or values
/// that do not vary, and for `maxBins` below 1. `rule` (when not null) says which case applied. Values
/// further apart than the largest double are measured by halves, so that the count stays finite; memory
/// that runs out gives 1 (`Single`).
SUPPORTQT_API int sp_HistogramBinCount(const std::vector<double>& values, int maxBins,
                                       HistogramBinRule* rule = nullptr);

/// Counts the finite values of `values` into `bins` equal bins between their minimum and maximum (a value
/// on an inner edge, `low + k * binWidth()` (taken by halves for ends further apart than the largest
/// double), goes to the bin above it, the maximum to the last bin); `bins` below 1 takes
/// `sp_HistogramBinCount(values, maxBins)`, or as many bins as the range holds smallest doubles when that
/// is fewer (values a few subnormal doubles apart), so that every bin has a width. Values that are not finite are counted in `nonFinite` only.
/// Values that do not vary get one bin around them, 1% of their magnitude (0.5 for 0, at least the
/// smallest normal double) to either side, its ends stopping at the largest doubles.
/// With no finite value the result has no bins, and so has the result when memory runs out. The result
/// belongs to the caller.
SUPPORTQT_API Histogram sp_BuildHistogram(const std::vector<double>& values, int bins, int maxBins = 50);

/// Round tick values of an axis.
struct AxisTicks {
    double low = 0.0;           ///< the axis starts here: the first tick
    double high = 0.0;          ///< and ends here: the last tick
    double step = 0.0;          ///< 1, 2 or 5 times a power of ten
    std::vector<double> values; ///< from `low` to `high` by `step`, each the nearest double to its decimal value
};

/// The ticks of an axis that covers `low` to `high`: the smallest step of 1, 2 or 5 times a power of ten
/// that needs at most `maxTicks` ticks (at least 2, and at least 3 for ends on either side of 0, which
/// no two ticks can cover; at most kMaxAxisTicks) from a multiple of the step at or below `low` to one at
/// or above `high`; an end within a billionth of a step of a multiple is taken as that multiple (within a
/// trillionth of its own number of steps, where that is less). Ends in the wrong order are swapped; equal ends are widened by 1% of their
/// magnitude (by 1 around 0). Ends that are not finite give no ticks (an empty `values`, all else 0), and
/// so do ends that no ticks within the largest doubles can cover (beyond +-1e308 with a step of 1e308), and
/// memory that runs out.
SUPPORTQT_API AxisTicks sp_RoundAxisTicks(double low, double high, int maxTicks);
