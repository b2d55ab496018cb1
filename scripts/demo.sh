#!/usr/bin/env bash
# The main job: builds tesk, starts it as init would (hostinit creates the
# control socket) on the host stand-ins with the simulated location service,
# and shows teskctl running a discovery scan and a ranging scan.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

cmake --preset release >/dev/null
cmake --build --preset release --target tesk hostinit teskctl tarnsocket
bin=build/release/bin

socket_dir=$(mktemp -d)
log="$socket_dir/tesk.log"
"$bin/hostinit" --socket-dir "$socket_dir" -- "$bin/tesk" 2>"$log" &
init_pid=$!
stop() {
  kill -TERM "$init_pid" 2>/dev/null && wait "$init_pid" || true
  echo
  echo "== daemon log"
  cat "$log"
  rm -rf "$socket_dir"
}
trap stop EXIT

export TESK_SOCKET="$socket_dir/tesk"
for _ in $(seq 100); do
  grep -q "Serving TESK interface" "$log" && break
  sleep 0.05
done

echo "== teskctl scan"
"$bin/teskctl" scan
echo
echo "== teskctl --json scan --channels 64 --ssid Neheb"
"$bin/teskctl" --json scan --channels 64 --ssid Neheb
echo
echo "== teskctl range 00:0d:58:ef:88:09 a0:f3:c1:50:3e:62 00:14:6c:7e:40:80"
"$bin/teskctl" range 00:0d:58:ef:88:09 a0:f3:c1:50:3e:62 00:14:6c:7e:40:80
