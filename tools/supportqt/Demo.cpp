// Demo.cpp - `supportqt demo`: the front end's typical request, end to end, on the bundled examples:
// read a converter netlist, parse its switching-simulator statements and write them back, read the
// results of a sensitivity, a Monte Carlo and a worst-case run, and write their reports and charts and
// the page that links them.
#include "Charts.h"
#include "Commands.h"
#include "ReportHub.h"
#include "Tool.h"

#include "CheckedReports.h"
#include "NetlistStream.h"
#include "Reports.h"
#include "TextFile.h"
#include "TreboltControls.h"
#include "XMLReport.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cmath>
#include <list>

namespace {

const char* statementState(bool present, bool enabled)
{
    return !present ? "absent" : enabled ? "active" : "commented out";
}

class Demo {
public:
    Demo(const ToolCommand& command, const QDir& examples, const QDir& out) : m_command(command), m_examples(examples), m_out(out) {}

    bool readNetlist();
    bool sensitivity();
    bool monteCarlo();
    bool worstCase();
    bool writeIndex();
    void finish();

private:
    QString input(const QString& relative) const { return m_examples.filePath(relative); }
    QString output(const QString& name)
    {
        m_written << name;
        return m_out.filePath(name);
    }
    // A results file read, with what the index page shows of it.
    struct Loaded {
        YHashTable<XMLReportInfo> table;
        XMLReportHeader header;
        HubSection section;
    };
    Loaded* load(const QString& path);
    bool writeText(const QString& name, const std::string& text);
    bool writeReport(const QString& name, const std::function<bool(const YString&)>& write);

