// The whole pipeline on small cities: what lands on disk, picks against
// the tree built from the written files, shards, resume, interruption,
// footprints from a GeoPackage made by ogr2ogr and terrain from a GeoTIFF
// made by GDAL.
#include "city/build.h"

#include <cfloat>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <thread>

#include <cpl_conv.h>
#include <gdal.h>
#include <gtest/gtest.h>
#include <ogr_srs_api.h>

#include "city/pick.h"
#include "city/terrain.h"
#include "city/tiles.h"
#include "support/scratch.h"

namespace city {
namespace {

namespace fs = std::filesystem;
using kel::test::ReadBytes;
using kel::test::ScratchDir;

BuildOptions Small(const std::string& out, int buildings = 400) {
  BuildOptions o;
  o.out = out;
  o.procedural.buildings = buildings;
  o.leafSize = 128;
  o.terrainQuads = 8;
  o.threads = 2;
  o.heightmapSize = 64;
  o.sync = false;  // a flush of a busy disk can take seconds, and no test pulls the plug
  return o;
}

BuildSummary Build(const BuildOptions& o) {
  kel::Progress root(L"test build", 0);
  return BuildCity(o, root);
}

// Every file under `root` but the picture, by relative path.
std::map<std::string, std::string> Tree(const fs::path& root) {
  std::map<std::string, std::string> files;
  for (const auto& e : fs::recursive_directory_iterator(root))
    if (e.is_regular_file() && e.path().filename() != "heightmap.png")
      files[fs::relative(e.path(), root).string()] = ReadBytes(e.path());
  return files;
}

std::vector<std::string> Temporaries(const fs::path& root) {
  std::vector<std::string> out;
  for (const auto& e : fs::recursive_directory_iterator(root))
    if (e.path().filename().string().find(".kel-tmp-") != std::string::npos) out.push_back(e.path().string());
  return out;
}

class CityBuild : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    dir_ = new ScratchDir("kel_city");
    summary_ = new BuildSummary(Build(Small(dir_->path().string())));
  }
  static void TearDownTestSuite() {
    delete summary_;
    delete dir_;
  }
  static ScratchDir* dir_;
  static BuildSummary* summary_;
};
ScratchDir* CityBuild::dir_ = nullptr;
BuildSummary* CityBuild::summary_ = nullptr;

TEST_F(CityBuild, WritesEveryPlannedTileWithItsAtlas) {
  const BuildSummary& s = *summary_;
  ASSERT_FALSE(s.interrupted);
  EXPECT_GT(s.prepare.kept, 100);
  EXPECT_EQ(s.prepare.kept, s.buildingsInput);
  EXPECT_EQ(kel::WString2Utf8String(s.settings.srs), "UTM84-32N");
  ASSERT_GE(s.description.levels, 3);
  std::int64_t tiles = 0;
  for (const LevelCounts& l : s.levels) tiles += l.written + l.null;
  EXPECT_EQ(tiles, s.tilesPlanned);
  // Every building reaches the full-detail level, some in pieces.
  EXPECT_GE(s.levels.back().buildings, s.prepare.kept);

  CityCache cache(dir_->path().string());
  for (int level = 0; level < s.description.levels; ++level) {
    const kel::BBox<2, int> r = cache.tileSet().GetIndexRange(std::uint64_t(level));
    for (int row = r.min.y(); row <= r.max.y(); ++row)
      for (int col = r.min.x(); col <= r.max.x(); ++col) {
        const kel::TileCoords t(level, row, col);
        const std::string file = cache.tileFile(t);
        ASSERT_TRUE(fs::exists(file)) << file;
        if (fs::file_size(file) == 0) continue;  // a null tile
        kel::SFF2BVH tree(kel::Utf8String2WString(file));
        EXPECT_TRUE(tree.valid()) << file;
        const std::string atlas = AtlasFolder(dir_->path().string(), t);
        if (fs::exists(atlas)) {
          EXPECT_TRUE(fs::exists(atlas + "/__atlasImage__0.dds"));
          EXPECT_TRUE(fs::exists(atlas + "/atlasInfo.xml"));
          EXPECT_TRUE(kel::DDSFileUtil::LoadTexture(kel::Utf8String2WString(atlas + "/__atlasImage__0.dds")));
        }
      }
  }
  EXPECT_TRUE(fs::exists(s.heightmap));
  EXPECT_TRUE(Temporaries(dir_->path()).empty());
}

