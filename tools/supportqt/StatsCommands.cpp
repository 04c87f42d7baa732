// StatsCommands.cpp - `stats` and `merge`: the statistics of a results file against design
// limits, as text, JSON, CSV, an HTML page and SVG pictures; and results files of parts of a run set
// merged into one.
#include "Commands.h"
#include "StatsPage.h"
#include "Tool.h"

#include "FileOpenCheck.h"
#include "MswMerge.h"
#include "RunStatistics.h"
#include "TextServices.h"
#include "XMLReport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QJsonArray>
#include <QJsonObject>

#include <cmath>
#include <cstdio>

namespace {

// One limit's text: empty (absent) or a number ("nan" is none; "inf" and "-inf" are).
bool limitValue(const QString& text, bool* has, double* value)
{
    const QString t = text.trimmed();
    *has = !t.isEmpty();
    return !*has || (sp_TextToReal(t.toUtf8().constData(), value) && !std::isnan(*value));
}

// The merit functions that NAME names: the one whose key it is; else those with that display name; else
// those with that defining text.
QList<int> meritsNamed(const XMLReportHeader& header, const QString& name)
{
    const int keyed = meritKeys(header).indexOf(name);
    if (keyed >= 0)
        return {keyed};
    QList<int> named, defined;
    for (int m = 0; m < header.meritFunctions.count(); ++m) {
        if (toQs(header.meritFunctions[m].name) == name)
            named << m;
        if (toQs(header.meritFunctions[m].value) == name)
            defined << m;
    }
    return named.isEmpty() ? defined : named;
}

QString meritNames(const XMLReportHeader& header)
{
    const QStringList keys = meritKeys(header);
    return keys.isEmpty() ? QStringLiteral("none") : keys.join(QStringLiteral(", "));
}

// Sets the limits of the merit function `name`; reports and returns the exit code on failure, -1 when done.
// `given` marks the merit functions whose limits this source (the file, or the command line) has set: a
// second setting in one source is refused rather than let the last silently win.
int setLimit(const ToolCommand& command, const XMLReportHeader& header, const QString& name, const QString& lower,
             const QString& upper, const QString& where, int badCode, std::vector<MeritLimits>* limits, std::vector<char>* given)
{
    const QList<int> named = meritsNamed(header, name);
    if (named.isEmpty())
        return command.fail(badCode, QStringLiteral("%1no merit function named '%2'; the file has: %3")
                                         .arg(where, name, meritNames(header)));
    if (named.size() > 1) {
        const QStringList keys = meritKeys(header);
        QStringList which;
        for (int m : named)
            which << keys.at(m);
        return command.fail(badCode, QStringLiteral("%1'%2' names %3 merit functions; name one of them: %4")
                                         .arg(where, name)
                                         .arg(named.size())
                                         .arg(which.join(QStringLiteral(", "))));
    }
    const int m = named.first();
    if ((*given)[static_cast<size_t>(m)])
        return command.fail(badCode, QStringLiteral("%1the limits of '%2' are given twice").arg(where, name));
    (*given)[static_cast<size_t>(m)] = 1;
    MeritLimits l;
    if (!limitValue(lower, &l.hasLower, &l.lower) || !limitValue(upper, &l.hasUpper, &l.upper))
        return command.fail(badCode, QStringLiteral("%1the limits of '%2' are not numbers: '%3' and '%4'")
                                         .arg(where, name, lower.trimmed(), upper.trimmed()));
    if (l.hasLower && l.hasUpper && l.lower > l.upper)
        return command.fail(badCode, QStringLiteral("%1the lower limit of '%2' is above its upper limit").arg(where, name));
    (*limits)[static_cast<size_t>(m)] = l;
    return -1;
}

// Limits from a CSV file of lines "name,lower,upper"; a first line "name,lower,upper", blank lines and
// lines that start with "#" are skipped.
int readLimitsFile(const ToolCommand& command, const QString& path, const XMLReportHeader& header,
                   std::vector<MeritLimits>* limits)
{
    QString name = path;
    if (!command.input(&name))
        return command.inputFailure();
    QFile file(name);
    // A limits file is a few lines: past 16 MiB (a device or pipe may never end) it is refused.
    const qint64 limit = qint64(16) << 20;
    const QByteArray text = file.open(QIODevice::ReadOnly) ? file.read(limit + 1) : QByteArray();
    if (!file.isOpen() || text.size() > limit || file.error() != QFileDevice::NoError)
        return command.fail(ExitFailure, QStringLiteral("cannot read the limits file %1").arg(path));
    const QStringList lines = QString::fromUtf8(text).split(QLatin1Char('\n'));
    std::vector<char> given(limits->size(), 0);
    for (int i = 0; i < lines.size(); ++i) {
        const QString line = lines[i].trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char('#')))
            continue;
        QStringList fields;
        const QString where = QStringLiteral("%1:%2: ").arg(path).arg(i + 1);
        if (!splitCsvLine(line, &fields) || fields.size() != 3)
            return command.fail(ExitFailure, where + QStringLiteral("expected name,lower,upper"));
        if (i == 0 && fields.join(QLatin1Char(',')).compare(QLatin1String("name,lower,upper"), Qt::CaseInsensitive) == 0)
            continue;
        const int code = setLimit(command, header, fields[0], fields[1], fields[2], where, ExitFailure, limits, &given);
        if (code >= 0)
            return code;
    }
    return -1;
}

