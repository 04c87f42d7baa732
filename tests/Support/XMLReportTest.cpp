// XMLReportTest.cpp - run records, deltas against the reference run and normalised sensitivities.
#include "TestHelpers.h"
#include "XMLReport.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

XMLParameterValue parameter(double nominal, double used)
{
    XMLParameterValue p;
    p.name = "R1";
    p.nominal = nominal;
    p.usedValue = used;
    return p;
}

// A run whose merit value `value` has the delta `delta` and whose parameters moved as given.
XMLReportInfo run(int caseNumber, double value, double delta, std::initializer_list<XMLParameterValue> parameters)
{
    XMLReportInfo r(caseNumber);
    r.values.at(0).value = value;
    r.values.at(0).delta = delta;
    for (const XMLParameterValue& p : parameters)
        r.parameters.append(p);
    return r;
}

} // namespace

TEST(XMLReportInfo, CreatedFromACaseNumber)
{
    const XMLReportInfo r(7);
    EXPECT_EQ(r.caseNumber, 7);
    EXPECT_FALSE(r.hasName || r.hasDescription || r.hasSeed);
    EXPECT_TRUE(r.name.isEmpty() && r.description.isEmpty());
    EXPECT_EQ(r.values.count(), 0);
    EXPECT_EQ(r.parameters.count(), 0);
}

TEST(XMLReportInfo, OutOfRangeReadsGiveDefaultsAndWritesAppendUnsetEntries)
{
    XMLReportInfo r(2);
    EXPECT_EQ(r.values[-1].status, NormUnset);
    EXPECT_EQ(r.values[5].value, 0.0);
    EXPECT_TRUE(r.parameters[3].name.isEmpty());
    EXPECT_FALSE(r.parameters[3].hasTolerance);
    r.values.at(2).value = 4.5;
    ASSERT_EQ(r.values.count(), 3);
    EXPECT_EQ(r.values[0].status, NormUnset);
    EXPECT_EQ(r.values[1].norm, 0.0);
    EXPECT_EQ(r.values[2].value, 4.5);
    r.values.at(-3).value = 9; // lands nowhere
    EXPECT_EQ(r.values.count(), 3);
}

TEST(XMLReportInfo, CopiesAreDeep)
{
    XMLReportInfo a(3);
    a.values.at(0).value = 1.0;
    a.parameters.append(parameter(1, 2));
    XMLReportInfo b = a;
    b.values.at(0).value = 2.0;
    b.parameters.append(parameter(3, 4));
    EXPECT_EQ(a.values[0].value, 1.0);
    EXPECT_EQ(a.parameters.count(), 1);
    EXPECT_EQ(b.parameters.count(), 2);
}

TEST(XMLReportInfo, NormalisedSensitivityFormula)
{
    // ((delta / value) * nominal) / (used - nominal) = ((0.5 / 2) * 100) / (110 - 100) = 2.5
    const XMLReportInfo r = run(2, 2.0, 0.5, {parameter(100, 110)});
    bool divByZero = true;
    EXPECT_DOUBLE_EQ(r.getNormalisedSensitivity(0, 0, &divByZero), 2.5);
    EXPECT_FALSE(divByZero);
    EXPECT_EQ(r.getNormalisedSensitivity(-1, 0, &divByZero), 0.0);
    EXPECT_TRUE(divByZero);
    divByZero = false;
    EXPECT_EQ(r.getNormalisedSensitivity(0, 9, &divByZero), 0.0);
    EXPECT_TRUE(divByZero);
    divByZero = false;
    EXPECT_EQ(r.getNormalisedSensitivity(4, 0, &divByZero), 0.0);
    EXPECT_TRUE(divByZero);
}

TEST(XMLReportInfo, ReferenceRunIsAlwaysValidWithNormZero)
{
    XMLReportInfo r = run(1, 2.0, 0.5, {parameter(100, 110)});
    r.values.at(1).value = 3;
    r.buildNormalisedSensitivity();
    for (int j = 0; j < 2; ++j) {
        EXPECT_EQ(r.values[j].status, NormValid);
        EXPECT_EQ(r.values[j].norm, 0.0);
    }
}

