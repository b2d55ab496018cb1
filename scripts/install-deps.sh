#!/usr/bin/env bash
# Installs the Debian packages that building and testing tesk need, if any
# is missing. Runs as root (or through sudo when it is available).
set -euo pipefail

packages=(cmake ninja-build g++ clang libclang-rt-14-dev llvm
          libgtest-dev libgmock-dev googletest libbenchmark-dev clang-format clang-tidy
          linux-libc-dev strace blueprint-tools)
# The ARM stages: Debian's cross toolchains, GoogleTest built for each target
# and the target's run-time libraries (multiarch packages, beside the
# host's), and qemu-user to run the tests.
cross_arches=(arm64 armhf)
packages+=(qemu-user)
for arch in "${cross_arches[@]}"; do
  packages+=("crossbuild-essential-$arch" "libgtest-dev:$arch" "libgmock-dev:$arch"
             "libc6:$arch" "libstdc++6:$arch")
done

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
foreign=$(dpkg --print-foreign-architectures)
for arch in "${cross_arches[@]}"; do
  grep -qx "$arch" <<<"$foreign" || $sudo dpkg --add-architecture "$arch"
done
# A mirror in the middle of a sync fails an update now and then, often for
# one index the packages here do not need (one architecture of the security
# suite, say). After the retries the install goes ahead on the indexes that
# did arrive; it fails by itself if a package is really out of reach.
for attempt in 1 2 3; do
  $sudo apt-get update -q && break
  if [ $attempt -eq 3 ]; then
    echo "install-deps: apt-get update kept failing; installing from the indexes it has" >&2
    break
  fi
  sleep 20
done
$sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
