#!/usr/bin/env bash
# Builds tarnhold in its test configurations and runs every test:
#   build/       the product build (RelWithDebInfo), all tests and the benchmarks built; clang-tidy
#                over the product's and the client's sources as this build compiles them
#   build-asan/  the same tests under AddressSanitizer and UndefinedBehaviorSanitizer, instrumented for
#                coverage: line and branch figures per folder at the end, the HTML report in
#                build-asan/coverage/index.html
#   build-fuzz/  the libFuzzer targets (clang), each run for a bounded time
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_EXPORT_COMPILE_COMMANDS=ON
cmake --build build -j"$jobs"

# Static analysis: the checks, and why the others are left out, are in .clang-tidy; any finding fails
# the run. The product's folders and the client, not the tests, the simulator or the benchmarks. g++'s
# own warning options in the compile commands are unknown to clang, which must not count as a finding.
product='platform|link|record|loader|fans|heartbeat|requests|fpga|cpld|daemon|client'
tidyStart=$SECONDS
if ! run-clang-tidy -j"$jobs" -p build -quiet -extra-arg=-Wno-unknown-warning-option \
    "^$PWD/($product)/[^/]*\.cpp\$" >build/clang-tidy.log 2>&1; then
  grep -v '^[0-9]* warnings\? generated' build/clang-tidy.log
  echo "clang-tidy: findings above (the whole output: build/clang-tidy.log)"
  exit 1
fi
echo "clang-tidy: no findings ($((SECONDS - tidyStart)) s)"

(cd build && ctest --output-on-failure -j"$jobs" --timeout 300)

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DTARNHOLD_SANITIZE=ON -DTARNHOLD_COVERAGE=ON
cmake --build build-asan -j"$jobs"
# The counts of this run only. Their files are made beforehand, writable by all: a program a test runs
# as another account (tarnholdctl as nobody) counts too, and says nothing about files it cannot write.
find build-asan -name '*.gcda' -delete
find build-asan -name '*.gcno' -print0 | sed -z 's/\.gcno$/.gcda/' | xargs -0 -r touch
find build-asan -name '*.gcda' -exec chmod 0666 {} +
# LeakSanitizer on: every test binary, the daemon and the simulator it starts run with it.
(cd build-asan && ASAN_OPTIONS=detect_leaks=1 ctest --output-on-failure -j"$jobs" --timeout 300)
find build-asan -name '*.gcda' -empty -delete

# What the suite reaches of the product and the client, by line and by branch (the branches the
# compiler adds for exceptions and the ones it can never take left out).
mkdir -p build-asan/coverage
filters=()
for folder in ${product//|/ }; do filters+=(--filter "$folder/"); done
gcovr --root . -j"$jobs" "${filters[@]}" --exclude-throw-branches --exclude-unreachable-branches \
  --html-details build-asan/coverage/index.html --json-summary build-asan/coverage/summary.json build-asan
python3 scripts/coverage-by-folder.py build-asan/coverage/summary.json >build-asan/coverage/by-folder.txt

if [ -n "$(ls fuzz/*.cpp 2>/dev/null)" ]; then
  CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=Debug -DTARNHOLD_FUZZ=ON
  cmake --build build-fuzz -j"$jobs"
  bash fuzz/run-fuzzers.sh build-fuzz "${FUZZ_SECONDS:-60}"
fi

echo
echo "Coverage of the product and the client by the tests (build-asan/coverage/index.html):"
cat build-asan/coverage/by-folder.txt
