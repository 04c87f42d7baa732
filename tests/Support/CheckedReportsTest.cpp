// CheckedReportsTest.cpp - the checked report writers: the same bytes as the builders, and false where
// the builders ignore a write that fails part way.
#include "CheckedReports.h"
#include "Reports.h"
#include "TestHelpers.h"

#include <QFile>
#include <QProcess>
#include <QString>

#include <string>

namespace {

YHashTable<XMLReportInfo> runs(XMLReportHeader* header)
{
    header->title = "checked";
    header->meritFunctions.append(XMLMeritFunction{"max(v(out))", "Vmax"});
    YHashTable<XMLReportInfo> table;
    for (int c = 1; c <= 50; ++c) {
        XMLReportInfo r(c);
        r.values.at(0).value = c * 0.25;
        r.seed = 1000 + c;
        XMLParameterValue p;
        p.name = "R1";
        p.nominal = 1000;
        p.usedValue = 1000 + c;
        r.parameters.append(p);
        table.insert(r);
    }
    return table;
}

} // namespace

class CheckedReports : public TempDirTest {
protected:
    YString p(const std::string& name) const { return YString(path(name).c_str()); }
};

TEST_F(CheckedReports, WriteWhatTheBuildersWrite)
{
    XMLReportHeader header;
    const YHashTable<XMLReportInfo> table = runs(&header);
    ASSERT_TRUE(sp_BuildMonteCarloHTMLReport(p("mc.html"), YString(), table, header));
    ASSERT_TRUE(sp_WriteMonteCarloLogChecked(p("mc-checked.html"), YString(), table, header));
    EXPECT_EQ(readFileBytes(path("mc-checked.html")), readFileBytes(path("mc.html")));
    ASSERT_TRUE(sp_BuildWorstCaseHTMLReport(p("wc.html"), YString(), table, header));
    ASSERT_TRUE(sp_WriteWorstCaseLogChecked(p("wc-checked.html"), YString(), table, header));
    EXPECT_EQ(readFileBytes(path("wc-checked.html")), readFileBytes(path("wc.html")));
    for (int column : {0, 1, 2, 3, 4}) {
        ASSERT_TRUE(sp_BuildHTMLSensitivityReport(p("sens.html"), YString(), table, header, column));
        ASSERT_TRUE(sp_WriteSensitivityReportChecked(p("sens-checked.html"), YString(), table, header, column));
        EXPECT_EQ(readFileBytes(path("sens-checked.html")), readFileBytes(path("sens.html"))) << column;
    }
    EXPECT_NE(readFileBytes(path("mc.html")).find("<h2>Seed Table</h2>"), std::string::npos);
    EXPECT_EQ(readFileBytes(path("wc.html")).find("<h2>Seed Table</h2>"), std::string::npos);
}

TEST_F(CheckedReports, AFileThatCannotBeCreatedFailsBoth)
{
    XMLReportHeader header;
    const YHashTable<XMLReportInfo> table = runs(&header);
    EXPECT_FALSE(sp_BuildMonteCarloHTMLReport(p("missing/mc.html"), YString(), table, header));
    EXPECT_FALSE(sp_WriteMonteCarloLogChecked(p("missing/mc.html"), YString(), table, header));
    EXPECT_FALSE(sp_WriteWorstCaseLogChecked(p("missing/wc.html"), YString(), table, header));
    EXPECT_FALSE(sp_WriteSensitivityReportChecked(p("missing/sens.html"), YString(), table, header, 0));
}

#ifndef Q_OS_WIN
// A device that takes no byte: the builders say true (write errors are theirs to ignore), the checked
// writers false.
TEST_F(CheckedReports, ADeviceThatIsFullFailsOnlyTheCheckedWriters)
{
    if (!QFile::exists(QStringLiteral("/dev/full")))
        GTEST_SKIP() << "no /dev/full here";
    XMLReportHeader header;
    const YHashTable<XMLReportInfo> table = runs(&header);
    const YString full("/dev/full");
    EXPECT_TRUE(sp_BuildMonteCarloHTMLReport(full, YString(), table, header));
    EXPECT_TRUE(sp_BuildHTMLSensitivityReport(full, YString(), table, header, 0));
    EXPECT_FALSE(sp_WriteMonteCarloLogChecked(full, YString(), table, header));
    EXPECT_FALSE(sp_WriteWorstCaseLogChecked(full, YString(), table, header));
    EXPECT_FALSE(sp_WriteSensitivityReportChecked(full, YString(), table, header, 0));
}

// A write cut by a file-size limit (in a child process) leaves part of the report: the builders say
// true all the same (only a file that cannot be created fails them), the checked writers false.
// Without the limit both write it whole.
TEST_F(CheckedReports, AWriteCutByAFileSizeLimitFailsOnlyTheCheckedWriters)
{
    for (const char* kind : {"mc", "sens", "mc-checked", "sens-checked"}) {
        for (const char* limit : {"65536", "0"}) {
            const QString target = QString::fromStdString(path(std::string(kind) + limit + ".html"));
            QProcess probe;
            probe.start(MSW_WRITE_PROBE_PATH, {kind, target, limit});
            ASSERT_TRUE(probe.waitForFinished(60000));
            ASSERT_EQ(probe.exitCode(), 0) << probe.readAllStandardError().toStdString();
            const bool limited = std::string(limit) != "0";
            const bool checked = std::string(kind).find("checked") != std::string::npos;
            EXPECT_EQ(QString::fromUtf8(probe.readAllStandardOutput()).trimmed(), limited && checked ? "false" : "true")
                << kind << " " << limit;
            const std::string text = readFileBytes(target.toStdString());
            EXPECT_EQ(text.size() > 65536, !limited) << kind;
            EXPECT_EQ(text.size() >= 8 && text.compare(text.size() - 8, 8, "</html>\n") == 0, !limited) << kind;
        }
    }
}
#endif
