// Reading features from GeoPackages through FeatureSource against plain OGR
// reading the same layer with the same filters, one thread each:
//   points    1 M points in [0, 1000)^2,
//   polygons  100 k axis-aligned rectangles (footprints) over the same area,
// each with an attribute id, a double, an integer and a short string,
// generated once into the benchmark's folder. Filters:
//   extent    the box [300, 616.23]^2 (about 10 % of the area): ours an
//             ENVELOPEINTERSECTS extent filter, OGR SetSpatialFilterRect,
//   id range  a tenth of the ids: ours (fid >= a) AND (fid <= b), OGR the
//             same attribute filter text.
// Both sides open the file, set the filters and read every matching
// feature's id, attributes and coordinates into memory of their own (ours:
// Feature values and a GeometryBuffer; OGR: the fields and a vector of the
// vertices). Rectangles equal their bounding boxes, so the two extent
// semantics (box of the feature vs the shape) select the same features;
// before timing every case checks that both sides return the same ids with
// the same coordinate sums, and aborts on a difference.
//
// After the runs it prints features per second (ours / OGR, median
// iterations) and how much the process grows while our reader walks the
// whole 100 k and 1 M layers (resident memory sampled every 10 k features):
// the growth must not follow the layer size.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>
#include <gdal_priv.h>
#include <ogrsf_frmts.h>

#include "kel/core/log.h"
#include "kel/core/text.h"
#include "kel/features/feature_source.h"