TEST(XMLReportInfo, NominalUsedOrZeroValueDividesByZero)
{
    XMLReportInfo unmoved = run(2, 2.0, 0.5, {parameter(100, 100)});
    unmoved.buildNormalisedSensitivity();
    EXPECT_EQ(unmoved.values[0].status, NormDivByZero);
    EXPECT_EQ(unmoved.values[0].norm, 0.0);
    XMLReportInfo zero = run(2, 0.0, 0.5, {parameter(100, 110)});
    zero.buildNormalisedSensitivity();
    EXPECT_EQ(zero.values[0].status, NormDivByZero);
    XMLReportInfo none = run(2, 2.0, 0.5, {});
    none.buildNormalisedSensitivity();
    EXPECT_EQ(none.values[0].status, NormDivByZero);
}

TEST(XMLReportInfo, ConsistencyToleranceIsRelative)
{
    // value 1, delta 0.1, nominal 1: sensitivity 0.1 / (used - 1); used 1.05 gives 2.0.
    const double twoUsed = 1.05;
    auto usedFor = [](double s) { return 1.0 + 0.1 / s; };
    XMLReportInfo close = run(2, 1.0, 0.1, {parameter(1, twoUsed), parameter(1, usedFor(2.0000001))});
    close.buildNormalisedSensitivity();
    EXPECT_EQ(close.values[0].status, NormValid);
    bool flag = false;
    EXPECT_EQ(close.values[0].norm, close.getNormalisedSensitivity(0, 0, &flag));
    EXPECT_NEAR(close.values[0].norm, 2.0, 1e-12);
    XMLReportInfo far = run(2, 1.0, 0.1, {parameter(1, twoUsed), parameter(1, usedFor(2.000001))});
    far.buildNormalisedSensitivity();
    EXPECT_EQ(far.values[0].status, NormInconsistent);
    EXPECT_EQ(far.values[0].norm, 0.0);
}

TEST(XMLReportInfo, ZeroFirstSensitivityComparesAbsolutely)
{
    // A nominal of 0 makes the first parameter's sensitivity 0: ((d / y) * 0) / (used - 0).
    XMLReportInfo r = run(2, 1.0, 1e-7, {parameter(0, 1), parameter(2, 3)});
    // Second: ((1e-7 / 1) * 2) / (3 - 2) = 2e-7, an absolute difference above 1e-7.
    r.buildNormalisedSensitivity();
    EXPECT_EQ(r.values[0].status, NormInconsistent);
    XMLReportInfo same = run(2, 1.0, 0.4e-7, {parameter(0, 1), parameter(2, 3)});
    same.buildNormalisedSensitivity(); // 0.8e-7 is within 1e-7 of 0
    EXPECT_EQ(same.values[0].status, NormValid);
    EXPECT_EQ(same.values[0].norm, 0.0);
}

namespace {
// The comparison as stated: each merit function's first sensitivity against every later parameter's, in
// order, until one differs by more than 1e-7; the last call's division flag decides.
void directVerdicts(XMLReportInfo* r, std::vector<int>* status, std::vector<double>* norm)
{
    for (int j = 0; j < r->values.count(); ++j) {
        bool divByZero = false;
        const double s0 = r->getNormalisedSensitivity(0, j, &divByZero);
        bool differs = false;
        for (int k = 1; k < r->parameters.count() && !differs; ++k) {
            const double sk = r->getNormalisedSensitivity(k, j, &divByZero);
            differs = (s0 != 0.0 ? std::fabs(sk - s0) / std::fabs(s0) : std::fabs(sk)) > 1e-7;
        }
        status->push_back(divByZero ? NormDivByZero : differs ? NormInconsistent : NormValid);
        norm->push_back(divByZero || differs ? 0.0 : s0);
    }
}
} // namespace

