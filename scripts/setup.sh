#!/usr/bin/env bash
# Installs the Debian packages kel needs. Idempotent: when everything is
# present it only checks and returns.
#   setup.sh         what building the library and the kel tool needs
#   setup.sh --test  also the test, fuzz and benchmark tools and the real
#                    peers the tests talk to (cs2cs, ogr2ogr, ImageMagick,
#                    PostgreSQL with PostGIS, unixODBC)
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config git
  liblog4cplus-dev zlib1g-dev libpng-dev libjpeg62-turbo-dev libomp-dev
  libproj-dev proj-data libsqlite3-dev libgeos-dev libgdal-dev libcli11-dev
)
if [ "${1:-}" = "--test" ]; then
  packages+=(
    googletest libgtest-dev libbenchmark-dev
    clang libclang-rt-14-dev                     # fuzz targets
    libstb-dev libsquish-dev libembree-dev       # benchmark anchors
    proj-bin gdal-bin imagemagick libnvtt-bin    # files and answers from other programs
    postgresql postgis postgresql-15-postgis-3 unixodbc libsqliteodbc
  )
fi

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