// kel city pick goes through the pick index; the same tile file read into
// SFF2BVH's exact tree must give the same height, apart from rays that
// graze a triangle edge.
TEST_F(CityBuild, PicksAgreeWithTheExactTreeOnTheWrittenTiles) {
  CityCache cache(dir_->path().string());
  const auto& e = cache.description().extent;
  std::mt19937 rng(99);
  std::uniform_real_distribution<double> ux(e.min.x(), e.max.x()), uy(e.min.y(), e.max.y());
  int agree = 0, hits = 0, roofs = 0;
  const int n = 400;
  for (int i = 0; i < n; ++i) {
    const double x = ux(rng), y = uy(rng);
    const PickResult p = cache.pick(x, y);
    kel::SFF2BVH exact(kel::Utf8String2WString(cache.tileFile(p.tile)));
    ASSERT_TRUE(exact.valid());
    const float top = float(e.max.z() + 10);
    const kel::fdo::ray ray = kel::fdo::MakeRay(float(x), float(y), top, 0, 0, -1);
    kel::fdo::hit h{~0u, FLT_MAX};
    exact.getBVH()->intersect(h, ray, *exact.getIntersector());
    const bool exactHit = h.primitive != ~0u;
    hits += p.hit;
    roofs += p.hit && !p.ground;
    if (exactHit == p.hit && (!p.hit || std::fabs((double(top) - h.t) - p.height) < 1e-3)) ++agree;
  }
  EXPECT_GE(agree, n - 2);
  EXPECT_EQ(hits, n);  // terrain everywhere
  EXPECT_GT(roofs, n / 20);
}

TEST_F(CityBuild, PicksInLongitudeAndLatitudeMatchPicksInModelCoordinates) {
  CityCache cache(dir_->path().string());
  const auto utm = kel::SRSCoordSys::Create(cache.settings().srs);
  const auto ll = kel::SRSCoordSys::Create(L"LL84");
  const auto toLl = kel::SRSTransform::Create(utm, ll);
  for (const Vec2d& model : {Vec2d(0.3, 0.7), Vec2d(37.5, -61.25), Vec2d(-80.1, 45.3)}) {
    kel::Vec2d p(model.x() + cache.settings().offset.x(), model.y() + cache.settings().offset.y());
    ASSERT_TRUE(toLl->Transform(p));
    const PickResult a = cache.pick(model.x(), model.y()), b = cache.pick(p.x(), p.y(), L"LL84");
    EXPECT_EQ(a.tile, b.tile);
    EXPECT_NEAR(a.height, b.height, 0.05);
  }
  EXPECT_THROW(cache.pick(0, 0, L"no such system"), std::runtime_error);
  EXPECT_FALSE(cache.pick(NAN, 0).hit);
  EXPECT_FALSE(cache.pick(1e7, 0).hit);
}

TEST_F(CityBuild, ShardsTogetherWriteTheSameBytesAsOneBuild) {
  ScratchDir sharded("kel_city_shards");
  for (int i = 0; i < 3; ++i) {
    BuildOptions o = Small(sharded.path().string());
    o.shardIndex = i;
    o.shardCount = 3;
    o.threads = 1 + i % 2;
    const BuildSummary s = Build(o);
    EXPECT_TRUE(s.heightmap.empty());
    EXPECT_NEAR(double(s.tilesInShard), double(s.tilesPlanned) / 3, 1);
  }
  const auto want = Tree(dir_->path()), got = Tree(sharded.path());
  ASSERT_EQ(got.size(), want.size());
  for (const auto& [name, bytes] : want) {
    const auto it = got.find(name);
    ASSERT_NE(it, got.end()) << name;
    EXPECT_TRUE(it->second == bytes) << name << " differs";
  }
}

