// RunStatistics.cpp - moments merged pairwise, percentiles from the sorted values, normality, yield and
// capability with their intervals, and rank correlations of parameters with merit functions.
#include "RunStatistics.h"
#include "Interpolation_p.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <exception>
#include <limits>
#include <math.h>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
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

// Selects the order statistics of `ranks` (ascending, each in lo..hi - 1) of a[lo..hi) in place, into
// `out`: the middle rank splits the range, and each side is searched for the ranks that fall in it, so k
// ranks cost about log2 k partitions of the values instead of k.
void multiSelect(double* a, size_t lo, size_t hi, const size_t* ranks, size_t k, double* out)
{
    while (k > 0) {
        if (hi - lo <= 32 || k > (hi - lo) / 16) {
            std::sort(a + lo, a + hi);
            for (size_t i = 0; i < k; ++i)
                out[i] = a[ranks[i]];
            return;
        }
        const size_t mid = k / 2, r = ranks[mid];
        std::nth_element(a + lo, a + r, a + hi);
        out[mid] = a[r];
        multiSelect(a, lo, r, ranks, mid, out); // everything before r is no larger than a[r]
        lo = r + 1;
        ranks += mid + 1;
        out += mid + 1;
        k -= mid + 1;
    }
}

// The order statistics of the given ranks (0-based, ascending, distinct) of finite values between `low`
// and `high`, without sorting them all. One pass counts the values in equal bins between the extremes;
// a second gathers the values of the few bins that hold the wanted ranks, which are then selected from.
// The bins are monotone in the value, so they hold consecutive runs of the sorted values, and the result
// is exact whatever the distribution.
void orderStatistics(const double* values, size_t n, double low, double high, const std::vector<size_t>& ranks,
                     std::vector<double>* out)
{
    const size_t first = out->size();
    out->resize(first + ranks.size());
    double* found = out->data() + first;
    if (!(high > low)) { // every value is the same
        std::fill(found, found + ranks.size(), low);
        return;
    }
    // About eight values a bin, at most 65536 bins (their table stays in the processor's cache).
    size_t bins = 1024;
    while (bins < 65536 && bins * 8 < n)
        bins *= 2;
    const double scale = static_cast<double>(bins) / (high - low);
    // Few values, a range wider than the largest double, or one so narrow that the bins' scale is
    // infinite: the values are selected directly.
    if (n <= 8192 || !std::isfinite(high - low) || !std::isfinite(scale) || n >= 0xFFFFFFFFu) {
        std::vector<double> copy(values, values + n);
        multiSelect(copy.data(), 0, n, ranks.data(), ranks.size(), found);
        return;
    }
    const double top = static_cast<double>(bins - 1);
    const auto binOf = [&](double x) {
        return static_cast<size_t>(static_cast<long long>(std::min((x - low) * scale, top)));
    };
    std::vector<uint32_t> counts(bins, 0);
    for (size_t i = 0; i < n; ++i)
        ++counts[binOf(values[i])];
    // The bins that hold wanted ranks, in ascending order, with the ranks each holds (local to the bin).
    constexpr uint32_t kUnwanted = 0xFFFFFFFFu;
    std::vector<uint32_t> slotOf(bins, kUnwanted);
    std::vector<std::vector<size_t>> local;
    std::vector<std::vector<double>> members;
    std::vector<size_t> firstRank;
    size_t below = 0, bin = 0;
    for (size_t k = 0; k < ranks.size();) {
        while (below + counts[bin] <= ranks[k])
            below += counts[bin++];
        slotOf[bin] = static_cast<uint32_t>(local.size());
        firstRank.push_back(k);
        members.emplace_back();
        members.back().reserve(counts[bin]);
        local.emplace_back();
        while (k < ranks.size() && ranks[k] < below + counts[bin])
            local.back().push_back(ranks[k++] - below);
    }
    for (size_t i = 0; i < n; ++i) {
        const uint32_t slot = slotOf[binOf(values[i])];
        if (slot != kUnwanted)
            members[slot].push_back(values[i]);
    }
    for (size_t s = 0; s < members.size(); ++s)
        multiSelect(members[s].data(), 0, members[s].size(), local[s].data(), local[s].size(), found + firstRank[s]);
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

// The logarithm of the gamma function. The C library's lgamma stores the sign of the result in a global
// variable, which merit functions summarised side by side would write together: glibc's reentrant form
// is used, and elsewhere the calls are taken one at a time.
double logGamma(double a)
{
#if defined(__GLIBC__)
    int sign = 0;
    return lgamma_r(a, &sign);
#else
    static std::mutex lock;
    const std::lock_guard<std::mutex> hold(lock);
    return std::lgamma(a);
#endif
}

// Above this shape the series and the continued fraction below would need a number of terms that
// grows as the square root of the shape, and a * log(x) would leave too few digits: the uniform
// asymptotic expansion takes over, whose next term is below a rounding error there.
constexpr double kLargeShape = 1e6;
constexpr double kTwoPi = 6.283185307179586;

// m - log(1 + m) for m > -1, without the cancellation of the two near 0.
double minusLog1p(double m)
{
    if (std::fabs(m) > 0.1)
        return m - std::log1p(m);
    double power = m * m, sum = 0.0;
    for (int k = 2; k < 80; ++k) {
        const double term = (k % 2 == 0 ? power : -power) / k;
        sum += term;
        if (std::fabs(term) <= 1e-17 * std::fabs(sum))
            break;
        power *= m;
    }
    return sum;
}

// P(a, x) for a shape above kLargeShape: erfc of the scaled distance eta between x and a, less the first
// two terms of the remainder's expansion in 1/a.
double lowerGammaLargeShape(double a, double x)
{
    const double m = (x - a) / a;
    const double d = minusLog1p(m);
    const double eta = std::copysign(std::sqrt(2.0 * d), m);
    double c0, c1;
    if (std::fabs(eta) < 0.01) {
        // The coefficients' own forms cancel near eta = 0: their Taylor series instead.
        c0 = -1.0 / 3 + eta * (1.0 / 12 + eta * (-2.0 / 135 + eta * (1.0 / 864 + eta * (1.0 / 2835 - eta * 139.0 / 777600))));
        c1 = -1.0 / 540 + eta * (-1.0 / 288 + eta * (1.0 / 378 - eta * 77.0 / 77760));
    } else {
        c0 = 1.0 / m - 1.0 / eta;
        c1 = 1.0 / (eta * eta * eta) - 1.0 / (m * m * m) - 1.0 / (m * m) - 1.0 / (12.0 * m);
    }
    const double remainder = std::exp(-a * d) / std::sqrt(kTwoPi * a) * (c0 + c1 / a);
    return std::clamp(0.5 * std::erfc(-eta * std::sqrt(a / 2.0)) - remainder, 0.0, 1.0);
}

// The logarithm of the gamma density of shape a at x, written in x / a so that no digits go to the
// cancelling terms a * log(x) and log(Gamma(a)) of a large shape.
double logGammaDensityLargeShape(double a, double x)
{
    const double m = (x - a) / a;
    const double stirling = 1.0 / (12.0 * a) - 1.0 / (360.0 * a * a * a);
    return -a * minusLog1p(m) - std::log1p(m) - 0.5 * std::log(kTwoPi * a) - stirling;
}

// Regularised lower incomplete gamma function P(a, x): its series below a + 1, else one minus the
// continued fraction of the upper function (modified Lentz); the asymptotic expansion for a large shape.
double lowerGammaRegularised(double a, double x)
{
    if (x <= 0.0)
        return 0.0;
    if (a > kLargeShape)
        return lowerGammaLargeShape(a, x);
    const double logPrefix = a * std::log(x) - x - logGamma(a);
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

// The runs among `n` whose values meet the limits, and the cases of those that do not, in table order.
// The test has no branch (a value that is not finite fails: x - x is then NaN, and NaN compares false),
// so that failing runs scattered through the set cost no mispredicted jumps.
long long countPassing(const double* values, const int* cases, size_t n, const MeritLimits& limits,
                       std::vector<int>* failing)
{
    const double lower = limits.hasLower ? limits.lower : -kInf, upper = limits.hasUpper ? limits.upper : kInf;
    int buffer[kBlock];
    long long passing = 0;
    for (size_t start = 0; start < n; start += kBlock) {
        const size_t length = std::min(n - start, kBlock);
        const double* v = values + start;
        const int* c = cases + start;
        size_t failed = 0;
        for (size_t i = 0; i < length; ++i) {
            const double x = v[i];
            const bool ok = (x >= lower) & (x <= upper) & (x - x == 0.0);
            buffer[failed] = c[i];
            failed += !ok;
        }
        passing += static_cast<long long>(length - failed);
        failing->insert(failing->end(), buffer, buffer + failed);
    }
    return passing;
}

// Everything but the parameter influence, from the merit function's values (finite or not; taken) and
// their case numbers in table order.
void fillStatistics(MeritStatistics* s, const YHashTable<XMLReportInfo>& table, std::vector<double>&& values,
                    const int* cases)
{
    s->runCount = static_cast<long long>(values.size());
    const MeritLimits& lim = s->limits;
    if (lim.any()) {
        s->passCount = countPassing(values.data(), cases, values.size(), lim, &s->failingCases);
        // Runs usually stand in the table in case order already.
        if (!std::is_sorted(s->failingCases.begin(), s->failingCases.end()))
            std::sort(s->failingCases.begin(), s->failingCases.end());
    }
    s->sample.addBlock(std::move(values), cases);
    const MomentSummary& m = s->sample.moments();
    s->sample.percentiles(kRunStatisticsPercentiles, kRunStatisticsPercentileCount, s->percentiles);
    if (const XMLReportInfo* nominal = findCase(table, 1); nominal && s->merit >= 0 && nominal->values.count() > s->merit) {
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

    const ConfidenceInterval none{kNaN, kNaN};
    s->yieldInterval = s->cpInterval = s->cpkInterval = none;
    s->yield = s->yieldSigma = s->cp = s->cpk = kNaN;
    if (!lim.any())
        return;
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
        const double a = s->cp * std::sqrt(sp_ChiSquareQuantile(0.025, dof) / dof);
        const double b = s->cp * std::sqrt(sp_ChiSquareQuantile(0.975, dof) / dof);
        // (A negative Cp, of limits in the wrong order, turns the ends round.)
        s->cpInterval = {std::min(a, b), std::max(a, b)};
    }
    // A side that is not a number (a NaN limit, or an infinite limit against an infinite spread), which
    // std::min would pass over, leaves no capability to state.
    double cpk = kInf;
    const auto side = [&](double distance) {
        const double c = distance / (3.0 * sd);
        cpk = std::isnan(c) || std::isnan(cpk) ? kNaN : std::min(cpk, c);
    };
    if (lim.hasUpper)
        side(lim.upper - mu);
    if (lim.hasLower)
        side(mu - lim.lower);
    s->cpk = cpk;
    // An infinite Cpk (infinite limits) is its own interval: the half width is infinite too.
    const double half = std::isinf(cpk) ? 0.0 : z * std::sqrt(1.0 / (9.0 * n) + cpk * cpk / (2.0 * (n - 1.0)));
    s->cpkInterval = {cpk - half, cpk + half};
}

// A parameter's average ranks over a set of runs. Most runs of a large set may leave a given
// parameter alone (deviation 0, one tie), so only the runs that name it are listed, and while they are
// the first runs of the set without a gap (as in a run set where every run names every parameter) their
// positions are not stored at all: the memory follows the values the runs hold.
struct SparseRanks {
    double restRank = 0.0;      // the rank of every run not listed
    std::vector<uint32_t> runs; // the listed runs' positions; empty when they are the first ranks.size()
    std::vector<double> ranks;  // their deviations while gathered, then their ranks
    size_t runAt(size_t i) const { return runs.empty() ? i : runs[i]; }
};

// The average ranks of every parameter's deviation over `runs` (0 where a run did not change it). A
// run's parameters are looked up by position first, since runs usually list them in the same order;
// a name a run lists twice counts with its last value.
std::vector<SparseRanks> parameterRanks(const std::vector<const XMLReportInfo*>& runs, const std::vector<YString>& names,
                                        const std::unordered_map<std::string, int>& columns)
{
    std::vector<SparseRanks> out(names.size());
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
            SparseRanks& c = out[column];
            const size_t k = c.ranks.size();
            if (k > 0 && c.runAt(k - 1) == r) {
                c.ranks.back() = deviationOf(p);
                continue;
            }
            if (c.runs.empty() && k != r) {
                // The first gap: from here on the positions are kept.
                c.runs.resize(k);
                for (size_t j = 0; j < k; ++j)
                    c.runs[j] = static_cast<uint32_t>(j);
                c.runs.push_back(static_cast<uint32_t>(r));
            } else if (!c.runs.empty()) {
                c.runs.push_back(static_cast<uint32_t>(r));
            }
            c.ranks.push_back(deviationOf(p));
        }
    }
    for (SparseRanks& c : out) {
        // A deviation that is not a number has no rank (and would break the sort's order): the parameter's
        // correlation is not a number either.
        if (std::any_of(c.ranks.begin(), c.ranks.end(), [](double v) { return std::isnan(v); })) {
            std::fill(c.ranks.begin(), c.ranks.end(), kNaN);
            c.restRank = kNaN;
            continue;
        }
        // The listed values in order, beside their places in the column.
        std::vector<std::pair<double, uint32_t>> order(c.ranks.size());
        for (size_t i = 0; i < c.ranks.size(); ++i)
            order[i] = {c.ranks[i], static_cast<uint32_t>(i)};
        std::sort(order.begin(), order.end());
        const size_t rest = runs.size() - order.size();
        bool restPlaced = rest == 0;
        double before = 0.0; // values ranked so far
        const auto tie = [&](size_t count) {
            const double rank = (before + 1.0 + before + static_cast<double>(count)) / 2.0;
            before += static_cast<double>(count);
            return rank;
        };
        for (size_t i = 0; i < order.size();) {
            size_t j = i + 1;
            while (j < order.size() && order[j].first == order[i].first)
                ++j;
            size_t count = j - i;
            // The runs not listed are zeros: they tie with listed zeros, or stand before the first value
            // above zero.
            if (!restPlaced && !(order[i].first < 0.0)) {
                restPlaced = true;
                if (order[i].first == 0.0)
                    count += rest;
                else
                    c.restRank = tie(rest);
            }
            const double rank = tie(count);
            if (count > j - i)
                c.restRank = rank;
            for (size_t k = i; k < j; ++k)
                c.ranks[order[k].second] = rank;
            i = j;
        }
        if (!restPlaced)
            c.restRank = tie(rest);
    }
    return out;
}