QJsonValue interval(const ConfidenceInterval& i)
{
    return QJsonArray{jsonReal(i.low), jsonReal(i.high)};
}

// Infinite sigma values (every run passes, or none) as the strings "inf" and "-inf" in JSON.
QJsonValue sigmaJson(double v)
{
    return std::isinf(v) ? QJsonValue(v > 0 ? QStringLiteral("inf") : QStringLiteral("-inf")) : jsonReal(v);
}

QJsonArray deviationsJson(const WorstCaseRun& run)
{
    QJsonArray out;
    for (const ParameterDeviation& d : run.parameters)
        out.append(QJsonObject{{QStringLiteral("name"), toQs(d.name)},
                               {QStringLiteral("deviation"), jsonReal(d.deviation)},
                               {QStringLiteral("absolute"), d.absolute}});
    return out;
}

QJsonObject statisticsJson(const MeritStatistics& s)
{
    const MomentSummary& m = s.sample.moments();
    const bool any = m.count() > 0;
    const QJsonValue null(QJsonValue::Null);
    QJsonObject pct;
    for (int i = 0; i < kRunStatisticsPercentileCount; ++i)
        pct.insert(QStringLiteral("P%1").arg(kRunStatisticsPercentiles[i]), jsonReal(s.percentiles[i]));
    QJsonObject o{{QStringLiteral("name"), toQs(s.name)},
                  {QStringLiteral("definition"), toQs(s.definition)},
                  {QStringLiteral("count"), static_cast<qint64>(m.count())},
                  {QStringLiteral("nonFinite"), static_cast<qint64>(m.nonFiniteCount())},
                  {QStringLiteral("mean"), any ? jsonReal(m.mean()) : null},
                  {QStringLiteral("stddev"), any ? jsonReal(m.standardDeviation()) : null},
                  {QStringLiteral("min"), any ? jsonReal(m.minimum()) : null},
                  {QStringLiteral("minCase"), any ? QJsonValue(m.minimumCase()) : null},
                  {QStringLiteral("max"), any ? jsonReal(m.maximum()) : null},
                  {QStringLiteral("maxCase"), any ? QJsonValue(m.maximumCase()) : null},
                  {QStringLiteral("skewness"), jsonReal(m.skewness())},
                  {QStringLiteral("kurtosis"), jsonReal(m.excessKurtosis())},
                  {QStringLiteral("percentiles"), pct},
                  {QStringLiteral("nominal"), s.hasNominal ? jsonReal(s.nominal) : null},
                  {QStringLiteral("jarqueBera"), jsonReal(s.jarqueBera)},
                  {QStringLiteral("jarqueBeraP"), jsonReal(s.jarqueBeraP)},
                  {QStringLiteral("notNormal"), s.notNormal},
                  {QStringLiteral("verdict"), QString::fromLatin1(statsVerdict(s))}};
    QJsonArray influence;
    for (const ParameterInfluence& p : s.influence)
        influence.append(QJsonObject{{QStringLiteral("name"), toQs(p.name)}, {QStringLiteral("rho"), jsonReal(p.rho)}});
    o.insert(QStringLiteral("influence"), influence);
    if (any)
        o.insert(QStringLiteral("worstCase"),
                 QJsonObject{{QStringLiteral("minimum"), QJsonObject{{QStringLiteral("case"), s.atMinimum.caseNumber},
                                                                     {QStringLiteral("value"), jsonReal(s.atMinimum.value)},
                                                                     {QStringLiteral("parameters"), deviationsJson(s.atMinimum)}}},
                             {QStringLiteral("maximum"), QJsonObject{{QStringLiteral("case"), s.atMaximum.caseNumber},
                                                                     {QStringLiteral("value"), jsonReal(s.atMaximum.value)},
                                                                     {QStringLiteral("parameters"), deviationsJson(s.atMaximum)}}}});
    if (s.limits.any()) {
        QJsonArray failing;
        for (int c : s.failingCases)
            failing.append(c);
        o.insert(QStringLiteral("limits"),
                 QJsonObject{{QStringLiteral("lower"), s.limits.hasLower ? jsonReal(s.limits.lower) : null},
                             {QStringLiteral("upper"), s.limits.hasUpper ? jsonReal(s.limits.upper) : null},
                             {QStringLiteral("runs"), static_cast<qint64>(s.runCount)},
                             {QStringLiteral("pass"), static_cast<qint64>(s.passCount)},
                             {QStringLiteral("yield"), jsonReal(s.yield)},
                             {QStringLiteral("yieldInterval"), interval(s.yieldInterval)},
                             {QStringLiteral("yieldSigma"), sigmaJson(s.yieldSigma)},
                             {QStringLiteral("cp"), jsonReal(s.cp)},
                             {QStringLiteral("cpInterval"), interval(s.cpInterval)},
                             {QStringLiteral("cpk"), jsonReal(s.cpk)},
                             {QStringLiteral("cpkInterval"), interval(s.cpkInterval)},
                             {QStringLiteral("failing"), failing}});
    }
    return o;
}

