#!/usr/bin/env bash
# Builds and runs every test: the whole suite plainly, again under AddressSanitizer and
# UndefinedBehaviorSanitizer, the concurrency tests under ThreadSanitizer, each fuzz target for a
# short smoke run, and the Debian packages through lintian and a clean Debian 12 root.
#
# usage: scripts/test.sh [plain|asan|tsan|fuzz|package]...   (default: all five passes)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

passes=("$@")
[ ${#passes[@]} -gt 0 ] || passes=(plain asan tsan fuzz package)

# build DIR [CMAKE_ARGS...]: configures and builds everything in DIR, with debug information for
# the sanitizers' reports.
build() {
  local dir=$1
  shift
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=ON "$@" >/dev/null
  cmake --build "$dir" -j2
}

completed=0
for pass in "${passes[@]}"; do
  echo "=== $pass"
  case $pass in
    plain)
      build build
      ctest --test-dir build --output-on-failure -j2
      ;;
    asan)
      build build-asan -DKSMEM_SANITIZE=address,undefined -DKSMEM_BUILD_BENCHMARKS=OFF
      # In the "C" locale, as a process runs with LANG and LC_ALL unset.
      env -u LANG LC_ALL=C ASAN_OPTIONS=detect_leaks=1:halt_on_error=1:abort_on_error=1 \
        UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
        ctest --test-dir build-asan --output-on-failure -j2
      ;;
    tsan)
      build build-tsan -DKSMEM_SANITIZE=thread -DKSMEM_BUILD_BENCHMARKS=OFF
      TSAN_OPTIONS=halt_on_error=1 \
        ctest --test-dir build-tsan --output-on-failure -j2 -L concurrency
      ;;
    fuzz)
      if [ -x fuzz/run.sh ]; then fuzz/run.sh 30; else echo "no fuzz targets"; fi
      ;;
    package)
      scripts/package.sh
      tests/package/package_test.sh build-deb
      ;;
    *)
      echo "unknown pass: $pass" >&2
      exit 2
      ;;
  esac
  completed=$((completed + 1))
done
# Any failure above has ended the script already.
echo "passes: $completed passed, 0 failed"
