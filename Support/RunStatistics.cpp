// RunStatistics.cpp - moments merged pairwise, percentiles from the sorted values, normality, yield and
// capability with their intervals, and rank correlations of parameters with merit functions.
#include "RunStatistics.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <unordered_map>

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
// Values are summed in blocks of this size: two passes over a block that stays in the cache, then one
// pairwise merge, which is both exact and fast.
constexpr size_t kBlock = 2048;

// Sorts doubles that are all finite: a least-significant-digit radix sort on the bit patterns turned
// into unsigned keys that order like the values, 16 bits at a time; short arrays use std::sort.
void sortFinite(std::vector<double>& values)
{
    const size_t n = values.size();
    if (n < 4096) {
        std::sort(values.begin(), values.end());
        return;
    }
    std::vector<uint64_t> keys(n), scratch(n);
    for (size_t i = 0; i < n; ++i) {
        uint64_t bits;
        std::memcpy(&bits, &values[i], sizeof bits);
        keys[i] = (bits >> 63) ? ~bits : bits | (uint64_t(1) << 63);
    }
    std::vector<size_t> counts(65536);
    for (int shift = 0; shift < 64; shift += 16) {
        std::fill(counts.begin(), counts.end(), 0);
        for (uint64_t k : keys)
            ++counts[(k >> shift) & 0xFFFF];
        if (counts[(keys[0] >> shift) & 0xFFFF] == n)
            continue; // every key has the same digit here
        size_t total = 0;
        for (size_t& c : counts) {
            const size_t here = c;
            c = total;
            total += here;
        }
        for (uint64_t k : keys)
            scratch[counts[(k >> shift) & 0xFFFF]++] = k;
        keys.swap(scratch);
    }
    for (size_t i = 0; i < n; ++i) {
        const uint64_t k = keys[i];
        const uint64_t bits = (k >> 63) ? k & ~(uint64_t(1) << 63) : ~k;
        std::memcpy(&values[i], &bits, sizeof bits);
    }
}

// Average ranks (1-based) of a sample; ties share the mean of the ranks they span.
std::vector<double> averageRanks(const std::vector<double>& x)
{
    const size_t n = x.size();
    std::vector<size_t> order(n);
    for (size_t i = 0; i < n; ++i)
        order[i] = i;
    std::sort(order.begin(), order.end(), [&x](size_t a, size_t b) { return x[a] < x[b]; });
    std::vector<double> ranks(n);
    for (size_t i = 0; i < n;) {
        size_t j = i + 1;
        while (j < n && x[order[j]] == x[order[i]])
            ++j;
        const double rank = (static_cast<double>(i + 1) + static_cast<double>(j)) / 2.0;
        for (size_t k = i; k < j; ++k)
            ranks[order[k]] = rank;
        i = j;
    }
    return ranks;
}

double pearson(const std::vector<double>& x, const std::vector<double>& y)
{
    const size_t n = x.size();
    double mx = 0.0, my = 0.0;
    for (size_t i = 0; i < n; ++i) {
        mx += x[i];
        my += y[i];
    }
    mx /= static_cast<double>(n);
    my /= static_cast<double>(n);
    double sxy = 0.0, sxx = 0.0, syy = 0.0;
    for (size_t i = 0; i < n; ++i) {
        const double dx = x[i] - mx, dy = y[i] - my;
        sxy += dx * dy;
        sxx += dx * dx;
        syy += dy * dy;
    }
    if (sxx <= 0.0 || syy <= 0.0)
        return kNaN;
    return std::clamp(sxy / std::sqrt(sxx * syy), -1.0, 1.0);
}

