#!/usr/bin/env bash
# Installs the Debian packages kel needs to build, test, fuzz and benchmark.
# Idempotent: when everything is present it only checks and returns.
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config git
  liblog4cplus-dev zlib1g-dev libpng-dev libjpeg62-turbo-dev
  googletest libgtest-dev libbenchmark-dev
  clang libclang-rt-14-dev libomp-dev          # fuzz targets
  libstb-dev libsquish-dev libembree-dev       # benchmark anchors
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "setup: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
