// ResultsCommands.cpp - `results`, `validate`, `append-merit` and `report`: a statistical results file
// summarised, checked against its schema, extended by a merit function, and turned into reports and charts.
#include "Charts.h"
#include "Commands.h"
#include "ReportHub.h"
#include "Tool.h"

#include "CheckedReports.h"
#include "MeritReplace.h"
#include "MswMerge.h"
#include "Reports.h"
#include "SchemaValidation.h"
#include "TextServices.h"
#include "XMLReport.h"
#include "YDom.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QHash>
#include <QXmlStreamReader>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSet>

#include <climits>
#include <cmath>
#include <cstring>
#include <string_view>

#include <algorithm>
#include <functional>
#include <vector>

namespace {

// Runs in a file, counted from its "<step" elements without parsing it; used only to decide whether
// reading is long enough to show progress.
long long countSteps(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || file.size() == 0)
        return 0;
    const uchar* data = file.map(0, file.size());
    if (!data)
        return 0;
    const std::string_view text(reinterpret_cast<const char*>(data), static_cast<size_t>(file.size()));
    long long count = 0;
    for (size_t at = text.find("<step"); at != std::string_view::npos; at = text.find("<step", at + 5)) {
        const char next = at + 5 < text.size() ? text[at + 5] : '\0';
        count += next == ' ' || next == '>' || next == '/' || next == '\t' || next == '\n' || next == '\r';
    }
    return count;
}

// Says on standard error where a "sensval" or "step" element of the file gives a case that is not a
// whole number (the reader takes it for case 0): the first such place and how many there are.
void warnOfCasesThatAreNoNumbers(const ToolCommand& command, const QString& shownPath, const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return;
    QXmlStreamReader reader(&file);
    static const QRegularExpression integer(QStringLiteral("^\\s*[+-]?[0-9]+\\s*$"));
    long long count = 0;
    QString first;
    qint64 firstLine = 0;
    while (!reader.atEnd()) {
        if (reader.readNext() != QXmlStreamReader::StartElement)
            continue;
        const QStringRef element = reader.name();
        if (element.compare(QLatin1String("sensval"), Qt::CaseInsensitive) != 0 &&
            element.compare(QLatin1String("step"), Qt::CaseInsensitive) != 0)
            continue;
        for (const QXmlStreamAttribute& attribute : reader.attributes()) {
            if (attribute.name().compare(QLatin1String("case"), Qt::CaseInsensitive) != 0 ||
                integer.match(attribute.value()).hasMatch())
                continue;
            if (count++ == 0) {
                first = attribute.value().toString();
                firstLine = reader.lineNumber();
            }
        }
    }
    if (count == 0)
        return;
    QString message = QStringLiteral("warning: %1 line %2: case \"%3\" is not a number and is read as case 0")
                          .arg(shownPath).arg(firstLine).arg(first);
    if (count > 1)
        message += QStringLiteral(" (%1 such cases in the file)").arg(count);
    command.warn(message);
}

// What in the results file `name` itself keeps it from loading: where its XML breaks, a version other
// than 1.0, or a case number past the range of an int; empty when it shows none of these. `*appends`
// tells whether it names files to append.
QString resultsFileFault(const QString& name, bool* appends)
{
    QFile file(name);
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("it cannot be read");
    // The reader takes no larger file, which is not read through here either.
    if (file.size() > YDomDocument::kMaxFileBytes)
        return QStringLiteral("it is larger than the %1 bytes a results file may have").arg(YDomDocument::kMaxFileBytes);
    QXmlStreamReader reader(&file);
    reader.setNamespaceProcessing(false); // the library reads names as written, prefixes and all
    bool atRoot = true;
    while (!reader.atEnd()) {
        if (reader.readNext() != QXmlStreamReader::StartElement)
            continue;
        const QXmlStreamAttributes attributes = reader.attributes();
        *appends = *appends || reader.name() == QLatin1String("append");
        if (atRoot) {
            atRoot = false;
            const QStringRef version = attributes.value(QLatin1String("version"));
            if (attributes.hasAttribute(QLatin1String("version")) && version.compare(QLatin1String("1.0"), Qt::CaseInsensitive) != 0)
                return QStringLiteral("it is version %1, not 1.0").arg(version.toString());
            continue;
        }
        bool isNumber = false;
        const qlonglong caseNumber = attributes.value(QLatin1String("case")).toLongLong(&isNumber);
        if (isNumber && (caseNumber < INT_MIN || caseNumber > INT_MAX))
            return QStringLiteral("line %1 has case %2, past the case numbers a run may have (%3 to %4)")
                .arg(reader.lineNumber())
                .arg(caseNumber)
                .arg(INT_MIN)
                .arg(INT_MAX);
    }
    if (reader.hasError())
        return QStringLiteral("it is not well-formed XML (line %1, column %2: %3)")
            .arg(reader.lineNumber())
            .arg(reader.columnNumber() + 1)
            .arg(reader.errorString());
    return QString();
}

// Why the library refused the results file `name`, which took the files `sources` (itself first, then
// the files it appends): the first fault found in them, or else what only the whole reading meets.
QString whyResultsDoNotLoad(const QString& name, const std::vector<YString>& sources)
{
    bool appends = false;
    QString fault = resultsFileFault(name, &appends);
    if (!fault.isEmpty())
        return fault;
    for (size_t i = 1; i < sources.size(); ++i) {
        const QString appended = toQs(sources[i]);
        if (!QFileInfo(appended).isFile())
            return QStringLiteral("the file it appends, %1, cannot be read").arg(appended);
        fault = resultsFileFault(appended, &appends);
        if (!fault.isEmpty())
            return QStringLiteral("the file it appends, %1, does not load: %2").arg(appended, fault);
    }
    // What is left the library does not tell apart from memory that ran out.
    if (appends)
        return QStringLiteral("with the files it appends it holds too few values for a table of its runs by its merit "
                              "functions, or those files append each other too deeply, or memory ran out");
    return QStringLiteral("it holds too few values for a table of its runs by its merit functions, or memory ran out");
}

// Reads a results file into `table` and `header`, and the files it appends into `*appended` (when not
// null); reports and returns false when it cannot be read or does not load.
bool loadResults(const ToolCommand& command, const QString& path, YHashTable<XMLReportInfo>* table,
                 XMLReportHeader* header, QStringList* appended = nullptr)
{
    QString name = path; // standard input ("-") becomes the file it was read into
    if (!command.input(&name))
        return false;
    // Only a regular file is read (a FIFO that no one writes would keep its open waiting).
    if (!QFileInfo(name).isFile()) {
        command.fail(ExitFailure, QStringLiteral("the results file %1 does not load: it is not a regular file").arg(path));
        return false;
    }
    // The library reads any XML whose root says version 1.0; the tool asks that it be a results file.
    {
        QFile file(name);
        if (file.open(QIODevice::ReadOnly)) {
            QXmlStreamReader reader(&file);
            while (!reader.atEnd() && !reader.isStartElement())
                reader.readNext();
            if (reader.isStartElement() && reader.name().compare(QLatin1String("msw"), Qt::CaseInsensitive) != 0) {
                command.fail(ExitFailure, QStringLiteral("%1: root element %2, expected msw").arg(path, reader.name().toString()));
                return false;
            }
        }
    }
    const long long steps = standardErrorIsTerminal() ? countSteps(name) : 0;
    {
        ProgressLine progress(QStringLiteral("reading %1 (%2 runs)").arg(path).arg(steps), steps > 10000);
        std::vector<YString> sources;
        const bool loaded = sp_CompileMswWithSources(toYs(name), table, header, &sources);
        // The first file the reader met is the results file itself.
        for (size_t i = 1; appended && i < sources.size(); ++i)
            *appended << toQs(sources[i]);
        if (!loaded) {
            command.fail(ExitFailure, QStringLiteral("the results file %1 does not load: %2").arg(path, whyResultsDoNotLoad(name, sources)));
            return false;
        }
    }
    // The reader takes a case number that is no number for case 0. A run of case 0 is rare, so only then
    // is the file read again to say which texts those were.
    XMLReportInfo probe(0);
    if (table->find(probe))
        warnOfCasesThatAreNoNumbers(command, path, name);
    return true;
}

