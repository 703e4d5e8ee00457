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
simpid=""
session=""
trap 'kill $simpid $session 2>/dev/null; rm -rf "$work"' EXIT
. "$(dirname "$0")/sim_ports.sh"
start_sim "$sim" --port serial=ZP000001
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
