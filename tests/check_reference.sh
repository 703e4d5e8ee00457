#!/bin/sh
# The reference keeps up with the interface: every function the library
# exports has its heading there, every function the header declares its
# signature exactly as declared, and no heading names a function that is gone.
# The Python package's prototypes and sizes agree with the header.
set -eu
library=$1
header=$2
reference=$3

# One line of text with blanks squeezed, so that line breaks inside a
# signature do not matter.
flatten() {
  tr '\n\t' '  ' | sed 's/  */ /g; s/( /(/g; s/ )/)/g; s/ ,/,/g'
}

# The header's declarations without comments, one a line, as
# "int ZeltoCom_Open(const char* devicePath, int baudrate);".
declarations=$(flatten <"$header" |
  sed 's:/\*\([^*]\|\*[^/]\)*\*/::g' | tr ';' '\n' |
  grep 'ZELTOCOM_API .*ZeltoCom_[A-Za-z_]*(' | sed 's/.*ZELTOCOM_API //; s/^ *//; s/ *$//; s/$/;/')
text=$(flatten <"$reference")
headings=$(grep -E '^#{2,4} ' "$reference" | grep -o 'ZeltoCom_[A-Za-z_]*' | sort -u)
symbols=$(nm -D --defined-only "$library")
exported=$(echo "$symbols" | awk '{print $3}' | grep '^ZeltoCom_' | sort -u)
declared=$(echo "$declarations" | grep -o 'ZeltoCom_[A-Za-z_]*(' | tr -d '(' | sort -u)

failed=0
for name in $exported; do
  if ! echo "$headings" | grep -qxF "$name"; then
    echo "exported but without a heading in the reference: $name"
    failed=1
  fi
done
missing=$(echo "$declarations" | while IFS= read -r declaration; do
  case "$text" in
    *"$declaration"*) ;;
    *) echo "$declaration" ;;
  esac
done)
if [ -n "$missing" ]; then
  echo "signatures missing from the reference, or written otherwise than in the header:"
  echo "$missing"
  failed=1
fi
for name in $headings; do
  if ! echo "$declared" | grep -qxF "$name"; then
    echo "the reference documents a function the header no longer declares: $name"
    failed=1
  fi
done

# The Python package restates the header: its ctypes prototypes and sizes.
python=${PYTHON:-python3}
if command -v "$python" >/dev/null 2>&1; then
  "$python" "$(dirname "$0")/../python/check_header.py" "$header" || failed=1
else
  echo "no $python: the Python package's prototypes and sizes are not checked"
fi
[ "$failed" -eq 0 ] || exit 1
echo "$(echo "$declared" | wc -l) functions in the reference, each with its signature"