namespace {

namespace fs = std::filesystem;

constexpr std::int64_t kPoints = 1'000'000;
constexpr std::int64_t kPolygons = 100'000;
constexpr double kBox[4] = {300.0, 300.0, 616.23, 616.23};
constexpr int kIterations = 9;

bool g_failed = false;

struct Layer {
  const char* name;
  std::int64_t count;
  fs::path path;
};

// Per case: median of (OGR time / our time) over the iterations, i.e. our
// features per second over OGR's.
std::map<std::string, double>& Ratios() {
  static std::map<std::string, double> ratios;
  return ratios;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

fs::path Folder() {
  std::error_code ec;
  const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
  return ec ? fs::current_path() : exe.parent_path();
}

// Generates the layer once; a complete file from an earlier run is reused.
bool Generate(Layer& layer) {
  layer.path = Folder() / (std::string("features_bench_") + layer.name + ".gpkg");
  if (GDALDataset* ds = GDALDataset::FromHandle(
          GDALOpenEx(layer.path.c_str(), GDAL_OF_VECTOR | GDAL_OF_READONLY, nullptr, nullptr, nullptr))) {
    OGRLayer* l = ds->GetLayerByName(layer.name);
    const bool complete = l && l->GetFeatureCount(TRUE) == layer.count;
    GDALClose(ds);
    if (complete) return true;
  }
  std::fprintf(stderr, "generating %s (%lld features)...\n", layer.path.c_str(), static_cast<long long>(layer.count));
  const fs::path temporary = layer.path.string() + ".part.gpkg";
  fs::remove(temporary);
  GDALDataset* ds = GetGDALDriverManager()->GetDriverByName("GPKG")->Create(temporary.c_str(), 0, 0, 0, GDT_Unknown,
                                                                            nullptr);
  if (!ds) return false;
  const bool points = std::string(layer.name) == "points";
  OGRLayer* l = ds->CreateLayer(layer.name, nullptr, points ? wkbPoint : wkbPolygon, nullptr);
  OGRFieldDefn height("height", OFTReal), kind("kind", OFTInteger), name("name", OFTString);
  bool ok = l && l->CreateField(&height) == OGRERR_NONE && l->CreateField(&kind) == OGRERR_NONE &&
            l->CreateField(&name) == OGRERR_NONE && ds->StartTransaction() == OGRERR_NONE;
  std::mt19937_64 rng(points ? 11 : 12);
  std::uniform_real_distribution<double> pos(0.0, 1000.0), size(1.0, 5.0), h(3.0, 60.0);
  for (std::int64_t i = 1; ok && i <= layer.count; ++i) {
    OGRFeature* f = OGRFeature::CreateFeature(l->GetLayerDefn());
    f->SetFID(i);
    f->SetField(0, h(rng));
    f->SetField(1, static_cast<int>(rng() % 8));
    std::string label = "b";
    label += std::to_string(i % 9973);
    f->SetField(2, label.c_str());
    const double x = pos(rng), y = pos(rng);
    if (points) {
      f->SetGeometryDirectly(new OGRPoint(x, y));
    } else {
      const double w = size(rng), d = size(rng);
      auto* ring = new OGRLinearRing();
      ring->addPoint(x, y);
      ring->addPoint(x + w, y);
      ring->addPoint(x + w, y + d);
      ring->addPoint(x, y + d);
      ring->addPoint(x, y);
      auto* polygon = new OGRPolygon();
      polygon->addRingDirectly(ring);
      f->SetGeometryDirectly(polygon);
    }
    ok = l->CreateFeature(f) == OGRERR_NONE;
    OGRFeature::DestroyFeature(f);
  }
  ok = ok && ds->CommitTransaction() == OGRERR_NONE;
  GDALClose(ds);
  std::error_code ec;
  if (ok) fs::rename(temporary, layer.path, ec);
  return ok && !ec;
}

// What both sides keep per matching feature, for the agreement check.
using Answer = std::map<std::int64_t, double>;  // id -> sum of its vertex coordinates

struct Totals {
  std::int64_t features = 0;
  double checksum = 0;
};

// ---- ours ----

Totals ReadOurs(const kel::FeatureSource& source, const Layer& layer, const kel::FdoFilterPtr& filter,
                Answer* answer) {
  Totals t;
  auto reader = source.Select(kel::Utf8String2WString(layer.name), filter);
  if (!reader) return {-1, 0};
  while (reader->ReadNext()) {
    const kel::Feature& f = reader->feature();
    double coordinates = 0;
    if (const auto& g = f.geometry) {
      const double* p = g->pointData();
      for (int i = 0, n = g->pointCount(); i < n; ++i) coordinates += p[3 * i] + p[3 * i + 1];
    }
    t.checksum += f.values[1].real + static_cast<double>(f.values[2].integer + f.values[3].text.size()) + coordinates;
    ++t.features;
    if (answer) (*answer)[f.id] = coordinates;
  }
  return t;
}

kel::FdoFilterPtr OurFilter(const Layer& layer, bool extent) {
  if (extent)
    return kel::FdoFilterUtil::CreateFdoSpatialExtentFilter(
        L"geom", kel::BBox<2, double>(kel::Vec2d(kBox[0], kBox[1]), kel::Vec2d(kBox[2], kBox[3])));
  return kel::FdoFilterUtil::CreateFdoIdRangeFilter(L"fid", layer.count / 4, layer.count / 4 + layer.count / 10);
}

// ---- plain OGR ----

Totals ReadOgr(const Layer& layer, bool extent, Answer* answer) {
  Totals t;
  GDALDataset* ds = GDALDataset::FromHandle(
      GDALOpenEx(layer.path.c_str(), GDAL_OF_VECTOR | GDAL_OF_READONLY, nullptr, nullptr, nullptr));
  if (!ds) return {-1, 0};
  OGRLayer* l = ds->GetLayerByName(layer.name);
  if (extent) {
    l->SetSpatialFilterRect(kBox[0], kBox[1], kBox[2], kBox[3]);
  } else {
    std::string where = "fid >= ";
    where += std::to_string(layer.count / 4);
    where += " AND fid <= ";
    where += std::to_string(layer.count / 4 + layer.count / 10);
    l->SetAttributeFilter(where.c_str());
  }
  std::vector<double> xy;
  std::string name;
  while (OGRFeature* f = l->GetNextFeature()) {
    const double height = f->GetFieldAsDouble(0);
    const int kind = f->GetFieldAsInteger(1);
    name.assign(f->GetFieldAsString(2));
    xy.clear();
    if (const OGRGeometry* g = f->GetGeometryRef()) {
      if (wkbFlatten(g->getGeometryType()) == wkbPoint) {
        xy.push_back(g->toPoint()->getX());
        xy.push_back(g->toPoint()->getY());
      } else {
        const OGRLinearRing* ring = g->toPolygon()->getExteriorRing();
        for (int i = 0; i < ring->getNumPoints(); ++i) {
          xy.push_back(ring->getX(i));
          xy.push_back(ring->getY(i));
        }
      }
    }
    double coordinates = 0;
    for (std::size_t i = 0; i < xy.size(); i += 2) coordinates += xy[i] + xy[i + 1];
    t.checksum += height + static_cast<double>(kind + name.size()) + coordinates;
    ++t.features;
    if (answer) (*answer)[f->GetFID()] = coordinates;
    OGRFeature::DestroyFeature(f);
  }
  GDALClose(ds);
  return t;
}

// ---- cases ----

std::vector<Layer>& Layers() {
  static std::vector<Layer> layers = {{"points", kPoints, {}}, {"polygons", kPolygons, {}}};
  return layers;
}

std::string CaseName(const Layer& layer, bool extent) {
  return std::string(layer.name) + (extent ? " extent" : " id range");
}

// Each iteration times both sides back to back, in alternating order, so a
// change of load on the shared machine hits both alike; the ratio is the
// median of the per-iteration ratios. The reported time is ours.
void BM_Read(benchmark::State& state) {
  Layer& layer = Layers()[static_cast<std::size_t>(state.range(0))];
  const bool extent = state.range(1) == 1;
  auto source = kel::FeatureSource::Open(kel::Utf8String2WString(layer.path.string()));
  const kel::FdoFilterPtr filter = OurFilter(layer, extent);
  if (!source || !filter) {
    g_failed = true;
    state.SkipWithError("cannot open the layer");
    return;
  }
  // Agreement first: same ids, same coordinates, on both sides.
  Answer a, b;
  ReadOurs(*source, layer, filter, &a);
  ReadOgr(layer, extent, &b);
  if (a != b || a.empty()) {
    g_failed = true;
    std::string why = "disagrees with OGR: ";
    why += std::to_string(a.size());
    why += " vs ";
    why += std::to_string(b.size());
    why += " features";
    state.SkipWithError(why.c_str());
    return;
  }
  std::vector<double> ratios, ogrTimes;
  std::int64_t features = 0;
  bool oursFirst = true;
  for (auto _ : state) {
    double ours = 0, ogr = 0;
    for (int side = 0; side < 2; ++side) {
      const bool runOurs = (side == 0) == oursFirst;
      const auto t0 = std::chrono::steady_clock::now();
      const Totals t = runOurs ? ReadOurs(*source, layer, filter, nullptr) : ReadOgr(layer, extent, nullptr);
      const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
      benchmark::DoNotOptimize(t.checksum);
      (runOurs ? ours : ogr) = s;
      features = t.features;
    }
    oursFirst = !oursFirst;
    ratios.push_back(ogr / ours);
    ogrTimes.push_back(ogr);
    state.SetIterationTime(ours);
  }
  Ratios()[CaseName(layer, extent)] = Median(ratios);
  state.SetItemsProcessed(state.iterations() * features);
  state.counters["features"] = static_cast<double>(features);
  state.counters["ogr_ms"] = Median(ogrTimes) * 1000.0;
  state.counters["ours_per_ogr"] = Median(ratios);
}

// Resident memory in bytes, from /proc.
double Resident() {
  long pages = 0, resident = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

// How much the process grows (KiB) while our reader walks a whole layer.
double Growth(const Layer& layer) {
  auto source = kel::FeatureSource::Open(kel::Utf8String2WString(layer.path.string()));
  if (!source) return -1;
  auto reader = source->Select(kel::Utf8String2WString(layer.name), nullptr);
  if (!reader || !reader->ReadNext()) return -1;
  const double start = Resident();
  double peak = start;
  for (std::int64_t n = 1; reader->ReadNext(); ++n)
    if (n % 10'000 == 0) peak = std::max(peak, Resident());
  return (peak - start) / 1024.0;
}

}  // namespace

int main(int argc, char** argv) {
  GDALAllRegister();
  kel::Log::getKELLogger().setLogLevel(log4cplus::ERROR_LOG_LEVEL);
  for (Layer& layer : Layers())
    if (!Generate(layer)) {
      std::fprintf(stderr, "cannot generate %s\n", layer.path.c_str());
      return 1;
    }
  for (int l = 0; l < 2; ++l)
    for (int extent = 1; extent >= 0; --extent)
      benchmark::RegisterBenchmark(CaseName(Layers()[static_cast<std::size_t>(l)], extent == 1).c_str(), BM_Read)
          ->Args({l, extent})
          ->UseManualTime()
          ->Iterations(kIterations)
          ->Unit(benchmark::kMillisecond);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (g_failed) {
    std::fprintf(stderr, "features_bench: a case disagreed with OGR or could not run\n");
    return 1;
  }
  if (!Ratios().empty()) {
    std::printf("\nfeatures per second, ours / plain OGR (median of %d paired iterations):\n", kIterations);
    for (const auto& [name, ratio] : Ratios()) std::printf("  %-22s %6.3f\n", name.c_str(), ratio);
    std::printf("process growth while our reader walks a whole layer:\n");
    for (const Layer& layer : Layers())
      std::printf("  %-22s %8.0f KiB over %lld features\n", layer.name, Growth(layer),
                  static_cast<long long>(layer.count));
  }
  return 0;
}
