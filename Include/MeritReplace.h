// MeritReplace.h - a merit function of a results file given new values, in place.
#pragma once

#include "SupportQtExport.h"
#include "XMLReport.h"
#include "YString.h"

/// Gives the first merit function named `name` (compared byte for byte) of a results file the defining
/// text `value` and new values, and writes the file back, as `sp_AppendMeritData` does for a new one:
/// read as `sp_CompileSensReportData` reads it, appended files included, and written as one file without
/// "append" by `sp_WriteMswFile` (so, as there, without a merged file's record of its shards). The merit
/// function keeps its place among the others; values[k] becomes its value in the run of case cases[k],
/// and every run that `cases` does not name gets 0.
///
/// False, with the file untouched, when the lists differ in length, a case is given twice, the file
/// cannot be read, no merit function has that name, or a named case is missing or its run holds fewer
/// values than there are merit functions; otherwise the writer's result (on false the file is as it was).
/// The reader gives every run as many values as the reference run (case 1) holds, a value the file lacks
/// reading 0: so a run is refused only for a value the reference run lacks too (or when there is none),
/// and the rewrite writes the 0 of any other missing value.
[[nodiscard]] SUPPORTQT_API bool sp_ReplaceMeritData(const YString& path, const YString& value, const YString& name,
                                                     const YVector<double>& values, const YVector<int>& cases);
