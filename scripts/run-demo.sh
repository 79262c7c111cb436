#!/usr/bin/env bash
# The main job: what `make run` shows. Grows with the library.
set -euo pipefail
BUILD=${1:-build}
if [[ -x "$BUILD/bin/kivcam" ]]; then
  "$BUILD/bin/kivcam" list
  "$BUILD/bin/kivcam" info first
elif [[ -x "$BUILD/bin/kivcam-demo" ]]; then
  "$BUILD/bin/kivcam-demo"
else
  echo "nothing to run yet"
fi
