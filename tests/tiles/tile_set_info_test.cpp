#include "kel/tiles/tile_set_info.h"

#include <random>

#include <gtest/gtest.h>

namespace kel {
namespace {

BBox<2, double> Box(double x0, double y0, double x1, double y1) { return BBox<2, double>({x0, y0}, {x1, y1}); }
BBox<2, int> Range(int c0, int r0, int c1, int r1) { return BBox<2, int>({c0, r0}, {c1, r1}); }

TEST(TileSetInfo, IndexRangeHasAnExclusiveRightEdgeOnly) {
  const Vec<2, double> o(0, 0);
  struct Case {
    const char* label;
    BBox<2, double> region;
    BBox<2, int> expected;
  } cases[] = {
      {"edges on boundaries", Box(0, 0, 100, 100), Range(0, 0, 1, 2)},
      {"interior", Box(10, 10, 60, 60), Range(0, 0, 1, 1)},
      {"around the origin", Box(-1, -1, 0.5, 0.5), Range(-1, -1, 0, 0)},
      {"degenerate on a boundary keeps the column", Box(50, 10, 50, 10), Range(1, 0, 1, 0)},
  };
  for (const auto& c : cases) EXPECT_EQ(TileSetInfo::GetIndexRange(1, o, c.region, 100.0), c.expected) << c.label;
}

TEST(TileSetInfo, TileRegionFollowsTheWorkedExample) {
  const auto r = TileSetInfo::GetTileRegion(TileCoords(1, 1, 0), 100, Vec3d(1000, 2000, 5));
  EXPECT_EQ(r, Box(1000, 2050, 1050, 2100));
  const auto flipped = TileSetInfo::GetTileRegion(TileCoords(0, 0, 0), -10, Vec3d(0, 0, 0));
  EXPECT_EQ(flipped, Box(-10, -10, 0, 0));
}

TEST(TileSetInfo, RegionAndRangeAreInverseOnInteriorPoints) {
  std::mt19937 rng(3);
  TileSetInfo info;
  info.origin = Vec3d(-1234.5, 777.25, 9);
  info.tileSize = 4096;
  for (int i = 0; i < 5000; ++i) {
    const int level = std::uniform_int_distribution<int>(0, 12)(rng);
    const int span = 1 << level;
    std::uniform_int_distribution<int> idx(-2 * span, 2 * span);
    const TileCoords tile(level, idx(rng), idx(rng));
    const auto region = info.getTileRegion(tile);
    std::uniform_real_distribution<double> fx(0.01, 0.99);
    const double x = region.min.x() + fx(rng) * (region.max.x() - region.min.x());
    const double y = region.min.y() + fx(rng) * (region.max.y() - region.min.y());
    const auto range = TileSetInfo::GetIndexRange(level, Vec<2, double>(info.origin.x(), info.origin.y()),
                                                  Box(x, y, x, y), info.tileSize);
    ASSERT_EQ(range, Range(tile.column, tile.row, tile.column, tile.row)) << level;
  }
}

TEST(TileSetInfo, MemberOverloadUsesExtentAndIgnoresZ) {
  TileSetInfo info;
  info.origin = Vec3d(0, 0, 500);
  info.tileSize = 100;
  info.extent.extend(Vec3d(10, 10, -1e9));
  info.extent.extend(Vec3d(60, 60, 1e9));
  EXPECT_EQ(info.GetIndexRange(1), Range(0, 0, 1, 1));
  TileSetInfo copy = info;
  EXPECT_EQ(copy.GetIndexRange(2), info.GetIndexRange(2));
  // An empty extent gives a meaningless but defined answer.
  TileSetInfo empty;
  empty.tileSize = 1;
  (void)empty.GetIndexRange(3);
}

}  // namespace
}  // namespace kel
