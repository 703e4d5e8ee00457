#!/bin/bash
# The bash completion of zeltocom against the tool itself: it offers every
# subcommand `zeltocom --help` lists and every option of each subcommand's
# --help, and completes words in their places (subcommand, option, port,
# file) as a user's TAB would.
#   check_completion.sh COMPLETION_FILE ZELTOCOM
set -u
source "$1"
tool=$2
failures=0

# The completions of a command line whose last word is being typed.
complete_line() {
  read -r -a COMP_WORDS <<<"$1"
  [[ $1 == *" " ]] && COMP_WORDS+=("")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  _zeltocom
  printf '%s\n' "${COMPREPLY[@]}"
}

# expect LINE WORD: WORD is among LINE's completions; expect_not likewise.
expect() {
  if ! complete_line "$1" | grep -qxF -- "$2"; then
    echo "'$1' does not offer '$2'; it offers: $(complete_line "$1" | tr '\n' ' ')"
    failures=$((failures + 1))
  fi
}
expect_not() {
  if complete_line "$1" | grep -qxF -- "$2"; then
    echo "'$1' offers '$2'"
    failures=$((failures + 1))
  fi
}

# The subcommands: the first word of each line of the list under
# "Commands:" in the general help.
commands=$("$tool" --help | awk 'tolower($0) ~ /commands:$/ {list = 1; next}
                                  list && NF == 0 {exit}
                                  list {print $1}')
[[ -n $commands ]] || { echo "no subcommands found in 'zeltocom --help'"; exit 1; }
for command in $commands; do
  expect "zeltocom " "$command"
  expect "zeltocom --json " "$command"
  for option in $("$tool" "$command" --help | grep -o -- '--[a-z][a-z-]*' | sort -u); do
    expect "zeltocom $command --" "$option"
  done
done
for option in $("$tool" plot cie --help | grep -o -- '--[a-z][a-z-]*' | sort -u); do
  expect "zeltocom plot cie --" "$option"
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
touch "$work/bins.vec"
export ZELTOCOM_PORTS="/dev/pts/91;/dev/pts/92"
cases=(
  "zeltocom cap|capture"
  "zeltocom --timeout 300 cap|capture"
  "zeltocom --trace $work/t cap|capture"
  "zeltocom --trace $work/|$work/bins.vec"
  "zeltocom help cap|capture"
  "zeltocom send |/dev/pts/91"
  "zeltocom capture /dev/pts/91 |/dev/pts/92"
  "zeltocom capture --range 2 /dev/pts/9|/dev/pts/92"
  "zeltocom shell /dev/pts/9|/dev/pts/91"
  "zeltocom bin $work/b|$work/bins.vec"
  "zeltocom results --db $work/b|$work/bins.vec"
  "zeltocom capture --p|--pwm"
  "zeltocom test $work/b|$work/bins.vec"
  "zeltocom test plan.toml --junit $work/b|$work/bins.vec"
  "zeltocom --j|--json"
  "zeltocom plot |cie"
  "zeltocom plot cie --json $work/b|$work/bins.vec"
  "zeltocom plot cie --bins $work/b|$work/bins.vec"
  "zeltocom plot cie -o $work/b|$work/bins.vec"
  "zeltocom sequence /dev/pts/91 --svg $work/b|$work/bins.vec"
)
for case in "${cases[@]}"; do
  expect "${case%%|*}" "${case#*|}"
done
# A value of its option, or a subcommand that takes no port, gets nothing.
expect_not "zeltocom capture --range " "/dev/pts/91"
expect_not "zeltocom detect " "/dev/pts/91"
expect_not "zeltocom test " "/dev/pts/91"
expect_not "zeltocom test plan.toml --unit " "$work/bins.vec"
expect_not "zeltocom results " "/dev/pts/91"
expect_not "zeltocom send /dev/pts/91 " "capture"
expect_not "zeltocom plot cie --json " "cie"
ZELTOCOM_PORTS= expect_not "zeltocom send " "/dev/pts/91"

[[ $failures -eq 0 ]] && echo "completion: every subcommand and option offered"
exit $((failures > 0))
