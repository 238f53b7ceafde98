#!/usr/bin/env bash
# Builds the kel tool and runs it on a built-in example.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
out=${KEL_BUILD_ROOT:-$(pwd)/build-run}
cmake -S . -B "$out" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKEL_BUILD_TESTS=OFF >/dev/null
cmake --build "$out" -j "$(nproc)" >/dev/null
kel="$out/tools/kel/kel"

echo "== kel tile info 3 -1 -2"
"$kel" tile info 3 -1 -2
echo
echo "== kel tile range --origin 0,0 --size 100 --level 1 --box 0,0,100,100"
"$kel" tile range --origin 0,0 --size 100 --level 1 --box 0,0,100,100
