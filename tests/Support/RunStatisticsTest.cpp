// RunStatisticsTest.cpp - statistics of a run set: small cases worked by hand, summaries of parts
// merged into the summary of the whole, and every number checked against NumPy and SciPy run on the
// same data by Debian's own interpreter.
#include "RunStatistics.h"
#include "TestHelpers.h"
#include "TextServices.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <climits>
#include <cmath>
#include <limits>
#include <random>
#include <string>


namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();

// Debian's interpreter, which has python3-numpy and python3-scipy: the python3 first on PATH may be
// another one without them. A Windows test under Wine can start only a Windows python3.
const char* debianPython()
{
#ifdef _WIN32
    return "python3";
#else
    return "/usr/bin/python3";
#endif
}

void expectRelative(double actual, double expected, double tolerance, const char* what)
{
    if (std::isnan(expected)) {
        EXPECT_TRUE(std::isnan(actual)) << what << ": " << actual;
        return;
    }
    if (std::isinf(expected)) {
        EXPECT_EQ(actual, expected) << what;
        return;
    }
    EXPECT_LE(std::fabs(actual - expected), tolerance * std::max(1.0, std::fabs(expected)))
        << what << ": " << actual << " against " << expected;
}

double json(const QJsonValue& v)
{
    if (v.isString()) {
        const QString s = v.toString();
        if (s == "inf")
            return std::numeric_limits<double>::infinity();
        if (s == "-inf")
            return -std::numeric_limits<double>::infinity();
        return kNaN;
    }
    return v.isNull() ? kNaN : v.toDouble();
}

XMLReportInfo run(int caseNumber, std::initializer_list<double> values)
{
    XMLReportInfo r(caseNumber);
    int i = 0;
    for (double v : values)
        r.values.at(i++).value = v;
    return r;
}

} // namespace

// ------------------------------------------------------------------------------------------ by hand

TEST(RunStatistics, FiveValuesWorkedByHand)
{
    // Values 1 2 3 4 10: mean 4; deviations -3 -2 -1 0 6; sums of powers 50, 180, 1394.
    // Sample variance 50/4 = 12.5. m2 = 10, m3 = 36, m4 = 278.8 (divided by n = 5):
    // skewness 36 / 10^1.5 = 1.138420..., excess kurtosis 278.8 / 100 - 3 = -0.212.
    // Percentiles with h = 4 p / 100: P10 at h = 0.4 is 1.4, P25 = 2, P50 = 3, P75 = 4, P90 at h = 3.6
    // is 4 + 0.6 * 6 = 7.6.
    SampleSummary s;
    const double values[] = {3, 1, 10, 2, 4};
    const int cases[] = {13, 11, 15, 12, 14};
    s.addBlock(values, cases, 5);
    const MomentSummary& m = s.moments();
    EXPECT_EQ(m.count(), 5);
    EXPECT_DOUBLE_EQ(m.mean(), 4.0);
    EXPECT_DOUBLE_EQ(m.m2(), 50.0);
    EXPECT_DOUBLE_EQ(m.m3(), 180.0);
    EXPECT_DOUBLE_EQ(m.m4(), 1394.0);
    EXPECT_DOUBLE_EQ(m.variance(), 12.5);
    EXPECT_NEAR(m.skewness(), 36.0 / std::pow(10.0, 1.5), 1e-14);
    EXPECT_NEAR(m.excessKurtosis(), -0.212, 1e-14);
    EXPECT_EQ(m.minimum(), 1.0);
    EXPECT_EQ(m.minimumCase(), 11);
    EXPECT_EQ(m.maximum(), 10.0);
    EXPECT_EQ(m.maximumCase(), 15);
    EXPECT_NEAR(s.percentile(10), 1.4, 1e-15);
    EXPECT_EQ(s.percentile(25), 2.0);
    EXPECT_EQ(s.percentile(50), 3.0);
    EXPECT_EQ(s.percentile(75), 4.0);
    EXPECT_NEAR(s.percentile(90), 7.6, 1e-14);
    EXPECT_EQ(s.percentile(0), 1.0);
    EXPECT_EQ(s.percentile(100), 10.0);
    EXPECT_TRUE(std::isnan(s.percentile(101)));
    EXPECT_TRUE(std::isnan(s.percentile(-1)));
}

TEST(RunStatistics, NonFiniteValuesAreCountedApartAndNeverAveraged)
{
    SampleSummary s;
    s.add(1.0, 1);
    s.add(std::numeric_limits<double>::infinity(), 2);
    s.add(kNaN, 3);
    s.add(3.0, 4);
    EXPECT_EQ(s.moments().count(), 2);
    EXPECT_EQ(s.moments().nonFiniteCount(), 2);
    EXPECT_EQ(s.moments().mean(), 2.0);
    EXPECT_EQ(s.moments().maximum(), 3.0);
    EXPECT_EQ(s.moments().maximumCase(), 4);
    EXPECT_EQ(s.values().size(), 2u);
}

TEST(RunStatistics, EmptyAndConstantSamplesGiveNaNWhereNothingCanBeSaid)
{
    SampleSummary empty;
    EXPECT_EQ(empty.moments().count(), 0);
    EXPECT_EQ(empty.moments().variance(), 0.0);
    EXPECT_TRUE(std::isnan(empty.moments().skewness()));
    EXPECT_TRUE(std::isnan(empty.percentile(50)));

    YHashTable<XMLReportInfo> table;
    for (int c = 1; c <= 4; ++c)
        table.insert(run(c, {5.0}));
    MeritLimits limits;
    limits.hasLower = true;
    limits.lower = 4.0;
    limits.hasUpper = true;
    limits.upper = 6.0;
    const MeritStatistics s = sp_ComputeMeritStatistics(table, 0, limits);
    EXPECT_EQ(s.sample.moments().standardDeviation(), 0.0);
    EXPECT_TRUE(std::isnan(s.sample.moments().skewness()));
    EXPECT_TRUE(std::isnan(s.jarqueBera));
    EXPECT_FALSE(s.notNormal);
    EXPECT_TRUE(std::isnan(s.cp));
    EXPECT_TRUE(std::isnan(s.cpk));
    EXPECT_EQ(s.passCount, 4);
    EXPECT_EQ(s.yield, 1.0);
    EXPECT_EQ(s.yieldSigma, std::numeric_limits<double>::infinity());
    // Wilson interval for 4 of 4: centre (1 + z^2/8) / (1 + z^2/4), half z/(1 + z^2/4) * z/4;
    // the upper end is 1 and the lower end 4 / (4 + z^2) = 0.510109...
    const double z = 1.959963984540054;
    EXPECT_NEAR(s.yieldInterval.high, 1.0, 1e-15);
    EXPECT_NEAR(s.yieldInterval.low, 4.0 / (4.0 + z * z), 1e-14);
    EXPECT_TRUE(s.failingCases.empty());
    EXPECT_TRUE(s.hasNominal);
    EXPECT_EQ(s.nominal, 5.0);
}

