#!/usr/bin/env bash
# The README's frame-channel examples, writer and reader, built with exactly
# the commands the README gives and run against each other.
set -euo pipefail
src=$1 build=$2
work=$(mktemp -d)
export KIVCAM_IPC_NAMESPACE="_readmefilter$$"
writer_pid=
trap '[[ -n $writer_pid ]] && kill $writer_pid 2>/dev/null; rm -rf "$work"; rm -f /dev/shm/*"$KIVCAM_IPC_NAMESPACE"' EXIT

section=$(sed -n '/^## Publishing frames to another process/,/^## [^P]/p' "$src/README.md")
awk '/^```c$/ {n++; f = 1; next} /^```$/ {f = 0} f && n == 1' <<<"$section" >"$work/writer.c"
awk '/^```c$/ {n++; f = 1; next} /^```$/ {f = 0} f && n == 2' <<<"$section" >"$work/reader.c"
build_commands=$(awk '/^```sh$/ {f = 1; next} /^```$/ {f = 0} f && /^cc /' <<<"$section")
[[ -s "$work/writer.c" && -s "$work/reader.c" && $(wc -l <<<"$build_commands") -eq 2 ]] ||
  { echo "no writer, reader or build commands in the README"; exit 1; }

ln -s "$src/include" "$work/include"
ln -s "$build" "$work/build"
cd "$work"
source "$(dirname "$0")/sanitized_cc.sh"
bash -euo pipefail -c "$build_commands"

mkfifo enter
./writer <enter >writer.out &
writer_pid=$!
exec 3>enter    # held open: the writer waits for Enter, not for end of input
for _ in $(seq 100); do grep -q "Enter ends" writer.out && break; sleep 0.1; done
grep -q "^process $writer_pid publishes" writer.out || { echo "the writer did not start"; cat writer.out; exit 1; }
out=$(timeout 10 ./reader "$writer_pid")
echo "$out"
[[ $out == "640x480 frame, first pixel B=128 G=128 R=128" ]]
echo >&3
wait $writer_pid
writer_pid=
