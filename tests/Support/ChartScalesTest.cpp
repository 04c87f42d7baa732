// ChartScalesTest.cpp - histogram bin counts and bins worked by hand, and round axis ticks.
#include "ChartScales.h"
#include "TestHelpers.h"

#include <climits>
#include <cmath>
#include <limits>
#include <random>
#include <tuple>
#include <vector>

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

} // namespace

TEST(ChartScales, FreedmanDiaconisBinCountOfAWorkedSample)
{
    // 1..8: quartiles 2.75 and 6.25, IQR 3.5, width 2 * 3.5 / cbrt(8) = 3.5, range 7: two bins.
    HistogramBinRule rule = HistogramBinRule::Given;
    EXPECT_EQ(sp_HistogramBinCount({1, 2, 3, 4, 5, 6, 7, 8}, 50, &rule), 2);
    EXPECT_EQ(rule, HistogramBinRule::FreedmanDiaconis);
    // The order of the values does not matter, and values that are not finite are no part of it.
    EXPECT_EQ(sp_HistogramBinCount({8, kNaN, 3, 1, kInf, 7, 2, 6, 4, -kInf, 5}, 50), 2);
}

TEST(ChartScales, BinCountIsCappedAndFallsBackWhereTheRuleCannotApply)
{
    HistogramBinRule rule = HistogramBinRule::Given;
    // One far value makes the range huge against the quartiles: the cap.
    EXPECT_EQ(sp_HistogramBinCount({0, 1, 2, 3, 4, 5, 6, 7, 1e6}, 50, &rule), 50);
    EXPECT_EQ(rule, HistogramBinRule::FreedmanDiaconis);
    EXPECT_EQ(sp_HistogramBinCount({0, 1, 2, 3, 4, 5, 6, 7, 1e6}, 12), 12);
    // Quartiles that coincide: the square root of the count.
    EXPECT_EQ(sp_HistogramBinCount({0, 0, 0, 0, 0, 0, 0, 0, 1}, 50, &rule), 3);
    EXPECT_EQ(rule, HistogramBinRule::SquareRoot);
    EXPECT_EQ(sp_HistogramBinCount({0, 0, 0, 0, 0, 0, 0, 0, 1}, 2), 2);
    // Values that do not vary, one value, none, and a cap below 1: one bin.
    EXPECT_EQ(sp_HistogramBinCount({5, 5, 5}, 50, &rule), 1);
    EXPECT_EQ(rule, HistogramBinRule::Single);
    EXPECT_EQ(sp_HistogramBinCount({5}, 50), 1);
    EXPECT_EQ(sp_HistogramBinCount({}, 50), 1);
    EXPECT_EQ(sp_HistogramBinCount({kNaN, kNaN}, 50), 1);
    EXPECT_EQ(sp_HistogramBinCount({1, 2, 3, 4}, 0), 1);
}

TEST(ChartScales, HistogramCountsTheFiniteValuesAndSaysHowManyItLeftOut)
{
    const Histogram h = sp_BuildHistogram({1, 2, kNaN, kInf, 3}, 2);
    EXPECT_EQ(h.rule, HistogramBinRule::Given);
    EXPECT_EQ(h.low, 1.0);
    EXPECT_EQ(h.high, 3.0);
    EXPECT_EQ(h.counts, (std::vector<long long>{1, 2})); // 2 lies on the inner edge: the bin above
    EXPECT_EQ(h.finite, 3);
    EXPECT_EQ(h.nonFinite, 2);
    EXPECT_EQ(h.binWidth(), 1.0);

    // The bin count from the data when none is given.
    const Histogram chosen = sp_BuildHistogram({1, 2, 3, 4, 5, 6, 7, 8}, 0);
    EXPECT_EQ(chosen.rule, HistogramBinRule::FreedmanDiaconis);
    EXPECT_EQ(chosen.counts, (std::vector<long long>{4, 4}));

    // Values that do not vary: one bin around them.
    const Histogram flat = sp_BuildHistogram({2, 2, 2}, 0);
    EXPECT_EQ(flat.counts, (std::vector<long long>{3}));
    EXPECT_DOUBLE_EQ(flat.low, 1.98);
    EXPECT_DOUBLE_EQ(flat.high, 2.02);
    const Histogram zeros = sp_BuildHistogram({0, 0}, 4);
    EXPECT_EQ(zeros.counts, (std::vector<long long>{0, 0, 2, 0}));
    EXPECT_EQ(zeros.low, -0.5);

    // Nothing finite: no bins, and the count of what was left out.
    const Histogram none = sp_BuildHistogram({kNaN, -kInf}, 0);
    EXPECT_TRUE(none.counts.empty());
    EXPECT_EQ(none.nonFinite, 2);
    EXPECT_EQ(none.finite, 0);
}

