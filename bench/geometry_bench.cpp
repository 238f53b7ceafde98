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
#include <malloc.h>
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

// A case is a polygon and a query order: uniform random points in its box,
// or ("rows") a 256 x 256 grid of its box walked row by row, as a raster
// mask would ask.
struct PipCase {
  std::string name;
  std::string polygonName;
  std::shared_ptr<GeometryBuffer> polygon;
  std::vector<Vec2d> queries;
  std::string skip;  // why the case cannot run, if it cannot
};

std::shared_ptr<GeometryBuffer> MakePolygon(const std::string& name, std::string& why) {
  if (name == "star_1M") return NoisyStar(1'000'000, 1);
  if (name == "star_10M") return NoisyStar(10'000'000, 2);
  if (name == "border_largest") return Borders("largest", why);
  return Borders("world", why);
}

const std::vector<std::string>& PipNames() {
  static const std::vector<std::string> names{"star_1M",       "star_1M_rows",   "star_10M",
                                              "star_10M_rows", "border_largest", "border_world"};
  return names;
}

std::vector<Vec2d> Queries(const GeometryBuffer& poly, bool rows) {
  std::mt19937 rng(7);
  const auto box = poly.GetBBox2d();
  std::uniform_real_distribution<double> ux(box.min.x(), box.max.x()), uy(box.min.y(), box.max.y());
  std::vector<Vec2d> q(kQueries);
  for (int i = 0; i < kQueries; ++i)
    q[std::size_t(i)] = rows ? Vec2d(box.min.x() + (i % 256 + 0.5) / 256 * (box.max.x() - box.min.x()),
                                     box.min.y() + (i / 256 + 0.5) / 256 * (box.max.y() - box.min.y()))
                             : Vec2d(ux(rng), uy(rng));
  return q;
}

// Polygons are shared by the cases that query them.
std::shared_ptr<GeometryBuffer> Polygon(const std::string& name, std::string& why) {
  static std::map<std::string, std::pair<std::shared_ptr<GeometryBuffer>, std::string>> made;
  auto it = made.find(name);
  if (it == made.end()) {
    std::string failure;
    auto poly = MakePolygon(name, failure);
    it = made.emplace(name, std::make_pair(poly, failure)).first;
  }
  why = it->second.second;
  return it->second.first;
}

PipCase& Case(const std::string& name) {
  static std::map<std::string, PipCase> cases;
  auto it = cases.find(name);
  if (it != cases.end()) return it->second;
  PipCase c;
  c.name = name;
  const bool rows = name.size() > 5 && name.compare(name.size() - 5, 5, "_rows") == 0;
  c.polygonName = rows ? name.substr(0, name.size() - 5) : name;
  c.polygon = Polygon(c.polygonName, c.skip);
  if (c.polygon) c.queries = Queries(*c.polygon, rows);
  return cases[name] = std::move(c);
}

// The checker and GEOS for one polygon, built once.
struct PipIndexes {
  std::unique_ptr<kel::PointInPolygonChecker> checker;
  GeomPtr geos;
  const GEOSPreparedGeometry* prepared = nullptr;
};

PipIndexes& Indexes(const PipCase& c) {
  static std::map<std::string, PipIndexes> made;
  auto it = made.find(c.polygonName);
  if (it != made.end()) return it->second;
  PipIndexes& x = made[c.polygonName];
  x.checker = std::make_unique<kel::PointInPolygonChecker>(c.polygon);
  x.geos = ToGeos(*c.polygon);
  x.prepared = GEOSPrepare_r(G().h, x.geos.get());
  return x;
}

// A case's GEOS query points, and its agreement, checked once.
struct PipSides {
  PipIndexes* indexes = nullptr;
  std::vector<GeomPtr> points;
  std::string disagreement;
};

