#!/usr/bin/env bash
# Builds kel and runs every check: the test suite (with the installed-package
# consumer and the command-line tests), the same suite under AddressSanitizer
# and UndefinedBehaviorSanitizer, the scalar (KEL_NO_SIMD) build's tests, and
# each fuzz target for a short while. Any failure fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=${KEL_JOBS:-$(nproc)}
fuzz_seconds=${KEL_FUZZ_SECONDS:-20}
out=${KEL_BUILD_ROOT:-$root/build-ci}
# A checkout without ../shared/data beside it (a git worktree) names the folder.
shared=()
[ -n "${KEL_SHARED_DATA_DIR:-}" ] && shared=("-DKEL_SHARED_DATA_DIR=$KEL_SHARED_DATA_DIR")

bash scripts/setup.sh --test

step() { printf '\n==== %s\n' "$*"; }

step "release build with benchmarks"
cmake -S . -B "$out/release" -G Ninja "${shared[@]}" -DCMAKE_BUILD_TYPE=Release -DKEL_BUILD_BENCH=ON -DKEL_WERROR=ON >/dev/null
cmake --build "$out/release" -j "$jobs"
step "tests"
ctest --test-dir "$out/release" -j "$jobs" --output-on-failure

step "AddressSanitizer + UndefinedBehaviorSanitizer build"
cmake -S . -B "$out/asan" -G Ninja "${shared[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKEL_SANITIZE=address,undefined >/dev/null
cmake --build "$out/asan" -j "$jobs"
step "tests under sanitizers"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir "$out/asan" -j "$jobs" --output-on-failure

step "ThreadSanitizer: the progress tree and coordinate-system caches"
# Only the tests with threads of their own; no OpenMP there (TSan cannot see
# libgomp's synchronisation). The srs tests join once they exist.
cmake -S . -B "$out/tsan" -G Ninja "${shared[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKEL_SANITIZE=thread \
  -DKEL_BUILD_TOOLS=OFF >/dev/null
# The target list is read whole first: grep -q on the pipe would stop early and
# leave ninja dying of SIGPIPE, which pipefail counts as "no such target".
targets=$(cmake --build "$out/tsan" --target help)
tsan_targets=()
for t in kel_runtime_tests kel_srs_tests; do
  grep -q "^$t:" <<<"$targets" && tsan_targets+=("$t")
done
[ ${#tsan_targets[@]} -gt 0 ] || { echo "no threaded test targets found" >&2; exit 1; }
cmake --build "$out/tsan" -j "$jobs" --target "${tsan_targets[@]}"
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  ctest --test-dir "$out/tsan" -j "$jobs" --output-on-failure -L '^(runtime|srs)$'

step "scalar build (KEL_NO_SIMD)"
cmake -S . -B "$out/scalar" -G Ninja "${shared[@]}" -DCMAKE_BUILD_TYPE=Release -DKEL_NO_SIMD=ON -DKEL_BUILD_TOOLS=OFF >/dev/null
cmake --build "$out/scalar" -j "$jobs"
ctest --test-dir "$out/scalar" -j "$jobs" --output-on-failure -E installed_package_consumer

if ls fuzz/*_fuzz.cpp >/dev/null 2>&1; then
  step "fuzz targets, ${fuzz_seconds}s each"
  CC=clang CXX=clang++ cmake -S . -B "$out/fuzz" -G Ninja "${shared[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKEL_BUILD_FUZZ=ON -DKEL_BUILD_TESTS=OFF -DKEL_BUILD_TOOLS=OFF -DKEL_SANITIZE=address,undefined >/dev/null
  cmake --build "$out/fuzz" -j "$jobs"
  for src in fuzz/*_fuzz.cpp; do
    name=$(basename "$src" .cpp)
    corpus="$out/fuzz/corpus-$name"
    mkdir -p "$corpus"
    seeds=()
    [ -d "fuzz/corpus/$name" ] && seeds=("fuzz/corpus/$name")
    echo "fuzz: $name"
    "$out/fuzz/fuzz/$name" -max_total_time="$fuzz_seconds" -malloc_limit_mb=512 -print_final_stats=1 "$corpus" "${seeds[@]}" \
      2>"$out/fuzz/$name.log" || { tail -50 "$out/fuzz/$name.log"; exit 1; }
    grep -E 'stat::number_of_executed_units' "$out/fuzz/$name.log" || true
  done
fi

step "summary"
ctest --test-dir "$out/release" -j "$jobs" 2>&1 | grep -E "tests passed|tests failed"
