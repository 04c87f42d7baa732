// StatsToolTest.cpp - `supportqt stats` and `supportqt merge` run as real processes: limits from the
// command line and from a file, the text, JSON and CSV against the library's numbers, the HTML page in
// headless Chromium, the pictures' texts, merged shards, and the GNU parallel example end to end.
#include "TestHelpers.h"

#include "MswMerge.h"
#include "RunStatistics.h"
#include "XMLReport.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QUrl>

#include <cmath>
#include <tuple>

namespace {

struct Result {
    int code = -1;
    QString out;
    QString err;
};

Result runProgram(const QString& program, const QStringList& arguments,
                  const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment())
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
    EXPECT_TRUE(process.waitForStarted(30000)) << program.toStdString();
    process.closeWriteChannel();
    EXPECT_TRUE(process.waitForFinished(120000)) << program.toStdString();
    Result r;
    r.code = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    r.out = QString::fromUtf8(process.readAllStandardOutput());
    r.err = QString::fromUtf8(process.readAllStandardError());
    return r;
}

Result tool(const QStringList& arguments)
{
    return runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), arguments);
}

const QJsonObject parseJson(const QString& text)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8(), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << error.errorString().toStdString();
    return document.object();
}

XMLReportHeader header()
{
    XMLReportHeader h;
    h.title = "filter <lot 7>";
    h.meritFunctions.at(0).name = "gain";
    h.meritFunctions.at(0).value = "max(db(v(out)))";
    h.meritFunctions.at(1).name = "f3db";
    h.meritFunctions.at(1).value = "cutoff(v(out),3)";
    return h;
}

// Runs `first` .. `first + count - 1`: gain follows R1, f3db follows C1 inversely; run 9 has no finite f3db.
YHashTable<XMLReportInfo> runs(int first, int count)
{
    YHashTable<XMLReportInfo> table;
    for (int c = first; c < first + count; ++c) {
        XMLReportInfo r(c);
        const double d1 = std::sin(c * 1.3) * 0.05, d2 = std::cos(c * 0.7) * 0.1;
        r.values.at(0).value = 20.0 + 10.0 * d1 + 0.01 * std::sin(c * 5.1);
        r.values.at(1).value = c == 9 ? std::nan("") : 1000.0 * (1.0 - d2);
        XMLParameterValue& p1 = r.parameters.at(0);
        p1.name = "R1";
        p1.nominal = 1000.0;
        p1.usedValue = 1000.0 * (1.0 + d1);
        XMLParameterValue& p2 = r.parameters.at(1);
        p2.name = "C1";
        p2.nominal = 1e-9;
        p2.usedValue = 1e-9 * (1.0 + d2);
        table.insert(r);
    }
    return table;
}

// Screenshots a page in headless Chromium and checks that it shows something besides the background.
void expectVisible(const QString& page, const QString& screenshot)
{
    SUPPORTQT_SKIP_UNLESS_PEER_RUNS("chromium");
    const QString chromium = QStandardPaths::findExecutable("chromium");
    ASSERT_FALSE(chromium.isEmpty()) << "chromium is installed by scripts/deps";
    const Result r = runProgram(chromium, {"--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
                                           "--window-size=1100,1400", "--screenshot=" + screenshot,
                                           QUrl::fromLocalFile(page).toString()});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    QImage image(screenshot);
    ASSERT_FALSE(image.isNull()) << screenshot.toStdString();
    const QRgb background = image.pixel(image.width() - 1, image.height() - 1);
    long long differing = 0, red = 0;
    for (int y = 0; y < image.height(); y += 2)
        for (int x = 0; x < image.width(); x += 2) {
            const QRgb p = image.pixel(x, y);
            differing += p != background;
            red += qRed(p) > 180 && qGreen(p) < 80 && qBlue(p) < 80; // a failing card's mark and limit lines
        }
    EXPECT_GT(static_cast<double>(differing) / (image.width() / 2 * image.height() / 2), 0.05) << "looks blank";
    EXPECT_GT(red, 50) << "no failing mark in view";
}

} // namespace

class StatsTool : public TempDirTest {
protected:
    QString temp(const std::string& name) const { return QString::fromStdString(path(name)); }
    QString results(int count = 60)
    {
        const QString file = temp("runs.msw");
        EXPECT_TRUE(sp_WriteMswFile(toYs(file), runs(1, count), header()));
        return file;
    }
};

TEST_F(StatsTool, JsonCarriesTheLibrarysNumbersForTheGivenLimits)
{
    const QString file = results();
    const Result r = tool({"stats", file, "--limit", "gain=19.8:20.2", "--limit", "cutoff(v(out),3)=950:", "--json"});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    const QJsonObject o = parseJson(r.out);
    EXPECT_EQ(o["runCount"].toInt(), 60);
    const QJsonArray merits = o["meritFunctions"].toArray();
    ASSERT_EQ(merits.size(), 2);

    YHashTable<XMLReportInfo> table;
    XMLReportHeader h;
    ASSERT_TRUE(sp_CompileSensReportData(toYs(file), &table, &h));
    std::vector<MeritLimits> limits(2);
    limits[0].hasLower = limits[0].hasUpper = true;
    limits[0].lower = 19.8;
    limits[0].upper = 20.2;
    limits[1].hasLower = true;
    limits[1].lower = 950;
    const std::vector<MeritStatistics> expected = sp_ComputeRunStatistics(table, h, limits);
    for (int m = 0; m < 2; ++m) {
        const QJsonObject j = merits[m].toObject();
        const MeritStatistics& s = expected[static_cast<size_t>(m)];
        EXPECT_EQ(j["count"].toInt(), s.sample.moments().count());
        EXPECT_EQ(j["mean"].toDouble(), s.sample.moments().mean());
        EXPECT_EQ(j["percentiles"]["P99.9"].toDouble(), s.percentiles[10]);
        EXPECT_EQ(j["limits"]["yield"].toDouble(), s.yield);
        EXPECT_EQ(j["limits"]["cpk"].toDouble(), s.cpk);
        EXPECT_EQ(j["limits"]["cpkInterval"][0].toDouble(), s.cpkInterval.low);
        EXPECT_EQ(j["limits"]["failing"].toArray().size(), static_cast<int>(s.failingCases.size()));
        EXPECT_EQ(j["influence"][0]["name"].toString(), QString::fromUtf8(s.influence[0].name.c_str()));
        EXPECT_EQ(j["influence"][0]["rho"].toDouble(), s.influence[0].rho);
        EXPECT_EQ(j["worstCase"]["maximum"]["case"].toInt(), s.atMaximum.caseNumber);
    }
    EXPECT_EQ(merits[0]["influence"][0]["name"].toString(), "R1");
    EXPECT_EQ(merits[1]["influence"][0]["name"].toString(), "C1");
    EXPECT_LT(merits[1]["influence"][0]["rho"].toDouble(), -0.99);
    EXPECT_EQ(merits[1]["nonFinite"].toInt(), 1);
    EXPECT_TRUE(merits[1]["limits"]["upper"].isNull());
    EXPECT_TRUE(merits[1]["limits"]["cp"].isNull()); // one-sided: no Cp
    // Run 9's f3db is not a number: it fails the limits and is the first failing run listed.
    EXPECT_EQ(merits[1]["limits"]["failing"].toArray().contains(9), true);
    EXPECT_EQ(merits[0]["verdict"].toString(), merits[0]["limits"]["failing"].toArray().isEmpty() ? "pass" : "fail");
}

