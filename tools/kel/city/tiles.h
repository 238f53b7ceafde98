// The tile pyramid over a prepared city and the writing of one tile.
//
// Levels 0 .. L-1: level L-1 holds every building at full detail in tiles of
// about the leaf size; each coarser level doubles the tile edge, keeps only
// buildings whose footprint area reaches (edge / 160)^2 and generalises
// their outlines to edge / 1024 (Douglas-Peucker), so a level-0 tile is the
// city's landmarks, not all of it. Buildings that cross a tile's edge are
// clipped to it; their cut faces get no walls.
//
// A tile file ("<root>/<level>/<row>/city_<level>_<row>_<column>.sff",
// compressed) holds:
//   '@' 0                              the tile
//     'A'                              materials: 'E' 1 facade atlas, named
//                                      by its path under the root; 'E' 2 ground
//     'B' 1  'C' 0                     the terrain patch
//     'B' 2  'C' <building id> ...     one mesh per building
// and every mesh carries a reference to its material (tag 7), positions,
// normals, for buildings the atlas coordinates (24-byte elements: u, v and
// the atlas rectangle, see mesh.h), and its triangles as the integer
// array (tag 41 / type 19) that SFF2BVH reads. A tile without content is a
// null tile (a file of zero bytes). The facade atlas lies under
// "<root>/SharedResources/Facades/<level>_<row>_<column>/" as
// "__atlasImage__0.dds" beside its "atlasInfo.xml", and is written before
// the tile, so a tile on disk always has its atlas.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include <kel/kel.h>

#include "city/cache_files.h"
#include "city/mesh.h"
#include "city/model.h"
#include "city/prepare.h"
#include "city/textures.h"

namespace city {

struct TilePlan {
  CityDescription description;
  kel::TileSetInfo set;
  int leafLevel = 0;
  std::vector<kel::TileCoords> tiles;  // level by level, then row, then column
};

// Levels so that a leaf tile's edge is `leafSize` metres or less and the
// level-0 tile covers the extent; origin at the extent's lower corner.
TilePlan PlanTiles(const PreparedCity& city, double leafSize);

// Minimum footprint area a building needs to appear at `level`, and the
// outline tolerance used there (both 0 at the leaf level).
double MinimumArea(const TilePlan& plan, int level);
double GeneralizeTolerance(const TilePlan& plan, int level);

// The buildings each tile may hold: those whose box touches the tile and
// that are large enough for its level. Read-only once built.
class TileIndex {
public:
  TileIndex(const TilePlan& plan, const std::vector<Building>& buildings);
  // Indices into the buildings, ascending.
  const std::vector<std::uint32_t>& candidates(const kel::TileCoords& tile) const;

private:
  // Only tiles that hold something have an entry: a country's pyramid has
  // many millions of tiles, most of them empty.
  static std::uint64_t Key(int row, int column) { return std::uint64_t(std::uint32_t(row)) << 32 | std::uint32_t(column); }
  std::vector<std::unordered_map<std::uint64_t, std::vector<std::uint32_t>>> levels_;
  std::vector<std::uint32_t> none_;
};

// Everything a tile worker reads; shared by all workers.
struct TileContext {
  const PreparedCity& city;
  const TilePlan& plan;
  const TileIndex& index;
  const TextureLibrary& textures;
  std::string root;                   // cache root, UTF-8
  std::vector<std::wstring> inputs;   // files whose changes make tiles stale
  int terrainQuads = 32;
  int zlibLevel = 1;
  bool force = false;                 // rebuild tiles that are up to date
  kel::Progress* stop = nullptr;      // interrupted: stop at the next building
};

struct TileStats {
  enum class Outcome { Written, Null, Fresh } outcome = Outcome::Written;
  std::int64_t buildings = 0, triangles = 0, sffBytes = 0, ddsBytes = 0;
  double geometrySeconds = 0, textureSeconds = 0, dxtSeconds = 0, deflateSeconds = 0, writeSeconds = 0;
};

// Per-worker scratch, reused from tile to tile.
struct TileScratch;
struct TileScratchDeleter {
  void operator()(TileScratch* s) const;
};
std::unique_ptr<TileScratch, TileScratchDeleter> MakeTileScratch();

// Builds and writes one tile (or finds it fresh and leaves it). Throws
// Interrupted when ctx.stop or the tile's own progress is interrupted;
// nothing of the tile is then left on disk. I/O failures throw
// kel::wexception.
TileStats BuildTile(const TileContext& ctx, const kel::TileCoords& tile, TileScratch& scratch);

// The tile's file and its atlas folder under the root.
std::string TilePath(const TileContext& ctx, const kel::TileCoords& tile);
std::string TilePath(const std::string& root, const std::wstring& name, const kel::TileCoords& tile);
std::string AtlasFolder(const std::string& root, const kel::TileCoords& tile);

// The SFF records of one mesh node ('C' id, material reference, arrays, end).
void WriteMeshNode(kel::sff_writer& w, std::uint64_t id, std::uint64_t material, const Mesh& mesh);

}  // namespace city
