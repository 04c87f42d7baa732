// LibToolTest.cpp - `supportqt lib` run as a real process: sections, definitions, checks, differences
// and extraction of model libraries, their text and JSON output, and their exit codes.
#include "TestHelpers.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

namespace {

struct Result {
    int code = -1;
    QString out;
    QString err;
};

Result tool(const QStringList& arguments)
{
    QProcess process;
    process.start(QStringLiteral(SUPPORTQT_TOOL_PATH), arguments);
    EXPECT_TRUE(process.waitForStarted(30000));
    process.closeWriteChannel();
    EXPECT_TRUE(process.waitForFinished(120000));
    Result r;
    r.code = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    r.out = QString::fromUtf8(process.readAllStandardOutput());
    r.err = QString::fromUtf8(process.readAllStandardError());
    return r;
}

QJsonObject json(const QString& text)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8(), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << error.errorString().toStdString() << "\n" << text.toStdString();
    return document.object();
}

const char kCorner[] = "* corners\n"
                       ".lib tt\n"
                       ".include 'dev.spice'\n"
                       ".model d1 d is=1\n"
                       ".endl tt\n"
                       ".lib ss\n"
                       ".include 'dev.spice'\n"
                       ".model d1 d is=2\n"
                       ".model d1 d is=3\n"
                       ".lib 'missing.lib' ff\n"
                       ".endl ss\n";
const char kDevices[] = ".model nch nmos\n"
                        "* between\n"
                        "+ vth0=0.4\n"
                        ".subckt inv a y vdd\n"
                        "Mn y a 0 0 nch\n"
                        ".ends inv\n"
                        ".subckt buf a y vdd\n"
                        "X1 a m vdd inv\n"
                        "X2 m y vdd inv\n"
                        ".ends\n";

class LibTool : public TempDirTest {
protected:
    void SetUp() override
    {
        TempDirTest::SetUp();
        writeFileBytes(path("corner.lib"), kCorner);
        writeFileBytes(path("dev.spice"), kDevices);
    }
    QString file(const char* name) const { return QString::fromStdString(path(name)); }
};

} // namespace

TEST_F(LibTool, SectionsListsLineRangesAndWhatEachReaches)
{
    const Result r = tool({"lib", "sections", file("corner.lib")});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    EXPECT_EQ(r.out, QStringLiteral("section  lines  definitions  problems\n"
                                    "tt       2-5              4         0\n"
                                    "ss       6-11             5         1\n"
                                    "2 sections\n"));
    const QJsonArray sections = json(tool({"lib", "sections", file("corner.lib"), "--json"}).out)["sections"].toArray();
    ASSERT_EQ(sections.size(), 2);
    EXPECT_EQ(sections[1]["name"].toString(), "ss");
    EXPECT_EQ(sections[1]["line"].toInt(), 6);
    EXPECT_EQ(sections[1]["endLine"].toInt(), 11);
    EXPECT_EQ(sections[1]["definitions"].toInt(), 5);
    EXPECT_EQ(sections[1]["ownDefinitions"].toInt(), 2);
    EXPECT_EQ(sections[1]["problems"].toArray()[0].toObject()["kind"].toString(), "missing-file");
}

// A section under the name of one before it is reached by no reference: its row says which line the
// name belongs to, its JSON carries that line as "repeats", and the check says why its definitions are
// reached by nothing.
TEST_F(LibTool, ASectionThatRepeatsANameIsMarked)
{
    writeFileBytes(path("dup.lib"), ".lib tt\n.model A NMOS\n.endl tt\n.lib TT\n.model B NMOS\n.model C NMOS\n.endl tt\n");
    const Result r = tool({"lib", "sections", file("dup.lib")});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    EXPECT_EQ(r.out, QStringLiteral("section  lines                 definitions  problems\n"
                                    "tt       1-3                             1         0\n"
                                    "TT       4-7 (repeats line 1)            1         0\n"
                                    "2 sections\n"));
    const QJsonArray sections = json(tool({"lib", "sections", file("dup.lib"), "--json"}).out)["sections"].toArray();
    ASSERT_EQ(sections.size(), 2);
    EXPECT_FALSE(sections[0].toObject().contains("repeats"));
    EXPECT_EQ(sections[1]["repeats"].toInt(), 1);
    EXPECT_EQ(sections[1]["ownDefinitions"].toInt(), 2);
    EXPECT_EQ(sections[1]["definitions"].toInt(), 1);
    const Result check = tool({"lib", "check", file("dup.lib")});
    EXPECT_EQ(check.code, 3);
    EXPECT_EQ(check.out, "structure: " + file("dup.lib") + ":4: section TT opens again (first at line 1): a reference to it reaches the "
                         "first one only\nunreferenced: " + file("dup.lib") + ":5: .model B is reached by no section\nunreferenced: " +
                         file("dup.lib") + ":6: .model C is reached by no section\n3 problems\n");
}

