// SupportqtToolTest.cpp - the supportqt tool run as a real process on real files: every subcommand's
// output and exit code, its JSON against its text, the error paths, the demo, and the pictures looked at
// in headless Chromium.
#include "TestHelpers.h"

#include "Help.h"
#include "Reports.h"
#include "TextServices.h"
#include "XMLReport.h"

#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QJsonArray>
#include <QMap>
#include <QRegularExpression>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegExp>
#include <QSet>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>
#include <QXmlStreamReader>

#include <cmath>
#include <csignal>
#include <unistd.h>
#ifndef Q_OS_WIN
#include <sys/stat.h>
#endif
#if defined(__linux__)
#include <sys/resource.h>
#include <sys/syscall.h>
#endif

namespace {

struct Result {
    int code = -1;
    QString out;
    QString err;
};

Result runProgram(const QString& program, const QStringList& arguments, const QString& workingDir = QString(),
                  const QByteArray& input = QByteArray())
{
    QProcess process;
    if (!workingDir.isEmpty())
        process.setWorkingDirectory(workingDir);
    process.start(program, arguments);
    EXPECT_TRUE(process.waitForStarted(30000)) << program.toStdString();
    if (!input.isEmpty())
        process.write(input);
    process.closeWriteChannel();
    EXPECT_TRUE(process.waitForFinished(120000)) << program.toStdString();
    Result r;
    r.code = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    r.out = QString::fromUtf8(process.readAllStandardOutput());
    r.err = QString::fromUtf8(process.readAllStandardError());
    return r;
}

Result tool(const QStringList& arguments, const QString& workingDir = QString())
{
    return runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), arguments, workingDir);
}

// Runs a shell command line on a pseudo-terminal (script), where standard error is a terminal; what the
// tool writes to either stream comes back in `out`.
Result onTerminal(const QString& commandLine)
{
    const QString script = QStandardPaths::findExecutable("script");
    EXPECT_FALSE(script.isEmpty()) << "script (bsdutils) runs the tool on a pseudo-terminal";
    return runProgram(script, {"-qec", commandLine, "/dev/null"});
}

QString example(const QString& relative)
{
    return QStringLiteral(SUPPORTQT_EXAMPLES_DIR "/") + relative;
}

QString data(const QString& relative)
{
    return QString::fromStdString(testDataPath("tool/" + relative.toStdString()));
}

// Parses JSON output with Qt only; for the many runs over the corpus.
QJsonObject parseJsonQt(const QString& text)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8(), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << error.errorString().toStdString();
    return document.object();
}

// A program of the host that the tests use as an independent peer (python3, xmllint, chromium...).
// Under Wine a Windows test can start Windows programs only, so there such a peer is usually absent;
// on other systems scripts/deps installs every one.
bool hostPeerAvailable(const char* name)
{
#ifdef Q_OS_WIN
    return !QStandardPaths::findExecutable(QString::fromLatin1(name)).isEmpty();
#else
    Q_UNUSED(name);
    return true;
#endif
}

// Parses JSON output twice: with python3's json module (which must accept it) and with Qt. Where
// python3 cannot be started (a Windows build under Wine) Qt's parser checks it alone.
QJsonObject parseJson(const QString& text)
{
    if (hostPeerAvailable("python3")) {
        const Result python = runProgram(QStringLiteral("python3"),
                                         {QStringLiteral("-c"), QStringLiteral("import json,sys; json.load(sys.stdin); print('ok')")},
                                         QString(), text.toUtf8());
        EXPECT_EQ(python.code, 0) << python.err.toStdString();
        EXPECT_EQ(python.out, QStringLiteral("ok\n"));
    }
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8(), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << error.errorString().toStdString();
    return document.object();
}

QStringList lines(const QString& text)
{
    QStringList l = text.split(QLatin1Char('\n'));
    if (!l.isEmpty() && l.last().isEmpty())
        l.removeLast();
    return l;
}

// Control-statement settings (type and value) keyed by name: the order in which they were met does not
// matter, nor how they came about, since statements written back spell out what was defaulted.
QJsonObject byName(const QJsonArray& params)
{
    QJsonObject map;
    for (const QJsonValue& p : params)
        map.insert(p["name"].toString(), QJsonObject{{"type", p["type"]}, {"value", p["value"]}});
    return map;
}


// Control-statement parameters keyed by name, whole.
QJsonObject byNameAll(const QJsonObject& controls)
{
    QJsonObject map;
    for (const QJsonValue& p : controls["params"].toArray())
        map.insert(p["name"].toString(), p);
    return map;
}

const QStringList kSubcommands{"netlist", "index", "section", "lib", "controls", "results", "stats", "merge", "validate",
                               "append-merit", "report", "text", "why", "glob", "regex", "run", "help-url", "demo"};

class Tool : public TempDirTest {
protected:
    QString temp(const QString& name) const { return QString::fromStdString(path(name.toStdString())); }
};

// ---------------------------------------------------------------- the tool as a whole

TEST_F(Tool, HelpListsEverySubcommandAndEachSubcommandHasItsOwnHelp)
{
    const Result help = tool({"--help"});
    EXPECT_EQ(help.code, 0);
    EXPECT_TRUE(help.out.startsWith("Usage: supportqt [--help] [--version] COMMAND [ARGS] [--json]\n"));
    for (const QString& name : kSubcommands) {
        EXPECT_TRUE(help.out.contains("\n  " + name + " ")) << name.toStdString();
        const Result own = tool({name, "--help"});
        EXPECT_EQ(own.code, 0) << name.toStdString();
        EXPECT_TRUE(own.out.startsWith("Usage: supportqt " + name)) << own.out.toStdString();
        EXPECT_TRUE(own.err.isEmpty()) << own.err.toStdString();
        // The --help-all that the help text lists shows the same text.
        const Result all = tool({name, "--help-all"});
        EXPECT_EQ(all.code, 0) << name.toStdString() << " " << all.err.toStdString();
        EXPECT_EQ(all.out, own.out) << name.toStdString();
    }
    for (const QString& action : {QStringLiteral("detect"), QStringLiteral("convert")}) {
        const Result own = tool({"text", action, "--help"});
        EXPECT_EQ(own.code, 0);
        EXPECT_TRUE(own.out.startsWith("Usage: supportqt text " + action + " FILE")) << own.out.toStdString();
    }
}

TEST_F(Tool, VersionAndUsage)
{
    const Result version = tool({"--version"});
    EXPECT_EQ(version.code, 0);
    EXPECT_EQ(version.out, QStringLiteral("supportqt " SUPPORTQT_TEST_VERSION "\n"));
    const Result none = tool({});
    EXPECT_EQ(none.code, 2);
    EXPECT_EQ(none.err, "supportqt: missing command; run 'supportqt --help' for the commands\n");
    EXPECT_TRUE(tool({"--help"}).out.startsWith("Usage: supportqt"));
}

// A normalised sensitivity near the largest double, which no round ticks can cover: the tornado chart
// makes an axis of that magnitude, ticked at its ends and at 0, and every coordinate is a number.
TEST_F(Tool, ATornadoOfASensitivityNearTheLargestNumberHasFiniteCoordinates)
{
    const QString file = temp("huge.msw");
    writeFileBytes(file.toStdString(), "<?xml version=\"1.0\"?>\n<msw version=\"1.0\">\n<header analysis=\".sens\" title=\"t\"/>\n"
                                       "<meritfunction value=\"f\" name=\"f\"><sensval case=\"1\" value=\"1\"/>"
                                       "<sensval case=\"2\" value=\"2.6e-293\"/><sensval case=\"3\" value=\"2\"/></meritfunction>\n"
                                       "<steps><step case=\"1\" description=\"Nominal\"/><step case=\"2\" description=\"big\">"
                                       "<parameter name=\"P\" nom=\"1\" usedvalue=\"1.0000000000000002\"/></step>"
                                       "<step case=\"3\" description=\"small\"><parameter name=\"Q\" nom=\"1\" usedvalue=\"2\"/></step>"
                                       "</steps>\n</msw>\n");
    const Result r = tool({"report", "sens", file, "-o", temp("huge.html"), "--chart", temp("huge.svg")});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    const std::string svg = readFileBytes(path("huge.svg"));
    EXPECT_EQ(svg.find("inf"), std::string::npos) << svg;
    EXPECT_EQ(svg.find("nan"), std::string::npos) << svg;
    EXPECT_NE(svg.find("<rect x=\"300.0\" y=\"71.0\" width=\"250.0\""), std::string::npos) << svg;
    EXPECT_NE(svg.find(">-173.215e306</text>"), std::string::npos) << svg;
    EXPECT_NE(svg.find(">173.215e306</text>"), std::string::npos) << svg;
}

// The reports take their result columns from case 1, the nominal run: a --sort column past its values
// sorts by another column, and the user is told which.
TEST_F(Tool, ASortColumnPastTheNominalRunsValuesIsSaid)
{
    const std::string head = "<?xml version=\"1.0\"?>\n<msw version=\"1.0\"><header analysis=\".sens\" title=\"t\"/>\n";
    const std::string steps = "<steps><step case=\"1\" description=\"Nom\"/><step case=\"2\" description=\"B\"/>"
                              "<step case=\"3\" description=\"A\"/></steps></msw>\n";
    writeFileBytes(path("short.msw"), head +
                                          "<meritfunction value=\"a(x)\" name=\"a\"><sensval case=\"1\" value=\"1\"/><sensval case=\"2\" "
                                          "value=\"3\"/><sensval case=\"3\" value=\"2\"/></meritfunction>\n<meritfunction value=\"b(x)\" "
                                          "name=\"b\"><sensval case=\"2\" value=\"30\"/><sensval case=\"3\" value=\"20\"/></meritfunction>\n" +
                                          steps);
    const Result past = tool({"report", "csv", temp("short.msw"), "-o", temp("short.csv"), "--sort", "6"});
    EXPECT_EQ(past.code, 0);
    EXPECT_EQ(past.err, "supportqt report: case 1 of " + temp("short.msw") +
                            " holds values of 1 merit function, so the reports sort by column 4, not by column 6\n");
    EXPECT_EQ(tool({"report", "csv", temp("short.msw"), "-o", temp("short.csv"), "--sort", "5"}).err, QString());
    writeFileBytes(path("nonominal.msw"), head +
                                              "<meritfunction value=\"a(x)\" name=\"a\"><sensval case=\"2\" value=\"3\"/>"
                                              "<sensval case=\"3\" value=\"2\"/></meritfunction>\n" +
                                              "<steps><step case=\"2\" description=\"B\"/><step case=\"3\" description=\"A\"/></steps></msw>\n");
    const Result none = tool({"report", "csv", temp("nonominal.msw"), "-o", "-", "--sort", "a.delta"});
    EXPECT_EQ(none.code, 0);
    EXPECT_EQ(none.err, "supportqt report: " + temp("nonominal.msw") +
                            " has no case 1, so the reports sort by the description (column 1), not by column 3\n");
    EXPECT_TRUE(none.out.endsWith("3,A,2,0,!DIV0\n2,B,3,0,!DIV0\n")) << none.out.toStdString();
}

// A style sheet the library does not copy (larger than 16 MiB, or no regular file) gives the built-in
// style, and the user is told.
TEST_F(Tool, AStyleSheetThatIsNotCopiedIsSaid)
{
    const QString results = example("results/buck_sensitivity.msw");
    writeFileBytes(path("large.css"), std::string((16 << 20) + 1, ' '));
    const Result large = tool({"report", "sens", results, "-o", temp("large.html"), "--style", temp("large.css")});
    EXPECT_EQ(large.code, 0);
    EXPECT_EQ(large.err, "supportqt report: the style sheet " + temp("large.css") +
                             " is not a regular file of at most 16 MiB; the reports have the built-in style\n");
    writeFileBytes(path("small.css"), "td { color: red; }\n");
    const Result small = tool({"report", "sens", results, "-o", temp("small.html"), "--style", temp("small.css")});
    EXPECT_EQ(small.code, 0);
    EXPECT_EQ(small.err, QString());
    EXPECT_NE(readFileBytes(path("small.html")).find("td { color: red; }"), std::string::npos);
}

// Standard input is the text of one input: a command given "-" for two (a document and its schema, two
// libraries to compare) is refused, rather than comparing the text with itself.
TEST_F(Tool, StandardInputIsGivenForOneInputOnly)
{
    const QByteArray document("<r/>\n");
    const QString refused = QStringLiteral(": standard input is the text of one input only, and '-' is given for two\n");
    const Result validate = runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), {"validate", "-", "--schema", "-"}, QString(), document);
    EXPECT_EQ(validate.code, 2);
    EXPECT_EQ(validate.err, "supportqt validate" + refused);
    const Result diff = runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), {"lib", "diff", "-", "-"}, QString(), ".model m d\n");
    EXPECT_EQ(diff.code, 2);
    EXPECT_EQ(diff.err, "supportqt lib diff" + refused);
    // One "-" is read as before.
    writeFileBytes(path("r.xsd"), "<xs:schema xmlns:xs=\"http://www.w3.org/2001/XMLSchema\"><xs:element name=\"r\"/></xs:schema>");
    const Result once = runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), {"validate", "-", "--schema", temp("r.xsd")}, QString(), document);
    EXPECT_EQ(once.code, 0) << once.err.toStdString();
}

#ifndef Q_OS_WIN
// An error stays one line whatever it quotes: line feeds and terminal controls in a name are shown
// as escapes, on standard error as on standard output. (POSIX: such names are no Windows file names.)
TEST_F(Tool, ErrorsStayOneLineWhateverNamesTheyQuote)
{
    const QString odd = temp(QStringLiteral("no\nsuch\x1b]0;title\x07.txt"));
    const Result detect = tool({"text", "detect", odd});
    EXPECT_EQ(detect.code, 1);
    EXPECT_EQ(detect.err.count('\n'), 1) << detect.err.toStdString();
    EXPECT_TRUE(detect.err.contains("no\\nsuch\\x1b]0;title\\x07.txt")) << detect.err.toStdString();
    EXPECT_FALSE(detect.err.contains(QChar(0x1b)));
    const Result command = tool({"bo\ngus"});
    EXPECT_EQ(command.code, 2);
    EXPECT_TRUE(command.err.startsWith("supportqt: unknown command 'bo\\ngus'; valid commands: ")) << command.err.toStdString();
    const Result action = tool({"text", "de\x1btect"});
    EXPECT_EQ(action.err, "supportqt text: unknown action 'de\\x1btect'; valid actions: detect, convert\n");
}

// The outputs of stats are written as one: an output that cannot be written leaves the others as they
// were, and a chart folder the command made is gone again.
TEST_F(Tool, StatsOutputsAreWrittenAllOrNone)
{
    if (!QFile::exists(QStringLiteral("/dev/full")))
        GTEST_SKIP() << "no /dev/full here";
    const QString csv = temp("stats.csv");
    writeFileBytes(csv.toStdString(), "OLD\n");
    const QString results = example("results/buck_montecarlo.msw");
    const Result failed = tool({"stats", results, "--csv", csv, "--html", "/dev/full", "--chart", temp("charts")});
    EXPECT_EQ(failed.code, 1);
    EXPECT_EQ(failed.err, "supportqt stats: cannot write /dev/full; no output was replaced\n");
    EXPECT_EQ(readFileBytes(csv.toStdString()), "OLD\n");
    EXPECT_FALSE(QFileInfo::exists(temp("charts")));
    EXPECT_EQ(QDir(temp("")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden), QStringList{"stats.csv"});
    const Result written = tool({"stats", results, "--csv", csv, "--chart", temp("charts")});
    EXPECT_EQ(written.code, 0) << written.err.toStdString();
    EXPECT_NE(readFileBytes(csv.toStdString()), "OLD\n");
    EXPECT_TRUE(QFileInfo::exists(QDir(temp("charts")).filePath("merit1_histogram.svg")));
}

// A results file in another encoding that declares none reads with its bytes as they are: the pages
// and pictures made of it carry U+FFFD for bytes that are no UTF-8, and for U+FFFE and U+FFFF, which are
// no characters of XML, and stay well-formed.
TEST_F(Tool, PagesAndPicturesOfALatin1ResultsFileAreUtf8)
{
    std::string results = "<?xml version=\"1.0\"?>\n<msw version=\"1.0\">\n<header title=\"caf\xE9\" analysis=\".mc 20\"/>\n"
                          "<meritfunction value=\"f\xE9\" name=\"m\xE9\xEF\xBF\xBE\xEF\xBF\xBF\">\n";
    for (int i = 1; i <= 6; ++i)
        results += "<sensval case=\"" + std::to_string(i) + "\" value=\"" + std::to_string(i * 0.5) + "\"/>\n";
    results += "</meritfunction>\n</msw>\n";
    const QString file = temp("latin.msw");
    writeFileBytes(file.toStdString(), results);
    const Result stats = tool({"stats", file, "--html", temp("stats.html"), "--chart", temp("charts")});
    ASSERT_EQ(stats.code, 0) << stats.err.toStdString();
    const Result report = tool({"report", "mc", file, "-o", temp("mc.html"), "--chart", temp("mc.svg")});
    ASSERT_EQ(report.code, 0) << report.err.toStdString();
    QStringList outputs{temp("stats.html"), temp("mc.svg")};
    for (const QString& chart : QDir(temp("charts")).entryList({"*.svg"}))
        outputs << QDir(temp("charts")).filePath(chart);
    EXPECT_EQ(outputs.size(), 5);
    for (const QString& output : outputs) {
        const std::string bytes = readFileBytes(output.toStdString());
        QTextCodec::ConverterState state;
        QTextCodec::codecForName("UTF-8")->toUnicode(bytes.data(), static_cast<int>(bytes.size()), &state);
        EXPECT_EQ(state.invalidChars, 0) << output.toStdString();
        EXPECT_EQ(bytes.find('\xE9'), std::string::npos) << output.toStdString();
        EXPECT_EQ(bytes.find("\xEF\xBF\xBE"), std::string::npos) << output.toStdString();
        EXPECT_EQ(bytes.find("\xEF\xBF\xBF"), std::string::npos) << output.toStdString();
    }
    EXPECT_NE(readFileBytes(temp("stats.html").toStdString()).find("caf\xEF\xBF\xBD"), std::string::npos);
    if (hostPeerAvailable("xmllint")) {
        for (const QString& output : outputs) {
            if (output.endsWith(".svg")) {
                EXPECT_EQ(runProgram("xmllint", {"--noout", output}).code, 0) << output.toStdString();
            }
        }
    }
}

// Output that cannot reach standard output fails the command with one line, instead of exit code 0.
TEST_F(Tool, AStandardOutputThatCannotBeWrittenIsAFailure)
{
    if (!QFile::exists(QStringLiteral("/dev/full")))
        GTEST_SKIP() << "no /dev/full here";
    QProcess process;
    process.setStandardOutputFile(QStringLiteral("/dev/full"));
    process.start(QStringLiteral(SUPPORTQT_TOOL_PATH), {"help-url", "kvhlp://topic"});
    ASSERT_TRUE(process.waitForFinished(60000));
    EXPECT_EQ(process.exitCode(), 1);
    EXPECT_EQ(process.readAllStandardError(), "supportqt help-url: cannot write standard output\n");
    // A command that says itself that its output failed says it once.
    writeFileBytes(path("u8.txt"), "caf\xc3\xa9\n");
    QProcess convert;
    convert.setStandardOutputFile(QStringLiteral("/dev/full"));
    convert.start(QStringLiteral(SUPPORTQT_TOOL_PATH), {"text", "convert", temp("u8.txt"), "-o", "-"});
    ASSERT_TRUE(convert.waitForFinished(60000));
    EXPECT_EQ(convert.exitCode(), 1);
    EXPECT_EQ(convert.readAllStandardError(), "supportqt text convert: cannot write -\n");
    // So do the usage and the version.
    for (const char* option : {"--help", "--version"}) {
        QProcess shown;
        shown.setStandardOutputFile(QStringLiteral("/dev/full"));
        shown.start(QStringLiteral(SUPPORTQT_TOOL_PATH), {option});
        ASSERT_TRUE(shown.waitForFinished(60000));
        EXPECT_EQ(shown.exitCode(), 1) << option;
        EXPECT_EQ(shown.readAllStandardError(), "supportqt: cannot write standard output\n") << option;
    }
}

// A device as the input of text detect is read up to 64 MiB, not for ever; a device as the output of
// text convert is written with every write checked.
TEST_F(Tool, TextOnDevicesEndsAndFailsWhereTheDeviceFails)
{
    if (!QFile::exists(QStringLiteral("/dev/full")) || !QFile::exists(QStringLiteral("/dev/zero")))
        GTEST_SKIP() << "no /dev/full or /dev/zero here";
    const Result zero = tool({"text", "detect", "/dev/zero"});
    EXPECT_EQ(zero.code, 0) << zero.err.toStdString();
    EXPECT_EQ(zero.out, "encoding: ASCII\nline ends: LF\n");
    writeFileBytes(path("u8.txt"), "caf\xc3\xa9\n");
    const Result full = tool({"text", "convert", temp("u8.txt"), "-o", "/dev/full"});
    EXPECT_EQ(full.code, 1);
    EXPECT_EQ(full.err, "supportqt text convert: cannot write /dev/full\n");
    const Result null = tool({"text", "convert", temp("u8.txt"), "-o", "/dev/null"});
    EXPECT_EQ(null.code, 0) << null.err.toStdString();
    // An endless device as the data of append-merit is refused past 64 MiB.
    const QString file = temp("sens.msw");
    ASSERT_TRUE(QFile::copy(example("results/buck_sensitivity.msw"), file));
    const Result endless = tool({"append-merit", file, "--value", "x", "--name", "x", "--data", "/dev/zero"});
    EXPECT_EQ(endless.code, 1);
    EXPECT_EQ(endless.err, "supportqt append-merit: /dev/zero is larger than 64 MiB\n");
    // The netlist readers read their input by name more than once: a FIFO no one writes is refused
    // before it is opened (its open alone would wait), and a device too; "-" takes such text.
    const QString fifo = temp("netlist.fifo");
    ASSERT_EQ(::mkfifo(fifo.toLocal8Bit().constData(), 0600), 0);
    for (const QStringList& arguments : {QStringList{"netlist", fifo}, QStringList{"index", fifo}, QStringList{"controls", fifo},
                                         QStringList{"controls", "/dev/zero"},
                                         QStringList{"section", "/dev/zero", "--start", "0", "--end", "10"}}) {
        const Result refused = tool(arguments);
        EXPECT_EQ(refused.code, 1) << arguments.join(' ').toStdString();
        EXPECT_EQ(refused.err, "supportqt " + arguments[0] + ": " + arguments[1] +
                                   " is not a regular file; give its text on standard input as '-'\n");
    }
    // So do the model-library commands, whichever of their files is one.
    const QString lib = data("models.lib");
    for (const QStringList& arguments :
         {QStringList{"lib", "sections", fifo}, QStringList{"lib", "defs", "/dev/zero"}, QStringList{"lib", "check", fifo},
          QStringList{"lib", "diff", lib, fifo}, QStringList{"lib", "extract", fifo, "nch", "-o", temp("x.lib")}}) {
        const Result refused = tool(arguments);
        EXPECT_EQ(refused.code, 1) << arguments.join(' ').toStdString();
        const QString named = arguments[2] == lib ? arguments[3] : arguments[2];
        EXPECT_EQ(refused.err, "supportqt lib " + arguments[1] + ": " + named +
                                   " is not a regular file; give its text on standard input as '-'\n");
    }
    EXPECT_FALSE(QFile::exists(temp("x.lib")));
}
#endif

// An option that takes one value, given twice, or given with the option the help shows as its
// alternative, is a usage error: nothing is read or written.
TEST_F(Tool, AnOptionGivenTwiceOrWithItsAlternativeIsAUsageError)
{
    const QString stats = data("stats.msw");
    const struct {
        QStringList arguments;
        QString error;
    } cases[] = {
        {{"results", stats, "--runs=2", "--runs=3"},
         "supportqt results: --runs= is given more than once ('--runs=2', then '--runs=3'); give it once\n"},
        {{"results", stats, "--precision", "3", "--precision=4"},
         "supportqt results: --precision is given more than once ('3', then '4'); give it once\n"},
        {{"section", data("models.lib"), "--start", "1", "--start", "43", "--end", "93"},
         "supportqt section: --start is given more than once ('1', then '43'); give it once\n"},
        {{"text", "convert", stats, "-o", temp("a.txt"), "--output", temp("b.txt")},
         "supportqt text convert: -o/--output is given more than once ('" + temp("a.txt") + "', then '" + temp("b.txt") +
             "'); give it once\n"},
        {{"results", stats, "--table", "csv", "--json"},
         "supportqt results: give --table FORMAT or --json, not both (--table json prints the runs as JSON)\n"},
        {{"results", stats, "--exact", "--precision", "3"}, "supportqt results: give --precision N or --exact, not both\n"},
        {{"results", stats, "--table", "csv", "--precision", "3"},
         "supportqt results: --precision shapes the text summary; --table and --json keep every digit\n"},
        {{"results", stats, "--json", "--precision=3"},
         "supportqt results: --precision shapes the text summary; --table and --json keep every digit\n"},
        {{"results", stats, "--json", "--exact"}, "supportqt results: --exact shapes the text summary; --table and --json keep every digit\n"},
        {{"results", stats, "--table", "csv", "--exact"},
         "supportqt results: --exact shapes the text summary; --table and --json keep every digit\n"},
        {{"results", stats, "--runs-list", "2"},
         "supportqt results: Unknown option 'runs-list'; valid options: --help, --runs, --stats-only, --precision, --exact, --table, --json\n"},
        {{"results", stats, "--stats-only", "--runs"}, "supportqt results: give --runs or --stats-only, not both\n"},
        {{"results", stats, "--runs=1,2", "--stats-only"}, "supportqt results: give --runs or --stats-only, not both\n"},
    };
    for (const auto& c : cases) {
        const Result r = tool(c.arguments);
        EXPECT_EQ(r.code, 2) << c.arguments.join(' ').toStdString();
        EXPECT_EQ(r.err, c.error);
        EXPECT_EQ(r.out, QString());
    }
    EXPECT_FALSE(QFileInfo::exists(temp("a.txt")));
    EXPECT_FALSE(QFileInfo::exists(temp("b.txt")));
    // A flag given twice changes nothing, and one --runs= with --runs is as the list alone.
    EXPECT_EQ(tool({"results", stats, "--runs", "--runs=2"}).out, tool({"results", stats, "--runs=2"}).out);
    EXPECT_EQ(tool({"results", stats, "--exact", "--exact"}).code, 0);
}

TEST_F(Tool, UnknownSubcommandListsTheValidOnes)
{
    const Result r = tool({"bogus"});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err, QStringLiteral("supportqt: unknown command 'bogus'; valid commands: ") + kSubcommands.join(", ") + "\n");
    EXPECT_TRUE(r.out.isEmpty());
    const Result text = tool({"text", "inspect", "x"});
    EXPECT_EQ(text.code, 2);
    EXPECT_EQ(text.err, QStringLiteral("supportqt text: unknown action 'inspect'; valid actions: detect, convert\n"));
}

TEST_F(Tool, UnknownOptionListsTheValidOnes)
{
    const Result r = tool({"netlist", "--bogus", example("netlists/buck_converter.cir")});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err, QStringLiteral("supportqt netlist: Unknown option 'bogus'; valid options: --help, --dialect, --literal, "
                                    "--title, --json\n"));
    const Result missing = tool({"section", data("models.lib")});
    EXPECT_EQ(missing.code, 2);
    EXPECT_EQ(missing.err, QStringLiteral("supportqt section: --start and --end are required\n"));
    const Result notNumber = tool({"section", data("models.lib"), "--start", "x", "--end", "9"});
    EXPECT_EQ(notNumber.code, 2);
    EXPECT_EQ(notNumber.err, QStringLiteral("supportqt section: --start takes an integer, not 'x'\n"));
    const Result surplus = tool({"glob", "a", "b", "c"});
    EXPECT_EQ(surplus.code, 2);
    EXPECT_EQ(surplus.err, QStringLiteral("supportqt glob: unexpected argument 'c'; usage: supportqt glob PATTERN TEXT [--json]\n"));
}

// ---------------------------------------------------------------- error paths of input files

TEST_F(Tool, MissingInputFileIsReportedWithTheFileOpenDiagnosis)
{
    const QString missing = temp("missing.cir");
    for (const QStringList& args : {QStringList{"netlist", missing}, QStringList{"index", missing},
                                    QStringList{"controls", missing}, QStringList{"results", missing},
                                    QStringList{"text", "detect", missing}}) {
        const Result r = tool(args);
        EXPECT_EQ(r.code, 1) << args.join(' ').toStdString();
        const QString name = args[0] == "text" ? QStringLiteral("text detect") : args[0];
        EXPECT_EQ(r.err, "supportqt " + name + ": The file " + missing + " does not exist\n");
        EXPECT_TRUE(r.out.isEmpty());
    }
}

TEST_F(Tool, FolderGivenAsAFile)
{
    const QString folder = QString::fromStdString(m_dir);
    const Result r = tool({"netlist", folder});
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.err, "supportqt netlist: " + folder + " is a folder, not a file\n");
    const Result report = tool({"report", "sens", example("results/buck_sensitivity.msw"), "-o", folder});
    EXPECT_EQ(report.code, 1);
    EXPECT_EQ(report.err, "supportqt report: " + folder + " is a folder, not a file\n");
}

TEST_F(Tool, UnreadableFileIsReportedAsLocked)
{
    const QString file = temp("secret.cir");
    writeFileBytes(file.toStdString(), "R1 a b 1k\n");
    QFile::setPermissions(file, QFileDevice::WriteOwner);
    Result r;
#ifdef Q_OS_WIN
    // Windows: the file is held open by this process with no sharing, which no privilege overrides.
    const ExclusiveFileLock lock(file.toStdString());
    ASSERT_TRUE(lock.isLocked());
    r = tool({"netlist", file});
#else
    if (runningAsRoot()) {
        // Root reads anything: the tool runs as an unprivileged user instead.
        QFile::setPermissions(QString::fromStdString(m_dir), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner |
                                                                 QFileDevice::ExeOther | QFileDevice::ExeGroup);
        const QString setpriv = QStandardPaths::findExecutable("setpriv");
        ASSERT_FALSE(setpriv.isEmpty()) << "setpriv is needed to test permissions as root";
        r = runProgram(setpriv, {"--reuid=nobody", "--regid=nogroup", "--clear-groups", SUPPORTQT_TOOL_PATH, "netlist", file});
    } else {
        r = tool({"netlist", file});
    }
#endif
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.err, "supportqt netlist: The file " + file +
                         " cannot be opened for read; either it is locked by another process or there is insufficient privilege\n");
}

TEST_F(Tool, MalformedResultsFileSaysItDoesNotLoadAndWritesNothing)
{
    const QString out = temp("report.html");
    const Result r = tool({"report", "sens", data("malformed.msw"), "-o", out});
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.err, "supportqt report: the results file " + data("malformed.msw") +
                         " does not load: it is not well-formed XML (line 4, column 1: Premature end of document.)\n");
    EXPECT_FALSE(QFile::exists(out));
    const Result results = tool({"results", data("malformed.msw")});
    EXPECT_EQ(results.code, 1);
    EXPECT_TRUE(results.err.contains("does not load"));
    EXPECT_TRUE(QDir(QString::fromStdString(m_dir)).entryList(QDir::Files | QDir::Hidden).isEmpty());
}

// A results file that does not load is reported with what keeps it from loading: the version, a case
// number past an int, a file it appends and that file's own fault, or values too few for a table of
// its runs by its merit functions (3,000 merit functions with one value each would make one of nine
// million cells).
TEST_F(Tool, AResultsFileThatDoesNotLoadIsReportedWithItsFault)
{
    const std::string head = "<?xml version=\"1.0\"?>\n<msw version=\"1.0\">\n";
    std::string sparse = head;
    for (int i = 0; i < 3000; ++i)
        sparse += "<meritfunction value=\"m" + std::to_string(i) + "\" name=\"m" + std::to_string(i) + "\"><sensval case=\"" +
                  std::to_string(i + 1) + "\" value=\"1\"/></meritfunction>\n";
    sparse += "</msw>\n";
    writeFileBytes(path("sparse.msw"), sparse);
    writeFileBytes(path("v2.msw"), "<?xml version=\"1.0\"?>\n<msw version=\"2.0\">\n</msw>\n");
    writeFileBytes(path("big.msw"), head + "<meritfunction value=\"a\" name=\"a\">\n<sensval case=\"3000000000\" value=\"1\"/>"
                                           "</meritfunction>\n</msw>\n");
    writeFileBytes(path("missing.msw"), head + "<append><file path=\"" + path("nowhere.msw") + "\"/></append>\n</msw>\n");
    writeFileBytes(path("appends.msw"), head + "<append><file path=\"" + path("v2.msw") + "\"/></append>\n</msw>\n");
    writeFileBytes(path("self.msw"), head + "<append><file path=\"" + path("self.msw") + "\"/></append>\n</msw>\n");
    const auto said = [&](const char* name) {
        const Result r = tool({"results", temp(name)});
        EXPECT_EQ(r.code, 1) << name;
        EXPECT_EQ(r.out, QString()) << name;
        return r.err;
    };
    const QString start = QStringLiteral("supportqt results: the results file %1 does not load: ");
    EXPECT_EQ(said("sparse.msw"), start.arg(temp("sparse.msw")) +
                                      "it holds too few values for a table of its runs by its merit functions, or memory ran out\n");
    EXPECT_EQ(said("v2.msw"), start.arg(temp("v2.msw")) + "it is version 2.0, not 1.0\n");
    EXPECT_EQ(said("big.msw"), start.arg(temp("big.msw")) +
                                   "line 4 has case 3000000000, past the case numbers a run may have (-2147483648 to 2147483647)\n");
    const QString nowhere = QDir::cleanPath(QFileInfo(temp("nowhere.msw")).absoluteFilePath());
    EXPECT_EQ(said("missing.msw"), start.arg(temp("missing.msw")) + "the file it appends, " + nowhere + ", cannot be read\n");
    const QString v2 = QFileInfo(temp("v2.msw")).canonicalFilePath();
    EXPECT_EQ(said("appends.msw"), start.arg(temp("appends.msw")) + "the file it appends, " + v2 +
                                       ", does not load: it is version 2.0, not 1.0\n");
    EXPECT_EQ(said("self.msw"), start.arg(temp("self.msw")) + "with the files it appends it holds too few values for a table "
                                                              "of its runs by its merit functions, or those files append each "
                                                              "other too deeply, or memory ran out\n");
    // A second root is not well-formed; a file larger than the reader takes is said to be, unread.
    writeFileBytes(path("two.msw"), head + "</msw>\n<msw version=\"1.0\"/>\n");
    EXPECT_EQ(said("two.msw"), start.arg(temp("two.msw")) +
                                   "it is not well-formed XML (line 4, column 21: Extra content at end of document.)\n");
    writeFileBytes(path("huge.msw"), head);
    QFile huge(temp("huge.msw"));
    ASSERT_TRUE(huge.resize(0x80000000LL)); // sparse: no disk is taken
    EXPECT_EQ(said("huge.msw"), start.arg(temp("huge.msw")) + "it is larger than the 2147483647 bytes a results file may have\n");
    ASSERT_TRUE(huge.remove());
}

