#!/usr/bin/env bash
# Builds the Release configuration, runs every benchmark and prints one table:
# each benchmark's time, its goal, and its ratio against the anchor it runs
# side by side with, so that a change that slows a path shows at once.
#
#     bash scripts/bench.sh [BENCHMARK_FILTER]     (as root: some benchmarks need a namespace)
#
# Environment: BUILD (default build-rel).
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD=${BUILD:-build-rel}
FILTER=${1:-.}

# One row per benchmark with a goal: binary, benchmark name as it reports it,
# goal, anchor (a benchmark of the same binary, or - for none). A goal is
# "ratio<=X" (time against the anchor's) or "time<=X" in microseconds. A new
# bench/bench*.cpp gets rows here; without any, its figures are still shown.
BENCH_TABLE='
# The daemon serves as fast as a bare echo server with the same per-reply open, write and close (rate >= 0.9).
benchFifo      benchRequests/server:0/inFlight:1/real_time    ratio<=1.11  benchRequests/server:1/inFlight:1/real_time
benchFifo      benchRequests/server:0/inFlight:32/real_time   ratio<=1.11  benchRequests/server:1/inFlight:32/real_time
# The same with the daemon recording every exchange (TARNHOLD_RECORD): at least 0.8 of the echo rate.
benchFifoRecording benchRequests/server:0/inFlight:1/real_time  ratio<=1.25 benchRequests/server:1/inFlight:1/real_time
benchFifoRecording benchRequests/server:0/inFlight:32/real_time ratio<=1.25 benchRequests/server:1/inFlight:32/real_time
# A firmware file loads no slower than objcopy and md5sum do the same job.
benchHexLoad   benchQxFileInit/real_time                      ratio<=1.0   benchObjcopyMd5sum/real_time
# A host-held answer costs about what a refused code does; a relay is its fixed 2 ms wait and little more.
benchEndToEnd  BM_endToEnd/hostHeldIndicator/real_time        ratio<=1.2   BM_endToEnd/refusedCode/real_time
benchEndToEnd  BM_endToEnd/relayedGetInfo/real_time           time<=3000   -
# The service'"'"'s own cost per relay stays under 1% of the relay'"'"'s fixed 2 ms wait, recording or not.
benchRelay     BM_RelayedRequest/code:24/recording:0          time<=20     -
benchRelay     BM_RelayedRequest/code:9/recording:0           time<=20     -
benchRelay     BM_RelayedRequest/code:24/recording:1          time<=20     -
benchRelay     BM_RelayedRequest/code:9/recording:1           time<=20     -
# The programming walk'"'"'s own cost stays under 1% of the ~6 s the transfers take on the wire.
benchProgram   BM_programFullImage                            time<=60000  -
benchProgram   BM_programSparseImage                          time<=60000  -
# An FPGA programming walk of 16 MiB (2,185 chunks) costs at most 5 ms besides its waits; loading the file
# takes at most 1.5 times what dd takes to read it; the CPLD CRC over the largest file at most 1 ms.
benchUpgrade   BM_fpgaProgramWalk16MiB                        time<=5000   -
benchUpgrade   BM_fpgaFileLoad16MiB/real_time                 ratio<=1.5   BM_dd16MiBToDevNull/real_time
benchUpgrade   BM_cpldCrc51200                                time<=1000   -
# A whole FPGA upgrade keeps at most the file plus 1 MiB resident above idle, and gives it back when it ends
# (the run fails when either is missed; its resident figures in KiB are printed under it).
benchUpgrade   BM_fpgaUpgradeResident/1/iterations:3          time<=1000000 -
benchUpgrade   BM_fpgaUpgradeResident/16/iterations:3         time<=1000000 -
'

cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DTARNHOLD_TESTS=OFF >/dev/null
cmake --build "$BUILD" -j"$(nproc)" >/dev/null

