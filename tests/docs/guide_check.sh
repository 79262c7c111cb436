#!/usr/bin/env bash
# The guide against what it describes: every error code of the header has
# its row in the troubleshooting page, every relative link of the guide and
# the README leads to a file and heading that exist, and every function the
# public headers declare has the comment above it that the reference is made
# from (read through the reference's own filter).
set -euo pipefail
src=$1
fail=0
problem() { echo "FAIL: $*"; fail=1; }

# ---- error codes ----------------------------------------------------------------
for name in $(grep -oE '#define (KIVCAM_ERR_[A-Z_]+)' "$src/include/kivcam/kivcam.h" | awk '{print $2}'); do
  grep -q "| \`$name\` |" "$src/docs/troubleshooting.md" || problem "$name has no row in docs/troubleshooting.md"
done

# ---- links ------------------------------------------------------------------------
# GitHub's heading anchors: lower case, punctuation dropped, spaces to dashes.
anchors() { sed -n 's/^#\{1,6\} \(.*\)$/\1/p' "$1" | tr 'A-Z' 'a-z' | sed 's/[^a-z0-9 _-]//g; s/ /-/g'; }
for page in "$src"/docs/*.md "$src/README.md"; do
  dir=$(dirname "$page")
  while read -r link; do
    target=${link%%#*} anchor=${link#*#}
    [[ $link == *#* ]] || anchor=""
    file=$page
    [[ -n $target ]] && file=$dir/$target
    [[ -e $file ]] || { problem "${page#$src/}: link to $link: no such file"; continue; }
    if [[ -n $anchor ]]; then
      anchors "$file" | grep -qx -- "$anchor" || problem "${page#$src/}: link to $link: no such heading"
    fi
  done < <(grep -oE '\]\([^)]+\)' "$page" | sed 's/^](//; s/)$//' | grep -vE '^(https?|mailto):' || true)
done

# ---- every declared function has its comment ----------------------------------------
for header in "$src"/include/kivcam/*.h; do
  awk -f "$src/docs/header-filter.awk" "$header" | awk -v file="${header#$src/}" '
    /^[ \t]*$/ { last = ""; next }
    /^KIVCAM_API/ {
      # a group of declarations right under one comment shares it
      if (!(last ~ /\*\/[ \t]*$/ || last ~ /^KIVCAM_API/) || !documented) { print "FAIL: " file ": no comment above: " $0; bad = 1 }
    }
    /^\/\*\*/ { documented = 1 }
    /^\/\*[^*]/ { documented = 0 }
    { last = $0 }
    END { exit bad }' || fail=1
done
exit $fail
