#!/usr/bin/env bash
# Runs the dashboard's browser test in the machine's Chromium, driven by playwright-core (which
# downloads no browser). Exits 77 (skipped) with the reason when no browser or runner can be had;
# the reason is also left in <artefact directory>/skipped.txt for scripts/test.sh to show.
#   run.sh <kovantis-demo> <kovantis-emulator> <artefact directory>
set -uo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
artefacts="${3:?usage: run.sh <kovantis-demo> <kovantis-emulator> <artefact directory>}"
mkdir -p "$artefacts"
rm -f "$artefacts/skipped.txt"

skip() {
  echo "SKIPPED: $1"
  echo "$1" >"$artefacts/skipped.txt"
  exit 77
}

browser="${CHROMIUM:-$(command -v chromium || command -v chromium-browser || true)}"
[ -n "$browser" ] || skip "no Chromium on this machine (scripts/setup.sh installs Debian's chromium where it can)"
if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
  skip "no Node.js to drive the browser (scripts/setup.sh installs nodejs and npm where it can)"
fi
if [ ! -d "$here/node_modules/playwright-core" ]; then
  if ! (cd "$here" && npm ci --no-audit --no-fund --loglevel=error >/dev/null); then
    skip "the test runner (playwright-core from npm) could not be installed"
  fi
fi
CHROMIUM="$browser" exec node "$here/dashboard.test.mjs" "$@"
