#!/usr/bin/env bash
# Builds the library and the ksmem client, then runs the demo session against the embedded
# service.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -G Ninja -DBUILD_TESTING=OFF >/dev/null
cmake --build build -j2 --target ksmem
build/tools/ksmem demo