// Merit functions that share a display name keep a key each (their definition, or else the name and
// their position), in the run table's columns and JSON members and as the names a limit takes.
TEST_F(StatsTool, MeritFunctionsThatShareANameKeepAKeyEach)
{
    std::string xml = "<?xml version=\"1.0\"?>\n<msw version=\"1.0\">\n";
    const char* const merits[][2] = {{"max(v(a))", "gain"}, {"max(v(b))", "gain"}, {"x", "bw"}, {"x", "bw"}, {"gain", "y"}};
    for (int m = 0; m < 5; ++m) {
        xml += std::string("<meritfunction value=\"") + merits[m][0] + "\" name=\"" + merits[m][1] + "\">";
        for (int c = 1; c <= 3; ++c)
            xml += "<sensval case=\"" + std::to_string(c) + "\" value=\"" + std::to_string(10 * (m + 1) + c) + "\"/>";
        xml += "</meritfunction>\n";
    }
    xml += "<steps><step case=\"1\"/><step case=\"2\"/><step case=\"3\"/></steps></msw>\n";
    writeFileBytes(path("same.msw"), xml);
    const QString file = temp("same.msw");

    const Result csv = tool({"results", file, "--table", "csv"});
    ASSERT_EQ(csv.code, 0) << csv.err.toStdString();
    const QStringList rows = csv.out.split(QLatin1Char('\n'));
    ASSERT_EQ(rows.size(), 5);
    EXPECT_EQ(rows[0], "case,seed,description,max(v(a)),max(v(b)),bw#3,bw#4,y");
    EXPECT_EQ(rows[2], "2,,Run=2,12,22,32,42,52");
    const QJsonObject values = parseJson(tool({"results", file, "--table", "json"}).out)["runs"][2]["values"].toObject();
    EXPECT_EQ(values.keys(), (QStringList{"bw#3", "bw#4", "max(v(a))", "max(v(b))", "y"}));
    EXPECT_EQ(values["max(v(a))"].toDouble(), 13);
    EXPECT_EQ(values["max(v(b))"].toDouble(), 23);
    EXPECT_EQ(values["bw#4"].toDouble(), 43);

    // A shared name is no limit's name; a key, a unique definition or a unique name is.
    const Result shared = tool({"stats", file, "--limit", "gain=0:100"});
    EXPECT_EQ(shared.code, 2);
    EXPECT_EQ(shared.err, "supportqt stats: 'gain' names 2 merit functions; name one of them: max(v(a)), max(v(b))\n");
    EXPECT_EQ(shared.out, QString());
    const Result sharedDefinition = tool({"stats", file, "--limit", "x=0:100"});
    EXPECT_EQ(sharedDefinition.err, "supportqt stats: 'x' names 2 merit functions; name one of them: bw#3, bw#4\n");
    const Result unknown = tool({"stats", file, "--limit", "phase=0:1"});
    EXPECT_EQ(unknown.err, "supportqt stats: no merit function named 'phase'; the file has: max(v(a)), max(v(b)), bw#3, bw#4, y\n");
    const Result keyed = tool({"stats", file, "--limit", "max(v(b))=0:22.5", "--limit", "bw#4=:0", "--limit", "y=50:", "--json"});
    ASSERT_EQ(keyed.code, 0) << keyed.err.toStdString();
    const QJsonArray stats = parseJson(keyed.out)["meritFunctions"].toArray();
    ASSERT_EQ(stats.size(), 5);
    EXPECT_FALSE(stats[0].toObject().contains("limits"));
    EXPECT_EQ(stats[1]["limits"]["upper"].toDouble(), 22.5);
    EXPECT_EQ(stats[1]["limits"]["pass"].toInt(), 2);
    EXPECT_FALSE(stats[2].toObject().contains("limits"));
    EXPECT_EQ(stats[3]["limits"]["pass"].toInt(), 0);
    EXPECT_EQ(stats[4]["limits"]["pass"].toInt(), 3);

    // A definition that is a shared name, or empty, is no key: the shared name stays refused.
    writeFileBytes(path("named.msw"), "<?xml version=\"1.0\"?>\n<msw version=\"1.0\">"
                                      "<meritfunction value=\"gain\" name=\"gain\"><sensval case=\"1\" value=\"1\"/></meritfunction>"
                                      "<meritfunction value=\"db(gain)\" name=\"gain\"><sensval case=\"1\" value=\"2\"/></meritfunction>"
                                      "<meritfunction value=\"\" name=\"bw\"><sensval case=\"1\" value=\"3\"/></meritfunction>"
                                      "<meritfunction value=\"\" name=\"bw\"><sensval case=\"1\" value=\"4\"/></meritfunction>"
                                      "<steps><step case=\"1\"/></steps></msw>\n");
    const Result named = tool({"stats", temp("named.msw"), "--limit", "gain=0:1"});
    EXPECT_EQ(named.code, 2);
    EXPECT_EQ(named.err, "supportqt stats: 'gain' names 2 merit functions; name one of them: gain#1, db(gain)\n");
    EXPECT_EQ(tool({"results", temp("named.msw"), "--table", "csv"}).out.split('\n').value(0),
              "case,seed,description,gain#1,db(gain),bw#3,bw#4");
}

