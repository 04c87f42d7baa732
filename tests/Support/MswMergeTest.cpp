// MswMergeTest.cpp - results files of parts of a run set merged into one: the merged file validates,
// reads back as the whole run set, and its reports are the reports of the whole; case numbers that
// collide fail or are renumbered; two hundred shards merge with their summaries, and so do more merit
// functions than the process may have files open.
#include "MswMerge.h"
#include "Reports.h"
#include "TestHelpers.h"
#include "XMLReport.h"

#include <QFile>
#include <QFileInfo>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <random>
#include <string>

namespace {

const char kSchema[] = SUPPORTQT_SCHEMA_DIR "/msw.xsd";

const XMLReportInfo* findCase(const YHashTable<XMLReportInfo>& table, int caseNumber)
{
    XMLReportInfo probe;
    probe.caseNumber = caseNumber;
    return table.find(probe);
}

XMLReportHeader headerOf(int cores)
{
    XMLReportHeader h;
    h.title = "buck converter";
    h.date = "2026-11-24";
    h.analysis = ".mc 40 tran v(out)";
    h.group = "g1";
    h.numCores = cores;
    h.meritFunctions.at(0).value = "max(v(out))";
    h.meritFunctions.at(0).name = "vmax";
    h.meritFunctions.at(1).value = "rms(i(l1))";
    h.meritFunctions.at(1).name = "irms";
    return h;
}

// A run set of 40 runs with every kind of record the file can hold: named runs, described runs, runs
// with neither, seeds, parameters with and without tolerance, a value that is not finite.
YHashTable<XMLReportInfo> runSet(int first, int count)
{
    YHashTable<XMLReportInfo> table;
    std::mt19937_64 random(static_cast<unsigned long long>(first));
    std::normal_distribution<double> normal(0.0, 1.0);
    for (int c = first; c < first + count; ++c) {
        XMLReportInfo r(c);
        r.values.at(0).value = 3.3 + 0.01 * normal(random);
        r.values.at(1).value = c == 23 ? std::numeric_limits<double>::infinity() : 0.5 + 0.02 * normal(random);
        if (c % 5 == 0) {
            r.name = YString(("Refdes:R" + std::to_string(c) + "/DevParam:R").c_str());
            r.hasName = true;
        } else if (c % 3 == 0) {
            r.description = YString(("run, \"" + std::to_string(c) + "\" <tab>\there").c_str());
            r.hasDescription = true;
        }
        r.seed = 1000000000000LL + c;
        r.hasSeed = c % 2 == 0;
        for (int p = 0; p < 2; ++p) {
            XMLParameterValue& param = r.parameters.at(p);
            param.name = p == 0 ? "R1" : "C1";
            param.nominal = p == 0 ? 1000.0 : 1e-6;
            param.usedValue = param.nominal * (1.0 + 0.05 * normal(random));
            param.hasTolerance = p == 0;
            param.tolerance = p == 0 ? 0.05 : 0.0;
        }
        table.insert(r);
    }
    return table;
}

YHashTable<XMLReportInfo> only(const YHashTable<XMLReportInfo>& table, int first, int last)
{
    YHashTable<XMLReportInfo> part;
    for (const XMLReportInfo& r : table)
        if (r.caseNumber >= first && r.caseNumber <= last)
            part.insert(r);
    return part;
}

} // namespace

class MswMerge : public TempDirTest {
protected:
    YString p(const std::string& name) const { return YString(path(name).c_str()); }

    // Merges the two shards into merged.msw with renumbering, checks the file against the schema and
    // reads it into `table`; false when the merge or the read fails.
    bool mergeRenumberedAndRead(const char* first, const char* second, MswMergeSummary* summary,
                                YHashTable<XMLReportInfo>* table)
    {
        YString message;
        if (!sp_MergeMswFiles({p(first), p(second)}, p("merged.msw"), true, &message, summary)) {
            ADD_FAILURE() << message.c_str();
            return false;
        }
        YString why;
        EXPECT_EQ(sp_ValidateXml(p("merged.msw"), YString(kSchema), &why), XmlValidateOk) << why.c_str();
        XMLReportHeader header;
        return sp_CompileSensReportData(p("merged.msw"), table, &header);
    }

    // Every report of a results file, as text: the Monte Carlo and worst-case logs, the sensitivity
    // page sorted by each of its first columns, and the CSV report.
    std::string reportsOf(const std::string& file)
    {
        YHashTable<XMLReportInfo> table;
        XMLReportHeader header;
        EXPECT_TRUE(sp_CompileSensReportData(p(file), &table, &header)) << file;
        std::string all;
        EXPECT_TRUE(sp_BuildMonteCarloHTMLReport(p("mc.html"), YString(), table, header));
        all += readFileBytes(path("mc.html"));
        EXPECT_TRUE(sp_BuildWorstCaseHTMLReport(p("wc.html"), YString(), table, header));
        all += readFileBytes(path("wc.html"));
        for (int column = 0; column < 9; ++column) {
            EXPECT_TRUE(sp_BuildHTMLSensitivityReport(p("sens.html"), YString(), table, header, column));
            all += readFileBytes(path("sens.html"));
        }
        YArray<YString> lines;
        EXPECT_TRUE(sp_BuildCsvSensitivityReport(&lines, table, header, 4));
        for (const YString& line : lines)
            all += std::string(line.c_str()) + "\n";
        return all;
    }
};

