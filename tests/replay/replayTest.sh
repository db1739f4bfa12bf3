#!/usr/bin/env bash
# Recordings of the service on the simulated appliance (tarnhold-sim, the real
# binaries under umockdev), and their replays with tarnhold-sim --replay.
#
#   replayTest.sh CASE SOURCE_DIR BUILD_DIR
#
#   stored NAME  the kept recording tests/data/replay/NAME.rec.gz replays to
#                its end; with one byte of a reply changed it stops at that
#                exchange with the divergence report
#   roundtrip    a session recorded now replays to its end, every exchange
#   crash        tarnhold killed by SIGSEGV in the middle of an FPGA upgrade:
#                the recording holds every exchange before the signal
#   limit        a recording past its size limit keeps the start-up part and
#                the newest part, with a gap between them
#   diskfull     a recording that cannot be written stops with one log line;
#                requests are still served
#   make         writes the kept recordings anew into tests/data/replay (by
#                hand, after a change the daemon is meant to make)
#
# Every case but `stored` runs the daemon and needs root: it runs in a private
# mount namespace with its own /tmp and /var/run.
set -euo pipefail

CASE=$1
SRC=$(cd "$2" && pwd)
BUILD=$(cd "$3" && pwd)
shift 3
SIM="$BUILD/sim/tarnhold-sim"
DAEMON="$BUILD/daemon/tarnhold"
CTL="$BUILD/client/tarnholdctl"
KEPT="$SRC/tests/data/replay"
FIFO=/tmp/qx-usb-daemon-fifo

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# Counts the lines of `tarnholdctl trace` that match a pattern (0 when none).
count() {
    { "$CTL" trace "$1" 2>/dev/null || true; } | grep -c -e "$2" || true
}

if [ "$CASE" = stored ]; then
    NAME=$1
    WORK=$(mktemp -d "${TMPDIR:-/tmp}/tarnhold-replay.XXXXXX")
    trap 'rm -rf "$WORK"' EXIT
    gzip -dc "$KEPT/$NAME.rec.gz" >"$WORK/$NAME.rec"
    records=$(( $("$CTL" trace "$WORK/$NAME.rec" | wc -l) - 1 ))
    out=$("$SIM" --replay "$WORK/$NAME.rec" --files "$KEPT") || fail "$NAME does not replay: $out"
    echo "$out"
    grep -q "all $records exchanges matched" <<<"$out" || fail "$NAME: not all $records exchanges replayed"
    if [ "$NAME" = day ]; then
        # It holds the firmware file's hash only: another file of that name and size (one character
        # changed) is named and refused.
        mkdir "$WORK/other"
        sed '1s/DC$/DD/' "$KEPT/app.hex" >"$WORK/other/app.hex"
        out=$("$SIM" --replay "$WORK/$NAME.rec" --files "$WORK/other") && fail "$NAME replayed with another file"
        grep -q "the file $WORK/other/app.hex is not the one recorded" <<<"$out" || fail "$NAME: other file not named"
    fi
    # The last reply, one byte of its answer changed: the daemon now sends
    # something else than the recording holds there.
    at=$("$CTL" --json trace "$WORK/$NAME.rec" | grep '"kind":"write"' | tail -1 |
        sed -n 's/.*"offset":\([0-9]*\).*/\1/p')
    [ -n "$at" ] || fail "$NAME: no reply in the recording"
    exchange=$("$CTL" --json trace "$WORK/$NAME.rec" | grep "\"offset\":$at[,}]" |
        sed -n 's/.*"exchange":\([0-9]*\).*/\1/p')
    byte=$((at + 16 + 24 + 173 + 6)) # record head, transfer, then the reply's answer block
    old=$(od -An -tu1 -j "$byte" -N1 "$WORK/$NAME.rec" | tr -d ' ')
    printf "\\$(printf %03o $((old ^ 0xff)))" | dd of="$WORK/$NAME.rec" bs=1 seek="$byte" conv=notrunc status=none
    status=0
    out=$("$SIM" --replay "$WORK/$NAME.rec" --files "$KEPT") || status=$?
    echo "$out"
    [ "$status" = 1 ] || fail "$NAME changed: exit status $status, not 1"
    grep -q "diverged at exchange $exchange " <<<"$out" || fail "$NAME changed: not stopped at exchange $exchange"
    grep -q "expected: .*write" <<<"$out" && grep -q "came: .*write" <<<"$out" ||
        fail "$NAME changed: the report does not show both replies"
    exit 0
fi

if [ -z "${REPLAY_TEST_INSIDE:-}" ]; then
    [ "$(id -u)" = 0 ] || { echo "SKIP: needs root for a private mount namespace"; exit 0; }
    REPLAY_TEST_INSIDE=1 exec unshare --mount --propagation private bash "$0" "$CASE" "$SRC" "$BUILD" "$@"
