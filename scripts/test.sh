#!/usr/bin/env bash
# Checks the sources (include layering, clang-format), then builds orvexd twice — g++ with warnings
# as errors, and clang with AddressSanitizer + UndefinedBehaviorSanitizer (which also builds the
# fuzz targets against the same libraries) — and runs every unit, integration and fuzz test in
# both builds. Benchmarks are not built here; the default preset builds them.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh test
jobs=$(nproc)

echo "=== checks: include layering and formatting"
scripts/check-layering.sh
git ls-files -z '*.h' '*.cc' | xargs -0 clang-format-14 --dry-run --Werror
echo "formatting: every source is as clang-format leaves it"

launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
for preset in ci asan; do
  echo "=== ${preset}: configure and build"
  cmake --preset "$preset" "${launcher[@]}" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  echo "=== ${preset}: tests"
  ctest --preset "$preset" -j "$jobs"
done