// Regularised lower incomplete gamma function P(a, x): its series below a + 1, else one minus the
// continued fraction of the upper function (modified Lentz).
double lowerGammaRegularised(double a, double x)
{
    if (x <= 0.0)
        return 0.0;
    const double logPrefix = a * std::log(x) - x - std::lgamma(a);
    if (x < a + 1.0) {
        double term = 1.0 / a, sum = term;
        for (int k = 1; k < 100000; ++k) {
            term *= x / (a + k);
            sum += term;
            if (std::fabs(term) < std::fabs(sum) * 1e-17)
                break;
        }
        return std::min(1.0, sum * std::exp(logPrefix));
    }
    const double tiny = 1e-300;
    double b = x + 1.0 - a, c = 1.0 / tiny, d = 1.0 / b, h = d;
    for (int k = 1; k < 100000; ++k) {
        const double an = -k * (k - a);
        b += 2.0;
        d = an * d + b;
        if (std::fabs(d) < tiny)
            d = tiny;
        c = b + an / c;
        if (std::fabs(c) < tiny)
            c = tiny;
        d = 1.0 / d;
        const double step = d * c;
        h *= step;
        if (std::fabs(step - 1.0) < 1e-17)
            break;
    }
    return std::max(0.0, 1.0 - std::exp(logPrefix) * h);
}

const XMLReportInfo* findCase(const YHashTable<XMLReportInfo>& table, int caseNumber)
{
    XMLReportInfo probe;
    probe.caseNumber = caseNumber;
    return table.find(probe);
}

std::vector<ParameterDeviation> deviationsOf(const XMLReportInfo* run)
{
    std::vector<ParameterDeviation> out;
    if (!run)
        return out;
    for (int i = 0; i < run->parameters.count(); ++i) {
        const XMLParameterValue& p = run->parameters[i];
        ParameterDeviation d;
        d.name = p.name;
        d.absolute = p.nominal == 0.0;
        d.deviation = d.absolute ? p.usedValue : (p.usedValue - p.nominal) / p.nominal;
        out.push_back(d);
    }
    return out;
}

double deviationOf(const XMLParameterValue& p)
{
    return p.nominal == 0.0 ? p.usedValue : (p.usedValue - p.nominal) / p.nominal;
}

// Everything but the parameter influence, from the merit function's values and their case numbers in
// table order.
void fillStatistics(MeritStatistics* s, const YHashTable<XMLReportInfo>& table, const std::vector<double>& values,
                    const std::vector<int>& cases)
{
    s->sample.addBlock(values.data(), cases.data(), values.size());
    const MomentSummary& m = s->sample.moments();
    for (int i = 0; i < kRunStatisticsPercentileCount; ++i)
        s->percentiles[i] = s->sample.percentile(kRunStatisticsPercentiles[i]);
    if (const XMLReportInfo* nominal = findCase(table, 1); nominal && nominal->values.count() > s->merit) {
        s->hasNominal = true;
        s->nominal = nominal->values[s->merit].value;
    }

    const double n = static_cast<double>(m.count());
    const double g1 = m.skewness(), g2 = m.excessKurtosis();
    if (m.count() >= 3 && std::isfinite(g1) && std::isfinite(g2)) {
        s->jarqueBera = n / 6.0 * (g1 * g1 + g2 * g2 / 4.0);
        s->jarqueBeraP = std::exp(-s->jarqueBera / 2.0);
        s->notNormal = s->jarqueBeraP < 0.05;
    } else {
        s->jarqueBera = s->jarqueBeraP = kNaN;
    }

    s->runCount = static_cast<long long>(values.size());
    const MeritLimits& lim = s->limits;
    const ConfidenceInterval none{kNaN, kNaN};
    s->yieldInterval = s->cpInterval = s->cpkInterval = none;
    s->yield = s->yieldSigma = s->cp = s->cpk = kNaN;
    if (!lim.any())
        return;
    for (size_t i = 0; i < values.size(); ++i) {
        if (lim.passes(values[i]))
            ++s->passCount;
        else
            s->failingCases.push_back(cases[i]);
    }
    std::sort(s->failingCases.begin(), s->failingCases.end());
    if (s->runCount > 0) {
        const double runs = static_cast<double>(s->runCount);
        const double p = static_cast<double>(s->passCount) / runs;
        s->yield = p;
        s->yieldSigma = sp_NormalQuantile(p);
        // Wilson score interval at 95%.
        const double z = sp_NormalQuantile(0.975), z2 = z * z;
        const double centre = (p + z2 / (2 * runs)) / (1 + z2 / runs);
        const double half = z / (1 + z2 / runs) * std::sqrt(p * (1 - p) / runs + z2 / (4 * runs * runs));
        s->yieldInterval = {std::max(0.0, centre - half), std::min(1.0, centre + half)};
    }
    const double sd = m.standardDeviation();
    if (m.count() < 2 || !(sd > 0.0))
        return;
    const double mu = m.mean();
    const double z = sp_NormalQuantile(0.975);
    if (lim.hasLower && lim.hasUpper) {
        s->cp = (lim.upper - lim.lower) / (6.0 * sd);
        const double dof = n - 1.0;
        s->cpInterval = {s->cp * std::sqrt(sp_ChiSquareQuantile(0.025, dof) / dof),
                         s->cp * std::sqrt(sp_ChiSquareQuantile(0.975, dof) / dof)};
    }
    double cpk = kInf;
    if (lim.hasUpper)
        cpk = std::min(cpk, (lim.upper - mu) / (3.0 * sd));
    if (lim.hasLower)
        cpk = std::min(cpk, (mu - lim.lower) / (3.0 * sd));
    s->cpk = cpk;
    const double half = z * std::sqrt(1.0 / (9.0 * n) + cpk * cpk / (2.0 * (n - 1.0)));
    s->cpkInterval = {cpk - half, cpk + half};
}

