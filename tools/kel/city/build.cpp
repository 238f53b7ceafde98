#include "city/build.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <mutex>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

#include "city/pick.h"
#include "city/terrain.h"
#include "city/tiles.h"

namespace city {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
double Since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

std::wstring Wide(const std::string& s) { return kel::Utf8String2WString(s); }

std::string Fixed(double v, int digits) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.*f", digits, v);
  return buf;
}

std::string Bytes(std::int64_t n) {
  if (n >= (1 << 20)) return Fixed(double(n) / (1 << 20), 1) + " MiB";
  if (n >= (1 << 10)) return Fixed(double(n) / (1 << 10), 1) + " KiB";
  return std::to_string(n) + " B";
}

// Tiles are committed without a flush each; one syncfs makes them all
// durable (about 10 ms against 10 ms per file).
void SyncFileSystem(const std::string& root) {
  const int fd = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::syncfs(fd);
  ::close(fd);
}

void Check(kel::Progress& p) {
  if (p.isInterrupted()) throw Interrupted();
}

// The procedural city with its terrain, placed at the DEM's centre when a
// DEM is given.
LoadedInput ProceduralInput(const BuildOptions& o, ProceduralOptions& placed) {
  placed = o.procedural;
  if (!o.dem.empty()) {
    const DemProbe probe = ProbeDem(o.dem);
    placed.longitude = probe.centreLonLat.x();
    placed.latitude = probe.centreLonLat.y();
  }
  LoadedInput in;
  in.buildings = GenerateCity(placed);
  in.srs = kel::SRSCoordSys::Create(L"LL84");
  in.report.features = std::int64_t(in.buildings.size());
  in.report.className = L"procedural";
  in.report.heightAttribute = L"height";
  in.report.floorsAttribute = L"floors";
  return in;
}

struct TileRun {
  std::vector<kel::TileCoords> mine;  // this shard's tiles, largest first
  std::vector<TileStats> stats;       // per tile of `mine`
};

}  // namespace

std::wstring ParameterLine(const BuildOptions& o) {
  std::string line = "input=" + (o.input.source.empty() ? std::string("procedural") : o.input.source);
  if (o.input.source.empty())
    line += " buildings=" + std::to_string(o.procedural.buildings) + " seed=" + std::to_string(o.procedural.seed) +
            " at=" + Fixed(o.procedural.longitude, 6) + "," + Fixed(o.procedural.latitude, 6);
  if (!o.input.className.empty()) line += " class=" + o.input.className;
  if (!o.input.filter.empty()) line += " filter=" + o.input.filter;
  if (!o.input.srs.empty()) line += " srs=" + o.input.srs;
  if (!o.input.heightAttribute.empty()) line += " height=" + o.input.heightAttribute;
  if (!o.input.floorsAttribute.empty()) line += " floors=" + o.input.floorsAttribute;
  line += " terrain=" + std::string(!o.dem.empty() ? "dem:" + o.dem
                                    : o.terrain == PrepareOptions::Terrain::None ? "none" : "procedural");
  if (std::isfinite(o.defaultHeight)) line += " default-height=" + Fixed(o.defaultHeight, 3);
  line += " leaf=" + Fixed(o.leafSize, 3) + " quads=" + std::to_string(o.terrainQuads) +
          " zlib=" + std::to_string(o.zlibLevel) + " format=1";
  return Wide(line);
}

