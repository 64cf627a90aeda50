#!/usr/bin/env bash
# Builds orvexd and the reference back-end, runs the back-end on loopback and the daemon on a
# private session bus pointed at it: shows that the daemon owns com.zelmor.orvexd, the bag it
# fetched from the back-end, its counters, two searches, a zero-keyword page and the bytes of the
# images it names through orvexctl, then leaves both running until you press Enter (or Ctrl-C).
#
# The build's, the daemon's and the back-end's output go to log files whose paths are printed;
# they are shown only when something fails.
set -euo pipefail
cd "$(dirname "$0")/.."

logs=$(mktemp -d "${TMPDIR:-/tmp}/orvexd-demo-logs-XXXXXX")
echo "logs: $logs (build.log, orvexd.log, orvex-backend.log)"
show_log() {
  echo "--- $1" >&2
  tail -n 60 "$logs/$1" >&2 || true
}

scripts/install-deps.sh build
echo "building orvexd, orvex-backend and orvexctl ..."
if ! { cmake --preset default && cmake --build --preset default -j "$(nproc)" \
         --target orvexd orvex-backend orvexctl; } >"$logs/build.log" 2>&1; then
  show_log build.log
  exit 1
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/orvexd-demo-XXXXXX")
bus_pid=""
daemon_pid=""
backend_pid=""
cleanup() {
  local status=$?
  [[ -n "$daemon_pid" ]] && kill "$daemon_pid" 2>/dev/null || true
  [[ -n "$backend_pid" ]] && kill "$backend_pid" 2>/dev/null || true
  [[ -n "$bus_pid" ]] && kill "$bus_pid" 2>/dev/null || true
  if [[ $status -ne 0 ]]; then
    show_log orvexd.log
    show_log orvex-backend.log
  fi
  rm -rf "$work"
}
trap cleanup EXIT

# A session bus of our own, so the demo touches nothing of the desktop's.
cat >"$work/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=$work/bus</listen>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/>
  </policy>
</busconfig>
CONF
dbus-daemon --config-file="$work/bus.conf" --nofork --print-address=1 >"$work/address" 2>"$work/bus.log" &
bus_pid=$!
for _ in $(seq 100); do [[ -s "$work/address" ]] && break; sleep 0.05; done
export DBUS_SESSION_BUS_ADDRESS=$(head -n1 "$work/address")
echo "private session bus: $DBUS_SESSION_BUS_ADDRESS"

# The reference back-end on a loopback port of the kernel's choosing, serving its default bag.
build/bin/orvex-backend --port 0 --port-file "$work/backend.port" >"$logs/orvex-backend.log" 2>&1 &
backend_pid=$!
for _ in $(seq 100); do [[ -s "$work/backend.port" ]] && break; sleep 0.05; done
[[ -s "$work/backend.port" ]] || { echo "orvex-backend did not start" >&2; exit 1; }
backend="http://127.0.0.1:$(cat "$work/backend.port")"

# The daemon keeps its defaults and cache in the demo directory; its defaults send it to the
# back-end for its bag.
mkdir -p "$work/config/com.zelmor.orvexd"
cat >"$work/config/com.zelmor.orvexd/defaults.plist" <<PLIST
<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict><key>ORVBagURL</key><string>$backend/bag</string></dict></plist>
PLIST
XDG_CONFIG_HOME="$work/config" XDG_CACHE_HOME="$work/cache" ORVEXD_LOG_LEVEL=info \
  build/bin/orvexd >"$logs/orvexd.log" 2>&1 &
daemon_pid=$!
for _ in $(seq 100); do
  busctl --address="$DBUS_SESSION_BUS_ADDRESS" status com.zelmor.orvexd >/dev/null 2>&1 && break
  kill -0 "$daemon_pid" 2>/dev/null || { echo "orvexd did not start" >&2; exit 1; }
  sleep 0.05
done

echo
echo "\$ busctl --address=\$DBUS_SESSION_BUS_ADDRESS list | grep orvexd"
busctl --address="$DBUS_SESSION_BUS_ADDRESS" list --no-pager | grep -E '^NAME|com.zelmor.orvexd'
# The bag arrives from the back-end shortly after start.
for _ in $(seq 100); do
  [[ -s "$work/cache/com.zelmor.orvexd/bag.plist" ]] && break
  sleep 0.05
done
echo
echo "\$ busctl --address=\$DBUS_SESSION_BUS_ADDRESS call com.zelmor.orvexd /com/zelmor/orvexd com.zelmor.orvexd.Diagnostics GetBag"
busctl --address="$DBUS_SESSION_BUS_ADDRESS" --json=short call com.zelmor.orvexd \
  /com/zelmor/orvexd com.zelmor.orvexd.Diagnostics GetBag |
  jq -r '.data[0]' | jq .
echo
echo "\$ busctl --address=\$DBUS_SESSION_BUS_ADDRESS call com.zelmor.orvexd /com/zelmor/orvexd com.zelmor.orvexd.Diagnostics GetCounters"
busctl --address="$DBUS_SESSION_BUS_ADDRESS" --json=pretty call com.zelmor.orvexd \
  /com/zelmor/orvexd com.zelmor.orvexd.Diagnostics GetCounters

# A front-end typing "weath", then "weathe": the first goes to the back-end, the second is
# answered from the daemon's query cache, so the back-end sees one search request.
for query in weath weathe; do
  echo
  echo "\$ orvexctl search $query"
  build/bin/orvexctl --address "$DBUS_SESSION_BUS_ADDRESS" search "$query"
done
echo
echo "orvex-backend received $(grep -c 'GET /search' "$logs/orvex-backend.log" || true) search request(s)"

# The zero-keyword page names images; the daemon fetched them into its cache as the answer came.
# A front-end then asks the daemon for their bytes instead of fetching them itself.
ctl=(build/bin/orvexctl --address "$DBUS_SESSION_BUS_ADDRESS")
echo
echo "\$ orvexctl zkw"
"${ctl[@]}" zkw
mapfile -t images < <("${ctl[@]}" --json zkw |
  jq -r '[.reply.rawResponse | .. | objects | .url? | strings] | unique | .[]')
echo
echo "\$ orvexctl images <the ${#images[@]} image URLs the zero-keyword answer names>"
"${ctl[@]}" images --out "$work" "${images[@]}"

# The bag names ten data files; the daemon downloaded them when the bag came.
echo
echo "\$ orvexctl resources"
"${ctl[@]}" resources

if [[ -t 0 ]]; then
  echo
  echo "orvexd is running (pid $daemon_pid) against orvex-backend at $backend. In another shell:"
  echo "  export DBUS_SESSION_BUS_ADDRESS=$DBUS_SESSION_BUS_ADDRESS"
  echo "Press Enter to stop it."
  read -r
fi
kill -TERM "$daemon_pid"
status=0
wait "$daemon_pid" || status=$?
daemon_pid=""
echo "orvexd stopped on SIGTERM with exit status $status"