// A run's sensitivity status: its short name (the JSON's) and its words (the text's). A norm that is not
// a number is never called valid, whatever status the computation gave it.
struct StatusText {
    const char* name;
    const char* words;
};

StatusText statusText(const XMLMeritValue& v)
{
    if (v.status == NormValid && !std::isfinite(v.norm))
        return {"not finite", "not finite"};
    switch (v.status) {
    case NormValid: return {"valid", "valid"};
    case NormDivByZero: return {"division by zero", "n/a: no parameter moved, or the value is 0"};
    case NormInconsistent: return {"inconsistent", "n/a: several parameters moved"};
    default: return {"unset", "not computed"};
    }
}

QJsonObject statisticsJson(const MeritStatistics& s)
{
    const MomentSummary& m = s.sample.moments();
    return QJsonObject{{QStringLiteral("count"), static_cast<qint64>(m.count())},
                       {QStringLiteral("nonFinite"), static_cast<qint64>(m.nonFiniteCount())},
                       {QStringLiteral("mean"), m.count() ? jsonReal(m.mean()) : QJsonValue(QJsonValue::Null)},
                       {QStringLiteral("stddev"), m.count() ? jsonReal(m.standardDeviation()) : QJsonValue(QJsonValue::Null)},
                       {QStringLiteral("min"), m.count() ? jsonReal(m.minimum()) : QJsonValue(QJsonValue::Null)},
                       {QStringLiteral("max"), m.count() ? jsonReal(m.maximum()) : QJsonValue(QJsonValue::Null)},
                       {QStringLiteral("skewness"), jsonReal(m.skewness())},
                       {QStringLiteral("kurtosis"), jsonReal(m.excessKurtosis())},
                       {QStringLiteral("nominal"), s.hasNominal ? jsonReal(s.nominal) : QJsonValue(QJsonValue::Null)}};
}

QString defaultSchema()
{
    const QString installed = QDir(QCoreApplication::applicationDirPath())
                                  .filePath(QStringLiteral(SUPPORTQT_DATADIR_FROM_BINDIR "/SupportQtDll/schemas/msw.xsd"));
    if (QFileInfo::exists(installed))
        return QDir::cleanPath(installed);
    return QStringLiteral(SUPPORTQT_SOURCE_SCHEMA_DIR "/msw.xsd");
}

} // namespace

bool loadResultsFile(const ToolCommand& command, const QString& path, YHashTable<XMLReportInfo>* table,
                     XMLReportHeader* header, QStringList* appended)
{
    return loadResults(command, path, table, header, appended);
}

bool checkNotAppended(const ToolCommand& command, const QString& output, const QStringList& appended)
{
    for (const QString& file : appended)
        if (sameExistingFile(output, file)) {
            command.fail(ExitUsage, QStringLiteral("%1 is a file that the results file appends; name another output").arg(output));
            return false;
        }
    return true;
}

namespace {

// What `results` reports about a results file, gathered once and then printed as text or as JSON.
struct ResultsSummary {
    QString path;
    const XMLReportHeader* header = nullptr;
    std::vector<const XMLReportInfo*> runs; ///< by case number
    QStringList parameterNames;             ///< every run's parameters, in the order first met
    std::vector<MeritStatistics> merits;    ///< the statistics of each merit function of the header
};

ResultsSummary summariseResults(const QString& path, const YHashTable<XMLReportInfo>& table, const XMLReportHeader& header)
{
    ResultsSummary summary;
    summary.path = path;
    summary.header = &header;
    summary.runs = sp_RunsInCaseOrder(table);
    QSet<QString> seen;
    for (const XMLReportInfo* run : summary.runs)
        for (int p = 0; p < run->parameters.count(); ++p) {
            const QString name = toQs(run->parameters[p].name);
            if (!seen.contains(name)) {
                seen.insert(name);
                summary.parameterNames << name;
            }
        }
    // In one call, so that merit functions whose extremes are the same run share its deviations.
    summary.merits = sp_ComputeRunStatistics(table, header, {}, false);
    return summary;
}

QJsonObject runJson(const XMLReportInfo& run)
{
    QJsonArray values, parameters;
    for (int m = 0; m < run.values.count(); ++m) {
        const XMLMeritValue& v = run.values[m];
        values.append(QJsonObject{{QStringLiteral("value"), jsonReal(v.value)},
                                  {QStringLiteral("delta"), jsonReal(v.delta)},
                                  {QStringLiteral("norm"), jsonReal(v.norm)},
                                  {QStringLiteral("status"), QString::fromLatin1(statusText(v).name)}});
    }
    for (int p = 0; p < run.parameters.count(); ++p) {
        const XMLParameterValue& v = run.parameters[p];
        QJsonObject o{{QStringLiteral("name"), toQs(v.name)},
                      {QStringLiteral("nominal"), jsonReal(v.nominal)},
                      {QStringLiteral("used"), jsonReal(v.usedValue)}};
        if (v.hasTolerance)
            o.insert(QStringLiteral("tolerance"), jsonReal(v.tolerance));
        parameters.append(o);
    }
    QJsonObject o{{QStringLiteral("case"), run.caseNumber},
                  {QStringLiteral("name"), toQs(run.name)},
                  {QStringLiteral("description"), toQs(run.description)},
                  {QStringLiteral("values"), values},
                  {QStringLiteral("parameters"), parameters}};
    if (run.hasSeed)
        o.insert(QStringLiteral("seed"), QString::number(run.seed));
    return o;
}

QJsonObject resultsJson(const ResultsSummary& summary, const std::vector<const XMLReportInfo*>& runs, bool withRuns)
{
    const XMLReportHeader& header = *summary.header;
    QJsonArray meritArray;
    for (int m = 0; m < header.meritFunctions.count(); ++m)
        meritArray.append(QJsonObject{{QStringLiteral("name"), toQs(header.meritFunctions[m].name)},
                                      {QStringLiteral("value"), toQs(header.meritFunctions[m].value)},
                                      {QStringLiteral("statistics"), statisticsJson(summary.merits[m])}});
    QJsonObject out{{QStringLiteral("file"), summary.path},
                    {QStringLiteral("header"), QJsonObject{{QStringLiteral("title"), toQs(header.title)},
                                                           {QStringLiteral("date"), toQs(header.date)},
                                                           {QStringLiteral("analysis"), toQs(header.analysis)},
                                                           {QStringLiteral("group"), toQs(header.group)},
                                                           {QStringLiteral("cores"), header.numCores}}},
                    {QStringLiteral("runCount"), static_cast<int>(summary.runs.size())},
                    {QStringLiteral("meritFunctions"), meritArray},
                    {QStringLiteral("parameters"), QJsonArray::fromStringList(summary.parameterNames)}};
    if (withRuns) {
        QJsonArray runArray;
        for (const XMLReportInfo* run : runs)
            runArray.append(runJson(*run));
        out.insert(QStringLiteral("runs"), runArray);
    }
    return out;
}

// How the text output writes reals: engineering notation with a number of significant digits, or every
// digit (the shortest text that reads back to the same double).
struct NumberStyle {
    int digits = 6;
    bool exact = false;

