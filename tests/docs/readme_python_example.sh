#!/usr/bin/env bash
# The README's Python use, as written: its command and its program, from a
# folder laid out like the top of a checkout (python/, examples/ and build/
# pointing at this source and build tree), so the package finds the library
# in build/lib by itself.
set -euo pipefail
src=$1 build=$2
work=$(mktemp -d)
export KIVCAM_IPC_NAMESPACE="_readme_py$$" PYTHONDONTWRITEBYTECODE=1
export PATH=/usr/bin:$PATH  # Debian's interpreter, the one with python3-numpy
unset KIVCAM_LIBRARY
trap 'rm -rf "$work"; rm -f /dev/shm/*"$KIVCAM_IPC_NAMESPACE"' EXIT

section=$(sed -n '/^## Using the library from Python/,/^## [^U]/p' "$src/README.md")
commands=$(awk '/^```sh$/ {f = 1; next} /^```$/ {if (f) exit} f' <<<"$section")
awk '/^```python$/ {f = 1; next} /^```$/ {if (f) exit} f' <<<"$section" >"$work/app.py"
[[ -s "$work/app.py" && -n "$commands" ]] || { echo "no Python example or command in the README"; exit 1; }

ln -s "$src/python" "$work/python"
ln -s "$src/examples" "$work/examples"
ln -s "$build" "$work/build"
cd "$work"
out=$(bash -euo pipefail -c "$commands")
echo "$out"
grep -q "^saved first.png and first.bmp" <<<"$out"
out=$(PYTHONPATH=python python3 app.py)
echo "$out"
grep -q "KivSim-GC1920M" <<<"$out"
grep -q "(8, 1920, 4)" <<<"$out"
[[ -s last.png && -s first.bmp ]]
