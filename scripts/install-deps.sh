#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, if any is missing, and the
# comma-decimal locale that the conversion tests use.
set -euo pipefail

packages=(cmake ninja-build g++ pkg-config libxerces-c-dev libicu-dev libgtest-dev
          libbenchmark-dev libpugixml-dev libhiredis-dev redis-server locales clang
          libclang-rt-14-dev)

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
    missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
fi

if ! locale -a 2>/dev/null | grep -qi '^de_DE\.utf-\?8$'; then
  $sudo localedef -i de_DE -f UTF-8 de_DE.UTF-8
fi