// The run table has a column per parameter name in the order first met; a run's cell holds the first
// of its parameters of that name, and is empty when the run has none.
TEST_F(StatsTool, TheRunTableHasAColumnPerParameterAndTheFirstOfANameWins)
{
    writeFileBytes(path("params.msw"),
                   "<?xml version=\"1.0\"?>\n<msw version=\"1.0\">"
                   "<meritfunction value=\"v\" name=\"m\"><sensval case=\"1\" value=\"1\"/><sensval case=\"2\" value=\"2\"/>"
                   "<sensval case=\"3\" value=\"3\"/></meritfunction><steps>"
                   "<step case=\"1\"><parameter name=\"r1\" nom=\"1\" usedvalue=\"1.5\"/>"
                   "<parameter name=\"c1\" nom=\"1\" usedvalue=\"2.5\"/><parameter name=\"r1\" nom=\"1\" usedvalue=\"9\"/></step>"
                   "<step case=\"2\"><parameter name=\"l1\" nom=\"1\" usedvalue=\"4\"/></step>"
                   "<step case=\"3\"><parameter name=\"c1\" nom=\"1\" usedvalue=\"5\"/><parameter name=\"r1\" nom=\"1\" usedvalue=\"6\"/>"
                   "</step></steps></msw>\n");
    const Result csv = tool({"results", temp("params.msw"), "--table", "csv"});
    ASSERT_EQ(csv.code, 0) << csv.err.toStdString();
    EXPECT_EQ(csv.out, "case,seed,description,m,r1,c1,l1\n"
                       "1,,Run=1,1,1.5,2.5,\n"
                       "2,,Run=2,2,,,4\n"
                       "3,,Run=3,3,6,5,\n");
}

TEST_F(StatsTool, LimitsFromAFileAndTheErrorsOfBadLimits)
{
    const QString file = results();
    writeFileBytes(path("limits.csv"), "name,lower,upper\n# comment\n\ngain,19,21\nf3db,,1200\n");
    const Result r = tool({"stats", file, "--limits", temp("limits.csv")});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    EXPECT_TRUE(r.out.contains("\n  limits 19 to 21: pass, 60 of 60 pass, yield 100% [")) << r.out.toStdString();
    EXPECT_TRUE(r.out.contains("\n  limits none to 1200: fail, 59 of 60 pass, yield 98.3333% [")) << r.out.toStdString();
    EXPECT_TRUE(r.out.contains("], inf sigma\n"));
    EXPECT_TRUE(r.out.contains("\n  failing runs: 9\n"));
    // A --limit given on the command line wins over the file's.
    const Result both = tool({"stats", file, "--limits", temp("limits.csv"), "--limit", "gain=:19.5", "--json"});
    EXPECT_TRUE(parseJson(both.out)["meritFunctions"][0]["limits"]["lower"].isNull());
    // Fields in double quotes, as spreadsheets write them: a name with a comma or a quote in it too.
    writeFileBytes(path("quoted.csv"), "\"name\",\"lower\",\"upper\"\n\"gain\",\"19\",21\n \"f3db\" ,, \"1200\"\n");
    const Result quoted = tool({"stats", file, "--limits", temp("quoted.csv"), "--json"});
    ASSERT_EQ(quoted.code, 0) << quoted.err.toStdString();
    const QJsonObject quotedLimits = parseJson(quoted.out)["meritFunctions"][1]["limits"].toObject();
    EXPECT_TRUE(quotedLimits["lower"].isNull());
    EXPECT_EQ(quotedLimits["upper"].toDouble(), 1200.0);
    EXPECT_EQ(parseJson(quoted.out)["meritFunctions"][0]["limits"]["lower"].toDouble(), 19.0);
    writeFileBytes(path("named.msw"), "<?xml version=\"1.0\"?>\n<msw version=\"1.0\">"
                                      "<meritfunction value=\"max(v(a),v(b))\" name=\"\"><sensval case=\"1\" value=\"1\"/>"
                                      "<sensval case=\"2\" value=\"3\"/></meritfunction>"
                                      "<meritfunction value=\"x\" name=\"say &quot;hi&quot;\"><sensval case=\"1\" value=\"1\"/>"
                                      "<sensval case=\"2\" value=\"3\"/></meritfunction>"
                                      "<steps><step case=\"1\"/><step case=\"2\"/></steps></msw>\n");
    writeFileBytes(path("commas.csv"), "\"max(v(a),v(b))\",0,2\n\"say \"\"hi\"\"\",2,4\n");
    const Result commas = tool({"stats", temp("named.msw"), "--limits", temp("commas.csv"), "--json"});
    ASSERT_EQ(commas.code, 0) << commas.err.toStdString();
    EXPECT_EQ(parseJson(commas.out)["meritFunctions"][0]["limits"]["upper"].toDouble(), 2.0);
    EXPECT_EQ(parseJson(commas.out)["meritFunctions"][1]["limits"]["lower"].toDouble(), 2.0);
    for (const char* broken : {"\"gain,19,21\n", "\"gain\"x,19,21\n"}) {
        writeFileBytes(path("broken.csv"), broken);
        const Result r = tool({"stats", file, "--limits", temp("broken.csv")});
        EXPECT_EQ(r.code, 1) << broken;
        EXPECT_EQ(r.err, "supportqt stats: " + temp("broken.csv") + ":1: expected name,lower,upper\n");
    }

    const Result unknown = tool({"stats", file, "--limit", "phase=1:2"});
    EXPECT_EQ(unknown.code, 2);
    EXPECT_EQ(unknown.err, "supportqt stats: no merit function named 'phase'; the file has: gain, f3db\n");
    // NaN is no limit either.
    for (const auto& [limit, lower, upper] : {std::tuple<QString, QString, QString>{"gain=low:2", "low", "2"},
                                              {"gain=nan:2", "nan", "2"}, {"gain=: NaN", "", "NaN"}}) {
        const Result notNumber = tool({"stats", file, "--limit", limit});
        EXPECT_EQ(notNumber.code, 2) << limit.toStdString();
        EXPECT_EQ(notNumber.err, "supportqt stats: the limits of 'gain' are not numbers: '" + lower + "' and '" + upper + "'\n");
    }
    // One merit function's limits given twice in one place (the command line, or the file) are refused,
    // not the last taken.
    const Result twice = tool({"stats", file, "--limit", "gain=1:2", "--limit", "gain=1:3"});
    EXPECT_EQ(twice.code, 2);
    EXPECT_EQ(twice.err, "supportqt stats: the limits of 'gain' are given twice\n");
    writeFileBytes(path("twice.csv"), "name,lower,upper\ngain,19,21\nf3db,,1200\ngain,18,22\n");
    const Result twiceInFile = tool({"stats", file, "--limits", temp("twice.csv")});
    EXPECT_EQ(twiceInFile.code, 1);
    EXPECT_EQ(twiceInFile.err, "supportqt stats: " + temp("twice.csv") + ":4: the limits of 'gain' are given twice\n");
    const Result reversed = tool({"stats", file, "--limit", "gain=3:2"});
    EXPECT_EQ(reversed.code, 2);
    const Result shape = tool({"stats", file, "--limit", "gain"});
    EXPECT_EQ(shape.code, 2);
    EXPECT_EQ(shape.err, "supportqt stats: --limit wants NAME=LO:HI, not 'gain'\n");
    writeFileBytes(path("bad.csv"), "gain,1,2\nf3db;1;2\n");
    const Result badFile = tool({"stats", file, "--limits", temp("bad.csv")});
    EXPECT_EQ(badFile.code, 1);
    EXPECT_EQ(badFile.err, "supportqt stats: " + temp("bad.csv") + ":2: expected name,lower,upper\n");
    const Result itself = tool({"stats", file, "--html", file});
    EXPECT_EQ(itself.code, 2);
    EXPECT_EQ(itself.err, "supportqt stats: " + file + " is the results file being read; name another output\n");
    writeFileBytes(path("limits2.csv"), "gain,1,2\n");
    const Result overLimits = tool({"stats", file, "--limits", temp("limits2.csv"), "--csv", temp("limits2.csv")});
    EXPECT_EQ(overLimits.code, 2);
    EXPECT_EQ(overLimits.err, "supportqt stats: " + temp("limits2.csv") + " is the limits file being read; name another output\n");
    EXPECT_EQ(readFileBytes(path("limits2.csv")), "gain,1,2\n");
    writeFileBytes(path("picture.svg"), "<svg xmlns=\"http://www.w3.org/2000/svg\"/>");
    const Result notResults = tool({"stats", temp("picture.svg")});
    EXPECT_EQ(notResults.code, 1);
    EXPECT_EQ(notResults.err, "supportqt stats: " + temp("picture.svg") + ": root element svg, expected msw\n");
    const Result missing = tool({"stats", temp("none.msw")});
    EXPECT_EQ(missing.code, 1);
    EXPECT_TRUE(missing.err.startsWith("supportqt stats: ")) << missing.err.toStdString();
    EXPECT_EQ(missing.err.count('\n'), 1);
}