TEST(CityResume, SkipsFreshTilesAndRebuildsWhenTheParametersChange) {
  ScratchDir dir("kel_city_resume");
  BuildOptions o = Small(dir.path().string(), 150);
  o.heightmapSize = 0;
  const BuildSummary first = Build(o);
  const auto bytes = Tree(dir.path());
  const BuildSummary again = Build(o);
  std::int64_t fresh = 0, written = 0;
  for (const LevelCounts& l : again.levels) fresh += l.fresh, written += l.written + l.null;
  EXPECT_EQ(written, 0);
  EXPECT_EQ(fresh, first.tilesPlanned);
  EXPECT_EQ(Tree(dir.path()), bytes);

  // A tile that went missing is built again, alone.
  const std::string lost = TilePath(dir.path().string(), L"city", kel::TileCoords(0, 0, 0));
  fs::remove(lost);
  const BuildSummary healed = Build(o);
  EXPECT_EQ(healed.levels[0].written, 1);
  EXPECT_EQ(Tree(dir.path()), bytes);

  // Other parameters make every tile stale.
  o.terrainQuads = 4;
  const BuildSummary changed = Build(o);
  fresh = 0;
  for (const LevelCounts& l : changed.levels) fresh += l.fresh;
  EXPECT_EQ(fresh, 0);
}

