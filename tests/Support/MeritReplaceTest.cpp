// MeritReplaceTest.cpp - a merit function given new values in place, and every refusal leaving the
// results file as it was.
#include "MeritReplace.h"
#include "TestHelpers.h"

namespace {

class MeritReplace : public TempDirTest {
protected:
    // Three runs with the merit functions gain and f3db.
    YString writeResults()
    {
        YHashTable<XMLReportInfo> table;
        XMLReportHeader header;
        header.title = "three runs";
        header.meritFunctions.at(0).name = "gain";
        header.meritFunctions.at(0).value = "max(v(out))";
        header.meritFunctions.at(1).name = "f3db";
        header.meritFunctions.at(1).value = "cutoff(v(out),3)";
        for (int c = 1; c <= 3; ++c) {
            XMLReportInfo run(c);
            run.values.at(0).value = 10.0 * c;
            run.values.at(1).value = 1000.0 * c;
            table.insert(run);
        }
        const YString file(path("runs.msw").c_str());
        EXPECT_TRUE(sp_WriteMswFile(file, table, header));
        return file;
    }
    static YVector<double> reals(std::initializer_list<double> list)
    {
        YVector<double> v;
        for (double d : list)
            v.append(d);
        return v;
    }
    static YVector<int> ints(std::initializer_list<int> list)
    {
        YVector<int> v;
        for (int i : list)
            v.append(i);
        return v;
    }
};

} // namespace

TEST_F(MeritReplace, TheMeritFunctionKeepsItsPlaceAndTakesTheNewValues)
{
    const YString file = writeResults();
    ASSERT_TRUE(sp_ReplaceMeritData(file, YString("max(v(out))/2"), YString("gain"), reals({5, 7}), ints({1, 3})));
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    ASSERT_TRUE(sp_CompileSensReportData(file, &table, &header));
    ASSERT_EQ(header.meritFunctions.count(), 2);
    EXPECT_EQ(header.meritFunctions[0].name, YString("gain"));
    EXPECT_EQ(header.meritFunctions[0].value, YString("max(v(out))/2"));
    EXPECT_EQ(header.meritFunctions[1].name, YString("f3db"));
    const double gains[] = {5, 0, 7}; // case 2 was given no value
    for (int c = 1; c <= 3; ++c) {
        XMLReportInfo probe(c);
        const XMLReportInfo* run = table.find(probe);
        ASSERT_NE(run, nullptr);
        EXPECT_EQ(run->values[0].value, gains[c - 1]) << c;
        EXPECT_EQ(run->values[1].value, 1000.0 * c) << c; // the other merit function is as it was
    }
}

TEST_F(MeritReplace, RefusalsLeaveTheFileAsItWas)
{
    const YString file = writeResults();
    const std::string before = readFileBytes(path("runs.msw"));
    EXPECT_FALSE(sp_ReplaceMeritData(file, YString("x"), YString("phase"), reals({1}), ints({1})));     // no such name
    EXPECT_FALSE(sp_ReplaceMeritData(file, YString("x"), YString("Gain"), reals({1}), ints({1})));      // names are exact
    EXPECT_FALSE(sp_ReplaceMeritData(file, YString("x"), YString("gain"), reals({1, 2}), ints({1})));   // lengths differ
    EXPECT_FALSE(sp_ReplaceMeritData(file, YString("x"), YString("gain"), reals({1, 2}), ints({2, 2}))); // a case twice
    EXPECT_FALSE(sp_ReplaceMeritData(file, YString("x"), YString("gain"), reals({1}), ints({9})));      // no such case
    EXPECT_FALSE(sp_ReplaceMeritData(YString(path("none.msw").c_str()), YString("x"), YString("gain"), reals({}), ints({})));
    EXPECT_EQ(readFileBytes(path("runs.msw")), before);
}