TEST_F(LibTool, DefsListsTheFileOrWhatASectionReaches)
{
    const Result own = tool({"lib", "defs", file("dev.spice")});
    ASSERT_EQ(own.code, 0) << own.err.toStdString();
    const QString dev = file("dev.spice");
    const int w = dev.size();
    EXPECT_EQ(own.out, QStringLiteral("kind     name  type/ports  %1  line  start  end\n"
                                      ".model   nch   nmos        %2     1      0   37\n"
                                      ".subckt  inv   a y vdd     %2     4     37   82\n"
                                      ".subckt  buf   a y vdd     %2     7     82  138\n"
                                      "3 definitions\n")
                           .arg(QStringLiteral("file").leftJustified(w), dev));
    const QJsonArray defs = json(tool({"lib", "defs", file("corner.lib"), "--section", "TT", "--json"}).out)["definitions"].toArray();
    ASSERT_EQ(defs.size(), 4);
    EXPECT_EQ(defs[0].toObject(), (QJsonObject{{"kind", ".model"}, {"name", "nch"}, {"type", "nmos"}, {"file", dev}, {"line", 1},
                                               {"lastLine", 3}, {"start", 0}, {"end", 37}, {"lineOffset", 0}}));
    EXPECT_EQ(defs[1]["ports"].toArray(), (QJsonArray{"a", "y", "vdd"}));
    EXPECT_EQ(defs[3]["name"].toString(), "d1");
    EXPECT_EQ(defs[3]["file"].toString(), file("corner.lib"));
    const Result missing = tool({"lib", "defs", file("corner.lib"), "--section", "fast"});
    EXPECT_EQ(missing.code, 3);
    EXPECT_EQ(missing.err, QStringLiteral("supportqt lib defs: %1 has no section 'fast'\n").arg(file("corner.lib")));
}

// The table's columns are as wide in characters as their widest cell: names of UTF-8 letters keep the
// columns after them aligned.
TEST_F(LibTool, DefsAlignsNamesByCharacters)
{
    writeFileBytes(path("u.lib"), ".model DIODE_\xc2\xb5 D (IS=1e-14)\n.model DX D (IS=1)\n.subckt R\xc3\xa9gul a b\nR1 a b 1\n.ends\n");
    const Result r = tool({"lib", "defs", file("u.lib")});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    const QString lib = file("u.lib");
    EXPECT_EQ(r.out, QStringLiteral("kind     name     type/ports  %1  line  start  end\n"
                                    ".model   DIODE_\u00b5  D           %2     1      0   29\n"
                                    ".model   DX       D           %2     2     29   48\n"
                                    ".subckt  R\u00e9gul    a b         %2     3     48   82\n"
                                    "3 definitions\n")
                         .arg(QStringLiteral("file").leftJustified(lib.size()), lib));
}

