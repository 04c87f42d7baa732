// Reports.cpp - HTML logs of Monte Carlo and worst-case runs, and sensitivity reports in HTML and CSV.
#include "Reports.h"
#include "Reports_p.h"
#include "FileServices.h"
#include "QtSupport.h"

#include <QFileInfo>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#if defined(_MSC_VER) && !defined(__clang__) && (defined(_M_X64) || defined(_M_IX86))
#include <xmmintrin.h>
#endif

namespace {

// The largest style sheet copied into a report.
const long long kMaxStyleSheetBytes = 16LL * 1024 * 1024;

// The built-in style block, as the C library's formatted output prints it (the format's "%%" is the
// one percent sign of the table rule), written as plain text.
const char* const kBuiltInStyle[] = {
    "\t\t<style>\n",
    "\t\t\th1, h2, p { font-family: 'Open Sans',sans-serif; }\n",
    "\t\t\th2 { margin-left: 40px;}\n",
    "\t\t\t.datatable { margin-left: 80px; font-family: 'Open Sans',sans-serif;}\n",
    "\t\t\t.datatable th { text-align: left;background-color: #4CAF50;color: white;}\n",
    "\t\t\t.datatable td { width: 200px;}\n",
    "\t\t\t.headertable { width: 100%; margin-left: 40px; font-family: 'Open Sans',sans-serif;}\n",
    "\t\t\t.headertable td { width: auto;}\n",
    "\t\t</style>\n",
};

// One level of the merge sort: sorts `n` keys, with room for as many in `scratch`.
void mergeKeys(ReportSortKey** keys, size_t n, ReportSortKey** scratch)
{
    if (n <= 1)
        return;
    const size_t leftCount = n / 2;
    mergeKeys(keys, leftCount, scratch);
    mergeKeys(keys + leftCount, n - leftCount, scratch);
    ReportSortKey** left = keys;
    ReportSortKey** right = keys + leftCount;
    ReportSortKey** const leftEnd = right;
    ReportSortKey** const rightEnd = keys + n;
    ReportSortKey** out = scratch;
    while (left != leftEnd && right != rightEnd)
        *out++ = ReportSortKey::compare(left, right) <= 0 ? *left++ : *right++;
    // What is left of the right half already stands where it belongs.
    out = std::copy(left, leftEnd, out);
    std::copy(scratch, out, keys);
}

// The records of the table ordered by their keys; `keyOf` fills each record's key.
template <class KeyOf>
std::vector<const XMLReportInfo*> sortedRuns(const YHashTable<XMLReportInfo>& table, KeyOf keyOf)
{
    std::vector<ReportSortKey> keys;
    keys.reserve(static_cast<size_t>(table.count()));
    std::vector<const XMLReportInfo*> byCase;
    for (const XMLReportInfo& record : table) {
        ReportSortKey key;
        key.caseNumber = record.caseNumber;
        keyOf(record, &key);
        keys.push_back(key);
        byCase.push_back(&record);
    }
    std::vector<ReportSortKey*> order;
    order.reserve(keys.size());
    for (ReportSortKey& key : keys)
        order.push_back(&key);
    reports::sortKeys(order.data(), order.size());
    std::vector<const XMLReportInfo*> runs;
    runs.reserve(order.size());
    for (const ReportSortKey* key : order)
        runs.push_back(byCase[static_cast<size_t>(key - keys.data())]);
    return runs;
}

FILE* openForWriting(const YString& path)
{
    FILE* file = nullptr;
    if (fopen_s_utf8(&file, path.c_str(), "w") != 0)
        return nullptr;
    return file;
}

// Closes a report and says whether every byte reached the file: a write that failed on the way (a
// full disk, a file-size limit) leaves the stream's error flag set, and the last buffer is written by
// the close itself.
reports::Written closeWritten(FILE* file)
{
    const bool clean = std::ferror(file) == 0;
    return std::fclose(file) == 0 && clean ? reports::Written::Complete : reports::Written::Incomplete;
}

// The runs in the order of a sensitivity report's sort column (clamped to the last norm column).
std::vector<const XMLReportInfo*> runsInSensitivityOrder(const YHashTable<XMLReportInfo>& table, int sortColumn)
{
    XMLReportInfo probe;
    probe.caseNumber = 1;
    const XMLReportInfo* reference = table.find(probe);
    const int m = reference ? reference->values.count() : 0;
    if (sortColumn > 3 * m + 2)
        sortColumn = 3 * m + 1;
    return sortedRuns(table, [sortColumn](const XMLReportInfo& record, ReportSortKey* key) {
        if (sortColumn == 0) {
            key->number = static_cast<double>(record.caseNumber);
        } else if (sortColumn == 1) {
            key->byText = true;
            key->text = record.description;
        } else {
            const int t = sortColumn - 2;
            const XMLMeritValue& e = record.values[t / 3];
            key->number = t % 3 == 0 ? e.value : t % 3 == 1 ? e.delta : e.norm;
            key->descending = true;
        }
    });
}

// Asks the processor to start loading the cache line at `address`; a hint that changes nothing.
inline void prefetch(const void* address)
{
#if defined(__GNUC__) || defined(__clang__)
    __builtin_prefetch(address);
#elif defined(_MSC_VER) && (defined(_M_X64) || defined(_M_IX86))
    _mm_prefetch(static_cast<const char*>(address), _MM_HINT_T0);
#else
    (void)address;
#endif
}

// A report visits its runs in sort order, which scatters the visits over a large table's memory, and
// each run is a chain of separate blocks (record, entry arrays, entries). Asking for each link of the
// chain a few runs ahead of the visit, once the link before it has arrived, hides most of those misses.
void prefetchAhead(const std::vector<const XMLReportInfo*>& runs, size_t i)
{
    const size_t kStep = 4;
    const size_t kMaxEntries = 8;
    if (i + 3 * kStep < runs.size()) {
        const char* record = reinterpret_cast<const char*>(runs[i + 3 * kStep]);
        for (size_t offset = 0; offset < sizeof(XMLReportInfo); offset += 64)
            prefetch(record + offset);
    }
    if (i + 2 * kStep < runs.size()) {
        const XMLReportInfo* run = runs[i + 2 * kStep];
        prefetch(run->values.storage());
        prefetch(run->parameters.storage());
        prefetch(run->description.c_str());
    }
    if (i + kStep < runs.size()) {
        const XMLReportInfo* run = runs[i + kStep];
        const int values = std::min(run->values.count(), static_cast<int>(kMaxEntries));
        for (int k = 0; k < values; ++k)
            prefetch(&run->values[k]);
        const int parameters = std::min(run->parameters.count(), static_cast<int>(kMaxEntries));
        for (int k = 0; k < parameters; ++k)
            prefetch(&run->parameters[k]);
    }
}

// Report cells, spanning `rows` rows when more than one.
void openCell(FILE* f, int rows)
{
    if (rows > 1)
        std::fprintf(f, "<td rowspan=\"%d\">", rows);
    else
        std::fputs("<td>", f);
}

// A number as "%g" writes it in the C locale, whatever the process's locale: a host program may use a
// decimal comma.
std::string g(double value)
{
    char text[32];
    const auto written = std::to_chars(text, text + sizeof text, value, std::chars_format::general, 6);
    return std::string(text, written.ptr);
}

void numberCell(FILE* f, int rows, double value)
{
    openCell(f, rows);
    std::fprintf(f, "%s</td>", g(value).c_str());
}

void textCell(FILE* f, int rows, const char* text)
{
    openCell(f, rows);
    std::fputs(text, f);
    std::fputs("</td>", f);
}

void parameterCells(FILE* f, const XMLParameterValue& p)
{
    std::fprintf(f, "<td>%s</td><td>%s</td><td>%s</td>", p.name.c_str(), g(p.nominal).c_str(), g(p.usedValue).c_str());
}

// Opens the report at `path`, has `write` fill it and closes it. Memory that runs out on the way ends
// the report there: the part written is removed, since a report that fails is not created.
template <class Write>
reports::Written writeReport(const YString& path, Write write)
{
    FILE* f = openForWriting(path);
    if (!f)
        return reports::Written::NotCreated;
    try {
        write(f);
    } catch (...) {
        std::fclose(f);
        (void)unlink_utf8(path.c_str());
        return reports::Written::OutOfMemory;
    }
    return closeWritten(f);
}

// The Monte Carlo log (`monteCarlo`) or the worst-case log of the sorted runs.
void writeLogTo(FILE* f, const YString& styleSheet, const std::vector<const XMLReportInfo*>& runs,
                const XMLReportHeader& header, bool monteCarlo)
{
    const char* title = monteCarlo ? "Monte Carlo Log" : "Worst Case Log";
    std::fprintf(f, "<html>\n");
    std::fprintf(f, "\t<head>\n");
    std::fprintf(f, "\t\t<title>%s</title>\n", title);
    sp_IncludeTableStyleSheet(f, styleSheet);
    std::fprintf(f, "\t</head>\n");
    std::fprintf(f, "\t<h1>%s</h1>\n", title);

    std::fprintf(f, "\t<table class=\"headertable\">\n");
    std::fprintf(f, "\t\t<tr><td>Date:</td><td>%s</td></tr>\n", header.date.c_str());
    std::fprintf(f, "\t\t<tr><td>Analysis card:</td><td>%s</td></tr>\n", header.analysis.c_str());
    std::fprintf(f, "\t\t<tr><td>Title:</td><td>%s</td></tr>\n", header.title.c_str());
    std::fprintf(f, "\t\t<tr><td>Num Cores:</td><td>%d</td></tr>\n", header.numCores);
    std::fprintf(f, "\t</table>\n");

    const int merits = header.meritFunctions.count();
    if (merits > 0) {
        std::fprintf(f, "\t<h2>Results</h2>\n");
        std::fprintf(f, "\t<table class=\"datatable\">\n");
        std::fprintf(f, "\t\t<tr><th>Run #</th><th>Description</th>");
        for (int i = 0; i < merits; ++i)
            std::fprintf(f, "<th>%s</th>", header.meritFunctions[i].value.c_str());
        std::fprintf(f, "</tr>\n");
        for (const XMLReportInfo* run : runs) {
            std::fprintf(f, "\t\t<tr><td>%d</td><td>%s</td>", run->caseNumber, run->description.c_str());
            for (int i = 0; i < merits; ++i)
                std::fprintf(f, "<td>%s</td>", g(run->values[i].value).c_str());
            std::fprintf(f, "</tr>\n");
        }
        std::fprintf(f, "\t</table>\n");
    }

    if (monteCarlo) {
        std::fprintf(f, "\t<h2>Seed Table</h2>\n");
        std::fprintf(f, "\t<table class=\"datatable\">\n");
        std::fprintf(f, "\t\t<tr><th>#</th><th>Seed</th></tr>\n");
        for (const XMLReportInfo* run : runs)
            std::fprintf(f, "\t\t<tr><td>%d</td><td>%lld</td></tr>\n", run->caseNumber, run->seed);
        std::fprintf(f, "\t</table>\n");
    }

    for (const XMLReportInfo* run : runs) {
        std::fprintf(f, "\t<h2>%s</h2>\n", run->description.c_str());
        std::fprintf(f, "\t<table class=\"datatable\">\n");
        std::fprintf(f, "\t\t<tr><th>Reference</th><th>Nominal</th><th>Value</th></tr>\n");
        for (int k = 0; k < run->parameters.count(); ++k) {
            const XMLParameterValue& p = run->parameters[k];
            std::fprintf(f, "\t\t<tr><td>%s</td><td>%s</td><td>%s</td></tr>\n", p.name.c_str(), g(p.nominal).c_str(),
                         g(p.usedValue).c_str());
        }
        std::fprintf(f, "\t</table>\n");
    }
    std::fprintf(f, "</html>\n");
}

// The sensitivity page of the sorted runs.
void writeSensitivityTo(FILE* f, const YString& styleSheet, const std::vector<const XMLReportInfo*>& runs,
                        const XMLReportHeader& header)
{
    const int merits = header.meritFunctions.count();
    std::fprintf(f, "<html>\n");
    std::fprintf(f, "\t<head>\n");
    std::fprintf(f, "\t\t<title>Sensitivity Analysis Report</title>\n");
    sp_IncludeTableStyleSheet(f, styleSheet);
    std::fprintf(f, "\t</head>\n");
    std::fprintf(f, "\t<table  class=\"datatable\">\n");
    std::fprintf(f, "\t\t<tr><th colspan=\"2\">Run ID</th>");
    std::fprintf(f, "<th colspan=\"%d\">Results</th>", 3 * merits);
    std::fprintf(f, "<th colspan=\"3\">Perturbation</th></tr>\n");
    std::fprintf(f, "\t\t<tr><th>Case #</th>");
    std::fprintf(f, "<th>Reference</th>");
    for (int m = 0; m < merits; ++m) {
        std::fprintf(f, "<th>%s</th>", header.meritFunctions[m].value.c_str());
        std::fprintf(f, "<th>Delta</th>");
        std::fprintf(f, "<th>Norm</th>");
    }
    std::fprintf(f, "<th>Lot item</th><th>Nominal</th><th>Value</th></tr>\n");
    for (size_t i = 0; i < runs.size(); ++i) {
        prefetchAhead(runs, i);
        const XMLReportInfo* run = runs[i];
        const int p = run->parameters.count();
        std::fprintf(f, "\t\t<tr>");
        textCell(f, p, std::to_string(run->caseNumber).c_str());
        textCell(f, p, run->description.c_str());
        for (int m = 0; m < merits; ++m) {
            const XMLMeritValue& e = run->values[m];
            numberCell(f, p, e.value);
            numberCell(f, p, e.delta);
            // Status 3 writes no cell at all: the short row is kept on purpose.
            if (e.status == NormValid)
                numberCell(f, p, e.norm);
            else if (e.status == NormInconsistent)
                textCell(f, p, "*");
            else if (e.status == NormDivByZero)
                textCell(f, p, "!DIV0");
        }
        parameterCells(f, run->parameters[0]);
        std::fprintf(f, "</tr>\n");
        for (int k = 1; k < p; ++k) {
            std::fprintf(f, "\t\t<tr>");
            parameterCells(f, run->parameters[k]);
            std::fprintf(f, "</tr>\n");
        }
    }
    std::fprintf(f, "\t%s\n", "</table>");
    std::fprintf(f, "%s\n", "</html>");
}

// Copies the style sheet into the report's head, or the built-in style when it does not open.
void includeStyleSheet(FILE* stream, const YString& styleSheet)
{
    const QFileInfo sheetInfo(toQs(styleSheet));
    FILE* sheet = nullptr;
    if (sheetInfo.isFile() && sheetInfo.size() <= kMaxStyleSheetBytes &&
        fopen_s_utf8(&sheet, styleSheet.c_str(), "r") == 0 && sheet) {
        std::fprintf(stream, "<style>\n");
        long long copied = 0;
        for (int c = std::fgetc(sheet); c != EOF && copied < kMaxStyleSheetBytes; c = std::fgetc(sheet), ++copied)
            std::fputc(c, stream);
        std::fprintf(stream, "</style>\n");
        std::fclose(sheet);
        return;
    }
    for (const char* line : kBuiltInStyle)
        std::fputs(line, stream);
}

// The sensitivity report's lines, appended to `lines`.
void appendCsvReport(YArray<YString>* lines, const YHashTable<XMLReportInfo>& table, const XMLReportHeader& header,
                     int sortColumn)
{
    const int merits = header.meritFunctions.count();
    YString heading("Case#,Reference");
    for (int m = 0; m < merits; ++m) {
        heading.append(",\"");
        heading += header.meritFunctions[m].value;
        heading.append("\",Delta,Norm");
    }
    lines->append(heading);
    const std::vector<const XMLReportInfo*> runs = runsInSensitivityOrder(table, sortColumn);
    for (size_t i = 0; i < runs.size(); ++i) {
        prefetchAhead(runs, i);
        const XMLReportInfo* run = runs[i];
        YString line(run->caseNumber);
        line.append(",");
        // A description with a comma is wrapped in double quotes; nothing else is escaped.
        if (run->description.findIndex(",") >= 0) {
            line.append("\"");
            line += run->description;
            line.append("\"");
        } else {
            line += run->description;
        }
        for (int m = 0; m < merits; ++m) {
            const XMLMeritValue& e = run->values[m];
            line.append(",");
            line += YString(e.value);
            line.append(",");
            line += YString(e.delta);
            if (e.status == NormValid) {
                line.append(",");
                line += YString(e.norm);
            } else if (e.status == NormInconsistent) {
                line.append(",*");
            } else if (e.status == NormDivByZero) {
                line.append(",!DIV0");
            }
        }
        lines->append(line);
    }
}
} // namespace