// Spearman's rho of every parameter with the merit function over `runs` (the runs with a finite
// value, in table order), ranked by magnitude: the Pearson correlation of the two rank vectors, the
// parameter's taken as its listed ranks and the one rank of the rest.
void fillInfluence(MeritStatistics* s, const std::vector<double>& values, const std::vector<YString>& names,
                   const std::vector<SparseRanks>& ranks)
{
    if (names.empty() || values.size() < 2)
        return;
    const std::vector<double> y = averageRanks(values);
    const size_t n = y.size();
    double my = 0.0;
    for (double v : y)
        my += v;
    my /= static_cast<double>(n);
    double syy = 0.0, sumDy = 0.0;
    for (double v : y) {
        sumDy += v - my;
        syy += (v - my) * (v - my);
    }
    for (size_t c = 0; c < names.size(); ++c) {
        const SparseRanks& x = ranks[c];
        const double restCount = static_cast<double>(n - x.ranks.size());
        double listed = 0.0;
        for (double rank : x.ranks)
            listed += rank;
        const double mx = (x.restRank * restCount + listed) / static_cast<double>(n);
        const double dz = x.restRank - mx;
        double sxy = 0.0, sxx = 0.0, listedDy = 0.0;
        for (size_t i = 0; i < x.ranks.size(); ++i) {
            const double dx = x.ranks[i] - mx, dy = y[x.runAt(i)] - my;
            listedDy += dy;
            sxy += dx * dy;
            sxx += dx * dx;
        }
        sxy += dz * (sumDy - listedDy);
        sxx += restCount * dz * dz;
        const double rho = sxx <= 0.0 || syy <= 0.0 ? kNaN : std::clamp(sxy / std::sqrt(sxx * syy), -1.0, 1.0);
        s->influence.push_back({names[c], rho});
    }
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
        const size_t length = std::min(n - start, kBlock);
        const double* v = values + start;
        MomentSummary part;
        const double shift = m_n > 0 ? m_shift : v[0];
        // Four sums and two extrema in lanes, with no test of each value: a sum that comes out finite
        // proves every value finite, since an infinity or a NaN would have made it infinite or NaN.
        double a0 = 0.0, a1 = 0.0, a2 = 0.0, a3 = 0.0;
        double lo0 = v[0], lo1 = v[0], hi0 = v[0], hi1 = v[0];
        size_t i = 0;
        for (; i + 4 <= length; i += 4) {
            a0 += v[i] - shift;
            a1 += v[i + 1] - shift;
            a2 += v[i + 2] - shift;
            a3 += v[i + 3] - shift;
            lo0 = v[i] < lo0 ? v[i] : lo0;
            lo1 = v[i + 1] < lo1 ? v[i + 1] : lo1;
            lo0 = v[i + 2] < lo0 ? v[i + 2] : lo0;
            lo1 = v[i + 3] < lo1 ? v[i + 3] : lo1;
            hi0 = v[i] > hi0 ? v[i] : hi0;
            hi1 = v[i + 1] > hi1 ? v[i + 1] : hi1;
            hi0 = v[i + 2] > hi0 ? v[i + 2] : hi0;
            hi1 = v[i + 3] > hi1 ? v[i + 3] : hi1;
        }
        for (; i < length; ++i) {
            a0 += v[i] - shift;
            lo0 = v[i] < lo0 ? v[i] : lo0;
            hi0 = v[i] > hi0 ? v[i] : hi0;
        }
        const double sum = (a0 + a1) + (a2 + a3);
        if (std::isfinite(sum)) {
            part.m_n = static_cast<long long>(length);
            part.m_shift = shift;
            part.m_mean = sum / static_cast<double>(length);
            // The first value equal to an extremum is the one its case comes from; it is looked for only
            // when the part's extremum can replace the summary's.
            const double lo = lo0 < lo1 ? lo0 : lo1, hi = hi0 > hi1 ? hi0 : hi1;
            part.m_min = lo;
            part.m_max = hi;
            if (m_n == 0 || lo < m_min) {
                const size_t at = static_cast<size_t>(std::find(v, v + length, lo) - v);
                part.m_min = v[at];
                part.m_minCase = cases ? cases[start + at] : 0;
            }
            if (m_n == 0 || hi > m_max) {
                const size_t at = static_cast<size_t>(std::find(v, v + length, hi) - v);
                part.m_max = v[at];
                part.m_maxCase = cases ? cases[start + at] : 0;
            }
            // A second pass over the cached block: central sums about the block's mean, in lanes.
            const double mean = part.m_mean;
            double d1[4] = {}, d2[4] = {}, d3[4] = {}, d4[4] = {};
            i = 0;
            for (; i + 4 <= length; i += 4)
                for (size_t l = 0; l < 4; ++l) {
                    const double d = (v[i + l] - shift) - mean, dd = d * d;
                    d1[l] += d;
                    d2[l] += dd;
                    d3[l] += dd * d;
                    d4[l] += dd * dd;
                }
            for (; i < length; ++i) {
                const double d = (v[i] - shift) - mean, dd = d * d;
                d1[0] += d;
                d2[0] += dd;
                d3[0] += dd * d;
                d4[0] += dd * dd;
            }
            const double s1 = (d1[0] + d1[1]) + (d1[2] + d1[3]), s2 = (d2[0] + d2[1]) + (d2[2] + d2[3]);
            const double s3 = (d3[0] + d3[1]) + (d3[2] + d3[3]), s4 = (d4[0] + d4[1]) + (d4[2] + d4[3]);
            part.setCentralSums(s1, s2, s3, s4);
        } else {
            part.m_shift = m_shift;
            part.addChecked(v, cases ? cases + start : nullptr, length, m_n > 0);
        }
        merge(part);
    }
}

