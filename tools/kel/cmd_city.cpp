// kel city: a whole city into a renderer's tile cache, and answers from it.
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <kel/kel.h>

#include "city/build.h"
#include "city/pick.h"
#include "city/terrain.h"
#include "commands.h"
#include "options.h"
#include "progress_view.h"

namespace {

struct BuildArgs {
  city::BuildOptions options;
  std::vector<double> at;
  std::string shard;
  bool noTerrain = false;
  std::int64_t buildings = 50000, seed = 1, quads = 0, zlib = 1, threads = 0, heightmapSize = 1024;
  double defaultHeight = NAN;
};

int RunBuild(BuildArgs& a) {
  city::BuildOptions& o = a.options;
  if (!a.at.empty()) {
    if (!(std::fabs(a.at[0]) <= 180 && std::fabs(a.at[1]) <= 84))
      throw tool::UsageError("--at must be a longitude and latitude within UTM's reach");
    o.procedural.longitude = a.at[0];
    o.procedural.latitude = a.at[1];
  }
  if (!a.shard.empty()) {
    const auto slash = a.shard.find('/');
    if (slash == std::string::npos) throw tool::UsageError("--shard must be I/N, e.g. 0/4");
    o.shardIndex = int(tool::ParseInt(a.shard.substr(0, slash), "--shard"));
    o.shardCount = int(tool::ParseInt(a.shard.substr(slash + 1), "--shard"));
    if (o.shardCount < 1 || o.shardIndex < 0 || o.shardIndex >= o.shardCount)
      throw tool::UsageError("--shard I/N needs 0 <= I < N");
  }
  if (a.noTerrain && !o.dem.empty()) throw tool::UsageError("--no-terrain and --dem exclude each other");
  if (!o.input.source.empty() && (a.buildings != 50000 || a.seed != 1 || !a.at.empty()))
    throw tool::UsageError("--buildings, --seed and --at shape the built-in city; they go without --input");
  if (o.input.source.empty() && (!o.input.className.empty() || !o.input.filter.empty() || !o.input.srs.empty()))
    throw tool::UsageError("--class, --filter and --srs go with --input");
  if (!std::isnan(a.defaultHeight) && !(a.defaultHeight > 0 && a.defaultHeight < 1000))
    throw tool::UsageError("--default-height must be between 0 and 1000 metres");
  if (!(o.leafSize >= 16 && o.leafSize <= 100000)) throw tool::UsageError("--leaf-size must be 16 .. 100000 metres");
  o.procedural.buildings = int(a.buildings);
  o.procedural.seed = std::uint64_t(a.seed);
  o.terrain = a.noTerrain ? city::PrepareOptions::Terrain::None : city::PrepareOptions::Terrain::Procedural;
  o.terrainQuads = int(a.quads);
  o.zlibLevel = int(a.zlib);
  o.threads = int(a.threads);
  o.heightmapSize = int(a.heightmapSize);
  o.defaultHeight = a.defaultHeight;

  city::BuildSummary summary;
  try {
    tool::Task task(L"city build " + kel::Utf8String2WString(o.out), 0);
    summary = city::BuildCity(o, task.progress());
  } catch (const city::Interrupted&) {
    throw tool::Interrupted();
  } catch (const city::InputError& e) {
    throw kel::wexception(kel::Utf8String2WString(e.what()));
  } catch (const city::DemError& e) {
    throw kel::wexception(kel::Utf8String2WString(e.what()));
  }
  std::fputs(city::FormatSummary(summary).c_str(), stdout);
  std::fflush(stdout);
  if (summary.interrupted) throw tool::Interrupted();
  return 0;
}

struct PickArgs {
  std::string out, srs;
  double x = 0, y = 0;
};

int RunPick(const PickArgs& a) {
  city::CityCache cache(a.out);
  const city::PickResult r = a.srs.empty() ? cache.pick(a.x, a.y) : cache.pick(a.x, a.y, kel::Utf8String2WString(a.srs));
  std::printf("tile      %d/%d/%d\n", r.tile.level, r.tile.row, r.tile.column);
  if (!r.hit) {
    std::puts("no hit    nothing under the point");
    return 0;
  }
  std::printf("height    %.3f\n", r.height);
  if (r.ground) std::puts("surface   ground");
  else std::printf("surface   building %lld\n", static_cast<long long>(r.building));
  return 0;
}

int RunInfo(const std::string& out) {
  city::CityCache cache(out);
  const auto& d = cache.description();
  const auto& m = cache.settings();
  std::printf("name        %s\n", kel::WString2Utf8String(d.name).c_str());
  std::printf("srs         %s\n", kel::WString2Utf8String(m.srs).c_str());
  std::printf("offset      %.3f %.3f %.3f\n", m.offset.x(), m.offset.y(), m.offset.z());
  std::printf("levels      %d, level 0 edge %.0f m, full detail at level %d (%.0f m)\n", d.levels, d.tileSize,
              d.levels - 1, d.tileSize / double(1 << (d.levels - 1)));
  std::printf("extent      %.3f %.3f %.3f : %.3f %.3f %.3f\n", d.extent.min.x(), d.extent.min.y(), d.extent.min.z(),
              d.extent.max.x(), d.extent.max.y(), d.extent.max.z());
  std::printf("buildings   %lld\n", static_cast<long long>(d.buildings));
  std::puts("tiles       level  planned  present  null  missing");
  for (int level = 0; level < d.levels; ++level) {
    const kel::BBox<2, int> r = cache.tileSet().GetIndexRange(std::uint64_t(level));
    long long planned = 0, present = 0, null = 0;
    for (int row = r.min.y(); row <= r.max.y(); ++row)
      for (int column = r.min.x(); column <= r.max.x(); ++column) {
        ++planned;
        const std::wstring file = kel::Utf8String2WString(cache.tileFile(kel::TileCoords(level, row, column)));
        switch (kel::TileCacheFileUtil::GetSffFileState(file.c_str())) {
          case kel::TileCacheFileUtil::SffPresent: ++present; break;
          case kel::TileCacheFileUtil::SffNull: ++null; break;
          default: break;
        }
      }
    std::printf("            %5d %8lld %8lld %5lld %8lld\n", level, planned, present, null, planned - present - null);
  }
  std::printf("parameters  %s\n", kel::WString2Utf8String(d.parameters).c_str());
  std::printf("centre %.3f %.3f\n", (d.extent.min.x() + d.extent.max.x()) / 2, (d.extent.min.y() + d.extent.max.y()) / 2);
  return 0;
}

}  // namespace

