#!/usr/bin/env bash
# Runs the dashboard's browser test in the machine's Chromium, driven by playwright-core (which
# downloads no browser). Exits 77 (skipped) with the reason when no browser or runner can be had.
#   run.sh <kovantis-demo> <kovantis-emulator> <artefact directory>
set -uo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
browser="${CHROMIUM:-$(command -v chromium || command -v chromium-browser || true)}"
if [ -z "$browser" ]; then
  echo "SKIPPED: no Chromium on this machine (scripts/setup.sh installs Debian's chromium where it can)"
  exit 77
fi
if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
  echo "SKIPPED: no Node.js to drive the browser (scripts/setup.sh installs nodejs and npm where it can)"
  exit 77
fi
if [ ! -d "$here/node_modules/playwright-core" ]; then
  if ! (cd "$here" && npm ci --no-audit --no-fund --loglevel=error >/dev/null); then
    echo "SKIPPED: the test runner (playwright-core from npm) could not be installed"
    exit 77
  fi
fi
CHROMIUM="$browser" exec node "$here/dashboard.test.mjs" "$@"