PipSides& Sides(PipCase& c) {
  static std::map<std::string, PipSides> sides;
  auto it = sides.find(c.name);
  if (it != sides.end()) return it->second;
  PipSides& s = sides[c.name];
  s.indexes = &Indexes(c);
  const kel::PointInPolygonChecker& checker = *s.indexes->checker;
  const GEOSPreparedGeometry* prepared = s.indexes->prepared;
  for (const Vec2d& p : c.queries) s.points.emplace_back(GEOSGeom_createPointFromXY_r(G().h, p.x(), p.y()));
  // Every point where the answers differ must lie on an edge.
  int inside = 0, onEdge = 0;
  const double scale = std::max(c.polygon->GetBBox2d().max.x() - c.polygon->GetBBox2d().min.x(), 1.0);
  for (std::size_t i = 0; i < c.queries.size(); ++i) {
    const bool ours = checker.PointInPolygon(c.queries[i]);
    const bool theirs = GEOSPreparedContains_r(G().h, prepared, s.points[i].get()) == 1;
    inside += theirs;
    if (ours == theirs) continue;
    double d = 0;
    GEOSPreparedDistance_r(G().h, prepared, s.points[i].get(), &d);
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
  const kel::PointInPolygonChecker& checker = *s.indexes->checker;
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
    for (const GeomPtr& p : s.points) in += GEOSPreparedContains_r(G().h, s.indexes->prepared, p.get());
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

// One side's memory for one polygon, measured in a fresh process (this
// binary run again with --memory_child=POLYGON:SIDE): it builds the polygon
// (and, for GEOS, GEOS's copy), restarts its peak from there, then builds
// the index and runs the queries. malloc returns freed memory at once, so
// the resident set counts live memory only and nothing freed earlier is
// silently reused. Prints the peak growth in bytes and our index's file
// bytes.
int MemoryChild(const std::string& polygon_side) {
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
  mallopt(M_TRIM_THRESHOLD, 128 * 1024);
  const std::size_t colon = polygon_side.rfind(':');
  const std::string name = polygon_side.substr(0, colon), side = polygon_side.substr(colon + 1);
  std::string why;
  std::shared_ptr<GeometryBuffer> poly = MakePolygon(name, why);
  if (!poly) return 1;
  const std::vector<Vec2d> queries = Queries(*poly, false);
  GeomPtr geos = side == "geos" ? ToGeos(*poly) : nullptr;
  if (side == "geos") poly.reset();  // each side holds its own polygon only
  malloc_trim(0);
  std::ofstream("/proc/self/clear_refs") << "5";
  const long start = StatusKiB("VmRSS:");
  double fileBytes = 0;
  int in = 0;
  if (side == "kel") {
    kel::PointInPolygonChecker checker(poly);
    for (const Vec2d& p : queries) in += checker.PointInPolygon(p);
    fileBytes = double(checker.indexFileBytes());
  } else {
    const GEOSPreparedGeometry* prepared = GEOSPrepare_r(G().h, geos.get());
    for (const Vec2d& p : queries) {
      GeomPtr pt(GEOSGeom_createPointFromXY_r(G().h, p.x(), p.y()));
      in += GEOSPreparedContains_r(G().h, prepared, pt.get());
    }
    GEOSPreparedGeom_destroy_r(G().h, prepared);
  }
  benchmark::DoNotOptimize(in);
  std::printf("%.0f %.0f\n", 1024.0 * double(StatusKiB("VmHWM:") - start), fileBytes);
  return 0;
}

// Peak growth in bytes (and file bytes) of one side, from a fresh process.
bool MeasureInChild(const std::string& name, const std::string& side, double& bytes, double& fileBytes) {
  const std::string cmd = "'" + fs::read_symlink("/proc/self/exe").string() + "' '--memory_child=" + name + ":" + side + "'";
  std::FILE* child = popen(cmd.c_str(), "r");
  if (!child) return false;
  const bool ok = std::fscanf(child, "%lf %lf", &bytes, &fileBytes) == 2;
  return pclose(child) == 0 && ok;
}

void MemoryReport() {
  std::printf("\nmemory beyond each side's own polygon, bytes per vertex (peak RSS of a fresh\n"
              "process that builds the structure and runs the queries, less its RSS when it\n"
              "held only the polygon):\n");
  std::printf("  %-15s %10s %8s %8s %9s %15s\n", "polygon", "vertices", "kel", "GEOS", "kel/GEOS", "kel index files");
  for (const std::string& name : PipNames()) {
    PipCase& c = Case(name);
    if (c.polygonName != c.name) continue;  // the same polygon as another row
    if (!c.polygon) {
      std::printf("  %-15s skipped: %s\n", name.c_str(), c.skip.c_str());
      continue;
    }
    double kel = 0, geos = 0, fileBytes = 0, unused = 0;
    if (!MeasureInChild(name, "kel", kel, fileBytes) || !MeasureInChild(name, "geos", geos, unused)) {
      std::printf("  %-15s the measuring process failed\n", name.c_str());
      continue;
    }
    const double n = c.polygon->pointCount();
    std::printf("  %-15s %10.0f %8.1f %8.1f %9.2f %12.1f MB\n", name.c_str(), n, kel / n, geos / n,
                geos > 0 ? kel / geos : 0.0, fileBytes / 1e6);
  }
}

void Ratio(const std::string& label, const std::string& ours, const std::string& theirs) {
  const auto& t = Times();
  if (!t.count(ours) || !t.count(theirs) || t.at(ours).empty() || t.at(theirs).empty()) return;
  std::printf("  %-34s %6.2f\n", label.c_str(), Median(t.at(theirs)) / Median(t.at(ours)));
}

// Names follow scripts/bench.sh: BM_<case>_<side>/<args>, our side "Kel".
// Border rows whose data cannot be fetched are left out (with a message),
// not failed: only a disagreement fails the run.
void Register() {
  for (const std::string& name : PipNames()) {
    if (name.rfind("border", 0) == 0) {
      std::string why;
      if (!Polygon(name, why)) {
        std::printf("skipping point in polygon on %s: %s\n", name.c_str(), why.c_str());
        continue;
      }
    }
    benchmark::RegisterBenchmark(("BM_Pip_Kel/" + name).c_str(), BM_PipKel, name)
        ->UseManualTime()->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
    benchmark::RegisterBenchmark(("BM_Pip_Geos/" + name).c_str(), BM_PipGeos, name)
        ->UseManualTime()->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
  }
  using Fn = void (*)(benchmark::State&);
  const std::pair<const char*, Fn> walks[] = {{"BM_Generalize_Kel", BM_GeneralizeKel},
                                              {"BM_Generalize_Geos", BM_SimplifyGeos},
                                              {"BM_Tessellate_Kel", BM_TessellateKel},
                                              {"BM_Tessellate_Geos", BM_DensifyGeos}};
  for (const auto& [name, fn] : walks)
    benchmark::RegisterBenchmark(name, fn)
        ->UseManualTime()->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string(argv[1]).rfind("--memory_child=", 0) == 0) {
    kel::Log::setSilent(true);
    return MemoryChild(std::string(argv[1]).substr(15));
  }
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
