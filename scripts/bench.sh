#!/usr/bin/env bash
# Builds the benchmarks (the "default" preset, build/), runs every driver that measures a figure
# of the performance table, and prints one table of figure, value and goal with the machine it
# ran on. Each driver prints its figures as lines "FIGURE <key> <value> <unit>"; its whole output
# is kept in build/bench-results/<driver>.log.
#
# Usage: scripts/bench.sh [--no-build]
# Environment: BENCH_JOBS (build jobs, default 2), BENCH_TIMEOUT (seconds per driver, default 150).
set -uo pipefail

cd "$(dirname "$0")/.."
build=build
results="$build/bench-results"
jobs="${BENCH_JOBS:-2}"
limit="${BENCH_TIMEOUT:-150}"

# The drivers in the order they run, with their arguments (kept short: the whole run should take
# a few minutes on a loaded two-core machine).
drivers=(orvex_bench_session_file orvex_bench_startup orvex_bench_search_roundtrip
         orvex_bench_query_cache orvex_bench_network orvex_bench_idle)
declare -A arguments=(
  [orvex_bench_session_file]="--benchmark_min_time=0.5 --benchmark_color=false"
  [orvex_bench_query_cache]="--benchmark_min_time=0.2 --benchmark_color=false"
  [orvex_bench_startup]="10"
)

# figure key | unit | goal | driver
table=(
  "cache_hit_ratio|×|≤ 1.25|orvex_bench_search_roundtrip"
  "query_cache_lookup_us|µs|—|orvex_bench_query_cache"
  "network_overhead_ms|ms|≤ 0.25|orvex_bench_network"
  "network_overhead_less_echo_ms|ms|—|orvex_bench_network"
  "idle_wakeups_per_s|/s|0|orvex_bench_idle"
  "idle_threads|n|≤ 6|orvex_bench_idle"
  "idle_uss_beside_twin_mib|MiB|≤ 3|orvex_bench_idle"
  "idle_pss_beside_twin_mib|MiB|≤ 8|orvex_bench_idle"
  "idle_uss_mib|MiB|— alone|orvex_bench_idle"
  "idle_pss_mib|MiB|— alone|orvex_bench_idle"
  "idle_written_mib|MiB|—|orvex_bench_idle"
  "idle_library_floor_uss_mib|MiB|—|orvex_bench_idle"
  "idle_library_floor_pss_mib|MiB|—|orvex_bench_idle"
  "idle_uss_less_libraries_mib|MiB|—|orvex_bench_idle"
  "idle_pss_less_libraries_mib|MiB|—|orvex_bench_idle"
  "session_appends_per_s|/s|≥ 100000|orvex_bench_session_file"
  "cold_start_configure_ms|ms|≤ 30|orvex_bench_startup"
)

load() { cut -d' ' -f1-3 /proc/loadavg; }
loadBefore="$(load)"

if [[ "${1:-}" != "--no-build" ]]; then
  mkdir -p "$build"
  # Configured every time, so drivers added since the last configure are known to ninja.
  cmake --preset default >"$build/bench-configure.log" 2>&1 ||
    { echo "configuring the benchmarks failed; see $build/bench-configure.log" >&2; exit 1; }
  known="$(ninja -C "$build" -t targets all 2>/dev/null | cut -d: -f1)"
  wanted=()
  for driver in "${drivers[@]}"; do
    grep -qx "$driver" <<<"$known" && wanted+=("$driver")
  done
  if ((${#wanted[@]} > 0)); then
    nice -n 10 cmake --build "$build" -j "$jobs" --target "${wanted[@]}" >"$build/bench-build.log" 2>&1 ||
      { echo "building the benchmarks failed; see $build/bench-build.log" >&2; exit 1; }
  fi
fi

mkdir -p "$results"
declare -A state value
for driver in "${drivers[@]}"; do
  binary="$build/bin/$driver"
  if [[ ! -x "$binary" ]]; then
    state[$driver]="not built"
    continue
  fi
  echo "running $driver ..." >&2
  # shellcheck disable=SC2086  # the arguments are split on purpose
  if timeout "$limit" "$binary" ${arguments[$driver]:-} >"$results/$driver.log" 2>&1; then
    state[$driver]="ran"
  else
    state[$driver]="failed (exit $?, see $results/$driver.log)"
  fi
  while read -r _ key figure _; do
    value[$key]="$figure"
  done < <(grep -ao 'FIGURE .*' "$results/$driver.log")
done

printf '\n%-30s %10s %-5s %-10s %s\n' figure value unit goal note
for row in "${table[@]}"; do
  IFS='|' read -r key unit goal driver <<<"$row"
  note=""
  if [[ -n "${value[$key]:-}" ]]; then
    shown="${value[$key]}"
    [[ "${state[$driver]}" != "ran" ]] && note="${state[$driver]}"
  else
    shown="—"
    case "${state[$driver]}" in
      "not built") note="$driver not built" ;;
      ran) note="$driver printed no figure" ;;
      *) note="$driver ${state[$driver]}" ;;
    esac
  fi
  printf '%-30s %10s %-5s %-10s %s\n' "$key" "$shown" "$unit" "$goal" "$note"
done
printf '\nmachine: %s cores, %s; load %s before, %s after\n' "$(nproc)" \
  "$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')" "$loadBefore" "$(load)"