TEST(RunStatistics, YieldCapabilityAndFailingRunsWorkedByHand)
{
    // Values 1 2 3 4 10 against limits 0..5: runs 15 (value 10) and 16 (not finite) fail: 4 of 6 pass.
    // Mean 4, s = sqrt(12.5) = 3.5355...: Cp = 5 / 6s = 0.2357..., Cpk = min(5 - 4, 4 - 0) / 3s = 0.0943...
    YHashTable<XMLReportInfo> table;
    table.insert(run(11, {1}));
    table.insert(run(12, {2}));
    table.insert(run(13, {3}));
    table.insert(run(14, {4}));
    table.insert(run(15, {10}));
    table.insert(run(16, {std::numeric_limits<double>::infinity()}));
    table.insert(XMLReportInfo(17)); // no value at all: left out
    MeritLimits limits;
    limits.hasLower = limits.hasUpper = true;
    limits.upper = 5.0;
    const MeritStatistics s = sp_ComputeMeritStatistics(table, 0, limits);
    EXPECT_EQ(s.runCount, 6);
    EXPECT_EQ(s.passCount, 4);
    EXPECT_EQ(s.sample.moments().nonFiniteCount(), 1);
    EXPECT_EQ(s.failingCases, (std::vector<int>{15, 16}));
    EXPECT_DOUBLE_EQ(s.yield, 4.0 / 6.0);
    // Phi^-1(2/3) = 0.430727299295457...
    EXPECT_NEAR(s.yieldSigma, 0.4307272992954576, 1e-13);
    const double sd = std::sqrt(12.5);
    EXPECT_NEAR(s.cp, 5.0 / (6.0 * sd), 1e-15);
    EXPECT_NEAR(s.cpk, 1.0 / (3.0 * sd), 1e-15);
    EXPECT_FALSE(s.hasNominal);

    MeritLimits upperOnly;
    upperOnly.hasUpper = true;
    upperOnly.upper = 5.0;
    const MeritStatistics u = sp_ComputeMeritStatistics(table, 0, upperOnly);
    EXPECT_TRUE(std::isnan(u.cp)); // Cp needs both limits
    EXPECT_NEAR(u.cpk, 1.0 / (3.0 * sd), 1e-15);

    // A NaN limit is met by no value and leaves no capability: min() would have passed over it.
    for (const bool nanUpper : {true, false}) {
        MeritLimits nanLimit = limits;
        (nanUpper ? nanLimit.upper : nanLimit.lower) = std::numeric_limits<double>::quiet_NaN();
        EXPECT_FALSE(nanLimit.passes(1.0));
        const MeritStatistics n = sp_ComputeMeritStatistics(table, 0, nanLimit);
        EXPECT_EQ(n.passCount, 0);
        EXPECT_EQ(n.failingCases, (std::vector<int>{11, 12, 13, 14, 15, 16}));
        EXPECT_TRUE(std::isnan(n.cp));
        EXPECT_TRUE(std::isnan(n.cpk));
        EXPECT_TRUE(std::isnan(n.cpkInterval.low));
        EXPECT_TRUE(std::isnan(n.cpkInterval.high));
    }

    // Infinite limits give an infinite Cp and Cpk, each its own interval.
    MeritLimits endless = limits;
    endless.lower = -std::numeric_limits<double>::infinity();
    endless.upper = std::numeric_limits<double>::infinity();
    const MeritStatistics e = sp_ComputeMeritStatistics(table, 0, endless);
    EXPECT_EQ(e.cp, std::numeric_limits<double>::infinity());
    EXPECT_EQ(e.cpk, std::numeric_limits<double>::infinity());
    EXPECT_EQ(e.cpkInterval.low, std::numeric_limits<double>::infinity());
    EXPECT_EQ(e.cpkInterval.high, std::numeric_limits<double>::infinity());
    // Against an infinite spread an infinite limit's side is no number, and so is Cpk, though the other
    // side alone would be 0.
    YHashTable<XMLReportInfo> spread;
    for (const double v : {1e300, -1e300, 5e299, 0.0})
        spread.insert(run(static_cast<int>(spread.count()) + 1, {v}));
    MeritLimits openBelow;
    openBelow.hasLower = openBelow.hasUpper = true;
    openBelow.lower = -std::numeric_limits<double>::infinity();
    openBelow.upper = 1.0;
    const MeritStatistics w = sp_ComputeMeritStatistics(spread, 0, openBelow);
    EXPECT_EQ(w.sample.moments().standardDeviation(), std::numeric_limits<double>::infinity());
    EXPECT_TRUE(std::isnan(w.cpk)) << w.cpk;
    EXPECT_TRUE(std::isnan(w.cpkInterval.low));
    openBelow.hasLower = false;
    EXPECT_EQ(sp_ComputeMeritStatistics(spread, 0, openBelow).cpk, 0.0);

    // Limits in the wrong order are met by no value; Cp is negative as its formula gives, and its
    // interval still runs from its lower end to its upper one.
    MeritLimits reversed = limits;
    std::swap(reversed.lower, reversed.upper);
    const MeritStatistics r = sp_ComputeMeritStatistics(table, 0, reversed);
    EXPECT_EQ(r.passCount, 0);
    EXPECT_NEAR(r.cp, -5.0 / (6.0 * sd), 1e-15);
    EXPECT_LT(r.cpInterval.low, r.cp);
    EXPECT_GT(r.cpInterval.high, r.cp);
    EXPECT_NEAR(r.cpInterval.low, -s.cpInterval.high, 1e-15);
    EXPECT_NEAR(r.cpInterval.high, -s.cpInterval.low, 1e-15);

    const MeritStatistics none = sp_ComputeMeritStatistics(table, 0);
    EXPECT_TRUE(std::isnan(none.yield));
    EXPECT_EQ(none.passCount, 0);
    EXPECT_TRUE(none.failingCases.empty());
}

TEST(RunStatistics, SpearmanWithTiesWorkedByHand)
{
    // x ranks 1 2.5 2.5 4, y ranks 1 3 2 4; about the mean 2.5: sxy = 4.5, sxx = 4.5, syy = 5:
    // rho = 4.5 / sqrt(22.5) = 0.948683...
    EXPECT_NEAR(sp_SpearmanCorrelation({1, 2, 2, 3}, {10, 30, 20, 40}), 4.5 / std::sqrt(22.5), 1e-15);
    EXPECT_NEAR(sp_SpearmanCorrelation({1, 2, 3}, {30, 20, 10}), -1.0, 1e-15);
    EXPECT_TRUE(std::isnan(sp_SpearmanCorrelation({1, 1, 1}, {1, 2, 3})));
    EXPECT_TRUE(std::isnan(sp_SpearmanCorrelation({1, 2}, {1, 2, 3})));
    // NaN has no rank: a sample that holds one gives NaN (a sort that met it once ranked it anywhere).
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_TRUE(std::isnan(sp_SpearmanCorrelation({1, 2, nan, 4, 5}, {1, 2, 3, 4, 5})));
    EXPECT_TRUE(std::isnan(sp_SpearmanCorrelation({nan, nan, nan}, {1, 2, 3})));
    EXPECT_TRUE(std::isnan(sp_SpearmanCorrelation({5, 1, 3, 2, 4, 6}, {1, 2, 3, 4, nan, 6})));
}

TEST(RunStatistics, QuantilesWorkedByHandAndAtTheEnds)
{
    EXPECT_NEAR(sp_NormalQuantile(0.975), 1.959963984540054, 1e-15);
    EXPECT_EQ(sp_NormalQuantile(0.5), 0.0);
    EXPECT_EQ(sp_NormalQuantile(1.0), std::numeric_limits<double>::infinity());
    EXPECT_EQ(sp_NormalQuantile(0.0), -std::numeric_limits<double>::infinity());
    EXPECT_TRUE(std::isnan(sp_NormalQuantile(1.5)));
    // Near 0.5 too the quantile is accurate relative to itself (the references are SciPy's ndtri).
    const std::pair<double, double> nearHalf[] = {{0.5000000001, 2.506628482030354e-10},
                                                 {0.499999999997, -7.519857616926815e-12},
                                                 {0.49998867722429885, -2.8381989723618543e-05},
                                                 {0.3, -0.5244005127080409},
                                                 {0.75, 0.6744897501960817},
                                                 {0.9, 1.2815515655446004}};
    for (const auto& [p, x] : nearHalf)
        EXPECT_NEAR(sp_NormalQuantile(p) / x, 1.0, 1e-15) << p;
    // Far out, where the density's reciprocal passes the largest double: subnormal p, whose own digits
    // are fewer (the references are SciPy's ndtri).
    const std::pair<double, double> farOut[] = {{1e-300, -37.0470962993612},      {1e-308, -37.54067492154594},
                                               {4e-311, -37.687364018656766},     {1e-315, -37.967300351067365},
                                               {1e-320, -38.26912534303265},      {5e-324, -38.467405617144344}};
    for (const auto& [p, x] : farOut)
        EXPECT_NEAR(sp_NormalQuantile(p) / x, 1.0, p < 2.2250738585072014e-308 ? 1e-8 : 1e-15) << p;
    EXPECT_NEAR(sp_NormalQuantile(1 - 1e-16) / 8.209536151601387, 1.0, 1e-15);
    // Chi-square with 2 degrees of freedom: F(x) = 1 - exp(-x/2), so the p quantile is -2 ln(1 - p).
    EXPECT_NEAR(sp_ChiSquareQuantile(0.95, 2), -2.0 * std::log(0.05), 1e-13);
    EXPECT_NEAR(sp_ChiSquareQuantile(0.3, 2), -2.0 * std::log(0.7), 1e-13);
    EXPECT_TRUE(std::isnan(sp_ChiSquareQuantile(0.5, 0)));
}

TEST(RunStatistics, PercentilesBySelectionEqualThoseOfTheSortedValues)
{
    // Above 8,192 values the percentiles are selected through histograms instead of sorting: check
    // them against the sorted values for spread values, for values bunched by a far outlier (the
    // selection recurses into one crowded bin), and for values with many ties; and 2,001 percentiles
    // at once, which want values from hundreds of bins.
    std::mt19937_64 random(11);
    std::lognormal_distribution<double> spread(0.0, 2.0);
    std::uniform_int_distribution<int> three(0, 2);
    std::vector<std::vector<double>> samples(5);
    for (int i = 0; i < 300001; ++i) {
        samples[0].push_back(spread(random) - 5.0);
        samples[1].push_back(spread(random));
        samples[2].push_back(three(random));
        samples[3].push_back(spread(random));
        // A range so narrow (0 and the smallest denormal) that the bins' scale would be infinite.
        samples[4].push_back(i % 3 == 0 ? 5e-324 : 0.0);
    }
    samples[1][1234] = 1e300;
    samples[1][4321] = -1e300;
    // A range wider than the largest double: the bins cannot be formed and the values are selected directly.
    samples[3][5] = 1.7e308;
    samples[3][6] = -1.7e308;
    const double ps[] = {0, 0.1, 1, 5, 10, 25, 50, 75, 90, 95, 99, 99.9, 99.99, 100, 101};
    for (const std::vector<double>& values : samples) {
        SampleSummary selected;
        selected.addBlock(values.data(), nullptr, values.size());
        SampleSummary sorted = selected;
        double out[15];
        selected.percentiles(ps, 15, out);
        for (int i = 0; i < 15; ++i) {
            const double expected = sorted.percentile(ps[i]);
            if (std::isnan(expected))
                EXPECT_TRUE(std::isnan(out[i])) << ps[i];
            else
                EXPECT_EQ(out[i], expected) << ps[i];
        }
        std::vector<double> many, manyOut(2001);
        for (int i = 0; i <= 2000; ++i)
            many.push_back(i / 20.0);
        selected.percentiles(many.data(), 2001, manyOut.data());
        for (int i = 0; i <= 2000; ++i)
            ASSERT_EQ(manyOut[static_cast<size_t>(i)], sorted.percentile(many[static_cast<size_t>(i)])) << many[static_cast<size_t>(i)];
    }
}

