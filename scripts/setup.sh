#!/usr/bin/env bash
# Installs the Debian packages this repository builds with, only those missing.
# Idempotent and non-interactive: safe to run on every quick-start command.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  libcurl4-openssl-dev libplist-dev rapidjson-dev libstb-dev
  libsqlite3-dev libcpp-httplib-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang-format
  abigail-tools  # abidw and abidiff: the C libraries' ABI check (tests/structure/abi.sh)
)

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }

missing=()
for p in "${packages[@]}"; do
  installed "$p" || missing+=("$p")
done
# The C interface's Python test (ctypes): any python3 on the path will do.
command -v python3 >/dev/null || missing+=(python3)

# The dashboard's browser test: Chromium, and Node.js with npm to drive it. Node and npm are
# looked for as commands, since a machine may have them from elsewhere (a nodejs build that
# bundles npm conflicts with Debian's npm package). None of these is needed to build: when they
# cannot be installed, setup still succeeds and that test reports itself skipped.
browser=()
installed chromium || command -v chromium >/dev/null || browser+=(chromium)
installed fonts-dejavu-core || browser+=(fonts-dejavu-core)
command -v node >/dev/null || browser+=(nodejs)
command -v npm >/dev/null || browser+=(npm)

if [ "${#missing[@]}" -eq 0 ] && [ "${#browser[@]}" -eq 0 ]; then
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
if [ "${#missing[@]}" -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
elif ! $SUDO apt-get update -qq; then
  echo "setup: could not update the package lists; the browser test will be skipped"
  exit 0
fi
if [ "${#browser[@]}" -gt 0 ]; then
  echo "setup: installing ${browser[*]} for the browser test"
  if ! $SUDO apt-get install -y -qq --no-install-recommends "${browser[@]}"; then
    echo "setup: could not install ${browser[*]}; the dashboard's browser test will be skipped"
  fi
fi
