#!/usr/bin/env python3
"""Runs the benchmark programs and the reference commands on the same inputs in the same run, and
prints one table: case, our time, reference time, ratio, goal, met or not.

Usage: benchtable.py BUILD_DIR DATA_DIR [CASES]
Each row of CASES names a Google Benchmark (program, benchmark name) and a reference: either a shell
command timed here (best of several runs) or another benchmark. Memory rows run a program and read
its peak resident memory from wait4.
"""
import json
import os
import re
import subprocess
import sys
import time

# (case, (program, benchmark), reference, goal ratio); reference is ("cmd", shell text with {data})
# or ("bench", program, benchmark).
CASES = [
    ("SpiceStream::gets, 64 MiB LF", ("supportqt_bench_netlist", "BM_SpiceStreamLf"),
     ("cmd", "wc -l {data}/netlist_lf.cir"), 4.0),
    ("SpiceStream::gets, 64 MiB CR LF", ("supportqt_bench_netlist", "BM_SpiceStreamCrLf"),
     ("cmd", "wc -l {data}/netlist_crlf.cir"), 4.0),
    ("NewSpiceStream::gets, 64 MiB LF", ("supportqt_bench_netlist", "BM_NewSpiceStreamLf"),
     ("cmd", "wc -l {data}/netlist_lf.cir"), 5.0),
    ("NewSpiceStream::gets, 64 MiB CR LF", ("supportqt_bench_netlist", "BM_NewSpiceStreamCrLf"),
     ("cmd", "wc -l {data}/netlist_crlf.cir"), 5.0),
    # The readers' floor, in two parts measured apart (no goal): the gets interface handing the same
    # logical lines, already split in memory, into the caller's string; and the file's bytes read through
    # the same stream and scanned run by run with the readers' vector kernel. The sum rows compare each
    # reader with its own two floors.
    ("floor: the gets interface alone, 64 MiB LF", ("supportqt_bench_netlist", "BM_FloorInterfaceLf"),
     ("cmd", "wc -l {data}/netlist_lf.cir"), None),
    ("floor: the vector scan alone, 64 MiB LF", ("supportqt_bench_netlist", "BM_FloorScanLf"),
     ("cmd", "wc -l {data}/netlist_lf.cir"), None),
    ("SpiceStream::gets vs the sum of its two floors, 64 MiB LF", ("supportqt_bench_netlist", "BM_SpiceStreamLf"),
     ("sum", "supportqt_bench_netlist", ["BM_FloorInterfaceLf", "BM_FloorScanLf"]), 1.3),
    ("NewSpiceStream::gets vs the sum of its two floors, 64 MiB LF", ("supportqt_bench_netlist", "BM_NewSpiceStreamLf"),
     ("sum", "supportqt_bench_netlist", ["BM_FloorLiteralInterfaceLf", "BM_FloorLiteralScanLf"]), 1.3),
    # No goal: the same lines with their kinds in a fixed order that repeats, against the random order of
    # the rows above. Neither floor decides anything per line; this shows what the unpredictable line
    # kinds cost a reader.
    ("floor: SpiceStream::gets, line kinds in a fixed pattern vs in random order, 64 MiB LF",
     ("supportqt_bench_netlist", "BM_SpiceStreamPatternLf"), ("bench", "supportqt_bench_netlist", "BM_SpiceStreamLf"),
     None),
    ("floor: NewSpiceStream::gets, line kinds in a fixed pattern vs in random order, 64 MiB LF",
     ("supportqt_bench_netlist", "BM_NewSpiceStreamPatternLf"),
     ("bench", "supportqt_bench_netlist", "BM_NewSpiceStreamLf"), None),
    ("sp_LoadFile, 64 MiB UTF-16 LE CR LF", ("supportqt_bench_netlist", "BM_LoadFileUtf16"),
     ("cmd", "iconv -f UTF-16 -t UTF-8 {data}/netlist_utf16.cir | tr -d '\\r'"), 2.0),
    ("sp_IndexModelLibrary, 500 MiB library", ("supportqt_bench_model_library", "BM_ModelLibraryIndex500MB"),
     ("cmd", "wc -l {data}/library_500m.lib"), 5.0),
    # A reference to a section that a file lacks is looked up as fast as one to a section it has, and a
    # UTF-16 library is decoded once per comparison, not once per definition read.
    ("sp_ResolveModelSection, 20,000 references to missing sections vs to present ones",
     ("supportqt_bench_model_library", "BM_ResolveMissingSections"),
     ("bench", "supportqt_bench_model_library", "BM_ResolvePresentSections"), 2.0),
    # Sections resolved one after another over one cache look at each file once: four times the
    # sections, each with a file of its own, take four times as long, not sixteen.
    ("sp_CheckModelLibrary, 4,000 sections with a file each vs 1,000",
     ("supportqt_bench_model_library", "BM_CheckSectionsWithFiles4000"),
     ("bench", "supportqt_bench_model_library", "BM_CheckSectionsWithFiles1000"), 6.0),
    ("sp_ResolveEachModelSection, 4,000 sections with a file each vs 1,000",
     ("supportqt_bench_model_library", "BM_EachSectionWithFiles4000"),
     ("bench", "supportqt_bench_model_library", "BM_EachSectionWithFiles1000"), 6.0),
    ("sp_DiffModelLibraries, 16,000 models in UTF-16 vs in UTF-8",
     ("supportqt_bench_model_library", "BM_DiffUtf16Libraries"),
     ("bench", "supportqt_bench_model_library", "BM_DiffUtf8Libraries"), 2.0),
    # A long format costs what its length does: Qt formatting the same text 1,200 characters at a time.
    ("sp_GetDateUserFormat, 200,000 \"h\" vs Qt in formats of 1,200", ("supportqt_bench_dates", "BM_DateFormatOneRun"),
     ("bench", "supportqt_bench_dates", "BM_DateFormatOneRunQt"), 2.0),
    ("sp_GetDateUserFormat, 66,666 \"hh:\" vs Qt in formats of 1,200", ("supportqt_bench_dates", "BM_DateFormatFields"),
     ("bench", "supportqt_bench_dates", "BM_DateFormatFieldsQt"), 2.0),
    # A long wildcard costs the partial matches under way at each character, not its length.
    ("sp_GlobMatch, 20,000-character wildcard vs 20 in 1,000,000 letters", ("supportqt_bench_patterns", "BM_GlobLongPattern"),
     ("bench", "supportqt_bench_patterns", "BM_GlobShortPattern"), 2.0),
    ("LibraryStream, definition at end of 50 MiB", ("supportqt_bench_netlist", "BM_LibraryStreamInLibrary"),
     ("bench", "supportqt_bench_netlist", "BM_LibraryStreamAlone"), 2.0),
    ("sp_CompileSensReportData, 100k runs", ("supportqt_bench_results", "BM_CompileSensReport100k"),
     ("cmd", "xmllint --noout {data}/results_100k.msw"), 1.0),
    ("sp_WriteMswFile, 100k runs", ("supportqt_bench_results", "BM_WriteMswFile100k"),
     ("cmd", "xmllint --noout {data}/results_100k.msw"), 1.0),
    ("sp_CompileSensReportData vs python3 ElementTree", ("supportqt_bench_results", "BM_CompileSensReport100k"),
     ("cmd", "python3 {scripts}/benchmsw.py {data}/results_100k.msw"), 0.2),
    ("sp_CompileSensReportData, 100k vs 10k runs", ("supportqt_bench_results", "BM_CompileSensReport100k"),
     ("bench", "supportqt_bench_results", "BM_CompileSensReport10k"), 11.0),
    ("sp_CompileSensReportData, 1M vs 100k runs", ("supportqt_bench_results", "BM_CompileSensReport1M"),
     ("bench", "supportqt_bench_results", "BM_CompileSensReport100k"), 11.0),
    ("sp_CompileSensReportData, 65535 runs, cases 32768 apart vs 1 apart",
     ("supportqt_bench_results", "BM_CompileSensReportSpread"),
     ("bench", "supportqt_bench_results", "BM_CompileSensReportSequential"), 2.0),
    ("SpiceStream::gets, one 100 MB line vs ten of 10 MB", ("supportqt_bench_netlist", "BM_SpiceStreamOneLine100MB"),
     ("bench", "supportqt_bench_netlist", "BM_SpiceStreamTenLines10MB"), 2.0),
    ("NewSpiceStream::gets, one 100 MB line vs ten of 10 MB",
     ("supportqt_bench_netlist", "BM_NewSpiceStreamOneLine100MB"),
     ("bench", "supportqt_bench_netlist", "BM_NewSpiceStreamTenLines10MB"), 2.0),
    # No goal: the floor of the two rows above. Any reader that keeps a line three times (its line buffer,
    # its record of the text, the caller's string) copies these bytes; one 100 MB line outgrows the
    # processor's cache and is touched fresh where ten lines of 10 MB reuse theirs.
    ("floor: three copies of one 100 MB line vs ten of 10 MB", ("supportqt_bench_netlist", "BM_CopyFloorOneLine100MB"),
     ("bench", "supportqt_bench_netlist", "BM_CopyFloorTenLines10MB"), None),
    ("kvfe_ParseTreboltCommands, 4 MB .print line vs SpiceStream",
     ("supportqt_bench_netlist", "BM_TreboltLongPrint"),
     ("bench", "supportqt_bench_netlist", "BM_SpiceStreamLongPrint"), 20.0),
    ("sp_BuildHTMLSensitivityReport, 100k runs", ("supportqt_bench_results", "BM_HtmlSensitivity100k"),
     ("bench", "supportqt_bench_results", "BM_FprintfHtmlBytes100k"), 3.0),
    ("sp_BuildCsvSensitivityReport, 100k runs", ("supportqt_bench_results", "BM_CsvSensitivity100k"),
     ("bench", "supportqt_bench_results", "BM_FprintfCsvBytes100k"), 3.0),
    ("sp_BuildHTMLSensitivityReport, 100k vs 10k runs", ("supportqt_bench_results", "BM_HtmlSensitivity100k"),
     ("bench", "supportqt_bench_results", "BM_HtmlSensitivity10k"), 12.0),
]

