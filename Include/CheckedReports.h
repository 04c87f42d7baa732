// CheckedReports.h - the HTML logs and the sensitivity page written with a result that says whether
// every byte reached the file, for callers that must not take a cut report for a whole one.
#pragma once

#include "SupportQtExport.h"
#include "XMLReport.h"
#include "YContainers.h"
#include "YString.h"

/// Writes exactly what `sp_BuildMonteCarloHTMLReport` writes. True only when the file was created and
/// every byte reached it and it closed cleanly; false when it cannot be created, and when a write or the
/// close fails part way (a full disk, a file-size limit), which leaves the file holding part of the log.
[[nodiscard]] SUPPORTQT_API bool sp_WriteMonteCarloLogChecked(const YString& path, const YString& styleSheet,
                                                              const YHashTable<XMLReportInfo>& table,
                                                              const XMLReportHeader& header);
/// The same for the worst-case log (`sp_BuildWorstCaseHTMLReport`).
[[nodiscard]] SUPPORTQT_API bool sp_WriteWorstCaseLogChecked(const YString& path, const YString& styleSheet,
                                                             const YHashTable<XMLReportInfo>& table,
                                                             const XMLReportHeader& header);
/// The same for the sensitivity page (`sp_BuildHTMLSensitivityReport`, rows sorted by `sortColumn`).
[[nodiscard]] SUPPORTQT_API bool sp_WriteSensitivityReportChecked(const YString& path, const YString& styleSheet,
                                                                  const YHashTable<XMLReportInfo>& table,
                                                                  const XMLReportHeader& header, int sortColumn);
