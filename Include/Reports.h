// Reports.h - HTML logs of Monte Carlo and worst-case runs, and sensitivity reports in HTML and CSV.
#pragma once

#include "SupportQtExport.h"
#include "XMLReport.h"
#include "YContainers.h"
#include "YString.h"

#include <cstdio>

/// A run's sort key. Numbers compare by absolute value; only the first entry's `descending` flag is
/// consulted, so in descending order two equal keys each sort before the other (kept on purpose).
struct SUPPORTQT_API ReportSortKey {
    bool descending = false;
    bool byText = false;
    double number = 0.0;
    YString text;
    int caseNumber = 0;

    /// qsort comparator over an array of `ReportSortKey*`: negative when *a goes first.
    static int compare(const void* a, const void* b);
    /// The same on two keys.
    static int compareKeys(const ReportSortKey& a, const ReportSortKey& b);
};

/// Writes the style block: the style sheet file's bytes between "<style>" lines, or, when it cannot be
/// read, a built-in block indented by two tabs. Only a regular file of at most 16 MiB is copied; a
/// device, a FIFO or a larger file counts as a sheet that cannot be read. `stream` stays open and the
/// caller's.
SUPPORTQT_API void sp_IncludeTableStyleSheet(FILE* stream, const YString& styleSheet);
/// The HTML log of a Monte Carlo run: header, results, seeds and each run's parameters, runs in order of
/// their case numbers' absolute values (-2 after 1), by the sort key above. False only when the file cannot be created: a write that fails part way (a full disk, a
/// file-size limit) is ignored and leaves part of the log (`CheckedReports.h` reports it). Text is
/// written as it is (no HTML escaping).
[[nodiscard]] SUPPORTQT_API bool sp_BuildMonteCarloHTMLReport(const YString& path, const YString& styleSheet,
                                                              const YHashTable<XMLReportInfo>& table,
                                                              const XMLReportHeader& header);
/// The same log in worst-case form: no seed table.
[[nodiscard]] SUPPORTQT_API bool sp_BuildWorstCaseHTMLReport(const YString& path, const YString& styleSheet,
                                                             const YHashTable<XMLReportInfo>& table,
                                                             const XMLReportHeader& header);
/// The sensitivity table as an HTML page, rows sorted by `sortColumn` (0 case, 1 description, then per
/// merit function value, delta and norm, largest absolute value first). False only when the file cannot
/// be created; write errors are ignored, as for the logs.
[[nodiscard]] SUPPORTQT_API bool sp_BuildHTMLSensitivityReport(const YString& path, const YString& styleSheet,
                                                               const YHashTable<XMLReportInfo>& table,
                                                               const XMLReportHeader& header, int sortColumn);
/// The same table as CSV lines appended to `*lines` (no perturbation columns). Always true.
SUPPORTQT_API bool sp_BuildCsvSensitivityReport(YArray<YString>* lines, const YHashTable<XMLReportInfo>& table,
                                                const XMLReportHeader& header, int sortColumn);