void AddCityCommands(CLI::App& app) {
  CLI::App* group = tool::AddGroup(app, "city", "a whole city into a tile cache, and answers from it");

  auto b = std::make_shared<BuildArgs>();
  CLI::App* cmd = tool::AddCommand(
      *group, "build", "build a city's tile cache under OUT",
      "Footprints with heights (from --input, or a built-in procedural city of about\n"
      "--buildings N at --at LON,LAT) are reprojected to their best UTM zone, cleaned,\n"
      "extruded onto the terrain (--dem FILE, the procedural hills, or --no-terrain)\n"
      "and cut into a quadtree of compressed SFF tiles with DXT texture atlases. OUT\n"
      "gets model.pos (offset and coordinate system), kel-city.txt (the tile set),\n"
      "the tiles, SharedResources/ and heightmap.png. Tiles already present and newer\n"
      "than the input are kept, so an interrupted build resumes; --shard I/N builds\n"
      "every N-th tile only, for job runners:\n"
      "  parallel kel city build OUT --shard {}/4 ::: 0 1 2 3\n"
      "Prints a summary: what was skipped or repaired and why, tiles per level,\n"
      "triangles, bytes and seconds per stage.",
      [b] { return RunBuild(*b); });
  cmd->add_option("OUT", b->options.out, "cache folder (created when missing)")->required();
  cmd->add_option("--input", b->options.input.source, "feature store with the footprints: a GeoPackage, Shapefile, "
                                                      "GeoJSON, PG:..., ODBC:...")
      ->type_name("SOURCE");
  cmd->add_option("--class", b->options.input.className, "feature class (default: the first with polygons)")
      ->type_name("NAME");
  cmd->add_option("--filter", b->options.input.filter, "filter text, e.g. \"height > 5\"")->type_name("TEXT");
  cmd->add_option("--srs", b->options.input.srs, "coordinate system of the input, when it names none")
      ->type_name("CODE");
  cmd->add_option("--height-attribute", b->options.input.heightAttribute, "height in metres (default: height, ...)")
      ->type_name("NAME");
  cmd->add_option("--floors-attribute", b->options.input.floorsAttribute, "floor count (default: floors, ...)")
      ->type_name("NAME");
  tool::AddNumber(*cmd, "--default-height", b->defaultHeight,
                  "metres for footprints without height or floors (default: skip them)");
  cmd->add_option("--dem", b->options.dem, "terrain from a DEM raster GDAL reads (GeoTIFF, ...)")->type_name("FILE");
  cmd->add_flag("--no-terrain", b->noTerrain, "no terrain: buildings stand at height 0");
  tool::AddInt(*cmd, "--buildings", b->buildings, 1, 2000000, "size of the built-in city (default 50000)");
  tool::AddInt(*cmd, "--seed", b->seed, 0, INT64_MAX, "variant of the built-in city (default 1)");
  tool::AddNumbers(*cmd, "--at", b->at, 2, "the built-in city's centre (default 9.18,48.78)")->type_name("LON,LAT");
  tool::AddNumber(*cmd, "--leaf-size", b->options.leafSize, "edge of a full-detail tile, metres (default 256)");
  tool::AddInt(*cmd, "--quads", b->quads, 1, 1024,
               "terrain cells per tile edge (default: 32, with --dem the DEM's spacing at full detail)");
  tool::AddInt(*cmd, "--zlib-level", b->zlib, 0, 9, "deflate level of the tiles (default 1)");
  tool::AddInt(*cmd, "--threads", b->threads, 0, 1024, "worker threads (default: every core)");
  cmd->add_option("--shard", b->shard, "build only tiles whose number modulo N is I")->type_name("I/N");
  cmd->add_flag("--force", b->options.force, "rebuild tiles that are up to date");
  tool::AddInt(*cmd, "--heightmap-size", b->heightmapSize, 0, 16384,
               "heightmap.png's longer side in pixels, 0 for none (default 1024)");

  auto p = std::make_shared<PickArgs>();
  cmd = tool::AddCommand(*group, "pick", "ground or roof height under a point (kel city pick OUT X Y)",
                         "Finds the full-detail tile under the point and shoots a ray straight down at\n"
                         "it. X Y are model coordinates ('kel city info' prints the centre) unless\n"
                         "--srs names their coordinate system (LL84, EPSG:25832, ...). Prints the\n"
                         "tile, the height and whether it is ground or which building.",
                         [p] { return RunPick(*p); });
  cmd->add_option("OUT", p->out, "city cache folder")->required();
  tool::AddNumber(*cmd, "X", p->x, "x (easting, longitude)")->required();
  tool::AddNumber(*cmd, "Y", p->y, "y (northing, latitude)")->required();
  cmd->add_option("--srs", p->srs, "coordinate system of X Y")->type_name("CODE");

  auto out = std::make_shared<std::string>();
  cmd = tool::AddCommand(*group, "info", "a city cache's settings, levels, tiles and centre",
                         "Prints the coordinate system and offset, the levels, the extent, the tiles\n"
                         "per level (present, null, missing), the build parameters and a last line\n"
                         "\"centre X Y\" in model coordinates.",
                         [out] { return RunInfo(*out); });
  cmd->add_option("OUT", *out, "city cache folder")->required();
}
