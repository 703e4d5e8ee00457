#!/bin/sh
# zeltocom shell on a terminal (a pseudo-terminal from script(1)) against a
# simulated analyser: it prompts with the serial number, answers a typed
# command, and, built with libedit, has that command in its history file
# already when Ctrl-C ends the session.
#   check_shell_terminal.sh ZELTOSIM ZELTOCOM
set -eu
sim=$1
tool=$2
work=$(mktemp -d)
"$sim" --port serial=ZP000001 </dev/null >"$work/sim" 2>&1 &
simpid=$!
session=""
trap 'kill $simpid 2>/dev/null; [ -z "$session" ] || kill $session 2>/dev/null; rm -rf "$work"' EXIT

# Waits up to 20 s for a line matching $2 in the file $1.
await() {
  tries=0
  until grep -q "$2" "$1"; do
    tries=$((tries + 1))
    if [ $tries -gt 200 ]; then echo "no \"$2\" in $1:"; cat -v "$1"; exit 1; fi
    sleep 0.1
  done
}
await "$work/sim" '^ZELTOCOM_PORTS='
export "$(grep '^ZELTOCOM_PORTS=' "$work/sim")"
port=${ZELTOCOM_PORTS%%;*}

mkfifo "$work/keys"
: >"$work/screen"
HOME=$work script -qec "$tool shell $port" /dev/null <"$work/keys" >"$work/screen" 2>&1 &
session=$!
exec 3>"$work/keys"
await "$work/screen" 'ZP000001> '
printf 'GETSERIAL\r' >&3
await "$work/screen" '^ZP000001.$'
# Ctrl-C; then quit, for a shell that took Ctrl-C for the line alone.
printf '\003' >&3
sleep 0.5
trap '' PIPE
printf 'quit\r' >&3 2>/dev/null || true
exec 3>&-
wait $session || true
session=""

if ldd "$tool" | grep -q libedit; then
  grep -qx GETSERIAL "$work/.zeltocom_history" ||
    { echo "GETSERIAL is not in the history"; cat "$work/.zeltocom_history"; exit 1; }
  echo "shell on a terminal: prompt, answer, history kept through Ctrl-C"
else
  echo "shell on a terminal (plain lines): prompt, answer"
fi
