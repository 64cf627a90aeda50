#!/usr/bin/env bash
# Builds orvexd twice — normally and with AddressSanitizer + UndefinedBehaviorSanitizer — and runs
# every unit and integration test in both builds.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh test
jobs=$(nproc)

for preset in default asan; do
  echo "=== ${preset}: configure and build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  echo "=== ${preset}: tests"
  ctest --preset "$preset" -j "$jobs"
done
