#!/usr/bin/env bash
# Runs every libFuzzer binary of a build within a bounded time, shared equally
# among them (at least 5 s each), each seeded from
# fuzz/corpus/<name>/. The seeds are copied into a scratch corpus, so the
# repository is never written; crash inputs are kept in
# BUILD_DIR/fuzz-artifacts/<name>/. Fails when any fuzzer finds a crash.
#   usage: fuzz/run-fuzzers.sh BUILD_DIR SECONDS
set -euo pipefail

if [ $# -ne 2 ]; then
  echo "usage: $0 BUILD_DIR SECONDS" >&2
  exit 2
fi
build=$(cd "$1" && pwd)
seconds=$2
here=$(cd "$(dirname "$0")" && pwd)

work=$(mktemp -d "${TMPDIR:-/tmp}/tarnhold-fuzz.XXXXXX")
trap 'rm -rf "$work"' EXIT

count=$(find "$build/fuzz" -maxdepth 1 -name 'fuzz*' -type f -perm -u+x | wc -l)
each=$(( count > 0 ? seconds / count : seconds ))
[ "$each" -ge 5 ] || each=5

found=0
failed=0
for bin in "$build"/fuzz/fuzz*; do
  [ -f "$bin" ] && [ -x "$bin" ] || continue
  name=$(basename "$bin")
  found=$((found + 1))
  corpus="$work/$name"
  artifacts="$build/fuzz-artifacts/$name"
  mkdir -p "$corpus" "$artifacts"
  if [ -d "$here/corpus/$name" ]; then
    cp -r "$here/corpus/$name/." "$corpus/"
  fi
  echo "== $name: ${each}s, $(ls "$corpus" | wc -l) seeds"
  if ! ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}" "$bin" -max_total_time="$each" \
      -artifact_prefix="$artifacts/" -print_final_stats=1 "$corpus" >"$work/$name.log" 2>&1; then
    tail -n 60 "$work/$name.log" >&2
    echo "== $name FAILED; inputs kept in $artifacts" >&2
    failed=1
  else
    grep -E '^(Done|stat::number_of_executed_units|#[0-9]+ +DONE)' "$work/$name.log" || true
  fi
done

if [ "$found" -eq 0 ]; then
  echo "no fuzz binaries in $build/fuzz" >&2
  exit 1
fi
exit "$failed"