// Spearman's rho of every parameter with the merit function over `runs` (the runs with a finite
// value, in table order), ranked by magnitude.
void fillInfluence(MeritStatistics* s, const std::vector<const XMLReportInfo*>& runs, const std::vector<double>& values,
                   const std::vector<YString>& names, const std::unordered_map<std::string, int>& columns)
{
    if (names.empty() || runs.size() < 2)
        return;
    const std::vector<double> valueRanks = averageRanks(values);
    std::vector<std::vector<double>> deviations(names.size(), std::vector<double>(runs.size(), 0.0));
    for (size_t r = 0; r < runs.size(); ++r) {
        const XMLReportInfo& run = *runs[r];
        for (int i = 0; i < run.parameters.count(); ++i) {
            const XMLParameterValue& p = run.parameters[i];
            auto it = columns.find(p.name.str());
            if (it != columns.end())
                deviations[static_cast<size_t>(it->second)][r] = deviationOf(p);
        }
    }
    for (size_t c = 0; c < names.size(); ++c)
        s->influence.push_back({names[c], pearson(averageRanks(deviations[c]), valueRanks)});
    std::stable_sort(s->influence.begin(), s->influence.end(), [](const ParameterInfluence& a, const ParameterInfluence& b) {
        const bool an = std::isnan(a.rho), bn = std::isnan(b.rho);
        if (an || bn)
            return !an && bn;
        return std::fabs(a.rho) > std::fabs(b.rho);
    });
}

} // namespace

// ------------------------------------------------------------------------------------------ moments

void MomentSummary::add(double value, int caseNumber)
{
    addBlock(&value, &caseNumber, 1);
}

void MomentSummary::addBlock(const double* values, const int* cases, size_t n)
{
    for (size_t start = 0; start < n; start += kBlock) {
        const size_t end = std::min(n, start + kBlock);
        MomentSummary part;
        double sum = 0.0;
        for (size_t i = start; i < end; ++i) {
            const double v = values[i];
            if (!std::isfinite(v)) {
                ++part.m_nonFinite;
                continue;
            }
            const int c = cases ? cases[i] : 0;
            if (part.m_n == 0 || v < part.m_min) {
                part.m_min = v;
                part.m_minCase = c;
            }
            if (part.m_n == 0 || v > part.m_max) {
                part.m_max = v;
                part.m_maxCase = c;
            }
            ++part.m_n;
            sum += v;
        }
        if (part.m_n > 0) {
            part.m_mean = sum / static_cast<double>(part.m_n);
            // A second pass over the cached block: central sums about the block's mean.
            double s2 = 0.0, s3 = 0.0, s4 = 0.0, s1 = 0.0;
            for (size_t i = start; i < end; ++i) {
                const double v = values[i];
                if (!std::isfinite(v))
                    continue;
                const double d = v - part.m_mean, d2 = d * d;
                s1 += d;
                s2 += d2;
                s3 += d2 * d;
                s4 += d2 * d2;
            }
            // s1 is the rounding left in the mean; correcting for it keeps the sums about the exact mean.
            const double k = static_cast<double>(part.m_n), e = s1 / k;
            part.m_mean += e;
            part.m_m2 = s2 - k * e * e;
            part.m_m3 = s3 - 3.0 * e * s2 + 2.0 * k * e * e * e;
            part.m_m4 = s4 - 4.0 * e * s3 + 6.0 * e * e * s2 - 3.0 * k * e * e * e * e;
            if (part.m_m2 < 0.0)
                part.m_m2 = 0.0;
        }
        merge(part);
    }
}

