#!/bin/sh
# The shared library exports exactly the functions the header declares, with
# C names, and nothing else.
set -eu
library=$1
header=$2
declared=$(grep -o 'ZeltoCom_[A-Za-z_]*(' "$header" | tr -d '(' | sort -u)
exported=$(nm -D --defined-only "$library" | awk '{print $3}' | sort -u)
if [ "$declared" != "$exported" ]; then
  echo "declared but not exported:"
  echo "$declared" | grep -vxF "$exported" || true
  echo "exported but not declared:"
  echo "$exported" | grep -vxF "$declared" || true
  exit 1
fi
echo "$(echo "$exported" | wc -l) functions exported"
