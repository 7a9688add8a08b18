#!/usr/bin/env bash
# Installs the build into a temporary prefix, checks what the installed library exports, builds
# a program of its own transport against it, then builds every example against the installed
# copy, through find_package and through pkg-config, and runs it against the embedded service;
# with the Python module built, runs the Python examples with the installed module, which must
# find the installed library by itself.
# usage: install_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1
source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
lib=$(dirname "$(find "$prefix" -name 'libKsMemCppBinding.so' | head -n1)")

# Exported: exactly these classes of ours, and no transport entry.
expected="BaseObject DomException Exception KsMEMConnection KsMEMConnectionException KsMEMException
KsMEMProtocolException KsMEMRuntimeException KsMEMUnrecognisedException SharedClientIDs XmlStream"
defined=$(nm -DC --defined-only "$lib/libKsMemCppBinding.so" | sed -E 's/^[0-9a-f]+ [A-Za-z] //')
# The class of each symbol of ours: the symbol itself for typeinfo and vtables, the qualifier
# of the function otherwise.
exported=$(sed -nE 's/\[abi:cxx11\]//g
                    /^(typeinfo name|typeinfo|vtable|VTT) for Kestrane::/ { s/^[^K]*//; s/\*$//; s/.*:://; p; d }
                    /^Kestrane::/ { s/\(.*//; s/::[^:]*$//; s/.*:://; p }' <<<"$defined" |
           sort -u)
# shellcheck disable=SC2086
if [ "$(echo $exported)" != "$(echo $expected)" ]; then
  echo "exported classes: $exported"
  echo "expected:         $expected"
  exit 1
fi
if grep -q '^KsMem_' <<<"$defined"; then
  echo "the client library defines transport entries:"; grep '^KsMem_' <<<"$defined"; exit 1
fi

# A program built apart against the installed library, with a transport of its own: every
# member of the exception family resolves to the library (it would not link otherwise), and
# registerClient's DomException is caught by its class.
export PKG_CONFIG_PATH=$lib/pkgconfig
# shellcheck disable=SC2046
g++ -std=c++17 $(pkg-config --cflags ksmemcppbinding) -I"$source" -o "$work/exported_surface" \
  "$source/tests/install/exported_surface.cpp" "$source/tests/ScriptedTransport.cpp" \
  $(pkg-config --libs ksmemcppbinding)
LD_LIBRARY_PATH=$lib "$work/exported_surface"
echo "exported_surface: its own transport, the library's exception members and DomException"

"$source/tests/install/build_examples.sh" "$source/examples" "$work" "$prefix" "$lib"

module=$(find "$prefix" -name 'ksmem.cpython-*.so' | head -n1)
if [ -n "$module" ]; then
  [ -f "$(dirname "$module")/ksmem.pyi" ] || { echo "ksmem.pyi is not installed beside $module"; exit 1; }
  for example in "$source"/examples/*/*.py; do
    env -u LD_LIBRARY_PATH -u KSMEM_SERVICE PYTHONPATH="$(dirname "$module")" /usr/bin/python3 \
      "$example" >/dev/null
    echo "$(basename "$example"): ran with the installed module"
  done
fi