int ReportSortKey::compareKeys(const ReportSortKey& a, const ReportSortKey& b)
{
    const bool bothText = a.byText && b.byText;
    const bool aBeforeB = bothText ? b.text.compareNoCase(a.text.c_str()) > 0 : std::fabs(b.number) > std::fabs(a.number);
    if (a.descending != aBeforeB)
        return -1;
    if (bothText)
        return a.text.compareNoCase(b.text.c_str()) == 0 ? 0 : 1;
    return std::fabs(a.number) == std::fabs(b.number) ? 0 : 1;
}

int ReportSortKey::compare(const void* a, const void* b)
{
    return compareKeys(**static_cast<const ReportSortKey* const*>(a), **static_cast<const ReportSortKey* const*>(b));
}

void reports::sortKeys(ReportSortKey** keys, size_t n)
{
    std::vector<ReportSortKey*> scratch(n);
    mergeKeys(keys, n, scratch.data());
}

reports::Written reports::writeLog(const YString& path, const YString& styleSheet, const YHashTable<XMLReportInfo>& table,
                                   const XMLReportHeader& header, bool monteCarlo)
{
    // The runs are sorted before the file is opened, so that a sort that runs out of memory leaves the
    // file as it was. The case number is the key, compared by absolute value like every report key.
    std::vector<const XMLReportInfo*> runs;
    try {
        runs = sortedRuns(table, [](const XMLReportInfo& record, ReportSortKey* key) {
            key->number = static_cast<double>(record.caseNumber);
        });
    } catch (...) {
        return Written::OutOfMemory;
    }
    return writeReport(path, [&](FILE* f) { writeLogTo(f, styleSheet, runs, header, monteCarlo); });
}