BuildSummary BuildCity(const BuildOptions& o, kel::Progress& root) {
  const auto start = Clock::now();
  BuildSummary s;
  s.threads = o.threads > 0 ? o.threads : std::max(1, int(std::thread::hardware_concurrency()));
  fs::create_directories(o.out);

  // 1. Footprints.
  auto t0 = Clock::now();
  ProceduralOptions placed = o.procedural;
  LoadedInput input;
  {
    kel::Progress stage(L"read footprints", 0);
    if (o.input.source.empty()) {
      input = ProceduralInput(o, placed);
      s.source = "procedural city of " + std::to_string(input.buildings.size()) + " buildings at " +
                 Fixed(placed.longitude, 4) + ", " + Fixed(placed.latitude, 4);
    } else {
      input = ReadFootprints(o.input, stage);
      s.source = o.input.source;
    }
    stage.finish();
  }
  s.input = input.report;
  s.buildingsInput = std::int64_t(input.buildings.size());
  s.seconds.read = Since(t0);
  Check(root);

  // 2. Reprojection, cleaning, terrain.
  t0 = Clock::now();
  PrepareOptions po;
  po.terrain = !o.dem.empty() ? PrepareOptions::Terrain::Dem : o.terrain;
  po.dem = o.dem;
  po.procedural = placed;
  po.defaultHeight = o.defaultHeight;
  PreparedCity city;
  {
    kel::Progress stage(L"reproject and clean", std::int64_t(input.buildings.size()));
    city = Prepare(std::move(input.buildings), input.srs, po, stage);
  }
  s.prepare = city.report;
  s.settings = city.settings;
  s.seconds.prepare = Since(t0);
  Check(root);
  if (city.buildings.empty())
    throw std::runtime_error("nothing to build: no footprint survived reading and cleaning\n" + FormatSummary(s));

  // 3. The tile pyramid.
  t0 = Clock::now();
  TilePlan plan = PlanTiles(city, o.leafSize);
  plan.description.parameters = ParameterLine(o);
  const TileIndex index(plan, city.buildings);
  s.description = plan.description;
  s.levels.assign(std::size_t(plan.leafLevel + 1), LevelCounts{});
  s.tilesPlanned = std::int64_t(plan.tiles.size());
  // The settings and the description first: a rewritten description is
  // newer than every tile, which makes them all stale.
  WriteModelSettings(o.out, city.settings);
  // Whoever changes the description rebuilds its tiles outright: a tile
  // written within the file system's time-stamp tick before would otherwise
  // look as new as the description. Other shards see the change by time.
  const bool changed = WriteDescriptionIfChanged(o.out, plan.description);
  TileRun run;
  for (std::size_t i = 0; i < plan.tiles.size(); ++i)
    if (int(i % std::size_t(o.shardCount)) == o.shardIndex) run.mine.push_back(plan.tiles[i]);
  // Biggest first, so no thread is left with one huge tile at the end.
  std::stable_sort(run.mine.begin(), run.mine.end(), [&](const kel::TileCoords& a, const kel::TileCoords& b) {
    return index.candidates(a).size() > index.candidates(b).size();
  });
  s.tilesInShard = std::int64_t(run.mine.size());
  s.seconds.plan = Since(t0);

  // 4. Tiles, in parallel.
  t0 = Clock::now();
  const TextureLibrary textures(32, 128);
  // Full-detail terrain at the DEM's own spacing (coarser levels halve it),
  // within reason: 4 to 128 cells per tile edge.
  const double leafEdge = plan.description.tileSize / double(1 << plan.leafLevel);
  const int quads = o.terrainQuads > 0         ? o.terrainQuads
                    : city.terrainSpacing > 0 ? std::clamp(int(std::lround(leafEdge / city.terrainSpacing)), 4, 128)
                                              : 32;
  TileContext ctx{city, plan, index, textures, o.out, {}, quads, o.zlibLevel, o.force || changed, &root};
  ctx.inputs.push_back(Wide(o.out + "/" + kDescriptionFile));
  if (!o.input.source.empty() && fs::is_regular_file(o.input.source)) ctx.inputs.push_back(Wide(o.input.source));
  if (!o.dem.empty()) ctx.inputs.push_back(Wide(o.dem));
  run.stats.resize(run.mine.size());
  {
    kel::Progress stage(L"tiles", std::int64_t(run.mine.size()));
    std::atomic<std::size_t> next{0}, done{0};
    std::atomic<bool> stop{false};
    std::exception_ptr failure;
    std::mutex failureMutex;
    auto worker = [&] {
      kel::Progress::ThreadContext context(stage);
      auto scratch = MakeTileScratch();
      while (!stop.load()) {
        const std::size_t k = next++;
        if (k >= run.mine.size()) return;
        try {
          run.stats[k] = BuildTile(ctx, run.mine[k], *scratch);
          ++done;
        } catch (const Interrupted&) {
          stop = true;
        } catch (...) {
          std::lock_guard<std::mutex> lock(failureMutex);
          if (!failure) failure = std::current_exception();
          stop = true;
        }
      }
    };
    std::vector<std::thread> pool;
    for (int t = 0; t < s.threads; ++t) pool.emplace_back(worker);
    while (done.load() < run.mine.size() && !stop.load()) {
      if (!stage.updateValue(std::int64_t(done.load())) || root.isInterrupted()) stop = true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    for (auto& t : pool) t.join();
    const auto sync = Clock::now();
    if (o.sync) SyncFileSystem(o.out);
    s.seconds.write += Since(sync);
    if (failure) std::rethrow_exception(failure);
    s.interrupted = stop.load() && done.load() < run.mine.size();
    stage.updateValue(std::int64_t(done.load()));
  }
  s.seconds.tiles = Since(t0);
  for (std::size_t k = 0; k < run.mine.size(); ++k) {
    const TileStats& t = run.stats[k];
    LevelCounts& lv = s.levels[std::size_t(run.mine[k].level)];
    switch (t.outcome) {
      case TileStats::Outcome::Written: ++lv.written; break;
      case TileStats::Outcome::Null: ++lv.null; break;
      case TileStats::Outcome::Fresh: ++lv.fresh; break;
    }
    lv.buildings += t.buildings;
    lv.triangles += t.triangles;
    s.triangles += t.triangles;
    s.sffBytes += t.sffBytes;
    s.ddsBytes += t.ddsBytes;
    s.atlases += t.ddsBytes > 0;
    s.seconds.geometry += t.geometrySeconds;
    s.seconds.textures += t.textureSeconds;
    s.seconds.dxt += t.dxtSeconds;
    s.seconds.deflate += t.deflateSeconds;
    s.seconds.write += t.writeSeconds;
  }
  if (s.interrupted) {
    s.totalSeconds = Since(start);
    return s;
  }

  // 5. The picture, from the finished tiles (only when this run saw them all).
  if (o.heightmapSize > 0 && o.shardCount == 1) {
    t0 = Clock::now();
    kel::Progress stage(L"heightmap", 1000);
    CityCache cache(o.out);
    // The coarsest level whose thinning, outlines and terrain cells stay
    // below a pixel or so: the same picture from a fraction of the triangles.
    const double pixel = std::max(plan.description.extent.max.x() - plan.description.extent.min.x(),
                                  plan.description.extent.max.y() - plan.description.extent.min.y()) /
                         o.heightmapSize;
    int level = plan.leafLevel;
    while (level > 0) {
      const int up = level - 1;
      const double edge = plan.description.tileSize / double(1 << up);
      if (std::sqrt(MinimumArea(plan, up)) > pixel || GeneralizeTolerance(plan, up) > pixel / 4 ||
          edge / quads > 4 * pixel)
        break;
      level = up;
    }
    const Heightmap map = PickHeightmap(cache, o.heightmapSize, s.threads, stage, level);
    s.heightmap = o.out + "/heightmap.png";
    WriteHeightmapPng(map, s.heightmap);
    s.seconds.heightmap = Since(t0);
  }
  s.totalSeconds = Since(start);
  return s;
}

std::string FormatSummary(const BuildSummary& s) {
  std::string out;
  auto line = [&](const std::string& l) { out += l + "\n"; };
  auto count = [](std::int64_t n) { return std::to_string(n); };
  line("input        " + s.source);
  const PrepareReport& p = s.prepare;
  line("buildings    " + count(p.kept) + " of " + count(s.buildingsInput) + " footprints" +
       (s.input.features > s.buildingsInput ? " (" + count(s.input.features) + " features read)" : ""));
  struct Problem {
    std::int64_t n;
    const char* what;
  };
  const Problem problems[] = {
      {s.input.noGeometry, "without geometry, skipped"},
      {s.input.notPolygon, "not polygons, skipped"},
      {p.nonFinite, "with NaN or infinite coordinates, skipped"},
      {p.notTransformed, "that could not be reprojected, skipped"},
      {p.repaired, "invalid (self-intersecting, overlapping rings), repaired"},
      {p.droppedRings, "rings with fewer than 3 points or no area, dropped"},
      {p.degenerate, "empty or degenerate, skipped"},
      {p.noHeight, "without height or floors, skipped"},
      {p.badHeight, "with an implausible height, skipped"},
      {p.floorsOnly, "heights from the floor count"},
      {p.defaultHeight, "given the default height"},
      {p.outsideTerrain, "outside the terrain, skipped"},
  };
  for (const Problem& q : problems)
    if (q.n) line("  " + count(q.n) + " " + q.what);
  line("model        " + kel::WString2Utf8String(s.settings.srs) + ", offset " + Fixed(s.settings.offset.x(), 0) + " " +
       Fixed(s.settings.offset.y(), 0) + " " + Fixed(s.settings.offset.z(), 0));
  const auto& d = s.description;
  line("tiles        " + count(s.tilesInShard) + (s.tilesInShard != s.tilesPlanned ? " of " + count(s.tilesPlanned) : "") +
       " in " + std::to_string(d.levels) + " levels, level 0 edge " + Fixed(d.tileSize, 0) + " m");
  line("  level   edge m   written   null   fresh   buildings   triangles");
  for (std::size_t l = 0; l < s.levels.size(); ++l) {
    const LevelCounts& c = s.levels[l];
    char buf[160];
    std::snprintf(buf, sizeof buf, "  %5zu %8.0f %9lld %6lld %7lld %11lld %11lld", l, d.tileSize / double(1 << l),
                  (long long)c.written, (long long)c.null, (long long)c.fresh, (long long)c.buildings,
                  (long long)c.triangles);
    line(buf);
  }
  line("triangles    " + count(s.triangles));
  line("bytes        " + Bytes(s.sffBytes) + " of tiles, " + Bytes(s.ddsBytes) + " of " + count(s.atlases) + " atlases");
  const StageSeconds& t = s.seconds;
  line("seconds      " + Fixed(s.totalSeconds, 2) + " on " + std::to_string(s.threads) + (s.threads == 1 ? " thread" : " threads") + ": read " +
       Fixed(t.read, 2) + ", prepare " + Fixed(t.prepare, 2) + ", plan " + Fixed(t.plan, 2) + ", tiles " +
       Fixed(t.tiles, 2) + ", heightmap " + Fixed(t.heightmap, 2));
  const double work = t.geometry + t.textures + t.dxt + t.deflate + t.write;
  if (work > 0.01) {
    auto share = [&](double v) { return Fixed(100 * v / work, 0) + "%"; };
    line("  in tiles   geometry " + share(t.geometry) + ", textures " + share(t.textures) + ", DXT " + share(t.dxt) +
         ", deflate " + share(t.deflate) + ", writing " + share(t.write) + " of " + Fixed(work, 2) + " CPU seconds");
  }
  if (!s.heightmap.empty()) line("heightmap    " + s.heightmap);
  if (s.interrupted) line("interrupted: every tile on disk is complete; run again to resume");
  return out;
}

}  // namespace city
