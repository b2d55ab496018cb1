#!/usr/bin/env bash
# Runs the benchmark suite and prints one table: for each figure the
# project's value, the baseline measured in the same run, their ratio and the
# goal. Numbers never make it fail; a benchmark that crashes or cannot
# measure does (exit 1), so a quick run in CI keeps them from rotting.
# Usage: scripts/bench.sh [--quick] [--preset NAME] [--profile PROGRAM [ARG...]]
#   --quick        each measurement just long enough to work (seconds in all)
#   --preset NAME  CMake preset to build and run (default: release)
#   --profile PROGRAM [ARG...]  instead of the table: runs one benchmark
#                  program (its children too) under perf record and prints
#                  where the time went by process and library, then by
#                  function (needs perf, Debian package linux-perf)
set -euo pipefail
cd "$(dirname "$0")/.."

quick=""
preset=release
profile=()
while [ $# -gt 0 ]; do
  case "$1" in
    --quick) quick=--quick ;;
    --preset) preset=${2:?--preset needs a name}; shift ;;
    --profile) shift; profile=("$@"); [ ${#profile[@]} -gt 0 ] || exit 64; break ;;
    -h|--help) sed -n '2,12p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "bench.sh: unknown argument $1" >&2; exit 64 ;;
  esac
  shift
done

# In the order of the table.
programs=(scan_benchmark marshal_benchmark ipc_syscall_benchmark ipc_load_benchmark
          fanout_benchmark)

scripts/install-deps.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" --target tesk "${programs[@]}"

bin=build/$preset/bin
logs=build/$preset/bench
mkdir -p "$logs"

if [ ${#profile[@]} -gt 0 ]; then
  command -v perf >/dev/null || { echo "bench.sh: --profile needs perf" >&2; exit 1; }
  data=$logs/${profile[0]}.perf.data
  # cpu-clock works where hardware counters are not offered (virtual machines).
  perf record -q -e cpu-clock -F 4000 -o "$data" -- "$bin/${profile[0]}" "${profile[@]:1}"
  for sort in comm,dso comm,dso,sym; do
    echo "== where the time went, by ${sort//,/, }"
    perf report -i "$data" --stdio --sort "$sort" 2>/dev/null | grep -v '^#' | grep -v '^$' |
      head -n 30
  done
  exit 0
fi
failed=()
for program in "${programs[@]}"; do
  echo "== $program $quick (output in $logs/$program.log)"
  if ! "$bin/$program" $quick >"$logs/$program.log" 2>&1; then
    failed+=("$program")
  fi
  grep -q '^@row' "$logs/$program.log" || failed+=("$program")
done

echo
echo "tesk benchmarks${quick:+ (quick: figures not meaningful)}, $(date -u '+%Y-%m-%d %H:%M UTC'),"\
     "$(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg), $(git rev-parse --short HEAD 2>/dev/null || echo '?')"
for program in "${programs[@]}"; do cat "$logs/$program.log"; done | awk -F'\t' '
  $1 == "@row" { n++; for (i = 2; i <= 7; i++) { cell[n, i] = $i; if (length($i) > w[i]) w[i] = length($i) } }
  /^@note / { notes[++m] = substr($0, 7) }
  END {
    split("figure|tesk|baseline|ratio|goal|met", head, "|")
    for (i = 2; i <= 7; i++) if (length(head[i - 1]) > w[i]) w[i] = length(head[i - 1])
    line = ""; rule = ""
    for (i = 2; i <= 7; i++) {
      line = line sprintf(i == 2 ? "%-*s" : "  %*s", w[i], head[i - 1])
      rule = rule sprintf(i == 2 ? "%s" : "  %s", sprintf("%*s", w[i], "")); }
    gsub(/ /, "-", rule)
    print line; print rule
    for (r = 1; r <= n; r++) {
      line = ""
      for (i = 2; i <= 7; i++) line = line sprintf(i == 2 ? "%-*s" : "  %*s", w[i], cell[r, i])
      print line
    }
    if (m > 0) print ""
    for (k = 1; k <= m; k++) print "note: " notes[k]
  }'
if grep -h '^@row' "$logs"/*.log | grep -q 'not measured'; then failed+=("not measured")
fi
if [ ${#failed[@]} -gt 0 ]; then
  echo "bench.sh: failed: ${failed[*]}" >&2
  exit 1
fi