    const ToolCommand& m_command;
    QDir m_examples;
    QDir m_out;
    QStringList m_written;
    std::list<Loaded> m_loaded; // a list, so that the sections' pointers into it stay valid
    Output m_print;
};

bool Demo::readNetlist()
{
    const QString path = input(QStringLiteral("netlists/buck_converter.cir"));
    if (!m_command.checkInput(path))
        return false;
    SpiceStream stream(toYs(path).c_str(), SpiceLanguageNative);
    stream.readTitle();
    const QString title = QString::fromUtf8(stream.getBuffer()->data(), stream.getBuffer()->length());
    stream.flushBuffer();
    YString line;
    int number = 0, lines = 0, lastLine = 0;
    bool streamFlag = false, nonAscii = false;
    UTF8DetectEncoding encoding = Ascii;
    while (stream.gets(&line, &number, &streamFlag, &nonAscii)) {
        ++lines;
        lastLine = number;
        encoding = std::max(encoding, stream.getUtf8Encoding());
        // The raw record goes, but not the UTF-8 detector's state: it has seen the next line's first byte.
        stream.copyBuffer(YString());
    }
    m_print << "1. Read the netlist " << path << '\n'
            << "   title \"" << title << "\"; " << lines << " logical lines from " << stream.getLineCount()
            << " physical lines (the last starts on line " << lastLine << ")\n"
            << "   hierarchy separator \"" << stream.getSeparator() << "\" set by a *# directive; "
            << (encoding == Ascii ? "plain ASCII" : encoding == Invalid ? "not UTF-8" : "UTF-8") << '\n';

    // The switching simulator's statements: parsed into settings, then written back.
    bool ok = false;
    const QString text = sp_LoadFile(path, "auto", &ok);
    TreboltCommandParseResult result;
    SelectTreboltAnalysisData::RunInfo enabled, present;
    result.enabledFlags = enabled.flags;
    result.presentFlags = present.flags;
    kvfe_ParseTreboltCommands(kvfe_TreboltControlStatementLines(toYs(text)).c_str(), &result);
    int given = 0;
    std::string shown;
    for (const TreboltParamValue& v : result.params) {
        if (!v.valid)
            continue;
        ++given;
        if (v.name == "TSTOP" || v.name == "TRIG_GATE" || v.name == "PSP_NPT" || v.name == "POP_ITRMAX")
            shown += (shown.empty() ? "" : ", ") + v.name.str() + "=" +
                     (v.type == TreboltText ? v.text.str() : v.type == TreboltReal ? realText(v.value.real) : std::to_string(v.value.integer));
    }
    m_print << "2. Parsed the switching simulator's statements: " << given << " of " << result.params.count()
            << " settings given or defaulted (" << shown << ");\n"
            << "   .tran " << statementState(present[TreboltSlotTran], enabled[TreboltSlotTran])
            << ", .ac " << statementState(present[TreboltSlotAc], enabled[TreboltSlotAc])
            << ", .pop " << statementState(present[TreboltSlotPop], enabled[TreboltSlotPop]) << "; lines kept for the main simulator: "
            << static_cast<int>(toQs(result.kalvontaText).count(QLatin1Char('\n'))) << '\n';
    YList<TreboltParamValue> params = result.params;
    YString compiled;
    kvfe_CompileTreboltControls(params, &compiled, enabled, present);
    if (!writeText(QStringLiteral("controls.cir"), compiled.str()))
        return false;
    m_print << "   wrote them back: " << m_out.filePath(QStringLiteral("controls.cir")) << '\n';
    return true;
}

Demo::Loaded* Demo::load(const QString& path)
{
    if (!m_command.checkInput(path))
        return nullptr;
    Loaded& loaded = m_loaded.emplace_back();
    if (!sp_CompileSensReportData(toYs(path), &loaded.table, &loaded.header)) {
        m_command.fail(ExitFailure, QStringLiteral("the results file %1 does not load").arg(path));
        return nullptr;
    }
    loaded.section.source = path.toStdString();
    loaded.section.header = &loaded.header;
    loaded.section.table = &loaded.table;
    return &loaded;
}

bool Demo::writeText(const QString& name, const std::string& text)
{
    const QString path = output(name);
    const bool ok = writeTextFile(path, text);
    if (!ok)
        m_command.fail(ExitFailure, QStringLiteral("cannot write %1").arg(path));
    return ok;
}

bool Demo::writeReport(const QString& name, const std::function<bool(const YString&)>& write)
{
    const QString path = output(name);
    if (!writeFileAtomically(path, write)) {
        m_command.fail(ExitFailure, QStringLiteral("cannot write %1").arg(path));
        return false;
    }
    return true;
}

bool Demo::sensitivity()
{
    const QString path = input(QStringLiteral("results/buck_sensitivity.msw"));
    Loaded* loaded = load(path);
    if (!loaded)
        return false;
    const YHashTable<XMLReportInfo>& table = loaded->table;
    const XMLReportHeader& header = loaded->header;
    // The largest normalised sensitivity of each merit function names the part that matters most.
    m_print << "3. Read the sensitivity results " << path << ": " << table.count() << " runs, "
            << header.meritFunctions.count() << " merit functions\n";
    for (int m = 0; m < header.meritFunctions.count(); ++m) {
        const XMLReportInfo* strongest = nullptr;
        for (const XMLReportInfo& run : table)
            if (run.caseNumber != 1 && run.values[m].status == NormValid &&
                (!strongest || std::fabs(run.values[m].norm) > std::fabs(strongest->values[m].norm)))
                strongest = &run;
        if (strongest)
            m_print << "   " << header.meritFunctions[m].name << ": most sensitive to " << strongest->description
                    << " (normalised " << realText(strongest->values[m].norm) << ")\n";
    }
    YArray<YString> csv;
    sp_BuildCsvSensitivityReport(&csv, table, header, 0);
    std::string csvText;
    for (const YString& line : csv)
        csvText.append(line.str()).push_back('\n');
    const std::string tornado = sensitivityTornadoSvg(table, header);
    loaded->section.charts = {tornado};
    loaded->section.links = {
        {"sensitivity.html", "Sensitivity report",
         "each run's merit function values, their deltas against the nominal run (case 1) and the normalised sensitivities"},
        {"sensitivity.csv", "Sensitivity table (CSV)", "the sensitivity report's columns, for a spreadsheet"},
        {"sensitivity_tornado.svg", "Tornado chart (SVG)", "the chart below, as a file of its own"}};
    return writeReport(QStringLiteral("sensitivity.html"), [&](const YString& temporary) {
               return sp_WriteSensitivityReportChecked(temporary, YString(), table, header, 4);
           }) &&
           writeText(QStringLiteral("sensitivity.csv"), csvText) && writeText(QStringLiteral("sensitivity_tornado.svg"), tornado);
}

bool Demo::monteCarlo()
{
    const QString path = input(QStringLiteral("results/buck_montecarlo.msw"));
    Loaded* loaded = load(path);
    if (!loaded)
        return false;
    const YHashTable<XMLReportInfo>& table = loaded->table;
    const XMLReportHeader& header = loaded->header;
    m_print << "4. Read the Monte Carlo results " << path << ": " << table.count() << " runs\n";
    for (int m = 0; m < header.meritFunctions.count(); ++m) {
        const MomentSummary s = sp_ComputeMeritStatistics(table, m, MeritLimits(), false).sample.moments();
        m_print << "   " << header.meritFunctions[m].name << ": mean " << realText(s.mean()) << ", standard deviation "
                << realText(s.standardDeviation()) << ", from " << realText(s.minimum()) << " to " << realText(s.maximum()) << '\n';
    }
    const std::string histogram = meritHistogramSvg(table, header);
    loaded->section.charts = {histogram};
    loaded->section.links = {
        {"montecarlo.html", "Monte Carlo log", "every run's merit function values, its random seed and the parameters it changed"},
        {"montecarlo_histogram.svg", "Histograms (SVG)", "the chart below, as a file of its own"}};
    return writeReport(QStringLiteral("montecarlo.html"), [&](const YString& temporary) {
               return sp_WriteMonteCarloLogChecked(temporary, YString(), table, header);
           }) &&
           writeText(QStringLiteral("montecarlo_histogram.svg"), histogram);
}

bool Demo::worstCase()
{
    const QString path = input(QStringLiteral("results/buck_worstcase.msw"));
    Loaded* loaded = load(path);
    if (!loaded)
        return false;
    const YHashTable<XMLReportInfo>& table = loaded->table;
    const XMLReportHeader& header = loaded->header;
    m_print << "5. Read the worst-case results " << path << ": " << table.count() << " runs\n";
    loaded->section.links = {
        {"worstcase.html", "Worst-case log", "every run's merit function values and the parameters it changed"}};
    return writeReport(QStringLiteral("worstcase.html"), [&](const YString& temporary) {
        return sp_WriteWorstCaseLogChecked(temporary, YString(), table, header);
    });
}

// One page that links everything the demo wrote, with the statistics and charts of each results file.
bool Demo::writeIndex()
{
    std::vector<HubSection> sections;
    for (const Loaded& loaded : m_loaded)
        sections.push_back(loaded.section);
    const bool ok = writeText(QStringLiteral("index.html"), reportHubPage("Buck converter: the demo's reports", sections));
    if (ok)
        m_print << "6. Wrote the page that links them all: " << m_out.filePath(QStringLiteral("index.html")) << '\n';
    return ok;
}

void Demo::finish()
{
    m_print << "Outputs are in " << m_out.absolutePath() << ":\n";
    for (const QString& name : m_written)
        m_print << "  " << name << '\n';
}

// The installed examples beside the tool's bin folder, or the source tree's in a build tree, so that
// an installed tool runs its demo after the source tree is gone.
QString defaultExamples()
{
    const QString installed = QDir(QCoreApplication::applicationDirPath())
                                  .filePath(QStringLiteral(SUPPORTQT_DATADIR_FROM_BINDIR "/SupportQtDll/examples"));
    if (QFileInfo::exists(installed + QStringLiteral("/netlists")))
        return QDir::cleanPath(installed);
    return QStringLiteral(SUPPORTQT_EXAMPLES_DIR);
}

} // namespace

