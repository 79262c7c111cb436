#!/usr/bin/env bash
# `make soak`: the fault runs at every step of the session and the soak for
# SECONDS (default 600), both from an AddressSanitizer build, each with its
# own machine-wide names. Writes BUILD/soak-report.txt; exit 0 when both pass.
set -uo pipefail
BUILD=${1:-build-soak}
SECONDS_TO_RUN=${2:-600}
report="$BUILD/soak-report.txt"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0
export UBSAN_OPTIONS=print_stacktrace=1
{
  echo "soak run of $(date -u '+%Y-%m-%d %H:%M UTC') on $(nproc) cores, commit $(git rev-parse --short HEAD 2>/dev/null || echo '?')"
  echo "build: $BUILD ($(grep -E '^KIVCAM_SANITIZE:' "$BUILD/CMakeCache.txt" | cut -d= -f2))"
} >"$report"

status=0
# run NAME LOGFILE SUMMARY-PATTERN COMMAND...: runs one part, reports it.
run() {
  local name=$1 log=$2 pattern=$3 start result
  shift 3
  start=$(date +%s)
  if "$@" >"$log" 2>&1; then result=passed; else result=FAILED; status=1; fi
  grep -E "$pattern" "$log"
  echo "$name: $result in $(($(date +%s) - start)) s" | tee -a "$report"
  grep -E "$pattern" "$log" | sed 's/^/  /' >>"$report"
  [[ $result == passed ]] || tail -80 "$log"
}

echo "== fault runs: every entry point failing at every step"
KIVCAM_FAULTS=full run "fault runs" "$BUILD/faults.log" '^[0-9]+ runs|^known' "$BUILD/bin/test_faults" --gtest_brief=1

echo "== soak: $SECONDS_TO_RUN s, 4 cameras, 8 threads"
KIVCAM_SOAK_SECONDS=$SECONDS_TO_RUN KIVCAM_SOAK_REPORT="$report.part" \
  run soak "$BUILD/soak.log" '^checkpoint' "$BUILD/bin/test_soak" --gtest_brief=1
[[ -f "$report.part" ]] && cat "$report.part" >>"$report" && rm -f "$report.part"
echo "report: $report"
exit $status