fi
# A fresh tmpfs on DIR, so that cases running side by side never share the
# daemon's fixed paths; a checkout or build below DIR stays visible: its top
# folder is opened before the mount and bound back onto itself after it.
freshTmpfs() {
    local dir=$1 path rel top fd
    local -a kept=()
    for path in "$SRC" "$BUILD"; do
        case "$path/" in "$dir"/*) rel=${path#"$dir"/} && kept+=("$dir/${rel%%/*}") ;; esac
    done
    local -a fds=() tops=()
    for top in "${kept[@]}"; do
        [[ " ${tops[*]} " == *" $top "* ]] && continue
        exec {fd}<"$top"
        fds+=("$fd")
        tops+=("$top")
    done
    mount -t tmpfs -o mode=1777 tmpfs "$dir"
    for i in "${!tops[@]}"; do
        mkdir -p "${tops[i]}"
        mount --no-canonicalize --bind "/proc/self/fd/${fds[i]}" "${tops[i]}"
        exec {fds[i]}<&-
    done
}
freshTmpfs /tmp
freshTmpfs /var/run
# The daemons' flash history, in the fresh /tmp rather than the host's state folder.
export STATE_DIRECTORY=/tmp/tarnhold-state
# Outside the tmpfs just mounted: the files survive the daemon's ends.
WORK=$(mktemp -d "$BUILD/replay-$CASE.XXXXXX")
SIM_PID=
cleanup() {
    if [ -n "$SIM_PID" ] && kill -0 "$SIM_PID" 2>/dev/null; then
        kill -TERM "$SIM_PID" 2>/dev/null || true
        wait "$SIM_PID" 2>/dev/null || true
    fi
    rm -rf "$WORK"
}
trap cleanup EXIT
HEX="$KEPT/app.hex"
FPGA="$WORK/fpga.bin"
(yes tarnhold-fpga-image || true) | head -c 1048576 >"$FPGA"
CPLD="$WORK/idcode.jbc"
cp "$SRC/tests/data/jbc/idcode.jbc" "$CPLD"

# start REC SPEED [SIM_OPTION...] -- [DAEMON_OPTION...]: tarnhold on the
# simulated appliance, recording to REC, its waits SPEED times as fast.
start() {
    local rec=$1 speed=$2
    shift 2
    local simArgs=()
    while [ "$1" != -- ]; do simArgs+=("$1"); shift; done
    shift
    rm -f "$FIFO" # what an earlier session's SIGTERM left
    TARNHOLD_RECORD=$rec "$SIM" --faketime "+0 x$speed" "${simArgs[@]}" -- "$DAEMON" "$@" \
        >"$WORK/daemon.out" 2>"$WORK/daemon.log" &
    SIM_PID=$!
    for _ in $(seq 1 600); do
        [ -p "$FIFO" ] && return 0
        kill -0 "$SIM_PID" 2>/dev/null || { cat "$WORK/daemon.log" >&2; fail "tarnhold ended at start-up"; }
        sleep 0.1
    done
    fail "no request FIFO after 60 s"
}

stop() {
    kill -TERM "$SIM_PID"
    wait "$SIM_PID" || true
    SIM_PID=
}

ctl() {
    "$CTL" --timeout 120 "$@" >/dev/null || fail "tarnholdctl $* failed"
}

# Start-up upgrade from another application, then a few requests.
sessionStartup() {
    start "$1" 10 -- --file "$HEX"
    ctl get-info
    ctl slot-read 10
    ctl file-transfer 65536
    stop
}

sessionUpgrades() {
    start "$1" 20 --flash-image "$HEX" -- --file "$HEX"
    ctl fpga-upgrade "$FPGA"
    ctl cpld-upgrade "$CPLD"
    ctl cpld-info
    stop
}

# The programming fails once (EIO on the 21st block); the daemon stays in
# the bootloader and programs again a second later.
sessionInterrupted() {
    start "$1" 10 --fault ioctl:program:EIO:1:20 -- --file "$HEX"
    ctl get-info
    stop
}

# A day of mixed requests, one every five minutes of the daemon's time.
sessionDay() {
    start "$1" 1000 --flash-image "$HEX" -- --file "$HEX"
    # (No fans: with --file the daemon never reads the platform text that names them.)
    local requests=(get-info "slot-read 10" "bay-indicator 3" tray-test "file-transfer 4096" cpld-info
        xml-detect-get "cmd QX_HID_CMD_SET_LEDS 1 0 1 0 1 0 1 0" shutdown "bay-shutdown 2" "bay-resume 2")
    for i in $(seq 0 287); do
        # shellcheck disable=SC2086
        ctl ${requests[$((i % ${#requests[@]}))]}
        sleep 0.3
    done
    stop
}

case "$CASE" in
make)
    for name in startup upgrades interrupted day; do
        rec="$WORK/$name.rec"
        case $name in
        startup) TARNHOLD_RECORD_DATA=1 sessionStartup "$rec" ;;
        upgrades) TARNHOLD_RECORD_DATA=1 sessionUpgrades "$rec" ;;
        interrupted) TARNHOLD_RECORD_DATA=1 sessionInterrupted "$rec" ;;
        day) sessionDay "$rec" ;; # hash only: the firmware file comes from --files
        esac
        "$SIM" --replay "$rec" --files "$KEPT" || fail "$name does not replay"
        gzip -9nc "$rec" >"$KEPT/$name.rec.gz"
        echo "$KEPT/$name.rec.gz: $(stat -c %s "$rec") bytes, $(stat -c %s "$KEPT/$name.rec.gz") compressed"
    done
    ;;
roundtrip)
    rec="$WORK/session.rec"
    sessionUpgrades "$rec"
    records=$(( $("$CTL" trace "$rec" | wc -l) - 1 ))
    [ "$(count "$rec" ' mem ')" -gt 100 ] || fail "no pages the driver read in the recording"
    out=$("$SIM" --replay "$rec") || fail "does not replay: $out"
    echo "$out"
    grep -q "all $records exchanges matched" <<<"$out" || fail "not all $records exchanges replayed"
    ;;
crash)
    rec="$WORK/crash.rec"
    # Each chunk leaves the driver busy for a while, so that the daemon waits
    # (and its records reach the file) between chunks: the signal comes while
    # pages are still being handed over.
    start "$rec" 20 --flash-image "$HEX" --log "$WORK/events" --fault urb-busy:400000 -- --file "$HEX"
    ctl get-info
    "$CTL" --timeout 120 fpga-upgrade "$FPGA" >/dev/null 2>&1 &
    for _ in $(seq 1 600); do
        [ "$(count "$rec" PIC_HID_PROGRAM_FPGA)" -ge 10 ] && break
        sleep 0.05
    done
    [ "$(count "$rec" PIC_HID_PROGRAM_FPGA)" -ge 10 ] || fail "the FPGA upgrade did not start sending pages"
    [ "$(count "$rec" PIC_HID_PROGRAM_FPGA)" -lt 130 ] || fail "the FPGA upgrade sent its pages before the signal"
    kill -SEGV "$(cat /var/run/tarnhold.pid)"
    wait "$SIM_PID" || true
    SIM_PID=
    "$CTL" trace "$rec" >"$WORK/trace" || fail "the crash's recording does not read to its end"
    tail -1 "$WORK/trace" | grep -q 'exit.*signal 11' || fail "the recording does not end with the signal"
    # Every chunk the simulated driver was handed is in the recording (but one
    # the signal may have caught inside its call).
    seen=$(grep -c '^DRIVER .*request=0x80584808' "$WORK/events")
    recorded=$(grep -c 'ioctl .*PIC_HID_PROGRAM_FPGA' "$WORK/trace")
    echo "chunks handed to the driver: $seen; recorded: $recorded"
    [ "$recorded" = "$seen" ] || [ "$recorded" = $((seen - 1)) ] || fail "chunks lost from the recording"
    out=$("$SIM" --replay "$rec") || fail "does not replay: $out"
    echo "$out"
    records=$(( $(wc -l <"$WORK/trace") - 1 ))
    grep -q "all $records exchanges matched" <<<"$out" || fail "not all exchanges before the signal replayed"
    grep -q "ended there on signal 11" <<<"$out" || fail "the replay does not name the signal"
    ;;
limit)
    rec="$WORK/limit.rec"
    TARNHOLD_RECORD_LIMIT=256K TARNHOLD_RECORD_DATA=1 sessionStartup "$rec"
    size=$(stat -c %s "$rec")
    [ "$size" -le $((256 * 1024 + 65536)) ] || fail "$size bytes, past the limit"
    "$CTL" trace "$rec" >"$WORK/trace" || fail "the cut recording does not read to its end"
    [ "$(grep -c ' gap ' "$WORK/trace")" = 1 ] || fail "no gap, or more than one"
    gapAt=$("$CTL" --json trace "$rec" | grep '"kind":"gap"' | sed -n 's/.*"offset":\([0-9]*\).*/\1/p')
    [ "$gapAt" -ge $((64 * 1024)) ] && [ $((size - gapAt)) -ge $((64 * 1024)) ] ||
        fail "start-up part ($gapAt bytes) or newest part ($((size - gapAt)) bytes) shorter than a quarter of the limit"
    sed -n 2p "$WORK/trace" | grep -q ' start ' || fail "the start-up part is gone"
    tail -1 "$WORK/trace" | grep -q 'exit.*signal 15' || fail "the newest part is gone"
    out=$("$SIM" --replay "$rec") || fail "does not replay up to the gap: $out"
    grep -q "stops at the gap" <<<"$out" || fail "the replay does not say it stopped at the gap"
    ;;
diskfull)
    # A folder that fills after the first records (a device such as /dev/full
    # is never recorded into: only a regular file of the service's own).
    mkdir "$WORK/small"
    mount -t tmpfs -o size=4k tmpfs "$WORK/small"
    start "$WORK/small/rec.trn" 10 --flash-image "$HEX" -- --file "$HEX"
    ctl get-info
    ctl slot-read 10
    stop
    umount "$WORK/small"
    [ "$(grep -c "recording to $WORK/small/rec.trn stopped (write: No space left on device)" "$WORK/daemon.log")" = 1 ] ||
        fail "not one line about the stop"
    ;;
*)
    echo "usage: $0 stored NAME|roundtrip|crash|limit|diskfull|make SOURCE_DIR BUILD_DIR" >&2
    exit 2
    ;;
esac
echo "PASS: $CASE"