TEST_F(LibTool, CheckReportsProblemsWithExitCodeThree)
{
    const Result clean = tool({"lib", "check", file("corner.lib"), "--section", "tt"});
    EXPECT_EQ(clean.code, 0) << clean.out.toStdString();
    EXPECT_EQ(clean.out, QStringLiteral("0 problems\n"));
    const Result r = tool({"lib", "check", file("corner.lib"), "--section", "ss"});
    EXPECT_EQ(r.code, 3);
    const QString c = file("corner.lib");
    EXPECT_EQ(r.out, QStringLiteral("missing-file: %1:10: missing.lib does not exist or cannot be read (%2)\n"
                                    "duplicate: %1:9: duplicate .model d1, first defined at %1:8\n"
                                    "2 problems\n")
                         .arg(c, file("missing.lib")));
    const QJsonArray problems = json(tool({"lib", "check", c, "--json"}).out)["problems"].toArray();
    ASSERT_EQ(problems.size(), 2);
    EXPECT_EQ(problems[1]["kind"].toString(), "duplicate");
    EXPECT_EQ(problems[1]["otherLine"].toInt(), 8);
    // A missing file that two sections reach is one problem, and one is counted in the singular.
    writeFileBytes(path("twice.lib"), ".lib tt\n.include gone.spice\n.endl\n.lib ss\n.lib twice.lib tt\n.endl\n");
    const QString twice = file("twice.lib");
    const Result one = tool({"lib", "check", twice});
    EXPECT_EQ(one.code, 3);
    EXPECT_EQ(one.out, QStringLiteral("missing-file: %1:2: gone.spice does not exist or cannot be read (%2)\n"
                                      "1 problem\n")
                           .arg(twice, file("gone.spice")));
    writeFileBytes(path("one.spice"), ".model only d\n");
    EXPECT_TRUE(tool({"lib", "defs", file("one.spice")}).out.endsWith(QStringLiteral("\n1 definition\n")));
    EXPECT_TRUE(tool({"index", file("one.spice")}).out.endsWith(QStringLiteral("\n1 definition\n")));
    EXPECT_TRUE(tool({"lib", "sections", twice}).out.endsWith(QStringLiteral("\n2 sections\n")));
}

TEST_F(LibTool, DiffNamesWhatIsMissingOnEachSideAndWhatDiffers)
{
    writeFileBytes(path("twin.lib"), ".lib tt\n.model d1 d is=1\n.model extra d\n.endl\n");
    const Result r = tool({"lib", "diff", file("corner.lib"), file("twin.lib")});
    EXPECT_EQ(r.code, 3);
    EXPECT_EQ(r.out, QStringLiteral("section only in A: ss\nonly in B: .model extra in section tt\nthe libraries differ\n"));
    const Result same = tool({"lib", "diff", file("dev.spice"), file("dev.spice"), "--json"});
    EXPECT_EQ(same.code, 0);
    EXPECT_TRUE(json(same.out)["differing"].toArray().isEmpty());
}

