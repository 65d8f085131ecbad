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
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  exit 0
fi

echo "setup: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