// ---------------------------------------------------------------- netlist, index, section

TEST_F(Tool, NetlistShowsTheLogicalLinesAndWhatTheReaderLearned)
{
    const QString file = example("netlists/buck_converter.cir");
    const Result r = tool({"netlist", file});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    const QStringList l = lines(r.out);
    ASSERT_EQ(l.size(), 22);
    EXPECT_EQ(l[0], "     1  Synchronous buck converter, 12 V to 3.3 V at 500 kHz");
    EXPECT_EQ(l[1], "     4  VIN in 0 DC 12");
    EXPECT_EQ(l[5], "     8  C1 out 0 22u  IC=3.3");
    EXPECT_EQ(l[6], "    10  RLOAD out 0 1.65 ");
    EXPECT_EQ(l[17], "    24  .end");
    // Without --title the first line is a logical line, so the directive after it comes too late.
    EXPECT_EQ(l.mid(18), (QStringList{"dialect: native", "separator: $", "hierarchy: no", "encoding: ASCII"}));
    const Result titled = tool({"netlist", file, "--title"});
    const QStringList t = lines(titled.out);
    EXPECT_EQ(t[0], "title: Synchronous buck converter, 12 V to 3.3 V at 500 kHz");
    EXPECT_EQ(t[1], "     4  VIN in 0 DC 12");
    EXPECT_EQ(t.mid(t.size() - 4), (QStringList{"dialect: native", "separator: .", "hierarchy: no", "encoding: ASCII"}));
}

TEST_F(Tool, NetlistDialectsDirectivesAndEncoding)
{
    const QString file = temp("amp.sp");
    writeFileBytes(file.toStdString(), "* amplifier\n*#HSPICE\n*#hierarchy\nR1 a b 1k $ load \xC3\xA9\n+ m=2\n.end\n");
    const Result r = tool({"netlist", file});
    ASSERT_EQ(r.code, 0);
    EXPECT_EQ(r.out, QStringLiteral("     4  R1 a b 1k   m=2\n     6  .end\ndialect: hspice\nseparator: \nhierarchy: yes\nencoding: UTF-8\n"));
    // A line that begins with a character of two bytes: the reader has read its first byte before it
    // hands out the line before, and the verdict takes the whole character.
    writeFileBytes(temp("first.cir").toStdString(), "R1 a\n\xC3\xA9x b\n");
    EXPECT_TRUE(tool({"netlist", temp("first.cir")}).out.endsWith("encoding: UTF-8\n"));
    writeFileBytes(temp("cut.cir").toStdString(), "R1 a\n\xC3x b\n");
    EXPECT_TRUE(tool({"netlist", temp("cut.cir")}).out.endsWith("encoding: not UTF-8\n"));
    const Result pspice = tool({"netlist", file, "--dialect", "pspice"});
    EXPECT_EQ(pspice.code, 0);
    EXPECT_TRUE(pspice.out.contains("dialect: hspice\n"));
    const Result bad = tool({"netlist", file, "--dialect", "spectre"});
    EXPECT_EQ(bad.code, 2);
    EXPECT_EQ(bad.err, QStringLiteral("supportqt netlist: unknown dialect 'spectre'; valid dialects: native, pspice, hspice\n"));
}

// A bare carriage return ends a line for the reader, but not right after a line's comment character,
// in a directive or in the title, which read on to a line feed (as the reader is meant to): netlist
// shows what the reader gives and says how many line ends were taken in, with the remedy. Where every
// line end is a line feed, or a CR LF, nothing is said.
TEST_F(Tool, NetlistTellsOfBareCarriageReturnsThatEndedNoLine)
{
    const QString summary = QStringLiteral("dialect: native\nseparator: $\nhierarchy: no\nencoding: ASCII\n");
    const QString warning = QStringLiteral("supportqt netlist: %1 bare carriage return%2 of %3 ended no line: a comment, a directive "
                                           "or the title read on past %4 to a line feed, taking in what follows "
                                           "('supportqt text convert' makes %5)\n");
    const QString bare = temp("cr_bare.cir");
    writeFileBytes(bare.toStdString(), "title\r*\rR1 a b 1\rR2 b c 2\r.end\r");
    const Result r = tool({"netlist", bare});
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out, "     1  title\n     3  R2 b c 2\n     4  .end\n" + summary);
    EXPECT_EQ(r.err, warning.arg("1", "", bare, "it", "it a line feed"));
    const Result piped = runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), {"netlist", "-"}, QString(),
                                    QByteArray("title\r*\rR1 a b 1\rR2 b c 2\r.end\r"));
    EXPECT_EQ(piped.out, r.out);
    EXPECT_EQ(piped.err, warning.arg("1", "", "-", "it", "it a line feed"));
    const QString directive = temp("cr_dir.cir");
    writeFileBytes(directive.toStdString(), "title\r*#hierarchy\rR1 a b 1\r.end\r");
    const Result swallowed = tool({"netlist", directive});
    EXPECT_EQ(swallowed.out, "     1  title\n" + summary);
    EXPECT_EQ(swallowed.err, warning.arg("3", "s", directive, "them", "them line feeds"));
    const QString plain = temp("cr_plain.cir");
    writeFileBytes(plain.toStdString(), "title\rR1 a b 1\r.end\r");
    const Result whole = tool({"netlist", plain});
    EXPECT_EQ(whole.out, "     1  title\n     2  R1 a b 1\n     3  .end\n" + summary);
    EXPECT_EQ(whole.err, QString());
    const Result titled = tool({"netlist", plain, "--title"});
    EXPECT_EQ(titled.out, "title: titleR1 a b 1.end\n" + summary);
    EXPECT_EQ(titled.err, warning.arg("3", "s", plain, "them", "them line feeds"));
    // Where the first line end is a CR LF, text convert would delete the bare carriage returns and join
    // the lines for good: the warning does not send the designer there.
    const QString mixed = temp("cr_mixed.cir");
    writeFileBytes(mixed.toStdString(), "R1 1 2 3\r\n*\rR2 4 5 6\r\n.end\r\n");
    const Result joined = tool({"netlist", mixed});
    EXPECT_EQ(joined.out, "     1  R1 1 2 3\n     3  .end\n" + summary);
    EXPECT_EQ(joined.err, "supportqt netlist: 1 bare carriage return of " + mixed + " ended no line: a comment, a directive or the title "
                          "read on past it to a line feed, taking in what follows (make it a line feed to read the lines after it)\n");
    // A CR LF split between the blocks the count reads is one line end.
    const QString split = temp("cr_split.cir");
    writeFileBytes(split.toStdString(), std::string((1 << 20) - 1, 'x') + "\r\nR1 a b 1\r\n*\rR2 x y 1\r\n");
    const Result across = tool({"netlist", split});
    EXPECT_EQ(across.out.section('\n', 1), "     2  R1 a b 1\n" + summary);
    EXPECT_EQ(across.err, "supportqt netlist: 1 bare carriage return of " + split + " ended no line: a comment, a directive or the title "
                          "read on past it to a line feed, taking in what follows (make it a line feed to read the lines after it)\n");
    // The same text with line feeds, or CR LF, reads whole and unremarked, as does the converted file.
    for (const char* end : {"\n", "\r\n"}) {
        const QString other = temp("cr_other.cir");
        writeFileBytes(other.toStdString(), QStringLiteral("title\r*\rR1 a b 1\rR2 b c 2\r.end\r").replace("\r", end).toStdString());
        const Result read = tool({"netlist", other});
        EXPECT_EQ(read.out, "     1  title\n     3  R1 a b 1\n     4  R2 b c 2\n     5  .end\n" + summary) << end;
        EXPECT_EQ(read.err, QString()) << end;
    }
    ASSERT_EQ(tool({"text", "convert", bare, "-o", temp("cr_converted.cir")}).code, 0);
    const Result converted = tool({"netlist", temp("cr_converted.cir")});
    EXPECT_EQ(converted.out, "     1  title\n     3  R1 a b 1\n     4  R2 b c 2\n     5  .end\n" + summary);
    EXPECT_EQ(converted.err, QString());
}

// Converted to UTF-32, a character beyond 16 bits is one unit and nothing follows the text: the bytes are
// those of iconv after the byte-order mark the codec writes.
TEST_F(Tool, TextConvertedToUtf32HasOneUnitPerCharacter)
{
    const QString in = temp("emoji.txt");
    writeFileBytes(in.toStdString(), "\xF0\x9F\x98\x80x\n");
    const QString out = temp("emoji32.txt");
    const Result converted = tool({"text", "convert", in, "-o", out, "--to", "UTF-32LE"});
    EXPECT_EQ(converted.code, 0) << converted.err.toStdString();
    EXPECT_EQ(readFileBytes(out.toStdString()), std::string("\xFF\xFE\0\0" "\0\xF6\x01\0" "x\0\0\0" "\n\0\0\0", 16));
    const QString big = temp("emoji32be.txt");
    const Result bigEndian = tool({"text", "convert", in, "-o", big, "--to", "UTF-32BE"});
    EXPECT_EQ(bigEndian.code, 0) << bigEndian.err.toStdString();
    EXPECT_EQ(readFileBytes(big.toStdString()), std::string("\0\0\xFE\xFF" "\0\x01\xF6\0" "\0\0\0x" "\0\0\0\n", 16));
}

TEST_F(Tool, NetlistJsonCarriesTheSameValuesAsTheText)
{
    for (const QStringList& extra : {QStringList{}, QStringList{"--title"}, QStringList{"--literal"}}) {
        const QString file = example("netlists/buck_converter.cir");
        const Result text = tool(QStringList{"netlist", file} + extra);
        const Result json = tool(QStringList{"netlist", file, "--json"} + extra);
        ASSERT_EQ(json.code, 0);
        const QJsonObject o = parseJson(json.out);
        QStringList rebuilt;
        if (extra.contains("--title"))
            rebuilt << "title: " + o["title"].toString();
        for (const QJsonValue& v : o["lines"].toArray()) {
            rebuilt << QStringLiteral("%1  %2").arg(v["line"].toInt(), 6).arg(v["text"].toString());
            const QJsonArray literal = v["literal"].toArray();
            const QJsonArray literalLines = v["literalLines"].toArray();
            EXPECT_EQ(literal.size(), literalLines.size());
            for (int i = 0; i < literal.size(); ++i)
                rebuilt << QStringLiteral("%1  | %2").arg(literalLines[i].toInt(), 6).arg(literal[i].toString());
        }
        rebuilt << "dialect: " + o["dialect"].toString() << "separator: " + o["separator"].toString()
                << QStringLiteral("hierarchy: ") + (o["hierarchy"].toBool() ? "yes" : "no") << "encoding: " + o["encoding"].toString();
        EXPECT_EQ(rebuilt, lines(text.out)) << extra.join(' ').toStdString();
        EXPECT_EQ(o["reader"].toString(), extra.contains("--literal") ? "NewSpiceStream" : "SpiceStream");
    }
}

// The lines are written as they are read: the JSON is byte for byte what printJson prints of the
// whole object, for lines with and without literal text, a title, and no lines at all.
TEST_F(Tool, NetlistJsonWrittenLineByLineIsTheDocumentItself)
{
    writeFileBytes(path("none.cir"), "* nothing but a comment\n");
    writeFileBytes(path("quoted.cir"), "R1 \"a\" b\t1k ; \\ and caf\xC3\xA9\n+ tc=1\n");
    for (const QString& file : {example("netlists/buck_converter.cir"), temp("none.cir"), temp("quoted.cir")})
        for (const QStringList& extra : {QStringList{}, QStringList{"--title"}, QStringList{"--literal"}}) {
            const Result json = tool(QStringList{"netlist", file, "--json"} + extra);
            ASSERT_EQ(json.code, 0) << json.err.toStdString();
            const QJsonDocument document = QJsonDocument::fromJson(json.out.toUtf8());
            ASSERT_TRUE(document.isObject()) << json.out.toStdString();
            EXPECT_EQ(json.out, QString::fromUtf8(document.toJson(QJsonDocument::Indented)))
                << file.toStdString() << " " << extra.join(' ').toStdString();
        }
    EXPECT_TRUE(parseJson(tool({"netlist", temp("none.cir"), "--json"}).out)["lines"].toArray().isEmpty());
}

#if !defined(Q_OS_WIN) && !defined(SUPPORTQT_TEST_ASAN)
// A netlist of a million lines is shown in the memory of one: the lines are written as they are read,
// as text and as JSON, by either reader. (The peak is the child's own, as the system counts it.)
TEST_F(Tool, NetlistOfAMillionLinesTakesTheMemoryOfOne)
{
    SUPPORTQT_SKIP_UNLESS_PEER_RUNS("python3");
    std::string text;
    for (int i = 0; i < 1000000; ++i)
        text += "R" + std::to_string(i) + " a b 1k\n";
    writeFileBytes(path("big.cir"), text);
    const char* measure = "import resource, subprocess, sys\n"
                          "r = subprocess.run(sys.argv[1:], stdout=subprocess.PIPE)\n"
                          "lines = r.stdout.count(b'\\n')\n"
                          "print(r.returncode, lines, resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)\n";
    for (const QStringList& extra : {QStringList{}, QStringList{"--json"}, QStringList{"--literal"}, QStringList{"--literal", "--json"}}) {
        const Result r = runProgram("python3", QStringList{"-c", measure, SUPPORTQT_TOOL_PATH, "netlist", temp("big.cir")} + extra);
        ASSERT_EQ(r.code, 0) << r.err.toStdString();
        const QStringList fields = r.out.trimmed().split(' ');
        ASSERT_EQ(fields.size(), 3) << r.out.toStdString();
        EXPECT_EQ(fields[0], "0") << extra.join(' ').toStdString();
        // Text: a line each (and its literal line) and four of summary; JSON: five (ten) lines of each
        // line's object and ten of the document.
        const long long expected = extra.contains("--json") ? (extra.contains("--literal") ? 10000010LL : 5000010LL)
                                   : extra.contains("--literal") ? 2000004LL : 1000004LL;
        EXPECT_EQ(fields[1].toLongLong(), expected) << extra.join(' ').toStdString();
        // Holding the lines took 170 MB as text and 560 MB as JSON; the tool itself takes about 30 MB.
        EXPECT_LT(fields[2].toLongLong(), 96 * 1024) << extra.join(' ').toStdString() << ": peak " << fields[2].toStdString() << " KiB";
    }
}
#endif

// The literal-preserving reader reads the native dialect and no title line: asking it for another
// dialect or a title is refused, not shown as if it had been done.
TEST_F(Tool, NetlistLiteralRefusesADialectOrTitleItWouldIgnore)
{
    const QString file = example("netlists/buck_converter.cir");
    const Result hspice = tool({"netlist", file, "--literal", "--dialect", "hspice"});
    EXPECT_EQ(hspice.code, 2);
    EXPECT_EQ(hspice.out, QString());
    EXPECT_EQ(hspice.err, QStringLiteral("supportqt netlist: --literal reads the native dialect only; leave out --dialect hspice\n"));
    const Result title = tool({"netlist", file, "--literal", "--title", "--json"});
    EXPECT_EQ(title.code, 2);
    EXPECT_EQ(title.out, QString());
    EXPECT_EQ(title.err, QStringLiteral("supportqt netlist: --literal reads no title line; give --literal or --title\n"));
    const Result native = tool({"netlist", file, "--literal", "--dialect", "native"});
    EXPECT_EQ(native.code, 0) << native.err.toStdString();
    EXPECT_EQ(native.out, tool({"netlist", file, "--literal"}).out);
    EXPECT_TRUE(native.out.endsWith(QStringLiteral("dialect: native\nseparator: $\nhierarchy: no\nencoding: ASCII\n"))) << native.out.toStdString();
}

TEST_F(Tool, LiteralReaderKeepsTheCommentsAndTheSourceText)
{
    const QString file = temp("lit.cir");
    writeFileBytes(file.toStdString(), "title\nR1 a b 1k ; note\n+ tc=1\n* comment\nC1 a 0 1p\n");
    const Result r = tool({"netlist", file, "--literal", "--json"});
    ASSERT_EQ(r.code, 0);
    const QJsonArray l = parseJson(r.out)["lines"].toArray();
    ASSERT_EQ(l.size(), 4);
    EXPECT_EQ(l[1]["text"].toString(), "R1 a b 1k   tc=1");
    EXPECT_EQ(l[1]["line"].toInt(), 2);
    EXPECT_EQ(l[1]["literal"].toArray().toVariantList(), (QVariantList{"R1 a b 1k ; note", "+ tc=1"}));
    EXPECT_EQ(l[2]["text"].toString(), "* comment");
}

TEST_F(Tool, LiteralLinesAreNumberedWhereTheyStandInTheFile)
{
    const Result r = tool({"netlist", example("netlists/buck_converter.cir"), "--literal"});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    const QStringList l = lines(r.out);
    // A comment line keeps the reader's number (that of the statement after it); its literal text
    // shows the line it stands on. The reader hands a comment's text over with the line before it.
    EXPECT_EQ(l.mid(0, 13), (QStringList{"     1  Synchronous buck converter, 12 V to 3.3 V at 500 kHz",
                                         "     1  | Synchronous buck converter, 12 V to 3.3 V at 500 kHz",
                                         "     4  *#KALVONTA sep=.",
                                         "     2  | *#KALVONTA sep=.",
                                         "     3  | * Power stage",
                                         "     4  * Power stage",
                                         "     4  VIN in 0 DC 12",
                                         "     4  | VIN in 0 DC 12",
                                         "     5  S1 in sw gate_hi 0 SWMOD",
                                         "     5  | S1 in sw gate_hi 0 SWMOD",
                                         "     6  S2 sw 0 gate_lo 0 SWMOD",
                                         "     6  | S2 sw 0 gate_lo 0 SWMOD",
                                         "     7  L1 sw out 4.7u IC=0"}));
    EXPECT_EQ(l.mid(14, 6), (QStringList{"     8  C1 out 0 22u  IC=3.3",
                                         "     8  | C1 out 0 22u",
                                         "     9  | + IC=3.3",
                                         "    10  RLOAD out 0 1.65 ",
                                         "    10  | RLOAD out 0 1.65 ; full load",
                                         "    12  * Gate drive: 27.5 % duty cycle at 500 kHz"}));
    EXPECT_TRUE(l.contains("    11  | * Gate drive: 27.5 % duty cycle at 500 kHz"));
    EXPECT_TRUE(l.contains("    15  | * Switching-simulator analysis: periodic steady state triggered by the high-side gate"));
    EXPECT_TRUE(l.contains("    20  | *.ac DEC 20 100 1meg"));
    EXPECT_TRUE(l.contains("    24  | .end"));
    // Every physical line of the file is shown once, on its own number.
    QStringList physical;
    for (const QString& line : l)
        if (line.mid(6, 4) == "  | ")
            physical << line;
    ASSERT_EQ(physical.size(), 24);
    for (int i = 0; i < physical.size(); ++i)
        EXPECT_EQ(physical[i].left(6).trimmed().toInt(), i + 1) << physical[i].toStdString();

    // Blank lines and carriage returns count as lines too.
    const QString file = temp("blank.cir");
    writeFileBytes(file.toStdString(), "title\r\n\r\n* c1\r\n* c2\r\nR1 a b 1k\r\n\r\n+ tc=1\r\n\r\n.end");
    const Result blank = tool({"netlist", file, "--literal"});
    EXPECT_EQ(lines(blank.out).mid(0, 13),
              (QStringList{"     1  title", "     1  | title", "     5  * c1", "     2  | ", "     3  | * c1", "     4  | * c2",
                           "     5  * c2", "     5  R1 a b 1k  tc=1", "     5  | R1 a b 1k", "     6  | ", "     7  | + tc=1",
                           "     9  .end", "     8  | "}));

    // A section counts from the lines before it.
    const Result section = tool({"section", data("models.lib"), "--start", "127", "--end", "318", "--line-offset", "5", "--literal"});
    ASSERT_EQ(section.code, 0) << section.err.toStdString();
    const QStringList s = lines(section.out);
    EXPECT_EQ(s.mid(6, 7), (QStringList{"     9  .ends OPAMP", "     9  | .ends OPAMP", "    11  * a subcircuit in capitals",
                                        "    10  | * a subcircuit in capitals", "    11  .SUBCKT GATE_DRV in out  params: delay=10n",
                                        "    11  | .SUBCKT GATE_DRV in out", "    12  | + params: delay=10n"}));
    const QJsonArray json = parseJson(tool({"section", data("models.lib"), "--start", "127", "--end", "318", "--line-offset", "5",
                                            "--literal", "--json"}).out)["lines"].toArray();
    QStringList rebuilt;
    for (const QJsonValue& v : json) {
        rebuilt << QStringLiteral("%1  %2").arg(v["line"].toInt(), 6).arg(v["text"].toString());
        for (int i = 0; i < v["literal"].toArray().size(); ++i)
            rebuilt << QStringLiteral("%1  | %2").arg(v["literalLines"].toArray()[i].toInt(), 6).arg(v["literal"].toArray()[i].toString());
    }
    EXPECT_EQ(rebuilt, s);
    // Line numbers stop at 2147483647, the literal ones too.
    const Result last = tool({"section", data("models.lib"), "--start", "127", "--end", "318", "--line-offset", "2147483646", "--literal"});
    ASSERT_EQ(last.code, 0) << last.err.toStdString();
    const QStringList capped = lines(last.out);
    ASSERT_EQ(capped.size(), s.size());
    for (int i = 0; i < capped.size(); ++i)
        EXPECT_EQ(capped[i], QStringLiteral("2147483647") + s[i].mid(6)) << i;
}

TEST_F(Tool, IndexListsEveryDefinitionWithTheValuesThatSectionTakes)
{
    const Result r = tool({"index", data("models.lib")});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    EXPECT_EQ(r.out, QStringLiteral(
                         "kind     name                              start        end     line  line-offset\n"
                         ".model   DFAST                                43         93        2            1\n"
                         ".model   QSW                                  93        126        4            3\n"
                         ".subckt  OPAMP                               127        211        6            5\n"
                         ".subckt  GATE_DRV                            238        318       11           10\n"
                         "4 definitions\n"));
    const QJsonArray defs = parseJson(tool({"index", data("models.lib"), "--json"}).out)["definitions"].toArray();
    ASSERT_EQ(defs.size(), 4);
    EXPECT_EQ(defs[3].toObject(), (QJsonObject{{"kind", ".subckt"}, {"name", "GATE_DRV"}, {"start", 238}, {"end", 318},
                                               {"line", 11}, {"lineOffset", 10}}));
    // The header's labels stand over their columns: on the left over a text, on the right over a number.
    QStringList rebuilt{QStringLiteral("%1 %2 %3 %4 %5 %6")
                            .arg("kind", -8)
                            .arg("name", -24)
                            .arg("start", 14)
                            .arg("end", 10)
                            .arg("line", 8)
                            .arg("line-offset", 12)};
    for (const QJsonValue& d : defs)
        rebuilt << QStringLiteral("%1 %2 %3 %4 %5 %6")
                       .arg(d["kind"].toString(), -8)
                       .arg(d["name"].toString(), -24)
                       .arg(d["start"].toInt(), 14)
                       .arg(d["end"].toInt(), 10)
                       .arg(d["line"].toInt(), 8)
                       .arg(d["lineOffset"].toInt(), 12);
    rebuilt << QStringLiteral("%1 definitions").arg(defs.size());
    EXPECT_EQ(rebuilt, lines(r.out));

    const Result section = tool({"section", data("models.lib"), "--start", "238", "--end", "318", "--line-offset", "10"});
    ASSERT_EQ(section.code, 0) << section.err.toStdString();
    EXPECT_EQ(section.out, QStringLiteral("    11  .SUBCKT GATE_DRV in out  params: delay=10n\n    13  X1 in mid OPAMP\n"
                                          "    14  R2 mid out 10\n    15  .ENDS\n"));
    const Result renamed = tool({"section", data("models.lib"), "--start", "43", "--end", "93", "--line-offset", "1",
                                 "--name", "DSLOW", "--json"});
    const QJsonArray l = parseJson(renamed.out)["lines"].toArray();
    ASSERT_EQ(l.size(), 1);
    EXPECT_EQ(l[0]["line"].toInt(), 2);
    EXPECT_EQ(l[0]["text"].toString(), ".model DSLOW  D (IS=1e-14 RS=0.05  CJO=12p TT=5n)");
}

// The name column of index is as wide in characters whatever the names' bytes: names of UTF-8 letters
// keep the columns after them aligned.
TEST_F(Tool, IndexAlignsNamesByCharacters)
{
    writeFileBytes(path("u.lib"), ".model DIODE_\xc2\xb5 D (IS=1e-14)\n.model DX D (IS=1)\n.subckt R\xc3\xa9gul a b\nR1 a b 1\n.ends\n");
    const Result r = tool({"index", temp("u.lib")});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    EXPECT_EQ(r.out, QStringLiteral("kind     name                              start        end     line  line-offset\n"
                                    ".model   DIODE_\u00b5                               0         29        1            0\n"
                                    ".model   DX                                   29         48        2            1\n"
                                    ".subckt  R\u00e9gul                                48         82        3            2\n"
                                    "3 definitions\n"));
}

// A range that starts at or past the end of the file names no definition: a usage error, as a range
// that starts after its end is.
TEST_F(Tool, SectionStartingAtOrPastTheEndOfTheFileIsRefused)
{
    const qint64 size = QFileInfo(data("models.lib")).size();
    ASSERT_EQ(size, 318);
    for (const QString& start : {QStringLiteral("318"), QStringLiteral("5000")}) {
        const Result r = tool({"section", data("models.lib"), "--start", start, "--end", "6000"});
        EXPECT_EQ(r.code, 2) << start.toStdString();
        EXPECT_EQ(r.out, QString());
        EXPECT_EQ(r.err, QStringLiteral("supportqt section: --start %1 lies at or past the end of %2, which has 318 characters\n")
                             .arg(start, data("models.lib")));
    }
    // The last definition, which ends with the file, still reads.
    const Result last = tool({"section", data("models.lib"), "--start", "238", "--end", "318"});
    EXPECT_EQ(last.code, 0) << last.err.toStdString();
    EXPECT_TRUE(last.out.startsWith(QStringLiteral("     1  .SUBCKT GATE_DRV"))) << last.out.toStdString();
}

// A UTF-16 library is indexed by the characters of its UTF-8 copy: section takes those positions,
// and measures a range against that text, not against the file's bytes.
TEST_F(Tool, SectionOfAUtf16LibraryTakesThePositionsThatIndexGives)
{
    QString text = QStringLiteral("* ");
    for (int i = 0; i < 100; ++i)
        text += QChar(0x6F22);
    text += QStringLiteral("\n.model LAST PMOS\n");
    QByteArray bytes("\xFF\xFE", 2);
    bytes += QByteArray(reinterpret_cast<const char*>(text.utf16()), text.size() * 2);
    writeFileBytes(path("cjk16.lib"), bytes.toStdString());
    ASSERT_EQ(bytes.size(), 242);
    const Result index = tool({"index", temp("cjk16.lib"), "--json"});
    ASSERT_EQ(index.code, 0) << index.err.toStdString();
    const QJsonArray defs = parseJson(index.out)["definitions"].toArray();
    ASSERT_EQ(defs.size(), 1);
    EXPECT_EQ(defs[0].toObject(), (QJsonObject{{"kind", ".model"}, {"name", "LAST"}, {"start", 303}, {"end", 320},
                                               {"line", 2}, {"lineOffset", 1}}));
    const Result section = tool({"section", temp("cjk16.lib"), "--start", "303", "--end", "320", "--line-offset", "1"});
    EXPECT_EQ(section.code, 0) << section.err.toStdString();
    EXPECT_EQ(section.out, QStringLiteral("     2  .model LAST PMOS\n"));
    const Result past = tool({"section", temp("cjk16.lib"), "--start", "320", "--end", "400"});
    EXPECT_EQ(past.code, 2);
    EXPECT_EQ(past.err, QStringLiteral("supportqt section: --start 320 lies at or past the end of %1, which has 320 characters\n")
                            .arg(temp("cjk16.lib")));
}

TEST_F(Tool, CorpusLibrariesIndexAndReadBack)
{
    const QString corpus = corpusDir() + QStringLiteral("/netlists");
    if (!QDir(corpus).exists())
        GTEST_SKIP() << "the shared netlist corpus is absent (" << corpus.toStdString() << "; set SUPPORTQT_CORPUS_DIR to use one elsewhere)";
    int libraries = 0, checked = 0;
#ifdef Q_OS_WIN
    // Each start of the tool costs a Windows process under Wine: every eighth file there, every file
    // on the other systems.
    const int stride = 8;
#else
    const int stride = 1;
#endif
    QStringList files;
    QDirIterator it(corpus, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext())
        files << it.next();
    files.sort();
    for (int n = 0; n < files.size(); n += stride) {
        const QString file = files[n];
        const Result netlist = tool({"netlist", file});
        EXPECT_EQ(netlist.code, 0) << file.toStdString();
        const Result index = tool({"index", file, "--json"});
        ASSERT_EQ(index.code, 0) << file.toStdString();
        const QJsonArray defs = parseJsonQt(index.out)["definitions"].toArray();
        if (defs.isEmpty())
            continue;
        ++libraries;
        // The first and the last definition of each library read back through the section reader.
        for (const QJsonValue& d : {defs.first(), defs.last()}) {
            const Result section = tool({"section", file, "--start", QString::number(d["start"].toInt()), "--end",
                                         QString::number(d["end"].toInt()), "--line-offset",
                                         QString::number(d["lineOffset"].toInt()), "--json"});
            ASSERT_EQ(section.code, 0);
            const QJsonArray l = parseJsonQt(section.out)["lines"].toArray();
            ASSERT_FALSE(l.isEmpty()) << file.toStdString() << " " << d["name"].toString().toStdString();
            const QString first = l[0]["text"].toString();
            EXPECT_TRUE(first.startsWith(d["kind"].toString(), Qt::CaseInsensitive)) << first.toStdString();
            EXPECT_TRUE(first.mid(d["kind"].toString().size()).trimmed().startsWith(d["name"].toString()))
                << first.toStdString();
            EXPECT_EQ(l[0]["line"].toInt(), d["line"].toInt()) << file.toStdString();
            ++checked;
        }
    }
    EXPECT_GT(libraries, 0);
    std::printf("%d corpus libraries, %d definitions read back\n", libraries, checked);
}

// ---------------------------------------------------------------- controls

TEST_F(Tool, ControlsShowsTheSettingsAndWritesThemBack)
{
    const Result r = tool({"controls", example("netlists/buck_converter.cir"), "--compile"});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    const QStringList l = lines(r.out);
    EXPECT_EQ(l[0], "name                                 type     given    value");
    EXPECT_TRUE(l.contains("TSTOP                                real     given    2m"));
    EXPECT_TRUE(l.contains("TRIG_GATE                            text     given    gate_hi"));
    EXPECT_TRUE(l.contains("PSP_NPT                              integer  given    101"));
    EXPECT_TRUE(l.contains("POP_SHOWDATA                         flag     given    true"));
    EXPECT_TRUE(l.contains("PPT_STOP_TIME                        real     not set  "));
    EXPECT_TRUE(l.contains("  .ac     present  commented out"));
    EXPECT_TRUE(l.contains("  .pop    present  enabled"));
    const int written = l.indexOf("written back:");
    ASSERT_GT(written, 0);
    const int kept = l.indexOf("kept for the main simulator:");
    EXPECT_EQ(l[kept + 1], "  .tran 10n 2m 1m");
    EXPECT_EQ(l.mid(written + 1), (QStringList{"*.ac DEC 20 100 1meg", ".print", "+ ALL", ".options", "+ PSP_NPT=101",
                                               "+ POP_ITRMAX=30", "+ POP_OUTPUT_CYCLES=5", "+ POP_SHOWDATA",
                                               "+ SNAPSHOT_INTVL=0", "+ MIN_AVG_TOPOLOGY_DUR=1e-18",
                                               "+ AVG_TOPOLOGY_DUR_MEASUREMENT_WINDOW=128", ".pop", "+ TRIG_GATE=gate_hi",
                                               "+ TRIG_COND=0_TO_1", "+ MAX_PERIOD=2.2u", "+ CONVERGENCE=10f",
                                               "+ CYCLES_BEFORE_LAUNCH=5", "+ TD_RUN_AFTER_POP_FAILS=-1", ".tran 2m 1m"}));

    // What was written back reads to the same settings.
    const QString block = temp("controls.cir");
    QStringList back = l.mid(written + 1);
    writeFileBytes(block.toStdString(), (back.join('\n') + '\n').toStdString());
    const QJsonObject first = parseJson(tool({"controls", example("netlists/buck_converter.cir"), "--json"}).out);
    const QJsonObject second = parseJson(tool({"controls", block, "--block", "--json"}).out);
    EXPECT_EQ(byName(first["params"].toArray()), byName(second["params"].toArray()));
    EXPECT_EQ(first["statements"], second["statements"]);
}