    std::string operator()(double value) const
    {
        return exact ? realText(value) : sp_ConvertRealToJSEng(value, digits, false).str();
    }
    // A statistic in the summary table; "n/a" when it is not a number.
    std::string cell(double value) const { return std::isnan(value) ? std::string("n/a") : (*this)(value); }
};

// The header, the table of merit statistics (its columns as wide as their widest cell, so that the
// default digits keep it within 120 columns), the definitions, and the chosen runs.
void printResults(const ResultsSummary& summary, const std::vector<const XMLReportInfo*>& runs, bool runsAsked,
                  const NumberStyle& number)
{
    const XMLReportHeader& header = *summary.header;
    Output out;
    out << "file: " << summary.path << '\n'
        << "title: " << header.title << '\n'
        << "date: " << header.date << '\n'
        << "analysis: " << header.analysis << '\n'
        << "group: " << header.group << '\n'
        << "cores: " << header.numCores << '\n'
        << "runs: " << static_cast<int>(summary.runs.size()) << '\n'
        << "parameters: " << summary.parameterNames.join(QStringLiteral(", ")) << "\n\nmerit functions:\n";
    std::vector<std::vector<std::string>> rows{{"name", "count", "mean", "stddev", "min", "max", "skewness", "kurtosis", "nominal"}};
    for (int m = 0; m < header.meritFunctions.count(); ++m) {
        const MeritStatistics& s = summary.merits[static_cast<size_t>(m)];
        const MomentSummary& ms = s.sample.moments();
        std::vector<std::string> row{header.meritFunctions[m].name.str(), std::to_string(ms.count())};
        for (double v : {ms.mean(), ms.standardDeviation(), ms.minimum(), ms.maximum(), ms.skewness(), ms.excessKurtosis()})
            row.push_back(ms.count() ? number.cell(v) : std::string("n/a"));
        row.push_back(s.hasNominal ? number.cell(s.nominal) : std::string("n/a"));
        rows.push_back(row);
    }
    std::vector<int> widths(rows[0].size(), 0);
    for (const auto& row : rows)
        for (size_t c = 0; c < row.size(); ++c)
            widths[c] = std::max(widths[c], static_cast<int>(row[c].size()));
    for (const auto& row : rows) {
        for (size_t c = 0; c < row.size(); ++c) {
            if (c > 0)
                out << "  ";
            // Names left-aligned, numbers right-aligned, the last column without trailing blanks.
            if (c == 0)
                out.pad(row[c], c + 1 == row.size() ? 0 : widths[c]);
            else
                out.pad(row[c], -widths[c]);
        }
        out << '\n';
    }
    out << "\ndefinitions:\n";
    for (int m = 0; m < header.meritFunctions.count(); ++m) {
        out << "  ";
        out.pad(header.meritFunctions[m].name.str(), widths[0]) << "  " << header.meritFunctions[m].value << '\n';
    }
    if (!runsAsked) {
        if (!summary.runs.empty())
            out << "\n(each run's values: --runs, or --runs=CASE,... for some)\n";
        return;
    }
    out << "\nruns (norm is the run's normalised sensitivity to the parameter it moved; a run that moved several\n"
           "parameters at once, as every Monte Carlo run does, has none, shown as n/a):\n";
    for (const XMLReportInfo* run : runs) {
        out << "case " << run->caseNumber << ": " << (run->description.isEmpty() ? run->name : run->description);
        if (run->hasSeed)
            out << "  seed " << run->seed;
        out << '\n';
        for (int m = 0; m < run->values.count(); ++m) {
            const XMLMeritValue& v = run->values[m];
            out << "  ";
            out.pad(header.meritFunctions[m].name.str(), widths[0]) << "  value " << number(v.value) << "  delta "
                                                                    << number(v.delta) << "  norm " << number(v.norm)
                                                                    << "  " << statusText(v).words << '\n';
        }
        for (int p = 0; p < run->parameters.count(); ++p) {
            const XMLParameterValue& v = run->parameters[p];
            out << "  parameter " << v.name << " nominal " << number(v.nominal) << " used " << number(v.usedValue);
            if (v.hasTolerance)
                out << " tolerance " << number(v.tolerance);
            out << '\n';
        }
    }
}

// One row per run for spreadsheets and data frames: case, seed, description, each merit function's value
// and each parameter's used value by name. Cells a run lacks are empty (CSV) or absent (JSON).
void printRunTable(const ResultsSummary& summary, const std::vector<const XMLReportInfo*>& runs, bool json)
{
    const XMLReportHeader& header = *summary.header;
    // Two merit functions may share a display name; each keeps a column and a JSON member of its own.
    const QStringList keys = meritKeys(header);
    if (json) {
        QJsonArray rows;
        for (const XMLReportInfo* run : runs) {
            QJsonObject values, parameters;
            for (int m = 0; m < run->values.count() && m < header.meritFunctions.count(); ++m)
                values.insert(keys.at(m), jsonReal(run->values[m].value));
            for (int p = 0; p < run->parameters.count(); ++p)
                if (!parameters.contains(toQs(run->parameters[p].name)))
                    parameters.insert(toQs(run->parameters[p].name), jsonReal(run->parameters[p].usedValue));
            QJsonObject row{{QStringLiteral("case"), run->caseNumber},
                            {QStringLiteral("description"), toQs(run->description.isEmpty() ? run->name : run->description)},
                            {QStringLiteral("values"), values},
                            {QStringLiteral("parameters"), parameters}};
            // As text, as the run listing gives it: a JSON number is a double, which loses seeds beyond 2^53.
            row.insert(QStringLiteral("seed"), run->hasSeed ? QJsonValue(QString::number(run->seed)) : QJsonValue());
            rows.append(row);
        }
        printJson(QJsonObject{{QStringLiteral("file"), summary.path}, {QStringLiteral("runs"), rows}});
        return;
    }
    Output out;
    out << "case,seed,description";
    for (int m = 0; m < header.meritFunctions.count(); ++m)
        out << ',' << csvField(keys.at(m).toStdString());
    for (const QString& name : summary.parameterNames)
        out << ',' << csvField(name.toStdString());
    out << '\n';
    // Each run's parameters are put in their columns once, the first of a name winning: a file of many
    // runs that each vary parameters of their own has as many columns as runs.
    QHash<QString, int> columnOf;
    for (int c = 0; c < summary.parameterNames.size(); ++c)
        columnOf.insert(summary.parameterNames.at(c), c);
    std::vector<int> parameterIn(static_cast<size_t>(summary.parameterNames.size()), -1);
    std::vector<int> filled;
    for (const XMLReportInfo* run : runs) {
        out << run->caseNumber << ',';
        if (run->hasSeed)
            out << std::to_string(run->seed);
        out << ',' << csvField((run->description.isEmpty() ? run->name : run->description).str());
        for (int m = 0; m < header.meritFunctions.count(); ++m) {
            out << ',';
            if (m < run->values.count())
                out << realText(run->values[m].value);
        }
        for (int p = 0; p < run->parameters.count(); ++p) {
            const int column = columnOf.value(toQs(run->parameters[p].name), -1);
            if (column >= 0 && parameterIn[static_cast<size_t>(column)] < 0) {
                parameterIn[static_cast<size_t>(column)] = p;
                filled.push_back(column);
            }
        }
        for (const int p : parameterIn) {
            out << ',';
            if (p >= 0)
                out << realText(run->parameters[p].usedValue);
        }
        for (const int column : filled)
            parameterIn[static_cast<size_t>(column)] = -1;
        filled.clear();
        out << '\n';
        // The table goes out as it is made, a megabyte at a time, not held whole.
        if (out.pending() >= (size_t(1) << 20))
            out.flush();
    }
}

} // namespace

