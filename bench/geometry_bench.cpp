// Geometry beside GEOS, one thread each:
//   point in polygon: PointInPolygonChecker vs a GEOS prepared geometry's
//     contains, on noisy star polygons of 1 M and 10 M vertices and on real
//     borders (the largest country polygon and all countries at once, from
//     the npm package @geo-maps/countries-maritime-10m, fetched into the
//     build folder when first needed; its rows are skipped when that fails);
//   Generalize vs GEOS simplify (Douglas-Peucker) and Tessellate vs GEOS
//     densify, on a random walk of 1 M points.
// Agreement is checked before timing and printed; a disagreement skips the
// row and makes the run exit 1. After the run: memory of each point-in-
// polygon side beyond its own polygon (peak RSS of a child process that
// builds and queries it, less that of one that only holds the polygon), how
// much of our index went to temporary files, and the speed ratios (GEOS
// median time / ours) from the median iterations.
#define GEOS_USE_ONLY_R_API
#include <geos_c.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <numbers>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "kel/core/log.h"
#include "kel/geometry/geometry_buffer.h"
#include "kel/geometry/point_in_polygon_checker.h"
#include "kel/spatial/spatial_index_2d.h"

namespace {

namespace fs = std::filesystem;
using kel::GeometryBuffer;
using kel::Vec2d;

constexpr int kQueries = 1 << 16;
constexpr int kWalkPoints = 1'000'000;
constexpr double kSimplifyTolerance = 2.0;
constexpr double kDensifyLength = 0.5;

bool gFailed = false;

// ---------------------------------------------------------------- timing

std::map<std::string, std::vector<double>>& Times() {
  static std::map<std::string, std::vector<double>> times;
  return times;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.size() % 2 ? v[v.size() / 2] : 0.5 * (v[v.size() / 2 - 1] + v[v.size() / 2]);
}

template <class F>
void Timed(benchmark::State& state, const std::string& name, std::int64_t items, F&& body) {
  std::vector<double>& times = Times()[name];
  for (auto _ : state) {
    const auto t0 = std::chrono::steady_clock::now();
    body();
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    times.push_back(s);
    state.SetIterationTime(s);
  }
  state.SetItemsProcessed(state.iterations() * items);
}

void Fail(benchmark::State& state, const std::string& why) {
  gFailed = true;
  std::fprintf(stderr, "DISAGREEMENT: %s\n", why.c_str());
  state.SkipWithError(why.c_str());
}

// ---------------------------------------------------------------- GEOS

struct Geos {
  GEOSContextHandle_t h = GEOS_init_r();
  ~Geos() { GEOS_finish_r(h); }
};

Geos& G() {
  static Geos geos;
  return geos;
}

struct GeomDeleter {
  void operator()(GEOSGeometry* g) const {
    if (g) GEOSGeom_destroy_r(G().h, g);
  }
};
using GeomPtr = std::unique_ptr<GEOSGeometry, GeomDeleter>;

// A GEOS copy of the buffer, made in our context.
GeomPtr ToGeos(const GeometryBuffer& b) {
  kel::GeosContextPtr ctx(G().h, [](GEOSContextHandle_t) {});
  kel::GeosGeometryPtr g = b.toGeosGeometry(ctx);
  return GeomPtr(g.release());
}

// ---------------------------------------------------------------- polygons

// A star with `arms` arms whose radius also wanders by up to one vertex
// spacing, in projected metres.
std::shared_ptr<GeometryBuffer> NoisyStar(int vertices, unsigned seed) {
  std::mt19937 rng(seed);
  const double r = 1e5, spacing = 2 * std::numbers::pi * r / vertices;
  std::uniform_real_distribution<double> noise(-spacing, spacing);
  auto b = std::make_shared<GeometryBuffer>(vertices + 1, kel::FdoDimensionality_XY, false);
  b->SetGeometryType(kel::FdoGeometryType_Polygon);
  for (int i = 0; i < vertices; ++i) {
    const double a = 2 * std::numbers::pi * i / vertices;
    const double rad = r * (1 + 0.3 * std::sin(7 * a)) + noise(rng);
    b->LineTo(500000 + rad * std::cos(a), 5400000 + rad * std::sin(a), 0);
  }
  b->Close();
  return b;
}

fs::path DataDir() { return fs::path(KEL_BENCH_DATA_DIR); }

// The GeoJSON of the maritime borders, fetched with npm on first use.
std::string BordersJson(std::string& why) {
  const fs::path json = DataDir() / "package" / "map.geo.json";
  if (!fs::exists(json)) {
    std::error_code ec;
    fs::create_directories(DataDir(), ec);
    const std::string cmd = "cd '" + DataDir().string() +
                            "' && npm pack --silent @geo-maps/countries-maritime-10m@0.6.0 >/dev/null 2>&1 && "
                            "tar xzf geo-maps-countries-maritime-10m-0.6.0.tgz";
    if (std::system(cmd.c_str()) != 0 || !fs::exists(json)) {
      why = "npm pack @geo-maps/countries-maritime-10m failed (no network or no npm)";
      return "";
    }
  }
  std::ifstream in(json);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// Every polygon of every country, largest (by vertices) first.
std::vector<GeomPtr> BorderPolygons(std::string& why) {
  const std::string text = BordersJson(why);
  std::vector<GeomPtr> out;
  if (text.empty()) return out;
  GEOSGeoJSONReader* reader = GEOSGeoJSONReader_create_r(G().h);
  GeomPtr all(GEOSGeoJSONReader_readGeometry_r(G().h, reader, text.c_str()));
  GEOSGeoJSONReader_destroy_r(G().h, reader);
  if (!all) {
    why = "the borders GeoJSON did not parse";
    return out;
  }
  auto take = [&](const GEOSGeometry* g, auto&& self) -> void {
    const int t = GEOSGeomTypeId_r(G().h, g);
    if (t == GEOS_POLYGON) out.emplace_back(GEOSGeom_clone_r(G().h, g));
    if (t == GEOS_MULTIPOLYGON || t == GEOS_GEOMETRYCOLLECTION)
      for (int i = 0; i < GEOSGetNumGeometries_r(G().h, g); ++i) self(GEOSGetGeometryN_r(G().h, g, i), self);
  };
  take(all.get(), take);
  std::stable_sort(out.begin(), out.end(), [](const GeomPtr& a, const GeomPtr& b) {
    return GEOSGetNumCoordinates_r(G().h, a.get()) > GEOSGetNumCoordinates_r(G().h, b.get());
  });
  return out;
}

std::shared_ptr<GeometryBuffer> FromGeos(const GEOSGeometry* g) {
  kel::GeosContextPtr ctx(G().h, [](GEOSContextHandle_t) {});
  kel::GeosGeometryPtr copy(GEOSGeom_clone_r(G().h, g), kel::GeosGeometryDeleter{ctx});
  return GeometryBuffer::FromGeosGeometry(copy);
}

// Borders: "largest" is the largest single polygon, "world" every polygon
// of every country in one buffer.
std::shared_ptr<GeometryBuffer> Borders(const std::string& which, std::string& why) {
  static std::vector<GeomPtr> polygons;
  static std::string failure;
  static bool loaded = false;
  if (!loaded) {
    loaded = true;
    polygons = BorderPolygons(failure);
  }
  why = failure;
  if (polygons.empty()) return nullptr;
  if (which == "largest") return FromGeos(polygons.front().get());
  std::vector<GEOSGeometry*> parts;
  for (const GeomPtr& p : polygons) parts.push_back(GEOSGeom_clone_r(G().h, p.get()));
  GeomPtr world(GEOSGeom_createCollection_r(G().h, GEOS_MULTIPOLYGON, parts.data(), unsigned(parts.size())));
  return FromGeos(world.get());
}

struct PipCase {
  std::string name;
  std::shared_ptr<GeometryBuffer> polygon;
  std::vector<Vec2d> queries;
  std::string skip;  // why the case cannot run, if it cannot
};

std::shared_ptr<GeometryBuffer> MakePolygon(const std::string& name, std::string& why) {
  if (name == "star 1M") return NoisyStar(1'000'000, 1);
  if (name == "star 10M") return NoisyStar(10'000'000, 2);
  if (name == "border largest") return Borders("largest", why);
  return Borders("world", why);
}

const std::vector<std::string>& PipNames() {
  static const std::vector<std::string> names{"star 1M", "star 10M", "border largest", "border world"};
  return names;
}

std::vector<Vec2d> Queries(const GeometryBuffer& poly, unsigned seed) {
  std::mt19937 rng(seed);
  const auto box = poly.GetBBox2d();
  std::uniform_real_distribution<double> ux(box.min.x(), box.max.x()), uy(box.min.y(), box.max.y());
  std::vector<Vec2d> q(kQueries);
  for (Vec2d& p : q) p = Vec2d(ux(rng), uy(rng));
  return q;
}

PipCase& Case(const std::string& name) {
  static std::map<std::string, PipCase> cases;
  auto it = cases.find(name);
  if (it != cases.end()) return it->second;
  PipCase c;
  c.name = name;
  c.polygon = MakePolygon(name, c.skip);
  if (c.polygon) c.queries = Queries(*c.polygon, 7);
  return cases[name] = std::move(c);
}

// The checker and GEOS for one case, built once; agreement checked once.
struct PipSides {
  std::unique_ptr<kel::PointInPolygonChecker> checker;
  GeomPtr geos;
  const GEOSPreparedGeometry* prepared = nullptr;
  std::vector<GeomPtr> points;
  std::string disagreement;
};

PipSides& Sides(PipCase& c) {
  static std::map<std::string, PipSides> sides;
  auto it = sides.find(c.name);
  if (it != sides.end()) return it->second;
  PipSides& s = sides[c.name];
  s.checker = std::make_unique<kel::PointInPolygonChecker>(c.polygon);
  s.geos = ToGeos(*c.polygon);
  s.prepared = GEOSPrepare_r(G().h, s.geos.get());
  for (const Vec2d& p : c.queries) s.points.emplace_back(GEOSGeom_createPointFromXY_r(G().h, p.x(), p.y()));
  // Every point where the answers differ must lie on an edge.
  int inside = 0, onEdge = 0;
  const double scale = std::max(c.polygon->GetBBox2d().max.x() - c.polygon->GetBBox2d().min.x(), 1.0);
  for (std::size_t i = 0; i < c.queries.size(); ++i) {
    const bool ours = s.checker->PointInPolygon(c.queries[i]);
    const bool theirs = GEOSPreparedContains_r(G().h, s.prepared, s.points[i].get()) == 1;
    inside += theirs;
    if (ours == theirs) continue;
    double d = 0;
    GEOSPreparedDistance_r(G().h, s.prepared, s.points[i].get(), &d);
    if (d <= 1e-12 * scale) {
      ++onEdge;
      continue;
    }
    s.disagreement = c.name + ": the checker and GEOS differ at (" + std::to_string(c.queries[i].x()) + ", " +
                     std::to_string(c.queries[i].y()) + "), " + std::to_string(d) + " from the boundary";
    break;
  }
  std::printf("agreement %-15s %d of %zu points agree (%d inside, %d on an edge left out)%s\n", c.name.c_str(),
              int(c.queries.size()) - onEdge, c.queries.size(), inside, onEdge,
              s.disagreement.empty() ? "" : " -- DISAGREE");
  return s;
}

void BM_PipKel(benchmark::State& state, const std::string& name) {
  PipCase& c = Case(name);
  if (!c.polygon) return state.SkipWithError(("skipped: " + c.skip).c_str());
  PipSides& s = Sides(c);
  if (!s.disagreement.empty()) return Fail(state, s.disagreement);
  const kel::PointInPolygonChecker& checker = *s.checker;
  Timed(state, "kel pip " + name, kQueries, [&] {
    int in = 0;
    for (const Vec2d& p : c.queries) in += checker.PointInPolygon(p);
    benchmark::DoNotOptimize(in);
  });
}

void BM_PipGeos(benchmark::State& state, const std::string& name) {
  PipCase& c = Case(name);
  if (!c.polygon) return state.SkipWithError(("skipped: " + c.skip).c_str());
  PipSides& s = Sides(c);
  if (!s.disagreement.empty()) return Fail(state, s.disagreement);
  Timed(state, "geos pip " + name, kQueries, [&] {
    int in = 0;
    for (const GeomPtr& p : s.points) in += GEOSPreparedContains_r(G().h, s.prepared, p.get());
    benchmark::DoNotOptimize(in);
  });
}

// ---------------------------------------------------------------- generalize, tessellate

const GeometryBuffer& Walk() {
  static const GeometryBuffer walk = [] {
    std::mt19937 rng(5);
    std::normal_distribution<double> step(0.0, 1.0);
    GeometryBuffer b(kWalkPoints, kel::FdoDimensionality_XY, false);
    b.SetGeometryType(kel::FdoGeometryType_LineString);
    double x = 500000, y = 5400000;
    for (int i = 0; i < kWalkPoints; ++i) {
      b.LineTo(x, y, 0);
      x += step(rng), y += step(rng);
    }
    return b;
  }();
  return walk;
}

const GEOSGeometry* WalkGeos() {
  static GeomPtr g = ToGeos(Walk());
  return g.get();
}

std::vector<Vec2d> GeosPoints(const GEOSGeometry* g) {
  const GEOSCoordSequence* seq = GEOSGeom_getCoordSeq_r(G().h, g);
  unsigned n = 0;
  GEOSCoordSeq_getSize_r(G().h, seq, &n);
  std::vector<Vec2d> out(n);
  for (unsigned i = 0; i < n; ++i) GEOSCoordSeq_getXY_r(G().h, seq, i, &out[i][0], &out[i][1]);
  return out;
}

// Ours against GEOS's output: exactly the same vertices (simplify), or the
// same count within 1e-9 m (densify: the same points computed another way).
std::string Compare(const GeometryBuffer& ours, const GEOSGeometry* theirs, double tolerance) {
  const std::vector<Vec2d> t = GeosPoints(theirs);
  if (int(t.size()) != ours.pointCount())
    return std::to_string(ours.pointCount()) + " points against GEOS's " + std::to_string(t.size());
  for (int i = 0; i < ours.pointCount(); ++i)
    if (std::abs(ours.x(i) - t[i].x()) > tolerance || std::abs(ours.y(i) - t[i].y()) > tolerance)
      return "point " + std::to_string(i) + " differs";
  return "";
}

void BM_GeneralizeKel(benchmark::State& state) {
  static const std::string diff = [] {
    GeometryBuffer check(0, kel::FdoDimensionality_XY, false);
    Walk().Generalize(&check, kSimplifyTolerance);
    GeomPtr theirs(GEOSSimplify_r(G().h, WalkGeos(), kSimplifyTolerance));
    std::string d = Compare(check, theirs.get(), 0.0);
    std::printf("agreement generalize     %d of %d points kept, %s\n", check.pointCount(), kWalkPoints,
                d.empty() ? "the same as GEOS simplify" : d.c_str());
    return d;
  }();
  if (!diff.empty()) return Fail(state, "Generalize vs GEOS simplify: " + diff);
  Timed(state, "kel generalize", kWalkPoints, [&] {
    GeometryBuffer out(0, kel::FdoDimensionality_XY, false);
    Walk().Generalize(&out, kSimplifyTolerance);
    benchmark::DoNotOptimize(out.pointData());
  });
}

void BM_SimplifyGeos(benchmark::State& state) {
  Timed(state, "geos simplify", kWalkPoints, [&] {
    GeomPtr out(GEOSSimplify_r(G().h, WalkGeos(), kSimplifyTolerance));
    benchmark::DoNotOptimize(out.get());
  });
}

void BM_TessellateKel(benchmark::State& state) {
  static const std::string diff = [] {
    GeometryBuffer check(0, kel::FdoDimensionality_XY, false);
    Walk().Tessellate(&check, kDensifyLength);
    GeomPtr theirs(GEOSDensify_r(G().h, WalkGeos(), kDensifyLength));
    std::string d = Compare(check, theirs.get(), 1e-9);
    std::printf("agreement tessellate     %d points out, %s\n", check.pointCount(),
                d.empty() ? "the same as GEOS densify" : d.c_str());
    return d;
  }();
  if (!diff.empty()) return Fail(state, "Tessellate vs GEOS densify: " + diff);
  Timed(state, "kel tessellate", kWalkPoints, [&] {
    GeometryBuffer out(0, kel::FdoDimensionality_XY, false);
    Walk().Tessellate(&out, kDensifyLength);
    benchmark::DoNotOptimize(out.pointData());
  });
}

void BM_DensifyGeos(benchmark::State& state) {
  Timed(state, "geos densify", kWalkPoints, [&] {
    GeomPtr out(GEOSDensify_r(G().h, WalkGeos(), kDensifyLength));
    benchmark::DoNotOptimize(out.get());
  });
}

// ---------------------------------------------------------------- memory

long StatusKiB(const char* key) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind(key, 0) == 0) return std::stol(line.substr(std::string(key).size()));
  return -1;
}