std::string num(double v)
{
    if (std::isnan(v))
        return "n/a";
    if (std::isinf(v))
        return v > 0 ? "inf" : "-inf";
    return realText(v);
}

// The failing runs as the text shows them: the first 20 (--json and --html list them all), each after a
// blank, or " none".
std::string failingList(const MeritStatistics& s)
{
    if (s.failingCases.empty())
        return " none";
    std::string list;
    for (size_t i = 0; i < s.failingCases.size() && i < 20; ++i)
        list += ' ' + std::to_string(s.failingCases[i]);
    if (s.failingCases.size() > 20)
        list += " and " + std::to_string(s.failingCases.size() - 20) + " more";
    return list;
}

// The limits, the verdict and how many runs pass, as the text's limits line begins.
std::string limitsHead(const MeritStatistics& s)
{
    return "  limits " + (s.limits.hasLower ? num(s.limits.lower) : std::string("none")) + " to " +
           (s.limits.hasUpper ? num(s.limits.upper) : std::string("none")) + ": " + statsVerdict(s) + ", " +
           std::to_string(s.passCount) + " of " + std::to_string(s.runCount) + " pass";
}

void printText(Output& out, const QString& path, const XMLReportHeader& header, const std::vector<MeritStatistics>& all)
{
    out << "file: " << path << '\n' << "title: " << header.title << '\n';
    for (const MeritStatistics& s : all) {
        const MomentSummary& m = s.sample.moments();
        out << '\n' << s.name << " = " << s.definition << ": " << static_cast<long long>(m.count()) << " runs";
        if (m.nonFiniteCount())
            out << ", " << static_cast<long long>(m.nonFiniteCount()) << " not finite";
        out << '\n';
        if (m.count() == 0) {
            // Limits still have a verdict: no run passes them.
            out << "  no finite values\n";
            if (s.limits.any())
                out << limitsHead(s) << "\n  failing runs:" << failingList(s) << '\n';
            continue;
        }
        out << "  mean " << num(m.mean()) << "  stddev " << num(m.standardDeviation()) << "  min " << num(m.minimum())
            << " (case " << m.minimumCase() << ")  max " << num(m.maximum()) << " (case " << m.maximumCase() << ")";
        if (s.hasNominal)
            out << "  nominal " << num(s.nominal);
        out << "\n  skewness " << num(m.skewness()) << "  excess kurtosis " << num(m.excessKurtosis()) << "  Jarque-Bera "
            << num(s.jarqueBera) << " (p " << num(s.jarqueBeraP) << ")" << (s.notNormal ? "  not normal" : "") << '\n';
        out << "  percentiles";
        for (int i = 0; i < kRunStatisticsPercentileCount; ++i) {
            char label[16];
            std::snprintf(label, sizeof label, " P%g ", kRunStatisticsPercentiles[i]);
            out << label << num(s.percentiles[i]);
        }
        out << '\n';
        if (s.limits.any()) {
            out << limitsHead(s) << ", yield " << percentText(s.yield, 6) << " [" << percentText(s.yieldInterval.low, 6) << ", "
                << percentText(s.yieldInterval.high, 6) << "], " << num(s.yieldSigma) << " sigma\n";
            out << "  Cp " << num(s.cp) << " [" << num(s.cpInterval.low) << ", " << num(s.cpInterval.high) << "]  Cpk "
                << num(s.cpk) << " [" << num(s.cpkInterval.low) << ", " << num(s.cpkInterval.high) << "]\n";
            out << "  failing runs:" << failingList(s) << '\n';
        }
        if (!s.influence.empty()) {
            out << "  influence:";
            for (const ParameterInfluence& p : s.influence)
                out << ' ' << p.name << ' ' << num(p.rho);
            out << '\n';
        }
        for (const WorstCaseRun* run : {&s.atMinimum, &s.atMaximum}) {
            out << (run == &s.atMinimum ? "  at minimum: case " : "  at maximum: case ") << run->caseNumber;
            for (const ParameterDeviation& d : run->parameters)
                out << ' ' << d.name << (d.absolute ? " " : " relative ") << num(d.deviation);
            out << '\n';
        }
    }
}

} // namespace