// A zero byte in a netlist is dropped, as the netlist reader drops it: the statements after it are read,
// from the whole netlist and with --block.
TEST_F(Tool, ControlsReadPastAZeroByte)
{
    // (Not "nul.cir": Windows takes NUL with any extension for its null device.)
    const QString file = temp("zero-byte.cir");
    writeFileBytes(file.toStdString(), std::string("R1 a b 1k\n.tran 1m \0\n* a note \0 here\n.options POP_ITRMAX=3\n", 59));
    for (const QStringList& arguments : {QStringList{"controls", file}, QStringList{"controls", file, "--block"}}) {
        const Result r = tool(arguments);
        EXPECT_EQ(r.code, 0) << r.err.toStdString();
        QString row;
        for (const QString& line : r.out.split('\n'))
            if (line.startsWith("POP_ITRMAX "))
                row = line.simplified();
        EXPECT_EQ(row, "POP_ITRMAX integer given 3") << arguments.join(' ').toStdString();
    }
}

// The netlist is read as the netlist reader reads it: a byte 0xFF ends it, a later lone carriage return
// ends a line though the first line end is CR LF, and bytes of another encoding pass as they are.
TEST_F(Tool, ControlsReadTheNetlistAsTheReaderDoes)
{
    const auto popRow = [](const QString& out) {
        for (const QString& line : out.split('\n'))
            if (line.trimmed().startsWith(".pop "))
                return line.simplified();
        return QString();
    };
    writeFileBytes(temp("ff.cir").toStdString(), "T\n.tran 1m 2m\n\xFF\n.pop TRIG_GATE=x\n");
    EXPECT_EQ(popRow(tool({"controls", temp("ff.cir")}).out), ".pop absent enabled");
    writeFileBytes(temp("mixed.cir").toStdString(), "T\r\n.tran 1m 2m\r\n*c\r.pop TRIG_GATE=x\r\n");
    EXPECT_EQ(popRow(tool({"controls", temp("mixed.cir")}).out), ".pop present enabled");
    writeFileBytes(temp("latin.cir").toStdString(), "T\n.pop TRIG_GATE=g\xE9\n");
    QProcess latin;
    latin.start(QStringLiteral(SUPPORTQT_TOOL_PATH), {"controls", temp("latin.cir"), "--compile"});
    ASSERT_TRUE(latin.waitForFinished(60000));
    EXPECT_EQ(latin.exitCode(), 0);
    EXPECT_TRUE(latin.readAllStandardOutput().contains("+ TRIG_GATE=g\xE9\n"));
}

TEST_F(Tool, ControlsJsonCarriesTheSameValuesAsTheText)
{
    const Result text = tool({"controls", example("netlists/buck_converter.cir"), "--compile"});
    const QJsonObject o = parseJson(tool({"controls", example("netlists/buck_converter.cir"), "--compile", "--json"}).out);
    const QJsonArray params = o["params"].toArray();
    ASSERT_EQ(params.size(), 48);
    const QStringList l = lines(text.out);
    for (int i = 0; i < params.size(); ++i) {
        const QJsonObject p = params[i].toObject();
        const QString row = l[i + 1];
        EXPECT_EQ(row.left(36).trimmed(), p["name"].toString());
        EXPECT_EQ(row.mid(37, 8).trimmed(), p["type"].toString());
        EXPECT_EQ(row.mid(46, 7).trimmed(), p["origin"].toString());
        EXPECT_EQ(p["given"].toBool(), p["origin"].toString() == "given");
        EXPECT_EQ(row.mid(55), p["text"].toString());
        const QJsonValue v = p["value"];
        EXPECT_EQ(v.isNull(), p["origin"].toString() == "not set") << p["name"].toString().toStdString();
        if (v.isBool() && p["type"].toString() == "flag") {
            EXPECT_EQ(p["text"].toString(), v.toBool() ? "true" : "false");
        } else if (v.isString()) {
            EXPECT_EQ(p["text"].toString(), v.toString());
        } else if (v.isDouble() && p["type"].toString() == "real") {
            EXPECT_NEAR(sp_ConvertEngToReal(p["text"].toString().toUtf8().constData(), nullptr), v.toDouble(),
                        std::fabs(v.toDouble()) * 1e-5)
                << p["name"].toString().toStdString();
        }
    }
    EXPECT_TRUE(text.out.endsWith("written back:\n" + o["compiled"].toString()));
    EXPECT_EQ(o["kept"].toObject()["main"].toString(), ".tran 10n 2m 1m\n");
}

TEST_F(Tool, ControlsShowWhatTheDesignerWroteAndWhereEachValueCameFrom)
{
    const Result r = tool({"controls", example("netlists/buck_converter.cir")});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    const QStringList l = lines(r.out);
    // As written: "2m", "0_to_1", "2.2u" and the 101 points of the .options line (the settings keep 100
    // intervals). Defaults in engineering notation and by choice name, as they would be written back.
    EXPECT_EQ(l.mid(0, 16), (QStringList{"name                                 type     given    value",
                                         "TSTOP                                real     given    2m",
                                         "TSAVE                                real     given    1m",
                                         "TRIG_GATE                            text     given    gate_hi",
                                         "TRIG_COND                            choice   given    0_to_1",
                                         "MAX_PERIOD                           real     given    2.2u",
                                         "PSP_NPT                              integer  given    101",
                                         "POP_ITRMAX                           integer  given    30",
                                         "POP_SHOWDATA                         flag     given    true",
                                         "SWEEP_TYPE                           choice   given    DEC",
                                         "N_PT                                 integer  given    20",
                                         "START_FREQ                           real     given    100",
                                         "STOP_FREQ                            real     given    1meg",
                                         "ALL                                  flag     given    true",
                                         "PSP_START                            real     default  1m",
                                         "PSP_END                              real     default  2m"}));
    EXPECT_TRUE(l.contains("POP_OUTPUT_CYCLES                    integer  default  5"));
    EXPECT_TRUE(l.contains("FREQ_DOMAIN                          choice   default  S"));
    EXPECT_TRUE(l.contains("SWEEP_PARAM_DEPTH                    choice   default  TOP"));
    EXPECT_TRUE(l.contains("CONVERGENCE                          real     default  10f"));
    EXPECT_TRUE(l.contains("MIN_AVG_TOPOLOGY_DUR                 real     default  1e-18"));
    EXPECT_TRUE(l.contains("NODE_V                               flag     default  false"));
    EXPECT_TRUE(l.contains("SNAPSHOT_NPT                         integer  not set  "));

    const QJsonObject json = byNameAll(parseJson(tool({"controls", example("netlists/buck_converter.cir"), "--json"}).out));
    EXPECT_EQ(json["PSP_NPT"].toObject(), (QJsonObject{{"name", "PSP_NPT"}, {"type", "integer"}, {"given", true},
                                                       {"origin", "given"}, {"value", 100}, {"text", "101"}}));
    EXPECT_EQ(json["TRIG_COND"].toObject(), (QJsonObject{{"name", "TRIG_COND"}, {"type", "choice"}, {"given", true},
                                                         {"origin", "given"}, {"value", 0}, {"text", "0_to_1"}}));
    EXPECT_EQ(json["FREQ_DOMAIN"].toObject(), (QJsonObject{{"name", "FREQ_DOMAIN"}, {"type", "choice"}, {"given", false},
                                                           {"origin", "default"}, {"value", 0}, {"text", "S"}}));
    EXPECT_EQ(json["EMSG_MAX"].toObject(), (QJsonObject{{"name", "EMSG_MAX"}, {"type", "integer"}, {"given", false},
                                                        {"origin", "not set"}, {"value", QJsonValue()}, {"text", ""}}));

    // The block written back reads as given, in the compiler's spelling, with the same 101 points.
    const QString block = temp("back.cir");
    writeFileBytes(block.toStdString(), ".options PSP_NPT=101 FREQ_DOMAIN=Z\n.pop TRIG_COND=1_TO_0 CONVERGENCE=10f\n");
    const QStringList b = lines(tool({"controls", block, "--block"}).out);
    EXPECT_TRUE(b.contains("PSP_NPT                              integer  given    101"));
    EXPECT_TRUE(b.contains("FREQ_DOMAIN                          choice   given    Z"));
    EXPECT_TRUE(b.contains("TRIG_COND                            choice   given    1_TO_0"));
    EXPECT_TRUE(b.contains("CONVERGENCE                          real     given    10f"));
    EXPECT_TRUE(b.contains("SWEEP_PARAM_DEPTH                    choice   default  TOP"));
}

// ---------------------------------------------------------------- results, validate, append-merit

TEST_F(Tool, ResultsSummaryWithStatistics)
{
    const Result r = tool({"results", data("stats.msw")});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    // Values 2, 1, 4 and 9: mean 4, sample deviation sqrt(38/3) = 3.559026..., skewness 22.5 / 9.5^1.5 =
    // 0.7684172..., excess kurtosis 180.5 / 90.25 - 3 = -1; six significant digits in engineering notation.
    EXPECT_EQ(lines(r.out), (QStringList{"file: " + data("stats.msw"), "title: four runs", "date: 2026-11-22",
                                         "analysis: .mc 4 tran", "group: g1", "cores: 2", "runs: 4",
                                         "parameters: R1.R, C1.C", "", "merit functions:",
                                         "name  count  mean   stddev  min  max  skewness  kurtosis  nominal",
                                         "vmax      4     4  3.55903    1    9  768.417m        -1        2",
                                         "vmin      4    -1        0   -1   -1       n/a       n/a       -1",
                                         "", "definitions:", "  vmax  max(v(out))", "  vmin  min(v(out))", "",
                                         "(each run's values: --runs, or --runs=CASE,... for some)"}));
    EXPECT_EQ(tool({"results", data("stats.msw"), "--stats-only"}).out, r.out);

    const QStringList l = lines(tool({"results", data("stats.msw"), "--runs"}).out);
    const int runs = l.indexOf(QRegularExpression("^runs \\(norm is .*"));
    ASSERT_GT(runs, 0);
    EXPECT_EQ(l.mid(0, 17), lines(r.out).mid(0, 17));
    EXPECT_EQ(l.mid(runs + 2, 6), (QStringList{"case 1: Run=1  seed 11",
                                               "  vmax  value 2  delta 0  norm 0  valid",
                                               "  vmin  value -1  delta 0  norm 0  valid",
                                               "case 2: Run=2  seed 12",
                                               "  vmax  value 1  delta -1  norm -100  valid",
                                               "  vmin  value -1  delta 0  norm 0  valid"}));
    EXPECT_TRUE(l.contains("case 3: third  seed 13"));
    EXPECT_TRUE(l.contains("case 4: Ref: C1  seed 14"));
    EXPECT_TRUE(l.contains("  vmax  value 9  delta 7  norm 7.77778  valid"));
    EXPECT_TRUE(l.contains("  parameter C1.C nominal 1n used 1.1n"));
    EXPECT_TRUE(l.contains("  parameter R1.R nominal 1k used 990 tolerance 50m"));

    // Some runs only; every digit; fewer digits.
    const QStringList some = lines(tool({"results", data("stats.msw"), "--runs=4,2", "--exact"}).out);
    EXPECT_FALSE(some.contains("case 1: Run=1  seed 11"));
    EXPECT_TRUE(some.contains("case 2: Run=2  seed 12"));
    EXPECT_TRUE(some.contains("  vmax  value 9  delta 7  norm 7.777777777777789  valid"));
    EXPECT_TRUE(some.contains("  parameter C1.C nominal 1e-09 used 1.1e-09"));
    EXPECT_EQ(some[11].split(' ', Qt::SkipEmptyParts)[3].toDouble(), std::sqrt(38.0 / 3.0));
    EXPECT_EQ(lines(tool({"results", data("stats.msw"), "--precision", "3"}).out)[11],
              "vmax      4     4    3.56    1    9      768m        -1        2");
    const Result noCase = tool({"results", data("stats.msw"), "--runs=7"});
    EXPECT_EQ(noCase.code, 1);
    EXPECT_EQ(noCase.err, "supportqt results: " + data("stats.msw") + " has no case 7\n");
    EXPECT_EQ(tool({"results", data("stats.msw"), "--runs=x"}).code, 2);
    EXPECT_EQ(tool({"results", data("stats.msw"), "--precision", "18"}).code, 2);

    // A Monte Carlo run set's table fits 120 columns; its runs say what "inconsistent" means once.
    const QStringList mc = lines(tool({"results", example("results/buck_montecarlo.msw")}).out);
    EXPECT_EQ(mc.filter(QRegularExpression("^case ")).size(), 0); // the runs only when asked
    for (const QString& line : mc)
        EXPECT_LE(line.size(), 120) << line.toStdString();
    const QString mcRuns = tool({"results", example("results/buck_montecarlo.msw"), "--runs=2"}).out;
    EXPECT_EQ(mcRuns.count("n/a: several parameters moved"), 4);
    EXPECT_EQ(mcRuns.count("as every Monte Carlo run does"), 1);
    EXPECT_FALSE(mcRuns.contains("inconsistent"));
}

TEST_F(Tool, ResultsJsonCarriesTheSameValuesAsTheText)
{
    for (const QString& file : {data("stats.msw"), example("results/buck_sensitivity.msw"), example("results/buck_montecarlo.msw")}) {
        const QStringList l = lines(tool({"results", file, "--runs", "--exact"}).out);
        const QJsonObject o = parseJson(tool({"results", file, "--json", "--runs"}).out);
        EXPECT_FALSE(parseJson(tool({"results", file, "--json"}).out).contains("runs"));
        EXPECT_EQ("title: " + o["header"]["title"].toString(), l[1]);
        EXPECT_EQ(QStringLiteral("runs: %1").arg(o["runCount"].toInt()), l[6]);
        const QJsonArray merits = o["meritFunctions"].toArray();
        for (int m = 0; m < merits.size(); ++m) {
            const QStringList cells = l[11 + m].split(' ', Qt::SkipEmptyParts);
            const QJsonObject s = merits[m]["statistics"].toObject();
            ASSERT_EQ(cells.size(), 9);
            EXPECT_EQ(cells[0], merits[m]["name"].toString());
            EXPECT_EQ(cells[1].toInt(), s["count"].toInt());
            int column = 2;
            for (const char* key : {"mean", "stddev", "min", "max", "skewness", "kurtosis", "nominal"}) {
                const QJsonValue v = s[QLatin1String(key)];
                if (v.isNull())
                    EXPECT_EQ(cells[column], "n/a") << key;
                else
                    EXPECT_EQ(cells[column].toDouble(), v.toDouble()) << key << " of " << cells[0].toStdString();
                ++column;
            }
            EXPECT_EQ(l.filter(QRegularExpression("^  " + QRegularExpression::escape(cells[0]) + " +" +
                                                  QRegularExpression::escape(merits[m]["value"].toString()) + "$")).size(), 1);
        }
        // Every run's values as the text shows them; the statuses in words.
        const QMap<QString, QString> words{{"valid", "valid"}, {"not finite", "not finite"},
                                           {"division by zero", "n/a: no parameter moved, or the value is 0"},
                                           {"inconsistent", "n/a: several parameters moved"}, {"unset", "not computed"}};
        const QJsonArray runs = o["runs"].toArray();
        int at = l.indexOf(QRegularExpression("^runs \\(norm is .*")) + 2;
        for (const QJsonValue& run : runs) {
            EXPECT_TRUE(l[at].startsWith(QStringLiteral("case %1: ").arg(run["case"].toInt()))) << l[at].toStdString();
            ++at;
            for (const QJsonValue& v : run["values"].toArray()) {
                const QStringList cells = l[at++].split(' ', Qt::SkipEmptyParts);
                EXPECT_EQ(cells[2].toDouble(), v["value"].toDouble());
                EXPECT_EQ(cells[4].toDouble(), v["delta"].toDouble());
                EXPECT_EQ(cells[6].toDouble(), v["norm"].toDouble());
                EXPECT_EQ(cells.mid(7).join(' '), words.value(v["status"].toString()));
            }
            at += run["parameters"].toArray().size();
        }
        EXPECT_EQ(at, l.size());
    }
}

TEST_F(Tool, ProgressLineOnlyOnATerminalAndOnlyForLargeFiles)
{
    // A results file of 10,001 runs, written by the library.
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    header.meritFunctions.at(0).name = "m";
    for (int c = 1; c <= 10001; ++c) {
        XMLReportInfo info(c);
        info.values.at(0).value = c;
        table.insert(info);
    }
    const QString big = temp("big.msw");
    ASSERT_TRUE(sp_WriteMswFile(toYs(big), table, header));
    const Result plain = tool({"results", big, "--stats-only"});
    EXPECT_EQ(plain.code, 0);
    EXPECT_TRUE(plain.err.isEmpty());
    // Under a pseudo-terminal (script) standard error is a terminal. (A Windows build checks its console
    // case in the host-side test WindowsTool.ProgressLineOnAConsole, which runs it under script.)
    SUPPORTQT_SKIP_UNLESS_PEER_RUNS("script");
    const Result shown = onTerminal(QStringLiteral("'%1' results '%2' --stats-only").arg(SUPPORTQT_TOOL_PATH, big));
    EXPECT_EQ(shown.code, 0);
    EXPECT_TRUE(shown.out.contains("supportqt: reading " + big + " (10001 runs) ... 0 s")) << shown.out.toStdString();
    EXPECT_TRUE(shown.out.contains("runs: 10001"));
    const Result small = onTerminal(QStringLiteral("'%1' results '%2' --stats-only").arg(SUPPORTQT_TOOL_PATH, data("stats.msw")));
    EXPECT_FALSE(small.out.contains("supportqt: reading"));
}

TEST_F(Tool, ProgressLineWhileConvertingMoreThan64MiB)
{
    const QString big = temp("big.cir");
    {
        QFile file(big);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        const QByteArray line("R1 node_a node_b 1k ; a line of a large netlist, written to pass 64 MiB\n");
        QByteArray block;
        while (block.size() < (1 << 20))
            block += line;
        for (int i = 0; i < 65; ++i)
            ASSERT_EQ(file.write(block), block.size());
    }
    SUPPORTQT_SKIP_UNLESS_PEER_RUNS("script");
    const Result r = onTerminal(QStringLiteral("'%1' text convert '%2' -o '%3' --to UTF-16LE").arg(SUPPORTQT_TOOL_PATH, big, temp("wide.cir")));
    EXPECT_EQ(r.code, 0);
    EXPECT_TRUE(r.out.contains(QStringLiteral("supportqt: converting %1 (%2 MiB) ... 0 s").arg(big).arg(QFileInfo(big).size() >> 20)))
        << r.out.left(300).toStdString();
    // Two bytes a character, after the byte-order mark that the codec writes first.
    EXPECT_EQ(QFileInfo(temp("wide.cir")).size(), 2 + 2 * QFileInfo(big).size());
    const Result piped = tool({"text", "convert", big, "-o", temp("copy.cir")});
    EXPECT_EQ(piped.code, 0);
    EXPECT_TRUE(piped.err.isEmpty());
}

// An error met while the progress line is shown starts a line of its own: the progress line is cleared
// before it, not continued by it.
TEST_F(Tool, AnErrorUnderTheProgressLineStartsALineOfItsOwn)
{
    // A results file of 200,000 runs (large enough for its reading to outlast the first drawing of the
    // progress line) that lacks its closing tag: it fails to load once its runs were counted.
    std::string text = "<?xml version=\"1.0\"?>\n<msw version=\"1.0\" rev=\"1\">\n<header analysis=\".mc\" title=\"t\" />\n"
                       "<meritfunction value=\"x\" name=\"m\">\n";
    for (int c = 1; c <= 200000; ++c)
        text += "<sensval case=\"" + std::to_string(c) + "\" value=\"" + std::to_string(c) + "\" />\n";
    text += "</meritfunction>\n<steps>\n";
    for (int c = 1; c <= 200000; ++c)
        text += "<step case=\"" + std::to_string(c) + "\" seed=\"" + std::to_string(c) +
                "\"><parameter name=\"R1.R\" nom=\"1000\" usedvalue=\"1010\" /></step>\n";
    text += "</steps>\n";
    const QString big = temp("cut.msw");
    writeFileBytes(big.toStdString(), text);
    SUPPORTQT_SKIP_UNLESS_PEER_RUNS("script");
    const Result r = onTerminal(QStringLiteral("'%1' results '%2'").arg(SUPPORTQT_TOOL_PATH, big));
    EXPECT_EQ(r.code, 1);
    ASSERT_TRUE(r.out.contains("supportqt: reading " + big + " (200000 runs) ... 0 s")) << r.out.toStdString();
    const QString error = "supportqt results: the results file " + big + " does not load";
    const int at = r.out.indexOf(error);
    ASSERT_GT(at, 0) << r.out.toStdString();
    EXPECT_EQ(r.out.mid(at - 4, 4), QStringLiteral("\r\x1b[K")) << r.out.toStdString();
    EXPECT_EQ(r.out.count(error), 1);
}

TEST_F(Tool, ValidateAgainstTheInstalledSchema)
{
    for (const char* name : {"results/buck_sensitivity.msw", "results/buck_montecarlo.msw", "results/buck_worstcase.msw"}) {
        const Result r = tool({"validate", example(name)});
        EXPECT_EQ(r.code, 0) << r.out.toStdString() << r.err.toStdString();
        EXPECT_EQ(r.out, example(name) + ": valid\n");
    }
    // The fault is placed as FILE:LINE:COLUMN, line 7 being <sensval case="3" value="four" />.
    const Result bad = tool({"validate", data("breaks_schema.msw")});
    EXPECT_EQ(bad.code, 3);
    EXPECT_EQ(bad.out, data("breaks_schema.msw") + ":7:35: not valid: Content of attribute value does not match its type "
                                                   "definition: String content is not listed in the enumeration facet..\n");
    const QJsonObject o = parseJson(tool({"validate", data("breaks_schema.msw"), "--json"}).out);
    EXPECT_EQ(o["status"].toInt(), 1);
    EXPECT_EQ(o["verdict"].toString(), "not valid");
    EXPECT_EQ(o["at"].toString(), data("breaks_schema.msw"));
    EXPECT_EQ(o["line"].toInt(), 7);
    EXPECT_EQ(o["column"].toInt(), 35);
    EXPECT_EQ(data("breaks_schema.msw") + ":7:35: not valid: " + o["message"].toString() + "\n", bad.out);
    const QJsonObject fine = parseJson(tool({"validate", data("stats.msw"), "--json"}).out);
    EXPECT_TRUE(fine["line"].isNull());
    EXPECT_TRUE(fine["at"].isNull());
    // Standard input is "-" there too.
    const Result piped = runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), {"validate", "-"}, QString(),
                                    QByteArray::fromStdString(readFileBytes(data("breaks_schema.msw").toStdString())));
    EXPECT_EQ(piped.code, 3);
    EXPECT_TRUE(piped.out.startsWith("-:7:35: not valid: Content of attribute value")) << piped.out.toStdString();

    // A schema that is none: the place in the schema, on standard error.
    const QString notSchema = temp("not.xsd");
    writeFileBytes(notSchema.toStdString(), "<nothing/>");
    const Result badSchema = tool({"validate", data("stats.msw"), "--schema", notSchema});
    EXPECT_EQ(badSchema.code, 1);
    EXPECT_EQ(badSchema.err, "supportqt validate: " + notSchema + ":1:10: Document is not a XML schema.\n");
    // xmllint finds the fault on the same line.
    SUPPORTQT_SKIP_UNLESS_PEER_RUNS("xmllint");
    EXPECT_EQ(runProgram("xmllint", {"--noout", "--schema", SUPPORTQT_SCHEMA_DIR "/msw.xsd", data("stats.msw")}).code, 0);
    const Result lint = runProgram("xmllint", {"--noout", "--schema", SUPPORTQT_SCHEMA_DIR "/msw.xsd", data("breaks_schema.msw")});
    EXPECT_NE(lint.code, 0);
    EXPECT_TRUE(lint.err.startsWith(data("breaks_schema.msw") + ":7: element sensval")) << lint.err.toStdString();
    const Result noSchema = tool({"validate", data("stats.msw"), "--schema", temp("none.xsd")});
    EXPECT_EQ(noSchema.code, 1);
    EXPECT_EQ(noSchema.err, "supportqt validate: The file " + temp("none.xsd") + " does not exist\n");
}

#ifndef Q_OS_WIN
// A FIFO that no one writes is refused at once by the commands that read a whole results file, with one
// line on standard error naming it as it was given.
TEST_F(Tool, AFifoIsRefusedWithoutWaiting)
{
    const QString fifo = temp("r.fifo");
    ASSERT_EQ(::mkfifo(fifo.toLocal8Bit().constData(), 0600), 0);
    const QString results = example("results/buck_sensitivity.msw");
    struct Case {
        QStringList arguments;
        QString err;
    };
    for (const Case& c : {Case{{"results", fifo}, "supportqt results: the results file " + fifo + " does not load: it is not a regular file\n"},
                          Case{{"stats", fifo}, "supportqt stats: the results file " + fifo + " does not load: it is not a regular file\n"},
                          Case{{"validate", fifo}, "supportqt validate: " + fifo + ": Could not open xml file\n"},
                          Case{{"validate", results, "--schema", fifo}, "supportqt validate: " + fifo + ": Could not open schema file\n"}}) {
        QProcess process;
        process.start(QStringLiteral(SUPPORTQT_TOOL_PATH), c.arguments);
        ASSERT_TRUE(process.waitForStarted(30000));
        const bool finished = process.waitForFinished(20000);
        EXPECT_TRUE(finished) << c.arguments.join(' ').toStdString() << " waited on the FIFO";
        if (!finished) {
            process.kill();
            process.waitForFinished(5000);
            continue;
        }
        EXPECT_EQ(process.exitCode(), 1) << c.arguments.join(' ').toStdString();
        EXPECT_EQ(QString::fromUtf8(process.readAllStandardError()), c.err);
        EXPECT_TRUE(process.readAllStandardOutput().isEmpty());
    }
}
#endif

TEST_F(Tool, AppendMeritAddsAFunctionOrLeavesTheFileAsItWas)
{
    const QString file = temp("sens.msw");
    ASSERT_TRUE(QFile::copy(example("results/buck_sensitivity.msw"), file));
    QFile::setPermissions(file, QFile::ReadOwner | QFile::WriteOwner);
    const QString csv = temp("loss.csv");
    writeFileBytes(csv.toStdString(), "case,value\n1,0.5\n2,0.51\n3,0.49\n4,0.5\n5,0.5\n6,0.52\n7,0.48\n8,0.5\n");
    const Result r = tool({"append-merit", file, "--value", "avg(p(S1))", "--name", "loss", "--data", csv});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    EXPECT_EQ(r.out, "added merit function loss with 8 values to " + file + "\n");
    const QJsonObject o = parseJson(tool({"results", file, "--json"}).out);
    const QJsonArray merits = o["meritFunctions"].toArray();
    ASSERT_EQ(merits.size(), 5);
    EXPECT_EQ(merits[4]["name"].toString(), "loss");
    EXPECT_EQ(merits[4]["value"].toString(), "avg(p(S1))");
    EXPECT_EQ(merits[4]["statistics"]["nominal"].toDouble(), 0.5);
    EXPECT_EQ(merits[4]["statistics"]["max"].toDouble(), 0.52);
    if (hostPeerRuns("xmllint")) {
        EXPECT_EQ(runProgram("xmllint", {"--noout", "--schema", SUPPORTQT_SCHEMA_DIR "/msw.xsd", file}).code, 0);
    }

    const std::string before = readFileBytes(file.toStdString());
    const QString missingCase = temp("missing.csv");
    writeFileBytes(missingCase.toStdString(), "1,1\n99,2\n");
    const Result missing = tool({"append-merit", file, "--value", "x", "--name", "x", "--data", missingCase});
    EXPECT_EQ(missing.code, 1);
    EXPECT_EQ(missing.err, "supportqt append-merit: case 99 is not in " + file + "\n");
    const QString twice = temp("twice.csv");
    writeFileBytes(twice.toStdString(), "1,1\n1,2\n");
    const Result duplicate = tool({"append-merit", file, "--value", "x", "--name", "x", "--data", twice});
    EXPECT_EQ(duplicate.code, 1);
    EXPECT_EQ(duplicate.err, "supportqt append-merit: " + twice + " line 2: case 1 is given twice\n");
    const QString garbage = temp("garbage.csv");
    writeFileBytes(garbage.toStdString(), "1,1\n2,abc\n");
    const Result bad = tool({"append-merit", file, "--value", "x", "--name", "x", "--data", garbage});
    EXPECT_EQ(bad.code, 1);
    EXPECT_EQ(bad.err, "supportqt append-merit: " + garbage + " line 2: expected \"case,value\", found \"2,abc\"\n");
    // A first line whose first field is a number is data, even when it is no case number.
    for (const char* first : {"1.0,5", "3000000000,5"}) {
        const QString numeric = temp("numeric.csv");
        writeFileBytes(numeric.toStdString(), std::string(first) + "\n2,7\n");
        const Result header = tool({"append-merit", file, "--value", "x", "--name", "x", "--data", numeric});
        EXPECT_EQ(header.code, 1) << first;
        EXPECT_EQ(header.err, "supportqt append-merit: " + numeric + " line 1: expected \"case,value\", found \"" + first + "\"\n");
    }
    const Result noData = tool({"append-merit", file, "--value", "x", "--name", "x"});
    EXPECT_EQ(noData.code, 2);
    EXPECT_EQ(noData.err, QStringLiteral("supportqt append-merit: --data is required\n"));
    // A control character, which the file cannot hold, would be left out of the name or text given.
    const QString good = temp("good.csv");
    writeFileBytes(good.toStdString(), "1,5\n");
    const Result controlName = tool({"append-merit", file, "--value", "x", "--name", QStringLiteral("a\u0001b"), "--data", good});
    EXPECT_EQ(controlName.code, 2);
    EXPECT_EQ(controlName.err, QStringLiteral("supportqt append-merit: --name holds a control character, which a results file cannot hold\n"));
    const Result controlValue = tool({"append-merit", file, "--value", QStringLiteral("v\u001Fal"), "--name", "y", "--data", good});
    EXPECT_EQ(controlValue.code, 2);
    EXPECT_EQ(controlValue.err, QStringLiteral("supportqt append-merit: --value holds a control character, which a results file cannot hold\n"));
    EXPECT_EQ(readFileBytes(file.toStdString()), before);
#ifndef Q_OS_WIN
    // Windows files have no permission bits for other users: there is nothing of them to keep.
    EXPECT_EQ(QFile::permissions(file) & (QFile::ReadOwner | QFile::WriteOwner | QFile::ReadOther),
              QFile::ReadOwner | QFile::WriteOwner);
#endif
}

// ---------------------------------------------------------------- reports and charts

TEST_F(Tool, ReportsAreTheLibrarysOwn)
{
    const QString results = example("results/buck_sensitivity.msw");
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    ASSERT_TRUE(sp_CompileSensReportData(toYs(results), &table, &header));

    const Result sens = tool({"report", "sens", results, "-o", temp("sens.html"), "--sort", "4"});
    ASSERT_EQ(sens.code, 0) << sens.err.toStdString();
    EXPECT_EQ(sens.out, "wrote " + temp("sens.html") + "\n");
    ASSERT_TRUE(sp_BuildHTMLSensitivityReport(toYs(temp("direct.html")), YString(), table, header, 4));
    EXPECT_EQ(readFileBytes(path("sens.html")), readFileBytes(path("direct.html")));

    const Result csv = tool({"report", "csv", results, "-o", temp("sens.csv"), "--sort", "1"});
    ASSERT_EQ(csv.code, 0);
    YArray<YString> csvLines;
    sp_BuildCsvSensitivityReport(&csvLines, table, header, 1);
    std::string expected;
    for (const YString& line : csvLines)
        expected += line.str() + "\n";
    EXPECT_EQ(readFileBytes(path("sens.csv")), expected);
    // python's csv module reads one header row and one row per run, each as wide as the header.
    if (hostPeerRuns("python3")) {
        const Result rows = runProgram("python3", {"-c", "import csv,sys; r=list(csv.reader(open(sys.argv[1]))); "
                                                         "print(len(r), len({len(x) for x in r}))", temp("sens.csv")});
        EXPECT_EQ(rows.out, QStringLiteral("%1 1\n").arg(table.count() + 1));
    }

    const QString mc = example("results/buck_montecarlo.msw");
    YHashTable<XMLReportInfo> mcTable;
    XMLReportHeader mcHeader;
    ASSERT_TRUE(sp_CompileSensReportData(toYs(mc), &mcTable, &mcHeader));
    ASSERT_EQ(tool({"report", "mc", mc, "-o", temp("mc.html")}).code, 0);
    ASSERT_TRUE(sp_BuildMonteCarloHTMLReport(toYs(temp("mc-direct.html")), YString(), mcTable, mcHeader));
    EXPECT_EQ(readFileBytes(path("mc.html")), readFileBytes(path("mc-direct.html")));

    const QString css = temp("style.css");
    writeFileBytes(css.toStdString(), "body { color: navy; }\n");
    ASSERT_EQ(tool({"report", "wc", example("results/buck_worstcase.msw"), "-o", temp("wc.html"), "--style", css}).code, 0);
    EXPECT_NE(readFileBytes(path("wc.html")).find("body { color: navy; }"), std::string::npos);
    EXPECT_EQ(QFile::permissions(temp("wc.html")) & (QFile::ReadOwner | QFile::ReadOther), QFile::ReadOwner | QFile::ReadOther);
}

