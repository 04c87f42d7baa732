#!/usr/bin/env bash
# A Monte Carlo run spread over a cluster with a Slurm job array: each array task simulates one shard
# of the runs and writes its own results file into a shared folder; a last job, started only when every
# task has succeeded, merges the shards and writes the statistics.
#
# Submit from a folder that every node sees:   sbatch montecarlo_slurm.sh
# Environment as for montecarlo_parallel.sh (SIMULATOR, RUNS, SEED, SUPPORTQT); the array size is the
# number of shards.
#SBATCH --job-name=montecarlo
#SBATCH --array=0-31
#SBATCH --cpus-per-task=1
#SBATCH --output=montecarlo-out/logs/shard_%a.log
set -euo pipefail
here="${SLURM_SUBMIT_DIR:-$(pwd)}"
out="$here/montecarlo-out"
simulator="${SIMULATOR:-python3 $here/standin_simulator.py}"
runs="${RUNS:-50}"
seed="${SEED:-1}"
supportqt="${SUPPORTQT:-supportqt}"
mkdir -p "$out/shards" "$out/logs"

$simulator --shard "$SLURM_ARRAY_TASK_ID" --runs "$runs" --seed "$seed" -o "$out/shards/shard_$SLURM_ARRAY_TASK_ID.msw"

# The first task submits the merge, to run once the whole array has finished without failure.
if [ "$SLURM_ARRAY_TASK_ID" = "${SLURM_ARRAY_TASK_MIN:-0}" ]; then
  sbatch --dependency="afterok:$SLURM_ARRAY_JOB_ID" --job-name=montecarlo-merge \
         --output="$out/logs/merge.log" --wrap \
         "'$supportqt' merge '$out'/shards/shard_*.msw -o '$out/merged.msw' &&
          '$supportqt' stats '$out/merged.msw' --limits '$here/limits.csv' --html '$out/statistics.html' > '$out/statistics.txt'"
fi