int runResults(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("results"), QStringLiteral("FILE [--runs[=CASE,...]] [--precision N | --exact] [--json] [--table csv|json]"),
                        QStringLiteral("Summarises a statistical results file: the header and the merit functions with their\n"
                                       "statistics across runs (count, mean, standard deviation, minimum, maximum, skewness,\n"
                                       "excess kurtosis, nominal value). With --runs, every run (or the runs named) with its\n"
                                       "values, deltas, normalised sensitivities, statuses and changed parameters. Reals are\n"
                                       "shown in engineering notation with 6 significant digits; --json keeps every digit."));
    command.addOption({QStringLiteral("runs")}, QStringLiteral("Show each run too; --runs=1,5,9 shows those cases."));
    command.addOption({QStringLiteral("stats-only")}, QStringLiteral("Leave out the runs (the default)."));
    command.addOption({QStringLiteral("precision")}, QStringLiteral("Significant digits of the reals shown, 1 to 17."),
                      QStringLiteral("N"), QStringLiteral("6"));
    command.addOption({QStringLiteral("exact")}, QStringLiteral("Show every digit of the reals (the shortest text that reads back exactly)."));
    command.addOption({QStringLiteral("table")}, QStringLiteral("One row per run instead: case, seed, description, each merit "
                                                                "function and each parameter's used value by name, as csv or json."),
                      QStringLiteral("FORMAT"));
    command.addJsonOption();
    // "--runs=LIST" is one option with an optional value, which the parser has no form for: the parser
    // takes it as --runs, and its list is kept here.
    QStringList parsed;
    QStringList runLists;
    for (const QString& argument : arguments) {
        if (argument.startsWith(QLatin1String("--runs="))) {
            parsed << QStringLiteral("--runs");
            runLists << argument;
        } else {
            parsed << argument;
        }
    }
    if (runLists.size() > 1 && !arguments.contains(QStringLiteral("--help")) && !arguments.contains(QStringLiteral("--help-all")))
        return command.fail(ExitUsage, QStringLiteral("--runs= is given more than once ('%1', then '%2'); give it once")
                                           .arg(runLists.at(0), runLists.at(1)));
    const int early = command.parse(parsed, 1, 1);
    if (early >= 0)
        return early;
    // Options the help shows as alternatives, or that the chosen output would leave unused, are refused.
    if (command.isSet(QStringLiteral("stats-only")) && command.isSet(QStringLiteral("runs")))
        return command.fail(ExitUsage, QStringLiteral("give --runs or --stats-only, not both"));
    if (command.isSet(QStringLiteral("exact")) && command.isSet(QStringLiteral("precision")))
        return command.fail(ExitUsage, QStringLiteral("give --precision N or --exact, not both"));
    if (command.isSet(QStringLiteral("table")) && command.json())
        return command.fail(ExitUsage, QStringLiteral("give --table FORMAT or --json, not both (--table json prints the runs as JSON)"));
    // The table and the JSON keep every digit, so a precision would be ignored.
    for (const char* digits : {"precision", "exact"})
        if (command.isSet(QLatin1String(digits)) && (command.isSet(QStringLiteral("table")) || command.json()))
            return command.fail(ExitUsage, QStringLiteral("--%1 shapes the text summary; --table and --json keep every digit")
                                               .arg(QLatin1String(digits)));
    NumberStyle number;
    long long digits = 6;
    if (!command.intValue(QStringLiteral("precision"), &digits))
        return ExitUsage;
    if (digits < 1 || digits > 17)
        return command.fail(ExitUsage, QStringLiteral("--precision must lie between 1 and 17"));
    number.digits = static_cast<int>(digits);
    number.exact = command.isSet(QStringLiteral("exact"));
    QList<int> wanted;
    if (!runLists.isEmpty()) {
        for (const QString& item : runLists.first().mid(7).split(QLatin1Char(','), Qt::SkipEmptyParts)) {
            bool ok = false;
            const int caseNumber = item.trimmed().toInt(&ok);
            if (!ok)
                return command.fail(ExitUsage, QStringLiteral("--runs takes case numbers separated by commas, not \"%1\"").arg(item));
            wanted << caseNumber;
        }
        if (wanted.isEmpty())
            return command.fail(ExitUsage, QStringLiteral("--runs= names no case"));
    }
    const QString tableFormat = command.value(QStringLiteral("table"));
    if (command.isSet(QStringLiteral("table")) && tableFormat != QLatin1String("csv") && tableFormat != QLatin1String("json"))
        return command.fail(ExitUsage, QStringLiteral("--table takes csv or json, not \"%1\"").arg(tableFormat));
    const QString path = command.positional().at(0);
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    if (!loadResults(command, path, &table, &header))
        return command.inputFailure();
    const bool withRuns = command.isSet(QStringLiteral("runs")) && !command.isSet(QStringLiteral("stats-only"));
    const ResultsSummary summary = summariseResults(path, table, header);
    std::vector<const XMLReportInfo*> runs;
    for (const XMLReportInfo* run : summary.runs)
        if (wanted.isEmpty() || wanted.contains(run->caseNumber))
            runs.push_back(run);
    for (int caseNumber : wanted)
        if (std::none_of(runs.begin(), runs.end(), [&](const XMLReportInfo* r) { return r->caseNumber == caseNumber; }))
            return command.fail(ExitFailure, QStringLiteral("%1 has no case %2").arg(path).arg(caseNumber));
    if (command.isSet(QStringLiteral("table")))
        printRunTable(summary, runs, command.value(QStringLiteral("table")) == QLatin1String("json"));
    else if (command.json())
        printJson(resultsJson(summary, runs, withRuns));
    else
        printResults(summary, runs, withRuns, number);
    return ExitOk;
}

int runValidate(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("validate"), QStringLiteral("FILE [--schema XSD] [--json]"),
                        QStringLiteral("Checks an XML file against an XML Schema, by default the results file schema installed\n"
                                       "with the library. Exits with 0 when the file is valid and 3 when it is not; the fault\n"
                                       "is given as FILE:LINE:COLUMN: as compilers and xmllint give it."));
    command.addOption({QStringLiteral("schema")}, QStringLiteral("The XML Schema file."), QStringLiteral("XSD"), defaultSchema());
    command.addJsonOption();
    const int early = command.parse(arguments, 1, 1);
    if (early >= 0)
        return early;
    const QString given = command.positional().at(0);
    const QString givenSchema = command.value(QStringLiteral("schema"));
    QString path = given;
    QString schema = givenSchema;
    if (!command.input(&path) || !command.input(&schema))
        return command.inputFailure();
    XmlValidationMessage message;
    const XmlValidateStatus status = sp_ValidateXmlWithLocation(toYs(path), toYs(schema), &message);
    const char* verdict = status == XmlValidateOk ? "valid"
        : status == XmlValidateInvalid              ? "not valid"
        : status == XmlValidateBadSchema            ? "bad schema"
                                                    : "cannot open";
    const int code = status == XmlValidateOk ? ExitOk : status == XmlValidateInvalid ? ExitNegative : ExitFailure;
    // The file the message is about, by the name it was given on the command line ("-" for standard input).
    QString where = toQs(message.file);
    if (where == path)
        where = given;
    else if (where == schema)
        where = givenSchema;
    if (command.json()) {
        printJson(QJsonObject{{QStringLiteral("file"), given},
                              {QStringLiteral("schema"), givenSchema},
                              {QStringLiteral("status"), static_cast<int>(status)},
                              {QStringLiteral("verdict"), QString::fromLatin1(verdict)},
                              {QStringLiteral("message"), toQs(message.text)},
                              {QStringLiteral("at"), where.isEmpty() ? QJsonValue() : QJsonValue(where)},
                              {QStringLiteral("line"), message.line > 0 ? QJsonValue(message.line) : QJsonValue()},
                              {QStringLiteral("column"), message.column > 0 ? QJsonValue(message.column) : QJsonValue()}});
        return code;
    }
    // FILE:LINE:COLUMN as compilers and xmllint place a message; as much of it as the validator gave.
    QString place = where;
    if (!place.isEmpty() && message.line > 0) {
        place += QStringLiteral(":%1").arg(message.line);
        if (message.column > 0)
            place += QStringLiteral(":%1").arg(message.column);
    }
    if (status == XmlValidateOk || status == XmlValidateInvalid) {
        Output out;
        if (status == XmlValidateInvalid && !place.isEmpty())
            out << place << ": " << verdict;
        else
            out << given << ": " << verdict;
        if (!message.text.isEmpty())
            out << ": " << message.text;
        out << '\n';
        return code;
    }
    // Without a place, the message is about the file that could not be opened, or else the schema.
    const QString about = status == XmlValidateNoXmlFile ? given : givenSchema;
    return command.fail(code, QStringLiteral("%1: %2").arg(place.isEmpty() ? about : place, toQs(message.text)));
}

