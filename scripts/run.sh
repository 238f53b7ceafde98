#!/usr/bin/env bash
# Builds the kel tool and runs the whole pipeline on a built-in example city:
# tile set -> compressed SFF tile in a tile cache -> DXT texture in DDS ->
# triangle tree -> picked heights and a heightmap picture.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
out=${KEL_BUILD_ROOT:-$(pwd)/build-run}
cmake -S . -B "$out" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKEL_BUILD_TESTS=OFF >/dev/null
cmake --build "$out" -j "$(nproc)" >/dev/null
kel="$out/tools/kel/kel"
demo=${KEL_DEMO_DIR:-$(pwd)/demo-output}
photo=../shared/data/photo_board.jpg

echo "== kel tile info 3 -1 -2"
"$kel" tile info 3 -1 -2
echo
if [ -f "$photo" ]; then
  "$kel" demo run "$demo" --photo "$photo"
else
  "$kel" demo run "$demo"
fi
