#!/usr/bin/env bash
# Installs the build into a temporary prefix, checks what the installed library exports, then
# builds every example against the installed copy, through find_package and through
# pkg-config, and runs it against the embedded service.
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
expected="BaseObject Exception KsMEMConnection KsMEMConnectionException KsMEMException
KsMEMProtocolException KsMEMRuntimeException KsMEMUnrecognisedException SharedClientIDs XmlStream"
defined=$(nm -DC --defined-only "$lib/libKsMemCppBinding.so")
# The class of each symbol of ours: the symbol itself for typeinfo and vtables, the qualifier
# of the function otherwise.
exported=$(sed -nE 's/^[0-9a-f]+ [A-Za-z] //; s/\[abi:cxx11\]//g
                    /^(typeinfo name|typeinfo|vtable|VTT) for Kestrane::/ { s/^[^K]*//; s/\*$//; s/.*:://; p; d }
                    /^Kestrane::/ { s/\(.*//; s/::[^:]*$//; s/.*:://; p }' <<<"$defined" |
           sort -u)
# shellcheck disable=SC2086
if [ "$(echo $exported)" != "$(echo $expected)" ]; then
  echo "exported classes: $exported"
  echo "expected:         $expected"
  exit 1
fi
if grep -q ' KsMem_' <<<"$defined"; then
  echo "the client library defines transport entries:"; grep ' KsMem_' <<<"$defined"; exit 1
fi

"$source/tests/install/build_examples.sh" "$source/examples" "$work" "$prefix" "$lib"
