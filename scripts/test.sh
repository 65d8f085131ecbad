#!/usr/bin/env bash
# Sets up this machine, builds the release preset and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release
ctest --preset release