void sp_IncludeTableStyleSheet(FILE* stream, const YString& styleSheet)
{
    if (!stream)
        return;
    // Only a regular file of a bounded size is copied: a device or FIFO named as the style sheet
    // (/dev/zero) would otherwise be copied until the disk is full. Anything else counts as a sheet that
    // does not open.
    try {
        includeStyleSheet(stream, styleSheet);
    } catch (...) {
        // Memory ran out: the style block ends where it got to.
    }
}

// Only a file that cannot be created, or memory that runs out, fails a builder; a write that fails part
// way is not reported here (the checked writers report it).
namespace {
bool created(reports::Written written)
{
    return written == reports::Written::Complete || written == reports::Written::Incomplete;
}
} // namespace

bool sp_BuildMonteCarloHTMLReport(const YString& path, const YString& styleSheet, const YHashTable<XMLReportInfo>& table,
                                  const XMLReportHeader& header)
{
    return created(reports::writeLog(path, styleSheet, table, header, true));
}

bool sp_BuildWorstCaseHTMLReport(const YString& path, const YString& styleSheet, const YHashTable<XMLReportInfo>& table,
                                 const XMLReportHeader& header)
{
    return created(reports::writeLog(path, styleSheet, table, header, false));
}

bool sp_BuildHTMLSensitivityReport(const YString& path, const YString& styleSheet, const YHashTable<XMLReportInfo>& table,
                                   const XMLReportHeader& header, int sortColumn)
{
    return created(reports::writeSensitivity(path, styleSheet, table, header, sortColumn));
}

reports::Written reports::writeSensitivity(const YString& path, const YString& styleSheet,
                                           const YHashTable<XMLReportInfo>& table, const XMLReportHeader& header,
                                           int sortColumn)
{
    // Sorted before the file is opened, as the logs are.
    std::vector<const XMLReportInfo*> runs;
    try {
        runs = runsInSensitivityOrder(table, sortColumn);
    } catch (...) {
        return Written::OutOfMemory;
    }
    return writeReport(path, [&](FILE* f) { writeSensitivityTo(f, styleSheet, runs, header); });
}

bool sp_BuildCsvSensitivityReport(YArray<YString>* lines, const YHashTable<XMLReportInfo>& table,
                                  const XMLReportHeader& header, int sortColumn)
{
    if (!lines)
        return true;
    // Memory that runs out takes back the lines appended so far.
    const int before = lines->count();
    try {
        appendCsvReport(lines, table, header, sortColumn);
    } catch (...) {
        while (lines->count() > before)
            lines->remove(lines->count() - 1);
        return false;
    }
    return true;
}