#ifndef Q_OS_WIN
// Writes that fail part way (a file-size limit that the shell sets for the tool, whose signal the tool
// ignores so that the write fails as on a full disk) are failures: the tool exits 1 and every previous
// file is exactly as it was, with no temporary file left beside it.
TEST_F(Tool, WritesThatFailPartWayLeaveThePreviousFiles)
{
    const auto limited = [&](int kib, const QStringList& arguments) {
        QString line = QStringLiteral("ulimit -f %1; exec '%2'").arg(kib).arg(SUPPORTQT_TOOL_PATH);
        for (const QString& a : arguments)
            line += " '" + a + "'";
        return runProgram(QStringLiteral("/bin/sh"), {"-c", line});
    };
    const auto files = [&] { return QDir(QString::fromStdString(m_dir)).entryList(QDir::Files | QDir::Hidden, QDir::Name); };
    writeFileBytes(path("mc.html"), "the previous log\n");
    writeFileBytes(path("sens.html"), "the previous report\n");
    writeFileBytes(path("sens.svg"), "the previous chart\n");
    std::string text;
    for (int i = 0; i < 4000; ++i)
        text += "R" + std::to_string(i) + " in out 1k ; a resistor of the ladder\n";
    writeFileBytes(path("ladder.cir"), text);
    writeFileBytes(path("ladder16.cir"), "the previous copy\n");
    const QStringList before = files();

    // The Monte Carlo log is about 270 KB.
    const Result mc = limited(64, {"report", "mc", example("results/buck_montecarlo.msw"), "-o", temp("mc.html")});
    EXPECT_EQ(mc.code, 1);
    EXPECT_EQ(mc.out, "");
    EXPECT_EQ(mc.err, "supportqt report: cannot write " + temp("mc.html") + "; it is as it was\n");
    EXPECT_EQ(readFileBytes(path("mc.html")), "the previous log\n");

    // The sensitivity report (about 3 KB) fits under 8 KiB, its chart (about 10 KB) does not: neither
    // file is replaced.
    const Result sens = limited(8, {"report", "sens", example("results/buck_sensitivity.msw"), "-o", temp("sens.html"),
                                    "--chart", temp("sens.svg")});
    EXPECT_EQ(sens.code, 1);
    EXPECT_EQ(sens.err, "supportqt report: cannot write " + temp("sens.svg") + "; " + temp("sens.html") + " is as it was\n");
    EXPECT_EQ(readFileBytes(path("sens.html")), "the previous report\n");
    EXPECT_EQ(readFileBytes(path("sens.svg")), "the previous chart\n");
    // Without the limit both are written.
    const Result sensFree = limited(100000, {"report", "sens", example("results/buck_sensitivity.msw"), "-o", temp("sens.html"),
                                             "--chart", temp("sens.svg")});
    EXPECT_EQ(sensFree.code, 0) << sensFree.err.toStdString();
    EXPECT_NE(readFileBytes(path("sens.svg")).find("<svg"), std::string::npos);
    writeFileBytes(path("sens.html"), "the previous report\n");
    writeFileBytes(path("sens.svg"), "the previous chart\n");

    // A conversion to UTF-16 of about 320 KB.
    const Result convert = limited(64, {"text", "convert", temp("ladder.cir"), "-o", temp("ladder16.cir"), "--to", "UTF-16LE"});
    EXPECT_EQ(convert.code, 1);
    EXPECT_TRUE(convert.err.startsWith("supportqt text convert: cannot write " + temp("ladder16.cir"))) << convert.err.toStdString();
    EXPECT_EQ(readFileBytes(path("ladder16.cir")), "the previous copy\n");

    // Standard input is read from a temporary copy, whose write fails here: the message says that it
    // was the copy, not the input, that failed.
    const Result piped = runProgram(QStringLiteral("/bin/sh"), {"-c", QStringLiteral("ulimit -f 64; exec '%1' netlist - < '%2'")
                                                                          .arg(SUPPORTQT_TOOL_PATH, temp("ladder.cir"))});
    EXPECT_EQ(piped.code, 1);
    EXPECT_EQ(piped.out, "");
    EXPECT_EQ(piped.err, "supportqt netlist: cannot write the temporary copy of standard input that it is read from\n");

    EXPECT_EQ(files(), before);
}
#endif

// A chart names the file's title and merit functions: control characters in them, which XML cannot hold
// even as character references, are left out of the picture, which stays well-formed.
TEST_F(Tool, AChartLeavesOutTheControlCharactersOfTheNamesItShows)
{
    std::string text = readFileBytes(example("results/buck_sensitivity.msw").toStdString());
    for (const auto& [from, to] : {std::pair<std::string, std::string>{"title=\"Buck converter sensitivity\"",
                                                                       "title=\"Buck&#1; converter\""},
                                   {"name=\"ripple\"", "name=\"rip&#2;ple&#31;\""}}) {
        const size_t at = text.find(from);
        ASSERT_NE(at, std::string::npos) << from;
        text.replace(at, from.size(), to);
    }
    writeFileBytes(path("control.msw"), text);
    const Result r = tool({"report", "sens", temp("control.msw"), "-o", temp("s.html"), "--chart", temp("s.svg")});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    const std::string svg = readFileBytes(path("s.svg"));
    EXPECT_NE(svg.find(">Normalised sensitivities: Buck converter<"), std::string::npos);
    EXPECT_NE(svg.find(">ripple = max(v(out))-min(v(out))<"), std::string::npos);
    EXPECT_EQ(svg.find_first_of(std::string("\x01\x02\x1f", 3)), std::string::npos);
    QXmlStreamReader reader(QByteArray::fromStdString(svg));
    while (!reader.atEnd())
        reader.readNext();
    EXPECT_FALSE(reader.hasError()) << reader.errorString().toStdString();
}

TEST_F(Tool, ReportUsageErrors)
{
    const QString results = example("results/buck_sensitivity.msw");
    const Result kind = tool({"report", "pdf", results, "-o", temp("x")});
    EXPECT_EQ(kind.code, 2);
    EXPECT_EQ(kind.err, QStringLiteral("supportqt report: unknown report 'pdf'; valid reports: mc, wc, sens, csv, all\n"));
    for (const char* bins : {"0", "1001", "x"}) {
        const Result badBins = tool({"report", "mc", results, "-o", temp("x"), "--chart", temp("c.svg"), "--bins", bins});
        EXPECT_EQ(badBins.code, 2) << bins;
        EXPECT_TRUE(badBins.err.startsWith("supportqt report: --bins")) << badBins.err.toStdString();
    }
    const Result noOut = tool({"report", "sens", results});
    EXPECT_EQ(noOut.code, 2);
    EXPECT_EQ(noOut.err, QStringLiteral("supportqt report: -o OUT is required\n"));
    const Result sort = tool({"report", "sens", results, "-o", temp("x"), "--sort", "14"});
    EXPECT_EQ(sort.code, 2);
    EXPECT_EQ(sort.err, QStringLiteral("supportqt report: --sort takes a column from 0 to 13 for this file\n"));
    const Result chart = tool({"report", "wc", results, "-o", temp("x"), "--chart", temp("c.svg")});
    EXPECT_EQ(chart.code, 2);
    EXPECT_EQ(chart.err, QStringLiteral("supportqt report: --chart goes with the sens and mc reports\n"));
    // An option that shapes something the report does not write would be ignored: it is refused.
    const struct {
        QStringList arguments;
        QString error;
    } unused[] = {
        {{"wc", "--bins", "7"}, "--bins goes with the histograms of mc --chart and all"},
        {{"mc", "--bins", "7"}, "--bins goes with the histograms of mc --chart and all"},
        {{"sens", "--chart", temp("c.svg"), "--bins", "7"}, "--bins goes with the histograms of mc --chart and all"},
        {{"wc", "--shared-scale"}, "--shared-scale goes with the tornado charts of sens --chart and all"},
        {{"sens", "--shared-scale"}, "--shared-scale goes with the tornado charts of sens --chart and all"},
        {{"mc", "--chart", temp("c.svg"), "--force"}, "--force goes with the tornado charts of sens --chart and all"},
        {{"csv", "--style", temp("none.css")}, "--style goes with the HTML reports: mc, wc, sens and all"},
        {{"wc", "--sort", "1"}, "--sort goes with the sensitivity reports: sens, csv and all"},
    };
    for (const auto& u : unused) {
        const Result r = tool(QStringList{"report", u.arguments.at(0), results, "-o", temp("x")} + u.arguments.mid(1));
        EXPECT_EQ(r.code, 2) << u.arguments.join(' ').toStdString();
        EXPECT_EQ(r.err, "supportqt report: " + u.error + "\n");
    }
    EXPECT_FALSE(QFileInfo::exists(temp("x")));
    EXPECT_FALSE(QFileInfo::exists(temp("c.svg")));
    const Result style = tool({"report", "sens", results, "-o", temp("x"), "--style", temp("none.css")});
    EXPECT_EQ(style.code, 1);
    EXPECT_EQ(style.err, "supportqt report: The file " + temp("none.css") + " does not exist\n");
    const Result noDir = tool({"report", "sens", results, "-o", temp("no/such/dir/x.html")});
    EXPECT_EQ(noDir.code, 1);
    EXPECT_TRUE(noDir.err.startsWith("supportqt report: ")) << noDir.err.toStdString();
    EXPECT_FALSE(QFile::exists(temp("x")));
}

// An output may not be the style sheet the report reads: not the report, not its chart, and not one of
// the files that report all writes into its folder. The style sheet stays as it was.
TEST_F(Tool, ReportRefusesAnOutputThatIsItsStyleSheet)
{
    const QString results = example("results/buck_sensitivity.msw");
    const std::string css = "body { color: navy; }\n";
    writeFileBytes(path("my.css"), css);
    const QString styleError = "supportqt report: " + temp("my.css") + " is the style sheet being read; name another output\n";
    const Result report = tool({"report", "sens", results, "--style", temp("my.css"), "-o", temp("my.css")});
    EXPECT_EQ(report.code, 2);
    EXPECT_EQ(report.err, styleError);
    const Result chart = tool({"report", "sens", results, "--style", temp("my.css"), "-o", temp("r.html"), "--chart", temp("my.css")});
    EXPECT_EQ(chart.code, 2);
    EXPECT_EQ(chart.err, styleError);
    EXPECT_FALSE(QFile::exists(temp("r.html")));
    EXPECT_EQ(readFileBytes(path("my.css")), css);
    ASSERT_TRUE(QDir().mkpath(temp("all")));
    writeFileBytes(path("all/sensitivity.html"), css);
    const Result all = tool({"report", "all", results, "--style", temp("all/sensitivity.html"), "-o", temp("all")});
    EXPECT_EQ(all.code, 2);
    EXPECT_EQ(all.err, "supportqt report: " + QDir(temp("all")).filePath("sensitivity.html") +
                           " is the style sheet being read; name another folder\n");
    EXPECT_EQ(readFileBytes(path("all/sensitivity.html")), css);
    EXPECT_EQ(QDir(temp("all")).entryList(QDir::Files), QStringList{"sensitivity.html"});
    // A style sheet beside the outputs is read as before.
    const Result fine = tool({"report", "sens", results, "--style", temp("my.css"), "-o", temp("r.html")});
    EXPECT_EQ(fine.code, 0) << fine.err.toStdString();
    EXPECT_TRUE(QString::fromStdString(readFileBytes(path("r.html"))).contains("color: navy")) << "the style sheet's text is in the page";
}

// Checks an SVG with python3: it parses as XML, no two texts overlap, each text's box estimated from its
// font size, anchor and length (0.6 em per character, one em high), and every text lies inside the
// picture and off the bars.
void expectReadableSvg(const QString& file, int minTexts)
{
    static const char kCheck[] = R"(
import sys, xml.etree.ElementTree as ET
ns = '{http://www.w3.org/2000/svg}'
root = ET.parse(sys.argv[1]).getroot()
assert root.tag == ns + 'svg', root.tag
boxes = []
for t in root.iter(ns + 'text'):
    size = float(t.get('font-size')); x = float(t.get('x')); y = float(t.get('y'))
    w = 0.6 * size * len(t.text or '')
    left = {'start': x, 'middle': x - w / 2, 'end': x - w}[t.get('text-anchor')]
    boxes.append((left, y - 0.8 * size, left + w, y + 0.2 * size, t.text))
clashes = [(a[4], b[4]) for i, a in enumerate(boxes) for b in boxes[i + 1:]
           if a[0] < b[2] and b[0] < a[2] and a[1] < b[3] and b[1] < a[3]]
# Every text inside the picture, and none over a bar.
width = float(root.get('width')); height = float(root.get('height'))
clashes += [('outside', b[4]) for b in boxes if b[0] < 0 or b[2] > width or b[1] < 0 or b[3] > height]
bars = [(float(r.get('x')), float(r.get('y')), float(r.get('x')) + float(r.get('width')), float(r.get('y')) + float(r.get('height')))
        for r in root.iter(ns + 'rect') if r.get('fill') in ('#4a7fb5', '#d9534f')]
clashes += [('over a bar', b[4]) for b in boxes for r in bars if b[0] < r[2] and r[0] < b[2] and b[1] < r[3] and r[1] < b[3]]
print(len(boxes), len(clashes), clashes[:3])
)";
    SUPPORTQT_SKIP_UNLESS_PEER_RUNS("python3");
    const Result r = runProgram("python3", {"-c", kCheck, file});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    const QStringList fields = r.out.split(' ');
    ASSERT_GE(fields.size(), 2) << r.out.toStdString();
    EXPECT_GE(fields[0].toInt(), minTexts) << r.out.toStdString();
    EXPECT_EQ(fields[1], "0") << file.toStdString() << ": " << r.out.toStdString();
}

TEST_F(Tool, SensitivityReportOfAMonteCarloRunWarnsAndLeavesTheChartOut)
{
    const QString mc = example("results/buck_montecarlo.msw");
    const QString warning = "supportqt report: warning: " + mc +
                            " holds a Monte Carlo run (.mc 400 tran); its normalised sensitivities mean little\n";
    const Result plain = tool({"report", "sens", mc, "-o", temp("mc-sens.html")});
    EXPECT_EQ(plain.code, 0);
    EXPECT_EQ(plain.err, warning);
    EXPECT_EQ(plain.out, "wrote " + temp("mc-sens.html") + "\n");
    EXPECT_TRUE(QFileInfo::exists(temp("mc-sens.html")));

    // The report is written; the chart is not, and stderr says so.
    const Result charted = tool({"report", "sens", mc, "-o", temp("mc-sens2.html"), "--chart", temp("mc-tornado.svg")});
    EXPECT_EQ(charted.code, 0);
    EXPECT_EQ(charted.err, warning + "supportqt report: the chart " + temp("mc-tornado.svg") +
                               " was left out; --force writes it all the same\n");
    EXPECT_EQ(charted.out, "wrote " + temp("mc-sens2.html") + "\n");
    EXPECT_TRUE(QFileInfo::exists(temp("mc-sens2.html")));
    EXPECT_FALSE(QFileInfo::exists(temp("mc-tornado.svg")));

    const Result forced = tool({"report", "sens", mc, "-o", temp("mc-sens3.html"), "--chart", temp("mc-tornado.svg"), "--force"});
    EXPECT_EQ(forced.code, 0);
    EXPECT_EQ(forced.err, warning);
    EXPECT_EQ(forced.out, "wrote " + temp("mc-sens3.html") + "\nwrote " + temp("mc-tornado.svg") + "\n");
    EXPECT_TRUE(QFileInfo::exists(temp("mc-tornado.svg")));

    // A sensitivity run and the Monte Carlo log itself draw no warning.
    const Result sens = tool({"report", "sens", example("results/buck_sensitivity.msw"), "-o", temp("s.html"), "--chart", temp("s.svg")});
    EXPECT_EQ(sens.code, 0);
    EXPECT_EQ(sens.err, QString());
    EXPECT_TRUE(QFileInfo::exists(temp("s.svg")));
    const Result log = tool({"report", "mc", mc, "-o", temp("mc.html")});
    EXPECT_EQ(log.code, 0);
    EXPECT_EQ(log.err, QString());
}

TEST_F(Tool, ReportSortTakesAColumnByNumberOrByName)
{
    const QString results = example("results/buck_sensitivity.msw");
    // ripple.norm is column 4, as in the header: Case#, Reference, then value, Delta and Norm of each function.
    const Result byNumber = tool({"report", "csv", results, "-o", temp("n.csv"), "--sort", "4"});
    const Result byName = tool({"report", "csv", results, "-o", temp("name.csv"), "--sort", "ripple.norm"});
    ASSERT_EQ(byNumber.code, 0) << byNumber.err.toStdString();
    ASSERT_EQ(byName.code, 0) << byName.err.toStdString();
    EXPECT_EQ(readFileBytes(temp("n.csv").toStdString()), readFileBytes(temp("name.csv").toStdString()));
    ASSERT_EQ(tool({"report", "csv", results, "-o", temp("0.csv")}).code, 0);
    EXPECT_NE(readFileBytes(temp("n.csv").toStdString()), readFileBytes(temp("0.csv").toStdString()));
    for (const auto& [name, number] : {std::pair<const char*, const char*>{"reference", "1"}, {"VOUT", "5"}, {"efficiency.delta", "9"}}) {
        const Result html = tool({"report", "sens", results, "-o", temp("a.html"), "--sort", name});
        ASSERT_EQ(html.code, 0) << name << ": " << html.err.toStdString();
        ASSERT_EQ(tool({"report", "sens", results, "-o", temp("b.html"), "--sort", number}).code, 0);
        EXPECT_EQ(readFileBytes(temp("a.html").toStdString()), readFileBytes(temp("b.html").toStdString())) << name;
    }

    const Result unknown = tool({"report", "sens", results, "-o", temp("x.html"), "--sort", "ripple.nrom"});
    EXPECT_EQ(unknown.code, 2);
    EXPECT_EQ(unknown.err, QStringLiteral("supportqt report: --sort takes a column from 0 to 13 or its name, not 'ripple.nrom'; "
                                          "valid names: case, reference, ripple, ripple.delta, ripple.norm, vout, vout.delta, "
                                          "vout.norm, efficiency, efficiency.delta, efficiency.norm, ipeak, ipeak.delta, ipeak.norm\n"));
    EXPECT_FALSE(QFileInfo::exists(temp("x.html")));
}

// The SVG's texts, in document order.
QStringList svgTexts(const QString& file)
{
    QStringList texts;
    const QString svg = QString::fromStdString(readFileBytes(file.toStdString()));
    QRegularExpressionMatchIterator it = QRegularExpression("<text [^>]*>([^<]*)</text>").globalMatch(svg);
    while (it.hasNext())
        texts << it.next().captured(1);
    return texts;
}

TEST_F(Tool, ChartsOfFiftyBarsHaveNoOverlappingText)
{
    // A sensitivity run of 50 parameters with long names, and a Monte Carlo run of 2,500 runs (50 bins).
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    header.title = "fifty";
    header.meritFunctions.at(0).name = "gain";
    header.meritFunctions.at(0).value = "max(v(out))/max(v(in))";
    header.meritFunctions.at(1).name = "bandwidth";
    XMLReportInfo nominal(1);
    nominal.values.at(0).value = 10.0;
    nominal.values.at(1).value = 1e6;
    table.insert(nominal);
    for (int p = 0; p < 50; ++p) {
        XMLReportInfo run(p + 2);
        run.name = YString(QStringLiteral("Refdes:R%1_a_rather_long_reference_designator/DevParam:R").arg(p).toUtf8().constData());
        run.hasName = true;
        run.values.at(0).value = 10.0 * (1.0 + (p - 25) * 0.0004);
        run.values.at(1).value = 1e6 * (1.0 - p * 0.0001);
        XMLParameterValue& param = run.parameters.at(0);
        param.name = "R.R";
        param.nominal = 1000.0;
        param.usedValue = 1010.0;
        table.insert(run);
    }
    const QString sens = temp("fifty.msw");
    ASSERT_TRUE(sp_WriteMswFile(toYs(sens), table, header));
    ASSERT_EQ(tool({"report", "sens", sens, "-o", temp("fifty.html"), "--chart", temp("tornado.svg")}).code, 0);
    expectReadableSvg(temp("tornado.svg"), 2 * 50 * 2);

    YHashTable<XMLReportInfo> mc;
    for (int c = 1; c <= 2500; ++c) {
        XMLReportInfo run(c);
        run.values.at(0).value = std::sin(c * 0.37) * 3.0 + std::cos(c * 0.11);
        run.values.at(1).value = 1e6 + c;
        mc.insert(run);
    }
    const QString mcFile = temp("mc.msw");
    ASSERT_TRUE(sp_WriteMswFile(toYs(mcFile), mc, header));
    const Result r = tool({"report", "mc", mcFile, "-o", temp("mc.html"), "--chart", temp("histogram.svg")});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    EXPECT_EQ(r.out, "wrote " + temp("mc.html") + "\nwrote " + temp("histogram.svg") + "\n");
    expectReadableSvg(temp("histogram.svg"), 2 * 10);
    // With the report on standard output the chart is said on standard error, on one line whatever its name.
#ifdef Q_OS_WIN
    const QString chartName = temp("histogram two.svg"), shownName = chartName;
#else
    const QString chartName = temp("histogram\ntwo.svg"), shownName = temp("histogram\\ntwo.svg");
#endif
    const Result piped = tool({"report", "mc", mcFile, "-o", "-", "--chart", chartName});
    ASSERT_EQ(piped.code, 0) << piped.err.toStdString();
    EXPECT_EQ(piped.err, "supportqt report: wrote " + shownName + "\n");
    EXPECT_TRUE(piped.out.startsWith("<html>")) << piped.out.left(80).toStdString();
    expectReadableSvg(chartName, 2 * 10);
    // The Freedman-Diaconis rule gives 14 bins to each merit function, as NumPy's histogram_bin_edges does.
    EXPECT_EQ(svgTexts(temp("histogram.svg")).count("value: 14 bins by the Freedman-Diaconis rule"), 2);
    // As many bins as asked, up to 1,000, and the texts still clear of each other and of the bars.
    ASSERT_EQ(tool({"report", "mc", mcFile, "-o", temp("mc.html"), "--chart", temp("fine.svg"), "--bins", "1000"}).code, 0);
    expectReadableSvg(temp("fine.svg"), 2 * 10);
    EXPECT_NE(readFileBytes(path("fine.svg")).find(">value: 1000 bins as asked<"), std::string::npos);
}

// The texts of an SVG from the first that is `first` to the one before the next that is `next`.
QStringList textsBetween(const QStringList& texts, const QString& first, const QString& next)
{
    const int from = texts.indexOf(first);
    if (from < 0)
        return {};
    const int to = texts.indexOf(next, from + 1);
    return texts.mid(from, to < 0 ? -1 : to - from);
}

// The histogram of each merit function of the Monte Carlo example: the mean and the 3-sigma band marked
// and said, the y axis labelled "runs", the x axis in engineering notation at round ticks, the bins the
// Freedman-Diaconis rule gives (as NumPy gives them), and how many values were not finite.
TEST_F(Tool, HistogramMarksTheMeanAndThreeSigmaOnRoundTicksAndSaysWhatItLeftOut)
{
    const QString mc = example("results/buck_montecarlo.msw");
    const Result r = tool({"report", "mc", mc, "-o", temp("mc.html"), "--chart", temp("h.svg")});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    const QStringList texts = svgTexts(temp("h.svg"));
    EXPECT_EQ(textsBetween(texts, "ripple = max(v(out))-min(v(out))", "vout = avg(v(out))"),
              (QStringList{"ripple = max(v(out))-min(v(out))", "400 runs, mean 15.8654m, standard deviation 1.2059m", "runs",
                           "12m", "14m", "16m", "18m", "20m", "0", "20", "40", "60",
                           "value: 14 bins by the Freedman-Diaconis rule",
                           "solid: mean 15.8654m; dashed grey: mean -/+ 3 sigma, 12.2477m to 19.4831m",
                           "dashed red: nominal 15.73m", "left out as not finite: 0 values"}));
    EXPECT_EQ(textsBetween(texts, "vout = avg(v(out))", "efficiency = avg(v(out)*i(RLOAD))/avg(-v(in)*i(VIN))").mid(3, 6),
              (QStringList{"3", "3.1", "3.2", "3.3", "3.4", "3.5"}));
    EXPECT_EQ(textsBetween(texts, "efficiency = avg(v(out)*i(RLOAD))/avg(-v(in)*i(VIN))", "ipeak = max(i(L1))").mid(3, 6),
              (QStringList{"941m", "942m", "943m", "944m", "945m", "946m"}));
    for (const char* bins : {"value: 14 bins", "value: 17 bins", "value: 15 bins"})
        EXPECT_TRUE(texts.contains(QString(bins) + " by the Freedman-Diaconis rule")) << bins;

    // The mean line lies midway between the dashed 3-sigma lines, each as long as the plot is high.
    const QString svg = QString::fromStdString(readFileBytes(path("h.svg")));
    const QRegularExpressionMatch mean = QRegularExpression(
        "<line x1=\"([0-9.]+)\" y1=\"([0-9.]+)\" x2=\"\\1\" y2=\"([0-9.]+)\" stroke=\"#222222\" stroke-width=\"2\"/>").match(svg);
    ASSERT_TRUE(mean.hasMatch());
    QList<double> band;
    QRegularExpressionMatchIterator it = QRegularExpression(
        "<line x1=\"([0-9.]+)\" y1=\"[0-9.]+\" x2=\"\\1\" y2=\"[0-9.]+\" stroke=\"#555555\" stroke-width=\"1.5\" "
        "stroke-dasharray=\"5 4\"/>").globalMatch(svg);
    while (it.hasNext())
        band << it.next().captured(1).toDouble();
    ASSERT_EQ(band.size(), 8); // two per merit function
    EXPECT_NEAR((band[0] + band[1]) / 2, mean.captured(1).toDouble(), 0.11);
    EXPECT_EQ(mean.captured(3).toDouble() - mean.captured(2).toDouble(), 200.0);

    // NumPy's Freedman-Diaconis bins of the same values: the same count and the same bar heights.
    if (hostPeerRuns("python3")) {
        const Result table = tool({"results", mc, "--table", "csv"});
        writeFileBytes(path("runs.csv"), table.out.toStdString());
        static const char kNumpy[] = R"(
import csv, sys, re, numpy as np, xml.etree.ElementTree as ET
rows = list(csv.DictReader(open(sys.argv[1])))
ns = '{http://www.w3.org/2000/svg}'
root = ET.parse(sys.argv[2]).getroot()
heights = [float(r.get('height')) for r in root.iter(ns + 'rect') if r.get('fill') == '#4a7fb5']
for name in ['ripple', 'vout', 'efficiency', 'ipeak']:
    counts = np.histogram(np.array([float(r[name]) for r in rows]), bins='fd')[0]
    ours, heights = heights[:len(counts)], heights[len(counts):]
    # Heights are drawn to 0.1 px on a 200 px plot.
    ok = all(abs(h / max(ours) - c / counts.max()) < 0.003 for h, c in zip(ours, counts))
    print(name, len(counts), 'same' if ok else 'differs')
print('left', len(heights))
)";
#ifdef Q_OS_WIN
        const QString python = QStringLiteral("python3");
#else
        const QString python = QStringLiteral("/usr/bin/python3"); // Debian's, which has NumPy
#endif
        const Result numpy = runProgram(python, {"-c", kNumpy, temp("runs.csv"), temp("h.svg")});
        EXPECT_EQ(numpy.out, "ripple 14 same\nvout 17 same\nefficiency 17 same\nipeak 15 same\nleft 0\n") << numpy.err.toStdString();
    }

    // Values that are not finite are left out and counted; --bins sets the count.
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    header.title = "with holes";
    header.meritFunctions.at(0).name = "gain";
    for (int c = 1; c <= 40; ++c) {
        XMLReportInfo run(c);
        run.values.at(0).value = c % 13 == 0 ? std::nan("") : c % 17 == 0 ? HUGE_VAL : 0.001 * c;
        table.insert(run);
    }
    ASSERT_TRUE(sp_WriteMswFile(toYs(temp("holes.msw")), table, header));
    ASSERT_EQ(tool({"report", "mc", temp("holes.msw"), "-o", temp("holes.html"), "--chart", temp("holes.svg"), "--bins", "7"}).code, 0);
    const QStringList holes = svgTexts(temp("holes.svg"));
    EXPECT_TRUE(holes.contains("35 runs, mean 19.7429m, standard deviation 11.7407m")) << holes.join('|').toStdString();
    EXPECT_TRUE(holes.contains("value: 7 bins as asked"));
    EXPECT_TRUE(holes.contains("left out as not finite: 5 values"));
    expectReadableSvg(temp("holes.svg"), 10);
}

// The tornado chart: ticks at round values; with --shared-scale one scale for every merit function, so
// that a small sensitivity looks small.
TEST_F(Tool, TornadoTicksAreRoundAndSharedScaleIsOneScale)
{
    const QString sens = example("results/buck_sensitivity.msw");
    ASSERT_EQ(tool({"report", "sens", sens, "-o", temp("s.html"), "--chart", temp("own.svg")}).code, 0);
    ASSERT_EQ(tool({"report", "sens", sens, "-o", temp("s.html"), "--chart", temp("shared.svg"), "--shared-scale"}).code, 0);
    const QStringList own = svgTexts(temp("own.svg")), shared = svgTexts(temp("shared.svg"));
    const QString efficiency = "efficiency = avg(v(out)*i(RLOAD))/avg(-v(in)*i(VIN))";
    const QString ipeak = "ipeak = max(i(L1))";
    const QStringList unit{"-1", "-500m", "0", "500m", "1"};
    // ripple's largest magnitude is 1: the same axis either way.
    EXPECT_EQ(textsBetween(own, "ripple = max(v(out))-min(v(out))", "vout = avg(v(out))").mid(15, 5), unit);
    // efficiency's largest is 49m: its own axis reaches 60m, the shared one 1.
    const QStringList ownEfficiency = textsBetween(own, efficiency, ipeak);
    EXPECT_EQ(ownEfficiency.mid(ownEfficiency.size() - 7), (QStringList{"-60m", "-40m", "-20m", "0", "20m", "40m", "60m"}))
        << ownEfficiency.join('|').toStdString();
    const QStringList sharedEfficiency = textsBetween(shared, efficiency, ipeak);
    EXPECT_EQ(sharedEfficiency.mid(sharedEfficiency.size() - 5, 5), unit) << sharedEfficiency.join('|').toStdString();
    EXPECT_TRUE(shared.contains("One scale for every merit function, so that their bars compare"));
    EXPECT_FALSE(own.contains("One scale for every merit function, so that their bars compare"));
    // The same bar (Ref: VHI's 49m) is 49/60 of its own axis's reach and 49/1000 of the shared one's: 204.2 px
    // of the 250 px half axis against 12.2 px.
    const QString ownSvg = QString::fromStdString(readFileBytes(path("own.svg")));
    const QString sharedSvg = QString::fromStdString(readFileBytes(path("shared.svg")));
    EXPECT_TRUE(ownSvg.contains("width=\"204.2\" height=\"14.0\" fill=\"#4a7fb5\""));
    EXPECT_TRUE(sharedSvg.contains("width=\"12.2\" height=\"14.0\" fill=\"#4a7fb5\""));
    EXPECT_FALSE(sharedSvg.contains("width=\"204.2\""));
    expectReadableSvg(temp("own.svg"), 40);
    expectReadableSvg(temp("shared.svg"), 40);
}

// The page's layout in headless Chromium with a window of 1280 x 900: the width of its content and
// the alignment of the first number of the statistics table. A copy of the page beside it gets a script
// that writes them into the document, which --dump-dom prints.
struct PageLayout {
    int scrollWidth = -1;
    int clientWidth = -1;
    QString numberAlign;
};

PageLayout layoutAt1280(const QString& page, const QString& scratch)
{
    PageLayout layout;
    const QString probe = QFileInfo(page).absolutePath() + "/layout-probe.html";
    QString html = QString::fromStdString(readFileBytes(page.toStdString()));
    html.replace("</body>", "<script>var e = document.documentElement, c = document.querySelector('table.stats td.num');"
                            "document.body.setAttribute('data-scroll-width', e.scrollWidth);"
                            "document.body.setAttribute('data-client-width', e.clientWidth);"
                            "document.body.setAttribute('data-number-align', c ? getComputedStyle(c).textAlign : 'none');"
                            "</script></body>");
    writeFileBytes(probe.toStdString(), html.toStdString());
    const QString chromium = QStandardPaths::findExecutable("chromium");
    EXPECT_FALSE(chromium.isEmpty()) << "chromium is installed by scripts/deps";
    QDir().mkpath(scratch);
    const Result r = runProgram(chromium, {"--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                                           "--disable-background-networking", "--disable-component-update", "--disable-sync",
                                           "--user-data-dir=" + scratch, "--hide-scrollbars", "--window-size=1280,900",
                                           "--dump-dom", QUrl::fromLocalFile(probe).toString()});
    QFile::remove(probe);
    EXPECT_EQ(r.code, 0) << r.err.toStdString();
    const QRegularExpressionMatch m = QRegularExpression(
        "data-scroll-width=\"([0-9]+)\" data-client-width=\"([0-9]+)\" data-number-align=\"([a-z-]+)\"").match(r.out);
    EXPECT_TRUE(m.hasMatch()) << r.out.left(400).toStdString();
    if (m.hasMatch()) {
        layout.scrollWidth = m.captured(1).toInt();
        layout.clientWidth = m.captured(2).toInt();
        layout.numberAlign = m.captured(3);
    }
    return layout;
}

// Follows every link of a page: a file beside it that exists and holds something, or an element of the
// page itself. Returns the files linked.
QStringList expectLinksResolve(const QString& page)
{
    const QString html = QString::fromStdString(readFileBytes(page.toStdString()));
    QStringList files;
    QRegularExpressionMatchIterator it = QRegularExpression("(?:href|src)=\"([^\"]*)\"").globalMatch(html);
    while (it.hasNext()) {
        const QString link = it.next().captured(1);
        EXPECT_FALSE(link.contains("://")) << link.toStdString() << ": a page of the folder links only within it";
        if (link.startsWith('#')) {
            EXPECT_TRUE(html.contains("id=\"" + link.mid(1) + "\"")) << link.toStdString();
            continue;
        }
        const QFileInfo target(QFileInfo(page).absoluteDir().filePath(QUrl(link).path()));
        EXPECT_TRUE(target.isFile()) << link.toStdString();
        EXPECT_GT(target.size(), 0) << link.toStdString();
        files << link;
    }
    return files;
}

