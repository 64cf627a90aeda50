#!/usr/bin/env bash
# Builds the unit and integration tests (and the daemon and back-end they run) with
# ThreadSanitizer and runs them. Not part of scripts/test.sh: a third full build does not fit its
# time budget on two cores. Any data race or lock-order inversion fails the run. The idle test is
# left out: the sanitizer's own background thread, which bears the daemon's name, wakes ten times
# a second.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh test
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake --preset tsan "${launcher[@]}" >/dev/null
cmake --build --preset tsan -j "$(nproc)"
ctest --preset tsan -j "$(nproc)"
