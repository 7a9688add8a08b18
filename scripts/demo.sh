#!/usr/bin/env bash
# Builds the library, the ksmem client and the Python module (build/python), then runs the demo
# session against the embedded service.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -G Ninja -DBUILD_TESTING=OFF >/dev/null
cmake --build build -j2 --target ksmem ksmem_python
build/tools/ksmem demo