// report all: the logs that the analysis calls for, the sensitivity report as HTML and CSV, each the
// library's own, and index.html with the header, the run statistics, the charts and a link to each.
TEST_F(Tool, ReportAllWritesTheLogsTheAnalysisCallsForAndAnIndexThatLinksThem)
{
    const QString mc = example("results/buck_montecarlo.msw");
    const QString dir = temp("mc-report");
    const Result r = tool({"report", "all", mc, "-o", dir});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    EXPECT_EQ(r.out, "wrote " + dir + "/montecarlo.html\nwrote " + dir + "/sensitivity.html\nwrote " + dir +
                         "/sensitivity.csv\nwrote " + dir + "/index.html\n");
    EXPECT_EQ(QDir(dir).entryList(QDir::Files | QDir::Hidden, QDir::Name),
              (QStringList{"index.html", "montecarlo.html", "sensitivity.csv", "sensitivity.html"}));
    // The reports are those the single reports write.
    ASSERT_EQ(tool({"report", "mc", mc, "-o", temp("mc.html")}).code, 0);
    ASSERT_EQ(tool({"report", "sens", mc, "-o", temp("sens.html")}).code, 0);
    ASSERT_EQ(tool({"report", "csv", mc, "-o", temp("sens.csv")}).code, 0);
    EXPECT_EQ(readFileBytes((dir + "/montecarlo.html").toStdString()), readFileBytes(path("mc.html")));
    EXPECT_EQ(readFileBytes((dir + "/sensitivity.html").toStdString()), readFileBytes(path("sens.html")));
    EXPECT_EQ(readFileBytes((dir + "/sensitivity.csv").toStdString()), readFileBytes(path("sens.csv")));

    const QString index = QString::fromStdString(readFileBytes((dir + "/index.html").toStdString()));
    EXPECT_TRUE(index.contains("<title>Buck converter Monte Carlo</title>"));
    EXPECT_TRUE(index.contains("<h1>Buck converter Monte Carlo</h1>"));
    EXPECT_TRUE(index.contains("<tr><th>Results file</th><td>" + mc + "</td></tr>\n"
                               "<tr><th>Date</th><td>2026-11-22 10:15:00</td></tr>\n"
                               "<tr><th>Analysis</th><td>.mc 400 tran</td></tr>\n"
                               "<tr><th>Runs</th><td class=\"num\">400</td></tr>\n"));
    // The statistics are the library's, in engineering notation, one right-aligned cell each.
    EXPECT_TRUE(index.contains("<thead><tr><th>Merit function</th><th class=\"num\">Runs</th><th class=\"num\">Mean</th>"
                               "<th class=\"num\">Std dev</th><th class=\"num\">Min</th><th class=\"num\">Median</th>"
                               "<th class=\"num\">Max</th><th class=\"num\">Nominal</th><th class=\"num\">Not finite</th></tr></thead>"));
    EXPECT_TRUE(index.contains("<tr><td>ripple</td><td class=\"num\">400</td><td class=\"num\">15.8654m</td><td class=\"num\">"
                               "1.2059m</td><td class=\"num\">12.9944m</td><td class=\"num\">15.7659m</td><td class=\"num\">"
                               "19.2712m</td><td class=\"num\">15.73m</td><td class=\"num\">0</td></tr>"));
    EXPECT_TRUE(index.contains("<tr><td>efficiency</td><td class=\"num\">400</td><td class=\"num\">943.529m</td><td class=\"num\">"
                               "611.84u</td>"));
    EXPECT_TRUE(index.contains("<dt>efficiency</dt><dd>avg(v(out)*i(RLOAD))/avg(-v(in)*i(VIN))</dd>"));
    // The links, the Monte Carlo caution, and the histogram inline; the tornado only when forced.
    EXPECT_TRUE(index.contains("<li><a href=\"montecarlo.html\">Monte Carlo log</a>: every run's merit function values, its "
                               "random seed and the parameters it changed</li>"));
    EXPECT_TRUE(index.contains("<p class=\"note\">Each run of a Monte Carlo analysis moves every parameter at once, so its "
                               "normalised sensitivities credit one parameter with what all of them did and mean little; the "
                               "tornado chart is left out (--force shows it).</p>"));
    EXPECT_EQ(index.count("<svg xmlns=\"http://www.w3.org/2000/svg\""), 1);
    EXPECT_TRUE(index.contains(">left out as not finite: 0 values</text>"));
    EXPECT_FALSE(index.contains("<?xml"));
    EXPECT_EQ(expectLinksResolve(dir + "/index.html"), (QStringList{"montecarlo.html", "sensitivity.html", "sensitivity.csv"}));
    ASSERT_EQ(tool({"report", "all", mc, "-o", temp("forced"), "--force"}).code, 0);
    EXPECT_EQ(QString::fromStdString(readFileBytes(path("forced/index.html"))).count("<svg xmlns"), 2);

    // A worst-case run gets the worst-case log; a sensitivity run its tornado first and no log.
    const Result wc = tool({"report", "all", example("results/buck_worstcase.msw"), "-o", temp("wc")});
    ASSERT_EQ(wc.code, 0) << wc.err.toStdString();
    EXPECT_EQ(expectLinksResolve(temp("wc/index.html")), (QStringList{"worstcase.html", "sensitivity.html", "sensitivity.csv"}));
    const Result sens = tool({"report", "all", example("results/buck_sensitivity.msw"), "-o", temp("sens"), "--sort", "ripple.norm"});
    ASSERT_EQ(sens.code, 0) << sens.err.toStdString();
    EXPECT_EQ(expectLinksResolve(temp("sens/index.html")), (QStringList{"sensitivity.html", "sensitivity.csv"}));
    const QString sensIndex = QString::fromStdString(readFileBytes(path("sens/index.html")));
    EXPECT_LT(sensIndex.indexOf("<title>Normalised sensitivities</title>"), sensIndex.indexOf("<title>Merit functions across runs</title>"));
    EXPECT_FALSE(sensIndex.contains("class=\"note\""));
    ASSERT_EQ(tool({"report", "sens", example("results/buck_sensitivity.msw"), "-o", temp("sorted.html"), "--sort", "4"}).code, 0);
    EXPECT_EQ(readFileBytes(path("sens/sensitivity.html")), readFileBytes(path("sorted.html")));
    // An analysis the tool does not know: both logs.
    writeFileBytes(path("other.msw"), "<?xml version=\"1.0\"?>\n<msw version=\"1.0\"><header analysis=\".step R1 1k 2k\" title=\"t\"/>"
                                      "<meritfunction value=\"v(out)\" name=\"v\"><sensval case=\"1\" value=\"1\"/>"
                                      "<sensval case=\"2\" value=\"2\"/></meritfunction></msw>\n");
    ASSERT_EQ(tool({"report", "all", temp("other.msw"), "-o", temp("other")}).code, 0);
    EXPECT_EQ(expectLinksResolve(temp("other/index.html")),
              (QStringList{"montecarlo.html", "worstcase.html", "sensitivity.html", "sensitivity.csv"}));

    // Usage: a folder, not standard output; no --chart; an output that is the results file is refused.
    const Result dash = tool({"report", "all", mc, "-o", "-"});
    EXPECT_EQ(dash.code, 2);
    EXPECT_EQ(dash.err, QStringLiteral("supportqt report: report all writes several files; name a folder for them\n"));
    const Result chart = tool({"report", "all", mc, "-o", temp("x"), "--chart", temp("x.svg")});
    EXPECT_EQ(chart.code, 2);
    EXPECT_EQ(chart.err, QStringLiteral("supportqt report: report all puts its charts in index.html; --chart goes with sens and mc\n"));
    const Result file = tool({"report", "all", mc, "-o", temp("mc.html")});
    EXPECT_EQ(file.code, 1);
    EXPECT_EQ(file.err, "supportqt report: " + temp("mc.html") + " is a file, not a folder\n");
    QDir().mkpath(temp("inside"));
    ASSERT_TRUE(QFile::copy(mc, temp("inside/index.html")));
    const std::string before = readFileBytes(path("inside/index.html"));
    const Result same = tool({"report", "all", temp("inside/index.html"), "-o", temp("inside")});
    EXPECT_EQ(same.code, 2);
    EXPECT_EQ(same.err, "supportqt report: " + temp("inside/index.html") + " is the results file being read; name another folder\n");
    EXPECT_EQ(readFileBytes(path("inside/index.html")), before);
    EXPECT_EQ(QDir(temp("inside")).entryList(QDir::Files).size(), 1);
}

// The index escapes every text of the results, however hostile, and shows its summary in a laptop's
// window without sideways scrolling, however long the names; its numbers are right-aligned.
// A folder that cannot be made at the end of a path of missing ones (a name too long, or on Windows a
// device's name) leaves none of the parents made before it behind.
TEST_F(Tool, AFolderThatCannotBeMadeLeavesNoParentItMade)
{
#ifdef Q_OS_WIN
    const QString last = QStringLiteral("com1");
#else
    const QString last(300, QLatin1Char('n'));
#endif
    const QString dir = temp("made/x/y/") + last;
    const Result r = tool({"report", "all", example("results/buck_montecarlo.msw"), "-o", dir});
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.err, "supportqt report: cannot create the folder " + dir + "\n");
    EXPECT_FALSE(QFileInfo::exists(temp("made")));
    const Result demo = tool({"demo", "-o", dir});
    EXPECT_EQ(demo.code, 1);
    EXPECT_EQ(demo.err, "supportqt demo: cannot create the folder " + dir + "\n");
    EXPECT_FALSE(QFileInfo::exists(temp("made")));
    // Folders that were there stay.
    ASSERT_TRUE(QDir().mkpath(temp("made/x")));
    EXPECT_EQ(tool({"report", "all", example("results/buck_montecarlo.msw"), "-o", dir}).code, 1);
    EXPECT_TRUE(QFileInfo(temp("made/x")).isDir());
    EXPECT_FALSE(QFileInfo::exists(temp("made/x/y")));
}

#ifndef Q_OS_WIN
// Every file of report all is written aside before any replaces its previous one: a write that fails
// (here the sensitivity report, past a file-size limit of 560 blocks of 512 bytes that the Monte Carlo
// log still fits) leaves the whole folder as it was, and no temporary file behind.
TEST_F(Tool, ReportAllThatFailsToWriteOneFileReplacesNone)
{
    const QString mc = example("results/buck_montecarlo.msw");
    const QString dir = temp("kept");
    ASSERT_TRUE(QDir().mkpath(dir));
    const QStringList names{"index.html", "montecarlo.html", "sensitivity.csv", "sensitivity.html"};
    for (const QString& name : names)
        writeFileBytes((dir + "/" + name).toStdString(), "the previous " + name.toStdString() + "\n");
    const QString line = QStringLiteral("ulimit -f 560; trap '' XFSZ; exec '%1' report all '%2' -o '%3'").arg(SUPPORTQT_TOOL_PATH, mc, dir);
    const Result limited = runProgram(QStringLiteral("/bin/sh"), {"-c", line});
    EXPECT_EQ(limited.code, 1);
    EXPECT_EQ(limited.err, "supportqt report: cannot write " + dir + "/sensitivity.html; the folder is as it was\n");
    EXPECT_EQ(limited.out, QString());
    EXPECT_EQ(QDir(dir).entryList(QDir::Files | QDir::Hidden, QDir::Name), names);
    for (const QString& name : names)
        EXPECT_EQ(readFileBytes((dir + "/" + name).toStdString()), "the previous " + name.toStdString() + "\n");
    // Folders it made for the report go with the failure, and the message holds for them too.
    const QString fresh = temp("fresh/sub");
    const Result made = runProgram(QStringLiteral("/bin/sh"),
                                   {"-c", QStringLiteral("ulimit -f 560; trap '' XFSZ; exec '%1' report all '%2' -o '%3'")
                                              .arg(SUPPORTQT_TOOL_PATH, mc, fresh)});
    EXPECT_EQ(made.code, 1);
    EXPECT_EQ(made.err, "supportqt report: cannot write " + fresh + "/sensitivity.html; the folder is as it was\n");
    EXPECT_FALSE(QFileInfo::exists(temp("fresh")));
    // Within the limit each file fits: the Monte Carlo log alone is written.
    const Result log = runProgram(QStringLiteral("/bin/sh"),
                                  {"-c", QStringLiteral("ulimit -f 560; trap '' XFSZ; exec '%1' report mc '%2' -o '%3'")
                                             .arg(SUPPORTQT_TOOL_PATH, mc, temp("mc.html"))});
    EXPECT_EQ(log.code, 0) << log.err.toStdString();
    const Result whole = tool({"report", "all", mc, "-o", dir});
    ASSERT_EQ(whole.code, 0) << whole.err.toStdString();
    EXPECT_TRUE(readFileBytes((dir + "/montecarlo.html").toStdString()) == readFileBytes(path("mc.html")));
}
#endif

// An output that is a file the results file appends would change what the results file reads: report,
// report all, stats and merge refuse it as a usage error, by any name that leads to it, and leave it as it
// was.
TEST_F(Tool, AnOutputThatTheResultsFileAppendsIsRefused)
{
    const std::string core = "<?xml version=\"1.0\"?><msw version=\"1.0\"><steps><step case=\"2\"/></steps></msw>\n";
    ASSERT_TRUE(QDir().mkpath(temp("folder")));
    writeFileBytes(path("folder/sensitivity.csv"), core);
    writeFileBytes(path("main.msw"), "<?xml version=\"1.0\"?><msw version=\"1.0\"><meritfunction value=\"a\" name=\"A\">"
                                     "<sensval case=\"1\" value=\"1\"/><sensval case=\"2\" value=\"3\"/></meritfunction>"
                                     "<append><file path=\"" + path("folder/sensitivity.csv") + "\"/></append></msw>\n");
    const QString main = temp("main.msw");
    const QString appended = temp("folder/sensitivity.csv");
    const QString error = "supportqt report: " + appended + " is a file that the results file appends; name another output\n";
    const Result csv = tool({"report", "csv", main, "-o", appended});
    EXPECT_EQ(csv.code, 2);
    EXPECT_EQ(csv.err, error);
    const QString other = temp("folder/../folder/sensitivity.csv");
    const Result otherName = tool({"report", "sens", main, "-o", other});
    EXPECT_EQ(otherName.err, "supportqt report: " + other + " is a file that the results file appends; name another output\n");
    const Result all = tool({"report", "all", main, "-o", temp("folder")});
    EXPECT_EQ(all.code, 2);
    EXPECT_EQ(all.err, "supportqt report: " + QDir(temp("folder")).filePath("sensitivity.csv") +
                           " is a file that the results file appends; name another output\n");
    const Result stats = tool({"stats", main, "--csv", appended});
    EXPECT_EQ(stats.code, 2);
    EXPECT_EQ(stats.err, "supportqt stats: " + appended + " is a file that the results file appends; name another output\n");
    // merge names the shard that appends it, the second here.
    writeFileBytes(path("first.msw"), "<?xml version=\"1.0\"?><msw version=\"1.0\"><meritfunction value=\"a\" name=\"A\">"
                                      "<sensval case=\"5\" value=\"2\"/></meritfunction></msw>\n");
    const Result merge = tool({"merge", temp("first.msw"), main, "-o", other});
    EXPECT_EQ(merge.code, 2);
    EXPECT_EQ(merge.err, "supportqt merge: " + other + " is a file that " + main + " appends; name another output\n");
    EXPECT_EQ(readFileBytes(path("folder/sensitivity.csv")), core);
    EXPECT_EQ(QDir(temp("folder")).entryList(QDir::Files | QDir::Hidden), QStringList{"sensitivity.csv"});
    // Another file is written as before.
    ASSERT_EQ(tool({"report", "csv", main, "-o", temp("kept.csv")}).code, 0);
    EXPECT_EQ(readFileBytes(path("kept.csv")), "Case#,Reference,\"a\",Delta,Norm\n1,,1,0,0\n2,Run=2,3,2,!DIV0\n");
}

// A shard named twice, by one name or by two (a link, another spelling), is refused: its runs would
// count twice. Shards of one size that are different files are merged.
TEST_F(Tool, MergeRefusesAShardNamedTwice)
{
    const auto shard = [&](const char* name, int caseNumber) {
        writeFileBytes(path(name), "<?xml version=\"1.0\"?><msw version=\"1.0\"><meritfunction value=\"a\" name=\"A\">"
                                   "<sensval case=\"" + std::to_string(caseNumber) + "\" value=\"1\"/></meritfunction></msw>\n");
        return temp(name);
    };
    const QString a = shard("a.msw", 1), b = shard("b.msw", 2), c = shard("c.msw", 3);
    const QString out = temp("merged.msw");
    const Result twice = tool({"merge", a, b, a, "-o", out});
    EXPECT_EQ(twice.code, 2);
    EXPECT_EQ(twice.err, "supportqt merge: " + a + " and " + a + " are one file; name each file once\n");
    const QString other = temp("sub/../b.msw");
    ASSERT_TRUE(QDir().mkpath(temp("sub")));
    const Result spelled = tool({"merge", a, b, c, other, "-o", out});
    EXPECT_EQ(spelled.code, 2);
    EXPECT_EQ(spelled.err, "supportqt merge: " + b + " and " + other + " are one file; name each file once\n");
#ifndef Q_OS_WIN
    ASSERT_TRUE(QFile::link(c, temp("link.msw")));
    const Result linked = tool({"merge", temp("link.msw"), a, c, "-o", out});
    EXPECT_EQ(linked.code, 2);
    EXPECT_EQ(linked.err, "supportqt merge: " + temp("link.msw") + " and " + c + " are one file; name each file once\n");
#endif
    EXPECT_FALSE(QFileInfo::exists(out));
    const Result merged = tool({"merge", a, b, c, "-o", out});
    EXPECT_EQ(merged.code, 0) << merged.err.toStdString();
    EXPECT_TRUE(merged.out.startsWith("merged 3 files, 3 runs")) << merged.out.toStdString();
}

// An output that cannot be written but that a shard appends: merge names the shard that appends it (a
// usage error, as report and stats give), not why the file cannot be written.
TEST_F(Tool, MergeNamesTheShardThatAppendsAnOutputThatCannotBeWritten)
{
    const std::string core = "<?xml version=\"1.0\"?><msw version=\"1.0\"><steps><step case=\"2\"/></steps></msw>\n";
    ASSERT_TRUE(QDir().mkpath(temp("folder")));
    writeFileBytes(path("folder/appended.msw"), core);
    writeFileBytes(path("folder/locked.msw"), "kept\n");
    writeFileBytes(path("first.msw"), "<?xml version=\"1.0\"?><msw version=\"1.0\"><meritfunction value=\"a\" name=\"A\">"
                                      "<sensval case=\"5\" value=\"2\"/></meritfunction></msw>\n");
    writeFileBytes(path("main.msw"), "<?xml version=\"1.0\"?><msw version=\"1.0\"><meritfunction value=\"a\" name=\"A\">"
                                     "<sensval case=\"1\" value=\"1\"/></meritfunction>"
                                     "<append><file path=\"" + path("folder/appended.msw") + "\"/></append></msw>\n");
    // Runs merge into `output` while the tool cannot write it: on Windows the file is held open with no
    // sharing; elsewhere it is read-only, and the tool runs as an unprivileged user when this is root.
    const auto mergeInto = [this](const QString& output) {
        const QStringList arguments{"merge", temp("first.msw"), temp("main.msw"), "-o", output};
#ifdef Q_OS_WIN
        const ExclusiveFileLock lock(output.toStdString());
        EXPECT_TRUE(lock.isLocked());
        return tool(arguments);
#else
        const QFileDevice::Permissions before = QFile::permissions(output);
        QFile::setPermissions(output, QFileDevice::ReadOwner | QFileDevice::ReadGroup | QFileDevice::ReadOther);
        Result result;
        if (runningAsRoot()) {
            QFile::setPermissions(QString::fromStdString(m_dir), QFileDevice::ReadOwner | QFileDevice::WriteOwner |
                                                                     QFileDevice::ExeOwner | QFileDevice::ExeOther |
                                                                     QFileDevice::ExeGroup);
            const QString setpriv = QStandardPaths::findExecutable("setpriv");
            EXPECT_FALSE(setpriv.isEmpty()) << "setpriv is needed to test permissions as root";
            result = runProgram(setpriv, QStringList{"--reuid=nobody", "--regid=nogroup", "--clear-groups", SUPPORTQT_TOOL_PATH} +
                                             arguments);
        } else {
            result = tool(arguments);
        }
        QFile::setPermissions(output, before);
        return result;
#endif
    };
    const Result appended = mergeInto(temp("folder/appended.msw"));
    EXPECT_EQ(appended.code, 2);
    EXPECT_EQ(appended.err, "supportqt merge: " + temp("folder/appended.msw") + " is a file that " + temp("main.msw") +
                                " appends; name another output\n");
    EXPECT_EQ(readFileBytes(path("folder/appended.msw")), core);
    // A file that no shard appends and that cannot be written is told as such (a failure).
    const Result locked = mergeInto(temp("folder/locked.msw"));
    EXPECT_EQ(locked.code, 1);
    EXPECT_TRUE(locked.err.startsWith("supportqt merge: The file " + temp("folder/locked.msw") + " cannot be opened for write"))
        << locked.err.toStdString();
    EXPECT_EQ(readFileBytes(path("folder/locked.msw")), "kept\n");
}

TEST_F(Tool, ReportAllIndexEscapesItsTextsAndFitsA1280PixelWindow)
{
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    header.title = "<script>alert(\"x\")</script> & co";
    header.analysis = ".mc 3 <tran>";
    header.date = "today & tomorrow";
    const std::string longName(160, 'w');
    header.meritFunctions.at(0).name = YString(longName.c_str());
    header.meritFunctions.at(0).value = "v(out) < 1 & v(in) > 2";
    header.meritFunctions.at(1).name = "gain";
    header.meritFunctions.at(1).value = "\"quoted\"";
    for (int c = 1; c <= 3; ++c) {
        XMLReportInfo run(c);
        run.description = "<b>run</b>";
        run.values.at(0).value = 123456.789 * c;
        run.values.at(1).value = -0.000012345 * c;
        table.insert(run);
    }
    ASSERT_TRUE(sp_WriteMswFile(toYs(temp("hostile.msw")), table, header));
    ASSERT_EQ(tool({"report", "all", temp("hostile.msw"), "-o", temp("hostile")}).code, 0);
    const QString index = QString::fromStdString(readFileBytes(path("hostile/index.html")));
    EXPECT_FALSE(index.contains("<script")) << "only escaped";
    EXPECT_FALSE(index.contains("<b>"));
    EXPECT_TRUE(index.contains("<h1>&lt;script&gt;alert(&quot;x&quot;)&lt;/script&gt; &amp; co</h1>"));
    EXPECT_TRUE(index.contains("<td>.mc 3 &lt;tran&gt;</td>"));
    EXPECT_TRUE(index.contains("<td>today &amp; tomorrow</td>"));
    EXPECT_TRUE(index.contains("<dd>v(out) &lt; 1 &amp; v(in) &gt; 2</dd>"));
    EXPECT_TRUE(index.contains("<dt>gain</dt><dd>&quot;quoted&quot;</dd>"));
    EXPECT_TRUE(index.contains("<td class=\"num\">246.914k</td>"));
    EXPECT_TRUE(index.contains("<td class=\"num\">-24.69u</td>"));

    SUPPORTQT_SKIP_UNLESS_PEER_RUNS("chromium");
    ASSERT_EQ(tool({"report", "all", example("results/buck_montecarlo.msw"), "-o", temp("mc")}).code, 0);
    ASSERT_EQ(tool({"report", "all", example("results/buck_sensitivity.msw"), "-o", temp("sens")}).code, 0);
    for (const QString& page : {temp("hostile/index.html"), temp("mc/index.html"), temp("sens/index.html")}) {
        const PageLayout layout = layoutAt1280(page, temp("chromium-profile"));
        EXPECT_EQ(layout.clientWidth, 1280) << page.toStdString();
        EXPECT_LE(layout.scrollWidth, 1280) << page.toStdString() << ": the page scrolls sideways";
        EXPECT_EQ(layout.numberAlign, "right") << page.toStdString();
    }
}

// Takes a screenshot of a page with headless Chromium and checks that it shows something: more than
// one colour and a fair share of pixels that are not the background.
void expectVisible(const QString& page, const QString& screenshot)
{
    SUPPORTQT_SKIP_UNLESS_PEER_RUNS("chromium");
    const QString chromium = QStandardPaths::findExecutable("chromium");
    ASSERT_FALSE(chromium.isEmpty()) << "chromium is installed by scripts/deps";
    const Result r = runProgram(chromium, {"--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
                                           "--window-size=1000,800", "--screenshot=" + screenshot,
                                           QUrl::fromLocalFile(page).toString()});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    QImage image(screenshot);
    ASSERT_FALSE(image.isNull()) << screenshot.toStdString();
    const QRgb background = image.pixel(image.width() - 1, image.height() - 1);
    long long differing = 0;
    for (int y = 0; y < image.height(); y += 2)
        for (int x = 0; x < image.width(); x += 2)
            differing += image.pixel(x, y) != background;
    const double share = static_cast<double>(differing) / (image.width() / 2 * image.height() / 2);
    EXPECT_GT(share, 0.005) << page.toStdString() << " looks blank";
}

// ---------------------------------------------------------------- the demo

TEST_F(Tool, DemoRunsTheTypicalRequestAndItsPicturesShow)
{
    const QString out = temp("demo-out");
    const Result r = tool({"demo", "-o", out});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    const QStringList l = lines(r.out);
    EXPECT_EQ(l[0], "1. Read the netlist " + example("netlists/buck_converter.cir"));
    EXPECT_EQ(l[1], "   title \"Synchronous buck converter, 12 V to 3.3 V at 500 kHz\"; 17 logical lines from 24 physical "
                    "lines (the last starts on line 24)");
    EXPECT_EQ(l[2], "   hierarchy separator \".\" set by a *# directive; plain ASCII");
    EXPECT_TRUE(l[3].startsWith("2. Parsed the switching simulator's statements: 31 of 48 settings given or defaulted "
                                "(TSTOP=0.002, TRIG_GATE=gate_hi, PSP_NPT=100, POP_ITRMAX=30)")) << l[3].toStdString();
    EXPECT_EQ(l[4], "   .tran active, .ac commented out, .pop active; lines kept for the main simulator: 1");
    EXPECT_TRUE(r.out.contains("3. Read the sensitivity results " + example("results/buck_sensitivity.msw") + ": 8 runs, 4 merit functions\n"));
    EXPECT_TRUE(r.out.contains("   ripple: most sensitive to Ref: L1 (normalised -0.99"));
    EXPECT_TRUE(r.out.contains("4. Read the Monte Carlo results " + example("results/buck_montecarlo.msw") + ": 400 runs\n"));
    EXPECT_TRUE(r.out.contains("5. Read the worst-case results " + example("results/buck_worstcase.msw") + ": 9 runs\n"));
    EXPECT_TRUE(r.out.contains("6. Wrote the page that links them all: " + out + "/index.html\n"));
    const QStringList outputs{"controls.cir", "sensitivity.html", "sensitivity.csv", "sensitivity_tornado.svg",
                              "montecarlo.html", "montecarlo_histogram.svg", "worstcase.html", "index.html"};
    EXPECT_EQ(l.mid(l.size() - 9), QStringList{"Outputs are in " + out + ":"} + [&] {
        QStringList indented;
        for (const QString& o : outputs)
            indented << "  " + o;
        return indented;
    }());
    for (const QString& o : outputs)
        EXPECT_TRUE(QFile::exists(out + "/" + o)) << o.toStdString();
    EXPECT_EQ(QDir(out).entryList(QDir::Files | QDir::Hidden).size(), outputs.size());

    // The statements written back read to the settings of the netlist.
    const QJsonObject fromNetlist = parseJson(tool({"controls", example("netlists/buck_converter.cir"), "--json"}).out);
    const QJsonObject fromBack = parseJson(tool({"controls", out + "/controls.cir", "--block", "--json"}).out);
    EXPECT_EQ(byName(fromNetlist["params"].toArray()), byName(fromBack["params"].toArray()));

    // The page that links them: a section per results file, each link followed.
    const QString index = QString::fromStdString(readFileBytes((out + "/index.html").toStdString()));
    EXPECT_TRUE(index.contains("<h1>Buck converter: the demo's reports</h1>"));
    for (const char* title : {"Buck converter sensitivity", "Buck converter Monte Carlo", "Buck converter worst case"})
        EXPECT_TRUE(index.contains(QStringLiteral("<h2>%1</h2>").arg(title))) << title;
    EXPECT_EQ(expectLinksResolve(out + "/index.html"),
              (QStringList{"sensitivity.html", "sensitivity.csv", "sensitivity_tornado.svg", "montecarlo.html",
                           "montecarlo_histogram.svg", "worstcase.html"}));

    for (const QString& o : outputs) {
        if (o.endsWith(".html") || o.endsWith(".svg"))
            expectVisible(out + "/" + o, temp(o + ".png"));
        if (o.endsWith(".svg"))
            expectReadableSvg(out + "/" + o, 10);
    }
    if (hostPeerRuns("chromium")) {
        const PageLayout layout = layoutAt1280(out + "/index.html", temp("chromium-profile"));
        EXPECT_LE(layout.scrollWidth, 1280);
        EXPECT_EQ(layout.numberAlign, "right");
    }
}

TEST_F(Tool, DemoWithoutItsExamplesFailsClearly)
{
    const Result r = tool({"demo", "-o", temp("out/demo"), "--examples", temp("nowhere")});
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.err, "supportqt demo: The file " + temp("nowhere") + "/netlists/buck_converter.cir does not exist\n");
    // The folders it made for its outputs go with the failure; one that was there stays.
    EXPECT_FALSE(QFileInfo::exists(temp("out")));
    ASSERT_TRUE(QDir().mkpath(temp("kept")));
    EXPECT_EQ(tool({"demo", "-o", temp("kept/demo"), "--examples", temp("nowhere")}).code, 1);
    EXPECT_TRUE(QFileInfo(temp("kept")).isDir());
    EXPECT_FALSE(QFileInfo::exists(temp("kept/demo")));
}

// ---------------------------------------------------------------- text, why, glob, regex, run, help-url

TEST_F(Tool, TextDetectAndConvertAgreeWithIconv)
{
    const QString wide = temp("wide.cir");
    QString text = QStringLiteral("Title \u00e9\r\nR1 a b 1k\r\n");
    QByteArray bytes("\xFF\xFE", 2);
    for (QChar c : text) {
        bytes.append(static_cast<char>(c.unicode() & 0xFF));
        bytes.append(static_cast<char>(c.unicode() >> 8));
    }
    writeFileBytes(wide.toStdString(), bytes.toStdString());
    const Result detect = tool({"text", "detect", wide});
    ASSERT_EQ(detect.code, 0);
    EXPECT_EQ(detect.out, QStringLiteral("encoding: UTF-16 LE\nline ends: CR LF\n"));
    const QJsonObject o = parseJson(tool({"text", "detect", wide, "--json"}).out);
    EXPECT_EQ(o, (QJsonObject{{"file", wide}, {"wide", true}, {"littleEndian", true}, {"dos", true}, {"mac", false},
                              {"encoding", "UTF-16 LE"}, {"lineEnds", "CR LF"}}));
    EXPECT_EQ(tool({"text", "detect", data("models.lib")}).out, QStringLiteral("encoding: ASCII\nline ends: LF\n"));

    const Result convert = tool({"text", "convert", wide, "-o", temp("utf8.cir")});
    ASSERT_EQ(convert.code, 0) << convert.err.toStdString();
    if (runningUnderWine()) {
        // Wine starts Windows programs only, so the host's iconv is not at hand: the copy is compared
        // with the text the test wrote, in UTF-8 with LF line ends.
        EXPECT_EQ(QString::fromStdString(readFileBytes(path("utf8.cir"))), QString(text).remove(QLatin1Char('\r')));
    } else {
        const Result iconv = runProgram("sh", {"-c", "iconv -f UTF-16 -t UTF-8 \"$1\" | tr -d '\\r'", "sh", wide});
        EXPECT_EQ(QString::fromStdString(readFileBytes(path("utf8.cir"))), iconv.out);
    }
    ASSERT_EQ(tool({"text", "convert", temp("utf8.cir"), "-o", temp("latin1.cir"), "--to", "ISO-8859-1"}).code, 0);
    EXPECT_EQ(readFileBytes(path("latin1.cir")), std::string("Title \xE9\nR1 a b 1k\n"));

    const Result unknown = tool({"text", "convert", wide, "-o", temp("x"), "--to", "KLINGON-8"});
    EXPECT_EQ(unknown.code, 2);
    EXPECT_EQ(unknown.err, QStringLiteral("supportqt text convert: unknown encoding 'KLINGON-8'\n"));
    const Result same = tool({"text", "convert", wide, "-o", wide});
    EXPECT_EQ(same.code, 2);
    EXPECT_EQ(same.err, QStringLiteral("supportqt text convert: the output would replace the input; name another file\n"));
    EXPECT_EQ(readFileBytes(wide.toStdString()), bytes.toStdString());
}

// text detect tells UTF-16 and the line ends from the file's first line end wherever it lies, as the
// load that reads the file does, where it looked at the first 1,024 bytes only.
TEST_F(Tool, TextDetectDecidesFromTheFirstLineEndWhereverItLies)
{
    const QString wide = temp("long16.cir");
    const std::string line = "* " + std::string(2000, 'x') + "\nR1 a b 1\n";
    std::string units;
    for (char c : line)
        units += std::string(1, c) + '\0';
    writeFileBytes(wide.toStdString(), units);
    const Result utf16 = tool({"text", "detect", wide});
    EXPECT_EQ(utf16.code, 0) << utf16.err.toStdString();
    EXPECT_EQ(utf16.out, QStringLiteral("encoding: UTF-16 LE\nline ends: LF\n"));
    const QString dos = temp("longcrlf.cir");
    writeFileBytes(dos.toStdString(), "* " + std::string(2000, 'x') + "\r\nR1 a b 1\r\n");
    EXPECT_EQ(tool({"text", "detect", dos}).out, QStringLiteral("encoding: ASCII\nline ends: CR LF\n"));
    const QString far = temp("farcr.cir");
    writeFileBytes(far.toStdString(), std::string(1500000, 'x') + "\rR1 a b 1\r");
    const QJsonObject o = parseJson(tool({"text", "detect", far, "--json"}).out);
    EXPECT_EQ(o, (QJsonObject{{"file", far}, {"wide", false}, {"littleEndian", true}, {"dos", false}, {"mac", true},
                              {"encoding", "ASCII"}, {"lineEnds", "CR"}}));
}

