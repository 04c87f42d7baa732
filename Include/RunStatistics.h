// RunStatistics.h - what a statistical run set says about each merit function: moments, percentiles,
// normality, yield and process capability against design limits, and which parameters drive the
// spread. Built from summaries that merge, so that parts of a run set (one per core or machine) combine
// into the statistics of the whole.
#pragma once

#include "SupportQtExport.h"
#include "XMLReport.h"
#include "YString.h"

#include <memory>
#include <vector>

/// Count, mean, central moment sums, extrema and non-finite count of a sample, updated in one pass and
/// merged pairwise with the exact update formulas for the second to fourth central moments, so that the
/// summary of two parts equals the summary of their union up to rounding (1e-12 relative in practice).
/// The sums hold powers of the deviations from the mean as doubles: deviations beyond about 1e77 in
/// magnitude overflow the fourth-power sum (and 1e154 the second, making the standard deviation
/// infinite), and deviations below about 1e-77 underflow it (1e-154 the second, making it 0).
class SUPPORTQT_API MomentSummary {
public:
    /// Adds one value of run `caseNumber`. A value that is not finite is counted apart and changes
    /// nothing else. Adding many values one by one rounds at every step; `addBlock` is the accurate way.
    void add(double value, int caseNumber);
    /// Adds `n` values at once (their case numbers, for the extrema, in `cases`; null gives 0). Same
    /// result as adding them one by one, faster.
    void addBlock(const double* values, const int* cases, size_t n);
    /// Makes this the summary of both samples. Ties of the extrema keep this summary's case.
    void merge(const MomentSummary& other);

    long long count() const { return m_n; }           ///< finite values
    long long nonFiniteCount() const { return m_nonFinite; }
    double mean() const { return m_shift + m_mean; }   ///< 0 when there are no values
    /// Sample variance (divisor n - 1); 0 for fewer than two values.
    double variance() const;
    double standardDeviation() const;
    /// Skewness g1 = m3 / m2^1.5 with moments about the mean divided by n (not bias-corrected); NaN when
    /// the values do not vary or there are none.
    double skewness() const;
    /// Excess kurtosis g2 = m4 / m2^2 - 3 (not bias-corrected); NaN as for the skewness.
    double excessKurtosis() const;
    double minimum() const { return m_min; }           ///< 0 when there are no values
    double maximum() const { return m_max; }
    int minimumCase() const { return m_minCase; }      ///< the run that has the minimum (the first met)
    int maximumCase() const { return m_maxCase; }
    /// Sums of the second, third and fourth powers of the deviations from the mean.
    double m2() const { return m_m2; }
    double m3() const { return m_m3; }
    double m4() const { return m_m4; }

private:
    // `keepShift`: the summary's shift stays (it already holds values); else the first finite value sets it.
    void addChecked(const double* values, const int* cases, size_t n, bool keepShift);
    void setCentralSums(double s1, double s2, double s3, double s4);

    long long m_n = 0;
    long long m_nonFinite = 0;
    // Values are summed as their differences from `m_shift` (the first value), so that a small spread
    // about a large mean keeps its digits; `m_mean` is the mean of those differences.
    double m_shift = 0.0;
    double m_mean = 0.0, m_m2 = 0.0, m_m3 = 0.0, m_m4 = 0.0;
    double m_min = 0.0, m_max = 0.0;
    int m_minCase = 0, m_maxCase = 0;
};

/// A `MomentSummary` that also keeps the finite values, for percentiles. Merging concatenates them.
class SUPPORTQT_API SampleSummary {
public:
    void add(double value, int caseNumber);
    void addBlock(const double* values, const int* cases, size_t n);
    /// Adds `values` as `addBlock` does, taking over their storage instead of copying them when this
    /// summary holds no values yet. `values` is left empty.
    void addBlock(std::vector<double>&& values, const int* cases);
    /// Makes this the summary of both samples; the values of `other` follow those of this one.
    void merge(const SampleSummary& other);

