#!/usr/bin/env bash
# Coverage of each fuzz target's corpus over the code it targets: builds the
# fuzzers with clang's source-based coverage (preset coverage), runs every
# input of the committed seeds (and of build/asan/fuzz-corpus/TARGET, which
# scripts/fuzz.sh -k fills) once, and prints line and function coverage of
# the files listed in fuzz/TARGET/covers. Each line there is a source file
# and the functions that must be reached; the script fails when one is not.
# Usage: scripts/fuzz-coverage.sh [-f] [TARGET...]   (-f: every function)
set -euo pipefail
cd "$(dirname "$0")/.."

functions=0
if [ "${1:-}" = "-f" ]; then functions=1; shift; fi

tool() {
  local name
  for name in "$1" "$1"-{19,18,17,16,15,14}; do
    command -v "$name" >/dev/null && { echo "$name"; return; }
  done
  echo "$1 not found" >&2
  exit 1
}
profdata=$(tool llvm-profdata)
cov=$(tool llvm-cov)

targets=()
for t in "$@"; do targets+=("${t%_fuzzer}"); done
if [ ${#targets[@]} -eq 0 ]; then
  for covers in fuzz/*/covers; do targets+=("$(basename "$(dirname "$covers")")"); done
fi

cmake --preset coverage >/dev/null
cmake --build --preset coverage --target "${targets[@]/%/_fuzzer}" >/dev/null

build=build/coverage
objects=()
for lib in "$build"/lib/*.so; do objects+=(-object "$lib"); done
missed=0
for name in "${targets[@]}"; do
  out=$build/profiles/$name
  rm -rf "$out"
  mkdir -p "$out"
  inputs=()
  for dir in "fuzz/$name/corpus" "build/asan/fuzz-corpus/$name"; do
    [ -d "$dir" ] && while IFS= read -r -d '' f; do inputs+=("$f"); done < <(find "$dir" -type f -print0)
  done
  # Named inputs run once each and nothing is written beside them.
  printf '%s\0' "${inputs[@]}" |
    LLVM_PROFILE_FILE="$out/%p.profraw" xargs -0 "$build/bin/${name}_fuzzer" >"$out/run.log" 2>&1
  "$profdata" merge -sparse "$out"/*.profraw -o "$out/merged.profdata"

  # ccache may have named sources relative to the build folder.
  report() {
    "$cov" report "$build/bin/${name}_fuzzer" "${objects[@]}" -instr-profile="$out/merged.profdata" \
      -path-equivalence="$PWD/$build/../..,$PWD" -show-branch-summary=false \
      -Xdemangler=c++filt "$@" 2> >(grep -v "functions have mismatched data" >&2)
  }
  files=()
  while read -r file _; do [ -n "$file" ] && files+=("$PWD/$file"); done <"fuzz/$name/covers"
  echo "== $name: ${#inputs[@]} inputs"
  report "${files[@]}" | sed "s#^$PWD/##"
  table=$(report -show-functions "${files[@]}")
  [ "$functions" = 1 ] && echo "$table"
  while read -r file wanted; do
    for fn in $wanted; do
      # Function rows end in: regions missed cover lines missed cover.
      if ! echo "$table" | grep -E "(^|[: ])$fn[(<]" | awk '$(NF-2) > $(NF-1) {hit = 1} END {exit !hit}'; then
        echo "NOT REACHED: $fn in $file"
        missed=1
      fi
    done
  done <"fuzz/$name/covers"
done
exit $missed
