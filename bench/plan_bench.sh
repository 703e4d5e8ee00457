#!/bin/sh
# What a test plan's own work costs: a plan of 8 analysers x 8 fibers from
# start to written results (table, JSON, CSV, JUnit, SQLite), against the
# same captures made with `zeltocom capture`, and against the same plan
# with no limits, bins or outputs (its instrument work alone). Each command
# runs RUNS times against one simulated station; the medians are printed.
# Usage: bench/plan_bench.sh [BUILD_DIR] [RUNS]
set -eu
build=${1:-build}
runs=${2:-15}
work=$(mktemp -d)
sim_pid=""
trap '[ -n "$sim_pid" ] && kill "$sim_pid" 2>/dev/null; rm -rf "$work"' EXIT

"$build/zeltosim" --port serial=ZB000001,fibers=8 --station 8 >"$work/sim.out" 2>&1 &
sim_pid=$!
for _ in $(seq 50); do grep -q '^ZELTOCOM_PORTS=' "$work/sim.out" && break; sleep 0.1; done
ZELTOCOM_PORTS=$(sed -n 's/^ZELTOCOM_PORTS=//p' "$work/sim.out")
export ZELTOCOM_PORTS
ports=$(echo "$ZELTOCOM_PORTS" | tr ';' ' ')

cp "$(dirname "$0")/../examples/bins.vec" "$work/bins.vec"
plan() {  # $1: with limits and bins (1) or without (0)
  echo 'name = "bench"'
  for n in 01 02 03 04 05 06 07 08; do
    printf '[[instrument]]\nserial = "ZB000001%s"\nfibers = "1-8"\n' "$n"
  done
  if [ "$1" = 1 ]; then
    printf '[limits]\nx = [0.0, 1.0]\ny = [0.0, 1.0]\nintensity = [1, 1000000]\n'
    printf 'wavelength = [300, 800]\nbins = "bins.vec"\n'
  fi
}
plan 1 >"$work/full.toml"
plan 0 >"$work/bare.toml"

# The median wall-clock time in ms of RUNS runs of the command.
median_ms() {
  for _ in $(seq "$runs"); do
    start=$(date +%s%N)
    "$@" >/dev/null 2>&1 || [ $? -le 1 ]
    echo $((($(date +%s%N) - start) / 1000))
  done | sort -n | awk '{ t[NR] = $1 } END { printf "%.1f", t[int((NR + 1) / 2)] / 1000 }'
}

tool="$build/zeltocom"
capture=$(median_ms "$tool" capture $ports --json)
bare=$(median_ms "$tool" test "$work/bare.toml")
full=$(median_ms "$tool" test "$work/full.toml" --json --csv "$work/r.csv" \
         --junit "$work/r.xml" --db "$work/r.db")
echo "8 analysers x 8 fibers, median of $runs runs"
echo "zeltocom capture (4 readings per fiber):        $capture ms"
echo "zeltocom test, no limits, bins or outputs:      $bare ms"
echo "zeltocom test, limits, bins, JSON/CSV/JUnit/db: $full ms"
awk -v b="$bare" -v f="$full" -v c="$capture" 'BEGIN {
  printf "the plan'"'"'s own work: %+.1f %% of its instrument work; the whole plan: x%.2f of the capture\n",
         100 * (f - b) / b, f / c }'