TEST(ChartScales, RoundTicksCoverTheRangeWithOneTwoOrFiveTimesAPowerOfTen)
{
    // The ripple of the Monte Carlo example: 12.9944m to 19.2712m.
    AxisTicks t = sp_RoundAxisTicks(0.0129944, 0.0192712, 8);
    EXPECT_EQ(t.values, (std::vector<double>{0.012, 0.014, 0.016, 0.018, 0.02}));
    EXPECT_EQ(t.step, 0.002);
    EXPECT_EQ(t.low, 0.012);
    EXPECT_EQ(t.high, 0.02);

    t = sp_RoundAxisTicks(-0.999, 0.5, 6);
    EXPECT_EQ(t.values, (std::vector<double>{-1, -0.5, 0, 0.5}));
    // Ends in the wrong order, and ends that are multiples of the step.
    t = sp_RoundAxisTicks(300, 100, 3);
    EXPECT_EQ(t.values, (std::vector<double>{100, 200, 300}));
    // Equal ends are widened by 1%.
    t = sp_RoundAxisTicks(3, 3, 5);
    EXPECT_EQ(t.values, (std::vector<double>{2.96, 2.98, 3.0, 3.02, 3.04}));
    t = sp_RoundAxisTicks(0, 0, 3);
    EXPECT_EQ(t.values, (std::vector<double>{-1, 0, 1}));
    // Large values, and a tick count below 2 taken as 2.
    t = sp_RoundAxisTicks(1.2e6, 3.4e6, 2);
    EXPECT_EQ(t.values, (std::vector<double>{0, 5e6}));
    EXPECT_EQ(sp_RoundAxisTicks(1.2e6, 3.4e6, 0).values, t.values);
}

TEST(ChartScales, EndsThatAreNotFiniteGiveNoTicks)
{
    for (double bad : {kNaN, kInf, -kInf}) {
        EXPECT_TRUE(sp_RoundAxisTicks(bad, 1, 5).values.empty());
        EXPECT_TRUE(sp_RoundAxisTicks(0, bad, 5).values.empty());
    }
    EXPECT_TRUE(sp_RoundAxisTicks(-1.7e308, 1.7e308, 5).values.empty());
    EXPECT_EQ(sp_RoundAxisTicks(0, 0, 5).step, 0.5);
}

// A value on an inner edge, low + k * binWidth(), goes to bin k, however the division rounds.
TEST(ChartScales, AValueOnAnInnerEdgeGoesToTheBinAboveIt)
{
    const Histogram h = sp_BuildHistogram({0.3, 0.4, 0.35}, 10);
    ASSERT_EQ(h.low + 5 * h.binWidth(), 0.35);
    EXPECT_EQ(h.counts, (std::vector<long long>{1, 0, 0, 0, 0, 1, 0, 0, 0, 1}));
    std::mt19937_64 random(3);
    std::uniform_real_distribution<double> any(-1e3, 1e3);
    for (int round = 0; round < 2000; ++round) {
        const double low = any(random), high = low + std::fabs(any(random)) + 1e-3;
        const int bins = 2 + static_cast<int>(random() % 40);
        const Histogram base = sp_BuildHistogram({low, high}, bins);
        const int k = 1 + static_cast<int>(random() % static_cast<unsigned>(bins - 1));
        const double onEdge = base.low + k * base.binWidth();
        const Histogram withEdge = sp_BuildHistogram({low, high, onEdge}, bins);
        ASSERT_EQ(withEdge.binWidth(), base.binWidth());
        EXPECT_EQ(withEdge.counts[static_cast<size_t>(k)], k == bins - 1 ? 2 : 1)
            << "low " << low << " high " << high << " bins " << bins << " edge " << k;
    }
}