// ------------------------------------------------------------------------------------------ merging

TEST(RunStatistics, SummariesOfPartsMergeIntoTheSummaryOfTheWhole)
{
    std::mt19937_64 random(7);
    std::lognormal_distribution<double> spread(3.0, 0.8);
    std::vector<double> all;
    for (int i = 0; i < 20000; ++i)
        all.push_back(1e6 + spread(random)); // far from zero: a naive sum of powers would lose digits
    all[77] = kNaN;
    SampleSummary whole;
    whole.addBlock(all.data(), nullptr, all.size());

    // Parts of uneven sizes (as one core's or one machine's share of the runs), among them empty and
    // one-value parts, merged in a tree and in a chain.
    const size_t cuts[] = {0, 1, 1, 2, 700, 701, 5000, 13000, 19999, 20000};
    std::vector<SampleSummary> parts;
    for (size_t i = 0; i + 1 < sizeof cuts / sizeof cuts[0]; ++i) {
        SampleSummary p;
        p.addBlock(all.data() + cuts[i], nullptr, cuts[i + 1] - cuts[i]);
        parts.push_back(p);
    }
    SampleSummary chain;
    for (const SampleSummary& p : parts)
        chain.merge(p);
    while (parts.size() > 1) {
        std::vector<SampleSummary> next;
        for (size_t i = 0; i < parts.size(); i += 2) {
            SampleSummary p = parts[i];
            if (i + 1 < parts.size())
                p.merge(parts[i + 1]);
            next.push_back(p);
        }
        parts = next;
    }
    for (const SampleSummary* merged : {&chain, &parts[0]}) {
        const MomentSummary& a = merged->moments();
        const MomentSummary& b = whole.moments();
        EXPECT_EQ(a.count(), b.count());
        EXPECT_EQ(a.count(), 19999);
        EXPECT_EQ(a.nonFiniteCount(), 1);
        expectRelative(a.mean(), b.mean(), 1e-12, "mean");
        expectRelative(a.m2(), b.m2(), 1e-12, "m2");
        expectRelative(a.m3(), b.m3(), 1e-12, "m3");
        expectRelative(a.m4(), b.m4(), 1e-12, "m4");
        EXPECT_EQ(a.minimum(), b.minimum());
        EXPECT_EQ(a.maximum(), b.maximum());
        for (double p : kRunStatisticsPercentiles)
            EXPECT_EQ(merged->percentile(p), whole.percentile(p)) << p;
    }
}

// ------------------------------------------------------------------------------------------ NumPy, SciPy

namespace {

// A Monte Carlo run set: three parameters with normal deviations, a merit function driven mostly by the
// first, one driven by the second against the third, and one skewed with two failed runs.
struct MonteCarlo {
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    std::string csv; // case,m0,m1,m2,R1 nominal,R1 used,... as the Python side reads it
};

MonteCarlo monteCarlo(int runs)
{
    MonteCarlo mc;
    for (const char* name : {"gain", "ripple", "skewed"})
        mc.header.meritFunctions.at(mc.header.meritFunctions.count()).name = name;
    std::mt19937_64 random(20261124);
    std::normal_distribution<double> normal(0.0, 1.0);
    const char* names[] = {"R1", "C2", "L3"};
    const double nominals[] = {1000.0, 1e-6, 0.0};
    for (int c = 1; c <= runs; ++c) {
        XMLReportInfo r(c);
        double dev[3];
        for (int p = 0; p < 3; ++p) {
            dev[p] = c == 1 ? 0.0 : 0.05 * normal(random);
            XMLParameterValue& param = r.parameters.at(p);
            param.name = names[p];
            param.nominal = nominals[p];
            param.usedValue = nominals[p] == 0.0 ? dev[p] : nominals[p] * (1.0 + dev[p]);
        }
        r.values.at(0).value = 10.0 + 20.0 * dev[0] + 3.0 * dev[1] + 0.1 * normal(random);
        r.values.at(1).value = 0.02 + 0.01 * dev[1] - 0.02 * dev[2] + 0.0005 * normal(random);
        r.values.at(2).value = std::exp(normal(random));
        if (c == 17 || c == 230)
            r.values.at(2).value = c == 17 ? kNaN : std::numeric_limits<double>::infinity();
        // Every value goes through the file's shortest round-trip text, so both sides read the same numbers.
        std::string line = std::to_string(c);
        for (int m = 0; m < 3; ++m)
            line += "," + std::string(sp_RealToShortestText(r.values[m].value).c_str());
        for (int p = 0; p < 3; ++p)
            line += "," + std::string(sp_RealToShortestText(r.parameters[p].nominal).c_str()) + "," +
                    std::string(sp_RealToShortestText(r.parameters[p].usedValue).c_str());
        mc.csv += line + "\n";
        mc.table.insert(r);
    }
    return mc;
}

const char kReference[] = R"(
import json, sys, math
import numpy as np
from scipy import stats
rows = np.genfromtxt(sys.argv[1], delimiter=',')
limits = json.loads(sys.argv[2])
cases = rows[:, 0].astype(int)
out = {'merits': []}
def num(x):
    x = float(x)
    return x if math.isfinite(x) else ('nan' if math.isnan(x) else ('inf' if x > 0 else '-inf'))
pcts = [0.1, 1, 5, 10, 25, 50, 75, 90, 95, 99, 99.9]
for m in range(3):
    allv = rows[:, 1 + m]
    fin = np.isfinite(allv)
    v = allv[fin]
    n = len(v)
    r = {'count': n, 'nonfinite': int((~fin).sum()), 'mean': num(np.mean(v)), 'sd': num(np.std(v, ddof=1)),
         'skew': num(stats.skew(v)), 'kurt': num(stats.kurtosis(v)),
         'min': num(v.min()), 'max': num(v.max()),
         'mincase': int(cases[fin][np.argmin(v)]), 'maxcase': int(cases[fin][np.argmax(v)]),
         'pct': [num(x) for x in np.percentile(v, pcts)]}
    jb = stats.jarque_bera(v)
    r['jb'] = num(jb[0]); r['jbp'] = num(jb[1])
    lo, hi = limits[m]
    ok = np.isfinite(allv) & (allv >= lo) & (allv <= hi)
    k = int(ok.sum()); N = len(allv); p = k / N
    z = stats.norm.ppf(0.975)
    centre = (p + z*z/(2*N)) / (1 + z*z/N)
    half = z / (1 + z*z/N) * math.sqrt(p*(1-p)/N + z*z/(4*N*N))
    s = np.std(v, ddof=1); mu = np.mean(v)
    cp = (hi - lo) / (6*s)
    cpk = min(hi - mu, mu - lo) / (3*s)
    bh = z * math.sqrt(1/(9*n) + cpk*cpk/(2*(n-1)))
    r.update({'pass': k, 'yield': p, 'wlo': centre - half, 'whi': centre + half, 'sigma': num(stats.norm.ppf(p)),
              'cp': cp, 'cplo': cp*math.sqrt(stats.chi2.ppf(0.025, n-1)/(n-1)),
              'cphi': cp*math.sqrt(stats.chi2.ppf(0.975, n-1)/(n-1)),
              'cpk': cpk, 'cpklo': cpk - bh, 'cpkhi': cpk + bh,
              'failing': sorted(int(c) for c in cases[~ok])})
    rho = {}
    for j, name in enumerate(['R1', 'C2', 'L3']):
        nom = rows[:, 4 + 2*j]; used = rows[:, 5 + 2*j]
        dev = np.where(nom == 0, used, (used - nom) / np.where(nom == 0, 1, nom))
        rho[name] = num(stats.spearmanr(dev[fin], v).correlation)
    r['rho'] = rho
    out['merits'].append(r)
out['norm'] = [num(stats.norm.ppf(p)) for p in [1e-300, 1e-20, 1e-9, 0.001, 0.02425, 0.1, 0.3, 0.5, 0.7, 0.97575, 0.99865, 1 - 1e-12]]
out['chi2'] = [num(stats.chi2.ppf(p, d)) for d in [1, 2, 3, 9.5, 49, 999, 199999] for p in [0.001, 0.025, 0.5, 0.975, 0.999]]
print(json.dumps(out))
)";

} // namespace

class RunStatisticsReference : public TempDirTest {};

