#!/usr/bin/env bash
# Runs the whole test suite: the normal build (g++), the AddressSanitizer +
# UndefinedBehaviorSanitizer build (clang, which also builds and briefly runs
# every fuzzer), the concurrency tests under ThreadSanitizer (clang), and a
# brief run of every benchmark so that none rots (their numbers never fail).
# The soak stage runs the daemon under many good and bad clients at once for
# a short while (scripts/soak.sh runs it longer). The lint stage fails on any
# clang-format difference or clang-tidy finding (scripts/lint.sh). The arm64
# and armhf stages cross-build for 64-bit and 32-bit ARM and run the tests
# under qemu-user.
# Usage: scripts/test.sh [dev|lint|bench|soak|asan|fuzz|tsan|arm64|armhf]...   (default: all of them)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

stages=("$@")
[ ${#stages[@]} -eq 0 ] && stages=(dev lint bench soak asan fuzz tsan arm64 armhf)
fuzz_seconds=${TESK_FUZZ_SECONDS:-8}  # per target; scripts/fuzz.sh runs them longer

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}

# Android.bp files must be as bpfmt writes them; a device tree's presubmit
# checks the same.
check_blueprints() {
  local files unformatted
  files=$(find . -name Android.bp -not -path './build/*' | sort)
  unformatted=$(bpfmt -l $files)
  if [ -n "$unformatted" ]; then
    bpfmt -d $files
    echo "not formatted as bpfmt would: $unformatted" >&2
    exit 1
  fi
  echo "bpfmt: $(echo $files) formatted"
}

build() {
  cmake --preset "$1" >/dev/null
  cmake --build --preset "$1"
}

for stage in "${stages[@]}"; do
  echo "==== $stage"
  SECONDS=0
  case "$stage" in
    dev|asan|tsan)
      if [ "$stage" = dev ]; then check_blueprints; fi
      build "$stage"
      ctest --preset "$stage"
      ;;
    lint)
      scripts/lint.sh
      ;;
    arm64|armhf)
      build "$stage"
      echo "==== $stage: built in ${SECONDS}s"
      ctest --preset "$stage"
      ;;
    soak)
      # The 100,000-target ranging client is left out here to keep CI short:
      # each of its scans takes seconds to build; the full soak
      # (scripts/soak.sh) runs it.
      TESK_SOAK_PRESSURE_OPTIONS="--huge-ranging-clients 0" \
        scripts/soak.sh "${TESK_SOAK_SECONDS:-40}" faults pressure
      ;;
    fuzz)
      [ -d build/asan ] || build asan
      scripts/fuzz.sh "$fuzz_seconds"
      ;;
    bench)
      scripts/bench.sh --quick --preset dev
      ;;
    *) echo "unknown stage $stage" >&2; exit 64 ;;
  esac
  echo "==== $stage: ${SECONDS}s"
done
echo "==== all stages passed: ${stages[*]}"
