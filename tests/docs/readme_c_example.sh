#!/usr/bin/env bash
# The README's C example, built and run with exactly the commands the README
# gives, from a folder laid out like the top of a checkout (include/ and
# build/ pointing at this source and build tree).
set -euo pipefail
src=$1 build=$2
work=$(mktemp -d)
export KIVCAM_IPC_NAMESPACE="_readme$$"
trap 'rm -rf "$work"; rm -f /dev/shm/*"$KIVCAM_IPC_NAMESPACE"' EXIT

section=$(sed -n '/^## Using the library from C/,$p' "$src/README.md")
awk '/^```c$/ {f = 1; next} /^```$/ {if (f) exit} f' <<<"$section" >"$work/app.c"
commands=$(awk '/^```sh$/ {f = 1; next} /^```$/ {if (f) exit} f' <<<"$section")
[[ -s "$work/app.c" && -n "$commands" ]] || { echo "no C example or commands in the README"; exit 1; }

ln -s "$src/include" "$work/include"
ln -s "$build" "$work/build"
cd "$work"
source "$(dirname "$0")/sanitized_cc.sh"
out=$(bash -euo pipefail -c "$commands")
echo "$out"
grep -Eq '^[0-9]+ cameras$' <<<"$out"