int runAppendMerit(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("append-merit"), QStringLiteral("FILE --value TEXT --name NAME --data CSV [--replace]"),
                        QStringLiteral("Adds a merit function to a results file: its defining text, its name, and one value per\n"
                                       "run read from a CSV file of \"case,value\" lines (values as the library reads numbers,\n"
                                       "1.5k is 1500; a first line whose first field is not a number is a header). A name the\n"
                                       "file has already is refused unless --replace, which gives that merit function the new\n"
                                       "text and values in its place. The file is rewritten whole, or left as it was when\n"
                                       "anything is wrong."));
    command.addOption({QStringLiteral("value")}, QStringLiteral("Defining text of the merit function."), QStringLiteral("TEXT"));
    command.addOption({QStringLiteral("name")}, QStringLiteral("Display name of the merit function."), QStringLiteral("NAME"));
    command.addOption({QStringLiteral("data")}, QStringLiteral("CSV file of case,value lines."), QStringLiteral("CSV"));
    command.addOption({QStringLiteral("replace")}, QStringLiteral("Replace the merit function of that name if the file has one."));
    const int early = command.parse(arguments, 1, 1);
    if (early >= 0)
        return early;
    for (const char* required : {"value", "name", "data"})
        if (!command.isSet(QLatin1String(required)))
            return command.fail(ExitUsage, QStringLiteral("--%1 is required").arg(QLatin1String(required)));
    // A results file cannot hold control characters other than tab, line feed and carriage return: its
    // writer would leave them out, and the merit function would not have the name or text given.
    for (const char* text : {"value", "name"}) {
        const QString given = command.value(QLatin1String(text));
        if (std::any_of(given.begin(), given.end(), [](QChar c) { return c < QLatin1Char(' ') && c != QLatin1Char('\t') && c != QLatin1Char('\n') && c != QLatin1Char('\r'); }))
            return command.fail(ExitUsage, QStringLiteral("--%1 holds a control character, which a results file cannot hold").arg(QLatin1String(text)));
    }
    const QString path = command.positional().at(0);
    if (isStandardStream(path))
        return command.fail(ExitUsage, QStringLiteral("append-merit rewrites the results file; standard input cannot be rewritten"));
    QString dataPath = command.value(QStringLiteral("data"));
    if (!command.input(&dataPath))
        return command.inputFailure();
    QFile data(dataPath);
    if (!data.open(QIODevice::ReadOnly))
        return command.fail(ExitFailure, QStringLiteral("cannot read %1").arg(dataPath));
    YVector<double> values;
    YVector<int> cases;
    int lineNumber = 0;
    QSet<int> given;
    // As much as a text may be: 512 MiB of a file, 64 MiB of a pipe or device (which may never end).
    const qint64 limit = QFileInfo(dataPath).isFile() ? qint64(512) << 20 : qint64(64) << 20;
    QByteArray text = data.read(limit + 1);
    if (text.size() > limit)
        return command.fail(ExitFailure, QStringLiteral("%1 is larger than %2 MiB").arg(dataPath).arg(limit >> 20));
    if (text.startsWith("\xEF\xBB\xBF"))
        text.remove(0, 3); // a UTF-8 byte-order mark is no part of the first field
    for (const QByteArray& raw : text.split('\n')) {
        ++lineNumber;
        const QByteArray line = raw.trimmed();
        if (line.isEmpty())
            continue;
        const QList<QByteArray> fields = line.split(',');
        bool caseOk = false;
        const int caseNumber = fields.value(0).trimmed().toInt(&caseOk);
        // The value as the library reads numbers, engineering suffixes included, and nothing after it.
        const QByteArray valueText = fields.value(1).trimmed();
        char* end = nullptr;
        const double value = valueText.isEmpty() ? 0.0 : sp_ConvertEngToReal(valueText.constData(), &end);
        const bool valueOk = fields.size() == 2 && !valueText.isEmpty() && end == valueText.constData() + valueText.size();
        // A number beyond the range of a double would be stored as an infinity, which the file holds as no
        // number at all.
        if (caseOk && valueOk && !std::isfinite(value))
            return command.fail(ExitFailure, QStringLiteral("%1 line %2: %3 is beyond the range of a number")
                                                 .arg(dataPath).arg(lineNumber).arg(QString::fromUtf8(valueText)));
        if (!caseOk || !valueOk) {
            // Only a first line whose first field is not a number at all is a header: "1.0" or a case
            // beyond an int is a number, and an error.
            const QByteArray first = fields.value(0).trimmed();
            char* firstEnd = nullptr;
            sp_ConvertEngToReal(first.constData(), &firstEnd);
            if (lineNumber == 1 && firstEnd == first.constData())
                continue;
            return command.fail(ExitFailure, QStringLiteral("%1 line %2: expected \"case,value\", found \"%3\"")
                                                 .arg(dataPath).arg(lineNumber).arg(QString::fromUtf8(line)));
        }
        if (given.contains(caseNumber))
            return command.fail(ExitFailure, QStringLiteral("%1 line %2: case %3 is given twice").arg(dataPath).arg(lineNumber).arg(caseNumber));
        given.insert(caseNumber);
        cases.append(caseNumber);
        values.append(value);
    }

    // A file of no values would give every run the value 0: that is a mistake, not a merit function.
    if (cases.count() == 0)
        return command.fail(ExitFailure, QStringLiteral("%1 gives no \"case,value\" line; %2 is as it was").arg(dataPath, path));
    // The library's own checks, made here first so that a refusal says which case is wrong.
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    if (!loadResults(command, path, &table, &header) || !command.checkOutput(path))
        return command.inputFailure();
    bool present = false;
    for (int m = 0; m < header.meritFunctions.count(); ++m)
        present = present || header.meritFunctions[m].name == toYs(command.value(QStringLiteral("name")));
    const bool replace = present && command.isSet(QStringLiteral("replace"));
    if (present && !replace)
        return command.fail(ExitFailure, QStringLiteral("%1 already has a merit function named %2; --replace replaces it")
                                             .arg(path, command.value(QStringLiteral("name"))));
    for (int k = 0; k < cases.count(); ++k) {
        XMLReportInfo probe(cases[k]);
        const XMLReportInfo* run = table.find(probe);
        if (!run)
            return command.fail(ExitFailure, QStringLiteral("case %1 is not in %2").arg(cases[k]).arg(path));
        if (run->values.count() != header.meritFunctions.count())
            return command.fail(ExitFailure, QStringLiteral("case %1 of %2 lacks a value of an earlier merit function").arg(cases[k]).arg(path));
    }
    const YString value = toYs(command.value(QStringLiteral("value")));
    const YString name = toYs(command.value(QStringLiteral("name")));
    if (!(replace ? sp_ReplaceMeritData(toYs(path), value, name, values, cases)
                  : sp_AppendMeritData(toYs(path), value, name, values, cases)))
        return command.fail(ExitFailure, QStringLiteral("cannot write %1; it is as it was").arg(path));
    Output out;
    out << (replace ? "replaced merit function " : "added merit function ") << command.value(QStringLiteral("name")) << " with "
        << cases.count() << (cases.count() == 1 ? " value " : " values ") << (replace ? "in " : "to ") << path << '\n';
    // Runs the CSV gave no value are said, not hidden: the library stores 0 for them.
    std::vector<int> missing;
    for (const XMLReportInfo& run : table)
        if (!given.contains(run.caseNumber))
            missing.push_back(run.caseNumber);
    if (!missing.empty()) {
        std::sort(missing.begin(), missing.end());
        out << static_cast<long long>(missing.size()) << (missing.size() == 1 ? " run has" : " runs have") << " no value in " << shownPath(dataPath)
            << " and read 0:";
        for (size_t k = 0; k < missing.size() && k < 5; ++k)
            out << ' ' << missing[k];
        out << (missing.size() > 5 ? " ...\n" : "\n");
    }
    return ExitOk;
}

