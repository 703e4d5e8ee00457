#!/bin/sh
# Includes point only downward: api -> device -> serial -> frame. A file may
# include its own layer and those below it, never one above; the calls of
# src/api reach the serial layer only through src/device.
set -eu
src=$1
status=0
check() {
  layer=$1
  shift
  for above in "$@"; do
    found=$(grep -ln "#include \"$above/" "$src/$layer"/*.cpp "$src/$layer"/*.hpp 2>/dev/null || true)
    if [ -n "$found" ]; then
      echo "$layer includes $above/:"
      echo "$found" | sed 's/^/  /'
      status=1
    fi
  done
}
check api serial
check device api
check serial api device
check frame api device serial
[ "$status" -eq 0 ] && echo "layers in order"
exit "$status"
