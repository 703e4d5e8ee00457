#!/bin/sh
# The page of instrument commands names only commands that exist, and every
# command the simulated instruments understand: each command of its command
# and readout tables is a string of the library's or the simulator's
# sources, and each command of the simulator's table, its calibration
# commands and its bus commands has a row.
#   check_instruments.sh SOURCE_DIRECTORY
set -eu
root=$1
page=$root/docs/instruments.md

# The command words of the tables whose first column is "Command" or
# "Readout": every `...` of a row's first cell, up to its first character
# that is no letter ("GETxyI<nn>" gives GETxyI, "C[<range>]" gives C).
documented=$(awk -F'|' '
  /^\| *(Command|Readout) *\|/ { inTable = 1; next }
  !/^\|/ { inTable = 0 }
  inTable && $2 ~ /`/ { print $2 }' "$page" |
  grep -o '`[A-Za-z]*' | tr -d '`' | sort -u)
[ -n "$documented" ] || { echo "no command tables found in $page"; exit 1; }

failed=0
for name in $documented; do
  # A string literal that starts with the word and goes on with no letter.
  if ! grep -rqiE "\"$name([^A-Za-z]|$)" "$root/src" "$root/sim/src"; then
    echo "documented, but in neither the library's nor the simulator's sources: $name"
    failed=1
  fi
done

upper=$(echo "$documented" | tr 'a-z' 'A-Z')
known=$( (grep -o '{"[A-Z]*", [EP],' "$root/sim/src/commands.cpp" | cut -d'"' -f2
  grep -o '^ *"[A-Z][A-Za-z]*[<"]' "$root/sim/src/calibration.cpp" | tr -d ' "<'
  grep -o '"BUS[A-Z]*"' "$root/sim/src/sim_port.cpp" | tr -d '"') | tr 'a-z' 'A-Z' | sort -u)
[ -n "$known" ] || { echo "no commands found in the simulator's sources"; exit 1; }
for name in $known; do
  if ! echo "$upper" | grep -qxF "$name"; then
    echo "the simulator understands it, but $page has no row for it: $name"
    failed=1
  fi
done
[ "$failed" -eq 0 ] || exit 1
echo "$(echo "$documented" | wc -l) documented commands found in the sources;" \
  "$(echo "$known" | wc -l) simulator commands documented"
