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
echo "== fault runs: every entry point failing at every step"
start=$(date +%s)
if KIVCAM_FAULTS=full "$BUILD/bin/test_faults" --gtest_brief=1 >"$BUILD/faults.log" 2>&1; then
  result=passed
else
  result=FAILED
  status=1
fi
grep -E '^[0-9]+ runs|^known|^before|^after' "$BUILD/faults.log"
echo "fault runs: $result in $(($(date +%s) - start)) s" | tee -a "$report"
grep -E '^[0-9]+ runs|^known' "$BUILD/faults.log" | sed 's/^/  /' >>"$report"
[[ $result == passed ]] || tail -50 "$BUILD/faults.log"

echo "== soak: $SECONDS_TO_RUN s, 4 cameras, 8 threads"
start=$(date +%s)
if KIVCAM_SOAK_SECONDS=$SECONDS_TO_RUN KIVCAM_SOAK_REPORT="$report.part" \
   "$BUILD/bin/test_soak" --gtest_brief=1 >"$BUILD/soak.log" 2>&1; then
  result=passed
else
  result=FAILED
  status=1
fi
grep -E '^checkpoint' "$BUILD/soak.log"
echo "soak: $result in $(($(date +%s) - start)) s" | tee -a "$report"
grep -E '^checkpoint' "$BUILD/soak.log" | sed 's/^/  /' >>"$report"
[[ -f "$report.part" ]] && cat "$report.part" >>"$report" && rm -f "$report.part"
[[ $result == passed ]] || tail -80 "$BUILD/soak.log"
echo "report: $report"
exit $status