TEST_F(RunStatisticsReference, EveryNumberAgreesWithNumPyAndSciPy)
{
    SUPPORTQT_SKIP_UNLESS_PEER_RUNS("python3");
    const MonteCarlo mc = monteCarlo(400);
    writeFileBytes(path("runs.csv"), mc.csv);
    const double lo[] = {9.8, 0.0195, 0.2};
    const double hi[] = {10.6, 0.0205, 4.0};
    std::vector<MeritLimits> limits(3);
    QJsonArray limitsJson;
    for (int m = 0; m < 3; ++m) {
        limits[static_cast<size_t>(m)].hasLower = limits[static_cast<size_t>(m)].hasUpper = true;
        limits[static_cast<size_t>(m)].lower = lo[m];
        limits[static_cast<size_t>(m)].upper = hi[m];
        limitsJson.append(QJsonArray{lo[m], hi[m]});
    }

    QProcess python;
    python.start(QString::fromLatin1(debianPython()),
                 {"-c", kReference, QString::fromStdString(path("runs.csv")),
                  QString::fromUtf8(QJsonDocument(limitsJson).toJson(QJsonDocument::Compact))});
    ASSERT_TRUE(python.waitForStarted(30000));
    ASSERT_TRUE(python.waitForFinished(120000));
    ASSERT_EQ(python.exitCode(), 0) << python.readAllStandardError().toStdString();
    const QJsonObject reference = QJsonDocument::fromJson(python.readAllStandardOutput()).object();
    ASSERT_EQ(reference["merits"].toArray().size(), 3);

    const std::vector<MeritStatistics> all = sp_ComputeRunStatistics(mc.table, mc.header, limits);
    ASSERT_EQ(all.size(), 3u);
    for (int m = 0; m < 3; ++m) {
        SCOPED_TRACE("merit " + std::to_string(m));
        const QJsonObject r = reference["merits"].toArray()[m].toObject();
        const MeritStatistics& s = all[static_cast<size_t>(m)];
        const MomentSummary& mo = s.sample.moments();
        EXPECT_EQ(s.name, YString(m == 0 ? "gain" : m == 1 ? "ripple" : "skewed"));
        EXPECT_EQ(mo.count(), r["count"].toInt());
        EXPECT_EQ(mo.nonFiniteCount(), r["nonfinite"].toInt());
        expectRelative(mo.mean(), json(r["mean"]), 1e-13, "mean");
        expectRelative(mo.standardDeviation(), json(r["sd"]), 1e-12, "sd");
        expectRelative(mo.skewness(), json(r["skew"]), 1e-10, "skewness");
        expectRelative(mo.excessKurtosis(), json(r["kurt"]), 1e-10, "kurtosis");
        EXPECT_EQ(mo.minimum(), json(r["min"]));
        EXPECT_EQ(mo.maximum(), json(r["max"]));
        EXPECT_EQ(mo.minimumCase(), r["mincase"].toInt());
        EXPECT_EQ(mo.maximumCase(), r["maxcase"].toInt());
        for (int i = 0; i < kRunStatisticsPercentileCount; ++i)
            expectRelative(s.percentiles[i], json(r["pct"].toArray()[i]), 1e-14, "percentile");
        expectRelative(s.jarqueBera, json(r["jb"]), 1e-9, "Jarque-Bera");
        expectRelative(s.jarqueBeraP, json(r["jbp"]), 1e-9, "Jarque-Bera p");
        EXPECT_EQ(s.notNormal, json(r["jbp"]) < 0.05);
        EXPECT_EQ(s.passCount, r["pass"].toInt());
        expectRelative(s.yield, json(r["yield"]), 1e-15, "yield");
        expectRelative(s.yieldInterval.low, json(r["wlo"]), 1e-13, "Wilson low");
        expectRelative(s.yieldInterval.high, json(r["whi"]), 1e-13, "Wilson high");
        expectRelative(s.yieldSigma, json(r["sigma"]), 1e-12, "yield in sigma");
        expectRelative(s.cp, json(r["cp"]), 1e-12, "Cp");
        expectRelative(s.cpInterval.low, json(r["cplo"]), 1e-10, "Cp low");
        expectRelative(s.cpInterval.high, json(r["cphi"]), 1e-10, "Cp high");
        expectRelative(s.cpk, json(r["cpk"]), 1e-12, "Cpk");
        expectRelative(s.cpkInterval.low, json(r["cpklo"]), 1e-12, "Cpk low");
        expectRelative(s.cpkInterval.high, json(r["cpkhi"]), 1e-12, "Cpk high");
        std::vector<int> failing;
        for (const QJsonValue& c : r["failing"].toArray())
            failing.push_back(c.toInt());
        EXPECT_EQ(s.failingCases, failing);
        ASSERT_EQ(s.influence.size(), 3u);
        for (size_t i = 0; i < s.influence.size(); ++i) {
            expectRelative(s.influence[i].rho, json(r["rho"].toObject()[QString::fromUtf8(s.influence[i].name.c_str())]),
                           1e-12, s.influence[i].name.c_str());
            if (i > 0) {
                EXPECT_GE(std::fabs(s.influence[i - 1].rho), std::fabs(s.influence[i].rho));
            }
        }
    }
    // The run set was built so that gain follows R1 and ripple follows C2 against L3.
    EXPECT_EQ(all[0].influence[0].name, YString("R1"));
    EXPECT_GT(all[0].influence[0].rho, 0.9);
    EXPECT_EQ(all[1].influence[0].name, YString("L3"));
    EXPECT_LT(all[1].influence[0].rho, -0.5);
    EXPECT_TRUE(all[2].notNormal); // log-normal

    const double normalPoints[] = {1e-300, 1e-20, 1e-9, 0.001, 0.02425, 0.1, 0.3, 0.5, 0.7, 0.97575, 0.99865, 1 - 1e-12};
    for (size_t i = 0; i < sizeof normalPoints / sizeof normalPoints[0]; ++i)
        expectRelative(sp_NormalQuantile(normalPoints[i]), json(reference["norm"].toArray()[static_cast<int>(i)]),
                       i == 11 ? 1e-9 : 1e-14, "normal quantile");
    int k = 0;
    for (double d : {1.0, 2.0, 3.0, 9.5, 49.0, 999.0, 199999.0})
        for (double p : {0.001, 0.025, 0.5, 0.975, 0.999})
            expectRelative(sp_ChiSquareQuantile(p, d), json(reference["chi2"].toArray()[k++]), 1e-11, "chi-square quantile");
}

TEST(RunStatistics, WorstCaseTableHoldsTheExtremeRunsWithTheirDeviations)
{
    YHashTable<XMLReportInfo> table;
    for (int c = 1; c <= 5; ++c) {
        XMLReportInfo r = run(c, {static_cast<double>((c * 7) % 5)}); // 2 4 1 3 0
        XMLParameterValue& p = r.parameters.at(0);
        p.name = "R1";
        p.nominal = 100.0;
        p.usedValue = 100.0 + c;
        XMLParameterValue& q = r.parameters.at(1);
        q.name = "V0";
        q.nominal = 0.0;
        q.usedValue = -0.5 * c;
        table.insert(r);
    }
    const MeritStatistics s = sp_ComputeMeritStatistics(table, 0);
    EXPECT_EQ(s.atMinimum.caseNumber, 5);
    EXPECT_EQ(s.atMinimum.value, 0.0);
    ASSERT_EQ(s.atMinimum.parameters.size(), 2u);
    EXPECT_EQ(s.atMinimum.parameters[0].name, YString("R1"));
    EXPECT_DOUBLE_EQ(s.atMinimum.parameters[0].deviation, 0.05);
    EXPECT_FALSE(s.atMinimum.parameters[0].absolute);
    EXPECT_DOUBLE_EQ(s.atMinimum.parameters[1].deviation, -2.5);
    EXPECT_TRUE(s.atMinimum.parameters[1].absolute);
    EXPECT_EQ(s.atMaximum.caseNumber, 2);
    EXPECT_EQ(s.atMaximum.value, 4.0);
    EXPECT_DOUBLE_EQ(s.atMaximum.parameters[0].deviation, 0.02);
}

// Many merit functions whose extremes are the same runs share those runs' deviation lists: a list per
// merit function would cost merit functions times parameters (a file of a few megabytes once asked for
// tens of gigabytes).
TEST(RunStatistics, MeritFunctionsWithTheSameExtremeRunShareItsDeviations)
{
    const int merits = 300, parameters = 2000;
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    for (int m = 0; m < merits; ++m)
        header.meritFunctions.at(m).name = YString(("m" + std::to_string(m)).c_str());
    for (int c = 1; c <= 3; ++c) {
        XMLReportInfo r(c);
        for (int m = 0; m < merits; ++m)
            r.values.at(m).value = static_cast<double>(c);
        for (int k = 0; k < parameters; ++k) {
            XMLParameterValue& p = r.parameters.at(k);
            p.name = YString(("p" + std::to_string(k)).c_str());
            p.nominal = 1.0;
            p.usedValue = 1.0 + c * 0.01;
        }
        table.insert(r);
    }
    const std::vector<MeritStatistics> all = sp_ComputeRunStatistics(table, header, {}, false);
    ASSERT_EQ(all.size(), static_cast<size_t>(merits));
    for (const MeritStatistics& s : all) {
        EXPECT_EQ(s.atMinimum.caseNumber, 1);
        EXPECT_EQ(s.atMaximum.caseNumber, 3);
        ASSERT_EQ(s.atMaximum.parameters.size(), static_cast<size_t>(parameters));
        EXPECT_EQ(s.atMaximum.parameters[7].deviation, (1.0 + 3 * 0.01 - 1.0) / 1.0);
        EXPECT_EQ(s.atMaximum.parameters[7].name, YString("p7"));
        // One list per run, not one per merit function.
        EXPECT_EQ(s.atMinimum.parameters.begin(), all[0].atMinimum.parameters.begin());
        EXPECT_EQ(s.atMaximum.parameters.begin(), all[0].atMaximum.parameters.begin());
    }
    EXPECT_NE(all[0].atMinimum.parameters.begin(), all[0].atMaximum.parameters.begin());
    // A run with no parameters gives an empty list.
    EXPECT_TRUE(sp_ComputeMeritStatistics(YHashTable<XMLReportInfo>(), 0).atMinimum.parameters.empty());
}

