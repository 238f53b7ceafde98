#!/usr/bin/env bash
# Builds the kel tool and builds a whole city with it: the built-in
# procedural city of about 50,000 buildings goes into a tile cache
# (compressed SFF tiles with DXT texture atlases), then two heights are
# picked from the finished tiles and the heightmap's path is printed. A
# second run finds the tiles fresh and only redraws the heightmap.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
out=${KEL_BUILD_ROOT:-$(pwd)/build-run}
cmake -S . -B "$out" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKEL_BUILD_TESTS=OFF >/dev/null
cmake --build "$out" -j "$(nproc)" --target kel_tool >/dev/null
kel="$out/tools/kel/kel"
city=${KEL_CITY_DIR:-$(pwd)/city-output}

echo "== kel city build $city"
"$kel" city build "$city"
echo
centre=$("$kel" city info "$city" | awk '/^centre /{print $2, $3}')
echo "== kel city pick: the city's centre, in model coordinates ($centre)"
"$kel" city pick "$city" $centre
echo
echo "== kel city pick: a tower downtown, given in longitude/latitude"
"$kel" city pick "$city" 9.1796 48.7812 --srs LL84
echo
echo "heightmap: $city/heightmap.png"