int runDemo(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("demo"), QStringLiteral("[-o DIR] [--examples DIR]"),
                        QStringLiteral("Runs the library end to end on the bundled examples: reads a converter netlist, parses\n"
                                       "its switching-simulator statements and writes them back, reads sensitivity, Monte Carlo\n"
                                       "and worst-case results, and writes their HTML and CSV reports and SVG charts into DIR."));
    command.addOption({QStringLiteral("o"), QStringLiteral("output")}, QStringLiteral("Folder for the outputs (default ./demo-out)."),
                      QStringLiteral("DIR"), QStringLiteral("demo-out"));
    command.addOption({QStringLiteral("examples")}, QStringLiteral("Folder of the bundled examples."), QStringLiteral("DIR"),
                      defaultExamples());
    const int early = command.parse(arguments, 0, 0);
    if (early >= 0)
        return early;
    if (isStandardStream(command.value(QStringLiteral("output"))))
        return command.fail(ExitUsage, QStringLiteral("the demo writes a folder of files; name a folder for it"));
    const QString outDir = QDir(command.value(QStringLiteral("output"))).absolutePath();
    MadeFolders made;
    if (!made.make(outDir))
        return command.fail(ExitFailure, QStringLiteral("cannot create the folder %1").arg(outDir));
    Demo demo(command, QDir(command.value(QStringLiteral("examples"))), QDir(outDir));
    if (!demo.readNetlist() || !demo.sensitivity() || !demo.monteCarlo() || !demo.worstCase() || !demo.writeIndex())
        return ExitFailure;
    made.keep();
    demo.finish();
    return ExitOk;
}