// A block that holds values that are not finite, value by value.
void MomentSummary::addChecked(const double* values, const int* cases, size_t n, bool keepShift)
{
    // The shift: the given one, else the first finite value; none (0) where a value's difference from
    // it would pass the largest double.
    bool shiftChosen = keepShift;
    for (size_t i = 0; i < n; ++i) {
        const double v = values[i];
        if (!std::isfinite(v))
            continue;
        if (!shiftChosen) {
            m_shift = v;
            shiftChosen = true;
        }
        if (!std::isfinite(v - m_shift)) {
            m_shift = 0.0;
            break;
        }
    }
    double sum = 0.0;
    for (size_t i = 0; i < n; ++i) {
        const double v = values[i];
        if (!std::isfinite(v)) {
            ++m_nonFinite;
            continue;
        }
        const int c = cases ? cases[i] : 0;
        if (m_n == 0 || v < m_min) {
            m_min = v;
            m_minCase = c;
        }
        if (m_n == 0 || v > m_max) {
            m_max = v;
            m_maxCase = c;
        }
        ++m_n;
        sum += v - m_shift;
    }
    if (m_n == 0)
        return;
    m_mean = sum / static_cast<double>(m_n);
    if (!std::isfinite(m_mean)) {
        // Values near the largest double whose sum passes it: their mean from shares of each.
        m_mean = 0.0;
        for (size_t i = 0; i < n; ++i)
            if (std::isfinite(values[i]))
                m_mean += (values[i] - m_shift) / static_cast<double>(m_n);
    }
    double s1 = 0.0, s2 = 0.0, s3 = 0.0, s4 = 0.0;
    for (size_t i = 0; i < n; ++i) {
        const double v = values[i];
        if (!std::isfinite(v))
            continue;
        const double d = (v - m_shift) - m_mean, d2 = d * d;
        s1 += d;
        s2 += d2;
        s3 += d2 * d;
        s4 += d2 * d2;
    }
    setCentralSums(s1, s2, s3, s4);
}

