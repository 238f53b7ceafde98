// How a tile set lays its quadtree over the ground: an origin, the edge of
// the single level-0 tile and the data's extent. Maps tiles to ground regions
// and ground regions to inclusive ranges of tile indices (x = column,
// y = row). Two-dimensional: z of origins and boxes is ignored. Pure
// arithmetic, no I/O.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "kel/core/types.h"
#include "kel/export.h"
#include "kel/tiles/tile_coords.h"

namespace kel {

class KEL_API TileSetInfo {
public:
  TileSetInfo() = default;

  // The ground rectangle of `tile`; a negative tile size still gives a proper box.
  static BBox<2, double> GetTileRegion(const TileCoords& tile, double tileSize, const Vec<3, double>& origin);
  BBox<2, double> getTileRegion(const TileCoords& tile) const {
    return GetTileRegion(tile, tileSize, origin);
  }

  // Tiles at `level` touched by `region`, min and max inclusive. The right
  // edge (x) is exclusive when it lies exactly on a tile boundary; the top
  // edge (y) is not. The asymmetry is deliberate. The level shift uses its
  // low five bits.
  static BBox<2, int> GetIndexRange(std::uint64_t level, const Vec<2, double>& origin,
                                    const BBox<2, double>& region, double tileSize);
  static BBox<2, int> GetIndexRange(std::uint64_t level, const Vec<3, double>& origin,
                                    const BBox<3, double>& region, double tileSize);
  // With this set's origin, extent and tile size. Meaningless while the
  // extent is empty: check it first.
  BBox<2, int> GetIndexRange(std::uint64_t level) const {
    return GetIndexRange(level, origin, extent, tileSize);
  }

  // Description members the tiling arithmetic does not interpret.
  double scale = 1.0;
  std::map<std::wstring, std::wstring> properties;
  BBox<3, double> extent;       // empty until data is added
  double baseHeight = 0.0;
  Vec<3, double> origin;        // lower corner of tile (level, 0, 0)
  double tileSize = 0.0;        // edge of a level-0 tile in ground units
  std::shared_ptr<void> userData;
  std::wstring name;
  std::wstring srs;
  std::wstring description;
};

}  // namespace kel