int runStats(const QStringList& arguments)
{
    ToolCommand command(
        QStringLiteral("stats"), QStringLiteral("RESULTS [--limit NAME=LO:HI]... [--limits FILE] [--json] [--csv OUT] "
                                                "[--html OUT] [--chart DIR]"),
        QStringLiteral("Statistics of each merit function across the runs of a results file: moments, percentiles\n"
                       "(linear between order statistics), Jarque-Bera normality, and against design limits\n"
                       "the yield with its 95% Wilson interval and in sigma, Cp and Cpk with 95% intervals (exact\n"
                       "chi-square for Cp, Bissell's approximation for Cpk) and the failing runs; then the Spearman\n"
                       "correlation of each parameter's deviation with the merit function, and the runs at its\n"
                       "minimum and maximum. Values that are not finite are counted apart and fail the limits.\n"
                       "NAME is a merit function's name or its defining text; LO or HI may be left empty. A\n"
                       "--limit replaces the limits file's line for its merit function."));
    command.addRepeatableOption({QStringLiteral("limit")}, QStringLiteral("Limits of one merit function (repeatable)."),
                                QStringLiteral("NAME=LO:HI"));
    command.addOption({QStringLiteral("limits")}, QStringLiteral("Limits from a CSV file of name,lower,upper lines."),
                      QStringLiteral("FILE"));
    command.addOption({QStringLiteral("csv")}, QStringLiteral("Write the table as CSV."), QStringLiteral("OUT"));
    command.addOption({QStringLiteral("html")}, QStringLiteral("Write a standalone HTML page."), QStringLiteral("OUT"));
    command.addOption({QStringLiteral("chart")},
                      QStringLiteral("Write SVG pictures (histogram, distribution function, influence) per merit function."),
                      QStringLiteral("DIR"));
    command.addJsonOption();
    const int early = command.parse(arguments, 1, 1);
    if (early >= 0)
        return early;
    // Standard output takes one document: the CSV, the page, the JSON or else the text report.
    const bool csvToStandardOutput = command.isSet(QStringLiteral("csv")) && isStandardStream(command.value(QStringLiteral("csv")));
    const bool htmlToStandardOutput = command.isSet(QStringLiteral("html")) && isStandardStream(command.value(QStringLiteral("html")));
    if (csvToStandardOutput + htmlToStandardOutput + command.json() > 1)
        return command.fail(ExitUsage, QStringLiteral("standard output takes one of --csv -, --html - and --json; name a file for the others"));
    const QString path = command.positional().at(0);
    // An output that is the results file itself (by another name or a link) would destroy it.
    // So would one that is the limits file.
    for (const char* option : {"csv", "html"}) {
        if (!command.isSet(QLatin1String(option)))
            continue;
        const QString output = command.value(QLatin1String(option));
        if (sameExistingFile(output, path))
            return command.fail(ExitUsage, QStringLiteral("%1 is the results file being read; name another output").arg(output));
        if (command.isSet(QStringLiteral("limits")) && sameExistingFile(output, command.value(QStringLiteral("limits"))))
            return command.fail(ExitUsage, QStringLiteral("%1 is the limits file being read; name another output").arg(output));
    }
    // Two outputs that name one file would leave only the one written last.
    if (command.isSet(QStringLiteral("csv")) && command.isSet(QStringLiteral("html"))) {
        const QString csv = command.value(QStringLiteral("csv")), html = command.value(QStringLiteral("html"));
        if (!isStandardStream(csv) && sameOutputFile(csv, html))
            return command.fail(ExitUsage, QStringLiteral("--csv and --html both name %1; name two outputs").arg(csv));
    }
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    QStringList appended;
    if (!loadResultsFile(command, path, &table, &header, &appended))
        return ExitFailure;
    for (const char* option : {"csv", "html"})
        if (command.isSet(QLatin1String(option)) && !checkNotAppended(command, command.value(QLatin1String(option)), appended))
            return ExitUsage;

    std::vector<MeritLimits> limits(static_cast<size_t>(header.meritFunctions.count()));
    if (command.isSet(QStringLiteral("limits"))) {
        const int code = readLimitsFile(command, command.value(QStringLiteral("limits")), header, &limits);
        if (code >= 0)
            return code;
    }
    // The parser keeps every value of the repeated option, however it was spelt ("-limit", "--limit=").
    // A --limit sets a merit function's limits over the file's.
    std::vector<char> given(limits.size(), 0);
    for (const QString& spec : command.values(QStringLiteral("limit"))) {
        const int eq = spec.lastIndexOf(QLatin1Char('='));
        const int colon = spec.indexOf(QLatin1Char(':'), eq + 1);
        if (eq <= 0 || colon < 0)
            return command.fail(ExitUsage, QStringLiteral("--limit wants NAME=LO:HI, not '%1'").arg(spec));
        const int code = setLimit(command, header, spec.left(eq), spec.mid(eq + 1, colon - eq - 1), spec.mid(colon + 1),
                                  QString(), ExitUsage, &limits, &given);
        if (code >= 0)
            return code;
    }

    const std::vector<MeritStatistics> all = sp_ComputeRunStatistics(table, header, limits);

    // The pictures of each merit function in the chart folder; a page or table of the same name would
    // be overwritten by one of them.
    QStringList charts;
    if (command.isSet(QStringLiteral("chart")))
        for (const MeritStatistics& s : all)
            for (const char* picture : {"histogram", "cdf", "influence"})
                charts << QDir(command.value(QStringLiteral("chart"))).filePath(QStringLiteral("merit%1_%2.svg").arg(s.merit + 1).arg(QLatin1String(picture)));
    // A picture is refused where it would replace a file the command reads, as the other outputs are.
    for (const QString& chart : charts) {
        if (sameExistingFile(chart, path))
            return command.fail(ExitUsage, QStringLiteral("%1 is the results file being read; name another chart folder").arg(chart));
        if (command.isSet(QStringLiteral("limits")) && sameExistingFile(chart, command.value(QStringLiteral("limits"))))
            return command.fail(ExitUsage, QStringLiteral("%1 is the limits file being read; name another chart folder").arg(chart));
        if (!checkNotAppended(command, chart, appended))
            return ExitUsage;
    }
    for (const char* option : {"csv", "html"}) {
        if (!command.isSet(QLatin1String(option)) || isStandardStream(command.value(QLatin1String(option))))
            continue;
        for (const QString& chart : charts)
            if (sameOutputFile(command.value(QLatin1String(option)), chart))
                return command.fail(ExitUsage, QStringLiteral("--%1 names the chart %2; name another output").arg(QLatin1String(option), chart));
    }

    // Every output is checked before any is written, so that a failure leaves nothing written.
    for (const char* option : {"csv", "html"}) {
        if (command.isSet(QLatin1String(option)) && !command.checkOutput(command.value(QLatin1String(option))))
            return ExitFailure;
    }
    MadeFolders made;
    if (command.isSet(QStringLiteral("chart")) && !made.make(command.value(QStringLiteral("chart"))))
        return command.fail(ExitFailure, QStringLiteral("cannot create the folder %1").arg(command.value(QStringLiteral("chart"))));
    for (const QString& chart : charts)
        if (!command.checkOutput(chart))
            return ExitFailure;
    // The outputs are written as one: a write that fails leaves every file as it was.
    std::vector<std::string> texts;
    QStringList targets;
    for (const char* option : {"csv", "html"}) {
        if (!command.isSet(QLatin1String(option)))
            continue;
        targets << command.value(QLatin1String(option));
        texts.push_back(option[0] == 'c' ? statsCsv(all) : statsHtmlPage(header.title.str(), path.toStdString(), all));
    }
    for (size_t m = 0; m < all.size() && command.isSet(QStringLiteral("chart")); ++m) {
        targets << charts[static_cast<int>(3 * m)] << charts[static_cast<int>(3 * m + 1)] << charts[static_cast<int>(3 * m + 2)];
        texts.push_back(statsHistogramSvg(all[m]));
        texts.push_back(statsCdfSvg(all[m]));
        texts.push_back(statsInfluenceSvg(all[m]));
    }
    std::vector<FileWrite> outputs;
    for (int i = 0; i < targets.size(); ++i)
        outputs.push_back({targets[i], [&, i](const YString& temporary) { return writeTextFile(toQs(temporary), texts[static_cast<size_t>(i)]); }});
    QString failed;
    int replaced = 0;
    if (!writeFilesTogether(outputs, &failed, &replaced)) {
        return command.fail(ExitFailure, outputs.size() == 1 ? QStringLiteral("cannot write %1").arg(failed)
                                         : replaced == 0    ? QStringLiteral("cannot write %1; no output was replaced").arg(failed)
                                                            : QStringLiteral("cannot write %1; %2 of the outputs are new").arg(failed).arg(replaced));
    }
    made.keep();

    if (command.json()) {
        QJsonArray merits;
        for (const MeritStatistics& s : all)
            merits.append(statisticsJson(s));
        printJson(QJsonObject{{QStringLiteral("file"), path},
                              {QStringLiteral("title"), toQs(header.title)},
                              {QStringLiteral("runCount"), table.count()},
                              {QStringLiteral("meritFunctions"), merits}});
        return ExitOk;
    }
    if (csvToStandardOutput || htmlToStandardOutput)
        return ExitOk; // the CSV or the page is the output
    Output out;
    printText(out, path, header, all);
    return ExitOk;
}