TEST_F(MswMerge, ThreeShardsReadBackAsTheWholeAndGiveTheSameReports)
{
    const YHashTable<XMLReportInfo> whole = runSet(1, 40);
    ASSERT_TRUE(sp_WriteMswFile(p("whole.msw"), whole, headerOf(3)));
    ASSERT_TRUE(sp_WriteMswFile(p("a.msw"), only(whole, 1, 12), headerOf(1)));
    ASSERT_TRUE(sp_WriteMswFile(p("b.msw"), only(whole, 13, 30), headerOf(1)));
    ASSERT_TRUE(sp_WriteMswFile(p("c.msw"), only(whole, 31, 40), headerOf(1)));

    YString message;
    MswMergeSummary summary;
    ASSERT_TRUE(sp_MergeMswFiles({p("a.msw"), p("b.msw"), p("c.msw")}, p("merged.msw"), false, &message, &summary))
        << message.c_str();
    EXPECT_EQ(summary.runs, 40);
    EXPECT_EQ(summary.renumbered, 0);
    EXPECT_EQ(summary.shardRuns, (std::vector<long long>{12, 18, 10}));
    ASSERT_EQ(summary.merits.size(), 2u);
    EXPECT_EQ(summary.merits[0].count(), 40);
    EXPECT_EQ(summary.merits[1].count(), 39);
    EXPECT_EQ(summary.merits[1].nonFiniteCount(), 1);

    YString why;
    EXPECT_EQ(sp_ValidateXml(p("merged.msw"), YString(kSchema), &why), XmlValidateOk) << why.c_str();
    const std::string text = readFileBytes(path("merged.msw"));
    EXPECT_NE(text.find("<shard index=\"2\" path=\"" + path("b.msw") + "\" runs=\"18\"/>"), std::string::npos);
    EXPECT_NE(text.find(" case=\"13\""), std::string::npos);
    EXPECT_NE(text.find("shard=\"3\""), std::string::npos);

    YHashTable<XMLReportInfo> merged;
    XMLReportHeader header;
    ASSERT_TRUE(sp_CompileSensReportData(p("merged.msw"), &merged, &header));
    YHashTable<XMLReportInfo> expected;
    XMLReportHeader expectedHeader;
    ASSERT_TRUE(sp_CompileSensReportData(p("whole.msw"), &expected, &expectedHeader));
    ASSERT_EQ(merged.count(), expected.count());
    EXPECT_EQ(header.meritFunctions.count(), 2);
    EXPECT_EQ(header.numCores, 3);
    EXPECT_EQ(header.title, expectedHeader.title);
    for (const XMLReportInfo& e : expected) {
        const XMLReportInfo* m = findCase(merged, e.caseNumber);
        ASSERT_TRUE(m) << e.caseNumber;
        EXPECT_EQ(m->name, e.name);
        EXPECT_EQ(m->description, e.description);
        EXPECT_EQ(m->hasSeed, e.hasSeed);
        EXPECT_EQ(m->seed, e.seed);
        ASSERT_EQ(m->values.count(), e.values.count());
        for (int i = 0; i < e.values.count(); ++i) {
            EXPECT_EQ(std::memcmp(&m->values[i].value, &e.values[i].value, sizeof(double)), 0);
            EXPECT_EQ(m->values[i].status, e.values[i].status);
        }
        ASSERT_EQ(m->parameters.count(), e.parameters.count());
        for (int i = 0; i < e.parameters.count(); ++i) {
            EXPECT_EQ(m->parameters[i].usedValue, e.parameters[i].usedValue);
            EXPECT_EQ(m->parameters[i].hasTolerance, e.parameters[i].hasTolerance);
        }
    }
    EXPECT_EQ(reportsOf("merged.msw"), reportsOf("whole.msw"));
}

TEST_F(MswMerge, RunsWithOnlyValuesAndMissingValuesStayAsTheyWere)
{
    // Written by hand: case 5 has merit values but no step; case 6 has a step and only the first value.
    const std::string shard1 = R"(<?xml version="1.0"?><msw version="1.0"><header title="t"/>
<meritfunction value="a" name="A"><sensval case="1" value="1.5"/><sensval case="5" value="2"/><sensval case="6" value="3"/></meritfunction>
<meritfunction value="b" name="B"><sensval case="1" value="10"/><sensval case="5" value="20"/></meritfunction>
<steps><step case="1"/><step case="6" description="six"/></steps></msw>)";
    const std::string shard2 = R"(<?xml version="1.0"?><msw version="1.0">
<meritfunction value="a" name="A"><sensval case="7" value="0.25"/></meritfunction>
<meritfunction value="b" name="B"></meritfunction></msw>)";
    writeFileBytes(path("s1.msw"), shard1);
    writeFileBytes(path("s2.msw"), shard2);
    const std::string union_ = R"(<?xml version="1.0"?><msw version="1.0"><header title="t"/>
<meritfunction value="a" name="A"><sensval case="1" value="1.5"/><sensval case="5" value="2"/><sensval case="6" value="3"/><sensval case="7" value="0.25"/></meritfunction>
<meritfunction value="b" name="B"><sensval case="1" value="10"/><sensval case="5" value="20"/></meritfunction>
<steps><step case="1"/><step case="6" description="six"/></steps></msw>)";
    writeFileBytes(path("union.msw"), union_);
    YString message;
    ASSERT_TRUE(sp_MergeMswFiles({p("s1.msw"), p("s2.msw")}, p("merged.msw"), false, &message, nullptr)) << message.c_str();
    YString why;
    EXPECT_EQ(sp_ValidateXml(p("merged.msw"), YString(kSchema), &why), XmlValidateOk) << why.c_str();
    EXPECT_EQ(reportsOf("merged.msw"), reportsOf("union.msw"));
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    ASSERT_TRUE(sp_CompileSensReportData(p("merged.msw"), &table, &header));
    EXPECT_FALSE(findCase(table, 5)->hasDescription);
    EXPECT_EQ(findCase(table, 7)->values[0].value, 0.25);
    EXPECT_EQ(header.title, YString("t"));
}

