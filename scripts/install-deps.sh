#!/usr/bin/env bash
# Installs the Debian packages that building and testing tesk need, if any
# is missing. Runs as root (or through sudo when it is available).
set -euo pipefail

packages=(cmake ninja-build g++ clang libclang-rt-14-dev llvm
          libgtest-dev libgmock-dev googletest libbenchmark-dev clang-format clang-tidy
          linux-libc-dev strace blueprint-tools)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -q
$sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
