#!/usr/bin/env bash
# Short libFuzzer runs of every fuzz target over its seed corpus; any finding
# fails. Runs after the unit tests in `make test`.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${FUZZ_BUILD:-$ROOT/build-fuzz}
SECONDS_PER_TARGET=${FUZZ_SECONDS:-20}

if ! command -v clang++ >/dev/null; then
  echo "fuzz-smoke: clang++ missing, skipped" >&2
  exit 0
fi
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DKIVCAM_BUILD_FUZZ=ON -DKIVCAM_BUILD_TESTS=OFF >/dev/null
targets=()
declare -A home  # the folder each target's seed corpus lives in
for src in "$ROOT"/genapi/fuzz/fuzz_*.cpp "$ROOT"/gev/fuzz/fuzz_*.cpp; do
  [[ -e "$src" ]] || continue
  t=$(basename "$src" .cpp)
  targets+=("$t")
  home[$t]=$(dirname "$src")
done
[[ ${#targets[@]} -eq 0 ]] && { echo "fuzz-smoke: no targets"; exit 0; }
cmake --build "$BUILD" -j 2 --target "${targets[@]}"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for t in "${targets[@]}"; do
  corpus="$work/$t"
  mkdir -p "$corpus"
  # Work on a copy: the run adds inputs that do not belong in the source tree.
  if [[ -d "${home[$t]}/corpus/$t" ]]; then cp -r "${home[$t]}/corpus/$t/." "$corpus/"; fi
  if [[ "$t" == fuzz_loader ]]; then
    for seed in "$ROOT"/genapi/tests/data/*.xml "$ROOT"/../shared/testdata/genicam/aravis-*.xml; do
      [[ -e "$seed" ]] && cp "$seed" "$corpus/"
    done
  fi
  echo "fuzz-smoke: $t for ${SECONDS_PER_TARGET}s"
  (cd "$work" && "$BUILD/bin/$t" "$corpus" -max_total_time="$SECONDS_PER_TARGET" -max_len=65536 \
    -timeout=10 -rss_limit_mb=2048 -print_final_stats=0 2>"$work/$t.log") || {
    tail -n 40 "$work/$t.log" >&2
    echo "fuzz-smoke: $t found a problem" >&2
    exit 1
  }
done
echo "fuzz-smoke: no findings"
