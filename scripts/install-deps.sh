#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, if any is missing.
set -euo pipefail

packages=(cmake ninja-build g++ pkg-config libxerces-c-dev libicu-dev libgtest-dev
          libbenchmark-dev libhiredis-dev redis-server)

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
    missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