// A file that begins with a UTF-32 byte-order mark is said to be UTF-32, in its byte order, with the line
// ends of its characters (the first line end here past the first mebibyte the command reads), which
// text convert then reads when it is named; a CR as the last character is a bare CR.
TEST_F(Tool, TextDetectTellsUtf32ByItsMark)
{
    const QString dos = temp("dos32.txt");
    std::string text("\xFF\xFE\0\0", 4);
    for (int i = 0; i < 300000; ++i)
        text += std::string("a\0\0\0", 4);
    writeFileBytes(dos.toStdString(), text + std::string("\r\0\0\0\n\0\0\0", 8));
    const Result little = tool({"text", "detect", dos});
    EXPECT_EQ(little.code, 0) << little.err.toStdString();
    EXPECT_EQ(little.out, "encoding: UTF-32 LE\nline ends: CR LF\n");
    const QString mac = temp("mac32.txt");
    writeFileBytes(mac.toStdString(), std::string("\0\0\xFE\xFF\0\0\0a\0\0\0\r", 12));
    const QJsonObject big = parseJson(tool({"text", "detect", mac, "--json"}).out);
    EXPECT_EQ(big["encoding"].toString(), "UTF-32 BE");
    EXPECT_EQ(big["lineEnds"].toString(), "CR");
    EXPECT_FALSE(big["wide"].toBool(true));
    EXPECT_FALSE(big["littleEndian"].toBool(true));
    EXPECT_FALSE(big["dos"].toBool(true));
    EXPECT_TRUE(big["mac"].toBool(false));
    const QString unix32 = temp("lf32.txt");
    writeFileBytes(unix32.toStdString(), std::string("\xFF\xFE\0\0\n\0\0\0\r\0\0\0", 12));
    EXPECT_EQ(tool({"text", "detect", unix32}).out, "encoding: UTF-32 LE\nline ends: LF\n");
}

#ifndef Q_OS_WIN
// A pipe named as a file is read up to 64 MiB: one that gives more is refused with the way round it,
// standard input as "-", which takes it whole.
TEST_F(Tool, APipeThatGivesMoreThan64MiBIsRefusedWithTheWayRoundIt)
{
    const QString out = temp("big.txt");
    const Result named = runProgram(QStringLiteral("/bin/sh"), {"-c", "head -c 70000000 /dev/zero | tr '\\0' x | \"$1\" text convert /dev/stdin -o \"$2\"",
                                                                "sh", SUPPORTQT_TOOL_PATH, out});
    EXPECT_EQ(named.code, 1);
    EXPECT_EQ(named.err, QStringLiteral("supportqt text convert: cannot load /dev/stdin: a pipe or device is read up to 64 MiB, and it "
                                        "gives more; give its text on standard input as '-'\n"));
    EXPECT_FALSE(QFile::exists(out));
    const Result dash = runProgram(QStringLiteral("/bin/sh"), {"-c", "head -c 70000000 /dev/zero | tr '\\0' x | \"$1\" text convert - -o \"$2\"",
                                                               "sh", SUPPORTQT_TOOL_PATH, out});
    EXPECT_EQ(dash.code, 0) << dash.err.toStdString();
    EXPECT_EQ(QFileInfo(out).size(), 70000000);
}

// A file that ends inside a UTF-8 sequence is no UTF-8: text detect says so, as text convert refuses it.
// A whole sequence at the end is UTF-8.
TEST_F(Tool, TextDetectCountsASequenceCutShortAtTheEndAsNoUtf8)
{
    writeFileBytes(path("cut.txt"), "caf\xe9");
    const Result cut = tool({"text", "detect", temp("cut.txt")});
    EXPECT_EQ(cut.code, 0) << cut.err.toStdString();
    EXPECT_EQ(cut.out, QStringLiteral("encoding: 8-bit, not UTF-8\nline ends: LF\n"));
    EXPECT_EQ(tool({"text", "convert", temp("cut.txt"), "-o", temp("out.txt"), "--from", "UTF-8"}).code, 1);
    writeFileBytes(path("whole.txt"), "caf\xc3\xa9");
    EXPECT_EQ(tool({"text", "detect", temp("whole.txt")}).out, QStringLiteral("encoding: UTF-8\nline ends: LF\n"));
}

// text detect reads its input once, and both of its verdicts come from those bytes: a pipe named as a
// file is judged as a file of its bytes is, and a FIFO is read without a second open that would wait
// for a writer for ever.
TEST_F(Tool, TextDetectReadsAPipeOrAFifoOnce)
{
    writeFileBytes(path("latin1.txt"), "caf\xe9\r\n");
    const Result file = tool({"text", "detect", temp("latin1.txt")});
    EXPECT_EQ(file.code, 0) << file.err.toStdString();
    EXPECT_EQ(file.out, QStringLiteral("encoding: 8-bit, not UTF-8\nline ends: CR LF\n"));
    const Result piped = runProgram(QStringLiteral("/bin/sh"), {"-c", "printf 'caf\\351\\r\\n' | \"$1\" text detect /dev/stdin", "sh",
                                                                SUPPORTQT_TOOL_PATH});
    EXPECT_EQ(piped.code, 0) << piped.err.toStdString();
    EXPECT_EQ(piped.out, file.out);
    const QString fifo = temp("text.fifo");
    ASSERT_EQ(::mkfifo(fifo.toLocal8Bit().constData(), 0600), 0);
    // The writer writes once and goes; timeout ends a tool that would wait for another.
    const Result fromFifo = runProgram(QStringLiteral("/bin/sh"),
                                       {"-c", "printf 'caf\\303\\251\\r\\n' > \"$2\" & timeout 20 \"$1\" text detect \"$2\"", "sh",
                                        SUPPORTQT_TOOL_PATH, fifo});
    EXPECT_EQ(fromFifo.code, 0) << fromFifo.err.toStdString();
    EXPECT_EQ(fromFifo.out, QStringLiteral("encoding: UTF-8\nline ends: CR LF\n"));
}
#endif

TEST_F(Tool, WhyGivesTheDiagnosisKeywordAndMessage)
{
    const QString missing = temp("missing.cir");
    const Result r = tool({"why", missing});
    EXPECT_EQ(r.code, 3);
    EXPECT_EQ(r.out, "notexist: The file " + missing + " does not exist\n");
    const QString existing = temp("here.cir");
    writeFileBytes(existing.toStdString(), "x");
    const Result fine = tool({"why", existing});
    EXPECT_EQ(fine.code, 0);
    EXPECT_EQ(fine.out, QStringLiteral("noerror: the file can be opened\n"));
    const Result overwrite = tool({"why", existing, "--write-new"});
    EXPECT_EQ(overwrite.code, 3);
    EXPECT_EQ(overwrite.out, "overwrite: The file " + existing + " cannot be opened because another file of the same name already exists\n");
    const Result noDir = tool({"why", temp("none/x.cir"), "--write", "--json"});
    EXPECT_EQ(noDir.code, 3);
    const QJsonObject o = parseJson(noDir.out);
    EXPECT_EQ(o["keyword"].toString(), "dirnotexist");
    EXPECT_EQ(o["code"].toInt(), 4);
    EXPECT_FALSE(o["canOpen"].toBool());
    EXPECT_FALSE(o["isFolder"].toBool());
    EXPECT_EQ(tool({"why", existing, "--read", "--write"}).code, 2);
    // A folder is no file to open: the library's diagnosis, and the tool's own word for it.
    const QString folder = QString::fromStdString(m_dir);
    const Result dir = tool({"why", folder});
    EXPECT_EQ(dir.code, 3);
    EXPECT_EQ(dir.out, "readlocked: The file " + folder +
                           " cannot be opened for read; either it is locked by another process or there is insufficient "
                           "privilege (it is a folder)\n");
    EXPECT_TRUE(parseJsonQt(tool({"why", folder, "--json"}).out)["isFolder"].toBool());
}

TEST_F(Tool, GlobAndRegex)
{
    const Result glob = tool({"glob", "R*", "xR12"});
    EXPECT_EQ(glob.code, 0);
    EXPECT_EQ(glob.out, QStringLiteral("1\n"));
    const Result none = tool({"glob", "C?", "R12"});
    EXPECT_EQ(none.code, 3);
    EXPECT_EQ(none.out, QStringLiteral("-1\n"));
    EXPECT_EQ(parseJson(tool({"glob", "a?c", "xxabc", "--json"}).out)["position"].toInt(), 2);

    const Result regex = tool({"regex", "(R)(\\d+)", "R12 x"});
    EXPECT_EQ(regex.code, 0);
    EXPECT_EQ(regex.out, QStringLiteral("position: 0\nmatch: R12\ngroup 1: R\ngroup 2: 12\n"));
    const Result later = tool({"regex", "\\d+", "abc 42"});
    EXPECT_EQ(later.out, QStringLiteral("position: 4\nmatch: 42\n"));
    const Result caseless = tool({"regex", "-i", "abc", "xABC"});
    EXPECT_EQ(caseless.out, QStringLiteral("position: 1\n"));
    const Result missing = tool({"regex", "z+", "abc"});
    EXPECT_EQ(missing.code, 3);
    const QJsonObject o = parseJson(tool({"regex", "(R)(\\d+)", "R12 x", "--json"}).out);
    EXPECT_EQ(o["captures"].toArray().toVariantList(), (QVariantList{"R12", "R", "12"}));
    EXPECT_TRUE(o["matched"].toBool());
    // Ignoring case there are no captures, and whether it matched agrees with the position.
    const QJsonObject ignored = parseJson(tool({"regex", "B", "abc", "-i", "--json"}).out);
    EXPECT_EQ(ignored["position"].toInt(), 1);
    EXPECT_TRUE(ignored["matched"].toBool());
    EXPECT_TRUE(ignored["captures"].toArray().isEmpty());
    const Result ignoredMissing = tool({"regex", "z", "abc", "-i", "--json"});
    EXPECT_EQ(ignoredMissing.code, 3);
    EXPECT_FALSE(parseJson(ignoredMissing.out)["matched"].toBool());
    EXPECT_EQ(parseJson(ignoredMissing.out)["position"].toInt(), -1);
}

#ifndef Q_OS_WIN
// The exit-code line of --capture is a line of its own, after output whose last line has no line feed
// too; output that ends its line gets no second one.
TEST_F(Tool, RunCaptureEndsTheOutputsLastLineBeforeTheExitCode)
{
    const Result open = tool({"run", "printf abc", "--capture"});
    EXPECT_EQ(open.code, 0) << open.err.toStdString();
    EXPECT_EQ(open.out, QStringLiteral("abc\nexit code: 0\n"));
    const Result ended = tool({"run", "printf abc\\n", "--capture"});
    EXPECT_EQ(ended.code, 0) << ended.err.toStdString();
    EXPECT_EQ(ended.out, QStringLiteral("abc\nexit code: 0\n"));
    const Result none = tool({"run", "true", "--capture"});
    EXPECT_EQ(none.out, QStringLiteral("exit code: 0\n"));
}
#endif

TEST_F(Tool, RunStartsAProgramAndReportsItsExitCode)
{
    // The test build's child program, under a name with a blank, with the steps of a small script.
#ifdef Q_OS_WIN
    const QString script = temp("child program.exe");
#else
    const QString script = temp("child program");
#endif
    ASSERT_TRUE(QFile::copy(QStringLiteral(CHILD_PROGRAM_PATH), script));
    // The pause keeps the two channels' order when the machine is busy: captured output keeps the order
    // in which it arrived.
    writeFileBytes(path("child program.steps"), "outargs out\nsleep 200\nerr err\nexit 4\n");
    QFile::setPermissions(script, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    // The program's output goes to the tool's own channels, and the tool exits with its exit code.
    const Result passed = tool({"run", "\"" + script + "\" arg"});
    EXPECT_EQ(passed.code, 4);
    EXPECT_EQ(passed.out, QStringLiteral("out arg\n"));
    EXPECT_EQ(passed.err, QStringLiteral("err\n"));
    const Result r = tool({"run", "\"" + script + "\" arg", "--capture"});
    EXPECT_EQ(r.code, 4) << r.err.toStdString();
    EXPECT_EQ(r.out, QStringLiteral("out arg\nerr\nexit code: 4\n"));
    EXPECT_EQ(r.err, QString());
    const Result json = tool({"run", "\"" + script + "\" x", "--json"});
    EXPECT_EQ(json.code, 4);
    const QJsonObject o = parseJson(json.out);
    EXPECT_EQ(o["exitCode"].toInt(), 4);
    EXPECT_EQ(o["signal"].toInt(), 0);
    EXPECT_EQ(o["discardedBytes"].toInt(), 0);
    EXPECT_EQ(o["output"].toString(), "out x\nerr\n");
    // Output that is no UTF-8: "é" as a console program writes it on Windows (code page 437 or 850) is
    // read in that code page there; elsewhere the byte is shown as U+FFFD.
    writeFileBytes(path("child program.steps"), "out caf\x82\nexit 0\n");
    const Result oem = tool({"run", "\"" + script + "\"", "--json"});
    EXPECT_EQ(oem.code, 0);
#ifdef Q_OS_WIN
    EXPECT_EQ(parseJson(oem.out)["output"].toString(), QStringLiteral("caf\u00E9\n"));
#else
    EXPECT_EQ(parseJson(oem.out)["output"].toString(), QStringLiteral("caf\uFFFD\n"));
#endif
    const Result missing = tool({"run", temp("nothing")});
    EXPECT_EQ(missing.code, 1);
    EXPECT_EQ(missing.err, "supportqt run: " + temp("nothing") + ": the program does not exist\n");
    // A command line of no program is a usage error, not a program that is missing.
    for (const char* empty : {"", "   ", "\"\"", "\" \" arg"}) {
        const Result none = tool({"run", empty});
        EXPECT_EQ(none.code, 2) << empty;
        EXPECT_EQ(none.err, "supportqt run: the command line names no program\n") << empty;
    }
    const QString plain = temp("plain.txt");
    writeFileBytes(plain.toStdString(), "text");
    const Result notExecutable = tool({"run", plain});
    EXPECT_EQ(notExecutable.code, 1);
    EXPECT_EQ(notExecutable.err, "supportqt run: " + plain + ": the program may not be executed\n");
}

#ifndef Q_OS_WIN
// A program killed by a signal is told apart from one that exits with the signal's number; captured
// output beyond the tool's 64 MiB is counted and dropped; killing the tool ends the program it runs.
TEST_F(Tool, RunToldSignalsFromExitsKeepsCapturedOutputBoundedAndEndsItsProgram)
{
    const auto childAt = [&](const QString& name, const std::string& steps) {
        const QString program = temp(name);
        EXPECT_TRUE(QFile::copy(QStringLiteral(CHILD_PROGRAM_PATH), program));
        QFile::setPermissions(program, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        writeFileBytes(path(name.toStdString() + ".steps"), steps);
        return program;
    };
    const Result killed = tool({"run", childAt("killed", "out before\nsignal 15\n")});
    EXPECT_EQ(killed.code, 128 + 15);
    EXPECT_EQ(killed.out, "before\n");
    EXPECT_EQ(killed.err, "supportqt run: killed by signal 15 (SIGTERM)\n");
    const Result killedCaptured = tool({"run", temp("killed"), "--capture"});
    EXPECT_EQ(killedCaptured.code, 128 + 15);
    EXPECT_EQ(killedCaptured.out, "before\nkilled by signal 15 (SIGTERM)\n");
    EXPECT_EQ(killedCaptured.err, "supportqt run: killed by signal 15 (SIGTERM)\n");
    // In JSON the signal is said and no exit code, which the program never gave; an exit with the
    // signal's number is an exit code and no signal.
    const QJsonObject killedJson = parseJson(tool({"run", temp("killed"), "--json"}).out);
    EXPECT_EQ(killedJson["signal"].toInt(), 15);
    EXPECT_TRUE(killedJson["exitCode"].isNull()) << killedJson["exitCode"].toInt();
    const QJsonObject exitedJson = parseJson(tool({"run", childAt("exits15", "exit 15\n"), "--json"}).out);
    EXPECT_EQ(exitedJson["exitCode"].toInt(-1), 15);
    EXPECT_EQ(exitedJson["signal"].toInt(-1), 0);
    // The program reads the tool's own standard input, to its end, in both modes.
    const QString echo = childAt("echo", "echoin\nexit 0\n");
    const Result echoed = runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), {"run", echo}, QString(), "piped line\n");
    EXPECT_EQ(echoed.code, 0);
    EXPECT_EQ(echoed.out, "piped line\n");
    const Result echoedCaptured = runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), {"run", echo, "--capture"}, QString(), "piped\n");
    EXPECT_EQ(echoedCaptured.out, "piped\nexit code: 0\n");
    const Result exited = tool({"run", childAt("exits", "exit 15\n")});
    EXPECT_EQ(exited.code, 15);
    EXPECT_EQ(exited.err, "");

    // The tool's own writes beyond a file-size limit fail with an error; the program it runs meets the
    // limit as it would without the tool, its writer ended by SIGXFSZ (25), 128 + 25 in the shell.
    const QString writer = temp("writer.sh");
    writeFileBytes(writer.toStdString(), "#!/bin/sh\nhead -c 100000 /dev/zero > \"$1\"\necho \"rc=$?\"\n");
    QFile::setPermissions(writer, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    const Result limited = runProgram(QStringLiteral("/bin/sh"),
                                      {"-c", QStringLiteral("ulimit -f 10; exec '%1' run '\"%2\" \"%3\"'")
                                                 .arg(SUPPORTQT_TOOL_PATH, writer, temp("big.bin"))});
    EXPECT_EQ(limited.code, 0) << limited.err.toStdString();
    EXPECT_EQ(limited.out, "rc=153\n");

    // 80 blocks of one mebibyte: 64 are kept and printed, 16 are counted.
    const Result flood = tool({"run", childAt("flood", "flood 80\nexit 0\n"), "--capture"});
    EXPECT_EQ(flood.code, 0);
    EXPECT_EQ(flood.out.size(), (64 << 20) + int(sizeof("exit code: 0\n")) - 1);
    EXPECT_EQ(flood.err, QStringLiteral("supportqt run: the program wrote %1 bytes more than the %2 kept\n").arg(16 << 20).arg(64 << 20));

    // The tool is killed outright (no chance to forward anything): its program ends all the same.
    const QString held = childAt("held", "pidfile " + path("pid.txt") + "\nwaitfor " + path("go") + "\nexit 0\n");
    QProcess running;
    running.start(QStringLiteral(SUPPORTQT_TOOL_PATH), {"run", held});
    ASSERT_TRUE(running.waitForStarted(30000));
    QElapsedTimer timer;
    timer.start();
    int pid = 0;
    while ((pid = std::atoi(readFileBytes(path("pid.txt")).c_str())) <= 0 && timer.elapsed() < 30000)
        QThread::msleep(20);
    ASSERT_GT(pid, 0);
    // A process that has ended is gone or a zombie waiting for whoever inherited it.
    const auto ended = [pid] {
        QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
        if (!stat.open(QIODevice::ReadOnly))
            return true;
        const QByteArray text = stat.readAll();
        const int close = text.lastIndexOf(')');
        return close < 0 || text.mid(close + 2, 1) == "Z";
    };
    EXPECT_FALSE(ended());
    running.kill();
    ASSERT_TRUE(running.waitForFinished(30000));
    timer.restart();
    while (!ended() && timer.elapsed() < 10000)
        QThread::msleep(20);
    EXPECT_TRUE(ended()) << "the program of a killed tool is still running";
    writeFileBytes(path("go"), "");
}
#endif

// A sensitivity that is not a number is not shown as valid, in the text as in the JSON.
TEST_F(Tool, ANormThatIsNotANumberIsNotCalledValid)
{
    writeFileBytes(path("nan.msw"),
                   "<?xml version=\"1.0\"?>\n<msw version=\"1.0\"><header title=\"t\" analysis=\".sens\"/>"
                   "<meritfunction value=\"max(v(out))\" name=\"vmax\"><sensval case=\"1\" value=\"1\"/>"
                   "<sensval case=\"2\" value=\"nan\"/></meritfunction><steps><step case=\"1\" description=\"nominal\"/>"
                   "<step case=\"2\" name=\"lot:x/devparam:R1/tol:1%/refdes:R1\"><parameter name=\"R1\" nom=\"1000\" "
                   "usedvalue=\"1010\" tol=\"0.01\"/></step></steps></msw>\n");
    const Result text = tool({"results", temp("nan.msw"), "--runs"});
    EXPECT_EQ(text.code, 0) << text.err.toStdString();
    EXPECT_TRUE(text.out.contains("  vmax  value nan  delta nan  norm nan  not finite\n")) << text.out.toStdString();
    EXPECT_TRUE(text.out.contains("  vmax  value 1  delta 0  norm 0  valid\n")) << text.out.toStdString();
    const QJsonObject o = parseJson(tool({"results", temp("nan.msw"), "--json", "--runs"}).out);
    QStringList statuses;
    for (const QJsonValue& run : o["runs"].toArray())
        statuses << run.toObject()["values"].toArray().at(0).toObject()["status"].toString();
    EXPECT_EQ(statuses, QStringList({"valid", "not finite"}));
}

TEST_F(Tool, HelpUrlIsTheLibrarysConversion)
{
    for (const char* link : {"kvhlp://page.htm", "kvhlp://analysis/pop.htm#12", "kvhlp://x.htm#999999"}) {
        const Result r = tool({"help-url", link});
        EXPECT_EQ(r.code, 0);
        EXPECT_EQ(r.out, toQs(sp_ConvertKvhlpToUrl(YString(link))) + "\n");
    }
    EXPECT_EQ(tool({"help-url", "kvhlp://page.htm"}).out, QStringLiteral(SUPPORTQT_HELP_SITE "/1.0/page.htm\n"));
    // A web address is no help link.
    const Result web = tool({"help-url", "http://x"});
    EXPECT_EQ(web.code, 2);
    EXPECT_EQ(web.out, "");
    EXPECT_EQ(web.err, "supportqt help-url: 'http://x' is no help link; a help link starts with kvhlp://\n");
    EXPECT_EQ(parseJson(tool({"help-url", "kvhlp://page.htm", "--json"}).out)["url"].toString(),
              QStringLiteral(SUPPORTQT_HELP_SITE "/1.0/page.htm"));
}

} // namespace

// Characters the target encoding cannot hold are counted: without --lossy nothing is written and the
// tool says how many; with it the file is written and the count still reported.
TEST_F(Tool, LossyConversionIsReported)
{
    const QString euro = temp("euro.txt");
    writeFileBytes(euro.toStdString(), "price \xE2\x82\xAC 5, \xE2\x82\xAC 6\n");
    const QString out = temp("latin1.txt");
    const Result refused = tool({"text", "convert", euro, "-o", out, "--to", "ISO-8859-1"});
    EXPECT_EQ(refused.code, 1);
    EXPECT_EQ(refused.err, QStringLiteral("supportqt text convert: 2 characters cannot be written in ISO-8859-1 and "
                                          "become '?'; nothing written (--lossy writes it)\n"));
    EXPECT_FALSE(QFile::exists(out));
    const Result lossy = tool({"text", "convert", euro, "-o", out, "--to", "ISO-8859-1", "--lossy"});
    EXPECT_EQ(lossy.code, 0) << lossy.err.toStdString();
    EXPECT_EQ(lossy.err, QStringLiteral("supportqt text convert: 2 characters cannot be written in ISO-8859-1 and become '?'\n"));
    EXPECT_EQ(readFileBytes(out.toStdString()), std::string("price ? 5, ? 6\n"));
    // So it is in a multi-byte encoding whose encoder would leave the characters out on some systems.
    writeFileBytes(path("kana.txt"), "a\xEF\xBD\xB6" "b\xED\x95\x9C" "c\n");
    const Result gbk = tool({"text", "convert", temp("kana.txt"), "-o", temp("gbk.txt"), "--to", "GBK", "--lossy"});
    EXPECT_EQ(gbk.code, 0) << gbk.err.toStdString();
    EXPECT_EQ(gbk.err, QStringLiteral("supportqt text convert: 2 characters cannot be written in GBK and become '?'\n"));
    EXPECT_EQ(readFileBytes(path("gbk.txt")), std::string("a?b?c\n"));
    // Nothing lost, nothing said.
    const Result clean = tool({"text", "convert", euro, "-o", temp("utf16.txt"), "--to", "UTF-16LE"});
    EXPECT_EQ(clean.code, 0);
    EXPECT_TRUE(clean.err.isEmpty()) << clean.err.toStdString();
}

// Bytes that are not text in the encoding FILE is read as are counted too, before anything is written:
// each becomes U+FFFD, so without --lossy nothing is written. A U+FFFD written in the file is text.
TEST_F(Tool, BytesThatAreNotTextInTheSourceEncodingAreReported)
{
    const QString bad = temp("bad.txt");
    writeFileBytes(bad.toStdString(), "abc\xFF\xFE" "def\n\xEF\xBF\xBD ok\n");
    const QString out = temp("out.txt");
    const Result refused = tool({"text", "convert", bad, "-o", out, "--from", "UTF-8"});
    EXPECT_EQ(refused.code, 1);
    EXPECT_EQ(refused.err, "supportqt text convert: 2 characters of " + bad +
                               " cannot be read as UTF-8 and become U+FFFD; nothing written (--lossy writes it)\n");
    EXPECT_FALSE(QFile::exists(out));
    const Result lossy = tool({"text", "convert", bad, "-o", out, "--from", "UTF-8", "--lossy"});
    EXPECT_EQ(lossy.code, 0) << lossy.err.toStdString();
    EXPECT_EQ(lossy.err, "supportqt text convert: 2 characters of " + bad + " cannot be read as UTF-8 and become U+FFFD\n");
    EXPECT_EQ(readFileBytes(out.toStdString()), std::string("abc\xEF\xBF\xBD\xEF\xBF\xBD" "def\n\xEF\xBF\xBD ok\n"));
    // Read as Latin-1 every byte is a character.
    const Result latin = tool({"text", "convert", bad, "-o", temp("latin.txt"), "--from", "ISO-8859-1"});
    EXPECT_EQ(latin.code, 0) << latin.err.toStdString();
    EXPECT_EQ(latin.err, QString());
    // A sequence the end cuts short loses each of its bytes, as the whole file's decoding shows.
    const QString cut = temp("cut.txt");
    writeFileBytes(cut.toStdString(), "abc\xE2\x82");
    const Result shortEnd = tool({"text", "convert", cut, "-o", out, "--from", "UTF-8", "--lossy"});
    EXPECT_EQ(shortEnd.code, 0) << shortEnd.err.toStdString();
    EXPECT_EQ(shortEnd.err, "supportqt text convert: 2 characters of " + cut + " cannot be read as UTF-8 and become U+FFFD\n");
    EXPECT_EQ(readFileBytes(out.toStdString()), std::string("abc\xEF\xBF\xBD\xEF\xBF\xBD"));
    // Standard input is named as "-"; one character lost is said in the singular, on either side.
    const Result piped = runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), {"text", "convert", "-", "-o", "-", "--from", "UTF-8"},
                                    QString(), QByteArray("x\x80y\n"));
    EXPECT_EQ(piped.code, 1);
    EXPECT_EQ(piped.out, QString());
    EXPECT_EQ(piped.err, "supportqt text convert: 1 character of - cannot be read as UTF-8 and becomes U+FFFD; nothing written "
                         "(--lossy writes it)\n");
    const QString euro = temp("euro.txt");
    writeFileBytes(euro.toStdString(), "caf\xC3\xA9 \xE2\x82\xAC\n");
    const Result one = tool({"text", "convert", euro, "-o", temp("latin1.txt"), "--to", "ISO-8859-1"});
    EXPECT_EQ(one.code, 1);
    EXPECT_EQ(one.err, "supportqt text convert: 1 character cannot be written in ISO-8859-1 and becomes '?'; nothing written "
                       "(--lossy writes it)\n");
#ifndef _WIN32
    // "auto" reads UTF-8 cut short at the end with the locale's codec, as 8-bit text: in a UTF-8 locale
    // the cut sequence is lost too.
    const Result automatic = runProgram(QStringLiteral("/bin/sh"), {"-c", "LC_ALL=C.UTF-8 \"$1\" text convert \"$2\" -o -", "sh",
                                                                    SUPPORTQT_TOOL_PATH, cut});
    EXPECT_EQ(automatic.code, 1);
    EXPECT_EQ(automatic.out, QString());
    EXPECT_EQ(automatic.err, "supportqt text convert: 2 characters of " + cut +
                                 " cannot be read as UTF-8 and become U+FFFD; nothing written (--lossy writes it)\n");
    // A FIFO gives its bytes once: they are copied, then checked and converted.
    const QString fifo = temp("bad.fifo");
    ASSERT_EQ(::mkfifo(fifo.toLocal8Bit().constData(), 0600), 0);
    const Result fromFifo = runProgram(QStringLiteral("/bin/sh"),
                                       {"-c", "cat \"$3\" > \"$2\" & timeout 20 \"$1\" text convert \"$2\" -o - --from UTF-8 --lossy",
                                        "sh", SUPPORTQT_TOOL_PATH, fifo, bad});
    EXPECT_EQ(fromFifo.code, 0) << fromFifo.err.toStdString();
    EXPECT_EQ(fromFifo.err, "supportqt text convert: 2 characters of " + fifo + " cannot be read as UTF-8 and become U+FFFD\n");
    EXPECT_EQ(fromFifo.out.toUtf8(), QByteArray("abc\xEF\xBF\xBD\xEF\xBF\xBD" "def\n\xEF\xBF\xBD ok\n"));
#endif
}

// UTF-16 and UTF-32 decoders drop the bytes that end a file short of a whole character: the loss is
// reported like a replacement, by "auto" (UTF-16 by its mark, in either byte order) and by a named codec,
// and nothing is written without --lossy.
TEST_F(Tool, BytesThatEndAWideFileShortOfACharacterAreReported)
{
    const QString little = temp("odd16.txt");
    writeFileBytes(little.toStdString(), std::string("\xFF\xFE" "A\0B\0C", 7));
    const QString big = temp("odd16be.txt");
    writeFileBytes(big.toStdString(), std::string("\xFE\xFF\0A\0B\0", 7));
    const QString wide32 = temp("odd32.txt");
    writeFileBytes(wide32.toStdString(), std::string("A\0\0\0B\0", 6));
    const QString out = temp("out.txt");
    const QString refused = QStringLiteral("supportqt text convert: the last %1 of %2 %3 not a whole character in %4 and %5 dropped; "
                                           "nothing written (--lossy writes it)\n");
    const Result automatic = tool({"text", "convert", little, "-o", out});
    EXPECT_EQ(automatic.code, 1);
    EXPECT_EQ(automatic.err, refused.arg("byte", little, "is", "UTF-16LE", "is"));
    EXPECT_FALSE(QFile::exists(out));
    const Result named = tool({"text", "convert", little, "-o", out, "--from", "UTF-16LE"});
    EXPECT_EQ(named.code, 1);
    EXPECT_EQ(named.err, refused.arg("byte", little, "is", "UTF-16LE", "is"));
    // With no mark, the first line end tells UTF-16 wherever it lies: here past the first 1,024 bytes.
    const QString unmarked = temp("unmarked16.txt");
    std::string longLine;
    for (int i = 0; i < 600; ++i)
        longLine += std::string("A\0", 2);
    writeFileBytes(unmarked.toStdString(), longLine + std::string("\n\0C", 3));
    const Result late = tool({"text", "convert", unmarked, "-o", out});
    EXPECT_EQ(late.code, 1);
    EXPECT_EQ(late.err, refused.arg("byte", unmarked, "is", "UTF-16LE", "is"));
    // Or past the first block of a mebibyte that the check reads; and a big-endian file's first line
    // end there is a CR after a zero byte, which follows a CR that is not one.
    const QString far = temp("far16.txt");
    std::string farText;
    for (int i = 0; i < 600000; ++i)
        farText += std::string("A\0", 2);
    writeFileBytes(far.toStdString(), farText + std::string("\r\0\n\0C", 5));
    const Result farLate = tool({"text", "convert", far, "-o", out});
    EXPECT_EQ(farLate.code, 1);
    EXPECT_EQ(farLate.err, refused.arg("byte", far, "is", "UTF-16LE", "is"));
    const QString farBig = temp("far16be.txt");
    std::string farBigText("\xFE\xFF", 2);
    for (int i = 0; i < 600000; ++i)
        farBigText += std::string(i == 599999 ? "\r\r" : "\0A", 2);
    writeFileBytes(farBig.toStdString(), farBigText + std::string("\0\r\0\nC", 5));
    const Result farBigLate = tool({"text", "convert", farBig, "-o", out, "--lossy"});
    EXPECT_EQ(farBigLate.code, 0) << farBigLate.err.toStdString();
    EXPECT_EQ(farBigLate.err, "supportqt text convert: the last byte of " + farBig + " is not a whole character in UTF-16BE and is dropped\n");
    EXPECT_EQ(readFileBytes(out.toStdString()), std::string(599999, 'A') + "\xE0\xB4\x8D\n");
    QFile::remove(out);
    const Result bigEndian = tool({"text", "convert", big, "-o", out});
    EXPECT_EQ(bigEndian.code, 1);
    EXPECT_EQ(bigEndian.err, refused.arg("byte", big, "is", "UTF-16BE", "is"));
    const Result utf32 = tool({"text", "convert", wide32, "-o", out, "--from", "UTF-32LE"});
    EXPECT_EQ(utf32.code, 1);
    EXPECT_EQ(utf32.err, refused.arg("2 bytes", wide32, "are", "UTF-32LE", "are"));
    EXPECT_FALSE(QFile::exists(out));
    const Result lossy = tool({"text", "convert", little, "-o", out, "--lossy"});
    EXPECT_EQ(lossy.code, 0) << lossy.err.toStdString();
    EXPECT_EQ(lossy.err, "supportqt text convert: the last byte of " + little + " is not a whole character in UTF-16LE and is dropped\n");
    EXPECT_EQ(readFileBytes(out.toStdString()), "AB");
    // An even file loses nothing.
    const QString even = temp("even16.txt");
    writeFileBytes(even.toStdString(), std::string("\xFF\xFE" "A\0B\0", 6));
    const Result whole = tool({"text", "convert", even, "-o", temp("even.txt")});
    EXPECT_EQ(whole.code, 0) << whole.err.toStdString();
    EXPECT_EQ(whole.err, QString());
    EXPECT_EQ(readFileBytes(path("even.txt")), "AB");
}

