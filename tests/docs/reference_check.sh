#!/usr/bin/env bash
# `make docs`'s reference, built into a folder of its own: it builds, the
# public headers leave no warning, and every function they declare has its
# entry with its comment.
set -euo pipefail
src=$1 build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
sed "s#^OUTPUT_DIRECTORY .*#OUTPUT_DIRECTORY = $work#; s#^WARN_LOGFILE .*#WARN_LOGFILE = $work/warnings.txt#" \
    "$build/docs/Doxyfile" >"$work/Doxyfile"
(cd "$src" && doxygen "$work/Doxyfile")
cmake -DWARNINGS="$work/warnings.txt" -P "$src/cmake/CheckDocWarnings.cmake"
fail=0
for header in "$src"/include/kivcam/*.h; do
  page=$work/html/$(basename "$header" .h | sed 's/_/__/g')_8h.html
  [[ -f $page ]] || { echo "FAIL: no reference page for ${header#$src/}"; fail=1; continue; }
  for fn in $(grep -oE '^KIVCAM_API [^(]*[ *]([A-Za-z_0-9]+)\(' "$header" | sed -E 's/.*[ *]([A-Za-z_0-9]+)\($/\1/'); do
    grep -q "memtitle.*</span>$fn()" "$page" || { echo "FAIL: $fn has no entry in the reference"; fail=1; }
  done
done
grep -q 'Waits up to timeout ms' "$work/html/kivcam_8h.html" || { echo "FAIL: the comments are not in the reference"; fail=1; }
exit $fail