    const MomentSummary& moments() const { return m_moments; }
    /// The p-th percentile (0 <= p <= 100) of the finite values by linear interpolation between the two
    /// nearest order statistics: with the values sorted as x[0..n-1] and h = (n - 1) p / 100, the result
    /// is x[floor h] + (h - floor h) (x[floor h + 1] - x[floor h]). NaN when there are no values or p is
    /// outside 0..100. Sorts the kept values the first time it is called after a change.
    double percentile(double p) const;
    /// `count` percentiles at once (`ps[i]` to `out[i]`), as `percentile` gives them, without sorting
    /// the values: the order statistics needed are selected exactly in a few linear passes.
    void percentiles(const double* ps, int count, double* out) const;
    /// The finite values, sorted when `percentile` has been called since the last change.
    const std::vector<double>& values() const { return m_values; }

private:
    void sort() const;
    MomentSummary m_moments;
    mutable std::vector<double> m_values;
    mutable bool m_sorted = true;
};

/// Design limits of one merit function; either may be absent.
struct MeritLimits {
    bool hasLower = false;
    double lower = 0.0;
    bool hasUpper = false;
    double upper = 0.0;
    bool any() const { return hasLower || hasUpper; }
    /// Whether a value meets the limits (a value on a limit passes; a value that is not finite fails). A
    /// limit that is NaN is met by no value, and makes Cp and Cpk and their intervals NaN. A lower limit
    /// above the upper one is met by no value either; Cp is then negative, as its formula gives.
    SUPPORTQT_API bool passes(double value) const;
};

/// A confidence interval; both ends NaN when it cannot be formed.
struct ConfidenceInterval {
    double low;
    double high;
};

/// One parameter's relative deviation from its nominal value in one run: (used - nominal) / nominal, or
/// used - nominal when the nominal value is 0 (then `absolute` is true).
struct ParameterDeviation {
    YString name;
    double deviation = 0.0;
    bool absolute = false;
};

/// The Spearman rank correlation of one parameter's deviation with a merit function's value.
struct ParameterInfluence {
    YString name;
    double rho = 0.0; ///< NaN when either side does not vary, or a run's deviation of the parameter is not a number
};

/// The deviations of the parameters one run changed, in the run's order: a read-only list that the
/// statistics of every merit function whose extreme is that run share, so that they cost memory once.
class ParameterDeviations {
public:
    ParameterDeviations() = default;
    explicit ParameterDeviations(std::vector<ParameterDeviation> list)
        : m_list(std::make_shared<const std::vector<ParameterDeviation>>(std::move(list))) {}
    size_t size() const { return m_list ? m_list->size() : 0; }
    bool empty() const { return size() == 0; }
    const ParameterDeviation& operator[](size_t i) const { return (*m_list)[i]; }
    const ParameterDeviation* begin() const { return m_list ? m_list->data() : nullptr; }
    const ParameterDeviation* end() const { return m_list ? m_list->data() + m_list->size() : nullptr; }

private:
    std::shared_ptr<const std::vector<ParameterDeviation>> m_list;
};

/// A run at an extreme of a merit function, with the deviations of the parameters it changed.
struct WorstCaseRun {
    int caseNumber = 0;
    double value = 0.0;
    ParameterDeviations parameters;
};

/// The percentiles reported for every merit function, in this order.
constexpr double kRunStatisticsPercentiles[] = {0.1, 1, 5, 10, 25, 50, 75, 90, 95, 99, 99.9};
constexpr int kRunStatisticsPercentileCount = 11;

/// Everything computed for one merit function.
struct MeritStatistics {
    int merit = 0;          ///< index into the header's merit functions
    YString name;           ///< its display name
    YString definition;     ///< its defining text
    SampleSummary sample;   ///< the finite values of every run that has one, case 1 included
    double percentiles[kRunStatisticsPercentileCount] = {};
    bool hasNominal = false;
    double nominal = 0.0;   ///< the value in case 1

    /// Jarque-Bera statistic n/6 (g1^2 + g2^2/4) and its p-value exp(-JB/2) (chi-square with 2 degrees of
    /// freedom); NaN for fewer than 3 values or values that do not vary.
    double jarqueBera = 0.0;
    double jarqueBeraP = 0.0;
    bool notNormal = false; ///< p < 0.05