#ifndef Q_OS_WIN
// The outputs are written together, each held open by the next: a hundred merit functions' charts
// are written on a stack of 512 KiB too.
TEST_F(StatsTool, ManyChartsAreWrittenTogetherOnASmallStack)
{
    std::string text = "<?xml version=\"1.0\"?>\n<msw version=\"1.0\">\n<header title=\"t\" analysis=\".mc 5\"/>\n";
    for (int m = 0; m < 100; ++m) {
        text += "<meritfunction value=\"f" + std::to_string(m) + "\" name=\"m" + std::to_string(m) + "\">\n";
        for (int c = 1; c <= 5; ++c)
            text += "<sensval case=\"" + std::to_string(c) + "\" value=\"" + std::to_string(c + m) + "\"/>\n";
        text += "</meritfunction>\n";
    }
    writeFileBytes(path("many.msw"), text + "</msw>\n");
    const QString line = QStringLiteral("ulimit -s 512; exec '%1' stats '%2' --csv '%3' --chart '%4'")
                             .arg(SUPPORTQT_TOOL_PATH, temp("many.msw"), temp("many.csv"), temp("charts"));
    const Result many = runProgram(QStringLiteral("/bin/sh"), {"-c", line});
    EXPECT_EQ(many.code, 0) << many.err.toStdString();
    EXPECT_EQ(QDir(temp("charts")).entryList(QDir::Files).size(), 300);
    EXPECT_TRUE(QFile::exists(temp("many.csv")));
}

// A device as the limits file is read up to 16 MiB, as a file is, and refused past it; a device or a file
// that cannot take the whole CSV fails the command and leaves a previous file as it was.
TEST_F(StatsTool, EndlessLimitsAndFailingWritesAreFailures)
{
    const QString file = results();
    const Result zero = tool({"stats", file, "--limits", "/dev/zero"});
    EXPECT_EQ(zero.code, 1);
    EXPECT_EQ(zero.out, "");
    EXPECT_EQ(zero.err, "supportqt stats: cannot read the limits file /dev/zero\n");

    for (const char* option : {"--csv", "--html"}) {
        const Result full = tool({"stats", file, option, "/dev/full"});
        EXPECT_EQ(full.code, 1) << option;
        EXPECT_EQ(full.err, "supportqt stats: cannot write /dev/full\n") << option;
    }

    // The CSV of 60 runs is larger than the 1 KiB that the shell allows the tool to write to a file.
    const Result free = tool({"stats", file, "--csv", "-"});
    ASSERT_EQ(free.code, 0) << free.err.toStdString();
    ASSERT_GT(free.out.size(), 1024);
    writeFileBytes(path("s.csv"), "the previous table\n");
    const QString line = QStringLiteral("ulimit -f 1; trap '' XFSZ; exec '%1' stats '%2' --csv '%3'")
                             .arg(SUPPORTQT_TOOL_PATH, file, temp("s.csv"));
    const Result limited = runProgram(QStringLiteral("/bin/sh"), {"-c", line});
    EXPECT_EQ(limited.code, 1);
    EXPECT_EQ(limited.err, "supportqt stats: cannot write " + temp("s.csv") + "\n");
    EXPECT_EQ(readFileBytes(path("s.csv")), "the previous table\n");
    EXPECT_EQ(QDir(temp("")).entryList(QDir::Files | QDir::Hidden), (QStringList{"runs.msw", "s.csv"}));

    // An output that cannot be made stops the command before any output is written.
    const Result chart = tool({"stats", file, "--csv", temp("p.csv"), "--chart", "/dev/null"});
    EXPECT_EQ(chart.code, 1);
    EXPECT_EQ(chart.err, "supportqt stats: cannot create the folder /dev/null\n");
    EXPECT_FALSE(QFile::exists(temp("p.csv")));
}
#endif