# (case, our command, reference command, goal ratio): both are whole processes, timed the same way with
# their output written to a file (grep stops at its first match when its output is /dev/null).
COMMAND_CASES = [
    ("supportqt index, 50 MiB library", "{bin}/supportqt index {data}/library.lib",
     "grep -c -i '^[.]subckt' {data}/library.lib", 3.0),
    # A shard named twice is found by each file's identity, not by comparing files of one size in pairs.
    ("supportqt merge, 4,000 shards of one size vs of 4,000 sizes",
     "{bin}/supportqt merge {data}/shards_same/*.msw -o {data}/merged_same.msw",
     "{bin}/supportqt merge {data}/shards_sized/*.msw -o {data}/merged_sized.msw", 2.0),
]

# (case, our command, reference command or None, goal): without a reference the goal is a limit in MiB,
# with one it is the largest ratio of the two peaks; a reference "size FILE" is the file's size instead.
MEMORY_CASES = [
    ("SpiceStream, 1 GiB netlist, peak RSS", "{bin}/supportqt_bench_memory netlist {data}/netlist_1g.cir", None, 32.0),
    # A UTF-16 netlist is read through a UTF-8 copy written a block at a time, not decoded whole.
    ("SpiceStream, 64 MiB UTF-16 netlist, peak RSS", "{bin}/supportqt_bench_memory netlist {data}/netlist_utf16.cir", None, 32.0),
    ("sp_CompileSensReportData, 100k runs, peak RSS", "{bin}/supportqt_bench_memory results {data}/results_100k.msw",
     "xmllint --noout {data}/results_100k.msw", 0.5),
    ("sp_CompileSensReportData, 100k runs, peak RSS vs file size",
     "{bin}/supportqt_bench_memory results {data}/results_100k.msw", "size {data}/results_100k.msw", 3.0),
    ("sp_CompileSensReportData, 1M runs, peak RSS vs file size",
     "{bin}/supportqt_bench_memory results {data}/results_1m.msw", "size {data}/results_1m.msw", 3.0),
]