TEST(CityInterrupt, LeavesOnlyWholeTilesAndResumesToTheSameBytes) {
  ScratchDir whole("kel_city_whole"), cut("kel_city_cut");
  BuildOptions o = Small(whole.path().string(), 800);
  o.heightmapSize = 0;
  o.threads = 1;
  Build(o);
  o.out = cut.path().string();
  kel::Progress root(L"interrupted build", 0);
  std::atomic<bool> done{false};
  // Interrupt once the first tiles are on disk.
  std::thread stopper([&] {
    while (!done.load()) {
      if (fs::exists(cut.path() / "kel-city.txt") && Tree(cut.path()).size() > 12) {
        root.interrupt();
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  const BuildSummary s = BuildCity(o, root);
  done = true;
  stopper.join();
  ASSERT_TRUE(s.interrupted);
  EXPECT_TRUE(Temporaries(cut.path()).empty());
  for (const auto& [name, bytes] : Tree(cut.path())) {
    if (name.size() < 4 || name.substr(name.size() - 4) != ".sff" || bytes.empty()) continue;
    kel::sff_buff_is source(bytes.data(), bytes.size());
    EXPECT_TRUE(kel::SFF2BVH(source).valid()) << name;
  }
  const BuildSummary resumed = Build(o);
  std::int64_t fresh = 0;
  for (const LevelCounts& l : resumed.levels) fresh += l.fresh;
  EXPECT_GT(fresh, 0);
  EXPECT_EQ(Tree(cut.path()), Tree(whole.path()));
}

// Footprints in longitude/latitude as a GeoJSON file, some of them broken
// the ways imported data is.
void WriteGeoJson(const fs::path& path, const std::vector<SourceBuilding>& good) {
  std::ofstream out(path);
  out.precision(12);
  out << "{\"type\": \"FeatureCollection\", \"features\": [\n";
  auto feature = [&](std::int64_t id, const std::string& props, const std::string& geometry) {
    out << "{\"type\": \"Feature\", \"id\": " << id << ", \"properties\": {" << props << "}, \"geometry\": " << geometry
        << "},\n";
  };
  for (const SourceBuilding& b : good) {
    std::string g = "{\"type\": \"Polygon\", \"coordinates\": [";
    for (std::size_t r = 0; r < b.parts[0].rings.size(); ++r) {
      const Ring& ring = b.parts[0].rings[r];
      g += r ? ", [" : "[";
      for (std::size_t i = 0; i <= ring.size(); ++i) {
        char buf[64];
        std::snprintf(buf, sizeof buf, "%s[%.9f, %.9f]", i ? ", " : "", ring[i % ring.size()].x(),
                      ring[i % ring.size()].y());
        g += buf;
      }
      g += "]";
    }
    g += "]}";
    const std::string props = std::isnan(b.height) ? "\"storeys\": " + std::to_string(b.floors)
                                                   : "\"height\": " + std::to_string(b.height);
    feature(b.id, props, g);
  }
  // Just east of the city: two lobes meeting at a crossing.
  const std::string bowtie =
      "{\"type\": \"Polygon\", \"coordinates\": [[[9.1845, 48.78], [9.1848, 48.7802], [9.1848, 48.78], "
      "[9.1845, 48.7802], [9.1845, 48.78]]]}";
  feature(900001, "\"height\": 10", bowtie);
  feature(900002, "\"height\": 10", "null");
  feature(900003, "\"height\": 10", "{\"type\": \"Point\", \"coordinates\": [9.18, 48.78]}");
  feature(900004, "\"name\": \"no height\"",
          "{\"type\": \"Polygon\", \"coordinates\": [[[9.181, 48.781], [9.1812, 48.781], [9.1812, 48.7812], "
          "[9.181, 48.781]]]}");
  feature(900005, "\"height\": -4",
          "{\"type\": \"Polygon\", \"coordinates\": [[[9.182, 48.782], [9.1822, 48.782], [9.1822, 48.7822], "
          "[9.182, 48.782]]]}");
  feature(900006, "\"height\": 10",
          "{\"type\": \"Polygon\", \"coordinates\": [[[9.183, 48.783], [9.183, 48.783], [9.183, 48.783], [9.183, 48.783]]]}");
  out << "{\"type\": \"Feature\", \"id\": 900007, \"properties\": {\"height\": 5}, \"geometry\": " << bowtie << "}\n]}\n";
}

bool Shell(const std::string& command) { return std::system(command.c_str()) == 0; }

TEST(CityInput, BuildsFromAGeoPackageMadeByOgr2OgrAndCountsWhatItSkips) {
  ScratchDir dir("kel_city_gpkg");
  ProceduralOptions p;
  p.buildings = 300;
  const std::vector<SourceBuilding> good = GenerateCity(p);
  WriteGeoJson(dir.path() / "footprints.geojson", good);
  const std::string gpkg = (dir.path() / "footprints.gpkg").string();
  ASSERT_TRUE(Shell("ogr2ogr -f GPKG -preserve_fid -nln footprints '" + gpkg + "' '" + (dir.path() / "footprints.geojson").string() +
                  "' 2>/dev/null"));
  BuildOptions o = Small((dir.path() / "cache").string());
  o.input.source = gpkg;
  o.heightmapSize = 0;
  const BuildSummary s = Build(o);
  EXPECT_EQ(kel::WString2Utf8String(s.input.className), "footprints");
  EXPECT_EQ(kel::WString2Utf8String(s.input.heightAttribute), "height");
  EXPECT_EQ(kel::WString2Utf8String(s.input.floorsAttribute), "storeys");
  EXPECT_EQ(s.input.features, std::int64_t(good.size()) + 7);
  EXPECT_EQ(s.input.noGeometry, 1);
  EXPECT_EQ(s.input.notPolygon, 1);
  EXPECT_EQ(s.prepare.repaired, 2);  // both bow ties, split at their crossing
  EXPECT_EQ(s.prepare.noHeight, 1);
  EXPECT_EQ(s.prepare.badHeight, 1);
  EXPECT_EQ(s.prepare.degenerate, 1);
  EXPECT_EQ(s.prepare.floorsOnly, std::int64_t(good.size() / 7));
  EXPECT_EQ(s.prepare.kept, std::int64_t(good.size()) + 2);

  // The repaired bow ties stand where they were drawn; the taller one shows.
  CityCache cache(o.out);
  EXPECT_EQ(kel::WString2Utf8String(cache.settings().srs), "UTM84-32N");
  const PickResult lobe = cache.pick(9.18456, 48.7801, L"LL84");
  EXPECT_TRUE(lobe.hit && !lobe.ground);
  EXPECT_EQ(lobe.building, 900001);
  const PickResult gap = cache.pick(9.18465, 48.78003, L"LL84");  // below the crossing, between the lobes
  EXPECT_TRUE(gap.hit && gap.ground);
}

TEST(CityInput, StopsWithAClearErrorOnInputItCannotUse) {
  ScratchDir dir("kel_city_bad");
  BuildOptions o = Small((dir.path() / "cache").string(), 100);
  o.dem = (dir.path() / "missing.tif").string();
  EXPECT_THROW(Build(o), DemError);
  o.dem.clear();
  o.input.source = (dir.path() / "missing.gpkg").string();
  EXPECT_THROW(Build(o), InputError);
  ProceduralOptions p;
  p.buildings = 50;
  WriteGeoJson(dir.path() / "f.geojson", GenerateCity(p));
  o.input.source = (dir.path() / "f.geojson").string();
  o.input.srs = "no such system";
  EXPECT_THROW(Build(o), InputError);
  o.input.srs.clear();
  o.input.filter = "height >";
  EXPECT_THROW(Build(o), InputError);
  o.input.filter.clear();
  o.input.heightAttribute = "nope";
  EXPECT_THROW(Build(o), InputError);
  EXPECT_FALSE(fs::exists(dir.path() / "cache" / "0"));
}

// A plane z = 300 + 0.01 x (metres east of the DEM's corner) in UTM with a
// hole of no-data, made by GDAL's GeoTIFF driver.
std::string WriteDem(const fs::path& path, double east, double north, int size, double pixel) {
  GDALAllRegister();
  GDALDatasetH ds = GDALCreate(GDALGetDriverByName("GTiff"), path.c_str(), size, size, 1, GDT_Float32, nullptr);
  const double gt[6] = {east, pixel, 0, north + size * pixel, 0, -pixel};
  GDALSetGeoTransform(ds, const_cast<double*>(gt));
  OGRSpatialReferenceH srs = OSRNewSpatialReference(nullptr);
  OSRImportFromEPSG(srs, 32632);
  char* wkt = nullptr;
  OSRExportToWkt(srs, &wkt);
  GDALSetProjection(ds, wkt);
  CPLFree(wkt);
  OSRDestroySpatialReference(srs);
  std::vector<float> z(std::size_t(size) * size);
  for (int r = 0; r < size; ++r)
    for (int c = 0; c < size; ++c) z[std::size_t(r) * size + c] = float(300 + 0.01 * (c + 0.5) * pixel);
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c) z[std::size_t(r) * size + c] = -9999;  // the north-west corner
  GDALRasterBandH band = GDALGetRasterBand(ds, 1);
  GDALSetRasterNoDataValue(band, -9999);
  EXPECT_EQ(GDALRasterIO(band, GF_Write, 0, 0, size, size, z.data(), size, size, GDT_Float32, 0, 0), CE_None);
  GDALClose(ds);
  return path.string();
}

TEST(CityTerrain, StandsBuildingsOnADemAndCountsThoseBeyondIt) {
  ScratchDir dir("kel_city_dem");
  // 1.2 km of UTM 32N around the built-in city's usual place.
  const std::string dem = WriteDem(dir.path() / "dem.tif", 512400, 5402400, 120, 10);
  BuildOptions o = Small((dir.path() / "cache").string(), 2000);
  o.dem = dem;
  o.heightmapSize = 0;
  o.terrainQuads = 0;  // the DEM's own spacing: 10 m, so 13 cells per 128 m tile edge
  const BuildSummary s = Build(o);
  EXPECT_GT(s.prepare.kept, 100);
  EXPECT_GT(s.prepare.outsideTerrain, 0);  // the city is wider than the DEM
  CityCache cache(o.out);
  int ground = 0;
  for (double x = -400; x <= 400; x += 37) {
    const PickResult p = cache.pick(x, 13.0);
    if (!p.hit || !p.ground) continue;
    ++ground;
    const double east = x + cache.settings().offset.x();
    EXPECT_NEAR(p.height, 300 + 0.01 * (east - 512400), 0.05) << x;
  }
  EXPECT_GT(ground, 5);

  // The terrain patch of a tile in the middle of the city.
  struct TerrainTriangles final : kel::sff_read_callback {
    std::uint64_t group = 0;
    std::size_t triangles = 0;
    void beginB(std::uint64_t id) override { group = id; }
    void integers(const std::uint64_t*, std::size_t n) override {
      if (group == 1) triangles += n / 3;
    }
  } terrain;
  const kel::TileCoords middle = cache.leafTileAt(0, 13);
  kel::sff_file_is file(cache.tileFile(middle).c_str());
  kel::sff_reader().read(file, terrain);
  EXPECT_EQ(terrain.triangles, 2u * 13 * 13);
}

TEST(CityPrepare, CountsEveryBadFootprintByItsReason) {
  auto building = [](std::int64_t id, Ring ring, double height, int floors = 0) {
    SourceBuilding b;
    b.id = id;
    b.parts.push_back(Polygon{{std::move(ring)}});
    b.height = height;
    b.floors = floors;
    return b;
  };
  const Ring square{{0, 0}, {20, 0}, {20, 20}, {0, 20}};
  std::vector<SourceBuilding> in;
  in.push_back(building(1, square, 10));
  in.push_back(building(2, {{30, 0}, {50, 20}, {50, 0}, {30, 20}}, 10));  // bow tie: repaired
  in.push_back(building(3, {{60, 0}, {NAN, 0}, {80, 20}}, 10));         // NaN: skipped
  in.push_back(building(4, {{90, 0}, {INFINITY, 0}, {99, 9}}, 10));     // infinite: skipped
  in.push_back(building(5, {{100, 0}, {100, 0}, {100.5, 0}}, 10));       // no area: skipped
  in.push_back(building(6, {{120, 0}, {140, 0}, {140, 20}}, NAN));       // no height
  in.push_back(building(7, {{150, 0}, {170, 0}, {170, 20}}, NAN, 4));    // floors only
  in.push_back(building(8, {{180, 0}, {200, 0}, {200, 20}}, -3));        // bad height
  in.push_back(building(9, {{210, 0}, {230, 0}, {230, 20}, {230, 20}, {210, 0}}, 7));  // repeats dropped
  SourceBuilding courtyard = building(10, {{0, 40}, {40, 40}, {40, 80}, {0, 80}}, 12);
  courtyard.parts[0].rings.push_back({{50, 50}, {60, 50}, {60, 60}});  // a "hole" outside: repaired
  in.push_back(courtyard);
  // Long rings take GEOS's validity test rather than the quadratic one.
  Ring circle, eight;
  for (int i = 0; i < 600; ++i) {
    const double a = 2 * M_PI * i / 600;
    circle.push_back(Vec2d(300 + 20 * std::cos(a), 20 * std::sin(a)));
    eight.push_back(Vec2d(400 + 20 * std::sin(a), 20 * std::sin(a) * std::cos(a)));  // crosses itself once
  }
  in.push_back(building(11, circle, 10));
  in.push_back(building(12, eight, 10));
  const auto srs = kel::SRSCoordSys::Create(L"UTM84-32N");
  PrepareOptions po;
  po.terrain = PrepareOptions::Terrain::None;
  kel::Progress progress(L"prepare", 0);
  // The coordinates are near the zone's false easting, far from any city.
  for (SourceBuilding& b : in)
    for (Polygon& p : b.parts)
      for (Ring& r : p.rings)
        for (Vec2d& q : r) q = q + Vec2d(500000, 5400000);
  const PreparedCity city = Prepare(in, srs, po, progress);
  const PrepareReport& r = city.report;
  EXPECT_EQ(r.nonFinite, 2);
  EXPECT_EQ(r.degenerate, 1);
  EXPECT_EQ(r.noHeight, 1);
  EXPECT_EQ(r.badHeight, 1);
  EXPECT_EQ(r.floorsOnly, 1);
  EXPECT_EQ(r.repaired, 3);
  EXPECT_EQ(r.kept, 7);
  std::map<std::int64_t, const Building*> byId;
  for (const Building& b : city.buildings) byId[b.id] = &b;
  for (std::int64_t id : {1, 2, 7, 9, 10, 11, 12}) EXPECT_TRUE(byId.count(id)) << id;
  ASSERT_TRUE(byId.count(2));
  EXPECT_EQ(byId[2]->parts.size(), 2u);  // the bow tie's two triangles
  EXPECT_NEAR(byId[2]->area, 200, 1e-6);
  EXPECT_DOUBLE_EQ(byId[7]->height, 12);
  EXPECT_NEAR(byId[10]->area, 1600 + 50, 1e-6);  // the stray ring became a part of its own
  EXPECT_EQ(byId[11]->parts.size(), 1u);
  EXPECT_EQ(byId[12]->parts.size(), 2u);  // the figure eight's two loops
  EXPECT_EQ(kel::WString2Utf8String(city.settings.srs), "UTM84-32N");
}

}  // namespace
}  // namespace city
