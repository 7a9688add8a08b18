#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, if any is missing, and the
# comma-decimal locale that the conversion tests use. Given package names, installs those
# instead (and leaves the locale alone).
#
# usage: scripts/install-deps.sh [PACKAGE]...
set -euo pipefail

packages=("$@")
[ ${#packages[@]} -gt 0 ] ||
  packages=(cmake ninja-build g++ pkg-config libxerces-c-dev libicu-dev libgtest-dev
            libbenchmark-dev libpugixml-dev libhiredis-dev redis-server locales clang
            libclang-rt-14-dev pybind11-dev python3-dev python3-pytest python3-redis)

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
    missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  if [ -n "$sudo" ] && ! command -v sudo >/dev/null; then
    echo "cannot install ${missing[*]}: not root, and sudo is not installed" >&2
    exit 1
  fi
  echo "Installing: ${missing[*]}"
  $sudo apt-get -o DPkg::Lock::Timeout=600 update -qq
  $sudo env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 install -y -qq \
    "${missing[@]}" >/dev/null
fi

[ $# -eq 0 ] || exit 0
if ! locale -a 2>/dev/null | grep -qi '^de_DE\.utf-\?8$'; then
  $sudo localedef -i de_DE -f UTF-8 de_DE.UTF-8
fi