void MomentSummary::merge(const MomentSummary& o)
{
    m_nonFinite += o.m_nonFinite;
    if (o.m_n == 0)
        return;
    if (m_n == 0) {
        const long long nonFinite = m_nonFinite;
        *this = o;
        m_nonFinite = nonFinite;
        return;
    }
    const double na = static_cast<double>(m_n), nb = static_cast<double>(o.m_n), n = na + nb;
    const double d = o.m_mean - m_mean, dn = d / n, d2 = d * d;
    const double m2 = m_m2 + o.m_m2 + d2 * na * nb / n;
    const double m3 = m_m3 + o.m_m3 + d2 * d * na * nb * (na - nb) / (n * n) + 3.0 * dn * (na * o.m_m2 - nb * m_m2);
    const double m4 = m_m4 + o.m_m4 + d2 * d2 * na * nb * (na * na - na * nb + nb * nb) / (n * n * n) +
                      6.0 * dn * dn * (na * na * o.m_m2 + nb * nb * m_m2) + 4.0 * dn * (na * o.m_m3 - nb * m_m3);
    // The mean of the larger part moves least: weight from the side that keeps the rounding small.
    m_mean = na >= nb ? m_mean + d * (nb / n) : o.m_mean - d * (na / n);
    m_m2 = m2;
    m_m3 = m3;
    m_m4 = m4;
    m_n += o.m_n;
    if (o.m_min < m_min) {
        m_min = o.m_min;
        m_minCase = o.m_minCase;
    }
    if (o.m_max > m_max) {
        m_max = o.m_max;
        m_maxCase = o.m_maxCase;
    }
}

double MomentSummary::variance() const
{
    return m_n > 1 ? m_m2 / static_cast<double>(m_n - 1) : 0.0;
}

double MomentSummary::standardDeviation() const
{
    return std::sqrt(variance());
}

double MomentSummary::skewness() const
{
    if (m_n == 0 || !(m_m2 > 0.0))
        return kNaN;
    const double n = static_cast<double>(m_n), v = m_m2 / n;
    return (m_m3 / n) / (v * std::sqrt(v));
}

double MomentSummary::excessKurtosis() const
{
    if (m_n == 0 || !(m_m2 > 0.0))
        return kNaN;
    const double n = static_cast<double>(m_n), v = m_m2 / n;
    return (m_m4 / n) / (v * v) - 3.0;
}

// ------------------------------------------------------------------------------------------ samples

void SampleSummary::add(double value, int caseNumber)
{
    addBlock(&value, &caseNumber, 1);
}

void SampleSummary::addBlock(const double* values, const int* cases, size_t n)
{
    m_moments.addBlock(values, cases, n);
    const size_t before = m_values.size();
    m_values.reserve(before + n);
    for (size_t i = 0; i < n; ++i)
        if (std::isfinite(values[i]))
            m_values.push_back(values[i]);
    if (m_values.size() != before)
        m_sorted = false;
}

void SampleSummary::merge(const SampleSummary& other)
{
    m_moments.merge(other.m_moments);
    if (other.m_values.empty())
        return;
    m_values.insert(m_values.end(), other.m_values.begin(), other.m_values.end());
    m_sorted = false;
}

void SampleSummary::sort() const
{
    if (!m_sorted) {
        sortFinite(m_values);
        m_sorted = true;
    }
}

