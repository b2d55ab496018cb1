#!/usr/bin/env bash
# Prints how many lines of tests there are for each line of product code,
# counting non-blank lines that are not only a comment, in C, C++ and CMake
# files. Tests are tests/, fuzz/ and the simulated location service's test
# hooks; benchmarks are neither. Goal: 0.25 to 0.40.
# Usage: scripts/test-ratio.sh [-v]   (-v: per top-level folder and test suite)
set -euo pipefail
cd "$(dirname "$0")/.."

count() {  # code lines of the files named on stdin
  xargs -r awk '
    FNR == 1 { in_block = 0 }
    {
      line = $0
      gsub(/^[ \t]+|[ \t]+$/, "", line)
      if (in_block) { if (line ~ /\*\//) { in_block = 0; sub(/.*\*\//, "", line) } else next }
      if (line ~ /^\/\*/) { if (line !~ /\*\//) { in_block = 1; next } sub(/^\/\*.*\*\//, "", line) }
      if (line == "" || line ~ /^\/\// || (FILENAME ~ /(CMakeLists\.txt|\.cmake)$/ && line ~ /^#/)) next
      n++
    }
    END { print n + 0 }'
}

files() { git ls-files -- '*.c' '*.cpp' '*.h' '*.in' 'CMakeLists.txt' '*/CMakeLists.txt' '*.cmake'; }
is_test='^(tests|fuzz)/|^host/libvela_client/testing/'

tests=$(files | grep -E "$is_test" | count)
product=$(files | grep -Ev "$is_test" | grep -Ev '^benchmarks/' | count)
if [ "${1:-}" = "-v" ]; then
  for dir in $(files | cut -d/ -f1 | sort -u) $(files | grep -E '^tests/[^/]+/' | cut -d/ -f1-2 | sort -u) \
             host/libvela_client/testing; do
    printf '%-28s %6s\n' "$dir" "$(files | grep -E "^$dir(/|$)" | count)"
  done
fi
awk -v t="$tests" -v p="$product" 'BEGIN {
  printf "tests %d, product %d, ratio %.2f (goal 0.25-0.40)\n", t, p, t / p }'
