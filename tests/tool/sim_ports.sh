# Sourced by the scripts that run zeltosim beside the tool: `await` and
# `start_sim`. They need $work, a scratch directory.

# await FILE PATTERN: waits up to 30 s for a line matching PATTERN in FILE.
await() {
  tries=0
  until grep -q "$2" "$1"; do
    tries=$((tries + 1))
    if [ $tries -gt 300 ]; then echo "no \"$2\" in $1:"; cat -v "$1"; exit 1; fi
    sleep 0.1
  done
}

# start_sim ZELTOSIM SETTINGS...: zeltosim in the background ($simpid, its
# output in $work/sim), its ports exported as ZELTOCOM_PORTS once it is ready.
start_sim() {
  "$@" </dev/null >"$work/sim" 2>&1 &
  simpid=$!
  await "$work/sim" '^ZELTOCOM_PORTS='
  export "$(grep '^ZELTOCOM_PORTS=' "$work/sim")"
}