// Standard output takes one document: a table or page written there is all that goes there, and two
// documents for it are a usage error.
TEST_F(StatsTool, StandardOutputTakesOneDocument)
{
    const QString file = results();
    ASSERT_EQ(tool({"stats", file, "--csv", temp("s.csv"), "--html", temp("s.html")}).code, 0);
    const Result csv = tool({"stats", file, "--csv", "-"});
    EXPECT_EQ(csv.code, 0) << csv.err.toStdString();
    EXPECT_EQ(csv.out.toStdString(), readFileBytes(path("s.csv")));
    EXPECT_EQ(csv.err, QString());
    const Result html = tool({"stats", file, "--html", "-"});
    EXPECT_EQ(html.code, 0) << html.err.toStdString();
    EXPECT_EQ(html.out.toStdString(), readFileBytes(path("s.html")));
    // A table to standard output beside a page in a file.
    const Result mixed = tool({"stats", file, "--csv", "-", "--html", temp("t.html")});
    EXPECT_EQ(mixed.code, 0) << mixed.err.toStdString();
    EXPECT_EQ(mixed.out.toStdString(), readFileBytes(path("s.csv")));
    EXPECT_EQ(readFileBytes(path("t.html")), readFileBytes(path("s.html")));
    for (const QStringList& both : {QStringList{"--csv", "-", "--html", "-"}, QStringList{"--csv", "-", "--json"},
                                    QStringList{"--html", "-", "--json"}}) {
        const Result r = tool(QStringList{"stats", file} + both);
        EXPECT_EQ(r.code, 2) << both.join(' ').toStdString();
        EXPECT_EQ(r.out, QString());
        EXPECT_EQ(r.err, "supportqt stats: standard output takes one of --csv -, --html - and --json; name a file for the others\n");
    }
}

// A limit given with one dash is the same option as with two, and is used.
TEST_F(StatsTool, ALimitWithOneDashIsUsed)
{
    const QString file = results();
    const Result two = tool({"stats", file, "--limit", "gain=19.8:20.2", "--json"});
    const Result one = tool({"stats", file, "-limit", "gain=19.8:20.2", "--json"});
    ASSERT_EQ(one.code, 0) << one.err.toStdString();
    const QJsonObject limits = parseJson(one.out)["meritFunctions"].toArray()[0].toObject()["limits"].toObject();
    EXPECT_EQ(limits["lower"].toDouble(), 19.8);
    EXPECT_EQ(limits["upper"].toDouble(), 20.2);
    EXPECT_EQ(limits["runs"].toInt(), 60);
    EXPECT_EQ(one.out, two.out);
    const Result joined = tool({"stats", file, "--limit=gain=19.8:20.2", "--json"});
    EXPECT_EQ(joined.out, two.out);
}

// A chart that cannot be written (a folder stands in its place) is found before anything is written:
// the table, the page and the other charts stay as they were.
TEST_F(StatsTool, AChartThatCannotBeWrittenStopsTheCommandBeforeAnyOutputIsWritten)
{
    const QString file = results();
    writeFileBytes(path("p.csv"), "the previous table\n");
    writeFileBytes(path("p.html"), "the previous page\n");
    ASSERT_TRUE(QDir().mkpath(temp("ch")));
    writeFileBytes(path("ch/merit1_histogram.svg"), "the previous histogram\n");
    const QString blocked = QDir(temp("ch")).filePath(QStringLiteral("merit2_cdf.svg"));
    ASSERT_TRUE(QDir().mkpath(blocked));
    const Result r = tool({"stats", file, "--csv", temp("p.csv"), "--html", temp("p.html"), "--chart", temp("ch")});
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.err, "supportqt stats: " + blocked + " is a folder, not a file\n");
    EXPECT_EQ(r.out, QString());
    EXPECT_EQ(readFileBytes(path("p.csv")), "the previous table\n");
    EXPECT_EQ(readFileBytes(path("p.html")), "the previous page\n");
    EXPECT_EQ(readFileBytes(path("ch/merit1_histogram.svg")), "the previous histogram\n");
    EXPECT_EQ(QDir(temp("ch")).entryList(QDir::Files), QStringList{"merit1_histogram.svg"});
}

// Two outputs that name one file, by the same name or through a link, are a usage error, and so is an
// empty path: nothing is written.
TEST_F(StatsTool, OutputsThatNameOneFileOrNoneAreRefused)
{
    const QString file = results();
    const Result same = tool({"stats", file, "--csv", temp("x.out"), "--html", temp("x.out")});
    EXPECT_EQ(same.code, 2);
    EXPECT_EQ(same.err, "supportqt stats: --csv and --html both name " + temp("x.out") + "; name two outputs\n");
    EXPECT_FALSE(QFile::exists(temp("x.out")));
#ifndef Q_OS_WIN
    writeFileBytes(path("y.out"), "previous\n");
    ASSERT_TRUE(QFile::link(temp("y.out"), temp("link.out")));
    const Result linked = tool({"stats", file, "--csv", temp("y.out"), "--html", temp("link.out")});
    EXPECT_EQ(linked.code, 2);
    EXPECT_EQ(readFileBytes(path("y.out")), "previous\n");
#endif
    for (const char* option : {"--csv", "--html", "--chart", "--limits"}) {
        const Result empty = tool({"stats", file, option, ""});
        EXPECT_EQ(empty.code, 2) << option;
        EXPECT_EQ(empty.err, QStringLiteral("supportqt stats: --%1 needs a path, not an empty text\n").arg(QString::fromLatin1(option + 2))) << option;
    }
    // A chart folder where a picture would replace the results file or the limits file is refused.
    ASSERT_TRUE(QDir().mkpath(temp("pictures")));
    const std::string runs = readFileBytes(path("runs.msw"));
    writeFileBytes(path("pictures/merit1_cdf.svg"), runs);
    const Result picture = tool({"stats", temp("pictures/merit1_cdf.svg"), "--chart", temp("pictures")});
    EXPECT_EQ(picture.code, 2);
    EXPECT_EQ(picture.err, "supportqt stats: " + QDir(temp("pictures")).filePath("merit1_cdf.svg") +
                               " is the results file being read; name another chart folder\n");
    EXPECT_TRUE(readFileBytes(path("pictures/merit1_cdf.svg")) == runs);
    writeFileBytes(path("pictures/merit2_histogram.svg"), "gain,1,2\n");
    const Result limits = tool({"stats", file, "--limits", temp("pictures/merit2_histogram.svg"), "--chart", temp("pictures")});
    EXPECT_EQ(limits.code, 2);
    EXPECT_EQ(limits.err, "supportqt stats: " + QDir(temp("pictures")).filePath("merit2_histogram.svg") +
                              " is the limits file being read; name another chart folder\n");
    EXPECT_EQ(readFileBytes(path("pictures/merit2_histogram.svg")), "gain,1,2\n");
}

