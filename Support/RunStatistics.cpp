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

// The order statistics of the given ranks (0-based, ascending) of a copy of the values, each selected
// from what the previous selection left above it.
void selectDirectly(const double* values, size_t n, const std::vector<size_t>& ranks, std::vector<double>* out)
{
    std::vector<double> copy(values, values + n);
    size_t from = 0;
    for (size_t r : ranks) {
        std::nth_element(copy.begin() + static_cast<std::ptrdiff_t>(from), copy.begin() + static_cast<std::ptrdiff_t>(r),
                         copy.end());
        out->push_back(copy[r]);
        from = r; // everything before r is now no larger than copy[r]
    }
}

// The order statistics of the given ranks (0-based, ascending) of finite values, without sorting them
// all: a histogram of 65536 equal bins between the smallest and largest value finds the bin of each
// rank, one more pass gathers the values of those bins, and each rank is selected among them (again
// by bins when a bin holds many different values). Exact, and two linear passes in the usual case.
void orderStatistics(const double* values, size_t n, double low, double high, const std::vector<size_t>& ranks,
                     std::vector<double>* out)
{
    constexpr size_t kBins = 65536;
    if (!(high > low)) { // every value is the same
        for (size_t i = 0; i < ranks.size(); ++i)
            out->push_back(low);
        return;
    }
    if (n <= 4 * kBins || !std::isfinite(high - low)) {
        selectDirectly(values, n, ranks, out);
        return;
    }
    // x -> bin is monotone, so the bins hold consecutive runs of the sorted values.
    const double scale = static_cast<double>(kBins) / (high - low);
    const auto binOf = [low, scale](double x) {
        const double b = (x - low) * scale;
        return b >= static_cast<double>(kBins - 1) ? kBins - 1 : static_cast<size_t>(b);
    };
    std::vector<uint32_t> counts(kBins, 0);
    for (size_t i = 0; i < n; ++i)
        ++counts[binOf(values[i])];
    // For each rank: its bin and its rank within the bin.
    std::vector<int> slot(kBins, -1);
    std::vector<size_t> wanted; // bins, in order
    std::vector<std::pair<int, size_t>> where;
    size_t below = 0, bin = 0;
    for (size_t r : ranks) {
        while (below + counts[bin] <= r) {
            below += counts[bin];
            ++bin;
        }
        if (slot[bin] < 0) {
            slot[bin] = static_cast<int>(wanted.size());
            wanted.push_back(bin);
        }
        where.emplace_back(slot[bin], r - below);
    }
    std::vector<std::vector<double>> gathered(wanted.size());
    for (size_t k = 0; k < wanted.size(); ++k)
        gathered[k].reserve(counts[wanted[k]]);
    for (size_t i = 0; i < n; ++i) {
        const int k = slot[binOf(values[i])];
        if (k >= 0)
            gathered[static_cast<size_t>(k)].push_back(values[i]);
    }
    for (size_t k = 0; k < wanted.size(); ++k) {
        std::vector<double>& g = gathered[k];
        std::vector<size_t> local;
        for (const auto& [s, r] : where)
            if (s == static_cast<int>(k))
                local.push_back(r);
        local.erase(std::unique(local.begin(), local.end()), local.end());
        const auto [lo, hi] = std::minmax_element(g.begin(), g.end());
        std::vector<double> found;
        // A bin that holds every value (bins too coarse for its spread) is selected from directly.
        if (g.size() == n)
            selectDirectly(g.data(), g.size(), local, &found);
        else
            orderStatistics(g.data(), g.size(), *lo, *hi, local, &found);
        for (size_t j = 0; j < local.size(); ++j)
            g[local[j]] = found[j]; // the bin's values are no longer needed in their order
        std::vector<size_t>().swap(local);
    }
    for (const auto& [s, r] : where)
        out->push_back(gathered[static_cast<size_t>(s)][r]);
}