double SampleSummary::percentile(double p) const
{
    if (m_values.empty() || !(p >= 0.0 && p <= 100.0))
        return kNaN;
    sort();
    const size_t n = m_values.size();
    const double h = static_cast<double>(n - 1) * p / 100.0;
    const size_t lo = std::min(static_cast<size_t>(h), n - 1);
    if (lo + 1 >= n)
        return m_values[lo];
    const double t = h - static_cast<double>(lo);
    return m_values[lo] + t * (m_values[lo + 1] - m_values[lo]);
}

bool MeritLimits::passes(double value) const
{
    if (!std::isfinite(value))
        return false;
    return (!hasLower || value >= lower) && (!hasUpper || value <= upper);
}

// ------------------------------------------------------------------------------------------ distributions

double sp_NormalQuantile(double p)
{
    if (!(p >= 0.0 && p <= 1.0))
        return kNaN;
    if (p == 0.0)
        return -kInf;
    if (p == 1.0)
        return kInf;
    // A rational first guess (central region and both tails), then one Halley step on the error of the
    // distribution function computed with erfc, which brings it to full double precision.
    static const double a[] = {-3.969683028665376e+01, 2.209460984245205e+02, -2.759285104469687e+02,
                               1.383577518672690e+02,  -3.066479806614716e+01, 2.506628277459239e+00};
    static const double b[] = {-5.447609879822406e+01, 1.615858368580409e+02, -1.556989798598866e+02,
                               6.680131188771972e+01,  -1.328068155288572e+01};
    static const double c[] = {-7.784894002430293e-03, -3.223964580411365e-01, -2.400758277161838e+00,
                               -2.549732539343734e+00, 4.374664141464968e+00,  2.938163982698783e+00};
    static const double d[] = {7.784695709041462e-03, 3.224671290700398e-01, 2.445134137142996e+00,
                               3.754408661907416e+00};
    const double low = 0.02425;
    double x;
    if (p < low) {
        const double q = std::sqrt(-2 * std::log(p));
        x = (((((c[0] * q + c[1]) * q + c[2]) * q + c[3]) * q + c[4]) * q + c[5]) /
            ((((d[0] * q + d[1]) * q + d[2]) * q + d[3]) * q + 1);
    } else if (p <= 1 - low) {
        const double q = p - 0.5, r = q * q;
        x = (((((a[0] * r + a[1]) * r + a[2]) * r + a[3]) * r + a[4]) * r + a[5]) * q /
            (((((b[0] * r + b[1]) * r + b[2]) * r + b[3]) * r + b[4]) * r + 1);
    } else {
        const double q = std::sqrt(-2 * std::log1p(-p));
        x = -(((((c[0] * q + c[1]) * q + c[2]) * q + c[3]) * q + c[4]) * q + c[5]) /
            ((((d[0] * q + d[1]) * q + d[2]) * q + d[3]) * q + 1);
    }
    const double sqrt2 = 1.4142135623730951, sqrt2pi = 2.5066282746310002;
    for (int step = 0; step < 2; ++step) {
        // Work on the smaller tail so that the error is not lost to rounding near 1.
        const double e = x < 0 ? 0.5 * std::erfc(-x / sqrt2) - p : (1 - p) - 0.5 * std::erfc(x / sqrt2);
        const double u = e * sqrt2pi * std::exp(x * x / 2);
        x = x - u / (1 + x * u / 2);
    }
    return x;
}

double sp_ChiSquareQuantile(double p, double degrees)
{
    if (!(p >= 0.0 && p <= 1.0) || !(degrees > 0.0))
        return kNaN;
    if (p == 0.0)
        return 0.0;
    if (p == 1.0)
        return kInf;
    const double a = degrees / 2.0;
    // Bracket the quantile, then bisect on the distribution function to full precision.
    double lo = 0.0, hi = std::max(1.0, degrees);
    while (lowerGammaRegularised(a, hi / 2.0) < p)
        hi *= 2.0;
    for (int i = 0; i < 200 && hi - lo > 1e-16 * hi; ++i) {
        const double mid = (lo + hi) / 2.0;
        if (lowerGammaRegularised(a, mid / 2.0) < p)
            lo = mid;
        else
            hi = mid;
    }
    return (lo + hi) / 2.0;
}

