#!/usr/bin/env bash
# A Monte Carlo run spread over the cores of one machine with GNU parallel: each job simulates one shard
# of the runs and writes its own results file; then the shards are merged into one file and its
# statistics are written as text and as an HTML page.
#
# Usage: montecarlo_parallel.sh [OUT_DIR]
# Environment: SIMULATOR  the command that runs one shard: SIMULATOR --shard K --runs N --seed S -o FILE
#                         (default: the stand-in beside this script, which writes made-up results)
#              SHARDS     number of shards (default 8); RUNS runs per shard (default 50); SEED (default 1)
#              JOBS       jobs at a time (default: one per core); SUPPORTQT the tool (default: on PATH)
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
out="${1:-montecarlo-out}"
simulator="${SIMULATOR:-python3 $here/standin_simulator.py}"
shards="${SHARDS:-8}"
runs="${RUNS:-50}"
seed="${SEED:-1}"
supportqt="${SUPPORTQT:-supportqt}"

mkdir -p "$out/shards"
# One job per shard; --halt stops at the first failed shard, so that no merge runs on a partial set.
seq 0 $((shards - 1)) | parallel --will-cite --halt now,fail=1 ${JOBS:+-j "$JOBS"} \
    "$simulator --shard {} --runs $runs --seed $seed -o $out/shards/shard_{}.msw"

"$supportqt" merge "$out"/shards/shard_*.msw -o "$out/merged.msw"
"$supportqt" stats "$out/merged.msw" --limits "$here/limits.csv" --html "$out/statistics.html" \
    --csv "$out/statistics.csv" > "$out/statistics.txt"
echo "statistics of $((shards * runs)) runs: $out/statistics.txt and $out/statistics.html"