TEST(RunStatistics, ParametersARunDidNotChangeCountAsNominal)
{
    // A sensitivity-style set: each run changes one parameter. The merit follows R1 only, so R1 ranks
    // first; C1's runs are the only ones where it moved.
    YHashTable<XMLReportInfo> table;
    table.insert(run(1, {10.0}));
    for (int c = 2; c <= 7; ++c) {
        const bool r1 = c % 2 == 0;
        XMLReportInfo r = run(c, {r1 ? 10.0 + c : 10.0 + 0.01 * c});
        XMLParameterValue& p = r.parameters.at(0);
        p.name = r1 ? "R1" : "C1";
        p.nominal = 1.0;
        p.usedValue = 1.0 + 0.01 * c;
        table.insert(r);
    }
    const MeritStatistics s = sp_ComputeMeritStatistics(table, 0);
    ASSERT_EQ(s.influence.size(), 2u);
    EXPECT_EQ(s.influence[0].name, YString("R1"));
    std::vector<double> r1, c1, values;
    for (int c = 1; c <= 7; ++c) {
        const bool isR1 = c != 1 && c % 2 == 0, isC1 = c != 1 && c % 2 == 1;
        r1.push_back(isR1 ? 0.01 * c : 0.0);
        c1.push_back(isC1 ? 0.01 * c : 0.0);
        values.push_back(c == 1 ? 10.0 : isR1 ? 10.0 + c : 10.0 + 0.01 * c);
    }
    EXPECT_NEAR(s.influence[0].rho, sp_SpearmanCorrelation(r1, values), 1e-15);
    EXPECT_NEAR(s.influence[1].rho, sp_SpearmanCorrelation(c1, values), 1e-15);
}

// A merit function index below 0 names no merit function, as one past the last does: no values, no
// nominal value and no influence, whatever the runs hold.
TEST(RunStatistics, AMeritIndexBelowZeroNamesNoMeritFunction)
{
    YHashTable<XMLReportInfo> table;
    for (int c = 1; c <= 5; ++c) {
        XMLReportInfo r = run(c, {static_cast<double>(c)});
        XMLParameterValue& p = r.parameters.at(0);
        p.name = "R1";
        p.nominal = 1.0;
        p.usedValue = 1.0 + 0.1 * c;
        table.insert(r);
    }
    for (int merit : {-1, INT_MIN, 1}) {
        SCOPED_TRACE(merit);
        const MeritStatistics s = sp_ComputeMeritStatistics(table, merit);
        EXPECT_EQ(s.sample.moments().count(), 0);
        EXPECT_FALSE(s.hasNominal);
        EXPECT_TRUE(s.influence.empty());
    }
    const MeritStatistics first = sp_ComputeMeritStatistics(table, 0);
    EXPECT_EQ(first.sample.moments().count(), 5);
    EXPECT_TRUE(first.hasNominal);
    EXPECT_EQ(first.nominal, 1.0);
    ASSERT_EQ(first.influence.size(), 1u);
    EXPECT_NEAR(first.influence[0].rho, 1.0, 1e-15);
}

// A parameter whose deviation is not a number in some run (a nominal of "nan" in the file) has no ranks:
// its correlation is NaN and it is listed last, and the other parameters are ranked as without it.
TEST(RunStatistics, AParameterWithADeviationThatIsNotANumberHasNoCorrelation)
{
    YHashTable<XMLReportInfo> table;
    std::vector<double> r1, values;
    for (int c = 1; c <= 40; ++c) {
        const double value = 10.0 + std::sin(c * 0.9);
        XMLReportInfo r = run(c, {value});
        XMLParameterValue& p = r.parameters.at(0);
        p.name = "R1";
        p.nominal = 1.0;
        p.usedValue = 1.0 + 0.01 * std::cos(c * 1.7);
        XMLParameterValue& q = r.parameters.at(1);
        q.name = "C1";
        q.nominal = c % 3 == 0 ? std::nan("") : 1.0;
        q.usedValue = 1.0 + 0.001 * c;
        table.insert(r);
        r1.push_back(0.01 * std::cos(c * 1.7));
        values.push_back(value);
    }
    const MeritStatistics s = sp_ComputeMeritStatistics(table, 0);
    ASSERT_EQ(s.influence.size(), 2u);
    EXPECT_EQ(s.influence[0].name, YString("R1"));
    EXPECT_NEAR(s.influence[0].rho, sp_SpearmanCorrelation(r1, values), 1e-15);
    EXPECT_EQ(s.influence[1].name, YString("C1"));
    EXPECT_TRUE(std::isnan(s.influence[1].rho));
}

TEST(RunsInCaseOrder, GivesTheTablesOwnRecordsByIncreasingCase)
{
    YHashTable<XMLReportInfo> table;
    for (int c : {7, -2, 1, 65536, 3})
        table.insert(XMLReportInfo(c));
    const std::vector<const XMLReportInfo*> runs = sp_RunsInCaseOrder(table);
    std::vector<int> cases;
    for (const XMLReportInfo* run : runs)
        cases.push_back(run->caseNumber);
    EXPECT_EQ(cases, (std::vector<int>{-2, 1, 3, 7, 65536}));
    EXPECT_EQ(runs[2], table.find(XMLReportInfo(3)));
    EXPECT_TRUE(sp_RunsInCaseOrder(YHashTable<XMLReportInfo>()).empty());
}

// ------------------------------------------------------------------------------------------ fast paths

namespace {

// Moments of a sample computed the plain way, value by value in long double, for the fast paths to meet.
struct PlainMoments {
    long long n = 0, nonFinite = 0;
    long double mean = 0, m2 = 0, m3 = 0, m4 = 0;
    double min = 0, max = 0;
    int minCase = 0, maxCase = 0;
};

PlainMoments plainMoments(const std::vector<double>& values, const std::vector<int>& cases)
{
    PlainMoments p;
    long double sum = 0;
    for (size_t i = 0; i < values.size(); ++i) {
        const double v = values[i];
        if (!std::isfinite(v)) {
            ++p.nonFinite;
            continue;
        }
        // The first value met of an extremum keeps it (a later -0 does not replace an earlier 0).
        if (p.n == 0 || v < p.min) {
            p.min = v;
            p.minCase = cases[i];
        }
        if (p.n == 0 || v > p.max) {
            p.max = v;
            p.maxCase = cases[i];
        }
        ++p.n;
        sum += v;
    }
    if (p.n == 0)
        return p;
    p.mean = sum / p.n;
    for (double v : values) {
        if (!std::isfinite(v))
            continue;
        const long double d = v - p.mean;
        p.m2 += d * d;
        p.m3 += d * d * d;
        p.m4 += d * d * d * d;
    }
    return p;
}

// Counts, extrema and their cases exactly; the moments within `tolerance` relative to their scale.
void expectMomentsMatch(const MomentSummary& m, const PlainMoments& p, const std::string& what,
                        double tolerance = 1e-10)
{
    SCOPED_TRACE(what);
    EXPECT_EQ(m.count(), p.n);
    EXPECT_EQ(m.nonFiniteCount(), p.nonFinite);
    if (p.n == 0)
        return;
    EXPECT_EQ(m.minimum(), p.min);
    EXPECT_EQ(std::signbit(m.minimum()), std::signbit(p.min));
    EXPECT_EQ(m.minimumCase(), p.minCase);
    EXPECT_EQ(m.maximum(), p.max);
    EXPECT_EQ(std::signbit(m.maximum()), std::signbit(p.max));
    EXPECT_EQ(m.maximumCase(), p.maxCase);
    const double scale = std::max({std::fabs(p.min), std::fabs(p.max), 1e-300});
    EXPECT_LE(std::fabs(m.mean() - static_cast<double>(p.mean)), 1e-13 * scale) << m.mean();
    const double m2 = static_cast<double>(p.m2);
    EXPECT_LE(std::fabs(m.m2() - m2), tolerance * m2 + 1e-300) << "m2 " << m.m2() << " against " << m2;
    // The third sum is compared against the size of what it sums, n times the cubed deviation.
    const double spread2 = std::max(m2, 1e-300);
    EXPECT_LE(std::fabs(m.m3() - static_cast<double>(p.m3)),
              tolerance * spread2 * std::sqrt(spread2 / static_cast<double>(p.n)) + 1e-300)
        << "m3 " << m.m3() << " against " << static_cast<double>(p.m3);
    EXPECT_LE(std::fabs(m.m4() - static_cast<double>(p.m4)), tolerance * static_cast<double>(p.m4) + 1e-300)
        << "m4 " << m.m4() << " against " << static_cast<double>(p.m4);
}

// Samples of many shapes and sizes: sizes around the summaries' blocks of 2048 values and the
// percentiles' switch from selection to bins at 8192, spread and bunched values, ties, signed zeros,
// values that are not finite at the ends of blocks and alone.
std::vector<std::pair<std::string, std::vector<double>>> manySamples()
{
    std::vector<std::pair<std::string, std::vector<double>>> out;
    std::mt19937_64 random(2411);
    std::normal_distribution<double> normal(0.0, 1.0);
    std::lognormal_distribution<double> spread(0.0, 3.0);
    std::uniform_int_distribution<int> few(0, 4);
    const size_t sizes[] = {1, 2, 3, 4, 5, 7, 100, 2047, 2048, 2049, 4100, 8192, 8193, 10000, 65537, 120001};
    for (size_t n : sizes) {
        std::vector<double> a(n), b(n), c(n), d(n);
        for (size_t i = 0; i < n; ++i) {
            a[i] = 1e6 + normal(random);
            b[i] = spread(random) - 2.0;
            c[i] = few(random) == 0 ? -0.0 : few(random) * 0.5 - 1.0;
            d[i] = normal(random);
        }
        if (n > 3) {
            d[0] = std::numeric_limits<double>::infinity();
            d[n - 1] = kNaN;
            d[n / 2] = -std::numeric_limits<double>::infinity();
            c[n / 3] = 0.0; // a positive zero among negative ones
        }
        if (n > 2049)
            d[2048] = kNaN; // the first value of the second block
        out.emplace_back("normal far from 0, " + std::to_string(n), a);
        out.emplace_back("log-normal, " + std::to_string(n), b);
        out.emplace_back("few values and signed zeros, " + std::to_string(n), c);
        out.emplace_back("not finite here and there, " + std::to_string(n), d);
    }
    std::vector<double> allNaN(3000, kNaN);
    out.emplace_back("nothing finite", allNaN);
    std::vector<double> outlier(50000);
    for (double& v : outlier)
        v = normal(random);
    outlier[17] = 1e60; // its fourth power still fits a double
    out.emplace_back("one far outlier", outlier);
    std::vector<double> same(20000, 3.25);
    out.emplace_back("one value", same);
    return out;
}

} // namespace