// Outputs whose names differ in case only are one file where names ignore case (Windows); elsewhere two.
// A table or page that names one of the charts in the chart folder is refused everywhere, before the
// folder is made.
TEST_F(StatsTool, OutputsThatAreOneFileByCaseOrAsAChartAreRefused)
{
    const QString file = results();
    const Result cased = tool({"stats", file, "--csv", temp("s.csv"), "--html", temp("S.CSV")});
#ifdef Q_OS_WIN
    EXPECT_EQ(cased.code, 2);
    EXPECT_EQ(cased.err, "supportqt stats: --csv and --html both name " + temp("s.csv") + "; name two outputs\n");
    EXPECT_FALSE(QFile::exists(temp("s.csv")));
#else
    EXPECT_EQ(cased.code, 0) << cased.err.toStdString();
    EXPECT_EQ(readFileBytes(path("s.csv")).rfind("name,definition,", 0), 0u);
    EXPECT_EQ(readFileBytes(path("S.CSV")).rfind("<!DOCTYPE html>", 0), 0u);
#endif
    const QString chart = QDir(temp("ch")).filePath(QStringLiteral("merit2_cdf.svg"));
    for (const char* option : {"--html", "--csv"}) {
        const Result r = tool({"stats", file, option, chart, "--chart", temp("ch")});
        EXPECT_EQ(r.code, 2) << option;
        EXPECT_EQ(r.err, QStringLiteral("supportqt stats: %1 names the chart %2; name another output\n").arg(QLatin1String(option), chart));
        EXPECT_FALSE(QFileInfo::exists(temp("ch")));
    }
}

TEST_F(StatsTool, CsvHoldsOneRowPerMeritFunctionWithTheJsonValues)
{
    SUPPORTQT_SKIP_UNLESS_PEER_RUNS("python3");
    const QString file = results();
    ASSERT_EQ(tool({"stats", file, "--limit", "gain=19.8:20.2", "--csv", temp("s.csv")}).code, 0);
    const QJsonObject o = parseJson(tool({"stats", file, "--limit", "gain=19.8:20.2", "--json"}).out);
    // Python's csv module reads the file back as an independent reader.
    const Result py = runProgram("python3", {"-c", "import csv,json,sys; print(json.dumps(list(csv.DictReader(open(sys.argv[1])))))",
                                             temp("s.csv")});
    ASSERT_EQ(py.code, 0) << py.err.toStdString();
    const QJsonArray rows = QJsonDocument::fromJson(py.out.toUtf8()).array();
    ASSERT_EQ(rows.size(), 2);
    EXPECT_EQ(rows[0]["name"].toString(), "gain");
    EXPECT_EQ(rows[1]["definition"].toString(), "cutoff(v(out),3)"); // quoted: it holds a comma
    EXPECT_EQ(rows[0]["mean"].toString().toDouble(), o["meritFunctions"][0]["mean"].toDouble());
    EXPECT_EQ(rows[0]["cpk"].toString().toDouble(), o["meritFunctions"][0]["limits"]["cpk"].toDouble());
    EXPECT_EQ(rows[0]["P50"].toString().toDouble(), o["meritFunctions"][0]["percentiles"]["P50"].toDouble());
    EXPECT_EQ(rows[1]["nonfinite"].toString(), "1");
    EXPECT_EQ(rows[1]["yield"].toString(), ""); // no limits
}

// A name that holds a carriage return (written as "&#13;" in the file) is quoted in the CSV table, as a
// line feed is: unquoted, a CSV reader would end the row there.
TEST_F(StatsTool, ACsvFieldWithACarriageReturnIsQuoted)
{
    XMLReportHeader h = header();
    h.meritFunctions.at(1).name = "f3\rdb";
    const QString file = temp("cr.msw");
    ASSERT_TRUE(sp_WriteMswFile(toYs(file), runs(1, 10), h));
    ASSERT_NE(readFileBytes(path("cr.msw")).find("f3&#13;db"), std::string::npos);
    ASSERT_EQ(tool({"stats", file, "--csv", temp("cr.csv")}).code, 0);
    const std::string csv = readFileBytes(path("cr.csv"));
    EXPECT_NE(csv.find("\n\"f3\rdb\",\"cutoff(v(out),3)\",9,1,"), std::string::npos) << csv;
}

// One run: its standard deviation is 0 in the CSV table as in the JSON, not left blank.
TEST_F(StatsTool, OneRunHasAStandardDeviationOfZeroInEveryForm)
{
    const QString file = results(1);
    ASSERT_EQ(tool({"stats", file, "--csv", temp("one.csv")}).code, 0);
    const QJsonObject o = parseJson(tool({"stats", file, "--json"}).out);
    EXPECT_EQ(o["meritFunctions"][0]["count"].toInt(), 1);
    EXPECT_EQ(o["meritFunctions"][0]["stddev"].toDouble(-1.0), 0.0);
    const QStringList lines = QString::fromStdString(readFileBytes(path("one.csv"))).split('\n');
    ASSERT_GE(lines.size(), 2);
    EXPECT_TRUE(lines[0].startsWith("name,definition,count,nonfinite,mean,stddev,")) << lines[0].toStdString();
    // gain,gain,1,0,MEAN,0,MIN,...: the sixth field of the first row.
    const QStringList fields = lines[1].split(',');
    ASSERT_GE(fields.size(), 7);
    EXPECT_EQ(fields[0], "gain");
    EXPECT_EQ(fields[2], "1");
    EXPECT_EQ(fields[5], "0") << lines[1].toStdString();
}

// A yield below 100% never shows as 100%: one failing run in 30,000 takes the digits it needs, in the
// text and on the page, and so does the upper end of its interval.
TEST_F(StatsTool, OneFailingRunInManyIsNotRoundedAway)
{
    std::string text = "<?xml version=\"1.0\"?>\n<msw version=\"1.0\"><meritfunction name=\"m\" value=\"f\">";
    std::string steps;
    for (int c = 1; c <= 30000; ++c) {
        text += "<sensval case=\"" + std::to_string(c) + "\" value=\"" + (c == 7 ? "2" : "1") + "\"/>";
        steps += "<step case=\"" + std::to_string(c) + "\"/>";
    }
    writeFileBytes(path("many.msw"), text + "</meritfunction><steps>" + steps + "</steps></msw>\n");
    const Result r = tool({"stats", temp("many.msw"), "--limit", "m=0:1.5", "--html", temp("many.html")});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    EXPECT_TRUE(r.out.contains("  limits 0 to 1.5: fail, 29999 of 30000 pass, yield 99.9967% [99.9811%, 99.9994%], "))
        << r.out.toStdString();
    const std::string page = readFileBytes(path("many.html"));
    EXPECT_NE(page.find("yield <span class=\"good\">99.997%</span> (95% interval 99.98% to 99.999%)"), std::string::npos);
    EXPECT_EQ(page.find(">100%<"), std::string::npos);
    // Every run passing is 100%.
    const Result all = tool({"stats", temp("many.msw"), "--limit", "m=0:3"});
    EXPECT_TRUE(all.out.contains("  limits 0 to 3: pass, 30000 of 30000 pass, yield 100% [")) << all.out.toStdString();
}