// Runs `body` in a child process and returns how far its resident set rose
// above where it started (KiB), with the number `body` returns.
template <class F>
long PeakGrowthInChild(F&& body, double* extra = nullptr) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    ::close(fds[0]);
    // A child inherits its parent's peak; start it again from here.
    std::ofstream("/proc/self/clear_refs") << "5";
    const long start = StatusKiB("VmRSS:");
    const double value = body();
    const double out[2] = {double(StatusKiB("VmHWM:") - start), value};
    (void)!write(fds[1], out, sizeof out);
    _exit(0);
  }
  ::close(fds[1]);
  double in[2] = {-1, 0};
  (void)!read(fds[0], in, sizeof in);
  ::close(fds[0]);
  waitpid(pid, nullptr, 0);
  if (extra) *extra = in[1];
  return long(in[0]);
}

void MemoryReport() {
  std::printf("\nmemory beyond each side's own polygon, bytes per vertex (peak RSS of a child\n"
              "process that builds the structure and runs the queries, less its RSS when it\n"
              "held only the polygon):\n");
  std::printf("  %-15s %10s %8s %8s %9s %15s\n", "polygon", "vertices", "kel", "GEOS", "kel/GEOS", "kel index files");
  for (const std::string& name : PipNames()) {
    PipCase& c = Case(name);
    if (!c.polygon) {
      std::printf("  %-15s skipped: %s\n", name.c_str(), c.skip.c_str());
      continue;
    }
    const GeomPtr geos = ToGeos(*c.polygon);  // the GEOS side's own polygon, made before forking
    const double n = c.polygon->pointCount();
    double fileBytes = 0;
    const long kel = PeakGrowthInChild(
        [&] {
          kel::PointInPolygonChecker checker(c.polygon);
          int in = 0;
          for (const Vec2d& p : c.queries) in += checker.PointInPolygon(p);
          benchmark::DoNotOptimize(in);
          return checker.index() ? double(checker.index()->fileBytes()) : 0.0;
        },
        &fileBytes);
    const long theirs = PeakGrowthInChild([&] {
      const GEOSPreparedGeometry* prepared = GEOSPrepare_r(G().h, geos.get());
      int in = 0;
      for (const Vec2d& p : c.queries) {
        GeomPtr pt(GEOSGeom_createPointFromXY_r(G().h, p.x(), p.y()));
        in += GEOSPreparedContains_r(G().h, prepared, pt.get());
      }
      benchmark::DoNotOptimize(in);
      return 0.0;
    });
    const double kelPer = 1024.0 * double(kel) / n, geosPer = 1024.0 * double(theirs) / n;
    std::printf("  %-15s %10.0f %8.1f %8.1f %9.2f %12.1f MB\n", name.c_str(), n, kelPer, geosPer,
                geosPer > 0 ? kelPer / geosPer : 0.0, fileBytes / 1e6);
  }
}