double sp_SpearmanCorrelation(const std::vector<double>& x, const std::vector<double>& y)
{
    if (x.size() != y.size() || x.size() < 2)
        return kNaN;
    return pearson(averageRanks(x), averageRanks(y));
}

// ------------------------------------------------------------------------------------------ run sets

namespace {

struct Columns {
    std::vector<YString> names;
    std::unordered_map<std::string, int> index;
};

Columns parameterColumns(const std::vector<const XMLReportInfo*>& runs)
{
    Columns c;
    for (const XMLReportInfo* run : runs)
        for (int i = 0; i < run->parameters.count(); ++i) {
            const YString& name = run->parameters[i].name;
            if (c.index.emplace(name.str(), static_cast<int>(c.names.size())).second)
                c.names.push_back(name);
        }
    return c;
}

MeritStatistics computeOne(const YHashTable<XMLReportInfo>& table, const std::vector<const XMLReportInfo*>& runs,
                           int merit, const MeritLimits& limits, const Columns* columns)
{
    MeritStatistics s;
    s.merit = merit;
    s.limits = limits;
    std::vector<double> values;
    std::vector<int> cases;
    values.reserve(runs.size());
    cases.reserve(runs.size());
    for (const XMLReportInfo* run : runs)
        if (run->values.count() > merit) {
            values.push_back(run->values[merit].value);
            cases.push_back(run->caseNumber);
        }
    fillStatistics(&s, table, values, cases);
    if (s.sample.moments().count() > 0) {
        s.atMinimum = {s.sample.moments().minimumCase(), s.sample.moments().minimum(),
                       deviationsOf(findCase(table, s.sample.moments().minimumCase()))};
        s.atMaximum = {s.sample.moments().maximumCase(), s.sample.moments().maximum(),
                       deviationsOf(findCase(table, s.sample.moments().maximumCase()))};
    }
    if (columns) {
        std::vector<const XMLReportInfo*> finiteRuns;
        std::vector<double> finiteValues;
        for (const XMLReportInfo* run : runs)
            if (run->values.count() > merit && std::isfinite(run->values[merit].value)) {
                finiteRuns.push_back(run);
                finiteValues.push_back(run->values[merit].value);
            }
        fillInfluence(&s, finiteRuns, finiteValues, columns->names, columns->index);
    }
    return s;
}

std::vector<const XMLReportInfo*> runsOf(const YHashTable<XMLReportInfo>& table)
{
    std::vector<const XMLReportInfo*> runs;
    runs.reserve(static_cast<size_t>(table.count()));
    for (const XMLReportInfo& run : table)
        runs.push_back(&run);
    return runs;
}

} // namespace

MeritStatistics sp_ComputeMeritStatistics(const YHashTable<XMLReportInfo>& table, int merit, const MeritLimits& limits,
                                          bool influence)
{
    const std::vector<const XMLReportInfo*> runs = runsOf(table);
    Columns columns;
    if (influence)
        columns = parameterColumns(runs);
    return computeOne(table, runs, merit, limits, influence ? &columns : nullptr);
}

std::vector<MeritStatistics> sp_ComputeRunStatistics(const YHashTable<XMLReportInfo>& table,
                                                     const XMLReportHeader& header,
                                                     const std::vector<MeritLimits>& limits, bool influence)
{
    const std::vector<const XMLReportInfo*> runs = runsOf(table);
    Columns columns;
    if (influence)
        columns = parameterColumns(runs);
    std::vector<MeritStatistics> out;
    for (int m = 0; m < header.meritFunctions.count(); ++m) {
        const MeritLimits none;
        out.push_back(computeOne(table, runs, m, static_cast<size_t>(m) < limits.size() ? limits[static_cast<size_t>(m)] : none,
                                 influence ? &columns : nullptr));
        out.back().name = header.meritFunctions[m].name;
        out.back().definition = header.meritFunctions[m].value;
    }
    return out;
}
