#!/usr/bin/env bash
# install_test.sh BUILD_DIR CLIENT_SOURCE CXX BINDIR LIBDIR INCLUDEDIR
# Installs BUILD_DIR into a temporary prefix, builds the client project there
# against the installed package only, starts the installed daemon under the
# installed hostinit, runs the client against it and scans with the installed
# teskctl.
set -euo pipefail
build=$1 client_source=$2 cxx=$3 bin=$4 lib=$5 include=$6

work=$(mktemp -d)
launcher=""
cleanup() {
  if [ -n "$launcher" ]; then
    kill -TERM "$launcher" 2>/dev/null || true
    wait "$launcher" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >"$work/install.log" ||
  { cat "$work/install.log"; exit 1; }

# Where a Linux user looks for each piece.
for path in $bin/tesk $bin/hostinit $bin/teskctl $lib/libtarnsocket.so $lib/libvela_client.so \
            $lib/libteskclient.a $include/teskclient/session.h $include/tesk/object.h \
            $lib/cmake/teskclient/teskclientConfig.cmake \
            $lib/cmake/teskclient/teskclientConfigVersion.cmake; do
  [ -e "$prefix/$path" ] || { echo "not installed: $path"; exit 1; }
done

# Nothing but the prefix: no build tree, no package registry.
cmake -S "$client_source" -B "$work/client" -G Ninja -DCMAKE_CXX_COMPILER="$cxx" \
      -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF \
      >"$work/configure.log" || { cat "$work/configure.log"; exit 1; }
cmake --build "$work/client" >"$work/build.log" || { cat "$work/build.log"; exit 1; }

# The installed programs must find their libraries without help.
unset LD_LIBRARY_PATH
mkdir "$work/socket"
"$prefix/$bin/hostinit" --socket-dir "$work/socket" -- "$prefix/$bin/tesk" 2>"$work/daemon.log" &
launcher=$!
for _ in $(seq 300); do
  grep -q "Serving TESK interface" "$work/daemon.log" && break
  kill -0 "$launcher" 2>/dev/null || break
  sleep 0.1
done
grep -q "Serving TESK interface" "$work/daemon.log" || { cat "$work/daemon.log"; exit 1; }

"$work/client/discover" "$work/socket/tesk" || { cat "$work/daemon.log"; exit 1; }
"$prefix/$bin/teskctl" --socket "$work/socket/tesk" scan || { cat "$work/daemon.log"; exit 1; }
