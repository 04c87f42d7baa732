// Reports_p.h - the report writers behind the builders, with how far each got.
#pragma once

#include "Reports.h"
#include "XMLReport.h"
#include "YContainers.h"
#include "YString.h"

#include <cstddef>

namespace reports {

// How far a report got: its file not created, created but not every byte written (a full disk, a
// file-size limit, a failed close), or written whole; or memory ran out (before the file was opened
// when sorting the runs took it all, else part way through the file, which is then removed).
enum class Written { NotCreated, Incomplete, Complete, OutOfMemory };

// Sorts report keys with `ReportSortKey::compare` as the C library's merge-sorting qsort does: the same
// comparisons in the same order, so that the asymmetric comparator puts equal keys in the same places.
// Unlike that qsort, which falls back to a quicksort that runs off the array on such a comparator when
// it cannot get memory, it reads nothing outside the array whatever the comparator answers. Throws
// std::bad_alloc when memory runs out.
void sortKeys(ReportSortKey** keys, size_t n);

// The Monte Carlo log (`monteCarlo`) or the worst-case log.
Written writeLog(const YString& path, const YString& styleSheet, const YHashTable<XMLReportInfo>& table,
                 const XMLReportHeader& header, bool monteCarlo);
// The sensitivity page, rows sorted by `sortColumn`.
Written writeSensitivity(const YString& path, const YString& styleSheet, const YHashTable<XMLReportInfo>& table,
                         const XMLReportHeader& header, int sortColumn);

} // namespace reports
