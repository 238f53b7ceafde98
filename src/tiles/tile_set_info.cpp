#include "kel/tiles/tile_set_info.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace kel {
namespace {

// floor() then int, saturating: an empty extent feeds infinities here and the
// result is meaningless anyway, but must not be undefined.
int FloorToInt(double v) {
  if (std::isnan(v)) return 0;
  const double f = std::floor(v);
  if (f <= static_cast<double>(std::numeric_limits<int>::min())) return std::numeric_limits<int>::min();
  if (f >= static_cast<double>(std::numeric_limits<int>::max())) return std::numeric_limits<int>::max();
  return static_cast<int>(f);
}

}  // namespace

BBox<2, double> TileSetInfo::GetTileRegion(const TileCoords& tile, double tileSize,
                                           const Vec<3, double>& origin) {
  const double size = tileSize / static_cast<double>(1 << (tile.level & 31));
  const double x0 = tile.column * size + origin.x();
  const double y0 = tile.row * size + origin.y();
  const double x1 = x0 + size;
  const double y1 = y0 + size;
  return BBox<2, double>({std::min(x0, x1), std::min(y0, y1)}, {std::max(x0, x1), std::max(y0, y1)});
}

BBox<2, int> TileSetInfo::GetIndexRange(std::uint64_t level, const Vec<2, double>& origin,
                                        const BBox<2, double>& region, double tileSize) {
  const double scale = static_cast<double>(1 << (level & 31)) / tileSize;
  const double ax = (region.min.x() - origin.x()) * scale;
  const double ay = (region.min.y() - origin.y()) * scale;
  double bx = (region.max.x() - origin.x()) * scale;
  const double by = (region.max.y() - origin.y()) * scale;
  // A right edge exactly on a boundary does not reach into the next column.
  // Only x gets this treatment; y keeps the next row. Deliberate.
  double whole;
  if (std::modf(bx, &whole) == 0.0 && ax < bx) bx -= 1.0;
  const int ix0 = FloorToInt(ax);
  const int iy0 = FloorToInt(ay);
  const int ix1 = FloorToInt(bx);
  const int iy1 = FloorToInt(by);
  return BBox<2, int>({std::min(ix0, ix1), std::min(iy0, iy1)}, {std::max(ix0, ix1), std::max(iy0, iy1)});
}

BBox<2, int> TileSetInfo::GetIndexRange(std::uint64_t level, const Vec<3, double>& origin,
                                        const BBox<3, double>& region, double tileSize) {
  return GetIndexRange(level, Vec<2, double>(origin.x(), origin.y()),
                       BBox<2, double>({region.min.x(), region.min.y()}, {region.max.x(), region.max.y()}),
                       tileSize);
}

}  // namespace kel