// The names of the sensitivity report's columns, in column order: "case", "reference", then each merit
// function's value, delta and norm as NAME, NAME.delta and NAME.norm (its defining text where it has no name).
QStringList sensitivityColumnNames(const XMLReportHeader& header)
{
    QStringList names{QStringLiteral("case"), QStringLiteral("reference")};
    for (int m = 0; m < header.meritFunctions.count(); ++m) {
        const XMLMeritFunction& merit = header.meritFunctions[m];
        const QString name = toQs(merit.name.isEmpty() ? merit.value : merit.name);
        names << name << name + QStringLiteral(".delta") << name + QStringLiteral(".norm");
    }
    return names;
}

// True when the analysis statement of the results starts with `keyword` (".mc", ".wc", ".sens").
bool analysisIs(const XMLReportHeader& header, const char* keyword)
{
    const QString analysis = toQs(header.analysis).trimmed();
    const int length = static_cast<int>(std::strlen(keyword));
    return analysis.startsWith(QLatin1String(keyword), Qt::CaseInsensitive) &&
           (analysis.size() == length || analysis.at(length).isSpace());
}

// True when the results come from a Monte Carlo analysis, whose runs each move every parameter at once.
bool isMonteCarlo(const XMLReportHeader& header)
{
    return analysisIs(header, ".mc");
}

// The first place, in case order, where the results hold text with one of `characters` among the texts
// a report of the library writes as they are: the merit functions' definitions and the runs'
// descriptions in every report, the title, date and analysis in the logs (`logTexts`), the parameters'
// names in the HTML reports (`parameterNames`). Empty when there is none.
QString unescapedTextPlace(const YHashTable<XMLReportInfo>& table, const XMLReportHeader& header, const char* characters,
                           bool logTexts, bool parameterNames)
{
    const auto holds = [&](const YString& text) { return std::strpbrk(text.c_str(), characters) != nullptr; };
    if (logTexts) {
        const std::pair<const char*, const YString*> fields[] = {
            {"the title", &header.title}, {"the date", &header.date}, {"the analysis", &header.analysis}};
        for (const auto& field : fields)
            if (holds(*field.second))
                return QString::fromLatin1(field.first);
    }
    for (int m = 0; m < header.meritFunctions.count(); ++m)
        if (holds(header.meritFunctions[m].value))
            return QStringLiteral("the definition of merit function %1").arg(m + 1);
    // The run of the smallest case number that holds such a text, found in one pass over the runs.
    const XMLReportInfo* first = nullptr;
    bool inDescription = false;
    for (const XMLReportInfo& run : table) {
        if (first && run.caseNumber >= first->caseNumber)
            continue;
        bool inName = false;
        for (int p = 0; parameterNames && !inName && p < run.parameters.count(); ++p)
            inName = holds(run.parameters[p].name);
        if (holds(run.description) || inName) {
            first = &run;
            inDescription = holds(run.description);
        }
    }
    if (!first)
        return QString();
    return inDescription ? QStringLiteral("the description of case %1").arg(first->caseNumber)
                         : QStringLiteral("a parameter's name in case %1").arg(first->caseNumber);
}

// Warns where a report of the library writes text as it is that it would need to escape: in HTML "<"
// and "&", which a browser reads as markup, and in CSV a double quote or a line break, which end a field
// or a row where a CSV reader would not. `logs` says whether the HTML is a log, which shows the header.
void warnOfUnescapedText(const ToolCommand& command, const QString& results, const YHashTable<XMLReportInfo>& table,
                         const XMLReportHeader& header, bool csv, bool logs)
{
    const QString place = csv ? unescapedTextPlace(table, header, "\"\r\n", false, false) : unescapedTextPlace(table, header, "<&", logs, true);
    if (place.isEmpty())
        return;
    command.warn(csv ? QStringLiteral("warning: %1 of %2 holds a double quote or a line break, which the CSV report writes as it is: "
                                      "its fields are not well-formed there")
                           .arg(place, results)
                     : QStringLiteral("warning: %1 of %2 holds '<' or '&', which the HTML report writes as it is: a browser reads "
                                      "it as markup there")
                           .arg(place, results));
}

// The sensitivity report as CSV lines, one text.
std::string sensitivityCsv(const YHashTable<XMLReportInfo>& table, const XMLReportHeader& header, int sort)
{
    YArray<YString> lines;
    sp_BuildCsvSensitivityReport(&lines, table, header, sort);
    std::string text;
    for (const YString& line : lines)
        text.append(line.str()).push_back('\n');
    return text;
}