void Ratio(const std::string& label, const std::string& ours, const std::string& theirs) {
  const auto& t = Times();
  if (!t.count(ours) || !t.count(theirs) || t.at(ours).empty() || t.at(theirs).empty()) return;
  std::printf("  %-34s %6.2f\n", label.c_str(), Median(t.at(theirs)) / Median(t.at(ours)));
}

void Register() {
  for (const std::string& name : PipNames()) {
    benchmark::RegisterBenchmark(("kel pip/" + name).c_str(), BM_PipKel, name)
        ->UseManualTime()->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
    benchmark::RegisterBenchmark(("geos pip/" + name).c_str(), BM_PipGeos, name)
        ->UseManualTime()->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
  }
  using Fn = void (*)(benchmark::State&);
  const std::pair<const char*, Fn> walks[] = {{"kel generalize", BM_GeneralizeKel},
                                              {"geos simplify", BM_SimplifyGeos},
                                              {"kel tessellate", BM_TessellateKel},
                                              {"geos densify", BM_DensifyGeos}};
  for (const auto& [name, fn] : walks)
    benchmark::RegisterBenchmark(name, fn)
        ->UseManualTime()->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
}

}  // namespace

int main(int argc, char** argv) {
  bool memory = true;
  for (int i = 1; i < argc; ++i)
    if (std::string(argv[i]) == "--no_memory") {
      memory = false;
      std::rotate(argv + i, argv + i + 1, argv + argc);
      --argc;
      --i;
    }
  kel::Log::setSilent(true);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  Register();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::printf("\nspeed, GEOS time / ours (median iterations):\n");
  for (const std::string& name : PipNames()) Ratio("point in polygon, " + name, "kel pip " + name, "geos pip " + name);
  Ratio("Generalize / GEOS simplify", "kel generalize", "geos simplify");
  Ratio("Tessellate / GEOS densify", "kel tessellate", "geos densify");
  if (memory) MemoryReport();
  return gFailed ? 1 : 0;
}
