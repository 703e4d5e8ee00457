#!/bin/sh
# The examples against a simulated station of two analysers, as the README
# runs them: each ends well, the station capture reads both ports, and the
# trigger example reports the pulse fired while it waits and measures the
# light that blinks at 5 Hz; the bins example tells where the one-crossing
# rule errs and bins the chromaticity a simulated fibre measures.
#   run_examples.sh ZELTOSIM EXAMPLES_DIRECTORY
set -eu
sim=$1
dir=$2
work=$(mktemp -d)
simpid=""
trap 'kill $simpid 2>/dev/null; rm -rf "$work"' EXIT
. "$(dirname "$0")/../tool/sim_ports.sh"
start_sim "$sim" --port serial=ZE000001,fibers=2 --blink 1:5:50 --station 2

"$dir/example_open_send"
"$dir/example_station_capture" | tee "$work/station"
[ "$(grep -c 'ZE0000010[12] *1 ' "$work/station")" -eq 2 ]

"$dir/example_trigger_sequence" >"$work/trigger" &
example=$!
await "$work/trigger" '^waiting'
kill -USR1 $simpid
wait $example
cat "$work/trigger"
grep -q '^triggered' "$work/trigger"
grep -q '^blinking at 5.00 Hz' "$work/trigger"

"$dir/example_bins" | tee "$work/bins"
grep -q '^0.2850  0.2600  R2 *(R1)$' "$work/bins"
grep -A1 '^measured on' "$work/bins" | grep -q '^0.3288  0.4232  A1$'