// Average ranks (1-based) of a sample; ties share the mean of the ranks they span.
std::vector<double> averageRanks(const std::vector<double>& x)
{
    // Values sorted beside their positions: one contiguous array sorts much faster than positions
    // compared through the values.
    const size_t n = x.size();
    std::vector<std::pair<double, size_t>> order(n);
    for (size_t i = 0; i < n; ++i)
        order[i] = {x[i], i};
    std::sort(order.begin(), order.end());
    std::vector<double> ranks(n);
    for (size_t i = 0; i < n;) {
        size_t j = i + 1;
        while (j < n && order[j].first == order[i].first)
            ++j;
        const double rank = (static_cast<double>(i + 1) + static_cast<double>(j)) / 2.0;
        for (size_t k = i; k < j; ++k)
            ranks[order[k].second] = rank;
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
    s->sample.percentiles(kRunStatisticsPercentiles, kRunStatisticsPercentileCount, s->percentiles);
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
// The average ranks of every parameter's deviation over `runs` (0 where a run did not change it). A
// run's parameters are looked up by position first, since runs usually list them in the same order.
std::vector<std::vector<double>> parameterRanks(const std::vector<const XMLReportInfo*>& runs,
                                                const std::vector<YString>& names,
                                                const std::unordered_map<std::string, int>& columns)
{
    std::vector<std::vector<double>> deviations(names.size(), std::vector<double>(runs.size(), 0.0));
    for (size_t r = 0; r < runs.size(); ++r) {
        const XMLReportInfo& run = *runs[r];
        for (int i = 0; i < run.parameters.count(); ++i) {
            const XMLParameterValue& p = run.parameters[i];
            size_t column = static_cast<size_t>(i);
            if (column >= names.size() || !(names[column] == p.name)) {
                auto it = columns.find(p.name.str());
                if (it == columns.end())
                    continue;
                column = static_cast<size_t>(it->second);
            }
            deviations[column][r] = deviationOf(p);
        }
    }
    for (std::vector<double>& d : deviations)
        d = averageRanks(d);
    return deviations;
}

void fillInfluence(MeritStatistics* s, const std::vector<double>& values, const std::vector<YString>& names,
                   const std::vector<std::vector<double>>& ranks)
{
    if (names.empty() || values.size() < 2)
        return;
    const std::vector<double> valueRanks = averageRanks(values);
    for (size_t c = 0; c < names.size(); ++c)
        s->influence.push_back({names[c], pearson(ranks[c], valueRanks)});
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

void SampleSummary::percentiles(const double* ps, int count, double* out) const
{
    const size_t n = m_values.size();
    if (m_sorted || n == 0) {
        for (int i = 0; i < count; ++i)
            out[i] = percentile(ps[i]);
        return;
    }
    // The two order statistics around each percentile's position, selected all at once.
    std::vector<size_t> ranks;
    for (int i = 0; i < count; ++i) {
        if (!(ps[i] >= 0.0 && ps[i] <= 100.0))
            continue;
        const size_t lo = std::min(static_cast<size_t>(static_cast<double>(n - 1) * ps[i] / 100.0), n - 1);
        ranks.push_back(lo);
        ranks.push_back(std::min(lo + 1, n - 1));
    }
    std::sort(ranks.begin(), ranks.end());
    ranks.erase(std::unique(ranks.begin(), ranks.end()), ranks.end());
    std::vector<double> found;
    orderStatistics(m_values.data(), n, m_moments.minimum(), m_moments.maximum(), ranks, &found);
    const auto at = [&](size_t r) { return found[static_cast<size_t>(std::lower_bound(ranks.begin(), ranks.end(), r) - ranks.begin())]; };
    for (int i = 0; i < count; ++i) {
        const double p = ps[i];
        if (!(p >= 0.0 && p <= 100.0)) {
            out[i] = kNaN;
            continue;
        }
        const double h = static_cast<double>(n - 1) * p / 100.0;
        const size_t lo = std::min(static_cast<size_t>(h), n - 1);
        const double a = at(lo);
        out[i] = lo + 1 >= n ? a : a + (h - static_cast<double>(lo)) * (at(lo + 1) - a);
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
    /// Ranks of every parameter's deviation over all runs, made when a merit function first needs them.
    std::vector<std::vector<double>> allRanks;
    bool ranked = false;
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

// One merit function's values and their case numbers, in table order.
struct MeritColumn {
    std::vector<double> values;
    std::vector<int> cases;
};

MeritStatistics computeOne(const YHashTable<XMLReportInfo>& table, const std::vector<const XMLReportInfo*>& runs,
                           int merit, const MeritColumn& column, const MeritLimits& limits, Columns* columns)
{
    MeritStatistics s;
    s.merit = merit;
    s.limits = limits;
    fillStatistics(&s, table, column.values, column.cases);
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
        // The parameters' ranks over all runs serve every merit function that has a finite value in each.
        if (finiteRuns.size() == runs.size()) {
            if (!columns->ranked) {
                columns->allRanks = parameterRanks(runs, columns->names, columns->index);
                columns->ranked = true;
            }
            fillInfluence(&s, finiteValues, columns->names, columns->allRanks);
        } else {
            fillInfluence(&s, finiteValues, columns->names, parameterRanks(finiteRuns, columns->names, columns->index));
        }
    }
    return s;
}

// The values of merit functions 0 .. count - 1, gathered in one pass over the runs.
std::vector<MeritColumn> meritColumns(const std::vector<const XMLReportInfo*>& runs, int first, int count)
{
    std::vector<MeritColumn> out(static_cast<size_t>(std::max(count, 0)));
    for (MeritColumn& c : out) {
        c.values.reserve(runs.size());
        c.cases.reserve(runs.size());
    }
    // Each record and each of its values is an allocation of its own: fetching the ones a few runs ahead
    // keeps several memory reads in flight instead of waiting for each in turn.
    const size_t n = runs.size();
    for (size_t i = 0; i < n; ++i) {
#if defined(__GNUC__) || defined(__clang__)
        if (i + 64 < n)
            __builtin_prefetch(runs[i + 64]);
        if (i + 32 < n) {
            const XMLReportInfo* ahead = runs[i + 32];
            for (int m = first; m < first + count && m < ahead->values.count(); m += 2)
                __builtin_prefetch(&ahead->values[m]);
        }
#endif
        const XMLReportInfo* run = runs[i];
        const int have = std::min(run->values.count() - first, count);
        for (int m = 0; m < have; ++m) {
            MeritColumn& c = out[static_cast<size_t>(m)];
            c.values.push_back(run->values[first + m].value);
            c.cases.push_back(run->caseNumber);
        }
    }
    return out;
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

std::vector<const XMLReportInfo*> sp_RunsInCaseOrder(const YHashTable<XMLReportInfo>& table)
{
    std::vector<const XMLReportInfo*> runs = runsOf(table);
    std::sort(runs.begin(), runs.end(), [](const XMLReportInfo* a, const XMLReportInfo* b) { return a->caseNumber < b->caseNumber; });
    return runs;
}

MeritStatistics sp_ComputeMeritStatistics(const YHashTable<XMLReportInfo>& table, int merit, const MeritLimits& limits,
                                          bool influence)
{
    const std::vector<const XMLReportInfo*> runs = runsOf(table);
    Columns columns;
    if (influence)
        columns = parameterColumns(runs);
    const std::vector<MeritColumn> column = meritColumns(runs, merit, merit >= 0 ? 1 : 0);
    return computeOne(table, runs, merit, column.empty() ? MeritColumn() : column[0], limits,
                      influence ? &columns : nullptr);
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
    std::vector<MeritColumn> merits = meritColumns(runs, 0, header.meritFunctions.count());
    for (int m = 0; m < header.meritFunctions.count(); ++m) {
        const MeritLimits none;
        out.push_back(computeOne(table, runs, m, merits[static_cast<size_t>(m)],
                                 static_cast<size_t>(m) < limits.size() ? limits[static_cast<size_t>(m)] : none,
                                 influence ? &columns : nullptr));
        merits[static_cast<size_t>(m)] = MeritColumn(); // its memory is not needed any more
        out.back().name = header.meritFunctions[m].name;
        out.back().definition = header.meritFunctions[m].value;
    }
    return out;
}
