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

// Case 2 lacks a value of f3db. With a reference run that has one, the reader gives case 2 a 0, which
// the rewrite writes; without a reference run, case 2 is refused.
TEST_F(MeritReplace, ARunLackingAValueIsRefusedOnlyWhereTheReaderDoesNotFillItIn)
{
    for (const bool withReference : {true, false}) {
        SCOPED_TRACE(withReference ? "with a reference run" : "without one");
        const std::string reference = withReference ? "\t\t<sensval case=\"1\" value=\"10\" />\n" : "";
        const std::string text =
            "<?xml version=\"1.0\"?>\n<msw version=\"1.0\" rev=\"1\">\n\t<header />\n"
            "\t<meritfunction value=\"\" name=\"gain\">\n" + reference +
            "\t\t<sensval case=\"2\" value=\"20\" />\n\t\t<sensval case=\"3\" value=\"30\" />\n\t</meritfunction>\n"
            "\t<meritfunction value=\"\" name=\"f3db\">\n" + reference +
            "\t\t<sensval case=\"3\" value=\"3000\" />\n\t</meritfunction>\n</msw>\n";
        writeFileBytes(path("sparse.msw"), text);
        const YString file(path("sparse.msw").c_str());
        const bool replaced = sp_ReplaceMeritData(file, YString("g"), YString("gain"), reals({4}), ints({2}));
        if (!withReference) {
            EXPECT_FALSE(replaced);
            EXPECT_EQ(readFileBytes(path("sparse.msw")), text);
            continue;
        }
        ASSERT_TRUE(replaced);
        YHashTable<XMLReportInfo> read;
        XMLReportHeader header;
        ASSERT_TRUE(sp_CompileSensReportData(file, &read, &header));
        XMLReportInfo probe(2);
        const XMLReportInfo* run = read.find(probe);
        ASSERT_NE(run, nullptr);
        ASSERT_EQ(run->values.count(), 2);
        EXPECT_EQ(run->values[0].value, 4.0);
        EXPECT_EQ(run->values[1].value, 0.0);
        const std::string written = readFileBytes(path("sparse.msw"));
        EXPECT_NE(written.find("\t\t<sensval case=\"2\" value=\"0\" />\n\t\t<sensval case=\"3\" value=\"3000\" />"),
                  std::string::npos);
    }
}