TEST(RunStatistics, FastSummariesEqualPlainOnesOnManySamples)
{
    const double ps[] = {0, 0.1, 1, 5, 10, 25, 33.3, 50, 75, 90, 95, 99, 99.9, 100, -1, 100.5};
    const int count = static_cast<int>(sizeof ps / sizeof ps[0]);
    for (const auto& [name, values] : manySamples()) {
        SCOPED_TRACE(name);
        std::vector<int> cases(values.size());
        for (size_t i = 0; i < cases.size(); ++i)
            cases[i] = static_cast<int>(i) * 3 - 100;
        const PlainMoments plain = plainMoments(values, cases);

        SampleSummary copied;
        copied.addBlock(values.data(), cases.data(), values.size());
        expectMomentsMatch(copied.moments(), plain, "copied");
        SampleSummary taken;
        std::vector<double> give = values;
        taken.addBlock(std::move(give), cases.data());
        EXPECT_TRUE(give.empty());
        expectMomentsMatch(taken.moments(), plain, "taken");
        EXPECT_EQ(taken.values(), copied.values());
        std::vector<double> finite;
        for (double v : values)
            if (std::isfinite(v))
                finite.push_back(v);
        EXPECT_EQ(copied.values(), finite);

        // One value at a time goes through the same summaries, a block of one value each; it rounds at
        // every step (as documented), but its counts and extrema are exact.
        SampleSummary oneByOne;
        for (size_t i = 0; i < values.size(); ++i)
            oneByOne.add(values[i], cases[i]);
        expectMomentsMatch(oneByOne.moments(), plain, "one by one", 1e-5);

        // Percentiles selected without sorting equal those of the sorted values, bit for bit.
        double selected[count];
        taken.percentiles(ps, count, selected);
        for (int i = 0; i < count; ++i) {
            const double sorted = copied.percentile(ps[i]);
            if (std::isnan(sorted))
                EXPECT_TRUE(std::isnan(selected[i])) << ps[i];
            else
                EXPECT_EQ(selected[i], sorted) << ps[i];
        }
    }
}

TEST(RunStatistics, TakingValuesIntoASummaryThatHasSomeAppendsThem)
{
    SampleSummary s;
    s.add(2.0, 7);
    std::vector<double> more = {1.0, kNaN, 5.0};
    const int cases[] = {8, 9, 10};
    s.addBlock(std::move(more), cases);
    EXPECT_TRUE(more.empty());
    EXPECT_EQ(s.values(), (std::vector<double>{2.0, 1.0, 5.0}));
    EXPECT_EQ(s.moments().count(), 3);
    EXPECT_EQ(s.moments().nonFiniteCount(), 1);
    EXPECT_EQ(s.moments().minimumCase(), 8);
    EXPECT_EQ(s.moments().maximumCase(), 10);
    EXPECT_EQ(s.percentile(50), 2.0);
}

namespace {

// The statistics of one merit function worked out from the table the plain way: each run's value in
// table order, limits run by run, percentiles from the sorted values.
void expectPlainStatistics(const YHashTable<XMLReportInfo>& table, int merit, const MeritLimits& limits,
                           const MeritStatistics& s)
{
    SCOPED_TRACE("merit " + std::to_string(merit));
    std::vector<double> values;
    std::vector<int> cases;
    std::vector<int> failing;
    long long passing = 0;
    for (const XMLReportInfo& run : table) {
        if (run.values.count() <= merit)
            continue;
        const double v = run.values[merit].value;
        values.push_back(v);
        cases.push_back(run.caseNumber);
        if (limits.any()) {
            if (limits.passes(v))
                ++passing;
            else
                failing.push_back(run.caseNumber);
        }
    }
    std::sort(failing.begin(), failing.end());
    const PlainMoments plain = plainMoments(values, cases);
    expectMomentsMatch(s.sample.moments(), plain, "table");
    EXPECT_EQ(s.runCount, static_cast<long long>(values.size()));
    EXPECT_EQ(s.passCount, passing);
    EXPECT_EQ(s.failingCases, failing);
    SampleSummary sorted;
    for (size_t i = 0; i < values.size(); ++i)
        sorted.add(values[i], cases[i]);
    for (int i = 0; i < kRunStatisticsPercentileCount; ++i) {
        const double expected = sorted.percentile(kRunStatisticsPercentiles[i]);
        if (std::isnan(expected))
            EXPECT_TRUE(std::isnan(s.percentiles[i]));
        else
            EXPECT_EQ(s.percentiles[i], expected) << kRunStatisticsPercentiles[i];
    }
    if (plain.n > 0) {
        EXPECT_EQ(s.atMinimum.caseNumber, plain.minCase);
        EXPECT_EQ(s.atMaximum.caseNumber, plain.maxCase);
    }
}

} // namespace

TEST(RunStatistics, TablesWithRunsThatLackValuesGiveThePlainStatistics)
{
    // One to six merit functions (the walk over the table has a path of its own for up to four),
    // runs that lack the last values from the start, from the middle or only here and there, runs out
    // of case order, values that are not finite, and limits of every kind; and tables large enough to
    // be walked and summarised on several threads, whole, with a gap near the start and with one near
    // the end (the walk goes on the plain way from the gap).
    std::mt19937_64 random(99);
    std::normal_distribution<double> normal(0.0, 1.0);
    struct Shape {
        int width, gaps, runs;
    };
    std::vector<Shape> shapes;
    for (int width = 1; width <= 6; ++width)
        for (int gaps = 0; gaps < 4; ++gaps)
            shapes.push_back({width, gaps, 9000});
    for (int width : {1, 4, 6})
        for (int gaps : {0, 2, 4})
            shapes.push_back({width, gaps, 70000});
    for (const Shape& shape : shapes) {
        const int width = shape.width, gaps = shape.gaps;
        SCOPED_TRACE("width " + std::to_string(width) + ", gaps " + std::to_string(gaps) + ", runs " +
                     std::to_string(shape.runs));
        YHashTable<XMLReportInfo> table;
        XMLReportHeader header;
        for (int m = 0; m < width; ++m)
            header.meritFunctions.at(m).name = YString(("m" + std::to_string(m)).c_str());
        for (int k = 0; k < shape.runs; ++k) {
            const int caseNumber = gaps == 3 ? (k * 7919) % 9001 + 1 : k + 1;
            XMLReportInfo r(caseNumber);
            int have = width;
            if (gaps == 1 && k == 0)
                have = width - 1;
            if (gaps == 2 && k >= 4000 && k < 4100)
                have = std::max(0, width - 2);
            if (gaps == 3 && k % 97 == 5)
                have = k % width;
            if (gaps == 4 && k == 60000)
                have = width - 1;
            for (int m = 0; m < have; ++m)
                r.values.at(m).value = k % 1013 == 7 ? (k % 2 ? kNaN : std::numeric_limits<double>::infinity())
                                                     : m + normal(random);
            table.insert(std::move(r));
        }
        std::vector<MeritLimits> limits(static_cast<size_t>(width));
        for (int m = 0; m < width; ++m) {
            MeritLimits& l = limits[static_cast<size_t>(m)];
            l.hasLower = m % 3 != 1;
            l.lower = m - 1.5;
            l.hasUpper = m % 3 != 2;
            l.upper = m + 1.0;
        }
        limits.back().hasLower = limits.back().hasUpper = false;
        const std::vector<MeritStatistics> all = sp_ComputeRunStatistics(table, header, limits, false);
        ASSERT_EQ(all.size(), static_cast<size_t>(width));
        for (int m = 0; m < width; ++m) {
            expectPlainStatistics(table, m, limits[static_cast<size_t>(m)], all[static_cast<size_t>(m)]);
            const MeritStatistics one = sp_ComputeMeritStatistics(table, m, limits[static_cast<size_t>(m)], false);
            expectPlainStatistics(table, m, limits[static_cast<size_t>(m)], one);
        }
    }
}

