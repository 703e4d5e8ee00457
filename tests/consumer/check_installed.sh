#!/bin/sh
# Builds programs against the ZeltoCom installed under PREFIX, as a user of
# that tree would, and runs them: the consumer with pkg-config and with
# find_package, the installed examples with find_package; then the installed
# programs answer --help.
#   check_installed.sh PREFIX
set -eu
prefix=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

pc=$(find "$prefix" -name zeltocom.pc)
libdir=$(dirname "$(dirname "$pc")")
export PKG_CONFIG_PATH="$(dirname "$pc")"

echo "pkg-config: $(pkg-config --modversion zeltocom), $(pkg-config --cflags --libs zeltocom)"
cc -Wall -Wextra -Werror "$here/consumer.c" -o "$work/consumer" $(pkg-config --cflags --libs zeltocom)
LD_LIBRARY_PATH="$libdir" "$work/consumer"

cmake -S "$here" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/consumer"

cmake -S "$prefix/share/doc/zeltocom/examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$prefix" \
      -DCMAKE_C_FLAGS="-Wall -Wextra -Werror" >/dev/null
cmake --build "$work/examples" >/dev/null
# Named no port, an example refuses to run rather than touch the machine's.
if ZELTOCOM_PORTS= "$work/examples/example_open_send" 2>/dev/null; then
  echo "example_open_send ran without a port"
  exit 1
fi

# The tool finds the library through its RPATH, or (under /usr, where it has
# none) through the dynamic linker, which an unpacked package's tree needs
# to be told of.
"$prefix/bin/zeltosim" --help >/dev/null
if [ -e "$prefix/bin/zeltocom" ]; then
  LD_LIBRARY_PATH="$libdir" "$prefix/bin/zeltocom" --help >/dev/null
fi
echo "installed tree: consumer built with pkg-config and find_package, examples built"
