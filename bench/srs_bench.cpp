// Reprojection of 1 M points in a 20 km square near 9.5E 48N from "LL84" to
// "UTM84-32N", in random order and in polyline order (a random walk of 5 m
// steps), each side on one thread:
//   PROJ point by point  proj_trans per point (the exact answer),
//   PROJ batch           proj_trans_generic over the whole array,
//   SRSTransform         ours over PROJ (per-thread clone lookup, checks),
//   TfCache              1 mm tolerance, point by point and the batch call,
//                        built from nothing in every iteration (the tree's
//                        PROJ calls are part of its cost),
//   fixed grid           bilinear interpolation in a prebuilt 257x257 grid
//                        (the ceiling: no tree, no tolerance guarantee).
// Before timing, every side is checked against PROJ point by point (exact
// sides bit for bit, TfCache within twice its tolerance, the grid within
// 5 cm); a disagreement aborts with a non-zero exit. Wall time, 5 repetitions
// of 3 iterations; after the run a summary prints throughput ratios from the
// median iterations and TfCache's largest error against PROJ over all
// points. scripts/bench.sh reads the cases (PointByPoint, Batch, Exact) from
// the names.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <proj.h>

#include "kel/srs/srs_transform.h"
#include "kel/srs/tf_cache.h"

namespace {

using kel::Vec2d;
constexpr std::size_t kPoints = 1'000'000;
constexpr double kTolerance = 0.001;
constexpr int kGrid = 256;  // cells per side of the fixed grid
const kel::BBox<2, double> kRegion(Vec2d(9.5, 48.0), Vec2d(9.5 + 20000.0 / 74490.0, 48.0 + 20000.0 / 111200.0));

bool g_failed = false;
double g_largestError = 0;

std::map<std::string, std::vector<double>>& Times() {
  static std::map<std::string, std::vector<double>> times;
  return times;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// Times `body` only (wall time); `prepare` (resetting the input) runs with the
// clock paused. Each iteration's time is also kept for the summary.
template <typename P, typename F>
void Timed(benchmark::State& state, const std::string& name, P&& prepare, F&& body) {
  std::vector<double>& times = Times()[name];
  for (auto _ : state) {
    state.PauseTiming();
    prepare();
    state.ResumeTiming();
    const auto t0 = std::chrono::steady_clock::now();
    body();
    times.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kPoints));
}

void Fail(benchmark::State& state, const std::string& why) {
  g_failed = true;
  state.SkipWithError(why.c_str());
}

std::vector<Vec2d> MakePoints(bool polyline) {
  std::mt19937_64 rng(polyline ? 2 : 1);
  std::vector<Vec2d> pts(kPoints);
  const Vec2d lo = kRegion.min, hi = kRegion.max;
  if (!polyline) {
    std::uniform_real_distribution<double> ux(lo.x(), hi.x()), uy(lo.y(), hi.y());
    for (Vec2d& p : pts) p = Vec2d(ux(rng), uy(rng));
    return pts;
  }
  // 5 m steps in degrees, reflected at the edges.
  std::normal_distribution<double> sx(0, 5.0 / 74490.0), sy(0, 5.0 / 111200.0);
  Vec2d p((lo.x() + hi.x()) / 2, (lo.y() + hi.y()) / 2);
  for (Vec2d& q : pts) {
    p = p + Vec2d(sx(rng), sy(rng));
    for (int k = 0; k < 2; ++k) {
      if (p[k] < lo[k]) p[k] = 2 * lo[k] - p[k];
      if (p[k] > hi[k]) p[k] = 2 * hi[k] - p[k];
    }
    q = p;
  }
  return pts;
}

const std::vector<Vec2d>& Points(bool polyline) {
  static const std::vector<Vec2d> random = MakePoints(false), walk = MakePoints(true);
  return polyline ? walk : random;
}

// Direct PROJ, as a user without this library would call it.
struct DirectProj {
  PJ_CONTEXT* ctx = proj_context_create();
  PJ* op = nullptr;
  DirectProj() {
    PJ* raw = proj_create_crs_to_crs(ctx, "EPSG:4326", "EPSG:32632", nullptr);
    op = proj_normalize_for_visualization(ctx, raw);
    proj_destroy(raw);
  }
  ~DirectProj() {
    proj_destroy(op);
    proj_context_destroy(ctx);
  }
  void pointByPoint(std::vector<Vec2d>& pts) const {
    for (Vec2d& p : pts) {
      const PJ_COORD out = proj_trans(op, PJ_FWD, proj_coord(p.x(), p.y(), 0, HUGE_VAL));
      p = Vec2d(out.xy.x, out.xy.y);
    }
  }
  void batch(std::vector<Vec2d>& pts) const {
    proj_trans_generic(op, PJ_FWD, &pts[0].x(), sizeof(Vec2d), pts.size(), &pts[0].y(), sizeof(Vec2d),
                       pts.size(), nullptr, 0, 0, nullptr, 0, 0);
  }
};

const DirectProj& Proj() {
  static const DirectProj proj;
  return proj;
}

const std::vector<Vec2d>& Exact(bool polyline) {
  static const std::vector<Vec2d> random = [] {
    auto v = Points(false);
    Proj().pointByPoint(v);
    return v;
  }();
  static const std::vector<Vec2d> walk = [] {
    auto v = Points(true);
    Proj().pointByPoint(v);
    return v;
  }();
  return polyline ? walk : random;
}

const kel::SRSTransform& Ours() {
  static const auto t = kel::SRSTransform::Create(L"LL84", L"UTM84-32N");
  if (!t) std::abort();
  return *t;
}

double LargestError(const std::vector<Vec2d>& got, const std::vector<Vec2d>& exact) {
  double worst = 0;
  for (std::size_t i = 0; i < got.size(); ++i)
    worst = std::max(worst, std::hypot(got[i].x() - exact[i].x(), got[i].y() - exact[i].y()));
  return worst;
}

const char* Order(bool polyline) { return polyline ? "polyline" : "random"; }

void ProjPointByPoint(benchmark::State& state) {
  const bool polyline = state.range(0);
  std::vector<Vec2d> pts;
  Timed(state, std::string("proj point ") + Order(polyline), [&] { pts = Points(polyline); },
        [&] { Proj().pointByPoint(pts); });
}

void ProjBatch(benchmark::State& state) {
  const bool polyline = state.range(0);
  std::vector<Vec2d> pts = Points(polyline);
  Proj().batch(pts);
  if (LargestError(pts, Exact(polyline)) != 0) return Fail(state, "proj_trans_generic differs from proj_trans");
  Timed(state, std::string("proj batch ") + Order(polyline), [&] { pts = Points(polyline); },
        [&] { Proj().batch(pts); });
}

void OurSrsTransform(benchmark::State& state) {
  const bool polyline = state.range(0);
  std::vector<Vec2d> pts = Points(polyline);
  if (!Ours().Transform(kel::MakeDataArray(pts)) || LargestError(pts, Exact(polyline)) != 0)
    return Fail(state, "SRSTransform differs from PROJ");
  Timed(state, std::string("srs transform ") + Order(polyline), [&] { pts = Points(polyline); },
        [&] { Ours().Transform(kel::MakeDataArray(pts)); });
}

void RunCache(std::vector<Vec2d>& pts, bool batch) {
  kel::TfCache cache(kRegion, kTolerance, &Ours(), 0);
  if (batch) {
    cache.transform(kel::MakeDataArray(pts));
  } else {
    for (Vec2d& p : pts) cache.transform(p);
  }
}

void OurCache(benchmark::State& state, bool batch) {
  const bool polyline = state.range(0);
  std::vector<Vec2d> pts = Points(polyline);
  RunCache(pts, batch);
  const double error = LargestError(pts, Exact(polyline));
  g_largestError = std::max(g_largestError, error);
  if (error > 2 * kTolerance) return Fail(state, "TfCache is further than twice its tolerance from PROJ");
  Timed(state, std::string(batch ? "cache batch " : "cache point ") + Order(polyline),
        [&] { pts = Points(polyline); }, [&] { RunCache(pts, batch); });
}

// The ceiling: bilinear interpolation in a fixed, prebuilt grid.
struct FixedGrid {
  std::vector<Vec2d> nodes;
  double x0, y0, sx, sy;
  FixedGrid() : x0(kRegion.min.x()), y0(kRegion.min.y()) {
    sx = kGrid / (kRegion.max.x() - x0);
    sy = kGrid / (kRegion.max.y() - y0);
    nodes.resize((kGrid + 1) * (kGrid + 1));
    for (int j = 0; j <= kGrid; ++j)
      for (int i = 0; i <= kGrid; ++i) nodes[j * (kGrid + 1) + i] = Vec2d(x0 + i / sx, y0 + j / sy);
    Proj().batch(nodes);
  }
  void apply(std::vector<Vec2d>& pts) const {
    for (Vec2d& p : pts) {
      const double fx = (p.x() - x0) * sx, fy = (p.y() - y0) * sy;
      const int i = std::clamp(static_cast<int>(fx), 0, kGrid - 1), j = std::clamp(static_cast<int>(fy), 0, kGrid - 1);
      const double tx = fx - i, ty = fy - j;
      const Vec2d* n = &nodes[j * (kGrid + 1) + i];
      const Vec2d bottom = n[0] * (1 - tx) + n[1] * tx;
      const Vec2d top = n[kGrid + 1] * (1 - tx) + n[kGrid + 2] * tx;
      p = bottom * (1 - ty) + top * ty;
    }
  }
};

void FixedGridSide(benchmark::State& state) {
  const bool polyline = state.range(0);
  static const FixedGrid grid;
  std::vector<Vec2d> pts = Points(polyline);
  grid.apply(pts);
  if (LargestError(pts, Exact(polyline)) > 0.05) return Fail(state, "fixed grid further than 5 cm from PROJ");
  Timed(state, std::string("fixed grid ") + Order(polyline), [&] { pts = Points(polyline); },
        [&] { grid.apply(pts); });
}

// Named BM_<case>_<side> for scripts/bench.sh: within a case and argument,
// every other side is an anchor of the Kel side.
void BM_PointByPoint_Kel(benchmark::State& state) { OurCache(state, false); }
void BM_PointByPoint_Proj(benchmark::State& state) { ProjPointByPoint(state); }
void BM_Batch_Kel(benchmark::State& state) { OurCache(state, true); }
void BM_Batch_ProjPoint(benchmark::State& state) { ProjPointByPoint(state); }
void BM_Batch_ProjGeneric(benchmark::State& state) { ProjBatch(state); }
void BM_Batch_FixedGrid(benchmark::State& state) { FixedGridSide(state); }
void BM_Exact_KelSrs(benchmark::State& state) { OurSrsTransform(state); }
void BM_Exact_Proj(benchmark::State& state) { ProjPointByPoint(state); }

#define SRS_BENCH(fn)                                                                                          \
  BENCHMARK(fn)->ArgName("polyline")->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3) \
      ->Repetitions(5)
