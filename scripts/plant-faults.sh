#!/usr/bin/env bash
# Measures what the test suite finds. Plants the faults listed in FAULTS (default
# scripts/faults.txt) one at a time in a copy of the working tree, builds it and runs the plain
# pass of scripts/test.sh but the install test, and names the tests that fail on each fault.
# Last it names the tests that alone catch some fault, and those that catch none alone: the
# places where a trim costs nothing that the list measures. A test that ctest runs against both
# services (redis/NAME beside NAME) counts as one. Run it after scripts/test.sh has
# installed what the build needs; it takes about half an hour.
#
# FAULTS holds records of three lines: "@ FILE  WHAT THE FAULT IS", "- TEXT" and "+ TEXT". The
# first occurrence of the "-" text in FILE becomes the "+" text, which may be empty. Blank lines
# and lines starting with "#" are skipped.
#
# usage: scripts/plant-faults.sh [FAULTS]   exits 1 when a fault is missed, does not build or
#                                            no longer applies
set -euo pipefail
cd "$(dirname "$0")/.."
faults=$(realpath "${1:-scripts/faults.txt}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/src"
git ls-files -z | tar -cf - --null -T - | tar -xf - -C "$work/src"
cd "$work/src"

build() { cmake --build ../build -j2 >../build.log 2>&1; }
# The names of the tests that fail, one per line, without the prefix "redis/".
failing() {
  ctest --test-dir ../build -j2 --timeout 120 -E '^InstallAndBuildExamples$' >../ctest.log 2>&1 ||
    sed -nE 's/^\s*[0-9]+ - (redis\/)?(\S+) \(.*\)$/\2/p' ../ctest.log | sort -u
}

cmake -S . -B ../build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=ON \
  -DKSMEM_BUILD_BENCHMARKS=OFF >/dev/null
build || { tail -n 30 ../build.log; exit 1; }
if [ -n "$(failing)" ]; then
  echo "the suite fails without a planted fault:"
  tail -n 30 ../ctest.log
  exit 1
fi

planted=0 caught=0 problems=0
declare -A alone  # test name -> the faults that it alone catches
plant() {
  local file=$1 what=$2 from=$3 to=$4 text tests
  planted=$((planted + 1))
  text=$(<"$file")$'\n'
  if [[ $text != *"$from"* ]]; then
    echo "NO LONGER APPLIES: $file: $what"
    problems=$((problems + 1))
    return
  fi
  printf '%s' "${text/"$from"/"$to"}" >"$file"
  if ! build; then
    echo "DOES NOT BUILD: $file: $what"
    problems=$((problems + 1))
  else
    tests=$(failing)
    if [ -z "$tests" ]; then
      echo "MISSED: $file: $what"
      problems=$((problems + 1))
    else
      caught=$((caught + 1))
      echo "caught by $(paste -sd' ' <<<"$tests"): $what"
      [ "$(wc -l <<<"$tests")" -gt 1 ] || alone[$tests]+="$what; "
    fi
  fi
  printf '%s' "$text" >"$file"
}

file='' what='' from=''
while IFS= read -r line || [ -n "$line" ]; do
  case $line in
    '@ '*) read -r file what <<<"${line#@ }" ;;
    '-'*) from=${line#-}; from=${from# } ;;
    '+'*) to=${line#+}; plant "$file" "$what" "$from" "${to# }" ;;
  esac
done <"$faults"

echo
echo "planted $planted faults: $caught caught, $problems missed, not building or no longer applying"
echo "tests that alone catch a fault:"
for test in "${!alone[@]}"; do echo "  $test: ${alone[$test]%; }"; done | sort
echo "tests that catch no fault alone:"
ctest --test-dir ../build -N -E '^InstallAndBuildExamples$' |
  sed -nE 's/^\s*Test +#[0-9]+: (redis\/)?(\S+)$/\2/p' | sort -u |
  while read -r test; do [ -n "${alone[$test]+set}" ] || echo "  $test"; done
[ "$problems" -eq 0 ]