TEST_F(RunStatisticsReference, ChiSquareQuantilesForFewAndVeryManyDegreesAgreeWithSciPy)
{
    // A million runs ask for 999999 degrees of freedom, where each evaluation of the distribution is a
    // long series; a fraction of a degree has its quantiles far in the tail.
    SUPPORTQT_SKIP_UNLESS_PEER_RUNS("python3");
    const double degrees[] = {0.3, 1.0, 4.0, 999999.0, 2000000.0};
    const double ps[] = {1e-10, 0.025, 0.5, 0.975, 1 - 1e-9};
    QProcess python;
    python.start(QString::fromLatin1(debianPython()),
                 {"-c", "import json\nfrom scipy import stats\nprint(json.dumps([float(stats.chi2.ppf(p, d)) "
                        "for d in [0.3, 1.0, 4.0, 999999.0, 2000000.0] for p in [1e-10, 0.025, 0.5, 0.975, 1 - 1e-9]]))"});
    ASSERT_TRUE(python.waitForStarted(30000));
    ASSERT_TRUE(python.waitForFinished(120000));
    ASSERT_EQ(python.exitCode(), 0) << python.readAllStandardError().toStdString();
    const QJsonArray reference = QJsonDocument::fromJson(python.readAllStandardOutput()).array();
    ASSERT_EQ(reference.size(), 25);
    int k = 0;
    for (double d : degrees)
        for (double p : ps) {
            SCOPED_TRACE("degrees " + std::to_string(d) + ", p " + std::to_string(p));
            // The upper tail is reached through the lower probability, near 1 there, which leaves about
            // eight digits at 1 - 1e-9; the far lower tail of a fraction of a degree and of two million
            // degrees keeps about ten.
            const double tolerance = p > 0.99 ? 1e-8 : p < 1e-9 && (d < 1 || d > 1e6) ? 1e-9 : 1e-11;
            expectRelative(sp_ChiSquareQuantile(p, d), json(reference[k++]), tolerance, "chi-square quantile");
        }
}

// A spread of a millionth about a mean of a thousand million (an oscillator's frequency, say): the
// moments keep their digits, added at once, in blocks and merged from parts that began elsewhere.
// SciPy's figures are taken from the differences from 1e9, which are exact in doubles.
TEST_F(RunStatisticsReference, ASmallSpreadAboutALargeMeanKeepsItsDigits)
{
    SUPPORTQT_SKIP_UNLESS_PEER_RUNS("python3");
    std::mt19937_64 random(21);
    std::normal_distribution<double> noise(0.0, 1e-3);
    std::vector<double> values(100000);
    std::string text;
    for (double& v : values) {
        v = 1e9 + noise(random);
        text += std::string(sp_RealToShortestText(v).c_str()) + "\n";
    }
    writeFileBytes(path("values.txt"), text);
    QProcess python;
    python.start(QString::fromLatin1(debianPython()),
                 {"-c",
                  "import json, sys\nimport numpy as np\nfrom scipy import stats\n"
                  "d = np.loadtxt(sys.argv[1]) - 1e9\n"
                  "print(json.dumps([float(d.mean()), float(np.std(d, ddof=1)), float(stats.skew(d)), "
                  "float(stats.kurtosis(d))]))",
                  QString::fromStdString(path("values.txt"))});
    ASSERT_TRUE(python.waitForStarted(30000));
    ASSERT_TRUE(python.waitForFinished(120000));
    ASSERT_EQ(python.exitCode(), 0) << python.readAllStandardError().toStdString();
    const QJsonArray reference = QJsonDocument::fromJson(python.readAllStandardOutput()).array();
    ASSERT_EQ(reference.size(), 4);
    const auto expectClose = [](double actual, double expected, double tolerance, const char* what) {
        EXPECT_LE(std::fabs(actual - expected), tolerance * std::fabs(expected))
            << what << ": " << sp_RealToShortestText(actual).c_str() << " against "
            << sp_RealToShortestText(expected).c_str();
    };
    MomentSummary whole;
    whole.addBlock(values.data(), nullptr, values.size());
    // Three parts, each summed from its own first value, merged.
    MomentSummary merged, second, third;
    merged.addBlock(values.data(), nullptr, 30000);
    second.addBlock(values.data() + 30000, nullptr, 50000);
    third.addBlock(values.data() + 80000, nullptr, 20000);
    merged.merge(second);
    merged.merge(third);
    for (const MomentSummary* m : {&whole, &merged}) {
        SCOPED_TRACE(m == &whole ? "whole" : "merged");
        EXPECT_NEAR(m->mean(), 1e9 + reference[0].toDouble(), 1.2e-7); // one unit in the last place
        expectClose(m->standardDeviation(), reference[1].toDouble(), 1e-12, "standard deviation");
        expectClose(m->skewness(), reference[2].toDouble(), 1e-9, "skewness");
        expectClose(m->excessKurtosis(), reference[3].toDouble(), 1e-9, "excess kurtosis");
    }
}

// Values near the largest double: equal ones have that mean and no spread, and a percentile between
// the two ends of the range stays finite.
TEST(RunStatistics, ValuesNearTheLargestDoubleStayFinite)
{
    SampleSummary s;
    const double big = 1.7e308;
    s.add(big, 1);
    s.add(big, 2);
    EXPECT_EQ(s.moments().mean(), big);
    EXPECT_EQ(s.moments().standardDeviation(), 0.0);
    SampleSummary ends;
    ends.add(-1e308, 1);
    ends.add(1e308, 2);
    // Their mean is 0 and their spread beyond the largest double, added one by one, at once or merged.
    EXPECT_EQ(ends.moments().mean(), 0.0);
    EXPECT_EQ(ends.moments().standardDeviation(), std::numeric_limits<double>::infinity());
    const double both[2] = {-1e308, 1e308};
    MomentSummary atOnce, merged, other;
    atOnce.addBlock(both, nullptr, 2);
    EXPECT_EQ(atOnce.mean(), 0.0);
    EXPECT_EQ(atOnce.standardDeviation(), std::numeric_limits<double>::infinity());
    merged.add(1.7e308, 1);
    other.add(-1.7e308, 2);
    merged.merge(other);
    EXPECT_EQ(merged.mean(), 0.0);
    EXPECT_EQ(merged.standardDeviation(), std::numeric_limits<double>::infinity());
    EXPECT_EQ(merged.minimum(), -1.7e308);
    // Values whose deviations from their mean pass the largest double keep their mean, at once as one
    // by one, and their spread is infinite.
    const double wide[3] = {-1.7e308, 1.7e308, 1e308};
    MomentSummary wideAtOnce, wideOneByOne;
    wideAtOnce.addBlock(wide, nullptr, 3);
    for (const double v : wide)
        wideOneByOne.add(v, 0);
    EXPECT_DOUBLE_EQ(wideAtOnce.mean(), 1e308 / 3.0);
    EXPECT_DOUBLE_EQ(wideOneByOne.mean(), 1e308 / 3.0);
    EXPECT_EQ(wideAtOnce.standardDeviation(), std::numeric_limits<double>::infinity());
    EXPECT_EQ(wideOneByOne.standardDeviation(), std::numeric_limits<double>::infinity());
    // A spread past the largest double whose mean keeps a rounding too large to square: still infinite.
    for (const double scale : {1e200, 1e300}) {
        const double spread[4] = {scale, -scale, scale / 2, 0.0};
        MomentSummary spreadAtOnce, spreadOneByOne;
        spreadAtOnce.addBlock(spread, nullptr, 4);
        for (const double v : spread)
            spreadOneByOne.add(v, 0);
        EXPECT_EQ(spreadAtOnce.standardDeviation(), std::numeric_limits<double>::infinity()) << scale;
        EXPECT_EQ(spreadOneByOne.standardDeviation(), std::numeric_limits<double>::infinity()) << scale;
        EXPECT_DOUBLE_EQ(spreadAtOnce.mean(), scale / 8) << scale;
    }
    MomentSummary large;
    const double near[3] = {1.7e308, 1.6e308, 1.5e308};
    large.addBlock(near, nullptr, 3);
    EXPECT_DOUBLE_EQ(large.mean(), 1.6e308);
    EXPECT_EQ(ends.percentile(50), 0.0);
    EXPECT_EQ(ends.percentile(75), 5e307);
    double out[2];
    const double ps[2] = {50, 75};
    ends.percentiles(ps, 2, out);
    EXPECT_EQ(out[0], 0.0);
    EXPECT_EQ(out[1], 5e307);
}

