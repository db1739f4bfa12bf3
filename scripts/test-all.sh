#!/usr/bin/env bash
# Builds tarnhold in its test configurations and runs every test:
#   build/       the product build (RelWithDebInfo), all tests and the benchmarks built
#   build-asan/  the same tests under AddressSanitizer and UndefinedBehaviorSanitizer
#   build-fuzz/  the libFuzzer targets (clang), each run for a bounded time
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
(cd build && ctest --output-on-failure -j"$jobs" --timeout 300)

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DTARNHOLD_SANITIZE=ON
cmake --build build-asan -j"$jobs"
# LeakSanitizer on: every test binary, the daemon and the simulator it starts run with it.
(cd build-asan && ASAN_OPTIONS=detect_leaks=1 ctest --output-on-failure -j"$jobs" --timeout 300)

if [ -n "$(ls fuzz/*.cpp 2>/dev/null)" ]; then
  CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=Debug -DTARNHOLD_FUZZ=ON
  cmake --build build-fuzz -j"$jobs"
  bash fuzz/run-fuzzers.sh build-fuzz "${FUZZ_SECONDS:-60}"
fi
