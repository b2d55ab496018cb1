#!/usr/bin/env bash
# Runs libFuzzer targets of the asan build (AddressSanitizer +
# UndefinedBehaviorSanitizer), each from its committed seeds and dictionary.
# A target's folder may hold a dictionary (*.dict) and an options file (one
# line of libFuzzer flags).
# Usage: scripts/fuzz.sh [-j JOBS] [-k] SECONDS [TARGET...]
#   SECONDS  run time per target
#   TARGET   e.g. ipc_frame or ipc_frame_fuzzer; default: every target
#   -j JOBS  targets run at once (default 1)
#   -k       keep what each run finds in build/asan/fuzz-corpus/TARGET and
#            start from it next time (default: a fresh copy of the seeds)
# Crashes are written to build/asan/fuzz-artifacts/TARGET/; each run's log to
# build/asan/fuzz-logs/TARGET.log, of which the last lines are printed.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=1
keep=0
while getopts "j:k" opt; do
  case "$opt" in
    j) jobs=$OPTARG ;;
    k) keep=1 ;;
    *) exit 64 ;;
  esac
done
shift $((OPTIND - 1))
[ $# -ge 1 ] || { sed -n 6,13p "$0" >&2; exit 64; }
seconds=$1
shift

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

targets=()
for t in "$@"; do targets+=("${t%_fuzzer}"); done
if [ ${#targets[@]} -eq 0 ]; then
  for covers in fuzz/*/covers; do targets+=("$(basename "$(dirname "$covers")")"); done
fi

if [ ! -f build/asan/build.ninja ]; then cmake --preset asan >/dev/null; fi
cmake --build --preset asan --target "${targets[@]/%/_fuzzer}" >/dev/null

run_one() {
  local name=$1 seconds=$2 keep=$3
  local fuzzer=build/asan/bin/${name}_fuzzer corpus
  local log=build/asan/fuzz-logs/$name.log artifacts=build/asan/fuzz-artifacts/$name/
  mkdir -p build/asan/fuzz-logs "$artifacts"
  if [ "$keep" = 1 ]; then
    corpus=build/asan/fuzz-corpus/$name
    mkdir -p "$corpus"
  else
    corpus=$(mktemp -d)
  fi
  # Seeds are copied: runs never write into the tree.
  [ -d "fuzz/$name/corpus" ] && cp -r "fuzz/$name/corpus"/. "$corpus"/
  local args=(-max_total_time="$seconds" -print_final_stats=1 -artifact_prefix="$artifacts")
  for dict in fuzz/"$name"/*.dict; do [ -f "$dict" ] && args+=(-dict="$dict"); done
  # A target's own libFuzzer flags, one line.
  [ -f "fuzz/$name/options" ] && read -r -a extra <"fuzz/$name/options" && args+=("${extra[@]}")
  local status=0
  "$fuzzer" "${args[@]}" "$corpus" >"$log" 2>&1 || status=$?
  [ "$keep" = 1 ] || rm -rf "$corpus"
  {
    echo "== $name: ${seconds}s, exit $status"
    grep -E '^#[0-9]+.*(DONE|INITED)|^stat::|ERROR|SUMMARY' "$log" | tail -n 12
  }
  return $status
}
export -f run_one

printf '%s\n' "${targets[@]}" |
  xargs -P "$jobs" -I{} bash -c 'run_one "$1" "$2" "$3"' _ {} "$seconds" "$keep"