// Renumbered runs that have values but no step get a step that records where they came from, as a
// renumbered run with a step does.
TEST_F(MswMerge, RenumberedRunsWithoutAStepRecordWhereTheyCameFrom)
{
    const std::string shard = R"(<?xml version="1.0"?><msw version="1.0">
<meritfunction value="a" name="A"><sensval case="1" value="1.5"/><sensval case="2" value="2.5"/></meritfunction></msw>)";
    writeFileBytes(path("s1.msw"), shard);
    writeFileBytes(path("s2.msw"), shard);
    MswMergeSummary summary;
    YHashTable<XMLReportInfo> table;
    ASSERT_TRUE(mergeRenumberedAndRead("s1.msw", "s2.msw", &summary, &table));
    EXPECT_EQ(summary.renumbered, 2);
    ASSERT_EQ(table.count(), 4);
    EXPECT_FALSE(findCase(table, 1)->hasDescription);
    EXPECT_EQ(findCase(table, 3)->description, YString("Run=1 (shard 2 case 1)"));
    EXPECT_EQ(findCase(table, 4)->description, YString("Run=2 (shard 2 case 2)"));
    EXPECT_EQ(findCase(table, 4)->values[0].value, 2.5);
    const std::string text = readFileBytes(path("merged.msw"));
    EXPECT_NE(text.find("<step case=\"3\" description=\"Run=1 (shard 2 case 1)\" shard=\"2\" shardcase=\"1\">"),
              std::string::npos)
        << text;
}

// A shard that gives a case twice is read with the case's last value; the merge's summary counts that
// value once, as the merged file reads.
TEST_F(MswMerge, TheSummaryTakesACaseGivenTwiceAsTheReaderDoes)
{
    writeFileBytes(path("a.msw"), R"(<?xml version="1.0"?><msw version="1.0"><header title="t"/>
<meritfunction value="a" name="A"><sensval case="1" value="1"/><sensval case="2" value="2"/></meritfunction>
<steps><step case="1"/><step case="2"/></steps></msw>)");
    writeFileBytes(path("c.msw"), R"(<?xml version="1.0"?><msw version="1.0">
<meritfunction value="a" name="A"><sensval case="11" value="100"/><sensval case="12" value="3"/><sensval case="11" value="1"/></meritfunction>
<steps><step case="11"/><step case="12"/></steps></msw>)");
    YString message;
    MswMergeSummary summary;
    ASSERT_TRUE(sp_MergeMswFiles({p("a.msw"), p("c.msw")}, p("merged.msw"), false, &message, &summary)) << message.c_str();
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    ASSERT_TRUE(sp_CompileSensReportData(p("merged.msw"), &table, &header));
    EXPECT_EQ(findCase(table, 11)->values[0].value, 1.0);
    const MomentSummary read = sp_ComputeMeritStatistics(table, 0, MeritLimits(), false).sample.moments();
    ASSERT_EQ(summary.merits.size(), 1u);
    EXPECT_EQ(summary.merits[0].count(), 4);
    EXPECT_EQ(read.count(), 4);
    EXPECT_DOUBLE_EQ(summary.merits[0].mean(), 7.0 / 4.0);
    EXPECT_DOUBLE_EQ(read.mean(), 7.0 / 4.0);
    EXPECT_EQ(summary.merits[0].maximum(), 3.0);
    EXPECT_EQ(summary.merits[0].maximumCase(), 12);
}

TEST_F(MswMerge, CollidingCasesFailUnlessRenumbered)
{
    const YHashTable<XMLReportInfo> runs = runSet(1, 10);
    ASSERT_TRUE(sp_WriteMswFile(p("a.msw"), only(runs, 1, 6), headerOf(1)));
    ASSERT_TRUE(sp_WriteMswFile(p("b.msw"), only(runs, 5, 10), headerOf(1)));
    writeFileBytes(path("merged.msw"), "previous");
    YString message;
    EXPECT_FALSE(sp_MergeMswFiles({p("a.msw"), p("b.msw")}, p("merged.msw"), false, &message, nullptr));
    EXPECT_EQ(std::string(message.c_str()), "case 5 is in both " + path("a.msw") + " and " + path("b.msw") +
                                                " (merge with renumbering to keep both)");
    EXPECT_EQ(readFileBytes(path("merged.msw")), "previous");

    MswMergeSummary summary;
    YHashTable<XMLReportInfo> table;
    ASSERT_TRUE(mergeRenumberedAndRead("a.msw", "b.msw", &summary, &table));
    EXPECT_EQ(summary.runs, 12);
    EXPECT_EQ(summary.renumbered, 2);
    EXPECT_EQ(table.count(), 12);
    // Cases 5 and 6 of the second shard become 11 and 12 (above every case of every shard); case 6 had
    // a description ("run, ...") and case 5 a name, which the reader prefers.
    ASSERT_TRUE(findCase(table, 11));
    ASSERT_TRUE(findCase(table, 12));
    EXPECT_EQ(findCase(table, 12)->description, YString("run, \"6\" <tab>\there (shard 2 case 6)"));
    EXPECT_EQ(findCase(table, 11)->name, YString("Refdes:R5/DevParam:R"));
    EXPECT_EQ(findCase(table, 12)->values[0].value, findCase(runs, 6)->values[0].value);
    EXPECT_EQ(findCase(table, 6)->values[0].value, findCase(runs, 6)->values[0].value);
    const std::string text = readFileBytes(path("merged.msw"));
    EXPECT_NE(text.find("case=\"12\" seed=\"1000000000006\" description=\"run, &quot;6&quot; &lt;tab&gt;&#9;here (shard 2 "
                        "case 6)\" shard=\"2\" shardcase=\"6\""),
              std::string::npos);
}