// "auto" reads the UTF-16 marks only: a file that begins with a UTF-32 mark, which would read as
// UTF-16 text of NUL characters, is refused with the name to give.
TEST_F(Tool, AUtf32FileIsNotReadAsUtf16ByAuto)
{
    const QString out = temp("out.txt");
    const QString little = temp("le32.txt");
    writeFileBytes(little.toStdString(), std::string("\xFF\xFE\0\0" "A\0\0\0" "\n\0\0\0", 12));
    const Result refused = tool({"text", "convert", little, "-o", out});
    EXPECT_EQ(refused.code, 2);
    EXPECT_EQ(refused.err, "supportqt text convert: " + little + " begins with a UTF-32 byte-order mark, which auto does not read; "
                                                                 "give --from UTF-32LE\n");
    EXPECT_FALSE(QFile::exists(out));
    const QString big = temp("be32.txt");
    writeFileBytes(big.toStdString(), std::string("\0\0\xFE\xFF" "\0\0\0A", 8));
    EXPECT_EQ(tool({"text", "convert", big, "-o", out}).err,
              "supportqt text convert: " + big + " begins with a UTF-32 byte-order mark, which auto does not read; give --from UTF-32BE\n");
    const Result named = tool({"text", "convert", little, "-o", out, "--from", "UTF-32LE"});
    EXPECT_EQ(named.code, 0) << named.err.toStdString();
    EXPECT_EQ(readFileBytes(out.toStdString()), "A\n");
}

// A UTF-32 file's line ends are judged on its characters, by the first: after a CR LF every CR is
// deleted, after a bare CR every CR becomes a line feed, and a 0x0D or 0x0A byte inside another
// character is no line end at all.
TEST_F(Tool, Utf32LineEndsAreJudgedOnCharacters)
{
    const QString out = temp("out.txt");
    const QString dos = temp("dos32.txt");
    writeFileBytes(dos.toStdString(), std::string("a\0\0\0\r\0\0\0\n\0\0\0b\0\0\0\r\0\0\0\n\0\0\0", 24));
    const Result fromDos = tool({"text", "convert", dos, "-o", out, "--from", "UTF-32LE"});
    EXPECT_EQ(fromDos.code, 0) << fromDos.err.toStdString();
    EXPECT_EQ(fromDos.out, "wrote " + out + ": 4 UTF-16 units, UTF-8\n");
    EXPECT_EQ(readFileBytes(out.toStdString()), "a\nb\n");
    const QString mac = temp("mac32.txt");
    writeFileBytes(mac.toStdString(), std::string("\0\0\0a\0\0\0\r\0\0\0b\0\0\0\r\0\0\0\n", 20));
    const Result fromMac = tool({"text", "convert", mac, "-o", out, "--from", "UTF-32BE"});
    EXPECT_EQ(fromMac.code, 0) << fromMac.err.toStdString();
    EXPECT_EQ(readFileBytes(out.toStdString()), "a\nb\n\n");
    // U+0A0D and U+0D0A hold the bytes of a CR LF and of an LF CR; the text's own line end is CR LF.
    const QString inside = temp("inside32.txt");
    writeFileBytes(inside.toStdString(), std::string("\r\n\0\0\n\r\0\0\r\0\0\0\n\0\0\0", 16));
    const Result fromInside = tool({"text", "convert", inside, "-o", out, "--from", "UTF-32LE"});
    EXPECT_EQ(fromInside.code, 0) << fromInside.err.toStdString();
    EXPECT_EQ(readFileBytes(out.toStdString()), "\xE0\xA8\x8D\xE0\xB4\x8A\n");
    // A CR as the last character is a bare CR, as in UTF-16 text; a lone line feed changes nothing.
    const QString last = temp("last32.txt");
    writeFileBytes(last.toStdString(), std::string("a\0\0\0\r\0\0\0", 8));
    EXPECT_EQ(tool({"text", "convert", last, "-o", out, "--from", "UTF-32LE"}).code, 0);
    EXPECT_EQ(readFileBytes(out.toStdString()), "a\n");
    const QString lineFeeds = temp("lf32.txt");
    writeFileBytes(lineFeeds.toStdString(), std::string("a\0\0\0\n\0\0\0\r\0\0\0\n\0\0\0", 16));
    EXPECT_EQ(tool({"text", "convert", lineFeeds, "-o", out, "--from", "UTF-32LE"}).code, 0);
    EXPECT_EQ(readFileBytes(out.toStdString()), "a\n\r\n");
}

// Some 8-bit decoders make U+FFFD of the bytes they cannot read without counting them: those are counted
// by the U+FFFD made (UTF-8's own decoder counts, and a UTF-8 source's own U+FFFD is none).
TEST_F(Tool, EightBitDecodersAreHeldToTheirReplacements)
{
    const QString refused = QStringLiteral("supportqt text convert: %1 character%2 of %3 cannot be read as %4 and %5 U+FFFD; "
                                           "nothing written (--lossy writes it)\n");
    const QString out = temp("out.txt");
    // 0x81 0x20 is a lead byte without its trail byte, and 0xEF 0xBF a lead byte and a byte that is no
    // character; 0x82 0xA0 and 0x88 0x9F are characters.
    const QString sjis = temp("sjis.txt");
    writeFileBytes(sjis.toStdString(), "abc\x82\xa0 \x88\x9f bad\x81\x20x \xef\xbf\n");
    const Result shiftJis = tool({"text", "convert", sjis, "-o", out, "--from", "Shift_JIS"});
    EXPECT_EQ(shiftJis.code, 1);
    EXPECT_EQ(shiftJis.err, refused.arg("2", "s", sjis, "Shift_JIS", "become"));
    EXPECT_FALSE(QFile::exists(out));
    writeFileBytes(path("sjis-whole.txt"), "abc\x82\xa0 \x88\x9f\n");
    const Result whole = tool({"text", "convert", temp("sjis-whole.txt"), "-o", out, "--from", "Shift_JIS"});
    EXPECT_EQ(whole.code, 0) << whole.err.toStdString();
    EXPECT_EQ(readFileBytes(out.toStdString()), "abc\xe3\x81\x82 \xe4\xba\x9c\n");
    // GB18030: a character on each side of the blocks the check reads, and one byte that is none.
    const QString gb = temp("gb18030.txt");
    writeFileBytes(gb.toStdString(), "gb \xd5\xfd " + std::string((1 << 20) - 7, 'x') + "\xd5\xfd \xff\n");
    const Result gb18030 = tool({"text", "convert", gb, "-o", out, "--from", "GB18030"});
    EXPECT_EQ(gb18030.code, 1);
    EXPECT_EQ(gb18030.err, refused.arg("1", "", gb, "GB18030", "becomes"));
    // UTF-8's own U+FFFD is no loss.
    writeFileBytes(path("utf8.txt"), "a\xef\xbf\xbd b\n");
    const Result utf8 = tool({"text", "convert", temp("utf8.txt"), "-o", out, "--from", "UTF-8"});
    EXPECT_EQ(utf8.code, 0) << utf8.err.toStdString();
    EXPECT_EQ(utf8.err, QString());
}

// A UTF-16 text may hold surrogates without their pair, which only UTF-16 can write: for any other
// target they are counted as characters it cannot hold, where the UTF-8 encoder dropped the last one and
// the UTF-32 encoder made U+FFFD of both without a word.
TEST_F(Tool, UnpairedSurrogatesAreReportedForTargetsOtherThanUtf16)
{
    const QString source = temp("unpaired16.txt");
    const std::string units("\xFF\xFE" "A\0" "\x00\xD8" "B\0" "\x00\xD8", 10);
    writeFileBytes(source.toStdString(), units);
    const QString out = temp("out.txt");
    const QString refused = QStringLiteral("supportqt text convert: %1 unpaired UTF-16 surrogate%2 of %3 cannot be written in %4; "
                                           "nothing written (--lossy writes it)\n");
    const Result utf8 = tool({"text", "convert", source, "-o", out});
    EXPECT_EQ(utf8.code, 1);
    EXPECT_EQ(utf8.err, refused.arg("2", "s", source, "UTF-8"));
    const Result utf32 = tool({"text", "convert", source, "-o", out, "--to", "UTF-32LE"});
    EXPECT_EQ(utf32.code, 1);
    EXPECT_EQ(utf32.err, refused.arg("2", "s", source, "UTF-32LE"));
    const Result latin1 = tool({"text", "convert", source, "-o", out, "--to", "ISO-8859-1"});
    EXPECT_EQ(latin1.code, 1);
    EXPECT_EQ(latin1.err, refused.arg("2", "s", source, "ISO-8859-1"));
    EXPECT_FALSE(QFile::exists(out));
    // UTF-16 keeps them as they are (its encoder writes a byte-order mark).
    const Result utf16 = tool({"text", "convert", source, "-o", out, "--to", "UTF-16LE"});
    EXPECT_EQ(utf16.code, 0) << utf16.err.toStdString();
    EXPECT_EQ(utf16.err, QString());
    EXPECT_EQ(readFileBytes(out.toStdString()), units);
    QFile::remove(out);
    const Result lossy = tool({"text", "convert", source, "-o", out, "--lossy"});
    EXPECT_EQ(lossy.code, 0) << lossy.err.toStdString();
    EXPECT_EQ(lossy.err, "supportqt text convert: 2 unpaired UTF-16 surrogates of " + source + " cannot be written in UTF-8\n");
    EXPECT_EQ(readFileBytes(out.toStdString()), "A?B");
    // One unpaired low surrogate, and a pair, which is one character of UTF-8.
    const QString one = temp("one16.txt");
    writeFileBytes(one.toStdString(), std::string("\xFF\xFE" "\x00\xDC" "\x3D\xD8\x00\xDE", 8));
    const Result single = tool({"text", "convert", one, "-o", out});
    EXPECT_EQ(single.code, 1);
    EXPECT_EQ(single.err, refused.arg("1", "", one, "UTF-8"));
    const QString pair = temp("pair16.txt");
    writeFileBytes(pair.toStdString(), std::string("\xFF\xFE" "\x3D\xD8\x00\xDE" "A\0", 8));
    const Result whole = tool({"text", "convert", pair, "-o", temp("pair.txt")});
    EXPECT_EQ(whole.code, 0) << whole.err.toStdString();
    EXPECT_EQ(whole.err, QString());
    EXPECT_EQ(readFileBytes(path("pair.txt")), "\xF0\x9F\x98\x80" "A");
}

// In 8-bit text whose first line end is CR LF the load deletes every CR byte before decoding, so a CR
// inside a UTF-8 sequence does not break it, and the check finds nothing lost; where the first line end
// is a bare CR, the CR becomes a line feed and the sequence is broken, in the check as in the load.
TEST_F(Tool, ACarriageReturnTheLoadDeletesBreaksNoUtf8Sequence)
{
    const QString dos = temp("split-dos.txt");
    writeFileBytes(dos.toStdString(), "x\r\ncaf\xC3\r\xA9\r\n");
    const QString out = temp("out.txt");
    for (const char* from : {"auto", "UTF-8"}) {
        QFile::remove(out);
        const Result converted = tool({"text", "convert", dos, "-o", out, "--from", from});
        EXPECT_EQ(converted.code, 0) << from << ": " << converted.err.toStdString();
        EXPECT_EQ(converted.err, QString()) << from;
        EXPECT_EQ(readFileBytes(out.toStdString()), "x\ncaf\xC3\xA9\n") << from;
    }
    // The first line end decides wherever it lies, here past the first mebibyte of the file.
    const QString late = temp("split-late.txt");
    writeFileBytes(late.toStdString(), std::string(1500000, 'x') + "\r\ncaf\xC3\r\xA9\r\n");
    QFile::remove(out);
    const Result far = tool({"text", "convert", late, "-o", out});
    EXPECT_EQ(far.code, 0) << far.err.toStdString();
    EXPECT_EQ(far.err, QString());
    EXPECT_EQ(readFileBytes(out.toStdString()), std::string(1500000, 'x') + "\ncaf\xC3\xA9\n");
    const QString mac = temp("split-mac.txt");
    writeFileBytes(mac.toStdString(), "x\rcaf\xC3\r\xA9\r");
    QFile::remove(out);
    const Result broken = tool({"text", "convert", mac, "-o", out, "--from", "UTF-8"});
    EXPECT_EQ(broken.code, 1);
    EXPECT_EQ(broken.err, "supportqt text convert: 2 characters of " + mac +
                              " cannot be read as UTF-8 and become U+FFFD; nothing written (--lossy writes it)\n");
    EXPECT_FALSE(QFile::exists(out));
    const Result lossy = tool({"text", "convert", mac, "-o", out, "--from", "UTF-8", "--lossy"});
    EXPECT_EQ(lossy.code, 0) << lossy.err.toStdString();
    EXPECT_EQ(readFileBytes(out.toStdString()), "x\ncaf\xEF\xBF\xBD\n\xEF\xBF\xBD\n");
}

// A pattern the matchers refuse is a usage error with the reason: Qt's own, or the bound it passes,
// answered without building it (the second pattern took Qt minutes to build); a section whose bounds
// are out of range or the wrong way round is refused.
TEST_F(Tool, InvalidPatternsAndSectionBoundsAreUsageErrors)
{
    const Result bad = tool({"regex", "(", "x"});
    EXPECT_EQ(bad.code, 2);
    EXPECT_EQ(bad.err, "supportqt regex: invalid pattern '(': " + QRegExp("(").errorString() + "\n");
    EXPECT_TRUE(bad.out.isEmpty());
    const Result large = tool({"regex", "((\\b{999}){999}){30}x", "x"});
    EXPECT_EQ(large.code, 2);
    EXPECT_EQ(large.err, QStringLiteral("supportqt regex: invalid pattern '((\\b{999}){999}){30}x': too large to build\n"));
    EXPECT_TRUE(large.out.isEmpty());
    const QString lib = data("models.lib");
    const Result negative = tool({"section", lib, "--start", "0", "--end", "10", "--line-offset", "-2147483648"});
    EXPECT_EQ(negative.code, 2);
    EXPECT_EQ(negative.err, QStringLiteral("supportqt section: --start, --end and --line-offset must lie between 0 and 2147483647\n"));
    const Result reversed = tool({"section", lib, "--start", "300", "--end", "200"});
    EXPECT_EQ(reversed.code, 2);
    EXPECT_EQ(reversed.err, QStringLiteral("supportqt section: --start 300 lies after --end 200\n"));
    // A new name of more than one word would change what the definition's line says.
    for (const char* bad : {"a b", "X\nY", "x=y", "x;y", "x$y", "(x)"}) {
        const Result renamed = tool({"section", lib, "--start", "238", "--end", "318", "--name", bad});
        EXPECT_EQ(renamed.code, 2) << bad;
        // The message shows a control character as a visible escape.
        EXPECT_EQ(renamed.err, QStringLiteral("supportqt section: --name takes one word, not '%1'\n")
                                   .arg(QString::fromUtf8(bad).replace(QLatin1Char('\n'), QLatin1String("\\n"))))
            << bad;
        EXPECT_EQ(renamed.out, QString()) << bad;
    }
}

// A results file cannot drive the user's terminal: escape sequences, bells and carriage returns in its
// texts are printed as visible escapes; the JSON form escapes them as JSON does.
TEST_F(Tool, ControlCharactersInAFileArePrintedVisibly)
{
    const QString file = temp("hostile.msw");
    writeFileBytes(file.toStdString(),
                   "<?xml version=\"1.0\"?>\n<msw version=\"1.0\"><header title=\"&#x1b;]0;owned&#x7;&#x1b;[2J\" "
                   "analysis=\".mc 1 tran\"/><meritfunction value=\"v&#x1b;[31m\" name=\"red&#xd;\">"
                   "<sensval case=\"1\" value=\"1\"/></meritfunction><steps><step case=\"1\" description=\"d\xc2\x9b\"/></steps></msw>\n");
    const Result r = tool({"results", file});
    EXPECT_EQ(r.code, 0) << r.err.toStdString();
    EXPECT_FALSE(r.out.contains(QChar(0x1b)));
    EXPECT_FALSE(r.out.contains(QChar(0x07)));
    EXPECT_FALSE(r.out.contains(QChar('\r')));
    EXPECT_FALSE(r.out.contains(QChar(0x9b)));
    EXPECT_TRUE(r.out.contains(QStringLiteral("\\x1b]0;owned\\x07\\x1b[2J"))) << r.out.toStdString();
    EXPECT_TRUE(r.out.contains(QStringLiteral("red\\x0d"))) << r.out.toStdString();
    const Result json = tool({"results", file, "--json"});
    EXPECT_TRUE(json.out.contains(QStringLiteral("\\u001b]0;owned\\u0007\\u001b[2J"))) << json.out.left(400).toStdString();
    EXPECT_EQ(parseJsonQt(json.out)["header"].toObject()["title"].toString(), QStringLiteral("\x1b]0;owned\x07\x1b[2J"));
}

// The CSV of append-merit: a byte-order mark is no header, a first line is a header only when its first
// field is not a number, values take engineering suffixes, a row that does not parse names its line, a
// name already present is refused, and runs without a value are said.
TEST_F(Tool, AppendMeritReadsTheCsvAsTheLibraryReadsNumbers)
{
    const QString file = temp("sens.msw");
    ASSERT_TRUE(QFile::copy(example("results/buck_sensitivity.msw"), file));
    QFile::setPermissions(file, QFile::ReadOwner | QFile::WriteOwner);
    const std::string before = readFileBytes(file.toStdString());

    const QString bom = temp("bom.csv");
    writeFileBytes(bom.toStdString(), "\xEF\xBB\xBF" "1,1.5k\n2,2m\n3,3\n");
    const Result r = tool({"append-merit", file, "--value", "x", "--name", "eng", "--data", bom});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    EXPECT_EQ(r.out, "added merit function eng with 3 values to " + file + "\n" + "5 runs have no value in " + bom +
                         " and read 0: 4 5 6 7 8\n");
    const QJsonArray merits = parseJsonQt(tool({"results", file, "--json"}).out)["meritFunctions"].toArray();
    ASSERT_EQ(merits.size(), 5);
    EXPECT_EQ(merits[4]["statistics"]["nominal"].toDouble(), 1500.0);

    const QString again = temp("again.csv");
    writeFileBytes(again.toStdString(), "case,value\n1,1\n");
    const std::string afterFirst = readFileBytes(file.toStdString());
    const Result duplicate = tool({"append-merit", file, "--value", "x", "--name", "eng", "--data", again});
    EXPECT_EQ(duplicate.code, 1);
    EXPECT_EQ(duplicate.err, "supportqt append-merit: " + file + " already has a merit function named eng; --replace replaces it\n");
    EXPECT_EQ(readFileBytes(file.toStdString()), afterFirst);
    // --replace: the merit function keeps its place (the fifth) and takes the new text and values.
    const QString twice = temp("twice.csv");
    writeFileBytes(twice.toStdString(), "1,2.5k\n2,-1u\n");
    const Result replaced = tool({"append-merit", file, "--value", "y", "--name", "eng", "--data", twice, "--replace"});
    ASSERT_EQ(replaced.code, 0) << replaced.err.toStdString();
    EXPECT_EQ(replaced.out, "replaced merit function eng with 2 values in " + file + "\n" + "6 runs have no value in " + twice +
                                " and read 0: 3 4 5 6 7 ...\n");
    const QJsonObject after = parseJsonQt(tool({"results", file, "--json", "--runs=2"}).out);
    const QJsonArray afterMerits = after["meritFunctions"].toArray();
    ASSERT_EQ(afterMerits.size(), 5);
    EXPECT_EQ(afterMerits[4]["name"].toString(), "eng");
    EXPECT_EQ(afterMerits[4]["value"].toString(), "y");
    EXPECT_EQ(afterMerits[4]["statistics"]["nominal"].toDouble(), 2500.0);
    EXPECT_EQ(after["runs"].toArray()[0].toObject()["values"].toArray()[4].toObject()["value"].toDouble(), -1e-6);
    const QJsonArray original = parseJsonQt(tool({"results", example("results/buck_sensitivity.msw"), "--json"}).out)["meritFunctions"].toArray();
    EXPECT_EQ(afterMerits[0].toObject()["name"].toString(), original[0].toObject()["name"].toString());
    const std::string afterReplace = readFileBytes(file.toStdString());
    // Values from standard input: the runs without one are said to have none in "-".
    const QString piped = temp("piped.msw");
    ASSERT_TRUE(QFile::copy(example("results/buck_sensitivity.msw"), piped));
    QFile::setPermissions(piped, QFile::ReadOwner | QFile::WriteOwner);
    const Result fromInput = runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH),
                                        {"append-merit", piped, "--value", "z", "--name", "z", "--data", "-"}, QString(), "1,5\n");
    ASSERT_EQ(fromInput.code, 0) << fromInput.err.toStdString();
    EXPECT_EQ(fromInput.out, "added merit function z with 1 value to " + piped + "\n7 runs have no value in - and read 0: 2 3 4 5 6 ...\n");

    const QString bad = temp("bad.csv");
    writeFileBytes(bad.toStdString(), "1,abc\n");
    const Result refused = tool({"append-merit", file, "--value", "x", "--name", "other", "--data", bad});
    EXPECT_EQ(refused.code, 1);
    EXPECT_EQ(refused.err, "supportqt append-merit: " + bad + " line 1: expected \"case,value\", found \"1,abc\"\n");
    EXPECT_EQ(readFileBytes(file.toStdString()), afterReplace);
    EXPECT_NE(afterFirst, before);
    // A value beyond the range of a number would be stored as an infinity; a file of no values, a header
    // alone or nothing at all, would give every run 0. Both are refused.
    const QString huge = temp("huge.csv");
    writeFileBytes(huge.toStdString(), "1,1\n2,1e400\n");
    const Result beyond = tool({"append-merit", file, "--value", "x", "--name", "other", "--data", huge});
    EXPECT_EQ(beyond.code, 1);
    EXPECT_EQ(beyond.err, "supportqt append-merit: " + huge + " line 2: 1e400 is beyond the range of a number\n");
    for (const char* text : {"", "case,value\n", "\n\n"}) {
        const QString empty = temp("empty.csv");
        writeFileBytes(empty.toStdString(), text);
        const Result none = tool({"append-merit", file, "--value", "x", "--name", "other", "--data", empty});
        EXPECT_EQ(none.code, 1) << text;
        EXPECT_EQ(none.err, "supportqt append-merit: " + empty + " gives no \"case,value\" line; " + file + " is as it was\n") << text;
    }
    EXPECT_EQ(readFileBytes(file.toStdString()), afterReplace);
}

#ifdef Q_OS_WIN
// Names that Windows reserves for devices are no files, in any folder, case or extension: as input they
// are refused as a device elsewhere is (COM1 would wait for a serial port for ever), and NUL takes an
// output as /dev/null does elsewhere.
TEST_F(Tool, ReservedDeviceNamesAreNotReadAsFiles)
{
    for (const QString& device : {QStringLiteral("COM1"), QStringLiteral("aux.txt"), QStringLiteral("nul"), temp("CON.cir")}) {
        const Result netlist = tool({"netlist", device});
        EXPECT_EQ(netlist.code, 1) << device.toStdString();
        EXPECT_EQ(netlist.err, "supportqt netlist: " + device + " is not a regular file; give its text on standard input as '-'\n");
        const Result lib = tool({"lib", "sections", device});
        EXPECT_EQ(lib.code, 1) << device.toStdString();
        const Result controls = tool({"controls", device});
        EXPECT_EQ(controls.code, 1) << device.toStdString();
        EXPECT_EQ(controls.err, "supportqt controls: " + device + " is not a regular file; give its text on standard input as '-'\n");
        // text convert, which reads pipes and devices through a copy, takes none by a reserved name.
        const Result converted = tool({"text", "convert", device, "-o", temp("converted.txt")});
        EXPECT_EQ(converted.code, 1) << device.toStdString();
        EXPECT_EQ(converted.err, "supportqt text convert: " + device + " is not a regular file; give its text on standard input as '-'\n");
        EXPECT_FALSE(QFileInfo::exists(temp("converted.txt")));
    }
    const Result discarded = tool({"report", "csv", example("results/buck_sensitivity.msw"), "-o", "NUL"});
    EXPECT_EQ(discarded.code, 0) << discarded.err.toStdString();
    EXPECT_EQ(discarded.err, QString());
    // A file whose name only begins like a device is a file.
    writeFileBytes(path("console.cir"), "R1 a b 1\n");
    EXPECT_EQ(tool({"netlist", temp("console.cir")}).code, 0);
}

// An input named with a dot or blank that ends a part of its name, which Windows drops, is refused by
// every command as an output is, never read as the file of the trimmed name by some and missed by others.
TEST_F(Tool, InputsThatWindowsWouldReadUnderAnotherNameAreRefused)
{
    writeFileBytes(path("in.cir"), "R1 a b 1\n");
    const QString results = example("results/buck_sensitivity.msw");
    struct Case {
        QStringList arguments;
        QString command; // as the error line names it
        QString name;
    };
    const std::vector<Case> cases{{{"netlist", temp("in.cir ")}, "netlist", temp("in.cir ")},
                                  {{"text", "detect", temp("in.cir.")}, "text detect", temp("in.cir.")},
                                  {{"results", results + " "}, "results", results + " "},
                                  {{"stats", results + "."}, "stats", results + "."},
                                  {{"report", "csv", results + " ", "-o", temp("r.csv")}, "report", results + " "},
                                  {{"validate", results + " "}, "validate", results + " "},
                                  {{"index", temp("in.cir ")}, "index", temp("in.cir ")}};
    for (const Case& c : cases) {
        const Result refused = tool(c.arguments);
        EXPECT_EQ(refused.code, 1) << c.arguments.join(' ').toStdString();
        EXPECT_EQ(refused.err, "supportqt " + c.command + ": '" + c.name +
                                   "' has a part that ends in a dot or blank, which Windows drops from file names; name it without\n")
            << c.arguments.join(' ').toStdString();
    }
    EXPECT_FALSE(QFileInfo::exists(temp("r.csv")));
    // The "\\?\" form keeps the name as written: it names no file here.
    const Result literal = tool({"netlist", "\\\\?\\" + QDir::toNativeSeparators(temp("in.cir "))});
    EXPECT_EQ(literal.code, 1);
    EXPECT_FALSE(literal.err.contains("drops")) << literal.err.toStdString();
    EXPECT_EQ(tool({"netlist", temp("in.cir")}).code, 0);
}

// Windows drops the dots and blanks that end a part of a file name, and does not let a read-only file be
// replaced: such an output is refused with the reason, before anything is written, and the file that
// the trimmed name names is left as it was.
TEST_F(Tool, OutputsThatWindowsWouldNotWriteAsNamedAreRefused)
{
    writeFileBytes(path("in.cir"), "R1 a b 1\n");
    writeFileBytes(path("out.txt"), "old\n");
    for (const QString& name : {temp("out.txt."), temp("out.txt "), temp("out.txt. ."), temp("sub./x.txt")}) {
        const Result refused = tool({"text", "convert", temp("in.cir"), "-o", name});
        EXPECT_EQ(refused.code, 1) << name.toStdString();
        EXPECT_EQ(refused.err, "supportqt text convert: '" + name +
                                   "' has a part that ends in a dot or blank, which Windows drops from file names; name it without\n");
    }
    EXPECT_EQ(readFileBytes(path("out.txt")), "old\n");
    EXPECT_FALSE(QFileInfo::exists(temp("sub")));
    // A device's reserved name, in any folder, case or extension and in the "\\.\" form, would take the
    // output and keep nothing (NUL is the null device, and takes it as /dev/null does elsewhere).
    const QString native = QDir::toNativeSeparators(temp(""));
    for (const auto& [name, device] : {std::pair<QString, QString>{temp("aux.lib"), "AUX"}, {temp("Com1"), "COM1"},
                                       {temp("prn .cir"), "PRN"}, {"\\\\.\\COM1", "COM1"}}) {
        const Result refused = tool({"text", "convert", temp("in.cir"), "-o", name});
        EXPECT_EQ(refused.code, 1) << name.toStdString();
        EXPECT_EQ(refused.err, "supportqt text convert: " + name + " names the device " + device +
                                   ", which Windows reserves, not a file; name another file\n");
    }
    EXPECT_EQ(tool({"text", "convert", temp("in.cir"), "-o", temp("nul.txt")}).code, 0);
    // Where the "\\.\" or "\\?\" form makes such a name a file's, no program could open the file by it.
    for (const QString& prefix : {QStringLiteral("\\\\.\\"), QStringLiteral("\\\\?\\")}) {
        const QString name = prefix + native + "aux";
        const Result refused = tool({"text", "convert", temp("in.cir"), "-o", name});
        EXPECT_EQ(refused.code, 1) << name.toStdString();
        EXPECT_EQ(refused.err, "supportqt text convert: '" + name + "' would make a file named aux, which Windows programs cannot open "
                                   "by that name; name another file\n");
    }
    // Characters that Windows does not allow, and a colon that would name a stream of a file.
    for (const auto& [name, held] : {std::pair<QString, QString>{temp("a<b.txt"), "'<'"}, {temp("a|b.txt"), "'|'"},
                                     {temp("a?.txt"), "'?'"}, {temp("a\tb.txt"), "a control character"}}) {
        const Result refused = tool({"text", "convert", temp("in.cir"), "-o", name});
        EXPECT_EQ(refused.code, 1) << name.toStdString();
        EXPECT_EQ(refused.err, "supportqt text convert: '" + name + "' holds " + held + ", which Windows does not allow in file names\n");
    }
    const Result stream = tool({"text", "convert", temp("in.cir"), "-o", temp("out.txt:stream")});
    EXPECT_EQ(stream.code, 1);
    EXPECT_EQ(stream.err, "supportqt text convert: '" + temp("out.txt:stream") +
                              "' holds ':' after its drive, which Windows reads as naming a stream of a file; name a file\n");
    // The "\\?\" form is taken as written: '/' and ".." in it would name another file than meant.
    for (const QString& name : {"\\\\?\\" + temp("x.txt"), "\\\\?\\" + native + "..\\x.txt"}) {
        const Result refused = tool({"text", "convert", temp("in.cir"), "-o", name});
        EXPECT_EQ(refused.code, 1) << name.toStdString();
        EXPECT_EQ(refused.err, "supportqt text convert: '" + name + "' is in the \\\\?\\ form, which is taken as written: '/' is no "
                                   "separator there, nor are '.' and '..' steps; name it with '\\' and whole folder names\n");
    }
    const Result literal = tool({"text", "convert", temp("in.cir"), "-o", "\\\\?\\" + native + "literal.txt"});
    EXPECT_EQ(literal.code, 0) << literal.err.toStdString();
    EXPECT_EQ(readFileBytes(path("literal.txt")), "R1 a b 1\n");
    EXPECT_EQ(QDir(temp("")).entryList(QDir::Files).join(','), "in.cir,literal.txt,out.txt");
    // "." and ".." are no names, and a dot inside one is kept.
    const Result dotted = tool({"text", "convert", temp("in.cir"), "-o", temp("./x.y.txt")});
    EXPECT_EQ(dotted.code, 0) << dotted.err.toStdString();
    EXPECT_EQ(readFileBytes(path("x.y.txt")), "R1 a b 1\n");
    // Qt gives a file without write permission the read-only attribute.
    ASSERT_TRUE(QFile::setPermissions(temp("out.txt"), QFile::ReadOwner | QFile::ReadUser));
    const Result readOnly = tool({"text", "convert", temp("in.cir"), "-o", temp("out.txt")});
    EXPECT_EQ(readOnly.code, 1);
    EXPECT_EQ(readOnly.err, "supportqt text convert: " + temp("out.txt") + " is read-only; clear its read-only attribute to replace it\n");
    EXPECT_EQ(readFileBytes(path("out.txt")), "old\n");
    QFile::setPermissions(temp("out.txt"), QFile::ReadOwner | QFile::WriteOwner);
}

// A batch file runs in the command interpreter, which reads "&" and the like in its arguments as its
// own syntax: run refuses them for one rather than let an argument start another program.
TEST_F(Tool, ABatchFileIsNotGivenArgumentsThatTheCommandInterpreterWouldRun)
{
    writeFileBytes(path("echo.bat"), "@echo off\r\necho arg1=[%~1]\r\n");
    const QString batch = QDir::toNativeSeparators(temp("echo.bat"));
    const Result injected = tool({"run", "\"" + batch + "\" x&echo INJECTED", "--capture"});
    EXPECT_EQ(injected.code, 2);
    EXPECT_EQ(injected.err, "supportqt run: the arguments hold '&', which the command interpreter that runs the batch file " + batch +
                                " would read as its own syntax; a batch file cannot be given it\n");
    EXPECT_FALSE(injected.out.contains(QStringLiteral("INJECTED")));
    // A tab ends the program's name as a blank does.
    const Result tabbed = tool({"run", batch + "\tx|echo INJECTED", "--capture"});
    EXPECT_EQ(tabbed.code, 2) << tabbed.out.toStdString();
    EXPECT_FALSE(tabbed.out.contains(QStringLiteral("INJECTED")));
    // Nor does a quote inside the name, or a dot that Windows drops at its end.
    const Result quotedPart = tool({"run", "\"" + QDir::toNativeSeparators(temp("echo")) + "\".bat x&echo INJECTED", "--capture"});
    EXPECT_EQ(quotedPart.code, 2) << quotedPart.out.toStdString();
    EXPECT_FALSE(quotedPart.out.contains(QStringLiteral("INJECTED")));
    const Result dotted = tool({"run", batch + ". x&echo INJECTED", "--capture"});
    EXPECT_EQ(dotted.code, 2) << dotted.out.toStdString();
    EXPECT_FALSE(dotted.out.contains(QStringLiteral("INJECTED")));
    const Result plain = tool({"run", "\"" + batch + "\" plain", "--capture"});
    EXPECT_EQ(plain.code, 0) << plain.err.toStdString();
    EXPECT_TRUE(plain.out.contains(QStringLiteral("arg1=[plain]"))) << plain.out.toStdString();
}
#endif