// A merit function with no finite value still has a verdict for its limits, which the text gives as
// the JSON does: no run passes.
TEST_F(StatsTool, LimitsOfAMeritFunctionWithNoFiniteValueFailInTheTextToo)
{
    writeFileBytes(path("nan.msw"), "<?xml version=\"1.0\"?>\n<msw version=\"1.0\"><meritfunction name=\"m\" value=\"f\">"
                                    "<sensval case=\"1\" value=\"nan\"/><sensval case=\"2\" value=\"nan\"/></meritfunction>"
                                    "<steps><step case=\"1\"/><step case=\"2\"/></steps></msw>\n");
    const Result text = tool({"stats", temp("nan.msw"), "--limit", "m=0:1"});
    ASSERT_EQ(text.code, 0) << text.err.toStdString();
    EXPECT_TRUE(text.out.endsWith("\nm = f: 0 runs, 2 not finite\n  no finite values\n  limits 0 to 1: fail, 0 of 2 pass\n"
                                  "  failing runs: 1 2\n"))
        << text.out.toStdString();
    const QJsonObject limits = parseJson(tool({"stats", temp("nan.msw"), "--limit", "m=0:1", "--json"}).out)["meritFunctions"][0]["limits"].toObject();
    EXPECT_EQ(limits["pass"].toInt(-1), 0);
    EXPECT_EQ(limits["runs"].toInt(), 2);
    EXPECT_EQ(limits["failing"].toArray(), (QJsonArray{1, 2}));
}

// Values near the largest doubles are further apart than the largest double: the charts measure them
// by halves, and leave out a 3-sigma band beyond the largest numbers, so that every coordinate is a
// number (they were "-nan" and "-inf").
TEST_F(StatsTool, ChartsOfValuesNearTheLargestNumbersHaveFiniteCoordinates)
{
    writeFileBytes(path("huge.msw"), "<?xml version=\"1.0\"?>\n<msw version=\"1.0\"><header analysis=\".mc 5\"/>"
                                     "<meritfunction name=\"m\" value=\"f\"><sensval case=\"1\" value=\"1e308\"/>"
                                     "<sensval case=\"2\" value=\"-1e308\"/><sensval case=\"3\" value=\"1.7e308\"/>"
                                     "<sensval case=\"4\" value=\"-1.7e308\"/><sensval case=\"5\" value=\"0\"/></meritfunction>"
                                     "<steps><step case=\"1\"/><step case=\"2\"/><step case=\"3\"/><step case=\"4\"/>"
                                     "<step case=\"5\"/></steps></msw>\n");
    ASSERT_EQ(tool({"stats", temp("huge.msw"), "--chart", temp("charts")}).code, 0);
    ASSERT_EQ(tool({"report", "mc", temp("huge.msw"), "-o", temp("huge.html"), "--chart", temp("histogram.svg")}).code, 0);
    const QRegularExpression coordinate(QStringLiteral("\\b(?:x|y|x1|x2|y1|y2|width|height|points)=\"([^\"]*)\""));
    const QRegularExpression number(QStringLiteral("^-?[0-9]+(?:\\.[0-9]+)?$"));
    for (const QString& svg : {temp("charts/merit1_histogram.svg"), temp("charts/merit1_cdf.svg"), temp("histogram.svg")}) {
        const QString text = QString::fromStdString(readFileBytes(svg.toStdString()));
        int checked = 0;
        for (auto match = coordinate.globalMatch(text); match.hasNext();) {
            for (const QString& value : match.next().captured(1).split(QRegularExpression(QStringLiteral("[ ,]")), Qt::SkipEmptyParts)) {
                EXPECT_TRUE(number.match(value).hasMatch()) << svg.toStdString() << ": " << value.toStdString();
                ++checked;
            }
        }
        EXPECT_GT(checked, 20) << svg.toStdString();
    }
    EXPECT_TRUE(QString::fromStdString(readFileBytes(path("histogram.svg"))).contains(QStringLiteral("mean -/+ 3 sigma lies beyond the largest numbers")));
}

TEST_F(StatsTool, HtmlPageStandsAloneShowsInChromiumAndItsPicturesHaveNoOverlappingText)
{
    const QString file = results(400);
    const Result r = tool({"stats", file, "--limit", "gain=19.9:20.5", "--limit", "f3db=900:1100", "--html",
                           temp("page.html"), "--chart", temp("charts")});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    const std::string page = readFileBytes(path("page.html"));
    // No network: nothing is loaded from elsewhere (the only URLs are the SVG namespace's).
    for (const char* outside : {"src=", "href=\"http", "@import", "url("})
        EXPECT_EQ(page.find(outside), std::string::npos) << outside;
    EXPECT_NE(page.find("<title>Run statistics: filter &lt;lot 7&gt;</title>"), std::string::npos);
    EXPECT_NE(page.find("<table class=\"sortable\" id=\"summary\">"), std::string::npos);
    EXPECT_NE(page.find("<script>"), std::string::npos);
    EXPECT_NE(page.find("<section class=\"card fail\" id=\"merit2\">"), std::string::npos);
    size_t svgs = 0;
    for (size_t at = page.find("<svg "); at != std::string::npos; at = page.find("<svg ", at + 1))
        ++svgs;
    EXPECT_EQ(svgs, 6u);
    expectVisible(temp("page.html"), temp("page.png"));

    SUPPORTQT_SKIP_UNLESS_PEER_RUNS("python3");
    const QStringList pictures = QDir(temp("charts")).entryList({"*.svg"}, QDir::Files, QDir::Name);
    EXPECT_EQ(pictures, (QStringList{"merit1_cdf.svg", "merit1_histogram.svg", "merit1_influence.svg",
                                     "merit2_cdf.svg", "merit2_histogram.svg", "merit2_influence.svg"}));
    QStringList arguments{QStringLiteral(SUPPORTQT_TEST_SOURCE_DIR "/tools/check_svg_text.py")};
    for (const QString& p : pictures)
        arguments << QDir(temp("charts")).filePath(p);
    const Result check = runProgram("python3", arguments);
    ASSERT_EQ(check.code, 0) << check.err.toStdString();
    for (const QString& line : check.out.split('\n', Qt::SkipEmptyParts)) {
        const QStringList f = line.split(' ');
        EXPECT_GE(f.value(1).toInt(), 5) << line.toStdString();
        EXPECT_EQ(f.value(2), "0") << line.toStdString();
    }
}