// Ends at either extreme of the doubles: subnormal ends get a subnormal step that covers them, ends
// of opposite sign near the largest double get ticks as long as finite ones can cover them.
TEST(ChartScales, TicksForEndsAtTheExtremesOfTheDoubles)
{
    const AxisTicks tiny = sp_RoundAxisTicks(1e-320, 3e-320, 6);
    EXPECT_GT(tiny.step, 0.0);
    ASSERT_FALSE(tiny.values.empty());
    EXPECT_LE(tiny.values.size(), 6u);
    EXPECT_LE(tiny.values.front(), 1e-320);
    EXPECT_GE(tiny.values.back(), 3e-320);
    const AxisTicks wide = sp_RoundAxisTicks(-1e308, 1e308, 6);
    EXPECT_EQ(wide.values, (std::vector<double>{-1e308, -5e307, 0.0, 5e307, 1e308}));
    EXPECT_EQ(wide.step, 5e307);
    const AxisTicks beyond = sp_RoundAxisTicks(-1.5e308, 1.5e308, 6);
    EXPECT_TRUE(beyond.values.empty());
    EXPECT_EQ(beyond.step, 0.0);
}

// Few ticks asked for over a range near the largest double: the step that would be few enough is past
// the largest double, so no ticks cover the range; equal ends at the largest double are widened past it.
TEST(ChartScales, NoTicksWhenOnlyAStepBeyondTheLargestDoubleIsFewEnough)
{
    const double largest = std::numeric_limits<double>::max();
    for (const auto& [low, high, maxTicks] : std::vector<std::tuple<double, double, int>>{
             {0, 1.5e308, 2}, {-1.7e308, 1.7e308, 3}, {9.9961e307, 1.0003e308, 2}, {largest, largest, 2},
             {-largest, -largest, 2}, {largest, largest, 9}, {1e308, 1e308, 2}}) {
        const AxisTicks t = sp_RoundAxisTicks(low, high, maxTicks);
        EXPECT_TRUE(t.values.empty()) << low << " " << high << " " << maxTicks;
        EXPECT_EQ(t.step, 0.0) << low << " " << high << " " << maxTicks;
        EXPECT_EQ(t.low, 0.0);
        EXPECT_EQ(t.high, 0.0);
    }
    // One more tick allowed: a finite step covers them.
    EXPECT_EQ(sp_RoundAxisTicks(9.9961e307, 1.0003e308, 3).values, (std::vector<double>{9.995e307, 1e308, 1.0005e308}));
}

// The smallest doubles as ends: a span of one or two of them still gets a step and ticks.
TEST(ChartScales, TicksForEndsOfTheSmallestDoubles)
{
    const double least = std::numeric_limits<double>::denorm_min();
    for (const auto& ends : {std::make_pair(0.0, least), std::make_pair(-least, least), std::make_pair(least, least)}) {
        const AxisTicks t = sp_RoundAxisTicks(ends.first, ends.second, 6);
        EXPECT_GT(t.step, 0.0) << ends.first << " " << ends.second;
        ASSERT_FALSE(t.values.empty());
        EXPECT_LE(t.values.front(), ends.first);
        EXPECT_GE(t.values.back(), ends.second);
        EXPECT_LE(t.values.size(), 6u);
    }
}