// The library's reports write the results file's texts as they are: where that breaks a report (markup
// characters in HTML, a quote or a line break in CSV), the tool says where, and writes the report.
TEST_F(Tool, TextsThatTheReportsWriteAsTheyAreAreWarnedOf)
{
    const QString results = temp("texts.msw");
    writeFileBytes(results.toStdString(),
                   "<?xml version=\"1.0\"?>\n<msw version=\"1.0\"><header analysis=\".sens 1%\" title=\"plain\"/>"
                   "<meritfunction name=\"m\" value=\"v(out)\"><sensval case=\"1\" value=\"1\"/><sensval case=\"2\" value=\"5\"/>"
                   "<sensval case=\"3\" value=\"2\"/></meritfunction><steps><step case=\"1\"/>"
                   "<step case=\"2\" description=\"R1 &lt; R2\"><parameter name=\"P\" nom=\"1\" usedvalue=\"1.1\"/></step>"
                   "<step case=\"3\" description=\"say &quot;hi&quot;, there\"><parameter name=\"P\" nom=\"1\" usedvalue=\"1.2\"/></step>"
                   "</steps></msw>\n");
    const Result csv = tool({"report", "csv", results, "-o", temp("texts.csv")});
    EXPECT_EQ(csv.code, 0) << csv.err.toStdString();
    EXPECT_EQ(csv.err, "supportqt report: warning: the description of case 3 of " + results +
                           " holds a double quote or a line break, which the CSV report writes as it is: its fields are not "
                           "well-formed there\n");
    EXPECT_TRUE(QFile::exists(temp("texts.csv")));
    const Result html = tool({"report", "sens", results, "-o", temp("texts.html")});
    EXPECT_EQ(html.code, 0) << html.err.toStdString();
    EXPECT_EQ(html.err, "supportqt report: warning: the description of case 2 of " + results +
                            " holds '<' or '&', which the HTML report writes as it is: a browser reads it as markup there\n");
    const Result all = tool({"report", "all", results, "-o", temp("texts-all")});
    EXPECT_EQ(all.code, 0) << all.err.toStdString();
    EXPECT_EQ(all.err.count(QStringLiteral("warning:")), 2) << all.err.toStdString();
    // Texts a report does not write are no matter: the sensitivity page shows no title and no report
    // shows the group or a merit function's name; the logs show the title.
    std::string other = readFileBytes(example("results/buck_sensitivity.msw").toStdString());
    for (const auto& [from, to] : {std::pair<std::string, std::string>{"title=\"", "title=\"R&amp;D "},
                                   {"group=\"buck\"", "group=\"a &amp; b\""},
                                   {"name=\"ripple\"", "name=\"say &quot;ripple&quot;\""}}) {
        const size_t at = other.find(from);
        ASSERT_NE(at, std::string::npos) << from;
        other.replace(at, from.size(), to);
    }
    writeFileBytes(path("other.msw"), other);
    // Nor does a report folder of a sensitivity analysis, which has no logs.
    for (const char* kind : {"csv", "sens", "all"}) {
        const Result quiet = tool({"report", kind, temp("other.msw"), "-o", temp("other-") + kind});
        EXPECT_EQ(quiet.code, 0) << kind;
        EXPECT_EQ(quiet.err, QString()) << kind;
    }
    const Result log = tool({"report", "mc", temp("other.msw"), "-o", temp("other.html")});
    EXPECT_EQ(log.err, "supportqt report: warning: the title of " + temp("other.msw") +
                           " holds '<' or '&', which the HTML report writes as it is: a browser reads it as markup there\n");
    // A file whose texts need no escaping is reported without a word.
    for (const char* kind : {"csv", "sens", "mc"}) {
        const Result clean = tool({"report", kind, example("results/buck_sensitivity.msw"), "-o", temp("clean.out")});
        EXPECT_EQ(clean.code, 0) << kind;
        EXPECT_EQ(clean.err, QString()) << kind;
    }
}

// An output that is the input itself, under any name, is refused and the input is left byte for byte.
TEST_F(Tool, OutputThatIsTheInputIsRefused)
{
    const QString results = temp("run.msw");
    ASSERT_TRUE(QFile::copy(example("results/buck_sensitivity.msw"), results));
    QFile::setPermissions(results, QFile::ReadOwner | QFile::WriteOwner);
    const std::string before = readFileBytes(results.toStdString());
    const Result same = tool({"report", "csv", results, "-o", results});
    EXPECT_EQ(same.code, 2);
    EXPECT_EQ(same.err, "supportqt report: " + results + " is the results file being read; name another output\n");
    const Result chart = tool({"report", "sens", results, "-o", temp("s.html"), "--chart", results});
    EXPECT_EQ(chart.code, 2);
#ifndef Q_OS_WIN
    // Another name of the same file: a hard link.
    ASSERT_EQ(::link(results.toUtf8().constData(), temp("other-name.msw").toUtf8().constData()), 0);
    const Result linked = tool({"report", "mc", results, "-o", temp("other-name.msw")});
    EXPECT_EQ(linked.code, 2);
#endif
    EXPECT_EQ(readFileBytes(results.toStdString()), before);
    EXPECT_FALSE(QFile::exists(temp("s.html")));
}

// A file whose root is not a results file's is refused, not summarised as an empty one.
// One row per run for data frames and spreadsheets: every merit function and parameter by name, the
// values with every digit, cells a run lacks empty, texts quoted as CSV quotes them.
TEST_F(Tool, ResultsPerRunTableForScripts)
{
    const QString mc = example("results/buck_montecarlo.msw");
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    ASSERT_TRUE(sp_CompileSensReportData(toYs(mc), &table, &header));
    const Result csv = tool({"results", mc, "--table", "csv"});
    ASSERT_EQ(csv.code, 0) << csv.err.toStdString();
    const QStringList rows = lines(csv.out);
    ASSERT_EQ(rows.size(), table.count() + 1);
    EXPECT_EQ(rows[0], "case,seed,description,ripple,vout,efficiency,ipeak,VIN.DC,L1.L,C1.C,RLOAD.R,S1.RON,S2.RON,VHI.PW");
    // Case 1, the nominal run, moved no parameter: its parameter cells are empty.
    EXPECT_TRUE(rows[1].startsWith("1,1,Run=1,0.015730041282946968,")) << rows[1].toStdString();
    EXPECT_TRUE(rows[1].endsWith(",,,,,,,"));
    const XMLReportInfo* second = table.find(XMLReportInfo(2));
    ASSERT_NE(second, nullptr);
    const QStringList cells = rows[2].split(',');
    ASSERT_EQ(cells.size(), 14);
    EXPECT_EQ(cells[0], "2");
    EXPECT_EQ(cells[3].toDouble(), second->values[0].value);
    EXPECT_EQ(cells[8].toDouble(), second->parameters[1].usedValue); // L1.L
    EXPECT_EQ(lines(tool({"results", mc, "--table", "csv", "--runs=3,5"}).out).size(), 3);

    const QJsonObject json = parseJson(tool({"results", mc, "--table", "json"}).out);
    const QJsonArray runs = json["runs"].toArray();
    ASSERT_EQ(runs.size(), table.count());
    EXPECT_EQ(runs[0]["case"].toInt(), 1);
    EXPECT_EQ(runs[0]["values"]["ripple"].toDouble(), 0.015730041282946968);
    EXPECT_TRUE(runs[0]["parameters"].toObject().isEmpty());
    EXPECT_EQ(runs[1]["seed"].toString(), QString::number(second->seed));
    EXPECT_EQ(runs[1]["parameters"]["L1.L"].toDouble(), second->parameters[1].usedValue);

    writeFileBytes(path("quoted.msw"),
                   "<?xml version=\"1.0\"?>\n<msw version=\"1.0\"><meritfunction value=\"v\" name=\"a,b\">"
                   "<sensval case=\"1\" value=\"1\"/><sensval case=\"2\" value=\"2\"/></meritfunction><steps>"
                   "<step case=\"1\" description=\"say &quot;hi&quot;, twice\"/></steps></msw>\n");
    EXPECT_EQ(tool({"results", temp("quoted.msw"), "--table", "csv"}).out,
              "case,seed,description,\"a,b\"\n1,,\"say \"\"hi\"\", twice\",1\n2,,,2\n");
    // A seed beyond 2^53 comes out whole, as text.
    writeFileBytes(path("seed.msw"), "<?xml version=\"1.0\"?>\n<msw version=\"1.0\"><meritfunction value=\"v\" name=\"a\">"
                                     "<sensval case=\"1\" value=\"1\"/></meritfunction><steps>"
                                     "<step case=\"1\" seed=\"9007199254740993\"/></steps></msw>\n");
    const QJsonArray seeded = parseJson(tool({"results", temp("seed.msw"), "--table", "json"}).out)["runs"].toArray();
    ASSERT_EQ(seeded.size(), 1);
    EXPECT_EQ(seeded[0]["seed"].toString(), "9007199254740993");
    const Result bad = tool({"results", mc, "--table", "xml"});
    EXPECT_EQ(bad.code, 2);
    EXPECT_EQ(bad.err, "supportqt results: --table takes csv or json, not \"xml\"\n");
    if (hostPeerRuns("python3")) {
        writeFileBytes(path("quoted.csv"), tool({"results", temp("quoted.msw"), "--table", "csv"}).out.toStdString());
        const Result again = runProgram("python3", {"-c", "import csv,sys; r=list(csv.DictReader(open(sys.argv[1]))); "
                                                          "print(len(r), r[0]['description'], r[0]['a,b'])",
                                                    temp("quoted.csv")});
        EXPECT_EQ(again.out, "2 say \"hi\", twice 1\n");
    }
}

namespace {

// The key paths of a JSON value as docs/json.md writes them: "/" between keys, "[]" for array elements,
// "*" for the keys of an object the document calls a map (its path is in `maps`).
void jsonKeyPaths(const QJsonValue& value, const QString& prefix, const QSet<QString>& maps, QSet<QString>* out)
{
    if (value.isObject()) {
        const QJsonObject object = value.toObject();
        for (auto it = object.begin(); it != object.end(); ++it) {
            const QString path = (prefix.isEmpty() ? QString() : prefix + "/") + (maps.contains(prefix) ? "*" : it.key());
            out->insert(path);
            jsonKeyPaths(it.value(), path, maps, out);
        }
    } else if (value.isArray()) {
        for (const QJsonValue& element : value.toArray())
            jsonKeyPaths(element, prefix + "[]", maps, out);
    }
}

} // namespace

// Every subcommand's JSON has the keys docs/json.md lists for it, no more and no fewer.
// Runs each command of docs/json.md that a "check" comment names (those on the corpus's kit library, or
// all the others) and compares the keys of its output with the document's list. Returns how many it ran.
int checkDocumentedJsonKeys(const QString& tempDir, bool kitCommands)
{
    QFile doc(QStringLiteral(SUPPORTQT_EXAMPLES_DIR "/../docs/json.md"));
    EXPECT_TRUE(doc.open(QIODevice::ReadOnly));
    const QStringList text = QString::fromUtf8(doc.readAll()).split('\n');
    const QString kit = corpusDir() + "/kits/sky130_fd_pr/models/sky130.lib.spice";
    int checked = 0;
    for (int i = 0; i < text.size(); ++i) {
        const QRegularExpressionMatch check = QRegularExpression("^<!-- check: (.*) -->$").match(text[i]);
        if (!check.hasMatch())
            continue;
        EXPECT_EQ(text.value(i + 1), "```keys") << text[i].toStdString();
        QSet<QString> required, documented, maps;
        for (i += 2; i < text.size() && text[i] != "```"; ++i) {
            QString key = text[i];
            const bool optional = key.endsWith('?');
            if (optional)
                key.chop(1);
            documented.insert(key);
            if (!optional)
                required.insert(key);
            if (key.endsWith("/*"))
                maps.insert(key.left(key.size() - 2));
        }
        const QString command = check.captured(1);
        if (command.contains("{kit}") != kitCommands)
            continue;
        // Words as a shell splits them (double quotes group a command line for run); {tool} is this tool.
        QStringList arguments;
        for (QString argument : QProcess::splitCommand(command))
            arguments << argument.replace("{example}", QStringLiteral(SUPPORTQT_EXAMPLES_DIR))
                             .replace("{data}", data(QString()).chopped(1))
                             .replace("{temp}", tempDir)
                             .replace("{kit}", kit)
                             .replace("{tool}", QStringLiteral(SUPPORTQT_TOOL_PATH));
        const Result r = tool(arguments);
        EXPECT_TRUE(r.code == 0 || r.code == 3) << command.toStdString() << ": " << r.err.toStdString();
        QSet<QString> actual;
        jsonKeyPaths(parseJsonQt(r.out), QString(), maps, &actual);
        for (const QString& key : actual)
            EXPECT_TRUE(documented.contains(key)) << command.toStdString() << ": " << key.toStdString() << " is not in the document";
        for (const QString& key : required)
            EXPECT_TRUE(actual.contains(key)) << command.toStdString() << ": " << key.toStdString() << " is missing";
        ++checked;
    }
    return checked;
}

TEST_F(Tool, JsonOutputsHaveTheKeysTheirDocumentLists)
{
    EXPECT_GE(checkDocumentedJsonKeys(temp(QString()).chopped(1), false), 16);
}

// The lib commands' shapes are documented with the kit library of the corpus.
TEST_F(Tool, JsonOfTheLibCommandsOnTheCorpusKitHasTheDocumentedKeys)
{
    if (!QFileInfo::exists(corpusDir() + "/kits/sky130_fd_pr/models/sky130.lib.spice"))
        GTEST_SKIP() << "the kit library of the shared corpus is absent (" << corpusDir().toStdString()
                     << "; set SUPPORTQT_CORPUS_DIR to use one elsewhere)";
    EXPECT_EQ(checkDocumentedJsonKeys(temp(QString()).chopped(1), true), 4);
}

// "-" is standard input wherever a file is read and standard output wherever one is written, as in git,
// ripgrep and jq; what is read or written is the same as through a file.
TEST_F(Tool, DashIsStandardInputAndStandardOutput)
{
    const QString netlist = example("netlists/buck_converter.cir");
    const QString sens = example("results/buck_sensitivity.msw");
    const QByteArray netlistBytes = QByteArray::fromStdString(readFileBytes(netlist.toStdString()));
    const QByteArray sensBytes = QByteArray::fromStdString(readFileBytes(sens.toStdString()));
    const QString program = QStringLiteral(SUPPORTQT_TOOL_PATH);

    const Result fromFile = ::tool({"netlist", netlist});
    const Result fromInput = runProgram(program, {"netlist", "-"}, QString(), netlistBytes);
    EXPECT_EQ(fromInput.code, 0) << fromInput.err.toStdString();
    EXPECT_EQ(fromInput.out, fromFile.out);

    ASSERT_EQ(::tool({"report", "csv", sens, "-o", temp("sens.csv")}).code, 0);
    const Result csv = runProgram(program, {"report", "csv", "-", "-o", "-"}, QString(), sensBytes);
    EXPECT_EQ(csv.code, 0) << csv.err.toStdString();
    EXPECT_EQ(csv.out.toStdString(), readFileBytes(path("sens.csv")));
    EXPECT_TRUE(csv.err.isEmpty()) << csv.err.toStdString();

    const Result table = runProgram(program, {"results", "-", "--table", "csv"}, QString(), sensBytes);
    EXPECT_EQ(table.out, ::tool({"results", sens, "--table", "csv"}).out);

    const Result converted = runProgram(program, {"text", "convert", "-", "-o", "-", "--to", "UTF-16LE"}, QString(),
                                        QByteArray("caf\xc3\xa9\n"));
    EXPECT_EQ(converted.code, 0) << converted.err.toStdString();
    QProcess raw; // the bytes themselves, not decoded as UTF-8
    raw.start(program, {"text", "convert", "-", "-o", "-", "--to", "UTF-16LE"});
    ASSERT_TRUE(raw.waitForStarted(30000));
    raw.write("caf\xc3\xa9\n");
    raw.closeWriteChannel();
    ASSERT_TRUE(raw.waitForFinished(60000));
    EXPECT_EQ(raw.readAllStandardOutput(), QByteArray("\xff\xfe" "c\0a\0f\0\xe9\0\n\0", 12));

    const Result merge = ::tool({"merge", sens, "-o", "-"});
    EXPECT_EQ(merge.code, 2);
    EXPECT_EQ(merge.err, "supportqt merge: the merged file records where its runs came from; name a file for it\n");
    const Result mergeInput = runProgram(program, {"merge", "-", sens, "-o", temp("m.msw")}, QString(), sensBytes);
    EXPECT_EQ(mergeInput.code, 2);
    EXPECT_EQ(mergeInput.err, "supportqt merge: the merged file records where its runs came from; name a file for each part\n");
    const Result demo = ::tool({"demo", "-o", "-"});
    EXPECT_EQ(demo.code, 2);
    EXPECT_EQ(demo.err, "supportqt demo: the demo writes a folder of files; name a folder for it\n");
    EXPECT_FALSE(QFileInfo::exists(QStringLiteral("-")));
    // A style sheet from standard input goes into the page as a named one does.
    writeFileBytes(path("style.css"), "body { color: navy; }\n");
    ASSERT_EQ(::tool({"report", "sens", sens, "-o", temp("named.html"), "--style", temp("style.css")}).code, 0);
    const Result styled = runProgram(program, {"report", "sens", sens, "-o", temp("piped.html"), "--style", "-"}, QString(),
                                     QByteArray("body { color: navy; }\n"));
    EXPECT_EQ(styled.code, 0) << styled.err.toStdString();
    EXPECT_NE(readFileBytes(path("named.html")).find("body { color: navy; }"), std::string::npos);
    EXPECT_EQ(readFileBytes(path("piped.html")), readFileBytes(path("named.html")));
    EXPECT_EQ(::tool({"append-merit", "-", "--value", "v", "--name", "n", "--data", temp("x.csv")}).code, 2);
    EXPECT_EQ(::tool({"report", "sens", sens, "-o", temp("s.html"), "--chart", "-"}).code, 2);
    EXPECT_FALSE(QFileInfo::exists(temp("s.html")));
}

#ifndef Q_OS_WIN
// The copy of standard input goes with the tool when an interrupt or a termination request ends it in the
// middle of reading: a stream without end would otherwise leave a file as large as the disk allows.
TEST_F(Tool, AnInterruptedCopyOfStandardInputIsRemoved)
{
    for (const int signal : {SIGTERM, SIGINT}) {
        QTemporaryDir temporary;
        ASSERT_TRUE(temporary.isValid());
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("TMPDIR"), temporary.path());
        QProcess process;
        process.setProcessEnvironment(environment);
        process.start(QStringLiteral(SUPPORTQT_TOOL_PATH), {"netlist", "-"});
        ASSERT_TRUE(process.waitForStarted(30000));
        const QByteArray megabyte(1 << 20, 'x');
        process.write(megabyte);
        // Wait until the tool has copied the megabyte; the pipe stays open, so it reads on.
        qint64 copied = 0;
        for (int i = 0; i < 3000 && copied < megabyte.size(); ++i) {
            process.waitForBytesWritten(10);
            QDirIterator files(temporary.path(), {"stdin"}, QDir::Files, QDirIterator::Subdirectories);
            copied = files.hasNext() ? QFileInfo(files.next()).size() : 0;
        }
        ASSERT_EQ(copied, megabyte.size()) << signal;
        ::kill(static_cast<pid_t>(process.processId()), signal);
        ASSERT_TRUE(process.waitForFinished(30000));
        EXPECT_EQ(process.exitStatus(), QProcess::CrashExit) << signal;
        EXPECT_EQ(QDir(temporary.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), QStringList()) << signal;
    }
}
#endif

#ifndef Q_OS_WIN
// A reader that closes the pipe early (head) ends the tool as a closed pipe does, and the copy of
// standard input and the output made for standard output go with it.
TEST_F(Tool, AClosedPipeLeavesNoTemporaryFile)
{
    std::string netlist = "* big\n";
    for (int i = 0; i < 20000; ++i)
        netlist += "R" + std::to_string(i) + " a b 1k\n";
    writeFileBytes(path("big.cir"), netlist);
    QTemporaryDir temporary;
    ASSERT_TRUE(temporary.isValid());
    const QString tool = QStringLiteral(SUPPORTQT_TOOL_PATH);
    const QString setting = QStringLiteral("TMPDIR='%1'; export TMPDIR; ").arg(temporary.path());
    const QStringList lines{setting + QStringLiteral("cat '%1' | '%2' netlist - | head -c1").arg(temp("big.cir"), tool),
                            setting + QStringLiteral("'%2' text convert '%1' -o - | head -c1").arg(temp("big.cir"), tool)};
    for (const QString& line : lines) {
        const Result r = runProgram(QStringLiteral("/bin/sh"), {"-c", line});
        EXPECT_EQ(r.out.size(), 1) << line.toStdString();
        EXPECT_EQ(QDir(temporary.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), QStringList())
            << line.toStdString();
    }
}

// A chart that is the report through a link would be overwritten by it: refused, the report as it was.
TEST_F(Tool, AChartThatIsTheReportThroughALinkIsRefused)
{
    writeFileBytes(path("r.html"), "previous\n");
    ASSERT_TRUE(QFile::link(temp("r.html"), temp("rl.svg")));
    const Result r = tool({"report", "sens", example("results/buck_sensitivity.msw"), "-o", temp("r.html"), "--chart", temp("rl.svg")});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err, "supportqt report: the chart and the report would be one file; name another\n");
    EXPECT_EQ(readFileBytes(path("r.html")), "previous\n");
}

// An empty path for an output is a usage error, not the current folder.
TEST_F(Tool, AnEmptyOutputPathIsAUsageError)
{
    QProcess demo;
    demo.setWorkingDirectory(QString::fromStdString(m_dir));
    demo.start(QStringLiteral(SUPPORTQT_TOOL_PATH), {"demo", "-o", ""});
    ASSERT_TRUE(demo.waitForFinished(60000));
    EXPECT_EQ(demo.exitCode(), 2);
    EXPECT_EQ(demo.readAllStandardError(), "supportqt demo: --output needs a path, not an empty text\n");
    EXPECT_EQ(QDir(QString::fromStdString(m_dir)).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), QStringList());
}
#endif

#if defined(__linux__) && !defined(SUPPORTQT_TEST_ASAN)
namespace {

// Runs the tool on `arguments` with "-" reading `input`, its address space limited to what it maps
// while it waits on standard input and 32 MiB more: the tool reads "-" into a file before it does
// anything else, so the limit holds for all the command's work.
Result runWithLittleMemory(const QStringList& arguments, const QByteArray& input)
{
    Result r;
    QProcess process;
    process.start(QStringLiteral(SUPPORTQT_TOOL_PATH), arguments);
    if (!process.waitForStarted(30000)) {
        ADD_FAILURE() << "the tool did not start";
        return r;
    }
    const QString proc = QStringLiteral("/proc/%1/").arg(process.processId());
    // Waiting on standard input is the system call read on descriptor 0.
    const QByteArray readingInput = QByteArray::number(SYS_read) + " 0x0 ";
    bool waiting = false;
    for (int i = 0; i < 3000 && !waiting; ++i) {
        QFile call(proc + QStringLiteral("syscall"));
        waiting = call.open(QIODevice::ReadOnly) && call.readAll().startsWith(readingInput);
        if (!waiting)
            QThread::msleep(10);
    }
    long long mappedKiB = 0;
    QFile status(proc + QStringLiteral("status"));
    if (waiting && status.open(QIODevice::ReadOnly))
        for (const QByteArray& line : status.readAll().split('\n'))
            if (line.startsWith("VmSize:"))
                mappedKiB = line.mid(7).trimmed().split(' ').value(0).toLongLong();
    struct rlimit limit;
    limit.rlim_cur = limit.rlim_max = static_cast<rlim_t>(mappedKiB * 1024 + (32 << 20));
    const bool limited = mappedKiB > 0 && prlimit(static_cast<pid_t>(process.processId()), RLIMIT_AS, &limit, nullptr) == 0;
    EXPECT_TRUE(limited) << "waiting on standard input: " << waiting << ", mapped " << mappedKiB << " KiB";
    process.write(input);
    process.closeWriteChannel();
    EXPECT_TRUE(process.waitForFinished(120000));
    r.code = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    r.out = QString::fromUtf8(process.readAllStandardOutput());
    r.err = QString::fromUtf8(process.readAllStandardError());
    return r;
}

} // namespace

// A netlist line that memory cannot hold is one line on standard error and a failing exit, with either
// reader; so is memory that runs out in any other command.
TEST_F(Tool, MemoryThatRunsOutIsOneLineOnStandardError)
{
    const QByteArray netlist = "R1 a b 1k\nR2 c d " + QByteArray(64 << 20, 'x') + "\nR3 e f 3k\n";
    for (const QStringList& arguments : {QStringList{"netlist", "-"}, QStringList{"netlist", "-", "--literal"}}) {
        const Result r = runWithLittleMemory(arguments, netlist);
        EXPECT_EQ(r.code, 1) << arguments.join(' ').toStdString();
        EXPECT_EQ(r.err, "supportqt netlist: - has a line longer than memory or 2147483646 bytes can hold\n");
        EXPECT_EQ(r.out, QString());
    }
    const Result converted = runWithLittleMemory({"text", "convert", "-", "-o", "-", "--to", "UTF-16LE"}, netlist);
    EXPECT_EQ(converted.code, 1);
    EXPECT_EQ(converted.err, "supportqt text convert: cannot load -: it is too large to hold in memory\n");
    EXPECT_EQ(converted.out, QString());
    // With the memory it needs, the same netlist reads whole.
    const Result whole = runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), {"netlist", "-", "--json"}, QString(), netlist);
    EXPECT_EQ(whole.code, 0) << whole.err.toStdString();
    EXPECT_EQ(parseJsonQt(whole.out).value(QStringLiteral("lines")).toArray().size(), 3);
}
#endif

// A file read from standard input is named "-" in the JSON, as the user named it, never by the
// temporary copy the tool reads it from.
TEST_F(Tool, AFileFromStandardInputIsNamedAsGiven)
{
    const QList<QStringList> commands = {{"netlist", "-", "--json"},      {"index", "-", "--json"},
                                         {"section", "-", "--start", "0", "--end", "11", "--json"},
                                         {"lib", "defs", "-", "--json"},  {"lib", "sections", "-", "--json"},
                                         {"lib", "check", "-", "--json"}, {"text", "detect", "-", "--json"},
                                         {"controls", "-", "--json"}};
    for (const QStringList& arguments : commands) {
        const Result r = runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), arguments, QString(), ".model a d\nR1 a b 1k\n");
        EXPECT_EQ(r.code, 0) << arguments.join(' ').toStdString() << ": " << r.err.toStdString();
        EXPECT_EQ(parseJsonQt(r.out).value(QStringLiteral("file")).toString(), QStringLiteral("-"))
            << arguments.join(' ').toStdString() << ": " << r.out.toStdString();
    }
    // So it is in a message on standard error and in the problems a library check lists.
    const QByteArray library = ".lib typical\n.include missing.inc\n.model a d\n.endl typical\n";
    const Result missing = runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), {"lib", "extract", "-", "a", "-o", temp("a.lib"), "--section", "fast"},
                                      QString(), library);
    EXPECT_EQ(missing.code, 3);
    EXPECT_EQ(missing.err, "supportqt lib extract: - has no section 'fast'\n");
    const Result check = runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), {"lib", "check", "-"}, QString(), library);
    EXPECT_TRUE(check.out.startsWith("missing-file: -:2: missing.inc does not exist or cannot be read (-/missing.inc)\n"))
        << check.out.toStdString();
    const QJsonObject problem = parseJsonQt(runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), {"lib", "check", "-", "--json"}, QString(), library).out)
                                    .value(QStringLiteral("problems"))
                                    .toArray()
                                    .at(0)
                                    .toObject();
    EXPECT_EQ(problem.value(QStringLiteral("file")).toString(), QStringLiteral("-"));
    // A file it includes is named from "-", never in the folder of the copy, even one whose name begins as
    // the copy's does.
    EXPECT_EQ(problem.value(QStringLiteral("name")).toString(), QStringLiteral("-/missing.inc"));
    const Result stdinInclude = runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), {"lib", "check", "-"}, QString(),
                                           ".include stdin.inc\n.model a d\n");
    EXPECT_TRUE(stdinInclude.out.startsWith("missing-file: -:1: stdin.inc does not exist or cannot be read (-/stdin.inc)\n"))
        << stdinInclude.out.toStdString();
    // A file it includes by a path that climbs out of the copy's folder would be looked for in the
    // temporary folder, where anyone may put one: such a library is refused before anything is read.
    for (const QStringList& arguments : {QStringList{"lib", "defs", "-"}, QStringList{"lib", "sections", "-"}, QStringList{"lib", "check", "-"},
                                         QStringList{"lib", "extract", "-", "a", "-o", "-"}}) {
        const Result climbing = runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), arguments, QString(),
                                           ".model a d\n.include \"sub/../../planted.spice\"\n");
        EXPECT_EQ(climbing.code, 1) << arguments.join(' ').toStdString();
        EXPECT_EQ(climbing.err, "supportqt " + arguments.mid(0, 2).join(' ') +
                                    ": line 2 of the library read from standard input includes sub/../../planted.spice, above a "
                                    "folder it does not have; name the library's file\n");
        EXPECT_TRUE(climbing.out.isEmpty());
    }
    EXPECT_EQ(runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), {"lib", "defs", "-"}, QString(), ".include \"sub/../x.spice\"\n").code, 0);
    // In the tables and the library written out as well.
    const Result extracted = runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), {"lib", "extract", "-", "a", "--section", "typical", "-o", "-"},
                                        QString(), library);
    EXPECT_EQ(extracted.out, "* -:3\n.model a d\n");
    // A file that a definition includes by a relative name keeps that name, never one in the copy's folder,
    // which goes with the tool.
    for (const QString& output : {QStringLiteral("-"), temp("rel.lib")}) {
        const Result relative = runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), {"lib", "extract", "-", "s", "-o", output}, QString(),
                                           ".subckt s a\n.include \"sub/inc.lib\"\nR1 a 0 1\n.ends\n");
        EXPECT_EQ(relative.code, 0) << relative.err.toStdString();
        const QString written = output == "-" ? relative.out : QString::fromStdString(readFileBytes(path("rel.lib")));
        EXPECT_EQ(written, "* -:1\n.subckt s a\n.include \"sub/inc.lib\"\nR1 a 0 1\n.ends\n");
    }
    // A file beside the copy whose name begins as the copy's is another file, named as given.
    const Result beside = runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), {"lib", "extract", "-", "s", "-o", "-"}, QString(),
                                     ".subckt s a\n.include \"stdin.lib\"\n.lib stdin/c.lib tt\n.ends\n");
    EXPECT_EQ(beside.out, "* -:1\n.subckt s a\n.include \"stdin.lib\"\n.lib \"stdin/c.lib\" tt\n.ends\n");
    const Result defs = runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), {"lib", "defs", "-"}, QString(), library);
    EXPECT_EQ(defs.out.split('\n').value(1).split(' ', Qt::SkipEmptyParts).value(3), QStringLiteral("-")) << defs.out.toStdString();
    writeFileBytes(path("b.lib"), ".model a d\n");
    const Result diff = runProgram(QStringLiteral(SUPPORTQT_TOOL_PATH), {"lib", "diff", "-", temp("b.lib"), "--json"}, QString(), ".model a e\n");
    EXPECT_EQ(parseJsonQt(diff.out).value(QStringLiteral("a")).toString(), QStringLiteral("-"));
    EXPECT_TRUE(problem.value(QStringLiteral("message")).toString().startsWith(QStringLiteral("-:2: missing.inc does not exist")));
}

#ifndef Q_OS_WIN
// A file name that is not text in the system's encoding (a Latin-1 name where names are UTF-8) is refused
// as such, never taken for another name that does not exist; a name that is text opens as before.
TEST_F(Tool, AnArgumentThatIsNotTextIsRefusedAsSuch)
{
    // The shell hands the bytes over as they are; the tool's own arguments would be text.
    const Result r = runProgram(QStringLiteral("/bin/sh"), {"-c", "exec \"$0\" netlist \"$1\"caf$(printf '\\351').cir",
                                                             QStringLiteral(SUPPORTQT_TOOL_PATH), temp(QString())});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err, "supportqt: the argument " + temp(QString()) +
                         "caf\\xE9.cir is not text in the system's encoding and would be read as other text; a file of such a name "
                         "can be named through a link\n");
    EXPECT_TRUE(r.out.isEmpty());
    writeFileBytes(path("caf\xC3\xA9.cir"), "R1 a b 1k\n");
    const Result text = tool({"netlist", temp(QStringLiteral("caf\u00E9.cir"))});
    EXPECT_EQ(text.code, 0) << text.err.toStdString();
    EXPECT_TRUE(text.out.contains("R1 a b 1k")) << text.out.toStdString();
}
#endif

TEST_F(Tool, ResultsOfAFileThatIsNoResultsFileIsAnError)
{
    const QString svg = temp("chart.svg");
    writeFileBytes(svg.toStdString(), "<?xml version=\"1.0\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\" version=\"1.0\"><text>x</text></svg>\n");
    const Result r = tool({"results", svg});
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.err, "supportqt results: " + svg + ": root element svg, expected msw\n");
    EXPECT_TRUE(r.out.isEmpty());

    // A case that is no number is read as case 0, and said so on standard error.
    std::string text = readFileBytes(data("stats.msw").toStdString());
    const std::string step = "<step case=\"3\"";
    ASSERT_NE(text.find(step), std::string::npos);
    text.replace(text.find(step), step.size(), "<step case=\"x\"");
    writeFileBytes(path("casex.msw"), text);
    const Result x = tool({"results", temp("casex.msw"), "--runs=0"});
    EXPECT_EQ(x.code, 0);
    const int line = QString::fromStdString(text.substr(0, text.find("case=\"x\""))).count('\n') + 1;
    EXPECT_EQ(x.err, QStringLiteral("supportqt results: warning: %1 line %2: case \"x\" is not a number and is read as case 0\n")
                         .arg(temp("casex.msw")).arg(line));
    EXPECT_TRUE(x.out.contains("\ncase 0: ")) << x.out.toStdString();
    // A run that is case 0 by its number gets no word.
    text.replace(text.find("case=\"x\""), 8, "case=\"0\"");
    writeFileBytes(path("case0.msw"), text);
    const Result zero = tool({"results", temp("case0.msw")});
    EXPECT_EQ(zero.code, 0);
    EXPECT_EQ(zero.err, QString());
}

// A chart and a report whose names differ in case only: one file where names ignore case (Windows),
// refused before anything is written; two files elsewhere.
TEST_F(Tool, AChartAndAReportWhoseNamesDifferInCase)
{
    const Result r = tool({"report", "sens", example("results/buck_sensitivity.msw"), "-o", temp("rep.html"), "--chart", temp("REP.HTML")});
#ifdef Q_OS_WIN
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err, "supportqt report: the chart and the report would be one file; name another\n");
    EXPECT_FALSE(QFile::exists(temp("rep.html")));
#else
    EXPECT_EQ(r.code, 0) << r.err.toStdString();
    EXPECT_EQ(readFileBytes(path("rep.html")).find("<svg"), std::string::npos);
    EXPECT_NE(readFileBytes(path("REP.HTML")).find("<svg"), std::string::npos);
#endif
}