SRS_BENCH(BM_PointByPoint_Kel);
SRS_BENCH(BM_PointByPoint_Proj);
SRS_BENCH(BM_Batch_Kel);
SRS_BENCH(BM_Batch_ProjPoint);
SRS_BENCH(BM_Batch_ProjGeneric);
SRS_BENCH(BM_Batch_FixedGrid);
SRS_BENCH(BM_Exact_KelSrs);
SRS_BENCH(BM_Exact_Proj);

void Ratio(const char* label, const std::string& ours, const std::string& theirs) {
  const auto& t = Times();
  if (!t.count(ours) || !t.count(theirs) || t.at(ours).empty() || t.at(theirs).empty()) return;
  std::printf("  %-46s %6.2f\n", label, Median(t.at(theirs)) / Median(t.at(ours)));
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::printf("\nthroughput ours / theirs (median iterations):\n");
  for (const char* order : {"random", "polyline"}) {
    const std::string o = order;
    std::printf(" %s order\n", order);
    Ratio("TfCache point by point / PROJ point by point", "cache point " + o, "proj point " + o);
    Ratio("TfCache batch / PROJ point by point", "cache batch " + o, "proj point " + o);
    Ratio("TfCache batch / PROJ proj_trans_generic", "cache batch " + o, "proj batch " + o);
    Ratio("TfCache batch / fixed grid (ceiling)", "cache batch " + o, "fixed grid " + o);
    Ratio("SRSTransform / PROJ point by point", "srs transform " + o, "proj point " + o);
  }
  std::printf("TfCache largest error against PROJ: %.3f mm (tolerance %.1f mm)\n", g_largestError * 1000,
              kTolerance * 1000);
  return g_failed ? 1 : 0;
}