    MeritLimits limits;
    /// With limits: runs that meet them; runs whose value is not finite count as failing runs.
    long long passCount = 0;
    long long runCount = 0;        ///< runs with a value, finite or not
    double yield = 0.0;            ///< passCount / runCount; NaN without limits or runs
    ConfidenceInterval yieldInterval{}; ///< 95% Wilson score interval
    /// The standard normal quantile of the yield (a yield of 99.865% is 3 sigma); +inf at 100%, -inf at 0.
    double yieldSigma = 0.0;
    /// Cp = (upper - lower) / 6s (both limits needed) and Cpk = min(upper - mean, mean - lower) / 3s
    /// (one-sided with one limit), s the sample standard deviation of the finite values. One run set is
    /// one sample, so these are also Pp and Ppk. NaN when s is 0 or there are fewer than two values, and
    /// Cpk NaN when a side of it is (an infinite limit against an infinite s).
    double cp = 0.0;
    double cpk = 0.0;
    /// 95% intervals: for Cp the exact one from the chi-square distribution with n - 1 degrees of
    /// freedom, Cp sqrt(q/(n-1)) at its 2.5% and 97.5% quantiles q; for Cpk Bissell's normal
    /// approximation Cpk -/+ 1.959964 sqrt(1/(9n) + Cpk^2/(2(n-1))), which is [Cpk, Cpk] for an infinite
    /// Cpk.
    ConfidenceInterval cpInterval{};
    ConfidenceInterval cpkInterval{};
    std::vector<int> failingCases; ///< in case order

    /// Parameters ranked by the magnitude of their rank correlation, largest first (NaN last).
    std::vector<ParameterInfluence> influence;
    WorstCaseRun atMinimum; ///< meaningful when the sample has values
    WorstCaseRun atMaximum;
};

/// The statistics of every merit function of `header` over the runs of `table`. `limits[i]` applies to
/// merit function i (missing entries: no limits). A run that lacks a value for a merit function (its
/// record holds fewer values) is left out of that merit function's statistics. The results-file reader
/// gives a run with no value for a merit function the value 0 when the run has a value for a later one,
/// or when the reference run (case 1) has one for it: such a 0 is a value here. The parameter influence (Spearman's rho with average ranks
/// for ties, over the runs with a finite value; a parameter a run did not change counts as deviation 0
/// in that run) is computed only when `influence` is true, since it ranks every parameter. A table of
/// 65,536 runs or more is walked, and without `influence` its merit functions summarised, on up to one
/// thread per core (at most 8) for the length of the call; the results are those of one thread.
SUPPORTQT_API std::vector<MeritStatistics> sp_ComputeRunStatistics(const YHashTable<XMLReportInfo>& table,
                                                                    const XMLReportHeader& header,
                                                                    const std::vector<MeritLimits>& limits,
                                                                    bool influence = true);

/// The statistics of one merit function of `table` (index `merit`); name and definition are left empty.
/// An index below 0, or past every run's values, gives no values, no nominal value and no influence.
/// A large table is walked on several threads, as `sp_ComputeRunStatistics` walks it.
SUPPORTQT_API MeritStatistics sp_ComputeMeritStatistics(const YHashTable<XMLReportInfo>& table, int merit,
                                                        const MeritLimits& limits = MeritLimits(),
                                                        bool influence = true);

/// The runs of `table` in increasing case number (a table holds each case number once). The records stay
/// the table's: the pointers are valid while the table is not changed.
SUPPORTQT_API std::vector<const XMLReportInfo*> sp_RunsInCaseOrder(const YHashTable<XMLReportInfo>& table);

/// Standard normal quantile (the inverse of the distribution function), accurate to about 1e-15
/// relative (about 1e-8 for p below the smallest normal double, which holds fewer digits itself, down to
/// the smallest double, -38.4674); -inf at 0, +inf at 1, NaN outside 0..1.
SUPPORTQT_API double sp_NormalQuantile(double p);
/// Quantile of the chi-square distribution with `degrees` degrees of freedom (> 0); NaN when p is outside
/// 0..1 or degrees is not positive. Above two million degrees the distribution is taken from its uniform
/// asymptotic expansion, which keeps the quantiles' digits up to any number of degrees.
SUPPORTQT_API double sp_ChiSquareQuantile(double p, double degrees);
/// Spearman's rank correlation of two equally long samples (average ranks for ties); NaN when they are
/// shorter than 2, differ in length, hold a NaN, or either does not vary.
SUPPORTQT_API double sp_SpearmanCorrelation(const std::vector<double>& x, const std::vector<double>& y);