TEST_F(MswMerge, ShardsWithOtherMeritFunctionsOrUnreadableFail)
{
    ASSERT_TRUE(sp_WriteMswFile(p("a.msw"), runSet(1, 3), headerOf(1)));
    XMLReportHeader other = headerOf(1);
    other.meritFunctions.at(1).name = "iavg";
    ASSERT_TRUE(sp_WriteMswFile(p("b.msw"), runSet(4, 3), other));
    YString message;
    EXPECT_FALSE(sp_MergeMswFiles({p("a.msw"), p("b.msw")}, p("m.msw"), false, &message, nullptr));
    EXPECT_EQ(std::string(message.c_str()), "the results file " + path("b.msw") + " has other merit functions than " + path("a.msw"));
    EXPECT_FALSE(sp_MergeMswFiles({p("a.msw"), p("none.msw")}, p("m.msw"), false, &message, nullptr));
    EXPECT_EQ(std::string(message.c_str()), "cannot read the results file " + path("none.msw"));
    EXPECT_FALSE(sp_MergeMswFiles({}, p("m.msw"), false, &message, nullptr));
    EXPECT_FALSE(sp_MergeMswFiles({p("a.msw")}, p("no/such/dir/m.msw"), false, &message, nullptr));
    EXPECT_EQ(std::string(message.c_str()).rfind("cannot write " + path("no/such/dir/m.msw"), 0), 0u) << message.c_str();
    EXPECT_FALSE(QFile::exists(QString::fromStdString(path("m.msw"))));
}

// A shard with a run whose case number an int does not hold fails, as the reader refuses it, whether the
// number stands in a value or in a step (it is not cut to 2147483647 and merged with another run).
TEST_F(MswMerge, AShardWithACaseNumberBeyondAnIntFails)
{
    ASSERT_TRUE(sp_WriteMswFile(p("a.msw"), runSet(1, 3), headerOf(1)));
    const std::string text = readFileBytes(path("a.msw"));
    for (const char* element : {"<sensval ", "<step "}) {
        std::string changed = text;
        const size_t at = changed.find(std::string(element) + "case=\"2\"");
        ASSERT_NE(at, std::string::npos) << element;
        changed.replace(at, std::strlen(element) + 8, std::string(element) + "case=\"2147483648\"");
        writeFileBytes(path("big.msw"), changed);
        YHashTable<XMLReportInfo> table;
        XMLReportHeader header;
        EXPECT_FALSE(sp_CompileSensReportData(p("big.msw"), &table, &header)) << element;
        YString message;
        EXPECT_FALSE(sp_MergeMswFiles({p("big.msw")}, p("m.msw"), false, &message, nullptr)) << element;
        EXPECT_EQ(std::string(message.c_str()), "cannot read the results file " + path("big.msw")) << element;
        EXPECT_FALSE(QFile::exists(QString::fromStdString(path("m.msw")))) << element;
    }
    EXPECT_TRUE(sp_MergeMswFiles({p("a.msw")}, p("m.msw"), false, nullptr, nullptr));
}

TEST_F(MswMerge, AShardThatAppendsItsCoresIsMergedAsTheReaderReadsIt)
{
    // The main file of a two-core run has the header and the merit functions; each core's file, appended,
    // has its own header (with a core id, which the reader ignores) and its runs' merit values and steps.
    writeFileBytes(path("core1.msw"), R"(<?xml version="1.0"?><msw version="1.0"><header coreid="1" title="core"/>
<steps><step case="1"/><step case="2"/></steps></msw>)");
    writeFileBytes(path("main.msw"), R"(<?xml version="1.0"?><msw version="1.0"><header title="main" numcores="2"/>
<meritfunction value="a" name="A"><sensval case="1" value="1"/><sensval case="2" value="2"/><sensval case="3" value="4"/></meritfunction>
<append><file path=")" + path("core1.msw") + R"("/></append></msw>)");
    writeFileBytes(path("other.msw"), R"(<?xml version="1.0"?><msw version="1.0"><header title="other" numcores="1"/>
<meritfunction value="a" name="A"><sensval case="9" value="8"/></meritfunction><steps><step case="9"/></steps></msw>)");
    YString message;
    MswMergeSummary summary;
    ASSERT_TRUE(sp_MergeMswFiles({p("main.msw"), p("other.msw")}, p("m.msw"), false, &message, &summary)) << message.c_str();
    EXPECT_EQ(summary.runs, 4);
    EXPECT_DOUBLE_EQ(summary.merits[0].mean(), 15.0 / 4.0);
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    ASSERT_TRUE(sp_CompileSensReportData(p("m.msw"), &table, &header));
    EXPECT_EQ(table.count(), 4);
    EXPECT_EQ(header.title, YString("other")); // the last header the reader takes
    EXPECT_EQ(header.numCores, 3);
    EXPECT_EQ(findCase(table, 3)->description, YString());
    EXPECT_EQ(findCase(table, 2)->description, YString("Run=2"));
}

