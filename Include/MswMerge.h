// MswMerge.h - one results file made from the results files of parts of a run set (one per core, job
// or machine), with a record of where each run came from.
#pragma once

#include "RunStatistics.h"
#include "SupportQtExport.h"
#include "XMLReport.h"
#include "YString.h"

#include <vector>

/// What a merge did.
struct MswMergeSummary {
    long long runs = 0;                   ///< runs written (steps and runs that have only merit values)
    long long renumbered = 0;             ///< runs given a new case number
    std::vector<long long> shardRuns;     ///< runs of each shard, in the order given
    std::vector<XMLMeritFunction> meritFunctions; ///< the merit functions, as the output has them
    /// Per merit function, the summary of its values over all shards: each shard is summarised alone
    /// and the summaries merged, so memory does not grow with the number of runs.
    std::vector<MomentSummary> merits;
};

/// Merges the results files `shards` into one results file `output` that reads as all of them together.
/// Each shard is read as the results reader reads it (its appended files included, to the same depth)
/// and copied, values as written, into the output; only one shard is held in memory at a time.
///
/// Every shard must have the same merit functions (defining text and name, in the same order); the
/// output has them once. The output's header is the last one met that the reader would take (a header
/// without a core id), with "numcores" the sum of the shards' core counts. A "shards" element after the
/// header lists each shard's path and run count, and each "step" carries the attribute "shard" (the
/// shard's position in `shards`, from 1). Runs keep their case numbers. A case number that two shards
/// share fails the merge, unless `renumber` is true: then every run of a later shard whose case number
/// an earlier shard has is given the next number above all case numbers of all shards, its step carries
/// "shardcase" (the original number), and its description becomes the original one (or "Run=" and the
/// original number) followed by " (shard K case N)".
///
/// The output is written as `sp_ReplaceFileContent` writes a file: whole or not at all. False with a
/// one-line reason in `*message` (when not null) when a shard cannot be read, the output is a shard or a
/// file that a shard appends (by any name that leads to it), two shards read one file (one appends the
/// other, or both append it: its runs would be merged twice), the merit functions differ, a case number
/// collides without `renumber`, there are no shards, the output would be too large for the reader
/// (`YDomDocument::kMaxFileBytes`) or too sparse for it (shards that each load can hold together too few
/// values for a table of all their runs by their merit functions), or the output cannot be written.
/// `summary` (when not null) is filled on success. `outputReadBy` (when not null) is set to the position in
/// `shards` (from 0) of the shard that reads the output when that is why the merge is refused, else -1.
[[nodiscard]] SUPPORTQT_API bool sp_MergeMswFiles(const std::vector<YString>& shards, const YString& output,
                                                  bool renumber, YString* message, MswMergeSummary* summary,
                                                  int* outputReadBy = nullptr);

/// Reads the results file `path` into `table` and `header` exactly as `sp_CompileSensReportData` does,
/// and returns what it would. When `sources` is not null, appends to it every file the read took: `path`
/// itself and each file it appends (to the reader's depth), each once, in the order the reader met them,
/// as canonical absolute paths (a named file that does not exist as its absolute path). They are listed
/// whether or not the read succeeds, up to where it stopped: an output that is one of them would change
/// what `path` reads. When memory runs out during the read, nothing is listed; after it, the list may
/// be whole although the result is false.
[[nodiscard]] SUPPORTQT_API bool sp_CompileMswWithSources(const YString& path, YHashTable<XMLReportInfo>* table,
                                                          XMLReportHeader* header, std::vector<YString>* sources);
