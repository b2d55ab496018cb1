#!/usr/bin/env bash
# Runs the daemon under many clients at once (tests/soak):
#   faults:   clients scanning, ranging, releasing early, holding registrations,
#             slow, silent or not reading, some killed from outside, while the
#             simulated location service injects faults;
#   pressure: 1,000 slow senders, 50 late, silent or non-reading callback
#             clients and memory-pinning clients while teskctl scans.
# Each prints its figures and fails when the daemon did not come back to its
# baseline. Usage: scripts/soak.sh [SECONDS [faults|pressure]...]
# (fault soak length, default 180; both soaks by default). Options for the
# pressure soak can be given in TESK_SOAK_PRESSURE_OPTIONS; TESK_SOAK_LOG
# names a file that receives the daemon's whole log of the fault soak.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
seconds=${1:-180}
shift || true
modes=("$@")
[ ${#modes[@]} -eq 0 ] && modes=(faults pressure)

cmake --preset dev >/dev/null
cmake --build --preset dev --target tesk_soak tesk teskctl tarnsocket
for mode in "${modes[@]}"; do
  case "$mode" in
    faults) build/dev/bin/tesk_soak faults --seconds "$seconds" ;;
    # shellcheck disable=SC2086  # a list of options, split on purpose
    pressure) build/dev/bin/tesk_soak pressure ${TESK_SOAK_PRESSURE_OPTIONS:-} ;;
    *) echo "unknown soak $mode" >&2; exit 64 ;;
  esac
done