TEST_F(LibTool, ExtractWritesASelfContainedLibraryThatIndexesAsTheClosure)
{
    const QString out = file("out.lib");
    const Result r = tool({"lib", "extract", file("corner.lib"), "buf", "-o", out, "--section", "tt", "--rename", "inv=INV_X"});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    EXPECT_EQ(r.out, QStringLiteral("wrote 3 definitions to %1\n").arg(out));
    const QString dev = file("dev.spice");
    EXPECT_EQ(QString::fromStdString(readFileBytes(path("out.lib"))),
              QStringLiteral("* %1:1\n.model nch nmos  vth0=0.4\n* %1:4\n.subckt INV_X  a y vdd\nMn y a 0 0 nch\n.ends INV_X\n"
                             "* %1:7\n.subckt buf a y vdd\nX1 a m vdd INV_X\nX2 m y vdd INV_X\n.ends\n")
                  .arg(dev));
    const QJsonArray defs = json(tool({"lib", "defs", out, "--json"}).out)["definitions"].toArray();
    QStringList names;
    for (const QJsonValue& d : defs)
        names << d["name"].toString();
    EXPECT_EQ(names, (QStringList{"nch", "INV_X", "buf"}));
    EXPECT_EQ(tool({"lib", "check", out}).code, 0);

    const QString before = QString::fromStdString(readFileBytes(path("out.lib")));
    const Result unknown = tool({"lib", "extract", file("corner.lib"), "nothing", "-o", out});
    EXPECT_EQ(unknown.code, 3);
    EXPECT_EQ(unknown.err, QStringLiteral("supportqt lib extract: %1: nothing is defined nowhere the file reaches\n").arg(file("corner.lib")));
    // A rename onto the name of another extracted subcircuit would make one instantiate itself.
    const Result clash = tool({"lib", "extract", file("corner.lib"), "buf", "-o", out, "--section", "tt", "--rename", "inv=buf"});
    EXPECT_EQ(clash.code, 2);
    EXPECT_EQ(clash.err, QStringLiteral("supportqt lib extract: renaming would give %1:4 and %1:7 the same name buf\n").arg(dev));
    const Result twoOnOne = tool({"lib", "extract", file("corner.lib"), "buf", "-o", "-", "--section", "tt", "--rename",
                                  "inv=cell", "--rename", "buf=CELL"});
    EXPECT_EQ(twoOnOne.code, 2);
    EXPECT_EQ(twoOnOne.out, "");
    EXPECT_EQ(QString::fromStdString(readFileBytes(path("out.lib"))), before);
    // A rename that renames nothing is a mistake the user is warned of; the library is written as
    // without it.
    const Result misspelt = tool({"lib", "extract", file("corner.lib"), "buf", "-o", "-", "--section", "tt", "--rename", "NOTHERE=X"});
    EXPECT_EQ(misspelt.code, 0) << misspelt.err.toStdString();
    EXPECT_EQ(misspelt.err, QStringLiteral("supportqt lib extract: warning: the rename of NOTHERE to X renames nothing: no definition "
                                           "extracted has or names that word\n"));
    EXPECT_EQ(misspelt.out, tool({"lib", "extract", file("corner.lib"), "buf", "-o", "-", "--section", "tt"}).out);
    const Result misspeltJson = tool({"lib", "extract", file("corner.lib"), "buf", "-o", file("nothere.lib"), "--section", "tt",
                                      "--rename", "NOTHERE=X", "--json"});
    EXPECT_EQ(misspeltJson.code, 0);
    const QJsonArray unused = json(misspeltJson.out)["problems"].toArray();
    ASSERT_EQ(unused.size(), 1);
    EXPECT_EQ(unused[0]["kind"].toString(), "unused-rename");
    EXPECT_EQ(unused[0]["name"].toString(), "NOTHERE");
    const Result badRename = tool({"lib", "extract", file("corner.lib"), "buf", "-o", out, "--rename", "inv"});
    EXPECT_EQ(badRename.code, 2);
    EXPECT_EQ(badRename.err, QStringLiteral("supportqt lib extract: --rename takes OLD=NEW, not 'inv'\n"));
    const Result noOutput = tool({"lib", "extract", file("corner.lib"), "buf"});
    EXPECT_EQ(noOutput.code, 2);
#ifndef Q_OS_WIN
    // Standard output that cannot take the library fails with the command's own name.
    QProcess full;
    full.setStandardOutputFile(QStringLiteral("/dev/full"));
    full.start(QStringLiteral(SUPPORTQT_TOOL_PATH), {"lib", "extract", file("corner.lib"), "buf", "-o", "-", "--section", "tt"});
    ASSERT_TRUE(full.waitForFinished(60000));
    EXPECT_EQ(full.exitCode(), 1);
    EXPECT_EQ(full.readAllStandardError(), "supportqt lib extract: cannot write standard output\n");
#endif
    // The output may not replace a file that the library includes: the library would no longer hold
    // what was extracted from it.
    const std::string devBefore = readFileBytes(path("dev.spice"));
    const Result overInclude = tool({"lib", "extract", file("corner.lib"), "buf", "-o", dev, "--section", "tt"});
    EXPECT_EQ(overInclude.code, 2);
    EXPECT_EQ(overInclude.err, QStringLiteral("supportqt lib extract: the output %1 is a file that the library includes\n").arg(dev));
    EXPECT_EQ(overInclude.out, "");
    EXPECT_EQ(readFileBytes(path("dev.spice")), devBefore);
}