# (case, (program, benchmark), budget in seconds): a goal stated as a rate or a time of its own, with no
# reference to measure against; the row shows the budget as its reference.
BUDGET_CASES = [
    ("run statistics, 1M runs x 4 merit functions in a table (goal 100 M values/s)",
     ("supportqt_bench_stats", "BM_RunStatistics1Mx4"), 0.040),
    ("run statistics, 1M x 4 values in arrays (goal 100 M values/s)",
     ("supportqt_bench_stats", "BM_SummariseValues1Mx4"), 0.040),
    ("merging 1,000 run summaries", ("supportqt_bench_stats", "BM_MergeSummaries1000"), 0.010),
]

SCALE = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}


# Rounds per case. Each round measures our side and the reference one after the other, and each side
# keeps its best round, so that a change in the machine's load hits both sides alike. The rounds are
# spread over PASSES passes through the whole table, so that a case's rounds lie minutes apart and a
# slow spell of a shared machine does not decide a case alone. SUPPORTQT_BENCH_PASSES overrides it.
ROUNDS = 3
PASSES = int(os.environ.get("SUPPORTQT_BENCH_PASSES", "3"))


def run_benchmarks(bin_dir, program, names, data, repetitions=2):
    out = subprocess.run([os.path.join(bin_dir, program), "--benchmark_format=json",
                          "--benchmark_repetitions=%d" % repetitions,
                          "--benchmark_filter=^(" + "|".join(names) + ")(/|$)"],
                         env=dict(os.environ, SUPPORTQT_BENCH_DATA=data),
                         check=True, stdout=subprocess.PIPE).stdout
    result = {}
    for b in json.loads(out)["benchmarks"]:
        if b.get("error_occurred"):
            raise SystemExit("%s: %s" % (b["name"], b.get("error_message")))
        if b.get("run_type") == "aggregate":
            continue
        # The best repetition, as for the reference commands.
        name = b["name"].split("/")[0]
        seconds = b["real_time"] * SCALE[b["time_unit"]]
        result[name] = min(seconds, result.get(name, seconds))
    return result


