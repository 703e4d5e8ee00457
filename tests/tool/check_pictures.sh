#!/bin/sh
# The pictures of zeltocom as a person sees them: the CIE chart of a test
# result and the picture of a sequence from a simulated blinking light are
# well-formed SVG, hold their marks and texts, and render in headless
# Chromium to something with pass, fail and data colours in it. Bad input is
# refused with a clear text. Without chromium the rendering is skipped
# (exit 77) after the other checks.
#   check_pictures.sh ZELTOSIM ZELTOCOM RESULT.json BINS.vec
set -eu
sim=$1
tool=$2
result=$3
bins=$4
here=$(dirname "$0")
work=$(mktemp -d)
simpid=""
trap '[ -z "$simpid" ] || kill $simpid 2>/dev/null; rm -rf "$work"' EXIT
. "$here/sim_ports.sh"

fail() { echo "$*"; exit 1; }
# count FILE TEXT: the lines of FILE holding TEXT.
count() { grep -cF -- "$2" "$1" || true; }
well_formed() {
  python3 -c 'import sys, xml.dom.minidom; xml.dom.minidom.parse(sys.argv[1])' "$1" ||
    fail "$1 is not well-formed XML"
}

# The chart: every fiber with a point (3 pass, 2 fail, one without x and y),
# the bins by name, the title escaped.
"$tool" plot cie --json "$result" --bins "$bins" -o "$work/cie.svg" || fail "plot cie failed"
well_formed "$work/cie.svg"
[ "$(count "$work/cie.svg" 'fill="#43a047"')" -eq 4 ] || fail "not 3 pass marks (and 1 in the legend)"
[ "$(count "$work/cie.svg" 'stroke="#d32f2f"')" -eq 6 ] || fail "not 2 fail crosses (and 1 in the legend)"
for text in 'ZA000001:3</text>' 'ZA000002:2</text>' '>B2</text>' '>Area 7</text>' '>520</text>' \
  '>6500 K</text>' 'front lamp &lt;&amp;&gt; &quot;test&quot;, unit U0042: FAIL'; do
  [ "$(count "$work/cie.svg" "$text")" -eq 1 ] || fail "no '$text' in the chart"
done
[ "$(count "$work/cie.svg" 'ZA000001:4')" -eq 0 ] || fail "a fiber without x and y is marked"
"$tool" plot cie --json "$result" --zoom -o - >"$work/zoom.svg" || fail "plot cie --zoom failed"
well_formed "$work/zoom.svg"

# Bad input: exit 2 and the reason.
refused() {
  expected=$1
  shift
  if "$tool" "$@" >"$work/out" 2>&1; then fail "'$*' succeeded"; fi
  grep -qF -- "$expected" "$work/out" || { cat "$work/out"; fail "'$*' does not say '$expected'"; }
}
printf '{"plan": "p", "unit": null, "pass": true, "instruments": [{"serial": "S", "fibers": [{"fiber": 1, "x": "0.3", "y": 0.3, "pass": true}]}]}' >"$work/text-x.json"
printf '{"plan": "p", "unit": null, "pass": true, "instruments": [{"serial": "S", "fibers": [{"fiber": 1, "x": 1e400, "y": 0.3, "pass": true}]}]}' >"$work/infinite.json"
printf '[1, 2' >"$work/broken.json"
printf 'B1=0.1,0.1;0.2\n' >"$work/odd.vec"
refused "missing.json: No such file" plot cie --json "$work/missing.json" -o "$work/x.svg"
refused "not a test result document: no JSON" plot cie --json "$work/broken.json" -o "$work/x.svg"
refused "instruments[0].fibers[0]: fiber must be a whole number, x and y numbers" \
  plot cie --json "$work/text-x.json" -o "$work/x.svg"
refused "infinite.json: not a test result document: no JSON" \
  plot cie --json "$work/infinite.json" -o "$work/x.svg"
refused "odd.vec: Syntax error in VEC file" plot cie --json "$result" --bins "$work/odd.vec" -o "$work/x.svg"
refused "nowhere/x.svg: No such file or directory" plot cie --json "$result" -o "$work/nowhere/x.svg"
refused "A subcommand is required" plot
[ ! -e "$work/x.svg" ] || fail "a refused plot wrote its file"
# A point far off the chart is drawn, cut to the frame, zoomed or not.
sed 's/"x": 0.3125/"x": 1e300/' "$result" >"$work/far.json"
for zoom in "" --zoom; do
  "$tool" plot cie --json "$work/far.json" $zoom -o "$work/far.svg" || fail "plot cie $zoom failed on a far point"
  well_formed "$work/far.svg"
  [ "$(count "$work/far.svg" 'clip-path=')" -eq 1 ] || fail "the chart is not cut to its frame"
done

# A sequence of a light blinking at 5 Hz, half lit.
start_sim "$sim" --port serial=ZQ000001,fibers=2 --blink 1:5:50
"$tool" sequence "${ZELTOCOM_PORTS%%;*}" --fiber 1 --samples 200 --capture-time 10 \
  --svg "$work/sequence.svg" >"$work/sequence.txt" || fail "sequence --svg failed"
kill $simpid
simpid=""
well_formed "$work/sequence.svg"
grep -q '5.00 Hz, 50.0 % duty cycle' "$work/sequence.svg" || fail "no blinking in the sequence picture"
[ "$(count "$work/sequence.svg" 'fill="#ffc107"')" -ge 10 ] || fail "fewer than 10 lit runs shaded"

if ! command -v chromium >/dev/null 2>&1; then
  echo "chromium is not installed (Debian: chromium): the pictures are not rendered"
  exit 77
fi
# render SVG WIDTH HEIGHT: prints "ink red green blue" of the screenshot.
render() {
  png=${1%.svg}.png
  chromium --headless --no-sandbox --disable-gpu --user-data-dir="$work/chromium" \
    --screenshot="$png" --window-size="$2,$3" "file://$1" >/dev/null 2>&1 ||
    fail "chromium did not render $1"
  [ -s "$png" ] || fail "chromium wrote no $png"
  python3 "$here/png_ink.py" "$png"
}
set -- $(render "$work/cie.svg" 800 730)
echo "chart: $1 pixels drawn, $2 red, $3 green, $4 blue"
[ "$1" -gt 10000 ] && [ "$2" -gt 40 ] && [ "$3" -gt 100 ] && [ "$4" -gt 100 ] ||
  fail "the chart renders empty or without its marks"
set -- $(render "$work/sequence.svg" 800 500)
echo "sequence: $1 pixels drawn, $4 blue"
[ "$1" -gt 20000 ] && [ "$4" -gt 500 ] || fail "the sequence renders empty or without its line"
echo "pictures: well-formed, marked, rendered"
