#!/usr/bin/env bash
# Puts small faults into a scratch copy of the tree, one at a time, and runs
# the tests against each: a fault the tests do not notice marks a test that
# is missing.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
tree=$(cd "$here/../.." && pwd)
jobs=2
keep=0
scratch=
mode=run
patches=()

usage() {
  cat <<EOF
Usage: tests/mutation/run.sh [-j N] [--keep | --scratch DIR] [--list | --check | --matrix] [PATCH...]

Applies each fault (PATCH: a name, NAME.patch or a path; all of
tests/mutation/*.patch when none is named) one at a time to a scratch copy
of the working tree (its tracked and untracked, not ignored files, with
their uncommitted changes), builds it (once in full, then incrementally),
runs the tests (ctest without the whole-suite and line-variant runs,
stopping at the first failure) and prints each fault as

  killed    NAME  (the first failing test)
  killed    NAME  (no-build: the fault stops the build)
  survived  NAME
  no-apply  NAME  (an error of the check: rewrite the patch)
  equivalent NAME (listed in tests/mutation/EQUIVALENT, not run)

then the score: killed / (run faults). Exit status 0 only when every fault
not listed in EQUIVALENT was killed. Takes minutes: run it as
"nice -n 10 tests/mutation/run.sh" on a shared machine.

  -j N     build and test jobs (default 2)
  --keep   keep the scratch copy and its build (path printed at the end)
  --scratch DIR
           use and keep DIR as the scratch copy: a second run brings it up
           to the tree's files and rebuilds only what changed
  --list   list the faults and whether each is equivalent, run nothing
  --check  only check that every fault applies cleanly to this tree
  --matrix run every test against each fault instead of stopping at the
           first failure, and print every test that fails:
             killed    NAME  (TEST TEST ...)
           A test that is no fault's only killer and pins nothing else
           can go; one that is must stay.
  -h       this text
EOF
}

while (($#)); do
  case $1 in
    -j) [[ $# -ge 2 && $2 =~ ^[1-9][0-9]*$ ]] || { usage >&2; exit 2; }; jobs=$2; shift 2 ;;
    -j*) jobs=${1#-j}; [[ $jobs =~ ^[1-9][0-9]*$ ]] || { usage >&2; exit 2; }; shift ;;
    --keep) keep=1; shift ;;
    --scratch) [[ $# -ge 2 ]] || { usage >&2; exit 2; }; scratch=$2; keep=1; shift 2 ;;
    --list) mode=list; shift ;;
    --check) mode=check; shift ;;
    --matrix) mode=matrix; shift ;;
    -h|--help) usage; exit 0 ;;
    -*) echo "run.sh: unknown option $1" >&2; usage >&2; exit 2 ;;
    *) patches+=("$1"); shift ;;
  esac
done

# The patch file a command-line name stands for.
patch_file() {
  local name=$1
  if [[ -f $name ]]; then realpath "$name"; return; fi
  name=${name%.patch}
  if [[ -f $here/$name.patch ]]; then echo "$here/$name.patch"; return; fi
  echo "run.sh: no fault named $1 in $here" >&2
  exit 2
}

if ((${#patches[@]})); then
  for i in "${!patches[@]}"; do patches[i]=$(patch_file "${patches[i]}"); done
else
  patches=("$here"/*.patch)
fi

# The reason a fault is listed as equivalent, empty when it is not.
equivalent_reason() {
  local name=$1
  awk -v n="$name" '$1 == n { $1 = ""; sub(/^ +/, ""); print; exit }' "$here/EQUIVALENT"
}

# Applies (or reverts, with -R) a fault exactly: no fuzz, no questions.
apply() { patch -p1 --fuzz=0 --batch --silent --no-backup-if-mismatch -d "$1" "${@:3}" <"$2"; }

if [[ $mode == list ]]; then
  for p in "${patches[@]}"; do
    name=$(basename "$p" .patch)
    reason=$(equivalent_reason "$name")
    if [[ -n $reason ]]; then printf '%-40s equivalent: %s\n' "$name" "$reason"; else echo "$name"; fi
  done
  exit 0
fi

if [[ $mode == check ]]; then
  failed=0
  for p in "${patches[@]}"; do
    if ! apply "$tree" "$p" --dry-run >/dev/null 2>&1; then
      echo "no-apply  $(basename "$p" .patch): rewrite it against the current code" >&2
      failed=1
    fi
  done
  while read -r name _; do
    [[ -z $name || $name == \#* ]] && continue
    [[ -f $here/$name.patch ]] || { echo "EQUIVALENT names $name, which has no patch" >&2; failed=1; }
  done <"$here/EQUIVALENT"
  ((failed == 0)) && echo "all ${#patches[@]} faults apply cleanly"
  exit "$failed"
fi

if [[ -n $scratch ]]; then
  mkdir -p "$scratch"
  scratch=$(realpath "$scratch")
else
  scratch=$(mktemp -d "${TMPDIR:-/tmp}/zeltocom-mutation.XXXXXX")
fi
cleanup() {
  if ((keep)); then echo "scratch copy kept in $scratch"; else rm -rf "$scratch"; fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# The working tree as it stands, uncommitted changes and new files
# included, deleted files left out. Only files whose content differs are
# copied, so that a scratch copy used again rebuilds only what changed.
(cd "$tree" && git ls-files -z --cached --others --exclude-standard) |
  while IFS= read -r -d '' f; do
    [[ -f $tree/$f ]] || continue
    cmp -s "$tree/$f" "$scratch/$f" && continue
    mkdir -p "$(dirname "$scratch/$f")" && cp -p "$tree/$f" "$scratch/$f" && touch "$scratch/$f"
  done
src=$scratch
build=$scratch/build
log=$scratch/log

build_tree() { cmake --build "$build" -j "$jobs" >"$log" 2>&1; }

# Runs the tests; prints the first failing test's name and fails when one
# fails. A hanging test ends at its own ctest time-out, and counts. A test
# that fails is run once more: on a loaded machine a timing test may fail
# once without any fault.
run_tests() {
  # Without the times of earlier runs ctest keeps the order the tests are
  # defined in: the unit tests, which end most faults in seconds, first.
  rm -f "$build/Testing/Temporary/CTestCostData.txt"
  local stop=--stop-on-failure count=$jobs limit=300
  # The sleeping time-out tests leave the cores idle: the matrix runs more,
  # and a fault that hangs many tests must not cost minutes for each.
  [[ $mode == matrix ]] && stop= count=$((jobs * 3)) limit=60
  if ctest --test-dir "$build" -j "$count" $stop --timeout "$limit" --repeat until-pass:2 \
      -LE 'whole-suite|line-variant' -E '^MutationPatchesApply$' >"$log" 2>&1; then
    return 0
  fi
  local failed
  if [[ $mode == matrix ]]; then
    # Only a test that failed its second try too is listed after the run.
    failed=$(sed -n '/tests FAILED:/,$s/^[[:space:]]*[0-9]* - \([^ ]*\) .*/\1/p' "$log")
  else
    failed=$(sed -nE 's/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: ([^ ]+) .*\*\*\*.*/\1/p' "$log" | head -n1)
  fi
  echo "${failed:-ctest failed}" | tr '\n' ' ' | sed 's/ $//'
  return 1
}

echo "scratch copy of $tree in $scratch; building with -j $jobs"
cmake -S "$src" -B "$build" >"$log" 2>&1 || { cat "$log" >&2; echo "run.sh: configure failed" >&2; exit 2; }
build_tree || { tail -n 40 "$log" >&2; echo "run.sh: the unchanged tree does not build" >&2; exit 2; }
# Against a suite that fails already every fault would count as killed.
if failing=$(run_tests); then :; else
  tail -n 30 "$log" >&2
  echo "run.sh: the tests fail on the unchanged tree ($failing)" >&2
  exit 2
fi

killed=0 survived=0 ran=0 broken=0 equivalent=0
for p in "${patches[@]}"; do
  name=$(basename "$p" .patch)
  reason=$(equivalent_reason "$name")
  if [[ -n $reason ]]; then
    printf 'equivalent %s  (%s)\n' "$name" "$reason"
    equivalent=$((equivalent + 1))
    continue
  fi
  if ! apply "$src" "$p" >/dev/null 2>&1; then
    printf 'no-apply  %s  (rewrite it against the current code)\n' "$name"
    broken=$((broken + 1))
    continue
  fi
  ran=$((ran + 1))
  if ! build_tree; then
    printf 'killed    %s  (no-build: the fault stops the build)\n' "$name"
    killed=$((killed + 1))
  elif failing=$(run_tests); then
    printf 'survived  %s\n' "$name"
    survived=$((survived + 1))
  else
    printf 'killed    %s  (%s failed)\n' "$name" "$failing"
    killed=$((killed + 1))
  fi
  apply "$src" "$p" -R
done

# A kept scratch build matches its tree again.
((keep == 0 || ran == 0)) || build_tree || true

if ((ran > 0)); then
  echo "score: $killed / $ran killed ($((100 * killed / ran)) %), $equivalent equivalent not run"
else
  echo "score: no fault ran, $equivalent equivalent not run"
fi
((broken == 0)) || echo "run.sh: $broken faults do not apply: rewrite them against the current code" >&2
((survived == 0 && broken == 0))
