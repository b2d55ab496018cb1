#!/usr/bin/env bash
# Fails on any formatting difference (clang-format, .clang-format) in the C
# and C++ files git tracks, and on any clang-tidy finding (.clang-tidy) in the
# product code: the daemon, the host stand-ins, teskclient and teskctl. Uses
# the dev build's compile database, configuring it when missing.
# Usage: scripts/lint.sh [-j N]   (default -j 2)
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=2
[ "${1:-}" = "-j" ] && jobs=$2

start=$SECONDS
git ls-files -z -- '*.c' '*.cpp' '*.h' | xargs -0 clang-format --dry-run --Werror
echo "clang-format: clean ($((SECONDS - start)) s)"

[ -f build/dev/compile_commands.json ] || cmake --preset dev >/dev/null
start=$SECONDS
# Anchored on this tree, so that copies of the same files elsewhere in the
# compile database (the platform boundary check's) are not linted twice.
run-clang-tidy -p build/dev -j "$jobs" -quiet \
  "^$PWD/(service|dispatch|scan|deauth|client|tools|host)/.*\.cpp$" >build/dev/clang-tidy.log 2>&1 || {
  grep -E '(warning|error):' build/dev/clang-tidy.log | sort -u
  echo "clang-tidy: findings above (full output in build/dev/clang-tidy.log)" >&2
  exit 1
}
echo "clang-tidy: clean ($((SECONDS - start)) s)"