// Extracted to standard output, the library is all that goes there: what it could not resolve is one
// warning line each on standard error, as it is a warning line beside the summary when written to a file.
TEST_F(LibTool, ExtractionToStandardOutputWarnsOnStandardError)
{
    writeFileBytes(path("u.lib"), ".subckt top a b\nX1 a b missing\n.ends\n");
    const QString warning = QStringLiteral("warning: %1:1: subcircuit top instantiates missing, which is defined nowhere it reaches")
                                .arg(file("u.lib"));
    const Result piped = tool({"lib", "extract", file("u.lib"), "top", "-o", "-"});
    EXPECT_EQ(piped.code, 0);
    EXPECT_EQ(piped.out, QStringLiteral("* %1:1\n.subckt top a b\nX1 a b missing\n.ends\n").arg(file("u.lib")));
    EXPECT_EQ(piped.err, QStringLiteral("supportqt lib extract: %1\n").arg(warning));
    // The summary in JSON cannot share standard output with the library.
    const Result json = tool({"lib", "extract", file("u.lib"), "top", "-o", "-", "--json"});
    EXPECT_EQ(json.code, 2);
    EXPECT_EQ(json.out, "");
    EXPECT_EQ(json.err, "supportqt lib extract: --json needs an output file: standard output takes the library\n");
    const Result written = tool({"lib", "extract", file("u.lib"), "top", "-o", file("u-out.lib")});
    EXPECT_EQ(written.code, 0);
    EXPECT_EQ(written.out, QStringLiteral("%1\nwrote 1 definition to %2\n").arg(warning, file("u-out.lib")));
    EXPECT_EQ(written.err, "");
}

TEST_F(LibTool, UsageErrorsAndUnreadableInputs)
{
    EXPECT_EQ(tool({"lib"}).code, 2);
    const Result unknown = tool({"lib", "frobnicate"});
    EXPECT_EQ(unknown.code, 2);
    EXPECT_EQ(unknown.err, QStringLiteral("supportqt lib: unknown action 'frobnicate'; valid actions: sections, defs, check, diff, extract\n"));
    EXPECT_EQ(tool({"lib", "--help"}).code, 0);
    EXPECT_EQ(tool({"lib", "defs", "--help"}).code, 0);
    EXPECT_EQ(tool({"lib", "sections", file("none.lib")}).code, 1);
    EXPECT_EQ(tool({"lib", "diff", file("corner.lib")}).code, 2);
    EXPECT_EQ(tool({"lib", "defs", file("corner.lib"), "--dialect", "klingon"}).code, 2);
}

TEST_F(LibTool, IndexAndSectionReadEveryModelWholeWhenCommentsInterruptItsContinuations)
{
    const Result index = tool({"index", file("dev.spice"), "--json"});
    ASSERT_EQ(index.code, 0);
    const QJsonArray defs = json(index.out)["definitions"].toArray();
    ASSERT_EQ(defs.size(), 3);
    EXPECT_EQ(defs[0]["end"].toInt(), 37);
    const Result section = tool({"section", file("dev.spice"), "--start", "0", "--end", "37"});
    EXPECT_EQ(section.out, QStringLiteral("     1  .model nch nmos  vth0=0.4\n"));
}

TEST_F(LibTool, AKitLibraryFromTheCorpus)
{
    const QString lib = corpusDir() + QStringLiteral("/kits/sky130_fd_pr/models/sky130.lib.spice");
    if (!QFileInfo::exists(lib))
        GTEST_SKIP() << "the kit library is absent from the corpus (" << lib.toStdString() << ")";
    const QJsonArray sections = json(tool({"lib", "sections", lib, "--json"}).out)["sections"].toArray();
    QStringList names;
    for (const QJsonValue& s : sections) {
        names << s["name"].toString();
        EXPECT_GT(s["definitions"].toInt(), 100) << s["name"].toString().toStdString();
    }
    EXPECT_TRUE(names.contains(QStringLiteral("tt")));
    EXPECT_TRUE(names.contains(QStringLiteral("ff")));
}