def scan_level(bin_dir, data):
    """The instruction set of the netlist readers' vector kernel on this machine, as the bench reports it."""
    out = subprocess.run([os.path.join(bin_dir, "supportqt_bench_netlist"), "--benchmark_format=json",
                          "--benchmark_filter=^BM_ScanLevel(/|$)"], env=dict(os.environ, SUPPORTQT_BENCH_DATA=data),
                         stdout=subprocess.PIPE, check=False).stdout
    try:
        return json.loads(out)["benchmarks"][0].get("label", "")
    except (ValueError, KeyError, IndexError):
        return ""


def time_command(command, runs=3, output=None):
    best = None
    for _ in range(runs):
        start = time.perf_counter()
        if output:
            with open(output, "wb") as sink:
                subprocess.run(command, shell=True, check=True, stdout=sink)
        else:
            subprocess.run(command, shell=True, check=True, stdout=subprocess.DEVNULL)
        elapsed = time.perf_counter() - start
        best = elapsed if best is None else min(best, elapsed)
    return best


def peak_rss_mib(command):
    process = subprocess.Popen(command, stdout=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        raise SystemExit("%s failed with %d" % (" ".join(command), process.returncode))
    return usage.ru_maxrss / 1024.0


def fmt_time(seconds):
    if seconds >= 1:
        return "%.2f s" % seconds
    if seconds >= 1e-3:
        return "%.1f ms" % (seconds * 1e3)
    return "%.1f us" % (seconds * 1e6)


def keep_best(best, case, ours, reference):
    previous = best.get(case)
    best[case] = (ours, reference) if previous is None else (min(previous[0], ours), min(previous[1], reference))


def time_case(bin_dir, data, scripts, program, name, ref):
    """One round of a benchmark case: our time, then the reference time.

    Every benchmark runs in a process of its own, so that neither side inherits the heap the other grew
    (read after the 1M-run results file in one process, the 100k-run one took 219 ms instead of 242 ms:
    the order of the two decided the ratio)."""
    ours = run_benchmarks(bin_dir, program, [name], data)[name]
    if ref[0] == "sum":  # the sum of other benchmarks of the same program, measured in the same round
        return ours, sum(run_benchmarks(bin_dir, program, [b], data)[b] for b in ref[2])
    reference = (time_command(ref[1].format(data=data, scripts=scripts)) if ref[0] == "cmd"
                 else run_benchmarks(bin_dir, ref[1], [ref[2]], data)[ref[2]])
    return ours, reference


def ratio_row(case, ours, reference, goal):
    ratio = ours / reference
    if goal is None:  # a floor, shown beside the rows it bounds
        return (case, fmt_time(ours), fmt_time(reference), "%.2f" % ratio, "-", "-"), True
    met = ratio <= goal
    return (case, fmt_time(ours), fmt_time(reference), "%.2f" % ratio, "<= %g" % goal, "yes" if met else "NO"), met


def main():
    build, data = sys.argv[1], sys.argv[2]
    # An optional third argument keeps only the cases whose names match it (a regular expression).
    chosen = re.compile(sys.argv[3] if len(sys.argv) > 3 else "")
    scripts = os.path.dirname(os.path.abspath(__file__))
    bin_dir = os.path.join(build, "bin")
    sink = os.path.join(data, "command-output.txt")
    cases = [c for c in CASES if chosen.search(c[0])]
    command_cases = [c for c in COMMAND_CASES if chosen.search(c[0])]
    budget_cases = [c for c in BUDGET_CASES if chosen.search(c[0])]
    best = {}
    budget_best = {}
    for _ in range(PASSES):
        for case, (program, name), budget in budget_cases:
            seconds = run_benchmarks(bin_dir, program, [name], data)[name]
            budget_best[case] = min(seconds, budget_best.get(case, seconds))
        for case, (program, name), ref, goal in cases:
            for _ in range(ROUNDS):
                keep_best(best, case, *time_case(bin_dir, data, scripts, program, name, ref))
        for case, ours_cmd, ref_cmd, goal in command_cases:
            for _ in range(ROUNDS):
                ours = time_command(ours_cmd.format(bin=bin_dir, data=data), output=sink)
                reference = time_command(ref_cmd.format(bin=bin_dir, data=data), output=sink)
                keep_best(best, case, ours, reference)
    rows = []
    failed = 0
    for case, _, _, goal in cases + command_cases:
        row, met = ratio_row(case, best[case][0], best[case][1], goal)
        rows.append(row)
        failed += not met
    for case, _, budget in budget_cases:
        ours = budget_best[case]
        met = ours <= budget
        rows.append((case, fmt_time(ours), fmt_time(budget) + " budget", "%.2f" % (ours / budget), "<= 1",
                     "yes" if met else "NO"))
        failed += not met
    for case, ours_cmd, ref_cmd, goal in MEMORY_CASES:
        if not chosen.search(case):
            continue
        mib = peak_rss_mib(ours_cmd.format(bin=bin_dir, data=data).split())
        if ref_cmd is None:
            met = mib < goal
            rows.append((case, "%.1f MiB" % mib, "-", "-", "< %g MiB" % goal, "yes" if met else "NO"))
        else:
            ref = ref_cmd.format(data=data)
            ref_mib = (os.path.getsize(ref[5:]) / 1048576.0 if ref.startswith("size ")
                       else peak_rss_mib(ref.split()))
            ratio = mib / ref_mib
            met = ratio <= goal
            rows.append((case, "%.1f MiB" % mib, "%.1f MiB" % ref_mib, "%.2f" % ratio, "<= %g" % goal,
                         "yes" if met else "NO"))
        failed += not met

    level = scan_level(bin_dir, data)
    if level:
        print("netlist readers' vector kernel: %s" % level)
    header = ("case", "ours", "reference", "ratio", "goal", "met")
    widths = [max(len(r[i]) for r in rows + [header]) for i in range(len(header))]
    for row in [header, tuple("-" * w for w in widths)] + rows:
        print("  ".join(cell.ljust(widths[i]) for i, cell in enumerate(row)).rstrip())
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
