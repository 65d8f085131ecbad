#!/usr/bin/env bash
# Sets up this machine, builds the release preset and runs the sample app against the emulator.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release --target kovantis-demo
./build/release/examples/demo/kovantis-demo "$@"