TEST_F(StatsTool, MergeJoinsShardsAndRefusesCollidingCasesUnlessRenumbered)
{
    ASSERT_TRUE(sp_WriteMswFile(toYs(temp("a.msw")), runs(1, 30), header()));
    ASSERT_TRUE(sp_WriteMswFile(toYs(temp("b.msw")), runs(31, 30), header()));
    ASSERT_TRUE(sp_WriteMswFile(toYs(temp("c.msw")), runs(50, 5), header()));
    const Result r = tool({"merge", temp("a.msw"), temp("b.msw"), "-o", temp("m.msw")});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    EXPECT_TRUE(r.out.startsWith("merged 2 files, 60 runs (0 renumbered) into " + temp("m.msw") + "\n  gain: 60 values, mean "))
        << r.out.toStdString();
    // The merged file's statistics are those of the run set written as one file.
    ASSERT_TRUE(sp_WriteMswFile(toYs(temp("whole.msw")), runs(1, 60), header()));
    EXPECT_EQ(tool({"stats", temp("m.msw"), "--json", "--limit", "gain=19:21"}).out.replace(temp("m.msw"), "X"),
              tool({"stats", temp("whole.msw"), "--json", "--limit", "gain=19:21"}).out.replace(temp("whole.msw"), "X"));

    const Result clash = tool({"merge", temp("a.msw"), temp("b.msw"), temp("c.msw"), "-o", temp("n.msw")});
    EXPECT_EQ(clash.code, 1);
    EXPECT_EQ(clash.err, "supportqt merge: case 50 is in both " + temp("b.msw") + " and " + temp("c.msw") +
                             " (merge with renumbering to keep both)\n");
    EXPECT_FALSE(QFile::exists(temp("n.msw")));
    const Result renumbered = tool({"merge", temp("a.msw"), temp("b.msw"), temp("c.msw"), "-o", temp("n.msw"),
                                    "--renumber", "--json"});
    ASSERT_EQ(renumbered.code, 0) << renumbered.err.toStdString();
    const QJsonObject o = parseJson(renumbered.out);
    EXPECT_EQ(o["runs"].toInt(), 65);
    EXPECT_EQ(o["renumbered"].toInt(), 5);
    EXPECT_EQ(o["shardRuns"].toArray(), (QJsonArray{30, 30, 5}));
    EXPECT_EQ(o["meritFunctions"][1]["nonFinite"].toInt(), 1);
    const Result overShard = tool({"merge", temp("a.msw"), temp("b.msw"), "-o", temp("b.msw")});
    EXPECT_EQ(overShard.code, 2);
    EXPECT_EQ(overShard.err, "supportqt merge: " + temp("b.msw") + " is a file being merged; name another output\n");
    // A file named twice, by one name or through another, would have its runs counted twice.
    for (const QString& again : {temp("a.msw"), temp("../" + QFileInfo(temp("")).dir().dirName().toStdString() + "/a.msw")}) {
        const Result twice = tool({"merge", temp("a.msw"), temp("b.msw"), again, "-o", temp("t.msw"), "--renumber"});
        EXPECT_EQ(twice.code, 2) << again.toStdString();
        EXPECT_EQ(twice.err, "supportqt merge: " + temp("a.msw") + " and " + again + " are one file; name each file once\n");
        EXPECT_FALSE(QFileInfo::exists(temp("t.msw")));
    }
    EXPECT_EQ(tool({"merge", "-o", temp("x.msw")}).code, 2);
    EXPECT_EQ(tool({"merge", temp("a.msw")}).code, 2);
    EXPECT_EQ(tool({"merge", temp("a.msw"), temp("none.msw"), "-o", temp("x.msw")}).code, 1);
}

TEST_F(StatsTool, TheGnuParallelExampleRunsShardsMergesThemAndWritesStatistics)
{
    SUPPORTQT_SKIP_UNLESS_PEER_RUNS("parallel");
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("SUPPORTQT", SUPPORTQT_TOOL_PATH);
    environment.insert("SHARDS", "6");
    environment.insert("RUNS", "40");
    environment.insert("JOBS", "2");
    environment.insert("HOME", temp("home")); // GNU parallel keeps its state under the home folder
    QDir().mkpath(temp("home"));
    const Result r = runProgram("bash", {SUPPORTQT_EXAMPLES_DIR "/cluster/montecarlo_parallel.sh", temp("out")}, environment);
    ASSERT_EQ(r.code, 0) << r.err.toStdString() << r.out.toStdString();
    EXPECT_TRUE(r.out.startsWith("merged 6 files, 240 runs (0 renumbered) into " + temp("out") + "/merged.msw\n"))
        << r.out.toStdString();
    const QStringList shards = QDir(temp("out/shards")).entryList({"*.msw"}, QDir::Files);
    EXPECT_EQ(shards.size(), 6);
    YString message;
    // The stand-in writes results files as a simulator does: each shard is valid against the schema.
    for (const QString& shard : shards)
        EXPECT_EQ(sp_ValidateXml(toYs(temp("out/shards/") + shard), YString(SUPPORTQT_SCHEMA_DIR "/msw.xsd"), &message),
                  XmlValidateOk)
            << shard.toStdString() << ": " << message.c_str();
    EXPECT_EQ(sp_ValidateXml(toYs(temp("out/merged.msw")), YString(SUPPORTQT_SCHEMA_DIR "/msw.xsd"), &message), XmlValidateOk)
        << message.c_str();
    YHashTable<XMLReportInfo> table;
    XMLReportHeader h;
    ASSERT_TRUE(sp_CompileSensReportData(toYs(temp("out/merged.msw")), &table, &h));
    EXPECT_EQ(table.count(), 240);
    EXPECT_EQ(h.numCores, 6);
    const std::string text = readFileBytes(path("out/statistics.txt"));
    EXPECT_NE(text.find("vout = avg(v(out)): 240 runs\n"), std::string::npos) << text;
    EXPECT_NE(text.find("  limits 3.2 to 3.4: "), std::string::npos);
    EXPECT_NE(text.find("  influence: VIN.DC "), std::string::npos); // the stand-in's vout follows VIN
    EXPECT_NE(readFileBytes(path("out/statistics.html")).find("<section class=\"card"), std::string::npos);
}
