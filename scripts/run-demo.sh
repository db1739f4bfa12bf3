#!/usr/bin/env bash
# Runs tarnhold on the simulated appliance and talks to it with tarnholdctl.
#
# Builds what is missing, writes a demo firmware image, starts
#   tarnhold-sim -- tarnhold --file <demo image>
# and sends a few requests once the request FIFO is there, a CPLD upgrade
# among them (about 26 s of the daemon's waits). The microcontroller
# starts with another application, so the daemon first upgrades it (to the
# bootloader, erase, programming, back to the application) before it answers.
#
# The daemon's paths ("/tmp/qx-usb-daemon-fifo", "/var/run/tarnhold.pid") are
# fixed: when it can, the demo runs in a private mount namespace with its own
# /tmp and /var/run, so nothing of it stays behind on the host; otherwise (no
# unshare, not root) it runs as is.
#
# Environment: BUILD (build folder, default build), DEMO_SPEED (libfaketime
# rate for the daemon's fixed waits of 2 and 3 s, its USB resets and the
# CPLD upgrade's waits; default
# 10, 1 for real time).
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
SELF="$ROOT/scripts/run-demo.sh"
BUILD=${BUILD:-build}
SPEED=${DEMO_SPEED:-10}
case "$BUILD" in /*) ;; *) BUILD="$ROOT/$BUILD" ;; esac

if [ -z "${TARNHOLD_DEMO_INSIDE:-}" ]; then
    cmake -S . -B "$BUILD" >/dev/null
    cmake --build "$BUILD" -j"$(nproc)" --target tarnhold tarnhold-sim tarnholdctl
    if [ "$(id -u)" = 0 ] && command -v unshare >/dev/null &&
        unshare --mount --propagation private true 2>/dev/null; then
        TARNHOLD_DEMO_INSIDE=namespace BUILD="$BUILD" exec unshare --mount --propagation private bash "$SELF" "$@"
    fi
    TARNHOLD_DEMO_INSIDE=host BUILD="$BUILD" exec bash "$SELF" "$@"
fi

SIM="$BUILD/sim/tarnhold-sim"
DAEMON="$BUILD/daemon/tarnhold"
CTL="$BUILD/client/tarnholdctl"
FIFO=/tmp/qx-usb-daemon-fifo

if [ "$TARNHOLD_DEMO_INSIDE" = namespace ]; then
    # Fresh /tmp and /var/run, unless the sources or the build live there.
    for dir in /tmp /var/run; do
        case "$ROOT/:$BUILD/" in "$dir"/* | *:"$dir"/*) continue ;; esac
        mount -t tmpfs -o mode=1777 tmpfs "$dir"
    done
    echo "== running in a private mount namespace"
fi

WORK=$(mktemp -d /tmp/tarnhold-demo.XXXXXX)
HEX="$WORK/demo-pic-client.hex"
SIM_PID=
cleanup() {
    if [ -n "$SIM_PID" ] && kill -0 "$SIM_PID" 2>/dev/null; then
        kill -TERM "$SIM_PID" 2>/dev/null || true
        wait "$SIM_PID" 2>/dev/null || true
    fi
    rm -rf "$WORK"
}
trap cleanup EXIT

# 4 KiB of application at the start of the flash range, as Intel HEX with
# 16-byte records and extended linear address records.
srec_cat -generate 0x1D010000 0x1D011000 -repeat-string "tarnhold demo application " \
    -o "$HEX" -intel -address-length=4 -output-block-size=16
echo "== demo firmware image: $HEX ($(wc -l <"$HEX") records)"

SIM_ARGS=(--log "$WORK/events.log")
if [ "$SPEED" != 1 ]; then
    SIM_ARGS+=(--faketime "+0 x$SPEED")
fi
echo "== starting: tarnhold-sim ${SIM_ARGS[*]} -- tarnhold --file $HEX"
"$SIM" "${SIM_ARGS[@]}" -- "$DAEMON" --file "$HEX" >"$WORK/daemon.out" 2>"$WORK/daemon.log" &
SIM_PID=$!

for _ in $(seq 1 600); do
    [ -p "$FIFO" ] && break
    if ! kill -0 "$SIM_PID" 2>/dev/null; then
        echo "tarnhold ended before its request FIFO was there:" >&2
        cat "$WORK/daemon.log" >&2
        exit 1
    fi
    sleep 0.1
done
[ -p "$FIFO" ] || { echo "no request FIFO after 60 s" >&2; exit 1; }
echo "== request FIFO $FIFO is there; requests wait until the firmware check is over"

run() {
    echo
    echo "\$ tarnholdctl $*"
    "$CTL" --timeout 120 "$@" || echo "(exit status $?)"
}
run cmd QX_HID_CMD_GET_INFO
run cmd QX_HID_CMD_SET_LEDS 1 0 1 0 1 0 1 0
run bay-shutdown 3
run bay-indicator 3
run slot-read 10
run slot-read 4
run firmware-check "$HEX"
# The CPLD record before and after an upgrade from the sample JBC file; the
# file goes to the work folder, since the request carries at most 65
# characters of path.
cp "$ROOT/tests/data/jbc/idcode.jbc" "$WORK/idcode.jbc"
run cpld-info
run cpld-upgrade "$WORK/idcode.jbc"
run cpld-info

echo
echo "== start-up as the daemon logged it (trace lines left out)"
grep -v -e 'QX_TRACE_FILE-' -e 'QX_TRACE_USB-' "$WORK/daemon.log" || true

echo
echo "== stopping tarnhold with SIGTERM"
kill -TERM "$SIM_PID"
status=0
wait "$SIM_PID" || status=$?
SIM_PID=
echo "== tarnhold exited with status $status; the simulated microcontroller saw $(wc -l <"$WORK/events.log") events"
exit "$status"