// `report all`: into the folder `dir`, the logs that the analysis calls for (both when it names neither
// Monte Carlo nor worst case), the sensitivity report as HTML and CSV, and index.html, which shows the
// header, the run statistics and the charts and links to the others.
int writeReportFolder(const ToolCommand& command, const QString& resultsPath, const QStringList& appended,
                      const YHashTable<XMLReportInfo>& table, const XMLReportHeader& header, const QString& dir,
                      const YString& styleSheet, int sort, const ChartOptions& charts, bool force)
{
    if (isStandardStream(dir))
        return command.fail(ExitUsage, QStringLiteral("report all writes several files; name a folder for them"));
    if (QFileInfo(dir).exists() && !QFileInfo(dir).isDir())
        return command.fail(ExitFailure, QStringLiteral("%1 is a file, not a folder").arg(dir));
    MadeFolders made;
    if (!made.make(dir))
        return command.fail(ExitFailure, QStringLiteral("cannot create the folder %1").arg(dir));
    const bool monteCarlo = isMonteCarlo(header);
    const bool worstCase = analysisIs(header, ".wc");
    const bool sensitivity = analysisIs(header, ".sens");
    const bool bothLogs = !monteCarlo && !worstCase && !sensitivity;

    struct Written {
        QString name;
        HubLink link;
        std::function<bool(const YString&)> write;
    };
    std::vector<Written> files;
    const auto html = [&](const char* name, const char* label, const char* what, std::function<bool(const YString&)> write) {
        files.push_back({QLatin1String(name), HubLink{name, label, what}, std::move(write)});
    };
    if (monteCarlo || bothLogs)
        html("montecarlo.html", "Monte Carlo log", "every run's merit function values, its random seed and the parameters it changed",
             [&](const YString& temporary) { return sp_WriteMonteCarloLogChecked(temporary, styleSheet, table, header); });
    if (worstCase || bothLogs)
        html("worstcase.html", "Worst-case log", "every run's merit function values and the parameters it changed",
             [&](const YString& temporary) { return sp_WriteWorstCaseLogChecked(temporary, styleSheet, table, header); });
    html("sensitivity.html", "Sensitivity report",
         "each run's merit function values, their deltas against the nominal run (case 1) and the normalised sensitivities",
         [&](const YString& temporary) { return sp_WriteSensitivityReportChecked(temporary, styleSheet, table, header, sort); });
    const std::string csv = sensitivityCsv(table, header, sort);
    html("sensitivity.csv", "Sensitivity table (CSV)", "the sensitivity report's columns, for a spreadsheet",
         [&](const YString& temporary) { return writeTextFile(toQs(temporary), csv); });

    const QDir folder(dir);
    const QString index = folder.filePath(QStringLiteral("index.html"));
    // An output that is the results file itself (by another name, a link, a hard link) would destroy it;
    // so would one that is the style sheet.
    QStringList names{QStringLiteral("index.html")};
    for (const Written& f : files)
        names << f.name;
    for (const QString& name : names) {
        if (sameExistingFile(folder.filePath(name), resultsPath))
            return command.fail(ExitUsage, QStringLiteral("%1 is the results file being read; name another folder")
                                               .arg(folder.filePath(name)));
        if (!checkNotAppended(command, folder.filePath(name), appended))
            return ExitUsage;
        if (!styleSheet.isEmpty() && sameExistingFile(folder.filePath(name), toQs(styleSheet)))
            return command.fail(ExitUsage, QStringLiteral("%1 is the style sheet being read; name another folder")
                                               .arg(folder.filePath(name)));
    }

    HubSection section;
    section.source = resultsPath.toStdString();
    section.header = &header;
    section.table = &table;
    // A sensitivity analysis is read from its tornado chart first.
    if (sensitivity)
        section.charts.push_back(sensitivityTornadoSvg(table, header, charts));
    section.charts.push_back(meritHistogramSvg(table, header, charts));
    if (monteCarlo) {
        section.notes.push_back("Each run of a Monte Carlo analysis moves every parameter at once, so its normalised "
                                "sensitivities credit one parameter with what all of them did and mean little" +
                                std::string(force ? "." : "; the tornado chart is left out (--force shows it)."));
    }
    if (!sensitivity && (!monteCarlo || force))
        section.charts.push_back(sensitivityTornadoSvg(table, header, charts));

    for (const Written& f : files) {
        if (!command.checkOutput(folder.filePath(f.name)))
            return ExitFailure;
        section.links.push_back(f.link);
    }
    if (!command.checkOutput(index))
        return ExitFailure;
    const std::string title = header.title.isEmpty() ? "Results of " + resultsPath.toStdString() : header.title.str();
    const std::string page = reportHubPage(title, {section});

    // Every file is written aside before any replaces its previous one: a write that fails leaves the
    // whole folder as it was. index.html is replaced last, so that its links resolve whenever it is new.
    std::vector<FileWrite> together{{index, [&](const YString& temporary) { return writeTextFile(toQs(temporary), page); }}};
    for (const Written& f : files)
        together.push_back({folder.filePath(f.name), f.write});
    QString failed;
    int replaced = 0;
    if (!writeFilesTogether(together, &failed, &replaced)) {
        return command.fail(ExitFailure, replaced == 0 ? QStringLiteral("cannot write %1; the folder is as it was").arg(failed)
                                                       : QStringLiteral("cannot write %1; %2 of the folder's files are new")
                                                             .arg(failed)
                                                             .arg(replaced));
    }
    made.keep();
    Output out;
    for (const Written& f : files)
        out << "wrote " << folder.filePath(f.name) << '\n';
    out << "wrote " << index << '\n';
    return ExitOk;
}

