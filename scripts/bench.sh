#!/usr/bin/env bash
# Builds and runs every benchmark (bench/*_bench.cpp) and prints one table of
# ratios, ours against each anchor, from the median wall time of each side:
#   ratio = anchor time / our time  (above 1: ours is faster)
# Benchmarks are named BM_<Case>_<Side>[/args]; Side "Kel" (or "Ours", or a
# name starting with "Kel") is ours, any other side an anchor of the same case
# and args. Fails (exit 1) when a benchmark binary fails or any benchmark
# reports an error, which is how a side that disagrees with another stops the
# run: no ratio of such a run may be used.
#
#   scripts/bench.sh [benchmark flags...]   e.g. --benchmark_filter=Dxt
# KEL_BUILD_ROOT  build folder (default build-bench)
# KEL_JOBS        parallel build jobs (default: all cores)
# KEL_SHARED_DATA_DIR  folder holding photo_board.jpg, when not ../shared/data
set -uo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
out=${KEL_BUILD_ROOT:-$root/build-bench}
jobs=${KEL_JOBS:-$(nproc)}

# The tools stay on: the city benchmark runs the tool's pipeline.
config=(-S . -B "$out" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKEL_BUILD_BENCH=ON -DKEL_BUILD_TESTS=OFF
        -DKEL_BUILD_TOOLS=ON)
[ -n "${KEL_SHARED_DATA_DIR:-}" ] && config+=("-DKEL_SHARED_DATA_DIR=$KEL_SHARED_DATA_DIR")
cmake "${config[@]}" >/dev/null || exit 1

names=()
for src in bench/*_bench.cpp; do names+=("$(basename "$src" .cpp)"); done
cmake --build "$out" -j "$jobs" --target "${names[@]}" >/dev/null || { echo "bench: build failed" >&2; exit 1; }

results="$out/results"
rm -rf "$results"
mkdir -p "$results"
failed=0
for name in "${names[@]}"; do
  echo "bench: running $name" >&2
  # OpenMP stays on one thread unless a benchmark asks for more itself.
  if ! OMP_NUM_THREADS=1 "$out/bench/$name" --benchmark_out="$results/$name.csv" --benchmark_out_format=csv "$@" \
       >"$results/$name.log" 2>&1; then
    echo "bench: $name failed; its output:" >&2
    tail -20 "$results/$name.log" >&2
    failed=1
  fi
done

commit=$(git rev-parse --short HEAD 2>/dev/null || echo unknown)
git diff --quiet HEAD 2>/dev/null || commit="$commit+changes"
echo
echo "kel benchmarks, $(date -u '+%Y-%m-%d %H:%M UTC'), commit $commit, $(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg)"
echo "ratio = anchor time / our time (median wall time, one thread per side); spread = stddev / median of both sides"
echo

# CSV rows after the header line; names are quoted. Aggregates end in _median,
# _stddev; a run without repetitions has plain rows, used as its median.
awk -F, '
  FNR == 1 { inbody = 0; bench = FILENAME; sub(/.*\//, "", bench); sub(/\.csv$/, "", bench) }
  /^name,iterations,/ { inbody = 1; next }
  !inbody { next }
  {
    name = $1; gsub(/"/, "", name)
    if ($9 == "true") { err = $10; gsub(/"/, "", err); errors[++nerr] = bench ": " name ": " err; next }
    kind = "plain"
    if (name ~ /_median$/) { kind = "median"; sub(/_median$/, "", name) }
    else if (name ~ /_stddev$/) { kind = "stddev"; sub(/_stddev$/, "", name) }
    else if (name ~ /_(mean|cv)$/) next
    unit = $5; t = $3 + 0
    if (unit == "ns") f = 1; else if (unit == "us") f = 1e3; else if (unit == "ms") f = 1e6; else f = 1e9
    t *= f
    sub(/\/real_time/, "", name)
    gsub(/\/(iterations|repeats):[0-9]+/, "", name)
    args = ""; slash = index(name, "/")
    if (slash) { args = substr(name, slash + 1); name = substr(name, 1, slash - 1) }
    lt = index(name, "<")
    if (lt) { args = substr(name, lt) (args == "" ? "" : "/" args); name = substr(name, 1, lt - 1) }
    if (name !~ /^BM_[^_]+_/) next
    sub(/^BM_/, "", name)
    us = match(name, /_[^_]*$/)
    c = substr(name, 1, us - 1); side = substr(name, us + 1)
    key = bench SUBSEP c SUBSEP args
    if (!(key in seen)) { seen[key] = 1; order[++nkeys] = key }
    if (kind == "stddev") { sd[key, side] = t; next }
    if (kind == "plain" && ((key, side) in med)) next
    if (!((key, side) in med)) { sides[key] = sides[key] " " side }
    med[key, side] = t
  }
  END {
    printf "%-13s %-26s %-10s %-14s %-18s %8s %8s\n", "binary", "case", "args", "ours", "anchor", "ratio", "spread"
    for (i = 1; i <= nkeys; i++) {
      key = order[i]; split(key, p, SUBSEP)
      n = split(sides[key], s, " ")
      for (a = 1; a <= n; a++) {
        if (!(s[a] ~ /^Kel/ || s[a] == "Ours")) continue
        for (b = 1; b <= n; b++) {
          if (s[b] ~ /^Kel/ || s[b] == "Ours") continue
          o = med[key, s[a]]; t = med[key, s[b]]
          if (o <= 0) continue
          spread = 0
          if ((key, s[a]) in sd) spread = sd[key, s[a]] / o
          if ((key, s[b]) in sd && sd[key, s[b]] / t > spread) spread = sd[key, s[b]] / t
          printf "%-13s %-26s %-10s %-14s %-18s %8.2f %7.1f%%\n", p[1], p[2], (p[3] == "" ? "-" : p[3]), s[a], s[b], t / o, 100 * spread
        }
      }
    }
    if (nerr) {
      print "\nbenchmarks that reported an error (their cases have no ratio):"
      for (e = 1; e <= nerr; e++) print "  " errors[e]
      exit 3
    }
  }
' "$results"/*.csv
[ $? -ne 0 ] && failed=1

# What each benchmark prints beside Google Benchmark's rows: agreement
# counts, memory, quality and the ratios of cases timed by hand.
for name in "${names[@]}"; do
  log="$results/$name.log"
  [ -f "$log" ] || continue
  extra=$(sed 's/\x1b\[[0-9;]*m//g' "$log" | grep -v -E '^(BM_|-+$|Benchmark |Running |Run on |CPU Caches|  L[123] |Load Average|\*\*\*WARNING|[0-9]{4}-[0-9]{2}-[0-9]{2}T|[[:space:]]*$)' \
          | grep -v -E '^[A-Za-z0-9_ /<>:.,-]+/(manual|real)_time' | grep -v -E '^(points|polygons) (extent|id range)/')
  [ -n "$extra" ] && { echo; echo "== $name"; echo "$extra"; }
done

if [ "$failed" -ne 0 ]; then
  echo
  echo "bench: FAILED (a benchmark failed or its sides disagreed); logs in $results" >&2
  exit 1
fi