// A file that two shards read, one appending the other or both appending it, would be merged twice,
// and renumbering would hide it: the merge fails and writes nothing.
TEST_F(MswMerge, AFileThatTwoShardsReadFails)
{
    const auto shard = [this](const char* name, int caseNumber, const std::string& appended) {
        writeFileBytes(path(name), R"(<?xml version="1.0"?><msw version="1.0">
<meritfunction value="a" name="A"><sensval case=")" + std::to_string(caseNumber) + R"(" value="1"/></meritfunction>)" +
                                       (appended.empty() ? "" : R"(<append><file path=")" + path(appended) + R"("/></append>)") +
                                       "</msw>");
    };
    shard("common.msw", 5, "");
    shard("a.msw", 1, "common.msw");
    shard("b.msw", 2, "common.msw");
    const std::string common = QFileInfo(QString::fromStdString(path("common.msw"))).canonicalFilePath().toStdString();
    YString message;
    EXPECT_FALSE(sp_MergeMswFiles({p("a.msw"), p("b.msw")}, p("m.msw"), true, &message, nullptr));
    EXPECT_EQ(message, YString(("the results file " + common + " is read by both " + path("a.msw") + " and " + path("b.msw") +
                                ": its runs would be merged twice").c_str()));
    EXPECT_FALSE(sp_MergeMswFiles({p("a.msw"), p("common.msw")}, p("m.msw"), true, &message, nullptr));
    EXPECT_EQ(message, YString(("the results file " + common + " is read by both " + path("a.msw") + " and " +
                                path("common.msw") + ": its runs would be merged twice").c_str()));
    EXPECT_FALSE(QFile::exists(QString::fromStdString(path("m.msw"))));
    // An output that the later shard reads is told as such, though that shard shares a file too.
    shard("out.msw", 7, "");
    writeFileBytes(path("y.msw"), R"(<?xml version="1.0"?><msw version="1.0"><append><file path=")" + path("common.msw") +
                                      R"("/><file path=")" + path("out.msw") + R"("/></append></msw>)");
    int readBy = -1;
    EXPECT_FALSE(sp_MergeMswFiles({p("a.msw"), p("y.msw")}, p("out.msw"), true, &message, nullptr, &readBy));
    EXPECT_EQ(readBy, 1);
    EXPECT_EQ(message, YString(("the output " + path("out.msw") + " is a file that " + path("y.msw") + " reads; name another").c_str()));
    // Of several files two shards share, the first met is named.
    shard("second.msw", 8, "");
    writeFileBytes(path("z.msw"), R"(<?xml version="1.0"?><msw version="1.0"><append><file path=")" + path("second.msw") +
                                      R"("/><file path=")" + path("common.msw") + R"("/></append></msw>)");
    writeFileBytes(path("w.msw"), R"(<?xml version="1.0"?><msw version="1.0"><append><file path=")" + path("second.msw") +
                                      R"("/><file path=")" + path("common.msw") + R"("/></append></msw>)");
    const std::string second = QFileInfo(QString::fromStdString(path("second.msw"))).canonicalFilePath().toStdString();
    EXPECT_FALSE(sp_MergeMswFiles({p("z.msw"), p("w.msw")}, p("m.msw"), true, &message, nullptr));
    EXPECT_EQ(message, YString(("the results file " + second + " is read by both " + path("z.msw") + " and " + path("w.msw") +
                                ": its runs would be merged twice").c_str()));
    // Shards that read no file in common merge.
    shard("other.msw", 6, "");
    shard("c.msw", 3, "other.msw");
    MswMergeSummary summary;
    ASSERT_TRUE(sp_MergeMswFiles({p("a.msw"), p("c.msw")}, p("m.msw"), true, &message, &summary)) << message.c_str();
    EXPECT_EQ(summary.runs, 4);
    EXPECT_EQ(summary.renumbered, 0);
    // The null device takes the merged file.
#ifdef Q_OS_WIN
    const char* const nullDevice = "NUL";
#else
    const char* const nullDevice = "/dev/null";
#endif
    EXPECT_TRUE(sp_MergeMswFiles({p("a.msw"), p("c.msw")}, YString(nullDevice), true, &message, &summary)) << message.c_str();
}

