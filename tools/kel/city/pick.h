// Answers from a finished city cache: the height of ground or roof under a
// point, by finding the full-detail tile through the tile set and the cache
// layout and shooting a ray straight down at its triangles (SFF2BVH's pick
// index); and
// a heightmap picture of the whole city drawn the same way.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <kel/kel.h>

#include "city/cache_files.h"

namespace city {

struct PickResult {
  bool hit = false;
  double height = 0;         // z of the hit, model coordinates (metres)
  bool ground = false;       // the terrain, not a building
  std::int64_t building = 0;  // the building's id when !ground
  kel::TileCoords tile;       // where it was looked up
  std::uint32_t triangle = 0;
};

// A city cache opened for queries. Tiles are read on first use and kept;
// queries from several threads are safe.
class CityCache {
public:
  // Throws std::runtime_error when `root` holds no readable city.
  explicit CityCache(const std::string& root);

  const ModelSettings& settings() const { return settings_; }
  const CityDescription& description() const { return description_; }
  const kel::TileSetInfo& tileSet() const { return set_; }
  int leafLevel() const { return description_.levels - 1; }

  // Model coordinates. No hit outside the tiles, on null tiles and where a
  // tile holds nothing under the point.
  PickResult pick(double x, double y);
  // The same for a point in another coordinate system ("LL84",
  // "EPSG:25832", ...); throws std::runtime_error when it cannot be
  // transformed.
  PickResult pick(double x, double y, const std::wstring& srs);

  // The file of a tile.
  std::string tileFile(const kel::TileCoords& tile) const;
  // The full-detail tile under a point (model coordinates).
  kel::TileCoords leafTileAt(double x, double y) const;

  // A tile read without keeping it, for passes over many tiles, and a pick
  // in it.
  struct Tile;
  std::shared_ptr<Tile> readTile(const kel::TileCoords& tile) const;
  PickResult pickIn(const Tile& tile, double x, double y) const;

private:
  std::shared_ptr<Tile> load(const kel::TileCoords& tile);

  std::string root_;
  ModelSettings settings_;
  CityDescription description_;
  kel::TileSetInfo set_;
  std::mutex mutex_;
  std::map<kel::TileCoords, std::shared_ptr<Tile>> tiles_;
};

struct Heightmap {
  int width = 0, height = 0;
  std::vector<float> z;           // NaN where nothing was hit; row 0 is north
  std::vector<std::uint8_t> kind;  // 0 nothing, 1 ground, 2 building
  kel::BBox<2, double> region;
  std::int64_t hits = 0;
};

// A grid of vertical picks (longer side `size` pixels) over the city's
// extent, from the tiles of `level` (-1: full detail), tile by tile on
// `threads` threads. `progress` counts tiles.
Heightmap PickHeightmap(CityCache& cache, int size, int threads, kel::Progress& progress, int level = -1);
// Shaded colours: greens and browns by ground height, greys by roof height,
// lit from the north-west. Writes a PNG atomically.
void WriteHeightmapPng(const Heightmap& map, const std::string& path);

}  // namespace city