// Runs of many merit functions whose parameters stand at every distance from the 1e-7 threshold, the
// nearest within rounding of it, among parameters and merit values that need the direct comparison
// (zeros, unmoved parameters, subnormal, huge and infinite numbers, NaN): every verdict and norm is the
// direct comparison's, bit for bit.
TEST(XMLReportInfo, VerdictsAreTheDirectComparisonsForEveryParameterAndMeritFunction)
{
    std::mt19937_64 random(20261128);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const double special[] = {0.0, -0.0, 1e-310, 1e300, -1e300, INFINITY, NAN, 1.0, -2.5};
    const auto pick = [&](double usual) { return unit(random) < 0.03 ? special[random() % 9] : usual; };
    int inconsistentNear = 0, validNear = 0, runs = 0;
    for (int round = 0; round < 20000; ++round) {
        XMLReportInfo r(2);
        const double n0 = std::ldexp(0.5 + unit(random), static_cast<int>(random() % 40) - 20);
        const double g0 = std::ldexp(0.5 + unit(random), static_cast<int>(random() % 40) - 20) * (random() % 2 ? 1 : -1);
        r.parameters.append(parameter(pick(n0), pick(n0 + g0)));
        const int count = 1 + static_cast<int>(random() % 6);
        for (int k = 1; k < count; ++k) {
            // The ratio n_k/g_k against n_0/g_0: the same, or 1e-7 away give or take up to 1e-11 in
            // relative terms, or far off; or the parameter is unmoved, or its nominal value 0.
            const int kind = static_cast<int>(random() % 6);
            if (kind >= 4) {
                const double n = kind == 4 ? pick(n0) : 0.0;
                r.parameters.append(parameter(n, kind == 4 ? n : pick(g0)));
                continue;
            }
            const double offset = kind == 0   ? 0.0
                                  : kind == 3 ? unit(random) - 0.5
                                              : (random() % 2 ? 1 : -1) * (1e-7 + (unit(random) - 0.5) * std::ldexp(1e-11, -static_cast<int>(random() % 12)));
            const double g = std::ldexp(0.5 + unit(random), static_cast<int>(random() % 40) - 20);
            const double n = (n0 / g0) * (1.0 + offset) * g;
            r.parameters.append(parameter(pick(n), pick(n + g)));
        }
        const int merits = 1 + static_cast<int>(random() % 8);
        for (int j = 0; j < merits; ++j) {
            r.values.at(j).value = pick(std::ldexp(0.5 + unit(random), static_cast<int>(random() % 600) - 300));
            r.values.at(j).delta = random() % 8 == 0 ? 0.0 : pick(std::ldexp(unit(random) - 0.5, static_cast<int>(random() % 600) - 300));
        }
        std::vector<int> status;
        std::vector<double> norm;
        directVerdicts(&r, &status, &norm);
        r.buildNormalisedSensitivity();
        for (int j = 0; j < merits; ++j) {
            ASSERT_EQ(r.values[j].status, status[static_cast<size_t>(j)]) << "round " << round << " merit " << j;
            ASSERT_EQ(std::memcmp(&r.values[j].norm, &norm[static_cast<size_t>(j)], sizeof(double)), 0)
                << "round " << round << " merit " << j << ": " << r.values[j].norm << " vs " << norm[static_cast<size_t>(j)];
        }
        ++runs;
        // Two parameters whose ratios are 1e-7 apart within rounding: both verdicts must occur.
        if (count == 2 && status[0] != NormDivByZero) {
            bool flag = false;
            const double s0 = r.getNormalisedSensitivity(0, 0, &flag), s1 = r.getNormalisedSensitivity(1, 0, &flag);
            if (s0 != 0.0 && std::fabs(std::fabs(s1 - s0) / std::fabs(s0) - 1e-7) < 1e-13)
                ++(status[0] == NormInconsistent ? inconsistentNear : validNear);
        }
    }
    EXPECT_EQ(runs, 20000);
    EXPECT_GT(inconsistentNear, 0);
    EXPECT_GT(validNear, 0);
}

TEST(XMLReportInfo, OnlyTheLastCallsDivisionFlagCounts)
{
    // The first parameter divides by zero (used = nominal), the second does not: the run is reported by
    // the second; s0 is 0, so the comparison is absolute and the run is inconsistent.
    XMLReportInfo r = run(2, 1.0, 0.1, {parameter(1, 1), parameter(1, 1.05)});
    r.buildNormalisedSensitivity();
    EXPECT_EQ(r.values[0].status, NormInconsistent);
    // In the reverse order the call that ends the loop divides by zero, and its flag decides.
    XMLReportInfo reverse = run(2, 1.0, 0.1, {parameter(1, 1.05), parameter(1, 1)});
    reverse.buildNormalisedSensitivity();
    EXPECT_EQ(reverse.values[0].status, NormDivByZero);
    EXPECT_EQ(reverse.values[0].norm, 0.0);
    XMLReportInfo lastZero = run(2, 1.0, 0.0, {parameter(1, 1.05), parameter(1, 1)});
    lastZero.buildNormalisedSensitivity(); // s0 = 0, s1 flagged 0: consistent, but the last flag is set
    EXPECT_EQ(lastZero.values[0].status, NormDivByZero);
}