// The reader's files are listed once each, in the order met, by canonical path: a link is listed as the
// file it leads to, a file appended twice once, and a read that fails lists the files up to the failure.
TEST_F(MswMerge, TheFilesAReadTakesAreListedOnceInTheOrderMet)
{
    writeFileBytes(path("core1.msw"), R"(<?xml version="1.0"?><msw version="1.0"><steps><step case="1"/></steps></msw>)");
    writeFileBytes(path("core2.msw"), R"(<?xml version="1.0"?><msw version="1.0"><steps><step case="2"/></steps></msw>)");
    // Another name for core1.msw: a symbolic link (Windows makes a shortcut file instead, which is no link).
#ifdef Q_OS_WIN
    const std::string alias = path(".") + "/core1.msw";
#else
    const std::string alias = path("link.msw");
    ASSERT_TRUE(QFile::link(QString::fromStdString(path("core1.msw")), QString::fromStdString(alias)));
#endif
    const std::string main = R"(<?xml version="1.0"?><msw version="1.0">
<meritfunction value="a" name="A"><sensval case="1" value="1"/><sensval case="2" value="2"/></meritfunction>
<append><file path=")" + path("core2.msw") + R"("/><file path=")" + alias + R"("/><file path=")" +
                             path("core1.msw") + R"("/></append></msw>)";
    writeFileBytes(path("main.msw"), main);
    YHashTable<XMLReportInfo> table, plain;
    XMLReportHeader header, plainHeader;
    std::vector<YString> sources{YString("kept")};
    ASSERT_TRUE(sp_CompileMswWithSources(p("main.msw"), &table, &header, &sources));
    ASSERT_TRUE(sp_CompileSensReportData(p("main.msw"), &plain, &plainHeader));
    const std::string dir = QFileInfo(QString::fromStdString(path(""))).canonicalFilePath().toStdString();
    ASSERT_EQ(sources.size(), 4u);
    EXPECT_EQ(sources[0], YString("kept"));
    EXPECT_EQ(sources[1], YString((dir + "/main.msw").c_str()));
    EXPECT_EQ(sources[2], YString((dir + "/core2.msw").c_str()));
    EXPECT_EQ(sources[3], YString((dir + "/core1.msw").c_str()));
    EXPECT_EQ(table.count(), plain.count());
    EXPECT_EQ(findCase(table, 2)->values[0].value, 2.0);
    EXPECT_EQ(header.meritFunctions.count(), plainHeader.meritFunctions.count());

    // A file that does not exist ends the read: it is listed by its absolute path, and no file after it.
    writeFileBytes(path("broken.msw"), R"(<?xml version="1.0"?><msw version="1.0"><append><file path=")" + path("gone.msw") +
                                           R"("/><file path=")" + path("core1.msw") + R"("/></append></msw>)");
    sources.clear();
    YHashTable<XMLReportInfo> broken;
    EXPECT_FALSE(sp_CompileMswWithSources(p("broken.msw"), &broken, &header, &sources));
    ASSERT_EQ(sources.size(), 2u);
    EXPECT_EQ(sources[1], YString((dir + "/gone.msw").c_str()));
    EXPECT_FALSE(sp_CompileMswWithSources(p("main.msw"), nullptr, &header, &sources));
}

// Two shards that each load can make together a table the reader refuses: one run with a value of the
// last of 2,000 merit functions, beside 2,500 runs with a value of the first only, would be 2,501 runs
// by 2,000 merit functions for 2,501 values. The merge fails and writes nothing; a smaller second shard
// merges, and its output loads.
TEST_F(MswMerge, ShardsThatTogetherAreTooSparseForTheReaderFail)
{
    constexpr int kMerits = 2000;
    const auto shard = [&](const std::string& name, int firstCase, int runs, int merit) {
        std::string text = "<?xml version=\"1.0\"?>\n<msw version=\"1.0\">\n";
        for (int m = 0; m < kMerits; ++m) {
            text += "<meritfunction value=\"v" + std::to_string(m) + "\" name=\"m" + std::to_string(m) + "\">";
            for (int c = firstCase; m == merit && c < firstCase + runs; ++c)
                text += "<sensval case=\"" + std::to_string(c) + "\" value=\"" + std::to_string(c) + "\"/>";
            text += "</meritfunction>\n";
        }
        writeFileBytes(path(name), text + "</msw>\n");
        YHashTable<XMLReportInfo> table;
        XMLReportHeader header;
        EXPECT_TRUE(sp_CompileSensReportData(p(name), &table, &header)) << name;
        return p(name);
    };
    const YString late = shard("late.msw", 1, 1, kMerits - 1);
    const YString many = shard("many.msw", 2, 2500, 0);
    YString message;
    MswMergeSummary summary;
    EXPECT_FALSE(sp_MergeMswFiles({late, many}, p("merged.msw"), false, &message, &summary));
    EXPECT_STREQ(message.c_str(), "the merged file would hold 2501 values for a table of 2501 runs by 2000 merit functions, "
                                  "too few for the reader to load it");
    EXPECT_FALSE(QFile::exists(QString::fromStdString(path("merged.msw"))));
    EXPECT_EQ(summary.runs, 0);

    // 1,900 runs make 3.8 million cells, which the reader takes without asking.
    const YString fewer = shard("fewer.msw", 2, 1900, 0);
    ASSERT_TRUE(sp_MergeMswFiles({late, fewer}, p("merged.msw"), false, &message, &summary)) << message.c_str();
    EXPECT_EQ(summary.runs, 1901);
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    ASSERT_TRUE(sp_CompileSensReportData(p("merged.msw"), &table, &header));
    EXPECT_EQ(table.count(), 1901);
    ASSERT_TRUE(findCase(table, 1));
    EXPECT_EQ(findCase(table, 1)->values[kMerits - 1].value, 1.0);
    ASSERT_TRUE(findCase(table, 1901));
    EXPECT_EQ(findCase(table, 1901)->values[0].value, 1901.0);
}

