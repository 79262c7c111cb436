#!/usr/bin/env bash
# gev/README.md's "Try it": the emulator started as the first block says, the
# second block run as written against it, from a folder laid out like the top
# of a checkout. Both run in a network namespace of this test's own, so the
# loopback they use is not the machine's.
set -euo pipefail
src=$1 build=$2
if [[ -z ${KIVCAM_DOCS_NETNS:-} ]]; then
  unshare --net true 2>/dev/null || { echo "skipped: a network namespace of its own is refused (run as root)"; exit 77; }
  exec unshare --net env KIVCAM_DOCS_NETNS=1 bash "$0" "$@"
fi
ip link set lo up

work=$(mktemp -d)
export KIVCAM_IPC_NAMESPACE="_readmegev$$"
sim_pid=
trap '[[ -n $sim_pid ]] && kill $sim_pid 2>/dev/null; rm -rf "$work"; rm -f /dev/shm/*"$KIVCAM_IPC_NAMESPACE"' EXIT

section=$(sed -n '/^## Try it: an emulated camera on the loopback/,/^## [^T]/p' "$src/gev/README.md")
sim=$(awk '/^```sh$/ {n++; f = 1; next} /^```$/ {f = 0} f && n == 1' <<<"$section")
commands=$(awk '/^```sh$/ {n++; f = 1; next} /^```$/ {f = 0} f && n == 2' <<<"$section")
[[ $sim == "build/bin/kivgev-sim --camera 127.0.0.2" && -n $commands ]] ||
  { echo "no emulator command or kivcam commands in gev/README.md"; exit 1; }
grep -q 'kivcam grab first' <<<"$commands" || { echo "the README grabs no frames"; exit 1; }

ln -s "$build" "$work/build"
cd "$work"
bash -c "$sim" >sim.out 2>&1 &
sim_pid=$!
for _ in $(seq 100); do grep -qs "kivgev-sim: ready" sim.out && break; sleep 0.1; done
grep -q "kivgev-sim: ready" sim.out || { echo "the emulator did not start"; cat sim.out; exit 1; }

out=$(timeout 120 bash -euo pipefail -c "$commands")
echo "$out" | grep -v '^  '   # the feature tree is long
grep -Eq '^[0-9]+ +GigE .*KivSim-GC1920M +00:A0:B7:01:00:01$' <<<"$out" || { echo "the camera was not listed"; exit 1; }
grep -q '^camera IP    127.0.0.2$' <<<"$out"
grep -q '^grabbed   5 of 5 frames' <<<"$out"
[[ $(ls frames | grep -c '^KivSim-GC1920M-690265063425-00000[1-5]\.png$') -eq 5 ]] || { ls frames; exit 1; }