# Not under /tmp: the benchmarks that need a namespace mount a fresh one.
case "$BUILD" in /*) ;; *) BUILD="$(pwd)/$BUILD" ;; esac
out="$BUILD/bench-results"
rm -rf "$out"
mkdir -p "$out"
for bin in "$BUILD"/bench/bench*; do
    [ -x "$bin" ] && [ -f "$bin" ] || continue
    name=$(basename "$bin")
    [[ $name =~ $FILTER ]] || continue
    echo "== $name" >&2
    if ! "$bin" --benchmark_out="$out/$name.json" --benchmark_out_format=json >"$out/$name.log" 2>&1; then
        echo "   $name failed:" >&2
        tail -5 "$out/$name.log" >&2
    fi
done
if [[ benchFifoRecording =~ $FILTER ]] && [ -x "$BUILD/bench/benchFifo" ]; then
    echo "== benchFifoRecording" >&2
    if ! TARNHOLD_RECORD="$out/benchFifo.trn" "$BUILD/bench/benchFifo" --benchmark_out="$out/benchFifoRecording.json" \
        --benchmark_out_format=json >"$out/benchFifoRecording.log" 2>&1; then
        echo "   benchFifoRecording failed:" >&2
        tail -5 "$out/benchFifoRecording.log" >&2
    fi
    rm -f "$out"/benchFifo.trn*
fi

BENCH_TABLE="$BENCH_TABLE" python3 - "$out" <<'PY'
import json, os, re, sys

out = sys.argv[1]
rows = {}
for line in os.environ["BENCH_TABLE"].splitlines():
    line = line.strip()
    if line and not line.startswith("#"):
        binary, name, goal, anchor = line.split()
        rows[(binary, name)] = (goal, anchor)

UNIT = {"ns": 1e-3, "us": 1.0, "ms": 1e3, "s": 1e6}
failed = 0
print(f"{'benchmark':<58} {'time (us)':>12} {'goal':>13} {'ratio':>7}  verdict")
for file in sorted(f for f in os.listdir(out) if f.endswith(".json")):
    binary = file[:-5]
    try:
        data = json.load(open(os.path.join(out, file)))
    except ValueError:
        print(f"{binary:<58} {'no figures':>12}")
        failed += 1
        continue
    # The median of repetitions where there are some, else the one run.
    times = {}
    for b in data["benchmarks"]:
        if b.get("error_occurred"):
            continue
        name = b.get("run_name", b["name"])
        us = b["real_time"] * UNIT[b.get("time_unit", "ns")]
        if b.get("run_type") == "aggregate":
            if b.get("aggregate_name") == "median":
                times[name] = ("median", us)
        elif times.get(name, ("", 0))[0] != "median":
            times[name] = ("run", us)
    for name, (_, us) in times.items():
        goal, anchor = rows.get((binary, name), ("-", "-"))
        ratio, verdict = "", ""
        if goal.startswith("ratio<="):
            if anchor in times:
                r = us / times[anchor][1]
                ratio = f"{r:.3f}"
                verdict = "ok" if r <= float(goal[7:]) else "MISSED"
            else:
                verdict = "no anchor"
        elif goal.startswith("time<="):
            verdict = "ok" if us <= float(goal[6:]) else "MISSED"
        failed += verdict in ("MISSED", "no anchor")
        print(f"{binary + ' ' + name:<58} {us:>12.2f} {goal:>13} {ratio:>7}  {verdict}")
        for b in data["benchmarks"]:
            if b.get("run_name", b["name"]) == name and b.get("run_type") != "aggregate":
                kib = "  ".join(f"{k[:-3]} {v:.0f}" for k, v in b.items() if k.endswith("KiB"))
                if kib:
                    print(f"    KiB: {kib}")
                break
    for (b, name), (goal, _) in rows.items():
        if b == binary and name not in times:
            print(f"{binary + ' ' + name:<58} {'not run':>12} {goal:>13}          MISSED")
            failed += 1
sys.exit(1 if failed else 0)
PY
