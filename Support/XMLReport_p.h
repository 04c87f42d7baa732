// XMLReport_p.h - run labels shared by the results reader and the reports, and the case-number and
// density rules shared by the reader and the merge.
#pragma once

#include "YString.h"

#include <climits>
#include <string>

namespace xmlreport {
/// Whether a run's case number fits a case number: a larger one would be cut to the largest and merge two
/// runs into one without a word, so the reader and the merge refuse a file with such a run.
template <class Element>
bool caseFits(const Element& run)
{
    const long long caseNumber = run->getAttributeInt64("case", 0);
    return caseNumber >= INT_MIN && caseNumber <= INT_MAX;
}

/// The label of a run name ("Refdes:R1/DevParam:R/Term:1") at a detail level from 1 to 5: "Lot: ...",
/// "Ref: ..." or "Var: ..." with more of the name's items as the level grows; the name itself at 5.
YString makeRunLabel(const YString& name, int detail);

/// Whether a table of `runs` runs by `width` merit functions is too large for the `values` values the
/// files hold: the reader refuses such files, which a sparse file crafted to exhaust memory would be,
/// and the merge refuses to write one. `held` values the table held before the files were read count
/// as already given: only what the files add is weighed.
bool tooSparse(long long width, long long runs, long long values, long long held = 0);

/// How the reader knows a results file: `place`, its canonical path, or the absolute path of a file that
/// does not exist (the name it is shown by); `key`, the file's own key where it has one
/// (filereplace::fileKey), so that every name of one file (links, and on Windows another case, a short
/// name or the long form) is one key, else the place. A file is read once per key.
struct ReadFileKey {
    std::string place;
    std::string key;
};
ReadFileKey readFileKey(const YString& path);

/// Reads a results file as sp_CompileSensReportData does; when `sources` is not null, appends to it every
/// file the read took, each once, in the order met, by its place.
bool compileResults(const YString& path, YHashTable<XMLReportInfo>* table, XMLReportHeader* header,
                    std::vector<YString>* sources);
} // namespace xmlreport