// A merge whose output is a shard's appended file (here by a link to it, and by a hard link) would
// change that shard under it: it fails before anything is written.
TEST_F(MswMerge, AnOutputThatAShardReadsFailsAndIsLeftAsItWas)
{
    const std::string core = R"(<?xml version="1.0"?><msw version="1.0"><steps><step case="1"/></steps></msw>)";
    writeFileBytes(path("core1.msw"), core);
    writeFileBytes(path("main.msw"), R"(<?xml version="1.0"?><msw version="1.0">
<meritfunction value="a" name="A"><sensval case="1" value="1"/></meritfunction>
<append><file path=")" + path("core1.msw") + R"("/></append></msw>)");
    writeFileBytes(path("other.msw"), R"(<?xml version="1.0"?><msw version="1.0">
<meritfunction value="a" name="A"><sensval case="9" value="8"/></meritfunction></msw>)");
#ifdef Q_OS_WIN
    const std::string alias = path(".") + "/core1.msw";
#else
    const std::string alias = path("alias.msw");
    ASSERT_TRUE(QFile::link(QString::fromStdString(path("core1.msw")), QString::fromStdString(alias)));
#endif
    YString message;
    int readBy = 7;
    EXPECT_FALSE(sp_MergeMswFiles({p("other.msw"), p("main.msw")}, YString(alias.c_str()), false, &message, nullptr, &readBy));
    EXPECT_EQ(message, YString(("the output " + alias + " is a file that " + path("main.msw") + " reads; name another").c_str()));
    EXPECT_EQ(readBy, 1);
    EXPECT_EQ(readFileBytes(path("core1.msw")), core);
    // A hard link is the same file by a name that no path leads from to the other.
    const std::string hard = path("hard.msw");
    std::error_code linked;
    std::filesystem::create_hard_link(path("core1.msw"), hard, linked);
    ASSERT_FALSE(linked) << linked.message();
    readBy = 7;
    EXPECT_FALSE(sp_MergeMswFiles({p("other.msw"), p("main.msw")}, YString(hard.c_str()), false, &message, nullptr, &readBy));
    EXPECT_EQ(message, YString(("the output " + hard + " is a file that " + path("main.msw") + " reads; name another").c_str()));
    EXPECT_EQ(readBy, 1);
    EXPECT_EQ(readFileBytes(path("core1.msw")), core);
    EXPECT_FALSE(sp_MergeMswFiles({p("main.msw")}, p("main.msw"), false, &message, nullptr, &readBy));
    EXPECT_EQ(message, YString(("the output " + path("main.msw") + " is a file that " + path("main.msw") + " reads; name another").c_str()));
    EXPECT_EQ(readBy, 0);
    // Any other refusal leaves no shard named.
    EXPECT_FALSE(sp_MergeMswFiles({p("main.msw"), p("missing.msw")}, p("merged.msw"), false, &message, nullptr, &readBy));
    EXPECT_EQ(readBy, -1);
    ASSERT_TRUE(sp_MergeMswFiles({p("main.msw"), p("other.msw")}, p("merged.msw"), false, &message, nullptr, &readBy))
        << message.c_str();
    EXPECT_EQ(readBy, -1);
}

TEST_F(MswMerge, TwoHundredShardsMergeAndTheirSummariesAreTheWhole)
{
    std::vector<YString> shards;
    YHashTable<XMLReportInfo> whole;
    for (int s = 0; s < 200; ++s) {
        const YHashTable<XMLReportInfo> part = runSet(1 + 5 * s, 5);
        for (const XMLReportInfo& r : part)
            whole.insert(r);
        const std::string name = "shard" + std::to_string(s) + ".msw";
        ASSERT_TRUE(sp_WriteMswFile(p(name), part, headerOf(1)));
        shards.push_back(p(name));
    }
    YString message;
    MswMergeSummary summary;
    ASSERT_TRUE(sp_MergeMswFiles(shards, p("merged.msw"), false, &message, &summary)) << message.c_str();
    EXPECT_EQ(summary.runs, 1000);
    EXPECT_EQ(summary.shardRuns.size(), 200u);
    MomentSummary direct;
    for (const XMLReportInfo& r : whole)
        direct.add(r.values[0].value, r.caseNumber);
    EXPECT_EQ(summary.merits[0].count(), 1000);
    EXPECT_NEAR(summary.merits[0].mean(), direct.mean(), 1e-12 * std::fabs(direct.mean()));
    EXPECT_NEAR(summary.merits[0].m2(), direct.m2(), 1e-9 * direct.m2());
    EXPECT_EQ(summary.merits[0].minimum(), direct.minimum());
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    ASSERT_TRUE(sp_CompileSensReportData(p("merged.msw"), &table, &header));
    EXPECT_EQ(table.count(), 1000);
    EXPECT_EQ(header.numCores, 200);
    YString why;
    EXPECT_EQ(sp_ValidateXml(p("merged.msw"), YString(kSchema), &why), XmlValidateOk) << why.c_str();
}

// Each merit function's values stay together and in shard order however many merit functions there are:
// 300 of them merge under a limit of 64 open files.
TEST_F(MswMerge, MoreMeritFunctionsThanOpenFilesMerge)
{
    constexpr int kMerits = 300;
    XMLReportHeader header = headerOf(1);
    for (int m = 0; m < kMerits; ++m) {
        header.meritFunctions.at(m).value = YString(("max(v(n" + std::to_string(m) + "))").c_str());
        header.meritFunctions.at(m).name = YString(("m" + std::to_string(m)).c_str());
    }
    // Case c's value of merit function m is c * 1000 + m; shard s holds cases 3s+1 to 3s+3.
    std::vector<YString> shards;
    for (int s = 0; s < 2; ++s) {
        YHashTable<XMLReportInfo> part;
        for (int c = 3 * s + 1; c <= 3 * s + 3; ++c) {
            XMLReportInfo r(c);
            for (int m = 0; m < kMerits; ++m)
                r.values.at(m).value = c * 1000.0 + m;
            part.insert(r);
        }
        const std::string name = "shard" + std::to_string(s) + ".msw";
        ASSERT_TRUE(sp_WriteMswFile(p(name), part, header));
        shards.push_back(p(name));
    }
    YString message;
    MswMergeSummary summary;
    bool merged = false;
    {
        const OpenFileLimit limit(64);
#ifndef _WIN32
        ASSERT_TRUE(limit.lowered());
#endif
        merged = sp_MergeMswFiles(shards, p("merged.msw"), false, &message, &summary);
    }
    ASSERT_TRUE(merged) << message.c_str();
    EXPECT_EQ(summary.runs, 6);
    ASSERT_EQ(summary.merits.size(), static_cast<size_t>(kMerits));
    EXPECT_EQ(summary.merits[299].count(), 6);
    EXPECT_EQ(summary.merits[299].minimum(), 1299.0);

    const std::string text = readFileBytes(path("merged.msw"));
    // Merit function 7's values are the six cases' in order, between its own tags.
    const size_t open = text.find("<meritfunction value=\"max(v(n7))\" name=\"m7\">");
    ASSERT_NE(open, std::string::npos);
    const size_t close = text.find("</meritfunction>", open);
    const std::string own = text.substr(open, close - open);
    size_t at = 0;
    for (int c = 1; c <= 6; ++c) {
        at = own.find("<sensval case=\"" + std::to_string(c) + "\" value=\"" + std::to_string(c) + "007", at);
        EXPECT_NE(at, std::string::npos) << c;
    }
    EXPECT_EQ(own.find("<sensval case=\"1\" value=\"1008"), std::string::npos);

    YHashTable<XMLReportInfo> table;
    XMLReportHeader read;
    ASSERT_TRUE(sp_CompileSensReportData(p("merged.msw"), &table, &read));
    ASSERT_EQ(read.meritFunctions.count(), kMerits);
    ASSERT_EQ(table.count(), 6);
    for (int c = 1; c <= 6; ++c) {
        const XMLReportInfo* r = findCase(table, c);
        ASSERT_TRUE(r) << c;
        ASSERT_EQ(r->values.count(), kMerits);
        for (int m = 0; m < kMerits; m += 37)
            EXPECT_EQ(r->values[m].value, c * 1000.0 + m) << c << " " << m;
    }
}