int runMerge(const QStringList& arguments)
{
    ToolCommand command(QStringLiteral("merge"), QStringLiteral("SHARD... -o MERGED [--renumber] [--json]"),
                        QStringLiteral("Merges results files of parts of a run set (one per core, job or machine) into one\n"
                                       "file that reads as all of them: runs keep their case numbers, the header lists the\n"
                                       "shards and each run records its shard. Case numbers that two shards share are an\n"
                                       "error unless --renumber, which gives them new numbers above all others; such a run\n"
                                       "records its original shard and case, and shows them in its description unless it\n"
                                       "has a name, which readers show instead."));
    command.addOption({QStringLiteral("o"), QStringLiteral("output")}, QStringLiteral("The merged results file."),
                      QStringLiteral("MERGED"));
    command.addOption({QStringLiteral("renumber")}, QStringLiteral("Renumber runs whose case numbers collide."));
    command.addJsonOption();
    const int early = command.parse(arguments, 1, 1000000);
    if (early >= 0)
        return early;
    if (!command.isSet(QStringLiteral("o")))
        return command.fail(ExitUsage, QStringLiteral("-o MERGED is required"));
    const QString output = command.value(QStringLiteral("o"));
    if (isStandardStream(output))
        return command.fail(ExitUsage, QStringLiteral("the merged file records where its runs came from; name a file for it"));
    std::vector<YString> shards;
    for (const QString& shard : command.positional()) {
        if (isStandardStream(shard))
            return command.fail(ExitUsage, QStringLiteral("the merged file records where its runs came from; name a file for each part"));
        if (!command.checkInput(shard))
            return ExitFailure;
        if (sameExistingFile(output, shard))
            return command.fail(ExitUsage, QStringLiteral("%1 is a file being merged; name another output").arg(output));
        shards.push_back(toYs(shard));
    }
    // A file named twice (by one name or two) would have its runs counted twice, and with --renumber
    // nothing would say so. Each file is looked at once, by what tells it apart from every other.
    QHash<QByteArray, int> byIdentity;
    for (int i = 0; i < command.positional().size(); ++i) {
        const QString shard = command.positional().at(i);
        const QByteArray identity = existingFileIdentity(shard);
        if (identity.isEmpty())
            continue;
        const auto seen = byIdentity.constFind(identity);
        if (seen != byIdentity.constEnd())
            return command.fail(ExitUsage, QStringLiteral("%1 and %2 are one file; name each file once").arg(command.positional().at(*seen), shard));
        byIdentity.insert(identity, i);
    }
    // An output that cannot be written but that a shard appends is refused as any such output is, as
    // report and stats refuse it, before why it cannot be written is told.
    if (!sp_CheckFileOpen(toYs(output), GfnWrite)) {
        for (int i = 0; i < static_cast<int>(shards.size()); ++i) {
            YHashTable<XMLReportInfo> table;
            XMLReportHeader header;
            std::vector<YString> sources;
            (void)sp_CompileMswWithSources(shards[static_cast<size_t>(i)], &table, &header, &sources);
            for (const YString& source : sources)
                if (sameExistingFile(output, toQs(source)))
                    return command.fail(ExitUsage, QStringLiteral("%1 is a file that %2 appends; name another output")
                                                       .arg(output, command.positional().at(i)));
        }
    }
    if (!command.checkOutput(output))
        return ExitFailure;
    YString message;
    MswMergeSummary summary;
    int readBy = -1;
    if (!sp_MergeMswFiles(shards, toYs(output), command.isSet(QStringLiteral("renumber")), &message, &summary, &readBy)) {
        // An output that a shard appends is refused as any output that a command reads is.
        if (readBy >= 0) {
            const QString shard = command.positional().at(readBy);
            return command.fail(ExitUsage, sameExistingFile(output, shard)
                                               ? QStringLiteral("%1 is a file being merged; name another output").arg(output)
                                               : QStringLiteral("%1 is a file that %2 appends; name another output").arg(output, shard));
        }
        return command.fail(ExitFailure, toQs(message));
    }

    if (command.json()) {
        QJsonArray merits;
        for (size_t m = 0; m < summary.merits.size(); ++m) {
            const MomentSummary& s = summary.merits[m];
            merits.append(QJsonObject{{QStringLiteral("name"), toQs(summary.meritFunctions[m].name)},
                                      {QStringLiteral("count"), static_cast<qint64>(s.count())},
                                      {QStringLiteral("nonFinite"), static_cast<qint64>(s.nonFiniteCount())},
                                      {QStringLiteral("mean"), s.count() ? jsonReal(s.mean()) : QJsonValue()},
                                      {QStringLiteral("stddev"), s.count() ? jsonReal(s.standardDeviation()) : QJsonValue()}});
        }
        QJsonArray runs;
        for (long long n : summary.shardRuns)
            runs.append(static_cast<qint64>(n));
        printJson(QJsonObject{{QStringLiteral("output"), output},
                              {QStringLiteral("shards"), static_cast<qint64>(shards.size())},
                              {QStringLiteral("runs"), static_cast<qint64>(summary.runs)},
                              {QStringLiteral("renumbered"), static_cast<qint64>(summary.renumbered)},
                              {QStringLiteral("shardRuns"), runs},
                              {QStringLiteral("meritFunctions"), merits}});
        return ExitOk;
    }
    Output out;
    out << "merged " << static_cast<long long>(shards.size()) << " files, " << static_cast<long long>(summary.runs)
        << " runs (" << static_cast<long long>(summary.renumbered) << " renumbered) into " << output << '\n';
    for (size_t m = 0; m < summary.merits.size(); ++m) {
        const MomentSummary& s = summary.merits[m];
        out << "  " << summary.meritFunctions[m].name << ": " << static_cast<long long>(s.count())
            << " values, mean " << num(s.count() ? s.mean() : std::nan("")) << ", stddev "
            << num(s.count() ? s.standardDeviation() : std::nan("")) << '\n';
    }
    return ExitOk;
}