// Values further apart than the largest double: the bin count, the bin width and the bins are taken by
// halves, so that none of them is infinite or not a number.
TEST(ChartScales, ValuesFurtherApartThanTheLargestDouble)
{
    HistogramBinRule rule = HistogramBinRule::Given;
    EXPECT_EQ(sp_HistogramBinCount({1e308, -1e308, 1e308, 0}, 50, &rule), 2);
    EXPECT_EQ(rule, HistogramBinRule::FreedmanDiaconis);
    EXPECT_EQ(sp_HistogramBinCount({-1.7e308, 1.7e308, 1.7e308}, 50, &rule), 2);
    EXPECT_EQ(rule, HistogramBinRule::FreedmanDiaconis);

    const Histogram four = sp_BuildHistogram({1e308, -1e308, 1e308, 0}, 4);
    EXPECT_EQ(four.binWidth(), 5e307);
    EXPECT_EQ(four.counts, (std::vector<long long>{1, 0, 1, 2}));
    const Histogram chosen = sp_BuildHistogram({1e308, -1e308, 1e308, 0}, 0);
    EXPECT_EQ(chosen.rule, HistogramBinRule::FreedmanDiaconis);
    EXPECT_EQ(chosen.binWidth(), 1e308);
    EXPECT_EQ(chosen.counts, (std::vector<long long>{1, 3}));
    const Histogram wide = sp_BuildHistogram({-1.7e308, 1.7e308, 1.7e308}, 0);
    EXPECT_EQ(wide.binWidth(), 1.7e308);
    EXPECT_EQ(wide.counts, (std::vector<long long>{1, 2}));
    // The widest of all: the upper edges too are taken by halves, and the maximum is in the last bin.
    const double most = std::numeric_limits<double>::max();
    EXPECT_EQ(sp_BuildHistogram({-most, 0, most}, 3).counts, (std::vector<long long>{1, 1, 1}));
    const Histogram many = sp_BuildHistogram({-most, most}, 1000);
    EXPECT_EQ(many.counts.front(), 1);
    EXPECT_EQ(many.counts.back(), 1);
}

// An end near 0 is covered however large the step: the slack that forgives rounding is relative to the
// end. Ends on either side of 0 need three ticks, whatever fewer is asked for.
TEST(ChartScales, TicksCoverAnEndNearZeroAndEndsOnEitherSideOfIt)
{
    AxisTicks t = sp_RoundAxisTicks(-1e-12, 1000, 3);
    EXPECT_EQ(t.values, (std::vector<double>{-1000, 0, 1000}));
    t = sp_RoundAxisTicks(-3, 5, 2);
    EXPECT_EQ(t.values, (std::vector<double>{-5, 0, 5}));
    EXPECT_EQ(t.step, 5.0);
    EXPECT_EQ(sp_RoundAxisTicks(-1, 1, 2).values, (std::vector<double>{-1, 0, 1}));
    EXPECT_EQ(sp_RoundAxisTicks(0, 0, 2).values, (std::vector<double>{-1, 0, 1}));
    // Same-sign ends keep the floor of two.
    EXPECT_EQ(sp_RoundAxisTicks(1e-12, 1000, 2).values, (std::vector<double>{0, 1000}));
    // An end that is a multiple of the step but for rounding costs no tick.
    EXPECT_EQ(sp_RoundAxisTicks(0.1 + 0.2, 0.7, 5).values, (std::vector<double>{0.3, 0.4, 0.5, 0.6, 0.7}));
    // Ends far from 0, many steps from it: the slack stays a billionth of a step.
    t = sp_RoundAxisTicks(1e12, 1e12 + 1, 11);
    ASSERT_EQ(t.values.size(), 11u);
    EXPECT_EQ(t.step, 0.1);
    EXPECT_EQ(t.values.front(), 1e12);
    EXPECT_EQ(t.values.back(), 1e12 + 1);
    t = sp_RoundAxisTicks(1000000000000.0123, 1000000000000.0195, 7);
    ASSERT_FALSE(t.values.empty());
    EXPECT_LE(t.values.front(), 1000000000000.0123);
    EXPECT_GE(t.values.back(), 1000000000000.0195);
    EXPECT_LE(t.values.size(), 7u);
}

// A count asked for from outside is bounded: the bins and ticks of a caller's INT_MAX cost at most a
// million of them.
TEST(ChartScales, CountsAskedForAreBounded)
{
    const Histogram h = sp_BuildHistogram({0, 1}, INT_MAX);
    EXPECT_EQ(h.bins(), kMaxHistogramBins);
    EXPECT_EQ(h.counts.front(), 1);
    EXPECT_EQ(h.counts.back(), 1);
    EXPECT_EQ(sp_HistogramBinCount({0, 1, 2, 3, 4, 5, 6, 7, 8, 1e12}, INT_MAX), kMaxHistogramBins);
    const AxisTicks t = sp_RoundAxisTicks(0, 1, INT_MAX);
    EXPECT_EQ(t.step, 2e-6);
    EXPECT_EQ(t.values.size(), 500001u);
    EXPECT_EQ(t.values.back(), 1.0);
}

