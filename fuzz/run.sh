#!/usr/bin/env bash
# Builds the fuzz targets (clang, libFuzzer, AddressSanitizer, UndefinedBehaviorSanitizer) in
# build-fuzz and runs each for SECONDS on a copy of its committed corpus, so that what a run
# finds stays in build-fuzz. Prints executions and coverage per target; exits non-zero when a
# target crashes, leaks, hangs or breaks one of its checks (the input is kept in
# build-fuzz/artifacts/TARGET/).
#
# usage: fuzz/run.sh SECONDS [TARGET...]   (targets: replies exchange text; default all)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:?usage: fuzz/run.sh SECONDS [TARGET...]}
shift
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(replies exchange text)
build=$root/build-fuzz

mkdir -p "$build"
# Two runs may start at once; one builds while the other waits.
if ! (
  flock 9
  { CC=clang CXX=clang++ cmake -S "$root/fuzz" -B "$build" -G Ninja &&
      cmake --build "$build" -j2; } >"$build/build.log" 2>&1
) 9>"$build/.build-lock"; then
  tail -n 40 "$build/build.log"
  echo "building the fuzz targets failed" >&2
  exit 1
fi

failed=0
for target in "${targets[@]}"; do
  corpus=$build/corpus/$target
  artifacts=$build/artifacts/$target/
  log=$build/$target.log
  rm -rf "$corpus"
  mkdir -p "$corpus" "$artifacts"
  cp -r "$root/fuzz/corpus/$target/." "$corpus/"
  options=(-max_total_time="$seconds" -max_len=16384 -rss_limit_mb=2048 -timeout=10
           -print_final_stats=1 -artifact_prefix="$artifacts")
  [ -f "$root/fuzz/$target.dict" ] && options+=(-dict="$root/fuzz/$target.dict")

  echo "=== fuzz $target, $seconds s"
  status=0
  "$build/fuzz_$target" "${options[@]}" "$corpus" >"$log" 2>&1 || status=$?
  # The last status line carries the coverage; the final stats the executions.
  grep -E '^#[0-9]+' "$log" | tail -n 1 || true
  grep -E '^stat::(number_of_executed_units|average_exec_per_sec|new_units_added|peak_rss_mb)' \
    "$log" || true
  if [ "$status" -ne 0 ]; then
    echo "fuzz $target FAILED (exit $status); log: $log"
    grep -E -A 30 '^==[0-9]+==|invariant broken|uncaught exception|runtime error' "$log" |
      head -n 60 || true
    failed=1
  fi
done
exit "$failed"
