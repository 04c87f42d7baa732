// MswFileTest.cpp - the XML results file: writing, reading, appended files, run labels, schema
// validation, adding a merit function, and writes that never damage the previous file.
#include "FileServices.h"
#include "MswMerge.h"
#include "MswScanner_p.h"
#include "Options.h"
#include "TestHelpers.h"
#include "TextServices.h"
#include "XMLReport.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTcpServer>

#include <algorithm>
#include <chrono>
#include <cctype>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <future>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <thread>

#ifndef Q_OS_WIN
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace {

const char kSchema[] = SUPPORTQT_SCHEMA_DIR "/msw.xsd";

const XMLReportInfo* findCase(const YHashTable<XMLReportInfo>& table, int caseNumber)
{
    XMLReportInfo probe;
    probe.caseNumber = caseNumber;
    return table.find(probe);
}

std::string msw(const std::string& body, const std::string& rootAttributes = " version=\"1.0\"")
{
    return "<?xml version=\"1.0\"?>\n<msw" + rootAttributes + ">" + body + "</msw>\n";
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

class OptionGuard {
public:
    explicit OptionGuard(bool on) { sp_SetBoolOption("WriteXMLAsciiReals", on); }
    ~OptionGuard() { sp_SetBoolOption("WriteXMLAsciiReals", false); }
};

} // namespace

class MswFile : public TempDirTest {
protected:
    bool read(const std::string& name, YHashTable<XMLReportInfo>* table, XMLReportHeader* header)
    {
        return sp_CompileSensReportData(YString(path(name).c_str()), table, header);
    }
    bool readText(const std::string& text, YHashTable<XMLReportInfo>* table, XMLReportHeader* header)
    {
        writeFileBytes(path("in.xml"), text);
        return read("in.xml", table, header);
    }
    // The files in the temporary folder whose names start with a dot (the writer's temporary files).
    QStringList leftovers()
    {
        return QDir(QString::fromStdString(m_dir)).entryList(QStringList{".*"}, QDir::Files | QDir::Hidden);
    }
};

// ---------------------------------------------------------------- version and root

TEST_F(MswFile, VersionRule)
{
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    EXPECT_TRUE(readText(msw("", ""), &t, &h));
    EXPECT_TRUE(readText(msw("", " version=\"1.0\""), &t, &h));
    EXPECT_FALSE(readText(msw("", " version=\"1.1\""), &t, &h));
    YRef<YDomDocument> doc = YXML_Factory::Make_RapidXML_DOM_Document();
    YRef<YDomElement> root = doc->createRoot("msw");
    EXPECT_TRUE(sp_TestMswVersion(root));
    root->setAttribute("version", "1.0");
    EXPECT_TRUE(sp_TestMswVersion(root));
    root->setAttribute("version", "1.1");
    EXPECT_FALSE(sp_TestMswVersion(root));
    root->setAttribute("version", "V1.0");
    EXPECT_FALSE(sp_TestMswVersion(root));
}

TEST_F(MswFile, RootDecoration)
{
    YRef<YDomDocument> doc = YXML_Factory::Make_RapidXML_DOM_Document();
    sp_DecorateMswRoot(doc->createRoot("msw"));
    const std::string text = doc->toText().c_str();
    EXPECT_TRUE(contains(text, "<msw xmlns=\"http://results.example.net/schemas/application/msw/\" "
                               "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
                               "xsi:schemaLocation=\"http://results.example.net/schemas/application/msw "
                               "https://results.example.net/schemas/application/msw.xsd\" version=\"1.0\" rev=\"1\""))
        << text;
}

// ---------------------------------------------------------------- writing

TEST_F(MswFile, FileWithoutRunsHasNoSteps)
{
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    header.meritFunctions.append(XMLMeritFunction{"max(v(out))", "Vmax"});
    ASSERT_TRUE(sp_WriteMswFile(YString(path("empty.msw").c_str()), table, header));
    const std::string text = readFileBytes(path("empty.msw"));
    EXPECT_FALSE(contains(text, "<steps"));
    EXPECT_TRUE(contains(text, "<meritfunction value=\"max(v(out))\" name=\"Vmax\""));
    EXPECT_TRUE(contains(text, "<header />") || contains(text, "<header/>")) << text;
}

TEST_F(MswFile, ReadingWithoutStepsKeepsSensvalRecordsOnly)
{
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    ASSERT_TRUE(readText(msw("<meritfunction value=\"a\" name=\"A\"><sensval case=\"1\" value=\"2\"/>"
                             "<sensval case=\"3\" value=\"5\"/></meritfunction>"),
                         &t, &h));
    EXPECT_EQ(t.count(), 2);
    EXPECT_EQ(findCase(t, 3)->values[0].value, 5.0);
    EXPECT_EQ(findCase(t, 3)->values[0].delta, 3.0);
    EXPECT_FALSE(findCase(t, 3)->hasName);
    EXPECT_EQ(h.meritFunctions.count(), 1);
    EXPECT_STREQ(h.meritFunctions[0].name.c_str(), "A");
}

// A value beyond a double's range reads as strtod reads it, infinity or zero of its sign, not as the 0
// of a value that cannot be read; text that is no number still reads as 0.
TEST_F(MswFile, ValuesBeyondTheRangeOfADoubleReadAsInfinityOrZero)
{
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    ASSERT_TRUE(readText(msw("<meritfunction value=\"a\" name=\"A\"><sensval case=\"1\" value=\"1\"/>"
                             "<sensval case=\"2\" value=\"1e999\"/><sensval case=\"3\" value=\"-1E+999\"/>"
                             "<sensval case=\"4\" value=\"-1e-999\"/><sensval case=\"5\" value=\"garbage\"/>"
                             "</meritfunction>"),
                         &t, &h));
    EXPECT_EQ(findCase(t, 2)->values[0].value, std::numeric_limits<double>::infinity());
    EXPECT_EQ(findCase(t, 3)->values[0].value, -std::numeric_limits<double>::infinity());
    EXPECT_EQ(findCase(t, 4)->values[0].value, 0.0);
    EXPECT_TRUE(std::signbit(findCase(t, 4)->values[0].value));
    EXPECT_EQ(findCase(t, 5)->values[0].value, 0.0);
    EXPECT_FALSE(std::signbit(findCase(t, 5)->values[0].value));
}

TEST_F(MswFile, NameWinsOverDescriptionAndMissingBothGivesRunNumber)
{
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    ASSERT_TRUE(readText(msw("<steps><step name=\"Param:X\" description=\"lost\" case=\"2\"/>"
                             "<step case=\"7\"/><step case=\"8\" description=\"kept\"/></steps>"),
                         &t, &h));
    EXPECT_TRUE(findCase(t, 2)->hasName);
    EXPECT_STREQ(findCase(t, 2)->name.c_str(), "Param:X");
    EXPECT_STREQ(findCase(t, 2)->description.c_str(), "Var: X"); // from the post-read pass, not "lost"
    EXPECT_STREQ(findCase(t, 7)->description.c_str(), "Run=7");
    EXPECT_TRUE(findCase(t, 7)->hasDescription);
    EXPECT_STREQ(findCase(t, 8)->description.c_str(), "kept");
}

TEST_F(MswFile, RunLabelsTellRunsApartAtTheFirstSufficientDetail)
{
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    ASSERT_TRUE(readText(msw("<steps>"
                             "<step case=\"2\" name=\"Refdes:R1/DevParam:R/Term:1\"/>"
                             "<step case=\"3\" name=\"Refdes:R1/DevParam:R/Term:2\"/>"
                             "<step case=\"4\" name=\"Lot:L1/DevParam:R/Tol:5%\"/>"
                             "<step case=\"5\" name=\"Param:W/PDF:gauss\"/>"
                             "<step case=\"6\" name=\"Param:W/PDF:flat\"/>"
                             "<step case=\"7\" name=\"plain name\"/>"
                             "<step case=\"8\" name=\"same\"/><step case=\"9\" name=\"SAME\"/>"
                             "</steps>"),
                         &t, &h));
    EXPECT_STREQ(findCase(t, 2)->description.c_str(), "Ref: R1.R (term 1)");
    EXPECT_STREQ(findCase(t, 3)->description.c_str(), "Ref: R1.R (term 2)");
    EXPECT_STREQ(findCase(t, 4)->description.c_str(), "Lot: L1");
    EXPECT_STREQ(findCase(t, 5)->description.c_str(), "Var: W (gauss)");
    EXPECT_STREQ(findCase(t, 6)->description.c_str(), "Var: W (flat)");
    EXPECT_STREQ(findCase(t, 7)->description.c_str(), "plain name");
    // Identical names (ignoring case) stay undescribed.
    EXPECT_TRUE(findCase(t, 8)->description.isEmpty());
    EXPECT_FALSE(findCase(t, 8)->hasDescription);
    EXPECT_TRUE(findCase(t, 9)->description.isEmpty());
}

TEST_F(MswFile, RunsOfTheSameNameStayUndescribedYetHoldTheirLabelAgainstOthers)
{
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    // Case 11 has a value and no step: the one run without a name.
    ASSERT_TRUE(readText(msw("<meritfunction value=\"v\" name=\"M\"><sensval case=\"11\" value=\"1\"/></meritfunction>"
                             "<steps>"
                             "<step case=\"2\" name=\"Refdes:R1/DevParam:R/Term:1\"/>"
                             "<step case=\"3\" name=\"Refdes:R1/DevParam:R/Term:1\"/>"
                             "<step case=\"4\" name=\"Refdes:R1/DevParam:C\"/>"
                             "<step case=\"5\" name=\"Ref: R1\"/>"
                             "<step case=\"6\" name=\"Refdes:R3/Term:1\"/>"
                             "<step case=\"7\" name=\"Refdes:R3/Term:1\"/>"
                             "<step case=\"8\" name=\"Refdes:R3/Term:1\"/>"
                             "<step case=\"9\" name=\"Refdes:R3/Term:1/PDF:x\"/>"
                             "<step case=\"10\" name=\"Refdes:R3/Term:2\"/>"
                             "</steps>"),
                         &t, &h));
    // Detail 1: "Ref: R1" is held by 2, 3, 4 and by 5's own name; "Ref: R3" by 6 to 10.
    // Detail 2: 4 is "Ref: R1.C" and 5 "Ref: R1", both alone; 2 and 3 share "Ref: R1.R".
    EXPECT_STREQ(findCase(t, 4)->description.c_str(), "Ref: R1.C");
    EXPECT_STREQ(findCase(t, 5)->description.c_str(), "Ref: R1");
    // Detail 3: 9 is "Ref: R3 (x)", while 10 is still "Ref: R3", held against it by 6, 7 and 8 alone
    // (their name is one, yet they count); detail 4: 10 is "Ref: R3 (term 2)" while 6, 7 and 8 share
    // "Ref: R3 (term 1)".
    EXPECT_STREQ(findCase(t, 9)->description.c_str(), "Ref: R3 (x)");
    EXPECT_STREQ(findCase(t, 10)->description.c_str(), "Ref: R3 (term 2)");
    // The same name byte for byte gives the same label at every detail: those runs are never told apart.
    for (int c : {2, 3, 6, 7, 8}) {
        EXPECT_FALSE(findCase(t, c)->hasDescription) << c;
        EXPECT_STREQ(findCase(t, c)->description.c_str(), "") << c;
    }
    // The run without a name has the empty label, held by no other: it is described, by an empty text.
    EXPECT_TRUE(findCase(t, 11)->hasDescription);
    EXPECT_STREQ(findCase(t, 11)->description.c_str(), "");
}

namespace {

// The label of a run name at a detail level, written from the rules of run labels alone, for the test
// below to check the reader's grouping against: items split at "/", those with exactly one ":" kept,
// keys ignoring case, the first of a key winning.
std::string labelByTheRules(const std::string& name, int detail)
{
    if (detail >= 5)
        return name;
    std::map<std::string, std::string> items;
    size_t start = 0;
    for (;;) {
        const size_t slash = name.find('/', start);
        const std::string item = name.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
        const size_t colon = item.find(':');
        if (colon != std::string::npos && item.find(':', colon + 1) == std::string::npos) {
            std::string key = item.substr(0, colon);
            for (char& c : key)
                c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            items.emplace(key, item.substr(colon + 1)); // the first of a key stays
        }
        if (slash == std::string::npos)
            break;
        start = slash + 1;
    }
    const auto has = [&](const char* k) { return items.count(k) != 0; };
    std::string text;
    if (has("lot")) {
        text = "Lot: " + items["lot"];
        if (detail >= 2 && has("devparam"))
            text += "." + items["devparam"];
        if (detail >= 2 && has("tol"))
            text += " (TOL=" + items["tol"] + ")";
    } else if (has("refdes")) {
        text = "Ref: " + items["refdes"];
        if (detail >= 2 && has("devparam"))
            text += "." + items["devparam"];
        if (detail >= 3 && has("pdf"))
            text += " (" + items["pdf"] + ")";
        if (detail >= 4 && has("term"))
            text += " (term " + items["term"] + ")";
    } else if (has("param")) {
        text = "Var: " + items["param"];
        if (detail >= 3 && has("pdf"))
            text += " (" + items["pdf"] + ")";
    }
    return text.empty() ? name : text;
}

} // namespace

TEST_F(MswFile, RunDescriptionsOfManyRandomNamesFollowTheRules)
{
    // Twelve thousand names drawn from few keys and values, in varied case, with items the rules ignore,
    // so that labels collide at every level and some never part; among them runs with a description
    // of their own and runs with neither. Each description is checked against the rules applied the
    // plain way: per level, the undescribed runs grouped by their folded labels.
    std::mt19937 random(77);
    static const char* const kKeys[] = {"Lot", "lot", "DevParam", "DEVPARAM", "Tol", "Refdes", "refdes",
                                        "PDF", "Term", "Param", "Other", "nokey", "a:b:c"};
    static const char* const kValues[] = {"", "R1", "r1", "R2", "L1", "5%", "gauss", "1", "2", "W"};
    std::uniform_int_distribution<int> items(0, 4), key(0, 12), value(0, 9), kind(0, 29);
    std::string steps;
    std::vector<std::pair<int, std::string>> named; // case and name of the runs the pass describes
    for (int c = 1; c <= 12000; ++c) { // more than 8192 runs: the grouping spreads them into parts
        const int k = kind(random);
        if (k == 0) {
            steps += "<step case=\"" + std::to_string(c) + "\" description=\"own\"/>";
            continue;
        }
        if (k == 1) {
            steps += "<step case=\"" + std::to_string(c) + "\"/>";
            continue;
        }
        std::string name;
        for (int n = items(random); n >= 0; --n) {
            if (!name.empty())
                name += "/";
            const std::string kk = kKeys[key(random)];
            name += kk == "nokey" ? std::string("loose") : kk + ":" + kValues[value(random)];
        }
        steps += "<step case=\"" + std::to_string(c) + "\" name=\"" + name + "\"/>";
        named.emplace_back(c, name);
    }
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    ASSERT_TRUE(readText(msw("<steps>" + steps + "</steps>"), &t, &h));

    std::map<int, std::string> expected; // the description each named run gets; absent: none
    std::vector<std::pair<int, std::string>> pending = named;
    for (int detail = 1; detail <= 5 && !pending.empty(); ++detail) {
        std::map<std::string, int> groups;
        const auto folded = [&](const std::string& name) {
            std::string l = labelByTheRules(name, detail);
            for (char& c : l)
                if (c >= 'A' && c <= 'Z')
                    c = static_cast<char>(c - 'A' + 'a');
            return l;
        };
        for (const auto& [c, name] : pending)
            ++groups[folded(name)];
        std::vector<std::pair<int, std::string>> next;
        for (const auto& [c, name] : pending) {
            if (groups[folded(name)] == 1)
                expected[c] = labelByTheRules(name, detail);
            else
                next.emplace_back(c, name);
        }
        pending = next;
    }
    int described = 0;
    for (const auto& [c, name] : named) {
        const XMLReportInfo* r = findCase(t, c);
        ASSERT_NE(r, nullptr);
        const auto it = expected.find(c);
        if (it == expected.end()) {
            EXPECT_FALSE(r->hasDescription) << name;
            EXPECT_STREQ(r->description.c_str(), "") << name;
        } else {
            ++described;
            EXPECT_TRUE(r->hasDescription) << name;
            EXPECT_EQ(std::string(r->description.c_str()), it->second) << name;
        }
    }
    EXPECT_STREQ(findCase(t, static_cast<int>(named.size()) > 0 ? named[0].first : 1)->name.c_str(), named[0].second.c_str());
    // Runs were told apart at several levels, and some never were.
    EXPECT_GT(described, 100);
    EXPECT_LT(described, static_cast<int>(named.size()));
}

// A key given twice in a run name: the first occurrence wins, as in every parameter list, at every
// detail level (the labels below are told apart at detail 1, 2, 3, 4 and 5 in turn).
TEST_F(MswFile, RepeatedKeysInARunNameTakeTheFirstValue)
{
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    ASSERT_TRUE(readText(msw("<steps>"
                             "<step case=\"2\" name=\"Param:A/Param:B\"/>"
                             "<step case=\"3\" name=\"Refdes:R1/DevParam:X/DevParam:Y\"/>"
                             "<step case=\"4\" name=\"Refdes:R1/DevParam:Z\"/>"
                             "<step case=\"5\" name=\"Param:W/PDF:gauss/PDF:flat\"/>"
                             "<step case=\"6\" name=\"Param:W/PDF:flat\"/>"
                             "<step case=\"7\" name=\"Refdes:R2/DevParam:R/Term:1/Term:2\"/>"
                             "<step case=\"8\" name=\"Refdes:R2/DevParam:R/Term:2\"/>"
                             "<step case=\"9\" name=\"Lot:L9/Lot:L8\"/>"
                             "<step case=\"10\" name=\"Lot:L9/Lot:L7\"/>"
                             "</steps>"),
                         &t, &h));
    EXPECT_STREQ(findCase(t, 2)->description.c_str(), "Var: A");             // detail 1
    EXPECT_STREQ(findCase(t, 3)->description.c_str(), "Ref: R1.X");          // detail 2
    EXPECT_STREQ(findCase(t, 4)->description.c_str(), "Ref: R1.Z");
    EXPECT_STREQ(findCase(t, 5)->description.c_str(), "Var: W (gauss)");     // detail 3
    EXPECT_STREQ(findCase(t, 6)->description.c_str(), "Var: W (flat)");
    EXPECT_STREQ(findCase(t, 7)->description.c_str(), "Ref: R2.R (term 1)"); // detail 4
    EXPECT_STREQ(findCase(t, 8)->description.c_str(), "Ref: R2.R (term 2)");
    // Both read "Lot: L9" at every detail up to 4, so the names themselves tell them apart.
    EXPECT_STREQ(findCase(t, 9)->description.c_str(), "Lot:L9/Lot:L8");      // detail 5
    EXPECT_STREQ(findCase(t, 10)->description.c_str(), "Lot:L9/Lot:L7");
}

// A name of a million items, almost all empty, is read in linear time: each item's colons are looked
// for within it (looking to the name's end took minutes).
TEST_F(MswFile, ANameOfAMillionItemsIsReadItemByItem)
{
    const std::string many(1 << 20, '/');
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    ASSERT_TRUE(readText(msw("<steps><step case=\"2\" name=\"Param:A" + many + "Param:Z\"/>"
                             "<step case=\"3\" name=\"" + many + "Param:B:C" + many + "Refdes:R5/DevParam:W\"/>"
                             "<step case=\"4\" name=\"Refdes:R5" + many + "DevParam:V\"/>"
                             "</steps>"),
                         &t, &h));
    EXPECT_STREQ(findCase(t, 2)->description.c_str(), "Var: A");
    EXPECT_STREQ(findCase(t, 3)->description.c_str(), "Ref: R5.W");
    EXPECT_STREQ(findCase(t, 4)->description.c_str(), "Ref: R5.V");
}

TEST_F(MswFile, LotLabelsGrowWithDetail)
{
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    ASSERT_TRUE(readText(msw("<steps>"
                             "<step case=\"2\" name=\"Lot:L1/DevParam:R/Tol:5%\"/>"
                             "<step case=\"3\" name=\"Lot:L1/DevParam:C/Tol:5%\"/>"
                             "<step case=\"4\" name=\"Lot:L1/DevParam:C/Tol:10%\"/>"
                             "</steps>"),
                         &t, &h));
    EXPECT_STREQ(findCase(t, 2)->description.c_str(), "Lot: L1.R (TOL=5%)");
    EXPECT_STREQ(findCase(t, 3)->description.c_str(), "Lot: L1.C (TOL=5%)");
    EXPECT_STREQ(findCase(t, 4)->description.c_str(), "Lot: L1.C (TOL=10%)");
}

TEST_F(MswFile, HeaderOfACoreChangesNothingAndMissingTextsAreUnknown)
{
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    h.title = "kept";
    ASSERT_TRUE(readText(msw("<header coreid=\"2\" title=\"core two\" numcores=\"8\"/>"), &t, &h));
    EXPECT_STREQ(h.title.c_str(), "kept");
    EXPECT_EQ(h.numCores, 0);
    ASSERT_TRUE(readText(msw("<header numcores=\"4\" date=\"today\"/>"), &t, &h));
    EXPECT_STREQ(h.title.c_str(), "unknown");
    EXPECT_STREQ(h.analysis.c_str(), "unknown");
    EXPECT_STREQ(h.group.c_str(), "unknown");
    EXPECT_STREQ(h.date.c_str(), "today");
    EXPECT_EQ(h.numCores, 4);
}

TEST_F(MswFile, AsciiTwinsOnlyWithTheOption)
{
    YHashTable<XMLReportInfo> table;
    XMLReportInfo r(2);
    r.values.at(0).value = 0.25;
    XMLParameterValue p;
    p.name = "R1";
    p.nominal = 1000;
    p.usedValue = 1100;
    p.tolerance = 5;
    p.hasTolerance = true;
    r.parameters.append(p);
    XMLParameterValue q = p;
    q.name = "R2";
    q.hasTolerance = false;
    r.parameters.append(q);
    table.insert(r);
    XMLReportHeader header;
    header.meritFunctions.append(XMLMeritFunction{"v", "V"});
    {
        OptionGuard on(true);
        ASSERT_TRUE(sp_WriteMswFile(YString(path("twins.msw").c_str()), table, header));
    }
    const std::string text = readFileBytes(path("twins.msw"));
    const std::string expected = std::string("<parameter name=\"R1\" nom=\"1000\" nom_ascii=\"") +
                                 sp_ConvertRealToJSEng(1000, 10, true).c_str() + "\" usedvalue=\"1100\" usedvalue_ascii=\"" +
                                 sp_ConvertRealToJSEng(1100, 10, true).c_str() + "\" tol=\"5\" tol_ascii=\"" +
                                 sp_ConvertRealToJSEng(5, 10, true).c_str() + "\"";
    EXPECT_TRUE(contains(text, expected)) << text;
    EXPECT_TRUE(contains(text, std::string("<parameter name=\"R2\" nom=\"1000\" nom_ascii=\"") +
                                   sp_ConvertRealToJSEng(1000, 10, true).c_str() + "\" usedvalue=\"1100\" usedvalue_ascii=\"" +
                                   sp_ConvertRealToJSEng(1100, 10, true).c_str() + "\" />"))
        << text;
    EXPECT_TRUE(contains(text, std::string("<sensval case=\"2\" value=\"0.25\" value_ascii=\"") +
                                   sp_ConvertRealToJSEng(0.25, 10, true).c_str() + "\""));
    YString message;
    EXPECT_EQ(sp_ValidateXml(YString(path("twins.msw").c_str()), YString(kSchema), &message), XmlValidateOk)
        << message.c_str();

    ASSERT_TRUE(sp_WriteMswFile(YString(path("plain.msw").c_str()), table, header));
    EXPECT_FALSE(contains(readFileBytes(path("plain.msw")), "_ascii"));
}

// ---------------------------------------------------------------- round trip

TEST_F(MswFile, EveryFieldSurvivesAWriteAndARead)
{
    std::mt19937_64 random(99);
    auto anyDouble = [&]() {
        double d;
        do {
            const unsigned long long bits = random();
            std::memcpy(&d, &bits, sizeof d);
        } while (!std::isfinite(d));
        return d;
    };
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    header.numCores = 6;
    header.date = "2026-11-22 <09:05>";
    header.title = "Buck \"converter\" & friends \xC3\xA9t\xC3\xA9";
    header.analysis = ".mc 100 tran v(out) max";
    header.group = "grp'1";
    for (int m = 0; m < 3; ++m)
        header.meritFunctions.append(XMLMeritFunction{YString(("max(v(n" + std::to_string(m) + "))<1&2").c_str()),
                                                      YString(("M\xC3\xA9rit " + std::to_string(m)).c_str())});
    for (int c = 1; c <= 40; ++c) {
        XMLReportInfo r(c);
        if (c % 2 == 0) {
            r.name = YString(("Refdes:R" + std::to_string(c) + "/DevParam:<R>&\"x\"").c_str());
            r.hasName = true;
        } else {
            r.description = YString(("run \xE2\x80\x94 " + std::to_string(c) + " <&>").c_str());
            r.hasDescription = true;
        }
        if (c % 3 != 0) {
            r.seed = (1LL << 40) + c * 1234567891LL;
            r.hasSeed = true;
        }
        for (int m = 0; m < 3; ++m)
            r.values.at(m).value = anyDouble();
        for (int k = 0; k < c % 4; ++k) {
            XMLParameterValue p;
            p.name = YString(("P" + std::to_string(k) + "\xC2\xB5").c_str());
            p.nominal = anyDouble();
            p.usedValue = anyDouble();
            p.hasTolerance = k % 2 == 0;
            p.tolerance = p.hasTolerance ? anyDouble() : 0.0;
            r.parameters.append(p);
        }
        table.insert(r);
    }
    ASSERT_TRUE(sp_WriteMswFile(YString(path("all.msw").c_str()), table, header));
    YHashTable<XMLReportInfo> back;
    XMLReportHeader backHeader;
    ASSERT_TRUE(read("all.msw", &back, &backHeader));
    EXPECT_EQ(backHeader.numCores, 6);
    EXPECT_EQ(backHeader.date, header.date);
    EXPECT_EQ(backHeader.title, header.title);
    EXPECT_EQ(backHeader.analysis, header.analysis);
    EXPECT_EQ(backHeader.group, header.group);
    ASSERT_EQ(backHeader.meritFunctions.count(), 3);
    for (int m = 0; m < 3; ++m) {
        EXPECT_EQ(backHeader.meritFunctions[m].value, header.meritFunctions[m].value);
        EXPECT_EQ(backHeader.meritFunctions[m].name, header.meritFunctions[m].name);
    }
    ASSERT_EQ(back.count(), table.count());
    for (const XMLReportInfo& r : table) {
        const XMLReportInfo* b = findCase(back, r.caseNumber);
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(b->hasName, r.hasName);
        EXPECT_EQ(b->name, r.name);
        if (!r.hasName) {
            EXPECT_EQ(b->description, r.description);
        }
        EXPECT_EQ(b->hasSeed, r.hasSeed);
        EXPECT_EQ(b->seed, r.seed);
        for (int m = 0; m < 3; ++m)
            EXPECT_EQ(std::memcmp(&b->values[m].value, &r.values[m].value, sizeof(double)), 0) << r.caseNumber;
        ASSERT_EQ(b->parameters.count(), r.parameters.count());
        for (int k = 0; k < r.parameters.count(); ++k) {
            const XMLParameterValue& p = r.parameters[k];
            const XMLParameterValue& q = b->parameters[k];
            EXPECT_EQ(q.name, p.name);
            EXPECT_EQ(std::memcmp(&q.nominal, &p.nominal, sizeof(double)), 0);
            EXPECT_EQ(std::memcmp(&q.usedValue, &p.usedValue, sizeof(double)), 0);
            EXPECT_EQ(q.hasTolerance, p.hasTolerance);
            EXPECT_EQ(std::memcmp(&q.tolerance, &p.tolerance, sizeof(double)), 0);
        }
    }
    YString message;
    EXPECT_EQ(sp_ValidateXml(YString(path("all.msw").c_str()), YString(kSchema), &message), XmlValidateOk)
        << message.c_str();
    SUPPORTQT_SKIP_UNLESS_PEER_RUNS("xmllint");
    const QString xmllint = QStandardPaths::findExecutable("xmllint");
    ASSERT_FALSE(xmllint.isEmpty()) << "xmllint is installed by scripts/deps";
    QProcess lint;
    lint.start(xmllint, {"--noout", "--schema", kSchema, QString::fromStdString(path("all.msw"))});
    ASSERT_TRUE(lint.waitForFinished(60000));
    EXPECT_EQ(lint.exitCode(), 0) << lint.readAllStandardError().toStdString();
}

// ---------------------------------------------------------------- appended files

class MswAppend : public MswFile {
protected:
    // Writes file N of a chain: one run of case N + 1, appending file N + 1 when `next` is true.
    void chainFile(int n, bool next, const std::string& prefix = "")
    {
        std::string body = "<steps><step case=\"" + std::to_string(n + 1) + "\" description=\"f" + std::to_string(n) + "\"/></steps>";
        if (next)
            body += "<append><file path=\"" + prefix + "chain" + std::to_string(n + 1) + ".msw\"/></append>";
        writeFileBytes(path("chain" + std::to_string(n) + ".msw"), msw(body));
    }
};

TEST_F(MswAppend, ChainToDepthFourIsReadWhole)
{
    for (int n = 0; n <= 4; ++n)
        chainFile(n, n < 4, m_dir + "/");
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    EXPECT_TRUE(read("chain0.msw", &t, &h));
    EXPECT_EQ(t.count(), 5);
}

TEST_F(MswAppend, FifthLevelFailsAndKeepsTheFirstFour)
{
    for (int n = 0; n <= 5; ++n)
        chainFile(n, n < 5, m_dir + "/");
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    EXPECT_FALSE(read("chain0.msw", &t, &h));
    EXPECT_EQ(t.count(), 5); // the file itself and four appended levels
    EXPECT_EQ(findCase(t, 6), nullptr);
}

TEST_F(MswAppend, RelativePathsAreTakenAsWritten)
{
    for (int n = 0; n <= 2; ++n)
        chainFile(n, n < 2);
    const QString before = QDir::currentPath();
    QDir::setCurrent(QString::fromStdString(m_dir));
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    const bool ok = sp_CompileSensReportData(YString("chain0.msw"), &t, &h);
    QDir::setCurrent(before);
    EXPECT_TRUE(ok);
    EXPECT_EQ(t.count(), 3);
}

TEST_F(MswAppend, SelfAppendAndMissingFilesFail)
{
    writeFileBytes(path("self.msw"), msw("<steps><step case=\"2\"/></steps><append><file path=\"" + path("self.msw") + "\"/></append>"));
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    EXPECT_FALSE(read("self.msw", &t, &h));
    EXPECT_EQ(t.count(), 1);

    writeFileBytes(path("gap.msw"), msw("<steps><step case=\"2\"/></steps><append><file path=\"" + path("none.msw") +
                                        "\"/><file path=\"" + path("self.msw") + "\"/></append><steps><step case=\"3\"/></steps>"));
    YHashTable<XMLReportInfo> t2;
    XMLReportHeader h2;
    EXPECT_FALSE(read("gap.msw", &t2, &h2));
    EXPECT_NE(findCase(t2, 2), nullptr);
    EXPECT_NE(findCase(t2, 3), nullptr); // the rest of the file is still read
}

// ---------------------------------------------------------------- validation

TEST_F(MswFile, ValidationStatuses)
{
    YString message("untouched");
    writeFileBytes(path("ok.msw"), msw("<header title=\"t\"/>", " xmlns=\"http://results.example.net/schemas/application/msw/\" version=\"1.0\""));
    EXPECT_EQ(sp_ValidateXml(YString(path("ok.msw").c_str()), YString(kSchema), &message), XmlValidateOk);
    EXPECT_STREQ(message.c_str(), "untouched");

    writeFileBytes(path("bad.msw"), msw("<steps><step name=\"no case\"/></steps>",
                                        " xmlns=\"http://results.example.net/schemas/application/msw/\""));
    EXPECT_EQ(sp_ValidateXml(YString(path("bad.msw").c_str()), YString(kSchema), &message), XmlValidateInvalid);
    EXPECT_FALSE(message.isEmpty());

    writeFileBytes(path("notschema.xsd"), "<notaschema/>");
    EXPECT_EQ(sp_ValidateXml(YString(path("ok.msw").c_str()), YString(path("notschema.xsd").c_str()), &message),
              XmlValidateBadSchema);
    EXPECT_FALSE(message.isEmpty());

    EXPECT_EQ(sp_ValidateXml(YString(path("ok.msw").c_str()), YString(path("missing.xsd").c_str()), &message),
              XmlValidateNoSchemaFile);
    EXPECT_STREQ(message.c_str(), "Could not open schema file");

    EXPECT_EQ(sp_ValidateXml(YString(path("missing.msw").c_str()), YString(kSchema), &message), XmlValidateNoXmlFile);
    EXPECT_STREQ(message.c_str(), "Could not open xml file");
}

// ---------------------------------------------------------------- hostile results files

// Five small files, each appending the next one forty times: each file is read once, so the compile is
// quick and every merit function is there once (reading them again would add them again).
TEST_F(MswFile, FilesThatAppendEachOtherManyTimesAreReadOnce)
{
    for (int k = 0; k < 5; ++k) {
        std::string body = "<meritfunction value=\"m" + std::to_string(k) + "\" name=\"M" + std::to_string(k) +
                           "\"><sensval case=\"" + std::to_string(k + 1) + "\" value=\"1.5\"/></meritfunction>";
        if (k < 4) {
            body += "<append>";
            for (int i = 0; i < 40; ++i)
                body += "<file path=\"" + path("amp" + std::to_string(k + 1) + ".msw") + "\"/>";
            body += "</append>";
        }
        writeFileBytes(path("amp" + std::to_string(k) + ".msw"), msw(body));
    }
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    EXPECT_TRUE(sp_CompileSensReportData(YString(path("amp0.msw").c_str()), &t, &h));
    EXPECT_EQ(h.meritFunctions.count(), 5);
    EXPECT_EQ(t.count(), 5);
    for (int k = 0; k < 5; ++k)
        EXPECT_EQ(findCase(t, k + 1)->values[k].value, 1.5);
}

// A file appended by two of its names is read once: by a hard link to it and, on Windows, by its name
// in another case and its long form. The files the read took are listed once, by the first name met.
TEST_F(MswFile, AFileAppendedByTwoOfItsNamesIsReadOnce)
{
    writeFileBytes(path("part.msw"), msw("<meritfunction value=\"m\" name=\"M\"><sensval case=\"1\" value=\"2\"/></meritfunction>"));
    std::vector<std::string> names{path("part.msw")};
#ifdef Q_OS_WIN
    names.push_back(QString::fromStdString(path("part.msw")).toUpper().toStdString());
    names.push_back("\\\\?\\" + QDir::toNativeSeparators(QString::fromStdString(path("part.msw"))).toStdString());
#else
    names.push_back(path("hard.msw"));
    std::error_code linked;
    std::filesystem::create_hard_link(path("part.msw"), names.back(), linked);
    ASSERT_FALSE(linked) << linked.message();
#endif
    std::string body = "<append>";
    for (const std::string& name : names)
        body += "<file path=\"" + name + "\"/>";
    writeFileBytes(path("main.msw"), msw(body + "</append>"));
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    std::vector<YString> sources;
    EXPECT_TRUE(sp_CompileMswWithSources(YString(path("main.msw").c_str()), &t, &h, &sources));
    EXPECT_EQ(h.meritFunctions.count(), 1);
    EXPECT_EQ(t.count(), 1);
    ASSERT_EQ(sources.size(), 2u);
    EXPECT_EQ(QString(sources[1].c_str()), QFileInfo(QString::fromStdString(path("part.msw"))).canonicalFilePath());
}

// A small file whose runs and merit functions are almost all empty would need a dense table of nine
// million values for its deltas: refused with false instead of an allocation that grows with the
// product. A file whose every run has every value is read whatever its size.
TEST_F(MswFile, SparseFilesThatWouldNeedAHugeTableAreRefused)
{
    std::string body;
    for (int m = 0; m < 3000; ++m)
        body += "<meritfunction value=\"v\" name=\"m" + std::to_string(m) + "\">" +
                (m == 2999 ? std::string("<sensval case=\"1\" value=\"2\"/>") : std::string()) + "</meritfunction>";
    body += "<steps>";
    for (int c = 1; c <= 3000; ++c)
        body += "<step case=\"" + std::to_string(c) + "\"/>";
    body += "</steps>";
    writeFileBytes(path("sparse.msw"), msw(body));
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    EXPECT_FALSE(sp_CompileSensReportData(YString(path("sparse.msw").c_str()), &t, &h));

    std::string full;
    for (int m = 0; m < 5; ++m) {
        full += "<meritfunction value=\"v\" name=\"m" + std::to_string(m) + "\">";
        for (int c = 1; c <= 2000; ++c)
            full += "<sensval case=\"" + std::to_string(c) + "\" value=\"" + std::to_string(c + m) + "\"/>";
        full += "</meritfunction>";
    }
    writeFileBytes(path("full.msw"), msw(full));
    YHashTable<XMLReportInfo> f;
    XMLReportHeader fh;
    EXPECT_TRUE(sp_CompileSensReportData(YString(path("full.msw").c_str()), &f, &fh));
    EXPECT_EQ(f.count(), 2000);
    EXPECT_EQ(findCase(f, 2000)->values[4].delta, 2004.0 - 5.0);
}

// A file whose values stand far apart (merit functions without values first) is read in the order it
// is written: values held back while the table would be far wider than the file go in, in that order,
// once the whole table passes (a later value of a run's merit function replaces an earlier one).
TEST_F(MswFile, ValuesAfterManyEmptyMeritFunctionsAreReadInOrder)
{
    const int empty = 2100, filled = 40, cases = 2000;
    std::string body;
    for (int m = 0; m < empty; ++m)
        body += "<meritfunction value=\"v\" name=\"e" + std::to_string(m) + "\"/>";
    for (int m = 0; m < filled; ++m) {
        body += "<meritfunction value=\"v\" name=\"f" + std::to_string(m) + "\">";
        for (int c = 1; c <= cases; ++c)
            body += "<sensval case=\"" + std::to_string(c) + "\" value=\"" + std::to_string(c * 100 + m) + "\"/>";
        if (m == 0)
            body += "<sensval case=\"7\" value=\"-1\"/>"; // replaces case 7's value of f0
        body += "</meritfunction>";
    }
    writeFileBytes(path("late.msw"), msw(body));
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    ASSERT_TRUE(sp_CompileSensReportData(YString(path("late.msw").c_str()), &t, &h));
    EXPECT_EQ(h.meritFunctions.count(), empty + filled);
    EXPECT_EQ(t.count(), cases);
    for (int c : {1, 7, 1234, cases}) {
        const XMLReportInfo* record = findCase(t, c);
        ASSERT_NE(record, nullptr);
        ASSERT_EQ(record->values.count(), empty + filled);
        EXPECT_EQ(record->values[0].value, 0.0);
        EXPECT_EQ(record->values[empty].value, c == 7 ? -1.0 : c * 100.0);
        EXPECT_EQ(record->values[empty + filled - 1].value, c * 100.0 + filled - 1);
    }
    EXPECT_EQ(findCase(t, 2)->values[empty + 1].delta, 201.0 - 101.0);
}

// Reading into a table that already holds runs weighs only what the read adds against the dense table's
// bound: a file of one value, read into 62,000 runs of 65 values each, makes them 66 wide, which adds one
// value to each run (the whole table was weighed against the file's one value).
TEST_F(MswFile, ValuesTheTableHoldsCountAgainstTheDenseBound)
{
    writeFileBytes(path("one.msw"), msw("<meritfunction value=\"v\" name=\"m\"><sensval case=\"1\" value=\"7\"/></meritfunction>"));
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    for (int m = 0; m < 65; ++m)
        header.meritFunctions.append(XMLMeritFunction{"f", YString(("m" + std::to_string(m)).c_str())});
    const int runs = 62000;
    for (int c = 1; c <= runs; ++c) {
        XMLReportInfo record(c);
        for (int m = 0; m < 65; ++m)
            record.values.at(m).value = c + m;
        table.insert(record);
    }
    ASSERT_TRUE(sp_CompileSensReportData(YString(path("one.msw").c_str()), &table, &header));
    EXPECT_EQ(table.count(), runs);
    ASSERT_EQ(header.meritFunctions.count(), 66);
    EXPECT_EQ(findCase(table, 1)->values[65].value, 7.0);
    EXPECT_EQ(findCase(table, 1)->values[64].value, 65.0);
    EXPECT_EQ(findCase(table, runs)->values[64].value, double(runs + 64));
}

// What the table held does not pay for what a read adds: a file of a few runs and no values, read into a
// table whose one run is 70,000 merit functions wide, would make every new run as wide (4.5 million
// values), and is refused.
TEST_F(MswFile, WhatTheTableHoldsDoesNotPayForWhatAReadAdds)
{
    std::string steps;
    for (int c = 2; c <= 64; ++c)
        steps += "<step case=\"" + std::to_string(c) + "\"/>";
    writeFileBytes(path("steps.msw"), msw("<steps>" + steps + "</steps>"));
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    XMLReportInfo wide(1);
    wide.values.at(69999).value = 1;
    table.insert(wide);
    EXPECT_FALSE(sp_CompileSensReportData(YString(path("steps.msw").c_str()), &table, &header));
}

// A file with a second root element, or text outside its root, is not well-formed and is refused,
// though its first root alone would read.
TEST_F(MswFile, ASecondRootOrTextOutsideTheRootIsRefused)
{
    const std::string one = msw("<meritfunction value=\"v\" name=\"m\"><sensval case=\"1\" value=\"2\"/></meritfunction>");
    const std::string second = "<msw version=\"9\"><meritfunction value=\"w\" name=\"n\"/></msw>\n";
    for (const std::string& text : {one + second, one + "junk\n", "junk\n" + one, one + "x", one + ">", one + std::string("\0x", 2)}) {
        writeFileBytes(path("bad.msw"), text);
        YHashTable<XMLReportInfo> table;
        XMLReportHeader header;
        EXPECT_FALSE(sp_CompileSensReportData(YString(path("bad.msw").c_str()), &table, &header)) << text;
        EXPECT_EQ(table.count(), 0) << text;
    }
    writeFileBytes(path("good.msw"), one);
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    EXPECT_TRUE(sp_CompileSensReportData(YString(path("good.msw").c_str()), &table, &header));
    EXPECT_EQ(table.count(), 1);
}

#ifndef Q_OS_WIN
// A sparse file that the table bound refuses is refused without the memory of the table it would need:
// each run's values are widened to the last merit function only within the bound while it is read. Its
// 8001 merit functions of 8000 runs would take 64 million values (over 3 GiB); the bound allows 4 million
// (about 220 MiB). The child may map 1 GiB more than it starts with, so that reading them all fails fast.
TEST_F(MswFile, ASparseFileIsRefusedInMemoryThatGrowsWithTheFile)
{
#if defined(SUPPORTQT_TEST_ASAN)
    GTEST_SKIP() << "the sanitizer's own memory would hide the reader's";
#endif
    const int n = 8000;
    std::string body;
    for (int m = 0; m < n; ++m)
        body += "<meritfunction value=\"v\" name=\"m" + std::to_string(m) + "\"/>";
    body += "<meritfunction value=\"v\" name=\"last\">";
    for (int c = 1; c <= n; ++c)
        body += "<sensval case=\"" + std::to_string(c) + "\" value=\"1\"/>";
    body += "</meritfunction>";
    writeFileBytes(path("sparse.msw"), msw(body));
    // The child reports the call's result and the growth of its peak memory, in KiB.
    bool ran = false;
    int status = 0;
    const std::string report = reportFromLimitedChild(size_t(1) << 30, [&] {
        struct rusage before, after;
        ::getrusage(RUSAGE_SELF, &before);
        YHashTable<XMLReportInfo> t;
        XMLReportHeader h;
        const bool read = sp_CompileSensReportData(YString(path("sparse.msw").c_str()), &t, &h);
        ::getrusage(RUSAGE_SELF, &after);
        return std::to_string(read) + " " + std::to_string(after.ru_maxrss - before.ru_maxrss);
    }, &ran, &status);
    ASSERT_TRUE(ran) << "child status " << status;
    const size_t space = report.find(' ');
    ASSERT_NE(space, std::string::npos) << report;
    EXPECT_EQ(report.substr(0, space), "0");
    EXPECT_LT(std::stol(report.substr(space + 1)), 512 * 1024) << "KiB of peak memory grew by " << report;
}

// Special files are refused at once, before anything is read: an endless device, and a FIFO that no
// one writes (whose open alone would wait).
TEST_F(MswFile, SpecialFilesAreRefusedWithoutWaiting)
{
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    EXPECT_FALSE(sp_CompileSensReportData(YString("/dev/zero"), &t, &h));
    ASSERT_EQ(mkfifo(path("results.fifo").c_str(), 0600), 0);
    auto result = std::make_shared<std::promise<bool>>();
    std::future<bool> answer = result->get_future();
    const std::string fifo = path("results.fifo");
    std::thread([result, fifo] {
        YHashTable<XMLReportInfo> table;
        XMLReportHeader header;
        result->set_value(sp_CompileSensReportData(YString(fifo.c_str()), &table, &header));
    }).detach();
    const bool finished = answer.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    EXPECT_TRUE(finished) << "the reader waited on a FIFO";
    if (finished) {
        EXPECT_FALSE(answer.get());
    } else {
        const int writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
        if (writer >= 0)
            close(writer);
    }
}

// Validation opens only regular files: a FIFO that no one writes, as the document or as the schema, is
// a file that cannot be opened, at once.
TEST_F(MswFile, ValidationRefusesAFifoWithoutWaiting)
{
    writeFileBytes(path("r.msw"), msw("<header title=\"t\"/>"));
    ASSERT_EQ(mkfifo(path("v.fifo").c_str(), 0600), 0);
    struct Case {
        std::string xml, schema;
        XmlValidateStatus status;
        std::string text;
    };
    for (const Case& c : {Case{path("v.fifo"), kSchema, XmlValidateNoXmlFile, "Could not open xml file"},
                          Case{path("r.msw"), path("v.fifo"), XmlValidateNoSchemaFile, "Could not open schema file"}}) {
        auto result = std::make_shared<std::promise<std::pair<XmlValidateStatus, std::string>>>();
        std::future<std::pair<XmlValidateStatus, std::string>> answer = result->get_future();
        std::thread([result, c] {
            YString message;
            const XmlValidateStatus status = sp_ValidateXml(YString(c.xml.c_str()), YString(c.schema.c_str()), &message);
            result->set_value({status, message.c_str()});
        }).detach();
        const bool finished = answer.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
        EXPECT_TRUE(finished) << "validation waited on a FIFO";
        if (!finished) {
            const int writer = open(path("v.fifo").c_str(), O_WRONLY | O_NONBLOCK);
            if (writer >= 0)
                close(writer);
            continue;
        }
        const std::pair<XmlValidateStatus, std::string> got = answer.get();
        EXPECT_EQ(got.first, c.status) << c.text;
        EXPECT_EQ(got.second, c.text);
    }
}
#endif

// ---------------------------------------------------------------- only the caller's schema

namespace {

const char kMswNamespace[] = "http://results.example.net/schemas/application/msw/";

// A results document with one run that has no case number (the schema requires one), naming `hint`
// as the schema of its namespace.
std::string invalidWithHint(const std::string& hint)
{
    return msw("<steps><step name=\"no case\"/></steps>",
               std::string(" xmlns=\"") + kMswNamespace + "\" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\"" +
                   " xsi:schemaLocation=\"" + kMswNamespace + " " + hint + "\" version=\"1.0\"");
}

// Runs a validation on a thread of its own and waits at most ten seconds: a validator that opened or
// fetched what the document names would block here. `finished` tells whether it returned in time.
XmlValidateStatus validateInTime(const std::string& xml, const std::string& schema, bool* finished)
{
    auto result = std::make_shared<std::promise<XmlValidateStatus>>();
    std::future<XmlValidateStatus> status = result->get_future();
    std::thread([result, xml, schema] {
        YString message;
        result->set_value(sp_ValidateXml(YString(xml.c_str()), YString(schema.c_str()), &message));
    }).detach();
    *finished = status.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    return *finished ? status.get() : XmlValidateOk;
}

} // namespace

TEST_F(MswFile, ValidationIgnoresAPermissiveSchemaTheDocumentNames)
{
    // A document whose root the caller's schema does not declare, naming a schema of its own that
    // accepts anything.
    writeFileBytes(path("anything.xsd"),
                   "<xs:schema xmlns:xs=\"http://www.w3.org/2001/XMLSchema\" targetNamespace=\"urn:other\" "
                   "elementFormDefault=\"qualified\"><xs:element name=\"other\"><xs:complexType><xs:sequence>"
                   "<xs:any processContents=\"skip\" minOccurs=\"0\" maxOccurs=\"unbounded\"/></xs:sequence>"
                   "<xs:anyAttribute processContents=\"skip\"/></xs:complexType></xs:element></xs:schema>");
    writeFileBytes(path("hinted.xml"), "<other xmlns=\"urn:other\" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
                                       "xsi:schemaLocation=\"urn:other " + fileUrlOf(path("anything.xsd")) + "\"><x/></other>");
    YString message;
    EXPECT_EQ(sp_ValidateXml(YString(path("hinted.xml").c_str()), YString(kSchema), &message), XmlValidateInvalid);
    // The permissive schema as the caller's own does accept the document: the verdict is the caller's.
    EXPECT_EQ(sp_ValidateXml(YString(path("hinted.xml").c_str()), YString(path("anything.xsd").c_str()), &message),
              XmlValidateOk);
}

TEST_F(MswFile, ValidationNeverConnectsToAHostTheDocumentNames)
{
    // A listening socket that accepts nothing and answers nothing.
    QTcpServer silent;
    ASSERT_TRUE(silent.listen(QHostAddress::LocalHost));
    const std::string hint = "http://127.0.0.1:" + std::to_string(silent.serverPort()) + "/msw.xsd";
    writeFileBytes(path("net.msw"), invalidWithHint(hint));
    bool finished = false;
    EXPECT_EQ(validateInTime(path("net.msw"), kSchema, &finished), XmlValidateInvalid);
    EXPECT_TRUE(finished) << "the validator waited for " << hint;
    EXPECT_FALSE(silent.waitForNewConnection(0)) << "the validator connected to " << hint;
}

#ifndef Q_OS_WIN
TEST_F(MswFile, ValidationNeverOpensAFifoTheDocumentNames)
{
    ASSERT_EQ(mkfifo(path("hint.xsd").c_str(), 0600), 0);
    writeFileBytes(path("fifo.msw"), invalidWithHint(fileUrlOf(path("hint.xsd"))));
    bool finished = false;
    EXPECT_EQ(validateInTime(path("fifo.msw"), kSchema, &finished), XmlValidateInvalid);
    EXPECT_TRUE(finished) << "the validator opened the FIFO the document names";
    if (!finished) {
        // Let the blocked reader go: a writer that opens and closes the FIFO gives it an end of file.
        const int writer = open(path("hint.xsd").c_str(), O_WRONLY | O_NONBLOCK);
        if (writer >= 0)
            close(writer);
    }
}
#endif

TEST_F(MswFile, SchemaIncludesOnlyFromTheSchemasFolder)
{
    // A schema in its own folder that takes its types from a file beside it: allowed.
    QDir().mkpath(QString::fromStdString(path("schemas")));
    const std::string head = std::string("<xs:schema xmlns:xs=\"http://www.w3.org/2001/XMLSchema\">");
    writeFileBytes(path("schemas/types.xsd"), head + "<xs:simpleType name=\"small\"><xs:restriction base=\"xs:int\">"
                                                     "<xs:maxInclusive value=\"9\"/></xs:restriction></xs:simpleType></xs:schema>");
    writeFileBytes(path("schemas/main.xsd"), head + "<xs:include schemaLocation=\"types.xsd\"/>"
                                                    "<xs:element name=\"n\" type=\"small\"/></xs:schema>");
    writeFileBytes(path("five.xml"), "<n>5</n>");
    writeFileBytes(path("fifty.xml"), "<n>50</n>");
    YString message;
    EXPECT_EQ(sp_ValidateXml(YString(path("five.xml").c_str()), YString(path("schemas/main.xsd").c_str()), &message),
              XmlValidateOk)
        << message.c_str();
    EXPECT_EQ(sp_ValidateXml(YString(path("fifty.xml").c_str()), YString(path("schemas/main.xsd").c_str()), &message),
              XmlValidateInvalid);
    // The same types one folder up, and over the network: not read, so the schema is incomplete.
    writeFileBytes(path("types.xsd"), readFileBytes(path("schemas/types.xsd")));
    writeFileBytes(path("schemas/up.xsd"), head + "<xs:include schemaLocation=\"../types.xsd\"/>"
                                                  "<xs:element name=\"n\" type=\"small\"/></xs:schema>");
    EXPECT_EQ(sp_ValidateXml(YString(path("five.xml").c_str()), YString(path("schemas/up.xsd").c_str()), &message),
              XmlValidateBadSchema);
    QTcpServer silent;
    ASSERT_TRUE(silent.listen(QHostAddress::LocalHost));
    writeFileBytes(path("schemas/net.xsd"), head + "<xs:include schemaLocation=\"http://127.0.0.1:" +
                                                   std::to_string(silent.serverPort()) +
                                                   "/types.xsd\"/><xs:element name=\"n\" type=\"small\"/></xs:schema>");
    bool finished = false;
    EXPECT_EQ(validateInTime(path("five.xml"), path("schemas/net.xsd"), &finished), XmlValidateBadSchema);
    EXPECT_TRUE(finished);
    EXPECT_FALSE(silent.waitForNewConnection(0));
}

// ---------------------------------------------------------------- merit append

class MeritAppend : public MswFile {
protected:
    // A file with runs 1 to 3 and one merit function.
    void writeThreeRuns(const std::string& name)
    {
        writeFileBytes(path(name), msw("<meritfunction value=\"a\" name=\"A\"><sensval case=\"1\" value=\"1\"/>"
                                       "<sensval case=\"2\" value=\"2\"/><sensval case=\"3\" value=\"3\"/></meritfunction>"
                                       "<steps><step case=\"1\"/><step case=\"2\"/><step case=\"3\"/></steps>"));
    }
    bool append(const std::string& name, YVector<double> values, YVector<int> cases)
    {
        return sp_AppendMeritData(YString(path(name).c_str()), YString("b(x)"), YString("B"), values, cases);
    }
};

TEST_F(MeritAppend, AddsValuesPerCase)
{
    writeThreeRuns("r.msw");
    ASSERT_TRUE(append("r.msw", {20.0, 30.0, 10.0}, {2, 3, 1}));
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    ASSERT_TRUE(read("r.msw", &t, &h));
    ASSERT_EQ(h.meritFunctions.count(), 2);
    EXPECT_STREQ(h.meritFunctions[1].value.c_str(), "b(x)");
    EXPECT_STREQ(h.meritFunctions[1].name.c_str(), "B");
    EXPECT_EQ(findCase(t, 2)->values[1].value, 20.0);
    EXPECT_EQ(findCase(t, 2)->values[1].delta, 10.0);
    EXPECT_EQ(findCase(t, 1)->values[1].value, 10.0);
}

TEST_F(MeritAppend, EmptyListsAddAFunctionWithoutValues)
{
    writeFileBytes(path("n.msw"), msw("<header title=\"t\"/>"));
    ASSERT_TRUE(append("n.msw", {}, {}));
    const std::string text = readFileBytes(path("n.msw"));
    EXPECT_TRUE(contains(text, "<meritfunction value=\"b(x)\" name=\"B\" />")) << text;
    EXPECT_FALSE(contains(text, "sensval"));
}

TEST_F(MeritAppend, FailuresLeaveTheFileAsItWas)
{
    writeThreeRuns("r.msw");
    const std::string before = readFileBytes(path("r.msw"));
    EXPECT_FALSE(append("r.msw", {1.0}, {1, 2}));         // lengths differ
    EXPECT_FALSE(append("r.msw", {1.0, 2.0}, {1, 9}));    // case 9 is not in the file
    EXPECT_FALSE(append("r.msw", {1.0, 2.0}, {2, 2}));    // the second occurrence finds the new value
    EXPECT_EQ(readFileBytes(path("r.msw")), before);
    EXPECT_FALSE(append("missing.msw", {}, {}));

    // Runs that lack a value of an earlier merit function cannot be appended to.
    // (No case 1, so reading creates no missing values: case 3 holds none of the two.)
    writeFileBytes(path("short.msw"), msw("<meritfunction value=\"a\" name=\"A\"><sensval case=\"2\" value=\"1\"/></meritfunction>"
                                          "<meritfunction value=\"b\" name=\"B\"><sensval case=\"2\" value=\"1\"/></meritfunction>"
                                          "<steps><step case=\"2\"/><step case=\"3\"/></steps>"));
    const std::string shortBefore = readFileBytes(path("short.msw"));
    EXPECT_FALSE(append("short.msw", {5.0}, {3}));
    EXPECT_EQ(readFileBytes(path("short.msw")), shortBefore);
    EXPECT_TRUE(leftovers().isEmpty());
}

TEST_F(MeritAppend, AppendedPartsAreWrittenBackAsOneFile)
{
    writeThreeRuns("part.msw");
    writeFileBytes(path("main.msw"), msw("<header title=\"main\"/><append><file path=\"" + path("part.msw") + "\"/></append>"));
    ASSERT_TRUE(append("main.msw", {7.0}, {3}));
    const std::string text = readFileBytes(path("main.msw"));
    EXPECT_FALSE(contains(text, "<append"));
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    ASSERT_TRUE(read("main.msw", &t, &h));
    EXPECT_EQ(t.count(), 3);
    EXPECT_EQ(findCase(t, 3)->values[1].value, 7.0);
}

// ---------------------------------------------------------------- bad input

TEST_F(MswFile, BadInputReturnsFalseOrReadsWhatIsValid)
{
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    EXPECT_FALSE(readText("", &t, &h));
    EXPECT_FALSE(readText("this is not XML", &t, &h));
    EXPECT_FALSE(readText("<msw version=\"1.0\"><steps><step case=\"2\"", &t, &h));
    EXPECT_EQ(t.count(), 0);
    EXPECT_FALSE(sp_CompileSensReportData(YString(path("absent.msw").c_str()), &t, &h));
    EXPECT_TRUE(readText("<?xml version=\"1.0\"?><results><steps><step case=\"4\"/></steps></results>", &t, &h));
    EXPECT_NE(findCase(t, 4), nullptr);
    EXPECT_TRUE(readText(msw("<meritfunction><sensval case=\"x\" value=\"y\"/></meritfunction>"), &t, &h));
    EXPECT_EQ(findCase(t, 0)->values[0].value, 0.0);
    // A case number that does not fit would merge runs: the file is refused and changes nothing.
    const int before = t.count();
    const int merits = h.meritFunctions.count();
    for (const char* tooLarge : {"2147483648", "99999999999", "-2147483649", "99999999999999999999999"}) {
        EXPECT_FALSE(readText(msw(std::string("<meritfunction><sensval case=\"2147483647\" value=\"1\"/><sensval case=\"") +
                                  tooLarge + "\" value=\"2\"/></meritfunction>"), &t, &h)) << tooLarge;
        EXPECT_FALSE(readText(msw(std::string("<steps><step case=\"5\"/><step case=\"") + tooLarge + "\"/></steps>"), &t, &h))
            << tooLarge;
        EXPECT_EQ(t.count(), before) << tooLarge;
        EXPECT_EQ(h.meritFunctions.count(), merits) << tooLarge;
    }
    // The extremes themselves are case numbers like any other.
    EXPECT_TRUE(readText(msw("<meritfunction><sensval case=\"2147483647\" value=\"1\"/><sensval case=\"-2147483648\" value=\"2\"/></meritfunction>"), &t, &h));
    EXPECT_EQ(findCase(t, INT_MAX)->values[merits].value, 1.0);
    EXPECT_EQ(findCase(t, INT_MIN)->values[merits].value, 2.0);
    const std::string laughs = "<?xml version=\"1.0\"?><!DOCTYPE msw [<!ENTITY a \"aaaaaaaaaa\">"
                               "<!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\"><!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;\">"
                               "<!ENTITY d \"&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;\"><!ENTITY e \"&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;\">]>"
                               "<msw version=\"1.0\"><header title=\"&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;\"/></msw>";
    XMLReportHeader lh;
    readText(laughs, &t, &lh);
    EXPECT_LT(lh.title.length(), 1000);
    std::string many;
    for (int i = 0; i < 10000; ++i)
        many += "<meritfunction value=\"m\" name=\"n\"><sensval case=\"1\" value=\"1\"/></meritfunction>";
    YHashTable<XMLReportInfo> t2;
    XMLReportHeader h2;
    EXPECT_TRUE(readText(msw(many), &t2, &h2));
    EXPECT_EQ(h2.meritFunctions.count(), 10000);
    EXPECT_EQ(findCase(t2, 1)->values.count(), 10000);
}

// ---------------------------------------------------------------- no data loss

#ifndef Q_OS_WIN
// A write that fails part way (a file-size limit in a child process) leaves the previous file byte for
// byte and no temporary file behind.
// A results file that its user may not write is refused and left alone, even in a folder where anyone
// may make files (where a rename could put a new file in its place); the super-user runs the probe as
// an unprivileged user, since permissions do not stop root.
TEST_F(MswFile, ReadOnlyResultsFileIsLeftAlone)
{
    QProcess make;
    make.start(MSW_WRITE_PROBE_PATH, {"write", QString::fromStdString(path("ro.msw")), "0"});
    ASSERT_TRUE(make.waitForFinished(60000));
    ASSERT_EQ(QString::fromUtf8(make.readAllStandardOutput()).trimmed(), "true");
    ASSERT_EQ(::chmod(path("ro.msw").c_str(), 0444), 0);
    ASSERT_EQ(::chmod(m_dir.c_str(), 0777), 0);
    const std::string before = readFileBytes(path("ro.msw"));
    QProcess probe;
    if (runningAsRoot()) {
        const QString setpriv = QStandardPaths::findExecutable("setpriv");
        ASSERT_FALSE(setpriv.isEmpty()) << "setpriv runs the probe as an unprivileged user";
        probe.start(setpriv, {"--reuid=nobody", "--regid=nogroup", "--clear-groups", MSW_WRITE_PROBE_PATH, "append",
                              QString::fromStdString(path("ro.msw")), "0"});
    } else {
        probe.start(MSW_WRITE_PROBE_PATH, {"append", QString::fromStdString(path("ro.msw")), "0"});
    }
    ASSERT_TRUE(probe.waitForFinished(60000));
    EXPECT_EQ(QString::fromUtf8(probe.readAllStandardOutput()).trimmed(), "false") << probe.readAllStandardError().toStdString();
    EXPECT_EQ(readFileBytes(path("ro.msw")), before);
    EXPECT_TRUE(leftovers().isEmpty()) << leftovers().join(",").toStdString();
    struct stat st;
    ASSERT_EQ(::stat(path("ro.msw").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0444u);
}

// Another user's results file that anyone may write, in a folder where only owners may replace files (as
// /tmp is): it cannot be replaced by a rename, so it is written in place and keeps its owner.
TEST_F(MswFile, AnotherUsersWritableFileInAStickyFolderIsWrittenInPlace)
{
    if (!runningAsRoot())
        GTEST_SKIP() << "making a file of another user takes the super-user";
    const QString setpriv = QStandardPaths::findExecutable("setpriv");
    ASSERT_FALSE(setpriv.isEmpty()) << "setpriv runs the probe as an unprivileged user";
    ASSERT_EQ(::chmod(m_dir.c_str(), 01777), 0);
    writeFileBytes(path("shared.msw"), "old\n");
    ASSERT_EQ(::chmod(path("shared.msw").c_str(), 0666), 0);
    QProcess probe;
    probe.start(setpriv, {"--reuid=nobody", "--regid=nogroup", "--clear-groups", MSW_WRITE_PROBE_PATH, "write",
                          QString::fromStdString(path("shared.msw")), "0"});
    ASSERT_TRUE(probe.waitForFinished(60000));
    EXPECT_EQ(QString::fromUtf8(probe.readAllStandardOutput()).trimmed(), "true") << probe.readAllStandardError().toStdString();
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    EXPECT_TRUE(read("shared.msw", &table, &header));
    EXPECT_EQ(table.count(), 20000);
    struct stat st;
    ASSERT_EQ(::stat(path("shared.msw").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 0u);
    EXPECT_EQ(st.st_mode & 07777, 0666u);
    EXPECT_TRUE(leftovers().isEmpty()) << leftovers().join(",").toStdString();
}

TEST_F(MswFile, FailedWriteKeepsThePreviousFile)
{
    writeFileBytes(path("precious.msw"), msw("<header title=\"hours of simulation\"/>"));
    const std::string before = readFileBytes(path("precious.msw"));
    for (const char* what : {"write", "append"}) {
        if (std::string(what) == "append") {
            // A large valid file that the append must rewrite.
            QProcess make;
            make.start(MSW_WRITE_PROBE_PATH, {"write", QString::fromStdString(path("big.msw")), "0"});
            ASSERT_TRUE(make.waitForFinished(60000));
            ASSERT_EQ(make.exitCode(), 0) << make.readAllStandardError().toStdString();
        }
        const std::string target = std::string(what) == "write" ? path("precious.msw") : path("big.msw");
        const std::string old = readFileBytes(target);
        QProcess probe;
        probe.start(MSW_WRITE_PROBE_PATH, {what, QString::fromStdString(target), "65536"});
        ASSERT_TRUE(probe.waitForFinished(60000));
        EXPECT_EQ(probe.exitCode(), 0) << what << " " << probe.readAllStandardError().toStdString();
        EXPECT_EQ(QString::fromUtf8(probe.readAllStandardOutput()).trimmed(), "false") << what;
        EXPECT_EQ(readFileBytes(target), old) << what;
        EXPECT_TRUE(leftovers().isEmpty()) << leftovers().join(",").toStdString();
    }
    EXPECT_EQ(readFileBytes(path("precious.msw")), before);
}
#endif

TEST_F(MswFile, WriteIntoAMissingFolderFails)
{
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    EXPECT_FALSE(sp_WriteMswFile(YString(path("no/such/dir/x.msw").c_str()), table, header));
}

// ---------------------------------------------------------------- reading without a tree

namespace {

// Everything a read produced, as text, so that two reads compare in one assertion.
std::string dumpRead(bool ok, const YHashTable<XMLReportInfo>& table, const XMLReportHeader& header)
{
    std::vector<const XMLReportInfo*> records;
    for (const XMLReportInfo& r : table)
        records.push_back(&r);
    std::sort(records.begin(), records.end(), [](auto* a, auto* b) { return a->caseNumber < b->caseNumber; });
    char number[64];
    const auto real = [&](double v) {
        std::snprintf(number, sizeof number, "%.17g", v);
        return std::string(number);
    };
    std::string text = ok ? "ok\n" : "failed\n";
    text += "header " + std::to_string(header.numCores) + "|" + header.date.c_str() + "|" + header.title.c_str() + "|" +
            header.analysis.c_str() + "|" + header.group.c_str() + "\n";
    for (int m = 0; m < header.meritFunctions.count(); ++m)
        text += std::string("merit ") + header.meritFunctions[m].value.c_str() + "|" + header.meritFunctions[m].name.c_str() + "\n";
    for (const XMLReportInfo* r : records) {
        text += "case " + std::to_string(r->caseNumber) + " name " + std::to_string(r->hasName) + r->name.c_str() +
                " description " + std::to_string(r->hasDescription) + r->description.c_str() + " seed " +
                std::to_string(r->hasSeed) + std::to_string(r->seed) + "\n";
        for (int v = 0; v < r->values.count(); ++v)
            text += "  value " + real(r->values[v].value) + " " + real(r->values[v].delta) + " " + real(r->values[v].norm) +
                    " " + std::to_string(r->values[v].status) + "\n";
        for (int p = 0; p < r->parameters.count(); ++p) {
            const XMLParameterValue& q = r->parameters[p];
            text += std::string("  parameter ") + q.name.c_str() + " " + real(q.nominal) + " " + real(q.usedValue) + " " +
                    std::to_string(q.hasTolerance) + real(q.tolerance) + "\n";
        }
    }
    return text;
}

// The same document with a comment at its start (after the declaration), which the plain reading leaves
// to the XML tree: the tree's reading of the very same content.
std::string throughTheTree(const std::string& text)
{
    size_t at = text.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;
    if (text.compare(at, 5, "<?xml") == 0)
        at = text.find("?>", at) + 2;
    return text.substr(0, at) + "<!-- read through the tree -->" + text.substr(at);
}

// Whether the scanner takes the file whole without leaving it to the tree.
bool scansPlainly(const std::string& file)
{
    FILE* f = std::fopen(file.c_str(), "rb");
    if (!f)
        return false;
    xmlreport::MswScanner scanner(f);
    xmlreport::ScannedTag tag;
    xmlreport::MswScanner::Event event;
    while ((event = scanner.next(&tag)) == xmlreport::MswScanner::StartTag || event == xmlreport::MswScanner::EndTag) {
    }
    std::fclose(f);
    return event == xmlreport::MswScanner::Finished;
}

} // namespace

TEST_F(MswFile, PlainFilesAreReadWithoutATreeExactlyAsTheTreeReadsThem)
{
    // A file as the writer writes it, with every kind of field and the ASCII twins.
    {
        OptionGuard twins(true);
        YHashTable<XMLReportInfo> table;
        XMLReportHeader header;
        header.title = "t";
        header.analysis = ".mc 3 tran";
        header.numCores = 2;
        header.meritFunctions.append(XMLMeritFunction{"max(v(out))", "vmax"});
        header.meritFunctions.append(XMLMeritFunction{"rise(v(out), 10%, 90%)", "rise"});
        for (int c = 1; c <= 3; ++c) {
            XMLReportInfo* r = table.insert(XMLReportInfo(c));
            r->values.at(0).value = 1.5 * c;
            r->values.at(1).value = -0.25 * c;
            r->seed = 1099511627776LL + c;
            r->hasSeed = true;
            r->name = c == 2 ? "Refdes:R1/DevParam:R" : "";
            r->hasName = c == 2;
            r->description = c == 3 ? "third run" : "";
            r->hasDescription = c == 3;
            XMLParameterValue p;
            p.name = "R1";
            p.nominal = 1000;
            p.usedValue = 1000 + c;
            p.hasTolerance = c != 3;
            p.tolerance = 0.05;
            r->parameters.append(p);
        }
        ASSERT_TRUE(sp_WriteMswFile(YString(path("written.msw").c_str()), table, header));
    }
    const std::string written = readFileBytes(path("written.msw"));
    std::string manySteps;
    for (int c = 1; c <= 3000; ++c)
        manySteps += "<step case=\"" + std::to_string(c) + "\"\n   name=\"Lot:" + std::to_string(c % 7) + "\"  seed = '" +
                     std::to_string(c * 31) + "'><parameter name=\"P" + std::to_string(c % 5) + "\" nom=\"1\" usedvalue=\"" +
                     std::to_string(1 + c * 1e-4) + "\"/></step>\n";
    const std::string longText(700 * 1024, 'w'); // longer than the scanner's window
    struct Case {
        std::string text;
        bool plain; // whether it is read without a tree
    };
    const std::vector<Case> cases = {
        {written, true},
        {msw("<header title='single quoted' numcores = \"3\" coreid=\"0\" date=\"d\"/>"
             "<meritfunction value=\"a>b\" name=\"x y\"><sensval case=\"1\" value=\"1e3\"/><SENSVAL case=\" 2\" value=\"-2.5\"/>"
             "<sensval case=\"3\" value=\"x\"/><other case=\"9\" value=\"4\"/>text between</meritfunction>"), true},
        {msw("<steps><step case=\"2\" description=\"d\"><parameter name=\"p\" nom=\"1\" usedvalue=\"2\"/>"
             "<parameter name=\"q\" nom=\"1\" usedvalue=\"2\" tol=\"0.1\"></parameter><deeper><parameter name=\"r\" nom=\"1\" usedvalue=\"3\"/></deeper>"
             "</step><Step case=\"3\" name=\"n\" description=\"d\" seed=\"-5\"/><step case=\"4\"/></steps>"), true},
        {msw("<wrapper><steps><step case=\"7\"/></steps></wrapper><ns:steps><step case=\"8\"/></ns:steps>"
             "<steps><step case=\"5\" case=\"6\" name=\"first\" name=\"second\"/></steps>"), true},
        {msw("<header coreid=\"1\" title=\"core\"/><header title=\"whole\"/>"), true},
        {msw("<steps><step case=\"2\"/></steps>", " version=\"2.0\""), true},
        {msw("<steps><step case=\"2\"/><step case=\"2147483648\"/></steps>"), true},
        {"\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<msw version=\"1.0\"><steps><step case=\"3\"/></steps></msw>", true},
        {"<msw version=\"1.0\"/>", true},
        {"<results><steps><step case=\"4\" description=\"" + longText + "\"/></steps></results>", true},
        {msw("<steps>" + manySteps + "</steps><meritfunction name=\"m\"><sensval case=\"2999\" value=\"7\"/></meritfunction>"), true},
        {msw("<steps><step case=\"2\" name=\"a&amp;b\"/></steps>"), false},
        {msw("<meritfunction value=\"rise &lt;10%&gt;\" name=\"r\"><sensval case=\"1\" value=\"2\"/></meritfunction>"), false},
        {msw("<steps><step case=\"2\" name=\"a\tb\" description=\"line\nend\"/></steps>"), false},
        {msw("<steps><step case=\"2\"/></steps><!-- a comment -->"), false},
        {msw("<meritfunction name=\"m\"><![CDATA[<sensval case=\"5\"/>]]></meritfunction>"), false},
        {"<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><msw version=\"1.0\"><steps><step case=\"2\" name=\"\xE9\"/></steps></msw>", false},
        {msw("<steps><step case=\"2\"></steps></step>"), false},
        {msw("<steps><step case=\"2\"/>"), false},
        {"<msw version=\"1.0\"/><msw version=\"1.0\"><steps><step case=\"2\"/></steps></msw>", false},
        {"text<msw version=\"1.0\"/>", false},
        {"  <?xml version=\"1.0\"?><msw version=\"1.0\"/>", false},
        {msw("<steps><step case=\"2\" name=\"x\"name=\"y\"/></steps>"), false},
        {msw("<steps><step case=2/></steps>"), false},
        {std::string("<msw version=\"1.0\"><steps><step case=\"2\"/>") + '\0' + "</steps></msw>", false},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        writeFileBytes(path("plain.msw"), cases[i].text);
        writeFileBytes(path("tree.msw"), throughTheTree(cases[i].text));
        EXPECT_EQ(scansPlainly(path("plain.msw")), cases[i].plain) << "case " << i;
        EXPECT_FALSE(scansPlainly(path("tree.msw"))) << "case " << i;
        YHashTable<XMLReportInfo> plainTable, treeTable;
        XMLReportHeader plainHeader, treeHeader;
        const bool plainOk = read("plain.msw", &plainTable, &plainHeader);
        const bool treeOk = read("tree.msw", &treeTable, &treeHeader);
        EXPECT_EQ(dumpRead(plainOk, plainTable, plainHeader), dumpRead(treeOk, treeTable, treeHeader)) << "case " << i;
    }
    // The plain readings above were real readings: spot checks of their values.
    YHashTable<XMLReportInfo> t;
    XMLReportHeader h;
    writeFileBytes(path("check.msw"), cases[3].text);
    ASSERT_TRUE(read("check.msw", &t, &h));
    EXPECT_EQ(t.count(), 1);
    ASSERT_NE(findCase(t, 5), nullptr);
    EXPECT_EQ(std::string(findCase(t, 5)->name.c_str()), "first");
    writeFileBytes(path("check.msw"), cases[1].text);
    YHashTable<XMLReportInfo> t1;
    XMLReportHeader h1;
    ASSERT_TRUE(read("check.msw", &t1, &h1));
    EXPECT_EQ(std::string(h1.title.c_str()), "single quoted");
    EXPECT_EQ(h1.numCores, 3);
    EXPECT_EQ(std::string(h1.meritFunctions[0].value.c_str()), "a>b");
    EXPECT_EQ(findCase(t1, 1)->values[0].value, 1000.0);
    EXPECT_EQ(findCase(t1, 2)->values[0].value, -2.5);
    EXPECT_EQ(findCase(t1, 3)->values[0].value, 0.0);
    EXPECT_EQ(findCase(t1, 9), nullptr);
    writeFileBytes(path("check.msw"), cases[9].text);
    YHashTable<XMLReportInfo> t9;
    XMLReportHeader h9;
    ASSERT_TRUE(read("check.msw", &t9, &h9));
    EXPECT_EQ(findCase(t9, 4)->description.length(), static_cast<int>(longText.size()));
    writeFileBytes(path("check.msw"), cases[5].text);
    YHashTable<XMLReportInfo> t5;
    XMLReportHeader h5;
    EXPECT_FALSE(read("check.msw", &t5, &h5));
    EXPECT_EQ(t5.count(), 0);
}

namespace {

// Everything a read produced in the table's own order, which both readings must keep as well.
std::string dumpInTableOrder(bool ok, const YHashTable<XMLReportInfo>& table, const XMLReportHeader& header)
{
    std::string text = dumpRead(ok, table, header);
    for (const XMLReportInfo& r : table)
        text += " " + std::to_string(r.caseNumber);
    return text;
}

// A random attribute value: mostly plain text, sometimes one of the bytes that end a value or leave the
// file to the full parser, an entity, a quote of either kind, UTF-8 or another control byte.
std::string randomValue(std::mt19937& random)
{
    static const char* const kPieces[] = {"a", "Z", "7", "-", ".", " ", "/", ":", "=", ">", "Lot:", "Refdes:R1",
                                          "DevParam:R", "Term:", "\"", "'", "&", "&amp;", "&lt;", "<", "\t", "\n",
                                          "\r", "\xC3\xA9", "\x01", "1e-3", "12345678"};
    std::uniform_int_distribution<int> length(0, 14), piece(0, 26), wild(0, 19);
    // One value in twenty may hold anything; the others hold only what the plain form allows.
    const bool anything = wild(random) == 0;
    std::string value;
    for (int n = length(random); n > 0; --n)
        value += kPieces[anything ? piece(random) : piece(random) % 13];
    return value;
}

} // namespace

TEST_F(MswFile, AttributeValuesOfAnyBytesAreReadPlainlyExactlyAsTheTreeReadsThem)
{
    // Documents whose attribute values hold every kind of byte, quoted either way, some of them pushed
    // across the edge of the plain reader's window by a long attribute before them: the plain reading,
    // whenever it takes a file, gives what the tree gives, and leaves the others to the tree.
    std::mt19937 random(24);
    std::uniform_int_distribution<int> coin(0, 1), pad(250 * 1024, 270 * 1024), runs(1, 6);
    int plain = 0, left = 0;
    for (int doc = 0; doc < 160; ++doc) {
        const auto attribute = [&](const char* name) {
            const char quote = coin(random) ? '"' : '\'';
            return std::string(" ") + name + "=" + quote + randomValue(random) + quote;
        };
        std::string body = "<header" + attribute("title") + attribute("analysis") + "/>";
        if (doc % 3 == 0)
            body += "<pad long=\"" + std::string(static_cast<size_t>(pad(random)), 'w') + "\"/>";
        const int count = runs(random);
        body += "<meritfunction" + attribute("value") + attribute("name") + ">";
        for (int c = 1; c <= count; ++c)
            body += "<sensval case=\"" + std::to_string(c) + "\" value=\"" + std::to_string(c * 1.5) + "\"/>";
        body += "</meritfunction><steps>";
        for (int c = 1; c <= count; ++c)
            body += "<step case=\"" + std::to_string(c) + "\"" + attribute("name") + attribute("description") +
                    "><parameter" + attribute("name") + " nom=\"1\" usedvalue=\"2\"/></step>";
        body += "</steps>";
        const std::string text = msw(body);
        writeFileBytes(path("plain.msw"), text);
        writeFileBytes(path("tree.msw"), throughTheTree(text));
        (scansPlainly(path("plain.msw")) ? plain : left) += 1;
        YHashTable<XMLReportInfo> plainTable, treeTable;
        XMLReportHeader plainHeader, treeHeader;
        const bool plainOk = read("plain.msw", &plainTable, &plainHeader);
        const bool treeOk = read("tree.msw", &treeTable, &treeHeader);
        EXPECT_EQ(dumpInTableOrder(plainOk, plainTable, plainHeader), dumpInTableOrder(treeOk, treeTable, treeHeader))
            << "document " << doc;
    }
    // Both ways were taken many times.
    EXPECT_GT(plain, 20);
    EXPECT_GT(left, 20);
}

TEST_F(MswFile, ThePlainReaderTakesAnAppendedTreeAndTheTreeAnAppendedPlainFile)
{
    writeFileBytes(path("plain-part.msw"), msw("<steps><step case=\"3\" name=\"plain\"/></steps>"));
    writeFileBytes(path("tree-part.msw"), throughTheTree(msw("<steps><step case=\"4\" name=\"tree\"/></steps>")));
    const std::string outer = msw("<append><file path=\"" + path("tree-part.msw") + "\"/><file path=\"" +
                                  path("plain-part.msw") + "\"/></append><steps><step case=\"2\" name=\"outer\"/></steps>");
    writeFileBytes(path("outer-plain.msw"), outer);
    writeFileBytes(path("outer-tree.msw"), throughTheTree(outer));
    ASSERT_TRUE(scansPlainly(path("outer-plain.msw")));
    YHashTable<XMLReportInfo> plainTable, treeTable;
    XMLReportHeader plainHeader, treeHeader;
    const bool plainOk = read("outer-plain.msw", &plainTable, &plainHeader);
    const bool treeOk = read("outer-tree.msw", &treeTable, &treeHeader);
    EXPECT_TRUE(plainOk);
    EXPECT_EQ(plainTable.count(), 3);
    EXPECT_EQ(std::string(findCase(plainTable, 4)->name.c_str()), "tree");
    EXPECT_EQ(dumpRead(plainOk, plainTable, plainHeader), dumpRead(treeOk, treeTable, treeHeader));
}