// Control characters other than tab, line feed and carriage return cannot stand in XML, not even as
// character references: the results file's writer and the merge leave them out, and what they write
// validates; tabs and line ends are kept.
TEST_F(MswMerge, ControlCharactersAreLeftOutOfTheFilesWritten)
{
    XMLReportHeader header = headerOf(1);
    header.title = "buck\x01 converter\x1f";
    header.meritFunctions.at(0).name = "v\x02max";
    YHashTable<XMLReportInfo> runs = runSet(1, 3);
    XMLReportInfo described(7);
    described.values.at(0).value = 1.0;
    described.description = "run\x0b\tseven\n";
    described.hasDescription = true;
    runs.insert(described);
    ASSERT_TRUE(sp_WriteMswFile(p("written.msw"), runs, header));
    YString why;
    EXPECT_EQ(sp_ValidateXml(p("written.msw"), YString(kSchema), &why), XmlValidateOk) << why.c_str();
    YHashTable<XMLReportInfo> table;
    XMLReportHeader read;
    ASSERT_TRUE(sp_CompileSensReportData(p("written.msw"), &table, &read));
    EXPECT_EQ(read.title, YString("buck converter"));
    EXPECT_EQ(read.meritFunctions[0].name, YString("vmax"));
    ASSERT_TRUE(findCase(table, 7));
    EXPECT_EQ(findCase(table, 7)->description, YString("run\tseven\n"));

    // A shard written by another program with control characters as character references, which the
    // reader takes.
    writeFileBytes(path("refs.msw"), R"(<?xml version="1.0"?><msw version="1.0"><header title="t&#1;itle&#9;" numcores="1"/>
<meritfunction value="a&#31;" name="A&#2;"><sensval case="1" value="1"/></meritfunction>
<steps><step case="1" description="d&#8;one&#10;"/></steps></msw>)");
    YString message;
    ASSERT_TRUE(sp_MergeMswFiles({p("refs.msw")}, p("merged.msw"), false, &message, nullptr)) << message.c_str();
    EXPECT_EQ(sp_ValidateXml(p("merged.msw"), YString(kSchema), &why), XmlValidateOk) << why.c_str();
    const std::string text = readFileBytes(path("merged.msw"));
    EXPECT_NE(text.find("title=\"title&#9;\""), std::string::npos) << text;
    EXPECT_NE(text.find("<meritfunction value=\"a\" name=\"A\">"), std::string::npos) << text;
    EXPECT_NE(text.find("description=\"done&#10;\""), std::string::npos) << text;

    // Bytes that are no UTF-8, and the two characters XML cannot hold, become U+FFFD, so that the file
    // written is well-formed; other characters of every length are kept as they are.
    writeFileBytes(path("bytes.msw"), "<?xml version=\"1.0\"?><msw version=\"1.0\"><header title=\"caf\xE9\" numcores=\"1\"/>"
                                      "<meritfunction value=\"a\" name=\"\xC2\xB5&#xFFFE;\"><sensval case=\"1\" value=\"1\"/></meritfunction>"
                                      "<steps><step case=\"1\" description=\"\xE2\x82\xAC\xF0\x9F\x98\x80&#xFFFF;\xED\xA0\x80\"/></steps></msw>");
    ASSERT_TRUE(sp_MergeMswFiles({p("bytes.msw")}, p("merged.msw"), false, &message, nullptr)) << message.c_str();
    EXPECT_EQ(sp_ValidateXml(p("merged.msw"), YString(kSchema), &why), XmlValidateOk) << why.c_str();
    const std::string bytes = readFileBytes(path("merged.msw"));
    EXPECT_NE(bytes.find("title=\"caf\xEF\xBF\xBD\""), std::string::npos) << bytes;
    EXPECT_NE(bytes.find("name=\"\xC2\xB5\xEF\xBF\xBD\""), std::string::npos) << bytes;
    EXPECT_NE(bytes.find("description=\"\xE2\x82\xAC\xF0\x9F\x98\x80\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\""),
              std::string::npos)
        << bytes;
}