// The moments about the exact mean from sums of powers of the deviations from the current mean: s1 is
// the rounding left in the mean, and correcting for it keeps the sums about the exact mean. Deviations
// that pass the largest double leave no rounding to tell: the mean stays, and the spread is infinite.
void MomentSummary::setCentralSums(double s1, double s2, double s3, double s4)
{
    const double k = static_cast<double>(m_n), e = std::isfinite(s1) ? s1 / k : 0.0;
    m_mean += e;
    // Squared deviations past the largest double are an infinite spread; its correction may be too.
    m_m2 = std::isinf(s2) ? s2 : s2 - k * e * e;
    m_m3 = s3 - 3.0 * e * s2 + 2.0 * k * e * e * e;
    m_m4 = s4 - 4.0 * e * s3 + 6.0 * e * e * s2 - 3.0 * k * e * e * e * e;
    if (m_m2 < 0.0)
        m_m2 = 0.0;
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
    // The difference of the two means, the shifts apart first (nothing when they are the same); means
    // further apart than the largest double are weighted whole below.
    const double d = (o.m_shift - m_shift) + (o.m_mean - m_mean), dn = d / n, d2 = d * d;
    const double m2 = m_m2 + o.m_m2 + d2 * na * nb / n;
    const double m3 = m_m3 + o.m_m3 + d2 * d * na * nb * (na - nb) / (n * n) + 3.0 * dn * (na * o.m_m2 - nb * m_m2);
    const double m4 = m_m4 + o.m_m4 + d2 * d2 * na * nb * (na * na - na * nb + nb * nb) / (n * n * n) +
                      6.0 * dn * dn * (na * na * o.m_m2 + nb * nb * m_m2) + 4.0 * dn * (na * o.m_m3 - nb * m_m3);
    // The mean of the larger part moves least: weight from the side that keeps the rounding small.
    if (!std::isfinite(d)) {
        m_mean = (m_shift + m_mean) * (na / n) + (o.m_shift + o.m_mean) * (nb / n);
        m_shift = 0.0;
    } else if (na >= nb) {
        m_mean += d * (nb / n);
    } else {
        m_shift = o.m_shift;
        m_mean = o.m_mean - d * (na / n);
    }
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

namespace {

// Appends to a summary's values. Capacity grows fourfold: merging many parts then copies each value
// about a third of a time more instead of once more, and capacity not yet written costs no memory.
void appendValues(std::vector<double>* to, const double* from, size_t n)
{
    if (to->capacity() - to->size() < n)
        to->reserve(std::max(to->size() + n, 4 * to->capacity()));
    to->insert(to->end(), from, from + n);
}

} // namespace

void SampleSummary::addBlock(const double* values, const int* cases, size_t n)
{
    const long long nonFinite = m_moments.nonFiniteCount();
    m_moments.addBlock(values, cases, n);
    const size_t before = m_values.size();
    if (m_moments.nonFiniteCount() == nonFinite) {
        appendValues(&m_values, values, n);
    } else {
        for (size_t i = 0; i < n; ++i)
            if (std::isfinite(values[i]))
                m_values.push_back(values[i]);
    }
    if (m_values.size() != before)
        m_sorted = false;
}

void SampleSummary::addBlock(std::vector<double>&& values, const int* cases)
{
    if (!m_values.empty()) {
        addBlock(values.data(), cases, values.size());
        values.clear();
        return;
    }
    const long long nonFinite = m_moments.nonFiniteCount();
    m_moments.addBlock(values.data(), cases, values.size());
    if (m_moments.nonFiniteCount() != nonFinite)
        values.erase(std::remove_if(values.begin(), values.end(), [](double v) { return !std::isfinite(v); }), values.end());
    m_values.swap(values);
    values.clear();
    if (!m_values.empty())
        m_sorted = false;
}

void SampleSummary::merge(const SampleSummary& other)
{
    m_moments.merge(other.m_moments);
    if (other.m_values.empty())
        return;
    appendValues(&m_values, other.m_values.data(), other.m_values.size());
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
        out[i] = lo + 1 >= n ? at(lo) : stats::between(at(lo), at(lo + 1), h - static_cast<double>(lo));
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
    return stats::between(m_values[lo], m_values[lo + 1], h - static_cast<double>(lo));
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
        // The error is taken where rounding keeps it: near the middle as a distance from 0.5, which
        // p - 0.5 gives exactly, and further out on the smaller tail.
        const double e = std::fabs(x) < 1 ? 0.5 * std::erf(x / sqrt2) - (p - 0.5)
                         : x < 0          ? 0.5 * std::erfc(-x / sqrt2) - p
                                          : (1 - p) - 0.5 * std::erfc(x / sqrt2);
        // e / density; far out (p below about 1e-310) the density's reciprocal passes the largest double,
        // and the quotient is taken through logarithms.
        const double u = x * x / 2 < 700 ? e * sqrt2pi * std::exp(x * x / 2)
                         : e == 0        ? 0.0
                                         : std::copysign(std::exp(std::log(std::fabs(e) * sqrt2pi) + x * x / 2), e);
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
    // Newton's steps on the distribution function from the Wilson-Hilferty approximation, kept inside
    // a bracket that every step narrows and falling back to bisection when a step would leave it: a few
    // evaluations instead of the sixty of plain bisection, which count for many degrees of freedom,
    // where each evaluation sums a series of about the square root of their number of terms.
    const double h = 2.0 / (9.0 * degrees);
    const double w = 1.0 - h + sp_NormalQuantile(p) * std::sqrt(h);
    double x = w > 0.0 ? degrees * w * w * w : degrees * 0.5;
    if (!(x > 0.0) || !std::isfinite(x))
        x = degrees;
    const double logNorm = logGamma(a) + std::log(2.0);
    double lo = 0.0, hi = kInf;
    // The lower tail's series is at most its first term, (x/2)^a / Gamma(a + 1), so where that term is
    // p the distribution is at most p: a lower bound of the root, and close to it far in the tail, where
    // the normal approximation above is no guide and halving from it would take too many steps.
    const double logTailBound = std::log(2.0) + (std::log(p) + logGamma(a + 1.0)) / a;
    // A root below the smallest double: the quantile is 0 in doubles.
    if (logTailBound < std::log(std::numeric_limits<double>::denorm_min()))
        return 0.0;
    const double tailBound = std::exp(logTailBound);
    if (tailBound > 0.0 && std::isfinite(tailBound)) {
        lo = tailBound;
        if (!(x > lo) || w <= 0.0)
            x = lo;
    }
    for (int i = 0; i < 400; ++i) {
        const double lower = lowerGammaRegularised(a, x / 2.0), f = lower - p;
        if (f < 0.0)
            lo = x;
        else
            hi = x;
        if (f == 0.0)
            break;
        const double logDensity = a > kLargeShape ? logGammaDensityLargeShape(a, x / 2.0) - std::log(2.0)
                                                  : (a - 1.0) * std::log(x / 2.0) - x / 2.0 - logNorm;
        // In the lower tail the distribution falls like a power of x: Newton's step is taken on its
        // logarithm there, which is nearly straight, instead of on the distribution, which would creep.
        double next = lower > 0.0 && lower < 0.1 ? x - (std::log(lower) - std::log(p)) * std::exp(std::log(lower) - logDensity)
                                                 : x - f / std::exp(logDensity);
        // Outside the bracket: its middle, taken on a logarithmic scale while its ends are orders of
        // magnitude apart.
        if (!(next > lo && next < hi))
            next = !std::isfinite(hi) ? 2.0 * x : lo > 0.0 && hi > 4.0 * lo ? std::sqrt(lo) * std::sqrt(hi) : lo + (hi - lo) / 2.0;
        if (std::fabs(next - x) <= 4e-16 * x || (std::isfinite(hi) && hi - lo <= 4e-16 * hi)) {
            x = next;
            break;
        }
        x = next;
    }
    return x;
}

double sp_SpearmanCorrelation(const std::vector<double>& x, const std::vector<double>& y)
{
    if (x.size() != y.size() || x.size() < 2)
        return kNaN;
    // NaN has no rank (nor could the sort rank it).
    const auto hasNaN = [](const std::vector<double>& v) { return std::any_of(v.begin(), v.end(), [](double d) { return std::isnan(d); }); };
    if (hasNaN(x) || hasNaN(y))
        return kNaN;
    return pearson(averageRanks(x), averageRanks(y));
}

// ------------------------------------------------------------------------------------------ run sets

namespace {

struct Columns {
    std::vector<YString> names;
    std::unordered_map<std::string, int> index;
    /// Ranks of every parameter's deviation over all runs, made when a merit function first needs them.
    std::vector<SparseRanks> allRanks;
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

// One merit function's values in table order, finite or not, from the runs that have one. Their case
// numbers are the shared ones of every run while no run lacks the value, and the column's own after.
struct MeritColumn {
    std::vector<double> values;
    std::vector<int> cases;
    bool gapped = false;
};

struct Gathered {
    std::vector<int> cases; // every run's case number, in table order
    std::vector<MeritColumn> columns;
    const int* casesOf(const MeritColumn& c) const { return c.gapped ? c.cases.data() : cases.data(); }
};

// Tables of at least this many runs are gathered and summarised on several threads: walking a million
// records spread over the heap waits on memory, and two cores wait on it twice as fast; below it the
// threads would cost more than they save.
constexpr size_t kParallelRuns = size_t(1) << 16;

// Calls job(0) .. job(count - 1), spread over up to one thread per core when `parallel` (the calling
// thread is one of them; when a thread cannot be started, the others do its share). The first exception
// a job throws is thrown again here, after every job has ended.
template <class Job>
void runJobs(size_t count, bool parallel, const Job& job)
{
    const size_t cores = std::max(1u, std::thread::hardware_concurrency());
    const size_t threads = parallel ? std::min({count, cores, size_t(8)}) : 1;
    std::atomic<size_t> next{0};
    std::exception_ptr failure;
    std::mutex failureLock;
    const auto worker = [&] {
        for (size_t i; (i = next.fetch_add(1)) < count;) {
            try {
                job(i);
            } catch (...) {
                const std::lock_guard<std::mutex> hold(failureLock);
                if (!failure)
                    failure = std::current_exception();
            }
        }
    };
    std::vector<std::thread> pool;
    for (size_t t = 1; t < threads; ++t) {
        try {
            pool.emplace_back(worker);
        } catch (...) {
            break;
        }
    }
    worker();
    for (std::thread& t : pool)
        t.join();
    if (failure)
        std::rethrow_exception(failure);
}

// Copies the values of merit functions first .. first + W - 1 of runs [from, to) of the table into
// position of run index in the columns, up to the first run that lacks one of them, whose index is
// lowered into `firstGap`; a range that lies past a gap another range found stops early, since the
// runs after a gap are gathered again in the general way.
template <size_t W>
void gatherRange(const YHashTable<XMLReportInfo>& table, size_t from, size_t to, int first, int* cases,
                 double* const* columns, std::atomic<size_t>* firstGap, size_t width = W)
{
    for (size_t k = from; k < to; ++k) {
        if (k % 1024 == 0 && k > firstGap->load(std::memory_order_relaxed))
            return;
        const XMLReportInfo& run = table.item(static_cast<int>(k));
        if (static_cast<long long>(run.values.count()) - first < static_cast<long long>(width)) {
            size_t seen = firstGap->load(std::memory_order_relaxed);
            while (k < seen && !firstGap->compare_exchange_weak(seen, k, std::memory_order_relaxed)) {
            }
            return;
        }
        cases[k] = run.caseNumber;
        for (size_t m = 0; m < width; ++m)
            columns[m][k] = run.values[first + static_cast<int>(m)].value;
    }
}

// gatherRange for any width: a width the compiler knows (up to four) makes the copy of a run a few
// straight loads and stores, so that many runs' memory reads are in flight at once.
void gatherRangeOfWidth(const YHashTable<XMLReportInfo>& table, size_t from, size_t to, int first, size_t width,
                        int* cases, double* const* columns, std::atomic<size_t>* firstGap)
{
    switch (width) {
    case 1: gatherRange<1>(table, from, to, first, cases, columns, firstGap); break;
    case 2: gatherRange<2>(table, from, to, first, cases, columns, firstGap); break;
    case 3: gatherRange<3>(table, from, to, first, cases, columns, firstGap); break;
    case 4: gatherRange<4>(table, from, to, first, cases, columns, firstGap); break;
    default: gatherRange<0>(table, from, to, first, cases, columns, firstGap, width); break;
    }
}

// Gathers runs [from, n) of the table up to the first that lacks a value, on several threads (each over
// its own range of runs) when `parallel`; returns that run's index (n when none does). Every run before
// it is in place.
size_t gatherWholeRuns(const YHashTable<XMLReportInfo>& table, size_t from, int first, size_t width, int* cases,
                       double* const* columns, bool parallel)
{
    const size_t n = static_cast<size_t>(table.count());
    std::atomic<size_t> firstGap{n};
    const size_t parts = parallel ? 16 : 1;
    runJobs(parts, parallel, [&](size_t part) {
        gatherRangeOfWidth(table, from + (n - from) * part / parts, from + (n - from) * (part + 1) / parts, first,
                           width, cases, columns, &firstGap);
    });
    return firstGap.load();
}

// The values of merit functions first .. first + count - 1, gathered in one pass over the table's own
// storage, in its order: each record and each of its values is an allocation of its own, and walking
// them in the order they were stored keeps the walk sequential in memory.
Gathered gatherColumns(const YHashTable<XMLReportInfo>& table, int first, int count)
{
    Gathered g;
    const size_t n = static_cast<size_t>(table.count());
    const size_t width = static_cast<size_t>(std::max(count, 0));
    g.columns.resize(width);
    // The columns' first touch (tens of megabytes of fresh pages on a large table) is shared out too.
    runJobs(width + 1, n >= kParallelRuns, [&](size_t m) {
        if (m < width)
            g.columns[m].values.resize(n);
        else
            g.cases.resize(n);
    });
    std::vector<double*> to(width);
    for (size_t m = 0; m < width; ++m)
        to[m] = g.columns[m].values.data();
    // Runs that have every value, as long as no column has missed one, are gathered in the fastest way
    // (a large table's on several threads); from a run that lacks one, run by run.
    std::vector<size_t> filled(width, 0);
    size_t i = 0;
    bool parallel = n >= kParallelRuns;
    while (i < n) {
        if (std::none_of(g.columns.begin(), g.columns.end(), [](const MeritColumn& c) { return c.gapped; })) {
            const size_t from = i;
            i = gatherWholeRuns(table, i, first, width, g.cases.data(), to.data(), parallel);
            parallel = false;
            for (size_t& f : filled)
                f += i - from;
            if (i == n)
                break;
        }
        const XMLReportInfo& run = table.item(static_cast<int>(i));
        const int caseNumber = run.caseNumber;
        g.cases[i] = caseNumber;
        const long long have = static_cast<long long>(run.values.count()) - first; // any first, INT_MIN included
        for (size_t m = 0; m < width; ++m) {
            MeritColumn& c = g.columns[m];
            if (static_cast<long long>(m) < have) {
                to[m][filled[m]++] = run.values[first + static_cast<int>(m)].value;
                if (c.gapped)
                    c.cases.push_back(caseNumber);
            } else if (!c.gapped) {
                // Every run before this one had the value: their cases are the shared ones so far.
                c.gapped = true;
                c.cases.assign(g.cases.begin(), g.cases.begin() + static_cast<std::ptrdiff_t>(i));
            }
        }
        ++i;
    }
    for (size_t m = 0; m < width; ++m)
        g.columns[m].values.resize(filled[m]);
    return g;
}

// The deviation lists of the runs at the merit functions' extremes, made once per run: many merit
// functions may share an extreme run, and a list per merit function would cost merit functions times
// parameters. Safe to use from the threads of one call.
class DeviationLists {
public:
    ParameterDeviations of(const YHashTable<XMLReportInfo>& table, int caseNumber)
    {
        const std::lock_guard<std::mutex> hold(m_lock);
        const auto found = m_lists.find(caseNumber);
        if (found != m_lists.end())
            return found->second;
        const ParameterDeviations list(deviationsOf(findCase(table, caseNumber)));
        m_lists.emplace(caseNumber, list);
        return list;
    }

private:
    std::mutex m_lock;
    std::unordered_map<int, ParameterDeviations> m_lists;
};

MeritStatistics computeOne(const YHashTable<XMLReportInfo>& table, const std::vector<const XMLReportInfo*>& runs,
                           int merit, std::vector<double>&& values, const int* cases, const MeritLimits& limits,
                           Columns* columns, DeviationLists& deviations)
{
    MeritStatistics s;
    s.merit = merit;
    s.limits = limits;
    fillStatistics(&s, table, std::move(values), cases);
    if (s.sample.moments().count() > 0) {
        const int low = s.sample.moments().minimumCase(), high = s.sample.moments().maximumCase();
        s.atMinimum = {low, s.sample.moments().minimum(), deviations.of(table, low)};
        s.atMaximum = {high, s.sample.moments().maximum(), deviations.of(table, high)};
    }
    if (columns) {
        std::vector<const XMLReportInfo*> finiteRuns;
        std::vector<double> finiteValues;
        for (const XMLReportInfo* run : runs)
            if (merit >= 0 && run->values.count() > merit && std::isfinite(run->values[merit].value)) {
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
    // The runs one by one are needed only for the parameters' ranks.
    const std::vector<const XMLReportInfo*> runs = influence ? runsOf(table) : std::vector<const XMLReportInfo*>();
    Columns columns;
    if (influence)
        columns = parameterColumns(runs);
    Gathered g = gatherColumns(table, merit, merit >= 0 ? 1 : 0);
    std::vector<double> values;
    const int* cases = g.cases.data();
    if (!g.columns.empty()) {
        values.swap(g.columns[0].values);
        cases = g.casesOf(g.columns[0]);
    }
    DeviationLists deviations;
    return computeOne(table, runs, merit, std::move(values), cases, limits, influence ? &columns : nullptr, deviations);
}

std::vector<MeritStatistics> sp_ComputeRunStatistics(const YHashTable<XMLReportInfo>& table,
                                                     const XMLReportHeader& header,
                                                     const std::vector<MeritLimits>& limits, bool influence)
{
    const std::vector<const XMLReportInfo*> runs = influence ? runsOf(table) : std::vector<const XMLReportInfo*>();
    Columns columns;
    if (influence)
        columns = parameterColumns(runs);
    const int count = std::max(header.meritFunctions.count(), 0);
    std::vector<MeritStatistics> out(static_cast<size_t>(count));
    Gathered g = gatherColumns(table, 0, count);
    DeviationLists deviations;
    // Merit functions are summarised side by side on a large table; the parameters' ranks, shared by
    // all of them and made on first use, keep them one after the other when the influence is asked for.
    runJobs(static_cast<size_t>(count), !influence && static_cast<size_t>(table.count()) >= kParallelRuns,
            [&](size_t m) {
                const MeritLimits none;
                MeritColumn& column = g.columns[m];
                out[m] = computeOne(table, runs, static_cast<int>(m), std::move(column.values), g.casesOf(column),
                                    m < limits.size() ? limits[m] : none, influence ? &columns : nullptr, deviations);
                column = MeritColumn(); // its cases are not needed any more
                out[m].name = header.meritFunctions[static_cast<int>(m)].name;
                out[m].definition = header.meritFunctions[static_cast<int>(m)].value;
            });
    return out;
}