// Parameters that only some runs name, deviations of zero and below, ties, a name listed twice in a
// run (its last value counts) and merit values with ties: every influence equals Spearman's rho of the
// full columns, a run without the parameter counting as deviation 0.
TEST(RunStatistics, InfluenceOfParametersSomeRunsLackEqualsSpearmanOfTheFullColumns)
{
    std::mt19937 random(5);
    for (int round = 0; round < 200; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        const int runs = 2 + static_cast<int>(random() % 60), names = 1 + static_cast<int>(random() % 6);
        YHashTable<XMLReportInfo> table;
        std::vector<std::vector<double>> full(static_cast<size_t>(names), std::vector<double>(static_cast<size_t>(runs), 0.0));
        std::vector<double> values;
        for (int c = 1; c <= runs; ++c) {
            const double value = static_cast<double>(random() % 7);
            XMLReportInfo r = run(c, {value});
            values.push_back(value);
            int at = 0;
            for (int k = 0; k < names; ++k) {
                if (random() % 3 == 0)
                    continue;
                const int times = random() % 8 == 0 ? 2 : 1;
                for (int t = 0; t < times; ++t) {
                    XMLParameterValue& p = r.parameters.at(at++);
                    p.name = YString(("P" + std::to_string(k)).c_str());
                    p.nominal = 2.0;
                    p.usedValue = 2.0 + 0.5 * static_cast<double>(static_cast<int>(random() % 5) - 2);
                    full[static_cast<size_t>(k)][static_cast<size_t>(c - 1)] = (p.usedValue - p.nominal) / p.nominal;
                }
            }
            table.insert(r);
        }
        const MeritStatistics s = sp_ComputeMeritStatistics(table, 0);
        for (const ParameterInfluence& i : s.influence) {
            const int k = std::atoi(i.name.c_str() + 1);
            const double expected = sp_SpearmanCorrelation(full[static_cast<size_t>(k)], values);
            if (std::isnan(expected))
                EXPECT_TRUE(std::isnan(i.rho)) << i.name.c_str();
            else
                EXPECT_NEAR(i.rho, expected, 1e-13) << i.name.c_str();
        }
    }
}

#ifdef Q_OS_LINUX
// A sensitivity set of 20,000 runs that each move a parameter of their own: ranking the parameters
// takes memory in proportion to the runs, not runs times parameters (3.2 GB here).
TEST(RunStatistics, InfluenceOfManyOneRunParametersTakesMemoryInProportion)
{
    bool ran = false;
    int status = 0;
    const std::string report = reportFromLimitedChild(size_t(1) << 30, [] {
        YHashTable<XMLReportInfo> table;
        for (int c = 1; c <= 20000; ++c) {
            XMLReportInfo r = run(c, {static_cast<double>(c % 97)});
            XMLParameterValue& p = r.parameters.at(0);
            p.name = YString(("R" + std::to_string(c)).c_str());
            p.nominal = 1.0;
            p.usedValue = 1.0 + 0.001 * (c % 13);
            table.insert(r);
        }
        return std::to_string(sp_ComputeMeritStatistics(table, 0).influence.size());
    }, &ran, &status);
    ASSERT_TRUE(ran) << "child status " << status;
    EXPECT_EQ(report, "20000");
}
#endif

// Far in the lower tail the quantile still comes out to the last digits, and is 0 where SciPy's is
// below the smallest double.
// Above two million degrees of freedom each evaluation of the distribution would be a series of more
// than ten thousand terms, and the density's logarithm the difference of two huge numbers. The middle
// quantiles agree with SciPy up to 1e16 degrees. SciPy's own far tails go astray there (at 1e9 degrees its
// 1e-10 quantile has a probability of 2e-10 below it), so the tails are checked instead by the
// distribution at them, summed exactly as its series in 60-digit decimals, up to 1e10 degrees.
TEST_F(RunStatisticsReference, ChiSquareQuantilesForHugeDegreesKeepTheirDigits)
{
    SUPPORTQT_SKIP_UNLESS_PEER_RUNS("python3");
    const double degrees[] = {2000002.0, 1e7, 1e9, 1e10, 1e12, 1e16};
    const double middle[] = {0.025, 0.5, 0.975};
    QProcess python;
    python.start(QString::fromLatin1(debianPython()),
                 {"-c", "import json\nfrom scipy import stats\nprint(json.dumps([float(stats.chi2.ppf(p, d)) "
                        "for d in [2000002.0, 1e7, 1e9, 1e10, 1e12, 1e16] for p in [0.025, 0.5, 0.975]]))"});
    ASSERT_TRUE(python.waitForStarted(30000));
    ASSERT_TRUE(python.waitForFinished(120000));
    ASSERT_EQ(python.exitCode(), 0) << python.readAllStandardError().toStdString();
    const QJsonArray reference = QJsonDocument::fromJson(python.readAllStandardOutput()).array();
    ASSERT_EQ(reference.size(), 18);
    int k = 0;
    for (double d : degrees)
        for (double p : middle) {
            SCOPED_TRACE("degrees " + std::to_string(d) + ", p " + std::to_string(p));
            expectRelative(sp_ChiSquareQuantile(p, d), json(reference[k++]), 1e-14, "chi-square quantile");
        }

    // The tails: P(d/2, x/2), the regularised lower incomplete gamma function, as x^a e^-x / Gamma(a + 1)
    // times the sum of x^k / ((a + 1)...(a + k)), with Stirling's series for the logarithm of Gamma.
    const double tailDegrees[] = {2000002.0, 1e7, 1e9, 1e10};
    QString pairs;
    for (double d : tailDegrees)
        for (double p : {1e-10, 1 - 1e-9})
            pairs += QString::asprintf("(%.17g, %.17g),", d, sp_ChiSquareQuantile(p, d));
    const QString script = QStringLiteral(
        "import json\n"
        "from decimal import Decimal as D, getcontext\n"
        "getcontext().prec = 60\n"
        "PI = D('3.14159265358979323846264338327950288419716939937510582097494')\n"
        "def lngamma(z):\n"
        "    s = (z - D('0.5')) * z.ln() - z + (2 * PI).ln() / 2\n"
        "    zp = z\n"
        "    for k, b in enumerate([D(1) / 6, D(-1) / 30, D(1) / 42, D(-1) / 30, D(5) / 66], start=1):\n"
        "        s += b / (2 * k * (2 * k - 1) * zp)\n"
        "        zp *= z * z\n"
        "    return s\n"
        "def lower(a, x):\n"
        "    term = total = D(1)\n"
        "    k = 1\n"
        "    while term >= total * D('1e-40'):\n"
        "        term = term * x / (a + k)\n"
        "        total += term\n"
        "        k += 1\n"
        "    return (a * x.ln() - x - lngamma(a + 1)).exp() * total\n"
        "out = []\n"
        "for d, q in [%1]:\n"
        "    p = lower(D(d) / 2, D(q) / 2)\n"
        "    out += [float(p), float(1 - p)]\n"
        "print(json.dumps(out))\n").arg(pairs);
    python.start(QString::fromLatin1(debianPython()), {"-c", script});
    ASSERT_TRUE(python.waitForStarted(30000));
    ASSERT_TRUE(python.waitForFinished(300000));
    ASSERT_EQ(python.exitCode(), 0) << python.readAllStandardError().toStdString();
    const QJsonArray tails = QJsonDocument::fromJson(python.readAllStandardOutput()).array();
    ASSERT_EQ(tails.size(), 16);
    k = 0;
    for (double d : tailDegrees) {
        SCOPED_TRACE("degrees " + std::to_string(d));
        // Below the 1e-10 quantile lies 1e-10; above the 1 - 1e-9 quantile lies 1e-9, reached through a
        // lower probability near 1, which keeps about seven digits of it.
        expectRelative(json(tails[k]) / 1e-10, 1.0, 1e-8, "probability below the 1e-10 quantile");
        expectRelative(json(tails[k + 3]) / 1e-9, 1.0, 1e-6, "probability above the 1 - 1e-9 quantile");
        k += 4;
    }
}

TEST_F(RunStatisticsReference, ChiSquareQuantilesFarInTheLowerTailAgreeWithSciPy)
{
    SUPPORTQT_SKIP_UNLESS_PEER_RUNS("python3");
    const double degrees[] = {0.3, 1.0, 4.0, 99.0, 1000.0};
    const double ps[] = {1e-300, 1e-200, 1e-100, 1e-30};
    QProcess python;
    python.start(QString::fromLatin1(debianPython()),
                 {"-c", "import json\nfrom scipy import stats\nprint(json.dumps([float(stats.chi2.ppf(p, d)) "
                        "for d in [0.3, 1.0, 4.0, 99.0, 1000.0] for p in [1e-300, 1e-200, 1e-100, 1e-30]]))"});
    ASSERT_TRUE(python.waitForStarted(30000));
    ASSERT_TRUE(python.waitForFinished(120000));
    ASSERT_EQ(python.exitCode(), 0) << python.readAllStandardError().toStdString();
    const QJsonArray reference = QJsonDocument::fromJson(python.readAllStandardOutput()).array();
    ASSERT_EQ(reference.size(), 20);
    int k = 0;
    for (double d : degrees)
        for (double p : ps) {
            const double expected = json(reference[k++]), actual = sp_ChiSquareQuantile(p, d);
            if (expected == 0.0)
                EXPECT_EQ(actual, 0.0) << "degrees " << d << ", p " << p;
            else
                EXPECT_LE(std::fabs(actual - expected), 1e-12 * expected)
                    << "degrees " << d << ", p " << p << ": " << actual << " against " << expected;
        }
}
