#!/usr/bin/env bash
# Ctrl-C on a running city build: it stops within a tile, exits 130, leaves
# no temporary file and no half tile, and the next run resumes (keeps what
# was built) and finishes.
# usage: city_interrupt_test.sh KEL WORK_DIR
set -u
kel=$1 work=$2
rm -rf "$work" && mkdir -p "$work" && cd "$work" || exit 1
fail() { echo "FAIL: $*"; echo "--- stderr:"; cat err 2>/dev/null; exit 1; }
# Deflate level 9 keeps the build long enough to catch mid-way.
args=(city build city --buildings 20000 --zlib-level 9 --threads 1 --heightmap-size 0)

env --default-signal=INT "$kel" "${args[@]}" >out 2>err &
pid=$!
( exec >/dev/null 2>&1; sleep 120; kill -9 "$pid" ) &
watchdog=$!
# Until kel takes SIGINT on its own thread (blocked in the others) and a few
# tiles are on disk.
for _ in $(seq 600); do
  blk=$(sed -n 's/^SigBlk:[[:space:]]*//p' "/proc/$pid/status" 2>/dev/null)
  tiles=$(find city -name '*.sff' 2>/dev/null | wc -l)
  [ -n "$blk" ] && [ $(( 0x$blk & 2 )) -ne 0 ] && [ "$tiles" -ge 5 ] && break
  kill -0 "$pid" 2>/dev/null || fail "the build ended before it could be interrupted"
  sleep 0.1
done
kill -INT "$pid"
wait "$pid"; rc=$?
kill "$watchdog" 2>/dev/null; wait "$watchdog" 2>/dev/null
[ "$rc" -eq 130 ] || fail "city build exited $rc, expected 130"
grep -q "^kel: interrupted$" err || fail "no 'kel: interrupted' line"
grep -q "run again to resume" out || fail "no resume hint in the summary"
[ -z "$(find city -name '*.kel-tmp-*')" ] || fail "temporaries left: $(find city -name '*.kel-tmp-*')"
kept=$(find city -name '*.sff' | wc -l)

"$kel" "${args[@]}" >out 2>err || fail "the second build failed"
fresh=$(awk '/^ +[0-9]+ +[0-9]+ +[0-9]+ +[0-9]+ +[0-9]+ /{n += $5} END {print n + 0}' out)
[ "$fresh" -eq "$kept" ] || fail "resumed with $fresh fresh tiles, $kept were on disk"
echo "ok: $kept tiles kept"
