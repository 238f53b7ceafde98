// What every side-by-side benchmark here shares, so that a ratio can only be
// printed for sides that did the same work and agreed:
// - names: BM_<Case>_<Side>[/args], Side "Kel" for ours and the anchor's
//   name otherwise (scripts/bench.sh pairs them by Case and args);
// - one thread per side (OpenMP, ours and the anchors', pinned to 1);
// - wall time, several repetitions, aggregates only (bench.sh reads the
//   median); both overridable on the command line;
// - Agree() before timing: a side that disagrees is skipped with an error,
//   and the binary exits non-zero at the end;
// - malloc keeps freed blocks up to 32 MiB in the heap, so a side that
//   allocates its output per call (ours does, through the image API) pays
//   what the anchors pay for their malloc, not fresh page faults.
#pragma once

#include <malloc.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#ifdef _OPENMP
#include <omp.h>
#endif

namespace kel::bench {

inline bool& Disagreed() {
  static bool disagreed = false;
  return disagreed;
}

// Skips the benchmark with an error unless `ok`; the run then fails.
inline bool Agree(benchmark::State& state, bool ok, const std::string& what) {
  if (ok) return true;
  Disagreed() = true;
  std::fprintf(stderr, "DISAGREEMENT: %s\n", what.c_str());
  state.SkipWithError(("disagrees: " + what).c_str());
  return false;
}

inline int Main(int argc, char** argv) {
#ifdef _OPENMP
  omp_set_num_threads(1);
#endif
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  std::vector<char*> args(argv, argv + argc);
  std::string reps = "--benchmark_repetitions=5", aggregates = "--benchmark_report_aggregates_only=true";
  bool hasReps = false, hasAggregates = false;
  for (int i = 1; i < argc; ++i) {
    hasReps = hasReps || std::strncmp(argv[i], "--benchmark_repetitions", 23) == 0;
    hasAggregates = hasAggregates || std::strncmp(argv[i], "--benchmark_report_aggregates_only", 34) == 0;
  }
  if (!hasReps) args.push_back(reps.data());
  if (!hasAggregates) args.push_back(aggregates.data());
  int n = static_cast<int>(args.size());
  benchmark::Initialize(&n, args.data());
  if (benchmark::ReportUnrecognizedArguments(n, args.data())) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (Disagreed()) std::fprintf(stderr, "some sides disagreed: no ratio from this run may be used\n");
  return Disagreed() ? 1 : 0;
}

}  // namespace kel::bench

// Wall time; repetitions come from Main's defaults or the command line.
#define KEL_BENCHMARK(fn) BENCHMARK(fn)->UseRealTime()->Unit(benchmark::kMillisecond)
