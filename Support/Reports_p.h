// Reports_p.h - the report writers behind the builders, with how far each got.
#pragma once

#include "XMLReport.h"
#include "YContainers.h"
#include "YString.h"

namespace reports {

// How far a report got: its file not created, created but not every byte written (a full disk, a
// file-size limit, a failed close), or written whole.
enum class Written { NotCreated, Incomplete, Complete };

// The Monte Carlo log (`monteCarlo`) or the worst-case log.
Written writeLog(const YString& path, const YString& styleSheet, const YHashTable<XMLReportInfo>& table,
                 const XMLReportHeader& header, bool monteCarlo);
// The sensitivity page, rows sorted by `sortColumn`.
Written writeSensitivity(const YString& path, const YString& styleSheet, const YHashTable<XMLReportInfo>& table,
                         const XMLReportHeader& header, int sortColumn);

} // namespace reports
