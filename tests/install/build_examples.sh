#!/usr/bin/env bash
# Builds each C++ program in EXAMPLES (a folder with a CMakeLists.txt) in WORK, through find_package and through pkg-config, and runs
# both builds against the embedded service. Given PREFIX and LIBDIR, the library installed there
# is used (for CMake, pkg-config and the dynamic linker); otherwise the one in the system folders.
# usage: build_examples.sh EXAMPLES WORK [PREFIX LIBDIR]
set -euo pipefail
examples=$1
work=$2
prefix=${3:-}
lib=${4:-}

for example in "$examples"/*/; do
  [ -f "$example/CMakeLists.txt" ] || continue
  name=$(basename "$example")
  cmake -S "$example" -B "$work/$name" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  cmake --build "$work/$name" >/dev/null
  "$work/$name/$name" >/dev/null

  modules=ksmemcppbinding
  grep -q xercesc "$example/$name.cpp" && modules="$modules xerces-c"
  flags=$(PKG_CONFIG_PATH=${lib:+$lib/pkgconfig} pkg-config --cflags --libs $modules)
  # shellcheck disable=SC2086
  g++ -std=c++17 "$example/$name.cpp" $flags -o "$work/$name-pc"
  LD_LIBRARY_PATH=$lib "$work/$name-pc" >/dev/null
  echo "$name: built through find_package and pkg-config, ran"
done
