#!/usr/bin/env bash
# Writes data/orvexd.order: the daemon's functions that run while it starts, configures a client,
# answers a search and settles, hottest first, as callgrind counts them in the idle benchmark.
# With ORVEX_ORDER_TEXT (the default outside the sanitizer builds) the linker puts them, in that
# order, at the front of the daemon's code, so the code pages a running daemon keeps in memory
# are those it uses rather than every page one of its functions happens to share.
#
# Run it again when the start-up or search path changes much. A stale list costs memory, never
# correctness: functions it does not name are placed after those it names.
#
# Usage: scripts/order-text.sh [idle seconds, default 20]
set -euo pipefail

cd "$(dirname "$0")/.."
idle="${1:-20}"
if ! command -v valgrind >/dev/null; then
  sudo=()
  [[ $(id -u) -ne 0 ]] && sudo=(sudo)
  "${sudo[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends \
    valgrind >/dev/null
fi

cmake --preset default >/dev/null
cmake --build build -j "${ORDER_JOBS:-2}" --target orvexd orvex_bench_idle >/dev/null
binary="$(realpath build/bin/orvexd)"

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
# Children the daemon forks on its way to running its probe helper leave no profile of their own.
ORVEX_TEST_DAEMON_WRAPPER="valgrind --tool=callgrind --demangle=no --child-silent-after-fork=yes
  --callgrind-out-file=$work/callgrind.out" \
  build/bin/orvex_bench_idle "$idle" >"$work/bench.log" 2>&1 ||
  { cat "$work/bench.log" >&2; exit 1; }

# Lines of callgrind_annotate read "<count> (<share>)  <file>:<symbol> [<object>]", by count.
{
  echo "# The daemon's functions in the order the linker places them first (scripts/order-text.sh)."
  callgrind_annotate --threshold=100 --inclusive=no "$work/callgrind.out" |
    grep -F "[$binary]" | grep -vF '(below main)' |
    sed -E 's/ \[[^]]*\]$//; s/^.*[: ]([^: ]+)$/\1/' |
    grep -Ev '^0x[0-9a-f]+$' || true
} >data/orvexd.order
echo "data/orvexd.order: $(grep -vc '^#' data/orvexd.order) functions" >&2
