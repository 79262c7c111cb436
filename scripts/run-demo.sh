#!/usr/bin/env bash
# The main job behind `make run`: the command-line tool against the virtual
# cameras when it is built; before that, the monitor watching a short demo.
set -euo pipefail
BUILD=${1:-build}
BIN="$BUILD/bin"

if [[ -x "$BIN/kivcam" ]]; then
  "$BIN/kivcam" list
  "$BIN/kivcam" info first
  # A few frames from every camera, converted and saved in ./frames/.
  for uid in $("$BIN/kivcam" list | awk 'NR > 1 && $2 ~ /^(GigE|USB|IIDC)$/ { print $1 }'); do
    echo
    "$BIN/kivcam" grab "$uid" -n 5 --out frames
  done
  exit 0
fi

# Private machine-wide names, so a monitor the user runs is not disturbed.
export KIVCAM_IPC_NAMESPACE="${KIVCAM_IPC_NAMESPACE:-_demo$$}"
out=$(mktemp)
trap 'rm -f "$out"; rm -f /dev/shm/*"$KIVCAM_IPC_NAMESPACE"' EXIT
"$BIN/kivcam-monitor" --level 1 >"$out" &
monitor=$!
for _ in $(seq 100); do grep -q "kivcam-monitor:" "$out" && break; sleep 0.05; done
"$BIN/kivcam-demo"
kill -INT "$monitor"
wait "$monitor" || true
echo "--- call log ---"
cat "$out"