TEST(ComputeSensitivityDeltas, DeltasAgainstCaseOne)
{
    YHashTable<XMLReportInfo> table;
    XMLReportInfo reference(1);
    reference.values.at(0).value = 10;
    reference.values.at(1).value = 1;
    table.insert(reference);
    XMLReportInfo other = run(2, 12, 99, {parameter(100, 110)});
    table.insert(other);
    computeSensitivityDeltas(table);
    XMLReportInfo probe;
    probe.caseNumber = 2;
    const XMLReportInfo* r2 = table.find(probe);
    ASSERT_NE(r2, nullptr);
    EXPECT_EQ(r2->values[0].delta, 2.0);
    ASSERT_EQ(r2->values.count(), 2); // the missing value was created and reads as 0
    EXPECT_EQ(r2->values[1].delta, -1.0);
    EXPECT_EQ(r2->values[0].status, NormValid);
    EXPECT_DOUBLE_EQ(r2->values[0].norm, ((2.0 / 12.0) * 100.0) / 10.0);
    probe.caseNumber = 1;
    EXPECT_EQ(table.find(probe)->values[0].delta, 0.0);
    EXPECT_EQ(table.find(probe)->values[0].status, NormValid);
}

TEST(ComputeSensitivityDeltas, WithoutCaseOneDeltasStayAsTheyWere)
{
    YHashTable<XMLReportInfo> table;
    table.insert(run(2, 2.0, 0.5, {parameter(100, 110)}));
    computeSensitivityDeltas(table);
    XMLReportInfo probe;
    probe.caseNumber = 2;
    EXPECT_EQ(table.find(probe)->values[0].delta, 0.5);
    EXPECT_DOUBLE_EQ(table.find(probe)->values[0].norm, 2.5);
}

namespace {

// Deltas and sensitivities the plain way: a pass over the table per merit function of the reference run,
// reading the reference's value on every round, then a pass that builds every record's sensitivities.
// The library makes all of it in one pass; both must leave the same table.
void deltasAsWritten(YHashTable<XMLReportInfo>& table)
{
    XMLReportInfo probe;
    probe.caseNumber = 1;
    if (const XMLReportInfo* reference = table.find(probe)) {
        for (int i = 0; i < reference->values.count(); ++i) {
            const double ref = table.find(probe)->values[i].value;
            for (XMLReportInfo& r : table)
                r.values.at(i).delta = r.values.at(i).value - ref;
        }
    }
    for (XMLReportInfo& r : table)
        r.buildNormalisedSensitivity();
}

std::string dump(const YHashTable<XMLReportInfo>& table)
{
    std::string text;
    char number[128];
    for (const XMLReportInfo& r : table) {
        text += "case " + std::to_string(r.caseNumber) + ":";
        for (int i = 0; i < r.values.count(); ++i) {
            std::snprintf(number, sizeof number, " %.17g/%.17g/%.17g/%d", r.values[i].value, r.values[i].delta,
                          r.values[i].norm, r.values[i].status);
            text += number;
        }
        text += "\n";
    }
    return text;
}

} // namespace

TEST(ComputeSensitivityDeltas, OnePassGivesWhatThePassPerMeritFunctionGives)
{
    // Tables with and without a reference run, a reference with fewer or more values than other runs,
    // runs without values or parameters, parameters left at nominal, zero values, several parameters.
    std::mt19937 random(31);
    std::uniform_int_distribution<int> small(0, 4), coin(0, 1);
    std::uniform_real_distribution<double> real(-2.0, 2.0);
    for (int t = 0; t < 200; ++t) {
        YHashTable<XMLReportInfo> table;
        const bool withReference = t % 4 != 0;
        for (int c = withReference ? 1 : 2; c < 2 + small(random) * 5; ++c) {
            XMLReportInfo r(c);
            const int values = small(random);
            for (int i = 0; i < values; ++i)
                r.values.at(i).value = small(random) == 0 ? 0.0 : real(random);
            for (int k = small(random) % 3; k > 0; --k)
                r.parameters.append(parameter(coin(random) ? 100.0 : 0.0, coin(random) ? 100.0 : 100.0 + real(random)));
            table.insert(r);
        }
        YHashTable<XMLReportInfo> written = table;
        computeSensitivityDeltas(table);
        deltasAsWritten(written);
        EXPECT_EQ(dump(table), dump(written)) << "table " << t;
    }
}