// Ends a few doubles apart with many ticks allowed: no step is taken whose multiples a double cannot
// count exactly, so that the ticks still run from the low end to the high one.
TEST(ChartScales, TicksOfEndsAFewDoublesApartCoverThem)
{
    const double one = 1.0, justAbove = std::nextafter(1.0, 2.0);
    const std::pair<double, double> ends[] = {{one, one + std::ldexp(1.0, -52)},
                                              {1e300, std::nextafter(1e300, kInf)},
                                              {3.3, 3.3000000000000025},
                                              {-justAbove, -one}};
    for (const auto& [low, high] : ends) {
        for (const int most : {600, 1000, 5000, 1000000}) {
            const AxisTicks t = sp_RoundAxisTicks(low, high, most);
            ASSERT_GE(t.values.size(), 2u) << low << " " << most;
            EXPECT_LE(t.values.size(), static_cast<size_t>(most));
            EXPECT_LE(t.values.front(), low + 1e-9 * t.step) << low << " " << most;
            EXPECT_GE(t.values.back(), high - 1e-9 * t.step) << high << " " << most;
            for (size_t i = 1; i < t.values.size(); ++i)
                EXPECT_GT(t.values[i], t.values[i - 1]);
        }
    }
}

// Values that do not vary at the ends of the doubles: the bin around them has ends that differ and are
// finite, so that its width is a number above 0.
// Values a few subnormal doubles apart: the rule's bin count stops at the smallest doubles the range
// holds, so that every bin has a width and the lowest values are in the first bin. A count given is kept.
TEST(ChartScales, AnAutomaticCountGivesSubnormalBinsAWidth)
{
    const double least = std::numeric_limits<double>::denorm_min();
    const Histogram one = sp_BuildHistogram({0, 0, least}, 0);
    EXPECT_EQ(one.bins(), 1);
    EXPECT_EQ(one.binWidth(), least);
    EXPECT_EQ(one.counts, (std::vector<long long>{3}));
    // Eight zeros and one value two smallest doubles up: the square-root rule's 3 bins become 2.
    const Histogram two = sp_BuildHistogram({0, 0, 0, 0, 0, 0, 0, 0, 2 * least}, 0);
    EXPECT_EQ(two.rule, HistogramBinRule::SquareRoot);
    EXPECT_EQ(two.bins(), 2);
    EXPECT_EQ(two.binWidth(), least);
    EXPECT_EQ(two.counts, (std::vector<long long>{8, 1}));
    EXPECT_EQ(sp_BuildHistogram({0, 0, least}, 4).bins(), 4);
}

TEST(ChartScales, AHistogramOfOneValueAtTheEndsOfTheDoublesHasAWidth)
{
    const double most = std::numeric_limits<double>::max();
    const double least = std::numeric_limits<double>::denorm_min();
    for (const double v : {least, -least, 1e-310, most, -most}) {
        for (const int bins : {0, 1, 10}) {
            const Histogram h = sp_BuildHistogram({v, v}, bins);
            EXPECT_TRUE(std::isfinite(h.low)) << v;
            EXPECT_TRUE(std::isfinite(h.high)) << v;
            EXPECT_LT(h.low, h.high) << v;
            EXPECT_LE(h.low, v);
            EXPECT_GE(h.high, v);
            EXPECT_GT(h.binWidth(), 0.0) << v << " " << bins;
            long long counted = 0;
            for (long long c : h.counts)
                counted += c;
            EXPECT_EQ(counted, 2) << v;
        }
    }
    EXPECT_EQ(sp_BuildHistogram({most}, 1).high, most);
    EXPECT_EQ(sp_BuildHistogram({-most}, 1).low, -most);
    // A value of ordinary size keeps its 1% to either side.
    const Histogram five = sp_BuildHistogram({5.0}, 1);
    EXPECT_DOUBLE_EQ(five.low, 4.95);
    EXPECT_DOUBLE_EQ(five.high, 5.05);
}
