// kel tile: tile addressing (parent chain, children) and index ranges.
#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include <kel/kel.h>

#include "commands.h"
#include "options.h"

namespace {

void PrintTile(const char* label, const kel::TileCoords& t) {
  if (t.isValid())
    std::printf("%-14s level %d, row %d, column %d\n", label, t.level, t.row, t.column);
  else
    std::printf("%-14s (none)\n", label);
}

struct InfoArgs {
  std::int64_t level = 0, row = 0, column = 0;
};

int RunInfo(const InfoArgs& a) {
  const kel::TileCoords tile(static_cast<int>(a.level), static_cast<int>(a.row), static_cast<int>(a.column));
  PrintTile("tile", tile);
  std::printf("%-14s %d\n", "child index", tile.getChildIndex());
  std::puts("parent chain:");
  for (kel::TileCoords p = tile.getParent(); p.isValid(); p = p.getParent())
    std::printf("  level %d, row %d, column %d (child index %d)\n", p.level, p.row, p.column, p.getChildIndex());
  std::puts("children:");
  for (int i = 0; i < 4; ++i) {
    const kel::TileCoords c = tile.getChild(i);
    std::printf("  [%d] level %d, row %d, column %d\n", i, c.level, c.row, c.column);
  }
  return 0;
}

struct RangeArgs {
  std::vector<double> origin, box;
  double size = 0;
  std::int64_t level = 0;
  std::int64_t list = 16;
};

int RunRange(const RangeArgs& a) {
  if (!(a.size != 0.0)) throw tool::UsageError("--size must be a non-zero number");
  const kel::BBox<2, double> region({a.box[0], a.box[1]}, {a.box[2], a.box[3]});
  const kel::BBox<2, int> range = kel::TileSetInfo::GetIndexRange(
      static_cast<std::uint64_t>(a.level), kel::Vec<2, double>(a.origin[0], a.origin[1]), region, a.size);
  const long long columns = static_cast<long long>(range.max.x()) - range.min.x() + 1;
  const long long rows = static_cast<long long>(range.max.y()) - range.min.y() + 1;
  std::printf("level %lld: columns %d..%d, rows %d..%d (%lld tiles)\n", static_cast<long long>(a.level),
              range.min.x(), range.max.x(), range.min.y(), range.max.y(), columns * rows);
  long long shown = 0;
  const kel::Vec<3, double> origin3(a.origin[0], a.origin[1], 0.0);
  for (int r = range.min.y(); r <= range.max.y() && shown < a.list; ++r)
    for (int c = range.min.x(); c <= range.max.x() && shown < a.list; ++c, ++shown) {
      const auto reg =
          kel::TileSetInfo::GetTileRegion(kel::TileCoords(static_cast<int>(a.level), r, c), a.size, origin3);
      std::printf("  row %d, column %d: (%g, %g)-(%g, %g)\n", r, c, reg.min.x(), reg.min.y(), reg.max.x(), reg.max.y());
    }
  if (shown < columns * rows) std::printf("  ... %lld more (--list N shows more)\n", columns * rows - shown);
  return 0;
}

}  // namespace

void AddTileCommands(CLI::App& app) {
  CLI::App* group = tool::AddGroup(app, "tile", "quadtree tile addressing and index ranges");

  auto info = std::make_shared<InfoArgs>();
  CLI::App* cmd = tool::AddCommand(
      *group, "info", "parent chain, children and child index of a tile",
      "Prints the tile's child index, its parents up to level 0 and its four children.\n"
      "Negative rows and columns are allowed; they nest mirror-wise like positive ones.",
      [info] { return RunInfo(*info); });
  tool::AddInt(*cmd, "LEVEL", info->level, 0, 30, "tile level, 0-30")->required();
  tool::AddInt(*cmd, "ROW", info->row, INT32_MIN, INT32_MAX, "tile row")->required();
  tool::AddInt(*cmd, "COLUMN", info->column, INT32_MIN, INT32_MAX, "tile column")->required();

  auto range = std::make_shared<RangeArgs>();
  cmd = tool::AddCommand(*group, "range", "tile index range covering a ground box",
                         "Prints the inclusive column and row range of level-L tiles touched by the box\n"
                         "(a right edge on a tile boundary is exclusive, a top edge is not) and the\n"
                         "ground regions of the first N of them.",
                         [range] { return RunRange(*range); });
  tool::AddNumbers(*cmd, "--origin", range->origin, 2, "origin of the tile set")->required();
  tool::AddNumber(*cmd, "--size", range->size, "edge length of a level-0 tile")->required();
  tool::AddInt(*cmd, "--level", range->level, 0, 30, "tile level, 0-30")->required();
  tool::AddNumbers(*cmd, "--box", range->box, 4, "ground box X0,Y0,X1,Y1")->required()->type_name("X0,Y0,X1,Y1");
  tool::AddInt(*cmd, "--list", range->list, 0, INT64_MAX, "how many tile regions to print (default 16)");
}