int runReport(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("report"), QStringLiteral("mc|wc|sens|csv|all RESULTS -o OUT [--style CSS] [--sort COLUMN] "
                                                                 "[--chart SVG [--force]] [--bins N] [--shared-scale]"),
                        QStringLiteral("Writes a report of a results file: the Monte Carlo (mc) or worst-case (wc) HTML log, or\n"
                                       "the sensitivity table as HTML (sens) or CSV (csv). With --chart, sens also writes a tornado\n"
                                       "chart of the normalised sensitivities and mc a histogram of each merit function.\n"
                                       "all writes into the folder OUT the logs the analysis calls for, the sensitivity report as\n"
                                       "HTML and CSV, and index.html: the header, the statistics of each merit function, the\n"
                                       "charts and links to the others."));
    command.addOption({QStringLiteral("o"), QStringLiteral("output")}, QStringLiteral("The report file (the folder for all)."),
                      QStringLiteral("OUT"));
    command.addOption({QStringLiteral("style")}, QStringLiteral("Style sheet whose text goes into the HTML page (default: the built-in style)."),
                      QStringLiteral("CSS"));
    command.addOption({QStringLiteral("sort")}, QStringLiteral("Sensitivity column to sort by, by number or by name: 0 case, "
                                                               "1 reference, then value, delta and norm of each merit function in "
                                                               "turn, named NAME, NAME.delta and NAME.norm (default 0)."),
                      QStringLiteral("COLUMN"), QStringLiteral("0"));
    command.addOption({QStringLiteral("chart")}, QStringLiteral("SVG chart to write as well (sens and mc)."), QStringLiteral("SVG"));
    command.addOption({QStringLiteral("force")}, QStringLiteral("Chart the normalised sensitivities of a Monte Carlo run all the same."));
    command.addOption({QStringLiteral("bins")}, QStringLiteral("Histogram bins, 1 to 1000 (default: from the data by the "
                                                               "Freedman-Diaconis rule, at most 50)."),
                      QStringLiteral("N"));
    command.addOption({QStringLiteral("shared-scale")}, QStringLiteral("One tornado scale for every merit function."));
    const int early = command.parse(arguments, 2, 2);
    if (early >= 0)
        return early;
    const QString kind = command.positional().at(0);
    if (kind != QLatin1String("mc") && kind != QLatin1String("wc") && kind != QLatin1String("sens") && kind != QLatin1String("csv") &&
        kind != QLatin1String("all"))
        return command.fail(ExitUsage, QStringLiteral("unknown report '%1'; valid reports: mc, wc, sens, csv, all").arg(kind));
    if (!command.isSet(QStringLiteral("output")))
        return command.fail(ExitUsage, QStringLiteral("-o OUT is required"));
    ChartOptions chartOptions;
    chartOptions.sharedScale = command.isSet(QStringLiteral("shared-scale"));
    if (command.isSet(QStringLiteral("bins"))) {
        long long bins = 0;
        if (!command.intValue(QStringLiteral("bins"), &bins))
            return ExitUsage;
        if (bins < 1 || bins > 1000)
            return command.fail(ExitUsage, QStringLiteral("--bins must lie between 1 and 1000"));
        chartOptions.bins = static_cast<int>(bins);
    }
    if (kind == QLatin1String("all") && command.isSet(QStringLiteral("chart")))
        return command.fail(ExitUsage, QStringLiteral("report all puts its charts in index.html; --chart goes with sens and mc"));
    const QString sortText = command.value(QStringLiteral("sort")).trimmed();
    bool sortIsNumber = false;
    long long sort = sortText.toLongLong(&sortIsNumber);
    const QString chartOption = command.value(QStringLiteral("chart"));
    if (!chartOption.isEmpty() && kind != QLatin1String("sens") && kind != QLatin1String("mc"))
        return command.fail(ExitUsage, QStringLiteral("--chart goes with the sens and mc reports"));
    // Options that shape something this report does not write would be ignored: they are refused.
    const bool all = kind == QLatin1String("all"), charted = !chartOption.isEmpty();
    const bool histograms = all || (kind == QLatin1String("mc") && charted);
    const bool tornadoes = all || (kind == QLatin1String("sens") && charted);
    if (command.isSet(QStringLiteral("bins")) && !histograms)
        return command.fail(ExitUsage, QStringLiteral("--bins goes with the histograms of mc --chart and all"));
    for (const char* option : {"shared-scale", "force"})
        if (command.isSet(QLatin1String(option)) && !tornadoes)
            return command.fail(ExitUsage, QStringLiteral("--%1 goes with the tornado charts of sens --chart and all").arg(QLatin1String(option)));
    if (command.isSet(QStringLiteral("style")) && kind == QLatin1String("csv"))
        return command.fail(ExitUsage, QStringLiteral("--style goes with the HTML reports: mc, wc, sens and all"));
    if (command.isSet(QStringLiteral("sort")) && (kind == QLatin1String("mc") || kind == QLatin1String("wc")))
        return command.fail(ExitUsage, QStringLiteral("--sort goes with the sensitivity reports: sens, csv and all"));
    QString style = command.value(QStringLiteral("style"));
    if (!style.isEmpty() && !command.input(&style))
        return command.inputFailure();
    // The library copies a regular style sheet of up to 16 MiB, and writes its built-in style for any
    // other: the user is told that the sheet named is not the one used.
    if (!style.isEmpty() && (!QFileInfo(style).isFile() || QFileInfo(style).size() > 16LL * 1024 * 1024))
        command.warn(QStringLiteral("the style sheet %1 is not a regular file of at most 16 MiB; the reports have the built-in style")
                         .arg(command.value(QStringLiteral("style"))));
    const QString output = command.value(QStringLiteral("output"));
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    QStringList appended;
    if (!loadResults(command, command.positional().at(1), &table, &header, &appended))
        return command.inputFailure();
    const int columns = 2 + 3 * header.meritFunctions.count();
    if (!sortIsNumber) {
        const QStringList names = sensitivityColumnNames(header);
        sort = -1;
        for (int i = 0; i < names.size() && sort < 0; ++i)
            if (names[i].compare(sortText, Qt::CaseInsensitive) == 0)
                sort = i;
        if (sort < 0)
            return command.fail(ExitUsage, QStringLiteral("--sort takes a column from 0 to %1 or its name, not '%2'; valid names: %3")
                                               .arg(columns - 1)
                                               .arg(sortText, names.join(QStringLiteral(", "))));
    }
    if (sort < 0 || sort >= columns)
        return command.fail(ExitUsage, QStringLiteral("--sort takes a column from 0 to %1 for this file").arg(columns - 1));
    // The reports take their result columns from the values of case 1, the nominal run: a column past
    // them sorts by the last norm column instead, by the description when there is no case 1.
    if (command.isSet(QStringLiteral("sort")) && sort >= 2) {
        XMLReportInfo probe;
        probe.caseNumber = 1;
        const XMLReportInfo* const nominal = table.find(probe);
        const int held = nominal ? nominal->values.count() : 0;
        const QString taken = held == 0 ? QStringLiteral("the description (column 1)") : QStringLiteral("column %1").arg(3 * held + 1);
        if (sort > 3 * held + 2)
            command.warn((nominal ? QStringLiteral("case 1 of %1 holds values of %2 merit function%3").arg(command.positional().at(1)).arg(held).arg(held == 1 ? "" : "s")
                                  : QStringLiteral("%1 has no case 1").arg(command.positional().at(1))) +
                         QStringLiteral(", so the reports sort by %1, not by column %2").arg(taken).arg(sort));
    }
    // The library's reports write the file's texts as they are: the user is told where that breaks one.
    // (The logs, which write more of the file's texts, are written by mc and wc, and by all unless the
    // analysis is a sensitivity one.)
    const bool logsWritten = kind == QLatin1String("mc") || kind == QLatin1String("wc") ||
                             (kind == QLatin1String("all") && !analysisIs(header, ".sens"));
    if (kind != QLatin1String("csv"))
        warnOfUnescapedText(command, command.positional().at(1), table, header, false, logsWritten);
    if (kind == QLatin1String("csv") || kind == QLatin1String("all"))
        warnOfUnescapedText(command, command.positional().at(1), table, header, true, false);
    if (kind == QLatin1String("all"))
        return writeReportFolder(command, command.positional().at(1), appended, table, header, output, toYs(style),
                                 static_cast<int>(sort), chartOptions, command.isSet(QStringLiteral("force")));
    // A Monte Carlo run moves every parameter at once, so a run's normalised sensitivity credits one
    // parameter with what all of them did: the report still shows them, the chart only when asked.
    QString chart = chartOption;
    if (kind == QLatin1String("sens") && isMonteCarlo(header)) {
        command.warn(QStringLiteral("warning: %1 holds a Monte Carlo run (%2); its normalised sensitivities mean little")
                         .arg(command.positional().at(1), toQs(header.analysis).trimmed()));
        if (!chart.isEmpty() && !command.isSet(QStringLiteral("force"))) {
            command.warn(QStringLiteral("the chart %1 was left out; --force writes it all the same").arg(chart));
            chart.clear();
        }
    }
    // An output that is the results file itself (by another name, a link, a hard link) would destroy it.
    // So would one that is the style sheet.
    for (const QString& out : {output, chart}) {
        if (!out.isEmpty() && sameExistingFile(out, command.positional().at(1)))
            return command.fail(ExitUsage, QStringLiteral("%1 is the results file being read; name another output").arg(out));
        if (!out.isEmpty() && !checkNotAppended(command, out, appended))
            return ExitUsage;
        if (!out.isEmpty() && !style.isEmpty() && sameExistingFile(out, style))
            return command.fail(ExitUsage, QStringLiteral("%1 is the style sheet being read; name another output").arg(out));
    }
    if (!chart.isEmpty() && sameOutputFile(chart, output))
        return command.fail(ExitUsage, QStringLiteral("the chart and the report would be one file; name another"));
    if (isStandardStream(chart))
        return command.fail(ExitUsage, QStringLiteral("--chart needs a file (standard output can take the report)"));
    if (!command.checkOutput(output) || (!chart.isEmpty() && !command.checkOutput(chart)))
        return ExitFailure;

    const YString styleSheet = toYs(style);
    // The chart is written from inside the report's write, so that the report replaces its previous
    // file only once the chart has been written too: a failed chart leaves no new report either.
    bool chartFailed = false;
    const bool written = writeFileAtomically(output, [&](const YString& temporary) {
        bool reportWritten = false;
        if (kind == QLatin1String("mc")) {
            reportWritten = sp_WriteMonteCarloLogChecked(temporary, styleSheet, table, header);
        } else if (kind == QLatin1String("wc")) {
            reportWritten = sp_WriteWorstCaseLogChecked(temporary, styleSheet, table, header);
        } else if (kind == QLatin1String("sens")) {
            reportWritten = sp_WriteSensitivityReportChecked(temporary, styleSheet, table, header, static_cast<int>(sort));
        } else {
            reportWritten = writeTextFile(toQs(temporary), sensitivityCsv(table, header, static_cast<int>(sort)));
        }
        if (!reportWritten || chart.isEmpty())
            return reportWritten;
        const std::string svg = kind == QLatin1String("sens") ? sensitivityTornadoSvg(table, header, chartOptions)
                                                              : meritHistogramSvg(table, header, chartOptions);
        chartFailed = !writeTextFile(chart, svg);
        return !chartFailed;
    });
    if (chartFailed)
        return command.fail(ExitFailure, QStringLiteral("cannot write %1; %2 is as it was").arg(chart, output));
    if (!written)
        return command.fail(ExitFailure, QStringLiteral("cannot write %1; it is as it was").arg(output));
    // Written to standard output, the report is the output: what was written is said on standard error.
    if (isStandardStream(output)) {
        if (!chart.isEmpty())
            command.warn(QStringLiteral("wrote %1").arg(chart));
        return ExitOk;
    }
    Output out;
    out << "wrote " << output << '\n';
    if (!chart.isEmpty())
        out << "wrote " << chart << '\n';
    return ExitOk;
}
